#include "lab_gateway.h"

#include "common/bridge_release.h"
#include "config/captured_log.h"

#include <array>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <set>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

static constexpr int START_ATTEMPTS = 5;
static constexpr int READY_WITHIN_MS = 20000;

struct gateway_context {
    pid_t pid = -1;
    int control = -1;
    std::string address;
    std::string received; /* of the control port, behind the lines that were taken */
    std::set<std::string> names, tables;
};

static gateway_context gateway;

static uint16_t free_udp_port()
{
    const bridge_fd probe(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {.sin_family = AF_INET, .sin_addr = {htonl(INADDR_LOOPBACK)}};
    socklen_t length = sizeof(address);
    if (bind(probe.get(), reinterpret_cast<sockaddr *>(&address), length) < 0 ||
        getsockname(probe.get(), reinterpret_cast<sockaddr *>(&address), &length) < 0)
        return 0;
    return ntohs(address.sin_port);
}

/* In the child. The agent does not outlive the test, however that ends. */
[[noreturn]] static void become_agent(const char *const *arguments, pid_t parent, int output, int errors)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() == parent) {
        dup2(output, STDOUT_FILENO);
        dup2(errors, STDERR_FILENO);
        execv(arguments[0], const_cast<char *const *>(arguments));
    }
    _exit(127);
}

/* The line that tells the ports, or nothing when the agent ends or hangs. */
static std::string read_ready_line(int fd)
{
    std::string line;
    char byte = 0;
    pollfd waiting = {.fd = fd, .events = POLLIN};
    while (poll(&waiting, 1, READY_WITHIN_MS) == 1 && read(fd, &byte, 1) == 1) {
        if (byte == '\n')
            return line;
        line += byte;
    }
    return "";
}

static bool connect_control(uint16_t port)
{
    gateway.control = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval patience = {.tv_sec = READY_WITHIN_MS / 1000};
    setsockopt(gateway.control, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    sockaddr_in address = {
        .sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {htonl(INADDR_LOOPBACK)}};
    return connect(gateway.control, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
}

static bool start_once(const std::string &folder)
{
    const std::string scenario = folder + "/scenario.json";
    std::ofstream(scenario) << R"({"scalars": {}})";
    gateway.address = join({"udp:127.0.0.1:", std::to_string(free_udp_port())});
    const char *const arguments[] = {LAB_AGENT, "--scenario", scenario.c_str(),        "--mibs",
                                     LAB_MIBS,  "--listen",   gateway.address.c_str(), nullptr};
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) < 0)
        return false;
    const bridge_fd output(ends[0]);
    bridge_fd input(ends[1]);
    const bridge_fd errors(open((folder + "/agent.errors").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const pid_t parent = getpid();
    gateway.pid = fork();
    if (gateway.pid == 0)
        become_agent(arguments, parent, input.get(), errors.get());
    close(input.release());
    const json_owned ready(json_tokener_parse(read_ready_line(output.get()).c_str()));
    json_object *port = nullptr;
    return json_object_object_get_ex(ready.get(), "control", &port) &&
           connect_control(static_cast<uint16_t>(json_object_get_int(port)));
}

/* Another process may take the port between the look for a free one and the agent's own. */
bool lab_gateway_start(const std::string &folder)
{
    for (int i = 0; i < START_ATTEMPTS; i++) {
        if (start_once(folder))
            return true;
        lab_gateway_stop();
    }
    std::ifstream errors(folder + "/agent.errors");
    ADD_FAILURE() << "the agent does not start: " << errors.rdbuf();
    return false;
}

void lab_gateway_stop()
{
    if (gateway.control >= 0)
        close(gateway.control);
    gateway.control = -1;
    if (gateway.pid > 0) {
        kill(gateway.pid, SIGKILL);
        waitpid(gateway.pid, nullptr, 0);
    }
    gateway.pid = -1;
}

const std::string &lab_gateway_address()
{
    return gateway.address;
}

static std::string read_control_line()
{
    size_t end = gateway.received.find('\n');
    while (end == std::string::npos) {
        std::array<char, 4096> part;
        const ssize_t got = recv(gateway.control, part.data(), part.size(), 0);
        if (got <= 0)
            return "";
        gateway.received.append(part.data(), static_cast<size_t>(got));
        end = gateway.received.find('\n');
    }
    std::string line = gateway.received.substr(0, end);
    gateway.received.erase(0, end + 1);
    return line;
}

json_owned lab_gateway_do(std::string_view line)
{
    const std::string sent = std::string(line) + "\n";
    const ssize_t length = send(gateway.control, sent.data(), sent.size(), MSG_NOSIGNAL);
    EXPECT_EQ(length, static_cast<ssize_t>(sent.size()));
    const std::string text = read_control_line();
    json_owned answer(json_tokener_parse(text.c_str()));
    json_object *good = nullptr;
    json_object_object_get_ex(answer.get(), "ok", &good);
    EXPECT_TRUE(json_object_get_boolean(good)) << sent << text;
    return answer;
}

void lab_gateway_put(std::string_view name, std::string_view value)
{
    gateway.names.emplace(name);
    lab_gateway_do(join({R"({"set":{")", name, R"(":)", value, "}}"}));
}

void lab_gateway_put_rows(std::string_view table, std::string_view rows)
{
    gateway.tables.emplace(table);
    lab_gateway_do(join({R"({"put_rows":")", table, R"(","rows":)", rows, "}"}));
}

void lab_gateway_remove(std::string_view name)
{
    lab_gateway_do(join({R"({"remove":")", name, R"("})"}));
}

void lab_gateway_fault(std::string_view name, std::string_view fault)
{
    lab_gateway_do(join({R"({"faults":{")", name, R"(":)", fault, "}}"}));
}

void lab_gateway_forget()
{
    lab_gateway_do(R"({"clear_faults":true})");
    for (const std::string &name : gateway.names)
        lab_gateway_remove(name);
    for (const std::string &table : gateway.tables)
        lab_gateway_do(join({R"({"put_rows":")", table, R"(","rows":[]})"}));
    gateway.names.clear();
    gateway.tables.clear();
    lab_gateway_clear_log();
}

static const char *text_member(json_object *object, const char *key)
{
    json_object *member = nullptr;
    json_object_object_get_ex(object, key, &member);
    return json_object_to_json_string_ext(member, JSON_C_TO_STRING_PLAIN);
}

static std::string unquoted(std::string text)
{
    std::erase(text, '"');
    return text;
}

std::vector<std::string> lab_gateway_requests()
{
    const json_owned answer = lab_gateway_do(R"({"log":"all"})");
    json_object *log = nullptr;
    json_object_object_get_ex(answer.get(), "log", &log);
    std::vector<std::string> requests;
    for (size_t i = 0; i < json_object_array_length(log); i++) {
        json_object *entry = json_object_array_get_idx(log, i);
        const std::string outcome = unquoted(text_member(entry, "outcome"));
        requests.push_back(join({unquoted(text_member(entry, "op")), " ", text_member(entry, "variables"),
                                 outcome != "answered" ? " " : "", outcome != "answered" ? outcome : ""}));
    }
    return requests;
}

void lab_gateway_clear_log()
{
    lab_gateway_do(R"({"log":"sets","clear":true})");
}
