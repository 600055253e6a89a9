/* Rows of tables by their JSON form: {"index": 3, "swRestorePointDate": "2024-05-01", ...}. */
#ifndef LAB_TABLES_H
#define LAB_TABLES_H

#include "evaluate.h"

/* All return false, and tell a problem, when the table or a column is unknown or a value does not fit. */
bool lab_table_append(const std::string &table, json_object *row, const lab_scope &scope);
bool lab_table_put_rows(const std::string &table, json_object *rows, const lab_scope &scope);
bool lab_table_put_row(const std::string &table, json_object *index, json_object *row,
                       const lab_scope &scope);
bool lab_table_remove(const std::string &table, json_object *index, json_object *where, bool close_gap,
                      const lab_scope &scope);
/* Null for an unknown table. */
json_ref lab_table_to_json(const std::string &table);

/* "created_by": columns whose write makes a row; "defaults": the new row's other cells; "rows". */
bool lab_table_configure(const std::string &table, json_object *settings);
bool lab_table_creates(const lab_object *column);
void lab_table_create(const lab_object *table, const lab_oid &index);

#endif
