/* The TOML form: what each file gives, includes and their cycles, conversions, and every line of the log. */
#include "common/bridge_config_processor_toml.h"

#include "common/bridge_config.h"
#include "common/captured_stderr.h"
#include "config/captured_log.h"
#include "config/config_folder.h"

#include <deque>
#include <memory>

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

struct file_identity {
    ino_t inode;
    dev_t device;
};

/* What the next calls of fstat() say of their files; the truth after them. */
static std::deque<file_identity> identities;
static bool fstat_fails = false;

extern "C" int __real_fstat64(int fd, struct stat *status);
extern "C" int __wrap_fstat64(int fd, struct stat *status)
{
    if (fstat_fails) {
        fstat_fails = false;
        return -1;
    }
    const int result = __real_fstat64(fd, status);
    if (!identities.empty()) {
        status->st_ino = identities.front().inode;
        status->st_dev = identities.front().device;
        identities.pop_front();
    }
    return result;
}

class ConfigToml : public testing::Test
{
  protected:
    /* Reads the file alone, without defaults and without what follows from the values. */
    int process(const std::string &path)
    {
        root = std::make_unique<bridge_config_root>();
        const bridge_args args = {.config_path = path.c_str()};
        return bridge_config_build_proc_toml(root.get(), &args);
    }

    int process_text(std::string_view content)
    {
        return process(folder.write("bridge.toml", content));
    }

    /* The required keys, and these includes of the folder. */
    std::string write_including(std::string_view name, std::initializer_list<std::string_view> included)
    {
        return folder.write(name, join({REQUIRED, includes(folder, included)}));
    }

    config_folder folder;
    captured_log log;
    std::unique_ptr<bridge_config_root> root;
};

class ConfigTomlDeath : public ConfigToml
{
};

/* ---- the log of a whole load ---- */

TEST_F(ConfigToml, TheLogNamesWhatIsMissingAndThenEveryValue)
{
    const std::string path = folder.write("bridge.toml", join({REQUIRED, "[rev_ssh]\ntimeout = 5\n[ns]\n"}));
    ASSERT_EQ(process(path), 0);
    /* clang-format off */
    EXPECT_THAT(log.lines(), ElementsAre(
        join({"DEBUG processing configuration file: ", path}),
        "DEBUG parameter url is missing in the configuration file",
        "DEBUG parameter type is missing in the configuration file",
        "DEBUG parameter gw_user is missing in the configuration file",
        "DEBUG parameter gw_pass is missing in the configuration file",
        "DEBUG parameter skip_secure_cert is missing in the configuration file",
        "DEBUG section oam is missing in the configuration file",
        "DEBUG section geoloc is missing in the configuration file",
        "DEBUG section snmp is missing in the configuration file",
        "DEBUG parameter local_port is missing in the configuration file",
        "DEBUG section security is missing in the configuration file",
        "DEBUG parameter status_http_port is missing in the configuration file",
        "DEBUG parameter semtech_udp_listen_port is missing in the configuration file",
        "DEBUG parameter state_dir is missing in the configuration file",
        "DEBUG parameter mqtt_disconnect_timeout is missing in the configuration file",
        "DEBUG parameter mqtt_keepalive_interval is missing in the configuration file",
        "DEBUG parameter gw_events_interval is missing in the configuration file",
        "DEBUG section performance_management is missing in the configuration file",
        "TRACE cfg section: [ns      ], entry: [url                    ] -> <empty>",
        "TRACE cfg section: [ns      ], entry: [type                   ] -> <empty>",
        "TRACE cfg section: [ns      ], entry: [gw_user                ] -> <empty>",
        "TRACE cfg section: [ns      ], entry: [gw_pass                ] -> <empty>",
        "TRACE cfg section: [ns      ], entry: [skip_secure_cert       ] -> <empty>",
        "TRACE cfg section: [oam     ], entry: [url                    ] -> <empty>",
        "TRACE cfg section: [oam     ], entry: [gw_user                ] -> <empty>",
        "TRACE cfg section: [oam     ], entry: [gw_pass                ] -> <empty>",
        "TRACE cfg section: [oam     ], entry: [skip_secure_cert       ] -> <empty>",
        "TRACE cfg section: [geoloc  ], entry: [url                    ] -> <empty>",
        "TRACE cfg section: [geoloc  ], entry: [gw_user                ] -> <empty>",
        "TRACE cfg section: [geoloc  ], entry: [gw_pass                ] -> <empty>",
        "TRACE cfg section: [geoloc  ], entry: [skip_secure_cert       ] -> <empty>",
        "TRACE cfg section: [geoloc  ], entry: [topic                  ] -> <empty>",
        "TRACE cfg section: [snmp    ], entry: [agent_addr             ] -> <empty>",
        "TRACE cfg section: [snmp    ], entry: [community              ] -> <empty>",
        "TRACE cfg section: [snmp    ], entry: [mib_dir                ] -> <empty>",
        "TRACE cfg section: [snmp    ], entry: [trap_transport         ] -> <empty>",
        "TRACE cfg section: [rev_ssh ], entry: [local_port             ] -> <empty>",
        "TRACE cfg section: [rev_ssh ], entry: [timeout                ] -> 5",
        "TRACE cfg section: [security], entry: [private_key            ] -> <empty>",
        "TRACE cfg section: [security], entry: [bridge_cert            ] -> <empty>",
        "TRACE cfg section: [generic ], entry: [client_id              ] -> gateway-7",
        "TRACE cfg section: [generic ], entry: [gw_mac                 ] -> 0016c001ff10abcd",
        "TRACE cfg section: [generic ], entry: [status_http_port       ] -> <empty>",
        "TRACE cfg section: [generic ], entry: [semtech_udp_listen_port] -> <empty>",
        "TRACE cfg section: [generic ], entry: [state_dir              ] -> <empty>",
        "TRACE cfg section: [generic ], entry: [mqtt_disconnect_timeout] -> <empty>",
        "TRACE cfg section: [generic ], entry: [mqtt_keepalive_interval] -> <empty>",
        "TRACE cfg section: [generic ], entry: [gw_events_interval     ] -> <empty>",
        "TRACE cfg section: [performance_management], entry: [battery_reporting_period_mins] -> <empty>"));
    /* clang-format on */
}

static std::vector<std::string> dump_without_empty(const log_view &log)
{
    std::vector<std::string> lines = log.lines_of({"TRACE"});
    std::erase_if(lines, [](const std::string &line) { return line.ends_with("<empty>"); });
    return lines;
}

/* A default counts as known, but for the battery period, whose value is there all the same. */
TEST_F(ConfigToml, TheDumpShowsKnownDefaults)
{
    const std::string path = folder.write("bridge.toml", REQUIRED);
    const bridge_args args = {.config_path = path.c_str()};
    ASSERT_EQ(bridge_config_load(&args), 0);
    bridge_config_unload();
    /* clang-format off */
    EXPECT_THAT(dump_without_empty(log), ElementsAre(
        "TRACE cfg section: [ns      ], entry: [type                   ] -> sarnivel",
        "TRACE cfg section: [ns      ], entry: [skip_secure_cert       ] -> 0",
        "TRACE cfg section: [oam     ], entry: [skip_secure_cert       ] -> 0",
        "TRACE cfg section: [geoloc  ], entry: [skip_secure_cert       ] -> 0",
        "TRACE cfg section: [geoloc  ], entry: [topic                  ] -> gateway/geoloc",
        "TRACE cfg section: [snmp    ], entry: [agent_addr             ] -> 127.0.0.1",
        "TRACE cfg section: [snmp    ], entry: [mib_dir                ] -> /usr/share/snmp/mibs",
        "TRACE cfg section: [snmp    ], entry: [trap_transport         ] -> udp:1800",
        "TRACE cfg section: [rev_ssh ], entry: [local_port             ] -> 22",
        "TRACE cfg section: [rev_ssh ], entry: [timeout                ] -> 300",
        "TRACE cfg section: [generic ], entry: [client_id              ] -> gateway-7",
        "TRACE cfg section: [generic ], entry: [gw_mac                 ] -> 0016c001ff10abcd",
        "TRACE cfg section: [generic ], entry: [semtech_udp_listen_port] -> 1780",
        "TRACE cfg section: [generic ], entry: [state_dir              ] -> /var/lib/sarnivel-mqtt-bridge/",
        "TRACE cfg section: [generic ], entry: [mqtt_disconnect_timeout] -> 10000",
        "TRACE cfg section: [generic ], entry: [mqtt_keepalive_interval] -> 60",
        "TRACE cfg section: [generic ], entry: [gw_events_interval     ] -> 30"));
    /* clang-format on */
}

TEST_F(ConfigToml, TheDumpShowsPasswordsInTheClearAndFlagsAsNumbers)
{
    ASSERT_EQ(
        process_text(join({REQUIRED, "[ns]\ngw_pass = 'hunter 2'\nskip_secure_cert = true\n"
                                     "[oam]\nskip_secure_cert = false\n[rev_ssh]\ntimeout = 4294967295\n"
                                     "[performance_management]\nbattery_reporting_period_mins = 0\n"})),
        0);
    /* clang-format off */
    EXPECT_THAT(dump_without_empty(log), ElementsAre(
        "TRACE cfg section: [ns      ], entry: [gw_pass                ] -> hunter 2",
        "TRACE cfg section: [ns      ], entry: [skip_secure_cert       ] -> 1",
        "TRACE cfg section: [oam     ], entry: [skip_secure_cert       ] -> 0",
        "TRACE cfg section: [rev_ssh ], entry: [timeout                ] -> 4294967295",
        "TRACE cfg section: [generic ], entry: [client_id              ] -> gateway-7",
        "TRACE cfg section: [generic ], entry: [gw_mac                 ] -> 0016c001ff10abcd",
        "TRACE cfg section: [performance_management], entry: [battery_reporting_period_mins] -> 0"));
    /* clang-format on */
}

/* ---- required keys ---- */

TEST_F(ConfigToml, ARequiredKeyThatNoFileGivesFailsTheLoad)
{
    const std::vector<std::pair<const char *, const char *>> rows = {
        {"[generic]\ngw_mac = 'aa'", "ERROR missing configuration value for client_id in section: generic"},
        {"[generic]\nclient_id = 'c'", "ERROR missing configuration value for gw_mac in section: generic"},
        {"[generic]\n", "ERROR missing configuration value for client_id in section: generic"},
        {"", "ERROR missing configuration value for client_id in section: generic"},
        {"[ns]\nclient_id = 'c'\ngw_mac = 'aa'",
         "ERROR missing configuration value for client_id in section: generic"},
        {"client_id = 'c'\ngw_mac = 'aa'",
         "ERROR missing configuration value for client_id in section: generic"},
        {"[generic]\nCLIENT_ID = 'c'\ngw_mac = 'aa'",
         "ERROR missing configuration value for client_id in section: generic"},
    };
    for (const auto &[content, message] : rows) {
        SCOPED_TRACE(content);
        const log_view own = log.from_here();
        EXPECT_EQ(process_text(content), -1);
        EXPECT_THAT(own.complaints(), ElementsAre(message));
        EXPECT_EQ(own.lines().back(), message);
    }
}

TEST_F(ConfigToml, TheDumpEndsAtTheMissingKey)
{
    ASSERT_EQ(process_text("[generic]\nclient_id = 'c'\nstate_dir = '/s'"), -1);
    const std::vector<std::string> lines = log.lines();
    ASSERT_GE(lines.size(), 3U);
    EXPECT_THAT(std::vector(lines.end() - 3, lines.end()),
                ElementsAre("TRACE cfg section: [generic ], entry: [client_id              ] -> c",
                            "TRACE cfg section: [generic ], entry: [gw_mac                 ] -> ",
                            "ERROR missing configuration value for gw_mac in section: generic"));
}

TEST_F(ConfigToml, ARequiredKeyMayStandInAnIncludedFileAndMayBeEmpty)
{
    folder.write("mac.toml", "[generic]\ngw_mac = ''");
    EXPECT_EQ(process_text(join({"[generic]\nclient_id = 'c'\n", includes(folder, {"mac.toml"})})), 0);
    EXPECT_STREQ(root->generic.client_id, "c");
    EXPECT_THAT(log.complaints(), ElementsAre());
}

/* ---- includes ---- */

TEST_F(ConfigToml, IncludesOverrideTheFileThatIncludesThemAndLaterOnesTheEarlier)
{
    folder.write("first.toml", join({"[ns]\nurl = 'first'\ntype = 'first'\ngw_user = 'first'\n",
                                     includes(folder, {"nested.toml"})}));
    folder.write("nested.toml", "[ns]\nurl = 'nested'\ntype = 'nested'\n");
    folder.write("second.toml", "[ns]\nurl = 'second'\n");
    ASSERT_EQ(
        process_text(join({REQUIRED, "[ns]\nurl = 'top'\ntype = 'top'\ngw_user = 'top'\ngw_pass = 'top'\n",
                           includes(folder, {"first.toml", "second.toml"})})),
        0);
    EXPECT_STREQ(root->ns.url, "second");
    EXPECT_STREQ(root->ns.type, "nested");
    EXPECT_STREQ(root->ns.gw_user, "first");
    EXPECT_STREQ(root->ns.gw_pass, "top");
    EXPECT_EQ(log.count("DEBUG cfg section: [ns                       ] entry: [url                      ]"
                        " is being overriden by current configuration file"),
              3);
    EXPECT_EQ(log.count("DEBUG cfg section: [ns                       ] entry: [gw_pass                  ]"
                        " is being overriden by current configuration file"),
              0);
    EXPECT_LT(log.position(join({"DEBUG processing configuration file: ", folder.path("nested.toml")})),
              log.position(join({"DEBUG processing configuration file: ", folder.path("second.toml")})));
}

TEST_F(ConfigToml, AFileIncludedTwiceIsReadTwice)
{
    folder.write("b.toml", "[ns]\nurl = 'b'\n[rev_ssh]\ntimeout = 7\n");
    ASSERT_EQ(process(write_including("a.toml", {"b.toml", "b.toml"})), 0);
    EXPECT_EQ(log.count(join({"DEBUG processing configuration file: ", folder.path("b.toml")})), 2);
    for (const char *line :
         {"DEBUG cfg section: [ns                       ] entry: [url                      ]"
          " is being overriden by current configuration file",
          "DEBUG cfg section: [rev_ssh                  ] entry: [timeout                  ]"
          " is being overriden by current configuration file"})
        EXPECT_EQ(log.count(line), 1) << line;
    EXPECT_THAT(log.complaints(), ElementsAre());
}

TEST_F(ConfigToml, AFileIncludedFromTwoPlacesIsNoCycle)
{
    folder.write("common.toml", "[ns]\nurl = 'common'\n");
    folder.write("b.toml", includes(folder, {"common.toml"}));
    folder.write("c.toml", includes(folder, {"common.toml", "b.toml"}));
    EXPECT_EQ(process(write_including("a.toml", {"b.toml", "c.toml", "common.toml"})), 0);
    EXPECT_EQ(log.count(join({"DEBUG processing configuration file: ", folder.path("common.toml")})), 4);
}

TEST_F(ConfigToml, IncludePathsAreRelativeToTheWorkingDirectory)
{
    std::filesystem::create_directories(folder.path("etc"));
    std::filesystem::create_directories(folder.path("work"));
    folder.write("etc/part.toml", "[ns]\nurl = 'beside the file'");
    folder.write("work/part.toml", "[ns]\nurl = 'in the working directory'");
    const std::string path =
        folder.write("etc/bridge.toml", join({REQUIRED, "[aux]\nincludes = ['part.toml']"}));
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(folder.path("work"));
    const int result = process(path);
    std::filesystem::current_path(before);
    ASSERT_EQ(result, 0);
    EXPECT_STREQ(root->ns.url, "in the working directory");
    EXPECT_TRUE(log.has("DEBUG processing configuration file: part.toml"));
}

/* The last lines of a load that meets a file again. */
static std::vector<std::string> cycle_lines(const std::string &path, const std::string &parent)
{
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return {
        join({"DEBUG processing configuration file: ", path}),
        "ERROR detected configuration file circular dependency. Check your includes.",
        join({"ERROR this file: ", path, " was most recently referenced from: ", parent}),
        join({"DEBUG device: ", std::to_string(status.st_dev), " inode: ", std::to_string(status.st_ino)})};
}

static std::vector<std::string> last_lines(const log_view &log, size_t count)
{
    std::vector<std::string> lines = log.lines();
    lines.erase(lines.begin(), lines.end() - static_cast<long>(std::min(count, lines.size())));
    return lines;
}

TEST_F(ConfigToml, AFileThatIncludesItselfIsRefused)
{
    const std::string path = write_including("a.toml", {"a.toml"});
    EXPECT_EQ(process(path), -1);
    EXPECT_THAT(last_lines(log, 4), ElementsAreArray(cycle_lines(path, path)));
}

TEST_F(ConfigToml, ACycleOfThreeFilesIsRefusedAtTheSecondVisit)
{
    const std::string a = write_including("a.toml", {"b.toml"});
    folder.write("b.toml", includes(folder, {"c.toml"}));
    const std::string c = folder.write("c.toml", includes(folder, {"a.toml"}));
    EXPECT_EQ(process(a), -1);
    EXPECT_THAT(last_lines(log, 4), ElementsAreArray(cycle_lines(a, c)));
    EXPECT_EQ(log.count(join({"DEBUG processing configuration file: ", a})), 2);
    EXPECT_EQ(log.count(join({"DEBUG processing configuration file: ", c})), 1);
}

TEST_F(ConfigToml, ACycleBelowTheFirstFileIsRefused)
{
    const std::string b = folder.write("b.toml", includes(folder, {"c.toml"}));
    const std::string c = folder.write("c.toml", includes(folder, {"b.toml"}));
    EXPECT_EQ(process(write_including("a.toml", {"b.toml"})), -1);
    EXPECT_THAT(last_lines(log, 4), ElementsAreArray(cycle_lines(b, c)));
}

TEST_F(ConfigToml, AFileReachedThroughASymbolicOrAHardLinkIsTheSameFile)
{
    const std::string path = write_including("a.toml", {"other.toml"});
    const std::string other = folder.link("other.toml", "a.toml");
    EXPECT_EQ(process(path), -1);
    EXPECT_THAT(last_lines(log, 4), ElementsAreArray(cycle_lines(other, path)));

    std::filesystem::remove(other);
    std::filesystem::create_hard_link(path, other);
    EXPECT_EQ(process(path), -1);
    EXPECT_THAT(last_lines(log, 4), ElementsAreArray(cycle_lines(other, path)));
}

TEST_F(ConfigToml, AFileIsKnownByInodeAndDeviceTogether)
{
    folder.write("b.toml", "[ns]\nurl = 'b'\n");
    const std::string path = write_including("a.toml", {"b.toml"});
    identities = {{7, 1}, {7, 2}};
    EXPECT_EQ(process(path), 0);
    identities = {{7, 1}, {8, 1}};
    EXPECT_EQ(process(path), 0);
    identities = {{7, 1}, {7, 1}};
    EXPECT_EQ(process(path), -1);
    EXPECT_EQ(log.lines().back(), "DEBUG device: 1 inode: 7");
    /* A device beyond 32 bits is none that is known. */
    const dev_t wide = (dev_t{1} << 32) + 1;
    identities = {{7, wide}, {7, wide}};
    EXPECT_EQ(process(path), 0);
    identities = {{7, 1}, {7, wide}};
    EXPECT_EQ(process(path), 0);
}

TEST_F(ConfigToml, ACycleDoesNotSpoilTheNextLoad)
{
    const std::string path = write_including("a.toml", {"a.toml"});
    EXPECT_EQ(process(path), -1);
    folder.write("a.toml", REQUIRED);
    EXPECT_EQ(process(path), 0);
}

/* Files beyond the 64th of a chain are read, though not remembered. */
TEST_F(ConfigToml, AChainLongerThanTheListOfOpenFilesIsRead)
{
    static constexpr int FILES = 70;
    const auto name = [](int i) { return join({"chain", std::to_string(i), ".toml"}); };
    for (int i = 0; i < FILES; i++)
        folder.write(name(i), includes(folder, {name(i + 1)}));
    folder.write(name(FILES), "[ns]\nurl = 'the end'\n");
    ASSERT_EQ(process(write_including("a.toml", {name(0)})), 0);
    EXPECT_STREQ(root->ns.url, "the end");

    /* The 64th file of the chain: the first is "a.toml". */
    static constexpr int LAST_REMEMBERED = 62;
    folder.write(name(FILES), includes(folder, {name(LAST_REMEMBERED)}));
    EXPECT_EQ(process(write_including("a.toml", {name(0)})), -1);
    EXPECT_THAT(last_lines(log, 4),
                ElementsAreArray(cycle_lines(folder.path(name(LAST_REMEMBERED)), folder.path(name(FILES)))));
}

TEST_F(ConfigToml, OnlyAnAuxSectionWithoutIncludesIsTold)
{
    static constexpr const char *LINE = "DEBUG no include array is present in this configuration file";
    const std::vector<std::pair<const char *, long>> rows = {
        {"", 0},
        {"[aux]\n", 1},
        {"[aux]\nincludes = 'b.toml'\n", 1},
        {"[aux.includes]\n", 1},
        {"[aux]\nincludes = []\n", 0},
        {"[[aux]]\nincludes = ['b.toml']\n", 0},
    };
    for (const auto &[content, times] : rows) {
        SCOPED_TRACE(content);
        const log_view own = log.from_here();
        EXPECT_EQ(process_text(join({REQUIRED, content})), 0);
        EXPECT_EQ(own.count(LINE), times);
    }
}

TEST_F(ConfigToml, AnIncludeItemThatIsNoTextFailsTheLoad)
{
    const std::vector<std::pair<const char *, const char *>> rows = {
        {"42", "42"},         {"true", "true"}, {"1.5", ".*"},
        {"2026-01-02", ".*"}, {"['b']", ".*"},  {"{a = 'b'}", ".*"},
    };
    folder.write("b.toml", "[ns]\nurl = 'b'");
    for (const auto &[item, shown] : rows) {
        SCOPED_TRACE(item);
        const log_view own = log.from_here();
        EXPECT_EQ(
            process_text(join({REQUIRED, "[aux]\nincludes = ['", folder.path("b.toml"), "', ", item, "]\n"})),
            -1);
        EXPECT_THAT(own.complaints(),
                    ElementsAre(MatchesRegex(
                        join({"ERROR failed to parse include item: ", shown, " to valid string"}))));
        EXPECT_STREQ(root->ns.url, "b") << "the items before it are read";
    }
}

/* ---- files that cannot be read ---- */

TEST_F(ConfigToml, AFileThatCannotBeOpenedFailsTheLoad)
{
    EXPECT_EQ(process(folder.path("absent.toml")), -1);
    EXPECT_THAT(log.lines(),
                ElementsAre(join({"DEBUG processing configuration file: ", folder.path("absent.toml")}),
                            "ERROR failed to open configuration file"));
    EXPECT_EQ(process(write_including("a.toml", {"absent.toml"})), -1);
    EXPECT_EQ(log.lines().back(), "ERROR failed to open configuration file");
}

TEST_F(ConfigToml, AFileWithoutAnIdentityFailsTheLoad)
{
    const std::string path = folder.write("bridge.toml", REQUIRED);
    fstat_fails = true;
    EXPECT_EQ(process(path), -1);
    EXPECT_EQ(log.lines().back(), "ERROR failed to perform fstat() call on the configuration file");
}

TEST_F(ConfigToml, TextThatIsNoTomlFailsTheLoad)
{
    std::filesystem::create_directories(folder.path("folder.toml"));
    const std::string bad[] = {
        folder.write("unclosed.toml", "[ns\nurl = 'x'"),
        folder.write("novalue.toml", "[ns]\nurl =\n"),
        folder.write("twice.toml", "[ns]\nurl = 'a'\nurl = 'b'\n"),
        folder.write("binary.toml", std::string("\0\1\2\377\376", 5)),
        folder.path("folder.toml"),
    };
    for (const std::string &path : bad) {
        SCOPED_TRACE(path);
        const log_view own = log.from_here();
        EXPECT_EQ(process(path), -1);
        EXPECT_THAT(own.complaints(),
                    ElementsAre(MatchesRegex("ERROR failed to parse configuration file: .+")));
    }
}

TEST_F(ConfigToml, AnIncludedFileThatFailsFailsTheLoad)
{
    folder.write("bad.toml", "[rev_ssh]\ntimeout = 'soon'\n");
    folder.write("after.toml", "[ns]\nurl = 'after'");
    EXPECT_EQ(process(write_including("a.toml", {"bad.toml", "after.toml"})), -1);
    EXPECT_STREQ(root->ns.url, "");
    EXPECT_EQ(log.lines().back(), "ERROR failed to parse parameter: timeout");
}

/* ---- conversions ---- */

struct conversion_row {
    const char *setting; /* "section.key = value" */
    const char *message;
    const char *key;
};

/* clang-format off */
static constexpr conversion_row BAD_VALUES[] = {
    {"ns.url = 1",                      "failed to allocate TOML string for parameter: url", "url"},
    {"ns.gw_pass = 1234",               "failed to allocate TOML string for parameter: gw_pass", "gw_pass"},
    {"ns.gw_user = true",               "failed to allocate TOML string for parameter: gw_user", "gw_user"},
    {"snmp.mib_dir = 1.5",              "failed to allocate TOML string for parameter: mib_dir", "mib_dir"},
    {"geoloc.topic = 2026-01-02",       "failed to allocate TOML string for parameter: topic", "topic"},
    {"ns.skip_secure_cert = 1",         "failed to convert skip_secure_cert config parameter into boolean",
                                        "skip_secure_cert"},
    {"oam.skip_secure_cert = 'true'",   "failed to convert skip_secure_cert config parameter into boolean",
                                        "skip_secure_cert"},
    {"rev_ssh.timeout = '300'",         "failed to convert timeout config parameter into integer", "timeout"},
    {"rev_ssh.timeout = 1.0",           "failed to convert timeout config parameter into integer", "timeout"},
    {"rev_ssh.timeout = true",          "failed to convert timeout config parameter into integer", "timeout"},
    {"rev_ssh.timeout = 10:00:00",      "failed to convert timeout config parameter into integer", "timeout"},
    {"rev_ssh.timeout = -1",            "expected unsigned type for timeout configuration entry", "timeout"},
    {"generic.status_http_port = -9223372036854775808",
                                        "expected unsigned type for status_http_port configuration entry",
                                        "status_http_port"},
};
/* clang-format on */

TEST_F(ConfigToml, AValueOfAnotherTypeFailsTheLoad)
{
    for (const conversion_row &row : BAD_VALUES) {
        SCOPED_TRACE(row.setting);
        const log_view own = log.from_here();
        EXPECT_EQ(process(folder.write("bad.toml", row.setting)), -1);
        EXPECT_THAT(last_lines(own, 2), ElementsAre(join({"ERROR ", row.message}),
                                                    join({"ERROR failed to parse parameter: ", row.key})));
    }
}

TEST_F(ConfigToml, ATableOrAnArrayInPlaceOfAValueCountsAsMissing)
{
    const std::vector<std::pair<const char *, const char *>> rows = {
        {"ns.url = ['tcp://ns']", "url"},        {"ns.url = {host = 'ns'}", "url"},
        {"[ns.url]\nhost = 'ns'", "url"},        {"ns.skip_secure_cert = [true]", "skip_secure_cert"},
        {"rev_ssh.timeout = [1, 2]", "timeout"}, {"rev_ssh.timeout = {a = 1}", "timeout"},
    };
    for (const auto &[setting, key] : rows) {
        SCOPED_TRACE(setting);
        const log_view own = log.from_here();
        folder.write("part.toml", setting);
        EXPECT_EQ(process(write_including("a.toml", {"part.toml"})), 0);
        EXPECT_TRUE(own.has(join({"DEBUG parameter ", key, " is missing in the configuration file"})));
        EXPECT_THAT(own.complaints(), ElementsAre());
        EXPECT_FALSE(root->ns.url_set || root->ns.skip_secure_cert_set || root->rev_ssh.timeout_set);
    }
    EXPECT_EQ(process_text("[generic]\nclient_id = ['c']\ngw_mac = 'aa'"), -1);
    EXPECT_EQ(log.lines().back(), "ERROR missing configuration value for client_id in section: generic");
}

TEST_F(ConfigToml, AnythingButATableInPlaceOfASectionCountsAsMissing)
{
    for (const char *setting : {"ns = 5", "ns = 'text'", "ns = ['url']", "[[ns]]\nurl = 'tcp://ns'"}) {
        SCOPED_TRACE(setting);
        const log_view own = log.from_here();
        EXPECT_EQ(process(folder.write("a.toml", join({setting, "\n", REQUIRED}))), 0);
        EXPECT_TRUE(own.has("DEBUG section ns is missing in the configuration file"));
        EXPECT_FALSE(root->ns.url_set);
    }
}

TEST_F(ConfigToml, UnknownKeysAndSectionsAreLetAlone)
{
    EXPECT_EQ(process_text(
                  join({"answer = 42\n[elsewhere]\nurl = 1\n", REQUIRED, "extra = [1]\n[NS]\nurl = 'x'\n"})),
              0);
    EXPECT_FALSE(root->ns.url_set);
    EXPECT_THAT(log.complaints(), ElementsAre());
}

TEST_F(ConfigToml, NumbersKeepTheirLow32Bits)
{
    const std::vector<std::pair<const char *, uint32_t>> rows = {
        {"0", 0},
        {"4294967295", 0xffffffff},
        {"4294967296", 0},
        {"4294967297", 1},
        {"9223372036854775807", 0xffffffff},
        {"0x10", 16},
        {"1_000", 1000},
        {"+7", 7},
    };
    for (const auto &[value, expected] : rows) {
        ASSERT_EQ(process_text(join({REQUIRED, "[rev_ssh]\ntimeout = ", value, "\n"})), 0) << value;
        EXPECT_EQ(root->rev_ssh.timeout, expected) << value;
        EXPECT_TRUE(root->rev_ssh.timeout_set);
    }
    EXPECT_THAT(log.complaints(), ElementsAre());
}

TEST_F(ConfigToml, ANumberBeyond64BitsFailsTheLoad)
{
    EXPECT_EQ(process_text(join({REQUIRED, "[rev_ssh]\ntimeout = 9223372036854775808\n"})), -1);
}

TEST_F(ConfigToml, ATextIsCutToItsField)
{
    static bridge_config_root cfg;
    const struct {
        const char *section;
        const char *key;
        const char *field;
        size_t size;
    } rows[] = {
        {"ns", "url", cfg.ns.url, 256},
        {"ns", "type", cfg.ns.type, 32},
        {"ns", "gw_user", cfg.ns.gw_user, 64},
        {"ns", "gw_pass", cfg.ns.gw_pass, 64},
        {"oam", "url", cfg.oam.url, 256},
        {"oam", "gw_user", cfg.oam.gw_user, 64},
        {"oam", "gw_pass", cfg.oam.gw_pass, 64},
        {"geoloc", "url", cfg.geoloc.url, 256},
        {"geoloc", "gw_user", cfg.geoloc.gw_user, 64},
        {"geoloc", "gw_pass", cfg.geoloc.gw_pass, 64},
        {"geoloc", "topic", cfg.geoloc.topic, 256},
        {"snmp", "agent_addr", cfg.snmp.agent_addr, 32},
        {"snmp", "community", cfg.snmp.community, 64},
        {"snmp", "mib_dir", cfg.snmp.mib_dir, 4096},
        {"snmp", "trap_transport", cfg.snmp.trap_transport, 32},
        {"security", "private_key", cfg.security.private_key, 4096},
        {"security", "bridge_cert", cfg.security.bridge_cert, 4096},
        {"generic", "client_id", cfg.generic.client_id, 32},
        {"generic", "gw_mac", cfg.generic.gw_mac, 32},
        {"generic", "state_dir", cfg.generic.state_dir, 4096},
    };
    static_assert(std::size(rows) == 20);
    for (const auto &row : rows) {
        for (const size_t length : {row.size - 1, row.size, row.size + 1000}) {
            SCOPED_TRACE(join({row.section, ".", row.key, " of ", std::to_string(length)}));
            const std::string value = join({std::string(length - 1, 'x'), "y"});
            folder.write("long.toml", join({"[", row.section, "]\n", row.key, " = '", value, "'\n"}));
            const std::string path = write_including("a.toml", {"long.toml"});
            const bridge_args args = {.config_path = path.c_str()};
            cfg = {};
            ASSERT_EQ(bridge_config_build_proc_toml(&cfg, &args), 0);
            EXPECT_EQ(row.field, value.substr(0, row.size - 1));
        }
    }
    EXPECT_THAT(log.complaints(), ElementsAre());
}

TEST_F(ConfigTomlDeath, TheProcessorWantsARecordArgumentsAndAPath)
{
    const std::string path = folder.write("bridge.toml", REQUIRED);
    const bridge_args args = {.config_path = path.c_str()};
    const bridge_args nameless = {};
    bridge_config_root cfg = {};
    EXPECT_ASSERTION(bridge_config_build_proc_toml(&cfg, nullptr), "args");
    EXPECT_ASSERTION(bridge_config_build_proc_toml(nullptr, &args), "config_root");
    EXPECT_ASSERTION(bridge_config_build_proc_toml(&cfg, &nameless), "path");
}
