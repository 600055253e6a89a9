/* Calls into the system and the libraries that fail when a test says so: from the `after`-th one on, counted
 * from 0, until told otherwise. One name at a time. */
#ifndef CONTROL_FAILING_CALLS_H
#define CONTROL_FAILING_CALLS_H

#include "common/mangled.h"

#include <atomic>
#include <cerrno>
#include <cstring>

struct planned_failure {
    std::atomic<const char *> name = "";
    std::atomic<int> after = 0;
    std::atomic<int> error = 0; /* errno of the failure; 0 leaves it alone */
};

inline planned_failure the_failure;

inline void let_fail(const char *name, int error = 0, int after = 0)
{
    the_failure.error = error;
    the_failure.after = after;
    the_failure.name = name;
}

inline void let_all_pass()
{
    the_failure.name = "";
}

inline bool fails(const char *name)
{
    if (strcmp(the_failure.name, name) != 0 || the_failure.after-- > 0)
        return false;
    if (the_failure.error != 0)
        errno = the_failure.error;
    return true;
}

#define FAILING_CALL(type, name, parameters, arguments, failure)                                             \
    extern "C" type __real_##name parameters;                                                                \
    extern "C" type __wrap_##name parameters                                                                 \
    {                                                                                                        \
        return fails(#name) ? (failure) : __real_##name arguments;                                           \
    }

/* Calls of C++ go by their mangled names. */
#define FAILING_THPOOL_ADD_WORK                                                                              \
    FAILING_CALL(int, _Z15thpool_add_workP6thpoolPFvPvES1_,                                                  \
                 (thpool * pool, void (*function)(void *), void *argument), (pool, function, argument), -1)
#define FAILING_NEW_NAME       MANGLED(_Znw, RKSt9nothrow_t)
#define FAILING_NEW_ARRAY_NAME MANGLED(_Zna, RKSt9nothrow_t)
#define FAILING_BY_NAME(type, name, parameters, arguments, failure)                                          \
    FAILING_CALL(type, name, parameters, arguments, failure)
#define FAILING_NEW                                                                                          \
    FAILING_BY_NAME(void *, FAILING_NEW_NAME, (size_t size, const std::nothrow_t &tag), (size, tag), nullptr)
#define FAILING_NEW_ARRAY                                                                                    \
    FAILING_BY_NAME(void *, FAILING_NEW_ARRAY_NAME, (size_t size, const std::nothrow_t &tag), (size, tag),   \
                    nullptr)
static constexpr const char *THPOOL_ADD_WORK = "_Z15thpool_add_workP6thpoolPFvPvES1_";
static constexpr const char *NEW = MANGLED_TEXT(FAILING_NEW_NAME);
static constexpr const char *NEW_ARRAY = MANGLED_TEXT(FAILING_NEW_ARRAY_NAME);

#endif
