/* The log's lines, as "LEVEL text" without time, thread and place. They can be read while threads still log.
 */
#ifndef CAPTURED_LOG_H
#define CAPTURED_LOG_H

#include "common/bridge_log.h"
#include "common/bridge_release.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <gmock/gmock.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

static constexpr auto TEST_DEADLINE = std::chrono::seconds(30);

inline std::string join(std::initializer_list<std::string_view> parts)
{
    std::string text;
    for (std::string_view part : parts)
        text.append(part);
    return text;
}

inline bool wait_until(const std::function<bool()> &condition)
{
    const auto end = std::chrono::steady_clock::now() + TEST_DEADLINE;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/* "date time [tid][LABEL ] file:line text" to "LABEL text". */
inline std::string strip_log_line(std::string_view line)
{
    const size_t label = line.find("][");
    const size_t place = line.find("] ", label + 2);
    const size_t text = line.find(' ', place + 2);
    if (label == std::string_view::npos || place == std::string_view::npos || text == std::string_view::npos)
        return join({"?", line});
    std::string_view name = line.substr(label + 2, place - label - 2);
    name = name.substr(0, name.find(' '));
    return std::string(name).append(line.substr(text));
}

/* The lines from some point of a captured log on; the capture outlives it. */
class log_view
{
  public:
    log_view(int fd, size_t start) : fd_(fd), start_(start)
    {
    }

    std::string text() const
    {
        std::string content(size() - start_, '\0');
        const ssize_t got = pread(fd_, content.data(), content.size(), static_cast<off_t>(start_));
        EXPECT_EQ(got, static_cast<ssize_t>(content.size()));
        return content;
    }

    std::vector<std::string> lines() const
    {
        const std::string content = text();
        std::vector<std::string> result;
        size_t start = 0;
        for (size_t end = content.find('\n'); end != std::string::npos; end = content.find('\n', start)) {
            result.push_back(strip_log_line(std::string_view(content).substr(start, end - start)));
            start = end + 1;
        }
        return result;
    }

    /* The lines of these levels only, as "WARN" or "ERROR". */
    std::vector<std::string> lines_of(std::initializer_list<std::string_view> levels) const
    {
        std::vector<std::string> result = lines();
        std::erase_if(result, [&](const std::string &line) {
            return std::none_of(levels.begin(), levels.end(), [&](std::string_view level) {
                return line.starts_with(join({level, " "}));
            });
        });
        return result;
    }

    std::vector<std::string> complaints() const
    {
        return lines_of({"ERROR", "WARN"});
    }

    long count(std::string_view line) const
    {
        const std::vector<std::string> all = lines();
        return std::count(all.begin(), all.end(), line);
    }

    bool has(std::string_view line) const
    {
        return count(line) > 0;
    }

    bool wait_for(std::string_view line) const
    {
        return wait_until([&] { return has(line); });
    }

    /* Where the line first stands, counted from 0; -1 when it does not. */
    long position(std::string_view line) const
    {
        const std::vector<std::string> all = lines();
        const auto found = std::find(all.begin(), all.end(), line);
        return found != all.end() ? found - all.begin() : -1;
    }

    /* What is logged from now on. */
    log_view from_here() const
    {
        return {fd_, size()};
    }

  private:
    size_t size() const
    {
        struct stat status = {};
        fstat(fd_, &status);
        return static_cast<size_t>(status.st_size);
    }

    int fd_;
    size_t start_;
};

/* Takes standard error for its lifetime; made before other threads exist. */
class captured_log : public log_view
{
  public:
    explicit captured_log(uint32_t level = BRIDGE_LOG_TRACE)
        : captured_log(level, memfd_create("log", MFD_CLOEXEC))
    {
    }
    ~captured_log()
    {
        dup2(saved_.get(), STDERR_FILENO);
    }
    captured_log(const captured_log &) = delete;
    captured_log &operator=(const captured_log &) = delete;

  private:
    captured_log(uint32_t level, int fd) : log_view(fd, 0), saved_(dup(STDERR_FILENO)), file_(fd)
    {
        bridge_log_init(level, true);
        dup2(fd, STDERR_FILENO);
    }

    bridge_fd saved_;
    bridge_fd file_;
};

#endif
