/* What the packet forwarder reports: uplinks, statistics, geolocation and transmit acknowledgements, on their
 * way to the servers. */
#include "converter/data/bridge_data_ctx.h"

#include "common/bridge_config.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_utils.h"
#include "converter/data/bridge_translator.h"
#include "mqtt/bridge_mqtt.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

/* Sizes count the terminator behind the datagram, and no header. */
static constexpr size_t MIN_PUSH_DATA = SEMTECH_MAC_SIZE + 3;
static constexpr size_t MIN_TX_ACK = SEMTECH_MAC_SIZE + 1;
static constexpr size_t MIN_TX_ACK_JSON = SEMTECH_MAC_SIZE + 3;

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

/* Null when the text is no JSON: what was made of it so far is dropped. One tokener serves all datagrams. */
static json_object *parse_datagram(const char *text)
{
    if (converter_ctx.tokener == nullptr)
        converter_ctx.tokener = json_tokener_new();
    if (converter_ctx.tokener == nullptr)
        return nullptr;
    json_tokener_reset(converter_ctx.tokener);
    json_owned parsed(bridge_json_parse_ex(converter_ctx.tokener, text, -1));
    return json_tokener_get_error(converter_ctx.tokener) == json_tokener_success ? parsed.release() : nullptr;
}

/* A parsed PUSH_DATA and its parts. */
struct push_data {
    uint8_t mac[SEMTECH_MAC_SIZE];
    uint32_t version;
    json_object *rxpk;
    json_object *locpk;
    json_object *stat;
    bool has_stat;
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
    if (!json_object_is_type(push.rxpk, json_type_array))
        return 0;
    int result = 0;
    const size_t count = json_object_array_length(push.rxpk);
    for (size_t i = 0; i < count && result >= 0; i++)
        result = publish_uplink(push, json_object_array_get_idx(push.rxpk, i), out);
    return result;
}

static bool has_geolocation(const push_data &push)
{
    return json_object_is_type(push.locpk, json_type_array) && json_object_array_length(push.locpk) > 0;
}

/* Published as it came. */
static int publish_geolocation(const push_data &push)
{
    size_t length = 0;
    const char *text = json_object_to_json_string_length(push.locpk, JSON_C_TO_STRING_PLAIN, &length);
    if (text == nullptr) {
        BRIDGE_ERROR("failed to allocate geoloc string");
        return -1;
    }
    const int result = bridge_geoloc_publish(text, length);
    if (result < 0 && converter_ctx.cb != nullptr)
        converter_ctx.cb(1, converter_ctx.cb_context);
    return result;
}

/* `result` is that of the datagram so far, and stays so without memory. */
static int publish_statistics(const push_data &push, int result)
{
    if (push.stat == nullptr) {
        BRIDGE_ERROR("failed to deserialize statistics: %s", "null");
        BRIDGE_TRACE("failed to translate message");
        return -1;
    }
    const json_owned out(json_object_new_object());
    if (!out) {
        BRIDGE_DEBUG("failed to create statistics object");
        return result;
    }
    result = translate(push, DIRECTION_STATISTICS, push.stat, out.get());
    if (result < 0)
        return result;
    BRIDGE_TRACE("sending statistics: %s", json_object_to_json_string_ext(out.get(), JSON_C_TO_STRING_PLAIN));
    bridge_topic_build(converter_ctx.stats_topic, TOPIC_STATISTICS);
    result = publish_object_to_ns(out.get(), converter_ctx.stats_topic);
    if (result < 0) {
        BRIDGE_ERROR("failed to send stats message over mqtt");
        report_ns_failure();
    }
    return result;
}

/* A part that is absent is only traced; statistics of another kind go on and fail in their translation. */
static void find_parts(json_object *parsed, const char *text, push_data *push)
{
    if (!json_object_object_get_ex(parsed, "rxpk", &push->rxpk))
        BRIDGE_TRACE("no rxpk array in %s", text);
    push->has_stat = json_object_object_get_ex(parsed, "stat", &push->stat);
    if (!json_object_is_type(push->stat, json_type_object))
        BRIDGE_TRACE("no statistics object in %s", text);
    if (!json_object_object_get_ex(parsed, "locpk", &push->locpk))
        BRIDGE_TRACE("no geoloc object in %s", text);
}

/* The result is the last part's; after a failure earlier ones may have been published already. */
static int publish_parts(const push_data &push, json_object *out)
{
    int result = publish_uplinks(push, out);
    if (result >= 0 && has_geolocation(push))
        result = publish_geolocation(push);
    if (result >= 0 && push.has_stat)
        result = publish_statistics(push, result);
    return result;
}

int bridge_handle_push_data(uint32_t version, const uint8_t *data, size_t data_size)
{
    BRIDGE_ASSERT(data);
    BRIDGE_ASSERT(data_size > 0);
    if (data_size < MIN_PUSH_DATA) {
        BRIDGE_DEBUG("no data to handle");
        return -1;
    }
    push_data push = {.version = version};
    memcpy(push.mac, data, sizeof(push.mac));
    const char *text = reinterpret_cast<const char *>(data + SEMTECH_MAC_SIZE);
    const json_owned out(json_object_new_object());
    if (!out) {
        BRIDGE_ERROR("failed to create object");
        return -1;
    }
    BRIDGE_DEBUG("PUSH_DATA message body: %s", text);
    const json_owned parsed(parse_datagram(text));
    if (!parsed) {
        BRIDGE_ERROR("failed to allocate tokener");
        return -1;
    }
    find_parts(parsed.get(), text, &push);
    return publish_parts(push, out.get());
}

/* ---- TX_ACK ---- */

static constexpr size_t ACK_MESSAGE_SIZE = 512;
/* No text of a datagram is longer. */
static constexpr size_t ACK_STATUS_SIZE = 1024;

/* An acknowledgement that says nothing of an error is forwarded all the same, with the status "(null)". */
static int read_tx_ack_status(const char *text, char (&status)[ACK_STATUS_SIZE])
{
    BRIDGE_DEBUG("TX_ACK message body: %s", text);
    const json_owned parsed(parse_datagram(text));
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
    if (value == nullptr)
        value = "(null)";
    else if (strcmp(value, "NONE") == 0)
        value = "OK";
    snprintf(status, sizeof(status), "%s", value);
    return 0;
}

static int forward_tx_ack(uint16_t token, const uint8_t *mac, const char *status)
{
    char mac_b64[16];
    const int rc = Base64encode(mac_b64, reinterpret_cast<const char *>(mac), SEMTECH_MAC_SIZE);
    BRIDGE_ASSERT_TEXT(rc >= 0 && static_cast<size_t>(rc) < sizeof(mac_b64),
                       "rc >= 0 && (size_t)rc < sizeof(mac_b64)");
    BRIDGE_TRACE("mac encoded: %s", mac_b64);
    char ack_buf[ACK_MESSAGE_SIZE];
    const int n = snprintf(ack_buf, sizeof(ack_buf),
                           "{ \"gatewayID\": \"%s\", \"token\": %u, \"items\": [ { \"status\": \"%s\" } ] }",
                           mac_b64, static_cast<unsigned>(token), status);
    if (static_cast<size_t>(n) >= sizeof(ack_buf)) {
        BRIDGE_ERROR("status of TX_ACK is too long: %zu", strlen(status));
        return -1;
    }
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

/* Only ChirpStack version 3 hears of what became of a downlink. */
int bridge_handle_tx_ack(uint16_t token, const uint8_t *data, size_t data_size)
{
    const uint32_t ns_type = bridge_config_get_root_checked()->ns.ns_type;
    if (ns_type == NS_TYPE_SNVNS || ns_type == NS_TYPE_CHIRPSTACK_V2)
        return 0;
    BRIDGE_ASSERT_TEXT(ns_type == NS_TYPE_CHIRPSTACK_V3, "0");
    if (data_size < MIN_TX_ACK) {
        BRIDGE_DEBUG("no data to handle: %zu", data_size);
        return -1;
    }
    uint8_t mac[SEMTECH_MAC_SIZE];
    memcpy(mac, data, sizeof(mac));
    char status[ACK_STATUS_SIZE] = "OK";
    if (data_size < MIN_TX_ACK_JSON) {
        BRIDGE_DEBUG("TX_ACK contains no JSON");
    } else {
        const int result =
            read_tx_ack_status(reinterpret_cast<const char *>(data + SEMTECH_MAC_SIZE), status);
        if (result < 0)
            return result;
    }
    return forward_tx_ack(token, mac, status);
}
