/* Children of slow commands: what is answered when there is none, and what their ends tell. */
#include "converter/control/bridge_cmd_async.h"

#include "common/bridge_json_helpers.h"
#include "config/captured_log.h"
#include "control/failing_calls.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_ctrl_conv.h"
#include "converter/control/bridge_ctrl_ctx.h"

#include <fcntl.h>
#include <filesystem>
#include <sys/wait.h>
#include <thread>

using testing::ElementsAre;
using testing::IsEmpty;

FAILING_CALL(pid_t, fork, (), (), -1)
FAILING_CALL(int, pipe2, (int ends[2], int flags), (ends, flags), -1)

/* ---- neighbours ---- */

json_object *bridge_cmd_status_errno(const char *, int err)
{
    return json_object_new_int(err);
}

void bridge_ctrl_renew_mutex(converter_ctx *ctx)
{
    ctx->mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
}

void bridge_ctrl_close_session(converter_ctx *)
{
    BRIDGE_INFO("session closed");
}

void bridge_ctrl_reopen_session(converter_ctx *)
{
    BRIDGE_INFO("session opened");
}

/* ---- jobs ---- */

static void return_early(converter_ctx *, json_object *request)
{
    BRIDGE_INFO("%s", json_object_get_string(request));
}

static void begin_and_return(converter_ctx *, json_object *)
{
    cmd_async_begin();
}

static void die(converter_ctx *, json_object *)
{
    _Exit(3);
}

static void tell_descriptors(converter_ctx *ctx, json_object *)
{
    const ctx_guard guard(ctx);
    int open = 0;
    for (int fd = 3; fd < 64; fd++)
        open += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
    BRIDGE_INFO("%d descriptors", open);
}

/* ---- fixture ---- */

class CmdAsync : public testing::Test
{
  protected:
    ~CmdAsync() override
    {
        let_all_pass();
    }

    /* The number of the error that is answered at once. */
    int run(cmd_async_job job)
    {
        const json_owned request(json_object_new_string("the request"));
        json_object *response = nullptr;
        cmd_async_run(&context, request.get(), job, &response);
        const json_owned owned(response);
        return json_object_get_int(response);
    }

    /* Until no child is left. */
    static bool all_collected()
    {
        return wait_until([] {
            cmd_async_collect();
            siginfo_t child = {};
            return waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) < 0 && errno == ECHILD;
        });
    }

    captured_log log;
    converter_ctx context = {.mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP};
};

static long open_descriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

TEST_F(CmdAsync, WithoutAChildTheNumberOfTheErrorIsTheAnswer)
{
    static constexpr struct {
        const char *call;
        int error;
        int answer;
        const char *line;
    } rows[] = {
        {"fork", EAGAIN, -EAGAIN, "INFO failed to start slave process: Resource temporarily unavailable"},
        {"pipe2", EMFILE, -EMFILE, "INFO failed to start slave process: Too many open files"},
    };
    const long before = open_descriptors();
    for (const auto &row : rows) {
        const log_view view = log.from_here();
        let_fail(row.call, row.error);
        EXPECT_EQ(run(return_early), row.answer);
        EXPECT_THAT(view.lines_of({"INFO", "WARN", "ERROR"}), ElementsAre(row.line));
        EXPECT_FALSE(cmd_async_returned_early());
    }
    EXPECT_EQ(open_descriptors(), before);
    std::thread([this] {
        EXPECT_EQ(pthread_mutex_trylock(&context.mutex), 0);
        pthread_mutex_unlock(&context.mutex);
    }).join();
}

TEST_F(CmdAsync, AChildThatReturnsEarlyIsToldOnce)
{
    EXPECT_EQ(run(return_early), 0);
    EXPECT_TRUE(cmd_async_returned_early());
    EXPECT_FALSE(cmd_async_returned_early());
    EXPECT_TRUE(all_collected());
    EXPECT_EQ(log.count("INFO the request"), 1);
}

TEST_F(CmdAsync, AChildThatHasBegunOrDiedIsNotEarly)
{
    const long before = open_descriptors();
    for (const cmd_async_job job : {begin_and_return, die}) {
        EXPECT_EQ(run(job), 0);
        EXPECT_FALSE(cmd_async_returned_early());
    }
    EXPECT_TRUE(all_collected());
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(CmdAsync, AChildHasASessionAndNothingElseOfTheDaemon)
{
    const log_view view = log.from_here();
    run(tell_descriptors);
    EXPECT_TRUE(cmd_async_returned_early());
    EXPECT_THAT(view.lines_of({"INFO", "ERROR"}),
                ElementsAre("INFO session closed", "INFO slave process started", "INFO session opened",
                            "INFO 1 descriptors"));
    EXPECT_TRUE(all_collected());
}

TEST_F(CmdAsync, NoChildOfManyStaysUncollected)
{
    for (int i = 0; i < 40; i++)
        run(begin_and_return);
    EXPECT_TRUE(all_collected());
    EXPECT_THAT(log.complaints(), IsEmpty());
}

/* All threads of the pool may be about to begin one. */
TEST_F(CmdAsync, NothingIsBegunWhileFewPlacesForChildrenAreLeft)
{
    for (int i = 0; i < 47; i++)
        cmd_async_forget(getpid()); /* whom nobody can collect: the place is free at the next look */
    EXPECT_EQ(run(begin_and_return), 0);
    EXPECT_FALSE(cmd_async_returned_early());
    const log_view view = log.from_here();
    EXPECT_EQ(run(begin_and_return), -EAGAIN);
    EXPECT_THAT(view.lines_of({"INFO", "WARN", "ERROR"}),
                ElementsAre("INFO failed to start slave process: Resource temporarily unavailable"));
    EXPECT_FALSE(cmd_async_returned_early());
    EXPECT_TRUE(all_collected());
    EXPECT_EQ(run(begin_and_return), 0);
    EXPECT_TRUE(all_collected());
}
