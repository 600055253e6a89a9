/* POSIX timers of a daemon that runs under ThreadSanitizer. The C library starts the threads of its
 * notifications where the sanitizer does not see them, and the first instrumented call there ends the
 * process: here each timer has a thread that it knows, so that what the handlers share is examined, too. */
#include <csignal>
#include <ctime>
#include <pthread.h>

static constexpr long NS_PER_S = 1'000'000'000;

struct notified_timer {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t changed;
    void (*handler)(sigval value);
    sigval value;
    bool is_armed = false;
    bool is_deleted = false;
    timespec due = {};
    timespec interval = {};
};

static timespec sum(const timespec &a, const timespec &b)
{
    const long nanoseconds = a.tv_nsec + b.tv_nsec;
    return {.tv_sec = a.tv_sec + b.tv_sec + nanoseconds / NS_PER_S, .tv_nsec = nanoseconds % NS_PER_S};
}

static bool is_nothing(const timespec &time)
{
    return time.tv_sec == 0 && time.tv_nsec == 0;
}

static timespec now()
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time;
}

static bool is_due(const notified_timer &timer)
{
    const timespec time = now();
    return time.tv_sec > timer.due.tv_sec ||
           (time.tv_sec == timer.due.tv_sec && time.tv_nsec >= timer.due.tv_nsec);
}

/* The handler may set its own timer, but not delete it. */
static void notify(notified_timer *timer)
{
    if (is_nothing(timer->interval))
        timer->is_armed = false;
    else
        timer->due = sum(timer->due, timer->interval);
    pthread_mutex_unlock(&timer->mutex);
    timer->handler(timer->value);
    pthread_mutex_lock(&timer->mutex);
}

static void *run(void *argument)
{
    auto *timer = static_cast<notified_timer *>(argument);
    pthread_mutex_lock(&timer->mutex);
    while (!timer->is_deleted) {
        if (!timer->is_armed)
            pthread_cond_wait(&timer->changed, &timer->mutex);
        else if (is_due(*timer))
            notify(timer);
        else
            pthread_cond_timedwait(&timer->changed, &timer->mutex, &timer->due);
    }
    pthread_mutex_unlock(&timer->mutex);
    pthread_cond_destroy(&timer->changed);
    delete timer;
    return nullptr;
}

extern "C" int timer_create(clockid_t, sigevent *event, timer_t *made) noexcept
{
    auto *timer = new notified_timer{.changed = {}, // NOLINT(cppcoreguidelines-owning-memory): its thread's
                                     .handler = event->sigev_notify_function,
                                     .value = event->sigev_value};
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&timer->changed, &attributes);
    pthread_condattr_destroy(&attributes);
    pthread_t thread = {};
    pthread_create(&thread, nullptr, run, timer);
    pthread_detach(thread);
    *made = timer;
    return 0;
}

extern "C" int timer_settime(timer_t id, int, const itimerspec *wanted, itimerspec *) noexcept
{
    auto *timer = static_cast<notified_timer *>(id);
    pthread_mutex_lock(&timer->mutex);
    timer->is_armed = !is_nothing(wanted->it_value);
    timer->due = sum(now(), wanted->it_value);
    timer->interval = wanted->it_interval;
    pthread_cond_signal(&timer->changed);
    pthread_mutex_unlock(&timer->mutex);
    return 0;
}

extern "C" int timer_delete(timer_t id) noexcept
{
    auto *timer = static_cast<notified_timer *>(id);
    pthread_mutex_lock(&timer->mutex);
    timer->is_deleted = true;
    pthread_cond_signal(&timer->changed);
    pthread_mutex_unlock(&timer->mutex);
    return 0;
}
