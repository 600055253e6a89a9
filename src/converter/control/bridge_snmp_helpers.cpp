/* Three ways through a table, each for the tables that its agent side builds. */
#include "converter/control/bridge_snmp_helpers.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "converter/control/bridge_ctrl_ctx.h"

#include <array>
#include <bit>
#include <cstdio>
#include <cstring>
#include <vector>

static constexpr size_t NAME_SIZE = 256;
static constexpr size_t CELL_SIZE = 512;

/* ---- counted tables ---- */

/* Returns 0 with the new value, or -1 after logging why. */
static int read_next_cell(converter_ctx *ctx, bridge_prop_type hint, json_object **cell)
{
    if (hint == PROP_TYPE_INT) {
        long number = 0;
        if (bridge_snmp_get_property_int(ctx, nullptr, &number, 0) < 0) {
            BRIDGE_ERROR("failed to get property");
            return -1;
        }
        *cell = json_object_new_int64(number);
    } else if (hint == PROP_TYPE_STRING) {
        char text[CELL_SIZE];
        size_t size = sizeof(text);
        if (bridge_snmp_get_property_str(ctx, nullptr, text, &size, 0) < 0) {
            BRIDGE_ERROR("failed to get property");
            return -1;
        }
        *cell = json_object_new_string(text);
    } else {
        return -1;
    }
    if (*cell == nullptr) {
        BRIDGE_ERROR("failed to allocate data object");
        return -1;
    }
    return 0;
}

static int add_empty_row(json_object *array)
{
    json_object *row = json_object_new_object();
    if (row == nullptr || json_object_array_add(array, row) < 0) {
        json_object_put(row);
        BRIDGE_ERROR("failed to create array object");
        return -1;
    }
    return 0;
}

/* Without columns all rows stay empty. */
static int add_empty_rows(json_object *array, size_t count)
{
    for (size_t i = 0; i < count; i++) {
        if (add_empty_row(array) < 0)
            return -1;
    }
    return 0;
}

/* A row is made when its first cell has come: the count alone, which may be any number, costs no memory. */
static int fill_columns(converter_ctx *ctx, const bridge_snmp_column *mapping, size_t rows,
                        json_object *array)
{
    for (const bridge_snmp_column *column = mapping; column->field_name != nullptr; column++) {
        for (size_t i = 0; i < rows; i++) {
            json_object *cell = nullptr;
            if (read_next_cell(ctx, column->hint, &cell) < 0)
                return -1;
            json_owned owned(cell);
            if (column == mapping && add_empty_row(array) < 0)
                return -1;
            json_object_object_add(json_object_array_get_idx(array, i), column->field_name, owned.release());
        }
    }
    return 0;
}

int bridge_snmp_get_table_as_json(converter_ctx *ctx, const bridge_snmp_column *mapping,
                                  const char *count_oid, json_object **out)
{
    BRIDGE_ASSERT(ctx);
    BRIDGE_ASSERT(mapping);
    BRIDGE_ASSERT(out);
    json_owned array(json_object_new_array());
    if (!array) {
        BRIDGE_ERROR("failed to allocate object array");
        return -1;
    }
    const ctx_guard guard(ctx); /* each cell is the one after the last: no other read may come between */
    long count = 0;
    const int result = bridge_snmp_get_property_int(ctx, count_oid, &count, 0);
    if (result < 0 || count < 0) {
        BRIDGE_ERROR("failed to get valid property");
        return result; /* a negative count is no failure to the callers, who find nothing in `out` */
    }
    const auto rows = static_cast<size_t>(count);
    const bool has_columns = mapping->field_name != nullptr;
    if ((has_columns ? fill_columns(ctx, mapping, rows, array.get()) : add_empty_rows(array.get(), rows)) < 0)
        return -1;
    *out = array.release();
    return 0;
}

/* ---- exact tables ---- */

/* The records of one request and the texts they point at. Slot 0 is the index column's. */
struct exact_walk {
    const bridge_snmp_column *mapping;
    const char *idx_key; /* null: rows 1, 2, 3 */
    size_t columns;
    char index[NAME_SIZE];
    std::vector<std::array<char, NAME_SIZE>> names;
    std::vector<bridge_snmp_read_prop> props; /* one more than the slots: it ends the array */
};

static size_t count_columns(const bridge_snmp_column *mapping)
{
    size_t count = 0;
    while (mapping[count].field_name != nullptr)
        count++;
    return count;
}

/* With an empty index the text ends behind the name: that asks for what follows the bare column. */
static int print_name(std::array<char, NAME_SIZE> *name, const char *base, const char *index)
{
    const int length =
        snprintf(name->data(), name->size(), "%s%c%s", base, *index != '\0' ? '.' : '\0', index);
    if (length < 0 || static_cast<size_t>(length) >= name->size()) {
        BRIDGE_ERROR("failed to prepare OID string");
        return -1;
    }
    return 0;
}

static int fill_slots(exact_walk *walk, json_object *row)
{
    if (walk->idx_key != nullptr) {
        if (print_name(&walk->names[0], walk->idx_key, walk->index) < 0)
            return -1;
        walk->props[0] = {.oid = walk->names[0].data(),
                          .root_oid = walk->idx_key,
                          .buf_sz = sizeof(walk->index),
                          .buf = walk->index,
                          .type = PROP_TYPE_STRING};
    }
    for (size_t i = 0; i < walk->columns; i++) {
        const bridge_snmp_column &column = walk->mapping[i];
        if (print_name(&walk->names[i + 1], column.oid, walk->index) < 0)
            return -1;
        walk->props[i + 1] = {.oid = walk->names[i + 1].data(),
                              .field_name = column.field_name,
                              .buf = row,
                              .type = PROP_TYPE_JSON,
                              .hint = column.hint};
    }
    return 0;
}

/* With an index column each answer brings the index of the row, which is the position of the next step. */
static int request_row(converter_ctx *ctx, exact_walk *walk)
{
    if (walk->idx_key != nullptr)
        return bridge_snmp_getnext_properties(ctx, walk->props.data(), 0);
    return bridge_snmp_get_properties(ctx, walk->props.data() + 1, 0);
}

/* Returns 1 for a row, 0 at the table's end, -1 without memory. */
static int read_row(converter_ctx *ctx, exact_walk *walk, size_t row_number, json_object *array)
{
    json_owned row(json_object_new_object());
    if (!row) {
        BRIDGE_ERROR("failed to create array object");
        return -1;
    }
    if (walk->idx_key == nullptr)
        snprintf(walk->index, sizeof(walk->index), "%zu", row_number + 1);
    if (fill_slots(walk, row.get()) < 0)
        return -1;
    char previous[NAME_SIZE];
    memcpy(previous, walk->index, sizeof(previous));
    /* An agent whose index does not move on would be asked for ever. */
    if (request_row(ctx, walk) < 0 || (walk->idx_key != nullptr && strcmp(previous, walk->index) == 0)) {
        BRIDGE_TRACE("end of table is reached");
        return 0;
    }
    json_object_array_put_idx(array, row_number, row.release());
    return 1;
}

int bridge_snmp_get_exact_table_as_json(converter_ctx *ctx, const bridge_snmp_column *mapping,
                                        const char *idx_key, json_object **out)
{
    BRIDGE_ASSERT(ctx);
    BRIDGE_ASSERT(mapping);
    BRIDGE_ASSERT(out);
    json_owned array(json_object_new_array());
    if (!array) {
        BRIDGE_ERROR("failed to allocate object array");
        return -1;
    }
    exact_walk walk = {.mapping = mapping, .idx_key = idx_key, .columns = count_columns(mapping)};
    walk.names.resize(walk.columns + 1);
    walk.props.resize(walk.columns + 2);
    BRIDGE_ASSERT_TEXT(idx_key == nullptr || strlen(idx_key) < NAME_SIZE,
                       "strlen(idx_key) < sizeof(row[0].oid_str)");
    size_t rows = 0;
    int result = 1;
    while (result > 0) {
        result = read_row(ctx, &walk, rows, array.get());
        if (result > 0)
            rows++;
    }
    if (result < 0)
        return -1;
    BRIDGE_TRACE("got %zu table values", rows);
    *out = array.release();
    return 0;
}

static int write_row(converter_ctx *ctx, const bridge_snmp_column *mapping, size_t columns, size_t row_number,
                     json_object *row)
{
    std::vector<std::array<char, NAME_SIZE>> names(columns);
    std::vector<bridge_snmp_write_prop> props(columns + 1);
    for (size_t i = 0; i < columns; i++) {
        const int length =
            snprintf(names[i].data(), names[i].size(), "%s.%zu", mapping[i].oid, row_number + 1);
        if (length < 0 || static_cast<size_t>(length) >= names[i].size()) {
            BRIDGE_ERROR("failed to prepare OID string");
            return -1;
        }
        props[i] = {.oid = names[i].data(),
                    .field_name = mapping[i].field_name,
                    .optional = mapping[i].optional,
                    .value = row,
                    .type = PROP_TYPE_JSON,
                    .hint = mapping[i].hint};
    }
    if (bridge_snmp_set_properties(ctx, props.data(), 0) < 0) {
        BRIDGE_ERROR("failed to set table properties");
        return -1;
    }
    return 0;
}

int bridge_snmp_set_exact_table_from_json(converter_ctx *ctx, const bridge_snmp_column *mapping,
                                          json_object *arr)
{
    BRIDGE_ASSERT(ctx);
    BRIDGE_ASSERT(mapping);
    BRIDGE_ASSERT(arr);
    const size_t columns = count_columns(mapping);
    const size_t rows = json_object_array_length(arr);
    for (size_t i = 0; i < rows; i++) {
        if (write_row(ctx, mapping, columns, i, json_object_array_get_idx(arr, i)) < 0)
            return -1;
    }
    return 0;
}

/* ---- the antenna's offset ---- */

int bridge_snmp_get_dbm_offt(converter_ctx *ctx, uint32_t antenna, double *offset)
{
    char name[32];
    const int length = snprintf(name, sizeof(name), "radioRxDbfsToDbmAnt%u.0", antenna);
    if (length < 0 || static_cast<size_t>(length) >= sizeof(name)) {
        BRIDGE_ERROR("failed to determine antenna Dbfs OID");
        return -1;
    }
    char bytes[8];
    size_t size = sizeof(bytes);
    if (bridge_snmp_get_property_str(ctx, name, bytes, &size, 0) < 0 || size != sizeof(float)) {
        BRIDGE_ERROR("failed to get DBFS offset");
        return -1;
    }
    /* A big-endian IEEE 754 single. */
    uint32_t raw = 0;
    for (size_t i = 0; i < sizeof(raw); i++)
        raw = raw << 8 | static_cast<uint8_t>(bytes[i]);
    *offset = static_cast<double>(std::bit_cast<float>(raw));
    return 0;
}
