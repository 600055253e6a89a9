/* The gateway's tree, the look-up, and what is done to real files through a tree. */
#include "common/bridge_fileops.h"

#include "common/bridge_json_helpers.h"
#include "fileops/fileops_fixture.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

using text_owned = std::unique_ptr<char, bridge_release<free>>;
using strings = std::vector<std::string>;

/* The call that fails from its `calls_before_failure`-th on, counted from 0. */
static const char *failing_call = "";
static int calls_before_failure;

static bool fails(const char *call)
{
    return strcmp(failing_call, call) == 0 && calls_before_failure-- <= 0;
}

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes the names
extern "C" {
char *__real_strndup(const char *text, size_t length);
char *__real_strdup(const char *text);
int __real_dirfd(DIR *dir);
int __real_unlinkat(int fd, const char *name, int flags);
json_object *__real_json_object_new_object();
json_object *__real_json_object_new_string(const char *text);
int __real_json_object_array_add(json_object *array, json_object *item);

char *__wrap_strndup(const char *text, size_t length)
{
    return fails("strndup") ? nullptr : __real_strndup(text, length);
}

char *__wrap_strdup(const char *text)
{
    return fails("strdup") ? nullptr : __real_strdup(text);
}

__attribute__((format(printf, 2, 3))) int __wrap_asprintf(char **text, const char *format, ...)
{
    if (fails("asprintf"))
        return -1;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(text, format, arguments);
    va_end(arguments);
    return length;
}

__attribute__((format(printf, 3, 4))) int __wrap___asprintf_chk(char **text, int, const char *format, ...)
{
    if (fails("asprintf"))
        return -1;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(text, format, arguments);
    va_end(arguments);
    return length;
}

int __wrap_dirfd(DIR *dir)
{
    if (!fails("dirfd"))
        return __real_dirfd(dir);
    errno = EINVAL;
    return -1;
}

int __wrap_unlinkat(int fd, const char *name, int flags)
{
    if (strncmp(name, "stuck", 5) != 0)
        return __real_unlinkat(fd, name, flags);
    errno = EBUSY;
    return -1;
}

json_object *__wrap_json_object_new_object()
{
    return fails("new_object") ? nullptr : __real_json_object_new_object();
}

json_object *__wrap_json_object_new_string(const char *text)
{
    return fails("new_string") ? nullptr : __real_json_object_new_string(text);
}

int __wrap_json_object_array_add(json_object *array, json_object *item)
{
    return fails("array_add") ? -1 : __real_json_object_array_add(array, item);
}
}
// NOLINTEND(bugprone-reserved-identifier)

class Fileops : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(bridge_log_init(BRIDGE_LOG_TRACE, true), 0);
    }
    void TearDown() override
    {
        failing_call = "";
    }

    static void fail(const char *call, int after = 0)
    {
        failing_call = call;
        calls_before_failure = after;
    }

    /* The call's result, with what it logged in `logged`, the messages of the levels in `levels`. */
    template <typename Call> int run(Call call, const char *levels = "ERROR WARN INFO")
    {
        captured_stderr log;
        const int rc = call();
        text = log.text();
        logged.clear();
        for (const std::string &message : messages(text)) {
            if (strstr(levels, message.substr(0, message.find(' ')).c_str()) != nullptr)
                logged.push_back(message);
        }
        return rc;
    }

    int list(const char *path)
    {
        const json_owned items(json_object_new_array());
        const int rc = run([&] { return bridge_fileops_scandir_to_existing_json(root, path, items.get()); });
        listed.clear();
        for (size_t i = 0; i < json_object_array_length(items.get()); i++)
            listed.emplace_back(json_object_to_json_string_ext(json_object_array_get_idx(items.get(), i),
                                                               JSON_C_TO_STRING_PLAIN));
        return rc;
    }

    int make_links(const char *json, const char *target = "logs_bkp")
    {
        const json_owned paths(json_tokener_parse(json));
        return run([&] { return bridge_fileops_create_hardlinks_from_json(root, paths.get(), target); });
    }

    /* The row that a path finds, as "name -> real path". */
    std::string found(const std::string &path)
    {
        const bridge_fileops_entry *entry = nullptr;
        run([&] {
            entry = bridge_fileops_find_entry(root, path.c_str());
            return 0;
        });
        if (entry == nullptr)
            return "none";
        if (entry->type == BRIDGE_FILEOPS_DIR)
            return entry->name;
        return std::string(entry->name) + " -> " + entry->real_path;
    }

    temporary_folder real;
    fileops_tree tree{real};
    const bridge_fileops_entry *root = &tree.root;
    strings logged;
    std::string text;
    strings listed;
};

using FileopsDeath = Fileops;

/* ---- the gateway's tree ---- */

static void describe(const bridge_fileops_entry *dir, const std::string &prefix, strings *rows)
{
    for (uint32_t i = 0; i < dir->child_count; i++) {
        const bridge_fileops_entry *entry = &dir->children[i];
        const std::string name = prefix + entry->name;
        if (entry->type == BRIDGE_FILEOPS_DIR) {
            EXPECT_EQ(entry->real_path, nullptr) << name;
            describe(entry, name + "/", rows);
            continue;
        }
        EXPECT_EQ(entry->type, BRIDGE_FILEOPS_GLOB) << name;
        EXPECT_EQ(entry->children, nullptr) << name;
        const std::string tmst = entry->tmst_path != nullptr ? entry->tmst_path : "-";
        rows->push_back(name + " " + entry->real_path + " " + tmst + " " + std::to_string(entry->access));
    }
}

TEST_F(Fileops, TreeOfTheGateway)
{
    strings rows;
    describe(&fileops_root, "", &rows);
    EXPECT_THAT(rows,
                ElementsAre("logs/*.log /var/log - 1", "logs/*.gz /var/lib/logs - 1",
                            "logs/*.txt /var/lib/logs - 1",
                            "logs_bkp/*.log /var/log/.snv_bridge_bkp /var/log/.snv_bridge_bkp.tmst 1",
                            "logs_bkp/*.gz /var/lib/logs/.snv_bridge_bkp "
                            "/var/lib/logs/.snv_bridge_bkp.tmst 1",
                            "firmware/opkg/* /lib/firmware/opkg - 3",
                            "firmware/* /lib/firmware /lib/firmware/.snv_bridge.tmst 3",
                            "modem/* /dev/shm/modem_downloads "
                            "/dev/shm/modem_downloads/.snv_bridge.tmst 3",
                            "scripts/* /usr/share/snv-mqtt-bridge/scripts - 5",
                            "config/*.json /etc/default - 3", "config/mqtt*.conf /etc/default - 3",
                            "config/*-feed.conf /etc/opkg - 3", "config/awsiot-tunnel.* /etc/awsiot - 2",
                            "config/*.key /etc/bstn - 2", "shm/* /dev/shm - 3"));
    EXPECT_EQ(fileops_root.type, BRIDGE_FILEOPS_DIR);
    EXPECT_STREQ(fileops_root.name, "/");
}

TEST_F(Fileops, RootListsItsSevenDirectories)
{
    root = &fileops_root;
    EXPECT_EQ(list("/"), 0);
    EXPECT_THAT(listed, ElementsAre(R"({"name":"logs","type":"dir"})", R"({"name":"logs_bkp","type":"dir"})",
                                    R"({"name":"firmware","type":"dir"})", R"({"name":"modem","type":"dir"})",
                                    R"({"name":"scripts","type":"dir"})", R"({"name":"config","type":"dir"})",
                                    R"({"name":"shm","type":"dir"})"));
}

TEST_F(Fileops, PathsOfTheGatewayFindTheirRows)
{
    static constexpr struct {
        const char *path;
        const char *row;
    } cases[] = {
        {"/", "/"},
        {"//./", "/"},
        {"/..", "/"},
        {"/logs/../..", "/"},
        {"logs", "logs"},
        {"/logs", "logs"},
        {"logs/", "logs"},
        {"logs_bkp", "logs_bkp"},
        {"logs/syslog.log", "*.log -> /var/log"},
        {"logs//./syslog.log/", "*.log -> /var/log"},
        {"logs/old.gz", "*.gz -> /var/lib/logs"},
        {"logs/run.txt", "*.txt -> /var/lib/logs"},
        {"logs/x.bin", "none"},
        {"logs/sub/x.log", "none"},
        {"logs/../config/a.json", "*.json -> /etc/default"},
        {"/../../config/a.json", "*.json -> /etc/default"},
        {"firmware/opkg", "opkg"},
        {"firmware/opkg/p.ipk", "* -> /lib/firmware/opkg"},
        {"firmware/p.ipk", "* -> /lib/firmware"},
        {"firmware/bsp/p.ipk", "none"},
        {"config/mqtt.conf", "mqtt*.conf -> /etc/default"},
        {"config/mqtt-site.conf", "mqtt*.conf -> /etc/default"},
        {"config/base-feed.conf", "*-feed.conf -> /etc/opkg"},
        {"config/awsiot-tunnel.token", "awsiot-tunnel.* -> /etc/awsiot"},
        {"config/x.key", "*.key -> /etc/bstn"},
        {"config/passwd", "none"},
        {"config/../../etc/passwd", "none"},
        {"../config/a.json", "none"},
        {"..", "none"},
        {".", "none"},
        {"logs/..", "none"},
        {"", "none"},
        {"etc/passwd", "none"},
        {"Logs", "none"},
        {"logsx", "none"},
    };
    root = &fileops_root;
    for (const auto &row : cases) {
        EXPECT_EQ(found(row.path), row.row) << row.path;
        EXPECT_THAT(logged, IsEmpty()) << row.path;
    }
}

TEST_F(Fileops, BeginningOfANameMatches)
{
    static constexpr struct {
        const char *path;
        const char *row;
    } cases[] = {
        {"log", "logs"},
        {"l", "logs"},
        {"logs_", "logs_bkp"},
        {"fir", "firmware"},
        {"f/o/p.ipk", "* -> /lib/firmware/opkg"},
        {"s", "scripts"},
        {"sh/x", "* -> /dev/shm"},
    };
    root = &fileops_root;
    for (const auto &row : cases)
        EXPECT_EQ(found(row.path), row.row) << row.path;
}

/* So a file of that name in the firmware directory cannot be reached. */
TEST_F(Fileops, BeginningOfADirectoryHidesAFileOfTheGlobBelowIt)
{
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    real.make_file("fw/op");
    EXPECT_EQ(found("firmware/op"), "opkg");
    EXPECT_EQ(bridge_fileops_find_file(root, "firmware/op"), nullptr);
    EXPECT_EQ(run([&] { return bridge_fileops_remove(root, "firmware/op"); }), -ENOENT);
    EXPECT_TRUE(real.has("fw/op"));
}

TEST_F(Fileops, GlobsTakeNamesAsText)
{
    root = &fileops_root;
    EXPECT_EQ(found("logs/%s%n.log"), "*.log -> /var/log");
    EXPECT_EQ(found("logs/журнал.log"), "*.log -> /var/log");
    EXPECT_EQ(found("logs/\xff\xfe.log"), "*.log -> /var/log");
    EXPECT_EQ(found("logs/*.log"), "*.log -> /var/log");
    EXPECT_EQ(found("logs/.log"), "*.log -> /var/log");
    EXPECT_EQ(found("logs/.LOG"), "none");
    EXPECT_EQ(found("shm/.hidden"), "* -> /dev/shm");
}

TEST_F(Fileops, LookUpTellsEachStep)
{
    run([&] { return bridge_fileops_find_entry(root, "logs//../config/a.json") == nullptr; }, "DEBUG TRACE");
    EXPECT_THAT(logged, ElementsAre("DEBUG request to find: logs//../config/a.json",
                                    "TRACE processing segment: config", "TRACE processing segment: a.json"));
}

TEST_F(Fileops, OnlyTheNormalizedPathIsMeasured)
{
    const std::string longest = "firmware/" + std::string(4095 - 9, 'a');
    EXPECT_NE(found(longest), "none");
    EXPECT_THAT(logged, IsEmpty());

    EXPECT_EQ(found(longest + "a"), "none");
    EXPECT_THAT(logged, ElementsAre("ERROR path is too long to normalize"));

    std::string winding = "logs/";
    for (int i = 0; i < 2000; i++)
        winding += "./aside/..//";
    EXPECT_NE(found(winding + "a.log"), "none");
    EXPECT_THAT(logged, IsEmpty());
    EXPECT_EQ(found(std::string(5000, 'a') + "/../logs"), "logs");

    std::string upward;
    for (int i = 0; i < 2000; i++)
        upward += "../";
    EXPECT_EQ(found(upward), "none");
    EXPECT_THAT(logged, ElementsAre("ERROR path is too long to normalize"));
    EXPECT_EQ(found("/" + upward), "/");
}

TEST_F(Fileops, DirectoriesAndFilesAreFoundApart)
{
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    EXPECT_NE(bridge_fileops_find_dir(root, "logs"), nullptr);
    EXPECT_EQ(bridge_fileops_find_file(root, "logs"), nullptr);
    EXPECT_EQ(bridge_fileops_find_dir(root, "/"), root);
    EXPECT_EQ(bridge_fileops_find_dir(root, "logs/a.log"), nullptr);
    EXPECT_NE(bridge_fileops_find_file(root, "logs/a.log"), nullptr);
    EXPECT_EQ(bridge_fileops_find_dir(root, "motd"), nullptr);
    EXPECT_NE(bridge_fileops_find_file(root, "motd"), nullptr);
    EXPECT_EQ(bridge_fileops_find_file(root, "motd/x"), nullptr);
    EXPECT_EQ(bridge_fileops_find_dir(root, "absent"), nullptr);
    EXPECT_EQ(bridge_fileops_find_file(root, "absent"), nullptr);
}

TEST_F(Fileops, GlobMatchesNothingWithoutMemory)
{
    fail("strndup");
    EXPECT_EQ(found("config/a.json"), "none");
    EXPECT_THAT(text, HasSubstr(" failed to allocate buffer for path\n\n"));
}

/* ---- paths ---- */

TEST_F(Fileops, JoinedPaths)
{
    static constexpr struct {
        const char *prefix;
        const char *segment;
        size_t length;
        const char *joined;
    } cases[] = {
        {"/var/log", "a.log", 0, "/var/log/a.log"},
        {"/var/log", "a.log/..", 5, "/var/log/a.log"},
        {"", "a", 0, "/a"},
        {"a", "", 0, "a/"},
        {"%s", "%n", 0, "%s/%n"},
    };
    for (const auto &row : cases) {
        const text_owned joined(bridge_fileops_join_path(row.prefix, row.segment, row.length));
        EXPECT_STREQ(joined.get(), row.joined);
    }
    EXPECT_EQ(run([] { return bridge_fileops_join_path("", "", 0) == nullptr; }), 1);
    EXPECT_THAT(logged, ElementsAre("ERROR empty prefix and segment are not allowed"));
}

TEST_F(Fileops, ReplacedDirnames)
{
    static constexpr struct {
        const char *original;
        const char *replaced;
    } cases[] = {
        {"a.log", "/new/a.log"},      {"logs/a.log", "/new/a.log"},      {"/logs//a.log//", "/new/a.log"},
        {"logs/a/./.", "/new/a"},     {"firmware/a/b/..", "/new/a"},     {"firmware/../b", "/new/b"},
        {"../../b", "/new/b"},        {"a/../../b/c/../../d", "/new/d"}, {"..a", "/new/..a"},
        {"firmware/...", "/new/..."},
    };
    for (const auto &row : cases) {
        const text_owned replaced(bridge_fileops_replace_dirname(row.original, "/new"));
        EXPECT_STREQ(replaced.get(), row.replaced) << row.original;
    }
    for (const char *empty : {"", "/", "//", ".", "..", "../..", "a/..", "/a/../.."}) {
        EXPECT_EQ(run([&] { return bridge_fileops_replace_dirname(empty, "/new") == nullptr; }), 1) << empty;
        EXPECT_THAT(logged, ElementsAre("ERROR failed to extract segment from path")) << empty;
    }
}

TEST_F(Fileops, RealPaths)
{
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    text_owned path;
    const auto resolve = [&](const bridge_fileops_entry *entry, const char *virtpath) {
        char *raw = nullptr;
        const int rc = run([&] { return bridge_fileops_real_path(entry, virtpath, &raw); });
        path.reset(raw);
        return rc;
    };
    EXPECT_EQ(resolve(bridge_fileops_find_file(root, "fir/a/b/.."), "fir/a/b/.."), 0);
    EXPECT_EQ(path.get(), real.below("fw/a"));
    EXPECT_EQ(resolve(bridge_fileops_find_file(root, "mo"), "mo"), 0);
    EXPECT_EQ(path.get(), real.below("plain/motd"));

    fail("asprintf");
    EXPECT_EQ(resolve(bridge_fileops_find_file(root, "firmware/a"), "firmware/a"), -ENOMEM);
    fail("strdup");
    EXPECT_EQ(resolve(bridge_fileops_find_file(root, "motd"), "motd"), -ENOMEM);
    EXPECT_THAT(logged, IsEmpty());

    EXPECT_EQ(resolve(bridge_fileops_find_dir(root, "logs"), "logs"), -EINVAL);
    EXPECT_THAT(logged, ElementsAre("ERROR path processing failed"));
    EXPECT_EQ(path, nullptr);
}

/* ---- link ---- */

TEST_F(Fileops, LinkGoesFromRealFileToRealFile)
{
    const std::string from = real.make_file("log/a.log");
    const std::string to = real.below("log_bkp/b.log");
    EXPECT_EQ(run([&] { return bridge_fileops_link(root, "logs/./a.log", "/logs_bkp/x/../b.log"); }, "DEBUG"),
              0);
    EXPECT_TRUE(std::filesystem::equivalent(from, to));
    EXPECT_THAT(logged,
                ElementsAre("DEBUG request to create link from logs/./a.log to /logs_bkp/x/../b.log",
                            "DEBUG request to find: logs/a.log", "DEBUG request to find: /logs_bkp/b.log",
                            "DEBUG request to link files: " + from + " -> " + to));
}

TEST_F(Fileops, PlainFilesAreLinkedByTheirRows)
{
    real.make_file("plain/motd");
    EXPECT_EQ(run([&] { return bridge_fileops_link(root, "motd", "plain/release"); }), 0);
    EXPECT_TRUE(std::filesystem::equivalent(real.below("plain/motd"), real.below("plain/release")));
}

TEST_F(Fileops, LinkIsMadeToASymlinkNotToItsTarget)
{
    real.make_file("outside/secret");
    std::filesystem::create_symlink("../outside/secret", real.below("log/s.log"));
    EXPECT_EQ(run([&] { return bridge_fileops_link(root, "logs/s.log", "logs_bkp/s.log"); }), 0);
    EXPECT_TRUE(std::filesystem::is_symlink(real.below("log_bkp/s.log")));
    EXPECT_EQ(std::filesystem::hard_link_count(real.below("outside/secret")), 1U);
}

TEST_F(Fileops, FailedLinks)
{
    const std::string too_long = "firmware/" + std::string(4096, 'a');
    real.make_file("log/a.log");
    real.make_file("log_bkp/taken.log");
    const struct {
        std::string from;
        std::string to;
        int rc;
        std::string message;
    } cases[] = {
        {"logs/a.bin", "logs_bkp/a.log", -ENOENT, "ERROR logs/a.bin is not found in the tree"},
        {"logs/a.log", "logs_bkp//a.bin", -ENOENT, "ERROR logs_bkp/a.bin is not found in the tree"},
        {"logs", "logs_bkp/a.log", -ENOENT, "ERROR logs is not found in the tree"},
        {"logs/a.log", "/", -ENOENT, "ERROR / is not found in the tree"},
        {too_long, "logs_bkp/a.log", -EINVAL, "ERROR path " + too_long + " is too long to normalize"},
        {"logs/a.log", too_long, -EINVAL, "ERROR path " + too_long + " is too long to normalize"},
        {"logs/a.bin", too_long, -EINVAL, "ERROR path " + too_long + " is too long to normalize"},
        {"logs/gone.log", "logs_bkp/a.log", -ENOENT,
         "ERROR link failed with error: No such file or directory"},
        {"logs/a.log", "logs_bkp/taken.log", -EEXIST, "ERROR link failed with error: File exists"},
        {"logs/a.log", "gone/a.log", -ENOENT, "ERROR link failed with error: No such file or directory"},
        {"firmware/opkg/../..", "logs_bkp/a.log", -ENOENT, "ERROR . is not found in the tree"},
    };
    for (const auto &row : cases) {
        EXPECT_EQ(run([&] { return bridge_fileops_link(root, row.from.c_str(), row.to.c_str()); }), row.rc);
        EXPECT_THAT(logged, ElementsAre(row.message));
    }
    EXPECT_FALSE(real.has("log_bkp/a.log"));
}

TEST_F(Fileops, LinkWithoutMemory)
{
    real.make_file("log/a.log");
    for (const int calls : {0, 1}) {
        fail("asprintf", calls);
        EXPECT_EQ(run([&] { return bridge_fileops_link(root, "logs/a.log", "logs_bkp/a.log"); }), -ENOMEM);
    }
    EXPECT_FALSE(real.has("log_bkp/a.log"));
}

TEST_F(Fileops, RowWithoutARealPathIsRefused)
{
    static constexpr bridge_fileops_entry rows[] = {{.type = BRIDGE_FILEOPS_FILE, .name = "f"}};
    static constexpr bridge_fileops_entry bare = {
        .type = BRIDGE_FILEOPS_DIR, .name = "/", .children = rows, .child_count = 1};
    EXPECT_EQ(run([&] { return bridge_fileops_link(&bare, "f", "f"); }), -EINVAL);
    EXPECT_THAT(logged, ElementsAre("ERROR path processing failed"));
    EXPECT_EQ(run([&] { return bridge_fileops_remove(&bare, "f"); }), -EINVAL);
    EXPECT_THAT(logged, ElementsAre("ERROR path processing failed"));
}

/* ---- remove ---- */

TEST_F(Fileops, RemoveDeletesTheRealFile)
{
    const std::string file = real.make_file("log/a.log");
    EXPECT_EQ(run([&] { return bridge_fileops_remove(root, "logs/./a.log"); }, "DEBUG"), 0);
    EXPECT_FALSE(real.has("log/a.log"));
    EXPECT_THAT(logged,
                ElementsAre("DEBUG request to remove: logs/./a.log", "DEBUG request to find: logs/./a.log",
                            "DEBUG removing real file: " + file));
    real.make_file("plain/motd");
    EXPECT_EQ(run([&] { return bridge_fileops_remove(root, "motd"); }), 0);
    EXPECT_FALSE(real.has("plain/motd"));
}

TEST_F(Fileops, RemoveTakesASymlinkNotItsTarget)
{
    real.make_file("outside/secret");
    std::filesystem::create_symlink("../outside/secret", real.below("log/s.log"));
    EXPECT_EQ(run([&] { return bridge_fileops_remove(root, "logs/s.log"); }), 0);
    EXPECT_FALSE(real.has("log/s.log"));
    EXPECT_TRUE(real.has("outside/secret"));
}

TEST_F(Fileops, FailedRemoves)
{
    real.make_file("fw/full/file");
    static const struct {
        std::string path;
        int rc;
        std::string message;
    } cases[] = {
        {"logs/a.bin", -ENOENT, "ERROR no such file: logs/a.bin"},
        {"logs", -ENOENT, "ERROR no such file: logs"},
        {"/", -ENOENT, "ERROR no such file: /"},
        {"", -ENOENT, "ERROR no such file: "},
        {"firmware/opkg", -ENOENT, "ERROR no such file: firmware/opkg"},
        {"logs/a.log", -ENOENT, "ERROR remove failed: No such file or directory"},
        {"firmware/full", -ENOTEMPTY, "ERROR remove failed: Directory not empty"},
        {"firmware/" + std::string(300, 'a'), -ENAMETOOLONG, "ERROR remove failed: File name too long"},
    };
    for (const auto &row : cases) {
        EXPECT_EQ(run([&] { return bridge_fileops_remove(root, row.path.c_str()); }), row.rc) << row.path;
        EXPECT_THAT(logged, ElementsAre(row.message));
    }
    fail("asprintf");
    EXPECT_EQ(run([&] { return bridge_fileops_remove(root, "logs/a.log"); }), -ENOMEM);
}

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
    fail("dirfd");
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
        fail(row.call);
        EXPECT_EQ(list(row.path), row.rc) << row.path << " " << row.call;
        failing_call = "";
        EXPECT_THAT(logged, ElementsAreArray(row.messages));
        EXPECT_THAT(listed, IsEmpty());
    }
}

TEST_F(Fileops, ListKeepsWhatItHadWhenMemoryEnds)
{
    fail("new_object", 2);
    EXPECT_EQ(list("/"), -ENOMEM);
    failing_call = "";
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
    fail("asprintf", 3); /* three for the first link, and none after it */
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

/* ---- programming faults ---- */

TEST_F(FileopsDeath, Assertions)
{
    EXPECT_ASSERTION(bridge_fileops_find_entry(nullptr, "/"), "root");
    EXPECT_ASSERTION(bridge_fileops_find_entry(root, nullptr), "virtpath");
    EXPECT_ASSERTION(bridge_fileops_find_entry(bridge_fileops_find_file(root, "motd"), "/"),
                     "root->type == BRIDGE_FILEOPS_DIR");
    EXPECT_ASSERTION(bridge_fileops_clean_glob(nullptr), "entry");
    const json_owned object(json_object_new_object());
    EXPECT_ASSERTION(bridge_fileops_create_hardlinks_from_json(root, object.get(), "logs_bkp"),
                     "json_object_is_type(filepath_arr, json_type_array)");
}

TEST_F(FileopsDeath, RightsAboveTheTableAreAProgrammingFault)
{
    const std::string file = real.make_file("plain/motd");
    const bridge_fileops_entry row = {
        .type = BRIDGE_FILEOPS_FILE, .access = 8, .name = "f", .real_path = file.c_str()};
    const bridge_fileops_entry small = {
        .type = BRIDGE_FILEOPS_DIR, .name = "/", .children = &row, .child_count = 1};
    const json_owned items(json_object_new_array());
    EXPECT_ASSERTION(bridge_fileops_scandir_to_existing_json(&small, "/", items.get()),
                     "access < std::size(ACCESS_TEXTS)");
}
