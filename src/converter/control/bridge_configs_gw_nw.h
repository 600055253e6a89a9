/* The section of the network: which interfaces are preferred, the cellular modem, the check of the
 * connection. */
#ifndef BRIDGE_CONFIGS_GW_NW_H
#define BRIDGE_CONFIGS_GW_NW_H

struct converter_ctx;
struct json_object;

/* Set by the reader of the interfaces: the gateway chooses by itself. */
extern bool nw_if_pref_is_auto;

int bridge_configs_gw_nw_read(converter_ctx *ctx, json_object *out);
int bridge_configs_gw_nw_write(converter_ctx *ctx, json_object *cfg, json_object *out);

#endif
