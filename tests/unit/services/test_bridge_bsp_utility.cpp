/* The upgrade utility's arguments and answers. */
#include "converter/control/bridge_bsp_utility.h"

#include "config/captured_log.h"

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

using testing::ElementsAre;

TEST(BspUtility, TheFirstKnownWordOfAStatusCounts)
{
    const struct {
        const char *answer;
        bsp_state state;
    } rows[] = {
        {"scheduled", BSP_SCHEDULED},
        {"download-scheduled", BSP_SCHEDULED},
        {"status: scheduled\n", BSP_SCHEDULED},
        {"downloading", BSP_DOWNLOADING},
        {"in-progress", BSP_INSTALLING},
        {"download-ok", BSP_DOWNLOADED},
        {"ok", BSP_INSTALLED},
        {"error", BSP_FAILED},
        /* one word's place in the order */
        {"error ok", BSP_INSTALLED},
        {"ok download-ok", BSP_DOWNLOADED},
        {"download-ok in-progress", BSP_INSTALLING},
        {"in-progress downloading", BSP_DOWNLOADING},
        {"downloading scheduled", BSP_SCHEDULED},
        /* words within words */
        {"token", BSP_INSTALLED},
        {"rescheduled", BSP_SCHEDULED},
        {"terrors", BSP_FAILED},
        /* none */
        {"", BSP_IDLE},
        {"idle", BSP_IDLE},
        {"OK", BSP_IDLE},
        {"Error", BSP_IDLE},
        {"in progress", BSP_IDLE},
        {"download", BSP_IDLE},
    };
    for (const auto &row : rows)
        EXPECT_EQ(bsp_parse_status(row.answer), row.state) << row.answer;
}

TEST(BspUtility, EachStateHasItsText)
{
    const std::pair<int, const char *> rows[] = {
        {0, "NO KNOWN BSP ACTIVITY"},
        {1, "DOWNLOADING"},
        {2, "DOWNLOADED"},
        {3, "UPDATE SCHEDULED"},
        {4, "INSTALLING"},
        {5, "INSTALL (DOWNLOAD/UPGRADE) FAILED"},
        {6, "INSTALLED"},
        {7, "NO BSP UPGRADE AVAILABLE"},
        {8, "BSP UPDATE CANNOT BE RESCHEDULED"},
        {9, "UNEXPECTED ERROR DURING BSP SCHEDULING"},
        {10, "BSP UPGRADE UTILITY NOT REACHABLE"},
        {11, "UNKNOWN"},
        {-1, "UNKNOWN"},
        {INT_MAX, "UNKNOWN"},
    };
    for (const auto &[state, text] : rows)
        EXPECT_STREQ(bsp_state_text(state), text);
}

TEST(BspUtility, TheRequestTimeIsReadBehindItsWords)
{
    const struct {
        const char *answer;
        uint64_t seconds;
    } rows[] = {
        {"request time: 1700000000", 1700000000},
        {"request time: 1700000000\n", 1700000000},
        {"Last request time: 42\nmore 77\n", 42},
        {"request time:\n42\n", 42},
        {"request time:   42", 42},
        {"request time:042", 42},
        {"request time:123", 23}, /* one blank is taken for granted */
        {"request time: 4294967296", 4294967296},
        {"request time: 12 request time: 13", 12},
        {"request time: never", 0},
        {"request time: ", 0},
        {"request time:", 0},
        {"request time", 0},
        {"Request time: 5", 0},
        {"5", 0},
        {"", 0},
    };
    for (const auto &row : rows)
        EXPECT_EQ(bsp_parse_request_time(row.answer), row.seconds) << row.answer;
}

TEST(BspUtility, AnOfferNamesBothVersions)
{
    const std::string longest(63, '1');
    const struct {
        std::string answer;
        std::string version;
        std::string available;
    } rows[] = {
        {"from 3.4.0 to 3.5.1", "3.4.0 ", "3.5.1"},
        {"BSP upgrade available from 3.4.0 to 3.5.1\n", "3.4.0 ", "3.5.1"},
        {"from 3.4.0 to 3.5.1\nReboot needed\n", "3.4.0 ", "3.5.1"},
        {"from 3.4.0\nto 3.5.1", "3.4.0", "3.5.1"},
        {"to 9 from 3.4.0 to 3.5.1", "3.4.0 ", "3.5.1"},
        {"from 3.4.0 to 3.5.1 to 3.6", "3.4.0 ", "3.5.1 to 3.6"},
        {"from 3.4.0to 3.5.1", "3.4.0", "3.5.1"},
        {"from 3.4.0 to", "3.4.0 ", ""},
        {"from 3.4.0 to ", "3.4.0 ", ""},
        {"from 3.4.0 to\n3.5.1", "3.4.0 ", "3.5.1"},
        {"from 3.4.0", "", ""},
        {"from", "", ""},
        {"from ", "", ""},
        {"fromto", "", ""},
        {"up to 3.5.1", "", ""},
        {"", "", ""},
        {"from " + longest + "to " + longest, longest, longest},
        {"from " + longest + "1to " + longest + "1", longest, longest},
    };
    for (const auto &row : rows) {
        char version[BSP_VERSION_SIZE] = "as before";
        char available[BSP_VERSION_SIZE] = "as before";
        bsp_parse_offer(row.answer.c_str(), version, available);
        EXPECT_EQ(version, row.version) << row.answer;
        EXPECT_EQ(available, row.available) << row.answer;
    }
}

TEST(BspUtility, AnEmptyAnswerAndOneWithFailAreFailures)
{
    for (const char *answer : {"", "Fail", "Failed", "it Failed\n", "noFailure"})
        EXPECT_TRUE(bsp_answer_is_failure(answer)) << answer;
    for (const char *answer : {"\n", " ", "fail", "FAIL", "ok"})
        EXPECT_FALSE(bsp_answer_is_failure(answer)) << answer;
}

TEST(BspUtility, NothingIsOfferedInTheseWordsOnly)
{
    for (const char *answer : {"No BSP upgrade available", "Sorry. No BSP upgrade available\n"})
        EXPECT_TRUE(bsp_answer_offers_nothing(answer)) << answer;
    for (const char *answer : {"", "None", "no BSP upgrade available", "from 1 to 2"})
        EXPECT_FALSE(bsp_answer_offers_nothing(answer)) << answer;
}

TEST(BspUtility, AScheduleHasFourForms)
{
    const struct {
        bsp_schedule schedule;
        const char *arguments;
    } rows[] = {
        {{1, 2, 3, 4, false, false}, "-U 3,4"},
        {{1, 2, 3, 4, true, false}, "-U 3,4 -f"},
        {{1, 2, 3, 4, false, true}, "-G 1,2 -U 3,4"},
        {{1, 2, 3, 4, true, true}, "-G 1,2 -U 3,4 -f"},
        {{0, 0, 0, 0, false, false}, "-U 0,0"},
        {{UINT64_MAX, UINT32_MAX, UINT64_MAX, UINT32_MAX, true, true},
         "-G 18446744073709551615,4294967295 -U 18446744073709551615,4294967295 -f"},
    };
    for (const auto &row : rows) {
        char arguments[236];
        bsp_schedule_arguments(row.schedule, arguments, sizeof(arguments));
        EXPECT_STREQ(arguments, row.arguments);
    }
}

/* ---- running it ---- */

/* A utility of this text, found before any other. */
class BspUtilityRun : public testing::Test
{
  protected:
    BspUtilityRun()
    {
        std::string pattern = testing::TempDir() + "bridge_utility_XXXXXX";
        EXPECT_NE(mkdtemp(pattern.data()), nullptr);
        folder_ = pattern;
        path_ = getenv("PATH");
        setenv("PATH", join({folder_.string(), ":", path_}).c_str(), 1);
    }
    ~BspUtilityRun() override
    {
        setenv("PATH", path_.c_str(), 1);
        std::filesystem::remove_all(folder_);
    }

    void write(const std::string &text) const
    {
        const std::filesystem::path file = folder_ / "sarnivel-dist-upgrade";
        std::ofstream(file) << "#!/bin/sh\n" << text;
        std::filesystem::permissions(file, std::filesystem::perms::owner_all);
    }

    captured_log log;

  private:
    std::filesystem::path folder_;
    std::string path_;
};

TEST_F(BspUtilityRun, TheAnswerIsAllThatItPrintsWhateverItsStatus)
{
    write(R"(printf '%s|' "$@"; echo; echo second; echo lost >/dev/null; exit 3)");
    char answer[BSP_ANSWER_SIZE];
    EXPECT_EQ(bsp_utility_run("-G 1,2 -U 3,4 -f", answer), 0);
    EXPECT_STREQ(answer, "-G|1,2|-U|3,4|-f|\nsecond\n");
    EXPECT_THAT(
        log.lines(),
        ElementsAre("TRACE Calling upgrade utility via the command: sarnivel-dist-upgrade -G 1,2 -U 3,4 -f",
                    "TRACE Waiting for response from the Upgrade utility",
                    "TRACE Response from the Upgrade utility: -G|1,2|-U|3,4|-f|", "?second", "?"));
}

TEST_F(BspUtilityRun, AnAnswerIsCutToItsPlace)
{
    const struct {
        const char *script;
        size_t length;
    } rows[] = {
        {"head -c 254 /dev/zero | tr '\\0' x", 254},
        {"head -c 255 /dev/zero | tr '\\0' x", 255},
        {"head -c 256 /dev/zero | tr '\\0' x", 255},
        {"head -c 100000 /dev/zero | tr '\\0' x", 255},
        {"for i in 1 2 3 4 5 6 7 8 9; do head -c 31 /dev/zero | tr '\\0' x; echo; done", 255},
        {"printf 'ab\\0cd'", 2},
        {":", 0},
        {"exit 1", 0},
    };
    for (const auto &row : rows) {
        write(row.script);
        char answer[BSP_ANSWER_SIZE];
        memset(answer, 'y', sizeof(answer));
        EXPECT_EQ(bsp_utility_run("-s", answer), 0) << row.script;
        EXPECT_EQ(strlen(answer), row.length) << row.script;
    }
}

TEST_F(BspUtilityRun, AMissingUtilityAnswersNothing)
{
    char answer[BSP_ANSWER_SIZE] = "as before";
    EXPECT_EQ(bsp_utility_run("-s", answer), 0);
    EXPECT_STREQ(answer, "");
}
