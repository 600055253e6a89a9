/* Commands that bring a file in chunks of text inside the requests. Handlers of the command table. */
#ifndef BRIDGE_CMD_UPLOAD_H
#define BRIDGE_CMD_UPLOAD_H

struct converter_ctx;
struct json_object;

void bridge_cmd_file_upload_start(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_file_upload_chunk(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_file_upload_stop(converter_ctx *ctx, json_object *params, json_object **response);

#endif
