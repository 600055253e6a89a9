/* The radio layer's uplink packet filter: a JSON file that the daemon changes one list at a time, under a
 * lock file shared with the other users, with a backup for the way back. The rules' meaning is the caller's.
 * Callers run one at a time. */
#ifndef BRIDGE_LORA_UPLINK_FILTER_H
#define BRIDGE_LORA_UPLINK_FILTER_H

#include <cstddef>
#include <cstdint>

struct json_object;

struct devaddr_filter_rule {
    uint64_t ruleId;
    char action[32];
    uint64_t start;
    uint64_t end;
};

struct joinreq_filter_rule {
    uint64_t ruleId;
    char action[32];
    uint64_t devEUI_Start;
    uint64_t devEUI_End;
    uint64_t joinEUI_Start;
    uint64_t joinEUI_End;
};

/* Waits for the lock as long as another process holds it; an attempt that fails is made again for up to 300
 * s. Returns 0, -1 without it, or a negative errno. */
int backup_filterlist();

/* Puts the backup's content back; without a backup it does nothing. The backup stays. */
void rollback_filterlist();

/* Returns 0, or -1 when there is none. */
int remove_backup_filterlist();

/* Replace one list in the file; everything else in it stays. A count of 0 clears the list, and `rules` may be
 * null then. Return 0 or a negative number; a failure may leave the file cut short. A file that cannot be
 * read is left as it is, with the result 0. */
int update_devaddr_filterlist(size_t count, const devaddr_filter_rule *rules);
int update_joinreq_filterlist(size_t count, const joinreq_filter_rule *rules);

/* The file's content as a new object of the caller's, in a slot that was null; null on failure. Takes no
 * lock. */
void read_filterlist(json_object **list);

/* By `ruleId`, ascending. */
void sort_devaddr_list(devaddr_filter_rule *rules, size_t count);
void sort_joinreq_list(joinreq_filter_rule *rules, size_t count);

#endif
