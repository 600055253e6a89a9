#include "tables.h"

#include <map>
#include <set>

struct table_settings {
    std::set<const lab_object *> created_by;
    json_ref defaults;
};

static std::map<const lab_object *, table_settings> settings_of;

static const lab_object *table_by_name(const std::string &name)
{
    const lab_object *table = lab_name_find(name);
    if (table == nullptr || lab_name_columns(table).empty()) {
        lab_problem("no table " + name);
        return nullptr;
    }
    return table;
}

static bool put_cells(const lab_object *table, const lab_oid &index, json_object *row, const lab_scope &scope)
{
    bool good = json_object_is_type(row, json_type_object);
    if (!good)
        return false;
    lab_scope inner = {scope.value, lab_oid_text(index)};
    json_object_object_foreach(row, key, cell)
    {
        const lab_object *column = lab_name_find(key);
        if (std::string(key) == "index")
            continue;
        if (column == nullptr || column->table != table) {
            lab_problem(table->name + " has no column " + key);
            good = false;
            continue;
        }
        good = lab_put_named(lab_name_from_oid(lab_store_cell(column, index)), cell, inner) && good;
    }
    return good;
}

static std::optional<lab_oid> index_from_json(json_object *json, const lab_scope &scope)
{
    json_ref now = lab_evaluate(json, scope);
    std::optional<lab_oid> index;
    if (now.get() != nullptr)
        index = lab_oid_from_text(json_object_get_string(now.get()));
    if (!index)
        lab_problem("no index of a row");
    return index;
}

static bool append(const lab_object *table, json_object *row, const lab_scope &scope)
{
    lab_oid index = {lab_store_next_index(table)};
    if (json_object *given = json_member(row, "index")) {
        std::optional<lab_oid> read = index_from_json(given, scope);
        if (!read)
            return false;
        index = *read;
    }
    return put_cells(table, index, row, scope);
}

bool lab_table_append(const std::string &name, json_object *row, const lab_scope &scope)
{
    const lab_object *table = table_by_name(name);
    return table != nullptr && append(table, row, scope);
}

bool lab_table_put_rows(const std::string &name, json_object *rows, const lab_scope &scope)
{
    const lab_object *table = table_by_name(name);
    bool is_list = json_object_is_type(rows, json_type_array);
    json_ref now = is_list ? json_ref::share(rows) : lab_evaluate(rows, scope);
    if (table == nullptr || !json_object_is_type(now.get(), json_type_array))
        return false;
    for (const lab_oid &index : lab_store_rows(table))
        lab_store_remove_row(table, index);
    bool good = true;
    for (size_t i = 0; i < json_object_array_length(now.get()); i++)
        good = append(table, json_object_array_get_idx(now.get(), i), scope) && good;
    return good;
}

bool lab_table_put_row(const std::string &name, json_object *index, json_object *row, const lab_scope &scope)
{
    const lab_object *table = table_by_name(name);
    std::optional<lab_oid> place = table != nullptr ? index_from_json(index, scope) : std::nullopt;
    return place && put_cells(table, *place, row, scope);
}

static std::string cell_text(const lab_object *column, const lab_oid &index)
{
    lab_oid place = lab_store_cell(column, index);
    const lab_instance *instance = lab_store_find(place);
    std::optional<lab_value> value;
    if (instance != nullptr)
        value = lab_current_value(place, *instance);
    return value ? lab_value_text(*value) : "";
}

static bool fits(const lab_object *table, const lab_oid &index, json_object *where, const lab_scope &scope)
{
    if (!json_object_is_type(where, json_type_object))
        return false;
    json_object_object_foreach(where, key, wanted)
    {
        const lab_object *column = lab_name_find(key);
        json_ref now = lab_evaluate(wanted, scope);
        if (column == nullptr || column->table != table || now.get() == nullptr ||
            cell_text(column, index) != json_object_get_string(now.get()))
            return false;
    }
    return true;
}

bool lab_table_remove(const std::string &name, json_object *index, json_object *where, bool close_gap,
                      const lab_scope &scope)
{
    const lab_object *table = table_by_name(name);
    if (table == nullptr)
        return false;
    if (index != nullptr) {
        std::optional<lab_oid> place = index_from_json(index, scope);
        if (!place)
            return false;
        lab_store_remove_row(table, *place);
    } else {
        for (const lab_oid &row : lab_store_rows(table)) {
            if (fits(table, row, where, scope))
                lab_store_remove_row(table, row);
        }
    }
    if (close_gap)
        lab_store_close_gaps(table);
    return true;
}

json_ref lab_table_to_json(const std::string &name)
{
    const lab_object *table = table_by_name(name);
    if (table == nullptr)
        return {};
    json_ref rows = json_ref::own(json_object_new_array());
    for (const lab_oid &index : lab_store_rows(table)) {
        json_object *row = json_object_new_object();
        json_object_object_add(row, "index", json_object_new_string(lab_oid_text(index).c_str()));
        for (const lab_object *column : lab_name_columns(table)) {
            lab_oid place = lab_store_cell(column, index);
            const lab_instance *instance = lab_store_find(place);
            std::optional<lab_value> value;
            if (instance != nullptr)
                value = lab_current_value(place, *instance);
            if (value)
                json_object_object_add(row, column->name.c_str(), lab_value_to_json(*value).release());
        }
        json_object_array_add(rows.get(), row);
    }
    return rows;
}

bool lab_table_configure(const std::string &name, json_object *settings)
{
    const lab_object *table = table_by_name(name);
    if (table == nullptr)
        return false;
    table_settings &kept = settings_of[table];
    kept.defaults = json_ref::share(json_member(settings, "defaults"));
    json_object *created_by = json_member(settings, "created_by");
    for (size_t i = 0; created_by != nullptr && i < json_object_array_length(created_by); i++)
        kept.created_by.insert(
            lab_name_find(json_object_get_string(json_object_array_get_idx(created_by, i))));
    json_object *rows = json_member(settings, "rows");
    return rows == nullptr || lab_table_put_rows(name, rows, {});
}

bool lab_table_creates(const lab_object *column)
{
    return column->table != nullptr && settings_of[column->table].created_by.contains(column);
}

void lab_table_create(const lab_object *table, const lab_oid &index)
{
    put_cells(table, index, settings_of[table].defaults.get(), {"", lab_oid_text(index)});
}
