#include "control.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <list>
#include <string>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/library/fd_event_manager.h>

#include "behaviours.h"
#include "faults.h"
#include "requests.h"
#include "tables.h"

static constexpr size_t line_limit = 8 << 20;
static constexpr int send_timeout_s = 5;

struct connection {
    int descriptor = -1;
    std::string received;
};

struct control_context {
    int listener = -1;
    std::list<connection> connections;
};

static control_context control;

static json_ref failure(const std::string &text)
{
    json_ref reply = json_ref::own(json_object_new_object());
    json_object_object_add(reply.get(), "ok", json_object_new_boolean(0));
    json_object_object_add(reply.get(), "error", json_object_new_string(text.c_str()));
    return reply;
}

static json_ref success(const char *key, json_ref result)
{
    json_ref reply = json_ref::own(json_object_new_object());
    json_object_object_add(reply.get(), "ok", json_object_new_boolean(1));
    if (key != nullptr)
        json_object_object_add(reply.get(), key, result.release());
    return reply;
}

static void add_value(json_object *values, json_object *name)
{
    std::optional<lab_oid> place = lab_name_to_oid(json_object_get_string(name));
    const lab_instance *instance = place ? lab_store_find(*place) : nullptr;
    std::optional<lab_value> value;
    if (instance != nullptr)
        value = lab_current_value(*place, *instance);
    json_object_object_add(values, json_object_get_string(name),
                           value ? lab_value_to_json(*value).release() : nullptr);
}

static json_ref query_get(json_object *, json_object *names)
{
    json_ref values = json_ref::own(json_object_new_object());
    if (!json_object_is_type(names, json_type_array)) {
        add_value(values.get(), names);
        return success("values", values);
    }
    for (size_t i = 0; i < json_object_array_length(names); i++)
        add_value(values.get(), json_object_array_get_idx(names, i));
    return success("values", values);
}

static json_ref query_table(json_object *, json_object *table)
{
    json_ref rows = lab_table_to_json(json_object_get_string(table));
    return rows.get() != nullptr ? success("rows", rows) : failure("no such table");
}

static json_ref query_log(json_object *line, json_object *which)
{
    json_ref log = lab_requests_log(strcmp(json_object_get_string(which), "sets") == 0);
    if (json_object_get_boolean(json_member(line, "clear")) != 0)
        lab_requests_log_clear();
    return success("log", log);
}

static json_ref query_faults(json_object *, json_object *)
{
    return success("faults", lab_faults_list());
}

static json_ref query_problems(json_object *, json_object *)
{
    return success("problems", lab_problems());
}

static json_ref query_waiting(json_object *, json_object *)
{
    return success("waiting", json_ref::own(json_object_new_int64(static_cast<int64_t>(lab_runs_waiting()))));
}

struct query_row {
    const char *name;
    json_ref (*run)(json_object *line, json_object *argument);
};

// clang-format off
static constexpr query_row queries[] = {
    {"get",         query_get},
    {"table",       query_table},
    {"log",         query_log},
    {"list_faults", query_faults},
    {"problems",    query_problems},
    {"waiting",     query_waiting},
};
// clang-format on

static json_ref serve_step(json_object *step)
{
    size_t before = json_object_array_length(lab_problems().get());
    if (lab_step_run(step))
        return success(nullptr, {});
    json_object *problem = json_object_array_get_idx(lab_problems().get(), before);
    return failure(problem != nullptr ? json_object_get_string(problem) : "not done");
}

static json_ref serve_line(const std::string &text)
{
    json_ref line = json_ref::own(json_tokener_parse(text.c_str()));
    if (!json_object_is_type(line.get(), json_type_object))
        return failure("no JSON object");
    for (const query_row &row : queries) {
        if (json_object *argument = json_member(line.get(), row.name))
            return row.run(line.get(), argument);
    }
    return lab_step_is_known(line.get()) ? serve_step(line.get()) : failure("unknown request");
}

/* --- connections --- */

static bool send_all(int descriptor, const std::string &text)
{
    for (size_t sent = 0; sent < text.size();) {
        ssize_t part = send(descriptor, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (part <= 0)
            return false;
        sent += static_cast<size_t>(part);
    }
    return true;
}

static bool serve_received(connection *peer)
{
    for (size_t end = peer->received.find('\n'); end != std::string::npos; end = peer->received.find('\n')) {
        std::string line = peer->received.substr(0, end);
        peer->received.erase(0, end + 1);
        json_ref reply = serve_line(line);
        std::string text = json_object_to_json_string_ext(reply.get(), JSON_C_TO_STRING_PLAIN);
        if (!send_all(peer->descriptor, text + "\n"))
            return false;
    }
    return peer->received.size() <= line_limit;
}

static void drop(int descriptor)
{
    unregister_readfd(descriptor);
    close(descriptor);
    control.connections.remove_if(
        [descriptor](const connection &each) { return each.descriptor == descriptor; });
}

static void on_readable(int descriptor, void *argument)
{
    connection *peer = static_cast<connection *>(argument);
    char buffer[65536];
    ssize_t got = recv(descriptor, buffer, sizeof(buffer), 0);
    if (got < 0 && errno == EINTR)
        return;
    if (got > 0)
        peer->received.append(buffer, static_cast<size_t>(got));
    if (got <= 0 || !serve_received(peer))
        drop(descriptor);
}

static void on_connection(int listener, void *)
{
    int descriptor = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (descriptor < 0)
        return;
    struct timeval patience = {send_timeout_s, 0};
    setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
    control.connections.push_back({descriptor, ""});
    if (register_readfd(descriptor, on_readable, &control.connections.back()) != FD_REGISTERED_OK)
        drop(descriptor);
}

int lab_control_open(int port)
{
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    socklen_t length = sizeof(address);
    int on = 1;
    control.listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    setsockopt(control.listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (bind(control.listener, reinterpret_cast<struct sockaddr *>(&address), length) < 0 ||
        listen(control.listener, SOMAXCONN) < 0 ||
        getsockname(control.listener, reinterpret_cast<struct sockaddr *>(&address), &length) < 0 ||
        register_readfd(control.listener, on_connection, nullptr) != FD_REGISTERED_OK) {
        fprintf(stderr, "lab agent: no control port %d: %m\n", port);
        return -1;
    }
    return ntohs(address.sin_port);
}

void lab_control_close()
{
    while (!control.connections.empty())
        drop(control.connections.front().descriptor);
    if (control.listener >= 0) {
        unregister_readfd(control.listener);
        close(control.listener);
    }
    control.listener = -1;
}
