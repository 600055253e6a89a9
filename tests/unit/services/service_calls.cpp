#include "services/service_calls.h"

#include "config/captured_log.h"
#include "thread_pool/thpool.h"

#include <atomic>
#include <csignal>
#include <cstdarg>
#include <fcntl.h>
#include <mqueue.h>
#include <semaphore.h>

timer_record timers;
utility_script utility;

FAILING_THPOOL_ADD_WORK
FAILING_NEW_ARRAY
FAILING_CALL(int, sem_init, (sem_t * semaphore, int shared, unsigned value), (semaphore, shared, value), -1)
FAILING_CALL(int, sem_getvalue, (sem_t * semaphore, int *value), (semaphore, value), -1)
FAILING_CALL(int, mq_send, (mqd_t mq, const char *text, size_t size, unsigned priority),
             (mq, text, size, priority), -1)

/* ---- queues ---- */

static std::atomic<int> interruptions;

enum receipt_state : int {
    RECEIPT_FREE,
    RECEIPT_TO_HOLD,
    RECEIPT_HELD,
};
static std::atomic<int> receipt = RECEIPT_FREE;

void hold_receipt()
{
    receipt = RECEIPT_TO_HOLD;
}

bool wait_for_receipt()
{
    return wait_until([] { return receipt == RECEIPT_HELD; });
}

void let_receipt_go()
{
    receipt = RECEIPT_FREE;
}

std::string own_queue_name(const char *name)
{
    return join({name, ".", std::to_string(getpid())});
}

void interrupt_receives(int count)
{
    interruptions = count;
}

extern "C" {
mqd_t __real_mq_open(const char *name, int flags, ...);
mqd_t __wrap_mq_open(const char *name, int flags, ...)
{
    if (fails("mq_open"))
        return -1;
    if ((flags & O_CREAT) == 0)
        return __real_mq_open(own_queue_name(name).c_str(), flags);
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = va_arg(rest, mode_t);
    mq_attr *attributes = va_arg(rest, mq_attr *);
    va_end(rest);
    return __real_mq_open(own_queue_name(name).c_str(), flags, mode, attributes);
}

int __real_mq_unlink(const char *name);
int __wrap_mq_unlink(const char *name)
{
    return __real_mq_unlink(own_queue_name(name).c_str());
}

ssize_t __real_mq_receive(mqd_t mq, char *text, size_t size, unsigned *priority);
ssize_t __wrap_mq_receive(mqd_t mq, char *text, size_t size, unsigned *priority)
{
    if (interruptions > 0) {
        interruptions--;
        errno = EINTR;
        return -1;
    }
    if (fails("mq_receive"))
        return -1;
    const ssize_t received = __real_mq_receive(mq, text, size, priority);
    int expected = RECEIPT_TO_HOLD;
    if (receipt.compare_exchange_strong(expected, RECEIPT_HELD)) {
        EXPECT_TRUE(wait_until([] { return receipt == RECEIPT_FREE; }));
    }
    return received;
}
}

bool queue_exists(const char *name)
{
    const mqd_t mq = __real_mq_open(own_queue_name(name).c_str(), O_RDONLY);
    if (mq >= 0)
        mq_close(mq);
    return mq >= 0;
}

void empty_queue(const char *name)
{
    const mqd_t mq = __real_mq_open(own_queue_name(name).c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(mq, 0);
    char text[8192];
    while (__real_mq_receive(mq, text, sizeof(text), nullptr) >= 0)
        continue;
    EXPECT_EQ(errno, EAGAIN);
    mq_close(mq);
}

void leave_queue(const char *name, size_t message_size, const std::vector<std::string> &messages)
{
    mq_attr attributes = {};
    attributes.mq_maxmsg = 10;
    attributes.mq_msgsize = static_cast<long>(message_size);
    const mqd_t mq =
        __real_mq_open(own_queue_name(name).c_str(), O_WRONLY | O_CREAT | O_EXCL, 0660, &attributes);
    ASSERT_GE(mq, 0);
    for (const std::string &message : messages)
        EXPECT_EQ(mq_send(mq, message.data(), message.size(), 0), 0);
    mq_close(mq);
}

/* ---- timers ---- */

void timer_record::reset()
{
    const std::lock_guard guard(mutex_);
    told_.clear();
    armed_ = false;
}

std::vector<std::string> timer_record::taken()
{
    const std::lock_guard guard(mutex_);
    return std::exchange(told_, {});
}

void timer_record::made(const sigevent &event)
{
    const std::lock_guard guard(mutex_);
    event_ = event;
    told_.emplace_back("made");
}

void timer_record::set(bool armed, bool repeats, std::string what)
{
    const std::lock_guard guard(mutex_);
    armed_ = armed;
    repeats_ = repeats;
    told_.push_back(std::move(what));
}

void timer_record::gone()
{
    set(false, false, "gone");
}

bool timer_record::is_armed()
{
    const std::lock_guard guard(mutex_);
    return armed_;
}

void timer_record::expire()
{
    sigevent event = {};
    {
        const std::lock_guard guard(mutex_);
        event = event_;
        armed_ = armed_ && repeats_;
    }
    ASSERT_NE(event.sigev_notify_function, nullptr);
    event.sigev_notify_function(event.sigev_value);
}

extern "C" {
int __wrap_timer_create(clockid_t clock, sigevent *event, timer_t *timer)
{
    EXPECT_EQ(clock, CLOCK_MONOTONIC);
    EXPECT_EQ(event->sigev_notify, SIGEV_THREAD);
    if (fails("timer_create"))
        return -1;
    timers.made(*event);
    *timer = &timers;
    return 0;
}

int __wrap_timer_settime(timer_t timer, int flags, const itimerspec *times, itimerspec *)
{
    EXPECT_EQ(timer, &timers);
    EXPECT_EQ(flags, 0);
    if (fails("timer_settime"))
        return -1;
    const long milliseconds = times->it_value.tv_sec * 1000 + times->it_value.tv_nsec / 1000000;
    const std::string time = milliseconds == 0 ? join({std::to_string(times->it_value.tv_nsec), " ns"})
                                               : join({std::to_string(milliseconds), " ms"});
    const bool repeats = times->it_interval.tv_sec != 0 || times->it_interval.tv_nsec != 0;
    if (repeats) {
        EXPECT_EQ(times->it_interval.tv_sec, times->it_value.tv_sec);
        EXPECT_EQ(times->it_interval.tv_nsec, times->it_value.tv_nsec);
    }
    const bool off = times->it_value.tv_sec == 0 && times->it_value.tv_nsec == 0;
    timers.set(!off, repeats, off ? "off" : join({time, repeats ? " each" : ""}));
    return 0;
}

int __wrap_timer_delete(timer_t timer)
{
    EXPECT_EQ(timer, &timers);
    timers.gone();
    return 0;
}
}

/* ---- the utility ---- */

void utility_script::reset()
{
    const std::lock_guard guard(mutex_);
    answers_.clear();
    calls_.clear();
    holding_ = false;
}

void utility_script::answer(const std::string &arguments, const std::string &text)
{
    const std::lock_guard guard(mutex_);
    answers_[arguments] = text;
}

std::vector<std::string> utility_script::calls()
{
    const std::lock_guard guard(mutex_);
    return std::exchange(calls_, {});
}

bool utility_script::wait_for_calls(size_t count)
{
    std::unique_lock guard(mutex_);
    return changed_.wait_for(guard, TEST_DEADLINE, [&] { return calls_.size() >= count; });
}

void utility_script::hold()
{
    const std::lock_guard guard(mutex_);
    holding_ = true;
}

void utility_script::let_go()
{
    const std::lock_guard guard(mutex_);
    holding_ = false;
    changed_.notify_all();
}

std::string utility_script::run(const std::string &command)
{
    static const std::string PROGRAM = "sarnivel-dist-upgrade ";
    EXPECT_TRUE(command.starts_with(PROGRAM)) << command;
    const std::string arguments = command.substr(PROGRAM.size());
    std::unique_lock guard(mutex_);
    calls_.push_back(arguments);
    changed_.notify_all();
    changed_.wait_for(guard, TEST_DEADLINE, [this] { return !holding_; });
    for (auto row = answers_.rbegin(); row != answers_.rend(); ++row) {
        if (arguments.starts_with(row->first))
            return row->second;
    }
    return "";
}

extern "C" {
FILE *__wrap_popen(const char *command, const char *mode)
{
    EXPECT_STREQ(mode, "re");
    const std::string answer = utility.run(command);
    if (fails("popen"))
        return nullptr;
    FILE *pipe = tmpfile();
    fwrite(answer.data(), 1, answer.size(), pipe);
    rewind(pipe);
    return pipe;
}

int __wrap_pclose(FILE *pipe)
{
    return fclose(pipe);
}
}
