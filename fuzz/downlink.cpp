/* From a message of the network server to the datagram in the pipe and at the forwarder, in every dialect.
 * Input: one byte of choices, then the payload. */
#include "common/bridge_json_helpers.h"
#include "converter/data/bridge_data_ctx.h"
#include "converter/data/bridge_translator.h"
#include "fuzz.h"
#include "fuzz_mutate.h"
#include "fuzz_plane.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

static constexpr uint8_t DIALECT_MASK = 0x03; /* a bridge_ns_type, or the dialect that none selects */
static constexpr uint8_t DIALECT_BSTN = 3;
static constexpr uint8_t SEMTECH_VERSION_2 = 0x04;
static constexpr uint8_t NO_PULL_DATA = 0x08; /* the forwarder has not yet asked */

static constexpr int TXPK_KEYS = 11;
static constexpr int TXPK_KEYS_BSTN = 15;

using tokener_owned = std::unique_ptr<json_tokener, bridge_release<json_tokener_free>>;

/* ---- the three dialects that a configuration selects ---- */

static void pull(uint8_t version)
{
    const uint8_t datagram[] = {version, 0, 0, SEMTECH_PULL_DATA, 0};
    FUZZ_REQUIRE(bridge_process_uplink(fuzz_forwarder_address(), datagram, sizeof(datagram)) == 0);
    FUZZ_REQUIRE(fuzz_forwarder_receive().size() == SEMTECH_HEADER_SIZE);
}

/* What lies in the pipe, in one piece; empty when nothing does. */
static std::vector<uint8_t> read_pipe()
{
    std::vector<uint8_t> datagram(2 * BRIDGE_PIPE_SIZE);
    const ssize_t count = read(converter_ctx.pipe_fds[0], datagram.data(), datagram.size());
    datagram.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return datagram;
}

static void check_txpk(const char *text, int keys)
{
    FUZZ_REQUIRE(fuzz_is_json_object(text));
    const json_owned wrapper(json_tokener_parse(text));
    json_object *txpk = nullptr;
    FUZZ_REQUIRE(json_object_object_length(wrapper.get()) == 1);
    FUZZ_REQUIRE(json_object_object_get_ex(wrapper.get(), "txpk", &txpk));
    FUZZ_REQUIRE(json_object_is_type(txpk, json_type_object));
    FUZZ_REQUIRE(json_object_object_length(txpk) == keys);
}

static void check_datagram(const std::vector<uint8_t> &datagram, bridge_ns_type ns_type, uint8_t version)
{
    FUZZ_REQUIRE(datagram.size() > SEMTECH_HEADER_SIZE && datagram.size() <= BRIDGE_PIPE_SIZE);
    FUZZ_REQUIRE(datagram[0] == version);
    FUZZ_REQUIRE(datagram[3] == SEMTECH_PULL_RESP);
    /* The native dialect has no token. */
    FUZZ_REQUIRE(ns_type != NS_TYPE_SNVNS || (datagram[1] == 0 && datagram[2] == 0));
    const auto end = std::find(datagram.begin() + SEMTECH_HEADER_SIZE, datagram.end(), 0);
    FUZZ_REQUIRE(end == datagram.end() - 1);
    check_txpk(reinterpret_cast<const char *>(datagram.data()) + SEMTECH_HEADER_SIZE, TXPK_KEYS);
}

/* By bridge_ns_type. */
static constexpr const char *GOOD_PAYLOADS[] = {
    R"({"phyPayload":"QAQDAg==","txInfo":{"codeRate":"4/5","dataRate":{"bandwidth":125,"modulation":"LORA",)"
    R"("spreadFactor":9},"frequency":868100000,"immediately":true,"mac":"0102","power":14}})",
    R"({"phyPayload":"QAQDAg==","token":7,"txInfo":{"codeRate":"4/5","dataRate":{"bandwidth":125,)"
    R"("modulation":"LORA","spreadFactor":9},"frequency":868100000,"immediately":false,"mac":"0102",)"
    R"("power":14,"timestamp":8}})",
    R"({"phyPayload":"QAQDAg==","token":7,"txInfo":{"frequency":868100000,"power":14,"modulation":"LORA",)"
    R"("loRaModulationInfo":{"bandwidth":125,"spreadingFactor":9,"codeRate":"4/5",)"
    R"("polarizationInversion":true},"board":0,"antenna":0,"timing":"IMMEDIATELY"}})",
};

/* A good message passes, whatever came before it. */
static void check_next(bridge_ns_type ns_type, uint8_t version)
{
    const char *text = GOOD_PAYLOADS[ns_type];
    const auto exact = fuzz_exact_copy(text, strlen(text));
    bridge_downlink_callback("gateway/tx", &converter_ctx, exact.get(), static_cast<uint32_t>(strlen(text)));
    check_datagram(read_pipe(), ns_type, version);
}

static void process(uint8_t choices, const uint8_t *payload, size_t size)
{
    const auto ns_type = static_cast<bridge_ns_type>(choices & DIALECT_MASK);
    const uint8_t version = (choices & SEMTECH_VERSION_2) != 0 ? 2 : 1;
    fuzz_plane_reset(ns_type, true, 0);
    pull(version);
    const bool sent = (choices & NO_PULL_DATA) == 0;
    converter_ctx.rx_allowed = sent;

    const auto exact = fuzz_exact_copy(payload, size);
    bridge_downlink_callback("gateway/tx", &converter_ctx, exact.get(), static_cast<uint32_t>(size));
    const std::vector<uint8_t> datagram = read_pipe();
    if (!datagram.empty()) {
        check_datagram(datagram, ns_type, version);
        FUZZ_REQUIRE(bridge_send_downlink(fuzz_exact_copy(datagram.data(), datagram.size()).get(),
                                          datagram.size()) == 0);
        FUZZ_REQUIRE(fuzz_forwarder_receive() == (sent ? datagram : std::vector<uint8_t>()));
    }
    FUZZ_REQUIRE(read_pipe().empty());
    FUZZ_REQUIRE(fuzz_forwarder_receive().empty());
    check_next(ns_type, version);
}

/* ---- Basics Station ---- */

static void process_bstn(uint8_t choices, const uint8_t *payload, size_t size)
{
    const tokener_owned tokener(json_tokener_new());
    const auto exact = fuzz_exact_copy(payload, size);
    const json_owned parsed(json_tokener_parse_ex(tokener.get(), reinterpret_cast<const char *>(exact.get()),
                                                  static_cast<int>(size)));
    if (!parsed)
        return;
    json_owned txpk(json_object_new_object());
    bridge_translate_msg from = {
        .format = FORMAT_BSTN, .direction = DIRECTION_DOWNLINK, .version = 1, .json = parsed.get()};
    bridge_translate_msg to = {.format = FORMAT_SEMTECH,
                               .direction = DIRECTION_DOWNLINK,
                               .version = (choices & SEMTECH_VERSION_2) != 0 ? 2U : 1U,
                               .json = txpk.get()};
    errno = 0;
    if (bridge_translate_generic(&from, &to) < 0)
        return;
    FUZZ_REQUIRE(to.version == 2);
    FUZZ_REQUIRE(to.token == 0);
    const json_owned wrapper(json_object_new_object());
    json_object_object_add(wrapper.get(), "txpk", txpk.release());
    check_txpk(json_object_to_json_string_ext(wrapper.get(), JSON_C_TO_STRING_PLAIN), TXPK_KEYS_BSTN);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_plane_start();
    return 0;
}

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size, unsigned seed)
{
    return fuzz_mutate_json(data, size, max_size, 1, seed);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    if ((data[0] & DIALECT_MASK) == DIALECT_BSTN)
        process_bstn(data[0], data + 1, size - 1);
    else
        process(data[0], data + 1, size - 1);
    return 0;
}
