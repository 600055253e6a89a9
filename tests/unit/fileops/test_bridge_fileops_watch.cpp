/* Timestamps, the clearing by them, and the watcher as a real process with a clock that does not wait. */
#include "common/bridge_fileops_watch.h"

#include "common/bridge_wait.h"
#include "fileops/fileops_fixture.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <new>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

using strings = std::vector<std::string>;

static constexpr auto DEADLINE = std::chrono::seconds(20);

/* What the watcher's clock was asked for, seen by this process. */
struct shared_clock {
    std::atomic<uint32_t> rounds;
    std::atomic<uint32_t> last_seconds;
};

static shared_clock *watcher_clock;
static pid_t test_process;
static std::function<void(uint32_t)> own_wait;

static const char *failing_call = "";
static int failing_errno;
static time_t frozen_time;

static bool fails(const char *call)
{
    if (strcmp(failing_call, call) != 0)
        return false;
    errno = failing_errno;
    return true;
}

static void pause_shortly()
{
    const timespec span = {.tv_sec = 0, .tv_nsec = 1'000'000};
    nanosleep(&span, nullptr);
}

static bool wait_until(const std::function<bool()> &condition)
{
    const auto deadline = std::chrono::steady_clock::now() + DEADLINE;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        pause_shortly();
    }
    return true;
}

void bridge_wait_s(uint32_t seconds)
{
    if (getpid() == test_process) {
        own_wait(seconds);
        return;
    }
    if (getppid() != test_process)
        _exit(1);
    watcher_clock->last_seconds = seconds;
    watcher_clock->rounds++;
    pause_shortly(); /* leaves the processor to the test */
}

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes the names
extern "C" {
time_t __real_time(time_t *result);
int __real_utime(const char *path, const utimbuf *times);
int __real_unlink(const char *path);
int __real_unlinkat(int fd, const char *name, int flags);
pid_t __real_fork();
int __real_kill(pid_t pid, int signal);

time_t __wrap_time(time_t *result)
{
    return frozen_time != 0 ? frozen_time : __real_time(result);
}

int __wrap_utime(const char *path, const utimbuf *times)
{
    return fails("utime") ? -1 : __real_utime(path, times);
}

int __wrap_unlink(const char *path)
{
    return fails("unlink") ? -1 : __real_unlink(path);
}

int __wrap_unlinkat(int fd, const char *name, int flags)
{
    return strncmp(name, "stuck", 5) == 0 && fails("unlinkat") ? -1 : __real_unlinkat(fd, name, flags);
}

pid_t __wrap_fork()
{
    return fails("fork") ? -1 : __real_fork();
}

int __wrap_kill(pid_t pid, int signal)
{
    return fails("kill") ? -1 : __real_kill(pid, signal);
}
}
// NOLINTEND(bugprone-reserved-identifier)

static bool has_ended(pid_t pid)
{
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == pid;
}

class FileopsWatch : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(bridge_log_init(BRIDGE_LOG_TRACE, true), 0);
        test_process = getpid();
        void *memory =
            mmap(nullptr, sizeof(shared_clock), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(memory, MAP_FAILED);
        watcher_clock = new (memory) shared_clock{};
        own_wait = [](uint32_t) { FAIL() << "nothing is to wait here"; };
        std::filesystem::create_directories(logs);
        std::filesystem::create_directories(old);
    }
    void TearDown() override
    {
        if (watcher > 0) {
            kill(watcher, SIGKILL);
            waitpid(watcher, nullptr, 0);
        }
        munmap(watcher_clock, sizeof(shared_clock));
        failing_call = "";
        frozen_time = 0;
    }

    template <typename Call> int run(Call call, const char *levels = "ERROR WARN INFO")
    {
        captured_stderr log;
        const int rc = call();
        logged.clear();
        for (const std::string &message : messages(log.text())) {
            if (strstr(levels, message.substr(0, message.find(' ')).c_str()) != nullptr)
                logged.push_back(message);
        }
        return rc;
    }
    int check(const char *levels = "ERROR WARN INFO")
    {
        return run([&] { return bridge_fileops_check_clean(dirs, std::size(dirs)); }, levels);
    }
    /* While the log is captured. */
    void start()
    {
        fcntl(STDERR_FILENO, F_SETFL, O_APPEND); /* two processes write, and one offset loses lines */
        fflush(nullptr); /* the child's exit must not write this process's text again */
        watcher = bridge_fileops_watch_start(dirs, std::size(dirs));
        ASSERT_GT(watcher, 0);
    }
    bool is_running()
    {
        bool running = false;
        EXPECT_EQ(bridge_fileops_watch_running(watcher, &running), 0);
        return running;
    }
    /* The watcher's end status, once it has ended by itself. */
    int end_status()
    {
        EXPECT_TRUE(wait_until([&] { return has_ended(watcher); }));
        int status = -1;
        EXPECT_EQ(waitpid(watcher, &status, WNOHANG), watcher);
        watcher = 0;
        return status;
    }

    /* A timestamp file that was made fresh at `when`. */
    void stamp(const char *name, time_t when)
    {
        const std::string file = real.make_file(name, "");
        const timespec times[] = {{.tv_sec = when}, {.tv_sec = when}};
        ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    }

    temporary_folder real;
    const std::string logs = real.below("log");
    const std::string old = real.below("old");
    const std::string logs_tmst = real.below("log.tmst");
    const std::string old_tmst = real.below("old.tmst");
    const bridge_fileops_watch_dir dirs[2] = {
        {.dir = logs.c_str(), .glob = "*.log", .tmst = logs_tmst.c_str(), .timeout = 60},
        {.dir = old.c_str(), .glob = "*.gz", .tmst = old_tmst.c_str(), .timeout = 60},
    };
    strings logged;
    pid_t watcher = 0;
};

using FileopsWatchDeath = FileopsWatch;

/* ---- forced clearing ---- */

TEST_F(FileopsWatch, ForcedClearingAsksNoTimestamp)
{
    for (const char *name : {"log/a.log", "log/b.txt", "old/c.gz"})
        real.make_file(name);
    stamp("log.tmst", time(nullptr));
    EXPECT_EQ(run([&] { return bridge_fileops_force_clean(dirs, 2); }), 0);
    EXPECT_FALSE(real.has("log/a.log"));
    EXPECT_FALSE(real.has("old/c.gz"));
    EXPECT_TRUE(real.has("log/b.txt"));
    EXPECT_TRUE(real.has("log.tmst"));
    EXPECT_THAT(logged, IsEmpty());
}

TEST_F(FileopsWatch, ForcedClearingIgnoresFailures)
{
    real.make_file("log/stuck.log");
    real.make_file("old/c.gz");
    failing_call = "unlinkat";
    failing_errno = EBUSY;
    EXPECT_EQ(run([&] { return bridge_fileops_force_clean(dirs, 2); }, "ERROR"), 0);
    EXPECT_THAT(logged, ElementsAre("ERROR failed to delete a file: stuck.log"));
    EXPECT_FALSE(real.has("old/c.gz"));
    std::filesystem::remove_all(old);
    EXPECT_EQ(run([&] { return bridge_fileops_force_clean(dirs, 2); }, "INFO"), 0);
    EXPECT_THAT(logged, ElementsAre("INFO can't access dir: " + old + ", skipping cleaning it"));
}

TEST_F(FileopsWatch, ForcedClearingTellsEachRow)
{
    run([&] { return bridge_fileops_force_clean(dirs, 2); }, "TRACE");
    EXPECT_THAT(logged, Contains("TRACE force-cleaning dir: " + logs + ", glob: *.log"));
    EXPECT_THAT(logged, Contains("TRACE force-cleaning dir: " + old + ", glob: *.gz"));
}

/* ---- a pass ---- */

TEST_F(FileopsWatch, PassWithoutTimestampsTouchesNothing)
{
    real.make_file("log/a.log");
    EXPECT_EQ(check("TRACE"), 1);
    EXPECT_TRUE(real.has("log/a.log"));
    EXPECT_THAT(
        logged,
        ElementsAre("TRACE visiting dir: " + logs + ", glob: *.log, tmst: " + logs_tmst + ", timeout: [60]",
                    "TRACE no timestamp present for current dir, continuing",
                    "TRACE visiting dir: " + old + ", glob: *.gz, tmst: " + old_tmst + ", timeout: [60]",
                    "TRACE no timestamp present for current dir, continuing"));
}

TEST_F(FileopsWatch, TimestampOfExactlyTheTimeoutHasExpired)
{
    static constexpr time_t NOW = 1'700'000'000;
    static constexpr struct {
        time_t age;
        bool expired;
    } cases[] = {{-1000, false}, {0, false}, {59, false}, {60, true}, {61, true}, {NOW, true}};
    for (const auto &row : cases) {
        real.make_file("log/a.log");
        stamp("log.tmst", NOW - row.age);
        frozen_time = NOW;
        EXPECT_EQ(check("TRACE"), 0) << row.age;
        frozen_time = 0;
        EXPECT_THAT(logged,
                    Contains("TRACE current time: 1700000000, file mtime: " + std::to_string(NOW - row.age)));
        EXPECT_EQ(real.has("log/a.log"), !row.expired) << row.age;
        EXPECT_EQ(real.has("log.tmst"), !row.expired) << row.age;
    }
}

TEST_F(FileopsWatch, LargestTimeoutDoesNotWrap)
{
    const bridge_fileops_watch_dir row = {
        .dir = logs.c_str(), .glob = "*", .tmst = logs_tmst.c_str(), .timeout = UINT32_MAX};
    real.make_file("log/a.log");
    stamp("log.tmst", 1'000'000);
    EXPECT_EQ(run([&] { return bridge_fileops_check_clean(&row, 1); }), 0);
    EXPECT_TRUE(real.has("log/a.log"));
    EXPECT_TRUE(real.has("log.tmst"));
}

TEST_F(FileopsWatch, OneIsTheAnswerOfThePassAfterTheLastTimestamp)
{
    stamp("log.tmst", 1000);
    stamp("old.tmst", 1000);
    real.make_file("log/a.log");
    real.make_file("old/b.gz");
    EXPECT_EQ(check(), 0);
    EXPECT_FALSE(real.has("log.tmst"));
    EXPECT_FALSE(real.has("old.tmst"));
    EXPECT_FALSE(real.has("log/a.log"));
    EXPECT_FALSE(real.has("old/b.gz"));
    EXPECT_EQ(check(), 1);
}

TEST_F(FileopsWatch, EachRowGoesByItsOwnTimestamp)
{
    stamp("log.tmst", time(nullptr));
    stamp("old.tmst", 1000);
    real.make_file("log/a.log");
    real.make_file("old/b.gz");
    EXPECT_EQ(check(), 0);
    EXPECT_TRUE(real.has("log/a.log"));
    EXPECT_FALSE(real.has("old/b.gz"));
    EXPECT_EQ(check(), 0);
    EXPECT_TRUE(real.has("log.tmst"));
}

TEST_F(FileopsWatch, OneFreshTimestampIsEnoughForTheWatchToGoOn)
{
    stamp("log.tmst", time(nullptr));
    EXPECT_EQ(check(), 0);
    std::filesystem::rename(logs_tmst, old_tmst);
    EXPECT_EQ(check(), 0);
}

TEST_F(FileopsWatch, UnopenedDirectoryCountsAsClearedAndLosesItsTimestamp)
{
    stamp("log.tmst", 1000);
    std::filesystem::remove_all(logs);
    EXPECT_EQ(check(), 0);
    EXPECT_THAT(logged, ElementsAre("INFO can't access dir: " + logs + ", skipping cleaning it"));
    EXPECT_FALSE(real.has("log.tmst"));
}

TEST_F(FileopsWatch, FileThatStaysKeepsItsTimestampUntilAPassSucceeds)
{
    stamp("log.tmst", 1000);
    stamp("old.tmst", 1000);
    for (const char *name : {"log/a.log", "log/stuck.log", "old/b.gz"})
        real.make_file(name);
    failing_call = "unlinkat";
    failing_errno = EBUSY;
    EXPECT_EQ(check("ERROR WARN"), -ECANCELED);
    EXPECT_THAT(logged, ElementsAre("ERROR failed to delete a file: stuck.log"));
    EXPECT_TRUE(real.has("log.tmst"));
    EXPECT_FALSE(real.has("log/a.log"));
    EXPECT_FALSE(real.has("old/b.gz"));
    EXPECT_FALSE(real.has("old.tmst"));

    failing_call = "";
    EXPECT_EQ(check(), 0);
    EXPECT_FALSE(real.has("log/stuck.log"));
    EXPECT_FALSE(real.has("log.tmst"));
    EXPECT_EQ(check(), 1);
}

TEST_F(FileopsWatch, PassThatEndsEarlyTellsWhyAndNotTheFileThatStayed)
{
    stamp("log.tmst", 1000);
    real.make_file("log/stuck.log");
    std::filesystem::create_directory(old_tmst);
    failing_call = "unlinkat";
    failing_errno = EBUSY;
    EXPECT_EQ(check(), -EINVAL);
    EXPECT_TRUE(real.has("log.tmst"));
}

/* No one deletes from there, root included. */
TEST_F(FileopsWatch, RealDirectoryThatForbidsDeleting)
{
    const bridge_fileops_watch_dir row = {.dir = "/proc/self", .glob = "comm", .tmst = logs_tmst.c_str()};
    stamp("log.tmst", 1000);
    EXPECT_EQ(run([&] { return bridge_fileops_check_clean(&row, 1); }), -ECANCELED);
    EXPECT_THAT(logged, ElementsAre("ERROR failed to delete a file: comm"));
    EXPECT_TRUE(real.has("log.tmst"));
}

TEST_F(FileopsWatch, TimestampThatIsNoFileEndsThePass)
{
    std::filesystem::create_directory(logs_tmst);
    stamp("old.tmst", 1000);
    EXPECT_EQ(check(), -EINVAL);
    EXPECT_THAT(logged, ElementsAre("ERROR timestamp path does not point to a file"));
    EXPECT_TRUE(real.has("old.tmst"));
}

TEST_F(FileopsWatch, TimestampThatCannotBeQueriedEndsThePass)
{
    std::filesystem::create_symlink("log.tmst", logs_tmst);
    stamp("old.tmst", 1000);
    EXPECT_EQ(check(), -ELOOP);
    EXPECT_THAT(logged,
                ElementsAre("ERROR failed to query timestamp file info: Too many levels of symbolic links"));
    EXPECT_TRUE(real.has("old.tmst"));
}

TEST_F(FileopsWatch, RowsBeforeTheOneThatEndsThePassAreDone)
{
    stamp("log.tmst", 1000);
    real.make_file("log/a.log");
    std::filesystem::create_directory(old_tmst);
    EXPECT_EQ(check(), -EINVAL);
    EXPECT_FALSE(real.has("log/a.log"));
    EXPECT_FALSE(real.has("log.tmst"));
}

TEST_F(FileopsWatch, TimestampThatCannotBeDeletedIsOnlyAWarning)
{
    stamp("log.tmst", 1000);
    failing_call = "unlink";
    failing_errno = EPERM;
    EXPECT_EQ(check(), 0);
    EXPECT_THAT(logged, ElementsAre("WARN unable to delete timestamp file"));
}

/* ---- timestamps ---- */

TEST_F(FileopsWatch, TimestampIsCreated)
{
    const mode_t mask = umask(0);
    EXPECT_EQ(run([&] { return bridge_fileops_update_tmst(&dirs[0]); }, "ERROR TRACE"), 0);
    umask(mask);
    EXPECT_THAT(logged, ElementsAre("TRACE creating timestamp file"));
    struct stat info = {};
    ASSERT_EQ(stat(logs_tmst.c_str(), &info), 0);
    EXPECT_TRUE(S_ISREG(info.st_mode));
    EXPECT_EQ(info.st_mode & 07777U, 0700U);
}

TEST_F(FileopsWatch, TimestampIsMadeFresh)
{
    stamp("log.tmst", 1000);
    const time_t before = time(nullptr);
    EXPECT_EQ(run([&] { return bridge_fileops_update_tmst(&dirs[0]); }, "ERROR TRACE"), 0);
    EXPECT_THAT(logged, IsEmpty());
    struct stat info = {};
    ASSERT_EQ(stat(logs_tmst.c_str(), &info), 0);
    EXPECT_GE(info.st_mtime, before);
    EXPECT_GE(info.st_atime, before);
}

TEST_F(FileopsWatch, FailedTimestamps)
{
    const auto update = [&](const std::string &path) {
        const bridge_fileops_watch_dir row = {.dir = "", .glob = "", .tmst = path.c_str(), .timeout = 1};
        return run([&] { return bridge_fileops_update_tmst(&row); });
    };
    EXPECT_EQ(update(real.below("absent/tmst")), -ENOENT);
    EXPECT_THAT(logged, ElementsAre("ERROR failed to create timestamp file: No such file or directory"));

    real.make_file("file");
    EXPECT_EQ(update(real.below("file/tmst")), -ENOTDIR);
    EXPECT_THAT(logged, ElementsAre("ERROR failed to query timestamp file info: Not a directory"));

    stamp("log.tmst", 1000);
    failing_call = "utime";
    failing_errno = EROFS;
    EXPECT_EQ(update(logs_tmst), -EROFS);
    EXPECT_THAT(logged, ElementsAre("ERROR failed to update timestamp: Read-only file system"));
}

/* ---- the watcher ---- */

TEST_F(FileopsWatch, WatcherEndsOnItsFirstPassWithoutTimestamps)
{
    captured_stderr log;
    start();
    const pid_t pid = watcher;
    const int status = end_status();
    const strings lines = messages(log.text());
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(watcher_clock->rounds, 0U);
    EXPECT_THAT(lines, Contains("DEBUG launched process pid: [" + std::to_string(pid) + "]"));
    EXPECT_THAT(lines, Contains("INFO slave process started"));
    EXPECT_THAT(lines, Contains("INFO no more files in watched dirs, exiting slave process"));
}

TEST_F(FileopsWatch, WatcherClearsAnExpiredDirectoryAndEnds)
{
    captured_stderr log;
    stamp("log.tmst", 1000);
    real.make_file("log/a.log");
    start();
    const int status = end_status();
    log.text();
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_FALSE(real.has("log/a.log"));
    EXPECT_FALSE(real.has("log.tmst"));
    EXPECT_EQ(watcher_clock->rounds, 1U);
    EXPECT_EQ(watcher_clock->last_seconds, 1U);
}

TEST_F(FileopsWatch, WatcherStaysWhileATimestampIsFresh)
{
    captured_stderr log;
    ASSERT_EQ(bridge_fileops_update_tmst(&dirs[0]), 0);
    real.make_file("log/a.log");
    start();
    EXPECT_TRUE(wait_until([&] { return watcher_clock->rounds >= 5; }));
    EXPECT_TRUE(is_running());
    EXPECT_TRUE(real.has("log/a.log"));

    stamp("log.tmst", 1000);
    EXPECT_TRUE(WIFEXITED(end_status()));
    EXPECT_FALSE(real.has("log/a.log"));
    log.text();
}

TEST_F(FileopsWatch, WatcherGoesRoundAfterFailedPasses)
{
    captured_stderr log;
    std::filesystem::create_directory(logs_tmst);
    start();
    EXPECT_TRUE(wait_until([&] { return watcher_clock->rounds >= 5; }));
    EXPECT_TRUE(is_running());

    std::filesystem::remove(logs_tmst);
    EXPECT_TRUE(WIFEXITED(end_status()));
    EXPECT_THAT(messages(log.text()), Contains("ERROR timestamp path does not point to a file"));
}

TEST_F(FileopsWatch, WatcherThatCannotBeForked)
{
    failing_call = "fork";
    failing_errno = EAGAIN;
    EXPECT_EQ(run([&] { return bridge_fileops_watch_start(dirs, 2); }), -EAGAIN);
    EXPECT_THAT(logged, ElementsAre("INFO failed to start slave process: Resource temporarily unavailable"));
}

TEST_F(FileopsWatch, RunningIsAskedWithoutWaitingAndReapsAFinishedWatcher)
{
    ASSERT_EQ(bridge_fileops_update_tmst(&dirs[0]), 0);
    bool running = false;
    const auto ask = [&] {
        return run([&] { return bridge_fileops_watch_running(watcher, &running); }, "ERROR TRACE");
    };
    {
        captured_stderr log;
        start();
        log.text();
    }
    const std::string checked = "TRACE check running: [" + std::to_string(watcher) + "]";
    const auto ours = [&] {
        strings lines;
        for (const std::string &line : logged) {
            if (line == checked || line.starts_with("TRACE process is ") ||
                line.starts_with("ERROR failed to query w"))
                lines.push_back(line);
        }
        return lines;
    };
    EXPECT_EQ(ask(), 0);
    EXPECT_TRUE(running);
    EXPECT_THAT(ours(), ElementsAre(checked, "TRACE process is still running"));

    std::filesystem::remove(logs_tmst);
    EXPECT_TRUE(wait_until([&] { return has_ended(watcher); }));
    EXPECT_EQ(ask(), 0);
    EXPECT_FALSE(running);
    EXPECT_THAT(ours(), ElementsAre(checked, "TRACE process is finished"));

    EXPECT_EQ(ask(), -ECHILD);
    EXPECT_THAT(ours(),
                ElementsAre(checked, "ERROR failed to query watch process status: No child processes"));
    watcher = 0;
}

TEST_F(FileopsWatch, StopEndsTheWatcherWithinThreeSeconds)
{
    captured_stderr log;
    ASSERT_EQ(bridge_fileops_update_tmst(&dirs[0]), 0);
    start();
    uint32_t waited = 0;
    own_wait = [&](uint32_t seconds) {
        waited += seconds;
        EXPECT_TRUE(wait_until([&] { return has_ended(watcher); }));
        siginfo_t info = {};
        EXPECT_EQ(waitid(P_PID, static_cast<id_t>(watcher), &info, WEXITED | WNOHANG | WNOWAIT), 0);
        EXPECT_EQ(info.si_code, CLD_KILLED);
        EXPECT_EQ(info.si_status, SIGTERM);
    };
    EXPECT_EQ(bridge_fileops_watch_stop(watcher), 0);
    EXPECT_EQ(waited, 3U);
    EXPECT_EQ(waitpid(watcher, nullptr, WNOHANG), -1) << "the stop reaps";
    EXPECT_EQ(errno, ECHILD);
    EXPECT_TRUE(real.has("log.tmst"));
    watcher = 0;
    log.text();
}

TEST_F(FileopsWatch, StopOfAFinishedWatcherSendsNothing)
{
    {
        captured_stderr log;
        start();
        EXPECT_TRUE(wait_until([&] { return has_ended(watcher); }));
        log.text();
    }
    EXPECT_EQ(run([&] { return bridge_fileops_watch_stop(watcher); }, "ERROR DEBUG"), 0);
    EXPECT_THAT(logged, ElementsAre("DEBUG watch process is not running anymore"));
    EXPECT_EQ(run([&] { return bridge_fileops_watch_stop(watcher); }, "ERROR"), -ECHILD);
    EXPECT_THAT(logged, ElementsAre("ERROR failed to query watch process status: No child processes"));
    watcher = 0;
}

TEST_F(FileopsWatch, StopGivesUpAfterOneLookAtAProcessThatStays)
{
    captured_stderr log;
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigprocmask(SIG_BLOCK, &blocked, &before); /* the child inherits it */
    ASSERT_EQ(bridge_fileops_update_tmst(&dirs[0]), 0);
    start();
    sigprocmask(SIG_SETMASK, &before, nullptr);
    uint32_t waits = 0;
    own_wait = [&](uint32_t) { waits++; };
    EXPECT_EQ(bridge_fileops_watch_stop(watcher), 0);
    EXPECT_EQ(waits, 1U);
    EXPECT_TRUE(is_running());
    log.text();
}

TEST_F(FileopsWatch, StopThatMayNotSignal)
{
    {
        captured_stderr log;
        ASSERT_EQ(bridge_fileops_update_tmst(&dirs[0]), 0);
        start();
        log.text();
    }
    failing_call = "kill";
    failing_errno = EPERM;
    EXPECT_EQ(run([&] { return bridge_fileops_watch_stop(watcher); }, "ERROR"), -EPERM);
    EXPECT_THAT(logged, ElementsAre("ERROR termination of process [" + std::to_string(watcher) +
                                    "] fails: Operation not permitted"));
    failing_call = "";
}

/* ---- programming faults ---- */

TEST_F(FileopsWatchDeath, Assertions)
{
    bool running = false;
    EXPECT_ASSERTION(bridge_fileops_force_clean(nullptr, 1), "dirs");
    EXPECT_ASSERTION(bridge_fileops_force_clean(dirs, 0), "dirs_sz");
    EXPECT_ASSERTION(bridge_fileops_check_clean(nullptr, 1), "dirs");
    EXPECT_ASSERTION(bridge_fileops_check_clean(dirs, 0), "dirs_sz");
    EXPECT_ASSERTION(bridge_fileops_update_tmst(nullptr), "dir");
    EXPECT_ASSERTION(bridge_fileops_watch_start(nullptr, 1), "dirs");
    EXPECT_ASSERTION(bridge_fileops_watch_start(dirs, 0), "dirs_sz > 0");
    EXPECT_ASSERTION(bridge_fileops_watch_running(0, &running), "watch_pid > 0");
    EXPECT_ASSERTION(bridge_fileops_watch_running(-1, &running), "watch_pid > 0");
    EXPECT_ASSERTION(bridge_fileops_watch_running(1, nullptr), "running");
    EXPECT_ASSERTION(bridge_fileops_watch_stop(0), "watch_pid > 0");
}
