/* What the loop does about each result of each phase. Includes the source, to reach results that no phase
 * returns. */
#include "app/main_bridge.cpp"

#include "app/app_stubs.h"
#include "mqtt/background.h"

#include <optional>
#include <thread>

using testing::ElementsAre;
using testing::IsEmpty;

static const char *const REGISTER = "sysmon_register main_snv_mqtt_bridge_task 11000 5 0";

static void stop()
{
    ctx.running = false;
}

/* Fails when the supervisor's lock is free, as seen by another thread. */
static void expect_lock_held(bool held)
{
    std::thread other([held] {
        const bool taken = ctx.lock.try_lock();
        if (taken)
            ctx.lock.unlock();
        EXPECT_EQ(taken, !held);
    });
    other.join();
}

/* ---- actions on results ---- */

class AppActions : public AppTest
{
  protected:
    void SetUp() override
    {
        AppTest::SetUp();
        start_everything();
    }
};

TEST_F(AppActions, OfTheControlPlanePhase)
{
    EXPECT_EQ(act_on_ctrlplane(PHASE_CTRLPLANE_READY), LOOP_NEXT_PHASE);
    EXPECT_THAT(stubs.take(), IsEmpty());
    EXPECT_EQ(act_on_ctrlplane(PHASE_EXIT), LOOP_LEAVE);
    EXPECT_THAT(stubs.take(), ElementsAre("sysmon_unregister"));
    EXPECT_EQ(act_on_ctrlplane(PHASE_RETRY), LOOP_NEXT_PASS);
    EXPECT_THAT(stubs.take(), ElementsAre("sysmon_unregister", "give_back", "wait 20"));
}

TEST_F(AppActions, OfTheDataPlanePhaseReady)
{
    EXPECT_EQ(act_on_dataplane(PHASE_DATAPLANE_READY), LOOP_NEXT_PHASE);
    EXPECT_THAT(stubs.take(), IsEmpty());
}

TEST_F(AppActions, ExitOfTheDataPlanePhaseStopsTheControlPlaneWithoutTheLock)
{
    stubs.on("ctrlplane_disconnect_oam", [] { expect_lock_held(false); });
    EXPECT_EQ(act_on_dataplane(PHASE_EXIT), LOOP_LEAVE);
    EXPECT_THAT(stubs.take(), ElementsAre("sysmon_unregister", "ctrlplane_disconnect_oam",
                                          "ctrlplane_disconnect_agent", "ctrlplane_deinit"));
    EXPECT_EQ(flags(), "running dataplane_started ns_connected geoloc_connected");
    EXPECT_THAT(log.lines(), ElementsAre("TRACE ctrlplane deinit complete"));
}

TEST_F(AppActions, RestartFromTheDataPlanePhaseStopsTheControlPlaneUnderTheLock)
{
    ctx.ctrlplane_restart_requested = true;
    stubs.on("ctrlplane_disconnect_oam", [] { expect_lock_held(true); });
    stubs.on("ctrlplane_deinit", [] { expect_lock_held(true); });
    stubs.on("wait", [] { expect_lock_held(false); });
    EXPECT_EQ(act_on_dataplane(PHASE_RESTART_CTRLPLANE), LOOP_NEXT_PASS);
    EXPECT_THAT(stubs.take(),
                ElementsAre("sysmon_unregister", "ctrlplane_disconnect_oam", "ctrlplane_disconnect_agent",
                            "ctrlplane_deinit", "give_back", "wait 20"));
    EXPECT_EQ(flags(), "running dataplane_started ns_connected geoloc_connected ctrlplane_restarting");
}

TEST_F(AppActions, OfTheRunPhaseReady)
{
    EXPECT_EQ(act_on_run(PHASE_DATAPLANE_READY), LOOP_NEXT_PASS);
    EXPECT_THAT(stubs.take(), ElementsAre("give_back", "wait 10", "sysmon_report"));
    EXPECT_THAT(log.lines(), ElementsAre("TRACE bridge main loop: ticking and reporting to sysmon"));
}

/* The planes stay up: MQTT is torn down under them. */
TEST_F(AppActions, ExitOfTheRunPhaseStopsNoPlane)
{
    const std::string before = flags();
    EXPECT_EQ(act_on_run(PHASE_EXIT), LOOP_LEAVE);
    EXPECT_THAT(stubs.take(), ElementsAre("sysmon_unregister"));
    EXPECT_EQ(flags(), before);
}

TEST_F(AppActions, RestartFromTheRunPhaseStopsBothPlanes)
{
    ctx.ctrlplane_restart_requested = true;
    ctx.ns_restart_requested = true;
    ctx.geoloc_restart_requested = true;
    stubs.on("ctrlplane_disconnect_agent", [] { expect_lock_held(true); });
    stubs.on("sysmon_unregister", [] { expect_lock_held(false); });
    EXPECT_EQ(act_on_run(PHASE_RESTART_CTRLPLANE), LOOP_NEXT_PASS);
    EXPECT_THAT(stubs.take(),
                ElementsAre("ctrlplane_disconnect_oam", "ctrlplane_disconnect_agent", "ctrlplane_deinit",
                            "sysmon_unregister", "dataplane_stop_server", "dataplane_ns_disconnect",
                            "dataplane_geo_disconnect", "dataplane_deinit", "give_back", "wait 20"));
    EXPECT_EQ(flags(), "running ctrlplane_restarting");
}

TEST_F(AppActions, ConnectionLostByTheStopItselfIsNoSecondRequest)
{
    std::optional<background> reporter;
    stubs.on("ctrlplane_disconnect_oam", [&reporter] {
        reporter.emplace([] { bridge_on_connection_failed(0, nullptr); });
        EXPECT_TRUE(reporter->ends());
    });
    stubs.on("dataplane_stop_server", [] { bridge_on_connection_failed(0, nullptr); });
    EXPECT_EQ(act_on_run(PHASE_RESTART_CTRLPLANE), LOOP_NEXT_PASS);
    EXPECT_EQ(flags(), "running ctrlplane_restarting");
}

TEST_F(AppActions, RestartOfTheDataPlaneLeavesTheControlPlane)
{
    EXPECT_EQ(act_on_run(PHASE_RESTART_DATAPLANE), LOOP_NEXT_PASS);
    EXPECT_THAT(stubs.take(),
                ElementsAre("sysmon_unregister", "dataplane_stop_server", "dataplane_ns_disconnect",
                            "dataplane_geo_disconnect", "dataplane_deinit", "give_back", "wait 20"));
    EXPECT_EQ(flags(), "running ctrlplane_started");
}

TEST_F(AppActions, StopDisconnectsOnlyServersThatAreEnabledAndConnected)
{
    static const struct {
        bool ns_enabled;
        bool ns_connected;
        bool geoloc_enabled;
        bool geoloc_connected;
        std::vector<std::string> calls;
    } cases[] = {
        {true, false, true, true, {"dataplane_geo_disconnect"}},
        {true, true, true, false, {"dataplane_ns_disconnect"}},
        {false, true, true, false, {}},
        {true, false, false, true, {}},
    };
    for (const auto &row : cases) {
        stubs.root.ns.ns_enabled = row.ns_enabled;
        stubs.root.geoloc.geoloc_enabled = row.geoloc_enabled;
        ctx.dataplane_started = true;
        ctx.ns_connected = row.ns_connected;
        ctx.geoloc_connected = row.geoloc_connected;
        bridge_dataplane_stop();
        std::vector<std::string> calls = {"dataplane_stop_server"};
        calls.insert(calls.end(), row.calls.begin(), row.calls.end());
        calls.push_back("dataplane_deinit");
        EXPECT_EQ(stubs.take(), calls);
        EXPECT_EQ(flags(), "running ctrlplane_started");
    }
}

TEST_F(AppActions, PlanesThatAreNotStartedAreNotStopped)
{
    ctx.dataplane_started = false;
    ctx.ctrlplane_started = false;
    ctx.ctrlplane_restart_requested = true;
    const std::string before = flags();
    bridge_dataplane_stop();
    bridge_ctrlplane_stop();
    ctx.ctrlplane_started = true;
    stubs.root.oam.oam_enabled = false;
    bridge_ctrlplane_stop();
    ctx.ctrlplane_started = false;
    EXPECT_THAT(stubs.take(), IsEmpty());
    EXPECT_EQ(flags(), before);
}

using AppActionsDeath = AppTest;

TEST_F(AppActionsDeath, AnyOtherResultIsAProgrammingFault)
{
    static constexpr struct {
        loop_step (*act)(bridge_phase_result);
        std::initializer_list<int> results;
    } cases[] = {
        {act_on_ctrlplane, {PHASE_RESTART_CTRLPLANE, PHASE_RESTART_DATAPLANE, PHASE_DATAPLANE_READY, 6, -1}},
        {act_on_dataplane, {PHASE_RETRY, PHASE_RESTART_DATAPLANE, PHASE_CTRLPLANE_READY, 6, -1}},
        {act_on_run, {PHASE_RETRY, PHASE_CTRLPLANE_READY, 6, -1}},
    };
    for (const auto &row : cases) {
        for (const int result : row.results) {
            SCOPED_TRACE(result);
            EXPECT_ASSERTION(row.act(static_cast<bridge_phase_result>(result)), "0");
        }
    }
}

/* ---- passes ---- */

class AppLoop : public AppTest
{
};

TEST_F(AppLoop, EveryPassRegistersAndAQuietTickRunsAllPhasesAgain)
{
    start_everything();
    stubs.on("sysmon_report", stop, 2);
    bridge_supervise();
    EXPECT_THAT(stubs.take(),
                ElementsAre(REGISTER, "give_back", "wait 10", "sysmon_report", REGISTER, "give_back",
                            "wait 10", "sysmon_report", REGISTER, "sysmon_unregister"));
}

TEST_F(AppLoop, StartBringsUpTheControlPlaneFirstAndConnectsInTheRunPhase)
{
    stubs.root.oam.oam_enabled = true;
    stubs.root.ns.ns_enabled = true;
    stubs.root.geoloc.geoloc_enabled = true;
    stubs.on("wait", stop);
    bridge_supervise();
    EXPECT_THAT(stubs.take(),
                ElementsAre(REGISTER, "res_init", "ctrlplane_init a0b1c2d3e4f5",
                            "ctrlplane_connect_agent 127.0.0.1 public /mibs udp:162 5", "snmp_connect_oam",
                            "res_init", "dataplane_init", "dataplane_start_server 1700", "res_init",
                            "dataplane_ns_connect", "res_init", "dataplane_geo_connect", "give_back",
                            "wait 10", "sysmon_report", REGISTER, "sysmon_unregister"));
    EXPECT_EQ(flags(), "ctrlplane_started dataplane_started ns_connected geoloc_connected");
}

TEST_F(AppLoop, WithoutServersItTicksWithoutConnectingAnything)
{
    stubs.on("wait", stop, 3);
    bridge_supervise();
    EXPECT_THAT(stubs.take(), ElementsAre(REGISTER, "give_back", "wait 10", "sysmon_report", REGISTER,
                                          "give_back", "wait 10", "sysmon_report", REGISTER, "give_back",
                                          "wait 10", "sysmon_report", REGISTER, "sysmon_unregister"));
}

TEST_F(AppLoop, UnreachableOamServerDefersTheDataPlane)
{
    stubs.root.oam.oam_enabled = true;
    stubs.root.ns.ns_enabled = true;
    stubs.script("snmp_connect_oam", {-1, -1, -1, -1});
    stubs.on("wait", stop, 3);
    bridge_supervise();
    std::vector<std::string> calls = {REGISTER};
    for (int attempt = 1; attempt <= 4; attempt++) {
        for (const char *call : {"res_init", "ctrlplane_init a0b1c2d3e4f5",
                                 "ctrlplane_connect_agent 127.0.0.1 public /mibs udp:162 5",
                                 "snmp_connect_oam", "ctrlplane_disconnect_agent", "ctrlplane_deinit"})
            calls.push_back(call);
        calls.push_back(attempt < 4 ? "wait 10" : "sysmon_unregister");
    }
    EXPECT_EQ(stubs.take(), calls);
}

TEST_F(AppLoop, LostConnectionRestartsBothPlanesAfter20Seconds)
{
    start_everything();
    stubs.on("wait", [] { bridge_on_connection_failed(0, nullptr); });
    stubs.on("sysmon_report", stop, 2);
    bridge_supervise();
    EXPECT_THAT(stubs.take(),
                ElementsAre(REGISTER, "give_back", "wait 10", "sysmon_report", REGISTER,
                            "ctrlplane_disconnect_oam", "ctrlplane_disconnect_agent", "ctrlplane_deinit",
                            "sysmon_unregister", "dataplane_stop_server", "dataplane_ns_disconnect",
                            "dataplane_geo_disconnect", "dataplane_deinit", "give_back", "wait 20", REGISTER,
                            "res_init", "ctrlplane_init a0b1c2d3e4f5",
                            "ctrlplane_connect_agent 127.0.0.1 public /mibs udp:162 5", "snmp_connect_oam",
                            "res_init", "dataplane_init", "dataplane_start_server 1700", "res_init",
                            "dataplane_ns_connect", "res_init", "dataplane_geo_connect", "give_back",
                            "wait 10", "sysmon_report", REGISTER, "sysmon_unregister"));
    EXPECT_EQ(flags(), "ctrlplane_started dataplane_started ns_connected geoloc_connected");
}

TEST_F(AppLoop, RestartRequestedWhileTheDataPlaneFailsToStart)
{
    start_everything();
    ctx.dataplane_started = false;
    stubs.script("dataplane_init", {-1, -1});
    stubs.on("wait", [] { bridge_on_connection_failed(1, nullptr); });
    stubs.on("wait", stop, 3);
    bridge_supervise();
    EXPECT_THAT(stubs.take(),
                ElementsAre(REGISTER, "res_init", "dataplane_init", "wait 10", "res_init", "dataplane_init",
                            "sysmon_unregister", "ctrlplane_disconnect_oam", "ctrlplane_disconnect_agent",
                            "ctrlplane_deinit", "give_back", "wait 20", REGISTER, "res_init",
                            "ctrlplane_init a0b1c2d3e4f5",
                            "ctrlplane_connect_agent 127.0.0.1 public /mibs udp:162 5", "snmp_connect_oam",
                            "res_init", "dataplane_init", "dataplane_start_server 1700", "give_back",
                            "wait 10", "sysmon_report", REGISTER, "sysmon_unregister"));
}

TEST_F(AppLoop, StopWhileTheDataPlaneFailsToStartStopsTheControlPlane)
{
    start_everything();
    ctx.dataplane_started = false;
    stubs.script("dataplane_start_server", {-1, -1});
    stubs.on("wait", stop);
    bridge_supervise();
    EXPECT_THAT(stubs.take(),
                ElementsAre(REGISTER, "res_init", "dataplane_init", "dataplane_start_server 1700",
                            "dataplane_deinit", "wait 10", "res_init", "dataplane_init",
                            "dataplane_start_server 1700", "dataplane_deinit", "sysmon_unregister",
                            "ctrlplane_disconnect_oam", "ctrlplane_disconnect_agent", "ctrlplane_deinit"));
}

TEST_F(AppLoop, BothServersFailingRestartTheDataPlaneAfter20Seconds)
{
    start_everything();
    bridge_on_send_failed(0, nullptr);
    bridge_on_send_failed(1, nullptr);
    stubs.on("wait", stop, 2);
    bridge_supervise();
    EXPECT_THAT(stubs.take(),
                ElementsAre(REGISTER, "sysmon_unregister", "dataplane_stop_server", "dataplane_ns_disconnect",
                            "dataplane_geo_disconnect", "dataplane_deinit", "give_back", "wait 20", REGISTER,
                            "res_init", "dataplane_init", "dataplane_start_server 1700", "res_init",
                            "dataplane_ns_connect", "res_init", "dataplane_geo_connect", "give_back",
                            "wait 10", "sysmon_report", REGISTER, "sysmon_unregister"));
}

/* Nobody clears the request then: the gateway's data plane goes up and down for ever. */
TEST_F(AppLoop, WithoutOamALostConnectionRestartsTheDataPlaneAgainAndAgain)
{
    stubs.root.ns.ns_enabled = true;
    bridge_on_connection_failed(0, nullptr);
    stubs.on("wait", stop, 3);
    bridge_supervise();
    std::vector<std::string> calls;
    for (int round = 0; round < 3; round++) {
        for (const char *call :
             {REGISTER, "res_init", "dataplane_init", "dataplane_start_server 1700", "sysmon_unregister",
              "dataplane_stop_server", "dataplane_deinit", "give_back", "wait 20"})
            calls.push_back(call);
    }
    for (const char *call :
         {REGISTER, "res_init", "dataplane_init", "dataplane_start_server 1700", "sysmon_unregister"})
        calls.push_back(call);
    EXPECT_EQ(stubs.take(), calls);
    EXPECT_EQ(flags(), "dataplane_started ctrlplane_restart_requested ctrlplane_restarting");
}
