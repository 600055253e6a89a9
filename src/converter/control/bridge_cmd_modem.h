/* Commands on the cellular modem that answer at once, or while they wait. Handlers of the command table. */
#ifndef BRIDGE_CMD_MODEM_H
#define BRIDGE_CMD_MODEM_H

struct converter_ctx;
struct json_object;

void bridge_cmd_wm_device_information(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_wm_home_network(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_wm_rf_information(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_wm_active_profile(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_wm_call_statistics(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_wm_apns(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_add_wm_apn(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_update_wm_apn(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_delete_wm_apn(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_wm_apn_status(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_wm_network_info(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_set_wm_preferred_network(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_sim_status(converter_ctx *ctx, json_object *params, json_object **response);

#endif
