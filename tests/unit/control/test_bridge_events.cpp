/* Alarms and faults: the messages, the rounds of both modes, and which notifications count. */
#include "converter/control/bridge_events.h"

#include "common/captured_stderr.h"
#include "control/control_neighbours.h"
#include "thread_pool/thpool.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <limits>
#include <net-snmp/library/fd_event_manager.h>
#include <sys/select.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

static constexpr const char *TOPIC = "api/v1/gateway/events";
static constexpr const char *ALARM_TABLE = "hmAlarmCurrentStateId";
static constexpr const char *FAULT_TABLE = "hmFaultCurrentStateId";
static constexpr const char *ALARM_ROWS =
    "rows id=hmAlarmCurrentStateId:1 severity=hmAlarmCurrentStateSeverity:1 "
    "state=hmAlarmCurrentStateState:1";
static constexpr const char *FAULT_ROWS =
    "rows id=hmFaultCurrentStateId:1 severity=hmFaultCurrentStateSeverity:1 "
    "state=hmFaultCurrentStateState:1";
static constexpr const char *ALARM_TEXT = "hmAlarmDescriptionText.0";
static constexpr const char *FAULT_TEXT = "hmFaultDescriptionText.0";

FAILING_THPOOL_ADD_WORK
FAILING_NEW
FAILING_CALL(char *, strdup, (const char *text), (text), nullptr)

/* ---- the waits of both modes, answered by the test ---- */

/* The n-th wait, from 1 on: its result. */
static std::function<int(int, const timespec &)> on_wait;
static int wait_count;

struct select_step {
    int result;
    int error;
    std::function<void()> within;
};

/* What the library and the system are asked in trap mode. */
static struct {
    std::vector<select_step> steps;
    std::vector<std::string> calls;
    long timeout_s; /* what the library asks for; -1: nothing */
    int left;       /* descriptors that others do not take */
    std::function<void()> within_read;
} traps;

static converter_ctx *running_ctx;

static bool holds_the_mutex()
{
    bool free_for_others = false;
    std::thread([&] {
        free_for_others = pthread_mutex_trylock(&running_ctx->mutex) == 0;
        if (free_for_others)
            pthread_mutex_unlock(&running_ctx->mutex);
    }).join();
    return !free_for_others;
}

static void note_locked(const std::string &call)
{
    traps.calls.push_back(holds_the_mutex() ? call : join({call, " unlocked"}));
}

extern "C" {
int __wrap_pthread_cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex, const timespec *deadline)
{
    EXPECT_EQ(condition, &running_ctx->events_cond);
    EXPECT_EQ(mutex, &running_ctx->mutex);
    return on_wait(++wait_count, *deadline);
}

int __real_select(int count, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval *timeout);
int __wrap_select(int, fd_set *, fd_set *, fd_set *, timeval *timeout)
{
    const bool held = holds_the_mutex();
    traps.calls.push_back(join({"select ", std::to_string(timeout->tv_sec), held ? " locked" : ""}));
    if (traps.steps.empty()) {
        running_ctx->ctrl_running = false;
        return 0;
    }
    const select_step step = traps.steps.front();
    traps.steps.erase(traps.steps.begin());
    if (step.within)
        step.within();
    if (traps.steps.empty())
        running_ctx->ctrl_running = false;
    errno = step.error;
    return step.result;
}

int snmp_select_info(int *count, fd_set *, timeval *timeout, int *block)
{
    note_locked(*count == 0 && *block == 0 && timeout->tv_sec == 5 ? "info" : "info of something");
    if (traps.timeout_s >= 0)
        timeout->tv_sec = traps.timeout_s;
    return 1;
}

void netsnmp_external_event_info(int *, fd_set *, fd_set *, fd_set *)
{
    note_locked("external info");
}

void netsnmp_dispatch_external_events(int *count, fd_set *, fd_set *, fd_set *)
{
    note_locked("dispatch " + std::to_string(*count));
    if (traps.left >= 0)
        *count = traps.left;
}

void snmp_read(fd_set *)
{
    note_locked("read");
    if (traps.within_read)
        traps.within_read();
}

void snmp_timeout()
{
    note_locked("timeout");
}
}

/* ---- fixture ---- */

class Events : public ControlTest
{
  protected:
    Events()
    {
        running_ctx = ctx;
        wait_count = 0;
        on_wait = [this](int, const timespec &) {
            ctx->ctrl_running = false;
            return ETIMEDOUT;
        };
        traps = {.timeout_s = -1, .left = -1};
        configuration.generic.gw_events_interval = 60;
        agent.text(ALARM_TEXT, "door is open");
        agent.text(FAULT_TEXT, "no antenna");
    }

    ~Events() override
    {
        thpool_destroy(context.pool);
    }

    /* The worker from its launch to its end. */
    void run()
    {
        view = log.from_here();
        if (context.pool == nullptr)
            context.pool = thpool_init(1);
        ASSERT_EQ(bridge_events_cb_launcher(ctx, TOPIC), 0);
        thpool_wait(ctx->pool);
        ctx->event_thr_running = false; /* the launcher may be slower than a worker that ends at once */
        ctx->ctrl_running = true;
    }

    std::vector<std::string> events_of_a_run()
    {
        const size_t before = mqtt.publishes().size();
        run();
        std::vector<std::string> bodies = published_on(TOPIC);
        bodies.erase(bodies.begin(), bodies.begin() + static_cast<std::ptrdiff_t>(before));
        return bodies;
    }

    std::string event(const std::string &type, const std::string &id, const std::string &severity,
                      const std::string &state, const std::string &description) const
    {
        return terminated(
            join({R"({"ts":0,"mac":")", mac, R"(","type":")", type, R"(","typeId":)", id, R"(,"severity":")",
                  severity, R"(","state":")", state, R"(","description":")", description, R"("})"}));
    }

    log_view view = log.from_here();
};

class EventsDeath : public Events
{
};

static std::string row(const std::string &id, const std::string &severity, const std::string &state)
{
    return join({R"({"id":)", id, R"(,"severity":)", severity, R"(,"state":)", state, "}"});
}

static std::string rows(std::initializer_list<std::string> all)
{
    std::string text;
    for (const std::string &each : all)
        text += (text.empty() ? "[" : ",") + each;
    return text + "]";
}

/* ---- the messages ---- */

TEST_F(Events, AnAlarmAndAFaultToTheLetter)
{
    agent.table(ALARM_TABLE, rows({row("3", "2", "1")}));
    agent.table(FAULT_TABLE, rows({row("12", "0", "0")}));
    EXPECT_THAT(
        events_of_a_run(),
        ElementsAre(
            terminated(R"({"ts":0,"mac":"0016c001f1500a0b","type":"ALARM","typeId":3,"severity":"MINOR",)"
                       R"("state":"RAISED","description":"door is open"})"),
            terminated(R"({"ts":0,"mac":"0016c001f1500a0b","type":"FAULT","typeId":12,"severity":"CRITICAL",)"
                       R"("state":"CLEAR","description":"no antenna"})")));
    EXPECT_THAT(agent.calls(),
                ElementsAre(ALARM_ROWS, "set hmAlarmDescriptionId.0=3", "text hmAlarmDescriptionText.0 64",
                            FAULT_ROWS, "set hmFaultDescriptionId.0=12", "text hmFaultDescriptionText.0 64"));
}

TEST_F(Events, ARoundIsLogged)
{
    agent.table(ALARM_TABLE, rows({row("3", "2", "1")}));
    const std::string text = event("ALARM", "3", "MINOR", "RAISED", "door is open").c_str();
    run();
    EXPECT_THAT(view.lines(), ElementsAre("DEBUG launching event worker thread",
                                          R"(TRACE got events data: {"id":3,"severity":2,"state":1})",
                                          "TRACE reached field: id", "TRACE reached field: severity",
                                          "TRACE reached field: state",
                                          join({"DEBUG publishing message: ", text, " on topic: ", TOPIC}),
                                          "INFO stopping event polling", "DEBUG exiting event thread"));
}

TEST_F(Events, EmptyTablesPublishNothing)
{
    EXPECT_THAT(events_of_a_run(), IsEmpty());
    EXPECT_THAT(agent.calls(), ElementsAre(ALARM_ROWS, FAULT_ROWS));
    agent.table(FAULT_TABLE, rows({row("1", "1", "1")}));
    EXPECT_THAT(events_of_a_run(), ElementsAre(event("FAULT", "1", "MAJOR", "RAISED", "no antenna")));
}

TEST_F(Events, SeverityAndStateAreWordsAndOtherNumbersHaveOneOfTheirOwn)
{
    static constexpr struct {
        const char *number;
        const char *severity;
        const char *state;
    } cases[] = {
        {"0", "CRITICAL", "CLEAR"},
        {"1", "MAJOR", "RAISED"},
        {"2", "MINOR", "INVALID"},
        {"3", "DEFAULT", "INVALID"},
        {"7", "DEFAULT", "INVALID"},
        {"-1", "DEFAULT", "INVALID"},
        {"4294967296", "DEFAULT", "INVALID"},
        {"-9223372036854775808", "DEFAULT", "INVALID"},
        {"null", "CRITICAL", "CLEAR"},
    };
    for (const auto &each : cases) {
        SCOPED_TRACE(each.number);
        agent.table(FAULT_TABLE, rows({row("9", each.number, each.number)}));
        EXPECT_THAT(events_of_a_run(),
                    ElementsAre(event("FAULT", "9", each.severity, each.state, "no antenna")));
    }
}

TEST_F(Events, TheIdIsBareAndTheDescriptionUnescaped)
{
    static constexpr struct {
        const char *id;
        const char *bare;
        const char *description;
    } cases[] = {
        {"-1", "-1", ""},
        {"9223372036854775807", "9223372036854775807", "a \"quoted\" one"},
        {R"("text")", "text", "back\\slash\n"},
        {R"("")", "", "%s%n"},
        {R"("012345678901234567890123456789012345678901234567890123456789012")",
         "012345678901234567890123456789012345678901234567890123456789012", "d"},
        {"5", "5", "012345678901234567890123456789012345678901234567890123456789012"},
    };
    for (const auto &each : cases) {
        SCOPED_TRACE(each.id);
        agent.table(ALARM_TABLE, rows({row(each.id, "1", "0")}));
        agent.text(ALARM_TEXT, each.description);
        EXPECT_THAT(events_of_a_run(),
                    ElementsAre(event("ALARM", each.bare, "MAJOR", "CLEAR", each.description)));
        EXPECT_EQ(agent.count(join({"set hmAlarmDescriptionId.0=", each.bare})), 1);
    }
}

TEST_F(Events, AMessageFillsItsBufferToTheLastByte)
{
    agent.table(ALARM_TABLE, rows({row("3", "2", "1")}));
    memset(mac, 'm', sizeof(mac) - 1);
    mac[0] = '\0';
    const size_t room = 256 - event("ALARM", "3", "MINOR", "RAISED", "door is open").size();
    memset(mac, 'm', room);
    mac[room] = '\0';
    const std::vector<std::string> bodies = events_of_a_run();
    ASSERT_EQ(bodies.size(), 1U);
    EXPECT_EQ(bodies[0].size(), 256U) << "255 characters and the terminator";
}

TEST_F(EventsDeath, AMessageThatDoesNotFitIsAsserted)
{
    agent.table(ALARM_TABLE, rows({row("3", "2", "1")}));
    mac[0] = '\0';
    const size_t room = 256 - event("ALARM", "3", "MINOR", "RAISED", "door is open").size();
    memset(mac, 'm', room + 1);
    mac[room + 1] = '\0';
    EXPECT_ASSERTION(run(), "n > 0 && (size_t)n < sizeof(event_json)");
}

/* ---- what loses a round ---- */

TEST_F(Events, AFailureLosesTheRestOfItsRound)
{
    const struct {
        const char *call;
        int after;
        const char *line;
        size_t published_before;
    } cases[] = {
        {ALARM_ROWS, 0, "ERROR failed to get event information", 0},
        {FAULT_ROWS, 0, "ERROR failed to get event information", 2},
        {"set hmAlarm", 0, "ERROR cannot request event description", 0},
        {"set hmAlarm", 1, "ERROR cannot request event description", 1},
        {"set hmFault", 0, "ERROR cannot request event description", 2},
        {"text hmAlarm", 1, "ERROR cannot fetch event description", 1},
        {"text hmFault", 0, "ERROR cannot fetch event description", 2},
    };
    agent.table(ALARM_TABLE, rows({row("1", "1", "1"), row("2", "1", "1")}));
    agent.table(FAULT_TABLE, rows({row("3", "1", "1")}));
    for (const auto &each : cases) {
        SCOPED_TRACE(testing::Message() << each.call << " after " << each.after);
        agent.fail(each.call, each.after);
        EXPECT_EQ(events_of_a_run().size(), each.published_before);
        EXPECT_THAT(view.complaints(), ElementsAre(each.line));
        EXPECT_THAT(supervisor.taken(), IsEmpty());
    }
    agent.let_pass();
    EXPECT_EQ(events_of_a_run().size(), 3U);
}

TEST_F(Events, ARowThatCannotBeReadLosesTheRestOfItsRound)
{
    static constexpr struct {
        const char *bad;
        const char *warning;
    } cases[] = {
        {R"({"severity":1,"state":1})", "WARN unable to retrieve field"},
        {R"({"id":1,"state":1})", "WARN unable to retrieve field"},
        {R"({"id":1,"severity":1})", "WARN unable to retrieve field"},
        {R"({"id":null,"severity":1,"state":1})", "WARN unable to fetch string"},
        {R"({"id":"0123456789012345678901234567890123456789012345678901234567890123","severity":1,"state":1})",
         "WARN not enough space for incoming string"},
        {"[]", "WARN unable to retrieve field"},
    };
    agent.table(FAULT_TABLE, rows({row("3", "1", "1")}));
    for (const auto &each : cases) {
        SCOPED_TRACE(each.bad);
        agent.table(ALARM_TABLE, rows({row("1", "1", "1"), each.bad, row("2", "1", "1")}));
        EXPECT_THAT(events_of_a_run(), ElementsAre(event("ALARM", "1", "MAJOR", "RAISED", "door is open")));
        EXPECT_THAT(view.complaints(), ElementsAre(each.warning, "ERROR can't de-serialize event JSON"));
    }
}

TEST_F(Events, ABadNumberOfTheLastRowDoesNotCountAgainstTheNext)
{
    agent.table(ALARM_TABLE, rows({row("1", "1", "1"), row("2", "1", "1")}));
    agent.leaves_errno = EINVAL;
    EXPECT_EQ(events_of_a_run().size(), 2U);
    EXPECT_THAT(view.complaints(), IsEmpty());
}

TEST_F(Events, AFailedPublishLosesItsRoundAndAsksForARestart)
{
    agent.table(ALARM_TABLE, rows({row("1", "1", "1"), row("2", "1", "1"), row("3", "1", "1")}));
    for (const int result : {-1, 3}) {
        mqtt.results({0, result});
        EXPECT_EQ(events_of_a_run().size(), 2U);
        EXPECT_THAT(view.complaints(), ElementsAre("ERROR can't publish event"));
        EXPECT_THAT(supervisor.taken(), ElementsAre(Pair(1, &word)));
    }
}

TEST_F(EventsDeath, AFailedPublishWithoutAHandlerIsAsserted)
{
    agent.table(ALARM_TABLE, rows({row("1", "1", "1")}));
    ctx->user_handler = nullptr;
    mqtt.results({-1});
    EXPECT_ASSERTION(run(), "ctx->user_handler");
}

/* ---- polls ---- */

TEST_F(Events, EachPollPublishesTheWholeTablesAsTheyAreThen)
{
    agent.table(ALARM_TABLE, rows({row("1", "1", "1")}));
    on_wait = [this](int turn, const timespec &) {
        if (turn == 2)
            agent.table(ALARM_TABLE, rows({row("1", "1", "0"), row("2", "0", "1")}));
        if (turn == 3)
            agent.table(ALARM_TABLE, "[]");
        ctx->ctrl_running = turn < 4;
        return ETIMEDOUT;
    };
    const std::string raised = event("ALARM", "1", "MAJOR", "RAISED", "door is open");
    const std::string cleared = event("ALARM", "1", "MAJOR", "CLEAR", "door is open");
    const std::string second = event("ALARM", "2", "CRITICAL", "RAISED", "door is open");
    EXPECT_THAT(events_of_a_run(), ElementsAre(raised, raised, cleared, second));
    EXPECT_EQ(wait_count, 4);
    EXPECT_EQ(agent.count(ALARM_ROWS), 4);
}

TEST_F(Events, APollEndsAtItsIntervalAndAtNothingElse)
{
    std::vector<timespec> deadlines;
    timespec before = {};
    clock_gettime(CLOCK_REALTIME, &before);
    on_wait = [&](int turn, const timespec &deadline) {
        deadlines.push_back(deadline);
        EXPECT_TRUE(holds_the_mutex());
        if (turn < 3)
            return 0; /* woken by nobody */
        ctx->ctrl_running = false;
        return ETIMEDOUT;
    };
    configuration.generic.gw_events_interval = 4294967295;
    run();
    timespec after = {};
    clock_gettime(CLOCK_REALTIME, &after);
    EXPECT_EQ(agent.count(ALARM_ROWS), 1);
    ASSERT_EQ(deadlines.size(), 3U);
    static constexpr int64_t LAST_SECOND = std::numeric_limits<time_t>::max();
    for (const timespec &deadline : deadlines) {
        EXPECT_GE(deadline.tv_sec, std::min(before.tv_sec + 4294967295, LAST_SECOND));
        EXPECT_LE(deadline.tv_sec, std::min(after.tv_sec + 4294967295, LAST_SECOND));
        EXPECT_EQ(deadline.tv_nsec, deadlines[0].tv_nsec);
    }
}

TEST_F(Events, AStopIsNoticedWhenTheWaitIsWoken)
{
    on_wait = [this](int, const timespec &) {
        ctx->ctrl_running = false;
        return 0;
    };
    run();
    EXPECT_EQ(wait_count, 1);
    EXPECT_TRUE(view.has("INFO stopping event polling"));
}

TEST_F(Events, AStopBeforeTheWaitNeedsNone)
{
    ctx->ctrl_running = false;
    run();
    EXPECT_EQ(wait_count, 0);
    EXPECT_EQ(agent.count(ALARM_ROWS), 1);
}

TEST_F(Events, TheRunningFlagGoesAfterTheFirstPoll)
{
    std::vector<bool> flags;
    on_wait = [&](int turn, const timespec &) {
        if (turn == 1)
            ctx->event_thr_running = true; /* the launcher's, however slow it is */
        flags.push_back(ctx->event_thr_running);
        ctx->ctrl_running = turn < 3;
        return ETIMEDOUT;
    };
    run();
    EXPECT_THAT(flags, ElementsAre(true, false, false));
}

TEST_F(Events, AFailedRoundIsFollowedByTheNextPoll)
{
    agent.table(ALARM_TABLE, rows({row("1", "1", "1")}));
    agent.fail("set");
    on_wait = [this](int turn, const timespec &) {
        agent.let_pass();
        ctx->ctrl_running = turn < 2;
        return ETIMEDOUT;
    };
    EXPECT_EQ(events_of_a_run().size(), 1U);
}

/* ---- launch ---- */

TEST_F(Events, ALaunchThatFailsIsTold)
{
    static constexpr struct {
        const char *call;
        const char *line;
    } cases[] = {
        {NEW, "ERROR cannot allocate data for event worker"},
        {"strdup", "ERROR cannot allocate data for event topic"},
        {THPOOL_ADD_WORK, "ERROR failed to launch event worker thread"},
    };
    for (const auto &each : cases) {
        const log_view told = log.from_here();
        let_fail(each.call);
        EXPECT_EQ(bridge_events_cb_launcher(ctx, TOPIC), -1);
        let_all_pass();
        EXPECT_THAT(told.lines(), ElementsAre(each.line));
        EXPECT_FALSE(ctx->event_thr_running);
    }
}

TEST_F(Events, TheLauncherSetsTheFlagAndTheStopperDoesNothing)
{
    std::atomic<bool> is_waiting = false;
    std::atomic<bool> may_end = false;
    on_wait = [&](int, const timespec &) {
        is_waiting = true;
        EXPECT_TRUE(wait_until([&] { return may_end.load(); }));
        return ETIMEDOUT;
    };
    ctx->pool = thpool_init(1);
    ASSERT_EQ(bridge_events_cb_launcher(ctx, TOPIC), 0);
    EXPECT_TRUE(wait_until([&] { return is_waiting.load(); }));
    EXPECT_TRUE(ctx->event_thr_running);
    view = log.from_here();
    EXPECT_EQ(bridge_events_cb_stopper(ctx), 0);
    EXPECT_TRUE(ctx->event_thr_running);
    EXPECT_TRUE(ctx->ctrl_running);
    EXPECT_THAT(view.lines(), IsEmpty());
    ctx->ctrl_running = false;
    may_end = true;
    thpool_wait(ctx->pool);
    EXPECT_FALSE(ctx->event_thr_running);
}

TEST_F(EventsDeath, ALaunchWithoutItsArgumentsIsAsserted)
{
    EXPECT_ASSERTION(bridge_events_cb_launcher(nullptr, TOPIC), "ctx");
    EXPECT_ASSERTION(bridge_events_cb_launcher(ctx, nullptr), "topic");
    ctx->event_thr_running = true;
    EXPECT_ASSERTION(bridge_events_cb_launcher(ctx, TOPIC), "!ctx->event_thr_running");
}

/* ---- waiting for notifications ---- */

class EventsTrap : public Events
{
  protected:
    EventsTrap()
    {
        configuration.generic.gw_events_interval = 0;
        agent.table(ALARM_TABLE, rows({row("1", "1", "1")}));
    }
};

TEST_F(EventsTrap, TheTablesArePublishedAtTheStartAndAfterANotification)
{
    traps.steps = {{0, 0, nullptr}, {1, 0, nullptr}, {1, 0, nullptr}};
    int reads = 0;
    traps.within_read = [&] {
        reads++;
        EXPECT_EQ(mqtt.publishes().size(), static_cast<size_t>(reads)) << "not within the read";
        if (reads == 1)
            ctx->event_pending = true;
    };
    EXPECT_EQ(events_of_a_run().size(), 2U);
    EXPECT_FALSE(ctx->event_pending);
    EXPECT_THAT(traps.calls, ElementsAre("info", "external info", "select 5", "timeout", "info",
                                         "external info", "select 5", "dispatch 1", "read", "info",
                                         "external info", "select 5", "dispatch 1", "read"));
    EXPECT_EQ(wait_count, 0);
    EXPECT_THAT(view.complaints(), IsEmpty());
    EXPECT_TRUE(view.has("DEBUG exiting event thread"));
    EXPECT_FALSE(view.has("INFO stopping event polling"));
}

TEST_F(EventsTrap, WhatOthersTakeIsNotRead)
{
    traps.steps = {{2, 0, nullptr}};
    traps.left = 0;
    EXPECT_EQ(events_of_a_run().size(), 1U);
    EXPECT_THAT(traps.calls, ElementsAre("info", "external info", "select 5", "dispatch 2"));
}

TEST_F(EventsTrap, TheLibraryMayShortenTheWaitAndNotLengthenIt)
{
    static constexpr struct {
        long asked;
        const char *call;
    } cases[] = {{0, "select 0"}, {4, "select 4"}, {5, "select 5"}, {6, "select 5"}, {100000, "select 5"}};
    for (const auto &each : cases) {
        traps.calls.clear();
        traps.steps = {{0, 0, nullptr}};
        traps.timeout_s = each.asked;
        run();
        EXPECT_THAT(traps.calls, ElementsAre("info", "external info", each.call, "timeout"));
    }
}

TEST_F(EventsTrap, AWaitThatFailsIsToldAndTheNextOneFollows)
{
    static constexpr struct {
        int result;
        int error;
        const char *line; /* null: none */
    } cases[] = {
        {-1, EBADF, "ERROR select"},
        {-1, EINTR, nullptr},
        {-2, EINTR, "ERROR select returned -2"},
        {-2, EBADF, "ERROR select returned -2"},
        {INT32_MIN, 0, "ERROR select returned -2147483648"},
    };
    for (const auto &each : cases) {
        SCOPED_TRACE(testing::Message() << each.result << " " << each.error);
        traps.calls.clear();
        traps.steps = {{each.result, each.error, nullptr}, {0, 0, nullptr}};
        run();
        EXPECT_EQ(view.complaints(),
                  each.line != nullptr ? std::vector<std::string>{each.line} : std::vector<std::string>{});
        EXPECT_THAT(traps.calls, ElementsAre("info", "external info", "select 5", "info", "external info",
                                             "select 5", "timeout"))
            << "nothing is read or timed after a failure";
    }
}

TEST_F(EventsTrap, AFailedRoundIsNotRepeated)
{
    traps.steps = {{1, 0, nullptr}, {1, 0, nullptr}};
    int reads = 0;
    traps.within_read = [&] {
        agent.fail("set");
        if (++reads == 1)
            ctx->event_pending = true;
    };
    EXPECT_EQ(events_of_a_run().size(), 1U);
    EXPECT_FALSE(ctx->event_pending);
    EXPECT_EQ(agent.count(ALARM_ROWS), 2);
}

TEST_F(EventsTrap, AStopBeforeTheFirstWaitNeedsNone)
{
    ctx->ctrl_running = false;
    EXPECT_EQ(events_of_a_run().size(), 1U);
    EXPECT_THAT(traps.calls, IsEmpty());
}

/* ---- the notifications ---- */

/* A PDU of variables whose values are object identifiers. */
class notification
{
  public:
    struct variable {
        std::vector<oid> name;
        std::vector<oid> value;
        u_char type = ASN_OBJECT_ID;
    };

    notification(int command, std::vector<variable> variables)
        : variables_(std::move(variables)), list_(variables_.size())
    {
        pdu_.command = command;
        for (size_t i = 0; i < list_.size(); i++) {
            netsnmp_variable_list &each = list_[i];
            each.name = variables_[i].name.data();
            each.name_length = variables_[i].name.size();
            each.type = variables_[i].type;
            each.val.objid = variables_[i].value.data();
            each.val_len = variables_[i].value.size() * sizeof(oid);
            each.next_variable = i + 1 < list_.size() ? &list_[i + 1] : nullptr;
        }
        pdu_.variables = list_.empty() ? nullptr : list_.data();
    }

    netsnmp_pdu *pdu()
    {
        return &pdu_;
    }

  private:
    std::vector<variable> variables_;
    std::vector<netsnmp_variable_list> list_;
    netsnmp_pdu pdu_ = {};
};

static const std::vector<oid> UPTIME = {1, 3, 6, 1, 2, 1, 1, 3, 0};
static const std::vector<oid> TRAP = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};
static const std::vector<oid> ALARM = {1, 3, 6, 1, 4, 1, 59317, 3, 5, 200, 0, 20};
static const std::vector<oid> FAULT = {1, 3, 6, 1, 4, 1, 59317, 3, 5, 200, 0, 21};
static const std::vector<oid> OTHER = {1, 3, 6, 1, 4, 1, 59317, 3, 5, 200, 0, 22};
static const std::vector<oid> ABOVE = {1, 3, 6, 1, 4, 1, 59317, 3, 5, 200, 0};
static const std::vector<oid> BELOW = {1, 3, 6, 1, 4, 1, 59317, 3, 5, 200, 0, 20, 0};
static constexpr int INFORM = 0xa6;
static constexpr int TRAP2 = 0xa7;

static constexpr const char *TAKEN = "INFO Received alarm or fault notification";
static constexpr const char *NOT_FOUND = "ERROR Cannot find TrapOID in TRAP2 PDU";

TEST_F(Events, OnlyTheTwoNotificationsCount)
{
    const struct {
        const char *what;
        int command;
        std::vector<notification::variable> variables;
        int result;
        const char *line; /* behind the command; null: none */
    } cases[] = {
        {"alarm", TRAP2, {{UPTIME, {}}, {TRAP, ALARM}}, 0, TAKEN},
        {"fault", TRAP2, {{UPTIME, {}}, {TRAP, FAULT}}, 0, TAKEN},
        {"inform", INFORM, {{UPTIME, {}}, {TRAP, ALARM}}, 0, TAKEN},
        {"more behind", TRAP2, {{UPTIME, {}}, {TRAP, FAULT}, {OTHER, OTHER}}, 0, TAKEN},
        {"first", TRAP2, {{TRAP, ALARM}, {UPTIME, {}}}, 0, TAKEN},
        {"alone", TRAP2, {{TRAP, ALARM}}, 0, TAKEN},
        {"last", TRAP2, {{UPTIME, {}}, {OTHER, {}}, {TRAP, FAULT}}, 0, TAKEN},
        {"the second before the first", TRAP2, {{TRAP, OTHER}, {TRAP, ALARM}}, 0, TAKEN},
        {"the second before the first, of no use", TRAP2, {{TRAP, ALARM}, {TRAP, OTHER}}, 0, nullptr},
        {"another", TRAP2, {{UPTIME, {}}, {TRAP, OTHER}}, 0, nullptr},
        {"shorter", TRAP2, {{UPTIME, {}}, {TRAP, ABOVE}}, 0, nullptr},
        {"longer", TRAP2, {{UPTIME, {}}, {TRAP, BELOW}}, 0, nullptr},
        {"empty", TRAP2, {{UPTIME, {}}, {TRAP, {}}}, 0, nullptr},
        {"a text", TRAP2, {{UPTIME, {}}, {TRAP, ALARM, ASN_OCTET_STR}}, 0, nullptr},
        {"no trap variable", TRAP2, {{UPTIME, {}}, {OTHER, ALARM}}, -1, NOT_FOUND},
        {"no variables", TRAP2, {}, -1, NOT_FOUND},
        {"one variable", INFORM, {{UPTIME, ALARM}}, -1, NOT_FOUND},
        {"a response", 0xa2, {{UPTIME, {}}, {TRAP, ALARM}}, -1, nullptr},
        {"an old trap", 0xa4, {{UPTIME, {}}, {TRAP, ALARM}}, -1, nullptr},
        {"a report", 0xa8, {{UPTIME, {}}, {TRAP, ALARM}}, -1, nullptr},
    };
    for (const auto &each : cases) {
        SCOPED_TRACE(each.what);
        notification made(each.command, each.variables);
        netsnmp_session session = {};
        ctx->event_pending = false;
        view = log.from_here();
        EXPECT_EQ(snmp_event_input(1, &session, 0, made.pdu(), ctx), each.result);
        EXPECT_EQ(ctx->event_pending, each.line == TAKEN);
        char command[64];
        snprintf(command, sizeof(command), "INFO SNMP event callback command: %x",
                 static_cast<unsigned>(each.command));
        std::vector<std::string> lines = {command};
        if (each.line != nullptr)
            lines.emplace_back(each.line);
        EXPECT_EQ(view.lines(), lines);
    }
}

TEST_F(Events, ANotificationThatDoesNotCountLeavesAPendingOne)
{
    notification other(TRAP2, {{UPTIME, {}}, {TRAP, OTHER}});
    netsnmp_session session = {};
    ctx->event_pending = true;
    EXPECT_EQ(snmp_event_input(1, &session, 0, other.pdu(), ctx), 0);
    EXPECT_TRUE(ctx->event_pending);
}

TEST_F(Events, AMessageOfASessionInErrorIsDroppedInSilence)
{
    notification alarm(TRAP2, {{UPTIME, {}}, {TRAP, ALARM}});
    netsnmp_session session = {};
    session.s_snmp_errno = -24;
    EXPECT_EQ(snmp_event_input(1, &session, 0, alarm.pdu(), ctx), -1);
    EXPECT_FALSE(ctx->event_pending);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Events, OtherOperationsAreOnlyTold)
{
    static constexpr struct {
        int operation;
        const char *line; /* null: none */
    } cases[] = {
        {2, "ERROR Timeout: This shouldn't happen!"},
        {3, "ERROR Send Failed: This shouldn't happen either!"},
        {4, nullptr},
        {5, nullptr},
        {0, "ERROR Unknown operation (0): This shouldn't happen!"},
        {6, "ERROR Unknown operation (6): This shouldn't happen!"},
        {-1, "ERROR Unknown operation (-1): This shouldn't happen!"},
    };
    notification alarm(TRAP2, {{UPTIME, {}}, {TRAP, ALARM}});
    netsnmp_session session = {};
    for (const auto &each : cases) {
        view = log.from_here();
        EXPECT_EQ(snmp_event_input(each.operation, &session, 0, alarm.pdu(), ctx), 0);
        EXPECT_EQ(view.lines(),
                  each.line != nullptr ? std::vector<std::string>{each.line} : std::vector<std::string>{});
    }
    EXPECT_FALSE(ctx->event_pending);
}
