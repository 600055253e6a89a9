/* The road of a message from the library's thread through the queue to the handlers, and what may happen to
 * its connection on the way. Calls of fake_mqtt_arrive on a thread of their own play the library's thread. */
#include "mqtt/mqtt_fixture.h"

#include <array>
#include <unistd.h>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

static constexpr auto NS = BRIDGE_MQTT_EP_NS;
static constexpr auto OAM = BRIDGE_MQTT_EP_OAM;

static thread_local bool malloc_fails;
static thread_local bool strdup_fails;
static thread_local gate *strdup_gate;

extern "C" {
void *__real_malloc(size_t size);
char *__real_strdup(const char *text);

void *__wrap_malloc(size_t size)
{
    return malloc_fails ? nullptr : __real_malloc(size);
}

char *__wrap_strdup(const char *text)
{
    if (strdup_gate != nullptr) {
        EXPECT_TRUE(strdup_gate->wait());
    }
    return strdup_fails ? nullptr : __real_strdup(text);
}
}

class BridgeMqttMessages : public BridgeMqttShared
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
};

/* What is left of the last message until the next one: its topic and the rest without its payload. */
static constexpr size_t SHELL = 2;

/* ---- one message ---- */

TEST_F(BridgeMqttMessages, MessageIsCopiedFreedAndHandedOn)
{
    ASSERT_EQ(subscribe(NS, "down", record_delivery, "ctx"), 0);
    log.lines();
    const std::string payload("a\0b", 3);
    EXPECT_EQ(fake_mqtt_arrive(1, "down", payload), 1);
    EXPECT_EQ(fake_mqtt_live_blocks(), SHELL);
    ASSERT_TRUE(wait_for_deliveries(1));
    EXPECT_THAT(delivered(), ElementsAre("down=" + payload + "@ctx"));
    EXPECT_THAT(log.lines(), ElementsAre("TRACE received a publish on topic: down"));
}

static std::atomic<const void *> seen_payload;

static void note_payload(const char *topic, void *context, const uint8_t *payload, uint32_t payload_size)
{
    seen_payload = payload;
    record_delivery(topic, context, payload, payload_size);
}

TEST_F(BridgeMqttMessages, EmptyPayloadIsNoNullPointer)
{
    ASSERT_EQ(subscribe(NS, "down", note_payload), 0);
    EXPECT_EQ(fake_mqtt_arrive(1, "down", ""), 1);
    ASSERT_TRUE(wait_for_deliveries(1));
    EXPECT_THAT(delivered(), ElementsAre("down="));
    EXPECT_NE(seen_payload, nullptr);
}

TEST_F(BridgeMqttMessages, UnreadableMessageStaysWithTheLibrary)
{
    ASSERT_EQ(subscribe(NS, "down"), 0);
    log.lines();
    std::array<char, 8> topic = {"down"};
    MQTTClient_message message = MQTTClient_message_initializer;
    EXPECT_EQ(fake_mqtt_arrive_raw(1, nullptr, 0, &message), 0);
    EXPECT_EQ(fake_mqtt_arrive_raw(1, topic.data(), 0, nullptr), 0);
    EXPECT_EQ(fake_mqtt_arrive_raw(1, topic.data(), 7, &message), 0); /* "down\0xy" */
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(fake_mqtt_arrive(1, "down", "readable"), 1);
    ASSERT_TRUE(wait_for_deliveries(1));
    EXPECT_THAT(delivered(), ElementsAre("down=readable"));
}

TEST_F(BridgeMqttMessages, MessageForWhichThereIsNoMemoryIsDropped)
{
    const struct {
        bool *failure;
        const char *line;
    } cases[] = {
        {&malloc_fails, "ERROR failed to allocate memory for MQTT message"},
        {&strdup_fails, "ERROR failed to allocate memory for MQTT topic"},
    };
    ASSERT_EQ(subscribe(NS, "down"), 0);
    for (const auto &row : cases) {
        log.lines();
        *row.failure = true;
        const int result = fake_mqtt_arrive(1, "down", "lost");
        *row.failure = false;
        EXPECT_EQ(result, 1);
        EXPECT_THAT(log.lines(), Contains(row.line));
        EXPECT_EQ(fake_mqtt_live_blocks(), SHELL);
    }
    EXPECT_EQ(fake_mqtt_arrive(1, "down", "next"), 1);
    ASSERT_TRUE(wait_for_deliveries(1));
    EXPECT_THAT(delivered(), ElementsAre("down=next"));
}

/* ---- whose a message is ---- */

TEST_F(BridgeMqttMessages, WhatIsLeftOfAMessageIsFreedWithTheNextOrWithTheConnection)
{
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(fake_mqtt_arrive(1, "t", "a payload"), 1);
        EXPECT_EQ(fake_mqtt_live_blocks(), SHELL);
    }
    ASSERT_EQ(bridge_mqtt_disconnect(NS), 0);
    EXPECT_EQ(fake_mqtt_live_blocks(), SHELL);
    fake_mqtt_on("disconnect", [] { EXPECT_EQ(fake_mqtt_live_blocks(), 0U); });
    ASSERT_EQ(bridge_mqtt_disconnect(OAM), 0);
    EXPECT_EQ(fake_mqtt_abandoned_blocks(), 0U);
}

/* The library has yet to take it off its queue then, and so frees it itself. */
static void expect_librarys_own(const std::function<void()> &end_session)
{
    fake_mqtt_on("returned", end_session);
    EXPECT_EQ(fake_mqtt_arrive(1, "t", "a payload"), 1);
    fake_mqtt_on("returned", {});
    EXPECT_EQ(fake_mqtt_live_blocks(), 0U);
    ASSERT_EQ(bridge_mqtt_connect(BRIDGE_MQTT_EP_GEOLOC), 0);
    EXPECT_EQ(fake_mqtt_arrive(1, "t", "of the next session"), 1);
    EXPECT_EQ(fake_mqtt_live_blocks(), SHELL);
    EXPECT_THAT(fake_mqtt_faults(), IsEmpty());
}

TEST_F(BridgeMqttMessages, AMessageBehindWhoseCallbackAPublishBreaksTheConnectionIsTheLibrarys)
{
    expect_librarys_own([] {
        fake_mqtt_break_on_publish();
        background publisher([] { EXPECT_EQ(publish(OAM), 0); });
        EXPECT_TRUE(publisher.ends());
    });
}

TEST_F(BridgeMqttMessages, AMessageBehindWhoseCallbackASubscribeBreaksTheConnectionIsTheLibrarys)
{
    fake_mqtt_on("subscribe", [] { fake_mqtt_lose(1, nullptr); });
    fake_mqtt_script("subscribe", {-1});
    expect_librarys_own([] {
        background subscriber([] { EXPECT_EQ(subscribe(OAM, "u"), -1); });
        EXPECT_TRUE(subscriber.ends());
    });
}

TEST_F(BridgeMqttMessages, AMessageStaysTheLibrarysHoweverLateACallFindsItsConnectionBroken)
{
    fake_mqtt_on("returned", [] {
        fake_mqtt_break_on_publish();
        background publisher([] { EXPECT_EQ(publish(OAM), 0); });
        EXPECT_TRUE(publisher.ends());
    });
    EXPECT_EQ(fake_mqtt_arrive(1, "t", "a payload"), 1);
    fake_mqtt_on("returned", {});
    bridge_mqtt_ep_group *group = &mqtt_ctx.ep_handles[0];
    group->taken.at -= std::chrono::hours(1);
    group->broken_by = group->broken_by.load() - std::chrono::hours(1);
    EXPECT_NE(publish(OAM), 0);
    ASSERT_EQ(bridge_mqtt_connect(BRIDGE_MQTT_EP_GEOLOC), 0);
    EXPECT_THAT(fake_mqtt_faults(), IsEmpty());
}

TEST_F(BridgeMqttMessages, WhatIsLeftOfAMessageIsFreedThoughItsConnectionIsLost)
{
    EXPECT_EQ(fake_mqtt_arrive(1, "t", "a payload"), 1);
    fake_mqtt_lose(1, nullptr);
    EXPECT_EQ(fake_mqtt_abandoned_blocks(), SHELL);
    ASSERT_EQ(bridge_mqtt_connect(BRIDGE_MQTT_EP_GEOLOC), 0);
    EXPECT_EQ(fake_mqtt_abandoned_blocks(), 0U);
}

TEST_F(BridgeMqttMessages, WhatIsLeftOfAMessageIsFreedThoughAPublishBreaksTheConnectionLater)
{
    const struct {
        std::chrono::milliseconds before;
        bridge_mqtt_endpoint_t by;
        bridge_mqtt_endpoint_t next;
        size_t left;
    } cases[] = {
        {std::chrono::milliseconds(200), OAM, BRIDGE_MQTT_EP_GEOLOC, 0},
        {std::chrono::milliseconds(0), BRIDGE_MQTT_EP_GEOLOC, NS, SHELL},
    };
    for (const auto &row : cases) {
        EXPECT_EQ(fake_mqtt_arrive(1, "t", "a payload"), 1);
        mqtt_ctx.ep_handles[0].taken.at -= row.before;
        fake_mqtt_break_on_publish();
        EXPECT_EQ(publish(row.by), 0);
        ASSERT_EQ(bridge_mqtt_connect(row.next), 0);
        EXPECT_EQ(fake_mqtt_abandoned_blocks(), row.left) << "nobody knows whose a young one is";
    }
    EXPECT_EQ(fake_mqtt_arrive(1, "t", "a payload"), 1);
}

/* ---- beside a connect ---- */

TEST_F(BridgeMqttMessages, AMessageAheadOfTheServersAnswerIsTheLibrarys)
{
    fake_mqtt_lose(1, nullptr);
    fake_mqtt_on("connected", [] { EXPECT_EQ(fake_mqtt_arrive(1, "t", "early"), 0); });
    ASSERT_EQ(bridge_mqtt_connect(BRIDGE_MQTT_EP_GEOLOC), 0);
    EXPECT_EQ(fake_mqtt_arrive(1, "t", "in time"), 1);
}

/* ---- beside a subscribe ---- */

TEST_F(BridgeMqttMessages, AMessageWaitsUntilASubscribeIsSent)
{
    test_question_began(std::chrono::milliseconds(-3'600'000));
    background library([] { EXPECT_EQ(fake_mqtt_arrive(1, "t", "x"), 1); });
    EXPECT_TRUE(waits_on(library));
    test_question_began(std::chrono::milliseconds(20));
    EXPECT_TRUE(library.ends());
    EXPECT_EQ(fake_mqtt_arrive(1, "t", "while its answer is waited for"), 1);
    mqtt_ctx.ep_handles[0].question_since = bridge_mqtt_moment();
}

TEST_F(BridgeMqttMessages, AMessageIsLeftToTheLibraryWhenASubscribeIsAboutToGiveUp)
{
    test_question_began(std::chrono::milliseconds(9501));
    EXPECT_EQ(fake_mqtt_arrive(1, "t", "x"), 0);
    mqtt_ctx.ep_handles[0].question_since = bridge_mqtt_moment();
    EXPECT_EQ(fake_mqtt_arrive(1, "t", "x"), 1);
}

TEST_F(BridgeMqttMessages, ASubscribeOrAnUnsubscribeOfTheLibraryIsMarked)
{
    int marked = 0;
    for (const char *verb : {"subscribe", "unsubscribe"})
        fake_mqtt_on(verb, [&marked] {
            marked += mqtt_ctx.ep_handles[0].question_since.load() > bridge_mqtt_moment();
        });
    ASSERT_EQ(subscribe(NS, "t"), 0);
    EXPECT_EQ(marked, 1);
    EXPECT_EQ(unsubscribe(NS, "t"), 0);
    EXPECT_EQ(marked, 2);
    EXPECT_EQ(mqtt_ctx.ep_handles[0].question_since.load(), bridge_mqtt_moment());
}

/* ---- order ---- */

static std::atomic<int> running_handlers;
static std::atomic<int> most_running_handlers;

static void record_overlap(const char *topic, void *context, const uint8_t *payload, uint32_t payload_size)
{
    const int now = ++running_handlers;
    most_running_handlers = std::max(most_running_handlers.load(), now);
    std::this_thread::yield();
    record_delivery(topic, context, payload, payload_size);
    --running_handlers;
}

TEST_F(BridgeMqttMessages, HandlersRunOneAtATimeInOrderOfArrival)
{
    most_running_handlers = 0;
    ASSERT_EQ(subscribe(NS, "even", record_overlap), 0);
    ASSERT_EQ(subscribe(OAM, "odd", record_overlap), 0);
    std::vector<std::string> sent;
    for (int i = 0; i < 500; i++) {
        const std::string topic = i % 2 == 0 ? "even" : "odd";
        sent.push_back(topic + "=" + std::to_string(i));
        EXPECT_EQ(fake_mqtt_arrive(1, topic, std::to_string(i)), 1);
    }
    ASSERT_TRUE(wait_for_deliveries(sent.size()));
    EXPECT_EQ(delivered(), sent);
    EXPECT_EQ(most_running_handlers, 1);
}

/* ---- handlers that wait ---- */

TEST_F(BridgeMqttMessages, MessagesOfALostConnectionReachNobodyThoughAnotherEndpointOpensTheNext)
{
    ASSERT_EQ(subscribe(OAM, "command"), 0);
    hold_handler(NS);
    EXPECT_EQ(fake_mqtt_arrive(1, "command", "old"), 1);
    ASSERT_EQ(bridge_mqtt_disconnect(NS), 0);
    fake_mqtt_lose(1, nullptr);
    ASSERT_EQ(bridge_mqtt_connect(NS), 0);
    EXPECT_EQ(bridge_mqtt_disconnect(OAM), 0);
    ASSERT_EQ(bridge_mqtt_connect(OAM), 0);
    ASSERT_EQ(subscribe(OAM, "command"), 0);
    EXPECT_EQ(fake_mqtt_arrive(1, "command", "new"), 1);
    handler.open();
    ASSERT_TRUE(wait_for_deliveries(2));
    EXPECT_THAT(delivered(), ElementsAre("hold=0", "command=new"));
}

TEST_F(BridgeMqttMessages, HandlerThatWaitsHoldsUpNeitherTheLibraryNorPublishes)
{
    handler_gate = &handler;
    ASSERT_EQ(subscribe(NS, "hold", record_and_wait), 0);
    background library([] {
        for (int i = 0; i < 20; i++)
            EXPECT_EQ(fake_mqtt_arrive(1, "hold", std::to_string(i)), 1);
    });
    EXPECT_TRUE(library.ends());
    background publisher([] {
        EXPECT_EQ(publish(NS), 0);
        EXPECT_EQ(subscribe(OAM, "t"), 0);
        EXPECT_EQ(unsubscribe(OAM, "t"), 0);
    });
    EXPECT_TRUE(publisher.ends());
    EXPECT_TRUE(wait_for_deliveries(1));
    EXPECT_EQ(delivered().size(), 1U);
    handler.open();
    EXPECT_TRUE(wait_for_deliveries(20));
}

TEST_F(BridgeMqttMessages, FullQueueHoldsTheLibraryUntilThereIsRoom)
{
    const size_t sent = fill_queue();
    background library([] { EXPECT_EQ(fake_mqtt_arrive(1, "hold", "last"), 1); });
    EXPECT_TRUE(waits_on(library));
    handler.open();
    EXPECT_TRUE(library.ends());
    ASSERT_TRUE(wait_for_deliveries(sent + 1));
    EXPECT_EQ(delivered().back(), "hold=last");
}

TEST_F(BridgeMqttMessages, QueueIsFullOfBytesToo)
{
    hold_handler(NS);
    EXPECT_EQ(fake_mqtt_arrive(1, "hold", std::string(BRIDGE_DELIVERY_ROOM[DELIVERY_LIMIT].bytes - 1, 'x')),
              1);
    EXPECT_EQ(fake_mqtt_arrive(1, "hold", "y"), 1);
    background library([] { EXPECT_EQ(fake_mqtt_arrive(1, "hold", "last"), 1); });
    EXPECT_TRUE(waits_on(library));
    handler.open();
    EXPECT_TRUE(library.ends());
    EXPECT_TRUE(wait_for_deliveries(4));
}

/* The acknowledgement that the publish waits for can come by no other thread. */
TEST_F(BridgeMqttMessages, PublishThatWaitsForTheLibrarysThreadIsNotHeldByAFullQueue)
{
    gate acknowledgement;
    const size_t sent = fill_queue();
    fake_mqtt_on("publish", [&acknowledgement] { EXPECT_TRUE(acknowledgement.wait()); });
    background publisher([] { EXPECT_EQ(publish(NS), 0); });
    EXPECT_TRUE(wait_until([&acknowledgement] { return acknowledgement.is_waited_for(); }));
    background library([&acknowledgement] {
        EXPECT_EQ(fake_mqtt_arrive(1, "hold", "last"), 1);
        acknowledgement.open(); /* the next packet */
    });
    EXPECT_TRUE(library.ends());
    EXPECT_TRUE(publisher.ends());
    handler.open();
    ASSERT_TRUE(wait_for_deliveries(sent + 1));
    EXPECT_EQ(delivered().back(), "hold=last");
}

/* More than come through one by one within the patience of a call. */
static constexpr int FLOOD = 500;

static std::atomic<uint32_t> library_rounds;

static void arrive_counted(int count)
{
    library_rounds = 0;
    test_on_wait([library = gettid()] {
        if (gettid() == library)
            library_rounds++;
    });
    for (int i = 0; i < count; i++)
        EXPECT_EQ(fake_mqtt_arrive(1, "hold", "more"), 1);
    test_on_wait({});
}

/* A call begins to wait while a full queue holds the library's thread: the message that stands there goes on
 * at once, and after it all of them up to the acknowledgement, which the same thread then brings. */
static void expect_passage(const std::function<int()> &call, const std::function<bool()> &is_waiting,
                           const std::function<void()> &acknowledge)
{
    gate begun;
    background library([&begun, &acknowledge] {
        arrive_counted(1);
        EXPECT_TRUE(begun.wait());
        arrive_counted(FLOOD);
        EXPECT_EQ(library_rounds, 0U);
        acknowledge();
    });
    EXPECT_TRUE(waits_on(library));
    background caller([&call] { EXPECT_EQ(call(), 0); });
    EXPECT_TRUE(wait_until(is_waiting));
    const uint32_t rounds = library_rounds;
    EXPECT_TRUE(wait_until([&begun] { return begun.is_waited_for(); }));
    EXPECT_LE(library_rounds, rounds + 1);
    begun.open();
    if (!library.ends()) {
        ADD_FAILURE() << "the library's thread is held";
        handler_gate->open();
    }
    EXPECT_TRUE(caller.ends());
}

TEST_F(BridgeMqttSeparate, FullQueueHoldsBackNoAcknowledgementThatIsWaitedFor)
{
    const struct {
        const char *verb;
        std::function<int()> call;
    } rows[] = {
        {"connect", [] { return bridge_mqtt_connect(OAM); }},
        {"subscribe", [] { return subscribe(OAM, "t"); }},
        {"unsubscribe", [] { return unsubscribe(OAM, "t"); }},
        {"disconnect", [] { return bridge_mqtt_disconnect(OAM); }},
    };
    ASSERT_EQ(bridge_mqtt_connect(NS), 0);
    fill_queue();
    for (const auto &row : rows) {
        SCOPED_TRACE(row.verb);
        gate acknowledgement;
        fake_mqtt_on(row.verb, [&acknowledgement] {
            if (mqtt_ctx.ep_handles[0].question_since.load() != bridge_mqtt_moment())
                test_question_began(std::chrono::milliseconds(20)); /* and is sent */
            EXPECT_TRUE(acknowledgement.wait());
        });
        expect_passage(
            row.call, [&acknowledgement] { return acknowledgement.is_waited_for(); },
            [&acknowledgement] { acknowledgement.open(); });
        fake_mqtt_on(row.verb, {});
    }
    background library([] { fake_mqtt_arrive(1, "hold", "last"); });
    EXPECT_TRUE(waits_on(library)) << "with nobody who waits";
    handler.open();
    EXPECT_TRUE(library.ends());
}

TEST_F(BridgeMqttMessages, FullQueueHoldsBackNoAcknowledgementThatAPublishNeedsForRoom)
{
    fill_queue();
    fake_mqtt_hold_acknowledgements();
    for (int i = 0; i < 10; i++)
        EXPECT_EQ(publish(NS), 0);
    const int looks = fake_mqtt_token_looks();
    expect_passage([] { return publish(NS); }, [looks] { return fake_mqtt_token_looks() > looks + 3; },
                   [] { fake_mqtt_acknowledge(1); });
    background library([] { fake_mqtt_arrive(1, "hold", "last"); });
    EXPECT_TRUE(waits_on(library)) << "with nobody who waits";
    handler.open();
    EXPECT_TRUE(library.ends());
}

/* A server that withholds what is waited for, and floods meanwhile, fills that much and no more at once. */
TEST_F(BridgeMqttMessages, WhatIsLetThroughBeforeAnAcknowledgementHasALimit)
{
    fill_queue();
    fake_mqtt_hold_acknowledgements();
    for (int i = 0; i < 10; i++)
        EXPECT_EQ(publish(NS), 0);
    const int looks = fake_mqtt_token_looks();
    background caller([] { EXPECT_EQ(publish(NS), 0); });
    EXPECT_TRUE(wait_until([looks] { return fake_mqtt_token_looks() > looks + 3; }));
    background library([] {
        const std::string large(1024 * 1024, 'x');
        for (size_t sent = 0; sent < BRIDGE_DELIVERY_ROOM[DELIVERY_LIMIT_AWAITED].bytes; sent += large.size())
            EXPECT_EQ(fake_mqtt_arrive(1, "hold", large), 1);
        arrive_counted(1);
    });
    EXPECT_TRUE(library.ends());
    EXPECT_EQ(library_rounds, 50U) << "it is held for the patience of a call, and then let through";
    fake_mqtt_acknowledge(1);
    EXPECT_TRUE(caller.ends());
    handler.open();
}

/* A publish is inside the library at every look, but each time it is another one. */
TEST_F(BridgeMqttMessages, PublishesThatComeThroughDoNotOpenAFullQueue)
{
    const size_t sent = fill_queue();
    std::atomic<int> entered = 0;
    std::atomic<int> let_through = 0;
    std::atomic<bool> enough = false;
    fake_mqtt_on("publish", [&entered, &let_through, &enough] {
        const int turn = ++entered;
        EXPECT_TRUE(wait_until([&let_through, &enough, turn] { return enough || let_through >= turn; }));
    });
    test_on_wait([&entered, &let_through, &enough] {
        const int turn = entered;
        let_through = turn;
        EXPECT_TRUE(wait_until([&entered, &enough, turn] { return enough || entered > turn; }));
    });
    background publisher([&enough] {
        while (!enough)
            EXPECT_EQ(publish(NS), 0);
    });
    EXPECT_TRUE(wait_until([&entered] { return entered > 0; }));
    background library([] { EXPECT_EQ(fake_mqtt_arrive(1, "hold", "last"), 1); });
    EXPECT_TRUE(waits_on(library));
    EXPECT_GT(entered, static_cast<int>(MANY_ROUNDS));
    enough = true;
    EXPECT_TRUE(publisher.ends());
    handler.open();
    EXPECT_TRUE(library.ends());
    test_on_wait({});
    EXPECT_TRUE(wait_for_deliveries(sent + 1));
}

TEST_F(BridgeMqttMessages, MessageIsTakenWhileAPublishStaysInTheLibrary)
{
    ASSERT_EQ(subscribe(NS, "down"), 0);
    gate acknowledgement;
    fake_mqtt_on("publish", [&acknowledgement] { EXPECT_TRUE(acknowledgement.wait()); });
    background publisher([] { EXPECT_EQ(publish(NS), 0); });
    EXPECT_TRUE(wait_until([&acknowledgement] { return acknowledgement.is_waited_for(); }));
    background library([] { EXPECT_EQ(fake_mqtt_arrive(1, "down", "1"), 1); });
    EXPECT_TRUE(library.ends());
    EXPECT_TRUE(wait_for_deliveries(1));
    acknowledgement.open();
}

/* ---- the end of a connection under a message ---- */

TEST_F(BridgeMqttMessages, QueuedMessagesOfADisconnectedEndpointReachNobody)
{
    fill_queue();
    EXPECT_EQ(bridge_mqtt_disconnect(OAM), 0);
    EXPECT_EQ(bridge_mqtt_disconnect(NS), 0);
    EXPECT_EQ(bridge_mqtt_connect(NS), 0); /* client 2 */
    EXPECT_EQ(subscribe(NS, "hold", record_delivery, "new"), 0);
    EXPECT_EQ(fake_mqtt_arrive(2, "hold", "fresh"), 1);
    handler.open();
    EXPECT_TRUE(wait_for_deliveries(2));
    EXPECT_THAT(delivered(), ElementsAre("hold=0", "hold=fresh@new"));
}

/* The client stays up for the other user meanwhile. */
TEST_F(BridgeMqttMessages, QueuedMessagesAreNotForTheEndpointsNextConnection)
{
    hold_handler(OAM);
    ASSERT_EQ(subscribe(NS, "down", record_delivery, "old"), 0);
    EXPECT_EQ(fake_mqtt_arrive(1, "down", "stale"), 1);
    EXPECT_EQ(bridge_mqtt_disconnect(NS), 0);
    EXPECT_EQ(bridge_mqtt_connect(NS), 0);
    EXPECT_EQ(subscribe(NS, "down", record_delivery, "new"), 0);
    EXPECT_EQ(fake_mqtt_arrive(1, "down", "fresh"), 1);
    handler.open();
    EXPECT_TRUE(wait_for_deliveries(2));
    EXPECT_THAT(delivered(), ElementsAre("hold=0", "down=fresh@new"));
}

TEST_F(BridgeMqttMessages, QueuedMessageReachesTheUserThatIsStillConnected)
{
    hold_handler(OAM);
    ASSERT_EQ(subscribe(NS, "both", record_delivery, "ns"), 0);
    ASSERT_EQ(subscribe(OAM, "both", record_delivery, "oam"), 0);
    EXPECT_EQ(fake_mqtt_arrive(1, "both", "1"), 1);
    EXPECT_EQ(bridge_mqtt_disconnect(NS), 0);
    handler.open();
    EXPECT_TRUE(wait_for_deliveries(2));
    EXPECT_THAT(delivered(), ElementsAre("hold=0", "both=1@oam"));
}

/* An endpoint of the group that is not connected at that moment gets nothing, subscribed or not. */
TEST_F(BridgeMqttMessages, StaleSubscriptionsOfALostConnectionGetNothingFromTheNextUser)
{
    ASSERT_EQ(subscribe(NS, "t", record_delivery, "ns"), 0);
    fake_mqtt_lose(1, nullptr);
    ASSERT_EQ(bridge_mqtt_connect(BRIDGE_MQTT_EP_GEOLOC), 0);
    ASSERT_EQ(subscribe(BRIDGE_MQTT_EP_GEOLOC, "t", record_delivery, "geoloc"), 0);
    EXPECT_EQ(fake_mqtt_arrive(1, "t", "1"), 1);
    EXPECT_EQ(fake_mqtt_arrive(1, "t", "2"), 1);
    ASSERT_TRUE(wait_for_deliveries(2));
    EXPECT_THAT(delivered(), ElementsAre("t=1@geoloc", "t=2@geoloc"));
}

TEST_F(BridgeMqttMessages, MessageThatArrivesDuringTheDisconnectIsLeftToTheLibrary)
{
    ASSERT_EQ(subscribe(OAM, "t"), 0);
    ASSERT_EQ(bridge_mqtt_disconnect(NS), 0);
    fake_mqtt_on("disconnect", [] {
        background library([] { EXPECT_EQ(fake_mqtt_arrive(1, "t", "late"), 0); });
        EXPECT_TRUE(library.ends());
    });
    EXPECT_EQ(bridge_mqtt_disconnect(OAM), 0);
    EXPECT_EQ(fake_mqtt_live_blocks(), 0U);
    EXPECT_THAT(delivered(), IsEmpty());
}

/* The library drops its queue when a session ends, and the message of the callback that runs is in it. */
TEST_F(BridgeMqttMessages, MessageThatWaitsForRoomIsLetGoBeforeADisconnectFreesIt)
{
    fill_queue();
    ASSERT_EQ(bridge_mqtt_disconnect(OAM), 0);
    background library([] { fake_mqtt_arrive(1, "hold", "last"); });
    EXPECT_TRUE(waits_on(library));
    EXPECT_EQ(bridge_mqtt_disconnect(NS), 0);
    EXPECT_TRUE(library.ends());
    EXPECT_THAT(fake_mqtt_faults(), IsEmpty());
    handler.open();
}

TEST_F(BridgeMqttMessages, MessageThatWaitsForRoomIsNotFreedAfterABreakingPublishDidSo)
{
    fill_queue();
    background library([] { fake_mqtt_arrive(1, "hold", "last"); });
    EXPECT_TRUE(waits_on(library));
    fake_mqtt_break_on_publish();
    background publisher([] { EXPECT_EQ(publish(NS), 0); });
    EXPECT_TRUE(publisher.ends());
    handler.open();
    EXPECT_TRUE(library.ends());
    EXPECT_THAT(fake_mqtt_faults(), IsEmpty());
}

/* The message is handed over while the publish is under way; the publish then frees it. */
static void break_a_publish_under_an_arrival()
{
    gate server;
    fake_mqtt_on("publish", [&server] { EXPECT_TRUE(server.wait()); });
    fake_mqtt_break_on_publish();
    background publisher([] { EXPECT_EQ(publish(NS), 0); });
    EXPECT_TRUE(wait_until([&server] { return server.is_waited_for(); }));
    test_on_wait([&server] {
        server.open();
        EXPECT_TRUE(wait_until([] { return !fake_mqtt_is_connected(1); }));
    });
    background library([] { fake_mqtt_arrive(1, "t", "gone"); });
    EXPECT_TRUE(library.ends());
    EXPECT_TRUE(publisher.ends());
    test_on_wait({});
    EXPECT_THAT(fake_mqtt_faults(), IsEmpty());
}

TEST_F(BridgeMqttMessages, MessageFreedByABreakingPublishIsNotTouched)
{
    ASSERT_EQ(subscribe(NS, "t"), 0);
    break_a_publish_under_an_arrival();
}

TEST_F(BridgeMqttSeparate, MessageFreedByABreakingPublishIsNotTouchedWhileAnotherClientLives)
{
    ASSERT_EQ(bridge_mqtt_connect(NS), 0);
    ASSERT_EQ(bridge_mqtt_connect(OAM), 0);
    ASSERT_EQ(subscribe(NS, "t"), 0);
    break_a_publish_under_an_arrival();
}

/* While a message is being read. */
static void expect_kept_out(const std::function<void()> &call)
{
    fake_mqtt_take_calls();
    gate reading;
    background library([&reading] {
        strdup_gate = &reading;
        EXPECT_EQ(fake_mqtt_arrive(1, "t", "1"), 1);
        strdup_gate = nullptr;
    });
    EXPECT_TRUE(wait_until([&reading] { return reading.is_waited_for(); }));
    background caller(call);
    EXPECT_TRUE(caller.blocks());
    EXPECT_THAT(fake_mqtt_take_calls(), IsEmpty());
    reading.open();
    EXPECT_TRUE(caller.ends());
}

TEST_F(BridgeMqttMessages, NoPublishEntersTheLibraryWhileAMessageIsBeingRead)
{
    ASSERT_EQ(subscribe(NS, "t"), 0);
    expect_kept_out([] { EXPECT_EQ(publish(NS), 0); });
    EXPECT_TRUE(wait_for_deliveries(1));
    EXPECT_THAT(delivered(), ElementsAre("t=1"));
}

TEST_F(BridgeMqttMessages, NoSubscribeEntersTheLibraryWhileAMessageIsBeingRead)
{
    expect_kept_out([] { EXPECT_EQ(subscribe(NS, "u"), 0); });
}

TEST_F(BridgeMqttMessages, NoClientIsEndedUnderItsCallback)
{
    fill_queue();
    ASSERT_EQ(bridge_mqtt_disconnect(OAM), 0);
    fake_mqtt_take_calls();
    gate late;
    std::atomic<pid_t> library_tid = 0;
    test_on_wait([&late, &library_tid] {
        if (gettid() == library_tid) {
            EXPECT_TRUE(late.wait());
        }
    });
    background library([&library_tid] {
        library_tid = gettid();
        fake_mqtt_arrive(1, "hold", "last");
    });
    EXPECT_TRUE(wait_until([&late] { return late.is_waited_for(); }));
    background disconnect([] { EXPECT_EQ(bridge_mqtt_disconnect(NS), 0); });
    EXPECT_TRUE(waits_on(disconnect));
    EXPECT_THAT(fake_mqtt_take_calls(), IsEmpty());
    late.open();
    EXPECT_TRUE(library.ends());
    EXPECT_TRUE(disconnect.ends());
    test_on_wait({});
    EXPECT_THAT(fake_mqtt_take_calls(), ElementsAre("disconnect #1 in 1000", "destroy #1"));
    handler.open();
}

TEST_F(BridgeMqttMessages, DeinitLetsGoAMessageThatWaitsForRoom)
{
    fill_queue();
    background library([] { fake_mqtt_arrive(1, "hold", "last"); });
    EXPECT_TRUE(waits_on(library));
    background deinit([] { EXPECT_EQ(bridge_mqtt_deinit(), 0); });
    EXPECT_TRUE(library.ends());
    handler.open();
    EXPECT_TRUE(deinit.ends());
    EXPECT_THAT(fake_mqtt_faults(), IsEmpty());
}

/* ---- the end of the manager under a handler ---- */

TEST_F(BridgeMqttMessages, DeinitDropsWhatIsQueued)
{
    fill_queue();
    std::atomic<uint32_t> rounds = 0;
    fake_mqtt_on("destroy", [&rounds] { rounds = test_wait_rounds(); });
    background deinit([] { EXPECT_EQ(bridge_mqtt_deinit(), 0); });
    /* The next round is that of the wait for the handler. */
    EXPECT_TRUE(wait_until([&rounds] { return rounds != 0 && test_wait_rounds() > rounds; }));
    handler.open();
    EXPECT_TRUE(deinit.ends());
    EXPECT_THAT(delivered(), ElementsAre("hold=0"));
}

TEST_F(BridgeMqttMessages, HandlerThatDoesNotReturnIsLeftBehind)
{
    fill_queue();
    log.lines();
    EXPECT_EQ(bridge_mqtt_deinit(), 0);
    EXPECT_THAT(log.lines(), Contains("WARN MQTT delivery thread is held by a handler and left behind"));
    handler.open();
    EXPECT_TRUE(wait_until([] { return gates_left == 1; }));
    EXPECT_TRUE(wait_until([] { return !is_delivery_thread_alive(); }));
    EXPECT_THAT(delivered(), ElementsAre("hold=0"));
}
