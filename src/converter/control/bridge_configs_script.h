/* Programs of the gateway that do the work of a configuration. Pool threads, or the thread that starts a
 * service. */
#ifndef BRIDGE_CONFIGS_SCRIPT_H
#define BRIDGE_CONFIGS_SCRIPT_H

#include <span>
#include <sys/types.h>

/* Runs the program `path` with the arguments behind its name, and waits for its end for at most `rounds`
 * times five seconds. Its environment is one variable, USE_STDERR, which tells whether the daemon logs to
 * standard error. `tells_rounds` logs what each round found. Returns the program's process id when it has
 * ended, however it did; 0 when it has not, and goes on; or a negative errno after logging why.
 */
pid_t cfg_run_script(const char *path, std::span<const char *const> arguments, int rounds, bool tells_rounds);

#endif
