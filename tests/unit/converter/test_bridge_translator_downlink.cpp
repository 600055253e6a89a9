/* Downlinks of the three dialects as the packet forwarder takes them. */
#include "converter/translation.h"

using testing::Contains;
using testing::ElementsAre;
using testing::StartsWith;

class TranslatorDownlink : public Translation
{
};

static constexpr const char *NATIVE_DOWN =
    R"({"phyPayload":"AQ/+BA==","txInfo":{"codeRate":"4/5","dataRate":{"bandwidth":125,"modulation":"LORA",)"
    R"("spreadFactor":9},"frequency":868100000,"immediately":true,"mac":"0016c001ff10abcd","power":14}})";

static constexpr const char *V2_DOWN =
    R"({"phyPayload":"AQ/+BA==","token":4660,"txInfo":{"codeRate":"4/5","dataRate":{"bandwidth":125,)"
    R"("modulation":"LORA","spreadFactor":9},"frequency":868100000,"immediately":false,)"
    R"("mac":"0016c001ff10abcd",)"
    R"("power":14,"timestamp":3513348611}})";

static constexpr const char *V3_DOWN =
    R"({"phyPayload":"AQ/+BA==","token":4660,"txInfo":{"gatewayID":"ABbAAf8Qq80=",)"
    R"("frequency":868100000,"power":14,)"
    R"("modulation":"LORA","loRaModulationInfo":{"bandwidth":125,"spreadingFactor":9,"codeRate":"4/5",)"
    R"("polarizationInversion":true},"board":0,"antenna":0,"timing":"DELAY",)"
    R"("delayTimingInfo":{"delay":"1s"},)"
    R"("context":"wy9a0QAAAAA="}})";

static const char *downlink_of(const dialect &from)
{
    if (from.format == FORMAT_SNVNS)
        return NATIVE_DOWN;
    return from.version == 2 ? V2_DOWN : V3_DOWN;
}

/* The txpk of each dialect's message, with these first two members. */
static std::string txpk(std::string_view start)
{
    return join({"{", start, R"(,"freq":868.100000,"rfch":0,"powe":14,"modu":"LORA","datr":"SF9BW125",)",
                 R"("codr":"4\/5","ipol":true,"size":4,"data":"AQ\/+BA=="})"});
}

TEST_F(TranslatorDownlink, EachDialectGivesElevenMembersInOrder)
{
    const struct {
        dialect from;
        const char *start;
        uint16_t token;
    } rows[] = {
        {NATIVE, R"("imme":true,"tmst":0)", 0},
        {CHIRPSTACK_V2, R"("imme":false,"tmst":3513348611)", 4660},
        {CHIRPSTACK_V3, R"("imme":false,"tmst":3513348611)", 4660},
    };
    for (const auto &row : rows) {
        for (const uint32_t version : SEMTECH_VERSIONS) {
            SCOPED_TRACE(testing::Message() << row.from.name << " to version " << version);
            const translated done = translate_downlink(row.from, version, downlink_of(row.from));
            EXPECT_EQ(done.result, 0);
            EXPECT_EQ(done.json, txpk(row.start));
            EXPECT_EQ(done.token, row.token);
        }
    }
}

/* ---- timing ---- */

TEST_F(TranslatorDownlink, ANativeDownlinkIsTimedByItsTimestampOrElseByGpsTime)
{
    const struct {
        const char *immediately;
        const char *timestamp;
        const char *gps;
        const char *expected; /* null when it is refused */
    } rows[] = {
        {"true", nullptr, nullptr, R"("imme":true,"tmst":0)"},
        {"true", "5", "6", R"("imme":true,"tmst":0)"},
        {"true", nullptr, "6", R"("imme":true,"tmst":0)"},
        {"false", "5", nullptr, R"("imme":false,"tmst":5)"},
        {"false", "5", "6", R"("imme":false,"tmst":5)"},
        {"false", "-5", "6", R"("imme":false,"tmst":-5)"},
        {"false", "0", "6", R"("imme":false,"tmms":6)"},
        {"false", nullptr, "1451606418000", R"("imme":false,"tmms":1451606418000)"},
        {"false", "null", "6", R"("imme":false,"tmms":6)"},
        {"false", nullptr, nullptr, nullptr},
        {"false", "0", "0", nullptr},
        {"null", nullptr, nullptr, nullptr},
        {"1", nullptr, nullptr, R"("imme":true,"tmst":0)"},
    };
    for (const auto &row : rows) {
        std::string message = with(NATIVE_DOWN, "txInfo.immediately", row.immediately);
        if (row.timestamp != nullptr)
            message = with(message, "txInfo.timestamp", row.timestamp);
        if (row.gps != nullptr)
            message = with(message, "txInfo.timeSinceGPSEpoch", row.gps);
        SCOPED_TRACE(message);
        const translated done = translate_downlink(NATIVE, 2, message);
        const std::string received = join({"DEBUG Received downlink packet: ", printed(message)});
        if (row.expected != nullptr) {
            EXPECT_EQ(done.result, 0);
            EXPECT_EQ(done.json, txpk(row.expected));
            EXPECT_THAT(done.spoken(), ElementsAre(received));
        } else {
            EXPECT_EQ(done.result, -1);
            EXPECT_THAT(done.spoken(), ElementsAre(received, "ERROR Invalid downlink frame"));
        }
    }
}

TEST_F(TranslatorDownlink, AVersionTwoDownlinkKeepsItsTimestampEvenWhenImmediate)
{
    for (const char *immediately : {"true", "false"}) {
        for (const char *timestamp : {"0", "77"}) {
            const std::string message =
                with(with(V2_DOWN, "txInfo.immediately", immediately), "txInfo.timestamp", timestamp);
            EXPECT_EQ(translate_downlink(CHIRPSTACK_V2, 1, message).json,
                      txpk(join({R"("imme":)", immediately, R"(,"tmst":)", timestamp})));
        }
    }
}

static std::string v3_delayed(std::string_view context, std::string_view delay)
{
    return with(with(V3_DOWN, "txInfo.context", json_text(context)), "txInfo.delayTimingInfo.delay",
                json_text(delay));
}

TEST_F(TranslatorDownlink, AnImmediateVersionThreeDownlinkNeedsNeitherContextNorDelay)
{
    const std::string now = with(V3_DOWN, "txInfo.timing", json_text("IMMEDIATELY"));
    const std::string bare = without(without(now, "txInfo.context"), "txInfo.delayTimingInfo");
    for (const std::string &message :
         {now, bare, with(now, "txInfo.context", json_text(std::string(200, 'A')))}) {
        const translated done = translate_downlink(CHIRPSTACK_V3, 2, message);
        EXPECT_EQ(done.result, 0);
        EXPECT_EQ(done.json, txpk(R"("imme":true,"tmst":0)"));
        EXPECT_THAT(done.log, Contains("TRACE requested immediate downlink"));
        EXPECT_THAT(done.spoken(), ElementsAre());
    }
}

/* The sum of the count and the delay is not wrapped, and no text of a delay is beyond it. */
TEST_F(TranslatorDownlink, ADelayIsCountedFromTheContext)
{
    static constexpr const char *WRAPPING = "/////wAAAAA="; /* 4294967295 */
    const struct {
        const char *context;
        const char *delay;
        const char *start; /* the count in the context */
        const char *seconds;
        const char *tmst;
    } rows[] = {
        {"wy9a0QAAAAA=", "1s", "3512348611", "1.000000", "3513348611"},
        {"wy9a0QAAAAA=", "0.5s", "3512348611", "0.500000", "3512848611"},
        {"wy9a0QAAAAA=", "2", "3512348611", "2.000000", "3514348611"},
        {"wy9a0QAAAAA=", "0s", "3512348611", "0.000000", "3512348611"},
        {"wy9a0QAAAAA=", "  1e1 years", "3512348611", "10.000000", "3522348611"},
        {"AAAAAAAAAAA=", "0.0000019s", "0", "0.000002", "1"},
        {"AAAAAAAAAAA=", "-1s", "0", "-1.000000", "-1000000"},
        {WRAPPING, "1s", "4294967295", "1.000000", "4295967295"},
        {WRAPPING, "5000s", "4294967295", "5000.000000", "9294967295"},
        {"//////////8=", "1s", "-1", "1.000000", "999999"},
        {"AAAAAAAAAAA=", "soon", "0", "0.000000", "0"},
        {"AQAAAAAAAAA=", "", "1", "0.000000", "1"},
        {"AQAAAAAAAAA=", "nan", "1", "nan", "0"},
        {"AQAAAAAAAAA=", "inf", "1", "inf", "9223372036854775807"},
        {"AQAAAAAAAAA=", "-inf", "1", "-inf", "-9223372036854775808"},
        {"AQAAAAAAAAA=", "9223372036854.775808s", "1", "9223372036854.775391", "9223372036854775807"},
        {"", "1s", "0", "1.000000", "1000000"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(join({row.context, " ", row.delay}));
        const translated done = translate_downlink(CHIRPSTACK_V3, 2, v3_delayed(row.context, row.delay));
        EXPECT_EQ(done.result, 0);
        EXPECT_EQ(done.json, txpk(join({R"("imme":false,"tmst":)", row.tmst})));
        EXPECT_THAT(done.log, Contains("TRACE requested delayed downlink"));
        EXPECT_THAT(done.spoken(), ElementsAre(join({"DEBUG decoded timestamp from context: ", row.start}),
                                               join({"DEBUG decoded delay: ", row.seconds})));
    }
}

TEST_F(TranslatorDownlink, AContextOfUpToEightBytesCountsFromItsLowestByte)
{
    const std::vector<std::pair<const char *, const char *>> rows = {
        {"AQ==", "1"},                          /* 1 byte */
        {"BAMCAQ==", "16909060"},               /* 4 */
        {"AQIDBAUGBw==", "1976943448883713"},   /* 7 */
        {"AQIDBAUGBwg=", "578437695752307201"}, /* 8 */
        {"BAMCAQ", "16909060"},                 /* no padding */
        {"BAMC!AQI", "131844"},                 /* ends at the first foreign character */
        {"!", "0"},
    };
    for (const auto &[context, start] : rows) {
        const translated done = translate_downlink(CHIRPSTACK_V3, 1, v3_delayed(context, "0s"));
        EXPECT_EQ(done.result, 0) << context;
        EXPECT_THAT(done.spoken(), Contains(join({"DEBUG decoded timestamp from context: ", start})))
            << context;
    }
    const std::string absent = without(V3_DOWN, "txInfo.context");
    EXPECT_EQ(translate_downlink(CHIRPSTACK_V3, 1, absent).json, txpk(R"("imme":false,"tmst":1000000)"));
}

TEST_F(TranslatorDownlink, ALongerContextFails)
{
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"AQIDBAUGBwgJ", "ERROR failed to decode context: AQIDBAUGBwgJ with retval: 9"},
        {"AQIDBAUGBwgJCgsM", "ERROR failed to decode context: AQIDBAUGBwgJCgsM with retval: 12"},
        {"AQIDBAUGBwgJCgsMDQ==", "ERROR failed to decode context: AQIDBAUGBwgJCgsMDQ== with retval: 13"},
        {"AQIDBAUGBwgJCgsMDQ4P", "ERROR failed to decode context: AQIDBAUGBwgJCgsMDQ4P with retval: 15"},
        {"AQIDBAUGBwgJCgsMDQ4PEA==",
         "ERROR invalid context received: AQIDBAUGBwgJCgsMDQ4PEA== with decode length: 19"},
        {std::string(255, 'A'),
         join({"ERROR invalid context received: ", std::string(255, 'A'), " with decode length: 193"})},
    };
    for (const auto &[context, line] : rows) {
        const translated done = translate_downlink(CHIRPSTACK_V3, 2, v3_delayed(context, "1s"));
        EXPECT_EQ(done.result, -1);
        EXPECT_THAT(done.spoken(), ElementsAre(line));
    }
}

TEST_F(TranslatorDownlink, ADelayedDownlinkNeedsItsDelay)
{
    const std::string messages[] = {
        without(V3_DOWN, "txInfo.delayTimingInfo"),
        without(V3_DOWN, "txInfo.delayTimingInfo.delay"),
        with(V3_DOWN, "txInfo.delayTimingInfo", "null"),
        with(V3_DOWN, "txInfo.delayTimingInfo", "5"),
        with(V3_DOWN, "txInfo.delayTimingInfo.delay", "null"),
        v3_delayed("AQ==", std::string(64, '0')),
    };
    for (const std::string &message : messages) {
        SCOPED_TRACE(message);
        const translated done = translate_downlink(CHIRPSTACK_V3, 2, message);
        EXPECT_EQ(done.result, -1);
        ASSERT_FALSE(done.spoken().empty());
        EXPECT_EQ(done.spoken().back(), "ERROR failed to deserialize delay information frame");
    }
    const translated longest =
        translate_downlink(CHIRPSTACK_V3, 2, v3_delayed("AQ==", std::string(62, '0') + "1"));
    EXPECT_EQ(member(longest.json, "tmst"), "1000001");
    const std::string number = with(V3_DOWN, "txInfo.delayTimingInfo.delay", "2.5");
    EXPECT_EQ(member(translate_downlink(CHIRPSTACK_V3, 2, number).json, "tmst"), "3514848611");
}

TEST_F(TranslatorDownlink, AnyOtherTimingFails)
{
    for (const std::string timing : {"GPS_EPOCH", "immediately", "DELAY ", "", "DELAYED"}) {
        const translated done =
            translate_downlink(CHIRPSTACK_V3, 2, with(V3_DOWN, "txInfo.timing", json_text(timing)));
        EXPECT_EQ(done.result, -1);
        EXPECT_THAT(done.spoken(), ElementsAre(join({"ERROR unsupported timing type: ", timing})));
    }
}

/* ---- tokens ---- */

TEST_F(TranslatorDownlink, ChirpStackTokensAreCutTo16Bits)
{
    const std::vector<std::pair<const char *, uint16_t>> rows = {
        {"0", 0}, {"65535", 65535}, {"65536", 0}, {"74565", 0x2345}, {"-1", 65535}, {"\"7\"", 7}, {"null", 0},
    };
    for (const auto &[token, expected] : rows) {
        EXPECT_EQ(translate_downlink(CHIRPSTACK_V2, 2, with(V2_DOWN, "token", token)).token, expected)
            << token;
        EXPECT_EQ(translate_downlink(CHIRPSTACK_V3, 2, with(V3_DOWN, "token", token)).token, expected)
            << token;
        EXPECT_EQ(translate_downlink(NATIVE, 2, with(NATIVE_DOWN, "token", token)).token, 0) << token;
    }
}

TEST_F(TranslatorDownlink, AVersionTwoDownlinkWithoutATokenTakesARandomOne)
{
    for (const int random : {0x12345678, 0x7fff0001, 0xffff}) {
        next_rand = random;
        const translated done = translate_downlink(CHIRPSTACK_V2, 1, without(V2_DOWN, "token"));
        EXPECT_EQ(done.result, 0);
        EXPECT_EQ(done.token, random & 0xffff);
    }
}

/* ---- texts and numbers ---- */

TEST_F(TranslatorDownlink, TheSizeFollowsFromTheLengthAndThePaddingOfThePayload)
{
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"", "0"},     {"A", "0"},    {"AQ", "1"},     {"A=", "1"},       {"==", "1"},
        {"AQI", "2"},  {"A==", "0"},  {"===", "0"},    {"AQID", "3"},     {"AQI=", "2"},
        {"AQ==", "1"}, {"A=B=", "2"}, {"AQIDBA", "4"}, {"AQIDBA==", "4"}, {std::string(2047, 'A'), "1535"},
    };
    for (const auto &[payload, size] : rows) {
        for (const dialect &from : DIALECTS_IN_USE) {
            const translated done =
                translate_downlink(from, 2, with(downlink_of(from), "phyPayload", json_text(payload)));
            EXPECT_EQ(member(done.json, "size"), size) << from.name << " " << payload;
            EXPECT_EQ(member(done.json, "data"), json_text(payload));
        }
    }
}

TEST_F(TranslatorDownlink, TheFrequencyIsInMhzWithSixDigits)
{
    const std::vector<std::pair<const char *, const char *>> rows = {
        {"868100000", "\"freq\":868.100000,"},
        {"1", "\"freq\":0.000001,"},
        {"0", "\"freq\":0.000000,"},
        {"-868100000", "\"freq\":-868.100000,"},
        {"868100000.9", "\"freq\":868.100000,"},
        {"9223372036854775807", "\"freq\":9223372036854.775391,"},
    };
    for (const auto &[frequency, expected] : rows) {
        for (const dialect &from : DIALECTS_IN_USE) {
            const translated done =
                translate_downlink(from, 1, with(downlink_of(from), "txInfo.frequency", frequency));
            EXPECT_THAT(done.json, testing::HasSubstr(expected)) << from.name;
        }
    }
}

static std::string rate_path(const dialect &from, bool bandwidth)
{
    if (from.version == 3)
        return bandwidth ? "txInfo.loRaModulationInfo.bandwidth"
                         : "txInfo.loRaModulationInfo.spreadingFactor";
    return bandwidth ? "txInfo.dataRate.bandwidth" : "txInfo.dataRate.spreadFactor";
}

TEST_F(TranslatorDownlink, ARateOf15CharactersFitsAndOneOf16DoesNot)
{
    for (const dialect &from : DIALECTS_IN_USE) {
        const auto rated = [&](const char *spread, const char *bandwidth) {
            return with(with(downlink_of(from), rate_path(from, false), spread), rate_path(from, true),
                        bandwidth);
        };
        EXPECT_EQ(member(translate_downlink(from, 2, rated("-1", "500")).json, "datr"), "\"SF-1BW500\"");
        EXPECT_EQ(member(translate_downlink(from, 2, rated("123456", "12345")).json, "datr"),
                  "\"SF123456BW12345\"");
        for (const std::string &message : {rated("123456", "123456"), rated("-9223372036854775808", "0")}) {
            const translated done = translate_downlink(from, 2, message);
            EXPECT_EQ(done.result, -1);
            EXPECT_EQ(done.spoken().back(), "ERROR not enough space for serializing data rate field");
        }
    }
}

/* What the server says of mac, board, antenna and polarization changes nothing. */
TEST_F(TranslatorDownlink, SomeRequiredValuesAreIgnored)
{
    EXPECT_EQ(translate_downlink(NATIVE, 2, with(NATIVE_DOWN, "txInfo.mac", "5")).json,
              translate_downlink(NATIVE, 2, NATIVE_DOWN).json);
    for (const char *path : {"board", "antenna", "loRaModulationInfo.polarizationInversion"})
        EXPECT_EQ(translate_downlink(CHIRPSTACK_V3, 2, with(V3_DOWN, join({"txInfo.", path}), "0")).json,
                  translate_downlink(CHIRPSTACK_V3, 2, V3_DOWN).json);
}

/* ---- what is refused ---- */

/* clang-format off */
static const std::vector<const char *> REQUIRED_KEYS[] = {
    {"phyPayload", "txInfo", "txInfo.codeRate", "txInfo.dataRate", "txInfo.dataRate.bandwidth",
     "txInfo.dataRate.modulation", "txInfo.dataRate.spreadFactor", "txInfo.frequency", "txInfo.immediately",
     "txInfo.mac", "txInfo.power"},
    {"phyPayload", "txInfo", "txInfo.codeRate", "txInfo.dataRate", "txInfo.dataRate.bandwidth",
     "txInfo.dataRate.modulation", "txInfo.dataRate.spreadFactor", "txInfo.frequency", "txInfo.immediately",
     "txInfo.mac", "txInfo.power", "txInfo.timestamp"},
    {"phyPayload", "txInfo", "token", "txInfo.frequency", "txInfo.power", "txInfo.modulation",
     "txInfo.loRaModulationInfo", "txInfo.loRaModulationInfo.bandwidth",
     "txInfo.loRaModulationInfo.spreadingFactor",
     "txInfo.loRaModulationInfo.codeRate", "txInfo.loRaModulationInfo.polarizationInversion", "txInfo.board",
     "txInfo.antenna", "txInfo.timing"},
};
/* clang-format on */

TEST_F(TranslatorDownlink, EachRequiredKeyIsRequired)
{
    for (size_t i = 0; i < std::size(DIALECTS_IN_USE); i++) {
        const dialect &from = DIALECTS_IN_USE[i];
        for (const char *path : REQUIRED_KEYS[i]) {
            SCOPED_TRACE(join({from.name, " without ", path}));
            const translated done = translate_downlink(from, 2, without(downlink_of(from), path));
            EXPECT_EQ(done.result, -1);
            const std::vector<std::string> spoken = done.spoken();
            ASSERT_GE(spoken.size(), 2U);
            EXPECT_EQ(spoken[spoken.size() - 2], "WARN unable to retrieve field");
            EXPECT_EQ(spoken.back(), "ERROR failed to deserialize downlink frame");
            EXPECT_EQ(done.token, 0);
        }
    }
}

TEST_F(TranslatorDownlink, AnObjectThatIsNoneFails)
{
    for (const dialect &from : DIALECTS_IN_USE) {
        for (const char *value : {"null", "5", "[]", "\"text\"", "{}"}) {
            const translated done = translate_downlink(from, 2, with(downlink_of(from), "txInfo", value));
            EXPECT_EQ(done.result, -1);
            EXPECT_EQ(done.spoken().back(), "ERROR failed to deserialize downlink frame")
                << from.name << value;
            const char *rate = from.version == 3 ? "txInfo.loRaModulationInfo" : "txInfo.dataRate";
            EXPECT_EQ(translate_downlink(from, 2, with(downlink_of(from), rate, value)).result, -1);
        }
        for (const char *message : {"[]", "5", "\"text\"", "{}"})
            EXPECT_EQ(translate_downlink(from, 2, message).spoken().back(),
                      "ERROR failed to deserialize downlink frame");
    }
}

TEST_F(TranslatorDownlink, ATextFillsItsLimitLessOneAndNoMore)
{
    const struct {
        dialect from;
        const char *path;
        size_t limit;
        const char *member; /* of the txpk; null for one that is not sent */
    } rows[] = {
        {NATIVE, "phyPayload", 2048, "data"},
        {NATIVE, "txInfo.codeRate", 8, "codr"},
        {NATIVE, "txInfo.dataRate.modulation", 16, "modu"},
        {NATIVE, "txInfo.mac", 64, nullptr},
        {CHIRPSTACK_V2, "phyPayload", 2048, "data"},
        {CHIRPSTACK_V2, "txInfo.codeRate", 8, "codr"},
        {CHIRPSTACK_V2, "txInfo.dataRate.modulation", 16, "modu"},
        {CHIRPSTACK_V2, "txInfo.mac", 64, nullptr},
        {CHIRPSTACK_V3, "phyPayload", 2048, "data"},
        {CHIRPSTACK_V3, "txInfo.loRaModulationInfo.codeRate", 8, "codr"},
        {CHIRPSTACK_V3, "txInfo.modulation", 16, "modu"},
        {CHIRPSTACK_V3, "txInfo.context", 256, nullptr},
    };
    const std::string immediate = with(V3_DOWN, "txInfo.timing", json_text("IMMEDIATELY"));
    for (const auto &row : rows) {
        SCOPED_TRACE(join({row.from.name, " ", row.path}));
        const std::string base = row.from.version == 3 ? immediate : downlink_of(row.from);
        const std::string longest = text_of_length(row.limit - 1);
        const translated done = translate_downlink(row.from, 2, with(base, row.path, longest));
        EXPECT_EQ(done.result, 0);
        if (row.member != nullptr) {
            EXPECT_EQ(member(done.json, row.member), longest);
        }
        const translated refused =
            translate_downlink(row.from, 2, with(base, row.path, text_of_length(row.limit)));
        EXPECT_EQ(refused.result, -1);
        const std::vector<std::string> spoken = refused.spoken();
        ASSERT_GE(spoken.size(), 2U);
        EXPECT_EQ(spoken[spoken.size() - 2], "WARN not enough space for incoming string");
        EXPECT_EQ(spoken.back(), "ERROR failed to deserialize downlink frame");
    }
    const std::string longest = text_of_length(63);
    EXPECT_THAT(translate_downlink(CHIRPSTACK_V3, 2, with(V3_DOWN, "txInfo.timing", longest)).spoken(),
                ElementsAre(StartsWith("ERROR unsupported timing type: xxx")));
    EXPECT_EQ(translate_downlink(CHIRPSTACK_V3, 2, with(V3_DOWN, "txInfo.timing", text_of_length(64)))
                  .spoken()
                  .back(),
              "ERROR failed to deserialize downlink frame");
}
