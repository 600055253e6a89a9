/* Long file work, each job in a forked child of its own, which answers through the pipe for children when it
 * is done, and exits. The child's process id is the job's identifier; who keeps it asks or stops the job,
 * which also collects the child. Paths are virtual ones of the tree `root`, whose rows' rights are asked. Any
 * thread. */
#ifndef BRIDGE_FILEOPS_JOBS_H
#define BRIDGE_FILEOPS_JOBS_H

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

struct bridge_fileops_entry;

/* Each returns the child's process id, or a negative errno: -2 for a path that is no file's, -13 without the
 * right. The answer carries `req_id`. */

/* Sends `sz` bytes from `offt` on to a server; reads. The answer tells nothing of what the server says. */
int bridge_fileops_stream_start(const bridge_fileops_entry *root, const char *filepath,
                                const char *token_or_url, off_t offt, uint64_t sz, const char *req_id);

/* Takes a file from a server; writes. `token` is not used. */
int bridge_fileops_fetch_start(const bridge_fileops_entry *root, const char *filepath, const char *token,
                               const char *url, const char *req_id);

/* Runs a script with its output in a new file of the virtual directory `logdir`; executes. The answer's
 * status is the text of the exit code taken as an errno. `token` is not used. */
int bridge_fileops_execute_start(const bridge_fileops_entry *root, const char *filepath, const char *logdir,
                                 const char *token, const char *req_id);

/* Return 0 or a negative errno. A job that is found finished is collected, so it can be asked about once. */
int bridge_fileops_stream_running(const bridge_fileops_entry *root, pid_t stream_pid, bool *running);
int bridge_fileops_fetch_running(const bridge_fileops_entry *root, pid_t fetch_pid, bool *running);
int bridge_fileops_execute_running(const bridge_fileops_entry *root, pid_t execute_pid, bool *running);

/* End the job if it runs, which takes 3 seconds; it answers nothing then. Return 0 or a negative errno. */
int bridge_fileops_stream_stop(const bridge_fileops_entry *root, pid_t stream_pid);
int bridge_fileops_fetch_stop(const bridge_fileops_entry *root, pid_t fetch_pid);
int bridge_fileops_execute_stop(const bridge_fileops_entry *root, pid_t execute_pid);

#endif
