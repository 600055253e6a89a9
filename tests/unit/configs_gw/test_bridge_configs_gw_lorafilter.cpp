/* The section of the uplink packet filter, on real files: which rules are refused and why, and that a write
 * is all or nothing. */
#include "common/bridge_json_helpers.h"
#include "common/captured_stderr.h"
#include "configs_gw/filter_root.h"
#include "configs_gw/gateway_sections.h"
#include "converter/control/bridge_configs_gw_lorafilter.h"

#include <new>
#include <random>

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

static constexpr const char *REFUSED =
    R"({"loraTrafficFilter":{"status":"LoRa filter rule write request failed"}})";
static constexpr const char *BOTH_LISTS =
    R"({"devAddrList":[{"ruleId":1,"action":"ALLOW","start":1,"end":2}],)"
    R"("joinReqList":[{"ruleId":2,"action":"DENY","devEUI_Start":0,"devEUI_End":1,)"
    R"("joinEUI_Start":2,"joinEUI_End":3}],)"
    R"("other":[true]})";
static constexpr const char *EMPTY_LISTS = R"({"devAddrList":[],"joinReqList":[]})";

class LoraFilterSection : public FilterTest
{
  protected:
    static section_outcome write(const std::string &section)
    {
        return write_sections(join({R"({"loraTrafficFilter":)", section, "}"}));
    }

    static section_outcome write_rule(const char *list, const std::string &rule)
    {
        return write(join({"{\"", list, "\":[", rule, "]}"}));
    }

    /* The value in the answer. */
    static std::string value(const section_outcome &outcome)
    {
        const std::string start = R"({"loraTrafficFilter":{"value":)";
        if (!outcome.reply.starts_with(start))
            return outcome.reply;
        return outcome.reply.substr(start.size(), outcome.reply.size() - start.size() - 2);
    }

    static std::string read()
    {
        const std::string reply = read_sections().reply;
        const std::string start = R"("loraTrafficFilter":)";
        const size_t place = reply.find(start) + start.size();
        return reply.substr(place, reply.size() - place - 1);
    }
};

static std::string devaddr(const char *start, const char *end = nullptr, const char *id = "1",
                           const char *action = "ALLOW")
{
    std::string rule = join({R"({"ruleId":)", id, R"(,"action":")", action, R"(","start":")", start, "\""});
    if (end != nullptr)
        rule.append(join({R"(,"end":")", end, "\""}));
    return rule + "}";
}

/* ---- rules that are taken ---- */

TEST_F(LoraFilterSection, AnAddressRuleIsStoredAsNumbersAndShownInHexadecimal)
{
    static constexpr struct {
        const char *start, *end;
        const char *stored, *shown;
    } rows[] = {
        {"0x1F", nullptr, R"("start":31,"end":31)", R"("start":"0000001F","end":"0000001F")"},
        {"1f", nullptr, R"("start":31,"end":31)", R"("start":"0000001F","end":"0000001F")"},
        {"1f", "", R"("start":31,"end":31)", R"("start":"0000001F","end":"0000001F")"},
        {"1f", "0x1F", R"("start":31,"end":31)", R"("start":"0000001F","end":"0000001F")"},
        {"", nullptr, R"("start":0,"end":0)", R"("start":"00000000","end":"00000000")"},
        {"", "a", R"("start":0,"end":10)", R"("start":"00000000","end":"0000000A")"},
        {"0", "ffffFFFF", R"("start":0,"end":4294967295)", R"("start":"00000000","end":"FFFFFFFF")"},
        {"000000000000000000000000ABCDEF1", nullptr, R"("start":180150001,"end":180150001)",
         R"("start":"0ABCDEF1","end":"0ABCDEF1")"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(join({row.start, "-", row.end != nullptr ? row.end : "none"}));
        put("", "");
        const section_outcome written = write_rule("devAddrList", devaddr(row.start, row.end));
        EXPECT_EQ(written.result, 0);
        EXPECT_EQ(value(written),
                  join({R"({"devAddrList":[{"ruleId":1,"action":"ALLOW",)", row.shown, "}]}"}));
        EXPECT_EQ(content(""), join({R"({"devAddrList":[{"ruleId":1,"action":"ALLOW",)", row.stored, "}]}"}));
        EXPECT_EQ(content("-backup"), std::nullopt);
    }
}

TEST_F(LoraFilterSection, AJoinRequestRuleIsStoredAsNumbersAndShownInHexadecimal)
{
#define ALL_DEVEUI    R"("devEUI_Start":0,"devEUI_End":18446744073709551615)"
#define ALL_JOINEUI   R"("joinEUI_Start":0,"joinEUI_End":18446744073709551615)"
#define SHOWN_DEVEUI  R"("devEUI_Start":"0000000000000000","devEUI_End":"FFFFFFFFFFFFFFFF")"
#define SHOWN_JOINEUI R"("joinEUI_Start":"0000000000000000","joinEUI_End":"FFFFFFFFFFFFFFFF")"
    static constexpr struct {
        const char *given;
        const char *stored;
        const char *shown;
    } rows[] = {
        {R"("joinEUI_Start":"70B3D57ED0000000")",
         ALL_DEVEUI R"(,"joinEUI_Start":8121069293711392768,"joinEUI_End":8121069293711392768)",
         SHOWN_DEVEUI R"(,"joinEUI_Start":"70B3D57ED0000000","joinEUI_End":"70B3D57ED0000000")"},
        {R"("devEUI_Start":"0xa")", R"("devEUI_Start":10,"devEUI_End":10,)" ALL_JOINEUI,
         R"("devEUI_Start":"000000000000000A","devEUI_End":"000000000000000A",)" SHOWN_JOINEUI},
        {R"("devEUI_Start":"","devEUI_End":"10")", R"("devEUI_Start":0,"devEUI_End":16,)" ALL_JOINEUI,
         R"("devEUI_Start":"0000000000000000","devEUI_End":"0000000000000010",)" SHOWN_JOINEUI},
        {R"("devEUI_Start":"")", ALL_DEVEUI "," ALL_JOINEUI, SHOWN_DEVEUI "," SHOWN_JOINEUI},
        {R"("devEUI_End":"10","joinEUI_Start":"","joinEUI_End":"20")",
         R"("devEUI_Start":0,"devEUI_End":16,"joinEUI_Start":0,"joinEUI_End":32)",
         R"("devEUI_Start":"0000000000000000","devEUI_End":"0000000000000010",)"
         R"("joinEUI_Start":"0000000000000000","joinEUI_End":"0000000000000020")"},
        {R"("devEUI_Start":"1","devEUI_End":"FFFFFFFFFFFFFFFF","joinEUI_Start":"fffffffffffffffe",)"
         R"("joinEUI_End":"0xFFFFFFFFFFFFFFFF")",
         R"("devEUI_Start":1,"devEUI_End":18446744073709551615,)"
         R"("joinEUI_Start":18446744073709551614,"joinEUI_End":18446744073709551615)",
         R"("devEUI_Start":"0000000000000001","devEUI_End":"FFFFFFFFFFFFFFFF",)"
         R"("joinEUI_Start":"FFFFFFFFFFFFFFFE","joinEUI_End":"FFFFFFFFFFFFFFFF")"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.given);
        put("", "");
        const log_view told = log.from_here();
        const section_outcome written =
            write_rule("joinReqList", join({R"({"ruleId":7,"action":"deny",)", row.given, "}"}));
        EXPECT_EQ(written.result, 0);
        EXPECT_EQ(value(written),
                  join({R"({"joinReqList":[{"ruleId":7,"action":"deny",)", row.shown, "}]}"}));
        EXPECT_EQ(content(""), join({R"({"joinReqList":[{"ruleId":7,"action":"deny",)", row.stored, "}]}"}));
        const bool has_deveui = std::string_view(row.given).find("devEUI_Start") != std::string_view::npos;
        EXPECT_EQ(told.has("WARN No proper DevEUI range -- checking for proper JoinEUI range"), !has_deveui);
        EXPECT_THAT(told.lines_of({"ERROR"}), IsEmpty());
    }
}

TEST_F(LoraFilterSection, AnAcceptedRuleIsLoggedInBothForms)
{
    write(R"({"devAddrList":[{"ruleId":3,"action":"Allow","start":"a","end":"ff"}],)"
          R"("joinReqList":[{"ruleId":4,"action":"DENY","devEUI_Start":"a","joinEUI_Start":"AB"}]})");
    EXPECT_TRUE(
        log.has("DEBUG DevAddr filter rule : id = 3, action = Allow, start = 10 (0000000A), end = 255 "
                "(000000FF)"));
    EXPECT_TRUE(
        log.has("DEBUG JoinReq filter rule : id = 4, action = DENY, deveui_start = 10 (a), deveui_end = 10 "
                "(a), joineui_start = 171 (ab), joineui_end = 171 (ab)"));
    for (const char *line :
         {"DEBUG writing LoRa filter rules configuration",
          "DEBUG DevAddr filter array of length 1 found in the request",
          "DEBUG updated the DevAddr filter list",
          "DEBUG JoinReq array of length 1 found in the server request",
          "DEBUG updated the JoinReq filter list", "DEBUG No backup uplink packet filter file"})
        EXPECT_TRUE(log.has(line)) << line;
}

TEST_F(LoraFilterSection, RulesAreStoredByTheirNumbers)
{
    std::vector<unsigned> numbers(200);
    for (unsigned i = 0; i < numbers.size(); i++)
        numbers[i] = i / 2 + 1; /* each twice: both are kept */
    std::shuffle(numbers.begin(), numbers.end(), std::mt19937(1));
    std::string given = "[";
    for (const unsigned number : numbers)
        given.append(given.size() > 1 ? "," : "")
            .append(devaddr("5", nullptr, std::to_string(number).c_str()));
    EXPECT_EQ(write(join({R"({"devAddrList":)", given, "]}"})).result, 0);
    std::sort(numbers.begin(), numbers.end());
    std::string expected = R"({"devAddrList":[)";
    for (const unsigned number : numbers)
        expected.append(expected.back() == '[' ? "" : ",")
            .append(
                join({R"({"ruleId":)", std::to_string(number), R"(,"action":"ALLOW","start":5,"end":5})"}));
    EXPECT_EQ(content(""), expected + "]}");
}

/* ---- rules that are refused ---- */

#define ERROR_LINE(text) "ERROR " text

TEST_F(LoraFilterSection, ABadAddressRuleIsRefusedWithItsReason)
{
    static constexpr const char *FIELDS = ERROR_LINE(
        "unable to deserialize the DevAddr filter rule -- one or more fields likely missing in a profile");
    static constexpr const char *START = ERROR_LINE("The DevAddr start range is not Hex");
    static constexpr const char *END = ERROR_LINE("The DevAddr end range is not Hex");
    const std::string too_long(32, '1');
    const std::string too_big(31, 'F');
    const struct {
        std::string rule;
        std::string told;
    } rows[] = {
        {"{}", FIELDS},
        {"null", FIELDS},
        {"5", FIELDS},
        {"[]", FIELDS},
        {"\"x\"", FIELDS},
        {R"({"action":"ALLOW","start":"1"})", FIELDS},
        {R"({"ruleId":1,"start":"1"})", FIELDS},
        {R"({"ruleId":1,"action":"ALLOW"})", FIELDS},
        {R"({"ruleId":1,"action":null,"start":"1"})", FIELDS},
        {R"({"ruleId":1,"action":"ALLOW","start":null})", FIELDS},
        {R"({"ruleId":1,"action":"ALLOW","start":"1","end":null})", FIELDS},
        {devaddr(too_long.c_str()), FIELDS},
        {devaddr("1", too_long.c_str()), FIELDS},
        {devaddr("1", nullptr, "1", too_long.c_str()), FIELDS},
        {devaddr("1g"), START},
        {devaddr(" 1"), START},
        {devaddr("-1"), START},
        {devaddr("1x0"), START},
        {devaddr("1", "0x1g"), END},
        {devaddr("1", " "), END},
        {devaddr("zz", "zz"), START},
        {devaddr(too_big.c_str()),
         ERROR_LINE("Failed to convert DevAddr start range from string to integer")},
        {devaddr("1", too_big.c_str()),
         ERROR_LINE("Failed to convert DevAddr end range from string to integer")},
        {devaddr("100000000"),
         ERROR_LINE("DevAddr value(start = 0000000100000000, and/or end = 0000000100000000) "
                    "exceeds the maximum allowed 00000000FFFFFFFF")},
        {devaddr("100000000", "1"),
         ERROR_LINE("DevAddr value(start = 0000000100000000, and/or end = "
                    "0000000000000001) exceeds the maximum allowed 00000000FFFFFFFF")},
        {devaddr("1", "FFFFFFFFFFFFFFFF", "0"),
         ERROR_LINE("DevAddr value(start = 0000000000000001, and/or end = "
                    "FFFFFFFFFFFFFFFF) exceeds the maximum allowed 00000000FFFFFFFF")},
        {devaddr("2", "1", "0", "x"), ERROR_LINE("Invalid DevAddr filter ruleid 0, must be 1 or greater")},
        {devaddr("1", nullptr, "-1"), ERROR_LINE("Invalid DevAddr filter ruleid 0, must be 1 or greater")},
        {devaddr("1", nullptr, "\"one\""),
         ERROR_LINE("Invalid DevAddr filter ruleid 0, must be 1 or greater")},
        {devaddr("2", "1", "1", "x"),
         ERROR_LINE("Invalid DevAddr filter range: end 0000000000000001 less than start 0000000000000002")},
        {devaddr("1", "2", "1", "ALLOWED"),
         ERROR_LINE("Invalid DevAddr filter action: ALLOWED, must be ALLOW or DENY ")},
        {devaddr("1", "2", "1", ""), ERROR_LINE("Invalid DevAddr filter action: , must be ALLOW or DENY ")},
    };
    put("", BOTH_LISTS);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.rule);
        const log_view told = log.from_here();
        const section_outcome written =
            write(join({R"({"devAddrList":[)", devaddr("1"), ",", row.rule, R"(],"joinReqList":null})"}));
        EXPECT_EQ(written.result, -22);
        EXPECT_EQ(written.reply, REFUSED);
        EXPECT_EQ(told.lines_of({"ERROR"}), std::vector<std::string>{row.told});
        EXPECT_EQ(content(""), BOTH_LISTS);
        EXPECT_EQ(content("-backup"), std::nullopt);
    }
}

static std::string joinreq(const char *start, const char *id = "1", const char *action = "ALLOW")
{
    return join({R"({"ruleId":)", id, R"(,"action":")", action, R"(","devEUI_Start":")", start, R"("})"});
}

TEST_F(LoraFilterSection, ABadJoinRequestRuleIsRefusedAsABadAddressRuleIs)
{
    static constexpr const char *FIELDS = ERROR_LINE(
        "unable to deserialize the JoinReq filter rule -- one or more fields missing in a profile");
    static constexpr const char *START = ERROR_LINE("The DevEUI start range is not Hex");
    static constexpr const char *NO_ID = ERROR_LINE("Invalid JoinReq filter ruleid 0, must be 1 or greater ");
    const std::string too_long(32, '1');
    const std::string too_big(31, 'F');
    const struct {
        std::string rule;
        const char *told;
    } rows[] = {
        {"{}", FIELDS},
        {"null", FIELDS},
        {"5", FIELDS},
        {"[]", FIELDS},
        {"\"x\"", FIELDS},
        {R"({"action":"ALLOW","devEUI_Start":"1"})", FIELDS},
        {R"({"ruleId":1,"devEUI_Start":"1"})", FIELDS},
        {R"({"ruleId":1,"action":"ALLOW"})", FIELDS},
        {R"({"ruleId":1,"action":null,"devEUI_Start":"1"})", FIELDS},
        {R"({"ruleId":1,"action":"ALLOW","devEUI_Start":"1","devEUI_End":null})", FIELDS},
        {R"({"ruleId":1,"action":"ALLOW","joinEUI_Start":"1","joinEUI_End":null})", FIELDS},
        {joinreq(too_long.c_str()), FIELDS},
        {joinreq("1", "1", too_long.c_str()), FIELDS},
        {joinreq("1g"), START},
        {joinreq(" 1"), START},
        {joinreq("-1"), START},
        {joinreq("1x0"), START},
        {joinreq(too_big.c_str()), ERROR_LINE("Failed to convert DevEUI start range from string to integer")},
        {joinreq("1", "-1"), NO_ID},
        {joinreq("1", "\"one\""), NO_ID},
        {joinreq("1", "1", "ALLOWED"),
         ERROR_LINE("Invalid JoinReq filter action: ALLOWED, must be ALLOW or DENY ")},
        {joinreq("1", "1", ""), ERROR_LINE("Invalid JoinReq filter action: , must be ALLOW or DENY ")},
    };
    put("", BOTH_LISTS);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.rule);
        const log_view told = log.from_here();
        const section_outcome written =
            write(join({R"({"joinReqList":[)", joinreq("1"), ",", row.rule, R"(],"devAddrList":null})"}));
        EXPECT_EQ(written.result, -22);
        EXPECT_EQ(written.reply, REFUSED);
        EXPECT_EQ(told.lines_of({"ERROR"}), std::vector<std::string>{row.told});
        EXPECT_EQ(content(""), BOTH_LISTS);
        EXPECT_EQ(content("-backup"), std::nullopt);
    }
}

TEST_F(LoraFilterSection, ABadJoinRequestRuleIsRefusedWithItsReason)
{
    static constexpr const char *FIELDS =
        "unable to deserialize the JoinReq filter rule -- one or more fields missing in a profile";
    static constexpr const char *JOIN_END = "The JoinEUI end range is not Hex";
    static constexpr const char *BIG = "10000000000000000";
    const struct {
        std::string fields;
        std::string told;
        const char *id = "1";
        const char *action = "ALLOW";
    } rows[] = {
        {R"("devEUI_End":"1","joinEUI_End":"1")", FIELDS},
        {R"("devEUI_Start":null,"joinEUI_End":"1")", FIELDS},
        {R"("devEUI_Start":null,"joinEUI_Start":"1")", FIELDS},
        {R"("devEUI_Start":"1","joinEUI_Start":null)", FIELDS},
        {R"("devEUI_Start":"12345678901234567890123456789012")", FIELDS},
        {R"("devEUI_Start":"x")", "The DevEUI start range is not Hex"},
        {join({R"("devEUI_Start":")", BIG, "\""}),
         "Failed to convert DevEUI start range from string to integer"},
        {R"("devEUI_Start":"1","devEUI_End":"x")", JOIN_END}, /* this text, of the other range, is meant */
        {join({R"("devEUI_Start":"1","devEUI_End":")", BIG, "\""}),
         "Failed to convert DevEUI end range from string to integer"},
        {R"("joinEUI_Start":"x")", "The JoinEUI start range is not Hex"},
        {join({R"("joinEUI_Start":")", BIG, "\""}),
         "Failed to convert JoinEUI start range from string to integer"},
        {R"("joinEUI_Start":"1","joinEUI_End":"x")", JOIN_END},
        {join({R"("joinEUI_Start":"1","joinEUI_End":")", BIG, "\""}),
         "Failed to convert JoinEUI end range from string to integer"},
        {R"("devEUI_Start":"2","devEUI_End":"1")", "Invalid JoinReq filter ruleid 0, must be 1 or greater ",
         "0"},
        {R"("devEUI_Start":"2","devEUI_End":"1","joinEUI_Start":"2","joinEUI_End":"1")",
         "Invalid DevEUI filter range: end 0000000000000001 less than start 0000000000000002", "1", "x"},
        {R"("joinEUI_Start":"FFFFFFFFFFFFFFFF","joinEUI_End":"7FFFFFFFFFFFFFFF")",
         "Invalid JoinEUI filter range: end 7FFFFFFFFFFFFFFF less than start FFFFFFFFFFFFFFFF", "1", "x"},
        {R"("devEUI_Start":"1")", "Invalid JoinReq filter action: x, must be ALLOW or DENY ", "1", "x"},
    };
    put("", BOTH_LISTS);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.fields);
        const log_view told = log.from_here();
        const std::string rule =
            join({R"({"ruleId":)", row.id, R"(,"action":")", row.action, "\",", row.fields, "}"});
        /* The good list before it is undone. */
        const section_outcome written =
            write(join({R"({"devAddrList":[)", devaddr("9"), R"(],"joinReqList":[)", rule, "]}"}));
        EXPECT_EQ(written.result, -22);
        EXPECT_EQ(written.reply, REFUSED);
        EXPECT_EQ(told.lines_of({"ERROR"}), std::vector<std::string>{"ERROR " + row.told});
        EXPECT_TRUE(told.has("DEBUG updated the DevAddr filter list"));
        EXPECT_EQ(content(""), BOTH_LISTS);
        EXPECT_EQ(content("-backup"), std::nullopt);
    }
}

/* ---- lists ---- */

TEST_F(LoraFilterSection, AListIsReplacedClearedOrLeft)
{
#define SHOWN_ADDRESSES R"("devAddrList":[{"ruleId":1,"action":"ALLOW","start":"00000001","end":"00000002"}])"
#define SHOWN_JOINS                                                                                          \
    R"("joinReqList":[{"ruleId":2,"action":"DENY","devEUI_Start":"0000000000000000",)"                       \
    R"("devEUI_End":"0000000000000001","joinEUI_Start":"0000000000000002","joinEUI_End":"0000000000000003"}])"
#define OTHER R"("other":[true])"
    static constexpr const char *NO_ADDRESSES = "DEBUG No valid DevAddr filter list found in the server "
                                                "request, any existing rule would be left untouched";
    static constexpr const char *NO_JOINS =
        "DEBUG No valid JoinReq array found in the server message, any existing rule would be left untouched";
    static constexpr struct {
        const char *section;
        const char *shown;
        const char *told;
    } rows[] = {
        {"{}", "{" SHOWN_ADDRESSES "," SHOWN_JOINS "," OTHER "}", NO_ADDRESSES},
        {"[]", "{" SHOWN_ADDRESSES "," SHOWN_JOINS "," OTHER "}", NO_JOINS},
        {"5", "{" SHOWN_ADDRESSES "," SHOWN_JOINS "," OTHER "}", NO_JOINS},
        {R"({"devAddrList":{},"joinReqList":"x"})", "{" SHOWN_ADDRESSES "," SHOWN_JOINS "," OTHER "}",
         NO_ADDRESSES},
        {R"({"devAddrList":[]})", R"({"devAddrList":[],)" SHOWN_JOINS "," OTHER "}", NO_JOINS},
        {R"({"devAddrList":null})", R"({"devAddrList":[],)" SHOWN_JOINS "," OTHER "}",
         "DEBUG Found a NULL DevAddr list in the server request"},
        {R"({"joinReqList":[]})", "{" SHOWN_ADDRESSES R"(,"joinReqList":[],)" OTHER "}", NO_ADDRESSES},
        {R"({"joinReqList":null})", "{" SHOWN_ADDRESSES R"(,"joinReqList":[],)" OTHER "}",
         "DEBUG Found a NULL JoinReq list in the server request"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.section);
        put("", BOTH_LISTS);
        const log_view told = log.from_here();
        const section_outcome written = write(row.section);
        EXPECT_EQ(written.result, 0);
        EXPECT_EQ(value(written), row.shown);
        EXPECT_EQ(read(), row.shown);
        EXPECT_TRUE(told.has(row.told));
        EXPECT_EQ(content("-backup"), std::nullopt);
    }
}

static std::string many(size_t count, const std::string &rule)
{
    std::string list = "[";
    for (size_t i = 0; i < count; i++)
        list.append(i > 0 ? "," : "").append(rule);
    return list + "]";
}

static size_t rules_in(const std::string &text)
{
    size_t count = 0;
    for (size_t at = text.find("ruleId"); at != std::string::npos; at = text.find("ruleId", at + 1))
        count++;
    return count;
}

TEST_F(LoraFilterSection, AListOfMoreThan1024RulesIsLeftAndTheOtherIsApplied)
{
    const std::string joinreq = R"({"ruleId":1,"action":"ALLOW","devEUI_Start":"1"})";
    put("", EMPTY_LISTS);
    EXPECT_EQ(write(join({R"({"devAddrList":)", many(1024, devaddr("1")), R"(,"joinReqList":)",
                          many(1025, joinreq), "}"}))
                  .result,
              0);
    EXPECT_EQ(rules_in(*content("")), 1024U);
    EXPECT_TRUE(content("")->ends_with(R"("joinReqList":[]})"));
    EXPECT_TRUE(
        log.has("DEBUG JoinReq array length 1025 is not between 0 and 1024 (both inclusive), any existing "
                "rule would be left untouched"));
    put("", EMPTY_LISTS);
    EXPECT_EQ(write(join({R"({"devAddrList":)", many(1025, devaddr("1")), R"(,"joinReqList":)",
                          many(1024, joinreq), "}"}))
                  .result,
              0);
    EXPECT_EQ(rules_in(*content("")), 1024U);
    EXPECT_TRUE(content("")->starts_with(R"({"devAddrList":[],)"));
    EXPECT_THAT(log.complaints(), ElementsAre("WARN DevAddr list length 1025 is not between 0 and 1024 (both "
                                              "inclusive), any existing rule would be left untouched"));
    put("", EMPTY_LISTS);
    EXPECT_EQ(write(join({R"({"devAddrList":)", many(1025, "5"), "}"})).result, 0)
        << "its rules are not looked at";
}

/* ---- faults ---- */

TEST_F(LoraFilterSection, WithoutABackupNothingIsWritten)
{
    put("", BOTH_LISTS);
    static constexpr struct {
        const char *file;
        int error;
        const char *told;
    } rows[] = {
        {"-lock", ENOENT, "DEBUG Unable to backup the current uplink filter rule, error = -1"},
        {"-backup", EROFS, "DEBUG Unable to backup the current uplink filter rule, error = -30"},
    };
    for (const auto &row : rows) {
        refuse(row.file, row.error);
        const log_view told = log.from_here();
        const section_outcome written = write(R"({"devAddrList":null})");
        EXPECT_EQ(written.result, -1);
        EXPECT_EQ(written.reply, REFUSED);
        EXPECT_TRUE(told.has(row.told));
        EXPECT_FALSE(told.has("DEBUG Rollback filter rule"));
        EXPECT_EQ(content(""), BOTH_LISTS);
    }
}

TEST_F(LoraFilterSection, AListThatCannotBeWrittenIsUndone)
{
    static constexpr struct {
        int after;
        const char *told;
    } rows[] = {
        {0, "ERROR failed to update the DevAddr filter list, error = -1"},
        {1, "ERROR failed to update the JoinReq filter list, error = -1"},
    };
    for (const auto &row : rows) {
        for (const char *section :
             {R"({"devAddrList":null,"joinReqList":null})", R"({"devAddrList":[],"joinReqList":[]})"}) {
            put("", BOTH_LISTS);
            const log_view told = log.from_here();
            let_fail("json_object_to_fd", ENOSPC, row.after);
            const section_outcome written = write(section);
            let_all_pass();
            EXPECT_EQ(written.result, -1);
            EXPECT_EQ(written.reply, REFUSED);
            EXPECT_TRUE(told.has(row.told));
            EXPECT_EQ(content(""), BOTH_LISTS);
            EXPECT_EQ(content("-backup"), std::nullopt);
        }
    }
}

FAILING_NEW_ARRAY

TEST_F(LoraFilterSection, WithoutMemoryForTheRulesBothListsStay)
{
    static constexpr struct {
        const char *section;
        const char *told;
    } rows[] = {
        {R"({"joinReqList":[],"devAddrList":[{"ruleId":1,"action":"ALLOW","start":"1"}]})",
         "ERROR failed to allocate buffer for the DevAddr filter list"},
        {R"({"devAddrList":[],"joinReqList":[{"ruleId":1,"action":"ALLOW","devEUI_Start":"1"}]})",
         "ERROR failed to allocate buffer for the JoinReq list"},
    };
    put("", BOTH_LISTS);
    for (const auto &row : rows) {
        const log_view told = log.from_here();
        let_fail(NEW_ARRAY);
        const section_outcome written = write(row.section);
        let_all_pass();
        EXPECT_EQ(written.result, -12);
        EXPECT_EQ(written.reply, REFUSED);
        EXPECT_THAT(told.lines_of({"ERROR"}), ElementsAre(row.told));
        EXPECT_EQ(content(""), BOTH_LISTS);
    }
}

TEST_F(LoraFilterSection, ATextEndsAtItsNul)
{
    put("", "");
    EXPECT_EQ(value(write_rule("devAddrList", R"({"ruleId":1,"action":"ALLOW\u0000x","start":"1\u0000zz"})")),
              R"({"devAddrList":[{"ruleId":1,"action":"ALLOW","start":"00000001","end":"00000001"}]})");
}

TEST_F(LoraFilterSection, AFileThatIsNotThereIsToldWhenItIsRead)
{
    refuse("", ENOENT);
    const section_outcome outcome = read_sections();
    EXPECT_EQ(outcome.result, -999);
    EXPECT_EQ(read(), R"({"status":"Failed to read the current LoRa filter rules"})");
    EXPECT_TRUE(log.has("ERROR failed to read the LoRa filter rule"));
    EXPECT_EQ(write("{}").reply, REFUSED);
}

/* The file goes away behind the backup: opened once before it. */
TEST_F(LoraFilterSection, AReadThatFailsAfterAGoodWriteLeavesTheAnswerEmpty)
{
    put("", BOTH_LISTS);
    refuse("", ENOENT, 2);
    const section_outcome written = write(R"({"devAddrList":null})");
    EXPECT_EQ(written.result, 0);
    EXPECT_EQ(written.reply, R"({"loraTrafficFilter":{}})");
    EXPECT_THAT(
        log.lines_of({"ERROR"}),
        ElementsAre("ERROR uplink packet filter file is not present",
                    "ERROR failed to open the uplink packet filter file",
                    "ERROR failed to read the LoRa filter rule",
                    "ERROR failed to read the current LoRa filter rule after a successful update",
                    "ERROR Successfully added response (failure) to a LoRa filter rule write request"));
    EXPECT_TRUE(content("")->starts_with(R"({"devAddrList":[],)")) << "the update stays";
}

TEST_F(LoraFilterSection, AStoredRuleThatIsNotUnderstoodFailsTheReadingAlone)
{
    static constexpr const char *ADDRESS =
        "ERROR unable to deserialize the DevAddr filter rule during reading";
    static constexpr const char *JOIN = "ERROR unable to deserialize the JoinReq filter rule during reading";
    static constexpr struct {
        const char *file;
        const char *told;
    } rows[] = {
        {R"({"devAddrList":[{"ruleId":1,"action":"A","start":1}]})", ADDRESS},
        {R"({"devAddrList":[{"action":"A","start":1,"end":2}]})", ADDRESS},
        {R"({"devAddrList":[null]})", ADDRESS},
        {R"({"devAddrList":[5]})", ADDRESS},
        {R"({"joinReqList":[{"ruleId":1,"action":"A","devEUI_Start":1,"devEUI_End":1,"joinEUI_Start":1}]})",
         JOIN},
        {R"({"joinReqList":[[]]})", JOIN},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.file);
        put("", row.file);
        const log_view told = log.from_here();
        EXPECT_EQ(read_sections().result, -22);
        EXPECT_EQ(read(), "{}");
        EXPECT_EQ(write("{}").reply, REFUSED);
        EXPECT_EQ(told.count(row.told), 3);
        EXPECT_EQ(content(""), row.file);
    }
    for (const char *file : {R"({"devAddrList":null,"joinReqList":{},"other":null})", "{}"}) {
        put("", file);
        EXPECT_EQ(read(), file);
    }
}

/* ---- assertions ---- */

using LoraFilterSectionDeath = LoraFilterSection;

TEST_F(LoraFilterSectionDeath, WhatIsMissingIsAsserted)
{
    converter_ctx context = {};
    const json_owned object(json_object_new_object());
    json_object *const some = object.get();
    EXPECT_ASSERTION(bridge_configs_gw_lorafilter_write(nullptr, some, some), "ctx != NULL");
    EXPECT_ASSERTION(bridge_configs_gw_lorafilter_write(&context, nullptr, some), "cfg != NULL");
    EXPECT_ASSERTION(bridge_configs_gw_lorafilter_write(&context, some, nullptr), "out != NULL");
}
