/* Notifications of any bytes at the trap port, and the alarms that they have published, with an agent that
 * answers as the input says. Input: the choices of fuzz_choices.h, which datagrams and answers are made of.
 */
#include "converter/control/bridge_ctrl_ctx.h"
#include "converter/control/bridge_events.h"
#include "fuzz.h"
#include "fuzz_choices.h"
#include "fuzz_control.h"
#include "fuzz_transport.h"

#include <cctype>
#include <sys/select.h>

static constexpr const char *TOPIC = "api/v1/gateway/events";
static constexpr size_t MOST = 256;

/* ---- calls of the daemon ---- */

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes the names
extern "C" {
netsnmp_transport *__wrap_netsnmp_transport_open_server(const char *, const char *)
{
    return fuzz_transport_new(false);
}

/* There is something to receive as long as choices are left; then the plane ends. */
int __real_select(int count, fd_set *readable, fd_set *writable, fd_set *failed, timeval *timeout);
int __wrap_select(int count, fd_set *readable, fd_set *writable, fd_set *failed, timeval *)
{
    timeval at_once = {};
    if (fuzz_choices_left())
        return __real_select(count, readable, writable, failed, &at_once);
    fuzz_control_ctx()->ctrl_running = false;
    return 0;
}
}
// NOLINTEND(bugprone-reserved-identifier)

/* ---- what holds for every report ---- */

/* The number stands bare, and is whatever text the agent has for it. */
static bool has_number(const std::string &body)
{
    static constexpr std::string_view KEY = "\"typeId\":";
    const size_t start = body.find(KEY) + KEY.size();
    const size_t end = body.find_first_not_of("0123456789", start + (body[start] == '-' ? 1 : 0));
    return end > start && body[end] == ',' && isdigit(body[end - 1]) != 0;
}

static void check_report(const fuzz_report &report)
{
    FUZZ_REQUIRE(report.topic == TOPIC && !report.retained);
    FUZZ_REQUIRE(report.body.size() <= MOST && report.body.find('\0') == report.body.size() - 1);
    FUZZ_REQUIRE(report.body.starts_with(R"({"ts":0,"mac":"0016C001FF1A2B3C","type":")"));
    FUZZ_REQUIRE(fuzz_text_needs_escapes || !has_number(report.body) || fuzz_is_terminated_json(report.body));
}

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    fuzz_control_start(*argc, *argv, 0);
    fuzz_control_ctx()->event_thr_running = false; /* the worker of the start never runs */
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const int descriptor = fuzz_free_descriptor();
    converter_ctx *ctx = fuzz_control_ctx();
    fuzz_control_reset(data, size);
    const fuzz_end end = fuzz_control_run([&] {
        FUZZ_REQUIRE(bridge_events_cb_launcher(ctx, TOPIC) == 0);
        fuzz_control_run_jobs();
    });
    FUZZ_REQUIRE(end != FUZZ_EXITED);
    FUZZ_REQUIRE(end == FUZZ_TRIPPED || !ctx->event_thr_running);
    ctx->event_thr_running = false;
    for (const fuzz_report &report : fuzz_oam.reports)
        check_report(report);
    FUZZ_REQUIRE(fuzz_oam.late_answers.empty() && fuzz_oam.told.empty());
    FUZZ_REQUIRE(fuzz_free_descriptor() == descriptor);
    return 0;
}
