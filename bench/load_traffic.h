/* What the load generator sends, and how it knows it again: every uplink carries its own number as `tmst`,
 * every downlink as `timestamp`, and both keys are found in whatever text comes out at the other end. */
#ifndef LOAD_TRAFFIC_H
#define LOAD_TRAFFIC_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

/* A PUSH_DATA of `count` LoRa packets, numbered from `first`. */
std::string load_push_data(uint16_t token, size_t first, size_t count);

std::string load_pull_data(uint16_t token);

/* A downlink in the native dialect. */
std::string load_downlink(size_t number);

/* Calls `found` for the number of every packet in `text`. */
void load_find_numbers(std::string_view text, const std::function<void(size_t number)> &found);

#endif
