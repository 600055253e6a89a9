/* Children of a process whose other threads log: none finds the log's lock taken, whatever the fork met. */
#include "common/bridge_log.h"
#include "common/captured_stderr.h"
#include "mqtt/background.h"

#include <cstdarg>
#include <gtest/gtest.h>
#include <memory>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

/* A child that hangs ends by this. */
static constexpr unsigned CHILD_LIMIT_S = 30;

/* Stands in the way of the one thread that logs this. */
static constexpr const char *HELD_TEXT = "held";
static gate *hold;

/* As the system's own: one lock, which no fork handler looks after. */
static pthread_mutex_t system_log_lock = PTHREAD_MUTEX_INITIALIZER;
static int system_log_fd = -1;

static void log_to_system(const char *format, va_list arguments)
{
    char text[512];
    vsnprintf(text, sizeof(text), format, arguments);
    pthread_mutex_lock(&system_log_lock);
    if (hold != nullptr && strstr(text, HELD_TEXT) != nullptr)
        hold->wait();
    dprintf(system_log_fd, "%s", text);
    pthread_mutex_unlock(&system_log_lock);
}

extern "C" {
void __wrap_openlog(const char *, int, int)
{
}

void __wrap_vsyslog(int, const char *format, va_list arguments)
{
    log_to_system(format, arguments);
}

void __wrap___vsyslog_chk(int, int, const char *format, va_list arguments)
{
    log_to_system(format, arguments);
}
}

static pid_t fork_logging_child(int number)
{
    const pid_t child = fork();
    if (child != 0)
        return child;
    alarm(CHILD_LIMIT_S);
    BRIDGE_ERROR("child %d begins", number);
    BRIDGE_INFO("child %d ends", number);
    _exit(0);
}

static bool left_well(pid_t child)
{
    int status = -1;
    return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

static long count_lines(const std::string &text, const std::string &part)
{
    long count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        count++;
    return count;
}

class ForkedChildren : public testing::TestWithParam<bool>
{
  protected:
    ForkedChildren()
    {
        hold = nullptr;
        bridge_log_init(BRIDGE_LOG_TRACE, GetParam());
        system_log_fd = STDERR_FILENO;
    }
};

TEST_P(ForkedChildren, LogAndLeaveWhileOtherThreadsLog)
{
    static constexpr int CHILDREN = 100;
    captured_stderr capture;
    int left = 0;
    {
        std::atomic<bool> stop = false;
        std::vector<std::unique_ptr<background>> threads;
        for (int i = 0; i < 3; i++)
            threads.push_back(std::make_unique<background>([&stop] {
                while (!stop)
                    BRIDGE_TRACE("another thread %m");
            }));
        for (int i = 0; i < CHILDREN && left == i; i++)
            left += left_well(fork_logging_child(i)) ? 1 : 0;
        stop = true;
    }
    EXPECT_EQ(left, CHILDREN);
    const std::string text = capture.text();
    EXPECT_EQ(count_lines(text, " begins\n"), CHILDREN) << "no line is written over";
    EXPECT_EQ(count_lines(text, " ends\n"), CHILDREN);
}

TEST_P(ForkedChildren, OfSeveralThreadsAtOnceLogAndLeave)
{
    captured_stderr capture;
    std::atomic<int> left = 0;
    {
        std::vector<std::unique_ptr<background>> threads;
        for (int i = 0; i < 4; i++)
            threads.push_back(std::make_unique<background>([&left, i] {
                for (int turn = 0; turn < 50; turn++)
                    left += left_well(fork_logging_child(i)) ? 1 : 0;
            }));
    }
    EXPECT_EQ(left, 200);
    EXPECT_EQ(count_lines(capture.text(), " ends\n"), 200);
}

INSTANTIATE_TEST_SUITE_P(Destinations, ForkedChildren, testing::Values(true, false),
                         [](const auto &each) { return each.param ? "StandardError" : "SystemLog"; });

/* The case that the loops above meet by chance only. */
TEST(ForkedChild, IsNotMadeWhileAnotherThreadIsWithinTheSystemLog)
{
    gate release;
    hold = &release;
    system_log_fd = STDERR_FILENO;
    bridge_log_init(BRIDGE_LOG_TRACE, false);
    captured_stderr capture;
    std::atomic<bool> well = false;
    bool waited_for_the_log = false;
    {
        background logging([] { BRIDGE_ERROR("%s", HELD_TEXT); });
        ASSERT_TRUE(wait_until([&] { return release.is_waited_for(); }));
        background forking([&] { well = left_well(fork_logging_child(0)); });
        waited_for_the_log = forking.blocks();
        release.open();
    }
    hold = nullptr;
    EXPECT_TRUE(well);
    EXPECT_TRUE(waited_for_the_log);
    const std::string text = capture.text();
    EXPECT_LT(text.find(HELD_TEXT), text.find("child 0 begins")) << "the child comes after the line";
}
