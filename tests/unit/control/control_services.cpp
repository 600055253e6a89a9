#include "control/control_services.h"

#include "common/bridge_config.h"
#include "common/bridge_wait.h"
#include "converter/control/bridge_bsp_upgrade.h"
#include "converter/control/bridge_capabilities.h"
#include "converter/control/bridge_cmd.h"
#include "converter/control/bridge_configs.h"
#include "converter/control/bridge_configs_legacy.h"
#include "converter/control/bridge_events.h"
#include "converter/control/bridge_performance_management.h"
#include "thread_pool/thpool.h"

#include <cstring>
#include <net-snmp/agent/net-snmp-agent-includes.h>
#include <net-snmp/library/snmp_transport.h>
#include <utility>

control_services services;

void control_services::reset()
{
    const std::lock_guard guard(mutex_);
    results_.clear();
    actions_.clear();
    calls_.clear();
    handler = nullptr;
    unsubscribed = 1;
    normal = {};
    trap = {};
}

void control_services::script(const std::string &call, int result)
{
    const std::lock_guard guard(mutex_);
    results_[call] = result;
}

void control_services::on(const std::string &call, std::function<void()> action)
{
    const std::lock_guard guard(mutex_);
    actions_[call] = std::move(action);
}

std::vector<std::string> control_services::take()
{
    const std::lock_guard guard(mutex_);
    return std::exchange(calls_, {});
}

int control_services::answer(const std::string &call)
{
    std::function<void()> action;
    int result = 0;
    {
        const std::lock_guard guard(mutex_);
        calls_.push_back(call);
        if (const auto found = results_.find(call); found != results_.end())
            result = found->second;
        if (const auto found = actions_.find(call); found != actions_.end())
            action = found->second;
    }
    if (action)
        action();
    return result;
}

/* ---- services ---- */

int bridge_bulk_configs_init(converter_ctx *ctx)
{
    services.ctx = ctx;
    return services.answer("bulk_configs_init");
}

int bridge_bulk_configs_start()
{
    return services.answer("bulk_configs_start");
}

int bridge_bulk_configs_stop()
{
    return services.answer("bulk_configs_stop");
}

int bridge_bulk_configs_deinit()
{
    return services.answer("bulk_configs_deinit");
}

int bridge_bulk_upgrade_init(converter_ctx *ctx)
{
    EXPECT_EQ(ctx, services.ctx);
    return services.answer("bulk_upgrade_init");
}

int bridge_bulk_upgrade_start()
{
    return services.answer("bulk_upgrade_start");
}

int bridge_bulk_upgrade_stop()
{
    return services.answer("bulk_upgrade_stop");
}

int bridge_bulk_upgrade_deinit()
{
    return services.answer("bulk_upgrade_deinit");
}

int bridge_performance_management_init(converter_ctx *ctx)
{
    EXPECT_EQ(ctx, services.ctx);
    return services.answer("performance_management_init");
}

int bridge_performance_management_start()
{
    return services.answer("performance_management_start");
}

int bridge_performance_management_stop()
{
    return services.answer("performance_management_stop");
}

int bridge_performance_management_deinit()
{
    return services.answer("performance_management_deinit");
}

int bridge_capabilities_init(converter_ctx *ctx)
{
    EXPECT_EQ(ctx, services.ctx);
    return services.answer("capabilities_init");
}

int bridge_capabilities_start()
{
    return services.answer("capabilities_start");
}

void bridge_capabilities_close()
{
    services.answer("capabilities_close");
}

int bridge_capabilities_stop()
{
    return services.answer("capabilities_stop");
}

void bridge_capabilities_deinit()
{
    services.answer("capabilities_deinit");
}

static int launch(const char *name, const converter_ctx *ctx, const char *arg)
{
    EXPECT_EQ(ctx, services.ctx);
    return services.answer(join({name, " ", arg}));
}

int bridge_cmd_launcher(converter_ctx *ctx, const char *arg)
{
    return launch("cmd_launcher", ctx, arg);
}

int bridge_cmd_stopper(converter_ctx *ctx)
{
    EXPECT_EQ(ctx, services.ctx);
    return services.answer("cmd_stopper");
}

void bridge_cmd_forget_jobs(converter_ctx *ctx)
{
    EXPECT_EQ(ctx, services.ctx);
    services.answer("cmd_forget_jobs");
}

void bridge_cmd_worker(converter_ctx *ctx, const char *arg, const char *payload)
{
    EXPECT_EQ(ctx, services.ctx);
    services.answer(join({"cmd_worker ", arg, " ", payload}));
}

int bridge_config_push_launcher_legacy(converter_ctx *ctx, const char *arg)
{
    return launch("config_push_launcher_legacy", ctx, arg);
}

void bridge_config_pull_worker_legacy(converter_ctx *ctx, const char *arg, const char *payload)
{
    EXPECT_EQ(ctx, services.ctx);
    services.answer(join({"config_pull_worker_legacy ", arg, " ", payload}));
}

int bridge_config_get_latest_launcher_legacy(converter_ctx *ctx, const char *arg)
{
    return launch("config_get_latest_launcher_legacy", ctx, arg);
}

int bridge_events_cb_launcher(converter_ctx *ctx, const char *arg)
{
    return launch("events_cb_launcher", ctx, arg);
}

int bridge_events_cb_stopper(converter_ctx *ctx)
{
    EXPECT_EQ(ctx, services.ctx);
    return services.answer("events_cb_stopper");
}

int snmp_event_input(int, netsnmp_session *, int, netsnmp_pdu *, void *)
{
    return 0;
}

/* ---- MQTT, configuration, waits ---- */

static std::string endpoint(bridge_mqtt_endpoint_t number)
{
    return number == BRIDGE_MQTT_EP_OAM ? "" : " at another endpoint";
}

int bridge_mqtt_connect(bridge_mqtt_endpoint_t number)
{
    return services.answer("mqtt_connect" + endpoint(number));
}

int bridge_mqtt_disconnect(bridge_mqtt_endpoint_t number)
{
    return services.answer("mqtt_disconnect" + endpoint(number));
}

int bridge_mqtt_subscribe(bridge_mqtt_endpoint_t number, const char *const *topics, size_t topics_size,
                          bridge_mqtt_handler_t handler, void *context)
{
    EXPECT_EQ(topics_size, 1U);
    services.handler = handler;
    services.handler_context = context;
    return services.answer(join({"subscribe ", topics[0], endpoint(number)}));
}

int bridge_mqtt_unsubscribe(bridge_mqtt_endpoint_t number, const char *const *topics, uint32_t *topics_size)
{
    EXPECT_EQ(*topics_size, 1U);
    *topics_size = services.unsubscribed;
    return services.answer(join({"unsubscribe ", topics[0], endpoint(number)}));
}

const bridge_config_root *bridge_config_get_root_checked()
{
    static const bridge_config_root root = [] {
        bridge_config_root made = {};
        strcpy(made.snmp.agent_addr, "udp:127.0.0.2:161");
        strcpy(made.snmp.community, "second");
        return made;
    }();
    return &root;
}

/* How often the real pool looks for the end of its threads depends on the second in which it begins. */
static thread_local bool is_in_pool;

void bridge_wait_s(uint32_t seconds)
{
    if (!is_in_pool)
        services.answer("wait " + std::to_string(seconds) + " s");
}

void bridge_wait_ms(uint32_t milliseconds)
{
    services.answer("wait " + std::to_string(milliseconds) + " ms");
}

void bridge_wait_us(uint32_t microseconds)
{
    services.answer("wait " + std::to_string(microseconds) + " us");
}

/* ---- the SNMP library and the pool ---- */

static int sess_handle;
static netsnmp_session opened_session;
static netsnmp_session added_session;
static netsnmp_transport server_transport;

/* A pointer on success, null when the script says -1. */
template <typename T> static T *pointer_by(const std::string &call, T *success)
{
    return services.answer(call) < 0 ? nullptr : success;
}

static std::string texts(const netsnmp_session *session)
{
    return join({session->peername, " ",
                 std::string(reinterpret_cast<const char *>(session->community), session->community_len),
                 " version ", std::to_string(session->version), " timeout ",
                 std::to_string(session->timeout)});
}

/* The calls of the C++ thread pool go by their mangled names. */
#define THPOOL_INIT(prefix)    prefix##_Z11thpool_initi
#define THPOOL_WAIT(prefix)    prefix##_Z11thpool_waitP6thpool
#define THPOOL_DESTROY(prefix) prefix##_Z14thpool_destroyP6thpool
#define THPOOL_ADD(prefix)     prefix##_Z15thpool_add_workP6thpoolPFvPvES1_

extern "C" {
void init_snmp(const char *type)
{
    services.answer(join({"init_snmp ", type}));
}

int add_mibdir(const char *directory)
{
    return services.answer(join({"add_mibdir ", directory}));
}

struct tree *read_all_mibs()
{
    services.answer("read_all_mibs");
    return nullptr;
}

int init_agent(const char *application)
{
    return services.answer(join({"init_agent ", application}));
}

void snmp_sess_init(netsnmp_session *session)
{
    services.answer("snmp_sess_init");
    memset(session, 0xee, sizeof(*session));
}

void *snmp_sess_open(netsnmp_session *session)
{
    services.normal = *session;
    return pointer_by(join({"snmp_sess_open ", texts(session)}), &sess_handle);
}

netsnmp_session *snmp_sess_session(void *handle)
{
    EXPECT_EQ(handle, &sess_handle);
    return pointer_by("snmp_sess_session", &opened_session);
}

netsnmp_transport *snmp_sess_transport(void *handle)
{
    EXPECT_EQ(handle, &sess_handle);
    return nullptr; /* as the library answers for a session without one */
}

int snmp_sess_close(void *handle)
{
    EXPECT_EQ(handle, &sess_handle);
    return services.answer("snmp_sess_close");
}

netsnmp_transport *netsnmp_transport_open_server(const char *application, const char *address)
{
    server_transport.sock = -1;
    return pointer_by(join({"open_server ", application, " ", address}), &server_transport);
}

netsnmp_session *snmp_add(netsnmp_session *session, netsnmp_transport *transport,
                          int (*)(netsnmp_session *, netsnmp_transport *, void *, int),
                          int (*)(netsnmp_session *, netsnmp_pdu *, int))
{
    EXPECT_EQ(transport, &server_transport);
    services.trap = *session;
    return pointer_by(join({"snmp_add ", texts(session)}), &added_session);
}

int snmp_close(netsnmp_session *session)
{
    EXPECT_EQ(session, &added_session);
    return services.answer("snmp_close");
}

thpool *THPOOL_INIT(__real_)(int threads);
thpool *THPOOL_INIT(__wrap_)(int threads)
{
    return services.answer("thpool_init " + std::to_string(threads)) < 0 ? nullptr
                                                                         : THPOOL_INIT(__real_)(threads);
}

void THPOOL_WAIT(__real_)(thpool *pool);
void THPOOL_WAIT(__wrap_)(thpool *pool)
{
    services.answer("thpool_wait");
    THPOOL_WAIT(__real_)(pool);
}

void THPOOL_DESTROY(__real_)(thpool *pool);
void THPOOL_DESTROY(__wrap_)(thpool *pool)
{
    services.answer(pool != nullptr ? "thpool_destroy" : "thpool_destroy nothing");
    is_in_pool = true;
    THPOOL_DESTROY(__real_)(pool);
    is_in_pool = false;
}

int THPOOL_ADD(__real_)(thpool *pool, void (*function)(void *), void *argument);
int THPOOL_ADD(__wrap_)(thpool *pool, void (*function)(void *), void *argument)
{
    return services.answer("thpool_add_work") < 0 ? -1 : THPOOL_ADD(__real_)(pool, function, argument);
}
}

/* ---- fixture ---- */

CtrlConvDeath::CtrlConvDeath()
{
    services.reset();
    let_all_pass();
}

CtrlConv::~CtrlConv()
{
    services.reset();
    let_all_pass();
    bridge_ctrlplane_disconnect_oam();
    if (services.ctx != nullptr && services.ctx->ctx_inited) {
        bridge_ctrlplane_disconnect_agent();
        bridge_ctrlplane_deinit();
    }
}

void CtrlConv::start()
{
    ASSERT_EQ(init(), 0);
    ASSERT_EQ(connect_agent(), 0);
    ASSERT_EQ(bridge_snmp_connect_oam(), 0);
    services.take();
}
