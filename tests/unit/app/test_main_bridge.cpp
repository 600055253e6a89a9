/* The whole program on stand-ins: start-up, the stop signal, exit status. */
#include "app/app_stubs.h"

#include <array>
#include <csignal>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

static const char *const REGISTER = "sysmon_register main_snv_mqtt_bridge_task 11000 5 0";

static void send_stop_signal()
{
    ASSERT_EQ(raise(SIGUSR2), 0);
}

static struct sigaction handling_of(int number)
{
    struct sigaction action = {};
    EXPECT_EQ(sigaction(number, nullptr, &action), 0);
    return action;
}

class AppMain : public AppTest
{
  protected:
    void SetUp() override
    {
        AppTest::SetUp();
        bridge_main_ctx.running = false;
    }

    static int run(std::vector<std::string> options)
    {
        options.insert(options.begin(), "snv_mqtt_bridge");
        std::vector<char *> pointers;
        for (std::string &option : options)
            pointers.push_back(option.data());
        pointers.push_back(nullptr);
        return bridge_main(static_cast<int>(options.size()), pointers.data());
    }
};

/* ---- start and end ---- */

TEST_F(AppMain, StepsOfStartAndEndComeInOrder)
{
    stubs.on("wait", send_stop_signal);
    EXPECT_EQ(run({"-d", "-v", "3", "-c", "/etc/bridge.toml"}), 0);
    EXPECT_THAT(stubs.take(),
                ElementsAre("log_init 3 stderr", "config_load /etc/bridge.toml", "child_prepare", "mqtt_init",
                            "sysmon_init", "key_manager_init", REGISTER, "give_back", "wait 10",
                            "sysmon_report", REGISTER, "sysmon_unregister", "mqtt_deinit", "sysmon_deinit"));
    EXPECT_THAT(log.lines(),
                ElementsAre("logging to stderr is on", "foreground mode on", "log level: 3",
                            "cfg file: /etc/bridge.toml", "INFO Starting Sarnivel NS bridge 1.11.1",
                            "INFO bridge is shutting down"));
}

TEST_F(AppMain, StatusServerRunsWhenItsPortIsSet)
{
    stubs.root.generic.status_http_port = 8080;
    stubs.on("wait", send_stop_signal);
    EXPECT_EQ(run({"-d", "-c", "x"}), 0);
    EXPECT_THAT(stubs.take(),
                ElementsAre("log_init 2 stderr", "config_load x", "child_prepare", "mqtt_init", "sysmon_init",
                            "key_manager_init", "status_server_start 8080", REGISTER, "give_back", "wait 10",
                            "sysmon_report", REGISTER, "sysmon_unregister", "mqtt_deinit",
                            "status_server_stop", "sysmon_deinit"));
    EXPECT_EQ(log.lines().back(), "INFO stopping status thread");
}

TEST_F(AppMain, OptionsReachTheConfiguration)
{
    stubs.on("wait", send_stop_signal);
    EXPECT_EQ(run({"-s", "-u", "-d", "-c", "x"}), 0);
    EXPECT_TRUE(stubs.args.no_snmp);
    EXPECT_TRUE(stubs.args.no_udp);
    EXPECT_TRUE(stubs.args.foreground);
    EXPECT_TRUE(stubs.args.paranoid);
    EXPECT_TRUE(stubs.args.log_to_stderr);
    EXPECT_EQ(stubs.args.log_level, 2);
}

TEST_F(AppMain, WithoutArgumentsTheHelpIsAnError)
{
    EXPECT_EQ(run({}), 1);
    const std::vector<std::string> lines = log.lines();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[0], "Usage: snv_mqtt_bridge [OPTION...]");
    EXPECT_EQ(lines[1], "Sarnivel MQTT bridge 1.11.1");
    EXPECT_THAT(lines, Contains(HasSubstr("--config=FILE")));
    EXPECT_THAT(stubs.take(), IsEmpty());
}

TEST_F(AppMain, FailureBeforeTheLoopEndsTheProcess)
{
    static const struct {
        const char *failing;
        int result;
        int status;
        std::vector<std::string> calls;
        const char *line; /* null: none of its own */
    } cases[] = {
        {"log_init", -1, 1, {"log_init 2 stderr"}, nullptr},
        {"config_load",
         -22,
         1,
         {"log_init 2 stderr", "config_load x"},
         "ERROR failed to process configuration file"},
        {"mqtt_init",
         -5,
         -5,
         {"log_init 2 stderr", "config_load x", "child_prepare", "mqtt_init"},
         "ERROR cannot initialize MQTT subsystem, aborting..."},
        {"status_server_start",
         -1,
         1,
         {"log_init 2 stderr", "config_load x", "child_prepare", "mqtt_init", "sysmon_init",
          "key_manager_init", "status_server_start 8080"},
         "ERROR unable to start a status server, aborting"},
    };
    stubs.root.generic.status_http_port = 8080;
    for (const auto &row : cases) {
        SCOPED_TRACE(row.failing);
        stubs.script(row.failing, {row.result});
        EXPECT_EQ(run({"-d", "-c", "x"}), row.status);
        EXPECT_EQ(stubs.take(), row.calls);
        const std::vector<std::string> lines = log.lines();
        if (row.line != nullptr)
            EXPECT_EQ(lines.back(), row.line);
        else
            EXPECT_THAT(lines, Not(Contains(StartsWith("ERROR"))));
        EXPECT_FALSE(bridge_main_ctx.running);
    }
}

TEST_F(AppMain, PortThatNoSocketTakesIsRefused)
{
    stubs.root.ns.ns_enabled = true;
    static constexpr struct {
        uint32_t udp;
        uint32_t status;
    } cases[] = {{0, 0}, {65536, 0}, {1700, 65536}, {UINT32_MAX, UINT32_MAX}};
    for (const auto &row : cases) {
        stubs.root.generic.semtech_udp_listen_port = row.udp;
        stubs.root.generic.status_http_port = row.status;
        EXPECT_EQ(run({"-d", "-c", "x"}), 1);
        EXPECT_THAT(stubs.take(), ElementsAre("log_init 2 stderr", "config_load x"));
        EXPECT_EQ(log.lines().back(), "ERROR invalid port in the configuration: semtech_udp_listen_port " +
                                          std::to_string(row.udp) + ", status_http_port " +
                                          std::to_string(row.status));
    }
    stubs.root.generic.semtech_udp_listen_port = 65535;
    stubs.root.generic.status_http_port = 65535;
    stubs.on("wait", send_stop_signal);
    EXPECT_EQ(run({"-d", "-c", "x"}), 0);
    EXPECT_THAT(stubs.take(), Contains("status_server_start 65535"));
}

TEST_F(AppMain, ForwardersPortIsFreeWithoutServersForItsData)
{
    for (const uint32_t port : {0U, 65536U}) {
        for (const bool for_geolocation : {false, true}) {
            stubs.root.ns.ns_enabled = false;
            stubs.root.geoloc.geoloc_enabled = for_geolocation;
            stubs.root.generic.semtech_udp_listen_port = port;
            stubs.on("wait", send_stop_signal);
            EXPECT_EQ(run({"-d", "-c", "x"}), for_geolocation ? 1 : 0);
        }
    }
}

TEST_F(AppMain, FailureOfTheKeyManagerIsNone)
{
    stubs.script("key_manager_init", {-1});
    stubs.on("wait", send_stop_signal);
    EXPECT_EQ(run({"-d", "-c", "x"}), 0);
}

TEST_F(AppMain, FailedEndOfMqttIsTheStatusAndTheRestGoesOn)
{
    stubs.root.generic.status_http_port = 8080;
    stubs.script("mqtt_deinit", {-1});
    stubs.on("wait", send_stop_signal);
    EXPECT_EQ(run({"-d", "-c", "x"}), -1);
    const std::vector<std::string> calls = stubs.take();
    ASSERT_GE(calls.size(), 3U);
    EXPECT_EQ(std::vector<std::string>(calls.end() - 3, calls.end()),
              (std::vector<std::string>{"mqtt_deinit", "status_server_stop", "sysmon_deinit"}));
    EXPECT_THAT(log.lines(), Contains("ERROR failed to deinit MQTT"));
}

/* MQTT is torn down under the running planes. */
TEST_F(AppMain, StopInTheRunPhaseStopsNoPlane)
{
    stubs.root.oam.oam_enabled = true;
    stubs.root.ns.ns_enabled = true;
    stubs.on("wait", send_stop_signal);
    EXPECT_EQ(run({"-d", "-c", "x"}), 0);
    const std::vector<std::string> calls = stubs.take();
    EXPECT_THAT(calls, Contains("dataplane_ns_connect"));
    for (const char *call : {"dataplane_stop_server", "dataplane_deinit", "ctrlplane_deinit"})
        EXPECT_THAT(calls, Not(Contains(call)));
    EXPECT_EQ(flags(), "ctrlplane_started dataplane_started ns_connected");
}

/* ---- the stop signal ---- */

TEST_F(AppMain, OnlyTheStopSignalIsHandledFromJustBeforeMqtt)
{
    std::array<decltype(SIG_DFL), 32> before = {};
    for (int number = 1; number < 32; number++)
        before[static_cast<size_t>(number)] = handling_of(number).sa_handler;
    struct sigaction at_mqtt_init = {};
    stubs.on("config_load", [] { EXPECT_EQ(handling_of(SIGUSR2).sa_handler, SIG_DFL); });
    stubs.on("mqtt_init", [&at_mqtt_init] { at_mqtt_init = handling_of(SIGUSR2); });
    stubs.on("wait", send_stop_signal);
    EXPECT_EQ(run({"-d", "-c", "x"}), 0);

    EXPECT_NE(at_mqtt_init.sa_handler, SIG_DFL);
    EXPECT_NE(at_mqtt_init.sa_handler, SIG_IGN);
    EXPECT_EQ(at_mqtt_init.sa_flags & (SA_RESTART | SA_SIGINFO | SA_RESETHAND | SA_NODEFER), 0);
    for (int number = 1; number < 32; number++) {
        EXPECT_EQ(sigismember(&at_mqtt_init.sa_mask, number), 0);
        if (number != SIGUSR2) {
            EXPECT_EQ(handling_of(number).sa_handler, before[static_cast<size_t>(number)]) << number;
        }
    }
}

TEST_F(AppMain, StopSignalBeforeTheLoopIsLost)
{
    stubs.on("mqtt_init", send_stop_signal);
    stubs.on("key_manager_init", send_stop_signal);
    stubs.on("wait", send_stop_signal, 2);
    EXPECT_EQ(run({"-d", "-c", "x"}), 0);
    EXPECT_THAT(stubs.take(), ElementsAre("log_init 2 stderr", "config_load x", "child_prepare", "mqtt_init",
                                          "sysmon_init", "key_manager_init", REGISTER, "give_back", "wait 10",
                                          "sysmon_report", REGISTER, "give_back", "wait 10", "sysmon_report",
                                          REGISTER, "sysmon_unregister", "mqtt_deinit", "sysmon_deinit"));
}

TEST_F(AppMain, StopSignalInARetryEndsThePhaseAfterOneMoreAttempt)
{
    stubs.root.oam.oam_enabled = true;
    stubs.script("ctrlplane_init", {-1, -1});
    stubs.on("wait", send_stop_signal);
    EXPECT_EQ(run({"-d", "-c", "x"}), 0);
    EXPECT_THAT(stubs.take(),
                ElementsAre("log_init 2 stderr", "config_load x", "child_prepare", "mqtt_init", "sysmon_init",
                            "key_manager_init", REGISTER, "res_init", "ctrlplane_init a0b1c2d3e4f5",
                            "wait 10", "res_init", "ctrlplane_init a0b1c2d3e4f5", "sysmon_unregister",
                            "mqtt_deinit", "sysmon_deinit"));
    EXPECT_THAT(log.lines(), Contains("INFO bridge is shutting down before ctrlplane connection procedure is "
                                      "completed"));
}

TEST_F(AppMain, StopSignalInARetryThatThenSucceedsIsSeenByTheRunPhase)
{
    stubs.root.oam.oam_enabled = true;
    stubs.root.ns.ns_enabled = true;
    stubs.script("snmp_connect_oam", {-1});
    stubs.on("wait", send_stop_signal);
    EXPECT_EQ(run({"-d", "-c", "x"}), 0);
    const std::vector<std::string> calls = stubs.take();
    EXPECT_THAT(calls, Contains("dataplane_start_server 1700"));
    EXPECT_THAT(calls, Not(Contains("dataplane_ns_connect")));
    EXPECT_THAT(calls, Not(Contains("sysmon_report")));
    EXPECT_EQ(log.lines().back(), "INFO bridge is shutting down");
}

/* ---- the parser's end of the process ---- */

class AppMainDeath : public AppMain
{
};

TEST_F(AppMainDeath, RefusedLevelEndsTheProcessBeforeAnythingStarts)
{
    for (const char *level : {"5", "-1", "x"}) {
        EXPECT_EXIT(run({"-d", "-v", level}), testing::ExitedWithCode(64),
                    std::string("Invalid log level value: ") + level + "\nUsage: ");
    }
}
