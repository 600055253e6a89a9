/* One message is worked on at a time: the delivery thread takes the lock and the worker gives it back. */
#include "converter/control/bridge_capabilities.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "common/bridge_sem.h"
#include "converter/control/bridge_bsp_upgrade.h"
#include "converter/control/bridge_configs.h"
#include "converter/control/bridge_ctrl_ctx.h"
#include "converter/control/bridge_performance_management.h"
#include "mqtt/bridge_mqtt.h"
#include "thread_pool/thpool.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <semaphore.h>

static constexpr const char *TOPIC = "api/capabilities";
/* The code by which a server refuses a subscription, should the transport hand it on. */
static constexpr int SUBSCRIPTION_REFUSED = 128;

static struct {
    converter_ctx *ctx; /* not owned */
    std::atomic<bool> started;
    std::atomic<bool> inited;
    bool closed; /* by a stop that has begun; under the lock */
    sem_t lock;
    int lock_result;
    bool bulk_cfg; /* what the last message listed */
    bool bulk_upgr;
    bool performance_management;
} module_ctx;

static bool lock_needs_init = true;

struct capability_row {
    const char *name;
    bool *flag;
    int (*start)();
    const char *failure;
};

/* In the order of starting. */
/* clang-format off */
static const capability_row CAPABILITIES[] = {
    {"bulk_cfg",               &module_ctx.bulk_cfg,               bridge_bulk_configs_start,           "failed to start the bulk configuration service"},
    {"bulk_upgr",              &module_ctx.bulk_upgr,              bridge_bulk_upgrade_start,           "failed to start the bulk upgrade service"},
    {"performance_management", &module_ctx.performance_management, bridge_performance_management_start, "failed to start the performance management service"},
};
/* clang-format on */

struct capabilities_data {
    char *payload; /* owned, terminated */
};

static void free_data(capabilities_data *data)
{
    free(data->payload);
    delete data;
}

using data_owned = std::unique_ptr<capabilities_data, bridge_release<free_data>>;

/* ---- a message ---- */

static void clear_flags()
{
    for (const capability_row &row : CAPABILITIES)
        *row.flag = false;
}

static void note_capability(const char *name)
{
    BRIDGE_TRACE("found capability: %s", name);
    for (const capability_row &row : CAPABILITIES) {
        if (strcasecmp(row.name, name) != 0)
            continue;
        BRIDGE_TRACE("enabling capability: %s", name);
        *row.flag = true;
    }
}

static void start_services()
{
    for (const capability_row &row : CAPABILITIES) {
        if (!*row.flag || row.start() >= 0)
            continue;
        const converter_ctx *ctx = module_ctx.ctx;
        if (ctx == nullptr || ctx->user_handler == nullptr)
            continue;
        BRIDGE_ERROR("%s", row.failure);
        ctx->user_handler(1, ctx->user_handler_arg);
    }
}

static void process_payload(const char *payload)
{
    const json_owned parsed(bridge_json_parse(payload));
    if (!parsed) {
        BRIDGE_ERROR("failed to parse incoming configuration");
        return;
    }
    json_object *capabilities = nullptr;
    if (!json_object_object_get_ex(parsed.get(), "capabilities", &capabilities)) {
        BRIDGE_ERROR("failed to extract capabilities array from payload");
        return;
    }
    if (!json_object_is_type(capabilities, json_type_array)) {
        BRIDGE_ERROR("invalid payload format");
        return;
    }
    clear_flags();
    for (size_t i = 0; i < json_object_array_length(capabilities); i++) {
        json_object *element = json_object_array_get_idx(capabilities, i);
        if (element == nullptr)
            break;
        note_capability(json_object_get_string(element));
    }
    start_services();
}

static void capabilities_worker(void *arg)
{
    BRIDGE_TRACE("capabilities subscription worker starting");
    BRIDGE_ASSERT_TEXT(arg != nullptr, "arg != NULL");
    const data_owned data(static_cast<capabilities_data *>(arg));
    BRIDGE_ASSERT(data->payload);
    process_payload(data->payload);
    BRIDGE_TRACE("capabilities subscription worker completed");
    sem_post(&module_ctx.lock);
}

/* Returns true when the worker has taken over the message, and with it the lock. */
static bool launch_worker(data_owned data, const uint8_t *payload, uint32_t payload_size)
{
    data->payload = static_cast<char *>(calloc(static_cast<size_t>(payload_size) + 1, 1));
    if (data->payload == nullptr) {
        BRIDGE_ERROR("failed to allocate memory for payload with size: %zu",
                     static_cast<size_t>(payload_size));
        return false;
    }
    memcpy(data->payload, payload, payload_size);
    if (!module_ctx.started || module_ctx.closed) {
        BRIDGE_TRACE(
            "Capabilities service is not running -- bridge likely in the middle of a restart, ignoring "
            "the message");
        return false;
    }
    if (thpool_add_work(module_ctx.ctx->pool, capabilities_worker, data.get()) < 0) {
        BRIDGE_ERROR("failed to launch worker thread");
        return false;
    }
    (void)data.release();
    return true;
}

static void capabilities_message_handler(const char *, void *, const uint8_t *payload, uint32_t payload_size)
{
    BRIDGE_ASSERT_TEXT(payload != nullptr, "payload != NULL");
    BRIDGE_TRACE("capabilities message received");
    if (payload_size == 0) {
        BRIDGE_ERROR("invalid payload size received");
        return;
    }
    data_owned data(new (std::nothrow) capabilities_data{});
    if (!data) {
        BRIDGE_ERROR("failed to allocate worker data");
        return;
    }
    bridge_sem_wait(&module_ctx.lock);
    if (!launch_worker(std::move(data), payload, payload_size))
        sem_post(&module_ctx.lock);
}

/* ---- lifecycle ---- */

int bridge_capabilities_init(converter_ctx *ctx)
{
    BRIDGE_DEBUG("initializing capabilities service");
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
        BRIDGE_ERROR("failed to initialize the capabilities service: %s (%d)\n", strerror(errno), errno);
        return -1;
    }
    module_ctx.ctx = ctx;
    module_ctx.inited = true;
    return 0;
}

static int subscribe()
{
    const int result =
        bridge_mqtt_subscribe(BRIDGE_MQTT_EP_OAM, &TOPIC, 1, capabilities_message_handler, nullptr);
    if (result < 0) {
        BRIDGE_INFO("capabilities subscription failed");
        return result;
    }
    module_ctx.started = true;
    module_ctx.closed = false;
    if (result != SUBSCRIPTION_REFUSED)
        return result;
    BRIDGE_WARN("OA&M server doesn't support capabilities API");
    clear_flags();
    return 0;
}

static int start_locked()
{
    if (!module_ctx.inited) {
        BRIDGE_INFO(
            "capabilities service is de-initialized already (undergoing a restart), cannot start it now");
        return -1;
    }
    if (module_ctx.started) {
        BRIDGE_DEBUG("capabilities service has already started");
        return 0;
    }
    return subscribe();
}

int bridge_capabilities_start()
{
    BRIDGE_DEBUG("starting capabilities service");
    if (module_ctx.started) {
        BRIDGE_DEBUG("capabilities service already started");
        return 0;
    }
    bridge_sem_wait(&module_ctx.lock);
    const int result = start_locked();
    sem_post(&module_ctx.lock);
    return result;
}

static void stop_locked()
{
    if (!module_ctx.inited) {
        BRIDGE_INFO("capabilities service is already de-initialized (a restart is in progress), cannot be "
                    "stopped now");
        return;
    }
    if (!module_ctx.started) {
        BRIDGE_DEBUG("capabilities service already stopped");
        return;
    }
    uint32_t count = 1;
    bridge_mqtt_unsubscribe(BRIDGE_MQTT_EP_OAM, &TOPIC, &count);
    module_ctx.started = false;
}

void bridge_capabilities_close()
{
    bridge_sem_wait(&module_ctx.lock);
    module_ctx.closed = true;
    sem_post(&module_ctx.lock);
}

int bridge_capabilities_stop()
{
    BRIDGE_DEBUG("stopping capabilities service");
    bridge_sem_wait(&module_ctx.lock);
    stop_locked();
    sem_post(&module_ctx.lock);
    return 0;
}

void bridge_capabilities_deinit()
{
    BRIDGE_DEBUG("de-initializing capabilities service");
    BRIDGE_ASSERT(module_ctx.inited);
    BRIDGE_ASSERT(!module_ctx.started);
    module_ctx.inited = false;
    module_ctx.ctx = nullptr;
}
