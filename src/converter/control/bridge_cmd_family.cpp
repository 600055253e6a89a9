/* The bodies of the families. */
#include "converter/control/bridge_cmd_family.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "converter/control/bridge_ctrl_ctx.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

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
    return {.oid = row.object, .buf_sz = row.capacity, .buf = target->text.data(), .type = PROP_TYPE_STRING};
}

static bridge_json_field answer_field(const cmd_read_row &row, read_target *target)
{
    if (row.form == PROP_TYPE_INT)
        return field_int(row.key, &target->number);
    return field_text(row.key, target->text.data());
}

void cmd_read(converter_ctx *ctx, std::span<const cmd_read_row> rows, const char *failure,
              json_object **response)
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
        return;
    }
    json_owned answer(json_object_new_object());
    if (!answer || bridge_json_serialize(answer.get(), frame.data(), frame.size()) < 0) {
        BRIDGE_ERROR("failed to serialize response frame");
        return;
    }
    *response = answer.release();
}

/* ---- writing ---- */

int cmd_write(converter_ctx *ctx, std::span<const cmd_write_row> rows)
{
    std::array<bridge_snmp_write_prop, CMD_MAX_WRITE_ROWS + 1> props = {};
    BRIDGE_ASSERT(rows.size() <= CMD_MAX_WRITE_ROWS);
    for (size_t i = 0; i < rows.size(); i++)
        props[i] = {.oid = rows[i].object, .value = rows[i].text, .type = PROP_TYPE_STRING};
    return bridge_snmp_set_properties(ctx, props.data(), 0);
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
    return bridge_cmd_status_text(key, err == 0 ? "ok" : strerror_r(err, buffer, sizeof(buffer)));
}

void cmd_answer_error(const char *text, json_object **response)
{
    BRIDGE_ERROR("%s", text);
    *response = bridge_cmd_status_text("error", text);
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
