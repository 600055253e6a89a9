/* The cellular item of the network section: PDP profiles and SIM PINs. */
#ifndef BRIDGE_CONFIGS_GW_NW_CC_H
#define BRIDGE_CONFIGS_GW_NW_CC_H

#include <cstddef>

struct converter_ctx;
struct json_object;

int bridge_configs_gw_nw_cc_read(converter_ctx *ctx, json_object *out);
int bridge_configs_gw_nw_cc_write(converter_ctx *ctx, json_object *cfg, json_object *out);

/* Its two sub-items. Each hands back a reply of the caller's; null, or negative, on a failure. */
int pdp_profile_read(converter_ctx *ctx, json_object **reply);
int pdp_profile_write(converter_ctx *ctx, const char *name, json_object *request, json_object **reply);
int simpin_read(converter_ctx *ctx, json_object **reply);
int simpin_write(converter_ctx *ctx, const char *name, json_object *request, json_object **reply);

/* Reads `object` into `text` every 200 ms for 120 s at most, until it is not `at_work`. Returns 0, or the
 * negative result of a failed read after logging it. */
int cfg_wait_for_text(converter_ctx *ctx, const char *object, const char *at_work, char *text,
                      size_t capacity);

/* A deep copy, or null after logging `failure`. */
json_object *cfg_copy(json_object *object, const char *failure);

#endif
