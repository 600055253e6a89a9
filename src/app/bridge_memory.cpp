/* Settings of the C library's allocator, and when they do not do. */
#include "app/bridge_memory.h"

#include <malloc.h>

/* Two heaps. By default each thread gets one of its own, up to eight a processor, and what is free in one is
 * of no use to the other threads: a flood of messages leaves as much in each of 16 workers'. Two let the
 * thread of uplinks and the MQTT library's allocate side by side; with one, uplinks take some percent more
 * CPU, and no less memory. */
static constexpr int HEAPS = 2;

/* From here on a piece is mapped, and gone when it is freed; only messages of servers are so large. Unset,
 * this and the other threshold grow with the largest piece that was ever freed, up to 32 and 64 MiB: after
 * one large message those of its size would lie in a heap, and keep its end from the system. */
static constexpr int MAPPED_FROM = 64 * 1024;

/* So much may be free at the end of a heap: the default, and enough for small messages not to ask the system.
 */
static constexpr int FREE_AT_END = 128 * 1024;

void bridge_memory_keep_small()
{
    mallopt(M_ARENA_MAX, HEAPS);
    mallopt(M_MMAP_THRESHOLD, MAPPED_FROM);
    mallopt(M_TRIM_THRESHOLD, FREE_AT_END);
}

/* Free pages between pieces in use would stay resident. */
void bridge_memory_give_back()
{
    malloc_trim(0);
}
