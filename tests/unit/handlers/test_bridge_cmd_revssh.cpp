/* Which tunnel runs, among stand-ins for the fork. */
#include "converter/control/bridge_cmd_revssh.h"

#include "common/bridge_json_helpers.h"
#include "control/control_neighbours.h"
#include "converter/control/bridge_cmd_async.h"
#include "converter/control/bridge_ctrl_ctx.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

static bool fork_fails;

/* A child that ends at once, and waits to be collected. */
pid_t cmd_fork(converter_ctx *)
{
    if (fork_fails) {
        errno = EAGAIN;
        return -1;
    }
    const pid_t child = fork();
    if (child == 0)
        _exit(0);
    siginfo_t ended = {};
    waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT);
    return child;
}

void cmd_async_forget(pid_t)
{
}

class CmdReverseSsh : public ControlTest
{
  protected:
    CmdReverseSsh()
    {
        fork_fails = false;
        ctx->ssh_pid = -1;
    }

    std::string call(void (*command)(converter_ctx *, json_object *, json_object **))
    {
        const json_owned params(bridge_json_parse(
            R"({"username":"u","password":"p","sshHost":"h","sshRevPort":2200,"sshPort":22})"));
        json_object *response = nullptr;
        command(ctx, params.get(), &response);
        const json_owned owned(response);
        return json_object_get_string(json_object_object_get(response, "status"));
    }
};

TEST_F(CmdReverseSsh, ATunnelThatHasEndedIsForgottenThoughNoneFollows)
{
    EXPECT_EQ(call(bridge_cmd_reverse_ssh), "ok");
    fork_fails = true;
    EXPECT_EQ(call(bridge_cmd_reverse_ssh), "Resource temporarily unavailable");
    EXPECT_EQ(call(bridge_cmd_stop_reverse_ssh), "No such process");
    EXPECT_EQ(call(bridge_cmd_reverse_ssh), "Resource temporarily unavailable");
    fork_fails = false;
    EXPECT_EQ(call(bridge_cmd_reverse_ssh), "ok");
    EXPECT_EQ(call(bridge_cmd_stop_reverse_ssh), "ok");
}
