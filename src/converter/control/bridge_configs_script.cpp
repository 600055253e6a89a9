/* One fork for all programs. */
#include "converter/control/bridge_configs_script.h"

#include "common/bridge_child.h"
#include "common/bridge_config.h"
#include "common/bridge_log.h"
#include "common/bridge_wait.h"
#include "converter/control/bridge_cmd_async.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

static constexpr uint32_t FIRST_WAIT_US = 100000;
static constexpr uint32_t ROUND_S = 5;

/* The child. It drops the daemon's descriptors and becomes the program. */
[[noreturn]] static void become_script(const char *path, std::span<const char *const> arguments,
                                       bool uses_stderr)
{
    std::vector<char *> argv = {const_cast<char *>(path)};
    for (const char *argument : arguments)
        argv.push_back(const_cast<char *>(argument));
    argv.push_back(nullptr);
    char *environment[] = {const_cast<char *>(uses_stderr ? "USE_STDERR=1" : "USE_STDERR=0"), nullptr};
    bridge_child_drop_descriptors();
    signal(SIGPIPE, SIG_DFL); /* the MQTT library has it ignored, and a program
                                 inherits that */
    execve(path, argv.data(), environment);
    exit(0);
}

/* Returns as cfg_run_script. */
static pid_t wait_for_end(pid_t pid, int rounds, bool tells_rounds)
{
    for (int round = 0; round < rounds; round++) {
        const pid_t ended = waitpid(pid, nullptr, WNOHANG);
        if (ended < 0) {
            const int code = errno;
            BRIDGE_ERROR("failed to wait for a child");
            return -code;
        }
        if (ended == pid)
            return pid;
        if (tells_rounds)
            BRIDGE_TRACE("waitpid status: %d", ended);
        BRIDGE_TRACE("waiting 5 more sec for child process to complete...");
        bridge_wait_s(ROUND_S);
    }
    cmd_async_forget(pid);
    return 0;
}

pid_t cfg_run_script(const char *path, std::span<const char *const> arguments, int rounds, bool tells_rounds)
{
    const bool uses_stderr = bridge_log_is_stderr();
    BRIDGE_TRACE("trying to execute: %s", path);
    const pid_t pid = fork();
    if (pid < 0) {
        const int code = errno;
        BRIDGE_INFO("failed to start child process: %m");
        return -code;
    }
    if (pid == 0)
        become_script(path, arguments, uses_stderr);
    BRIDGE_DEBUG("launched process pid: [%d]", pid);
    bridge_wait_us(FIRST_WAIT_US);
    return wait_for_end(pid, rounds, tells_rounds);
}
