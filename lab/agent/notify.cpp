#include "notify.h"

#include <memory>

static constexpr char uptime_name[] = "sysUpTime.0";
static constexpr char trap_name[] = "snmpTrapOID.0";

struct notify_context {
    std::string address;
    std::string community;
};

static notify_context notifying;

struct pdu_free {
    void operator()(netsnmp_pdu *pdu) const
    {
        snmp_free_pdu(pdu);
    }
};
using pdu_owned = std::unique_ptr<netsnmp_pdu, pdu_free>;

void lab_notify_to(const std::string &address)
{
    notifying.address = address;
}

void lab_notify_to(const std::string &address, const std::string &community)
{
    notifying.address = address;
    notifying.community = community;
}

static bool add_variable(netsnmp_pdu *pdu, const std::string &name, json_object *json, const lab_scope &scope)
{
    std::optional<lab_oid> place = lab_name_to_oid(name);
    const lab_object *object = place ? lab_name_of(*place) : nullptr;
    std::string why = "no such name";
    std::optional<lab_value> value;
    if (object != nullptr)
        value = lab_value_from_json(object->type, lab_evaluate(json, scope).get(), &why);
    if (!value) {
        lab_problem("notification: " + name + ": " + why);
        return false;
    }
    snmp_pdu_add_variable(pdu, place->data(), place->size(), value->type, value->bytes.data(),
                          value->bytes.size());
    return true;
}

static bool add_variables(netsnmp_pdu *pdu, json_object *variables, const lab_scope &scope)
{
    for (size_t i = 0; variables != nullptr && i < json_object_array_length(variables); i++) {
        json_object *pair = json_object_array_get_idx(variables, i);
        if (!json_object_is_type(pair, json_type_array) || json_object_array_length(pair) != 2) {
            lab_problem("notification: a variable is no pair of name and value");
            return false;
        }
        const char *name = json_object_get_string(json_object_array_get_idx(pair, 0));
        if (!add_variable(pdu, name, json_object_array_get_idx(pair, 1), scope))
            return false;
    }
    return true;
}

/* The two variables with which every notification begins. */
static bool add_head(netsnmp_pdu *pdu, const std::string &notification, const lab_scope &scope)
{
    std::optional<lab_oid> place = lab_name_to_oid(notification);
    if (!place) {
        lab_problem("no notification " + notification);
        return false;
    }
    json_ref uptime = json_ref::own(json_object_new_string("${uptime}"));
    json_ref numbers = json_ref::own(json_object_new_string(lab_oid_text(*place).c_str()));
    return add_variable(pdu, uptime_name, uptime.get(), scope) &&
           add_variable(pdu, trap_name, numbers.get(), scope);
}

static bool send(pdu_owned pdu)
{
    netsnmp_session session;
    snmp_sess_init(&session);
    session.version = SNMP_VERSION_2c;
    session.retries = 0;
    session.peername = const_cast<char *>(notifying.address.c_str());
    session.community = reinterpret_cast<u_char *>(notifying.community.data());
    session.community_len = notifying.community.size();
    void *handle = snmp_sess_open(&session);
    if (handle == nullptr) {
        lab_problem("cannot send to " + notifying.address);
        return false;
    }
    bool sent = snmp_sess_send(handle, pdu.get()) != 0;
    if (sent)
        static_cast<void>(pdu.release());
    snmp_sess_close(handle);
    return sent;
}

bool lab_notify(json_object *what, const lab_scope &scope)
{
    json_ref now = lab_evaluate(what, scope);
    bool is_form = json_object_is_type(now.get(), json_type_object);
    json_object *name = is_form ? json_member(now.get(), "oid") : now.get();
    json_object *form = json_member(now.get(), "form");
    json_object *raw = json_member(now.get(), "raw");
    bool is_inform = form != nullptr && std::string(json_object_get_string(form)) == "inform";
    pdu_owned pdu(snmp_pdu_create(is_inform ? SNMP_MSG_INFORM : SNMP_MSG_TRAP2));
    if (notifying.address.empty() || pdu == nullptr)
        return false;
    if (raw == nullptr || json_object_get_boolean(raw) == 0) {
        if (name == nullptr || !add_head(pdu.get(), json_object_get_string(name), scope))
            return false;
    }
    return add_variables(pdu.get(), json_member(now.get(), "variables"), scope) && send(std::move(pdu));
}
