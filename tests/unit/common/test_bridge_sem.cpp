/* A semaphore as a lock, with signals in between. */
#include "common/bridge_sem.h"

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <pthread.h>
#include <thread>

static sem_t lock;
static std::atomic<int> signals;
static std::atomic<bool> taken;

static void count_signal(int)
{
    signals++;
}

TEST(BridgeSem, SignalDoesNotTakeTheLock)
{
    struct sigaction action = {};
    action.sa_handler = count_signal;
    sigaction(SIGUSR2, &action, nullptr);
    sem_init(&lock, 0, 0);
    std::thread waiter([] {
        bridge_sem_wait(&lock);
        taken = true;
    });
    for (int sent = 1; sent <= 20; sent++) {
        pthread_kill(waiter.native_handle(), SIGUSR2);
        while (signals < sent)
            std::this_thread::yield();
        EXPECT_FALSE(taken);
    }
    sem_post(&lock);
    waiter.join();
    int value = -1;
    sem_getvalue(&lock, &value);
    EXPECT_EQ(value, 0);
}
