/* Sections that programs of the gateway read and write: the daemon hands their JSON over and back through two
 * files. */
#ifndef BRIDGE_CONFIGS_GW_SCRIPTS_H
#define BRIDGE_CONFIGS_GW_SCRIPTS_H

struct converter_ctx;
struct json_object;

int bridge_configs_gw_ns_read(converter_ctx *ctx, json_object *out);
int bridge_configs_gw_ns_write(converter_ctx *ctx, json_object *cfg, json_object *out);

int bridge_configs_gw_us_read(converter_ctx *ctx, json_object *out);
int bridge_configs_gw_us_write(converter_ctx *ctx, json_object *cfg, json_object *out);

int bridge_configs_gw_snmp_read(converter_ctx *ctx, json_object *out);
int bridge_configs_gw_snmp_write(converter_ctx *ctx, json_object *cfg, json_object *out);

/* An item of the network section. */
int cfg_connectivity_check_read(json_object *out);
int cfg_connectivity_check_write(json_object *cfg, json_object *out);

#endif
