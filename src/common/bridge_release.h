/* Ownership of library handles: owned at birth, raw pointers across calls, release() at hand-over. */
#ifndef BRIDGE_RELEASE_H
#define BRIDGE_RELEASE_H

#include <memory>
#include <unistd.h>
#include <utility>

template <auto Release> struct bridge_release {
    template <typename T> void operator()(T *handle) const
    {
        Release(handle);
    }
};

/* A file descriptor, closed on the way out; -1 owns nothing. */
class bridge_fd
{
  public:
    explicit bridge_fd(int fd = -1) : fd_(fd)
    {
    }
    ~bridge_fd()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    bridge_fd(const bridge_fd &) = delete;
    bridge_fd &operator=(const bridge_fd &) = delete;

    int get() const
    {
        return fd_;
    }
    int release()
    {
        return std::exchange(fd_, -1);
    }

  private:
    int fd_;
};

#endif
