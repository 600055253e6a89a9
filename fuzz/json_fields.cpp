/* Frames of random shape, read from JSON and written again. Input: the JSON text; the frame's shape is taken
 * from its end. */
#include "common/bridge_json_helpers.h"
#include "fuzz.h"
#include "fuzz_mutate.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fuzzer/FuzzedDataProvider.h>
#include <set>
#include <vector>

static constexpr const char *NAMES[] = {"a", "b", "c", "d", "e", "f", "name", ""};
static constexpr uint32_t LAST_TYPE = 8; /* two beyond the known ones */
static constexpr size_t MAX_FIELDS = 6;
static constexpr uint32_t MAX_TEXT = 24;
static constexpr int MAX_DEPTH = 3;

/* A frame and the exact-sized targets of its fields; a field of type object owns a further frame. */
struct shaped_frame {
    std::vector<bridge_json_field> fields;
    std::vector<std::unique_ptr<uint8_t[]>> targets;
    std::vector<std::unique_ptr<shaped_frame>> subs;
};

static size_t target_size(const bridge_json_field &field)
{
    switch (field.type) {
    case JSON_FIELD_BOOL:
        return sizeof(bool);
    case JSON_FIELD_STRING:
        return field.size;
    default:
        return sizeof(int64_t);
    }
}

static void give_targets(shaped_frame *frame)
{
    for (size_t i = 0; i < frame->fields.size(); i++) {
        bridge_json_field &field = frame->fields[i];
        frame->targets.emplace_back(new uint8_t[target_size(field)]());
        field.target = frame->targets[i].get();
        if (field.type == JSON_FIELD_OBJECT) {
            give_targets(frame->subs[i].get());
            field.target = frame->subs[i]->fields.data();
        }
    }
}

static std::unique_ptr<shaped_frame> shape_frame(FuzzedDataProvider *shape, int depth)
{
    auto frame = std::make_unique<shaped_frame>();
    const size_t count = shape->ConsumeIntegralInRange<size_t>(1, MAX_FIELDS);
    for (size_t i = 0; i < count; i++) {
        bridge_json_field field = {.name = shape->PickValueInArray(NAMES)};
        field.type = static_cast<bridge_json_type>(shape->ConsumeIntegralInRange<uint32_t>(0, LAST_TYPE));
        if (field.type == JSON_FIELD_OBJECT && depth == MAX_DEPTH)
            field.type = JSON_FIELD_STRING;
        const auto flags = shape->ConsumeIntegral<uint8_t>();
        field.optional = (flags & 1) != 0;
        field.read_unsigned = (flags & 2) != 0;
        field.is_unsigned = (flags & 4) != 0;
        if (field.type == JSON_FIELD_DOUBLE && (flags & 8) != 0)
            field.double_format = "-7.5";
        if (field.type == JSON_FIELD_STRING)
            field.size = 1 + flags % MAX_TEXT;
        frame->subs.push_back(nullptr);
        if (field.type == JSON_FIELD_OBJECT) {
            frame->subs[i] = shape_frame(shape, depth + 1);
            field.size = static_cast<uint32_t>(frame->subs[i]->fields.size());
        }
        frame->fields.push_back(field);
    }
    return frame;
}

static std::unique_ptr<shaped_frame> same_shape(const shaped_frame &frame)
{
    auto copy = std::make_unique<shaped_frame>();
    copy->fields = frame.fields;
    for (const auto &sub : frame.subs)
        copy->subs.push_back(sub ? same_shape(*sub) : nullptr);
    return copy;
}

static bool has_known_types(const shaped_frame &frame)
{
    for (const bridge_json_field &field : frame.fields) {
        if (field.type == 5 || field.type > JSON_FIELD_STRING)
            return false;
    }
    return true;
}

/* True when what is written says everything that was read: each name once, and both directions alike. */
static bool is_reversible(const shaped_frame &frame)
{
    std::set<std::string> names;
    for (size_t i = 0; i < frame.fields.size(); i++) {
        const bridge_json_field &field = frame.fields[i];
        const bool alike = field.type != JSON_FIELD_NULL && field.read_unsigned == field.is_unsigned &&
                           field.double_format == nullptr;
        if (!names.insert(field.name).second || !alike || (frame.subs[i] && !is_reversible(*frame.subs[i])))
            return false;
    }
    return has_known_types(frame);
}

static bool is_same_value(const bridge_json_field &a, const bridge_json_field &b)
{
    if (a.type == JSON_FIELD_STRING)
        return strcmp(static_cast<const char *>(a.target), static_cast<const char *>(b.target)) == 0;
    if (a.type == JSON_FIELD_DOUBLE && std::isnan(*static_cast<const double *>(a.target)))
        return std::isnan(*static_cast<const double *>(b.target));
    return memcmp(a.target, b.target, target_size(a)) == 0;
}

static void check_same(const shaped_frame &a, const shaped_frame &b)
{
    for (size_t i = 0; i < a.fields.size(); i++) {
        if (a.subs[i])
            check_same(*a.subs[i], *b.subs[i]);
        else
            FUZZ_REQUIRE(is_same_value(a.fields[i], b.fields[i]));
    }
}

static int read_frame(const char *text, const shaped_frame &frame)
{
    const json_owned parsed(json_tokener_parse(text));
    errno = 0;
    return parsed ? bridge_json_deserialize(parsed.get(), frame.fields.data(), frame.fields.size()) : -1;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_init_log();
    return 0;
}

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size, unsigned seed)
{
    return fuzz_mutate_json(data, size, max_size, 0, seed);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const auto frame = shape_frame(&input, 0);
    give_targets(frame.get());
    const int read = read_frame(input.ConsumeRemainingBytesAsString().c_str(), *frame);
    FUZZ_REQUIRE(read == 0 || read == -1);

    const json_owned written(json_object_new_object());
    const int result = bridge_json_serialize(written.get(), frame->fields.data(), frame->fields.size());
    FUZZ_REQUIRE((result == 0) == has_known_types(*frame));
    const std::string text = json_object_to_json_string_ext(written.get(), JSON_C_TO_STRING_PLAIN);
    FUZZ_REQUIRE(fuzz_is_json_object(text));

    if (is_reversible(*frame)) {
        const auto again = same_shape(*frame);
        give_targets(again.get());
        FUZZ_REQUIRE(read_frame(text.c_str(), *again) == 0);
        check_same(*frame, *again);
    }
    return 0;
}
