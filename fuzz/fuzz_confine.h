/* A world of the process's own, before anything of the daemon runs in it. */
#ifndef FUZZ_CONFINE_H
#define FUZZ_CONFINE_H

/* The root becomes a file system in memory: empty, but for what a report needs and one folder more, which can
 * be read only, and for the folders that the command line names, which the fuzzer reads and fills. Networks
 * and message queues are the process's own, too. Ends the process when the system does not allow that:
 * nothing runs unconfined. */
void fuzz_confine(int argc, char **argv, const char *read_only);

#endif
