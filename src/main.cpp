/* The entry point alone, so that tests can link everything behind it. */
#include "app/bridge_memory.h"
#include "app/main_bridge.h"

#include <openssl/crypto.h>

int main(int argc, char **argv)
{
    bridge_memory_keep_small();
    /* Children leave by exit, where the library's clean-up could wait for a lock that another thread of the
     * daemon held; and the daemon may leave so under threads that still talk. */
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    return bridge_main(argc, argv);
}
