/* What the process writes to a standard stream between the construction and the call of text(). */
#ifndef CAPTURED_STDERR_H
#define CAPTURED_STDERR_H

#include "common/bridge_release.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

class captured_stream
{
  public:
    explicit captured_stream(FILE *stream)
        : stream_(stream), saved_(dup(fileno(stream))), file_(memfd_create("captured", MFD_CLOEXEC))
    {
        fcntl(file_.get(), F_SETFL, O_APPEND); /* forked children and their parent keep each other's lines */
        fflush(stream_);
        dup2(file_.get(), fileno(stream_));
    }
    ~captured_stream()
    {
        restore();
    }
    captured_stream(const captured_stream &) = delete;
    captured_stream &operator=(const captured_stream &) = delete;

    /* Ends the capture. */
    std::string text()
    {
        restore();
        std::string content(static_cast<size_t>(lseek(file_.get(), 0, SEEK_END)), '\0');
        const ssize_t got = pread(file_.get(), content.data(), content.size(), 0);
        EXPECT_EQ(got, static_cast<ssize_t>(content.size()));
        return content;
    }

  private:
    void restore()
    {
        fflush(stream_);
        dup2(saved_.get(), fileno(stream_));
    }

    FILE *stream_;
    bridge_fd saved_;
    bridge_fd file_;
};

class captured_stderr : public captured_stream
{
  public:
    captured_stderr() : captured_stream(stderr)
    {
    }
};

/* The report of an assertion goes to standard output, and a death test reads standard error. */
#define EXPECT_ASSERTION(statement, expression)                                                              \
    EXPECT_EXIT(                                                                                             \
        {                                                                                                    \
            dup2(STDERR_FILENO, STDOUT_FILENO);                                                              \
            statement;                                                                                       \
        },                                                                                                   \
        testing::KilledBySignal(SIGABRT), testing::HasSubstr("Assertion failed: ( " expression " ) in "))

#endif
