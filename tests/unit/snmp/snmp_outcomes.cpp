#include "snmp_outcomes.h"

#include "snmp_fixture.h"

#include <cstdio>
#include <cstring>

static constexpr char UNTOUCHED = '\x5a';
static constexpr size_t NO_SIZE = SIZE_MAX;

read_target::read_target(bridge_prop_type type, size_t capacity, bridge_prop_type hint)
    : type_(type), hint_(hint), capacity_(capacity), size_(NO_SIZE),
      buffer_(std::make_unique<char[]>(capacity)), object_(json_object_new_object())
{
    memset(buffer_.get(), UNTOUCHED, capacity);
}

bridge_snmp_read_prop read_target::record(const char *name, const char *root)
{
    void *target = type_ == PROP_TYPE_JSON ? static_cast<void *>(object_.get()) : buffer_.get();
    return {.oid = name,
            .root_oid = root,
            .field_name = "f",
            .buf_sz = capacity_,
            .buf_out_sz = &size_,
            .buf = target,
            .type = type_,
            .hint = hint_};
}

std::string hex_of(const char *bytes, size_t size)
{
    std::string hex;
    for (size_t i = 0; i < size; i++) {
        char digits[3];
        snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned>(static_cast<uint8_t>(bytes[i])));
        hex += digits;
    }
    return hex;
}

std::string read_target::buffer_text() const
{
    switch (type_) {
    case PROP_TYPE_INT: {
        int64_t number = 0;
        memcpy(&number, buffer_.get(), sizeof(number));
        return std::to_string(number);
    }
    case PROP_TYPE_BOOL:
        return buffer_[0] == 0 ? "false" : buffer_[0] == 1 ? "true" : "neither";
    case PROP_TYPE_DOUBLE: {
        double number = 0;
        memcpy(&number, buffer_.get(), sizeof(number));
        char text[64];
        snprintf(text, sizeof(text), "%.17g", number);
        return text;
    }
    case PROP_TYPE_DATA:
        return hex_of(buffer_.get(), size_) + join({" ", std::to_string(size_)});
    default:
        return join({"[", {buffer_.get(), strnlen(buffer_.get(), capacity_)}, "] ", std::to_string(size_)});
    }
}

std::string read_target::text() const
{
    if (type_ == PROP_TYPE_JSON)
        return json_object_to_json_string_ext(object_.get(), JSON_C_TO_STRING_PLAIN);
    const std::string fresh(capacity_, UNTOUCHED);
    if (memcmp(buffer_.get(), fresh.data(), capacity_) == 0 && size_ == NO_SIZE)
        return "untouched";
    return buffer_text();
}

std::string outcome(int result, const std::string &text, const log_view &log)
{
    const std::string lines = told(log);
    return (result >= 0 ? text : std::to_string(result)) + (lines.empty() ? "" : "; ") + lines;
}
