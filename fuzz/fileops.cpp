/* Paths of a server through the tree of virtual files, which here stands over real directories with a file
 * beside them that nothing may touch. Input: two paths, parted by a line end. */
#include "common/bridge_fileops.h"
#include "common/bridge_json_helpers.h"
#include "fuzz.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <span>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

using dir_owned = std::unique_ptr<DIR, bridge_release<closedir>>;
using text_owned = std::unique_ptr<char, bridge_release<free>>;

/* ---- the tree ---- */

static constexpr bridge_fileops_entry glob_row(const char *glob, const char *real_dir, uint32_t access)
{
    return {.type = BRIDGE_FILEOPS_GLOB, .access = access, .name = glob, .real_path = real_dir};
}

template <size_t Count>
static constexpr bridge_fileops_entry dir_row(const char *name, const bridge_fileops_entry (&children)[Count])
{
    return {.type = BRIDGE_FILEOPS_DIR, .name = name, .children = children, .child_count = Count};
}

static bridge_fileops_entry logs_rows[] = {glob_row("*.log", "rows/log", 1), glob_row("*.gz", "rows/old", 1)};
static bridge_fileops_entry copies_rows[] = {glob_row("*.log", "rows/copies", 1)};
static bridge_fileops_entry opkg_rows[] = {glob_row("*", "rows/fw/opkg", 3)};
static bridge_fileops_entry firmware_rows[] = {dir_row("opkg", opkg_rows), glob_row("*", "rows/fw", 3)};
static bridge_fileops_entry config_rows[] = {glob_row("mqtt*.conf", "rows/default", 3)};
static bridge_fileops_entry root_rows[] = {
    dir_row("logs", logs_rows),
    dir_row("logs_bkp", copies_rows),
    dir_row("firmware", firmware_rows),
    dir_row("config", config_rows),
    {.type = BRIDGE_FILEOPS_FILE, .access = 1, .name = "motd", .real_path = "rows/motd"},
};
static const bridge_fileops_entry root = dir_row("/", root_rows);

static constexpr const char *FOLDERS[] = {"rows",    "rows/log",     "rows/old",     "rows/copies",
                                          "rows/fw", "rows/fw/opkg", "rows/default", "outside"};
static constexpr const char *FILES[] = {"rows/log/a.log",     "rows/old/b.gz",           "rows/fw/a.log",
                                        "rows/fw/opkg/p.log", "rows/default/mqtt1.conf", "rows/motd"};
static constexpr const char *CANARIES[] = {"canary", "canary.log", "rows/canary.log", "outside/canary",
                                           "outside/canary.log"};

/* Real paths get the folder that the target works in before them. */
static void place(std::span<bridge_fileops_entry> rows, const std::string &folder)
{
    for (bridge_fileops_entry &row : rows) {
        if (row.real_path != nullptr)
            row.real_path = strdup((folder + "/" + row.real_path).c_str());
    }
}

static std::string work;
static int work_fd = -1;

static void make_file(const char *path)
{
    const bridge_fd fd(openat(work_fd, path, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    FUZZ_REQUIRE(fd.get() >= 0);
}

static void remove_files(const char *path)
{
    const int fd = openat(work_fd, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    FUZZ_REQUIRE(fd >= 0);
    const dir_owned folder(fdopendir(fd));
    while (const dirent *each = readdir(folder.get())) {
        if (each->d_type != DT_DIR)
            unlinkat(fd, each->d_name, 0);
    }
}

/* Each input finds the same files, with links among them that lead out: after one that has changed any. */
static void refill()
{
    for (const char *folder : FOLDERS) {
        if (strncmp(folder, "rows/", 5) == 0)
            remove_files(folder);
    }
    for (const char *file : FILES)
        make_file(file);
    FUZZ_REQUIRE(symlinkat("../../outside/canary", work_fd, "rows/log/out.log") == 0);
    FUZZ_REQUIRE(symlinkat("../../outside", work_fd, "rows/fw/out") == 0);
}

/* ---- what holds for every path ---- */

static void check_canaries()
{
    for (const char *path : CANARIES) {
        struct stat status = {};
        FUZZ_REQUIRE(fstatat(work_fd, path, &status, AT_SYMLINK_NOFOLLOW) == 0);
        FUZZ_REQUIRE(S_ISREG(status.st_mode) && status.st_nlink == 1 && status.st_size == 0);
    }
    struct stat status = {};
    FUZZ_REQUIRE(fstatat(work_fd, "outside", &status, 0) == 0 && status.st_nlink == 2);
}

/* As streaming, fetching and executing find the real file: directly in the row's directory. */
static void check_real_path(const char *path)
{
    const bridge_fileops_entry *entry = bridge_fileops_find_file(&root, path);
    if (entry == nullptr)
        return;
    char *real_path = nullptr;
    FUZZ_REQUIRE(bridge_fileops_real_path(entry, path, &real_path) == 0);
    const text_owned owned(real_path);
    std::string_view rest = real_path;
    const std::string_view directory = entry->real_path;
    FUZZ_REQUIRE(rest.starts_with(directory));
    rest.remove_prefix(directory.size());
    if (entry->type != BRIDGE_FILEOPS_GLOB) {
        FUZZ_REQUIRE(rest.empty());
        return;
    }
    FUZZ_REQUIRE(rest.size() > 1 && rest.starts_with('/') && rest.find('/', 1) == std::string_view::npos);
    FUZZ_REQUIRE(rest != "/." && rest != "/..");
}

static void check_scan(const char *path)
{
    const json_owned items(json_object_new_array());
    const int rc = bridge_fileops_scandir_to_existing_json(&root, path, items.get());
    FUZZ_REQUIRE(rc == 0 || rc == -ENOENT);
    FUZZ_REQUIRE((rc == 0) == (bridge_fileops_find_dir(&root, path) != nullptr));
    const std::string text = json_object_to_json_string(items.get());
    FUZZ_REQUIRE(text.find("canary") == std::string::npos);
}

static int link_both(const char *path, const char *other)
{
    const json_owned paths(json_object_new_array());
    json_object_array_add(paths.get(), json_object_new_string(path));
    json_object_array_add(paths.get(), json_object_new_string(other));
    return bridge_fileops_create_hardlinks_from_json(&root, paths.get(), "logs_bkp");
}

static void remove_work()
{
    std::error_code ignored;
    std::filesystem::remove_all(work, ignored);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_init_log();
    char folder[] = "/tmp/fuzz_fileops_XXXXXX";
    FUZZ_REQUIRE(mkdtemp(folder) != nullptr);
    work = folder;
    atexit(remove_work);
    work_fd = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (const std::span<bridge_fileops_entry> rows :
         {std::span<bridge_fileops_entry>(logs_rows), std::span<bridge_fileops_entry>(copies_rows),
          std::span<bridge_fileops_entry>(opkg_rows), std::span<bridge_fileops_entry>(firmware_rows),
          std::span<bridge_fileops_entry>(config_rows), std::span<bridge_fileops_entry>(root_rows)})
        place(rows, work);
    for (const char *path : FOLDERS)
        FUZZ_REQUIRE(mkdirat(work_fd, path, 0700) == 0);
    for (const char *path : CANARIES)
        make_file(path);
    refill();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const uint8_t *line_end = std::find(data, data + size, '\n');
    const size_t length = static_cast<size_t>(line_end - data);
    const size_t skipped = std::min(length + 1, size);
    const auto path = fuzz_exact_text(data, length);
    const auto other = fuzz_exact_text(data + skipped, size - skipped);

    const int descriptor = fuzz_free_descriptor();
    for (const char *each : {path.get(), other.get()}) {
        check_real_path(each);
        check_scan(each);
    }
    const int results[] = {
        bridge_fileops_link(&root, path.get(), other.get()),
        link_both(path.get(), other.get()),
        bridge_fileops_remove(&root, path.get()),
        bridge_fileops_clean(&root, other.get()),
    };
    FUZZ_REQUIRE(*std::max_element(std::begin(results), std::end(results)) <= 0);
    check_scan(other.get());
    if (std::count(std::begin(results), std::end(results), 0) > 0)
        refill();
    check_canaries();
    FUZZ_REQUIRE(fuzz_free_descriptor() == descriptor);
    return 0;
}
