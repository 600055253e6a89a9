/* A timer of the monotonic clock that runs a function on a thread of its own. Not shared between threads. */
#ifndef BRIDGE_SERVICE_TIMER_H
#define BRIDGE_SERVICE_TIMER_H

#include <csignal>
#include <cstdint>
#include <ctime>

class bridge_service_timer
{
  public:
    bridge_service_timer() = default;
    ~bridge_service_timer();
    bridge_service_timer(const bridge_service_timer &) = delete;
    bridge_service_timer &operator=(const bridge_service_timer &) = delete;

    /* `param` must outlive the process's last notification: a late one may come after the timer has gone.
     * Returns 0, or -1 with errno set. */
    int create(void (*handler)(sigval param), void *param);

    /* Once, or again and again. Nothing to wait for means at once. Returns 0, or -1 with errno set. */
    int start(uint64_t milliseconds, bool repeats);
    int stop();

  private:
    timer_t timer_ = {};
    bool is_made_ = false;
};

#endif
