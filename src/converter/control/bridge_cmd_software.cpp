/* Handlers in the order of the command table. */
#include "converter/control/bridge_cmd_software.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_cmd_state.h"
#include "converter/control/bridge_ctrl_ctx.h"

#include <cstdio>

/* ---- lists ---- */

/* The tables follow their count objects, in the order of these columns. */
/* clang-format off */
static constexpr bridge_snmp_column VERSIONS[] = {
    {"name", "swVerName",    false, PROP_TYPE_STRING},
    {"ver",  "swVerVersion", false, PROP_TYPE_STRING},
    {},
};

static constexpr bridge_snmp_column UPGRADABLE[] = {
    {"name",    "upgradableListComponentName",       false, PROP_TYPE_STRING},
    {"ver",     "upgradableListComponentOldVersion", false, PROP_TYPE_STRING},
    {"newVer",  "upgradableListComponentNewVersion", false, PROP_TYPE_STRING},
    {"special", "upgradableListComponentSpecial",    false, PROP_TYPE_INT},
    {},
};

static constexpr bridge_snmp_column INSTALLABLE[] = {
    {"name", "installableSwListComponentName",    false, PROP_TYPE_STRING},
    {"ver",  "installableSwListComponentVersion", false, PROP_TYPE_STRING},
    {},
};
/* clang-format on */

void bridge_cmd_get_software_versions(converter_ctx *ctx, json_object *params, json_object **response)
{
    int64_t type = 0;
    if (cmd_get_integer(params, "verType", &type) < 0) {
        BRIDGE_ERROR("invalid parameters supplied");
        return;
    }
    char text[32];
    snprintf(text, sizeof(text), "%lld", static_cast<long long>(type));
    if (bridge_snmp_set_property(ctx, "swVerType.0", text, 0) < 0) {
        BRIDGE_ERROR("failed to set property");
        return;
    }
    cmd_read_table(ctx, VERSIONS, "swVerCount.0", response);
}

/* The count is asked for by itself first, so that the log tells an agent without packages from a lost table.
 */
static void list_packages(converter_ctx *ctx, const bridge_snmp_column *mapping, const char *count_object,
                          const char *count_failure, json_object **response)
{
    long count = 0;
    if (bridge_snmp_get_property_int(ctx, count_object, &count, 0) < 0) {
        BRIDGE_ERROR("%s", count_failure);
        return;
    }
    cmd_read_table(ctx, mapping, count_object, response);
}

void bridge_cmd_get_upgradable_software(converter_ctx *ctx, json_object *, json_object **response)
{
    list_packages(ctx, UPGRADABLE, "upgradableListCount.0", "failed to get upgrade packages count", response);
}

void bridge_cmd_get_installable_software(converter_ctx *ctx, json_object *, json_object **response)
{
    list_packages(ctx, INSTALLABLE, "installableSwListCount.0", "failed to get installable packages count",
                  response);
}

/* ---- upgrade and installation ---- */

static int remember(converter_ctx *ctx, bridge_sw_cmd command)
{
    ctx->last_sw_cmd = command;
    return bridge_cmd_sw_status_write(command, 0);
}

void bridge_cmd_upgrade_software(converter_ctx *ctx, json_object *params, json_object **)
{
    if (cmd_write(ctx, {cmd_field("packageToUpgrade.0", "packageToUpgrade", PROP_TYPE_STRING, params),
                        cmd_text("upgradeStart.0", CMD_TRIGGER)}) < 0) {
        BRIDGE_ERROR("failed to send package upgrade command");
        return;
    }
    remember(ctx, SW_CMD_UPGRADE);
}

void bridge_cmd_install_software(converter_ctx *ctx, json_object *params, json_object **)
{
    if (cmd_write(ctx, {cmd_field("packageToInstall.0", "packageToInstall", PROP_TYPE_STRING, params),
                        cmd_text("installStart.0", CMD_TRIGGER)}) < 0) {
        BRIDGE_ERROR("failed to send package install command");
        return;
    }
    remember(ctx, SW_CMD_INSTALL);
}

/* ---- progress ---- */

/* The objects that start an operation tell how far it has come. */
void bridge_cmd_get_install_status(converter_ctx *ctx, json_object *, json_object **response)
{
    cmd_read_number(ctx, "installStart.0", "cannot get install status", "failed to create status object",
                    response);
}

void bridge_cmd_get_upgrade_status(converter_ctx *ctx, json_object *, json_object **response)
{
    cmd_read_number(ctx, "upgradeStart.0", "cannot get upgrade status", "failed to create status object",
                    response);
}

static void answer_last(converter_ctx *ctx, const char *operation,
                        void (*get_status)(converter_ctx *, json_object *, json_object **),
                        json_object **response)
{
    json_object *number = nullptr;
    get_status(ctx, nullptr, &number);
    json_owned status(number);
    json_owned answer(bridge_cmd_status_text("lastOperation", operation));
    if (!status || !answer) {
        BRIDGE_ERROR("failed to retrieve upgrade/install status");
        return;
    }
    json_object_object_add(answer.get(), "lastStatus", status.release());
    *response = answer.release();
}

void bridge_cmd_get_last_status(converter_ctx *ctx, json_object *, json_object **response)
{
    switch (ctx->last_sw_cmd) {
    case SW_CMD_INSTALL:
        answer_last(ctx, "install", bridge_cmd_get_install_status, response);
        return;
    case SW_CMD_UPGRADE:
        answer_last(ctx, "upgrade", bridge_cmd_get_upgrade_status, response);
        return;
    case SW_CMD_LOCAL_UPGRADE:
        answer_last(ctx, "localupgrade", bridge_cmd_get_upgrade_status, response);
        return;
    default:
        BRIDGE_ERROR("no software operation was performed");
    }
}
