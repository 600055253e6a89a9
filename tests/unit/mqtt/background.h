/* Threads of a test, and waits for what they reach: each has a deadline, none lasts longer than it must. */
#ifndef BACKGROUND_H
#define BACKGROUND_H

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <sys/types.h>
#include <thread>

/* True as soon as `reached` is; false when it is not within thirty seconds. */
bool wait_until(const std::function<bool()> &reached);

/* Opened once; whoever waits goes on, and does so after thirty seconds at the latest. */
class gate
{
  public:
    void open();
    bool wait();
    bool is_waited_for() const;

  private:
    std::mutex lock_;
    std::condition_variable opened_;
    bool open_ = false;
    std::atomic<bool> waited_for_ = false;
};

/* A thread of the test's, joined at the end. */
class background
{
  public:
    explicit background(std::function<void()> work);
    ~background();
    background(const background &) = delete;
    background &operator=(const background &) = delete;

    bool has_ended() const;

    /* False when the thread goes on for thirty seconds more. */
    bool ends();

    /* Waits until the thread sleeps in the kernel; false when it ends instead. */
    bool blocks();

  private:
    std::atomic<bool> ended_ = false;
    std::atomic<pid_t> tid_ = 0;
    std::thread thread_;
};

#endif
