/* A gateway's whole configuration as a document of sections, each with its reader and writer. Callers hold
 * the lock of the bulk configuration service. */
#ifndef BRIDGE_CONFIGS_GW_H
#define BRIDGE_CONFIGS_GW_H

struct converter_ctx;
struct json_object;

extern const char *const status_key;
extern const char *const value_key;

/* A negative result that is no failure: a reply with a status text has been formed. Whoever can receive it
 * turns it into 0. The walk over the sections does not: only the reader of the last one may return it. */
static constexpr int CFG_REPLY_FORMED = -999;

/* Applies the sections of `cfg` in the table's order, up to the first that fails, and adds to `out` an object
 * for each. Returns the last writer's result, or the failure's. */
int bridge_configs_gw_write(converter_ctx *ctx, json_object *cfg, json_object *out);

/* Adds every section as it stands. Returns the last reader's result, or the first failure's. */
int bridge_configs_gw_read(converter_ctx *ctx, json_object *out);

/* Form a new object {"status": payload} or {"value": payload} in the slot, and take the payload over. The
 * result becomes CFG_REPLY_FORMED, or 0, or a negative errno with the slot left alone. */
void add_status_key(const char *section, int *result, json_object *err_resp, json_object **reply);
void add_value_key(const char *section, int *result, json_object *success_resp, json_object **reply);

/* The same as add_status_key, with a text. */
void cfg_status_reply(const char *section, int *result, const char *text, json_object **reply);

/* Adds a value, which is taken over, also on a failure. Returns 0, or -5 after logging `failure`. */
int cfg_add(json_object *object, const char *key, json_object *value, const char *failure);

/* Adds {"status": text, "value": value} to the array and takes the value over. Returns 0, or -5 after
 * logging. */
int cfg_add_element(json_object *array, const char *name, const char *text, json_object *value);

#endif
