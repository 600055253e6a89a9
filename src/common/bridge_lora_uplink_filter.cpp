/* Locks, copies, and the two lists as rows of one family. */
#include "common/bridge_lora_uplink_filter.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "common/bridge_utils.h"
#include "common/bridge_wait.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <unistd.h>

static constexpr const char *FILTER_FILE = "/var/lib/sarnivel-lora-hal/uplink-filter-list";
static constexpr const char *LOCK_FILE = "/var/lib/sarnivel-lora-hal/uplink-filter-list-lock";
static constexpr const char *BACKUP_FILE = "/var/lib/sarnivel-lora-hal/uplink-filter-list-backup";
static constexpr int LOCK_ATTEMPTS = 60;
static constexpr uint32_t LOCK_PAUSE_S = 5;
static constexpr size_t COPY_CHUNK = 1000;

using stream_owned = std::unique_ptr<FILE, bridge_release<fclose>>;

/* ---- the lock and the file ---- */

static int get_lock(FILE **fp)
{
    BRIDGE_ASSERT_TEXT(fp != nullptr, "fp != NULL");
    BRIDGE_ASSERT_TEXT(*fp == nullptr, "*fp == NULL");
    BRIDGE_DEBUG("Open uplink packet filter lock file");
    *fp = fopen(LOCK_FILE, "r+e");
    if (*fp == nullptr) {
        const int code = errno;
        if (code == ENOENT)
            BRIDGE_ERROR("uplink packet filter lock file is not present");
        else if (code == EACCES)
            BRIDGE_ERROR("not enough permission to access the uplink packet filter lock file");
        else
            BRIDGE_ERROR("unable to access the uplink packet filter lock file");
        return -1;
    }
    BRIDGE_DEBUG("Get lock for the uplink packet filter configuration");
    const int fd = fileno(*fp);
    BRIDGE_DEBUG("Uplink packet filter descriptor %d", fd);
    for (int attempt = 0; attempt < LOCK_ATTEMPTS; attempt++) {
        if (lockf(fd, F_LOCK, 0) == 0)
            return 0;
        BRIDGE_TRACE("lock wasn't obtained for the filter file configuration, waiting 5 more sec...");
        bridge_wait_s(LOCK_PAUSE_S);
    }
    return -1;
}

static void release_lock(FILE *fp)
{
    BRIDGE_DEBUG("Release lock for the uplink packet filter file with descriptor %d", fileno(fp));
    (void)!lockf(fileno(fp), F_ULOCK, 0);
    BRIDGE_DEBUG("Close uplink packet filter lock file");
    fclose(fp);
}

static int open_uplink_filter_file(FILE **fp)
{
    BRIDGE_ASSERT_TEXT(fp != nullptr, "fp != NULL");
    BRIDGE_ASSERT_TEXT(*fp == nullptr, "*fp == NULL");
    BRIDGE_DEBUG("Open uplink packet filter file");
    *fp = fopen(FILTER_FILE, "r+e");
    if (*fp != nullptr)
        return 0;
    const int code = errno;
    if (code == ENOENT)
        BRIDGE_ERROR("uplink packet filter file is not present");
    else if (code == EACCES)
        BRIDGE_ERROR("not enough permission to access the uplink packet filter file");
    else
        BRIDGE_ERROR("unable to access the uplink packet filter file");
    errno = code;
    return -1;
}

static void close_uplink_filter_file(FILE *fp)
{
    BRIDGE_DEBUG("Close uplink packet filter file");
    if (fp != nullptr)
        fclose(fp);
}

using lock_owned = std::unique_ptr<FILE, bridge_release<release_lock>>;
using filter_owned = std::unique_ptr<FILE, bridge_release<close_uplink_filter_file>>;

/* Returns 0, or -1 after logging. */
static int lock_filter(lock_owned *lock)
{
    FILE *fp = nullptr;
    if (get_lock(&fp) < 0) {
        BRIDGE_ERROR("failed to lock the uplink packet filter file");
        if (fp != nullptr)
            fclose(fp);
        return -1;
    }
    lock->reset(fp);
    return 0;
}

/* ---- backup ---- */

/* Copies to the end or to the first short write. */
static int copy_stream(FILE *from, FILE *to)
{
    char chunk[COPY_CHUNK];
    size_t size = 0;
    while ((size = fread(chunk, 1, sizeof(chunk), from)) > 0) {
        if (fwrite(chunk, 1, size, to) != size)
            return -1;
    }
    return fflush(to) == 0 ? 0 : -1;
}

static int negative_errno()
{
    return errno > 0 ? -errno : -EIO;
}

int backup_filterlist()
{
    BRIDGE_DEBUG("Backup filter rule");
    lock_owned lock;
    if (lock_filter(&lock) < 0)
        return -1;
    FILE *fp = nullptr;
    if (open_uplink_filter_file(&fp) < 0) {
        const int code = negative_errno();
        BRIDGE_ERROR("failed to open the uplink packet filter file");
        return code;
    }
    const filter_owned filter(fp);
    stream_owned backup(fopen(BACKUP_FILE, "we"));
    if (!backup) {
        const int code = negative_errno();
        BRIDGE_DEBUG("failed to open the backup uplink packet filter file");
        return code;
    }
    int result = 0;
    if (copy_stream(filter.get(), backup.get()) < 0) {
        result = negative_errno();
        BRIDGE_ERROR("failed to write to the backup uplink packet filter file");
    } else if (ferror(filter.get()) != 0) {
        result = negative_errno();
        BRIDGE_ERROR("failed to read the uplink packet filter file");
    }
    backup.reset();
    if (result < 0)
        remove_backup_filterlist();
    return result;
}

/* The test for a read error is made on the stream that is written: a backup
 * that cannot be read goes unnoticed. */
static void restore(FILE *backup, FILE *filter)
{
    if (ftruncate(fileno(filter), 0) < 0 || copy_stream(backup, filter) < 0) {
        BRIDGE_ERROR("failed to write to the uplink packet filter file");
        (void)!ftruncate(fileno(filter), 0);
        return;
    }
    if (ferror(filter) != 0) {
        BRIDGE_ERROR("failed to read the backup uplink packet filter file");
        (void)!ftruncate(fileno(filter), 0);
    }
}

void rollback_filterlist()
{
    BRIDGE_DEBUG("Rollback filter rule");
    if (bridge_utils_file_exists(BACKUP_FILE) < 0) {
        BRIDGE_DEBUG("No backup uplink packet filter file");
        return;
    }
    const stream_owned backup(fopen(BACKUP_FILE, "re"));
    if (!backup) {
        BRIDGE_DEBUG("failed to open the backup uplink packet filter file");
        return;
    }
    lock_owned lock;
    if (lock_filter(&lock) < 0)
        return;
    FILE *fp = nullptr;
    if (open_uplink_filter_file(&fp) < 0) {
        BRIDGE_DEBUG("failed to open the uplink packet filter file");
        return;
    }
    const filter_owned filter(fp);
    restore(backup.get(), filter.get());
}

int remove_backup_filterlist()
{
    return remove(BACKUP_FILE);
}

/* ---- content ---- */

/* Adds what the file holds to the target; a file without an object counts as an
 * empty one. */
static int import_filter_list(int fd, json_object *target)
{
    if (fd < 0 || target == nullptr) {
        BRIDGE_ERROR("failed to extract existing filter list - invalid arguments");
        return -1;
    }
    lseek(fd, 0, SEEK_SET);
    json_owned content(bridge_json_from_fd(fd));
    if (!content) {
        BRIDGE_WARN("the filter file appears to be empty (no valid JSON structure)");
        content.reset(json_object_new_object());
    }
    if (!content) {
        BRIDGE_ERROR("failed to extract existing filter list");
        return -EIO;
    }
    if (!json_object_is_type(content.get(), json_type_object))
        return 0;
    json_object_object_foreach(content.get(), key, value)
    {
        if (json_object_object_add(target, key, json_object_get(value)) < 0) {
            BRIDGE_ERROR("failed to import the existing filter list");
            json_object_put(value);
            return -EIO;
        }
    }
    return 0;
}

/* What tells the two lists apart. */
struct filter_list {
    const char *key;
    const char *starting;
    const char *no_object;
    const char *no_array;
    const char *no_element;
    const char *not_appended;
    const char *not_added;
    const char *not_written;
    const char *written;
};

/* clang-format off */
static constexpr filter_list DEVADDR_LIST = {
    "devAddrList",
    "Update DevAddr filter list",
    "failed to allocate memory for JSON DevAddr write object",
    "failed to allocate memory for JSON DevAddr array",
    "failed to allocate JSON object for the DevAddr array element",
    "Unable to add DevAddr rule to the JSON array",
    "failed to add DevAddr array to the write object",
    "failed to write the DevAddr filter list to the uplink packet filter file",
    "Successfully updated the DevAddr filter list",
};

static constexpr filter_list JOINREQ_LIST = {
    "joinReqList",
    "Update JoinReq filter list",
    "failed to allocate memory for JSON JoinReq write object",
    "failed to allocate memory for JSON JoinReq array",
    "failed to allocate JSON object for the JoinReq array element",
    "Unable to add JoinReq rule to the array",
    "failed to add JoinReq array to the write object",
    "failed to write the JoinEUI filter list to the uplink packet filter file",
    "Successfully updated the JoinEUI filter list",
};
/* clang-format on */

static int serialize_rule(json_object *element, const devaddr_filter_rule &given)
{
    devaddr_filter_rule rule = given;
    const bridge_json_field frame[] = {
        field_uint("ruleId", &rule.ruleId),
        field_text("action", rule.action),
        field_uint("start", &rule.start),
        field_uint("end", &rule.end),
    };
    return bridge_json_serialize(element, frame, std::size(frame));
}

static int serialize_rule(json_object *element, const joinreq_filter_rule &given)
{
    joinreq_filter_rule rule = given;
    const bridge_json_field frame[] = {
        field_uint("ruleId", &rule.ruleId),
        field_text("action", rule.action),
        field_uint("devEUI_Start", &rule.devEUI_Start),
        field_uint("devEUI_End", &rule.devEUI_End),
        field_uint("joinEUI_Start", &rule.joinEUI_Start),
        field_uint("joinEUI_End", &rule.joinEUI_End),
    };
    return bridge_json_serialize(element, frame, std::size(frame));
}

template <typename Rule>
static int fill_array(const filter_list &list, size_t count, const Rule *rules, json_object *array)
{
    for (size_t i = 0; i < count; i++) {
        json_owned element(json_object_new_object());
        if (!element) {
            BRIDGE_ERROR("%s", list.no_element);
            return -ENOMEM;
        }
        if (serialize_rule(element.get(), rules[i]) != 0)
            return -EIO;
        if (json_object_array_add(array, element.get()) < 0) {
            BRIDGE_ERROR("%s", list.not_appended);
            return -EIO;
        }
        (void)element.release();
    }
    return 0;
}

/* From the first step on a failure leaves the file empty or cut short: the
 * backup is for that. */
template <typename Rule>
static int rewrite_file(const filter_list &list, int fd, json_object *content, size_t count,
                        const Rule *rules)
{
    if (ftruncate(fd, 0) < 0) {
        const int code = errno;
        BRIDGE_ERROR("failed to clear the uplink packet filter file before writing");
        return -code;
    }
    if (lseek(fd, 0, SEEK_SET) < 0) {
        const int code = errno;
        BRIDGE_ERROR("failed to set the uplink packet filter file offset to the start before writing");
        return -code;
    }
    json_owned array(json_object_new_array());
    if (!array) {
        BRIDGE_ERROR("%s", list.no_array);
        return -ENOMEM;
    }
    const int result = fill_array(list, count, rules, array.get());
    if (result < 0)
        return result;
    if (json_object_object_add(content, list.key, array.get()) < 0) {
        BRIDGE_ERROR("%s", list.not_added);
        return -EIO;
    }
    (void)array.release();
    if (json_object_to_fd(fd, content, JSON_C_TO_STRING_PLAIN) < 0) {
        BRIDGE_ERROR("%s", list.not_written);
        return -1;
    }
    BRIDGE_DEBUG("%s", list.written);
    return 0;
}

template <typename Rule> static int update_list(const filter_list &list, size_t count, const Rule *rules)
{
    BRIDGE_DEBUG("%s", list.starting);
    lock_owned lock;
    if (lock_filter(&lock) < 0)
        return -1;
    FILE *fp = nullptr;
    if (open_uplink_filter_file(&fp) < 0) {
        BRIDGE_ERROR("failed to open the uplink packet filter file");
        return -1;
    }
    const filter_owned filter(fp);
    const json_owned content(json_object_new_object());
    if (!content) {
        BRIDGE_ERROR("%s", list.no_object);
        return -ENOMEM;
    }
    const int fd = fileno(filter.get());
    if (import_filter_list(fd, content.get()) < 0)
        return 0; /* nothing is written, and callers cannot tell: they rely on it */
    return rewrite_file(list, fd, content.get(), count, rules);
}

int update_devaddr_filterlist(size_t count, const devaddr_filter_rule *rules)
{
    return update_list(DEVADDR_LIST, count, rules);
}

int update_joinreq_filterlist(size_t count, const joinreq_filter_rule *rules)
{
    return update_list(JOINREQ_LIST, count, rules);
}

void read_filterlist(json_object **list)
{
    BRIDGE_DEBUG("Read the filter rule on the gateway");
    FILE *fp = nullptr;
    if (open_uplink_filter_file(&fp) < 0) {
        BRIDGE_ERROR("failed to open the uplink packet filter file");
        return;
    }
    const filter_owned filter(fp);
    json_owned content(json_object_new_object());
    if (!content) {
        BRIDGE_ERROR("failed to allocate memory for JSON filter rule object");
        return;
    }
    if (import_filter_list(fileno(filter.get()), content.get()) == 0)
        *list = content.release();
}

/* ---- order ---- */

template <typename Rule> static int compare_rules(const void *left, const void *right)
{
    const uint64_t left_id = static_cast<const Rule *>(left)->ruleId;
    const uint64_t right_id = static_cast<const Rule *>(right)->ruleId;
    return left_id < right_id ? -1 : left_id > right_id ? 1 : 0;
}

template <typename Rule> static void sort_rules(Rule *rules, size_t count)
{
    BRIDGE_DEBUG("Sort DevAddr filter list");
    if (count > 0)
        qsort(rules, count, sizeof(Rule), compare_rules<Rule>);
}

void sort_devaddr_list(devaddr_filter_rule *rules, size_t count)
{
    sort_rules(rules, count);
}

void sort_joinreq_list(joinreq_filter_rule *rules, size_t count)
{
    sort_rules(rules, count);
}
