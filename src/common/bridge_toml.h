/* The few TOML operations that the configuration needs, over the TOML library; no exception leaves it.
 * Tables, arrays and values point into the parsed file and live as long as it. */
#ifndef BRIDGE_TOML_H
#define BRIDGE_TOML_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

struct bridge_toml_file;
struct bridge_toml_table;
struct bridge_toml_array;
struct bridge_toml_raw; /* a value */

/* Reads the whole of `file`. Returns null with a text in `error`, or the parsed file, owned by the caller. */
bridge_toml_file *bridge_toml_parse_file(FILE *file, char *error, size_t error_size);
void bridge_toml_free(bridge_toml_file *file);

/* Null when there is no such key, or when it holds something of another kind; a raw value is neither a table
 * nor an array. */
const bridge_toml_table *bridge_toml_table_in(const bridge_toml_file *file, const char *key);
const bridge_toml_array *bridge_toml_array_in(const bridge_toml_table *table, const char *key);
const bridge_toml_raw *bridge_toml_raw_in(const bridge_toml_table *table, const char *key);

size_t bridge_toml_array_size(const bridge_toml_array *array);

/* The item, of whatever kind; null past the end. */
const bridge_toml_raw *bridge_toml_raw_at(const bridge_toml_array *array, size_t index);

/* Writes the value as a reader would recognise it, for a message about it. */
void bridge_toml_describe(const bridge_toml_raw *raw, char *buffer, size_t size);

/* Conversions: 0, or -1 for a value of another type. A text is on the heap and the caller's to free; it is
 * null on failure. An integer is a double too, but no other type is taken for another. */
int bridge_toml_to_string(const bridge_toml_raw *raw, char **value);
int bridge_toml_to_bool(const bridge_toml_raw *raw, int *value);
int bridge_toml_to_int(const bridge_toml_raw *raw, int64_t *value);
int bridge_toml_to_double(const bridge_toml_raw *raw, double *value);

#endif
