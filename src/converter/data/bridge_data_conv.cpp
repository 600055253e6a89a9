/* Socket, worker and connections of the data plane, and the road of every uplink datagram. */
#include "converter/data/bridge_data_conv.h"

#include "common/bridge_config.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "common/bridge_utils.h"
#include "common/bridge_wait.h"
#include "converter/data/bridge_translator.h"
#include "mqtt/bridge_mqtt.h"
#include "thread_pool/thpool.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

static constexpr size_t DATAGRAM_SIZE = 1024; /* one byte is kept for the terminator */
static constexpr size_t PIPE_SIZE = 4096;
static constexpr size_t ENDPOINT_TEXT = 128;
static constexpr size_t MAC_SIZE = 8;
static constexpr size_t HEADER_SIZE = 4;
static constexpr int WORKERS = 2;
static constexpr char STOP_WORD = 'X';
static constexpr uint32_t WRITER_POLL_MS = 1;

/* Sizes below count the terminator behind the datagram, and no header. */
static constexpr size_t MIN_PUSH_DATA = MAC_SIZE + 3;
static constexpr size_t MIN_TX_ACK = MAC_SIZE + 1;
static constexpr size_t MIN_TX_ACK_JSON = MAC_SIZE + 3;

enum semtech_packet : uint8_t {
    SEMTECH_PUSH_DATA = 0,
    SEMTECH_PUSH_ACK = 1,
    SEMTECH_PULL_DATA = 2,
    SEMTECH_PULL_RESP = 3,
    SEMTECH_PULL_ACK = 4,
    SEMTECH_TX_ACK = 5,
};

/* Numeric host and port of a sender; asked for again only when its address changes. */
struct sender_name {
    sockaddr_in address;
    char host[ENDPOINT_TEXT];
    char port[ENDPOINT_TEXT];
};

/* The socket address of a host and port text; resolved again only when the text changes. */
struct resolved_name {
    char host[ENDPOINT_TEXT];
    char port[ENDPOINT_TEXT];
    sockaddr_storage address;
    socklen_t address_size; /* 0 when nothing is resolved */
};

static struct {
    char gw_host[ENDPOINT_TEXT];
    char pull_port[ENDPOINT_TEXT];
    char push_port[ENDPOINT_TEXT];
    thpool *pool;
    std::atomic<bool> rx_allowed; /* a PULL_DATA has told where downlinks go */
    bridge_dataplane_cb_t cb;
    void *cb_context;
    int pipe_fds[2];
    std::atomic<uint32_t> semtech_version; /* of the last valid datagram */
    int sock;
    std::atomic<bool> inited;
    std::atomic<bool> geo_connected;
    std::atomic<bool> ns_connected;
    std::atomic<bool> stop;
    std::atomic<int> pipe_writers; /* downlink callbacks under way: the pipe outlives them */

    char uplink_topic[BRIDGE_TOPIC_SIZE];
    char downlink_topic[BRIDGE_TOPIC_SIZE];
    char ack_topic[BRIDGE_TOPIC_SIZE];
    char stats_topic[BRIDGE_TOPIC_SIZE];

    sender_name push_sender;
    sender_name pull_sender;
    resolved_name push_target;
    resolved_name pull_target;
} converter_ctx;

using tokener_owned = std::unique_ptr<json_tokener, bridge_release<json_tokener_free>>;
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

static int bridge_udp_send(const uint8_t *data, size_t data_size, bool use_pull_port)
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
    const uint8_t ack[HEADER_SIZE] = {static_cast<uint8_t>(converter_ctx.semtech_version), token[0], token[1],
                                      identifier};
    return bridge_udp_send(ack, sizeof(ack), identifier == SEMTECH_PULL_ACK);
}

int bridge_send_downlink(const uint8_t *data, size_t data_size)
{
    BRIDGE_ASSERT(data);
    BRIDGE_ASSERT(data_size > 0);
    if (!converter_ctx.rx_allowed) {
        BRIDGE_WARN("RX is not yet allowed");
        return 0;
    }
    return bridge_udp_send(data, data_size, true);
}

/* ---- publishing ---- */

/* A server that is not ready is asked all the same: its failure is what starts the reconnection. */
static int bridge_ns_publish(const char *body, size_t size, const char *topic)
{
    if (!bridge_mqtt_is_ep_enabled(BRIDGE_MQTT_EP_NS)) {
        BRIDGE_DEBUG("NS packet is dropped: endpoint is disabled");
        return 0;
    }
    if (!converter_ctx.ns_connected)
        BRIDGE_DEBUG("NS endpoint is enabled but not yet ready, skipping sending packet");
    BRIDGE_DEBUG("Publish to: %s, message body: %s", topic, body);
    return bridge_mqtt_publish(BRIDGE_MQTT_EP_NS, topic, body, static_cast<uint32_t>(size), false);
}

static int bridge_geoloc_publish(const char *body, size_t size)
{
    if (!bridge_mqtt_is_ep_enabled(BRIDGE_MQTT_EP_GEOLOC)) {
        BRIDGE_DEBUG("geoloc packet is dropped: endpoint is disabled");
        return 0;
    }
    if (!converter_ctx.geo_connected)
        BRIDGE_DEBUG("geoloc endpoint is enabled but not yet ready, skipping sending packet");
    const char *topic = bridge_config_get_root_checked()->geoloc.topic;
    BRIDGE_DEBUG("Publish to: %s, message body: %s", topic, body);
    return bridge_mqtt_publish(BRIDGE_MQTT_EP_GEOLOC, topic, body, static_cast<uint32_t>(size), false);
}

static void report_ns_failure()
{
    BRIDGE_ASSERT(converter_ctx.cb);
    converter_ctx.cb(0, converter_ctx.cb_context);
}

static int publish_object_to_ns(json_object *object, const char *topic)
{
    size_t length = 0;
    const char *text = json_object_to_json_string_length(object, JSON_C_TO_STRING_PLAIN, &length);
    return text != nullptr ? bridge_ns_publish(text, length, topic) : -1;
}

/* ---- PUSH_DATA ---- */

/* A parsed PUSH_DATA and what its parts have in common. */
struct push_data {
    uint8_t mac[MAC_SIZE];
    uint32_t version;
    const char *text;
    json_object *parsed;
};

static int translate(const push_data &push, bridge_direction direction, json_object *input,
                     json_object *output)
{
    uint32_t ns_version = 0;
    uint32_t ns_format = 0;
    const int result = get_version_and_ns_format(&ns_version, &ns_format);
    if (result < 0) {
        BRIDGE_ERROR("failed to extract NS version and data format");
        return result;
    }
    bridge_translate_msg from = {
        .format = FORMAT_SEMTECH, .direction = direction, .version = push.version, .json = input};
    bridge_translate_msg to = {
        .format = ns_format, .direction = direction, .version = ns_version, .json = output};
    memcpy(from.mac, push.mac, sizeof(from.mac));
    memcpy(to.mac, push.mac, sizeof(to.mac));
    errno = 0; /* the publish before may have left one, which a number's read would take for its own */
    const int translated = bridge_translate_generic(&from, &to);
    if (translated < 0)
        BRIDGE_TRACE("failed to translate message");
    return translated;
}

static int publish_uplink(const push_data &push, json_object *rxpk, json_object *out)
{
    if (rxpk == nullptr) {
        BRIDGE_ERROR("failed to deserialize uplink packet: %s", "null");
        BRIDGE_TRACE("failed to translate message");
        return -1;
    }
    const int translated = translate(push, DIRECTION_UPLINK, rxpk, out);
    if (translated < 0)
        return translated;
    bridge_topic_build(converter_ctx.uplink_topic, TOPIC_UPLINK);
    const int result = publish_object_to_ns(out, converter_ctx.uplink_topic);
    if (result < 0) {
        BRIDGE_ERROR("failed to send message over MQTT");
        report_ns_failure();
    }
    return result;
}

/* One output object serves every element: each translation replaces the keys of the one before. */
static int publish_uplinks(const push_data &push, json_object *out)
{
    json_object *rxpk = nullptr;
    if (!json_object_object_get_ex(push.parsed, "rxpk", &rxpk))
        BRIDGE_TRACE("no rxpk array in %s", push.text);
    if (!json_object_is_type(rxpk, json_type_array))
        return 0;
    int result = 0;
    const size_t count = json_object_array_length(rxpk);
    for (size_t i = 0; i < count && result >= 0; i++)
        result = publish_uplink(push, json_object_array_get_idx(rxpk, i), out);
    return result;
}

static int publish_geolocation(const push_data &push)
{
    json_object *locpk = nullptr;
    if (!json_object_object_get_ex(push.parsed, "locpk", &locpk))
        BRIDGE_TRACE("no geoloc object in %s", push.text);
    if (!json_object_is_type(locpk, json_type_array) || json_object_array_length(locpk) == 0)
        return 0;
    size_t length = 0;
    const char *text = json_object_to_json_string_length(locpk, JSON_C_TO_STRING_PLAIN, &length);
    if (text == nullptr) {
        BRIDGE_ERROR("failed to allocate geoloc string");
        return -1;
    }
    const int result = bridge_geoloc_publish(text, length);
    if (result < 0 && converter_ctx.cb != nullptr)
        converter_ctx.cb(1, converter_ctx.cb_context);
    return result;
}

static int publish_statistics(const push_data &push)
{
    json_object *stat = nullptr;
    const bool found = json_object_object_get_ex(push.parsed, "stat", &stat);
    if (!json_object_is_type(stat, json_type_object))
        BRIDGE_TRACE("no statistics object in %s", push.text);
    if (!found)
        return 0;
    if (stat == nullptr) {
        BRIDGE_ERROR("failed to deserialize statistics: %s", "null");
        BRIDGE_TRACE("failed to translate message");
        return -1;
    }
    const json_owned out(json_object_new_object());
    if (!out) {
        BRIDGE_DEBUG("failed to create statistics object");
        return 0;
    }
    const int translated = translate(push, DIRECTION_STATISTICS, stat, out.get());
    if (translated < 0)
        return translated;
    BRIDGE_TRACE("sending statistics: %s", json_object_to_json_string_ext(out.get(), JSON_C_TO_STRING_PLAIN));
    bridge_topic_build(converter_ctx.stats_topic, TOPIC_STATISTICS);
    const int result = publish_object_to_ns(out.get(), converter_ctx.stats_topic);
    if (result < 0) {
        BRIDGE_ERROR("failed to send stats message over mqtt");
        report_ns_failure();
    }
    return result;
}

/* `size` counts the MAC, the JSON text and its terminator. A negative result means no PUSH_ACK, although
 * earlier elements may have been published. */
static int bridge_handle_push_data(uint32_t version, const uint8_t *data, size_t data_size)
{
    BRIDGE_ASSERT(data);
    BRIDGE_ASSERT(data_size > 0);
    if (data_size < MIN_PUSH_DATA) {
        BRIDGE_DEBUG("no data to handle");
        return -1;
    }
    push_data push = {.version = version, .text = reinterpret_cast<const char *>(data + MAC_SIZE)};
    memcpy(push.mac, data, sizeof(push.mac));
    const json_owned out(json_object_new_object());
    if (!out) {
        BRIDGE_ERROR("failed to create object");
        return -1;
    }
    BRIDGE_DEBUG("PUSH_DATA message body: %s", push.text);
    const json_owned parsed(json_tokener_parse(push.text));
    if (!parsed) {
        BRIDGE_ERROR("failed to allocate tokener");
        return -1;
    }
    push.parsed = parsed.get();

    int result = publish_uplinks(push, out.get());
    if (result < 0)
        return result;
    result = publish_geolocation(push);
    if (result < 0)
        return result;
    return publish_statistics(push);
}

/* ---- TX_ACK ---- */

static constexpr size_t ACK_MESSAGE_SIZE = 512;
/* What surrounds the status, at its longest: Base64 of the MAC and five digits of the token. */
static constexpr size_t ACK_STATUS_SIZE = ACK_MESSAGE_SIZE - 96;

static int copy_status(const char *text, char (&status)[ACK_STATUS_SIZE])
{
    const char *shown = strcmp(text, "NONE") == 0 ? "OK" : text;
    const size_t length = strlen(shown);
    if (length >= sizeof(status)) {
        BRIDGE_ERROR("status of TX_ACK is too long: %zu", length);
        return -1;
    }
    memcpy(status, shown, length + 1);
    return 0;
}

/* An acknowledgement that says nothing of an error is forwarded all the same, with the status "(null)". */
static int read_tx_ack_status(const char *text, char (&status)[ACK_STATUS_SIZE])
{
    BRIDGE_DEBUG("TX_ACK message body: %s", text);
    const json_owned parsed(json_tokener_parse(text));
    if (!parsed) {
        BRIDGE_ERROR("failed to allocate tokener");
        return -1;
    }
    json_object *txpk_ack = nullptr;
    json_object *error = nullptr;
    if (!json_object_object_get_ex(parsed.get(), "txpk_ack", &txpk_ack))
        BRIDGE_TRACE("no txpk_ack object in %s", text);
    else if (!json_object_object_get_ex(txpk_ack, "error", &error))
        BRIDGE_TRACE("no err string array in %s", text);
    const char *value = json_object_get_string(error);
    return copy_status(value != nullptr ? value : "(null)", status);
}

static int forward_tx_ack(uint16_t token, const uint8_t *mac, const char *status)
{
    char mac_b64[16];
    const int rc = Base64encode(mac_b64, reinterpret_cast<const char *>(mac), MAC_SIZE);
    BRIDGE_ASSERT_TEXT(rc >= 0 && static_cast<size_t>(rc) < sizeof(mac_b64),
                       "rc >= 0 && (size_t)rc < sizeof(mac_b64)");
    BRIDGE_TRACE("mac encoded: %s", mac_b64);
    char ack_buf[ACK_MESSAGE_SIZE];
    const int n = snprintf(ack_buf, sizeof(ack_buf),
                           "{ \"gatewayID\": \"%s\", \"token\": %u, \"items\": [ { \"status\": \"%s\" } ] }",
                           mac_b64, static_cast<unsigned>(token), status);
    BRIDGE_ASSERT_TEXT(n > 0 && static_cast<size_t>(n) < sizeof(ack_buf),
                       "n > 0 && (size_t)n < sizeof(ack_buf)");

    bridge_topic_build(converter_ctx.ack_topic, TOPIC_ACK);
    const int result = bridge_ns_publish(ack_buf, static_cast<size_t>(n), converter_ctx.ack_topic);
    if (result < 0) {
        BRIDGE_ERROR("failed to send message over MQTT");
        report_ns_failure();
    }
    return result;
}

/* Only ChirpStack version 3 hears of what became of a downlink. `size` counts as for PUSH_DATA. */
static int bridge_handle_tx_ack(uint16_t token, const uint8_t *data, size_t data_size)
{
    const uint32_t ns_type = bridge_config_get_root_checked()->ns.ns_type;
    if (ns_type == NS_TYPE_SNVNS || ns_type == NS_TYPE_CHIRPSTACK_V2)
        return 0;
    BRIDGE_ASSERT_TEXT(ns_type == NS_TYPE_CHIRPSTACK_V3, "0");
    if (data_size < MIN_TX_ACK) {
        BRIDGE_DEBUG("no data to handle: %zu", data_size);
        return -1;
    }
    uint8_t mac[MAC_SIZE];
    memcpy(mac, data, sizeof(mac));
    char status[ACK_STATUS_SIZE] = "OK";
    if (data_size < MIN_TX_ACK_JSON) {
        BRIDGE_DEBUG("TX_ACK contains no JSON");
    } else {
        const int result = read_tx_ack_status(reinterpret_cast<const char *>(data + MAC_SIZE), status);
        if (result < 0)
            return result;
    }
    return forward_tx_ack(token, mac, status);
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
        const int result = bridge_handle_push_data(version, uplink + HEADER_SIZE, uplink_size - HEADER_SIZE);
        return result != 0 ? result : send_acknowledgement(uplink + 1, SEMTECH_PUSH_ACK);
    }
    case SEMTECH_PULL_DATA:
        BRIDGE_TRACE("PULL_DATA received");
        converter_ctx.rx_allowed = true;
        return send_acknowledgement(uplink + 1, SEMTECH_PULL_ACK);
    case SEMTECH_TX_ACK:
        BRIDGE_TRACE("TX_ACK received with size: %zu", uplink_size);
        return bridge_handle_tx_ack(token, uplink + HEADER_SIZE, uplink_size - HEADER_SIZE);
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

/* ---- downlinks ---- */

/* The pipe is closed only when no callback is inside; one that comes later finds the plane gone. */
class pipe_writer
{
  public:
    pipe_writer()
    {
        converter_ctx.pipe_writers++;
    }
    ~pipe_writer()
    {
        converter_ctx.pipe_writers--;
    }
    pipe_writer(const pipe_writer &) = delete;
    pipe_writer &operator=(const pipe_writer &) = delete;
};

static json_object *parse_downlink(const uint8_t *payload, uint32_t payload_size)
{
    const tokener_owned tokener(json_tokener_new());
    if (!tokener) {
        BRIDGE_ERROR("failed to allocate tokener");
        return nullptr;
    }
    json_object *parsed = json_tokener_parse_ex(tokener.get(), reinterpret_cast<const char *>(payload),
                                                static_cast<int>(payload_size));
    if (parsed == nullptr)
        BRIDGE_WARN("unable to parse downlink payload");
    return parsed;
}

/* Returns the txpk wrapped for the packet forwarder, or null after logging why. */
static json_object *translate_downlink(json_object *parsed, uint32_t semtech_version, uint16_t *token)
{
    json_owned txpk(json_object_new_object());
    if (!txpk) {
        BRIDGE_ERROR("failed to create object");
        return nullptr;
    }
    uint32_t ns_version = 0;
    uint32_t ns_format = 0;
    if (get_version_and_ns_format(&ns_version, &ns_format) < 0) {
        BRIDGE_ERROR("failed to extract the NS version and data format");
        return nullptr;
    }
    bridge_translate_msg from = {
        .format = ns_format, .direction = DIRECTION_DOWNLINK, .version = ns_version, .json = parsed};
    bridge_translate_msg to = {.format = FORMAT_SEMTECH,
                               .direction = DIRECTION_DOWNLINK,
                               .version = semtech_version,
                               .json = txpk.get()};
    if (bridge_translate_generic(&from, &to) < 0) {
        BRIDGE_WARN("failed to translate downlink packet body");
        return nullptr;
    }
    *token = to.token;
    json_object *wrapper = json_object_new_object();
    if (wrapper == nullptr) {
        BRIDGE_ERROR("failed to create object");
        return nullptr;
    }
    json_object_object_add(wrapper, "txpk", txpk.release());
    return wrapper;
}

static void write_to_worker(const uint8_t *datagram, size_t size)
{
    const ssize_t written = write(converter_ctx.pipe_fds[1], datagram, size);
    if (written < 0)
        BRIDGE_ERROR("failed to write downlink packet into the pipe");
    else if (static_cast<size_t>(written) < size)
        BRIDGE_WARN("pipe consumed less data: [%d] than expected: [%zu]", static_cast<int>(written), size);
    else
        BRIDGE_TRACE("bytes written to pipe: [%d]", static_cast<int>(written));
}

/* The terminator travels with the datagram. */
static void hand_to_worker(json_object *wrapper, uint32_t semtech_version, uint16_t token)
{
    size_t length = 0;
    const char *text = json_object_to_json_string_length(wrapper, JSON_C_TO_STRING_PLAIN, &length);
    if (text == nullptr) {
        BRIDGE_WARN("failed to stringify downlink packet");
        return;
    }
    const size_t size = HEADER_SIZE + length + 1;
    uint8_t datagram[PIPE_SIZE] = {};
    if (size > sizeof(datagram)) {
        BRIDGE_WARN("packet body is too big: %zd bytes", static_cast<ssize_t>(length + 1));
        return;
    }
    datagram[0] = static_cast<uint8_t>(semtech_version);
    memcpy(datagram + 1, &token, sizeof(token));
    datagram[3] = SEMTECH_PULL_RESP;
    memcpy(datagram + HEADER_SIZE, text, length);
    write_to_worker(datagram, size);
}

void bridge_downlink_callback(const char *topic, void *, const uint8_t *payload, uint32_t payload_size)
{
    BRIDGE_ASSERT(topic);
    BRIDGE_ASSERT(payload);
    const pipe_writer writer;
    if (!converter_ctx.inited)
        return;
    errno = 0; /* a bad number of the message before must not count against this one */
    if (payload_size == 0) {
        BRIDGE_WARN("empty payload received, skipping");
        return;
    }
    const json_owned parsed(parse_downlink(payload, payload_size));
    if (!parsed)
        return;
    const uint32_t semtech_version = converter_ctx.semtech_version;
    uint16_t token = 0;
    const json_owned wrapper(translate_downlink(parsed.get(), semtech_version, &token));
    if (wrapper)
        hand_to_worker(wrapper.get(), semtech_version, token);
}

/* ---- worker ---- */

/* Returns false when the worker is to end. */
static bool take_from_pipe(uint8_t (&buffer)[PIPE_SIZE])
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
        uint8_t pipe_buffer[PIPE_SIZE] = {};
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

/* A packet pipe: each read gives one datagram, so that two downlinks never leave as one. The write end
 * blocks, which holds back the delivery of further messages until the worker catches up. */
static int create_pipe()
{
    const int created = pipe2(converter_ctx.pipe_fds, O_DIRECT | O_CLOEXEC);
    if (created < 0) {
        BRIDGE_ERROR("failed to create pipe");
        return created;
    }
    bridge_fd reader(converter_ctx.pipe_fds[0]);
    bridge_fd writer(converter_ctx.pipe_fds[1]);
    const int flags = fcntl(reader.get(), F_GETFL);
    if (flags < 0) {
        BRIDGE_ERROR("failed to get pipe flags");
        return -1;
    }
    if (fcntl(reader.get(), F_SETFL, flags | O_NONBLOCK) < 0) {
        BRIDGE_ERROR("failed to set pipe flags");
        return -1;
    }
    reader.release();
    writer.release();
    return 0;
}

static int open_resources()
{
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
        result = create_pipe();
    if (result < 0) {
        /* The supervisor tries again every 10 seconds: what a failure leaves behind would add up. */
        thpool_destroy(converter_ctx.pool);
        converter_ctx.pool = nullptr;
        return result;
    }
    converter_ctx.sock = sock.release();
    return 0;
}

int bridge_dataplane_init(bridge_dataplane_cb_t cb, void *context)
{
    BRIDGE_ASSERT(cb);
    BRIDGE_ASSERT(converter_ctx.inited == false);
    const int result = open_resources();
    if (result < 0)
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
    /* Whether or not the word gets through: it only wakes the worker, the flag ends it. */
    if (write(converter_ctx.pipe_fds[1], &STOP_WORD, sizeof(STOP_WORD)) < 0)
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
