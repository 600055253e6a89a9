/* Handlers in the order of the command table. */
#include "converter/control/bridge_cmd_files.h"

#include "common/bridge_fileops.h"
#include "common/bridge_fileops_jobs.h"
#include "common/bridge_fileops_watch.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "converter/control/bridge_cmd_async.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_ctrl_ctx.h"

#include <atomic>
#include <cerrno>
#include <iterator>
#include <mutex>
#include <sys/types.h>

static constexpr size_t PATH_SIZE = 4096;
static constexpr size_t TOKEN_SIZE = 256;

/* Copies made for a log retrieval; seconds that they may stay. */
/* clang-format off */
static constexpr bridge_fileops_watch_dir log_backup_dirs[] = {
    {"/var/log/.snv_bridge_bkp",      "*.log", "/var/log/.snv_bridge_bkp.tmst",      60},
    {"/var/lib/logs/.snv_bridge_bkp", "*.gz",  "/var/lib/logs/.snv_bridge_bkp.tmst", 60},
};
/* clang-format on */

/* A new response object, or null after logging. */
static json_object *new_response()
{
    json_object *answer = json_object_new_object();
    if (answer == nullptr)
        BRIDGE_ERROR("can't allocate response object");
    return answer;
}

static int add_frame(json_object *answer, const bridge_json_field &field)
{
    if (bridge_json_serialize(answer, &field, 1) == 0)
        return 0;
    BRIDGE_ERROR("failed to serialize response frame");
    return -EIO;
}

/* ---- directories ---- */

static int scan_dir(json_object *params, json_object *entries, json_object *answer)
{
    char path[PATH_SIZE] = "";
    const bridge_json_field frame[] = {field_string("path", path)};
    if (cmd_parse(params, frame) < 0) {
        BRIDGE_ERROR("failed to de-serialize scandir parameters");
        return -EINVAL;
    }
    const int result = bridge_fileops_scandir_to_existing_json(&fileops_root, path, entries);
    if (result < 0) {
        BRIDGE_ERROR("failed to scan a directory: %d", result);
        return result;
    }
    return add_frame(answer, field_text("path", path));
}

void bridge_cmd_scan_dir(converter_ctx *, json_object *params, json_object **response)
{
    json_owned answer(new_response());
    json_object *entries = json_object_new_array();
    if (!answer || entries == nullptr) {
        json_object_put(entries);
        return;
    }
    json_object_object_add(answer.get(), "entries", entries);
    const int result = scan_dir(params, entries, answer.get());
    errnum_to_existing_json("status", result, answer.get());
    *response = answer.release();
}

/* ---- jobs ---- */

/* What a kind of job is to the commands: where its identifier stands, how it is asked and stopped, and what
 * is said of it. */
struct file_job {
    std::atomic<int32_t> converter_ctx::*slot;
    const char *id_key;
    int (*running)(const bridge_fileops_entry *root, pid_t pid, bool *running);
    int (*stop)(const bridge_fileops_entry *root, pid_t pid);
    const char *still_running;
    const char *not_running;
    const char *invalid_id;
    std::mutex *starting; /* held for a whole start: of two at once the second finds the first's job */
};

static std::mutex stream_starting;
static std::mutex fetch_starting;
static std::mutex execute_starting;

/* clang-format off */
static constexpr file_job STREAM = {
    &converter_ctx::stream_id, "xferId", bridge_fileops_stream_running, bridge_fileops_stream_stop,
    "file streaming is still running", "file streaming is not running, nothing to stop",
    "invalid xfer ID received: %lld", &stream_starting,
};

static constexpr file_job FETCH = {
    &converter_ctx::fetch_id, "xferId", bridge_fileops_fetch_running, bridge_fileops_fetch_stop,
    "file fetching is still running", "file fetching is not running, nothing to stop",
    "invalid xfer ID received: %lld", &fetch_starting,
};

static constexpr file_job EXECUTE = {
    &converter_ctx::execute_id, "exeId", bridge_fileops_execute_running, bridge_fileops_execute_stop,
    "file executing is still running", "file execution is not running, nothing to stop",
    "invalid exe ID received: %lld", &execute_starting,
};
/* clang-format on */

/* Frees the slot of a job that is over. Returns 0, -115 while it runs, or a negative errno. */
static int make_slot_free(converter_ctx *ctx, const file_job &job)
{
    int32_t current = ctx->*job.slot;
    if (current <= 0)
        return 0;
    bool running = false;
    const int result = job.running(&fileops_root, current, &running);
    if (result < 0)
        return result;
    if (running) {
        BRIDGE_ERROR("%s", job.still_running);
        return -EINPROGRESS;
    }
    (ctx->*job.slot).compare_exchange_strong(current, -1);
    return 0;
}

/* Reads the request and starts the job; returns its identifier or a negative errno, after logging why. */
using start_function = int (*)(json_object *request);

static int start_job(converter_ctx *ctx, const file_job &job, start_function start, json_object *request,
                     json_object *answer)
{
    const std::lock_guard guard(*job.starting);
    const int result = make_slot_free(ctx, job);
    if (result < 0)
        return result;
    int64_t id = start(request);
    if (id < 0)
        return static_cast<int>(id);
    ctx->*job.slot = static_cast<int32_t>(id);
    return add_frame(answer, field_int(job.id_key, &id));
}

static void answer_start(converter_ctx *ctx, const file_job &job, start_function start, json_object *request,
                         json_object **response)
{
    json_owned answer(new_response());
    if (!answer)
        return;
    const int result = start_job(ctx, job, start, request, answer.get());
    errnum_to_existing_json("status", result, answer.get());
    *response = answer.release();
}

static int stop_job(converter_ctx *ctx, const file_job &job, json_object *params)
{
    int64_t id = 0;
    const bridge_json_field frame[] = {field_int(job.id_key, &id)};
    if (cmd_parse(params, frame) < 0) {
        BRIDGE_ERROR("failed to de-serialize params");
        return -EINVAL;
    }
    int32_t current = ctx->*job.slot;
    if (current < 0) {
        BRIDGE_ERROR("%s", job.not_running);
        return -ESRCH;
    }
    if (id != current) {
        BRIDGE_ERROR(job.invalid_id, static_cast<long long>(id));
        return -EINVAL;
    }
    const int result = job.stop(&fileops_root, current);
    const pid_t child = current;
    /* Another job may have been started in the meantime. One that takes longer to end than the stop waits is
     * forgotten behind that, as it may then be collected at any time. */
    if ((ctx->*job.slot).compare_exchange_strong(current, -1))
        cmd_async_forget(child);
    return result;
}

static void answer_stop(converter_ctx *ctx, const file_job &job, json_object *params, json_object **response)
{
    json_owned answer(new_response());
    if (!answer)
        return;
    errnum_to_existing_json("status", stop_job(ctx, job, params), answer.get());
    *response = answer.release();
}

/* ---- stream ---- */

static int start_stream(json_object *request)
{
    char req_id[TOKEN_SIZE] = "";
    char url[TOKEN_SIZE] = "";
    char path[PATH_SIZE] = "";
    int64_t offset = 0;
    int64_t size = 0;
    bridge_json_field params[] = {
        field_string("url", url),
        field_string("path", path),
        field_int("offset", &offset),
        field_int("size", &size),
    };
    const bridge_json_field frame[] = {field_string("requestId", req_id), field_object("params", params)};
    if (cmd_parse(request, frame) < 0) {
        BRIDGE_ERROR("failed to de-serialize params");
        return -EINVAL;
    }
    if (offset < 0 || size <= 0) {
        BRIDGE_ERROR("invalid parameters received");
        return -EINVAL;
    }
    const int result =
        bridge_fileops_stream_start(&fileops_root, path, url, offset, static_cast<uint64_t>(size), req_id);
    if (result < 0)
        BRIDGE_ERROR("failed to start streaming");
    return result;
}

void bridge_cmd_stream_start(converter_ctx *ctx, json_object *request, json_object **response)
{
    answer_start(ctx, STREAM, start_stream, request, response);
}

void bridge_cmd_stream_stop(converter_ctx *ctx, json_object *params, json_object **response)
{
    answer_stop(ctx, STREAM, params, response);
}

/* ---- fetch ---- */

static int start_fetch(json_object *request)
{
    char req_id[TOKEN_SIZE] = "";
    char path[PATH_SIZE] = "";
    char url[PATH_SIZE] = "";
    bridge_json_field params[] = {field_string("path", path), field_string("url", url)};
    const bridge_json_field frame[] = {field_string("requestId", req_id), field_object("params", params)};
    if (cmd_parse(request, frame) < 0) {
        BRIDGE_ERROR("failed to de-serialize request");
        return -EINVAL;
    }
    const int result = bridge_fileops_fetch_start(&fileops_root, path, "", url, req_id);
    if (result < 0)
        BRIDGE_ERROR("failed to start fetching");
    return result;
}

void bridge_cmd_fetch_start(converter_ctx *ctx, json_object *request, json_object **response)
{
    answer_start(ctx, FETCH, start_fetch, request, response);
}

void bridge_cmd_fetch_stop(converter_ctx *ctx, json_object *params, json_object **response)
{
    answer_stop(ctx, FETCH, params, response);
}

/* ---- execute ---- */

/* A script that cannot be started is only logged: the negative result is answered as the identifier, beside
 * an "ok" that servers know so. */
static int start_script(converter_ctx *ctx, json_object *request, json_object *answer)
{
    char req_id[TOKEN_SIZE] = "";
    char path[PATH_SIZE] = "";
    char token[TOKEN_SIZE] = "";
    bridge_json_field params[] = {field_string("path", path), field_string("exeToken", token)};
    const bridge_json_field frame[] = {field_string("requestId", req_id), field_object("params", params)};
    if (cmd_parse(request, frame) < 0) {
        BRIDGE_ERROR("failed to de-serialize params");
        return -EINVAL;
    }
    int64_t id = bridge_fileops_execute_start(&fileops_root, path, "logs", token, req_id);
    if (id < 0)
        BRIDGE_ERROR("failed to start script execution");
    ctx->*EXECUTE.slot = static_cast<int32_t>(id);
    return add_frame(answer, field_int(EXECUTE.id_key, &id));
}

void bridge_cmd_execute_start(converter_ctx *ctx, json_object *request, json_object **response)
{
    json_owned answer(new_response());
    if (!answer)
        return;
    const std::lock_guard guard(*EXECUTE.starting);
    int result = make_slot_free(ctx, EXECUTE);
    if (result == 0)
        result = start_script(ctx, request, answer.get());
    errnum_to_existing_json("status", result, answer.get());
    *response = answer.release();
}

void bridge_cmd_execute_stop(converter_ctx *ctx, json_object *params, json_object **response)
{
    answer_stop(ctx, EXECUTE, params, response);
}

/* ---- retrieval of logs ---- */

/* Held for a whole command: of two starts at once the second finds the first's retrieval, not its half-made
 * copies, and no watcher is lost. */
static std::mutex retrieval_lock;

void bridge_cmd_clean_log_backups()
{
    const int cleaned = bridge_fileops_check_clean(log_backup_dirs, std::size(log_backup_dirs));
    if (cleaned < 0)
        BRIDGE_WARN("can't check and clean log backup dirs: [%d]", cleaned);
}

static void empty_backups()
{
    if (bridge_fileops_force_clean(log_backup_dirs, std::size(log_backup_dirs)) < 0)
        BRIDGE_WARN("can't clean log backup directories");
}

static void stop_watch(converter_ctx *ctx)
{
    bool running = false;
    int result = bridge_fileops_watch_running(ctx->watch_pid, &running);
    if (result >= 0 && running)
        result = bridge_fileops_watch_stop(ctx->watch_pid);
    if (result < 0)
        BRIDGE_WARN("unable to stop watch process");
}

static int link_logs(json_object *params)
{
    json_object *files = nullptr;
    json_object_object_get_ex(params, "requiredFiles", &files);
    if (!json_object_is_type(files, json_type_array)) {
        BRIDGE_ERROR("failed to parse incoming parameters");
        return -EINVAL;
    }
    empty_backups();
    int result = bridge_fileops_create_hardlinks_from_json(&fileops_root, files, "logs_bkp");
    for (const bridge_fileops_watch_dir &dir : log_backup_dirs) {
        if (result < 0)
            break;
        result = bridge_fileops_update_tmst(&dir);
    }
    return result < 0 ? result : 0;
}

/* A watcher of the retrieval before is stopped, and then no new one is started: the copies stay until the
 * stop or the next start of the service. */
static int retrieve_logs(converter_ctx *ctx, json_object *params, json_object *answer)
{
    const std::lock_guard guard(retrieval_lock);
    if (ctx->log_retrieval_running) {
        BRIDGE_ERROR("log retrieval is already started");
        return -EINPROGRESS;
    }
    int result = add_frame(answer, field_text("backupDir", "logs_bkp"));
    if (result < 0)
        return result;
    result = link_logs(params);
    if (result < 0)
        return result;
    if (ctx->watch_pid < 1)
        ctx->watch_pid = bridge_fileops_watch_start(log_backup_dirs, std::size(log_backup_dirs));
    else
        stop_watch(ctx);
    ctx->log_retrieval_running = true;
    return 0;
}

void bridge_cmd_log_retrieve_start(converter_ctx *ctx, json_object *params, json_object **response)
{
    BRIDGE_INFO("starting log retrieval");
    json_owned answer(new_response());
    if (!answer)
        return;
    errnum_to_existing_json("status", retrieve_logs(ctx, params, answer.get()), answer.get());
    *response = answer.release();
}

static int end_retrieval(converter_ctx *ctx)
{
    const std::lock_guard guard(retrieval_lock);
    if (!ctx->log_retrieval_running) {
        BRIDGE_ERROR("log retrieval is not running");
        return -EINVAL;
    }
    if (ctx->watch_pid > 0) {
        stop_watch(ctx);
        empty_backups();
        cmd_async_forget(ctx->watch_pid.exchange(-1)); /* as other jobs */
    }
    ctx->log_retrieval_running = false;
    return 0;
}

void bridge_cmd_log_retrieve_stop(converter_ctx *ctx, json_object *, json_object **response)
{
    BRIDGE_INFO("stopping log retrieval");
    json_owned answer(new_response());
    if (!answer)
        return;
    errnum_to_existing_json("status", end_retrieval(ctx), answer.get());
    *response = answer.release();
}
