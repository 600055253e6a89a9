#include "load_traffic.h"

#include <array>
#include <cctype>
#include <charconv>
#include <cstdio>

static constexpr size_t NUMBER_BASE = 1'000'000'000; /* ten digits, as the gateway's clock mostly shows */
static constexpr std::array<uint8_t, 8> GATEWAY_MAC = {0xaa, 0x55, 0x5a, 0x00, 0x00, 0x00, 0x01, 0x01};
static constexpr size_t PAYLOAD_MIN = 23;
static constexpr size_t PAYLOAD_MAX = 51;

static std::string base64(const std::string &bytes)
{
    static constexpr std::string_view digits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (size_t i = 0; i < bytes.size(); i += 3) {
        uint32_t group = 0;
        for (size_t j = 0; j < 3; j++)
            group = group << 8 | (i + j < bytes.size() ? static_cast<uint8_t>(bytes[i + j]) : 0U);
        for (size_t j = 0; j < 4; j++)
            text += i + j > bytes.size() ? '=' : digits[group >> (18 - 6 * j) & 0x3f];
    }
    return text;
}

/* Unconfirmed data of one of a few devices; the encrypted part is any bytes, the same in every run. */
static std::string phy_payload(size_t number, uint8_t header)
{
    const size_t size = PAYLOAD_MIN + number * 7 % (PAYLOAD_MAX - PAYLOAD_MIN + 1);
    std::string bytes = {static_cast<char>(header), static_cast<char>(number % 16), 0x1b, 0x01, 0x26, 0x00};
    uint32_t state = static_cast<uint32_t>(number) * 2654435761U + 1;
    while (bytes.size() < size) {
        state = state * 1664525U + 1013904223U;
        bytes += static_cast<char>(state >> 24);
    }
    return bytes;
}

static std::string rxpk(size_t number)
{
    const std::string bytes = phy_payload(number, 0x40);
    const auto varied = static_cast<int>(number % 60);
    std::array<char, 512> text;
    const int size =
        snprintf(text.data(), text.size(),
                 "{\"tmst\":%zu,\"chan\":%zu,\"rfch\":1,\"freq\":%.6f,\"stat\":1,\"modu\":\"LORA\","
                 "\"datr\":\"SF7BW125\",\"codr\":\"4/5\",\"lsnr\":%.1f,\"rssi\":%d,\"size\":%zu,"
                 "\"data\":\"%s\"}",
                 NUMBER_BASE + number, number % 3, 868.1 + 0.2 * static_cast<double>(number % 3),
                 9.5 - 0.25 * varied, -45 - varied, bytes.size(), base64(bytes).c_str());
    return {text.data(), static_cast<size_t>(size)};
}

static std::string header(uint16_t token, char identifier)
{
    std::string datagram = {2, static_cast<char>(token), static_cast<char>(token >> 8), identifier};
    datagram.append(GATEWAY_MAC.begin(), GATEWAY_MAC.end());
    return datagram;
}

std::string load_push_data(uint16_t token, size_t first, size_t count)
{
    std::string datagram = header(token, 0) + "{\"rxpk\":[";
    for (size_t i = 0; i < count; i++) {
        if (i > 0)
            datagram += ',';
        datagram += rxpk(first + i);
    }
    return datagram + "]}";
}

std::string load_pull_data(uint16_t token)
{
    return header(token, 2);
}

std::string load_downlink(size_t number)
{
    std::array<char, 512> text;
    const int size =
        snprintf(text.data(), text.size(),
                 "{\"phyPayload\":\"%s\",\"txInfo\":{\"codeRate\":\"4/5\",\"dataRate\":{\"bandwidth\":125,"
                 "\"modulation\":\"LORA\",\"spreadFactor\":7},\"frequency\":868100000,"
                 "\"immediately\":false,\"mac\":\"aa555a0000000101\",\"power\":14,\"timestamp\":%zu}}",
                 base64(phy_payload(number, 0x60)).c_str(), NUMBER_BASE + number);
    return {text.data(), static_cast<size_t>(size)};
}

void load_find_numbers(std::string_view text, const std::function<void(size_t number)> &found)
{
    static constexpr std::array<std::string_view, 2> keys = {"\"tmst\":", "\"timestamp\":"};
    for (const std::string_view key : keys) {
        for (size_t at = text.find(key); at != std::string_view::npos; at = text.find(key, at + 1)) {
            size_t first = at + key.size();
            while (first < text.size() && isspace(static_cast<unsigned char>(text[first])))
                first++;
            size_t number = 0;
            const auto result = std::from_chars(text.data() + first, text.data() + text.size(), number);
            if (result.ec == std::errc() && number >= NUMBER_BASE)
                found(number - NUMBER_BASE);
        }
    }
}
