/*
 * Computed values of scenarios and behaviours.
 *
 * Texts may hold references: ${utilPingCount.0} what the object holds now, ${value} what was written and
 * ${index} the row it was written to, ${rows:swRestorePointTable} a number of rows, ${uptime} hundredths of
 * seconds since the start, ${now:%Y-%m-%d} the local time. References nest, innermost first.
 * Objects may be computed:
 *   {"plus": [V, V]}, {"times": [V, V]}
 *   {"look_up": "name of data", "key": V, "default": V}
 *   {"ramp": {"from": V, "length": V}}    as int32_le: 40 steps up from a number, again and again
 */
#ifndef LAB_EVALUATE_H
#define LAB_EVALUATE_H

#include <string>

#include "store.h"

struct lab_scope {
    std::string value;
    std::string index;
};

std::string lab_expand(const std::string &text, const lab_scope &scope);
/* A copy with all references and computed forms replaced; null where a look-up finds nothing. */
json_ref lab_evaluate(json_object *json, const lab_scope &scope);

/* Named data for look-ups: an object of objects, merged key by key. */
void lab_data_merge(json_object *data);

/* What a read finds now; nothing when a computed value has none. */
std::optional<lab_value> lab_current_value(const lab_oid &place, const lab_instance &instance);
/* Stores a value under a name; {"live": V} is computed at each read. False, and a problem told, if it cannot.
 */
bool lab_put_named(const std::string &name, json_object *json, const lab_scope &scope);

/* Mistakes in a scenario or a control line: to standard error, and kept for the control port. */
void lab_problem(const std::string &text);
json_ref lab_problems();

#endif
