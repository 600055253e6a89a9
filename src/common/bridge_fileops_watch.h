/* Directories whose content may stay only as long as a timestamp file is fresh, and the forked watcher that
 * clears them. The timestamps are all that the watcher shares with anyone. */
#ifndef BRIDGE_FILEOPS_WATCH_H
#define BRIDGE_FILEOPS_WATCH_H

#include <cstddef>
#include <cstdint>

struct bridge_fileops_watch_dir {
    const char *dir;  /* real directory */
    const char *glob; /* files to clear in it */
    const char *tmst; /* path of the timestamp file */
    uint32_t timeout; /* seconds; a timestamp of exactly this age has expired */
};

/* Clears every row, whatever its timestamp says, which stays. Returns 0. */
int bridge_fileops_force_clean(const bridge_fileops_watch_dir *dirs, size_t dirs_sz);

/* Clears the rows whose time has passed, and removes their timestamps once nothing is left to clear. Returns
 * 1 when it found no timestamp at all, 0 when it found one, or a negative errno. */
int bridge_fileops_check_clean(const bridge_fileops_watch_dir *dirs, size_t dirs_sz);

/* Creates the row's timestamp file, or makes it fresh. Returns 0 or a negative errno. */
int bridge_fileops_update_tmst(const bridge_fileops_watch_dir *dir);

/* Forks a process that checks the rows each second and ends when no timestamp is left. `dirs` must stay
 * valid. Returns its id, which the caller keeps and reaps through the two calls below, or a negative errno.
 */
int bridge_fileops_watch_start(const bridge_fileops_watch_dir *dirs, size_t dirs_sz);

/* Returns 0 or a negative errno. A process that is found finished is reaped, so it can be asked about once.
 */
int bridge_fileops_watch_running(int watch_pid, bool *running);

/* Ends the process if it runs, which takes 3 seconds. Returns 0 or a negative errno. */
int bridge_fileops_watch_stop(int watch_pid);

#endif
