/* Walks a table of sections and entries over the configuration file and over what it includes. A file's own
 * keys come first and its includes after them, so an included file overrides the one that includes it. */
#include "common/bridge_config_processor_toml.h"

#include "common/bridge_config.h"
#include "common/bridge_config_entry.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "common/bridge_toml.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <sys/stat.h>

struct bridge_cfg_section {
    const char *name;
    bridge_cfg_entry *entries;
    uint32_t count;
};

/* A file that is open in the chain of includes; an inode of 0 marks a free slot. */
struct bridge_cfg_file_id {
    uint32_t inode;
    uint32_t device;
};

static constexpr size_t MAX_OPEN_FILES = 64;
static constexpr size_t PARSE_ERROR_SIZE = 256;

using file_owned = std::unique_ptr<FILE, bridge_release<fclose>>;
using toml_owned = std::unique_ptr<bridge_toml_file, bridge_release<bridge_toml_free>>;
using text_owned = std::unique_ptr<char, bridge_release<free>>;

static int parse_text(const bridge_toml_raw *raw, bridge_cfg_entry *entry)
{
    char *value = nullptr;
    const int result = bridge_toml_to_string(raw, &value);
    const text_owned owned(value);
    if (value == nullptr) {
        BRIDGE_ERROR("failed to allocate TOML string for parameter: %s", entry->key);
        return -1;
    }
    if (result != 0) {
        BRIDGE_ERROR("failed to convert %s config parameter into string", entry->key);
        return -1;
    }
    const size_t length = strnlen(value, entry->value_size - 1);
    char *field = static_cast<char *>(entry->value);
    memcpy(field, value, length);
    field[length] = '\0';
    return 0;
}

static int parse_bool(const bridge_toml_raw *raw, bridge_cfg_entry *entry)
{
    int value = 0;
    if (bridge_toml_to_bool(raw, &value) != 0) {
        BRIDGE_ERROR("failed to convert %s config parameter into boolean", entry->key);
        return -1;
    }
    *static_cast<bool *>(entry->value) = value != 0;
    return 0;
}

/* Keeps the low 32 bits, without a message for a value beyond them. */
static int parse_integer(const bridge_toml_raw *raw, bridge_cfg_entry *entry)
{
    int64_t value = 0;
    if (bridge_toml_to_int(raw, &value) != 0) {
        BRIDGE_ERROR("failed to convert %s config parameter into integer", entry->key);
        return -1;
    }
    if (entry->type == CFG_TYPE_UINT && value < 0) {
        BRIDGE_ERROR("expected unsigned type for %s configuration entry", entry->key);
        return -1;
    }
    *static_cast<uint32_t *>(entry->value) = static_cast<uint32_t>(value);
    return 0;
}

static int parse_double(const bridge_toml_raw *raw, bridge_cfg_entry *entry)
{
    if (bridge_toml_to_double(raw, static_cast<double *>(entry->value)) != 0) {
        BRIDGE_ERROR("failed to convert %s config parameter into double", entry->key);
        return -1;
    }
    return 0;
}

static int parse_cfg_entry(const bridge_toml_raw *raw_toml, bridge_cfg_entry *entry)
{
    BRIDGE_ASSERT(raw_toml);
    BRIDGE_ASSERT(entry);
    switch (entry->type) {
    case CFG_TYPE_STRING:
    case CFG_TYPE_SECRET:
        return parse_text(raw_toml, entry);
    case CFG_TYPE_BOOL:
        return parse_bool(raw_toml, entry);
    case CFG_TYPE_UINT:
    case CFG_TYPE_INT:
        return parse_integer(raw_toml, entry);
    case CFG_TYPE_DOUBLE:
        return parse_double(raw_toml, entry);
    }
    BRIDGE_ASSERT_TEXT(false, "0");
    return -1;
}

/* A cut inode is compared as cut; a device number beyond 32 bits equals none. */
static bool is_open(std::span<const bridge_cfg_file_id> visited, const struct stat &status)
{
    for (const bridge_cfg_file_id &slot : visited) {
        if (slot.inode != 0 && slot.inode == static_cast<uint32_t>(status.st_ino) &&
            slot.device == status.st_dev)
            return true;
    }
    return false;
}

/* Returns the slot taken; with every slot taken nothing is stored, and the answer is the first one. */
static size_t remember_file(std::span<bridge_cfg_file_id> visited, const struct stat &status)
{
    for (size_t i = 0; i < visited.size(); i++) {
        if (visited[i].inode == 0) {
            visited[i] = {.inode = static_cast<uint32_t>(status.st_ino),
                          .device = static_cast<uint32_t>(status.st_dev)};
            return i;
        }
    }
    return 0;
}

static int apply_section(const bridge_toml_table *table, const bridge_cfg_section &section)
{
    for (bridge_cfg_entry &entry : std::span(section.entries, section.count)) {
        const bridge_toml_raw *raw = bridge_toml_raw_in(table, entry.key);
        if (raw == nullptr) {
            BRIDGE_DEBUG("parameter %s is missing in the configuration file", entry.key);
            continue;
        }
        if (entry.found)
            BRIDGE_DEBUG(
                "cfg section: [%-25s] entry: [%-25s] is being overriden by current configuration file",
                section.name, entry.key);
        const int result = parse_cfg_entry(raw, &entry);
        if (result < 0) {
            BRIDGE_ERROR("failed to parse parameter: %s", entry.key);
            return result;
        }
        entry.found = true;
    }
    return 0;
}

static int bridge_config_process_toml_file(const char *parent_path, const char *path,
                                           bridge_cfg_section *sections, uint32_t section_count,
                                           bridge_cfg_file_id *visited, uint32_t visited_size);

struct toml_walk {
    const char *path;
    std::span<bridge_cfg_section> sections;
    std::span<bridge_cfg_file_id> visited;
};

static int process_includes(const bridge_toml_file *file, const toml_walk &walk)
{
    const bridge_toml_table *aux = bridge_toml_table_in(file, "aux");
    if (aux == nullptr)
        return 0;
    const bridge_toml_array *includes = bridge_toml_array_in(aux, "includes");
    if (includes == nullptr) {
        BRIDGE_DEBUG("no include array is present in this configuration file");
        return 0;
    }
    for (size_t i = 0; i < bridge_toml_array_size(includes); i++) {
        const bridge_toml_raw *inc_item = bridge_toml_raw_at(includes, i);
        BRIDGE_ASSERT(inc_item);
        char *item = nullptr;
        int result = bridge_toml_to_string(inc_item, &item);
        const text_owned owned(item);
        if (result != 0) {
            char described[64];
            bridge_toml_describe(inc_item, described, sizeof(described));
            BRIDGE_ERROR("failed to parse include item: %s to valid string", described);
            return result;
        }
        result = bridge_config_process_toml_file(
            walk.path, item, walk.sections.data(), static_cast<uint32_t>(walk.sections.size()),
            walk.visited.data(), static_cast<uint32_t>(walk.visited.size()));
        if (result < 0)
            return result;
    }
    return 0;
}

static int apply_file(const bridge_toml_file *file, const toml_walk &walk)
{
    for (const bridge_cfg_section &section : walk.sections) {
        const bridge_toml_table *table = bridge_toml_table_in(file, section.name);
        if (table == nullptr) {
            BRIDGE_DEBUG("section %s is missing in the configuration file", section.name);
            continue;
        }
        const int result = apply_section(table, section);
        if (result < 0)
            return result;
    }
    return process_includes(file, walk);
}

/* The chain holds only the files now open: one file may be included twice, but never by itself. */
static int check_cycle(std::span<const bridge_cfg_file_id> visited, const struct stat &status,
                       const char *parent_path, const char *path)
{
    if (parent_path == nullptr || !is_open(visited, status))
        return 0;
    BRIDGE_ERROR("detected configuration file circular dependency. Check your includes.");
    BRIDGE_ERROR("this file: %s was most recently referenced from: %s", path, parent_path);
    BRIDGE_DEBUG("device: %llu inode: %llu", static_cast<unsigned long long>(status.st_dev),
                 static_cast<unsigned long long>(status.st_ino));
    return -1;
}

static int bridge_config_process_toml_file(const char *parent_path, const char *path,
                                           bridge_cfg_section *sections, uint32_t section_count,
                                           bridge_cfg_file_id *visited, uint32_t visited_size)
{
    BRIDGE_ASSERT(path);
    BRIDGE_DEBUG("processing configuration file: %s", path);
    file_owned input(fopen(path, "re"));
    if (!input) {
        BRIDGE_ERROR("failed to open configuration file");
        return -1;
    }
    struct stat status = {};
    if (fstat(fileno(input.get()), &status) != 0) {
        BRIDGE_ERROR("failed to perform fstat() call on the configuration file");
        return -1;
    }
    if (check_cycle({visited, visited_size}, status, parent_path, path) < 0)
        return -1;

    const size_t slot = remember_file({visited, visited_size}, status);
    char error[PARSE_ERROR_SIZE] = "";
    const toml_owned parsed(bridge_toml_parse_file(input.get(), error, sizeof(error)));
    input.reset();
    int result = -1;
    if (parsed)
        result = apply_file(parsed.get(), {path, {sections, section_count}, {visited, visited_size}});
    else
        BRIDGE_ERROR("failed to parse configuration file: %s", error);
    visited[slot] = {};
    return result;
}

static void dump_entry(const bridge_cfg_section &section, const bridge_cfg_entry &entry)
{
    if (!entry.found && entry.set_flag != nullptr && !*entry.set_flag) {
        BRIDGE_TRACE("cfg section: [%-8s], entry: [%-23s] -> <empty>", section.name, entry.key);
        return;
    }
    switch (entry.type) {
    case CFG_TYPE_STRING:
        BRIDGE_TRACE("cfg section: [%-8s], entry: [%-23s] -> %s", section.name, entry.key,
                     static_cast<const char *>(entry.value));
        break;
    case CFG_TYPE_SECRET:
        BRIDGE_TRACE("cfg section: [%-8s], entry: [%-23s] -> *****", section.name, entry.key);
        break;
    case CFG_TYPE_BOOL:
        BRIDGE_TRACE("cfg section: [%-8s], entry: [%-23s] -> %d", section.name, entry.key,
                     *static_cast<const bool *>(entry.value) ? 1 : 0);
        break;
    case CFG_TYPE_UINT:
    case CFG_TYPE_INT:
        BRIDGE_TRACE("cfg section: [%-8s], entry: [%-23s] -> %u", section.name, entry.key,
                     *static_cast<const uint32_t *>(entry.value));
        break;
    case CFG_TYPE_DOUBLE:
        BRIDGE_TRACE("cfg section: [%-8s], entry: [%-23s] -> %f", section.name, entry.key,
                     *static_cast<const double *>(entry.value));
        break;
    }
}

static int finish_entry(const bridge_cfg_section &section, const bridge_cfg_entry &entry)
{
    dump_entry(section, entry);
    if (entry.set_flag != nullptr) {
        if (entry.found)
            *entry.set_flag = true;
        return 0;
    }
    if (entry.found)
        return 0;
    BRIDGE_ERROR("missing configuration value for %s in section: %s", entry.key, section.name);
    return -1;
}

static int finish_entries(std::span<const bridge_cfg_section> sections)
{
    for (const bridge_cfg_section &section : sections) {
        const bridge_cfg_section *s = &section;
        BRIDGE_ASSERT(s->name);
        for (const bridge_cfg_entry &entry : std::span(section.entries, section.count)) {
            const bridge_cfg_entry *e = &entry;
            BRIDGE_ASSERT(e->key);
            if (finish_entry(section, entry) < 0)
                return -1;
        }
    }
    return 0;
}

template <size_t Size> static bridge_cfg_entry text(const char *key, char (&value)[Size], bool *set_flag)
{
    return {key, false, CFG_TYPE_STRING, value, Size, set_flag};
}

static bridge_cfg_entry boolean(const char *key, bool *value, bool *set_flag)
{
    return {key, false, CFG_TYPE_BOOL, value, 0, set_flag};
}

static bridge_cfg_entry number(const char *key, uint32_t *value, bool *set_flag)
{
    return {key, false, CFG_TYPE_UINT, value, 0, set_flag};
}

int bridge_config_build_proc_toml(bridge_config_root *config_root, const bridge_args *args)
{
    BRIDGE_ASSERT(args);
    BRIDGE_ASSERT(config_root);
    auto &[ns, geo, oam, perf, snmp, ssh, sec, gen, log_to_stderr] = *config_root;
    (void)log_to_stderr;

    /* A null flag marks a required key. */
    /* clang-format off */
    bridge_cfg_entry ns_entries[] = {
        text   ("url",              ns.url,               &ns.url_set),
        text   ("type",             ns.type,              &ns.type_set),
        text   ("gw_user",          ns.gw_user,           &ns.gw_user_set),
        text   ("gw_pass",          ns.gw_pass,           &ns.gw_pass_set),
        boolean("skip_secure_cert", &ns.skip_secure_cert, &ns.skip_secure_cert_set),
    };
    bridge_cfg_entry oam_entries[] = {
        text   ("url",              oam.url,               &oam.url_set),
        text   ("gw_user",          oam.gw_user,           &oam.gw_user_set),
        text   ("gw_pass",          oam.gw_pass,           &oam.gw_pass_set),
        boolean("skip_secure_cert", &oam.skip_secure_cert, &oam.skip_secure_cert_set),
    };
    bridge_cfg_entry geoloc_entries[] = {
        text   ("url",              geo.url,               &geo.url_set),
        text   ("gw_user",          geo.gw_user,           &geo.gw_user_set),
        text   ("gw_pass",          geo.gw_pass,           &geo.gw_pass_set),
        boolean("skip_secure_cert", &geo.skip_secure_cert, &geo.skip_secure_cert_set),
        text   ("topic",            geo.topic,             &geo.topic_set),
    };
    bridge_cfg_entry snmp_entries[] = {
        text("agent_addr",     snmp.agent_addr,     &snmp.agent_addr_set),
        text("community",      snmp.community,      &snmp.community_set),
        text("mib_dir",        snmp.mib_dir,        &snmp.mib_dir_set),
        text("trap_transport", snmp.trap_transport, &snmp.trap_transport_set),
    };
    bridge_cfg_entry rev_ssh_entries[] = {
        number("local_port", &ssh.local_port, &ssh.local_port_set),
        number("timeout",    &ssh.timeout,    &ssh.timeout_set),
    };
    bridge_cfg_entry security_entries[] = {
        text("private_key", sec.private_key, &sec.private_key_set),
        text("bridge_cert", sec.bridge_cert, &sec.bridge_cert_set),
    };
    bridge_cfg_entry generic_entries[] = {
        text  ("client_id",               gen.client_id,                nullptr),
        text  ("gw_mac",                  gen.gw_mac,                   nullptr),
        number("status_http_port",        &gen.status_http_port,        &gen.status_http_port_set),
        number("semtech_udp_listen_port", &gen.semtech_udp_listen_port, &gen.semtech_udp_listen_port_set),
        text  ("state_dir",               gen.state_dir,                &gen.state_dir_set),
        number("mqtt_disconnect_timeout", &gen.mqtt_disconnect_timeout, &gen.mqtt_disconnect_timeout_set),
        number("mqtt_keepalive_interval", &gen.mqtt_keepalive_interval, &gen.mqtt_keepalive_interval_set),
        number("gw_events_interval",      &gen.gw_events_interval,      &gen.gw_events_interval_set),
    };
    bridge_cfg_entry performance_entries[] = {
        number("battery_reporting_period_mins", &perf.battery_reporting_period_mins, &perf.battery_reporting_period_mins_set),
    };
    bridge_cfg_section sections[] = {
        {"ns",                     ns_entries,          std::size(ns_entries)},
        {"oam",                    oam_entries,         std::size(oam_entries)},
        {"geoloc",                 geoloc_entries,      std::size(geoloc_entries)},
        {"snmp",                   snmp_entries,        std::size(snmp_entries)},
        {"rev_ssh",                rev_ssh_entries,     std::size(rev_ssh_entries)},
        {"security",               security_entries,    std::size(security_entries)},
        {"generic",                generic_entries,     std::size(generic_entries)},
        {"performance_management", performance_entries, std::size(performance_entries)},
    };
    /* clang-format on */

    std::array<bridge_cfg_file_id, MAX_OPEN_FILES> visited = {};
    const int result =
        bridge_config_process_toml_file(nullptr, args->config_path, sections, std::size(sections),
                                        visited.data(), static_cast<uint32_t>(visited.size()));
    if (result < 0)
        return result;
    return finish_entries(sections);
}
