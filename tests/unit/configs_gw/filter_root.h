/* The radio layer's filter files, in a folder that the test owns: the calls that name them are redirected at
 * link time. */
#ifndef FILTER_ROOT_H
#define FILTER_ROOT_H

#include "config/captured_log.h"
#include "control/failing_calls.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <string>

class FilterTest : public testing::Test
{
  protected:
    FilterTest();
    ~FilterTest() override;

    /* The names are those behind "uplink-filter-list": "", "-lock" and "-backup". */
    static std::filesystem::path place(const std::string &name);
    static void put(const std::string &name, const std::string &text);
    static std::optional<std::string> content(const std::string &name);

    /* Opening the file fails so, at once or after as many times as it is opened. */
    static void refuse(const std::string &name, int error, int after = 0);

    /* Every call passes from this wait on. */
    static void let_pass_after_waits(size_t count);

    /* What was done to the lock file: "lock", "no lock", "unlock". */
    static std::vector<std::string> locking();

    /* The same among the files that are opened, as "open ", "open -lock" and "open -backup". */
    static std::vector<std::string> steps();

    captured_log log;
};

#endif
