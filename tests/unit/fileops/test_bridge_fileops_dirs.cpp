/* Whole directories through a tree: cleaning, listing, and sets of links. */
#include "common/bridge_fileops.h"

#include "fileops/fileops_case.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using strings = std::vector<std::string>;

/* ---- clean ---- */

TEST_F(Fileops, CleanEmptiesTheDirectorysRows)
{
    for (const char *name : {"log/a.log", "log/b.log", "log/c.bin", "old/d.gz", "old/e.txt", "old/f.log"})
        real.make_file(name);
    std::filesystem::create_directory(real.below("log/dir.log"));
    EXPECT_EQ(run([&] { return bridge_fileops_clean(root, "logs"); }), 0);
    for (const char *name : {"log/a.log", "log/b.log", "old/d.gz", "old/e.txt"})
        EXPECT_FALSE(real.has(name)) << name;
    for (const char *name : {"log/c.bin", "old/f.log", "log/dir.log"})
        EXPECT_TRUE(real.has(name)) << name;
    EXPECT_THAT(logged, IsEmpty());
}

TEST_F(Fileops, CleanLeavesDirectoriesOfTheTreeAlone)
{
    real.make_file("fw/a");
    real.make_file("fw/opkg/p.ipk");
    EXPECT_EQ(run([&] { return bridge_fileops_clean(root, "firmware"); }), 0);
    EXPECT_FALSE(real.has("fw/a"));
    EXPECT_TRUE(real.has("fw/opkg/p.ipk"));
}

TEST_F(Fileops, CleanRemovesPlainFilesAndSkipsMissingOnes)
{
    real.make_file("plain/run.sh");
    EXPECT_EQ(run([&] { return bridge_fileops_clean(root, "plain"); }, "ERROR DEBUG"), 0);
    EXPECT_FALSE(real.has("plain/run.sh"));
    EXPECT_THAT(logged,
                ElementsAre("DEBUG request to find: plain",
                            "DEBUG skipping deletion of missing file: " + real.below("plain/release")));
}

TEST_F(Fileops, CleanEndsAtAPlainFileThatStays)
{
    real.make_file("plain/release/file");
    real.make_file("plain/run.sh");
    EXPECT_EQ(run([&] { return bridge_fileops_clean(root, "plain"); }), -ENOTEMPTY);
    EXPECT_THAT(logged, ElementsAre("ERROR remove failed: Directory not empty"));
    EXPECT_TRUE(real.has("plain/run.sh"));
}

TEST_F(Fileops, CleanGoesOnInItsGlobButNotBehindItWhenAFileStays)
{
    real.make_file("log/stuck.log");
    for (char name = 'a'; name <= 'f'; name++)
        real.make_file(std::string("log/") + name + ".log");
    real.make_file("old/d.gz");
    EXPECT_EQ(run([&] { return bridge_fileops_clean(root, "logs"); }), -ECANCELED);
    EXPECT_THAT(logged, ElementsAre("ERROR failed to delete a file: stuck.log"));
    EXPECT_TRUE(real.has("log/stuck.log"));
    for (char name = 'a'; name <= 'f'; name++)
        EXPECT_FALSE(real.has(std::string("log/") + name + ".log")) << name;
    EXPECT_TRUE(real.has("old/d.gz"));
}

TEST_F(Fileops, CleanTakesSymlinksNotTheirTargets)
{
    real.make_file("outside/secret");
    std::filesystem::create_symlink("../outside/secret", real.below("log/s.log"));
    std::filesystem::create_directory_symlink("../outside", real.below("log/d.log"));
    EXPECT_EQ(run([&] { return bridge_fileops_clean(root, "logs"); }), 0);
    EXPECT_FALSE(real.has("log/s.log"));
    EXPECT_FALSE(real.has("log/d.log"));
    EXPECT_TRUE(real.has("outside/secret"));
}

TEST_F(Fileops, CleanTellsEachName)
{
    real.make_file("log/a.log");
    real.make_file("log/b.bin");
    run([&] { return bridge_fileops_clean(root, "logs"); }, "TRACE");
    for (const char *line : {"TRACE checking a.log", "TRACE checking b.bin", "TRACE checking ..",
                             "TRACE found a match: *.log -> a.log"})
        EXPECT_THAT(logged, Contains(line));
    EXPECT_THAT(logged, Not(Contains(HasSubstr("-> b.bin"))));
}

TEST_F(Fileops, DirectoryThatCannotBeOpenedCountsAsCleaned)
{
    EXPECT_EQ(run([&] { return bridge_fileops_clean(root, "gone"); }), 0);
    EXPECT_THAT(logged,
                ElementsAre("INFO can't access dir: " + real.below("nowhere") + ", skipping cleaning it"));
}

TEST_F(Fileops, DirectoryWithoutADescriptorCountsAsCleaned)
{
    real.make_file("log/a.log");
    fileops_fail("dirfd");
    EXPECT_EQ(run([&] { return bridge_fileops_clean(root, "logs"); }), 0);
    EXPECT_THAT(logged, Contains("ERROR failed to obtain dir descriptor: Invalid argument"));
    EXPECT_TRUE(real.has("log/a.log"));
}

TEST_F(Fileops, CleanAndListOfAPathThatIsNoDirectory)
{
    for (const char *path : {"absent", "logs/a.log", "motd", "..", ""}) {
        const std::string line = std::string("ERROR failed to fetch dirpath: ") + path;
        EXPECT_EQ(run([&] { return bridge_fileops_clean(root, path); }), -ENOENT) << path;
        EXPECT_THAT(logged, ElementsAre(line));
        EXPECT_EQ(list(path), -ENOENT) << path;
        EXPECT_THAT(logged, ElementsAre(line));
        EXPECT_THAT(listed, IsEmpty());
    }
}

/* ---- list ---- */

TEST_F(Fileops, ListGivesFilesWithTheirRowsRights)
{
    real.make_file("default/a.json", "12345");
    real.make_file("default/b.conf");
    real.make_file("bstn/x.key", "");
    EXPECT_EQ(list("config"), 0);
    EXPECT_THAT(listed, ElementsAre(R"({"name":"a.json","access":"rw","type":"file","size":5})",
                                    R"({"name":"x.key","access":"w","type":"file","size":0})"));
    EXPECT_THAT(logged, IsEmpty());
}

TEST_F(Fileops, ListGoesInTheOrderOfTheRows)
{
    real.make_file("old/a.txt", "t");
    real.make_file("old/b.gz", "gz");
    real.make_file("log/c.log", "log");
    EXPECT_EQ(list("logs"), 0);
    EXPECT_THAT(listed, ElementsAre(R"({"name":"c.log","access":"r","type":"file","size":3})",
                                    R"({"name":"b.gz","access":"r","type":"file","size":2})",
                                    R"({"name":"a.txt","access":"r","type":"file","size":1})"));
}

TEST_F(Fileops, ListGivesDirectoriesOfTheTreeOnlyNotRealOnes)
{
    std::filesystem::create_directory(real.below("fw/sub"));
    real.make_file("fw/.snv_bridge.tmst", "");
    EXPECT_EQ(list("firmware"), 0);
    EXPECT_THAT(listed, ElementsAre(R"({"name":"opkg","type":"dir"})",
                                    R"({"name":".snv_bridge.tmst","access":"rw","type":"file","size":0})"));
}

TEST_F(Fileops, ListLeavesMissingPlainFilesOut)
{
    real.make_file("plain/run.sh", "#!");
    EXPECT_EQ(list("plain"), 0);
    EXPECT_THAT(listed, ElementsAre(R"({"name":"run.sh","access":"rx","type":"file","size":2})"));
    EXPECT_THAT(logged, IsEmpty());
}

TEST_F(Fileops, ListFollowsSymlinksAndLeavesDanglingOnesOut)
{
    real.make_file("outside/secret", "1234567");
    std::filesystem::create_symlink("../outside/secret", real.below("log/s.log"));
    std::filesystem::create_symlink("../outside/nothing", real.below("log/dangling.log"));
    EXPECT_EQ(list("logs"), 0);
    EXPECT_THAT(listed, ElementsAre(R"({"name":"s.log","access":"r","type":"file","size":7})"));
    EXPECT_THAT(logged, IsEmpty());
}

TEST_F(Fileops, ListedSizesGoBeyondThirtyTwoBits)
{
    const std::string file = real.make_file("log/big.log");
    std::filesystem::resize_file(file, 5'000'000'000);
    EXPECT_EQ(list("logs"), 0);
    EXPECT_THAT(listed, ElementsAre(R"({"name":"big.log","access":"r","type":"file","size":5000000000})"));
}

TEST_F(Fileops, ListSkipsARowWhoseDirectoryCannotBeOpened)
{
    std::filesystem::remove(real.below("log"));
    real.make_file("log", "a file where the directory belongs");
    real.make_file("old/b.gz", "");
    EXPECT_EQ(list("logs"), 0);
    EXPECT_THAT(logged, ElementsAre("INFO can't access dir: " + real.below("log") +
                                    ", skipping fetching files from it"));
    EXPECT_THAT(listed, ElementsAre(R"({"name":"b.gz","access":"r","type":"file","size":0})"));
}

TEST_F(Fileops, ListTellsEachName)
{
    const std::string file = real.make_file("log/a.log");
    const json_owned items(json_object_new_array());
    run([&] { return bridge_fileops_scandir_to_existing_json(root, "logs", items.get()); }, "TRACE");
    const auto match = std::find(logged.begin(), logged.end(), "TRACE found a match: *.log -> a.log");
    ASSERT_NE(match, logged.end());
    EXPECT_EQ(*(match - 1), "TRACE checking a.log");
    EXPECT_EQ(*(match + 1), "TRACE full path constructed: " + file);
}

TEST_F(Fileops, EveryRightHasItsText)
{
    static constexpr const char *texts[] = {"", "r", "w", "rw", "x", "rx", "wx", "rwx"};
    const std::string file = real.make_file("plain/motd", "");
    for (uint32_t access = 0; access < std::size(texts); access++) {
        const bridge_fileops_entry row = {
            .type = BRIDGE_FILEOPS_FILE, .access = access, .name = "f", .real_path = file.c_str()};
        const bridge_fileops_entry small = {
            .type = BRIDGE_FILEOPS_DIR, .name = "/", .children = &row, .child_count = 1};
        root = &small;
        EXPECT_EQ(list("/"), 0);
        EXPECT_THAT(listed, ElementsAre(std::string(R"({"name":"f","access":")") + texts[access] +
                                        R"(","type":"file","size":0})"));
    }
}

TEST_F(Fileops, ListWithoutMemory)
{
    real.make_file("log/a.log");
    static const struct {
        const char *path;
        const char *call;
        int rc;
        strings messages;
    } cases[] = {
        {"/", "new_object", -ENOMEM, {"ERROR failed to allocate dir entry object"}},
        {"/",
         "new_string",
         -EIO,
         {"ERROR failed to serialize field", "ERROR failed to serialize dir entry object"}},
        {"/", "array_add", -EIO, {"ERROR failed to add item to array"}},
        {"logs", "new_object", -ENOMEM, {"ERROR failed to allocate file entry object"}},
        {"logs",
         "new_string",
         -EIO,
         {"ERROR failed to serialize field", "ERROR failed to serialize file entry object"}},
        {"logs", "array_add", -EIO, {"ERROR failed to add item to array"}},
        {"logs", "asprintf", -ENOMEM, {"ERROR failed to allocate buffer for full path"}},
    };
    for (const auto &row : cases) {
        fileops_fail(row.call);
        EXPECT_EQ(list(row.path), row.rc) << row.path << " " << row.call;
        fileops_fail("");
        EXPECT_THAT(logged, ElementsAreArray(row.messages));
        EXPECT_THAT(listed, IsEmpty());
    }
}

TEST_F(Fileops, ListKeepsWhatItHadWhenMemoryEnds)
{
    fileops_fail("new_object", 2);
    EXPECT_EQ(list("/"), -ENOMEM);
    fileops_fail("");
    EXPECT_THAT(listed,
                ElementsAre(R"({"name":"logs","type":"dir"})", R"({"name":"logs_bkp","type":"dir"})"));
}

/* ---- sets of links ---- */

TEST_F(Fileops, LinksAreMadeUnderTheirOwnNames)
{
    for (const char *name : {"log/a.log", "log/b.log", "old/c.gz"})
        real.make_file(name);
    EXPECT_EQ(make_links(R"(["logs/a.log", "/logs//b.log", "logs/c.gz"])"), 0);
    EXPECT_TRUE(std::filesystem::equivalent(real.below("log/a.log"), real.below("log_bkp/a.log")));
    EXPECT_TRUE(std::filesystem::equivalent(real.below("log/b.log"), real.below("log_bkp/b.log")));
    EXPECT_TRUE(std::filesystem::equivalent(real.below("old/c.gz"), real.below("old_bkp/c.gz")));
    EXPECT_THAT(logged, IsEmpty());
}

TEST_F(Fileops, NoLinksAreAsked)
{
    EXPECT_EQ(make_links("[]"), 0);
    EXPECT_THAT(logged, IsEmpty());
}

TEST_F(Fileops, FailureOfTheThirdLinkRemovesTheTwoBefore)
{
    for (const char *name : {"log/a.log", "old/b.gz", "log/d.log"})
        real.make_file(name);
    EXPECT_EQ(make_links(R"(["logs/a.log", "logs/b.gz", "logs/c.log", "logs/d.log"])"), -ENOENT);
    EXPECT_THAT(logged, ElementsAre("ERROR link failed with error: No such file or directory",
                                    "WARN cleaning previously created links (if any)"));
    for (const char *name : {"log_bkp/a.log", "old_bkp/b.gz", "log_bkp/d.log"})
        EXPECT_FALSE(real.has(name)) << name;
    for (const char *name : {"log/a.log", "old/b.gz", "log/d.log"})
        EXPECT_TRUE(real.has(name)) << name;
}

TEST_F(Fileops, FailedSetLeavesForeignFilesInTheTargetAlone)
{
    for (const char *name : {"log/a.log", "log/b.log", "log_bkp/b.log", "log_bkp/z.log"})
        real.make_file(name);
    EXPECT_EQ(make_links(R"(["logs/a.log", "logs/b.log"])"), -EEXIST);
    EXPECT_FALSE(real.has("log_bkp/a.log"));
    EXPECT_TRUE(real.has("log_bkp/b.log"));
    EXPECT_TRUE(real.has("log_bkp/z.log"));
}

TEST_F(Fileops, SameFileTwiceLeavesNoLink)
{
    real.make_file("log/a.log");
    EXPECT_EQ(make_links(R"(["logs/a.log", "logs/a.log"])"), -EEXIST);
    EXPECT_FALSE(real.has("log_bkp/a.log"));
    EXPECT_TRUE(real.has("log/a.log"));
}

TEST_F(Fileops, ResultIsTheLinksAlsoWhenTheCleaningFails)
{
    real.make_file("log/a.log");
    real.make_file("log/b.log");
    fileops_fail("asprintf", 3); /* three for the first link, and none after it */
    EXPECT_EQ(make_links(R"(["logs/a.log", "logs/b.log"])"), -ENOMEM);
    EXPECT_THAT(logged, ElementsAre("WARN cleaning previously created links (if any)"));
    EXPECT_TRUE(real.has("log_bkp/a.log"));
}

TEST_F(Fileops, ElementsOfOtherKinds)
{
    static const struct {
        const char *json;
        int rc;
        const char *message;
    } cases[] = {
        {"[null]", -ENOMEM, "ERROR failed to de-serialize file name"},
        {"[5]", -ENOENT, "ERROR 5 is not found in the tree"},
        {"[\"\"]", -ENOMEM, "ERROR failed to extract segment from path"},
        {"[\"/\"]", -ENOMEM, "ERROR failed to extract segment from path"},
        {"[\"logs/x/..\"]", -ENOENT, "ERROR logs is not found in the tree"},
        {"[\"config/../../a.log\"]", -ENOENT, "ERROR ../a.log is not found in the tree"},
    };
    for (const auto &row : cases) {
        EXPECT_EQ(make_links(row.json), row.rc) << row.json;
        EXPECT_THAT(logged, ElementsAre(row.message, "WARN cleaning previously created links (if any)"));
    }
}
