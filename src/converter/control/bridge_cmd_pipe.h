/* The pipe through which forked children answer: what a child writes is published as it is. */
#ifndef BRIDGE_CMD_PIPE_H
#define BRIDGE_CMD_PIPE_H

#include <cstdint>

struct converter_ctx;
struct json_object;

/* Creates the pipe and starts its watcher on the pool. Returns 0 or a negative number. */
int bridge_cmd_pipe_start(converter_ctx *ctx);

/* Wakes the watcher, which ends, and closes the pipe. Returns 0 or -1. */
int bridge_cmd_pipe_stop(converter_ctx *ctx);

/* Sends the response, which it takes over, as the answer to `req_id`, and ends the process: with status 0, or
 * 1 after logging why. Forked children only. */
[[noreturn]] void bridge_cmd_async_respond(json_object *response, int64_t req_id);

#endif
