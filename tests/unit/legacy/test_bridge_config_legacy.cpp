/* The deprecated flat form: what each line of a file does to the record, and what is said of it. */
#include "common/bridge_config_processor_legacy.h"

#include "common/bridge_config.h"
#include "common/captured_stderr.h"
#include "config/captured_log.h"
#include "config/config_folder.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;

static constexpr std::string_view REQUIRED_KEYS = "client_id gw\ngateway_mac 01\n";

/* What the record holds before a file is read, as far as these tests look: values that a file could also
 * give. */
static std::unique_ptr<bridge_config_root> record_before()
{
    auto root = std::make_unique<bridge_config_root>();
    strcpy(root->ns.type, "sarnivel");
    root->ns.type_set = true;
    root->ns.skip_secure_cert_set = true;
    strcpy(root->geoloc.topic, "gateway/geoloc");
    root->geoloc.topic_set = true;
    root->geoloc.skip_secure_cert_set = true;
    root->oam.skip_secure_cert_set = true;
    root->rev_ssh.local_port = 22;
    root->rev_ssh.local_port_set = true;
    root->rev_ssh.timeout = 300;
    root->rev_ssh.timeout_set = true;
    strcpy(root->generic.client_id, "gw");
    strcpy(root->generic.gw_mac, "01");
    root->generic.semtech_udp_listen_port = 1780;
    root->generic.semtech_udp_listen_port_set = true;
    root->generic.mqtt_disconnect_timeout = 10000;
    root->generic.mqtt_disconnect_timeout_set = true;
    root->generic.mqtt_keepalive_interval = 60;
    root->generic.mqtt_keepalive_interval_set = true;
    root->generic.gw_events_interval = 30;
    root->generic.gw_events_interval_set = true;
    return root;
}

class LegacyConfig : public testing::Test
{
  protected:
    /* Reads a file with exactly this content. */
    int read_file(std::string_view content)
    {
        const std::string path = folder.write("bridge.conf", content);
        return read_path(path.c_str());
    }

    int read_path(const char *path)
    {
        root = record_before();
        before = describe(*root);
        const captured_log log;
        const bridge_args args = {.config_path = path};
        const int result = bridge_config_build_proc_legacy(root.get(), &args);
        logged = log.lines();
        complaints = log.complaints();
        return result;
    }

    /* Reads these lines, followed by the required keys. */
    void read(std::string_view lines)
    {
        SCOPED_TRACE(lines);
        const bool ends = lines.empty() || lines.back() == '\n';
        EXPECT_EQ(read_file(join({lines, ends ? "" : "\n", REQUIRED_KEYS})), 0);
    }

    /* The fields that the file has changed, as "ns.url=value". */
    std::vector<std::string> changes() const
    {
        std::vector<std::string> changed;
        const std::vector<std::string> after = describe(*root);
        for (size_t i = 0; i < after.size(); ++i) {
            if (after[i] != before[i])
                changed.push_back(after[i]);
        }
        return changed;
    }

    config_folder folder;
    std::unique_ptr<bridge_config_root> root;
    std::vector<std::string> before;
    std::vector<std::string> logged;
    std::vector<std::string> complaints;
};

class LegacyConfigDeath : public LegacyConfig
{
};

/* ---- the keys ---- */

static constexpr std::string_view EVERY_KEY = R"(ns_host ssl://ns:8883
ns_type chirpstack
gw_user ns-user
gw_password ns-word
ns_skip_secure_cert 1
oam_host ssl://oam:8883
gw_oam_user oam-user
gw_oam_password oam-word
gw_oam_skip_secure_cert 1
geoloc_host ssl://geo:8883
gw_geoloc_user geo-user
gw_geoloc_password geo-word
gw_geoloc_skip_secure_cert 1
geoloc_topic some/where
snmp_agent 127.0.0.7
snmp_community private
snmp_mib_dir /mibs
ssh_local_port 2222
rev_ssh_timeout 301
private_key /keys/gateway.key
bridge_cert /keys/gateway.pem
client_id gateway-7
gateway_mac 0016c001ff10abcd
status_http_port 8080
semtech_udp_listen_port 1700
state_dir /state
mqtt_disconnect_timeout 5000
mqtt_keepalive_interval 61
gw_events_interval 31
)";

TEST_F(LegacyConfig, EveryKeyFillsItsOwnField)
{
    EXPECT_EQ(read_file(EVERY_KEY), 0);
    EXPECT_THAT(complaints, IsEmpty());
    EXPECT_THAT(
        changes(),
        ElementsAre("ns.url=ssl://ns:8883", "ns.gw_user=ns-user", "ns.gw_pass=ns-word",
                    "ns.skip_secure_cert=1", "ns.type=chirpstack", "ns.url_set=1", "ns.gw_user_set=1",
                    "ns.gw_pass_set=1", "geoloc.url=ssl://geo:8883", "geoloc.gw_user=geo-user",
                    "geoloc.gw_pass=geo-word", "geoloc.skip_secure_cert=1", "geoloc.topic=some/where",
                    "geoloc.url_set=1", "geoloc.gw_user_set=1", "geoloc.gw_pass_set=1",
                    "oam.url=ssl://oam:8883", "oam.gw_user=oam-user", "oam.gw_pass=oam-word",
                    "oam.skip_secure_cert=1", "oam.url_set=1", "oam.gw_user_set=1", "oam.gw_pass_set=1",
                    "snmp.agent_addr=127.0.0.7", "snmp.community=private", "snmp.mib_dir=/mibs",
                    "snmp.agent_addr_set=1", "snmp.community_set=1", "snmp.mib_dir_set=1",
                    "rev_ssh.local_port=2222", "rev_ssh.timeout=301",
                    "security.private_key=/keys/gateway.key", "security.bridge_cert=/keys/gateway.pem",
                    "security.private_key_set=1", "security.bridge_cert_set=1", "generic.client_id=gateway-7",
                    "generic.gw_mac=0016c001ff10abcd", "generic.status_http_port=8080",
                    "generic.semtech_udp_listen_port=1700", "generic.mqtt_disconnect_timeout=5000",
                    "generic.mqtt_keepalive_interval=61", "generic.gw_events_interval=31",
                    "generic.state_dir=/state", "generic.status_http_port_set=1", "generic.state_dir_set=1"));
}

TEST_F(LegacyConfig, DumpHasEveryKeyInOrderWithUsersAndPasswordsMasked)
{
    EXPECT_EQ(read_file(EVERY_KEY), 0);
    EXPECT_THAT(logged, ElementsAre("TRACE cfg entry: [ns_host                  ] -> ssl://ns:8883",
                                    "TRACE cfg entry: [ns_type                  ] -> chirpstack",
                                    "TRACE cfg entry: [gw_user                  ] -> *****",
                                    "TRACE cfg entry: [gw_password              ] -> *****",
                                    "TRACE cfg entry: [ns_skip_secure_cert      ] -> 1",
                                    "TRACE cfg entry: [oam_host                 ] -> ssl://oam:8883",
                                    "TRACE cfg entry: [gw_oam_user              ] -> *****",
                                    "TRACE cfg entry: [gw_oam_password          ] -> *****",
                                    "TRACE cfg entry: [gw_oam_skip_secure_cert  ] -> 1",
                                    "TRACE cfg entry: [geoloc_host              ] -> ssl://geo:8883",
                                    "TRACE cfg entry: [gw_geoloc_user           ] -> *****",
                                    "TRACE cfg entry: [gw_geoloc_password       ] -> *****",
                                    "TRACE cfg entry: [gw_geoloc_skip_secure_cert] -> 1",
                                    "TRACE cfg entry: [geoloc_topic             ] -> some/where",
                                    "TRACE cfg entry: [snmp_agent               ] -> 127.0.0.7",
                                    "TRACE cfg entry: [snmp_community           ] -> private",
                                    "TRACE cfg entry: [snmp_mib_dir             ] -> /mibs",
                                    "TRACE cfg entry: [ssh_local_port           ] -> 2222",
                                    "TRACE cfg entry: [rev_ssh_timeout          ] -> 301",
                                    "TRACE cfg entry: [private_key              ] -> /keys/gateway.key",
                                    "TRACE cfg entry: [bridge_cert              ] -> /keys/gateway.pem",
                                    "TRACE cfg entry: [client_id                ] -> gateway-7",
                                    "TRACE cfg entry: [gateway_mac              ] -> 0016c001ff10abcd",
                                    "TRACE cfg entry: [status_http_port         ] -> 8080",
                                    "TRACE cfg entry: [semtech_udp_listen_port  ] -> 1700",
                                    "TRACE cfg entry: [state_dir                ] -> /state",
                                    "TRACE cfg entry: [mqtt_disconnect_timeout  ] -> 5000",
                                    "TRACE cfg entry: [mqtt_keepalive_interval  ] -> 61",
                                    "TRACE cfg entry: [gw_events_interval       ] -> 31"));
}

TEST_F(LegacyConfig, DumpShowsDefaultsAndMarksWhatIsNotKnown)
{
    read("");
    EXPECT_THAT(logged, SizeIs(29));
    static constexpr std::string_view LINES[] = {
        "TRACE cfg entry: [ns_host                  ] -> <empty>",
        "TRACE cfg entry: [ns_type                  ] -> sarnivel",
        "TRACE cfg entry: [gw_user                  ] -> <empty>",
        "TRACE cfg entry: [gw_password              ] -> <empty>",
        "TRACE cfg entry: [ns_skip_secure_cert      ] -> 0",
        "TRACE cfg entry: [geoloc_topic             ] -> gateway/geoloc",
        "TRACE cfg entry: [status_http_port         ] -> <empty>",
        "TRACE cfg entry: [semtech_udp_listen_port  ] -> 1780",
    };
    for (std::string_view line : LINES)
        EXPECT_THAT(logged, Contains(line));
}

/* ---- lines ---- */

TEST_F(LegacyConfig, LineIsCutAtItsLastMarkAndSplitAtBlanks)
{
    static const std::string LONG_LINE = "ns_type " + std::string(100'000, ' ') + "t";
    static const struct {
        std::string_view lines;
        std::vector<std::string> changed;
        std::vector<std::string> complaints;
    } CASES[] = {
        {"ns_type t", {"ns.type=t"}, {}},
        {"\t ns_type \t\t t \t ", {"ns.type=t"}, {}},
        {"ns_type t and more # words", {"ns.type=t"}, {}},
        {"ns_type \"a b\"", {"ns.type=\"a"}, {}},
        {LONG_LINE, {"ns.type=t"}, {}},
        {"# ns_type t", {}, {}},
        {"#", {}, {}},
        {"", {}, {}},
        {" \t \n\n\t\n", {}, {}},
        {"  # ns_type t", {}, {}},
        {"ns_type a#b", {"ns.type=a"}, {}},
        {"ns_type a#", {"ns.type=a"}, {}},
        {"ns_type a#b#c", {"ns.type=a#b"}, {}},
        {"ns_type a # b # c", {"ns.type=a"}, {}},
        {"ns_type a #b", {"ns.type=a"}, {}},
        {"ns_type # a # b", {"ns.type=#"}, {}},
        {"ns_type #a", {}, {"WARN skipping ill-formed line at 1"}},
        {"ns_type", {}, {"WARN skipping ill-formed line at 1"}},
        {" ns_type  ", {}, {"WARN skipping ill-formed line at 1"}},
        {" # ns_type t # c", {}, {"WARN unknown config key: # at line 1"}},
        {"#ns_type t # c", {}, {}},
        {"ns_typ t", {}, {"WARN unknown config key: ns_typ at line 1"}},
        {"NS_TYPE t", {}, {"WARN unknown config key: NS_TYPE at line 1"}},
        {"ns_type=t", {}, {"WARN skipping ill-formed line at 1"}},
        {"ns_type = t", {"ns.type=="}, {}},
        {"[ns]", {}, {"WARN skipping ill-formed line at 1"}},
        {"trap_transport udp:1", {}, {"WARN unknown config key: trap_transport at line 1"}},
        {"battery_reporting_period_mins 5",
         {},
         {"WARN unknown config key: battery_reporting_period_mins at line 1"}},
        {"\n# comment\nns_type\n \nunknown u\nns_type t\nns_type",
         {"ns.type=t"},
         {"WARN skipping ill-formed line at 3", "WARN unknown config key: unknown at line 5",
          "WARN skipping ill-formed line at 7"}},
        {"ns_type t\r\n\r", {"ns.type=t\r"}, {"WARN skipping ill-formed line at 2"}},
    };
    for (const auto &row : CASES) {
        SCOPED_TRACE(row.lines.substr(0, 80));
        read(row.lines);
        EXPECT_THAT(changes(), ElementsAreArray(row.changed));
        EXPECT_THAT(complaints, ElementsAreArray(row.complaints));
    }
}

TEST_F(LegacyConfig, LastLineNeedsNoLineEnd)
{
    EXPECT_EQ(read_file("client_id gw\nns_type t\ngateway_mac 02"), 0);
    EXPECT_THAT(changes(), ElementsAre("ns.type=t", "generic.gw_mac=02"));
}

TEST_F(LegacyConfig, LineEndsForTheReaderAtANulCharacter)
{
    static constexpr char LINES[] = "ns_type t\0x # y\nns_host\0u v\n";
    EXPECT_EQ(read_file(join({std::string_view(LINES, sizeof(LINES) - 1), REQUIRED_KEYS})), 0);
    EXPECT_THAT(changes(), ElementsAre("ns.type=t"));
    EXPECT_THAT(complaints, ElementsAre("WARN skipping ill-formed line at 2"));
}

TEST_F(LegacyConfig, LaterLineOverridesWithoutAMessage)
{
    read("ns_type a\nstatus_http_port 1\nns_skip_secure_cert 1\nns_type b\nstatus_http_port 2\n"
         "ns_skip_secure_cert 0\n");
    EXPECT_THAT(changes(),
                ElementsAre("ns.type=b", "generic.status_http_port=2", "generic.status_http_port_set=1"));
    EXPECT_THAT(complaints, IsEmpty());
}

/* ---- values ---- */

TEST_F(LegacyConfig, TextFillsItsFieldButForTheTerminator)
{
    static constexpr struct {
        const char *key;
        const char *field;
        size_t size;
    } CASES[] = {
        {"ns_host", "ns.url", 256},
        {"ns_type", "ns.type", 32},
        {"gw_user", "ns.gw_user", 64},
        {"gw_password", "ns.gw_pass", 64},
        {"oam_host", "oam.url", 256},
        {"gw_oam_user", "oam.gw_user", 64},
        {"gw_oam_password", "oam.gw_pass", 64},
        {"geoloc_host", "geoloc.url", 256},
        {"gw_geoloc_user", "geoloc.gw_user", 64},
        {"gw_geoloc_password", "geoloc.gw_pass", 64},
        {"geoloc_topic", "geoloc.topic", 256},
        {"snmp_agent", "snmp.agent_addr", 32},
        {"snmp_community", "snmp.community", 64},
        {"snmp_mib_dir", "snmp.mib_dir", 4096},
        {"private_key", "security.private_key", 4096},
        {"bridge_cert", "security.bridge_cert", 4096},
        {"state_dir", "generic.state_dir", 4096},
    };
    for (const auto &row : CASES) {
        SCOPED_TRACE(row.key);
        const std::string fits(row.size - 1, 'v');
        read(join({row.key, " ", fits}));
        EXPECT_THAT(changes(), Contains(join({row.field, "=", fits})));
        EXPECT_THAT(complaints, IsEmpty());

        const std::string too_long(row.size, 'v');
        read(join({row.key, " ", too_long}));
        EXPECT_THAT(changes(), IsEmpty());
        EXPECT_THAT(complaints, ElementsAre(join({"WARN config value ", too_long,
                                                  " is too big to fit in internal buffer"}),
                                            join({"WARN cannot parse value for ", row.key, " at line 1"}),
                                            join({"WARN unknown config key: ", row.key, " at line 1"})));
    }
}

TEST_F(LegacyConfig, RequiredTextThatIsTooLongIsMissing)
{
    const std::string too_long(32, 'i');
    EXPECT_EQ(read_file(join({"client_id ", too_long, "\ngateway_mac 01\n"})), -1);
    EXPECT_THAT(complaints,
                ElementsAre(join({"WARN config value ", too_long, " is too big to fit in internal buffer"}),
                            "WARN cannot parse value for client_id at line 1",
                            "WARN unknown config key: client_id at line 1",
                            "ERROR missing required configuration value for client_id"));
}

static std::string not_a_number(std::string_view value)
{
    return join({"WARN config value ", value, " cannot be converted to valid int"});
}

/* The complaints of a known key whose value is bad, behind that of its parser. */
static std::vector<std::string> refusal(std::string_view key, const std::string &first)
{
    return {first, join({"WARN cannot parse value for ", key, " at line 1"}),
            join({"WARN unknown config key: ", key, " at line 1"})};
}

TEST_F(LegacyConfig, UnsignedNumbersComeInThreeBases)
{
    static constexpr struct {
        std::string_view text;
        const char *value; /* null: refused */
    } CASES[] = {
        {"7", "7"},
        {"0", "0"},
        {"-0", "0"},
        {"+7", "7"},
        {"007", "7"},
        {"010", "8"},
        {"0x1F", "31"},
        {"0X1f", "31"},
        {"70000", "70000"},
        {"2147483647", "2147483647"},
        {"017777777777", "2147483647"},
        {"08", nullptr},
        {"0x", nullptr},
        {"7s", nullptr},
        {"7.0", nullptr},
        {"1e3", nullptr},
        {"seven", nullptr},
        {"-", nullptr},
        {"7,", nullptr},
    };
    for (const auto &row : CASES) {
        SCOPED_TRACE(row.text);
        read(join({"gw_events_interval ", row.text}));
        if (row.value != nullptr) {
            EXPECT_THAT(changes(), ElementsAre(join({"generic.gw_events_interval=", row.value})));
            EXPECT_THAT(complaints, IsEmpty());
        } else {
            EXPECT_THAT(changes(), IsEmpty());
            EXPECT_EQ(complaints, refusal("gw_events_interval", not_a_number(row.text)));
        }
    }
}

TEST_F(LegacyConfig, NumberBeyond32BitsIsTheNearestOfThem)
{
    for (std::string_view text : {"2147483648", "4294967295", "4294967296", "99999999999999999999"}) {
        SCOPED_TRACE(text);
        read(join({"gw_events_interval ", text}));
        EXPECT_THAT(changes(), ElementsAre("generic.gw_events_interval=2147483647"));
        EXPECT_THAT(complaints, IsEmpty());
    }
}

static constexpr struct {
    std::string_view key;
    std::string_view field;
} PORTS[] =
    {
        {"ssh_local_port", "rev_ssh.local_port"},
        {"rev_ssh_timeout", "rev_ssh.timeout"},
        {"status_http_port", "generic.status_http_port"},
        {"semtech_udp_listen_port", "generic.semtech_udp_listen_port"},
        {"mqtt_disconnect_timeout", "generic.mqtt_disconnect_timeout"},
},
  INTERVALS[] = {
      {"mqtt_keepalive_interval", "generic.mqtt_keepalive_interval"},
      {"gw_events_interval", "generic.gw_events_interval"},
};

TEST_F(LegacyConfig, PortsAndTwoTimeoutsEndAt65535)
{
    for (const auto &row : PORTS) {
        SCOPED_TRACE(row.key);
        read(join({row.key, " 65535"}));
        EXPECT_THAT(changes(), Contains(join({row.field, "=65535"})));
        EXPECT_THAT(complaints, IsEmpty());
        for (std::string_view text : {"65536", "70000", "2147483647"}) {
            read(join({row.key, " ", text}));
            EXPECT_THAT(changes(), IsEmpty());
            EXPECT_EQ(complaints, refusal(row.key, join({"WARN invalid value given for port: ", text})));
        }
        read(join({row.key, " 0x10000"}));
        EXPECT_EQ(complaints, refusal(row.key, "WARN invalid value given for port: 65536"));
        read(join({row.key, " http"}));
        EXPECT_THAT(changes(), IsEmpty());
        EXPECT_EQ(complaints, refusal(row.key, not_a_number("http")));
    }
}

TEST_F(LegacyConfig, IntervalsGoBeyond65535)
{
    for (const auto &row : INTERVALS) {
        SCOPED_TRACE(row.key);
        read(join({row.key, " 65536"}));
        EXPECT_THAT(changes(), ElementsAre(join({row.field, "=65536"})));
        EXPECT_THAT(complaints, IsEmpty());
    }
}

TEST_F(LegacyConfig, NegativeNumberIsRefused)
{
    const auto expect_refused = [&](std::string_view key, std::string_view text) {
        SCOPED_TRACE(key);
        read(join({key, " ", text}));
        EXPECT_THAT(changes(), IsEmpty());
        EXPECT_EQ(complaints,
                  refusal(key, join({"ERROR configuration property ", key, " must be unsigned"})));
    };
    for (const auto &row : PORTS)
        expect_refused(row.key, "-1");
    for (const auto &row : INTERVALS)
        expect_refused(row.key, "-99999999999999999999");
}

TEST_F(LegacyConfig, BadValueLeavesTheValueOfAnEarlierLine)
{
    read("status_http_port 8080\nstatus_http_port 70000\ngw_user name\n"
         "gw_user 0123456789012345678901234567890123456789012345678901234567890123\n"
         "ns_skip_secure_cert 1\nns_skip_secure_cert yes\n");
    EXPECT_THAT(changes(), ElementsAre("ns.gw_user=name", "ns.skip_secure_cert=1", "ns.gw_user_set=1",
                                       "generic.status_http_port=8080", "generic.status_http_port_set=1"));
    EXPECT_THAT(complaints, ElementsAre("WARN invalid value given for port: 70000",
                                        "WARN cannot parse value for status_http_port at line 2",
                                        "WARN unknown config key: status_http_port at line 2",
                                        "WARN config value "
                                        "0123456789012345678901234567890123456789012345678901234567890123 is "
                                        "too big to fit in internal buffer",
                                        "WARN cannot parse value for gw_user at line 4",
                                        "WARN unknown config key: gw_user at line 4",
                                        "WARN config value yes cannot be converted to valid int",
                                        "WARN cannot parse value for ns_skip_secure_cert at line 6",
                                        "WARN unknown config key: ns_skip_secure_cert at line 6"));
}

TEST_F(LegacyConfig, KeepAliveOfZeroPassesHere)
{
    read("mqtt_keepalive_interval 0\nmqtt_disconnect_timeout 0\n");
    EXPECT_THAT(changes(),
                ElementsAre("generic.mqtt_disconnect_timeout=0", "generic.mqtt_keepalive_interval=0"));
    EXPECT_THAT(complaints, IsEmpty());
}

/* ---- flags ---- */

TEST_F(LegacyConfig, FlagIsTheLowestByteOfANumber)
{
    static constexpr struct {
        std::string_view text;
        bool set;
    } CASES[] = {{"0", false},        {"1", true},     {"0x1", true}, {"2", true},
                 {"255", true},       {"256", false},  {"257", true}, {"-1", true},
                 {"0xffff00", false}, {"-256", false}, {"01", true}};
    for (const auto &row : CASES) {
        SCOPED_TRACE(row.text);
        read(join({"ns_skip_secure_cert ", row.text}));
        EXPECT_EQ(root->ns.skip_secure_cert, row.set);
        EXPECT_THAT(logged, Contains(join(
                                {"TRACE cfg entry: [ns_skip_secure_cert      ] -> ", row.set ? "1" : "0"})));
        EXPECT_THAT(complaints, IsEmpty());
    }
}

TEST_F(LegacyConfig, FlagIsNoWord)
{
    for (std::string_view key :
         {"ns_skip_secure_cert", "gw_oam_skip_secure_cert", "gw_geoloc_skip_secure_cert"}) {
        for (std::string_view text : {"true", "false", "1x"}) {
            read(join({key, " ", text}));
            EXPECT_THAT(changes(), IsEmpty());
            EXPECT_EQ(complaints, refusal(key, not_a_number(text)));
        }
    }
}

/* The flag is written as a whole integer, and its three upper bytes fall on the first characters of the
 * topic: files of the field name the topic behind the flag. */
TEST_F(LegacyConfig, GeolocationFlagClearsATopicThatStandsBeforeIt)
{
    static const struct {
        std::string_view lines;
        std::vector<std::string> changed;
    } CASES[] = {
        {"gw_geoloc_skip_secure_cert 1\ngeoloc_topic some/where",
         {"geoloc.skip_secure_cert=1", "geoloc.topic=some/where"}},
        {"geoloc_topic some/where\ngw_geoloc_skip_secure_cert 1",
         {"geoloc.skip_secure_cert=1", "geoloc.topic="}},
        {"geoloc_topic some/where\ngw_geoloc_skip_secure_cert 0", {"geoloc.topic="}},
        {"geoloc_topic a\ngw_geoloc_skip_secure_cert 1\ngeoloc_topic b",
         {"geoloc.skip_secure_cert=1", "geoloc.topic=b"}},
        {"gw_geoloc_skip_secure_cert 1", {"geoloc.skip_secure_cert=1", "geoloc.topic="}},
        {"gw_geoloc_skip_secure_cert 0", {"geoloc.topic="}},
        {"gw_geoloc_skip_secure_cert no\ngeoloc_topic t", {"geoloc.topic=t"}},
        {"gw_geoloc_skip_secure_cert no", {}},
        {"gw_geoloc_skip_secure_cert 0x41424301",
         {"geoloc.skip_secure_cert=1", "geoloc.topic=CBAeway/geoloc"}},
        {"gw_geoloc_skip_secure_cert 0x4100", {"geoloc.topic=A"}},
        {"gw_geoloc_skip_secure_cert -1",
         {"geoloc.skip_secure_cert=1", "geoloc.topic=\xff\xff\xff"
                                       "eway/geoloc"}},
    };
    for (const auto &row : CASES) {
        SCOPED_TRACE(row.lines);
        read(row.lines);
        EXPECT_THAT(changes(), ElementsAreArray(row.changed));
    }
}

TEST_F(LegacyConfig, ClearedTopicKeepsItsOtherBytesOutOfSight)
{
    read("geoloc_topic abcdefg\ngw_geoloc_skip_secure_cert 1");
    EXPECT_EQ(std::string_view(root->geoloc.topic, 8), std::string_view("\0\0\0defg\0", 8));
}

TEST_F(LegacyConfig, DumpShowsTheClearedTopic)
{
    read("geoloc_topic some/where\ngw_geoloc_skip_secure_cert 1");
    EXPECT_THAT(logged, Contains("TRACE cfg entry: [geoloc_topic             ] -> "));
    EXPECT_THAT(complaints, IsEmpty());
}

/* Behind this flag lie those that tell whether URL, user and password are known. */
TEST_F(LegacyConfig, OperationsFlagFallsOnTheKnownFlagsBehindIt)
{
    static const struct {
        std::string_view lines;
        std::vector<std::string> changed;
    } CASES[] = {
        {"gw_oam_skip_secure_cert 1", {"oam.skip_secure_cert=1"}},
        {"gw_oam_skip_secure_cert 0x100", {"oam.url_set=1"}},
        {"gw_oam_skip_secure_cert 0x10001", {"oam.skip_secure_cert=1", "oam.gw_user_set=1"}},
        {"gw_oam_skip_secure_cert 0x1000000", {"oam.gw_pass_set=1"}},
        {"gw_oam_skip_secure_cert -1",
         {"oam.skip_secure_cert=1", "oam.url_set=1", "oam.gw_user_set=1", "oam.gw_pass_set=1"}},
        {"gw_oam_skip_secure_cert 0x100\ngw_oam_skip_secure_cert 0", {}},
        /* What the file itself gives is known at its end, in either order. */
        {"oam_host u\ngw_oam_skip_secure_cert 1", {"oam.url=u", "oam.skip_secure_cert=1", "oam.url_set=1"}},
        {"gw_oam_skip_secure_cert 1\noam_host u", {"oam.url=u", "oam.skip_secure_cert=1", "oam.url_set=1"}},
    };
    for (const auto &row : CASES) {
        SCOPED_TRACE(row.lines);
        read(row.lines);
        EXPECT_THAT(changes(), ElementsAreArray(row.changed));
        EXPECT_THAT(complaints, IsEmpty());
    }
}

TEST_F(LegacyConfig, NetworkServersFlagHasNoTextOrFlagBehindIt)
{
    read("ns_type t\nns_skip_secure_cert 0xffff01");
    EXPECT_THAT(changes(), ElementsAre("ns.skip_secure_cert=1", "ns.type=t"));
}

/* ---- what is required ---- */

TEST_F(LegacyConfig, MissingRequiredKeyFailsAndEndsTheDump)
{
    static constexpr struct {
        std::string_view content;
        std::string_view missing;
        size_t dumped;
    } CASES[] = {
        {"gateway_mac 02\n", "client_id", 22},
        {"client_id id\n", "gateway_mac", 23},
        {"", "client_id", 22},
        {"# only\n\n  # comments\n#client_id gw\n", "client_id", 22},
    };
    for (const auto &row : CASES) {
        SCOPED_TRACE(row.content);
        EXPECT_EQ(read_file(row.content), -1);
        EXPECT_THAT(complaints,
                    ElementsAre(join({"ERROR missing required configuration value for ", row.missing})));
        EXPECT_THAT(logged, SizeIs(row.dumped + 1));
        EXPECT_EQ(logged.back(), complaints.front());
    }
}

TEST_F(LegacyConfig, RequiredKeysMayStandAnywhere)
{
    EXPECT_EQ(read_file("gateway_mac 02\nns_type t\nclient_id id\n"), 0);
    EXPECT_THAT(complaints, IsEmpty());
}

TEST_F(LegacyConfig, FileThatCannotBeOpenedFails)
{
    EXPECT_EQ(read_path(folder.path("no.conf").c_str()), -1);
    EXPECT_THAT(logged, ElementsAre("ERROR Failed to open configuration file"));
}

TEST_F(LegacyConfig, FolderInPlaceOfAFileHasNoKeys)
{
    EXPECT_EQ(read_path(folder.path("").c_str()), -1);
    EXPECT_THAT(complaints, ElementsAre("ERROR missing required configuration value for client_id"));
}

/* ---- the whole load ---- */

class LegacyConfigLoad : public testing::Test
{
  protected:
    int load(std::string_view name, std::string_view content)
    {
        path = folder.write(name, content);
        const bridge_args args = {.config_path = path.c_str()};
        return bridge_config_load(&args);
    }

    config_folder folder;
    std::string path;
};

class LegacyConfigLoadDeath : public LegacyConfigLoad
{
};

TEST_F(LegacyConfigLoad, NameChoosesTheForm)
{
    const captured_log log;
    EXPECT_EQ(load("bridge.toml.conf", join({REQUIRED_KEYS, "ns_host tcp://a\nns_type chirpstack\n"})), 0);
    EXPECT_EQ(log.lines().front(), "DEBUG detected deprecated configuration file");
    const bridge_config_root *root = bridge_config_get_root_checked();
    EXPECT_TRUE(root->ns.ns_enabled);
    EXPECT_EQ(root->ns.ns_type, NS_TYPE_CHIRPSTACK_V3);
    EXPECT_FALSE(root->oam.oam_enabled);
    bridge_config_unload();
}

TEST_F(LegacyConfigLoad, ValuesWithoutAKeyKeepTheirDefaults)
{
    const captured_log log;
    EXPECT_EQ(load("bridge.conf", REQUIRED_KEYS), 0);
    const bridge_config_root *root = bridge_config_get_root_checked();
    EXPECT_STREQ(root->snmp.trap_transport, "udp:1800");
    EXPECT_TRUE(root->snmp.trap_transport_set);
    EXPECT_EQ(root->performance.battery_reporting_period_mins, 60U);
    EXPECT_FALSE(root->performance.battery_reporting_period_mins_set);
    bridge_config_unload();
}

TEST_F(LegacyConfigLoad, OperationsAreEnabledByAKnownUrlThatIsNotThere)
{
    const captured_log log;
    EXPECT_EQ(load("bridge.conf", join({REQUIRED_KEYS, "gw_oam_skip_secure_cert 0x100\n"})), 0);
    EXPECT_TRUE(bridge_config_get_root_checked()->oam.oam_enabled);
    EXPECT_TRUE(log.has("TRACE cfg entry: [oam_host                 ] -> "));
    bridge_config_unload();
}

TEST_F(LegacyConfigLoad, FailureIsHandedOn)
{
    const captured_log log;
    EXPECT_EQ(load("bridge.conf", ""), -1);
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR missing required configuration value for client_id"));
}

TEST_F(LegacyConfigLoadDeath, IntervalOfZeroEndsTheProcessAfterTheFile)
{
    for (std::string_view key : {"mqtt_keepalive_interval", "mqtt_disconnect_timeout"}) {
        EXPECT_EXIT(
            {
                bridge_log_init(BRIDGE_LOG_ERROR, true);
                load("bridge.conf", join({REQUIRED_KEYS, key, " 0\n"}));
            },
            testing::ExitedWithCode(1), join({"invalid value for ", key, ": must be greater than 0"}));
    }
}

TEST_F(LegacyConfigDeath, RecordAndArgumentsAreAsserted)
{
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    const bridge_args args = {.config_path = "bridge.conf"};
    root = record_before();
    EXPECT_ASSERTION(bridge_config_build_proc_legacy(nullptr, &args), "config_root");
    EXPECT_ASSERTION(bridge_config_build_proc_legacy(root.get(), nullptr), "args");
}
