#include "scenario.h"

#include "behaviours.h"
#include "faults.h"
#include "tables.h"

static bool load_scalars(json_object *scalars)
{
    bool good = true;
    json_object_object_foreach(scalars, name, value)
    {
        good = lab_put_named(name, value, {}) && good;
    }
    return good;
}

static bool load_tables(json_object *tables)
{
    bool good = true;
    json_object_object_foreach(tables, name, settings)
    {
        bool loaded = lab_table_configure(name, settings);
        if (!loaded)
            lab_problem(std::string("table not loaded: ") + name);
        good = good && loaded;
    }
    return good;
}

static bool load_data(json_object *data)
{
    lab_data_merge(data);
    return true;
}

struct section_row {
    const char *name;
    json_type type;
    bool (*load)(json_object *section);
};

/* In the order of loading: values may refer to those before them. */
// clang-format off
static constexpr section_row sections[] = {
    {"data",    json_type_object, load_data},
    {"scalars", json_type_object, load_scalars},
    {"tables",  json_type_object, load_tables},
    {"rules",   json_type_array,  lab_rules_add},
    {"faults",  json_type_object, lab_faults_merge},
};
// clang-format on

static bool is_section(const std::string &name)
{
    for (const section_row &row : sections) {
        if (name == row.name)
            return true;
    }
    return name == "title";
}

static bool load_sections(json_object *scenario)
{
    bool good = true;
    for (const section_row &row : sections) {
        json_object *section = json_member(scenario, row.name);
        if (section == nullptr)
            continue;
        if (!json_object_is_type(section, row.type)) {
            lab_problem(std::string("wrong kind of section: ") + row.name);
            return false;
        }
        good = row.load(section) && good;
    }
    json_object_object_foreach(scenario, name, section)
    {
        static_cast<void>(section);
        if (!is_section(name)) {
            lab_problem(std::string("unknown section: ") + name);
            good = false;
        }
    }
    return good;
}

bool lab_scenario_load(const std::string &path)
{
    json_ref scenario = json_ref::own(json_object_from_file(path.c_str()));
    if (!json_object_is_type(scenario.get(), json_type_object)) {
        lab_problem("no JSON object in " + path);
        return false;
    }
    return load_sections(scenario.get());
}
