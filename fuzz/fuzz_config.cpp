#include "fuzz_config.h"

#include "fuzz.h"

#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

std::unique_ptr<bridge_config_root> fuzz_config_with_defaults()
{
    static const bridge_config_root defaults = {
        .ns = {.type = "sarnivel", .skip_secure_cert_set = true, .type_set = true},
        .geoloc = {.topic = "gateway/geoloc", .skip_secure_cert_set = true, .topic_set = true},
        .snmp = {.agent_addr = "127.0.0.1", .agent_addr_set = true},
        .rev_ssh = {.local_port = 22, .timeout = 300, .local_port_set = true, .timeout_set = true},
    };
    auto root = std::make_unique<bridge_config_root>();
    memcpy(root.get(), &defaults, sizeof(defaults)); /* what lies between the fields, too */
    return root;
}

bool fuzz_config_same(const bridge_config_root &a, const bridge_config_root &b)
{
    return memcmp(&a, &b, sizeof(a)) == 0;
}

template <size_t... Sizes> static void check_texts(const char (&...texts)[Sizes])
{
    FUZZ_REQUIRE(((strnlen(texts, Sizes) < Sizes) && ...));
}

template <typename... Flags> static void check_flags(const Flags &...flags)
{
    const auto is_flag = [](const bool &flag) {
        uint8_t byte = 0;
        memcpy(&byte, &flag, sizeof(byte));
        return byte <= 1;
    };
    FUZZ_REQUIRE((is_flag(flags) && ...));
}

void fuzz_config_check(const bridge_config_root &root)
{
    const auto &[ns, geo, oam, perf, snmp, ssh, sec, gen, log_to_stderr] = root;
    check_texts(ns.url, ns.gw_user, ns.gw_pass, ns.type, geo.url, geo.gw_user, geo.gw_pass, geo.topic,
                oam.url, oam.gw_user, oam.gw_pass, snmp.agent_addr, snmp.community, snmp.mib_dir,
                snmp.trap_transport, sec.private_key, sec.bridge_cert, gen.client_id, gen.gw_mac,
                gen.state_dir);
    check_flags(ns.skip_secure_cert, ns.url_set, ns.gw_user_set, ns.gw_pass_set, ns.skip_secure_cert_set,
                ns.type_set, geo.skip_secure_cert, geo.url_set, geo.gw_user_set, geo.gw_pass_set,
                geo.skip_secure_cert_set, geo.topic_set, oam.skip_secure_cert, oam.url_set, oam.gw_user_set,
                oam.gw_pass_set, oam.skip_secure_cert_set, perf.battery_reporting_period_mins_set,
                ssh.local_port_set, log_to_stderr);
    FUZZ_REQUIRE(!ns.ns_enabled && !geo.geoloc_enabled && !oam.oam_enabled); /* no file says these */
}

fuzz_memory_file::fuzz_memory_file() : fd_(memfd_create("configuration", MFD_CLOEXEC))
{
    FUZZ_REQUIRE(fd_ >= 0);
    path_ = "/proc/self/fd/" + std::to_string(fd_);
}

fuzz_memory_file::~fuzz_memory_file()
{
    close(fd_);
}

void fuzz_memory_file::replace(std::string_view content) const
{
    FUZZ_REQUIRE(ftruncate(fd_, 0) == 0);
    FUZZ_REQUIRE(pwrite(fd_, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()));
}
