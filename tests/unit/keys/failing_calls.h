/* Calls into libraries that fail when a test says so; the rest of the time they are the libraries' own. */
#ifndef FAILING_CALLS_H
#define FAILING_CALLS_H

#include <cerrno>
#include <cstring>

/* The call that fails, and what it leaves in errno. */
inline const char *failing_call = "";
inline int failing_errno = 0;

inline bool fails(const char *name)
{
    if (strcmp(failing_call, name) != 0)
        return false;
    errno = failing_errno;
    return true;
}

#define FAILING_CALL(type, name, parameters, arguments, failure)                                             \
    extern "C" type __real_##name parameters;                                                                \
    extern "C" type __wrap_##name parameters                                                                 \
    {                                                                                                        \
        return fails(#name) ? (failure) : __real_##name arguments;                                           \
    }

#endif
