/* What the reconciliation of PDP profiles asks of the modem. Each operation waits for the modem, 120 s at
 * most. */
#ifndef BRIDGE_CONFIGS_GW_PDP_H
#define BRIDGE_CONFIGS_GW_PDP_H

struct converter_ctx;
struct json_object;

/* The modem's profiles, with their types in words, as a new array of the caller's. Returns 0 or a negative
 * number. */
int pdp_list_read(converter_ctx *ctx, json_object **list);

/* `profile` is in the server's words; all but the first need its "contextId". Return 0, or a negative number
 * after logging why. */
int pdp_add(converter_ctx *ctx, json_object *profile);
int pdp_modify(converter_ctx *ctx, json_object *profile);
int pdp_delete(converter_ctx *ctx, json_object *profile);
int pdp_activate(converter_ctx *ctx, json_object *profile);

#endif
