/* Statistics of the packet forwarder in the three dialects; both versions of the datagrams give the same. */
#include "converter/translation.h"

using testing::ElementsAre;
using testing::HasSubstr;

class TranslatorStatistics : public Translation
{
};

static constexpr const char *STAT =
    R"({"time":"2026-01-02 03:04:05 GMT","boot":"2026-01-01 00:00:00 GMT","hal":"5.1.0","lati":46.24,)"
    R"("long":-3.2523,)"
    R"("alti":145,"rxnb":10,"rxok":9,"rxfw":8,"ackr":99.5,"dwnb":7,"txnb":6,"lmok":5,"lmst":4})";

/* What is needed and nothing more. */
static constexpr const char *SHORT_STAT =
    R"({"time":"2026-01-02 03:04:05 GMT","rxnb":10,"rxok":9,"rxfw":8,"ackr":99.5,"dwnb":7,"txnb":6})";

/* clang-format off */
static constexpr const char *NATIVE_STAT =
    R"({"altitude":145,"latitude":46.240000,"longitude":-3.252300,"mac":"0016c001ff10abcd",)"
    R"("rxPacketsReceived":10,)"
    R"("rxPacketsReceivedOK":9,"txPacketsReceived":7,"txPacketsEmitted":6,)"
    R"("time":"2026-01-02T03:04:05.000000Z"})";
static constexpr const char *NATIVE_SHORT_STAT =
    R"({"altitude":-1,"latitude":-1.000000,"longitude":-1.000000,"mac":"0016c001ff10abcd",)"
    R"("rxPacketsReceived":10,)"
    R"("rxPacketsReceivedOK":9,"txPacketsReceived":7,"txPacketsEmitted":6,)"
    R"("time":"2026-01-02T03:04:05.000000Z"})";
static constexpr const char *V3_STAT =
    R"({"gatewayID":"ABbAAf8Qq80=","time":"2026-01-02T03:04:05.000000Z","rxPacketsReceived":10,)"
    R"("rxPacketsReceivedOK":9,"txPacketsReceived":7,"txPacketsEmitted":6,)"
    R"("location":{"latitude":46.240000000000002,"longitude":-3.2523,"altitude":145}})";
static constexpr const char *V3_SHORT_STAT =
    R"({"gatewayID":"ABbAAf8Qq80=","time":"2026-01-02T03:04:05.000000Z","rxPacketsReceived":10,)"
    R"("rxPacketsReceivedOK":9,"txPacketsReceived":7,"txPacketsEmitted":6})";
/* clang-format on */

TEST_F(TranslatorStatistics, EachDialectGetsItsMembersInItsOrder)
{
    const struct {
        dialect to;
        const char *stat;
        const char *json;
    } rows[] = {
        {NATIVE, STAT, NATIVE_STAT},        {NATIVE, SHORT_STAT, NATIVE_SHORT_STAT},
        {CHIRPSTACK_V2, STAT, NATIVE_STAT}, {CHIRPSTACK_V2, SHORT_STAT, NATIVE_SHORT_STAT},
        {CHIRPSTACK_V3, STAT, V3_STAT},     {CHIRPSTACK_V3, SHORT_STAT, V3_SHORT_STAT},
    };
    for (const auto &row : rows) {
        for (const uint32_t version : SEMTECH_VERSIONS) {
            SCOPED_TRACE(testing::Message() << row.to.name << " from version " << version);
            const translated done = translate_statistics(row.to, version, row.stat);
            EXPECT_EQ(done.result, 0);
            EXPECT_EQ(done.json, row.json);
            EXPECT_THAT(done.spoken(), ElementsAre());
            EXPECT_THAT(done.log,
                        testing::Contains(row.to.version == 3 ? join({"TRACE mac encoded: ", MAC_BASE64})
                                                              : join({"TRACE mac: ", MAC_HEX})));
        }
    }
}

/* A time in another form is published as what could be read of it. */
TEST_F(TranslatorStatistics, TheTimeIsReformattedUnchecked)
{
    const std::vector<std::pair<const char *, const char *>> rows = {
        {"2026-01-02 03:04:05 GMT", "2026-01-02T03:04:05.000000Z"},
        {"2026-12-31 23:59:59 CEST", "2026-12-31T23:59:59.000000Z"},
        {"2026-01-02 03:04:05", "2026-01-02T03:04:05.000000Z"},
        {"2026-01-02   03:04:05 GMT and more", "2026-01-02T03:04:05.000000Z"},
        {"2026-01-02T03:04:05.678Z", "2026-01-02T00:00:00.000000Z"},
        {"2026-01-02", "2026-01-02T00:00:00.000000Z"},
        {"2026-13-02 03:04:05 GMT", "2026-01-00T00:00:00.000000Z"},
        {"2026", "2026-01-00T00:00:00.000000Z"},
        {"never", "1900-01-00T00:00:00.000000Z"},
        {"", "1900-01-00T00:00:00.000000Z"},
    };
    for (const auto &[time, expected] : rows) {
        for (const dialect &to : DIALECTS_IN_USE) {
            SCOPED_TRACE(join({to.name, " ", time}));
            const translated done = translate_statistics(to, 2, with(STAT, "time", join({"\"", time, "\""})));
            EXPECT_EQ(done.result, 0);
            EXPECT_EQ(member(done.json, "time"), join({"\"", expected, "\""}));
            EXPECT_THAT(done.spoken(), ElementsAre());
        }
    }
}

TEST_F(TranslatorStatistics, NativeCoordinatesThatAreAbsentAreMinusOneEachForItself)
{
    const struct {
        const char *absent;
        const char *lati;
        const char *longi;
        const char *alti;
    } rows[] = {
        {"lati", "-1.000000", "-3.252300", "145"},
        {"long", "46.240000", "-1.000000", "145"},
        {"alti", "46.240000", "-3.252300", "-1"},
    };
    for (const auto &row : rows) {
        const std::string json = translate_statistics(NATIVE, 1, without(STAT, row.absent)).json;
        EXPECT_THAT(json, HasSubstr(join({R"("altitude":)", row.alti, R"(,"latitude":)", row.lati,
                                          R"(,"longitude":)", row.longi, ","})));
    }
}

TEST_F(TranslatorStatistics, NativeCoordinatesHaveSixDigitsBehindThePoint)
{
    const std::vector<std::pair<const char *, std::string>> rows = {
        {"0", "0.000000"},
        {"90", "90.000000"},
        {"-0.00000049", "-0.000000"},
        {"46.1234567", "46.123457"},
        {"null", "0.000000"},
        /* a longer text is cut to its buffer */
        {"1e30", "1000000000000000019884624838656"},
        {"1e300", "1000000000000000052504760255204"},
    };
    for (const auto &[value, expected] : rows) {
        const std::string json = translate_statistics(NATIVE, 1, with(STAT, "lati", value)).json;
        EXPECT_THAT(json, HasSubstr(join({R"("latitude":)", expected, ","}))) << value;
        const std::string other = translate_statistics(NATIVE, 1, with(STAT, "long", value)).json;
        EXPECT_THAT(other, HasSubstr(join({R"("longitude":)", expected, ","}))) << value;
    }
}

TEST_F(TranslatorStatistics, ChirpStackGetsAPositionThatIsWholeOrNone)
{
    const struct {
        std::vector<const char *> absent;
        const char *values; /* of the warning */
    } rows[] = {
        {{"lati"}, "lat: nan long: -3.252300 lati: 145"},
        {{"long"}, "lat: 46.240000 long: nan lati: 145"},
        {{"alti"}, "lat: 46.240000 long: -3.252300 lati: -9223372036854775808"},
        {{"lati", "long"}, "lat: nan long: nan lati: 145"},
        {{"lati", "alti"}, "lat: nan long: -3.252300 lati: -9223372036854775808"},
        {{"long", "alti"}, "lat: 46.240000 long: nan lati: -9223372036854775808"},
    };
    for (const auto &row : rows) {
        std::string stat = STAT;
        for (const char *key : row.absent)
            stat = without(stat, key);
        SCOPED_TRACE(row.values);
        const translated done = translate_statistics(CHIRPSTACK_V3, 2, stat);
        EXPECT_EQ(done.result, 0);
        EXPECT_EQ(done.json, V3_SHORT_STAT);
        EXPECT_THAT(done.spoken(),
                    ElementsAre(join({"WARN inconsitent GPS coordinates received. ", row.values})));
    }
}

TEST_F(TranslatorStatistics, ChirpStackCoordinatesAreNumbersInTheLibrarysForm)
{
    const std::string stat = with(with(with(STAT, "lati", "0"), "long", "8.5"), "alti", "-12.9");
    EXPECT_EQ(member(translate_statistics(CHIRPSTACK_V3, 1, stat).json, "location"),
              R"({"latitude":0.0,"longitude":8.5,"altitude":-12})");
    /* A coordinate that is given as no number is one that is absent. */
    const translated odd = translate_statistics(CHIRPSTACK_V3, 1, with(STAT, "lati", "NaN"));
    EXPECT_EQ(member(odd.json, "location"), "absent");
    EXPECT_EQ(odd.spoken().size(), 1U);
}

/* ---- what is refused ---- */

static std::string refused_line(const std::string &stat)
{
    return join({"ERROR failed to deserialize statistics: ", printed(stat)});
}

TEST_F(TranslatorStatistics, EachRequiredKeyIsRequired)
{
    for (const dialect &to : DIALECTS_IN_USE) {
        for (const char *key : {"time", "rxnb", "rxok", "rxfw", "ackr", "dwnb", "txnb"}) {
            SCOPED_TRACE(join({to.name, " without ", key}));
            const std::string stat = without(STAT, key);
            const translated done = translate_statistics(to, 2, stat);
            EXPECT_EQ(done.result, -1);
            EXPECT_THAT(done.spoken(), ElementsAre("WARN unable to retrieve field", refused_line(stat)));
        }
    }
}

TEST_F(TranslatorStatistics, ValuesThatAreNotUsedMustBeSoundAllTheSame)
{
    for (const dialect &to : DIALECTS_IN_USE) {
        for (const char *key : {"boot", "hal"}) {
            const std::string stat = with(STAT, key, "null");
            const translated done = translate_statistics(to, 1, stat);
            EXPECT_EQ(done.result, -1);
            EXPECT_THAT(done.spoken(), ElementsAre(refused_line(stat)));
        }
        EXPECT_EQ(translate_statistics(to, 1, with(STAT, "lati", R"("north")")).result, -1);
        EXPECT_EQ(translate_statistics(to, 1, with(STAT, "ackr", R"("all")")).result, 0);
    }
}

TEST_F(TranslatorStatistics, ATextFillsItsLimitLessOneAndNoMore)
{
    for (const dialect &to : DIALECTS_IN_USE) {
        for (const char *key : {"time", "boot", "hal"}) {
            SCOPED_TRACE(join({to.name, " ", key}));
            const std::string longest = text_of_length(63, "2026-01-02 03:04:05 ");
            EXPECT_EQ(translate_statistics(to, 2, with(STAT, key, longest)).result, 0);
            const std::string stat = with(STAT, key, text_of_length(64, "2026-01-02 03:04:05 "));
            const translated refused = translate_statistics(to, 2, stat);
            EXPECT_EQ(refused.result, -1);
            EXPECT_THAT(refused.spoken(),
                        ElementsAre("WARN not enough space for incoming string", refused_line(stat)));
        }
    }
}

TEST_F(TranslatorStatistics, StatisticsThatAreNoObjectFail)
{
    for (const char *stat : {"[]", "5", R"("text")", "{}"}) {
        for (const dialect &to : DIALECTS_IN_USE) {
            const translated done = translate_statistics(to, 2, stat);
            EXPECT_EQ(done.result, -1);
            EXPECT_THAT(done.spoken(), ElementsAre("WARN unable to retrieve field", refused_line(stat)));
        }
    }
}
