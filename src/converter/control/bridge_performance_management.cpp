/* A thread that waits on a queue, into which a timer drops a message for each
 * report. */
#include "converter/control/bridge_performance_management.h"

#include "common/bridge_config.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "common/bridge_sem.h"
#include "converter/control/bridge_ctrl_ctx.h"
#include "converter/control/bridge_service_queue.h"
#include "converter/control/bridge_service_timer.h"
#include "converter/control/bridge_snmp.h"
#include "mqtt/bridge_mqtt.h"
#include "thread_pool/thpool.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>

static constexpr uint32_t MIN_PERIOD_MINS = 1;
static constexpr uint32_t MAX_PERIOD_MINS = 1439;
static constexpr int32_t CODE_QUEUE_LOST = 6;

enum performance_action : int32_t {
    PERFORMANCE_NONE = 0,
    PERFORMANCE_EXIT = 1,
    PERFORMANCE_PUBLISH = 2,
    PERFORMANCE_WAITING = 3,
};

enum performance_measure : int32_t {
    MEASURE_BATTERY = 0,
    MEASURE_NETWORK = 4,
    MEASURE_NO = 5,
};

struct performance_msg {
    int32_t action;
    int32_t measure;
};
static_assert(sizeof(performance_msg) == 8);

static constexpr bridge_queue_words QUEUE = {
    "/performance_management_mq",
    "performance management message queue: %s is already created",
    "failed to open message queue for performance management: %m",
    "failed to open message queue for performance management: %m",
    "performance management mq descriptor: [%d]",
};

static struct {
    converter_ctx *ctx; /* not owned; under the mutex, like all but the semaphore */
    std::mutex mutex;
    bool started;
    bool inited;
    bool restarting; /* set by a stop, cleared by init: a late capabilities
                        message starts nothing */
    sem_t thread_done;
    mqd_t mq;
    int lock_result;
} module_ctx;

static bool lock_needs_init = true;

template <size_t Count>
static const char *name_in(const char *const (&names)[Count], int32_t number, const char *other)
{
    return number >= 0 && number < static_cast<int32_t>(Count) ? names[number] : other;
}

static const char *action_name(int32_t action)
{
    static constexpr const char *NAMES[] = {"none", "thread exit", "publish performance", "waiting"};
    return name_in(NAMES, action, "unknown action");
}

static const char *measure_name(int32_t measure)
{
    static constexpr const char *NAMES[] = {"battery", "cpu", "temperature", "memory", "network"};
    static_assert(std::size(NAMES) == MEASURE_NETWORK + 1);
    return name_in(NAMES, measure, "unknown");
}

static const char *performance_topic()
{
    static char topic[128];
    const char *mac = bridge_config_get_root_checked()->generic.gw_mac;
    const int n = snprintf(topic, sizeof(topic), "gateway/mac/%s/performance", mac);
    BRIDGE_ASSERT_TEXT(n >= 0 && static_cast<size_t>(n) < sizeof(topic),
                       "n >= 0 && (size_t)n < sizeof(topic)");
    return topic;
}

/* ---- battery report ---- */

struct battery_value {
    const char *object;
    const char *key;
    bool is_text; /* otherwise a number with two decimals */
};

/* In the order of the report. */
/* clang-format off */
static constexpr battery_value BATTERY_VALUES[] = {
    {"spmChargerInputVoltage.0",  "chargerInputVoltage",  false},
    {"spmChargerInputCurrent.0",  "chargerInputCurrent",  false},
    {"spmChargerInputPower.0",    "chargerInputPower",    false},
    {"spmChargerOutputVoltage.0", "chargerOutputVoltage", false},
    {"spmChargerOutputCurrent.0", "chargerOutputCurrent", false},
    {"spmChargerOutputPower.0",   "chargerOutputPower",   false},
    {"spmChargerSolarState.0",    "chargerSolarState",    true},
    {"spmChargerChargingState.0", "chargerChargingState", true},
    {"spmBatteryVoltage.0",       "batteryVoltage",       false},
    {"spmBatteryCurrent.0",       "batteryCurrent",       false},
    {"spmBatteryPower.0",         "batteryPower",         false},
    {"spmBatteryTemperature.0",   "batteryTemperature",   false},
    {"spmBatteryCapacity.0",      "batteryCapacity",      false},
    {"spmLoadCurrent.0",          "loadCurrent",          false},
    {"spmLoadPower.0",            "loadPower",            false},
};
/* clang-format on */
static constexpr size_t VALUES = std::size(BATTERY_VALUES);
static_assert(VALUES == 15);

static constexpr size_t NUMBER_SIZE = 7;
static constexpr size_t TEXT_SIZE = 30;
static constexpr size_t TIMESTAMP_SIZE = 14;

struct battery_data {
    char timestamp[TIMESTAMP_SIZE];
    int64_t period;
    char values[VALUES][TEXT_SIZE];
};

static bool is_absent(const char *text)
{
    if (strncmp(text, "N/A", 3) != 0)
        return false;
    BRIDGE_WARN("Warning: SNMP value is N/A");
    return true;
}

/* A number may be followed by anything. */
static bool performance_parse_float(const char *text, float *value)
{
    if (is_absent(text))
        return false;
    char *end = nullptr;
    errno = 0;
    *value = strtof(text, &end);
    if (errno != 0) {
        BRIDGE_WARN("Warning: Failed to convert string to float: %s (%d)\n", strerror(errno), errno);
        return false;
    }
    if (end == text) {
        BRIDGE_WARN("Warning: No digits found\n");
        return false;
    }
    return true;
}

static bool performance_parse_int(const char *text, long long *value)
{
    if (is_absent(text))
        return false;
    char *end = nullptr;
    errno = 0;
    *value = strtoll(text, &end, 10);
    if (errno != 0) {
        BRIDGE_WARN("Warning: Failed to convert string to int: %s (%d)\n", strerror(errno), errno);
        return false;
    }
    if (end == text) {
        BRIDGE_WARN("Warning: No digits found\n");
        return false;
    }
    return true;
}

static int read_battery(converter_ctx *ctx, battery_data *data)
{
    bridge_snmp_read_prop props[VALUES + 3] = {};
    props[0] = {.oid = "spmDataTimestamp.0",
                .buf_sz = sizeof(data->timestamp),
                .buf = data->timestamp,
                .type = PROP_TYPE_STRING};
    props[1] = {.oid = "spmDataCollectingPeriod.0", .buf = &data->period, .type = PROP_TYPE_INT};
    for (size_t i = 0; i < VALUES; i++)
        props[i + 2] = {.oid = BATTERY_VALUES[i].object,
                        .buf_sz = BATTERY_VALUES[i].is_text ? TEXT_SIZE : NUMBER_SIZE,
                        .buf = data->values[i],
                        .type = PROP_TYPE_STRING};
    return bridge_snmp_get_properties(ctx, props, 0);
}

/* The piece of a value, with a comma before it unless it is the first; empty
 * for a value that cannot be shown. */
static void format_value(const battery_value &row, const char *text, bool *first, char (&piece)[75])
{
    const char *comma = *first ? "" : ", ";
    float number = 0;
    piece[0] = '\0';
    if (row.is_text) {
        if (strcmp(text, "N/A") == 0)
            return;
        snprintf(piece, sizeof(piece), "%s\"%s\": \"%s\"", comma, row.key, text);
    } else {
        if (!performance_parse_float(text, &number))
            return;
        snprintf(piece, 50, "%s\"%s\": %.2f", comma, row.key, static_cast<double>(number));
    }
    *first = false;
}

static void publish_battery(const battery_data &data)
{
    char timestamp[50] = "";
    char period[50] = "";
    long long seconds = 0;
    if (performance_parse_int(data.timestamp, &seconds))
        snprintf(timestamp, sizeof(timestamp), "\"timestamp\": %lld,", seconds);
    if (data.period != 0)
        snprintf(period, sizeof(period), "\"period\": %d,", static_cast<int>(data.period));
    char values[VALUES * 75] = "";
    size_t length = 0;
    bool first = true;
    for (size_t i = 0; i < VALUES; i++) {
        char piece[75];
        format_value(BATTERY_VALUES[i], data.values[i], &first, piece);
        length += static_cast<size_t>(snprintf(values + length, sizeof(values) - length, "%s", piece));
    }
    char battery_performance_json[700];
    const int n = snprintf(battery_performance_json, sizeof(battery_performance_json),
                           "{\"name\":\"battery\",%s%s\"value\":{%s}}", timestamp, period, values);
    BRIDGE_ASSERT_TEXT(n > 0 && static_cast<size_t>(n) < sizeof(battery_performance_json),
                       "n > 0 && (size_t)n < sizeof(battery_performance_json)");
    const char *topic = performance_topic();
    BRIDGE_DEBUG("publishing message: %s on topic %s", battery_performance_json, topic);
    if (bridge_mqtt_publish(BRIDGE_MQTT_EP_OAM, topic, battery_performance_json, static_cast<uint32_t>(n) + 1,
                            true) < 0)
        BRIDGE_ERROR("failed to send battery performance measures - MQTT publish failure");
}

static int performance_publish_battery(converter_ctx *ctx)
{
    battery_data data = {};
    if (read_battery(ctx, &data) < 0) {
        BRIDGE_ERROR("failed to get properties for battery performance stats");
        return -1;
    }
    const std::lock_guard guard(module_ctx.mutex);
    if (module_ctx.ctx == nullptr) {
        BRIDGE_ERROR("failed to send battery performance measures - context is not valid");
        return -1;
    }
    publish_battery(data);
    return 0;
}

/* ---- the thread ---- */

static performance_msg timer_message = {PERFORMANCE_PUBLISH, MEASURE_BATTERY};

/* Under the mutex. */
static int send_message(const performance_msg &message)
{
    return mq_send(module_ctx.mq, reinterpret_cast<const char *>(&message), sizeof(message), 0);
}

static void on_timer(sigval param)
{
    const auto *message = static_cast<const performance_msg *>(param.sival_ptr);
    BRIDGE_ASSERT_TEXT(message, "param");
    BRIDGE_TRACE("performance measure timer handler");
    const std::lock_guard guard(module_ctx.mutex);
    if (send_message(*message) < 0)
        BRIDGE_WARN("Warning: can't send message to performance management thread");
}

/* Returns 0, also when there is nothing to report, or -1. */
static int performance_timer_start(bridge_service_timer *timer)
{
    const auto &config = bridge_config_get_root_checked()->performance;
    const uint32_t period = config.battery_reporting_period_mins;
    const bool is_set = config.battery_reporting_period_mins_set;
    if (!is_set || period < MIN_PERIOD_MINS || period > MAX_PERIOD_MINS) {
        if (!is_set)
            BRIDGE_DEBUG("battery performance period not defined");
        BRIDGE_DEBUG("battery performance measure not enabled");
        return 0;
    }
    BRIDGE_DEBUG("starting battery performance measure timer");
    if (timer->create(on_timer, &timer_message) < 0) {
        BRIDGE_ERROR("Can't create timer for battery performance");
        return -1;
    }
    const uint64_t seconds = uint64_t{period} * 60;
    if (timer->start(seconds * 1000, true) < 0) {
        BRIDGE_ERROR("Failed to start performance measure timer (%llu): %m.",
                     static_cast<unsigned long long>(seconds));
        BRIDGE_ERROR("Can't schedule timer for battery performance");
        return -1;
    }
    return 0;
}

static void publish_measure(converter_ctx *ctx, int32_t measure)
{
    BRIDGE_TRACE("Performance measure to be published: %s", measure_name(measure));
    if (measure == MEASURE_BATTERY)
        performance_publish_battery(ctx);
    else
        BRIDGE_TRACE("Unsupported performance measure");
}

static void give_up(converter_ctx *ctx)
{
    BRIDGE_ERROR("Exiting performance management thread");
    const std::lock_guard guard(module_ctx.mutex);
    if (ctx->user_handler != nullptr)
        ctx->user_handler(CODE_QUEUE_LOST, ctx->user_handler_arg);
}

/* Until a message or a failure ends it. */
static void serve_queue(converter_ctx *ctx, mqd_t mq)
{
    performance_msg message = {PERFORMANCE_WAITING, MEASURE_NO};
    for (;;) {
        BRIDGE_TRACE("Action: %s", action_name(message.action));
        if (message.action == PERFORMANCE_EXIT) {
            BRIDGE_ERROR("stopping performance management thread");
            sem_post(&module_ctx.thread_done);
            return;
        }
        if (message.action == PERFORMANCE_PUBLISH) {
            publish_measure(ctx, message.measure);
            message.action = PERFORMANCE_WAITING;
        }
        BRIDGE_INFO("Performance management thread waiting for the next message");
        const ssize_t size = mq_receive(mq, reinterpret_cast<char *>(&message), sizeof(message), nullptr);
        if (size >= 0 || errno == EINTR)
            continue;
        BRIDGE_ERROR("failed to read from the message queue: %m");
        give_up(ctx);
        return;
    }
}

static void performance_thread(void *arg)
{
    auto *ctx = static_cast<converter_ctx *>(arg);
    BRIDGE_DEBUG("starting performance management thread");
    bridge_service_timer timer;
    if (performance_timer_start(&timer) < 0)
        return;
    const mqd_t mq = mq_open(QUEUE.name, O_RDONLY | O_CLOEXEC);
    if (mq < 0) {
        BRIDGE_ERROR("Can't open message queue for reading performance measures    "
                     "                     during "
                     "performance management thread startup");
        return;
    }
    serve_queue(ctx, mq);
    mq_close(mq);
}

/* ---- lifecycle ---- */

int bridge_performance_management_init(converter_ctx *ctx)
{
    BRIDGE_DEBUG("initializing performance management service");
    BRIDGE_ASSERT(!module_ctx.inited);
    BRIDGE_ASSERT(!module_ctx.started);
    int value = 0;
    if (lock_needs_init) {
        module_ctx.lock_result = sem_init(&module_ctx.thread_done, 0, 1);
        lock_needs_init = false;
    } else {
        module_ctx.lock_result = sem_getvalue(&module_ctx.thread_done, &value);
    }
    if (module_ctx.lock_result < 0) {
        BRIDGE_ERROR("failed to initialize the performance management service: %s (%d)\n", strerror(errno),
                     errno);
        return -1;
    }
    const std::lock_guard guard(module_ctx.mutex);
    module_ctx.ctx = ctx;
    module_ctx.inited = true;
    module_ctx.mq = -1;
    module_ctx.restarting = false;
    return 0;
}

/* Under the mutex. */
static int bridge_performance_management_launcher()
{
    BRIDGE_DEBUG("Performance management launcher started");
    BRIDGE_DEBUG("creating performance management msg queue and thread");
    module_ctx.mq = bridge_queue_open(QUEUE, sizeof(performance_msg));
    if (module_ctx.mq < 0)
        return -1;
    const int result = thpool_add_work(module_ctx.ctx->pool, performance_thread, module_ctx.ctx);
    if (result < 0) {
        BRIDGE_ERROR("failed to start performance management thread: %d", result);
        bridge_queue_remove(QUEUE, &module_ctx.mq);
        return result;
    }
    BRIDGE_DEBUG("Performance management launcher finished");
    return 0;
}

int bridge_performance_management_start()
{
    BRIDGE_DEBUG("starting performance management service");
    const std::lock_guard guard(module_ctx.mutex);
    if (module_ctx.restarting) {
        BRIDGE_INFO("Performance management service is undergoing a restart, "
                    "cannot start it now");
        return -1;
    }
    if (module_ctx.started) {
        BRIDGE_DEBUG("performance management service has already started");
        return 0;
    }
    const int result = bridge_performance_management_launcher();
    if (result < 0)
        BRIDGE_INFO("Performance management launcher couldn't be run successfully");
    else
        module_ctx.started = true;
    return result;
}

/* Returns whether the thread has been told to end. */
static bool tell_to_end()
{
    if (module_ctx.mq < 0) {
        BRIDGE_ERROR("Msq not opened for performance management");
        return false;
    }
    const performance_msg message = {PERFORMANCE_EXIT, MEASURE_NO};
    if (bridge_queue_send_last(QUEUE, module_ctx.mq, &message, sizeof(message)) < 0) {
        BRIDGE_ERROR("Can't send message to performance management thread");
        return false;
    }
    return true;
}

/* The thread takes nothing of the semaphore at its start, so the wait does not
 * last to its end. */
static void stop_started(std::unique_lock<std::mutex> *lock)
{
    if (tell_to_end()) {
        lock->unlock();
        bridge_sem_wait(&module_ctx.thread_done);
        lock->lock();
    } else {
        const int rc = sem_trywait(&module_ctx.thread_done);
        BRIDGE_ASSERT(rc == 0);
    }
    if (module_ctx.mq >= 0)
        bridge_queue_remove(QUEUE, &module_ctx.mq);
    sem_post(&module_ctx.thread_done);
    module_ctx.started = false;
    module_ctx.restarting = true;
}

int bridge_performance_management_stop()
{
    BRIDGE_DEBUG("stopping performance management service");
    std::unique_lock lock(module_ctx.mutex);
    if (module_ctx.restarting)
        BRIDGE_INFO("performance management service is already undergoing a "
                    "restart, cannot be stopped now");
    else if (!module_ctx.started)
        BRIDGE_DEBUG("performance management service already stopped");
    else
        stop_started(&lock);
    return 0;
}

int bridge_performance_management_deinit()
{
    BRIDGE_DEBUG("de-initializing performance management service");
    const std::lock_guard guard(module_ctx.mutex);
    BRIDGE_ASSERT(module_ctx.inited);
    BRIDGE_ASSERT(!module_ctx.started);
    module_ctx.inited = false;
    module_ctx.ctx = nullptr;
    return 0;
}
