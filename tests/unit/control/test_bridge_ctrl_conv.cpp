/* The stages of the control plane: what each starts, in which order, and how a failure is unwound. */
#include "control/control_services.h"

#include "common/captured_stderr.h"
#include "converter/control/bridge_events.h"

#include <sys/wait.h>
#include <unistd.h>

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::StartsWith;

using calls = std::vector<std::string>;

FAILING_CALL(int, pthread_mutex_init, (pthread_mutex_t * mutex, const pthread_mutexattr_t *attributes),
             (mutex, attributes), EAGAIN)

static calls joined(std::initializer_list<calls> parts)
{
    calls all;
    for (const calls &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

/* ---- init ---- */

static const calls INIT_BEGIN = {"init_snmp snmpapp", "thpool_init 16", "bulk_configs_init"};

TEST_F(CtrlConv, InitPreparesTheContextAndTheServicesInTheirOrder)
{
    char mac[] = "0016c001f1500a0b";
    ASSERT_EQ(init(mac), 0);
    EXPECT_EQ(
        services.take(),
        joined({INIT_BEGIN, {"bulk_upgrade_init", "performance_management_init", "capabilities_init"}}));
    converter_ctx *ctx = services.ctx;
    mac[0] = 'x';
    EXPECT_STREQ(ctx->gw_mac, "0016c001f1500a0b") << "a copy";
    EXPECT_EQ(ctx->user_handler, told);
    EXPECT_EQ(ctx->user_handler_arg, &services);
    for (const int free_number : {ctx->ssh_pid.load(), ctx->stream_id.load(), ctx->fetch_id.load(),
                                  ctx->execute_id.load(), ctx->watch_pid.load(), ctx->fileops_async_pipe})
        EXPECT_EQ(free_number, -1);
    EXPECT_TRUE(ctx->ctx_inited);
    EXPECT_TRUE(ctx->ctrl_running);
    EXPECT_FALSE(ctx->snmp_ready);
    EXPECT_FALSE(ctx->mqtt_ready);
    EXPECT_FALSE(ctx->bsp_poll_running);
    EXPECT_FALSE(ctx->event_thr_running);
    EXPECT_FALSE(ctx->reboot_pending);
    EXPECT_EQ(ctx->sess_handle, nullptr);
    EXPECT_EQ(ctx->trap_session, nullptr);
    ASSERT_EQ(pthread_mutex_lock(&ctx->mutex), 0);
    EXPECT_EQ(pthread_mutex_trylock(&ctx->mutex), 0) << "recursive";
    pthread_mutex_unlock(&ctx->mutex);
    pthread_mutex_unlock(&ctx->mutex);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(CtrlConv, ANewInitForgetsTheLastRun)
{
    ASSERT_EQ(init(), 0);
    converter_ctx *ctx = services.ctx;
    ctx->reboot_pending = true;
    ctx->event_thr_running = true;
    ctx->last_sw_cmd = 3;
    ctx->last_sw_req_id = 9;
    ctx->fileops_async_pipe = 7;
    ctx->wm_install_running = true;
    strcpy(ctx->upload_name, "file");
    ASSERT_EQ(bridge_ctrlplane_deinit(), 0);
    ASSERT_EQ(init(), 0);
    EXPECT_FALSE(ctx->reboot_pending);
    EXPECT_FALSE(ctx->event_thr_running);
    EXPECT_EQ(ctx->last_sw_cmd, 0);
    EXPECT_EQ(ctx->last_sw_req_id, 0);
    EXPECT_EQ(ctx->fileops_async_pipe, -1);
    EXPECT_FALSE(ctx->wm_install_running);
    EXPECT_STREQ(ctx->upload_name, "");
}

TEST_F(CtrlConv, AServiceThatFailsToInitialiseUnwindsTheOnesBeforeIt)
{
    const struct {
        const char *failing;
        calls unwound;
    } rows[] = {
        {"bulk_configs_init", {}},
        {"bulk_upgrade_init", {"bulk_configs_deinit"}},
        {"performance_management_init",
         {"performance_management_deinit", "bulk_upgrade_deinit", "bulk_configs_deinit"}},
        /* the battery reports stay initialised */
        {"capabilities_init", {"bulk_upgrade_deinit", "bulk_configs_deinit"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.failing);
        services.reset();
        services.script(row.failing, -3);
        EXPECT_EQ(init(), -1);
        calls made = services.take();
        const auto failed = std::find(made.begin(), made.end(), row.failing);
        ASSERT_NE(failed, made.end());
        made.erase(made.begin(), failed + 1);
        EXPECT_EQ(made, joined({row.unwound, {"thpool_destroy"}}));
        EXPECT_EQ(bridge_ctrlplane_deinit(), -1);
        services.take();
    }
    EXPECT_THAT(log.complaints(), Contains("ERROR attempting to de-init a non-initialized bridge").Times(4));
}

TEST_F(CtrlConv, AnInitWithoutMemoryOrThreadsIsTold)
{
    let_fail("strdup");
    EXPECT_EQ(init(), -1);
    let_all_pass();
    EXPECT_THAT(log.lines(), ElementsAre("ERROR cannot allocate memory for mac address"));
    EXPECT_THAT(services.take(), ElementsAre("init_snmp snmpapp", "thpool_destroy nothing"));

    const log_view view = log.from_here();
    services.script("thpool_init 16", -1);
    EXPECT_EQ(init(), -1);
    EXPECT_THAT(view.lines(), ElementsAre("ERROR unable to create thread pool"));
    EXPECT_THAT(services.take(),
                ElementsAre("init_snmp snmpapp", "thpool_init 16", "thpool_destroy nothing"));
}

TEST_F(CtrlConv, AnInitWithoutAMutexDoesNothingElse)
{
    let_fail("pthread_mutex_init");
    EXPECT_EQ(init(), -1);
    let_all_pass();
    EXPECT_THAT(services.take(), IsEmpty());
    EXPECT_EQ(bridge_ctrlplane_deinit(), -1);
}

TEST_F(CtrlConvDeath, AnInitWithoutAHandlerIsAsserted)
{
    EXPECT_ASSERTION(bridge_ctrlplane_init("m", nullptr, nullptr), "cb");
}

/* ---- the agent ---- */

static constexpr const char *OPEN = "snmp_sess_open udp:127.0.0.1:161 public version 1 timeout 3000000";
static constexpr const char *ADD = "snmp_add udp:127.0.0.1:161 public version 1 timeout 3000000";
static constexpr const char *SERVER = "open_server snvsnmptrap udp:162";
static const calls SESSION = {"init_agent snvsnmptrap", "snmp_sess_init", OPEN, "snmp_sess_session"};

class CtrlAgent : public CtrlConv
{
  protected:
    CtrlAgent()
    {
        EXPECT_EQ(init(), 0);
        services.take();
    }
};

TEST_F(CtrlAgent, PollingOpensOneSession)
{
    EXPECT_EQ(connect_agent(1), 0);
    EXPECT_EQ(services.take(), SESSION);
    EXPECT_TRUE(services.ctx->snmp_ready);
    EXPECT_NE(services.ctx->sess_handle, nullptr);
    EXPECT_NE(services.ctx->ss, nullptr);
    EXPECT_EQ(services.ctx->trap_session, nullptr);
    EXPECT_THAT(log.lines(), ElementsAre("DEBUG connecting to the SNMP agent: udp:127.0.0.1:161"));
}

TEST_F(CtrlAgent, AnIntervalOf0ListensForNotifications)
{
    EXPECT_EQ(connect_agent(0), 0);
    EXPECT_EQ(services.take(), joined({SESSION, {SERVER, "snmp_sess_init", ADD}}));
    EXPECT_TRUE(services.ctx->snmp_ready);
    EXPECT_NE(services.ctx->trap_session, nullptr);
    EXPECT_EQ(services.trap.callback, snmp_event_input);
    EXPECT_EQ(services.trap.callback_magic, services.ctx);
    EXPECT_EQ(services.trap.authenticator, nullptr);
    EXPECT_EQ(services.trap.isAuthoritative, 2);
    EXPECT_THAT(log.lines(), ElementsAre("DEBUG connecting to the SNMP agent: udp:127.0.0.1:161",
                                         "DEBUG Listening SNMP trap on: udp:162"));
}

TEST_F(CtrlAgent, AFolderOfMibsIsReadFirst)
{
    EXPECT_EQ(bridge_ctrlplane_connect_agent("h", "c", "/mibs", "t", 60), 0);
    EXPECT_THAT(services.take(),
                ElementsAre("add_mibdir /mibs", "read_all_mibs", "init_agent snvsnmptrap", "snmp_sess_init",
                            "snmp_sess_open h c version 1 timeout 3000000", "snmp_sess_session"));
    bridge_ctrlplane_disconnect_agent();
    services.take();
    EXPECT_EQ(bridge_ctrlplane_connect_agent("h", "c", "", "t", 60), 0);
    EXPECT_THAT(services.take().front(), "init_agent snvsnmptrap");
}

TEST_F(CtrlAgent, AFailedStepSaysWhyAndClosesWhatIsOpen)
{
    const struct {
        const char *failing;
        calls made; /* behind it */
        const char *line;
    } rows[] = {
        {OPEN, {}, "ERROR failed to open SNMP normal session"},
        {"snmp_sess_session", {"snmp_sess_close"}, "ERROR failed to get the SNMP session pointer"},
        {SERVER, {"snmp_sess_close"}, "ERROR failed to open the SNMP transport"},
        {ADD, {"snmp_sess_close"}, "ERROR failed to add the  SNMP event session"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.failing);
        const log_view view = log.from_here();
        services.reset();
        services.script(row.failing, -1);
        EXPECT_EQ(connect_agent(0), -1);
        calls made = services.take();
        made.erase(made.begin(), std::find(made.begin(), made.end(), row.failing) + 1);
        EXPECT_EQ(made, row.made);
        EXPECT_THAT(view.complaints(), ElementsAre(row.line));
        EXPECT_FALSE(services.ctx->snmp_ready);
        EXPECT_EQ(services.ctx->sess_handle, nullptr);
        EXPECT_EQ(services.ctx->ss, nullptr);
        EXPECT_EQ(services.ctx->trap_session, nullptr);
    }
}

TEST_F(CtrlAgent, AFolderOfMibsThatCannotBeAddedEndsTheConnect)
{
    services.script("add_mibdir /mibs", -7);
    EXPECT_EQ(bridge_ctrlplane_connect_agent("h", "c", "/mibs", "t", 60), -7);
    EXPECT_THAT(services.take(), ElementsAre("add_mibdir /mibs"));
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR failed to add mibdir: /mibs"));
    EXPECT_FALSE(services.ctx->snmp_ready);
    services.script("add_mibdir /mibs", 3);
    EXPECT_EQ(bridge_ctrlplane_connect_agent("h", "c", "/mibs", "t", 60), 0) << "a count is no failure";
}

TEST_F(CtrlAgent, ADisconnectClosesWhatIsOpenOnce)
{
    ASSERT_EQ(connect_agent(0), 0);
    services.take();
    EXPECT_EQ(bridge_ctrlplane_disconnect_agent(), 0);
    EXPECT_THAT(services.take(), ElementsAre("snmp_sess_close", "snmp_close"));
    EXPECT_FALSE(services.ctx->snmp_ready);
    EXPECT_EQ(services.ctx->sess_handle, nullptr);
    EXPECT_EQ(services.ctx->ss, nullptr);
    EXPECT_EQ(services.ctx->trap_session, nullptr);
    EXPECT_EQ(bridge_ctrlplane_disconnect_agent(), 0);
    EXPECT_THAT(services.take(), IsEmpty());
    EXPECT_EQ(log.count("DEBUG disconnecting SNMP agent"), 2);
}

TEST_F(CtrlConvDeath, AConnectWithoutItsTextsIsAsserted)
{
    EXPECT_ASSERTION(bridge_ctrlplane_connect_agent(nullptr, "c", "", "t", 1), "snmp_host");
    EXPECT_ASSERTION(bridge_ctrlplane_connect_agent("h", nullptr, "", "t", 1), "snmp_community");
    EXPECT_ASSERTION(bridge_ctrlplane_connect_agent("h", "c", "", nullptr, 1), "trap_transport != NULL");
}

/* ---- the operations server ---- */

static const calls CONNECT = {"mqtt_connect", "capabilities_start"};
static const calls ROWS[] = {
    {"cmd_launcher api/v1/gateway/commands", "wait 10 us", "subscribe api/v1/gateway/commands"},
    {"config_push_launcher_legacy api/v1/gateway/configuration", "wait 10 us",
     "subscribe api/v1/gateway/configuration"},
    {"config_get_latest_launcher_legacy api/v1/gateway/configuration/request", "wait 10 us"},
    {"events_cb_launcher api/v1/gateway/events", "wait 10 us"},
};
static const calls MANAGEMENT_STOP = {"capabilities_close", "bulk_configs_stop", "bulk_upgrade_stop",
                                      "performance_management_stop", "capabilities_stop"};

TEST_F(CtrlAgent, ServicesAreLaunchedInTheOrderOfTheirRows)
{
    ASSERT_EQ(connect_agent(), 0);
    services.take();
    EXPECT_EQ(bridge_snmp_connect_oam(), 0);
    EXPECT_EQ(services.take(), joined({CONNECT, ROWS[0], ROWS[1], ROWS[2], ROWS[3]}));
    EXPECT_TRUE(services.ctx->mqtt_ready);
    EXPECT_EQ(services.handler_context, services.ctx);
}

TEST_F(CtrlAgent, AServerThatDoesNotConnectIsTold)
{
    services.script("mqtt_connect", -5);
    EXPECT_EQ(bridge_snmp_connect_oam(), -1);
    EXPECT_THAT(services.take(), ElementsAre("mqtt_connect"));
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR failed to connect to OA&M endpoint"));
}

TEST_F(CtrlAgent, CapabilitiesThatDoNotStartDisconnect)
{
    services.script("capabilities_start", -4);
    EXPECT_EQ(bridge_snmp_connect_oam(), -4);
    EXPECT_THAT(services.take(), ElementsAre("mqtt_connect", "capabilities_start", "mqtt_disconnect"));
    EXPECT_FALSE(services.ctx->mqtt_ready);
}

TEST_F(CtrlAgent, AServiceThatFailsUnwindsTheOnesBeforeIt)
{
    static constexpr const char *COMMANDS = "unsubscribe api/v1/gateway/commands";
    static constexpr const char *CONFIGURATION = "unsubscribe api/v1/gateway/configuration";
    const struct {
        std::string failing;
        calls made; /* the unwinding before the management services */
    } rows[] = {
        {ROWS[0].front(), {COMMANDS, CONFIGURATION}},
        {ROWS[0].back(), {"cmd_stopper", COMMANDS, CONFIGURATION}},
        {ROWS[1].front(), {"cmd_stopper", COMMANDS, CONFIGURATION}},
        {ROWS[1].back(), {"cmd_stopper", COMMANDS, CONFIGURATION}},
        {ROWS[2].front(), {"cmd_stopper", COMMANDS, CONFIGURATION}},
        {ROWS[3].front(), {"cmd_stopper", COMMANDS, CONFIGURATION}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.failing);
        services.reset();
        services.script(row.failing, -6);
        EXPECT_EQ(bridge_snmp_connect_oam(), -6);
        calls made = services.take();
        made.erase(made.begin(), std::find(made.begin(), made.end(), row.failing) + 1);
        EXPECT_EQ(made, joined({row.made, MANAGEMENT_STOP, {"mqtt_disconnect"}}));
        EXPECT_FALSE(services.ctx->mqtt_ready);
    }
    services.reset();
    EXPECT_EQ(bridge_snmp_connect_oam(), 0) << "and the next try starts from the top";
    EXPECT_EQ(services.take(), joined({CONNECT, ROWS[0], ROWS[1], ROWS[2], ROWS[3]}));
}

static const calls DISCONNECT = {"cmd_stopper",
                                 "unsubscribe api/v1/gateway/commands",
                                 "unsubscribe api/v1/gateway/configuration",
                                 "unsubscribe api/v1/gateway/configuration/request",
                                 "events_cb_stopper",
                                 "unsubscribe api/v1/gateway/events"};

TEST_F(CtrlConv, ADisconnectStopsEveryServiceAndUnsubscribesEveryTopic)
{
    start();
    EXPECT_EQ(bridge_ctrlplane_disconnect_oam(), 0);
    EXPECT_EQ(services.take(), joined({MANAGEMENT_STOP, DISCONNECT, {"mqtt_disconnect"}}));
    EXPECT_FALSE(services.ctx->mqtt_ready);
    EXPECT_THAT(log.complaints(), IsEmpty());
    EXPECT_EQ(bridge_ctrlplane_disconnect_oam(), 0);
    EXPECT_EQ(services.take(), joined({MANAGEMENT_STOP, {"mqtt_disconnect"}})) << "the second time";
}

TEST_F(CtrlConv, ADisconnectGoesOnOverFailuresAndTellsThem)
{
    start();
    const log_view view = log.from_here();
    services.script("cmd_stopper", -1);
    services.script("unsubscribe api/v1/gateway/configuration", -1);
    services.script("mqtt_disconnect", -9);
    services.script("bulk_configs_stop", -1);
    EXPECT_EQ(bridge_ctrlplane_disconnect_oam(), -9);
    EXPECT_EQ(services.take(), joined({MANAGEMENT_STOP, DISCONNECT, {"mqtt_disconnect"}}));
    EXPECT_THAT(view.lines(), ElementsAre("ERROR failed to stop ctrlplane service",
                                          "ERROR failed to unsubscribe: api/v1/gateway/configuration",
                                          "DEBUG failed to disconnect from OA&M endpoint"));
}

TEST_F(CtrlConv, NothingUnsubscribedIsAFailureForEachTopic)
{
    start();
    const log_view view = log.from_here();
    services.unsubscribed = 0;
    EXPECT_EQ(bridge_ctrlplane_disconnect_oam(), 0);
    calls lines;
    for (const char *topic : SERVICE_TOPICS)
        lines.push_back(join({"ERROR failed to unsubscribe: ", topic}));
    EXPECT_EQ(view.complaints(), lines);
}

/* ---- deinit ---- */

TEST_F(CtrlConv, DeinitTakesTheServicesDownAndThenWaitsForTheWorkers)
{
    ASSERT_EQ(init(), 0);
    services.take();
    services.on("thpool_wait", [] { EXPECT_FALSE(services.ctx->ctrl_running); });
    EXPECT_EQ(bridge_ctrlplane_deinit(), 0);
    EXPECT_THAT(services.take(),
                ElementsAre("bulk_configs_deinit", "bulk_upgrade_deinit", "performance_management_deinit",
                            "capabilities_deinit", "thpool_wait", "cmd_forget_jobs", "thpool_destroy"));
    EXPECT_EQ(services.ctx->pool, nullptr);
    EXPECT_EQ(services.ctx->gw_mac, nullptr);
    EXPECT_FALSE(services.ctx->ctx_inited);
    EXPECT_THAT(log.lines(), ElementsAre("DEBUG de-initing MQTT bridge",
                                         "DEBUG wait for all remaining control plane threads to exit",
                                         "DEBUG all control plane threads are stopped"));
    const log_view view = log.from_here();
    EXPECT_EQ(bridge_ctrlplane_deinit(), -1);
    EXPECT_THAT(view.lines(), ElementsAre("DEBUG de-initing MQTT bridge",
                                          "ERROR attempting to de-init a non-initialized bridge"));
    EXPECT_THAT(services.take(), IsEmpty());
}

TEST_F(CtrlConvDeath, ADeinitUnderAConnectionIsAsserted)
{
    EXPECT_ASSERTION(
        {
            init();
            connect_agent();
            bridge_ctrlplane_deinit();
        },
        "!converter_ctx.snmp_ready && !converter_ctx.mqtt_ready");
    EXPECT_ASSERTION(
        {
            init();
            bridge_snmp_connect_oam();
            bridge_ctrlplane_deinit();
        },
        "!converter_ctx.snmp_ready && !converter_ctx.mqtt_ready");
}

/* ---- in a forked child ---- */

TEST_F(CtrlConv, AChildsSessionIsOpenedAnewByTheConfiguration)
{
    start();
    bridge_ctrl_close_session(services.ctx);
    EXPECT_THAT(services.take(), ElementsAre("snmp_sess_close"));
    EXPECT_EQ(services.ctx->sess_handle, nullptr);
    bridge_ctrl_close_session(services.ctx);
    EXPECT_THAT(services.take(), IsEmpty());
    bridge_ctrl_reopen_session(services.ctx);
    EXPECT_THAT(services.take(),
                ElementsAre("snmp_sess_init",
                            "snmp_sess_open udp:127.0.0.2:161 second version 1 timeout 3000000",
                            "snmp_sess_session"));
    EXPECT_TRUE(services.ctx->snmp_ready);
}

TEST_F(CtrlConv, AChildOfAnUnconnectedPlaneOpensNoSession)
{
    ASSERT_EQ(init(), 0);
    services.take();
    bridge_ctrl_reopen_session(services.ctx);
    EXPECT_THAT(services.take(), IsEmpty());
    EXPECT_FALSE(services.ctx->snmp_ready);
}

TEST_F(CtrlConv, AChildWhoseSessionCannotBeOpenedIsNotReady)
{
    start();
    bridge_ctrl_close_session(services.ctx);
    services.script("snmp_sess_open udp:127.0.0.2:161 second version 1 timeout 3000000", -1);
    bridge_ctrl_reopen_session(services.ctx);
    EXPECT_FALSE(services.ctx->snmp_ready);
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR failed to open SNMP normal session"));
}

TEST_F(CtrlConv, AChildsMutexIsItsOwn)
{
    ASSERT_EQ(init(), 0);
    converter_ctx *ctx = services.ctx;
    pthread_mutex_lock(&ctx->mutex);
    const pid_t child = fork();
    if (child == 0) {
        const bool was_taken = pthread_mutex_trylock(&ctx->mutex) == EBUSY;
        bridge_ctrl_renew_mutex(ctx);
        const bool is_free = pthread_mutex_trylock(&ctx->mutex) == 0;
        const bool is_recursive = pthread_mutex_trylock(&ctx->mutex) == 0;
        _exit((was_taken ? 0 : 1) + (is_free ? 0 : 2) + (is_recursive ? 0 : 4));
    }
    pthread_mutex_unlock(&ctx->mutex);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}
