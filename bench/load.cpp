/* The load generator: packet forwarder on one side of a bridge, MQTT peer on the other. An uplink datagram is
 * done when it is acknowledged and all its packets are seen at the subscriber; a downlink is done when its
 * PULL_RESP is seen. Prints one line of JSON. Times are in milliseconds, unless their name says otherwise. */
#include "load_mqtt.h"
#include "load_traffic.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <span>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

static constexpr int64_t NS_PER_MS = 1'000'000;
static constexpr int64_t TOO_LATE_NS = 20 * NS_PER_MS;
static constexpr int POLL_MS = 50;
static constexpr int64_t TIMEOUT_NS = 5000 * NS_PER_MS;
static constexpr int PROBE_MS = 1;
static constexpr int SILENCE_MS = 100;
static constexpr int PROBES_MAX = 30'000;
static constexpr size_t HEADER_SIZE = 4;

enum packet_identifier : char {
    PUSH_ACK = 1,
    PULL_RESP = 3,
    PULL_ACK = 4,
};

struct load_options {
    std::string mode;               /* uplink, downlink or start */
    std::string prefix = "gateway"; /* of the two topics */
    size_t mqtt_port = 0;
    size_t udp_port = 0;
    size_t count = 1000;  /* datagrams or downlinks that are measured */
    size_t warmup = 0;    /* sent before them, not measured */
    size_t in_flight = 1; /* never more under way */
    size_t group = 0;     /* this many, then a pause; 0: all in one group */
    size_t packets = 1;   /* in one datagram */
    size_t pause_ms = 0;
    size_t bridge = 0; /* processes whose CPU time is taken */
    size_t broker = 0;
};

struct load_number {
    std::string_view name;
    size_t load_options::*member;
};

// clang-format off
static constexpr load_number numbers[] = {
    {"--mqtt-port",  &load_options::mqtt_port},
    {"--udp-port",   &load_options::udp_port},
    {"--count",      &load_options::count},
    {"--warmup",     &load_options::warmup},
    {"--in-flight",  &load_options::in_flight},
    {"--group",      &load_options::group},
    {"--packets",    &load_options::packets},
    {"--pause-ms",   &load_options::pause_ms},
    {"--bridge-pid", &load_options::bridge},
    {"--broker-pid", &load_options::broker},
};
// clang-format on

/* One datagram or downlink under way; times are 0 until it happens. */
struct load_item {
    int64_t sent;
    int64_t acked;
    int64_t seen;
    size_t missing; /* packets not seen yet */
    bool merged;    /* rode behind another one, where a packet forwarder does not look */
    bool finished;
};

struct load_context {
    load_options options;
    load_mqtt mqtt;
    int sock = -1;
    size_t base = 0; /* number of the first packet: what a former run left under way is not mistaken */
    std::vector<load_item> items;
    std::vector<std::string> messages;
    std::vector<std::string> payloads;
    size_t flying = 0;
    size_t oldest = 0; /* all items before it are finished */
};

struct cpu_times {
    int64_t bridge;
    int64_t broker;
    int64_t self;
};

[[noreturn]] static void fail(const char *what)
{
    fprintf(stderr, "bench_load: %s: %m\n", what);
    exit(1);
}

static int64_t to_ns(const timespec &time)
{
    return static_cast<int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

static int64_t now_ns()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return to_ns(now);
}

static int64_t cpu_ns(pid_t process)
{
    clockid_t clock = 0;
    timespec time = {};
    if (process == 0 || clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &time) != 0)
        return 0;
    return to_ns(time);
}

static cpu_times take_cpu_times(const load_options &options)
{
    return {cpu_ns(static_cast<pid_t>(options.bridge)), cpu_ns(static_cast<pid_t>(options.broker)),
            cpu_ns(getpid())};
}

static bool is_uplink(const load_context &ctx)
{
    return ctx.options.mode == "uplink";
}

static void finish(load_context *ctx, load_item *item)
{
    item->finished = true;
    ctx->flying--;
}

static void finish_if_complete(load_context *ctx, load_item *item)
{
    if (!item->finished && item->acked != 0 && item->missing == 0)
        finish(ctx, item);
}

static void see_numbers(load_context *ctx, std::string_view text, int64_t now, bool merged)
{
    load_find_numbers(text, [ctx, now, merged](size_t number) {
        const size_t index = (number - ctx->base) / ctx->options.packets;
        if (number < ctx->base || index >= ctx->items.size())
            return;
        load_item *item = &ctx->items[index];
        if (item->sent == 0 || item->missing == 0)
            return;
        item->seen = now;
        item->missing--;
        item->merged = merged;
        finish_if_complete(ctx, item);
    });
}

/* The token holds the low bits of the index: of the items that share them, the youngest is meant. */
static void see_push_ack(load_context *ctx, const char *datagram, size_t sent, int64_t now)
{
    const size_t token =
        static_cast<uint8_t>(datagram[1]) | static_cast<size_t>(static_cast<uint8_t>(datagram[2])) << 8;
    const size_t age = (sent - 1 - token) & 0xffff;
    if (sent == 0 || age >= sent)
        return;
    load_item *item = &ctx->items[sent - 1 - age];
    if (item->acked != 0)
        return;
    item->acked = now;
    finish_if_complete(ctx, item);
}

static void see_pull_resp(load_context *ctx, std::string_view datagram, int64_t now)
{
    const std::string_view body = datagram.substr(HEADER_SIZE);
    const size_t end = std::min(body.find('\0'), body.size());
    see_numbers(ctx, body.substr(0, end), now, false);
    see_numbers(ctx, body.substr(end), now, true);
}

static void read_udp(load_context *ctx, size_t sent)
{
    std::array<char, 65536> buffer;
    for (;;) {
        const ssize_t size = recv(ctx->sock, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (size < 0)
            return;
        if (size < static_cast<ssize_t>(HEADER_SIZE))
            continue;
        const int64_t now = now_ns();
        if (buffer[3] == PUSH_ACK)
            see_push_ack(ctx, buffer.data(), sent, now);
        else if (buffer[3] == PULL_RESP)
            see_pull_resp(ctx, {buffer.data(), static_cast<size_t>(size)}, now);
    }
}

static void read_mqtt(load_context *ctx)
{
    ctx->payloads.clear();
    load_mqtt_read(&ctx->mqtt, &ctx->payloads);
    const int64_t now = now_ns();
    for (const std::string &payload : ctx->payloads)
        see_numbers(ctx, payload, now, false);
}

static void send_item(load_context *ctx, size_t index)
{
    load_item *item = &ctx->items[index];
    const std::string &message = ctx->messages[index];
    ctx->flying++;
    item->missing = ctx->options.packets;
    item->sent = now_ns();
    if (is_uplink(*ctx)) {
        if (send(ctx->sock, message.data(), message.size(), 0) < 0)
            fail("send");
    } else {
        item->acked = item->sent;
        load_mqtt_publish(&ctx->mqtt, ctx->options.prefix + "/tx", message);
    }
}

/* Items are sent in order, so only the oldest can have run out of time first. */
static void give_up_late(load_context *ctx, size_t sent)
{
    const int64_t now = now_ns();
    while (ctx->oldest < sent) {
        load_item *item = &ctx->items[ctx->oldest];
        if (!item->finished && now - item->sent < TIMEOUT_NS)
            return;
        if (!item->finished)
            finish(ctx, item);
        ctx->oldest++;
    }
}

/* Sends the items [first, end) with at most the wanted number under way, and waits for all. Returns the time.
 */
static int64_t run_group(load_context *ctx, size_t first, size_t end)
{
    const int64_t start = now_ns();
    size_t next = first;
    while (next < end || ctx->flying > 0) {
        while (next < end && ctx->flying < ctx->options.in_flight)
            send_item(ctx, next++);
        std::array<pollfd, 2> watched = {{{ctx->sock, POLLIN, 0}, {ctx->mqtt.sock, POLLIN, 0}}};
        poll(watched.data(), watched.size(), POLL_MS);
        if (watched[0].revents != 0)
            read_udp(ctx, next);
        if (watched[1].revents != 0)
            read_mqtt(ctx);
        give_up_late(ctx, next);
    }
    return now_ns() - start;
}

static int64_t run_groups(load_context *ctx, size_t first, size_t end)
{
    const size_t group = ctx->options.group > 0 ? ctx->options.group : end - first;
    int64_t spent = 0;
    for (size_t start = first; start < end; start += group) {
        spent += run_group(ctx, start, std::min(start + group, end));
        poll(nullptr, 0, static_cast<int>(ctx->options.pause_ms));
    }
    return spent;
}

static void print_latency(const char *name, std::vector<int64_t> times)
{
    std::sort(times.begin(), times.end());
    const auto at = [&times](size_t percent) {
        const size_t index = times.size() * percent / 100;
        return times.empty() ? 0.0
                             : static_cast<double>(times[std::min(index, times.size() - 1)]) / NS_PER_MS;
    };
    printf("\"%s\":{\"p50\":%.4f,\"p99\":%.4f,\"max\":%.4f},", name, at(50), at(99), at(100));
}

static void print_result(const load_context &ctx, int64_t spent, const cpu_times &before,
                         const cpu_times &after)
{
    std::vector<int64_t> acked;
    std::vector<int64_t> seen;
    size_t lost = 0;
    size_t unacked = 0;
    size_t unseen = 0;
    size_t merged = 0;
    size_t late = 0;
    for (size_t i = ctx.options.warmup; i < ctx.items.size(); i++) {
        const load_item &item = ctx.items[i];
        lost += item.acked == 0 || item.missing != 0 || item.merged;
        unacked += item.acked == 0;
        unseen += item.missing != 0;
        merged += item.merged;
        late += std::max(item.acked, item.seen) - item.sent > TOO_LATE_NS;
        if (item.acked != 0)
            acked.push_back(item.acked - item.sent);
        if (item.missing == 0)
            seen.push_back(item.seen - item.sent);
    }
    const auto packets = static_cast<double>(ctx.options.count * ctx.options.packets);
    const double seconds = static_cast<double>(spent) / 1e9;
    printf("{\"sent\":%zu,\"lost\":%zu,\"unacked\":%zu,\"unseen\":%zu,\"merged\":%zu,\"over_20ms\":%zu,",
           ctx.options.count, lost, unacked, unseen, merged, late);
    print_latency("ack", acked);
    print_latency("seen", seen);
    printf(
        "\"seconds\":%.4f,\"per_second\":%.1f,\"cpu_us\":%.3f,\"broker_cpu_us\":%.3f,\"load_cpu_us\":%.3f}\n",
        seconds, packets / seconds, static_cast<double>(after.bridge - before.bridge) / 1e3 / packets,
        static_cast<double>(after.broker - before.broker) / 1e3 / packets,
        static_cast<double>(after.self - before.self) / 1e3 / packets);
}

static void open_socket(load_context *ctx)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(ctx->options.udp_port));
    ctx->sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (connect(ctx->sock, reinterpret_cast<sockaddr *>(&address), sizeof(address)) < 0)
        fail("connect");
}

/* One datagram a millisecond until the bridge acknowledges one. Nobody may listen yet: errors are expected.
 */
static void probe(load_context *ctx, const std::string &message, char answer)
{
    for (int i = 0; i < PROBES_MAX; i++) {
        send(ctx->sock, message.data(), message.size(), 0);
        pollfd watched = {ctx->sock, POLLIN, 0};
        std::array<char, 16> buffer;
        if (poll(&watched, 1, PROBE_MS) <= 0)
            continue;
        const ssize_t size = recv(ctx->sock, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (size == static_cast<ssize_t>(HEADER_SIZE) && buffer[3] == answer)
            return;
        if (size < 0)
            poll(nullptr, 0, PROBE_MS);
    }
    errno = ETIMEDOUT;
    fail("no answer from the bridge");
}

/* Probes that the bridge has not read yet lie in its socket: they would crowd out what is sent next. */
static void drain(load_context *ctx)
{
    pollfd watched = {ctx->sock, POLLIN, 0};
    std::array<char, 16> buffer;
    while (poll(&watched, 1, SILENCE_MS) > 0)
        recv(ctx->sock, buffer.data(), buffer.size(), MSG_DONTWAIT);
}

static void measure_start(load_context *ctx)
{
    printf("probing\n");
    fflush(stdout);
    probe(ctx, load_push_data(1, ctx->base, 1), PUSH_ACK);
    const int64_t acked = now_ns();
    drain(ctx);
    printf("{\"acked_ns\":%" PRId64 "}\n", acked);
}

static void prepare(load_context *ctx)
{
    const load_options &options = ctx->options;
    const size_t total = options.warmup + options.count;
    ctx->items.resize(total);
    ctx->messages.reserve(total);
    for (size_t i = 0; i < total; i++) {
        const size_t number = ctx->base + i * options.packets;
        ctx->messages.push_back(is_uplink(*ctx)
                                    ? load_push_data(static_cast<uint16_t>(i), number, options.packets)
                                    : load_downlink(number));
    }
    load_mqtt_connect(&ctx->mqtt, static_cast<uint16_t>(options.mqtt_port));
    if (is_uplink(*ctx))
        load_mqtt_subscribe(&ctx->mqtt, options.prefix + "/rx");
    else
        probe(ctx, load_pull_data(1), PULL_ACK);
}

static void measure(load_context *ctx)
{
    prepare(ctx);
    if (ctx->options.warmup > 0)
        run_groups(ctx, 0, ctx->options.warmup);
    const cpu_times before = take_cpu_times(ctx->options);
    const int64_t spent = run_groups(ctx, ctx->options.warmup, ctx->items.size());
    print_result(*ctx, spent, before, take_cpu_times(ctx->options));
}

static bool set_option(load_options *options, std::string_view name, const char *value)
{
    if (name == "--mode")
        options->mode = value;
    else if (name == "--prefix")
        options->prefix = value;
    else
        for (const load_number &number : numbers)
            if (name == number.name)
                return (options->*number.member = strtoul(value, nullptr, 10), true);
    return name == "--mode" || name == "--prefix";
}

static bool read_options(std::span<char *> arguments, load_options *options)
{
    for (size_t i = 1; i < arguments.size(); i += 2)
        if (i + 1 == arguments.size() || !set_option(options, arguments[i], arguments[i + 1]))
            return false;
    return options->mode == "uplink" || options->mode == "downlink" || options->mode == "start";
}

int main(int argc, char **argv)
{
    load_context ctx;
    if (!read_options({argv, static_cast<size_t>(argc)}, &ctx.options)) {
        fprintf(stderr, "usage: bench_load --mode uplink|downlink|start --mqtt-port PORT --udp-port PORT "
                        "[--prefix TOPIC] [--count N] [--warmup N] [--in-flight N] [--group N] [--packets N] "
                        "[--pause-ms N] [--bridge-pid PID] [--broker-pid PID]\n");
        return 2;
    }
    ctx.base = static_cast<size_t>(getpid()) % 1000 * 3'000'000;
    open_socket(&ctx);
    if (ctx.options.mode == "start")
        measure_start(&ctx);
    else
        measure(&ctx);
    return 0;
}
