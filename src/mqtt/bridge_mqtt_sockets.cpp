/* What the MQTT library's connect options do not reach: its TCP sockets. */
#include "mqtt/bridge_mqtt_ctx.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace fs = std::filesystem;

/* Only a TCP socket takes the first option. */
static void set_up(int fd)
{
    const int at_once = 1;
    if (setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof(at_once)) == 0)
        (void)fcntl(fd, F_SETFD, FD_CLOEXEC);
}

/* The library keeps its descriptors to itself, so every TCP socket of the process is set up. */
void bridge_mqtt_set_up_sockets()
{
    std::error_code failure;
    fs::directory_iterator entry("/proc/self/fd", failure);
    while (!failure && entry != fs::directory_iterator()) {
        set_up(atoi(entry->path().filename().c_str()));
        entry.increment(failure);
    }
}
