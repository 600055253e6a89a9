/* The message that switches services on, each service's start, and the battery's reports by an agent that
 * answers as the input says. Input: lines, each a message; behind a zero the choices of fuzz_choices.h. */
#include "converter/control/bridge_bsp_upgrade.h"
#include "converter/control/bridge_configs.h"
#include "converter/control/bridge_performance_management.h"
#include "fuzz.h"
#include "fuzz_control.h"

#include <algorithm>

static constexpr const char *CAPABILITIES_TOPIC = "api/capabilities";

struct service {
    const char *desired; /* topic, or null */
    const char *reported;
    bool retained;
    size_t most; /* bytes of a report, without its terminator; 0 for any */
};

static constexpr service SERVICES[] = {
    {"gateway/mac/0016C001FF1A2B3C/configuration/desired",
     "gateway/mac/0016C001FF1A2B3C/configuration/reported", false, 0},
    {"gateway/mac/0016C001FF1A2B3C/firmware/desired", "gateway/mac/0016C001FF1A2B3C/firmware/reported", true,
     1023},
    {nullptr, "gateway/mac/0016C001FF1A2B3C/performance", true, 699},
};

/* A number of the battery's can be cut in its piece of the report: such a report is no JSON, and is meant so.
 */
static bool is_cut(const std::string &body)
{
    size_t digits = 0;
    for (const char c : body) {
        digits = c >= '0' && c <= '9' ? digits + 1 : 0;
        if (digits > 20)
            return true;
    }
    return false;
}

static void check_report(const fuzz_report &report)
{
    const auto *each = std::find_if(std::begin(SERVICES), std::end(SERVICES),
                                    [&](const service &row) { return report.topic == row.reported; });
    FUZZ_REQUIRE(each != std::end(SERVICES));
    FUZZ_REQUIRE(report.retained == each->retained);
    FUZZ_REQUIRE(report.body.find('\0') == report.body.size() - 1);
    FUZZ_REQUIRE(each->most == 0 || report.body.size() <= each->most + 1);
    FUZZ_REQUIRE(fuzz_text_needs_escapes || is_cut(report.body) || fuzz_is_terminated_json(report.body));
}

/* A stop lets nothing be started until the plane begins anew. */
static void stop_services()
{
    bridge_bulk_configs_stop();
    bridge_bulk_upgrade_stop();
    bridge_performance_management_stop();
    bridge_bulk_configs_deinit();
    bridge_bulk_upgrade_deinit();
    bridge_performance_management_deinit();
    for (const service &each : SERVICES)
        FUZZ_REQUIRE(each.desired == nullptr || !fuzz_control_is_subscribed(each.desired));
    FUZZ_REQUIRE(bridge_bulk_configs_init(fuzz_control_ctx()) == 0);
    FUZZ_REQUIRE(bridge_bulk_upgrade_init(fuzz_control_ctx()) == 0);
    FUZZ_REQUIRE(bridge_performance_management_init(fuzz_control_ctx()) == 0);
}

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    fuzz_control_start(*argc, *argv, 60);
    return 0;
}

static void serve(const fuzz_parts &parts)
{
    fuzz_end end = FUZZ_RETURNED;
    for (const std::string &line : parts.lines) {
        if (end == FUZZ_RETURNED)
            end = fuzz_control_run([&] {
                fuzz_control_deliver(CAPABILITIES_TOPIC, line);
                fuzz_control_run_jobs();
            });
    }
    FUZZ_REQUIRE(end != FUZZ_EXITED);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    return fuzz_control_service(data, size, serve, check_report, stop_services);
}
