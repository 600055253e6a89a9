/* Multipart upload from a mapping, and download into a file. */
#include "common/bridge_fileops_curl.h"

#include "common/bridge_config.h"
#include "common/bridge_curl_lazy.h"
#include "common/bridge_fileops.h"
#include "common/bridge_fileops_watch.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "common/bridge_wait.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <strings.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

static constexpr long UPLOAD_BUFFER = 512L * 1024;

static const bridge_curl *library; /* as soon as a transfer has loaded it */

static void release_curl(CURL *curl)
{
    library->easy_cleanup(curl);
}

static void release_mime(curl_mime *mime)
{
    library->mime_free(mime);
}

static void release_url(CURLU *url)
{
    library->url_cleanup(url);
}

static void release_slist(curl_slist *list)
{
    library->slist_free_all(list);
}

static void release_text(char *text)
{
    library->free(text);
}

using curl_owned = std::unique_ptr<CURL, bridge_release<release_curl>>;
using mime_owned = std::unique_ptr<curl_mime, bridge_release<release_mime>>;
using url_owned = std::unique_ptr<CURLU, bridge_release<release_url>>;
using slist_owned = std::unique_ptr<curl_slist, bridge_release<release_slist>>;
using curl_text_owned = std::unique_ptr<char, bridge_release<release_text>>;
using file_owned = std::unique_ptr<FILE, bridge_release<fclose>>;
using text_owned = std::unique_ptr<char, bridge_release<free>>;

/* A file's beginning in memory: pages come as they are read, and go again. */
class file_mapping
{
  public:
    explicit file_mapping(void *start, size_t size) : start_(start), size_(size)
    {
    }
    ~file_mapping()
    {
        if (is_valid())
            munmap(start_, size_);
    }
    file_mapping(const file_mapping &) = delete;
    file_mapping &operator=(const file_mapping &) = delete;

    bool is_valid() const
    {
        return start_ != nullptr && start_ != MAP_FAILED;
    }
    const char *at(off_t offset) const
    {
        return static_cast<const char *>(start_) + offset;
    }

  private:
    void *start_;
    size_t size_;
};

/* ---- the library ---- */

static int init_library(curl_owned *curl)
{
    library = bridge_curl_load();
    if (library == nullptr)
        return -EIO;
    library->global_init(CURL_GLOBAL_ALL);
    curl->reset(library->easy_init());
    if (!*curl) {
        BRIDGE_ERROR("curl: failed to init library");
        return -ENOMEM;
    }
    return 0;
}

/* A URL leads to a server: the library would take one to any file of the gateway as well. */
static bool leads_to_server(CURLU *url)
{
    static constexpr const char *SCHEMES[] = {"http", "https", "ftp", "ftps", "sftp", "scp", "tftp"};
    char *text = nullptr;
    if (library->url_get(url, CURLUPART_SCHEME, &text, 0) != CURLUE_OK)
        return false;
    const curl_text_owned scheme(text);
    return std::any_of(std::begin(SCHEMES), std::end(SCHEMES),
                       [&](const char *known) { return strcasecmp(known, text) == 0; });
}

/* The whole URL; one without a scheme gets the one that its host's name suggests. Returns 0 or -5. */
static int complete_url(const char *given, curl_text_owned *complete)
{
    const url_owned url(library->url());
    if (!url) {
        BRIDGE_ERROR("curl: failed allocate URL object");
        return -EIO;
    }
    char *text = nullptr;
    if (library->url_set(url.get(), CURLUPART_URL, given, CURLU_GUESS_SCHEME) != CURLUE_OK ||
        !leads_to_server(url.get()) || library->url_get(url.get(), CURLUPART_URL, &text, 0) != CURLUE_OK) {
        BRIDGE_ERROR("curl: failed to initialize URL object");
        return -EIO;
    }
    complete->reset(text);
    return 0;
}

/* ---- timestamps ---- */

/* The grandchild. It keeps the child's descriptors and ends with it. */
[[noreturn]] static void update_timestamps(const char *tmst_path, pid_t parent)
{
    BRIDGE_DEBUG("curl: starting updater");
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    const bridge_fileops_watch_dir dir = {.tmst = tmst_path};
    while (getppid() == parent) {
        BRIDGE_TRACE("curl: perform timestamp update");
        bridge_fileops_update_tmst(&dir);
        bridge_wait_s(1);
    }
    exit(0);
}

/* Returns the updater's process id, or -1 when there is none. */
static pid_t start_updater(const char *tmst_path)
{
    if (tmst_path == nullptr)
        return -1;
    BRIDGE_DEBUG("curl: requested updating timestamp: %s", tmst_path);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0)
        update_timestamps(tmst_path, parent);
    if (pid < 0)
        BRIDGE_WARN("curl: failed to start timestamp update process: %m");
    else
        BRIDGE_DEBUG("curl: launched updater pid: [%d]", pid);
    return pid;
}

static void stop_updater(pid_t pid)
{
    if (pid <= 0)
        return;
    BRIDGE_DEBUG("curl: killing [%ld]", static_cast<long>(pid));
    kill(pid, SIGTERM);
}

/* ---- upload ---- */

struct upload_data {
    const char *start;
    size_t size;
    size_t sent;
};

static size_t hand_over(char *buffer, size_t size, size_t count, void *arg)
{
    auto *data = static_cast<upload_data *>(arg);
    const size_t length = std::min(size * count, data->size - data->sent);
    memcpy(buffer, data->start + data->sent, length);
    data->sent += length;
    return length;
}

/* The library begins anew where a server takes only a second attempt. */
static int begin_again(void *arg, curl_off_t offset, int origin)
{
    if (origin != SEEK_SET || offset != 0)
        return CURL_SEEKFUNC_CANTSEEK;
    static_cast<upload_data *>(arg)->sent = 0;
    return CURL_SEEKFUNC_OK;
}

static size_t drop_answer(char *, size_t size, size_t count, void *)
{
    return size * count;
}

/* The parts in their order. */
static int fill_form(curl_mime *mime, const bridge_fileops_upload *upload, upload_data *data,
                     const char *name)
{
    curl_mimepart *filedata = library->mime_addpart(mime);
    curl_mimepart *mac = library->mime_addpart(mime);
    curl_mimepart *filepath = library->mime_addpart(mime);
    if (filedata == nullptr || mac == nullptr || filepath == nullptr) {
        BRIDGE_ERROR("curl: failed to init mime");
        return -ENOMEM;
    }
    library->mime_name(filedata, "filedata");
    library->mime_data_cb(filedata, static_cast<curl_off_t>(upload->size), hand_over, begin_again, nullptr,
                          data);
    library->mime_filename(filedata, name);
    library->mime_name(mac, "mac");
    library->mime_data(mac, bridge_config_get_root_checked()->generic.gw_mac, CURL_ZERO_TERMINATED);
    library->mime_name(filepath, "filepath");
    library->mime_data(filepath, upload->virtual_path, CURL_ZERO_TERMINATED);
    return 0;
}

/* A server that vanishes without a word ends the transfer after some minutes, which has no other limit. */
static void aim_at(CURL *curl, const char *url)
{
    library->easy_setopt(curl, CURLOPT_URL, url);
    library->easy_setopt(curl, CURLOPT_TCP_KEEPALIVE, 1L);
}

/* A server that does not take the file is told in the log alone: servers rely on an "ok" here. */
static int post_form(const bridge_fileops_upload *upload, const char *start, const char *name)
{
    curl_owned curl;
    int result = init_library(&curl);
    if (result < 0)
        return result;
    const mime_owned mime(library->mime_init(curl.get()));
    if (!mime) {
        BRIDGE_ERROR("curl: failed to init mime");
        return -ENOMEM;
    }
    upload_data data = {.start = start, .size = static_cast<size_t>(upload->size), .sent = 0};
    result = fill_form(mime.get(), upload, &data, name);
    if (result < 0)
        return result;
    curl_text_owned url;
    result = complete_url(upload->url, &url);
    if (result < 0)
        return result;
    BRIDGE_DEBUG("curl: add custom headerlist");
    const slist_owned headers(library->slist_append(nullptr, "Expect:"));
    aim_at(curl.get(), url.get());
    library->easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
    library->easy_setopt(curl.get(), CURLOPT_MIMEPOST, mime.get());
    library->easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, drop_answer);
    library->easy_setopt(curl.get(), CURLOPT_UPLOAD_BUFFERSIZE, UPLOAD_BUFFER);
    BRIDGE_DEBUG("curl: perform request");
    const CURLcode code = library->easy_perform(curl.get());
    if (code != CURLE_OK)
        BRIDGE_DEBUG("curl: easy_perform() failed: %s\n", library->easy_strerror(code));
    BRIDGE_INFO("curl: done");
    return 0;
}

/* Where an address has 32 bits, a length may have more: memory lacks for it as for any that is too long. */
static void *map_from_start(int fd, const bridge_fileops_upload *upload, size_t *length)
{
    if (__builtin_add_overflow(upload->offset, upload->size, length)) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    return mmap(nullptr, *length, PROT_READ, MAP_PRIVATE, fd, 0);
}

static int upload_mapped(const bridge_fileops_upload *upload, const char *name)
{
    bridge_fd fd(open(upload->real_path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (fd.get() < 0) {
        const int code = errno;
        BRIDGE_ERROR("curl: failed to open file for reading: %m");
        return -code;
    }
    size_t length = 0;
    void *start = map_from_start(fd.get(), upload, &length);
    const file_mapping mapping(start, length);
    if (!mapping.is_valid()) {
        const int code = errno;
        BRIDGE_ERROR("curl: failed to map a file: %m");
        return -code;
    }
    close(fd.release());
    return post_form(upload, mapping.at(upload->offset), name);
}

int bridge_fileops_curl_upload(const bridge_fileops_upload *upload)
{
    BRIDGE_INFO("curl: starting file stream %s with offset [%lld] and size [%llu]", upload->virtual_path,
                static_cast<long long>(upload->offset), static_cast<unsigned long long>(upload->size));
    const text_owned name(bridge_fileops_last_segment(upload->virtual_path));
    if (!name) {
        BRIDGE_ERROR("failed to extract virtual filename from path");
        return -EINVAL;
    }
    const pid_t updater = start_updater(upload->tmst_path);
    const int result = upload_mapped(upload, name.get());
    stop_updater(updater);
    return result;
}

/* ---- download ---- */

static int fetch_into(FILE *file, const char *fetch_url)
{
    curl_owned curl;
    int result = init_library(&curl);
    if (result < 0)
        return result;
    curl_text_owned url;
    result = complete_url(fetch_url, &url);
    if (result < 0)
        return result;
    BRIDGE_DEBUG("curl: new url: %s", url.get());
    aim_at(curl.get(), url.get());
    library->easy_setopt(curl.get(), CURLOPT_HEADER, 0L);
    library->easy_setopt(curl.get(), CURLOPT_WRITEDATA, file);
    BRIDGE_DEBUG("curl: perform request");
    const CURLcode code = library->easy_perform(curl.get());
    if (code != CURLE_OK) {
        BRIDGE_DEBUG("curl: easy_perform() failed: %s\n", library->easy_strerror(code));
        result = -EIO;
    }
    BRIDGE_INFO("curl: done");
    return result;
}

/* As fopen with "wb", but never through a link that lies where the file should. */
static FILE *open_for_writing(const char *path)
{
    bridge_fd fd(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (fd.get() < 0)
        return nullptr;
    FILE *file = fdopen(fd.get(), "wb");
    if (file == nullptr)
        return nullptr;
    (void)fd.release();
    setvbuf(file, nullptr, _IONBF, 0); /* a full disk is seen while the transfer can still fail */
    return file;
}

int bridge_fileops_curl_download(const char *fetch_url, const char *real_path)
{
    BRIDGE_ASSERT_TEXT(fetch_url != nullptr, "fetch_url != NULL");
    BRIDGE_ASSERT_TEXT(real_path != nullptr, "real_path != NULL");
    BRIDGE_INFO("curl: starting file fetch to %s", real_path);
    BRIDGE_DEBUG("curl: fetch URL: %s", fetch_url);
    const file_owned file(open_for_writing(real_path));
    if (!file) {
        const int code = errno;
        BRIDGE_ERROR("curl: failed to open file for writing: %m");
        return -code;
    }
    return fetch_into(file.get(), fetch_url);
}
