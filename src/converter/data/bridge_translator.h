/* Translation of one message between the packet forwarder's form and the network server's dialect. Uplinks
 * and statistics run on the data plane's worker, downlinks on the MQTT delivery thread. Translators read
 * from.json and add keys to to.json; the caller makes and releases both. */
#ifndef BRIDGE_TRANSLATOR_H
#define BRIDGE_TRANSLATOR_H

#include <cstdint>

struct json_object;

static constexpr uint32_t VERSION_MAX = 3;
static constexpr uint32_t DATA_TYPE_MAX = 3;

enum bridge_data_format : uint32_t {
    FORMAT_SNVNS = 0,
    FORMAT_CHIRPSTACK = 1,
    FORMAT_SEMTECH = 2,
    FORMAT_BSTN = 3,
};

enum bridge_direction : uint32_t {
    DIRECTION_UPLINK = 0,
    DIRECTION_DOWNLINK = 1,
    DIRECTION_STATISTICS = 2,
};

/* One side of a translation. */
struct bridge_translate_msg {
    uint8_t mac[8]; /* of the gateway, from the PUSH_DATA header; zero on downlinks */
    uint16_t token; /* downlink `to`: what the translator leaves for the PULL_RESP */
    uint32_t format;
    uint32_t direction;
    uint32_t version;
    json_object *json;
};

/* Picks the translator by direction, format and both versions, and runs it. Returns 0 or a negative number;
 * after a failure to->json may hold some keys and is to be dropped. */
int bridge_translate_generic(bridge_translate_msg *from, bridge_translate_msg *to);

/* Starts the clock of the Basics Station dialect with a random session number. Returns 0. */
int bridge_bstn_xtime_init();

/* The 64-bit server clock for the 32-bit gateway count `tmst`, in microseconds; 0 when `tmst` lies more than
 * 100 ms before the clock's base. */
void translate_semtech_clock_to_server_clock(int64_t tmst, int64_t *xtime);

#endif
