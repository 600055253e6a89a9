/* Transfers by the real library, with a server of the test's own; and the library's failures. */
#include "common/bridge_fileops_curl.h"

#include "common/bridge_config.h"
#include "common/bridge_fileops_watch.h"
#include "common/bridge_wait.h"
#include "config/captured_log.h"
#include "control/failing_calls.h"
#include "fileops/fileops_fixture.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <dlfcn.h>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

FAILING_CALL(CURL *, curl_easy_init, (), (), nullptr)
FAILING_CALL(curl_mime *, curl_mime_init, (CURL * curl), (curl), nullptr)
FAILING_CALL(curl_mimepart *, curl_mime_addpart, (curl_mime * mime), (mime), nullptr)
FAILING_CALL(CURLU *, curl_url, (), (), nullptr)
FAILING_CALL(pid_t, fork, (), (), -1)
FAILING_CALL(FILE *, fdopen, (int fd, const char *mode), (fd, mode), nullptr)

/* ---- neighbours ---- */

static bool library_is_missing;

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes the names
extern "C" void *__real_dlopen(const char *name, int flags);
extern "C" void *__wrap_dlopen(const char *name, int flags)
{
    return __real_dlopen(library_is_missing ? "libno-such.so.4" : name, flags);
}

/* Those that can fail are found here. */
extern "C" void *__real_dlsym(void *library, const char *name);
extern "C" void *__wrap_dlsym(void *library, const char *name)
{
    static const struct {
        const char *name;
        void *function;
    } rows[] = {
        {"curl_easy_init", reinterpret_cast<void *>(curl_easy_init)},
        {"curl_mime_init", reinterpret_cast<void *>(curl_mime_init)},
        {"curl_mime_addpart", reinterpret_cast<void *>(curl_mime_addpart)},
        {"curl_url", reinterpret_cast<void *>(curl_url)},
    };
    for (const auto &row : rows) {
        if (strcmp(name, row.name) == 0)
            return row.function;
    }
    return __real_dlsym(library, name);
}
// NOLINTEND(bugprone-reserved-identifier)

const bridge_config_root *bridge_config_get_root_checked()
{
    static const bridge_config_root root = {.generic = {.gw_mac = "0016c001f1500a0b"}};
    return &root;
}

/* The updater is a child: what it did is seen by the file. */
int bridge_fileops_update_tmst(const bridge_fileops_watch_dir *dir)
{
    std::ofstream(dir->tmst, std::ios::app) << "fresh\n";
    return 0;
}

void bridge_wait_s(uint32_t seconds)
{
    EXPECT_EQ(seconds, 1U);
    poll(nullptr, 0, 1); /* leaves the processor to the test */
}

/* ---- the server ---- */

static bool send_all(int client, const std::string &text)
{
    return send(client, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

/* Answers each request with the same text and closes; `before_answer` runs between the two. */
class one_answer_server
{
  public:
    explicit one_answer_server(
        std::string reply, std::function<void()> before_answer = [] {})
        : reply_(std::move(reply)), before_answer_(std::move(before_answer))
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        EXPECT_EQ(bind(listener_.get(), reinterpret_cast<const sockaddr *>(&address), size), 0);
        EXPECT_EQ(listen(listener_.get(), 4), 0);
        getsockname(listener_.get(), reinterpret_cast<sockaddr *>(&address), &size);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~one_answer_server()
    {
        shutdown(listener_.get(), SHUT_RDWR);
        thread_.join();
    }
    one_answer_server(const one_answer_server &) = delete;
    one_answer_server &operator=(const one_answer_server &) = delete;

    std::string address() const
    {
        return "127.0.0.1:" + std::to_string(port_);
    }
    std::string url() const
    {
        return "http://" + address() + "/file";
    }
    std::vector<std::string> requests()
    {
        const std::lock_guard guard(mutex_);
        return requests_;
    }

  private:
    static std::string read_request(int client)
    {
        std::string text;
        size_t wanted = std::string::npos;
        char piece[4096];
        while (text.size() < wanted) {
            const ssize_t count = recv(client, piece, sizeof(piece), 0);
            if (count <= 0)
                return text;
            text.append(piece, static_cast<size_t>(count));
            const size_t end = text.find("\r\n\r\n");
            const size_t length = text.find("Content-Length: ");
            if (end != std::string::npos)
                wanted = end + 4 + (length < end ? std::stoul(text.substr(length + 16)) : 0);
        }
        return text;
    }

    void serve()
    {
        for (;;) {
            const bridge_fd client(accept(listener_.get(), nullptr, nullptr));
            if (client.get() < 0)
                return;
            std::string request = read_request(client.get());
            {
                const std::lock_guard guard(mutex_);
                requests_.push_back(std::move(request));
            }
            before_answer_();
            EXPECT_TRUE(send_all(client.get(), reply_));
        }
    }

    const std::string reply_;
    const std::function<void()> before_answer_;
    const bridge_fd listener_{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    uint16_t port_ = 0;
    std::mutex mutex_;
    std::vector<std::string> requests_;
    std::thread thread_;
};

static std::string ok_reply(const std::string &body)
{
    return join({"HTTP/1.1 200 OK\r\nContent-Length: ", std::to_string(body.size()),
                 "\r\nConnection: close\r\n\r\n", body});
}

/* ---- fixture ---- */

class FileopsCurl : public testing::Test
{
  protected:
    ~FileopsCurl() override
    {
        let_all_pass();
    }

    int upload(const std::string &url, const std::string &path, uint64_t size = 4, off_t offset = 2,
               const char *tmst = nullptr)
    {
        const bridge_fileops_upload request = {.real_path = path.c_str(),
                                               .virtual_path = "logs/a.log",
                                               .tmst_path = tmst,
                                               .url = url.c_str(),
                                               .offset = offset,
                                               .size = size};
        return bridge_fileops_curl_upload(&request);
    }

    static std::string content_of(const std::string &path)
    {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    captured_log log;
    temporary_folder real;
    const std::string file = real.make_file("a.log", "0123456789");
    const std::string target = real.below("fetched");
};

/* ---- upload ---- */

TEST_F(FileopsCurl, AnUploadPostsThePartOfTheFileWithItsNames)
{
    one_answer_server server(ok_reply("thanks"));
    EXPECT_EQ(upload(server.url(), file), 0);
    const std::vector<std::string> requests = server.requests();
    ASSERT_EQ(requests.size(), 1U);
    const std::string &request = requests.front();
    EXPECT_THAT(request, testing::StartsWith("POST /file HTTP/1.1\r\n"));
    EXPECT_THAT(request, testing::Not(HasSubstr("Expect:")));
    EXPECT_THAT(request, HasSubstr("name=\"filedata\"; filename=\"a.log\"\r\n"));
    EXPECT_THAT(request, HasSubstr("\r\n\r\n2345\r\n--"));
    EXPECT_THAT(request, HasSubstr("name=\"mac\"\r\n\r\n0016c001f1500a0b\r\n"));
    EXPECT_THAT(request, HasSubstr("name=\"filepath\"\r\n\r\nlogs/a.log\r\n"));
    EXPECT_EQ(log.complaints(), std::vector<std::string>());
}

TEST_F(FileopsCurl, TheAnswerToAnUploadIsDropped)
{
    one_answer_server server(ok_reply("thanks"));
    captured_stream output(stdout);
    EXPECT_EQ(upload(server.url(), file), 0);
    EXPECT_EQ(output.text(), "");
}

TEST_F(FileopsCurl, AnUploadThatNobodyTakesIsNoFailure)
{
    std::string closed;
    {
        const one_answer_server gone("");
        closed = gone.url();
    }
    EXPECT_EQ(upload(closed, file), 0);
    EXPECT_THAT(log.lines(), Contains(HasSubstr("DEBUG curl: easy_perform() failed: ")));
    one_answer_server refusing("HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(upload(refusing.url(), file), 0);
}

TEST_F(FileopsCurl, WhatCannotBeReadIsNotPosted)
{
    one_answer_server server(ok_reply(""));
    std::filesystem::create_symlink(file, real.below("link"));
    struct row {
        std::string path;
        uint64_t size;
        int result;
        const char *line;
    };
    const row rows[] = {
        {real.below("missing"), 4, -ENOENT,
         "ERROR curl: failed to open file for reading: No such file or directory"},
        {real.below("link"), 4, -ELOOP,
         "ERROR curl: failed to open file for reading: Too many levels of symbolic links"},
        {file, UINT64_MAX, -ENOMEM, "ERROR curl: failed to map a file: Cannot allocate memory"},
        {real.path, 4, -ENODEV, "ERROR curl: failed to map a file: No such device"},
    };
    for (const row &each : rows) {
        const log_view view = log.from_here();
        EXPECT_EQ(upload(server.url(), each.path, each.size), each.result);
        EXPECT_THAT(view.complaints(), ElementsAre(each.line));
    }
    EXPECT_THAT(server.requests(), IsEmpty());
}

TEST_F(FileopsCurl, AnUploadNeedsAName)
{
    const bridge_fileops_upload request = {
        .real_path = file.c_str(), .virtual_path = "/", .url = "http://127.0.0.1/", .size = 1};
    EXPECT_EQ(bridge_fileops_curl_upload(&request), -EINVAL);
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR failed to extract virtual filename from path"));
}

TEST_F(FileopsCurl, WhileAnUploadLastsItsTimestampIsKeptFresh)
{
    const std::string tmst = real.below("tmst");
    const auto times = [&tmst] { return content_of(tmst).size() / sizeof("fresh"); };
    one_answer_server server(ok_reply(""),
                             [&times] { EXPECT_TRUE(wait_until([&times] { return times() >= 3; })); });
    EXPECT_EQ(upload(server.url(), file, 4, 2, tmst.c_str()), 0);
    int status = 0;
    EXPECT_GT(waitpid(-1, &status, 0), 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << "it ends with the upload";
}

TEST_F(FileopsCurl, WithoutAnUpdaterTheUploadGoesOn)
{
    one_answer_server server(ok_reply(""));
    let_fail("fork", EAGAIN);
    EXPECT_EQ(upload(server.url(), file, 4, 2, "tmst"), 0);
    EXPECT_THAT(log.complaints(), ElementsAre("WARN curl: failed to start timestamp update process: Resource "
                                              "temporarily unavailable"));
    EXPECT_EQ(server.requests().size(), 1U);
}

/* ---- download ---- */

TEST_F(FileopsCurl, WhatTheServerAnswersBecomesTheFile)
{
    static constexpr const char *REPLIES[] = {
        "HTTP/1.1 200 OK\r\nContent-Length: 4\r\nConnection: close\r\n\r\nbody",
        "HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\nConnection: close\r\n\r\nbody",
        "HTTP/1.1 302 Found\r\nLocation: /elsewhere\r\nContent-Length: 4\r\nConnection: close\r\n\r\nbody",
    };
    for (const char *reply : REPLIES) {
        real.make_file("fetched", "a longer text that was there before");
        one_answer_server server(reply);
        EXPECT_EQ(bridge_fileops_curl_download(server.url().c_str(), target.c_str()), 0);
        EXPECT_EQ(content_of(target), "body");
        EXPECT_EQ(server.requests().size(), 1U) << "nothing follows a redirection";
    }
}

TEST_F(FileopsCurl, AUrlWithoutASchemeIsOneOfHttp)
{
    one_answer_server server(ok_reply("body"));
    EXPECT_EQ(bridge_fileops_curl_download((server.address() + "/f").c_str(), target.c_str()), 0);
    EXPECT_TRUE(log.has(join({"DEBUG curl: new url: http://", server.address(), "/f"})));
    EXPECT_EQ(content_of(target), "body");
}

TEST_F(FileopsCurl, ABrokenTransferLeavesWhatHasCome)
{
    one_answer_server server("HTTP/1.1 200 OK\r\nContent-Length: 40\r\n\r\nhalf");
    EXPECT_EQ(bridge_fileops_curl_download(server.url().c_str(), target.c_str()), -EIO);
    EXPECT_EQ(content_of(target), "half");
}

TEST_F(FileopsCurl, AUrlThatLeadsToNoServerIsRefused)
{
    const std::string urls[] = {
        join({"file://", file}), "gopher://127.0.0.1/", "dict://127.0.0.1/", "http://", "", "http://a b/"};
    for (const std::string &url : urls) {
        const log_view view = log.from_here();
        EXPECT_EQ(bridge_fileops_curl_download(url.c_str(), target.c_str()), -EIO) << url;
        EXPECT_EQ(content_of(target), "");
        EXPECT_EQ(upload(url, file), -EIO) << url;
        static constexpr const char *LINE = "ERROR curl: failed to initialize URL object";
        EXPECT_THAT(view.complaints(), ElementsAre(LINE, LINE));
    }
}

TEST_F(FileopsCurl, WhatCannotBeWrittenIsNotFetched)
{
    one_answer_server server(ok_reply("body"));
    std::filesystem::create_symlink(file, real.below("link"));
    EXPECT_EQ(bridge_fileops_curl_download(server.url().c_str(), real.below("link").c_str()), -ELOOP);
    EXPECT_EQ(bridge_fileops_curl_download(server.url().c_str(), real.below("no/file").c_str()), -ENOENT);
    let_fail("fdopen", ENOMEM);
    EXPECT_EQ(bridge_fileops_curl_download(server.url().c_str(), target.c_str()), -ENOMEM);
    EXPECT_THAT(log.complaints(),
                ElementsAre("ERROR curl: failed to open file for writing: Too many levels of symbolic links",
                            "ERROR curl: failed to open file for writing: No such file or directory",
                            "ERROR curl: failed to open file for writing: Cannot allocate memory"));
    EXPECT_EQ(content_of(file), "0123456789");
    EXPECT_THAT(server.requests(), IsEmpty());
}

/* A full disk is no short file, but a failure. */
TEST_F(FileopsCurl, AFullDiskFailsTheFetch)
{
    one_answer_server server(ok_reply("body"));
    EXPECT_EQ(bridge_fileops_curl_download(server.url().c_str(), "/dev/full"), -EIO);
}

/* ---- the library's failures ---- */

TEST_F(FileopsCurl, FailuresOfTheLibraryAreTold)
{
    static constexpr struct {
        const char *call;
        int upload_result;
        int download_result;
        const char *line;
    } rows[] = {
        {"curl_easy_init", -ENOMEM, -ENOMEM, "ERROR curl: failed to init library"},
        {"curl_url", -EIO, -EIO, "ERROR curl: failed allocate URL object"},
        {"curl_mime_init", -ENOMEM, 0, "ERROR curl: failed to init mime"},
        {"curl_mime_addpart", -ENOMEM, 0, "ERROR curl: failed to init mime"},
    };
    one_answer_server server(ok_reply("body"));
    for (const auto &row : rows) {
        const log_view view = log.from_here();
        let_fail(row.call);
        EXPECT_EQ(upload(server.url(), file), row.upload_result) << row.call;
        EXPECT_THAT(view.complaints(), ElementsAre(row.line));
        let_fail(row.call);
        EXPECT_EQ(bridge_fileops_curl_download(server.url().c_str(), target.c_str()), row.download_result);
    }
}

TEST_F(FileopsCurl, AMissingLibraryFailsTheTransfer)
{
    one_answer_server server(ok_reply("body"));
    library_is_missing = true;
    EXPECT_EQ(upload(server.url(), file), -EIO);
    EXPECT_EQ(bridge_fileops_curl_download(server.url().c_str(), target.c_str()), -EIO);
    library_is_missing = false;
    static constexpr const char *LINE = "ERROR curl: failed to load library: libno-such.so.4: cannot open "
                                        "shared object file: No such file or directory";
    EXPECT_THAT(log.complaints(), ElementsAre(LINE, LINE));
    EXPECT_THAT(server.requests(), IsEmpty());
}
