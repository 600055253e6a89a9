/* The table of commands, the road of a request, and the start and stop of the service. */
#include "converter/control/bridge_cmd.h"

#include "common/bridge_fileops.h"
#include "common/bridge_fileops_jobs.h"
#include "common/bridge_fileops_watch.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_wait.h"
#include "converter/control/bridge_cmd_async.h"
#include "converter/control/bridge_cmd_bsp.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_cmd_files.h"
#include "converter/control/bridge_cmd_gateway.h"
#include "converter/control/bridge_cmd_modem.h"
#include "converter/control/bridge_cmd_network.h"
#include "converter/control/bridge_cmd_pdp.h"
#include "converter/control/bridge_cmd_pipe.h"
#include "converter/control/bridge_cmd_radio.h"
#include "converter/control/bridge_cmd_revssh.h"
#include "converter/control/bridge_cmd_software.h"
#include "converter/control/bridge_cmd_state.h"
#include "converter/control/bridge_cmd_upload.h"
#include "converter/control/bridge_ctrl_ctx.h"
#include "mqtt/bridge_mqtt.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

static constexpr uint32_t REBOOT_DELAY_S = 5;
static constexpr mode_t DIRECTORY_MODE = 0775;
static constexpr int32_t CODE_RESTART = 1;

struct command_row {
    const char *command;
    bridge_cmd_handler handler;
    bool pass_root; /* the whole request goes to the handler, not its "params" */
};

/* Searched from the top. */
/* clang-format off */
static constexpr command_row commands_table[] = {
    {"ping",                                 bridge_cmd_ping,                       false},
    {"reboot",                               bridge_cmd_reboot,                     false},
    {"reverseSsh",                           bridge_cmd_reverse_ssh,                false},
    {"stopReverseSsh",                       bridge_cmd_stop_reverse_ssh,           false},
    {"getPublicKey",                         bridge_cmd_get_public_key,             false},
    {"getGatewayInfo",                       bridge_cmd_get_gateway_info,           false},
    {"getBackups",                           bridge_cmd_get_backups,                false},
    {"createBackup",                         bridge_cmd_create_backup,              false},
    {"restoreBackup",                        bridge_cmd_restore_backup,             false},
    {"getRadioStatistics",                   bridge_cmd_get_radio_statistics,       false},
    {"resetRadioStatisticsCounters",         bridge_cmd_reset_radio_statistics,     false},
    {"getGpsCoordinates",                    bridge_cmd_get_gps_coordinates,        false},
    {"getSoftwareVersions",                  bridge_cmd_get_software_versions,      false},
    {"getUpgradableSoftware",                bridge_cmd_get_upgradable_software,    false},
    {"getInstallableSoftware",               bridge_cmd_get_installable_software,   false},
    {"upgradeSoftware",                      bridge_cmd_upgrade_software,           false},
    {"installSoftware",                      bridge_cmd_install_software,           false},
    {"getInstallStatus",                     bridge_cmd_get_install_status,         false},
    {"getUpgradeStatus",                     bridge_cmd_get_upgrade_status,         false},
    {"getLastInstallUpgradeStatus",          bridge_cmd_get_last_status,            false},
    {"getBspStatus",                         bridge_cmd_get_bsp_status,             false},
    {"getWmDeviceInformation",               bridge_cmd_wm_device_information,      false},
    {"getWmHomeNetworkBranch",               bridge_cmd_wm_home_network,            false},
    {"getWmRfInformation",                   bridge_cmd_wm_rf_information,          false},
    {"getWmActiveProfileParameters",         bridge_cmd_wm_active_profile,          false},
    {"getWmCallStatistics",                  bridge_cmd_wm_call_statistics,         false},
    {"getWmApns",                            bridge_cmd_get_wm_apns,                false},
    {"addWmApn",                             bridge_cmd_add_wm_apn,                 false},
    {"updateWmApn",                          bridge_cmd_update_wm_apn,              false},
    {"deleteWmApn",                          bridge_cmd_delete_wm_apn,              false},
    {"getWmStatusApn",                       bridge_cmd_get_wm_apn_status,          false},
    {"getWmPDP_Profiles",                    bridge_cmd_get_wm_pdp_profiles,        true},
    {"addWmPDP_Profiles",                    bridge_cmd_add_wm_pdp_profiles,        true},
    {"modifyWmPDP_Profiles",                 bridge_cmd_modify_wm_pdp_profiles,     true},
    {"removeWmPDP_Profiles",                 bridge_cmd_remove_wm_pdp_profiles,     true},
    {"setSpectrumAnalyzerParams",            bridge_cmd_set_spectrum_analyzer,      false},
    {"getSpectrumAnalyzerOutput",            bridge_cmd_get_spectrum_analyzer,      false},
    {"getConnectivityTypes",                 bridge_cmd_get_connectivity_types,     false},
    {"setPreferredFallbackConnectivityType", bridge_cmd_set_connectivity_types,     false},
    {"executeSpectralScan",                  bridge_cmd_execute_spectral_scan,      false},
    {"getAntennasCount",                     bridge_cmd_get_antennas_count,         false},
    {"getSpectralScanProgress",              bridge_cmd_get_scan_progress,          false},
    {"getSpectralScanParams",                bridge_cmd_get_scan_params,            false},
    {"getSpectralScanResults",               bridge_cmd_get_scan_results,           false},
    {"getFirewallConfiguration",             bridge_cmd_get_firewall,               false},
    {"setFirewallConfiguration",             bridge_cmd_set_firewall,               false},
    {"setPreferredPingIpAddress",            bridge_cmd_set_ping_target,            false},
    {"getPreferredPingIpAddress",            bridge_cmd_get_ping_target,            false},
    {"fileUploadStart",                      bridge_cmd_file_upload_start,          false},
    {"fileUploadChunk",                      bridge_cmd_file_upload_chunk,          false},
    {"fileUploadStop",                       bridge_cmd_file_upload_stop,           false},
    {"getWmNetworkInfo",                     bridge_cmd_get_wm_network_info,        false},
    {"setWmPreferredNetwork",                bridge_cmd_set_wm_preferred_network,   false},
    {"fopsScanDir",                          bridge_cmd_scan_dir,                   false},
    {"fopsStreamStart",                      bridge_cmd_stream_start,               true},
    {"fopsStreamStop",                       bridge_cmd_stream_stop,                false},
    {"fopsFetchStart",                       bridge_cmd_fetch_start,                true},
    {"fopsFetchStop",                        bridge_cmd_fetch_stop,                 false},
    {"fopsExecuteStart",                     bridge_cmd_execute_start,              true},
    {"fopsExecuteStop",                      bridge_cmd_execute_stop,               false},
    {"logRetrieveStart",                     bridge_cmd_log_retrieve_start,         false},
    {"logRetrieveStop",                      bridge_cmd_log_retrieve_stop,          false},
    {"getSimStatus",                         bridge_cmd_get_sim_status,             false},
    {"upgradeBspLocal",                      bridge_cmd_upgrade_bsp_local,          true},
    {"getAvailableBspUpgrade",               bridge_cmd_get_available_bsp_upgrade,  false},
    {"getBspStatusString",                   bridge_cmd_get_bsp_status_string,      false},
    {"getCurrentBspVersion",                 bridge_cmd_get_current_bsp_version,    false},
};

/* Paths that exist before any command runs. */
static constexpr const char *DIRECTORIES[] = {
    "/usr/share/snv-mqtt-bridge",
    "/var/log",
    "/var/log/.snv_bridge_bkp",
    "/var/lib/logs",
    "/var/lib/logs/.snv_bridge_bkp",
    "/lib/firmware",
    "/lib/firmware/opkg",
    "/dev/shm/modem_downloads",
    "/usr/share/snv-mqtt-bridge/scripts",
    "/etc/default",
};
/* clang-format on */
static_assert(std::size(commands_table) == 67);
static_assert(std::size(DIRECTORIES) == 10);

/* ---- a request ---- */

/* The parts of a request; they live as long as its root. */
struct cmd_request {
    json_object *root;
    json_object *command;
    json_object *request_id;
    json_object *params;
    json_object *mac;
};

static int read_request(json_object *root, cmd_request *request)
{
    struct required_key {
        const char *key;
        json_object **value;
        const char *missing;
    };
    const required_key keys[] = {
        {"command", &request->command, "command string is missing"},
        {"requestId", &request->request_id, "request ID is missing"},
        {"params", &request->params, "parameters body is missing"},
        {"mac", &request->mac, "mac address is missing"},
    };
    request->root = root;
    for (const required_key &row : keys) {
        if (!json_object_object_get_ex(root, row.key, row.value)) {
            BRIDGE_ERROR("%s", row.missing);
            return -1;
        }
    }
    return 0;
}

static const command_row *find_command(const char *name)
{
    for (const command_row &row : commands_table) {
        if (strcmp(row.command, name) == 0)
            return &row;
    }
    return nullptr;
}

/* The terminator travels with the answer. */
static int publish_answer(const char *topic, json_object *answer)
{
    const char *text = json_object_to_json_string_ext(answer, JSON_C_TO_STRING_PLAIN);
    BRIDGE_DEBUG("publishing to topic: %s response: %s", topic, text);
    return bridge_mqtt_publish(BRIDGE_MQTT_EP_OAM, topic, text, static_cast<uint32_t>(strlen(text)) + 1,
                               false);
}

static void answer_unknown(const char *topic, const char *name, json_object *answer)
{
    BRIDGE_WARN("no handler defined for command: %s", name);
    json_object *error = json_object_new_string("not_supported");
    if (error == nullptr) {
        BRIDGE_ERROR("failed to allocate response status");
        return;
    }
    json_object_object_add(answer, "error", error);
    if (publish_answer(topic, answer) != 0)
        BRIDGE_ERROR("failed to publish status response");
}

/* A reboot that the agent refuses stays pending: it is tried after every later command. */
static void reboot_if_pending(converter_ctx *ctx)
{
    if (!ctx->reboot_pending)
        return;
    BRIDGE_INFO("waiting 5 seconds before executing reboot");
    bridge_wait_s(REBOOT_DELAY_S);
    if (bridge_snmp_set_property(ctx, "lumoReset.0", CMD_TRIGGER, 0) >= 0)
        exit(1);
    BRIDGE_ERROR("cannot set reset flag");
}

static void give_answer(const converter_ctx *ctx, const char *topic, json_object *answer)
{
    if (publish_answer(topic, answer) == 0)
        return;
    BRIDGE_ERROR("failed to publish response");
    BRIDGE_ASSERT(ctx->user_handler);
    ctx->user_handler(CODE_RESTART, ctx->user_handler_arg);
}

/* A child that finds nothing to do has its request answered a second time, without a response. */
static void run_command(converter_ctx *ctx, const char *topic, const command_row &row,
                        const cmd_request &request, json_object *answer)
{
    json_object *response = nullptr;
    row.handler(ctx, row.pass_root ? request.root : request.params, &response);
    if (response != nullptr)
        json_object_object_add(answer, "response", response);
    give_answer(ctx, topic, answer);
    if (cmd_async_returned_early()) {
        json_object_object_del(answer, "response");
        give_answer(ctx, topic, answer);
    }
    reboot_if_pending(ctx);
}

static void process_request(converter_ctx *ctx, const char *topic, const cmd_request &request)
{
    const char *text = json_object_get_string(request.command);
    const char *name = text != nullptr ? text : "null";
    BRIDGE_INFO("command: [%s]", name);
    const json_owned answer(json_object_new_object());
    if (!answer) {
        BRIDGE_ERROR("cannot allocate response object");
        return;
    }
    json_object_object_add(answer.get(), "mac", json_object_get(request.mac));
    json_object_object_add(answer.get(), "requestId", json_object_get(request.request_id));
    const command_row *row = find_command(name);
    if (row != nullptr)
        run_command(ctx, topic, *row, request, answer.get());
    else
        answer_unknown(topic, name, answer.get());
}

void bridge_cmd_worker(converter_ctx *ctx, const char *topic, const char *payload)
{
    cmd_async_collect();
    errno = 0; /* a bad number of the message before must not count against this one */
    const json_owned root(bridge_json_parse(payload));
    if (!root) {
        BRIDGE_ERROR("Failed to parse incoming payload");
        return;
    }
    BRIDGE_TRACE("processing command payload: %s", payload);
    cmd_request request = {};
    if (read_request(root.get(), &request) == 0)
        process_request(ctx, topic, request);
}

/* ---- start and stop ---- */

static int create_directory(const char *path)
{
    if (mkdir(path, DIRECTORY_MODE) == 0)
        return 0;
    if (errno != EEXIST) {
        BRIDGE_ERROR("failed to create dir %s: %m", path);
        return -1;
    }
    struct stat status = {};
    if (stat(path, &status) == 0 && S_ISDIR(status.st_mode)) {
        BRIDGE_TRACE("%s is already created", path);
        return 0;
    }
    BRIDGE_ERROR("path %s is not a dir. mode: %#x", path, static_cast<unsigned>(status.st_mode));
    return -1;
}

static int read_last_software_command(converter_ctx *ctx)
{
    int32_t status = SW_CMD_NONE;
    int64_t req_id = 0;
    const int result = bridge_cmd_state_read(IDX_SW_STATUS, &status, &req_id);
    if (result == -1)
        return result;
    if (result == 0)
        BRIDGE_DEBUG("read install status: %d", status);
    else
        BRIDGE_DEBUG("setting install status to none");
    ctx->last_sw_cmd = status;
    ctx->last_sw_req_id = req_id;
    BRIDGE_INFO("Read last sw cmd: %u, req id: %lld", static_cast<unsigned>(status),
                static_cast<long long>(req_id));
    return 0;
}

int bridge_cmd_launcher(converter_ctx *ctx, const char *)
{
    BRIDGE_ASSERT(ctx);
    for (const char *path : DIRECTORIES) {
        if (create_directory(path) < 0)
            return -1;
    }
    bridge_cmd_clean_log_backups();
    if (bridge_cmd_state_create() < 0)
        return -1;
    int result = bridge_cmd_pipe_start(ctx);
    if (result < 0)
        return result;
    result = read_last_software_command(ctx);
    if (result < 0) {
        bridge_cmd_pipe_stop(ctx); /* its watcher would hold the pool for ever */
        return result;
    }
    if (ctx->last_sw_cmd == SW_CMD_LOCAL_UPGRADE && ctx->last_sw_req_id != 0)
        bridge_cmd_resume_bsp_upgrade(ctx);
    return 0;
}

static int stop_watcher(pid_t watch_pid)
{
    bool running = false;
    int result = bridge_fileops_watch_running(watch_pid, &running);
    if (result >= 0 && running)
        result = bridge_fileops_watch_stop(watch_pid);
    if (result < 0)
        BRIDGE_WARN("failed to stop watch process: [%d]", result);
    return result;
}

/* Of the jobs only a fetch is stopped, by the calls of a stream. */
static int stop_fetch(pid_t fetch_id)
{
    bool running = false;
    int result = bridge_fileops_stream_running(&fileops_root, fetch_id, &running);
    if (result >= 0 && running)
        result = bridge_fileops_stream_stop(&fileops_root, fetch_id);
    if (result < 0)
        BRIDGE_WARN("failed to stop file stream process: [%d]", result);
    return result;
}

int bridge_cmd_stopper(converter_ctx *ctx)
{
    BRIDGE_DEBUG("stopping command services");
    int result = 0;
    const pid_t watch_pid = ctx->watch_pid; /* a command that still runs may give it up meanwhile */
    if (watch_pid > 0 && stop_watcher(watch_pid) < 0)
        result = -1;
    const pid_t fetch_id = ctx->fetch_id;
    if (fetch_id > 0 && stop_fetch(fetch_id) < 0)
        result = -1;
    if (bridge_cmd_pipe_stop(ctx) < 0)
        result = -1;
    return result;
}

void bridge_cmd_forget_jobs(converter_ctx *ctx)
{
    for (const pid_t pid : {ctx->stream_id.load(), ctx->fetch_id.load(), ctx->execute_id.load(),
                            ctx->watch_pid.load(), ctx->ssh_pid.load()}) {
        if (pid > 0)
            cmd_async_forget(pid);
    }
}
