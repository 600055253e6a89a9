/* The children's side of the pipe. */
#include "common/bridge_async_pipe.h"

#include "common/bridge_log.h"
#include "common/bridge_release.h"

#include <cstring>
#include <fcntl.h>
#include <unistd.h>

int bridge_async_pipe_send(const char *text)
{
    BRIDGE_TRACE("sending async response: %s", text);
    const bridge_fd fd(open(BRIDGE_ASYNC_PIPE_PATH, O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    if (fd.get() < 0) {
        BRIDGE_ERROR("failed to open pipe for sending async response: %m");
        return -1;
    }
    const size_t size = strlen(text);
    if (write(fd.get(), text, size) != static_cast<ssize_t>(size)) {
        BRIDGE_ERROR("failed to write to an async response pipe: %m");
        return -1;
    }
    return 0;
}
