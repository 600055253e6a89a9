/* Radio and network handlers when memory runs out or a name is told by nobody: which line is logged, and what
 * is still answered. */
#include "converter/control/bridge_cmd_network.h"
#include "converter/control/bridge_cmd_radio.h"

#include "common/bridge_json_helpers.h"
#include "config/captured_log.h"
#include "control/failing_calls.h"
#include "converter/control/bridge_ctrl_ctx.h"
#include "converter/control/bridge_snmp.h"
#include "converter/control/bridge_snmp_helpers.h"

#include <gtest/gtest.h>
#include <map>
#include <netdb.h>

using testing::Each;
using testing::ElementsAreArray;

FAILING_CALL(void *, calloc, (size_t count, size_t size), (count, size), nullptr)
FAILING_CALL(json_object *, json_object_new_object, (), (), nullptr)
FAILING_CALL(json_object *, json_object_new_array, (), (), nullptr)
FAILING_CALL(json_object *, json_object_new_int64, (int64_t value), (value), nullptr)
FAILING_CALL(json_object *, json_object_new_double, (double value), (value), nullptr)
FAILING_CALL(json_object *, json_object_new_boolean, (json_bool value), (value), nullptr)
FAILING_CALL(int, getnameinfo,
             (const sockaddr *address, socklen_t size, char *host, socklen_t host_size, char *service,
              socklen_t service_size, int flags),
             (address, size, host, host_size, service, service_size, flags), EAI_MEMORY)

/* ---- an agent that takes everything; an object without a number is 1, and every text has eight bytes ----
 */

static std::map<std::string, int64_t> agent_numbers;
static bool agent_has_rows = true;

static std::vector<uint32_t> agent_timeouts;

static void note(uint32_t timeout_ms)
{
    agent_timeouts.push_back(timeout_ms);
}

static int64_t number_of(const char *object)
{
    const auto found = agent_numbers.find(object);
    return found != agent_numbers.end() ? found->second : 1;
}

static void fill(const bridge_snmp_read_prop &prop)
{
    if (prop.type == PROP_TYPE_INT)
        *static_cast<int64_t *>(prop.buf) = number_of(prop.oid);
    else if (prop.type == PROP_TYPE_BOOL)
        *static_cast<bool *>(prop.buf) = number_of(prop.oid) != 0;
    else if (prop.type == PROP_TYPE_STRING)
        snprintf(static_cast<char *>(prop.buf), prop.buf_sz, "a text");
}

int bridge_snmp_get_properties(converter_ctx *, const bridge_snmp_read_prop *props, uint32_t timeout_ms)
{
    note(timeout_ms);
    for (; props->oid != nullptr; props++)
        fill(*props);
    return 0;
}

int bridge_snmp_get_property_int(converter_ctx *, const char *oid_str, long *val, uint32_t timeout_ms)
{
    note(timeout_ms);
    *val = static_cast<long>(number_of(oid_str));
    return 0;
}

int bridge_snmp_get_property_str(converter_ctx *, const char *, char *buf, size_t *buf_sz,
                                 uint32_t timeout_ms)
{
    note(timeout_ms);
    memset(buf, 0, 8);
    *buf_sz = 8;
    return 0;
}

int bridge_snmp_get_property_data(converter_ctx *, const char *, uint8_t *, size_t *, uint32_t timeout_ms)
{
    note(timeout_ms);
    return 0;
}

int bridge_snmp_set_property(converter_ctx *, const char *, const char *, uint32_t timeout_ms)
{
    note(timeout_ms);
    return 0;
}

int bridge_snmp_set_properties(converter_ctx *, const bridge_snmp_write_prop *, uint32_t timeout_ms)
{
    note(timeout_ms);
    return 0;
}

int bridge_snmp_get_table_as_json(converter_ctx *, const bridge_snmp_column *, const char *, json_object **)
{
    return -1;
}

int bridge_snmp_get_exact_table_as_json(converter_ctx *, const bridge_snmp_column *, const char *,
                                        json_object **out)
{
    *out = agent_has_rows ? json_object_new_array() : nullptr;
    return agent_has_rows ? 0 : -1;
}

int bridge_snmp_set_exact_table_from_json(converter_ctx *, const bridge_snmp_column *, json_object *)
{
    return 0;
}

int bridge_snmp_get_dbm_offt(converter_ctx *, uint32_t, double *offset)
{
    *offset = -93.5;
    return 0;
}

/* ---- the cases ---- */

using handler = void (*)(converter_ctx *ctx, json_object *params, json_object **response);

struct failure_row {
    handler run;
    const char *params;
    const char *failing; /* the call, from the `after`-th one on */
    int after;
    std::vector<std::string> complaints;
    const char *response;
};

static constexpr const char *NOTHING = "none";
static constexpr const char *NOT_SUPPORTED = R"({"error":"not_supported"})";
static constexpr const char *NO_FRAME = "ERROR failed to serialize response frame";
static constexpr const char *ANTENNA = R"({"antenna":0})";

class RadioFailures : public testing::Test
{
  protected:
    ~RadioFailures() override
    {
        let_all_pass();
        agent_numbers.clear();
        agent_has_rows = true;
        agent_timeouts.clear();
    }

    void expect(const failure_row &row)
    {
        SCOPED_TRACE(join({row.failing, " after ", std::to_string(row.after)}));
        const json_owned params(json_tokener_parse(row.params));
        const log_view view = log.from_here();
        json_object *response = nullptr;
        let_fail(row.failing, 0, row.after);
        row.run(&context, params.get(), &response);
        let_all_pass();
        const json_owned owned(response);
        EXPECT_THAT(view.complaints(), ElementsAreArray(row.complaints));
        EXPECT_STREQ(owned ? json_object_to_json_string_ext(response, JSON_C_TO_STRING_PLAIN) : NOTHING,
                     row.response);
    }

    captured_log log;
    converter_ctx context = {};
};

static constexpr const char *OBJECT = "json_object_new_object";
static constexpr const char *ARRAY = "json_object_new_array";
static constexpr const char *NUMBER = "json_object_new_int64";
static constexpr const char *REAL = "json_object_new_double";
static constexpr const char *FLAG = "json_object_new_boolean";
static constexpr const char *NO_FIELD = "ERROR failed to serialize field";

static constexpr handler ANALYZER = bridge_cmd_get_spectrum_analyzer;
static constexpr handler SCAN = bridge_cmd_get_scan_results;
static constexpr handler PROGRESS = bridge_cmd_get_scan_progress;
static constexpr handler UPLINKS = bridge_cmd_get_connectivity_types;
static constexpr handler FIREWALL = bridge_cmd_get_firewall;
static constexpr handler TARGET = bridge_cmd_get_ping_target;

TEST_F(RadioFailures, AnswersThatFindNoMemoryAreLeftOut)
{
    /* clang-format off */
    const failure_row rows[] = {
        {ANALYZER, ANTENNA, OBJECT,   0,   {"ERROR failed to allocate response object"}, NOTHING},
        {ANALYZER, ANTENNA, REAL,     0,   {"ERROR failed to create DBM object"}, NOTHING},
        {ANALYZER, ANTENNA, ARRAY,    0,   {"ERROR failed to allocate array JSON"}, NOTHING},
        {ANALYZER, ANTENNA, NUMBER,   1,   {"ERROR unable to allocate value object"}, NOTHING},
        {SCAN,     "{}",    "calloc", 0,   {"ERROR failed to allocate blob with size: [808]"}, NOTHING},
        {SCAN,     "{}",    ARRAY,    0,   {"ERROR failed to create data array"}, NOTHING},
        {SCAN,     "{}",    NUMBER,   201, {"ERROR failed to allocate sample object"}, NOTHING},
        {SCAN,     "{}",    OBJECT,   0,   {"ERROR failed to allocate response object"}, NOTHING},
        {SCAN,     "{}",    REAL,     0,   {"ERROR failed to allocate response object"}, NOTHING},
        {PROGRESS, "{}",    NUMBER,   0,   {"ERROR failed to serialize progress counter"}, NOT_SUPPORTED},
        {UPLINKS,  "{}",    ARRAY,    0,   {"ERROR failed to allocate memory for array"}, NOTHING},
        {UPLINKS,  "{}",    OBJECT,   2,   {"ERROR failed to create JSON object"}, NOTHING},
        {UPLINKS,  "{}",    NUMBER,   2,   {NO_FIELD, NO_FRAME}, NOTHING},
        {FIREWALL, "{}",    OBJECT,   0,   {"ERROR failed to allocate response object"}, NOTHING},
        {FIREWALL, "{}",    OBJECT,   1,   {"ERROR failed to create sub-object", NO_FRAME}, NOTHING},
        {FIREWALL, "{}",    FLAG,     0,   {NO_FIELD, NO_FRAME}, NOTHING},
        {TARGET,   "{}",    NUMBER,   0,   {NO_FIELD, NO_FRAME}, NOTHING},
    };
    /* clang-format on */
    agent_numbers["agentVersion.0"] = 47;
    for (const failure_row &row : rows)
        expect(row);
}

TEST_F(RadioFailures, AScanWhoseCountsAskForTooMuchIsLeftOut)
{
    agent_numbers["utilSpectralScanNum125kChan.0"] = INT32_MAX;
    agent_numbers["utilSpectralScanNum500kChan.0"] = INT32_MAX;
    const size_t size = size_t{UINT32_MAX - 1} * 404;
    expect({bridge_cmd_get_scan_results,
            "{}",
            "calloc",
            0,
            {join({"ERROR failed to allocate blob with size: [", std::to_string(size), "]"})},
            NOTHING});
}

TEST_F(RadioFailures, AFirewallWithoutItsTableIsLeftOut)
{
    agent_has_rows = false;
    expect({bridge_cmd_get_firewall, "{}", "", 0, {"ERROR failed to get SNMP table"}, NOTHING});
}

TEST_F(RadioFailures, AnAddressThatHasNoTextIsNotWritten)
{
    agent_numbers["agentVersion.0"] = 46;
    expect({bridge_cmd_set_ping_target,
            R"({"ipAddr":"127.0.0.1"})",
            "getnameinfo",
            0,
            {"ERROR failed to get name info: Memory allocation failure"},
            NOTHING});
}

TEST_F(RadioFailures, RequestsTakeTheShortestTimeout)
{
    static constexpr const char *ANALYZER_PARAMS =
        R"({"samplePeriod":1,"sampleCount":1,"startFrequencykHz":1,"stopFrequencykHz":1,"binSpacingkHz":1})";
    static constexpr const char *SCAN_PARAMS =
        R"({"samplePeriod":1,"num125kChan":1,"startFreq125k":1,"stepFreq125k":1,"num500kChan":1,
            "startFreq500k":1,"stepFreq500k":1,"antenna":1})";
    static constexpr const char *FIREWALL_PARAMS =
        R"({"enabled":true,"doSPrevention":{"enabled":true,"perMinLimit":1,"burstLimit":1},
            "ssh":{"enabled":true},"ping":{"enabled":true,"limit":{"enabled":true,"pingPerMinLimit":1,
            "pingBurstLimit":1}},"filters":[]})";
    /* The requests of the tables and of the offset are not counted. */
    static constexpr struct {
        handler run;
        const char *params;
        size_t requests;
        int64_t version;
    } rows[] = {
        {bridge_cmd_set_spectrum_analyzer, ANALYZER_PARAMS, 1, 0},
        {bridge_cmd_get_spectrum_analyzer, ANTENNA, 2, 0},
        {bridge_cmd_execute_spectral_scan, SCAN_PARAMS, 1, 0},
        {bridge_cmd_get_antennas_count, "{}", 1, 0},
        {bridge_cmd_get_scan_progress, "{}", 1, 0},
        {bridge_cmd_get_scan_params, "{}", 1, 0},
        {bridge_cmd_get_scan_results, "{}", 2, 0},
        {bridge_cmd_get_connectivity_types, "{}", 4, 0},
        {bridge_cmd_set_connectivity_types, "{}", 1, 0},
        {bridge_cmd_get_firewall, "{}", 2, 0},
        {bridge_cmd_set_firewall, FIREWALL_PARAMS, 1, 0},
        {bridge_cmd_set_ping_target, R"({"ipAddr":"127.0.0.1"})", 2, 46},
        {bridge_cmd_set_ping_target, R"({"ipAddr":"127.0.0.1"})", 2, 47},
        {bridge_cmd_get_ping_target, "{}", 2, 46},
        {bridge_cmd_get_ping_target, "{}", 2, 47},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        agent_timeouts.clear();
        agent_numbers["agentVersion.0"] = row.version;
        const json_owned params(json_tokener_parse(row.params));
        json_object *response = nullptr;
        row.run(&context, params.get(), &response);
        const json_owned owned(response);
        EXPECT_EQ(agent_timeouts.size(), row.requests);
        EXPECT_THAT(agent_timeouts, Each(0U));
    }
    EXPECT_THAT(log.complaints(), testing::IsEmpty());
}
