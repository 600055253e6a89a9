/* The battery report service. Called by the control plane converter and
 * the capabilities service. */
#ifndef BRIDGE_PERFORMANCE_MANAGEMENT_H
#define BRIDGE_PERFORMANCE_MANAGEMENT_H

struct converter_ctx;

int bridge_performance_management_init(converter_ctx *ctx);
int bridge_performance_management_start();
int bridge_performance_management_stop();
int bridge_performance_management_deinit();

#endif
