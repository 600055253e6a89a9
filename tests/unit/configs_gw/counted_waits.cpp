#include "configs_gw/counted_waits.h"

#include "common/bridge_wait.h"

counted_waits waits;

static void note(uint32_t length, const char *unit)
{
    waits.taken.push_back(std::to_string(length) + unit);
    if (waits.within)
        waits.within();
}

void bridge_wait_s(uint32_t seconds)
{
    note(seconds, " s");
}

void bridge_wait_ms(uint32_t milliseconds)
{
    note(milliseconds, " ms");
}

void bridge_wait_us(uint32_t microseconds)
{
    note(microseconds, " us");
}
