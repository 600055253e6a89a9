/* Start and stop of the commands' service, below a root of the test's own. */
#include "common/bridge_fileops.h"
#include "common/captured_stderr.h"
#include "control/command_road.h"
#include "control/fileops_watch.h"
#include "control/fixed_paths.h"
#include "converter/control/bridge_cmd_async.h"
#include "thread_pool/thpool.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <sys/wait.h>
#include <unistd.h>

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

static constexpr const char *PIPE = "/tmp/snv_bridge.pipe";

/* "we", "r+e" and "w+e" open what the test lets them open. */
FAILING_CALL(FILE *, fopen64, (const char *path, const char *mode), (path, mode), nullptr)

static struct {
    bool running;
    int running_result;
    int stop_result;
} fetch;

/* The calls of C++ go by their mangled names. */
extern "C" {
int __wrap__Z29bridge_fileops_stream_runningPK20bridge_fileops_entryiPb(const bridge_fileops_entry *,
                                                                        pid_t id, bool *running)
{
    fileops_watch.calls.push_back("stream running " + std::to_string(id));
    *running = fetch.running;
    return fetch.running_result;
}

int __wrap__Z26bridge_fileops_stream_stopPK20bridge_fileops_entryi(const bridge_fileops_entry *, pid_t id)
{
    fileops_watch.calls.push_back("stream stop " + std::to_string(id));
    return fetch.stop_result;
}
}

static const std::vector<std::string> DIRECTORIES = {
    "/usr/share/snv-mqtt-bridge",
    "/var/log",
    "/var/log/.snv_bridge_bkp",
    "/var/lib/logs",
    "/var/lib/logs/.snv_bridge_bkp",
    "/lib/firmware",
    "/lib/firmware/opkg",
    "/dev/shm/modem_downloads",
    "/usr/share/snv-mqtt-bridge/scripts",
    "/etc/default",
};

class CmdLifecycle : public ControlTest
{
  protected:
    CmdLifecycle()
    {
        fileops_watch = {};
        new_root();
        context.pool = thpool_init(1);
    }

    ~CmdLifecycle() override
    {
        thpool_wait(context.pool);
        thpool_destroy(context.pool);
    }

    /* With nothing in it but the parents of the fixed folders. */
    void new_root()
    {
        root = std::make_unique<temporary_root>();
        for (const char *parent : {"usr/share", "var/lib", "lib", "dev/shm", "etc", "tmp"})
            std::filesystem::create_directories(root->path / parent);
        fixed_paths::move_below(root->path);
        state = root->path / "state";
        strcpy(configuration.generic.state_dir, state.c_str());
    }

    int launch()
    {
        view = log.from_here();
        return bridge_cmd_launcher(ctx, COMMANDS_TOPIC);
    }

    int stop()
    {
        const int result = bridge_cmd_stopper(ctx);
        ctx->fileops_async_pipe = -1; /* as the next init leaves it */
        return result;
    }

    std::unique_ptr<temporary_root> root;
    std::filesystem::path state;
    log_view view = log.from_here();
};

class CmdLifecycleDeath : public CmdLifecycle
{
};

static std::string content(const std::filesystem::path &path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST_F(CmdLifecycle, TheFoldersComeFirstAndInTheirOrder)
{
    std::vector<std::string> wanted;
    for (const std::string &path : DIRECTORIES)
        wanted.push_back(join({"mkdir 775 ", path}));
    wanted.push_back(join({"mkdir 755 ", state.c_str()}));
    wanted.push_back(join({"mkfifo 600 ", PIPE}));
    EXPECT_EQ(launch(), 0);
    EXPECT_EQ(fixed_paths::made(), wanted);
    EXPECT_THAT(view.complaints(), IsEmpty());
    EXPECT_EQ(stop(), 0);
}

TEST_F(CmdLifecycle, FoldersThatAreThereAreTold)
{
    EXPECT_EQ(launch(), 0);
    EXPECT_EQ(stop(), 0);
    thpool_wait(ctx->pool);
    EXPECT_EQ(launch(), 0);
    for (const std::string &path : DIRECTORIES)
        EXPECT_EQ(view.count(join({"TRACE ", path, " is already created"})), 1);
    EXPECT_EQ(stop(), 0);
}

TEST_F(CmdLifecycle, AFileInAFoldersPlaceEndsTheStart)
{
    for (const std::string &path : DIRECTORIES) {
        SCOPED_TRACE(path);
        new_root();
        const std::filesystem::path real = fixed_paths::below(path);
        std::filesystem::create_directories(real.parent_path());
        std::ofstream(real) << "a file";
        std::filesystem::permissions(real, std::filesystem::perms(0640));
        EXPECT_EQ(launch(), -1);
        EXPECT_THAT(view.complaints(),
                    ElementsAre(join({"ERROR path ", path, " is not a dir. mode: 0x81a0"})));
        EXPECT_EQ(fixed_paths::made().back(), join({"mkdir 775 ", path})) << "nothing behind it";
    }
    EXPECT_THAT(fileops_watch.calls, IsEmpty());
}

TEST_F(CmdLifecycle, AFolderThatCannotBeMadeEndsTheStart)
{
    for (const std::string &path : DIRECTORIES) {
        SCOPED_TRACE(path);
        new_root();
        const auto place = std::find(DIRECTORIES.begin(), DIRECTORIES.end(), path) - DIRECTORIES.begin();
        let_fail("mkdir", EROFS, static_cast<int>(place));
        EXPECT_EQ(launch(), -1);
        EXPECT_THAT(view.complaints(),
                    ElementsAre(join({"ERROR failed to create dir ", path, ": Read-only file system"})));
    }
    EXPECT_EQ(ctx->fileops_async_pipe, -1);
}

TEST_F(CmdLifecycle, ADanglingLinkInAFoldersPlaceEndsTheStart)
{
    std::filesystem::create_symlink("/no/such/place", fixed_paths::below("/var/log"));
    EXPECT_EQ(launch(), -1);
    EXPECT_THAT(view.complaints(), ElementsAre("ERROR path /var/log is not a dir. mode: 0"));
}

TEST_F(CmdLifecycle, CopiesOfLogsAreClearedAtStart)
{
    EXPECT_EQ(launch(), 0);
    EXPECT_THAT(
        fileops_watch.calls,
        ElementsAre("clean /var/log/.snv_bridge_bkp *.log /var/log/.snv_bridge_bkp.tmst 60",
                    "clean /var/lib/logs/.snv_bridge_bkp *.gz /var/lib/logs/.snv_bridge_bkp.tmst 60"));
    EXPECT_EQ(stop(), 0);
}

TEST_F(CmdLifecycle, CopiesThatCannotBeClearedAreOnlyAWarning)
{
    fileops_watch.clean_result = -13;
    EXPECT_EQ(launch(), 0);
    EXPECT_THAT(view.complaints(), ElementsAre("WARN can't check and clean log backup dirs: [-13]"));
    EXPECT_EQ(stop(), 0);
    thpool_wait(ctx->pool);
    fileops_watch.clean_result = 1;
    EXPECT_EQ(launch(), 0);
    EXPECT_THAT(view.complaints(), IsEmpty()) << "no timestamp is no failure";
    EXPECT_EQ(stop(), 0);
}

TEST_F(CmdLifecycle, TheLastOperationIsReadOnceThePipeIsThere)
{
    std::filesystem::create_directory(state);
    std::ofstream(state / "last_sw_status") << "2:upgrade\n-9223372036854775808:req\n";
    EXPECT_EQ(launch(), 0);
    EXPECT_EQ(ctx->last_sw_cmd, 2);
    EXPECT_EQ(ctx->last_sw_req_id, INT64_MIN);
    static constexpr const char *LINES[] = {
        "DEBUG creating async response pipe and threads", "DEBUG de-serializing status from file idx: 0",
        "DEBUG read install status: 2", "INFO Read last sw cmd: 2, req id: -9223372036854775808"};
    long last = -1;
    for (const char *line : LINES) {
        EXPECT_GT(view.position(line), last) << line;
        last = view.position(line);
    }
    EXPECT_EQ(content(state / "last_wm_fw_status"), "");
    EXPECT_EQ(stop(), 0);
}

TEST_F(CmdLifecycle, NoLastOperationIsNone)
{
    ctx->last_sw_cmd = 1;
    ctx->last_sw_req_id = 9;
    EXPECT_EQ(launch(), 0);
    EXPECT_EQ(ctx->last_sw_cmd, 0);
    EXPECT_EQ(ctx->last_sw_req_id, 0);
    EXPECT_TRUE(view.has("DEBUG setting install status to none"));
    EXPECT_TRUE(view.has("INFO Read last sw cmd: 0, req id: 0"));
    EXPECT_EQ(stop(), 0);
}

TEST_F(CmdLifecycle, AStateFileThatCannotBeMadeEndsTheStartBeforeThePipe)
{
    std::filesystem::create_directories(state / "last_sw_status");
    EXPECT_EQ(launch(), -1);
    EXPECT_THAT(view.complaints(), ElementsAre(join({"ERROR state path ", (state / "last_sw_status").c_str(),
                                                     " exists, but it isn't a regular file"})));
    EXPECT_FALSE(std::filesystem::exists(fixed_paths::below(PIPE)));
}

TEST_F(CmdLifecycle, AStateFileThatCannotBeReadEndsTheStartAndThePipe)
{
    let_fail("fopen64", EACCES, 2);
    EXPECT_EQ(launch(), -1);
    EXPECT_THAT(view.complaints(), ElementsAre("ERROR failed to open a state file"));
    thpool_wait(ctx->pool); /* a watcher that went on would hold this for ever */
    EXPECT_TRUE(view.has("DEBUG stopping pipe watcher thread"));
    EXPECT_FALSE(ctx->pipe_watch_thr_running);
}

TEST_F(CmdLifecycle, APipeThatCannotBeMadeEndsTheStart)
{
    std::filesystem::create_directory(fixed_paths::below(PIPE));
    EXPECT_EQ(launch(), -1);
    EXPECT_THAT(view.complaints(), ElementsAre("ERROR failed to open async pipe: Is a directory"));
    EXPECT_FALSE(view.has("DEBUG de-serializing status from file idx: 0"));
}

TEST_F(CmdLifecycleDeath, AStartWithoutAContextIsAsserted)
{
    EXPECT_ASSERTION(bridge_cmd_launcher(nullptr, COMMANDS_TOPIC), "ctx");
}

/* ---- stop ---- */

TEST_F(CmdLifecycle, AStopEndsThePipeAndNoWatcherThatIsNotThere)
{
    ASSERT_EQ(launch(), 0);
    for (const int free_pid : {-1, 0}) {
        ctx->watch_pid = free_pid;
        fileops_watch.calls.clear();
        const bool first = ctx->pipe_watch_thr_running;
        EXPECT_EQ(stop(), first ? 0 : -1);
        EXPECT_THAT(fileops_watch.calls, IsEmpty());
    }
    EXPECT_EQ(view.count("DEBUG stopping command services"), 2);
    EXPECT_EQ(view.count("DEBUG destroying async response pipe"), 2);
    EXPECT_THAT(view.complaints(), ElementsAre("ERROR can't stop pipe watch thread: already stopped",
                                               "ERROR can't close fileops pipe: invalid descriptor"));
}

TEST_F(CmdLifecycle, AStopEndsTheWatcherOfTheFiles)
{
    static constexpr struct {
        bool running;
        int running_result;
        int stop_result;
        int result;
        bool stops;
        const char *warning;
    } rows[] = {
        {false, 0, 0, 0, false, nullptr},
        {true, 0, 0, 0, true, nullptr},
        {true, 0, -3, -1, true, "WARN failed to stop watch process: [-3]"},
        {true, -10, 0, -1, false, "WARN failed to stop watch process: [-10]"},
        {false, -10, -3, -1, false, "WARN failed to stop watch process: [-10]"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.running << row.running_result << row.stop_result);
        ASSERT_EQ(launch(), 0);
        ctx->watch_pid = 4711;
        fileops_watch = {
            .running = row.running, .running_result = row.running_result, .stop_result = row.stop_result};
        EXPECT_EQ(stop(), row.result);
        thpool_wait(ctx->pool); /* the pipe is stopped all the same */
        std::vector<std::string> calls = {"running 4711"};
        if (row.stops)
            calls.emplace_back("stop 4711");
        EXPECT_EQ(fileops_watch.calls, calls);
        std::vector<std::string> warnings;
        if (row.warning != nullptr)
            warnings.emplace_back(row.warning);
        EXPECT_EQ(view.complaints(), warnings);
    }
}

TEST_F(CmdLifecycle, AStopEndsAFetchByTheCallsOfAStream)
{
    static constexpr const char *RUNNING = "stream running 4711";
    static constexpr const char *STOP = "stream stop 4711";
    const struct {
        bool running;
        int running_result;
        int stop_result;
        int result;
        std::vector<std::string> calls;
        std::vector<std::string> warnings;
    } rows[] = {
        {true, 0, 0, 0, {RUNNING, STOP}, {}},
        {true, 0, -3, -1, {RUNNING, STOP}, {"WARN failed to stop file stream process: [-3]"}},
        {true, -10, 0, -1, {RUNNING}, {"WARN failed to stop file stream process: [-10]"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.running_result << row.stop_result);
        ASSERT_EQ(launch(), 0);
        fileops_watch = {};
        fetch = {row.running, row.running_result, row.stop_result};
        ctx->fetch_id = 4711;
        ctx->stream_id = 4712;
        ctx->execute_id = 4713;
        EXPECT_EQ(stop(), row.result);
        thpool_wait(ctx->pool); /* the pipe is stopped all the same */
        EXPECT_EQ(fileops_watch.calls, row.calls) << "streams and scripts are left alone";
        EXPECT_EQ(view.complaints(), row.warnings);
    }
}

/* Ends once the returned end of a pipe is closed. */
static pid_t child_that_waits(int *leash)
{
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        close(ends[1]);
        char end = 0;
        _exit(static_cast<int>(read(ends[0], &end, 1)));
    }
    close(ends[0]);
    *leash = ends[1];
    return pid;
}

TEST_F(CmdLifecycle, JobsOfAPlaneThatHasEndedAreCollectedOnceTheyEnd)
{
    std::atomic<int32_t> *const slots[] = {&ctx->stream_id, &ctx->fetch_id, &ctx->execute_id, &ctx->watch_pid,
                                           &ctx->ssh_pid};
    for (std::atomic<int32_t> *slot : slots) {
        int leash = -1;
        const pid_t job = child_that_waits(&leash);
        *slot = job;
        bridge_cmd_forget_jobs(ctx);
        *slot = -1;
        EXPECT_TRUE(cmd_async_collect());
        EXPECT_EQ(kill(job, 0), 0) << "it goes on";
        close(leash);
        while (cmd_async_collect())
            continue;
        EXPECT_EQ(waitpid(job, nullptr, WNOHANG), -1);
        EXPECT_EQ(errno, ECHILD);
    }
}
