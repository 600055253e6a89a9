#include "converter/neighbours.h"

#include "config/captured_log.h"

#include <cerrno>

mqtt_script mqtt;
bridge_config_root configuration;

const bridge_config_root *bridge_config_get_root_checked()
{
    return &configuration;
}

void mqtt_script::reset()
{
    const std::lock_guard guard(mutex_);
    enabled = {BRIDGE_MQTT_EP_NS, BRIDGE_MQTT_EP_GEOLOC};
    connect_result = 0;
    subscribe_result = 0;
    unsubscribe_result = 0;
    unsubscribed = 1;
    disconnect_result = 0;
    publish_errno = 0;
    handler = nullptr;
    handler_context = nullptr;
    results_.clear();
    publishes_.clear();
    calls_.clear();
    holding_ = false;
    held_ = false;
}

void mqtt_script::results(std::initializer_list<int> next)
{
    const std::lock_guard guard(mutex_);
    results_ = next;
}

void mqtt_script::hold()
{
    const std::lock_guard guard(mutex_);
    holding_ = true;
    held_ = false;
}

bool mqtt_script::wait_for_held()
{
    std::unique_lock guard(mutex_);
    return changed_.wait_for(guard, TEST_DEADLINE, [this] { return held_; });
}

void mqtt_script::let_go()
{
    const std::lock_guard guard(mutex_);
    holding_ = false;
    changed_.notify_all();
}

std::vector<published> mqtt_script::publishes()
{
    const std::lock_guard guard(mutex_);
    return publishes_;
}

std::vector<std::string> mqtt_script::calls()
{
    const std::lock_guard guard(mutex_);
    return calls_;
}

void mqtt_script::note(std::string call)
{
    const std::lock_guard guard(mutex_);
    calls_.push_back(std::move(call));
}

int mqtt_script::publish(const published &message)
{
    std::unique_lock guard(mutex_);
    publishes_.push_back(message);
    held_ = holding_;
    changed_.notify_all();
    changed_.wait_for(guard, TEST_DEADLINE, [this] { return !holding_; });
    int result = 0;
    if (!results_.empty()) {
        result = results_.front();
        results_.pop_front();
    }
    if (publish_errno != 0)
        errno = publish_errno;
    return result;
}

static const char *name_of(bridge_mqtt_endpoint_t endpoint)
{
    static constexpr const char *NAMES[] = {"NS", "OAM", "GEOLOC"};
    return NAMES[endpoint];
}

bool bridge_mqtt_is_ep_enabled(bridge_mqtt_endpoint_t endpoint)
{
    return mqtt.enabled.contains(endpoint);
}

int bridge_mqtt_connect(bridge_mqtt_endpoint_t endpoint)
{
    mqtt.note(join({"connect ", name_of(endpoint)}));
    return mqtt.connect_result;
}

int bridge_mqtt_disconnect(bridge_mqtt_endpoint_t endpoint)
{
    mqtt.note(join({"disconnect ", name_of(endpoint)}));
    return mqtt.disconnect_result;
}

int bridge_mqtt_publish(bridge_mqtt_endpoint_t endpoint, const char *topic, const void *payload,
                        uint32_t payload_size, bool retained)
{
    return mqtt.publish(
        {endpoint, topic, std::string(static_cast<const char *>(payload), payload_size), retained});
}

int bridge_mqtt_subscribe(bridge_mqtt_endpoint_t endpoint, const char *const *topics, size_t topics_size,
                          bridge_mqtt_handler_t handler, void *context)
{
    std::string call = join({"subscribe ", name_of(endpoint)});
    for (size_t i = 0; i < topics_size; i++)
        call += join({" ", topics[i]});
    mqtt.note(std::move(call));
    mqtt.handler = handler;
    mqtt.handler_context = context;
    return mqtt.subscribe_result;
}

int bridge_mqtt_unsubscribe(bridge_mqtt_endpoint_t endpoint, const char *const *topics, uint32_t *topics_size)
{
    std::string call = join({"unsubscribe ", name_of(endpoint)});
    for (uint32_t i = 0; i < *topics_size; i++)
        call += join({" ", topics[i]});
    mqtt.note(std::move(call));
    *topics_size = mqtt.unsubscribed;
    return mqtt.unsubscribe_result;
}
