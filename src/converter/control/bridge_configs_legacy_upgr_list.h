/* The gateway's list of upgrade servers, through the agent. */
#ifndef BRIDGE_CONFIGS_LEGACY_UPGR_LIST_H
#define BRIDGE_CONFIGS_LEGACY_UPGR_LIST_H

struct converter_ctx;

/* `out` takes a text of the caller's. Return 0 or a negative number. */
int bridge_configs_legacy_upgr_list_read(converter_ctx *ctx, char **out);
int bridge_configs_legacy_upgr_list_write(converter_ctx *ctx, const char *cfg, char **out);

#endif
