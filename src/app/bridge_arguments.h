/* The command line. Main thread, before anything else. */
#ifndef BRIDGE_ARGUMENTS_H
#define BRIDGE_ARGUMENTS_H

struct bridge_args;

/* Prints what each option means to standard error and fills `args`, defaults included. Returns 0, or a
 * positive errno value; --help, --usage, --version and a bad level end the process. */
int bridge_arguments_parse(int argc, char **argv, bridge_args *args);

/* The whole help text, to standard error. */
void bridge_arguments_print_help(const char *program);

#endif
