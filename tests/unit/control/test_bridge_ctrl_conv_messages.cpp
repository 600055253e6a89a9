/* The road of a message from the delivery thread to its worker on the pool. */
#include "control/control_services.h"

#include "common/captured_stderr.h"

#include <new>

using testing::ElementsAre;
using testing::IsEmpty;

FAILING_NEW
FAILING_CALL(void *, calloc, (size_t count, size_t size), (count, size), nullptr)
FAILING_CALL(char *, strdup, (const char *text), (text), nullptr)

static constexpr const char *COMMANDS = SERVICE_TOPICS[0];
static constexpr const char *WORKER_START = "DEBUG MQTT subscription worker starting";
static constexpr const char *WORKER_END = "DEBUG exiting MQTT subscription worker";
static constexpr const char *RECEIVED = "TRACE ctrlplane message received";

extern "C" void __real__Z11thpool_waitP6thpool(struct thpool *pool);

class CtrlMessages : public CtrlConv
{
  protected:
    CtrlMessages()
    {
        start();
        view = log.from_here();
    }

    /* What came of it once the pool is idle. */
    std::vector<std::string> deliver(const char *topic, const std::string &payload)
    {
        services.take();
        /* Exactly as long as it says, and without a terminator. */
        const std::vector<uint8_t> bytes(payload.begin(), payload.end());
        view = log.from_here();
        services.handler(topic, services.handler_context, bytes.data(), static_cast<uint32_t>(bytes.size()));
        __real__Z11thpool_waitP6thpool(services.ctx->pool);
        return services.take();
    }

    log_view view = log.from_here();
};

TEST_F(CtrlMessages, AMessageReachesTheWorkerOfItsTopic)
{
    EXPECT_THAT(deliver(COMMANDS, "{}"),
                ElementsAre("thpool_add_work", "cmd_worker api/v1/gateway/commands {}"));
    EXPECT_THAT(view.lines(), ElementsAre(RECEIVED, WORKER_START, WORKER_END));
    EXPECT_THAT(
        deliver(SERVICE_TOPICS[1], "config"),
        ElementsAre("thpool_add_work", "config_pull_worker_legacy api/v1/gateway/configuration config"));
}

TEST_F(CtrlMessages, ATopicIsFoundInAnyCaseAndTheWorkerGetsTheRows)
{
    EXPECT_THAT(deliver("API/V1/Gateway/COMMANDS", "x"),
                ElementsAre("thpool_add_work", "cmd_worker api/v1/gateway/commands x"));
}

TEST_F(CtrlMessages, PayloadsOfAnySizeAreTerminated)
{
    for (const size_t size : {size_t{1}, size_t{2}, size_t{4096}, size_t{1} << 20}) {
        const std::string payload(size, 'p');
        EXPECT_THAT(deliver(COMMANDS, payload),
                    ElementsAre("thpool_add_work", join({"cmd_worker api/v1/gateway/commands ", payload})));
    }
    EXPECT_THAT(deliver(COMMANDS, std::string("a\0b", 3)),
                ElementsAre("thpool_add_work", "cmd_worker api/v1/gateway/commands a"));
}

TEST_F(CtrlMessages, ATopicWithoutAWorkerIsDroppedInSilence)
{
    for (const char *topic : {SERVICE_TOPICS[2], SERVICE_TOPICS[3], "api/v1/gateway/command", ""}) {
        SCOPED_TRACE(topic);
        EXPECT_THAT(deliver(topic, "x"), ElementsAre("thpool_add_work"));
        EXPECT_THAT(view.lines(), ElementsAre(RECEIVED, WORKER_START, WORKER_END));
    }
}

TEST_F(CtrlMessages, AMessageForAStoppedServiceIsDroppedInSilence)
{
    ASSERT_EQ(bridge_ctrlplane_disconnect_oam(), 0);
    EXPECT_THAT(deliver(COMMANDS, "x"), ElementsAre("thpool_add_work"));
    EXPECT_THAT(view.complaints(), IsEmpty());
}

TEST_F(CtrlMessages, AMessageWithoutTopicOrPayloadIsTold)
{
    const uint8_t byte = 'x';
    services.handler(nullptr, services.handler_context, &byte, 1);
    services.handler(nullptr, services.handler_context, nullptr, 0);
    services.handler(COMMANDS, services.handler_context, nullptr, 1);
    services.handler(COMMANDS, services.handler_context, &byte, 0);
    EXPECT_THAT(view.lines(),
                ElementsAre(RECEIVED, "ERROR invalid topic received", RECEIVED,
                            "ERROR invalid topic received", RECEIVED, "ERROR invalid payload received",
                            RECEIVED, "ERROR invalid payload received"));
    EXPECT_THAT(services.take(), IsEmpty());
}

TEST_F(CtrlMessages, AMessageWithoutAnAgentIsDropped)
{
    services.ctx->snmp_ready = false;
    EXPECT_THAT(deliver(COMMANDS, "x"), IsEmpty());
    EXPECT_THAT(view.lines(), ElementsAre(RECEIVED, "ERROR SNMP is not started, ignoring request from NS"));
    services.ctx->snmp_ready = true;
    EXPECT_EQ(deliver(COMMANDS, "x").size(), 2U);
}

TEST_F(CtrlMessages, AMessageThatCannotBeCarriedIsDropped)
{
    static constexpr struct {
        const char *call;
        const char *line;
    } rows[] = {
        {NEW, "ERROR failed to allocate worker data"},
        {"calloc", "ERROR failed to allocate memory for payload with size: 3"},
        {"strdup", "ERROR failed to allocate memory for topic"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        let_fail(row.call);
        EXPECT_THAT(deliver(COMMANDS, "abc"), IsEmpty());
        let_all_pass();
        EXPECT_THAT(view.lines(), ElementsAre(RECEIVED, row.line));
    }
    services.script("thpool_add_work", -1);
    EXPECT_THAT(deliver(COMMANDS, "abc"), ElementsAre("thpool_add_work"));
    EXPECT_THAT(view.lines(), ElementsAre(RECEIVED, "ERROR failed to launch worker thread"));
}

TEST_F(CtrlMessages, MessagesRunSideBySide)
{
    std::atomic<int> running = 0;
    services.on("cmd_worker api/v1/gateway/commands x", [&] {
        running++;
        EXPECT_TRUE(wait_until([&] { return running == 16; }));
    });
    const uint8_t byte = 'x';
    for (int i = 0; i < 16; i++)
        services.handler(COMMANDS, services.handler_context, &byte, 1);
    __real__Z11thpool_waitP6thpool(services.ctx->pool);
    EXPECT_EQ(running, 16);
}

TEST_F(CtrlMessages, DeinitWaitsForAWorkerUnderWay)
{
    std::atomic<bool> started = false;
    std::atomic<bool> ended = false;
    std::atomic<bool> may_end = false;
    services.on("cmd_worker api/v1/gateway/commands x", [&] {
        started = true;
        EXPECT_TRUE(wait_until([&] { return may_end.load(); }));
        ended = true;
    });
    const uint8_t byte = 'x';
    services.handler(COMMANDS, services.handler_context, &byte, 1);
    ASSERT_TRUE(wait_until([&] { return started.load(); }));
    bridge_ctrlplane_disconnect_oam();
    bridge_ctrlplane_disconnect_agent();
    services.on("thpool_wait", [&] { may_end = true; });
    EXPECT_EQ(bridge_ctrlplane_deinit(), 0);
    EXPECT_TRUE(ended);
}

TEST_F(CtrlMessages, DeinitWaitsForAMessageInHand)
{
    std::atomic<bool> in_hand = false;
    std::atomic<bool> may_go = false;
    services.on("thpool_add_work", [&] {
        in_hand = true;
        EXPECT_TRUE(wait_until([&] { return may_go.load(); }));
    });
    std::thread delivery([] {
        const uint8_t byte = 'x';
        services.handler(COMMANDS, services.handler_context, &byte, 1);
    });
    ASSERT_TRUE(wait_until([&] { return in_hand.load(); }));
    bridge_ctrlplane_disconnect_oam();
    bridge_ctrlplane_disconnect_agent();
    services.take();
    services.on("wait 1 ms", [&] { may_go = true; });
    EXPECT_EQ(bridge_ctrlplane_deinit(), 0);
    delivery.join();
    EXPECT_TRUE(may_go) << "it was waited for";
    EXPECT_THAT(services.take(), testing::Contains("thpool_wait"));
}

TEST_F(CtrlMessages, AMessageBehindTheDeinitReachesNobody)
{
    bridge_ctrlplane_disconnect_oam();
    services.ctx->snmp_ready = false;
    bridge_ctrlplane_disconnect_agent();
    ASSERT_EQ(bridge_ctrlplane_deinit(), 0);
    services.take();
    const uint8_t byte = 'x';
    services.handler(COMMANDS, services.handler_context, &byte, 1);
    EXPECT_THAT(services.take(), IsEmpty());
}

TEST_F(CtrlConvDeath, AMessageWithoutAContextIsAsserted)
{
    EXPECT_ASSERTION(
        {
            init();
            bridge_snmp_connect_oam();
            services.handler(COMMANDS, nullptr, nullptr, 0);
        },
        "ctx");
}
