/* Opens many MQTT connections at once, as a fleet does after a restart of its server: TCP, TLS if wanted,
 * CONNECT, and the subscriptions of a gateway. Prints one line of JSON when all stand, and holds them until
 * its standard input ends. */
#include "fleet_tool.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <openssl/ssl.h>
#include <string>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

static constexpr size_t PORTS_OF_AN_ADDRESS = 20'000;
static constexpr int SILENCE_MS = 20'000;
static constexpr uint8_t CONNECT = 0x10, CONNACK = 0x20, SUBSCRIBE = 0x82, SUBACK = 0x90;
static constexpr uint8_t KEEPALIVE_HIGH = 0x0e; /* an hour: idle means idle */
static constexpr uint8_t QOS_2 = 2;
static constexpr std::array<const char *, 4> TOPICS = {"api/capabilities", "api/v1/gateway/commands",
                                                       "api/v1/gateway/configuration", "command/down"};

struct storm_options {
    double mqtt_port = 0;
    double count = 100;
    double in_flight = 64; /* never more on their way */
    double tls = 0;
};

struct ssl_deleter {
    void operator()(SSL *ssl) const
    {
        SSL_free(ssl);
    }
};

struct storm_client {
    int sock = -1;
    std::unique_ptr<SSL, ssl_deleter> ssl;
    bool connected = false; /* the socket, and TLS */
    bool asked = false;     /* for what is not answered yet */
    size_t answers = 0;
    std::string received;
    int64_t started = 0;
};

struct storm_context {
    storm_options options;
    int epoll = -1;
    SSL_CTX *tls = nullptr;
    std::vector<storm_client> clients;
    std::vector<int64_t> latencies;
    size_t started = 0;
};

/* ---- MQTT ---- */

static void put_text(std::string *packet, const std::string &text)
{
    packet->push_back(static_cast<char>(text.size() >> 8));
    packet->push_back(static_cast<char>(text.size()));
    *packet += text;
}

/* No body here is longer than 127 bytes. */
static std::string framed(uint8_t type, const std::string &body)
{
    return std::string{static_cast<char>(type), static_cast<char>(body.size())} + body;
}

static std::string connect_packet(const std::string &id)
{
    std::string body;
    put_text(&body, "MQTT");
    body += {4, 2, KEEPALIVE_HIGH, 0};
    put_text(&body, id);
    return framed(CONNECT, body);
}

/* A gateway subscribes to one topic after the other, too. */
static std::string subscribe_packet(size_t number, const std::string &id)
{
    const bool own = number + 1 == TOPICS.size();
    std::string body = {0, static_cast<char>(number + 1)};
    put_text(&body, (own ? "gateway/" + id + "/" : std::string()) + TOPICS.at(number));
    body.push_back(QOS_2);
    return framed(SUBSCRIBE, body);
}

/* ---- one connection ---- */

static ssize_t read_some(storm_client *client, std::span<char> buffer)
{
    if (!client->ssl)
        return recv(client->sock, buffer.data(), buffer.size(), 0);
    const int size = SSL_read(client->ssl.get(), buffer.data(), static_cast<int>(buffer.size()));
    if (size > 0)
        return size;
    errno = SSL_get_error(client->ssl.get(), size) == SSL_ERROR_WANT_READ ? EAGAIN : EPROTO;
    return -1;
}

static void write_packet(storm_client *client, const std::string &packet)
{
    const ssize_t size = client->ssl
                             ? SSL_write(client->ssl.get(), packet.data(), static_cast<int>(packet.size()))
                             : send(client->sock, packet.data(), packet.size(), MSG_NOSIGNAL);
    if (size != static_cast<ssize_t>(packet.size()))
        fleet_fail("send");
}

/* Returns whether the socket, and TLS, stand. */
static bool finish_connecting(storm_client *client)
{
    int error = 0;
    socklen_t size = sizeof(error);
    getsockopt(client->sock, SOL_SOCKET, SO_ERROR, &error, &size);
    if (error != 0) {
        errno = error;
        fleet_fail("connect");
    }
    if (!client->ssl)
        return true;
    const int result = SSL_connect(client->ssl.get());
    if (result != 1 && SSL_get_error(client->ssl.get(), result) != SSL_ERROR_WANT_READ)
        fleet_fail("TLS");
    return result == 1;
}

/* The answer's code is the last of its fields. */
static bool is_granted(const std::string &received, uint8_t type)
{
    const auto code = static_cast<uint8_t>(received[type == CONNACK ? 3 : 4]);
    return static_cast<uint8_t>(received[0]) == type && (type == CONNACK ? code == 0 : code <= QOS_2);
}

static void count_answers(storm_client *client)
{
    std::array<char, 256> buffer;
    ssize_t size = 0;
    while ((size = read_some(client, buffer)) > 0)
        client->received.append(buffer.data(), static_cast<size_t>(size));
    if (size == 0 || errno != EAGAIN)
        fleet_fail("connection lost");
    const uint8_t type = client->answers == 0 ? CONNACK : SUBACK;
    const size_t wanted = type == CONNACK ? 4 : 5;
    if (client->received.size() < wanted)
        return;
    if (!is_granted(client->received, type))
        fleet_fail("refused");
    client->received.erase(0, wanted);
    client->answers++;
    client->asked = false;
}

static void watch(const storm_context &ctx, size_t index, int operation, uint32_t events)
{
    epoll_event event = {.events = events, .data = {.u64 = index}};
    if (epoll_ctl(ctx.epoll, operation, ctx.clients[index].sock, &event) < 0)
        fleet_fail("epoll");
}

static void start(storm_context *ctx)
{
    const size_t index = ctx->started++;
    storm_client *client = &ctx->clients[index];
    client->started = fleet_now_ns();
    client->sock =
        fleet_open_socket(SOCK_STREAM | SOCK_NONBLOCK, static_cast<uint16_t>(ctx->options.mqtt_port),
                          static_cast<uint8_t>(1 + index / PORTS_OF_AN_ADDRESS));
    if (ctx->tls != nullptr) {
        client->ssl.reset(SSL_new(ctx->tls));
        SSL_set_fd(client->ssl.get(), client->sock);
    }
    watch(*ctx, index, EPOLL_CTL_ADD, EPOLLOUT);
}

static void advance(storm_context *ctx, size_t index)
{
    storm_client *client = &ctx->clients[index];
    const std::string id = fleet_mac(index);
    if (!client->connected) {
        client->connected = finish_connecting(client);
        watch(*ctx, index, EPOLL_CTL_MOD, EPOLLIN);
        if (!client->connected)
            return;
        write_packet(client, connect_packet(id));
        client->asked = true;
    }
    count_answers(client);
    if (client->asked)
        return;
    if (client->answers <= TOPICS.size()) {
        write_packet(client, subscribe_packet(client->answers - 1, id));
        client->asked = true;
        return;
    }
    ctx->latencies.push_back(fleet_now_ns() - client->started);
    epoll_ctl(ctx->epoll, EPOLL_CTL_DEL, client->sock, nullptr);
}

/* ---- all of them ---- */

static void run(storm_context *ctx)
{
    while (ctx->latencies.size() < ctx->clients.size()) {
        while (ctx->started < ctx->clients.size() &&
               static_cast<double>(ctx->started - ctx->latencies.size()) < ctx->options.in_flight)
            start(ctx);
        std::array<epoll_event, 64> events;
        const int count = epoll_wait(ctx->epoll, events.data(), static_cast<int>(events.size()), SILENCE_MS);
        if (count <= 0)
            fleet_fail("no answer");
        for (int i = 0; i < count; i++)
            advance(ctx, events.at(static_cast<size_t>(i)).data.u64);
    }
}

int main(int argc, char **argv)
{
    storm_context ctx;
    const fleet_option options[] = {
        {"--mqtt-port", &ctx.options.mqtt_port},
        {"--count", &ctx.options.count},
        {"--in-flight", &ctx.options.in_flight},
        {"--tls", &ctx.options.tls},
    };
    fleet_read_options({argv, static_cast<size_t>(argc)}, options);
    signal(SIGPIPE, SIG_IGN);
    ctx.epoll = epoll_create1(EPOLL_CLOEXEC);
    ctx.clients.resize(static_cast<size_t>(ctx.options.count));
    if (ctx.options.tls != 0)
        ctx.tls = SSL_CTX_new(TLS_client_method());
    const int64_t begin = fleet_now_ns();
    run(&ctx);
    const double seconds = static_cast<double>(fleet_now_ns() - begin) / FLEET_NS_PER_S;
    printf("{\"count\":%zu,\"seconds\":%.3f,\"per_second\":%.1f,", ctx.clients.size(), seconds,
           static_cast<double>(ctx.clients.size()) / seconds);
    fleet_print_latencies(&ctx.latencies);
    printf("\"tls\":\"%s\"}\n", ctx.tls != nullptr ? SSL_get_cipher(ctx.clients[0].ssl.get()) : "");
    fflush(stdout);
    while (getchar() != EOF)
        ;
    return 0;
}
