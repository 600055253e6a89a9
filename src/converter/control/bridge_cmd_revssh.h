/* The reverse SSH tunnel: an operator reaches the gateway's own SSH port through a port of a server that the
 * gateway logs in to. One tunnel at most, run by a forked child. Handlers on pool threads; the session in the
 * child alone. */
#ifndef BRIDGE_CMD_REVSSH_H
#define BRIDGE_CMD_REVSSH_H

#include <cstdint>

struct converter_ctx;
struct json_object;

/* Starts the child. The answer tells only that it was started: what comes of the login and the forwarding is
 * in the log. */
void bridge_cmd_reverse_ssh(converter_ctx *ctx, json_object *params, json_object **response);

/* Ends the child, if one runs. */
void bridge_cmd_stop_reverse_ssh(converter_ctx *ctx, json_object *params, json_object **response);

/* Logs in, has the server listen on `reverse_port`, and joins the connections that arrive there, one after
 * the other, to `local_port` of the loopback. Ends when none arrives for the configured time, or with the
 * first failure that is not a connection's own. Returns 0 or a negative error. */
int bridge_cmd_reverse_ssh_session(const char *host, const char *user, const char *password, int local_port,
                                   int64_t ssh_port, int64_t reverse_port);

#endif
