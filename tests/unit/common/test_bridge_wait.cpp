/* The spans that are asked of the system, and the early end by a signal. */
#include "common/bridge_wait.h"

#include <chrono>
#include <csignal>
#include <ctime>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <vector>

static bool clock_is_real;
static std::vector<timespec> asked;

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes the names
extern "C" {
int __real_nanosleep(const timespec *span, timespec *left);

int __wrap_nanosleep(const timespec *span, timespec *left)
{
    asked.push_back(*span);
    return clock_is_real ? __real_nanosleep(span, left) : 0;
}
}
// NOLINTEND(bugprone-reserved-identifier)

TEST(BridgeWait, EachUnitIsAskedAsOneSpan)
{
    static constexpr struct {
        void (*wait)(uint32_t);
        uint32_t count;
        time_t seconds;
        long nanoseconds;
    } cases[] = {
        {bridge_wait_s, 0, 0, 0},
        {bridge_wait_s, 10, 10, 0},
        {bridge_wait_s, 86'400, 86'400, 0},
        {bridge_wait_ms, 200, 0, 200'000'000},
        {bridge_wait_ms, 999, 0, 999'000'000},
        {bridge_wait_ms, 61'234, 61, 234'000'000},
        {bridge_wait_ms, UINT32_MAX, 4'294'967, 295'000'000},
        {bridge_wait_us, 50, 0, 50'000},
        {bridge_wait_us, 999'999, 0, 999'999'000},
        {bridge_wait_us, 2'500'000, 2, 500'000'000},
    };
    clock_is_real = false;
    for (const auto &row : cases) {
        asked.clear();
        row.wait(row.count);
        ASSERT_EQ(asked.size(), 1U);
        EXPECT_EQ(asked[0].tv_sec, row.seconds) << row.count;
        EXPECT_EQ(asked[0].tv_nsec, row.nanoseconds) << row.count;
    }
}

TEST(BridgeWait, TimePasses)
{
    clock_is_real = true;
    const auto start = std::chrono::steady_clock::now();
    bridge_wait_ms(5);
    bridge_wait_us(5000);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(10));
}

TEST(BridgeWait, HandledSignalEndsTheWait)
{
    clock_is_real = true;
    signal(SIGALRM, [](int) {});
    /* It repeats, so that one before the wait begins does no harm. */
    const itimerval every_ten_ms = {.it_interval = {0, 10'000}, .it_value = {0, 10'000}};
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(setitimer(ITIMER_REAL, &every_ten_ms, nullptr), 0);
    bridge_wait_s(3600);
    const itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::minutes(1));
    signal(SIGALRM, SIG_DFL);
}
