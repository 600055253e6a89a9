#include "values.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include <arpa/inet.h>

struct type_row {
    u_char type;
    const char *name;
};

// clang-format off
static constexpr type_row types[] = {
    {ASN_INTEGER,       "INTEGER"},
    {ASN_OCTET_STR,     "OCTET STRING"},
    {ASN_BIT_STR,       "BIT STRING"},
    {ASN_OBJECT_ID,     "OBJECT IDENTIFIER"},
    {ASN_IPADDRESS,     "IpAddress"},
    {ASN_COUNTER,       "Counter32"},
    {ASN_GAUGE,         "Gauge32"},
    {ASN_TIMETICKS,     "TimeTicks"},
    {ASN_OPAQUE,        "Opaque"},
    {ASN_UINTEGER,      "UInteger32"},
    {ASN_COUNTER64,     "Counter64"},
    {ASN_OPAQUE_FLOAT,  "Float"},
    {ASN_OPAQUE_DOUBLE, "Double"},
};
// clang-format on

template <typename T> static std::string bytes_of(const T &value)
{
    return std::string(reinterpret_cast<const char *>(&value), sizeof(value));
}

template <typename T> static T read_as(const std::string &bytes)
{
    T value{};
    memcpy(&value, bytes.data(), std::min(sizeof(value), bytes.size()));
    return value;
}

bool lab_is_integer(u_char type)
{
    return type == ASN_INTEGER || type == ASN_COUNTER || type == ASN_GAUGE || type == ASN_TIMETICKS ||
           type == ASN_UINTEGER;
}

std::optional<u_char> lab_type_by_name(std::string_view name)
{
    for (const type_row &row : types) {
        if (name == row.name)
            return row.type;
    }
    return std::nullopt;
}

const char *lab_type_name(u_char type)
{
    for (const type_row &row : types) {
        if (type == row.type)
            return row.name;
    }
    return "unknown";
}

std::optional<lab_oid> lab_oid_from_text(std::string_view text)
{
    lab_oid numbers;
    std::string rest(text.substr(!text.empty() && text[0] == '.' ? 1 : 0));
    const char *at = rest.c_str();
    while (*at != '\0') {
        char *end = nullptr;
        errno = 0;
        unsigned long number = strtoul(at, &end, 10);
        if (end == at || *at == '-' || *at == '+' || errno != 0 || number > 0xffffffffUL)
            return std::nullopt;
        numbers.push_back(number);
        if (*end == '.' && end[1] != '\0')
            end++;
        else if (*end != '\0')
            return std::nullopt;
        at = end;
    }
    if (numbers.empty())
        return std::nullopt;
    return numbers;
}

std::string lab_oid_text(const lab_oid &numbers, size_t from)
{
    std::string text;
    for (size_t i = from; i < numbers.size(); i++) {
        if (i > from)
            text += '.';
        text += std::to_string(numbers[i]);
    }
    return text;
}

/* --- from JSON --- */

static std::optional<long long> to_number(json_object *json)
{
    if (json_object_is_type(json, json_type_int) || json_object_is_type(json, json_type_boolean))
        return json_object_get_int64(json);
    if (!json_object_is_type(json, json_type_string))
        return std::nullopt;
    const char *text = json_object_get_string(json);
    char *end = nullptr;
    errno = 0;
    long long number = strtoll(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0)
        return std::nullopt;
    return number;
}

static std::optional<lab_value> integer_from_json(u_char type, json_object *json, std::string *why)
{
    std::optional<long long> number = to_number(json);
    bool is_signed = type == ASN_INTEGER;
    if (!number || *number < (is_signed ? INT32_MIN : 0) || *number > (is_signed ? INT32_MAX : UINT32_MAX)) {
        *why = std::string("no ") + lab_type_name(type);
        return std::nullopt;
    }
    return lab_value{type, bytes_of(static_cast<long>(*number))};
}

static std::optional<lab_value> counter64_from_json(json_object *json, std::string *why)
{
    std::optional<long long> number = to_number(json);
    if (!number || *number < 0) {
        *why = "no Counter64";
        return std::nullopt;
    }
    struct counter64 counter = {};
    counter.high = static_cast<u_long>(*number >> 32);
    counter.low = static_cast<u_long>(*number & 0xffffffff);
    return lab_value{ASN_COUNTER64, bytes_of(counter)};
}

static std::optional<lab_value> address_from_json(json_object *json, std::string *why)
{
    struct in_addr address = {};
    if (inet_pton(AF_INET, json_object_get_string(json), &address) != 1) {
        *why = "no IPv4 address";
        return std::nullopt;
    }
    return lab_value{ASN_IPADDRESS, bytes_of(address)};
}

static std::optional<lab_value> oid_from_json(json_object *json, std::string *why)
{
    std::optional<lab_oid> numbers = lab_oid_from_text(json_object_get_string(json));
    if (!numbers) {
        *why = "no dotted numbers";
        return std::nullopt;
    }
    const char *start = reinterpret_cast<const char *>(numbers->data());
    return lab_value{ASN_OBJECT_ID, std::string(start, numbers->size() * sizeof(oid))};
}

static std::optional<lab_value> text_from_json(u_char type, json_object *json)
{
    if (json_object_is_type(json, json_type_string)) {
        size_t length = static_cast<size_t>(json_object_get_string_len(json));
        return lab_value{type, std::string(json_object_get_string(json), length)};
    }
    if (json_object_is_type(json, json_type_boolean))
        return lab_value{type, json_object_get_boolean(json) != 0 ? "1" : "0"};
    return lab_value{type, json_object_get_string(json)};
}

static std::optional<std::string> bytes_from_hex(const std::string &hex)
{
    std::string bytes;
    if (hex.size() % 2 != 0 || hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return std::nullopt;
    for (size_t i = 0; i < hex.size(); i += 2)
        bytes += static_cast<char>(strtoul(hex.substr(i, 2).c_str(), nullptr, 16));
    return bytes;
}

static std::string bytes_from_numbers(json_object *array)
{
    std::string bytes;
    for (size_t i = 0; i < json_object_array_length(array); i++) {
        uint32_t number = static_cast<uint32_t>(json_object_get_int64(json_object_array_get_idx(array, i)));
        for (int shift = 0; shift < 32; shift += 8)
            bytes += static_cast<char>(number >> shift & 0xff);
    }
    return bytes;
}

static std::string bytes_from_float(double number)
{
    float narrow = static_cast<float>(number);
    uint32_t bits = 0;
    memcpy(&bits, &narrow, sizeof(bits));
    bits = htonl(bits);
    return bytes_of(bits);
}

static std::optional<std::string> filled(json_object *json)
{
    std::string unit = json_object_get_string(json_member(json, "fill"));
    long long length = json_object_get_int64(json_member(json, "length"));
    if (unit.empty() || length < 0 || length > 60000)
        return std::nullopt;
    std::string bytes;
    while (bytes.size() < static_cast<size_t>(length))
        bytes += unit;
    bytes.resize(static_cast<size_t>(length));
    return bytes;
}

static std::optional<std::string> bytes_from_form(json_object *json)
{
    if (json_object *hex = json_member(json, "hex"))
        return bytes_from_hex(json_object_get_string(hex));
    if (json_object *numbers = json_member(json, "int32_le"); json_object_is_type(numbers, json_type_array))
        return bytes_from_numbers(numbers);
    if (json_object *number = json_member(json, "float_be"))
        return bytes_from_float(json_object_get_double(number));
    if (json_member(json, "fill") != nullptr)
        return filled(json);
    return std::nullopt;
}

static std::optional<lab_value> form_from_json(u_char type, json_object *json, std::string *why)
{
    if (json_object *name = json_member(json, "type")) {
        std::optional<u_char> other = lab_type_by_name(json_object_get_string(name));
        if (other)
            return lab_value_from_json(*other, json_member(json, "value"), why);
        *why = std::string("unknown type ") + json_object_get_string(name);
        return std::nullopt;
    }
    std::optional<std::string> bytes = bytes_from_form(json);
    if (!bytes || lab_is_integer(type)) {
        *why = std::string("no value for ") + lab_type_name(type);
        return std::nullopt;
    }
    return lab_value{type, *bytes};
}

std::optional<lab_value> lab_value_from_json(u_char type, json_object *json, std::string *why)
{
    if (json_object_is_type(json, json_type_object))
        return form_from_json(type, json, why);
    if (type == ASN_NULL)
        return lab_value{type, ""};
    if (json == nullptr || json_object_is_type(json, json_type_array)) {
        *why = "no value";
        return std::nullopt;
    }
    if (lab_is_integer(type))
        return integer_from_json(type, json, why);
    switch (type) {
    case ASN_COUNTER64:
        return counter64_from_json(json, why);
    case ASN_IPADDRESS:
        return address_from_json(json, why);
    case ASN_OBJECT_ID:
        return oid_from_json(json, why);
    case ASN_OPAQUE_FLOAT:
        return lab_value{type, bytes_of(static_cast<float>(json_object_get_double(json)))};
    case ASN_OPAQUE_DOUBLE:
        return lab_value{type, bytes_of(json_object_get_double(json))};
    default:
        return text_from_json(type, json);
    }
}

/* --- to JSON --- */

static bool is_text(const std::string &bytes)
{
    for (size_t i = 0; i < bytes.size();) {
        unsigned char lead = static_cast<unsigned char>(bytes[i]);
        size_t more = lead < 0x80 ? 0 : lead >= 0xc2 && lead < 0xe0 ? 1 : (lead & 0xf0) == 0xe0 ? 2 : 3;
        if ((lead < 0x20 && lead != '\n' && lead != '\r' && lead != '\t') || lead >= 0xf5 ||
            (lead >= 0x80 && lead < 0xc2) || i + more >= bytes.size())
            return false;
        for (size_t j = 1; j <= more; j++) {
            if ((static_cast<unsigned char>(bytes[i + j]) & 0xc0) != 0x80)
                return false;
        }
        i += more + 1;
    }
    return true;
}

static std::string hex_of(const std::string &bytes)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string hex;
    for (char byte : bytes) {
        hex += digits[static_cast<unsigned char>(byte) >> 4];
        hex += digits[static_cast<unsigned char>(byte) & 15];
    }
    return hex;
}

static lab_oid oid_of(const std::string &bytes)
{
    lab_oid numbers(bytes.size() / sizeof(oid));
    memcpy(numbers.data(), bytes.data(), numbers.size() * sizeof(oid));
    return numbers;
}

static long long number_of(const lab_value &value)
{
    if (value.type == ASN_COUNTER64) {
        struct counter64 counter = read_as<struct counter64>(value.bytes);
        return static_cast<long long>(static_cast<unsigned long long>(counter.high) << 32 | counter.low);
    }
    return read_as<long>(value.bytes);
}

static std::string address_text(const std::string &bytes)
{
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, bytes.data(), text, sizeof(text));
    return text;
}

std::string lab_value_text(const lab_value &value)
{
    if (lab_is_integer(value.type) || value.type == ASN_COUNTER64)
        return std::to_string(number_of(value));
    switch (value.type) {
    case ASN_IPADDRESS:
        return value.bytes.size() == 4 ? address_text(value.bytes) : hex_of(value.bytes);
    case ASN_OBJECT_ID:
        return lab_oid_text(oid_of(value.bytes));
    case ASN_OPAQUE_FLOAT:
        return std::to_string(read_as<float>(value.bytes));
    case ASN_OPAQUE_DOUBLE:
        return std::to_string(read_as<double>(value.bytes));
    default:
        return value.bytes;
    }
}

json_ref lab_value_to_json(const lab_value &value)
{
    if (lab_is_integer(value.type) || value.type == ASN_COUNTER64)
        return json_ref::own(json_object_new_int64(number_of(value)));
    if (value.type == ASN_OPAQUE_FLOAT)
        return json_ref::own(json_object_new_double(static_cast<double>(read_as<float>(value.bytes))));
    if (value.type == ASN_OPAQUE_DOUBLE)
        return json_ref::own(json_object_new_double(read_as<double>(value.bytes)));
    std::string text = lab_value_text(value);
    if (is_text(text))
        return json_ref::own(json_object_new_string_len(text.data(), static_cast<int>(text.size())));
    json_ref form = json_ref::own(json_object_new_object());
    json_object_object_add(form.get(), "hex", json_object_new_string(hex_of(value.bytes).c_str()));
    return form;
}

/* --- to and from the library --- */

lab_value lab_value_of(const netsnmp_variable_list *variable)
{
    const char *start = reinterpret_cast<const char *>(variable->val.string);
    return {variable->type, start != nullptr ? std::string(start, variable->val_len) : std::string()};
}

void lab_value_put(netsnmp_variable_list *variable, const lab_value &value)
{
    snmp_set_var_typed_value(variable, value.type, value.bytes.data(), value.bytes.size());
}
