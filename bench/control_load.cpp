/* The load of the control plane: one kind of exchange, so many times, so many at once; prints latencies and
 * the rate. "echo" is a message through the MQTT server alone, "command" a request and the daemon's answer,
 * "get" the same objects asked of the SNMP agent itself. */
#include "load_mqtt.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <span>
#include <string>
#include <string_view>
#include <vector>

static constexpr const char *COMMANDS_TOPIC = "api/v1/gateway/commands";
static constexpr const char *ECHO_TOPIC = "bench/echo";
static constexpr std::string_view ID_KEY = "\"requestId\":";
static constexpr int SILENCE_MS = 10'000;
static constexpr long GET_TIMEOUT_US = 5'000'000;

/* What "getRadioStatistics" asks for. */
static constexpr std::array OBJECTS = {
    "radioStatisticsNumTxPackets.0",    "radioStatisticsNumRxPackets.0",
    "radioStatisticsRxFineTimestamp.0", "radioStatisticsRxNoFineTimestamp.0",
    "radioStatisticsRxCrcOkPackets.0",  "radioStatisticsRxCrcErrPackets.0",
    "radioStatisticsNoMatch.0",
};

struct control_options {
    std::string mode;
    std::string agent;
    std::string mac;
    unsigned long mqtt_port = 0;
    unsigned long count = 1000;
    unsigned long in_flight = 1;
};

[[noreturn]] static void fail(const char *what)
{
    fprintf(stderr, "bench_control_load: %s\n", what);
    exit(1);
}

static int64_t now_ns()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

static double percentile_ms(const std::vector<int64_t> &sorted, size_t hundredths)
{
    return static_cast<double>(sorted[(sorted.size() - 1) * hundredths / 100]) / 1e6;
}

static void print_result(std::vector<int64_t> *latencies, int64_t spent)
{
    std::sort(latencies->begin(), latencies->end());
    printf("{\"p50\":%.4f,\"p99\":%.4f,\"max\":%.4f,\"per_second\":%.1f}\n", percentile_ms(*latencies, 50),
           percentile_ms(*latencies, 99), percentile_ms(*latencies, 100),
           static_cast<double>(latencies->size()) * 1e9 / static_cast<double>(spent));
}

/* ---- through the MQTT server ---- */

struct exchange {
    const control_options *options;
    load_mqtt mqtt;
    const char *topic;
    bool is_echo;
    std::vector<int64_t> sent;
    std::vector<int64_t> latencies;
};

static void send_one(exchange *work)
{
    const size_t number = work->sent.size();
    work->sent.push_back(now_ns());
    load_mqtt_publish(&work->mqtt, work->topic,
                      "{\"command\":\"getRadioStatistics\",\"params\":{},\"mac\":\"" + work->options->mac +
                          "\"," + std::string(ID_KEY) + std::to_string(number) + "}");
}

/* Requests and answers share a topic; an answer ends with a NUL. */
static bool take(exchange *work, const std::string &payload)
{
    const size_t key = payload.find(ID_KEY);
    if (key == std::string::npos || (!work->is_echo && payload.back() != '\0'))
        return false;
    const size_t number = strtoul(payload.c_str() + key + ID_KEY.size(), nullptr, 10);
    if (!work->is_echo && payload.find("\"noMatch\":") == std::string::npos)
        fail("an answer without its values");
    work->latencies.push_back(now_ns() - work->sent.at(number));
    return true;
}

static void run_exchanges(exchange *work, size_t total)
{
    std::vector<std::string> payloads;
    while (work->latencies.size() < total) {
        while (work->sent.size() < total &&
               work->sent.size() - work->latencies.size() < work->options->in_flight)
            send_one(work);
        pollfd watched = {work->mqtt.sock, POLLIN, 0};
        if (poll(&watched, 1, SILENCE_MS) <= 0)
            fail("no answer");
        payloads.clear();
        load_mqtt_read(&work->mqtt, &payloads);
        for (const std::string &payload : payloads)
            take(work, payload);
    }
}

static void measure_mqtt(const control_options &options)
{
    exchange work = {.options = &options, .is_echo = options.mode == "echo"};
    work.topic = work.is_echo ? ECHO_TOPIC : COMMANDS_TOPIC;
    load_mqtt_connect(&work.mqtt, static_cast<uint16_t>(options.mqtt_port));
    load_mqtt_subscribe(&work.mqtt, work.topic);
    const int64_t started = now_ns();
    run_exchanges(&work, options.count);
    print_result(&work.latencies, now_ns() - started);
}

/* ---- straight to the agent ---- */

static void get_once(void *session, const std::vector<std::vector<oid>> &names)
{
    netsnmp_pdu *request = snmp_pdu_create(SNMP_MSG_GET);
    for (const std::vector<oid> &name : names)
        snmp_add_null_var(request, name.data(), name.size());
    netsnmp_pdu *response = nullptr;
    const int status = snmp_sess_synch_response(session, request, &response);
    if (status != STAT_SUCCESS || response->errstat != SNMP_ERR_NOERROR)
        fail("the agent does not answer");
    snmp_free_pdu(response);
}

static void measure_agent(const control_options &options)
{
    init_snmp("bench");
    std::vector<std::vector<oid>> names;
    for (const char *object : OBJECTS) {
        std::array<oid, MAX_OID_LEN> name;
        size_t length = name.size();
        if (snmp_parse_oid(object, name.data(), &length) == nullptr)
            fail("an object has no name");
        names.emplace_back(name.begin(), name.begin() + static_cast<long>(length));
    }
    netsnmp_session wanted;
    snmp_sess_init(&wanted);
    std::string peer = options.agent;
    std::string community = "public";
    wanted.version = SNMP_VERSION_2c;
    wanted.peername = peer.data();
    wanted.timeout = GET_TIMEOUT_US;
    wanted.community = reinterpret_cast<u_char *>(community.data());
    wanted.community_len = community.size();
    void *session = snmp_sess_open(&wanted);
    if (session == nullptr)
        fail("no session");

    std::vector<int64_t> latencies;
    const int64_t started = now_ns();
    for (size_t i = 0; i < options.count; i++) {
        const int64_t sent = now_ns();
        get_once(session, names);
        latencies.push_back(now_ns() - sent);
    }
    print_result(&latencies, now_ns() - started);
    snmp_sess_close(session);
}

static bool set_option(control_options *options, std::string_view name, const char *value)
{
    if (name == "--mode")
        options->mode = value;
    else if (name == "--agent")
        options->agent = value;
    else if (name == "--mac")
        options->mac = value;
    else if (name == "--mqtt-port")
        options->mqtt_port = strtoul(value, nullptr, 10);
    else if (name == "--count")
        options->count = strtoul(value, nullptr, 10);
    else if (name == "--in-flight")
        options->in_flight = strtoul(value, nullptr, 10);
    else
        return false;
    return true;
}

static bool read_options(std::span<char *> arguments, control_options *options)
{
    for (size_t i = 1; i < arguments.size(); i += 2)
        if (i + 1 == arguments.size() || !set_option(options, arguments[i], arguments[i + 1]))
            return false;
    return options->count > 0 &&
           (options->mode == "echo" || options->mode == "command" || options->mode == "get");
}

int main(int argc, char **argv)
{
    control_options options;
    if (!read_options({argv, static_cast<size_t>(argc)}, &options)) {
        fprintf(stderr,
                "usage: bench_control_load --mode echo|command|get [--mqtt-port PORT] [--agent ADDRESS] "
                "[--mac MAC] [--count N] [--in-flight N]\n");
        return 2;
    }
    if (options.mode == "get")
        measure_agent(options);
    else
        measure_mqtt(options);
    return 0;
}
