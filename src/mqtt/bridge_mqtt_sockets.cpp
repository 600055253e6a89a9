/* What the MQTT library's connect options do not reach: its TCP sockets. */
#include "mqtt/bridge_mqtt_ctx.h"

#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

struct directory_close {
    void operator()(DIR *directory) const
    {
        closedir(directory);
    }
};

/* The library keeps its descriptors to itself, so every TCP socket of the process gets the option; others
 * refuse it. */
void bridge_mqtt_send_at_once()
{
    const std::unique_ptr<DIR, directory_close> directory(opendir("/proc/self/fd"));
    if (!directory)
        return;
    while (const dirent *entry = readdir(directory.get())) {
        const int at_once = 1;
        (void)setsockopt(atoi(entry->d_name), IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof(at_once));
    }
}
