/* One message is worked on at a time: the delivery thread takes the lock and
 * the worker gives it back. */
#include "converter/control/bridge_configs.h"

#include "common/bridge_config.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "common/bridge_sem.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_configs_gw.h"
#include "converter/control/bridge_configs_script.h"
#include "converter/control/bridge_ctrl_ctx.h"
#include "mqtt/bridge_mqtt.h"
#include "thread_pool/thpool.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <unistd.h>

static constexpr const char *COMMIT_SCRIPT = "/usr/sbin/mqtt/commit-cfg.sh";
static constexpr const char *TIMESTAMP_FILE = "config_update_timestamp";
static constexpr mode_t TIMESTAMP_MODE = 0660;
static constexpr int COMMIT_ROUNDS = 5;
static constexpr int32_t CODE_RESTART = 1;
static constexpr const char *CONTENT = "content";

/* What a read leaves in place is told from what it brings by a value that no
 * server should use: one that did would find its gateway deaf from then on. */
static constexpr int64_t UNREAD_TIMESTAMP = 999;

/* For programs of the gateway: the daemon itself neither makes nor tests the
 * file. */
extern const char *const sgb_restart_required_file;
const char *const sgb_restart_required_file = "/var/run/restart-sgb.flag";

static struct {
    std::atomic<converter_ctx *> ctx; /* not owned */
    std::atomic<bool> started;
    std::atomic<bool> inited;
    std::atomic<bool> restarting; /* set by a stop, cleared by init: a late
                                     capabilities message starts nothing */
    sem_t lock;
    int lock_result;
} module_ctx;

static bool lock_needs_init = true;

struct config_data {
    char *payload; /* owned, terminated */
};

static void free_data(config_data *data)
{
    free(data->payload);
    delete data;
}

using data_owned = std::unique_ptr<config_data, bridge_release<free_data>>;

/* ---- topics and publishing ---- */

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
    return topic[0] != '\0' ? topic : format_topic(topic, "gateway/mac/%s/configuration/desired");
}

static const char *reported_topic()
{
    static char topic[128];
    return format_topic(topic, "gateway/mac/%s/configuration/reported");
}

static void ask_for_restart()
{
    const converter_ctx *ctx = module_ctx.ctx;
    if (ctx != nullptr && ctx->user_handler != nullptr)
        ctx->user_handler(CODE_RESTART, ctx->user_handler_arg);
}

/* The terminator travels with the text. */
static int publish(const char *topic, const char *text, bool retained)
{
    return bridge_mqtt_publish(BRIDGE_MQTT_EP_OAM, topic, text, static_cast<uint32_t>(strlen(text)) + 1,
                               retained);
}

/* ---- timestamp ---- */

static const char *config_timestamp_path()
{
    static char path[4096];
    const char *directory = bridge_config_get_root_checked()->generic.state_dir;
    const int length = snprintf(path, sizeof(path), "%s/%s", directory, TIMESTAMP_FILE);
    if (length < 0 || static_cast<size_t>(length) >= sizeof(path)) {
        BRIDGE_ERROR("failed to form a path for config api timestamp file: %s", TIMESTAMP_FILE);
        return nullptr;
    }
    return path;
}

/* Waits for the lock. Returns 0 or -5 after logging. */
static int lock_file(int fd)
{
    if (lockf(fd, F_LOCK, 0) == 0)
        return 0;
    BRIDGE_ERROR("failed to get a lock: %m");
    return -EIO;
}

static int config_timestamp_read(int64_t *update_timestamp)
{
    BRIDGE_ASSERT(update_timestamp);
    const char *path = config_timestamp_path();
    if (path == nullptr)
        return -EIO;
    if (access(path, R_OK) < 0) {
        BRIDGE_WARN("config timestamp file (%s) does not exist, first request", path);
        *update_timestamp = 0;
        return 0;
    }
    const bridge_fd fd(open(path, O_RDWR | O_CLOEXEC));
    if (fd.get() < 0) {
        BRIDGE_ERROR("Failed to open config timestamp file (%s) for reading, error: %m", path);
        return -EIO;
    }
    if (lock_file(fd.get()) < 0)
        return -EIO;
    int64_t stored = 0;
    if (read(fd.get(), &stored, sizeof(stored)) != static_cast<ssize_t>(sizeof(stored))) {
        BRIDGE_ERROR("failed to read config timestamp");
        return -EIO;
    }
    *update_timestamp = stored;
    return 0;
}

static int config_timestamp_write(const int64_t *update_timestamp)
{
    BRIDGE_ASSERT(update_timestamp);
    const char *path = config_timestamp_path();
    if (path == nullptr)
        return -EIO;
    const bridge_fd fd(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, TIMESTAMP_MODE));
    if (fd.get() < 0) {
        BRIDGE_ERROR("Failed to open config timestamp file (%s) for writing, error: %m", path);
        return -EIO;
    }
    static_assert(sizeof(*update_timestamp) == 8);
    const bool locked = lock_file(fd.get()) == 0;
    const bool written = locked && write(fd.get(), update_timestamp, sizeof(*update_timestamp)) ==
                                       static_cast<ssize_t>(sizeof(*update_timestamp));
    if (!written) {
        if (locked)
            BRIDGE_ERROR("failed to write config timestamp");
        unlink(path); /* a short file would refuse every later document, also once there is room again */
        return -EIO;
    }
    fsync(fd.get());
    return 0;
}

/* ---- report at the start ---- */

static int report_current_config()
{
    BRIDGE_TRACE("reporting current configuration");
    const json_owned root(json_object_new_object());
    if (!root) {
        BRIDGE_ERROR("cannot allocate root json object");
        return 0;
    }
    json_object *content = json_object_new_object();
    if (content == nullptr) {
        BRIDGE_ERROR("cannot allocate content object");
        return 0;
    }
    if (cfg_add(root.get(), CONTENT, content, "cannot add content object to root JSON") < 0)
        return 0;
    (void)bridge_configs_gw_read(module_ctx.ctx, content);
    const char *text = json_object_get_string(root.get());
    const char *topic = reported_topic();
    BRIDGE_DEBUG("publishing configuration to the topic: %s. config: %s", topic, text);
    const int result = publish(topic, text, false);
    if (result != 0) {
        BRIDGE_ERROR("failed to publish configuration");
        ask_for_restart();
    } else {
        BRIDGE_INFO("successfully sent configuration to OA&M");
    }
    return result;
}

/* ---- a desired configuration ---- */

struct desired_config {
    json_object *request;
    json_object *response_content;
    int64_t timestamp;
};

/* Returns 0 when a response is to follow, or -1. Its lines are errors so that
 * they show at every log level.
 */
static int judge_and_apply(converter_ctx *ctx, const desired_config &desired, json_object *content)
{
    int64_t stored = UNREAD_TIMESTAMP;
    if (config_timestamp_read(&stored) < 0 || stored == UNREAD_TIMESTAMP) {
        BRIDGE_ERROR("config timestamp couldn't be read");
        return -1;
    }
    if (stored == 0 || stored < desired.timestamp) {
        BRIDGE_ERROR("New config request from the server");
        (void)bridge_configs_gw_write(ctx, content, desired.response_content);
    } else if (stored == desired.timestamp) {
        BRIDGE_ERROR("Repeat Config request from the server -- update server with "
                     "the current configuration");
        (void)bridge_configs_gw_read(ctx, desired.response_content);
    } else {
        BRIDGE_ERROR("old config request from the server -- likely a server issue");
        return -1;
    }
    if (config_timestamp_write(&desired.timestamp) < 0)
        BRIDGE_ERROR("config timestamp couldn't be written!!");
    return 0;
}

static void commit()
{
    (void)cfg_run_script(COMMIT_SCRIPT, {}, COMMIT_ROUNDS, false);
}

static void respond(json_object *response)
{
    const char *topic = reported_topic();
    const char *text = json_object_to_json_string_ext(response, JSON_C_TO_STRING_PLAIN);
    BRIDGE_DEBUG("publishing configuration to topic: %s config: %s", topic, text);
    if (publish(topic, text, true) != 0) {
        BRIDGE_ERROR("failed to publish response");
        ask_for_restart();
        return;
    }
    commit();
}

/* A section that fails does not hold the timestamp back: the response tells of
 * it, and a repeat is only answered. */
static void apply(json_object *request, json_object *response, json_object *response_content)
{
    desired_config desired = {.request = request, .response_content = response_content, .timestamp = 0};
    const bridge_json_field frame[] = {field_int("timestamp", &desired.timestamp)};
    if (cmd_parse(request, frame) < 0) {
        BRIDGE_ERROR("failed to de-serialize configuration params");
        return;
    }
    BRIDGE_INFO("Config request timestamp: %lld", static_cast<long long>(desired.timestamp));
    json_object *content = nullptr;
    if (!json_object_object_get_ex(request, CONTENT, &content) || content == nullptr) {
        BRIDGE_ERROR("content is missing, no configuration should be applied");
        return;
    }
    converter_ctx *ctx = module_ctx.ctx;
    if (ctx != nullptr && judge_and_apply(ctx, desired, content) < 0)
        return;
    respond(response);
}

static void work_on(const char *payload)
{
    const json_owned request(bridge_json_parse(payload));
    BRIDGE_TRACE("received a configuration: %s", payload);
    if (!request) {
        BRIDGE_ERROR("failed to parse incoming configuration");
        return;
    }
    const json_owned response(json_object_new_object());
    if (!response) {
        BRIDGE_ERROR("cannot allocate response object");
        return;
    }
    json_object *content = json_object_new_object();
    if (content == nullptr) {
        BRIDGE_ERROR("failed to allocate response conent object");
        return;
    }
    if (cfg_add(response.get(), CONTENT, content, "failed to add JSON content to response: out of memory") <
        0)
        return;
    apply(request.get(), response.get(), content);
}

static void bulk_config_worker(void *arg)
{
    BRIDGE_TRACE("bulk config subscription worker starting");
    BRIDGE_ASSERT_TEXT(arg != nullptr, "arg != NULL");
    const data_owned data(static_cast<config_data *>(arg));
    BRIDGE_ASSERT(data->payload);
    work_on(data->payload);
    sem_post(&module_ctx.lock);
    BRIDGE_TRACE("bulk config subscription worker completed");
}

/* With the lock held. Returns whether the worker has it now. */
static bool launch_worker(data_owned data, const uint8_t *payload, uint32_t payload_size)
{
    data->payload = static_cast<char *>(calloc(size_t{payload_size} + 1, 1));
    if (data->payload == nullptr) {
        BRIDGE_ERROR("failed to allocate memory for payload with size: %zu",
                     static_cast<size_t>(payload_size));
        return false;
    }
    memcpy(data->payload, payload, payload_size);
    if (!module_ctx.started) {
        BRIDGE_TRACE("Bulk configuration service is not running -- bridge likely "
                     "in the middle of a restart, "
                     "ignoring the message");
        return false;
    }
    const converter_ctx *ctx = module_ctx.ctx;
    if (ctx == nullptr || thpool_add_work(ctx->pool, bulk_config_worker, data.get()) < 0) {
        BRIDGE_ERROR("failed to launch worker thread");
        return false;
    }
    (void)data.release();
    return true;
}

static void bulk_config_message_handler(const char *, void *, const uint8_t *payload, uint32_t payload_size)
{
    BRIDGE_ASSERT_TEXT(payload != nullptr, "payload != NULL");
    BRIDGE_TRACE("bulk config message received");
    if (payload_size == 0) {
        BRIDGE_ERROR("invalid payload size received");
        return;
    }
    data_owned data(new (std::nothrow) config_data{});
    if (!data) {
        BRIDGE_ERROR("failed to allocate worker data");
        return;
    }
    bridge_sem_wait(&module_ctx.lock);
    if (!launch_worker(std::move(data), payload, payload_size))
        sem_post(&module_ctx.lock);
}

/* ---- lifecycle ---- */

int bridge_bulk_configs_init(converter_ctx *ctx)
{
    BRIDGE_DEBUG("initializing bulk configuration service");
    BRIDGE_ASSERT(!module_ctx.inited);
    BRIDGE_ASSERT(!module_ctx.started);
    int value = 0;
    if (lock_needs_init) {
        module_ctx.lock_result = sem_init(&module_ctx.lock, 0, 1);
        lock_needs_init = false;
    } else {
        module_ctx.lock_result = sem_getvalue(&module_ctx.lock, &value);
    }
    if (module_ctx.lock_result < 0) {
        BRIDGE_ERROR("failed to initialize the bulk configuration service: %s (%d)\n", strerror(errno),
                     errno);
        return -1;
    }
    module_ctx.ctx = ctx;
    module_ctx.inited = true;
    module_ctx.restarting = false;
    return 0;
}

static int subscribe()
{
    BRIDGE_DEBUG("bulk configuration subscription start");
    const char *topic = desired_topic();
    const int result =
        bridge_mqtt_subscribe(BRIDGE_MQTT_EP_OAM, &topic, 1, bulk_config_message_handler, nullptr);
    if (result < 0) {
        BRIDGE_INFO("bulk configuration subscription failed");
        return result;
    }
    BRIDGE_INFO("bulk configuration subscription succeeded");
    module_ctx.started = true;
    return result;
}

static int start_locked()
{
    if (module_ctx.restarting) {
        BRIDGE_INFO("bulk configuration service is undergoing a restart, cannot "
                    "start it now");
        return -1;
    }
    if (module_ctx.started) {
        BRIDGE_DEBUG("bulk configuration service has already started");
        return 0;
    }
    const int result = report_current_config();
    BRIDGE_DEBUG("report current config done");
    return result < 0 ? result : subscribe();
}

int bridge_bulk_configs_start()
{
    BRIDGE_DEBUG("starting bulk configuration service");
    bridge_sem_wait(&module_ctx.lock);
    const int result = start_locked();
    sem_post(&module_ctx.lock);
    return result;
}

static void stop_locked()
{
    if (module_ctx.restarting) {
        BRIDGE_INFO("bulk configuration service is already undergoing a restart, "
                    "cannot be stopped now");
        return;
    }
    if (!module_ctx.started) {
        BRIDGE_DEBUG("bulk configuration service already stopped");
        return;
    }
    const char *topic = desired_topic();
    uint32_t count = 1;
    bridge_mqtt_unsubscribe(BRIDGE_MQTT_EP_OAM, &topic, &count);
    module_ctx.started = false;
    module_ctx.restarting = true;
}

int bridge_bulk_configs_stop()
{
    BRIDGE_DEBUG("stopping the bulk configuration service");
    bridge_sem_wait(&module_ctx.lock);
    stop_locked();
    sem_post(&module_ctx.lock);
    return 0;
}

int bridge_bulk_configs_deinit()
{
    BRIDGE_DEBUG("de-initializing bulk configuration service");
    BRIDGE_ASSERT(module_ctx.inited);
    BRIDGE_ASSERT(!module_ctx.started);
    module_ctx.inited = false;
    module_ctx.ctx = nullptr;
    return 0;
}
