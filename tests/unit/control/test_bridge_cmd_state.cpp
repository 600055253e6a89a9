/* The state files: their form, what is read of bad ones, and their lock. */
#include "converter/control/bridge_cmd_state.h"

#include "common/captured_stderr.h"
#include "control/control_neighbours.h"
#include "control/fixed_paths.h"

#include <climits>
#include <cstring>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

FAILING_CALL(FILE *, fopen64, (const char *path, const char *mode), (path, mode), nullptr)
FAILING_CALL(int, fileno, (FILE * file), (file), -1)

/* Runs when a lock would have to be waited for. */
static std::function<void()> when_locked_out;

extern "C" {
int __real_lockf64(int fd, int command, off_t size);
int __wrap_lockf64(int fd, int command, off_t size)
{
    if (fails(command == F_ULOCK ? "unlock" : "lock"))
        return -1;
    if (command == F_LOCK && when_locked_out && __real_lockf64(fd, F_TEST, size) < 0)
        when_locked_out();
    return __real_lockf64(fd, command, size);
}
}

class CmdState : public ControlTest
{
  protected:
    CmdState()
    {
        when_locked_out = nullptr;
        use_folder(root.path);
    }

    void use_folder(const std::filesystem::path &path)
    {
        folder = path;
        strcpy(configuration.generic.state_dir, path.c_str());
        fixed_paths::move_below(root.path);
    }

    std::filesystem::path file(bridge_cmd_state_index idx) const
    {
        return folder / (idx == IDX_SW_STATUS ? "last_sw_status" : "last_wm_fw_status");
    }

    std::string content(bridge_cmd_state_index idx = IDX_SW_STATUS) const
    {
        std::ifstream stream(file(idx), std::ios::binary);
        EXPECT_TRUE(stream.is_open());
        return {std::istreambuf_iterator<char>(stream), {}};
    }

    void put(const std::string &text, bridge_cmd_state_index idx = IDX_SW_STATUS) const
    {
        std::ofstream(file(idx), std::ios::binary) << text;
    }

    std::vector<std::string> complaints()
    {
        const std::vector<std::string> found = view.complaints();
        view = log.from_here();
        return found;
    }

    temporary_root root;
    std::filesystem::path folder;
    log_view view = log.from_here();
};

class CmdStateDeath : public CmdState
{
};

/* ---- writing ---- */

TEST_F(CmdState, AStatusIsTwoLinesToTheByte)
{
    static constexpr struct {
        bridge_cmd_state_index idx;
        int32_t status;
        const char *hint;
        int64_t request;
        const char *content;
    } rows[] = {
        {IDX_SW_STATUS, 3, "localupgrade", 17, "3:localupgrade\n17:req\n"},
        {IDX_SW_STATUS, 0, "none", 0, "0:none\n0:req\n"},
        {IDX_SW_STATUS, INT32_MIN, "", INT64_MIN, "-2147483648:\n-9223372036854775808:req\n"},
        {IDX_WM_FW_STATUS, INT32_MAX, "a hint", INT64_MAX, "2147483647:a hint\n9223372036854775807:req\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.content);
        const log_view told = log.from_here();
        EXPECT_EQ(bridge_cmd_state_write(row.idx, row.status, row.hint, row.request), 0);
        EXPECT_EQ(content(row.idx), row.content);
        EXPECT_THAT(told.lines(),
                    ElementsAre(join({"DEBUG serializing status: ", std::to_string(row.status),
                                      " into file idx: ", std::to_string(row.idx), " with hint: ", row.hint,
                                      ", req: ", std::to_string(row.request)})));
    }
}

TEST_F(CmdState, AShorterStatusLeavesNothingOfALongerOne)
{
    EXPECT_EQ(bridge_cmd_state_write(IDX_SW_STATUS, 3, "localupgrade", 1234567890), 0);
    EXPECT_EQ(bridge_cmd_state_write(IDX_SW_STATUS, 0, "none", 0), 0);
    EXPECT_EQ(content(), "0:none\n0:req\n");
}

TEST_F(CmdState, HintsComeFromTheStatus)
{
    static constexpr const char *SOFTWARE[] = {"0:none\n5:req\n", "1:install\n5:req\n", "2:upgrade\n5:req\n",
                                               "3:localupgrade\n5:req\n"};
    for (int32_t status = 0; status < 4; status++) {
        EXPECT_EQ(bridge_cmd_sw_status_write(status, 5), 0);
        EXPECT_EQ(content(IDX_SW_STATUS), SOFTWARE[status]);
    }
    static constexpr const char *MODEM[] = {"", "1:in-progress\n0:req\n", "2:ok\n0:req\n",
                                            "3:failure\n0:req\n"};
    for (int32_t status = 1; status < 4; status++) {
        EXPECT_EQ(bridge_cmd_wm_status_write(status), 0);
        EXPECT_EQ(content(IDX_WM_FW_STATUS), MODEM[status]);
    }
}

TEST_F(CmdState, AModemStatusWithoutAHintIsNotWritten)
{
    put("2:ok\n0:req\n", IDX_WM_FW_STATUS);
    for (const int32_t status : {0, -1, 4, INT32_MIN, INT32_MAX})
        EXPECT_EQ(bridge_cmd_wm_status_write(status), -1) << status;
    EXPECT_EQ(content(IDX_WM_FW_STATUS), "2:ok\n0:req\n");
}

TEST_F(CmdStateDeath, ASoftwareStatusWithoutAHintIsAsserted)
{
    for (const int32_t status : {4, INT32_MAX, -1, INT32_MIN})
        EXPECT_EXIT(
            {
                dup2(STDERR_FILENO, STDOUT_FILENO);
                bridge_cmd_sw_status_write(status, 0);
            },
            testing::KilledBySignal(SIGABRT), HasSubstr("Assertion failed: ( status "));
}

/* ---- reading ---- */

TEST_F(CmdState, WhatIsWrittenIsRead)
{
    for (const int64_t request : {int64_t{0}, int64_t{17}, INT64_MAX, INT64_MIN}) {
        ASSERT_EQ(bridge_cmd_sw_status_write(2, request), 0);
        int32_t status = -1;
        int64_t req_id = -1;
        EXPECT_EQ(bridge_cmd_state_read(IDX_SW_STATUS, &status, &req_id), 0);
        EXPECT_EQ(status, 2);
        EXPECT_EQ(req_id, request);
    }
}

TEST_F(CmdState, OnlyTheNumbersOfAFileCount)
{
    const struct {
        std::string content;
        int result;
        int32_t status;
        int64_t request;
    } rows[] = {
        {"3:localupgrade\n17:req\n", 0, 3, 17},
        {"3:anything\n17:else\n", 0, 3, 17},
        {"3:localupgrade\n", 0, 3, 0},
        {"3:localupgrade", 0, 3, 0},
        {"3", 0, 3, 0},
        {"3:\n17:req\n", 0, 3, 0}, /* the hint is what follows, whatever the line */
        {"  3:x\n\n\n  17", 0, 3, 17},
        {"3:localupgrade\r\n17:req\r\n", 0, 3, 17},
        {"-7:x\n-8:y\n", 0, -7, -8},
        {"3:x\nreq\n", 0, 3, 0},
        {"", -2, -1, -1},
        {"\n \n", -2, -1, -1},
        {"localupgrade", -2, -1, -1},
        {":3\n17:req\n", -2, -1, -1},
        {"x3:none\n", -2, -1, -1},
        {std::string("\0\0\0", 3), -2, -1, -1},
        {std::string(100000, '\xff'), -2, -1, -1},
        {"1:" + std::string(100000, 'h') + "\n9:req\n", 0, 1, 9},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.content.substr(0, 40));
        put(row.content);
        const log_view told = log.from_here();
        int32_t status = -1;
        int64_t req_id = -1;
        EXPECT_EQ(bridge_cmd_state_read(IDX_SW_STATUS, &status, &req_id), row.result);
        EXPECT_EQ(status, row.status);
        EXPECT_EQ(req_id, row.request);
        EXPECT_EQ(content(), row.content) << "reading changes nothing";
        EXPECT_THAT(told.lines(), ElementsAre("DEBUG de-serializing status from file idx: 0"));
    }
}

TEST_F(CmdState, AModemFileWithoutAStatusReadsAs0)
{
    static constexpr struct {
        const char *content;
        int32_t status;
    } rows[] = {{"", 0}, {"garbage", 0}, {"1:in-progress\n0:req\n", 1}, {"3:failure\n", 3}};
    for (const auto &row : rows) {
        put(row.content, IDX_WM_FW_STATUS);
        int32_t status = -1;
        EXPECT_EQ(bridge_cmd_wm_status_read(&status), 0);
        EXPECT_EQ(status, row.status);
    }
    std::filesystem::remove(file(IDX_WM_FW_STATUS));
    int32_t status = -1;
    EXPECT_EQ(bridge_cmd_wm_status_read(&status), -1) << "an absent file is a failure";
    EXPECT_EQ(status, -1);
}

/* ---- failures ---- */

TEST_F(CmdState, AFileThatIsNotThereIsWrittenButNotRead)
{
    int32_t status = -1;
    int64_t req_id = -1;
    EXPECT_EQ(bridge_cmd_state_read(IDX_SW_STATUS, &status, &req_id), -1);
    EXPECT_THAT(complaints(), ElementsAre("ERROR failed to open a state file"));
    EXPECT_EQ(bridge_cmd_sw_status_write(1, 0), 0);
    EXPECT_EQ(content(), "1:install\n0:req\n");

    use_folder(root.path / "nowhere");
    EXPECT_EQ(bridge_cmd_sw_status_write(1, 0), -1);
    EXPECT_THAT(complaints(), ElementsAre("ERROR failed to open a state file"));
}

TEST_F(CmdState, EachFailingStepHasItsLine)
{
    static constexpr struct {
        const char *call;
        int error;
        const char *line;
    } rows[] = {
        {"fopen64", EACCES, "ERROR failed to open a state file"},
        {"fileno", EBADF, "ERROR failed to get file descriptor: Bad file descriptor"},
        {"lock", EDEADLK, "ERROR failed to get a lock: Resource deadlock avoided"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.call);
        put("2:upgrade\n9:req\n");
        int32_t status = -1;
        int64_t req_id = -1;
        let_fail(row.call, row.error);
        EXPECT_EQ(bridge_cmd_state_read(IDX_SW_STATUS, &status, &req_id), -1);
        EXPECT_THAT(complaints(), ElementsAre(row.line));
        EXPECT_EQ(bridge_cmd_sw_status_write(1, 0), -1);
        EXPECT_THAT(complaints(), ElementsAre(row.line));
        let_all_pass();
        EXPECT_EQ(status, -1);
        EXPECT_EQ(req_id, -1);
    }
}

TEST_F(CmdState, AFullDiskIsTold)
{
    std::filesystem::create_symlink("/dev/full", file(IDX_SW_STATUS));
    EXPECT_EQ(bridge_cmd_sw_status_write(1, 0), -1);
    EXPECT_THAT(complaints(), ElementsAre("ERROR failed to serialize a status"));
}

TEST_F(CmdState, AnUnlockThatFailsIsNoFailure)
{
    let_fail("unlock", ENOLCK);
    EXPECT_EQ(bridge_cmd_sw_status_write(1, 0), 0);
    let_all_pass();
    EXPECT_EQ(content(), "1:install\n0:req\n");
}

/* ---- creating ---- */

TEST_F(CmdState, MissingFilesAreMadeEmptyAndOthersKept)
{
    use_folder(root.path / "state");
    EXPECT_EQ(bridge_cmd_state_create(), 0);
    EXPECT_THAT(fixed_paths::made(), ElementsAre(join({"mkdir 755 ", folder.c_str()})));
    EXPECT_EQ(content(IDX_SW_STATUS), "");
    EXPECT_EQ(content(IDX_WM_FW_STATUS), "");
    put("1:install\n5:req\n");
    std::filesystem::remove(file(IDX_WM_FW_STATUS));
    EXPECT_EQ(bridge_cmd_state_create(), 0);
    EXPECT_EQ(content(IDX_SW_STATUS), "1:install\n5:req\n");
    EXPECT_EQ(content(IDX_WM_FW_STATUS), "");
    EXPECT_THAT(complaints(), IsEmpty());
}

TEST_F(CmdState, AFolderThatCannotBeUsedIsTold)
{
    std::ofstream(root.path / "file") << "";
    use_folder(root.path / "file");
    EXPECT_EQ(bridge_cmd_state_create(), -1);
    EXPECT_THAT(complaints(), ElementsAre(join({"ERROR path for keeping bridge files ", folder.c_str(),
                                                " exists, but it isn't a directory"})));
    for (const char *path : {"file/below", "no/parent"}) {
        use_folder(root.path / path);
        EXPECT_EQ(bridge_cmd_state_create(), -1);
        EXPECT_THAT(complaints(),
                    ElementsAre(join({"ERROR failed to create ", folder.c_str(), " directory"})));
    }
}

TEST_F(CmdState, AFileThatCannotBeUsedIsTold)
{
    for (const bridge_cmd_state_index idx : {IDX_SW_STATUS, IDX_WM_FW_STATUS}) {
        const std::string path = file(idx);
        std::filesystem::create_symlink("/no/such/place", path);
        EXPECT_EQ(bridge_cmd_state_create(), -1);
        EXPECT_THAT(complaints(), ElementsAre(join({"ERROR failed to create a state file: ", path})));
        std::filesystem::remove(path);
        for (const bool is_fifo : {true, false}) {
            ASSERT_EQ(is_fifo ? mkfifo(path.c_str(), 0600) : mkdir(path.c_str(), 0700), 0);
            EXPECT_EQ(bridge_cmd_state_create(), -1);
            EXPECT_THAT(complaints(), ElementsAre(join({"ERROR state path ", path,
                                                        " exists, but it isn't a regular file"})));
            std::filesystem::remove(path);
        }
    }
}

TEST_F(CmdState, APathThatDoesNotFitIsTold)
{
    std::string path = root.path.string() + "/";
    while (path.size() + std::size("/last_sw_status") <= 4096)
        path.append(".");
    strcpy(configuration.generic.state_dir, path.c_str());
    EXPECT_EQ(bridge_cmd_sw_status_write(1, 0), -1);
    EXPECT_THAT(complaints(), ElementsAre("ERROR failed to form a path for state file: last_sw_status"));
    int32_t status = -1;
    EXPECT_EQ(bridge_cmd_wm_status_read(&status), -1);
    EXPECT_THAT(complaints(), ElementsAre("ERROR failed to form a path for state file: last_wm_fw_status"));

    path = root.path.string();
    while (path.size() + std::size("/last_sw_status") < 4096)
        path.append("/");
    strcpy(configuration.generic.state_dir, path.c_str());
    EXPECT_EQ(bridge_cmd_sw_status_write(1, 0), 0) << "4095 characters fit";
    EXPECT_EQ(content(), "1:install\n0:req\n");
}

/* ---- the lock ---- */

/* A process that holds the lock of a file from its construction on. */
class locking_child
{
  public:
    explicit locking_child(const std::string &path)
    {
        EXPECT_EQ(pipe(ready_), 0);
        EXPECT_EQ(pipe(go_), 0);
        child_ = fork();
        if (child_ == 0)
            hold(path);
        char byte = 0;
        EXPECT_EQ(read(ready_[0], &byte, 1), 1);
    }
    ~locking_child()
    {
        let_go();
        int status = -1;
        EXPECT_EQ(waitpid(child_, &status, 0), child_);
        EXPECT_EQ(status, 0);
        for (const int fd : {ready_[0], ready_[1], go_[0], go_[1]})
            close(fd);
    }
    locking_child(const locking_child &) = delete;
    locking_child &operator=(const locking_child &) = delete;

    void let_go()
    {
        EXPECT_EQ(write(go_[1], "g", 1), 1);
    }

  private:
    [[noreturn]] void hold(const std::string &path)
    {
        alarm(30); /* a parent that fails leaves nothing behind */
        const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
        char byte = 0;
        const bool held = fd >= 0 && __real_lockf64(fd, F_LOCK, 0) == 0 && write(ready_[1], "r", 1) == 1 &&
                          read(go_[0], &byte, 1) == 1;
        _exit(held ? 0 : 1);
    }

    int ready_[2] = {};
    int go_[2] = {};
    pid_t child_ = -1;
};

TEST_F(CmdState, AReaderWaitsForALockThatAChildHolds)
{
    put("2:upgrade\n9:req\n");
    locking_child child(file(IDX_SW_STATUS));
    int waited = 0;
    when_locked_out = [&] {
        waited++;
        child.let_go();
    };
    int32_t status = -1;
    int64_t req_id = -1;
    EXPECT_EQ(bridge_cmd_state_read(IDX_SW_STATUS, &status, &req_id), 0);
    EXPECT_EQ(waited, 1);
    EXPECT_EQ(status, 2);
    EXPECT_EQ(req_id, 9);
}

TEST_F(CmdState, AWriterEmptiesTheFileBeforeItWaitsForTheLock)
{
    put("2:upgrade\n9:req\n");
    locking_child child(file(IDX_SW_STATUS));
    std::string seen = "not waited";
    when_locked_out = [&] {
        seen = std::to_string(std::filesystem::file_size(file(IDX_SW_STATUS)));
        child.let_go();
    };
    EXPECT_EQ(bridge_cmd_sw_status_write(1, 4), 0);
    EXPECT_EQ(seen, "0");
    EXPECT_EQ(content(), "1:install\n4:req\n");
}

TEST_F(CmdState, TheLockOfOneFileIsNotTheOthers)
{
    put("2:upgrade\n9:req\n");
    const locking_child child(file(IDX_SW_STATUS));
    when_locked_out = [] { ADD_FAILURE() << "waited"; };
    EXPECT_EQ(bridge_cmd_wm_status_write(2), 0);
}
