/* The table of subscriptions: who gets which message. */
#include "mqtt/bridge_mqtt_ctx.h"

#include "common/bridge_log.h"

#include <cstring>
#include <span>

static constexpr int SUBSCRIBE_QOS = 2;

/* While a handler runs the table may change; the walk goes on with the rows as they stand.
 */
void bridge_mqtt_deliver(const bridge_mqtt_delivery_item *item)
{
    const uint32_t mask = item->endpoints & item->group->connected_bits;
    bool matched = false;
    std::unique_lock<std::mutex> guard(mqtt_ctx.subs_lock);
    for (size_t i = 0; i < mqtt_ctx.subs.size(); i++) {
        const bridge_mqtt_sub sub = mqtt_ctx.subs[i];
        if (sub.topic == nullptr)
            continue;
        BRIDGE_ASSERT_TEXT(sub.handler, "mqtt_ctx.subs[i].handler");
        if ((mask & bridge_mqtt_ep_bit(sub.endpoint)) == 0 || strcasecmp(sub.topic, item->topic) != 0)
            continue;
        matched = true;
        guard.unlock();
        sub.handler(item->topic, sub.context, item->payload, item->payload_size);
        guard.lock();
    }
    guard.unlock();
    if (!matched)
        BRIDGE_WARN("no handler found for topic: %s and endpoint mask: [%#x]", item->topic, mask);
}

void bridge_mqtt_release_subscriptions(bridge_mqtt_endpoint_t endpoint)
{
    const std::lock_guard<std::mutex> guard(mqtt_ctx.subs_lock);
    for (bridge_mqtt_sub &sub : mqtt_ctx.subs) {
        if (sub.topic == nullptr || sub.endpoint != endpoint)
            continue;
        sub = {};
        mqtt_ctx.free_subs++;
    }
}

static void fill_subscriptions(bridge_mqtt_endpoint_t endpoint, std::span<const char *const> topics,
                               bridge_mqtt_handler_t handler, void *context)
{
    const std::lock_guard<std::mutex> guard(mqtt_ctx.subs_lock);
    size_t next = 0;
    for (bridge_mqtt_sub &sub : mqtt_ctx.subs) {
        if (next == topics.size())
            return;
        if (sub.topic != nullptr)
            continue;
        sub = {topics[next++], handler, context, endpoint, true};
        mqtt_ctx.free_subs--;
    }
}

static void settle_pending_subscriptions(bool keep)
{
    const std::lock_guard<std::mutex> guard(mqtt_ctx.subs_lock);
    for (bridge_mqtt_sub &sub : mqtt_ctx.subs) {
        if (!sub.pending)
            continue;
        if (keep) {
            sub.pending = false;
        } else {
            sub = {};
            mqtt_ctx.free_subs++;
        }
    }
}

static int ask_to_subscribe(bridge_mqtt_ep_group *group, const char *topic)
{
    const server_question question(group);
    return MQTTClient_subscribe(group->handle, topic, SUBSCRIBE_QOS);
}

static int ask_to_unsubscribe(bridge_mqtt_ep_group *group, const char *topic)
{
    const server_question question(group);
    return MQTTClient_unsubscribe(group->handle, topic);
}

static int subscribe_at_server(bridge_mqtt_ep_group *group, std::span<const char *const> topics)
{
    for (size_t i = 0; i < topics.size(); i++) {
        BRIDGE_TRACE("subscribing for [%s] topic", topics[i]);
        const int result = ask_to_subscribe(group, topics[i]);
        if (result == 0) {
            BRIDGE_TRACE("subscribing for [%s] topic complete", topics[i]);
            continue;
        }
        BRIDGE_ERROR("failed to subscribe for topic: %s with error: [%d]", topics[i], result);
        for (const char *topic : topics.first(i))
            ask_to_unsubscribe(group, topic);
        return -1;
    }
    return 0;
}

static uint32_t count_free_subscriptions()
{
    const std::lock_guard<std::mutex> guard(mqtt_ctx.subs_lock);
    return mqtt_ctx.free_subs;
}

int bridge_mqtt_subscribe(bridge_mqtt_endpoint_t endpoint, const char *const *topics, size_t topics_size,
                          bridge_mqtt_handler_t handler, void *context)
{
    if (!bridge_mqtt_is_usable())
        return -1;
    BRIDGE_DEBUG("subscribe for [%d] endpoint", endpoint);
    BRIDGE_ASSERT_TEXT(topics != nullptr, "topics != NULL");
    BRIDGE_ASSERT_TEXT(handler != nullptr, "handler != NULL");
    BRIDGE_ASSERT(topics_size > 0);

    const std::lock_guard<std::mutex> guard(mqtt_ctx.ep_lock);
    if (topics_size > count_free_subscriptions()) {
        BRIDGE_ERROR("no free subsriptions available");
        return -1;
    }
    bridge_mqtt_ep_group *group = bridge_mqtt_find_connected_group(endpoint);
    if (group == nullptr)
        return -1;
    /* Rows go first: a retained message may arrive before the server's answer. */
    const std::span<const char *const> wanted(topics, topics_size);
    fill_subscriptions(endpoint, wanted, handler, context);
    const acknowledgement_wait wait;
    const int result = subscribe_at_server(group, wanted);
    settle_pending_subscriptions(result == 0);
    return result;
}

static bool is_subscribed(const bridge_mqtt_sub &sub, bridge_mqtt_endpoint_t endpoint, const char *topic)
{
    const std::lock_guard<std::mutex> guard(mqtt_ctx.subs_lock);
    return sub.topic != nullptr && sub.endpoint == endpoint && strcasecmp(sub.topic, topic) == 0;
}

static void release_subscription(bridge_mqtt_sub *sub)
{
    const std::lock_guard<std::mutex> guard(mqtt_ctx.subs_lock);
    sub->topic = nullptr;
    sub->handler = nullptr;
    sub->context = nullptr;
    mqtt_ctx.free_subs++;
}

static int unsubscribe_topic(bridge_mqtt_ep_group *group, bridge_mqtt_endpoint_t endpoint, const char *topic,
                             uint32_t *released)
{
    for (bridge_mqtt_sub &sub : mqtt_ctx.subs) {
        if (!is_subscribed(sub, endpoint, topic))
            continue;
        const int result = ask_to_unsubscribe(group, topic);
        if (result != 0)
            return result;
        release_subscription(&sub);
        (*released)++;
    }
    return 0;
}

int bridge_mqtt_unsubscribe(bridge_mqtt_endpoint_t endpoint, const char *const *topics, uint32_t *topics_size)
{
    if (!bridge_mqtt_is_usable())
        return -1;
    BRIDGE_DEBUG("unsubscribe for [%d] endpoint", endpoint);
    BRIDGE_ASSERT_TEXT(topics != nullptr, "topics != NULL");
    BRIDGE_ASSERT_TEXT(topics_size != nullptr, "topics_size != NULL");
    BRIDGE_ASSERT(*topics_size > 0);

    const std::lock_guard<std::mutex> guard(mqtt_ctx.ep_lock);
    const std::span<const char *const> wanted(topics, *topics_size);
    *topics_size = 0;
    bridge_mqtt_ep_group *group = bridge_mqtt_find_connected_group(endpoint);
    if (group == nullptr)
        return -1;
    const acknowledgement_wait wait;
    for (const char *topic : wanted) {
        const int result = unsubscribe_topic(group, endpoint, topic, topics_size);
        if (result != 0)
            return result;
    }
    return 0;
}
