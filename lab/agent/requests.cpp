#include "requests.h"

#include <chrono>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <vector>

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include "behaviours.h"
#include "faults.h"
#include "tables.h"

static constexpr size_t log_limit = 20000;

/* The parts of the tree that the agent answers for. */
static const lab_oid roots[] = {
    {1, 3, 6, 1, 2, 1, 1},
    {1, 3, 6, 1, 2, 1, 2},
    {1, 3, 6, 1, 2, 1, 4},
    {1, 3, 6, 1, 4, 1, 59317},
};

struct logged_variable {
    lab_oid place;
    lab_value value;
};

struct logged_request {
    int command = 0;
    int id = 0;
    long long at_ms = 0;
    const char *outcome = "";
    std::vector<logged_variable> variables;
};

using hits = std::map<lab_oid, lab_fault>;

/* A request that waits for its time, with what will hit it. */
struct late_request {
    netsnmp_session *session = nullptr;
    netsnmp_pdu *pdu = nullptr;
    hits hit;
    unsigned alarm = 0;
};

struct requests_context {
    netsnmp_session *port = nullptr;
    std::string community;
    bool is_silent = false;
    bool is_committed = false;
    hits hit; /* of the request that is being answered */
    std::list<late_request> late;
    std::deque<logged_request> log;
    std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
};

static requests_context requests;

/* --- the log --- */

static const char *command_name(int command)
{
    switch (command) {
    case SNMP_MSG_GET:
        return "get";
    case SNMP_MSG_GETNEXT:
        return "getnext";
    case SNMP_MSG_GETBULK:
        return "getbulk";
    case SNMP_MSG_SET:
        return "set";
    default:
        return "other";
    }
}

static lab_oid place_of(const netsnmp_variable_list *variable)
{
    return {variable->name, variable->name + variable->name_length};
}

static logged_request *log_request(const netsnmp_pdu *pdu)
{
    auto passed = std::chrono::steady_clock::now() - requests.started;
    logged_request &entry = requests.log.emplace_back();
    entry.command = pdu->command;
    entry.id = static_cast<int>(pdu->reqid);
    entry.at_ms = std::chrono::duration_cast<std::chrono::milliseconds>(passed).count();
    entry.outcome = "answered";
    for (const netsnmp_variable_list *each = pdu->variables; each != nullptr; each = each->next_variable) {
        lab_value value = pdu->command == SNMP_MSG_SET ? lab_value_of(each) : lab_value();
        entry.variables.push_back({place_of(each), value});
    }
    if (requests.log.size() > log_limit)
        requests.log.pop_front();
    return &requests.log.back();
}

static json_object *variable_to_json(const logged_request &entry, const logged_variable &variable)
{
    std::string name = lab_name_from_oid(variable.place);
    if (entry.command != SNMP_MSG_SET)
        return json_object_new_string(name.c_str());
    json_object *parts = json_object_new_array();
    json_object_array_add(parts, json_object_new_string(name.c_str()));
    json_object_array_add(parts, lab_value_to_json(variable.value).release());
    return parts;
}

json_ref lab_requests_log(bool only_sets)
{
    json_ref list = json_ref::own(json_object_new_array());
    for (const logged_request &entry : requests.log) {
        if (only_sets && entry.command != SNMP_MSG_SET)
            continue;
        json_object *json = json_object_new_object();
        json_object_object_add(json, "op", json_object_new_string(command_name(entry.command)));
        json_object_object_add(json, "id", json_object_new_int(entry.id));
        json_object_object_add(json, "at_ms", json_object_new_int64(entry.at_ms));
        json_object_object_add(json, "outcome", json_object_new_string(entry.outcome));
        json_object *variables = json_object_new_array();
        for (const logged_variable &variable : entry.variables)
            json_object_array_add(variables, variable_to_json(entry, variable));
        json_object_object_add(json, "variables", variables);
        json_object_array_add(list.get(), json);
    }
    return list;
}

void lab_requests_log_clear()
{
    requests.log.clear();
}

/* --- access to the store --- */

static const lab_fault *hit_at(const lab_oid &place)
{
    auto found = requests.hit.find(place);
    return found != requests.hit.end() ? &found->second : nullptr;
}

static void put_exception(netsnmp_request_info *request, u_char exception)
{
    snmp_set_var_typed_value(request->requestvb, exception, nullptr, 0);
}

static void answer_with(netsnmp_agent_request_info *info, netsnmp_request_info *request, const lab_oid &place,
                        const lab_instance &instance)
{
    const lab_fault *fault = hit_at(place);
    if (fault != nullptr && fault->error != 0) {
        netsnmp_set_request_error(info, request, fault->error);
        return;
    }
    if (fault != nullptr && fault->exception != 0) {
        put_exception(request, fault->exception);
        return;
    }
    std::optional<lab_value> value = lab_current_value(place, instance);
    if (!value) {
        netsnmp_set_request_error(info, request, SNMP_ERR_GENERR);
        return;
    }
    lab_value_put(request->requestvb, *value);
}

static void serve_get(netsnmp_agent_request_info *info, netsnmp_request_info *request)
{
    lab_oid place = place_of(request->requestvb);
    const lab_instance *instance = lab_store_find(place);
    if (instance != nullptr) {
        answer_with(info, request, place, *instance);
        lab_trigger_get(place);
        return;
    }
    const lab_fault *fault = hit_at(place);
    const lab_object *object = lab_name_of(place);
    bool is_served = object != nullptr && (object->table != nullptr || lab_store_has_object(object));
    if (fault != nullptr && fault->error != 0)
        netsnmp_set_request_error(info, request, fault->error);
    else
        put_exception(request, is_served ? SNMP_NOSUCHINSTANCE : SNMP_NOSUCHOBJECT);
}

static bool is_inside(const oid *root, size_t root_length, const lab_oid &place)
{
    return place.size() >= root_length && std::equal(root, root + root_length, place.begin());
}

static void serve_next(netsnmp_agent_request_info *info, netsnmp_handler_registration *part,
                       netsnmp_request_info *request)
{
    lab_oid found;
    lab_oid from = place_of(request->requestvb);
    const lab_instance *instance = lab_store_next(from, request->inclusive != 0, &found);
    /* Left as it is, the library looks further in the next part of the tree. */
    if (instance == nullptr || !is_inside(part->rootoid, part->rootoid_len, found))
        return;
    snmp_set_var_objid(request->requestvb, found.data(), found.size());
    answer_with(info, request, found, *instance);
    lab_trigger_get(found);
}

static const lab_object *column_at(const lab_oid &place)
{
    const lab_object *object = lab_name_of(place);
    return object != nullptr && object->table != nullptr ? object : nullptr;
}

/* True when an earlier variable of the same request makes the row. */
static bool is_made_before(netsnmp_request_info *first, const netsnmp_request_info *here,
                           const lab_object *table, const lab_oid &index)
{
    for (netsnmp_request_info *each = first; each != nullptr && each != here; each = each->next) {
        lab_oid place = place_of(each->requestvb);
        const lab_object *column = column_at(place);
        if (column != nullptr && column->table == table && lab_table_creates(column) &&
            lab_store_index_of(column, place) == index)
            return true;
    }
    return false;
}

static int check_missing(netsnmp_request_info *first, const netsnmp_request_info *request,
                         const lab_object *object, const lab_oid &place)
{
    if (object == nullptr || object->table == nullptr || place.size() == object->place.size())
        return SNMP_ERR_NOCREATION;
    lab_oid index = lab_store_index_of(object, place);
    if (lab_store_has_row(object->table, index) || lab_table_creates(object) ||
        is_made_before(first, request, object->table, index))
        return 0;
    return SNMP_ERR_NOCREATION;
}

static int check_set(netsnmp_request_info *first, const netsnmp_request_info *request)
{
    lab_oid place = place_of(request->requestvb);
    const lab_fault *fault = hit_at(place);
    if (fault != nullptr && fault->error != 0)
        return fault->error;
    const lab_object *object = lab_name_of(place);
    const lab_instance *instance = lab_store_find(place);
    if (instance == nullptr) {
        int missing = check_missing(first, request, object, place);
        if (missing != 0)
            return missing;
    }
    if (!object->writable)
        return SNMP_ERR_NOTWRITABLE;
    u_char wanted = instance != nullptr ? instance->value.type : object->type;
    return request->requestvb->type == wanted ? 0 : SNMP_ERR_WRONGTYPE;
}

static void commit(const netsnmp_request_info *request)
{
    lab_oid place = place_of(request->requestvb);
    const lab_object *column = column_at(place);
    if (column != nullptr) {
        lab_oid index = lab_store_index_of(column, place);
        if (!lab_store_has_row(column->table, index))
            lab_table_create(column->table, index);
    }
    lab_store_put(place, {lab_value_of(request->requestvb), {}});
}

/* All of a request is checked before any of it is done, and all is stored before anything is set going. */
static void serve_set(netsnmp_agent_request_info *info, netsnmp_request_info *first)
{
    if (info->mode == MODE_SET_RESERVE1) {
        for (netsnmp_request_info *each = first; each != nullptr; each = each->next) {
            int error = check_set(first, each);
            if (error != 0) {
                netsnmp_set_request_error(info, each, error);
                return;
            }
        }
    }
    if (info->mode != MODE_SET_COMMIT)
        return;
    for (netsnmp_request_info *each = first; each != nullptr; each = each->next)
        commit(each);
    requests.is_committed = true;
    for (netsnmp_request_info *each = first; each != nullptr; each = each->next)
        lab_trigger_set(place_of(each->requestvb));
}

static int serve(netsnmp_mib_handler *, netsnmp_handler_registration *part, netsnmp_agent_request_info *info,
                 netsnmp_request_info *first)
{
    if (info->mode != MODE_GET && info->mode != MODE_GETNEXT) {
        serve_set(info, first);
        return SNMP_ERR_NOERROR;
    }
    for (netsnmp_request_info *each = first; each != nullptr; each = each->next) {
        if (each->processed != 0)
            continue;
        if (info->mode == MODE_GET)
            serve_get(info, each);
        else
            serve_next(info, part, each);
    }
    return SNMP_ERR_NOERROR;
}

/* --- the port --- */

static lab_oid answered_place(const netsnmp_pdu *pdu, const netsnmp_variable_list *variable)
{
    lab_oid place = place_of(variable);
    if (pdu->command == SNMP_MSG_GETNEXT || pdu->command == SNMP_MSG_GETBULK)
        lab_store_next(place_of(variable), false, &place);
    return place;
}

static void shorten(netsnmp_pdu *pdu, netsnmp_variable_list *first_gone)
{
    netsnmp_variable_list **link = &pdu->variables;
    while (*link != nullptr && *link != first_gone)
        link = &(*link)->next_variable;
    *link = nullptr;
    snmp_free_varbind(first_gone);
}

static hits find_hits(netsnmp_pdu *pdu)
{
    hits found;
    lab_oid surplus;
    netsnmp_variable_list *first_gone = nullptr;
    for (netsnmp_variable_list *each = pdu->variables; each != nullptr; each = each->next_variable) {
        lab_oid place = answered_place(pdu, each);
        std::optional<lab_fault> fault = lab_fault_hit(place, pdu->command == SNMP_MSG_SET);
        if (!fault)
            continue;
        if (!fault->surplus.empty())
            surplus = fault->surplus;
        if (fault->shorten && first_gone == nullptr)
            first_gone = each;
        found[place] = *fault;
    }
    if (first_gone != nullptr)
        shorten(pdu, first_gone);
    if (!surplus.empty() && pdu->command == SNMP_MSG_GET)
        snmp_add_null_var(pdu, surplus.data(), surplus.size());
    return found;
}

static void answer(netsnmp_session *session, netsnmp_pdu *pdu, const hits &hit, logged_request *entry)
{
    requests.hit = hit;
    requests.is_committed = false;
    /* The community has been looked at; there are no other rules of access. */
    pdu->flags |= UCD_MSG_FLAG_ALWAYS_IN_VIEW;
    handle_snmp_packet(NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE, session, static_cast<int>(pdu->reqid), pdu,
                       nullptr);
    if (entry != nullptr && pdu->command == SNMP_MSG_SET)
        entry->outcome = requests.is_committed ? "done" : "refused";
    requests.hit.clear();
}

static logged_request *logged_by_id(int id)
{
    for (auto entry = requests.log.rbegin(); entry != requests.log.rend(); ++entry) {
        if (entry->id == id)
            return &*entry;
    }
    return nullptr;
}

static void on_late(unsigned alarm, void *)
{
    for (auto each = requests.late.begin(); each != requests.late.end(); ++each) {
        if (each->alarm != alarm)
            continue;
        late_request due = *each;
        requests.late.erase(each);
        if (!requests.is_silent)
            answer(due.session, due.pdu, due.hit, logged_by_id(static_cast<int>(due.pdu->reqid)));
        snmp_free_pdu(due.pdu);
        return;
    }
}

static void answer_late(netsnmp_session *session, netsnmp_pdu *pdu, const hits &hit, long ms)
{
    struct timeval delay = {ms / 1000, ms % 1000 * 1000};
    late_request &late = requests.late.emplace_back();
    late.session = session;
    late.pdu = snmp_clone_pdu(pdu);
    late.hit = hit;
    late.alarm = snmp_alarm_register_hr(delay, 0, on_late, nullptr);
}

static bool is_welcome(const netsnmp_pdu *pdu)
{
    std::string given(reinterpret_cast<const char *>(pdu->community), pdu->community_len);
    return (pdu->version == SNMP_VERSION_1 || pdu->version == SNMP_VERSION_2c) && given == requests.community;
}

static int on_packet(int operation, netsnmp_session *session, int, netsnmp_pdu *pdu, void *)
{
    if (operation != NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE || !is_welcome(pdu))
        return 1;
    logged_request *entry = log_request(pdu);
    if (requests.is_silent) {
        entry->outcome = "silent";
        return 1;
    }
    hits hit = find_hits(pdu);
    long late_ms = 0;
    for (const auto &[place, fault] : hit) {
        late_ms = std::max(late_ms, fault.late_ms);
        if (fault.silent) {
            entry->outcome = "silent";
            return 1;
        }
    }
    if (late_ms > 0) {
        entry->outcome = "late";
        answer_late(session, pdu, hit, late_ms);
    } else {
        answer(session, pdu, hit, entry);
    }
    return 1;
}

static bool register_part(const lab_oid &root)
{
    netsnmp_handler_registration *part =
        netsnmp_create_handler_registration("lab", serve, root.data(), root.size(), HANDLER_CAN_RWRITE);
    return part != nullptr && netsnmp_register_handler(part) == MIB_REGISTERED_OK;
}

bool lab_requests_open(const std::string &address, const std::string &community)
{
    requests.community = community;
    for (const lab_oid &root : roots) {
        if (!register_part(root))
            return false;
    }
    netsnmp_transport *transport = netsnmp_transport_open_server("snmp", address.c_str());
    if (transport == nullptr) {
        fprintf(stderr, "lab agent: cannot listen on %s\n", address.c_str());
        return false;
    }
    netsnmp_session wanted;
    snmp_sess_init(&wanted);
    wanted.version = SNMP_DEFAULT_VERSION;
    wanted.callback = on_packet;
    wanted.flags = transport->flags;
    wanted.isAuthoritative = SNMP_SESS_AUTHORITATIVE;
    requests.port = snmp_add(&wanted, transport, nullptr, nullptr);
    if (requests.port == nullptr)
        fprintf(stderr, "lab agent: cannot serve %s\n", address.c_str());
    return requests.port != nullptr;
}

void lab_requests_close()
{
    for (late_request &late : requests.late) {
        snmp_alarm_unregister(late.alarm);
        snmp_free_pdu(late.pdu);
    }
    requests.late.clear();
    if (requests.port != nullptr)
        snmp_close(requests.port);
    requests.port = nullptr;
}

void lab_requests_silence(bool silent)
{
    requests.is_silent = silent;
}
