/* Random paths: whatever a server asks for, the real file lies right inside the row's real directory. */
#include "common/bridge_fileops.h"

#include "common/bridge_json_helpers.h"
#include "fileops/fileops_fixture.h"

#include <fnmatch.h>
#include <memory>
#include <random>

namespace fs = std::filesystem;

using text_owned = std::unique_ptr<char, bridge_release<free>>;

static constexpr int PATHS_A_SEED = 20'000;

class path_source
{
  public:
    explicit path_source(uint32_t seed) : random(seed)
    {
    }

    std::string next()
    {
        std::string path(random() % 3 == 0 ? 1 + random() % 3 : 0, '/');
        path += random() % 2 == 0 ? anything() : detour();
        path.append(random() % 6 == 0 ? 1 + random() % 2 : 0, '/');
        return path;
    }

  private:
    std::string anything()
    {
        std::string path;
        const size_t segments = random() % 9;
        for (size_t i = 0; i < segments; i++) {
            if (i > 0)
                path.append(1 + (random() % 4 == 0 ? random() % 3 : 0), '/');
            path += segment();
        }
        return path;
    }

    /* A row's file, or one beside the rows, by a road that resolves to it. */
    std::string detour()
    {
        static constexpr const char *roads[][3] = {
            {"logs", "a.log", ""},    {"logs", "up.log", ""},        {"logs", "c.txt", ""},
            {"logs_bkp", "b.gz", ""}, {"firmware", "out", ""},       {"firmware", "sub", ""},
            {"fir", "n", ""},         {"firmware", "opkg", "p.ipk"}, {"config", "a.json", ""},
            {"config", "x.key", ""},  {"plain", "rel", ""},          {"..", "firmware", "out"},
            {"firmware", "..", "a"},  {"firmware", "out", "secret"},
        };
        static constexpr const char *detours[] = {"",         "", "", "./", "/", "x/../", "out/./b/../../",
                                                  "../up/../"};
        std::string path;
        for (const char *step : roads[random() % std::size(roads)]) {
            path += detours[random() % (std::size(detours) - (path.empty() ? 1 : 0))];
            path += *step != '\0' ? std::string(step) + "/" : "";
        }
        return path;
    }

    /* Names of the tree and their beginnings, dots, links that lead out, and what tends to break things. */
    std::string segment()
    {
        static constexpr const char *names[] = {
            "logs",   "logs_bkp", "firmware",  "opkg",     "config",
            "plain",  "gone",     "motd",      "log",      "f",
            "fir",    "op",       "mot",       "release",  "a.log",
            "b.gz",   "x.key",    "a.json",    "c.txt",    "out",
            "up.log", "sub",      "..",        "..",       "..",
            "..",     ".",        ".",         "...",      "..log",
            ".log",   " ",        "*",         "*.log",    "[a].log",
            "\\",     "%s%n%d",   "%2e%2e",    "..%2f",    "журнал.log",
            "日志",   "\xff.log", "a\nb.json", "\x01\x7f", "~",
            "$(id)",  "-rf",      "a b.log",   "é.gz",     "e\xcc\x81.key",
        };
        const auto kind = random() % 40;
        if (kind == 0)
            return std::string(250 + random() % 20, 'n') + ".log";
        if (kind == 1)
            return std::string(4070 + random() % 40, 'l');
        return names[random() % std::size(names)];
    }

    std::mt19937 random;
};

/* The resolved path's segments, by the standard library. */
static std::vector<std::string> resolved(const std::string &path)
{
    std::vector<std::string> segments;
    for (const fs::path &segment : fs::path(path).lexically_normal().relative_path()) {
        if (!segment.empty() && segment != ".")
            segments.push_back(segment.string());
    }
    return segments;
}

static std::string join(const std::vector<std::string> &segments, bool absolute)
{
    std::string path = absolute ? "/" : "";
    for (const std::string &segment : segments)
        path += (&segment == segments.data() ? "" : "/") + segment;
    return path;
}

class FileopsPaths : public testing::TestWithParam<uint32_t>
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(bridge_log_init(BRIDGE_LOG_ERROR, true), 0);
        for (const char *name : {"outside/secret", "outside/a.log", "secret", "a.log", "fw/sub/kept",
                                 "log/a.log", "old/b.gz", "default/a.json", "fw/opkg/kept.ipk", "plain/motd"})
            real.make_file(name);
        fs::create_directory_symlink("../outside", real.below("fw/out"));
        fs::create_symlink("../outside/secret", real.below("log/up.log"));
    }

    /* `path` found the leaf `entry`. */
    void expect_inside(const bridge_fileops_entry *entry, const std::string &path,
                       const std::vector<std::string> &segments) const
    {
        char *raw = nullptr;
        ASSERT_EQ(bridge_fileops_real_path(entry, path.c_str(), &raw), 0) << path;
        const text_owned real_path(raw);
        if (entry->type == BRIDGE_FILEOPS_FILE) {
            EXPECT_STREQ(real_path.get(), entry->real_path) << path;
            return;
        }
        const std::string name = segments.back();
        EXPECT_STREQ(real_path.get(), (std::string(entry->real_path) + "/" + name).c_str()) << path;
        EXPECT_EQ(name.find('/'), std::string::npos) << path;
        EXPECT_NE(name, ".") << path;
        EXPECT_NE(name, "..") << path;
        EXPECT_EQ(fnmatch(entry->name, name.c_str(), FNM_PATHNAME), 0) << path;
        EXPECT_EQ(fs::path(real_path.get()).lexically_normal().parent_path(), entry->real_path) << path;
    }

    temporary_folder real;
    fileops_tree tree{real};
};

TEST_P(FileopsPaths, RealFilesLieRightInsideTheirRowsDirectory)
{
    captured_stderr log;
    path_source source(GetParam());
    int leaves = 0;
    for (int i = 0; i < PATHS_A_SEED; i++) {
        const std::string path = source.next();
        const bool absolute = path.starts_with('/');
        const std::vector<std::string> segments = resolved(path);
        const bridge_fileops_entry *entry = bridge_fileops_find_entry(&tree.root, path.c_str());

        const std::string direct = join(segments, absolute);
        if (direct.size() > 4095 || (!absolute && (segments.empty() || segments[0] == ".."))) {
            EXPECT_EQ(entry, nullptr) << path;
            continue;
        }
        EXPECT_EQ(entry, bridge_fileops_find_entry(&tree.root, direct.c_str())) << path;
        if (entry != nullptr && entry->type != BRIDGE_FILEOPS_DIR) {
            expect_inside(entry, path, segments);
            leaves++;
        }
    }
    EXPECT_GT(leaves, PATHS_A_SEED / 10);
    log.text();
}

TEST_P(FileopsPaths, ReplacedDirnameTakesOneSegmentAndNeverDots)
{
    captured_stderr log;
    path_source source(GetParam());
    for (int i = 0; i < PATHS_A_SEED; i++) {
        const std::string path = source.next();
        const std::vector<std::string> segments = resolved(path);
        const text_owned replaced(bridge_fileops_replace_dirname(path.c_str(), "/new"));
        if (segments.empty() || segments.back() == "..")
            EXPECT_EQ(replaced, nullptr) << path;
        else
            EXPECT_STREQ(replaced.get(), ("/new/" + segments.back()).c_str()) << path;
    }
    log.text();
}

/* Removing, cleaning and linking by random paths changes nothing beside the rows' directories. */
TEST_P(FileopsPaths, WorkStaysInTheRowsDirectories)
{
    captured_stderr log;
    path_source source(GetParam());
    for (int i = 0; i < PATHS_A_SEED / 4; i++) {
        const std::string path = source.next();
        const std::string other = source.next();
        const json_owned paths(json_object_new_array());
        json_object_array_add(paths.get(), json_object_new_string(other.c_str()));
        bridge_fileops_remove(&tree.root, path.c_str());
        bridge_fileops_link(&tree.root, other.c_str(), path.c_str());
        bridge_fileops_create_hardlinks_from_json(&tree.root, paths.get(), path.c_str());
        if (i % 50 == 0)
            bridge_fileops_clean(&tree.root, path.c_str());
    }
    log.text();

    for (const char *name : {"outside/secret", "outside/a.log", "secret", "a.log", "fw/sub/kept"})
        EXPECT_EQ(fs::hard_link_count(real.below(name)), 1U) << name;
    const auto count = [&](const char *name) {
        return std::distance(fs::directory_iterator(real.below(name)), fs::directory_iterator());
    };
    EXPECT_EQ(count("outside"), 2);
    EXPECT_EQ(count("fw/sub"), 1);
    EXPECT_EQ(count(""), 11);            /* eight directories of rows, "outside" and two files */
    EXPECT_FALSE(real.has("log/a.log")); /* some of the work was real */
}

INSTANTIATE_TEST_SUITE_P(Seeds, FileopsPaths, testing::Values(1U, 20'250'101U, 0xC0FFEEU));
