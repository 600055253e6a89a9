/* The local update, then the remote one. */
#include "converter/control/bridge_cmd_modem_fw.h"

#include "common/bridge_child.h"
#include "common/bridge_log.h"
#include "common/bridge_wait.h"
#include "converter/control/bridge_cmd_async.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_cmd_state.h"
#include "converter/control/bridge_ctrl_ctx.h"

#include <csignal>
#include <cstdlib>
#include <iterator>

static constexpr const char *INSTALL_LINE =
    "/opt/Sierra/LteModemFW/lte-fw-download-script.sh generic /dev/shm/modem/";
static constexpr const char *UPDATE_OBJECT = "wmFwUpdateExecute.0";
static constexpr const char *UPGRADE_STEP = "1000002";
static constexpr const char *FINISH_STEP = "1000003";
static constexpr int UPDATE_ROUNDS = 20;

enum wm_fw_status : int32_t {
    WM_FW_IN_PROGRESS = 1,
    WM_FW_OK = 2,
    WM_FW_FAILED = 3,
};

static void answer_status(const char *text, json_object **response)
{
    *response = bridge_cmd_status_text("status", text);
}

/* ---- local ---- */

/* The child. It drops the daemon's descriptors and runs one program through a shell. */
[[noreturn]] static void install()
{
    bridge_child_drop_descriptors();
    signal(SIGPIPE, SIG_DFL); /* the MQTT library has it ignored, and the script would inherit that */
    bridge_cmd_wm_status_write(WM_FW_IN_PROGRESS);
    if (system(INSTALL_LINE) == 0) {
        bridge_cmd_wm_status_write(WM_FW_OK);
    } else {
        BRIDGE_ERROR("[child] failed to complete an update");
        bridge_cmd_wm_status_write(WM_FW_FAILED);
    }
    exit(0);
}

void bridge_cmd_wm_fw_install_local(converter_ctx *ctx, json_object *, json_object **response)
{
    if (ctx->wm_install_running.exchange(true)) {
        answer_status("already installing", response);
        return;
    }
    const pid_t pid = cmd_fork(ctx);
    if (pid == 0)
        install();
    if (pid < 0) {
        ctx->wm_install_running = false;
        answer_status("failed to start install process", response);
        return;
    }
    cmd_async_forget(pid);
    answer_status("started", response);
}

void bridge_cmd_wm_fw_install_status(converter_ctx *ctx, json_object *, json_object **response)
{
    static constexpr const char *TEXTS[] = {"unknown", "in-progress", "ok", "failed"};
    if (!ctx->wm_install_running) {
        answer_status("not started", response);
        return;
    }
    int32_t status = 0;
    if (bridge_cmd_wm_status_read(&status) < 0) {
        BRIDGE_ERROR("failed to get WM FW install status");
        return;
    }
    const bool known = status > 0 && status < static_cast<int32_t>(std::size(TEXTS));
    answer_status(TEXTS[known ? status : 0], response);
}

/* ---- remote ---- */

/* The agent clears the object when the step is over. `timed_out` is set when it has not in time. */
static const char *wait_for_update(converter_ctx *ctx, bool *timed_out)
{
    for (int round = 0; round < UPDATE_ROUNDS; round++) {
        bridge_wait_s(1);
        long status = 0;
        if (bridge_snmp_get_property_int(ctx, UPDATE_OBJECT, &status, 0) < 0) {
            BRIDGE_ERROR("failed to retrieve status");
            return "Generic error";
        }
        if (status == 0)
            return "Operation succeed";
        if (status != 1 && status != 2)
            return "Operation ends with unknown status";
    }
    *timed_out = true;
    return "Failed to complete operation";
}

/* `started` stands for the answer when the step takes longer than the wait; null keeps the wait's own. */
static void run_step(converter_ctx *ctx, std::initializer_list<bridge_snmp_write_prop> rows,
                     const char *started, json_object **response)
{
    if (cmd_write(ctx, rows) < 0) {
        answer_status("generic error", response);
        return;
    }
    bool timed_out = false;
    const char *text = wait_for_update(ctx, &timed_out);
    answer_status(timed_out && started != nullptr ? started : text, response);
}

void bridge_cmd_wm_fw_install_remote(converter_ctx *ctx, json_object *params, json_object **response)
{
    run_step(ctx,
             {cmd_field("wmFwUpdateUrl.0", "url", PROP_TYPE_STRING, params, true),
              cmd_field("wmFwUpdateUser.0", "userName", PROP_TYPE_STRING, params, true),
              cmd_field("wmFwUpdatePass.0", "password", PROP_TYPE_STRING, params, true),
              cmd_text(UPDATE_OBJECT, CMD_TRIGGER)},
             "Upload has started. This might take a while...", response);
}

void bridge_cmd_wm_fw_upgrade(converter_ctx *ctx, json_object *, json_object **response)
{
    run_step(ctx, {cmd_text(UPDATE_OBJECT, UPGRADE_STEP)}, "Upgrade has started. This might take a while...",
             response);
}

void bridge_cmd_wm_fw_finish(converter_ctx *ctx, json_object *, json_object **response)
{
    run_step(ctx, {cmd_text(UPDATE_OBJECT, FINISH_STEP)}, nullptr, response);
}
