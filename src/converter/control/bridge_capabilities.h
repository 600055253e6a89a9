/* The capabilities service: the operations server names the management services that it speaks, and they are
 * started. Started and stopped by the control plane converter. */
#ifndef BRIDGE_CAPABILITIES_H
#define BRIDGE_CAPABILITIES_H

struct converter_ctx;

/* `ctx` is not owned. Returns 0, or -1 when the service's lock cannot be set up. */
int bridge_capabilities_init(converter_ctx *ctx);

/* Subscribes; negative on failure, else 0, also when it runs already. */
int bridge_capabilities_start();

/* Waits for a message under way; until the next start no further one starts a service. Before the services
 * are stopped: one that starts behind its stop would still run when it is de-initialised. */
void bridge_capabilities_close();

int bridge_capabilities_stop();
void bridge_capabilities_deinit();

#endif
