/* The whole configuration: one record, filled once at start-up by bridge_config_load and read-only after,
 * on any thread and without a lock. */
#ifndef BRIDGE_CONFIG_H
#define BRIDGE_CONFIG_H

#include <cstdint>

struct bridge_args {
    const char *config_path; /* points into the process's arguments; null when not given */
    bool paranoid;
    bool foreground;
    bool no_snmp;
    bool no_udp;
    bool log_to_stderr;
    int32_t log_level;
};

/* Dialect of the network server. */
enum bridge_ns_type : uint32_t {
    NS_TYPE_SNVNS = 0,
    NS_TYPE_CHIRPSTACK_V2 = 1,
    NS_TYPE_CHIRPSTACK_V3 = 2,
};

/* Each bool `..._set` tells whether the value is known, from a default or from the file. */
struct bridge_config_root {
    struct {
        bool ns_enabled;
        char url[256];
        char gw_user[64];
        char gw_pass[64];
        bool skip_secure_cert;
        bridge_ns_type ns_type;
        char type[32];
        bool url_set;
        bool gw_user_set;
        bool gw_pass_set;
        bool skip_secure_cert_set;
        bool type_set;
    } ns;
    struct {
        bool geoloc_enabled;
        char url[256];
        char gw_user[64];
        char gw_pass[64];
        bool skip_secure_cert;
        char topic[256];
        bool url_set;
        bool gw_user_set;
        bool gw_pass_set;
        bool skip_secure_cert_set;
        bool topic_set;
    } geoloc;
    struct {
        bool oam_enabled;
        char url[256];
        char gw_user[64];
        char gw_pass[64];
        bool skip_secure_cert;
        bool url_set;
        bool gw_user_set;
        bool gw_pass_set;
        bool skip_secure_cert_set;
    } oam;
    struct {
        uint32_t battery_reporting_period_mins;
        bool battery_reporting_period_mins_set;
    } performance;
    struct {
        char agent_addr[32];
        char community[64];
        char mib_dir[4096];
        bool agent_addr_set;
        bool community_set;
        bool mib_dir_set;
        char trap_transport[32];
        bool trap_transport_set;
    } snmp;
    struct {
        uint32_t local_port;
        uint32_t timeout; /* seconds */
        bool local_port_set;
        bool timeout_set;
    } rev_ssh;
    struct {
        char private_key[4096];
        char bridge_cert[4096];
        bool private_key_set;
        bool bridge_cert_set;
    } security;
    struct {
        char client_id[32];
        char gw_mac[32];
        uint32_t status_http_port;
        uint32_t semtech_udp_listen_port;
        bool semtech_udp_listen_port_set;
        uint32_t mqtt_disconnect_timeout; /* validated; bridge_mqtt_disconnect has a timeout of its own */
        uint32_t mqtt_keepalive_interval; /* seconds */
        uint32_t gw_events_interval;      /* seconds */
        char state_dir[4096];
        bool mqtt_disconnect_timeout_set;
        bool status_http_port_set;
        bool state_dir_set;
        bool mqtt_keepalive_interval_set;
        bool gw_events_interval_set;
    } generic;
    bool log_to_stderr;
};

/* Fills the record from the file named in `args`. Returns 0 or a negative number; values that make no sense
 * end the process with exit status 1. */
int bridge_config_load(const bridge_args *args);
void bridge_config_unload();

/* The record; asserts that it has been loaded. */
const bridge_config_root *bridge_config_get_root_checked();

/* Columns of the MQTT endpoint table. Texts point into the record. */
const char *config_get_ns_url(const bridge_config_root *root_cfg);
const char *config_get_gw_user(const bridge_config_root *root_cfg);
const char *config_get_gw_pass(const bridge_config_root *root_cfg);
bool config_get_ns_enabled(const bridge_config_root *root_cfg);
bool config_get_ns_cert_validation_enabled(const bridge_config_root *root_cfg);
const char *config_get_private_key_path(const bridge_config_root *root_cfg);
const char *config_get_cert_path(const bridge_config_root *root_cfg);
const char *config_get_oam_scs_url(const bridge_config_root *root_cfg);
const char *config_get_oam_scs_gw_user(const bridge_config_root *root_cfg);
const char *config_get_oam_scs_gw_pass(const bridge_config_root *root_cfg);
bool config_get_oam_scs_cert_validation_enabled(const bridge_config_root *root_cfg);
bool config_get_oam_scs_enabled(const bridge_config_root *root_cfg);
const char *config_get_geoloc_url(const bridge_config_root *root_cfg);
const char *config_get_geoloc_gw_user(const bridge_config_root *root_cfg);
const char *config_get_geoloc_gw_pass(const bridge_config_root *root_cfg);
bool config_get_geoloc_cert_validation_enabled(const bridge_config_root *root_cfg);
bool config_get_geoloc_enabled(const bridge_config_root *root_cfg);

#endif
