/*
 * Values as SNMP carries them, and their JSON form in scenarios and on the control port.
 *
 * A JSON text or number takes the type of the object it is for. Objects are special forms:
 *   {"type": "Counter64", "value": 5}     another type than the MIB's
 *   {"hex": "c2ba0000"}                   raw bytes
 *   {"int32_le": [1, -2]}                 32-bit numbers, least significant byte first
 *   {"float_be": -93.5}                   an IEEE 754 single, most significant byte first
 *   {"fill": "x", "length": 40}           the text, repeated and cut to that length
 */
#ifndef LAB_VALUES_H
#define LAB_VALUES_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include "json_ref.h"

using lab_oid = std::vector<oid>;

/* `bytes` holds the value in the library's own form: a long, a float, an array of sub-identifiers, text. */
struct lab_value {
    u_char type = ASN_NULL;
    std::string bytes;
};

bool lab_is_integer(u_char type);
std::optional<u_char> lab_type_by_name(std::string_view name);
const char *lab_type_name(u_char type);

/* `why` says what is wrong with the JSON when nothing is returned. */
std::optional<lab_value> lab_value_from_json(u_char type, json_object *json, std::string *why);
json_ref lab_value_to_json(const lab_value &value);
/* As it stands in a behaviour's texts: numbers in decimal, addresses dotted, bytes as they are. */
std::string lab_value_text(const lab_value &value);

lab_value lab_value_of(const netsnmp_variable_list *variable);
void lab_value_put(netsnmp_variable_list *variable, const lab_value &value);

/* Dotted numbers, with or without a leading dot. */
std::optional<lab_oid> lab_oid_from_text(std::string_view text);
std::string lab_oid_text(const lab_oid &numbers, size_t from = 0);

#endif
