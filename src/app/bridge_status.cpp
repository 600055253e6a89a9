/* Start, thread and end of the status server. */
#define OPENSSL_API_COMPAT 10100

#include "app/bridge_status.h"

#include "app/main_bridge.h"
#include "common/bridge_key_manager.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "common/bridge_wait.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

static constexpr int BACKLOG = 4;
static constexpr uint32_t ACCEPT_RETRY_S = 10;
static constexpr time_t SEND_LIMIT_S = 5;

/* Written before the thread starts, only read afterwards. */
static struct {
    pthread_t thread;
    int sock;
    char *pubkey;       /* PEM, or null */
    uint32_t pubkey_sz; /* with the terminator */
    char *cert;
    uint32_t cert_sz; /* with the terminator, or 0 */
} status_ctx;

using rsa_owned = std::unique_ptr<RSA, bridge_release<RSA_free>>;
using bio_owned = std::unique_ptr<BIO, bridge_release<BIO_free>>;
using text_owned = std::unique_ptr<char, bridge_release<free>>;

/* A client may close in the middle: no signal may come of it. */
static void send_bytes(int client, const char *bytes, size_t size)
{
    (void)send(client, bytes, size, MSG_NOSIGNAL);
}

static void send_text(int client, const char *text)
{
    send_bytes(client, text, strlen(text));
}

static void serve_client(int client)
{
    /* A client that reads nothing must not hold the next one, nor the end of the daemon. */
    const timeval limit = {.tv_sec = SEND_LIMIT_S, .tv_usec = 0};
    setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    /* The close resets a client that has sent a request, and drops what still waits to be sent by then. */
    const int at_once = 1;
    setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof(at_once));

    send_text(client, "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nConnection: Closed\r\n\r\n");
    send_text(client, "@@public_key:\r\n\r\n");
    if (status_ctx.pubkey != nullptr) {
        BRIDGE_ASSERT(status_ctx.cert_sz > 0);
        send_bytes(client, status_ctx.pubkey, status_ctx.pubkey_sz - 1);
    }
    send_text(client, "\r\n@@certificate:\r\n\r\n");
    if (status_ctx.cert != nullptr) {
        BRIDGE_ASSERT(status_ctx.cert_sz > 0);
        send_bytes(client, status_ctx.cert, status_ctx.cert_sz - 1);
    }
    close(client);
}

static void *bridge_status_thread(void *)
{
    BRIDGE_INFO("starting listening for a status requests");
    for (;;) {
        const int client = accept4(status_ctx.sock, nullptr, nullptr, SOCK_CLOEXEC);
        BRIDGE_TRACE("got client socket: %i", client);
        if (client >= 0) {
            serve_client(client);
            continue;
        }
        if (!bridge_main_ctx.running)
            break;
        bridge_wait_s(ACCEPT_RETRY_S);
    }
    BRIDGE_INFO("stopping status thread");
    close(status_ctx.sock);
    free(status_ctx.pubkey);
    return nullptr;
}

static int listen_on(int sock, int32_t port)
{
    const int reuse = 1;
    if (setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse)) < 0) {
        BRIDGE_ERROR("failed to setsockopt");
        return -1;
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<uint16_t>(port));
    if (bind(sock, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) < 0) {
        BRIDGE_ERROR("failed to bind to port");
        return -1;
    }
    (void)listen(sock, BACKLOG);
    return 0;
}

/* The public key in PKCS#1 form, terminated, on the heap; or null after logging why. */
static char *format_public_key(const RSA *key)
{
    const bio_owned bio(BIO_new(BIO_s_mem()));
    if (!bio) {
        BRIDGE_ERROR("cannot allocate BIO context");
        return nullptr;
    }
    if (PEM_write_bio_RSAPublicKey(bio.get(), key) != 1) {
        BRIDGE_ERROR("public key write failed");
        return nullptr;
    }
    const size_t size = BIO_ctrl_pending(bio.get());
    text_owned text(static_cast<char *>(calloc(size + 1, 1)));
    if (!text) {
        BRIDGE_ERROR("failed to allocate buffer for the public key");
        return nullptr;
    }
    if (BIO_read(bio.get(), text.get(), static_cast<int>(size)) < 1) {
        BRIDGE_ERROR("failed to read BIO");
        return nullptr;
    }
    return text.release();
}

static uint32_t size_with_terminator(const char *text)
{
    return static_cast<uint32_t>(strlen(text) + 1);
}

/* Without a private key the server runs with nothing to show. */
static int load_keys()
{
    status_ctx.pubkey = nullptr;
    status_ctx.pubkey_sz = 0;
    status_ctx.cert = nullptr;
    status_ctx.cert_sz = 0;
    const rsa_owned key(bridge_key_manager_load_from_config());
    if (!key)
        return 0;
    text_owned pubkey(format_public_key(key.get()));
    if (!pubkey)
        return -1;
    char *cert = bridge_key_manager_load_cert_from_config();
    if (cert == nullptr) {
        BRIDGE_ERROR("failed to read certificate");
        return -1;
    }
    BRIDGE_DEBUG("loaded public key:\n%s", pubkey.get());
    BRIDGE_DEBUG("loaded certificate:\n%s", cert);
    status_ctx.pubkey_sz = size_with_terminator(pubkey.get());
    status_ctx.pubkey = pubkey.release();
    status_ctx.cert = cert;
    status_ctx.cert_sz = size_with_terminator(cert);
    return 0;
}

int bridge_status_server_start(int32_t port)
{
    BRIDGE_ASSERT(port > 0);
    BRIDGE_INFO("initializing a status server on port: %i", port);
    bridge_fd sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (sock.get() < 0) {
        BRIDGE_ERROR("failed to create a socket");
        return -1;
    }
    if (listen_on(sock.get(), port) < 0 || load_keys() < 0)
        return -1;
    status_ctx.sock = sock.get();
    if (pthread_create(&status_ctx.thread, nullptr, bridge_status_thread, nullptr) != 0)
        return -1;
    (void)sock.release(); /* the thread closes it */
    return 0;
}

void bridge_status_server_stop()
{
    shutdown(status_ctx.sock, SHUT_RDWR);
    pthread_join(status_ctx.thread, nullptr);
}
