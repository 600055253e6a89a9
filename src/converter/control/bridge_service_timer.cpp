/* POSIX timers with thread notification. */
#include "converter/control/bridge_service_timer.h"

#include "common/bridge_log.h"

#include <csignal>

static constexpr long SHORTEST_NS = 1000;

bridge_service_timer::~bridge_service_timer()
{
    if (is_made_)
        timer_delete(timer_);
}

int bridge_service_timer::create(void (*handler)(sigval param), void *param)
{
    sigevent event = {};
    event.sigev_notify = SIGEV_THREAD;
    event.sigev_value.sival_ptr = param;
    event.sigev_notify_function = handler;
    if (timer_create(CLOCK_MONOTONIC, &event, &timer_) < 0)
        return -1;
    is_made_ = true;
    return 0;
}

int bridge_service_timer::start(uint64_t milliseconds, bool repeats)
{
    itimerspec times = {};
    times.it_value.tv_sec = static_cast<time_t>(milliseconds / 1000);
    times.it_value.tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000;
    BRIDGE_INFO("Set timer to %lds, %ldns", static_cast<long>(times.it_value.tv_sec), times.it_value.tv_nsec);
    if (milliseconds == 0) {
        BRIDGE_ERROR("Timeout value equals zero, set to schedule right away");
        times.it_value.tv_nsec = SHORTEST_NS;
    }
    if (repeats)
        times.it_interval = times.it_value;
    return timer_settime(timer_, 0, &times, nullptr);
}

int bridge_service_timer::stop()
{
    const itimerspec never = {};
    return timer_settime(timer_, 0, &never, nullptr);
}
