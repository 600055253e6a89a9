/* Owns the context; takes every message of the operations server off the delivery thread and onto the pool.
 */
#include "converter/control/bridge_ctrl_conv.h"

#include "common/bridge_config.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "common/bridge_wait.h"
#include "converter/control/bridge_bsp_upgrade.h"
#include "converter/control/bridge_capabilities.h"
#include "converter/control/bridge_cmd.h"
#include "converter/control/bridge_configs.h"
#include "converter/control/bridge_configs_legacy.h"
#include "converter/control/bridge_ctrl_ctx.h"
#include "converter/control/bridge_events.h"
#include "converter/control/bridge_performance_management.h"
#include "mqtt/bridge_mqtt.h"
#include "thread_pool/thpool.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>
#include <net-snmp/library/snmp_transport.h>

static constexpr int WORKERS = 16;
static constexpr long SESSION_TIMEOUT_US = 3000000;
static constexpr uint32_t LAUNCH_PAUSE_US = 10;
static constexpr uint32_t HAND_OVER_POLL_MS = 1;
/* Authentication of the trap session: as the library's "unknown" has it. */
static constexpr int AUTHORITATIVE_UNKNOWN = 2;
static constexpr const char *TRAP_APPLICATION = "snvsnmptrap";

static converter_ctx converter_ctx_instance;
static converter_ctx *const the_ctx = &converter_ctx_instance;

/* Messages that the delivery thread is handing over: the context outlives them. */
static std::atomic<int> messages_in_hand;

struct ctrl_service {
    std::atomic<bool> started;
    int (*launcher)(converter_ctx *ctx, const char *arg);
    int (*stopper)(converter_ctx *ctx);
    void (*worker)(converter_ctx *ctx, const char *arg, const char *payload);
    const char *topic;
    const char *arg;
};

/* Launched in this order; a row without a worker has no subscription. */
/* clang-format off */
static ctrl_service ctrl_services[] = {
    {false, bridge_cmd_launcher, bridge_cmd_stopper, bridge_cmd_worker,
     "api/v1/gateway/commands", "api/v1/gateway/commands"},
    {false, bridge_config_push_launcher_legacy, nullptr, bridge_config_pull_worker_legacy,
     "api/v1/gateway/configuration", "api/v1/gateway/configuration"},
    {false, bridge_config_get_latest_launcher_legacy, nullptr, nullptr,
     "api/v1/gateway/configuration/request", "api/v1/gateway/configuration/request"},
    {false, bridge_events_cb_launcher, bridge_events_cb_stopper, nullptr,
     "api/v1/gateway/events", "api/v1/gateway/events"},
};
/* clang-format on */
static_assert(std::size(ctrl_services) == 4);

/* A received message on its way to the pool. */
struct ctrl_mqtt_work {
    char *topic;   /* owned */
    char *payload; /* owned, terminated */
    converter_ctx *ctx;
};

static void free_work(ctrl_mqtt_work *work)
{
    free(work->topic);
    free(work->payload);
    delete work;
}

using work_owned = std::unique_ptr<ctrl_mqtt_work, bridge_release<free_work>>;

/* ---- init and deinit ---- */

static int create_mutex(pthread_mutex_t *mutex)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    const int result = pthread_mutex_init(mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    return -result;
}

enum init_step {
    INIT_BULK_CONFIGS,
    INIT_BULK_UPGRADE,
    INIT_PERFORMANCE,
    INIT_CAPABILITIES,
    INIT_DONE,
};

/* Returns the step that failed, or INIT_DONE. */
static init_step init_services(converter_ctx *ctx)
{
    if (bridge_bulk_configs_init(ctx) < 0)
        return INIT_BULK_CONFIGS;
    if (bridge_bulk_upgrade_init(ctx) < 0)
        return INIT_BULK_UPGRADE;
    if (bridge_performance_management_init(ctx) < 0)
        return INIT_PERFORMANCE;
    if (bridge_capabilities_init(ctx) < 0)
        return INIT_CAPABILITIES;
    return INIT_DONE;
}

/* When the capabilities service fails, battery reports stay initialised, in this one case. */
static void unwind_services(init_step failed)
{
    if (failed == INIT_PERFORMANCE)
        bridge_performance_management_deinit();
    if (failed >= INIT_PERFORMANCE)
        bridge_bulk_upgrade_deinit();
    if (failed >= INIT_BULK_UPGRADE)
        bridge_bulk_configs_deinit();
}

static void release_context(converter_ctx *ctx)
{
    thpool_destroy(ctx->pool);
    ctx->pool = nullptr;
    free(ctx->gw_mac);
    ctx->gw_mac = nullptr;
    free(ctx->upload_chunk); /* an upload does not go on after a restart */
    ctx->upload_chunk = nullptr;
    pthread_mutex_destroy(&ctx->mutex);
}

static void mark_initialised(converter_ctx *ctx)
{
    ctx->ctx_inited = true;
    ctx->ctrl_running = true;
    ctx->ssh_pid = -1;
    ctx->stream_id = -1;
    ctx->fetch_id = -1;
    ctx->execute_id = -1;
    ctx->watch_pid = -1;
    ctx->fileops_async_pipe = -1;
    ctx->bsp_poll_running = false;
}

int bridge_ctrlplane_init(const char *gw_mac, bridge_ctrl_handler_t cb, void *handler_arg)
{
    BRIDGE_ASSERT(cb);
    converter_ctx *ctx = new (the_ctx) converter_ctx{};
    ctx->user_handler = cb;
    ctx->user_handler_arg = handler_arg;
    const int result = create_mutex(&ctx->mutex);
    if (result < 0)
        return -1;
    init_snmp("snmpapp");
    ctx->gw_mac = strdup(gw_mac);
    if (ctx->gw_mac == nullptr) {
        BRIDGE_ERROR("cannot allocate memory for mac address");
        release_context(ctx);
        return -1;
    }
    ctx->pool = thpool_init(WORKERS);
    if (ctx->pool == nullptr) {
        BRIDGE_ERROR("unable to create thread pool");
        release_context(ctx);
        return -1;
    }
    mark_initialised(ctx);
    const init_step reached = init_services(ctx);
    if (reached == INIT_DONE)
        return 0;
    unwind_services(reached);
    release_context(ctx);
    ctx->ctx_inited = false;
    return -1;
}

int bridge_ctrlplane_deinit()
{
    converter_ctx *ctx = the_ctx;
    BRIDGE_DEBUG("de-initing MQTT bridge");
    if (!ctx->ctx_inited) {
        BRIDGE_ERROR("attempting to de-init a non-initialized bridge");
        return -1;
    }
    bridge_bulk_configs_deinit();
    bridge_bulk_upgrade_deinit();
    bridge_performance_management_deinit();
    bridge_capabilities_deinit();
    BRIDGE_ASSERT_TEXT(!ctx->snmp_ready && !ctx->mqtt_ready,
                       "!converter_ctx.snmp_ready && !converter_ctx.mqtt_ready");
    ctx->ctrl_running = false;
    BRIDGE_DEBUG("wait for all remaining control plane threads to exit");
    ctx->ctx_inited = false;
    while (messages_in_hand != 0)
        bridge_wait_ms(HAND_OVER_POLL_MS);
    thpool_wait(ctx->pool);
    bridge_cmd_forget_jobs(ctx);
    release_context(ctx);
    BRIDGE_DEBUG("all control plane threads are stopped");
    return 0;
}

/* ---- the agent ---- */

static void prepare_session(netsnmp_session *session, const char *host, const char *community)
{
    snmp_sess_init(session);
    session->version = SNMP_VERSION_2c;
    session->timeout = SESSION_TIMEOUT_US;
    session->peername = const_cast<char *>(host);
    session->community = reinterpret_cast<u_char *>(const_cast<char *>(community));
    session->community_len = strlen(community);
}

static int load_mibs(const char *mib_dir)
{
    if (mib_dir == nullptr || *mib_dir == '\0')
        return 0;
    const int result = add_mibdir(mib_dir);
    if (result < 0) {
        BRIDGE_ERROR("failed to add mibdir: %s", mib_dir);
        return result;
    }
    read_all_mibs();
    return 0;
}

/* A program that the daemon runs must not hold them: a port that it keeps cannot be opened again. */
static void close_on_exec(const netsnmp_transport *transport)
{
    if (transport != nullptr && transport->sock >= 0)
        fcntl(transport->sock, F_SETFD, FD_CLOEXEC);
}

static void close_normal_session(converter_ctx *ctx)
{
    snmp_sess_close(ctx->sess_handle);
    ctx->sess_handle = nullptr;
    ctx->ss = nullptr;
}

static int open_normal_session(converter_ctx *ctx, const char *host, const char *community)
{
    netsnmp_session session;
    prepare_session(&session, host, community);
    ctx->sess_handle = snmp_sess_open(&session);
    if (ctx->sess_handle == nullptr) {
        BRIDGE_ERROR("failed to open SNMP normal session");
        return -1;
    }
    ctx->ss = snmp_sess_session(ctx->sess_handle);
    if (ctx->ss == nullptr) {
        BRIDGE_ERROR("failed to get the SNMP session pointer");
        close_normal_session(ctx);
        return -1;
    }
    close_on_exec(snmp_sess_transport(ctx->sess_handle));
    return 0;
}

static int open_trap_session(converter_ctx *ctx, const char *host, const char *community,
                             const char *trap_transport)
{
    BRIDGE_DEBUG("Listening SNMP trap on: %s", trap_transport);
    netsnmp_transport *transport = netsnmp_transport_open_server(TRAP_APPLICATION, trap_transport);
    if (transport == nullptr) {
        BRIDGE_ERROR("failed to open the SNMP transport");
        return -1;
    }
    close_on_exec(transport);
    netsnmp_session session;
    prepare_session(&session, host, community);
    session.authenticator = nullptr;
    session.callback = snmp_event_input;
    session.callback_magic = ctx;
    session.isAuthoritative = AUTHORITATIVE_UNKNOWN;
    /* The library frees the transport itself when it refuses the session. */
    ctx->trap_session = snmp_add(&session, transport, nullptr, nullptr);
    if (ctx->trap_session == nullptr) {
        BRIDGE_ERROR("failed to add the  SNMP event session");
        return -1;
    }
    return 0;
}

int bridge_ctrlplane_connect_agent(const char *snmp_host, const char *snmp_community, const char *mib_dir,
                                   const char *trap_transport, uint32_t gw_events_interval)
{
    BRIDGE_ASSERT(snmp_host);
    BRIDGE_ASSERT(snmp_community);
    BRIDGE_ASSERT_TEXT(trap_transport != nullptr, "trap_transport != NULL");
    BRIDGE_DEBUG("connecting to the SNMP agent: %s", snmp_host);
    converter_ctx *ctx = the_ctx;
    const ctx_guard guard(ctx);
    const int result = load_mibs(mib_dir);
    if (result < 0)
        return result;
    init_agent(TRAP_APPLICATION);
    if (open_normal_session(ctx, snmp_host, snmp_community) < 0)
        return -1;
    if (gw_events_interval == 0 && open_trap_session(ctx, snmp_host, snmp_community, trap_transport) < 0) {
        close_normal_session(ctx);
        return -1;
    }
    ctx->snmp_ready = true;
    return 0;
}

int bridge_ctrlplane_disconnect_agent()
{
    BRIDGE_DEBUG("disconnecting SNMP agent");
    converter_ctx *ctx = the_ctx;
    const ctx_guard guard(ctx);
    if (ctx->sess_handle != nullptr)
        close_normal_session(ctx);
    if (ctx->trap_session != nullptr) {
        snmp_close(ctx->trap_session);
        ctx->trap_session = nullptr;
    }
    ctx->snmp_ready = false;
    return 0;
}

/* ---- in a forked child ---- */

void bridge_ctrl_renew_mutex(converter_ctx *ctx)
{
    create_mutex(&ctx->mutex);
}

void bridge_ctrl_close_session(converter_ctx *ctx)
{
    if (ctx->sess_handle != nullptr)
        close_normal_session(ctx);
}

void bridge_ctrl_reopen_session(converter_ctx *ctx)
{
    if (!ctx->snmp_ready)
        return;
    const bridge_config_root *config = bridge_config_get_root_checked();
    ctx->snmp_ready = open_normal_session(ctx, config->snmp.agent_addr, config->snmp.community) == 0;
}

/* ---- messages ---- */

/* Runs on a pool thread. */
static void ctrl_mqtt_worker(void *arg)
{
    BRIDGE_ASSERT(arg);
    const work_owned work(static_cast<ctrl_mqtt_work *>(arg));
    const char *payload = work->payload;
    const char *topic = work->topic;
    BRIDGE_ASSERT(payload);
    BRIDGE_ASSERT(topic);
    BRIDGE_DEBUG("MQTT subscription worker starting");
    for (ctrl_service &service : ctrl_services) {
        if (service.started && service.worker != nullptr && strcasecmp(service.topic, topic) == 0) {
            service.worker(work->ctx, service.arg, payload);
            break;
        }
    }
    BRIDGE_DEBUG("exiting MQTT subscription worker");
}

static ctrl_mqtt_work *copy_message(converter_ctx *ctx, const char *topic, const uint8_t *payload,
                                    uint32_t payload_size)
{
    work_owned work(new (std::nothrow) ctrl_mqtt_work{.topic = nullptr, .payload = nullptr, .ctx = ctx});
    if (!work) {
        BRIDGE_ERROR("failed to allocate worker data");
        return nullptr;
    }
    work->payload = static_cast<char *>(calloc(static_cast<size_t>(payload_size) + 1, 1));
    if (work->payload == nullptr) {
        BRIDGE_ERROR("failed to allocate memory for payload with size: %zu",
                     static_cast<size_t>(payload_size));
        return nullptr;
    }
    memcpy(work->payload, payload, payload_size);
    work->topic = strdup(topic);
    if (work->topic == nullptr) {
        BRIDGE_ERROR("failed to allocate memory for topic");
        return nullptr;
    }
    return work.release();
}

/* Without the context mutex, which a silent agent holds for many seconds: this thread brings the downlinks,
 * too. The pool is there for as long as messages are in hand. */
static void hand_over(converter_ctx *ctx, const char *topic, const uint8_t *payload, uint32_t payload_size)
{
    if (!ctx->snmp_ready) {
        BRIDGE_ERROR("SNMP is not started, ignoring request from NS");
        return;
    }
    work_owned work(copy_message(ctx, topic, payload, payload_size));
    if (!work)
        return;
    if (thpool_add_work(ctx->pool, ctrl_mqtt_worker, work.get()) < 0) {
        BRIDGE_ERROR("failed to launch worker thread");
        return;
    }
    (void)work.release(); /* the worker's now */
}

/* Delivery thread: commands run on the pool. */
static void ctrl_mqtt_on_message(const char *topic, void *context, const uint8_t *payload,
                                 uint32_t payload_size)
{
    auto *ctx = static_cast<converter_ctx *>(context);
    BRIDGE_TRACE("ctrlplane message received");
    BRIDGE_ASSERT(ctx);
    if (topic == nullptr) {
        BRIDGE_ERROR("invalid topic received");
        return;
    }
    if (payload == nullptr || payload_size == 0) {
        BRIDGE_ERROR("invalid payload received");
        return;
    }
    messages_in_hand++;
    if (ctx->ctx_inited)
        hand_over(ctx, topic, payload, payload_size);
    messages_in_hand--;
}

/* ---- the operations server ---- */

static int launch_service(converter_ctx *ctx, ctrl_service *service)
{
    if (service->launcher != nullptr) {
        const int result = service->launcher(ctx, service->arg);
        if (result < 0)
            return result;
    }
    service->started = true;
    bridge_wait_us(LAUNCH_PAUSE_US);
    if (service->worker == nullptr)
        return 0;
    return bridge_mqtt_subscribe(BRIDGE_MQTT_EP_OAM, &service->topic, 1, ctrl_mqtt_on_message, ctx);
}

static void stop_management_services()
{
    bridge_capabilities_close();
    bridge_bulk_configs_stop();
    bridge_bulk_upgrade_stop();
    bridge_performance_management_stop();
    bridge_capabilities_stop();
}

static void unsubscribe_topic(const char *topic)
{
    uint32_t count = 1;
    if (bridge_mqtt_unsubscribe(BRIDGE_MQTT_EP_OAM, &topic, &count) < 0 || count == 0)
        BRIDGE_ERROR("failed to unsubscribe: %s", topic);
}

static void unwind_launch(converter_ctx *ctx)
{
    for (ctrl_service &service : ctrl_services) {
        if (service.started && service.stopper != nullptr) {
            service.stopper(ctx);
            service.started = false;
        }
        uint32_t count = 1;
        if (service.worker != nullptr)
            bridge_mqtt_unsubscribe(BRIDGE_MQTT_EP_OAM, &service.topic, &count);
    }
    stop_management_services();
    bridge_mqtt_disconnect(BRIDGE_MQTT_EP_OAM);
}

int bridge_snmp_connect_oam()
{
    converter_ctx *ctx = the_ctx;
    if (bridge_mqtt_connect(BRIDGE_MQTT_EP_OAM) < 0) {
        BRIDGE_ERROR("failed to connect to OA&M endpoint");
        return -1;
    }
    int result = bridge_capabilities_start();
    if (result < 0) {
        bridge_mqtt_disconnect(BRIDGE_MQTT_EP_OAM);
        return result;
    }
    for (ctrl_service &service : ctrl_services) {
        result = launch_service(ctx, &service);
        if (result < 0) {
            unwind_launch(ctx);
            return result;
        }
    }
    ctx->mqtt_ready = true;
    return 0;
}

int bridge_ctrlplane_disconnect_oam()
{
    converter_ctx *ctx = the_ctx;
    stop_management_services();
    if (ctx->mqtt_ready) {
        for (ctrl_service &service : ctrl_services) {
            if (service.started && service.stopper != nullptr && service.stopper(ctx) < 0)
                BRIDGE_ERROR("failed to stop ctrlplane service");
            unsubscribe_topic(service.topic);
            service.started = false;
        }
        ctx->mqtt_ready = false;
    }
    const int result = bridge_mqtt_disconnect(BRIDGE_MQTT_EP_OAM);
    if (result < 0)
        BRIDGE_DEBUG("failed to disconnect from OA&M endpoint");
    return result;
}
