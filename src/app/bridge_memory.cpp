/* Settings of the C library's allocator, and when they do not do. */
#include "app/bridge_memory.h"

#include <array>
#include <malloc.h>

struct setting {
    int name;
    int value;
};

/* One heap. By default each thread gets one of its own, up to eight a processor, and what is free in one is
 * of no use to the other threads: a flood of messages leaves as much in each of 16 workers'. Small pieces
 * come from caches of the threads, without its lock. Both thresholds would grow with the largest piece ever
 * freed, up to 32 and 64 MiB, were they not set: after one large message those of its size would lie in the
 * heap and keep its end from the system. From 64 KiB on, which only messages of servers reach, a piece is
 * mapped, and gone when it is freed. 128 KiB, the default, may be free at the end: less, and small messages
 * cost calls into the system. */
static constexpr std::array settings = {
    setting{M_ARENA_MAX, 1},
    setting{M_MMAP_THRESHOLD, 64 * 1024},
    setting{M_TRIM_THRESHOLD, 128 * 1024},
};

void bridge_memory_keep_small()
{
    for (const setting &each : settings)
        mallopt(each.name, each.value);
}

/* Free pages between pieces in use would stay resident. */
void bridge_memory_give_back()
{
    malloc_trim(0);
}
