/* Requests for firmware, and the states that follow, among an upgrade utility and an agent that answer as the
 * input says. Input: lines, each a request; behind a zero the choices of fuzz_choices.h: first what the
 * utility says to the service's start, up to a zero, and so on. */
#include "converter/control/bridge_bsp_upgrade.h"
#include "fuzz.h"
#include "fuzz_control.h"

static constexpr const char *DESIRED = "gateway/mac/0016C001FF1A2B3C/firmware/desired";
static constexpr const char *REPORTED = "gateway/mac/0016C001FF1A2B3C/firmware/reported";
static constexpr size_t MOST = 1024;

static void check_report(const fuzz_report &report)
{
    FUZZ_REQUIRE(report.topic == REPORTED && report.retained);
    FUZZ_REQUIRE(report.body.size() <= MOST && report.body.find('\0') == report.body.size() - 1);
    FUZZ_REQUIRE(fuzz_text_needs_escapes || fuzz_is_terminated_json(report.body));
}

/* All requests wait when the service's thread comes to look. A utility that is there is reported on, if only
 * that it is not understood. */
static void serve(const fuzz_parts &parts)
{
    const fuzz_end end = fuzz_control_run([&] {
        FUZZ_REQUIRE(bridge_bulk_upgrade_start() == 0);
        for (const std::string &line : parts.lines)
            fuzz_control_deliver(DESIRED, line);
        fuzz_control_run_jobs();
    });
    FUZZ_REQUIRE(end == FUZZ_RETURNED);
    FUZZ_REQUIRE(!fuzz_oam.reports.empty());
}

static void stop()
{
    bridge_bulk_upgrade_stop();
    bridge_bulk_upgrade_deinit();
    FUZZ_REQUIRE(!fuzz_control_is_subscribed(DESIRED));
    FUZZ_REQUIRE(bridge_bulk_upgrade_init(fuzz_control_ctx()) == 0);
}

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    fuzz_control_start(*argc, *argv, 60);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    return fuzz_control_service(data, size, serve, check_report, stop);
}
