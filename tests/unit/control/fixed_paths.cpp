#include "control/fixed_paths.h"

#include "control/failing_calls.h"

#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>

static std::mutex mutex;
static std::string the_root;
static std::vector<std::string> made_paths;

void fixed_paths::move_below(const std::string &root)
{
    const std::lock_guard guard(mutex);
    the_root = root;
    made_paths.clear();
}

std::vector<std::string> fixed_paths::made()
{
    const std::lock_guard guard(mutex);
    return made_paths;
}

std::string fixed_paths::below(const std::string &path)
{
    static constexpr const char *FIXED[] = {
        "/usr/share/snv-mqtt-bridge", "/var/", "/lib/firmware", "/dev/shm/", "/etc/", "/tmp/snv_bridge.pipe"};
    const std::lock_guard guard(mutex);
    for (const char *start : FIXED) {
        if (path.starts_with(start))
            return the_root + path;
    }
    return path;
}

static void note(const char *call, mode_t mode, const char *path)
{
    char text[4200];
    snprintf(text, sizeof(text), "%s %o %s", call, mode, path);
    const std::lock_guard guard(mutex);
    made_paths.emplace_back(text);
}

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes the names
extern "C" {
int __real_mkdir(const char *path, mode_t mode);
int __wrap_mkdir(const char *path, mode_t mode)
{
    note("mkdir", mode, path);
    return fails("mkdir") ? -1 : __real_mkdir(fixed_paths::below(path).c_str(), mode);
}

int __real_mkfifo(const char *path, mode_t mode);
int __wrap_mkfifo(const char *path, mode_t mode)
{
    note("mkfifo", mode, path);
    return fails("mkfifo") ? -1 : __real_mkfifo(fixed_paths::below(path).c_str(), mode);
}

int __real_stat64(const char *path, struct stat *status);
int __wrap_stat64(const char *path, struct stat *status)
{
    return __real_stat64(fixed_paths::below(path).c_str(), status);
}

int __real_open64(const char *path, int flags, ...);
int __wrap_open64(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return fails("open") ? -1 : __real_open64(fixed_paths::below(path).c_str(), flags, mode);
}
}
// NOLINTEND(bugprone-reserved-identifier)
