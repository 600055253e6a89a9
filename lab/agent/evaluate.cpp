#include "evaluate.h"

#include <chrono>
#include <cstdio>
#include <ctime>

static constexpr size_t reference_limit = 1000;
static constexpr long long ramp_steps = 40;
static constexpr long long ramp_limit = 15000;

struct evaluate_context {
    json_ref data = json_ref::own(json_object_new_object());
    json_ref problems = json_ref::own(json_object_new_array());
    std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
};

static evaluate_context evaluation;

void lab_problem(const std::string &text)
{
    fprintf(stderr, "lab agent: %s\n", text.c_str());
    json_object_array_add(evaluation.problems.get(), json_object_new_string(text.c_str()));
}

json_ref lab_problems()
{
    return evaluation.problems;
}

static json_object *copy_of(json_object *json)
{
    json_object *copy = nullptr;
    if (json != nullptr)
        json_object_deep_copy(json, &copy, nullptr);
    return copy;
}

void lab_data_merge(json_object *data)
{
    if (!json_object_is_type(data, json_type_object))
        return;
    json_object_object_foreach(data, name, entries)
    {
        json_object *known = json_member(evaluation.data.get(), name);
        if (!json_object_is_type(known, json_type_object) ||
            !json_object_is_type(entries, json_type_object)) {
            json_object_object_add(evaluation.data.get(), name, copy_of(entries));
            continue;
        }
        json_object_object_foreach(entries, key, entry)
        {
            json_object_object_add(known, key, copy_of(entry));
        }
    }
}

/* --- texts --- */

static std::string uptime_text()
{
    auto passed = std::chrono::steady_clock::now() - evaluation.started;
    return std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(passed).count() / 10);
}

static std::string time_text(const std::string &format)
{
    char text[128] = "";
    time_t now = time(nullptr);
    struct tm parts = {};
    if (localtime_r(&now, &parts) == nullptr || strftime(text, sizeof(text), format.c_str(), &parts) == 0)
        return "";
    return text;
}

static std::string object_text(const std::string &name)
{
    std::optional<lab_oid> place = lab_name_to_oid(name);
    const lab_instance *instance = place ? lab_store_find(*place) : nullptr;
    std::optional<lab_value> value;
    if (instance != nullptr)
        value = lab_current_value(*place, *instance);
    if (!value) {
        lab_problem("a reference to " + name + ", which has no value");
        return "";
    }
    return lab_value_text(*value);
}

static std::string reference_text(const std::string &reference, const lab_scope &scope)
{
    if (reference == "value")
        return scope.value;
    if (reference == "index")
        return scope.index;
    if (reference == "uptime")
        return uptime_text();
    if (reference.starts_with("now:"))
        return time_text(reference.substr(4));
    if (reference.starts_with("rows:")) {
        const lab_object *table = lab_name_find(reference.substr(5));
        return std::to_string(table != nullptr ? lab_store_rows(table).size() : 0);
    }
    return object_text(reference);
}

std::string lab_expand(const std::string &text, const lab_scope &scope)
{
    std::string result = text;
    for (size_t i = 0; i < reference_limit; i++) {
        size_t start = result.rfind("${");
        size_t end = start != std::string::npos ? result.find('}', start) : std::string::npos;
        if (end == std::string::npos)
            break;
        std::string reference = result.substr(start + 2, end - start - 2);
        result.replace(start, end - start + 1, reference_text(reference, scope));
    }
    return result;
}

/* --- values --- */

static json_ref text_json(const std::string &text)
{
    return json_ref::own(json_object_new_string_len(text.data(), static_cast<int>(text.size())));
}

static long long number_of(json_object *json, const lab_scope &scope)
{
    return json_object_get_int64(lab_evaluate(json, scope).get());
}

static json_ref computed(json_object *parts, bool is_sum, const lab_scope &scope)
{
    long long result = is_sum ? 0 : 1;
    for (size_t i = 0; i < json_object_array_length(parts); i++) {
        long long part = number_of(json_object_array_get_idx(parts, i), scope);
        result = is_sum ? result + part : result * part;
    }
    return json_ref::own(json_object_new_int64(result));
}

static json_ref looked_up(json_object *json, const lab_scope &scope)
{
    json_object *entries =
        json_member(evaluation.data.get(), json_object_get_string(json_member(json, "look_up")));
    json_ref key = lab_evaluate(json_member(json, "key"), scope);
    json_object *found =
        key.get() != nullptr ? json_member(entries, json_object_get_string(key.get())) : nullptr;
    return lab_evaluate(found != nullptr ? found : json_member(json, "default"), scope);
}

static json_ref ramp(json_object *json, const lab_scope &scope)
{
    long long from = number_of(json_member(json, "from"), scope);
    long long length = number_of(json_member(json, "length"), scope);
    json_object *numbers = json_object_new_array();
    for (long long i = 0; i < length && i < ramp_limit; i++)
        json_object_array_add(numbers, json_object_new_int64(from + i % ramp_steps));
    json_ref form = json_ref::own(json_object_new_object());
    json_object_object_add(form.get(), "int32_le", numbers);
    return form;
}

static json_ref evaluate_object(json_object *json, const lab_scope &scope)
{
    if (json_member(json, "live") != nullptr)
        return json_ref::share(json);
    if (json_object *parts = json_member(json, "plus"); json_object_is_type(parts, json_type_array))
        return computed(parts, true, scope);
    if (json_object *parts = json_member(json, "times"); json_object_is_type(parts, json_type_array))
        return computed(parts, false, scope);
    if (json_object_is_type(json_member(json, "look_up"), json_type_string))
        return looked_up(json, scope);
    if (json_object *bounds = json_member(json, "ramp"); json_object_is_type(bounds, json_type_object))
        return ramp(bounds, scope);
    json_ref result = json_ref::own(json_object_new_object());
    json_object_object_foreach(json, key, member)
    {
        json_object_object_add(result.get(), key, lab_evaluate(member, scope).release());
    }
    return result;
}

static json_ref evaluate_array(json_object *json, const lab_scope &scope)
{
    json_ref result = json_ref::own(json_object_new_array());
    for (size_t i = 0; i < json_object_array_length(json); i++)
        json_object_array_add(result.get(),
                              lab_evaluate(json_object_array_get_idx(json, i), scope).release());
    return result;
}

json_ref lab_evaluate(json_object *json, const lab_scope &scope)
{
    switch (json_object_get_type(json)) {
    case json_type_string: {
        size_t length = static_cast<size_t>(json_object_get_string_len(json));
        return text_json(lab_expand(std::string(json_object_get_string(json), length), scope));
    }
    case json_type_object:
        return evaluate_object(json, scope);
    case json_type_array:
        return evaluate_array(json, scope);
    default:
        return json_ref::share(json);
    }
}

std::optional<lab_value> lab_current_value(const lab_oid &place, const lab_instance &instance)
{
    if (instance.live.get() == nullptr)
        return instance.value;
    std::string why;
    lab_scope scope;
    const lab_object *object = lab_name_of(place);
    if (object->table != nullptr)
        scope.index = lab_oid_text(lab_store_index_of(object, place));
    json_ref now = lab_evaluate(instance.live.get(), scope);
    return lab_value_from_json(instance.value.type, now.get(), &why);
}

bool lab_put_named(const std::string &name, json_object *json, const lab_scope &scope)
{
    std::optional<lab_oid> place = lab_name_to_oid(name);
    const lab_object *object = place ? lab_name_of(*place) : nullptr;
    if (object == nullptr || object->place.size() == place->size()) {
        lab_problem("no such instance can be: " + name);
        return false;
    }
    if (json_object *live = json_member(json, "live")) {
        lab_store_put(*place, {{object->type, ""}, json_ref::share(live)});
        return true;
    }
    std::string why;
    std::optional<lab_value> value = lab_value_from_json(object->type, lab_evaluate(json, scope).get(), &why);
    if (!value) {
        lab_problem(name + ": " + why);
        return false;
    }
    lab_store_put(*place, {*value, {}});
    return true;
}
