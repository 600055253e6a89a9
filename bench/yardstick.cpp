/* The bridges that the daemon is measured against: the same sockets and the same MQTT library, and nothing
 * of the daemon's own work. One thread receives, publishes and acknowledges; downlinks leave on the
 * library's thread. Usage: bench_yardstick plain|paced|parsed MQTT_URI UDP_PORT TOPIC_PREFIX */
#include <MQTTClient.h>
#include <arpa/inet.h>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <json-c/json.h>
#include <memory>
#include <span>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

static constexpr size_t HEADER_SIZE = 12; /* version, token, identifier, gateway MAC */
static constexpr size_t DATAGRAM_MAX = 1024;
static constexpr size_t DOWNLINK_MAX = 4096;
static constexpr int IN_FLIGHT_MAX = 10; /* the library's own limit with `reliable` off */
static constexpr useconds_t PAUSE_US = 50;

enum packet_identifier : uint8_t {
    PUSH_DATA = 0,
    PUSH_ACK = 1,
    PULL_DATA = 2,
    PULL_RESP = 3,
    PULL_ACK = 4,
};

enum class bridge_mode { plain, paced, parsed };

struct yardstick_context {
    bridge_mode mode;
    MQTTClient client;
    int sock;
    char uplink_topic[64];
    char downlink_topic[64];
    int room;                        /* publishes that cannot wait inside the library */
    std::atomic<uint64_t> forwarder; /* address and port of the last PULL_DATA, in one word for two threads */
};

static yardstick_context ctx = {};

struct json_release {
    void operator()(json_object *object) const
    {
        json_object_put(object);
    }
};
using json_owned = std::unique_ptr<json_object, json_release>;

static uint64_t pack_address(const sockaddr_in &address)
{
    return (static_cast<uint64_t>(address.sin_addr.s_addr) << 16) | address.sin_port;
}

static sockaddr_in unpack_address(uint64_t packed)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = static_cast<in_addr_t>(packed >> 16);
    address.sin_port = static_cast<in_port_t>(packed & 0xffff);
    return address;
}

static void send_to(const sockaddr_in &address, const void *data, size_t size)
{
    sendto(ctx.sock, data, size, 0, reinterpret_cast<const sockaddr *>(&address), sizeof(address));
}

/* Keeps the library's window full without entering its own wait, a loop of 100 ms sleeps. */
static void wait_for_room()
{
    while (ctx.room <= 0) {
        MQTTClient_deliveryToken *tokens = nullptr;
        int pending = 0;
        if (MQTTClient_getPendingDeliveryTokens(ctx.client, &tokens) == MQTTCLIENT_SUCCESS &&
            tokens != nullptr) {
            while (tokens[pending] != -1)
                pending++;
            MQTTClient_free(tokens);
        }
        ctx.room = IN_FLIGHT_MAX - pending;
        if (ctx.room <= 0)
            usleep(PAUSE_US);
    }
    ctx.room--;
}

static bool publish(std::string_view payload)
{
    if (ctx.mode != bridge_mode::plain)
        wait_for_room();
    MQTTClient_message message = MQTTClient_message_initializer;
    message.payload = const_cast<char *>(payload.data());
    message.payloadlen = static_cast<int>(payload.size());
    message.qos = 1;
    return MQTTClient_publishMessage(ctx.client, ctx.uplink_topic, &message, nullptr) == MQTTCLIENT_SUCCESS;
}

static bool publish_parsed(const char *text)
{
    const json_owned datagram(json_tokener_parse(text));
    json_object *rxpk = nullptr;
    if (!json_object_object_get_ex(datagram.get(), "rxpk", &rxpk) ||
        !json_object_is_type(rxpk, json_type_array))
        return datagram != nullptr;
    const size_t count = json_object_array_length(rxpk);
    for (size_t i = 0; i < count; i++) {
        json_object *packet = json_object_array_get_idx(rxpk, i);
        if (!publish(json_object_to_json_string_ext(packet, JSON_C_TO_STRING_PLAIN)))
            return false;
    }
    return true;
}

static void acknowledge(const sockaddr_in &sender, const char *datagram, packet_identifier identifier)
{
    const std::array<char, 4> ack = {datagram[0], datagram[1], datagram[2], static_cast<char>(identifier)};
    send_to(sender, ack.data(), ack.size());
}

/* `datagram` is terminated by a zero byte behind its `size` bytes. */
static void handle_datagram(const sockaddr_in &sender, const char *datagram, size_t size)
{
    if (size >= 4 && datagram[3] == PULL_DATA) {
        ctx.forwarder = pack_address(sender);
        acknowledge(sender, datagram, PULL_ACK);
        return;
    }
    if (size <= HEADER_SIZE || datagram[3] != PUSH_DATA)
        return;
    const char *text = datagram + HEADER_SIZE;
    const bool published = ctx.mode == bridge_mode::parsed
                               ? publish_parsed(text)
                               : publish(std::string_view(text, size - HEADER_SIZE));
    if (published)
        acknowledge(sender, datagram, PUSH_ACK);
}

static void send_pull_resp(std::string_view text)
{
    const uint64_t forwarder = ctx.forwarder;
    std::array<char, DOWNLINK_MAX> datagram = {2, 0, 0, PULL_RESP};
    const size_t size = 4 + text.size() + 1;
    if (forwarder == 0 || size > datagram.size())
        return;
    memcpy(datagram.data() + 4, text.data(), text.size());
    send_to(unpack_address(forwarder), datagram.data(), size);
}

static int message_arrived(void *, char *topic, int, MQTTClient_message *message)
{
    const std::string_view payload(static_cast<const char *>(message->payload),
                                   static_cast<size_t>(message->payloadlen));
    if (ctx.mode == bridge_mode::parsed) {
        json_tokener *tokener = json_tokener_new();
        const json_owned parsed(json_tokener_parse_ex(tokener, payload.data(), message->payloadlen));
        json_tokener_free(tokener);
        if (parsed != nullptr)
            send_pull_resp(json_object_to_json_string_ext(parsed.get(), JSON_C_TO_STRING_PLAIN));
    } else {
        send_pull_resp(payload);
    }
    MQTTClient_freeMessage(&message);
    MQTTClient_free(topic);
    return 1;
}

static void connection_lost(void *, char *)
{
}

static bool connect_server(const char *uri, const char *client_id)
{
    MQTTClient_SSLOptions ssl = MQTTClient_SSLOptions_initializer;
    ssl.enableServerCertAuth = 1;
    ssl.verify = 1;
    MQTTClient_connectOptions options = MQTTClient_connectOptions_initializer;
    options.keepAliveInterval = 60;
    options.cleansession = 1;
    options.reliable = 0;
    options.username = "";
    options.password = "";
    options.ssl = &ssl;
    if (MQTTClient_create(&ctx.client, uri, client_id, MQTTCLIENT_PERSISTENCE_NONE, nullptr) != 0)
        return false;
    return MQTTClient_setCallbacks(ctx.client, nullptr, connection_lost, message_arrived, nullptr) == 0 &&
           MQTTClient_connect(ctx.client, &options) == 0 &&
           MQTTClient_subscribe(ctx.client, ctx.downlink_topic, 2) == 0;
}

static bool open_socket(const char *port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<uint16_t>(strtoul(port, nullptr, 10)));
    ctx.sock = socket(AF_INET, SOCK_DGRAM, 0);
    return ctx.sock >= 0 && bind(ctx.sock, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
}

static bool select_mode(std::string_view name)
{
    static constexpr std::array<std::string_view, 3> names = {"plain", "paced", "parsed"};
    for (size_t i = 0; i < names.size(); i++) {
        if (names[i] == name) {
            ctx.mode = static_cast<bridge_mode>(i);
            return true;
        }
    }
    return false;
}

int main(int argc, char **argv)
{
    const std::span<char *> arguments(argv, static_cast<size_t>(argc));
    if (arguments.size() != 5 || !select_mode(arguments[1])) {
        fprintf(stderr, "usage: bench_yardstick plain|paced|parsed MQTT_URI UDP_PORT TOPIC_PREFIX\n");
        return 2;
    }
    snprintf(ctx.uplink_topic, sizeof(ctx.uplink_topic), "%s/rx", arguments[4]);
    snprintf(ctx.downlink_topic, sizeof(ctx.downlink_topic), "%s/tx", arguments[4]);
    ctx.room = IN_FLIGHT_MAX;
    if (!connect_server(arguments[2], arguments[4]) || !open_socket(arguments[3])) {
        fprintf(stderr, "bench_yardstick: cannot connect or bind\n");
        return 1;
    }

    std::array<char, DATAGRAM_MAX> buffer;
    for (;;) {
        sockaddr_in sender = {};
        socklen_t length = sizeof(sender);
        const ssize_t size = recvfrom(ctx.sock, buffer.data(), buffer.size() - 1, 0,
                                      reinterpret_cast<sockaddr *>(&sender), &length);
        if (size < 0)
            continue;
        buffer[static_cast<size_t>(size)] = '\0';
        handle_datagram(sender, buffer.data(), static_cast<size_t>(size));
    }
}
