/* The section of the uplink packet filter: checks the server's rules and replaces the lists all or nothing.
 */
#ifndef BRIDGE_CONFIGS_GW_LORAFILTER_H
#define BRIDGE_CONFIGS_GW_LORAFILTER_H

struct converter_ctx;
struct json_object;

int bridge_configs_gw_lorafilter_read(converter_ctx *ctx, json_object *out);
int bridge_configs_gw_lorafilter_write(converter_ctx *ctx, json_object *cfg, json_object *out);

#endif
