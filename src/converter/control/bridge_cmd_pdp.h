/* Commands on the modem's PDP profiles: slow ones, each done by a child. Handlers of the command table, but
 * for the wait. */
#ifndef BRIDGE_CMD_PDP_H
#define BRIDGE_CMD_PDP_H

struct converter_ctx;
struct json_object;

void bridge_cmd_get_wm_pdp_profiles(converter_ctx *ctx, json_object *request, json_object **response);
void bridge_cmd_add_wm_pdp_profiles(converter_ctx *ctx, json_object *request, json_object **response);
void bridge_cmd_modify_wm_pdp_profiles(converter_ctx *ctx, json_object *request, json_object **response);
void bridge_cmd_remove_wm_pdp_profiles(converter_ctx *ctx, json_object *request, json_object **response);

/* Waits until the modem has done what it was told, for 120 s at most. Returns 0, -1 when it has failed or is
 * not done, or -5 when its status cannot be read. */
int bridge_cmd_wait_pdp(converter_ctx *ctx);

#endif
