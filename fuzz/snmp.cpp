/* The SNMP client against an agent that answers with any bytes: every kind of read, of walk and of write.
 * Input: a byte for the operation and one for its kind of value; then the choices of fuzz_choices.h, which
 * the datagrams are made of. */
#include "converter/control/bridge_snmp.h"

#include "common/bridge_json_helpers.h"
#include "converter/control/bridge_ctrl_ctx.h"
#include "converter/control/bridge_snmp_helpers.h"
#include "fuzz.h"
#include "fuzz_control.h"
#include "fuzz_transport.h"

#include <algorithm>
#include <cstring>

static constexpr const char *OBJECTS[] = {"agentVersion.0", "moduleName.0", "ipAdEntAddr", "wmIpAddress.0"};

static constexpr bridge_snmp_column COLUMNS[] = {
    {"name", "firewallFiltersName", false, PROP_TYPE_STRING},
    {"enabled", "firewallFiltersEnabled", true, PROP_TYPE_BOOL},
    {"type", "wmApnConnectionType", false, PROP_TYPE_INT},
    {"addr", "ipAdEntAddr", true, PROP_TYPE_IPADDR},
    {},
};

/* The counted tables know numbers and texts alone. */
static constexpr bridge_snmp_column COUNTED[] = {
    {"name", "swVerName", false, PROP_TYPE_STRING},
    {"special", "upgradableListComponentSpecial", false, PROP_TYPE_INT},
    {},
};

static constexpr size_t CAPACITIES[] = {1, 7, 14, 30, 46, 64, 256, 512};

/* ---- operations ---- */

using get_bytes = int (*)(converter_ctx *ctx, const char *object, char *buffer, size_t *size,
                          uint32_t timeout_ms);

static int get_data(converter_ctx *ctx, const char *object, char *buffer, size_t *size, uint32_t timeout_ms)
{
    return bridge_snmp_get_property_data(ctx, object, reinterpret_cast<uint8_t *>(buffer), size, timeout_ms);
}

/* A text is terminated within its capacity, and as long as is told. */
static void read_bytes(converter_ctx *ctx, get_bytes get, bool is_text, size_t capacity, const char *object)
{
    const std::unique_ptr<char[]> buffer(new char[capacity]);
    memset(buffer.get(), 'x', capacity);
    size_t size = capacity;
    const int result = get(ctx, object, buffer.get(), &size, 0);
    FUZZ_REQUIRE(size <= capacity);
    if (result < 0 || !is_text)
        return;
    FUZZ_REQUIRE(memchr(buffer.get(), 0, capacity) != nullptr);
    FUZZ_REQUIRE(size < capacity);
}

static void read_single(converter_ctx *ctx, uint8_t kind, const char *object)
{
    const size_t capacity = CAPACITIES[kind / 8 % std::size(CAPACITIES)];
    long number = 0;
    double value = 0;
    switch (kind % 8) {
    case 0:
        bridge_snmp_get_property_int(ctx, object, &number, 0);
        return;
    case 1:
        bridge_snmp_get_property_double(ctx, object, &value, 0);
        return;
    case 2:
        return read_bytes(ctx, bridge_snmp_get_property_str, true, capacity, object);
    case 3:
        return read_bytes(ctx, get_data, false, capacity, object);
    case 4: /* what it needs at least */
        return read_bytes(ctx, bridge_snmp_get_property_ipaddr, true, std::max<size_t>(capacity, 46), object);
    case 5:
        return read_bytes(ctx, bridge_snmp_get_property_pretty, true, capacity, object);
    default:
        bridge_snmp_get_dbm_offt(ctx, kind, &value);
        return;
    }
}

static constexpr bridge_prop_type TYPES[] = {PROP_TYPE_INT,    PROP_TYPE_BOOL,   PROP_TYPE_DOUBLE,
                                             PROP_TYPE_STRING, PROP_TYPE_IPADDR, PROP_TYPE_DATA,
                                             PROP_TYPE_JSON};
static constexpr bridge_prop_type HINTS[] = {PROP_TYPE_INT, PROP_TYPE_BOOL, PROP_TYPE_STRING,
                                             PROP_TYPE_IPADDR};

/* A record of each type in one request, beginning with one that the input names. */
static void read_many(converter_ctx *ctx, uint8_t kind, bool next)
{
    constexpr size_t COUNT = std::size(TYPES);
    const size_t capacity = CAPACITIES[kind / 8 % std::size(CAPACITIES)];
    const json_owned object(json_object_new_object());
    std::unique_ptr<uint8_t[]> targets[COUNT];
    size_t sizes[COUNT] = {};
    bridge_snmp_read_prop props[COUNT + 1] = {};
    for (size_t i = 0; i < COUNT; i++) {
        const bridge_prop_type type = TYPES[(kind + i) % COUNT];
        targets[i].reset(new uint8_t[std::max(capacity, sizeof(int64_t))]());
        props[i] = {.oid = OBJECTS[i % std::size(OBJECTS)],
                    .root_oid = next && i == 0 ? OBJECTS[2] : nullptr,
                    .field_name = "value",
                    .buf_sz = capacity,
                    .buf_out_sz = &sizes[i],
                    .buf = targets[i].get(),
                    .type = type,
                    .hint = HINTS[kind % std::size(HINTS)]};
        if (type == PROP_TYPE_JSON)
            props[i].buf = object.get();
    }
    if (next)
        bridge_snmp_getnext_properties(ctx, props, 0);
    else
        bridge_snmp_get_properties(ctx, props, 0);
    FUZZ_REQUIRE(*std::max_element(std::begin(sizes), std::end(sizes)) <= std::max<size_t>(capacity, 16));
    FUZZ_REQUIRE(fuzz_is_json_object(json_object_to_json_string(object.get())));
}

static void check_table(int result, json_object *given)
{
    const json_owned table(given);
    FUZZ_REQUIRE(result >= 0 || !table);
    FUZZ_REQUIRE(!table || json_object_is_type(table.get(), json_type_array));
    const std::string text = json_object_to_json_string(table.get());
    FUZZ_REQUIRE(fuzz_is_json_object("{\"table\":" + text + "}"));
}

static void write_many(converter_ctx *ctx)
{
    const json_owned rows(json_tokener_parse(
        R"([{"name":"a","enabled":true,"type":1,"addr":"127.0.0.1"},{"name":"b","type":2}])"));
    bridge_snmp_set_property(ctx, "lumoReset.0", "1000001", 0);
    bridge_snmp_set_exact_table_from_json(ctx, COLUMNS, rows.get());
}

static void operate(converter_ctx *ctx, uint8_t operation, uint8_t kind)
{
    json_object *table = nullptr;
    int result = 0;
    switch (operation % 8) {
    case 0:
        return read_single(ctx, kind, OBJECTS[operation / 8 % std::size(OBJECTS)]);
    case 1: { /* and what follows it */
        const ctx_guard guard(ctx);
        read_single(ctx, kind, OBJECTS[operation / 8 % std::size(OBJECTS)]);
        return read_single(ctx, kind, nullptr);
    }
    case 2:
        return read_many(ctx, kind, false);
    case 3:
        return read_many(ctx, kind, true);
    case 4:
        result = bridge_snmp_get_table_as_json(ctx, COUNTED, "swVerCount.0", &table);
        return check_table(result, table);
    case 5:
        result = bridge_snmp_get_exact_table_as_json(ctx, COLUMNS, nullptr, &table);
        return check_table(result, table);
    case 6:
        result = bridge_snmp_get_exact_table_as_json(ctx, COLUMNS, "ipAdEntAddr", &table);
        return check_table(result, table);
    default:
        return write_many(ctx);
    }
}

/* ---- the session ---- */

static void open_session(converter_ctx *ctx)
{
    netsnmp_session session;
    snmp_sess_init(&session);
    u_char community[] = "public";
    session.version = SNMP_VERSION_2c;
    session.community = community;
    session.community_len = sizeof(community) - 1;
    snmp_sess_close(ctx->sess_handle);
    ctx->sess_handle = snmp_sess_add(&session, fuzz_transport_new(true), nullptr, nullptr);
    FUZZ_REQUIRE(ctx->sess_handle != nullptr);
    ctx->ss = snmp_sess_session(ctx->sess_handle);
}

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    fuzz_control_start(*argc, *argv, 60);
    open_session(fuzz_control_ctx());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    const int descriptor = fuzz_free_descriptor();
    fuzz_control_reset(data + 2, size - 2);
    const fuzz_end end = fuzz_control_run([&] { operate(fuzz_control_ctx(), data[0], data[1]); });
    FUZZ_REQUIRE(end != FUZZ_EXITED);
    FUZZ_REQUIRE(fuzz_oam.reports.empty() && fuzz_oam.told.empty());
    FUZZ_REQUIRE(fuzz_free_descriptor() == descriptor);
    return 0;
}
