/* The gateway's general configuration file, through the agent. */
#ifndef BRIDGE_CONFIGS_LEGACY_GENERAL_H
#define BRIDGE_CONFIGS_LEGACY_GENERAL_H

struct converter_ctx;

/* `out` takes a text of the caller's, also on some failures. Return 0 or a negative number. */
int bridge_configs_legacy_general_read(converter_ctx *ctx, char **out);
int bridge_configs_legacy_general_write(converter_ctx *ctx, const char *cfg, char **out);

#endif
