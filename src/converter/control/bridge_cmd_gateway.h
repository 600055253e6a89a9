/* Commands that concern the gateway as a whole. Handlers of the command table. */
#ifndef BRIDGE_CMD_GATEWAY_H
#define BRIDGE_CMD_GATEWAY_H

struct converter_ctx;
struct json_object;

void bridge_cmd_ping(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_reboot(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_backups(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_radio_statistics(converter_ctx *ctx, json_object *params, json_object **response);

#endif
