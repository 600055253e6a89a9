#include "fleet_tool.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sys/socket.h>

static constexpr uint64_t FIRST_MAC = 0xaa555a0000000001;
static constexpr double NS_PER_MS = 1e6;

void fleet_fail(const char *what)
{
    fprintf(stderr, "bench_fleet: %s: %m\n", what);
    exit(1);
}

int64_t fleet_now_ns()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * FLEET_NS_PER_S + now.tv_nsec;
}

void fleet_read_options(std::span<char *> arguments, std::span<const fleet_option> options)
{
    for (size_t i = 1; i < arguments.size(); i += 2) {
        const auto found = std::ranges::find(options, std::string_view(arguments[i]), &fleet_option::name);
        if (found == options.end() || i + 1 == arguments.size()) {
            fprintf(stderr, "bench_fleet: %s: not an option with a value\n", arguments[i]);
            exit(2);
        }
        *found->value = strtod(arguments[i + 1], nullptr);
    }
}

std::string fleet_mac(size_t gateway)
{
    std::array<char, 17> text;
    snprintf(text.data(), text.size(), "%016" PRIx64, FIRST_MAC + gateway);
    return text.data();
}

int fleet_open_socket(int type, uint16_t port, uint8_t source)
{
    const int sock = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in from = {};
    from.sin_family = AF_INET;
    from.sin_addr.s_addr = htonl(INADDR_LOOPBACK - 1 + source);
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(port);
    if (sock < 0 || bind(sock, reinterpret_cast<sockaddr *>(&from), sizeof(from)) < 0)
        fleet_fail("socket");
    if (connect(sock, reinterpret_cast<sockaddr *>(&to), sizeof(to)) < 0 && errno != EINPROGRESS)
        fleet_fail("connect");
    return sock;
}

void fleet_print_latencies(std::vector<int64_t> *latencies)
{
    std::ranges::sort(*latencies);
    const auto at = [latencies](size_t percent) {
        return latencies->empty()
                   ? 0.0
                   : static_cast<double>((*latencies)[(latencies->size() - 1) * percent / 100]) / NS_PER_MS;
    };
    printf("\"p50\":%.3f,\"p99\":%.3f,\"max\":%.3f,", at(50), at(99), at(100));
}
