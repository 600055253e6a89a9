/* The data plane as its fuzz targets run it: its real socket and pipe, a configuration filled directly, MQTT
 * endpoints that record, and a packet forwarder's socket at the other end. */
#ifndef FUZZ_PLANE_H
#define FUZZ_PLANE_H

#include "common/bridge_config.h"
#include "mqtt/bridge_mqtt.h"

#include <cstdint>
#include <netinet/in.h>
#include <string>
#include <vector>

struct fuzz_message {
    bridge_mqtt_endpoint_t endpoint;
    std::string topic;
    std::string body;
};

/* The MQTT side: how it behaves, and what it was given. */
struct fuzz_server {
    bool ns_enabled;
    int publish_result;
    std::vector<fuzz_message> messages;
    std::vector<int32_t> failures; /* codes of the send-failed callback */
};

extern fuzz_server fuzz_mqtt;

/* Once, before the first input. */
void fuzz_plane_start();

/* Before each input: the plane as it stands after its start, with nothing recorded. */
void fuzz_plane_reset(bridge_ns_type ns_type, bool ns_enabled, int publish_result);

const sockaddr_in *fuzz_forwarder_address();

/* The next datagram that the plane has sent to the forwarder; empty when there is none. */
std::vector<uint8_t> fuzz_forwarder_receive();

#endif
