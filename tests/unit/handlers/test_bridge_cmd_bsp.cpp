/* The upgrade of the BSP among a scripted agent and a clock that does not wait: how long its status is asked
 * for, what is answered in the end, and what the state file holds meanwhile. */
#include "converter/control/bridge_cmd_bsp.h"

#include "common/bridge_json_helpers.h"
#include "control/control_neighbours.h"
#include "converter/control/bridge_cmd_async.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_cmd_pipe.h"
#include "thread_pool/thpool.h"

#include <cstring>
#include <fstream>
#include <functional>
#include <json-c/json.h>

using testing::ElementsAre;
using testing::IsEmpty;

static constexpr const char *STATUS_READ = "int upgradeBspStatus.0";
static constexpr const char *START_SET = "set packageToUpgrade.0=sarnivel-bsp-version upgradeStart.0=1000003";
static constexpr const char *NO_OPERATION = "0:none\n0:req\n";
static constexpr long ROUNDS = 720; /* an hour, five seconds each */
static constexpr size_t SETTLE_S = 10;
static constexpr size_t ROUND_S = 5;

/* ---- neighbours ---- */

/* The end of a process: what is behind it does not run. */
struct process_end {
};

static std::vector<std::string> answers;
static int jobs_begun;

void bridge_cmd_async_respond(json_object *response, int64_t req_id)
{
    const json_owned owned(response);
    answers.push_back(join(
        {std::to_string(req_id), " ", json_object_to_json_string_ext(response, JSON_C_TO_STRING_PLAIN)}));
    throw process_end();
}

void cmd_async_begin()
{
    jobs_begun++;
}

/* The child's work, in this process. */
void cmd_async_run(converter_ctx *ctx, json_object *request, cmd_async_job job, const cmd_async_texts &texts,
                   json_object **response)
{
    EXPECT_STREQ(texts.failed, "failed to start bsp upgrade slave process: %m");
    EXPECT_STREQ(texts.launched, "launched bsp upgrade process pid: [%d]");
    EXPECT_STREQ(texts.started, "mqtt bsp upgrade slave process started");
    *response = bridge_cmd_status_text("status", "ok");
    try {
        job(ctx, request);
    } catch (const process_end &) {
    }
}

static int pool_result;
static std::function<void()> queued;

int thpool_add_work(thpool *, void (*function)(void *), void *arg)
{
    if (pool_result == 0)
        queued = [function, arg] { function(arg); };
    return pool_result;
}

/* ---- fixture ---- */

class CmdBsp : public ControlTest
{
  protected:
    CmdBsp()
    {
        answers.clear();
        jobs_begun = 0;
        pool_result = 0;
        queued = nullptr;
        strcpy(configuration.generic.state_dir, root.path.c_str());
    }

    /* The answer that is given at once. */
    std::string upgrade(const std::string &members = R"("requestId":17)")
    {
        const json_owned request(json_tokener_parse(join({"{", members, "}"}).c_str()));
        json_object *response = nullptr;
        bridge_cmd_upgrade_bsp_local(ctx, request.get(), &response);
        const json_owned owned(response);
        return json_object_to_json_string_ext(response, JSON_C_TO_STRING_PLAIN);
    }

    void run_queued()
    {
        ASSERT_TRUE(queued);
        try {
            queued();
        } catch (const process_end &) {
        }
    }

    void statuses(std::deque<long> values)
    {
        agent.numbers("upgradeBspStatus.0", std::move(values));
    }

    std::string state() const
    {
        std::ifstream file(root.path / "last_sw_status");
        return {std::istreambuf_iterator<char>(file), {}};
    }

    temporary_root root;
};

static std::string late_answer(const std::string &text)
{
    return join({R"(17 {"status":")", text, R"("})"});
}

/* Of so many looks at the status, with the wait before the first. */
static std::vector<std::string> waits_of(long rounds_waited)
{
    return std::vector<std::string>(SETTLE_S + static_cast<size_t>(rounds_waited) * ROUND_S, "1 s");
}

/* ---- the number and its text ---- */

static constexpr struct {
    long number;
    const char *text;
} FINAL_STATUSES[] = {
    {0, "ok"},
    {1, "BSP upgrade failure"},
    {90002, R"(n\/a (can't determined))"},
    {90003, "Already the latest BSP"},
    {90004, "BSP upgrade failure"},
    {90005, "BSP upgrade failure"},
    {2, "unknown"},
    {-1, "unknown"},
    {89999, "unknown"},
    {90008, "unknown"},
};

TEST_F(CmdBsp, AFinalStatusEndsTheUpgradeAtOnce)
{
    for (const auto &row : FINAL_STATUSES) {
        SCOPED_TRACE(row.number);
        answers.clear();
        const long before = agent.count(STATUS_READ);
        statuses({row.number});
        EXPECT_EQ(upgrade(), R"({"status":"ok"})");
        EXPECT_THAT(answers, ElementsAre(late_answer(row.text)));
        EXPECT_EQ(agent.count(STATUS_READ) - before, 1);
        EXPECT_EQ(waits.taken(), waits_of(0));
    }
    EXPECT_EQ(jobs_begun, static_cast<int>(std::size(FINAL_STATUSES)));
}

TEST_F(CmdBsp, AnUpgradeIsWatchedThroughItsStatuses)
{
    statuses({90006, 90007, 90000, 90001, 90003});
    upgrade();
    EXPECT_THAT(agent.calls(),
                ElementsAre(START_SET, STATUS_READ, STATUS_READ, STATUS_READ, STATUS_READ, STATUS_READ));
    EXPECT_EQ(waits.taken(), waits_of(4));
    EXPECT_THAT(answers, ElementsAre(late_answer("Already the latest BSP")));
}

TEST_F(CmdBsp, AnUpgradeIsGivenUpAfterAnHour)
{
    for (const long busy : {90000, 90001, 90006, 90007}) {
        SCOPED_TRACE(busy);
        answers.clear();
        const long before = agent.count(STATUS_READ);
        statuses({busy});
        upgrade();
        EXPECT_EQ(agent.count(STATUS_READ) - before, ROUNDS);
        EXPECT_EQ(waits.taken(), waits_of(ROUNDS));
        EXPECT_THAT(answers, ElementsAre(late_answer("BSP upgrade timed out")));
        EXPECT_EQ(state(), NO_OPERATION);
    }
}

TEST_F(CmdBsp, AFailedReadKeepsTheNumber)
{
    statuses({90006, 0});
    agent.fail(STATUS_READ, 1);
    upgrade();
    EXPECT_EQ(agent.count(STATUS_READ), ROUNDS);
    EXPECT_THAT(answers, ElementsAre(late_answer("BSP upgrade timed out")));
}

TEST_F(CmdBsp, AnAgentThatCannotBeAskedYetIsWaitedFor)
{
    statuses({90003});
    agent.fail(STATUS_READ);
    long reads = 0;
    waits.within = [&reads] {
        reads = agent.count(STATUS_READ);
        if (reads == 3)
            agent.let_pass();
    };
    upgrade();
    EXPECT_EQ(agent.count(STATUS_READ), 4);
    EXPECT_THAT(answers, ElementsAre(late_answer("Already the latest BSP")));
}

/* ---- the state file ---- */

TEST_F(CmdBsp, TheStateFileHoldsAnUpgradeForAsLongAsItRuns)
{
    statuses({90006, 1});
    std::vector<std::string> seen;
    waits.within = [this, &seen] { seen.push_back(state()); };
    upgrade(R"("requestId":-9000000000)");
    EXPECT_EQ(seen, std::vector<std::string>(SETTLE_S + ROUND_S, "3:localupgrade\n-9000000000:req\n"));
    EXPECT_EQ(state(), NO_OPERATION);
    EXPECT_EQ(ctx->last_sw_cmd, 0);
    EXPECT_EQ(ctx->last_sw_req_id, 0);
    EXPECT_THAT(answers, ElementsAre(R"(-9000000000 {"status":"BSP upgrade failure"})"));
}

TEST_F(CmdBsp, ARefusedUpgradeIsNotWatched)
{
    agent.fail("set");
    const log_view view = log.from_here();
    EXPECT_EQ(upgrade(R"("requestId":17,"delay":1,"force":false)"), R"({"status":"ok"})");
    EXPECT_THAT(answers, ElementsAre(late_answer("Operation not permitted")));
    EXPECT_THAT(view.complaints(), ElementsAre("ERROR failed to send package upgrade command"));
    EXPECT_THAT(agent.calls(), ElementsAre(START_SET));
    EXPECT_THAT(waits.taken(), IsEmpty());
    EXPECT_EQ(state(), NO_OPERATION);
}

TEST_F(CmdBsp, AnUpgradeWithoutARequestNeverBegins)
{
    const log_view view = log.from_here();
    upgrade(R"("force":true)");
    EXPECT_THAT(view.complaints(),
                ElementsAre("WARN unable to retrieve field", "ERROR failed to de-serialize params"));
    EXPECT_THAT(answers, IsEmpty());
    EXPECT_THAT(agent.calls(), IsEmpty());
    EXPECT_EQ(jobs_begun, 0);
    EXPECT_EQ(state(), "");
}

TEST_F(CmdBsp, AnUpgradeThatIsKnownToRunIsNotBegunAgain)
{
    ctx->last_sw_cmd = 3;
    EXPECT_EQ(upgrade(), R"({"status":"BSP upgrade already in progress"})");
    EXPECT_THAT(agent.calls(), IsEmpty());
    for (const int other : {0, 1, 2}) {
        ctx->last_sw_cmd = other;
        EXPECT_EQ(upgrade(), R"({"status":"ok"})");
    }
}

/* A child that is forked while the daemon stops has begun an upgrade all the same. */
TEST_F(CmdBsp, AChildWatchesOnWithoutTheControlPlane)
{
    ctx->ctrl_running = false;
    statuses({90006, 90003});
    upgrade();
    EXPECT_THAT(answers, ElementsAre(late_answer("Already the latest BSP")));
    EXPECT_EQ(waits.taken(), waits_of(1));
}

/* ---- after a restart ---- */

class CmdBspResumed : public CmdBsp
{
  protected:
    CmdBspResumed()
    {
        ctx->last_sw_cmd = 3;
        ctx->last_sw_req_id = 17;
        std::ofstream(root.path / "last_sw_status") << RUNNING;
    }

    static constexpr const char *RUNNING = "3:localupgrade\n17:req\n";
};

TEST_F(CmdBspResumed, TheUpgradeIsWatchedOnAndAnsweredUnderItsRequest)
{
    statuses({90000, 0});
    bridge_cmd_resume_bsp_upgrade(ctx);
    EXPECT_TRUE(ctx->bsp_poll_running);
    EXPECT_THAT(agent.calls(), IsEmpty()) << "on the pool";
    run_queued();
    EXPECT_TRUE(log.has("INFO Started polling BSP upgrade status worker"));
    EXPECT_THAT(agent.calls(), ElementsAre(STATUS_READ, STATUS_READ));
    EXPECT_EQ(waits.taken(), waits_of(1));
    EXPECT_THAT(answers, ElementsAre(late_answer("ok")));
    EXPECT_EQ(state(), NO_OPERATION);
    EXPECT_EQ(ctx->last_sw_cmd, 0);
    EXPECT_EQ(ctx->last_sw_req_id, 0);
}

TEST_F(CmdBspResumed, ItIsGivenUpAfterAnHour)
{
    statuses({90006});
    bridge_cmd_resume_bsp_upgrade(ctx);
    run_queued();
    EXPECT_EQ(agent.count(STATUS_READ), ROUNDS);
    EXPECT_THAT(answers, ElementsAre(late_answer("BSP upgrade timed out")));
    EXPECT_EQ(state(), NO_OPERATION);
}

TEST_F(CmdBspResumed, OneWatchIsEnough)
{
    bridge_cmd_resume_bsp_upgrade(ctx);
    queued = nullptr;
    bridge_cmd_resume_bsp_upgrade(ctx);
    EXPECT_FALSE(queued);
}

TEST_F(CmdBspResumed, AStopLeavesItToTheNextStart)
{
    static constexpr struct {
        int wait;
        long reads;
    } rows[] = {{1, 0}, {10, 0}, {11, 1}, {15, 1}, {17, 2}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.wait);
        ctx->bsp_poll_running = false;
        ctx->ctrl_running = true;
        int left = row.wait;
        waits.within = [this, &left] {
            if (--left == 0)
                ctx->ctrl_running = false;
        };
        const long before = agent.count(STATUS_READ);
        statuses({90006});
        bridge_cmd_resume_bsp_upgrade(ctx);
        run_queued();
        EXPECT_EQ(waits.taken(), std::vector<std::string>(static_cast<size_t>(row.wait), "1 s"));
        EXPECT_EQ(agent.count(STATUS_READ) - before, row.reads);
        EXPECT_THAT(answers, IsEmpty());
        EXPECT_EQ(state(), RUNNING);
        EXPECT_EQ(ctx->last_sw_req_id, 17);
    }
}

TEST_F(CmdBspResumed, AWatchThatCannotStartIsTheEndOfIt)
{
    pool_result = -1;
    const log_view view = log.from_here();
    EXPECT_THROW(bridge_cmd_resume_bsp_upgrade(ctx), process_end);
    EXPECT_THAT(view.complaints(), ElementsAre("ERROR failed to start bsp upgrade status polling thread"));
    EXPECT_THAT(answers, ElementsAre(late_answer("Failed to start bsp upgrade status polling thread")));
    EXPECT_FALSE(ctx->bsp_poll_running);
    EXPECT_EQ(ctx->last_sw_cmd, 0);
    EXPECT_EQ(state(), NO_OPERATION);
}
