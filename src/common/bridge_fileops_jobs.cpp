/* Starting a job, its child, and the questions after it. */
#include "common/bridge_fileops_jobs.h"

#include "common/bridge_async_pipe.h"
#include "common/bridge_child.h"
#include "common/bridge_config.h"
#include "common/bridge_fileops.h"
#include "common/bridge_fileops_curl.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "common/bridge_wait.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

static constexpr uint32_t STOP_WAIT_S = 3;
static constexpr mode_t SCRIPT_MODE = 0755;
static constexpr mode_t LOG_MODE = 0664;

using text_owned = std::unique_ptr<char, bridge_release<free>>;

/* ---- answers ---- */

static int fill_answer(json_object *answer, const char *filepath, const char *req_id, bool is_execute,
                       int result)
{
    json_object *inner = json_object_new_object();
    if (inner == nullptr) {
        BRIDGE_ERROR("failed to allocate async inner response");
        return -1;
    }
    json_owned response(inner);
    int64_t id = getpid();
    const bridge_json_field inner_frame[] = {
        field_text("filepath", filepath),
        field_int(is_execute ? "exeId" : "xferId", &id),
    };
    int rc = bridge_json_serialize(inner, inner_frame, std::size(inner_frame));
    BRIDGE_ASSERT(rc == 0);
    const bridge_json_field frame[] = {
        field_text("requestId", req_id),
        field_text("mac", bridge_config_get_root_checked()->generic.gw_mac),
    };
    rc = bridge_json_serialize(answer, frame, std::size(frame));
    BRIDGE_ASSERT(rc == 0);
    if (errnum_to_existing_json("status", result, inner) < 0)
        return -1;
    return json_object_object_add(answer, "response", response.release());
}

static int send_answer(const char *filepath, const char *req_id, bool is_execute, int result)
{
    const json_owned answer(json_object_new_object());
    if (!answer) {
        BRIDGE_ERROR("failed to allocate async response");
        return -1;
    }
    if (fill_answer(answer.get(), filepath, req_id, is_execute, result) < 0)
        return -1;
    const char *str = json_object_to_json_string_ext(answer.get(), JSON_C_TO_STRING_PLAIN);
    BRIDGE_ASSERT_TEXT(str != nullptr, "str != NULL");
    return bridge_async_pipe_send(str);
}

[[noreturn]] static void bridge_fileops_send_async_response(const char *filepath, const char *req_id,
                                                            bool is_execute, int result)
{
    if (send_answer(filepath, req_id, is_execute, result) < 0) {
        BRIDGE_ERROR("failed to prepare and send async response");
        exit(1);
    }
    BRIDGE_DEBUG("response handler done");
    exit(0);
}

/* ---- start ---- */

struct job_target {
    const bridge_fileops_entry *entry;
    text_owned real_path;
};

/* Returns 0 or a negative errno after logging why. `refused` tells that the row lacks the right. */
static int find_target(const bridge_fileops_entry *root, const char *filepath, uint32_t right,
                       const char *refused, job_target *target)
{
    target->entry = bridge_fileops_find_file(root, filepath);
    if (target->entry == nullptr) {
        BRIDGE_ERROR("failed to get file entry for: %s", filepath);
        return -ENOENT;
    }
    char *real_path = nullptr;
    const int result = bridge_fileops_real_path(target->entry, filepath, &real_path);
    if (result < 0)
        return result;
    target->real_path.reset(real_path);
    if ((target->entry->access & right) == 0) {
        BRIDGE_ERROR(refused, filepath);
        return -EACCES;
    }
    return 0;
}

/* As fork, after logging. The child drops the daemon's descriptors. */
static pid_t fork_job()
{
    const pid_t pid = fork();
    if (pid < 0) {
        const int code = errno;
        BRIDGE_INFO("failed to start slave process: %m");
        return -code;
    }
    if (pid == 0) {
        bridge_child_drop_descriptors();
        BRIDGE_INFO("slave process started");
        return 0;
    }
    BRIDGE_DEBUG("launched process pid: [%d]", pid);
    return pid;
}

int bridge_fileops_stream_start(const bridge_fileops_entry *root, const char *filepath,
                                const char *token_or_url, off_t offt, uint64_t sz, const char *req_id)
{
    BRIDGE_ASSERT(root);
    BRIDGE_ASSERT(filepath);
    BRIDGE_ASSERT(token_or_url);
    BRIDGE_ASSERT(sz > 0);
    BRIDGE_ASSERT(offt >= 0);
    BRIDGE_ASSERT(req_id);
    job_target target = {};
    const int result = find_target(root, filepath, BRIDGE_FILEOPS_READ,
                                   "insufficient permissions to read a file: %s", &target);
    if (result < 0)
        return result;
    const pid_t pid = fork_job();
    if (pid != 0)
        return pid;
    const bridge_fileops_upload upload = {
        .real_path = target.real_path.get(),
        .virtual_path = filepath,
        .tmst_path = target.entry->tmst_path,
        .url = token_or_url,
        .offset = offt,
        .size = sz,
    };
    bridge_fileops_send_async_response(filepath, req_id, false, bridge_fileops_curl_upload(&upload));
}

int bridge_fileops_fetch_start(const bridge_fileops_entry *root, const char *filepath, const char *token,
                               const char *url, const char *req_id)
{
    BRIDGE_ASSERT(root);
    BRIDGE_ASSERT(filepath);
    BRIDGE_ASSERT(token);
    BRIDGE_ASSERT(url);
    BRIDGE_ASSERT(req_id);
    job_target target = {};
    const int result = find_target(root, filepath, BRIDGE_FILEOPS_WRITE,
                                   "insufficient permissions to write a file: %s", &target);
    if (result < 0)
        return result;
    const pid_t pid = fork_job();
    if (pid != 0)
        return pid;
    bridge_fileops_send_async_response(filepath, req_id, false,
                                       bridge_fileops_curl_download(url, target.real_path.get()));
}

/* ---- scripts ---- */

/* The grandchild: its output goes into the log file, and it ends with the job. */
[[noreturn]] static void exec_script(const char *real_path, int log_fd, pid_t job)
{
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != job)
        _Exit(127);
    dup2(log_fd, STDOUT_FILENO);
    dup2(log_fd, STDERR_FILENO);
    signal(SIGPIPE, SIG_DFL); /* the MQTT library has it ignored, and a program inherits that */
    execl(real_path, real_path, nullptr);
    BRIDGE_ERROR("execute: exec() failed: %m");
    _Exit(127);
}

/* Returns the exit code, negated, or the raw wait status of a script that a signal has ended. */
static int bridge_fileops_run_script(const char *real_path, int log_fd)
{
    struct stat status_of_script = {};
    if (lstat(real_path, &status_of_script) == 0 && S_ISLNK(status_of_script.st_mode)) {
        BRIDGE_ERROR("%s is a link", real_path); /* it may lead to any program */
        return -ELOOP;
    }
    if (chmod(real_path, SCRIPT_MODE) < 0)
        BRIDGE_ERROR("unable to set permissions for %s: %m", real_path);
    const pid_t job = getpid();
    const pid_t pid = fork();
    if (pid < 0) {
        const int code = errno;
        BRIDGE_INFO("failed to start script process: %m");
        return -code;
    }
    if (pid == 0)
        exec_script(real_path, log_fd, job);
    BRIDGE_DEBUG("launched script process pid: [%d]", pid);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR)
        continue;
    BRIDGE_DEBUG("script return code: [%d]", status);
    return WIFSIGNALED(status) ? status : -WEXITSTATUS(status);
}

/* The virtual path of a script's new log: named by the time and the script. Ends the process when a part of
 * it is too long. */
static void name_log(const char *logdir, const char *script, char *path, size_t capacity)
{
    char name[255];
    const int length = snprintf(name, sizeof(name), "%ld-%s.txt", static_cast<long>(time(nullptr)), script);
    const bool name_fits = length > 0 && static_cast<size_t>(length) < sizeof(name);
    const int path_length = snprintf(path, capacity, "%s/%s", logdir, name);
    const bool path_fits = path_length > 0 && static_cast<size_t>(path_length) < capacity;
    if (!name_fits || !path_fits)
        BRIDGE_ERROR("failed to prepare log file name");
    BRIDGE_ASSERT(name_fits);
    BRIDGE_ASSERT(path_fits);
}

/* Returns the descriptor of the new log, or a negative errno. */
static int open_log(const bridge_fileops_entry *root, const char *filepath, const char *logdir)
{
    const text_owned script(bridge_fileops_last_segment(filepath));
    if (!script) {
        BRIDGE_ERROR("failed to extract last segment from path: %s", filepath);
        return -EINVAL;
    }
    char log_path[4096];
    name_log(logdir, script.get(), log_path, sizeof(log_path));
    const bridge_fileops_entry *entry = bridge_fileops_find_file(root, log_path);
    if (entry == nullptr) {
        BRIDGE_ERROR("failed to get file entry for: %s", log_path);
        return -ENOENT;
    }
    if (entry->type != BRIDGE_FILEOPS_GLOB)
        BRIDGE_ERROR("unexpected entry type [%d] for: %s", static_cast<int>(entry->type), log_path);
    BRIDGE_ASSERT(entry->type == BRIDGE_FILEOPS_GLOB);
    char *real_path = nullptr;
    const int result = bridge_fileops_real_path(entry, log_path, &real_path);
    if (result < 0)
        return result;
    const text_owned owned(real_path);
    const int fd = open(real_path, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, LOG_MODE);
    if (fd < 0) {
        const int code = errno;
        BRIDGE_ERROR("failed open log file %s: %m", real_path);
        return -code;
    }
    return fd;
}

int bridge_fileops_execute_start(const bridge_fileops_entry *root, const char *filepath, const char *logdir,
                                 const char *token, const char *req_id)
{
    BRIDGE_ASSERT(root);
    BRIDGE_ASSERT(filepath);
    BRIDGE_ASSERT(logdir);
    BRIDGE_ASSERT(token);
    BRIDGE_ASSERT(req_id);
    job_target target = {};
    int result = find_target(root, filepath, BRIDGE_FILEOPS_EXECUTE,
                             "insufficient permissions to execute a file: %s", &target);
    if (result < 0)
        return result;
    const pid_t pid = fork_job();
    if (pid != 0)
        return pid;
    const int log_fd = open_log(root, filepath, logdir);
    result = log_fd < 0 ? log_fd : bridge_fileops_run_script(target.real_path.get(), log_fd);
    bridge_fileops_send_async_response(filepath, req_id, true, result);
}

/* ---- questions ---- */

/* What the log says of one kind of job. */
struct job_words {
    const char *query_failed;
    const char *not_running;
};

static constexpr job_words STREAM_WORDS = {"failed to query stream process [%d] status: %m",
                                           "file streaming is not running anymore"};
static constexpr job_words FETCH_WORDS = {"failed to query fetch process [%d] status: %m",
                                          "file fetching is not running anymore"};
static constexpr job_words EXECUTE_WORDS = {"failed to query execution process [%d] status: %m",
                                            "file execution is not running anymore"};

static void log_end(pid_t pid, int status)
{
    BRIDGE_TRACE("process is finished");
    if (WIFSIGNALED(status))
        BRIDGE_WARN("process [%d] was ended by signal %d", pid, WTERMSIG(status));
}

static int ask_running(const job_words &words, pid_t pid, bool *running)
{
    BRIDGE_TRACE("check running: [%ld]", static_cast<long>(pid));
    int status = 0;
    const pid_t result = waitpid(pid, &status, WNOHANG);
    if (result < 0) {
        const int code = errno;
        BRIDGE_ERROR(words.query_failed, pid);
        return -code;
    }
    *running = result == 0;
    if (*running)
        BRIDGE_TRACE("process is still running");
    else
        log_end(pid, status);
    return 0;
}

static int stop_job(const job_words &words, pid_t pid)
{
    bool running = false;
    const int result = ask_running(words, pid, &running);
    if (result < 0)
        return result;
    if (!running) {
        BRIDGE_DEBUG("%s", words.not_running);
        return 0;
    }
    if (kill(pid, SIGTERM) < 0) {
        const int code = errno;
        BRIDGE_ERROR("termination of process [%d] fails: %m", pid);
        return -code;
    }
    bridge_wait_s(STOP_WAIT_S);
    waitpid(pid, nullptr, WNOHANG);
    return 0;
}

int bridge_fileops_stream_running(const bridge_fileops_entry *, pid_t stream_pid, bool *running)
{
    BRIDGE_ASSERT(stream_pid > 0);
    BRIDGE_ASSERT(running);
    return ask_running(STREAM_WORDS, stream_pid, running);
}

int bridge_fileops_fetch_running(const bridge_fileops_entry *, pid_t fetch_pid, bool *running)
{
    BRIDGE_ASSERT_TEXT(fetch_pid > 0, "stream_pid > 0");
    BRIDGE_ASSERT(running);
    return ask_running(FETCH_WORDS, fetch_pid, running);
}

int bridge_fileops_execute_running(const bridge_fileops_entry *, pid_t execute_pid, bool *running)
{
    BRIDGE_ASSERT_TEXT(execute_pid > 0, "stream_pid > 0");
    BRIDGE_ASSERT(running);
    return ask_running(EXECUTE_WORDS, execute_pid, running);
}

int bridge_fileops_stream_stop(const bridge_fileops_entry *, pid_t stream_pid)
{
    BRIDGE_ASSERT(stream_pid > 0);
    return stop_job(STREAM_WORDS, stream_pid);
}

int bridge_fileops_fetch_stop(const bridge_fileops_entry *, pid_t fetch_pid)
{
    BRIDGE_ASSERT_TEXT(fetch_pid > 0, "stream_pid > 0");
    return stop_job(FETCH_WORDS, fetch_pid);
}

int bridge_fileops_execute_stop(const bridge_fileops_entry *, pid_t execute_pid)
{
    BRIDGE_ASSERT_TEXT(execute_pid > 0, "stream_pid > 0");
    return stop_job(EXECUTE_WORDS, execute_pid);
}
