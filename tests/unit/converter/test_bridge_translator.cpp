/* The tables of translators, their one look-up, and the clock of the Basics Station dialect. */
#include "converter/translation.h"

#include "common/bridge_json_helpers.h"
#include "converter/data/bridge_translator_bstn.h"
#include "converter/data/bridge_translator_chirpstack.h"
#include "converter/data/bridge_translator_snvns.h"

#include <ctime>
#include <limits>
#include <set>
#include <tuple>

using testing::ElementsAre;
using testing::Not;

int next_rand = 0;
static std::vector<unsigned> seeds;

extern "C" int __wrap_rand()
{
    return next_rand;
}

extern "C" void __wrap_srand(unsigned seed)
{
    seeds.push_back(seed);
}

/* ---- the tables ---- */

class BridgeTranslator : public Translation
{
};

class BridgeTranslatorDeath : public Translation
{
};

using slot = std::tuple<uint32_t, uint32_t, uint32_t>; /* format, Semtech version, version of the server */

static const std::set<slot> FILLED_SLOTS = {{0, 1, 1}, {0, 2, 1}, {1, 1, 2}, {1, 1, 3},
                                            {1, 2, 2}, {1, 2, 3}, {3, 1, 1}, {3, 2, 1}};

/* The line of an empty slot, or nothing for a filled one. */
static std::string missing_line(uint32_t direction, uint32_t format, uint32_t semtech, uint32_t server)
{
    if (FILLED_SLOTS.contains({format, semtech, server}))
        return "";
    const std::string semtech_text = std::to_string(semtech);
    const std::string server_text = join({"[", std::to_string(format), ":", std::to_string(server), "]"});
    if (direction == DIRECTION_DOWNLINK)
        return join({"ERROR no downlink conveter is defined from NS type ", server_text,
                     " to semtech version [", semtech_text, "]"});
    return join({"ERROR no ", direction == DIRECTION_UPLINK ? "uplink" : "statistics",
                 " conveter is defined from semtech version [", semtech_text, "] to NS type ", server_text});
}

static translated translate_nothing(uint32_t direction, uint32_t format, uint32_t semtech, uint32_t server)
{
    const dialect dialect = {"any", format, server};
    if (direction == DIRECTION_UPLINK)
        return translate_uplink(dialect, semtech, "{}");
    if (direction == DIRECTION_STATISTICS)
        return translate_statistics(dialect, semtech, "{}");
    return translate_downlink(dialect, semtech, "{}");
}

TEST_F(BridgeTranslator, EverySlotOfTheTablesIsFilledOrSaysThatItIsNot)
{
    for (const uint32_t direction : {DIRECTION_UPLINK, DIRECTION_DOWNLINK, DIRECTION_STATISTICS}) {
        for (uint32_t format = 0; format <= DATA_TYPE_MAX; format++) {
            for (uint32_t semtech = 0; semtech <= VERSION_MAX; semtech++) {
                for (uint32_t server = 0; server <= VERSION_MAX; server++) {
                    SCOPED_TRACE(testing::Message() << direction << " " << format << semtech << server);
                    const translated done = translate_nothing(direction, format, semtech, server);
                    const std::string line = missing_line(direction, format, semtech, server);
                    if (line.empty()) {
                        EXPECT_THAT(done.log,
                                    Not(testing::Contains(testing::HasSubstr("conveter is defined"))));
                    } else {
                        EXPECT_EQ(done.result, -1);
                        EXPECT_THAT(done.spoken(), ElementsAre(line));
                    }
                }
            }
        }
    }
}

TEST_F(BridgeTranslator, TheLookUpTracesFormatVersionsAndDirection)
{
    const std::vector<std::string> up = translate_statistics(CHIRPSTACK_V3, 2, "{}").log;
    ASSERT_GE(up.size(), 2U);
    EXPECT_EQ(up[0], "TRACE Format: [0x1], from version: [0x2], to version: [0x3]");
    EXPECT_EQ(up[1], "TRACE direction: [0x2]");
    const std::vector<std::string> down = translate_downlink(CHIRPSTACK_V3, 1, "{}").log;
    ASSERT_GE(down.size(), 2U);
    EXPECT_EQ(down[0], "TRACE Format: [0x2], from version: [0x3], to version: [0x1]");
    EXPECT_EQ(down[1], "TRACE direction: [0x1]");
}

TEST_F(BridgeTranslatorDeath, ValuesOutsideTheTablesAreProgrammingFaults)
{
    const json_owned input(json_object_new_object());
    const json_owned output(json_object_new_object());
    const bridge_translate_msg from = {.format = FORMAT_SEMTECH, .version = 2, .json = input.get()};
    const bridge_translate_msg to = {.format = FORMAT_SNVNS, .version = 1, .json = output.get()};
    bridge_translate_msg good_from = from;
    bridge_translate_msg good_to = to;
    EXPECT_ASSERTION(bridge_translate_generic(nullptr, &good_to), "from");
    EXPECT_ASSERTION(bridge_translate_generic(&good_from, nullptr), "to");

    const auto check = [](bridge_translate_msg one, bridge_translate_msg other) {
        bridge_translate_generic(&one, &other);
    };
    bridge_translate_msg bad = from;
    bad.version = 4;
    EXPECT_ASSERTION(check(bad, to), "from->version <= VERSION_MAX");
    bad = to;
    bad.version = 4;
    EXPECT_ASSERTION(check(from, bad), "to->version <= VERSION_MAX");
    bad = from;
    bad.format = 4;
    EXPECT_ASSERTION(check(bad, to), "from->format <= DATA_TYPE_MAX");
    bad = to;
    bad.format = 4;
    EXPECT_ASSERTION(check(from, bad), "to->format <= DATA_TYPE_MAX");
    bad = to;
    bad.direction = DIRECTION_STATISTICS;
    EXPECT_ASSERTION(check(from, bad), "to->direction == from->direction");
    bridge_translate_msg odd_from = from;
    bridge_translate_msg odd_to = to;
    odd_from.direction = odd_to.direction = 3;
    EXPECT_ASSERTION(check(odd_from, odd_to), "0");
}

TEST_F(BridgeTranslatorDeath, TranslatorsWantTheirObjects)
{
    const json_owned object(json_object_new_object());
    json_object *some = object.get();
    bridge_translate_msg from = {};
    uint16_t token = 0;

    using up = int (*)(const bridge_translate_msg *, json_object *, json_object *);
    const std::pair<up, const char *> ups[] = {
        {bridge_translate_uplink_semtech_v1_to_snvns_v1, "snvns"},
        {bridge_translate_uplink_semtech_v2_to_snvns_v1, "snvns"},
        {bridge_translate_stat_semtech_v1_to_snvns_v1, "snvns"},
        {bridge_translate_stat_semtech_v2_to_snvns_v1, "snvns"},
        {bridge_translate_uplink_semtech_v1_to_chirpstack_v2json, "chirpstack"},
        {bridge_translate_uplink_semtech_v2_to_chirpstack_v2json, "chirpstack"},
        {bridge_translate_uplink_semtech_v1_to_chirpstack_v3json, "chirpstack"},
        {bridge_translate_uplink_semtech_v2_to_chirpstack_v3json, "chirpstack"},
        {bridge_translate_stat_semtech_v1_to_chirpstack_v3json, "chirpstack"},
        {bridge_translate_stat_semtech_v2_to_chirpstack_v3json, "chirpstack"},
    };
    for (const auto &[translator, target] : ups) {
        EXPECT_ASSERTION(translator(nullptr, some, some), "mac");
        EXPECT_ASSERTION(translator(&from, nullptr, some), "semtech");
        EXPECT_EXIT(
            {
                dup2(STDERR_FILENO, STDOUT_FILENO);
                translator(&from, some, nullptr);
            },
            testing::KilledBySignal(SIGABRT),
            testing::HasSubstr(join({"Assertion failed: ( ", target, " ) in "})));
    }

    using down = int (*)(json_object *, json_object *, uint16_t *);
    for (const down translator : {bridge_translate_downlink_snvns_v1_to_semtech_v1,
                                  bridge_translate_downlink_snvns_v1_to_semtech_v2}) {
        EXPECT_ASSERTION(translator(nullptr, some, &token), "snvns != NULL");
        EXPECT_ASSERTION(translator(some, nullptr, &token), "semtech != NULL");
        EXPECT_ASSERTION(translator(some, some, nullptr), "token != NULL");
    }
    for (const down translator : {bridge_translate_downlink_chirpstack_v2json_to_semtech_v1,
                                  bridge_translate_downlink_chirpstack_v2json_to_semtech_v2,
                                  bridge_translate_downlink_chirpstack_v3json_to_semtech_v1,
                                  bridge_translate_downlink_chirpstack_v3json_to_semtech_v2}) {
        EXPECT_ASSERTION(translator(nullptr, some, &token), "chirpstack");
        EXPECT_ASSERTION(translator(some, nullptr, &token), "semtech");
        EXPECT_ASSERTION(translator(some, some, nullptr), "token");
    }
}

/* ---- the clock ---- */

class BstnClock : public Translation
{
  protected:
    ~BstnClock() override
    {
        bstn_xtime_base = 0;
    }

    int64_t to_server_clock(int64_t tmst)
    {
        int64_t xtime = -1;
        translate_semtech_clock_to_server_clock(tmst, &xtime);
        return xtime;
    }

    captured_log log;
};

TEST_F(BstnClock, TheSessionIsTheLowByteOfARandomNumberAndNeverZero)
{
    const std::vector<std::pair<int, int64_t>> rows = {
        {0x01, 1}, {0xff, 0xff}, {0x1234, 0x34}, {0x7fffff80, 0x80}, {0x00, 1}, {0x7fffff00, 1},
    };
    for (const auto &[random, session] : rows) {
        SCOPED_TRACE(random);
        seeds.clear();
        next_rand = random;
        const time_t before = time(nullptr);
        EXPECT_EQ(bridge_bstn_xtime_init(), 0);
        const time_t after = time(nullptr);
        EXPECT_EQ(bstn_xtime_base, session << 48);
        EXPECT_TRUE(log.has(join({"INFO bstn xtime init to: ", std::to_string(session << 48)})));
        ASSERT_EQ(seeds.size(), 1U);
        EXPECT_GE(seeds[0], static_cast<unsigned>(before));
        EXPECT_LE(seeds[0], static_cast<unsigned>(after));
    }
}

TEST_F(BstnClock, TheServerClockFollowsTheCountAcrossItsWrap)
{
    static constexpr int64_t SESSION = int64_t{5} << 48;
    static constexpr int64_t ACCEPTED_LAG = 100000;
    const struct {
        const char *name;
        int64_t low; /* of the base */
        int64_t tmst;
        int64_t expected; /* above the session */
    } rows[] = {
        {"no time passed", 0, 0, 0},
        {"forward", 1000, 5000, 5000},
        {"forward across the wrap", 0xfffffff0, 0x10, 0x100000010},
        {"backward across the wrap", 0x10, 0xfffffff0, -0x10},
        {"the count is 32 bits of a wider number", 1000, 0x700000000 + 2000, 2000},
        {"negative count", 0, -1, -1},
        {"the furthest forward", 0, 0x7fffffff, 0x7fffffff},
        {"the furthest back", 200000, 200000 - ACCEPTED_LAG, 200000 - ACCEPTED_LAG},
        {"base beyond 32 bits", 0x3fffffff0, 0x10, 0x400000010},
    };
    for (const auto &row : rows) {
        bstn_xtime_base = SESSION + row.low;
        EXPECT_EQ(to_server_clock(row.tmst), SESSION + row.expected) << row.name;
        EXPECT_EQ(bstn_xtime_base, SESSION + row.low) << "the base moves with statistics only: " << row.name;
    }
    EXPECT_THAT(log.complaints(), ElementsAre());
}

TEST_F(BstnClock, ACountTooFarBehindTheBaseGivesZero)
{
    const struct {
        int64_t base;
        int64_t tmst;
    } rows[] = {
        {200000, 99999},
        {(int64_t{1} << 48) + 50000, 0xffffffff - 50000},
        {0, 0x80000000},
        {0x80000000, 0},
    };
    for (const auto &row : rows) {
        bstn_xtime_base = row.base;
        const log_view own = log.from_here();
        EXPECT_EQ(to_server_clock(row.tmst), 0);
        EXPECT_THAT(own.lines(),
                    ElementsAre(join({"ERROR Something seems to be wrong, UL timestamp: ",
                                      std::to_string(row.tmst), ", base: ", std::to_string(row.base)})));
    }
}
