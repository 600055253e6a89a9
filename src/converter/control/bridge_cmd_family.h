/* What the command handlers are made of: shapes that a handler is one call of, with its rows as data, and the
 * answers that they share. Pool threads, and the children of slow commands. */
#ifndef BRIDGE_CMD_FAMILY_H
#define BRIDGE_CMD_FAMILY_H

#include "converter/control/bridge_snmp.h"
#include "converter/control/bridge_snmp_helpers.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>

struct bridge_json_field;
struct converter_ctx;
struct json_object;

/* Starts an action on the agent when written to an object that stands for one. */
static constexpr const char *CMD_TRIGGER = "1000001";

/* ---- reading ---- */

/* An object and the key of its value in the answer. */
struct cmd_read_row {
    const char *object;
    const char *key;
    bridge_prop_type form; /* PROP_TYPE_INT, PROP_TYPE_STRING or PROP_TYPE_IPADDR */
    size_t capacity;       /* of a text, terminator included; 0 for an integer */
};

/* Capacity of an address. */
static constexpr size_t CMD_ADDRESS_SIZE = 46;

/* Reads all rows in one request and answers with an object of them, in the rows' order; on a failure logs
 * `failure` and leaves the answer unset. */
void cmd_read(converter_ctx *ctx, std::span<const cmd_read_row> rows, const char *failure,
              json_object **response);

/* The same, into `target` behind what it has already, and untouched on a failure. Returns 0 or -1. */
int cmd_read_into(converter_ctx *ctx, std::span<const cmd_read_row> rows, const char *failure,
                  json_object *target);

/* An object whose value goes into the answer in the form that the agent gives it. */
struct cmd_field_row {
    const char *object;
    const char *key;
};

/* Reads all rows in one request into `target`; those before a failed one stay. `hint` as in
 * bridge_snmp_read_prop. Returns 0 or a negative number. */
int cmd_read_fields(converter_ctx *ctx, std::span<const cmd_field_row> rows, bridge_prop_type hint,
                    json_object *target);

/* Answers with those fields and a "status": "ok", or the text of `err`, a negative errno value, after logging
 * `failure`. */
void cmd_answer_fields(converter_ctx *ctx, std::span<const cmd_field_row> rows, bridge_prop_type hint,
                       const char *failure, int err, json_object **response);

/* Answers with the bare number of an object, or logs which of the two steps failed. */
void cmd_read_number(converter_ctx *ctx, const char *object, const char *read_failure,
                     const char *create_failure, json_object **response);

/* Reads a table that follows its count object, for bridge_snmp_get_table_as_json, and answers with the array.
 */
void cmd_read_table(converter_ctx *ctx, const bridge_snmp_column *mapping, const char *count_object,
                    json_object **response);

/* ---- writing ---- */

/* Writes all rows in one request, in their order. Returns 0 or a negative number. */
int cmd_write(converter_ctx *ctx, std::initializer_list<bridge_snmp_write_prop> rows);
int cmd_write(converter_ctx *ctx, std::span<const bridge_snmp_write_prop> rows);

/* Rows for cmd_write. A field is taken out of `from` and written as `hint` says. */
inline bridge_snmp_write_prop cmd_text(const char *object, const char *text)
{
    return {.oid = object, .value = text, .type = PROP_TYPE_STRING};
}

inline bridge_snmp_write_prop cmd_number(const char *object, const int64_t *number)
{
    return {.oid = object, .value = number, .type = PROP_TYPE_INT};
}

inline bridge_snmp_write_prop cmd_flag(const char *object, const bool *flag)
{
    return {.oid = object, .value = flag, .type = PROP_TYPE_BOOL};
}

inline bridge_snmp_write_prop cmd_field(const char *object, const char *key, bridge_prop_type hint,
                                        const json_object *from, bool optional = false)
{
    return {.oid = object,
            .field_name = key,
            .optional = optional,
            .value = from,
            .type = PROP_TYPE_JSON,
            .hint = hint};
}

/* ---- waiting for the agent ---- */

/* Reads `object` into `text` every 200 ms until it is another text than `at_work`, for 120 s at most. Returns
 * 0, or the negative result of a failed read. */
int cmd_wait_while(converter_ctx *ctx, const char *object, const char *at_work, char *text, size_t capacity);

/* The same while the modem is waited for. */
int cmd_wait_for_modem(converter_ctx *ctx, const char *object, char *text, size_t capacity);

/* ---- answers ---- */

/* A new object {key: text}, owned by the caller; null for a null text, or after logging a failure. */
json_object *bridge_cmd_status_text(const char *key, const char *text);

/* The same with "ok" for 0, or the system's text for `err` as it stands: callers hold negative values, so the
 * text names an unknown error, and servers know it so. */
json_object *bridge_cmd_status_errno(const char *key, int err);

/* Logs the text and answers {"error": text}. */
void cmd_answer_error(const char *text, json_object **response);

/* Logs `failure` and answers {"error": "not_supported"}. */
void cmd_answer_not_supported(const char *failure, json_object **response);

/* Adds a number under `key`. Returns 0 or -1. */
int cmd_add_number(json_object *object, const char *key, int64_t number);

/* Adds to each row of an array its place under `key`, counted from `first`. Returns 0 or -1. */
int cmd_number_rows(json_object *rows, const char *key, int64_t first);

/* Fills the frame from a part of a request, which may be of any kind, JSON null included. As
 * bridge_json_deserialize. */
int cmd_parse(json_object *input, std::span<const bridge_json_field> frame);

/* A row of `params` that is an integer. Returns 0, or -1 when it is missing or of another kind. */
int cmd_get_integer(json_object *params, const char *key, int64_t *number);

/* Adds to `target` the address of each of the gateway's interfaces under the interface's name. Returns 0, or
 * -1 after logging why. */
int cmd_add_interfaces(converter_ctx *ctx, json_object *target);

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
