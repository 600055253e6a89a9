/* Base64, hexadecimal and EUI texts and the CRC, in buffers of exactly the size that each asks for. Input:
 * the bytes, taken as they are and, up to the first zero, as a text. */
#include "common/bridge_utils.h"
#include "fuzz.h"

#include <algorithm>
#include <cctype>
#include <cstring>

static constexpr size_t EUI_SIZE = 8;
static constexpr size_t EUI_TEXT_SIZE = 24;

static void check_base64_of_bytes(const uint8_t *data, size_t size)
{
    const auto plain = fuzz_exact_copy(data, size);
    const int length = static_cast<int>(size);
    const int encoded_size = Base64encode_len(length);
    const std::unique_ptr<char[]> encoded(new char[static_cast<size_t>(encoded_size)]);
    FUZZ_REQUIRE(Base64encode(encoded.get(), reinterpret_cast<const char *>(plain.get()), length) ==
                 encoded_size);
    FUZZ_REQUIRE(strlen(encoded.get()) + 1 == static_cast<size_t>(encoded_size));

    const std::unique_ptr<char[]> decoded(new char[static_cast<size_t>(Base64decode_len(encoded.get()))]);
    FUZZ_REQUIRE(Base64decode(decoded.get(), encoded.get()) == length);
    FUZZ_REQUIRE(memcmp(decoded.get(), plain.get(), size) == 0);
    FUZZ_REQUIRE(decoded[size] == '\0');
}

/* Any text decodes to something; its whole groups come back when that is encoded. */
static void check_base64_of_text(const char *text)
{
    const int space = Base64decode_len(text);
    const std::unique_ptr<char[]> decoded(new char[static_cast<size_t>(space)]);
    const int length = Base64decode(decoded.get(), text);
    FUZZ_REQUIRE(length >= 0 && length < space);
    FUZZ_REQUIRE(decoded[static_cast<size_t>(length)] == '\0');

    const std::unique_ptr<char[]> encoded(new char[static_cast<size_t>(Base64encode_len(length))]);
    Base64encode(encoded.get(), decoded.get(), length);
    const auto groups = static_cast<size_t>(length) / 3 * 4;
    FUZZ_REQUIRE(memcmp(encoded.get(), text, groups) == 0);
}

static void check_hex_of_bytes(const uint8_t *data, size_t size)
{
    const auto plain = fuzz_exact_copy(data, size);
    const std::unique_ptr<char[]> text(new char[2 * size + 1]);
    FUZZ_REQUIRE(bridge_utils_array_to_hexstring(plain.get(), size, text.get(), 2 * size) == -1);
    FUZZ_REQUIRE(bridge_utils_array_to_hexstring(plain.get(), size, text.get(), 2 * size + 1) == 0);
    FUZZ_REQUIRE(strlen(text.get()) == 2 * size);
    FUZZ_REQUIRE(bridge_utils_check_hex(text.get(), 2 * size));

    const std::unique_ptr<uint8_t[]> back(new uint8_t[size]);
    FUZZ_REQUIRE(bridge_utils_hexstring_to_array(text.get(), back.get(), size) == 0);
    FUZZ_REQUIRE(memcmp(back.get(), plain.get(), size) == 0);
    if (size > 0)
        FUZZ_REQUIRE(bridge_utils_hexstring_to_array(text.get(), back.get(), size - 1) == -1);
}

static bool is_all_digits(const std::string &text)
{
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return isxdigit(c) != 0; });
}

static void check_hex_of_text(const char *text)
{
    const size_t length = strlen(text);
    const std::string given(text);
    const bool digits = is_all_digits(given);
    const bool after_prefix = given.starts_with("0x") && is_all_digits(given.substr(2));
    FUZZ_REQUIRE(bridge_utils_check_hex(text, length) == (digits || after_prefix));

    const std::unique_ptr<uint8_t[]> bytes(new uint8_t[length / 2]);
    const int result = bridge_utils_hexstring_to_array(text, bytes.get(), length / 2);
    FUZZ_REQUIRE(result == 0 || result == -1);
    FUZZ_REQUIRE(result == -1 || length % 2 == 0);
    if (!digits || length % 2 != 0)
        return;
    FUZZ_REQUIRE(result == 0);
    const std::unique_ptr<char[]> back(new char[length + 1]);
    FUZZ_REQUIRE(bridge_utils_array_to_hexstring(bytes.get(), length / 2, back.get(), length + 1) == 0);
    FUZZ_REQUIRE(strcasecmp(back.get(), text) == 0);
}

static void check_eui(const uint8_t *data, size_t size)
{
    const auto eui = fuzz_exact_copy(data, size);
    const std::unique_ptr<char[]> text(new char[EUI_TEXT_SIZE]);
    const int result = bridge_utils_format_eui64(eui.get(), size, text.get(), EUI_TEXT_SIZE);
    FUZZ_REQUIRE(result == (size == EUI_SIZE ? 0 : -1));
    FUZZ_REQUIRE(bridge_utils_format_eui64(eui.get(), size, text.get(), EUI_TEXT_SIZE - 1) == -1);
    if (result < 0)
        return;
    std::string digits(text.get());
    FUZZ_REQUIRE(digits.size() + 1 == EUI_TEXT_SIZE);
    FUZZ_REQUIRE(std::erase(digits, '-') == EUI_SIZE - 1);
    uint8_t back[EUI_SIZE] = {};
    FUZZ_REQUIRE(bridge_utils_hexstring_to_array(digits.c_str(), back, sizeof(back)) == 0);
    FUZZ_REQUIRE(std::equal(std::rbegin(back), std::rend(back), eui.get()));
}

/* A block may be continued at any place. */
static void check_crc(const uint8_t *data, size_t size)
{
    const auto bytes = fuzz_exact_copy(data, size);
    const auto length = static_cast<uint32_t>(size);
    const uint32_t first = length > 0 ? bytes[0] % length : 0;
    const uint32_t head = bridge_utils_calculate_crc32(0, bytes.get(), first);
    const uint32_t whole = bridge_utils_calculate_crc32(0, bytes.get(), length);
    FUZZ_REQUIRE(bridge_utils_calculate_crc32(head, bytes.get() + first, length - first) == whole);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_init_log();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const auto text = fuzz_exact_text(data, size);
    check_base64_of_bytes(data, size);
    check_base64_of_text(text.get());
    check_hex_of_bytes(data, size);
    check_hex_of_text(text.get());
    check_eui(data, size);
    check_eui(data, std::min(size, EUI_SIZE));
    check_crc(data, size);
    return 0;
}
