/* From a forwarder's datagram to what is published and answered, in every dialect and both protocol versions.
 * Input: one byte of choices, then the datagram. */
#include "common/bridge_json_helpers.h"
#include "converter/data/bridge_data_ctx.h"
#include "converter/data/bridge_translator.h"
#include "converter/data/bridge_translator_bstn.h"
#include "fuzz.h"
#include "fuzz_mutate.h"
#include "fuzz_plane.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

static constexpr uint8_t DIALECT_MASK = 0x03; /* a bridge_ns_type, or the dialect that none selects */
static constexpr uint8_t DIALECT_BSTN = 3;
static constexpr uint8_t NS_DISABLED = 0x04;
static constexpr uint8_t PUBLISH_FAILS = 0x08;

static constexpr size_t MAX_DATAGRAM = 1023; /* the socket cuts a longer one */
static constexpr size_t JSON_OFFSET = SEMTECH_HEADER_SIZE + SEMTECH_MAC_SIZE;
static constexpr size_t MAX_ACK = 511;

/* ---- the three dialects that a configuration selects ---- */

static void check_message(const fuzz_message &message)
{
    FUZZ_REQUIRE(strlen(message.body.c_str()) == message.body.size());
    if (message.endpoint == BRIDGE_MQTT_EP_GEOLOC) {
        const json_owned parsed(json_tokener_parse(message.body.c_str()));
        FUZZ_REQUIRE(message.topic == "gateway/geoloc");
        FUZZ_REQUIRE(json_object_is_type(parsed.get(), json_type_array));
        return;
    }
    FUZZ_REQUIRE(message.endpoint == BRIDGE_MQTT_EP_NS);
    if (message.topic == converter_ctx.ack_topic) {
        /* The forwarder's status stands in it as it came, quotes and all. */
        FUZZ_REQUIRE(message.body.starts_with("{ \"gatewayID\": \"") && message.body.ends_with("\" } ] }"));
        FUZZ_REQUIRE(message.body.size() <= MAX_ACK);
        return;
    }
    FUZZ_REQUIRE(message.topic == converter_ctx.uplink_topic || message.topic == converter_ctx.stats_topic);
    FUZZ_REQUIRE(fuzz_is_json_object(message.body));
}

/* Only what was handled whole is acknowledged, and only to the two packets that have an acknowledgement. */
static void check_answer(const uint8_t *datagram, int result)
{
    const std::vector<uint8_t> answer = fuzz_forwarder_receive();
    const bool answered = result == 0 && datagram[3] != SEMTECH_TX_ACK;
    FUZZ_REQUIRE(answered != answer.empty());
    if (answered) {
        const uint8_t identifier = datagram[3] == SEMTECH_PUSH_DATA ? SEMTECH_PUSH_ACK : SEMTECH_PULL_ACK;
        const std::vector<uint8_t> expected = {datagram[0], datagram[1], datagram[2], identifier};
        FUZZ_REQUIRE(answer == expected);
    }
    FUZZ_REQUIRE(fuzz_forwarder_receive().empty());
}

static const std::string GOOD_DATAGRAM =
    std::string("\2tk\0\0\x16\xc0\1\xff\x1a\x2b\x3c", JSON_OFFSET) +
    R"({"rxpk":[{"time":"2024-05-06T07:08:09Z","tmst":3512348611,"chan":2,"rfch":1,"freq":868.3,"stat":1,)"
    R"("modu":"LORA","datr":"SF7BW125","codr":"4/5","rssi":-57,"lsnr":9.8,"size":13,)"
    R"("data":"QAQDAgGAAQABp/7d9w=="}]})";

/* What is published of a good datagram, whatever came before it. */
static std::string publish_good_datagram()
{
    fuzz_mqtt = {.ns_enabled = true};
    const auto exact = fuzz_exact_copy(GOOD_DATAGRAM.c_str(), GOOD_DATAGRAM.size() + 1);
    FUZZ_REQUIRE(bridge_process_uplink(fuzz_forwarder_address(), exact.get(), GOOD_DATAGRAM.size() + 1) == 0);
    FUZZ_REQUIRE(fuzz_forwarder_receive().size() == SEMTECH_HEADER_SIZE);
    FUZZ_REQUIRE(fuzz_mqtt.messages.size() == 1);
    return fuzz_mqtt.messages[0].body;
}

static std::array<std::string, DIALECT_BSTN> good_messages; /* by bridge_ns_type */

static void process(uint8_t choices, const uint8_t *datagram, size_t size)
{
    /* The one packet that meets an assertion by design: its terminator reads as PUSH_DATA without a body. */
    if (size == 3 && (datagram[0] == 1 || datagram[0] == 2))
        return;
    const int publish_result = (choices & PUBLISH_FAILS) != 0 ? -1 : 0;
    const bool ns_enabled = (choices & NS_DISABLED) == 0;
    fuzz_plane_reset(static_cast<bridge_ns_type>(choices & DIALECT_MASK), ns_enabled, publish_result);

    const auto terminated = fuzz_exact_copy(std::string(datagram, datagram + size).c_str(), size + 1);
    const int result = bridge_process_uplink(fuzz_forwarder_address(), terminated.get(), size + 1);
    for (const fuzz_message &message : fuzz_mqtt.messages) {
        check_message(message);
        FUZZ_REQUIRE(ns_enabled || message.endpoint != BRIDGE_MQTT_EP_NS);
    }
    FUZZ_REQUIRE(fuzz_mqtt.failures.size() == (publish_result < 0 ? fuzz_mqtt.messages.size() : 0));
    check_answer(terminated.get(), result);
    FUZZ_REQUIRE(publish_good_datagram() == good_messages[choices & DIALECT_MASK]);
}

/* ---- Basics Station ---- */

static int translate(const uint8_t *datagram, bridge_direction direction, json_object *input,
                     json_object *output)
{
    bridge_translate_msg from = {.format = FORMAT_SEMTECH,
                                 .direction = direction,
                                 .version = static_cast<uint32_t>(datagram[0] & VERSION_MAX),
                                 .json = input};
    bridge_translate_msg to = {.format = FORMAT_BSTN, .direction = direction, .version = 1, .json = output};
    memcpy(from.mac, datagram + SEMTECH_HEADER_SIZE, sizeof(from.mac));
    memcpy(to.mac, from.mac, sizeof(to.mac));
    errno = 0;
    const int result = bridge_translate_generic(&from, &to);
    if (result == 0)
        FUZZ_REQUIRE(fuzz_is_json_object(json_object_to_json_string_ext(output, JSON_C_TO_STRING_PLAIN)));
    return result;
}

/* Elements and statistics in the order of the data plane, which never selects this dialect. */
static void process_bstn(const uint8_t *datagram, size_t size)
{
    if (size < JSON_OFFSET)
        return;
    /* The dialect makes no use of the MAC: its bytes set the clock. */
    memcpy(&bstn_xtime_base, datagram + SEMTECH_HEADER_SIZE, sizeof(bstn_xtime_base));
    const json_owned parsed(
        json_tokener_parse(fuzz_exact_text(datagram + JSON_OFFSET, size - JSON_OFFSET).get()));
    json_object *rxpk = nullptr;
    json_object *stat = nullptr;
    json_object_object_get_ex(parsed.get(), "rxpk", &rxpk);
    json_object_object_get_ex(parsed.get(), "stat", &stat);

    const json_owned out(json_object_new_object());
    const size_t count = json_object_is_type(rxpk, json_type_array) ? json_object_array_length(rxpk) : 0;
    int result = 0;
    for (size_t i = 0; i < count && result == 0; i++) {
        json_object *element = json_object_array_get_idx(rxpk, i);
        result = element != nullptr ? translate(datagram, DIRECTION_UPLINK, element, out.get()) : -1;
    }
    const json_owned stat_out(json_object_new_object());
    if (stat != nullptr)
        translate(datagram, DIRECTION_STATISTICS, stat, stat_out.get());
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_plane_start();
    for (uint32_t ns_type = 0; ns_type < good_messages.size(); ns_type++) {
        fuzz_plane_reset(static_cast<bridge_ns_type>(ns_type), true, 0);
        good_messages[ns_type] = publish_good_datagram();
    }
    return 0;
}

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size, unsigned seed)
{
    return fuzz_mutate_json(data, size, max_size, 1 + JSON_OFFSET, seed);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const size_t datagram_size = std::min(size - 1, MAX_DATAGRAM);
    if ((data[0] & DIALECT_MASK) == DIALECT_BSTN)
        process_bstn(data + 1, datagram_size);
    else
        process(data[0], data + 1, datagram_size);
    return 0;
}
