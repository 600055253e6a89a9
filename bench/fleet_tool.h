/* What the fleet's two load programs share: the clock, options that are numbers, latencies as JSON. */
#ifndef FLEET_TOOL_H
#define FLEET_TOOL_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

static constexpr int64_t FLEET_NS_PER_S = 1'000'000'000;

/* A number of the command line: "--name VALUE". */
struct fleet_option {
    std::string_view name;
    double *value;
};

[[noreturn]] void fleet_fail(const char *what);

int64_t fleet_now_ns();

/* Every argument must be one of the options; ends the program otherwise. */
void fleet_read_options(std::span<char *> arguments, std::span<const fleet_option> options);

/* Sixteen hexadecimal digits, in lower case; gateways count from 0. */
std::string fleet_mac(size_t gateway);

/* A socket to 127.0.0.1:`port`, connected or, without blocking, on its way. `source` is the last number of
 * the address that it comes from, 127.0.0.`source`. */
int fleet_open_socket(int type, uint16_t port, uint8_t source);

/* "p50":...,"p99":...,"max":... in milliseconds, with a comma behind. */
void fleet_print_latencies(std::vector<int64_t> *latencies);

#endif
