/* The battery reports: the service's life, its timer, and the text of a report. */
#include "converter/control/bridge_performance_management.h"

#include "common/captured_stderr.h"
#include "control/control_neighbours.h"
#include "services/service_calls.h"
#include "thread_pool/thpool.h"

#include <cstring>
#include <fcntl.h>
#include <mqueue.h>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

static constexpr const char *QUEUE = "/performance_management_mq";
static constexpr size_t MESSAGE_SIZE = 8;
static constexpr int QUEUE_LENGTH = 10;
static constexpr int WORKERS = 2;
static constexpr const char *TOPIC = "gateway/mac/0016c001f1500a0b/performance";
static constexpr const char *WAITING = "INFO Performance management thread waiting for the next message";
static constexpr const char *NOT_ENABLED = "DEBUG battery performance measure not enabled";
static constexpr const char *NOT_DEFINED = "DEBUG battery performance period not defined";
static constexpr const char *LOST = "WARN Warning: can't send message to performance management thread";
static constexpr const char *DISPLACED =
    "WARN message queue /performance_management_mq is full at the stop: its oldest message is lost";
static constexpr const char *NO_DIGITS = "WARN Warning: No digits found";
static constexpr const char *ABSENT = "WARN Warning: SNMP value is N/A";
static constexpr const char *STOPPING = "ERROR stopping performance management thread";
static constexpr int32_t CODE_QUEUE_LOST = 6;

static constexpr int32_t EXIT = 1;
static constexpr int32_t PUBLISH = 2;
static constexpr int32_t BATTERY = 0;

/* In the order of the report: name, value, piece. */
static const struct {
    const char *key;
    const char *value;
    const char *piece;
} VALUES[] = {
    {"ChargerInputVoltage", "36.20", R"("chargerInputVoltage": 36.20)"},
    {"ChargerInputCurrent", "2.1", R"("chargerInputCurrent": 2.10)"},
    {"ChargerInputPower", "76.02", R"("chargerInputPower": 76.02)"},
    {"ChargerOutputVoltage", "13", R"("chargerOutputVoltage": 13.00)"},
    {"ChargerOutputCurrent", "-5.40", R"("chargerOutputCurrent": -5.40)"},
    {"ChargerOutputPower", "73.446", R"("chargerOutputPower": 73.45)"},
    {"ChargerSolarState", "DAY", R"("chargerSolarState": "DAY")"},
    {"ChargerChargingState", "BULK", R"("chargerChargingState": "BULK")"},
    {"BatteryVoltage", "13.40", R"("batteryVoltage": 13.40)"},
    {"BatteryCurrent", "4.20", R"("batteryCurrent": 4.20)"},
    {"BatteryPower", "56.28", R"("batteryPower": 56.28)"},
    {"BatteryTemperature", "24.50", R"("batteryTemperature": 24.50)"},
    {"BatteryCapacity", "81", R"("batteryCapacity": 81.00)"},
    {"LoadCurrent", "1.20", R"("loadCurrent": 1.20)"},
    {"LoadPower", "16.08", R"("loadPower": 16.08)"},
};
static constexpr size_t COUNT = std::size(VALUES);
static constexpr size_t SOLAR_STATE = 6;
static constexpr size_t CHARGING_STATE = 7;
static constexpr const char *HEAD = R"("timestamp": 1700000000123,"period": 60,)";

static bool is_text(size_t value)
{
    return value == SOLAR_STATE || value == CHARGING_STATE;
}

static std::string object_of(size_t value)
{
    return join({"spm", VALUES[value].key, ".0"});
}

/* With other pieces in some places; an empty one is left out. */
static std::string report(const std::map<size_t, std::string> &changes = {}, const char *head = HEAD)
{
    std::string pieces;
    for (size_t i = 0; i < COUNT; i++) {
        const auto change = changes.find(i);
        const std::string piece = change != changes.end() ? change->second : VALUES[i].piece;
        pieces += join({!pieces.empty() && !piece.empty() ? ", " : "", piece});
    }
    return join({R"({"name":"battery",)", head, R"("value":{)", pieces, "}}"});
}

static std::string message_of(int32_t action, int32_t measure)
{
    std::string text(MESSAGE_SIZE, '\0');
    memcpy(text.data(), &action, sizeof(action));
    memcpy(text.data() + sizeof(action), &measure, sizeof(measure));
    return text;
}

/* Neither initialised nor started. */
class PerformanceOff : public ControlTest
{
  protected:
    PerformanceOff()
    {
        strcpy(configuration.generic.gw_mac, mac);
        set_period(5);
        timers.reset();
        set_values();
        context.pool = thpool_init(WORKERS);
    }

    ~PerformanceOff() override
    {
        thpool_wait(context.pool);
        thpool_destroy(context.pool);
        EXPECT_FALSE(queue_exists(QUEUE));
    }

    static void set_period(uint32_t minutes, bool is_set = true)
    {
        configuration.performance.battery_reporting_period_mins = minutes;
        configuration.performance.battery_reporting_period_mins_set = is_set;
    }

    static void set_values()
    {
        agent.text("spmDataTimestamp.0", "1700000000123");
        agent.numbers("spmDataCollectingPeriod.0", {60});
        for (size_t i = 0; i < COUNT; i++)
            agent.text(object_of(i), VALUES[i].value);
    }

    bool idle(long count = 1)
    {
        return wait_until([&] { return view.count(WAITING) >= count; });
    }

    /* What has been published since the last look, without the terminator. */
    std::vector<std::string> reports()
    {
        std::vector<std::string> bodies;
        const std::vector<published> all = mqtt.publishes();
        for (; seen_ < all.size(); seen_++) {
            EXPECT_EQ(all[seen_].endpoint, BRIDGE_MQTT_EP_OAM);
            EXPECT_EQ(all[seen_].topic, TOPIC);
            EXPECT_TRUE(all[seen_].retained);
            EXPECT_EQ(all[seen_].body.back(), '\0');
            bodies.push_back(all[seen_].body.substr(0, all[seen_].body.size() - 1));
        }
        return bodies;
    }

    log_view view = log.from_here();

  private:
    size_t seen_ = 0;
};

/* For a process that has not made the lock yet. */
class PerformanceLockDeath : public testing::Test
{
  protected:
    PerformanceLockDeath()
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    }
    ~PerformanceLockDeath() override
    {
        GTEST_FLAG_SET(death_test_style, "fast");
    }

    converter_ctx context = {};
    converter_ctx *const ctx = &context;
};

class PerformanceInited : public PerformanceOff
{
  protected:
    PerformanceInited()
    {
        EXPECT_EQ(bridge_performance_management_init(ctx), 0);
        view = log.from_here();
    }
    ~PerformanceInited() override
    {
        let_all_pass();
        bridge_performance_management_stop();
        bridge_performance_management_deinit();
    }

    void live_again()
    {
        bridge_performance_management_stop();
        bridge_performance_management_deinit();
        thpool_wait(ctx->pool);
        timers.reset();
        bridge_performance_management_init(ctx);
        view = log.from_here();
    }
};

/* Started, and waiting. */
class Performance : public PerformanceInited
{
  protected:
    Performance()
    {
        EXPECT_EQ(bridge_performance_management_start(), 0);
        EXPECT_TRUE(idle());
        view = log.from_here();
    }

    void tick()
    {
        view = log.from_here();
        timers.expire();
        EXPECT_TRUE(idle());
    }

    /* Another message than the timer's. */
    void send(int32_t action, int32_t measure)
    {
        view = log.from_here();
        const std::string text = message_of(action, measure);
        const mqd_t mq = mq_open(QUEUE, O_WRONLY);
        EXPECT_EQ(mq_send(mq, text.data(), text.size(), 0), 0);
        mq_close(mq);
    }
};

class PerformanceDeath : public Performance
{
};

/* ---- life ---- */

TEST_F(PerformanceOff, EveryStepTwiceInARow)
{
    EXPECT_EQ(bridge_performance_management_init(ctx), 0);
    EXPECT_EQ(bridge_performance_management_stop(), 0);
    EXPECT_EQ(bridge_performance_management_stop(), 0);
    EXPECT_THAT(view.lines(), ElementsAre("DEBUG initializing performance management service",
                                          "DEBUG stopping performance management service",
                                          "DEBUG performance management service already stopped",
                                          "DEBUG stopping performance management service",
                                          "DEBUG performance management service already stopped"));
    EXPECT_EQ(bridge_performance_management_start(), 0);
    ASSERT_TRUE(idle());
    view = log.from_here();
    EXPECT_EQ(bridge_performance_management_start(), 0);
    EXPECT_THAT(view.lines(), ElementsAre("DEBUG starting performance management service",
                                          "DEBUG performance management service has already started"));
    EXPECT_EQ(bridge_performance_management_stop(), 0);
    EXPECT_FALSE(queue_exists(QUEUE));
    EXPECT_TRUE(view.wait_for(STOPPING));
    thpool_wait(context.pool);
    EXPECT_THAT(timers.taken(), ElementsAre("made", "300000 ms each", "gone"));
    view = log.from_here();
    EXPECT_EQ(bridge_performance_management_stop(), 0);
    EXPECT_EQ(bridge_performance_management_start(), -1);
    EXPECT_EQ(bridge_performance_management_start(), -1);
    EXPECT_THAT(
        view.lines(),
        ElementsAre(
            "DEBUG stopping performance management service",
            "INFO performance management service is already undergoing a restart, cannot be stopped now",
            "DEBUG starting performance management service",
            "INFO Performance management service is undergoing a restart, cannot start it now",
            "DEBUG starting performance management service",
            "INFO Performance management service is undergoing a restart, cannot start it now"));
    bridge_performance_management_deinit();
    EXPECT_THAT(mqtt.calls(), IsEmpty());
}

TEST_F(PerformanceOff, ItLivesAgainAndAgain)
{
    for (int life = 0; life < 5; life++) {
        view = log.from_here();
        EXPECT_EQ(bridge_performance_management_init(ctx), 0);
        EXPECT_EQ(bridge_performance_management_start(), 0);
        ASSERT_TRUE(idle());
        timers.expire();
        ASSERT_TRUE(idle(2));
        EXPECT_EQ(bridge_performance_management_stop(), 0);
        bridge_performance_management_deinit();
        thpool_wait(context.pool);
    }
    EXPECT_EQ(reports().size(), 5U);
}

TEST_F(PerformanceOff, AStopRightBehindTheStartEndsTheThread)
{
    for (int life = 0; life < 20; life++) {
        EXPECT_EQ(bridge_performance_management_init(ctx), 0);
        EXPECT_EQ(bridge_performance_management_start(), 0);
        EXPECT_EQ(bridge_performance_management_stop(), 0);
        bridge_performance_management_deinit();
        thpool_wait(context.pool);
        EXPECT_FALSE(queue_exists(QUEUE));
    }
}

TEST_F(PerformanceOff, WithoutItsLockThereIsNoService)
{
    EXPECT_EQ(bridge_performance_management_init(ctx), 0);
    bridge_performance_management_deinit();
    let_fail("sem_getvalue", EINVAL);
    EXPECT_EQ(bridge_performance_management_init(ctx), -1);
    EXPECT_TRUE(
        view.has("ERROR failed to initialize the performance management service: Invalid argument (22)"));
}

TEST_F(PerformanceLockDeath, ALockThatCannotBeMadeIsAFailedInit)
{
    EXPECT_EXIT(
        {
            bridge_log_init(BRIDGE_LOG_WARN, true);
            let_fail("sem_init", ENOSYS);
            exit(bridge_performance_management_init(ctx) == -1 ? 0 : 1);
        },
        testing::ExitedWithCode(0),
        testing::HasSubstr("failed to initialize the performance management service: "
                           "Function not implemented (38)\n"));
}

TEST_F(PerformanceInited, TheStartIsToldInOrder)
{
    set_period(1, false);
    EXPECT_EQ(bridge_performance_management_start(), 0);
    ASSERT_TRUE(idle());
    std::vector<std::string> lines = view.lines();
    std::erase_if(
        lines, [](const std::string &line) { return line.starts_with("TRACE performance management mq"); });
    std::erase(lines, "DEBUG Performance management launcher finished"); /* beside the thread's first lines */
    EXPECT_THAT(lines, ElementsAre("DEBUG starting performance management service",
                                   "DEBUG Performance management launcher started",
                                   "DEBUG creating performance management msg queue and thread",
                                   "DEBUG starting performance management thread", NOT_DEFINED, NOT_ENABLED,
                                   "TRACE Action: waiting", WAITING));
}

TEST_F(PerformanceInited, AStartThatFailsLeavesNoQueue)
{
    const struct {
        const char *call;
        int error;
        const char *line;
    } rows[] = {
        {"mq_open", EACCES,
         "ERROR failed to open message queue for performance management: Permission denied"},
        {"mq_open", EEXIST, "ERROR failed to open message queue for performance management: File exists"},
        {THPOOL_ADD_WORK, 0, "ERROR failed to start performance management thread: -1"},
    };
    for (const auto &row : rows) {
        view = log.from_here();
        let_fail(row.call, row.error);
        EXPECT_EQ(bridge_performance_management_start(), -1);
        let_all_pass();
        EXPECT_THAT(view.complaints(), ElementsAre(row.line));
        EXPECT_TRUE(view.has("INFO Performance management launcher couldn't be run successfully"));
        EXPECT_FALSE(queue_exists(QUEUE));
    }
    EXPECT_EQ(bridge_performance_management_start(), 0) << "the next start succeeds";
    EXPECT_TRUE(idle());
}

TEST_F(PerformanceInited, AThreadWithoutTimerOrQueueEndsAndNobodyIsTold)
{
    const struct {
        const char *call;
        int after;
        std::vector<std::string> lines;
    } rows[] = {
        {"timer_create", 0, {"ERROR Can't create timer for battery performance"}},
        {"timer_settime",
         0,
         {"ERROR Failed to start performance measure timer (300): Invalid argument.",
          "ERROR Can't schedule timer for battery performance"}},
        {"mq_open",
         1,
         {"ERROR Can't open message queue for reading performance measures                         during "
          "performance management thread startup"}},
    };
    for (const auto &row : rows) {
        view = log.from_here();
        let_fail(row.call, EINVAL, row.after);
        EXPECT_EQ(bridge_performance_management_start(), 0);
        thpool_wait(ctx->pool);
        let_all_pass();
        EXPECT_EQ(view.complaints(), row.lines);
        live_again();
    }
    EXPECT_THAT(supervisor.taken(), IsEmpty());
}

TEST_F(PerformanceInited, ALeftoverQueueIsTakenWithItsMessages)
{
    leave_queue(QUEUE, MESSAGE_SIZE, {message_of(PUBLISH, BATTERY), message_of(EXIT, 5)});
    EXPECT_EQ(bridge_performance_management_start(), 0);
    thpool_wait(ctx->pool);
    EXPECT_TRUE(view.has(
        "DEBUG performance management message queue: /performance_management_mq is already created"));
    EXPECT_THAT(reports(), ElementsAre(report()));
    EXPECT_TRUE(view.has(STOPPING));
}

TEST_F(PerformanceInited, ALeftoverQueueOfLargerMessagesCannotBeRead)
{
    leave_queue(QUEUE, MESSAGE_SIZE + 1, {});
    EXPECT_EQ(bridge_performance_management_start(), 0);
    thpool_wait(ctx->pool);
    EXPECT_THAT(view.complaints(),
                ElementsAre("ERROR failed to read from the message queue: Message too long",
                            "ERROR Exiting performance management thread"));
    EXPECT_THAT(supervisor.taken(), ElementsAre(Pair(CODE_QUEUE_LOST, &word)));
}

/* ---- the timer ---- */

TEST_F(PerformanceInited, OnlyAPeriodInItsRangeStartsTheTimer)
{
    const struct {
        uint32_t minutes;
        bool is_set;
        std::vector<std::string> timer;
    } rows[] = {
        {0, true, {}},
        {1, true, {"made", "60000 ms each"}},
        {1439, true, {"made", "86340000 ms each"}},
        {1440, true, {}},
        {UINT32_MAX, true, {}},
        {60, false, {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.minutes);
        set_period(row.minutes, row.is_set);
        EXPECT_EQ(bridge_performance_management_start(), 0);
        EXPECT_TRUE(idle());
        EXPECT_EQ(timers.taken(), row.timer);
        EXPECT_EQ(view.has(NOT_DEFINED), !row.is_set);
        EXPECT_EQ(view.has(NOT_ENABLED), row.timer.empty());
        EXPECT_EQ(view.has("DEBUG starting battery performance measure timer"), !row.timer.empty());
        EXPECT_FALSE(view.has("DEBUG battery performance period out of range"));
        EXPECT_THAT(view.complaints(), IsEmpty());
        live_again();
    }
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(Performance, EachTickIsAReport)
{
    for (int i = 0; i < 3; i++) {
        tick();
        EXPECT_THAT(reports(), ElementsAre(report()));
    }
    EXPECT_THAT(view.lines(),
                ElementsAre("TRACE performance measure timer handler", "TRACE Action: publish performance",
                            "TRACE Performance measure to be published: battery",
                            join({"DEBUG publishing message: ", report(), " on topic ", TOPIC}), WAITING));
}

TEST_F(PerformanceInited, ATickInAFullQueueIsLost)
{
    let_fail("mq_open", EMFILE, 1); /* so nobody reads the queue */
    EXPECT_EQ(bridge_performance_management_start(), 0);
    thpool_wait(ctx->pool);
    let_all_pass();
    view = log.from_here();
    for (int i = 0; i < QUEUE_LENGTH; i++)
        timers.expire();
    EXPECT_THAT(view.complaints(), IsEmpty());
    timers.expire();
    EXPECT_THAT(view.complaints(), ElementsAre(LOST));
}

TEST_F(Performance, ALateTickOfAStoppedServiceIsTold)
{
    bridge_performance_management_stop();
    view = log.from_here();
    timers.expire();
    EXPECT_TRUE(view.has(LOST));
    EXPECT_THAT(reports(), IsEmpty());
}

/* ---- the report ---- */

TEST_F(Performance, TheValuesAreReadTogether)
{
    tick();
    std::string call = "get spmDataTimestamp.0 spmDataCollectingPeriod.0";
    for (size_t i = 0; i < COUNT; i++)
        call += join({" ", object_of(i)});
    EXPECT_THAT(agent.calls(), ElementsAre(call));
}

TEST_F(Performance, AValueThatCannotBeShownIsLeftOut)
{
    for (const char *value : {"N/A", "", "high", "N/Ab", "1e39", "-"}) {
        for (size_t i = 0; i < COUNT; i++) {
            SCOPED_TRACE(join({object_of(i), "=", value}));
            set_values();
            agent.text(object_of(i), value);
            tick();
            const std::string name = join({R"(")", VALUES[i].piece}).substr(1);
            const std::string key = name.substr(0, name.find(": ") + 2);
            const bool is_shown = is_text(i) && strcmp(value, "N/A") != 0;
            EXPECT_THAT(reports(),
                        ElementsAre(report({{i, is_shown ? join({key, "\"", value, "\""}) : ""}})));
            EXPECT_EQ(view.complaints().size(), is_text(i) ? 0U : 1U);
        }
    }
}

TEST_F(Performance, WhyAValueIsLeftOutIsTold)
{
    const std::pair<const char *, const char *> rows[] = {
        {"N/A", ABSENT},
        {"N/Ab", ABSENT},
        {"", NO_DIGITS},
        {"N/", NO_DIGITS},
        {"high", NO_DIGITS},
        {"1e39", "WARN Warning: Failed to convert string to float: Numerical result out of range (34)"},
    };
    for (const auto &[value, line] : rows) {
        agent.text("spmLoadPower.0", value);
        tick();
        EXPECT_THAT(view.complaints(), ElementsAre(line)) << value;
    }
    set_values();
    agent.text("spmDataTimestamp.0", "soon");
    tick();
    EXPECT_THAT(view.complaints(), ElementsAre(NO_DIGITS));
}

TEST_F(Performance, NumbersHaveTwoDecimals)
{
    const std::pair<const char *, const char *> rows[] = {
        {"0", "0.00"},         {"-0.001", "-0.00"},   {"0.006", "0.01"}, {"1e5", "100000.00"},
        {"99999", "99999.00"}, {"-9999", "-9999.00"}, {" 12", "12.00"},  {"12abc", "12.00"},
        {"0x10", "16.00"},     {"+3", "3.00"},        {".5", "0.50"},    {"7.", "7.00"},
    };
    for (const auto &[value, shown] : rows) {
        agent.text("spmLoadPower.0", value);
        tick();
        EXPECT_THAT(reports(), ElementsAre(report({{COUNT - 1, join({R"("loadPower": )", shown})}})))
            << value;
    }
}

TEST_F(Performance, NoCommaLeadsWhateverIsMissing)
{
    /* Each value alone, and all values behind each one. */
    for (size_t kept = 0; kept < COUNT; kept++) {
        std::map<size_t, std::string> others;
        std::map<size_t, std::string> before;
        for (size_t i = 0; i < COUNT; i++) {
            if (i != kept)
                others[i] = "";
            if (i < kept)
                before[i] = "";
        }
        for (const auto &missing : {others, before}) {
            set_values();
            for (const auto &[i, piece] : missing)
                agent.text(object_of(i), "N/A");
            tick();
            EXPECT_THAT(reports(), ElementsAre(report(missing)));
        }
    }
}

TEST_F(Performance, WithNothingToShowTheReportIsEmpty)
{
    std::map<size_t, std::string> all;
    for (size_t i = 0; i < COUNT; i++) {
        agent.text(object_of(i), "N/A");
        all[i] = "";
    }
    tick();
    EXPECT_THAT(reports(), ElementsAre(report(all)));
    agent.text("spmDataTimestamp.0", "N/A");
    agent.numbers("spmDataCollectingPeriod.0", {0});
    tick();
    EXPECT_THAT(reports(), ElementsAre(R"({"name":"battery","value":{}})"));
}

TEST_F(Performance, TimestampAndPeriodAreLeftOutWhenThereAreNone)
{
    const struct {
        const char *timestamp;
        long period;
        const char *head;
    } rows[] = {
        {"1700000000123", 60, HEAD},
        {"1700000000123", 0, R"("timestamp": 1700000000123,)"},
        {"N/A", 60, R"("period": 60,)"},
        {"N/A", 0, ""},
        {"", 1, R"("period": 1,)"},
        {"-7 days", -1, R"("timestamp": -7,"period": -1,)"},
        {"9999999999999", 2147483647, R"("timestamp": 9999999999999,"period": 2147483647,)"},
    };
    for (const auto &row : rows) {
        agent.text("spmDataTimestamp.0", row.timestamp);
        agent.numbers("spmDataCollectingPeriod.0", {row.period});
        tick();
        EXPECT_THAT(reports(), ElementsAre(report({}, row.head)));
    }
}

TEST_F(Performance, TextsThatJustFitAreShownAndLongerOnesSpoilTheReport)
{
    const std::pair<size_t, size_t> rows[] = {
        {SOLAR_STATE, 29}, {CHARGING_STATE, 29}, {0, 6}, {COUNT - 1, 6}};
    for (const auto &[value, longest] : rows) {
        set_values();
        agent.text(object_of(value), std::string(longest, '1'));
        tick();
        EXPECT_EQ(reports().size(), 1U);
        agent.text(object_of(value), std::string(longest + 1, '1'));
        tick();
        EXPECT_THAT(reports(), IsEmpty());
        EXPECT_THAT(view.complaints(),
                    ElementsAre("ERROR failed to get properties for battery performance stats"));
    }
}

TEST_F(Performance, AReportThatCannotBeSentIsTold)
{
    mqtt.results({-1});
    tick();
    EXPECT_THAT(view.complaints(),
                ElementsAre("ERROR failed to send battery performance measures - MQTT publish failure"));
    tick();
    EXPECT_EQ(reports().size(), 2U) << "the next one is tried";
}

/* ---- the queue ---- */

TEST_F(Performance, OtherMeasuresAreNotSupported)
{
    const std::pair<int32_t, const char *> rows[] = {{1, "cpu"},     {2, "temperature"}, {3, "memory"},
                                                     {4, "network"}, {5, "unknown"},     {-1, "unknown"}};
    for (const auto &[measure, name] : rows) {
        send(PUBLISH, measure);
        EXPECT_TRUE(idle());
        EXPECT_TRUE(view.has(join({"TRACE Performance measure to be published: ", name})));
        EXPECT_TRUE(view.has("TRACE Unsupported performance measure"));
    }
    EXPECT_THAT(reports(), IsEmpty());
    EXPECT_THAT(agent.calls(), IsEmpty());
}

TEST_F(Performance, OtherActionsDoNothing)
{
    const std::pair<int32_t, const char *> rows[] = {
        {0, "none"}, {3, "waiting"}, {4, "unknown action"}, {-1, "unknown action"}};
    for (const auto &[action, name] : rows) {
        send(action, BATTERY);
        EXPECT_TRUE(idle());
        EXPECT_THAT(view.lines(), ElementsAre(join({"TRACE Action: ", name}), WAITING));
    }
}

TEST_F(Performance, ASignalBehindAReportSendsNoSecondOne)
{
    interrupt_receives(2);
    view = log.from_here();
    timers.expire();
    EXPECT_TRUE(idle(3));
    EXPECT_EQ(reports().size(), 1U);
    EXPECT_EQ(view.count("TRACE Action: waiting"), 2);
}

TEST_F(Performance, AQueueThatCannotBeReadEndsTheThread)
{
    let_fail("mq_receive", EBADF);
    timers.expire();
    thpool_wait(ctx->pool);
    let_all_pass();
    EXPECT_THAT(view.complaints(),
                ElementsAre("ERROR failed to read from the message queue: Bad file descriptor",
                            "ERROR Exiting performance management thread"));
    EXPECT_THAT(supervisor.taken(), ElementsAre(Pair(CODE_QUEUE_LOST, &word)));
    EXPECT_EQ(bridge_performance_management_stop(), 0) << "a stop does not wait for it";
}

TEST_F(PerformanceInited, AStopDoesNotWaitForTheThread)
{
    std::atomic<bool> is_busy = true;
    for (int worker = 0; worker < WORKERS; worker++)
        thpool_add_work(
            ctx->pool,
            [](void *flag) { wait_until([&] { return !*static_cast<std::atomic<bool> *>(flag); }); },
            &is_busy);
    EXPECT_EQ(bridge_performance_management_start(), 0);
    EXPECT_EQ(bridge_performance_management_stop(), 0);
    EXPECT_FALSE(view.has("DEBUG starting performance management thread"));
    is_busy = false;
    thpool_wait(ctx->pool);
    EXPECT_TRUE(
        view.has("ERROR Can't open message queue for reading performance measures                         "
                 "during performance management thread startup"));
}

TEST_F(Performance, AReportThatOutlivesTheServiceIsNotSent)
{
    hold_receipt();
    timers.expire();
    ASSERT_TRUE(wait_for_receipt());
    EXPECT_EQ(bridge_performance_management_stop(), 0);
    bridge_performance_management_deinit();
    let_receipt_go();
    thpool_wait(ctx->pool);
    EXPECT_THAT(
        view.complaints(),
        ElementsAre("ERROR failed to send battery performance measures - context is not valid", STOPPING));
    EXPECT_THAT(reports(), IsEmpty());
    bridge_performance_management_init(ctx);
}

TEST_F(Performance, AStopThatCannotTellTheThreadGoesOn)
{
    const mqd_t mq = mq_open(QUEUE, O_WRONLY);
    let_fail("mq_send", EAGAIN);
    EXPECT_EQ(bridge_performance_management_stop(), 0);
    let_all_pass();
    EXPECT_THAT(view.complaints(), ElementsAre("ERROR Can't send message to performance management thread"));
    EXPECT_FALSE(queue_exists(QUEUE));
    const std::string text = message_of(EXIT, BATTERY);
    EXPECT_EQ(mq_send(mq, text.data(), text.size(), 0), 0) << "the thread still waits";
    mq_close(mq);
}

/* Otherwise the thread would wait for good, and the pool for the thread. */
TEST_F(Performance, AStopFindsRoomInAFullQueue)
{
    hold_receipt();
    timers.expire();
    ASSERT_TRUE(wait_for_receipt());
    for (int i = 0; i < QUEUE_LENGTH; i++)
        timers.expire();
    EXPECT_THAT(view.complaints(), IsEmpty());
    EXPECT_EQ(bridge_performance_management_stop(), 0);
    EXPECT_THAT(view.complaints(), ElementsAre(DISPLACED));
    EXPECT_FALSE(queue_exists(QUEUE));
    let_receipt_go();
    thpool_wait(ctx->pool);
    EXPECT_THAT(view.complaints(), ElementsAre(DISPLACED, STOPPING));
    EXPECT_THAT(reports(), SizeIs(QUEUE_LENGTH));
}

TEST_F(PerformanceDeath, LifeHasItsOrder)
{
    EXPECT_ASSERTION(bridge_performance_management_init(ctx), "!module_ctx.inited");
    EXPECT_ASSERTION(bridge_performance_management_deinit(), "!module_ctx.started");
}
