/* Generation and loading of the key files. The key's form and its calls are those of OpenSSL 1.1. */
#define OPENSSL_API_COMPAT 10100

#include "common/bridge_key_manager.h"

#include "common/bridge_config.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr int KEY_BITS = 2048;
static constexpr int EXPONENT_BITS = 32;
static constexpr mode_t KEY_MODE = 0600;
static constexpr long CERT_VERSION_3 = 2;
static constexpr long CERT_SERIAL = 1;
static constexpr long CERT_LIFETIME_S = 365L * 86400;

using rsa_owned = std::unique_ptr<RSA, bridge_release<RSA_free>>;
using bignum_owned = std::unique_ptr<BIGNUM, bridge_release<BN_free>>;
using bio_owned = std::unique_ptr<BIO, bridge_release<BIO_free>>;
using x509_owned = std::unique_ptr<X509, bridge_release<X509_free>>;
using pkey_owned = std::unique_ptr<EVP_PKEY, bridge_release<EVP_PKEY_free>>;
using file_owned = std::unique_ptr<FILE, bridge_release<fclose>>;
using text_owned = std::unique_ptr<char, bridge_release<free>>;

/* ---- the key ---- */

/* The public exponent is a random safe prime, not a fixed one. */
static int make_rsa(RSA *rsa, BIGNUM *exponent)
{
    BRIDGE_INFO("generating secure prime number...");
    if (BN_generate_prime_ex(exponent, EXPONENT_BITS, 1, nullptr, nullptr, nullptr) != 1) {
        BRIDGE_ERROR("failed to generate prime number");
        return -1;
    }
    BRIDGE_INFO("generating RSA private key...");
    if (RSA_generate_key_ex(rsa, KEY_BITS, exponent, nullptr) != 1) {
        BRIDGE_ERROR("failed to generate private key");
        return -1;
    }
    BRIDGE_INFO("generating done");
    return 0;
}

/* The whole of a memory BIO, terminated, on the heap; or null after logging why. */
static char *read_bio(BIO *bio, size_t *size)
{
    *size = BIO_ctrl_pending(bio);
    text_owned text(static_cast<char *>(calloc(*size + 1, 1)));
    if (!text) {
        BRIDGE_ERROR("failed to allocate buffer for a key");
        return nullptr;
    }
    if (BIO_read(bio, text.get(), static_cast<int>(*size)) < 1) {
        BRIDGE_ERROR("failed to read BIO");
        return nullptr;
    }
    return text.release();
}

/* The file is narrowed behind the write, not before it. Half a key must not stay: no later start replaces a
 * file. */
static int write_key_file(const char *path, const char *text, size_t size)
{
    const file_owned file(fopen(path, "we"));
    if (!file) {
        BRIDGE_ERROR("failed to open a keyfile");
        return -1;
    }
    if (fwrite(text, 1, size, file.get()) != size || fflush(file.get()) != 0) {
        BRIDGE_ERROR("failed to write a keyfile: %m");
        unlink(path);
        return -1;
    }
    return chmod(path, KEY_MODE);
}

static int generate_key(const char *path)
{
    BRIDGE_ASSERT(path);
    BRIDGE_INFO("generating security keys in %s", path);
    const rsa_owned rsa(RSA_new());
    if (!rsa) {
        BRIDGE_ERROR("failed to allocate RSA context");
        return -1;
    }
    const bignum_owned exponent(BN_new());
    if (!exponent) {
        BRIDGE_ERROR("failed to allocate BN context");
        return -1;
    }
    if (make_rsa(rsa.get(), exponent.get()) < 0)
        return -1;

    const bio_owned bio(BIO_new(BIO_s_mem()));
    if (!bio) {
        BRIDGE_ERROR("failed to generate BIO context");
        return -1;
    }
    if (PEM_write_bio_RSAPrivateKey(bio.get(), rsa.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
        BRIDGE_ERROR("failed to write a key");
        return -1;
    }
    size_t size = 0;
    const text_owned text(read_bio(bio.get(), &size));
    return text ? write_key_file(path, text.get(), size) : -1;
}

/* ---- the certificate ---- */

static RSA *read_key_file(const char *path)
{
    const file_owned file(fopen(path, "re"));
    return file ? PEM_read_RSAPrivateKey(file.get(), nullptr, nullptr, nullptr) : nullptr;
}

static void add_name_entry(X509_NAME *name, const char *field, const char *value)
{
    X509_NAME_add_entry_by_txt(name, field, MBSTRING_ASC, reinterpret_cast<const unsigned char *>(value), -1,
                               -1, 0);
}

static void name_certificate(X509 *cert)
{
    X509_NAME *name = X509_get_subject_name(cert);
    BRIDGE_ASSERT_TEXT(name != nullptr, "name != NULL");
    add_name_entry(name, "C", "CA");
    add_name_entry(name, "CN", "localhost");
    add_name_entry(name, "O", "SARNIVEL");
    X509_set_issuer_name(cert, name);
}

static int sign_certificate(X509 *cert, const char *key_path)
{
    rsa_owned rsa(read_key_file(key_path));
    if (!rsa) {
        BRIDGE_ERROR("failed to get RSA keys");
        return -1;
    }
    const pkey_owned pkey(EVP_PKEY_new());
    if (!pkey) {
        BRIDGE_ERROR("failed to allocate EVP PKEY");
        return -1;
    }
    if (EVP_PKEY_assign_RSA(pkey.get(), rsa.get()) != 1) {
        BRIDGE_ERROR("failed to assign RSA to EVP");
        return -1;
    }
    (void)rsa.release(); /* the EVP_PKEY owns it now */
    if (X509_set_pubkey(cert, pkey.get()) != 1) {
        BRIDGE_ERROR("failed to set EVP to certificate");
        return -1;
    }
    if (X509_sign(cert, pkey.get(), EVP_sha1()) == 0) {
        BRIDGE_ERROR("failed to sign certificate");
        return -1;
    }
    return 0;
}

static int write_certificate(X509 *cert, const char *cert_path)
{
    const file_owned file(fopen(cert_path, "we"));
    if (!file) {
        BRIDGE_ERROR("failed to create new certificate file: %s", cert_path);
        return -1;
    }
    if (PEM_write_X509(file.get(), cert) != 1 || fflush(file.get()) != 0) {
        BRIDGE_ERROR("failed to write certificate to file");
        return -1;
    }
    return 0;
}

static int generate_certificate(const char *path, const char *cert_path)
{
    BRIDGE_ASSERT(path);
    BRIDGE_ASSERT(cert_path);
    const x509_owned cert(X509_new());
    if (!cert) {
        BRIDGE_ERROR("failed to allocate certificate");
        return -1;
    }
    if (X509_set_version(cert.get(), CERT_VERSION_3) != 1)
        return -1;
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), CERT_SERIAL);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), CERT_LIFETIME_S);
    name_certificate(cert.get());
    if (sign_certificate(cert.get(), path) < 0)
        return -1;
    return write_certificate(cert.get(), cert_path);
}

int bridge_key_manager_init()
{
    const auto &security = bridge_config_get_root_checked()->security;
    if (!security.private_key_set)
        return 0;
    if (!security.bridge_cert_set) {
        BRIDGE_ERROR("empty certificate path is not allowed");
        return -1;
    }
    if (access(security.private_key, F_OK) == 0)
        return 0;
    if (errno != ENOENT) {
        BRIDGE_ERROR("failed to query a file access: %m");
        return -1;
    }
    if (generate_key(security.private_key) < 0) {
        BRIDGE_ERROR("unable to create security keys, aborting");
        return -1;
    }
    if (generate_certificate(security.private_key, security.bridge_cert) < 0) {
        BRIDGE_ERROR("failed to generate a bridge certificate");
        return -1;
    }
    return 0;
}

int bridge_key_manager_deinit()
{
    return 0;
}

/* ---- loading ---- */

RSA *bridge_key_manager_load_from_config()
{
    const auto &security = bridge_config_get_root_checked()->security;
    if (!security.private_key_set)
        return nullptr;
    if (access(security.private_key, F_OK) != 0) {
        BRIDGE_ERROR("cannot read key file: %s with error: %m", security.private_key);
        return nullptr;
    }
    const file_owned file(fopen(security.private_key, "re"));
    if (!file) {
        BRIDGE_ERROR("failed to open key file: %s", security.private_key);
        return nullptr;
    }
    return PEM_read_RSAPrivateKey(file.get(), nullptr, nullptr, nullptr);
}

char *bridge_key_manager_load_cert_from_config()
{
    const char *path = bridge_config_get_root_checked()->security.bridge_cert;
    if (*path == '\0') {
        BRIDGE_ERROR("empty certificate path is not allowed");
        return nullptr;
    }
    const file_owned file(fopen(path, "re"));
    if (!file) {
        BRIDGE_ERROR("failed to open certificate file: %s", path);
        return nullptr;
    }
    fseek(file.get(), 0, SEEK_END);
    const long end = ftell(file.get());
    rewind(file.get());
    const size_t size = end > 0 ? static_cast<size_t>(end) : 0;
    text_owned text(end >= 0 ? static_cast<char *>(calloc(size + 1, 1)) : nullptr);
    if (!text) {
        BRIDGE_ERROR("failed to allocate memory for the certificate");
        return nullptr;
    }
    if (fread(text.get(), 1, size, file.get()) != size) {
        BRIDGE_ERROR("failed to read the certificate file");
        return nullptr;
    }
    return text.release();
}
