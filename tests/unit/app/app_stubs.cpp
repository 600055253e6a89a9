#include "app/app_stubs.h"

#include "app/bridge_memory.h"
#include "common/bridge_child.h"
#include "common/bridge_key_manager.h"
#include "common/bridge_log.h"
#include "common/bridge_wait.h"
#include "converter/control/bridge_ctrl_conv.h"
#include "converter/data/bridge_data_conv.h"
#include "mqtt/bridge_mqtt.h"
#include "sysmon/bridge_sysmon.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <deque>
#include <map>
#include <thread>
#include <utility>

static constexpr int MAX_WAITS = 100;

struct planned_action {
    int turns_left;
    std::function<void()> action;
};

app_stubs stubs;
std::atomic<int> stub_wait_rounds;

static std::map<std::string, std::deque<int>> scripts;
static std::map<std::string, std::vector<planned_action>> actions;
static int waits_left;

void app_stubs::script(const std::string &call, std::vector<int> results)
{
    scripts[call].assign(results.begin(), results.end());
}

void app_stubs::on(const std::string &call, std::function<void()> action, int turn)
{
    actions[call].push_back({turn, std::move(action)});
}

std::vector<std::string> app_stubs::take()
{
    return std::exchange(calls, {});
}

/* `text` tells the call with its arguments; script and actions go by its first word. */
static int answer(const std::string &text)
{
    stubs.calls.push_back(text);
    const std::string name = text.substr(0, text.find(' '));
    for (planned_action &planned : actions[name]) {
        if (--planned.turns_left == 0)
            planned.action();
    }
    std::deque<int> &script = scripts[name];
    if (script.empty())
        return 0;
    const int result = script.front();
    script.pop_front();
    return result;
}

/* ---- C library and log ---- */

extern "C" {
int __wrap___res_init()
{
    return answer("res_init");
}

/* bridge_log_init(uint32_t, bool) */
int __real__Z15bridge_log_initjb(uint32_t level, bool to_stderr);

int __wrap__Z15bridge_log_initjb(uint32_t level, bool to_stderr)
{
    const int result = answer("log_init " + std::to_string(level) + (to_stderr ? " stderr" : " syslog"));
    return result < 0 ? result : __real__Z15bridge_log_initjb(level, to_stderr);
}
}

/* ---- common ---- */

const bridge_config_root *bridge_config_get_root_checked()
{
    return &stubs.root;
}

int bridge_config_load(const bridge_args *args)
{
    stubs.args = *args;
    return answer(std::string("config_load ") +
                  (args->config_path != nullptr ? args->config_path : "(null)"));
}

void bridge_child_prepare()
{
    answer("child_prepare");
}

void bridge_wait_s(uint32_t seconds)
{
    answer("wait " + std::to_string(seconds));
    if (--waits_left > 0)
        return;
    ADD_FAILURE() << "the supervisor does not end";
    bridge_main_ctx.running = false;
}

/* Threads of the tests wait so, too: a real wait, and none of the records. */
void bridge_wait_ms(uint32_t milliseconds)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    stub_wait_rounds++;
}

int bridge_key_manager_init()
{
    return answer("key_manager_init");
}

/* ---- memory ---- */

void bridge_memory_give_back()
{
    answer("give_back");
}

/* ---- monitor ---- */

void bridge_sysmon_init()
{
    answer("sysmon_init");
}

void bridge_sysmon_deinit()
{
    answer("sysmon_deinit");
}

void bridge_sysmon_register(const char *task_name, uint32_t timeout_ms, uint8_t tolerance, uint8_t flags)
{
    answer(std::string("sysmon_register ") + task_name + " " + std::to_string(timeout_ms) + " " +
           std::to_string(tolerance) + " " + std::to_string(flags));
}

void bridge_sysmon_unregister()
{
    answer("sysmon_unregister");
}

void bridge_sysmon_report()
{
    answer("sysmon_report");
}

/* ---- MQTT ---- */

int bridge_mqtt_init(bridge_mqtt_connection_cb_t connection_cb)
{
    return answer(connection_cb == bridge_on_connection_failed ? "mqtt_init"
                                                               : "mqtt_init with another callback");
}

int bridge_mqtt_deinit()
{
    return answer("mqtt_deinit");
}

/* ---- status server ---- */

int bridge_status_server_start(int32_t port)
{
    return answer("status_server_start " + std::to_string(port));
}

void bridge_status_server_stop()
{
    answer("status_server_stop");
}

/* ---- control plane ---- */

int bridge_ctrlplane_init(const char *gw_mac, bridge_ctrl_handler_t handler, void *handler_arg)
{
    EXPECT_EQ(handler, bridge_on_connection_failed);
    EXPECT_EQ(handler_arg, nullptr);
    return answer(std::string("ctrlplane_init ") + gw_mac);
}

int bridge_ctrlplane_connect_agent(const char *agent_addr, const char *community, const char *mib_dir,
                                   const char *trap_transport, uint32_t gw_events_interval)
{
    return answer(std::string("ctrlplane_connect_agent ") + agent_addr + " " + community + " " + mib_dir +
                  " " + trap_transport + " " + std::to_string(gw_events_interval));
}

int bridge_snmp_connect_oam()
{
    return answer("snmp_connect_oam");
}

int bridge_ctrlplane_disconnect_oam()
{
    return answer("ctrlplane_disconnect_oam");
}

int bridge_ctrlplane_disconnect_agent()
{
    return answer("ctrlplane_disconnect_agent");
}

int bridge_ctrlplane_deinit()
{
    return answer("ctrlplane_deinit");
}

/* ---- data plane ---- */

int bridge_dataplane_init(bridge_dataplane_cb_t cb, void *context)
{
    EXPECT_EQ(cb, bridge_on_send_failed);
    EXPECT_EQ(context, nullptr);
    return answer("dataplane_init");
}

int bridge_dataplane_deinit()
{
    return answer("dataplane_deinit");
}

int bridge_dataplane_start_server(uint32_t port)
{
    return answer("dataplane_start_server " + std::to_string(port));
}

int bridge_dataplane_stop_server()
{
    return answer("dataplane_stop_server");
}

int bridge_dataplane_ns_connect()
{
    return answer("dataplane_ns_connect");
}

int bridge_dataplane_ns_disconnect()
{
    return answer("dataplane_ns_disconnect");
}

int bridge_dataplane_geo_connect()
{
    return answer("dataplane_geo_connect");
}

int bridge_dataplane_geo_disconnect()
{
    return answer("dataplane_geo_disconnect");
}

/* ---- fixture ---- */

std::string flags()
{
    const bridge_main_context &ctx = bridge_main_ctx;
    const std::pair<bool, const char *> all[] = {
        {ctx.running, "running"},
        {ctx.ctrlplane_started, "ctrlplane_started"},
        {ctx.dataplane_started, "dataplane_started"},
        {ctx.ns_connected, "ns_connected"},
        {ctx.geoloc_connected, "geoloc_connected"},
        {ctx.ctrlplane_restart_requested, "ctrlplane_restart_requested"},
        {ctx.ns_restart_requested, "ns_restart_requested"},
        {ctx.geoloc_restart_requested, "geoloc_restart_requested"},
        {ctx.ctrlplane_restarting, "ctrlplane_restarting"},
    };
    std::string text;
    for (const auto &[set, name] : all) {
        if (set)
            text.append(text.empty() ? "" : " ").append(name);
    }
    return text;
}

void AppTest::SetUp()
{
    stubs = {};
    scripts.clear();
    actions.clear();
    waits_left = MAX_WAITS;
    strcpy(stubs.root.generic.gw_mac, "a0b1c2d3e4f5");
    stubs.root.generic.semtech_udp_listen_port = 1700;
    stubs.root.generic.gw_events_interval = 5;
    strcpy(stubs.root.snmp.agent_addr, "127.0.0.1");
    strcpy(stubs.root.snmp.community, "public");
    strcpy(stubs.root.snmp.mib_dir, "/mibs");
    strcpy(stubs.root.snmp.trap_transport, "udp:162");

    bridge_main_context &ctx = bridge_main_ctx;
    ctx.running = true;
    for (std::atomic<bool> *flag :
         {&ctx.ctrlplane_started, &ctx.dataplane_started, &ctx.ns_connected, &ctx.geoloc_connected,
          &ctx.ctrlplane_restart_requested, &ctx.ns_restart_requested, &ctx.geoloc_restart_requested,
          &ctx.ctrlplane_restarting})
        *flag = false;
    __real__Z15bridge_log_initjb(BRIDGE_LOG_TRACE, true);
    log.start();
}

void AppTest::TearDown()
{
    signal(SIGUSR2, SIG_DFL);
    if (HasFailure()) {
        for (const std::string &line : log.lines())
            printf("%s\n", line.c_str());
    }
}

void AppTest::start_everything()
{
    stubs.root.oam.oam_enabled = true;
    stubs.root.ns.ns_enabled = true;
    stubs.root.geoloc.geoloc_enabled = true;
    ASSERT_EQ(bridge_ctrlplane_phase(), PHASE_CTRLPLANE_READY);
    ASSERT_EQ(bridge_dataplane_phase(), PHASE_DATAPLANE_READY);
    ASSERT_EQ(bridge_run_phase(), PHASE_DATAPLANE_READY);
    ASSERT_EQ(flags(), "running ctrlplane_started dataplane_started ns_connected geoloc_connected");
    stubs.take();
    log.lines();
}
