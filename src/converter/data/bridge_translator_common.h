/* What the translators of all dialects share: reading an uplink as the packet forwarder sends it, reading a
 * downlink's txInfo, and writing a txpk. */
#ifndef BRIDGE_TRANSLATOR_COMMON_H
#define BRIDGE_TRANSLATOR_COMMON_H

#include "common/bridge_json_helpers.h"

#include <array>
#include <cstddef>
#include <cstdint>

/* A frame that grows on the stack, for messages whose members depend on values. */
template <size_t Capacity> class bridge_json_frame
{
  public:
    void add(const bridge_json_field &field)
    {
        fields_.at(count_++) = field;
    }
    bridge_json_field *data()
    {
        return fields_.data();
    }
    size_t size() const
    {
        return count_;
    }

  private:
    std::array<bridge_json_field, Capacity> fields_;
    size_t count_ = 0;
};

/* An rxpk element. Semtech version 1 takes the signal values from the first element of `rsig`, version 2 from
 * the rxpk itself. */
struct semtech_uplink {
    char time[128];
    int64_t tmms; /* milliseconds of GPS time */
    int64_t tmus; /* microseconds of GPS time */
    int64_t tmst; /* microseconds of the concentrator's counter */
    int64_t ant;
    int64_t chan;
    int64_t rfch;
    double freq; /* MHz */
    int64_t stat;
    char modu[16];
    char datr[16];
    char codr[8];
    int64_t rssi;    /* dBm */
    double lsnr;     /* dB */
    int64_t size;    /* bytes */
    char data[2048]; /* Base64 */
};

/* The optional time keys that a dialect reads beside `time`. */
enum semtech_time_keys : uint32_t {
    SEMTECH_TIME_ONLY = 0,
    SEMTECH_TIME_TMMS = 1,
    SEMTECH_TIME_TMMS_TMUS = 2,
};

struct semtech_data_rate {
    int64_t spread_factor;
    int64_t bandwidth; /* kHz */
};

static constexpr size_t HEX_MAC_SIZE = 17;
static constexpr size_t BASE64_MAC_SIZE = 16;
static constexpr size_t STATISTICS_TIME_SIZE = 32;
/* The largest double takes 309 digits before the point. */
static constexpr size_t SNR_TEXT_SIZE = 320;

/* Fills `packet`, whose `time` holds the default. Returns 0 or a negative number. */
int bridge_semtech_read_uplink(json_object *semtech, uint32_t version, semtech_time_keys keys,
                               semtech_uplink *packet);

/* Reads "SF7BW125"; FSK, whose rate is a plain number, is no LoRa rate. Returns 0 or -1. */
int bridge_semtech_parse_data_rate(const char *datr, semtech_data_rate *rate);

/* The current UTC time, the default of an uplink without one. Returns 0 or -1. */
int bridge_semtech_current_time(char *buffer, size_t size);

/* MHz to Hz, truncated. */
int64_t bridge_semtech_frequency_hz(double mhz);

/* Toward zero; a number beyond 64 bits takes the nearest one, and no number at all is 0, as ARM does it. */
int64_t bridge_truncate_to_int64(double number);

void bridge_semtech_format_mac(const uint8_t *mac, char (&text)[HEX_MAC_SIZE]);
void bridge_semtech_encode_mac(const uint8_t *mac, char (&text)[BASE64_MAC_SIZE]);

/* A stat object. The coordinates hold the dialect's defaults before it is read. */
struct semtech_statistics {
    char time[64];
    char boot[64];
    char hal[64];
    double lati;
    double longi;
    int64_t alti; /* metres */
    int64_t rxnb;
    int64_t rxok;
    int64_t rxfw;
    int64_t ackr;
    int64_t dwnb;
    int64_t txnb;
    int64_t lmok;
    int64_t lmst;
};

int bridge_semtech_read_statistics(json_object *semtech, semtech_statistics *statistics);

/* "2026-01-02 03:04:05 GMT" to "2026-01-02T03:04:05.000000Z"; a time in another form gives what could be read
 * of it. */
void bridge_semtech_format_statistics_time(const char *time, char (&text)[STATISTICS_TIME_SIZE]);

/* A downlink as the native and the ChirpStack v2 dialect write it. */
struct ns_downlink {
    char phy_payload[2048]; /* Base64 */
    char code_rate[8];
    semtech_data_rate rate;
    char modulation[16];
    int64_t frequency; /* Hz */
    bool immediately;
    char mac[64];
    int64_t power; /* dBm */
    int64_t timestamp;
    int64_t time_since_gps_epoch; /* milliseconds */
    int64_t token;
};

enum ns_downlink_form : uint32_t {
    NS_DOWNLINK_SNVNS,         /* both timings optional */
    NS_DOWNLINK_CHIRPSTACK_V2, /* timestamp required, token optional */
};

int bridge_read_ns_downlink(json_object *ns, ns_downlink_form form, ns_downlink *down);

/* What is common to every txpk; texts are the caller's. */
struct semtech_txpk {
    int64_t frequency; /* Hz */
    int64_t power;     /* dBm */
    const char *modulation;
    semtech_data_rate rate;
    const char *code_rate;
    const char *phy_payload; /* Base64 */
    bool imme;
    const char *timing_key; /* "tmst" or "tmms" */
    int64_t timing;
    double freq; /* the rest is filled by bridge_semtech_prepare_txpk */
    char freq_text[32];
    char datr[16];
    int64_t size; /* bytes */
};

/* Bytes of a Base64 payload, by its length and padding alone. */
int64_t bridge_semtech_payload_size(const char *base64);

/* Computes frequency, size and data rate text. Returns 0 or -1. */
int bridge_semtech_prepare_txpk(semtech_txpk *txpk);

/* Adds the eleven members to `semtech`. Returns 0 or -1. */
int bridge_semtech_write_txpk(json_object *semtech, semtech_txpk *txpk);

#endif
