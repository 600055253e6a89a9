#include "behaviours.h"

#include <algorithm>
#include <iterator>
#include <list>
#include <memory>

#include "faults.h"
#include "notify.h"
#include "requests.h"
#include "tables.h"

enum class trigger { start, set, get };

struct lab_rule {
    trigger on = trigger::start;
    lab_oid place; /* of the instance, or with `any` of the object */
    bool any = false;
    json_ref when;
    json_ref steps;
};

struct frame {
    json_ref steps;
    size_t at = 0;
};

/* One walk over steps. While it waits it holds an alarm of the library. */
struct lab_run {
    const lab_rule *rule = nullptr; /* null for steps of the control port */
    lab_scope scope;
    std::vector<frame> frames;
    std::string series_name;
    std::list<json_ref> series;
    long every_ms = 0;
    unsigned alarm = 0;
};

struct behaviours_context {
    std::list<lab_rule> rules;
    std::list<std::unique_ptr<lab_run>> runs;
};

static behaviours_context behaviours;

struct condition_row {
    const char *kind;
    const char *table, *id, *severity, *state, *texts, *notification;
};

// clang-format off
static constexpr condition_row conditions[] = {
    {"alarm", "hmAlarmCurrentStateTable", "hmAlarmCurrentStateId", "hmAlarmCurrentStateSeverity",
     "hmAlarmCurrentStateState", "alarms", "hmAlarmNotification"},
    {"fault", "hmFaultCurrentStateTable", "hmFaultCurrentStateId", "hmFaultCurrentStateSeverity",
     "hmFaultCurrentStateState", "faults", "hmFaultNotification"},
};
// clang-format on

static std::string text_of(json_object *json)
{
    return json != nullptr ? json_object_get_string(json) : "";
}

static long long number_of(json_object *json, const lab_scope &scope)
{
    return json_object_get_int64(lab_evaluate(json, scope).get());
}

static bool is_true(json_object *json, bool otherwise)
{
    return json != nullptr ? json_object_get_boolean(json) != 0 : otherwise;
}

static bool holds(json_object *when, const lab_scope &scope)
{
    if (when == nullptr)
        return true;
    json_object_object_foreach(when, left, right)
    {
        if (lab_expand(left, scope) != text_of(lab_evaluate(right, scope).get()))
            return false;
    }
    return true;
}

/* --- steps; each returns false when it could not be done --- */

static bool step_set(lab_run *run, json_object *step)
{
    json_object *values = json_member(step, "set");
    bool good = json_object_is_type(values, json_type_object);
    if (!good)
        return false;
    json_object_object_foreach(values, name, value)
    {
        good = lab_put_named(lab_expand(name, run->scope), value, run->scope) && good;
    }
    return good;
}

static bool step_append_row(lab_run *run, json_object *step)
{
    return lab_table_append(text_of(json_member(step, "append_row")), json_member(step, "row"), run->scope);
}

static bool step_put_rows(lab_run *run, json_object *step)
{
    return lab_table_put_rows(text_of(json_member(step, "put_rows")), json_member(step, "rows"), run->scope);
}

static bool step_put_row(lab_run *run, json_object *step)
{
    return lab_table_put_row(text_of(json_member(step, "put_row")), json_member(step, "index"),
                             json_member(step, "row"), run->scope);
}

static bool step_remove_rows(lab_run *run, json_object *step)
{
    return lab_table_remove(text_of(json_member(step, "remove_rows")), json_member(step, "index"),
                            json_member(step, "where"), is_true(json_member(step, "close_gap"), false),
                            run->scope);
}

static bool step_remove(lab_run *run, json_object *step)
{
    std::optional<lab_oid> place =
        lab_name_to_oid(lab_expand(text_of(json_member(step, "remove")), run->scope));
    if (place)
        lab_store_remove(*place);
    return place.has_value();
}

static bool step_wait_ms(lab_run *run, json_object *step)
{
    run->every_ms = static_cast<long>(number_of(json_member(step, "wait_ms"), run->scope));
    run->series.push_back({});
    return true;
}

static void begin_series(lab_run *run, const std::string &name, json_object *step)
{
    run->series_name = lab_expand(name, run->scope);
    run->every_ms = static_cast<long>(number_of(json_member(step, "every_ms"), run->scope));
}

static bool step_count_down(lab_run *run, json_object *step)
{
    begin_series(run, text_of(json_member(step, "count_down")), step);
    long long from = std::max(number_of(json_member(step, "from"), run->scope), 0LL);
    for (long long left = from; left >= 0; left--)
        run->series.push_back(json_ref::own(json_object_new_int64(left)));
    return true;
}

static bool step_sequence(lab_run *run, json_object *step)
{
    json_object *values = json_member(step, "values");
    if (!json_object_is_type(values, json_type_array))
        return false;
    begin_series(run, text_of(json_member(step, "sequence")), step);
    for (size_t i = 0; i < json_object_array_length(values); i++)
        run->series.push_back(json_ref::share(json_object_array_get_idx(values, i)));
    return true;
}

static bool step_if(lab_run *run, json_object *step)
{
    json_object *chosen = json_member(step, holds(json_member(step, "if"), run->scope) ? "then" : "else");
    if (json_object_is_type(chosen, json_type_array))
        run->frames.push_back({json_ref::share(chosen), 0});
    return true;
}

static const condition_row *condition_by_kind(const std::string &kind)
{
    for (const condition_row &row : conditions) {
        if (kind == row.kind)
            return &row;
    }
    lab_problem("no kind of condition: " + kind);
    return nullptr;
}

/* The row of that id, or the row that it will have. */
static lab_oid condition_row_index(const condition_row *condition, const std::string &id)
{
    const lab_object *column = lab_name_find(condition->id);
    for (const lab_oid &index : lab_store_rows(lab_name_find(condition->table))) {
        const lab_instance *instance = lab_store_find(lab_store_cell(column, index));
        if (instance != nullptr && lab_value_text(instance->value) == id)
            return index;
    }
    return {lab_store_next_index(lab_name_find(condition->table))};
}

static void keep_text(const condition_row *condition, const std::string &id, json_object *text)
{
    json_ref data = json_ref::own(json_object_new_object());
    json_object *texts = json_object_new_object();
    json_object_object_add(data.get(), condition->texts, texts);
    json_object_object_add(texts, id.c_str(), json_object_get(text));
    lab_data_merge(data.get());
}

static bool condition_changed(const condition_row *condition, json_object *step)
{
    if (!is_true(json_member(step, "notify"), true))
        return true;
    json_ref name = json_ref::own(json_object_new_string(condition->notification));
    lab_notify(name.get(), {});
    return true;
}

static bool put_condition(lab_run *run, const condition_row *condition, json_object *step, int state)
{
    std::string id = text_of(lab_evaluate(json_member(step, "id"), run->scope).get());
    std::string index = lab_oid_text(condition_row_index(condition, id));
    json_ref severity = lab_evaluate(json_member(step, "severity"), run->scope);
    json_ref row = json_ref::own(json_object_new_object());
    json_object_object_add(row.get(), condition->id, json_object_new_string(id.c_str()));
    if (severity.get() != nullptr)
        json_object_object_add(row.get(), condition->severity, severity.release());
    json_object_object_add(row.get(), condition->state, json_object_new_int(state));
    json_ref index_json = json_ref::own(json_object_new_string(index.c_str()));
    if (json_object *text = json_member(step, "text"))
        keep_text(condition, id, lab_evaluate(text, run->scope).get());
    return lab_table_put_row(condition->table, index_json.get(), row.get(), run->scope);
}

static bool step_raise(lab_run *run, json_object *step)
{
    const condition_row *condition = condition_by_kind(text_of(json_member(step, "raise")));
    return condition != nullptr && put_condition(run, condition, step, 1) &&
           condition_changed(condition, step);
}

static bool step_clear(lab_run *run, json_object *step)
{
    const condition_row *condition = condition_by_kind(text_of(json_member(step, "clear")));
    if (condition == nullptr)
        return false;
    bool done;
    if (is_true(json_member(step, "remove"), false)) {
        json_ref where = json_ref::own(json_object_new_object());
        json_object_object_add(where.get(), condition->id, json_object_get(json_member(step, "id")));
        done = lab_table_remove(condition->table, nullptr, where.get(), true, run->scope);
    } else {
        done = put_condition(run, condition, step, 0);
    }
    return done && condition_changed(condition, step);
}

static bool step_notify(lab_run *run, json_object *step)
{
    return lab_notify(json_member(step, "notify"), run->scope);
}

static bool step_trap_to(lab_run *run, json_object *step)
{
    lab_notify_to(text_of(lab_evaluate(json_member(step, "trap_to"), run->scope).get()));
    return true;
}

static bool step_silent(lab_run *, json_object *step)
{
    lab_requests_silence(is_true(json_member(step, "silent"), true));
    return true;
}

static bool step_faults(lab_run *, json_object *step)
{
    return lab_faults_merge(json_member(step, "faults"));
}

static bool step_clear_faults(lab_run *, json_object *)
{
    lab_faults_clear();
    return true;
}

static bool step_rules(lab_run *, json_object *step)
{
    return lab_rules_add(json_member(step, "rules"));
}

static bool step_data(lab_run *, json_object *step)
{
    lab_data_merge(json_member(step, "data"));
    return true;
}

struct step_row {
    const char *name;
    bool (*run)(lab_run *run, json_object *step);
};

/* "remove" and "notify" stand behind the steps of which they are members too. */
// clang-format off
static constexpr step_row step_rows[] = {
    {"set",          step_set},
    {"append_row",   step_append_row},
    {"put_rows",     step_put_rows},
    {"put_row",      step_put_row},
    {"remove_rows",  step_remove_rows},
    {"wait_ms",      step_wait_ms},
    {"count_down",   step_count_down},
    {"sequence",     step_sequence},
    {"if",           step_if},
    {"raise",        step_raise},
    {"clear",        step_clear},
    {"remove",       step_remove},
    {"trap_to",      step_trap_to},
    {"silent",       step_silent},
    {"faults",       step_faults},
    {"clear_faults", step_clear_faults},
    {"rules",        step_rules},
    {"data",         step_data},
    {"notify",       step_notify},
};
// clang-format on

static const step_row *row_of(json_object *step)
{
    for (const step_row &row : step_rows) {
        if (row.run != nullptr && json_member(step, row.name) != nullptr)
            return &row;
    }
    return nullptr;
}

/* --- runs --- */

static void continue_run(lab_run *run);

static void on_alarm(unsigned, void *argument)
{
    lab_run *run = static_cast<lab_run *>(argument);
    run->alarm = 0;
    continue_run(run);
}

static bool wait_for(lab_run *run)
{
    long ms = std::max(run->every_ms, 1L);
    struct timeval delay = {ms / 1000, ms % 1000 * 1000};
    run->alarm = snmp_alarm_register_hr(delay, 0, on_alarm, run);
    return run->alarm != 0;
}

/* Goes on with values at intervals; true while there are more. */
static bool series_waits(lab_run *run)
{
    while (!run->series.empty()) {
        json_ref value = run->series.front();
        run->series.pop_front();
        if (value.get() != nullptr)
            lab_put_named(run->series_name, value.get(), run->scope);
        bool is_last = value.get() != nullptr && run->series.empty();
        if (!is_last && wait_for(run))
            return true;
    }
    return false;
}

static void end_run(const lab_run *run)
{
    std::erase_if(behaviours.runs, [run](const auto &each) { return each.get() == run; });
}

static bool do_step(lab_run *run, json_object *step)
{
    const step_row *row = row_of(step);
    bool done = row != nullptr && row->run(run, step);
    if (!done)
        lab_problem(std::string("step not done: ") + json_object_to_json_string(step));
    return done;
}

static void continue_run(lab_run *run)
{
    while (true) {
        if (series_waits(run))
            return;
        if (run->frames.empty())
            break;
        frame &top = run->frames.back();
        if (top.at >= json_object_array_length(top.steps.get())) {
            run->frames.pop_back();
            continue;
        }
        do_step(run, json_object_array_get_idx(top.steps.get(), top.at++));
    }
    end_run(run);
}

static lab_run *new_run(const lab_rule *rule, const lab_scope &scope)
{
    lab_run *run = behaviours.runs.emplace_back(std::make_unique<lab_run>()).get();
    run->rule = rule;
    run->scope = scope;
    return run;
}

static void cancel_runs_of(const lab_rule *rule)
{
    for (const auto &run : behaviours.runs) {
        if (run->rule == rule && run->alarm != 0)
            snmp_alarm_unregister(run->alarm);
    }
    std::erase_if(behaviours.runs,
                  [rule](const auto &each) { return each->rule == rule && each->alarm != 0; });
}

bool lab_step_is_known(json_object *step)
{
    return row_of(step) != nullptr;
}

bool lab_step_run(json_object *step)
{
    lab_run *run = new_run(nullptr, {});
    bool done = do_step(run, step);
    continue_run(run);
    return done;
}

size_t lab_runs_waiting()
{
    return behaviours.runs.size();
}

/* --- rules --- */

static bool steps_are_known(json_object *steps)
{
    if (!json_object_is_type(steps, json_type_array))
        return false;
    for (size_t i = 0; i < json_object_array_length(steps); i++) {
        json_object *step = json_object_array_get_idx(steps, i);
        json_object *then = json_member(step, "then");
        json_object *otherwise = json_member(step, "else");
        if (!lab_step_is_known(step) || (then != nullptr && !steps_are_known(then)) ||
            (otherwise != nullptr && !steps_are_known(otherwise))) {
            lab_problem(std::string("unknown step: ") + json_object_to_json_string(step));
            return false;
        }
    }
    return true;
}

static bool read_trigger(json_object *json, lab_rule *rule)
{
    if (json_member(json, "on_start") != nullptr)
        return true;
    json_object *on_set = json_member(json, "on_set");
    std::string name = text_of(on_set != nullptr ? on_set : json_member(json, "on_get"));
    rule->on = on_set != nullptr ? trigger::set : trigger::get;
    rule->any = name.ends_with(".*");
    if (rule->any)
        name.resize(name.size() - 2);
    std::optional<lab_oid> place = lab_name_to_oid(name);
    rule->place = place.value_or(lab_oid());
    return place.has_value();
}

bool lab_rules_add(json_object *rules)
{
    if (!json_object_is_type(rules, json_type_array))
        return false;
    std::list<lab_rule> added;
    for (size_t i = 0; i < json_object_array_length(rules); i++) {
        json_object *json = json_object_array_get_idx(rules, i);
        lab_rule rule;
        rule.when = json_ref::share(json_member(json, "when"));
        rule.steps = json_ref::share(json_member(json, "do"));
        if (!read_trigger(json, &rule) || !steps_are_known(rule.steps.get())) {
            lab_problem(std::string("bad rule: ") + json_object_to_json_string(json));
            return false;
        }
        added.push_back(rule);
    }
    behaviours.rules.splice(behaviours.rules.begin(), added);
    return true;
}

static bool is_triggered(const lab_rule &rule, trigger on, const lab_oid &place)
{
    if (rule.on != on)
        return false;
    if (!rule.any)
        return rule.place == place;
    return place.size() > rule.place.size() &&
           std::equal(rule.place.begin(), rule.place.end(), place.begin());
}

static void start_rule(const lab_rule &rule, const lab_scope &scope)
{
    cancel_runs_of(&rule);
    lab_run *run = new_run(&rule, scope);
    run->frames.push_back({rule.steps, 0});
    continue_run(run);
}

static void trigger_first(trigger on, const lab_oid &place)
{
    for (const lab_rule &rule : behaviours.rules) {
        if (!is_triggered(rule, on, place))
            continue;
        const lab_object *object = lab_name_of(place);
        const lab_instance *instance = lab_store_find(place);
        lab_scope scope;
        if (instance != nullptr)
            scope.value = lab_value_text(instance->value);
        if (object != nullptr)
            scope.index = lab_oid_text(lab_store_index_of(object, place));
        if (!holds(rule.when.get(), scope))
            continue;
        start_rule(rule, scope);
        return;
    }
}

void lab_trigger_set(const lab_oid &place)
{
    trigger_first(trigger::set, place);
}

void lab_trigger_get(const lab_oid &place)
{
    trigger_first(trigger::get, place);
}

void lab_trigger_start()
{
    for (const lab_rule &rule : behaviours.rules) {
        if (rule.on == trigger::start)
            start_rule(rule, {});
    }
}
