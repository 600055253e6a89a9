/* The two small files that carry the last software operation over a restart. Locked against other processes.
 */
#ifndef BRIDGE_CMD_STATE_H
#define BRIDGE_CMD_STATE_H

#include <cstdint>

enum bridge_cmd_state_index : uint32_t {
    IDX_SW_STATUS = 0,
    IDX_WM_FW_STATUS = 1,
    IDX_LAST_STATUS = 2,
};

enum bridge_sw_cmd : int32_t {
    SW_CMD_NONE = 0,
    SW_CMD_INSTALL = 1,
    SW_CMD_UPGRADE = 2,
    SW_CMD_LOCAL_UPGRADE = 3,
};

/* Makes the state directory and the files that are missing. Returns 0 or -1. */
int bridge_cmd_state_create();

/* The hint is for a human reader of the file. Returns 0 or -1. */
int bridge_cmd_state_write(bridge_cmd_state_index idx, int32_t status, const char *hint, int64_t req_id);

/* Returns 0; -1 on failure; -2 when the file holds no status. A file without a request reads as request 0. */
int bridge_cmd_state_read(bridge_cmd_state_index idx, int32_t *status, int64_t *req_id);

int bridge_cmd_sw_status_write(int32_t status, int64_t req_id);

/* 1 in progress, 2 ok, 3 failure; other values return -1. */
int bridge_cmd_wm_status_write(int32_t status);

/* A file without a status reads as 0. */
int bridge_cmd_wm_status_read(int32_t *status);

#endif
