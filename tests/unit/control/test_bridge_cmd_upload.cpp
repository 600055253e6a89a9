/* Uploads below a root of the test's, with programs that are only noted. */
#include "converter/control/bridge_cmd_upload.h"

#include "common/bridge_json_helpers.h"
#include "control/control_neighbours.h"
#include "control/fixed_paths.h"

#include <cstdint>
#include <fstream>
#include <sys/stat.h>

using testing::ElementsAre;
using testing::IsEmpty;

using strings = std::vector<std::string>;

FAILING_CALL(void *, malloc, (size_t size), (size), nullptr)
FAILING_CALL(size_t, fwrite, (const void *bytes, size_t size, size_t count, FILE *file),
             (bytes, size, count, file), 0)
FAILING_CALL(int, unlink, (const char *path), (fixed_paths::below(path).c_str()), -1)
FAILING_CALL(int, chmod, (const char *path, mode_t mode), (fixed_paths::below(path).c_str(), mode), -1)

/* The programs as one line each; the one that begins so fails. */
static strings programs;
static std::string failing_program;

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes the name
extern "C" int __wrap__Z11system_safePKPc(char *const argv[])
{
    std::string line = argv[0];
    for (size_t i = 1; argv[i] != nullptr; i++)
        line += join({" ", argv[i]});
    programs.push_back(line);
    const bool fails = !failing_program.empty() && line.starts_with(failing_program);
    if (!fails && line.starts_with("/bin/mv "))
        std::filesystem::rename(fixed_paths::below(argv[1]), fixed_paths::below(argv[2]));
    return fails ? -1 : 0;
}
// NOLINTEND(bugprone-reserved-identifier)

using handler = void (*)(converter_ctx *ctx, json_object *params, json_object **response);

class CmdUpload : public ControlTest
{
  protected:
    CmdUpload()
    {
        programs.clear();
        failing_program.clear();
        fixed_paths::move_below(root.path);
        for (const char *folder : {"dev/shm", "etc", "lib"})
            std::filesystem::create_directories(root.path / folder);
    }
    ~CmdUpload() override
    {
        let_all_pass();
        free(context.upload_chunk);
    }

    /* The response as text; "none" without one. */
    std::string call(handler function, const std::string &params)
    {
        const json_owned parsed(json_tokener_parse(params.c_str()));
        json_object *response = nullptr;
        function(ctx, parsed.get(), &response);
        const json_owned owned(response);
        return response != nullptr ? json_object_to_json_string_ext(response, JSON_C_TO_STRING_PLAIN)
                                   : "none";
    }
    std::string start(const std::string &name = "fw.tar", const char *chunk_length = "64")
    {
        return call(bridge_cmd_file_upload_start,
                    join({R"({"isModemFw":false,"name":")", name, R"(","size":10,"b64ChunkLength":)",
                          chunk_length, R"(,"b64TotalLength":16})"}));
    }
    std::string chunk(const std::string &data = "aGVsbG8g")
    {
        return call(bridge_cmd_file_upload_chunk, join({R"({"data":")", data, R"("})"}));
    }
    std::string stop(bool decompress = false)
    {
        return call(bridge_cmd_file_upload_stop,
                    decompress ? R"({"decompress":true})" : R"({"decompress":false})");
    }

    std::filesystem::path below(const std::string &path) const
    {
        return root.path / path.substr(1);
    }
    std::string content_of(const std::string &path) const
    {
        std::ifstream file(below(path), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    bool has(const std::string &path) const
    {
        return std::filesystem::exists(std::filesystem::symlink_status(below(path)));
    }

    static constexpr const char *OK = R"({"status":"ok"})";
    static constexpr const char *NO_TRANSACTION = R"({"status":"non-existing file transaction"})";
    temporary_root root;
};

/* ---- a whole upload ---- */

TEST_F(CmdUpload, ChunksAreAppendedAndAFileWithoutAPlaceStays)
{
    EXPECT_EQ(start(), OK);
    EXPECT_EQ(chunk("aGVsbG8g"), OK);
    EXPECT_EQ(chunk("d29ybGQ="), OK);
    EXPECT_EQ(stop(), OK);
    EXPECT_EQ(content_of("/dev/shm/fw.tar"), "hello world");
    EXPECT_THAT(programs, IsEmpty());
    EXPECT_EQ(chunk(), NO_TRANSACTION);
    EXPECT_EQ(stop(), NO_TRANSACTION);
}

TEST_F(CmdUpload, KnownNamesTheirBeginningsAndWhatGoesOnBehindThemHaveTheirPlaces)
{
    static constexpr struct {
        const char *name;
        const char *target;
        mode_t mode;
    } rows[] = {
        {"bstn-cups.key", "/etc/bstn/cups.key", 0600},
        {"b", "/etc/bstn/cups.key", 0600},
        {"bstn-cups.key.old", "/etc/bstn/cups.key", 0600},
        {"awsiot-tunnel.token", "/etc/awsiot/awsiot-tunnel.token", 0600},
        {"awsiot-tunnel.conf", "/etc/awsiot/awsiot-tunnel.conf", 0640},
        {"a", "/etc/awsiot/a", 0600},
    };
    for (const auto &row : rows) {
        programs.clear();
        EXPECT_EQ(start(row.name), OK);
        EXPECT_EQ(chunk(), OK);
        EXPECT_EQ(stop(), OK);
        EXPECT_THAT(programs, ElementsAre(join({"/bin/mv /dev/shm/", row.name, " ", row.target})));
        EXPECT_EQ(content_of(row.target), "hello ");
        struct stat status = {};
        ASSERT_EQ(stat(below(row.target).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777U, row.mode) << row.name;
    }
}

TEST_F(CmdUpload, AnArchiveReplacesTheFirmware)
{
    static constexpr struct {
        const char *name;
        const char *program;
    } rows[] = {
        {"fw.tar.gz", "/bin/tar xf /dev/shm/fw.tar.gz -C /lib/firmware/"},
        {"fw.ZIP", "/usr/bin/unzip -oq /dev/shm/fw.ZIP -d /lib/firmware/"},
        {"fw.zip.tar", "/bin/tar xf /dev/shm/fw.zip.tar -C /lib/firmware/"},
        {"a", "/bin/tar xf /dev/shm/a -C /lib/firmware/"},
    };
    for (const auto &row : rows) {
        programs.clear();
        EXPECT_EQ(start(row.name), OK);
        EXPECT_EQ(chunk(), OK);
        EXPECT_EQ(stop(true), OK);
        EXPECT_THAT(programs,
                    ElementsAre("/bin/rm -rf /lib/firmware/bsp", "/bin/rm -rf /lib/firmware/gpio-fpga",
                                "/bin/rm -rf /lib/firmware/fe-fpga", row.program));
        EXPECT_FALSE(has(join({"/dev/shm/", row.name})));
    }
}

/* ---- start ---- */

TEST_F(CmdUpload, AStartThatAsksForNothingSensibleOpensNothing)
{
    static constexpr struct {
        const char *params;
        const char *response;
        const char *line;
    } rows[] = {
        {R"({"isModemFw":false,"name":"a","size":1,"b64ChunkLength":1})", "none",
         "ERROR failed to de-serialize params"},
        {R"({"isModemFw":true,"name":"a","size":1,"b64ChunkLength":1,"b64TotalLength":1})",
         R"({"error":"not_supported"})", nullptr},
        {R"({"isModemFw":false,"name":"../a","size":1,"b64ChunkLength":1,"b64TotalLength":1})", "none",
         "ERROR invalid filename specified: ../a"},
        {R"({"isModemFw":false,"name":"a","size":0,"b64ChunkLength":1,"b64TotalLength":1})", "none",
         "ERROR invalid parameters received"},
        {R"({"isModemFw":false,"name":"a","size":1,"b64ChunkLength":-1,"b64TotalLength":1})", "none",
         "ERROR invalid parameters received"},
        {R"({"isModemFw":false,"name":"a","size":1,"b64ChunkLength":1,"b64TotalLength":0})", "none",
         "ERROR invalid parameters received"},
    };
    for (const auto &row : rows) {
        const log_view view = log.from_here();
        EXPECT_EQ(call(bridge_cmd_file_upload_start, row.params), row.response) << row.params;
        if (row.line != nullptr) {
            EXPECT_TRUE(view.has(row.line)) << row.params;
        }
        EXPECT_EQ(context.upload_chunk, nullptr);
    }
    EXPECT_TRUE(log.has("INFO upload modem firmware is not (yet) supported"));
}

TEST_F(CmdUpload, AChunkLengthBeyondAllMemoryIsRefused)
{
    static constexpr const char *NO_MEMORY = R"({"status":"no memory for file transfer"})";
    EXPECT_EQ(start("fw.tar", "9223372036854775807"), NO_MEMORY);
    EXPECT_EQ(chunk(), NO_TRANSACTION);
    let_fail("malloc", ENOMEM);
    EXPECT_EQ(start(), NO_MEMORY);
    let_all_pass();
    EXPECT_EQ(chunk(), NO_TRANSACTION);
}

TEST_F(CmdUpload, AStartEmptiesTheFileAndGivesUpTheUploadThatWasOpen)
{
    std::ofstream(below("/dev/shm/new")) << "old content";
    EXPECT_EQ(start("first"), OK);
    EXPECT_EQ(chunk(), OK);
    EXPECT_TRUE(has("/dev/shm/first"));
    EXPECT_EQ(start("new"), OK);
    EXPECT_FALSE(has("/dev/shm/first"));
    EXPECT_EQ(content_of("/dev/shm/new"), "");
    EXPECT_EQ(chunk(), OK);
    EXPECT_EQ(content_of("/dev/shm/new"), "hello ");
}

TEST_F(CmdUpload, NothingIsWrittenThroughALinkThatLiesWhereTheFileShould)
{
    std::ofstream(below("/etc/victim")) << "untouched";
    std::filesystem::create_symlink(below("/etc/victim"), below("/dev/shm/fw.tar"));
    EXPECT_EQ(start(), "none");
    EXPECT_THAT(log.complaints(),
                ElementsAre("ERROR failed to truncate a file: Too many levels of symbolic links"));
    std::filesystem::remove(below("/dev/shm/fw.tar"));
    EXPECT_EQ(start(), OK);
    std::filesystem::create_symlink(below("/etc/victim"), below("/dev/shm/fw.tar"));
    EXPECT_EQ(chunk(), R"({"status":"failed to create a file"})");
    EXPECT_EQ(content_of("/etc/victim"), "untouched");
}

/* ---- chunk ---- */

TEST_F(CmdUpload, AChunkThatCannotBeReadLeavesTheUploadOpen)
{
    EXPECT_EQ(start("fw.tar", "8"), OK);
    EXPECT_EQ(chunk("aGVsbG8gd29ybGQ="), "none") << "too long";
    EXPECT_EQ(call(bridge_cmd_file_upload_chunk, "{}"), "none");
    EXPECT_EQ(log.count("ERROR failed to de-serialize params"), 2);
    EXPECT_EQ(chunk("aGVsbG8g"), OK);
    EXPECT_EQ(content_of("/dev/shm/fw.tar"), "hello ");
}

TEST_F(CmdUpload, AChunkThatCannotBeKeptEndsTheUpload)
{
    struct row {
        const char *failing;
        const char *data;
        const char *text;
    };
    static constexpr row ROWS[] = {
        {"", "", "failed to write to a file"},
        {"", "!not base64!", "failed to write to a file"},
        {"malloc", "aGVsbG8g", "failed to allocate memory to decode payload"},
        {"open", "aGVsbG8g", "failed to create a file"},
        {"fwrite", "aGVsbG8g", "failed to write to a file"},
    };
    for (const row &each : ROWS) {
        EXPECT_EQ(start(), OK);
        EXPECT_EQ(chunk(), OK);
        const log_view view = log.from_here();
        let_fail(each.failing, EIO);
        EXPECT_EQ(chunk(each.data), join({R"({"status":")", each.text, R"("})"}));
        let_all_pass();
        EXPECT_THAT(view.complaints(), ElementsAre(join({"ERROR ", each.text})));
        EXPECT_FALSE(has("/dev/shm/fw.tar")) << "a file with a hole in it is of no use";
        EXPECT_EQ(chunk(), NO_TRANSACTION);
    }
}

/* ---- stop ---- */

TEST_F(CmdUpload, AStopThatCannotBeReadLeavesTheUploadOpen)
{
    EXPECT_EQ(start(), OK);
    EXPECT_EQ(call(bridge_cmd_file_upload_stop, "{}"), "none");
    EXPECT_THAT(log.complaints(),
                ElementsAre("WARN unable to retrieve field", "ERROR failed to de-serialize params"));
    EXPECT_EQ(stop(), OK);
}

TEST_F(CmdUpload, AFileThatDoesNotReachItsPlaceIsRemoved)
{
    EXPECT_EQ(start("bstn-cups.key"), OK);
    EXPECT_EQ(chunk(), OK);
    failing_program = "/bin/mv";
    EXPECT_EQ(stop(), R"({"status":"failed to move a file"})");
    EXPECT_FALSE(has("/dev/shm/bstn-cups.key"));
    EXPECT_THAT(log.complaints(),
                ElementsAre("ERROR failed to move /dev/shm/bstn-cups.key to /etc/bstn/cups.key"));

    failing_program.clear();
    EXPECT_EQ(start("bstn-cups.key"), OK);
    EXPECT_EQ(chunk(), OK);
    let_fail("chmod", EPERM);
    EXPECT_EQ(stop(), R"({"status":"failed to set the file permission"})");
    EXPECT_FALSE(has("/etc/bstn/cups.key")) << "a key that others may read";
    EXPECT_EQ(chunk(), NO_TRANSACTION);
}

TEST_F(CmdUpload, AnArchiveThatFailsEndsTheUploadWithTheReason)
{
    static constexpr struct {
        const char *failing;
        const char *text;
        size_t programs;
    } rows[] = {
        {"/bin/rm -rf /lib/firmware/bsp", "failed to clean target directory", 3},
        {"/bin/tar", "failed to un-compress a file", 4},
    };
    for (const auto &row : rows) {
        programs.clear();
        EXPECT_EQ(start(), OK);
        EXPECT_EQ(chunk(), OK);
        failing_program = row.failing;
        EXPECT_EQ(stop(true), join({R"({"status":")", row.text, R"("})"}));
        EXPECT_EQ(programs.size(), row.programs) << "all of the old content goes";
        EXPECT_TRUE(has("/dev/shm/fw.tar"));
        EXPECT_EQ(chunk(), NO_TRANSACTION);
    }
    failing_program.clear();
    EXPECT_EQ(start(), OK);
    EXPECT_EQ(chunk(), OK);
    let_fail("unlink", EROFS);
    EXPECT_EQ(stop(true), R"({"status":"failed to remove an original file"})");
}
