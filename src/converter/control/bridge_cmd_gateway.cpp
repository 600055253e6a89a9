/* Handlers in the order of the command table. */
#include "converter/control/bridge_cmd_gateway.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_wait.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_ctrl_ctx.h"

static constexpr int64_t PING_EXTRA_ROUNDS = 10;

/* ---- ping ---- */

/* The agent clears the trigger when the ping is over. Running out of rounds is no error. */
static int wait_for_ping(converter_ctx *ctx, int64_t count)
{
    bridge_wait_s(1);
    for (int64_t round = 0; round < count + PING_EXTRA_ROUNDS; round++) {
        long running = 0;
        if (bridge_snmp_get_property_int(ctx, "utilPingExecute.0", &running, 0) < 0)
            return -1;
        if (running == 0)
            return 0;
        bridge_wait_s(1);
    }
    return 0;
}

static int add_integer(json_object *object, const char *key, int64_t number)
{
    json_object *value = json_object_new_int64(number);
    if (value == nullptr)
        return -1;
    return json_object_object_add(object, key, value);
}

static void answer_ping(int64_t sent, int64_t received, json_object *answer, json_object **response)
{
    json_owned owned(answer);
    if (add_integer(answer, "packets_sent", sent) < 0) {
        cmd_answer_error("cannot create packet sent json object", response);
        return;
    }
    if (add_integer(answer, "packets_recv", received) < 0) {
        cmd_answer_error("cannot create recv json object", response);
        return;
    }
    *response = owned.release();
}

static void run_ping(converter_ctx *ctx, const char *destination, const char *count_text, int64_t count,
                     json_object **response)
{
    const cmd_write_row start[] = {
        {"utilPingCount.0", count_text},
        {"utilPingDestination.0", destination},
        {"utilPingExecute.0", CMD_TRIGGER},
    };
    if (cmd_write(ctx, start) < 0) {
        cmd_answer_error("failed to process ping command parameters", response);
        return;
    }
    if (wait_for_ping(ctx, count) < 0) {
        cmd_answer_error("failed to query ping status flag", response);
        return;
    }
    long received = 0;
    if (bridge_snmp_get_property_int(ctx, "utilPingReceivedCount.0", &received, 0) < 0) {
        cmd_answer_error("failed to get packets count", response);
        return;
    }
    json_object *answer = json_object_new_object();
    if (answer == nullptr) {
        BRIDGE_ERROR("failed to allocate response object");
        return;
    }
    answer_ping(count, received, answer, response);
}

void bridge_cmd_ping(converter_ctx *ctx, json_object *params, json_object **response)
{
    json_object *destination = nullptr;
    json_object *count = nullptr;
    if (!json_object_object_get_ex(params, "destination", &destination) || destination == nullptr) {
        BRIDGE_ERROR("destination string is missing!");
        return;
    }
    if (!json_object_object_get_ex(params, "packetsCount", &count) || count == nullptr) {
        BRIDGE_ERROR("packets count is not specified!!");
        return;
    }
    const int64_t packets = json_object_get_int64(count);
    const char *destination_text = json_object_get_string(destination);
    const char *count_text = json_object_get_string(count);
    if (packets < 0) {
        cmd_answer_error("invalid ping packets count", response);
        return;
    }
    BRIDGE_INFO("destination: [%s] packets count: [%s]", destination_text, count_text);
    run_ping(ctx, destination_text, count_text, packets, response);
}

/* ---- reboot ---- */

void bridge_cmd_reboot(converter_ctx *ctx, json_object *, json_object **)
{
    BRIDGE_INFO("rebooting the device");
    ctx->reboot_pending = true; /* carried out once the answer is out */
}

/* ---- backups ---- */

static int number_rows(json_object *rows)
{
    for (size_t i = 0; i < json_object_array_length(rows); i++) {
        if (add_integer(json_object_array_get_idx(rows, i), "index", static_cast<int64_t>(i)) < 0)
            return -1;
    }
    return 0;
}

void bridge_cmd_get_backups(converter_ctx *ctx, json_object *, json_object **response)
{
    static constexpr bridge_snmp_column COLUMNS[] = {
        {"description", "swRestorePointDescription", false, PROP_TYPE_STRING},
        {"date", "swRestorePointDate", false, PROP_TYPE_STRING},
        {},
    };
    char status[64];
    size_t size = sizeof(status);
    if (bridge_snmp_get_property_str(ctx, "swBakResStatus.0", status, &size, 0) < 0) {
        BRIDGE_ERROR("failed to get backup status");
        return;
    }
    json_object *table = nullptr;
    if (bridge_snmp_get_exact_table_as_json(ctx, COLUMNS, nullptr, &table) < 0) {
        BRIDGE_ERROR("failed to get backup information");
        return;
    }
    json_owned backups(table);
    if (number_rows(backups.get()) < 0) {
        BRIDGE_ERROR("failed to allocate backup index");
        return;
    }
    json_owned answer(bridge_cmd_status_text("status", status));
    if (!answer) {
        BRIDGE_ERROR("failed to allocate backup status string");
        return;
    }
    json_object_object_add(answer.get(), "backups", backups.release());
    *response = answer.release();
}

/* ---- radio statistics ---- */

/* clang-format off */
static constexpr cmd_read_row RADIO_STATISTICS[] = {
    /* object                               key                  form           capacity */
    {"radioStatisticsNumTxPackets.0",      "numTxPackets",      PROP_TYPE_INT, 0},
    {"radioStatisticsNumRxPackets.0",      "numRxPackets",      PROP_TYPE_INT, 0},
    {"radioStatisticsRxFineTimestamp.0",   "rxFineTimestamp",   PROP_TYPE_INT, 0},
    {"radioStatisticsRxNoFineTimestamp.0", "rxNoFineTimestamp", PROP_TYPE_INT, 0},
    {"radioStatisticsRxCrcOkPackets.0",    "rxCrcOkPackets",    PROP_TYPE_INT, 0},
    {"radioStatisticsRxCrcErrPackets.0",   "rxCrcErrPackets",   PROP_TYPE_INT, 0},
    {"radioStatisticsNoMatch.0",           "noMatch",           PROP_TYPE_INT, 0},
};
/* clang-format on */

void bridge_cmd_get_radio_statistics(converter_ctx *ctx, json_object *, json_object **response)
{
    cmd_read(ctx, RADIO_STATISTICS, "failed to get properties for radio stats", response);
}
