/*
 * The MIB's names. The agent reads the very file by which its clients look names up, so both agree on every
 * place and type.
 */
#ifndef LAB_NAMES_H
#define LAB_NAMES_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "values.h"

struct lab_object {
    std::string name;
    lab_oid place;
    u_char type = ASN_NULL;
    bool writable = false;
    bool readable = false;
    const lab_object *table = nullptr; /* of a column: the table it belongs to */
};

/* After init_snmp has read the MIB. */
void lab_names_load();
const lab_object *lab_name_find(std::string_view name);
/* The object whose place is the longest beginning of `place`. */
const lab_object *lab_name_of(const lab_oid &place);
std::vector<const lab_object *> lab_name_columns(const lab_object *table);

/* "sysUpTime.0", "ifDescr.2", a bare name, or dotted numbers. */
std::optional<lab_oid> lab_name_to_oid(std::string_view text);
std::string lab_name_from_oid(const lab_oid &place);

#endif
