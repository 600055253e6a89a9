/* What the services ask of the system: queues get a name of the test process's own, timers expire when the
 * test says so, and the upgrade utility answers from a table. Each of them can fail. */
#ifndef SERVICE_CALLS_H
#define SERVICE_CALLS_H

#include "control/failing_calls.h"

#include <condition_variable>
#include <csignal>
#include <ctime>
#include <map>
#include <mutex>
#include <string>
#include <vector>

/* The name under which the service's queue stands here. */
std::string own_queue_name(const char *name);

/* Makes the queue, as an earlier run has left it, with these messages in it. */
void leave_queue(const char *name, size_t message_size, const std::vector<std::string> &messages);

bool queue_exists(const char *name);

/* Takes the messages that nobody reads any more. */
void empty_queue(const char *name);

/* The next so many receives are ended by a signal. */
void interrupt_receives(int count);

/* Between the receipt of a message and its reader, once. */
void hold_receipt();
bool wait_for_receipt();
void let_receipt_go();

class timer_record
{
  public:
    void reset();

    /* What the last timer was told: "30000 ms", "30000 ms each", "1000 ns", "off"; also "made" and "gone". */
    std::vector<std::string> taken();

    /* Whether it will expire by itself; here it does so only when the test says so. */
    bool is_armed();

    /* Calls the timer's function, as the system does. */
    void expire();

    /* For the stand-ins. */
    void made(const sigevent &event);
    void set(bool armed, bool repeats, std::string what);
    void gone();

  private:
    std::mutex mutex_;
    sigevent event_ = {};
    bool armed_ = false;
    bool repeats_ = false;
    std::vector<std::string> told_;
};

extern timer_record timers;

/* Answers by the arguments' start, the longest first; without one the answer is empty. */
class utility_script
{
  public:
    void reset();
    void answer(const std::string &arguments, const std::string &text);
    std::vector<std::string> calls();
    bool wait_for_calls(size_t count);

    /* Calls do not end until they are let go. */
    void hold();
    void let_go();

    std::string run(const std::string &command);

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, std::string> answers_;
    std::vector<std::string> calls_;
    bool holding_ = false;
};

extern utility_script utility;

#endif
