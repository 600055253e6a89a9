/* The monitor's hooks, empty until a gateway brings a monitor. */
#include "sysmon/bridge_sysmon.h"

#include "common/bridge_log.h"

void bridge_sysmon_init()
{
}

void bridge_sysmon_deinit()
{
}

void bridge_sysmon_register(const char *task_name, uint32_t, uint8_t, uint8_t)
{
    BRIDGE_ASSERT(task_name);
}

void bridge_sysmon_unregister()
{
}

void bridge_sysmon_report()
{
}
