#include "converter/faults.h"

#include "converter/data/bridge_data_ctx.h"
#include "thread_pool/thpool.h"

#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <json-c/json.h>
#include <netdb.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

faults_of_the_test faults;

bool fault::strikes()
{
    calls++;
    if (after < 0 || after-- != 0)
        return false;
    errno = error;
    return true;
}

void fault::arm(int successes, int with_result, int with_errno)
{
    result = with_result;
    error = with_errno;
    after = successes;
}

void fault::reset()
{
    after = -1;
    calls = 0;
}

void faults_of_the_test::reset()
{
    for (fault *each : {&thpool_init, &thpool_add_work, &thpool_destroy, &socket, &pipe2, &fcntl_get,
                        &fcntl_set, &getnameinfo, &getaddrinfo, &sendto, &recvfrom, &select, &pipe_read,
                        &pipe_write, &new_object, &new_tokener, &to_string})
        each->reset();
}

/* The calls of the C++ thread pool go by their mangled names. */
#define THPOOL_INIT(prefix)     prefix##_Z11thpool_initi
#define THPOOL_ADD_WORK(prefix) prefix##_Z15thpool_add_workP6thpoolPFvPvES1_
#define THPOOL_DESTROY(prefix)  prefix##_Z14thpool_destroyP6thpool

extern "C" {

thpool *THPOOL_INIT(__real_)(int threads);
thpool *THPOOL_INIT(__wrap_)(int threads)
{
    return faults.thpool_init.strikes() ? nullptr : THPOOL_INIT(__real_)(threads);
}

int THPOOL_ADD_WORK(__real_)(thpool *pool, void (*function)(void *), void *argument);
int THPOOL_ADD_WORK(__wrap_)(thpool *pool, void (*function)(void *), void *argument)
{
    return faults.thpool_add_work.strikes() ? faults.thpool_add_work.result
                                            : THPOOL_ADD_WORK(__real_)(pool, function, argument);
}

void THPOOL_DESTROY(__real_)(thpool *pool);
void THPOOL_DESTROY(__wrap_)(thpool *pool)
{
    faults.thpool_destroy.strikes();
    THPOOL_DESTROY(__real_)(pool);
}

int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol)
{
    return faults.socket.strikes() ? faults.socket.result : __real_socket(domain, type, protocol);
}

int __real_pipe2(int fds[2], int flags);
int __wrap_pipe2(int fds[2], int flags)
{
    return faults.pipe2.strikes() ? faults.pipe2.result : __real_pipe2(fds, flags);
}

int __real_fcntl64(int fd, int command, ...);
int __wrap_fcntl64(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    void *argument = command == F_GETFL ? nullptr : va_arg(arguments, void *);
    va_end(arguments);
    if (command == F_GETFL && faults.fcntl_get.strikes())
        return faults.fcntl_get.result;
    if (command == F_SETFL && faults.fcntl_set.strikes())
        return faults.fcntl_set.result;
    return __real_fcntl64(fd, command, argument);
}

int __real_getnameinfo(const sockaddr *address, socklen_t size, char *host, socklen_t host_size,
                       char *service, socklen_t service_size, int flags);
int __wrap_getnameinfo(const sockaddr *address, socklen_t size, char *host, socklen_t host_size,
                       char *service, socklen_t service_size, int flags)
{
    return faults.getnameinfo.strikes()
               ? faults.getnameinfo.result
               : __real_getnameinfo(address, size, host, host_size, service, service_size, flags);
}

int __real_getaddrinfo(const char *host, const char *service, const addrinfo *hints, addrinfo **list);
int __wrap_getaddrinfo(const char *host, const char *service, const addrinfo *hints, addrinfo **list)
{
    return faults.getaddrinfo.strikes() ? faults.getaddrinfo.result
                                        : __real_getaddrinfo(host, service, hints, list);
}

ssize_t __real_sendto(int fd, const void *data, size_t size, int flags, const sockaddr *address,
                      socklen_t length);
ssize_t __wrap_sendto(int fd, const void *data, size_t size, int flags, const sockaddr *address,
                      socklen_t length)
{
    if (fd == converter_ctx.sock && faults.sendto.strikes())
        return faults.sendto.result;
    return __real_sendto(fd, data, size, flags, address, length);
}

ssize_t __real_recvfrom(int fd, void *data, size_t size, int flags, sockaddr *address, socklen_t *length);
ssize_t __wrap_recvfrom(int fd, void *data, size_t size, int flags, sockaddr *address, socklen_t *length)
{
    if (fd != converter_ctx.sock || !faults.recvfrom.strikes())
        return __real_recvfrom(fd, data, size, flags, address, length);
    /* The datagram is lost. */
    __real_recvfrom(fd, data, size, flags, address, length);
    errno = faults.recvfrom.error;
    return faults.recvfrom.result;
}

ssize_t __wrap___recvfrom_chk(int fd, void *data, size_t size, size_t, int flags, sockaddr *address,
                              socklen_t *length)
{
    return __wrap_recvfrom(fd, data, size, flags, address, length);
}

int __real_select(int count, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval *timeout);
int __wrap_select(int count, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval *timeout)
{
    if (faults.select.strikes())
        return faults.select.result;
    return __real_select(count, readable, writable, exceptional, timeout);
}

ssize_t __real_read(int fd, void *data, size_t size);
ssize_t __wrap_read(int fd, void *data, size_t size)
{
    if (fd == converter_ctx.pipe_fds[0] && fd > 0 && faults.pipe_read.strikes())
        return faults.pipe_read.result;
    return __real_read(fd, data, size);
}

ssize_t __wrap___read_chk(int fd, void *data, size_t size, size_t)
{
    return __wrap_read(fd, data, size);
}

ssize_t __real_write(int fd, const void *data, size_t size);
ssize_t __wrap_write(int fd, const void *data, size_t size)
{
    if (fd == converter_ctx.pipe_fds[1] && fd > 0 && faults.pipe_write.strikes())
        return faults.pipe_write.result;
    return __real_write(fd, data, size);
}

json_object *__real_json_object_new_object();
json_object *__wrap_json_object_new_object()
{
    return faults.new_object.strikes() ? nullptr : __real_json_object_new_object();
}

json_tokener *__real_json_tokener_new();
json_tokener *__wrap_json_tokener_new()
{
    return faults.new_tokener.strikes() ? nullptr : __real_json_tokener_new();
}

const char *__real_json_object_to_json_string_length(json_object *object, int flags, size_t *length);
const char *__wrap_json_object_to_json_string_length(json_object *object, int flags, size_t *length)
{
    return faults.to_string.strikes() ? nullptr
                                      : __real_json_object_to_json_string_length(object, flags, length);
}
}
