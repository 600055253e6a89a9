/* The upgrade service: its life, its states, and what it does when something of the system fails. */
#include "converter/control/bridge_bsp_upgrade.h"

#include "common/captured_stderr.h"
#include "control/control_neighbours.h"
#include "services/service_calls.h"
#include "thread_pool/thpool.h"

#include <cstring>
#include <json-c/json.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

static constexpr const char *QUEUE = "/bsp_upgrade_mq";
static constexpr size_t MESSAGE_SIZE = 48;
static constexpr size_t QUEUE_LENGTH = 10;
static constexpr const char *DESIRED = "gateway/mac/0016c001f1500a0b/firmware/desired";
static constexpr const char *REPORTED = "gateway/mac/0016c001f1500a0b/firmware/reported";
static constexpr const char *WAITING = "INFO BSP upgrade thread waiting for the next message";
static constexpr const char *REQUEST = R"({"updateTs":2000000,"update":{"timestamp":3000}})";
static constexpr const char *LOST = "WARN Warning: can't send message to bsp upgrade thread";
static constexpr const char *GAVE_UP = "ERROR Exiting bsp upgrade thread";

static constexpr int32_t EXIT = 1;
static constexpr int32_t POLL = 3;
static constexpr int32_t CODE_THREAD_ENDED = 4;

FAILING_CALL(int64_t, json_object_get_int64, (const json_object *value), (value), 0)

/* As it lies in the queue. */
static std::string message_of(int32_t action)
{
    std::string text(MESSAGE_SIZE, '\0');
    memcpy(text.data(), &action, sizeof(action));
    return text;
}

static std::string between(const std::string &text, const char *start, const char *end)
{
    const size_t place = text.find(start);
    if (place == std::string::npos)
        return "?";
    const size_t first = place + strlen(start);
    return text.substr(first, text.find(end, first) - first);
}

/* The report of a text as `reports` gives it. */
static std::string whole(const std::string &changed, const std::string &installed, const std::string &text)
{
    const size_t mark = text.starts_with("+") ? 1 : 0;
    const size_t state = text.find('|');
    const size_t offer = text.rfind('|');
    return terminated(join({R"({"mac":"0016c001f1500a0b","lastStateUpdateTs":)", changed,
                            R"(,"content":{"version":")", text.substr(mark, state - mark), R"(","state":")",
                            text.substr(state + 1, offer - state - 1), R"(","lastFirmwareUpdateTs":)",
                            installed, R"(,"availableUpdates": [")", text.substr(offer + 1), R"("]}})"}));
}

/* Neither initialised nor started. */
class BspUpgradeOff : public ControlTest
{
  protected:
    BspUpgradeOff()
    {
        strcpy(configuration.generic.gw_mac, mac);
        timers.reset();
        utility.reset();
        set_answers();
        context.pool = thpool_init(2);
    }

    ~BspUpgradeOff() override
    {
        thpool_wait(context.pool);
        thpool_destroy(context.pool);
        EXPECT_FALSE(queue_exists(QUEUE));
    }

    static void set_answers()
    {
        utility.answer("-s", "idle");
        utility.answer("-t", "request time: 1000");
        utility.answer("-c", "from 1.0 to 1.1");
        utility.answer("-U", "accepted");
        utility.answer("-G", "accepted");
        agent.text("bspVersion.0", "1.0");
        agent.text("getAvailableBspUpgrade.0", "from 1.0 to 1.1");
    }

    /* Since `view`. */
    bool idle(long count = 1)
    {
        return wait_until([&] { return view.count(WAITING) >= count; });
    }

    static void deliver(const std::string &payload)
    {
        std::vector<uint8_t> bytes(payload.begin(), payload.end());
        bytes.reserve(1); /* an empty message has a place, too */
        mqtt.handler(DESIRED, mqtt.handler_context, bytes.data(), static_cast<uint32_t>(bytes.size()));
    }

    /* Versions, states and offers that were reported, "version|state|offer"; "+" stands in front of one whose
     * install has just ended. */
    std::vector<std::string> reports()
    {
        std::vector<std::string> texts;
        const std::vector<published> all = mqtt.publishes();
        for (; seen_ < all.size(); seen_++) {
            const published &each = all[seen_];
            EXPECT_EQ(each.endpoint, BRIDGE_MQTT_EP_OAM);
            EXPECT_EQ(each.topic, REPORTED);
            EXPECT_TRUE(each.retained);
            const std::string &body = each.body;
            const std::string changed = between(body, R"("lastStateUpdateTs":)", ",");
            const std::string installed = between(body, R"("lastFirmwareUpdateTs":)", ",");
            EXPECT_TRUE(installed == "0" || installed == changed) << body;
            texts.push_back(join({installed != "0" ? "+" : "", between(body, R"("version":")", "\""), "|",
                                  between(body, R"("state":")", "\""), "|",
                                  between(body, R"("availableUpdates": [")", "\"]}}")}));
            EXPECT_EQ(body, whole(changed, installed, texts.back()));
        }
        return texts;
    }

    log_view view = log.from_here();

  private:
    size_t seen_ = 0;
};

class BspUpgradeInited : public BspUpgradeOff
{
  protected:
    BspUpgradeInited()
    {
        EXPECT_EQ(bridge_bulk_upgrade_init(ctx), 0);
        view = log.from_here();
    }
    ~BspUpgradeInited() override
    {
        let_all_pass();
        bridge_bulk_upgrade_stop();
        bridge_bulk_upgrade_deinit();
    }
};

/* Started, waiting, with nothing reported, called or told yet. */
class BspUpgrade : public BspUpgradeInited
{
  protected:
    BspUpgrade()
    {
        utility.answer("-s", "scheduled"); /* the timer then knows what to send */
        EXPECT_EQ(bridge_bulk_upgrade_start(), 0);
        EXPECT_TRUE(idle());
        utility.answer("-s", "idle");
        forget();
    }
    ~BspUpgrade() override
    {
        utility.let_go();
    }

    void forget()
    {
        reports();
        timers.taken();
        utility.calls();
        agent.reset();
        agent.text("bspVersion.0", "1.1");
        agent.text("getAvailableBspUpgrade.0", "No BSP upgrade available");
        view = log.from_here();
    }

    void start_again()
    {
        bridge_bulk_upgrade_stop();
        bridge_bulk_upgrade_deinit();
        set_answers();
        bridge_bulk_upgrade_init(ctx);
        view = log.from_here();
        bridge_bulk_upgrade_start();
        EXPECT_TRUE(idle());
        forget();
    }

    void request(const std::string &text)
    {
        view = log.from_here();
        deliver(text);
        EXPECT_TRUE(idle());
    }

    void poll()
    {
        view = log.from_here();
        timers.expire();
        EXPECT_TRUE(idle());
    }
};

/* A process whose service threads are its own. */
class BspUpgradeDeath : public BspUpgrade
{
};

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

/* ---- requests ---- */

TEST_F(BspUpgrade, RequestsEndInTheseStates)
{
    const std::vector<std::string> none;
    const std::vector<std::string> all_calls = {"-t", "-c", "-U 3,0"};
    const std::vector<std::string> polled = {"30000 ms"};
    const struct {
        std::map<std::string, std::string> answers;
        std::vector<std::string> reports;
        std::vector<std::string> calls;
        std::vector<std::string> timer;
        std::vector<std::string> complaints;
    } rows[] = {
        {{}, {"1.0 |UPDATE SCHEDULED|1.1"}, all_calls, polled, {}},
        {{{"-U", "\n"}}, {"1.0 |UPDATE SCHEDULED|1.1"}, all_calls, polled, {}},
        {{{"-t", "?"}}, {"1.0 |UPDATE SCHEDULED|1.1"}, all_calls, polled, {}},
        {{{"-t", "request time: 1999"}}, {"1.0 |UPDATE SCHEDULED|1.1"}, all_calls, polled, {}},
        {{{"-c", "no words"}}, {"|UPDATE SCHEDULED|"}, all_calls, polled, {}},
        {{{"-t", "request time: 2000"}},
         {},
         {"-t"},
         {},
         {"WARN Ignored already processed bsp upgrade request (ts: 2000)"}},
        {{{"-t", "request time: 2001"}},
         {},
         {"-t"},
         {},
         {"WARN Ignored already processed bsp upgrade request (ts: 2000)"}},
        {{{"-c", "No BSP upgrade available"}}, {"1.0|NO BSP UPGRADE AVAILABLE|None"}, {"-t", "-c"}, {}, {}},
        {{{"-t", "Fail 1"}},
         {"1.0|UNEXPECTED ERROR DURING BSP SCHEDULING|from 1.0 to 1.1"},
         {"-t"},
         {"off"},
         {"ERROR Upgrade utility met with an error: Fail 1"}},
        {{{"-c", "Fail 2"}},
         {"1.0|UNEXPECTED ERROR DURING BSP SCHEDULING|from 1.0 to 1.1"},
         {"-t", "-c"},
         {"off"},
         {"ERROR Upgrade utility met with an error: Fail 2"}},
        {{{"-U", "Fail 3"}},
         {"1.0 |UNEXPECTED ERROR DURING BSP SCHEDULING|1.1"},
         all_calls,
         {"off"},
         {"ERROR Upgrade utility met with an error: Fail 3"}},
        {{{"-t", ""}},
         {"1.0|UNEXPECTED ERROR DURING BSP SCHEDULING|from 1.0 to 1.1"},
         {"-t"},
         {"off"},
         {"ERROR Upgrade utility met with an error: "}},
    };
    for (const auto &row : rows) {
        start_again();
        for (const auto &[arguments, text] : row.answers)
            utility.answer(arguments, text);
        request(REQUEST);
        EXPECT_EQ(reports(), row.reports);
        EXPECT_EQ(utility.calls(), row.calls);
        EXPECT_EQ(timers.taken(), row.timer);
        EXPECT_EQ(view.complaints(), row.complaints);
    }
    EXPECT_THAT(supervisor.taken(), IsEmpty());
}

TEST_F(BspUpgrade, AUtilityThatCannotBeRunForARequestEndsTheThread)
{
    const struct {
        int after;
        const char *line;
    } rows[] = {
        {0, "ERROR Unable to contact the Upgrade utility to get the last request time"},
        {1, "ERROR Unable to contact the Upgrade utility to get the BSP status"},
        {2, "ERROR Unable to contact the Upgrade utility to schedule an upgrade request"},
    };
    for (const auto &row : rows) {
        start_again();
        let_fail("popen", EAGAIN, row.after);
        deliver(REQUEST);
        thpool_wait(ctx->pool);
        let_all_pass();
        EXPECT_THAT(
            view.complaints(),
            ElementsAre("ERROR popen with the upgrade utility failed, got null pointer", row.line, GAVE_UP));
        EXPECT_THAT(timers.taken(), ElementsAre("off", "gone"));
        const std::vector<std::string> told = reports();
        ASSERT_EQ(told.size(), 1U);
        EXPECT_THAT(told[0], HasSubstr("|BSP UPGRADE UTILITY NOT REACHABLE|"));
        EXPECT_THAT(supervisor.taken(), ElementsAre(Pair(CODE_THREAD_ENDED, &word)));
    }
}

TEST_F(BspUpgrade, ARequestIsToldAndQueued)
{
    request(REQUEST);
    const std::vector<std::string> lines = view.lines();
    EXPECT_EQ(lines.front(), "TRACE bulk upgrade message received");
    EXPECT_EQ(lines[1], join({"DEBUG Received BSP upgrade request: ", REQUEST}));
    EXPECT_TRUE(view.has("TRACE req update ts: 2000"));
    EXPECT_LT(view.position("TRACE req update ts: 2000"), view.position("TRACE Action: req received"));
}

TEST_F(BspUpgrade, BadMessagesAreToldAndNotQueued)
{
    const struct {
        std::string payload;
        const char *line;
    } rows[] = {
        {"", "ERROR invalid payload size received"},
        {"{", "ERROR Failed to parse incoming payload for bsp upgrade"},
        {"null", "ERROR Failed to parse incoming payload for bsp upgrade"},
        {"[]", "ERROR Update ts is missing"},
        {R"({"updateTs":2000000})", "ERROR No update parameters"},
        {R"({"updateTs":2000000,"update":null})", "ERROR No update parameters"},
    };
    for (const auto &row : rows) {
        view = log.from_here();
        deliver(row.payload);
        EXPECT_THAT(view.lines_of({"ERROR"}), ElementsAre(row.line)) << row.payload;
    }
    view = log.from_here();
    mqtt.handler(DESIRED, mqtt.handler_context, nullptr, 0);
    EXPECT_THAT(view.lines(), ElementsAre("ERROR payload buffer is NULL"));
    let_fail(NEW_ARRAY);
    view = log.from_here();
    deliver("{}");
    let_all_pass();
    EXPECT_THAT(view.complaints(), ElementsAre("ERROR failed to allocate memory for payload with size: 2"));
    EXPECT_THAT(utility.calls(), IsEmpty());
}

TEST_F(BspUpgrade, ANumberThatCannotBeReadIsTold)
{
    static constexpr const char *BOTH =
        R"({"updateTs":2000000,"update":{"timestamp":1},"download":{"maxRandomDelay":1}})";
    const std::pair<int, const char *> rows[] = {
        {0, "ERROR Update ts is missing"},
        {1, "ERROR failed to de-serialize update params"},
        {2, "ERROR failed to de-serialize download params"},
    };
    for (const auto &[after, line] : rows) {
        view = log.from_here();
        let_fail("json_object_get_int64", EINVAL, after);
        deliver(BOTH);
        let_all_pass();
        EXPECT_THAT(view.lines_of({"ERROR"}), ElementsAre(line));
    }
    EXPECT_THAT(utility.calls(), IsEmpty());
}

TEST_F(BspUpgrade, ATextThatIsNoNumberCountsAsNone)
{
    request(R"({"updateTs":"2000000","update":{"timestamp":"soon","maxRandomDelay":null,"force":"yes"}})");
    EXPECT_THAT(utility.calls(), ElementsAre("-t", "-c", "-U 0,0 -f"));
    request(R"({"updateTs":"soon","update":{}})");
    EXPECT_THAT(view.complaints(), ElementsAre("WARN Ignored already processed bsp upgrade request (ts: 0)"));
}

TEST_F(BspUpgrade, AnEleventhMessageInAFullQueueIsLost)
{
    utility.hold();
    deliver(REQUEST);
    ASSERT_TRUE(utility.wait_for_calls(1));
    for (size_t i = 0; i < QUEUE_LENGTH - 1; i++)
        deliver(REQUEST);
    timers.expire();
    EXPECT_THAT(view.complaints(), IsEmpty());
    deliver(REQUEST);
    EXPECT_THAT(view.complaints(), ElementsAre(LOST));
    timers.expire();
    EXPECT_THAT(view.complaints(), ElementsAre(LOST, LOST));
    utility.let_go();
    EXPECT_TRUE(idle(1 + QUEUE_LENGTH));
}

/* ---- polls ---- */

TEST_F(BspUpgrade, PollsEndInTheseStates)
{
    static constexpr const char *FAILED = "1.1|UNEXPECTED ERROR DURING BSP SCHEDULING|None";
    const struct {
        const char *answer;
        const char *report;
        std::vector<std::string> timer;
        size_t reads;
    } rows[] = {
        {"ok", "+1.1|INSTALLED|None", {}, 2},
        {"scheduled", "1.1|UPDATE SCHEDULED|None", {"30000 ms"}, 0},
        {"downloading", "1.1|DOWNLOADING|None", {"30000 ms"}, 0},
        {"download-ok", "1.1|DOWNLOADED|None", {"30000 ms"}, 0},
        {"in-progress", "1.1|INSTALLING|None", {"30000 ms"}, 0},
        {"error", "1.1|INSTALL (DOWNLOAD/UPGRADE) FAILED|None", {}, 2},
        {"idle", nullptr, {}, 0},
        {"Fail", FAILED, {"off"}, 0},
        {"", FAILED, {"off"}, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.answer);
        forget();
        utility.answer("-s", row.answer);
        poll();
        EXPECT_EQ(reports(),
                  row.report != nullptr ? std::vector<std::string>{row.report} : std::vector<std::string>{});
        EXPECT_EQ(timers.taken(), row.timer);
        EXPECT_EQ(agent.calls().size(), row.reads);
        EXPECT_THAT(utility.calls(), ElementsAre("-s"));
        EXPECT_TRUE(view.has("TRACE Action: poll status"));
    }
}

TEST_F(BspUpgrade, AFailedPollStopsTheTimerThatItHasJustStarted)
{
    let_fail("popen", EAGAIN);
    poll();
    let_all_pass();
    EXPECT_THAT(view.complaints(),
                ElementsAre("ERROR popen with the upgrade utility failed, got null pointer",
                            "WARN Not able to fetch the upgrade status, the upgrade utility might be busy",
                            "ERROR Upgrade utility met with an error: "));
    EXPECT_THAT(timers.taken(), ElementsAre("30000 ms", "off"));
    EXPECT_THAT(reports(), ElementsAre("1.0|BSP UPGRADE UTILITY NOT REACHABLE|from 1.0 to 1.1",
                                       "1.0|UNEXPECTED ERROR DURING BSP SCHEDULING|from 1.0 to 1.1"));
    EXPECT_THAT(supervisor.taken(), IsEmpty());
}

TEST_F(BspUpgrade, ATimerThatFailsIsTold)
{
    let_fail("timer_settime", EINVAL);
    request(REQUEST);
    EXPECT_THAT(view.complaints(),
                ElementsAre("ERROR Failed to start bsp upgrade schedule timer (30000): Invalid argument."));
    utility.answer("-s", "Fail");
    poll();
    let_all_pass();
    EXPECT_THAT(view.complaints(),
                ElementsAre("ERROR Upgrade utility met with an error: Fail",
                            "ERROR Failed to stop bsp upgrade schedule timer: Invalid argument."));
}

TEST_F(BspUpgrade, AReportThatCannotBeSentIsTold)
{
    utility.answer("-s", "in-progress");
    mqtt.results({-1});
    poll();
    EXPECT_THAT(view.complaints(),
                ElementsAre("ERROR failed to send bsp upgrade response - MQTT publish failure"));
    EXPECT_THAT(timers.taken(), ElementsAre("30000 ms")) << "polling goes on";
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
    view = log.from_here();
    let_fail("mq_send", EAGAIN);
    EXPECT_EQ(bridge_bulk_upgrade_stop(), 0);
    let_all_pass();
    EXPECT_THAT(view.complaints(),
                ElementsAre("ERROR Unable to send exit message to the bsp upgrade worker"));
    EXPECT_FALSE(queue_exists(QUEUE));
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
