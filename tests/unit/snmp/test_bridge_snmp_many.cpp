/* Reads of many objects in one request. */
#include "converter/control/bridge_snmp.h"

#include "snmp_fixture.h"
#include "snmp_outcomes.h"

static constexpr char NAME[] = "moduleName.0";
static constexpr char NOT_EXTRACTED[] = "; ERROR failed to extract property: moduleName.0";
static constexpr char END_OF_VIEW[] =
    "-1; ERROR No More Variables left in this MIB View (It is past the end of the MIB tree)";

using many_read = int (*)(converter_ctx *, const bridge_snmp_read_prop *, uint32_t);

class snmp_many : public snmp_client
{
  protected:
    std::string read(read_target *target, const char *name = NAME, const char *root = nullptr,
                     many_read operation = bridge_snmp_get_properties)
    {
        const log_view from = log.from_here();
        const bridge_snmp_read_prop props[] = {target->record(name, root), {}};
        const int result = operation(&ctx, props, 0);
        return outcome(result, target->text(), from);
    }
};

struct wire_row {
    const char *value;
    bridge_prop_type type;
    size_t capacity;
    std::string expected;
    bridge_prop_type hint = {};
};

static constexpr char COUNTER[] = R"({"type":"Counter32","value":4294967295})";
static constexpr char GAUGE[] = R"({"type":"Gauge32","value":7})";
static constexpr char TICKS[] = R"({"type":"TimeTicks","value":100})";
static constexpr char UNSIGNED[] = R"({"type":"UInteger32","value":8})";
static constexpr char NUMBER[] = R"({"type":"INTEGER","value":-5})";
static constexpr char ZERO[] = R"({"type":"INTEGER","value":0})";
static constexpr char BITS[] = R"({"type":"BIT STRING","value":{"hex":"004142"}})";
static constexpr char ADDR[] = R"({"type":"IpAddress","value":"65.66.67.68"})";
static constexpr char IPV6[] = R"({"hex":"20010db8000000000000000000000001"})";

TEST_F(snmp_many, EveryTypeOfTheWireInEveryForm)
{
    const wire_row rows[] = {
        {COUNTER, PROP_TYPE_JSON, 0, R"({"f":-1})"},
        {GAUGE, PROP_TYPE_JSON, 0, R"({"f":7})"},
        {TICKS, PROP_TYPE_JSON, 0, R"({"f":100})"},
        {UNSIGNED, PROP_TYPE_JSON, 0, R"({"f":8})"},
        {NUMBER, PROP_TYPE_JSON, 0, R"({"f":-5})"},
        {NUMBER, PROP_TYPE_JSON, 0, R"({"f":-5})", PROP_TYPE_STRING},
        {COUNTER, PROP_TYPE_JSON, 0, R"({"f":true})", PROP_TYPE_BOOL},
        {GAUGE, PROP_TYPE_JSON, 0, R"({"f":true})", PROP_TYPE_BOOL},
        {TICKS, PROP_TYPE_JSON, 0, R"({"f":true})", PROP_TYPE_BOOL},
        {UNSIGNED, PROP_TYPE_JSON, 0, R"({"f":true})", PROP_TYPE_BOOL},
        {NUMBER, PROP_TYPE_JSON, 0, R"({"f":true})", PROP_TYPE_BOOL},
        {ZERO, PROP_TYPE_JSON, 0, R"({"f":false})", PROP_TYPE_BOOL},
        {R"("a\u0000b")", PROP_TYPE_JSON, 0, R"({"f":"a\u0000b"})"},
        {R"("1")", PROP_TYPE_JSON, 0, R"({"f":"1"})", PROP_TYPE_BOOL},
        {BITS, PROP_TYPE_JSON, 0, R"({"f":"\u0000AB"})"},
        {ADDR, PROP_TYPE_JSON, 0, R"({"f":"ABCD"})"},
        {ADDR, PROP_TYPE_JSON, 0, R"({"f":"65.66.67.68"})", PROP_TYPE_IPADDR},
        {R"("ABCD")", PROP_TYPE_JSON, 0, R"({"f":"65.66.67.68"})", PROP_TYPE_IPADDR},
        {IPV6, PROP_TYPE_JSON, 0, R"({"f":"2001:db8::1"})", PROP_TYPE_IPADDR},

        {UNSIGNED, PROP_TYPE_BOOL, 1, "true"},
        {NUMBER, PROP_TYPE_BOOL, 1, "true"},
        {ZERO, PROP_TYPE_BOOL, 1, "false"},

        {COUNTER, PROP_TYPE_INT, 8, "-1"},
        {GAUGE, PROP_TYPE_INT, 8, "7"},
        {TICKS, PROP_TYPE_INT, 8, "100"},
        {UNSIGNED, PROP_TYPE_INT, 8, "8"},
        {NUMBER, PROP_TYPE_INT, 8, "-5"},

        {BITS, PROP_TYPE_STRING, 64, "[] 0"},
        {R"({"type":"BIT STRING","value":{"hex":"014142"}})", PROP_TYPE_STRING, 64, "[\1AB] 3"},
        {R"("text")", PROP_TYPE_STRING, 64, "[text] 4"},
        {R"("a\u0000b")", PROP_TYPE_STRING, 64, "[a] 1"},
        {ADDR, PROP_TYPE_STRING, 64, "[65.66.67.68] 4"},
        {COUNTER, PROP_TYPE_STRING, 64, "[-1] 2"},
        {GAUGE, PROP_TYPE_STRING, 64, "[7] 1"},
        {TICKS, PROP_TYPE_STRING, 64, "[100] 3"},
        {UNSIGNED, PROP_TYPE_STRING, 64, "[8] 1"},
        {NUMBER, PROP_TYPE_STRING, 64, "[-5] 2"},

        {R"("ABCD")", PROP_TYPE_IPADDR, 46, "[65.66.67.68] 4"},
        {R"({"type":"BIT STRING","value":{"hex":"00010203"}})", PROP_TYPE_IPADDR, 46, "[0.1.2.3] 4"},
        {ADDR, PROP_TYPE_IPADDR, 46, "[65.66.67.68] 4"},
        {IPV6, PROP_TYPE_IPADDR, 46, "[2001:db8::1] 16"},

        {BITS, PROP_TYPE_DATA, 64, "004142 3"},
        {R"({"hex":"0a000b"})", PROP_TYPE_DATA, 64, "0a000b 3"},
        {ADDR, PROP_TYPE_DATA, 64, "41424344 4"},
    };
    for (const wire_row &row : rows) {
        lab_gateway_put(NAME, row.value);
        read_target target(row.type, row.capacity, row.hint);
        EXPECT_EQ(read(&target), row.expected) << row.value << " as " << static_cast<unsigned>(row.type);
    }
}

TEST_F(snmp_many, TypesWithoutARowOfTheTableAreRefused)
{
    struct refused_row {
        const char *value;
        bridge_prop_type type;
        const char *pair;
    };
    const refused_row rows[] = {
        {R"({"type":"Counter64","value":9})", PROP_TYPE_JSON, "0x46 to property 7"},
        {R"({"type":"Counter64","value":9})", PROP_TYPE_INT, "0x46 to property 1"},
        {R"({"type":"OBJECT IDENTIFIER","value":"1.3.6"})", PROP_TYPE_STRING, "0x6 to property 4"},
        {R"({"type":"Opaque","value":"x"})", PROP_TYPE_DATA, "0x44 to property 5"},
        {R"({"type":"Float","value":1.5})", PROP_TYPE_DOUBLE, "0x78 to property 3"},
        {R"({"type":"Double","value":1.5})", PROP_TYPE_JSON, "0x79 to property 7"},
        {COUNTER, PROP_TYPE_BOOL, "0x41 to property 2"},
        {R"("text")", PROP_TYPE_INT, "0x4 to property 1"},
        {NUMBER, PROP_TYPE_IPADDR, "0x2 to property 6"},
        {NUMBER, PROP_TYPE_DATA, "0x2 to property 5"},
    };
    for (const refused_row &row : rows) {
        lab_gateway_put(NAME, row.value);
        read_target target(row.type);
        EXPECT_EQ(read(&target),
                  join({"-1; ERROR no conversion specified from ASN ", row.pair, NOT_EXTRACTED}));
        EXPECT_TRUE(target.text() == "untouched" || target.text() == "{}");
    }
}

TEST_F(snmp_many, LengthsAtTheirLimits)
{
    const auto refused = [](size_t size) {
        return join({"-1; ERROR buffer with size [", std::to_string(size),
                     "] is too small for requested property"}) +
               NOT_EXTRACTED;
    };
    const auto filled = [](size_t length) { return std::string(length, 'x'); };
    const auto hex = [](size_t length) {
        std::string text;
        for (size_t i = 0; i < length; i++)
            text += "78";
        return text + join({" ", std::to_string(length)});
    };
    const auto address = [](size_t size) {
        return join({"-1; ERROR invalid data size for IP address: [", std::to_string(size), "]"}) +
               NOT_EXTRACTED;
    };
    struct length_row {
        size_t length;
        bridge_prop_type type;
        size_t capacity;
        std::string expected;
        bridge_prop_type hint = {};
    };
    const length_row rows[] = {
        {0, PROP_TYPE_STRING, 1, "[] 0"},
        {9, PROP_TYPE_STRING, 10, join({"[", filled(9), "] 9"})},
        {10, PROP_TYPE_STRING, 10, refused(10)},
        {39, PROP_TYPE_STRING, 40, join({"[", filled(39), "] 39"})},
        {39, PROP_TYPE_STRING, 39, refused(39)},
        {40, PROP_TYPE_STRING, 64, "[] 0"},
        {40, PROP_TYPE_STRING, 1, "[] 0"},
        {41, PROP_TYPE_STRING, 64, "[] 0"},
        {0, PROP_TYPE_DATA, 1, " 0"},
        {9, PROP_TYPE_DATA, 10, hex(9)},
        {10, PROP_TYPE_DATA, 10, hex(10)},
        {11, PROP_TYPE_DATA, 10, refused(11)},
        {39, PROP_TYPE_DATA, 39, hex(39)},
        {40, PROP_TYPE_DATA, 40, hex(40)},
        {41, PROP_TYPE_DATA, 41, hex(41)},
        {0, PROP_TYPE_IPADDR, 46, address(0)},
        {3, PROP_TYPE_IPADDR, 46, address(3)},
        {5, PROP_TYPE_IPADDR, 46, address(5)},
        {40, PROP_TYPE_IPADDR, 46, address(40)},
        {4, PROP_TYPE_IPADDR, 16, "[120.120.120.120] 4"},
        {4, PROP_TYPE_IPADDR, 15, std::string("-1") + NOT_EXTRACTED},
        {3, PROP_TYPE_JSON, 0, address(3), PROP_TYPE_IPADDR},
        {0, PROP_TYPE_JSON, 0, R"({"f":""})"},
        {39, PROP_TYPE_JSON, 0, join({R"({"f":")", filled(39), "\"}"})},
        {40, PROP_TYPE_JSON, 0, join({R"({"f":")", filled(40), "\"}"})},
        {41, PROP_TYPE_JSON, 0, join({R"({"f":")", filled(41), "\"}"})},
        {60000, PROP_TYPE_JSON, 0, join({R"({"f":")", filled(60000), "\"}"})},
    };
    for (const length_row &row : rows) {
        lab_gateway_put(NAME, join({R"({"fill":"x","length":)", std::to_string(row.length), "}"}));
        read_target target(row.type, row.capacity, row.hint);
        EXPECT_EQ(read(&target), row.expected) << row.length << " in " << row.capacity;
    }
}

TEST_F(snmp_many, NumberThatDoesNotFitItsTextIsRefused)
{
    lab_gateway_put(NAME, NUMBER);
    read_target fits(PROP_TYPE_STRING, 3);
    EXPECT_EQ(read(&fits), "[-5] 2");
    read_target too_long(PROP_TYPE_STRING, 2);
    EXPECT_EQ(read(&too_long), join({"-1; ERROR not enough space in buffer: [2]", NOT_EXTRACTED}));
}

/* ---- one request ---- */

TEST_F(snmp_many, AllRecordsGoOutInOneRequestInTheirOrder)
{
    lab_gateway_put(NAME, R"("x")");
    lab_gateway_put("moduleRevision.0", R"("C")");
    lab_gateway_put("wmEcio.0", "-7");
    read_target name(PROP_TYPE_STRING), revision(PROP_TYPE_JSON), ecio(PROP_TYPE_INT);
    const bridge_snmp_read_prop props[] = {
        ecio.record("wmEcio.0"), name.record(NAME), revision.record("moduleRevision.0"), {}};
    lab_gateway_clear_log();
    const log_view from = log.from_here();
    EXPECT_EQ(bridge_snmp_get_properties(&ctx, props, 0), 0);
    EXPECT_EQ(from.lines(), (std::vector<std::string>{
                                "TRACE attempt to get property: [wmEcio.0]",
                                "TRACE attempt to get property: [moduleName.0]",
                                "TRACE attempt to get property: [moduleRevision.0]",
                            }));
    EXPECT_EQ(ecio.text(), "-7");
    EXPECT_EQ(name.text(), "[x] 1");
    EXPECT_EQ(revision.text(), R"({"f":"C"})");
    EXPECT_EQ(lab_gateway_requests(),
              std::vector<std::string>{R"(get ["wmEcio.0","moduleName.0","moduleRevision.0"])"});
    EXPECT_EQ(bridge_snmp_getnext_properties(&ctx, props, 0), -1);
    EXPECT_EQ(lab_gateway_requests().back(), R"(getnext ["wmEcio.0","moduleName.0","moduleRevision.0"])");
}

TEST_F(snmp_many, AnswersWithoutAValueAreTold)
{
    struct failure_row {
        const char *name;
        const char *fault; /* null: none */
        std::string expected;
        many_read operation = bridge_snmp_get_properties;
    };
    const failure_row rows[] = {
        {"moduleSerialNumber.0", nullptr,
         "-1; ERROR No Such Object available on this agent at OID: moduleSerialNumber.0"},
        {"moduleName.1", nullptr, "-1; DEBUG No Such Instance currently exists at OID: moduleName.1"},
        {"hmFaultDescriptionText.0", nullptr, END_OF_VIEW, bridge_snmp_getnext_properties},
        {NAME, R"({"exception":"noSuchObject"})",
         "-1; ERROR No Such Object available on this agent at OID: moduleName.0"},
        {NAME, R"({"exception":"noSuchInstance"})",
         "-1; DEBUG No Such Instance currently exists at OID: moduleName.0"},
        {NAME, R"({"exception":"endOfMibView"})", END_OF_VIEW},
        {NAME, R"({"error":"genErr"})", "-1; DEBUG error in packet: (genError) A general failure occured"},
        {"nothingOfTheMib.0", nullptr, "-1; ERROR cannot parse OID: nothingOfTheMib.0"},
    };
    lab_gateway_put(NAME, R"("x")");
    for (const failure_row &row : rows) {
        lab_gateway_do(R"({"clear_faults":true})");
        if (row.fault != nullptr)
            lab_gateway_fault(row.name, row.fault);
        read_target target(PROP_TYPE_JSON);
        EXPECT_EQ(read(&target, row.name, nullptr, row.operation), row.expected);
        EXPECT_EQ(target.text(), "{}");
    }
    for (const int status : {STAT_TIMEOUT, STAT_ERROR}) {
        const made_answer answer(status);
        read_target target(PROP_TYPE_JSON);
        EXPECT_EQ(read(&target), status == STAT_TIMEOUT ? "-1; ERROR no response from SNMP agent"
                                                        : "-1; ERROR synch request failed");
    }
}

TEST_F(snmp_many, NoRecordsAreAnEmptyRequest)
{
    const bridge_snmp_read_prop none[] = {{}};
    EXPECT_EQ(bridge_snmp_get_properties(&ctx, none, 0), 0);
    EXPECT_EQ(lab_gateway_requests(), std::vector<std::string>{"get []"});
}

TEST_F(snmp_many, NameThatDoesNotParseSendsNothing)
{
    read_target first(PROP_TYPE_INT), second(PROP_TYPE_INT);
    const bridge_snmp_read_prop props[] = {first.record("wmEcio.0"), second.record("nothingOfTheMib.0"), {}};
    EXPECT_EQ(bridge_snmp_get_properties(&ctx, props, 0), -1);
    EXPECT_EQ(lab_gateway_requests(), std::vector<std::string>{});
}

/* ---- records and variables side by side ---- */

/* Three records, the second of which meets the fault, and the targets afterwards. */
class snmp_walk : public snmp_many
{
  protected:
    snmp_walk()
    {
        lab_gateway_put("wmEcio.0", "-7");
        lab_gateway_put("wmIo.0", "-64");
        lab_gateway_put("wmSinr.0", "14");
    }

    std::string read_three()
    {
        read_target first(PROP_TYPE_INT), second(PROP_TYPE_INT), third(PROP_TYPE_INT);
        const bridge_snmp_read_prop props[] = {
            first.record("wmEcio.0"), second.record("wmIo.0"), third.record("wmSinr.0"), {}};
        const log_view from = log.from_here();
        const int result = bridge_snmp_get_properties(&ctx, props, 0);
        return outcome(result, "done", from) + "; " + first.text() + " " + second.text() + " " + third.text();
    }
};

TEST_F(snmp_walk, RecordsBeyondTheAnswerStayUnfilled)
{
    lab_gateway_fault("wmSinr.0", R"({"shorten":true})");
    EXPECT_EQ(read_three(), "done; -7 -64 untouched");
    EXPECT_TRUE(last_name(ctx).ends_with(".6.0"));
    lab_gateway_fault("wmIo.0", R"({"shorten":true})");
    EXPECT_EQ(read_three(), "done; -7 untouched untouched");
}

TEST_F(snmp_walk, FirstSurplusVariableFailsBehindTheFilledRecords)
{
    lab_gateway_fault("wmEcio.0", R"({"surplus":"wmEcio.0"})");
    EXPECT_EQ(read_three(), "-1; ERROR SNMP response list exceeds requested property count; -7 -64 14");
    EXPECT_EQ(read_three().substr(0, 2), "-1");
}

TEST_F(snmp_walk, WalkEndsAtTheFirstFailureAndRemembersTheVariableBefore)
{
    read_target whole(PROP_TYPE_INT);
    ASSERT_EQ(read(&whole, "wmEcio.0"), "-7");
    const std::string place = last_name(ctx);
    struct fault_row {
        const char *fault;
        const char *expected;
    };
    const fault_row rows[] = {
        {R"({"exception":"noSuchObject"})",
         "-1; ERROR No Such Object available on this agent at OID: wmIo.0; -7 untouched untouched"},
        {R"({"exception":"noSuchInstance"})",
         "-1; DEBUG No Such Instance currently exists at OID: wmIo.0; -7 untouched untouched"},
    };
    for (const fault_row &row : rows) {
        ctx.last_oid_len = 0;
        lab_gateway_fault("wmIo.0", row.fault);
        EXPECT_EQ(read_three(), row.expected);
        EXPECT_EQ(last_name(ctx), place);
    }
    lab_gateway_fault("wmIo.0", "null");
    lab_gateway_put("wmIo.0", R"({"type":"OCTET STRING","value":"x"})");
    ctx.last_oid_len = 0;
    EXPECT_EQ(read_three(), "-1; ERROR no conversion specified from ASN 0x4 to property 1; ERROR failed to "
                            "extract property: wmIo.0; -7 untouched untouched");
    EXPECT_EQ(last_name(ctx), place);
}

TEST_F(snmp_walk, FailureAtTheFirstVariableKeepsThePlace)
{
    ASSERT_EQ(read_three(), "done; -7 -64 14");
    const std::string place = last_name(ctx);
    lab_gateway_fault("wmEcio.0", R"({"exception":"noSuchObject"})");
    EXPECT_TRUE(read_three().starts_with("-1"));
    EXPECT_EQ(last_name(ctx), place);
}

/* The single reads go on where a read of many ended; a GETNEXT of many asks by its own names. */
TEST_F(snmp_walk, LastVariableOfManyIsWhereASingleReadGoesOn)
{
    read_target first(PROP_TYPE_INT);
    ASSERT_EQ(read(&first, "wmEcio.0"), "-7");
    long value = 0;
    EXPECT_EQ(bridge_snmp_get_property_int(&ctx, nullptr, &value, 0), 0);
    EXPECT_EQ(value, -64);
    read_target next(PROP_TYPE_INT);
    EXPECT_EQ(read(&next, "wmEcio.0", nullptr, bridge_snmp_getnext_properties), "-64");
    EXPECT_EQ(bridge_snmp_get_property_int(&ctx, nullptr, &value, 0), 0);
    EXPECT_EQ(value, 14);
}

/* ---- roots ---- */

TEST_F(snmp_walk, OnlyAStrictChildOfTheRootIsTaken)
{
    const auto outside = [](const char *root, const char *printed) {
        return std::string("-1; DEBUG SNMP value is not a child of given root:; DEBUG root: ") + root +
               ", returned value: SNV-GATEWAY-MIB::" + printed;
    };
    struct root_row {
        const char *name;
        const char *root;
        std::string expected;
    };
    const root_row rows[] = {
        {"wmEcio", "wmEcio", "-7"},
        {"wmEcio", "snvGateway", "-7"},
        {"wmEcio.0", "wmEcio", outside("wmEcio", "wmIo.0 = INTEGER: -64")},
        {"wmEcio", "wmEcio.0", outside("wmEcio.0", "wmEcio.0 = INTEGER: -7")},
        {"wmEcio", "wmEcio.0.1", outside("wmEcio.0.1", "wmEcio.0 = INTEGER: -7")},
        {"wmEcio", "nothingOfTheMib", "-1; ERROR cannot parse root OID: nothingOfTheMib"},
    };
    for (const root_row &row : rows) {
        read_target target(PROP_TYPE_INT);
        EXPECT_EQ(read(&target, row.name, row.root, bridge_snmp_getnext_properties), row.expected);
        EXPECT_EQ(target.text() == "untouched", row.expected.starts_with("-1;"));
    }
}

/* The library fills the whole buffer that it prints into, and leaves out the end of such a text. */
TEST_F(snmp_walk, AnswerOutsideItsRootIsPrintedAsFarAsThereIsRoom)
{
    static constexpr std::string_view BEFORE = "returned value: ";
    for (const size_t length : {100, 200, 220, 240, 256, 400}) {
        lab_gateway_put("wmIo.0",
                        join({R"({"type":"OCTET STRING","value":")", std::string(length, 'x'), "\"}"}));
        read_target target(PROP_TYPE_INT);
        const std::string all = read(&target, "wmEcio.0", "wmEcio", bridge_snmp_getnext_properties);
        const size_t at = all.find(BEFORE);
        ASSERT_NE(at, std::string::npos) << all;
        EXPECT_LE(all.size() - at - BEFORE.size(), 255U) << length;
    }
}

TEST_F(snmp_walk, AnswerOutsideItsRootKeepsThePlaceOfTheRecordBefore)
{
    read_target first(PROP_TYPE_INT), second(PROP_TYPE_INT);
    const bridge_snmp_read_prop props[] = {first.record("wmIo"), second.record("wmEcio.0", "wmEcio"), {}};
    EXPECT_EQ(bridge_snmp_getnext_properties(&ctx, props, 0), -1);
    EXPECT_EQ(first.text(), "-64");
    EXPECT_EQ(second.text(), "untouched");
    EXPECT_TRUE(last_name(ctx).ends_with(".6.0"));
    long value = 0;
    EXPECT_EQ(bridge_snmp_get_property_int(&ctx, nullptr, &value, 0), 0);
    EXPECT_EQ(value, 14);
}
