/* The modem's profiles: the list, and the four operations. */
#include "converter/control/bridge_configs_gw_pdp.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_configs_gw.h"
#include "converter/control/bridge_configs_gw_nw_cc.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <span>
#include <strings.h>

static constexpr size_t STATUS_SIZE = 128;
static constexpr const char *CONTEXT_ID = "contextId";

/* By their numbers. */
static constexpr const char *CONNECTION_TYPES[] = {"IP", "PPP", "IPV6"};
static constexpr const char *AUTH_TYPES[] = {"None", "PAP", "CHAP"};

static int pdp_wait_status(converter_ctx *ctx)
{
    char status[STATUS_SIZE] = "";
    const int result = cfg_wait_for_text(ctx, "wmPdpLastOperationStatus.0", "Waiting for modem's response",
                                         status, sizeof(status));
    if (result < 0)
        return result;
    if (strstr(status, "successfully") != nullptr)
        return 0;
    BRIDGE_ERROR("operation failed with a status: %s", status);
    return -1;
}

/* ---- list ---- */

/* clang-format off */
static constexpr bridge_snmp_column GATEWAY_PROFILES[] = {
    {"pdpProfileName", "wmPdpProfileName",    false, PROP_TYPE_STRING},
    {"apnName",        "wmPdpApnName",        false, PROP_TYPE_STRING},
    {"connectionType", "wmPdpConnectionType", false, PROP_TYPE_INT},
    {"userName",       "wmPdpUserName",       false, PROP_TYPE_STRING},
    {"password",       "wmPdpPassword",       false, PROP_TYPE_STRING},
    {"authType",       "wmPdpAuthType",       false, PROP_TYPE_INT},
    {"contextId",      "wmPdpCid",            false, PROP_TYPE_INT},
    {},
};
/* clang-format on */

/* Deletes the number and adds the word, which so comes last. */
static int put_word(json_object *row, const char *key, std::span<const char *const> words, int64_t number,
                    const char *unknown, const char *not_added)
{
    if (number < 0 || number >= static_cast<int64_t>(words.size())) {
        BRIDGE_ERROR("%s", unknown);
        return -EIO;
    }
    json_object_object_del(row, key);
    return cfg_add(row, key, json_object_new_string(words[static_cast<size_t>(number)]), not_added);
}

static int tell_in_words(json_object *row)
{
    int64_t connection = 0;
    int64_t authentication = 0;
    const bridge_json_field frame[] = {field_int("connectionType", &connection),
                                       field_int("authType", &authentication)};
    if (cmd_parse(row, frame) < 0) {
        BRIDGE_ERROR("failed to de-serialize current pdp parameters");
        return -EIO;
    }
    if (put_word(row, "connectionType", CONNECTION_TYPES, connection, "failed to convert connection type",
                 "failed to add converted connection type to the response") < 0)
        return -EIO;
    return put_word(row, "authType", AUTH_TYPES, authentication, "failed to convert auth type",
                    "failed to add converted auth type to the response");
}

int pdp_list_read(converter_ctx *ctx, json_object **list)
{
    BRIDGE_INFO("getting current PDP info");
    long started = 0; /* the read itself makes the modem list its profiles */
    if (bridge_snmp_get_property_int(ctx, "wmReadPdpProfile.0", &started, 0) < 0) {
        BRIDGE_ERROR("failed to start reading profiles");
        return -EIO;
    }
    if (pdp_wait_status(ctx) < 0) {
        BRIDGE_ERROR("failed pdp operation status command");
        return -EIO;
    }
    json_object *table = nullptr;
    if (bridge_snmp_get_exact_table_as_json(ctx, GATEWAY_PROFILES, nullptr, &table) < 0) {
        BRIDGE_ERROR("failed to get SNMP table");
        return -EIO;
    }
    json_owned profiles(table);
    for (size_t i = 0; i < json_object_array_length(table); i++) {
        const int result = tell_in_words(json_object_array_get_idx(table, i));
        if (result < 0)
            return result;
    }
    *list = profiles.release();
    return 0;
}

/* ---- requests ---- */

static int64_t number_of(std::span<const char *const> words, const char *word)
{
    for (size_t i = 0; i < words.size(); i++) {
        if (word != nullptr && strcasecmp(words[i], word) == 0)
            return static_cast<int64_t>(i);
    }
    return -1;
}

static json_object *value_of(json_object *profile, const char *key)
{
    json_object *value = nullptr;
    json_object_object_get_ex(profile, key, &value);
    return value;
}

/* Copies a key that is there; the modem's own refusal tells of one that is not.
 */
static int copy_key(json_object *profile, const char *key, const char *failure, json_object *request)
{
    json_object *value = value_of(profile, key);
    return value == nullptr ? 0 : cfg_add(request, key, json_object_get(value), failure);
}

/* Both types are refused with the words of the first. */
static int copy_type(json_object *profile, const char *key, std::span<const char *const> words,
                     const char *failure, json_object *request)
{
    const int64_t number = number_of(words, json_object_get_string(value_of(profile, key)));
    if (number < 0) {
        BRIDGE_ERROR("invalid connection type");
        return -EIO;
    }
    return cfg_add(request, key, json_object_new_int64(number), failure);
}

/* A new request with the types as numbers, or null after logging. */
static json_object *pdp_request_convert(json_object *profile)
{
    json_owned request(json_object_new_object());
    if (!request) {
        BRIDGE_ERROR("failed to allocate memory for the modified request");
        return nullptr;
    }
    if (copy_key(profile, CONTEXT_ID, "operation couldn't add context id to the modified request",
                 request.get()) < 0 ||
        copy_key(profile, "pdpProfileName", "operation couldn't add profile name to the modified request",
                 request.get()) < 0 ||
        copy_key(profile, "apnName", "operation couldn't add apn name to the modified request",
                 request.get()) < 0 ||
        copy_type(profile, "connectionType", CONNECTION_TYPES,
                  "operation couldn't add connection type to the modified request", request.get()) < 0 ||
        copy_key(profile, "userName", "operation couldn't add username to the modified request",
                 request.get()) < 0 ||
        copy_key(profile, "password", "operation couldn't add password to the modified request",
                 request.get()) < 0 ||
        copy_type(profile, "authType", AUTH_TYPES,
                  "operation couldn't add authentication type to the modified request", request.get()) < 0)
        return nullptr;
    return request.release();
}

/* ---- operations ---- */

struct profile_property {
    const char *key;
    const char *object; /* less the row's number */
    bridge_prop_type hint;
};

/* Written in this order, each in a request of its own. */
/* clang-format off */
static constexpr profile_property PROPERTIES[] = {
    {"pdpProfileName", "wmPdpProfileName",    PROP_TYPE_STRING},
    {"apnName",        "wmPdpApnName",        PROP_TYPE_STRING},
    {"connectionType", "wmPdpConnectionType", PROP_TYPE_INT},
    {"userName",       "wmPdpUserName",       PROP_TYPE_STRING},
    {"password",       "wmPdpPassword",       PROP_TYPE_STRING},
    {"authType",       "wmPdpAuthType",       PROP_TYPE_INT},
};

/* What tells the operations apart. */
struct pdp_operation {
    const char *starting;
    const char *no_index;
    const char *not_named;
    const char *not_set;
    const char *trigger;
    const char *not_triggered;
    const char *not_done;
};

static constexpr pdp_operation ADD = {
    "adding a new PDP profile",
    "failed to get PDP count",
    "failed to append index to OID",
    "failed to set new PDP profile properties",
    "wmAddPdpProfile.0",
    "failed to trigger new PDP profile creation",
    "failed to add PDP profile - status cannot be read or operation failed",
};

static constexpr pdp_operation MODIFY = {
    "modifying an existing PDP profile",
    "unable to modify cellular pdp info -- contextId couldn't be serialized",
    "failed to append index to OIDs",
    "failed to modify the PDP profile -- unable to set properties",
    "wmModifyPdpProfile.0",
    "failed to trigger PDP profile modification",
    "failed to modify PDP profile - status cannot be read or operation failed",
};

static constexpr pdp_operation DELETE = {
    "deleting an existing PDP profile",
    "unable to delete cellular pdp info -- contextId deserialization failed",
    nullptr,
    nullptr,
    "wmRemovePdpProfile.0",
    "failed to trigger delete PDP profile",
    "failed to delete PDP profile - status cannot be read or operation failed",
};

static constexpr pdp_operation ACTIVATE = {
    "setting a PDP profile as active",
    "contextId deserialization failed",
    nullptr,
    nullptr,
    "wmPdpWorkingProfile.0",
    "failed to trigger activate PDP profile",
    "failed to activate PDP profile - status cannot be read or operation failed",
};
/* clang-format on */

static int write_properties(converter_ctx *ctx, const pdp_operation &operation, json_object *request,
                            long long row)
{
    char objects[std::size(PROPERTIES)][64];
    for (size_t i = 0; i < std::size(PROPERTIES); i++) {
        const int length = snprintf(objects[i], sizeof(objects[i]), "%s.%lld", PROPERTIES[i].object, row);
        if (length < 0 || static_cast<size_t>(length) >= sizeof(objects[i])) {
            BRIDGE_ERROR("%s", operation.not_named);
            return -EIO;
        }
    }
    for (size_t i = 0; i < std::size(PROPERTIES); i++) {
        if (cmd_write(ctx, {cmd_field(objects[i], PROPERTIES[i].key, PROPERTIES[i].hint, request)}) < 0) {
            BRIDGE_ERROR("%s", operation.not_set);
            return -EIO;
        }
    }
    return 0;
}

static int trigger(converter_ctx *ctx, const pdp_operation &operation, const char *text)
{
    if (bridge_snmp_set_property(ctx, operation.trigger, text, 0) < 0) {
        BRIDGE_ERROR("%s", operation.not_triggered);
        return -EIO;
    }
    const int result = pdp_wait_status(ctx);
    if (result < 0)
        BRIDGE_ERROR("%s", operation.not_done);
    return result;
}

/* The converted request, or null after logging. */
static json_object *begin(const pdp_operation &operation, json_object *profile)
{
    BRIDGE_DEBUG("%s", operation.starting);
    json_object *request = pdp_request_convert(profile);
    if (request == nullptr)
        BRIDGE_ERROR("failed to create modified request");
    return request;
}

int pdp_add(converter_ctx *ctx, json_object *profile)
{
    const json_owned request(begin(ADD, profile));
    if (!request)
        return -EIO;
    long count = 0;
    if (bridge_snmp_get_property_int(ctx, "wmPdpProfileCount.0", &count, 0) < 0) {
        BRIDGE_ERROR("%s", ADD.no_index);
        return -EIO;
    }
    const int result = write_properties(ctx, ADD, request.get(), count + 1LL);
    return result < 0 ? result : trigger(ctx, ADD, "1");
}

/* An operation on the profile of the context: its properties first, if it has
 * any to write. */
static int operate_by_context(converter_ctx *ctx, const pdp_operation &operation, json_object *profile)
{
    const json_owned request(begin(operation, profile));
    if (!request)
        return -EIO;
    int64_t context = 0;
    const bridge_json_field frame[] = {field_int(CONTEXT_ID, &context)};
    if (cmd_parse(request.get(), frame) < 0) {
        BRIDGE_ERROR("%s", operation.no_index);
        return -EINVAL;
    }
    if (operation.not_set != nullptr) {
        const int result = write_properties(ctx, operation, request.get(), context);
        if (result < 0)
            return result;
    }
    char text[32];
    snprintf(text, sizeof(text), "%lli", static_cast<long long>(context));
    return trigger(ctx, operation, text);
}

int pdp_modify(converter_ctx *ctx, json_object *profile)
{
    return operate_by_context(ctx, MODIFY, profile);
}

int pdp_delete(converter_ctx *ctx, json_object *profile)
{
    return operate_by_context(ctx, DELETE, profile);
}

int pdp_activate(converter_ctx *ctx, json_object *profile)
{
    return operate_by_context(ctx, ACTIVATE, profile);
}
