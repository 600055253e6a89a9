/* Logging and assertions. Every module calls these, from any thread; the destination and the threshold
 * are chosen once at start-up, before other threads exist. */
#ifndef BRIDGE_LOG_H
#define BRIDGE_LOG_H

#include <cstddef>
#include <cstdint>

enum : uint32_t {
    BRIDGE_LOG_ERROR = 0,
    BRIDGE_LOG_WARN = 1,
    BRIDGE_LOG_INFO = 2,
    BRIDGE_LOG_DEBUG = 3,
    BRIDGE_LOG_TRACE = 4,
};

/* Messages with a level above `level` are dropped. They go to standard error, or to syslog. Returns 0. */
int bridge_log_init(uint32_t level, bool to_stderr);

int bridge_log_deinit();

/* True when the destination is standard error. */
bool bridge_log_is_stderr();

/* Writes one line. `file` is the caller's source path; only its last component reaches the line. errno is
 * the caller's while the line is formatted, so "%m" names the caller's failure, and is unchanged after. */
void bridge_log_print_message(uint32_t level, const char *file, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

/* While one lives nothing is logged and no fork happens: for a call into the C library that takes a lock of
 * its own, as those that look at the time zone do. A child would find that lock taken for ever. */
class bridge_fork_hold
{
  public:
    bridge_fork_hold();
    ~bridge_fork_hold();
    bridge_fork_hold(const bridge_fork_hold &) = delete;
    bridge_fork_hold &operator=(const bridge_fork_hold &) = delete;
};

/* The system's text for an errno value, in `buffer` or static. It is looked up under a lock of the C library.
 */
const char *bridge_errno_text(int code, char *buffer, size_t size);

[[noreturn]] void bridge_assert_failed(const char *file, int line, const char *text);

/* Ends the process unless the low byte of `condition` is exactly 1. For programming faults only; active in
 * every build. */
inline void bridge_assert(uint32_t condition, const char *file, int line, const char *text)
{
    if (static_cast<uint8_t>(condition) != 1)
        bridge_assert_failed(file, line, text);
}

#define BRIDGE_ERROR(...) bridge_log_print_message(BRIDGE_LOG_ERROR, __FILE__, __LINE__, __VA_ARGS__)
#define BRIDGE_WARN(...)  bridge_log_print_message(BRIDGE_LOG_WARN, __FILE__, __LINE__, __VA_ARGS__)
#define BRIDGE_INFO(...)  bridge_log_print_message(BRIDGE_LOG_INFO, __FILE__, __LINE__, __VA_ARGS__)
#define BRIDGE_DEBUG(...) bridge_log_print_message(BRIDGE_LOG_DEBUG, __FILE__, __LINE__, __VA_ARGS__)
#define BRIDGE_TRACE(...) bridge_log_print_message(BRIDGE_LOG_TRACE, __FILE__, __LINE__, __VA_ARGS__)

#define BRIDGE_ASSERT(expr) bridge_assert(static_cast<bool>(expr), __FILE__, __LINE__, #expr)

/* For an assertion whose reported text is not the C++ expression. */
#define BRIDGE_ASSERT_TEXT(expr, text) bridge_assert(static_cast<bool>(expr), __FILE__, __LINE__, text)

#endif
