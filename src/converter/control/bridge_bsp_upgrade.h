/* The BSP upgrade service. Called by the control plane converter and
 * the capabilities service. */
#ifndef BRIDGE_BSP_UPGRADE_H
#define BRIDGE_BSP_UPGRADE_H

struct converter_ctx;

int bridge_bulk_upgrade_init(converter_ctx *ctx);
int bridge_bulk_upgrade_start();
int bridge_bulk_upgrade_stop();
int bridge_bulk_upgrade_deinit();

#endif
