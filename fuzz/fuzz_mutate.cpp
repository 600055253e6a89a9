#include "fuzz_mutate.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <random>
#include <string>
#include <vector>

extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t max_size);

using dice = std::minstd_rand;

struct json_span {
    size_t start;
    size_t size;
};

static constexpr const char *WORDS[] = {
    "null",
    "true",
    "{}",
    "[]",
    "[null]",
    "-1",
    "0",
    "0.5",
    "1e13",
    "-1e29",
    "1e300",
    "1e999",
    "NaN",
    "-Infinity",
    "65536",
    "2147483648",
    "4294967296",
    "281474976710656",
    "9223372036854775807",
    "-9223372036854775808",
    "18446744073709551615",
    R"("1e13s")",
    R"("inf")",
    R"("\u0000")",
    R"("\ud800")",
};

/* About the sizes of the buffers that texts are read into. */
static constexpr size_t LENGTHS[] = {0,  1,   3,   7,   8,   15,  16,  23,  31,  32,   63,
                                     64, 127, 128, 255, 256, 340, 344, 415, 416, 2047, 2048};

static constexpr char FILLINGS[] = {'A', '/', '0', '=', '%', '\x7f', '\xc3'};

template <typename T, size_t Size> static T pick(dice &random, const T (&table)[Size])
{
    return table[random() % Size];
}

static size_t end_of_string(const std::string &text, size_t start)
{
    for (size_t i = start + 1; i < text.size(); i++) {
        if (text[i] == '\\')
            i++;
        else if (text[i] == '"')
            return i + 1;
    }
    return text.size();
}

static size_t end_of_word(const std::string &text, size_t start)
{
    const auto is_word = [](unsigned char c) { return isalnum(c) != 0 || c == '-' || c == '+' || c == '.'; };
    return static_cast<size_t>(
        std::find_if_not(text.begin() + static_cast<ptrdiff_t>(start), text.end(), is_word) - text.begin());
}

/* Numbers, literals and texts; names of members are none. */
static std::vector<json_span> find_values(const std::string &text, size_t offset)
{
    std::vector<json_span> values;
    for (size_t i = offset; i < text.size();) {
        const size_t end = text[i] == '"' ? end_of_string(text, i) : end_of_word(text, i);
        if (end == i) {
            i++;
            continue;
        }
        if (end >= text.size() || text[end] != ':')
            values.push_back({i, end - i});
        i = end;
    }
    return values;
}

/* A text mostly gives way to a text, and now and then anything to anything. */
static std::string make_value(dice &random, const std::string &text, const std::vector<json_span> &values,
                              const json_span &old)
{
    if (random() % 8 == 0) {
        const json_span &other = values[random() % values.size()];
        return text.substr(other.start, other.size);
    }
    if (random() % (text[old.start] == '"' ? 2 : 8) == 0)
        return '"' + std::string(pick(random, LENGTHS), pick(random, FILLINGS)) + '"';
    return pick(random, WORDS);
}

size_t fuzz_mutate_json(uint8_t *data, size_t size, size_t max_size, size_t offset, unsigned seed)
{
    dice random(seed);
    std::string text(reinterpret_cast<const char *>(data), size);
    const std::vector<json_span> values = find_values(text, offset);
    if (values.empty() || random() % 2 == 0)
        return LLVMFuzzerMutate(data, size, max_size);
    const json_span &old = values[random() % values.size()];
    text.replace(old.start, old.size, make_value(random, text, values, old));
    if (text.size() > max_size)
        return LLVMFuzzerMutate(data, size, max_size);
    memcpy(data, text.data(), text.size());
    return text.size();
}

size_t fuzz_mutate_parts(uint8_t *data, size_t size, size_t max_size, unsigned seed)
{
    dice random(seed);
    const uint8_t *zero = std::find(data, data + size, 0);
    const size_t text_size = static_cast<size_t>(zero - data);
    const size_t rest_size = size - text_size;
    const auto choice = random() % 8;
    if (choice == 0 || size >= max_size)
        return LLVMFuzzerMutate(data, size, max_size);
    if (choice < 4 && rest_size > 0)
        return text_size + 1 +
               LLVMFuzzerMutate(data + text_size + 1, rest_size - 1, max_size - text_size - 1);
    std::vector<uint8_t> text(data, data + max_size - rest_size);
    const size_t new_size =
        fuzz_mutate_json(text.data(), text_size, text.size(), 0, static_cast<unsigned>(random()));
    const std::vector<uint8_t> rest(zero, zero + rest_size);
    std::copy_n(text.begin(), new_size, data);
    std::copy(rest.begin(), rest.end(), data + new_size);
    return new_size + rest_size;
}
