/* Timestamps, the clearing of directories by them, and the forked watcher. */
#include "common/bridge_fileops_watch.h"

#include "common/bridge_child.h"
#include "common/bridge_fileops.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "common/bridge_wait.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

static constexpr mode_t TMST_MODE = 0700;
static constexpr uint32_t WATCH_PERIOD_S = 1;
static constexpr uint32_t STOP_WAIT_S = 3;
static constexpr int NOTHING_LEFT = 1;

static int clean_dir(const bridge_fileops_watch_dir *dir)
{
    const bridge_fileops_entry entry = {.type = BRIDGE_FILEOPS_GLOB,
                                        .access = BRIDGE_FILEOPS_READ | BRIDGE_FILEOPS_WRITE,
                                        .name = dir->glob,
                                        .real_path = dir->dir,
                                        .tmst_path = dir->tmst};
    return bridge_fileops_clean_glob(&entry);
}

int bridge_fileops_force_clean(const bridge_fileops_watch_dir *dirs, size_t dirs_sz)
{
    BRIDGE_ASSERT(dirs);
    BRIDGE_ASSERT(dirs_sz);
    for (size_t i = 0; i < dirs_sz; i++) {
        BRIDGE_TRACE("force-cleaning dir: %s, glob: %s", dirs[i].dir, dirs[i].glob);
        clean_dir(&dirs[i]);
    }
    return 0;
}

/* `modified` is when the timestamp was last made fresh. Returns 0, or -125 when the directory keeps a file:
 * its timestamp stays then, so that the next pass tries again. */
static int clean_if_expired(const bridge_fileops_watch_dir *dir, int64_t modified)
{
    const int64_t now = time(nullptr);
    BRIDGE_TRACE("current time: %llu, file mtime: %llu", static_cast<unsigned long long>(now),
                 static_cast<unsigned long long>(modified));
    if (modified + dir->timeout > now)
        return 0;

    const int rc = clean_dir(dir);
    if (rc == 0 && unlink(dir->tmst) < 0)
        BRIDGE_WARN("unable to delete timestamp file");
    return rc;
}

/* Returns 1 when the row has no timestamp, 0 with the time when it was last made fresh, or a negative errno.
 */
static int query_tmst(const bridge_fileops_watch_dir *dir, int64_t *modified)
{
    struct stat info = {};
    if (stat(dir->tmst, &info) < 0) {
        const int code = errno;
        if (code == ENOENT) {
            BRIDGE_TRACE("no timestamp present for current dir, continuing");
            return NOTHING_LEFT;
        }
        BRIDGE_ERROR("failed to query timestamp file info: %m");
        return -code;
    }
    if (!S_ISREG(info.st_mode)) {
        BRIDGE_ERROR("timestamp path does not point to a file");
        return -EINVAL;
    }
    *modified = info.st_mtime;
    return 0;
}

int bridge_fileops_check_clean(const bridge_fileops_watch_dir *dirs, size_t dirs_sz)
{
    BRIDGE_ASSERT(dirs);
    BRIDGE_ASSERT(dirs_sz);
    int result = NOTHING_LEFT;
    for (size_t i = 0; i < dirs_sz; i++) {
        BRIDGE_TRACE("visiting dir: %s, glob: %s, tmst: %s, timeout: [%u]", dirs[i].dir, dirs[i].glob,
                     dirs[i].tmst, dirs[i].timeout);
        int64_t modified = 0;
        const int rc = query_tmst(&dirs[i], &modified);
        if (rc < 0)
            return rc;
        /* A file that stays is told in the end: it does not keep the rows after it from being looked at. */
        if (rc != NOTHING_LEFT)
            result = std::min(result, clean_if_expired(&dirs[i], modified));
    }
    return result;
}

static int create_tmst(const char *path)
{
    BRIDGE_TRACE("creating timestamp file");
    const bridge_fd fd(open(path, O_RDWR | O_CREAT | O_CLOEXEC, TMST_MODE));
    if (fd.get() < 0) {
        const int code = errno;
        BRIDGE_ERROR("failed to create timestamp file: %m");
        return -code;
    }
    return 0;
}

int bridge_fileops_update_tmst(const bridge_fileops_watch_dir *dir)
{
    BRIDGE_ASSERT(dir);
    struct stat info = {};
    if (stat(dir->tmst, &info) < 0) {
        const int code = errno;
        if (code == ENOENT)
            return create_tmst(dir->tmst);
        BRIDGE_ERROR("failed to query timestamp file info: %m");
        return -code;
    }
    if (utime(dir->tmst, nullptr) < 0) {
        const int code = errno;
        BRIDGE_ERROR("failed to update timestamp: %m");
        return -code;
    }
    return 0;
}

/* The child. It drops the daemon's descriptors and runs no program, takes no lock of the daemon's, and
 * touches only the watched directories and the log. */
[[noreturn]] static void watch_dirs(const bridge_fileops_watch_dir *dirs, size_t dirs_sz)
{
    bridge_child_drop_descriptors();
    BRIDGE_INFO("slave process started");
    while (bridge_fileops_check_clean(dirs, dirs_sz) != NOTHING_LEFT)
        bridge_wait_s(WATCH_PERIOD_S);
    BRIDGE_INFO("no more files in watched dirs, exiting slave process");
    exit(0);
}

int bridge_fileops_watch_start(const bridge_fileops_watch_dir *dirs, size_t dirs_sz)
{
    BRIDGE_ASSERT(dirs);
    BRIDGE_ASSERT(dirs_sz > 0);
    const pid_t pid = fork();
    if (pid < 0) {
        const int code = errno;
        BRIDGE_INFO("failed to start slave process: %m");
        return -code;
    }
    if (pid == 0)
        watch_dirs(dirs, dirs_sz);
    BRIDGE_DEBUG("launched process pid: [%d]", pid);
    return pid;
}

int bridge_fileops_watch_running(int watch_pid, bool *running)
{
    BRIDGE_ASSERT(watch_pid > 0);
    BRIDGE_ASSERT(running);
    BRIDGE_TRACE("check running: [%ld]", static_cast<long>(watch_pid));

    const pid_t finished = waitpid(watch_pid, nullptr, WNOHANG);
    if (finished < 0) {
        const int code = errno;
        BRIDGE_ERROR("failed to query watch process status: %m");
        return -code;
    }
    *running = finished == 0;
    if (*running)
        BRIDGE_TRACE("process is still running");
    else
        BRIDGE_TRACE("process is finished");
    return 0;
}

int bridge_fileops_watch_stop(int watch_pid)
{
    BRIDGE_ASSERT(watch_pid > 0);
    bool running = false;
    const int rc = bridge_fileops_watch_running(watch_pid, &running);
    if (rc < 0)
        return rc;
    if (!running) {
        BRIDGE_DEBUG("watch process is not running anymore");
        return 0;
    }
    if (kill(watch_pid, SIGTERM) < 0) {
        const int code = errno;
        BRIDGE_ERROR("termination of process [%d] fails: %m", watch_pid);
        return -code;
    }
    bridge_wait_s(STOP_WAIT_S);
    waitpid(watch_pid, nullptr, WNOHANG);
    return 0;
}
