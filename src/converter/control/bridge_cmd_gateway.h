/* Commands that concern the gateway as a whole. Handlers of the command table. */
#ifndef BRIDGE_CMD_GATEWAY_H
#define BRIDGE_CMD_GATEWAY_H

struct converter_ctx;
struct json_object;

void bridge_cmd_ping(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_reboot(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_public_key(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_gateway_info(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_backups(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_create_backup(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_restore_backup(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_radio_statistics(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_reset_radio_statistics(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_gps_coordinates(converter_ctx *ctx, json_object *params, json_object **response);

#endif
