/* Two lines of text a file: the status and its hint, then the request. */
#include "converter/control/bridge_cmd_state.h"

#include "common/bridge_config.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

static constexpr size_t PATH_SIZE = 4096;
static constexpr mode_t STATE_DIR_MODE = 0755;
static constexpr int NO_STATUS = -2;

using file_owned = std::unique_ptr<FILE, bridge_release<fclose>>;

/* By bridge_cmd_state_index. */
static constexpr std::array<const char *, IDX_LAST_STATUS> FILE_NAMES = {"last_sw_status",
                                                                         "last_wm_fw_status"};

static constexpr std::array<const char *, 4> SW_HINTS = {"none", "install", "upgrade", "localupgrade"};
static constexpr std::array<const char *, 4> WM_HINTS = {nullptr, "in-progress", "ok", "failure"};

/* ---- paths ---- */

static int form_path(bridge_cmd_state_index idx, char (&path)[PATH_SIZE])
{
    const char *directory = bridge_config_get_root_checked()->generic.state_dir;
    const int length = snprintf(path, sizeof(path), "%s/%s", directory, FILE_NAMES[idx]);
    if (length >= 0 && static_cast<size_t>(length) < sizeof(path))
        return 0;
    BRIDGE_ERROR("failed to form a path for state file: %s", FILE_NAMES[idx]);
    return -1;
}

static int create_directory(const char *path)
{
    struct stat status = {};
    if (stat(path, &status) == 0) {
        if (S_ISDIR(status.st_mode))
            return 0;
        BRIDGE_ERROR("path for keeping bridge files %s exists, but it isn't a directory", path);
        return -1;
    }
    if (mkdir(path, STATE_DIR_MODE) == 0)
        return 0;
    BRIDGE_ERROR("failed to create %s directory", path);
    return -1;
}

static int create_file(const char *path)
{
    struct stat status = {};
    if (stat(path, &status) == 0) {
        if (S_ISREG(status.st_mode))
            return 0;
        BRIDGE_ERROR("state path %s exists, but it isn't a regular file", path);
        return -1;
    }
    const file_owned file(fopen(path, "we"));
    if (file)
        return 0;
    BRIDGE_ERROR("failed to create a state file: %s", path);
    return -1;
}

int bridge_cmd_state_create()
{
    if (create_directory(bridge_config_get_root_checked()->generic.state_dir) < 0)
        return -1;
    for (uint32_t idx = 0; idx < IDX_LAST_STATUS; idx++) {
        char path[PATH_SIZE];
        if (form_path(static_cast<bridge_cmd_state_index>(idx), path) < 0 || create_file(path) < 0)
            return -1;
    }
    return 0;
}

/* ---- reading and writing ---- */

/* The file, locked as a whole until it is closed; null after logging why. */
static FILE *open_locked(bridge_cmd_state_index idx, const char *mode)
{
    char path[PATH_SIZE];
    if (form_path(idx, path) < 0)
        return nullptr;
    file_owned file(fopen(path, mode));
    if (!file) {
        BRIDGE_ERROR("failed to open a state file");
        return nullptr;
    }
    const int descriptor = fileno(file.get());
    if (descriptor < 0) {
        BRIDGE_ERROR("failed to get file descriptor: %m");
        return nullptr;
    }
    if (lockf(descriptor, F_LOCK, 0) < 0) {
        BRIDGE_ERROR("failed to get a lock: %m");
        return nullptr;
    }
    return file.release();
}

static void unlock(FILE *file)
{
    fflush(file);
    rewind(file); /* the lock counts from the position of its taking */
    if (lockf(fileno(file), F_ULOCK, 0) < 0)
        BRIDGE_WARN("failed to unlock a state file: %m"); /* closing it does so too */
}

int bridge_cmd_state_write(bridge_cmd_state_index idx, int32_t status, const char *hint, int64_t req_id)
{
    BRIDGE_DEBUG("serializing status: %d into file idx: %d with hint: %s, req: %lld", status,
                 static_cast<int>(idx), hint, static_cast<long long>(req_id));
    const file_owned file(open_locked(idx, "w+e"));
    if (!file)
        return -1;
    int result = 0;
    if (fprintf(file.get(), "%d:%s\n", status, hint) < 0 ||
        fprintf(file.get(), "%lld:req\n", static_cast<long long>(req_id)) < 0 || fflush(file.get()) != 0) {
        BRIDGE_ERROR("failed to serialize a status");
        result = -1;
    }
    unlock(file.get());
    return result;
}

int bridge_cmd_state_read(bridge_cmd_state_index idx, int32_t *status, int64_t *req_id)
{
    BRIDGE_DEBUG("de-serializing status from file idx: %d", static_cast<int>(idx));
    const file_owned file(open_locked(idx, "r+e"));
    if (!file)
        return -1;
    int result = 0;
    int number = 0;
    long long request = 0;
    if (fscanf(file.get(), "%d:%*s", &number) != 1) {
        result = NO_STATUS;
    } else {
        *status = number;
        if (fscanf(file.get(), "%lld:%*s", &request) != 1)
            request = 0;
        *req_id = request;
    }
    unlock(file.get());
    return result;
}

int bridge_cmd_sw_status_write(int32_t status, int64_t req_id)
{
    BRIDGE_ASSERT(status >= 0 && status < static_cast<int32_t>(SW_HINTS.size()));
    return bridge_cmd_state_write(IDX_SW_STATUS, status, SW_HINTS[static_cast<size_t>(status)], req_id);
}

int bridge_cmd_wm_status_write(int32_t status)
{
    if (status < 1 || status >= static_cast<int32_t>(WM_HINTS.size()))
        return -1;
    return bridge_cmd_state_write(IDX_WM_FW_STATUS, status, WM_HINTS[static_cast<size_t>(status)], 0);
}

int bridge_cmd_wm_status_read(int32_t *status)
{
    int64_t req_id = 0;
    const int result = bridge_cmd_state_read(IDX_WM_FW_STATUS, status, &req_id);
    if (result != NO_STATUS)
        return result;
    *status = 0;
    return 0;
}
