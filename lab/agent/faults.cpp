#include "faults.h"

#include <cstring>
#include <iterator>
#include <map>

#include "evaluate.h"

struct kept_fault {
    lab_fault fault;
    json_ref json;
};

struct faults_context {
    std::map<lab_oid, kept_fault> by_place;
};

static faults_context faults;

struct status_row {
    const char *name;
    int number;
};

// clang-format off
static constexpr status_row error_rows[] = {
    {"tooBig",              SNMP_ERR_TOOBIG},
    {"noSuchName",          SNMP_ERR_NOSUCHNAME},
    {"badValue",            SNMP_ERR_BADVALUE},
    {"readOnly",            SNMP_ERR_READONLY},
    {"genErr",              SNMP_ERR_GENERR},
    {"noAccess",            SNMP_ERR_NOACCESS},
    {"wrongType",           SNMP_ERR_WRONGTYPE},
    {"wrongLength",         SNMP_ERR_WRONGLENGTH},
    {"wrongEncoding",       SNMP_ERR_WRONGENCODING},
    {"wrongValue",          SNMP_ERR_WRONGVALUE},
    {"noCreation",          SNMP_ERR_NOCREATION},
    {"inconsistentValue",   SNMP_ERR_INCONSISTENTVALUE},
    {"resourceUnavailable", SNMP_ERR_RESOURCEUNAVAILABLE},
    {"commitFailed",        SNMP_ERR_COMMITFAILED},
    {"undoFailed",          SNMP_ERR_UNDOFAILED},
    {"authorizationError",  SNMP_ERR_AUTHORIZATIONERROR},
    {"notWritable",         SNMP_ERR_NOTWRITABLE},
    {"inconsistentName",    SNMP_ERR_INCONSISTENTNAME},
};

static constexpr status_row exception_rows[] = {
    {"noSuchObject",   SNMP_NOSUCHOBJECT},
    {"noSuchInstance", SNMP_NOSUCHINSTANCE},
    {"endOfMibView",   SNMP_ENDOFMIBVIEW},
};
// clang-format on

template <size_t N> static int number_by_name(const status_row (&rows)[N], json_object *name)
{
    for (const status_row &row : rows) {
        if (strcmp(row.name, json_object_get_string(name)) == 0)
            return row.number;
    }
    lab_problem(std::string("unknown status ") + json_object_get_string(name));
    return -1;
}

static bool read_on(json_object *json, lab_fault *fault)
{
    const char *text = json_object_get_string(json);
    fault->on_get = strcmp(text, "get") == 0 || strcmp(text, "any") == 0;
    fault->on_set = strcmp(text, "set") == 0 || strcmp(text, "any") == 0;
    return fault->on_get || fault->on_set;
}

static bool read_member(const std::string &key, json_object *json, lab_fault *fault)
{
    if (json == nullptr)
        return false;
    if (key == "on")
        return read_on(json, fault);
    if (key == "late_ms")
        fault->late_ms = static_cast<long>(json_object_get_int64(json));
    else if (key == "silent")
        fault->silent = json_object_get_boolean(json) != 0;
    else if (key == "shorten")
        fault->shorten = json_object_get_boolean(json) != 0;
    else if (key == "after")
        fault->after = static_cast<long>(json_object_get_int64(json));
    else if (key == "times")
        fault->times = static_cast<long>(json_object_get_int64(json));
    else if (key == "error")
        return (fault->error = number_by_name(error_rows, json)) > 0;
    else if (key == "exception")
        return (fault->exception = static_cast<u_char>(number_by_name(exception_rows, json))) != 0xff;
    else if (key == "surplus") {
        std::optional<lab_oid> place = lab_name_to_oid(json_object_get_string(json));
        fault->surplus = place.value_or(lab_oid());
        return place.has_value();
    } else
        return false;
    return true;
}

static bool read_fault(const std::string &name, json_object *json)
{
    std::optional<lab_oid> place = lab_name_to_oid(name);
    if (!place || (json != nullptr && !json_object_is_type(json, json_type_object))) {
        lab_problem("no fault can be on: " + name);
        return false;
    }
    if (json == nullptr) {
        faults.by_place.erase(*place);
        return true;
    }
    kept_fault made = {{}, json_ref::share(json)};
    json_object_object_foreach(json, key, member)
    {
        if (!read_member(key, member, &made.fault)) {
            lab_problem("fault of " + name + ": bad member " + key);
            return false;
        }
    }
    faults.by_place[*place] = made;
    return true;
}

bool lab_faults_merge(json_object *json)
{
    bool good = json_object_is_type(json, json_type_object);
    if (!good)
        return false;
    json_object_object_foreach(json, name, fault)
    {
        good = read_fault(name, fault) && good;
    }
    return good;
}

void lab_faults_clear()
{
    faults.by_place.clear();
}

json_ref lab_faults_list()
{
    json_ref list = json_ref::own(json_object_new_object());
    for (const auto &[place, kept] : faults.by_place)
        json_object_object_add(list.get(), lab_name_from_oid(place).c_str(), json_ref(kept.json).release());
    return list;
}

static bool counts(lab_fault *fault)
{
    if (fault->after > 0) {
        fault->after--;
        return false;
    }
    if (fault->times > 0)
        fault->times--;
    return true;
}

std::optional<lab_fault> lab_fault_hit(const lab_oid &place, bool is_set)
{
    if (faults.by_place.empty())
        return std::nullopt;
    for (lab_oid part = place; !part.empty(); part.pop_back()) {
        auto found = faults.by_place.find(part);
        if (found == faults.by_place.end())
            continue;
        lab_fault *fault = &found->second.fault;
        if ((is_set ? !fault->on_set : !fault->on_get) || !counts(fault))
            continue;
        lab_fault hit = *fault;
        if (fault->times == 0)
            faults.by_place.erase(found);
        return hit;
    }
    return std::nullopt;
}
