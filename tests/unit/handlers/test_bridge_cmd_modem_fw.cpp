/* Modem firmware, among a scripted agent, a clock that does not wait, and a shell that notes what it is
 * given. */
#include "converter/control/bridge_cmd_modem_fw.h"

#include "common/bridge_json_helpers.h"
#include "control/control_neighbours.h"
#include "converter/control/bridge_cmd_async.h"
#include "converter/control/bridge_cmd_state.h"

#include <csignal>
#include <fstream>
#include <sys/wait.h>

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

static constexpr const char *STATE = "last_wm_fw_status";
static constexpr const char *EXECUTE = "int wmFwUpdateExecute.0";
static constexpr size_t ROUNDS = 20;

/* ---- neighbours ---- */

static std::string folder;
static int script_status;
static pid_t forked;
static std::vector<pid_t> forgotten;

static std::string content(const std::string &name)
{
    std::ifstream file(join({folder, "/", name}));
    return {std::istreambuf_iterator<char>(file), {}};
}

/* In the child: notes the line, whether a broken pipe would end it, and what the state file holds meanwhile.
 */
extern "C" int __wrap_system(const char *line) // NOLINT(bugprone-reserved-identifier): the linker makes it
{
    std::ofstream(join({folder, "/ran"}))
        << line << "|" << (signal(SIGPIPE, SIG_DFL) == SIG_DFL) << "|" << content(STATE);
    return script_status;
}

pid_t cmd_fork(converter_ctx *)
{
    if (forked != 0)
        return forked;
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid > 0)
        forked = pid;
    return pid;
}

void cmd_async_forget(pid_t pid)
{
    forgotten.push_back(pid);
}

/* ---- fixture ---- */

using step = void (*)(converter_ctx *, json_object *, json_object **);

class CmdModemFw : public ControlTest
{
  protected:
    CmdModemFw()
    {
        folder = root.path;
        snprintf(configuration.generic.state_dir, sizeof(configuration.generic.state_dir), "%s",
                 folder.c_str());
        script_status = 0;
        forked = 0;
        forgotten.clear();
    }

    std::string run(step function, const std::string &params = "{}")
    {
        const json_owned object(json_tokener_parse(params.c_str()));
        json_object *response = nullptr;
        function(ctx, object.get(), &response);
        const json_owned owned(response);
        return owned ? json_object_to_json_string_ext(response, JSON_C_TO_STRING_PLAIN) : "none";
    }

    static void statuses(std::deque<long> values)
    {
        agent.numbers("wmFwUpdateExecute.0", std::move(values));
    }

    const temporary_root root;
};

static std::string answer(const std::string &text)
{
    return join({R"({"status":")", text, R"("})"});
}

/* ---- local ---- */

TEST_F(CmdModemFw, AChildInstallsAndTheStateFileTellsHowFarItIs)
{
    static constexpr struct {
        int script;
        const char *state;
        const char *complaint;
    } rows[] = {
        {0, "2:ok\n0:req\n", ""},
        {256, "3:failure\n0:req\n", "ERROR [child] failed to complete an update"},
        {-1, "3:failure\n0:req\n", "ERROR [child] failed to complete an update"},
    };
    signal(SIGPIPE, SIG_IGN); /* as the MQTT library leaves it */
    for (const auto &row : rows) {
        SCOPED_TRACE(row.script);
        const log_view view = log.from_here();
        script_status = row.script;
        forked = 0;
        ctx->wm_install_running = false;
        EXPECT_EQ(run(bridge_cmd_wm_fw_install_local), answer("started"));
        EXPECT_TRUE(ctx->wm_install_running);
        EXPECT_EQ(forgotten.back(), forked);
        int status = -1;
        ASSERT_EQ(waitpid(forked, &status, 0), forked);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(content("ran"), "/opt/Sierra/LteModemFW/lte-fw-download-script.sh generic /dev/shm/modem/"
                                  "|1|1:in-progress\n0:req\n");
        EXPECT_EQ(content(STATE), row.state);
        const std::vector<std::string> complaints = view.complaints();
        EXPECT_EQ(complaints.empty() ? "" : complaints[0], row.complaint);
    }
}

TEST_F(CmdModemFw, OneInstallRunsAtATime)
{
    ctx->wm_install_running = true;
    EXPECT_EQ(run(bridge_cmd_wm_fw_install_local), answer("already installing"));
    EXPECT_EQ(forked, 0);
}

TEST_F(CmdModemFw, AFailedForkStartsNothing)
{
    forked = -1;
    EXPECT_EQ(run(bridge_cmd_wm_fw_install_local), answer("failed to start install process"));
    EXPECT_FALSE(ctx->wm_install_running);
    EXPECT_THAT(forgotten, IsEmpty());
}

TEST_F(CmdModemFw, TheStatusOfAnInstallIsTheStateFiles)
{
    static constexpr struct {
        const char *state;
        const char *text;
    } rows[] = {
        {"1:in-progress\n0:req\n", "in-progress"},
        {"2:ok\n0:req\n", "ok"},
        {"3:failure\n0:req\n", "failed"},
        {"4:other\n0:req\n", "unknown"},
        {"0:none\n", "unknown"},
        {"-1:x\n", "unknown"},
        {"2147483647:x\n", "unknown"},
        {"", "unknown"},
    };
    ctx->wm_install_running = true;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.state);
        std::ofstream(root.path / STATE) << row.state;
        EXPECT_EQ(run(bridge_cmd_wm_fw_install_status), answer(row.text));
    }
    ctx->wm_install_running = false;
    EXPECT_EQ(run(bridge_cmd_wm_fw_install_status), answer("not started"));
}

TEST_F(CmdModemFw, AStatusThatCannotBeReadIsNoAnswer)
{
    ctx->wm_install_running = true;
    EXPECT_EQ(run(bridge_cmd_wm_fw_install_status), "none");
    EXPECT_EQ(log.complaints().back(), "ERROR failed to get WM FW install status");
}

/* ---- remote ---- */

static constexpr struct {
    step function;
    const char *set;
    const char *timed_out;
} STEPS[] = {
    {bridge_cmd_wm_fw_install_remote,
     "set wmFwUpdateUrl.0=url:4? wmFwUpdateUser.0=userName:4? wmFwUpdatePass.0=password:4? "
     "wmFwUpdateExecute.0=1000001",
     "Upload has started. This might take a while..."},
    {bridge_cmd_wm_fw_upgrade, "set wmFwUpdateExecute.0=1000002",
     "Upgrade has started. This might take a while..."},
    {bridge_cmd_wm_fw_finish, "set wmFwUpdateExecute.0=1000003", "Failed to complete operation"},
};

TEST_F(CmdModemFw, AStepIsOneSetThenOneLookASecond)
{
    for (const auto &row : STEPS) {
        SCOPED_TRACE(row.set);
        const size_t before = agent.calls().size();
        statuses({1, 2, 0});
        EXPECT_EQ(run(row.function, R"({"url":"ftp://192.0.2.1/fw","password":null})"),
                  answer("Operation succeed"));
        const std::vector<std::string> calls = agent.calls();
        EXPECT_EQ(std::vector<std::string>(calls.begin() + static_cast<std::ptrdiff_t>(before), calls.end()),
                  (std::vector<std::string>{row.set, EXECUTE, EXECUTE, EXECUTE}));
        EXPECT_THAT(waits.taken(), ElementsAre("1 s", "1 s", "1 s"));
    }
}

TEST_F(CmdModemFw, AStepThatGoesOnForTwentySecondsIsAnsweredMeanwhile)
{
    for (const auto &row : STEPS) {
        for (const long at_work : {1, 2}) {
            SCOPED_TRACE(row.set);
            statuses({at_work});
            EXPECT_EQ(run(row.function), answer(row.timed_out));
            const std::vector<std::string> taken = waits.taken();
            EXPECT_THAT(taken, SizeIs(ROUNDS));
            EXPECT_THAT(taken, Each("1 s"));
        }
    }
    EXPECT_EQ(agent.count(EXECUTE), static_cast<long>(ROUNDS * 2 * std::size(STEPS)));
}

TEST_F(CmdModemFw, AStepEndsWithAnyOtherStatus)
{
    for (const auto &row : STEPS) {
        for (const long status : {3L, -1L, 1000001L}) {
            statuses({1, status});
            EXPECT_EQ(run(row.function), answer("Operation ends with unknown status"));
            EXPECT_THAT(waits.taken(), SizeIs(2));
        }
    }
}

TEST_F(CmdModemFw, AStepEndsWhenItsStatusCannotBeRead)
{
    for (const auto &row : STEPS) {
        const log_view view = log.from_here();
        statuses({1});
        agent.fail(EXECUTE, 1);
        EXPECT_EQ(run(row.function), answer("Generic error"));
        EXPECT_THAT(waits.taken(), SizeIs(2));
        EXPECT_THAT(view.complaints(), ElementsAre("ERROR failed to retrieve status"));
    }
}

TEST_F(CmdModemFw, AStepThatIsRefusedIsNotWaitedFor)
{
    agent.fail("set");
    for (const auto &row : STEPS)
        EXPECT_EQ(run(row.function), answer("generic error"));
    EXPECT_THAT(waits.taken(), IsEmpty());
}
