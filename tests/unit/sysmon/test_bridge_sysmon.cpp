/* The hooks do nothing but refuse a task without a name. */
#include "sysmon/bridge_sysmon.h"

#include "common/bridge_log.h"
#include "common/captured_stderr.h"

#include <gtest/gtest.h>

TEST(BridgeSysmon, HooksWriteNothing)
{
    bridge_log_init(BRIDGE_LOG_TRACE, true);
    captured_stderr captured;
    bridge_sysmon_init();
    bridge_sysmon_register("task", 11000, 5, 0);
    bridge_sysmon_report();
    bridge_sysmon_unregister();
    bridge_sysmon_deinit();
    EXPECT_EQ(captured.text(), "");
}

TEST(BridgeSysmonDeathTest, TaskNeedsAName)
{
    bridge_log_init(BRIDGE_LOG_TRACE, true);
    EXPECT_ASSERTION(bridge_sysmon_register(nullptr, 11000, 5, 0), "task_name");
}
