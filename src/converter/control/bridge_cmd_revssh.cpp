/* The tunnel's session and data paths, then the two handlers. */
#include "converter/control/bridge_cmd_revssh.h"

#include "common/bridge_child.h"
#include "common/bridge_config.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "common/bridge_wait.h"
#include "converter/control/bridge_cmd_async.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_ctrl_ctx.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <libssh/callbacks.h>
#include <libssh/libssh.h>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <span>
#include <sys/socket.h>
#include <sys/wait.h>

static constexpr int SSH_VERBOSITY = 2;
static constexpr int MAX_PORT = 65535;
static constexpr int POLL_MS = 1000;
static constexpr int BACKLOG_POLL_MS = 5;
static constexpr int KEEPALIVE_S = 60; /* so long a silence, then so long between the questions */
static constexpr short LOCAL_EVENTS = POLLIN | POLLPRI | POLLERR | POLLHUP | POLLNVAL;
static_assert(LOCAL_EVENTS == 0x3B);

static constexpr size_t READ_SIZE = 2048;
static constexpr size_t MESSAGE_SIZE = 15 * READ_SIZE; /* what one packet takes */

using session_owned = std::unique_ptr<ssh_session_struct, bridge_release<ssh_free>>;
using channel_owned = std::unique_ptr<ssh_channel_struct, bridge_release<ssh_channel_free>>;
using event_owned = std::unique_ptr<ssh_event_struct, bridge_release<ssh_event_free>>;

/* ---- from the channel to the gateway's port ---- */

/* The gateway's end of a connection. While it takes less than the server sends, the rest stays in the
 * library, whose window then holds the server back. It is watched while the server takes more. */
struct local_end {
    int fd;
    bool is_behind;
    bool is_watched;
};

/* Returns how much the socket took without waiting: waiting here would stop the other direction too, and a
 * program that answers while it reads would then never read on. */
static int on_channel_data(ssh_session, ssh_channel, void *data, uint32_t len, int, void *userdata)
{
    auto *local = static_cast<local_end *>(userdata);
    const ssize_t written = send(local->fd, data, len, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (written < 0 && errno != EAGAIN) {
        BRIDGE_ERROR("ssh: failed to write to socket: %m");
        return static_cast<int>(written);
    }
    const auto taken = static_cast<uint32_t>(std::max<ssize_t>(written, 0));
    local->is_behind = taken < len;
    return static_cast<int>(taken);
}

static bool is_writable(int fd)
{
    pollfd socket = {.fd = fd, .events = POLLOUT, .revents = 0};
    return poll(&socket, 1, 0) > 0 && (socket.revents & POLLOUT) != 0;
}

/* The library offers what was left only together with new data, of which there may be none. A writable socket
 * has room for a piece, so that this does not wait. */
static void catch_up(ssh_channel channel, local_end *local)
{
    while (local->is_behind && is_writable(local->fd)) {
        char piece[READ_SIZE];
        local->is_behind = false; /* the read may call on_channel_data */
        const int count = ssh_channel_read_nonblocking(channel, piece, sizeof(piece), 0);
        if (count <= 0)
            return;
        local->is_behind = true;
        if (send(local->fd, piece, static_cast<size_t>(count), MSG_NOSIGNAL) < 0) {
            BRIDGE_ERROR("ssh: failed to write to socket: %m");
            local->is_behind = false; /* on_local_event closes, behind what is still to be read */
            return;
        }
    }
}

/* ---- from the gateway's port to the channel ---- */

/* Reads what waits. Returns the size, or the result of the first read when that gives nothing. */
static ssize_t read_waiting(int fd, std::span<char> message)
{
    size_t size = 0;
    while (size < message.size()) {
        const size_t wanted = std::min(READ_SIZE, message.size() - size);
        const ssize_t count = recv(fd, message.data() + size, wanted, MSG_DONTWAIT);
        if (count <= 0)
            return size > 0 ? static_cast<ssize_t>(size) : count;
        size += static_cast<size_t>(count);
        if (static_cast<size_t>(count) < wanted)
            break;
    }
    return static_cast<ssize_t>(size);
}

/* Several reads go into one packet: a packet for each costs more than half of the speed. Returns as
 * read_waiting. What the channel does not take has no receiver any more: it has ended, and the poll loop
 * finds that out. */
static ssize_t forward_waiting(int fd, ssh_channel channel, size_t limit)
{
    std::array<char, MESSAGE_SIZE> message;
    const ssize_t count = read_waiting(fd, std::span(message).first(std::min(limit, message.size())));
    if (count > 0)
        ssh_channel_write(channel, message.data(), static_cast<uint32_t>(count));
    return count;
}

/* Returns the count forwarded, or -1 when the socket has ended. */
static int forward(int fd, int events, ssh_channel channel)
{
    /* Not more than the server takes now: a wait for the rest would stop the other direction. */
    const uint32_t limit = ssh_channel_window_size(channel);
    if (limit == 0)
        return 0;
    ssize_t count = 0;
    if ((events & POLLIN) != 0) {
        count = forward_waiting(fd, channel, limit);
        if (count < 0 && errno == EAGAIN)
            return 0;
        if (count < 0) {
            BRIDGE_ERROR("ssh: failed to read from socket: %m");
            return -1;
        }
        if (count == 0) {
            BRIDGE_WARN("ssh: eof on socket");
            return -1;
        }
    }
    if ((events & POLLHUP) != 0) {
        while (count > 0) /* what was sent before the hang-up is still there */
            count = forward_waiting(fd, channel, MESSAGE_SIZE);
        BRIDGE_WARN("ssh: server disconnected");
        return -1;
    }
    return static_cast<int>(count);
}

/* While the library waits to send, it reports a hang-up of the very socket whose bytes wait, at once and
 * again and again. */
static bool is_forwarding;

static int on_local_event(int fd, int events, void *userdata)
{
    if (is_forwarding) {
        bridge_wait_ms(1);
        return 0;
    }
    auto *channel = static_cast<ssh_channel>(userdata);
    is_forwarding = true;
    int result = -1;
    if (channel != nullptr && !ssh_channel_is_closed(channel))
        result = forward(fd, events, channel);
    if (result < 0)
        ssh_channel_close(channel);
    is_forwarding = false;
    return result;
}

/* ---- a connection ---- */

/* Returns the socket, or the negated errno value. */
static int connect_local(int port)
{
    bridge_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) {
        const int code = errno;
        BRIDGE_ERROR("ssh: failed to allocate socket: %m");
        return -code;
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) < 0) {
        const int code = errno;
        BRIDGE_ERROR("ssh: failed to connect to local SSH port %d: %m", port);
        return -code;
    }
    const int on = 1;
    setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    return fd.release();
}

static int watch_local(ssh_event event, ssh_channel channel, local_end *local, bool wanted)
{
    if (local->is_watched == wanted)
        return 0;
    local->is_watched = wanted;
    if (!wanted) {
        ssh_event_remove_fd(event, local->fd);
        return 0;
    }
    if (ssh_event_add_fd(event, local->fd, LOCAL_EVENTS, on_local_event, channel) != SSH_OK) {
        BRIDGE_ERROR("ssh: can't add fd to event");
        return -EIO;
    }
    return 0;
}

static void poll_connection(ssh_session session, ssh_event event, ssh_channel channel, local_end *local)
{
    do {
        if (ssh_event_dopoll(event, local->is_behind ? BACKLOG_POLL_MS : POLL_MS) == SSH_ERROR) {
            BRIDGE_DEBUG("ssh: dopoll() received exception [%d]:%s, stopping reverse SSH",
                         ssh_get_error_code(session), ssh_get_error(session));
            break;
        }
        catch_up(channel, local);
        if (watch_local(event, channel, local, ssh_channel_window_size(channel) > 0) < 0)
            break;
    } while (!ssh_channel_is_closed(channel) && !ssh_channel_is_eof(channel));
    BRIDGE_INFO("reverse SSH session closed, waiting for new connection...");
}

/* Joins the channel, of which it is the owner, to the local port until one of the two has ended. Returns 0,
 * or a negative error when they could not be joined. */
static int serve_connection(ssh_session session, ssh_channel accepted, int local_port)
{
    const channel_owned channel(accepted);
    const bridge_fd socket(connect_local(local_port));
    if (socket.get() < 0)
        return socket.get();
    const event_owned event(ssh_event_new());
    if (!event) {
        BRIDGE_ERROR("ssh: failed to allocate event object");
        return -ENOMEM;
    }
    local_end local = {.fd = socket.get(), .is_behind = false, .is_watched = false};
    ssh_channel_callbacks_struct callbacks = {};
    callbacks.userdata = &local;
    callbacks.channel_data_function = on_channel_data;
    ssh_callbacks_init(&callbacks);
    if (ssh_set_channel_callbacks(channel.get(), &callbacks) != SSH_OK) {
        BRIDGE_ERROR("ssh: error set cb: %s\n", ssh_get_error(session));
        return -EIO;
    }
    int result = watch_local(event.get(), channel.get(), &local, true);
    if (result == 0 && ssh_event_add_session(event.get(), session) != SSH_OK) {
        BRIDGE_ERROR("ssh: can't add session to event");
        result = -EIO;
    }
    if (result == 0)
        poll_connection(session, event.get(), channel.get(), &local);
    watch_local(event.get(), channel.get(), &local, false);
    /* A channel that the server has not closed yet outlives this call, and may still get data. */
    ssh_remove_channel_callbacks(channel.get(), &callbacks);
    return result;
}

/* ---- the session ---- */

/* A connection that has been asked for, or null. The library would tell of each look that finds none. */
static ssh_channel take_connection(ssh_session session)
{
    ssh_set_log_level(SSH_LOG_NOLOG);
    ssh_channel channel = ssh_channel_open_forward_port(session, 0, nullptr, nullptr, nullptr);
    ssh_set_log_level(SSH_VERBOSITY);
    return channel;
}

/* The library's own wait looks twenty times a second and takes a few kilobytes at each, so that what was
 * under way for the connection before would hold up the next; nor does it end when the server has gone. */
static ssh_channel accept_connection(ssh_session session)
{
    using std::chrono::milliseconds, std::chrono::seconds, std::chrono::steady_clock;
    const event_owned event(ssh_event_new());
    if (!event || ssh_event_add_session(event.get(), session) != SSH_OK)
        return nullptr;
    const auto end = steady_clock::now() + seconds(bridge_config_get_root_checked()->rev_ssh.timeout);
    for (;;) {
        ssh_channel channel = take_connection(session);
        const int64_t left = std::chrono::ceil<milliseconds>(end - steady_clock::now()).count();
        if (channel != nullptr || left <= 0)
            return channel;
        if (ssh_event_dopoll(event.get(), static_cast<int>(std::min<int64_t>(left, INT_MAX))) == SSH_ERROR)
            return nullptr;
    }
}

/* One after the other. Returns the error that ends them. */
static int serve_connections(ssh_session session, int local_port)
{
    for (;;) {
        ssh_channel channel = accept_connection(session);
        if (channel == nullptr) {
            BRIDGE_ERROR("ssh: error waiting for incoming connection: %s", ssh_get_error(session));
            return -EIO;
        }
        const int result = serve_connection(session, channel, local_port);
        if (result < 0)
            return result;
    }
}

/* A server that vanishes without a word would be waited for for ever. Errors leave the system's defaults. */
static void keep_alive(int socket)
{
    const int on = 1;
    const int seconds = KEEPALIVE_S;
    setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
    setsockopt(socket, IPPROTO_TCP, TCP_KEEPIDLE, &seconds, sizeof(seconds));
    setsockopt(socket, IPPROTO_TCP, TCP_KEEPINTVL, &seconds, sizeof(seconds));
}

/* The library cuts a greater number down to a port that nobody has asked for; -1 it refuses. */
static int as_port(int64_t number)
{
    return number >= 0 && number <= MAX_PORT ? static_cast<int>(number) : -1;
}

static int log_in(ssh_session session, const char *host, const char *user, const char *password,
                  int64_t ssh_port)
{
    const int verbosity = SSH_VERBOSITY;
    const int port = as_port(ssh_port);
    const int on = 1;
    const bool reads_files = false; /* nobody has set one up for a tunnel, and one could run programs */
    ssh_options_set(session, SSH_OPTIONS_PROCESS_CONFIG, &reads_files);
    ssh_options_set(session, SSH_OPTIONS_HOST, host);
    ssh_options_set(session, SSH_OPTIONS_LOG_VERBOSITY, &verbosity);
    ssh_options_set(session, SSH_OPTIONS_USER, user);
    ssh_options_set(session, SSH_OPTIONS_NODELAY, &on);
    if (ssh_options_set(session, SSH_OPTIONS_PORT, &port) != SSH_OK || ssh_connect(session) != SSH_OK) {
        BRIDGE_ERROR("ssh: error connecting to %s:%lld: %s", host, static_cast<long long>(ssh_port),
                     ssh_get_error(session));
        return -EIO;
    }
    keep_alive(ssh_get_fd(session));
    /* Whose server it is nobody checks: a gateway knows no keys of servers. */
    if (ssh_userauth_password(session, user, password) != SSH_AUTH_SUCCESS) {
        BRIDGE_ERROR("ssh: error authenticating with password: %s", ssh_get_error(session));
        ssh_disconnect(session);
        return -EIO;
    }
    BRIDGE_DEBUG("ssh: connection established");
    return 0;
}

static int run_session(ssh_session session, const char *host, const char *user, const char *password,
                       int local_port, int64_t ssh_port, int64_t reverse_port)
{
    const int result = log_in(session, host, user, password, ssh_port);
    if (result < 0)
        return result;
    if (ssh_channel_listen_forward(session, nullptr, as_port(reverse_port), nullptr) != SSH_OK) {
        BRIDGE_ERROR("ssh: Error opening remote port: %s", ssh_get_error(session));
        return -EIO;
    }
    return serve_connections(session, local_port);
}

int bridge_cmd_reverse_ssh_session(const char *host, const char *user, const char *password, int local_port,
                                   int64_t ssh_port, int64_t reverse_port)
{
    BRIDGE_DEBUG("ssh: starting reverse session");
    session_owned session(ssh_new());
    if (!session) {
        BRIDGE_ERROR("ssh: failed to allocate session");
        return -ENOMEM;
    }
    const int result = run_session(session.get(), host, user, password, local_port, ssh_port, reverse_port);
    session.reset();
    BRIDGE_INFO("ssh: reverse session ended");
    return result;
}

/* ---- the handlers ---- */

static constexpr size_t TEXT_SIZE = 256;

struct tunnel_params {
    char username[TEXT_SIZE];
    char password[TEXT_SIZE];
    char host[TEXT_SIZE];
    int64_t reverse_port;
    int64_t ssh_port;
};

static int read_params(json_object *params, tunnel_params *tunnel)
{
    bridge_json_field frame[] = {
        field_string("username", tunnel->username), field_string("password", tunnel->password),
        field_string("sshHost", tunnel->host),      field_int("sshRevPort", &tunnel->reverse_port),
        field_int("sshPort", &tunnel->ssh_port),
    };
    if (cmd_parse(params, frame) < 0) {
        BRIDGE_ERROR("failed to deserialize parameters");
        return -EINVAL;
    }
    return 0;
}

/* Under the context mutex. Returns 0 when no tunnel runs, or the negated errno value. A child that has ended
 * is forgotten here: its number may soon be another's. */
static int check_no_tunnel(converter_ctx *ctx)
{
    const pid_t child = ctx->ssh_pid;
    if (child <= 0)
        return 0;
    const pid_t ended = waitpid(child, nullptr, WNOHANG);
    if (ended < 0) {
        const int code = errno;
        BRIDGE_ERROR("failed to query ssh process [%d]: %m", child);
        return -code;
    }
    if (ended == 0) {
        BRIDGE_ERROR("reverse ssh process is still running");
        return -EINPROGRESS;
    }
    BRIDGE_DEBUG("reverse ssh process [%d] is no longer running", child);
    ctx->ssh_pid = -1;
    return 0;
}

/* The child. A tunnel may outlive the daemon, for whose next run the daemon's ports must be free. */
[[noreturn]] static void run_tunnel(const tunnel_params &tunnel)
{
    bridge_child_drop_descriptors();
    BRIDGE_INFO("revssh: starting client");
    const auto local_port = static_cast<int>(bridge_config_get_root_checked()->rev_ssh.local_port);
    bridge_cmd_reverse_ssh_session(tunnel.host, tunnel.username, tunnel.password, local_port, tunnel.ssh_port,
                                   tunnel.reverse_port);
    exit(0);
}

static int start_tunnel(converter_ctx *ctx, const tunnel_params &tunnel)
{
    const ctx_guard guard(ctx);
    const int result = check_no_tunnel(ctx);
    if (result < 0)
        return result;
    const pid_t child = cmd_fork(ctx);
    if (child < 0) {
        const int code = errno;
        BRIDGE_ERROR("failed to start reverse SSH process: %m");
        return -code;
    }
    if (child == 0)
        run_tunnel(tunnel);
    BRIDGE_DEBUG("ssh child process started: %d", child);
    ctx->ssh_pid = child;
    return 0;
}

void bridge_cmd_reverse_ssh(converter_ctx *ctx, json_object *params, json_object **response)
{
    json_owned answer(json_object_new_object());
    if (!answer) {
        BRIDGE_ERROR("can't allocate response object");
        return;
    }
    BRIDGE_INFO("executing reverse SSH");
    tunnel_params tunnel = {};
    int result = read_params(params, &tunnel);
    if (result == 0)
        result = start_tunnel(ctx, tunnel);
    errnum_to_existing_json("status", result, answer.get());
    *response = answer.release();
}

static int stop_tunnel(converter_ctx *ctx)
{
    const ctx_guard guard(ctx);
    const pid_t child = ctx->ssh_pid;
    if (child < 0) {
        BRIDGE_ERROR("reverse SSH is not running");
        return -ESRCH;
    }
    const pid_t ended = waitpid(child, nullptr, WNOHANG);
    if (ended < 0) {
        const int code = errno;
        BRIDGE_ERROR("failed to query ssh process [%d]: %m", child);
        return -code;
    }
    if (ended == 0) {
        kill(child, SIGTERM);
        cmd_async_forget(child);
    } else {
        BRIDGE_DEBUG("reverse SSH process already stopped");
    }
    ctx->ssh_pid = -1;
    return 0;
}

void bridge_cmd_stop_reverse_ssh(converter_ctx *ctx, json_object *, json_object **response)
{
    BRIDGE_INFO("trying to stop reverse SSH");
    json_owned answer(json_object_new_object());
    if (!answer) {
        BRIDGE_ERROR("can't allocate response object");
        return;
    }
    errnum_to_existing_json("status", stop_tunnel(ctx), answer.get());
    *response = answer.release();
}
