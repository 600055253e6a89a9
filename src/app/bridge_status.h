/* A tiny TCP server that hands anyone who connects the bridge's public key and certificate, as one fixed
 * reply in the form of HTTP; it never reads the request. One thread serves one client at a time. */
#ifndef BRIDGE_STATUS_H
#define BRIDGE_STATUS_H

#include <cstdint>

/* Reads key and certificate once, listens on `port` on all local addresses and starts the thread. Returns 0
 * or -1. */
int bridge_status_server_start(int32_t port);

/* Ends the thread, once the daemon is no longer running, and waits for it. */
void bridge_status_server_stop();

#endif
