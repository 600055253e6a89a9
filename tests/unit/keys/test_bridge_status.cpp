/* The status server among failing calls: what the start says, and how its thread treats clients and
 * failures. */
#define OPENSSL_API_COMPAT 10100

#include "app/bridge_status.h"

#include "app/main_bridge.h"
#include "common/bridge_key_manager.h"
#include "common/bridge_release.h"
#include "common/bridge_wait.h"
#include "common/captured_stderr.h"
#include "config/captured_log.h"
#include "keys/failing_calls.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <netinet/in.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <pthread.h>
#include <string>
#include <sys/socket.h>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;

using rsa_owned = std::unique_ptr<RSA, bridge_release<RSA_free>>;
using bignum_owned = std::unique_ptr<BIGNUM, bridge_release<BN_free>>;
using bio_owned = std::unique_ptr<BIO, bridge_release<BIO_free>>;

static constexpr int32_t PORT = 8080;
static constexpr const char *CERT = "text of the certificate\n";

static const std::string HEADER = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nConnection: Closed\r\n\r\n";
static const std::string KEY_MARK = "@@public_key:\r\n\r\n";
static const std::string CERT_MARK = "\r\n@@certificate:\r\n\r\n";

/* ---- the neighbours ---- */

struct sent_bytes {
    std::string text;
    int flags;
};

/* Written before the server's thread starts, and read after it has ended. */
static struct {
    RSA *key; /* null: none is configured */
    const char *cert;
    std::vector<uint32_t> waits;
    std::vector<std::function<int()>> accepts; /* answers of accept; then the system's own */
    size_t accepted;
    std::vector<sent_bytes> sent;
    bool sends_fail;
    sockaddr_in bound;
    int backlog;
    int reuse;
} world;

bridge_main_context bridge_main_ctx;

void bridge_wait_s(uint32_t seconds)
{
    world.waits.push_back(seconds);
}

RSA *bridge_key_manager_load_from_config()
{
    if (world.key != nullptr)
        RSA_up_ref(world.key);
    return world.key;
}

/* The server keeps the text to the end of the process. */
char *bridge_key_manager_load_cert_from_config()
{
    static std::vector<std::unique_ptr<char, bridge_release<free>>> given;
    if (world.cert == nullptr)
        return nullptr;
    given.emplace_back(strdup(world.cert));
    return given.back().get();
}

FAILING_CALL(int, socket, (int domain, int type, int protocol), (domain, type, protocol), -1)
FAILING_CALL(BIO *, BIO_new, (const BIO_METHOD *method), (method), nullptr)
FAILING_CALL(int, PEM_write_bio_RSAPublicKey, (BIO * bio, const RSA *rsa), (bio, rsa), 0)
FAILING_CALL(int, BIO_read, (BIO * bio, void *data, int size), (bio, data, size), -1)
FAILING_CALL(void *, calloc, (size_t count, size_t size), (count, size), nullptr)
FAILING_CALL(int, pthread_create,
             (pthread_t * thread, const pthread_attr_t *attr, void *(*routine)(void *), void *argument),
             (thread, attr, routine, argument), EAGAIN)

extern "C" {
int __real_setsockopt(int sock, int level, int option, const void *value, socklen_t size);
int __real_bind(int sock, const sockaddr *address, socklen_t size);
int __real_listen(int sock, int backlog);
int __real_accept4(int sock, sockaddr *address, socklen_t *size, int flags);
ssize_t __real_send(int sock, const void *data, size_t size, int flags);

int __wrap_setsockopt(int sock, int level, int option, const void *value, socklen_t size)
{
    if (level == SOL_SOCKET && option == SO_REUSEADDR)
        world.reuse = *static_cast<const int *>(value);
    return fails("setsockopt") ? -1 : __real_setsockopt(sock, level, option, value, size);
}

/* Another port than the one asked for: that one may be taken. */
int __wrap_bind(int sock, const sockaddr *address, socklen_t size)
{
    if (fails("bind"))
        return -1;
    memcpy(&world.bound, address, sizeof(world.bound));
    sockaddr_in any_port = world.bound;
    any_port.sin_port = 0;
    return __real_bind(sock, reinterpret_cast<const sockaddr *>(&any_port), size);
}

int __wrap_listen(int sock, int backlog)
{
    world.backlog = backlog;
    return fails("listen") ? -1 : __real_listen(sock, backlog);
}

int __wrap_accept4(int sock, sockaddr *address, socklen_t *size, int flags)
{
    if (world.accepted < world.accepts.size())
        return world.accepts[world.accepted++]();
    return __real_accept4(sock, address, size, flags);
}

ssize_t __wrap_send(int sock, const void *data, size_t size, int flags)
{
    world.sent.push_back({std::string(static_cast<const char *>(data), size), flags});
    if (world.sends_fail) {
        errno = EPIPE;
        return -1;
    }
    return __real_send(sock, data, size, flags);
}
}

/* ---- the tests ---- */

static size_t open_files()
{
    size_t count = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        (void)entry;
        ++count;
    }
    return count;
}

static int fail_with(int code)
{
    errno = code;
    return -1;
}

/* As after the stop signal: the listening socket has been shut down. */
static int fail_at_the_end()
{
    bridge_main_ctx.running = false;
    return fail_with(EINVAL);
}

class StatusServer : public testing::Test
{
  protected:
    static void SetUpTestSuite()
    {
        key = RSA_new();
        const bignum_owned exponent(BN_new());
        BN_set_word(exponent.get(), RSA_F4);
        ASSERT_EQ(RSA_generate_key_ex(key, 2048, exponent.get(), nullptr), 1);
        const bio_owned bio(BIO_new(BIO_s_mem()));
        ASSERT_EQ(PEM_write_bio_RSAPublicKey(bio.get(), key), 1);
        std::array<char, 4096> text = {};
        ASSERT_GT(BIO_read(bio.get(), text.data(), text.size() - 1), 0);
        public_key = text.data();
    }
    static void TearDownTestSuite()
    {
        RSA_free(key);
        key = nullptr;
    }

    void SetUp() override
    {
        failing_call = "";
        world = {};
        world.key = key;
        world.cert = CERT;
        bridge_main_ctx.running = true;
    }
    void TearDown() override
    {
        failing_call = "";
    }

    int start()
    {
        const captured_log log;
        const int result = bridge_status_server_start(PORT);
        failing_call = "";
        logged = log.lines();
        return result;
    }

    /* Serves by the script up to its end. */
    void serve(std::vector<std::function<int()>> accepts)
    {
        world.accepts = std::move(accepts);
        world.accepts.emplace_back(fail_at_the_end);
        const captured_log log;
        ASSERT_EQ(bridge_status_server_start(PORT), 0);
        bridge_status_server_stop();
        logged = log.lines();
    }

    static std::vector<std::string> sent_texts()
    {
        std::vector<std::string> texts;
        for (const sent_bytes &each : world.sent)
            texts.push_back(each.text);
        return texts;
    }

    static RSA *key;
    static std::string public_key;
    std::vector<std::string> logged;
};

RSA *StatusServer::key = nullptr;
std::string StatusServer::public_key;

using StatusServerDeath = StatusServer;

TEST_F(StatusServer, FailedStepOfTheStartIsToldAndClosesTheSocket)
{
    static constexpr struct {
        const char *call;
        const char *text;
    } CASES[] = {
        {"socket", "failed to create a socket"},
        {"setsockopt", "failed to setsockopt"},
        {"bind", "failed to bind to port"},
        {"BIO_new", "cannot allocate BIO context"},
        {"PEM_write_bio_RSAPublicKey", "public key write failed"},
        {"calloc", "failed to allocate buffer for the public key"},
        {"BIO_read", "failed to read BIO"},
    };
    for (const auto &row : CASES) {
        SCOPED_TRACE(row.call);
        const size_t files = open_files();
        failing_call = row.call;
        EXPECT_EQ(start(), -1);
        EXPECT_EQ(open_files(), files);
        EXPECT_EQ(logged.front(), "INFO initializing a status server on port: 8080");
        std::vector<std::string> errors;
        for (const std::string &line : logged) {
            if (line.starts_with("ERROR "))
                errors.push_back(line);
        }
        EXPECT_THAT(errors, ElementsAre(join({"ERROR ", row.text})));
    }
}

TEST_F(StatusServer, CertificateThatCannotBeLoadedEndsTheStart)
{
    world.cert = nullptr;
    const size_t files = open_files();
    EXPECT_EQ(start(), -1);
    EXPECT_EQ(open_files(), files);
    EXPECT_THAT(logged, ElementsAre("INFO initializing a status server on port: 8080",
                                    "ERROR failed to read certificate"));
}

/* In a process of its own: what has been loaded goes with the process. */
TEST_F(StatusServerDeath, ThreadThatCannotBeMadeEndsTheStartWithoutAWord)
{
    EXPECT_EXIT(
        {
            bridge_log_init(BRIDGE_LOG_INFO, true);
            const size_t files = open_files();
            failing_call = "pthread_create";
            _exit(bridge_status_server_start(PORT) == -1 && open_files() == files ? 0 : 1);
        },
        testing::ExitedWithCode(0), "initializing a status server on port: 8080\n$");
}

TEST_F(StatusServer, StartListensOnAllAddressesAndShowsWhatItHandsOut)
{
    serve({});
    EXPECT_EQ(world.bound.sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(ntohs(world.bound.sin_port), PORT);
    EXPECT_EQ(world.backlog, 4);
    EXPECT_EQ(world.reuse, 1);
    EXPECT_EQ(logged.at(0), "INFO initializing a status server on port: 8080");
    EXPECT_EQ(logged.at(1), "DEBUG loaded public key:");
    EXPECT_EQ(logged.at(2), "?-----BEGIN RSA PUBLIC KEY-----");
    const auto at = std::find(logged.begin(), logged.end(), "DEBUG loaded certificate:");
    ASSERT_NE(at, logged.end());
    EXPECT_THAT(std::vector<std::string>(at + 1, logged.end()),
                ElementsAre("?text of the certificate", "?", "INFO starting listening for a status requests",
                            "TRACE got client socket: -1", "INFO stopping status thread"));
}

TEST_F(StatusServer, ResultOfListenIsNotExamined)
{
    failing_call = "listen";
    serve({});
    EXPECT_EQ(logged.back(), "INFO stopping status thread");
}

TEST_F(StatusServer, ReplyIsSentPieceByPieceWithoutASignal)
{
    serve({[] { return __real_socket(AF_INET, SOCK_STREAM, 0); }});
    EXPECT_THAT(sent_texts(), ElementsAre(HEADER, KEY_MARK, public_key, CERT_MARK, CERT));
    for (const sent_bytes &each : world.sent)
        EXPECT_TRUE((each.flags & MSG_NOSIGNAL) != 0);
}

TEST_F(StatusServer, ReplyWithoutKeysIsThreePieces)
{
    world.key = nullptr;
    world.cert = CERT; /* not even looked at */
    serve({[] { return __real_socket(AF_INET, SOCK_STREAM, 0); }});
    EXPECT_THAT(sent_texts(), ElementsAre(HEADER, KEY_MARK, CERT_MARK));
    EXPECT_THAT(logged, ElementsAre("INFO initializing a status server on port: 8080",
                                    "INFO starting listening for a status requests", testing::_,
                                    "TRACE got client socket: -1", "INFO stopping status thread"));
}

TEST_F(StatusServer, FailedSendsEndNeitherTheReplyNorTheServer)
{
    world.sends_fail = true;
    const auto client = [] { return __real_socket(AF_INET, SOCK_STREAM, 0); };
    const size_t files = open_files();
    serve({client, client});
    EXPECT_THAT(sent_texts(), ElementsAre(HEADER, KEY_MARK, public_key, CERT_MARK, CERT, HEADER, KEY_MARK,
                                          public_key, CERT_MARK, CERT));
    EXPECT_EQ(open_files(), files);
}

TEST_F(StatusServer, FailedWaitForAClientIsTriedAgainAfterTenSeconds)
{
    serve({[] { return fail_with(EMFILE); }, [] { return fail_with(ECONNABORTED); },
           [] { return __real_socket(AF_INET, SOCK_STREAM, 0); }, [] { return fail_with(EMFILE); }});
    EXPECT_THAT(world.waits, ElementsAre(10U, 10U, 10U));
    EXPECT_EQ(world.sent.size(), 5U);
    EXPECT_EQ(std::count(logged.begin(), logged.end(), "TRACE got client socket: -1"), 4);
    EXPECT_EQ(logged.back(), "INFO stopping status thread");
}

/* The server starts before the daemon counts as running. */
TEST_F(StatusServer, FailedWaitBeforeTheDaemonRunsEndsTheThread)
{
    bridge_main_ctx.running = false;
    serve({[] { return fail_with(EMFILE); }});
    EXPECT_THAT(world.waits, IsEmpty());
    EXPECT_EQ(world.accepted, 1U);
    EXPECT_EQ(logged.back(), "INFO stopping status thread");
}

TEST_F(StatusServer, StopEndsAThreadThatWaitsForAClient)
{
    const captured_log log;
    ASSERT_EQ(bridge_status_server_start(PORT), 0);
    ASSERT_TRUE(log.wait_for("INFO starting listening for a status requests"));
    bridge_main_ctx.running = false;
    bridge_status_server_stop();
    EXPECT_EQ(log.lines().back(), "INFO stopping status thread");
    EXPECT_THAT(world.waits, IsEmpty());
}

TEST_F(StatusServerDeath, PortIsAsserted)
{
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    EXPECT_ASSERTION(bridge_status_server_start(0), "port > 0");
    EXPECT_ASSERTION(bridge_status_server_start(-1), "port > 0");
}
