/* The bulk configuration service: its life, and what is asked of the supervisor when a report does not go
 * out. */
#include "converter/control/bridge_configs.h"

#include "control/control_neighbours.h"
#include "converter/control/bridge_configs_gw.h"
#include "converter/control/bridge_configs_script.h"
#include "thread_pool/thpool.h"

#include <json-c/json.h>
#include <semaphore.h>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

FAILING_THPOOL_ADD_WORK
FAILING_CALL(int, sem_getvalue, (sem_t * semaphore, int *value), (semaphore, value), -1)

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

int cfg_add(json_object *object, const char *key, json_object *value, const char *)
{
    return json_object_object_add(object, key, value);
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
