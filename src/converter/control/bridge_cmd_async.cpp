/* Forks of the commands, and the children until they are collected. */
#include "converter/control/bridge_cmd_async.h"

#include "common/bridge_child.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_ctrl_conv.h"
#include "converter/control/bridge_ctrl_ctx.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

/* A silent agent is asked for 18 s. */
static constexpr int PROGRESS_LIMIT_MS = 30000;
static constexpr char RETURNED_EARLY = 'r';

static constexpr cmd_async_texts SLAVE_TEXTS = {
    "failed to start slave process: %m",
    "launched process pid: [%d]",
    "slave process started",
};

/* ---- children that nobody waits for ---- */

/* A place is free when it holds 0. With all of them taken a child stays uncollected until the daemon ends, so
 * nothing new is begun while few are left: all threads of the pool may be about to begin something. */
static std::array<pid_t, 64> unwaited;
static constexpr auto KEPT_FREE = 16;
static std::mutex unwaited_lock;

static bool has_room_for_child()
{
    const std::lock_guard guard(unwaited_lock);
    return std::count(unwaited.begin(), unwaited.end(), 0) > KEPT_FREE;
}

void cmd_async_forget(pid_t pid)
{
    const std::lock_guard guard(unwaited_lock);
    for (pid_t &place : unwaited) {
        if (place == 0) {
            place = pid;
            return;
        }
    }
}

bool cmd_async_collect()
{
    const std::lock_guard guard(unwaited_lock);
    bool left = false;
    for (pid_t &place : unwaited) {
        if (place != 0 && waitpid(place, nullptr, WNOHANG) != 0)
            place = 0;
        left = left || place != 0;
    }
    return left;
}

/* ---- forks ---- */

pid_t cmd_fork(converter_ctx *ctx)
{
    pthread_mutex_lock(&ctx->mutex);
    const pid_t pid = fork();
    if (pid == 0) {
        bridge_ctrl_renew_mutex(ctx);
        return pid;
    }
    const int code = errno;
    pthread_mutex_unlock(&ctx->mutex);
    errno = code;
    return pid;
}

/* The end of the progress pipe: in the parent, of the child that this thread's handler has forked; in the
 * child, its own. Or -1. */
static thread_local int progress = -1;

bool cmd_async_returned_early()
{
    if (progress < 0)
        return false;
    const bridge_fd fd(std::exchange(progress, -1));
    pollfd watched = {.fd = fd.get(), .events = POLLIN, .revents = 0};
    int ready = 0;
    do
        ready = poll(&watched, 1, PROGRESS_LIMIT_MS);
    while (ready < 0 && errno == EINTR);
    char word = 0;
    return ready > 0 && read(fd.get(), &word, sizeof(word)) == sizeof(word) && word == RETURNED_EARLY;
}

void cmd_async_begin()
{
    close(std::exchange(progress, -1));
}

/* The child. It drops all descriptors but the progress pipe, talks to the agent over a session of its own,
 * and leaves the MQTT connection alone: what it answers goes through the pipe, and that it has none to give
 * is for the parent to tell the server. */
[[noreturn]] static void run_job(converter_ctx *ctx, json_object *request, cmd_async_job job, int progress_fd,
                                 const char *started)
{
    bridge_ctrl_close_session(ctx);
    progress = bridge_child_drop_descriptors(progress_fd);
    BRIDGE_INFO("%s", started);
    bridge_ctrl_reopen_session(ctx);
    job(ctx, request);
    (void)!write(progress, &RETURNED_EARLY, sizeof(RETURNED_EARLY));
    exit(0);
}

/* Returns the negated errno value. */
static int report_no_child(const cmd_async_texts &texts)
{
    const int code = errno;
    BRIDGE_INFO(texts.failed, code);
    return -code;
}

static int start_child(converter_ctx *ctx, json_object *request, cmd_async_job job,
                       const cmd_async_texts &texts)
{
    if (!has_room_for_child()) {
        errno = EAGAIN;
        return report_no_child(texts);
    }
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0)
        return report_no_child(texts);
    bridge_fd read_end(ends[0]);
    const bridge_fd write_end(ends[1]);
    const pid_t pid = cmd_fork(ctx);
    if (pid < 0)
        return report_no_child(texts);
    if (pid == 0)
        run_job(ctx, request, job, write_end.get(), texts.started);
    BRIDGE_DEBUG(texts.launched, pid);
    cmd_async_forget(pid);
    progress = read_end.release();
    return 0;
}

void cmd_async_run(converter_ctx *ctx, json_object *request, cmd_async_job job, const cmd_async_texts &texts,
                   json_object **response)
{
    *response = bridge_cmd_status_errno("status", start_child(ctx, request, job, texts));
}

void cmd_async_run(converter_ctx *ctx, json_object *request, cmd_async_job job, json_object **response)
{
    cmd_async_run(ctx, request, job, SLAVE_TEXTS, response);
}
