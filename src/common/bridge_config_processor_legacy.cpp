/* Reads the flat form line by line against a table of keys, each with the parser of its values. */
#include "common/bridge_config_processor_legacy.h"

#include "common/bridge_config.h"
#include "common/bridge_config_entry.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <span>

/* What lies behind a flag that is written at the width of an integer: other flags, or a text. */
struct legacy_overrun {
    bool *flags[3];
    char *text;
};

struct bridge_cfg_legacy_entry {
    bridge_cfg_entry item;
    int (*parser)(bridge_cfg_legacy_entry *entry, const char *value_string);
    legacy_overrun overrun;
};

struct bridge_cfg_legacy_section {
    const char *name;
    std::span<bridge_cfg_legacy_entry> entries;
};

static constexpr uint32_t PORT_LIMIT = 65536;
static constexpr const char *BLANKS = "\t\n ";

using file_owned = std::unique_ptr<FILE, bridge_release<fclose>>;
using text_owned = std::unique_ptr<char, bridge_release<free>>;

/* ---- parsers ---- */

static int parse_text(bridge_cfg_legacy_entry *entry, const char *value_string)
{
    BRIDGE_ASSERT(entry);
    BRIDGE_ASSERT(value_string);
    const size_t length = strlen(value_string);
    if (length >= entry->item.value_size) {
        BRIDGE_WARN("config value %s is too big to fit in internal buffer", value_string);
        return -1;
    }
    memcpy(entry->item.value, value_string, length + 1);
    return 0;
}

/* Decimal, 0x and leading-zero octal forms; what does not fit takes the nearest number of 32 bits, as the
 * gateway's own `long` has it. */
static int convert_number(const char *value_string, int32_t *number)
{
    char *rest = nullptr;
    const long value = strtol(value_string, &rest, 0);
    if (*rest != '\0') {
        BRIDGE_WARN("config value %s cannot be converted to valid int", value_string);
        return -1;
    }
    if (value > std::numeric_limits<int32_t>::max())
        *number = std::numeric_limits<int32_t>::max();
    else if (value < std::numeric_limits<int32_t>::min())
        *number = std::numeric_limits<int32_t>::min();
    else
        *number = static_cast<int32_t>(value);
    return 0;
}

/* The value's upper bytes fall on what lies behind the flag: files in the field name the geolocation topic
 * after the flag for that reason, and one that names it before loses it. */
static void overrun_neighbours(const legacy_overrun &overrun, uint32_t number)
{
    for (size_t i = 0; i < std::size(overrun.flags); i++) {
        const auto byte = static_cast<uint8_t>(number >> (8 * (i + 1)));
        if (overrun.flags[i] != nullptr)
            *overrun.flags[i] = byte != 0;
        if (overrun.text != nullptr)
            overrun.text[i] = static_cast<char>(byte);
    }
}

static int parse_integer(bridge_cfg_legacy_entry *entry, const char *value_string)
{
    BRIDGE_ASSERT(entry);
    BRIDGE_ASSERT(value_string);
    int32_t number = 0;
    if (convert_number(value_string, &number) < 0)
        return -1;
    *static_cast<bool *>(entry->item.value) = static_cast<uint8_t>(number) != 0;
    overrun_neighbours(entry->overrun, static_cast<uint32_t>(number));
    return 0;
}

static int parse_unsigned(bridge_cfg_legacy_entry *entry, const char *value_string)
{
    BRIDGE_ASSERT(entry);
    BRIDGE_ASSERT(value_string);
    int32_t number = 0;
    if (convert_number(value_string, &number) < 0)
        return -1;
    if (number < 0) {
        BRIDGE_ERROR("configuration property %s must be unsigned", entry->item.key);
        return -1;
    }
    *static_cast<uint32_t *>(entry->item.value) = static_cast<uint32_t>(number);
    return 0;
}

static int parse_port(bridge_cfg_legacy_entry *entry, const char *value_string)
{
    BRIDGE_ASSERT(entry);
    BRIDGE_ASSERT(value_string);
    auto *port = static_cast<uint32_t *>(entry->item.value);
    const uint32_t old_port = *port;
    const int result = parse_unsigned(entry, value_string);
    if (result < 0)
        return result;
    if (*port >= PORT_LIMIT) {
        BRIDGE_WARN("invalid value given for port: %u", *port);
        *port = old_port;
        return -1;
    }
    return 0;
}

/* ---- reading ---- */

static bool apply_pair(std::span<bridge_cfg_legacy_section> sections, const char *key, const char *value,
                       int line_number)
{
    bool matched = false;
    for (bridge_cfg_legacy_section &section : sections) {
        for (bridge_cfg_legacy_entry &entry : section.entries) {
            const bridge_cfg_legacy_entry *e = &entry;
            if (strcmp(e->item.key, key) != 0)
                continue;
            BRIDGE_ASSERT(e->parser);
            if (entry.parser(&entry, value) < 0) {
                BRIDGE_WARN("cannot parse value for %s at line %d", key, line_number);
                continue;
            }
            entry.item.found = true;
            matched = true;
        }
    }
    return matched;
}

static void process_line(std::span<bridge_cfg_legacy_section> sections, char *line, int line_number)
{
    if (line[0] == '#')
        return;
    char *comment = strrchr(line, '#'); /* the last one: an earlier one stays in the value */
    if (comment != nullptr)
        *comment = '\0';
    char *rest = nullptr;
    const char *key = strtok_r(line, BLANKS, &rest);
    if (key == nullptr)
        return;
    const char *value = strtok_r(nullptr, BLANKS, &rest);
    if (value == nullptr) {
        BRIDGE_WARN("skipping ill-formed line at %d", line_number);
        return;
    }
    if (!apply_pair(sections, key, value, line_number))
        BRIDGE_WARN("unknown config key: %s at line %d", key, line_number);
}

static int process_file(std::span<bridge_cfg_legacy_section> sections, const char *path)
{
    const file_owned file(fopen(path, "re"));
    if (!file) {
        BRIDGE_ERROR("Failed to open configuration file");
        return -1;
    }
    char *line = nullptr;
    size_t capacity = 0;
    int line_number = 0;
    while (getline(&line, &capacity, file.get()) >= 0)
        process_line(sections, line, ++line_number);
    free(line);
    return 0;
}

/* ---- finishing ---- */

static void dump_entry(const bridge_cfg_entry *entry)
{
    BRIDGE_ASSERT_TEXT(entry != nullptr, "entry != NULL");
    if (!entry->found && entry->set_flag != nullptr && !*entry->set_flag) {
        BRIDGE_TRACE("cfg entry: [%-25s] -> <empty>", entry->key);
        return;
    }
    switch (entry->type) {
    case CFG_TYPE_STRING:
        BRIDGE_TRACE("cfg entry: [%-25s] -> %s", entry->key, static_cast<const char *>(entry->value));
        break;
    case CFG_TYPE_SECRET:
        BRIDGE_TRACE("cfg entry: [%-25s] -> *****", entry->key);
        break;
    case CFG_TYPE_BOOL:
        BRIDGE_TRACE("cfg entry: [%-25s] -> %d", entry->key,
                     *static_cast<const bool *>(entry->value) ? 1 : 0);
        break;
    case CFG_TYPE_UINT:
    case CFG_TYPE_INT:
        BRIDGE_TRACE("cfg entry: [%-25s] -> %u", entry->key, *static_cast<const uint32_t *>(entry->value));
        break;
    case CFG_TYPE_DOUBLE:
        BRIDGE_TRACE("cfg entry: [%-25s] -> %f", entry->key, *static_cast<const double *>(entry->value));
        break;
    }
}

static int finish_entries(std::span<const bridge_cfg_legacy_section> sections)
{
    for (const bridge_cfg_legacy_section &section : sections) {
        for (const bridge_cfg_legacy_entry &entry : section.entries) {
            const bridge_cfg_entry &item = entry.item;
            dump_entry(&item);
            if (item.set_flag == nullptr && !item.found) {
                BRIDGE_ERROR("missing required configuration value for %s", item.key);
                return -1;
            }
            if (item.set_flag != nullptr && item.found)
                *item.set_flag = true;
        }
    }
    return 0;
}

/* ---- the table ---- */

template <size_t Size>
static bridge_cfg_legacy_entry text(const char *key, char (&value)[Size], bool *set_flag)
{
    return {{key, false, CFG_TYPE_STRING, value, Size, set_flag}, parse_text, {}};
}

template <size_t Size>
static bridge_cfg_legacy_entry secret(const char *key, char (&value)[Size], bool *set_flag)
{
    return {{key, false, CFG_TYPE_SECRET, value, Size, set_flag}, parse_text, {}};
}

static bridge_cfg_legacy_entry flag(const char *key, bool *value, bool *set_flag,
                                    const legacy_overrun &overrun)
{
    return {{key, false, CFG_TYPE_BOOL, value, 0, set_flag}, parse_integer, overrun};
}

static bridge_cfg_legacy_entry port(const char *key, uint32_t *value, bool *set_flag)
{
    return {{key, false, CFG_TYPE_UINT, value, 0, set_flag}, parse_port, {}};
}

static bridge_cfg_legacy_entry number(const char *key, uint32_t *value, bool *set_flag)
{
    return {{key, false, CFG_TYPE_UINT, value, 0, set_flag}, parse_unsigned, {}};
}

int bridge_config_build_proc_legacy(bridge_config_root *config_root, const bridge_args *args)
{
    BRIDGE_ASSERT(args);
    BRIDGE_ASSERT(config_root);
    auto &[ns, geo, oam, perf, snmp, ssh, sec, gen, log_to_stderr] = *config_root;
    (void)perf;
    (void)log_to_stderr;

    /* A null flag marks a required key. */
    /* clang-format off */
    bridge_cfg_legacy_entry ns_entries[] = {
        text  ("ns_host",             ns.url,               &ns.url_set),
        text  ("ns_type",             ns.type,              &ns.type_set),
        secret("gw_user",             ns.gw_user,           &ns.gw_user_set),
        secret("gw_password",         ns.gw_pass,           &ns.gw_pass_set),
        flag  ("ns_skip_secure_cert", &ns.skip_secure_cert, &ns.skip_secure_cert_set, {}),
    };
    bridge_cfg_legacy_entry oam_entries[] = {
        text  ("oam_host",                oam.url,               &oam.url_set),
        secret("gw_oam_user",             oam.gw_user,           &oam.gw_user_set),
        secret("gw_oam_password",         oam.gw_pass,           &oam.gw_pass_set),
        flag  ("gw_oam_skip_secure_cert", &oam.skip_secure_cert, &oam.skip_secure_cert_set,
               {{&oam.url_set, &oam.gw_user_set, &oam.gw_pass_set}, nullptr}),
    };
    bridge_cfg_legacy_entry geoloc_entries[] = {
        text  ("geoloc_host",                geo.url,               &geo.url_set),
        secret("gw_geoloc_user",             geo.gw_user,           &geo.gw_user_set),
        secret("gw_geoloc_password",         geo.gw_pass,           &geo.gw_pass_set),
        flag  ("gw_geoloc_skip_secure_cert", &geo.skip_secure_cert, &geo.skip_secure_cert_set,
               {{}, geo.topic}),
        text  ("geoloc_topic",               geo.topic,             &geo.topic_set),
    };
    bridge_cfg_legacy_entry snmp_entries[] = {
        text("snmp_agent",     snmp.agent_addr, &snmp.agent_addr_set),
        text("snmp_community", snmp.community,  &snmp.community_set),
        text("snmp_mib_dir",   snmp.mib_dir,    &snmp.mib_dir_set),
    };
    bridge_cfg_legacy_entry rev_ssh_entries[] = {
        port("ssh_local_port",  &ssh.local_port, &ssh.local_port_set),
        port("rev_ssh_timeout", &ssh.timeout,    &ssh.timeout_set),
    };
    bridge_cfg_legacy_entry security_entries[] = {
        text("private_key", sec.private_key, &sec.private_key_set),
        text("bridge_cert", sec.bridge_cert, &sec.bridge_cert_set),
    };
    bridge_cfg_legacy_entry generic_entries[] = {
        text  ("client_id",               gen.client_id,                nullptr),
        text  ("gateway_mac",             gen.gw_mac,                   nullptr),
        port  ("status_http_port",        &gen.status_http_port,        &gen.status_http_port_set),
        port  ("semtech_udp_listen_port", &gen.semtech_udp_listen_port, &gen.semtech_udp_listen_port_set),
        text  ("state_dir",               gen.state_dir,                &gen.state_dir_set),
        port  ("mqtt_disconnect_timeout", &gen.mqtt_disconnect_timeout, &gen.mqtt_disconnect_timeout_set),
        number("mqtt_keepalive_interval", &gen.mqtt_keepalive_interval, &gen.mqtt_keepalive_interval_set),
        number("gw_events_interval",      &gen.gw_events_interval,      &gen.gw_events_interval_set),
    };
    bridge_cfg_legacy_section sections[] = {
        {"ns",       ns_entries},
        {"oam",      oam_entries},
        {"geoloc",   geoloc_entries},
        {"snmp",     snmp_entries},
        {"rev_ssh",  rev_ssh_entries},
        {"security", security_entries},
        {"generic",  generic_entries},
    };
    /* clang-format on */

    if (process_file(sections, args->config_path) < 0)
        return -1;
    return finish_entries(sections);
}
