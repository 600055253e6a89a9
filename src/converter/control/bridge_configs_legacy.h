/* The configuration exchange of older operations servers, as rows of the control plane's service table. */
#ifndef BRIDGE_CONFIGS_LEGACY_H
#define BRIDGE_CONFIGS_LEGACY_H

struct converter_ctx;

int bridge_config_push_launcher_legacy(converter_ctx *ctx, const char *topic);
void bridge_config_pull_worker_legacy(converter_ctx *ctx, const char *topic, const char *payload);
int bridge_config_get_latest_launcher_legacy(converter_ctx *ctx, const char *topic);

#endif
