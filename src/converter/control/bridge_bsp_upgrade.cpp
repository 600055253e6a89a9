/* A thread that waits on a queue for requests and polls, and reports every
 * state that it finds. */
#include "converter/control/bridge_bsp_upgrade.h"

#include "common/bridge_config.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_sem.h"
#include "converter/control/bridge_bsp_utility.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_ctrl_ctx.h"
#include "converter/control/bridge_service_queue.h"
#include "converter/control/bridge_service_timer.h"
#include "mqtt/bridge_mqtt.h"
#include "thread_pool/thpool.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <new>
#include <sys/time.h>

static constexpr uint64_t POLL_PERIOD_MS = 30000;
static constexpr uint32_t AVAILABLE_TIMEOUT_MS = 10000;
static constexpr int32_t CODE_THREAD_ENDED = 4;
static constexpr int64_t MS_PER_S = 1000;

enum bsp_upgrade_action : int32_t {
    BSP_ACTION_NONE = 0,
    BSP_ACTION_EXIT = 1,
    BSP_ACTION_REQUEST = 2,
    BSP_ACTION_POLL = 3,
};

/* Times in seconds since 1970, delays in seconds. */
struct bsp_upgrade_msg {
    int32_t action;
    uint64_t update_ts;
    uint64_t download_time;
    uint32_t download_delay;
    uint64_t update_time;
    uint32_t update_delay;
    bool force;
    bool has_download;
    bool spare;
};
static_assert(sizeof(bsp_upgrade_msg) == 48);

/* The thread's own. Timestamps in milliseconds since 1970. */
struct bsp_upgrade_record {
    uint64_t last_request_ts;
    int state;
    uint64_t lastFirmwareUpdateTs;
    uint64_t lastStateUpdateTs;
    char version[BSP_VERSION_SIZE];
    char availableUpdates[BSP_VERSION_SIZE];
};

static constexpr bridge_queue_words QUEUE = {
    "/bsp_upgrade_mq",
    "bsp upgrade message queue: %s is already created",
    "failed to create message queue for bsp upgrade: %m",
    "failed to open message queue for bsp upgrade: %m",
    "bsp upgrade mq descriptor: [%d]",
};

static struct {
    converter_ctx *ctx; /* not owned; under the mutex, like the queue and the report */
    std::mutex mutex;
    sem_t thread_done; /* held by the thread for its whole life */
    std::atomic<bool> started;
    bool inited;
    bool restarting; /* set by a stop, cleared by init: a late capabilities
                        message starts nothing */
    mqd_t mq;
    std::atomic<int> state_byte;
    int lock_result;
} module_ctx;

static bool lock_needs_init = true;

/* What the timer sends; static, as a late notification may come after its timer
 * has gone. */
static bsp_upgrade_msg poll_message;

static const char *format_topic(char (&topic)[128], const char *format)
{
    const int n = snprintf(topic, sizeof(topic), format, bridge_config_get_root_checked()->generic.gw_mac);
    BRIDGE_ASSERT_TEXT(n >= 0 && static_cast<size_t>(n) < sizeof(topic),
                       "n >= 0 && (size_t)n < sizeof(topic)");
    return topic;
}

static const char *desired_topic()
{
    static char topic[128]; /* formed once: the subscription reads it for as long as it stands */
    return topic[0] != '\0' ? topic : format_topic(topic, "gateway/mac/%s/firmware/desired");
}

static const char *reported_topic()
{
    static char topic[128];
    return format_topic(topic, "gateway/mac/%s/firmware/reported");
}

static const char *action_name(int32_t action)
{
    static constexpr const char *NAMES[] = {"none", "thread exit", "req received", "poll status"};
    return action >= 0 && action < static_cast<int32_t>(std::size(NAMES)) ? NAMES[action] : "unknown action";
}

static uint64_t bsp_now_ms()
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    return static_cast<uint64_t>(int64_t{now.tv_sec} * MS_PER_S + now.tv_usec / 1000);
}

/* ---- reports ---- */

static void bsp_report(const bsp_upgrade_record *record)
{
    BRIDGE_ASSERT(record);
    const std::lock_guard guard(module_ctx.mutex);
    if (module_ctx.ctx == nullptr) {
        BRIDGE_ERROR("failed to send bsp upgrade response - context is not valid");
        return;
    }
    char report_json[1024];
    const int n =
        snprintf(report_json, sizeof(report_json),
                 "{\"mac\":\"%s\",\"lastStateUpdateTs\":%llu,\"content\":{"
                 "\"version\":\"%s\",\"state\":\"%s\","
                 "\"lastFirmwareUpdateTs\":%llu,\"availableUpdates\": [\"%s\"]}}",
                 bridge_config_get_root_checked()->generic.gw_mac,
                 static_cast<unsigned long long>(record->lastStateUpdateTs), record->version,
                 bsp_state_text(record->state), static_cast<unsigned long long>(record->lastFirmwareUpdateTs),
                 record->availableUpdates);
    BRIDGE_ASSERT_TEXT(n > 0 && static_cast<size_t>(n) < sizeof(report_json),
                       "n > 0 && (size_t)n < sizeof(report_json)");
    const char *topic = reported_topic();
    BRIDGE_DEBUG("publishing message: %s on topic: %s", report_json, topic);
    if (bridge_mqtt_publish(BRIDGE_MQTT_EP_OAM, topic, report_json, static_cast<uint32_t>(n) + 1, true) < 0)
        BRIDGE_ERROR("failed to send bsp upgrade response - MQTT publish failure");
}

static void report_state(bsp_upgrade_record *record, int state)
{
    record->state = state;
    record->lastStateUpdateTs = bsp_now_ms();
    bsp_report(record);
}

static void bsp_refresh_versions(converter_ctx *ctx, bsp_upgrade_record *record)
{
    size_t size = sizeof(record->availableUpdates);
    if (bridge_snmp_get_property_str(ctx, "getAvailableBspUpgrade.0", record->availableUpdates, &size,
                                     AVAILABLE_TIMEOUT_MS) < 0) {
        BRIDGE_WARN("Failed to fetch the available BSP version");
        record->availableUpdates[0] = '\0';
    } else if (bsp_answer_offers_nothing(record->availableUpdates)) {
        strcpy(record->availableUpdates, "None");
    }
    size = sizeof(record->version);
    if (bridge_snmp_get_property_str(ctx, "bspVersion.0", record->version, &size, 0) < 0) {
        BRIDGE_WARN("Failed to fetch the current BSP version");
        record->version[0] = '\0';
    }
}

/* ---- the utility ---- */

/* As bsp_utility_run; a utility that cannot be run is reported. */
static int bsp_utility_call(bsp_upgrade_record *record, const char *arguments,
                            char (&answer)[BSP_ANSWER_SIZE])
{
    if (bsp_utility_run(arguments, answer) == 0)
        return 0;
    record->state = BSP_NOT_REACHABLE;
    bsp_report(record);
    return -1;
}

static bool bsp_utility_failed(bsp_upgrade_record *record, const char *answer)
{
    if (!bsp_answer_is_failure(answer))
        return false;
    report_state(record, BSP_UNEXPECTED_ERROR);
    return true;
}

static void take_status(bsp_upgrade_record *record, const char *answer)
{
    record->state = bsp_parse_status(answer);
    record->lastStateUpdateTs = bsp_now_ms();
    module_ctx.state_byte = record->state;
    BRIDGE_TRACE("Current upgrade state on the gateway: %s", bsp_state_text(record->state));
}

static bool is_under_way(int state)
{
    return state >= BSP_DOWNLOADING && state <= BSP_INSTALLING;
}

/* ---- the timer ---- */

/* Under the mutex. */
static int send_message(const bsp_upgrade_msg &message)
{
    return mq_send(module_ctx.mq, reinterpret_cast<const char *>(&message), sizeof(message), 0);
}

static void on_timer(sigval param)
{
    const auto *message = static_cast<const bsp_upgrade_msg *>(param.sival_ptr);
    BRIDGE_ASSERT_TEXT(message, "param");
    BRIDGE_TRACE("bsp upgrade timer handler");
    const std::lock_guard guard(module_ctx.mutex);
    if (send_message(*message) < 0)
        BRIDGE_WARN("Warning: can't send message to bsp upgrade thread");
}

static void bsp_timer_start(bridge_service_timer *timer, uint64_t milliseconds)
{
    if (timer->start(milliseconds, false) < 0)
        BRIDGE_ERROR("Failed to start bsp upgrade schedule timer (%llu): %m.",
                     static_cast<unsigned long long>(milliseconds));
}

static void bsp_timer_stop(bridge_service_timer *timer)
{
    if (timer->stop() < 0)
        BRIDGE_ERROR("Failed to stop bsp upgrade schedule timer: %m.");
}

/* The next poll comes with the fields of this message. */
static void schedule_poll(bridge_service_timer *timer, const bsp_upgrade_msg &message)
{
    {
        const std::lock_guard guard(module_ctx.mutex);
        poll_message = message;
        poll_message.action = BSP_ACTION_POLL;
    }
    bsp_timer_start(timer, POLL_PERIOD_MS);
}

/* ---- actions ---- */

enum bsp_outcome {
    BSP_WAIT,   /* for the next message */
    BSP_GIVE_UP /* the thread ends */
};

struct bsp_thread {
    converter_ctx *ctx;
    bridge_service_timer timer;
    bsp_upgrade_record record;
};

/* Returns whether the answer can be used; otherwise `outcome` says what
 * follows. */
static bool ask_utility(bsp_thread *self, const char *arguments, const char *not_reached,
                        char (&answer)[BSP_ANSWER_SIZE], bsp_outcome *outcome)
{
    if (bsp_utility_call(&self->record, arguments, answer) < 0) {
        BRIDGE_ERROR("%s", not_reached);
        bsp_timer_stop(&self->timer);
        *outcome = BSP_GIVE_UP;
        return false;
    }
    if (bsp_utility_failed(&self->record, answer)) {
        BRIDGE_ERROR("Upgrade utility met with an error: %s", answer);
        bsp_timer_stop(&self->timer);
        *outcome = BSP_WAIT;
        return false;
    }
    return true;
}

static bsp_outcome schedule_upgrade(bsp_thread *self, const bsp_upgrade_msg &message)
{
    const bsp_schedule schedule = {
        .download_time = message.download_time,
        .download_delay = message.download_delay,
        .update_time = message.update_time,
        .update_delay = message.update_delay,
        .force = message.force,
        .has_download = message.has_download,
    };
    char arguments[236];
    bsp_schedule_arguments(schedule, arguments, sizeof(arguments));
    char answer[BSP_ANSWER_SIZE];
    bsp_outcome outcome = BSP_WAIT;
    if (!ask_utility(self, arguments,
                     "Unable to contact the Upgrade utility to schedule an "
                     "upgrade request",
                     answer, &outcome))
        return outcome;
    if (strstr(answer, "Fail") != nullptr) {
        report_state(&self->record, BSP_NOT_RESCHEDULED);
        return BSP_WAIT;
    }
    report_state(&self->record, BSP_SCHEDULED);
    schedule_poll(&self->timer, message);
    return BSP_WAIT;
}

/* What has been asked for already only the utility knows. */
static bsp_outcome take_request(bsp_thread *self, const bsp_upgrade_msg &message)
{
    char answer[BSP_ANSWER_SIZE];
    bsp_outcome outcome = BSP_WAIT;
    if (!ask_utility(self, "-t", "Unable to contact the Upgrade utility to get the last request time", answer,
                     &outcome))
        return outcome;
    self->record.last_request_ts = bsp_parse_request_time(answer);
    if (message.update_ts <= self->record.last_request_ts) {
        BRIDGE_WARN("Ignored already processed bsp upgrade request (ts: %llu)",
                    static_cast<unsigned long long>(message.update_ts));
        return BSP_WAIT;
    }
    if (!ask_utility(self, "-c", "Unable to contact the Upgrade utility to get the BSP status", answer,
                     &outcome))
        return outcome;
    if (bsp_answer_offers_nothing(answer)) {
        strcpy(self->record.availableUpdates, "None");
        report_state(&self->record, BSP_NOTHING_AVAILABLE);
        return BSP_WAIT;
    }
    bsp_parse_offer(answer, self->record.version, self->record.availableUpdates);
    return schedule_upgrade(self, message);
}

static bsp_outcome poll_status(bsp_thread *self, const bsp_upgrade_msg &message)
{
    char answer[BSP_ANSWER_SIZE];
    if (bsp_utility_call(&self->record, "-s", answer) < 0) {
        BRIDGE_WARN("Not able to fetch the upgrade status, the upgrade utility "
                    "might be busy");
        schedule_poll(&self->timer, message); /* the empty answer stops it again */
    }
    if (bsp_utility_failed(&self->record, answer)) {
        BRIDGE_ERROR("Upgrade utility met with an error: %s", answer);
        bsp_timer_stop(&self->timer);
        return BSP_WAIT;
    }
    take_status(&self->record, answer);
    self->record.lastFirmwareUpdateTs = 0;
    if (is_under_way(self->record.state)) {
        report_state(&self->record, self->record.state);
        schedule_poll(&self->timer, message);
    } else if (self->record.state == BSP_FAILED || self->record.state == BSP_INSTALLED) {
        const uint64_t now = bsp_now_ms();
        if (self->record.state == BSP_INSTALLED)
            self->record.lastFirmwareUpdateTs = now;
        self->record.lastStateUpdateTs = now;
        bsp_refresh_versions(self->ctx, &self->record);
        bsp_report(&self->record);
    }
    return BSP_WAIT;
}

/* ---- the thread ---- */

/* Returns the first action, or -1 when the utility cannot be run. */
static int32_t start_record(bsp_thread *self)
{
    char answer[BSP_ANSWER_SIZE];
    if (bsp_utility_call(&self->record, "-s", answer) < 0) {
        BRIDGE_ERROR("Unable to contact the Upgrade utility during bsp upgrade "
                     "thread startup");
        return -1;
    }
    take_status(&self->record, answer);
    self->record.lastFirmwareUpdateTs = 0;
    self->record.lastStateUpdateTs = bsp_now_ms();
    bsp_refresh_versions(self->ctx, &self->record);
    bsp_report(&self->record);
    return is_under_way(self->record.state) ? BSP_ACTION_POLL : BSP_ACTION_NONE;
}

static bsp_outcome act(bsp_thread *self, const bsp_upgrade_msg &message)
{
    if (message.action == BSP_ACTION_REQUEST)
        return take_request(self, message);
    if (message.action == BSP_ACTION_POLL)
        return poll_status(self, message);
    return BSP_WAIT;
}

/* Until a message or a failure ends it. Returns whether a message did. A signal
 * in the wait runs the last action again.
 */
static bool serve_queue(bsp_thread *self, mqd_t mq)
{
    bsp_upgrade_msg message = {};
    message.action = start_record(self);
    if (message.action < 0)
        return false;
    for (;;) {
        BRIDGE_TRACE("Action: %s", action_name(message.action));
        if (message.action == BSP_ACTION_EXIT)
            return true;
        if (act(self, message) == BSP_GIVE_UP)
            return false;
        BRIDGE_INFO("BSP upgrade thread waiting for the next message");
        const ssize_t size = mq_receive(mq, reinterpret_cast<char *>(&message), sizeof(message), nullptr);
        if (size >= 0) {
            BRIDGE_TRACE("Read %zd bytes from msg queue", size);
        } else if (errno != EINTR) {
            BRIDGE_ERROR("failed to read from the message queue: %m");
            return false;
        }
    }
}

static void give_up(const converter_ctx *ctx)
{
    BRIDGE_ERROR("Exiting bsp upgrade thread");
    const std::lock_guard guard(module_ctx.mutex);
    if (ctx->user_handler != nullptr)
        ctx->user_handler(CODE_THREAD_ENDED, ctx->user_handler_arg);
}

static void run_thread(bsp_thread *self)
{
    if (self->timer.create(on_timer, &poll_message) < 0) {
        BRIDGE_ERROR("Can't create timer for bsp upgrade");
        return;
    }
    const mqd_t mq = mq_open(QUEUE.name, O_RDONLY | O_CLOEXEC);
    if (mq < 0) {
        BRIDGE_ERROR("Can't open message queue for reading for bsp upgrade during "
                     "bsp upgrade thread startup");
        return;
    }
    const bool ended_by_message = serve_queue(self, mq);
    mq_close(mq);
    if (ended_by_message)
        BRIDGE_DEBUG("stopping bsp upgrade thread");
    else
        give_up(self->ctx);
}

static void bsp_upgrade_thread(void *arg)
{
    bridge_sem_wait(&module_ctx.thread_done);
    BRIDGE_DEBUG("starting bsp upgrade thread");
    {
        bsp_thread self = {};
        self.ctx = static_cast<converter_ctx *>(arg);
        run_thread(&self);
    }
    sem_post(&module_ctx.thread_done);
}

/* ---- requests ---- */

struct bsp_times {
    int64_t timestamp;
    int64_t max_random_delay;
};

static int read_times(json_object *object, bsp_times *times)
{
    const bridge_json_field frame[] = {
        field_optional(field_int("timestamp", &times->timestamp)),
        field_optional(field_int("maxRandomDelay", &times->max_random_delay)),
    };
    return cmd_parse(object, frame);
}

static int read_force(json_object *update, bool *force)
{
    const bridge_json_field frame[] = {field_optional(field_bool("force", force))};
    return cmd_parse(update, frame);
}

static uint64_t to_seconds(int64_t milliseconds)
{
    return static_cast<uint64_t>(milliseconds / MS_PER_S);
}

/* Cut to 32 bits before it becomes seconds. */
static uint32_t delay_seconds(int64_t milliseconds)
{
    return static_cast<uint32_t>(milliseconds) / MS_PER_S;
}

/* Returns 0, or -1 after logging. */
static int read_request(json_object *root, bsp_upgrade_msg *message)
{
    int64_t update_ts = 0;
    const bridge_json_field frame[] = {field_int("updateTs", &update_ts)};
    if (cmd_parse(root, frame) < 0) {
        BRIDGE_ERROR("Update ts is missing");
        return -1;
    }
    json_object *update = nullptr;
    if (!json_object_object_get_ex(root, "update", &update) || update == nullptr) {
        BRIDGE_ERROR("No update parameters");
        return -1;
    }
    bsp_times times = {};
    if (read_times(update, &times) < 0 || read_force(update, &message->force) < 0) {
        BRIDGE_ERROR("failed to de-serialize update params");
        return -1;
    }
    bsp_times download_times = {};
    json_object *download = nullptr;
    message->has_download = json_object_object_get_ex(root, "download", &download) && download != nullptr;
    if (message->has_download && read_times(download, &download_times) < 0) {
        BRIDGE_ERROR("failed to de-serialize download params");
        return -1;
    }
    message->action = BSP_ACTION_REQUEST;
    message->update_ts = to_seconds(update_ts);
    message->update_time = to_seconds(times.timestamp);
    message->update_delay = delay_seconds(times.max_random_delay);
    message->download_time = to_seconds(download_times.timestamp);
    message->download_delay = delay_seconds(download_times.max_random_delay);
    return 0;
}

static void queue_request(const char *text)
{
    BRIDGE_DEBUG("Received BSP upgrade request: %s", text);
    const json_owned root(bridge_json_parse(text));
    if (!root) {
        BRIDGE_ERROR("Failed to parse incoming payload for bsp upgrade");
        return;
    }
    bsp_upgrade_msg message = {};
    if (read_request(root.get(), &message) < 0)
        return;
    BRIDGE_TRACE("req update ts: %llu", static_cast<unsigned long long>(message.update_ts));
    const std::lock_guard guard(module_ctx.mutex);
    if (module_ctx.mq < 0)
        BRIDGE_ERROR("Msq not opened for bsp upgrade");
    else if (send_message(message) < 0)
        BRIDGE_WARN("Warning: can't send message to bsp upgrade thread");
}

/* A start under way is waited for: a retained request comes while it still subscribes. */
static bool is_started()
{
    const std::lock_guard guard(module_ctx.mutex);
    return module_ctx.started;
}

static void bsp_upgrade_message_handler(const char *, void *, const uint8_t *payload, uint32_t payload_size)
{
    if (payload == nullptr) {
        BRIDGE_ERROR("payload buffer is NULL");
        return;
    }
    BRIDGE_TRACE("bulk upgrade message received");
    if (payload_size == 0) {
        BRIDGE_ERROR("invalid payload size received");
        return;
    }
    if (!is_started()) {
        BRIDGE_TRACE(
            "Bulk upgrade service is not running -- bridge likely in the middle of a restart, ignoring "
            "the message");
        return;
    }
    const std::unique_ptr<char[]> text(new (std::nothrow) char[size_t{payload_size} + 1]());
    if (!text) {
        BRIDGE_ERROR("failed to allocate memory for payload with size: %zu",
                     static_cast<size_t>(payload_size));
        return;
    }
    memcpy(text.get(), payload, payload_size);
    queue_request(text.get());
}

/* ---- lifecycle ---- */

int bridge_bulk_upgrade_init(converter_ctx *ctx)
{
    BRIDGE_DEBUG("initializing upgrade service");
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
        BRIDGE_ERROR("failed to initialize the upgrade service: %s (%d)\n", strerror(errno), errno);
        return -1;
    }
    const std::lock_guard guard(module_ctx.mutex);
    module_ctx.ctx = ctx;
    module_ctx.inited = true;
    module_ctx.restarting = false;
    module_ctx.mq = -1;
    return 0;
}

/* Under the mutex. */
static int bsp_queue_create()
{
    BRIDGE_DEBUG("creating bsp upgrade msg queue");
    module_ctx.mq = bridge_queue_open(QUEUE, sizeof(bsp_upgrade_msg));
    if (module_ctx.mq >= 0)
        return 0;
    BRIDGE_INFO("Upgrade launcher couldn't be run successfully");
    return -1;
}

/* Under the mutex. A thread that cannot be started leaves the subscription. */
static int start_locked()
{
    if (bsp_queue_create() < 0)
        return -1;
    BRIDGE_DEBUG("bulk upgrade subscription start");
    const char *topic = desired_topic();
    int result = bridge_mqtt_subscribe(BRIDGE_MQTT_EP_OAM, &topic, 1, bsp_upgrade_message_handler, nullptr);
    if (result < 0) {
        BRIDGE_INFO("bulk upgrade subscription failed");
        bridge_queue_remove(QUEUE, &module_ctx.mq);
        return result;
    }
    BRIDGE_INFO("bulk upgrade subscription succeeded");
    result = thpool_add_work(module_ctx.ctx->pool, bsp_upgrade_thread, module_ctx.ctx);
    if (result < 0) {
        BRIDGE_ERROR("failed to start bsp upgrade thread: %d", result);
        bridge_queue_remove(QUEUE, &module_ctx.mq);
        return result;
    }
    module_ctx.started = true;
    return 0;
}

int bridge_bulk_upgrade_start()
{
    const std::lock_guard guard(module_ctx.mutex);
    BRIDGE_DEBUG("starting bulk upgrade service");
    if (module_ctx.restarting) {
        BRIDGE_INFO("Bulk upgrade service is is undergoing a restart, cannot start it now");
        return -1;
    }
    if (module_ctx.started) {
        BRIDGE_DEBUG("bulk upgrade service has already started");
        return 0;
    }
    return start_locked();
}

/* Returns whether the thread has been told to end. */
static bool tell_to_end()
{
    if (module_ctx.mq < 0) {
        BRIDGE_ERROR("Msq not opened for bsp upgrade");
        return false;
    }
    bsp_upgrade_msg message = {};
    message.action = BSP_ACTION_EXIT;
    if (bridge_queue_send_last(QUEUE, module_ctx.mq, &message, sizeof(message)) < 0) {
        BRIDGE_ERROR("Unable to send exit message to the bsp upgrade worker");
        return false;
    }
    return true;
}

/* Without a message to end by, the thread must have ended by itself. */
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
    const char *topic = desired_topic();
    uint32_t count = 1;
    bridge_mqtt_unsubscribe(BRIDGE_MQTT_EP_OAM, &topic, &count);
    sem_post(&module_ctx.thread_done);
    module_ctx.started = false;
    module_ctx.restarting = true;
}

int bridge_bulk_upgrade_stop()
{
    BRIDGE_DEBUG("stopping bulk upgrade service");
    std::unique_lock lock(module_ctx.mutex);
    if (module_ctx.restarting)
        BRIDGE_INFO("bulk upgrade service is already undergoing a restart, cannot "
                    "be stopped now");
    else if (!module_ctx.started)
        BRIDGE_DEBUG("bulk upgrade service already stopped");
    else
        stop_started(&lock);
    return 0;
}

int bridge_bulk_upgrade_deinit()
{
    BRIDGE_DEBUG("deinitializing upgrade service");
    const std::lock_guard guard(module_ctx.mutex);
    BRIDGE_ASSERT(module_ctx.inited);
    BRIDGE_ASSERT(!module_ctx.started);
    module_ctx.inited = false;
    module_ctx.ctx = nullptr;
    return 0;
}
