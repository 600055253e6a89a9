/* Loading from files of the test's own: defaults, what follows from the values, and the ways out. */
#include "common/bridge_config.h"

#include "common/captured_stderr.h"
#include "config/captured_log.h"
#include "config/config_folder.h"

#include <map>

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::ExitedWithCode;
using testing::HasSubstr;

class BridgeConfig : public testing::Test
{
  protected:
    ~BridgeConfig() override
    {
        if (loaded_)
            bridge_config_unload();
    }

    int load_path(const std::string &path, bridge_args args = {})
    {
        args.config_path = path.c_str();
        const int result = bridge_config_load(&args);
        loaded_ = result >= 0;
        return result;
    }

    /* Loads these lines before the required ones, from a new file. */
    int load(std::string_view content, bridge_args args = {})
    {
        unload();
        return load_path(folder.write("bridge.toml", join({content, "\n", REQUIRED})), args);
    }

    void unload()
    {
        if (loaded_)
            bridge_config_unload();
        loaded_ = false;
    }

    static const bridge_config_root &root()
    {
        return *bridge_config_get_root_checked();
    }

    config_folder folder;
    captured_log log;

  private:
    bool loaded_ = false;
};

class BridgeConfigDeath : public BridgeConfig
{
};

/* clang-format off */
static const std::vector<std::string> DEFAULTS = {
    "ns.ns_enabled=0",     "ns.url=",          "ns.gw_user=",              "ns.gw_pass=",
    "ns.skip_secure_cert=0", "ns.ns_type=0",   "ns.type=sarnivel",         "ns.url_set=0",
    "ns.gw_user_set=0",    "ns.gw_pass_set=0", "ns.skip_secure_cert_set=1", "ns.type_set=1",
    "geoloc.geoloc_enabled=0", "geoloc.url=",  "geoloc.gw_user=",          "geoloc.gw_pass=",
    "geoloc.skip_secure_cert=0", "geoloc.topic=gateway/geoloc", "geoloc.url_set=0", "geoloc.gw_user_set=0",
    "geoloc.gw_pass_set=0", "geoloc.skip_secure_cert_set=1", "geoloc.topic_set=1",
    "oam.oam_enabled=0",   "oam.url=",         "oam.gw_user=",             "oam.gw_pass=",
    "oam.skip_secure_cert=0", "oam.url_set=0", "oam.gw_user_set=0",        "oam.gw_pass_set=0",
    "oam.skip_secure_cert_set=1",
    "performance.battery_reporting_period_mins=60", "performance.battery_reporting_period_mins_set=0",
    "snmp.agent_addr=127.0.0.1", "snmp.community=", "snmp.mib_dir=/usr/share/snmp/mibs",
    "snmp.agent_addr_set=1",
    "snmp.community_set=0", "snmp.mib_dir_set=1", "snmp.trap_transport=udp:1800", "snmp.trap_transport_set=1",
    "rev_ssh.local_port=22", "rev_ssh.timeout=300", "rev_ssh.local_port_set=1", "rev_ssh.timeout_set=1",
    "security.private_key=", "security.bridge_cert=", "security.private_key_set=0",
    "security.bridge_cert_set=0",
    "generic.client_id=gateway-7", "generic.gw_mac=0016C001FF10ABCD", "generic.status_http_port=0",
    "generic.semtech_udp_listen_port=1780", "generic.semtech_udp_listen_port_set=1",
    "generic.mqtt_disconnect_timeout=10000", "generic.mqtt_keepalive_interval=60",
    "generic.gw_events_interval=30",
    "generic.state_dir=/var/lib/sarnivel-mqtt-bridge/", "generic.mqtt_disconnect_timeout_set=1",
    "generic.status_http_port_set=0", "generic.state_dir_set=1", "generic.mqtt_keepalive_interval_set=1",
    "generic.gw_events_interval_set=1",
    "log_to_stderr=0",
};
/* clang-format on */

TEST_F(BridgeConfig, AFileWithTheRequiredKeysAloneTakesEveryDefault)
{
    ASSERT_EQ(load(""), 0);
    EXPECT_THAT(describe(root()), ElementsAreArray(DEFAULTS));
    EXPECT_THAT(log.complaints(), ElementsAre());
}

struct key_effect {
    const char *setting;               /* "section.key = value" */
    std::vector<std::string> expected; /* the lines of the record that differ from the defaults */
};

/* clang-format off */
static const key_effect KEY_EFFECTS[] = {
    {"ns.url = 'tcp://ns:1883'",        {"ns.ns_enabled=1", "ns.url=tcp://ns:1883", "ns.url_set=1",
                                         "oam.oam_enabled=1", "oam.url=tcp://ns:1883", "oam.url_set=1"}},
    {"ns.type = 'chirpstack'",          {"ns.type=chirpstack", "generic.gw_mac=0016c001ff10abcd"}},
    {"ns.gw_user = 'u'",                {"ns.gw_user=u", "ns.gw_user_set=1"}},
    {"ns.gw_pass = 'p'",                {"ns.gw_pass=p", "ns.gw_pass_set=1"}},
    {"ns.skip_secure_cert = true",      {"ns.skip_secure_cert=1"}},
    {"oam.url = 'ssl://oam:8883'",      {"oam.oam_enabled=1", "oam.url=ssl://oam:8883", "oam.url_set=1"}},
    {"oam.gw_user = 'u'",               {"oam.gw_user=u", "oam.gw_user_set=1"}},
    {"oam.gw_pass = 'p'",               {"oam.gw_pass=p", "oam.gw_pass_set=1"}},
    {"oam.skip_secure_cert = true",     {"oam.skip_secure_cert=1"}},
    {"geoloc.url = 'tcp://geo:1883'",   {"geoloc.geoloc_enabled=1", "geoloc.url=tcp://geo:1883",
                                         "geoloc.url_set=1"}},
    {"geoloc.gw_user = 'u'",            {"geoloc.gw_user=u", "geoloc.gw_user_set=1"}},
    {"geoloc.gw_pass = 'p'",            {"geoloc.gw_pass=p", "geoloc.gw_pass_set=1"}},
    {"geoloc.skip_secure_cert = true",  {"geoloc.skip_secure_cert=1"}},
    {"geoloc.topic = 'here'",           {"geoloc.topic=here"}},
    {"snmp.agent_addr = '10.0.0.1'",    {"snmp.agent_addr=10.0.0.1"}},
    {"snmp.community = 'c'",            {"snmp.community=c", "snmp.community_set=1"}},
    {"snmp.mib_dir = '/mibs'",          {"snmp.mib_dir=/mibs"}},
    {"snmp.trap_transport = 'udp:162'", {"snmp.trap_transport=udp:162"}},
    {"rev_ssh.local_port = 2222",       {"rev_ssh.local_port=2222"}},
    {"rev_ssh.timeout = 1",             {"rev_ssh.timeout=1"}},
    {"security.private_key = '/k.pem'", {"security.private_key=/k.pem", "security.private_key_set=1"}},
    {"security.bridge_cert = '/c.pem'", {"security.bridge_cert=/c.pem", "security.bridge_cert_set=1"}},
    {"generic.status_http_port = 8080", {"generic.status_http_port=8080", "generic.status_http_port_set=1"}},
    {"generic.semtech_udp_listen_port = 1700", {"generic.semtech_udp_listen_port=1700"}},
    {"generic.state_dir = '/state/'",   {"generic.state_dir=/state/"}},
    {"generic.mqtt_disconnect_timeout = 1", {"generic.mqtt_disconnect_timeout=1"}},
    {"generic.mqtt_keepalive_interval = 1", {"generic.mqtt_keepalive_interval=1"}},
    {"generic.gw_events_interval = 0",  {"generic.gw_events_interval=0"}},
    {"generic.client_id = 'other'",     {"generic.client_id=other"}},
    {"generic.gw_mac = 'aabb'",         {"generic.gw_mac=AABB"}},
    {"performance_management.battery_reporting_period_mins = 5",
        {"performance.battery_reporting_period_mins=5", "performance.battery_reporting_period_mins_set=1"}},
};
/* clang-format on */

static std::vector<std::string> differences(const std::vector<std::string> &before,
                                            const std::vector<std::string> &after)
{
    std::vector<std::string> result;
    for (size_t i = 0; i < before.size() && i < after.size(); i++) {
        if (before[i] != after[i])
            result.push_back(after[i]);
    }
    return result;
}

TEST_F(BridgeConfig, EachKeySetsItsOwnFieldAndFlagAlone)
{
    static_assert(std::size(KEY_EFFECTS) == 31);
    for (const key_effect &row : KEY_EFFECTS) {
        SCOPED_TRACE(row.setting);
        unload();
        /* The setting is made in an included file: the required keys stand in the same section at times. */
        folder.write("setting.toml", row.setting);
        const std::string path =
            folder.write("bridge.toml", join({REQUIRED, includes(folder, {"setting.toml"})}));
        ASSERT_EQ(load_path(path), 0);
        EXPECT_THAT(differences(DEFAULTS, describe(root())), ElementsAreArray(row.expected));
    }
}

TEST_F(BridgeConfig, EveryKeyInOneFileIsTaken)
{
    std::map<std::string, std::vector<std::string>> sections;
    for (const key_effect &row : KEY_EFFECTS) {
        const std::string setting = row.setting;
        const size_t dot = setting.find('.');
        sections[setting.substr(0, dot)].push_back(setting.substr(dot + 1));
    }
    std::string content;
    for (const auto &[name, settings] : sections) {
        content += join({"[", name, "]\n"});
        for (const std::string &setting : settings)
            content += join({setting, "\n"});
    }
    ASSERT_EQ(load_path(folder.write("all.toml", content), {.log_to_stderr = true}), 0);
    EXPECT_THAT(differences(DEFAULTS, describe(root())),
                ElementsAre("ns.ns_enabled=1", "ns.url=tcp://ns:1883", "ns.gw_user=u", "ns.gw_pass=p",
                            "ns.skip_secure_cert=1", "ns.ns_type=2", "ns.type=chirpstack", "ns.url_set=1",
                            "ns.gw_user_set=1", "ns.gw_pass_set=1",                                     //
                            "geoloc.geoloc_enabled=1", "geoloc.url=tcp://geo:1883", "geoloc.gw_user=u", //
                            "geoloc.gw_pass=p", "geoloc.skip_secure_cert=1", "geoloc.topic=here",
                            "geoloc.url_set=1", "geoloc.gw_user_set=1", "geoloc.gw_pass_set=1", //
                            "oam.oam_enabled=1", "oam.url=ssl://oam:8883", "oam.gw_user=u", "oam.gw_pass=p",
                            "oam.skip_secure_cert=1", "oam.url_set=1", "oam.gw_user_set=1",
                            "oam.gw_pass_set=1", "performance.battery_reporting_period_mins=5",
                            "performance.battery_reporting_period_mins_set=1", //
                            "snmp.agent_addr=10.0.0.1", "snmp.community=c", "snmp.mib_dir=/mibs",
                            "snmp.community_set=1", "snmp.trap_transport=udp:162", "rev_ssh.local_port=2222",
                            "rev_ssh.timeout=1", //
                            "security.private_key=/k.pem", "security.bridge_cert=/c.pem",
                            "security.private_key_set=1", "security.bridge_cert_set=1",
                            "generic.client_id=other", "generic.gw_mac=aabb", "generic.status_http_port=8080",
                            "generic.semtech_udp_listen_port=1700", "generic.mqtt_disconnect_timeout=1",
                            "generic.mqtt_keepalive_interval=1", "generic.gw_events_interval=0",
                            "generic.state_dir=/state/", "generic.status_http_port_set=1",
                            "log_to_stderr=1"));
}

TEST_F(BridgeConfig, AFileOfAnotherNameIsRefused)
{
    for (const char *name : {"bridge.TOML", "bridge", "bridge.toml.bak", "bridge.json", "tomlbridge"}) {
        SCOPED_TRACE(name);
        const log_view own = log.from_here();
        EXPECT_EQ(load_path(folder.write(name, REQUIRED)), -1);
        EXPECT_THAT(own.lines(), ElementsAre("ERROR unrecognized configuration file type"));
    }
}

TEST_F(BridgeConfig, ATomlNameIsTold)
{
    ASSERT_EQ(load_path(folder.write(".toml", REQUIRED)), 0);
    EXPECT_EQ(log.position("DEBUG detected TOML configuration file"), 0);
}

TEST_F(BridgeConfig, NoNameAtAllIsRefused)
{
    const bridge_args args = {};
    EXPECT_LT(bridge_config_load(&args), 0);
    EXPECT_EQ(log.complaints().size(), 1U);
}

TEST_F(BridgeConfig, TheCaseOfTheMacFollowsTheTextOfTheType)
{
    static constexpr const char *UPPER = "AA00BB11CC22DDEE";
    static constexpr const char *LOWER = "aa00bb11cc22ddee";
    const std::vector<std::pair<std::string, const char *>> rows = {
        {"", UPPER},
        {"type = 'sarnivel'", UPPER},
        {"type = 'chirpstack'", LOWER},
        {"type = 'vellmar'", LOWER},
        {"type = 'chirpstack_v2'", LOWER},
        {"type = 'vellmar_v2'", LOWER},
        {"type = 'Chirpstack'", UPPER},
        {"type = 'something else'", UPPER},
        {"type = ''", UPPER},
        {"type = 'chirpstack'\nurl = 'tcp://ns'", LOWER},
    };
    for (const auto &[type, expected] : rows) {
        for (const std::string mac : {"aa00bb11cc22ddee", "AA00BB11CC22DDEE", "aA00Bb11cC22Ddee"}) {
            SCOPED_TRACE(join({type, " ", mac}));
            unload();
            const std::string path = folder.write(
                "mac.toml", join({"[ns]\n", type, "\n[generic]\nclient_id = 'c'\ngw_mac = '", mac, "'\n"}));
            ASSERT_EQ(load_path(path), 0);
            EXPECT_STREQ(root().generic.gw_mac, expected);
        }
    }
}

TEST_F(BridgeConfig, EachNameOfADialectIsKnown)
{
    const std::vector<std::pair<std::string, bridge_ns_type>> rows = {
        {"sarnivel", NS_TYPE_SNVNS},
        {"vellmar_v2", NS_TYPE_CHIRPSTACK_V2},
        {"chirpstack_v2", NS_TYPE_CHIRPSTACK_V2},
        {"vellmar", NS_TYPE_CHIRPSTACK_V3},
        {"chirpstack", NS_TYPE_CHIRPSTACK_V3},
    };
    for (const auto &[name, type] : rows) {
        SCOPED_TRACE(name);
        ASSERT_EQ(load(join({"[ns]\nurl = 'tcp://ns'\ntype = '", name, "'"})), 0);
        EXPECT_EQ(root().ns.ns_type, type);
        EXPECT_TRUE(root().ns.type_set);
        EXPECT_TRUE(root().ns.ns_enabled);
    }
}

TEST_F(BridgeConfigDeath, AnUnknownDialectOfAServerInUseEndsTheProcess)
{
    for (const std::string name : {"Sarnivel", "", "chirpstack_v3", "chirpstack "}) {
        EXPECT_EXIT(load(join({"[ns]\nurl = 'tcp://ns'\ntype = '", name, "'"})), ExitedWithCode(1),
                    HasSubstr(join({" invalid NS type: ", name, "\n"})))
            << name;
    }
}

TEST_F(BridgeConfig, AnUnknownDialectGoesUnnoticedWithoutTheServer)
{
    EXPECT_EQ(load("[ns]\ntype = 'nonsense'"), 0);
    EXPECT_EQ(load("[ns]\nurl = 'tcp://ns'\ntype = 'nonsense'", {.no_udp = true}), 0);
    EXPECT_THAT(log.complaints(), ElementsAre());
}

struct service_row {
    const char *content;
    bool no_snmp;
    bool no_udp;
    const char *enabled; /* of "ns oam geoloc " */
};

/* clang-format off */
static constexpr const char *NS_URL = "[ns]\nurl = 'tcp://ns'\n";
static constexpr const char *NS_CHIRPSTACK = "[ns]\nurl = 'tcp://ns'\ntype = 'chirpstack'\n";
static constexpr const char *NS_AND_OAM = "[ns]\nurl = 'tcp://ns'\n[oam]\nurl = 'tcp://oam'\n";
static constexpr const char *GEOLOC_URL = "[geoloc]\nurl = 'tcp://geo'\n";
static constexpr const char *EVERYTHING =
    "[ns]\nurl = 'tcp://ns'\n[oam]\nurl = 'tcp://oam'\n[geoloc]\nurl = 'tcp://geo'\n";

/* A native server lends its credentials to OA&M even with --no-snmp, which turns off only a server of OA&M's
 * own. */
static constexpr service_row SERVICES[] = {
    /* content           no_snmp no_udp enabled */
    {"",                 false,  false, ""},
    {NS_URL,             false,  false, "ns oam "},
    {NS_URL,             true,   false, "ns oam "},
    {NS_URL,             false,  true,  ""},
    {NS_CHIRPSTACK,      false,  false, "ns "},
    {NS_CHIRPSTACK,      true,   false, "ns "},
    {NS_AND_OAM,         false,  false, "ns oam "},
    {NS_AND_OAM,         true,   false, "ns "},
    {NS_AND_OAM,         false,  true,  "oam "},
    {NS_AND_OAM,         true,   true,  ""},
    {GEOLOC_URL,         false,  true,  "geoloc "},
    {EVERYTHING,         false,  false, "ns oam geoloc "},
    {EVERYTHING,         true,   true,  "geoloc "},
    {"[oam]\nurl = 'x'", false,  false, "oam "},
    {"[oam]\nurl = ''",  false,  false, "oam "},
    {"[geoloc]\nurl = ''", false, false, "geoloc "},
};
/* clang-format on */

TEST_F(BridgeConfig, UrlsAndOptionsDecideWhichServicesRun)
{
    for (const service_row &row : SERVICES) {
        SCOPED_TRACE(join({row.content, row.no_snmp ? " --no-snmp" : "", row.no_udp ? " --no-udp" : ""}));
        ASSERT_EQ(load(row.content, {.no_snmp = row.no_snmp, .no_udp = row.no_udp}), 0);
        const std::string enabled =
            join({root().ns.ns_enabled ? "ns " : "", root().oam.oam_enabled ? "oam " : "",
                  root().geoloc.geoloc_enabled ? "geoloc " : ""});
        EXPECT_EQ(enabled, row.enabled);
    }
}

TEST_F(BridgeConfig, TheNativeServerLendsAllItsCredentials)
{
    ASSERT_EQ(load("[ns]\nurl = 'ssl://ns'\ngw_user = 'nu'\ngw_pass = 'np'\nskip_secure_cert = true\n"
                   "[oam]\ngw_user = 'ou'\ngw_pass = 'op'\nskip_secure_cert = false\n"),
              0);
    EXPECT_TRUE(log.has("DEBUG using Sarnivel NS credentials for OA&M functionality"));
    const auto &oam = root().oam;
    EXPECT_STREQ(oam.url, "ssl://ns");
    EXPECT_STREQ(oam.gw_user, "nu");
    EXPECT_STREQ(oam.gw_pass, "np");
    EXPECT_TRUE(oam.skip_secure_cert);
    EXPECT_TRUE(oam.url_set && oam.gw_user_set && oam.gw_pass_set && oam.skip_secure_cert_set);
    EXPECT_TRUE(oam.oam_enabled);
}

TEST_F(BridgeConfig, CredentialsThatTheNativeServerLacksAreTakenAway)
{
    ASSERT_EQ(
        load("[ns]\nurl = 'tcp://ns'\n[oam]\ngw_user = 'ou'\ngw_pass = 'op'\nskip_secure_cert = true\n"), 0);
    const auto &oam = root().oam;
    EXPECT_STREQ(oam.gw_user, "");
    EXPECT_STREQ(oam.gw_pass, "");
    EXPECT_FALSE(oam.gw_user_set || oam.gw_pass_set || oam.skip_secure_cert);
    EXPECT_TRUE(oam.skip_secure_cert_set);
}

TEST_F(BridgeConfig, NothingIsLentToAnOamServerOfItsOwnNorByAnotherDialect)
{
    ASSERT_EQ(load(NS_AND_OAM, {.no_snmp = true}), 0);
    EXPECT_STREQ(root().oam.url, "tcp://oam");
    ASSERT_EQ(load(NS_CHIRPSTACK), 0);
    EXPECT_STREQ(root().oam.url, "");
    EXPECT_FALSE(root().oam.url_set);
    EXPECT_FALSE(log.has("DEBUG using Sarnivel NS credentials for OA&M functionality"));
}

TEST_F(BridgeConfigDeath, IntervalsOfZeroEndTheProcess)
{
    static constexpr const char *KEEPALIVE =
        " invalid value for mqtt_keepalive_interval: must be greater than 0\n";
    static constexpr const char *DISCONNECT =
        " invalid value for mqtt_disconnect_timeout: must be greater than 0\n";
    const std::vector<std::pair<std::string, const char *>> rows = {
        {"mqtt_keepalive_interval = 0", KEEPALIVE},
        {"mqtt_disconnect_timeout = 0", DISCONNECT},
        {"mqtt_disconnect_timeout = 0\nmqtt_keepalive_interval = 0", KEEPALIVE},
        {"mqtt_keepalive_interval = 4294967296", KEEPALIVE},
    };
    for (const auto &[setting, message] : rows) {
        const std::string path = folder.write("zero.toml", join({REQUIRED, setting, "\n"}));
        EXPECT_EXIT(load_path(path), ExitedWithCode(1), HasSubstr(std::string("[ERROR ] bridge_config.cpp:")))
            << setting;
        EXPECT_EXIT(load_path(path), ExitedWithCode(1), HasSubstr(message)) << setting;
    }
}

TEST_F(BridgeConfig, ANegativeResultOfTheFileLeavesNothingLoaded)
{
    EXPECT_EQ(load_path(folder.path("absent.toml")), -1);
    EXPECT_EQ(load_path(folder.write("empty.toml", "")), -1);
    EXPECT_EQ(load(""), 0);
}

TEST_F(BridgeConfig, ASecondLoadStartsFromTheDefaults)
{
    ASSERT_EQ(load(EVERYTHING, {.log_to_stderr = true}), 0);
    unload();
    ASSERT_EQ(load(""), 0);
    EXPECT_THAT(describe(root()), ElementsAreArray(DEFAULTS));
}

TEST_F(BridgeConfigDeath, AnUnloadedConfigurationIsAProgrammingFault)
{
    EXPECT_ASSERTION(bridge_config_get_root_checked(), "ctx.initialized");
    EXPECT_ASSERTION(bridge_config_unload(), "ctx.initialized");
    ASSERT_LT(load_path(folder.path("absent.toml")), 0);
    EXPECT_ASSERTION(bridge_config_get_root_checked(), "ctx.initialized");
    ASSERT_EQ(load(""), 0);
    unload();
    EXPECT_ASSERTION(bridge_config_get_root_checked(), "ctx.initialized");
    EXPECT_ASSERTION(bridge_config_unload(), "ctx.initialized");
}

TEST_F(BridgeConfigDeath, LoadingWantsArgumentsAndOneLoad)
{
    EXPECT_ASSERTION(bridge_config_load(nullptr), "args");
    ASSERT_EQ(load(""), 0);
    EXPECT_ASSERTION(load_path(folder.path("bridge.toml")), "!ctx.initialized");
}

struct text_accessor {
    const char *(*get)(const bridge_config_root *);
    const char *expected;
};

static constexpr text_accessor TEXT_ACCESSORS[] = {
    {config_get_ns_url, "ns url"},
    {config_get_gw_user, "ns user"},
    {config_get_gw_pass, "ns pass"},
    {config_get_private_key_path, "key"},
    {config_get_cert_path, "cert"},
    {config_get_oam_scs_url, "oam url"},
    {config_get_oam_scs_gw_user, "oam user"},
    {config_get_oam_scs_gw_pass, "oam pass"},
    {config_get_geoloc_url, "geo url"},
    {config_get_geoloc_gw_user, "geo user"},
    {config_get_geoloc_gw_pass, "geo pass"},
};

static constexpr bool (*FLAG_ACCESSORS[])(const bridge_config_root *) = {
    config_get_ns_enabled,      config_get_ns_cert_validation_enabled,
    config_get_oam_scs_enabled, config_get_oam_scs_cert_validation_enabled,
    config_get_geoloc_enabled,  config_get_geoloc_cert_validation_enabled,
};

TEST_F(BridgeConfig, AccessorsGiveTheTextsOfTheirEndpoint)
{
    ASSERT_EQ(load("[ns]\nurl = 'ns url'\ngw_user = 'ns user'\ngw_pass = 'ns pass'\n"
                   "[oam]\nurl = 'oam url'\ngw_user = 'oam user'\ngw_pass = 'oam pass'\n"
                   "[geoloc]\nurl = 'geo url'\ngw_user = 'geo user'\ngw_pass = 'geo pass'\n"
                   "[security]\nprivate_key = 'key'\nbridge_cert = 'cert'\n"),
              0);
    for (const text_accessor &row : TEXT_ACCESSORS)
        EXPECT_STREQ(row.get(&root()), row.expected);
    EXPECT_EQ(config_get_ns_url(&root()), root().ns.url);
}

/* Two columns an endpoint: enabled, and validation, which is the inverse of `skip_secure_cert`. */
TEST_F(BridgeConfig, AccessorsGiveTheFlagsOfTheirEndpoint)
{
    const auto flags = [] {
        std::string text;
        for (const auto get : FLAG_ACCESSORS)
            text += get(&root()) ? '1' : '0';
        return text;
    };
    const std::vector<std::pair<const char *, std::string>> rows = {
        {"", "010101"},
        {"[ns]\nurl = 'u'\ntype = 'chirpstack'", "110101"},
        {"[ns]\nskip_secure_cert = true", "000101"},
        {"[oam]\nurl = 'u'", "011101"},
        {"[oam]\nskip_secure_cert = true", "010001"},
        {"[geoloc]\nurl = 'u'", "010111"},
        {"[geoloc]\nskip_secure_cert = true", "010100"},
    };
    for (const auto &[content, expected] : rows) {
        ASSERT_EQ(load(content), 0) << content;
        EXPECT_EQ(flags(), expected) << content;
    }
}

TEST_F(BridgeConfigDeath, AccessorsWantARecord)
{
    for (const text_accessor &row : TEXT_ACCESSORS)
        EXPECT_ASSERTION(row.get(nullptr), "root_cfg") << row.expected;
    for (const auto get : FLAG_ACCESSORS)
        EXPECT_ASSERTION(get(nullptr), "root_cfg");
}
