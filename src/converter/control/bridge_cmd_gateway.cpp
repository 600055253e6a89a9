/* Handlers in the order of the command table. */
#include "converter/control/bridge_cmd_gateway.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "common/bridge_utils.h"
#include "common/bridge_wait.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_ctrl_ctx.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr size_t PASSWORD_ENTRY_SIZE = 4096;
static constexpr int64_t PING_EXTRA_ROUNDS = 10;

/* ---- ping ---- */

/* The agent clears the trigger when the ping is over. Running out of rounds is no error. */
static int wait_for_ping(converter_ctx *ctx, int64_t count)
{
    bridge_wait_s(1);
    for (int64_t round = 0; round - PING_EXTRA_ROUNDS < count; round++) {
        long running = 0;
        if (bridge_snmp_get_property_int(ctx, "utilPingExecute.0", &running, 0) < 0)
            return -1;
        if (running == 0)
            return 0;
        bridge_wait_s(1);
    }
    return 0;
}

static void answer_ping(int64_t sent, int64_t received, json_object *answer, json_object **response)
{
    json_owned owned(answer);
    if (cmd_add_number(answer, "packets_sent", sent) < 0) {
        cmd_answer_error("cannot create packet sent json object", response);
        return;
    }
    if (cmd_add_number(answer, "packets_recv", received) < 0) {
        cmd_answer_error("cannot create recv json object", response);
        return;
    }
    *response = owned.release();
}

static void run_ping(converter_ctx *ctx, const char *destination, const char *count_text, int64_t count,
                     json_object **response)
{
    if (cmd_write(ctx,
                  {cmd_text("utilPingCount.0", count_text), cmd_text("utilPingDestination.0", destination),
                   cmd_text("utilPingExecute.0", CMD_TRIGGER)}) < 0) {
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

/* ---- identity ---- */

static const char *home_directory(char *buffer, size_t size)
{
    const char *home = getenv("HOME");
    if (home != nullptr)
        return home;
    passwd entry = {};
    passwd *found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer, size, &found) != 0 || found == nullptr)
        return nullptr;
    return found->pw_dir;
}

static json_object *read_key_file(const char *path)
{
    struct stat status = {};
    if (stat(path, &status) < 0) {
        BRIDGE_ERROR("failed to get pubkey file information");
        return nullptr;
    }
    const size_t size = static_cast<size_t>(status.st_size) + 1;
    const bool fits = status.st_size < PTRDIFF_MAX; /* where an address has 32 bits, a file can be longer */
    const std::unique_ptr<uint8_t, bridge_release<free>> text(
        static_cast<uint8_t *>(fits ? calloc(size, 1) : nullptr));
    if (!text) {
        BRIDGE_ERROR("failed to allocate memory for public key");
        return nullptr;
    }
    if (bridge_utils_read_text_file_to_buf(path, text.get(), size) < 0)
        return nullptr;
    json_object *key = json_object_new_string(reinterpret_cast<const char *>(text.get()));
    if (key == nullptr)
        BRIDGE_ERROR("failed to allocate JSON object for a key");
    return key;
}

void bridge_cmd_get_public_key(converter_ctx *, json_object *, json_object **response)
{
    char buffer[PASSWORD_ENTRY_SIZE];
    const char *home = home_directory(buffer, sizeof(buffer));
    char path[4096];
    const int length = snprintf(path, sizeof(path), "%s/.ssh/id_rsa.pub", home != nullptr ? home : "");
    if (length < 0 || static_cast<size_t>(length) >= sizeof(path)) {
        BRIDGE_ERROR("SSH key path is too long");
        return;
    }
    *response = read_key_file(path);
}

/* clang-format off */
static constexpr cmd_read_row IDENTITY[] = {
    /* object                   key                  form              capacity */
    {"moduleName.0",         "moduleName",         PROP_TYPE_STRING, 64},
    {"moduleProductCode.0",  "moduleProductCode",  PROP_TYPE_STRING, 64},
    {"moduleRevision.0",     "moduleRevision",     PROP_TYPE_STRING, 8},
    {"moduleSerialNumber.0", "moduleSerialNumber", PROP_TYPE_STRING, 32},
    {"custGatewayId.0",      "custGatewayId",      PROP_TYPE_STRING, 32},
};
/* clang-format on */

void bridge_cmd_get_gateway_info(converter_ctx *ctx, json_object *, json_object **response)
{
    json_owned answer(json_object_new_object());
    json_object *interfaces = json_object_new_object();
    if (!answer || interfaces == nullptr) {
        BRIDGE_ERROR("failed to create JSON interface object");
        json_object_put(interfaces);
        return;
    }
    json_object_object_add(answer.get(), "interfaces", interfaces);
    if (cmd_read_into(ctx, IDENTITY, "failed to get properties for gateway information", answer.get()) < 0 ||
        cmd_add_interfaces(ctx, interfaces) < 0)
        return;
    *response = answer.release();
}

/* ---- backups ---- */

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
    if (cmd_number_rows(backups.get(), "index", 0) < 0) {
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

void bridge_cmd_create_backup(converter_ctx *ctx, json_object *params, json_object **)
{
    json_object *description = nullptr;
    if (!json_object_object_get_ex(params, "description", &description) || description == nullptr) {
        BRIDGE_ERROR("description string is missing!");
        return;
    }
    if (cmd_write(ctx, {cmd_text("swBackupDescription.0", json_object_get_string(description)),
                        cmd_text("swBackupExecute.0", CMD_TRIGGER)}) < 0)
        BRIDGE_ERROR("failed to set backup properties");
}

void bridge_cmd_restore_backup(converter_ctx *ctx, json_object *params, json_object **)
{
    int64_t index = 0;
    if (cmd_get_integer(params, "index", &index) < 0) {
        BRIDGE_ERROR("can't get backup index from the request parameters");
        return;
    }
    if (cmd_write(ctx, {cmd_number("swRestorePointSelected.0", &index),
                        cmd_text("swRestorePointExecute.0", CMD_TRIGGER)}) < 0)
        BRIDGE_ERROR("failed to set restore backup properties");
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

void bridge_cmd_reset_radio_statistics(converter_ctx *ctx, json_object *, json_object **)
{
    if (bridge_snmp_set_property(ctx, "radioStatisticsResetCounters.0", CMD_TRIGGER, 0) < 0)
        BRIDGE_ERROR("failed to reset radio counters");
}

/* ---- position ---- */

static constexpr cmd_field_row POSITION[] = {
    {"gpsLatitude.0", "lat"},
    {"gpsLongitude.0", "long"},
    {"gpsAltitude.0", "alti"},
};

void bridge_cmd_get_gps_coordinates(converter_ctx *ctx, json_object *, json_object **response)
{
    cmd_answer_fields(ctx, POSITION, PROP_TYPE_DOUBLE, "failed to get SNMP table", -EIO, response);
}
