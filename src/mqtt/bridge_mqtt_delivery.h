/* The delivery thread between the MQTT library and the handlers: messages wait in a bounded queue and are
 * handed on one at a time, in order of arrival. The library's single thread serves every client, so it must
 * never wait for a handler. */
#ifndef BRIDGE_MQTT_DELIVERY_H
#define BRIDGE_MQTT_DELIVERY_H

#include <cstddef>
#include <cstdint>

struct bridge_mqtt_ep_group;

struct bridge_mqtt_delivery_item {
    bridge_mqtt_delivery_item *next;
    bridge_mqtt_ep_group *group;
    uint32_t endpoints; /* bits of those that were connected at its arrival and have not disconnected since */
    char *topic;        /* owned, terminated */
    uint8_t *payload;   /* owned, not terminated */
    uint32_t payload_size;
};

/* The queue is full at either limit of one row. A queue that is not takes a message of any size. */
enum bridge_mqtt_delivery_limit {
    DELIVERY_LIMIT,
    DELIVERY_LIMIT_AWAITED, /* while a thread waits for an acknowledgement, which may stand behind messages */
};

struct bridge_mqtt_delivery_room {
    size_t items;
    size_t bytes;
};

static constexpr bridge_mqtt_delivery_room BRIDGE_DELIVERY_ROOM[] = {
    {128, 4UL * 1024 * 1024},
    {16384, 16UL * 1024 * 1024},
};

/* Starts the thread, which calls `deliver` for each message. Returns 0 or -1. */
int bridge_mqtt_delivery_start(void (*deliver)(const bridge_mqtt_delivery_item *item));

/* Drops what is queued and ends the thread. Returns 0, or -1 when a handler keeps it for more than 2 seconds:
 * the thread is then left behind. */
int bridge_mqtt_delivery_stop();

/* Allocates an item for a topic and a payload of `payload_size` bytes, or null after logging why. */
bridge_mqtt_delivery_item *bridge_mqtt_delivery_item_new(const char *topic, const void *payload,
                                                         uint32_t payload_size);

bool bridge_mqtt_delivery_is_full(bridge_mqtt_delivery_limit limit);

/* Takes over the item, for those endpoints of its group that are connected, at whatever length of the queue:
 * waiting for room is the caller's. */
void bridge_mqtt_delivery_push(bridge_mqtt_delivery_item *item);

/* To be called behind the disconnect of an endpoint. Takes its bit from the queued messages of a group: they
 * are not for whoever connects as it next. A handler that runs already is not waited for. */
void bridge_mqtt_delivery_forget(const bridge_mqtt_ep_group *group, uint32_t endpoint_bits);

#endif
