/* The data plane: the packet forwarder's UDP socket on one side, the network and geolocation servers on the
 * other. The calls below belong to the main thread; one pool worker alone uses the socket, and downlinks
 * reach it through a pipe. Datagrams: Semtech UDP protocol, versions 1 and 2. */
#ifndef BRIDGE_DATA_CONV_H
#define BRIDGE_DATA_CONV_H

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>

/* Called with code 0 when a publish to the network server fails, 1 for the geolocation server. */
using bridge_dataplane_cb_t = void (*)(int32_t code, void *context);

enum bridge_topic_kind : uint32_t {
    TOPIC_UPLINK = 0,
    TOPIC_DOWNLINK = 1,
    TOPIC_STATISTICS = 2,
    TOPIC_ACK = 3,
};

static constexpr size_t BRIDGE_TOPIC_SIZE = 64;

/* Creates the pool, the socket and the pipe. Returns 0 or a negative number. */
int bridge_dataplane_init(bridge_dataplane_cb_t cb, void *context);

/* Returns 0, or -1 when not initialised. */
int bridge_dataplane_deinit();

/* Binds the socket to `port` on all local addresses and starts the worker. Returns 0 or a negative number. */
int bridge_dataplane_start_server(uint32_t port);

/* Ends the worker and waits for it. Returns 0. */
int bridge_dataplane_stop_server();

int bridge_dataplane_ns_connect();
int bridge_dataplane_ns_disconnect();
int bridge_dataplane_geo_connect();
int bridge_dataplane_geo_disconnect();

/* The data format and version of the configured network server, as the translators number them. Returns 0. */
int get_version_and_ns_format(uint32_t *version, uint32_t *format);

/* Writes the topic of the configured dialect into `buffer`, of BRIDGE_TOPIC_SIZE bytes, and returns it. */
const char *bridge_topic_build(char *buffer, bridge_topic_kind kind);

/* One datagram from the packet forwarder; `size` counts a terminating zero behind the data. Worker only.
 * Returns 0, or a non-zero number when the datagram is not acknowledged. */
int bridge_process_uplink(const sockaddr_in *address, const uint8_t *uplink, size_t uplink_size);

/* A finished PULL_RESP to the packet forwarder's pull port. Worker only. */
int bridge_send_downlink(const uint8_t *data, size_t data_size);

/* Subscription handler of the downlink topic; runs on the MQTT delivery thread. */
void bridge_downlink_callback(const char *topic, void *context, const uint8_t *payload,
                              uint32_t payload_size);

#endif
