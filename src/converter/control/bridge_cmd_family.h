/* What the command handlers are made of: three shapes that a handler is one call of, with its rows as data,
 * and the answers that they share. Pool threads. */
#ifndef BRIDGE_CMD_FAMILY_H
#define BRIDGE_CMD_FAMILY_H

#include "converter/control/bridge_snmp.h"
#include "converter/control/bridge_snmp_helpers.h"

#include <cstddef>
#include <cstdint>
#include <span>

struct converter_ctx;
struct json_object;

/* Starts an action on the agent when written to an object that stands for one. */
static constexpr const char *CMD_TRIGGER = "1000001";

/* ---- reading ---- */

/* An object and the key of its value in the answer. */
struct cmd_read_row {
    const char *object;
    const char *key;
    bridge_prop_type form; /* PROP_TYPE_INT or PROP_TYPE_STRING */
    size_t capacity;       /* of a text, terminator included; 0 for an integer */
};

/* Reads all rows in one request and answers with an object of them, in the rows' order; on a failure logs
 * `failure` and leaves the answer unset. */
void cmd_read(converter_ctx *ctx, std::span<const cmd_read_row> rows, const char *failure,
              json_object **response);

/* ---- writing ---- */

/* An object and the text that is written to it. */
struct cmd_write_row {
    const char *object;
    const char *text;
};

static constexpr size_t CMD_MAX_WRITE_ROWS = 8;

/* Writes all rows in one request, in their order. Returns 0 or a negative number. */
int cmd_write(converter_ctx *ctx, std::span<const cmd_write_row> rows);

/* ---- answers ---- */

/* A new object {key: text}, owned by the caller; null for a null text, or after logging a failure. */
json_object *bridge_cmd_status_text(const char *key, const char *text);

/* The same with "ok" for 0, or the system's text for `err` as it stands: callers hold negative values, so the
 * text names an unknown error, and servers know it so. */
json_object *bridge_cmd_status_errno(const char *key, int err);

/* Logs the text and answers {"error": text}. */
void cmd_answer_error(const char *text, json_object **response);

/* ---- the agent and programs ---- */

struct cmd_version {
    int32_t major;
    int32_t minor;
    int32_t patch;
};

int bridge_cmd_agent_version(converter_ctx *ctx, cmd_version *ver);

/* Runs a program without a shell; `argv` ends with null and starts with the path. Returns 0 when it exits
 * with status 0, otherwise -1. Waits for it without a limit. */
int system_safe(char *const argv[]);

#endif
