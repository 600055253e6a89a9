/* A job's process is a fork, and looks up names on a thread of its own. ThreadSanitizer takes that thread for
 * one of the daemon's that had the same stack, and ends the process: a larger stack is never an old one. */
#include <pthread.h>

static constexpr size_t STACK_SIZE = size_t{64} << 20;

static void enlarge_stacks()
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, STACK_SIZE);
    pthread_setattr_default_np(&attributes);
    pthread_attr_destroy(&attributes);
}

__attribute__((constructor)) static void watch_forks()
{
    pthread_atfork(nullptr, nullptr, enlarge_stacks);
}
