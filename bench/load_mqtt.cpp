#include "load_mqtt.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

enum mqtt_packet : uint8_t {
    MQTT_CONNECT = 1,
    MQTT_CONNACK = 2,
    MQTT_PUBLISH = 3,
    MQTT_SUBSCRIBE = 8,
    MQTT_SUBACK = 9,
};

static constexpr uint8_t QOS_1 = 0x02; /* in the flags of a PUBLISH */
static constexpr uint8_t SUBSCRIBE_FLAGS = 0x02;
static constexpr int ANSWER_TIMEOUT_MS = 5000;

[[noreturn]] static void fail(const char *what)
{
    fprintf(stderr, "bench_load: mqtt: %s: %m\n", what);
    exit(1);
}

static void put_u16(std::vector<uint8_t> *packet, size_t value)
{
    packet->push_back(static_cast<uint8_t>(value >> 8));
    packet->push_back(static_cast<uint8_t>(value));
}

static void put_text(std::vector<uint8_t> *packet, std::string_view text)
{
    put_u16(packet, text.size());
    packet->insert(packet->end(), text.begin(), text.end());
}

static void send_packet(load_mqtt *mqtt, mqtt_packet type, uint8_t flags, const std::vector<uint8_t> &body)
{
    std::vector<uint8_t> packet = {static_cast<uint8_t>(type << 4 | flags)};
    size_t left = body.size();
    do {
        const auto digit = static_cast<uint8_t>(left & 0x7f);
        left >>= 7;
        packet.push_back(static_cast<uint8_t>(digit | (left > 0 ? 0x80 : 0)));
    } while (left > 0);
    packet.insert(packet.end(), body.begin(), body.end());

    size_t sent = 0;
    while (sent < packet.size()) {
        const ssize_t written = send(mqtt->sock, packet.data() + sent, packet.size() - sent, MSG_NOSIGNAL);
        if (written < 0)
            fail("send");
        sent += static_cast<size_t>(written);
    }
}

/* Sizes of the first packet in `bytes`, or false while it is not complete. */
static bool measure_packet(const std::vector<uint8_t> &bytes, size_t start, size_t *header, size_t *body)
{
    size_t length = 0;
    for (size_t i = 1; i < 5; i++) {
        if (start + i >= bytes.size())
            return false;
        length |= static_cast<size_t>(bytes[start + i] & 0x7f) << (7 * (i - 1));
        if ((bytes[start + i] & 0x80) == 0) {
            *header = i + 1;
            *body = length;
            return start + *header + length <= bytes.size();
        }
    }
    fail("malformed packet");
}

static bool receive(load_mqtt *mqtt)
{
    std::array<uint8_t, 65536> chunk;
    const ssize_t size = recv(mqtt->sock, chunk.data(), chunk.size(), MSG_DONTWAIT);
    if (size == 0 || (size < 0 && errno != EAGAIN && errno != EINTR))
        fail("connection lost");
    if (size > 0)
        mqtt->received.insert(mqtt->received.end(), chunk.begin(), chunk.begin() + size);
    return size > 0;
}

static void wait_for(load_mqtt *mqtt, mqtt_packet type)
{
    size_t header = 0;
    size_t body = 0;
    while (!measure_packet(mqtt->received, 0, &header, &body)) {
        pollfd watched = {mqtt->sock, POLLIN, 0};
        if (poll(&watched, 1, ANSWER_TIMEOUT_MS) <= 0)
            fail("no answer");
        receive(mqtt);
    }
    if (mqtt->received[0] >> 4 != type || body < 2)
        fail("unexpected answer");
    if (type == MQTT_CONNACK && mqtt->received[header + 1] != 0)
        fail("connection refused");
    mqtt->received.erase(mqtt->received.begin(), mqtt->received.begin() + static_cast<long>(header + body));
}

void load_mqtt_connect(load_mqtt *mqtt, uint16_t port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    mqtt->sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(mqtt->sock, reinterpret_cast<sockaddr *>(&address), sizeof(address)) < 0)
        fail("connect");
    const int on = 1;
    setsockopt(mqtt->sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));

    std::vector<uint8_t> body;
    put_text(&body, "MQTT");
    body.insert(body.end(), {4, 2, 0, 0}); /* version 3.1.1, clean session, no keep-alive */
    put_text(&body, "");
    send_packet(mqtt, MQTT_CONNECT, 0, body);
    wait_for(mqtt, MQTT_CONNACK);
}

void load_mqtt_subscribe(load_mqtt *mqtt, std::string_view topic)
{
    std::vector<uint8_t> body;
    put_u16(&body, ++mqtt->packet_id);
    put_text(&body, topic);
    body.push_back(0);
    send_packet(mqtt, MQTT_SUBSCRIBE, SUBSCRIBE_FLAGS, body);
    wait_for(mqtt, MQTT_SUBACK);
}

void load_mqtt_publish(load_mqtt *mqtt, std::string_view topic, std::string_view payload)
{
    std::vector<uint8_t> body;
    put_text(&body, topic);
    if (++mqtt->packet_id == 0)
        ++mqtt->packet_id;
    put_u16(&body, mqtt->packet_id);
    body.insert(body.end(), payload.begin(), payload.end());
    send_packet(mqtt, MQTT_PUBLISH, QOS_1, body);
}

void load_mqtt_read(load_mqtt *mqtt, std::vector<std::string> *payloads)
{
    while (receive(mqtt))
        ;
    size_t start = 0;
    size_t header = 0;
    size_t body = 0;
    const std::vector<uint8_t> &bytes = mqtt->received;
    while (measure_packet(bytes, start, &header, &body)) {
        const size_t at = start + header;
        if (bytes[start] >> 4 == MQTT_PUBLISH && body >= 2) {
            const size_t skipped = 2 + static_cast<size_t>(bytes[at] << 8 | bytes[at + 1]);
            payloads->emplace_back(bytes.begin() + static_cast<long>(at + skipped),
                                   bytes.begin() + static_cast<long>(at + body));
        }
        start += header + body;
    }
    mqtt->received.erase(mqtt->received.begin(), mqtt->received.begin() + static_cast<long>(start));
}
