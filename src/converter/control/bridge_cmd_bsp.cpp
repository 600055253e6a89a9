/* Handlers in the order of the command table, then the resumed upgrade. */
#include "converter/control/bridge_cmd_bsp.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_wait.h"
#include "converter/control/bridge_cmd_async.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_cmd_pipe.h"
#include "converter/control/bridge_cmd_state.h"
#include "converter/control/bridge_ctrl_ctx.h"
#include "thread_pool/thpool.h"

static constexpr uint32_t UPGRADE_TIMEOUT_S = 3600;
static constexpr uint32_t POLL_PERIOD_S = 5;
static constexpr uint32_t SETTLE_S = 10;
static constexpr const char *BSP_PACKAGE = "sarnivel-bsp-version";
static constexpr const char *START_UPGRADE = "1000003";
static constexpr const char *START_FORCED_UPGRADE = "1000005";

static constexpr cmd_async_texts UPGRADE_TEXTS = {
    "failed to start bsp upgrade slave process: %m",
    "launched bsp upgrade process pid: [%d]",
    "mqtt bsp upgrade slave process started",
};

/* ---- status ---- */

static constexpr long BUSY = 90000;

struct bsp_status {
    long number;
    const char *text;
    bool is_final;
};

/* clang-format off */
static constexpr bsp_status BSP_STATUSES[] = {
    {0,     "ok",                       true},
    {1,     "BSP upgrade failure",      true},
    {BUSY,  "BSP upgrade busy",         false},
    {90001, "BSP upgrade busy",         false},
    {90002, "n/a (can't determined)",   true},
    {90003, "Already the latest BSP",   true},
    {90004, "BSP upgrade failure",      true},
    {90005, "BSP upgrade failure",      true},
    {90006, "BSP download busy",        false},
    {90007, "BSP download successful",  false},
};
/* clang-format on */

static constexpr bsp_status UNKNOWN_STATUS = {-1, "unknown", true};

static const bsp_status &find_status(long number)
{
    for (const bsp_status &row : BSP_STATUSES) {
        if (row.number == number)
            return row;
    }
    return UNKNOWN_STATUS;
}

/* Returns false when the control plane ends in the meantime, which must not wait for an upgrade. */
static bool wait_while_running(const converter_ctx *ctx, uint32_t seconds)
{
    for (uint32_t waited = 0; waited < seconds && ctx->ctrl_running; waited++)
        bridge_wait_s(1);
    return ctx->ctrl_running;
}

/* A read that fails leaves the number as it was: an agent that cannot be asked yet counts as busy. Null when
 * the control plane ends in the meantime. */
static const char *poll_upgrade(converter_ctx *ctx, uint32_t timeout_s)
{
    BRIDGE_ASSERT(timeout_s != 0);
    long number = BUSY;
    for (uint32_t round = 0; round < timeout_s / POLL_PERIOD_S; round++) {
        bridge_snmp_get_property_int(ctx, "upgradeBspStatus.0", &number, 0);
        const bsp_status &status = find_status(number);
        if (status.is_final)
            return status.text;
        if (!wait_while_running(ctx, POLL_PERIOD_S))
            return nullptr;
    }
    return "BSP upgrade timed out";
}

void bridge_cmd_get_bsp_status(converter_ctx *ctx, json_object *, json_object **response)
{
    cmd_read_number(ctx, "upgradeBspStatus.0", "cannot get BSP status", "failed to create BSP status object",
                    response);
}

/* ---- local upgrade ---- */

static void set_last_command(converter_ctx *ctx, bridge_sw_cmd command, int64_t req_id)
{
    ctx->last_sw_cmd = command;
    ctx->last_sw_req_id = req_id;
    bridge_cmd_sw_status_write(command, req_id);
}

/* The request may name neither; the delay is told in the log alone. */
static bool read_force(json_object *request)
{
    int64_t delay = 0;
    bool force = false;
    bridge_json_field delay_frame[] = {field_int("delay", &delay)};
    bridge_json_field force_frame[] = {field_bool("force", &force)};
    if (!json_object_object_get_ex(request, "delay", nullptr) || cmd_parse(request, delay_frame) < 0)
        BRIDGE_WARN("Delay parameter not set, upgrade immediately");
    if (!json_object_object_get_ex(request, "force", nullptr) || cmd_parse(request, force_frame) < 0)
        BRIDGE_WARN("Force parameter not set, upgrade without forcing");
    BRIDGE_INFO("Upgrade BSP with delay: %lld, force: %s", static_cast<long long>(delay),
                force ? "true" : "false");
    return force;
}

static void upgrade(converter_ctx *ctx, bool force, int64_t req_id, json_object *answer)
{
    const int result =
        cmd_write(ctx, {cmd_text("packageToUpgrade.0", BSP_PACKAGE),
                        cmd_text("upgradeStart.0", force ? START_FORCED_UPGRADE : START_UPGRADE)});
    if (result < 0) {
        BRIDGE_ERROR("failed to send package upgrade command");
        errnum_to_existing_json("status", result, answer);
        return;
    }
    set_last_command(ctx, SW_CMD_LOCAL_UPGRADE, req_id);
    wait_while_running(ctx, SETTLE_S);
    const char *text = poll_upgrade(ctx, UPGRADE_TIMEOUT_S);
    json_object_object_add(answer, "status", json_object_new_string(text));
}

/* In the child, which outlives the control plane of the daemon. */
static void upgrade_job(converter_ctx *ctx, json_object *request)
{
    ctx->ctrl_running = true;
    json_owned answer(json_object_new_object());
    int64_t req_id = 0;
    bridge_json_field frame[] = {field_int("requestId", &req_id)};
    if (!answer || cmd_parse(request, frame) < 0) {
        BRIDGE_ERROR("failed to de-serialize params");
        return;
    }
    cmd_async_begin();
    upgrade(ctx, read_force(request), req_id, answer.get());
    set_last_command(ctx, SW_CMD_NONE, 0);
    bridge_cmd_async_respond(answer.release(), req_id);
}

/* Only this process's own memory is asked: an upgrade that a child of it has begun is not seen. */
void bridge_cmd_upgrade_bsp_local(converter_ctx *ctx, json_object *request, json_object **response)
{
    if (ctx->last_sw_cmd == SW_CMD_LOCAL_UPGRADE) {
        *response = bridge_cmd_status_text("status", "BSP upgrade already in progress");
        return;
    }
    cmd_async_run(ctx, request, upgrade_job, UPGRADE_TEXTS, response);
}

/* ---- what is on offer, and what runs ---- */

static bool asks_for_local(json_object *params)
{
    bool local = false;
    bridge_json_field frame[] = {field_bool("local", &local)};
    if (!json_object_object_get_ex(params, "local", nullptr) || cmd_parse(params, frame) < 0) {
        BRIDGE_TRACE("Local parameter is missing. Assume remote upgrade.");
        return false;
    }
    return local;
}

void bridge_cmd_get_available_bsp_upgrade(converter_ctx *ctx, json_object *params, json_object **response)
{
    const char *object =
        asks_for_local(params) ? "getAvailableLocalBspUpgrade.0" : "getAvailableBspUpgrade.0";
    char text[256];
    size_t size = sizeof(text);
    if (bridge_snmp_get_property_str(ctx, object, text, &size, 0) < 0) {
        cmd_answer_error("failed to process get available BSP upgrade parameters", response);
        return;
    }
    *response = bridge_cmd_status_text("upgrade", text);
}

void bridge_cmd_get_bsp_status_string(converter_ctx *ctx, json_object *, json_object **response)
{
    long number = 0;
    const int result = bridge_snmp_get_property_int(ctx, "upgradeBspStatus.0", &number, 0);
    if (result < 0) {
        BRIDGE_ERROR("Failed to get upgrade status");
        *response = bridge_cmd_status_errno("status", result);
        return;
    }
    *response = bridge_cmd_status_text("status", find_status(number).text);
}

void bridge_cmd_get_current_bsp_version(converter_ctx *ctx, json_object *, json_object **response)
{
    char text[64];
    size_t size = sizeof(text);
    if (bridge_snmp_get_property_str(ctx, "bspVersion.0", text, &size, 0) < 0) {
        BRIDGE_ERROR("failed to get bsp_version");
        return;
    }
    *response = bridge_cmd_status_text("version", text);
    if (*response == nullptr)
        BRIDGE_ERROR("failed to allocate BSP version string");
}

/* ---- after a restart ---- */

/* On a pool thread. When the control plane ends before the upgrade does, the next start takes it up again. */
static void resumed_upgrade_worker(void *arg)
{
    auto *ctx = static_cast<converter_ctx *>(arg);
    BRIDGE_INFO("Started polling BSP upgrade status worker");
    const char *text = wait_while_running(ctx, SETTLE_S) ? poll_upgrade(ctx, UPGRADE_TIMEOUT_S) : nullptr;
    if (text == nullptr)
        return;
    const int64_t req_id = ctx->last_sw_req_id;
    set_last_command(ctx, SW_CMD_NONE, 0);
    bridge_cmd_async_respond(bridge_cmd_status_text("status", text), req_id);
}

void bridge_cmd_resume_bsp_upgrade(converter_ctx *ctx)
{
    const ctx_guard guard(ctx);
    if (ctx->bsp_poll_running)
        return;
    ctx->bsp_poll_running = true;
    if (thpool_add_work(ctx->pool, resumed_upgrade_worker, ctx) >= 0)
        return;
    BRIDGE_ERROR("failed to start bsp upgrade status polling thread");
    ctx->bsp_poll_running = false;
    const int64_t req_id = ctx->last_sw_req_id;
    ctx->last_sw_cmd = SW_CMD_NONE;
    bridge_cmd_sw_status_write(SW_CMD_NONE, 0);
    bridge_cmd_async_respond(
        bridge_cmd_status_text("status", "Failed to start bsp upgrade status polling thread"), req_id);
}
