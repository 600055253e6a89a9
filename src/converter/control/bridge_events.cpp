/* Two tables of current conditions, published whole each time, by one worker. */
#include "converter/control/bridge_events.h"

#include "common/bridge_config.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "converter/control/bridge_ctrl_ctx.h"
#include "converter/control/bridge_snmp_helpers.h"
#include "mqtt/bridge_mqtt.h"
#include "thread_pool/thpool.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <net-snmp/library/fd_event_manager.h>
#include <sys/select.h>

static constexpr size_t DESCRIPTION_SIZE = 64;
static constexpr time_t SELECT_S = 5;

struct event_source {
    const char *type;
    const char *description_selector;
    const char *description_text;
    const char *id_column;
    const char *severity_column;
    const char *state_column;
};

/* clang-format off */
static constexpr event_source event_sources[] = {
    {"ALARM", "hmAlarmDescriptionId.0", "hmAlarmDescriptionText.0", "hmAlarmCurrentStateId", "hmAlarmCurrentStateSeverity", "hmAlarmCurrentStateState"},
    {"FAULT", "hmFaultDescriptionId.0", "hmFaultDescriptionText.0", "hmFaultCurrentStateId", "hmFaultCurrentStateSeverity", "hmFaultCurrentStateState"},
};
/* clang-format on */

static constexpr std::array<const char *, 3> SEVERITIES = {"CRITICAL", "MAJOR", "MINOR"};
static constexpr std::array<const char *, 2> STATES = {"CLEAR", "RAISED"};

/* snmpTrapOID.0, and the two notifications that say that a table has changed. */
static constexpr oid TRAP_OID[] = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};
static constexpr oid ALARM_NOTIFICATION[] = {1, 3, 6, 1, 4, 1, 59317, 3, 5, 200, 0, 20};
static constexpr oid FAULT_NOTIFICATION[] = {1, 3, 6, 1, 4, 1, 59317, 3, 5, 200, 0, 21};

struct event_worker_data {
    converter_ctx *ctx;
    char *topic; /* owned */
};

static void free_data(event_worker_data *data)
{
    free(data->topic);
    delete data;
}

using data_owned = std::unique_ptr<event_worker_data, bridge_release<free_data>>;

/* ---- publishing ---- */

template <size_t Size>
static const char *name_of(int64_t number, const std::array<const char *, Size> &names, const char *other)
{
    const bool known = number >= 0 && number < static_cast<int64_t>(Size);
    return known ? names.at(static_cast<size_t>(number)) : other;
}

/* The selector and the text are one look-up on the agent; another reader may come between the two. */
static int read_description(converter_ctx *ctx, const event_source &source, const char *id,
                            char (&text)[DESCRIPTION_SIZE])
{
    if (bridge_snmp_set_property(ctx, source.description_selector, id, 0) < 0) {
        BRIDGE_ERROR("cannot request event description");
        return -1;
    }
    size_t size = sizeof(text);
    if (bridge_snmp_get_property_str(ctx, source.description_text, text, &size, 0) < 0) {
        BRIDGE_ERROR("cannot fetch event description");
        return -1;
    }
    return 0;
}

static int publish_event(converter_ctx *ctx, const char *topic, const event_source &source, json_object *row)
{
    BRIDGE_TRACE("got events data: %s", json_object_to_json_string_ext(row, JSON_C_TO_STRING_PLAIN));
    char id[64] = "";
    int64_t severity = 0;
    int64_t state = 0;
    bridge_json_field frame[] = {
        field_string("id", id),
        field_int("severity", &severity),
        field_int("state", &state),
    };
    errno = 0; /* a library call of this thread may have left one that counts against the numbers */
    if (bridge_json_deserialize(row, frame, std::size(frame)) < 0) {
        BRIDGE_ERROR("can't de-serialize event JSON");
        return -1;
    }
    char description[DESCRIPTION_SIZE];
    if (read_description(ctx, source, id, description) < 0)
        return -1;

    char event_json[256];
    const int n = snprintf(event_json, sizeof(event_json),
                           "{\"ts\":0,\"mac\":\"%s\",\"type\":\"%s\",\"typeId\":%s,\"severity\":\"%s\","
                           "\"state\":\"%s\",\"description\":\"%s\"}",
                           ctx->gw_mac, source.type, id, name_of(severity, SEVERITIES, "DEFAULT"),
                           name_of(state, STATES, "INVALID"), description);
    BRIDGE_ASSERT_TEXT(n > 0 && static_cast<size_t>(n) < sizeof(event_json),
                       "n > 0 && (size_t)n < sizeof(event_json)");
    BRIDGE_DEBUG("publishing message: %s on topic: %s", event_json, topic);
    if (bridge_mqtt_publish(BRIDGE_MQTT_EP_OAM, topic, event_json, static_cast<uint32_t>(n) + 1, false) !=
        0) {
        BRIDGE_ERROR("can't publish event");
        BRIDGE_ASSERT(ctx->user_handler);
        ctx->user_handler(1, ctx->user_handler_arg);
        return -1;
    }
    return 0;
}

static int publish_source(converter_ctx *ctx, const char *topic, const event_source &source)
{
    const bridge_snmp_column mapping[] = {
        {"id", source.id_column, false, PROP_TYPE_INT},
        {"severity", source.severity_column, false, PROP_TYPE_INT},
        {"state", source.state_column, false, PROP_TYPE_INT},
        {},
    };
    json_object *table = nullptr;
    if (bridge_snmp_get_exact_table_as_json(ctx, mapping, nullptr, &table) < 0) {
        BRIDGE_ERROR("failed to get event information");
        return -1;
    }
    const json_owned owned(table);
    for (size_t i = 0; i < json_object_array_length(table); i++) {
        const int result = publish_event(ctx, topic, source, json_object_array_get_idx(table, i));
        if (result < 0)
            return result;
    }
    return 0;
}

static int bridge_events_publish(converter_ctx *ctx, const char *topic)
{
    BRIDGE_ASSERT(ctx);
    BRIDGE_ASSERT(topic);
    for (const event_source &source : event_sources) {
        if (publish_source(ctx, topic, source) < 0)
            return -1;
    }
    return 0;
}

/* ---- the worker ---- */

/* The sessions of the library's list belong to this thread, but a stop closes the trap session under the
 * context mutex: the calls are made under it, the wait is not. */
static void take_notifications(converter_ctx *ctx, const char *topic)
{
    int count = 0;
    int block = 0;
    fd_set readable;
    fd_set writable;
    fd_set failed;
    FD_ZERO(&readable);
    FD_ZERO(&writable);
    FD_ZERO(&failed);
    timeval timeout = {.tv_sec = SELECT_S, .tv_usec = 0};
    {
        const ctx_guard guard(ctx);
        snmp_select_info(&count, &readable, &timeout, &block);
        netsnmp_external_event_info(&count, &readable, &writable, &failed);
    }
    if (timeout.tv_sec > SELECT_S)
        timeout = {.tv_sec = SELECT_S, .tv_usec = 0};
    int ready = select(count, &readable, &writable, &failed, &timeout);
    if (ready > 0) {
        {
            const ctx_guard guard(ctx);
            netsnmp_dispatch_external_events(&ready, &readable, &writable, &failed);
            if (ready > 0)
                snmp_read(&readable);
        }
        if (ctx->event_pending) {
            bridge_events_publish(ctx, topic);
            ctx->event_pending = false;
        }
    } else if (ready == 0) {
        const ctx_guard guard(ctx);
        snmp_timeout();
    } else if (ready != -1) {
        BRIDGE_ERROR("select returned %d", ready);
    } else if (errno != EINTR) {
        BRIDGE_ERROR("select");
    }
}

static void wait_for_notifications(converter_ctx *ctx, const char *topic)
{
    bridge_events_publish(ctx, topic);
    while (ctx->ctrl_running)
        take_notifications(ctx, topic);
    ctx->event_thr_running = false;
}

/* Where a time has 32 bits, the clock ends before the longest intervals: such a one lasts until then. */
static timespec deadline_after(uint32_t interval_s)
{
    timespec deadline = {};
    clock_gettime(CLOCK_REALTIME, &deadline);
    const int64_t second = int64_t{deadline.tv_sec} + interval_s;
    deadline.tv_sec = static_cast<time_t>(std::min<int64_t>(second, std::numeric_limits<time_t>::max()));
    return deadline;
}

/* Nothing signals the condition: a stop is noticed at the end of the interval. */
static bool wait_for_interval(converter_ctx *ctx, uint32_t interval_s)
{
    const timespec deadline = deadline_after(interval_s);
    const ctx_guard guard(ctx);
    int result = 0;
    while (result != ETIMEDOUT && ctx->ctrl_running)
        result = pthread_cond_timedwait(&ctx->events_cond, &ctx->mutex, &deadline);
    const bool running = ctx->ctrl_running;
    ctx->event_thr_running = false;
    return running;
}

static void poll_events(converter_ctx *ctx, const char *topic, uint32_t interval_s)
{
    bool running = true;
    while (running) {
        bridge_events_publish(ctx, topic);
        running = wait_for_interval(ctx, interval_s);
    }
    BRIDGE_INFO("stopping event polling");
}

static void event_worker(void *arg)
{
    BRIDGE_DEBUG("launching event worker thread");
    BRIDGE_ASSERT_TEXT(arg, "data");
    const data_owned data(static_cast<event_worker_data *>(arg));
    BRIDGE_ASSERT(data->topic);
    BRIDGE_ASSERT(data->ctx);
    const uint32_t interval_s = bridge_config_get_root_checked()->generic.gw_events_interval;
    if (interval_s == 0)
        wait_for_notifications(data->ctx, data->topic);
    else
        poll_events(data->ctx, data->topic, interval_s);
    BRIDGE_DEBUG("exiting event thread");
}

int bridge_events_cb_launcher(converter_ctx *ctx, const char *topic)
{
    BRIDGE_ASSERT(ctx);
    BRIDGE_ASSERT(topic);
    BRIDGE_ASSERT(!ctx->event_thr_running);
    data_owned data(new (std::nothrow) event_worker_data{.ctx = ctx, .topic = nullptr});
    if (!data) {
        BRIDGE_ERROR("cannot allocate data for event worker");
        return -1;
    }
    data->topic = strdup(topic);
    if (data->topic == nullptr) {
        BRIDGE_ERROR("cannot allocate data for event topic");
        return -1;
    }
    if (thpool_add_work(ctx->pool, event_worker, data.get()) < 0) {
        BRIDGE_ERROR("failed to launch event worker thread");
        return -1;
    }
    (void)data.release();
    ctx->event_thr_running = true;
    return 0;
}

int bridge_events_cb_stopper(converter_ctx *)
{
    return 0;
}

/* ---- notifications ---- */

static bool is_trap_variable(const netsnmp_variable_list *var)
{
    return var != nullptr &&
           snmp_oid_compare(var->name, var->name_length, TRAP_OID, std::size(TRAP_OID)) == 0;
}

/* It stands second by the protocol; some agents put it elsewhere. */
static const netsnmp_variable_list *find_trap_variable(const netsnmp_pdu *pdu)
{
    const netsnmp_variable_list *first = pdu->variables;
    if (first != nullptr && is_trap_variable(first->next_variable))
        return first->next_variable;
    for (const netsnmp_variable_list *var = first; var != nullptr; var = var->next_variable) {
        if (is_trap_variable(var))
            return var;
    }
    return nullptr;
}

template <size_t Size> static bool names(const netsnmp_variable_list *var, const oid (&notification)[Size])
{
    return var->type == ASN_OBJECT_ID &&
           snmp_oid_compare(var->val.objid, var->val_len / sizeof(oid), notification, Size) == 0;
}

static int take_message(const netsnmp_session *session, const netsnmp_pdu *pdu, converter_ctx *ctx)
{
    if (session->s_snmp_errno != 0)
        return -1;
    BRIDGE_INFO("SNMP event callback command: %x", static_cast<unsigned>(pdu->command));
    if (pdu->command != SNMP_MSG_INFORM && pdu->command != SNMP_MSG_TRAP2)
        return -1;
    const netsnmp_variable_list *trap = find_trap_variable(pdu);
    if (trap == nullptr) {
        BRIDGE_ERROR("Cannot find TrapOID in TRAP2 PDU");
        return -1;
    }
    if (names(trap, ALARM_NOTIFICATION) || names(trap, FAULT_NOTIFICATION)) {
        BRIDGE_INFO("Received alarm or fault notification");
        ctx->event_pending = true;
    }
    return 0;
}

int snmp_event_input(int operation, netsnmp_session *session, int, netsnmp_pdu *pdu, void *magic)
{
    switch (operation) {
    case NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE:
        return take_message(session, pdu, static_cast<converter_ctx *>(magic));
    case NETSNMP_CALLBACK_OP_TIMED_OUT:
        BRIDGE_ERROR("Timeout: This shouldn't happen!");
        return 0;
    case NETSNMP_CALLBACK_OP_SEND_FAILED:
        BRIDGE_ERROR("Send Failed: This shouldn't happen either!");
        return 0;
    case NETSNMP_CALLBACK_OP_CONNECT:
    case NETSNMP_CALLBACK_OP_DISCONNECT:
        return 0;
    default:
        BRIDGE_ERROR("Unknown operation (%d): This shouldn't happen!", operation);
        return 0;
    }
}
