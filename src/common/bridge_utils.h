/* Stateless helpers: CRC-32, hexadecimal text, EUI text, whole small files, Base64. Any thread. */
#ifndef BRIDGE_UTILS_H
#define BRIDGE_UTILS_H

#include <cstddef>
#include <cstdint>

/* The reflected CRC-32 of IEEE 802.3 (polynomial 0xEDB88320). `crc` is 0 for a first block, or the result
 * of the block before. */
uint32_t bridge_utils_calculate_crc32(uint32_t crc, const uint8_t *buf, uint32_t len);

/* Prints rows of `cols` bytes, but only when the log goes to standard error. */
void bridge_utils_hexdump_stderr(const uint8_t *data, size_t sz, size_t cols);

/* Reads a text file of fewer than `buf_sz` bytes; the text is always terminated. Returns 0 (also for an
 * empty file), a negative errno, or -105 when the file does not fit with its terminator. */
int bridge_utils_read_text_file_to_buf(const char *filepath, uint8_t *buf, size_t buf_sz);

/* Replaces the file's content, not atomically. Returns 0 or a negative errno. */
int bridge_utils_write_buf_to_file(const char *filepath, const uint8_t *buf, size_t buf_sz);

/* Lower-case digits, two a byte, terminated: `str_buf_sz` must exceed twice `arr_sz`. Returns 0 or -1. */
int bridge_utils_array_to_hexstring(const uint8_t *arr, size_t arr_sz, char *str_buf, size_t str_buf_sz);

/* Returns 0 or -1; the bytes before a bad pair stay converted. */
int bridge_utils_hexstring_to_array(const char *str_buf, uint8_t *arr, size_t arr_sz);

/* `arr` is an EUI-64 of exactly 8 bytes in little-endian order; the text reads most significant byte first,
 * "xx-xx-xx-xx-xx-xx-xx-xx", and needs 24 bytes. Returns 0 or -1. */
int bridge_utils_format_eui64(const uint8_t *arr, size_t arr_sz, char *str_buf, size_t str_buf_sz);

/* Returns 0 when the file exists, or a negative errno. */
int bridge_utils_file_exists(const char *filepath);

/* True when the first `len` characters, less a leading "0x", are hexadecimal digits. */
bool bridge_utils_check_hex(const char *teststr, size_t len);

/* Base64 of RFC 4648 with "=" padding and no line breaks. The *_len functions give buffer sizes, terminator
 * included. Base64encode returns the bytes written, terminator included. Base64decode stops at the first
 * character outside the alphabet, writes a terminator behind the output, and returns the bytes decoded. */
int Base64encode_len(int len);
int Base64encode(char *encoded, const char *string, int len);
int Base64decode_len(const char *bufcoded);
int Base64decode(char *bufplain, const char *bufcoded);

#endif
