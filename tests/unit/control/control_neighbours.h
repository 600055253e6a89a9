/* The control plane's neighbours, replaced at link time: an agent that answers from a script, waits that
 * return at once, and a folder that stands for the root of the file system. */
#ifndef CONTROL_NEIGHBOURS_H
#define CONTROL_NEIGHBOURS_H

#include "config/captured_log.h"
#include "control/failing_calls.h"
#include "converter/control/bridge_ctrl_ctx.h"
#include "converter/neighbours.h"

#include <deque>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

/* The agent. Each call is one text:
 *   "int <object>", "text <object> <capacity>", "get <object> <object>", "set <object>=<value> ...",
 *   "rows <key>=<column>:<hint> ..." and "table ..." with " by <object>" behind. */
class agent_script
{
  public:
    void reset();

    /* What reads of the object give, one after another; the last one stays. An object without is 0. */
    void numbers(const std::string &object, std::deque<long> values);
    void text(const std::string &object, const std::string &value);

    /* The table whose first column this is. One without is empty. */
    void table(const std::string &column, const std::string &json);

    /* Calls that begin so fail, after as many that do not. */
    void fail(const std::string &start, int after = 0);
    void let_pass();

    /* Each call leaves this in errno; 0 leaves it alone. */
    std::atomic<int> leaves_errno = 0;

    /* Calls are written to standard error, too: a death test reads it there. */
    std::atomic<bool> loud = false;

    std::vector<std::string> calls();
    long count(const std::string &call);

    /* For the stand-ins. */
    int note(const std::string &call);
    long next_number(const std::string &object);
    int copy_text(const std::string &object, char *buffer, size_t size);
    std::string rows_of(const std::string &column);

  private:
    std::mutex mutex_;
    std::map<std::string, std::deque<long>> numbers_;
    std::map<std::string, std::string> texts_;
    std::map<std::string, std::string> tables_;
    std::string failing_;
    int after_ = 0;
    std::vector<std::string> calls_;
};

extern agent_script agent;

/* Waits as "5 s", "1 ms", "10 us". */
class wait_record
{
  public:
    void reset();
    std::vector<std::string> taken();
    void note(const std::string &wait);

    /* Runs within each wait. */
    std::function<void()> within;

  private:
    std::mutex mutex_;
    std::vector<std::string> waits_;
};

extern wait_record waits;

/* What the supervisor was told: code and word. */
class told_record
{
  public:
    void reset();
    std::vector<std::pair<int32_t, void *>> taken();
    static void handler(int32_t code, void *context);

  private:
    std::mutex mutex_;
    std::vector<std::pair<int32_t, void *>> told_;
};

extern told_record supervisor;

class temporary_root
{
  public:
    temporary_root();
    ~temporary_root();
    temporary_root(const temporary_root &) = delete;
    temporary_root &operator=(const temporary_root &) = delete;

    std::filesystem::path path;
};

/* A context as init leaves it, and neighbours that succeed. */
class ControlTest : public testing::Test
{
  protected:
    ControlTest();
    ~ControlTest() override;

    /* Published texts; each is checked to have gone to this topic of the operations server, unretained. */
    static std::vector<std::string> published_on(const std::string &topic);

    captured_log log;
    int word = 0;
    char mac[256] = "0016c001f1500a0b";
    converter_ctx context = {};
    converter_ctx *const ctx = &context;
};

/* With the terminator that travels with it. */
std::string terminated(std::string text);

#endif
