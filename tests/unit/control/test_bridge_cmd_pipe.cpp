/* The pipe of late answers over a real FIFO: what is published of it, its start and stop, and the answer that
 * a child sends. */
#include "converter/control/bridge_cmd_pipe.h"

#include "common/captured_stderr.h"
#include "control/control_neighbours.h"
#include "control/fixed_paths.h"
#include "converter/control/bridge_cmd_async.h"
#include "thread_pool/thpool.h"

#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <json-c/json.h>
#include <poll.h>
#include <unistd.h>

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::ExitedWithCode;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;

static constexpr const char *PIPE = "/tmp/snv_bridge.pipe";
static constexpr const char *TOPIC = "api/v1/gateway/commands/async_response";
static constexpr size_t READ_SIZE = 4096;

FAILING_THPOOL_ADD_WORK

/* Whether the last single byte was written without waiting for room. */
static std::atomic<bool> byte_did_not_wait;

extern "C" {
ssize_t __real_write(int fd, const void *data, size_t size);
ssize_t __wrap_write(int fd, const void *data, size_t size)
{
    if (size == 1)
        byte_did_not_wait = (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
    return fails("write") ? -1 : __real_write(fd, data, size);
}
}

FAILING_CALL(json_object *, json_object_new_object, (), (), nullptr)
FAILING_CALL(json_object *, json_object_new_string, (const char *text), (text), nullptr)
FAILING_CALL(const char *, json_object_to_json_string_ext, (json_object * object, int flags), (object, flags),
             nullptr)

static std::atomic<int> read_result;
static constexpr int IDLE_MS = 10'000; /* without a child to look after */
static std::mutex polls_lock;
static std::vector<int> polls; /* the limits of the waits for text */

/* A limited wait ends at once without text. */
extern "C" {
int __real_poll(pollfd *watched, nfds_t count, int limit_ms);
int __wrap_poll(pollfd *watched, nfds_t count, int limit_ms)
{
    {
        const std::lock_guard guard(polls_lock);
        polls.push_back(limit_ms);
    }
    return __real_poll(watched, count, limit_ms == IDLE_MS ? limit_ms : 0);
}

int __wrap___poll_chk(pollfd *watched, nfds_t count, int limit_ms, size_t)
{
    return __wrap_poll(watched, count, limit_ms);
}
}

/* A process that ends under its watcher: what the test itself has made stays, as the watcher still uses it.
 */
extern "C" [[noreturn]] void __wrap_exit(int status)
{
    fflush(nullptr);
    _exit(status);
}

/* For text, without a limit. */
static bool watcher_waits()
{
    return wait_until([] {
        const std::lock_guard guard(polls_lock);
        return !polls.empty() && polls.back() == IDLE_MS;
    });
}

extern "C" {
ssize_t __real_read(int fd, void *data, size_t size);
ssize_t __wrap_read(int fd, void *data, size_t size)
{
    return fails("read") ? read_result.load() : __real_read(fd, data, size);
}

ssize_t __wrap___read_chk(int fd, void *data, size_t size, size_t)
{
    return __wrap_read(fd, data, size);
}

int __real_fcntl64(int fd, int command, ...);
int __wrap_fcntl64(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    void *argument = command == F_GETFL ? nullptr : va_arg(arguments, void *);
    va_end(arguments);
    const char *name = command == F_GETFL ? "get flags" : command == F_SETFL ? "set flags" : "duplicate";
    return fails(name) ? -1 : __real_fcntl64(fd, command, argument);
}
}

/* Children that are left to collect: after each look there is one less. */
static std::atomic<int> children_left;
static std::atomic<int> looks;

bool cmd_async_collect()
{
    looks++;
    if (children_left == 0)
        return false;
    return --children_left > 0;
}

class CmdPipe : public ControlTest
{
  protected:
    CmdPipe()
    {
        std::filesystem::create_directory(root.path / "tmp");
        fixed_paths::move_below(root.path);
        path = fixed_paths::below(PIPE);
        read_result = -1;
        children_left = 0;
        looks = 0;
        polls.clear();
        strcpy(configuration.generic.gw_mac, "0016C001F1500A0B");
    }

    std::string path;
    temporary_root root;
};

class CmdPipeDeath : public CmdPipe
{
};

/* With a pool, and a watcher that the test starts. */
class CmdPipeWatch : public CmdPipe
{
  protected:
    CmdPipeWatch()
    {
        context.pool = thpool_init(1);
    }

    ~CmdPipeWatch() override
    {
        mqtt.let_go();
        let_all_pass();
        if (context.fileops_async_pipe >= 0)
            stop();
        thpool_destroy(context.pool);
    }

    /* The watcher has ended when this comes back. */
    int stop()
    {
        const int result = bridge_cmd_pipe_stop(ctx);
        thpool_wait(ctx->pool);
        ctx->fileops_async_pipe = -1; /* as the next init leaves it */
        return result;
    }

    void write_text(const std::string &text) const
    {
        const bridge_fd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC));
        EXPECT_EQ(write(fd.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    static bool wait_published(size_t count)
    {
        return wait_until([count] { return mqtt.publishes().size() >= count; });
    }

    static long open_descriptors()
    {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    }
};

/* ---- what is published ---- */

TEST_F(CmdPipeWatch, ATextGoesOutAsItWasWritten)
{
    ASSERT_EQ(bridge_cmd_pipe_start(ctx), 0);
    const std::vector<std::string> texts = {R"({"mac":"M","requestId":7,"response":{"status":"ok"}})",
                                            "{",
                                            "\xff\xfe%s%n",
                                            std::string("a\0b\0", 4),
                                            std::string(1, '\0'),
                                            std::string(READ_SIZE, 'x')};
    for (size_t i = 0; i < texts.size(); i++) {
        write_text(texts[i]);
        ASSERT_TRUE(wait_published(i + 1));
    }
    EXPECT_EQ(published_on(TOPIC), texts);
    EXPECT_THAT(log.lines(), AllOf(Contains("DEBUG starting async pipe watch thread"),
                                   Contains("TRACE read [1] bytes from async pipe: {"),
                                   Contains("TRACE read [6] bytes from async pipe: \xff\xfe%s%n")));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(CmdPipeWatch, OneReadIsOneMessage)
{
    ASSERT_EQ(bridge_cmd_pipe_start(ctx), 0);
    mqtt.hold();
    write_text("first");
    ASSERT_TRUE(mqtt.wait_for_held());
    write_text(R"({"a":)"); /* two close ones go out as one */
    write_text("1}");
    mqtt.let_go();
    ASSERT_TRUE(wait_published(2));
    mqtt.hold();
    write_text("third");
    ASSERT_TRUE(mqtt.wait_for_held());
    write_text(std::string(READ_SIZE, 'a') + std::string(READ_SIZE, 'b') + "c");
    mqtt.let_go();
    ASSERT_TRUE(wait_published(6));
    EXPECT_THAT(published_on(TOPIC), ElementsAre("first", R"({"a":1})", "third", std::string(READ_SIZE, 'a'),
                                                 std::string(READ_SIZE, 'b'), "c"));
}

TEST_F(CmdPipeWatch, AFailedPublishEndsTheWatcherAndAsksForARestart)
{
    for (const int result : {-1, 3}) {
        mqtt.results({0, result});
        const size_t before = mqtt.publishes().size();
        ASSERT_EQ(bridge_cmd_pipe_start(ctx), 0);
        const log_view view = log.from_here();
        write_text("a");
        ASSERT_TRUE(wait_published(before + 1));
        write_text("b");
        thpool_wait(ctx->pool);
        EXPECT_THAT(view.complaints(), ElementsAre("ERROR failed to send fileops response"));
        EXPECT_THAT(supervisor.taken(), ElementsAre(Pair(1, &word)));
        EXPECT_EQ(stop(), 0);
        EXPECT_EQ(mqtt.publishes().size(), before + 2);
    }
}

TEST_F(CmdPipeWatch, AFailedReadEndsTheWatcherWithACodeOfItsOwn)
{
    static constexpr struct {
        int result;
        int error;
        const char *line;
    } rows[] = {
        {-1, EIO, "ERROR failed to read from the pipe: Input/output error"},
        {-1, EINTR, "ERROR failed to read from the pipe: Interrupted system call"},
        {0, ENODATA, "ERROR failed to read from the pipe: No data available"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        const log_view view = log.from_here();
        read_result = row.result;
        let_fail("read", row.error);
        ASSERT_EQ(bridge_cmd_pipe_start(ctx), 0);
        write_text("x");
        thpool_wait(ctx->pool);
        let_all_pass();
        EXPECT_THAT(view.complaints(), ElementsAre(row.line));
        EXPECT_THAT(supervisor.taken(), ElementsAre(Pair(3, &word)));
        EXPECT_EQ(stop(), 0);
    }
    EXPECT_THAT(mqtt.publishes(), IsEmpty());
}

TEST_F(CmdPipeWatch, AFileInThePipesPlaceEndsTheWatcher)
{
    std::ofstream(path) << "";
    ASSERT_EQ(bridge_cmd_pipe_start(ctx), 0);
    thpool_wait(ctx->pool);
    EXPECT_THAT(log.complaints(), ElementsAre(StartsWith("ERROR failed to read from the pipe: ")));
    EXPECT_THAT(supervisor.taken(), ElementsAre(Pair(3, &word)));
}

TEST_F(CmdPipeWatch, ChildrenThatAreLeftAreLookedAfterBetweenTexts)
{
    children_left = 4;
    ASSERT_EQ(bridge_cmd_pipe_start(ctx), 0);
    ASSERT_TRUE(watcher_waits());
    EXPECT_EQ(looks, 4);
    EXPECT_EQ(polls, (std::vector<int>{500, 500, 500, IDLE_MS}));
    children_left = 2;
    write_text("a child has answered");
    ASSERT_TRUE(wait_published(1));
    ASSERT_TRUE(wait_until([] { return looks == 6; }));
    EXPECT_EQ(children_left, 0);
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(polls, (std::vector<int>{500, 500, 500, IDLE_MS, 500, IDLE_MS}));
}

/* ---- start ---- */

TEST_F(CmdPipeWatch, TheStartMakesAFifoForItsUserAlone)
{
    ASSERT_EQ(bridge_cmd_pipe_start(ctx), 0);
    EXPECT_THAT(fixed_paths::made(), ElementsAre(join({"mkfifo 600 ", PIPE})));
    EXPECT_TRUE(ctx->pipe_watch_thr_running);
    EXPECT_TRUE(log.has("DEBUG creating async response pipe and threads"));
    EXPECT_TRUE(
        log.has(join({"TRACE async pipe descriptor: [", std::to_string(ctx->fileops_async_pipe), "]"})));
    EXPECT_EQ(fcntl(ctx->fileops_async_pipe, F_GETFL) & O_NONBLOCK, 0) << "the reader blocks";
    EXPECT_EQ(fcntl(ctx->fileops_async_pipe, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(CmdPipeWatch, AStartFindsTheFifoOfTheOneBefore)
{
    ASSERT_EQ(bridge_cmd_pipe_start(ctx), 0);
    ASSERT_EQ(stop(), 0);
    const log_view view = log.from_here();
    ASSERT_EQ(bridge_cmd_pipe_start(ctx), 0);
    EXPECT_TRUE(view.has("DEBUG pipe for async messages exists already"));
    write_text("after");
    ASSERT_TRUE(wait_published(1));
    EXPECT_THAT(published_on(TOPIC), ElementsAre("after"));
}

TEST_F(CmdPipeWatch, AFailedStartSaysWhyAndLeavesNothingOpen)
{
    static constexpr struct {
        const char *call;
        int error;
        const char *line;
    } rows[] = {
        {"mkfifo", EACCES, "ERROR failed to create pipe for async messages: Permission denied"},
        {"open", EMFILE, "ERROR failed to open async pipe: Too many open files"},
        {"get flags", EBADF, "ERROR failed to get pipe flags: Bad file descriptor"},
        {"set flags", EINVAL, "ERROR failed to set pipe flags: Invalid argument"},
        {"duplicate", EMFILE, "ERROR failed to start async response pipe watcher: -1"},
        {THPOOL_ADD_WORK, 0, "ERROR failed to start async response pipe watcher: -1"},
    };
    const long before = open_descriptors();
    for (const auto &row : rows) {
        SCOPED_TRACE(row.call);
        const log_view view = log.from_here();
        let_fail(row.call, row.error);
        EXPECT_EQ(bridge_cmd_pipe_start(ctx), -1);
        let_all_pass();
        EXPECT_THAT(view.complaints(), ElementsAre(row.line));
        EXPECT_EQ(ctx->fileops_async_pipe, -1);
        EXPECT_FALSE(ctx->pipe_watch_thr_running);
        EXPECT_EQ(open_descriptors(), before);
    }
    EXPECT_EQ(bridge_cmd_pipe_start(ctx), 0);
}

TEST_F(CmdPipeDeath, ASecondStartIsAsserted)
{
    ctx->fileops_async_pipe = 0;
    EXPECT_ASSERTION(bridge_cmd_pipe_start(ctx), "ctx->fileops_async_pipe < 0");
    ctx->fileops_async_pipe = -1;
    ctx->pipe_watch_thr_running = true;
    EXPECT_ASSERTION(bridge_cmd_pipe_start(ctx), "!ctx->pipe_watch_thr_running");
}

/* ---- stop ---- */

TEST_F(CmdPipeWatch, AStopWakesTheWatcherAndPublishesNothing)
{
    const long before = open_descriptors();
    ASSERT_EQ(bridge_cmd_pipe_start(ctx), 0);
    const int fd = ctx->fileops_async_pipe;
    EXPECT_EQ(bridge_cmd_pipe_stop(ctx), 0);
    EXPECT_EQ(ctx->fileops_async_pipe, fd) << "the member stays as it was";
    ctx->fileops_async_pipe = -1;
    thpool_wait(ctx->pool);
    EXPECT_TRUE(log.has("DEBUG destroying async response pipe"));
    EXPECT_TRUE(log.has(join({"TRACE async response pipe fd: [", std::to_string(fd), "]"})));
    EXPECT_TRUE(log.has("DEBUG stopping pipe watcher thread"));
    EXPECT_THAT(mqtt.publishes(), IsEmpty());
    EXPECT_THAT(log.complaints(), IsEmpty());
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(CmdPipeWatch, WhatIsReadWithTheWakeIsDropped)
{
    ASSERT_EQ(bridge_cmd_pipe_start(ctx), 0);
    mqtt.hold();
    write_text("first");
    ASSERT_TRUE(mqtt.wait_for_held());
    write_text("second");
    EXPECT_EQ(bridge_cmd_pipe_stop(ctx), 0);
    ctx->fileops_async_pipe = -1;
    mqtt.let_go();
    thpool_wait(ctx->pool);
    EXPECT_THAT(published_on(TOPIC), ElementsAre("first"));
}

TEST_F(CmdPipe, AStopOfWhatIsNotThereIsTold)
{
    EXPECT_EQ(bridge_cmd_pipe_stop(ctx), -1);
    EXPECT_THAT(log.lines(),
                ElementsAre("DEBUG destroying async response pipe", "TRACE async response pipe fd: [-1]",
                            "ERROR can't stop pipe watch thread: already stopped",
                            "ERROR can't close fileops pipe: invalid descriptor"));
}

TEST_F(CmdPipeWatch, AWakeThatFailsIsAFailedStop)
{
    ASSERT_EQ(bridge_cmd_pipe_start(ctx), 0);
    let_fail("write", EPIPE);
    EXPECT_EQ(bridge_cmd_pipe_stop(ctx), -1);
    let_all_pass();
    ctx->fileops_async_pipe = -1;
    const bridge_fd writer(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_EQ(write(writer.get(), "X", 1), 1); /* the watcher still waits for its wake */
    thpool_wait(ctx->pool);
    EXPECT_THAT(mqtt.publishes(), IsEmpty());
}

TEST_F(CmdPipeWatch, AFullPipeIsStoppedAllTheSame)
{
    ASSERT_EQ(bridge_cmd_pipe_start(ctx), 0);
    mqtt.hold();
    write_text("first");
    ASSERT_TRUE(mqtt.wait_for_held());
    {
        const bridge_fd writer(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        const std::string fill(READ_SIZE, 'f');
        while (write(writer.get(), fill.data(), fill.size()) > 0) {
        }
        EXPECT_EQ(errno, EAGAIN);
    }
    EXPECT_EQ(bridge_cmd_pipe_stop(ctx), 0);
    EXPECT_TRUE(byte_did_not_wait);
    ctx->fileops_async_pipe = -1;
    mqtt.let_go();
    thpool_wait(ctx->pool);
    EXPECT_THAT(published_on(TOPIC), ElementsAre("first"));
    EXPECT_TRUE(log.has("DEBUG stopping pipe watcher thread"));
}

/* ---- the answers of children ---- */

class CmdPipeAnswerDeath : public CmdPipe
{
  protected:
    /* The reader's end, and what is in it. */
    void make_pipe()
    {
        ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
        reader = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        ASSERT_GE(reader, 0);
    }

    ~CmdPipeAnswerDeath() override
    {
        if (reader >= 0)
            close(reader);
    }

    std::string in_pipe() const
    {
        std::string text(65536, '\0');
        const ssize_t count = read(reader, text.data(), text.size());
        text.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return text;
    }

    int reader = -1;
};

static testing::Matcher<const std::string &> failed_with(const std::string &line)
{
    return AllOf(HasSubstr(line), HasSubstr("failed to prepare and send async response\n"));
}

TEST_F(CmdPipeAnswerDeath, AnAnswerNamesTheConfiguredGatewayAndEndsTheProcess)
{
    static constexpr struct {
        const char *response;
        int64_t request;
        const char *text;
    } rows[] = {
        {R"({"status":"ok"})", 17, R"({"mac":"0016C001F1500A0B","requestId":17,"response":{"status":"ok"}})"},
        {"[]", INT64_MIN, R"({"mac":"0016C001F1500A0B","requestId":-9223372036854775808,"response":[]})"},
        {"null", INT64_MAX, R"({"mac":"0016C001F1500A0B","requestId":9223372036854775807,"response":null})"},
    };
    make_pipe();
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EXIT(bridge_cmd_async_respond(json_tokener_parse(row.response), row.request),
                    ExitedWithCode(0),
                    AllOf(HasSubstr(join({"sending async response: ", row.text, "\n"})),
                          HasSubstr("response handler done\n")));
        EXPECT_EQ(in_pipe(), row.text) << "without a terminator";
    }
}

TEST_F(CmdPipeAnswerDeath, AnAnswerWithoutAReaderIsLost)
{
    EXPECT_EXIT(bridge_cmd_async_respond(json_object_new_object(), 1), ExitedWithCode(1),
                failed_with("failed to open pipe for sending async response: No such file or directory\n"));
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EXIT(bridge_cmd_async_respond(json_object_new_object(), 1), ExitedWithCode(1),
                failed_with("failed to open pipe for sending async response: No such device or address\n"));
}

TEST_F(CmdPipeAnswerDeath, AFullPipeLosesTheAnswerInsteadOfHoldingTheChild)
{
    make_pipe();
    const std::string fill(4096, 'f');
    while (write(reader, fill.data(), fill.size()) > 0) {
    }
    EXPECT_EXIT(bridge_cmd_async_respond(json_object_new_object(), 1), ExitedWithCode(1),
                failed_with("failed to write to an async response pipe: Resource temporarily unavailable\n"));
}

TEST_F(CmdPipeAnswerDeath, AnAnswerThatCannotBeMadeIsTold)
{
    make_pipe();
    json_object *response = json_object_new_object();
    let_fail("json_object_new_object");
    EXPECT_EXIT(bridge_cmd_async_respond(response, 1), ExitedWithCode(1),
                failed_with("failed to allocate async response\n"));
    let_fail("json_object_new_string");
    EXPECT_ASSERTION(bridge_cmd_async_respond(response, 1), "rc == 0");
    let_fail("json_object_to_json_string_ext");
    EXPECT_ASSERTION(bridge_cmd_async_respond(response, 1), "str != NULL");
    let_all_pass();
    json_object_put(response);
    EXPECT_EQ(in_pipe(), "");
}

/* ---- the daemon's own answer ---- */

static constexpr const char *WAITED = "waited 10 ms\n";

/* In place of a wait: tells it, and gives the watcher time. */
static void tell_wait()
{
    fputs(WAITED, stderr);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

static size_t count_waits(const std::string &text)
{
    size_t count = 0;
    for (size_t at = text.find(WAITED); at != std::string::npos; at = text.find(WAITED, at + 1))
        count++;
    return count;
}

/* A process with a watcher that answers by itself. Its publishes are held for as many waits. */
[[noreturn]] static void answer_under_a_watcher(converter_ctx *ctx, int held_waits)
{
    int wait = 0;
    waits.within = [&wait, held_waits] {
        tell_wait();
        if (++wait == held_waits)
            mqtt.let_go();
    };
    mqtt.hold();
    ctx->pool = thpool_init(1);
    if (bridge_cmd_pipe_start(ctx) != 0 || !watcher_waits())
        _exit(2);
    bridge_cmd_async_respond(json_object_new_object(), 5);
}

TEST_F(CmdPipeDeath, TheDaemonWaitsUntilItsWatcherHasPassedItsAnswerOn)
{
    EXPECT_EXIT(answer_under_a_watcher(ctx, 3), ExitedWithCode(0),
                AllOf(HasSubstr("response handler done\n"), HasSubstr("bytes from async pipe: "),
                      testing::ResultOf(count_waits, AllOf(testing::Ge(3U), testing::Lt(500U)))));
}

TEST_F(CmdPipeDeath, TheDaemonWaitsNoLongerThanFiveSeconds)
{
    EXPECT_EXIT(
        answer_under_a_watcher(ctx, -1), ExitedWithCode(0),
        AllOf(HasSubstr("response handler done\n"), testing::ResultOf(count_waits, testing::Eq(500U))));
}

TEST_F(CmdPipeWatch, AChildDoesNotWaitForTheWatcherOfItsParent)
{
    ASSERT_EQ(bridge_cmd_pipe_start(ctx), 0);
    ASSERT_TRUE(watcher_waits());
    waits.within = tell_wait;
    EXPECT_EXIT(bridge_cmd_async_respond(json_object_new_object(), 5), ExitedWithCode(0),
                testing::ResultOf(count_waits, testing::Eq(0U)));
    ASSERT_TRUE(wait_published(1));
    EXPECT_THAT(published_on(TOPIC),
                ElementsAre(R"({"mac":"0016C001F1500A0B","requestId":5,"response":{}})"));
}
