#include "converter/translation.h"

#include "common/bridge_json_helpers.h"

#include <cerrno>
#include <cstring>

static constexpr uint8_t MAC[8] = {0x00, 0x16, 0xc0, 0x01, 0xff, 0x10, 0xab, 0xcd};

static json_owned parse(std::string_view json)
{
    json_owned parsed(json_tokener_parse(std::string(json).c_str()));
    EXPECT_NE(parsed, nullptr) << json;
    return parsed;
}

static std::string print(json_object *object)
{
    return json_object_to_json_string_ext(object, 0);
}

std::string printed(std::string_view json)
{
    return print(parse(json).get());
}

std::vector<std::string> translated::spoken() const
{
    std::vector<std::string> lines = log;
    std::erase_if(lines, [](const std::string &line) { return line.starts_with("TRACE "); });
    return lines;
}

static translated translate(bridge_translate_msg from, bridge_translate_msg to, std::string_view json)
{
    const json_owned input = parse(json);
    const json_owned output(json_object_new_object());
    const std::string before = print(input.get());
    from.json = input.get();
    to.json = output.get();
    const captured_log log;
    errno = 0;
    const int result = bridge_translate_generic(&from, &to);
    EXPECT_EQ(print(input.get()), before) << "a translator only reads its input";
    return {result, print(output.get()), to.token, log.lines()};
}

static translated translate_up(bridge_direction direction, const dialect &dialect, uint32_t semtech_version,
                               std::string_view json)
{
    bridge_translate_msg from = {
        .format = FORMAT_SEMTECH, .direction = direction, .version = semtech_version};
    bridge_translate_msg to = {.format = dialect.format, .direction = direction, .version = dialect.version};
    memcpy(from.mac, MAC, sizeof(from.mac));
    memcpy(to.mac, MAC, sizeof(to.mac));
    return translate(from, to, json);
}

translated translate_uplink(const dialect &to, uint32_t semtech_version, std::string_view rxpk)
{
    return translate_up(DIRECTION_UPLINK, to, semtech_version, rxpk);
}

translated translate_statistics(const dialect &to, uint32_t semtech_version, std::string_view stat)
{
    return translate_up(DIRECTION_STATISTICS, to, semtech_version, stat);
}

translated translate_downlink(const dialect &from, uint32_t semtech_version, std::string_view message)
{
    const bridge_translate_msg source = {
        .format = from.format, .direction = DIRECTION_DOWNLINK, .version = from.version};
    const bridge_translate_msg target = {
        .format = FORMAT_SEMTECH, .direction = DIRECTION_DOWNLINK, .version = semtech_version};
    return translate(source, target, message);
}

/* The object that holds the last key of the path, and that key. */
static json_object *holder_of(json_object *object, std::string_view path, std::string *key)
{
    for (size_t dot = path.find('.'); dot != std::string_view::npos; dot = path.find('.')) {
        json_object *inner = nullptr;
        json_object_object_get_ex(object, std::string(path.substr(0, dot)).c_str(), &inner);
        object = inner;
        path.remove_prefix(dot + 1);
    }
    *key = path;
    return object;
}

std::string with(std::string_view json, std::string_view path, std::string_view value)
{
    const json_owned object = parse(json);
    std::string key;
    json_object *holder = holder_of(object.get(), path, &key);
    const bool null = value == "null";
    json_object_object_add(holder, key.c_str(), null ? nullptr : parse(value).release());
    return print(object.get());
}

std::string without(std::string_view json, std::string_view path)
{
    const json_owned object = parse(json);
    std::string key;
    json_object *holder = holder_of(object.get(), path, &key);
    EXPECT_TRUE(json_object_object_get_ex(holder, key.c_str(), nullptr)) << path;
    json_object_object_del(holder, key.c_str());
    return print(object.get());
}

std::string member(std::string_view json, std::string_view path)
{
    const json_owned object = parse(json);
    std::string key;
    json_object *value = nullptr;
    if (!json_object_object_get_ex(holder_of(object.get(), path, &key), key.c_str(), &value))
        return "absent";
    return print(value);
}

std::string json_text(std::string_view text)
{
    return join({"\"", text, "\""});
}

std::string text_of_length(size_t length, std::string_view start)
{
    return json_text(join({start, std::string(length - start.size(), 'x')}));
}
