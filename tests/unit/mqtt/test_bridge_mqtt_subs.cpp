/* The table of subscriptions: what the server is asked, what is undone, and which rows get a message. */
#include "mqtt/mqtt_fixture.h"

#include <array>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

static constexpr auto NS = BRIDGE_MQTT_EP_NS;
static constexpr auto OAM = BRIDGE_MQTT_EP_OAM;

static size_t used_rows()
{
    size_t count = 0;
    for (const bridge_mqtt_sub &sub : mqtt_ctx.subs)
        count += sub.topic != nullptr ? 1 : 0;
    return count;
}

class BridgeMqttSubs : public BridgeMqttShared
{
  protected:
    void SetUp() override
    {
        BridgeMqttShared::SetUp();
        ASSERT_EQ(bridge_mqtt_connect(NS), 0);
        ASSERT_EQ(bridge_mqtt_connect(OAM), 0);
        fake_mqtt_take_calls();
        log.lines();
    }

    void TearDown() override
    {
        for (const bridge_mqtt_sub &sub : mqtt_ctx.subs)
            EXPECT_FALSE(sub.pending);
        BridgeMqttShared::TearDown();
    }

    /* What the handlers get of one message; a second message behind it tells that it is through. */
    static std::vector<std::string> receive(const std::string &topic, const std::string &payload)
    {
        const size_t before = delivered().size();
        const int ends_before = ends;
        EXPECT_EQ(subscribe(NS, "end", note_end), 0);
        EXPECT_EQ(fake_mqtt_arrive(1, topic, payload), 1);
        EXPECT_EQ(fake_mqtt_arrive(1, "end", ""), 1);
        EXPECT_TRUE(wait_until([ends_before] { return ends > ends_before; }));
        EXPECT_EQ(unsubscribe(NS, "end"), 0);
        const std::vector<std::string> all = delivered();
        return {all.begin() + static_cast<ptrdiff_t>(before), all.end()};
    }

  private:
    static inline std::atomic<int> ends = 0;

    static void note_end(const char *, void *, const uint8_t *, uint32_t)
    {
        ends++;
    }
};

/* ---- subscribing ---- */

TEST_F(BridgeMqttSubs, TopicsAreSubscribedInOrderWithQos2)
{
    static constexpr std::array<const char *, 3> topics = {"b", "a", "c/+"};
    EXPECT_EQ(bridge_mqtt_subscribe(NS, topics.data(), topics.size(), record_delivery, nullptr), 0);
    EXPECT_THAT(fake_mqtt_take_calls(),
                ElementsAre("subscribe #1 b qos 2", "subscribe #1 a qos 2", "subscribe #1 c/+ qos 2"));
    EXPECT_THAT(log.lines(),
                ElementsAre("DEBUG subscribe for [0] endpoint",
                            "TRACE endpoint: [0] is found in endpoint group [0x3]",
                            "TRACE subscribing for [b] topic", "TRACE subscribing for [b] topic complete",
                            "TRACE subscribing for [a] topic", "TRACE subscribing for [a] topic complete",
                            "TRACE subscribing for [c/+] topic",
                            "TRACE subscribing for [c/+] topic complete"));
    EXPECT_EQ(mqtt_ctx.free_subs, 125U);
    for (size_t i = 0; i < topics.size(); i++)
        EXPECT_EQ(mqtt_ctx.subs[i].topic, topics[i]); /* the text itself, not a copy */
}

TEST_F(BridgeMqttSubs, The129thIsRefusedWithoutACallToTheServer)
{
    std::array<const char *, 129> topics;
    topics.fill("t");
    EXPECT_EQ(bridge_mqtt_subscribe(NS, topics.data(), 129, record_delivery, nullptr), -1);
    EXPECT_THAT(fake_mqtt_take_calls(), IsEmpty());
    EXPECT_EQ(used_rows(), 0U);

    ASSERT_EQ(bridge_mqtt_subscribe(NS, topics.data(), 127, record_delivery, nullptr), 0);
    ASSERT_EQ(subscribe(OAM, "last"), 0);
    EXPECT_EQ(mqtt_ctx.free_subs, 0U);
    fake_mqtt_take_calls();
    log.lines();
    EXPECT_EQ(subscribe(NS, "one too many"), -1);
    EXPECT_THAT(log.lines(),
                ElementsAre("DEBUG subscribe for [0] endpoint", "ERROR no free subsriptions available"));
    EXPECT_THAT(fake_mqtt_take_calls(), IsEmpty());
}

TEST_F(BridgeMqttSubs, FailureOnTheThirdOfFiveLeavesNoRow)
{
    static constexpr std::array<const char *, 5> topics = {"a", "b", "c", "d", "e"};
    ASSERT_EQ(subscribe(OAM, "kept"), 0);
    fake_mqtt_take_calls();
    log.lines();
    fake_mqtt_script("subscribe", {0, 0, 128});
    fake_mqtt_script("unsubscribe", {-1, -1});
    EXPECT_EQ(bridge_mqtt_subscribe(NS, topics.data(), topics.size(), record_delivery, nullptr), -1);
    EXPECT_THAT(fake_mqtt_take_calls(),
                ElementsAre("subscribe #1 a qos 2", "subscribe #1 b qos 2", "subscribe #1 c qos 2",
                            "unsubscribe #1 a", "unsubscribe #1 b"));
    EXPECT_EQ(log.lines().back(), "ERROR failed to subscribe for topic: c with error: [128]");
    EXPECT_EQ(mqtt_ctx.free_subs, 127U);
    EXPECT_EQ(used_rows(), 1U);
    EXPECT_THAT(receive("a", "1"), IsEmpty());
    EXPECT_THAT(receive("kept", "2"), ElementsAre("kept=2"));
}

TEST_F(BridgeMqttSubs, DisconnectedEndpointCannotSubscribeOrUnsubscribe)
{
    const char *topic = "a";
    uint32_t count = 1;
    EXPECT_EQ(subscribe(BRIDGE_MQTT_EP_GEOLOC, topic), -1);
    EXPECT_THAT(log.lines(), ElementsAre("DEBUG subscribe for [2] endpoint",
                                         "ERROR no connected handle exists for given endpoint: [2]"));
    EXPECT_EQ(bridge_mqtt_unsubscribe(BRIDGE_MQTT_EP_GEOLOC, &topic, &count), -1);
    EXPECT_EQ(count, 0U);
    EXPECT_THAT(log.lines(), ElementsAre("DEBUG unsubscribe for [2] endpoint",
                                         "ERROR no connected handle exists for given endpoint: [2]"));
    EXPECT_THAT(fake_mqtt_take_calls(), IsEmpty());
    EXPECT_EQ(mqtt_ctx.free_subs, 128U);
}

/* A retained message comes before the server's answer. */
TEST_F(BridgeMqttSubs, MessageThatOvertakesTheAnswerOfTheServerIsDelivered)
{
    fake_mqtt_on("subscribe", [] {
        background library([] { EXPECT_EQ(fake_mqtt_arrive(1, "cfg", "retained"), 1); });
        EXPECT_TRUE(wait_for_deliveries(1));
    });
    EXPECT_EQ(subscribe(NS, "cfg"), 0);
    EXPECT_THAT(delivered(), ElementsAre("cfg=retained"));
}

/* The server's answer stands behind them in the same stream. */
TEST_F(BridgeMqttSubs, MessagesAreTakenAtOnceWhileTheServersAnswerIsAwaited)
{
    const auto flood = [] {
        test_question_began(std::chrono::milliseconds(20)); /* and is sent */
        background library([] {
            for (int i = 0; i < 50; i++)
                EXPECT_EQ(fake_mqtt_arrive(1, "cfg", std::to_string(i)), 1);
        });
        EXPECT_TRUE(library.ends());
    };
    fake_mqtt_on("subscribe", flood);
    fake_mqtt_on("unsubscribe", flood);
    const uint32_t rounds = test_wait_rounds();
    EXPECT_EQ(subscribe(NS, "cfg"), 0);
    EXPECT_EQ(unsubscribe(NS, "cfg"), 0);
    EXPECT_EQ(test_wait_rounds(), rounds);
}

/* ---- unsubscribing ---- */

TEST_F(BridgeMqttSubs, UnsubscribeCountsTheRowsNotTheTopics)
{
    ASSERT_EQ(subscribe(NS, "gw/down", record_delivery, "first"), 0);
    ASSERT_EQ(subscribe(NS, "GW/Down", record_delivery, "second"), 0);
    ASSERT_EQ(subscribe(OAM, "gw/down", record_delivery, "third"), 0);
    ASSERT_EQ(subscribe(NS, "gw/ack"), 0);
    fake_mqtt_take_calls();
    log.lines();

    static constexpr std::array<const char *, 3> topics = {"gw/DOWN", "unknown", "gw/ack"};
    uint32_t count = topics.size();
    EXPECT_EQ(bridge_mqtt_unsubscribe(NS, topics.data(), &count), 0);
    EXPECT_EQ(count, 3U);
    EXPECT_THAT(fake_mqtt_take_calls(),
                ElementsAre("unsubscribe #1 gw/DOWN", "unsubscribe #1 gw/DOWN", "unsubscribe #1 gw/ack"));
    EXPECT_THAT(log.lines(), ElementsAre("DEBUG unsubscribe for [0] endpoint",
                                         "TRACE endpoint: [0] is found in endpoint group [0x3]"));
    EXPECT_EQ(mqtt_ctx.free_subs, 127U);
    EXPECT_STREQ(mqtt_ctx.subs[2].topic, "gw/down");
    EXPECT_EQ(mqtt_ctx.subs[0].handler, nullptr);
    EXPECT_EQ(mqtt_ctx.subs[0].context, nullptr);
}

TEST_F(BridgeMqttSubs, FailedUnsubscribeTellsWhatWasReleasedBefore)
{
    static constexpr std::array<const char *, 3> topics = {"a", "b", "c"};
    ASSERT_EQ(bridge_mqtt_subscribe(NS, topics.data(), topics.size(), record_delivery, nullptr), 0);
    fake_mqtt_take_calls();
    fake_mqtt_script("unsubscribe", {0, 7});
    uint32_t count = topics.size();
    EXPECT_EQ(bridge_mqtt_unsubscribe(NS, topics.data(), &count), 7);
    EXPECT_EQ(count, 1U);
    EXPECT_THAT(fake_mqtt_take_calls(), ElementsAre("unsubscribe #1 a", "unsubscribe #1 b"));
    EXPECT_EQ(mqtt_ctx.free_subs, 126U);
    EXPECT_EQ(used_rows(), 2U);
}

TEST_F(BridgeMqttSubs, FirstFreeRowIsTakenAgain)
{
    ASSERT_EQ(subscribe(NS, "a"), 0);
    ASSERT_EQ(subscribe(NS, "b"), 0);
    ASSERT_EQ(unsubscribe(NS, "a"), 0);
    static constexpr std::array<const char *, 2> topics = {"c", "d"};
    ASSERT_EQ(bridge_mqtt_subscribe(OAM, topics.data(), topics.size(), record_delivery, nullptr), 0);
    EXPECT_STREQ(mqtt_ctx.subs[0].topic, "c");
    EXPECT_STREQ(mqtt_ctx.subs[1].topic, "b");
    EXPECT_STREQ(mqtt_ctx.subs[2].topic, "d");
    EXPECT_EQ(mqtt_ctx.subs[0].endpoint, OAM);
}

/* ---- matching ---- */

TEST_F(BridgeMqttSubs, TopicsMatchByEqualityIgnoringCase)
{
    ASSERT_EQ(subscribe(NS, "gw/a0b1/Down"), 0);
    ASSERT_EQ(subscribe(NS, "gw/+/down", record_delivery, "wildcard"), 0);
    ASSERT_EQ(subscribe(NS, "gw/#", record_delivery, "wildcard"), 0);
    static constexpr struct {
        const char *topic;
        bool matches;
    } cases[] = {
        {"gw/a0b1/Down", true}, {"GW/A0B1/DOWN", true}, {"gw/a0b1/down/", false},
        {"gw/a0b1/dow", false}, {"gw/x/down", false},   {"", false},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.topic);
        log.lines();
        const std::vector<std::string> got = receive(row.topic, "1");
        const std::string warning =
            std::string("WARN no handler found for topic: ") + row.topic + " and endpoint mask: [0x3]";
        if (row.matches) {
            EXPECT_THAT(got, ElementsAre(std::string(row.topic) + "=1"));
            EXPECT_THAT(log.lines(), Not(Contains(warning)));
        } else {
            EXPECT_THAT(got, IsEmpty());
            EXPECT_THAT(log.lines(), Contains(warning));
        }
    }
}

TEST_F(BridgeMqttSubs, EveryMatchingRowIsCalledInTableOrder)
{
    ASSERT_EQ(subscribe(OAM, "t", record_delivery, "oam"), 0);
    ASSERT_EQ(subscribe(NS, "t", record_delivery, "ns"), 0);
    ASSERT_EQ(subscribe(NS, "other", record_delivery, "other"), 0);
    ASSERT_EQ(subscribe(NS, "T", record_delivery, "ns again"), 0);
    EXPECT_THAT(receive("t", "1"), ElementsAre("t=1@oam", "t=1@ns", "t=1@ns again"));
}

TEST_F(BridgeMqttSubs, RowsOfAnotherGroupsEndpointGetNothing)
{
    ASSERT_EQ(bridge_mqtt_deinit(), 0);
    test_settings[OAM].uri = "tcp://oam:1883";
    ASSERT_EQ(bridge_mqtt_init(on_test_connection_lost), 0);
    ASSERT_EQ(bridge_mqtt_connect(NS), 0);  /* client 2 */
    ASSERT_EQ(bridge_mqtt_connect(OAM), 0); /* client 3 */
    ASSERT_EQ(subscribe(OAM, "t", record_delivery, "oam"), 0);
    ASSERT_EQ(subscribe(NS, "t", record_delivery, "ns"), 0);
    fake_mqtt_arrive(2, "t", "1");
    fake_mqtt_arrive(3, "t", "2");
    ASSERT_TRUE(wait_for_deliveries(2));
    EXPECT_THAT(delivered(), ElementsAre("t=1@ns", "t=2@oam"));
}

/* ---- handlers that use the manager ---- */

static void publish_and_change_subscriptions(const char *topic, void *context, const uint8_t *payload,
                                             uint32_t payload_size)
{
    EXPECT_EQ(publish(NS, "up", "answer"), 0);
    EXPECT_EQ(unsubscribe(NS, "t"), 0);
    EXPECT_EQ(subscribe(NS, "next"), 0);
    record_delivery(topic, context, payload, payload_size);
}

TEST_F(BridgeMqttSubs, HandlerMayPublishAndChangeTheTable)
{
    ASSERT_EQ(subscribe(NS, "t", publish_and_change_subscriptions), 0);
    ASSERT_EQ(subscribe(OAM, "t", record_delivery, "oam"), 0);
    fake_mqtt_take_calls();
    fake_mqtt_arrive(1, "t", "1");
    fake_mqtt_arrive(1, "t", "2");
    fake_mqtt_arrive(1, "next", "3");
    ASSERT_TRUE(wait_for_deliveries(4));
    EXPECT_THAT(delivered(), ElementsAre("t=1", "t=1@oam", "t=2@oam", "next=3"));
    EXPECT_THAT(fake_mqtt_take_calls(),
                ElementsAre("publish #1 up qos 1 answer", "unsubscribe #1 t", "subscribe #1 next qos 2"));
}

static void release_the_other(const char *topic, void *context, const uint8_t *payload, uint32_t payload_size)
{
    EXPECT_EQ(bridge_mqtt_disconnect(OAM), 0);
    record_delivery(topic, context, payload, payload_size);
}

TEST_F(BridgeMqttSubs, RowReleasedByAnEarlierHandlerIsNotCalled)
{
    ASSERT_EQ(subscribe(NS, "t", release_the_other), 0);
    ASSERT_EQ(subscribe(OAM, "t", record_delivery, "oam"), 0);
    EXPECT_THAT(receive("t", "1"), ElementsAre("t=1"));
}

/* ---- programming faults ---- */

TEST_F(BridgeMqttDeath, ArgumentsOfSubscriptionsAreAsserted)
{
    static constexpr const char *topic = "t";
    static uint32_t none = 0;
    static uint32_t one = 1;
    const auto initialised = [](const auto &call) {
        bridge_mqtt_init(on_test_connection_lost);
        call();
    };
    EXPECT_ASSERTION(initialised([] { bridge_mqtt_subscribe(NS, nullptr, 1, record_delivery, nullptr); }),
                     "topics != NULL");
    EXPECT_ASSERTION(initialised([] { bridge_mqtt_subscribe(NS, &topic, 1, nullptr, nullptr); }),
                     "handler != NULL");
    EXPECT_ASSERTION(initialised([] { bridge_mqtt_subscribe(NS, &topic, 0, record_delivery, nullptr); }),
                     "topics_size > 0");
    EXPECT_ASSERTION(initialised([] { bridge_mqtt_unsubscribe(NS, nullptr, &one); }), "topics != NULL");
    EXPECT_ASSERTION(initialised([] { bridge_mqtt_unsubscribe(NS, &topic, nullptr); }),
                     "topics_size != NULL");
    EXPECT_ASSERTION(initialised([] { bridge_mqtt_unsubscribe(NS, &topic, &none); }), "*topics_size > 0");
}
