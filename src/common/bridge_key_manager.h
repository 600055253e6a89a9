/* The gateway's own RSA key pair and self-signed certificate, for TLS client authentication and for the
 * status port. Main thread, at start-up. */
#ifndef BRIDGE_KEY_MANAGER_H
#define BRIDGE_KEY_MANAGER_H

#include <openssl/types.h>

/* Generates key and certificate when a key path is configured and no file is there. An existing key file is
 * never touched, whatever it holds. Returns 0 or -1. */
int bridge_key_manager_init();

/* The private key, owned by the caller; null when none is configured or it cannot be read. */
RSA *bridge_key_manager_load_from_config();

/* The certificate file's text, terminated, on the heap and the caller's; or null. */
char *bridge_key_manager_load_cert_from_config();

int bridge_key_manager_deinit();

#endif
