/* Commands of the operations server, each with its handler, among an agent and a system that answer as the
 * input says. Input: lines, each a whole request or a command's name and its params, with a blank between
 * them for a request whose identifier is a number and a tab for a text; behind a zero the choices of
 * fuzz_choices.h. */
#include "converter/control/bridge_cmd.cpp" /* for its table */

#include "fuzz.h"
#include "fuzz_control.h"
#include "fuzz_mutate.h"

#include <algorithm>
#include <cstring>
#include <random>

static constexpr const char *TOPIC = "api/v1/gateway/commands";
static constexpr const char *MAC_KEY = "mac";
static constexpr const char *ID_KEY = "requestId";
static constexpr const char *REQUEST_KEYS[] = {"command", ID_KEY, "params", MAC_KEY};

/* ---- requests ---- */

static std::string request_of(const std::string &line)
{
    const size_t end = line.find_first_of(" \t");
    if (line.starts_with('{') || end == std::string::npos)
        return line;
    const std::string id = line[end] == ' ' ? "7" : "\"seven\"";
    return "{\"command\":\"" + line.substr(0, end) + "\",\"requestId\":" + id +
           ",\"params\":" + line.substr(end + 1) + ",\"mac\":\"0016c001ff1a2b3c\"}";
}

/* Null unless the request can be answered. */
static json_owned parse_request(const std::string &text)
{
    json_owned request(json_tokener_parse(text.c_str()));
    for (const char *key : REQUEST_KEYS) {
        if (!json_object_object_get_ex(request.get(), key, nullptr))
            return nullptr;
    }
    return request;
}

/* ---- answers ---- */

static std::string text_of(json_object *object, const char *key)
{
    json_object *value = nullptr;
    FUZZ_REQUIRE(json_object_object_get_ex(object, key, &value));
    return json_object_to_json_string(value);
}

static void check_answer(const fuzz_report &report, json_object *request)
{
    FUZZ_REQUIRE(report.topic == TOPIC && !report.retained);
    FUZZ_REQUIRE(fuzz_is_terminated_json(report.body));
    const json_owned answer(json_tokener_parse(report.body.c_str()));
    for (const char *key : {ID_KEY, MAC_KEY})
        FUZZ_REQUIRE(text_of(answer.get(), key) == text_of(request, key));
    const bool has_response = json_object_object_get_ex(answer.get(), "response", nullptr);
    const bool has_error = json_object_object_get_ex(answer.get(), "error", nullptr);
    FUZZ_REQUIRE(!has_response || !has_error);
    FUZZ_REQUIRE(json_object_object_length(answer.get()) == 2 + (has_response || has_error ? 1 : 0));
}

static void check_late_answer(const std::string &text)
{
    FUZZ_REQUIRE(fuzz_is_json_object(text));
    const json_owned answer(json_tokener_parse(text.c_str()));
    FUZZ_REQUIRE(text_of(answer.get(), MAC_KEY) == "\"0016C001FF1A2B3C\"");
    FUZZ_REQUIRE(json_object_object_get_ex(answer.get(), ID_KEY, nullptr));
    FUZZ_REQUIRE(json_object_object_get_ex(answer.get(), "response", nullptr));
}

/* One answer to what can be answered, a second one behind a child that had none to give; a child has none of
 * its own, and its late one at most. */
static void check_outcome(const std::string &text, fuzz_end end)
{
    const json_owned request = parse_request(text);
    const size_t most = request ? 2 : 0;
    FUZZ_REQUIRE(fuzz_oam.reports.size() <= most);
    FUZZ_REQUIRE(end != FUZZ_RETURNED || !request || !fuzz_oam.reports.empty());
    for (const fuzz_report &report : fuzz_oam.reports)
        check_answer(report, request.get());
    FUZZ_REQUIRE(fuzz_oam.late_answers.size() <= (end == FUZZ_EXITED ? 1 : 0));
    for (const std::string &answer : fuzz_oam.late_answers)
        check_late_answer(answer);
    fuzz_oam = {};
}

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    fuzz_control_start(*argc, *argv, 60);
    return 0;
}

/* Bytes changed at random rarely make one name into another. */
static bool change_name(uint8_t *data, size_t *size, size_t max_size, unsigned seed)
{
    std::minstd_rand random(seed);
    const uint8_t *start = data;
    const uint8_t *end = std::find(data, data + *size, 0);
    while (random() % 2 == 0) {
        const uint8_t *next = std::find(start, end, '\n');
        if (next == end)
            break;
        start = next + 1;
    }
    const uint8_t *name_end = std::find_if(start, end, [](uint8_t c) { return isalnum(c) == 0 && c != '_'; });
    const char *name = commands_table[random() % std::size(commands_table)].command;
    std::string changed(static_cast<const uint8_t *>(data), start);
    changed += name;
    changed += name_end == start ? " {}\n" : "";
    changed.append(name_end, static_cast<const uint8_t *>(data) + *size);
    if (changed.size() > max_size)
        return false;
    memcpy(data, changed.data(), changed.size());
    *size = changed.size();
    return true;
}

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size, unsigned seed)
{
    if (seed % 8 == 0 && change_name(data, &size, max_size, seed))
        return size;
    return fuzz_mutate_parts(data, size, max_size, seed);
}

static void serve(const fuzz_parts &parts)
{
    for (const std::string &line : parts.lines) {
        const std::string request = request_of(line);
        const fuzz_end end = fuzz_control_run([&] {
            fuzz_control_deliver(TOPIC, request);
            fuzz_control_run_jobs();
        });
        check_outcome(request, end);
        if (end != FUZZ_RETURNED)
            break; /* with the process, or in a child */
    }
    fuzz_control_reset(nullptr, 0);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    return fuzz_control_input(data, size, serve);
}
