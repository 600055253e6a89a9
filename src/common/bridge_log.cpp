/* One line a message, to standard error or syslog, and the assertion that ends the process. */
#include "common/bridge_log.h"

#include <alloca.h>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

static constexpr const char *LABEL_ABOVE_TRACE = "      ";

/* clang-format off */
static constexpr std::array<const char *, 5> LABELS = {
    "ERROR ",
    "WARN  ",
    "INFO  ",
    "DEBUG ",
    "TRACE ",
};
/* clang-format on */

/* Written once before any other thread exists, read without a lock afterwards. */
static uint32_t log_threshold = BRIDGE_LOG_INFO;
static bool log_to_stderr = false;

struct log_timestamp {
    char date[32];
    char zone[32];
    char fraction[8];
};

static const char *last_component(const char *path)
{
    const char *slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

/* Held around the output, and over a fork: a child must not find the system logger's own lock taken by a
 * thread that it does not have. */
static pthread_mutex_t output_lock = PTHREAD_MUTEX_INITIALIZER;

static void lock_output()
{
    pthread_mutex_lock(&output_lock);
}

static void unlock_output()
{
    pthread_mutex_unlock(&output_lock);
}

bridge_fork_hold::bridge_fork_hold()
{
    lock_output();
}

bridge_fork_hold::~bridge_fork_hold()
{
    unlock_output();
}

const char *bridge_errno_text(int code, char *buffer, size_t size)
{
    const bridge_fork_hold hold;
    return strerror_r(code, buffer, size);
}

/* Under the output lock: a zone that changes while the daemon runs is followed. One look at the clock gives
 * all parts: between two of them a second may begin, and the line would be a second early. */
static void fill_timestamp(log_timestamp *stamp)
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    tm local = {};
    tzset();
    localtime_r(&now.tv_sec, &local);
    if (strftime(stamp->date, sizeof(stamp->date), "%F %T", &local) == 0)
        strcpy(stamp->date, "FMT_ERR");
    if (strftime(stamp->zone, sizeof(stamp->zone), "%z ", &local) == 0)
        strcpy(stamp->zone, "FMT_ERR");

    const auto milliseconds = static_cast<unsigned>(now.tv_usec / 1000) % 1000;
    snprintf(stamp->fraction, sizeof(stamp->fraction), ".%03u", milliseconds);
}

int bridge_log_init(uint32_t level, bool to_stderr)
{
    log_threshold = level;
    log_to_stderr = to_stderr;
    if (!to_stderr)
        openlog("snv_mqtt_bridge", LOG_PID, LOG_DAEMON);
    static bool forks_are_guarded = false;
    if (!forks_are_guarded)
        forks_are_guarded = pthread_atfork(lock_output, unlock_output, unlock_output) == 0;
    return 0;
}

int bridge_log_deinit()
{
    closelog();
    return 0;
}

bool bridge_log_is_stderr()
{
    return log_to_stderr;
}

/* In one piece: the children of the daemon write to the same place, and the C library's own print on standard
 * error hands the first character over by itself. */
static void write_line(const char *format, va_list arguments)
{
    char *line = nullptr;
    const int length = vasprintf(&line, format, arguments);
    if (length < 0)
        return;
    ssize_t at = 0;
    while (at < length) {
        const ssize_t written = write(STDERR_FILENO, line + at, static_cast<size_t>(length - at));
        if (written < 0 && errno != EINTR)
            break;
        at += written < 0 ? 0 : written;
    }
    free(line);
}

void bridge_log_print_message(uint32_t level, const char *file, int line, const char *format, ...)
{
    BRIDGE_ASSERT_TEXT(file != nullptr, "file != NULL");
    BRIDGE_ASSERT_TEXT(format != nullptr, "user_fmt != NULL");
    if (level > log_threshold)
        return;

    const int caller_errno = errno;
    const char *label = level < LABELS.size() ? LABELS[level] : LABEL_ABOVE_TRACE;
    log_timestamp stamp = {};
    lock_output();
    if (log_to_stderr)
        fill_timestamp(&stamp);
    unlock_output();

    /* The caller's format is joined into the line's, so its length is known only here: the stack takes it. */
    static constexpr const char *LINE_FORMAT = "%s%s%s[%d][%s] %s:%d %s\n";
    const char *name = last_component(file);
    const int thread = gettid();
    const int length = snprintf(nullptr, 0, LINE_FORMAT, stamp.date, stamp.fraction, stamp.zone, thread,
                                label, name, line, format);
    if (length < 0)
        return;
    const size_t size = static_cast<size_t>(length) + 1;
    char *line_format = static_cast<char *>(alloca(size));
    snprintf(line_format, size, LINE_FORMAT, stamp.date, stamp.fraction, stamp.zone, thread, label, name,
             line, format);

    va_list arguments;
    va_start(arguments, format);
    lock_output();
    errno = caller_errno;
    if (log_to_stderr)
        write_line(line_format, arguments);
    else
        vsyslog(LOG_NOTICE, line_format, arguments);
    va_end(arguments);
    unlock_output();
    errno = caller_errno;
}

void bridge_assert_failed(const char *file, int line, const char *text)
{
    static constexpr const char *MESSAGE = "Assertion failed: ( %s ) in %s:%d\n";
    if (log_to_stderr) {
        printf(MESSAGE, text, file, line);
        fflush(stdout); /* abort() leaves buffered text behind */
    } else {
        syslog(LOG_ERR, MESSAGE, text, file, line);
    }
    abort();
}
