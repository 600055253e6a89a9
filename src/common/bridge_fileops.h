/* The only road of a server to files: a small constant tree of virtual directories, whose leaves stand for
 * one real file or for the files of a real directory that match a glob, each with rights of its own. Any
 * thread and any forked child may call; nothing is kept between calls. Paths are resolved by their text
 * alone: "." and ".." and repeated slashes are gone before the tree is entered. */
#ifndef BRIDGE_FILEOPS_H
#define BRIDGE_FILEOPS_H

#include <cstddef>
#include <cstdint>

struct json_object;

enum bridge_fileops_type : uint32_t {
    BRIDGE_FILEOPS_FILE = 0,
    BRIDGE_FILEOPS_GLOB = 1,
    BRIDGE_FILEOPS_DIR = 2,
};

enum : uint32_t {
    BRIDGE_FILEOPS_READ = 1,
    BRIDGE_FILEOPS_WRITE = 2,
    BRIDGE_FILEOPS_EXECUTE = 4,
};

struct bridge_fileops_entry {
    bridge_fileops_type type;
    uint32_t access;
    const char *name;      /* the exact name, or the glob */
    const char *real_path; /* the real file, or a glob's real directory; null for a directory */
    const char *tmst_path; /* timestamp file, or null */
    const bridge_fileops_entry *children; /* directories only; matched and listed in this order */
    uint32_t child_count;
};

/* The gateway's own tree. The functions take a root, so any other tree works as well. */
extern const bridge_fileops_entry fileops_root;

/* The row that stands for the path, or null. A name that only begins a directory's or a file's name stands
 * for it as well; "/" is the root. */
const bridge_fileops_entry *bridge_fileops_find_entry(const bridge_fileops_entry *root, const char *virtpath);

/* The same, with null for a row of another kind: a directory, or anything else. */
const bridge_fileops_entry *bridge_fileops_find_dir(const bridge_fileops_entry *root, const char *virtpath);
const bridge_fileops_entry *bridge_fileops_find_file(const bridge_fileops_entry *root, const char *virtpath);

/* "prefix/segment" with the first `length` bytes of the segment, 0 for all; or null. The caller frees it. */
char *bridge_fileops_join_path(const char *prefix_path, const char *segment, size_t length);

/* The last segment of `original`, once its "." and ".." are resolved, below `new_dirname`: never "..", and
 * never more than one level. Null when no segment is left, or for want of memory. The caller frees it. */
char *bridge_fileops_replace_dirname(const char *original, const char *new_dirname);

/* The last segment of the path, as above, or null. The caller frees it. */
char *bridge_fileops_last_segment(const char *path);

/* The real file behind `virtpath`, for which `entry` was found; the caller frees it. Returns 0, -12, or -22
 * for a row without a real path. */
int bridge_fileops_real_path(const bridge_fileops_entry *entry, const char *virtpath, char **real_path);

/* Both go by the tree alone: rights are not asked. Return 0 or a negative errno. */
int bridge_fileops_link(const bridge_fileops_entry *root, const char *oldpath, const char *newpath);
int bridge_fileops_remove(const bridge_fileops_entry *root, const char *filepath);

/* Deletes what the glob row matches in its real directory, subdirectories excepted. Returns 0, also when the
 * directory cannot be opened, or -125 when a file could not be deleted. */
int bridge_fileops_clean_glob(const bridge_fileops_entry *entry);

/* Deletes the files of all rows right below the directory. Returns 0 or a negative errno. */
int bridge_fileops_clean(const bridge_fileops_entry *root, const char *dirpath);

/* Adds to the array an object for each row and each file right below the directory. Returns 0 or a negative
 * errno; what was added until then stays. */
int bridge_fileops_scandir_to_existing_json(const bridge_fileops_entry *root, const char *path,
                                            json_object *json_arr);

/* Links each virtual path of the array, under its own last name, into the virtual directory `dst_dirpath`:
 * all of them or none. Returns 0 or the first failure's negative errno. */
int bridge_fileops_create_hardlinks_from_json(const bridge_fileops_entry *root, json_object *filepath_arr,
                                              const char *dst_dirpath);

#endif
