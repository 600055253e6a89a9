/* The gateway's tree, the look-up, and single files through a tree. */
#include "common/bridge_fileops.h"

#include "fileops/fileops_case.h"

#include <cerrno>
#include <memory>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using text_owned = std::unique_ptr<char, bridge_release<free>>;
using strings = std::vector<std::string>;

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
    fileops_fail("strndup");
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

    fileops_fail("asprintf");
    EXPECT_EQ(resolve(bridge_fileops_find_file(root, "firmware/a"), "firmware/a"), -ENOMEM);
    fileops_fail("strdup");
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
        fileops_fail("asprintf", calls);
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
    fileops_fail("asprintf");
    EXPECT_EQ(run([&] { return bridge_fileops_remove(root, "logs/a.log"); }), -ENOMEM);
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
