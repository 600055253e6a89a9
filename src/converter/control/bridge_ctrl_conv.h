/* The control plane as the supervisor loop sees it: the sessions to the SNMP agent, the operations server's
 * endpoint, and the services on it. Main thread. */
#ifndef BRIDGE_CTRL_CONV_H
#define BRIDGE_CTRL_CONV_H

#include <cstdint>

struct converter_ctx;

using bridge_ctrl_handler_t = void (*)(int32_t code, void *context);

/* `handler` is called with code 1 when the control plane is to be restarted. Returns 0 or -1. */
int bridge_ctrlplane_init(const char *gw_mac, bridge_ctrl_handler_t handler, void *handler_arg);

/* `mib_dir` may be null or empty. An interval of 0 seconds waits for notifications on `trap_transport`
 * instead of polling. Returns 0 or a negative number. */
int bridge_ctrlplane_connect_agent(const char *snmp_host, const char *snmp_community, const char *mib_dir,
                                   const char *trap_transport, uint32_t gw_events_interval);

/* Connects the endpoint and starts the services on it. Returns 0 or a negative number. */
int bridge_snmp_connect_oam();

/* Returns the result of the MQTT disconnect. */
int bridge_ctrlplane_disconnect_oam();
int bridge_ctrlplane_disconnect_agent();

/* For a forked child, which shares the agent's session and the context mutex with nobody: the mutex is made
 * anew, as another thread of the daemon may have held it; the session is closed, and opened anew if it was
 * open. */
void bridge_ctrl_renew_mutex(converter_ctx *ctx);
void bridge_ctrl_close_session(converter_ctx *ctx);
void bridge_ctrl_reopen_session(converter_ctx *ctx);

/* Waits for the workers, without a limit. Returns 0, or -1 when not initialised. */
int bridge_ctrlplane_deinit();

#endif
