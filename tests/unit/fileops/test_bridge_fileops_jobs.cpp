/* Jobs as real children: what they are started with, what they answer, and what is told of one later. Only
 * the transfers are stand-ins. */
#include "common/bridge_fileops_jobs.h"

#include "common/bridge_async_pipe.h"
#include "common/bridge_config.h"
#include "common/bridge_fileops.h"
#include "common/bridge_fileops_curl.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_wait.h"
#include "config/captured_log.h"
#include "control/failing_calls.h"
#include "fileops/fileops_fixture.h"

#include <csignal>
#include <sys/stat.h>
#include <sys/wait.h>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using strings = std::vector<std::string>;

FAILING_CALL(pid_t, fork, (), (), -1)
FAILING_CALL(int, kill, (pid_t pid, int signal), (pid, signal), -1)
FAILING_CALL(int, chmod, (const char *path, mode_t mode), (path, mode), -1)
FAILING_CALL(json_object *, json_object_new_object, (), (), nullptr)

/* ---- neighbours ---- */

static std::string answers_path;
static int pipe_result;
static int transfer_result;
static std::function<void(uint32_t)> wait_of_stop;

/* By its path: the child has no descriptor of the test's. */
int bridge_async_pipe_send(const char *text)
{
    std::ofstream(answers_path, std::ios::app) << text << '\n';
    return pipe_result;
}

const bridge_config_root *bridge_config_get_root_checked()
{
    static const bridge_config_root root = {.generic = {.gw_mac = "0016c001f1500a0b"}};
    return &root;
}

int bridge_fileops_curl_upload(const bridge_fileops_upload *upload)
{
    int descriptors = 0;
    for (int fd = STDERR_FILENO + 1; fd < 64; fd++)
        descriptors += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
    BRIDGE_INFO("%d descriptors of the daemon's", descriptors);
    BRIDGE_INFO("upload %s as %s to %s: %lld, %llu; %s", upload->real_path, upload->virtual_path, upload->url,
                static_cast<long long>(upload->offset), static_cast<unsigned long long>(upload->size),
                upload->tmst_path != nullptr ? upload->tmst_path : "no timestamp");
    return transfer_result;
}

int bridge_fileops_curl_download(const char *fetch_url, const char *real_path)
{
    BRIDGE_INFO("download %s to %s", fetch_url, real_path);
    return transfer_result;
}

void bridge_wait_s(uint32_t seconds)
{
    wait_of_stop(seconds);
}

/* ---- fixture ---- */

class FileopsJobs : public testing::Test
{
  protected:
    void SetUp() override
    {
        for (const char *name : {"logs", "old", "scripts"})
            std::filesystem::create_directory(real.below(name));
        answers_path = real.below("answers");
        pipe_result = 0;
        transfer_result = 0;
        wait_of_stop = [](uint32_t) { FAIL() << "nothing is to wait here"; };
    }
    void TearDown() override
    {
        let_all_pass();
        if (helper > 0) {
            __real_kill(helper, SIGKILL);
            waitpid(helper, nullptr, 0);
        }
    }

    /* The wait status of the child, which has ended. */
    static int status_of(pid_t pid)
    {
        int status = -1;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        return status;
    }

    int stream(const char *path)
    {
        return bridge_fileops_stream_start(&root, path, "http://server.example/", 5, 7, "17");
    }
    int fetch(const char *path)
    {
        return bridge_fileops_fetch_start(&root, path, "", "http://server.example/f", "18");
    }
    int execute(const char *path, const char *logdir = "old")
    {
        return bridge_fileops_execute_start(&root, path, logdir, "", "19");
    }

    strings answers() const
    {
        std::ifstream file(answers_path);
        strings lines;
        for (std::string line; std::getline(file, line);)
            lines.push_back(line);
        return lines;
    }

    static std::string answer(const char *request, const std::string &path, const char *key, pid_t pid,
                              const std::string &status)
    {
        return join({R"({"requestId":")", request, R"(","mac":"0016c001f1500a0b","response":{"filepath":")",
                     path, R"(",")", key, R"(":)", std::to_string(pid), R"(,"status":")", status, R"("}})"});
    }

    /* A script, as an upload would leave it, and what its job answered as status. */
    std::string status_of_script(const std::string &content)
    {
        const std::string path = real.make_file("scripts/job.sh", content);
        chmod(path.c_str(), 0644);
        const pid_t pid = execute("scripts/job.sh");
        EXPECT_GT(pid, 0);
        EXPECT_EQ(status_of(pid), 0);
        const strings all = answers();
        if (all.empty())
            return "no answer";
        const json_owned parsed(json_tokener_parse(all.back().c_str()));
        json_object *response = nullptr;
        json_object *status = nullptr;
        json_object_object_get_ex(parsed.get(), "response", &response);
        json_object_object_get_ex(response, "status", &status);
        const char *text = json_object_get_string(status);
        EXPECT_EQ(all.back(), answer("19", R"(scripts\/job.sh)", "exeId", pid, text));
        return text;
    }

    /* The one file in the directory for logs of scripts. */
    std::filesystem::path log_of_script() const
    {
        std::vector<std::filesystem::path> found;
        for (const auto &entry : std::filesystem::directory_iterator(real.below("old")))
            found.push_back(entry.path());
        EXPECT_EQ(found.size(), 1U);
        return found.empty() ? "" : found.front();
    }

    static std::string content_of(const std::filesystem::path &path)
    {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    /* A child that waits for a signal, as a job that runs. */
    pid_t start_helper()
    {
        helper = __real_fork();
        if (helper == 0) {
            for (;;)
                pause();
        }
        return helper;
    }

    /* Until a wait would find its end. */
    static void wait_for_end(pid_t pid)
    {
        siginfo_t info = {};
        EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    }

    captured_log log;
    temporary_folder real;
    pid_t helper = 0;

    const std::string logs = real.below("logs");
    const std::string old = real.below("old");
    const std::string scripts = real.below("scripts");
    const std::string nowhere = real.below("nowhere");
    /* clang-format off */
    const bridge_fileops_entry logs_rows[1] = {
        {.type = BRIDGE_FILEOPS_GLOB, .access = 3, .name = "*.log", .real_path = logs.c_str(), .tmst_path = "stamp"}};
    const bridge_fileops_entry old_rows[1] = {
        {.type = BRIDGE_FILEOPS_GLOB, .access = 1, .name = "*.txt", .real_path = old.c_str()}};
    const bridge_fileops_entry scripts_rows[1] = {
        {.type = BRIDGE_FILEOPS_GLOB, .access = 5, .name = "*", .real_path = scripts.c_str()}};
    const bridge_fileops_entry gone_rows[1] = {
        {.type = BRIDGE_FILEOPS_GLOB, .access = 7, .name = "*", .real_path = nowhere.c_str()}};
    const bridge_fileops_entry folders[5] = {
        {.type = BRIDGE_FILEOPS_DIR, .name = "logs", .children = logs_rows, .child_count = 1},
        {.type = BRIDGE_FILEOPS_DIR, .name = "old", .children = old_rows, .child_count = 1},
        {.type = BRIDGE_FILEOPS_DIR, .name = "scripts", .children = scripts_rows, .child_count = 1},
        {.type = BRIDGE_FILEOPS_DIR, .name = "gone", .children = gone_rows, .child_count = 1},
        {.type = BRIDGE_FILEOPS_FILE, .access = 7, .name = "bare"},
    };
    /* clang-format on */
    const bridge_fileops_entry root = {
        .type = BRIDGE_FILEOPS_DIR, .name = "/", .children = folders, .child_count = 5};
};

/* ---- start ---- */

TEST_F(FileopsJobs, AStreamAnswersForTheFileThatItWasAskedFor)
{
    const pid_t pid = stream("logs/a.log");
    ASSERT_GT(pid, 0);
    EXPECT_EQ(status_of(pid), 0);
    EXPECT_TRUE(log.has("INFO 0 descriptors of the daemon's"));
    EXPECT_TRUE(
        log.has(join({"INFO upload ", logs, "/a.log as logs/a.log to http://server.example/: 5, 7; stamp"})));
    EXPECT_THAT(answers(), ElementsAre(answer("17", R"(logs\/a.log)", "xferId", pid, "ok")));
}

TEST_F(FileopsJobs, AFetchAnswersForTheFileThatItWasAskedFor)
{
    const pid_t pid = fetch("logs/new.log");
    ASSERT_GT(pid, 0);
    EXPECT_EQ(status_of(pid), 0);
    EXPECT_TRUE(log.has(join({"INFO download http://server.example/f to ", logs, "/new.log"})));
    EXPECT_THAT(answers(), ElementsAre(answer("18", R"(logs\/new.log)", "xferId", pid, "ok")));
}

TEST_F(FileopsJobs, ATransferThatFailsIsAnsweredWithItsError)
{
    transfer_result = -EIO;
    const pid_t first = stream("logs/a.log");
    EXPECT_EQ(status_of(first), 0);
    const pid_t second = fetch("logs/a.log");
    EXPECT_EQ(status_of(second), 0);
    EXPECT_THAT(answers(),
                ElementsAre(answer("17", R"(logs\/a.log)", "xferId", first, "Input\\/output error"),
                            answer("18", R"(logs\/a.log)", "xferId", second, "Input\\/output error")));
}

TEST_F(FileopsJobs, WhatTheTreeDoesNotGiveStartsNoChild)
{
    struct refusal {
        const char *path;
        int result;
        const char *line;
    };
    static constexpr refusal STREAMS[] = {
        {"logs/a.txt", -ENOENT, "ERROR failed to get file entry for: logs/a.txt"},
        {"logs", -ENOENT, "ERROR failed to get file entry for: logs"},
        {"bare", -EINVAL, "ERROR path processing failed"},
    };
    for (const refusal &row : STREAMS) {
        const log_view view = log.from_here();
        EXPECT_EQ(stream(row.path), row.result) << row.path;
        EXPECT_THAT(view.complaints(), ElementsAre(row.line));
    }
    static constexpr refusal FETCHES[] = {
        {"nothing/a", -ENOENT, "ERROR failed to get file entry for: nothing/a"},
        {"old/a.txt", -EACCES, "ERROR insufficient permissions to write a file: old/a.txt"},
    };
    for (const refusal &row : FETCHES) {
        const log_view view = log.from_here();
        EXPECT_EQ(fetch(row.path), row.result) << row.path;
        EXPECT_THAT(view.complaints(), ElementsAre(row.line));
    }
    const log_view view = log.from_here();
    EXPECT_EQ(execute("logs/a.log"), -EACCES);
    EXPECT_THAT(view.complaints(),
                ElementsAre("ERROR insufficient permissions to execute a file: logs/a.log"));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "there is a child";
}

TEST_F(FileopsJobs, AFileThatMayOnlyBeWrittenIsNotStreamed)
{
    const bridge_fileops_entry key = {
        .type = BRIDGE_FILEOPS_FILE, .access = BRIDGE_FILEOPS_WRITE, .name = "key", .real_path = "/k"};
    const bridge_fileops_entry tree = {
        .type = BRIDGE_FILEOPS_DIR, .name = "/", .children = &key, .child_count = 1};
    EXPECT_EQ(bridge_fileops_stream_start(&tree, "key", "", 0, 1, "1"), -EACCES);
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR insufficient permissions to read a file: key"));
}

TEST_F(FileopsJobs, WithoutAChildTheErrorIsTheResult)
{
    let_fail("fork", EAGAIN);
    EXPECT_EQ(stream("logs/a.log"), -EAGAIN);
    EXPECT_EQ(fetch("logs/a.log"), -EAGAIN);
    EXPECT_EQ(execute("scripts/job.sh"), -EAGAIN);
    EXPECT_EQ(log.count("INFO failed to start slave process: Resource temporarily unavailable"), 3);
}

/* ---- answers that fail ---- */

TEST_F(FileopsJobs, AnAnswerThatCannotBeSentEndsTheChildWithAFailure)
{
    static constexpr const char *PREPARED = "ERROR failed to prepare and send async response";
    pipe_result = -1;
    EXPECT_EQ(WEXITSTATUS(status_of(stream("logs/a.log"))), 1);
    EXPECT_THAT(log.complaints(), ElementsAre(PREPARED));

    static constexpr const char *LINES[] = {"ERROR failed to allocate async response",
                                            "ERROR failed to allocate async inner response"};
    pipe_result = 0;
    for (int calls = 0; calls < 2; calls++) {
        const log_view view = log.from_here();
        let_fail("json_object_new_object", 0, calls);
        EXPECT_EQ(WEXITSTATUS(status_of(stream("logs/a.log"))), 1);
        EXPECT_THAT(view.complaints(), ElementsAre(LINES[calls], PREPARED));
    }
    EXPECT_EQ(answers().size(), 1U) << "the one that the pipe refused";
}

/* ---- scripts ---- */

TEST_F(FileopsJobs, AScriptIsMadeExecutableAndItsOutputIsItsLog)
{
    EXPECT_EQ(status_of_script("#!/bin/sh\necho told\necho complained >&2\n"), "ok");
    struct stat status = {};
    ASSERT_EQ(stat((scripts + "/job.sh").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0755U);
    EXPECT_EQ(content_of(log_of_script()), "told\ncomplained\n");
    EXPECT_THAT(log_of_script().filename().string(), testing::MatchesRegex("[0-9]+-job.sh.txt"));
}

TEST_F(FileopsJobs, TheEndOfAScriptIsAnsweredAsTheTextOfAnError)
{
    static constexpr struct {
        const char *content;
        const char *status;
    } rows[] = {
        {"#!/bin/sh\nexit 1\n", "Operation not permitted"},
        {"#!/bin/sh\nexit 3\n", "No such process"},
        {"#!/bin/sh\nkill -9 $$\n", "Unknown error -9"},
        {"\x7f"
         "ELF of nobody",
         "Key has expired"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(status_of_script(row.content), row.status);
}

TEST_F(FileopsJobs, WhyAScriptDidNotRunStandsInItsLog)
{
    status_of_script("\x7f"
                     "ELF of nobody");
    EXPECT_THAT(content_of(log_of_script()), HasSubstr("execute: exec() failed: Exec format error"));
}

TEST_F(FileopsJobs, AScriptWhosePermissionsStayIsTriedAllTheSame)
{
    real.make_file("scripts/job.sh", "#!/bin/sh\nexit 0\n");
    std::filesystem::permissions(scripts + "/job.sh", std::filesystem::perms::owner_all);
    let_fail("chmod", EROFS);
    EXPECT_EQ(status_of(execute("scripts/job.sh")), 0);
    EXPECT_THAT(log.complaints(), ElementsAre(join({"ERROR unable to set permissions for ", scripts,
                                                    "/job.sh: Read-only file system"})));
    EXPECT_THAT(answers(), Contains(HasSubstr(R"("status":"ok")")));
}

TEST_F(FileopsJobs, WhatCannotBeRunIsAnsweredWithWhy)
{
    real.make_file("scripts/job.sh", "#!/bin/sh\nexit 0\n");
    std::filesystem::create_symlink("/bin/true", scripts + "/link");
    std::filesystem::create_directory(old + "/folder");
    struct row {
        const char *path;
        const char *logdir;
        const char *status;
        std::string line;
    };
    const row rows[] = {
        {"scripts/link", "old", "Too many levels of symbolic links",
         join({"ERROR ", scripts, "/link is a link"})},
        {"scripts/job.sh", "missing", "No such file or directory", "ERROR failed to get file entry for: "},
        {"scripts/job.sh", "gone", "No such file or directory",
         join({"ERROR failed open log file ", nowhere, "/"})},
    };
    for (const row &each : rows) {
        const log_view view = log.from_here();
        EXPECT_EQ(status_of(execute(each.path, each.logdir)), 0);
        EXPECT_THAT(view.complaints(), ElementsAre(testing::StartsWith(each.line)));
        EXPECT_THAT(answers().back(), HasSubstr(join({R"("status":")", each.status, R"("}})"})));
    }
}

TEST_F(FileopsJobs, AScriptThatCannotBeForkedIsAnsweredWithWhy)
{
    real.make_file("scripts/job.sh");
    let_fail("fork", ENOMEM, 1);
    EXPECT_EQ(status_of(execute("scripts/job.sh")), 0);
    EXPECT_TRUE(log.has("INFO failed to start script process: Cannot allocate memory"));
    EXPECT_THAT(answers(), ElementsAre(HasSubstr(R"("status":"Cannot allocate memory")")));
}

TEST_F(FileopsJobs, AScriptWhoseLogNeedsTooLongANameEndsWithoutAnAnswer)
{
    const std::string path = join({"scripts/", std::string(250, 'x')});
    const int status = status_of(execute(path.c_str()));
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR failed to prepare log file name"));
    EXPECT_THAT(answers(), IsEmpty());
}

/* ---- questions ---- */

struct job_kind {
    int (*running)(const bridge_fileops_entry *root, pid_t pid, bool *running);
    int (*stop)(const bridge_fileops_entry *root, pid_t pid);
    const char *word;
    const char *over;
};

static constexpr job_kind KINDS[] = {
    {bridge_fileops_stream_running, bridge_fileops_stream_stop, "stream", "file streaming"},
    {bridge_fileops_fetch_running, bridge_fileops_fetch_stop, "fetch", "file fetching"},
    {bridge_fileops_execute_running, bridge_fileops_execute_stop, "execution", "file execution"},
};

TEST_F(FileopsJobs, AJobIsAskedUntilItsEndIsFoundOnce)
{
    for (const job_kind &kind : KINDS) {
        const log_view view = log.from_here();
        const pid_t pid = start_helper();
        bool running = false;
        EXPECT_EQ(kind.running(&root, pid, &running), 0);
        EXPECT_TRUE(running);
        __real_kill(pid, SIGKILL);
        wait_for_end(pid);
        EXPECT_EQ(kind.running(&root, pid, &running), 0);
        EXPECT_FALSE(running);
        EXPECT_EQ(kind.running(&root, pid, &running), -ECHILD);
        helper = 0;
        EXPECT_THAT(view.complaints(),
                    ElementsAre(join({"WARN process [", std::to_string(pid), "] was ended by signal 9"}),
                                join({"ERROR failed to query ", kind.word, " process [", std::to_string(pid),
                                      "] status: No child processes"})));
    }
}

TEST_F(FileopsJobs, AStopEndsTheJobAndCollectsItWithinItsWait)
{
    for (const job_kind &kind : KINDS) {
        const pid_t pid = start_helper();
        wait_of_stop = [pid](uint32_t seconds) {
            EXPECT_EQ(seconds, 3U);
            wait_for_end(pid);
        };
        EXPECT_EQ(kind.stop(&root, pid), 0);
        EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1) << "it is collected";
        helper = 0;
    }
}

TEST_F(FileopsJobs, AStopOfAJobThatIsOverCollectsItAndWaitsForNothing)
{
    for (const job_kind &kind : KINDS) {
        const log_view view = log.from_here();
        const pid_t pid = start_helper();
        __real_kill(pid, SIGKILL);
        wait_for_end(pid);
        EXPECT_EQ(kind.stop(&root, pid), 0);
        EXPECT_TRUE(view.has(join({"DEBUG ", kind.over, " is not running anymore"})));
        EXPECT_EQ(kind.stop(&root, pid), -ECHILD) << "nobody's child any more";
        helper = 0;
    }
}

TEST_F(FileopsJobs, AJobThatTakesNoSignalIsTold)
{
    const pid_t pid = start_helper();
    let_fail("kill", EPERM);
    EXPECT_EQ(bridge_fileops_stream_stop(&root, pid), -EPERM);
    EXPECT_THAT(log.complaints(), ElementsAre(join({"ERROR termination of process [", std::to_string(pid),
                                                    "] fails: Operation not permitted"})));
}
