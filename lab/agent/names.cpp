#include "names.h"

#include <map>

struct names_context {
    std::map<std::string, lab_object, std::less<>> by_name;
    std::map<lab_oid, const lab_object *> by_place;
};

static names_context names;

static u_char type_of_node(const struct tree *node)
{
    switch (node->type) {
    case TYPE_INTEGER:
    case TYPE_INTEGER32:
        return ASN_INTEGER;
    case TYPE_OCTETSTR:
        return ASN_OCTET_STR;
    case TYPE_OBJID:
        return ASN_OBJECT_ID;
    case TYPE_IPADDR:
        return ASN_IPADDRESS;
    case TYPE_COUNTER:
        return ASN_COUNTER;
    case TYPE_GAUGE:
    case TYPE_UNSIGNED32:
        return ASN_GAUGE;
    case TYPE_TIMETICKS:
        return ASN_TIMETICKS;
    case TYPE_COUNTER64:
        return ASN_COUNTER64;
    case TYPE_OPAQUE:
        return ASN_OPAQUE;
    default:
        return ASN_NULL;
    }
}

static void load_node(const struct tree *node, lab_oid place, const lab_object *table)
{
    place.push_back(node->subid);
    lab_object object = {node->label, place, type_of_node(node), false, false, nullptr};
    object.writable = node->access == MIB_ACCESS_READWRITE;
    object.readable = object.writable || node->access == MIB_ACCESS_READONLY;
    object.table = node->child_list == nullptr ? table : nullptr;
    const lab_object *kept = &names.by_name.insert_or_assign(node->label, object).first->second;
    names.by_place[place] = kept;
    /* A table's only child is its entry, and the entry's children are the columns. */
    bool is_entry = node->indexes != nullptr && node->parent != nullptr;
    if (is_entry)
        table = lab_name_find(node->parent->label);
    for (const struct tree *child = node->child_list; child != nullptr; child = child->next_peer)
        load_node(child, place, is_entry ? table : nullptr);
}

void lab_names_load()
{
    for (const struct tree *node = get_tree_head(); node != nullptr; node = node->next_peer)
        load_node(node, {}, nullptr);
}

const lab_object *lab_name_find(std::string_view name)
{
    auto found = names.by_name.find(name);
    return found != names.by_name.end() ? &found->second : nullptr;
}

const lab_object *lab_name_of(const lab_oid &place)
{
    for (lab_oid part = place; !part.empty(); part.pop_back()) {
        auto found = names.by_place.find(part);
        if (found != names.by_place.end())
            return found->second;
    }
    return nullptr;
}

std::vector<const lab_object *> lab_name_columns(const lab_object *table)
{
    std::vector<const lab_object *> columns;
    for (const auto &[place, object] : names.by_place) {
        if (object->table == table && object->readable)
            columns.push_back(object);
    }
    return columns;
}

std::optional<lab_oid> lab_name_to_oid(std::string_view text)
{
    size_t dot = text.find('.');
    if (dot == 0 || (!text.empty() && text[0] >= '0' && text[0] <= '9'))
        return lab_oid_from_text(text);
    const lab_object *object = lab_name_find(text.substr(0, dot));
    if (object == nullptr)
        return std::nullopt;
    lab_oid place = object->place;
    if (dot != std::string_view::npos) {
        std::optional<lab_oid> suffix = lab_oid_from_text(text.substr(dot + 1));
        if (!suffix)
            return std::nullopt;
        place.insert(place.end(), suffix->begin(), suffix->end());
    }
    return place;
}

std::string lab_name_from_oid(const lab_oid &place)
{
    const lab_object *object = lab_name_of(place);
    if (object == nullptr)
        return lab_oid_text(place);
    std::string suffix = lab_oid_text(place, object->place.size());
    return suffix.empty() ? object->name : object->name + "." + suffix;
}
