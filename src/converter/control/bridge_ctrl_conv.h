/* The control plane as the supervisor loop sees it. Main thread. */
#ifndef BRIDGE_CTRL_CONV_H
#define BRIDGE_CTRL_CONV_H

#include <cstdint>

using bridge_ctrl_handler_t = void (*)(int32_t code, void *context);

int bridge_ctrlplane_init(const char *gw_mac, bridge_ctrl_handler_t handler, void *handler_arg);
int bridge_ctrlplane_connect_agent(const char *agent_addr, const char *community, const char *mib_dir,
                                   const char *trap_transport, uint32_t gw_events_interval);
int bridge_snmp_connect_oam();
int bridge_ctrlplane_disconnect_oam();
int bridge_ctrlplane_disconnect_agent();
int bridge_ctrlplane_deinit();

#endif
