#include "converter/data_plane.h"

#include <arpa/inet.h>
#include <array>
#include <csignal>
#include <cstring>
#include <memory>
#include <mutex>
#include <poll.h>
#include <sys/socket.h>
#include <utility>

/* ---- datagrams ---- */

static std::string header(char version, std::string_view token, semtech_packet identifier)
{
    const char last = static_cast<char>(identifier);
    return join({{&version, 1}, token, {&last, 1}});
}

std::string push_data(std::string_view json, char version, std::string_view token)
{
    return join({header(version, token, SEMTECH_PUSH_DATA), GATEWAY_MAC, json});
}

std::string pull_data(char version, std::string_view token)
{
    return join({header(version, token, SEMTECH_PULL_DATA), GATEWAY_MAC});
}

std::string tx_ack(std::string_view json, std::string_view token, char version)
{
    return join({header(version, token, SEMTECH_TX_ACK), GATEWAY_MAC, json});
}

std::string push_ack(char version, std::string_view token)
{
    return header(version, token, SEMTECH_PUSH_ACK);
}

std::string pull_ack(char version, std::string_view token)
{
    return header(version, token, SEMTECH_PULL_ACK);
}

std::string pull_resp(std::string_view json, uint16_t token, char version)
{
    char bytes[sizeof(token)];
    memcpy(bytes, &token, sizeof(token));
    return join({header(version, {bytes, sizeof(bytes)}, SEMTECH_PULL_RESP), json, std::string_view("", 1)});
}

std::string rxpk_of(std::string_view data)
{
    return join(
        {R"({"tmst":1,"chan":2,"rfch":1,"freq":868.3,"stat":1,"modu":"LORA","datr":"SF7BW125","codr":"4/5",)",
         R"("rssi":-35,"lsnr":5.1,"size":4,"data":")", data, R"("})"});
}

std::string native_uplink_of(std::string_view data)
{
    return join(
        {R"({"phyPayload":")", data, R"(","rxInfo":{"channel":2,"codeRate":"4\/5","crcStatus":1,)",
         R"("dataRate":{"bandwidth":125,"modulation":"LORA","spreadFactor":7},"frequency":868300000,)",
         R"("loRaSNR":5.1,"mac":"0016c001ff10abcd","rfChain":1,"rssi":-35,"size":4,"timestamp":1}})"});
}

std::string downlink_of(std::string_view payload)
{
    return join(
        {R"({"phyPayload":")", payload, R"(","txInfo":{"codeRate":"4/5","dataRate":{"bandwidth":125,)",
         R"("modulation":"LORA","spreadFactor":9},"frequency":868100000,"immediately":true,"mac":"m",)",
         R"("power":14}})"});
}

std::string txpk_of(std::string_view payload, size_t size)
{
    return join({R"({"txpk":{"imme":true,"tmst":0,"freq":868.100000,"rfch":0,"powe":14,"modu":"LORA",)",
                 R"("datr":"SF9BW125","codr":"4\/5","ipol":true,"size":)", std::to_string(size),
                 R"(,"data":")", payload, R"("}})"});
}

/* ---- the packet forwarder ---- */

static sockaddr_in local_address(const char *host, uint16_t port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    EXPECT_EQ(inet_pton(AF_INET, host, &address.sin_addr), 1);
    return address;
}

static uint16_t port_of(int fd)
{
    sockaddr_in address = {};
    socklen_t size = sizeof(address);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size), 0);
    return ntohs(address.sin_port);
}

static uint16_t server_port = 0;

forwarder_socket::forwarder_socket(const char *host, uint16_t port)
    : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    const sockaddr_in address = local_address(host, port);
    EXPECT_EQ(bind(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
}

void forwarder_socket::send(std::string_view datagram) const
{
    const sockaddr_in server = local_address("127.0.0.1", server_port);
    EXPECT_EQ(sendto(fd_.get(), datagram.data(), datagram.size(), 0,
                     reinterpret_cast<const sockaddr *>(&server), sizeof(server)),
              static_cast<ssize_t>(datagram.size()));
}

static bool is_readable(int fd, std::chrono::milliseconds deadline)
{
    pollfd waiting = {.fd = fd, .events = POLLIN, .revents = 0};
    return poll(&waiting, 1, static_cast<int>(deadline.count())) == 1;
}

std::string forwarder_socket::receive() const
{
    if (!is_readable(fd_.get(), TEST_DEADLINE))
        return "nothing";
    std::string datagram(8192, '\0');
    const ssize_t size = recv(fd_.get(), datagram.data(), datagram.size(), 0);
    EXPECT_GE(size, 0);
    datagram.resize(static_cast<size_t>(size));
    return datagram;
}

bool forwarder_socket::is_silent() const
{
    return !is_readable(fd_.get(), std::chrono::milliseconds(0));
}

uint16_t forwarder_socket::port() const
{
    return port_of(fd_.get());
}

/* ---- the plane ---- */

static std::mutex failures_mutex;
static std::vector<send_failure> recorded_failures;

static void record_failure(int32_t code, void *context)
{
    const std::lock_guard guard(failures_mutex);
    recorded_failures.push_back({code, context});
}

std::vector<send_failure> DataPlane::failures()
{
    const std::lock_guard guard(failures_mutex);
    return std::exchange(recorded_failures, {});
}

static void prepare()
{
    /* As the MQTT library does for the whole process. */
    signal(SIGPIPE, SIG_IGN);
    mqtt.reset();
    faults.reset();
    recorded_failures.clear();
    converter_ctx.ns_connected = false;
    converter_ctx.geo_connected = false;
    configuration = {};
    strcpy(configuration.generic.gw_mac, "0016C001FF10ABCD");
    strcpy(configuration.geoloc.topic, "gateway/geoloc");
}

DataPlane::DataPlane()
{
    prepare();
}

DataPlane::~DataPlane()
{
    faults.reset();
    mqtt.let_go();
    if (converter_ctx.inited)
        stop();
}

DataPlaneDeath::DataPlaneDeath()
{
    prepare();
    bridge_log_init(BRIDGE_LOG_WARN, true);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
}

void DataPlane::init()
{
    ASSERT_EQ(bridge_dataplane_init(record_failure, &send_failed_context), 0);
}

/* A port that nobody had a moment ago; another one when somebody was quicker. */
static int start_server_somewhere()
{
    int result = -1;
    for (int attempt = 0; attempt < 10 && result < 0; attempt++) {
        server_port = forwarder_socket().port();
        result = bridge_dataplane_start_server(server_port);
    }
    return result;
}

void DataPlane::start(bridge_ns_type type)
{
    configuration.ns.ns_type = type;
    init();
    ASSERT_EQ(start_server_somewhere(), 0);
    ASSERT_EQ(bridge_dataplane_ns_connect(), 0);
    ASSERT_EQ(bridge_dataplane_geo_connect(), 0);
}

void DataPlane::stop()
{
    bridge_dataplane_stop_server();
    bridge_dataplane_ns_disconnect();
    bridge_dataplane_geo_disconnect();
    EXPECT_EQ(bridge_dataplane_deinit(), 0);
}

std::vector<std::string> DataPlane::answers_to(std::string_view datagram)
{
    static constexpr std::string_view FENCE = "\xfe\xed";
    forwarder.send(datagram);
    forwarder.send(pull_data(2, FENCE));
    std::vector<std::string> answers;
    for (std::string answer = forwarder.receive(); answer != pull_ack(2, FENCE);
         answer = forwarder.receive()) {
        answers.push_back(answer);
        if (answer == "nothing")
            break;
    }
    return answers;
}

bool DataPlane::is_acknowledged(std::string_view json)
{
    const std::vector<std::string> answers = answers_to(push_data(json));
    if (!answers.empty()) {
        EXPECT_THAT(answers, testing::ElementsAre(push_ack()));
    }
    return !answers.empty();
}

std::vector<std::string> DataPlane::published_bodies()
{
    std::vector<std::string> bodies;
    for (const published &each : mqtt.publishes())
        bodies.push_back(each.body);
    return bodies;
}

void DataPlane::down(std::string_view payload)
{
    /* Exactly as long as it says, and without a terminator. */
    const std::unique_ptr<uint8_t[]> bytes(new uint8_t[payload.size()]);
    memcpy(bytes.get(), payload.data(), payload.size());
    bridge_downlink_callback("any/topic", nullptr, bytes.get(), static_cast<uint32_t>(payload.size()));
}
