/* The bulk configuration service. Called by the control plane converter and
 * the capabilities service. */
#ifndef BRIDGE_CONFIGS_H
#define BRIDGE_CONFIGS_H

struct converter_ctx;

int bridge_bulk_configs_init(converter_ctx *ctx);
int bridge_bulk_configs_start();
int bridge_bulk_configs_stop();
int bridge_bulk_configs_deinit();

#endif
