#include "fuzz_world.h"

#include "common/bridge_curl_lazy.h"
#include "converter/control/bridge_configs_script.h"
#include "fuzz.h"
#include "fuzz_choices.h"
#include "fuzz_control.h"
#include "fuzz_ends.h"

#include <algorithm>
#include <bitset>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <libssh/libssh.h>
#include <mqueue.h>
#include <netdb.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

/* More than a gateway has at once: such an allocation fails. */
static constexpr size_t MOST_MEMORY = size_t{1} << 20;
static constexpr size_t QUEUE_LENGTH = 10;
static constexpr int32_t ACTION_EXIT = 1; /* of both services that wait on a queue */
static constexpr int MOST_EXPIRIES = 8;

static bool is_running;
static bool is_child;
static pid_t last_pid;
static int progress_fd = -1;
static std::bitset<64> open_at_fork;

/* ---- queues and timers ---- */

struct timer_record {
    void (*function)(sigval param);
    sigval param;
    bool is_armed;
    bool repeats;
};

static std::deque<std::string> queues[2]; /* of upgrades, of the battery */
static timer_record the_timer;
static int expiries;

void fuzz_world_enter()
{
    is_running = true;
    is_child = false;
    last_pid = 1000;
    progress_fd = -1;
    for (auto &queue : queues)
        queue.clear();
    the_timer = {};
    expiries = 0;
}

void fuzz_world_leave()
{
    is_running = false;
}

bool fuzz_world_is_child()
{
    return is_child;
}

static bool is_open(int fd)
{
    return fcntl(fd, F_GETFD) >= 0;
}

static void become_child()
{
    if (is_child)
        return;
    is_child = true;
    for (size_t fd = 0; fd < open_at_fork.size(); fd++)
        open_at_fork[fd] = is_open(static_cast<int>(fd));
}

void fuzz_world_close_left_open()
{
    for (size_t fd = 0; fd < open_at_fork.size(); fd++) {
        if (!open_at_fork[fd] && is_open(static_cast<int>(fd)))
            close(static_cast<int>(fd));
    }
}

/* A timer expires while anything is left to happen. */
static bool expire()
{
    if (!the_timer.is_armed || !fuzz_choices_left() || ++expiries > MOST_EXPIRIES)
        return false;
    the_timer.is_armed = the_timer.repeats;
    the_timer.function(the_timer.param);
    return true;
}

void fuzz_end_process(int)
{
    FUZZ_REQUIRE(is_running);
    throw fuzz_process_end{.tripped = false};
}

/* None of the daemon's programs ever runs. */
void fuzz_become_program(const char *, ...)
{
    FUZZ_REQUIRE(is_child);
    fuzz_end_process(0);
}

/* ---- assertions ---- */

struct meant_trip {
    std::string_view file;
    std::string_view text;
};

/* Those that an agent's bad answers end the daemon by, as it is meant: a report that does not fit its buffer,
 * and a name too long to step on from. */
static constexpr meant_trip MEANT_TRIPS[] = {
    {"bridge_events.cpp", "n > 0 && (size_t)n < sizeof(event_json)"},
    {"bridge_performance_management.cpp", "n > 0 && (size_t)n < sizeof(battery_performance_json)"},
    {"bridge_snmp.cpp", "ctx->last_oid_len * sizeof(oid) <= *oid_len"},
};

static bool is_meant(std::string_view file, std::string_view text)
{
    return std::any_of(std::begin(MEANT_TRIPS), std::end(MEANT_TRIPS), [&](const meant_trip &each) {
        return file.ends_with(each.file) && text == each.text;
    });
}

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes the names
extern "C" {
[[noreturn]] void __real__Z20bridge_assert_failedPKciS0_(const char *file, int line, const char *text);
[[noreturn]] void __wrap__Z20bridge_assert_failedPKciS0_(const char *file, int line, const char *text)
{
    if (is_running && is_meant(file, text))
        throw fuzz_process_end{.tripped = true};
    __real__Z20bridge_assert_failedPKciS0_(file, line, text);
}

/* ---- processes ---- */

int __real_pipe2(int *ends, int flags);
int __wrap_pipe2(int *ends, int flags)
{
    const int result = __real_pipe2(ends, flags);
    progress_fd = result == 0 ? ends[1] : -1;
    return result;
}

pid_t __real_fork();
pid_t __wrap_fork()
{
    if (!is_running)
        return __real_fork();
    switch (fuzz_choice() % 8) {
    case 1:
    case 2:
    case 3:
        become_child();
        return 0;
    case 4:
        errno = EAGAIN;
        return -1;
    case 5: /* a child that has found nothing to do */
        (void)!write(progress_fd, "r", 1);
        return ++last_pid;
    default:
        return ++last_pid;
    }
}

int __wrap_kill(pid_t pid, int)
{
    FUZZ_REQUIRE(is_running && pid > 1000);
    if (fuzz_choice() % 4 != 1)
        return 0;
    errno = ESRCH;
    return -1;
}

/* What a child sets up for itself. */
int __real_prctl(int option, ...);
int __wrap_prctl(int option, ...)
{
    va_list arguments;
    va_start(arguments, option);
    const auto argument = va_arg(arguments, unsigned long);
    va_end(arguments);
    return is_running ? 0 : __real_prctl(option, argument);
}

sighandler_t __real_signal(int number, sighandler_t handler);
sighandler_t __wrap_signal(int number, sighandler_t handler)
{
    return is_running ? SIG_DFL : __real_signal(number, handler);
}

static int chosen_status()
{
    const uint8_t choice = fuzz_choice();
    return choice < 128 ? W_EXITCODE(choice % 4, 0) : W_EXITCODE(0, 1 + choice % 15);
}

pid_t __real_waitpid(pid_t pid, int *status, int options);
pid_t __wrap_waitpid(pid_t pid, int *status, int options)
{
    if (!is_running)
        return __real_waitpid(pid, status, options);
    int ended_with = 0;
    switch (fuzz_choice() % 4) {
    case 1:
        ended_with = chosen_status();
        break;
    case 2:
        if ((options & WNOHANG) != 0)
            return 0;
        break;
    case 3:
        errno = ECHILD;
        return -1;
    default:
        break;
    }
    if (status != nullptr)
        *status = ended_with;
    return pid;
}

int __real_system(const char *command);
int __wrap_system(const char *command)
{
    return is_running ? chosen_status() : __real_system(command);
}

/* What a program writes is a text of the choices. */
FILE *__real_popen(const char *command, const char *mode);
FILE *__wrap_popen(const char *command, const char *mode)
{
    static std::string output;
    if (!is_running)
        return __real_popen(command, mode);
    if (!fuzz_choices_left()) {
        errno = ENOMEM;
        return nullptr;
    }
    output = fuzz_choice_text();
    fuzz_note_text(output);
    /* A memory of no size is no stream for the library. */
    return fmemopen(output.data(), output.size() + (output.empty() ? 1 : 0), "r");
}

int __real_pclose(FILE *stream);
int __wrap_pclose(FILE *stream)
{
    return is_running ? fclose(stream) : __real_pclose(stream);
}

/* ---- servers ---- */

/* Numbers are understood, and no name is asked for. */
int __real_getaddrinfo(const char *node, const char *service, const addrinfo *hints, addrinfo **list);
int __wrap_getaddrinfo(const char *node, const char *service, const addrinfo *hints, addrinfo **list)
{
    addrinfo numeric = *hints;
    numeric.ai_flags |= AI_NUMERICHOST;
    return __real_getaddrinfo(node, service, &numeric, list);
}

int __wrap_ssh_connect(ssh_session)
{
    return SSH_ERROR;
}

/* ---- memory ---- */

void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size)
{
    return is_running && size > MOST_MEMORY ? nullptr : __real_malloc(size);
}

void *__real_calloc(size_t count, size_t size);
void *__wrap_calloc(size_t count, size_t size)
{
    return is_running && count * size > MOST_MEMORY ? nullptr : __real_calloc(count, size);
}

/* ---- queues and timers ---- */

mqd_t __wrap_mq_open(const char *name, int, ...)
{
    return strstr(name, "bsp") != nullptr ? 0 : 1;
}

int __wrap_mq_close(mqd_t)
{
    return 0;
}

int __wrap_mq_unlink(const char *)
{
    return 0;
}

int __wrap_mq_send(mqd_t queue, const char *message, size_t size, unsigned)
{
    if (queues[queue].size() >= QUEUE_LENGTH) {
        errno = EAGAIN;
        return -1;
    }
    queues[queue].emplace_back(message, size);
    return 0;
}

/* An empty queue, and no timer to fill it, is the end of the service. */
ssize_t __wrap_mq_receive(mqd_t queue, char *message, size_t size, unsigned *)
{
    if (queues[queue].empty())
        (void)expire();
    if (queues[queue].empty()) {
        memset(message, 0, size);
        memcpy(message, &ACTION_EXIT, sizeof(ACTION_EXIT));
        return static_cast<ssize_t>(size);
    }
    const std::string next = queues[queue].front();
    queues[queue].pop_front();
    FUZZ_REQUIRE(next.size() == size);
    memcpy(message, next.data(), size);
    return static_cast<ssize_t>(size);
}

int __wrap_timer_create(clockid_t, sigevent *event, timer_t *timer)
{
    the_timer = {event->sigev_notify_function, event->sigev_value, false, false};
    *timer = &the_timer;
    return 0;
}

int __wrap_timer_settime(timer_t, int, const itimerspec *times, itimerspec *)
{
    the_timer.is_armed = times->it_value.tv_sec != 0 || times->it_value.tv_nsec != 0;
    the_timer.repeats = times->it_interval.tv_sec != 0;
    return 0;
}

int __wrap_timer_delete(timer_t)
{
    the_timer = {};
    return 0;
}
}
// NOLINTEND(bugprone-reserved-identifier)

/* ---- transfers ---- */

static CURLcode end_transfer(CURL *)
{
    return fuzz_choice() % 2 == 0 ? CURLE_COULDNT_CONNECT : CURLE_OK;
}

/* In place of the daemon's, which loads the library: it is linked here, but for the transfer itself. */
const bridge_curl *bridge_curl_load()
{
    static constexpr bridge_curl curl = {
        .global_init = curl_global_init,
        .free = curl_free,
        .easy_init = curl_easy_init,
        .easy_setopt = curl_easy_setopt,
        .easy_perform = end_transfer,
        .easy_strerror = curl_easy_strerror,
        .easy_cleanup = curl_easy_cleanup,
        .mime_init = curl_mime_init,
        .mime_addpart = curl_mime_addpart,
        .mime_name = curl_mime_name,
        .mime_filename = curl_mime_filename,
        .mime_data = curl_mime_data,
        .mime_data_cb = curl_mime_data_cb,
        .mime_free = curl_mime_free,
        .slist_append = curl_slist_append,
        .slist_free_all = curl_slist_free_all,
        .url = curl_url,
        .url_set = curl_url_set,
        .url_get = curl_url_get,
        .url_cleanup = curl_url_cleanup,
    };
    return &curl;
}

/* ---- the gateway's configuration programs ---- */

static void write_answer(const char *path)
{
    const std::string text = fuzz_choice_text();
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    FUZZ_REQUIRE(fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
    close(fd);
}

/* In place of the daemon's, which forks: the third argument names the file of the answer. */
pid_t cfg_run_script(const char *, std::span<const char *const> arguments, int, bool)
{
    if (!fuzz_choices_left())
        return -EAGAIN;
    const uint8_t choice = fuzz_choice() % 8;
    if (choice == 7)
        return -ECHILD;
    if (choice != 6 && arguments.size() == 3)
        write_answer(arguments[2]);
    return choice == 5 ? 0 : ++last_pid;
}

/* ---- files ---- */

/* Since they were made: most runs change none. */
static bool are_changed = true;

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes the names
extern "C" {
int __real_open64(const char *path, int flags, ...);
int __wrap_open64(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    are_changed = are_changed || (flags & (O_ACCMODE | O_CREAT | O_TRUNC)) != O_RDONLY;
    return __real_open64(path, flags, mode);
}

FILE *__real_fopen64(const char *path, const char *mode);
FILE *__wrap_fopen64(const char *path, const char *mode)
{
    are_changed = are_changed || strpbrk(mode, "wa+") != nullptr;
    return __real_fopen64(path, mode);
}

int __real_unlink(const char *path);
int __wrap_unlink(const char *path)
{
    are_changed = true;
    return __real_unlink(path);
}

int __real_remove(const char *path);
int __wrap_remove(const char *path)
{
    are_changed = true;
    return __real_remove(path);
}

int __real_link(const char *from, const char *to);
int __wrap_link(const char *from, const char *to)
{
    are_changed = true;
    return __real_link(from, to);
}

int __real_unlinkat(int folder, const char *path, int flags);
int __wrap_unlinkat(int folder, const char *path, int flags)
{
    are_changed = true;
    return __real_unlinkat(folder, path, flags);
}

int __real_chmod(const char *path, mode_t mode);
int __wrap_chmod(const char *path, mode_t mode)
{
    are_changed = true;
    return __real_chmod(path, mode);
}

/* A program that has ended well has done its work, as far as it is simple. */
int __real__Z11system_safePKPc(char *const argv[]);
int __wrap__Z11system_safePKPc(char *const argv[])
{
    const int result = __real__Z11system_safePKPc(argv);
    if (result != 0 || strcmp(argv[0], "/bin/mv") != 0)
        return result;
    are_changed = true;
    return rename(argv[1], argv[2]);
}

int __real_mkdir(const char *path, mode_t mode);
int __wrap_mkdir(const char *path, mode_t mode)
{
    are_changed = true;
    return __real_mkdir(path, mode);
}
}
// NOLINTEND(bugprone-reserved-identifier)

struct seed_file {
    const char *path;
    const char *content;
};

static constexpr const char *FOLDERS[] = {
    "/dev/shm",
    "/dev/shm/modem_downloads",
    "/etc/awsiot",
    "/etc/bstn",
    "/etc/default",
    "/etc/opkg",
    "/lib/firmware",
    "/lib/firmware/opkg",
    "/root/.ssh",
    "/tmp",
    "/usr/share/snv-mqtt-bridge",
    "/usr/share/snv-mqtt-bridge/scripts",
    "/var/lib/logs",
    "/var/lib/logs/.snv_bridge_bkp",
    "/var/lib/sarnivel-lora-hal",
    "/var/lib/sarnivel-mqtt-bridge",
    "/var/log",
    "/var/log/.snv_bridge_bkp",
};

static constexpr seed_file FILES[] = {
    {"/etc/default/config.json", "{}"},
    {"/lib/firmware/a.bin", "firmware"},
    {"/root/.ssh/id_rsa.pub", "ssh-rsa AAAA gateway"},
    {"/usr/share/snv-mqtt-bridge/scripts/do.sh", "#!/bin/sh\n"},
    {"/var/lib/logs/b.gz", "packed"},
    {"/var/lib/sarnivel-lora-hal/uplink-filter-list", "{}"},
    {"/var/lib/sarnivel-lora-hal/uplink-filter-list-lock", ""},
    {"/var/lib/sarnivel-mqtt-bridge/last_sw_status", ""},
    {"/var/lib/sarnivel-mqtt-bridge/last_wm_fw_status", ""},
    {"/var/log/a.log", "a line\n"},
};

void fuzz_world_make_folders()
{
    for (const char *path : FOLDERS)
        fs::create_directories(path);
    fuzz_world_refill();
}

static void empty_folder(const fs::path &folder)
{
    for (const fs::directory_entry &each : fs::directory_iterator(folder)) {
        if (!each.is_directory() || each.is_symlink())
            unlink(each.path().c_str());
    }
}

void fuzz_world_refill()
{
    if (!are_changed)
        return;
    for (const char *path : FOLDERS)
        empty_folder(path);
    for (const seed_file &each : FILES) {
        const int fd = open(each.path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        FUZZ_REQUIRE(fd >= 0);
        const auto size = static_cast<ssize_t>(strlen(each.content));
        FUZZ_REQUIRE(write(fd, each.content, strlen(each.content)) == size);
        close(fd);
    }
    are_changed = false;
}
