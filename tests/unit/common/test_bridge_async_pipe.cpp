/* The children's side of a real FIFO, which lies below a folder of the test's. */
#include "common/bridge_async_pipe.h"

#include "config/captured_log.h"
#include "fileops/fileops_fixture.h"

#include <cstdarg>
#include <fcntl.h>
#include <sys/stat.h>

using testing::ElementsAre;
using testing::IsEmpty;

static std::string fifo;

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes the names
extern "C" {
int __real_open64(const char *path, int flags, ...);
int __wrap_open64(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return __real_open64(strcmp(path, BRIDGE_ASYNC_PIPE_PATH) == 0 ? fifo.c_str() : path, flags, mode);
}
}
// NOLINTEND(bugprone-reserved-identifier)

class AsyncPipe : public testing::Test
{
  protected:
    AsyncPipe()
    {
        fifo = folder.below("fifo");
    }

    captured_log log;
    temporary_folder folder;
};

TEST_F(AsyncPipe, ATextIsWrittenWithoutItsTerminator)
{
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const bridge_fd reader(open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_EQ(bridge_async_pipe_send("first"), 0);
    EXPECT_EQ(bridge_async_pipe_send("second"), 0);
    char text[64] = "";
    EXPECT_EQ(read(reader.get(), text, sizeof(text)), 11);
    EXPECT_STREQ(text, "firstsecond");
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(AsyncPipe, WithoutAReaderNothingWaits)
{
    EXPECT_EQ(bridge_async_pipe_send("text"), -1);
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(bridge_async_pipe_send("text"), -1);
    EXPECT_THAT(
        log.complaints(),
        ElementsAre("ERROR failed to open pipe for sending async response: No such file or directory",
                    "ERROR failed to open pipe for sending async response: No such device or address"));
}

/* Half an answer is none. */
TEST_F(AsyncPipe, ATextThatFindsNoRoomIsAFailure)
{
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const bridge_fd reader(open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const auto room = static_cast<size_t>(fcntl(reader.get(), F_GETPIPE_SZ));
    EXPECT_EQ(bridge_async_pipe_send(std::string(room, 'x').c_str()), 0);
    EXPECT_EQ(bridge_async_pipe_send("text"), -1);
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR failed to write to an async response pipe: Resource "
                                              "temporarily unavailable"));
    std::string taken(room, '\0');
    ASSERT_EQ(read(reader.get(), taken.data(), room), static_cast<ssize_t>(room));
    EXPECT_EQ(bridge_async_pipe_send(std::string(room + 1, 'x').c_str()), -1);
}
