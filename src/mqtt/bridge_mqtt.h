/* MQTT endpoints. Callers name an endpoint; endpoints whose settings are all equal share one client and one
 * connection. Calls come from the main thread and from the planes' workers. Handlers run one at a time, in
 * order of arrival, on the manager's own delivery thread; a handler may publish, and may wait. */
#ifndef BRIDGE_MQTT_H
#define BRIDGE_MQTT_H

#include <cstddef>
#include <cstdint>

enum bridge_mqtt_endpoint_t : uint8_t {
    BRIDGE_MQTT_EP_NS = 0,
    BRIDGE_MQTT_EP_OAM = 1,
    BRIDGE_MQTT_EP_GEOLOC = 2,
};

/* `topic` and `payload` are valid for the call only; the payload is not terminated. */
using bridge_mqtt_handler_t = void (*)(const char *topic, void *context, const uint8_t *payload,
                                       uint32_t payload_size);

/* Called with code 0 and the endpoint group, on a thread of the library, when a connection is lost. */
using bridge_mqtt_connection_cb_t = void (*)(int32_t code, void *context);

/* Reads the endpoints from the configuration. Returns 0, or -1 when none is enabled. */
int bridge_mqtt_init(bridge_mqtt_connection_cb_t connection_cb);

/* Destroys every client, without a disconnect: it runs at the end of the process, under running planes.
 * Calls that arrive after it fail quietly. Returns 0, or -1 with the clients left as they are when a publish
 * stays in the library for more than 5 seconds. */
int bridge_mqtt_deinit();

bool bridge_mqtt_is_ep_enabled(bridge_mqtt_endpoint_t endpoint);

/* Blocks up to 30 seconds. Returns 0, a negative number, or the non-zero result of a client call. */
int bridge_mqtt_connect(bridge_mqtt_endpoint_t endpoint);

/* Blocks up to about a second. Releases the endpoint's subscriptions; messages of theirs that are still
 * queued reach nobody. Returns 0, -1 when the endpoint is in no group, or the client's result. */
int bridge_mqtt_disconnect(bridge_mqtt_endpoint_t endpoint);

/* Publishes with QoS 1 and does not wait for the acknowledgement: a message handed over just before the
 * connection is lost may be gone. Returns 0, -1 when the endpoint is not connected, or the client's
 * non-zero result. */
int bridge_mqtt_publish(bridge_mqtt_endpoint_t endpoint, const char *topic, const void *payload,
                        uint32_t payload_size, bool retained);

/* Subscribes with QoS 2, all topics or none. The texts are not copied: they must outlive the subscription.
 * Topics match by equality, ignoring case; wildcards reach the server and no handler. Returns 0 or -1. */
int bridge_mqtt_subscribe(bridge_mqtt_endpoint_t endpoint, const char *const *topics, size_t topics_size,
                          bridge_mqtt_handler_t handler, void *context);

/* `topics_size`: on entry the number of topics, on return the number of subscriptions released. Returns 0,
 * -1 when the endpoint is not connected, or the client's non-zero result. */
int bridge_mqtt_unsubscribe(bridge_mqtt_endpoint_t endpoint, const char *const *topics,
                            uint32_t *topics_size);

#endif
