/* Socket, worker, topics and connections of the data plane. */
#include "converter/data/bridge_data_ctx.h"

#include "common/bridge_config.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "common/bridge_wait.h"
#include "converter/data/bridge_translator.h"
#include "mqtt/bridge_mqtt.h"
#include "thread_pool/thpool.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <json-c/json.h>
#include <memory>
#include <netdb.h>
#include <sys/select.h>
#include <unistd.h>

static constexpr size_t DATAGRAM_SIZE = 1024; /* one byte is kept for the terminator */
static constexpr int WORKERS = 2;
static constexpr char STOP_WORD = 'X';
static constexpr uint32_t WRITER_POLL_MS = 1;

bridge_data_ctx converter_ctx;

using addresses_owned = std::unique_ptr<addrinfo, bridge_release<freeaddrinfo>>;

/* ---- topics and dialects ---- */

struct dialect_format {
    uint32_t format;
    uint32_t version;
};

/* By bridge_ns_type. */
static constexpr std::array<dialect_format, 3> DIALECTS = {{
    {FORMAT_SNVNS, 1},
    {FORMAT_CHIRPSTACK, 2},
    {FORMAT_CHIRPSTACK, 3},
}};

int get_version_and_ns_format(uint32_t *version, uint32_t *format)
{
    BRIDGE_ASSERT(version);
    BRIDGE_ASSERT(format);
    const uint32_t ns_type = bridge_config_get_root_checked()->ns.ns_type;
    BRIDGE_ASSERT_TEXT(ns_type < DIALECTS.size(), "0");
    *format = DIALECTS[ns_type].format;
    *version = DIALECTS[ns_type].version;
    return 0;
}

const char *bridge_topic_build(char *buffer, bridge_topic_kind kind)
{
    /* By bridge_topic_kind; a dialect without a topic of the kind never asks for one. */
    static constexpr std::array<const char *, 3> NAMES = {"rx", "tx", "stats"};
    static constexpr std::array<const char *, 4> V3_NAMES = {"up", nullptr, "stats", "ack"};
    const bridge_config_root *root = bridge_config_get_root_checked();
    const char *gw_mac = root->generic.gw_mac;

    switch (root->ns.ns_type) {
    case NS_TYPE_SNVNS:
        BRIDGE_ASSERT_TEXT(kind < NAMES.size(), "0");
        snprintf(buffer, BRIDGE_TOPIC_SIZE, "gateway/%s", NAMES[kind]);
        return buffer;
    case NS_TYPE_CHIRPSTACK_V2:
        BRIDGE_ASSERT_TEXT(kind < NAMES.size(), "0");
        snprintf(buffer, BRIDGE_TOPIC_SIZE, "gateway/%s/%s", gw_mac, NAMES[kind]);
        return buffer;
    case NS_TYPE_CHIRPSTACK_V3:
        BRIDGE_ASSERT_TEXT(kind < V3_NAMES.size(), "0");
        if (kind == TOPIC_DOWNLINK)
            snprintf(buffer, BRIDGE_TOPIC_SIZE, "gateway/%s/command/down", gw_mac);
        else
            snprintf(buffer, BRIDGE_TOPIC_SIZE, "gateway/%s/event/%s", gw_mac, V3_NAMES[kind]);
        return buffer;
    }
    BRIDGE_ERROR("unsupported NS type: %d", static_cast<int>(root->ns.ns_type));
    BRIDGE_ASSERT_TEXT(false, "0");
    return buffer;
}

/* ---- sending datagrams ---- */

/* The texts are numeric, so one answer serves until they change; asking costs the resolver's own sockets. */
static int resolve_target(resolved_name *target, const char *host, const char *port)
{
    if (target->address_size != 0 && strcmp(target->host, host) == 0 && strcmp(target->port, port) == 0)
        return 0;
    addrinfo *list = nullptr;
    const int result = getaddrinfo(host, port, nullptr, &list);
    const addresses_owned owned(list);
    if (result != 0) {
        BRIDGE_WARN("unable to get service info: %s", gai_strerror(result));
        return result;
    }
    memcpy(&target->address, list->ai_addr, list->ai_addrlen);
    target->address_size = list->ai_addrlen;
    strcpy(target->host, host);
    strcpy(target->port, port);
    return 0;
}

int bridge_udp_send(const uint8_t *data, size_t data_size, bool use_pull_port)
{
    BRIDGE_ASSERT(data);
    BRIDGE_ASSERT(data_size > 0);
    const char *port = use_pull_port ? converter_ctx.pull_port : converter_ctx.push_port;
    resolved_name *target = use_pull_port ? &converter_ctx.pull_target : &converter_ctx.push_target;
    const int resolved = resolve_target(target, converter_ctx.gw_host, port);
    if (resolved != 0)
        return resolved;

    BRIDGE_DEBUG("sending to: %s:%s", converter_ctx.gw_host, port);
    const ssize_t sent = sendto(converter_ctx.sock, data, data_size, 0,
                                reinterpret_cast<const sockaddr *>(&target->address), target->address_size);
    if (sent < 1) {
        BRIDGE_WARN("failed to send packet: %d %m", static_cast<int>(sent));
        return static_cast<int>(sent);
    }
    return 0;
}

static int send_acknowledgement(const uint8_t *token, semtech_packet identifier)
{
    const uint8_t ack[SEMTECH_HEADER_SIZE] = {static_cast<uint8_t>(converter_ctx.semtech_version), token[0],
                                              token[1], identifier};
    return bridge_udp_send(ack, sizeof(ack), identifier == SEMTECH_PULL_ACK);
}

/* ---- datagrams ---- */

static int name_sender(const sockaddr_in *address, sender_name *sender)
{
    const bool known = sender->host[0] != '\0' && sender->address.sin_port == address->sin_port &&
                       sender->address.sin_addr.s_addr == address->sin_addr.s_addr;
    if (known)
        return 0;
    sender->host[0] = '\0';
    const int result = getnameinfo(reinterpret_cast<const sockaddr *>(address), sizeof(*address),
                                   sender->host, sizeof(sender->host), sender->port, sizeof(sender->port),
                                   NI_NUMERICHOST | NI_NUMERICSERV);
    if (result != 0) {
        BRIDGE_ERROR("error getting gateway info: %s", gai_strerror(result));
        sender->host[0] = '\0';
        return -1;
    }
    sender->address = *address;
    return 0;
}

/* Replies go to the last sender; each kind of packet keeps the port of its own. */
static int remember_sender(const sockaddr_in *address, uint8_t identifier)
{
    const bool pull = identifier == SEMTECH_PULL_DATA;
    if (!pull && identifier != SEMTECH_PUSH_DATA)
        return 0;
    sender_name *sender = pull ? &converter_ctx.pull_sender : &converter_ctx.push_sender;
    if (name_sender(address, sender) < 0)
        return -1;
    memcpy(converter_ctx.gw_host, sender->host, sizeof(sender->host));
    memcpy(pull ? converter_ctx.pull_port : converter_ctx.push_port, sender->port, sizeof(sender->port));
    BRIDGE_TRACE("received datagram from %s , port %s", sender->host, sender->port);
    return 0;
}

static int dispatch_datagram(const uint8_t *uplink, size_t uplink_size)
{
    const uint8_t version = uplink[0];
    uint16_t token = 0;
    memcpy(&token, uplink + 1, sizeof(token));
    switch (uplink[3]) {
    case SEMTECH_PUSH_DATA: {
        BRIDGE_TRACE("PUSH_DATA received with version: %d", version);
        const int result =
            bridge_handle_push_data(version, uplink + SEMTECH_HEADER_SIZE, uplink_size - SEMTECH_HEADER_SIZE);
        return result != 0 ? result : send_acknowledgement(uplink + 1, SEMTECH_PUSH_ACK);
    }
    case SEMTECH_PULL_DATA:
        BRIDGE_TRACE("PULL_DATA received");
        converter_ctx.rx_allowed = true;
        return send_acknowledgement(uplink + 1, SEMTECH_PULL_ACK);
    case SEMTECH_TX_ACK:
        BRIDGE_TRACE("TX_ACK received with size: %zu", uplink_size);
        return bridge_handle_tx_ack(token, uplink + SEMTECH_HEADER_SIZE, uplink_size - SEMTECH_HEADER_SIZE);
    default:
        BRIDGE_TRACE("invalid packet type: %d", uplink[3]);
        return -1;
    }
}

int bridge_process_uplink(const sockaddr_in *address, const uint8_t *uplink, size_t uplink_size)
{
    BRIDGE_ASSERT(uplink);
    BRIDGE_ASSERT(uplink_size > 0);
    errno = 0; /* a bad number of the message before must not count against this one */
    if (uplink_size <= 3) {
        BRIDGE_TRACE("not enough data to continue: %zu", uplink_size);
        return -1;
    }
    const uint8_t version = uplink[0];
    if (version != 1 && version != 2) {
        BRIDGE_TRACE("invalid version: %d", version);
        return -1;
    }
    converter_ctx.semtech_version = version;
    if (remember_sender(address, uplink[3]) < 0)
        return -1;
    return dispatch_datagram(uplink, uplink_size);
}

/* ---- worker ---- */

/* Returns false when the worker is to end. */
static bool take_from_pipe(uint8_t (&buffer)[BRIDGE_PIPE_SIZE])
{
    const ssize_t count = read(converter_ctx.pipe_fds[0], buffer, sizeof(buffer));
    if (count < 0) {
        BRIDGE_ERROR("failed to read from pipe");
        return true;
    }
    BRIDGE_TRACE("pipe data received: %d bytes", static_cast<int>(count));
    if (count == 1 && buffer[0] == STOP_WORD)
        return false;
    if (count > 0 && bridge_send_downlink(buffer, static_cast<size_t>(count)) < 0)
        BRIDGE_ERROR("downlink send failed");
    return true;
}

static void take_from_socket(uint8_t (&buffer)[DATAGRAM_SIZE])
{
    sockaddr_in address = {};
    socklen_t address_size = sizeof(address);
    const ssize_t count = recvfrom(converter_ctx.sock, buffer, sizeof(buffer) - 1, MSG_DONTWAIT,
                                   reinterpret_cast<sockaddr *>(&address), &address_size);
    if (count < 0) {
        BRIDGE_ERROR("error while receiving uplink message: %m");
        return;
    }
    buffer[count] = 0;
    if (bridge_process_uplink(&address, buffer, static_cast<size_t>(count) + 1) < 0)
        BRIDGE_ERROR("failed to process uplink message");
}

static void bridge_uplink_worker(void *)
{
    BRIDGE_DEBUG("uplink/downlink worker thread starting");
    const int pipe_fd = converter_ctx.pipe_fds[0];
    const int highest = std::max(pipe_fd, converter_ctx.sock);
    while (!converter_ctx.stop) {
        uint8_t pipe_buffer[BRIDGE_PIPE_SIZE] = {};
        uint8_t datagram[DATAGRAM_SIZE] = {};
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(pipe_fd, &readable);
        FD_SET(converter_ctx.sock, &readable);
        if (select(highest + 1, &readable, nullptr, nullptr, nullptr) < 0) {
            if (errno == EINTR)
                BRIDGE_TRACE("interrupted by a signal");
            else
                BRIDGE_ERROR("select failed, starting again");
            continue;
        }
        /* Downlinks go first: they have an air time to meet. */
        if (FD_ISSET(pipe_fd, &readable)) {
            if (!take_from_pipe(pipe_buffer))
                return;
        } else {
            take_from_socket(datagram);
        }
    }
    BRIDGE_DEBUG("uplink/downlink worker thread exiting");
}

/* ---- lifecycle ---- */

static int add_nonblocking(int fd)
{
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0) {
        BRIDGE_ERROR("failed to get pipe flags");
        return -1;
    }
    if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        BRIDGE_ERROR("failed to set pipe flags");
        return -1;
    }
    return 0;
}

/* A packet pipe: each read gives one datagram, so that two downlinks never leave as one. Neither end blocks
 * by itself: a downlink waits for room on its own, and the stop word never does. */
static int create_pipe(bool *ready)
{
    const int created = pipe2(converter_ctx.pipe_fds, O_DIRECT | O_CLOEXEC);
    if (created < 0) {
        BRIDGE_ERROR("failed to create pipe");
        return created;
    }
    bridge_fd reader(converter_ctx.pipe_fds[0]);
    bridge_fd writer(converter_ctx.pipe_fds[1]);
    if (add_nonblocking(reader.get()) < 0 || add_nonblocking(writer.get()) < 0)
        return created;
    (void)reader.release();
    (void)writer.release();
    *ready = true;
    return created;
}

/* `ready` tells whether all is there: flags that cannot be set leave the result of the pipe itself, 0, which
 * is meant to stay so. */
static int open_resources(bool *ready)
{
    *ready = false;
    converter_ctx.pool = thpool_init(WORKERS);
    if (converter_ctx.pool == nullptr) {
        BRIDGE_ERROR("unable to allocate thread pool for UDP bridge");
        return -1;
    }
    bridge_fd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    int result = -1;
    if (sock.get() < 0)
        BRIDGE_ERROR("ERROR opening socket");
    else
        result = create_pipe(ready);
    if (!*ready) {
        /* The supervisor tries again every 10 seconds: what a failure leaves behind would add up. */
        thpool_destroy(converter_ctx.pool);
        converter_ctx.pool = nullptr;
        return result;
    }
    converter_ctx.sock = sock.release();
    return result;
}

int bridge_dataplane_init(bridge_dataplane_cb_t cb, void *context)
{
    BRIDGE_ASSERT(cb);
    BRIDGE_ASSERT(converter_ctx.inited == false);
    bool ready = false;
    const int result = open_resources(&ready);
    if (!ready)
        return result;
    converter_ctx.rx_allowed = false;
    converter_ctx.cb = cb;
    converter_ctx.cb_context = context;
    converter_ctx.semtech_version = 1;
    converter_ctx.inited = true;
    BRIDGE_DEBUG("UDP bridge is initialized");
    return 0;
}

/* A callback may be blocked on a full pipe: closing the read end sets it free. */
static void close_pipe()
{
    close(converter_ctx.pipe_fds[0]);
    while (converter_ctx.pipe_writers != 0)
        bridge_wait_ms(WRITER_POLL_MS);
    close(converter_ctx.pipe_fds[1]);
}

int bridge_dataplane_deinit()
{
    if (!converter_ctx.inited)
        return -1;
    thpool_destroy(converter_ctx.pool);
    converter_ctx.pool = nullptr;
    converter_ctx.inited = false;
    close_pipe();
    close(converter_ctx.sock);
    if (converter_ctx.tokener != nullptr)
        json_tokener_free(converter_ctx.tokener);
    converter_ctx.tokener = nullptr;
    BRIDGE_DEBUG("UDP bridge is deinitialized");
    return 0;
}

int bridge_dataplane_start_server(uint32_t port)
{
    BRIDGE_ASSERT(converter_ctx.inited);
    BRIDGE_ASSERT(port > 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<uint16_t>(port));
    int result = bind(converter_ctx.sock, reinterpret_cast<const sockaddr *>(&address), sizeof(address));
    if (result < 0) {
        BRIDGE_ERROR("cannot bind: %m");
        return result;
    }
    converter_ctx.stop = false;
    result = thpool_add_work(converter_ctx.pool, bridge_uplink_worker, nullptr);
    if (result < 0)
        BRIDGE_ERROR("failed to launch uplink worker thread");
    return result;
}

int bridge_dataplane_stop_server()
{
    BRIDGE_ASSERT(converter_ctx.inited);
    converter_ctx.stop = true;
    /* A full pipe has the worker awake already: the flag ends it. */
    if (write(converter_ctx.pipe_fds[1], &STOP_WORD, sizeof(STOP_WORD)) < 0 && errno != EAGAIN)
        BRIDGE_ERROR("failed to write the stop word into the pipe: %m");
    thpool_wait(converter_ctx.pool);
    return 0;
}

int bridge_dataplane_ns_connect()
{
    BRIDGE_ASSERT(converter_ctx.inited);
    BRIDGE_TRACE("connecting to NS");
    if (!bridge_mqtt_is_ep_enabled(BRIDGE_MQTT_EP_NS)) {
        BRIDGE_INFO("NS endpoint is disabled");
        converter_ctx.ns_connected = true;
        return 0;
    }
    int result = bridge_mqtt_connect(BRIDGE_MQTT_EP_NS);
    if (result < 0) {
        BRIDGE_ERROR("failed to connect to NS");
        return result;
    }
    const char *topic = bridge_topic_build(converter_ctx.downlink_topic, TOPIC_DOWNLINK);
    BRIDGE_TRACE("connected to NS. subscribing to downlink topic: %s", topic);
    result = bridge_mqtt_subscribe(BRIDGE_MQTT_EP_NS, &topic, 1, bridge_downlink_callback, &converter_ctx);
    if (result < 0) {
        BRIDGE_ERROR("failed to subscribe for NS topics");
        bridge_mqtt_disconnect(BRIDGE_MQTT_EP_NS);
        return result;
    }
    BRIDGE_DEBUG("UDP bridge is connected to NS");
    converter_ctx.ns_connected = true;
    return result;
}

int bridge_dataplane_ns_disconnect()
{
    BRIDGE_ASSERT(converter_ctx.inited);
    /* Not the subscription's own buffer: the delivery thread may be reading that. */
    char buffer[BRIDGE_TOPIC_SIZE];
    const char *topic = bridge_topic_build(buffer, TOPIC_DOWNLINK);
    uint32_t count = 1;
    bridge_mqtt_unsubscribe(BRIDGE_MQTT_EP_NS, &topic, &count);
    if (count != 1)
        BRIDGE_WARN("failed to unsubscribe from downlink topics");
    const int result = bridge_mqtt_disconnect(BRIDGE_MQTT_EP_NS);
    if (result < 0)
        BRIDGE_DEBUG("failed to disconnect from NS");
    converter_ctx.ns_connected = false;
    return result;
}

int bridge_dataplane_geo_connect()
{
    BRIDGE_ASSERT(converter_ctx.inited);
    BRIDGE_TRACE("connecting to geoloc");
    if (!bridge_mqtt_is_ep_enabled(BRIDGE_MQTT_EP_GEOLOC)) {
        BRIDGE_INFO("Geoloc endpoint is disabled");
        return 0;
    }
    const int result = bridge_mqtt_connect(BRIDGE_MQTT_EP_GEOLOC);
    if (result < 0) {
        BRIDGE_ERROR("failed to connect to geoloc server");
        return result;
    }
    BRIDGE_DEBUG("UDP bridge is connected to geoloc");
    converter_ctx.geo_connected = true;
    return result;
}

int bridge_dataplane_geo_disconnect()
{
    BRIDGE_ASSERT(converter_ctx.inited);
    const int result = bridge_mqtt_disconnect(BRIDGE_MQTT_EP_GEOLOC);
    if (result < 0)
        BRIDGE_DEBUG("failed to disconnect from geoloc");
    converter_ctx.geo_connected = false;
    return result;
}
