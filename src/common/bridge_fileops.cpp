/* The tree, the look-up in it, and the listing, linking and removing of files through it. */
#include "common/bridge_fileops.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <iterator>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

static constexpr size_t PATH_CAPACITY = 4096;

using text_owned = std::unique_ptr<char, bridge_release<free>>;
using dir_owned = std::unique_ptr<DIR, bridge_release<closedir>>;

struct path_buffer {
    char text[PATH_CAPACITY];
};

/* ---- the tree ---- */

static constexpr uint32_t R = BRIDGE_FILEOPS_READ;
static constexpr uint32_t W = BRIDGE_FILEOPS_WRITE;
static constexpr uint32_t X = BRIDGE_FILEOPS_EXECUTE;

static constexpr bridge_fileops_entry glob_row(const char *glob, const char *real_dir, uint32_t access,
                                               const char *tmst_path = nullptr)
{
    return {.type = BRIDGE_FILEOPS_GLOB,
            .access = access,
            .name = glob,
            .real_path = real_dir,
            .tmst_path = tmst_path};
}

template <size_t Count>
static constexpr bridge_fileops_entry dir_row(const char *name, const bridge_fileops_entry (&children)[Count])
{
    return {.type = BRIDGE_FILEOPS_DIR, .name = name, .children = children, .child_count = Count};
}

/* The order of the rows is the order of matching and of listing. */
/* clang-format off */
static constexpr bridge_fileops_entry logs_rows[] = {
    glob_row("*.log", "/var/log",      R),
    glob_row("*.gz",  "/var/lib/logs", R),
    glob_row("*.txt", "/var/lib/logs", R),
};
static constexpr bridge_fileops_entry logs_bkp_rows[] = {
    glob_row("*.log", "/var/log/.snv_bridge_bkp",      R, "/var/log/.snv_bridge_bkp.tmst"),
    glob_row("*.gz",  "/var/lib/logs/.snv_bridge_bkp", R, "/var/lib/logs/.snv_bridge_bkp.tmst"),
};
static constexpr bridge_fileops_entry opkg_rows[] = {
    glob_row("*", "/lib/firmware/opkg", R | W),
};
/* The directory goes first: the glob below it matches its name too. */
static constexpr bridge_fileops_entry firmware_rows[] = {
    dir_row("opkg", opkg_rows),
    glob_row("*", "/lib/firmware", R | W, "/lib/firmware/.snv_bridge.tmst"),
};
static constexpr bridge_fileops_entry modem_rows[] = {
    glob_row("*", "/dev/shm/modem_downloads", R | W, "/dev/shm/modem_downloads/.snv_bridge.tmst"),
};
static constexpr bridge_fileops_entry scripts_rows[] = {
    glob_row("*", "/usr/share/snv-mqtt-bridge/scripts", R | X),
};
static constexpr bridge_fileops_entry config_rows[] = {
    glob_row("*.json",          "/etc/default", R | W),
    glob_row("mqtt*.conf",      "/etc/default", R | W),
    glob_row("*-feed.conf",     "/etc/opkg",    R | W),
    glob_row("awsiot-tunnel.*", "/etc/awsiot",  W),
    glob_row("*.key",           "/etc/bstn",    W),
};
static constexpr bridge_fileops_entry shm_rows[] = {
    glob_row("*", "/dev/shm", R | W),
};
static constexpr bridge_fileops_entry root_rows[] = {
    dir_row("logs",     logs_rows),
    dir_row("logs_bkp", logs_bkp_rows),
    dir_row("firmware", firmware_rows),
    dir_row("modem",    modem_rows),
    dir_row("scripts",  scripts_rows),
    dir_row("config",   config_rows),
    dir_row("shm",      shm_rows),
};
/* clang-format on */
static_assert(std::size(root_rows) == 7);

constexpr bridge_fileops_entry fileops_root = dir_row("/", root_rows);

/* By the value of the rights. No leaf is without any. */
static constexpr const char *ACCESS_TEXTS[] = {"", "r", "w", "rw", "x", "rx", "wx", "rwx"};
static_assert(std::size(ACCESS_TEXTS) == 8);

static const char *access_text(uint32_t access)
{
    BRIDGE_ASSERT(access < std::size(ACCESS_TEXTS));
    return ACCESS_TEXTS[access];
}

/* ---- paths ---- */

/* Cuts the last segment off the path; empty when none is left. */
static std::string_view cut_last_segment(std::string_view *path)
{
    const size_t last = path->find_last_not_of('/');
    if (last == std::string_view::npos)
        return {};
    const size_t slash = path->rfind('/', last);
    const size_t first = slash == std::string_view::npos ? 0 : slash + 1;
    const std::string_view segment = path->substr(first, last + 1 - first);
    path->remove_suffix(path->size() - first);
    return segment;
}

/* The last segment that no "." and ".." takes away; empty when none is left. `parents` counts the ".." that
 * still wait for a segment to take, from call to call. */
static std::string_view cut_resolved_segment(std::string_view *path, size_t *parents)
{
    for (;;) {
        const std::string_view segment = cut_last_segment(path);
        if (segment == "..")
            ++*parents;
        else if (segment.empty() || (segment != "." && *parents == 0))
            return segment;
        else if (segment != ".")
            --*parents;
    }
}

/* The text grows from the buffer's end; what does not fit is only counted. */
static void prepend(path_buffer *path, size_t *length, std::string_view text)
{
    *length += text.size();
    if (*length < PATH_CAPACITY)
        memcpy(path->text + PATH_CAPACITY - 1 - *length, text.data(), text.size());
}

static void prepend_segment(path_buffer *path, size_t *length, std::string_view segment)
{
    if (*length > 0)
        prepend(path, length, "/");
    prepend(path, length, segment);
}

/* Resolves ".", ".." and repeated slashes by the text alone. An absolute path stays below "/", a relative one
 * keeps the ".." that lead out of it, and an empty one is ".". False when the result is too long. */
static bool normalize_path(const char *original, path_buffer *normalized)
{
    std::string_view rest = original;
    const bool absolute = rest.starts_with('/');
    size_t parents = 0;
    size_t length = 0;
    for (;;) {
        const std::string_view segment = cut_resolved_segment(&rest, &parents);
        if (segment.empty())
            break;
        prepend_segment(normalized, &length, segment);
    }
    for (; !absolute && parents > 0; parents--)
        prepend_segment(normalized, &length, "..");
    if (absolute)
        prepend(normalized, &length, "/");
    else if (length == 0)
        prepend(normalized, &length, ".");

    if (length >= PATH_CAPACITY)
        return false;
    memmove(normalized->text, normalized->text + PATH_CAPACITY - 1 - length, length);
    normalized->text[length] = '\0';
    return true;
}

/* Cuts the first segment off a normalized path; empty when none is left. */
static std::string_view cut_first_segment(std::string_view *path)
{
    if (path->starts_with('/'))
        path->remove_prefix(1);
    const std::string_view segment = path->substr(0, path->find('/'));
    path->remove_prefix(segment.size());
    return segment;
}

char *bridge_fileops_join_path(const char *prefix_path, const char *segment, size_t length)
{
    if (*prefix_path == '\0' && *segment == '\0') {
        BRIDGE_ERROR("empty prefix and segment are not allowed");
        return nullptr;
    }
    const size_t taken = length == 0 ? strlen(segment) : length;
    char *joined = nullptr;
    if (asprintf(&joined, "%s/%.*s", prefix_path, static_cast<int>(taken), segment) < 0)
        return nullptr;
    return joined;
}

/* The segment is the resolved one, as in the look-up: taken as it stands, the ".." of "firmware/a/b/.." would
 * lead out of the row's directory. */
char *bridge_fileops_replace_dirname(const char *original, const char *new_dirname)
{
    std::string_view rest = original;
    size_t parents = 0;
    const std::string_view segment = cut_resolved_segment(&rest, &parents);
    if (segment.empty()) {
        BRIDGE_ERROR("failed to extract segment from path");
        return nullptr;
    }
    return bridge_fileops_join_path(new_dirname, segment.data(), segment.size());
}

char *bridge_fileops_last_segment(const char *path)
{
    std::string_view rest = path;
    size_t parents = 0;
    const std::string_view segment = cut_resolved_segment(&rest, &parents);
    return segment.empty() ? nullptr : strndup(segment.data(), segment.size());
}

/* ---- look-up ---- */

/* A plain name is compared over the length that was asked for, so that its beginning matches as well: servers
 * are free to ask for "log". */
static bool entry_matches(const bridge_fileops_entry *entry, const char *name, size_t length)
{
    if (entry->type != BRIDGE_FILEOPS_GLOB)
        return strncmp(entry->name, name, length) == 0;

    const text_owned copy(strndup(name, length));
    if (copy == nullptr) {
        BRIDGE_ERROR("failed to allocate buffer for path\n");
        return false;
    }
    return fnmatch(entry->name, copy.get(), FNM_PATHNAME) == 0;
}

/* On the way down only directories are taken. */
static const bridge_fileops_entry *find_child(const bridge_fileops_entry *dir, std::string_view segment,
                                              bool is_last)
{
    for (uint32_t i = 0; i < dir->child_count; i++) {
        const bridge_fileops_entry *child = &dir->children[i];
        if (!is_last && child->type != BRIDGE_FILEOPS_DIR)
            continue;
        if (entry_matches(child, segment.data(), segment.size()))
            return child;
    }
    return nullptr;
}

const bridge_fileops_entry *bridge_fileops_find_entry(const bridge_fileops_entry *root, const char *virtpath)
{
    BRIDGE_ASSERT(root);
    BRIDGE_ASSERT(virtpath);
    BRIDGE_ASSERT(root->type == BRIDGE_FILEOPS_DIR);
    BRIDGE_DEBUG("request to find: %s", virtpath);

    path_buffer normalized;
    if (!normalize_path(virtpath, &normalized)) {
        BRIDGE_ERROR("path is too long to normalize");
        return nullptr;
    }
    std::string_view rest = normalized.text;
    if (rest == "/")
        return root;
    std::string_view segment = cut_first_segment(&rest);
    if (segment.empty()) {
        BRIDGE_ERROR("failed to extract normalized segment from path: %s", virtpath);
        return nullptr;
    }
    const bridge_fileops_entry *entry = root;
    while (entry != nullptr && !segment.empty()) {
        BRIDGE_TRACE("processing segment: %.*s", static_cast<int>(segment.size()), segment.data());
        const std::string_view next = cut_first_segment(&rest);
        entry = find_child(entry, segment, next.empty());
        segment = next;
    }
    return entry;
}

const bridge_fileops_entry *bridge_fileops_find_dir(const bridge_fileops_entry *root, const char *virtpath)
{
    const bridge_fileops_entry *entry = bridge_fileops_find_entry(root, virtpath);
    return entry != nullptr && entry->type == BRIDGE_FILEOPS_DIR ? entry : nullptr;
}

const bridge_fileops_entry *bridge_fileops_find_file(const bridge_fileops_entry *root, const char *virtpath)
{
    const bridge_fileops_entry *entry = bridge_fileops_find_entry(root, virtpath);
    return entry != nullptr && entry->type != BRIDGE_FILEOPS_DIR ? entry : nullptr;
}

int bridge_fileops_real_path(const bridge_fileops_entry *entry, const char *virtpath, char **real_path)
{
    *real_path = nullptr;
    if (entry->real_path == nullptr) {
        BRIDGE_ERROR("path processing failed");
        return -EINVAL;
    }
    *real_path = entry->type == BRIDGE_FILEOPS_GLOB
                     ? bridge_fileops_replace_dirname(virtpath, entry->real_path)
                     : strdup(entry->real_path);
    return *real_path != nullptr ? 0 : -ENOMEM;
}

/* ---- link and remove ---- */

static int normalize_for_link(const char *original, path_buffer *normalized)
{
    if (normalize_path(original, normalized))
        return 0;
    BRIDGE_ERROR("path %s is too long to normalize", original);
    return -EINVAL;
}

static const bridge_fileops_entry *find_for_link(const bridge_fileops_entry *root, const path_buffer *path)
{
    const bridge_fileops_entry *entry = bridge_fileops_find_file(root, path->text);
    if (entry == nullptr)
        BRIDGE_ERROR("%s is not found in the tree", path->text);
    return entry;
}

static int real_path_of(const bridge_fileops_entry *entry, const char *virtpath, text_owned *owned)
{
    char *real_path = nullptr;
    const int rc = bridge_fileops_real_path(entry, virtpath, &real_path);
    owned->reset(real_path);
    return rc;
}

int bridge_fileops_link(const bridge_fileops_entry *root, const char *oldpath, const char *newpath)
{
    BRIDGE_ASSERT(oldpath);
    BRIDGE_ASSERT(newpath);
    BRIDGE_DEBUG("request to create link from %s to %s", oldpath, newpath);

    path_buffer old_normalized;
    path_buffer new_normalized;
    if (normalize_for_link(oldpath, &old_normalized) < 0 || normalize_for_link(newpath, &new_normalized) < 0)
        return -EINVAL;

    const bridge_fileops_entry *old_entry = find_for_link(root, &old_normalized);
    if (old_entry == nullptr)
        return -ENOENT;
    const bridge_fileops_entry *new_entry = find_for_link(root, &new_normalized);
    if (new_entry == nullptr)
        return -ENOENT;

    text_owned old_real;
    int rc = real_path_of(old_entry, old_normalized.text, &old_real);
    if (rc < 0)
        return rc;
    text_owned new_real;
    rc = real_path_of(new_entry, new_normalized.text, &new_real);
    if (rc < 0)
        return rc;

    BRIDGE_DEBUG("request to link files: %s -> %s", old_real.get(), new_real.get());
    if (link(old_real.get(), new_real.get()) < 0) {
        const int code = errno;
        BRIDGE_ERROR("link failed with error: %m");
        return -code;
    }
    return 0;
}

int bridge_fileops_remove(const bridge_fileops_entry *root, const char *filepath)
{
    BRIDGE_ASSERT(filepath);
    BRIDGE_DEBUG("request to remove: %s", filepath);

    const bridge_fileops_entry *entry = bridge_fileops_find_file(root, filepath);
    if (entry == nullptr) {
        BRIDGE_ERROR("no such file: %s", filepath);
        return -ENOENT;
    }
    text_owned real_path;
    const int rc = real_path_of(entry, filepath, &real_path);
    if (rc < 0)
        return rc;

    BRIDGE_DEBUG("removing real file: %s", real_path.get());
    if (remove(real_path.get()) < 0) {
        const int code = errno;
        BRIDGE_ERROR("remove failed: %m");
        return -code;
    }
    return 0;
}

/* ---- clean ---- */

/* The next name that the glob matches, directories left out; null at the end. */
static const char *next_match(DIR *dir, const bridge_fileops_entry *entry)
{
    // cppcheck-suppress readdirCalled; the stream is the caller's alone
    while (const dirent *found = readdir(dir)) {
        BRIDGE_TRACE("checking %s", found->d_name);
        if (strcmp(found->d_name, ".") == 0 || strcmp(found->d_name, "..") == 0 || found->d_type == DT_DIR ||
            !entry_matches(entry, found->d_name, strlen(found->d_name)))
            continue;
        BRIDGE_TRACE("found a match: %s -> %s", entry->name, found->d_name);
        return found->d_name;
    }
    return nullptr;
}

int bridge_fileops_clean_glob(const bridge_fileops_entry *entry)
{
    BRIDGE_ASSERT(entry);
    const dir_owned dir(opendir(entry->real_path));
    if (dir == nullptr) {
        BRIDGE_INFO("can't access dir: %s, skipping cleaning it", entry->real_path);
        return 0;
    }
    const int fd = dirfd(dir.get());
    if (fd < 0) {
        BRIDGE_ERROR("failed to obtain dir descriptor: %m");
        return 0;
    }
    int rc = 0;
    while (const char *name = next_match(dir.get(), entry)) {
        if (unlinkat(fd, name, 0) == 0)
            continue;
        BRIDGE_ERROR("failed to delete a file: %s", name);
        rc = -ECANCELED;
    }
    return rc;
}

static int clean_file(const char *real_path)
{
    if (remove(real_path) == 0)
        return 0;
    const int code = errno;
    if (code == ENOENT) {
        BRIDGE_DEBUG("skipping deletion of missing file: %s", real_path);
        return 0;
    }
    BRIDGE_ERROR("remove failed: %m");
    return -code;
}

static int clean_entry(const bridge_fileops_entry *entry)
{
    switch (entry->type) {
    case BRIDGE_FILEOPS_FILE:
        return clean_file(entry->real_path);
    case BRIDGE_FILEOPS_GLOB:
        return bridge_fileops_clean_glob(entry);
    default:
        return 0;
    }
}

static const bridge_fileops_entry *fetch_dir(const bridge_fileops_entry *root, const char *dirpath)
{
    const bridge_fileops_entry *dir = bridge_fileops_find_dir(root, dirpath);
    if (dir == nullptr)
        BRIDGE_ERROR("failed to fetch dirpath: %s", dirpath);
    return dir;
}

int bridge_fileops_clean(const bridge_fileops_entry *root, const char *dirpath)
{
    const bridge_fileops_entry *dir = fetch_dir(root, dirpath);
    if (dir == nullptr)
        return -ENOENT;
    for (uint32_t i = 0; i < dir->child_count; i++) {
        const int rc = clean_entry(&dir->children[i]);
        if (rc < 0)
            return rc;
    }
    return 0;
}

/* ---- list ---- */

static int list_object(const char *kind, const bridge_json_field *frame, size_t count, json_object *json_arr)
{
    json_owned item(json_object_new_object());
    if (item == nullptr) {
        BRIDGE_ERROR("failed to allocate %s entry object", kind);
        return -ENOMEM;
    }
    if (bridge_json_serialize(item.get(), frame, count) < 0) {
        BRIDGE_ERROR("failed to serialize %s entry object", kind);
        return -EIO;
    }
    if (json_object_array_add(json_arr, item.get()) < 0) {
        BRIDGE_ERROR("failed to add item to array");
        return -EIO;
    }
    (void)item.release(); /* the array's now */
    return 0;
}

static int list_dir(const char *name, json_object *json_arr)
{
    const bridge_json_field frame[] = {
        field_text("name", name),
        field_text("type", "dir"),
    };
    return list_object("dir", frame, std::size(frame), json_arr);
}

/* A file that is not there is left out. */
static int list_file(const char *name, uint32_t access, const char *real_path, json_object *json_arr)
{
    struct stat info = {};
    if (stat(real_path, &info) < 0)
        return 0;

    int64_t size = info.st_size;
    const bridge_json_field frame[] = {
        field_text("name", name),
        field_text("access", access_text(access)),
        field_text("type", "file"),
        field_int("size", &size),
    };
    return list_object("file", frame, std::size(frame), json_arr);
}

static int list_glob(const bridge_fileops_entry *entry, json_object *json_arr)
{
    const dir_owned dir(opendir(entry->real_path));
    if (dir == nullptr) {
        BRIDGE_INFO("can't access dir: %s, skipping fetching files from it", entry->real_path);
        return 0;
    }
    while (const char *name = next_match(dir.get(), entry)) {
        const text_owned full_path(bridge_fileops_join_path(entry->real_path, name, 0));
        if (full_path == nullptr) {
            BRIDGE_ERROR("failed to allocate buffer for full path");
            return -ENOMEM;
        }
        BRIDGE_TRACE("full path constructed: %s", full_path.get());
        const int rc = list_file(name, entry->access, full_path.get(), json_arr);
        if (rc < 0)
            return rc;
    }
    return 0;
}

static int list_entry(const bridge_fileops_entry *entry, json_object *json_arr)
{
    switch (entry->type) {
    case BRIDGE_FILEOPS_FILE:
        return list_file(entry->name, entry->access, entry->real_path, json_arr);
    case BRIDGE_FILEOPS_GLOB:
        return list_glob(entry, json_arr);
    default:
        return list_dir(entry->name, json_arr);
    }
}

int bridge_fileops_scandir_to_existing_json(const bridge_fileops_entry *root, const char *path,
                                            json_object *json_arr)
{
    const bridge_fileops_entry *dir = fetch_dir(root, path);
    if (dir == nullptr)
        return -ENOENT;
    for (uint32_t i = 0; i < dir->child_count; i++) {
        const int rc = list_entry(&dir->children[i], json_arr);
        if (rc < 0)
            return rc;
    }
    return 0;
}

/* ---- sets of links ---- */

/* Null for a JSON null in the array as well. */
static const char *element_path(json_object *filepath_arr, size_t index)
{
    return json_object_get_string(json_object_array_get_idx(filepath_arr, index));
}

static int link_element(const bridge_fileops_entry *root, json_object *filepath_arr, size_t index,
                        const char *dst_dirpath)
{
    const char *path = element_path(filepath_arr, index);
    if (path == nullptr) {
        BRIDGE_ERROR("failed to de-serialize file name");
        return -ENOMEM;
    }
    const text_owned link_path(bridge_fileops_replace_dirname(path, dst_dirpath));
    if (link_path == nullptr)
        return -ENOMEM;
    return bridge_fileops_link(root, path, link_path.get());
}

static void remove_links(const bridge_fileops_entry *root, json_object *filepath_arr, size_t made,
                         const char *dst_dirpath)
{
    for (size_t i = 0; i < made; i++) {
        const text_owned link_path(
            bridge_fileops_replace_dirname(element_path(filepath_arr, i), dst_dirpath));
        if (link_path != nullptr)
            bridge_fileops_remove(root, link_path.get());
    }
}

int bridge_fileops_create_hardlinks_from_json(const bridge_fileops_entry *root, json_object *filepath_arr,
                                              const char *dst_dirpath)
{
    BRIDGE_ASSERT(json_object_is_type(filepath_arr, json_type_array));
    const size_t count = json_object_array_length(filepath_arr);
    for (size_t made = 0; made < count; made++) {
        const int rc = link_element(root, filepath_arr, made, dst_dirpath);
        if (rc < 0) {
            BRIDGE_WARN("cleaning previously created links (if any)");
            remove_links(root, filepath_arr, made, dst_dirpath);
            return rc;
        }
    }
    return 0;
}
