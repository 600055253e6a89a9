/* The bodies of the families. */
#include "converter/control/bridge_cmd_family.h"

#include "common/bridge_child.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_wait.h"
#include "converter/control/bridge_ctrl_ctx.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

static constexpr int MODEM_ROUNDS = 600;
static constexpr uint32_t MODEM_ROUND_US = 200000;
static constexpr const char *MODEM_AT_WORK = "Waiting for modem's response";

/* ---- reading ---- */

/* Where the agent's values land before they are written out. */
struct read_target {
    int64_t number;
    std::vector<char> text;
};

static bridge_snmp_read_prop read_record(const cmd_read_row &row, read_target *target)
{
    if (row.form == PROP_TYPE_INT)
        return {.oid = row.object, .buf = &target->number, .type = PROP_TYPE_INT};
    target->text.resize(row.capacity);
    return {.oid = row.object, .buf_sz = row.capacity, .buf = target->text.data(), .type = row.form};
}

static bridge_json_field answer_field(const cmd_read_row &row, read_target *target)
{
    if (row.form == PROP_TYPE_INT)
        return field_int(row.key, &target->number);
    return field_text(row.key, target->text.data());
}

int cmd_read_into(converter_ctx *ctx, std::span<const cmd_read_row> rows, const char *failure,
                  json_object *target)
{
    std::vector<read_target> targets(rows.size());
    std::vector<bridge_snmp_read_prop> props(rows.size() + 1);
    std::vector<bridge_json_field> frame(rows.size());
    for (size_t i = 0; i < rows.size(); i++) {
        props[i] = read_record(rows[i], &targets[i]);
        frame[i] = answer_field(rows[i], &targets[i]);
    }
    if (bridge_snmp_get_properties(ctx, props.data(), 0) < 0) {
        BRIDGE_ERROR("%s", failure);
        return -1;
    }
    if (bridge_json_serialize(target, frame.data(), frame.size()) < 0) {
        BRIDGE_ERROR("failed to serialize response frame");
        return -1;
    }
    return 0;
}

void cmd_read(converter_ctx *ctx, std::span<const cmd_read_row> rows, const char *failure,
              json_object **response)
{
    json_owned answer(json_object_new_object());
    if (!answer) {
        BRIDGE_ERROR("failed to serialize response frame");
        return;
    }
    if (cmd_read_into(ctx, rows, failure, answer.get()) == 0)
        *response = answer.release();
}

int cmd_read_fields(converter_ctx *ctx, std::span<const cmd_field_row> rows, bridge_prop_type hint,
                    json_object *target)
{
    std::vector<bridge_snmp_read_prop> props(rows.size() + 1);
    for (size_t i = 0; i < rows.size(); i++)
        props[i] = {.oid = rows[i].object,
                    .field_name = rows[i].key,
                    .buf = target,
                    .type = PROP_TYPE_JSON,
                    .hint = hint};
    return bridge_snmp_get_properties(ctx, props.data(), 0);
}

void cmd_answer_fields(converter_ctx *ctx, std::span<const cmd_field_row> rows, bridge_prop_type hint,
                       const char *failure, int err, json_object **response)
{
    json_owned answer(json_object_new_object());
    if (!answer) {
        BRIDGE_ERROR("failed to allocate response object");
        return;
    }
    const bool failed = cmd_read_fields(ctx, rows, hint, answer.get()) < 0;
    if (failed)
        BRIDGE_ERROR("%s", failure);
    errnum_to_existing_json("status", failed ? err : 0, answer.get());
    *response = answer.release();
}

void cmd_read_number(converter_ctx *ctx, const char *object, const char *read_failure,
                     const char *create_failure, json_object **response)
{
    long number = 0;
    if (bridge_snmp_get_property_int(ctx, object, &number, 0) < 0) {
        BRIDGE_ERROR("%s", read_failure);
        return;
    }
    *response = json_object_new_int64(number);
    if (*response == nullptr)
        BRIDGE_ERROR("%s", create_failure);
}

void cmd_read_table(converter_ctx *ctx, const bridge_snmp_column *mapping, const char *count_object,
                    json_object **response)
{
    if (bridge_snmp_get_table_as_json(ctx, mapping, count_object, response) < 0)
        BRIDGE_ERROR("failed to get SNMP table");
}

/* ---- writing ---- */

int cmd_write(converter_ctx *ctx, std::span<const bridge_snmp_write_prop> rows)
{
    std::vector<bridge_snmp_write_prop> props(rows.begin(), rows.end());
    props.push_back({});
    return bridge_snmp_set_properties(ctx, props.data(), 0);
}

int cmd_write(converter_ctx *ctx, std::initializer_list<bridge_snmp_write_prop> rows)
{
    return cmd_write(ctx, std::span(rows.begin(), rows.size()));
}

/* ---- waiting for the agent ---- */

int cmd_wait_while(converter_ctx *ctx, const char *object, const char *at_work, char *text, size_t capacity)
{
    for (int round = 0; round < MODEM_ROUNDS; round++) {
        bridge_wait_us(MODEM_ROUND_US);
        size_t size = capacity;
        const int result = bridge_snmp_get_property_str(ctx, object, text, &size, 0);
        if (result < 0)
            return result;
        BRIDGE_TRACE("got status: %s", text);
        if (strcmp(text, at_work) != 0)
            break;
    }
    return 0;
}

int cmd_wait_for_modem(converter_ctx *ctx, const char *object, char *text, size_t capacity)
{
    return cmd_wait_while(ctx, object, MODEM_AT_WORK, text, capacity);
}

/* ---- answers ---- */

json_object *bridge_cmd_status_text(const char *key, const char *text)
{
    if (text == nullptr)
        return nullptr;
    json_owned status(json_object_new_object());
    if (!status) {
        BRIDGE_ERROR("failed to allocate status object");
        return nullptr;
    }
    bridge_json_field frame[] = {field_text(key, text)};
    if (bridge_json_serialize(status.get(), frame, std::size(frame)) < 0) {
        BRIDGE_ERROR("failed to serialize status string");
        return nullptr;
    }
    return status.release();
}

json_object *bridge_cmd_status_errno(const char *key, int err)
{
    char buffer[64];
    return bridge_cmd_status_text(key, err == 0 ? "ok" : bridge_errno_text(err, buffer, sizeof(buffer)));
}

void cmd_answer_error(const char *text, json_object **response)
{
    BRIDGE_ERROR("%s", text);
    *response = bridge_cmd_status_text("error", text);
}

void cmd_answer_not_supported(const char *failure, json_object **response)
{
    BRIDGE_ERROR("%s", failure);
    *response = bridge_cmd_status_text("error", "not_supported");
}

int cmd_add_number(json_object *object, const char *key, int64_t number)
{
    json_object *value = json_object_new_int64(number);
    if (value == nullptr)
        return -1;
    return json_object_object_add(object, key, value);
}

int cmd_number_rows(json_object *rows, const char *key, int64_t first)
{
    for (size_t i = 0; i < json_object_array_length(rows); i++) {
        if (cmd_add_number(json_object_array_get_idx(rows, i), key, first + static_cast<int64_t>(i)) < 0)
            return -1;
    }
    return 0;
}

int cmd_parse(json_object *input, std::span<const bridge_json_field> frame)
{
    errno = 0; /* an exchange with the agent may have left one that counts against the numbers */
    return input != nullptr ? bridge_json_deserialize(input, frame.data(), frame.size()) : -1;
}

int cmd_get_integer(json_object *params, const char *key, int64_t *number)
{
    json_object *value = nullptr;
    if (!json_object_object_get_ex(params, key, &value) || !json_object_is_type(value, json_type_int))
        return -1;
    *number = json_object_get_int64(value);
    return 0;
}

/* ---- interfaces ---- */

/* clang-format off */
static constexpr bridge_snmp_column ADDRESSES[] = {
    {"ip_addr", "ipAdEntAddr",    false, PROP_TYPE_IPADDR},
    {"if_idx",  "ipAdEntIfIndex", false, PROP_TYPE_INT},
    {},
};

static constexpr bridge_snmp_column INTERFACES[] = {
    {"if_name", "ifDescr", false, PROP_TYPE_STRING},
    {"if_idx",  "ifIndex", false, PROP_TYPE_INT},
    {},
};
/* clang-format on */

static constexpr size_t INTERFACE_NAME_SIZE = 256;

/* An interface with two addresses keeps the last. */
static int add_address(json_object *address, json_object *interfaces, json_object *target)
{
    char ip_addr[CMD_ADDRESS_SIZE] = "";
    int64_t address_idx = 0;
    bridge_json_field address_frame[] = {field_string("ip_addr", ip_addr), field_int("if_idx", &address_idx)};
    if (cmd_parse(address, address_frame) < 0) {
        BRIDGE_ERROR("failed to de-serialize IP list");
        return -1;
    }
    for (size_t i = 0; i < json_object_array_length(interfaces); i++) {
        char name[INTERFACE_NAME_SIZE] = "";
        int64_t idx = 0;
        bridge_json_field frame[] = {field_string("if_name", name), field_int("if_idx", &idx)};
        if (cmd_parse(json_object_array_get_idx(interfaces, i), frame) < 0) {
            BRIDGE_ERROR("failed to de-serialize interface list");
            return -1;
        }
        if (idx != address_idx)
            continue;
        json_object *text = json_object_new_string(ip_addr);
        if (text == nullptr) {
            BRIDGE_ERROR("failed to allocate IP address object");
            return -1;
        }
        json_object_object_add(target, name, text);
    }
    return 0;
}

int cmd_add_interfaces(converter_ctx *ctx, json_object *target)
{
    json_object *table = nullptr;
    if (bridge_snmp_get_exact_table_as_json(ctx, ADDRESSES, "ipAdEntAddr", &table) < 0) {
        BRIDGE_ERROR("failed to get IP address information");
        return -1;
    }
    const json_owned addresses(table);
    if (bridge_snmp_get_exact_table_as_json(ctx, INTERFACES, "ifIndex", &table) < 0) {
        BRIDGE_ERROR("failed to get interfaces information");
        return -1;
    }
    const json_owned interfaces(table);
    for (size_t i = 0; i < json_object_array_length(addresses.get()); i++) {
        if (add_address(json_object_array_get_idx(addresses.get(), i), interfaces.get(), target) < 0)
            return -1;
    }
    return 0;
}

/* ---- the agent and programs ---- */

int bridge_cmd_agent_version(converter_ctx *ctx, cmd_version *ver)
{
    long number = 0;
    const int result = bridge_snmp_get_property_int(ctx, "agentVersion.0", &number, 0);
    if (result < 0)
        return result;
    const auto packed = static_cast<uint32_t>(number);
    const uint32_t major = packed >> 24;
    if (major != 0)
        *ver = {static_cast<int32_t>(major), static_cast<int32_t>(packed >> 8 & 0xffff),
                static_cast<int32_t>(packed & 0xff)};
    else
        *ver = {0, static_cast<int32_t>(packed), 0};
    BRIDGE_TRACE("got SNMP agent version: %i.%i.%i", ver->major, ver->minor, ver->patch);
    return 0;
}

int system_safe(char *const argv[])
{
    const pid_t child = fork();
    if (child < 0)
        return -1;
    if (child == 0) {
        bridge_child_drop_descriptors();
        signal(SIGPIPE, SIG_DFL); /* the MQTT library has it ignored, and a program inherits that */
        execve(argv[0], argv, environ);
        _Exit(127);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : -1;
}
