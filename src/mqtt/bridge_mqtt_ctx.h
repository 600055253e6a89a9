/* What the files of the endpoint manager share: its one context, and the calls between them. */
#ifndef BRIDGE_MQTT_CTX_H
#define BRIDGE_MQTT_CTX_H

#include "mqtt/bridge_mqtt.h"
#include "mqtt/bridge_mqtt_delivery.h"

#include <MQTTClient.h>
#include <array>
#include <atomic>
#include <chrono>
#include <mutex>

static constexpr size_t BRIDGE_MQTT_ENDPOINTS = BRIDGE_MQTT_EP_GEOLOC + 1;
static constexpr size_t BRIDGE_MQTT_MAX_SUBS = 128;

using bridge_mqtt_moment = std::chrono::steady_clock::time_point;

/* What message-arrived has taken last, without its payload. The library takes it off its queue after that has
 * returned, and frees it instead when the session ends just before. */
struct bridge_mqtt_taken {
    char *topic;
    MQTTClient_message *message;
    bridge_mqtt_moment at;
};

/* Endpoints that share one client. */
struct bridge_mqtt_ep_group {
    MQTTClient handle;
    uint32_t ep_bits;                     /* 0 marks a free row */
    std::atomic<uint32_t> connected_bits; /* who uses the connection; stale after a loss */
    const char *uri;
    const char *user;
    const char *pass;
    const char *pkey_path;
    const char *cert_path;
    bool validate_server_cert;
    uint32_t publish_room;         /* publishes that surely fit before the library's limit */
    std::atomic<bool> closing;     /* the client is being ended: its messages reach nobody */
    std::atomic<bool> connecting;  /* the server has not answered yet */
    std::atomic<int> callbacks;    /* message-arrived calls under way */
    std::atomic<uint32_t> session; /* counts the connects: a message of an earlier one is gone */
    /* Held while the library may free a message of this client that it has handed to message-arrived: a
     * failing publish does. */
    std::mutex message_lock;
    bridge_mqtt_taken taken; /* by message-arrived; by others with no callback under way */
    /* When the first call of ours began that found the session at its end, or ended it; the epoch when none
     * did. Under ep_lock. */
    std::atomic<bridge_mqtt_moment> broken_by;
    /* Since when a subscribe or an unsubscribe is inside the library, which frees messages as it begins or
     * when it gives up, and takes too long for the message lock. The epoch when none is. */
    std::atomic<bridge_mqtt_moment> question_since;
};

struct bridge_mqtt_sub {
    const char *topic; /* the subscriber's; null marks a free row */
    bridge_mqtt_handler_t handler;
    void *context;
    uint32_t endpoint;
    bool pending; /* set while its bridge_mqtt_subscribe runs */
};

struct bridge_mqtt_context {
    uint32_t free_subs;
    std::mutex ep_lock;   /* groups and client calls; taken before subs_lock */
    std::mutex subs_lock; /* subs and free_subs; never held across a client call or a handler */
    std::array<bridge_mqtt_ep_group, BRIDGE_MQTT_ENDPOINTS> ep_handles;
    std::array<bridge_mqtt_sub, BRIDGE_MQTT_MAX_SUBS> subs;
    std::atomic<bool> initialized;
    std::atomic<bridge_mqtt_connection_cb_t> connection_cb;

    /* The process ends with the planes still running: from then on their calls fail instead of asserting. */
    std::atomic<bool> torn_down;
    /* Threads that wait for the library's own thread to bring an acknowledgement. */
    std::atomic<uint32_t> acknowledgement_waits;
    /* Odd while the library publishes; ep_lock serialises the calls. */
    std::atomic<uint32_t> publish_calls;
};

extern bridge_mqtt_context mqtt_ctx;

/* To be called behind each connect. Its sockets send at once, as otherwise a small message waits for the
 * server's delayed acknowledgement of the one before: 40 ms for the answer to a command, and for the
 * acknowledgement of a downlink. And no program that the daemon starts inherits them. */
void bridge_mqtt_set_up_sockets();

/* Marks the time of a wait for an acknowledgement: meanwhile message-arrived must not wait. */
class acknowledgement_wait
{
  public:
    acknowledgement_wait()
    {
        mqtt_ctx.acknowledgement_waits++;
    }
    ~acknowledgement_wait()
    {
        mqtt_ctx.acknowledgement_waits--;
    }
    acknowledgement_wait(const acknowledgement_wait &) = delete;
    acknowledgement_wait &operator=(const acknowledgement_wait &) = delete;
};

/* Around each call of the library that ends the session when it cannot send. Under ep_lock. */
class breaking_call
{
  public:
    explicit breaking_call(bridge_mqtt_ep_group *group)
        : group_(group), began_(std::chrono::steady_clock::now())
    {
    }
    ~breaking_call()
    {
        if (group_->broken_by.load() == bridge_mqtt_moment() && !MQTTClient_isConnected(group_->handle))
            group_->broken_by = began_;
    }
    breaking_call(const breaking_call &) = delete;
    breaking_call &operator=(const breaking_call &) = delete;

  private:
    bridge_mqtt_ep_group *group_;
    bridge_mqtt_moment began_;
};

/* Around each subscribe and unsubscribe of the library. Under ep_lock. */
class server_question
{
  public:
    explicit server_question(bridge_mqtt_ep_group *group) : group_(group), breaking_(group)
    {
        group_->question_since = std::chrono::steady_clock::now();
        const std::lock_guard<std::mutex> guard(group_->message_lock); /* who holds it has not seen it */
        group_->question_since = std::chrono::steady_clock::now();
    }
    ~server_question()
    {
        group_->question_since = bridge_mqtt_moment();
    }
    server_question(const server_question &) = delete;
    server_question &operator=(const server_question &) = delete;

  private:
    bridge_mqtt_ep_group *group_;
    breaking_call breaking_;
};

constexpr uint32_t bridge_mqtt_ep_bit(uint32_t endpoint)
{
    return 1U << endpoint;
}

/* False once the manager is torn down; asserts that it was initialised. */
bool bridge_mqtt_is_usable();

/* Under ep_lock. Null, after logging it, when the endpoint is not connected. */
bridge_mqtt_ep_group *bridge_mqtt_find_connected_group(bridge_mqtt_endpoint_t endpoint);

/* Hands a message to every subscriber that is connected through its group. Delivery thread. */
void bridge_mqtt_deliver(const bridge_mqtt_delivery_item *item);

/* Frees the rows of an endpoint, without asking the server. */
void bridge_mqtt_release_subscriptions(bridge_mqtt_endpoint_t endpoint);

#endif
