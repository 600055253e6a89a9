#include "mqtt/background.h"

#include <chrono>
#include <fstream>
#include <string>
#include <unistd.h>

using namespace std::chrono_literals;

static constexpr auto DEADLINE = 30s; /* of a machine that is busy with others */
static constexpr auto LOOK = 200us;

bool wait_until(const std::function<bool()> &reached)
{
    const auto end = std::chrono::steady_clock::now() + DEADLINE;
    while (!reached()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(LOOK);
    }
    return true;
}

void gate::open()
{
    const std::lock_guard<std::mutex> guard(lock_);
    open_ = true;
    opened_.notify_all();
}

bool gate::wait()
{
    std::unique_lock<std::mutex> guard(lock_);
    waited_for_ = true;
    return opened_.wait_for(guard, DEADLINE, [this] { return open_; });
}

bool gate::is_waited_for() const
{
    return waited_for_;
}

background::background(std::function<void()> work)
    : thread_([this, work = std::move(work)] {
          tid_ = gettid();
          work();
          ended_ = true;
      })
{
}

background::~background()
{
    thread_.join();
}

bool background::has_ended() const
{
    return ended_;
}

bool background::ends()
{
    return wait_until([this] { return ended_.load(); });
}

/* The state is the first letter behind the name, which stands in brackets. */
static bool sleeps(pid_t tid)
{
    std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string text;
    std::getline(file, text);
    const size_t name_end = text.rfind(") ");
    return name_end != std::string::npos && text[name_end + 2] == 'S';
}

bool background::blocks()
{
    static constexpr int LOOKS = 5; /* a thread on its way sleeps now and then */
    int asleep = 0;
    return wait_until([this, &asleep] {
               asleep = tid_ != 0 && sleeps(tid_) ? asleep + 1 : 0;
               return ended_ || asleep == LOOKS;
           }) &&
           !ended_;
}
