/* No path leads out of the directories of the tree's rows, whatever is in it: random paths through all calls
 * that take one, over real directories with files beside them that nothing may touch. */
#include "common/bridge_fileops.h"

#include "common/bridge_json_helpers.h"
#include "fileops/fileops_fixture.h"

#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string_view>
#include <sys/stat.h>

namespace fs = std::filesystem;

using text_owned = std::unique_ptr<char, bridge_release<free>>;

static constexpr int PATHS = 20000;
static constexpr int PATHS_OF_A_LOOK = 50;

/* The first are the tree's own: every second path starts with one. */
static constexpr size_t ROWS_OF_THE_ROOT = 7;

/* Everything of a path's way that a server may think of. */
static std::vector<std::string> pieces(const std::string &real)
{
    return {"logs",
            "logs_bkp",
            "firmware",
            "opkg",
            "config",
            "plain",
            "gone",
            "motd",
            "release",
            "run.sh",
            "log",
            "f",
            "a.log",
            "b.gz",
            "c.txt",
            "x.json",
            "k.key",
            "out.log",
            "out",
            "outside",
            "canary",
            "canary.log",
            "..",
            "..",
            "..",
            ".",
            "",
            "...",
            ".. ",
            " ",
            "*",
            "?.log",
            "[a]",
            "\\..\\",
            "%s%n",
            "\x01",
            "\xff\xfe",
            "~",
            "etc",
            "..log",
            "logs/..",
            "/../..",
            real,
            real + "/outside/canary",
            std::string(255, 'n'),
            std::string(300, 'n') + ".log",
            std::string(4090, 'n'),
            std::string(2000, '.')};
}

/* What a path means, worked out by the standard library and by the rules of the tree. */
struct meaning {
    const bridge_fileops_entry *entry;
    std::string last;
};

static bool matches(const bridge_fileops_entry &row, const std::string &segment)
{
    if (row.type != BRIDGE_FILEOPS_GLOB)
        return std::string_view(row.name).starts_with(segment);
    /* The globs of this tree are a star and a suffix. */
    return segment.ends_with(row.name + 1);
}

static meaning meaning_of(const bridge_fileops_entry *root, const std::string &path)
{
    std::vector<std::string> segments;
    for (const fs::path &segment : fs::path(path).lexically_normal().relative_path()) {
        if (!segment.empty() && segment != ".")
            segments.push_back(segment);
    }
    const bool is_absolute = path.starts_with('/');
    size_t length = segments.empty() || is_absolute ? 1 : 0;
    for (const std::string &segment : segments)
        length += segment.size() + 1;
    if (!segments.empty())
        length--;
    const bool leads_nowhere = (segments.empty() && !is_absolute) || length >= 4096;
    const bridge_fileops_entry *entry = leads_nowhere ? nullptr : root;
    for (size_t i = 0; i < segments.size() && entry != nullptr; i++) {
        const bridge_fileops_entry *dir = entry;
        entry = nullptr;
        for (uint32_t j = 0; j < dir->child_count && entry == nullptr; j++) {
            const bridge_fileops_entry &row = dir->children[j];
            if ((i + 1 == segments.size() || row.type == BRIDGE_FILEOPS_DIR) && matches(row, segments[i]))
                entry = &row;
        }
    }
    return {entry, segments.empty() ? "" : segments.back()};
}

/* Names, kinds, contents and the number of links of all that is not directly in a row's directory. */
static std::map<std::string, std::string> all_outside(const temporary_folder &real)
{
    std::map<std::string, std::string> found;
    for (const std::string &folder : {real.path, real.below("outside")}) {
        for (const fs::directory_entry &each : fs::directory_iterator(folder)) {
            struct stat status = {};
            lstat(each.path().c_str(), &status);
            std::ostringstream text;
            text << std::oct << status.st_mode;
            if (S_ISREG(status.st_mode))
                text << ' ' << status.st_nlink << ' ' << std::ifstream(each.path()).rdbuf();
            found[each.path()] = text.str();
        }
    }
    return found;
}

class FileopsRoads : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(bridge_log_init(BRIDGE_LOG_ERROR, true), 0);
        for (const char *name : {"canary", "canary.log", "outside/canary", "outside/canary.log", "log.log"})
            real.make_file(name, "untouched");
        refill();
        outside = all_outside(real);
    }

    /* Files to find, links that lead out, and an empty directory. */
    void refill() const
    {
        for (const char *name : {"log/a.log", "old/b.gz", "old/c.txt", "fw/a.log", "fw/opkg/a.log",
                                 "default/x.json", "bstn/k.key", "plain/release", "plain/run.sh"})
            real.make_file(name);
        fs::create_directories(real.below("fw/etc"));
        for (const char *name : {"log/out.log", "fw/out", "fw/opkg/out", "fw/opkg/out.log"}) {
            std::error_code ignored;
            const bool shows_file = strstr(name, ".log") != nullptr;
            fs::create_symlink(real.below(shows_file ? "outside/canary" : "outside"), real.below(name),
                               ignored);
        }
    }

    std::string random_path()
    {
        std::string path = at_random(3) == 0 ? "/" : "";
        if (at_random(2) == 0)
            path += words[at_random(ROWS_OF_THE_ROOT)] + "/";
        for (size_t left = at_random(7); left > 0; left--) {
            path += words[at_random(words.size())];
            path += at_random(8) == 0 ? "//" : "/";
        }
        if (at_random(2) == 0 && !path.empty())
            path.pop_back();
        return path;
    }

    size_t at_random(size_t count)
    {
        return std::uniform_int_distribution<size_t>(0, count - 1)(numbers);
    }

    /* As streaming, fetching and executing do it. */
    void check_real_path(const std::string &path)
    {
        const bridge_fileops_entry *entry = bridge_fileops_find_file(root, path.c_str());
        if (entry == nullptr)
            return;
        char *real_path = nullptr;
        ASSERT_EQ(bridge_fileops_real_path(entry, path.c_str(), &real_path), 0) << path;
        const text_owned owned(real_path);
        const std::string last = meaning_of(root, path).last;
        ASSERT_TRUE(last != "." && last != ".." && last.find('/') == std::string::npos) << path;
        const bool is_glob = entry->type == BRIDGE_FILEOPS_GLOB;
        ASSERT_EQ(std::string(real_path),
                  is_glob ? std::string(entry->real_path) + "/" + last : std::string(entry->real_path))
            << path;
    }

    void check_look_up(const std::string &path)
    {
        const bridge_fileops_entry *wanted = meaning_of(root, path).entry;
        ASSERT_EQ(bridge_fileops_find_entry(root, path.c_str()), wanted) << path;
        files_found += wanted != nullptr && wanted->type != BRIDGE_FILEOPS_DIR ? 1 : 0;
    }

    void check_scan(const std::string &path)
    {
        const json_owned items(json_object_new_array());
        const int rc = bridge_fileops_scandir_to_existing_json(root, path.c_str(), items.get());
        ASSERT_TRUE(rc == 0 || rc == -ENOENT) << path;
        for (size_t i = 0; i < json_object_array_length(items.get()); i++) {
            json_object *name = nullptr;
            json_object_object_get_ex(json_object_array_get_idx(items.get(), i), "name", &name);
            ASSERT_EQ(strstr(json_object_get_string(name), "canary"), nullptr) << path;
        }
    }

    void link_and_remove(const std::string &path, const std::string &other)
    {
        bridge_fileops_link(root, path.c_str(), other.c_str());
        const json_owned paths(json_object_new_array());
        /* As it comes in a request: a text may have a NUL in it. */
        for (const std::string &each : {path, other + '\0' + path})
            json_object_array_add(paths.get(),
                                  json_object_new_string_len(each.data(), static_cast<int>(each.size())));
        bridge_fileops_create_hardlinks_from_json(root, paths.get(), "logs_bkp");
        bridge_fileops_create_hardlinks_from_json(root, paths.get(), other.c_str());
        bridge_fileops_remove(root, path.c_str());
        if (at_random(20) == 0)
            bridge_fileops_clean(root, other.c_str());
    }

    /* The calls' complaints are of no interest. */
    template <typename Call> void quietly(Call call)
    {
        captured_stderr log;
        call();
    }

    temporary_folder real;
    fileops_tree tree{real};
    const bridge_fileops_entry *root = &tree.root;
    std::vector<std::string> words = pieces(real.path);
    std::mt19937 numbers{1}; // NOLINT(cert-msc32-c,cert-msc51-cpp): the same paths each time
    std::map<std::string, std::string> outside;
    int files_found = 0;
};

TEST_F(FileopsRoads, APathMeansWhatItsNormalFormMeans)
{
    quietly([&] {
        for (int i = 0; i < PATHS && !HasFatalFailure(); i++) {
            const std::string path = random_path();
            check_look_up(path);
            check_real_path(path);
        }
    });
    EXPECT_GT(files_found, PATHS / 50) << "too few of the paths lead anywhere";
}

TEST_F(FileopsRoads, NothingOutsideTheRowsIsListedLinkedOrRemoved)
{
    for (int i = 0; i < PATHS / 4 && !HasFatalFailure(); i += PATHS_OF_A_LOOK) {
        std::string tried;
        quietly([&] {
            for (int j = 0; j < PATHS_OF_A_LOOK && !HasFatalFailure(); j++) {
                const std::string path = random_path();
                const std::string other = random_path();
                check_scan(path);
                link_and_remove(path, other);
                tried += path + " | " + other + "\n";
            }
        });
        ASSERT_EQ(all_outside(real), outside) << "after one of\n" << tried;
        refill();
    }
}

/* Each of these would lead out if one step of the resolving were missing. */
TEST_F(FileopsRoads, WellKnownWaysOut)
{
    for (const char *path : {"../canary",
                             "/../canary",
                             "firmware/../canary",
                             "firmware/../../canary",
                             "firmware/..",
                             "firmware/x/../..",
                             "firmware/opkg/../..",
                             "firmware/opkg/../../canary",
                             "firmware/./../canary",
                             "firmware//..//canary",
                             "firmware/out/canary",
                             "firmware/opkg/out/canary",
                             "logs/out.log/../canary",
                             "firmware/a/b/..",
                             "firmware/etc/../../outside/canary",
                             "logs/../../outside/canary.log",
                             "../../../../../../../../etc/passwd",
                             "/etc/passwd",
                             "plain/release/../../../canary",
                             "motd/../../canary",
                             "firmware/..\\..\\canary/../.."}) {
        quietly([&] {
            check_look_up(path);
            check_real_path(path);
            check_scan(path);
            link_and_remove(path, "firmware/copy");
            link_and_remove("firmware/a.log", path);
        });
        ASSERT_FALSE(HasFatalFailure()) << path;
        ASSERT_EQ(all_outside(real), outside) << path;
        refill();
    }
}

/* What stands at the end of the way is taken for itself. */
TEST_F(FileopsRoads, ALinkIsLinkedAndRemovedNotWhatItShows)
{
    quietly([&] {
        ASSERT_EQ(bridge_fileops_link(root, "logs/out.log", "logs_bkp/copy.log"), 0);
        ASSERT_EQ(bridge_fileops_remove(root, "logs/out.log"), 0);
    });
    EXPECT_TRUE(fs::is_symlink(real.below("log_bkp/copy.log")));
    EXPECT_FALSE(real.has("log/out.log"));
    EXPECT_EQ(all_outside(real), outside);
}
