/* A linked list under one lock, and the thread that empties it. */
#include "mqtt/bridge_mqtt_delivery.h"

#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "common/bridge_wait.h"
#include "mqtt/bridge_mqtt_ctx.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <pthread.h>
#include <sys/prctl.h>

static constexpr uint32_t STOP_POLL_MS = 5;
static constexpr uint32_t STOP_LIMIT_MS = 2000;

/* Plain pthread objects: nothing of the delivery may run or join at process exit. */
static struct {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t wake = PTHREAD_COND_INITIALIZER;
    bridge_mqtt_delivery_item *front;
    bridge_mqtt_delivery_item *rear;
    size_t items;
    size_t bytes;
    bool stop;
    bool ended;
    pthread_t thread;
    void (*deliver)(const bridge_mqtt_delivery_item *item);
} queue;

class queue_guard
{
  public:
    queue_guard()
    {
        pthread_mutex_lock(&queue.lock);
    }
    ~queue_guard()
    {
        pthread_mutex_unlock(&queue.lock);
    }
    queue_guard(const queue_guard &) = delete;
    queue_guard &operator=(const queue_guard &) = delete;
};

static void free_item(bridge_mqtt_delivery_item *item)
{
    free(item->topic);
    free(item->payload);
    delete item;
}

using item_owned = std::unique_ptr<bridge_mqtt_delivery_item, bridge_release<free_item>>;

static void unlink_item(bridge_mqtt_delivery_item *before, bridge_mqtt_delivery_item *item)
{
    (before != nullptr ? before->next : queue.front) = item->next;
    if (queue.rear == item)
        queue.rear = before;
    queue.items--;
    queue.bytes -= item->payload_size;
}

static void drop_items()
{
    while (queue.front != nullptr) {
        bridge_mqtt_delivery_item *item = queue.front;
        unlink_item(nullptr, item);
        free_item(item);
    }
}

/* Null when the thread is to end. */
static item_owned wait_for_item()
{
    const queue_guard guard;
    while (queue.front == nullptr && !queue.stop)
        pthread_cond_wait(&queue.wake, &queue.lock);
    if (queue.stop) {
        queue.ended = true;
        return nullptr;
    }
    bridge_mqtt_delivery_item *item = queue.front;
    unlink_item(nullptr, item);
    return item_owned(item);
}

static void *delivery_thread(void *)
{
    prctl(PR_SET_NAME, "mqtt-delivery");
    while (const item_owned item = wait_for_item())
        queue.deliver(item.get());
    return nullptr;
}

int bridge_mqtt_delivery_start(void (*deliver)(const bridge_mqtt_delivery_item *item))
{
    queue.deliver = deliver;
    queue.stop = false;
    queue.ended = false;
    const int result = pthread_create(&queue.thread, nullptr, delivery_thread, nullptr);
    if (result != 0) {
        BRIDGE_ERROR("failed to create MQTT delivery thread: %s", strerror(result));
        return -1;
    }
    return 0;
}

static bool has_ended()
{
    const queue_guard guard;
    return queue.ended;
}

int bridge_mqtt_delivery_stop()
{
    {
        const queue_guard guard;
        drop_items();
        queue.stop = true;
        pthread_cond_signal(&queue.wake);
    }
    for (uint32_t waited = 0; waited < STOP_LIMIT_MS && !has_ended(); waited += STOP_POLL_MS)
        bridge_wait_ms(STOP_POLL_MS);
    if (!has_ended()) {
        BRIDGE_WARN("MQTT delivery thread is held by a handler and left behind");
        pthread_detach(queue.thread);
        return -1;
    }
    pthread_join(queue.thread, nullptr);
    return 0;
}

bridge_mqtt_delivery_item *bridge_mqtt_delivery_item_new(const char *topic, const void *payload,
                                                         uint32_t payload_size)
{
    /* One byte more, so that an empty payload is no null pointer. */
    item_owned item(new (std::nothrow) bridge_mqtt_delivery_item{});
    if (item)
        item->payload = static_cast<uint8_t *>(malloc(static_cast<size_t>(payload_size) + 1));
    if (!item || item->payload == nullptr) {
        BRIDGE_ERROR("failed to allocate memory for MQTT message");
        return nullptr;
    }
    item->topic = strdup(topic);
    if (item->topic == nullptr) {
        BRIDGE_ERROR("failed to allocate memory for MQTT topic");
        return nullptr;
    }
    if (payload_size > 0)
        memcpy(item->payload, payload, payload_size);
    item->payload_size = payload_size;
    return item.release();
}

bool bridge_mqtt_delivery_is_full(bridge_mqtt_delivery_limit limit)
{
    const queue_guard guard;
    const bridge_mqtt_delivery_room &room = BRIDGE_DELIVERY_ROOM[limit];
    return queue.items >= room.items || queue.bytes >= room.bytes;
}

void bridge_mqtt_delivery_push(bridge_mqtt_delivery_item *item)
{
    const queue_guard guard; /* a bit that goes after this is taken from the item, too */
    item->endpoints = item->group->connected_bits;
    item->next = nullptr;
    (queue.rear != nullptr ? queue.rear->next : queue.front) = item;
    queue.rear = item;
    queue.items++;
    queue.bytes += item->payload_size;
    pthread_cond_signal(&queue.wake);
}

void bridge_mqtt_delivery_forget(const bridge_mqtt_ep_group *group, uint32_t endpoint_bits)
{
    const queue_guard guard;
    bridge_mqtt_delivery_item *before = nullptr;
    bridge_mqtt_delivery_item *item = queue.front;
    while (item != nullptr) {
        bridge_mqtt_delivery_item *next = item->next;
        const bool affected = item->group == group && (item->endpoints & endpoint_bits) != 0;
        if (affected)
            item->endpoints &= ~endpoint_bits;
        if (affected && item->endpoints == 0) {
            unlink_item(before, item);
            free_item(item);
        } else {
            before = item;
        }
        item = next;
    }
}
