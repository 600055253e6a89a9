/* The log as a test reads it: one text a line, "ERROR failed to connect", without time, thread and place. */
#ifndef LOGGED_LINES_H
#define LOGGED_LINES_H

#include "common/captured_stderr.h"

#include <optional>
#include <sstream>
#include <string>
#include <vector>

/* "<date> <time>[<thread>][<LEVEL>] <file>:<line> <text>"; any other line stays as it is. */
inline std::string logged_line(const std::string &line)
{
    const size_t thread = line.find('[');
    const size_t level = line.find("][", thread);
    const size_t level_end = line.find("] ", level);
    const size_t text = line.find(' ', level_end + 2);
    if (thread == std::string::npos || level == std::string::npos || level_end == std::string::npos ||
        text == std::string::npos)
        return line;
    const std::string padded = line.substr(level + 2, level_end - level - 2);
    return padded.substr(0, padded.find(' ')) + line.substr(text);
}

inline std::vector<std::string> logged_lines(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream input(text);
    for (std::string line; std::getline(input, line);)
        lines.push_back(logged_line(line));
    return lines;
}

/* Captures standard error from the first start() on. */
class log_capture
{
  public:
    void start()
    {
        capture_.emplace();
    }

    /* What came since the last call. */
    std::vector<std::string> lines()
    {
        const std::vector<std::string> found = logged_lines(capture_->text());
        capture_.emplace();
        return found;
    }

  private:
    std::optional<captured_stderr> capture_;
};

#endif
