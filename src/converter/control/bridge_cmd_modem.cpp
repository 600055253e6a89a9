/* Handlers in the order of the command table. */
#include "converter/control/bridge_cmd_modem.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_ctrl_ctx.h"

#include <cstdio>
#include <cstring>

static constexpr size_t STATUS_SIZE = 128;
static constexpr size_t APN_SIZE = 64;

/* ---- what the modem tells of itself ---- */

/* clang-format off */
static constexpr cmd_read_row DEVICE[] = {
    /* object                 key               form              capacity */
    {"wmManufacturer.0",   "manufacturer",   PROP_TYPE_STRING, 128},
    {"wmModelId.0",        "modelId",        PROP_TYPE_STRING, 32},
    {"wmFwRevisions.0",    "fwRevisions",    PROP_TYPE_STRING, 256},
    {"wmBootRevisions.0",  "bootRevisions",  PROP_TYPE_STRING, 256},
    {"wmPriRevisions.0",   "priRevisions",   PROP_TYPE_STRING, 256},
    {"wmPrlVersion.0",     "prlVersion",     PROP_TYPE_INT,    0},
    {"wmPrlPreference.0",  "prlPreference",  PROP_TYPE_INT,    0},
    {"wmImsi.0",           "imsi",           PROP_TYPE_STRING, 32},
    {"wmEsnNumber.0",      "esnNumber",      PROP_TYPE_STRING, 32},
    {"wmImeiNumber.0",     "imeiNumber",     PROP_TYPE_STRING, 32},
    {"wmMeidNumber.0",     "meidNumber",     PROP_TYPE_STRING, 32},
    {"wmHwRevision.0",     "hwRevision",     PROP_TYPE_STRING, 32},
    {"wmDeviceState.0",    "deviceState",    PROP_TYPE_STRING, 32},
    {"wmPublicIPAddr.0",   "publicIPAddr",   PROP_TYPE_IPADDR, CMD_ADDRESS_SIZE},
};

static constexpr cmd_read_row HOME_NETWORK[] = {
    {"wmHomeNetwork.0",      "homeNetwork",      PROP_TYPE_STRING, 128},
    {"wmRoamingStatus.0",    "roamingStatus",    PROP_TYPE_STRING, 16},
    {"wmDataCapabilities.0", "dataCapabilities", PROP_TYPE_STRING, 16},
    {"wmSessionState.0",     "sessionState",     PROP_TYPE_STRING, 16},
    {"wmDataBearer.0",       "dataBearer",       PROP_TYPE_STRING, 16},
    {"wmDormancyStatus.0",   "dormancyStatus",   PROP_TYPE_STRING, 16},
    {"wmLuRejectCause.0",    "luRejectCause",    PROP_TYPE_STRING, 16},
};

static constexpr cmd_read_row RF_INFORMATION[] = {
    {"wmRadioInterface.0",  "radioInterface",  PROP_TYPE_STRING, 64},
    {"wmActiveBandClass.0", "activeBandClass", PROP_TYPE_INT,    0},
    {"wmActiveChannel.0",   "activeChannel",   PROP_TYPE_INT,    0},
    {"wmSignalStrength.0",  "signalStrength",  PROP_TYPE_INT,    0},
    {"wmEcio.0",            "ecio",            PROP_TYPE_INT,    0},
    {"wmIo.0",              "io",              PROP_TYPE_INT,    0},
    {"wmSinr.0",            "sinr",            PROP_TYPE_INT,    0},
    {"wmRsrq.0",            "rsrq",            PROP_TYPE_INT,    0},
    {"wmCellId.0",          "cellid",          PROP_TYPE_STRING, 64},
};

static constexpr cmd_read_row ACTIVE_PROFILE[] = {
    {"wmPdpType.0",        "pdpType",        PROP_TYPE_STRING, 32},
    {"wmAuthentication.0", "authentication", PROP_TYPE_STRING, 32},
    {"wmProfileName.0",    "profileName",    PROP_TYPE_STRING, 64},
    {"wmApnName.0",        "apnName",        PROP_TYPE_STRING, 64},
    {"wmUserName.0",       "userName",       PROP_TYPE_STRING, 64},
    {"wmIpAddress.0",      "ipAddress",      PROP_TYPE_IPADDR, CMD_ADDRESS_SIZE},
    {"wmPrimaryDNS.0",     "primaryDNS",     PROP_TYPE_IPADDR, CMD_ADDRESS_SIZE},
    {"wmSecondaryDNS.0",   "secondaryDNS",   PROP_TYPE_IPADDR, CMD_ADDRESS_SIZE},
};

static constexpr cmd_read_row CALL_STATISTICS[] = {
    {"wmCallStatus.0",       "callStatus",       PROP_TYPE_STRING, 32},
    {"wmBytesTransferred.0", "bytesTransferred", PROP_TYPE_INT,    0},
    {"wmBytesReceived.0",    "bytesReceived",    PROP_TYPE_INT,    0},
    {"wmCurrentTxRate.0",    "currentTxRate",    PROP_TYPE_INT,    0},
    {"wmCurrentRXRate.0",    "currentRxRate",    PROP_TYPE_INT,    0},
    {"wmMaxTxRate.0",        "maxTxRate",        PROP_TYPE_INT,    0},
    {"wmMaxRxRate.0",        "maxRxRate",        PROP_TYPE_INT,    0},
};
/* clang-format on */

/* A modem without a number is no failure. */
static int add_phone_number(converter_ctx *ctx, json_object *answer)
{
    char number[32] = "";
    size_t size = sizeof(number);
    if (bridge_snmp_get_property_str(ctx, "wmPublicPhoneNr.0", number, &size, 0) < 0)
        BRIDGE_WARN("failed to get phone number OID, skipping");
    bridge_json_field frame[] = {field_text("publicPhoneNr", number)};
    if (bridge_json_serialize(answer, frame, std::size(frame)) < 0) {
        BRIDGE_ERROR("failed to serialize response frame");
        return -1;
    }
    return 0;
}

void bridge_cmd_wm_device_information(converter_ctx *ctx, json_object *, json_object **response)
{
    json_owned answer(json_object_new_object());
    if (!answer) {
        BRIDGE_ERROR("failed to allocate response object");
        return;
    }
    if (cmd_read_into(ctx, DEVICE, "failed to get properties for radio stats", answer.get()) < 0 ||
        add_phone_number(ctx, answer.get()) < 0 || cmd_add_interfaces(ctx, answer.get()) < 0)
        return;
    *response = answer.release();
}

void bridge_cmd_wm_home_network(converter_ctx *ctx, json_object *, json_object **response)
{
    cmd_read(ctx, HOME_NETWORK, "failed to get properties for home network stats", response);
}

void bridge_cmd_wm_rf_information(converter_ctx *ctx, json_object *, json_object **response)
{
    cmd_read(ctx, RF_INFORMATION, "failed to get properties for wireless modem RF information", response);
}

void bridge_cmd_wm_active_profile(converter_ctx *ctx, json_object *, json_object **response)
{
    cmd_read(ctx, ACTIVE_PROFILE, "failed to get properties for wireless modem profile parameters", response);
}

void bridge_cmd_wm_call_statistics(converter_ctx *ctx, json_object *, json_object **response)
{
    cmd_read(ctx, CALL_STATISTICS, "failed to get properties for wireless modem profile parameters",
             response);
}

/* ---- APNs ---- */

/* clang-format off */
static constexpr bridge_snmp_column APNS[] = {
    {"name",     "wmApn",               false, PROP_TYPE_STRING},
    {"type",     "wmApnConnectionType", false, PROP_TYPE_INT},
    {"idxModem", "wmApnLocalIndex",     false, PROP_TYPE_INT},
    {},
};
/* clang-format on */

static int add_working_index(converter_ctx *ctx, json_object *answer)
{
    long index = 0;
    if (bridge_snmp_get_property_int(ctx, "wmPdpWorkingProfile.0", &index, 0) < 0) {
        BRIDGE_ERROR("failed to get working index");
        return -1;
    }
    json_object *number = json_object_new_int64(index);
    if (number == nullptr) {
        BRIDGE_ERROR("failed to allocate JSON object for working index");
        return -1;
    }
    if (json_object_object_add(answer, "workingIdx", number) < 0) {
        BRIDGE_ERROR("failed to add working index to the response object");
        return -1;
    }
    return 0;
}

void bridge_cmd_get_wm_apns(converter_ctx *ctx, json_object *, json_object **response)
{
    json_owned answer(json_object_new_object());
    if (!answer) {
        BRIDGE_ERROR("failed to allocate response object");
        return;
    }
    json_object *table = nullptr;
    if (bridge_snmp_get_exact_table_as_json(ctx, APNS, nullptr, &table) < 0) {
        BRIDGE_ERROR("failed to get apn information");
        return;
    }
    json_owned apns(table);
    if (cmd_number_rows(apns.get(), "idx", 1) < 0) {
        BRIDGE_ERROR("failed to allocate an index");
        return;
    }
    if (add_working_index(ctx, answer.get()) < 0)
        return;
    if (json_object_object_add(answer.get(), "apns", apns.release()) < 0) {
        BRIDGE_ERROR("failed to add APN array to root");
        return;
    }
    *response = answer.release();
}

void bridge_cmd_add_wm_apn(converter_ctx *ctx, json_object *params, json_object **)
{
    char name[APN_SIZE] = "";
    bridge_json_field frame[] = {field_string("name", name)};
    if (cmd_parse(params, frame) < 0) {
        BRIDGE_ERROR("failed to de-serialize params");
        return;
    }
    if (bridge_snmp_set_property(ctx, "wmAddApn.0", name, 0) < 0)
        BRIDGE_ERROR("failed to add APN");
}

void bridge_cmd_update_wm_apn(converter_ctx *ctx, json_object *params, json_object **)
{
    char name[APN_SIZE] = "";
    int64_t idx = 0;
    bridge_json_field frame[] = {field_string("name", name), field_int("idx", &idx)};
    if (cmd_parse(params, frame) < 0) {
        BRIDGE_ERROR("failed to de-serialize params");
        return;
    }
    char object[128];
    const int length = snprintf(object, sizeof(object), "wmApn.%lli", static_cast<long long>(idx));
    if (length < 0 || static_cast<size_t>(length) >= sizeof(object)) {
        BRIDGE_ERROR("not enough space in the buffer");
        return;
    }
    if (bridge_snmp_set_property(ctx, object, name, 0) < 0)
        BRIDGE_ERROR("failed to set WM property");
}

/* The parameters are the number itself. A text counts as 0, also one of digits: it names no row. */
void bridge_cmd_delete_wm_apn(converter_ctx *ctx, json_object *params, json_object **)
{
    const int64_t index = json_object_is_type(params, json_type_string) ? 0 : json_object_get_int64(params);
    if (cmd_write(ctx, {cmd_number("wmRemoveApn.0", &index)}) < 0)
        BRIDGE_ERROR("failed to set APN index");
}

static constexpr cmd_field_row APN_STATUS[] = {
    {"wmApnLastOperationStatus.0", "status"},
    {"wmSimStatus.0", "simStatus"},
};

void bridge_cmd_get_wm_apn_status(converter_ctx *ctx, json_object *, json_object **response)
{
    *response = json_object_new_object();
    if (*response == nullptr) {
        BRIDGE_ERROR("failed to allocate response object");
        return;
    }
    if (cmd_read_fields(ctx, APN_STATUS, PROP_TYPE_STRING, *response) < 0)
        BRIDGE_ERROR("failed to get APN status");
}

/* ---- networks ---- */

/* clang-format off */
static constexpr bridge_snmp_column NETWORKS[] = {
    {"mcc",    "wmMcc",                false, PROP_TYPE_INT},
    {"mnc",    "wmMnc",                false, PROP_TYPE_INT},
    {"name",   "wmNetworkDescription", false, PROP_TYPE_STRING},
    {"active", "wmNetworkInUse",       false, PROP_TYPE_INT},
    {},
};
/* clang-format on */

static constexpr const char *NETWORK_USES[] = {"Unknown", "Current", "Available"};

/* Puts the word in place of the number. */
static int tell_use_in_words(json_object *network)
{
    int64_t active = 0;
    bridge_json_field frame[] = {field_int("active", &active)};
    if (cmd_parse(network, frame) < 0) {
        BRIDGE_ERROR("failed to de-serialize current network parameters");
        return -1;
    }
    if (active < 0 || active >= static_cast<int64_t>(std::size(NETWORK_USES))) {
        BRIDGE_ERROR("failed to convert active type");
        return -1;
    }
    json_object *word = json_object_new_string(NETWORK_USES[active]);
    if (word == nullptr || json_object_object_add(network, "active", word) < 0) {
        BRIDGE_ERROR("failed to add converted active type to the response");
        return -1;
    }
    return 0;
}

void bridge_cmd_get_wm_network_info(converter_ctx *ctx, json_object *, json_object **response)
{
    long count = 0; /* asked for, and of no further use: the table is read to its end */
    if (bridge_snmp_get_property_int(ctx, "wmMncMccTotal.0", &count, 0) < 0) {
        BRIDGE_ERROR("failed to read the cellular list count");
        return;
    }
    json_object *table = nullptr;
    if (bridge_snmp_get_exact_table_as_json(ctx, NETWORKS, nullptr, &table) < 0) {
        BRIDGE_ERROR("failed to get cellular list");
        return;
    }
    json_owned networks(table);
    for (size_t i = 0; i < json_object_array_length(table); i++) {
        if (tell_use_in_words(json_object_array_get_idx(table, i)) < 0)
            return;
    }
    json_owned answer(json_object_new_object());
    if (!answer || json_object_object_add(answer.get(), "availableNetworks", networks.release()) < 0) {
        BRIDGE_ERROR("failed to add the list of cellular networks to the root");
        return;
    }
    *response = answer.release();
}

static void answer_status(const char *text, json_object **response)
{
    *response = bridge_cmd_status_text("status", text);
}

static void answer_failed_status(const char *text, json_object **response)
{
    BRIDGE_ERROR("%s", text);
    answer_status(text, response);
}

void bridge_cmd_set_wm_preferred_network(converter_ctx *ctx, json_object *params, json_object **response)
{
    int64_t mcc = 0;
    int64_t mnc = 0;
    bridge_json_field frame[] = {field_int("mcc", &mcc), field_int("mnc", &mnc)};
    if (cmd_parse(params, frame) < 0) {
        answer_failed_status("failed to de-serialize parameters -- one or more parameters missing!",
                             response);
        return;
    }
    if (cmd_write(ctx, {cmd_number("wmMccCode.0", &mcc), cmd_number("wmMncCode.0", &mnc)}) < 0) {
        answer_failed_status("failed to stage the new MNC/MCC values -- for setting", response);
        return;
    }
    if (bridge_snmp_set_property(ctx, "wmMncMccOp.0", "0", 0) < 0) {
        answer_failed_status("failed to trigger setting the new preferred cellular network", response);
        return;
    }
    char status[STATUS_SIZE] = "";
    const int result = cmd_wait_for_modem(ctx, "wmMncMccOpStatus.0", status, sizeof(status));
    if (result < 0) {
        BRIDGE_ERROR("status fetch operation failed with error code: %d", result);
        strcpy(status, "status fetch operation failed");
    }
    answer_status(status, response);
}

/* ---- SIM ---- */

void bridge_cmd_get_sim_status(converter_ctx *ctx, json_object *params, json_object **response)
{
    static constexpr const char *SLOTS[] = {"wmSimStatus.0", "wmSimSlot1Status.0"};
    json_object *value = nullptr;
    if (!json_object_object_get_ex(params, "slot", &value))
        BRIDGE_WARN("Slot parameter is missing, default to 0");
    const int64_t slot = json_object_get_int64(value);
    if (slot < 0 || slot >= static_cast<int64_t>(std::size(SLOTS))) {
        BRIDGE_ERROR("Wrong slot number: %lli", static_cast<long long>(slot));
        return;
    }
    char text[STATUS_SIZE];
    size_t size = sizeof(text);
    if (bridge_snmp_get_property_str(ctx, SLOTS[slot], text, &size, 0) < 0) {
        BRIDGE_ERROR("Error getting SIM status for slot: %lli", static_cast<long long>(slot));
        return;
    }
    *response = json_object_new_string(text);
}
