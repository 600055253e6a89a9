/* Field tables of the packet forwarder's side. */
#include "converter/data/bridge_translator_common.h"

#include "common/bridge_log.h"
#include "common/bridge_utils.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>

static constexpr size_t MAX_RSIG = 32;
static constexpr double HZ_PER_MHZ = 1000000;

struct semtech_rsig {
    int64_t ant;
    int64_t chan;
    int64_t rssic;
    double lsnr;
};

int64_t bridge_truncate_to_int64(double number)
{
    /* 2 to the power 63: the first double that does not fit. */
    static constexpr double LIMIT = 9223372036854775808.0;
    if (std::isnan(number))
        return 0;
    if (number >= LIMIT)
        return std::numeric_limits<int64_t>::max();
    if (number < -LIMIT)
        return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(number);
}

int64_t bridge_semtech_frequency_hz(double mhz)
{
    return bridge_truncate_to_int64(mhz * HZ_PER_MHZ);
}

/* Every element must be sound, although only the first counts. */
static int read_rsig(json_object *semtech, semtech_uplink *packet)
{
    json_object *array = nullptr;
    size_t count = 0;
    if (json_object_object_get_ex(semtech, "rsig", &array) && json_object_is_type(array, json_type_array))
        count = json_object_array_length(array);
    else
        BRIDGE_TRACE("no rsig array in a packet");
    if (count > MAX_RSIG) {
        BRIDGE_ERROR("too many rsig values received");
        return -1;
    }
    std::array<semtech_rsig, MAX_RSIG> signals = {};
    for (size_t i = 0; i < count; i++) {
        semtech_rsig &signal = signals[i];
        bridge_json_field fields[] = {
            field_int("ant", &signal.ant),
            field_int("chan", &signal.chan),
            field_int("rssic", &signal.rssic),
            field_double("lsnr", &signal.lsnr),
        };
        json_object *element = json_object_array_get_idx(array, i);
        const int result =
            element != nullptr ? bridge_json_deserialize(element, fields, std::size(fields)) : -1;
        if (result < 0) {
            BRIDGE_ERROR("failed to deserialize rsig frame");
            return result;
        }
    }
    packet->ant = signals[0].ant;
    packet->chan = signals[0].chan;
    packet->rssi = signals[0].rssic;
    packet->lsnr = signals[0].lsnr;
    return 0;
}

int bridge_semtech_read_uplink(json_object *semtech, uint32_t version, semtech_time_keys keys,
                               semtech_uplink *packet)
{
    const bool own_signal = version != 1;
    bridge_json_frame<15> frame;
    frame.add(field_optional(field_string("time", packet->time)));
    if (keys != SEMTECH_TIME_ONLY)
        frame.add(field_optional(field_int("tmms", &packet->tmms)));
    if (keys == SEMTECH_TIME_TMMS_TMUS)
        frame.add(field_optional(field_int("tmus", &packet->tmus)));
    frame.add(field_int("tmst", &packet->tmst));
    if (own_signal)
        frame.add(field_int("chan", &packet->chan));
    frame.add(field_int("rfch", &packet->rfch));
    frame.add(field_double("freq", &packet->freq));
    frame.add(field_int("stat", &packet->stat));
    frame.add(field_string("modu", packet->modu));
    frame.add(field_string("datr", packet->datr));
    frame.add(field_string("codr", packet->codr));
    if (own_signal) {
        frame.add(field_int("rssi", &packet->rssi));
        frame.add(field_double("lsnr", &packet->lsnr));
    }
    frame.add(field_int("size", &packet->size));
    frame.add(field_string("data", packet->data));

    const int result = bridge_json_deserialize(semtech, frame.data(), frame.size());
    if (result < 0) {
        BRIDGE_ERROR("failed to deserialize uplink packet: %s", json_object_to_json_string_ext(semtech, 0));
        return result;
    }
    return own_signal ? 0 : read_rsig(semtech, packet);
}

int bridge_semtech_parse_data_rate(const char *datr, semtech_data_rate *rate)
{
    long long spread_factor = 0;
    long long bandwidth = 0;
    if (sscanf(datr, "SF%lldBW%lld", &spread_factor, &bandwidth) != 2) {
        BRIDGE_ERROR("failed to deserialize uplink datarate field");
        return -1;
    }
    rate->spread_factor = spread_factor;
    rate->bandwidth = bandwidth;
    return 0;
}

int bridge_semtech_current_time(char *buffer, size_t size)
{
    const time_t now = time(nullptr);
    tm utc = {};
    {
        const bridge_fork_hold hold;
        if (gmtime_r(&now, &utc) == nullptr)
            return -1;
    }
    return strftime(buffer, size, "%FT%TZ", &utc) > 0 ? 0 : -1;
}

void bridge_semtech_format_mac(const uint8_t *mac, char (&text)[HEX_MAC_SIZE])
{
    static constexpr char DIGITS[] = "0123456789abcdef";
    for (size_t i = 0; i < 8; i++) {
        text[2 * i] = DIGITS[mac[i] >> 4];
        text[2 * i + 1] = DIGITS[mac[i] & 0xf];
    }
    text[HEX_MAC_SIZE - 1] = '\0';
}

void bridge_semtech_encode_mac(const uint8_t *mac, char (&mac_b64)[BASE64_MAC_SIZE])
{
    const int rc = Base64encode(mac_b64, reinterpret_cast<const char *>(mac), 8);
    BRIDGE_ASSERT_TEXT(rc >= 0 && static_cast<size_t>(rc) < sizeof(mac_b64),
                       "rc >= 0 && (size_t)rc < sizeof(mac_b64)");
    BRIDGE_TRACE("mac encoded: %s", mac_b64);
}

int bridge_semtech_read_statistics(json_object *semtech, semtech_statistics *statistics)
{
    bridge_json_field fields[] = {
        field_string("time", statistics->time),
        field_optional(field_string("boot", statistics->boot)),
        field_optional(field_string("hal", statistics->hal)),
        field_optional(field_double("lati", &statistics->lati)),
        field_optional(field_double("long", &statistics->longi)),
        field_optional(field_int("alti", &statistics->alti)),
        field_int("rxnb", &statistics->rxnb),
        field_int("rxok", &statistics->rxok),
        field_int("rxfw", &statistics->rxfw),
        field_int("ackr", &statistics->ackr),
        field_int("dwnb", &statistics->dwnb),
        field_int("txnb", &statistics->txnb),
        field_optional(field_int("lmok", &statistics->lmok)),
        field_optional(field_int("lmst", &statistics->lmst)),
    };
    const int result = bridge_json_deserialize(semtech, fields, std::size(fields));
    if (result < 0)
        BRIDGE_ERROR("failed to deserialize statistics: %s", json_object_to_json_string_ext(semtech, 0));
    return result;
}

void bridge_semtech_format_statistics_time(const char *time, char (&text)[STATISTICS_TIME_SIZE])
{
    /* A forwarder whose time has another form is still heard: the result is not checked. */
    tm parsed = {};
    strptime(time, "%Y-%m-%d %T %Z", &parsed);
    if (strftime(text, sizeof(text), "%FT%T.000000Z", &parsed) == 0)
        text[0] = '\0';
}

int bridge_read_ns_downlink(json_object *ns, ns_downlink_form form, ns_downlink *down)
{
    bridge_json_field data_rate[] = {
        field_int("bandwidth", &down->rate.bandwidth),
        field_string("modulation", down->modulation),
        field_int("spreadFactor", &down->rate.spread_factor),
    };
    bridge_json_frame<8> tx_info;
    tx_info.add(field_string("codeRate", down->code_rate));
    tx_info.add(field_object("dataRate", data_rate));
    tx_info.add(field_int("frequency", &down->frequency));
    tx_info.add(field_bool("immediately", &down->immediately));
    tx_info.add(field_string("mac", down->mac));
    tx_info.add(field_int("power", &down->power));
    if (form == NS_DOWNLINK_SNVNS) {
        tx_info.add(field_optional(field_int("timestamp", &down->timestamp)));
        tx_info.add(field_optional(field_int("timeSinceGPSEpoch", &down->time_since_gps_epoch)));
    } else {
        tx_info.add(field_int("timestamp", &down->timestamp));
    }
    bridge_json_frame<3> frame;
    frame.add(field_string("phyPayload", down->phy_payload));
    if (form == NS_DOWNLINK_CHIRPSTACK_V2)
        frame.add(field_optional(field_int("token", &down->token)));
    frame.add(field_object("txInfo", tx_info.data(), tx_info.size()));

    const int result = bridge_json_deserialize(ns, frame.data(), frame.size());
    if (result < 0)
        BRIDGE_ERROR("failed to deserialize downlink frame");
    return result;
}

int64_t bridge_semtech_payload_size(const char *base64)
{
    const auto length = static_cast<uint32_t>(strlen(base64));
    uint32_t padding = 0;
    if (length > 2 && base64[length - 1] == '=')
        padding = base64[length - 2] == '=' ? 2 : 1;
    return static_cast<int64_t>(length * 3 >> 2) - padding;
}

int bridge_semtech_prepare_txpk(semtech_txpk *txpk)
{
    txpk->freq = static_cast<double>(txpk->frequency) / HZ_PER_MHZ;
    txpk->size = bridge_semtech_payload_size(txpk->phy_payload);
    const int length = snprintf(txpk->datr, sizeof(txpk->datr), "SF%lldBW%lld",
                                static_cast<long long>(txpk->rate.spread_factor),
                                static_cast<long long>(txpk->rate.bandwidth));
    if (length < 0 || static_cast<size_t>(length) >= sizeof(txpk->datr)) {
        BRIDGE_ERROR("not enough space for serializing data rate field");
        return -1;
    }
    snprintf(txpk->freq_text, sizeof(txpk->freq_text), "%.6lf", txpk->freq);
    return 0;
}

int bridge_semtech_write_txpk(json_object *semtech, semtech_txpk *txpk)
{
    int64_t rfch = 0;
    bool ipol = true;
    bridge_json_field fields[] = {
        field_bool("imme", &txpk->imme),
        field_int(txpk->timing_key, &txpk->timing),
        field_double("freq", &txpk->freq, txpk->freq_text),
        field_int("rfch", &rfch),
        field_int("powe", &txpk->power),
        field_text("modu", txpk->modulation),
        field_text("datr", txpk->datr),
        field_text("codr", txpk->code_rate),
        field_bool("ipol", &ipol),
        field_int("size", &txpk->size),
        field_text("data", txpk->phy_payload),
    };
    return bridge_json_serialize(semtech, fields, std::size(fields));
}
