/* Commands on packages and versions. Handlers of the command table. */
#ifndef BRIDGE_CMD_SOFTWARE_H
#define BRIDGE_CMD_SOFTWARE_H

struct converter_ctx;
struct json_object;

void bridge_cmd_get_software_versions(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_upgradable_software(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_installable_software(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_upgrade_software(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_install_software(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_install_status(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_upgrade_status(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_last_status(converter_ctx *ctx, json_object *params, json_object **response);

#endif
