/* The upgrade service: its life, its queue, and what it does when something of the system fails. */
#include "services/bsp_upgrade_fixture.h"

#include "common/captured_stderr.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

/* ---- life ---- */

TEST_F(BspUpgradeOff, EveryStepTwiceInARow)
{
    EXPECT_EQ(bridge_bulk_upgrade_init(ctx), 0);
    EXPECT_EQ(bridge_bulk_upgrade_stop(), 0);
    EXPECT_EQ(bridge_bulk_upgrade_stop(), 0);
    EXPECT_THAT(view.lines(),
                ElementsAre("DEBUG initializing upgrade service", "DEBUG stopping bulk upgrade service",
                            "DEBUG bulk upgrade service already stopped",
                            "DEBUG stopping bulk upgrade service",
                            "DEBUG bulk upgrade service already stopped"));
    EXPECT_EQ(bridge_bulk_upgrade_start(), 0);
    ASSERT_TRUE(idle());
    view = log.from_here();
    EXPECT_EQ(bridge_bulk_upgrade_start(), 0);
    EXPECT_THAT(view.lines(), ElementsAre("DEBUG starting bulk upgrade service",
                                          "DEBUG bulk upgrade service has already started"));
    EXPECT_TRUE(queue_exists(QUEUE));
    view = log.from_here();
    EXPECT_EQ(bridge_bulk_upgrade_stop(), 0);
    EXPECT_FALSE(queue_exists(QUEUE));
    EXPECT_THAT(view.lines(),
                ElementsAre("DEBUG stopping bulk upgrade service", "TRACE Read 48 bytes from msg queue",
                            "TRACE Action: thread exit", "DEBUG stopping bsp upgrade thread"));
    EXPECT_EQ(mqtt.calls(),
              (std::vector{join({"subscribe OAM ", DESIRED}), join({"unsubscribe OAM ", DESIRED})}));
    EXPECT_THAT(timers.taken(), ElementsAre("made", "gone"));
    view = log.from_here();
    EXPECT_EQ(bridge_bulk_upgrade_stop(), 0);
    EXPECT_EQ(bridge_bulk_upgrade_start(), -1);
    EXPECT_EQ(bridge_bulk_upgrade_start(), -1);
    EXPECT_THAT(
        view.lines(),
        ElementsAre("DEBUG stopping bulk upgrade service",
                    "INFO bulk upgrade service is already undergoing a restart, cannot be stopped now",
                    "DEBUG starting bulk upgrade service",
                    "INFO Bulk upgrade service is is undergoing a restart, cannot start it now",
                    "DEBUG starting bulk upgrade service",
                    "INFO Bulk upgrade service is is undergoing a restart, cannot start it now"));
    bridge_bulk_upgrade_deinit();
    EXPECT_THAT(supervisor.taken(), IsEmpty());
}

TEST_F(BspUpgradeOff, ItLivesAgainAndAgain)
{
    for (int life = 0; life < 5; life++) {
        view = log.from_here();
        EXPECT_EQ(bridge_bulk_upgrade_init(ctx), 0);
        EXPECT_EQ(bridge_bulk_upgrade_start(), 0);
        ASSERT_TRUE(idle());
        EXPECT_THAT(reports(), ElementsAre("1.0|NO KNOWN BSP ACTIVITY|from 1.0 to 1.1"));
        EXPECT_EQ(bridge_bulk_upgrade_stop(), 0);
        bridge_bulk_upgrade_deinit();
        EXPECT_THAT(view.complaints(), IsEmpty());
    }
}

TEST_F(BspUpgradeOff, AStopRightBehindTheStartWaitsForNothingButTheThread)
{
    for (int life = 0; life < 20; life++) {
        EXPECT_EQ(bridge_bulk_upgrade_init(ctx), 0);
        EXPECT_EQ(bridge_bulk_upgrade_start(), 0);
        EXPECT_EQ(bridge_bulk_upgrade_stop(), 0);
        bridge_bulk_upgrade_deinit();
        thpool_wait(ctx->pool);
        EXPECT_FALSE(queue_exists(QUEUE));
    }
}

TEST_F(BspUpgradeOff, WithoutItsLockThereIsNoService)
{
    EXPECT_EQ(bridge_bulk_upgrade_init(ctx), 0);
    bridge_bulk_upgrade_deinit();
    view = log.from_here();
    let_fail("sem_getvalue", EINVAL);
    EXPECT_EQ(bridge_bulk_upgrade_init(ctx), -1);
    EXPECT_TRUE(view.has("ERROR failed to initialize the upgrade service: Invalid argument (22)"));
}

TEST_F(BspUpgradeLockDeath, ALockThatCannotBeMadeIsAFailedInit)
{
    EXPECT_EXIT(
        {
            bridge_log_init(BRIDGE_LOG_WARN, true);
            let_fail("sem_init", ENOSYS);
            exit(bridge_bulk_upgrade_init(ctx) == -1 ? 0 : 1);
        },
        testing::ExitedWithCode(0),
        HasSubstr("failed to initialize the upgrade service: Function not implemented (38)\n"));
}

TEST_F(BspUpgradeOff, TheVersionsAreAskedForWithTheirTimeouts)
{
    bridge_bulk_upgrade_init(ctx);
    bridge_bulk_upgrade_start();
    EXPECT_TRUE(idle());
    EXPECT_THAT(agent.calls(),
                ElementsAre("text getAvailableBspUpgrade.0 64 within 10000", "text bspVersion.0 64"));
    bridge_bulk_upgrade_stop();
    bridge_bulk_upgrade_deinit();
}

TEST_F(BspUpgradeInited, AStartThatFailsLeavesNoQueue)
{
    const struct {
        const char *call;
        int error;
        int result;
        std::vector<std::string> lines;
    } rows[] = {
        {"mq_open",
         EACCES,
         -1,
         {"ERROR failed to create message queue for bsp upgrade: Permission denied",
          "INFO Upgrade launcher couldn't be run successfully"}},
        {"mq_open",
         EEXIST,
         -1,
         {"DEBUG bsp upgrade message queue: /bsp_upgrade_mq is already created",
          "ERROR failed to open message queue for bsp upgrade: File exists",
          "INFO Upgrade launcher couldn't be run successfully"}},
        {THPOOL_ADD_WORK, 0, -1, {"ERROR failed to start bsp upgrade thread: -1"}},
    };
    for (const auto &row : rows) {
        view = log.from_here();
        let_fail(row.call, row.error);
        EXPECT_EQ(bridge_bulk_upgrade_start(), row.result);
        let_all_pass();
        for (const std::string &line : row.lines)
            EXPECT_TRUE(view.has(line)) << line;
        EXPECT_FALSE(queue_exists(QUEUE));
    }
    mqtt.subscribe_result = -7;
    EXPECT_EQ(bridge_bulk_upgrade_start(), -7);
    EXPECT_TRUE(view.has("INFO bulk upgrade subscription failed"));
    EXPECT_FALSE(queue_exists(QUEUE));
    mqtt.subscribe_result = 0;
    EXPECT_EQ(bridge_bulk_upgrade_start(), 0) << "the next start succeeds";
    EXPECT_TRUE(idle());
}

TEST_F(BspUpgradeInited, AThreadThatCannotBeStartedLeavesTheSubscription)
{
    let_fail(THPOOL_ADD_WORK);
    bridge_bulk_upgrade_start();
    let_all_pass();
    EXPECT_EQ(mqtt.calls(), (std::vector{join({"subscribe OAM ", DESIRED})}));
    view = log.from_here();
    deliver(REQUEST);
    EXPECT_THAT(
        view.lines(),
        ElementsAre("TRACE bulk upgrade message received",
                    "TRACE Bulk upgrade service is not running -- bridge likely in the middle of a restart, "
                    "ignoring the message"));
}

TEST_F(BspUpgradeInited, AThreadWithoutTimerOrQueueEndsAndIsStoppedAllTheSame)
{
    const struct {
        const char *call;
        int after;
        const char *line;
    } rows[] = {
        {"timer_create", 0, "ERROR Can't create timer for bsp upgrade"},
        {"mq_open", 1,
         "ERROR Can't open message queue for reading for bsp upgrade during bsp upgrade thread startup"},
    };
    for (const auto &row : rows) {
        view = log.from_here();
        let_fail(row.call, EMFILE, row.after);
        EXPECT_EQ(bridge_bulk_upgrade_start(), 0);
        thpool_wait(ctx->pool);
        let_all_pass();
        EXPECT_TRUE(view.has(row.line)) << row.line;
        EXPECT_FALSE(view.has(GAVE_UP));
        EXPECT_EQ(bridge_bulk_upgrade_stop(), 0);
        bridge_bulk_upgrade_deinit();
        bridge_bulk_upgrade_init(ctx);
    }
    EXPECT_THAT(supervisor.taken(), IsEmpty());
    EXPECT_THAT(utility.calls(), IsEmpty());
}

TEST_F(BspUpgradeInited, AUtilityThatCannotBeRunEndsTheThread)
{
    let_fail("popen", EAGAIN);
    EXPECT_EQ(bridge_bulk_upgrade_start(), 0);
    thpool_wait(ctx->pool);
    let_all_pass();
    EXPECT_THAT(view.complaints(),
                ElementsAre("ERROR popen with the upgrade utility failed, got null pointer",
                            "ERROR Unable to contact the Upgrade utility during bsp upgrade thread startup",
                            GAVE_UP));
    EXPECT_THAT(reports(), ElementsAre("|BSP UPGRADE UTILITY NOT REACHABLE|"));
    EXPECT_THAT(supervisor.taken(), ElementsAre(Pair(CODE_THREAD_ENDED, &word)));
    EXPECT_EQ(bridge_bulk_upgrade_start(), 0) << "it counts as started";
}

TEST_F(BspUpgradeInited, AFailureWithoutASupervisorIsNoEnd)
{
    context.user_handler = nullptr;
    let_fail("popen", EAGAIN);
    EXPECT_EQ(bridge_bulk_upgrade_start(), 0);
    thpool_wait(ctx->pool);
    EXPECT_TRUE(view.has(GAVE_UP));
}

TEST_F(BspUpgradeInited, ALeftoverQueueIsTakenWithItsMessages)
{
    leave_queue(QUEUE, MESSAGE_SIZE, {message_of(0), message_of(EXIT)});
    EXPECT_EQ(bridge_bulk_upgrade_start(), 0);
    thpool_wait(ctx->pool);
    EXPECT_TRUE(view.has("DEBUG bsp upgrade message queue: /bsp_upgrade_mq is already created"));
    EXPECT_TRUE(view.has("DEBUG stopping bsp upgrade thread"));
    EXPECT_EQ(bridge_bulk_upgrade_stop(), 0);
}

TEST_F(BspUpgradeInited, ALeftoverQueueOfLargerMessagesCannotBeRead)
{
    leave_queue(QUEUE, MESSAGE_SIZE + 8, {});
    EXPECT_EQ(bridge_bulk_upgrade_start(), 0);
    thpool_wait(ctx->pool);
    EXPECT_TRUE(view.has("ERROR failed to read from the message queue: Message too long"));
    EXPECT_THAT(supervisor.taken(), ElementsAre(Pair(CODE_THREAD_ENDED, &word)));
}

TEST_F(BspUpgradeInited, AnUpgradeUnderWayIsPolledAtOnce)
{
    const struct {
        const char *answer;
        bool polled;
        const char *state;
    } rows[] = {
        {"idle", false, "NO KNOWN BSP ACTIVITY"},
        {"downloading", true, "DOWNLOADING"},
        {"download-ok", true, "DOWNLOADED"},
        {"scheduled", true, "UPDATE SCHEDULED"},
        {"in-progress", true, "INSTALLING"},
        {"error", false, "INSTALL (DOWNLOAD/UPGRADE) FAILED"},
        {"ok", false, "INSTALLED"},
        {"", false, "NO KNOWN BSP ACTIVITY"},
        {"Fail", false, "NO KNOWN BSP ACTIVITY"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.answer);
        view = log.from_here();
        timers.reset();
        utility.answer("-s", row.answer);
        EXPECT_EQ(bridge_bulk_upgrade_start(), 0);
        EXPECT_TRUE(idle());
        const std::string report = join({"1.0|", row.state, "|from 1.0 to 1.1"});
        EXPECT_EQ(reports(), std::vector<std::string>(row.polled ? 2 : 1, report));
        EXPECT_EQ(utility.calls(), std::vector<std::string>(row.polled ? 2 : 1, "-s"));
        EXPECT_EQ(timers.taken(), row.polled ? (std::vector<std::string>{"made", "30000 ms"})
                                             : (std::vector<std::string>{"made"}));
        bridge_bulk_upgrade_stop();
        bridge_bulk_upgrade_deinit();
        bridge_bulk_upgrade_init(ctx);
    }
}

TEST_F(BspUpgradeInited, TheReportOfTheStartComesAlsoWithoutTheAgent)
{
    agent.fail("text");
    EXPECT_EQ(bridge_bulk_upgrade_start(), 0);
    EXPECT_TRUE(idle());
    agent.let_pass();
    EXPECT_THAT(view.complaints(), ElementsAre("WARN Failed to fetch the available BSP version",
                                               "WARN Failed to fetch the current BSP version"));
    ASSERT_EQ(mqtt.publishes().size(), 1U);
    EXPECT_THAT(
        mqtt.publishes()[0].body,
        HasSubstr(R"("content":{"version":"","state":"NO KNOWN BSP ACTIVITY","lastFirmwareUpdateTs":0,)"
                  R"("availableUpdates": [""]}})"));
}

/* ---- the queue ---- */

TEST_F(BspUpgrade, ASignalInTheWaitRunsTheLastActionAgain)
{
    utility.answer("-s", "in-progress");
    interrupt_receives(2);
    view = log.from_here();
    timers.expire();
    EXPECT_TRUE(idle(3));
    EXPECT_EQ(view.count("TRACE Action: poll status"), 3);
    EXPECT_EQ(view.count("TRACE Read 48 bytes from msg queue"), 1);
}

TEST_F(BspUpgrade, AQueueThatCannotBeReadEndsTheThread)
{
    let_fail("mq_receive", EBADF);
    timers.expire();
    thpool_wait(ctx->pool);
    let_all_pass();
    EXPECT_THAT(view.complaints(),
                ElementsAre("ERROR failed to read from the message queue: Bad file descriptor", GAVE_UP));
    EXPECT_THAT(supervisor.taken(), ElementsAre(Pair(CODE_THREAD_ENDED, &word)));
    EXPECT_THAT(timers.taken(), ElementsAre("gone"));
    deliver(REQUEST);
    EXPECT_EQ(view.count(LOST), 0) << "the queue still takes it";
}

TEST_F(BspUpgrade, ALateTimerOfAStoppedServiceIsTold)
{
    bridge_bulk_upgrade_stop();
    view = log.from_here();
    timers.expire();
    EXPECT_THAT(view.lines(), ElementsAre("TRACE bsp upgrade timer handler", LOST));
}

TEST_F(BspUpgrade, AMessageBehindTheStopIsIgnored)
{
    bridge_bulk_upgrade_stop();
    view = log.from_here();
    deliver(REQUEST);
    EXPECT_THAT(view.complaints(), IsEmpty());
    EXPECT_THAT(utility.calls(), IsEmpty());
}

/* ---- stop ---- */

TEST_F(BspUpgrade, AStopWaitsForTheUtility)
{
    utility.hold();
    deliver(REQUEST);
    ASSERT_TRUE(utility.wait_for_calls(1));
    std::atomic<bool> stopped = false;
    std::thread stopper([&] {
        bridge_bulk_upgrade_stop();
        stopped = true;
    });
    EXPECT_TRUE(view.wait_for("DEBUG stopping bulk upgrade service"));
    deliver(REQUEST); /* the lock is free meanwhile */
    EXPECT_FALSE(stopped);
    utility.let_go();
    stopper.join();
    EXPECT_TRUE(view.has("DEBUG stopping bsp upgrade thread"));
}

TEST_F(BspUpgrade, AStopThatCannotTellAThreadThatHasEndedGoesOn)
{
    let_fail("mq_receive", EBADF);
    timers.expire();
    thpool_wait(ctx->pool);
    empty_queue(QUEUE); /* of the timer's message, when the thread had not begun to wait for it */
    view = log.from_here();
    let_fail("mq_send", EAGAIN);
    EXPECT_EQ(bridge_bulk_upgrade_stop(), 0);
    let_all_pass();
    EXPECT_THAT(view.complaints(),
                ElementsAre("ERROR Unable to send exit message to the bsp upgrade worker"));
    EXPECT_FALSE(queue_exists(QUEUE));
}

/* Ten requests behind a busy utility; the exit takes the place of the oldest one. */
TEST_F(BspUpgrade, AStopFindsRoomInAFullQueue)
{
    utility.hold();
    deliver(REQUEST);
    ASSERT_TRUE(utility.wait_for_calls(1));
    for (size_t i = 1; i <= QUEUE_LENGTH; i++)
        deliver(join({R"({"updateTs":)", std::to_string(i * 1000), R"(,"update":{}})"}));
    EXPECT_THAT(view.complaints(), IsEmpty());
    std::thread stopper([] { EXPECT_EQ(bridge_bulk_upgrade_stop(), 0); });
    EXPECT_TRUE(view.wait_for(DISPLACED));
    utility.let_go();
    stopper.join();
    EXPECT_EQ(view.count(DISPLACED), 1);
    EXPECT_FALSE(view.has("WARN Ignored already processed bsp upgrade request (ts: 1)"));
    for (size_t i = 2; i <= QUEUE_LENGTH; i++)
        EXPECT_TRUE(view.has(
            join({"WARN Ignored already processed bsp upgrade request (ts: ", std::to_string(i), ")"})));
    EXPECT_TRUE(view.has("DEBUG stopping bsp upgrade thread"));
    EXPECT_FALSE(queue_exists(QUEUE));
}

TEST_F(BspUpgrade, AStopFindsRoomAlsoBehindAThreadThatHasEnded)
{
    let_fail("mq_receive", EBADF);
    timers.expire();
    thpool_wait(ctx->pool);
    let_all_pass();
    for (size_t i = 0; i < QUEUE_LENGTH; i++)
        deliver(REQUEST);
    view = log.from_here();
    EXPECT_EQ(bridge_bulk_upgrade_stop(), 0);
    EXPECT_THAT(view.complaints(), ElementsAre(DISPLACED));
    EXPECT_FALSE(queue_exists(QUEUE));
}

/* The rows fail where the exit looks for room, with no thread that would be left behind. */
TEST_F(BspUpgradeInited, AStopThatFindsNoRoomIsTold)
{
    static constexpr const char *CALLS[] = {"mq_open", "mq_receive"};
    for (const char *call : CALLS) {
        SCOPED_TRACE(call);
        let_fail("timer_create", EAGAIN);
        EXPECT_EQ(bridge_bulk_upgrade_start(), 0);
        thpool_wait(ctx->pool);
        let_all_pass();
        for (size_t i = 0; i < QUEUE_LENGTH; i++)
            deliver(REQUEST);
        view = log.from_here();
        let_fail(call, EMFILE);
        EXPECT_EQ(bridge_bulk_upgrade_stop(), 0);
        let_all_pass();
        EXPECT_THAT(view.complaints(),
                    ElementsAre("ERROR Unable to send exit message to the bsp upgrade worker"));
        EXPECT_FALSE(queue_exists(QUEUE));
        bridge_bulk_upgrade_deinit();
        bridge_bulk_upgrade_init(ctx);
    }
}

/* The thread ends by itself for such a queue, but not before the utility has answered. */
TEST_F(BspUpgradeInited, AStopFindsRoomInAQueueOfLargerMessages)
{
    leave_queue(QUEUE, MESSAGE_SIZE + 8, std::vector(QUEUE_LENGTH, message_of(0)));
    utility.hold();
    EXPECT_EQ(bridge_bulk_upgrade_start(), 0);
    ASSERT_TRUE(utility.wait_for_calls(1));
    std::thread stopper([] { EXPECT_EQ(bridge_bulk_upgrade_stop(), 0); });
    EXPECT_TRUE(view.wait_for(DISPLACED));
    utility.let_go();
    stopper.join();
    EXPECT_TRUE(view.has("ERROR failed to read from the message queue: Message too long"));
}

/* The thread would still run on a queue that is gone. */
TEST_F(BspUpgradeDeath, AStopThatCannotTellARunningThreadIsAFault)
{
    EXPECT_ASSERTION(
        {
            let_fail("mq_send", EAGAIN);
            bridge_bulk_upgrade_stop();
        },
        "rc == 0");
}

TEST_F(BspUpgradeDeath, LifeHasItsOrder)
{
    EXPECT_ASSERTION(bridge_bulk_upgrade_init(ctx), "!module_ctx.inited");
    EXPECT_ASSERTION(bridge_bulk_upgrade_deinit(), "!module_ctx.started");
}

TEST_F(BspUpgradeOff, ItCannotBeDeinitialisedFirst)
{
    EXPECT_ASSERTION(bridge_bulk_upgrade_deinit(), "module_ctx.inited");
}
