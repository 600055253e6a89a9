/* A folder of configuration files of a test's own, and the record as text. */
#ifndef CONFIG_FOLDER_H
#define CONFIG_FOLDER_H

#include "common/bridge_config.h"
#include "config/captured_log.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

class config_folder
{
  public:
    config_folder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "bridge_config_XXXXXX").string();
        const char *made = mkdtemp(pattern.data());
        EXPECT_NE(made, nullptr) << pattern;
        path_ = pattern;
    }
    ~config_folder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    config_folder(const config_folder &) = delete;
    config_folder &operator=(const config_folder &) = delete;

    std::string path(std::string_view name) const
    {
        return join({path_, "/", name});
    }

    std::string write(std::string_view name, std::string_view content) const
    {
        std::ofstream file(path(name), std::ios::binary);
        file << content;
        file.close();
        EXPECT_TRUE(file) << path(name);
        return path(name);
    }

    std::string link(std::string_view name, std::string_view target) const
    {
        std::filesystem::create_symlink(path(target), path(name));
        return path(name);
    }

  private:
    std::string path_;
};

/* What no configuration can leave out. */
inline constexpr std::string_view REQUIRED =
    "[generic]\nclient_id = \"gateway-7\"\ngw_mac = \"0016c001ff10abcd\"\n";

/* An "aux" section that includes these files of the folder. */
inline std::string includes(const config_folder &folder, std::initializer_list<std::string_view> names)
{
    std::string text = "[aux]\nincludes = [";
    for (std::string_view name : names)
        text += join({"\"", folder.path(name), "\", "});
    return text + "]\n";
}

/* Every field of the record in its order, one a line. */
inline std::vector<std::string> describe(const bridge_config_root &root)
{
    std::vector<std::string> lines;
    const auto text = [&](const char *name, const char *value) { lines.push_back(join({name, "=", value})); };
    const auto number = [&](const char *name, uint32_t value) { text(name, std::to_string(value).c_str()); };
    const auto &[ns, geoloc, oam, performance, snmp, rev_ssh, security, generic, log_to_stderr] = root;

    number("ns.ns_enabled", ns.ns_enabled);
    text("ns.url", ns.url);
    text("ns.gw_user", ns.gw_user);
    text("ns.gw_pass", ns.gw_pass);
    number("ns.skip_secure_cert", ns.skip_secure_cert);
    number("ns.ns_type", ns.ns_type);
    text("ns.type", ns.type);
    number("ns.url_set", ns.url_set);
    number("ns.gw_user_set", ns.gw_user_set);
    number("ns.gw_pass_set", ns.gw_pass_set);
    number("ns.skip_secure_cert_set", ns.skip_secure_cert_set);
    number("ns.type_set", ns.type_set);

    number("geoloc.geoloc_enabled", geoloc.geoloc_enabled);
    text("geoloc.url", geoloc.url);
    text("geoloc.gw_user", geoloc.gw_user);
    text("geoloc.gw_pass", geoloc.gw_pass);
    number("geoloc.skip_secure_cert", geoloc.skip_secure_cert);
    text("geoloc.topic", geoloc.topic);
    number("geoloc.url_set", geoloc.url_set);
    number("geoloc.gw_user_set", geoloc.gw_user_set);
    number("geoloc.gw_pass_set", geoloc.gw_pass_set);
    number("geoloc.skip_secure_cert_set", geoloc.skip_secure_cert_set);
    number("geoloc.topic_set", geoloc.topic_set);

    number("oam.oam_enabled", oam.oam_enabled);
    text("oam.url", oam.url);
    text("oam.gw_user", oam.gw_user);
    text("oam.gw_pass", oam.gw_pass);
    number("oam.skip_secure_cert", oam.skip_secure_cert);
    number("oam.url_set", oam.url_set);
    number("oam.gw_user_set", oam.gw_user_set);
    number("oam.gw_pass_set", oam.gw_pass_set);
    number("oam.skip_secure_cert_set", oam.skip_secure_cert_set);

    number("performance.battery_reporting_period_mins", performance.battery_reporting_period_mins);
    number("performance.battery_reporting_period_mins_set", performance.battery_reporting_period_mins_set);

    text("snmp.agent_addr", snmp.agent_addr);
    text("snmp.community", snmp.community);
    text("snmp.mib_dir", snmp.mib_dir);
    number("snmp.agent_addr_set", snmp.agent_addr_set);
    number("snmp.community_set", snmp.community_set);
    number("snmp.mib_dir_set", snmp.mib_dir_set);
    text("snmp.trap_transport", snmp.trap_transport);
    number("snmp.trap_transport_set", snmp.trap_transport_set);

    number("rev_ssh.local_port", rev_ssh.local_port);
    number("rev_ssh.timeout", rev_ssh.timeout);
    number("rev_ssh.local_port_set", rev_ssh.local_port_set);
    number("rev_ssh.timeout_set", rev_ssh.timeout_set);

    text("security.private_key", security.private_key);
    text("security.bridge_cert", security.bridge_cert);
    number("security.private_key_set", security.private_key_set);
    number("security.bridge_cert_set", security.bridge_cert_set);

    text("generic.client_id", generic.client_id);
    text("generic.gw_mac", generic.gw_mac);
    number("generic.status_http_port", generic.status_http_port);
    number("generic.semtech_udp_listen_port", generic.semtech_udp_listen_port);
    number("generic.semtech_udp_listen_port_set", generic.semtech_udp_listen_port_set);
    number("generic.mqtt_disconnect_timeout", generic.mqtt_disconnect_timeout);
    number("generic.mqtt_keepalive_interval", generic.mqtt_keepalive_interval);
    number("generic.gw_events_interval", generic.gw_events_interval);
    text("generic.state_dir", generic.state_dir);
    number("generic.mqtt_disconnect_timeout_set", generic.mqtt_disconnect_timeout_set);
    number("generic.status_http_port_set", generic.status_http_port_set);
    number("generic.state_dir_set", generic.state_dir_set);
    number("generic.mqtt_keepalive_interval_set", generic.mqtt_keepalive_interval_set);
    number("generic.gw_events_interval_set", generic.gw_events_interval_set);

    number("log_to_stderr", log_to_stderr);
    return lines;
}

#endif
