/* The two tables of conversions, with variables and requests made by the test: also those of types that the
 * library never takes from the wire. */
#include "converter/control/bridge_snmp_convert.h"

#include "common/captured_stderr.h"
#include "snmp_fixture.h"
#include "snmp_outcomes.h"

#include <bit>
#include <cstring>
#include <set>

static const std::string IPV4("\xc0\x00\x02\x01", 4);
static const std::string IPV6("\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\x01", 16);

template <typename T> static std::string bytes_of(T value)
{
    return {reinterpret_cast<const char *>(&value), sizeof(value)};
}

/* As the library keeps it: under 40 bytes inside the variable. */
class made_variable
{
  public:
    made_variable(uint8_t type, std::string_view bytes) : bytes_(bytes)
    {
        variable_.type = type;
        variable_.val_len = bytes.size();
        variable_.val.string = reinterpret_cast<u_char *>(bytes_.data());
        if (bytes.size() < sizeof(variable_.buf)) {
            memcpy(variable_.buf, bytes.data(), bytes.size());
            variable_.val.string = variable_.buf;
        }
    }
    made_variable(const made_variable &) = delete;
    made_variable &operator=(const made_variable &) = delete;

    const netsnmp_variable_list *get() const
    {
        return &variable_;
    }

  private:
    std::string bytes_;
    netsnmp_variable_list variable_{};
};

class snmp_convert : public testing::Test
{
  protected:
    std::string read(const made_variable &variable, read_target *target)
    {
        const log_view from = log.from_here();
        const bridge_snmp_read_prop prop = target->record("moduleName.0");
        const int result = bridge_snmp_convert_read(variable.get(), &prop);
        return outcome(result, target->text(), from);
    }

    captured_log log;
};

TEST_F(snmp_convert, ExactlyThePairsOfTheTableConvert)
{
    const std::set<int> numbers = {0x41, 0x42, 0x43, 0x47, 0x02};
    const std::set<int> bytes = {0x03, 0x04, 0x10, 0x40};
    const std::set<int> floats = {0x48, 0x49};
    const auto converts = [&](int asn, int type) {
        switch (type) {
        case PROP_TYPE_JSON:
            return numbers.contains(asn) || bytes.contains(asn) || floats.contains(asn);
        case PROP_TYPE_BOOL:
            return asn == 0x47 || asn == 0x02;
        case PROP_TYPE_INT:
            return numbers.contains(asn);
        case PROP_TYPE_STRING:
            return numbers.contains(asn) || bytes.contains(asn);
        case PROP_TYPE_IPADDR:
        case PROP_TYPE_DATA:
            return bytes.contains(asn);
        case PROP_TYPE_DOUBLE:
            return floats.contains(asn);
        default:
            return false;
        }
    };
    int pairs = 0;
    for (int asn = 0; asn < 256; asn++) {
        const bool is_bytes = bytes.contains(asn);
        const made_variable variable(static_cast<uint8_t>(asn), is_bytes ? IPV4 : std::string(8, '\0'));
        for (uint32_t type = 0; type <= 8; type++) {
            read_target target(static_cast<bridge_prop_type>(type));
            char complaint[96];
            snprintf(complaint, sizeof(complaint),
                     "-1; ERROR no conversion specified from ASN %#x to property %u",
                     static_cast<unsigned>(asn), type);
            const bool expected = converts(asn, static_cast<int>(type));
            const std::string result = read(variable, &target);
            EXPECT_EQ(result == complaint, !expected) << complaint << ": " << result;
            EXPECT_EQ(result.starts_with("-1"), !expected) << complaint << ": " << result;
            pairs += expected;
        }
    }
    EXPECT_EQ(pairs, 37); /* one of the 38 rows repeats another */
}

struct made_row {
    uint8_t asn;
    std::string bytes;
    bridge_prop_type type;
    size_t capacity;
    const char *expected;
    bridge_prop_type hint = {};
};

TEST_F(snmp_convert, VariablesThatDoNotComeFromTheWire)
{
    const made_row rows[] = {
        {0x48, bytes_of(-1.5F), PROP_TYPE_DOUBLE, 8, "-1.5"},
        {0x48, bytes_of(0.1F), PROP_TYPE_DOUBLE, 8, "0.10000000149011612"},
        {0x49, bytes_of(0.1), PROP_TYPE_DOUBLE, 8, "0.10000000000000001"},
        {0x48, bytes_of(-1.5F), PROP_TYPE_JSON, 0, R"({"f":-1.5})"},
        {0x49, bytes_of(2.25), PROP_TYPE_JSON, 0, R"({"f":2.25})"},
        {0x10, "text", PROP_TYPE_STRING, 5, "[text] 4"},
        {0x10, "text", PROP_TYPE_STRING, 4,
         "-1; ERROR buffer with size [4] is too small for requested property"},
        {0x10, "text", PROP_TYPE_DATA, 4, "74657874 4"},
        {0x10, "text", PROP_TYPE_DATA, 3,
         "-1; ERROR buffer with size [4] is too small for requested property"},
        {0x10, "text", PROP_TYPE_JSON, 0, R"({"f":"text"})"},
        {0x10, IPV4, PROP_TYPE_IPADDR, 46, "[192.0.2.1] 4"},
        {0x10, IPV6, PROP_TYPE_IPADDR, 46, "[2001:db8::1] 16"},
        {0x10, IPV6, PROP_TYPE_JSON, 0, R"({"f":"2001:db8::1"})", PROP_TYPE_IPADDR},
        {0x40, IPV6, PROP_TYPE_IPADDR, 46, "[2001:db8::1] 16"},
        {0x40, IPV6, PROP_TYPE_STRING, 46, "[2001:db8::1] 16"},
        {0x40, IPV6, PROP_TYPE_STRING, 11, "-1"},
        {0x40, IPV6, PROP_TYPE_DATA, 16, "20010db8000000000000000000000001 16"},
        {0x40, IPV6, PROP_TYPE_JSON, 0, R"({"f":"2001:db8::1"})", PROP_TYPE_IPADDR},
        {0x40, "abc", PROP_TYPE_IPADDR, 46, "-1; ERROR invalid data size for IP address: [3]"},
        {0x40, "abc", PROP_TYPE_STRING, 46, "-1; ERROR invalid data size for IP address: [3]"},
        {0x03, "abc", PROP_TYPE_STRING, 4, "[abc] 3"},
        {0x03, std::string(39, 'x'), PROP_TYPE_STRING, 40, "[xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx] 39"},
        {0x03, std::string(40, 'x'), PROP_TYPE_STRING, 1, "[] 0"},
    };
    for (const made_row &row : rows) {
        const made_variable variable(row.asn, row.bytes);
        read_target target(row.type, row.capacity, row.hint);
        EXPECT_EQ(read(variable, &target), row.expected)
            << static_cast<unsigned>(row.asn) << " to " << static_cast<unsigned>(row.type);
    }
}

TEST_F(snmp_convert, OnlyTheLowerThirtyTwoBitsOfANumberCount)
{
    const made_variable variable(0x02, bytes_of(static_cast<long>(0x180000001LL)));
    read_target number(PROP_TYPE_INT);
    EXPECT_EQ(read(variable, &number), "-2147483647");
    const made_variable above(0x02, bytes_of(static_cast<long>(0x100000000LL)));
    read_target truth(PROP_TYPE_BOOL);
    EXPECT_EQ(read(above, &truth), "false");
}

TEST_F(snmp_convert, LengthIsGivenBackOnlyWhereAskedFor)
{
    for (const bridge_prop_type type : {PROP_TYPE_STRING, PROP_TYPE_IPADDR}) {
        for (const int asn : {0x02, 0x04, 0x40}) {
            if (asn == 0x02 && type == PROP_TYPE_IPADDR)
                continue;
            const made_variable variable(static_cast<uint8_t>(asn),
                                         asn == 0x02 ? bytes_of(7L) : std::string("\x0a\x01\x02\x03"));
            read_target target(type);
            bridge_snmp_read_prop prop = target.record("moduleName.0");
            prop.buf_out_sz = nullptr;
            EXPECT_EQ(bridge_snmp_convert_read(variable.get(), &prop), 0);
            EXPECT_NE(target.text(), "untouched");
        }
    }
}

TEST_F(snmp_convert, TargetsThatCannotTakeAValueAbort)
{
    const made_variable variable(0x04, "abc");
    read_target data(PROP_TYPE_DATA);
    bridge_snmp_read_prop prop = data.record("moduleName.0");
    prop.buf_out_sz = nullptr;
    EXPECT_ASSERTION(bridge_snmp_convert_read(variable.get(), &prop), "prop->buf_out_sz");

    read_target json(PROP_TYPE_JSON);
    prop = json.record("moduleName.0");
    prop.buf = nullptr;
    EXPECT_ASSERTION(bridge_snmp_convert_read(variable.get(), &prop), "root");
    prop = json.record("moduleName.0");
    prop.field_name = nullptr;
    EXPECT_ASSERTION(bridge_snmp_convert_read(variable.get(), &prop), "field_name");
}

TEST_F(snmp_convert, FieldWithoutMemoryFails)
{
    const made_variable variable(0x02, bytes_of(7L));
    read_target target(PROP_TYPE_JSON);
    const failing_call call("json_object_new_int64");
    EXPECT_EQ(read(variable, &target), "-1; ERROR failed to allocate JSON field");
    EXPECT_EQ(target.text(), "{}");
}

/* ---- writing ---- */

/* Never sent. */
using pdu_owned = std::unique_ptr<netsnmp_pdu, bridge_release<snmp_free_pdu>>;

/* The variables as "4:text" or "2:5". */
static std::string written(const netsnmp_pdu *pdu)
{
    std::string all;
    for (const netsnmp_variable_list *var = pdu->variables; var != nullptr; var = var->next_variable) {
        const bool is_text = var->type == ASN_OCTET_STR;
        all += std::to_string(var->type) + ":";
        all += is_text ? std::string(reinterpret_cast<const char *>(var->val.string), var->val_len)
                       : std::to_string(*var->val.integer);
    }
    return all;
}

struct write_row {
    const char *object;
    const char *json;
    uint32_t hint;
    const char *expected;
    bool optional = false;
};

TEST_F(snmp_convert, FieldsOfJsonGoOutAsTheirTexts)
{
    // clang-format off
    const write_row rows[] = {
        /* object                field                  hint  expected */
        {"utilPingCount.0",      R"({"f":5})",          1, "2:5"},
        {"utilPingCount.0",      R"({"f":-5})",         4, "2:-5"},
        {"utilPingCount.0",      R"({"f":"17"})",       1, "2:17"},
        {"utilPingCount.0",      R"({"f":5})",          3, "2:5"},
        {"utilPingCount.0",      R"({"f":5})",          5, "2:5"},
        {"utilPingDestination.0", R"({"f":5})",         1, "4:5"},
        {"utilPingDestination.0", R"({"f":2.5})",       3, "4:2.5"},
        {"utilPingDestination.0", R"({"f":"a b"})",     4, "4:a b"},
        {"utilPingDestination.0", R"({"f":"a b"})",     5, "4:a b"},
        {"utilPingDestination.0", R"({"f":""})",        4, "4:"},
        {"utilPingDestination.0", R"({"f":true})",      4, "4:true"},
        {"utilPingCount.0",      R"({"f":true})",       2, "2:1"},
        {"utilPingCount.0",      R"({"f":false})",      2, "2:0"},
        {"utilPingCount.0",      R"({"f":7})",          2, "2:1"},
        {"utilPingCount.0",      R"({"f":0})",          2, "2:0"},
        {"utilPingCount.0",      R"({"f":0.5})",        2, "2:1"},
        {"utilPingCount.0",      R"({"f":"0"})",        2, "2:1"},
        {"utilPingCount.0",      R"({"f":""})",         2, "2:0"},
        {"utilPingDestination.0", R"({"f":true})",      2, "4:1"},
        {"utilPingDestination.0", R"({"f":null})",      4, "4:"},
        {"utilPingDestination.0", R"({"f":null})",      9, "4:"},
        {"utilPingDestination.0", R"({"f":null})",      4, "", true},
        {"utilPingDestination.0", R"({"g":1})",         4, "", true},
        {"utilPingDestination.0", R"({"g":1})",         4, "-1; ERROR no such field: f"},
        {"utilPingDestination.0", R"({"f":{}})",        4, "-1; ERROR incorrect field type: 0x4"},
        {"utilPingDestination.0", R"({"f":[1]})",       9, "-1; ERROR incorrect field type: 0x5"},
        {"utilPingDestination.0", R"({"f":[1]})",       4, "-1; ERROR incorrect field type: 0x5", true},
        {"utilPingDestination.0", R"({"f":"x"})",       0, "-1; ERROR unsupported hint: 0"},
        {"utilPingDestination.0", R"({"f":"x"})",       6, "-1; ERROR unsupported hint: 6"},
        {"utilPingDestination.0", R"({"f":"x"})",       7, "-1; ERROR unsupported hint: 7"},
        {"utilPingDestination.0", R"({"f":"x"})",       8, "-1; ERROR unsupported hint: 8"},
        {"nothingOfTheMib.0",    R"({"f":"x"})",        4, "-1; ERROR cannot parse OID"},
    };
    // clang-format on
    for (const write_row &row : rows) {
        const json_owned json(json_tokener_parse(row.json));
        const pdu_owned pdu(snmp_pdu_create(SNMP_MSG_SET));
        const bridge_snmp_write_prop prop = {.oid = row.object,
                                             .field_name = "f",
                                             .optional = row.optional,
                                             .value = json.get(),
                                             .type = PROP_TYPE_JSON,
                                             .hint = static_cast<bridge_prop_type>(row.hint)};
        const log_view from = log.from_here();
        const int result = bridge_snmp_convert_write(pdu.get(), &prop);
        EXPECT_EQ(outcome(result, written(pdu.get()), from), row.expected) << row.object << " " << row.json;
        const bool skipped = row.optional && result >= 0;
        EXPECT_EQ(from.has("TRACE skipping missing optional field: f"), skipped) << row.json;
        EXPECT_TRUE(from.has(join({"TRACE attempt to set property: [", row.object, "]"})));
    }
}

TEST_F(snmp_convert, NativeValuesGoOutAsTheirTexts)
{
    const int64_t five = 5;
    const int64_t below = -5;
    const int64_t lowest = INT32_MIN;
    const bool yes = true;
    const bool no = false;
    struct native_row {
        const char *object;
        bridge_prop_type type;
        const void *value;
        const char *expected;
    };
    const native_row rows[] = {
        {"utilPingCount.0", PROP_TYPE_INT, &five, "2:5"},
        {"utilPingCount.0", PROP_TYPE_INT, &below, "2:-5"},
        {"utilPingCount.0", PROP_TYPE_INT, &lowest, "2:-2147483648"},
        {"utilPingDestination.0", PROP_TYPE_INT, &five, "4:5"},
        {"utilPingCount.0", PROP_TYPE_BOOL, &yes, "2:1"},
        {"utilPingCount.0", PROP_TYPE_BOOL, &no, "2:0"},
        {"utilPingDestination.0", PROP_TYPE_BOOL, &yes, "4:1"},
        {"utilPingDestination.0", PROP_TYPE_STRING, "some text", "4:some text"},
        {"utilPingDestination.0", PROP_TYPE_DATA, "some text", "4:some text"},
        {"utilPingDestination.0", PROP_TYPE_STRING, "", "4:"},
        {"utilPingCount.0", PROP_TYPE_STRING, "12", "2:12"},
        {"nothingOfTheMib.0", PROP_TYPE_INT, &five, "-1; ERROR cannot parse OID"},
        {"nothingOfTheMib.0", static_cast<bridge_prop_type>(8), &five, "-1; ERROR unsupported conversion: 8"},
        {"utilPingCount.0", static_cast<bridge_prop_type>(UINT32_MAX), &five,
         "-1; ERROR unsupported conversion: -1"},
    };
    for (const native_row &row : rows) {
        const pdu_owned pdu(snmp_pdu_create(SNMP_MSG_SET));
        const bridge_snmp_write_prop prop = {.oid = row.object, .value = row.value, .type = row.type};
        const log_view from = log.from_here();
        const int result = bridge_snmp_convert_write(pdu.get(), &prop);
        EXPECT_EQ(outcome(result, written(pdu.get()), from), row.expected) << row.object;
        EXPECT_TRUE(from.has(join({"TRACE attempt to set property: [", row.object, "]"})));
    }
}

/* The library refuses a value for an object of another kind; its own words follow the complaint. */
TEST_F(snmp_convert, ValueThatTheMibRefusesIsToldWithTheLibrarysReason)
{
    static constexpr char NO_INTEGER[] = "ERROR cannot add integer to PDU: ";
    static constexpr char NO_BOOLEAN[] = "ERROR cannot add boolean var to PDU, error: ";
    static constexpr char NO_DATA[] = "ERROR cannot add data to PDU, error: ";
    const int64_t below = -1;
    const bool yes = true;
    const json_owned json(json_tokener_parse(R"({"f":"many","n":null})"));
    struct refused_row {
        const char *object;
        const char *field;
        bridge_prop_type type;
        const void *value;
        const char *complaint;
        const char *reason;
    };
    const refused_row rows[] = {
        {"networkPingIp.0", nullptr, PROP_TYPE_INT, &below, NO_INTEGER, "-1 error: Bad value notation (-1)"},
        {"swVerTable.0", nullptr, PROP_TYPE_BOOL, &yes, NO_BOOLEAN, R"(Bad variable type ("="))"},
        {"utilPingCount.0", nullptr, PROP_TYPE_STRING, "many", NO_DATA, "Value out of range (many)"},
        {"utilPingCount.0", nullptr, PROP_TYPE_DATA, "many", NO_DATA, "Value out of range (many)"},
        {"utilPingCount.0", "f", PROP_TYPE_JSON, json.get(), NO_DATA, "Value out of range (many)"},
        {"utilPingCount.0", "n", PROP_TYPE_JSON, json.get(), NO_DATA, "Bad value notation ()"},
    };
    for (const refused_row &row : rows) {
        const pdu_owned pdu(snmp_pdu_create(SNMP_MSG_SET));
        const bridge_snmp_write_prop prop = {.oid = row.object,
                                             .field_name = row.field,
                                             .value = row.value,
                                             .type = row.type,
                                             .hint = PROP_TYPE_STRING};
        const log_view from = log.from_here();
        EXPECT_EQ(bridge_snmp_convert_write(pdu.get(), &prop), -1);
        EXPECT_EQ(pdu->variables, nullptr);
        EXPECT_EQ(told(from), join({row.complaint, row.reason})) << row.object;
    }
}
