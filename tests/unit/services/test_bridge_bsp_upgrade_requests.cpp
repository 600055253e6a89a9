/* What comes of requests and polls. */
#include "services/bsp_upgrade_fixture.h"

#include <json-c/json.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

FAILING_CALL(int64_t, json_object_get_int64, (const json_object *value), (value), 0)

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

TEST_F(BspUpgrade, OnlyAFailureEndsThePollingOfTheRequestBefore)
{
    const struct {
        std::map<std::string, std::string> answers;
        bool polls_on;
    } rows[] = {
        {{{"-t", "request time: 2000"}}, true},
        {{{"-c", "No BSP upgrade available"}}, true},
        {{{"-t", "Fail"}}, false},
        {{{"-t", ""}}, false},
        {{{"-c", "Fail"}}, false},
        {{{"-U", "Fail"}}, false},
    };
    for (const auto &row : rows) {
        start_again();
        request(REQUEST);
        EXPECT_TRUE(timers.is_armed());
        for (const auto &[arguments, text] : row.answers)
            utility.answer(arguments, text);
        request(REQUEST);
        EXPECT_EQ(timers.is_armed(), row.polls_on);
        forget();
        utility.answer("-s", "in-progress");
        poll();
        EXPECT_EQ(reports().size(), 1U);
        EXPECT_TRUE(timers.is_armed()) << "a poll that is on its way is done, and polling goes on";
    }
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
