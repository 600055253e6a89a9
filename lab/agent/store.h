/* What the agent serves now: instances in the order of their places, and the rows of tables. One thread. */
#ifndef LAB_STORE_H
#define LAB_STORE_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "names.h"

struct lab_instance {
    lab_value value;
    json_ref live; /* when set, evaluated at each read instead of `value` */
};

const lab_instance *lab_store_find(const lab_oid &place);
/* The first instance after `place`, or at it when `inclusive`; its place goes to `found`. */
const lab_instance *lab_store_next(const lab_oid &place, bool inclusive, lab_oid *found);
/* True when any instance of the object exists. */
bool lab_store_has_object(const lab_object *object);

/* Makes the instance when it is missing, and with a column's instance its row. */
void lab_store_put(const lab_oid &place, lab_instance instance);
void lab_store_remove(const lab_oid &place);

/* Tables are known by name, rows by their index sub-identifiers. */
std::vector<lab_oid> lab_store_rows(const lab_object *table);
bool lab_store_has_row(const lab_object *table, const lab_oid &index);
void lab_store_remove_row(const lab_object *table, const lab_oid &index);
/* Moves all rows to indices 1, 2, 3 ... in their order. */
void lab_store_close_gaps(const lab_object *table);
/* One more than the greatest first sub-identifier. */
oid lab_store_next_index(const lab_object *table);

lab_oid lab_store_cell(const lab_object *column, const lab_oid &index);
lab_oid lab_store_index_of(const lab_object *column, const lab_oid &place);

#endif
