/* Read and write of the table, which the agent queries and commits as a whole.
 */
#include "converter/control/bridge_configs_legacy_upgr_list.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "converter/control/bridge_cmd_family.h"

#include <cerrno>
#include <cstring>

static constexpr const char *START_QUERY = "100";
static constexpr const char *COMMIT = "101";

/* clang-format off */
static constexpr bridge_snmp_column SERVERS[] = {
    {"name",    "upgradeServerListName",    false, PROP_TYPE_STRING},
    {"type",    "upgradeServerListType",    false, PROP_TYPE_STRING},
    {"address", "upgradeServerListAddress", false, PROP_TYPE_STRING},
    {},
};

static constexpr bridge_snmp_column SERVER_NAMES[] = {
    {"name", "upgradeServerListName", false, PROP_TYPE_STRING},
    {},
};
/* clang-format on */

static int copy_text(const char *text, char **out)
{
    *out = strdup(text);
    if (*out != nullptr)
        return 0;
    BRIDGE_ERROR("failed to allocate response string");
    return -ENOMEM;
}

/* A shorter list blanks the rows beyond it: the table never shrinks. */
static int extend(json_object *list, size_t length)
{
    while (json_object_array_length(list) < length) {
        BRIDGE_DEBUG("null-extending upgrade servers table");
        json_owned blank(json_object_new_object());
        const bridge_json_field frame[] = {field_text("name", ""), field_text("type", ""),
                                           field_text("address", "")};
        if (!blank || bridge_json_serialize(blank.get(), frame, std::size(frame)) < 0) {
            BRIDGE_ERROR("failed to allocate new JSON object");
            return -ENOMEM;
        }
        if (json_object_array_add(list, blank.get()) < 0) {
            BRIDGE_ERROR("failed to place JSON item in the list");
            return -EIO;
        }
        (void)blank.release();
    }
    return 0;
}

/* Learns how many rows the table has, from its names. */
static int fit_to_table(converter_ctx *ctx, json_object *list)
{
    json_object *table = nullptr;
    if (bridge_snmp_get_exact_table_as_json(ctx, SERVER_NAMES, nullptr, &table) < 0) {
        BRIDGE_ERROR("failed to get upgrade servers information");
        return -EIO;
    }
    const json_owned existing(table);
    BRIDGE_DEBUG("got existing servers: %s", json_object_get_string(table));
    const size_t count = json_object_array_length(table);
    BRIDGE_DEBUG("got existing servers count: %d, new: %d", static_cast<int>(count),
                 static_cast<int>(json_object_array_length(list)));
    const int result = extend(list, count);
    BRIDGE_DEBUG("final JSON: %s", json_object_get_string(list));
    return result;
}

/* Names go first: the agent makes a row when it sees one. */
static int write_table(converter_ctx *ctx, json_object *list)
{
    if (bridge_snmp_set_exact_table_from_json(ctx, SERVER_NAMES, list) < 0) {
        BRIDGE_ERROR("failed to set upgrade server fields for pre-allocation");
        return -EIO;
    }
    if (bridge_snmp_set_exact_table_from_json(ctx, SERVERS, list) < 0) {
        BRIDGE_ERROR("can't send upgrade server list");
        return -EIO;
    }
    if (bridge_snmp_set_property(ctx, "upgradeServerListStatus.0", COMMIT, 0) < 0) {
        BRIDGE_ERROR("failed to commit the upgrade servers list");
        return -EIO;
    }
    return 0;
}

int bridge_configs_legacy_upgr_list_write(converter_ctx *ctx, const char *cfg, char **out)
{
    BRIDGE_DEBUG("writing legacy [%s] upgrade list configuration", cfg);
    const json_owned list(bridge_json_parse(cfg));
    if (!list) {
        BRIDGE_ERROR("failed to parse upgrade server JSON");
        return -EIO;
    }
    if (!json_object_is_type(list.get(), json_type_array)) {
        BRIDGE_ERROR("invalid type of incoming server list");
        return -EINVAL;
    }
    int result = fit_to_table(ctx, list.get());
    if (result == 0)
        result = write_table(ctx, list.get());
    return result < 0 ? result : copy_text(cfg, out);
}

int bridge_configs_legacy_upgr_list_read(converter_ctx *ctx, char **out)
{
    BRIDGE_DEBUG("reading legacy upgrade configuration");
    if (bridge_snmp_set_property(ctx, "upgradeServerListStatus.0", START_QUERY, 0) < 0) {
        BRIDGE_ERROR("failed to start a query of upgrade servers information");
        return -EIO;
    }
    json_object *table = nullptr;
    if (bridge_snmp_get_exact_table_as_json(ctx, SERVERS, nullptr, &table) < 0) {
        BRIDGE_ERROR("failed to get upgrade servers information");
        return -EIO;
    }
    const json_owned servers(table);
    return copy_text(
        json_object_to_json_string_ext(table, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE), out);
}
