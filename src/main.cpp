/* The entry point alone, so that tests can link everything behind it. */
#include "app/bridge_memory.h"
#include "app/main_bridge.h"

#include <cstdlib>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <unistd.h>

/* Closed ones would be the numbers of sockets, which every child would keep and logging would write into. */
static void open_standard_descriptors()
{
    int fd = 0;
    do
        fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0)
        close(fd);
}

/* Set to nothing they mean that there is no proxy, as for other programs; the MQTT library would connect to
 * a proxy without a name. Before any thread. */
static void forget_empty_proxies()
{
    for (const char *name : {"http_proxy", "https_proxy"}) {
        const char *proxy = getenv(name);
        if (proxy != nullptr && *proxy == '\0')
            unsetenv(name);
    }
}

int main(int argc, char **argv)
{
    open_standard_descriptors();
    bridge_memory_keep_small();
    forget_empty_proxies();
    /* Children leave by exit, where the library's clean-up could wait for a lock that another thread of the
     * daemon held; and the daemon may leave so under threads that still talk. */
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    return bridge_main(argc, argv);
}
