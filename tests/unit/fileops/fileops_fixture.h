/* A tree of virtual files over real directories of its own, and the log as a list of messages. */
#ifndef FILEOPS_FIXTURE_H
#define FILEOPS_FIXTURE_H

#include "common/bridge_fileops.h"
#include "common/bridge_log.h"
#include "common/captured_stderr.h"

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

/* Each line of the log as "LEVEL text". */
inline std::vector<std::string> messages(const std::string &log)
{
    std::vector<std::string> found;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        const size_t label = line.find("][");
        const size_t source = label == std::string::npos ? label : line.find("] ", label + 2);
        const size_t text = source == std::string::npos ? source : line.find(' ', source + 2);
        if (text == std::string::npos)
            continue;
        std::string level = line.substr(label + 2, source - label - 2);
        level.erase(level.find_last_not_of(' ') + 1);
        found.push_back(level + line.substr(text));
    }
    return found;
}

class temporary_folder
{
  public:
    temporary_folder()
    {
        std::string pattern = testing::TempDir() + "bridge_fileops_XXXXXX";
        EXPECT_NE(mkdtemp(pattern.data()), nullptr);
        path = pattern;
    }
    ~temporary_folder()
    {
        std::filesystem::remove_all(path);
    }
    temporary_folder(const temporary_folder &) = delete;
    temporary_folder &operator=(const temporary_folder &) = delete;

    std::string below(const std::string &name) const
    {
        return path + "/" + name;
    }
    std::string make_file(const std::string &name, const std::string &content = "content") const
    {
        std::filesystem::create_directories(std::filesystem::path(below(name)).parent_path());
        std::ofstream(below(name), std::ios::binary) << content;
        return below(name);
    }
    bool has(const std::string &name) const
    {
        return std::filesystem::exists(std::filesystem::symlink_status(below(name)));
    }

    std::string path;
};

/* The gateway's tree in small, with plain files beside the globs. The real directories exist, all but
 * "nowhere". */
class fileops_tree
{
  public:
    explicit fileops_tree(const temporary_folder &real)
    {
        for (const char *name : {"log", "old", "log_bkp", "old_bkp", "fw/opkg", "default", "bstn", "plain"})
            std::filesystem::create_directories(real.below(name));
        logs = {glob("*.log", real.below("log"), 1), glob("*.gz", real.below("old"), 1),
                glob("*.txt", real.below("old"), 1)};
        logs_bkp = {glob("*.log", real.below("log_bkp"), 1), glob("*.gz", real.below("old_bkp"), 1)};
        opkg = {glob("*", real.below("fw/opkg"), 3)};
        firmware = {dir("opkg", opkg), glob("*", real.below("fw"), 3)};
        config = {glob("*.json", real.below("default"), 3), glob("*.key", real.below("bstn"), 2)};
        plain = {file("release", real.below("plain/release"), 1),
                 file("run.sh", real.below("plain/run.sh"), 5)};
        gone = {glob("*", real.below("nowhere"), 3)};
        rows = {dir("logs", logs),
                dir("logs_bkp", logs_bkp),
                dir("firmware", firmware),
                dir("config", config),
                dir("plain", plain),
                dir("gone", gone),
                file("motd", real.below("plain/motd"), 1)};
        root = dir("/", rows);
    }
    fileops_tree(const fileops_tree &) = delete;
    fileops_tree &operator=(const fileops_tree &) = delete;

    bridge_fileops_entry root = {};

  private:
    using entries = std::vector<bridge_fileops_entry>;

    bridge_fileops_entry leaf(bridge_fileops_type type, const char *name, const std::string &real_path,
                              uint32_t access)
    {
        *next_path = real_path;
        return {.type = type, .access = access, .name = name, .real_path = (next_path++)->c_str()};
    }
    bridge_fileops_entry glob(const char *name, const std::string &real_path, uint32_t access)
    {
        return leaf(BRIDGE_FILEOPS_GLOB, name, real_path, access);
    }
    bridge_fileops_entry file(const char *name, const std::string &real_path, uint32_t access)
    {
        return leaf(BRIDGE_FILEOPS_FILE, name, real_path, access);
    }
    static bridge_fileops_entry dir(const char *name, const entries &children)
    {
        return {.type = BRIDGE_FILEOPS_DIR,
                .name = name,
                .children = children.data(),
                .child_count = static_cast<uint32_t>(children.size())};
    }

    std::array<std::string, 32> paths;
    std::string *next_path = paths.data();
    entries logs, logs_bkp, opkg, firmware, config, plain, gone, rows;
};

#endif
