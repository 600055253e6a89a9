/* Included before each source of the daemon that a target runs whole. The ends of a process become calls that
 * a run can be left from: the C library declares its own as such that nothing comes back out of. */
#ifndef FUZZ_ENDS_H
#define FUZZ_ENDS_H

#include <cstdlib>
#include <stdlib.h>
#include <unistd.h>

[[noreturn]] void fuzz_end_process(int status);
[[noreturn]] void fuzz_become_program(const char *path, ...);

#define exit   fuzz_end_process
#define _Exit  fuzz_end_process
#define execve fuzz_become_program
#define execl  fuzz_become_program

#endif
