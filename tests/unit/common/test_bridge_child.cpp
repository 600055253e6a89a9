/* What a child keeps of the daemon's descriptors, and what is loaded for it before. */
#include "common/bridge_child.h"

#include "common/bridge_log.h"
#include "common/bridge_release.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;

/* ---- name services ---- */

static const char *nsswitch; /* null: there is none */
static std::vector<std::string> opened;
static std::vector<std::string> loaded;

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes the names
extern "C" FILE *__wrap_fopen64(const char *path, const char *)
{
    opened.emplace_back(path);
    return nsswitch == nullptr ? nullptr : fmemopen(const_cast<char *>(nsswitch), strlen(nsswitch), "r");
}

extern "C" void *__real_dlopen(const char *name, int flags);
extern "C" void *__wrap_dlopen(const char *name, int flags)
{
    loaded.emplace_back(name);
    return __real_dlopen(name, flags);
}
// NOLINTEND(bugprone-reserved-identifier)

static std::vector<std::string> loaded_by(const char *text)
{
    nsswitch = text;
    loaded.clear();
    bridge_child_prepare();
    return loaded;
}

TEST(BridgeChild, NameServicesOfTheSystemAreLoadedBefore)
{
    EXPECT_THAT(
        loaded_by("passwd: files systemd\n"
                  "hosts:\tfiles mdns4_minimal [NOTFOUND=return] dns [ !UNAVAIL=return ] no_such # other\n"
                  "networks: files nowhere\n"),
        ElementsAre("libnss_mdns4_minimal.so.2", "libnss_no_such.so.2"));
    EXPECT_THAT(opened, ElementsAre("/etc/nsswitch.conf"));
    EXPECT_THAT(loaded_by("hosts:resolve"), ElementsAre("libnss_resolve.so.2"));
}

TEST(BridgeChild, WhatTheCLibraryHasItselfIsNotLoaded)
{
    EXPECT_THAT(loaded_by("hosts: files dns\n"), IsEmpty());
    EXPECT_THAT(loaded_by("#hosts: resolve\nhosts:\n"), IsEmpty());
    EXPECT_THAT(loaded_by(nullptr), IsEmpty());
    EXPECT_THAT(loaded_by(("hosts: " + std::string(100, 'a')).c_str()), IsEmpty());
}

/* ---- descriptors ---- */

static bool is_open(int fd)
{
    return fcntl(fd, F_GETFD) >= 0;
}

/* The exit status of a child that drops its descriptors and then runs `check`, 0 when that is true. */
template <typename Check> static int in_child(int kept, Check check)
{
    const pid_t pid = fork();
    if (pid == 0) {
        const int number = bridge_child_drop_descriptors(kept);
        _Exit(check(number) ? 0 : 1);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    return status;
}

TEST(BridgeChild, StandardDescriptorsAloneAreKept)
{
    const bridge_fd port(socket(AF_INET, SOCK_DGRAM, 0));
    const bridge_fd high(fcntl(port.get(), F_DUPFD, 900));
    ASSERT_GE(high.get(), 900);
    EXPECT_EQ(in_child(-1,
                       [&](int number) {
                           return number == -1 && is_open(STDERR_FILENO) && !is_open(port.get()) &&
                                  !is_open(high.get());
                       }),
              0);
    EXPECT_TRUE(is_open(high.get()));
}

TEST(BridgeChild, OneDescriptorCanBeKept)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const bridge_fd reading(ends[0]);
    bridge_fd writing(ends[1]);
    EXPECT_EQ(in_child(writing.get(),
                       [](int number) { return write(number, "kept", 4) == 4 && !is_open(number + 1); }),
              0);
    std::array<char, 8> text = {};
    EXPECT_EQ(read(reading.get(), text.data(), text.size()), 4);
    EXPECT_STREQ(text.data(), "kept");
}

TEST(BridgeChild, LogGoesOnInTheChild)
{
    bridge_log_init(BRIDGE_LOG_INFO, true);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const bridge_fd reading(ends[0]);
    bridge_fd writing(ends[1]);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(writing.get(), STDERR_FILENO);
        bridge_child_drop_descriptors();
        BRIDGE_INFO("from the child");
        _Exit(0);
    }
    waitpid(pid, nullptr, 0);
    std::array<char, 256> text = {};
    ASSERT_GT(read(reading.get(), text.data(), text.size() - 1), 0);
    EXPECT_NE(strstr(text.data(), "from the child"), nullptr);
}
