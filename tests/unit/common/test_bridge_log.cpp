/* The form of a log line on both destinations, the threshold, and the assertion. */
#include "common/bridge_log.h"

#include "common/captured_stderr.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>
#include <vector>

using testing::EndsWith;
using testing::HasSubstr;
using testing::KilledBySignal;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

static constexpr int LOG_NOTICE_PRIORITY = 5;
static constexpr int LOG_ERR_PRIORITY = 3;
static constexpr int LOG_PID_OPTION = 1;
static constexpr int LOG_DAEMON_FACILITY = 3 << 3;

/* Date, time, offset and the bracket before the thread id. */
static const std::string LINE_START =
    "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}[+-][0-9]{4} \\[";

struct syslog_call {
    int priority;
    std::string text;
};

static struct {
    bool strftime_fails;
    int strftime_errno;
    time_t seconds;           /* -1 asks the real clock */
    suseconds_t microseconds; /* -1 asks the real clock */
    std::vector<syslog_call> syslog_calls;
    std::string identity;
    int options;
    int facility;
    int opened;
    int closed;
} library;

static void record_syslog(int priority, const char *format, va_list arguments)
{
    std::array<char, 1024> text = {};
    vsnprintf(text.data(), text.size(), format, arguments);
    library.syslog_calls.push_back({priority, text.data()});
    fprintf(stderr, "syslog(%d) %s", priority, text.data()); /* for what is written before an abort */
}

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes the names
extern "C" {
size_t __real_strftime(char *buffer, size_t size, const char *format, const tm *when);
int __real_gettimeofday(timeval *now, void *zone);

size_t __wrap_strftime(char *buffer, size_t size, const char *format, const tm *when)
{
    if (library.strftime_errno != 0)
        errno = library.strftime_errno;
    return library.strftime_fails ? 0 : __real_strftime(buffer, size, format, when);
}

int __wrap_gettimeofday(timeval *now, void *zone)
{
    const int result = __real_gettimeofday(now, zone);
    if (library.seconds >= 0)
        now->tv_sec = library.seconds;
    if (library.microseconds >= 0)
        now->tv_usec = library.microseconds;
    return result;
}

void __wrap_openlog(const char *identity, int options, int facility)
{
    library.identity = identity;
    library.options = options;
    library.facility = facility;
    ++library.opened;
}

void __wrap_closelog()
{
    ++library.closed;
}

void __wrap_vsyslog(int priority, const char *format, va_list arguments)
{
    record_syslog(priority, format, arguments);
}

void __wrap___vsyslog_chk(int priority, int, const char *format, va_list arguments)
{
    record_syslog(priority, format, arguments);
}

void __wrap_syslog(int priority, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    record_syslog(priority, format, arguments);
    va_end(arguments);
}

void __wrap___syslog_chk(int priority, int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    record_syslog(priority, format, arguments);
    va_end(arguments);
}
}
// NOLINTEND(bugprone-reserved-identifier)

class BridgeLog : public testing::Test
{
  protected:
    void SetUp() override
    {
        library = {};
        library.seconds = -1;
        library.microseconds = -1;
        ASSERT_EQ(bridge_log_init(BRIDGE_LOG_TRACE, true), 0);
    }

    static std::string print(uint32_t level, const char *file, int line, const char *text)
    {
        captured_stderr capture;
        bridge_log_print_message(level, file, line, "%s", text);
        return capture.text();
    }
};

class BridgeLogDeath : public BridgeLog
{
};

TEST_F(BridgeLog, LineOnStandardErrorHasTimeThreadLabelPlaceAndMessage)
{
    const std::string form =
        LINE_START + std::to_string(gettid()) + "\\]\\[WARN  \\] forwarder\\.cpp:42 7 uplinks of a0b1\n";
    captured_stderr capture;
    bridge_log_print_message(BRIDGE_LOG_WARN, "src/data/forwarder.cpp", 42, "%d uplinks of %s", 7, "a0b1");
    EXPECT_THAT(capture.text(), MatchesRegex(form));
}

TEST_F(BridgeLog, DateIsTheLocalTimeWithItsOffset)
{
    ASSERT_EQ(setenv("TZ", "XXX-05:30", 1), 0);
    tzset();
    timeval before = {}, after = {};
    gettimeofday(&before, nullptr);
    const std::string line = print(BRIDGE_LOG_INFO, "f.cpp", 1, "now");
    gettimeofday(&after, nullptr);
    tm parsed = {};
    const char *rest = strptime(line.c_str(), "%Y-%m-%d %H:%M:%S", &parsed);
    ASSERT_NE(rest, nullptr) << line;
    const time_t logged = timegm(&parsed) - time_t{5 * 3600 + 30 * 60};
    EXPECT_LE(before.tv_sec, logged);
    EXPECT_LE(logged, after.tv_sec);
    EXPECT_EQ(std::string(rest).substr(4, 6), "+0530 ") << line;
    unsetenv("TZ");
    tzset();
}

TEST_F(BridgeLog, DateAndFractionAreOfOneMoment)
{
    ASSERT_EQ(setenv("TZ", "UTC0", 1), 0);
    tzset();
    library.seconds = 1700000000;
    library.microseconds = 999999;
    EXPECT_THAT(print(BRIDGE_LOG_INFO, "f.cpp", 1, "now"), StartsWith("2023-11-14 22:13:20.999+0000 ["));
    unsetenv("TZ");
    tzset();
}

TEST_F(BridgeLog, MacrosNameTheirLevelAndTheirOwnPlace)
{
    captured_stderr capture;
    const int line = __LINE__;
    BRIDGE_ERROR("a");
    BRIDGE_WARN("b");
    BRIDGE_INFO("c");
    BRIDGE_DEBUG("d");
    BRIDGE_TRACE("e");
    const std::string text = capture.text();
    const std::array<std::string, 5> labels = {"ERROR ", "WARN  ", "INFO  ", "DEBUG ", "TRACE "};
    for (size_t i = 0; i < labels.size(); ++i) {
        const std::string wanted = "[" + labels[i] +
                                   "] test_bridge_log.cpp:" + std::to_string(line + 1 + static_cast<int>(i)) +
                                   " " + std::string(1, static_cast<char>('a' + i)) + "\n";
        EXPECT_THAT(text, HasSubstr(wanted));
    }
}

TEST_F(BridgeLog, OnlyLevelsUpToTheThresholdPass)
{
    static constexpr struct {
        uint32_t threshold;
        uint32_t level;
        const char *label; /* null: dropped */
    } cases[] = {
        {2, 0, "[ERROR ]"}, {2, 1, "[WARN  ]"}, {2, 2, "[INFO  ]"}, {2, 3, nullptr},          {2, 4, nullptr},
        {0, 0, "[ERROR ]"}, {0, 1, nullptr},    {4, 4, "[TRACE ]"}, {4, 3, "[DEBUG ]"},       {4, 5, nullptr},
        {4, 7, nullptr},    {7, 7, "[      ]"}, {7, 5, "[      ]"}, {4, UINT32_MAX, nullptr},
    };
    for (const auto &row : cases) {
        bridge_log_init(row.threshold, true);
        const std::string line = print(row.level, "f.cpp", 1, "text");
        if (row.label == nullptr)
            EXPECT_EQ(line, "") << row.threshold << " " << row.level;
        else
            EXPECT_THAT(line, HasSubstr(std::string(row.label) + " f.cpp:1 text\n"));
    }
}

TEST_F(BridgeLog, OnlyTheLastComponentOfThePathIsPrinted)
{
    static constexpr struct {
        const char *file;
        const char *printed;
    } cases[] = {
        {"bridge_mqtt.cpp", "] bridge_mqtt.cpp:3 text\n"},
        {"src/mqtt/bridge_mqtt.cpp", "] bridge_mqtt.cpp:3 text\n"},
        {"/bridge_mqtt.cpp", "] bridge_mqtt.cpp:3 text\n"},
        {"src/", "] :3 text\n"},
    };
    for (const auto &row : cases)
        EXPECT_THAT(print(BRIDGE_LOG_INFO, row.file, 3, "text"), HasSubstr(row.printed));
}

TEST_F(BridgeLog, FractionIsInMilliseconds)
{
    static constexpr struct {
        suseconds_t microseconds;
        const char *fraction;
    } cases[] = {{0, ".000"}, {999, ".000"}, {1000, ".001"}, {45'999, ".045"}, {999'999, ".999"}};
    for (const auto &row : cases) {
        library.microseconds = row.microseconds;
        const std::string line = print(BRIDGE_LOG_INFO, "f.cpp", 1, "text");
        EXPECT_EQ(line.substr(strlen("2024-01-01 00:00:00"), 4), row.fraction) << line;
    }
}

TEST_F(BridgeLog, TimeThatCannotBeFormattedIsMarked)
{
    library.strftime_fails = true;
    library.microseconds = 12'000;
    const std::string wanted = "FMT_ERR.012FMT_ERR[" + std::to_string(gettid()) + "][INFO  ] f.cpp:1 text\n";
    EXPECT_EQ(print(BRIDGE_LOG_INFO, "f.cpp", 1, "text"), wanted);
}

TEST_F(BridgeLog, CallersErrnoIsPrintedAndKept)
{
    library.strftime_errno = EIO;
    captured_stderr capture;
    errno = ENOENT;
    BRIDGE_ERROR("failed: %m");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_THAT(capture.text(), HasSubstr("failed: No such file or directory\n"));
}

TEST_F(BridgeLog, LineThatCannotBeWrittenIsLostInSilence)
{
    const bridge_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    const captured_stderr restores_the_stream;
    ASSERT_EQ(dup2(full.get(), STDERR_FILENO), STDERR_FILENO);
    errno = ENOENT;
    BRIDGE_ERROR("lost");
    EXPECT_EQ(errno, ENOENT);
}

/* Children of the daemon write to the same pipe. */
TEST_F(BridgeLog, LineIsWrittenInOnePiece)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
    const bridge_fd reading(ends[0]);
    const bridge_fd writing(ends[1]);
    const captured_stderr restores_the_stream;
    ASSERT_EQ(dup2(writing.get(), STDERR_FILENO), STDERR_FILENO);
    BRIDGE_INFO("from %s", "one of many");
    std::array<char, 256> piece = {};
    const ssize_t size = read(reading.get(), piece.data(), piece.size());
    ASSERT_GT(size, 0);
    EXPECT_THAT(std::string(piece.data(), static_cast<size_t>(size)), EndsWith(" from one of many\n"));
    EXPECT_THAT(piece.data(), StartsWith("20"));
}

TEST_F(BridgeLog, LongMessageIsNotCut)
{
    const std::string message(100'000, 'u');
    EXPECT_THAT(print(BRIDGE_LOG_INFO, "f.cpp", 1, message.c_str()), HasSubstr(" " + message + "\n"));
}

TEST_F(BridgeLog, LinesOfManyThreadsStayWholeAndNameTheirThread)
{
    static constexpr int THREADS = 4;
    static constexpr int LINES = 50;
    captured_stderr capture;
    std::array<pid_t, THREADS> tids = {};
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    for (pid_t &tid : tids)
        threads.emplace_back([&tid] {
            tid = gettid();
            for (int i = 0; i < LINES; ++i)
                BRIDGE_INFO("line %d", i);
        });
    for (std::thread &thread : threads)
        thread.join();

    std::istringstream lines(capture.text());
    std::map<pid_t, int> next; /* a thread's own lines keep their order */
    for (std::string line; std::getline(lines, line);) {
        const pid_t tid = std::stoi(line.substr(line.find('[') + 1));
        EXPECT_THAT(line, MatchesRegex(LINE_START + std::to_string(tid) +
                                       "\\]\\[INFO  \\] test_bridge_log\\.cpp:[0-9]+ line " +
                                       std::to_string(next[tid]++)));
    }
    std::map<pid_t, int> wanted;
    for (const pid_t tid : tids)
        wanted[tid] = LINES;
    EXPECT_EQ(next, wanted);
}

TEST_F(BridgeLog, DestinationIsTold)
{
    EXPECT_TRUE(bridge_log_is_stderr());
    EXPECT_EQ(library.opened, 0);
    EXPECT_EQ(bridge_log_init(BRIDGE_LOG_INFO, false), 0);
    EXPECT_FALSE(bridge_log_is_stderr());
}

TEST_F(BridgeLog, SyslogIsOpenedAsADaemonAndClosed)
{
    bridge_log_init(BRIDGE_LOG_INFO, false);
    EXPECT_EQ(library.opened, 1);
    EXPECT_EQ(library.identity, "snv_mqtt_bridge");
    EXPECT_EQ(library.options, LOG_PID_OPTION);
    EXPECT_EQ(library.facility, LOG_DAEMON_FACILITY);
    EXPECT_EQ(bridge_log_deinit(), 0);
    EXPECT_EQ(library.closed, 1);
}

TEST_F(BridgeLog, SyslogLineHasNoTimeAndOnePriorityForAllLevels)
{
    static constexpr std::array<const char *, 5> labels = {"ERROR ", "WARN  ", "INFO  ", "DEBUG ", "TRACE "};
    bridge_log_init(BRIDGE_LOG_TRACE, false);
    captured_stderr capture;
    for (uint32_t level = 0; level < labels.size(); ++level)
        bridge_log_print_message(level, "src/a.cpp", 9, "%s %d", "level", static_cast<int>(level));
    capture.text();

    ASSERT_EQ(library.syslog_calls.size(), labels.size());
    for (size_t level = 0; level < labels.size(); ++level) {
        const std::string wanted = "[" + std::to_string(gettid()) + "][" + labels[level] +
                                   "] a.cpp:9 level " + std::to_string(level) + "\n";
        EXPECT_EQ(library.syslog_calls[level].text, wanted);
        EXPECT_EQ(library.syslog_calls[level].priority, LOG_NOTICE_PRIORITY);
    }
}

TEST_F(BridgeLog, SyslogKeepsTheThresholdAndTheCallersErrno)
{
    bridge_log_init(BRIDGE_LOG_INFO, false);
    captured_stderr capture;
    BRIDGE_DEBUG("dropped");
    errno = EACCES;
    BRIDGE_INFO("open: %m");
    EXPECT_EQ(errno, EACCES);
    capture.text();
    ASSERT_EQ(library.syslog_calls.size(), 1U);
    EXPECT_THAT(library.syslog_calls[0].text, HasSubstr("open: Permission denied\n"));
}

TEST_F(BridgeLogDeath, NullFileOrFormatIsAssertedEvenWhenTheMessageWouldBeDropped)
{
    const char *none = nullptr;
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    EXPECT_ASSERTION(bridge_log_print_message(BRIDGE_LOG_TRACE, none, 1, "text"), "file != NULL");
    EXPECT_ASSERTION(bridge_log_print_message(BRIDGE_LOG_TRACE, "f.cpp", 1, none, 0), "user_fmt != NULL");
}

TEST_F(BridgeLogDeath, AssertionPassesOnlyWhenTheLowByteIsOne)
{
    static constexpr struct {
        uint32_t condition;
        bool passes;
    } cases[] = {{1, true},  {0x101, true},  {0xFFFFFF01, true}, {0, false},
                 {2, false}, {0x100, false}, {0xFF, false}};
    for (const auto &row : cases) {
        SCOPED_TRACE(row.condition);
        if (row.passes)
            bridge_assert(row.condition, "f.cpp", 1, "ctx.initialized");
        else
            EXPECT_EXIT(bridge_assert(row.condition, "f.cpp", 1, "ctx.initialized"), KilledBySignal(SIGABRT),
                        "");
    }
}

TEST_F(BridgeLogDeath, AssertionGoesToStandardOutputWithTheWholePath)
{
    captured_stream output(stdout);
    EXPECT_EXIT(bridge_assert(0, "src/app/main.cpp", 77, "ctx.initialized"), KilledBySignal(SIGABRT),
                Not(HasSubstr("ssertion failed")));
    EXPECT_EQ(output.text(), "Assertion failed: ( ctx.initialized ) in src/app/main.cpp:77\n");
}

TEST_F(BridgeLogDeath, AssertionGoesToSyslogAsAnError)
{
    bridge_log_init(BRIDGE_LOG_INFO, false);
    captured_stream output(stdout);
    EXPECT_EXIT(bridge_assert(0, "src/app/main.cpp", 77, "ctx.initialized"), KilledBySignal(SIGABRT),
                HasSubstr("syslog(" + std::to_string(LOG_ERR_PRIORITY) +
                          ") Assertion failed: ( ctx.initialized ) in src/app/main.cpp:77\n"));
    EXPECT_EQ(output.text(), "");
}

TEST_F(BridgeLogDeath, MacroReportsTheExpressionAndItsPlace)
{
    int sessions = 3;
    EXPECT_ASSERTION(BRIDGE_ASSERT(sessions == 4), "sessions == 4");
    EXPECT_ASSERTION(BRIDGE_ASSERT_TEXT(sessions == 4, "ctx.sessions"), "ctx.sessions");
    BRIDGE_ASSERT(sessions); /* any true value of the expression is 1 by then */
}
