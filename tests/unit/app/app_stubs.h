/* The daemon's parts as the supervisor sees them: every call is recorded in order and answered by a script,
 * and waits return at once. */
#ifndef APP_STUBS_H
#define APP_STUBS_H

#include "app/main_bridge.h"
#include "common/bridge_config.h"
#include "mqtt/logged_lines.h"

#include <atomic>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

/* Call names are those of the functions, without "bridge_"; waits are "wait 10". */
struct app_stubs {
    std::vector<std::string> calls;
    bridge_config_root root;
    bridge_args args; /* what bridge_config_load was given */

    /* The next results of a call; later ones are 0. */
    void script(const std::string &call, std::vector<int> results);

    /* Runs within the next call of that name, or within its `turn`-th. */
    void on(const std::string &call, std::function<void()> action, int turn = 1);

    /* The calls since the last call of this. */
    std::vector<std::string> take();
};

extern app_stubs stubs;
extern std::atomic<int> stub_wait_rounds; /* waits in milliseconds */

/* All flags of the supervisor as one text, for comparison: "running ctrlplane_started". */
std::string flags();

/* Starts with no flag set but `running`, nothing enabled, and the log at TRACE. Without a stop by the test
 * the supervisor is stopped, and the test fails, after a hundred waits. */
class AppTest : public testing::Test
{
  protected:
    void SetUp() override;
    void TearDown() override;

    /* Starts both planes and connects both servers, without a trace in the records. */
    void start_everything();

    log_capture log;
};

#endif
