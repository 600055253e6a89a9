/* Handlers in the order of the command table. */
#include "converter/control/bridge_cmd_network.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "converter/control/bridge_cmd_family.h"

#include <cstring>
#include <memory>
#include <netdb.h>
#include <strings.h>
#include <sys/socket.h>

/* ---- ways to the network ---- */

struct connectivity_type {
    int64_t index;
    const char *type;
    const char *available;
};

/* clang-format off */
static constexpr connectivity_type CONNECTIVITY_TYPES[] = {
    {1, "Ethernet", "networkEthernetAvailable.0"},
    {2, "Optical",  "networkOpticalAvailable.0"},
    {3, "Cellular", "networkCellularAvailable.0"},
};
/* clang-format on */

struct connectivity_choice {
    int64_t preferred;
    int64_t fallback;
};

/* Adds the type to the array if it is available. Returns 0, or -1 after logging why. */
static int add_connectivity_type(converter_ctx *ctx, const connectivity_type &row,
                                 const connectivity_choice &choice, json_object *types)
{
    long available = 0;
    if (bridge_snmp_get_property_int(ctx, row.available, &available, 0) < 0) {
        BRIDGE_ERROR("failed to get connectivity avaliability flag");
        return -1;
    }
    if (available == 0)
        return 0;
    json_owned object(json_object_new_object());
    if (!object) {
        BRIDGE_ERROR("failed to create JSON object");
        return -1;
    }
    int64_t index = row.index;
    bool preferred = row.index == choice.preferred;
    bool fallback = row.index == choice.fallback;
    const bridge_json_field frame[] = {
        field_int("index", &index),
        field_text("type", row.type),
        field_bool("preferred", &preferred),
        field_bool("fallback", &fallback),
    };
    if (bridge_json_serialize(object.get(), frame, std::size(frame)) < 0) {
        BRIDGE_ERROR("failed to serialize response frame");
        return -1;
    }
    json_object_array_add(types, object.release());
    return 0;
}

void bridge_cmd_get_connectivity_types(converter_ctx *ctx, json_object *, json_object **response)
{
    connectivity_choice choice = {};
    const bridge_snmp_read_prop props[] = {
        {.oid = "networkPreferred.0", .buf = &choice.preferred, .type = PROP_TYPE_INT},
        {.oid = "networkFallback.0", .buf = &choice.fallback, .type = PROP_TYPE_INT},
        {},
    };
    if (bridge_snmp_get_properties(ctx, props, 0) < 0) {
        BRIDGE_ERROR("failed to get connectivity properties");
        return;
    }
    json_owned types(json_object_new_array());
    if (!types) {
        BRIDGE_ERROR("failed to allocate memory for array");
        return;
    }
    for (const connectivity_type &row : CONNECTIVITY_TYPES) {
        if (add_connectivity_type(ctx, row, choice, types.get()) < 0)
            return;
    }
    *response = types.release();
}

void bridge_cmd_set_connectivity_types(converter_ctx *ctx, json_object *params, json_object **)
{
    if (cmd_write(ctx, {cmd_field("networkPreferred.0", "preferredIdx", PROP_TYPE_INT, params),
                        cmd_field("networkFallback.0", "fallbackIdx", PROP_TYPE_INT, params),
                        cmd_text("networkPreferencesExecute.0", CMD_TRIGGER)}) < 0)
        BRIDGE_ERROR("failed to set connectivity properties");
}

/* ---- firewall ---- */

static constexpr const char *FIREWALL_APPLY = "1000002";

struct firewall_settings {
    bool enabled;
    bool ping_enabled;
    bool ping_limit_enabled;
    int64_t ping_per_min_limit;
    int64_t ping_burst_limit;
    bool ssh_enabled;
    bool dos_enabled;
    int64_t dos_per_min_limit;
    int64_t dos_burst_limit;
};

/* Where a scalar object lives in the record: one of the two is set. */
struct firewall_scalar {
    const char *object;
    bool firewall_settings::*flag;
    int64_t firewall_settings::*number;
};

/* In the order of the requests to the agent. */
/* clang-format off */
static constexpr firewall_scalar FIREWALL_SCALARS[] = {
    {"firewallEnabled.0",                  &firewall_settings::enabled,            nullptr},
    {"firewallPingEnabled.0",              &firewall_settings::ping_enabled,       nullptr},
    {"firewallPingLimitEnabled.0",         &firewall_settings::ping_limit_enabled, nullptr},
    {"firewallPingPerMinLimit.0",          nullptr, &firewall_settings::ping_per_min_limit},
    {"firewallPingBurstLimit.0",           nullptr, &firewall_settings::ping_burst_limit},
    {"firewallSshEnabled.0",               &firewall_settings::ssh_enabled,        nullptr},
    {"firewallDoSPreventionEnabled.0",     &firewall_settings::dos_enabled,        nullptr},
    {"firewallDoSPreventionPerMinLimit.0", nullptr, &firewall_settings::dos_per_min_limit},
    {"firewallDoSPreventionBurstLimit.0",  nullptr, &firewall_settings::dos_burst_limit},
};

static constexpr bridge_snmp_column FIREWALL_FILTERS[] = {
    /* key             column                        optional  form */
    {"name",         "firewallFiltersName",         false, PROP_TYPE_STRING},
    {"description",  "firewallFiltersDescription",  true,  PROP_TYPE_STRING},
    {"chain",        "firewallFiltersChain",        false, PROP_TYPE_STRING},
    {"dstAddr",      "firewallFiltersDstAddr",      true,  PROP_TYPE_STRING},
    {"dstInterface", "firewallFiltersDstInterface", true,  PROP_TYPE_STRING},
    {"dstMask",      "firewallFiltersDstMask",      true,  PROP_TYPE_STRING},
    {"dstPort",      "firewallFiltersDstPort",      true,  PROP_TYPE_STRING},
    {"enabled",      "firewallFiltersEnabled",      true,  PROP_TYPE_BOOL},
    {"protocol",     "firewallFiltersProtocol",     true,  PROP_TYPE_STRING},
    {"srcAddr",      "firewallFiltersSrcAddr",      true,  PROP_TYPE_STRING},
    {"srcInterface", "firewallFiltersSrcInterface", true,  PROP_TYPE_STRING},
    {"srcMac",       "firewallFiltersSrcMac",       true,  PROP_TYPE_STRING},
    {"srcMask",      "firewallFiltersSrcMask",      true,  PROP_TYPE_STRING},
    {"srcPort",      "firewallFiltersSrcPort",      true,  PROP_TYPE_STRING},
    {"target",       "firewallFiltersTarget",       true,  PROP_TYPE_STRING},
    {"removeFilter", "firewallFiltersRemoveFilter", true,  PROP_TYPE_BOOL},
    {},
};

static constexpr bridge_snmp_column FIREWALL_FILTER_NAMES[] = {
    {"name", "firewallFiltersName", false, PROP_TYPE_STRING},
    {},
};
/* clang-format on */
static_assert(std::size(FIREWALL_FILTERS) == 16 + 1);

/* The nested document of both commands, on its way in or out. */
struct firewall_document {
    explicit firewall_document(firewall_settings *settings)
        : dos{field_bool("enabled", &settings->dos_enabled),
              field_int("perMinLimit", &settings->dos_per_min_limit),
              field_int("burstLimit", &settings->dos_burst_limit)},
          ssh{field_bool("enabled", &settings->ssh_enabled)},
          limit{field_bool("enabled", &settings->ping_limit_enabled),
                field_int("pingPerMinLimit", &settings->ping_per_min_limit),
                field_int("pingBurstLimit", &settings->ping_burst_limit)},
          ping{field_bool("enabled", &settings->ping_enabled), field_object("limit", limit)},
          root{field_bool("enabled", &settings->enabled), field_object("doSPrevention", dos),
               field_object("ssh", ssh), field_object("ping", ping)}
    {
    }
    firewall_document(const firewall_document &) = delete;
    firewall_document &operator=(const firewall_document &) = delete;

    bridge_json_field dos[3];
    bridge_json_field ssh[1];
    bridge_json_field limit[3];
    bridge_json_field ping[2];
    bridge_json_field root[4];
};

static int read_firewall_scalars(converter_ctx *ctx, firewall_settings *settings)
{
    bridge_snmp_read_prop props[std::size(FIREWALL_SCALARS) + 1] = {};
    for (size_t i = 0; i < std::size(FIREWALL_SCALARS); i++) {
        const firewall_scalar &row = FIREWALL_SCALARS[i];
        if (row.flag != nullptr)
            props[i] = {.oid = row.object, .buf = &(settings->*row.flag), .type = PROP_TYPE_BOOL};
        else
            props[i] = {.oid = row.object, .buf = &(settings->*row.number), .type = PROP_TYPE_INT};
    }
    return bridge_snmp_get_properties(ctx, props, 0);
}

static int write_firewall_scalars(converter_ctx *ctx, const firewall_settings &settings)
{
    bridge_snmp_write_prop props[std::size(FIREWALL_SCALARS) + 1] = {};
    for (size_t i = 0; i < std::size(FIREWALL_SCALARS); i++) {
        const firewall_scalar &row = FIREWALL_SCALARS[i];
        props[i] = row.flag != nullptr ? cmd_flag(row.object, &(settings.*row.flag))
                                       : cmd_number(row.object, &(settings.*row.number));
    }
    props[std::size(FIREWALL_SCALARS)] = cmd_text("firewallUpdateExecute.0", FIREWALL_APPLY);
    return cmd_write(ctx, std::span<const bridge_snmp_write_prop>(props));
}

void bridge_cmd_get_firewall(converter_ctx *ctx, json_object *, json_object **response)
{
    if (bridge_snmp_set_property(ctx, "firewallUpdateExecute.0", CMD_TRIGGER, 0) < 0) {
        BRIDGE_ERROR("failed to toggle firewall SNMP read");
        return;
    }
    firewall_settings settings = {};
    if (read_firewall_scalars(ctx, &settings) < 0) {
        BRIDGE_ERROR("failed to get firewall SNMP properties");
        return;
    }
    json_owned answer(json_object_new_object());
    if (!answer) {
        BRIDGE_ERROR("failed to allocate response object");
        return;
    }
    const firewall_document document(&settings);
    if (bridge_json_serialize(answer.get(), document.root, std::size(document.root)) < 0) {
        BRIDGE_ERROR("failed to serialize response frame");
        return;
    }
    json_object *filters = nullptr;
    if (bridge_snmp_get_exact_table_as_json(ctx, FIREWALL_FILTERS, nullptr, &filters) < 0) {
        BRIDGE_ERROR("failed to get SNMP table");
        return;
    }
    json_object_object_add(answer.get(), "filters", filters);
    *response = answer.release();
}

/* Names go first: the agent makes a row when it sees one, and only then takes the other columns. */
void bridge_cmd_set_firewall(converter_ctx *ctx, json_object *params, json_object **)
{
    firewall_settings settings = {};
    const firewall_document document(&settings);
    if (cmd_parse(params, document.root) < 0) {
        BRIDGE_ERROR("failed to de-serialize filter parameters");
        return;
    }
    json_object *filters = nullptr;
    json_object_object_get_ex(params, "filters", &filters);
    if (!json_object_is_type(filters, json_type_array)) {
        BRIDGE_ERROR("missing filter array in incoming JSON");
        return;
    }
    if (bridge_snmp_set_exact_table_from_json(ctx, FIREWALL_FILTER_NAMES, filters) < 0) {
        BRIDGE_ERROR("failed to set filter fields for pre-allocation");
        return;
    }
    if (bridge_snmp_set_exact_table_from_json(ctx, FIREWALL_FILTERS, filters) < 0) {
        BRIDGE_ERROR("failed to set filter fields");
        return;
    }
    if (write_firewall_scalars(ctx, settings) < 0)
        BRIDGE_ERROR("failed to set firewall SNMP properties");
}

/* ---- test of the connection ---- */

static constexpr size_t TARGET_SIZE = 256;
static constexpr int64_t MAX_PORT = 65535;
/* Of agents with major version 0: from this minor version on they know server, protocol and port. */
static constexpr int32_t FIRST_MINOR_WITH_PROTOCOL = 47;

/* In the order of their numbers. */
static constexpr const char *PING_PROTOCOLS[] = {"icmp", "tcp"};

struct ping_target {
    char address[TARGET_SIZE];
    char protocol[10];
    int64_t port;
};

static bool knows_address_only(const cmd_version &version)
{
    return version.major == 0 && version.minor < FIRST_MINOR_WITH_PROTOCOL;
}

static int set_ping_address(converter_ctx *ctx, const char *address)
{
    /* Without hints of its own the library leaves out a family that the gateway has no address of. */
    const addrinfo hints = {.ai_family = AF_UNSPEC};
    addrinfo *list = nullptr;
    int result = getaddrinfo(address, nullptr, &hints, &list);
    if (result != 0) {
        BRIDGE_ERROR("failed to resolve ping address: %s", gai_strerror(result));
        return -1;
    }
    const std::unique_ptr<addrinfo, bridge_release<freeaddrinfo>> first(list);
    char host[NI_MAXHOST];
    result = getnameinfo(first->ai_addr, first->ai_addrlen, host, sizeof(host), nullptr, 0, NI_NUMERICHOST);
    if (result != 0) {
        BRIDGE_ERROR("failed to get name info: %s", gai_strerror(result));
        return -1;
    }
    BRIDGE_TRACE("obtained ping host: %s", host);
    if (bridge_snmp_set_property(ctx, "networkPingIp.0", host, 0) < 0) {
        BRIDGE_ERROR("failed to set ping address");
        return -1;
    }
    return 0;
}

static int64_t find_protocol(const char *name)
{
    for (size_t i = 0; i < std::size(PING_PROTOCOLS); i++) {
        if (strcasecmp(name, PING_PROTOCOLS[i]) == 0)
            return static_cast<int64_t>(i);
    }
    return -1;
}

static int set_ping_server(converter_ctx *ctx, const ping_target &target)
{
    const int64_t protocol = find_protocol(target.protocol);
    if (protocol < 0) {
        BRIDGE_ERROR("invalid protocol for testing network connectivity: %s", target.protocol);
        return -1;
    }
    if (target.port < 0 || target.port > MAX_PORT) {
        BRIDGE_ERROR("invalid port for testing network connectivity: port should be between 0 and 65535");
        return -1;
    }
    if (cmd_write(ctx, {cmd_text("networkPingServer.0", target.address),
                        cmd_number("networkConnectionTestType.0", &protocol),
                        cmd_number("networkConnectionTestPort.0", &target.port)}) < 0) {
        BRIDGE_ERROR("failed to set ping address, protocol, and port");
        return -1;
    }
    return 0;
}

void bridge_cmd_set_ping_target(converter_ctx *ctx, json_object *params, json_object **)
{
    ping_target target = {.address = "", .protocol = "icmp", .port = 80};
    const bridge_json_field frame[] = {
        field_string("ipAddr", target.address),
        field_optional(field_string("connectionType", target.protocol)),
        field_optional(field_int("connectionPort", &target.port)),
    };
    if (cmd_parse(params, frame) < 0) {
        BRIDGE_ERROR("failed to de-serialize params");
        return;
    }
    cmd_version version = {};
    if (bridge_cmd_agent_version(ctx, &version) < 0) {
        BRIDGE_ERROR("failed to get SNMP agent version");
        return;
    }
    const int result =
        knows_address_only(version) ? set_ping_address(ctx, target.address) : set_ping_server(ctx, target);
    if (result == 0)
        BRIDGE_INFO("setting preferred ping configuration succeeded");
}

static constexpr cmd_field_row PING_ADDRESS[] = {
    {"networkPingIp.0", "ipAddr"},
};

static void get_ping_address(converter_ctx *ctx, json_object **response)
{
    json_owned answer(json_object_new_object());
    if (!answer || cmd_read_fields(ctx, PING_ADDRESS, PROP_TYPE_IPADDR, answer.get()) < 0) {
        BRIDGE_ERROR("failed to get ping address");
        return;
    }
    *response = answer.release();
}

static void get_ping_server(converter_ctx *ctx, json_object **response)
{
    char address[TARGET_SIZE] = "";
    int64_t protocol = 0;
    int64_t port = 0;
    const bridge_snmp_read_prop props[] = {
        {.oid = "networkPingServer.0", .buf_sz = sizeof(address), .buf = address, .type = PROP_TYPE_STRING},
        {.oid = "networkConnectionTestType.0", .buf = &protocol, .type = PROP_TYPE_INT},
        {.oid = "networkConnectionTestPort.0", .buf = &port, .type = PROP_TYPE_INT},
        {},
    };
    if (bridge_snmp_get_properties(ctx, props, 0) < 0) {
        BRIDGE_ERROR("failed to get ping address, protocol, and port");
        return;
    }
    if (protocol < 0 || protocol >= static_cast<int64_t>(std::size(PING_PROTOCOLS))) {
        BRIDGE_ERROR("Invalid ping protocol");
        return;
    }
    json_owned answer(json_object_new_object());
    const bridge_json_field frame[] = {
        field_text("ipAddr", address),
        field_text("connectionType", PING_PROTOCOLS[protocol]),
        field_int("connectionPort", &port),
    };
    if (!answer || bridge_json_serialize(answer.get(), frame, std::size(frame)) < 0) {
        BRIDGE_ERROR("failed to serialize response frame");
        return;
    }
    *response = answer.release();
}

void bridge_cmd_get_ping_target(converter_ctx *ctx, json_object *, json_object **response)
{
    cmd_version version = {};
    if (bridge_cmd_agent_version(ctx, &version) < 0) {
        BRIDGE_ERROR("failed to get SNMP agent version");
        return;
    }
    if (knows_address_only(version))
        get_ping_address(ctx, response);
    else
        get_ping_server(ctx, response);
}
