/* Options, what each prints, and what ends the process. */
#include "app/bridge_arguments.h"

#include "common/bridge_config.h"
#include "common/captured_stderr.h"

#include <argp.h>
#include <cerrno>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

using testing::ExitedWithCode;
using testing::HasSubstr;

static constexpr int USAGE_ERROR = 64;

/* An argument vector that argp may reorder. */
class arguments
{
  public:
    explicit arguments(std::vector<std::string> texts) : texts_(std::move(texts))
    {
        texts_.insert(texts_.begin(), "snv_mqtt_bridge");
        for (std::string &text : texts_)
            pointers_.push_back(text.data());
        pointers_.push_back(nullptr);
    }

    int parse(bridge_args *args)
    {
        return bridge_arguments_parse(static_cast<int>(texts_.size()), pointers_.data(), args);
    }

    const char *text(size_t index) const
    {
        return texts_[index].c_str();
    }

  private:
    std::vector<std::string> texts_;
    std::vector<char *> pointers_;
};

static std::string squeezed(const std::string &text)
{
    std::istringstream words(text);
    std::string all;
    for (std::string word; words >> word;)
        all.append(all.empty() ? "" : " ").append(word);
    return all;
}

TEST(BridgeArguments, EachOptionPrintsItsMessageAndSetsItsField)
{
    static const struct {
        std::vector<std::string> options;
        const char *printed;
        bool foreground;
        bool no_udp;
        bool no_snmp;
        bool log_to_stderr;
        int32_t log_level;
    } cases[] = {
        {{}, "", false, false, false, false, 2},
        {{"-F"}, "foreground mode on\n", true, false, false, false, 2},
        {{"--foreground"}, "foreground mode on\n", true, false, false, false, 2},
        {{"-p"}, "paranoid mode on\n", false, false, false, false, 2},
        {{"--paranoid"}, "paranoid mode on\n", false, false, false, false, 2},
        {{"-u"}, "disabling UDP bridge\n", false, true, false, false, 2},
        {{"--no-udp"}, "disabling UDP bridge\n", false, true, false, false, 2},
        {{"-s"}, "disabling SNMP bridge\n", false, false, true, false, 2},
        {{"--no-snmp"}, "disabling SNMP bridge\n", false, false, true, false, 2},
        {{"-d"}, "logging to stderr is on\nforeground mode on\n", true, false, false, true, 2},
        {{"--stderr"}, "logging to stderr is on\nforeground mode on\n", true, false, false, true, 2},
        {{"-v", "0"}, "log level: 0\n", false, false, false, false, 0},
        {{"-v4"}, "log level: 4\n", false, false, false, false, 4},
        {{"--verbose=1"}, "log level: 1\n", false, false, false, false, 1},
        {{"-v", "3x"}, "log level: 3\n", false, false, false, false, 3},
        {{"-v", " +3"}, "log level: 3\n", false, false, false, false, 3},
        {{"-v", "1", "-v", "4"}, "log level: 1\nlog level: 4\n", false, false, false, false, 4},
        {{"-us", "-v", "3", "-F"},
         "disabling UDP bridge\ndisabling SNMP bridge\nlog level: 3\nforeground mode on\n",
         true,
         true,
         true,
         false,
         3},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(testing::PrintToString(row.options));
        arguments given(row.options);
        bridge_args args = {};
        captured_stderr capture;
        const int result = given.parse(&args);
        EXPECT_EQ(capture.text(), row.printed);
        EXPECT_EQ(result, 0);
        EXPECT_EQ(args.foreground, row.foreground);
        EXPECT_TRUE(args.paranoid);
        EXPECT_EQ(args.no_udp, row.no_udp);
        EXPECT_EQ(args.no_snmp, row.no_snmp);
        EXPECT_EQ(args.log_to_stderr, row.log_to_stderr);
        EXPECT_EQ(args.log_level, row.log_level);
        EXPECT_EQ(args.config_path, nullptr);
    }
}

TEST(BridgeArguments, ConfigurationPathIsTheArgumentItself)
{
    arguments given({"-d", "-c", "/etc/bridge 100%.toml"});
    bridge_args args = {};
    captured_stderr capture;
    EXPECT_EQ(given.parse(&args), 0);
    EXPECT_EQ(capture.text(),
              "logging to stderr is on\nforeground mode on\ncfg file: /etc/bridge 100%.toml\n");
    EXPECT_EQ(args.config_path, given.text(3));
}

TEST(BridgeArguments, FieldsOfAnEarlierParseAreReset)
{
    bridge_args args = {.config_path = "old", .no_udp = true, .log_level = 4};
    arguments given({});
    EXPECT_EQ(given.parse(&args), 0);
    EXPECT_EQ(args.config_path, nullptr);
    EXPECT_FALSE(args.no_udp);
    EXPECT_EQ(args.log_level, 2);
}

TEST(BridgeArgumentsDeath, LevelOutOfRangeIsRefusedWithTheUsage)
{
    for (const char *level : {"5", "-1", "x", "", "010", "x3", "99999999999999999999"}) {
        SCOPED_TRACE(level);
        arguments given({"-v", level});
        bridge_args args = {};
        EXPECT_EXIT(given.parse(&args), ExitedWithCode(USAGE_ERROR),
                    HasSubstr(std::string("Invalid log level value: ") + level +
                              "\nUsage: snv_mqtt_bridge [OPTION...]\n"));
    }
}

TEST(BridgeArgumentsDeath, WhatIsNoOptionIsRefused)
{
    static const struct {
        std::vector<std::string> options;
        const char *printed;
    } cases[] = {
        {{"-x"}, "invalid option -- 'x'"},
        {{"--daemon"}, "unrecognized option '--daemon'"},
        {{"-c"}, "option requires an argument -- 'c'"},
        {{"bridge.toml"}, "Too many arguments"},
    };
    for (const auto &row : cases) {
        arguments given(row.options);
        bridge_args args = {};
        EXPECT_EXIT(given.parse(&args), ExitedWithCode(USAGE_ERROR), HasSubstr(row.printed));
    }
}

TEST(BridgeArgumentsDeath, HelpAndVersionEndTheProcessInPeace)
{
    static const struct {
        const char *option;
        const char *printed;
    } cases[] = {
        {"--version", "^snv_mqtt_bridge 1.11.1\n$"},
        {"--help", "^Usage: snv_mqtt_bridge \\[OPTION...\\]\nSarnivel MQTT bridge 1.11.1\n\n"},
        {"--usage", "^Usage: snv_mqtt_bridge \\[-dFpsu"},
    };
    for (const auto &row : cases) {
        arguments given({row.option});
        bridge_args args = {};
        EXPECT_EXIT(
            {
                dup2(STDERR_FILENO, STDOUT_FILENO);
                given.parse(&args);
            },
            ExitedWithCode(0), row.printed);
    }
}

TEST(BridgeArguments, HelpNamesEveryOptionWithItsText)
{
    captured_stderr capture;
    bridge_arguments_print_help("snv_mqtt_bridge");
    const std::string raw = capture.text();
    EXPECT_THAT(raw,
                testing::StartsWith("Usage: snv_mqtt_bridge [OPTION...]\nSarnivel MQTT bridge 1.11.1\n\n"));
    const std::string help = squeezed(raw);
    static constexpr const char *texts[] = {
        "-c, --config=FILE Path to configuration file",
        "-d, --stderr Send log messages to the standard error descriptor instead of syslog. Implies -F.",
        "-F, --foreground <NOT-IMPLEMENTED> Run in foreground, do not daemonize. Logs will be displayed in "
        "standard output",
        "-p, --paranoid <NOT-IMPLEMENTED> Paranoid mode: terminate immediately if configuration file "
        "contains "
        "invalid optional values or unknown keys. Running with this flag can break backward compatibility.",
        "-s, --no-snmp Do not run Sarnivel MQTT NS <-> Sarnivel SNMP bridge.",
        "-u, --no-udp Do not run Sarnivel MQTT NS <-> Semtech UDP bridge.",
        "-v, --verbose=LEVEL Logs verbosity level: 0 - ERROR, 1 - WARN, 2 - INFO, 3 - DEBUG, 4 - TRACE",
    };
    for (const char *text : texts)
        EXPECT_THAT(help, HasSubstr(text));
}

/* argp_usage ends the process; where it comes back, the level is refused all the same. */
static bool usage_returns;

extern "C" {
void __real_argp_state_help(const argp_state *state, FILE *stream, unsigned flags);
void __wrap_argp_state_help(const argp_state *state, FILE *stream, unsigned flags)
{
    if (!usage_returns)
        __real_argp_state_help(state, stream, flags);
}

void __real_argp_usage(const argp_state *state);
void __wrap_argp_usage(const argp_state *state)
{
    if (!usage_returns)
        __real_argp_usage(state);
}
}

TEST(BridgeArguments, RefusedLevelFailsTheParseWhenTheUsageComesBack)
{
    arguments given({"-v", "5"});
    bridge_args args = {};
    usage_returns = true;
    captured_stderr capture;
    const int result = given.parse(&args);
    usage_returns = false;
    EXPECT_EQ(capture.text(), "Invalid log level value: 5\n");
    EXPECT_EQ(result, EINVAL);
    EXPECT_EQ(args.log_level, 2);
}
