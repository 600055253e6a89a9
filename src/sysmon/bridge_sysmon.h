/* Hooks for a process monitor; the gateway has none today, so they do nothing. Main thread. */
#ifndef BRIDGE_SYSMON_H
#define BRIDGE_SYSMON_H

#include <cstdint>

void bridge_sysmon_init();
void bridge_sysmon_deinit();
void bridge_sysmon_register(const char *task_name, uint32_t timeout_ms, uint8_t tolerance, uint8_t flags);
void bridge_sysmon_unregister();
void bridge_sysmon_report();

#endif
