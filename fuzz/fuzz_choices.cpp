#include "fuzz_choices.h"

#include <algorithm>
#include <cstring>
#include <iterator>

static constexpr uint16_t CAPACITIES[] = {1,  7,  8,   14,  16,  30,  32,   40,
                                          46, 64, 128, 255, 256, 512, 1024, 4096};

static const uint8_t *next_byte;
static const uint8_t *end_of_bytes;

void fuzz_choices_set(const uint8_t *data, size_t size)
{
    next_byte = data;
    end_of_bytes = data + size;
}

bool fuzz_choices_left()
{
    return next_byte != end_of_bytes;
}

uint8_t fuzz_choice()
{
    return fuzz_choices_left() ? *next_byte++ : 0;
}

uint32_t fuzz_choice_number(size_t size)
{
    const std::string bytes = fuzz_choice_bytes(std::min(size, sizeof(uint32_t)));
    uint32_t number = 0;
    memcpy(&number, bytes.data(), bytes.size());
    return number;
}

std::string fuzz_choice_bytes(size_t size)
{
    const size_t taken = std::min(size, static_cast<size_t>(end_of_bytes - next_byte));
    std::string bytes(reinterpret_cast<const char *>(next_byte), taken);
    next_byte += taken;
    return bytes;
}

std::string fuzz_choice_text()
{
    const uint8_t *end = std::find(next_byte, end_of_bytes, 0);
    std::string text = fuzz_choice_bytes(static_cast<size_t>(end - next_byte));
    (void)fuzz_choice();
    return text;
}

std::string fuzz_choice_filling()
{
    const uint8_t choice = fuzz_choice();
    const size_t length = CAPACITIES[choice % std::size(CAPACITIES)] + choice / 16 % 3 - size_t{1};
    return std::string(length, static_cast<char>(fuzz_choice()));
}
