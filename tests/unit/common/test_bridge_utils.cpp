/* CRC-32, hexadecimal text, EUI text, whole small files, Base64. */
#include "common/bridge_utils.h"

#include "common/bridge_log.h"
#include "common/captured_stderr.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

using testing::ContainsRegex;
using testing::HasSubstr;

static const uint8_t *bytes(const char *text)
{
    return reinterpret_cast<const uint8_t *>(text);
}

class BridgeUtils : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(bridge_log_init(BRIDGE_LOG_TRACE, true), 0);
        std::string pattern = testing::TempDir() + "bridge_utils_XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder = pattern;
    }
    void TearDown() override
    {
        std::filesystem::remove_all(folder);
    }

    std::string path(const char *name) const
    {
        return folder + "/" + name;
    }
    std::string file_with(const std::string &content) const
    {
        std::ofstream(path("file"), std::ios::binary) << content;
        return path("file");
    }
    static std::string content_of(const std::string &name)
    {
        std::ostringstream content;
        content << std::ifstream(name, std::ios::binary).rdbuf();
        return content.str();
    }

    std::string folder;
};

class BridgeUtilsDeath : public BridgeUtils
{
};

TEST_F(BridgeUtils, CrcOfKnownBlocks)
{
    static constexpr struct {
        const char *block;
        uint32_t crc;
    } cases[] = {
        {"", 0x00000000},
        {"a", 0xE8B7BE43},
        {"123456789", 0xCBF43926},
        {"The quick brown fox jumps over the lazy dog", 0x414FA339},
    };
    for (const auto &row : cases)
        EXPECT_EQ(bridge_utils_calculate_crc32(0, bytes(row.block), static_cast<uint32_t>(strlen(row.block))),
                  row.crc)
            << row.block;
}

TEST_F(BridgeUtils, CrcIsContinuedOverBlocks)
{
    const char *block = "123456789";
    for (uint32_t split = 0; split <= 9; ++split) {
        const uint32_t first = bridge_utils_calculate_crc32(0, bytes(block), split);
        EXPECT_EQ(bridge_utils_calculate_crc32(first, bytes(block) + split, 9 - split), 0xCBF43926U) << split;
    }
}

TEST_F(BridgeUtils, CrcOfNothingIsTheStartValue)
{
    EXPECT_EQ(bridge_utils_calculate_crc32(0xDEADBEEF, bytes("text"), 0), 0xDEADBEEFU);
}

TEST_F(BridgeUtils, HexdumpPrintsPaddedRows)
{
    static constexpr struct {
        std::array<uint8_t, 6> data;
        size_t sz;
        size_t cols;
        const char *dump;
    } cases[] = {
        {{'A', 'b', 0x00, 0x7F, 0xFF, ' '},
         6,
         4,
         "0x000000: 41 62 00 7f Ab..\n"
         "0x000004: ff 20       .   \n"},
        {{'A', 'b', 'c'}, 3, 3, "0x000000: 41 62 63 Abc\n"},
        {{'~'}, 1, 3, "0x000000: 7e       ~  \n"},
        {{'x', 'y'},
         2,
         1,
         "0x000000: 78 x\n"
         "0x000001: 79 y\n"},
    };
    for (const auto &row : cases) {
        captured_stderr capture;
        bridge_utils_hexdump_stderr(row.data.data(), row.sz, row.cols);
        EXPECT_EQ(capture.text(), row.dump);
    }
}

TEST_F(BridgeUtils, HexdumpIsSilentWhenTheLogGoesToSyslog)
{
    bridge_log_init(BRIDGE_LOG_ERROR, false);
    captured_stderr capture;
    bridge_utils_hexdump_stderr(bytes("text"), 4, 4);
    EXPECT_EQ(capture.text(), "");
}

TEST_F(BridgeUtils, FileIsReadWhenItLeavesRoomForTheTerminator)
{
    static constexpr struct {
        size_t size;
        size_t buf_sz;
        int result;
        const char *log;
    } cases[] = {
        {0, 8, 0, "\\[DEBUG \\] bridge_utils.cpp:[0-9]+ file is empty\n"},
        {0, 1, 0, "\\[DEBUG \\] bridge_utils.cpp:[0-9]+ file is empty\n"},
        {1, 8, 0, "\\[TRACE \\] bridge_utils.cpp:[0-9]+ trying to read /.*/file \\.\\.\\.\n$"},
        {7, 8, 0, "\\[TRACE \\] bridge_utils.cpp:[0-9]+ trying to read /.*/file \\.\\.\\.\n$"},
        {8, 8, -105,
         "\\[ERROR \\] bridge_utils.cpp:[0-9]+ a file content is too big to fit into the buffer\n"},
        {9, 8, -105,
         "\\[ERROR \\] bridge_utils.cpp:[0-9]+ a file content is too big to fit into the buffer\n"},
        {1, 1, -105,
         "\\[ERROR \\] bridge_utils.cpp:[0-9]+ a file content is too big to fit into the buffer\n"},
    };
    for (const auto &row : cases) {
        const std::string content = std::string("mac=a0b1c").substr(0, row.size);
        const std::string name = file_with(content);
        std::vector<uint8_t> buffer(row.buf_sz, '#'); /* exact, so that a sanitizer sees a byte too many */
        captured_stderr capture;
        EXPECT_EQ(bridge_utils_read_text_file_to_buf(name.c_str(), buffer.data(), buffer.size()), row.result);
        EXPECT_THAT(capture.text(), ContainsRegex(row.log)) << row.size;
        ASSERT_NE(memchr(buffer.data(), 0, buffer.size()), nullptr);
        EXPECT_STREQ(reinterpret_cast<char *>(buffer.data()), row.result == 0 ? content.c_str() : "");
    }
}

TEST_F(BridgeUtils, FileThatCannotBeReadGivesTheSystemsError)
{
    const struct {
        std::string name;
        int result;
        const char *log;
    } cases[] = {
        {path("absent"), -ENOENT,
         "\\[DEBUG \\] .* failed to open a file /.*/absent: No such file or directory\n"},
        {folder, -EISDIR, "\\[ERROR \\] .* failed to read a file /.*: Is a directory\n"},
    };
    for (const auto &row : cases) {
        std::array<uint8_t, 8> buffer;
        buffer.fill('#');
        captured_stderr capture;
        EXPECT_EQ(bridge_utils_read_text_file_to_buf(row.name.c_str(), buffer.data(), buffer.size()),
                  row.result);
        EXPECT_THAT(capture.text(), ContainsRegex(row.log));
        EXPECT_EQ(buffer[0], '\0');
    }
}

TEST_F(BridgeUtils, WriteReplacesTheWholeContent)
{
    const std::string name = file_with("a longer text that was here before");
    captured_stderr capture;
    EXPECT_EQ(bridge_utils_write_buf_to_file(name.c_str(), bytes("up\0date"), 7), 0);
    EXPECT_THAT(capture.text(),
                ContainsRegex("\\[TRACE \\] .* trying to write \\[7\\] bytes to /.*/file \\.\\.\\.\n$"));
    EXPECT_EQ(content_of(name), std::string("up\0date", 7));
    EXPECT_EQ(bridge_utils_write_buf_to_file(path("new").c_str(), bytes("x"), 1), 0);
    EXPECT_EQ(content_of(path("new")), "x");
}

TEST_F(BridgeUtils, FileThatCannotBeWrittenGivesTheSystemsError)
{
    const struct {
        std::string name;
        int result;
        const char *log;
    } cases[] = {
        {path("absent/file"), -ENOENT, "\\[ERROR \\] .* can't open a file /.*: No such file or directory\n"},
        {folder, -EISDIR, "\\[ERROR \\] .* can't open a file /.*: Is a directory\n"},
        {"/dev/full", -ENOSPC, "\\[ERROR \\] .* failed to write a file /dev/full: No space left on device\n"},
    };
    for (const auto &row : cases) {
        captured_stderr capture;
        EXPECT_EQ(bridge_utils_write_buf_to_file(row.name.c_str(), bytes("text"), 4), row.result);
        EXPECT_THAT(capture.text(), ContainsRegex(row.log));
    }
}

TEST_F(BridgeUtils, FilesLeaveNoDescriptorBehind)
{
    const auto descriptors = [] {
        const std::filesystem::directory_iterator list("/proc/self/fd");
        return std::distance(begin(list), end(list));
    };
    const auto before = descriptors();
    std::array<uint8_t, 4> buffer = {};
    for (const char *content : {"", "abc", "abcdef"})
        bridge_utils_read_text_file_to_buf(file_with(content).c_str(), buffer.data(), buffer.size());
    bridge_utils_read_text_file_to_buf(folder.c_str(), buffer.data(), buffer.size());
    bridge_utils_write_buf_to_file(path("file").c_str(), bytes("abc"), 3);
    bridge_utils_write_buf_to_file("/dev/full", bytes("abc"), 3);
    EXPECT_EQ(descriptors(), before);
}

TEST_F(BridgeUtils, BytesBecomeLowerCaseDigits)
{
    static constexpr std::array<uint8_t, 4> data = {0x00, 0x0A, 0xB1, 0xFF};
    static constexpr struct {
        size_t arr_sz;
        size_t str_buf_sz;
        int result;
        const char *text;
    } cases[] = {
        {4, 9, 0, "000ab1ff"}, {4, 8, -1, "#"}, {3, 7, 0, "000ab1"},    {3, 6, -1, "#"},
        {0, 1, 0, ""},         {0, 0, -1, "#"}, {4, 64, 0, "000ab1ff"},
    };
    for (const auto &row : cases) {
        std::array<char, 64> text = {'#'};
        captured_stderr capture;
        EXPECT_EQ(bridge_utils_array_to_hexstring(data.data(), row.arr_sz, text.data(), row.str_buf_sz),
                  row.result);
        EXPECT_STREQ(text.data(), row.text);
        const std::string log = capture.text();
        if (row.result == 0)
            EXPECT_EQ(log, "");
        else
            EXPECT_THAT(log, ContainsRegex("\\[ERROR \\] .* not enough space in the output buffer: \\[" +
                                           std::to_string(row.str_buf_sz) + "\\]\n"));
    }
}

TEST_F(BridgeUtils, DigitsBecomeBytesUntilTheFirstBadPair)
{
    static constexpr struct {
        const char *text;
        size_t arr_sz;
        int result;
        std::array<uint8_t, 4> bytes; /* 0xEE where nothing is written */
        const char *log;
    } cases[] = {
        {"000aB1fF", 4, 0, {0x00, 0x0A, 0xB1, 0xFF}, "^$"},
        {"0102", 4, 0, {1, 2, 0xEE, 0xEE}, "^$"},
        {"0102", 2, 0, {1, 2, 0xEE, 0xEE}, "^$"},
        {"", 4, 0, {0xEE, 0xEE, 0xEE, 0xEE}, "^$"},
        {"", 0, 0, {0xEE, 0xEE, 0xEE, 0xEE}, "^$"},
        {"010",
         4,
         -1,
         {0xEE, 0xEE, 0xEE, 0xEE},
         "\\[ERROR \\] .* input string length must be divisible by 2\n"},
        {"010203", 2, -1, {0xEE, 0xEE, 0xEE, 0xEE}, "\\[ERROR \\] .* output buffer is too small\n"},
        {"0102zz04",
         4,
         -1,
         {1, 2, 0xEE, 0xEE},
         "\\[ERROR \\] .* failed to convert a byte to a hexstring at offset \\[4\\]\n"},
        {"g1",
         4,
         -1,
         {0xEE, 0xEE, 0xEE, 0xEE},
         "failed to convert a byte to a hexstring at offset \\[0\\]\n"},
    };
    for (const auto &row : cases) {
        std::array<uint8_t, 4> converted;
        converted.fill(0xEE);
        captured_stderr capture;
        EXPECT_EQ(bridge_utils_hexstring_to_array(row.text, converted.data(), row.arr_sz), row.result)
            << row.text;
        EXPECT_THAT(capture.text(), ContainsRegex(row.log));
        EXPECT_EQ(converted, row.bytes) << row.text;
    }
}

TEST_F(BridgeUtils, EuiReadsMostSignificantByteFirstAndFitsInTwentyFourBytes)
{
    static constexpr std::array<uint8_t, 9> eui = {0x08, 0x07, 0x06, 0x05, 0xFF, 0xFE, 0xB1, 0xA0, 0x99};
    static constexpr struct {
        size_t arr_sz;
        size_t str_buf_sz;
        int result;
        const char *log;
    } cases[] = {
        {8, 24, 0, "^$"},
        {8, 64, 0, "^$"},
        {8, 23, -1, "\\[ERROR \\] .* input array must be more than 24 bytes in size\n"},
        {8, 0, -1, "\\[ERROR \\] .* input array must be more than 24 bytes in size\n"},
        {7, 24, -1, "\\[ERROR \\] .* buffer to format the EUI must be exactly 8 bytes long\n"},
        {9, 24, -1, "\\[ERROR \\] .* buffer to format the EUI must be exactly 8 bytes long\n"},
    };
    for (const auto &row : cases) {
        std::array<char, 64> text = {'#'};
        captured_stderr capture;
        EXPECT_EQ(bridge_utils_format_eui64(eui.data(), row.arr_sz, text.data(), row.str_buf_sz), row.result);
        EXPECT_THAT(capture.text(), ContainsRegex(row.log));
        EXPECT_STREQ(text.data(), row.result == 0 ? "a0-b1-fe-ff-05-06-07-08" : "#");
    }
}

TEST_F(BridgeUtils, FileExistenceIsTheSystemsAnswer)
{
    const std::string name = file_with("");
    captured_stderr capture;
    EXPECT_EQ(bridge_utils_file_exists(name.c_str()), 0);
    EXPECT_EQ(bridge_utils_file_exists(folder.c_str()), 0);
    EXPECT_EQ(bridge_utils_file_exists(path("absent").c_str()), -ENOENT);
    EXPECT_EQ(bridge_utils_file_exists((name + "/below").c_str()), -ENOTDIR);
    EXPECT_THAT(capture.text(), HasSubstr(" checking " + name + " file existence...\n"));
}

TEST_F(BridgeUtils, HexCheckLooksAtTheFirstCharactersOnly)
{
    static constexpr struct {
        const char *text;
        size_t len;
        bool hex;
    } cases[] = {
        {"", 0, true},       {"zz", 0, true},      {"0123456789abcdefABCDEF", 22, true},
        {"26011f", 6, true}, {"26011g", 6, false}, {"26011g", 5, true},
        {"0x26", 4, true},   {"0X26", 4, false},   {"0x2g", 4, false},
        {"0x", 2, true},     {"0x", 1, true},      {"x2", 2, false},
        {"12", 3, false},    {"0x", 3, false},     {"260x", 4, false},
        {" 1", 2, false},    {"-1", 2, false},     {"\xE9", 1, false},
    };
    for (const auto &row : cases)
        EXPECT_EQ(bridge_utils_check_hex(row.text, row.len), row.hex) << row.text << " " << row.len;

    captured_stderr capture;
    bridge_utils_check_hex("26", 2);
    EXPECT_THAT(capture.text(), HasSubstr("[TRACE ] "));
    captured_stderr second;
    bridge_utils_check_hex("26", 2);
    EXPECT_THAT(second.text(), HasSubstr(" checking 26 a hex string...\n"));
}

TEST_F(BridgeUtils, Base64OfKnownTexts)
{
    static constexpr struct {
        const char *plain;
        const char *encoded;
    } cases[] = {
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
        {"\xFB\xEF\xBE\xFF\xFF\xFF", "++++////"},
    };
    for (const auto &row : cases) {
        const int length = static_cast<int>(strlen(row.plain));
        const int needed = static_cast<int>(strlen(row.encoded)) + 1;
        EXPECT_EQ(Base64encode_len(length), needed) << row.plain;
        std::vector<char> encoded(static_cast<size_t>(needed), '#');
        EXPECT_EQ(Base64encode(encoded.data(), row.plain, length), needed) << row.plain;
        EXPECT_STREQ(encoded.data(), row.encoded);

        std::vector<char> plain(static_cast<size_t>(Base64decode_len(row.encoded)), '#');
        EXPECT_EQ(Base64decode(plain.data(), row.encoded), length) << row.plain;
        EXPECT_STREQ(plain.data(), row.plain);
    }
}

TEST_F(BridgeUtils, Base64DecodingStopsAtTheFirstOtherCharacter)
{
    static constexpr struct {
        const char *encoded;
        int needed;
        const char *plain;
    } cases[] = {
        {"Zm9v\nYmFy", 4, "foo"},
        {"Zm9v\r\nYmFy", 4, "foo"},
        {"Zm9vYg==Zm9v", 7, "foob"},
        {"Zm9vY", 7, "foo"},
        {"Zm9vYg", 7, "foob"},
        {"Zm9vYmE", 7, "fooba"},
        {"Zm9v-mFy", 4, "foo"},
        {"Zm9v_mFy", 4, "foo"},
        {"Zm 9v", 4, "f"},
        {"=Zm9v", 1, ""},
        {"Z", 4, ""},
        {"\xFFZm9v", 1, ""},
        {"Zm9vYmFy\xC3\xA9", 7, "foobar"},
    };
    for (const auto &row : cases) {
        EXPECT_EQ(Base64decode_len(row.encoded), row.needed) << row.encoded;
        std::vector<char> plain(static_cast<size_t>(row.needed), '#');
        EXPECT_EQ(Base64decode(plain.data(), row.encoded), static_cast<int>(strlen(row.plain)))
            << row.encoded;
        EXPECT_STREQ(plain.data(), row.plain) << row.encoded;
    }
}

TEST_F(BridgeUtils, Base64ReturnsEveryBlockOfBytes)
{
    for (size_t length = 0; length <= 300; ++length) {
        std::vector<char> block(length + 1); /* one more: a block of none still has an address */
        for (size_t i = 0; i < length; ++i)
            block[i] = static_cast<char>((i * 167 + length) & 0xFF);
        std::vector<char> encoded(static_cast<size_t>(Base64encode_len(static_cast<int>(length))));
        ASSERT_EQ(Base64encode(encoded.data(), block.data(), static_cast<int>(length)),
                  static_cast<int>(encoded.size()));
        std::vector<char> plain(static_cast<size_t>(Base64decode_len(encoded.data())), '#');
        ASSERT_EQ(Base64decode(plain.data(), encoded.data()), static_cast<int>(length));
        EXPECT_EQ(plain[length], '\0');
        EXPECT_EQ(memcmp(plain.data(), block.data(), length), 0) << length;
    }
}

TEST_F(BridgeUtilsDeath, NullPointersAndEmptyBuffersAreAsserted)
{
    uint8_t data[8] = {};
    char text[64] = {};
    EXPECT_ASSERTION(bridge_utils_calculate_crc32(0, nullptr, 1), "buf != NULL");
    EXPECT_ASSERTION(bridge_utils_hexdump_stderr(nullptr, 1, 1), "data != NULL");
    EXPECT_ASSERTION(bridge_utils_hexdump_stderr(data, 0, 1), "sz != 0");
    EXPECT_ASSERTION(bridge_utils_hexdump_stderr(data, 1, 0), "cols != 0");
    EXPECT_ASSERTION(bridge_utils_read_text_file_to_buf("f", nullptr, 1), "buf != NULL");
    EXPECT_ASSERTION(bridge_utils_read_text_file_to_buf("f", data, 0), "buf_sz != 0");
    EXPECT_ASSERTION(bridge_utils_read_text_file_to_buf(nullptr, data, 1), "filepath != NULL");
    EXPECT_ASSERTION(bridge_utils_write_buf_to_file("f", nullptr, 1), "buf != NULL");
    EXPECT_ASSERTION(bridge_utils_write_buf_to_file("f", data, 0), "buf_sz != 0");
    EXPECT_ASSERTION(bridge_utils_write_buf_to_file(nullptr, data, 1), "filepath != NULL");
    EXPECT_ASSERTION(bridge_utils_array_to_hexstring(nullptr, 1, text, 64), "arr != NULL");
    EXPECT_ASSERTION(bridge_utils_array_to_hexstring(data, 1, nullptr, 64), "str_buf != NULL");
    EXPECT_ASSERTION(bridge_utils_hexstring_to_array(nullptr, data, 8), "str_buf != NULL");
    EXPECT_ASSERTION(bridge_utils_hexstring_to_array("01", nullptr, 8), "arr != NULL");
    EXPECT_ASSERTION(bridge_utils_format_eui64(nullptr, 8, text, 64), "arr != NULL");
    EXPECT_ASSERTION(bridge_utils_format_eui64(data, 8, nullptr, 64), "str_buf != NULL");
    EXPECT_ASSERTION(bridge_utils_file_exists(nullptr), "filepath");
    EXPECT_ASSERTION(bridge_utils_check_hex(nullptr, 0), "teststr");
    EXPECT_ASSERTION(Base64encode(nullptr, "f", 1), "encoded != NULL");
    EXPECT_ASSERTION(Base64encode(text, nullptr, 1), "string != NULL");
    EXPECT_ASSERTION(Base64decode_len(nullptr), "bufcoded != NULL");
    EXPECT_ASSERTION(Base64decode(nullptr, "Zg=="), "bufplain != NULL");
    EXPECT_ASSERTION(Base64decode(text, nullptr), "bufcoded != NULL");
}
