/* The life of the data plane: what it opens and closes, its connections, topics and dialects. */
#include "converter/data_plane.h"

#include "converter/data/bridge_translator.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <poll.h>
#include <thread_pool/thpool.h>
#include <unistd.h>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class DataConv : public DataPlane
{
};

class DataConvDeath : public DataPlaneDeath
{
};

static void ignore_failure(int32_t, void *)
{
}

static long open_descriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

/* ---- init and deinit ---- */

TEST_F(DataConv, InitAndDeinitOpenAndCloseTheSame)
{
    const long before = open_descriptors();
    init();
    EXPECT_EQ(open_descriptors(), before + 3) << "a socket and the two ends of a pipe";
    EXPECT_TRUE(log.has("DEBUG UDP bridge is initialized"));
    EXPECT_EQ(converter_ctx.semtech_version, 1U);
    EXPECT_FALSE(converter_ctx.rx_allowed);
    EXPECT_EQ(bridge_dataplane_deinit(), 0);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(faults.thpool_destroy.calls, 1);
    EXPECT_TRUE(log.has("DEBUG UDP bridge is deinitialized"));
    EXPECT_EQ(bridge_dataplane_deinit(), -1);
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(DataConv, ANewInitForgetsThePullPortAndTheVersion)
{
    start();
    forwarder.send(pull_data(2));
    ASSERT_EQ(forwarder.receive(), pull_ack(2));
    EXPECT_TRUE(converter_ctx.rx_allowed);
    bridge_dataplane_stop_server();
    EXPECT_TRUE(converter_ctx.rx_allowed) << "stopping forgets nothing";
    EXPECT_EQ(converter_ctx.semtech_version, 2U);
    stop();
    start();
    EXPECT_FALSE(converter_ctx.rx_allowed);
    EXPECT_EQ(converter_ctx.semtech_version, 1U);
    EXPECT_TRUE(is_acknowledged("{}"));
}

TEST_F(DataConv, AFailedInitSaysWhyAndLeavesNothingOpen)
{
    const struct {
        fault &failing;
        const char *line;
    } rows[] = {
        {faults.thpool_init, "ERROR unable to allocate thread pool for UDP bridge"},
        {faults.socket, "ERROR ERROR opening socket"},
        {faults.pipe2, "ERROR failed to create pipe"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        const log_view own = log.from_here();
        const long before = open_descriptors();
        row.failing.arm(0, -1, EMFILE);
        EXPECT_EQ(bridge_dataplane_init(ignore_failure, nullptr), -1);
        EXPECT_THAT(own.lines(), ElementsAre(row.line));
        EXPECT_EQ(open_descriptors(), before);
        EXPECT_FALSE(converter_ctx.inited);
    }
    EXPECT_EQ(faults.thpool_destroy.calls, 2) << "a pool that was made is not left behind";
    init();
}

/* The result of the pipe's creation is what comes back, so that these two look like success. */
TEST_F(DataConv, FailingPipeFlagsReturnTheResultOfThePipe)
{
    const std::pair<fault &, const char *> rows[] = {
        {faults.fcntl_get, "ERROR failed to get pipe flags"},
        {faults.fcntl_set, "ERROR failed to set pipe flags"},
    };
    for (const auto &[failing, line] : rows) {
        const log_view own = log.from_here();
        const long before = open_descriptors();
        failing.arm(0, -1, EBADF);
        EXPECT_EQ(bridge_dataplane_init(ignore_failure, nullptr), 0) << line;
        EXPECT_THAT(own.lines(), ElementsAre(line));
        EXPECT_EQ(open_descriptors(), before);
        EXPECT_FALSE(converter_ctx.inited);
    }
}

TEST_F(DataConvDeath, TheCallsWantTheirOrder)
{
    EXPECT_ASSERTION(bridge_dataplane_init(nullptr, nullptr), "cb");
    EXPECT_ASSERTION(
        {
            bridge_dataplane_init(ignore_failure, nullptr);
            bridge_dataplane_init(ignore_failure, nullptr);
        },
        "converter_ctx.inited == false");
    EXPECT_ASSERTION(bridge_dataplane_start_server(1700), "converter_ctx.inited");
    EXPECT_ASSERTION(bridge_dataplane_stop_server(), "converter_ctx.inited");
    EXPECT_ASSERTION(bridge_dataplane_ns_connect(), "converter_ctx.inited");
    EXPECT_ASSERTION(bridge_dataplane_ns_disconnect(), "converter_ctx.inited");
    EXPECT_ASSERTION(bridge_dataplane_geo_connect(), "converter_ctx.inited");
    EXPECT_ASSERTION(bridge_dataplane_geo_disconnect(), "converter_ctx.inited");
    EXPECT_ASSERTION(
        {
            bridge_dataplane_init(ignore_failure, nullptr);
            bridge_dataplane_start_server(0);
        },
        "port > 0");
}

/* ---- the server ---- */

TEST_F(DataConv, APortInUseCannotBeServed)
{
    init();
    EXPECT_LT(bridge_dataplane_start_server(forwarder.port()), 0);
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR cannot bind: Address already in use"));
}

TEST_F(DataConv, AServerWithoutAWorkerIsAFailure)
{
    init();
    const uint16_t port = forwarder_socket().port();
    faults.thpool_add_work.arm(0, -1, 0);
    EXPECT_EQ(bridge_dataplane_start_server(port), -1);
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR failed to launch uplink worker thread"));
}

TEST_F(DataConv, ThePlaneServesAgainAfterAFullStop)
{
    for (int round = 0; round < 3; round++) {
        start();
        EXPECT_TRUE(is_acknowledged("{}"));
        EXPECT_EQ(bridge_dataplane_stop_server(), 0);
        EXPECT_EQ(thpool_num_threads_working(converter_ctx.pool), 0);
        forwarder.send(push_data("{}"));
        EXPECT_EQ(bridge_dataplane_deinit(), 0);
        EXPECT_TRUE(forwarder.is_silent()) << "nobody answers any more";
    }
    EXPECT_EQ(log.count("DEBUG uplink/downlink worker thread starting"), 3);
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(DataConv, TheStopWordEndsTheWorkerAtOnceAndTheFlagAfterItsMessage)
{
    start();
    ASSERT_TRUE(is_acknowledged("{}"));
    ASSERT_EQ(write(converter_ctx.pipe_fds[1], "X", 1), 1);
    thpool_wait(converter_ctx.pool);
    EXPECT_EQ(log.lines().back(), "TRACE pipe data received: 1 bytes");
    stop();

    start();
    ASSERT_TRUE(is_acknowledged("{}"));
    mqtt.hold();
    forwarder.send(push_data(join({R"({"rxpk":[)", rxpk_of("AAAA"), "]}"})));
    ASSERT_TRUE(mqtt.wait_for_held());
    converter_ctx.stop = true;
    mqtt.let_go();
    thpool_wait(converter_ctx.pool);
    EXPECT_EQ(log.lines().back(), "DEBUG uplink/downlink worker thread exiting");
    EXPECT_EQ(forwarder.receive(), push_ack()) << "what was under way is finished";
}

/* Another byte alone, or more bytes than one, is a downlink like any. */
TEST_F(DataConv, OnlyTheStopWordAloneStops)
{
    start();
    forwarder.send(pull_data());
    ASSERT_EQ(forwarder.receive(), pull_ack());
    for (const std::string_view datagram : {"Y", "XX", "x"}) {
        ASSERT_EQ(write(converter_ctx.pipe_fds[1], datagram.data(), datagram.size()),
                  static_cast<ssize_t>(datagram.size()));
        EXPECT_EQ(forwarder.receive(), datagram);
    }
}

/* ---- connections ---- */

TEST_F(DataConv, ConnectingToTheNetworkServerSubscribesToDownlinks)
{
    init();
    EXPECT_EQ(bridge_dataplane_ns_connect(), 0);
    EXPECT_THAT(mqtt.calls(), ElementsAre("connect NS", "subscribe NS gateway/tx"));
    EXPECT_EQ(mqtt.handler, bridge_downlink_callback);
    EXPECT_EQ(mqtt.handler_context, &converter_ctx);
    EXPECT_TRUE(converter_ctx.ns_connected);
    EXPECT_THAT(log.lines_of({"TRACE", "DEBUG"}),
                ElementsAre("DEBUG UDP bridge is initialized", "TRACE connecting to NS",
                            "TRACE connected to NS. subscribing to downlink topic: gateway/tx",
                            "DEBUG UDP bridge is connected to NS"));
}

TEST_F(DataConv, AFailedConnectionToTheNetworkServerIsGivenUp)
{
    init();
    mqtt.connect_result = -7;
    EXPECT_EQ(bridge_dataplane_ns_connect(), -7);
    EXPECT_FALSE(converter_ctx.ns_connected);
    EXPECT_THAT(mqtt.calls(), ElementsAre("connect NS"));
    mqtt.connect_result = 0;
    mqtt.subscribe_result = -5;
    EXPECT_EQ(bridge_dataplane_ns_connect(), -5);
    EXPECT_FALSE(converter_ctx.ns_connected);
    EXPECT_THAT(mqtt.calls(),
                ElementsAre("connect NS", "connect NS", "subscribe NS gateway/tx", "disconnect NS"));
    EXPECT_THAT(log.complaints(),
                ElementsAre("ERROR failed to connect to NS", "ERROR failed to subscribe for NS topics"));
}

/* With the endpoints disabled, only the network server's flag is set. */
TEST_F(DataConv, DisabledEndpointsAreNotConnected)
{
    mqtt.enabled = {};
    init();
    EXPECT_EQ(bridge_dataplane_ns_connect(), 0);
    EXPECT_EQ(bridge_dataplane_geo_connect(), 0);
    EXPECT_TRUE(converter_ctx.ns_connected);
    EXPECT_FALSE(converter_ctx.geo_connected);
    EXPECT_THAT(mqtt.calls(), IsEmpty());
    EXPECT_THAT(log.lines_of({"INFO"}),
                ElementsAre("INFO NS endpoint is disabled", "INFO Geoloc endpoint is disabled"));
    bridge_dataplane_ns_disconnect();
}

TEST_F(DataConv, DisconnectingFromTheNetworkServerUnsubscribesFirst)
{
    const struct {
        uint32_t unsubscribed;
        int result;
        std::vector<std::string> lines;
    } rows[] = {
        {1, 0, {}},
        {0, 0, {"WARN failed to unsubscribe from downlink topics"}},
        {2, 0, {"WARN failed to unsubscribe from downlink topics"}},
        {1, -3, {"DEBUG failed to disconnect from NS"}},
        {0, -3, {"WARN failed to unsubscribe from downlink topics", "DEBUG failed to disconnect from NS"}},
    };
    for (const bridge_ns_type type : {NS_TYPE_SNVNS, NS_TYPE_CHIRPSTACK_V3}) {
        configuration.ns.ns_type = type;
        for (const auto &row : rows) {
            mqtt.reset();
            init();
            ASSERT_EQ(bridge_dataplane_ns_connect(), 0);
            mqtt.unsubscribed = row.unsubscribed;
            mqtt.disconnect_result = row.result;
            const log_view own = log.from_here();
            EXPECT_EQ(bridge_dataplane_ns_disconnect(), row.result);
            EXPECT_FALSE(converter_ctx.ns_connected);
            EXPECT_THAT(own.lines(), testing::ElementsAreArray(row.lines));
            const char *topic =
                type == NS_TYPE_SNVNS ? "gateway/tx" : "gateway/0016C001FF10ABCD/command/down";
            EXPECT_THAT(mqtt.calls(), ElementsAre("connect NS", join({"subscribe NS ", topic}),
                                                  join({"unsubscribe NS ", topic}), "disconnect NS"));
            bridge_dataplane_deinit();
        }
    }
}

TEST_F(DataConv, TheGeolocationServerHasNoTopicToSubscribeTo)
{
    init();
    EXPECT_EQ(bridge_dataplane_geo_connect(), 0);
    EXPECT_TRUE(converter_ctx.geo_connected);
    EXPECT_EQ(bridge_dataplane_geo_disconnect(), 0);
    EXPECT_FALSE(converter_ctx.geo_connected);
    EXPECT_THAT(mqtt.calls(), ElementsAre("connect GEOLOC", "disconnect GEOLOC"));
    EXPECT_THAT(log.lines_of({"TRACE", "DEBUG"}),
                ElementsAre("DEBUG UDP bridge is initialized", "TRACE connecting to geoloc",
                            "DEBUG UDP bridge is connected to geoloc"));
    mqtt.connect_result = -2;
    EXPECT_EQ(bridge_dataplane_geo_connect(), -2);
    EXPECT_FALSE(converter_ctx.geo_connected);
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR failed to connect to geoloc server"));
    mqtt.connect_result = 0;
    bridge_dataplane_geo_connect();
    mqtt.disconnect_result = -4;
    EXPECT_EQ(bridge_dataplane_geo_disconnect(), -4);
    EXPECT_FALSE(converter_ctx.geo_connected);
    EXPECT_EQ(log.lines().back(), "DEBUG failed to disconnect from geoloc");
}

/* ---- topics and dialects ---- */

TEST_F(DataConv, EachDialectHasItsTopics)
{
    const struct {
        bridge_ns_type type;
        bridge_topic_kind kind;
        const char *expected;
    } rows[] = {
        {NS_TYPE_SNVNS, TOPIC_UPLINK, "gateway/rx"},
        {NS_TYPE_SNVNS, TOPIC_DOWNLINK, "gateway/tx"},
        {NS_TYPE_SNVNS, TOPIC_STATISTICS, "gateway/stats"},
        {NS_TYPE_CHIRPSTACK_V2, TOPIC_UPLINK, "gateway/0016C001FF10ABCD/rx"},
        {NS_TYPE_CHIRPSTACK_V2, TOPIC_DOWNLINK, "gateway/0016C001FF10ABCD/tx"},
        {NS_TYPE_CHIRPSTACK_V2, TOPIC_STATISTICS, "gateway/0016C001FF10ABCD/stats"},
        {NS_TYPE_CHIRPSTACK_V3, TOPIC_UPLINK, "gateway/0016C001FF10ABCD/event/up"},
        {NS_TYPE_CHIRPSTACK_V3, TOPIC_DOWNLINK, "gateway/0016C001FF10ABCD/command/down"},
        {NS_TYPE_CHIRPSTACK_V3, TOPIC_STATISTICS, "gateway/0016C001FF10ABCD/event/stats"},
        {NS_TYPE_CHIRPSTACK_V3, TOPIC_ACK, "gateway/0016C001FF10ABCD/event/ack"},
    };
    for (const auto &row : rows) {
        configuration.ns.ns_type = row.type;
        char buffer[BRIDGE_TOPIC_SIZE];
        EXPECT_EQ(bridge_topic_build(buffer, row.kind), buffer);
        EXPECT_STREQ(buffer, row.expected);
    }
}

TEST_F(DataConv, TheLongestMacFitsEveryTopic)
{
    memset(configuration.generic.gw_mac, 'f', sizeof(configuration.generic.gw_mac) - 1);
    configuration.ns.ns_type = NS_TYPE_CHIRPSTACK_V3;
    char buffer[BRIDGE_TOPIC_SIZE];
    EXPECT_EQ(bridge_topic_build(buffer, TOPIC_DOWNLINK),
              join({"gateway/", std::string(31, 'f'), "/command/down"}));
}

TEST_F(DataConvDeath, ATopicThatTheDialectLacksIsAProgrammingFault)
{
    char buffer[BRIDGE_TOPIC_SIZE];
    for (const bridge_ns_type type : {NS_TYPE_SNVNS, NS_TYPE_CHIRPSTACK_V2}) {
        configuration.ns.ns_type = type;
        EXPECT_EXIT(bridge_topic_build(buffer, TOPIC_ACK), testing::KilledBySignal(SIGABRT), "");
    }
    configuration.ns.ns_type = static_cast<bridge_ns_type>(7);
    EXPECT_EXIT(bridge_topic_build(buffer, TOPIC_UPLINK), testing::KilledBySignal(SIGABRT),
                testing::HasSubstr(" unsupported NS type: 7\n"));
}

TEST_F(DataConv, EachDialectHasItsFormatAndVersion)
{
    const struct {
        bridge_ns_type type;
        uint32_t format;
        uint32_t version;
    } rows[] = {
        {NS_TYPE_SNVNS, FORMAT_SNVNS, 1},
        {NS_TYPE_CHIRPSTACK_V2, FORMAT_CHIRPSTACK, 2},
        {NS_TYPE_CHIRPSTACK_V3, FORMAT_CHIRPSTACK, 3},
    };
    for (const auto &row : rows) {
        configuration.ns.ns_type = row.type;
        uint32_t version = 99;
        uint32_t format = 99;
        EXPECT_EQ(get_version_and_ns_format(&version, &format), 0);
        EXPECT_EQ(format, row.format);
        EXPECT_EQ(version, row.version);
    }
}

TEST_F(DataConvDeath, FormatAndVersionWantTheirPlacesAndAKnownDialect)
{
    uint32_t word = 0;
    EXPECT_ASSERTION(get_version_and_ns_format(nullptr, &word), "version");
    EXPECT_ASSERTION(get_version_and_ns_format(&word, nullptr), "format");
    configuration.ns.ns_type = static_cast<bridge_ns_type>(3);
    EXPECT_ASSERTION(get_version_and_ns_format(&word, &word), "0");
}
