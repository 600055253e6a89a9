/* The entry point alone, so that tests can link everything behind it. */
#include "app/bridge_memory.h"
#include "app/main_bridge.h"

#include <cstdlib>
#include <openssl/crypto.h>

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
    bridge_memory_keep_small();
    forget_empty_proxies();
    /* Children leave by exit, where the library's clean-up could wait for a lock that another thread of the
     * daemon held; and the daemon may leave so under threads that still talk. */
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    return bridge_main(argc, argv);
}
