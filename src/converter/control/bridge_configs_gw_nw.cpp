/* The table of items, the interfaces, and the walks. */
#include "converter/control/bridge_configs_gw_nw.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_configs_gw.h"
#include "converter/control/bridge_configs_gw_nw_cc.h"
#include "converter/control/bridge_configs_gw_scripts.h"

#include <cerrno>
#include <strings.h>

bool nw_if_pref_is_auto;

/* ---- interfaces ---- */

struct nw_interface {
    int64_t index;
    const char *name;
    const char *available;
};

/* clang-format off */
static constexpr nw_interface NW_INTERFACES[] = {
    {1, "Ethernet", "networkEthernetAvailable.0"},
    {2, "Optical",  "networkOpticalAvailable.0"},
    {3, "Cellular", "networkCellularAvailable.0"},
};
/* clang-format on */

static constexpr const char *PREFERENCE_NAME = "interfacePreference";

static const nw_interface *find_interface(int64_t index)
{
    for (const nw_interface &row : NW_INTERFACES) {
        if (row.index == index)
            return &row;
    }
    return nullptr;
}

static const nw_interface *find_interface(const char *name)
{
    for (const nw_interface &row : NW_INTERFACES) {
        if (name != nullptr && strcasecmp(row.name, name) == 0)
            return &row;
    }
    return nullptr;
}

/* Returns 0, or -5 after logging. */
static int append_name(json_object *list, const nw_interface *row, const char *not_made,
                       const char *not_added)
{
    json_object *name = row != nullptr ? json_object_new_string(row->name) : nullptr;
    if (name == nullptr) {
        BRIDGE_ERROR("%s", not_made);
        return -EIO;
    }
    if (json_object_array_add(list, name) < 0) {
        BRIDGE_ERROR("%s", not_added);
        json_object_put(name);
        return -EIO;
    }
    return 0;
}

struct nw_choice {
    int64_t preferred;
    int64_t fallback;
};

static int append_choice(const nw_choice &choice, json_object *list)
{
    if (append_name(list, find_interface(choice.preferred), "failed to serialize preferred interface info",
                    "failed to add preferred interface value to the JSON array") < 0)
        return -EIO;
    return append_name(list, find_interface(choice.fallback), "failed to serialize fallback interface info",
                       "failed to add fallback interface to the JSON array");
}

static int append_available(converter_ctx *ctx, const nw_choice &choice, json_object *list)
{
    for (const nw_interface &row : NW_INTERFACES) {
        long available = 0;
        if (bridge_snmp_get_property_int(ctx, row.available, &available, 0) < 0) {
            BRIDGE_ERROR("failed to get connectivity availability flag from the SNMP client");
            return -EIO;
        }
        if (available == 0 || row.index == choice.preferred || row.index == choice.fallback)
            continue;
        if (append_name(list, &row, "failed to serialize an enabled interface",
                        "failed to add an enabled interface to JSON array") < 0)
            return -EIO;
    }
    return 0;
}

/* The preferred one, the fallback, and the others that are available; or these
 * alone when the gateway chooses. */
static int nw_if_list_read(converter_ctx *ctx, json_object **reply)
{
    nw_if_pref_is_auto = false;
    BRIDGE_INFO("getting current connectivity info");
    json_owned list(json_object_new_array());
    if (!list) {
        BRIDGE_ERROR("failed to allocate memory for JSON response array");
        return -ENOMEM;
    }
    nw_choice choice = {};
    const bridge_snmp_read_prop props[] = {
        {.oid = "networkPreferred.0", .buf = &choice.preferred, .type = PROP_TYPE_INT},
        {.oid = "networkFallback.0", .buf = &choice.fallback, .type = PROP_TYPE_INT},
        {},
    };
    if (bridge_snmp_get_properties(ctx, props, 0) < 0) {
        BRIDGE_ERROR("failed to get connectivity properties from the SNMP client");
        return -EIO;
    }
    if (choice.preferred == 0 || choice.fallback == 0) {
        BRIDGE_INFO("AUTO set for interface preference");
        nw_if_pref_is_auto = true;
        choice = {};
    } else if (append_choice(choice, list.get()) < 0) {
        return -EIO;
    }
    if (append_available(ctx, choice, list.get()) < 0)
        return -EIO;
    *reply = list.release();
    return 0;
}

/* ---- the server's choice ---- */

static const char *name_at(json_object *list, size_t place)
{
    json_object *name = json_object_array_get_idx(list, place);
    return json_object_get_string(name);
}

static bool is_listed(json_object *list, const nw_interface &row)
{
    for (size_t i = 0; i < json_object_array_length(list); i++) {
        const char *name = name_at(list, i);
        if (name != nullptr && strcasecmp(name, row.name) == 0)
            return true;
    }
    return false;
}

/* The gateway's own choice, by the first two names of its list. */
static int current_choice(json_object *list, nw_choice *choice)
{
    if (nw_if_pref_is_auto)
        return 0;
    const nw_interface *preferred = find_interface(name_at(list, 0));
    const nw_interface *fallback = find_interface(name_at(list, 1));
    if (preferred == nullptr || fallback == nullptr) {
        BRIDGE_ERROR("unknown current interface type");
        return -EIO;
    }
    *choice = {preferred->index, fallback->index};
    return 0;
}

static int put_index(json_object *request, const char *key, int64_t index, const char *not_made,
                     const char *not_added)
{
    json_object *number = json_object_new_int64(index);
    if (number == nullptr) {
        BRIDGE_ERROR("%s", not_made);
        return -ENOMEM;
    }
    return cfg_add(request, key, number, not_added);
}

/* The first two good names of the server's. An interface that is not available
 * cannot be chosen. */
static int choose(json_object *names, json_object *list, json_object *request, nw_choice *choice)
{
    for (size_t i = 0; i < json_object_array_length(names) && choice->fallback == 0; i++) {
        const nw_interface *row = find_interface(name_at(names, i));
        if (row == nullptr) {
            BRIDGE_ERROR("unknown proposed interface type");
            continue;
        }
        if (!is_listed(list, *row))
            continue;
        int result = 0;
        if (choice->preferred == 0) {
            choice->preferred = row->index;
            result = put_index(request, "preferredIdx", row->index,
                               "failed to allocate preferred interface memory",
                               "failed to add preferred interface to the request");
        } else {
            choice->fallback = row->index;
            result =
                put_index(request, "fallbackIdx", row->index, "failed to allocate fallback interface memory",
                          "failed to add fallback interface to the request");
        }
        if (result < 0)
            return result;
    }
    if (choice->preferred == 0)
        BRIDGE_ERROR("no match found");
    else if (choice->fallback == 0)
        BRIDGE_ERROR("partial match found");
    return choice->fallback == 0 ? -EINVAL : 0;
}

static int apply_choice(converter_ctx *ctx, json_object *request)
{
    BRIDGE_INFO("setting connectivity preference");
    const int result =
        cmd_write(ctx, {cmd_field("networkPreferred.0", "preferredIdx", PROP_TYPE_INT, request),
                        cmd_field("networkFallback.0", "fallbackIdx", PROP_TYPE_INT, request),
                        cmd_text("networkPreferencesExecute.0", CMD_TRIGGER)});
    if (result < 0)
        BRIDGE_ERROR("failed to set connectivity properties");
    return result;
}

static int chosen_names(const nw_choice &choice, json_object **reply)
{
    json_owned names(json_object_new_array());
    if (!names) {
        BRIDGE_ERROR("failed to allocate memory for JSON response array");
        return -ENOMEM;
    }
    if (append_name(names.get(), find_interface(choice.preferred), "failed to serialize preferred interface",
                    "failed to add preferred interface to the JSON array") < 0 ||
        append_name(names.get(), find_interface(choice.fallback), "failed to serialize fallback interface",
                    "failed to add fallback interface to the JSON array") < 0)
        return -EIO;
    *reply = names.release();
    return 0;
}

static int nw_if_pref_write(converter_ctx *ctx, json_object *names, json_object *request, json_object **reply)
{
    BRIDGE_DEBUG("network interface helper function running");
    json_object *read = nullptr;
    if (nw_if_list_read(ctx, &read) < 0) {
        BRIDGE_ERROR("failed network interface config read for [%s]", PREFERENCE_NAME);
        return -EIO;
    }
    const json_owned list(read);
    nw_choice current = {};
    int result = current_choice(list.get(), &current);
    if (result < 0)
        return result;
    nw_choice choice = {};
    if (json_object_is_type(names, json_type_array)) {
        result = choose(names, list.get(), request, &choice);
    } else {
        BRIDGE_ERROR("no match found");
        result = -EINVAL;
    }
    if (result < 0)
        return result;
    if (choice.preferred != current.preferred || choice.fallback != current.fallback) {
        result = apply_choice(ctx, request);
        if (result < 0)
            return result;
    }
    return chosen_names(choice, reply);
}

/* ---- items ---- */

static int write_preference(converter_ctx *ctx, const char *name, json_object *wanted, json_object *out)
{
    const json_owned request(json_object_new_object());
    if (!request) {
        BRIDGE_ERROR("failed to allocate request object for [%s]", name);
        return -ENOMEM;
    }
    json_object *names = nullptr;
    json_object *reply = nullptr;
    int result = nw_if_pref_write(ctx, wanted, request.get(), &names);
    if (result >= 0) {
        add_value_key(name, &result, names, &reply);
    } else {
        BRIDGE_ERROR("failed network config write for [%s]", name);
        cfg_status_reply(name, &result, "unable to write interface info", &reply);
    }
    if (reply != nullptr && cfg_add(out, name, reply, "failed to add subconfig object to the response") < 0)
        return -EIO;
    return result;
}

static int read_preference(converter_ctx *ctx, const char *name, json_object *out)
{
    json_object *names = nullptr;
    json_object *reply = nullptr;
    int result = nw_if_list_read(ctx, &names);
    json_owned owned(names);
    if (result < 0) {
        BRIDGE_ERROR("failed network config read for [%s]", name);
        cfg_status_reply(name, &result, "unable to read interface info", &reply);
    } else if (nw_if_pref_is_auto) {
        BRIDGE_INFO("AUTO set for [%s] subconfig", name);
        cfg_status_reply(name, &result, "interface not set -- auto config applied", &reply);
    } else {
        add_value_key(name, &result, owned.release(), &reply);
    }
    if (reply == nullptr)
        return result;
    if (json_object_object_add(out, name, reply) < 0) {
        BRIDGE_ERROR("failed to add response to the subconfig object [%s]", name);
        json_object_put(reply);
        return -EIO;
    }
    return result;
}

/* A new object in the response, or null after logging; `result` takes the
 * failure. */
static json_object *add_cellular(const char *name, json_object *out, int *result)
{
    json_object *reply = json_object_new_object();
    if (reply == nullptr) {
        BRIDGE_ERROR("failed to allocate [%s] subconfig response", name);
        *result = -ENOMEM;
        return nullptr;
    }
    *result = cfg_add(out, name, reply, "failed to add subconfig object to response");
    return *result < 0 ? nullptr : reply;
}

static int write_cellular(converter_ctx *ctx, const char *name, json_object *wanted, json_object *out)
{
    int result = 0;
    json_object *reply = add_cellular(name, out, &result);
    return reply != nullptr ? bridge_configs_gw_nw_cc_write(ctx, wanted, reply) : result;
}

static int read_cellular(converter_ctx *ctx, const char *name, json_object *out)
{
    int result = 0;
    json_object *reply = add_cellular(name, out, &result);
    return reply != nullptr ? bridge_configs_gw_nw_cc_read(ctx, reply) : result;
}

/* The script's keys as they stand, or a status. */
static int answer_check(const char *name, int result, json_object *keys, const char *failure,
                        const char *not_added, json_object *out)
{
    json_owned owned(keys);
    json_object *reply = nullptr;
    if (result < 0)
        cfg_status_reply(name, &result, failure, &reply);
    else
        reply = owned.release();
    if (reply == nullptr)
        return result;
    if (json_object_object_add(out, name, reply) < 0) {
        BRIDGE_ERROR(not_added, name);
        json_object_put(reply);
        return -EIO;
    }
    return result;
}

static int write_check(converter_ctx *, const char *name, json_object *wanted, json_object *out)
{
    json_object *keys = json_object_new_object();
    if (keys == nullptr) {
        BRIDGE_ERROR("failed to allocate memory for JSON response array");
        return -ENOMEM;
    }
    const int result = cfg_connectivity_check_write(wanted, keys);
    if (result < 0)
        BRIDGE_ERROR("failed network config write for [%s]", name);
    return answer_check(name, result, keys, "unable to write connectivity check info",
                        "failed to add subconfig object to the response", out);
}

static int read_check(converter_ctx *, const char *name, json_object *out)
{
    json_object *keys = json_object_new_object();
    if (keys == nullptr) {
        BRIDGE_ERROR("failed to allocate memory for JSON response array");
        return -ENOMEM;
    }
    const int result = cfg_connectivity_check_read(keys);
    if (result < 0)
        BRIDGE_ERROR("failed network config read for [%s]", name);
    return answer_check(name, result, keys, "unable to read connectivity check info",
                        "failed to add response to the subconfig object [%s]", out);
}

struct nw_item {
    const char *name;
    int (*reader)(converter_ctx *ctx, const char *name, json_object *out);
    int (*writer)(converter_ctx *ctx, const char *name, json_object *wanted, json_object *out);
};

/* Walked from the top. */
/* clang-format off */
static constexpr nw_item NW_ITEMS[] = {
    {PREFERENCE_NAME,     read_preference, write_preference},
    {"cellular",          read_cellular,   write_cellular},
    {"connectivityCheck", read_check,      write_check},
};
/* clang-format on */

/* Without any known item the section is a failure. An item that is JSON null
 * counts as absent. */
int bridge_configs_gw_nw_write(converter_ctx *ctx, json_object *cfg, json_object *out)
{
    BRIDGE_DEBUG("going over the network configuration from the server");
    int result = -EINVAL;
    for (const nw_item &item : NW_ITEMS) {
        BRIDGE_TRACE("looking for %s network subconfig...", item.name);
        json_object *wanted = nullptr;
        if (!json_object_object_get_ex(cfg, item.name, &wanted) || wanted == nullptr)
            continue;
        BRIDGE_TRACE("subconfig was found for [%s]", item.name);
        result = item.writer(ctx, item.name, wanted, out);
        if (result == CFG_REPLY_FORMED)
            result = 0;
        if (result < 0)
            return result;
    }
    return result;
}

int bridge_configs_gw_nw_read(converter_ctx *ctx, json_object *out)
{
    BRIDGE_DEBUG("reading current network configuration");
    int result = 0;
    for (const nw_item &item : NW_ITEMS) {
        BRIDGE_TRACE("looking for %s network subconfig...", item.name);
        result = item.reader(ctx, item.name, out);
        if (result == CFG_REPLY_FORMED)
            result = 0;
        if (result < 0)
            return result;
    }
    return result;
}
