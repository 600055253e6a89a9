/* Commands on the virtual file tree and its jobs, and the retrieval of logs. Handlers of the command table.
 */
#ifndef BRIDGE_CMD_FILES_H
#define BRIDGE_CMD_FILES_H

struct converter_ctx;
struct json_object;

void bridge_cmd_scan_dir(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_stream_start(converter_ctx *ctx, json_object *request, json_object **response);
void bridge_cmd_stream_stop(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_fetch_start(converter_ctx *ctx, json_object *request, json_object **response);
void bridge_cmd_fetch_stop(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_execute_start(converter_ctx *ctx, json_object *request, json_object **response);
void bridge_cmd_execute_stop(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_log_retrieve_start(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_log_retrieve_stop(converter_ctx *ctx, json_object *params, json_object **response);

/* Makes the directories of log backups empty when their time has passed, as at the start of the service. A
 * failure is only logged. */
void bridge_cmd_clean_log_backups();

#endif
