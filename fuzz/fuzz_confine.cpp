#include "fuzz_confine.h"

#include "fuzz.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <linux/magic.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

/* Of a report: the symbolizer, what it is linked with, and what the sanitizers look up. */
static constexpr const char *SHOWN[] = {"/usr/bin", "/usr/lib",  "/usr/lib64",
                                        "/proc",    "/dev/null", "/dev/urandom"};

/* The fuzzer's own folder in the new root, by which it knows that it is confined: to merge it starts itself
 * anew. */
static constexpr const char *OWN_FOLDER = "/.fuzz";

static constexpr const char *NEW_ROOT = "/tmp";

/* A folder or file of the host, which gets its own path below the new root. */
struct shown_path {
    fs::path path;
    bool is_folder;
    bool writable;
    int tree; /* its mount, which stands nowhere yet */
};

/* ---- namespaces ---- */

static void write_text(const char *path, const std::string &text)
{
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    FUZZ_REQUIRE(fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
    close(fd);
}

static void enter_namespaces()
{
    const std::string user = std::to_string(getuid());
    const std::string group = std::to_string(getgid());
    int end_signal = 0;
    prctl(PR_GET_PDEATHSIG, &end_signal);
    FUZZ_REQUIRE(unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWIPC) == 0);
    write_text("/proc/self/setgroups", "deny");
    write_text("/proc/self/uid_map", "0 " + user + " 1");
    write_text("/proc/self/gid_map", "0 " + group + " 1");
    prctl(PR_SET_PDEATHSIG, end_signal);
    FUZZ_REQUIRE(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0);
}

/* ---- what stays in sight ---- */

static void show(const fs::path &path, bool writable, std::vector<shown_path> *shown)
{
    const unsigned flags = OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE;
    const int tree = open_tree(AT_FDCWD, path.c_str(), flags);
    FUZZ_REQUIRE(tree >= 0);
    shown->push_back({path, fs::is_directory(path), writable, tree});
}

/* A word of the command line that names a path, or the folder of one: those that the fuzzer writes to by
 * their options, folders of a corpus by having none. */
static void show_named(const std::string &word, std::vector<shown_path> *shown)
{
    const bool is_option = word.starts_with('-');
    const size_t start = is_option ? word.find('=') + 1 : 0;
    if (is_option && (start == 0 || word.find('/') == std::string::npos))
        return;
    const fs::path path = fs::absolute(word.substr(start)).lexically_normal();
    const bool is_folder = fs::is_directory(path);
    const fs::path folder = is_folder ? path : path.parent_path();
    if (folder != "/" && fs::is_directory(folder))
        show(folder, is_option ? !word.starts_with("-dict=") : is_folder, shown);
}

static std::vector<shown_path> find_shown(int argc, char **argv, const char *read_only)
{
    std::vector<shown_path> shown;
    for (const char *path : SHOWN) {
        if (fs::exists(path))
            show(path, false, &shown);
    }
    show(read_only, false, &shown);
    show(fs::read_symlink("/proc/self/exe").parent_path(), false, &shown);
    for (int i = 1; i < argc; i++)
        show_named(argv[i], &shown);
    /* Those with others in them come first. */
    std::stable_sort(shown.begin(), shown.end(), [](const shown_path &a, const shown_path &b) {
        return a.path.native().size() < b.path.native().size();
    });
    return shown;
}

static void place(const shown_path &each)
{
    const std::string target = NEW_ROOT + each.path.native();
    fs::create_directories(each.is_folder ? fs::path(target) : fs::path(target).parent_path());
    if (!each.is_folder)
        close(open(target.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    FUZZ_REQUIRE(move_mount(each.tree, "", AT_FDCWD, target.c_str(), MOVE_MOUNT_F_EMPTY_PATH) == 0);
    close(each.tree);
    mount_attr read_only = {.attr_set = MOUNT_ATTR_RDONLY};
    FUZZ_REQUIRE(each.writable ||
                 mount_setattr(AT_FDCWD, target.c_str(), AT_RECURSIVE, &read_only, sizeof(read_only)) == 0);
}

/* ---- the new root ---- */

static void make_links(const std::string &root)
{
    fs::create_directory_symlink("usr/bin", root + "/bin");
    fs::create_directory_symlink("usr/lib64", root + "/lib64");
    /* No link: there is a folder of firmware in it. */
    fs::create_directory(root + "/lib");
    for (const fs::directory_entry &each : fs::directory_iterator("/usr/lib")) {
        if (each.path().filename() != "firmware")
            fs::create_symlink(each.path(), root + "/lib/" + each.path().filename().native());
    }
    fs::create_directory(root + "/tmp");
    fs::create_directory(root + OWN_FOLDER);
}

static bool is_confined()
{
    struct statfs status = {};
    return fs::exists(OWN_FOLDER) && statfs("/", &status) == 0 && status.f_type == TMPFS_MAGIC;
}

void fuzz_confine(int argc, char **argv, const char *read_only)
{
    if (is_confined())
        return;
    const std::string here = fs::current_path();
    enter_namespaces();
    const std::vector<shown_path> shown = find_shown(argc, argv, read_only);
    FUZZ_REQUIRE(mount("tmpfs", NEW_ROOT, "tmpfs", 0, "mode=0755") == 0);
    for (const shown_path &each : shown)
        place(each);
    make_links(NEW_ROOT);
    fs::create_directories(NEW_ROOT + here);
    FUZZ_REQUIRE(chdir(NEW_ROOT) == 0 && chroot(".") == 0 && chdir(here.c_str()) == 0);
    setenv("TMPDIR", OWN_FOLDER, 1);
}
