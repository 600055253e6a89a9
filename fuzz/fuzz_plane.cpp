#include "fuzz_plane.h"

#include "converter/data/bridge_data_ctx.h"
#include "fuzz.h"

#include <cstring>
#include <sys/socket.h>

fuzz_server fuzz_mqtt;

static bridge_config_root config;
static int forwarder_socket = -1;
static sockaddr_in forwarder_address;

/* ---- what stands in for the daemon's own ---- */

const bridge_config_root *bridge_config_get_root_checked()
{
    return &config;
}

bool bridge_mqtt_is_ep_enabled(bridge_mqtt_endpoint_t endpoint)
{
    return endpoint != BRIDGE_MQTT_EP_NS || fuzz_mqtt.ns_enabled;
}

int bridge_mqtt_connect(bridge_mqtt_endpoint_t)
{
    return 0;
}

int bridge_mqtt_disconnect(bridge_mqtt_endpoint_t)
{
    return 0;
}

int bridge_mqtt_publish(bridge_mqtt_endpoint_t endpoint, const char *topic, const void *payload,
                        uint32_t payload_size, bool)
{
    fuzz_mqtt.messages.push_back({endpoint, topic, {static_cast<const char *>(payload), payload_size}});
    return fuzz_mqtt.publish_result;
}

int bridge_mqtt_subscribe(bridge_mqtt_endpoint_t, const char *const *, size_t, bridge_mqtt_handler_t, void *)
{
    return 0;
}

int bridge_mqtt_unsubscribe(bridge_mqtt_endpoint_t, const char *const *, uint32_t *)
{
    return 0;
}

/* ---- the plane ---- */

static void record_failure(int32_t code, void *)
{
    fuzz_mqtt.failures.push_back(code);
}

static void open_forwarder()
{
    forwarder_socket = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    FUZZ_REQUIRE(forwarder_socket >= 0);
    forwarder_address = {.sin_family = AF_INET, .sin_addr = {.s_addr = htonl(INADDR_LOOPBACK)}};
    socklen_t size = sizeof(forwarder_address);
    auto *address = reinterpret_cast<sockaddr *>(&forwarder_address);
    FUZZ_REQUIRE(bind(forwarder_socket, address, size) == 0);
    FUZZ_REQUIRE(getsockname(forwarder_socket, address, &size) == 0);
}

void fuzz_plane_start()
{
    fuzz_init_log();
    strcpy(config.generic.gw_mac, "0016C001FF1A2B3C");
    strcpy(config.geoloc.topic, "gateway/geoloc");
    open_forwarder();
    FUZZ_REQUIRE(bridge_dataplane_init(record_failure, nullptr) == 0);
}

void fuzz_plane_reset(bridge_ns_type ns_type, bool ns_enabled, int publish_result)
{
    config.ns.ns_type = ns_type;
    fuzz_mqtt = {.ns_enabled = ns_enabled, .publish_result = publish_result};
    converter_ctx.rx_allowed = false;
    converter_ctx.semtech_version = 1;
    converter_ctx.push_sender = {};
    converter_ctx.pull_sender = {};
    converter_ctx.push_target = {};
    converter_ctx.pull_target = {};
}

const sockaddr_in *fuzz_forwarder_address()
{
    return &forwarder_address;
}

std::vector<uint8_t> fuzz_forwarder_receive()
{
    std::vector<uint8_t> datagram(2 * BRIDGE_PIPE_SIZE);
    const ssize_t count = recv(forwarder_socket, datagram.data(), datagram.size(), 0);
    datagram.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return datagram;
}
