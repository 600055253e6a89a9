/* Basics Station messages: the LoRaWAN frame of an uplink is opened here and published field by field. */
#include "converter/data/bridge_translator_bstn.h"

#include "common/bridge_log.h"
#include "common/bridge_utils.h"
#include "converter/data/bridge_translator.h"
#include "converter/data/bridge_translator_common.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>

static constexpr int64_t CLOCK_MASK = 0xffffffffffff; /* the bits of the base that follow the gateway */
static constexpr int64_t COUNTER_WRAP = 0x100000000;
static constexpr int32_t MAX_CLOCK_LAG_US = 100000;

static constexpr size_t MAX_FRAME = 256;
static constexpr size_t MIN_DECODE_SIZE = 6;
static constexpr size_t MIC_SIZE = 4;
static constexpr size_t EUI_SIZE = 8;
static constexpr size_t EUI_TEXT_SIZE = 24;
static constexpr size_t MAX_FOPTS = 7;
static constexpr size_t JOIN_REQUEST_SIZE = 23;
static constexpr size_t MIN_DATA_FRAME = 7;

/* Offsets in the frame. */
static constexpr size_t JOIN_EUI = 1;
static constexpr size_t DEV_EUI = 9;
static constexpr size_t DEV_NONCE = 17;
static constexpr size_t DEV_ADDR = 1;
static constexpr size_t FCTRL = 5;
static constexpr size_t FCNT = 6;
static constexpr size_t FOPTS = 8;

/* The mask leaves out the lowest bit of the message type, and that of the FOpts length its highest: servers
 * of this dialect have always seen it so. */
static constexpr uint8_t TYPE_MASK = 6;
static constexpr uint8_t FOPTS_MASK = 7;
static constexpr uint8_t TYPE_JOIN_REQUEST = 0;
static constexpr uint8_t TYPE_DATA_UNCONFIRMED = 2;
static constexpr uint8_t TYPE_DATA_CONFIRMED = 4;

/* An uplink on its way through: the packet, the frame and what both versions compute of them. */
struct bstn_uplink {
    uint32_t version;
    semtech_uplink packet;
    uint8_t frame[MAX_FRAME];
    size_t size; /* bytes of the frame, as the version counts them */
    int64_t mic;
    int64_t mhdr;
    int64_t frequency; /* Hz */
    int64_t xtime;
    int64_t rxtime;  /* seconds */
    int64_t gpstime; /* microseconds */
    int64_t rctx;
    char snr_text[SNR_TEXT_SIZE];
};

struct bstn_data_frame {
    int64_t dev_addr;
    int64_t fctrl;
    int64_t fcnt;
    uint8_t fopts[MAX_FOPTS];
    size_t fopts_size;
    int64_t fport;
    char fopts_text[2 * MAX_FOPTS + 1];
    char payload_text[2 * MAX_FRAME + 1];
};

/* ---- reading a frame ---- */

static uint32_t read_le32(const uint8_t *bytes)
{
    return static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
           static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
}

static uint16_t read_le16(const uint8_t *bytes)
{
    return static_cast<uint16_t>(bytes[0] | bytes[1] << 8);
}

/* Version 1 folds the four bytes into one. A frame too short for a MIC fails later, by its type. */
static int64_t read_mic(const bstn_uplink &up)
{
    if (up.size < MIC_SIZE)
        return 0;
    const uint8_t *mic = up.frame + up.size - MIC_SIZE;
    return up.version == 1 ? mic[0] | mic[1] | mic[2] | mic[3] : static_cast<int64_t>(read_le32(mic));
}

/* Version 1 takes the size of the decode buffer for that of the frame, so its join requests, of 23 bytes,
 * never pass: servers know it so. */
static int decode_frame(bstn_uplink *up)
{
    const auto data_sz = static_cast<size_t>(Base64decode_len(up->packet.data));
    if (data_sz > sizeof(up->frame)) {
        BRIDGE_ERROR("LoRa PHY of [%zu] bytes is too big", data_sz);
        return -1;
    }
    if (data_sz < MIN_DECODE_SIZE) {
        BRIDGE_ERROR("LoRa PHY of [%zu] bytes is too small", data_sz);
        return -1;
    }
    const int rc = Base64decode(reinterpret_cast<char *>(up->frame), up->packet.data);
    BRIDGE_ASSERT_TEXT(rc > 0 && static_cast<unsigned>(rc) <= data_sz, "rc > 0 && (unsigned)rc <= data_sz");
    up->size = up->version == 1 ? data_sz : static_cast<size_t>(rc);
    up->mhdr = up->frame[0];
    up->mic = read_mic(*up);
    return 0;
}

static int64_t server_clock(uint32_t version, int64_t tmst)
{
    int64_t xtime = 0;
    if (version == 1) {
        translate_semtech_clock_to_server_clock(tmst, &xtime);
        return xtime;
    }
    const auto difference =
        static_cast<int32_t>(static_cast<uint32_t>(tmst) - static_cast<uint32_t>(bstn_xtime_base));
    if (difference < -MAX_CLOCK_LAG_US) {
        BRIDGE_ERROR("Something seems to be wrong, UL timestamp: %lld, base: %lld",
                     static_cast<long long>(tmst), static_cast<long long>(bstn_xtime_base));
        return 0;
    }
    return static_cast<int64_t>(static_cast<uint64_t>(bstn_xtime_base) + static_cast<uint64_t>(difference));
}

/* 0 for a time in another form than "2026-01-02T03:04:05...". Not by timegm: its time may have 32 bits. */
static int64_t seconds_of(const char *time)
{
    using std::chrono::sys_days, std::chrono::year;
    tm utc = {};
    if (strptime(time, "%Y-%m-%dT%T", &utc) == nullptr)
        return 0;
    const sys_days month = year(1900 + utc.tm_year) / (1 + utc.tm_mon) / 1;
    const int64_t day = month.time_since_epoch().count() + utc.tm_mday - 1;
    return ((day * 24 + utc.tm_hour) * 60 + utc.tm_min) * 60 + utc.tm_sec;
}

static int read_uplink(json_object *semtech, uint32_t version, bstn_uplink *up)
{
    if ((bstn_xtime_base & CLOCK_MASK) == 0) {
        BRIDGE_ERROR("Drop packet. Not synced with gateway count, wait for sync");
        return -1;
    }
    up->version = version;
    if (bridge_semtech_current_time(up->packet.time, 64) < 0) {
        BRIDGE_ERROR("failed to prepare time string for bstn uplink");
        return -1;
    }
    const semtech_time_keys keys = version == 1 ? SEMTECH_TIME_ONLY : SEMTECH_TIME_TMMS_TMUS;
    int result = bridge_semtech_read_uplink(semtech, version, keys, &up->packet);
    if (result < 0)
        return result;
    result = decode_frame(up);
    if (result < 0)
        return result;

    const semtech_uplink &packet = up->packet;
    snprintf(up->snr_text, sizeof(up->snr_text), "%0.1f", packet.lsnr);
    up->xtime = server_clock(version, packet.tmst);
    up->frequency = bridge_semtech_frequency_hz(packet.freq);
    if (version != 1) {
        up->rxtime = seconds_of(packet.time);
        up->gpstime =
            packet.tmus != 0 ? packet.tmus : static_cast<int64_t>(static_cast<uint64_t>(packet.tmms) * 1000U);
    }
    return 0;
}

/* ---- writing an uplink ---- */

/* The members of version 2 stand in another order in a join request than in a data frame. */
static void fill_info(bstn_uplink *up, bool is_join, bridge_json_frame<7> *info)
{
    info->add(field_int("rctx", &up->rctx));
    if (up->version == 1) {
        info->add(field_int("xtime", &up->xtime));
    } else if (is_join) {
        info->add(field_int("xtime", &up->xtime));
        info->add(field_int("rxtime", &up->rxtime));
    } else {
        info->add(field_int("rxtime", &up->rxtime));
        info->add(field_int("xtime", &up->xtime));
    }
    info->add(field_int("gpstime", &up->gpstime));
    info->add(field_int("rssi", &up->packet.rssi));
    info->add(field_double("snr", &up->packet.lsnr, up->snr_text));
    info->add(field_int("chan", &up->packet.chan));
}

static const char *info_key(const bstn_uplink &up)
{
    return up.version == 1 ? "rxInfo" : "upinfo";
}

static int check_join_size(const bstn_uplink &up)
{
    if (up.version == 1)
        BRIDGE_TRACE("join request received");
    else
        BRIDGE_TRACE("join request received: [%zu] bytes", up.size);
    if (up.size == JOIN_REQUEST_SIZE)
        return 0;
    if (up.version == 1)
        BRIDGE_ERROR("invalid size of join request payload, expected 17 bytes, got: [%zu]", up.size);
    else
        BRIDGE_ERROR("invalid size of join request payload, expected 23 bytes, got: [%zu]", up.size);
    return -1;
}

static void format_eui(const uint8_t *eui, char (&text)[EUI_TEXT_SIZE])
{
    const int rc = bridge_utils_format_eui64(eui, EUI_SIZE, text, sizeof(text));
    BRIDGE_ASSERT(rc == 0);
}

static int write_join_request(bstn_uplink *up, json_object *bstn)
{
    const int result = check_join_size(*up);
    if (result < 0)
        return result;
    char join_eui[EUI_TEXT_SIZE];
    char dev_eui[EUI_TEXT_SIZE];
    format_eui(up->frame + JOIN_EUI, join_eui);
    format_eui(up->frame + DEV_EUI, dev_eui);
    int64_t nonce = read_le16(up->frame + DEV_NONCE);
    BRIDGE_TRACE("extracted dev EUI: %s join EUI: %s", dev_eui, join_eui);
    if (up->version == 1)
        BRIDGE_TRACE("extracted MHdr: %#x Nonce: %#x MIC: %#x, xtime: %lli", static_cast<unsigned>(up->mhdr),
                     static_cast<unsigned>(nonce), static_cast<unsigned>(up->mic),
                     static_cast<long long>(up->xtime));
    else
        BRIDGE_TRACE("extracted MHdr: %#x Nonce: %#x MIC: %#x, xtime: %lld", static_cast<unsigned>(up->mhdr),
                     static_cast<unsigned>(nonce), static_cast<unsigned>(up->mic),
                     static_cast<long long>(up->xtime));

    bridge_json_frame<7> info;
    fill_info(up, true, &info);
    bridge_json_field frame[] = {
        field_text("DR", up->packet.datr),
        field_int("Freq", &up->frequency),
        field_object(info_key(*up), info.data(), info.size()),
        field_text("msgtype", "jreq"),
        field_int("MHdr", &up->mhdr),
        field_text("JoinEui", join_eui),
        field_text("DevEui", dev_eui),
        field_int("DevNonce", &nonce),
        field_int("MIC", &up->mic),
    };
    return bridge_json_serialize(bstn, frame, std::size(frame));
}

/* What follows FOpts up to the MIC: a port, if anything, and the payload. */
static int read_port_and_payload(const bstn_uplink &up, size_t position, bstn_data_frame *data)
{
    const size_t end = up.size - MIC_SIZE;
    data->fport = -1;
    if (position < end) {
        if (position + 1 > end) {
            BRIDGE_ERROR(
                "LoRa data packet of [%zu] bytes is too small: exceeded packet boundary while seeking "
                "for FPort",
                up.size);
            return -1;
        }
        data->fport = up.frame[position++];
    }
    if (position > end) {
        BRIDGE_ERROR(
            "LoRa data packet of [%zu] bytes is too small: exceeded packet boundary while seeking for "
            "FRMPayload",
            up.size);
        return -1;
    }
    if (position == end)
        return 0;
    const int result = bridge_utils_array_to_hexstring(up.frame + position, end - position,
                                                       data->payload_text, sizeof(data->payload_text));
    if (result < 0)
        return result;
    BRIDGE_TRACE("extracted FRMPayload: %s", data->payload_text);
    return 0;
}

static int read_data_frame(const bstn_uplink &up, bstn_data_frame *data)
{
    if (up.size < MIN_DATA_FRAME) {
        BRIDGE_ERROR("LoRa PHY of [%zu] bytes is too small for data uplink", up.size);
        return -1;
    }
    data->dev_addr = static_cast<int32_t>(read_le32(up.frame + DEV_ADDR));
    data->fctrl = up.frame[FCTRL];
    data->fcnt = read_le16(up.frame + FCNT);
    data->fopts_size = up.frame[FCTRL] & FOPTS_MASK;
    if (up.size < MIN_DATA_FRAME + data->fopts_size) {
        BRIDGE_ERROR("LoRa data packet of [%zu] bytes is too small", up.size);
        return -1;
    }
    memcpy(data->fopts, up.frame + FOPTS, data->fopts_size);
    return read_port_and_payload(up, FOPTS + data->fopts_size, data);
}

static int write_data_frame(bstn_uplink *up, uint8_t type, json_object *bstn)
{
    BRIDGE_TRACE("data uplink request received, type: [%#x]", type);
    bstn_data_frame data = {};
    int result = read_data_frame(*up, &data);
    if (result < 0)
        return result;
    BRIDGE_TRACE("extracted FCtrl: %#x, FCnt: %#x", static_cast<unsigned>(data.fctrl),
                 static_cast<unsigned>(data.fcnt));
    result = bridge_utils_array_to_hexstring(data.fopts, data.fopts_size, data.fopts_text,
                                             sizeof(data.fopts_text));
    if (result < 0)
        return result;
    BRIDGE_TRACE("extracted FOpts: %s MHdr: %#x DevAddr: %#x, MIC: %#x, xtime: %lld", data.fopts_text,
                 static_cast<unsigned>(up->mhdr), static_cast<unsigned>(data.dev_addr),
                 static_cast<unsigned>(up->mic), static_cast<long long>(up->xtime));

    bridge_json_frame<7> info;
    fill_info(up, false, &info);
    bridge_json_field frame[] = {
        field_text("DR", up->packet.datr),
        field_int("Freq", &up->frequency),
        field_object(info_key(*up), info.data(), info.size()),
        field_text("msgtype", "updf"),
        field_int("MHdr", &up->mhdr),
        field_int("DevAddr", &data.dev_addr),
        field_int("FCtrl", &data.fctrl),
        field_int("FCnt", &data.fcnt),
        field_text("FOpts", data.fopts_text),
        field_int("FPort", &data.fport),
        field_text("FRMPayload", data.payload_text),
        field_int("MIC", &up->mic),
    };
    return bridge_json_serialize(bstn, frame, std::size(frame));
}

static int translate_uplink(const bridge_translate_msg *from, uint32_t version, json_object *semtech,
                            json_object *bstn)
{
    BRIDGE_ASSERT_TEXT(from, "mac");
    BRIDGE_ASSERT(semtech);
    BRIDGE_ASSERT(bstn);
    bstn_uplink up = {};
    const int result = read_uplink(semtech, version, &up);
    if (result < 0)
        return result;
    const auto type = static_cast<uint8_t>(up.frame[0] >> 5 & TYPE_MASK);
    switch (type) {
    case TYPE_JOIN_REQUEST:
        return write_join_request(&up, bstn);
    case TYPE_DATA_UNCONFIRMED:
    case TYPE_DATA_CONFIRMED:
        return write_data_frame(&up, type, bstn);
    default:
        BRIDGE_ERROR("unknown uplink packet type: [%#x]", type);
        return -1;
    }
}

int bridge_translate_uplink_semtech_v1_to_bstn_v1(const bridge_translate_msg *from, json_object *semtech,
                                                  json_object *bstn)
{
    return translate_uplink(from, 1, semtech, bstn);
}

int bridge_translate_uplink_semtech_v2_to_bstn_v1(const bridge_translate_msg *from, json_object *semtech,
                                                  json_object *bstn)
{
    return translate_uplink(from, 2, semtech, bstn);
}

/* ---- statistics ---- */

/* The sums wrap like the counters that they follow. */
static void advance_base(int64_t by)
{
    bstn_xtime_base =
        static_cast<int64_t>(static_cast<uint64_t>(bstn_xtime_base) + static_cast<uint64_t>(by));
}

/* Publishes no key of its own: the gateway's count moves the clock. */
int bridge_translate_stat_semtech_v1_to_bstn_v1(const bridge_translate_msg *, json_object *semtech,
                                                json_object *)
{
    BRIDGE_ASSERT(semtech);
    int64_t count = 0;
    bridge_json_field frame[] = {field_optional(field_int("count", &count))};
    (void)bridge_json_deserialize(semtech, frame, std::size(frame));
    if (count == 0) {
        BRIDGE_TRACE("No count value, please configure pkt fwd to report count!");
        return 0;
    }
    if ((bstn_xtime_base & CLOCK_MASK) == 0) {
        advance_base(count);
    } else {
        const auto difference =
            static_cast<int32_t>(static_cast<uint32_t>(count) - static_cast<uint32_t>(bstn_xtime_base));
        if (difference < 0) {
            BRIDGE_TRACE("Gateway count roll over, count: %lld, base: %lld", static_cast<long long>(count),
                         static_cast<long long>(bstn_xtime_base));
            advance_base(COUNTER_WRAP);
        }
        advance_base(difference);
    }
    BRIDGE_TRACE("bstn xtime base updated: %lld", static_cast<long long>(bstn_xtime_base));
    return 0;
}

int bridge_translate_stat_semtech_v2_to_bstn_v1(const bridge_translate_msg *from, json_object *semtech,
                                                json_object *bstn)
{
    return bridge_translate_stat_semtech_v1_to_bstn_v1(from, semtech, bstn);
}

/* ---- downlinks ---- */

static constexpr int64_t NOT_GIVEN = -1;
static constexpr uint64_t RX2_DELAY_US = 1000000;
static constexpr size_t MAX_PDU = 256;

enum bstn_device_class : int64_t {
    BSTN_CLASS_A = 0,
    BSTN_CLASS_B = 1,
    BSTN_CLASS_C = 2,
};

struct bstn_downlink {
    char msgtype[32];
    char dev_eui[64];
    int64_t device_class;
    int64_t diid;
    char pdu[512]; /* hexadecimal */
    char dr[16];
    int64_t frequency; /* Hz */
    char source[32];
    int64_t priority;
    int64_t rctx;
    int64_t xtime;
    int64_t rx_delay; /* seconds */
    int64_t rx2_dr;
    int64_t rx2_freq;
    int64_t gpstime; /* microseconds */
};

struct bstn_timing {
    const char *key;
    int64_t value;
    bool immediate;
};

static int read_common_part(json_object *bstn, bstn_downlink *down)
{
    bridge_json_field frame[] = {
        field_string("msgtype", down->msgtype),
        field_string("DevEui", down->dev_eui),
        field_int("dC", &down->device_class),
        field_int("diid", &down->diid),
        field_string("pdu", down->pdu),
        field_string("DR", down->dr),
        field_int("Freq", &down->frequency),
        field_string("source", down->source),
        field_optional(field_int("priority", &down->priority)),
        field_optional(field_int("rctx", &down->rctx)),
    };
    const int result = bridge_json_deserialize(bstn, frame, std::size(frame));
    if (result < 0)
        BRIDGE_WARN("failed to deserialize common part of the downlink packet: %s",
                    json_object_to_json_string_ext(bstn, 0));
    return result;
}

static int read_class_part(json_object *bstn, bstn_downlink *down)
{
    bridge_json_frame<4> frame;
    down->rx_delay = 1;
    down->rx2_dr = NOT_GIVEN;
    down->rx2_freq = NOT_GIVEN;
    switch (down->device_class) {
    case BSTN_CLASS_A:
        frame.add(field_int("xtime", &down->xtime));
        frame.add(field_optional(field_int("RxDelay", &down->rx_delay)));
        frame.add(field_optional(field_int("RX2DR", &down->rx2_dr)));
        frame.add(field_optional(field_int("RX2Freq", &down->rx2_freq)));
        break;
    case BSTN_CLASS_B:
        frame.add(field_int("gpstime", &down->gpstime));
        break;
    case BSTN_CLASS_C:
        frame.add(field_optional(field_int("xtime", &down->xtime)));
        frame.add(field_optional(field_int("RxDelay", &down->rx_delay)));
        break;
    default:
        BRIDGE_WARN("invalid DC value received from BSTN: %u", static_cast<unsigned>(down->device_class));
        return -1;
    }
    const int result = bridge_json_deserialize(bstn, frame.data(), frame.size());
    if (result < 0)
        BRIDGE_WARN("failed to deserialize class-specific part of the downlink packet: %s",
                    json_object_to_json_string_ext(bstn, 0));
    return result;
}

static bstn_timing compute_timing(const bstn_downlink &down)
{
    if (down.device_class == BSTN_CLASS_B)
        return {"tmms", down.gpstime / 1000, false};
    /* The gateway's counter has 32 bits. */
    uint64_t tmst = static_cast<uint64_t>(down.rx_delay) * 1000000U + static_cast<uint64_t>(down.xtime);
    const bool second_window =
        down.device_class == BSTN_CLASS_A && down.rx2_dr != NOT_GIVEN && down.rx2_freq != NOT_GIVEN;
    if (second_window)
        tmst += RX2_DELAY_US;
    return {"tmst", static_cast<int64_t>(static_cast<uint32_t>(tmst)), down.device_class == BSTN_CLASS_C};
}

static int write_downlink(bstn_downlink *down, const char *data, int64_t size, json_object *semtech)
{
    double freq = static_cast<double>(down->frequency) / 1000000;
    char freq_text[32];
    snprintf(freq_text, sizeof(freq_text), "%.6lf", freq);
    int64_t rfch = 0;
    int64_t power = 27; /* dBm */
    bool ipol = true;
    bstn_timing timing = compute_timing(*down);
    bridge_json_field frame[] = {
        field_bool("imme", &timing.immediate),
        field_double("freq", &freq, freq_text),
        field_int("rfch", &rfch),
        field_int("powe", &power),
        field_text("modu", "LORA"),
        field_text("datr", down->dr),
        field_text("codr", "4/5"),
        field_bool("ipol", &ipol),
        field_int("size", &size),
        field_text("data", data),
        field_text("source", down->source),
        field_int("diid", &down->diid),
        field_text("deveui", down->dev_eui),
        field_int("rctx", &down->rctx),
        field_int(timing.key, &timing.value),
    };
    return bridge_json_serialize(semtech, frame, std::size(frame));
}

int bridge_translate_downlink_bstn_v1_to_semtech_v2(json_object *bstn, json_object *semtech, uint16_t *)
{
    BRIDGE_ASSERT_TEXT(bstn != nullptr, "bstn != NULL");
    BRIDGE_ASSERT_TEXT(semtech != nullptr, "semtech != NULL");
    bstn_downlink down = {};
    int result = read_common_part(bstn, &down);
    if (result < 0)
        return result;
    result = read_class_part(bstn, &down);
    if (result < 0)
        return result;

    const size_t size = strlen(down.pdu) >> 1;
    uint8_t bytes[MAX_PDU] = {};
    result = bridge_utils_hexstring_to_array(down.pdu, bytes, sizeof(bytes));
    if (result < 0)
        return result;
    char data[(MAX_PDU + 2) / 3 * 4 + 1];
    Base64encode(data, reinterpret_cast<const char *>(bytes), static_cast<int>(size));
    return write_downlink(&down, data, static_cast<int64_t>(size), semtech);
}

int bridge_translate_downlink_bstn_v1_to_semtech_v1(json_object *, json_object *, uint16_t *)
{
    return -95;
}
