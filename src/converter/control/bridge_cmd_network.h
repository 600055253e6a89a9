/* Commands on the gateway's way to the network: which one it takes, its firewall, its test of it. Handlers of
 * the command table. */
#ifndef BRIDGE_CMD_NETWORK_H
#define BRIDGE_CMD_NETWORK_H

struct converter_ctx;
struct json_object;

void bridge_cmd_get_connectivity_types(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_set_connectivity_types(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_firewall(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_set_firewall(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_set_ping_target(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_ping_target(converter_ctx *ctx, json_object *params, json_object **response);

#endif
