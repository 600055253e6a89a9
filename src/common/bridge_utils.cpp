/* Stateless helpers: CRC-32, hexadecimal text, EUI text, whole small files, Base64. */
#include "common/bridge_utils.h"

#include "common/bridge_log.h"
#include "common/bridge_release.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <unistd.h>

static constexpr size_t EUI64_SIZE = 8;
static constexpr size_t EUI64_TEXT_LENGTH = 23;

static constexpr char BASE64_ALPHABET[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
static constexpr uint8_t NOT_BASE64 = 64;

using file_owned = std::unique_ptr<FILE, bridge_release<fclose>>;

static constexpr std::array<uint32_t, 256> make_crc32_table()
{
    std::array<uint32_t, 256> table = {};
    for (uint32_t byte = 0; byte < table.size(); ++byte) {
        uint32_t crc = byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) != 0 ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
        table[byte] = crc;
    }
    return table;
}

static constexpr std::array<uint8_t, 256> make_base64_values()
{
    std::array<uint8_t, 256> values = {};
    values.fill(NOT_BASE64);
    for (uint8_t value = 0; value < 64; ++value)
        values[static_cast<uint8_t>(BASE64_ALPHABET[value])] = value;
    return values;
}

static constexpr std::array<uint32_t, 256> CRC32_TABLE = make_crc32_table();
static constexpr std::array<uint8_t, 256> BASE64_VALUES = make_base64_values();

uint32_t bridge_utils_calculate_crc32(uint32_t crc, const uint8_t *buf, uint32_t len)
{
    BRIDGE_ASSERT_TEXT(buf != nullptr, "buf != NULL");
    crc = ~crc;
    for (uint32_t i = 0; i < len; ++i)
        crc = CRC32_TABLE[(crc ^ buf[i]) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

static void hexdump_row(const uint8_t *row, size_t filled, size_t cols)
{
    for (size_t i = 0; i < cols; ++i) {
        if (i < filled)
            fprintf(stderr, "%02x ", row[i]);
        else
            fputs("   ", stderr);
    }
    for (size_t i = 0; i < cols; ++i) {
        if (i < filled)
            fputc(isprint(row[i]) != 0 ? row[i] : '.', stderr);
        else
            fputc(' ', stderr);
    }
    fputc('\n', stderr);
}

void bridge_utils_hexdump_stderr(const uint8_t *data, size_t sz, size_t cols)
{
    BRIDGE_ASSERT_TEXT(data != nullptr, "data != NULL");
    BRIDGE_ASSERT(sz != 0);
    BRIDGE_ASSERT(cols != 0);
    if (!bridge_log_is_stderr())
        return;

    for (size_t offset = 0; offset < sz; offset += cols) {
        fprintf(stderr, "0x%06x: ", static_cast<unsigned>(offset));
        hexdump_row(data + offset, sz - offset < cols ? sz - offset : cols, cols);
    }
}

/* Fills the buffer in one call. `length` is what the text takes of it. */
static int read_text(FILE *file, const char *filepath, uint8_t *buf, size_t buf_sz, size_t *length)
{
    *length = fread(buf, 1, buf_sz, file);
    const int code = errno;
    if (*length == 0) {
        if (ferror(file) != 0) {
            BRIDGE_ERROR("failed to read a file %s: %m", filepath);
            return -code;
        }
        BRIDGE_DEBUG("file is empty");
        return 0;
    }
    if (*length == buf_sz) {
        BRIDGE_ERROR("a file content is too big to fit into the buffer");
        *length = 0;
        return -ENOBUFS;
    }
    return 0;
}

int bridge_utils_read_text_file_to_buf(const char *filepath, uint8_t *buf, size_t buf_sz)
{
    BRIDGE_ASSERT_TEXT(buf != nullptr, "buf != NULL");
    BRIDGE_ASSERT(buf_sz != 0);
    BRIDGE_ASSERT_TEXT(filepath != nullptr, "filepath != NULL");

    buf[0] = '\0';
    BRIDGE_TRACE("trying to read %s ...", filepath);
    const file_owned file(fopen(filepath, "re"));
    if (file == nullptr) {
        const int code = errno;
        BRIDGE_DEBUG("failed to open a file %s: %m", filepath);
        return -code;
    }
    size_t length = 0;
    const int rc = read_text(file.get(), filepath, buf, buf_sz, &length);
    buf[length] = '\0';
    return rc;
}

int bridge_utils_write_buf_to_file(const char *filepath, const uint8_t *buf, size_t buf_sz)
{
    BRIDGE_ASSERT_TEXT(buf != nullptr, "buf != NULL");
    BRIDGE_ASSERT(buf_sz != 0);
    BRIDGE_ASSERT_TEXT(filepath != nullptr, "filepath != NULL");

    BRIDGE_TRACE("trying to write [%zu] bytes to %s ...", buf_sz, filepath);
    const file_owned file(fopen(filepath, "w+e"));
    if (file == nullptr) {
        const int code = errno;
        BRIDGE_ERROR("can't open a file %s: %m", filepath);
        return -code;
    }
    /* Unbuffered, so that a full disk shows here and not at the close. */
    setvbuf(file.get(), nullptr, _IONBF, 0);
    if (fwrite(buf, 1, buf_sz, file.get()) != buf_sz) {
        const int code = errno;
        BRIDGE_ERROR("failed to write a file %s: %m", filepath);
        return -code;
    }
    return 0;
}

int bridge_utils_array_to_hexstring(const uint8_t *arr, size_t arr_sz, char *str_buf, size_t str_buf_sz)
{
    BRIDGE_ASSERT_TEXT(arr != nullptr, "arr != NULL");
    BRIDGE_ASSERT_TEXT(str_buf != nullptr, "str_buf != NULL");
    if (str_buf_sz <= 2 * arr_sz) {
        BRIDGE_ERROR("not enough space in the output buffer: [%zu]", str_buf_sz);
        return -1;
    }
    for (size_t i = 0; i < arr_sz; ++i) {
        const int rc = snprintf(str_buf + 2 * i, 3, "%02x", arr[i]);
        BRIDGE_ASSERT(rc == 2);
    }
    str_buf[2 * arr_sz] = '\0';
    return 0;
}

int bridge_utils_hexstring_to_array(const char *str_buf, uint8_t *arr, size_t arr_sz)
{
    BRIDGE_ASSERT_TEXT(str_buf != nullptr, "str_buf != NULL");
    BRIDGE_ASSERT_TEXT(arr != nullptr, "arr != NULL");
    const size_t length = strlen(str_buf);
    if (length % 2 != 0) {
        BRIDGE_ERROR("input string length must be divisible by 2");
        return -1;
    }
    if (arr_sz < length / 2) {
        BRIDGE_ERROR("output buffer is too small");
        return -1;
    }
    for (size_t offset = 0; offset < length; offset += 2) {
        /* A pair of its own: sscanf measures all the text that it is given, on every call. */
        const char pair[] = {str_buf[offset], str_buf[offset + 1], '\0'};
        if (sscanf(pair, "%02hhx", &arr[offset / 2]) != 1) {
            BRIDGE_ERROR("failed to convert a byte to a hexstring at offset [%zu]", offset);
            return -1;
        }
    }
    return 0;
}

int bridge_utils_format_eui64(const uint8_t *arr, size_t arr_sz, char *str_buf, size_t str_buf_sz)
{
    BRIDGE_ASSERT_TEXT(arr != nullptr, "arr != NULL");
    BRIDGE_ASSERT_TEXT(str_buf != nullptr, "str_buf != NULL");
    if (arr_sz != EUI64_SIZE) {
        BRIDGE_ERROR("buffer to format the EUI must be exactly 8 bytes long");
        return -1;
    }
    if (str_buf_sz <= EUI64_TEXT_LENGTH) {
        BRIDGE_ERROR("input array must be more than 24 bytes in size");
        return -1;
    }
    const int rc = snprintf(str_buf, str_buf_sz, "%02x-%02x-%02x-%02x-%02x-%02x-%02x-%02x", arr[7], arr[6],
                            arr[5], arr[4], arr[3], arr[2], arr[1], arr[0]);
    BRIDGE_ASSERT(rc == 23);
    return 0;
}

int bridge_utils_file_exists(const char *filepath)
{
    BRIDGE_ASSERT(filepath);
    BRIDGE_TRACE("checking %s file existence...", filepath);
    return access(filepath, F_OK) == 0 ? 0 : -errno;
}

bool bridge_utils_check_hex(const char *teststr, size_t len)
{
    BRIDGE_ASSERT(teststr);
    if (len == 0)
        return true;
    BRIDGE_TRACE("checking %s a hex string...", teststr);
    const size_t start = len > 1 && teststr[0] == '0' && teststr[1] == 'x' ? 2 : 0;
    for (size_t i = start; i < len; ++i) {
        if (isxdigit(static_cast<uint8_t>(teststr[i])) == 0)
            return false;
    }
    return true;
}

int Base64encode_len(int len)
{
    return (len + 2) / 3 * 4 + 1;
}

int Base64encode(char *encoded, const char *string, int len)
{
    BRIDGE_ASSERT_TEXT(encoded != nullptr, "encoded != NULL");
    BRIDGE_ASSERT_TEXT(string != nullptr, "string != NULL");
    const auto *in = reinterpret_cast<const uint8_t *>(string);
    char *out = encoded;
    for (; len >= 3; len -= 3, in += 3) {
        *out++ = BASE64_ALPHABET[in[0] >> 2];
        *out++ = BASE64_ALPHABET[(in[0] & 0x03) << 4 | in[1] >> 4];
        *out++ = BASE64_ALPHABET[(in[1] & 0x0F) << 2 | in[2] >> 6];
        *out++ = BASE64_ALPHABET[in[2] & 0x3F];
    }
    if (len > 0) {
        const uint8_t second = len == 2 ? in[1] : 0;
        *out++ = BASE64_ALPHABET[in[0] >> 2];
        *out++ = BASE64_ALPHABET[(in[0] & 0x03) << 4 | second >> 4];
        *out++ = len == 2 ? BASE64_ALPHABET[(second & 0x0F) << 2] : '=';
        *out++ = '=';
    }
    *out++ = '\0';
    return static_cast<int>(out - encoded);
}

/* The number of leading characters of the alphabet. */
static int base64_length(const char *bufcoded)
{
    const char *end = bufcoded;
    while (BASE64_VALUES[static_cast<uint8_t>(*end)] != NOT_BASE64)
        ++end;
    return static_cast<int>(end - bufcoded);
}

int Base64decode_len(const char *bufcoded)
{
    BRIDGE_ASSERT_TEXT(bufcoded != nullptr, "bufcoded != NULL");
    return (base64_length(bufcoded) + 3) / 4 * 3 + 1;
}

int Base64decode(char *bufplain, const char *bufcoded)
{
    BRIDGE_ASSERT_TEXT(bufplain != nullptr, "bufplain != NULL");
    BRIDGE_ASSERT_TEXT(bufcoded != nullptr, "bufcoded != NULL");
    const auto *in = reinterpret_cast<const uint8_t *>(bufcoded);
    const auto value = [](uint8_t digit) -> uint32_t { return BASE64_VALUES[digit]; };
    char *out = bufplain;
    int left = base64_length(bufcoded);
    for (; left >= 4; left -= 4, in += 4) {
        const uint32_t group = value(in[0]) << 18 | value(in[1]) << 12 | value(in[2]) << 6 | value(in[3]);
        *out++ = static_cast<char>(group >> 16);
        *out++ = static_cast<char>(group >> 8);
        *out++ = static_cast<char>(group);
    }
    /* A single character left over holds no whole byte. */
    if (left >= 2)
        *out++ = static_cast<char>(value(in[0]) << 2 | value(in[1]) >> 4);
    if (left == 3)
        *out++ = static_cast<char>(value(in[1]) << 4 | value(in[2]) >> 2);
    *out = '\0';
    return static_cast<int>(out - bufplain);
}
