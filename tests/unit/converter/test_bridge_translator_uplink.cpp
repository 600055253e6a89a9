/* Uplinks of the packet forwarder in the three dialects. */
#include "converter/translation.h"

#include "common/bridge_json_helpers.h"

#include <cerrno>
#include <ctime>

using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

static bool gmtime_fails = false;

extern "C" tm *__real_gmtime_r(const time_t *clock, tm *result);
extern "C" tm *__wrap_gmtime_r(const time_t *clock, tm *result)
{
    return gmtime_fails ? nullptr : __real_gmtime_r(clock, result);
}

class TranslatorUplink : public Translation
{
};

/* Version 2 of the datagrams: the signal values stand in the element itself. */
static constexpr const char *RXPK_V2 =
    R"({"time":"2026-01-02T03:04:05.678901Z","tmms":1451606418000,"tmst":3512348611,"chan":2,"rfch":1,)"
    R"("freq":868.3,"stat":1,"modu":"LORA","datr":"SF7BW125","codr":"4/5","rssi":-35,"lsnr":-7.5,"size":4,)"
    R"("data":"AQ/+BA=="})";

/* Version 1: they stand in an array, of which the first element counts. */
static constexpr const char *RXPK_V1 =
    R"({"time":"2026-01-02T03:04:05.678901Z","tmms":1451606418000,"tmst":3512348611,"rfch":1,)"
    R"("freq":868.3,"stat":1,"modu":"LORA","datr":"SF7BW125","codr":"4/5",)"
    R"("rsig":[{"ant":3,"chan":2,"rssic":-35,"lsnr":-7.5},{"ant":4,"chan":5,"rssic":-99,"lsnr":1.0}],)"
    R"("size":4,"data":"AQ/+BA=="})";

static std::string rxpk(uint32_t semtech_version)
{
    return semtech_version == 1 ? RXPK_V1 : RXPK_V2;
}

/* ---- whole messages ---- */

struct whole_message {
    dialect to;
    uint32_t semtech_version;
    const char *json;
};

/* clang-format off */
static constexpr whole_message WHOLE_MESSAGES[] = {
    {NATIVE, 1,
     R"({"phyPayload":"AQ\/+BA==","rxInfo":{"channel":2,"codeRate":"4\/5","crcStatus":1,)"
     R"("dataRate":{"bandwidth":125,"modulation":"LORA","spreadFactor":7},"frequency":868300000,)"
     R"("loRaSNR":-7.5,)"
     R"("mac":"0016c001ff10abcd","rfChain":1,"rssi":-35,"size":4,"time":"2026-01-02T03:04:05.678901Z",)"
     R"("timestamp":3512348611,"timeGps":1451606418000}})"},
    {NATIVE, 2,
     R"({"phyPayload":"AQ\/+BA==","rxInfo":{"channel":2,"codeRate":"4\/5","crcStatus":1,)"
     R"("dataRate":{"bandwidth":125,"modulation":"LORA","spreadFactor":7},"frequency":868300000,)"
     R"("loRaSNR":-7.5,)"
     R"("mac":"0016c001ff10abcd","rfChain":1,"rssi":-35,"size":4,"time":"2026-01-02T03:04:05.678901Z",)"
     R"("timestamp":3512348611,"timeGps":1451606418000}})"},
    {CHIRPSTACK_V2, 1,
     R"({"phyPayload":"AQ\/+BA==","rxInfo":{"board":0,"antenna":3,"channel":2,"codeRate":"4\/5",)"
     R"("crcStatus":1,)"
     R"("dataRate":{"bandwidth":125,"modulation":"LORA","spreadFactor":7},"frequency":868300000,)"
     R"("loRaSNR":-7,)"
     R"("mac":"0016c001ff10abcd","rfChain":1,"rssi":-35,"size":4,"time":"2026-01-02T03:04:05.678901Z",)"
     R"("timestamp":3512348611}})"},
    {CHIRPSTACK_V2, 2,
     R"({"phyPayload":"AQ\/+BA==","rxInfo":{"board":0,"antenna":0,"channel":2,"codeRate":"4\/5",)"
     R"("crcStatus":1,)"
     R"("dataRate":{"bandwidth":125,"modulation":"LORA","spreadFactor":7},"frequency":868300000,)"
     R"("loRaSNR":-7,)"
     R"("mac":"0016c001ff10abcd","rfChain":1,"rssi":-35,"size":4,"time":"2026-01-02T03:04:05.678901Z",)"
     R"("timestamp":3512348611}})"},
    {CHIRPSTACK_V3, 1,
     R"({"phyPayload":"AQ\/+BA==","txInfo":{"frequency":868300000,"modulation":"LORA",)"
     R"("loRaModulationInfo":{"bandwidth":125,"spreadingFactor":7,"codeRate":"4\/5",)"
     R"("polarizationInversion":false}},)"
     R"("rxInfo":{"gatewayID":"ABbAAf8Qq80=","time":"2026-01-02T03:04:05.678901Z","timestamp":3512348611,)"
     R"("rssi":-35,"loRaSNR":-7,"channel":2,"rfChain":1,"board":0,"antenna":3,"fineTimestampType":"PLAIN",)"
     R"("plainFineTimestamp":{"time":"2026-01-02T03:04:05.678901Z"},"context":"wy9a0QAAAAA="}})"},
    {CHIRPSTACK_V3, 2,
     R"({"phyPayload":"AQ\/+BA==","txInfo":{"frequency":868300000,"modulation":"LORA",)"
     R"("loRaModulationInfo":{"bandwidth":125,"spreadingFactor":7,"codeRate":"4\/5",)"
     R"("polarizationInversion":false}},)"
     R"("rxInfo":{"gatewayID":"ABbAAf8Qq80=","time":"2026-01-02T03:04:05.678901Z","timestamp":3512348611,)"
     R"("rssi":-35,"loRaSNR":-7,"channel":2,"rfChain":1,"board":0,"antenna":0,"fineTimestampType":"PLAIN",)"
     R"("plainFineTimestamp":{"time":"2026-01-02T03:04:05.678901Z"},"context":"wy9a0QAAAAA="}})"},
};
/* clang-format on */

TEST_F(TranslatorUplink, EachDialectGetsItsMembersInItsOrder)
{
    for (const whole_message &row : WHOLE_MESSAGES) {
        SCOPED_TRACE(testing::Message() << row.to.name << " from version " << row.semtech_version);
        const translated done = translate_uplink(row.to, row.semtech_version, rxpk(row.semtech_version));
        EXPECT_EQ(done.result, 0);
        EXPECT_EQ(done.json, row.json);
        EXPECT_THAT(done.spoken(), ElementsAre());
    }
}

TEST_F(TranslatorUplink, TheMacIsTracedInTheFormOfTheDialect)
{
    const std::string encoded = join({"TRACE mac encoded: ", MAC_BASE64});
    const std::string plain = join({"TRACE mac: ", MAC_HEX});
    EXPECT_THAT(translate_uplink(NATIVE, 1, RXPK_V1).log, Contains(plain));
    EXPECT_THAT(translate_uplink(NATIVE, 2, RXPK_V2).log, Contains(join({plain, ", lsnr str: -7.5"})));
    EXPECT_THAT(translate_uplink(CHIRPSTACK_V2, 1, RXPK_V1).log, Contains(plain));
    EXPECT_THAT(translate_uplink(CHIRPSTACK_V2, 2, RXPK_V2).log, Contains(plain));
    EXPECT_THAT(translate_uplink(CHIRPSTACK_V3, 1, RXPK_V1).log, Contains(encoded));
    const translated last = translate_uplink(CHIRPSTACK_V3, 2, RXPK_V2);
    EXPECT_THAT(last.log, Contains(encoded));
    EXPECT_THAT(last.log, Contains("TRACE tmst encoded: wy9a0QAAAAA="));
}

/* One output object serves every element of a datagram. */
TEST_F(TranslatorUplink, AnOutputObjectThatIsUsedAgainHoldsTheLastMessageAlone)
{
    for (const dialect &to : DIALECTS_IN_USE) {
        SCOPED_TRACE(to.name);
        const std::string second = without(with(RXPK_V2, "freq", "867.1"), "tmms");
        const json_owned output(json_object_new_object());
        for (const std::string &element : {std::string(RXPK_V2), second}) {
            const json_owned input(json_tokener_parse(element.c_str()));
            bridge_translate_msg from = {.mac = {0, 0x16, 0xc0, 1, 0xff, 0x10, 0xab, 0xcd},
                                         .format = FORMAT_SEMTECH,
                                         .version = 2,
                                         .json = input.get()};
            bridge_translate_msg target = {.format = to.format, .version = to.version, .json = output.get()};
            errno = 0;
            const captured_log log;
            ASSERT_EQ(bridge_translate_generic(&from, &target), 0);
        }
        EXPECT_EQ(json_object_to_json_string_ext(output.get(), 0), translate_uplink(to, 2, second).json);
    }
}

/* ---- single values ---- */

struct value_row {
    dialect to;
    const char *key; /* of the element */
    const char *value;
    const char *path; /* of the published message */
    const char *expected;
};

/* clang-format off */
static constexpr value_row VALUES[] = {
    /* A time is copied as it is; only the native format leaves out what is empty or 0. */
    {NATIVE,        "time", R"("any text")", "rxInfo.time",      R"("any text")"},
    {NATIVE,        "time", R"("")",         "rxInfo.time",      "absent"},
    {NATIVE,        "tmms", "0",             "rxInfo.timeGps",   "absent"},
    {NATIVE,        "tmms", "null",          "rxInfo.timeGps",   "absent"},
    {NATIVE,        "tmms", "-5",            "rxInfo.timeGps",   "-5"},
    {CHIRPSTACK_V2, "time", R"("any text")", "rxInfo.time",      R"("any text")"},
    {CHIRPSTACK_V2, "time", R"("")",         "rxInfo.time",      R"("")"},
    {CHIRPSTACK_V2, "tmms", R"("no number")", "rxInfo.timeGps",  "absent"},
    {CHIRPSTACK_V3, "time", R"("")",         "rxInfo.plainFineTimestamp.time", R"("")"},
    {CHIRPSTACK_V3, "tmms", R"("no number")", "rxInfo.timeGps",  "absent"},
    /* The server judges of the CRC for itself. */
    {NATIVE,        "stat", "-1",            "rxInfo.crcStatus", "1"},
    {NATIVE,        "stat", "0",             "rxInfo.crcStatus", "1"},
    {CHIRPSTACK_V2, "stat", "-1",            "rxInfo.crcStatus", "1"},
    {CHIRPSTACK_V3, "stat", "-1",            "rxInfo.rssi",      "-35"},
    /* MHz to Hz, truncated: nothing is rounded. */
    {NATIVE,        "freq", "868.1",         "rxInfo.frequency", "868100000"},
    {NATIVE,        "freq", "1.001",         "rxInfo.frequency", "1000999"},
    {NATIVE,        "freq", "868",           "rxInfo.frequency", "868000000"},
    {NATIVE,        "freq", "0",             "rxInfo.frequency", "0"},
    {NATIVE,        "freq", "-1.0000009",    "rxInfo.frequency", "-1000000"},
    {NATIVE,        "freq", "null",          "rxInfo.frequency", "0"},
    {CHIRPSTACK_V2, "freq", "1.001",         "rxInfo.frequency", "1000999"},
    {CHIRPSTACK_V3, "freq", "1.001",         "txInfo.frequency", "1000999"},
    /* Numbers that no 64 bits hold end at the nearest that they do. */
    {NATIVE,        "freq", "1e300",         "rxInfo.frequency", "9223372036854775807"},
    {NATIVE,        "freq", "-1e300",        "rxInfo.frequency", "-9223372036854775808"},
    {NATIVE,        "freq", "9223372036854.775807", "rxInfo.frequency", "9223372036854775807"},
    {CHIRPSTACK_V3, "freq", "Infinity",      "txInfo.frequency", "9223372036854775807"},
    {CHIRPSTACK_V2, "freq", "NaN",           "rxInfo.frequency", "0"},
    /* The native ratio has one digit behind the point, ChirpStack's is a whole number, toward zero. */
    {NATIVE,        "lsnr", "5",             "rxInfo.loRaSNR",   "5.0"},
    {NATIVE,        "lsnr", "5.14",          "rxInfo.loRaSNR",   "5.1"},
    {NATIVE,        "lsnr", "-9.96",         "rxInfo.loRaSNR",   "-10.0"},
    {NATIVE,        "lsnr", "-0.04",         "rxInfo.loRaSNR",   "-0.0"},
    {NATIVE,        "lsnr", R"("7.25")",     "rxInfo.loRaSNR",   "7.2"},
    {CHIRPSTACK_V2, "lsnr", "-0.9",          "rxInfo.loRaSNR",   "0"},
    {CHIRPSTACK_V2, "lsnr", "9.99",          "rxInfo.loRaSNR",   "9"},
    {CHIRPSTACK_V3, "lsnr", "-0.9",          "rxInfo.loRaSNR",   "0"},
    {CHIRPSTACK_V3, "lsnr", "-20.1",         "rxInfo.loRaSNR",   "-20"},
    {CHIRPSTACK_V2, "lsnr", "NaN",           "rxInfo.loRaSNR",   "0"},
    {CHIRPSTACK_V2, "lsnr", "Infinity",      "rxInfo.loRaSNR",   "9223372036854775807"},
    {CHIRPSTACK_V3, "lsnr", "-1e30",         "rxInfo.loRaSNR",   "-9223372036854775808"},
    /* The context is the count in eight bytes, lowest first. */
    {CHIRPSTACK_V3, "tmst", "0",             "rxInfo.context",   R"("AAAAAAAAAAA=")"},
    {CHIRPSTACK_V3, "tmst", "1",             "rxInfo.context",   R"("AQAAAAAAAAA=")"},
    {CHIRPSTACK_V3, "tmst", "-1",            "rxInfo.context",   R"("\/\/\/\/\/\/\/\/\/\/8=")"},
    {CHIRPSTACK_V3, "tmst", "578437695752307201", "rxInfo.context", R"("AQIDBAUGBwg=")"},
    {NATIVE,        "tmst", "9223372036854775807", "rxInfo.timestamp", "9223372036854775807"},
    /* Texts and numbers are read in each other's form. */
    {NATIVE,        "tmst", R"("12")",       "rxInfo.timestamp", "12"},
    {NATIVE,        "tmst", "12.9",          "rxInfo.timestamp", "12"},
    /* The library takes what is no number at all for 0. */
    {NATIVE,        "tmst", R"("soon")",     "rxInfo.timestamp", "0"},
    {NATIVE,        "size", "null",          "rxInfo.size",      "0"},
    {NATIVE,        "rfch", "{}",            "rxInfo.rfChain",   "0"},
    {CHIRPSTACK_V3, "tmst", R"("soon")",     "rxInfo.context",   R"("AAAAAAAAAAA=")"},
    {NATIVE,        "codr", "45",            "rxInfo.codeRate",  R"("45")"},
    /* The rate is LoRa's, whatever follows it. */
    {NATIVE,        "datr", R"("SF12BW500")", "rxInfo.dataRate.spreadFactor", "12"},
    {NATIVE,        "datr", R"("SF12BW500")", "rxInfo.dataRate.bandwidth", "500"},
    {CHIRPSTACK_V2, "datr", R"("SF-7BW125kHz")", "rxInfo.dataRate.spreadFactor", "-7"},
    {CHIRPSTACK_V3, "datr", R"("SF12BW500")", "txInfo.loRaModulationInfo.spreadingFactor", "12"},
    {NATIVE,        "modu", R"("FSK")",      "rxInfo.dataRate.modulation", R"("FSK")"},
    {CHIRPSTACK_V3, "modu", R"("FSK")",      "txInfo.modulation", R"("FSK")"},
    /* Version 2 does not look at the array. */
    {CHIRPSTACK_V2, "rsig", "[1]",           "rxInfo.antenna",   "0"},
    {CHIRPSTACK_V3, "rsig", R"([{"ant":9}])", "rxInfo.antenna",  "0"},
};
/* clang-format on */

TEST_F(TranslatorUplink, EachValueIsPublishedInTheFormOfTheDialect)
{
    for (const value_row &row : VALUES) {
        SCOPED_TRACE(join({row.to.name, " ", row.key, ": ", row.value}));
        const translated done = translate_uplink(row.to, 2, with(RXPK_V2, row.key, row.value));
        EXPECT_EQ(done.result, 0) << testing::PrintToString(done.spoken());
        EXPECT_EQ(member(done.json, row.path), row.expected);
    }
}

/* A number as large as a double can be is published digit by digit, and one that is none by its name. */
TEST_F(TranslatorUplink, TheNativeRatioOfAnyDoubleFits)
{
    char expected[400];
    snprintf(expected, sizeof(expected), "%0.1f", -1.7e308);
    const translated huge = translate_uplink(NATIVE, 2, with(RXPK_V2, "lsnr", "-1.7e308"));
    EXPECT_EQ(huge.result, 0);
    EXPECT_THAT(huge.json, HasSubstr(join({"\"loRaSNR\":", expected, ",\"mac\""})));
    const translated none = translate_uplink(NATIVE, 2, with(RXPK_V2, "lsnr", "NaN"));
    EXPECT_EQ(none.result, 0);
    EXPECT_THAT(none.json, HasSubstr("\"loRaSNR\":nan,"));
}

TEST_F(TranslatorUplink, TimeKeysThatAreAbsentLeaveTheNativeMessageWithoutThem)
{
    for (const uint32_t version : SEMTECH_VERSIONS) {
        const std::string no_time = without(rxpk(version), "time");
        const std::string no_gps = without(rxpk(version), "tmms");
        const std::string neither = without(no_time, "tmms");
        const auto keys = [&](const std::string &element) {
            const std::string json = translate_uplink(NATIVE, version, element).json;
            return join({member(json, "rxInfo.time"), " ", member(json, "rxInfo.timestamp"), " ",
                         member(json, "rxInfo.timeGps")});
        };
        EXPECT_EQ(keys(no_time), "absent 3512348611 1451606418000");
        EXPECT_EQ(keys(no_gps), R"("2026-01-02T03:04:05.678901Z" 3512348611 absent)");
        EXPECT_EQ(keys(neither), "absent 3512348611 absent");
    }
}

/* ---- the default time ---- */

static std::string quoted_utc(time_t moment)
{
    tm utc = {};
    char text[64];
    __real_gmtime_r(&moment, &utc);
    strftime(text, sizeof(text), "%FT%TZ", &utc);
    return join({"\"", text, "\""});
}

TEST_F(TranslatorUplink, ChirpStackFillsInTheCurrentTime)
{
    for (const dialect &to : {CHIRPSTACK_V2, CHIRPSTACK_V3}) {
        for (const uint32_t version : SEMTECH_VERSIONS) {
            SCOPED_TRACE(testing::Message() << to.name << " from version " << version);
            const time_t before = time(nullptr);
            const translated done = translate_uplink(to, version, without(rxpk(version), "time"));
            const time_t after = time(nullptr);
            EXPECT_EQ(done.result, 0);
            const std::string published = member(done.json, "rxInfo.time");
            std::vector<std::string> window;
            for (time_t moment = before; moment <= after; moment++)
                window.push_back(quoted_utc(moment));
            EXPECT_THAT(window, Contains(published));
            EXPECT_EQ(member(done.json, "rxInfo.plainFineTimestamp.time"),
                      to.version == 3 ? published : "absent");
        }
    }
}

TEST_F(TranslatorUplink, AClockThatCannotBeReadFailsAChirpStackUplink)
{
    gmtime_fails = true;
    for (const dialect &to : {CHIRPSTACK_V2, CHIRPSTACK_V3}) {
        const translated done = translate_uplink(to, 2, RXPK_V2);
        EXPECT_EQ(done.result, -1);
        EXPECT_THAT(done.spoken(), ElementsAre("ERROR failed to prepare time string for chirpstack uplink"));
    }
    EXPECT_EQ(translate_uplink(NATIVE, 2, without(RXPK_V2, "time")).result, 0);
    gmtime_fails = false;
}

/* ---- what is refused ---- */

static std::string refused_line(const std::string &element)
{
    return join({"ERROR failed to deserialize uplink packet: ", printed(element)});
}

TEST_F(TranslatorUplink, EachRequiredKeyIsRequired)
{
    const std::vector<std::pair<uint32_t, std::vector<const char *>>> rows = {
        {1, {"tmst", "rfch", "freq", "stat", "modu", "datr", "codr", "size", "data"}},
        {2, {"tmst", "chan", "rfch", "freq", "stat", "modu", "datr", "codr", "rssi", "lsnr", "size", "data"}},
    };
    for (const dialect &to : DIALECTS_IN_USE) {
        for (const auto &[version, keys] : rows) {
            for (const char *key : keys) {
                SCOPED_TRACE(join({to.name, " from version ", std::to_string(version), " without ", key}));
                const std::string element = without(rxpk(version), key);
                const translated done = translate_uplink(to, version, element);
                EXPECT_EQ(done.result, -1);
                EXPECT_THAT(done.spoken(),
                            ElementsAre("WARN unable to retrieve field", refused_line(element)));
            }
        }
    }
}

struct bad_value {
    const char *key;
    const char *value;
    const char *line;
};

/* clang-format off */
static constexpr bad_value BAD_VALUES[] = {
    {"freq", R"("high")", "WARN unable to fetch double"},
    {"freq", "{}",        "WARN unable to fetch double"},
    {"modu", "null",      "WARN unable to fetch string"},
    {"data", "null",      "WARN unable to fetch string"},
    {"time", "null",      ""}, /* an optional key's trouble is a matter of TRACE, yet fails */
};
/* clang-format on */

TEST_F(TranslatorUplink, AValueOfAnotherKindFailsTheMessage)
{
    for (const dialect &to : DIALECTS_IN_USE) {
        for (const uint32_t version : SEMTECH_VERSIONS) {
            for (const bad_value &row : BAD_VALUES) {
                SCOPED_TRACE(join({to.name, " ", std::to_string(version), " ", row.key, ": ", row.value}));
                const std::string element = with(rxpk(version), row.key, row.value);
                const translated done = translate_uplink(to, version, element);
                EXPECT_EQ(done.result, -1);
                std::vector<std::string> expected = {refused_line(element)};
                if (row.line[0] != '\0')
                    expected.insert(expected.begin(), row.line);
                EXPECT_THAT(done.spoken(), testing::ElementsAreArray(expected));
            }
        }
    }
    for (const dialect &to : DIALECTS_IN_USE)
        EXPECT_EQ(translate_uplink(to, 2, with(RXPK_V2, "lsnr", R"("loud")")).result, -1);
}

TEST_F(TranslatorUplink, AnElementThatIsNoObjectFails)
{
    for (const char *element : {"[]", "5", R"("text")", "true", "{}"}) {
        const translated done = translate_uplink(NATIVE, 2, element);
        EXPECT_EQ(done.result, -1);
        EXPECT_THAT(done.spoken(), ElementsAre("WARN unable to retrieve field", refused_line(element)))
            << element;
    }
}

TEST_F(TranslatorUplink, ATextFillsItsLimitLessOneAndNoMore)
{
    const struct {
        const char *key;
        const char *start;
        size_t limit;
        const char *paths[3]; /* in the dialects' order */
    } rows[] = {
        {"time", "", 128, {"rxInfo.time", "rxInfo.time", "rxInfo.time"}},
        {"modu", "", 16, {"rxInfo.dataRate.modulation", "rxInfo.dataRate.modulation", "txInfo.modulation"}},
        {"datr", "SF7BW125", 16, {nullptr, nullptr, nullptr}},
        {"codr", "", 8, {"rxInfo.codeRate", "rxInfo.codeRate", "txInfo.loRaModulationInfo.codeRate"}},
        {"data", "", 2048, {"phyPayload", "phyPayload", "phyPayload"}},
    };
    for (const auto &row : rows) {
        for (size_t i = 0; i < std::size(DIALECTS_IN_USE); i++) {
            for (const uint32_t version : SEMTECH_VERSIONS) {
                SCOPED_TRACE(join({DIALECTS_IN_USE[i].name, " ", std::to_string(version), " ", row.key}));
                const std::string longest = text_of_length(row.limit - 1, row.start);
                const translated done =
                    translate_uplink(DIALECTS_IN_USE[i], version, with(rxpk(version), row.key, longest));
                EXPECT_EQ(done.result, 0);
                if (row.paths[i] != nullptr) {
                    EXPECT_EQ(member(done.json, row.paths[i]), longest);
                }
                const std::string element =
                    with(rxpk(version), row.key, text_of_length(row.limit, row.start));
                const translated refused = translate_uplink(DIALECTS_IN_USE[i], version, element);
                EXPECT_EQ(refused.result, -1);
                EXPECT_THAT(refused.spoken(),
                            ElementsAre("WARN not enough space for incoming string", refused_line(element)));
            }
        }
    }
}

TEST_F(TranslatorUplink, ARateThatIsNotLoRasFails)
{
    for (const dialect &to : DIALECTS_IN_USE) {
        for (const uint32_t version : SEMTECH_VERSIONS) {
            for (const char *datr : {"50000", R"("50000")", R"("SF7")", R"("SF7BW")", R"("BW125SF7")",
                                     R"("")", R"("sf7bw125")", R"(" SF7BW125")", R"("SFxBWy")"}) {
                SCOPED_TRACE(join({to.name, " ", std::to_string(version), " ", datr}));
                const std::string element = with(with(rxpk(version), "modu", R"("FSK")"), "datr", datr);
                const translated done = translate_uplink(to, version, element);
                EXPECT_EQ(done.result, -1);
                EXPECT_THAT(done.spoken(), ElementsAre("ERROR failed to deserialize uplink datarate field"));
            }
        }
    }
}

/* ---- rsig ---- */

static std::string signal_of(int64_t ant, int64_t chan)
{
    return join({R"({"ant":)", std::to_string(ant), R"(,"chan":)", std::to_string(chan),
                 R"(,"rssic":-50,"lsnr":2.5})"});
}

static std::string signals(size_t count)
{
    std::string array = "[";
    for (size_t i = 0; i < count; i++)
        array += join({i == 0 ? "" : ",", signal_of(i == 0 ? 7 : 1, i == 0 ? 8 : 2)});
    return array + "]";
}

/* channel, rssi, loRaSNR and antenna as published. */
static std::string published_signal(const dialect &to, const std::string &json)
{
    return join({member(json, "rxInfo.channel"), " ", member(json, "rxInfo.rssi"), " ",
                 member(json, "rxInfo.loRaSNR"), to.format == FORMAT_SNVNS ? "" : " ",
                 to.format == FORMAT_SNVNS ? "" : member(json, "rxInfo.antenna")});
}

TEST_F(TranslatorUplink, TheFirstElementOfRsigAloneCounts)
{
    for (const size_t count : {1U, 2U, 31U, 32U}) {
        const std::string element = with(RXPK_V1, "rsig", signals(count));
        EXPECT_EQ(published_signal(NATIVE, translate_uplink(NATIVE, 1, element).json), "8 -50 2.5") << count;
        for (const dialect &to : {CHIRPSTACK_V2, CHIRPSTACK_V3})
            EXPECT_EQ(published_signal(to, translate_uplink(to, 1, element).json), "8 -50 2 7") << count;
    }
}

/* Values of the element itself are not looked at. */
TEST_F(TranslatorUplink, AVersionOneElementWithoutRsigIsPublishedWithZeros)
{
    const std::string own_values = with(with(with(RXPK_V1, "chan", "4"), "rssi", "-1"), "lsnr", "\"bad\"");
    const std::pair<std::string, bool> rows[] = {
        {without(RXPK_V1, "rsig"), true},
        {without(own_values, "rsig"), true},
        {with(RXPK_V1, "rsig", "[]"), false},
        {with(RXPK_V1, "rsig", "null"), true},
        {with(RXPK_V1, "rsig", "{\"ant\":1}"), true},
        {with(RXPK_V1, "rsig", "\"text\""), true},
    };
    for (const auto &[element, absent] : rows) {
        for (const dialect &to : DIALECTS_IN_USE) {
            SCOPED_TRACE(join({to.name, " ", element}));
            const translated done = translate_uplink(to, 1, element);
            EXPECT_EQ(done.result, 0);
            EXPECT_EQ(published_signal(to, done.json), to.format == FORMAT_SNVNS ? "0 0 0.0" : "0 0 0 0");
            EXPECT_EQ(std::count(done.log.begin(), done.log.end(), "TRACE no rsig array in a packet"),
                      absent);
        }
    }
}

TEST_F(TranslatorUplink, MoreThan32ElementsOfRsigFail)
{
    for (const dialect &to : DIALECTS_IN_USE) {
        const translated done = translate_uplink(to, 1, with(RXPK_V1, "rsig", signals(33)));
        EXPECT_EQ(done.result, -1);
        EXPECT_THAT(done.spoken(), ElementsAre("ERROR too many rsig values received"));
    }
}

TEST_F(TranslatorUplink, EveryElementOfRsigMustBeSound)
{
    const std::string sound = signal_of(1, 2);
    const std::string unsound[] = {
        "null",
        "5",
        "[]",
        "{}",
        without(sound, "ant"),
        without(sound, "chan"),
        without(sound, "rssic"),
        without(sound, "lsnr"),
        with(sound, "lsnr", "\"x\""),
    };
    for (const dialect &to : DIALECTS_IN_USE) {
        for (const std::string &bad : unsound) {
            for (const std::string &array : {join({"[", bad, "]"}), join({"[", sound, ",", bad, "]"})}) {
                SCOPED_TRACE(join({to.name, " ", array}));
                const translated done = translate_uplink(to, 1, with(RXPK_V1, "rsig", array));
                EXPECT_EQ(done.result, -1);
                ASSERT_FALSE(done.spoken().empty());
                EXPECT_EQ(done.spoken().back(), "ERROR failed to deserialize rsig frame");
            }
        }
    }
}
