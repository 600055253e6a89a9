/* Slow commands: a forked child does the work and answers through the pipe; the request itself is answered at
 * once. Pool threads. */
#ifndef BRIDGE_CMD_ASYNC_H
#define BRIDGE_CMD_ASYNC_H

#include <cstdint>
#include <sys/types.h>

struct converter_ctx;
struct json_object;

/* What the log says of one kind of child. */
struct cmd_async_texts {
    const char *failed;
    const char *launched;
    const char *started;
};

/* The child's work: `request` is the whole request. It ends in bridge_cmd_async_respond, which does not
 * return; a job that returns has failed before it had an answer to give. */
using cmd_async_job = void (*)(converter_ctx *ctx, json_object *request);

/* Forks, runs the job in the child, and answers {"status": "ok"}, or the failure of the fork. */
void cmd_async_run(converter_ctx *ctx, json_object *request, cmd_async_job job, json_object **response);
void cmd_async_run(converter_ctx *ctx, json_object *request, cmd_async_job job, const cmd_async_texts &texts,
                   json_object **response);

/* In the child: the job has an answer to give from here on. */
void cmd_async_begin();

/* For the dispatcher, behind the answer: waits until the child that this thread's handler has forked has
 * begun or ended, and returns true when it returned without beginning. False at once when none was forked. */
bool cmd_async_returned_early();

/* For children that nobody waits for: collects `pid` once it has ended. */
void cmd_async_forget(pid_t pid);

/* Collects the children that have ended. Returns whether there are others. */
bool cmd_async_collect();

/* A fork under the context mutex, as the SNMP library's state must be whole in the child. As fork; the child
 * has a context mutex of its own. */
pid_t cmd_fork(converter_ctx *ctx);

#endif
