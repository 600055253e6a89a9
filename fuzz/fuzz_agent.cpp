#include "fuzz_agent.h"

#include "fuzz.h"
#include "fuzz_choices.h"
#include "fuzz_control.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

static constexpr u_char NO_SUCH[] = {SNMP_NOSUCHOBJECT, SNMP_NOSUCHINSTANCE, SNMP_ENDOFMIBVIEW};
static constexpr u_char NUMBERS[] = {ASN_COUNTER, ASN_GAUGE, ASN_TIMETICKS, ASN_UINTEGER};

/* ---- one variable ---- */

static void set_value(netsnmp_variable_list *var, u_char type, const void *value, size_t size)
{
    snmp_set_var_typed_value(var, type, value, size);
}

static void set_number(netsnmp_variable_list *var, u_char type, uint32_t number)
{
    /* As the library reads it: signed from 32 bits, or not signed at all. */
    const long value = type == ASN_INTEGER ? static_cast<int32_t>(number) : static_cast<long>(number);
    set_value(var, type, &value, sizeof(value));
}

static void set_text(netsnmp_variable_list *var, u_char type, const std::string &text)
{
    fuzz_note_text(text);
    set_value(var, type, text.data(), text.size());
}

/* What an agent in order says, by the MIB: a 1, an address, or a text. */
static void set_good(netsnmp_variable_list *var)
{
    static constexpr uint8_t ADDRESS[] = {127, 0, 0, 1};
    const tree *node = get_tree(var->name, var->name_length, get_tree_head());
    switch (node != nullptr ? node->type : TYPE_OCTETSTR) {
    case TYPE_INTEGER:
    case TYPE_INTEGER32:
        return set_number(var, ASN_INTEGER, 1);
    case TYPE_COUNTER:
    case TYPE_GAUGE:
    case TYPE_UNSIGNED32:
    case TYPE_TIMETICKS:
        return set_number(var, ASN_GAUGE, 1);
    case TYPE_IPADDR:
        return set_value(var, ASN_IPADDRESS, ADDRESS, sizeof(ADDRESS));
    default:
        return set_text(var, ASN_OCTET_STR, "good");
    }
}

static void set_opaque(netsnmp_variable_list *var)
{
    const float single = static_cast<float>(static_cast<int32_t>(fuzz_choice_number(4))) / 16;
    const double twice = static_cast<double>(single);
    if (fuzz_choice() % 2 == 0)
        set_value(var, ASN_OPAQUE_FLOAT, &single, sizeof(single));
    else
        set_value(var, ASN_OPAQUE_DOUBLE, &twice, sizeof(twice));
}

static void set_object_name(netsnmp_variable_list *var)
{
    oid name[MAX_OID_LEN];
    const size_t length = 1 + fuzz_choice() % MAX_OID_LEN;
    for (size_t i = 0; i < length; i++)
        name[i] = fuzz_choice();
    set_value(var, ASN_OBJECT_ID, name, length * sizeof(oid));
}

static void set_chosen(netsnmp_variable_list *var)
{
    const uint8_t form = fuzz_choice();
    switch (form % 16) {
    case 1:
        return set_number(var, ASN_INTEGER, fuzz_choice());
    case 2:
        return set_number(var, ASN_INTEGER, fuzz_choice_number(4));
    case 3:
        return set_text(var, ASN_OCTET_STR, fuzz_choice_bytes(fuzz_choice()));
    case 4:
        return set_text(var, ASN_OCTET_STR, fuzz_choice_text());
    case 5:
        return set_text(var, ASN_OCTET_STR, fuzz_choice_filling());
    case 6:
        return set_text(var, ASN_IPADDRESS, fuzz_choice_bytes(4));
    case 7:
        return set_number(var, NUMBERS[fuzz_choice() % std::size(NUMBERS)], fuzz_choice_number(4));
    case 8:
        return set_text(var, ASN_BIT_STR, fuzz_choice_bytes(fuzz_choice() % 64));
    case 9:
        return set_opaque(var);
    case 10:
        return set_object_name(var);
    case 11:
        return set_value(var, ASN_NULL, nullptr, 0);
    case 12:
        return set_value(var, NO_SUCH[fuzz_choice() % std::size(NO_SUCH)], nullptr, 0);
    case 13: {
        const counter64 number = {.high = fuzz_choice_number(4), .low = fuzz_choice_number(4)};
        return set_value(var, ASN_COUNTER64, &number, sizeof(number));
    }
    default:
        return set_good(var);
    }
}

/* ---- an answer ---- */

/* The next object of a table's column or of the tree, more or less as an agent steps; or some other one. */
static void step_name(netsnmp_variable_list *var)
{
    oid name[MAX_OID_LEN];
    size_t length = var->name_length;
    memcpy(name, var->name, length * sizeof(oid));
    const uint8_t step = fuzz_choice();
    if (step < 128 && length < MAX_OID_LEN)
        name[length++] = step;
    else if (length > 1)
        name[length - 1] += step;
    snmp_set_var_objid(var, name, length);
}

static void add_or_drop(netsnmp_pdu *answer)
{
    netsnmp_variable_list **end = &answer->variables;
    if (fuzz_choice() % 2 == 0) {
        while (*end != nullptr && fuzz_choice() % 2 == 0)
            end = &(*end)->next_variable;
        snmp_free_varbind(*end);
        *end = nullptr;
        return;
    }
    while (*end != nullptr)
        end = &(*end)->next_variable;
    static constexpr oid OTHER[] = {1, 3, 6, 1, 2, 1, 1, 3, 0};
    *end = snmp_pdu_add_variable(answer, OTHER, std::size(OTHER), ASN_INTEGER, nullptr, 0);
}

static netsnmp_pdu *answer_to(const netsnmp_pdu *request, uint8_t outcome)
{
    netsnmp_pdu *answer = snmp_clone_pdu(const_cast<netsnmp_pdu *>(request));
    FUZZ_REQUIRE(answer != nullptr);
    answer->command = SNMP_MSG_RESPONSE;
    answer->errstat = SNMP_ERR_NOERROR; /* none at all in a request */
    answer->errindex = 0;
    if (outcome == 1) {
        answer->errstat = 1 + fuzz_choice() % 32;
        return answer;
    }
    if (request->command == SNMP_MSG_SET)
        return answer;
    for (netsnmp_variable_list *var = answer->variables; var != nullptr; var = var->next_variable) {
        if (request->command == SNMP_MSG_GETNEXT)
            step_name(var);
        set_chosen(var);
    }
    if (outcome == 2)
        add_or_drop(answer);
    return answer;
}

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes the names
extern "C" {
/* The library takes the request over. */
int __wrap_snmp_sess_synch_response(void *session, netsnmp_pdu *request, netsnmp_pdu **response);
int __wrap_snmp_sess_synch_response(void *, netsnmp_pdu *request, netsnmp_pdu **response)
{
    *response = nullptr;
    const bool is_there = fuzz_choices_left();
    const uint8_t outcome = fuzz_choice() % 16;
    const bool answers = is_there && outcome != 3 && outcome != 4;
    if (answers)
        *response = answer_to(request, outcome);
    snmp_free_pdu(request);
    if (answers)
        return STAT_SUCCESS;
    return outcome == 3 ? STAT_ERROR : STAT_TIMEOUT;
}
}
// NOLINTEND(bugprone-reserved-identifier)

void fuzz_agent_init()
{
    for (const char *name : {"SNMPCONFPATH", "SNMP_PERSISTENT_DIR", "MIBDIRS"})
        setenv(name, "/nowhere", 1);
    setenv("MIBS", "", 1);
    init_snmp("snmpapp");
    snmp_disable_log();
    stderr = fopen("/dev/null", "we"); /* the library has words there, too */
    FUZZ_REQUIRE(stderr != nullptr);
    FUZZ_REQUIRE(add_mibdir(LAB_MIBS) >= 0);
    read_all_mibs();
}
