/* Two tables: variables to properties by type pair, and properties to variables by property type. */
#include "converter/control/bridge_snmp_convert.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"

#include <arpa/inet.h>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstring>

static constexpr size_t ADDRESS_TEXT_SIZE = 64;
static constexpr size_t IPV4_SIZE = 4;
static constexpr size_t IPV6_SIZE = 16;

/* Types of variables, as SNMPv2 and the library's opaque floats number them. */
enum asn_type : uint8_t {
    ASN_TYPE_INTEGER = 0x02,
    ASN_TYPE_BIT_STRING = 0x03,
    ASN_TYPE_OCTET_STRING = 0x04,
    ASN_TYPE_SEQUENCE = 0x10,
    ASN_TYPE_IPADDRESS = 0x40,
    ASN_TYPE_COUNTER = 0x41,
    ASN_TYPE_GAUGE = 0x42,
    ASN_TYPE_TIMETICKS = 0x43,
    ASN_TYPE_UINTEGER = 0x47,
    ASN_TYPE_FLOAT = 0x48,
    ASN_TYPE_DOUBLE = 0x49,
};

using read_convertor = int (*)(const netsnmp_variable_list *var, const bridge_snmp_read_prop *prop);
using write_convertor = int (*)(const bridge_snmp_write_prop *prop, netsnmp_pdu *pdu, const oid *name,
                                size_t name_length);

/* ---- reading ---- */

/* The library holds every integer in 32 bits. */
static int64_t integer_of(const netsnmp_variable_list *var)
{
    return static_cast<int32_t>(*var->val.integer);
}

static double double_of(const netsnmp_variable_list *var)
{
    return var->type == ASN_TYPE_FLOAT ? static_cast<double>(*var->val.floatVal) : *var->val.doubleVal;
}

int bridge_snmp_format_address(const void *address, size_t size, char *buf, size_t buf_sz)
{
    if (size != IPV4_SIZE && size != IPV6_SIZE) {
        BRIDGE_ERROR("invalid data size for IP address: [%zu]", size);
        return -1;
    }
    const int family = size == IPV4_SIZE ? AF_INET : AF_INET6;
    return inet_ntop(family, address, buf, static_cast<socklen_t>(buf_sz)) != nullptr ? 0 : -1;
}

static int to_bool(const netsnmp_variable_list *var, const bridge_snmp_read_prop *prop)
{
    BRIDGE_ASSERT(var);
    BRIDGE_ASSERT(prop);
    *static_cast<bool *>(prop->buf) = integer_of(var) != 0;
    return 0;
}

static int to_integer(const netsnmp_variable_list *var, const bridge_snmp_read_prop *prop)
{
    BRIDGE_ASSERT(var);
    BRIDGE_ASSERT(prop);
    *static_cast<int64_t *>(prop->buf) = integer_of(var);
    return 0;
}

static int to_double(const netsnmp_variable_list *var, const bridge_snmp_read_prop *prop)
{
    BRIDGE_ASSERT(var);
    BRIDGE_ASSERT(prop);
    *static_cast<double *>(prop->buf) = double_of(var);
    return 0;
}

/* The length given back is that of the address, not of its text. */
static int to_address(const netsnmp_variable_list *var, const bridge_snmp_read_prop *prop)
{
    BRIDGE_ASSERT(var);
    BRIDGE_ASSERT(prop);
    const int result = bridge_snmp_format_address(var->val.string, var->val_len,
                                                  static_cast<char *>(prop->buf), prop->buf_sz);
    if (result >= 0 && prop->buf_out_sz != nullptr)
        *prop->buf_out_sz = var->val_len;
    return result;
}

static int to_data(const netsnmp_variable_list *var, const bridge_snmp_read_prop *prop)
{
    BRIDGE_ASSERT(var);
    BRIDGE_ASSERT(prop);
    if (var->val_len > prop->buf_sz) {
        BRIDGE_ERROR("buffer with size [%zu] is too small for requested property", var->val_len);
        return -1;
    }
    BRIDGE_ASSERT(prop->buf_out_sz);
    if (var->val_len > 0)
        memcpy(prop->buf, var->val.string, var->val_len);
    *prop->buf_out_sz = var->val_len;
    return 0;
}

static int print_number(const netsnmp_variable_list *var, const bridge_snmp_read_prop *prop)
{
    const int length =
        snprintf(static_cast<char *>(prop->buf), prop->buf_sz, "%ld", static_cast<long>(integer_of(var)));
    if (length < 0 || static_cast<size_t>(length) >= prop->buf_sz) {
        BRIDGE_ERROR("not enough space in buffer: [%zu]", prop->buf_sz);
        return -1;
    }
    if (prop->buf_out_sz != nullptr)
        *prop->buf_out_sz = static_cast<size_t>(length);
    return 0;
}

/* Only a text under 40 bytes is read here, a longer one reads as empty: the library keeps it outside the
 * variable, save one of exactly 40 bytes, which some of its ways bring inside. Servers count on a bounded
 * text: bridge_snmp_get_property_str gives the whole one. */
static size_t inline_text_length(const netsnmp_variable_list *var)
{
    if (var->val.string != var->buf || var->val_len >= sizeof(var->buf))
        return 0;
    return strnlen(reinterpret_cast<const char *>(var->buf), var->val_len);
}

static int copy_text(const netsnmp_variable_list *var, const bridge_snmp_read_prop *prop)
{
    const size_t length = inline_text_length(var);
    if (length >= prop->buf_sz) {
        BRIDGE_ERROR("buffer with size [%zu] is too small for requested property", prop->buf_sz);
        return -1;
    }
    char *text = static_cast<char *>(prop->buf);
    memcpy(text, var->val.string, length);
    text[length] = '\0';
    if (prop->buf_out_sz != nullptr)
        *prop->buf_out_sz = length;
    return 0;
}

static int to_string(const netsnmp_variable_list *var, const bridge_snmp_read_prop *prop)
{
    BRIDGE_ASSERT(var);
    BRIDGE_ASSERT(prop);
    switch (var->type) {
    case ASN_TYPE_INTEGER:
    case ASN_TYPE_COUNTER:
    case ASN_TYPE_GAUGE:
    case ASN_TYPE_TIMETICKS:
    case ASN_TYPE_UINTEGER:
        return print_number(var, prop);
    case ASN_TYPE_IPADDRESS:
        return to_address(var, prop);
    case ASN_TYPE_BIT_STRING:
    case ASN_TYPE_OCTET_STRING:
    case ASN_TYPE_SEQUENCE:
        return copy_text(var, prop);
    default:
        BRIDGE_ERROR("not supported ASN: [%#x]", static_cast<unsigned>(var->type));
        return -1;
    }
}

/* Returns 0 with the new value, or -1 after logging why. */
static int json_of_bytes(const netsnmp_variable_list *var, bridge_prop_type hint, json_object **value)
{
    if (hint != PROP_TYPE_IPADDR) {
        *value = json_object_new_string_len(reinterpret_cast<const char *>(var->val.string),
                                            static_cast<int>(var->val_len));
        return 0;
    }
    char text[ADDRESS_TEXT_SIZE];
    if (bridge_snmp_format_address(var->val.string, var->val_len, text, sizeof(text)) < 0)
        return -1;
    *value = json_object_new_string(text);
    return 0;
}

static int to_json(const netsnmp_variable_list *var, const bridge_snmp_read_prop *prop)
{
    BRIDGE_ASSERT(var);
    BRIDGE_ASSERT(prop);
    auto *root = static_cast<json_object *>(prop->buf);
    const char *field_name = prop->field_name;
    BRIDGE_ASSERT(root);
    BRIDGE_ASSERT(field_name);

    json_object *value = nullptr;
    switch (var->type) {
    case ASN_TYPE_INTEGER:
    case ASN_TYPE_COUNTER:
    case ASN_TYPE_GAUGE:
    case ASN_TYPE_TIMETICKS:
    case ASN_TYPE_UINTEGER:
        value = prop->hint == PROP_TYPE_BOOL ? json_object_new_boolean(integer_of(var) != 0)
                                             : json_object_new_int64(integer_of(var));
        break;
    case ASN_TYPE_BIT_STRING:
    case ASN_TYPE_OCTET_STRING:
    case ASN_TYPE_SEQUENCE:
    case ASN_TYPE_IPADDRESS:
        if (json_of_bytes(var, prop->hint, &value) < 0)
            return -1;
        break;
    case ASN_TYPE_FLOAT:
    case ASN_TYPE_DOUBLE:
        value = json_object_new_double(double_of(var));
        break;
    default:
        BRIDGE_ERROR("unsupported ASN: %#x", static_cast<unsigned>(var->type));
        return -1;
    }
    if (value == nullptr) {
        BRIDGE_ERROR("failed to allocate JSON field");
        return -1;
    }
    json_object_object_add(root, field_name, value);
    return 0;
}

struct read_row {
    uint8_t asn;
    bridge_prop_type type;
    read_convertor convertor;
};

/* Searched from the top for the first row of the pair. */
/* clang-format off */
static constexpr read_row snmp_to_property_convertor[] = {
    {ASN_TYPE_COUNTER,      PROP_TYPE_JSON,   to_json},
    {ASN_TYPE_GAUGE,        PROP_TYPE_JSON,   to_json},
    {ASN_TYPE_TIMETICKS,    PROP_TYPE_JSON,   to_json},
    {ASN_TYPE_UINTEGER,     PROP_TYPE_JSON,   to_json},
    {ASN_TYPE_INTEGER,      PROP_TYPE_JSON,   to_json},
    {ASN_TYPE_FLOAT,        PROP_TYPE_JSON,   to_json},
    {ASN_TYPE_DOUBLE,       PROP_TYPE_JSON,   to_json},
    {ASN_TYPE_BIT_STRING,   PROP_TYPE_JSON,   to_json},
    {ASN_TYPE_OCTET_STRING, PROP_TYPE_JSON,   to_json},
    {ASN_TYPE_SEQUENCE,     PROP_TYPE_JSON,   to_json},
    {ASN_TYPE_IPADDRESS,    PROP_TYPE_JSON,   to_json},
    {ASN_TYPE_UINTEGER,     PROP_TYPE_BOOL,   to_bool},
    {ASN_TYPE_INTEGER,      PROP_TYPE_BOOL,   to_bool},
    {ASN_TYPE_COUNTER,      PROP_TYPE_INT,    to_integer},
    {ASN_TYPE_GAUGE,        PROP_TYPE_INT,    to_integer},
    {ASN_TYPE_TIMETICKS,    PROP_TYPE_INT,    to_integer},
    {ASN_TYPE_UINTEGER,     PROP_TYPE_INT,    to_integer},
    {ASN_TYPE_INTEGER,      PROP_TYPE_INT,    to_integer},
    {ASN_TYPE_BIT_STRING,   PROP_TYPE_STRING, to_string},
    {ASN_TYPE_OCTET_STRING, PROP_TYPE_STRING, to_string},
    {ASN_TYPE_SEQUENCE,     PROP_TYPE_STRING, to_string},
    {ASN_TYPE_IPADDRESS,    PROP_TYPE_STRING, to_string},
    {ASN_TYPE_COUNTER,      PROP_TYPE_STRING, to_string},
    {ASN_TYPE_GAUGE,        PROP_TYPE_STRING, to_string},
    {ASN_TYPE_TIMETICKS,    PROP_TYPE_STRING, to_string},
    {ASN_TYPE_UINTEGER,     PROP_TYPE_STRING, to_string},
    {ASN_TYPE_INTEGER,      PROP_TYPE_STRING, to_string},
    {ASN_TYPE_COUNTER,      PROP_TYPE_STRING, to_string},
    {ASN_TYPE_BIT_STRING,   PROP_TYPE_IPADDR, to_address},
    {ASN_TYPE_OCTET_STRING, PROP_TYPE_IPADDR, to_address},
    {ASN_TYPE_SEQUENCE,     PROP_TYPE_IPADDR, to_address},
    {ASN_TYPE_IPADDRESS,    PROP_TYPE_IPADDR, to_address},
    {ASN_TYPE_BIT_STRING,   PROP_TYPE_DATA,   to_data},
    {ASN_TYPE_OCTET_STRING, PROP_TYPE_DATA,   to_data},
    {ASN_TYPE_SEQUENCE,     PROP_TYPE_DATA,   to_data},
    {ASN_TYPE_IPADDRESS,    PROP_TYPE_DATA,   to_data},
    {ASN_TYPE_FLOAT,        PROP_TYPE_DOUBLE, to_double},
    {ASN_TYPE_DOUBLE,       PROP_TYPE_DOUBLE, to_double},
};
/* clang-format on */
static_assert(std::size(snmp_to_property_convertor) == 38);

int bridge_snmp_convert_read(const netsnmp_variable_list *var, const bridge_snmp_read_prop *prop)
{
    for (const read_row &row : snmp_to_property_convertor) {
        if (row.asn == var->type && row.type == prop->type)
            return row.convertor(var, prop);
    }
    BRIDGE_ERROR("no conversion specified from ASN %#x to property %d", static_cast<unsigned>(var->type),
                 static_cast<int>(prop->type));
    return -1;
}

/* ---- writing ---- */

/* "=" leaves the type to the MIB. */
static bool add_text(netsnmp_pdu *pdu, const oid *name, size_t name_length, const char *text)
{
    return snmp_add_var(pdu, name, name_length, '=', text) == 0;
}

static int from_integer(const bridge_snmp_write_prop *prop, netsnmp_pdu *pdu, const oid *name,
                        size_t name_length)
{
    char text[64];
    const int length = snprintf(text, sizeof(text), "%lld",
                                static_cast<long long>(*static_cast<const int64_t *>(prop->value)));
    if (length < 0 || static_cast<size_t>(length) >= sizeof(text))
        return -1;
    if (add_text(pdu, name, name_length, text))
        return 0;
    BRIDGE_ERROR("cannot add integer to PDU: %s error: %s", text, snmp_api_errstring(snmp_errno));
    return -1;
}

static int from_bool(const bridge_snmp_write_prop *prop, netsnmp_pdu *pdu, const oid *name,
                     size_t name_length)
{
    if (add_text(pdu, name, name_length, *static_cast<const bool *>(prop->value) ? "1" : "0"))
        return 0;
    BRIDGE_ERROR("cannot add boolean var to PDU, error: %s", snmp_api_errstring(snmp_errno));
    return -1;
}

static int add_data(netsnmp_pdu *pdu, const oid *name, size_t name_length, const char *text)
{
    if (add_text(pdu, name, name_length, text))
        return 0;
    BRIDGE_ERROR("cannot add data to PDU, error: %s", snmp_api_errstring(snmp_errno));
    return -1;
}

static int from_string(const bridge_snmp_write_prop *prop, netsnmp_pdu *pdu, const oid *name,
                       size_t name_length)
{
    return add_data(pdu, name, name_length, static_cast<const char *>(prop->value));
}

/* Null for a hint that names no text form. */
static const char *text_of_field(json_object *field, bridge_prop_type hint)
{
    switch (hint) {
    case PROP_TYPE_INT:
    case PROP_TYPE_DOUBLE:
    case PROP_TYPE_STRING:
    case PROP_TYPE_DATA:
        return json_object_get_string(field);
    case PROP_TYPE_BOOL:
        return json_object_get_boolean(field) ? "1" : "0";
    default:
        return nullptr;
    }
}

static int from_json(const bridge_snmp_write_prop *prop, netsnmp_pdu *pdu, const oid *name,
                     size_t name_length)
{
    auto *object = static_cast<json_object *>(const_cast<void *>(prop->value));
    json_object *field = nullptr;
    const bool found = json_object_object_get_ex(object, prop->field_name, &field);
    if (field == nullptr && prop->optional) {
        BRIDGE_TRACE("skipping missing optional field: %s", prop->field_name);
        return 0;
    }
    if (!found) {
        BRIDGE_ERROR("no such field: %s", prop->field_name);
        return -1;
    }
    if (field == nullptr)
        return add_data(pdu, name, name_length, "");
    const json_type kind = json_object_get_type(field);
    if (kind == json_type_object || kind == json_type_array) {
        BRIDGE_ERROR("incorrect field type: %#x", static_cast<unsigned>(kind));
        return -1;
    }
    const char *text = text_of_field(field, prop->hint);
    if (text == nullptr) {
        BRIDGE_ERROR("unsupported hint: %d", static_cast<int>(prop->hint));
        return -1;
    }
    return add_data(pdu, name, name_length, text);
}

/* By bridge_prop_type; no caller writes a type whose slot is empty. */
static constexpr std::array<write_convertor, 8> property_to_snmp_convertor = {
    nullptr, from_integer, from_bool, nullptr, from_string, from_string, nullptr, from_json,
};

int bridge_snmp_convert_write(netsnmp_pdu *pdu, const bridge_snmp_write_prop *prop)
{
    BRIDGE_TRACE("attempt to set property: [%s]", prop->oid);
    if (prop->type >= property_to_snmp_convertor.size()) {
        BRIDGE_ERROR("unsupported conversion: %d", static_cast<int>(prop->type));
        return -1;
    }
    oid name[MAX_OID_LEN];
    size_t name_length = MAX_OID_LEN;
    if (snmp_parse_oid(prop->oid, name, &name_length) == nullptr) {
        BRIDGE_ERROR("cannot parse OID");
        return -1;
    }
    return property_to_snmp_convertor[prop->type](prop, pdu, name, name_length);
}
