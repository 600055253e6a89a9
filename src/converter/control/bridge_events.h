/* Alarms and faults of the agent as messages to the operations server, polled or on a notification. */
#ifndef BRIDGE_EVENTS_H
#define BRIDGE_EVENTS_H

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

struct converter_ctx;

/* Starts the worker, which keeps one pool thread until the control plane is de-initialised. Returns 0 or -1.
 */
int bridge_events_cb_launcher(converter_ctx *ctx, const char *topic);

/* Does nothing: the worker ends with the plane. */
int bridge_events_cb_stopper(converter_ctx *ctx);

/* The trap session's callback; runs on the worker, inside the library's read. `magic` is the context. */
int snmp_event_input(int operation, netsnmp_session *session, int request_id, netsnmp_pdu *pdu, void *magic);

#endif
