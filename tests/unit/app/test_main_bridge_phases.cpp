/* The three phases one at a time, and the callbacks of other threads. */
#include "app/app_stubs.h"

#include "mqtt/background.h"

#include <atomic>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

static const char *const AGENT = "ctrlplane_connect_agent 127.0.0.1 public /mibs udp:162 5";
static const char *const INIT = "ctrlplane_init a0b1c2d3e4f5";

/* ---- callbacks ---- */

using AppCallbacks = AppTest;

TEST_F(AppCallbacks, ConnectionFailureAsksForARestartForCodes0And1Only)
{
    for (const int32_t code : {0, 1}) {
        bridge_main_ctx.ctrlplane_restart_requested = false;
        bridge_on_connection_failed(code, nullptr);
        EXPECT_EQ(flags(), "running ctrlplane_restart_requested");
        EXPECT_THAT(log.lines(), ElementsAre("INFO mqtt connection to the server failed",
                                             "INFO initiating control plane restart"));
    }
    bridge_main_ctx.ctrlplane_restart_requested = false;
    for (const int32_t code : {-1, 2, 3, 256}) {
        bridge_on_connection_failed(code, nullptr);
        EXPECT_EQ(flags(), "running");
    }
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(AppCallbacks, ConnectionFailureDuringARestartIsOnlyNoted)
{
    for (std::atomic<bool> *flag :
         {&bridge_main_ctx.ctrlplane_restarting, &bridge_main_ctx.ctrlplane_restart_requested}) {
        *flag = true;
        const std::string before = flags();
        bridge_on_connection_failed(0, nullptr);
        EXPECT_EQ(flags(), before);
        EXPECT_THAT(log.lines(),
                    ElementsAre("INFO mqtt connection to the server failed",
                                "INFO control plane is already being restarted...no need to initiate another "
                                "restart"));
        *flag = false;
    }
}

/* Stopping the control plane loses connections; whoever reports one must not wait for the end of the stop. */
TEST_F(AppCallbacks, ConnectionFailureDuringARestartDoesNotWaitForTheLock)
{
    std::unique_lock<std::mutex> guard(bridge_main_ctx.lock);
    bridge_main_ctx.ctrlplane_restarting = true;
    background reporter([] { bridge_on_connection_failed(0, nullptr); });
    EXPECT_TRUE(reporter.ends());
    guard.unlock();
    EXPECT_EQ(flags(), "running ctrlplane_restarting");
}

TEST_F(AppCallbacks, RequestWaitsForTheLock)
{
    std::unique_lock<std::mutex> guard(bridge_main_ctx.lock);
    const int before = stub_wait_rounds;
    background reporter([] { bridge_on_connection_failed(1, nullptr); });
    EXPECT_TRUE(wait_until([before] { return stub_wait_rounds > before + 5; }));
    EXPECT_THAT(log.lines(), ElementsAre("INFO mqtt connection to the server failed"));
    EXPECT_EQ(flags(), "running");
    guard.unlock();
    EXPECT_TRUE(reporter.ends());
    EXPECT_EQ(flags(), "running ctrlplane_restart_requested");
}

/* The loop may be waiting for this very thread, with the lock held. */
TEST_F(AppCallbacks, RequestGivesUpTheLockForARestartThatBegins)
{
    std::unique_lock<std::mutex> guard(bridge_main_ctx.lock);
    const int before = stub_wait_rounds;
    background reporter([] { bridge_on_connection_failed(1, nullptr); });
    EXPECT_TRUE(wait_until([before] { return stub_wait_rounds > before + 5; }));
    bridge_main_ctx.ctrlplane_restarting = true;
    EXPECT_TRUE(reporter.ends());
    guard.unlock();
    EXPECT_EQ(flags(), "running ctrlplane_restarting");
    EXPECT_THAT(log.lines(),
                ElementsAre("INFO mqtt connection to the server failed",
                            "INFO control plane is already being restarted...no need to initiate another "
                            "restart"));
}

TEST_F(AppCallbacks, SendFailureNamesItsServer)
{
    static constexpr struct {
        int32_t code;
        const char *flags;
        const char *line; /* null: nothing happens */
    } cases[] = {
        {0, "running ns_restart_requested", "INFO send to NS has failed: initiating service restart"},
        {1, "running geoloc_restart_requested", "INFO send to GeoLoc has failed: initiating service restart"},
        {2, "running", nullptr},
        {-1, "running", nullptr},
    };
    for (const auto &row : cases) {
        bridge_main_ctx.ns_restart_requested = false;
        bridge_main_ctx.geoloc_restart_requested = false;
        const std::lock_guard<std::mutex> guard(bridge_main_ctx.lock); /* it takes none */
        bridge_on_send_failed(row.code, nullptr);
        EXPECT_EQ(flags(), row.flags);
        if (row.line != nullptr)
            EXPECT_THAT(log.lines(), ElementsAre(row.line));
        else
            EXPECT_THAT(log.lines(), IsEmpty());
    }
}

/* ---- control plane phase ---- */

class AppCtrlplanePhase : public AppTest
{
  protected:
    void SetUp() override
    {
        AppTest::SetUp();
        stubs.root.oam.oam_enabled = true;
    }
};

TEST_F(AppCtrlplanePhase, WithoutOamOrOnceStartedThereIsNothingToDo)
{
    bridge_main_ctx.ctrlplane_started = true;
    EXPECT_EQ(bridge_ctrlplane_phase(), PHASE_CTRLPLANE_READY);
    bridge_main_ctx.ctrlplane_started = false;
    stubs.root.oam.oam_enabled = false;
    bridge_main_ctx.ctrlplane_restarting = true;
    EXPECT_EQ(bridge_ctrlplane_phase(), PHASE_CTRLPLANE_READY);
    EXPECT_EQ(flags(), "running ctrlplane_restarting"); /* nobody clears it then */
    EXPECT_THAT(stubs.take(), IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(AppCtrlplanePhase, StartConnectsTheAgentAndThenTheServer)
{
    bridge_main_ctx.ctrlplane_restarting = true;
    EXPECT_EQ(bridge_ctrlplane_phase(), PHASE_CTRLPLANE_READY);
    EXPECT_THAT(stubs.take(), ElementsAre("res_init", INIT, AGENT, "snmp_connect_oam"));
    EXPECT_EQ(flags(), "running ctrlplane_started");
    EXPECT_THAT(log.lines(), ElementsAre("DEBUG OA&M is enabled: deffering all other services until O&AM "
                                         "connection is established",
                                         "INFO ctrlplane is started"));
}

TEST_F(AppCtrlplanePhase, FailureUndoesWhatWasReachedAndIsRetriedAfter10Seconds)
{
    static const struct {
        const char *failing;
        std::vector<std::string> calls;
    } cases[] = {
        {"ctrlplane_init", {"res_init", INIT}},
        {"ctrlplane_connect_agent", {"res_init", INIT, AGENT, "ctrlplane_deinit"}},
        {"snmp_connect_oam",
         {"res_init", INIT, AGENT, "snmp_connect_oam", "ctrlplane_disconnect_agent", "ctrlplane_deinit"}},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.failing);
        bridge_main_ctx.ctrlplane_started = false;
        stubs.script(row.failing, {-1, -7});
        EXPECT_EQ(bridge_ctrlplane_phase(), PHASE_CTRLPLANE_READY);
        std::vector<std::string> calls;
        for (int attempt = 0; attempt < 2; attempt++) {
            calls.insert(calls.end(), row.calls.begin(), row.calls.end());
            calls.push_back("wait 10");
        }
        for (const char *call : {"res_init", INIT, AGENT, "snmp_connect_oam"})
            calls.push_back(call);
        EXPECT_EQ(stubs.take(), calls);
        EXPECT_THAT(log.lines(), ElementsAre("DEBUG OA&M is enabled: deffering all other services until O&AM "
                                             "connection is established",
                                             "TRACE ctrlplane initialization failed: restarting",
                                             "TRACE ctrlplane initialization failed: restarting",
                                             "INFO ctrlplane is started"));
    }
}

/* Only a negative result is a failure. */
TEST_F(AppCtrlplanePhase, PositiveResultIsASuccess)
{
    stubs.script("ctrlplane_init", {1});
    stubs.script("ctrlplane_connect_agent", {2});
    stubs.script("snmp_connect_oam", {3});
    EXPECT_EQ(bridge_ctrlplane_phase(), PHASE_CTRLPLANE_READY);
    EXPECT_EQ(flags(), "running ctrlplane_started");
}

TEST_F(AppCtrlplanePhase, StopIsSeenAfterAFailedAttemptOnly)
{
    bridge_main_ctx.running = false;
    bridge_main_ctx.ctrlplane_restarting = true;
    stubs.script("snmp_connect_oam", {-1});
    EXPECT_EQ(bridge_ctrlplane_phase(), PHASE_EXIT);
    EXPECT_EQ(flags(), "");
    EXPECT_THAT(stubs.take(), ElementsAre("res_init", INIT, AGENT, "snmp_connect_oam",
                                          "ctrlplane_disconnect_agent", "ctrlplane_deinit"));
    EXPECT_THAT(log.lines(), Contains("INFO bridge is shutting down before ctrlplane connection procedure is "
                                      "completed"));
    EXPECT_EQ(bridge_ctrlplane_phase(), PHASE_CTRLPLANE_READY);
    EXPECT_EQ(flags(), "ctrlplane_started");
}

/* ---- data plane phase ---- */

class AppDataplanePhase : public AppTest
{
  protected:
    void SetUp() override
    {
        AppTest::SetUp();
        stubs.root.ns.ns_enabled = true;
    }
};

TEST_F(AppDataplanePhase, WithoutAServerOrOnceStartedThereIsNothingToDo)
{
    bridge_main_ctx.dataplane_started = true;
    EXPECT_EQ(bridge_dataplane_phase(), PHASE_DATAPLANE_READY);
    bridge_main_ctx.dataplane_started = false;
    stubs.root.ns.ns_enabled = false;
    EXPECT_EQ(bridge_dataplane_phase(), PHASE_DATAPLANE_READY);
    EXPECT_EQ(flags(), "running");
    EXPECT_THAT(stubs.take(), IsEmpty());
}

TEST_F(AppDataplanePhase, EitherServerStartsItWithoutConnectingAny)
{
    for (const bool ns : {true, false}) {
        bridge_main_ctx.dataplane_started = false;
        stubs.root.ns.ns_enabled = ns;
        stubs.root.geoloc.geoloc_enabled = !ns;
        EXPECT_EQ(bridge_dataplane_phase(), PHASE_DATAPLANE_READY);
        EXPECT_THAT(stubs.take(), ElementsAre("res_init", "dataplane_init", "dataplane_start_server 1700"));
        EXPECT_EQ(flags(), "running dataplane_started");
        EXPECT_THAT(log.lines(), ElementsAre("INFO dataplane is started"));
    }
}

TEST_F(AppDataplanePhase, FailureIsUndoneAndRetriedAfter10Seconds)
{
    stubs.script("dataplane_init", {-1});
    stubs.script("dataplane_start_server", {-2});
    EXPECT_EQ(bridge_dataplane_phase(), PHASE_DATAPLANE_READY);
    EXPECT_THAT(stubs.take(),
                ElementsAre("res_init", "dataplane_init", "wait 10", "res_init", "dataplane_init",
                            "dataplane_start_server 1700", "dataplane_deinit", "wait 10", "res_init",
                            "dataplane_init", "dataplane_start_server 1700"));
    EXPECT_THAT(log.lines(), ElementsAre("TRACE dataplane initialization failed: restarting",
                                         "TRACE dataplane initialization failed: restarting",
                                         "INFO dataplane is started"));
}

TEST_F(AppDataplanePhase, StopAndRestartAreSeenAfterAFailedAttemptTheStopFirst)
{
    bridge_main_ctx.ctrlplane_restart_requested = true;
    EXPECT_EQ(bridge_dataplane_phase(), PHASE_DATAPLANE_READY);
    bridge_main_ctx.dataplane_started = false;
    log.lines();

    stubs.script("dataplane_init", {-1, -1});
    EXPECT_EQ(bridge_dataplane_phase(), PHASE_RESTART_CTRLPLANE);
    EXPECT_THAT(log.lines(), ElementsAre("WARN control plane restart is requested before data plane "
                                         "connection could be established"));
    EXPECT_EQ(flags(), "running ctrlplane_restart_requested");

    bridge_main_ctx.running = false;
    EXPECT_EQ(bridge_dataplane_phase(), PHASE_EXIT);
    EXPECT_THAT(log.lines(),
                ElementsAre("INFO bridge is shutting down before dataplane connection is established"));
}

/* ---- run phase ---- */

using AppRunPhase = AppTest;

TEST_F(AppRunPhase, FirstMatchDecides)
{
    static constexpr struct {
        bool running;
        bool ctrlplane_requested;
        bridge_phase_result result;
        const char *line;
    } cases[] = {
        {false, true, PHASE_EXIT, "INFO bridge is shutting down"},
        {true, true, PHASE_RESTART_CTRLPLANE, "WARN ctrlplane restart requested"},
        {true, false, PHASE_RESTART_DATAPLANE, "WARN dataplane restart requested"},
    };
    start_everything();
    bridge_main_ctx.ns_restart_requested = true;
    bridge_main_ctx.geoloc_restart_requested = true;
    for (const auto &row : cases) {
        bridge_main_ctx.running = row.running;
        bridge_main_ctx.ctrlplane_restart_requested = row.ctrlplane_requested;
        const std::string before = flags();
        EXPECT_EQ(bridge_run_phase(), row.result);
        EXPECT_EQ(flags(), before);
        EXPECT_THAT(log.lines(), ElementsAre(row.line));
    }
    EXPECT_THAT(stubs.take(), IsEmpty());
}

TEST_F(AppRunPhase, OneFailedServerAloneIsConnectedAnewInTheSamePass)
{
    static const struct {
        int32_t code;
        std::vector<std::string> calls;
    } cases[] = {
        {0, {"dataplane_ns_disconnect", "res_init", "dataplane_ns_connect"}},
        {1, {"dataplane_geo_disconnect", "res_init", "dataplane_geo_connect"}},
    };
    start_everything();
    const std::string before = flags();
    for (const auto &row : cases) {
        bridge_on_send_failed(row.code, nullptr);
        log.lines();
        EXPECT_EQ(bridge_run_phase(), PHASE_DATAPLANE_READY);
        EXPECT_EQ(stubs.take(), row.calls);
        EXPECT_EQ(flags(), before);
        EXPECT_THAT(log.lines(), ElementsAre("WARN dataplane partial restart requested"));
    }
}

TEST_F(AppRunPhase, ServerThatDoesNotConnectIsTriedAgainWhileTheOtherWorks)
{
    start_everything();
    bridge_on_send_failed(1, nullptr);
    stubs.script("dataplane_geo_connect", {-1, -1});
    EXPECT_EQ(bridge_run_phase(), PHASE_DATAPLANE_READY);
    EXPECT_EQ(flags(), "running ctrlplane_started dataplane_started ns_connected");
    EXPECT_EQ(bridge_run_phase(), PHASE_DATAPLANE_READY);
    EXPECT_EQ(bridge_run_phase(), PHASE_DATAPLANE_READY);
    EXPECT_THAT(stubs.take(),
                ElementsAre("dataplane_geo_disconnect", "res_init", "dataplane_geo_connect", "res_init",
                            "dataplane_geo_connect", "res_init", "dataplane_geo_connect"));
    EXPECT_EQ(flags(), "running ctrlplane_started dataplane_started ns_connected geoloc_connected");
}

/* A server that is not enabled counts as failed. */
TEST_F(AppRunPhase, OnlyServerThatDoesNotComeBackRestartsTheWholeDataPlane)
{
    for (const bool ns : {true, false}) {
        stubs.root.ns.ns_enabled = ns;
        stubs.root.geoloc.geoloc_enabled = !ns;
        bridge_main_ctx.dataplane_started = true;
        bridge_main_ctx.ns_connected = ns;
        bridge_main_ctx.geoloc_connected = !ns;
        bridge_on_send_failed(ns ? 0 : 1, nullptr);
        stubs.script(ns ? "dataplane_ns_connect" : "dataplane_geo_connect", {-5});
        log.lines();
        EXPECT_EQ(bridge_run_phase(), PHASE_RESTART_DATAPLANE);
        EXPECT_EQ(flags(), "running dataplane_started");
        EXPECT_THAT(log.lines(), ElementsAre("WARN dataplane partial restart requested",
                                             "DEBUG restarting data plane entirely: all available endpoints "
                                             "are failed to connect"));
        stubs.take();
    }
}

TEST_F(AppRunPhase, BothServersFailingToConnectRestartTheDataPlane)
{
    stubs.root.ns.ns_enabled = true;
    stubs.root.geoloc.geoloc_enabled = true;
    bridge_main_ctx.dataplane_started = true;
    stubs.script("dataplane_ns_connect", {-1});
    stubs.script("dataplane_geo_connect", {-1});
    EXPECT_EQ(bridge_run_phase(), PHASE_RESTART_DATAPLANE);
    EXPECT_THAT(stubs.take(),
                ElementsAre("res_init", "dataplane_ns_connect", "res_init", "dataplane_geo_connect"));
    EXPECT_EQ(flags(), "running dataplane_started");
}

TEST_F(AppRunPhase, ConnectedServersAreLeftInPeace)
{
    start_everything();
    EXPECT_EQ(bridge_run_phase(), PHASE_DATAPLANE_READY);
    EXPECT_THAT(stubs.take(), IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
}

/* Neither connected nor failed: the next tick tries again. */
TEST_F(AppRunPhase, PositiveResultOfAConnectIsNoConnectionAndNoFailure)
{
    stubs.root.ns.ns_enabled = true;
    bridge_main_ctx.dataplane_started = true;
    stubs.script("dataplane_ns_connect", {5});
    EXPECT_EQ(bridge_run_phase(), PHASE_DATAPLANE_READY);
    EXPECT_EQ(flags(), "running dataplane_started");
}

TEST_F(AppRunPhase, WithoutADataPlaneNothingIsConnected)
{
    EXPECT_EQ(bridge_run_phase(), PHASE_DATAPLANE_READY);
    EXPECT_THAT(stubs.take(), IsEmpty());
}

TEST_F(AppRunPhase, PartialRestartDisconnectsEvenBeforeTheDataPlaneIsStarted)
{
    bridge_main_ctx.ns_restart_requested = true;
    bridge_main_ctx.ns_connected = true;
    EXPECT_EQ(bridge_run_phase(), PHASE_DATAPLANE_READY);
    EXPECT_THAT(stubs.take(), ElementsAre("dataplane_ns_disconnect"));
    EXPECT_EQ(flags(), "running");
}

/* Reported again while the connection is being opened: the new one is not to blame. */
TEST_F(AppRunPhase, RequestDuringTheReconnectIsCleared)
{
    start_everything();
    bridge_on_send_failed(0, nullptr);
    stubs.on("dataplane_ns_connect", [] { bridge_on_send_failed(0, nullptr); });
    EXPECT_EQ(bridge_run_phase(), PHASE_DATAPLANE_READY);
    EXPECT_EQ(flags(), "running ctrlplane_started dataplane_started ns_connected geoloc_connected");
}
