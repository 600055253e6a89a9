/* Frames read from JSON text and written to it. JSON is compared as text: order and number form matter. */
#include "common/bridge_json_helpers.h"

#include "common/bridge_log.h"
#include "common/captured_stderr.h"

#include <cerrno>
#include <clocale>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <limits>
#include <memory>
#include <string>
#include <unistd.h>

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

/* The constructor of the library that gives null for want of memory. */
static const char *constructor_without_memory = "";

#define WRAPPED_CONSTRUCTOR(name, parameters, arguments)                                                     \
    extern "C" json_object *__real_##name parameters;                                                        \
    extern "C" json_object *__wrap_##name parameters                                                         \
    {                                                                                                        \
        return strcmp(constructor_without_memory, #name) == 0 ? nullptr : __real_##name arguments;           \
    }

WRAPPED_CONSTRUCTOR(json_object_new_boolean, (json_bool value), (value))
WRAPPED_CONSTRUCTOR(json_object_new_double, (double value), (value))
WRAPPED_CONSTRUCTOR(json_object_new_double_s, (double value, const char *text), (value, text))
WRAPPED_CONSTRUCTOR(json_object_new_int64, (int64_t value), (value))
WRAPPED_CONSTRUCTOR(json_object_new_uint64, (uint64_t value), (value))
WRAPPED_CONSTRUCTOR(json_object_new_string, (const char *text), (text))
WRAPPED_CONSTRUCTOR(json_object_new_object, (), ())

/* What the library has last made a copy of. */
static locale_t copied_locale;

extern "C" locale_t duplocale(locale_t from) noexcept
{
    static const auto real = reinterpret_cast<locale_t (*)(locale_t)>(dlsym(RTLD_NEXT, "duplocale"));
    copied_locale = from;
    return real(from);
}

static json_owned parse(const char *text)
{
    json_owned obj(json_tokener_parse(text));
    EXPECT_NE(obj, nullptr) << text;
    errno = 0;
    return obj;
}

static std::string print(json_object *obj)
{
    return json_object_to_json_string_ext(obj, JSON_C_TO_STRING_PLAIN);
}

/* Pattern of a log that ends in this line. */
static std::string last_line(const char *label, const char *text)
{
    return std::string("\\[") + label + "\\] bridge_json_helpers.cpp:[0-9]+ " + text + "\n$";
}

class BridgeJson : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(bridge_log_init(BRIDGE_LOG_TRACE, true), 0);
        constructor_without_memory = "";
        errno = 0;
    }

    json_owned out{json_object_new_object()};
};

class BridgeJsonDeath : public BridgeJson
{
};

/* One target of every type; `kind` chooses which of them the field "v" fills. */
struct targets {
    bool boolean = true;
    double number = -7.5;
    int64_t integer = -7;
    uint64_t natural = 7;
    char text[8] = "kept";
};

enum target_kind { KIND_BOOL, KIND_DOUBLE, KIND_INT, KIND_UINT, KIND_STRING };

static bridge_json_field field_of(target_kind kind, targets *into)
{
    switch (kind) {
    case KIND_BOOL:
        return field_bool("v", &into->boolean);
    case KIND_DOUBLE:
        return field_double("v", &into->number);
    case KIND_INT:
        return field_int("v", &into->integer);
    case KIND_UINT:
        return field_uint("v", &into->natural);
    default:
        return field_string("v", into->text);
    }
}

static std::string value_of(target_kind kind, const targets &from)
{
    switch (kind) {
    case KIND_BOOL:
        return from.boolean ? "true" : "false";
    case KIND_DOUBLE:
        return std::to_string(from.number);
    case KIND_INT:
        return std::to_string(from.integer);
    case KIND_UINT:
        return std::to_string(from.natural);
    default:
        return from.text;
    }
}

TEST_F(BridgeJson, ValuesOfEveryTypeAreRead)
{
    static constexpr struct {
        target_kind kind;
        const char *json;
        const char *value;
    } cases[] = {
        {KIND_BOOL, R"({"v":true})", "true"},
        {KIND_BOOL, R"({"v":false})", "false"},
        {KIND_BOOL, R"({"v":1})", "true"},
        {KIND_BOOL, R"({"v":256})", "true"},
        {KIND_BOOL, R"({"v":0})", "false"},
        {KIND_BOOL, R"({"v":null})", "false"},
        {KIND_DOUBLE, R"({"v":868.5})", "868.500000"},
        {KIND_DOUBLE, R"({"v":-120})", "-120.000000"},
        {KIND_DOUBLE, R"({"v":"868.5"})", "868.500000"},
        {KIND_DOUBLE, R"({"v":null})", "0.000000"},
        {KIND_INT, R"({"v":-42})", "-42"},
        {KIND_INT, R"({"v":9223372036854775807})", "9223372036854775807"},
        {KIND_INT, R"({"v":-9223372036854775808})", "-9223372036854775808"},
        {KIND_INT, R"({"v":18446744073709551615})", "9223372036854775807"},
        {KIND_INT, R"({"v":7.9})", "7"},
        {KIND_INT, R"({"v":"12"})", "12"},
        {KIND_INT, R"({"v":true})", "1"},
        {KIND_INT, R"({"v":null})", "0"},
        {KIND_INT, R"({"v":"DR5"})", "0"}, /* no failure: the library sets no errno for it */
        {KIND_INT, R"({"v":{}})", "0"},
        {KIND_UINT, R"({"v":4294967296})", "4294967296"},
        {KIND_UINT, R"({"v":18446744073709551615})", "18446744073709551615"},
        {KIND_UINT, R"({"v":-1})", "0"},
        {KIND_UINT, R"({"v":null})", "0"},
        {KIND_STRING, R"({"v":"DR5"})", "DR5"},
        {KIND_STRING, R"({"v":""})", ""},
        {KIND_STRING, R"({"v":12})", "12"},
        {KIND_STRING, R"({"v":true})", "true"},
        {KIND_STRING, R"({"v":[1]})", "[ 1 ]"},
    };
    for (const auto &row : cases) {
        targets into;
        const json_owned obj = parse(row.json);
        const bridge_json_field frame[] = {field_of(row.kind, &into)};
        EXPECT_EQ(bridge_json_deserialize(obj.get(), frame, 1), 0) << row.json;
        EXPECT_EQ(value_of(row.kind, into), row.value) << row.json;
    }
}

TEST_F(BridgeJson, BoolStoresOneByte)
{
    struct {
        bool value;
        uint8_t next;
    } into = {true, 0xEE};
    const json_owned obj = parse(R"({"v":false})");
    const bridge_json_field frame[] = {field_bool("v", &into.value)};
    EXPECT_EQ(bridge_json_deserialize(obj.get(), frame, 1), 0);
    EXPECT_FALSE(into.value);
    EXPECT_EQ(into.next, 0xEE);
}

TEST_F(BridgeJson, BadValueFailsAlsoForAnOptionalFieldAndTellsItsLevel)
{
    static constexpr struct {
        target_kind kind;
        const char *json;
        const char *text;
        int stale_errno;
        bool always_warns;
    } cases[] = {
        {KIND_DOUBLE, R"({"v":"DR5","after":5})", "unable to fetch double", 0, false},
        {KIND_DOUBLE, R"({"v":{},"after":5})", "unable to fetch double", 0, false},
        {KIND_DOUBLE, R"({"v":1.5,"after":5})", "unable to fetch double", EINVAL, false},
        {KIND_BOOL, R"({"v":true,"after":5})", "unable to fetch integer", EINVAL, false},
        {KIND_INT, R"({"v":1,"after":5})", "unable to fetch integer", EINVAL, false},
        {KIND_INT, R"({"v":null,"after":5})", "unable to fetch integer", EINVAL, false},
        {KIND_UINT, R"({"v":1,"after":5})", "unable to fetch integer", EINVAL, false},
        {KIND_STRING, R"({"v":null,"after":5})", "unable to fetch string", 0, false},
        {KIND_STRING, R"({"v":"12345678","after":5})", "not enough space for incoming string", 0, true},
        {KIND_STRING, R"({"v":12345678,"after":5})", "not enough space for incoming string", 0, true},
    };
    for (const auto &row : cases) {
        for (const bool optional : {false, true}) {
            SCOPED_TRACE(row.json);
            targets into;
            int64_t after = -1;
            bridge_json_field frame[] = {field_of(row.kind, &into), field_int("after", &after)};
            frame[0].optional = optional;
            const json_owned obj = parse(row.json);
            captured_stderr capture;
            errno = row.stale_errno;
            EXPECT_EQ(bridge_json_deserialize(obj.get(), frame, std::size(frame)), -1);
            const char *level = optional && !row.always_warns ? "TRACE " : "WARN  ";
            EXPECT_THAT(capture.text(), ContainsRegex(last_line(level, row.text)));
            EXPECT_EQ(after, -1);
            EXPECT_STREQ(into.text, "kept");
        }
    }
}

TEST_F(BridgeJson, AbsentOptionalFieldLeavesItsTargetAndLogsOnlyAtTrace)
{
    targets into;
    int64_t after = -1;
    const bridge_json_field frame[] = {
        field_optional(field_bool("a", &into.boolean)), field_optional(field_double("b", &into.number)),
        field_optional(field_int("c", &into.integer)),  field_optional(field_uint("d", &into.natural)),
        field_optional(field_string("e", into.text)),   field_int("after", &after),
    };
    const json_owned obj = parse(R"({"after":5})");
    captured_stderr capture;
    EXPECT_EQ(bridge_json_deserialize(obj.get(), frame, std::size(frame)), 0);
    const std::string log = capture.text();
    EXPECT_THAT(log, ContainsRegex("\\[TRACE \\] bridge_json_helpers.cpp:[0-9]+ unable to retrieve field\n"));
    for (const char *level : {"[ERROR ]", "[WARN  ]", "[INFO  ]", "[DEBUG ]"})
        EXPECT_THAT(log, Not(HasSubstr(level)));
    EXPECT_TRUE(into.boolean);
    EXPECT_EQ(into.number, -7.5);
    EXPECT_EQ(into.integer, -7);
    EXPECT_EQ(into.natural, 7U);
    EXPECT_STREQ(into.text, "kept");
    EXPECT_EQ(after, 5);
}

TEST_F(BridgeJson, AbsentRequiredFieldStopsTheWalkAndKeepsWhatWasRead)
{
    int64_t before = -1;
    int64_t missing = -1;
    int64_t after = -1;
    const bridge_json_field frame[] = {field_int("before", &before), field_int("missing", &missing),
                                       field_int("after", &after)};
    const json_owned obj = parse(R"({"after":3,"before":1})");
    captured_stderr capture;
    EXPECT_EQ(bridge_json_deserialize(obj.get(), frame, std::size(frame)), -1);
    const std::string log = capture.text();
    EXPECT_THAT(log, ContainsRegex("\\[TRACE \\] bridge_json_helpers.cpp:[0-9]+ reached field: before\n"));
    EXPECT_THAT(log, ContainsRegex("\\[TRACE \\] bridge_json_helpers.cpp:[0-9]+ reached field: missing\n"));
    EXPECT_THAT(log, Not(HasSubstr("reached field: after")));
    EXPECT_THAT(log, ContainsRegex(last_line("WARN  ", "unable to retrieve field")));
    EXPECT_EQ(before, 1);
    EXPECT_EQ(missing, -1);
    EXPECT_EQ(after, -1);
}

TEST_F(BridgeJson, OnlyAStaleEinvalCountsAndNotForAString)
{
    static constexpr struct {
        target_kind kind;
        int stale_errno;
        const char *json;
    } cases[] = {
        {KIND_BOOL, ENOENT, R"({"v":true})"},  {KIND_INT, ERANGE, R"({"v":1})"},
        {KIND_UINT, ENOENT, R"({"v":1})"},     {KIND_DOUBLE, ENOENT, R"({"v":1.5})"},
        {KIND_STRING, EINVAL, R"({"v":"a"})"},
    };
    for (const auto &row : cases) {
        targets into;
        const json_owned obj = parse(row.json);
        const bridge_json_field frame[] = {field_of(row.kind, &into)};
        errno = row.stale_errno;
        EXPECT_EQ(bridge_json_deserialize(obj.get(), frame, 1), 0) << row.json;
    }
}

TEST_F(BridgeJson, StringMustLeaveRoomForItsTerminator)
{
    static constexpr struct {
        const char *json;
        int result;
        const char *text;
    } cases[] = {{R"({"v":"1234567"})", 0, "1234567"}, {R"({"v":"12345678"})", -1, "kept"}};
    for (const auto &row : cases) {
        targets into;
        const json_owned obj = parse(row.json);
        const bridge_json_field frame[] = {field_string("v", into.text)};
        EXPECT_EQ(bridge_json_deserialize(obj.get(), frame, 1), row.result);
        EXPECT_STREQ(into.text, row.text);
    }
}

TEST_F(BridgeJson, SubFrameIsReadInItsPlace)
{
    char name[8] = "";
    double lat = 0;
    int64_t size = 0;
    bridge_json_field gps[] = {field_double("lat", &lat)};
    bridge_json_field inner[] = {field_string("name", name), field_object("gps", gps)};
    const bridge_json_field frame[] = {field_object("inner", inner), field_int("size", &size)};
    const json_owned obj = parse(R"({"inner":{"name":"SF7","gps":{"lat":47.25}},"size":3})");
    EXPECT_EQ(bridge_json_deserialize(obj.get(), frame, std::size(frame)), 0);
    EXPECT_STREQ(name, "SF7");
    EXPECT_EQ(lat, 47.25);
    EXPECT_EQ(size, 3);
}

TEST_F(BridgeJson, FailureInASubFrameStopsTheWalk)
{
    static constexpr const char *cases[] = {
        R"({"inner":{"b":2},"after":3})", R"({"inner":null,"after":3})", R"({"inner":[],"after":3})",
        R"({"inner":"text","after":3})",  R"({"inner":7,"after":3})",
    };
    for (const char *json : cases) {
        for (const bool optional : {false, true}) {
            int64_t a = -1;
            int64_t after = -1;
            bridge_json_field inner[] = {field_int("a", &a)};
            bridge_json_field frame[] = {field_object("inner", inner), field_int("after", &after)};
            frame[0].optional = optional;
            const json_owned obj = parse(json);
            captured_stderr capture;
            EXPECT_EQ(bridge_json_deserialize(obj.get(), frame, std::size(frame)), -1) << json;
            EXPECT_THAT(capture.text(), ContainsRegex("\\[WARN  \\] .* unable to retrieve field\n$"));
            EXPECT_EQ(after, -1) << json;
        }
    }
}

TEST_F(BridgeJson, NullWhereAllSubFieldsAreOptionalIsRead)
{
    int64_t a = -1;
    bridge_json_field inner[] = {field_optional(field_int("a", &a))};
    const bridge_json_field frame[] = {field_object("inner", inner)};
    const json_owned obj = parse(R"({"inner":null})");
    EXPECT_EQ(bridge_json_deserialize(obj.get(), frame, std::size(frame)), 0);
    EXPECT_EQ(a, -1);
}

TEST_F(BridgeJson, OtherJsonThanAnObjectHasNoFields)
{
    for (const char *json : {"[1]", "\"text\"", "7", "true"}) {
        int64_t v = -1;
        const bridge_json_field frame[] = {field_int("v", &v)};
        const json_owned obj = parse(json);
        EXPECT_EQ(bridge_json_deserialize(obj.get(), frame, 1), -1) << json;
    }
}

TEST_F(BridgeJson, UnknownTypesAreRefusedOnReading)
{
    for (const uint32_t type : {0U, 5U, 7U, UINT32_MAX}) {
        int64_t v = -1;
        bridge_json_field frame[] = {field_optional(field_int("v", &v))};
        frame[0].type = static_cast<bridge_json_type>(type);
        const json_owned obj = parse(R"({"v":1})");
        captured_stderr capture;
        EXPECT_EQ(bridge_json_deserialize(obj.get(), frame, 1), -1) << type;
        EXPECT_THAT(capture.text(), ContainsRegex(last_line("ERROR ", "unknown json field type")));
        EXPECT_EQ(v, -1);
    }
}

TEST_F(BridgeJson, FieldsAreWrittenInFrameOrderAndInTheirForm)
{
    bool no = false;
    bool yes = true;
    double rssi = -120.5;
    double freq = 868.1;
    double whole = 868;
    int64_t low = std::numeric_limits<int64_t>::min();
    uint64_t high = std::numeric_limits<uint64_t>::max();
    int64_t inner_value = 7;
    bridge_json_field inner[] = {field_int("z", &inner_value), field_text("a", "x")};
    const bridge_json_field frame[] = {
        {.name = "nothing", .type = JSON_FIELD_NULL},
        field_bool("no", &no),
        field_bool("yes", &yes),
        field_double("rssi", &rssi),
        field_double("freq", &freq),
        field_double("whole", &whole),
        field_double("fixed", &freq, "868.100000"),
        field_int("low", &low),
        field_uint("high", &high),
        field_object("inner", inner),
        field_text("data", "a\"/b"),
        field_optional(field_text("optional", "also written")),
    };
    EXPECT_EQ(bridge_json_serialize(out.get(), frame, std::size(frame)), 0);
    EXPECT_EQ(print(out.get()), R"({"nothing":null,"no":false,"yes":true,"rssi":-120.5,)"
                                R"("freq":868.10000000000002,"whole":868.0,"fixed":868.100000,)"
                                R"("low":-9223372036854775808,"high":18446744073709551615,)"
                                R"("inner":{"z":7,"a":"x"},"data":"a\"\/b","optional":"also written"})");
}

TEST_F(BridgeJson, SignOnReadingAndOnWritingAreSeparateFlags)
{
    uint64_t value = 0;
    bridge_json_field frame[] = {field_uint("v", &value)};
    frame[0].is_unsigned = false;
    const json_owned obj = parse(R"({"v":18446744073709551615})");
    EXPECT_EQ(bridge_json_deserialize(obj.get(), frame, 1), 0);
    EXPECT_EQ(value, UINT64_MAX);
    EXPECT_EQ(bridge_json_serialize(out.get(), frame, 1), 0);
    EXPECT_EQ(print(out.get()), R"({"v":-1})");

    frame[0].is_unsigned = true;
    frame[0].read_unsigned = false;
    EXPECT_EQ(bridge_json_serialize(out.get(), frame, 1), 0);
    EXPECT_EQ(print(out.get()), R"({"v":18446744073709551615})");
    EXPECT_EQ(bridge_json_deserialize(obj.get(), frame, 1), 0);
    EXPECT_EQ(value, static_cast<uint64_t>(INT64_MAX));
}

TEST_F(BridgeJson, ExistingKeyTakesTheNewValueAndOthersStay)
{
    int64_t value = 2;
    const bridge_json_field frame[] = {field_int("a", &value), field_int("c", &value)};
    const json_owned obj = parse(R"({"a":"old","b":1})");
    captured_stderr capture;
    EXPECT_EQ(bridge_json_serialize(obj.get(), frame, std::size(frame)), 0);
    EXPECT_THAT(capture.text(),
                ContainsRegex("\\[TRACE \\] bridge_json_helpers.cpp:[0-9]+ reached field: c\n"));
    EXPECT_EQ(print(obj.get()), R"({"a":2,"b":1,"c":2})");
}

TEST_F(BridgeJson, SubFrameThatFailsIsWrittenAsNullAndTheWalkGoesOn)
{
    int64_t value = 1;
    bridge_json_field inner[] = {field_int("a", &value), field_int("bad", &value)};
    inner[1].type = static_cast<bridge_json_type>(5);
    const bridge_json_field frame[] = {field_object("inner", inner), field_int("after", &value)};
    captured_stderr capture;
    EXPECT_EQ(bridge_json_serialize(out.get(), frame, std::size(frame)), 0);
    EXPECT_THAT(capture.text(), HasSubstr(" unknown json field type\n"));
    EXPECT_EQ(print(out.get()), R"({"inner":null,"after":1})");
}

TEST_F(BridgeJson, UnknownTypesAreRefusedOnWriting)
{
    for (const uint32_t type : {5U, 7U, UINT32_MAX}) {
        int64_t value = 1;
        bridge_json_field frame[] = {field_int("v", &value)};
        frame[0].type = static_cast<bridge_json_type>(type);
        captured_stderr capture;
        EXPECT_EQ(bridge_json_serialize(out.get(), frame, 1), -1) << type;
        EXPECT_THAT(capture.text(), ContainsRegex(last_line("ERROR ", "unknown json field type")));
        EXPECT_EQ(print(out.get()), "{}");
    }
}

TEST_F(BridgeJson, WantOfMemoryEndsTheWriting)
{
    bool yes = true;
    double number = 1;
    int64_t integer = 1;
    uint64_t natural = 1;
    bridge_json_field inner[] = {field_int("a", &integer)};
    const struct {
        const char *constructor;
        bridge_json_field field;
        const char *text;
    } cases[] = {
        {"json_object_new_boolean", field_bool("v", &yes), "failed to serialize field"},
        {"json_object_new_double", field_double("v", &number), "failed to serialize field"},
        {"json_object_new_double_s", field_double("v", &number, "1.0"), "failed to serialize field"},
        {"json_object_new_int64", field_int("v", &integer), "failed to serialize field"},
        {"json_object_new_uint64", field_uint("v", &natural), "failed to serialize field"},
        {"json_object_new_string", field_text("v", "text"), "failed to serialize field"},
        {"json_object_new_object", field_object("v", inner), "failed to create sub-object"},
    };
    for (const auto &row : cases) {
        const json_owned obj(json_object_new_object());
        const bridge_json_field frame[] = {field_text("after", "x"), row.field};
        constructor_without_memory = row.constructor;
        captured_stderr capture;
        EXPECT_EQ(bridge_json_serialize(obj.get(), &frame[1], 1), -1) << row.constructor;
        EXPECT_THAT(capture.text(), ContainsRegex(last_line("ERROR ", row.text)));
        EXPECT_EQ(print(obj.get()), "{}") << row.constructor;
        constructor_without_memory = "";
    }
}

TEST_F(BridgeJson, ResultOfAnOperationBecomesAStatusText)
{
    static constexpr struct {
        int errnum;
        const char *json;
    } cases[] = {
        {0, R"({"status":"ok","other":1})"},
        {-ENOENT, R"({"status":"No such file or directory","other":1})"},
        {-EINVAL, R"({"status":"Invalid argument","other":1})"},
        {-9999, R"({"status":"Unknown error 9999","other":1})"},
    };
    for (const auto &row : cases) {
        const json_owned obj = parse(R"({"status":"old","other":1})");
        EXPECT_EQ(errnum_to_existing_json("status", row.errnum, obj.get()), 0);
        EXPECT_EQ(print(obj.get()), row.json);
    }
}

TEST_F(BridgeJson, StatusTextWithoutMemoryFails)
{
    constructor_without_memory = "json_object_new_string";
    captured_stderr capture;
    EXPECT_EQ(errnum_to_existing_json("status", 0, out.get()), -1);
    EXPECT_THAT(capture.text(), ContainsRegex("\\[ERROR \\] bridge_json_helpers.cpp:[0-9]+ failed to "
                                              "allocate JSON string for status string\n$"));
    EXPECT_EQ(print(out.get()), "{}");
}

TEST_F(BridgeJsonDeath, NullPointersAndEmptyFramesAreAsserted)
{
    int64_t value = 0;
    const bridge_json_field frame[] = {field_int("v", &value)};
    const bridge_json_field nameless[] = {field_int(nullptr, &value)};
    EXPECT_ASSERTION(bridge_json_deserialize(nullptr, frame, 1), "obj");
    EXPECT_ASSERTION(bridge_json_deserialize(out.get(), nullptr, 1), "frame");
    EXPECT_ASSERTION(bridge_json_deserialize(out.get(), frame, 0), "count");
    EXPECT_ASSERTION(bridge_json_deserialize(out.get(), nameless, 1), "fld->name");
    EXPECT_ASSERTION(bridge_json_serialize(nullptr, frame, 1), "obj");
    EXPECT_ASSERTION(bridge_json_serialize(out.get(), nullptr, 1), "frame");
    EXPECT_ASSERTION(bridge_json_serialize(out.get(), frame, 0), "count");
    EXPECT_ASSERTION(bridge_json_serialize(out.get(), nameless, 1), "fld->name");
    EXPECT_ASSERTION(errnum_to_existing_json(nullptr, 0, out.get()), "key");
    EXPECT_ASSERTION(errnum_to_existing_json("status", 0, nullptr), "existing");
}

/* ---- parsing ---- */

static std::string parsed_text(const json_owned &parsed)
{
    return parsed ? print(parsed.get()) : "nothing";
}

TEST_F(BridgeJson, AParseCopiesTheLocaleThatNeedsNoLock)
{
    const locale_t constant = newlocale(LC_ALL_MASK, "C", nullptr);
    const json_owned one(json_tokener_parse("1"));
    EXPECT_NE(copied_locale, constant) << "the library by itself";

    const std::string path = testing::TempDir() + "parsed.json";
    const bridge_fd file(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    ASSERT_EQ(write(file.get(), "[1.5]", 5), 5);
    ASSERT_EQ(lseek(file.get(), 0, SEEK_SET), 0);
    const std::unique_ptr<json_tokener, bridge_release<json_tokener_free>> tokener(json_tokener_new());

    const std::function<json_object *()> ways[] = {
        [] { return bridge_json_parse("[1.5]"); },
        [&tokener] { return bridge_json_parse_ex(tokener.get(), "[1.5]", -1); },
        [&path] { return bridge_json_from_file(path.c_str()); },
        [&file] { return bridge_json_from_fd(file.get()); },
    };
    for (const auto &way : ways) {
        copied_locale = nullptr;
        EXPECT_EQ(parsed_text(json_owned(way())), "[1.5]");
        EXPECT_EQ(copied_locale, constant);
        EXPECT_EQ(duplocale(copied_locale), constant) << "a copy is the constant itself";
        EXPECT_EQ(uselocale(nullptr), LC_GLOBAL_LOCALE);
    }
    unlink(path.c_str());
}

TEST_F(BridgeJson, WhatIsNoJsonIsParsedToNothing)
{
    EXPECT_EQ(parsed_text(json_owned(bridge_json_parse("{"))), "nothing");
    EXPECT_EQ(parsed_text(json_owned(bridge_json_from_file("/nowhere"))), "nothing");
    EXPECT_EQ(uselocale(nullptr), LC_GLOBAL_LOCALE);
}
