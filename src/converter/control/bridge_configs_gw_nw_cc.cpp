/* The table of sub-items and the walks; then the SIM PINs. */
#include "converter/control/bridge_configs_gw_nw_cc.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_configs_gw.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

static constexpr size_t STATUS_SIZE = 128;
static constexpr size_t PIN_SIZE = 32;

/* ---- shared ---- */

int cfg_wait_for_text(converter_ctx *ctx, const char *object, const char *at_work, char *text,
                      size_t capacity)
{
    const int result = cmd_wait_while(ctx, object, at_work, text, capacity);
    if (result < 0)
        BRIDGE_ERROR("status fetch operation failed with error code: %d", result);
    return result;
}

json_object *cfg_copy(json_object *object, const char *failure)
{
    json_object *copy = nullptr;
    if (object == nullptr || json_object_deep_copy(object, &copy, nullptr) < 0) {
        BRIDGE_ERROR("%s", failure);
        return nullptr;
    }
    return copy;
}

/* ---- SIM PIN: state ---- */

struct sim_slot {
    int number;
    const char *object;
};

static constexpr sim_slot SIM_SLOTS[] = {
    {0, "wmSimStatus.0"},
    {1, "wmSimSlot1Status.0"},
};

/* A slot that cannot be read is told as such in place of its state. */
static json_object *new_state(converter_ctx *ctx, const sim_slot &slot)
{
    char text[STATUS_SIZE];
    size_t size = sizeof(text);
    BRIDGE_INFO("getting slot info for: %d", slot.number);
    if (bridge_snmp_get_property_str(ctx, slot.object, text, &size, 0) < 0) {
        BRIDGE_WARN("Error getting SIM status for slot: %d", slot.number);
        snprintf(text, sizeof(text), "Error getting SIM status for slot: %d", slot.number);
    }
    return json_object_new_string(text);
}

/* Returns 0, or a negative errno after logging. */
static int add_slot(converter_ctx *ctx, const sim_slot &slot, json_object *slots)
{
    json_owned object(json_object_new_object());
    if (!object) {
        BRIDGE_ERROR("failed to allocate JSON object for sim status --- for slot: %d", slot.number);
        return -ENOMEM;
    }
    json_owned state(new_state(ctx, slot));
    if (!state) {
        BRIDGE_ERROR("failed to allocate JSON object for sim slot status -- for slot: %d", slot.number);
        return -ENOMEM;
    }
    json_owned number(json_object_new_int64(slot.number));
    if (!number) {
        BRIDGE_ERROR("failed to allocate JSON object for sim slot number -- for slot: %d", slot.number);
        return -ENOMEM;
    }
    if (json_object_object_add(object.get(), "simSlot", number.get()) < 0) {
        BRIDGE_ERROR("failed to add sim slot number -- for slot: %d", slot.number);
        return -EIO;
    }
    (void)number.release();
    if (json_object_object_add(object.get(), "simState", state.get()) < 0) {
        BRIDGE_ERROR("failed to add sim slot status -- for slot: %d", slot.number);
        return -EIO;
    }
    (void)state.release();
    if (json_object_array_add(slots, object.get()) < 0) {
        BRIDGE_ERROR("failed to add sim status -- for slot: %d", slot.number);
        return -EIO;
    }
    (void)object.release();
    return 0;
}

int simpin_read(converter_ctx *ctx, json_object **reply)
{
    BRIDGE_INFO("getting current SIM slot info");
    json_owned slots(json_object_new_array());
    if (!slots) {
        BRIDGE_ERROR("failed to allocate array for config read [%s]", "simPin");
        return -ENOMEM;
    }
    for (const sim_slot &slot : SIM_SLOTS) {
        const int result = add_slot(ctx, slot, slots.get());
        if (result < 0)
            return result;
    }
    *reply = slots.release();
    return 0;
}

/* ---- SIM PIN: changes ---- */

/* Copies the modem's answer. Returns 0 or -1. */
static int simpin_wait_status(converter_ctx *ctx, char *answer, size_t capacity)
{
    char status[STATUS_SIZE] = "";
    if (cfg_wait_for_text(ctx, "wmSimPinOpStatus.0", "Waiting for CM's response", status, sizeof(status)) < 0)
        return -1;
    if (strstr(status, "unable to open status file") != nullptr ||
        strstr(status, "Error reading status file") != nullptr) {
        BRIDGE_ERROR("operation failed with no response from the modem, status: %s", status);
        return -1;
    }
    const int length = snprintf(answer, capacity, "%s", status);
    if (length < 0 || static_cast<size_t>(length) >= capacity) {
        BRIDGE_ERROR("modem string copy failed");
        return -1;
    }
    return 0;
}

/* What tells the two changes apart. */
struct simpin_change {
    const char *starting;
    const char *not_read;
    bool has_current;
    const char *trigger;
    const char *not_triggered;
    const char *no_answer;
};

/* clang-format off */
static constexpr simpin_change MODIFY_PIN = {
    "modifying an existing simpin",
    "unable to modify  simpin -- simslot and pin deserialization failed",
    true, "wmSimPinModify.0",
    "failed to trigger the pin modify op",
    "failed to get modem response for the SIM PIN modify",
};

static constexpr simpin_change ADD_PIN = {
    "adding a new simpin",
    "unable to add simpin -- simslot and pin deserialization failed",
    false, "wmSimPinSet.0",
    "failed to trigger the pin add op",
    "failed to get modem response for the SIM PIN add",
};
/* clang-format on */

static int set_logged(converter_ctx *ctx, const char *object, const char *text, const char *failure)
{
    if (bridge_snmp_set_property(ctx, object, text, 0) >= 0)
        return 0;
    BRIDGE_ERROR("%s", failure);
    return -1;
}

/* Returns 0 with the modem's answer, or -1 after logging. */
static int change_pin(converter_ctx *ctx, const simpin_change &change, json_object *request, char *answer,
                      size_t capacity)
{
    BRIDGE_DEBUG("%s", change.starting);
    int64_t slot = 0;
    char current_pin[PIN_SIZE] = "";
    char new_pin[PIN_SIZE] = "";
    bridge_json_field current = field_string("currentSimPin", current_pin);
    current.optional = !change.has_current;
    const bridge_json_field frame[] = {field_int("simSlot", &slot), field_string("newSimPin", new_pin),
                                       current};
    if (cmd_parse(request, frame) < 0) {
        BRIDGE_ERROR("%s", change.not_read);
        return -1;
    }
    if (change.has_current &&
        set_logged(ctx, "wmSimPinCurrentPin.0", current_pin, "failed to pass the current pin") < 0)
        return -1;
    if (set_logged(ctx, "wmSimPinNewPin.0", new_pin, "failed to pass the new pin") < 0)
        return -1;
    if (cmd_write(ctx, {cmd_number(change.trigger, &slot)}) < 0) {
        BRIDGE_ERROR("%s", change.not_triggered);
        return -1;
    }
    if (simpin_wait_status(ctx, answer, capacity) == 0)
        return 0;
    BRIDGE_ERROR("%s", change.no_answer);
    return -1;
}

/* `status` takes what the element tells of the change. */
static void carry_out(converter_ctx *ctx, json_object *request, char *status, size_t capacity)
{
    const bool modifies = json_object_object_get_ex(request, "currentSimPin", nullptr);
    if (!modifies)
        BRIDGE_INFO("missing %s in the request, assuming this is a new pin", "currentSimPin");
    if (change_pin(ctx, modifies ? MODIFY_PIN : ADD_PIN, request, status, capacity) == 0) {
        if (modifies)
            BRIDGE_INFO("modify simpin action resulted in a modem response");
        else
            BRIDGE_INFO("add simpin action resulted in a modem response");
        return;
    }
    const char *text = modifies ? "modify simpin action failed with no modem response"
                                : "add simpin action failed with no response from the modem";
    BRIDGE_ERROR("%s", text);
    snprintf(status, capacity, "%s", text);
}

static int write_pin(converter_ctx *ctx, const char *name, json_object *given, json_object *reply)
{
    json_owned request(cfg_copy(given, "failed to create a local copy of the server profile"));
    if (!request)
        return -EIO;
    for (const char *key : {"simSlot", "newSimPin"}) {
        if (!json_object_object_get_ex(request.get(), key, nullptr)) {
            BRIDGE_ERROR("missing %s in the request", key);
            return -EIO;
        }
    }
    if (json_object_object_get(request.get(), "simSlot") == nullptr) { /* a null would read as slot 0 */
        BRIDGE_ERROR("missing %s in the request", "simSlot");
        return -EIO;
    }
    char status[STATUS_SIZE] = "";
    carry_out(ctx, request.get(), status, sizeof(status));
    return cfg_add_element(reply, name, status, request.release());
}

int simpin_write(converter_ctx *ctx, const char *name, json_object *requests, json_object **reply)
{
    BRIDGE_DEBUG("sim pin write function running");
    json_owned elements(json_object_new_array());
    if (!elements) {
        BRIDGE_ERROR("failed to allocate array for config read [%s]", name);
        return -ENOMEM;
    }
    const size_t count =
        json_object_is_type(requests, json_type_array) ? json_object_array_length(requests) : 0;
    for (size_t i = 0; i < count; i++) {
        const int result = write_pin(ctx, name, json_object_array_get_idx(requests, i), elements.get());
        if (result < 0)
            return result;
    }
    BRIDGE_INFO("getting the current simpin state");
    json_object *state = nullptr;
    if (simpin_read(ctx, &state) < 0) {
        BRIDGE_ERROR("failed to get the final simpin status");
        return -EIO;
    }
    const int result = cfg_add_element(elements.get(), name, "simpin current status", state);
    if (result < 0) {
        BRIDGE_ERROR("failed to add current simpin state the response");
        return result;
    }
    *reply = elements.release();
    return 0;
}

/* ---- walks ---- */

struct cc_item {
    const char *name;
    int (*reader)(converter_ctx *ctx, json_object **reply);
    int (*writer)(converter_ctx *ctx, const char *name, json_object *request, json_object **reply);
    const char *not_read;
    const char *not_written;
};

/* Walked from the top. */
/* clang-format off */
static constexpr cc_item CC_ITEMS[] = {
    {"pdpProfile", pdp_profile_read, pdp_profile_write,
     "unable to read cellular pdp info", "unable to write any pdp info"},
    {"simPin", simpin_read, simpin_write,
     "unable to read cellular simpin info", "unable to write simpin changes"},
};
/* clang-format on */

/* Without any known sub-item the item is a failure. A sub-item that is JSON
 * null counts as absent. */
int bridge_configs_gw_nw_cc_write(converter_ctx *ctx, json_object *cfg, json_object *out)
{
    BRIDGE_DEBUG("going over the cellular configurations from the server");
    int result = -EINVAL;
    for (const cc_item &item : CC_ITEMS) {
        BRIDGE_TRACE("looking for %s cellular subconfig...", item.name);
        json_object *wanted = nullptr;
        if (!json_object_object_get_ex(cfg, item.name, &wanted) || wanted == nullptr)
            continue;
        BRIDGE_TRACE("subconfig was found for [%s]", item.name);
        json_object *reply = nullptr;
        result = item.writer(ctx, item.name, wanted, &reply);
        if (result < 0) {
            BRIDGE_ERROR("failed cellular config write for [%s]", item.name);
            cfg_status_reply(item.name, &result, item.not_written, &reply);
        }
        if (reply != nullptr &&
            cfg_add(out, item.name, reply, "failed to add subconfig object to the response") < 0)
            result = -EIO;
        if (result == CFG_REPLY_FORMED)
            result = 0;
        if (result < 0) {
            BRIDGE_ERROR("failed current cellular config write for [%s] or the error wasn't handled",
                         item.name);
            return result;
        }
    }
    return result;
}

int bridge_configs_gw_nw_cc_read(converter_ctx *ctx, json_object *out)
{
    BRIDGE_DEBUG("reading current cellular configuration");
    int result = 0;
    for (const cc_item &item : CC_ITEMS) {
        BRIDGE_TRACE("looking for %s cellular subconfig...", item.name);
        json_object *reply = nullptr;
        result = item.reader(ctx, &reply);
        if (result < 0) {
            BRIDGE_ERROR("failed cellular config read for [%s]", item.name);
            cfg_status_reply(item.name, &result, item.not_read, &reply);
        }
        if (reply != nullptr && json_object_object_add(out, item.name, reply) < 0) {
            BRIDGE_ERROR("failed to add response to the subconfig object [%s]", item.name);
            json_object_put(reply);
            result = -EIO;
        }
        if (result == CFG_REPLY_FORMED)
            result = 0;
        if (result < 0) {
            BRIDGE_ERROR("failed cellular config read for [%s] or the error wasn't handled", item.name);
            return result;
        }
    }
    return result;
}
