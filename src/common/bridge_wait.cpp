/* The real clock behind the waits. */
#include "common/bridge_wait.h"

#include <ctime>

static void wait_once(time_t seconds, uint32_t nanoseconds)
{
    const timespec span = {.tv_sec = seconds, .tv_nsec = static_cast<long>(nanoseconds)};
    nanosleep(&span, nullptr);
}

void bridge_wait_s(uint32_t seconds)
{
    wait_once(static_cast<time_t>(seconds), 0);
}

void bridge_wait_ms(uint32_t milliseconds)
{
    wait_once(static_cast<time_t>(milliseconds / 1000), (milliseconds % 1000) * 1'000'000);
}

void bridge_wait_us(uint32_t microseconds)
{
    wait_once(static_cast<time_t>(microseconds / 1'000'000), (microseconds % 1'000'000) * 1000);
}
