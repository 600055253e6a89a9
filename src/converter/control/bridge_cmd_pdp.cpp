/* The jobs of the children, then the handlers. */
#include "converter/control/bridge_cmd_pdp.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "converter/control/bridge_cmd_async.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_cmd_pipe.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

static constexpr size_t STATUS_SIZE = 128;
static constexpr size_t APN_SIZE = 128;
static constexpr const char *MODEM_DONE = "successfully";

int bridge_cmd_wait_pdp(converter_ctx *ctx)
{
    char status[STATUS_SIZE] = "";
    if (cmd_wait_for_modem(ctx, "wmPdpLastOperationStatus.0", status, sizeof(status)) < 0)
        return -EIO;
    if (strstr(status, MODEM_DONE) != nullptr)
        return 0;
    BRIDGE_ERROR("operation failed with a status: %s", status);
    return -1;
}

/* ---- what the jobs have in common ---- */

static int read_request_id(json_object *request, int64_t *req_id)
{
    bridge_json_field frame[] = {field_int("requestId", req_id)};
    if (cmd_parse(request, frame) == 0)
        return 0;
    BRIDGE_ERROR("failed to de-serialize params");
    return -1;
}

/* The array of the request's parameters, or null after logging `failure`. */
static json_object *find_array(json_object *request, const char *key, const char *failure)
{
    json_object *params = nullptr;
    json_object *array = nullptr;
    json_object_object_get_ex(request, "params", &params);
    json_object_object_get_ex(params, key, &array);
    if (json_object_is_type(array, json_type_array))
        return array;
    BRIDGE_ERROR("%s", failure);
    return nullptr;
}

/* `failed_apn` says with which item a failure came; the items before it stay changed. */
[[noreturn]] static void respond(json_owned answer, int result, const char *failed_apn, int64_t req_id)
{
    errnum_to_existing_json("status", result, answer.get());
    if (result < 0)
        json_object_object_add(answer.get(), "failed_apn", json_object_new_string(failed_apn));
    bridge_cmd_async_respond(answer.release(), req_id);
}

/* ---- list ---- */

/* clang-format off */
static constexpr bridge_snmp_column PROFILES[] = {
    {"profileName",    "wmPdpProfileName",    false, PROP_TYPE_STRING},
    {"apnName",        "wmPdpApnName",        false, PROP_TYPE_STRING},
    {"connectionType", "wmPdpConnectionType", false, PROP_TYPE_INT},
    {"username",       "wmPdpUserName",       false, PROP_TYPE_STRING},
    {"password",       "wmPdpPassword",       false, PROP_TYPE_STRING},
    {"authType",       "wmPdpAuthType",       false, PROP_TYPE_INT},
    {"cid",            "wmPdpCid",            false, PROP_TYPE_INT},
    {},
};
/* clang-format on */

static int number_profiles(json_object *profiles)
{
    for (size_t i = 0; i < json_object_array_length(profiles); i++) {
        json_object *number = json_object_new_int64(static_cast<int64_t>(i));
        if (number == nullptr) {
            BRIDGE_ERROR("failed to allocate index object for PDP array");
            return -ENOMEM;
        }
        if (json_object_object_add(json_object_array_get_idx(profiles, i), "idx", number) < 0) {
            BRIDGE_ERROR("failed to add index object to PDP array");
            return -ENOMEM;
        }
    }
    return 0;
}

static int list_profiles(converter_ctx *ctx, json_object *answer)
{
    long started = 0; /* the read itself makes the modem list its profiles */
    if (bridge_snmp_get_property_int(ctx, "wmReadPdpProfile.0", &started, 0) < 0) {
        BRIDGE_ERROR("failed to start reading profiles");
        return -EIO;
    }
    int result = bridge_cmd_wait_pdp(ctx);
    if (result < 0)
        return result;
    json_object *table = nullptr;
    if (bridge_snmp_get_exact_table_as_json(ctx, PROFILES, nullptr, &table) < 0) {
        BRIDGE_ERROR("failed to get SNMP table");
        return -EIO;
    }
    json_owned profiles(table);
    result = number_profiles(table);
    if (result < 0)
        return result;
    if (json_object_object_add(answer, "PDPs", profiles.release()) < 0) {
        BRIDGE_ERROR("failed to add PDP array into response object");
        return -ENOMEM;
    }
    return 0;
}

static void list_job(converter_ctx *ctx, json_object *request)
{
    int64_t req_id = 0;
    json_owned answer(json_object_new_object());
    if (!answer || read_request_id(request, &req_id) < 0)
        return;
    cmd_async_begin();
    const int result = list_profiles(ctx, answer.get());
    errnum_to_existing_json("status", result, answer.get());
    bridge_cmd_async_respond(answer.release(), req_id);
}

/* ---- one profile ---- */

struct profile_field {
    const char *object; /* less the row's number */
    const char *key;
    bool optional;
    bridge_prop_type hint;
};

/* Written in this order, each in a request of its own. */
/* clang-format off */
static constexpr profile_field PROFILE_FIELDS[] = {
    {"wmPdpProfileName",    "profileName",    false, PROP_TYPE_STRING},
    {"wmPdpApnName",        "apnName",        false, PROP_TYPE_STRING},
    {"wmPdpConnectionType", "connectionType", true,  PROP_TYPE_INT},
    {"wmPdpUserName",       "username",       true,  PROP_TYPE_STRING},
    {"wmPdpPassword",       "password",       true,  PROP_TYPE_STRING},
    {"wmPdpAuthType",       "authType",       true,  PROP_TYPE_INT},
};
/* clang-format on */

/* A request without a variable would ask the agent for nothing, and not every agent takes that well. */
static bool is_left_out(const profile_field &field, json_object *profile)
{
    json_object *value = nullptr;
    json_object_object_get_ex(profile, field.key, &value);
    if (!field.optional || value != nullptr)
        return false;
    BRIDGE_TRACE("skipping missing optional field: %s", field.key);
    return true;
}

/* `no_space` is the result for an object's name that is too long. */
static int write_profile(converter_ctx *ctx, json_object *profile, long long row, int no_space)
{
    char objects[std::size(PROFILE_FIELDS)][64];
    for (size_t i = 0; i < std::size(PROFILE_FIELDS); i++) {
        const int length = snprintf(objects[i], sizeof(objects[i]), "%s.%lld", PROFILE_FIELDS[i].object, row);
        if (length < 0 || static_cast<size_t>(length) >= sizeof(objects[i])) {
            BRIDGE_ERROR("failed to append index to OID");
            return no_space;
        }
    }
    for (size_t i = 0; i < std::size(PROFILE_FIELDS); i++) {
        const profile_field &field = PROFILE_FIELDS[i];
        if (is_left_out(field, profile))
            continue;
        if (cmd_write(ctx, {cmd_field(objects[i], field.key, field.hint, profile, field.optional)}) < 0) {
            BRIDGE_ERROR("failed to set new PDP profile properties");
            return -EIO;
        }
    }
    return 0;
}

/* ---- add ---- */

static int add_profile(converter_ctx *ctx, json_object *profile, long long row, char (&apn)[APN_SIZE])
{
    apn[0] = '\0';
    bridge_json_field frame[] = {field_string("apnName", apn)};
    if (cmd_parse(profile, frame) < 0)
        return -EINVAL;
    const int result = write_profile(ctx, profile, row, -ENOMEM);
    if (result < 0)
        return result;
    if (bridge_snmp_set_property(ctx, "wmAddPdpProfile.0", "1", 0) < 0) {
        BRIDGE_ERROR("failed to trigger new PDP profile creation");
        return -EIO;
    }
    return bridge_cmd_wait_pdp(ctx);
}

static void add_job(converter_ctx *ctx, json_object *request)
{
    int64_t req_id = 0;
    json_owned answer(json_object_new_object());
    if (!answer || read_request_id(request, &req_id) < 0)
        return;
    json_object *profiles = find_array(request, "newPDPs", "failed to parse incoming parameters");
    if (profiles == nullptr)
        return;
    long count = 0;
    if (bridge_snmp_get_property_int(ctx, "wmPdpProfileCount.0", &count, 0) < 0) {
        BRIDGE_ERROR("failed to get PDP count");
        return;
    }
    cmd_async_begin();
    char apn[APN_SIZE] = "";
    int result = 0;
    long long row = count;
    for (size_t i = 0; result == 0 && i < json_object_array_length(profiles); i++)
        result = add_profile(ctx, json_object_array_get_idx(profiles, i), ++row, apn);
    respond(std::move(answer), result, apn, req_id);
}

/* ---- modify ---- */

static int modify_profile(converter_ctx *ctx, json_object *profile, char (&row)[32])
{
    row[0] = '\0';
    int64_t idx = 0;
    int64_t cid = 0; /* required, but of no use */
    bridge_json_field frame[] = {field_int("idx", &idx), field_int("cid", &cid)};
    if (cmd_parse(profile, frame) < 0) {
        BRIDGE_ERROR("failed to de-serialize parameters");
        return -EINVAL;
    }
    const auto number = static_cast<int64_t>(static_cast<uint64_t>(idx) + 1);
    snprintf(row, sizeof(row), "%lli", static_cast<long long>(number));
    const int result = write_profile(ctx, profile, number, -EIO);
    if (result < 0)
        return result;
    if (bridge_snmp_set_property(ctx, "wmModifyPdpProfile.0", row, 0) < 0) {
        BRIDGE_ERROR("failed to trigger PDP profile modification ");
        return -EIO;
    }
    return bridge_cmd_wait_pdp(ctx) < 0 ? -EIO : 0;
}

static void modify_job(converter_ctx *ctx, json_object *request)
{
    int64_t req_id = 0;
    json_owned answer(json_object_new_object());
    if (!answer || read_request_id(request, &req_id) < 0)
        return;
    json_object *profiles = find_array(request, "existingPDPs", "failed to parse incoming PDP array");
    if (profiles == nullptr)
        return;
    cmd_async_begin();
    char row[32] = "";
    int result = 0;
    for (size_t i = 0; result == 0 && i < json_object_array_length(profiles); i++)
        result = modify_profile(ctx, json_object_array_get_idx(profiles, i), row);
    respond(std::move(answer), result, row, req_id);
}

/* ---- remove ---- */

static const char *text_of(json_object *cid)
{
    const char *text = json_object_get_string(cid);
    return text != nullptr ? text : "null";
}

static int remove_profile(converter_ctx *ctx, json_object *cid)
{
    if (!json_object_is_type(cid, json_type_int)) {
        BRIDGE_ERROR("invalid CID type - expecting integer");
        return -EINVAL;
    }
    if (bridge_snmp_set_property(ctx, "wmRemovePdpProfile.0", text_of(cid), 0) < 0)
        return -EIO;
    return bridge_cmd_wait_pdp(ctx);
}

static void remove_job(converter_ctx *ctx, json_object *request)
{
    int64_t req_id = 0;
    json_owned answer(json_object_new_object());
    if (!answer || read_request_id(request, &req_id) < 0)
        return;
    json_object *cids = find_array(request, "PDP_cids", "failed to parse incoming parameters");
    if (cids == nullptr)
        return;
    cmd_async_begin();
    json_object *cid = nullptr;
    int result = 0;
    for (size_t i = 0; result == 0 && i < json_object_array_length(cids); i++) {
        cid = json_object_array_get_idx(cids, i);
        result = remove_profile(ctx, cid);
    }
    respond(std::move(answer), result, text_of(cid), req_id);
}

/* ---- handlers ---- */

void bridge_cmd_get_wm_pdp_profiles(converter_ctx *ctx, json_object *request, json_object **response)
{
    cmd_async_run(ctx, request, list_job, response);
}

void bridge_cmd_add_wm_pdp_profiles(converter_ctx *ctx, json_object *request, json_object **response)
{
    cmd_async_run(ctx, request, add_job, response);
}

void bridge_cmd_modify_wm_pdp_profiles(converter_ctx *ctx, json_object *request, json_object **response)
{
    cmd_async_run(ctx, request, modify_job, response);
}

void bridge_cmd_remove_wm_pdp_profiles(converter_ctx *ctx, json_object *request, json_object **response)
{
    cmd_async_run(ctx, request, remove_job, response);
}
