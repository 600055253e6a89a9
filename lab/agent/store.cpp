#include "store.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

struct store_context {
    std::map<lab_oid, lab_instance> instances;
    std::map<const lab_object *, std::set<lab_oid>> rows;
};

static store_context store;

const lab_instance *lab_store_find(const lab_oid &place)
{
    auto found = store.instances.find(place);
    return found != store.instances.end() ? &found->second : nullptr;
}

const lab_instance *lab_store_next(const lab_oid &place, bool inclusive, lab_oid *found)
{
    auto next = inclusive ? store.instances.lower_bound(place) : store.instances.upper_bound(place);
    if (next == store.instances.end())
        return nullptr;
    *found = next->first;
    return &next->second;
}

bool lab_store_has_object(const lab_object *object)
{
    lab_oid found;
    if (lab_store_next(object->place, true, &found) == nullptr || found.size() < object->place.size())
        return false;
    return std::equal(object->place.begin(), object->place.end(), found.begin());
}

lab_oid lab_store_cell(const lab_object *column, const lab_oid &index)
{
    lab_oid place = column->place;
    place.insert(place.end(), index.begin(), index.end());
    return place;
}

lab_oid lab_store_index_of(const lab_object *column, const lab_oid &place)
{
    return {place.begin() + static_cast<std::ptrdiff_t>(column->place.size()), place.end()};
}

void lab_store_put(const lab_oid &place, lab_instance instance)
{
    store.instances[place] = std::move(instance);
    const lab_object *object = lab_name_of(place);
    if (object != nullptr && object->table != nullptr)
        store.rows[object->table].insert(lab_store_index_of(object, place));
}

void lab_store_remove(const lab_oid &place)
{
    store.instances.erase(place);
    const lab_object *object = lab_name_of(place);
    if (object == nullptr || object->table == nullptr)
        return;
    lab_oid index = lab_store_index_of(object, place);
    for (const lab_object *column : lab_name_columns(object->table)) {
        if (lab_store_find(lab_store_cell(column, index)) != nullptr)
            return;
    }
    store.rows[object->table].erase(index);
}

std::vector<lab_oid> lab_store_rows(const lab_object *table)
{
    const std::set<lab_oid> &rows = store.rows[table];
    return {rows.begin(), rows.end()};
}

bool lab_store_has_row(const lab_object *table, const lab_oid &index)
{
    return store.rows[table].contains(index);
}

void lab_store_remove_row(const lab_object *table, const lab_oid &index)
{
    for (const lab_object *column : lab_name_columns(table))
        store.instances.erase(lab_store_cell(column, index));
    store.rows[table].erase(index);
}

static void move_row(const lab_object *table, const lab_oid &from, const lab_oid &to)
{
    for (const lab_object *column : lab_name_columns(table)) {
        auto cell = store.instances.extract(lab_store_cell(column, from));
        if (cell.empty())
            continue;
        cell.key() = lab_store_cell(column, to);
        store.instances.insert(std::move(cell));
    }
}

void lab_store_close_gaps(const lab_object *table)
{
    std::set<lab_oid> moved;
    oid number = 0;
    for (const lab_oid &index : lab_store_rows(table)) {
        lab_oid wanted = {++number};
        if (index != wanted)
            move_row(table, index, wanted);
        moved.insert(wanted);
    }
    store.rows[table] = moved;
}

oid lab_store_next_index(const lab_object *table)
{
    const std::set<lab_oid> &rows = store.rows[table];
    return rows.empty() ? 1 : rows.rbegin()->front() + 1;
}
