/* The system in place of the real one: no fork, signal, program, timer, queue or wait of the daemon leaves
 * the run. A child's work is done in the run itself, and its exit ends the run. */
#ifndef FUZZ_WORLD_H
#define FUZZ_WORLD_H

/* Thrown where the process would end; everything on the way is released. */
struct fuzz_process_end {
    bool tripped; /* by an assertion that bad answers are meant to reach */
};

/* While a run lasts; outside of it the calls are the system's, which the fuzzer itself makes use of. */
void fuzz_world_enter();
void fuzz_world_leave();
bool fuzz_world_is_child();

/* Descriptors that a child has left open at its end, as it may. */
void fuzz_world_close_left_open();

/* The files of a gateway as they are before a run. */
void fuzz_world_make_folders();
void fuzz_world_refill();

#endif
