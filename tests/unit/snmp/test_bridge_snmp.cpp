/* Reads of one object. */
#include "converter/control/bridge_snmp.h"

#include "common/captured_stderr.h"
#include "snmp_fixture.h"
#include "snmp_outcomes.h"

#include <algorithm>

static constexpr char NAME[] = "moduleName.0";

/* One operation, its target of exactly `capacity` bytes and what became of it: the value and its length. */
using single_read = std::string (*)(converter_ctx *ctx, const char *name, size_t capacity, int *result);

static std::string read_int(converter_ctx *ctx, const char *name, size_t, int *result)
{
    long value = 4711;
    *result = bridge_snmp_get_property_int(ctx, name, &value, 0);
    return std::to_string(value);
}

static std::string read_double(converter_ctx *ctx, const char *name, size_t, int *result)
{
    double value = 4711;
    *result = bridge_snmp_get_property_double(ctx, name, &value, 0);
    char text[64];
    snprintf(text, sizeof(text), "%.17g", value);
    return text;
}

template <typename Byte, int (*Read)(converter_ctx *, const char *, Byte *, size_t *, uint32_t)>
static std::string read_bytes(converter_ctx *ctx, const char *name, size_t capacity, int *result)
{
    const auto buffer = std::make_unique<Byte[]>(capacity);
    memset(buffer.get(), '~', capacity);
    size_t size = capacity;
    *result = Read(ctx, name, buffer.get(), &size, 0);
    const auto *text = reinterpret_cast<const char *>(buffer.get());
    EXPECT_LE(size, capacity);
    return join({"[", std::string_view(text, size), "]"});
}

static constexpr single_read INTEGER = read_int;
static constexpr single_read DOUBLE = read_double;
static constexpr single_read TEXT = read_bytes<char, bridge_snmp_get_property_str>;
static constexpr single_read DATA = read_bytes<uint8_t, bridge_snmp_get_property_data>;
static constexpr single_read ADDRESS = read_bytes<char, bridge_snmp_get_property_ipaddr>;
static constexpr single_read PRETTY = read_bytes<char, bridge_snmp_get_property_pretty>;
static constexpr single_read EVERY_READ[] = {INTEGER, DOUBLE, TEXT, DATA, ADDRESS, PRETTY};

class snmp_single : public snmp_client
{
  protected:
    std::string read(single_read operation, const char *name, size_t capacity = 64)
    {
        const log_view from = log.from_here();
        int result = 0;
        const std::string text = operation(&ctx, name, capacity, &result);
        return outcome(result, text, from);
    }
};

struct single_row {
    const char *value;
    single_read operation;
    std::string expected;
    size_t capacity = 64;
};

static std::string filled(size_t length)
{
    return std::string(length, 'x');
}

TEST_F(snmp_single, EveryTypeOfTheWireByEveryRead)
{
    static constexpr char COUNTER[] = R"({"type":"Counter32","value":4294967295})";
    static constexpr char GAUGE[] = R"({"type":"Gauge32","value":7})";
    static constexpr char TICKS[] = R"({"type":"TimeTicks","value":100})";
    static constexpr char UNSIGNED[] = R"({"type":"UInteger32","value":8})";
    static constexpr char NUMBER[] = R"({"type":"INTEGER","value":-5})";
    static constexpr char BITS[] = R"({"type":"BIT STRING","value":{"hex":"004142"}})";
    static constexpr char ADDR[] = R"({"type":"IpAddress","value":"65.66.67.68"})";
    static constexpr char BIG[] = R"({"type":"Counter64","value":9})";
    static constexpr char FLOAT[] = R"({"type":"Float","value":1.5})";
    static constexpr char NO_INTEGER[] = "-1; ERROR returned value is not integer";
    const std::string highest = std::to_string(static_cast<long>(UINT32_MAX));
    const std::string no_float = "-1; ERROR returned value is not an float: ";
    const std::string no_text = "-1; ERROR property of wrong type fetched. Should be OCTET STRING, was: ";
    const std::string no_bytes =
        join({"[", std::string(64, '~'), "]; ERROR property of wrong type fetched: "});
    const std::string no_address = "[::]; ERROR property of wrong type fetched: ";
    const single_row rows[] = {
        {COUNTER, INTEGER, highest},
        {GAUGE, INTEGER, "7"},
        {TICKS, INTEGER, "100"},
        {UNSIGNED, INTEGER, "8"},
        {NUMBER, INTEGER, "-5"},
        {R"("5")", INTEGER, NO_INTEGER},
        {BITS, INTEGER, NO_INTEGER},
        {ADDR, INTEGER, NO_INTEGER},
        {BIG, INTEGER, NO_INTEGER},
        {FLOAT, INTEGER, NO_INTEGER},
        {NUMBER, DOUBLE, no_float + "2"},
        {R"("5")", DOUBLE, no_float + "4"},
        {GAUGE, DOUBLE, no_float + "66"},
        {BIG, DOUBLE, no_float + "70"},
        {FLOAT, DOUBLE, "1.5"},
        {R"({"type":"Double","value":0.1})", DOUBLE, "0.10000000000000001"},
        {R"("text")", TEXT, "[text]"},
        {NUMBER, TEXT, no_text + "2"},
        {BITS, TEXT, no_text + "3"},
        {ADDR, TEXT, no_text + "64"},
        {COUNTER, TEXT, no_text + "65"},
        {R"("text")", DATA, "[text]"},
        {BITS, DATA, std::string("[\0AB]", 5)},
        {ADDR, DATA, "[ABCD]"},
        {NUMBER, DATA, no_bytes + "2"},
        {COUNTER, DATA, no_bytes + "65"},
        {GAUGE, DATA, no_bytes + "66"},
        {TICKS, DATA, no_bytes + "67"},
        {UNSIGNED, DATA, no_bytes + "71"},
        {BIG, DATA, no_bytes + "70"},
        {ADDR, ADDRESS, "[65.66.67.68]"},
        {R"({"hex":"c0000201"})", ADDRESS, "[192.0.2.1]"},
        {R"({"hex":"20010db8000000000000000000000001"})", ADDRESS, "[2001:db8::1]"},
        {NUMBER, ADDRESS, no_address + "2"},
    };
    for (const single_row &row : rows) {
        lab_gateway_put(NAME, row.value);
        EXPECT_EQ(read(row.operation, NAME, row.capacity), row.expected) << row.value;
    }
}

TEST_F(snmp_single, LengthsAtTheirLimits)
{
    const std::string too_small = "-1; ERROR buffer with size [10] is too small for requested property";
    const std::string no_binary = "; ERROR failed to get binary form of IP address";
    const auto text_of = [](size_t length) {
        return join({R"({"fill":"x","length":)", std::to_string(length), "}"});
    };
    struct length_row {
        size_t length;
        single_read operation;
        size_t capacity;
        std::string expected;
    };
    const length_row rows[] = {
        {0, TEXT, 10, "[]"},
        {0, TEXT, 1, "[]"},
        {9, TEXT, 10, join({"[", filled(9), "]"})},
        {10, TEXT, 10, too_small},
        {11, TEXT, 10, too_small},
        {39, TEXT, 64, join({"[", filled(39), "]"})},
        {40, TEXT, 64, join({"[", filled(40), "]"})},
        {41, TEXT, 64, join({"[", filled(41), "]"})},
        {41, TEXT, 42, join({"[", filled(41), "]"})},
        {60000, TEXT, 60001, join({"[", filled(60000), "]"})},
        {0, DATA, 10, "[]"},
        {9, DATA, 10, join({"[", filled(9), "]"})},
        {10, DATA, 10, join({"[", filled(10), "]"})},
        {11, DATA, 10, too_small},
        {39, DATA, 39, join({"[", filled(39), "]"})},
        {40, DATA, 40, join({"[", filled(40), "]"})},
        {41, DATA, 41, join({"[", filled(41), "]"})},
        {0, ADDRESS, 46, "-1; ERROR invalid data size for IP address: [0]"},
        {3, ADDRESS, 46, "-1; ERROR invalid data size for IP address: [3]"},
        {5, ADDRESS, 46, "-1; ERROR invalid data size for IP address: [5]"},
        {15, ADDRESS, 46, "-1; ERROR invalid data size for IP address: [15]"},
        {17, ADDRESS, 46, "-1; ERROR buffer with size [16] is too small for requested property" + no_binary},
    };
    for (const length_row &row : rows) {
        lab_gateway_put(NAME, text_of(row.length));
        EXPECT_EQ(read(row.operation, NAME, row.capacity), row.expected)
            << row.length << " in " << row.capacity;
    }
}

TEST_F(snmp_single, PrettyValueIsAsTheLibraryPrintsIt)
{
    struct pretty_row {
        const char *name;
        const char *value;
        const char *expected;
        size_t capacity = 64;
    };
    const pretty_row rows[] = {
        {NAME, R"("text")", R"([STRING: "text"])"},
        {NAME, R"("text")", "-1; ERROR cannot deserialize OID value", 8},
        {NAME, R"({"hex":"00ff"})", "[Hex-STRING: 00 FF ]"},
        {"wmEcio.0", "-7", "[INTEGER: -7]"},
        {"wmIpAddress.0", R"("192.0.2.1")", "[IpAddress: 192.0.2.1]"},
        {"wmMaxTxRate.0", "50000", "[Gauge32: 50000]"},
        {"wmBytesReceived.0", "4294967295", "[Counter32: 4294967295]"},
        {"wmEcio.0", R"("text")", R"([Wrong Type (should be INTEGER): STRING: "text"])"},
    };
    for (const pretty_row &row : rows) {
        const std::string_view value = row.value;
        const bool is_text = std::string_view(row.name) == "wmEcio.0" && value.starts_with('"');
        lab_gateway_put(row.name, is_text ? join({R"({"type":"OCTET STRING","value":)", value, "}"})
                                          : std::string(value));
        EXPECT_EQ(read(PRETTY, row.name, row.capacity), row.expected) << value;
    }
}

TEST_F(snmp_single, TextIsTerminatedBehindItsLengthAndDataIsNot)
{
    lab_gateway_put(NAME, R"({"hex":"610062"})");
    char buffer[6] = "~~~~~";
    size_t size = sizeof(buffer);
    EXPECT_EQ(bridge_snmp_get_property_str(&ctx, NAME, buffer, &size, 0), 0);
    EXPECT_EQ(hex_of(buffer, sizeof(buffer)), "610062007e00");
    EXPECT_EQ(size, 3U);
    uint8_t data[6] = "~~~~~";
    size = sizeof(data);
    EXPECT_EQ(bridge_snmp_get_property_data(&ctx, NAME, data, &size, 0), 0);
    EXPECT_EQ(hex_of(reinterpret_cast<char *>(data), sizeof(data)), "6100627e7e00");
    EXPECT_EQ(size, 3U);
}

TEST_F(snmp_single, VariablesThatDoNotComeFromTheWire)
{
    const auto bytes_of = [](auto value) {
        return std::string(reinterpret_cast<const char *>(&value), sizeof(value));
    };
    const std::string ipv6("\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\x01", 16);
    struct made_row {
        uint8_t type;
        std::string bytes;
        single_read operation;
        const char *expected;
    };
    const made_row rows[] = {
        {0x48, bytes_of(0.1F), DOUBLE, "0.10000000149011612"},
        {0x49, bytes_of(0.1), DOUBLE, "0.10000000000000001"},
        {0x10, "ab", DATA, "[ab]"},
        {0x10, ipv6, ADDRESS, "[2001:db8::1]"},
        {0x40, ipv6, ADDRESS, "[2001:db8::1]"},
        {0x10, "ab", TEXT, "-1; ERROR property of wrong type fetched. Should be OCTET STRING, was: 16"},
    };
    for (const made_row &row : rows) {
        const made_answer answer(row.type, row.bytes);
        EXPECT_EQ(read(row.operation, NAME), row.expected) << static_cast<unsigned>(row.type);
    }
}

TEST_F(snmp_single, SuccessIsTracedWithTheValue)
{
    const std::string asked = "TRACE attempt to get property: [moduleName.0]";
    lab_gateway_put(NAME, R"({"type":"INTEGER","value":-5})");
    const std::vector<std::string> traced = {asked, "TRACE successfully got value: -5"};
    log_view from = log.from_here();
    EXPECT_EQ(read(INTEGER, NAME), "-5");
    EXPECT_EQ(from.lines(), traced);
    lab_gateway_put(NAME, R"("x")");
    from = log.from_here();
    EXPECT_EQ(read(PRETTY, NAME), R"([STRING: "x"])");
    EXPECT_EQ(from.lines(),
              (std::vector<std::string>{asked, R"(TRACE successfully got value: STRING: "x")"}));

    const made_answer answer(0x49, std::string(8, '\0'));
    from = log.from_here();
    EXPECT_EQ(read(DOUBLE, NAME), "0");
    EXPECT_EQ(from.lines(), (std::vector<std::string>{asked, "TRACE successfully got value: 0.000000"}));
}

/* ---- answers without a value ---- */

TEST_F(snmp_single, AnswersWithoutAValueAreToldByEveryRead)
{
    struct failure_row {
        const char *name;
        const char *fault; /* null: none */
        std::string expected;
    };
    const failure_row rows[] = {
        {"moduleSerialNumber.0", nullptr, "-1; ERROR No Such Object available on this agent at this OID"},
        {"moduleName.1", nullptr, "-1; DEBUG No Such Instance currently exists at this OID"},
        {NAME, R"({"exception":"noSuchObject"})",
         "-1; ERROR No Such Object available on this agent at this OID"},
        {NAME, R"({"exception":"noSuchInstance"})",
         "-1; DEBUG No Such Instance currently exists at this OID"},
        {NAME, R"({"exception":"endOfMibView"})",
         "-1; ERROR No More Variables left in this MIB View (It is past the end of the MIB tree)"},
        {NAME, R"({"error":"genErr"})", "-1; DEBUG error in packet: (genError) A general failure occured"},
        {NAME, R"({"error":"tooBig"})",
         "-1; DEBUG error in packet: (tooBig) Response message would have been too large."},
        {NAME, R"({"error":"authorizationError"})",
         "-1; DEBUG error in packet: authorizationError (access denied to that object)"},
        {"nothingOfTheMib.0", nullptr, "-1; ERROR cannot parse OID: nothingOfTheMib.0"},
        {"", nullptr, "-1; ERROR cannot parse OID: "},
    };
    lab_gateway_put(NAME, R"("x")");
    for (const failure_row &row : rows) {
        lab_gateway_do(R"({"clear_faults":true})");
        if (row.fault != nullptr)
            lab_gateway_fault(row.name, row.fault);
        for (const single_read operation : EVERY_READ) {
            const bool is_address = operation == ADDRESS;
            EXPECT_EQ(read(operation, row.name),
                      row.expected + (is_address ? "; ERROR failed to get binary form of IP address" : ""))
                << row.name;
        }
    }
}

TEST_F(snmp_single, StatusesOfTheLibraryAreTold)
{
    struct status_row {
        int status;
        const char *expected;
    };
    const status_row rows[] = {
        {STAT_TIMEOUT, "-1; ERROR no response from SNMP agent"},
        {STAT_ERROR, "-1; ERROR synch request failed"},
        {7, "-1; ERROR synch request failed"},
    };
    for (const status_row &row : rows) {
        const made_answer answer(row.status);
        EXPECT_EQ(read(INTEGER, NAME), row.expected) << row.status;
    }
}

/* The context is not left locked by any of these: another thread reads afterwards. */
TEST_F(snmp_single, FailedReadsLeaveTheContextFree)
{
    lab_gateway_put(NAME, R"("x")");
    EXPECT_TRUE(read(TEXT, "nothingOfTheMib.0").starts_with("-1"));
    EXPECT_TRUE(read(TEXT, "moduleName.1").starts_with("-1"));
    EXPECT_TRUE(read(INTEGER, NAME).starts_with("-1"));
    EXPECT_TRUE(read(TEXT, NAME, 1).starts_with("-1"));
    std::thread other([&] {
        EXPECT_EQ(pthread_mutex_trylock(&ctx.mutex), 0);
        pthread_mutex_unlock(&ctx.mutex);
    });
    other.join();
}

/* ---- the next of the last ---- */

TEST_F(snmp_single, ReadWithoutANameGoesOnBehindTheLastVariable)
{
    lab_gateway_put("wmPrlVersion.0", "1");
    lab_gateway_put("wmPrlPreference.0", "2");
    lab_gateway_put("wmImsi.0", R"("imsi")");
    EXPECT_EQ(read(INTEGER, "wmPrlVersion.0"), "1");
    lab_gateway_clear_log();
    const log_view from = log.from_here();
    EXPECT_EQ(read(INTEGER, nullptr), "2");
    EXPECT_EQ(read(TEXT, nullptr), "[imsi]");
    EXPECT_EQ(lab_gateway_requests(), (std::vector<std::string>{R"(getnext ["wmPrlVersion.0"])",
                                                                R"(getnext ["wmPrlPreference.0"])"}));
    EXPECT_EQ(from.count("TRACE using GetNext method"), 2);
    EXPECT_FALSE(from.has("TRACE attempt to get property: [wmPrlPreference.0]"));
}

/* The place of a value that its reader cannot take is remembered all the same. */
TEST_F(snmp_single, ValueOfAnotherTypeIsPassed)
{
    lab_gateway_put("wmPrlVersion.0", "1");
    lab_gateway_put("wmPrlPreference.0", "2");
    EXPECT_TRUE(read(TEXT, "wmPrlVersion.0").starts_with("-1"));
    EXPECT_EQ(read(INTEGER, nullptr), "2");
}

TEST_F(snmp_single, FailedReadKeepsThePlace)
{
    lab_gateway_put("wmPrlVersion.0", "1");
    lab_gateway_put("wmPrlPreference.0", "2");
    EXPECT_EQ(read(INTEGER, "wmPrlVersion.0"), "1");
    const std::string place = last_name(ctx);
    for (const char *name : {"wmPrlVersion.1", "nothingOfTheMib.0"}) {
        EXPECT_TRUE(read(INTEGER, name).starts_with("-1"));
        EXPECT_EQ(last_name(ctx), place);
    }
    EXPECT_EQ(read(INTEGER, nullptr), "2");
}

TEST_F(snmp_single, NothingFollowsTheEndOfTheTree)
{
    lab_gateway_put("hmFaultDescriptionText.0", R"("x")");
    EXPECT_EQ(read(TEXT, "hmFaultDescriptionText.0"), "[x]");
    EXPECT_EQ(read(TEXT, nullptr),
              "-1; ERROR No More Variables left in this MIB View (It is past the end of the MIB tree)");
}

TEST_F(snmp_single, LastNameOfMoreThan32SubIdentifiersAborts)
{
    lab_gateway_put("wmPrlVersion.0", "1");
    EXPECT_EQ(read(INTEGER, "wmPrlVersion.0"), "1");
    std::fill(ctx.last_oid + 6, ctx.last_oid + MAX_OID_LEN, 1); /* somewhere before it */
    ctx.last_oid_len = 32;
    EXPECT_EQ(read(INTEGER, nullptr), "1");
    ctx.last_oid_len = 33;
    EXPECT_ASSERTION(read(INTEGER, nullptr), "ctx->last_oid_len * sizeof(oid) <= *oid_len");
}

TEST_F(snmp_single, NameThatDoesNotFitTheContextAborts)
{
    made_answer answer(0x02, std::string(sizeof(long), '\0'));
    answer.name_length = MAX_OID_LEN;
    EXPECT_EQ(read(INTEGER, NAME), "0");
    answer.name_length = MAX_OID_LEN + 1;
    EXPECT_ASSERTION(read(INTEGER, NAME), "ctx->last_oid_len * sizeof(oid) <= sizeof(ctx->last_oid)");
}
