/* Desired configurations of the operations server, among programs, an agent and files that answer as the
 * input says. Input: lines, each a document; behind a zero the choices of fuzz_choices.h. */
#include "common/bridge_json_helpers.h"
#include "fuzz.h"
#include "fuzz_control.h"

static constexpr const char *DESIRED = "gateway/mac/0016C001FF1A2B3C/configuration/desired";
static constexpr const char *REPORTED = "gateway/mac/0016C001FF1A2B3C/configuration/reported";

static void check_report(const fuzz_report &report)
{
    FUZZ_REQUIRE(report.topic == REPORTED && report.retained);
    FUZZ_REQUIRE(fuzz_is_terminated_json(report.body));
    const json_owned document(json_tokener_parse(report.body.c_str()));
    json_object *content = nullptr;
    FUZZ_REQUIRE(json_object_object_length(document.get()) == 1);
    FUZZ_REQUIRE(json_object_object_get_ex(document.get(), "content", &content));
    FUZZ_REQUIRE(json_object_is_type(content, json_type_object));
}

/* Documents without an order and a content are not answered. */
static bool is_document(const std::string &text)
{
    const json_owned document(json_tokener_parse(text.c_str()));
    json_object *content = nullptr;
    return json_object_object_get_ex(document.get(), "timestamp", nullptr) &&
           json_object_object_get_ex(document.get(), "content", &content) && content != nullptr;
}

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    fuzz_control_start(*argc, *argv, 60);
    fuzz_control_reset(nullptr, 0);
    fuzz_control_run([] {
        fuzz_control_deliver("api/capabilities", R"({"capabilities":["bulk_cfg"]})");
        fuzz_control_run_jobs();
    });
    FUZZ_REQUIRE(fuzz_control_is_subscribed(DESIRED));
    return 0;
}

static void process(const std::string &line)
{
    const fuzz_end end = fuzz_control_run([&] {
        fuzz_control_deliver(DESIRED, line);
        fuzz_control_run_jobs();
    });
    FUZZ_REQUIRE(end == FUZZ_RETURNED);
    FUZZ_REQUIRE(fuzz_oam.reports.size() <= (is_document(line) ? 1 : 0));
    FUZZ_REQUIRE(fuzz_oam.late_answers.empty());
    for (const fuzz_report &report : fuzz_oam.reports)
        check_report(report);
    fuzz_oam = {};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    return fuzz_control_input(data, size, [](const fuzz_parts &parts) {
        for (const std::string &line : parts.lines)
            process(line);
    });
}
