/* The C library's own allocator, as the daemon wants it. */
#include "app/bridge_memory.h"

#include <algorithm>
#include <barrier>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <malloc.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using piece = std::unique_ptr<char[]>;

static constexpr size_t KIB = 1024;

static piece take(size_t size)
{
    piece taken(new char[size]);
    std::fill_n(taken.get(), size, 'x');
    return taken;
}

static size_t count_heaps()
{
    char *text = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    malloc_info(0, stream);
    fclose(stream);
    const std::string info(text, size);
    free(text);
    size_t count = 0;
    for (size_t at = 0; (at = info.find("<heap nr=", at)) != std::string::npos; ++at)
        ++count;
    return count;
}

static size_t pages_in_use_kib()
{
    std::ifstream file("/proc/self/smaps_rollup");
    std::string word;
    size_t kib = 0;
    while (file >> word && word != "Anonymous:")
        continue;
    file >> kib;
    return kib;
}

TEST(BridgeMemory, ThreadsShareTwoHeaps)
{
    static constexpr int COUNT = 8;
    bridge_memory_keep_small();
    std::barrier all_have(COUNT + 1);
    std::barrier counted(COUNT + 1);
    std::vector<std::thread> threads;
    for (int i = 0; i < COUNT; ++i)
        threads.emplace_back([&] {
            const piece held = take(2 * KIB);
            all_have.arrive_and_wait();
            counted.arrive_and_wait();
        });
    all_have.arrive_and_wait();
    EXPECT_EQ(count_heaps(), 2U);
    counted.arrive_and_wait();
    for (std::thread &each : threads)
        each.join();
}

TEST(BridgeMemory, AfterALargePieceOthersAreStillMapped)
{
    bridge_memory_keep_small();
    take(4096 * KIB);
    bridge_memory_give_back(); /* the free end of the heap would do */
    const size_t before = mallinfo2().hblks;
    const piece held = take(64 * KIB);
    EXPECT_EQ(mallinfo2().hblks, before + 1);
}

TEST(BridgeMemory, PagesBetweenPiecesInUseAreGivenBack)
{
    static constexpr size_t COUNT = 512;
    static constexpr size_t SIZE_KIB = 32;
    bridge_memory_keep_small();
    std::vector<piece> pieces;
    for (size_t i = 0; i < COUNT; ++i)
        pieces.push_back(take(SIZE_KIB * KIB));
    for (size_t i = 0; i + 1 < COUNT; ++i) {
        if (i % 8 != 0)
            pieces[i].reset();
    }
    const size_t before = pages_in_use_kib();
    bridge_memory_give_back();
    EXPECT_LT(pages_in_use_kib() + COUNT * SIZE_KIB / 2, before);
}
