/* The reconciliation of the modem's PDP profiles with the server's list, in its
 * phases. Names are compared without regard to case. */
#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_configs_gw.h"
#include "converter/control/bridge_configs_gw_nw_cc.h"
#include "converter/control/bridge_configs_gw_pdp.h"

#include <cerrno>
#include <strings.h>
#include <sys/types.h>
#include <utility>

static constexpr size_t VALUE_SIZE = 32;
static constexpr const char *CONTEXT_ID = "contextId";

/* A profile of either side; the last belongs to the server's alone, the context
 * to the gateway's. */
struct pdp_profile {
    char name[VALUE_SIZE];
    char apn[VALUE_SIZE];
    char connection[VALUE_SIZE];
    char user[VALUE_SIZE];
    char password[VALUE_SIZE];
    char authentication[VALUE_SIZE];
    char active[VALUE_SIZE];
    int64_t context;
};

struct pdp_reconciliation {
    converter_ctx *ctx;
    const char *name;
    json_object *request; /* the server's list */
    json_owned gateway;   /* the modem's list at the beginning */
    json_owned elements;  /* the reply */
};

/* ---- profiles ---- */

/* Returns 0, or a negative number after logging `failure`. */
static int read_server_profile(json_object *object, pdp_profile *profile, const char *failure)
{
    *profile = {};
    const bridge_json_field frame[] = {
        field_string("pdpProfileName", profile->name),
        field_string("apnName", profile->apn),
        field_string("connectionType", profile->connection),
        field_string("userName", profile->user),
        field_string("password", profile->password),
        field_string("authType", profile->authentication),
        field_string("setActive", profile->active),
    };
    if (cmd_parse(object, frame) == 0)
        return 0;
    BRIDGE_ERROR("%s", failure);
    return -1;
}

static int read_gateway_profile(json_object *object, pdp_profile *profile)
{
    *profile = {};
    const bridge_json_field frame[] = {
        field_string("pdpProfileName", profile->name),
        field_string("apnName", profile->apn),
        field_string("connectionType", profile->connection),
        field_string("userName", profile->user),
        field_string("password", profile->password),
        field_string("authType", profile->authentication),
        field_int(CONTEXT_ID, &profile->context),
    };
    if (cmd_parse(object, frame) == 0)
        return 0;
    BRIDGE_ERROR("failed to de-serialize current pdp parameters");
    return -1;
}

static int read_name(json_object *object, char (&name)[VALUE_SIZE], const char *failure)
{
    const bridge_json_field frame[] = {field_string("pdpProfileName", name)};
    if (cmd_parse(object, frame) == 0)
        return 0;
    BRIDGE_ERROR("%s", failure);
    return -1;
}

static bool is_same_text(const char *left, const char *right)
{
    return strcasecmp(left, right) == 0;
}

static bool is_active(const pdp_profile &profile)
{
    return is_same_text(profile.active, "True");
}

/* A password that differs only in case counts as equal. */
static bool has_same_settings(const pdp_profile &left, const pdp_profile &right)
{
    return is_same_text(left.apn, right.apn) && is_same_text(left.connection, right.connection) &&
           is_same_text(left.user, right.user) && is_same_text(left.password, right.password) &&
           is_same_text(left.authentication, right.authentication);
}

/* The place of the name in a list, -1 without one, or -2 after logging
 * `failure` of a row that cannot be read. */
static ssize_t find_name(json_object *list, const char *name, const char *failure)
{
    for (size_t i = 0; i < json_object_array_length(list); i++) {
        char other[VALUE_SIZE] = "";
        if (read_name(json_object_array_get_idx(list, i), other, failure) < 0)
            return -2;
        if (is_same_text(name, other))
            return static_cast<ssize_t>(i);
    }
    return -1;
}

/* How often the name stands in a list, or a negative number after logging. */
static int count_name(json_object *list, const char *name, const char *failure)
{
    int count = 0;
    for (size_t i = 0; i < json_object_array_length(list); i++) {
        char other[VALUE_SIZE] = "";
        if (read_name(json_object_array_get_idx(list, i), other, failure) < 0)
            return -1;
        count += is_same_text(name, other) ? 1 : 0;
    }
    return count;
}

static int add_context(json_object *profile, int64_t context)
{
    return cfg_add(profile, CONTEXT_ID, json_object_new_int64(context),
                   "failed to add context id to the server profile");
}

static int add_action(pdp_reconciliation *work, const char *text, json_owned profile)
{
    return cfg_add_element(work->elements.get(), work->name, text, profile.release());
}

/* Logs the outcome of an action and adds it with its profile to the reply. */
static int tell_action(pdp_reconciliation *work, int result, const char *failed, const char *succeeded,
                       json_owned profile)
{
    if (result < 0)
        BRIDGE_ERROR("%s", failed);
    else
        BRIDGE_INFO("%s", succeeded);
    return add_action(work, result < 0 ? failed : succeeded, std::move(profile));
}

/* ---- validation ---- */

static int check_name(const pdp_reconciliation &work, const char *name)
{
    int count = count_name(work.gateway.get(), name, "failed to de-serialize current pdp parameters");
    if (count > 1)
        BRIDGE_ERROR("unable to process the cellular pdp request -- more than one profile exists on the "
                     "gateway with the same profile name");
    if (count < 0 || count > 1)
        return -EINVAL;
    count = count_name(work.request, name, "failed to de-serialize profile name (from server list)");
    if (count > 1)
        BRIDGE_ERROR("unable to process the cellular pdp request -- more than one profile exists in the "
                     "server list with the same profile name");
    return count < 0 || count > 1 ? -EINVAL : 0;
}

/* Exactly one profile of the server's is to be the active one, and every name must be clear on both sides. */
static int validate(const pdp_reconciliation &work)
{
    bool has_active = false;
    for (size_t i = 0; i < json_object_array_length(work.request); i++) {
        pdp_profile profile;
        if (read_server_profile(
                json_object_array_get_idx(work.request, i), &profile,
                "unable to deserialize the cellular pdp request -- one or more fields missing in a profile") <
            0)
            return -EINVAL;
        if (is_active(profile) && has_active) {
            BRIDGE_ERROR("unable to process the cellular pdp request -- more than one profile with setActive "
                         "field set to True");
            return -EINVAL;
        }
        has_active = has_active || is_active(profile);
        if (check_name(work, profile.name) < 0)
            return -EINVAL;
    }
    if (!has_active) {
        BRIDGE_ERROR(
            "unable to process the cellular pdp request -- no active profile mentioned in the server list");
        return -EINVAL;
    }
    return 0;
}

/* ---- delete ---- */

static int delete_if_unknown(pdp_reconciliation *work, json_object *row)
{
    json_owned profile(cfg_copy(row, "failed to create a local copy of the gateway profile"));
    if (!profile)
        return -EIO;
    char name[VALUE_SIZE] = "";
    if (read_name(profile.get(), name,
                  "unable to process the cellular pdp request -- failed to deserialize the profile name from "
                  "the gateway list") < 0)
        return -EIO;
    const ssize_t place = find_name(work->request, name,
                                    "unable to process the cellular pdp request -- failed to deserialize the "
                                    "profile name from the server list");
    if (place < -1)
        return -EIO;
    if (place >= 0)
        return 0;
    const int result = pdp_delete(work->ctx, profile.get());
    return tell_action(work, result, "delete profile action failed", "delete profile action succeeded",
                       std::move(profile));
}

static int delete_unknown(pdp_reconciliation *work)
{
    for (size_t i = 0; i < json_object_array_length(work->gateway.get()); i++) {
        const int result = delete_if_unknown(work, json_object_array_get_idx(work->gateway.get(), i));
        if (result < 0)
            return result;
    }
    return 0;
}

/* ---- add and modify ---- */

/* Finds the gateway's profile of the same name. Returns 1, 0 without one, or a
 * negative number after logging.
 */
static int find_on_gateway(const pdp_reconciliation &work, const char *name, pdp_profile *found)
{
    for (size_t i = 0; i < json_object_array_length(work.gateway.get()); i++) {
        if (read_gateway_profile(json_object_array_get_idx(work.gateway.get(), i), found) < 0)
            return -EIO;
        if (is_same_text(name, found->name))
            return 1;
    }
    return 0;
}

static int modify(pdp_reconciliation *work, int64_t context, json_owned profile)
{
    if (add_context(profile.get(), context) < 0)
        return -ENOMEM;
    const int result = pdp_modify(work->ctx, profile.get());
    json_object_object_del(profile.get(), CONTEXT_ID);
    return tell_action(work, result, "modify profile action failed", "modify profile action succeeded",
                       std::move(profile));
}

static int put_profile(pdp_reconciliation *work, json_object *row)
{
    json_owned profile(cfg_copy(row, "failed to create a local copy of the server profile"));
    if (!profile)
        return -EIO;
    pdp_profile wanted;
    if (read_server_profile(profile.get(), &wanted,
                            "unable to process the cellular pdp request -- unable to deserialize the profile "
                            "from the server") < 0)
        return -EIO;
    pdp_profile present;
    const int found = find_on_gateway(*work, wanted.name, &present);
    if (found < 0)
        return found;
    if (found == 0) {
        const int result = pdp_add(work->ctx, profile.get());
        return tell_action(work, result, "add profile action failed", "add profile action succeeded",
                           std::move(profile));
    }
    if (!has_same_settings(wanted, present))
        return modify(work, present.context, std::move(profile));
    static constexpr const char *SAME = "profile already exists and same as the requested settings";
    BRIDGE_INFO("%s", SAME);
    return add_action(work, SAME, std::move(profile));
}

static int put_profiles(pdp_reconciliation *work)
{
    for (size_t i = 0; i < json_object_array_length(work->request); i++) {
        const int result = put_profile(work, json_object_array_get_idx(work->request, i));
        if (result < 0)
            return result;
    }
    return 0;
}

/* ---- activation ---- */

/* The profile is found on the gateway with this context. */
static int activate_found(pdp_reconciliation *work, int64_t context, json_owned profile)
{
    if (add_context(profile.get(), context) < 0)
        return -ENOMEM;
    long working = 0;
    if (bridge_snmp_get_property_int(work->ctx, "wmPdpWorkingProfile.0", &working, 0) < 0) {
        BRIDGE_ERROR("unable to activate cellular pdp info -- can't find the current active profile");
        return -EIO;
    }
    if (working == context) {
        static constexpr const char *ALREADY = "the profile is already the active one";
        BRIDGE_INFO("%s", ALREADY);
        return add_action(work, ALREADY, std::move(profile));
    }
    const int result = pdp_activate(work->ctx, profile.get());
    json_object_object_del(profile.get(), CONTEXT_ID);
    return tell_action(work, result, "activate profile action failed", "activate profile action succeeded",
                       std::move(profile));
}

static int activate(pdp_reconciliation *work, json_object *updated, const char *name, json_owned profile)
{
    const ssize_t place = find_name(updated, name,
                                    "unable to process the cellular pdp request -- failed to deserialize the "
                                    "profile name from the updated gateway list");
    if (place < -1)
        return -EIO;
    if (place < 0)
        return tell_action(work, -1, "activate profile action failed", "", std::move(profile));
    int64_t context = 0;
    const bridge_json_field frame[] = {field_int(CONTEXT_ID, &context)};
    if (cmd_parse(json_object_array_get_idx(updated, static_cast<size_t>(place)), frame) < 0) {
        BRIDGE_ERROR("failed to add context id to the server profile");
        return -EIO;
    }
    return activate_found(work, context, std::move(profile));
}

static int activate_chosen(pdp_reconciliation *work)
{
    json_object *list = nullptr;
    if (pdp_list_read(work->ctx, &list) < 0) {
        BRIDGE_ERROR("failed to get the updated PDP profile list");
        return -EIO;
    }
    const json_owned updated(list);
    for (size_t i = 0; i < json_object_array_length(work->request); i++) {
        json_owned profile(cfg_copy(json_object_array_get_idx(work->request, i),
                                    "failed to create a local copy of the server profile"));
        pdp_profile wanted;
        if (!profile || read_server_profile(profile.get(), &wanted,
                                            "unable to process the cellular pdp request -- unable to "
                                            "deserialize the profile from the server") < 0)
            return -EIO;
        if (!is_active(wanted))
            continue;
        const int result = activate(work, updated.get(), wanted.name, std::move(profile));
        if (result < 0)
            return result;
    }
    return 0;
}

/* ---- the whole ---- */

static int add_full_list(pdp_reconciliation *work)
{
    BRIDGE_INFO("getting the final PDP list");
    json_object *list = nullptr;
    if (pdp_list_read(work->ctx, &list) < 0) {
        BRIDGE_ERROR("failed to get the final updated PDP profile list");
        return -EIO;
    }
    const int result = cfg_add_element(work->elements.get(), work->name, "pdp full list", list);
    if (result < 0)
        BRIDGE_ERROR("failed to add pdp list to the response");
    return result;
}

int pdp_profile_read(converter_ctx *ctx, json_object **reply)
{
    return pdp_list_read(ctx, reply);
}

/* A bad list is refused before anything changes; from then on a failed action
 * is told in its element, and the rest goes on. */
int pdp_profile_write(converter_ctx *ctx, const char *name, json_object *request, json_object **reply)
{
    BRIDGE_DEBUG("pdp profile write function running");
    pdp_reconciliation work = {.ctx = ctx, .name = name, .request = request, .gateway = {}, .elements = {}};
    json_object *list = nullptr;
    if (pdp_list_read(ctx, &list) < 0) {
        BRIDGE_ERROR("failed to get the current PDP profile  list");
        return -EINVAL;
    }
    work.gateway.reset(list);
    work.elements.reset(json_object_new_array());
    if (!work.elements) {
        BRIDGE_ERROR("failed to allocate response array for [%s]", name);
        return -EINVAL;
    }
    if (!json_object_is_type(request, json_type_array)) {
        BRIDGE_ERROR(
            "unable to process the cellular pdp request -- no active profile mentioned in the server list");
        return -EINVAL;
    }
    int result = validate(work);
    for (const auto phase : {delete_unknown, put_profiles, activate_chosen, add_full_list}) {
        if (result < 0)
            return result;
        result = phase(&work);
    }
    if (result < 0)
        return result;
    *reply = work.elements.release();
    return 0;
}
