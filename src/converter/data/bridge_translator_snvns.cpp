/* The native format of the network server. */
#include "converter/data/bridge_translator_snvns.h"

#include "common/bridge_log.h"
#include "converter/data/bridge_translator.h"
#include "converter/data/bridge_translator_common.h"

#include <cstdio>

/* The members stand in alphabetical order up to `timeGps`, which comes last. */
static int write_uplink(semtech_uplink *packet, const semtech_data_rate *rate, const char *mac,
                        const char *snr_text, json_object *snvns)
{
    int64_t crc_status = 1; /* whatever the forwarder says of the CRC: the server judges for itself */
    int64_t frequency = bridge_semtech_frequency_hz(packet->freq);
    semtech_data_rate data_rate = *rate;
    bridge_json_field rate_fields[] = {
        field_int("bandwidth", &data_rate.bandwidth),
        field_text("modulation", packet->modu),
        field_int("spreadFactor", &data_rate.spread_factor),
    };
    bridge_json_frame<13> rx_info;
    rx_info.add(field_int("channel", &packet->chan));
    rx_info.add(field_text("codeRate", packet->codr));
    rx_info.add(field_int("crcStatus", &crc_status));
    rx_info.add(field_object("dataRate", rate_fields));
    rx_info.add(field_int("frequency", &frequency));
    rx_info.add(field_double("loRaSNR", &packet->lsnr, snr_text));
    rx_info.add(field_text("mac", mac));
    rx_info.add(field_int("rfChain", &packet->rfch));
    rx_info.add(field_int("rssi", &packet->rssi));
    rx_info.add(field_int("size", &packet->size));
    if (packet->time[0] != '\0')
        rx_info.add(field_text("time", packet->time));
    rx_info.add(field_int("timestamp", &packet->tmst));
    if (packet->tmms != 0)
        rx_info.add(field_int("timeGps", &packet->tmms));

    bridge_json_field frame[] = {
        field_text("phyPayload", packet->data),
        field_object("rxInfo", rx_info.data(), rx_info.size()),
    };
    return bridge_json_serialize(snvns, frame, std::size(frame));
}

static int translate_uplink(const bridge_translate_msg *from, uint32_t version, json_object *semtech,
                            json_object *snvns)
{
    BRIDGE_ASSERT_TEXT(from, "mac");
    BRIDGE_ASSERT(semtech);
    BRIDGE_ASSERT(snvns);
    semtech_uplink packet = {};
    int result = bridge_semtech_read_uplink(semtech, version, SEMTECH_TIME_TMMS, &packet);
    if (result < 0)
        return result;

    char snr_text[SNR_TEXT_SIZE];
    snprintf(snr_text, sizeof(snr_text), "%0.1f", packet.lsnr);
    char mac[HEX_MAC_SIZE];
    bridge_semtech_format_mac(from->mac, mac);
    if (version == 1)
        BRIDGE_TRACE("mac: %s", mac);
    else
        BRIDGE_TRACE("mac: %s, lsnr str: %s", mac, snr_text);

    semtech_data_rate rate = {};
    result = bridge_semtech_parse_data_rate(packet.datr, &rate);
    if (result < 0)
        return result;
    return write_uplink(&packet, &rate, mac, snr_text, snvns);
}

int bridge_translate_uplink_semtech_v1_to_snvns_v1(const bridge_translate_msg *from, json_object *semtech,
                                                   json_object *snvns)
{
    return translate_uplink(from, 1, semtech, snvns);
}

int bridge_translate_uplink_semtech_v2_to_snvns_v1(const bridge_translate_msg *from, json_object *semtech,
                                                   json_object *snvns)
{
    return translate_uplink(from, 2, semtech, snvns);
}

int bridge_translate_stat_semtech_v1_to_snvns_v1(const bridge_translate_msg *from, json_object *semtech,
                                                 json_object *snvns)
{
    BRIDGE_ASSERT_TEXT(from, "mac");
    BRIDGE_ASSERT(semtech);
    BRIDGE_ASSERT(snvns);
    /* Unknown coordinates are published as -1. */
    semtech_statistics statistics = {};
    statistics.lati = -1.0;
    statistics.longi = -1.0;
    statistics.alti = -1;
    const int result = bridge_semtech_read_statistics(semtech, &statistics);
    if (result < 0)
        return result;

    char latitude[32];
    char longitude[32];
    snprintf(latitude, sizeof(latitude), "%.6lf", statistics.lati);
    snprintf(longitude, sizeof(longitude), "%.6lf", statistics.longi);
    char time[STATISTICS_TIME_SIZE];
    bridge_semtech_format_statistics_time(statistics.time, time);
    char mac[HEX_MAC_SIZE];
    bridge_semtech_format_mac(from->mac, mac);
    BRIDGE_TRACE("mac: %s", mac);

    bridge_json_field frame[] = {
        field_int("altitude", &statistics.alti),
        field_double("latitude", &statistics.lati, latitude),
        field_double("longitude", &statistics.longi, longitude),
        field_text("mac", mac),
        field_int("rxPacketsReceived", &statistics.rxnb),
        field_int("rxPacketsReceivedOK", &statistics.rxok),
        field_int("txPacketsReceived", &statistics.dwnb),
        field_int("txPacketsEmitted", &statistics.txnb),
        field_text("time", time),
    };
    return bridge_json_serialize(snvns, frame, std::size(frame));
}

int bridge_translate_stat_semtech_v2_to_snvns_v1(const bridge_translate_msg *from, json_object *semtech,
                                                 json_object *snvns)
{
    return bridge_translate_stat_semtech_v1_to_snvns_v1(from, semtech, snvns);
}

int bridge_translate_downlink_snvns_v1_to_semtech_v2(json_object *snvns, json_object *semtech,
                                                     uint16_t *token)
{
    BRIDGE_ASSERT_TEXT(snvns != nullptr, "snvns != NULL");
    BRIDGE_ASSERT_TEXT(semtech != nullptr, "semtech != NULL");
    BRIDGE_ASSERT_TEXT(token != nullptr, "token != NULL");
    BRIDGE_DEBUG("Received downlink packet: %s", json_object_to_json_string_ext(snvns, 0));
    ns_downlink down = {};
    int result = bridge_read_ns_downlink(snvns, NS_DOWNLINK_SNVNS, &down);
    if (result < 0)
        return result;
    if (!down.immediately && down.timestamp == 0 && down.time_since_gps_epoch == 0) {
        BRIDGE_ERROR("Invalid downlink frame");
        return -1;
    }

    semtech_txpk txpk = {.frequency = down.frequency,
                         .power = down.power,
                         .modulation = down.modulation,
                         .rate = down.rate,
                         .code_rate = down.code_rate,
                         .phy_payload = down.phy_payload,
                         .imme = down.immediately,
                         .timing_key = "tmst",
                         .timing = 0};
    result = bridge_semtech_prepare_txpk(&txpk);
    if (result < 0)
        return result;
    if (!down.immediately && down.timestamp != 0) {
        txpk.timing = down.timestamp;
    } else if (!down.immediately) {
        txpk.timing_key = "tmms";
        txpk.timing = down.time_since_gps_epoch;
    }
    return bridge_semtech_write_txpk(semtech, &txpk);
}

int bridge_translate_downlink_snvns_v1_to_semtech_v1(json_object *snvns, json_object *semtech,
                                                     uint16_t *token)
{
    return bridge_translate_downlink_snvns_v1_to_semtech_v2(snvns, semtech, token);
}
