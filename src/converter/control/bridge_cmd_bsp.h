/* Commands on the board support package, and the watch over its upgrade. */
#ifndef BRIDGE_CMD_BSP_H
#define BRIDGE_CMD_BSP_H

struct converter_ctx;
struct json_object;

/* Handlers of the command table. */
void bridge_cmd_get_bsp_status(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_upgrade_bsp_local(converter_ctx *ctx, json_object *request, json_object **response);
void bridge_cmd_get_available_bsp_upgrade(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_bsp_status_string(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_current_bsp_version(converter_ctx *ctx, json_object *params, json_object **response);

/* After a restart in the middle of a local upgrade: watches it to its end, on a pool thread, and answers its
 * request then, with which the daemon ends. */
void bridge_cmd_resume_bsp_upgrade(converter_ctx *ctx);

#endif
