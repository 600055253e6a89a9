/* The handlers of files and logs among stand-ins for the tree, the jobs and the watcher: what they read of a
 * request, what they keep, what they answer. */
#include "converter/control/bridge_cmd_files.h"

#include "common/bridge_fileops.h"
#include "common/bridge_fileops_jobs.h"
#include "common/bridge_fileops_watch.h"
#include "common/bridge_json_helpers.h"
#include "control/control_neighbours.h"
#include "control/fileops_watch.h"
#include "converter/control/bridge_cmd_async.h"

#include <chrono>
#include <future>

using testing::ElementsAre;
using testing::IsEmpty;

using strings = std::vector<std::string>;

FAILING_CALL(json_object *, json_object_new_object, (), (), nullptr)
FAILING_CALL(json_object *, json_object_new_array, (), (), nullptr)
FAILING_CALL(json_object *, json_object_new_int64, (int64_t number), (number), nullptr)

/* ---- neighbours ---- */

/* The calls in order, and what the next ones give. */
static struct {
    strings calls;
    int start_result;
    bool running;
    int running_result;
    int stop_result;
    int scan_result;
    int link_result;
    std::function<void()> meanwhile; /* within a start and a stop */
} files;

static int note(const std::string &call, int result)
{
    files.calls.push_back(call);
    return result;
}

static int work(const std::string &call, int result)
{
    if (files.meanwhile)
        files.meanwhile();
    return note(call, result);
}

int bridge_fileops_stream_start(const bridge_fileops_entry *, const char *path, const char *url, off_t offset,
                                uint64_t size, const char *req_id)
{
    return work(join({"stream ", path, " to ", url, " from ", std::to_string(offset), " of ",
                      std::to_string(size), " for ", req_id}),
                files.start_result);
}

int bridge_fileops_fetch_start(const bridge_fileops_entry *, const char *path, const char *, const char *url,
                               const char *req_id)
{
    return work(join({"fetch ", path, " from ", url, " for ", req_id}), files.start_result);
}

int bridge_fileops_execute_start(const bridge_fileops_entry *, const char *path, const char *logdir,
                                 const char *token, const char *req_id)
{
    return work(join({"execute ", path, " into ", logdir, " with ", token, " for ", req_id}),
                files.start_result);
}

static int ask(const char *kind, pid_t pid, bool *running)
{
    *running = files.running;
    return note(join({kind, " running ", std::to_string(pid)}), files.running_result);
}

int bridge_fileops_stream_running(const bridge_fileops_entry *, pid_t pid, bool *running)
{
    return ask("stream", pid, running);
}

int bridge_fileops_fetch_running(const bridge_fileops_entry *, pid_t pid, bool *running)
{
    return ask("fetch", pid, running);
}

int bridge_fileops_execute_running(const bridge_fileops_entry *, pid_t pid, bool *running)
{
    return ask("execute", pid, running);
}

int bridge_fileops_stream_stop(const bridge_fileops_entry *, pid_t pid)
{
    return work(join({"stream stop ", std::to_string(pid)}), files.stop_result);
}

int bridge_fileops_fetch_stop(const bridge_fileops_entry *, pid_t pid)
{
    return work(join({"fetch stop ", std::to_string(pid)}), files.stop_result);
}

int bridge_fileops_execute_stop(const bridge_fileops_entry *, pid_t pid)
{
    return work(join({"execute stop ", std::to_string(pid)}), files.stop_result);
}

/* Long enough for a second start that nothing holds back. */
static constexpr auto HELD_BACK = std::chrono::milliseconds(100);

/* Whose jobs are looked at. */
static const converter_ctx *jobs_of;

/* From here on a child may be collected at any time: who still finds its number would ask for nobody. */
void cmd_async_forget(pid_t pid)
{
    const bool is_held = jobs_of->stream_id == pid || jobs_of->fetch_id == pid ||
                         jobs_of->execute_id == pid || jobs_of->watch_pid == pid;
    note(join({"forget ", std::to_string(pid), is_held ? " too early" : ""}), 0);
}

const bridge_fileops_entry fileops_root = {};

int bridge_fileops_scandir_to_existing_json(const bridge_fileops_entry *, const char *path,
                                            json_object *json_arr)
{
    json_object_array_add(json_arr, json_object_new_string("an entry"));
    return note(join({"scan ", path}), files.scan_result);
}

int bridge_fileops_create_hardlinks_from_json(const bridge_fileops_entry *, json_object *filepath_arr,
                                              const char *dst_dirpath)
{
    return note(join({"link ", json_object_to_json_string_ext(filepath_arr, JSON_C_TO_STRING_PLAIN), " to ",
                      dst_dirpath}),
                files.link_result);
}

/* ---- fixture ---- */

using handler = void (*)(converter_ctx *ctx, json_object *params, json_object **response);

/* A kind of job: its commands, and where its id is kept. */
struct job_case {
    handler start;
    handler stop;
    std::atomic<int32_t> converter_ctx::*slot;
    const char *word;
    const char *key;
    const char *request;
    const char *started;
    const char *not_started;
    const char *still_running;
    const char *not_running;
    const char *invalid;
};

/* clang-format off */
static constexpr job_case JOBS[] = {
    {bridge_cmd_stream_start, bridge_cmd_stream_stop, &converter_ctx::stream_id, "stream", "xferId",
     R"({"requestId":7,"params":{"url":"u","path":"logs/a.log","offset":3,"size":4}})",
     "stream logs/a.log to u from 3 of 4 for 7", "ERROR failed to start streaming",
     "ERROR file streaming is still running", "ERROR file streaming is not running, nothing to stop",
     "ERROR invalid xfer ID received: 99"},
    {bridge_cmd_fetch_start, bridge_cmd_fetch_stop, &converter_ctx::fetch_id, "fetch", "xferId",
     R"({"requestId":"seven","params":{"url":"u","path":"shm/a"}})",
     "fetch shm/a from u for seven", "ERROR failed to start fetching",
     "ERROR file fetching is still running", "ERROR file fetching is not running, nothing to stop",
     "ERROR invalid xfer ID received: 99"},
    {bridge_cmd_execute_start, bridge_cmd_execute_stop, &converter_ctx::execute_id, "execute", "exeId",
     R"({"requestId":7,"params":{"path":"scripts/a.sh","exeToken":"t"}})",
     "execute scripts/a.sh into logs with t for 7", "ERROR failed to start script execution",
     "ERROR file executing is still running", "ERROR file execution is not running, nothing to stop",
     "ERROR invalid exe ID received: 99"},
};
/* clang-format on */

class CmdFiles : public ControlTest
{
  protected:
    CmdFiles()
    {
        files = {};
        fileops_watch = {};
        jobs_of = ctx;
    }

    /* The response as text; "none" without one. */
    std::string call(handler function, const std::string &request = "{}")
    {
        files.calls.clear();
        return call_beside(function, request);
    }
    std::string call_beside(handler function, const std::string &request)
    {
        const json_owned parsed(json_tokener_parse(request.c_str()));
        json_object *response = nullptr;
        function(ctx, parsed.get(), &response);
        const json_owned owned(response);
        return response != nullptr ? json_object_to_json_string_ext(response, JSON_C_TO_STRING_PLAIN)
                                   : "none";
    }

    static std::string status(const char *text)
    {
        return join({R"({"status":")", text, R"("})"});
    }
    static std::string with_id(const job_case &job, int id, const char *text = "ok")
    {
        return join({R"({")", job.key, R"(":)", std::to_string(id), R"(,"status":")", text, R"("})"});
    }
    static std::string stop_request(const job_case &job, int id)
    {
        return join({R"({")", job.key, R"(":)", std::to_string(id), "}"});
    }
};

/* ---- directories ---- */

TEST_F(CmdFiles, AListingHasItsEntriesAndItsPath)
{
    EXPECT_EQ(call(bridge_cmd_scan_dir, R"({"path":"logs"})"),
              R"({"entries":["an entry"],"path":"logs","status":"ok"})");
    EXPECT_THAT(files.calls, ElementsAre("scan logs"));
}

TEST_F(CmdFiles, AListingThatFailsKeepsWhatWasFoundAndHasNoPath)
{
    files.scan_result = -ENOENT;
    EXPECT_EQ(call(bridge_cmd_scan_dir, R"({"path":"nothing"})"),
              R"({"entries":["an entry"],"status":"No such file or directory"})");
    EXPECT_EQ(call(bridge_cmd_scan_dir, "{}"), R"({"entries":[],"status":"Invalid argument"})");
    EXPECT_THAT(log.lines_of({"ERROR"}), ElementsAre("ERROR failed to scan a directory: -2",
                                                     "ERROR failed to de-serialize scandir parameters"));
}

TEST_F(CmdFiles, WithoutMemoryThereIsNoResponse)
{
    let_fail("json_object_new_array");
    EXPECT_EQ(call(bridge_cmd_scan_dir, R"({"path":"logs"})"), "none");
    static constexpr handler HANDLERS[] = {
        bridge_cmd_scan_dir,     bridge_cmd_stream_start,       bridge_cmd_stream_stop,
        bridge_cmd_fetch_start,  bridge_cmd_fetch_stop,         bridge_cmd_execute_start,
        bridge_cmd_execute_stop, bridge_cmd_log_retrieve_start, bridge_cmd_log_retrieve_stop,
    };
    for (const handler each : HANDLERS) {
        const log_view view = log.from_here();
        let_fail("json_object_new_object");
        EXPECT_EQ(call(each), "none");
        EXPECT_THAT(view.complaints(), ElementsAre("ERROR can't allocate response object"));
        EXPECT_THAT(files.calls, IsEmpty());
    }
}

/* ---- jobs ---- */

TEST_F(CmdFiles, AJobIsStartedOnceAndItsIdIsKept)
{
    for (const job_case &job : JOBS) {
        files = {.start_result = 4711, .running = true};
        EXPECT_EQ(call(job.start, job.request), with_id(job, 4711));
        EXPECT_THAT(files.calls, ElementsAre(job.started));
        EXPECT_EQ(context.*job.slot, 4711);

        const log_view view = log.from_here();
        EXPECT_EQ(call(job.start, job.request), status("Operation now in progress"));
        EXPECT_THAT(files.calls, ElementsAre(join({job.word, " running 4711"})));
        EXPECT_THAT(view.complaints(), ElementsAre(job.still_running));
        EXPECT_EQ(context.*job.slot, 4711);
    }
}

TEST_F(CmdFiles, AJobThatIsOverMakesRoomForTheNext)
{
    for (const job_case &job : JOBS) {
        files = {.start_result = 12};
        context.*job.slot = 11;
        EXPECT_EQ(call(job.start, job.request), with_id(job, 12));
        EXPECT_THAT(files.calls, ElementsAre(join({job.word, " running 11"}), job.started));
        EXPECT_EQ(context.*job.slot, 12);
    }
}

TEST_F(CmdFiles, AJobThatCannotBeAskedKeepsItsPlace)
{
    for (const job_case &job : JOBS) {
        files = {.start_result = 12, .running_result = -ECHILD};
        context.*job.slot = 11;
        EXPECT_EQ(call(job.start, job.request), status("No child processes"));
        EXPECT_EQ(context.*job.slot, 11);
    }
}

TEST_F(CmdFiles, ATransferThatCannotBeStartedIsAnsweredWithItsError)
{
    for (const job_case &job : {JOBS[0], JOBS[1]}) {
        const log_view view = log.from_here();
        files = {.start_result = -EACCES};
        EXPECT_EQ(call(job.start, job.request), status("Permission denied"));
        EXPECT_THAT(view.complaints(), ElementsAre(job.not_started));
        EXPECT_EQ(context.*job.slot, -1);
    }
}

/* Servers know it so. */
TEST_F(CmdFiles, AScriptThatCannotBeStartedHasItsErrorAsIdBesideAnOk)
{
    files = {.start_result = -ENOENT};
    EXPECT_EQ(call(JOBS[2].start, JOBS[2].request), with_id(JOBS[2], -2));
    EXPECT_THAT(log.complaints(), ElementsAre(JOBS[2].not_started));
}

TEST_F(CmdFiles, ARequestThatCannotBeReadStartsNothing)
{
    static constexpr struct {
        size_t job;
        const char *request;
    } rows[] = {
        {0, R"({"requestId":7,"params":{"url":"u","path":"p","offset":-1,"size":4}})"},
        {0, R"({"requestId":7,"params":{"url":"u","path":"p","offset":0,"size":0}})"},
        {0, R"({"requestId":7,"params":{"url":"u","path":"p","offset":0}})"},
        {0, R"({"params":{"url":"u","path":"p","offset":0,"size":1}})"},
        {1, R"({"requestId":7,"params":{"path":"p"}})"},
        {1, R"({"requestId":7})"},
        {2, R"({"requestId":7,"params":{"path":"p"}})"},
        {2, R"({"requestId":7,"params":null})"},
    };
    for (const auto &row : rows) {
        files = {.start_result = 12};
        EXPECT_EQ(call(JOBS[row.job].start, row.request), status("Invalid argument")) << row.request;
        EXPECT_THAT(files.calls, IsEmpty());
        EXPECT_EQ(context.*JOBS[row.job].slot, -1);
    }
}

TEST_F(CmdFiles, AnIdThatCannotBeAnsweredIsKeptAllTheSame)
{
    for (const job_case &job : JOBS) {
        files = {.start_result = 12};
        let_fail("json_object_new_int64");
        EXPECT_EQ(call(job.start, job.request), status("Input\\/output error"));
        let_all_pass();
        EXPECT_EQ(context.*job.slot, 12) << "the job runs";
    }
    EXPECT_EQ(log.count("ERROR failed to serialize response frame"), 3);
}

TEST_F(CmdFiles, AStopEndsTheJobOfThatId)
{
    for (const job_case &job : JOBS) {
        files = {};
        context.*job.slot = 4711;
        EXPECT_EQ(call(job.stop, stop_request(job, 4711)), status("ok"));
        EXPECT_THAT(files.calls, ElementsAre(join({job.word, " stop 4711"}), "forget 4711"));
        EXPECT_EQ(context.*job.slot, -1);
    }
}

TEST_F(CmdFiles, AStopThatFailsIsAnsweredWithItsErrorAndForgetsTheJob)
{
    for (const job_case &job : JOBS) {
        files = {.stop_result = -EPERM};
        context.*job.slot = 4711;
        EXPECT_EQ(call(job.stop, stop_request(job, 4711)), status("Operation not permitted"));
        EXPECT_EQ(context.*job.slot, -1);
    }
}

TEST_F(CmdFiles, AJobStartedWhileAnotherIsStoppedIsKept)
{
    for (const job_case &job : JOBS) {
        files = {.meanwhile = [&] { context.*job.slot = 5000; }};
        context.*job.slot = 4711;
        EXPECT_EQ(call(job.stop, stop_request(job, 4711)), status("ok"));
        EXPECT_EQ(context.*job.slot, 5000);
    }
}

TEST_F(CmdFiles, OfTwoStartsAtOnceTheSecondFindsTheJobOfTheFirst)
{
    for (const job_case &job : JOBS) {
        std::future<std::string> second;
        files = {.start_result = 11, .running = true, .meanwhile = [&] {
                     if (second.valid())
                         return;
                     second =
                         std::async(std::launch::async, [&] { return call_beside(job.start, job.request); });
                     second.wait_for(HELD_BACK);
                 }};
        EXPECT_EQ(call(job.start, job.request), with_id(job, 11));
        EXPECT_EQ(second.get(), status("Operation now in progress"));
        EXPECT_THAT(files.calls, ElementsAre(job.started, join({job.word, " running 11"})));
        EXPECT_EQ(context.*job.slot, 11);
    }
}

TEST_F(CmdFiles, AStopWithoutItsJobStopsNothing)
{
    for (const job_case &job : JOBS) {
        files = {};
        const log_view view = log.from_here();
        EXPECT_EQ(call(job.stop, stop_request(job, 99)), status("No such process"));
        context.*job.slot = 4711;
        EXPECT_EQ(call(job.stop, stop_request(job, 99)), status("Invalid argument"));
        EXPECT_THAT(view.complaints(), ElementsAre(job.not_running, job.invalid));
        EXPECT_EQ(call(job.stop, "{}"), status("Invalid argument"));
        EXPECT_THAT(files.calls, IsEmpty());
        EXPECT_EQ(context.*job.slot, 4711);
    }
}

/* ---- retrieval of logs ---- */

static constexpr const char *LOGS = R"({"requiredFiles":["logs/a.log"]})";
static constexpr const char *RETRIEVED = R"({"backupDir":"logs_bkp","status":"ok"})";

TEST_F(CmdFiles, ARetrievalLinksTheLogsAndWatchesTheirCopies)
{
    EXPECT_EQ(call(bridge_cmd_log_retrieve_start, LOGS), RETRIEVED);
    EXPECT_THAT(files.calls, ElementsAre(R"(link ["logs\/a.log"] to logs_bkp)"));
    EXPECT_THAT(fileops_watch.calls, ElementsAre("force clean", "touch /var/log/.snv_bridge_bkp.tmst",
                                                 "touch /var/lib/logs/.snv_bridge_bkp.tmst", "start"));
    EXPECT_EQ(call(bridge_cmd_log_retrieve_start, LOGS), R"({"status":"Operation now in progress"})");
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR log retrieval is already started"));
}

TEST_F(CmdFiles, AStopOfTheRetrievalEndsTheWatcherAndEmptiesTheCopies)
{
    EXPECT_EQ(call(bridge_cmd_log_retrieve_stop), status("Invalid argument"));
    context.log_retrieval_running = true;
    context.watch_pid = 7;
    fileops_watch.running = true;
    EXPECT_EQ(call(bridge_cmd_log_retrieve_stop), status("ok"));
    EXPECT_THAT(fileops_watch.calls, ElementsAre("running 7", "stop 7", "force clean"));
    EXPECT_THAT(files.calls, ElementsAre("forget 7"));
    EXPECT_EQ(context.watch_pid, -1);
    EXPECT_FALSE(context.log_retrieval_running);
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR log retrieval is not running"));
}

TEST_F(CmdFiles, AWatcherOfTheRetrievalBeforeIsStoppedAndNoNewOneStarted)
{
    context.watch_pid = 7;
    fileops_watch.running = true;
    EXPECT_EQ(call(bridge_cmd_log_retrieve_start, LOGS), RETRIEVED);
    EXPECT_THAT(fileops_watch.calls,
                ElementsAre("force clean", testing::_, testing::_, "running 7", "stop 7"));
}

TEST_F(CmdFiles, AWatcherThatCannotBeStoppedIsOnlyAWarning)
{
    context.watch_pid = 7;
    fileops_watch.running_result = -ECHILD;
    EXPECT_EQ(call(bridge_cmd_log_retrieve_start, LOGS), RETRIEVED);
    EXPECT_THAT(log.complaints(), ElementsAre("WARN unable to stop watch process"));
}

TEST_F(CmdFiles, ARetrievalThatFailsIsNotRunning)
{
    EXPECT_EQ(call(bridge_cmd_log_retrieve_start, R"({"requiredFiles":"logs/a.log"})"),
              R"({"backupDir":"logs_bkp","status":"Invalid argument"})");
    EXPECT_THAT(fileops_watch.calls, IsEmpty());
    files.link_result = -EXDEV;
    EXPECT_EQ(call(bridge_cmd_log_retrieve_start, LOGS),
              R"({"backupDir":"logs_bkp","status":"Invalid cross-device link"})");
    EXPECT_THAT(fileops_watch.calls, ElementsAre("force clean"));
    EXPECT_FALSE(context.log_retrieval_running);
}

TEST_F(CmdFiles, OldCopiesAreLookedAtAndAFailureIsTold)
{
    fileops_watch.clean_result = -EINVAL;
    bridge_cmd_clean_log_backups();
    EXPECT_EQ(fileops_watch.calls.size(), 2U);
    EXPECT_THAT(log.complaints(), ElementsAre("WARN can't check and clean log backup dirs: [-22]"));
}
