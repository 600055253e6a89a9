/* Connections: what the library is asked, in which order, and who uses the one that stands. */
#include "mqtt/mqtt_fixture.h"

#include "common/bridge_release.h"

#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

static constexpr auto NS = BRIDGE_MQTT_EP_NS;
static constexpr auto OAM = BRIDGE_MQTT_EP_OAM;
static constexpr auto GEOLOC = BRIDGE_MQTT_EP_GEOLOC;

static uint32_t connected_bits(size_t group)
{
    return mqtt_ctx.ep_handles[group].connected_bits;
}

static int sends_at_once(int sock)
{
    int at_once = -1;
    socklen_t size = sizeof(at_once);
    getsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &at_once, &size);
    return at_once;
}

/* ---- sharing ---- */

/* The answer to a command follows the acknowledgement of its request, and would wait for the server's. */
TEST_F(BridgeMqttShared, SocketsOfAConnectionSendAtOnce)
{
    const bridge_fd of_the_library(socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(sends_at_once(of_the_library.get()), 0);
    ASSERT_EQ(bridge_mqtt_connect(NS), 0);
    EXPECT_EQ(sends_at_once(of_the_library.get()), 1);
}

TEST_F(BridgeMqttShared, ProgramsDoNotInheritTheSocketsOfAConnection)
{
    const bridge_fd of_the_library(socket(AF_INET, SOCK_STREAM, 0));
    const bridge_fd other(fcntl(STDERR_FILENO, F_DUPFD, 3));
    ASSERT_EQ(bridge_mqtt_connect(NS), 0);
    EXPECT_EQ(fcntl(of_the_library.get(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(other.get(), F_GETFD), 0);
}

TEST_F(BridgeMqttShared, ThreeEndpointsShareOneClientAndOneConnection)
{
    EXPECT_EQ(bridge_mqtt_connect(NS), 0);
    EXPECT_THAT(fake_mqtt_take_calls(),
                ElementsAre("create tcp://server:1883 as gw-1", "callbacks #1", "connect #1"));
    EXPECT_EQ(fake_mqtt_context(1), &mqtt_ctx.ep_handles[0]);
    log.lines();

    EXPECT_EQ(bridge_mqtt_connect(OAM), 0);
    EXPECT_THAT(log.lines(), ElementsAre("DEBUG connecting [1] endpoint",
                                         "DEBUG adding endpoint to already connected group"));
    EXPECT_EQ(bridge_mqtt_connect(GEOLOC), 0);
    EXPECT_THAT(fake_mqtt_take_calls(), IsEmpty());
    EXPECT_EQ(fake_mqtt_connected_looks(), 2);
    EXPECT_EQ(connected_bits(0), 7U);
}

TEST_F(BridgeMqttSeparate, EachServerHasItsOwnClient)
{
    EXPECT_EQ(bridge_mqtt_connect(GEOLOC), 0);
    EXPECT_EQ(bridge_mqtt_connect(NS), 0);
    EXPECT_THAT(fake_mqtt_take_calls(),
                ElementsAre("create tcp://geoloc:1883 as gw-1", "callbacks #1", "connect #1",
                            "create tcp://ns:1883 as gw-1", "callbacks #2", "connect #2"));
    EXPECT_EQ(fake_mqtt_context(1), &mqtt_ctx.ep_handles[2]);
    EXPECT_EQ(connected_bits(0), 1U);
    EXPECT_EQ(connected_bits(1), 0U);
    EXPECT_EQ(connected_bits(2), 4U);
    EXPECT_EQ(publish(OAM), -1);
}

TEST_F(BridgeMqttShared, ConnectedEndpointIsRefusedASecondTimeAndStaysConnected)
{
    ASSERT_EQ(bridge_mqtt_connect(NS), 0);
    fake_mqtt_take_calls();
    log.lines();
    EXPECT_EQ(bridge_mqtt_connect(NS), -1);
    EXPECT_THAT(log.lines(),
                ElementsAre("DEBUG connecting [0] endpoint", "ERROR endpoint: [0] is already connected"));
    EXPECT_THAT(fake_mqtt_take_calls(), IsEmpty());
    EXPECT_EQ(publish(NS), 0);
}

/* The flags of the table outlive the manager. */
TEST_F(BridgeMqttShared, EndpointEnabledInAnEarlierLifeHasNoGroupToConnect)
{
    ASSERT_EQ(bridge_mqtt_deinit(), 0);
    test_settings[GEOLOC].enabled = false;
    ASSERT_EQ(bridge_mqtt_init(on_test_connection_lost), 0);
    EXPECT_TRUE(bridge_mqtt_is_ep_enabled(GEOLOC));
    log.lines();
    EXPECT_EQ(bridge_mqtt_connect(GEOLOC), -1);
    EXPECT_THAT(log.lines(), ElementsAre("DEBUG connecting [2] endpoint",
                                         "ERROR no handle exists for given endpoint: [2]"));
    EXPECT_THAT(fake_mqtt_take_calls(), IsEmpty());
}

/* ---- options ---- */

TEST_F(BridgeMqtt, OptionsAreTheLibrarysButForThoseOfTheConfiguration)
{
    test_settings[NS] = {"ssl://ns:8883", "gw", "secret", "/etc/key.pem", "/etc/cert.pem", true, true};
    test_config_set_keepalive(37);
    ASSERT_EQ(bridge_mqtt_init(on_test_connection_lost), 0);
    log.lines();
    ASSERT_EQ(bridge_mqtt_connect(NS), 0);
    const fake_connect_options options = fake_mqtt_last_options();

    EXPECT_EQ(memcmp(options.plain.struct_id, "MQTC", 4), 0);
    EXPECT_EQ(options.plain.struct_version, 8);
    EXPECT_EQ(options.plain.keepAliveInterval, 37);
    EXPECT_EQ(options.plain.cleansession, 1);
    EXPECT_EQ(options.plain.reliable, 0);
    EXPECT_EQ(options.plain.will, nullptr);
    EXPECT_EQ(options.plain.connectTimeout, 30);
    EXPECT_EQ(options.plain.retryInterval, 0);
    EXPECT_EQ(options.plain.MQTTVersion, MQTTVERSION_DEFAULT);
    EXPECT_EQ(options.plain.maxInflightMessages, -1);
    EXPECT_EQ(options.plain.serverURIcount, 0);
    EXPECT_EQ(options.plain.binarypwd.data, nullptr);
    EXPECT_EQ(options.user, "gw");
    EXPECT_EQ(options.password, "secret");

    ASSERT_TRUE(options.has_tls);
    EXPECT_EQ(memcmp(options.tls.struct_id, "MQTS", 4), 0);
    EXPECT_EQ(options.tls.struct_version, 5);
    EXPECT_EQ(options.key_store, "/etc/cert.pem");
    EXPECT_EQ(options.private_key, "/etc/key.pem");
    EXPECT_EQ(options.tls.enableServerCertAuth, 1);
    EXPECT_EQ(options.tls.verify, 1);
    EXPECT_EQ(options.tls.trustStore, nullptr);
    EXPECT_EQ(options.tls.CApath, nullptr);
    EXPECT_EQ(options.tls.privateKeyPassword, nullptr);
    EXPECT_EQ(options.tls.enabledCipherSuites, nullptr);
    EXPECT_EQ(options.tls.sslVersion, MQTT_SSL_VERSION_DEFAULT);
    EXPECT_THAT(log.lines(), ElementsAre("DEBUG connecting [0] endpoint"));
}

TEST_F(BridgeMqtt, EmptyTextsAreCredentialsButNoFilesAndPlainTcpHasTlsOptionsToo)
{
    test_settings[NS] = {"tcp://ns:1883", "", "", "", "", false, true};
    ASSERT_EQ(bridge_mqtt_init(on_test_connection_lost), 0);
    log.lines();
    ASSERT_EQ(bridge_mqtt_connect(NS), 0);
    const fake_connect_options options = fake_mqtt_last_options();
    EXPECT_EQ(options.user, "");
    EXPECT_EQ(options.password, "");
    ASSERT_TRUE(options.has_tls);
    EXPECT_EQ(options.key_store, std::nullopt);
    EXPECT_EQ(options.private_key, std::nullopt);
    EXPECT_EQ(options.tls.enableServerCertAuth, 0);
    EXPECT_EQ(options.tls.verify, 0);
    EXPECT_THAT(log.lines(),
                ElementsAre("DEBUG connecting [0] endpoint", "WARN skipping server certificate validation"));
}

TEST_F(BridgeMqttShared, TlsErrorIsLoggedAsItStands)
{
    ASSERT_EQ(bridge_mqtt_connect(NS), 0);
    const fake_connect_options options = fake_mqtt_last_options();
    ASSERT_NE(options.tls.ssl_error_cb, nullptr);
    log.lines();
    const char *text = "certificate verify failed 100%s";
    EXPECT_EQ(options.tls.ssl_error_cb(text, strlen(text), nullptr), 0);
    EXPECT_THAT(log.lines(), ElementsAre("ERROR certificate verify failed 100%s"));
}

/* ---- failures ---- */

TEST_F(BridgeMqttShared, FailedConnectLeavesNoClientAndTheNextOneStartsAnew)
{
    static const struct {
        const char *verb;
        int code;
        int result;
        std::vector<std::string> calls;
        std::vector<std::string> lines;
    } cases[] = {
        {"create", -9, -9, {"create tcp://server:1883 as gw-1"}, {}},
        {"create", 5, 5, {"create tcp://server:1883 as gw-1"}, {}},
        {"callbacks",
         -1,
         -1,
         {"create tcp://server:1883 as gw-1", "callbacks #1", "destroy #1"},
         {"ERROR failed to set callbacks for endpoints [0x7]",
          "DEBUG destroying MQTT handle in connect call"}},
        {"callbacks",
         3,
         3,
         {"create tcp://server:1883 as gw-1", "callbacks #2", "destroy #2"},
         {"ERROR failed to set callbacks for endpoints [0x7]",
          "DEBUG destroying MQTT handle in connect call"}},
        {"connect",
         5,
         -1,
         {"create tcp://server:1883 as gw-1", "callbacks #3", "connect #3", "destroy #3"},
         {"ERROR failed to connect with MQTT code: [5]", "DEBUG destroying MQTT handle in connect call"}},
        {"connect",
         -1,
         -1,
         {"create tcp://server:1883 as gw-1", "callbacks #4", "connect #4", "destroy #4"},
         {"ERROR failed to connect with MQTT code: [-1]", "DEBUG destroying MQTT handle in connect call"}},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(std::string(row.verb) + " " + std::to_string(row.code));
        fake_mqtt_script(row.verb, {row.code});
        EXPECT_EQ(bridge_mqtt_connect(NS), row.result);
        std::vector<std::string> lines = {"DEBUG connecting [0] endpoint"};
        lines.insert(lines.end(), row.lines.begin(), row.lines.end());
        EXPECT_EQ(log.lines(), lines);
        EXPECT_EQ(fake_mqtt_take_calls(), row.calls);
        EXPECT_EQ(mqtt_ctx.ep_handles[0].handle, nullptr);
        EXPECT_EQ(connected_bits(0), 0U);
        EXPECT_EQ(publish(NS), -1);
        log.lines();
    }
    EXPECT_EQ(bridge_mqtt_connect(NS), 0);
    EXPECT_EQ(publish(NS), 0);
}

TEST_F(BridgeMqttSeparate, FailedConnectLeavesOtherServersAlone)
{
    ASSERT_EQ(bridge_mqtt_connect(OAM), 0);
    fake_mqtt_script("connect", {4});
    EXPECT_EQ(bridge_mqtt_connect(NS), -1);
    EXPECT_EQ(publish(OAM), 0);
}

/* ---- lost connections ---- */

TEST_F(BridgeMqttShared, LossIsReportedWithItsGroupAndChangesNoBits)
{
    ASSERT_EQ(bridge_mqtt_connect(NS), 0);
    log.lines();
    fake_mqtt_lose(1, "keepalive 100%s");
    EXPECT_THAT(log.lines(), ElementsAre("WARN mqtt connection lost due to: keepalive 100%s"));
    fake_mqtt_lose(1, nullptr);
    EXPECT_THAT(log.lines(), ElementsAre("WARN mqtt connection lost"));
    const std::pair<int32_t, void *> report(0, &mqtt_ctx.ep_handles[0]);
    EXPECT_THAT(reported_losses(), ElementsAre(report, report));
    EXPECT_EQ(connected_bits(0), 1U);
}

TEST_F(BridgeMqttShared, LossIsReportedWhileACallIsInsideTheLibrary)
{
    ASSERT_EQ(bridge_mqtt_connect(NS), 0);
    fake_mqtt_on("publish", [] {
        background lost([] { fake_mqtt_lose(1, nullptr); });
        EXPECT_TRUE(lost.ends());
    });
    EXPECT_EQ(publish(NS), MQTTCLIENT_DISCONNECTED);
    EXPECT_EQ(reported_losses().size(), 1U);
}

TEST_F(BridgeMqttShared, StaleUsersEndWhenTheSecondEndpointConnectsFirst)
{
    ASSERT_EQ(bridge_mqtt_connect(NS), 0);
    fake_mqtt_lose(1, nullptr);
    fake_mqtt_take_calls();
    log.lines();

    EXPECT_EQ(bridge_mqtt_connect(OAM), 0);
    EXPECT_THAT(log.lines(), Contains("WARN endpoint group: [0] seems not participating in MQTT connection"));
    EXPECT_THAT(fake_mqtt_take_calls(), ElementsAre("connect #1"));
    EXPECT_EQ(connected_bits(0), 2U);
    EXPECT_EQ(publish(NS), -1);

    EXPECT_EQ(bridge_mqtt_connect(NS), 0);
    EXPECT_EQ(connected_bits(0), 3U);
    EXPECT_THAT(fake_mqtt_take_calls(), IsEmpty());
}

TEST_F(BridgeMqttSeparate, WarningNamesTheGroupByItsIndex)
{
    test_settings[OAM] = test_settings[GEOLOC];
    ASSERT_EQ(bridge_mqtt_deinit(), 0);
    ASSERT_EQ(bridge_mqtt_init(on_test_connection_lost), 0); /* NS; OAM and GEOLOC */
    ASSERT_EQ(bridge_mqtt_connect(OAM), 0);
    fake_mqtt_lose(1, nullptr);
    log.lines();
    EXPECT_EQ(bridge_mqtt_connect(GEOLOC), 0);
    EXPECT_THAT(log.lines(), Contains("WARN endpoint group: [1] seems not participating in MQTT connection"));
}

TEST_F(BridgeMqttShared, FailedReconnectOverStaleUsersLeavesNone)
{
    ASSERT_EQ(bridge_mqtt_connect(NS), 0);
    fake_mqtt_lose(1, nullptr);
    fake_mqtt_take_calls();
    fake_mqtt_script("connect", {-1});
    EXPECT_EQ(bridge_mqtt_connect(OAM), -1);
    EXPECT_THAT(fake_mqtt_take_calls(), ElementsAre("connect #1", "destroy #1"));
    EXPECT_EQ(connected_bits(0), 0U);
}

TEST_F(BridgeMqttShared, StillMarkedEndpointIsRefusedAfterALoss)
{
    ASSERT_EQ(bridge_mqtt_connect(NS), 0);
    fake_mqtt_lose(1, nullptr);
    EXPECT_EQ(bridge_mqtt_connect(NS), -1);
    EXPECT_EQ(bridge_mqtt_disconnect(NS), MQTTCLIENT_DISCONNECTED);
    EXPECT_EQ(bridge_mqtt_connect(NS), 0);
}

/* ---- disconnecting ---- */

TEST_F(BridgeMqttShared, ClientStaysUpForTheSecondUserAndEndsWithTheLast)
{
    ASSERT_EQ(bridge_mqtt_connect(NS), 0);
    ASSERT_EQ(bridge_mqtt_connect(OAM), 0);
    ASSERT_EQ(subscribe(NS, "ns/down"), 0);
    ASSERT_EQ(subscribe(OAM, "oam/cmd"), 0);
    ASSERT_EQ(subscribe(NS, "ns/ack"), 0);
    fake_mqtt_take_calls();
    log.lines();

    EXPECT_EQ(bridge_mqtt_disconnect(NS), 0);
    EXPECT_THAT(fake_mqtt_take_calls(), IsEmpty());
    EXPECT_THAT(log.lines(), ElementsAre("DEBUG disconnecting [0] endpoint",
                                         "TRACE endpoint: [0] is found in endpoint group [0x3]",
                                         "TRACE endpoint: [0] is found in endpoint group [0x7]"));
    EXPECT_EQ(mqtt_ctx.free_subs, 127U);
    EXPECT_EQ(mqtt_ctx.subs[0].topic, nullptr);
    EXPECT_STREQ(mqtt_ctx.subs[1].topic, "oam/cmd");
    EXPECT_EQ(mqtt_ctx.subs[2].topic, nullptr);
    EXPECT_EQ(publish(NS), -1);
    EXPECT_EQ(publish(OAM), 0);
    fake_mqtt_take_calls();
    log.lines();

    EXPECT_EQ(bridge_mqtt_disconnect(OAM), 0);
    EXPECT_THAT(fake_mqtt_take_calls(), ElementsAre("disconnect #1 in 1000", "destroy #1"));
    EXPECT_THAT(log.lines(), Contains("DEBUG destroying MQTT handle in disconnect call"));
    EXPECT_EQ(mqtt_ctx.free_subs, 128U);
    EXPECT_EQ(mqtt_ctx.ep_handles[0].handle, nullptr);
}

TEST_F(BridgeMqttShared, FailedDisconnectIsReportedAndDestroysAllTheSame)
{
    ASSERT_EQ(bridge_mqtt_connect(NS), 0);
    ASSERT_EQ(subscribe(NS, "ns/down"), 0);
    fake_mqtt_take_calls();
    log.lines();
    fake_mqtt_script("disconnect", {-3});
    EXPECT_EQ(bridge_mqtt_disconnect(NS), -3);
    EXPECT_THAT(log.lines(), Contains("DEBUG failed to disconnect from MQTT with code: [-3]"));
    EXPECT_THAT(fake_mqtt_take_calls(), ElementsAre("disconnect #1 in 1000", "destroy #1"));
    EXPECT_EQ(mqtt_ctx.free_subs, 128U);
}

TEST_F(BridgeMqttShared, EndpointThatNeverConnectedIsDisconnectedInVain)
{
    EXPECT_EQ(bridge_mqtt_disconnect(NS), 0);
    ASSERT_EQ(bridge_mqtt_connect(OAM), 0);
    fake_mqtt_take_calls();
    EXPECT_EQ(bridge_mqtt_disconnect(NS), 0);
    EXPECT_THAT(fake_mqtt_take_calls(), IsEmpty());
    EXPECT_EQ(publish(OAM), 0);
}
