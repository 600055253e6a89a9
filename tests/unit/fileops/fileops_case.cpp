/* The calls that a test lets fail. */
#include "fileops/fileops_case.h"

#include "common/bridge_json_helpers.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dirent.h>

static const char *failing_call = "";
static int calls_before_failure;

void fileops_fail(const char *call, int after)
{
    failing_call = call;
    calls_before_failure = after;
}

static bool fails(const char *call)
{
    return strcmp(failing_call, call) == 0 && calls_before_failure-- <= 0;
}

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes the names
extern "C" {
char *__real_strndup(const char *text, size_t length);
char *__real_strdup(const char *text);
int __real_dirfd(DIR *dir);
int __real_unlinkat(int fd, const char *name, int flags);
json_object *__real_json_object_new_object();
json_object *__real_json_object_new_string(const char *text);
int __real_json_object_array_add(json_object *array, json_object *item);

char *__wrap_strndup(const char *text, size_t length)
{
    return fails("strndup") ? nullptr : __real_strndup(text, length);
}

char *__wrap_strdup(const char *text)
{
    return fails("strdup") ? nullptr : __real_strdup(text);
}

__attribute__((format(printf, 2, 3))) int __wrap_asprintf(char **text, const char *format, ...)
{
    if (fails("asprintf"))
        return -1;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(text, format, arguments);
    va_end(arguments);
    return length;
}

__attribute__((format(printf, 3, 4))) int __wrap___asprintf_chk(char **text, int, const char *format, ...)
{
    if (fails("asprintf"))
        return -1;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(text, format, arguments);
    va_end(arguments);
    return length;
}

int __wrap_dirfd(DIR *dir)
{
    if (!fails("dirfd"))
        return __real_dirfd(dir);
    errno = EINVAL;
    return -1;
}

int __wrap_unlinkat(int fd, const char *name, int flags)
{
    if (strncmp(name, "stuck", 5) != 0)
        return __real_unlinkat(fd, name, flags);
    errno = EBUSY;
    return -1;
}

json_object *__wrap_json_object_new_object()
{
    return fails("new_object") ? nullptr : __real_json_object_new_object();
}

json_object *__wrap_json_object_new_string(const char *text)
{
    return fails("new_string") ? nullptr : __real_json_object_new_string(text);
}

int __wrap_json_object_array_add(json_object *array, json_object *item)
{
    return fails("array_add") ? -1 : __real_json_object_array_add(array, item);
}
}
// NOLINTEND(bugprone-reserved-identifier)
