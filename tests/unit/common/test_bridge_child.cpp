/* What a child keeps of the daemon's descriptors. */
#include "common/bridge_child.h"

#include "common/bridge_log.h"
#include "common/bridge_release.h"

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>

static bool is_open(int fd)
{
    return fcntl(fd, F_GETFD) >= 0;
}

/* The exit status of a child that drops its descriptors and then runs `check`, 0 when that is true. */
template <typename Check> static int in_child(int kept, Check check)
{
    const pid_t pid = fork();
    if (pid == 0) {
        const int number = bridge_child_drop_descriptors(kept);
        _Exit(check(number) ? 0 : 1);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    return status;
}

TEST(BridgeChild, StandardDescriptorsAloneAreKept)
{
    const bridge_fd port(socket(AF_INET, SOCK_DGRAM, 0));
    const bridge_fd high(fcntl(port.get(), F_DUPFD, 900));
    ASSERT_GE(high.get(), 900);
    EXPECT_EQ(in_child(-1,
                       [&](int number) {
                           return number == -1 && is_open(STDERR_FILENO) && !is_open(port.get()) &&
                                  !is_open(high.get());
                       }),
              0);
    EXPECT_TRUE(is_open(high.get()));
}

TEST(BridgeChild, OneDescriptorCanBeKept)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const bridge_fd reading(ends[0]);
    bridge_fd writing(ends[1]);
    EXPECT_EQ(in_child(writing.get(),
                       [](int number) { return write(number, "kept", 4) == 4 && !is_open(number + 1); }),
              0);
    std::array<char, 8> text = {};
    EXPECT_EQ(read(reading.get(), text.data(), text.size()), 4);
    EXPECT_STREQ(text.data(), "kept");
}

TEST(BridgeChild, LogGoesOnInTheChild)
{
    bridge_log_init(BRIDGE_LOG_INFO, true);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const bridge_fd reading(ends[0]);
    bridge_fd writing(ends[1]);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(writing.get(), STDERR_FILENO);
        bridge_child_drop_descriptors();
        BRIDGE_INFO("from the child");
        _Exit(0);
    }
    waitpid(pid, nullptr, 0);
    std::array<char, 256> text = {};
    ASSERT_GT(read(reading.get(), text.data(), text.size() - 1), 0);
    EXPECT_NE(strstr(text.data(), "from the child"), nullptr);
}
