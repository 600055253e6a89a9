/* Generation of the key files, what each failing step says and leaves behind, and loading. */
#define OPENSSL_API_COMPAT 10100

#include "common/bridge_key_manager.h"

#include "common/bridge_config.h"
#include "common/bridge_release.h"
#include "config/captured_log.h"
#include "config/config_folder.h"
#include "keys/failing_calls.h"

#include <array>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

using rsa_owned = std::unique_ptr<RSA, bridge_release<RSA_free>>;
using bignum_owned = std::unique_ptr<BIGNUM, bridge_release<BN_free>>;
using x509_owned = std::unique_ptr<X509, bridge_release<X509_free>>;
using pkey_owned = std::unique_ptr<EVP_PKEY, bridge_release<EVP_PKEY_free>>;
using file_owned = std::unique_ptr<FILE, bridge_release<fclose>>;
using text_owned = std::unique_ptr<char, bridge_release<free>>;

/* ---- the neighbours ---- */

static bridge_config_root config;

const bridge_config_root *bridge_config_get_root_checked()
{
    return &config;
}

FAILING_CALL(RSA *, RSA_new, (), (), nullptr)
FAILING_CALL(BIGNUM *, BN_new, (), (), nullptr)
FAILING_CALL(int, BN_generate_prime_ex,
             (BIGNUM * ret, int bits, int safe, const BIGNUM *add, const BIGNUM *rem, BN_GENCB *cb),
             (ret, bits, safe, add, rem, cb), 0)
FAILING_CALL(int, RSA_generate_key_ex, (RSA * rsa, int bits, BIGNUM *e, BN_GENCB *cb), (rsa, bits, e, cb), 0)
FAILING_CALL(BIO *, BIO_new, (const BIO_METHOD *method), (method), nullptr)
FAILING_CALL(int, PEM_write_bio_RSAPrivateKey,
             (BIO * bio, const RSA *rsa, const EVP_CIPHER *enc, const unsigned char *kstr, int klen,
              pem_password_cb *cb, void *u),
             (bio, rsa, enc, kstr, klen, cb, u), 0)
FAILING_CALL(int, BIO_read, (BIO * bio, void *data, int size), (bio, data, size), -1)
FAILING_CALL(int, chmod, (const char *path, mode_t mode), (path, mode), -1)
FAILING_CALL(X509 *, X509_new, (), (), nullptr)
FAILING_CALL(int, X509_set_version, (X509 * cert, long version), (cert, version), 0)
FAILING_CALL(RSA *, PEM_read_RSAPrivateKey, (FILE * file, RSA **x, pem_password_cb *cb, void *u),
             (file, x, cb, u), nullptr)
FAILING_CALL(EVP_PKEY *, EVP_PKEY_new, (), (), nullptr)
FAILING_CALL(int, EVP_PKEY_assign, (EVP_PKEY * pkey, int type, void *key), (pkey, type, key), 0)
FAILING_CALL(int, X509_set_pubkey, (X509 * cert, EVP_PKEY *pkey), (cert, pkey), 0)
FAILING_CALL(int, X509_sign, (X509 * cert, EVP_PKEY *pkey, const EVP_MD *md), (cert, pkey, md), 0)
FAILING_CALL(int, PEM_write_X509, (FILE * file, X509 *cert), (file, cert), 0)
FAILING_CALL(int, access, (const char *path, int mode), (path, mode), -1)
FAILING_CALL(size_t, fwrite, (const void *data, size_t size, size_t count, FILE *file),
             (data, size, count, file), 0)
FAILING_CALL(size_t, fread, (void *data, size_t size, size_t count, FILE *file), (data, size, count, file), 0)

/* Asked for by the key manager alone when the test says so: the rest of the program needs its memory. */
static bool calloc_fails = false;
extern "C" void *__real_calloc(size_t count, size_t size);
extern "C" void *__wrap_calloc(size_t count, size_t size)
{
    return calloc_fails ? nullptr : __real_calloc(count, size);
}

/* ---- the tests ---- */

static const std::vector<std::string> STEPS = {"INFO generating secure prime number...",
                                               "INFO generating RSA private key...", "INFO generating done"};

class KeyManager : public testing::Test
{
  protected:
    void SetUp() override
    {
        config = {};
        let_fail("");
        use(folder.path("gateway.key"), folder.path("gateway.pem"));
    }
    void TearDown() override
    {
        let_fail("");
        ERR_clear_error();
    }

    static void use(const std::string &key, const std::string &cert)
    {
        auto &security = config.security;
        snprintf(security.private_key, sizeof(security.private_key), "%s", key.c_str());
        snprintf(security.bridge_cert, sizeof(security.bridge_cert), "%s", cert.c_str());
        security.private_key_set = security.bridge_cert_set = true;
    }

    static void let_fail(const char *call, int code = 0)
    {
        failing_call = call;
        failing_errno = code;
        calloc_fails = strcmp(call, "calloc") == 0;
    }

    /* Runs the start and keeps what it said. */
    int init()
    {
        const captured_log log;
        const int result = bridge_key_manager_init();
        let_fail("");
        logged = log.lines();
        return result;
    }

    bool exists(const char *name) const
    {
        return std::filesystem::exists(folder.path(name));
    }

    rsa_owned load_key()
    {
        const captured_log log;
        rsa_owned key(bridge_key_manager_load_from_config());
        logged = log.lines();
        return key;
    }

    text_owned load_cert()
    {
        const captured_log log;
        text_owned text(bridge_key_manager_load_cert_from_config());
        let_fail("");
        logged = log.lines();
        return text;
    }

    x509_owned read_certificate() const
    {
        const file_owned file(fopen(folder.path("gateway.pem").c_str(), "re"));
        return x509_owned(file ? PEM_read_X509(file.get(), nullptr, nullptr, nullptr) : nullptr);
    }

    config_folder folder;
    std::vector<std::string> logged;
};

TEST_F(KeyManager, FirstStartMakesKeyAndCertificate)
{
    EXPECT_EQ(init(), 0);
    EXPECT_THAT(logged, ElementsAre("INFO generating security keys in " + folder.path("gateway.key"),
                                    STEPS[0], STEPS[1], STEPS[2]));
    struct stat status = {};
    ASSERT_EQ(stat(folder.path("gateway.key").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);

    const rsa_owned key = load_key();
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(RSA_check_key(key.get()), 1);
    EXPECT_EQ(RSA_bits(key.get()), 2048);
    const BIGNUM *exponent = RSA_get0_e(key.get());
    EXPECT_EQ(BN_num_bits(exponent), 32);
    EXPECT_EQ(BN_check_prime(exponent, nullptr, nullptr), 1);
    const bignum_owned half(BN_dup(exponent));
    BN_rshift1(half.get(), half.get());
    EXPECT_EQ(BN_check_prime(half.get(), nullptr, nullptr), 1);
}

TEST_F(KeyManager, CertificateHasTheFixedProperties)
{
    ASSERT_EQ(init(), 0);
    const x509_owned cert = read_certificate();
    ASSERT_NE(cert, nullptr);
    EXPECT_EQ(X509_get_version(cert.get()), 2);
    EXPECT_EQ(ASN1_INTEGER_get(X509_get_serialNumber(cert.get())), 1);
    EXPECT_EQ(X509_get_ext_count(cert.get()), 0);
    EXPECT_EQ(X509_get_signature_nid(cert.get()), NID_sha1WithRSAEncryption);

    std::array<char, 128> subject = {};
    const X509_NAME *name = X509_get_subject_name(cert.get());
    EXPECT_STREQ(X509_NAME_oneline(name, subject.data(), subject.size()), "/C=CA/CN=localhost/O=SARNIVEL");
    EXPECT_EQ(X509_NAME_cmp(name, X509_get_issuer_name(cert.get())), 0);

    int days = 0;
    int seconds = 0;
    ASSERT_EQ(
        ASN1_TIME_diff(&days, &seconds, X509_get0_notBefore(cert.get()), X509_get0_notAfter(cert.get())), 1);
    EXPECT_EQ(days, 365);
    EXPECT_EQ(seconds, 0);
    ASSERT_EQ(ASN1_TIME_diff(&days, &seconds, X509_get0_notBefore(cert.get()), nullptr), 1);
    EXPECT_EQ(days, 0);
    EXPECT_GE(seconds, 0);
    EXPECT_LT(seconds, 60);

    const pkey_owned pkey(EVP_PKEY_new());
    EVP_PKEY_assign_RSA(pkey.get(), load_key().release());
    EXPECT_EQ(X509_check_private_key(cert.get(), pkey.get()), 1);
    EXPECT_EQ(X509_verify(cert.get(), pkey.get()), 1);
}

TEST_F(KeyManager, ExistingKeyFileIsNeverTouched)
{
    folder.write("gateway.key", "whatever\n");
    EXPECT_EQ(init(), 0);
    EXPECT_THAT(logged, IsEmpty());
    EXPECT_FALSE(exists("gateway.pem"));
    EXPECT_EQ(std::filesystem::file_size(folder.path("gateway.key")), strlen("whatever\n"));
}

TEST_F(KeyManager, WithoutAKeyPathNothingIsMade)
{
    config.security.private_key_set = false;
    EXPECT_EQ(init(), 0);
    EXPECT_THAT(logged, IsEmpty());
    EXPECT_FALSE(exists("gateway.key"));
    EXPECT_FALSE(exists("gateway.pem"));
}

TEST_F(KeyManager, WithoutACertificatePathNothingIsMade)
{
    config.security.bridge_cert_set = false;
    EXPECT_EQ(init(), -1);
    EXPECT_THAT(logged, ElementsAre("ERROR empty certificate path is not allowed"));
    EXPECT_FALSE(exists("gateway.key"));
}

TEST_F(KeyManager, QueryThatFailsOtherwiseThanByAbsenceIsAFailure)
{
    let_fail("access", EACCES);
    EXPECT_EQ(init(), -1);
    EXPECT_THAT(logged, ElementsAre("ERROR failed to query a file access: Permission denied"));
    EXPECT_FALSE(exists("gateway.key"));
}

TEST_F(KeyManager, DeinitDoesNothing)
{
    EXPECT_EQ(bridge_key_manager_deinit(), 0);
}

/* ---- failures ---- */

struct failure {
    const char *call;
    size_t steps;     /* reached before it */
    const char *text; /* null: fails without a word */
};

/* Each step that fails is told once, and then what was given up for it. */
TEST_F(KeyManager, FailedStepOfTheKeyLeavesNoKey)
{
    static constexpr failure CASES[] = {
        {"RSA_new", 0, "failed to allocate RSA context"},
        {"BN_new", 0, "failed to allocate BN context"},
        {"BN_generate_prime_ex", 1, "failed to generate prime number"},
        {"RSA_generate_key_ex", 2, "failed to generate private key"},
        {"BIO_new", 3, "failed to generate BIO context"},
        {"PEM_write_bio_RSAPrivateKey", 3, "failed to write a key"},
        {"BIO_read", 3, "failed to read BIO"},
    };
    for (const failure &row : CASES) {
        SCOPED_TRACE(row.call);
        let_fail(row.call);
        EXPECT_EQ(init(), -1);
        std::vector<std::string> expected = {"INFO generating security keys in " +
                                             folder.path("gateway.key")};
        expected.insert(expected.end(), STEPS.begin(), STEPS.begin() + static_cast<long>(row.steps));
        expected.push_back(join({"ERROR ", row.text}));
        expected.emplace_back("ERROR unable to create security keys, aborting");
        EXPECT_THAT(logged, ElementsAreArray(expected));
        EXPECT_FALSE(exists("gateway.key"));
        EXPECT_FALSE(exists("gateway.pem"));
    }
}

TEST_F(KeyManager, KeyFileThatCannotBeOpenedLosesTheKey)
{
    use(folder.path("missing/gateway.key"), folder.path("gateway.pem"));
    EXPECT_EQ(init(), -1);
    EXPECT_EQ(logged.at(4), "ERROR failed to open a keyfile");
    EXPECT_EQ(logged.at(5), "ERROR unable to create security keys, aborting");
    EXPECT_FALSE(exists("gateway.pem"));
}

TEST_F(KeyManager, ModeThatCannotBeSetIsAFailureOfTheKey)
{
    let_fail("chmod", EPERM);
    EXPECT_EQ(init(), -1);
    EXPECT_EQ(logged.back(), "ERROR unable to create security keys, aborting");
    EXPECT_EQ(logged.size(), 5U);
    EXPECT_TRUE(exists("gateway.key"));
    EXPECT_FALSE(exists("gateway.pem"));
}

TEST_F(KeyManager, KeyThatIsNotWrittenWholeIsAFailure)
{
    let_fail("fwrite", ENOSPC);
    EXPECT_EQ(init(), -1);
    EXPECT_EQ(logged.back(), "ERROR unable to create security keys, aborting");
    EXPECT_FALSE(exists("gateway.pem"));
}

static void PrintTo(const failure &row, std::ostream *out)
{
    *out << row.call;
}

/* One a test: each makes a key, which takes its time on a small gateway. */
class KeyManagerCertificate : public KeyManager, public testing::WithParamInterface<failure>
{
};

TEST_P(KeyManagerCertificate, FailedStepLeavesTheKey)
{
    const failure &row = GetParam();
    let_fail(row.call);
    EXPECT_EQ(init(), -1);
    std::vector<std::string> errors;
    if (row.text != nullptr)
        errors.push_back(join({"ERROR ", row.text}));
    errors.emplace_back("ERROR failed to generate a bridge certificate");
    EXPECT_THAT(std::vector<std::string>(logged.begin() + 4, logged.end()), ElementsAreArray(errors));
    EXPECT_NE(load_key(), nullptr);
    EXPECT_EQ(read_certificate(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Steps, KeyManagerCertificate,
                         testing::Values(failure{"X509_new", 3, "failed to allocate certificate"},
                                         failure{"X509_set_version", 3, nullptr},
                                         failure{"PEM_read_RSAPrivateKey", 3, "failed to get RSA keys"},
                                         failure{"EVP_PKEY_new", 3, "failed to allocate EVP PKEY"},
                                         failure{"EVP_PKEY_assign", 3, "failed to assign RSA to EVP"},
                                         failure{"X509_set_pubkey", 3, "failed to set EVP to certificate"},
                                         failure{"X509_sign", 3, "failed to sign certificate"},
                                         failure{"PEM_write_X509", 3, "failed to write certificate to file"}),
                         [](const auto &each) { return std::string(each.param.call); });

TEST_F(KeyManager, CertificateFileThatCannotBeOpenedIsNamed)
{
    const std::string path = folder.path("missing/gateway.pem");
    use(folder.path("gateway.key"), path);
    EXPECT_EQ(init(), -1);
    EXPECT_EQ(logged.at(4), "ERROR failed to create new certificate file: " + path);
    EXPECT_EQ(logged.at(5), "ERROR failed to generate a bridge certificate");
    EXPECT_TRUE(exists("gateway.key"));
}

/* ---- loading ---- */

TEST_F(KeyManager, KeyIsNotLoadedWhenNoneIsConfigured)
{
    config.security.private_key_set = false;
    EXPECT_EQ(load_key(), nullptr);
    EXPECT_THAT(logged, IsEmpty());
}

TEST_F(KeyManager, AbsentKeyIsNamed)
{
    EXPECT_EQ(load_key(), nullptr);
    EXPECT_THAT(logged, ElementsAre("ERROR cannot read key file: " + folder.path("gateway.key") +
                                    " with error: No such file or directory"));
}

/* It exists, and opening it fails, for root as well. */
TEST_F(KeyManager, KeyThatCannotBeOpenedIsNamed)
{
    const std::string path = folder.path("gateway.key");
    ASSERT_EQ(mknod(path.c_str(), S_IFSOCK | 0600, 0), 0);
    EXPECT_EQ(load_key(), nullptr);
    EXPECT_THAT(logged, ElementsAre("ERROR failed to open key file: " + path));
}

TEST_F(KeyManager, FileThatIsNoKeyGivesNone)
{
    folder.write("gateway.key", "no key\n");
    EXPECT_EQ(load_key(), nullptr);
    EXPECT_THAT(logged, IsEmpty());
}

/* The library's queue of errors is the thread's, and TLS connections read it too. */
TEST_F(KeyManager, GoodStartLeavesNoErrorBehind)
{
    ASSERT_EQ(init(), 0);
    EXPECT_NE(load_key(), nullptr);
    EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST_F(KeyManager, CertificateIsLoadedAsItStands)
{
    for (std::string_view content : {"", "x", "any text\nno certificate"}) {
        folder.write("gateway.pem", content);
        const text_owned text = load_cert();
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(std::string_view(text.get()), content);
        EXPECT_THAT(logged, IsEmpty());
    }
}

TEST_F(KeyManager, CertificateThatCannotBeLoadedIsTold)
{
    const std::string path = folder.path("gateway.pem");
    EXPECT_EQ(load_cert(), nullptr);
    EXPECT_THAT(logged, ElementsAre("ERROR failed to open certificate file: " + path));

    folder.write("gateway.pem", "text");
    let_fail("calloc");
    EXPECT_EQ(load_cert(), nullptr);
    EXPECT_THAT(logged, ElementsAre("ERROR failed to allocate memory for the certificate"));

    let_fail("fread");
    EXPECT_EQ(load_cert(), nullptr);
    EXPECT_THAT(logged, ElementsAre("ERROR failed to read the certificate file"));

    use(folder.path("gateway.key"), "");
    EXPECT_EQ(load_cert(), nullptr);
    EXPECT_THAT(logged, ElementsAre("ERROR empty certificate path is not allowed"));
}

TEST_F(KeyManager, MemoryForTheTextOfAKeyIsAskedFor)
{
    /* The library's own allocations are not of this call. */
    let_fail("calloc");
    EXPECT_EQ(init(), -1);
    EXPECT_EQ(logged.at(logged.size() - 2), "ERROR failed to allocate buffer for a key");
    EXPECT_FALSE(exists("gateway.key"));
}
