/* The status port, whatever a client sends and however it leaves, and the key and the certificate that it
 * shows, whatever stands in their files. Input: a byte of choices; what the client sends, up to a zero; the
 * key's file, up to a zero, of which a "K" stands for a good one; the certificate's file. */
#include "app/bridge_status.cpp" /* for the service of one client */

#include "common/bridge_config.h"
#include "fuzz.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <string>

static constexpr uint8_t CLIENT_CLOSES = 0x01;  /* before it is served */
static constexpr uint8_t CLIENT_SHUTS = 0x02;   /* its sending side, behind what it sends */
static constexpr uint8_t NO_KEY = 0x04;         /* named in the configuration */
static constexpr uint8_t NO_CERTIFICATE = 0x08; /* file */

static constexpr const char *HEAD =
    "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nConnection: Closed\r\n\r\n"
    "@@public_key:\r\n\r\n";
static constexpr const char *MIDDLE = "\r\n@@certificate:\r\n\r\n";

bridge_main_context bridge_main_ctx;

static bridge_config_root config;
static std::string folder;
static std::string good_key;

const bridge_config_root *bridge_config_get_root_checked()
{
    return &config;
}

static void remove_folder()
{
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

static std::string make_key()
{
    const rsa_owned key(RSA_new());
    BIGNUM *exponent = BN_new();
    BN_set_word(exponent, RSA_F4);
    FUZZ_REQUIRE(RSA_generate_key_ex(key.get(), 1024, exponent, nullptr) == 1);
    BN_free(exponent);
    const bio_owned bio(BIO_new(BIO_s_mem()));
    FUZZ_REQUIRE(PEM_write_bio_RSAPrivateKey(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) ==
                 1);
    char *text = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &text);
    return {text, static_cast<size_t>(size)};
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_init_log();
    good_key = make_key();
    char pattern[] = "/dev/shm/fuzz_status_XXXXXX";
    FUZZ_REQUIRE(mkdtemp(pattern) != nullptr);
    folder = pattern;
    atexit(remove_folder);
    strcpy(config.security.private_key, (folder + "/key").c_str());
    strcpy(config.security.bridge_cert, (folder + "/certificate").c_str());
    return 0;
}

static void write_file(const char *path, const std::string &content)
{
    const bridge_fd fd(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    FUZZ_REQUIRE(write(fd.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size()));
}

/* All that the client reads. */
static std::string serve(uint8_t choices, const std::string &sent)
{
    int ends[2];
    FUZZ_REQUIRE(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
    bridge_fd client(ends[1]);
    (void)!write(client.get(), sent.data(), sent.size());
    if ((choices & CLIENT_SHUTS) != 0)
        shutdown(client.get(), SHUT_WR);
    if ((choices & CLIENT_CLOSES) != 0)
        close(client.release());
    serve_client(ends[0]);
    std::string answer;
    char part[4096];
    ssize_t count = 0;
    while (client.get() >= 0 && (count = read(client.get(), part, sizeof(part))) > 0)
        answer.append(part, static_cast<size_t>(count));
    return answer;
}

static std::string take_text(const uint8_t **next, const uint8_t *end)
{
    const uint8_t *text_end = std::find(*next, end, 0);
    std::string text(*next, text_end);
    *next = std::min(text_end + 1, end);
    return text;
}

static void check_answer(const std::string &answer, const std::string &certificate)
{
    FUZZ_REQUIRE(answer.starts_with(HEAD));
    const size_t middle = answer.find(MIDDLE);
    FUZZ_REQUIRE(middle != std::string::npos);
    const std::string key = answer.substr(strlen(HEAD), middle - strlen(HEAD));
    const std::string shown = answer.substr(middle + strlen(MIDDLE));
    FUZZ_REQUIRE(key.empty() || key.starts_with("-----BEGIN RSA PUBLIC KEY-----\n"));
    FUZZ_REQUIRE(shown == (key.empty() ? "" : certificate));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const int descriptor = fuzz_free_descriptor();
    const uint8_t choices = data[0];
    const uint8_t *next = data + 1;
    const std::string sent = take_text(&next, data + size);
    const std::string key = take_text(&next, data + size);
    write_file(config.security.private_key, key == "K" ? good_key : key);
    const std::string certificate(next, data + size);
    write_file(config.security.bridge_cert, certificate);
    if ((choices & NO_CERTIFICATE) != 0)
        unlink(config.security.bridge_cert);
    config.security.private_key_set = (choices & NO_KEY) == 0;

    const int loaded = load_keys();
    FUZZ_REQUIRE(loaded == 0 || loaded == -1);
    if (loaded == 0) {
        const std::string answer = serve(choices, sent);
        if ((choices & CLIENT_CLOSES) == 0)
            check_answer(answer, certificate.c_str());
    }
    free(status_ctx.pubkey);
    free(status_ctx.cert);
    FUZZ_REQUIRE(fuzz_free_descriptor() == descriptor);
    return 0;
}
