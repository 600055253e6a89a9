/* Workers share one queue; a binary semaphore wakes one of them, and each pull wakes the next. */
#include "thread_pool/thpool.h"

#include "common/bridge_wait.h"

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>
#include <new>
#include <pthread.h>
#include <sys/prctl.h>
#include <thread>

/* Binary semaphore. */
struct bsem {
    std::mutex mutex;
    std::condition_variable cond;
    int32_t v;
};

struct job {
    job *prev; /* the next newer job */
    void (*function)(void *);
    void *arg;
};

struct jobqueue {
    std::mutex rwmutex; /* guards the members below */
    job *front;
    job *rear;
    std::unique_ptr<bsem> has_jobs;
    int32_t len;
};

struct thread {
    int32_t id;
    pthread_t pthread;
    thpool *thpool_p;
};

struct thpool {
    std::unique_ptr<std::unique_ptr<thread>[]> threads;
    int32_t num_threads_alive;
    int32_t num_threads_working;
    std::atomic<int32_t> threads_keepalive;
    std::mutex thcount_lock; /* guards the two counters */
    std::condition_variable threads_all_idle;
    jobqueue queue;
};

/* One for all pools: a signal handler has no pool at hand. */
static std::atomic<int32_t> threads_on_hold = 0;
static_assert(std::atomic<int32_t>::is_always_lock_free, "the signal handler uses it");

static void bsem_init(bsem *sem, int32_t value)
{
    if (value < 0 || value > 1) {
        fputs("bsem_init(): Binary semaphore can take only values 1 or 0", stderr);
        exit(1);
    }
    sem->v = value;
}

static void bsem_post(bsem *sem)
{
    const std::lock_guard guard(sem->mutex);
    sem->v = 1;
    sem->cond.notify_one();
}

static void bsem_post_all(bsem *sem)
{
    const std::lock_guard guard(sem->mutex);
    sem->v = 1;
    sem->cond.notify_all();
}

static void bsem_wait(bsem *sem)
{
    std::unique_lock guard(sem->mutex);
    sem->cond.wait(guard, [sem] { return sem->v == 1; });
    sem->v = 0;
}

static bool jobqueue_init(jobqueue *queue)
{
    queue->has_jobs.reset(new (std::nothrow) bsem{});
    if (queue->has_jobs == nullptr)
        return false;
    bsem_init(queue->has_jobs.get(), 0);
    return true;
}

static void jobqueue_push(jobqueue *queue, job *newjob)
{
    const std::lock_guard guard(queue->rwmutex);
    newjob->prev = nullptr;
    if (queue->len == 0)
        queue->front = newjob;
    else
        queue->rear->prev = newjob;
    queue->rear = newjob;
    ++queue->len;
    bsem_post(queue->has_jobs.get());
}

/* Returns the oldest job, which the caller frees, or null. */
static std::unique_ptr<job> jobqueue_pull(jobqueue *queue)
{
    const std::lock_guard guard(queue->rwmutex);
    if (queue->len == 0)
        return nullptr;
    std::unique_ptr<job> oldest(queue->front);
    queue->front = oldest->prev;
    --queue->len;
    if (queue->len == 0)
        queue->rear = nullptr;
    else
        bsem_post(queue->has_jobs.get());
    return oldest;
}

static int32_t jobqueue_len(jobqueue *queue)
{
    const std::lock_guard guard(queue->rwmutex);
    return queue->len;
}

/* The handler of SIGUSR1: the job that it interrupts stands still in here. */
static void thread_hold(int)
{
    const int caller_errno = errno;
    threads_on_hold = 1;
    while (threads_on_hold == 1)
        bridge_wait_s(1);
    errno = caller_errno;
}

static void count_alive(thpool *pool, int32_t change)
{
    const std::lock_guard guard(pool->thcount_lock);
    pool->num_threads_alive += change;
}

/* Under the lock: a thread that has counted itself out is then done with the pool's memory. */
static int32_t threads_alive(thpool *pool)
{
    const std::lock_guard guard(pool->thcount_lock);
    return pool->num_threads_alive;
}

static void thread_run_job(thpool *pool)
{
    {
        const std::lock_guard guard(pool->thcount_lock);
        ++pool->num_threads_working;
    }
    if (const std::unique_ptr<job> next = jobqueue_pull(&pool->queue))
        next->function(next->arg);

    const std::lock_guard guard(pool->thcount_lock);
    --pool->num_threads_working;
    if (pool->num_threads_working == 0)
        pool->threads_all_idle.notify_all();
}

static void *thread_do(void *argument)
{
    const thread *self = static_cast<thread *>(argument);
    thpool *pool = self->thpool_p;

    char name[32];
    snprintf(name, sizeof(name), "thread-pool-%d", self->id);
    prctl(PR_SET_NAME, name);

    struct sigaction hold = {};
    hold.sa_handler = thread_hold;
    sigemptyset(&hold.sa_mask);
    if (sigaction(SIGUSR1, &hold, nullptr) < 0)
        fputs("thread_do(): cannot handle SIGUSR1", stderr);

    count_alive(pool, 1);
    while (pool->threads_keepalive != 0) {
        bsem_wait(pool->queue.has_jobs.get());
        if (pool->threads_keepalive != 0)
            thread_run_job(pool);
    }
    /* A post lets only one through, and on a busy machine that one may take long: who leaves wakes the next.
     */
    bsem_post(pool->queue.has_jobs.get());
    count_alive(pool, -1);
    return nullptr;
}

static bool thread_init(thpool *pool, int32_t id)
{
    std::unique_ptr<thread> &record = pool->threads[static_cast<size_t>(id)];
    record.reset(new (std::nothrow) thread{.id = id, .pthread = {}, .thpool_p = pool});
    if (record == nullptr) {
        fputs("thread_init(): Could not allocate memory for thread\n", stderr);
        return false;
    }
    if (pthread_create(&record->pthread, nullptr, thread_do, record.get()) != 0) {
        fputs("thread_init(): Could not create thread\n", stderr);
        return false;
    }
    pthread_detach(record->pthread);
    return true;
}

thpool *thpool_init(int num_threads)
{
    threads_on_hold = 0;
    const int32_t wanted = num_threads < 0 ? 0 : num_threads;

    std::unique_ptr<thpool> pool(new (std::nothrow) thpool{});
    if (pool == nullptr) {
        fputs("thpool_init(): Could not allocate memory for thread pool\n", stderr);
        return nullptr;
    }
    pool->threads_keepalive = 1;
    if (!jobqueue_init(&pool->queue)) {
        fputs("thpool_init(): Could not allocate memory for job queue\n", stderr);
        return nullptr;
    }
    pool->threads.reset(new (std::nothrow) std::unique_ptr<thread>[static_cast<size_t>(wanted)]);
    if (pool->threads == nullptr) {
        fputs("thpool_init(): Could not allocate memory for threads\n", stderr);
        return nullptr;
    }

    int32_t made = 0;
    while (made < wanted && thread_init(pool.get(), made))
        ++made;
    while (threads_alive(pool.get()) != made)
        std::this_thread::yield();
    if (made < wanted) {
        /* A pool that lacks a thread is refused: waiting for that thread would never end. */
        thpool_destroy(pool.release());
        return nullptr;
    }
    return pool.release();
}

int thpool_add_work(thpool *pool, void (*function)(void *), void *arg)
{
    job *newjob = new (std::nothrow) job{.prev = nullptr, .function = function, .arg = arg};
    if (newjob == nullptr) {
        fputs("thpool_add_work(): Could not allocate memory for new job\n", stderr);
        return -1;
    }
    jobqueue_push(&pool->queue, newjob);
    return 0;
}

void thpool_wait(thpool *pool)
{
    std::unique_lock guard(pool->thcount_lock);
    pool->threads_all_idle.wait(
        guard, [pool] { return jobqueue_len(&pool->queue) == 0 && pool->num_threads_working == 0; });
}

void thpool_destroy(thpool *pool)
{
    if (pool == nullptr)
        return;
    const std::unique_ptr<thpool> owned(pool);
    bsem *has_jobs = pool->queue.has_jobs.get();

    pool->threads_keepalive = 0;
    const time_t start = time(nullptr);
    while (difftime(time(nullptr), start) < 1.0 && threads_alive(pool) != 0)
        bsem_post_all(has_jobs);
    while (threads_alive(pool) != 0) {
        bsem_post_all(has_jobs);
        bridge_wait_s(1);
    }
    while (jobqueue_pull(&pool->queue) != nullptr)
        ;
}

void thpool_pause(thpool *pool)
{
    const int32_t count = threads_alive(pool);
    for (int32_t i = 0; i < count; ++i)
        pthread_kill(pool->threads[static_cast<size_t>(i)]->pthread, SIGUSR1);
}

void thpool_resume(thpool *)
{
    threads_on_hold = 0;
}

int thpool_num_threads_working(thpool *pool)
{
    const std::lock_guard guard(pool->thcount_lock);
    return pool->num_threads_working;
}
