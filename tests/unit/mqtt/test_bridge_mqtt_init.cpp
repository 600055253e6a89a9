/* Which endpoints share a client, and calls outside the manager's life. Geolocation stays disabled in every
 * test here but those of a process of their own: an endpoint's flag outlives the manager. */
#include "mqtt/mqtt_fixture.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

static constexpr uint32_t NS_BIT = 1U << BRIDGE_MQTT_EP_NS;
static constexpr uint32_t OAM_BIT = 1U << BRIDGE_MQTT_EP_OAM;

static std::vector<uint32_t> groups()
{
    std::vector<uint32_t> bits;
    for (const bridge_mqtt_ep_group &group : mqtt_ctx.ep_handles)
        bits.push_back(group.ep_bits);
    return bits;
}

class BridgeMqttInit : public BridgeMqtt
{
  protected:
    void SetUp() override
    {
        BridgeMqtt::SetUp();
        test_settings[BRIDGE_MQTT_EP_GEOLOC].enabled = false;
    }
};

TEST_F(BridgeMqttInit, EqualSettingsMakeOneGroup)
{
    ASSERT_EQ(bridge_mqtt_init(on_test_connection_lost), 0);
    EXPECT_THAT(groups(), ElementsAre(NS_BIT | OAM_BIT, 0, 0));
    EXPECT_THAT(log.lines(),
                ElementsAre("DEBUG initializing MQTT subsystem",
                            "TRACE creating new endpoint group [0] with bit [0x1]",
                            "TRACE uri: tcp://server:1883, user: ****, pass: ****, pkey_path: <empty>, "
                            "cert_path: <empty>, validate_server_cert: yes",
                            "TRACE merging [0x2] endpoint with existing group [0]. resulting bits: [0x3]"));
    EXPECT_THAT(fake_mqtt_take_calls(), IsEmpty());
    EXPECT_EQ(mqtt_ctx.free_subs, 128U);
}

TEST_F(BridgeMqttInit, EachOfTheSixValuesAloneMakesAnotherGroup)
{
    static constexpr struct {
        const char *what;
        void (*change)(endpoint_settings *);
    } cases[] = {
        {"uri", [](endpoint_settings *oam) { oam->uri = "tcp://server:1884"; }},
        {"case of the uri", [](endpoint_settings *oam) { oam->uri = "tcp://Server:1883"; }},
        {"user", [](endpoint_settings *oam) { oam->user = "gw2"; }},
        {"empty user", [](endpoint_settings *oam) { oam->user = ""; }},
        {"pass", [](endpoint_settings *oam) { oam->pass = "secrets"; }},
        {"private key", [](endpoint_settings *oam) { oam->pkey_path = "/etc/key"; }},
        {"certificate", [](endpoint_settings *oam) { oam->cert_path = "/etc/cert"; }},
        {"validation", [](endpoint_settings *oam) { oam->validates = false; }},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.what);
        test_settings[BRIDGE_MQTT_EP_OAM] = endpoint_settings::common();
        row.change(&test_settings[BRIDGE_MQTT_EP_OAM]);
        ASSERT_EQ(bridge_mqtt_init(on_test_connection_lost), 0);
        EXPECT_THAT(groups(), ElementsAre(NS_BIT, OAM_BIT, 0));
        EXPECT_THAT(log.lines(), Contains("TRACE creating new endpoint group [1] with bit [0x2]"));
        EXPECT_EQ(bridge_mqtt_deinit(), 0);
    }
}

TEST_F(BridgeMqttInit, EqualTextsAtOtherAddressesMerge)
{
    const std::string uri = "tcp://server:1883";
    test_settings[BRIDGE_MQTT_EP_OAM].uri = uri.c_str();
    ASSERT_EQ(bridge_mqtt_init(on_test_connection_lost), 0);
    EXPECT_THAT(groups(), ElementsAre(NS_BIT | OAM_BIT, 0, 0));
}

TEST_F(BridgeMqttInit, GroupIsLoggedWithoutSecrets)
{
    test_settings[BRIDGE_MQTT_EP_OAM] = {"ssl://oam:8883", "", "", "/k", "/c", false, true};
    ASSERT_EQ(bridge_mqtt_init(on_test_connection_lost), 0);
    const std::vector<std::string> lines = log.lines();
    EXPECT_THAT(lines, Contains("TRACE uri: ssl://oam:8883, user: <empty>, pass: <empty>, pkey_path: /k, "
                                "cert_path: /c, validate_server_cert: no"));
    EXPECT_THAT(lines, Not(Contains(testing::HasSubstr("secret"))));
}

TEST_F(BridgeMqttInit, DisabledEndpointIsInNoGroup)
{
    ASSERT_EQ(bridge_mqtt_init(on_test_connection_lost), 0);
    EXPECT_TRUE(bridge_mqtt_is_ep_enabled(BRIDGE_MQTT_EP_NS));
    EXPECT_TRUE(bridge_mqtt_is_ep_enabled(BRIDGE_MQTT_EP_OAM));
    EXPECT_FALSE(bridge_mqtt_is_ep_enabled(BRIDGE_MQTT_EP_GEOLOC));
    log.lines();

    EXPECT_EQ(bridge_mqtt_connect(BRIDGE_MQTT_EP_GEOLOC), -1);
    EXPECT_THAT(log.lines(), ElementsAre("DEBUG connecting [2] endpoint",
                                         "ERROR endpoint [2] is disabled, connection failed"));
    EXPECT_EQ(bridge_mqtt_disconnect(BRIDGE_MQTT_EP_GEOLOC), -1);
    EXPECT_THAT(log.lines(), ElementsAre("DEBUG disconnecting [2] endpoint",
                                         "ERROR given endpoint: [2] not found in any group"));
    EXPECT_EQ(publish(BRIDGE_MQTT_EP_GEOLOC), -1);
    EXPECT_THAT(fake_mqtt_take_calls(), IsEmpty());
}

TEST_F(BridgeMqttInit, WithoutAnyEnabledEndpointItFailsAndStaysUninitialised)
{
    for (endpoint_settings &settings : test_settings)
        settings.enabled = false;
    EXPECT_EQ(bridge_mqtt_init(on_test_connection_lost), -1);
    EXPECT_THAT(log.lines(), ElementsAre("DEBUG initializing MQTT subsystem",
                                         "ERROR no endpoints are enabled, check your configuration"));
    EXPECT_FALSE(mqtt_ctx.initialized);
    EXPECT_FALSE(is_delivery_thread_alive());
}

static bool thread_creation_fails;

extern "C" {
int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*work)(void *),
                          void *argument);

int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*work)(void *),
                          void *argument)
{
    return thread_creation_fails ? EAGAIN : __real_pthread_create(thread, attributes, work, argument);
}
}

TEST_F(BridgeMqttInit, WithoutADeliveryThreadItFailsAndMayBeTriedAgain)
{
    thread_creation_fails = true;
    EXPECT_EQ(bridge_mqtt_init(on_test_connection_lost), -1);
    thread_creation_fails = false;
    EXPECT_FALSE(mqtt_ctx.initialized);
    EXPECT_THAT(log.lines(),
                Contains("ERROR failed to create MQTT delivery thread: Resource temporarily unavailable"));
    ASSERT_EQ(bridge_mqtt_init(on_test_connection_lost), 0);
    EXPECT_THAT(groups(), ElementsAre(NS_BIT | OAM_BIT, 0, 0));
}

TEST_F(BridgeMqttInit, DeinitDestroysEveryClientWithoutADisconnectAndEmptiesAll)
{
    test_settings[BRIDGE_MQTT_EP_OAM].uri = "tcp://oam:1883";
    ASSERT_EQ(bridge_mqtt_init(on_test_connection_lost), 0);
    ASSERT_EQ(bridge_mqtt_connect(BRIDGE_MQTT_EP_NS), 0);
    ASSERT_EQ(bridge_mqtt_connect(BRIDGE_MQTT_EP_OAM), 0);
    ASSERT_EQ(subscribe(BRIDGE_MQTT_EP_NS, "down"), 0);
    fake_mqtt_take_calls();
    log.lines();

    EXPECT_EQ(bridge_mqtt_deinit(), 0);
    EXPECT_THAT(log.lines(), ElementsAre("DEBUG de-initializing MQTT subsystem"));
    EXPECT_THAT(fake_mqtt_take_calls(), ElementsAre("destroy #1", "destroy #2"));
    EXPECT_THAT(groups(), ElementsAre(0, 0, 0));
    for (const bridge_mqtt_ep_group &group : mqtt_ctx.ep_handles) {
        EXPECT_EQ(group.handle, nullptr);
        EXPECT_EQ(group.connected_bits, 0U);
        EXPECT_EQ(group.uri, nullptr);
    }
    EXPECT_EQ(mqtt_ctx.subs[0].topic, nullptr);
    EXPECT_FALSE(mqtt_ctx.initialized);
}

/* The process ends with the planes running: their calls must not end it in another way. */
TEST_F(BridgeMqttInit, AfterDeinitEveryCallFailsQuietly)
{
    ASSERT_EQ(bridge_mqtt_init(on_test_connection_lost), 0);
    ASSERT_EQ(bridge_mqtt_connect(BRIDGE_MQTT_EP_NS), 0);
    ASSERT_EQ(bridge_mqtt_deinit(), 0);
    fake_mqtt_take_calls();
    log.lines();

    const char *topic = "down";
    uint32_t count = 1;
    EXPECT_EQ(bridge_mqtt_connect(BRIDGE_MQTT_EP_NS), -1);
    EXPECT_EQ(bridge_mqtt_disconnect(BRIDGE_MQTT_EP_NS), -1);
    EXPECT_EQ(publish(BRIDGE_MQTT_EP_NS), -1);
    EXPECT_EQ(subscribe(BRIDGE_MQTT_EP_NS, "down"), -1);
    EXPECT_EQ(bridge_mqtt_unsubscribe(BRIDGE_MQTT_EP_NS, &topic, &count), -1);
    EXPECT_TRUE(bridge_mqtt_is_ep_enabled(BRIDGE_MQTT_EP_NS));
    EXPECT_THAT(fake_mqtt_take_calls(), IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
}

/* A loss found just before the end of the process is reported by a thread that nobody waits for. */
TEST_F(BridgeMqttInit, LossThatIsReportedAfterDeinitReachesNobody)
{
    ASSERT_EQ(bridge_mqtt_init(on_test_connection_lost), 0);
    ASSERT_EQ(bridge_mqtt_connect(BRIDGE_MQTT_EP_NS), 0);
    MQTTClient_connectionLost *lost = fake_mqtt_lost_function(1);
    void *context = fake_mqtt_context(1);
    ASSERT_EQ(bridge_mqtt_deinit(), 0);
    GTEST_FLAG_SET(death_test_style, "fast");
    EXPECT_EXIT(
        {
            lost(context, nullptr);
            _exit(reported_losses().empty() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "mqtt connection lost");
}

TEST_F(BridgeMqttInit, MessageThatArrivesAfterDeinitStaysWithTheLibrary)
{
    ASSERT_EQ(bridge_mqtt_init(on_test_connection_lost), 0);
    ASSERT_EQ(bridge_mqtt_connect(BRIDGE_MQTT_EP_NS), 0);
    ASSERT_EQ(bridge_mqtt_deinit(), 0);
    EXPECT_EQ(fake_mqtt_arrive(1, "down", "late"), 0);
    fake_mqtt_reset();
}

/* ---- programming faults ---- */

TEST_F(BridgeMqttDeath, EveryCallBeforeInitIsAsserted)
{
    static constexpr const char *topic = "down";
    static uint32_t count = 1;
    EXPECT_ASSERTION(bridge_mqtt_deinit(), "mqtt_ctx.initialized");
    EXPECT_ASSERTION(bridge_mqtt_is_ep_enabled(BRIDGE_MQTT_EP_NS), "mqtt_ctx.initialized");
    EXPECT_ASSERTION(bridge_mqtt_connect(BRIDGE_MQTT_EP_NS), "mqtt_ctx.initialized");
    EXPECT_ASSERTION(bridge_mqtt_disconnect(BRIDGE_MQTT_EP_NS), "mqtt_ctx.initialized");
    EXPECT_ASSERTION(publish(BRIDGE_MQTT_EP_NS), "mqtt_ctx.initialized");
    EXPECT_ASSERTION(subscribe(BRIDGE_MQTT_EP_NS, "down"), "mqtt_ctx.initialized");
    EXPECT_ASSERTION(bridge_mqtt_unsubscribe(BRIDGE_MQTT_EP_NS, &topic, &count), "mqtt_ctx.initialized");
}

TEST_F(BridgeMqttDeath, CallAfterAFailedInitIsAsserted)
{
    for (endpoint_settings &settings : test_settings)
        settings.enabled = false;
    EXPECT_ASSERTION(
        {
            bridge_mqtt_init(on_test_connection_lost);
            bridge_mqtt_connect(BRIDGE_MQTT_EP_NS);
        },
        "mqtt_ctx.initialized");
}

TEST_F(BridgeMqttDeath, SecondInitIsAsserted)
{
    EXPECT_ASSERTION(
        {
            bridge_mqtt_init(on_test_connection_lost);
            bridge_mqtt_init(on_test_connection_lost);
        },
        "!mqtt_ctx.initialized");
}

TEST_F(BridgeMqttDeath, EndpointOutsideTheTableIsAsserted)
{
    EXPECT_ASSERTION(
        {
            bridge_mqtt_init(on_test_connection_lost);
            bridge_mqtt_is_ep_enabled(static_cast<bridge_mqtt_endpoint_t>(3));
        },
        "ep < COUNT_OF(ep_cfgs)");
}

/* A disabled endpoint's texts are read and asserted like the others'. */
TEST_F(BridgeMqttDeath, MissingTextIsAssertedByItsName)
{
    endpoint_settings &geoloc = test_settings[BRIDGE_MQTT_EP_GEOLOC];
    geoloc.enabled = false;
    const auto init_with = [&geoloc](const char *endpoint_settings::*text) {
        geoloc.*text = nullptr;
        bridge_mqtt_init(on_test_connection_lost);
    };
    EXPECT_ASSERTION(init_with(&endpoint_settings::uri), "uri");
    EXPECT_ASSERTION(init_with(&endpoint_settings::user), "user");
    EXPECT_ASSERTION(init_with(&endpoint_settings::pass), "pass");
    EXPECT_ASSERTION(init_with(&endpoint_settings::pkey_path), "pkey_path");
    EXPECT_ASSERTION(init_with(&endpoint_settings::cert_path), "cert_path");
}
