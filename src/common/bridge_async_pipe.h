/* The daemon's end of its children: a named pipe into which they write what is to be published for them. */
#ifndef BRIDGE_ASYNC_PIPE_H
#define BRIDGE_ASYNC_PIPE_H

static constexpr const char *BRIDGE_ASYNC_PIPE_PATH = "/tmp/snv_bridge.pipe";

/* Writes the text, without its terminator, in one call. Returns 0, or -1 after logging why: nobody reads the
 * pipe, or it is full. */
int bridge_async_pipe_send(const char *text);

#endif
