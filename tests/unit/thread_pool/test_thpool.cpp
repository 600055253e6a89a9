/* Jobs on real threads. The clock, the waits and the failures are the test's own. */
#include "thread_pool/thpool.h"

#include "common/bridge_wait.h"
#include "common/captured_stderr.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <new>
#include <pthread.h>
#include <set>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

static constexpr auto DEADLINE = std::chrono::seconds(30);

static bool wait_until(const std::function<bool()> &condition)
{
    const auto end = std::chrono::steady_clock::now() + DEADLINE;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/* Holds jobs until it is opened. */
class gate
{
  public:
    void pass()
    {
        std::unique_lock guard(mutex_);
        ++arrived_;
        changed_.notify_all();
        changed_.wait_for(guard, DEADLINE, [this] { return open_; });
    }
    bool wait_for_arrivals(int count)
    {
        std::unique_lock guard(mutex_);
        return changed_.wait_for(guard, DEADLINE, [this, count] { return arrived_ >= count; });
    }
    void open()
    {
        const std::lock_guard guard(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    bool is_open()
    {
        const std::lock_guard guard(mutex_);
        return open_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int arrived_ = 0;
    bool open_ = false;
};

static void pass_gate(void *argument)
{
    static_cast<gate *>(argument)->pass();
}

static void count_up(void *argument)
{
    ++*static_cast<std::atomic<int> *>(argument);
}

/* The clock: 0 looks per second asks the real one. */
static std::atomic<int> looks_per_second = 0;
static std::atomic<int> clock_looks = 0;

/* The waits: in the handler of SIGUSR1 only the atomics are touched. */
static constexpr int THREADS_WATCHED = 4;

static struct {
    std::atomic<int> seconds_asked;
    std::atomic<int> rounds;
    std::atomic<int> clock_looks_before; /* the first round */
    std::atomic<gate *> opened_by_third_round;
    std::atomic<bool> first_lasts; /* until no thread of a pool is left */
    std::array<std::atomic<pid_t>, THREADS_WATCHED> held;
    std::array<std::atomic<int>, THREADS_WATCHED> held_rounds;
} waits;

static void reset_waits()
{
    waits.seconds_asked = 0;
    waits.rounds = 0;
    waits.clock_looks_before = 0;
    waits.opened_by_third_round = nullptr;
    waits.first_lasts = false;
    for (size_t i = 0; i < THREADS_WATCHED; ++i) {
        waits.held[i] = 0;
        waits.held_rounds[i] = 0;
    }
}

static void count_held_thread()
{
    const pid_t tid = gettid();
    for (size_t i = 0; i < THREADS_WATCHED; ++i) {
        pid_t owner = 0;
        if (waits.held[i].compare_exchange_strong(owner, tid) || owner == tid) {
            ++waits.held_rounds[i];
            return;
        }
    }
}

/* By name: a sanitizer has threads of its own. */
static int pool_threads_of_process()
{
    int count = 0;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        count += name.starts_with("thread-pool-") ? 1 : 0;
    }
    return count;
}

static bool all_pool_threads_end()
{
    return wait_until([] { return pool_threads_of_process() == 0; });
}

void bridge_wait_s(uint32_t seconds)
{
    waits.seconds_asked += static_cast<int>(seconds);
    if (++waits.rounds == 1)
        waits.clock_looks_before = clock_looks.load();
    count_held_thread();
    gate *held_job = waits.opened_by_third_round;
    if (held_job != nullptr && waits.rounds == 3)
        held_job->open();
    if (waits.first_lasts && waits.rounds == 1)
        all_pool_threads_end();
    const timespec moment = {.tv_sec = 0, .tv_nsec = 100'000};
    nanosleep(&moment, nullptr);
    errno = EINTR; /* as a wait that a signal ends leaves it */
}

/* True once at least `count` threads have each gone through `more` further rounds of being held. */
static bool held_for_rounds(int count, int more)
{
    std::array<int, THREADS_WATCHED> start = {};
    std::copy(waits.held_rounds.begin(), waits.held_rounds.end(), start.begin());
    return wait_until([&] {
        int held = 0;
        for (size_t i = 0; i < THREADS_WATCHED; ++i)
            held += waits.held_rounds[i] >= start[i] + more ? 1 : 0;
        return held >= count;
    });
}

/* -1: all succeed; otherwise the number of calls that still do, before one fails. */
static std::atomic<int> allocations_left = -1;
static std::atomic<int> creations_left = -1;
static std::atomic<bool> sigaction_fails = false;

static bool used_up(std::atomic<int> *left)
{
    return *left >= 0 && (*left)-- == 0;
}

void *operator new(size_t size, const std::nothrow_t &) noexcept
{
    return used_up(&allocations_left) ? nullptr : ::operator new(size);
}

void *operator new[](size_t size, const std::nothrow_t &) noexcept
{
    return used_up(&allocations_left) ? nullptr : ::operator new[](size);
}

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes the names
extern "C" {
time_t __real_time(time_t *now);
int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*start)(void *),
                          void *argument);
int __real_sigaction(int number, const struct sigaction *action, struct sigaction *old);

time_t __wrap_time(time_t *now)
{
    if (looks_per_second == 0)
        return __real_time(now);
    return 1'700'000'000 + clock_looks++ / looks_per_second;
}

int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*start)(void *),
                          void *argument)
{
    return used_up(&creations_left) ? EAGAIN : __real_pthread_create(thread, attributes, start, argument);
}

int __wrap_sigaction(int number, const struct sigaction *action, struct sigaction *old)
{
    return sigaction_fails ? -1 : __real_sigaction(number, action, old);
}
}
// NOLINTEND(bugprone-reserved-identifier)

class Thpool : public testing::Test
{
  protected:
    void SetUp() override
    {
        reset_waits();
        allocations_left = -1;
        creations_left = -1;
        sigaction_fails = false;
        looks_per_second = 0;
        clock_looks = 0;
    }
};

using ThpoolDeath = Thpool;

TEST_F(Thpool, OneThreadRunsJobsInTheOrderOfTheirArrival)
{
    static constexpr int JOBS = 1000;
    static std::vector<int> order;
    order.clear();
    std::vector<int> numbers(JOBS);
    thpool *pool = thpool_init(1);
    ASSERT_NE(pool, nullptr);
    for (int i = 0; i < JOBS; ++i) {
        numbers[static_cast<size_t>(i)] = i;
        ASSERT_EQ(thpool_add_work(
                      pool, [](void *number) { order.push_back(*static_cast<int *>(number)); },
                      &numbers[static_cast<size_t>(i)]),
                  0);
    }
    thpool_wait(pool);
    EXPECT_EQ(order, numbers);
    thpool_destroy(pool);
}

TEST_F(Thpool, EveryThreadTakesAJobAtTheSameTimeUnderItsOwnName)
{
    static constexpr int THREADS = 16;
    struct meeting {
        gate door;
        std::mutex mutex;
        std::set<std::string> names;
    } all;
    thpool *pool = thpool_init(THREADS);
    ASSERT_NE(pool, nullptr);
    EXPECT_EQ(thpool_num_threads_working(pool), 0);
    std::set<std::string> wanted;
    for (int i = 0; i < THREADS; ++i) {
        wanted.insert("thread-pool-" + std::to_string(i));
        thpool_add_work(
            pool,
            [](void *argument) {
                auto *meet = static_cast<meeting *>(argument);
                char name[16] = {};
                prctl(PR_GET_NAME, name);
                {
                    const std::lock_guard guard(meet->mutex);
                    meet->names.insert(name);
                }
                meet->door.pass();
            },
            &all);
    }
    EXPECT_TRUE(all.door.wait_for_arrivals(THREADS));
    EXPECT_EQ(thpool_num_threads_working(pool), THREADS);
    EXPECT_EQ(all.names, wanted);
    all.door.open();
    thpool_wait(pool);
    EXPECT_EQ(thpool_num_threads_working(pool), 0);
    thpool_destroy(pool);
}

TEST_F(Thpool, JobsAreTakenFromManyThreads)
{
    static constexpr int SENDERS = 4;
    static constexpr int JOBS = 500;
    std::atomic<int> ran = 0;
    thpool *pool = thpool_init(3);
    std::vector<std::thread> senders;
    senders.reserve(SENDERS);
    for (int i = 0; i < SENDERS; ++i)
        senders.emplace_back([&] {
            for (int sent = 0; sent < JOBS; ++sent)
                thpool_add_work(pool, count_up, &ran);
        });
    for (std::thread &sender : senders)
        sender.join();
    thpool_wait(pool);
    EXPECT_EQ(ran, SENDERS * JOBS);
    thpool_destroy(pool);
}

TEST_F(Thpool, WaitOnAnIdlePoolReturnsAtOnce)
{
    for (const int threads : {0, 1, 4}) {
        thpool *pool = thpool_init(threads);
        thpool_wait(pool);
        thpool_wait(pool);
        thpool_destroy(pool);
    }
}

TEST_F(Thpool, WaitLastsUntilTheRunningJobHasEndedForEveryWaiter)
{
    struct held_job {
        gate door;
        std::atomic<bool> ended = false;
    } held;
    thpool *pool = thpool_init(2);
    thpool_add_work(
        pool,
        [](void *argument) {
            auto *job = static_cast<held_job *>(argument);
            job->door.pass();
            job->ended = true;
        },
        &held);
    ASSERT_TRUE(held.door.wait_for_arrivals(1));

    std::atomic<int> waiting = 0;
    std::atomic<int> returned_too_early = 0;
    std::vector<std::thread> waiters;
    waiters.reserve(3);
    for (int i = 0; i < 3; ++i)
        waiters.emplace_back([&] {
            ++waiting;
            thpool_wait(pool);
            if (!held.ended)
                ++returned_too_early;
        });
    EXPECT_TRUE(wait_until([&] { return waiting == 3; }));
    held.door.open();
    for (std::thread &waiter : waiters)
        waiter.join();
    EXPECT_EQ(returned_too_early, 0);
    thpool_destroy(pool);
}

TEST_F(Thpool, DestroyDropsQueuedJobsAndWaitsForTheRunningOne)
{
    gate door;
    std::atomic<int> ran = 0;
    thpool *pool = thpool_init(1);
    thpool_add_work(pool, pass_gate, &door);
    ASSERT_TRUE(door.wait_for_arrivals(1));
    for (int i = 0; i < 10; ++i)
        thpool_add_work(pool, count_up, &ran);

    waits.opened_by_third_round = &door;
    looks_per_second = 1;
    thpool_destroy(pool);
    EXPECT_TRUE(door.is_open());
    EXPECT_EQ(ran, 0);
    EXPECT_GE(waits.rounds, 3);
    EXPECT_EQ(waits.seconds_asked, waits.rounds) << "each round is one second";
}

TEST_F(Thpool, DestroyPollsWithoutAWaitInTheFirstSecond)
{
    gate door;
    thpool *pool = thpool_init(1);
    thpool_add_work(pool, pass_gate, &door);
    ASSERT_TRUE(door.wait_for_arrivals(1));
    waits.opened_by_third_round = &door;
    looks_per_second = 1000;
    thpool_destroy(pool);
    EXPECT_EQ(waits.clock_looks_before, 1001) << "the look that finds the second over comes last";
    EXPECT_EQ(clock_looks, 1001);
}

TEST_F(Thpool, IdleThreadsAreEndedWithoutAWait)
{
    looks_per_second = INT_MAX; /* the clock stands still */
    for (int i = 0; i < 20; ++i) {
        thpool *pool = thpool_init(8);
        EXPECT_GE(pool_threads_of_process(), 8);
        thpool_destroy(pool);
    }
    EXPECT_TRUE(all_pool_threads_end());
    EXPECT_EQ(waits.rounds, 0);
}

TEST_F(Thpool, IdleThreadsEndOneByOneWithoutAnotherRound)
{
    thpool *pool = thpool_init(16);
    looks_per_second = 1; /* the first second is over at once */
    waits.first_lasts = true;
    thpool_destroy(pool);
    EXPECT_LE(waits.rounds, 1);
    EXPECT_EQ(pool_threads_of_process(), 0);
}

TEST_F(Thpool, DestroyTakesNull)
{
    thpool_destroy(nullptr);
}

TEST_F(Thpool, PoolWithoutThreadsQueuesAndNeverRuns)
{
    for (const int threads : {0, -1, -16}) {
        std::atomic<int> ran = 0;
        thpool *pool = thpool_init(threads);
        ASSERT_NE(pool, nullptr) << threads;
        EXPECT_EQ(pool_threads_of_process(), 0);
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(thpool_add_work(pool, count_up, &ran), 0);
        EXPECT_EQ(thpool_num_threads_working(pool), 0);
        thpool_destroy(pool);
        EXPECT_EQ(ran, 0);
        EXPECT_EQ(waits.rounds, 0);
    }
}

TEST_F(Thpool, PausedThreadsStandStillUntilTheyAreResumed)
{
    struct worker {
        std::atomic<uint64_t> count = 0;
        std::atomic<bool> stop = false;
    } running;
    thpool *pool = thpool_init(2);
    thpool_add_work(
        pool,
        [](void *argument) {
            auto *self = static_cast<worker *>(argument);
            while (!self->stop) {
                ++self->count;
                std::this_thread::yield();
            }
        },
        &running);
    ASSERT_TRUE(wait_until([&] { return running.count > 0; }));

    thpool_pause(pool);
    ASSERT_TRUE(held_for_rounds(2, 2)) << "the working thread and the idle one";
    const uint64_t count = running.count;
    std::atomic<int> ran = 0;
    thpool_add_work(pool, count_up, &ran);
    ASSERT_TRUE(held_for_rounds(2, 20));
    EXPECT_EQ(running.count, count);
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(waits.seconds_asked, waits.rounds) << "each round is one second";

    thpool_resume(pool);
    EXPECT_TRUE(wait_until([&] { return running.count > count && ran == 1; }));
    running.stop = true;
    thpool_wait(pool);
    thpool_destroy(pool);
}

TEST_F(Thpool, ResumingOnePoolOrMakingAnotherResumesAll)
{
    for (const bool resume : {true, false}) {
        reset_waits();
        std::atomic<int> ran = 0;
        thpool *paused = thpool_init(1);
        thpool *other = thpool_init(1);
        thpool_pause(paused);
        ASSERT_TRUE(held_for_rounds(1, 2));
        thpool_add_work(paused, count_up, &ran);
        ASSERT_TRUE(held_for_rounds(1, 10));
        EXPECT_EQ(ran, 0);
        if (resume)
            thpool_resume(other);
        else
            thpool_destroy(thpool_init(0));
        EXPECT_TRUE(wait_until([&] { return ran == 1; }));
        thpool_resume(paused);
        thpool_destroy(other);
        thpool_destroy(paused);
    }
}

TEST_F(Thpool, PauseKeepsTheErrnoOfTheJob)
{
    struct errno_job {
        std::atomic<bool> started = false;
        std::atomic<bool> stop = false;
        std::atomic<int> seen = 0;
    } watched;
    thpool *pool = thpool_init(1);
    thpool_add_work(
        pool,
        [](void *argument) {
            auto *self = static_cast<errno_job *>(argument);
            errno = EPROTO;
            self->started = true;
            while (!self->stop)
                ;
            self->seen = errno;
        },
        &watched);
    ASSERT_TRUE(wait_until([&] { return watched.started.load(); }));
    thpool_pause(pool);
    ASSERT_TRUE(held_for_rounds(1, 2));
    thpool_resume(pool);
    watched.stop = true;
    thpool_wait(pool);
    EXPECT_EQ(watched.seen, EPROTO);
    thpool_destroy(pool);
}

TEST_F(Thpool, WantOfMemoryOrThreadsGivesNoPoolAndLeavesNothing)
{
    static constexpr struct {
        int allocations; /* that succeed */
        int creations;
        const char *text;
    } cases[] = {
        {0, -1, "thpool_init(): Could not allocate memory for thread pool\n"},
        {1, -1, "thpool_init(): Could not allocate memory for job queue\n"},
        {2, -1, "thpool_init(): Could not allocate memory for threads\n"},
        {3, -1, "thread_init(): Could not allocate memory for thread\n"},
        {5, -1, "thread_init(): Could not allocate memory for thread\n"},
        {-1, 0, "thread_init(): Could not create thread\n"},
        {-1, 3, "thread_init(): Could not create thread\n"},
    };
    for (const auto &row : cases) {
        allocations_left = row.allocations;
        creations_left = row.creations;
        captured_stderr capture;
        EXPECT_EQ(thpool_init(4), nullptr);
        EXPECT_EQ(capture.text(), row.text);
        EXPECT_TRUE(all_pool_threads_end()) << row.text;
    }
}

TEST_F(Thpool, JobWithoutMemoryIsRefusedAndThePoolWorksOn)
{
    std::atomic<int> ran = 0;
    thpool *pool = thpool_init(1);
    allocations_left = 0;
    captured_stderr capture;
    EXPECT_EQ(thpool_add_work(pool, count_up, &ran), -1);
    EXPECT_EQ(capture.text(), "thpool_add_work(): Could not allocate memory for new job\n");
    EXPECT_EQ(thpool_add_work(pool, count_up, &ran), 0);
    thpool_wait(pool);
    EXPECT_EQ(ran, 1);
    thpool_destroy(pool);
}

TEST_F(Thpool, ThreadThatCannotHandleTheSignalWorksOn)
{
    std::atomic<int> ran = 0;
    sigaction_fails = true;
    captured_stderr capture;
    thpool *pool = thpool_init(1);
    sigaction_fails = false;
    EXPECT_EQ(capture.text(), "thread_do(): cannot handle SIGUSR1");
    thpool_add_work(pool, count_up, &ran);
    thpool_wait(pool);
    EXPECT_EQ(ran, 1);
    thpool_destroy(pool);
}

/* Reachable from a child and at exit, where other threads' stacks are not. */
static thpool *lasting_pool;
static std::atomic<int> lasting_jobs;

/* Registered before the destructors that run first. The leak check of a sanitizer build comes later still,
 * and would take for lost what the threads that the child lacks had on their stacks. */
static bool in_child;
[[maybe_unused]] static const int last_at_exit = std::atexit([] {
    if (in_child)
        _exit(7);
});

TEST_F(Thpool, ChildForkedByAJobLeavesByExit)
{
    std::atomic<int> status = -1;
    lasting_pool = thpool_init(2);
    thpool_add_work(
        lasting_pool,
        [](void *argument) {
            const pid_t child = fork();
            if (child == 0) {
                in_child = true;
                exit(8);
            }
            int result = 0;
            waitpid(child, &result, 0);
            *static_cast<std::atomic<int> *>(argument) = result;
        },
        &status);
    thpool_wait(lasting_pool);
    EXPECT_TRUE(WIFEXITED(status.load()));
    EXPECT_EQ(WEXITSTATUS(status.load()), 7);
    thpool_destroy(lasting_pool);
}

TEST_F(ThpoolDeath, ProcessExitsWhileThreadsWork)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            lasting_pool = thpool_init(4);
            const auto never_return = [](void *) {
                for (++lasting_jobs;;)
                    pause();
            };
            for (int i = 0; i < 6; ++i)
                thpool_add_work(lasting_pool, never_return, nullptr);
            wait_until([] { return lasting_jobs == 4; });
            exit(3);
        },
        testing::ExitedWithCode(3), "^$");
}
