/* The clock of the Basics Station dialect: statistics move it, uplinks read it. */
#include "bstn/bstn_messages.h"

#include "common/captured_stderr.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

static constexpr std::string_view NO_COUNT =
    "TRACE No count value, please configure pkt fwd to report count!";

class BstnClock : public testing::TestWithParam<uint32_t>
{
  protected:
    void SetUp() override
    {
        bstn_xtime_base = 0;
    }

    static translation statistics(std::string_view message)
    {
        const translation done = translate(DIRECTION_STATISTICS, GetParam(), message);
        EXPECT_EQ(done.result, 0);
        EXPECT_EQ(done.json, "{}");
        return done;
    }

    static translation count(int64_t value)
    {
        return statistics(join({R"({"count":)", std::to_string(value), "}"}));
    }

    static translation uplink(int64_t tmst)
    {
        return translate(DIRECTION_UPLINK, GetParam(),
                         rxpk(GetParam(), "QNobASaAAwD9zhUV", join({R"(,"tmst":)", std::to_string(tmst)})));
    }

    static std::string updated(int64_t base)
    {
        return join({"TRACE bstn xtime base updated: ", std::to_string(base)});
    }
};

INSTANTIATE_TEST_SUITE_P(Versions, BstnClock, testing::Values(1U, 2U));

/* ---- statistics ---- */

TEST_P(BstnClock, StatisticsWithoutACountLeaveItAlone)
{
    for (const int64_t base : {int64_t{0}, SESSION, SESSION + 5'000'000}) {
        for (std::string_view message : {R"({})", R"({"count":0})", R"({"count":null})", R"({"rxnb":7})"}) {
            SCOPED_TRACE(message);
            bstn_xtime_base = base;
            EXPECT_THAT(statistics(message).log, ElementsAre(NO_COUNT));
            EXPECT_EQ(bstn_xtime_base, base);
        }
    }
}

TEST_P(BstnClock, CountThatIsNoNumberCountsAsNone)
{
    bstn_xtime_base = SESSION + 5;
    EXPECT_EQ(statistics(R"({"count":"soon"})").log.back(), NO_COUNT);
    EXPECT_EQ(bstn_xtime_base, SESSION + 5);
}

TEST_P(BstnClock, FirstCountIsAddedToTheSession)
{
    static constexpr struct {
        int64_t base;
        int64_t count;
    } CASES[] = {{0, 1}, {SESSION, 1}, {SESSION, 4294967295}, {SESSION, 4294967296 + 9}, {SESSION, -5}};
    for (const auto &row : CASES) {
        bstn_xtime_base = row.base;
        EXPECT_THAT(count(row.count).log, ElementsAre(updated(row.base + row.count)));
        EXPECT_EQ(bstn_xtime_base, row.base + row.count);
    }
}

TEST_P(BstnClock, LaterCountsAdvanceIt)
{
    static constexpr int64_t TURN = int64_t{1} << 32;
    static constexpr struct {
        int64_t base;
        int64_t count;
        int64_t advanced;
    } CASES[] = {
        {SESSION + 1'000'000, 31'000'000, SESSION + 31'000'000},
        {SESSION + 1'000'000, 1'000'000, SESSION + 1'000'000},
        {SESSION + 1, 2'147'483'648, SESSION + 2'147'483'648},
        {SESSION + 3 * TURN + 7, 8, SESSION + 3 * TURN + 8},
        {SESSION + 7, 5 * TURN + 8, SESSION + 8},
        /* The count is past its 32 bits, the difference is small: no wrap as far as the clock is concerned.
         */
        {SESSION + TURN - 10, 20, SESSION + TURN + 20},
    };
    for (const auto &row : CASES) {
        SCOPED_TRACE(row.count);
        bstn_xtime_base = row.base;
        EXPECT_THAT(count(row.count).log, ElementsAre(updated(row.advanced)));
        EXPECT_EQ(bstn_xtime_base, row.advanced);
    }
}

/* A count that lies behind the clock is taken for one of the next turn of the counter. */
TEST_P(BstnClock, CountBehindTheClockIsAWrap)
{
    static constexpr int64_t TURN = int64_t{1} << 32;
    static constexpr struct {
        int64_t base;
        int64_t count;
        int64_t advanced;
    } CASES[] = {
        {SESSION + 1'000'000, 999'999, SESSION + TURN + 999'999},
        {SESSION + 1'000'000, 1, SESSION + TURN + 1},
        {SESSION + 2 * TURN + 5, 4, SESSION + 3 * TURN + 4},
        {SESSION + 5, 2'147'483'654, SESSION + 2'147'483'654},
    };
    for (const auto &row : CASES) {
        SCOPED_TRACE(row.count);
        bstn_xtime_base = row.base;
        EXPECT_THAT(count(row.count).log,
                    ElementsAre(join({"TRACE Gateway count roll over, count: ", std::to_string(row.count),
                                      ", base: ", std::to_string(row.base)}),
                                updated(row.advanced)));
        EXPECT_EQ(bstn_xtime_base, row.advanced);
    }
}

/* ---- uplinks ---- */

TEST_P(BstnClock, UplinkBeforeTheFirstCountIsDropped)
{
    for (const int64_t base : {int64_t{0}, SESSION}) {
        bstn_xtime_base = base;
        const translation done = uplink(5'000'000);
        EXPECT_EQ(done.result, -1);
        EXPECT_EQ(done.json, "{}");
        EXPECT_THAT(done.log, ElementsAre("ERROR Drop packet. Not synced with gateway count, wait for sync"));
    }
    count(4'000'000);
    EXPECT_EQ(number_of(uplink(5'000'000).json, "xtime"), std::to_string(SESSION + 5'000'000));
}

TEST_P(BstnClock, UplinkIsPlacedNearTheClock)
{
    static constexpr int64_t TURN = int64_t{1} << 32;
    static constexpr struct {
        int64_t base;
        int64_t tmst;
        int64_t xtime;
    } CASES[] = {
        {SESSION + 1'000'000, 1'000'000, SESSION + 1'000'000},
        {SESSION + 1'000'000, 31'000'000, SESSION + 31'000'000},
        {SESSION + 1'000'000, 900'000, SESSION + 900'000},
        {SESSION + 7 * TURN + 1'000'000, 900'000, SESSION + 7 * TURN + 900'000},
        {SESSION + TURN - 1000, 500, SESSION + TURN + 500},
        {SESSION + TURN + 1000, 4'294'966'296, SESSION + TURN - 1000},
        {SESSION + 1, 2'147'483'648, SESSION + 2'147'483'648},
        {SESSION + 1'000'000, 3 * TURN + 1'000'001, SESSION + 1'000'001},
    };
    for (const auto &row : CASES) {
        SCOPED_TRACE(row.tmst);
        bstn_xtime_base = row.base;
        EXPECT_EQ(number_of(uplink(row.tmst).json, "xtime"), std::to_string(row.xtime));
        EXPECT_EQ(bstn_xtime_base, row.base);
    }
}

TEST_P(BstnClock, UplinkTooFarBehindTheClockHasNoTime)
{
    static constexpr struct {
        int64_t base;
        int64_t tmst;
    } CASES[] = {{SESSION + 1'000'000, 899'999}, {SESSION + 1'000'000, 0}, {SESSION + 5, 2'147'483'654}};
    for (const auto &row : CASES) {
        SCOPED_TRACE(row.tmst);
        bstn_xtime_base = row.base;
        const translation done = uplink(row.tmst);
        EXPECT_EQ(done.result, 0);
        EXPECT_EQ(number_of(done.json, "xtime"), "0");
        EXPECT_EQ(done.log.front(), join({"ERROR Something seems to be wrong, UL timestamp: ",
                                          std::to_string(row.tmst), ", base: ", std::to_string(row.base)}));
    }
}

/* ---- the session ---- */

TEST(BstnSession, StartIsASessionWithoutACount)
{
    for (int i = 0; i < 4; ++i) {
        bstn_xtime_base = 0;
        const captured_log log;
        EXPECT_EQ(bridge_bstn_xtime_init(), 0);
        const int64_t session = bstn_xtime_base >> 48;
        EXPECT_GE(session, 1);
        EXPECT_LE(session, 255);
        EXPECT_EQ(bstn_xtime_base, session << 48);
        EXPECT_THAT(log.lines(),
                    ElementsAre(join({"INFO bstn xtime init to: ", std::to_string(bstn_xtime_base)})));
    }
}

TEST(BstnClockDeath, StatisticsAreAsserted)
{
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    for (const auto translator :
         {bridge_translate_stat_semtech_v1_to_bstn_v1, bridge_translate_stat_semtech_v2_to_bstn_v1})
        EXPECT_ASSERTION(translator(nullptr, nullptr, nullptr), "semtech");
}
