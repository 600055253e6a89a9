/* Whole tables of the agent as JSON arrays, one object a row, by a mapping of columns. Any control plane
 * thread. The caller owns the arrays. */
#ifndef BRIDGE_SNMP_HELPERS_H
#define BRIDGE_SNMP_HELPERS_H

#include "converter/control/bridge_snmp.h"

struct converter_ctx;
struct json_object;

/* One column; a mapping is an array of these that ends with a null `field_name`. */
struct bridge_snmp_column {
    const char *field_name; /* JSON key */
    const char *oid;        /* the column's name, without an index */
    bool optional;          /* writes: the row may lack the field */
    bridge_prop_type hint;  /* PROP_TYPE_INT, PROP_TYPE_STRING; PROP_TYPE_BOOL gives a boolean */
};

/* For columns that follow their count object directly, in the mapping's order: reads the count, then cell
 * after cell. A failure in the middle fails the call. Returns 0 or above, negative on failure; a negative
 * count leaves `out` alone and returns 0. */
int bridge_snmp_get_table_as_json(converter_ctx *ctx, const bridge_snmp_column *mapping,
                                  const char *count_oid, json_object **out);

/* Row by row: with `idx_key`, the column whose value is the row's index, until it ends; without, rows 1, 2, 3
 * up to the first gap. A failure in the middle counts as the end. Returns 0, or -1 without memory. */
int bridge_snmp_get_exact_table_as_json(converter_ctx *ctx, const bridge_snmp_column *mapping,
                                        const char *idx_key, json_object **out);

/* Writes the array's elements as rows 1, 2, 3; rows before a failed one stay written. Returns 0 or -1. */
int bridge_snmp_set_exact_table_from_json(converter_ctx *ctx, const bridge_snmp_column *mapping,
                                          json_object *arr);

/* The offset from dBFS to dBm of an antenna. Returns 0 or above, or -1. */
int bridge_snmp_get_dbm_offt(converter_ctx *ctx, uint32_t antenna, double *offset);

#endif
