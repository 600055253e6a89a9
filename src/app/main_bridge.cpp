/* Start-up, the three phases and the loop over them. */
#include "app/main_bridge.h"

#include "app/bridge_arguments.h"
#include "app/bridge_memory.h"
#include "app/bridge_status.h"
#include "common/bridge_child.h"
#include "common/bridge_config.h"
#include "common/bridge_key_manager.h"
#include "common/bridge_log.h"
#include "common/bridge_wait.h"
#include "converter/control/bridge_ctrl_conv.h"
#include "converter/data/bridge_data_conv.h"
#include "mqtt/bridge_mqtt.h"
#include "sysmon/bridge_sysmon.h"

#include <csignal>
#include <cstdio>
#include <resolv.h>

static constexpr const char *VERSION = "1.11.1";
static constexpr uint32_t MAX_PORT = 65535;
static constexpr uint32_t TICK_S = 10;
static constexpr uint32_t RETRY_S = 10;
static constexpr uint32_t RESTART_S = 20;
static constexpr uint32_t LOCK_POLL_MS = 1;
static constexpr uint32_t MONITOR_TIMEOUT_MS = 11000;
static constexpr uint8_t MONITOR_TOLERANCE = 5;

bridge_main_context bridge_main_ctx;

static bridge_main_context &ctx = bridge_main_ctx;

/* ---- callbacks of other threads ---- */

void bridge_on_connection_failed(int32_t code, void *)
{
    if (code != 0 && code != 1)
        return;
    BRIDGE_INFO("mqtt connection to the server failed");
    std::unique_lock<std::mutex> guard(ctx.lock, std::defer_lock);
    while (!ctx.ctrlplane_restarting && !ctx.ctrlplane_restart_requested) {
        /* The loop holds the lock while it stops the control plane, which waits for its threads: this may be
         * one. */
        if (!guard.try_lock()) {
            bridge_wait_ms(LOCK_POLL_MS);
            continue;
        }
        BRIDGE_INFO("initiating control plane restart");
        ctx.ctrlplane_restart_requested = true;
        return;
    }
    BRIDGE_INFO("control plane is already being restarted...no need to initiate another restart");
}

void bridge_on_send_failed(int32_t code, void *)
{
    if (code == 0) {
        BRIDGE_INFO("send to NS has failed: initiating service restart");
        ctx.ns_restart_requested = true;
    } else if (code == 1) {
        BRIDGE_INFO("send to GeoLoc has failed: initiating service restart");
        ctx.geoloc_restart_requested = true;
    }
}

static void bridge_on_stop_signal(int)
{
    ctx.running = false;
}

/* ---- stopping ---- */

static void bridge_ctrlplane_stop()
{
    if (!bridge_config_get_root_checked()->oam.oam_enabled || !ctx.ctrlplane_started)
        return;
    bridge_ctrlplane_disconnect_oam();
    bridge_ctrlplane_disconnect_agent();
    bridge_ctrlplane_deinit();
    ctx.ctrlplane_started = false;
    ctx.ctrlplane_restart_requested = false;
    BRIDGE_TRACE("ctrlplane deinit complete");
}

/* Under the lock, so that a lost connection is not reported between the stop and the raised flag. */
static void stop_ctrlplane_for_restart()
{
    const std::lock_guard<std::mutex> guard(ctx.lock);
    ctx.ctrlplane_restarting = true;
    bridge_ctrlplane_stop();
}

static void bridge_dataplane_stop()
{
    if (!ctx.dataplane_started)
        return;
    const bridge_config_root *root = bridge_config_get_root_checked();
    bridge_dataplane_stop_server();
    if (root->ns.ns_enabled && ctx.ns_connected)
        bridge_dataplane_ns_disconnect();
    if (root->geoloc.geoloc_enabled && ctx.geoloc_connected)
        bridge_dataplane_geo_disconnect();
    bridge_dataplane_deinit();
    ctx.dataplane_started = false;
    ctx.geoloc_connected = false;
    ctx.ns_connected = false;
    ctx.ns_restart_requested = false;
    ctx.geoloc_restart_requested = false;
}

/* ---- phases ---- */

/* Each failure undoes what was reached before it. */
static int start_ctrlplane(const bridge_config_root *root)
{
    int result = bridge_ctrlplane_init(root->generic.gw_mac, bridge_on_connection_failed, nullptr);
    if (result < 0)
        return result;
    result = bridge_ctrlplane_connect_agent(root->snmp.agent_addr, root->snmp.community, root->snmp.mib_dir,
                                            root->snmp.trap_transport, root->generic.gw_events_interval);
    if (result >= 0) {
        result = bridge_snmp_connect_oam();
        if (result >= 0)
            return 0;
        bridge_ctrlplane_disconnect_agent();
    }
    bridge_ctrlplane_deinit();
    return result;
}

bridge_phase_result bridge_ctrlplane_phase()
{
    const bridge_config_root *root = bridge_config_get_root_checked();
    if (!root->oam.oam_enabled || ctx.ctrlplane_started)
        return PHASE_CTRLPLANE_READY;
    BRIDGE_DEBUG("OA&M is enabled: deffering all other services until O&AM connection is established");
    for (;;) {
        __res_init(); /* each attempt sees the resolver configuration of its time */
        if (start_ctrlplane(root) >= 0) {
            BRIDGE_INFO("ctrlplane is started");
            const std::lock_guard<std::mutex> guard(ctx.lock);
            ctx.ctrlplane_started = true;
            ctx.ctrlplane_restarting = false;
            return PHASE_CTRLPLANE_READY;
        }
        if (!ctx.running) {
            BRIDGE_INFO("bridge is shutting down before ctrlplane connection procedure is completed");
            const std::lock_guard<std::mutex> guard(ctx.lock);
            ctx.ctrlplane_restarting = false;
            return PHASE_EXIT;
        }
        BRIDGE_TRACE("ctrlplane initialization failed: restarting");
        bridge_wait_s(RETRY_S);
    }
}

static int start_dataplane(const bridge_config_root *root)
{
    int result = bridge_dataplane_init(bridge_on_send_failed, nullptr);
    if (result < 0)
        return result;
    result = bridge_dataplane_start_server(root->generic.semtech_udp_listen_port);
    if (result < 0)
        bridge_dataplane_deinit();
    return result;
}

bridge_phase_result bridge_dataplane_phase()
{
    const bridge_config_root *root = bridge_config_get_root_checked();
    if ((!root->geoloc.geoloc_enabled && !root->ns.ns_enabled) || ctx.dataplane_started)
        return PHASE_DATAPLANE_READY;
    for (;;) {
        __res_init();
        if (start_dataplane(root) >= 0) {
            BRIDGE_INFO("dataplane is started");
            ctx.dataplane_started = true;
            return PHASE_DATAPLANE_READY;
        }
        if (!ctx.running) {
            BRIDGE_INFO("bridge is shutting down before dataplane connection is established");
            return PHASE_EXIT;
        }
        if (ctx.ctrlplane_restart_requested) {
            BRIDGE_WARN(
                "control plane restart is requested before data plane connection could be established");
            return PHASE_RESTART_CTRLPLANE;
        }
        BRIDGE_TRACE("dataplane initialization failed: restarting");
        bridge_wait_s(RETRY_S);
    }
}

/* One of the two servers refused a message: only its connection is opened anew. */
static void disconnect_failed_endpoint(bool is_ns)
{
    BRIDGE_WARN("dataplane partial restart requested");
    if (is_ns) {
        bridge_dataplane_ns_disconnect();
        ctx.ns_restart_requested = false;
        ctx.ns_connected = false;
    } else {
        bridge_dataplane_geo_disconnect();
        ctx.geoloc_connected = false;
        ctx.geoloc_restart_requested = false;
    }
}

/* An endpoint that is not enabled counts as failed. */
static int connect_endpoint(bool enabled, bool connected, int (*connect)())
{
    if (!enabled)
        return -1;
    if (connected)
        return 0;
    __res_init();
    return connect();
}

static bridge_phase_result connect_endpoints()
{
    const bridge_config_root *root = bridge_config_get_root_checked();
    const int ns_result =
        connect_endpoint(root->ns.ns_enabled, ctx.ns_connected, bridge_dataplane_ns_connect);
    const int geo_result =
        connect_endpoint(root->geoloc.geoloc_enabled, ctx.geoloc_connected, bridge_dataplane_geo_connect);
    if (ns_result < 0 && geo_result < 0) {
        BRIDGE_DEBUG("restarting data plane entirely: all available endpoints are failed to connect");
        return PHASE_RESTART_DATAPLANE;
    }
    if (ns_result == 0) {
        ctx.ns_connected = true;
        ctx.ns_restart_requested = false;
    }
    if (geo_result == 0) {
        ctx.geoloc_connected = true;
        ctx.geoloc_restart_requested = false;
    }
    return PHASE_DATAPLANE_READY;
}

bridge_phase_result bridge_run_phase()
{
    if (!ctx.running) {
        BRIDGE_INFO("bridge is shutting down");
        return PHASE_EXIT;
    }
    if (ctx.ctrlplane_restart_requested) {
        BRIDGE_WARN("ctrlplane restart requested");
        return PHASE_RESTART_CTRLPLANE;
    }
    const bool ns_failed = ctx.ns_restart_requested;
    const bool geoloc_failed = ctx.geoloc_restart_requested;
    if (ns_failed && geoloc_failed) {
        BRIDGE_WARN("dataplane restart requested");
        return PHASE_RESTART_DATAPLANE;
    }
    if (ns_failed != geoloc_failed)
        disconnect_failed_endpoint(ns_failed);
    if (!ctx.dataplane_started)
        return PHASE_DATAPLANE_READY;
    return connect_endpoints();
}

/* ---- the loop ---- */

enum loop_step {
    LOOP_LEAVE,
    LOOP_NEXT_PASS,
    LOOP_NEXT_PHASE,
};

/* Planes that were stopped have freed much, and so have messages since the last time. */
static loop_step wait_for_next_pass(uint32_t seconds)
{
    bridge_memory_give_back();
    bridge_wait_s(seconds);
    return LOOP_NEXT_PASS;
}

static loop_step act_on_ctrlplane(bridge_phase_result result)
{
    switch (result) {
    case PHASE_CTRLPLANE_READY:
        return LOOP_NEXT_PHASE;
    case PHASE_EXIT:
        bridge_sysmon_unregister();
        return LOOP_LEAVE;
    case PHASE_RETRY:
        bridge_sysmon_unregister();
        return wait_for_next_pass(RESTART_S);
    default:
        BRIDGE_ASSERT_TEXT(false, "0");
        return LOOP_LEAVE;
    }
}

static loop_step act_on_dataplane(bridge_phase_result result)
{
    switch (result) {
    case PHASE_DATAPLANE_READY:
        return LOOP_NEXT_PHASE;
    case PHASE_EXIT:
        bridge_sysmon_unregister();
        bridge_ctrlplane_stop();
        return LOOP_LEAVE;
    case PHASE_RESTART_CTRLPLANE:
        bridge_sysmon_unregister();
        stop_ctrlplane_for_restart();
        return wait_for_next_pass(RESTART_S);
    default:
        BRIDGE_ASSERT_TEXT(false, "0");
        return LOOP_LEAVE;
    }
}

static loop_step act_on_run(bridge_phase_result result)
{
    switch (result) {
    case PHASE_DATAPLANE_READY:
        bridge_memory_give_back();
        bridge_wait_s(TICK_S);
        BRIDGE_TRACE("bridge main loop: ticking and reporting to sysmon");
        bridge_sysmon_report();
        return LOOP_NEXT_PASS;
    case PHASE_EXIT:
        bridge_sysmon_unregister();
        return LOOP_LEAVE;
    case PHASE_RESTART_CTRLPLANE:
        stop_ctrlplane_for_restart();
        bridge_sysmon_unregister();
        bridge_dataplane_stop();
        return wait_for_next_pass(RESTART_S);
    case PHASE_RESTART_DATAPLANE:
        bridge_sysmon_unregister();
        bridge_dataplane_stop();
        return wait_for_next_pass(RESTART_S);
    default:
        BRIDGE_ASSERT_TEXT(false, "0");
        return LOOP_LEAVE;
    }
}

static loop_step run_pass()
{
    bridge_sysmon_register("main_snv_mqtt_bridge_task", MONITOR_TIMEOUT_MS, MONITOR_TOLERANCE, 0);
    loop_step step = act_on_ctrlplane(bridge_ctrlplane_phase());
    if (step == LOOP_NEXT_PHASE)
        step = act_on_dataplane(bridge_dataplane_phase());
    if (step == LOOP_NEXT_PHASE)
        step = act_on_run(bridge_run_phase());
    return step;
}

void bridge_supervise()
{
    bool keep_running = true;
    while (keep_running)
        keep_running = run_pass() != LOOP_LEAVE;
}

/* ---- start-up and shutdown ---- */

/* Children are waited for: who starts the daemon may have had theirs vanish. */
static void install_signals()
{
    signal(SIGCHLD, SIG_DFL);
    struct sigaction action = {};
    action.sa_handler = bridge_on_stop_signal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGUSR2, &action, nullptr);
}

/* The planes still run when MQTT is torn down: a stop must not wait for them. */
static int shut_down()
{
    const int result = bridge_mqtt_deinit();
    if (result < 0)
        BRIDGE_ERROR("failed to deinit MQTT");
    if (bridge_config_get_root_checked()->generic.status_http_port > 0) {
        BRIDGE_INFO("stopping status thread");
        bridge_status_server_stop();
    }
    bridge_sysmon_deinit();
    return result;
}

/* What no socket can take is refused here, where the operator sees it. A gateway without servers for its
 * data opens no UDP port. */
static int check_ports()
{
    const bridge_config_root *root = bridge_config_get_root_checked();
    const uint32_t udp_port = root->generic.semtech_udp_listen_port;
    const uint32_t status_port = root->generic.status_http_port;
    const bool needs_udp = root->ns.ns_enabled || root->geoloc.geoloc_enabled;
    if ((!needs_udp || (udp_port >= 1 && udp_port <= MAX_PORT)) && status_port <= MAX_PORT)
        return 0;
    BRIDGE_ERROR("invalid port in the configuration: semtech_udp_listen_port %u, status_http_port %u",
                 udp_port, status_port);
    return -1;
}

int bridge_main(int argc, char **argv)
{
    if (argc < 2) {
        bridge_arguments_print_help(argv[0]);
        return 1;
    }
    bridge_args args = {};
    if (bridge_arguments_parse(argc, argv, &args) != 0) {
        fputs("failed to parse arguments\n", stderr);
        return 1;
    }
    if (bridge_log_init(static_cast<uint32_t>(args.log_level), args.log_to_stderr) < 0)
        return 1;
    BRIDGE_INFO("Starting Sarnivel NS bridge %s", VERSION);
    if (bridge_config_load(&args) < 0) {
        BRIDGE_ERROR("failed to process configuration file");
        return 1;
    }
    if (check_ports() < 0)
        return 1;
    install_signals();
    bridge_child_prepare();
    const int result = bridge_mqtt_init(bridge_on_connection_failed);
    if (result < 0) {
        BRIDGE_ERROR("cannot initialize MQTT subsystem, aborting...");
        return result;
    }
    bridge_sysmon_init();
    bridge_key_manager_init(); /* whoever needs a key that is not there says so then */
    const uint32_t status_port = bridge_config_get_root_checked()->generic.status_http_port;
    if (status_port > 0 && bridge_status_server_start(static_cast<int32_t>(status_port)) < 0) {
        BRIDGE_ERROR("unable to start a status server, aborting");
        return 1;
    }
    ctx.running = true;
    bridge_supervise();
    return shut_down();
}
