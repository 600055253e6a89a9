/* The bulk configuration service: its life, its lock, and what is asked of the supervisor when a report does
 * not go out. */
#include "converter/control/bridge_configs.h"

#include "common/captured_stderr.h"
#include "control/control_neighbours.h"
#include "converter/control/bridge_configs_gw.h"
#include "converter/control/bridge_configs_script.h"
#include "thread_pool/thpool.h"

#include <json-c/json.h>
#include <new>
#include <semaphore.h>
#include <thread>
#include <unistd.h>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

FAILING_CALL(int, sem_getvalue, (sem_t * semaphore, int *value), (semaphore, value), -1)
FAILING_CALL(int, lockf64, (int fd, int command, off_t length), (fd, command, length), -1)
FAILING_CALL(void *, calloc, (size_t count, size_t size), (count, size), nullptr)
FAILING_CALL(json_object *, json_object_new_object, (), (), nullptr)
FAILING_NEW

/* What the pool was given last, and how often the lock was asked for. */
static void (*worker)(void *);
static std::atomic<int> lock_requests;

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes the names
extern "C" {
int __real__Z15thpool_add_workP6thpoolPFvPvES1_(thpool *pool, void (*function)(void *), void *argument);
int __wrap__Z15thpool_add_workP6thpoolPFvPvES1_(thpool *pool, void (*function)(void *), void *argument)
{
    worker = function;
    return fails(THPOOL_ADD_WORK) ? -1
                                  : __real__Z15thpool_add_workP6thpoolPFvPvES1_(pool, function, argument);
}

int __real_sem_wait(sem_t *semaphore);
int __wrap_sem_wait(sem_t *semaphore)
{
    lock_requests++;
    return __real_sem_wait(semaphore);
}
}
// NOLINTEND(bugprone-reserved-identifier)

static constexpr const char *COMMIT_RUN = "run /usr/sbin/mqtt/commit-cfg.sh rounds 5";
static constexpr const char *NEW_CONFIG = R"({"timestamp":5,"content":{}})";

/* ---- neighbours ---- */

static std::vector<std::string> steps;
static int walk_result;

int bridge_configs_gw_read(converter_ctx *, json_object *out)
{
    steps.emplace_back("read");
    json_object_object_add(out, "section", json_object_new_object());
    return walk_result;
}

int bridge_configs_gw_write(converter_ctx *, json_object *, json_object *)
{
    steps.emplace_back("write");
    return walk_result;
}

pid_t cfg_run_script(const char *path, std::span<const char *const> arguments, int rounds, bool tells_rounds)
{
    EXPECT_TRUE(arguments.empty() && !tells_rounds);
    steps.push_back(join({"run ", path, " rounds ", std::to_string(rounds)}));
    return walk_result;
}

int cfg_add(json_object *object, const char *key, json_object *value, const char *failure)
{
    if (!fails("cfg_add"))
        return json_object_object_add(object, key, value);
    BRIDGE_ERROR("%s", failure);
    json_object_put(value);
    return -EIO;
}

/* ---- fixture ---- */

class BulkConfigs : public ControlTest
{
  protected:
    BulkConfigs()
    {
        steps.clear();
        walk_result = 0;
        snprintf(configuration.generic.gw_mac, sizeof(configuration.generic.gw_mac), "%.16s", mac);
        snprintf(configuration.generic.state_dir, sizeof(configuration.generic.state_dir), "%s",
                 root.path.c_str());
        context.pool = thpool_init(2);
        EXPECT_EQ(bridge_bulk_configs_init(ctx), 0);
        view = log.from_here();
    }

    ~BulkConfigs() override
    {
        thpool_wait(context.pool);
        bridge_bulk_configs_stop();
        bridge_bulk_configs_deinit();
        thpool_destroy(context.pool);
    }

    /* Started, with an empty record of what happens. */
    void start()
    {
        EXPECT_EQ(bridge_bulk_configs_start(), 0);
        steps.clear();
        view = log.from_here();
    }

    static void deliver(const std::string &payload)
    {
        const std::vector<uint8_t> bytes(payload.begin(), payload.end());
        mqtt.handler("any", mqtt.handler_context, bytes.data(), static_cast<uint32_t>(bytes.size()));
    }

    void take(const std::string &payload)
    {
        deliver(payload);
        thpool_wait(ctx->pool);
    }

    temporary_root root;
    log_view view = log.from_here();
};

TEST_F(BulkConfigs, AFailedReadIsReportedAsFarAsItCame)
{
    walk_result = -5;
    EXPECT_EQ(bridge_bulk_configs_start(), 0);
    ASSERT_EQ(mqtt.publishes().size(), 1U);
    EXPECT_EQ(mqtt.publishes()[0].body, terminated(R"({ "content": { "section": { } } })"));
    EXPECT_FALSE(mqtt.publishes()[0].retained);
    EXPECT_THAT(supervisor.taken(), IsEmpty());
}

TEST_F(BulkConfigs, AReportThatDoesNotGoOutEndsTheStartAndAsksForARestart)
{
    mqtt.results({-3});
    EXPECT_EQ(bridge_bulk_configs_start(), -3);
    EXPECT_THAT(view.complaints(), ElementsAre("ERROR failed to publish configuration"));
    EXPECT_THAT(supervisor.taken(), ElementsAre(Pair(1, &word)));
    EXPECT_FALSE(view.has("DEBUG bulk configuration subscription start"));
    EXPECT_EQ(bridge_bulk_configs_start(), 0) << "the next start tries anew";
}

TEST_F(BulkConfigs, ARefusedSubscriptionLeavesItStopped)
{
    mqtt.subscribe_result = -1;
    EXPECT_EQ(bridge_bulk_configs_start(), -1);
    EXPECT_TRUE(view.has("INFO bulk configuration subscription failed"));
    EXPECT_EQ(bridge_bulk_configs_stop(), 0);
    EXPECT_TRUE(view.has("DEBUG bulk configuration service already stopped"));
    mqtt.subscribe_result = 0;
    EXPECT_EQ(bridge_bulk_configs_start(), 0) << "a stop that found it stopped bars no start";
}

TEST_F(BulkConfigs, AStoppedServiceStartsOnlyAfterTheNextInit)
{
    start();
    EXPECT_EQ(bridge_bulk_configs_stop(), 0);
    EXPECT_EQ(bridge_bulk_configs_start(), -1);
    EXPECT_TRUE(view.has("INFO bulk configuration service is undergoing a restart, cannot start it now"));
    EXPECT_EQ(bridge_bulk_configs_stop(), 0);
    EXPECT_TRUE(
        view.has("INFO bulk configuration service is already undergoing a restart, cannot be stopped now"));
    EXPECT_THAT(steps, IsEmpty());
    bridge_bulk_configs_deinit();
    EXPECT_EQ(bridge_bulk_configs_start(), -1) << "not before init";
    EXPECT_EQ(bridge_bulk_configs_init(ctx), 0);
    EXPECT_EQ(bridge_bulk_configs_start(), 0);
}

TEST_F(BulkConfigs, AMessageBehindAStopIsDropped)
{
    start();
    bridge_bulk_configs_stop();
    take(NEW_CONFIG);
    EXPECT_THAT(steps, IsEmpty());
    EXPECT_TRUE(
        view.has("TRACE Bulk configuration service is not running -- bridge likely in the middle of a "
                 "restart, ignoring the message"));
}

TEST_F(BulkConfigs, AResponseThatDoesNotGoOutAsksForARestartAndIsNotCommitted)
{
    start();
    mqtt.results({-1});
    take(NEW_CONFIG);
    EXPECT_THAT(steps, ElementsAre("write"));
    EXPECT_THAT(view.complaints(), Contains("ERROR failed to publish response"));
    EXPECT_THAT(supervisor.taken(), ElementsAre(Pair(1, &word)));
    take(NEW_CONFIG);
    EXPECT_THAT(steps, ElementsAre("write", "read", COMMIT_RUN))
        << "the timestamp was stored, so this is a repeat";
}

TEST_F(BulkConfigs, AFailedSectionOrCommitChangesNothing)
{
    start();
    walk_result = -5;
    take(NEW_CONFIG);
    EXPECT_THAT(steps, ElementsAre("write", COMMIT_RUN));
    ASSERT_EQ(mqtt.publishes().size(), 2U);
    EXPECT_EQ(mqtt.publishes()[1].body, terminated(R"({"content":{}})"));
    EXPECT_TRUE(mqtt.publishes()[1].retained);
    EXPECT_THAT(supervisor.taken(), IsEmpty());
}

TEST_F(BulkConfigs, AFolderTooLongForTheTimestampsPathEndsInNothing)
{
    start();
    memset(configuration.generic.state_dir, 'x', sizeof(configuration.generic.state_dir) - 1);
    take(NEW_CONFIG);
    EXPECT_THAT(steps, IsEmpty());
    EXPECT_THAT(
        view.complaints(),
        ElementsAre("ERROR failed to form a path for config api timestamp file: config_update_timestamp",
                    "ERROR config timestamp couldn't be read"));
}

TEST_F(BulkConfigs, ATimestampFileThatCannotBeLockedToBeReadEndsTheDocument)
{
    start();
    take(NEW_CONFIG);
    steps.clear();
    view = log.from_here();
    let_fail("lockf64", EDEADLK);
    take(R"({"timestamp":6,"content":{}})");
    let_all_pass();
    EXPECT_THAT(view.complaints(), ElementsAre("ERROR failed to get a lock: Resource deadlock avoided",
                                               "ERROR config timestamp couldn't be read"));
    EXPECT_THAT(steps, IsEmpty());
    EXPECT_EQ(mqtt.publishes().size(), 2U) << "those of the start and of the first document";
    take(R"({"timestamp":6,"content":{}})");
    EXPECT_THAT(steps, ElementsAre("write", COMMIT_RUN));
}

TEST_F(BulkConfigs, ATimestampFileThatCannotBeLockedToBeWrittenHoldsNothingBack)
{
    start();
    let_fail("lockf64", ENOLCK);
    take(NEW_CONFIG);
    let_all_pass();
    EXPECT_THAT(view.lines_of({"ERROR"}), ElementsAre("ERROR New config request from the server",
                                                      "ERROR failed to get a lock: No locks available",
                                                      "ERROR config timestamp couldn't be written!!"));
    EXPECT_THAT(steps, ElementsAre("write", COMMIT_RUN));
    EXPECT_EQ(mqtt.publishes().size(), 2U);
    steps.clear();
    take(R"({"timestamp":6,"content":{}})");
    EXPECT_THAT(steps, ElementsAre("write", COMMIT_RUN)) << "no empty file is left";
}

/* ---- the lock ---- */

TEST_F(BulkConfigs, StartAndStopWaitForTheDocumentInHand)
{
    start();
    for (int (*const call)() : {bridge_bulk_configs_start, bridge_bulk_configs_stop}) {
        steps.clear();
        mqtt.hold();
        deliver(NEW_CONFIG);
        ASSERT_TRUE(mqtt.wait_for_held());
        const int before = lock_requests;
        std::thread caller([call] { EXPECT_EQ(call(), 0); });
        EXPECT_TRUE(wait_until([before] { return lock_requests > before; }));
        EXPECT_FALSE(view.has("DEBUG bulk configuration service has already started"));
        EXPECT_EQ(mqtt.calls().back().substr(0, 9), "subscribe");
        mqtt.let_go();
        caller.join();
        ASSERT_EQ(steps.size(), 2U) << "the programs have run by then";
        EXPECT_EQ(steps[1], COMMIT_RUN);
        view = log.from_here();
    }
    EXPECT_EQ(mqtt.calls().back().substr(0, 11), "unsubscribe");
}

TEST_F(BulkConfigs, AnEmptyMessageIsDroppedWhileADocumentIsInHand)
{
    start();
    mqtt.hold();
    deliver(NEW_CONFIG);
    ASSERT_TRUE(mqtt.wait_for_held());
    const int before = lock_requests;
    std::thread delivery([] { mqtt.handler("any", nullptr, reinterpret_cast<const uint8_t *>(""), 0); });
    EXPECT_TRUE(view.wait_for("ERROR invalid payload size received"));
    mqtt.let_go();
    delivery.join();
    EXPECT_EQ(lock_requests, before);
    thpool_wait(ctx->pool);
    EXPECT_THAT(steps, ElementsAre("write", COMMIT_RUN));
}

TEST_F(BulkConfigs, ALockThatCannotBeSetUpFailsTheInit)
{
    bridge_bulk_configs_deinit();
    let_fail("sem_getvalue", EINVAL);
    EXPECT_EQ(bridge_bulk_configs_init(ctx), -1);
    let_all_pass();
    EXPECT_THAT(view.complaints(),
                Contains("ERROR failed to initialize the bulk configuration service: Invalid argument (22)"));
    EXPECT_EQ(bridge_bulk_configs_init(ctx), 0);
}

TEST_F(BulkConfigs, AMessageThatNoWorkerTakesIsDroppedAndTheNextIsTaken)
{
    start();
    let_fail(THPOOL_ADD_WORK);
    take(NEW_CONFIG);
    let_all_pass();
    EXPECT_THAT(view.complaints(), ElementsAre("ERROR failed to launch worker thread"));
    EXPECT_THAT(steps, IsEmpty());
    take(NEW_CONFIG);
    EXPECT_THAT(steps, ElementsAre("write", COMMIT_RUN));
}

/* ---- without memory ---- */

struct memory_row {
    const char *call;
    int after;
    const char *told;
};

TEST_F(BulkConfigs, WithoutMemoryForTheReportTheServiceStartsAllTheSame)
{
    static constexpr memory_row rows[] = {
        {"json_object_new_object", 0, "ERROR cannot allocate root json object"},
        {"json_object_new_object", 1, "ERROR cannot allocate content object"},
        {"cfg_add", 0, "ERROR cannot add content object to root JSON"},
    };
    for (const memory_row &row : rows) {
        const log_view told = log.from_here();
        let_fail(row.call, 0, row.after);
        EXPECT_EQ(bridge_bulk_configs_start(), 0);
        let_all_pass();
        EXPECT_THAT(told.complaints(), ElementsAre(row.told));
        EXPECT_TRUE(told.has("INFO bulk configuration subscription succeeded"));
        bridge_bulk_configs_stop();
        bridge_bulk_configs_deinit();
        EXPECT_EQ(bridge_bulk_configs_init(ctx), 0);
    }
    EXPECT_THAT(mqtt.publishes(), IsEmpty());
    EXPECT_THAT(steps, IsEmpty());
}

TEST_F(BulkConfigs, WithoutMemoryADocumentIsDroppedAndTheNextIsTaken)
{
    static constexpr memory_row rows[] = {
        {NEW, 0, "ERROR failed to allocate worker data"},
        {"calloc", 0, "ERROR failed to allocate memory for payload with size: 28"},
        {"json_object_new_object", 0, "ERROR cannot allocate response object"},
        {"json_object_new_object", 1, "ERROR failed to allocate response conent object"},
        {"cfg_add", 0, "ERROR failed to add JSON content to response: out of memory"},
    };
    start();
    for (const memory_row &row : rows) {
        const log_view told = log.from_here();
        let_fail(row.call, 0, row.after);
        take(NEW_CONFIG);
        let_all_pass();
        EXPECT_THAT(told.complaints(), ElementsAre(row.told));
    }
    EXPECT_THAT(steps, IsEmpty());
    take(NEW_CONFIG);
    EXPECT_THAT(steps, ElementsAre("write", COMMIT_RUN));
}

/* ---- assertions ---- */

using BulkConfigsDeath = BulkConfigs;

TEST_F(BulkConfigsDeath, CallsOutOfTheirOrderAreAsserted)
{
    EXPECT_ASSERTION(bridge_bulk_configs_init(ctx), "!module_ctx.inited");
    start();
    EXPECT_ASSERTION(bridge_bulk_configs_deinit(), "!module_ctx.started");
    bridge_bulk_configs_stop();
    bridge_bulk_configs_deinit();
    EXPECT_ASSERTION(bridge_bulk_configs_deinit(), "module_ctx.inited");
    EXPECT_EQ(bridge_bulk_configs_init(ctx), 0);
}

TEST_F(BulkConfigsDeath, AMessageWithoutAPayloadIsAsserted)
{
    start();
    EXPECT_ASSERTION(mqtt.handler("any", nullptr, nullptr, 1), "payload != NULL");
    take(NEW_CONFIG);
    EXPECT_ASSERTION(worker(nullptr), "arg != NULL");
    char *no_payload = nullptr;
    EXPECT_ASSERTION(worker(&no_payload), "data->payload");
}
