/* The configuration record: defaults, the choice of the file form, and what follows from the values. */
#include "common/bridge_config.h"

#include "common/bridge_config_processor_legacy.h"
#include "common/bridge_config_processor_toml.h"
#include "common/bridge_log.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fnmatch.h>
#include <string_view>

static struct {
    bool initialized;
    bridge_config_root root;
} ctx;

/* The largest record of the process: it is copied at load, not built on the stack. */
static constexpr bridge_config_root DEFAULTS = {
    .ns = {.type = "sarnivel", .skip_secure_cert_set = true, .type_set = true},
    .geoloc = {.topic = "gateway/geoloc", .skip_secure_cert_set = true, .topic_set = true},
    .oam = {.skip_secure_cert_set = true},
    .performance = {.battery_reporting_period_mins = 60},
    .snmp = {.agent_addr = "127.0.0.1",
             .mib_dir = "/usr/share/snmp/mibs",
             .agent_addr_set = true,
             .mib_dir_set = true,
             .trap_transport = "udp:1800",
             .trap_transport_set = true},
    .rev_ssh = {.local_port = 22, .timeout = 300, .local_port_set = true, .timeout_set = true},
    .generic = {.semtech_udp_listen_port = 1780,
                .semtech_udp_listen_port_set = true,
                .mqtt_disconnect_timeout = 10000,
                .mqtt_keepalive_interval = 60,
                .gw_events_interval = 30,
                .state_dir = "/var/lib/sarnivel-mqtt-bridge/",
                .mqtt_disconnect_timeout_set = true,
                .state_dir_set = true,
                .mqtt_keepalive_interval_set = true,
                .gw_events_interval_set = true},
};

struct ns_type_name {
    std::string_view name;
    bridge_ns_type type;
};

/* The names accepted for the network server's dialect, compared exactly. */
/* clang-format off */
static constexpr ns_type_name NS_TYPE_NAMES[] = {
    {"sarnivel",      NS_TYPE_SNVNS},
    {"vellmar_v2",    NS_TYPE_CHIRPSTACK_V2},
    {"chirpstack_v2", NS_TYPE_CHIRPSTACK_V2},
    {"vellmar",       NS_TYPE_CHIRPSTACK_V3},
    {"chirpstack",    NS_TYPE_CHIRPSTACK_V3},
};
/* clang-format on */

static const ns_type_name *find_ns_type(std::string_view name)
{
    for (const ns_type_name &row : NS_TYPE_NAMES) {
        if (row.name == name)
            return &row;
    }
    return nullptr;
}

static int process_file(const bridge_args *args)
{
    if (args->config_path == nullptr) {
        BRIDGE_ERROR("no configuration file is given");
        return -1;
    }
    if (fnmatch("*.toml", args->config_path, 0) == 0) {
        BRIDGE_DEBUG("detected TOML configuration file");
        return bridge_config_build_proc_toml(&ctx.root, args);
    }
    if (fnmatch("*.conf", args->config_path, 0) == 0) {
        BRIDGE_DEBUG("detected deprecated configuration file");
        return bridge_config_build_proc_legacy(&ctx.root, args);
    }
    BRIDGE_ERROR("unrecognized configuration file type");
    return -1;
}

/* The case of the MAC follows the dialect's text, whether or not the endpoint is in use. */
static void normalise_gw_mac()
{
    const ns_type_name *row = find_ns_type(ctx.root.ns.type);
    const bool lower = row != nullptr && row->type != NS_TYPE_SNVNS;
    for (char *c = ctx.root.generic.gw_mac; *c != '\0'; c++) {
        const auto byte = static_cast<unsigned char>(*c);
        *c = static_cast<char>(lower ? tolower(byte) : toupper(byte));
    }
}

/* The native network server speaks for operations too, unless these have a server of their own. The control
 * plane then runs even with --no-snmp, which turns off only a server of its own: operators rely on it. */
static void borrow_ns_credentials()
{
    BRIDGE_DEBUG("using Sarnivel NS credentials for OA&M functionality");
    auto &oam = ctx.root.oam;
    const auto &ns = ctx.root.ns;
    memcpy(oam.url, ns.url, sizeof(oam.url));
    memcpy(oam.gw_user, ns.gw_user, sizeof(oam.gw_user));
    memcpy(oam.gw_pass, ns.gw_pass, sizeof(oam.gw_pass));
    oam.skip_secure_cert = ns.skip_secure_cert;
    oam.oam_enabled = ns.ns_enabled;
    oam.url_set = ns.url_set;
    oam.gw_user_set = ns.gw_user_set;
    oam.gw_pass_set = ns.gw_pass_set;
    oam.skip_secure_cert_set = ns.skip_secure_cert_set;
}

static void enable_ns()
{
    auto &ns = ctx.root.ns;
    const ns_type_name *row = find_ns_type(ns.type);
    if (row == nullptr) {
        BRIDGE_ERROR("invalid NS type: %s", ns.type);
        exit(1);
    }
    ns.ns_type = row->type;
    ns.type_set = true;
    ns.ns_enabled = true;
    if (!ctx.root.oam.url_set && ns.ns_type == NS_TYPE_SNVNS)
        borrow_ns_credentials();
}

static void require_positive(uint32_t value, const char *message)
{
    if (value == 0) {
        BRIDGE_ERROR("%s", message);
        exit(1);
    }
}

int bridge_config_load(const bridge_args *args)
{
    BRIDGE_ASSERT(args);
    BRIDGE_ASSERT(!ctx.initialized);

    ctx.root = DEFAULTS;
    const int result = process_file(args);
    if (result < 0)
        return result;

    normalise_gw_mac();
    ctx.root.oam.oam_enabled = ctx.root.oam.url_set && !args->no_snmp;
    if (ctx.root.ns.url_set && !args->no_udp)
        enable_ns();
    ctx.root.geoloc.geoloc_enabled = ctx.root.geoloc.url_set;
    require_positive(ctx.root.generic.mqtt_keepalive_interval,
                     "invalid value for mqtt_keepalive_interval: must be greater than 0");
    require_positive(ctx.root.generic.mqtt_disconnect_timeout,
                     "invalid value for mqtt_disconnect_timeout: must be greater than 0");

    ctx.root.log_to_stderr = args->log_to_stderr;
    ctx.initialized = true;
    return 0;
}

void bridge_config_unload()
{
    BRIDGE_ASSERT(ctx.initialized);
    ctx.initialized = false;
}

const bridge_config_root *bridge_config_get_root_checked()
{
    BRIDGE_ASSERT(ctx.initialized);
    return &ctx.root;
}

const char *config_get_ns_url(const bridge_config_root *root_cfg)
{
    BRIDGE_ASSERT(root_cfg);
    return root_cfg->ns.url;
}

const char *config_get_gw_user(const bridge_config_root *root_cfg)
{
    BRIDGE_ASSERT(root_cfg);
    return root_cfg->ns.gw_user;
}

const char *config_get_gw_pass(const bridge_config_root *root_cfg)
{
    BRIDGE_ASSERT(root_cfg);
    return root_cfg->ns.gw_pass;
}

bool config_get_ns_enabled(const bridge_config_root *root_cfg)
{
    BRIDGE_ASSERT(root_cfg);
    return root_cfg->ns.ns_enabled;
}

bool config_get_ns_cert_validation_enabled(const bridge_config_root *root_cfg)
{
    BRIDGE_ASSERT(root_cfg);
    return !root_cfg->ns.skip_secure_cert;
}

const char *config_get_private_key_path(const bridge_config_root *root_cfg)
{
    BRIDGE_ASSERT(root_cfg);
    return root_cfg->security.private_key;
}

const char *config_get_cert_path(const bridge_config_root *root_cfg)
{
    BRIDGE_ASSERT(root_cfg);
    return root_cfg->security.bridge_cert;
}

const char *config_get_oam_scs_url(const bridge_config_root *root_cfg)
{
    BRIDGE_ASSERT(root_cfg);
    return root_cfg->oam.url;
}

const char *config_get_oam_scs_gw_user(const bridge_config_root *root_cfg)
{
    BRIDGE_ASSERT(root_cfg);
    return root_cfg->oam.gw_user;
}

const char *config_get_oam_scs_gw_pass(const bridge_config_root *root_cfg)
{
    BRIDGE_ASSERT(root_cfg);
    return root_cfg->oam.gw_pass;
}

bool config_get_oam_scs_cert_validation_enabled(const bridge_config_root *root_cfg)
{
    BRIDGE_ASSERT(root_cfg);
    return !root_cfg->oam.skip_secure_cert;
}

bool config_get_oam_scs_enabled(const bridge_config_root *root_cfg)
{
    BRIDGE_ASSERT(root_cfg);
    return root_cfg->oam.oam_enabled;
}

const char *config_get_geoloc_url(const bridge_config_root *root_cfg)
{
    BRIDGE_ASSERT(root_cfg);
    return root_cfg->geoloc.url;
}

const char *config_get_geoloc_gw_user(const bridge_config_root *root_cfg)
{
    BRIDGE_ASSERT(root_cfg);
    return root_cfg->geoloc.gw_user;
}

const char *config_get_geoloc_gw_pass(const bridge_config_root *root_cfg)
{
    BRIDGE_ASSERT(root_cfg);
    return root_cfg->geoloc.gw_pass;
}

bool config_get_geoloc_cert_validation_enabled(const bridge_config_root *root_cfg)
{
    BRIDGE_ASSERT(root_cfg);
    return !root_cfg->geoloc.skip_secure_cert;
}

bool config_get_geoloc_enabled(const bridge_config_root *root_cfg)
{
    BRIDGE_ASSERT(root_cfg);
    return root_cfg->geoloc.geoloc_enabled;
}
