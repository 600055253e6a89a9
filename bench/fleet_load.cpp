/* Plays the packet forwarders of a fleet of daemons, each with a socket of its own; or, without daemons, the
 * gateways themselves, as plain MQTT clients. Uplinks come at random times, at the rate that is asked for,
 * however long their answers take; a subscriber takes the time at which each arrives. Prints "measuring" when
 * all gateways forward, and one line of JSON at the end. */
#include "fleet_tool.h"
#include "load_mqtt.h"
#include "load_traffic.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

static constexpr const char *UPLINK_TOPIC = "gateway/+/event/up";
static constexpr const char *STATISTICS = R"({"stat":{"time":"2025-03-14 09:27:00 GMT","lati":47.36667,)"
                                          R"("long":8.55,"alti":408,"rxnb":12,"rxok":11,"rxfw":11,)"
                                          R"("ackr":100.0,"dwnb":2,"txnb":2}})";
/* A packet forwarder's usual intervals. */
static constexpr double KEEPALIVE_S = 10;
static constexpr double STATISTICS_S = 30;

static constexpr double PROBE_S = 0.5;
static constexpr double READY_LIMIT_S = 180;
static constexpr int SILENCE_MS = 300;
static constexpr double LAST_ONES_S = 5;
static constexpr size_t AT_ONCE = 64; /* sent before the answers are looked at */
static constexpr size_t HEADER_SIZE = 12;
static constexpr char PUSH_ACK = 1;
static constexpr size_t FIRST_NUMBER = 1'000'000'000; /* what stands for 0 in an uplink */
static constexpr size_t UNPADDED = sizeof("{\"timestamp\":1000000000,}") - 1;
static constexpr int64_t DRAIN_NS = 50'000'000;
static constexpr uint32_t SUBSCRIBER = UINT32_MAX;

struct fleet_options {
    double mqtt_port = 0;
    double first_port = 0; /* of the daemons; 0: there are none, publish */
    double gateways = 1;
    double rate = 0; /* uplinks a second, of all gateways together */
    double seconds = 10;
    double payload = 400; /* bytes of a publish */
};

struct fleet_context {
    fleet_options options;
    size_t gateways = 0;
    size_t base = 0; /* number of the first uplink: what a former run left under way is not mistaken */
    int epoll = -1;
    load_mqtt subscriber;
    std::vector<int> socks;
    std::vector<load_mqtt> publishers;
    std::vector<std::string> topics;
    std::string padding;
    int64_t drained = 0; /* when the publishers' acknowledgements were last read */
    std::vector<std::string> payloads;
    std::vector<bool> answered;
    std::vector<int64_t> sent; /* by number; 0 when it has been seen */
    std::vector<int64_t> latencies;
    size_t pushes = 0;
    size_t acks = 0;
    size_t seen_bytes = 0;
    int64_t latest_ns = 0; /* how far the load was behind its own times */
};

static bool has_daemons(const fleet_context &ctx)
{
    return ctx.options.first_port > 0;
}

static int64_t to_ns(double seconds)
{
    return static_cast<int64_t>(seconds * static_cast<double>(FLEET_NS_PER_S));
}

/* ---- receiving ---- */

static void see_uplinks(fleet_context *ctx)
{
    ctx->payloads.clear();
    load_mqtt_read(&ctx->subscriber, &ctx->payloads);
    const int64_t now = fleet_now_ns();
    for (const std::string &payload : ctx->payloads) {
        load_find_numbers(payload, [ctx, now, &payload](size_t number) {
            const size_t index = number - ctx->base;
            if (number < ctx->base || index >= ctx->sent.size() || ctx->sent[index] == 0)
                return;
            ctx->latencies.push_back(now - ctx->sent[index]);
            ctx->sent[index] = 0;
            ctx->seen_bytes += payload.size();
        });
    }
}

/* A daemon that does not listen yet shows as an error of the send before. */
static void read_answers(fleet_context *ctx, size_t gateway)
{
    std::array<char, 2048> buffer;
    for (;;) {
        const ssize_t size = recv(ctx->socks[gateway], buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (size < 0 && errno != ECONNREFUSED)
            return;
        if (size >= 4 && buffer[3] == PUSH_ACK) {
            ctx->answered[gateway] = true;
            ctx->acks++;
        }
    }
}

/* Nobody waits for them: reading each as it comes would cost the load as much as all the rest. */
static void read_acknowledgements(fleet_context *ctx)
{
    const int64_t now = fleet_now_ns();
    if (now - ctx->drained < DRAIN_NS)
        return;
    ctx->drained = now;
    ctx->payloads.clear();
    for (load_mqtt &publisher : ctx->publishers)
        load_mqtt_read(&publisher, &ctx->payloads);
}

/* Returns how many sockets had something. */
static int receive(fleet_context *ctx, int64_t wait_ns)
{
    std::array<epoll_event, 64> events;
    wait_ns = std::max(wait_ns, int64_t{0});
    const timespec wait = {.tv_sec = wait_ns / FLEET_NS_PER_S, .tv_nsec = wait_ns % FLEET_NS_PER_S};
    const int count =
        epoll_pwait2(ctx->epoll, events.data(), static_cast<int>(events.size()), &wait, nullptr);
    for (int i = 0; i < count; i++) {
        const uint32_t gateway = events.at(static_cast<size_t>(i)).data.u32;
        if (gateway == SUBSCRIBER)
            see_uplinks(ctx);
        else
            read_answers(ctx, gateway);
    }
    read_acknowledgements(ctx);
    return count;
}

/* ---- sending ---- */

/* Every gateway has its own MAC, in the datagram as in its configuration. */
static void send_datagram(fleet_context *ctx, size_t gateway, std::string datagram)
{
    const std::string mac = fleet_mac(gateway);
    for (size_t i = 0; i < mac.size() / 2; i++)
        datagram[4 + i] = static_cast<char>(strtoul(mac.substr(2 * i, 2).c_str(), nullptr, 16));
    send(ctx->socks[gateway], datagram.data(), datagram.size(), MSG_DONTWAIT);
}

static void send_uplink(fleet_context *ctx, size_t gateway)
{
    const size_t number = ctx->base + ctx->sent.size();
    ctx->pushes++;
    if (has_daemons(*ctx)) {
        ctx->sent.push_back(fleet_now_ns());
        send_datagram(ctx, gateway, load_push_data(static_cast<uint16_t>(number), number, 1));
        return;
    }
    const std::string payload = "{\"timestamp\":" + std::to_string(FIRST_NUMBER + number) + ctx->padding;
    ctx->sent.push_back(fleet_now_ns());
    load_mqtt_publish(&ctx->publishers[gateway], ctx->topics[gateway], payload);
}

static void send_keepalive(fleet_context *ctx, size_t gateway)
{
    send_datagram(ctx, gateway, load_pull_data(0));
}

static void send_statistics(fleet_context *ctx, size_t gateway)
{
    ctx->pushes++;
    send_datagram(ctx, gateway, load_push_data(0, 0, 0).substr(0, HEADER_SIZE) + STATISTICS);
}

/* What goes out again and again: each gateway in its turn, or any of them at any time. */
struct fleet_stream {
    double per_second;
    bool random;
    void (*send)(fleet_context *ctx, size_t gateway);
    int64_t due;
    size_t turn;
};

static void send_due(fleet_context *ctx, fleet_stream *stream, std::minstd_rand *numbers, int64_t now)
{
    for (size_t i = 0; i < AT_ONCE && stream->due <= now; i++) {
        ctx->latest_ns = std::max(ctx->latest_ns, now - stream->due);
        double gap = 1 / stream->per_second;
        size_t gateway = stream->turn++ % ctx->gateways;
        if (stream->random) {
            gap = std::exponential_distribution<double>(stream->per_second)(*numbers);
            gateway = (*numbers)() % ctx->gateways;
        }
        stream->send(ctx, gateway);
        stream->due += to_ns(gap);
    }
}

/* ---- one run ---- */

static void open_gateways(fleet_context *ctx)
{
    ctx->epoll = epoll_create1(EPOLL_CLOEXEC);
    const auto watch = [ctx](int sock, uint32_t gateway) {
        epoll_event event = {.events = EPOLLIN, .data = {.u32 = gateway}};
        if (epoll_ctl(ctx->epoll, EPOLL_CTL_ADD, sock, &event) < 0)
            fleet_fail("epoll");
    };
    const auto mqtt_port = static_cast<uint16_t>(ctx->options.mqtt_port);
    load_mqtt_connect(&ctx->subscriber, mqtt_port);
    load_mqtt_subscribe(&ctx->subscriber, UPLINK_TOPIC);
    watch(ctx->subscriber.sock, SUBSCRIBER);
    ctx->publishers.resize(has_daemons(*ctx) ? 0 : ctx->gateways);
    for (size_t i = 0; i < ctx->gateways; i++) {
        if (has_daemons(*ctx)) {
            const auto port = static_cast<uint16_t>(ctx->options.first_port + static_cast<double>(i));
            ctx->socks.push_back(fleet_open_socket(SOCK_DGRAM, port, 1));
            watch(ctx->socks[i], static_cast<uint32_t>(i));
        } else {
            load_mqtt_connect(&ctx->publishers[i], mqtt_port);
            ctx->topics.push_back("gateway/" + fleet_mac(i) + "/event/up");
        }
    }
}

/* An uplink is acknowledged when it has been published. */
static void wait_until_all_forward(fleet_context *ctx)
{
    ctx->answered.assign(ctx->gateways, !has_daemons(*ctx));
    const int64_t limit = fleet_now_ns() + to_ns(READY_LIMIT_S);
    while (std::ranges::count(ctx->answered, false) > 0) {
        if (fleet_now_ns() > limit) {
            errno = ETIMEDOUT;
            fleet_fail("not all daemons forward");
        }
        for (size_t i = 0; i < ctx->gateways; i++) {
            if (!ctx->answered[i])
                send_uplink(ctx, i);
        }
        const int64_t next = fleet_now_ns() + to_ns(PROBE_S);
        while (fleet_now_ns() < next && std::ranges::count(ctx->answered, false) > 0)
            receive(ctx, next - fleet_now_ns());
    }
    while (receive(ctx, int64_t{SILENCE_MS} * 1'000'000) > 0)
        ;
    ctx->base += ctx->sent.size();
    ctx->sent.clear();
    ctx->latencies.clear();
    ctx->pushes = ctx->acks = ctx->seen_bytes = 0;
}

static void run(fleet_context *ctx)
{
    const auto gateways = static_cast<double>(ctx->gateways);
    const int64_t start = fleet_now_ns();
    std::vector<fleet_stream> streams;
    if (ctx->options.rate > 0)
        streams.push_back({ctx->options.rate, true, send_uplink, start, 0});
    if (has_daemons(*ctx)) {
        streams.push_back({gateways / KEEPALIVE_S, false, send_keepalive, start, 0});
        streams.push_back({gateways / STATISTICS_S, false, send_statistics, start, 0});
    }
    std::minstd_rand numbers(1);
    const int64_t end = start + to_ns(ctx->options.seconds);
    for (int64_t now = start; now < end; now = fleet_now_ns()) {
        int64_t next = end;
        for (fleet_stream &stream : streams) {
            send_due(ctx, &stream, &numbers, now);
            next = std::min(next, stream.due);
        }
        receive(ctx, next - fleet_now_ns());
    }
    const int64_t limit = fleet_now_ns() + to_ns(LAST_ONES_S);
    while (fleet_now_ns() < limit &&
           (ctx->latencies.size() < ctx->sent.size() || (has_daemons(*ctx) && ctx->acks < ctx->pushes)))
        receive(ctx, limit - fleet_now_ns());
}

static void print_result(fleet_context *ctx)
{
    timespec cpu = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu);
    const size_t seen = ctx->latencies.size();
    printf("{\"sent\":%zu,\"lost\":%zu,\"unacked\":%zu,", ctx->sent.size(), ctx->sent.size() - seen,
           has_daemons(*ctx) ? ctx->pushes - ctx->acks : 0);
    fleet_print_latencies(&ctx->latencies);
    printf("\"payload\":%zu,\"late_ms\":%.3f,\"cpu_s\":%.3f}\n", seen == 0 ? 0 : ctx->seen_bytes / seen,
           static_cast<double>(ctx->latest_ns) / 1e6,
           static_cast<double>(cpu.tv_sec) + static_cast<double>(cpu.tv_nsec) / 1e9);
}

int main(int argc, char **argv)
{
    fleet_context ctx;
    const fleet_option options[] = {
        {"--mqtt-port", &ctx.options.mqtt_port}, {"--first-port", &ctx.options.first_port},
        {"--gateways", &ctx.options.gateways},   {"--rate", &ctx.options.rate},
        {"--seconds", &ctx.options.seconds},     {"--payload", &ctx.options.payload},
    };
    fleet_read_options({argv, static_cast<size_t>(argc)}, options);
    ctx.gateways = static_cast<size_t>(ctx.options.gateways);
    ctx.padding = "," + std::string(static_cast<size_t>(ctx.options.payload), ' ') + "}";
    ctx.padding.erase(1, std::min(UNPADDED, ctx.padding.size() - 2));
    ctx.base = static_cast<size_t>(getpid()) % 1000 * 3'000'000;
    open_gateways(&ctx);
    wait_until_all_forward(&ctx);
    printf("measuring\n");
    fflush(stdout);
    run(&ctx);
    print_result(&ctx);
    return 0;
}
