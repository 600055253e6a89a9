/* The service behind the operations server's commands: takes a request apart, runs its handler on the pool
 * thread that carries it, and publishes the answer. */
#ifndef BRIDGE_CMD_H
#define BRIDGE_CMD_H

#include <cstdint>

struct converter_ctx;
struct json_object;

/* A row of the control plane's service table. Launcher and stopper: 0 or negative. */
int bridge_cmd_launcher(converter_ctx *ctx, const char *topic);
int bridge_cmd_stopper(converter_ctx *ctx);
void bridge_cmd_worker(converter_ctx *ctx, const char *topic, const char *payload);

/* Behind the last command of a control plane: jobs that run go on, and the next plane does not know them.
 * Each is collected once it has ended. */
void bridge_cmd_forget_jobs(converter_ctx *ctx);

/* Reads `input`, which is the request's "params" or the whole request by the table, and leaves the answer in
 * `response`, whose owner is then the dispatcher. Null means an answer without a "response": the usual sign
 * of a failure, which the handler has logged. */
using bridge_cmd_handler = void (*)(converter_ctx *ctx, json_object *input, json_object **response);

#endif
