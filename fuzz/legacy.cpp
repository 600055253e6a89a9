/* The older exchange of configurations, both ways, with an agent that answers as the input says. Input:
 * lines, each a message of the server, or "GENERAL " or "UPGRADE_SERVERS " and the plain document of such a
 * message, or "push" or "ask" for the gateway's own; behind a zero the choices of fuzz_choices.h. */
#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"
#include "converter/control/bridge_configs_legacy.h"
#include "fuzz.h"
#include "fuzz_control.h"

#include <cstring>
#include <vector>

static constexpr const char *TOPIC = "api/v1/gateway/configuration";
static constexpr const char *ASK_TOPIC = "api/v1/gateway/configuration/request";
static constexpr const char *TYPES[] = {"GENERAL", "UPGRADE_SERVERS"};

static std::string in_base64(const std::string &plain)
{
    std::vector<char> text(static_cast<size_t>(Base64encode_len(static_cast<int>(plain.size()))));
    Base64encode(text.data(), plain.data(), static_cast<int>(plain.size()));
    return text.data();
}

static std::string message_of(const std::string &line)
{
    for (const char *type : TYPES) {
        const std::string start = std::string(type) + " ";
        if (line.starts_with(start))
            return "{\"updateTs\":5,\"requestId\":\"r\",\"type\":\"" + std::string(type) +
                   "\",\"contentType\":\"base64\",\"mac\":\"0016c001ff1a2b3c\",\"content\":\"" +
                   in_base64(line.substr(start.size())) + "\"}";
    }
    return line;
}

/* ---- what holds for every report ---- */

static std::string text_of(json_object *object, const char *key)
{
    json_object *value = nullptr;
    FUZZ_REQUIRE(json_object_object_get_ex(object, key, &value));
    FUZZ_REQUIRE(json_object_is_type(value, json_type_string));
    return json_object_get_string(value);
}

static void check_document(const fuzz_report &report, const std::string &message)
{
    FUZZ_REQUIRE(report.topic == TOPIC && !report.retained);
    FUZZ_REQUIRE(fuzz_is_terminated_json(report.body));
    const json_owned document(json_tokener_parse(report.body.c_str()));
    const std::string type = text_of(document.get(), "type");
    FUZZ_REQUIRE(type == TYPES[0] || type == TYPES[1]);
    const std::string content = text_of(document.get(), "content");
    FUZZ_REQUIRE(
        content.size() % 4 == 0 &&
        content.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=") ==
            std::string::npos);
    if (message.empty())
        return;
    /* A number counts as its text, and a text up to its first zero. */
    const json_owned request(json_tokener_parse(message.c_str()));
    for (const char *key : {"type", "contentType", "mac"}) {
        const char *asked = json_object_get_string(json_object_object_get(request.get(), key));
        FUZZ_REQUIRE(strcmp(text_of(document.get(), key).c_str(), asked) == 0);
    }
}

static void check_question(const fuzz_report &report)
{
    FUZZ_REQUIRE(report.topic == ASK_TOPIC && !report.retained);
    FUZZ_REQUIRE(fuzz_is_json_object(report.body)); /* without its terminator */
}

static void push()
{
    bridge_config_push_launcher_legacy(fuzz_control_ctx(), TOPIC);
}

static void ask()
{
    FUZZ_REQUIRE(bridge_config_get_latest_launcher_legacy(fuzz_control_ctx(), ASK_TOPIC) == 0);
}

static void process(const std::string &line)
{
    const std::string message = line == "push" || line == "ask" ? "" : message_of(line);
    const fuzz_end end = fuzz_control_run([&] {
        if (line == "push")
            return push();
        if (line == "ask")
            return ask();
        fuzz_control_deliver(TOPIC, message);
        fuzz_control_run_jobs();
    });
    FUZZ_REQUIRE(end == FUZZ_RETURNED);
    FUZZ_REQUIRE(fuzz_oam.reports.size() <= (message.empty() ? 2 : 1));
    for (const fuzz_report &report : fuzz_oam.reports) {
        if (line == "ask")
            check_question(report);
        else
            check_document(report, message);
    }
    fuzz_oam = {};
}

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    fuzz_control_start(*argc, *argv, 60);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    return fuzz_control_input(data, size, [](const fuzz_parts &parts) {
        for (const std::string &line : parts.lines)
            process(line);
    });
}
