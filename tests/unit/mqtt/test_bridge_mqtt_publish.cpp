/* Publishing: what reaches the library, and the pace at which it does. */
#include "mqtt/mqtt_fixture.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

static constexpr auto NS = BRIDGE_MQTT_EP_NS;
static constexpr auto OAM = BRIDGE_MQTT_EP_OAM;
static constexpr int LIMIT = 10;
static constexpr const char *NOTE =
    "DEBUG publish message size is too big (> 2 KB), and may not get written to the log";

class BridgeMqttPublish : public BridgeMqttSeparate
{
  protected:
    void SetUp() override
    {
        BridgeMqttSeparate::SetUp();
        ASSERT_EQ(bridge_mqtt_connect(NS), 0);
        fake_mqtt_take_calls();
        log.lines();
    }
};

TEST_F(BridgeMqttPublish, MessageGoesOutWithQos1AndWithoutAToken)
{
    static constexpr char payload[] = {'a', '\0', 'b'};
    EXPECT_EQ(bridge_mqtt_publish(NS, "gw/up", payload, sizeof(payload), false), 0);
    EXPECT_EQ(bridge_mqtt_publish(NS, "gw/state", "on", 2, true), 0);
    EXPECT_THAT(fake_mqtt_take_calls(),
                ElementsAre("publish #1 gw/up qos 1 " + std::string(payload, sizeof(payload)),
                            "publish #1 gw/state qos 1 retained on"));
    EXPECT_THAT(log.lines(), ElementsAre("DEBUG publish for [0] endpoint, with size: 3",
                                         "TRACE endpoint: [0] is found in endpoint group [0x1]",
                                         "DEBUG publish for [0] endpoint, with size: 2",
                                         "TRACE endpoint: [0] is found in endpoint group [0x1]"));
}

TEST_F(BridgeMqttPublish, SizeAbove2048IsNotedAndSent)
{
    static constexpr struct {
        size_t size;
        bool noted;
    } cases[] = {{1, false}, {2048, false}, {2049, true}, {1'000'000, true}};
    for (const auto &row : cases) {
        SCOPED_TRACE(row.size);
        EXPECT_EQ(publish(NS, "up", std::string(row.size, 'x')), 0);
        EXPECT_EQ(fake_mqtt_take_calls().size(), 1U);
        const std::vector<std::string> lines = log.lines();
        EXPECT_THAT(lines,
                    Contains("DEBUG publish for [0] endpoint, with size: " + std::to_string(row.size)));
        if (row.noted)
            EXPECT_THAT(lines, Contains(NOTE));
        else
            EXPECT_THAT(lines, Not(Contains(NOTE)));
    }
}

TEST_F(BridgeMqttPublish, EndpointWithoutAConnectionIsRefused)
{
    EXPECT_EQ(publish(OAM), -1);
    EXPECT_THAT(log.lines(), ElementsAre("DEBUG publish for [1] endpoint, with size: 1",
                                         "ERROR no connected handle exists for given endpoint: [1]"));
    EXPECT_THAT(fake_mqtt_take_calls(), IsEmpty());
}

TEST_F(BridgeMqttPublish, FailureOfTheLibraryIsHandedOn)
{
    for (const int code : {-1, -3, 4}) {
        fake_mqtt_script("publish", {code});
        EXPECT_EQ(publish(NS), code);
        EXPECT_THAT(log.lines(), Contains("ERROR can't publish a message to the endpoint: [0] with error: [" +
                                          std::to_string(code) + "]"));
    }
    EXPECT_EQ(publish(NS), 0);
}

TEST_F(BridgeMqttPublish, PublishesOfAllThreadsAreSerialised)
{
    std::atomic<int> inside = 0;
    std::atomic<int> most = 0;
    fake_mqtt_on("publish", [&inside, &most] {
        const int now = ++inside;
        most = std::max(most.load(), now);
        std::this_thread::yield();
        --inside;
    });
    {
        const auto publish_many = [] {
            for (int i = 0; i < 200; i++)
                EXPECT_EQ(publish(NS), 0);
        };
        background first(publish_many);
        background second(publish_many);
    }
    EXPECT_EQ(most, 1);
    EXPECT_EQ(fake_mqtt_take_calls().size(), 400U);
}

/* ---- pace ---- */

TEST_F(BridgeMqttPublish, TokensAreAskedForOnceInTenPublishes)
{
    for (int sent = 1; sent <= 3 * LIMIT; sent++) {
        ASSERT_EQ(publish(NS), 0);
        EXPECT_EQ(fake_mqtt_token_looks(), (sent + LIMIT - 1) / LIMIT) << sent;
    }
}

TEST_F(BridgeMqttPublish, OnlyTheRoomThatIsLeftIsUsedBeforeTheNextLook)
{
    fake_mqtt_hold_acknowledgements();
    for (int i = 0; i < LIMIT; i++)
        ASSERT_EQ(publish(NS), 0);
    EXPECT_EQ(fake_mqtt_token_looks(), 1);
    fake_mqtt_acknowledge(4);
    for (int i = 0; i < 4; i++)
        ASSERT_EQ(publish(NS), 0);
    EXPECT_EQ(fake_mqtt_token_looks(), 2);
    fake_mqtt_acknowledge(LIMIT);
    ASSERT_EQ(publish(NS), 0);
    EXPECT_EQ(fake_mqtt_token_looks(), 3);
}

TEST_F(BridgeMqttPublish, TheEleventhWaitsForAnAcknowledgement)
{
    fake_mqtt_hold_acknowledgements();
    for (int i = 0; i < LIMIT; i++)
        ASSERT_EQ(publish(NS), 0);
    fake_mqtt_take_calls();
    background eleventh([] { EXPECT_EQ(publish(NS, "up", "eleventh"), 0); });
    EXPECT_TRUE(wait_until([] { return fake_mqtt_token_looks() > 20; }));
    EXPECT_FALSE(eleventh.has_ended());
    EXPECT_THAT(fake_mqtt_take_calls(), IsEmpty());

    fake_mqtt_acknowledge(1);
    EXPECT_TRUE(eleventh.ends());
    EXPECT_THAT(fake_mqtt_take_calls(), ElementsAre("publish #1 up qos 1 eleventh"));
}

TEST_F(BridgeMqttPublish, LooksGrowRarerWhileItWaits)
{
    fake_mqtt_hold_acknowledgements();
    for (int i = 0; i < LIMIT; i++)
        ASSERT_EQ(publish(NS), 0);
    test_forget_waits_us();
    background eleventh([] { EXPECT_EQ(publish(NS), 0); });
    EXPECT_TRUE(wait_until([] { return fake_mqtt_token_looks() > 30; }));
    EXPECT_FALSE(eleventh.has_ended());
    fake_mqtt_acknowledge(1);
    EXPECT_TRUE(eleventh.ends());

    const std::vector<uint32_t> waits = test_waits_us();
    ASSERT_GE(waits.size(), 25U);
    EXPECT_EQ(waits[0], 50U);
    for (size_t i = 1; i < waits.size(); i++)
        EXPECT_EQ(waits[i], std::min(waits[i - 1] * 5 / 4, 5000U)) << i;
    EXPECT_EQ(waits.back(), 5000U);

    test_forget_waits_us();
    background next([] { EXPECT_EQ(publish(NS), 0); });
    EXPECT_TRUE(wait_until([] { return !test_waits_us().empty(); }));
    fake_mqtt_acknowledge(1);
    EXPECT_TRUE(next.ends());
    EXPECT_EQ(test_waits_us()[0], 50U);
}

TEST_F(BridgeMqttPublish, WaitEndsWithTheConnection)
{
    fake_mqtt_hold_acknowledgements();
    for (int i = 0; i < LIMIT; i++)
        ASSERT_EQ(publish(NS), 0);
    background eleventh([] { EXPECT_EQ(publish(NS), MQTTCLIENT_DISCONNECTED); });
    EXPECT_TRUE(wait_until([] { return fake_mqtt_token_looks() > 5; }));
    EXPECT_FALSE(eleventh.has_ended());
    fake_mqtt_lose(1, nullptr);
    EXPECT_TRUE(eleventh.ends());
}

TEST_F(BridgeMqttPublish, WaitEndsWithTheManager)
{
    fake_mqtt_hold_acknowledgements();
    for (int i = 0; i < LIMIT; i++)
        ASSERT_EQ(publish(NS), 0);
    fake_mqtt_take_calls();
    background eleventh([] { EXPECT_EQ(publish(NS), -1); });
    EXPECT_TRUE(wait_until([] { return fake_mqtt_token_looks() > 5; }));
    EXPECT_EQ(bridge_mqtt_deinit(), 0);
    EXPECT_TRUE(eleventh.ends());
    EXPECT_THAT(fake_mqtt_take_calls(), ElementsAre("destroy #1"));
}

TEST_F(BridgeMqttPublish, NewConnectionIsLookedAtBeforeItsFirstPublish)
{
    ASSERT_EQ(publish(NS), 0);
    fake_mqtt_lose(1, nullptr);
    ASSERT_EQ(bridge_mqtt_disconnect(NS), MQTTCLIENT_DISCONNECTED);
    ASSERT_EQ(bridge_mqtt_connect(NS), 0);
    ASSERT_EQ(publish(NS), 0);
    EXPECT_EQ(fake_mqtt_token_looks(), 2);
}

/* ---- the end of the process ---- */

TEST_F(BridgeMqttPublish, CallThatWaitedForTheLockDuringDeinitFindsNoConnection)
{
    gate server;
    fake_mqtt_on("publish", [&server] { EXPECT_TRUE(server.wait()); });
    background inside([] { EXPECT_EQ(publish(NS), 0); });
    ASSERT_TRUE(wait_until([&server] { return server.is_waited_for(); }));
    background behind([] { EXPECT_EQ(publish(NS), -1); });
    EXPECT_TRUE(behind.blocks());
    background deinit([] { EXPECT_EQ(bridge_mqtt_deinit(), 0); });
    EXPECT_TRUE(wait_until([] { return mqtt_ctx.torn_down.load(); }));
    server.open();
    EXPECT_TRUE(inside.ends());
    EXPECT_TRUE(behind.ends());
    EXPECT_TRUE(deinit.ends());
}

/* The manager is left half torn down, so this happens in a process of its own. */
static bool gives_up_on_a_publish_that_stays()
{
    gate server;
    fake_mqtt_on("publish", [&server] { server.wait(); });
    bridge_mqtt_init(on_test_connection_lost);
    bridge_mqtt_connect(NS);
    background stuck([] { publish(NS); });
    bool good = wait_until([&server] { return server.is_waited_for(); });
    fake_mqtt_take_calls();
    good = good && bridge_mqtt_deinit() == -1 && publish(NS) == -1 && fake_mqtt_take_calls().empty();
    good = good && wait_until([] { return !is_delivery_thread_alive(); });
    server.open();
    return good && stuck.ends();
}

TEST_F(BridgeMqttDeath, DeinitGivesUpOnAPublishThatStaysInTheLibrary)
{
    EXPECT_EXIT(_exit(gives_up_on_a_publish_that_stays() ? 0 : 1), testing::ExitedWithCode(0), "");
}

/* ---- programming faults ---- */

TEST_F(BridgeMqttDeath, ArgumentsOfAPublishAreAsserted)
{
    const auto initialised = [](const auto &call) {
        bridge_mqtt_init(on_test_connection_lost);
        call();
    };
    EXPECT_ASSERTION(initialised([] { bridge_mqtt_publish(NS, nullptr, "x", 1, false); }), "topic != NULL");
    EXPECT_ASSERTION(initialised([] { bridge_mqtt_publish(NS, "up", nullptr, 1, false); }),
                     "payload != NULL");
    EXPECT_ASSERTION(initialised([] { bridge_mqtt_publish(NS, "up", "", 0, false); }), "payload_size > 0");
}
