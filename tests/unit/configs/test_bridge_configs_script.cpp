/* Programs of a configuration: what they are given, and how long their end is waited for. */
#include "converter/control/bridge_configs_script.h"

#include "control/control_neighbours.h"
#include "converter/control/bridge_cmd_async.h"

#include <csignal>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

using testing::ElementsAre;
using testing::IsEmpty;

FAILING_CALL(pid_t, fork, (), (), -1)

static constexpr const char *SHELL = "/bin/sh";

/* ---- neighbours ---- */

static std::vector<pid_t> forgotten;

void cmd_async_forget(pid_t pid)
{
    forgotten.push_back(pid);
}

/* ---- fixture ---- */

class ConfigurationScript : public ControlTest
{
  protected:
    ConfigurationScript()
    {
        forgotten.clear();
    }

    ~ConfigurationScript() override
    {
        for (const pid_t pid : forgotten) {
            kill(pid, SIGKILL);
            EXPECT_EQ(waitpid(pid, nullptr, 0), pid) << "an unended program is left alone";
        }
    }

    static void wait_for_the_end()
    {
        siginfo_t info = {};
        waitid(P_ALL, 0, &info, WEXITED | WNOWAIT);
    }

    static std::vector<std::string> rounds(size_t count)
    {
        std::vector<std::string> all(count + 1, "5 s");
        all.front() = "100000 us";
        return all;
    }

    log_view view = log.from_here();
};

TEST_F(ConfigurationScript, GetsItsArgumentsAndOneVariable)
{
    const temporary_root root;
    const std::string out = root.path / "out";
    const std::string script = "echo \"$# $1 $2\" >" + out + "; tr '\\0' '\\n' </proc/$$/environ >>" + out;
    const char *arguments[] = {"-c", script.c_str(), "name", "write", "in"};
    waits.within = wait_for_the_end;
    EXPECT_GT(cfg_run_script(SHELL, arguments, 5, false), 0);
    std::stringstream text;
    text << std::ifstream(out).rdbuf();
    EXPECT_EQ(text.str(), "2 write in\nUSE_STDERR=1\n");
    EXPECT_THAT(waits.taken(), ElementsAre("100000 us")) << "one look suffices";
}

TEST_F(ConfigurationScript, HearsThatTheLogIsNotOnStandardError)
{
    const char *arguments[] = {"-c", "test \"$USE_STDERR\" = 0 || sleep 1000"};
    waits.within = wait_for_the_end;
    bridge_log_init(BRIDGE_LOG_TRACE, false);
    EXPECT_GT(cfg_run_script(SHELL, arguments, 1, false), 0);
    bridge_log_init(BRIDGE_LOG_TRACE, true);
    EXPECT_THAT(forgotten, IsEmpty());
}

TEST_F(ConfigurationScript, CountsAsEndedHoweverItEnds)
{
    waits.within = wait_for_the_end;
    const char *failing[] = {"-c", "exit 3"};
    EXPECT_GT(cfg_run_script(SHELL, failing, 5, true), 0);
    const char *killed[] = {"-c", "kill -9 $$"};
    EXPECT_GT(cfg_run_script(SHELL, killed, 5, true), 0);
    EXPECT_GT(cfg_run_script("/no/such/program", {}, 5, true), 0);
    EXPECT_FALSE(view.has("TRACE waiting 5 more sec for child process to complete..."));
    EXPECT_TRUE(view.has("TRACE trying to execute: /no/such/program"));
}

TEST_F(ConfigurationScript, IsWaitedForInRoundsOfFiveSecondsAndThenGoesOn)
{
    const char *arguments[] = {"1000"};
    for (const int count : {5, 30, 60}) {
        view = log.from_here();
        EXPECT_EQ(cfg_run_script("/bin/sleep", arguments, count, false), 0);
        EXPECT_EQ(waits.taken(), rounds(static_cast<size_t>(count)));
        EXPECT_EQ(view.count("TRACE waiting 5 more sec for child process to complete..."), count);
        EXPECT_FALSE(view.has("TRACE waitpid status: 0"));
    }
    ASSERT_EQ(forgotten.size(), 3U);
    for (const pid_t pid : forgotten)
        EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "it runs";
}

TEST_F(ConfigurationScript, TellsWhatARoundFound)
{
    const char *arguments[] = {"1000"};
    EXPECT_EQ(cfg_run_script("/bin/sleep", arguments, 2, true), 0);
    const std::string launched = "DEBUG launched process pid: [" + std::to_string(forgotten.at(0)) + "]";
    const char *status = "TRACE waitpid status: 0";
    const char *waiting = "TRACE waiting 5 more sec for child process to complete...";
    EXPECT_THAT(view.lines(), ElementsAre("TRACE trying to execute: /bin/sleep", launched, status, waiting,
                                          status, waiting));
}

TEST_F(ConfigurationScript, ThatSomebodyElseCollectedIsAFailure)
{
    waits.within = [] { waitpid(-1, nullptr, 0); };
    EXPECT_EQ(cfg_run_script("/bin/true", {}, 5, false), -ECHILD);
    EXPECT_THAT(view.complaints(), ElementsAre("ERROR failed to wait for a child"));
}

TEST_F(ConfigurationScript, ThatCannotBeForkedIsAFailureWithoutAWait)
{
    let_fail("fork", EAGAIN);
    EXPECT_EQ(cfg_run_script("/bin/true", {}, 5, false), -EAGAIN);
    EXPECT_THAT(view.lines(),
                ElementsAre("TRACE trying to execute: /bin/true",
                            "INFO failed to start child process: Resource temporarily unavailable"));
    EXPECT_THAT(waits.taken(), IsEmpty());
}
