/* A FIFO held open on both sides by the daemon, so that its reader never sees an end. */
#include "converter/control/bridge_cmd_pipe.h"

#include "common/bridge_async_pipe.h"
#include "common/bridge_config.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "common/bridge_wait.h"
#include "converter/control/bridge_cmd_async.h"
#include "converter/control/bridge_ctrl_ctx.h"
#include "mqtt/bridge_mqtt.h"
#include "thread_pool/thpool.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr const char *RESPONSE_TOPIC = "api/v1/gateway/commands/async_response";
static constexpr size_t READ_SIZE = 4096;
static constexpr mode_t PIPE_MODE = 0600;
static constexpr int COLLECT_MS = 500;
static constexpr int LOOK_MS = 10'000; /* for children that are given up while it waits */
static constexpr uint32_t PUBLISH_LIMIT_MS = 5000;
static constexpr uint32_t PUBLISH_STEP_MS = 10;
static constexpr char WAKE_WORD = 'X';
static constexpr int32_t CODE_RESTART = 1;
static constexpr int32_t CODE_PIPE_LOST = 3;

/* ---- the watcher ---- */

/* The process that has the watcher, and whether that is at work on what it has read: set before each read, so
 * that a pipe found empty with nobody at work has been passed on. */
static std::atomic<pid_t> watching_process;
static std::atomic<bool> watcher_works;

static int publish_answer(converter_ctx *ctx, const char *text, size_t size)
{
    BRIDGE_TRACE("read [%zd] bytes from async pipe: %*s", static_cast<ssize_t>(size), static_cast<int>(size),
                 text);
    if (bridge_mqtt_publish(BRIDGE_MQTT_EP_OAM, RESPONSE_TOPIC, text, static_cast<uint32_t>(size), false) ==
        0)
        return 0;
    BRIDGE_ERROR("failed to send fileops response");
    ctx->user_handler(CODE_RESTART, ctx->user_handler_arg);
    return -1;
}

/* The watcher's own descriptor: the stop closes the other one while a read may be under way here. */
struct pipe_watch {
    converter_ctx *ctx;
    bridge_fd fd;
};

/* Where children are left to collect, the wait looks after them. */
static void wait_for_text(int fd)
{
    pollfd watched = {.fd = fd, .events = POLLIN, .revents = 0};
    watcher_works = false;
    while (poll(&watched, 1, cmd_async_collect() ? COLLECT_MS : LOOK_MS) == 0)
        continue;
    watcher_works = true;
}

/* One read is one message: a longer one goes out in pieces, and two close ones as one. */
static void watch_pipe(void *arg)
{
    const std::unique_ptr<pipe_watch> watch(static_cast<pipe_watch *>(arg));
    converter_ctx *ctx = watch->ctx;
    watching_process = getpid();
    BRIDGE_DEBUG("starting async pipe watch thread");
    for (;;) {
        wait_for_text(watch->fd.get());
        char buffer[READ_SIZE + 1];
        const ssize_t count = read(watch->fd.get(), buffer, READ_SIZE);
        if (!ctx->pipe_watch_thr_running) {
            BRIDGE_DEBUG("stopping pipe watcher thread");
            return;
        }
        if (count < 1) {
            BRIDGE_ERROR("failed to read from the pipe: %m");
            ctx->user_handler(CODE_PIPE_LOST, ctx->user_handler_arg);
            return;
        }
        buffer[count] = '\0';
        if (publish_answer(ctx, buffer, static_cast<size_t>(count)) < 0)
            return;
    }
}

/* ---- start and stop ---- */

static int create_fifo()
{
    if (mkfifo(BRIDGE_ASYNC_PIPE_PATH, PIPE_MODE) == 0)
        return 0;
    if (errno != EEXIST) {
        BRIDGE_ERROR("failed to create pipe for async messages: %m");
        return -1;
    }
    BRIDGE_DEBUG("pipe for async messages exists already");
    return 0;
}

/* Opened for both, so that the open waits for no writer; the reader blocks. */
static int open_fifo()
{
    bridge_fd fd(open(BRIDGE_ASYNC_PIPE_PATH, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (fd.get() < 0) {
        BRIDGE_ERROR("failed to open async pipe: %m");
        return -1;
    }
    BRIDGE_TRACE("async pipe descriptor: [%d]", fd.get());
    const int flags = fcntl(fd.get(), F_GETFL);
    if (flags < 0) {
        BRIDGE_ERROR("failed to get pipe flags: %m");
        return -1;
    }
    if (fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) < 0) {
        BRIDGE_ERROR("failed to set pipe flags: %m");
        return -1;
    }
    return fd.release();
}

static int start_watcher(converter_ctx *ctx, int fd)
{
    std::unique_ptr<pipe_watch> watch(new (std::nothrow)
                                          pipe_watch{ctx, bridge_fd(fcntl(fd, F_DUPFD_CLOEXEC, 0))});
    if (!watch || watch->fd.get() < 0)
        return -1;
    const int result = thpool_add_work(ctx->pool, watch_pipe, watch.get());
    if (result >= 0)
        (void)watch.release();
    return result;
}

int bridge_cmd_pipe_start(converter_ctx *ctx)
{
    BRIDGE_DEBUG("creating async response pipe and threads");
    if (create_fifo() < 0)
        return -1;
    const int fd = open_fifo();
    if (fd < 0)
        return -1;
    const ctx_guard guard(ctx);
    BRIDGE_ASSERT(ctx->fileops_async_pipe < 0);
    BRIDGE_ASSERT(!ctx->pipe_watch_thr_running);
    ctx->pipe_watch_thr_running = true;
    ctx->fileops_async_pipe = fd;
    const int result = start_watcher(ctx, fd);
    if (result < 0) {
        BRIDGE_ERROR("failed to start async response pipe watcher: %d", result);
        ctx->pipe_watch_thr_running = false;
        ctx->fileops_async_pipe = -1;
        close(fd);
    }
    return result;
}

/* A pipe that is full wakes the watcher as well, and without one nobody would ever make room. */
static int wake_watcher(int fd)
{
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0)
        return -1;
    if (write(fd, &WAKE_WORD, sizeof(WAKE_WORD)) < 0 && errno != EAGAIN)
        return -1;
    return 0;
}

int bridge_cmd_pipe_stop(converter_ctx *ctx)
{
    BRIDGE_DEBUG("destroying async response pipe");
    const ctx_guard guard(ctx);
    BRIDGE_TRACE("async response pipe fd: [%d]", ctx->fileops_async_pipe);
    int result = 0;
    if (!ctx->pipe_watch_thr_running.exchange(false)) {
        BRIDGE_ERROR("can't stop pipe watch thread: already stopped");
        result = -1;
    }
    if (ctx->fileops_async_pipe < 0) {
        BRIDGE_ERROR("can't close fileops pipe: invalid descriptor");
        return -1;
    }
    if (wake_watcher(ctx->fileops_async_pipe) < 0)
        result = -1;
    close(ctx->fileops_async_pipe);
    return result;
}

/* ---- answers of children ---- */

static int send_response(json_owned response, int64_t req_id)
{
    const json_owned message(json_object_new_object());
    if (!message) {
        BRIDGE_ERROR("failed to allocate async response");
        return -1;
    }
    bridge_json_field frame[] = {
        field_text("mac", bridge_config_get_root_checked()->generic.gw_mac),
        field_int("requestId", &req_id),
    };
    const int rc = bridge_json_serialize(message.get(), frame, std::size(frame));
    BRIDGE_ASSERT(rc == 0);
    json_object_object_add(message.get(), "response", response.release());
    const char *str = json_object_to_json_string_ext(message.get(), JSON_C_TO_STRING_PLAIN);
    BRIDGE_ASSERT_TEXT(str != nullptr, "str != NULL");
    return bridge_async_pipe_send(str);
}

static bool is_passed_on(int fd)
{
    int waiting = 0;
    return ioctl(fd, FIONREAD, &waiting) < 0 || (waiting == 0 && !watcher_works);
}

/* The daemon itself, which ends with its answer, must not end before its watcher has passed that on. */
static void wait_for_watcher()
{
    const bridge_fd fd(open(BRIDGE_ASYNC_PIPE_PATH, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    for (uint32_t waited = 0; waited < PUBLISH_LIMIT_MS && !is_passed_on(fd.get()); waited += PUBLISH_STEP_MS)
        bridge_wait_ms(PUBLISH_STEP_MS);
}

void bridge_cmd_async_respond(json_object *response, int64_t req_id)
{
    if (send_response(json_owned(response), req_id) == 0) {
        if (watching_process == getpid())
            wait_for_watcher();
        BRIDGE_DEBUG("response handler done");
        exit(0);
    }
    BRIDGE_ERROR("failed to prepare and send async response");
    exit(1);
}
