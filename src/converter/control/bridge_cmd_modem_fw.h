/* Steps of a modem firmware update. No command leads here yet; the form is that of the handlers. */
#ifndef BRIDGE_CMD_MODEM_FW_H
#define BRIDGE_CMD_MODEM_FW_H

struct converter_ctx;
struct json_object;

/* From files that an upload has brought; a child runs the modem maker's script. */
void bridge_cmd_wm_fw_install_local(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_wm_fw_install_status(converter_ctx *ctx, json_object *params, json_object **response);

/* From a server: "url", "userName" and "password", each optional; then the two steps that follow. */
void bridge_cmd_wm_fw_install_remote(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_wm_fw_upgrade(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_wm_fw_finish(converter_ctx *ctx, json_object *params, json_object **response);

#endif
