/* The capabilities message, its lock, and the life of its service. */
#include "converter/control/bridge_capabilities.h"

#include "common/captured_stderr.h"
#include "control/control_neighbours.h"
#include "converter/control/bridge_bsp_upgrade.h"
#include "converter/control/bridge_configs.h"
#include "converter/control/bridge_performance_management.h"
#include "thread_pool/thpool.h"

#include <semaphore.h>

using testing::ElementsAre;
using testing::ExitedWithCode;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

static constexpr const char *COMPLETED = "TRACE capabilities subscription worker completed";

FAILING_THPOOL_ADD_WORK
FAILING_NEW
FAILING_CALL(void *, calloc, (size_t count, size_t size), (count, size), nullptr)
FAILING_CALL(int, sem_init, (sem_t * semaphore, int shared, unsigned value), (semaphore, shared, value), -1)
FAILING_CALL(int, sem_getvalue, (sem_t * semaphore, int *value), (semaphore, value), -1)

/* Runs when the lock would have to be waited for. */
static std::function<void(sem_t *)> when_locked_out;

static std::atomic<int> interruptions; /* of the next waits */

extern "C" {
int __real_sem_wait(sem_t *semaphore);
int __wrap_sem_wait(sem_t *semaphore)
{
    if (interruptions > 0) {
        interruptions--;
        errno = EINTR;
        return -1;
    }
    if (sem_trywait(semaphore) == 0)
        return 0;
    if (when_locked_out)
        when_locked_out(semaphore);
    return __real_sem_wait(semaphore);
}
}

/* For a lock that nobody would give up any more. */
static void give_up_lock(sem_t *semaphore)
{
    ADD_FAILURE() << "the lock is still held";
    sem_post(semaphore);
}

/* ---- the three services ---- */

struct service_script {
    int result = 0;
    int starts = 0;
    std::function<void()> within;
};

static service_script bulk_cfg;
static service_script bulk_upgr;
static service_script performance;
static std::vector<std::string> starts;

static int start_service(service_script &service, const char *name)
{
    starts.emplace_back(name);
    service.starts++;
    if (service.within)
        service.within();
    return service.result;
}

int bridge_bulk_configs_start()
{
    return start_service(bulk_cfg, "bulk_cfg");
}

int bridge_bulk_upgrade_start()
{
    return start_service(bulk_upgr, "bulk_upgr");
}

int bridge_performance_management_start()
{
    return start_service(performance, "performance_management");
}

/* ---- fixture ---- */

/* Neither initialised nor started. */
class CapabilitiesOff : public ControlTest
{
  protected:
    CapabilitiesOff()
    {
        bulk_cfg = {};
        bulk_upgr = {};
        performance = {};
        starts.clear();
        when_locked_out = nullptr;
        context.pool = thpool_init(2);
    }

    ~CapabilitiesOff() override
    {
        thpool_wait(context.pool);
        thpool_destroy(context.pool);
    }

    log_view view = log.from_here();
};

class Capabilities : public CapabilitiesOff
{
  protected:
    Capabilities()
    {
        EXPECT_EQ(bridge_capabilities_init(ctx), 0);
        EXPECT_EQ(bridge_capabilities_start(), 0);
        view = log.from_here();
    }

    ~Capabilities() override
    {
        thpool_wait(context.pool);
        bridge_capabilities_stop();
        bridge_capabilities_deinit();
    }

    static void deliver(const std::string &payload)
    {
        /* Exactly as long as it says, and without a terminator. */
        const std::vector<uint8_t> bytes(payload.begin(), payload.end());
        mqtt.handler("api/capabilities", mqtt.handler_context, bytes.data(),
                     static_cast<uint32_t>(bytes.size()));
    }

    /* The services started by this message. */
    std::vector<std::string> take(const std::string &payload)
    {
        starts.clear();
        view = log.from_here();
        deliver(payload);
        thpool_wait(ctx->pool);
        return starts;
    }

    std::vector<std::string> take_names(const std::string &names)
    {
        return take(join({R"({"capabilities":)", names, "}"}));
    }
};

/* A process without threads of its own yet. */
class CapabilitiesDeath : public ControlTest
{
};

static const std::vector<std::string> ALL = {"bulk_cfg", "bulk_upgr", "performance_management"};

/* ---- the message ---- */

TEST_F(Capabilities, NamedServicesAreStartedInAFixedOrder)
{
    const struct {
        const char *names;
        std::vector<std::string> started;
    } rows[] = {
        {R"(["bulk_cfg","bulk_upgr","performance_management"])", ALL},
        {R"(["performance_management","bulk_upgr","bulk_cfg"])", ALL},
        {R"(["PERFORMANCE_MANAGEMENT","Bulk_Cfg"])", {"bulk_cfg", "performance_management"}},
        {R"(["bulk_upgr"])", {"bulk_upgr"}},
        {R"(["bulk_upgr","bulk_upgr","BULK_UPGR"])", {"bulk_upgr"}},
        {"[]", {}},
        {R"(["bulk","bulk_cfgs","bulk_cfg ",""," ","performance-management"])", {}},
        {R"([1,2.5,true,{"bulk_cfg":1},["bulk_cfg"],-99999999999999999999])", {}},
        {R"([1,"bulk_upgr"])", {"bulk_upgr"}},
        {R"(["bulk_cfg",null,"bulk_upgr"])", {"bulk_cfg"}},
        {"[null]", {}},
        {R"(["bulk_cfg\u0000x"])", {"bulk_cfg"}},
        {"[\"\xff\xc0\",\"bulk_cfg\"]", {"bulk_cfg"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.names);
        EXPECT_EQ(take_names(row.names), row.started);
        EXPECT_THAT(view.complaints(), IsEmpty());
        EXPECT_TRUE(view.has(COMPLETED));
    }
}

TEST_F(Capabilities, AMessageIsTraced)
{
    take(R"({"other":1,"capabilities":["Bulk_Upgr",5],"bulk_cfg":true})");
    EXPECT_THAT(view.lines(),
                ElementsAre("TRACE capabilities message received",
                            "TRACE capabilities subscription worker starting",
                            "TRACE found capability: Bulk_Upgr", "TRACE enabling capability: Bulk_Upgr",
                            "TRACE found capability: 5", COMPLETED));
}

TEST_F(Capabilities, TheLastOfARepeatedKeyCounts)
{
    EXPECT_THAT(take(R"({"capabilities":["bulk_cfg"],"capabilities":["bulk_upgr"]})"),
                ElementsAre("bulk_upgr"));
}

TEST_F(Capabilities, AServiceThatIsNoLongerNamedIsNotStoppedOrStarted)
{
    EXPECT_EQ(take_names(R"(["bulk_cfg","performance_management"])").size(), 2U);
    EXPECT_THAT(take_names(R"(["bulk_upgr"])"), ElementsAre("bulk_upgr"));
    EXPECT_THAT(take_names("[]"), IsEmpty());
    EXPECT_THAT(take_names(R"(["bulk_cfg"])"), ElementsAre("bulk_cfg")) << "a start that finds it running";
}

TEST_F(Capabilities, ABadMessageStartsNothingAndTheNextIsTaken)
{
    static constexpr const char *NO_JSON = "ERROR failed to parse incoming configuration";
    static constexpr const char *NO_KEY = "ERROR failed to extract capabilities array from payload";
    static constexpr const char *NO_ARRAY = "ERROR invalid payload format";
    const struct {
        std::string payload;
        const char *line;
    } rows[] = {
        {"{", NO_JSON},
        {"null", NO_JSON},
        {std::string(1, '\0'), NO_JSON},
        {"\xff\xfe", NO_JSON},
        {std::string(40, '[') + std::string(40, ']'), NO_JSON},
        {"{}", NO_KEY},
        {"5", NO_KEY},
        {R"(["bulk_cfg"])", NO_KEY},
        {R"({"Capabilities":["bulk_cfg"]})", NO_KEY},
        {R"({"capabilities":null})", NO_ARRAY},
        {R"({"capabilities":"bulk_cfg"})", NO_ARRAY},
        {R"({"capabilities":{"bulk_cfg":1}})", NO_ARRAY},
        {R"({"capabilities":true})", NO_ARRAY},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.payload);
        EXPECT_THAT(take(row.payload), IsEmpty());
        EXPECT_THAT(view.lines(),
                    ElementsAre("TRACE capabilities message received",
                                "TRACE capabilities subscription worker starting", row.line, COMPLETED));
        EXPECT_THAT(take_names(R"(["bulk_cfg"])"), ElementsAre("bulk_cfg"));
    }
}

TEST_F(Capabilities, AMessageThatCannotBeCarriedIsDroppedAndTheNextIsTaken)
{
    static constexpr struct {
        const char *call;
        const char *line;
    } rows[] = {
        {NEW, "ERROR failed to allocate worker data"},
        {"calloc", "ERROR failed to allocate memory for payload with size: 5"},
        {THPOOL_ADD_WORK, "ERROR failed to launch worker thread"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        let_fail(row.call);
        view = log.from_here();
        deliver("[1,2]");
        let_all_pass();
        EXPECT_THAT(view.lines(), ElementsAre("TRACE capabilities message received", row.line));
        when_locked_out = give_up_lock;
        EXPECT_THAT(take_names(R"(["bulk_cfg"])"), ElementsAre("bulk_cfg"));
        when_locked_out = nullptr;
    }
}

TEST_F(Capabilities, AnEmptyMessageIsTold)
{
    const uint8_t byte = 0;
    mqtt.handler("api/capabilities", nullptr, &byte, 0);
    EXPECT_THAT(view.lines(),
                ElementsAre("TRACE capabilities message received", "ERROR invalid payload size received"));
    EXPECT_THAT(take_names(R"(["bulk_cfg"])"), ElementsAre("bulk_cfg"));
}

TEST_F(Capabilities, NothingIsPublished)
{
    take_names(R"(["bulk_cfg"])");
    take("{");
    EXPECT_THAT(mqtt.publishes(), IsEmpty());
}

TEST_F(Capabilities, AServiceThatDoesNotStartAsksForARestartAndTheOthersAreTried)
{
    struct failing_service {
        service_script &service;
        const char *line;
    };
    const failing_service rows[] = {
        {bulk_cfg, "ERROR failed to start the bulk configuration service"},
        {bulk_upgr, "ERROR failed to start the bulk upgrade service"},
        {performance, "ERROR failed to start the performance management service"},
    };
    static constexpr const char *EVERY = R"(["bulk_cfg","bulk_upgr","performance_management"])";
    for (const failing_service &row : rows) {
        SCOPED_TRACE(row.line);
        row.service.result = -3;
        EXPECT_EQ(take_names(EVERY), ALL);
        EXPECT_THAT(view.complaints(), ElementsAre(row.line));
        EXPECT_THAT(supervisor.taken(), ElementsAre(Pair(1, &word)));
        row.service.result = 0;
    }
    bulk_cfg.result = bulk_upgr.result = performance.result = -1;
    EXPECT_EQ(take_names(EVERY), ALL);
    EXPECT_THAT(view.complaints(), ElementsAre(rows[0].line, rows[1].line, rows[2].line));
    EXPECT_EQ(supervisor.taken().size(), 3U);

    ctx->user_handler = nullptr;
    EXPECT_EQ(take_names(EVERY), ALL);
    EXPECT_THAT(view.complaints(), IsEmpty()) << "without a handler there is no line";
}

TEST_F(Capabilities, APositiveStartIsNoFailure)
{
    bulk_cfg.result = 1;
    take_names(R"(["bulk_cfg"])");
    EXPECT_THAT(view.complaints(), IsEmpty());
    EXPECT_THAT(supervisor.taken(), IsEmpty());
}

/* ---- the lock ---- */

TEST_F(Capabilities, ASecondMessageWaitsUntilTheFirstIsDone)
{
    std::atomic<bool> is_locked_out = false;
    when_locked_out = [&](sem_t *) { is_locked_out = true; };
    bulk_cfg.within = [&] { EXPECT_TRUE(wait_until([&] { return is_locked_out.load(); })); };
    deliver(R"({"capabilities":["bulk_cfg"]})");
    deliver(R"({"capabilities":["bulk_upgr"]})"); /* comes back once the first worker gives up the lock */
    thpool_wait(ctx->pool);
    EXPECT_TRUE(is_locked_out);
    EXPECT_THAT(starts, ElementsAre("bulk_cfg", "bulk_upgr"));
    std::vector<std::string> workers = view.lines();
    std::erase_if(workers,
                  [](const std::string &line) { return line.find(" worker ") == std::string::npos; });
    EXPECT_THAT(workers, ElementsAre("TRACE capabilities subscription worker starting", COMPLETED,
                                     "TRACE capabilities subscription worker starting", COMPLETED));
}

TEST_F(Capabilities, AStopWaitsForTheMessageInProgress)
{
    std::atomic<bool> is_locked_out = false;
    when_locked_out = [&](sem_t *) { is_locked_out = true; };
    bulk_cfg.within = [&] { EXPECT_TRUE(wait_until([&] { return is_locked_out.load(); })); };
    deliver(R"({"capabilities":["bulk_cfg"]})");
    EXPECT_EQ(bridge_capabilities_stop(), 0);
    EXPECT_TRUE(is_locked_out);
    EXPECT_TRUE(view.has(COMPLETED)) << "the worker was done when the stop came back";
}

TEST_F(Capabilities, BehindAStopThatHasBegunNoMessageStartsAService)
{
    std::atomic<bool> is_locked_out = false;
    when_locked_out = [&](sem_t *) { is_locked_out = true; };
    bulk_cfg.within = [&] { EXPECT_TRUE(wait_until([&] { return is_locked_out.load(); })); };
    deliver(R"({"capabilities":["bulk_cfg"]})");
    bridge_capabilities_close();
    EXPECT_TRUE(view.has(COMPLETED)) << "the worker was done when the call came back";
    deliver(R"({"capabilities":["bulk_upgr"]})");
    thpool_wait(ctx->pool);
    EXPECT_THAT(starts, ElementsAre("bulk_cfg"));
    EXPECT_TRUE(
        view.has("TRACE Capabilities service is not running -- bridge likely in the middle of a restart, "
                 "ignoring the message"));
    EXPECT_EQ(bridge_capabilities_stop(), 0);
    EXPECT_EQ(bridge_capabilities_start(), 0);
    deliver(R"({"capabilities":["bulk_upgr"]})");
    thpool_wait(ctx->pool);
    EXPECT_THAT(starts, ElementsAre("bulk_cfg", "bulk_upgr")) << "a start opens it again";
}

TEST_F(Capabilities, ASignalDoesNotGiveTheLockAway)
{
    interruptions = 3;
    EXPECT_THAT(take_names(R"(["bulk_cfg"])"), ElementsAre("bulk_cfg"));
    EXPECT_EQ(interruptions, 0);
    interruptions = 1;
    EXPECT_EQ(bridge_capabilities_stop(), 0);
    interruptions = 1;
    EXPECT_EQ(bridge_capabilities_start(), 0);
    std::atomic<bool> is_locked_out = false;
    when_locked_out = [&](sem_t *) { is_locked_out = true; };
    bulk_cfg.within = [&] { EXPECT_TRUE(wait_until([&] { return is_locked_out.load(); })); };
    deliver(R"({"capabilities":["bulk_cfg"]})");
    deliver("[]");
    thpool_wait(ctx->pool);
    EXPECT_TRUE(is_locked_out) << "one message at a time still";
}

/* ---- start and stop ---- */

TEST_F(CapabilitiesOff, AStartSubscribesOnceAndAStopUnsubscribesOnce)
{
    ASSERT_EQ(bridge_capabilities_init(ctx), 0);
    EXPECT_EQ(bridge_capabilities_start(), 0);
    EXPECT_EQ(bridge_capabilities_start(), 0);
    EXPECT_EQ(mqtt.handler_context, nullptr);
    EXPECT_EQ(bridge_capabilities_stop(), 0);
    EXPECT_EQ(bridge_capabilities_stop(), 0);
    bridge_capabilities_deinit();
    EXPECT_THAT(mqtt.calls(),
                ElementsAre("subscribe OAM api/capabilities", "unsubscribe OAM api/capabilities"));
    EXPECT_THAT(view.lines(),
                ElementsAre("DEBUG initializing capabilities service", "DEBUG starting capabilities service",
                            "DEBUG starting capabilities service",
                            "DEBUG capabilities service already started",
                            "DEBUG stopping capabilities service", "DEBUG stopping capabilities service",
                            "DEBUG capabilities service already stopped",
                            "DEBUG de-initializing capabilities service"));
}

TEST_F(CapabilitiesOff, AFailedUnsubscribeIsNoMatter)
{
    ASSERT_EQ(bridge_capabilities_init(ctx), 0);
    ASSERT_EQ(bridge_capabilities_start(), 0);
    mqtt.unsubscribe_result = -1;
    mqtt.unsubscribed = 0;
    EXPECT_EQ(bridge_capabilities_stop(), 0);
    bridge_capabilities_deinit();
    EXPECT_THAT(view.complaints(), IsEmpty());
}

TEST_F(CapabilitiesOff, OutsideItsLifeTheServiceDoesNothing)
{
    EXPECT_EQ(bridge_capabilities_init(ctx), 0); /* makes the lock, which stays */
    bridge_capabilities_deinit();
    view = log.from_here();
    EXPECT_EQ(bridge_capabilities_start(), -1);
    EXPECT_EQ(bridge_capabilities_stop(), 0);
    EXPECT_THAT(view.lines(),
                ElementsAre("DEBUG starting capabilities service",
                            "INFO capabilities service is de-initialized already (undergoing a restart), "
                            "cannot start it now",
                            "DEBUG stopping capabilities service",
                            "INFO capabilities service is already de-initialized (a restart is in "
                            "progress), cannot be stopped now"));
    EXPECT_THAT(mqtt.calls(), IsEmpty());
}

TEST_F(CapabilitiesOff, AFailedSubscriptionIsAFailedStart)
{
    ASSERT_EQ(bridge_capabilities_init(ctx), 0);
    for (const int result : {-1, -128}) {
        mqtt.subscribe_result = result;
        view = log.from_here();
        EXPECT_EQ(bridge_capabilities_start(), result);
        EXPECT_THAT(view.lines(), ElementsAre("DEBUG starting capabilities service",
                                              "INFO capabilities subscription failed"));
    }
    mqtt.subscribe_result = 0;
    EXPECT_EQ(bridge_capabilities_start(), 0) << "it had not started";
    bridge_capabilities_stop();
    bridge_capabilities_deinit();
    EXPECT_EQ(mqtt.calls().size(), 4U);
}

TEST_F(CapabilitiesOff, ARefusalThatTheTransportHandsOnIsAStartWithoutServices)
{
    ASSERT_EQ(bridge_capabilities_init(ctx), 0);
    mqtt.subscribe_result = 128;
    EXPECT_EQ(bridge_capabilities_start(), 0);
    EXPECT_THAT(view.complaints(), ElementsAre("WARN OA&M server doesn't support capabilities API"));
    EXPECT_EQ(bridge_capabilities_start(), 0);
    EXPECT_TRUE(view.has("DEBUG capabilities service already started"));
    EXPECT_EQ(bridge_capabilities_stop(), 0);
    EXPECT_THAT(mqtt.calls(),
                ElementsAre("subscribe OAM api/capabilities", "unsubscribe OAM api/capabilities"));
    bridge_capabilities_deinit();
}

TEST_F(CapabilitiesOff, AMessageOutsideARunIsDropped)
{
    static constexpr const char *DROPPED =
        "TRACE Capabilities service is not running -- bridge likely in the "
        "middle of a restart, ignoring the message";
    ASSERT_EQ(bridge_capabilities_init(ctx), 0);
    ASSERT_EQ(bridge_capabilities_start(), 0);
    const uint8_t payload[] = {'[', ']'};
    when_locked_out = give_up_lock;
    for (const bool deinitialised : {false, true}) {
        bridge_capabilities_stop();
        if (deinitialised)
            bridge_capabilities_deinit();
        view = log.from_here();
        mqtt.handler("api/capabilities", nullptr, payload, sizeof(payload));
        EXPECT_THAT(view.lines(), ElementsAre("TRACE capabilities message received", DROPPED));
    }
    bridge_capabilities_stop();
}

TEST_F(CapabilitiesDeath, InitAndDeinitAreAssertedToAlternate)
{
    EXPECT_EQ(bridge_capabilities_init(ctx), 0);
    EXPECT_ASSERTION(bridge_capabilities_init(ctx), "!module_ctx.inited");
    EXPECT_EQ(bridge_capabilities_start(), 0);
    EXPECT_ASSERTION(bridge_capabilities_deinit(), "!module_ctx.started");
    EXPECT_ASSERTION(mqtt.handler("api/capabilities", nullptr, nullptr, 0), "payload != NULL");
    EXPECT_EQ(bridge_capabilities_stop(), 0);
    bridge_capabilities_deinit();
    EXPECT_ASSERTION(bridge_capabilities_deinit(), "module_ctx.inited");
}

/* The first init of a process makes the lock; later ones look at it. */
static void init_with_failing(const char *call, int inits_before, converter_ctx *ctx)
{
    for (int i = 0; i < inits_before; i++) {
        if (bridge_capabilities_init(ctx) != 0)
            exit(2);
        bridge_capabilities_deinit();
    }
    let_fail(call, ENOSYS);
    exit(bridge_capabilities_init(ctx) == -1 ? 0 : 1);
}

/* Each statement in a process that has not made the lock yet. */
class CapabilitiesLockDeath : public testing::Test
{
  protected:
    CapabilitiesLockDeath()
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        bridge_log_init(BRIDGE_LOG_WARN, true);
    }
    ~CapabilitiesLockDeath() override
    {
        GTEST_FLAG_SET(death_test_style, "fast");
    }

    converter_ctx context = {};
    converter_ctx *const ctx = &context;
};

TEST_F(CapabilitiesLockDeath, ALockThatCannotBeMadeIsAFailedInit)
{
    static constexpr const char *LINE =
        "failed to initialize the capabilities service: Function not implemented (38)\n";
    EXPECT_EXIT(init_with_failing("sem_init", 0, ctx), ExitedWithCode(0), HasSubstr(LINE));
    EXPECT_EXIT(init_with_failing("sem_getvalue", 1, ctx), ExitedWithCode(0), HasSubstr(LINE));
    EXPECT_EXIT(init_with_failing("sem_init", 1, ctx), ExitedWithCode(1), "") << "it is made once";
}
