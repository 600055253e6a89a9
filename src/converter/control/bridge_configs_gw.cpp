/* The table of sections, the walks over it, and the forms of replies. */
#include "converter/control/bridge_configs_gw.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "converter/control/bridge_configs_gw_lorafilter.h"
#include "converter/control/bridge_configs_gw_nw.h"
#include "converter/control/bridge_configs_gw_scripts.h"

#include <cerrno>
#include <iterator>

const char *const status_key = "status";
const char *const value_key = "value";

struct cfg_section {
    const char *name;
    int (*reader)(converter_ctx *ctx, json_object *out);
    int (*writer)(converter_ctx *ctx, json_object *cfg, json_object *out);
};

static int bridge_configs_gw_geo_read(converter_ctx *, json_object *)
{
    return 0;
}

static int bridge_configs_gw_geo_write(converter_ctx *, json_object *, json_object *)
{
    return 0;
}

/* Walked from the top. */
/* clang-format off */
static constexpr cfg_section SECTIONS[] = {
    {"networkServer",        bridge_configs_gw_ns_read,         bridge_configs_gw_ns_write},
    {"geoLocation",          bridge_configs_gw_geo_read,        bridge_configs_gw_geo_write},
    {"networkConfiguration", bridge_configs_gw_nw_read,         bridge_configs_gw_nw_write},
    {"upgradeServer",        bridge_configs_gw_us_read,         bridge_configs_gw_us_write},
    {"snmpAgent",            bridge_configs_gw_snmp_read,       bridge_configs_gw_snmp_write},
    {"loraTrafficFilter",    bridge_configs_gw_lorafilter_read, bridge_configs_gw_lorafilter_write},
};
/* clang-format on */
static_assert(std::size(SECTIONS) == 6);

/* ---- replies ---- */

int cfg_add(json_object *object, const char *key, json_object *value, const char *failure)
{
    if (value != nullptr && json_object_object_add(object, key, value) == 0)
        return 0;
    BRIDGE_ERROR("%s", failure);
    json_object_put(value);
    return -EIO;
}

void add_status_key(const char *section, int *result, json_object *err_resp, json_object **reply)
{
    BRIDGE_ASSERT_TEXT(err_resp != nullptr, "*err_resp != NULL");
    json_owned payload(err_resp);
    *result = 0;
    json_owned object(json_object_new_object());
    if (!object) {
        BRIDGE_ERROR("failed to allocate response object for [%s]", section);
        *result = -ENOMEM;
        return;
    }
    if (json_object_object_add(object.get(), status_key, payload.get()) < 0) {
        BRIDGE_ERROR("failed to embed status message for [%s]", section);
        *result = -EIO;
        return;
    }
    (void)payload.release();
    *reply = object.release();
    *result = CFG_REPLY_FORMED;
}

void add_value_key(const char *section, int *result, json_object *success_resp, json_object **reply)
{
    BRIDGE_ASSERT_TEXT(success_resp != nullptr, "*success_resp != NULL");
    json_owned payload(success_resp);
    *result = 0;
    json_owned object(json_object_new_object());
    if (!object) {
        BRIDGE_ERROR("failed to allocate response object for [%s]", section);
        *result = -ENOMEM;
        return;
    }
    if (json_object_object_add(object.get(), value_key, payload.get()) < 0) {
        BRIDGE_ERROR("failed to embed write response for [%s]", section);
        *result = -EIO;
        return;
    }
    (void)payload.release();
    *reply = object.release();
}

void cfg_status_reply(const char *section, int *result, const char *text, json_object **reply)
{
    json_object *payload = json_object_new_string(text);
    if (payload == nullptr) {
        BRIDGE_ERROR("failed to allocate response status for [%s]", section);
        *result = -ENOMEM;
        return;
    }
    add_status_key(section, result, payload, reply);
}

int cfg_add_element(json_object *array, const char *name, const char *text, json_object *value)
{
    json_owned owned_value(value);
    json_object *element = nullptr;
    int result = 0;
    cfg_status_reply(name, &result, text, &element);
    json_owned owned(element);
    if (result != CFG_REPLY_FORMED || json_object_object_add(element, value_key, owned_value.get()) < 0) {
        BRIDGE_ERROR("failed to add subconfig object to the response");
        return -EIO;
    }
    (void)owned_value.release();
    if (json_object_array_add(array, element) < 0) {
        BRIDGE_ERROR("failed to add value and status of the pdp profile to the JSON array");
        return -EIO;
    }
    (void)owned.release();
    return 0;
}

/* ---- walks ---- */

/* The section's object in the response, or null after logging; `result` takes
 * the failure. */
static json_object *add_section(const cfg_section &section, json_object *out, int *result)
{
    json_object *reply = json_object_new_object();
    if (reply == nullptr) {
        BRIDGE_ERROR("failed to allocate [%s] subconfig response", section.name);
        *result = -ENOMEM;
        return nullptr;
    }
    *result = cfg_add(out, section.name, reply, "failed to add subconfig object to response");
    return *result < 0 ? nullptr : reply;
}

/* A section that is JSON null counts as absent. */
int bridge_configs_gw_write(converter_ctx *ctx, json_object *cfg, json_object *out)
{
    BRIDGE_ASSERT_TEXT(ctx != nullptr, "ctx != NULL");
    BRIDGE_ASSERT_TEXT(cfg != nullptr, "cfg != NULL");
    BRIDGE_ASSERT_TEXT(out != nullptr, "out != NULL");
    BRIDGE_DEBUG("writing general gateway configuration");
    int result = 0;
    for (const cfg_section &section : SECTIONS) {
        BRIDGE_TRACE("looking for %s subconfig...", section.name);
        json_object *wanted = nullptr;
        if (!json_object_object_get_ex(cfg, section.name, &wanted) || wanted == nullptr)
            continue;
        BRIDGE_TRACE("subconfig was found");
        json_object *reply = add_section(section, out, &result);
        if (reply == nullptr)
            return result;
        result = section.writer(ctx, wanted, reply);
        if (result < 0)
            return result;
    }
    return result;
}

int bridge_configs_gw_read(converter_ctx *ctx, json_object *out)
{
    BRIDGE_ASSERT_TEXT(ctx != nullptr, "ctx != NULL");
    BRIDGE_ASSERT_TEXT(out != nullptr, "out != NULL");
    BRIDGE_DEBUG("reading general gateway configuration");
    int result = 0;
    for (const cfg_section &section : SECTIONS) {
        BRIDGE_TRACE("looking for %s subconfig...", section.name);
        json_object *reply = add_section(section, out, &result);
        if (reply == nullptr)
            return result;
        result = section.reader(ctx, reply);
        if (result < 0)
            return result;
    }
    return result;
}
