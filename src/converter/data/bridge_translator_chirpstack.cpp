/* ChirpStack JSON, versions 2 and 3. The version 2 statistics are the native ones. */
#include "converter/data/bridge_translator_chirpstack.h"

#include "common/bridge_log.h"
#include "common/bridge_utils.h"
#include "converter/data/bridge_translator.h"
#include "converter/data/bridge_translator_common.h"
#include "converter/data/bridge_translator_snvns.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

static constexpr size_t CONTEXT_BYTES = 8;
static constexpr int CONTEXT_DECODE_LIMIT = 16;
static constexpr int64_t NO_ALTITUDE = std::numeric_limits<int64_t>::min();
static constexpr double MICROSECONDS_PER_SECOND = 1000000;

/* ---- uplinks ---- */

/* An uplink as both versions publish it: with a time always, and the signal-to-noise ratio a whole number. */
struct chirpstack_uplink {
    semtech_uplink packet;
    semtech_data_rate rate;
    int64_t frequency; /* Hz */
    int64_t snr;       /* dB */
    int64_t antenna;
    int64_t board;
};

static int read_uplink(json_object *semtech, uint32_t version, chirpstack_uplink *up)
{
    if (bridge_semtech_current_time(up->packet.time, 64) < 0) {
        BRIDGE_ERROR("failed to prepare time string for chirpstack uplink");
        return -1;
    }
    const int result = bridge_semtech_read_uplink(semtech, version, SEMTECH_TIME_ONLY, &up->packet);
    if (result < 0)
        return result;
    up->frequency = bridge_semtech_frequency_hz(up->packet.freq);
    up->snr = bridge_truncate_to_int64(up->packet.lsnr);
    up->antenna = up->packet.ant; /* 0 unless an rsig element says otherwise */
    return 0;
}

static int translate_uplink_v2json(const bridge_translate_msg *from, uint32_t version, json_object *semtech,
                                   json_object *chirpstack)
{
    BRIDGE_ASSERT_TEXT(from, "mac");
    BRIDGE_ASSERT(semtech);
    BRIDGE_ASSERT(chirpstack);
    chirpstack_uplink up = {};
    int result = read_uplink(semtech, version, &up);
    if (result < 0)
        return result;
    char mac[HEX_MAC_SIZE];
    bridge_semtech_format_mac(from->mac, mac);
    BRIDGE_TRACE("mac: %s", mac);
    result = bridge_semtech_parse_data_rate(up.packet.datr, &up.rate);
    if (result < 0)
        return result;

    int64_t crc_status = 1;
    bridge_json_field rate[] = {
        field_int("bandwidth", &up.rate.bandwidth),
        field_text("modulation", up.packet.modu),
        field_int("spreadFactor", &up.rate.spread_factor),
    };
    bridge_json_field rx_info[] = {
        field_int("board", &up.board),
        field_int("antenna", &up.antenna),
        field_int("channel", &up.packet.chan),
        field_text("codeRate", up.packet.codr),
        field_int("crcStatus", &crc_status),
        field_object("dataRate", rate),
        field_int("frequency", &up.frequency),
        field_int("loRaSNR", &up.snr),
        field_text("mac", mac),
        field_int("rfChain", &up.packet.rfch),
        field_int("rssi", &up.packet.rssi),
        field_int("size", &up.packet.size),
        field_text("time", up.packet.time),
        field_int("timestamp", &up.packet.tmst),
    };
    bridge_json_field frame[] = {
        field_text("phyPayload", up.packet.data),
        field_object("rxInfo", rx_info),
    };
    return bridge_json_serialize(chirpstack, frame, std::size(frame));
}

/* The server hands the context back with a class A downlink, which is timed by it. */
static void encode_context(int64_t tmst, char (&tmst_b64)[32])
{
    char bytes[CONTEXT_BYTES];
    for (size_t i = 0; i < CONTEXT_BYTES; i++)
        bytes[i] = static_cast<char>(static_cast<uint64_t>(tmst) >> (8 * i));
    const int rc = Base64encode(tmst_b64, bytes, CONTEXT_BYTES);
    BRIDGE_ASSERT_TEXT(rc >= 0 && static_cast<size_t>(rc) < sizeof(tmst_b64),
                       "rc >= 0 && (size_t)rc < sizeof(tmst_b64)");
    BRIDGE_TRACE("tmst encoded: %s", tmst_b64);
}

static int write_uplink_v3json(chirpstack_uplink *up, const char *gateway_id, const char *context,
                               json_object *chirpstack)
{
    bool inverted = false;
    bridge_json_field modulation[] = {
        field_int("bandwidth", &up->rate.bandwidth),
        field_int("spreadingFactor", &up->rate.spread_factor),
        field_text("codeRate", up->packet.codr),
        field_bool("polarizationInversion", &inverted),
    };
    bridge_json_field tx_info[] = {
        field_int("frequency", &up->frequency),
        field_text("modulation", up->packet.modu),
        field_object("loRaModulationInfo", modulation),
    };
    bridge_json_field fine_time[] = {
        field_text("time", up->packet.time),
    };
    bridge_json_field rx_info[] = {
        field_text("gatewayID", gateway_id),
        field_text("time", up->packet.time),
        field_int("timestamp", &up->packet.tmst),
        field_int("rssi", &up->packet.rssi),
        field_int("loRaSNR", &up->snr),
        field_int("channel", &up->packet.chan),
        field_int("rfChain", &up->packet.rfch),
        field_int("board", &up->board),
        field_int("antenna", &up->antenna),
        field_text("fineTimestampType", "PLAIN"),
        field_object("plainFineTimestamp", fine_time),
        field_text("context", context),
    };
    bridge_json_field frame[] = {
        field_text("phyPayload", up->packet.data),
        field_object("txInfo", tx_info),
        field_object("rxInfo", rx_info),
    };
    return bridge_json_serialize(chirpstack, frame, std::size(frame));
}

static int translate_uplink_v3json(const bridge_translate_msg *from, uint32_t version, json_object *semtech,
                                   json_object *chirpstack)
{
    BRIDGE_ASSERT_TEXT(from, "mac");
    BRIDGE_ASSERT(semtech);
    BRIDGE_ASSERT(chirpstack);
    chirpstack_uplink up = {};
    int result = read_uplink(semtech, version, &up);
    if (result < 0)
        return result;
    char mac_b64[BASE64_MAC_SIZE];
    bridge_semtech_encode_mac(from->mac, mac_b64);
    result = bridge_semtech_parse_data_rate(up.packet.datr, &up.rate);
    if (result < 0)
        return result;
    char tmst_b64[32];
    encode_context(up.packet.tmst, tmst_b64);
    return write_uplink_v3json(&up, mac_b64, tmst_b64, chirpstack);
}

int bridge_translate_uplink_semtech_v1_to_chirpstack_v2json(const bridge_translate_msg *from,
                                                            json_object *semtech, json_object *chirpstack)
{
    return translate_uplink_v2json(from, 1, semtech, chirpstack);
}

int bridge_translate_uplink_semtech_v2_to_chirpstack_v2json(const bridge_translate_msg *from,
                                                            json_object *semtech, json_object *chirpstack)
{
    return translate_uplink_v2json(from, 2, semtech, chirpstack);
}

int bridge_translate_uplink_semtech_v1_to_chirpstack_v3json(const bridge_translate_msg *from,
                                                            json_object *semtech, json_object *chirpstack)
{
    return translate_uplink_v3json(from, 1, semtech, chirpstack);
}

int bridge_translate_uplink_semtech_v2_to_chirpstack_v3json(const bridge_translate_msg *from,
                                                            json_object *semtech, json_object *chirpstack)
{
    return translate_uplink_v3json(from, 2, semtech, chirpstack);
}

/* ---- statistics ---- */

int bridge_translate_stat_semtech_v1_to_chirpstack_v2json(const bridge_translate_msg *from,
                                                          json_object *semtech, json_object *chirpstack)
{
    return bridge_translate_stat_semtech_v1_to_snvns_v1(from, semtech, chirpstack);
}

int bridge_translate_stat_semtech_v2_to_chirpstack_v2json(const bridge_translate_msg *from,
                                                          json_object *semtech, json_object *chirpstack)
{
    return bridge_translate_stat_semtech_v2_to_snvns_v1(from, semtech, chirpstack);
}

/* A position is published whole or not at all. */
static bool has_location(const semtech_statistics &statistics)
{
    const bool has_lati = !std::isnan(statistics.lati);
    const bool has_long = !std::isnan(statistics.longi);
    const bool has_alti = statistics.alti != NO_ALTITUDE;
    if (has_lati && has_long && has_alti)
        return true;
    if (has_lati || has_long || has_alti)
        BRIDGE_WARN("inconsitent GPS coordinates received. lat: %lf long: %lf lati: %lld", statistics.lati,
                    statistics.longi, static_cast<long long>(statistics.alti));
    return false;
}

int bridge_translate_stat_semtech_v1_to_chirpstack_v3json(const bridge_translate_msg *from,
                                                          json_object *semtech, json_object *chirpstack)
{
    BRIDGE_ASSERT_TEXT(from, "mac");
    BRIDGE_ASSERT(semtech);
    BRIDGE_ASSERT(chirpstack);
    semtech_statistics statistics = {};
    statistics.lati = std::numeric_limits<double>::quiet_NaN();
    statistics.longi = std::numeric_limits<double>::quiet_NaN();
    statistics.alti = NO_ALTITUDE;
    const int result = bridge_semtech_read_statistics(semtech, &statistics);
    if (result < 0)
        return result;
    char time[STATISTICS_TIME_SIZE];
    bridge_semtech_format_statistics_time(statistics.time, time);
    char mac_b64[BASE64_MAC_SIZE];
    bridge_semtech_encode_mac(from->mac, mac_b64);

    bridge_json_field location[] = {
        field_double("latitude", &statistics.lati),
        field_double("longitude", &statistics.longi),
        field_int("altitude", &statistics.alti),
    };
    bridge_json_frame<7> frame;
    frame.add(field_text("gatewayID", mac_b64));
    frame.add(field_text("time", time));
    frame.add(field_int("rxPacketsReceived", &statistics.rxnb));
    frame.add(field_int("rxPacketsReceivedOK", &statistics.rxok));
    frame.add(field_int("txPacketsReceived", &statistics.dwnb));
    frame.add(field_int("txPacketsEmitted", &statistics.txnb));
    if (has_location(statistics))
        frame.add(field_object("location", location));
    return bridge_json_serialize(chirpstack, frame.data(), frame.size());
}

int bridge_translate_stat_semtech_v2_to_chirpstack_v3json(const bridge_translate_msg *from,
                                                          json_object *semtech, json_object *chirpstack)
{
    return bridge_translate_stat_semtech_v1_to_chirpstack_v3json(from, semtech, chirpstack);
}

/* ---- downlinks ---- */

int bridge_translate_downlink_chirpstack_v2json_to_semtech_v1(json_object *chirpstack, json_object *semtech,
                                                              uint16_t *token)
{
    BRIDGE_ASSERT(chirpstack);
    BRIDGE_ASSERT(semtech);
    BRIDGE_ASSERT(token);
    ns_downlink down = {};
    down.token = rand() & 0xffff;
    int result = bridge_read_ns_downlink(chirpstack, NS_DOWNLINK_CHIRPSTACK_V2, &down);
    if (result < 0)
        return result;
    semtech_txpk txpk = {.frequency = down.frequency,
                         .power = down.power,
                         .modulation = down.modulation,
                         .rate = down.rate,
                         .code_rate = down.code_rate,
                         .phy_payload = down.phy_payload,
                         .imme = down.immediately,
                         .timing_key = "tmst",
                         .timing = down.timestamp};
    result = bridge_semtech_prepare_txpk(&txpk);
    if (result < 0)
        return result;
    *token = static_cast<uint16_t>(down.token);
    return bridge_semtech_write_txpk(semtech, &txpk);
}

int bridge_translate_downlink_chirpstack_v2json_to_semtech_v2(json_object *chirpstack, json_object *semtech,
                                                              uint16_t *token)
{
    return bridge_translate_downlink_chirpstack_v2json_to_semtech_v1(chirpstack, semtech, token);
}

struct chirpstack_v3_downlink {
    char phy_payload[2048]; /* Base64 */
    int64_t frequency;      /* Hz */
    int64_t power;          /* dBm */
    char modulation[16];
    semtech_data_rate rate;
    char code_rate[8];
    bool polarization_inversion;
    int64_t board;
    int64_t antenna;
    char timing[64];
    char context[256];
    int64_t token;
};

static int read_downlink_v3json(json_object *chirpstack, chirpstack_v3_downlink *down)
{
    bridge_json_field modulation[] = {
        field_int("bandwidth", &down->rate.bandwidth),
        field_int("spreadingFactor", &down->rate.spread_factor),
        field_string("codeRate", down->code_rate),
        field_bool("polarizationInversion", &down->polarization_inversion),
    };
    bridge_json_field tx_info[] = {
        field_int("frequency", &down->frequency),
        field_int("power", &down->power),
        field_string("modulation", down->modulation),
        field_object("loRaModulationInfo", modulation),
        field_int("board", &down->board),
        field_int("antenna", &down->antenna),
        field_string("timing", down->timing),
        field_optional(field_string("context", down->context)),
    };
    bridge_json_field frame[] = {
        field_string("phyPayload", down->phy_payload),
        field_object("txInfo", tx_info),
        field_int("token", &down->token),
    };
    const int result = bridge_json_deserialize(chirpstack, frame, std::size(frame));
    if (result < 0)
        BRIDGE_ERROR("failed to deserialize downlink frame");
    return result;
}

/* A shorter context counts from its lowest byte. */
static int decode_context(const char *context, int64_t *tmst)
{
    const int space = Base64decode_len(context);
    if (space < 0 || space > CONTEXT_DECODE_LIMIT) {
        BRIDGE_ERROR("invalid context received: %s with decode length: %d", context, space);
        return -1;
    }
    char bytes[CONTEXT_DECODE_LIMIT] = {};
    const int length = Base64decode(bytes, context);
    if (length < 0 || static_cast<size_t>(length) > CONTEXT_BYTES) {
        BRIDGE_ERROR("failed to decode context: %s with retval: %d", context, length);
        return -1;
    }
    uint64_t value = 0;
    for (size_t i = 0; i < CONTEXT_BYTES; i++)
        value |= static_cast<uint64_t>(static_cast<uint8_t>(bytes[i])) << (8 * i);
    *tmst = static_cast<int64_t>(value);
    BRIDGE_DEBUG("decoded timestamp from context: %lli", static_cast<long long>(*tmst));
    return 0;
}

static int read_delay(json_object *chirpstack, double *delay)
{
    char text[64] = "";
    bridge_json_field timing_info[] = {field_string("delay", text)};
    bridge_json_field tx_info[] = {field_object("delayTimingInfo", timing_info)};
    bridge_json_field frame[] = {field_object("txInfo", tx_info)};
    const int result = bridge_json_deserialize(chirpstack, frame, std::size(frame));
    if (result < 0) {
        BRIDGE_ERROR("failed to deserialize delay information frame");
        return result;
    }
    /* No number at all stands for no delay. */
    *delay = 0;
    (void)sscanf(text, "%lfs", delay);
    BRIDGE_DEBUG("decoded delay: %lf", *delay);
    return 0;
}

static int delay_after_context(json_object *chirpstack, const char *context, int64_t *tmst)
{
    int64_t start = 0;
    int result = decode_context(context, &start);
    if (result < 0)
        return result;
    double delay = 0;
    result = read_delay(chirpstack, &delay);
    if (result < 0)
        return result;
    /* The sum may pass 32 bits: the forwarder takes what it knows of it. */
    *tmst = bridge_truncate_to_int64(static_cast<double>(start) + delay * MICROSECONDS_PER_SECOND);
    return 0;
}

static int time_downlink_v3json(json_object *chirpstack, const chirpstack_v3_downlink &down,
                                semtech_txpk *txpk)
{
    if (strcmp(down.timing, "IMMEDIATELY") == 0) {
        BRIDGE_TRACE("requested immediate downlink");
        return 0;
    }
    if (strcmp(down.timing, "DELAY") == 0) {
        BRIDGE_TRACE("requested delayed downlink");
        txpk->imme = false;
        return delay_after_context(chirpstack, down.context, &txpk->timing);
    }
    BRIDGE_ERROR("unsupported timing type: %s", down.timing);
    return -1;
}

int bridge_translate_downlink_chirpstack_v3json_to_semtech_v1(json_object *chirpstack, json_object *semtech,
                                                              uint16_t *token)
{
    BRIDGE_ASSERT(chirpstack);
    BRIDGE_ASSERT(semtech);
    BRIDGE_ASSERT(token);
    chirpstack_v3_downlink down = {};
    int result = read_downlink_v3json(chirpstack, &down);
    if (result < 0)
        return result;
    semtech_txpk txpk = {.frequency = down.frequency,
                         .power = down.power,
                         .modulation = down.modulation,
                         .rate = down.rate,
                         .code_rate = down.code_rate,
                         .phy_payload = down.phy_payload,
                         .imme = true,
                         .timing_key = "tmst",
                         .timing = 0};
    result = bridge_semtech_prepare_txpk(&txpk);
    if (result < 0)
        return result;
    result = time_downlink_v3json(chirpstack, down, &txpk);
    if (result < 0)
        return result;
    *token = static_cast<uint16_t>(down.token);
    return bridge_semtech_write_txpk(semtech, &txpk);
}

int bridge_translate_downlink_chirpstack_v3json_to_semtech_v2(json_object *chirpstack, json_object *semtech,
                                                              uint16_t *token)
{
    return bridge_translate_downlink_chirpstack_v3json_to_semtech_v1(chirpstack, semtech, token);
}
