/* Requests to the agent, one at a time, each in one frame: lock, send, look at the answer, convert, release.
 */
#include "converter/control/bridge_snmp.h"

#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "converter/control/bridge_ctrl_ctx.h"
#include "converter/control/bridge_snmp_convert.h"

#include <arpa/inet.h>
#include <cstring>
#include <memory>

static constexpr uint32_t MIN_TIMEOUT_MS = 3000;
static constexpr int NO_SUCH_OBJECT = 0x80;
static constexpr int NO_SUCH_INSTANCE = 0x81;
static constexpr int END_OF_MIB_VIEW = 0x82;
static constexpr const char *END_OF_VIEW_TEXT =
    "No More Variables left in this MIB View (It is past the end of the MIB tree)";

using pdu_owned = std::unique_ptr<netsnmp_pdu, bridge_release<snmp_free_pdu>>;

/* The value stays in the session until the next request sets it. Retries are the library's default. */
static void set_timeout(converter_ctx *ctx, uint32_t timeout_ms)
{
    const uint32_t effective = timeout_ms < MIN_TIMEOUT_MS ? MIN_TIMEOUT_MS : timeout_ms;
    ctx->ss->timeout = static_cast<long>(effective) * 1000;
}

/* Takes over the request. The answer is null on a failure, which has been logged. */
static netsnmp_pdu *exchange(converter_ctx *ctx, netsnmp_pdu *request, uint32_t error_level)
{
    netsnmp_pdu *response = nullptr;
    const int status = snmp_sess_synch_response(ctx->sess_handle, request, &response);
    pdu_owned owned(response);
    if (status != STAT_SUCCESS || response == nullptr) {
        if (status == STAT_TIMEOUT)
            BRIDGE_ERROR("no response from SNMP agent");
        else
            BRIDGE_ERROR("synch request failed");
        return nullptr;
    }
    if (response->errstat != SNMP_ERR_NOERROR) {
        bridge_log_print_message(error_level, __FILE__, __LINE__, "error in packet: %s",
                                 snmp_errstring(static_cast<int>(response->errstat)));
        return nullptr;
    }
    return owned.release();
}

static void remember_variable(converter_ctx *ctx, const netsnmp_variable_list *var)
{
    ctx->last_oid_len = var->name_length;
    BRIDGE_ASSERT(ctx->last_oid_len * sizeof(oid) <= sizeof(ctx->last_oid));
    memcpy(ctx->last_oid, var->name, var->name_length * sizeof(oid));
}

/* ---- single reads ---- */

static int log_missing_variable(int type)
{
    switch (type) {
    case NO_SUCH_OBJECT:
        BRIDGE_ERROR("No Such Object available on this agent at this OID");
        return -1;
    case NO_SUCH_INSTANCE:
        BRIDGE_DEBUG("No Such Instance currently exists at this OID");
        return -1;
    case END_OF_MIB_VIEW:
        BRIDGE_ERROR("%s", END_OF_VIEW_TEXT);
        return -1;
    default:
        return 0;
    }
}

/* Names the request: by the text, or by the last variable read. */
static int name_request(converter_ctx *ctx, const char *oid_str, oid *name, size_t *oid_len, int *command)
{
    *command = SNMP_MSG_GET;
    if (oid_str != nullptr) {
        if (snmp_parse_oid(oid_str, name, oid_len) == nullptr) {
            BRIDGE_ERROR("cannot parse OID: %s", oid_str);
            return -1;
        }
        BRIDGE_TRACE("attempt to get property: [%s]", oid_str);
        return 0;
    }
    /* A byte count against a count of sub-identifiers: it bounds such walks to names of 32 sub-identifiers on
     * a 32-bit gateway and is meant to. */
    *command = SNMP_MSG_GETNEXT;
    BRIDGE_ASSERT_TEXT(ctx->last_oid_len * sizeof(uint32_t) <= *oid_len,
                       "ctx->last_oid_len * sizeof(oid) <= *oid_len");
    memcpy(name, ctx->last_oid, ctx->last_oid_len * sizeof(oid));
    *oid_len = ctx->last_oid_len;
    BRIDGE_TRACE("using GetNext method");
    return 0;
}

/* The answer to one request, and the context mutex, which is held until the answer is released. */
struct snmp_fetch {
    explicit snmp_fetch(converter_ctx *context) : guard(context)
    {
    }
    ctx_guard guard;
    pdu_owned response;
};

/* Leaves a sound variable as the first of the response. */
static int bridge_snmp_fetch(converter_ctx *ctx, const char *oid_str, uint32_t timeout_ms, snmp_fetch *fetch)
{
    if (ctx->sess_handle == nullptr) {
        BRIDGE_ERROR("synch request failed"); /* a command outlives the session while the plane is stopped */
        return -1;
    }
    set_timeout(ctx, timeout_ms);
    oid name[MAX_OID_LEN];
    size_t oid_len = MAX_OID_LEN;
    int command = 0;
    if (name_request(ctx, oid_str, name, &oid_len, &command) < 0)
        return -1;
    netsnmp_pdu *request = snmp_pdu_create(command);
    snmp_add_null_var(request, name, oid_len);
    fetch->response.reset(exchange(ctx, request, BRIDGE_LOG_DEBUG));
    if (!fetch->response || fetch->response->variables == nullptr)
        return -1;
    const netsnmp_variable_list *var = fetch->response->variables;
    if (log_missing_variable(var->type) < 0)
        return -1;
    remember_variable(ctx, var);
    return 0;
}

static bool is_integer(int type)
{
    return type == ASN_INTEGER || type == ASN_COUNTER || type == ASN_GAUGE || type == ASN_TIMETICKS ||
           type == ASN_UINTEGER;
}

static bool is_bytes(int type)
{
    return type == ASN_IPADDRESS || type == ASN_BIT_STR || type == ASN_OCTET_STR || type == ASN_SEQUENCE;
}

int bridge_snmp_get_property_int(converter_ctx *ctx, const char *oid_str, long *val, uint32_t timeout_ms)
{
    snmp_fetch fetch(ctx);
    if (bridge_snmp_fetch(ctx, oid_str, timeout_ms, &fetch) < 0)
        return -1;
    const netsnmp_variable_list *var = fetch.response->variables;
    if (!is_integer(var->type)) {
        BRIDGE_ERROR("returned value is not integer");
        return -1;
    }
    *val = *var->val.integer;
    BRIDGE_TRACE("successfully got value: %ld", *val);
    return 0;
}

int bridge_snmp_get_property_double(converter_ctx *ctx, const char *oid_str, double *val, uint32_t timeout_ms)
{
    snmp_fetch fetch(ctx);
    if (bridge_snmp_fetch(ctx, oid_str, timeout_ms, &fetch) < 0)
        return -1;
    const netsnmp_variable_list *var = fetch.response->variables;
    /* The library hands an opaque number over under a type of its own. */
    if (var->type == ASN_FLOAT || var->type == ASN_OPAQUE_FLOAT) {
        *val = static_cast<double>(*var->val.floatVal);
    } else if (var->type == ASN_DOUBLE || var->type == ASN_OPAQUE_DOUBLE) {
        *val = *var->val.doubleVal;
    } else {
        BRIDGE_ERROR("returned value is not an float: %d", var->type);
        return -1;
    }
    BRIDGE_TRACE("successfully got value: %lf", *val);
    return 0;
}

int bridge_snmp_get_property_str(converter_ctx *ctx, const char *oid_str, char *buf, size_t *buf_sz,
                                 uint32_t timeout_ms)
{
    snmp_fetch fetch(ctx);
    if (bridge_snmp_fetch(ctx, oid_str, timeout_ms, &fetch) < 0)
        return -1;
    const netsnmp_variable_list *var = fetch.response->variables;
    if (var->type != ASN_OCTET_STR) {
        BRIDGE_ERROR("property of wrong type fetched. Should be OCTET STRING, was: %d", var->type);
        return -1;
    }
    if (var->val_len >= *buf_sz) {
        BRIDGE_ERROR("buffer with size [%zu] is too small for requested property", *buf_sz);
        return -1;
    }
    memcpy(buf, var->val.string, var->val_len);
    buf[var->val_len] = '\0';
    *buf_sz = var->val_len;
    return 0;
}

int bridge_snmp_get_property_data(converter_ctx *ctx, const char *oid_str, uint8_t *buf, size_t *buf_sz,
                                  uint32_t timeout_ms)
{
    snmp_fetch fetch(ctx);
    if (bridge_snmp_fetch(ctx, oid_str, timeout_ms, &fetch) < 0)
        return -1;
    const netsnmp_variable_list *var = fetch.response->variables;
    if (!is_bytes(var->type)) {
        BRIDGE_ERROR("property of wrong type fetched: %d", var->type);
        return 0;
    }
    if (var->val_len > *buf_sz) {
        BRIDGE_ERROR("buffer with size [%zu] is too small for requested property", *buf_sz);
        return -1;
    }
    memcpy(buf, var->val.string, var->val_len);
    *buf_sz = var->val_len;
    return 0;
}

int bridge_snmp_get_property_ipaddr(converter_ctx *ctx, const char *oid_str, char *buf, size_t *buf_sz,
                                    uint32_t timeout_ms)
{
    uint8_t address[16] = {};
    size_t size = sizeof(address);
    if (bridge_snmp_get_property_data(ctx, oid_str, address, &size, timeout_ms) < 0) {
        BRIDGE_ERROR("failed to get binary form of IP address");
        return -1;
    }
    if (bridge_snmp_format_address(address, size, buf, *buf_sz) < 0)
        return -1;
    *buf_sz = strlen(buf);
    return 0;
}

int bridge_snmp_get_property_pretty(converter_ctx *ctx, const char *oid_str, char *buf, size_t *buf_sz,
                                    uint32_t timeout_ms)
{
    snmp_fetch fetch(ctx);
    if (bridge_snmp_fetch(ctx, oid_str, timeout_ms, &fetch) < 0)
        return -1;
    const netsnmp_variable_list *var = fetch.response->variables;
    const int length = snprint_value(buf, *buf_sz, var->name, var->name_length, var);
    if (length < 0) {
        BRIDGE_ERROR("cannot deserialize OID value");
        return length;
    }
    *buf_sz = static_cast<size_t>(length);
    BRIDGE_TRACE("successfully got value: %s", buf);
    return 0;
}

/* ---- reads of many ---- */

static netsnmp_pdu *build_read_request(int command, const bridge_snmp_read_prop *props)
{
    pdu_owned request(snmp_pdu_create(command));
    for (const bridge_snmp_read_prop *prop = props; prop->oid != nullptr; prop++) {
        oid name[MAX_OID_LEN];
        size_t name_length = MAX_OID_LEN;
        if (snmp_parse_oid(prop->oid, name, &name_length) == nullptr) {
            BRIDGE_ERROR("cannot parse OID: %s", prop->oid);
            return nullptr;
        }
        BRIDGE_TRACE("attempt to get property: [%s]", prop->oid);
        snmp_add_null_var(request.get(), name, name_length);
    }
    return request.release();
}

static int check_variable(const netsnmp_variable_list *var, const bridge_snmp_read_prop *prop)
{
    switch (var->type) {
    case NO_SUCH_OBJECT:
        BRIDGE_ERROR("No Such Object available on this agent at OID: %s", prop->oid);
        return -1;
    case NO_SUCH_INSTANCE:
        BRIDGE_DEBUG("No Such Instance currently exists at OID: %s", prop->oid);
        return -1;
    case END_OF_MIB_VIEW:
        BRIDGE_ERROR("%s", END_OF_VIEW_TEXT);
        return -1;
    default:
        return 0;
    }
}

static int check_root(const netsnmp_variable_list *var, const char *root_oid)
{
    oid root[MAX_OID_LEN];
    size_t root_length = MAX_OID_LEN;
    if (snmp_parse_oid(root_oid, root, &root_length) == nullptr) {
        BRIDGE_ERROR("cannot parse root OID: %s", root_oid);
        return -1;
    }
    if (var->name_length > root_length && snmp_oid_compare(root, root_length, var->name, root_length) == 0)
        return 0;
    char printed[256] = "";
    /* The library fills what it is given and then leaves out the end: the last byte stays. */
    snprint_variable(printed, sizeof(printed) - 1, var->name, var->name_length, var);
    BRIDGE_DEBUG("SNMP value is not a child of given root:");
    BRIDGE_DEBUG("root: %s, returned value: %s", root_oid, printed);
    return -1;
}

static int convert_variable(const netsnmp_variable_list *var, const bridge_snmp_read_prop *prop)
{
    if (prop->oid == nullptr) {
        BRIDGE_ERROR("SNMP response list exceeds requested property count");
        return -1;
    }
    if (check_variable(var, prop) < 0)
        return -1;
    if (prop->root_oid != nullptr && check_root(var, prop->root_oid) < 0)
        return -1;
    if (bridge_snmp_convert_read(var, prop) < 0) {
        BRIDGE_ERROR("failed to extract property: %s", prop->oid);
        return -1;
    }
    return 0;
}

static int read_properties(converter_ctx *ctx, int command, const bridge_snmp_read_prop *props,
                           uint32_t timeout_ms)
{
    const ctx_guard guard(ctx);
    if (!ctx->snmp_ready)
        return -1;
    set_timeout(ctx, timeout_ms);
    netsnmp_pdu *request = build_read_request(command, props);
    if (request == nullptr)
        return -1;
    const pdu_owned response(exchange(ctx, request, BRIDGE_LOG_DEBUG));
    if (!response)
        return -1;

    int result = 0;
    const netsnmp_variable_list *last = nullptr;
    for (const netsnmp_variable_list *var = response->variables; var != nullptr; var = var->next_variable) {
        result = convert_variable(var, props);
        if (result < 0)
            break;
        last = var;
        props++;
    }
    if (last != nullptr)
        remember_variable(ctx, last);
    return result;
}

int bridge_snmp_get_properties(converter_ctx *ctx, const bridge_snmp_read_prop *props, uint32_t timeout_ms)
{
    return read_properties(ctx, SNMP_MSG_GET, props, timeout_ms);
}

int bridge_snmp_getnext_properties(converter_ctx *ctx, const bridge_snmp_read_prop *props,
                                   uint32_t timeout_ms)
{
    return read_properties(ctx, SNMP_MSG_GETNEXT, props, timeout_ms);
}

/* ---- writes ---- */

int bridge_snmp_set_property(converter_ctx *ctx, const char *oid_str, const char *value, uint32_t timeout_ms)
{
    BRIDGE_ASSERT(oid_str);
    BRIDGE_ASSERT(value);
    BRIDGE_ASSERT_TEXT(ctx, "ctx && ctx->ss");
    BRIDGE_TRACE("attempt to set property: [%s] with value: [%s]", oid_str, value);
    const ctx_guard guard(ctx);
    if (!ctx->snmp_ready)
        return -1;
    BRIDGE_ASSERT_TEXT(ctx->ss, "ctx && ctx->ss"); /* a late caller finds the session closed, and not ready */
    set_timeout(ctx, timeout_ms);
    oid name[MAX_OID_LEN];
    size_t name_length = MAX_OID_LEN;
    if (snmp_parse_oid(oid_str, name, &name_length) == nullptr) {
        BRIDGE_ERROR("cannot parse OID");
        return -1;
    }
    pdu_owned request(snmp_pdu_create(SNMP_MSG_SET));
    if (!request) {
        BRIDGE_ERROR("cannot created PDU");
        return -1;
    }
    if (snmp_add_var(request.get(), name, name_length, '=', value) != 0) {
        BRIDGE_ERROR("cannot add var to PDU: %s error: %s", value, snmp_api_errstring(snmp_errno));
        return -1;
    }
    const pdu_owned response(exchange(ctx, request.release(), BRIDGE_LOG_ERROR));
    return response ? 0 : -1;
}

int bridge_snmp_set_properties(converter_ctx *ctx, const bridge_snmp_write_prop *props, uint32_t timeout_ms)
{
    const ctx_guard guard(ctx);
    if (!ctx->snmp_ready)
        return -1;
    set_timeout(ctx, timeout_ms);
    pdu_owned request(snmp_pdu_create(SNMP_MSG_SET));
    if (!request) {
        BRIDGE_ERROR("cannot created PDU");
        return -1;
    }
    for (const bridge_snmp_write_prop *prop = props; prop->oid != nullptr; prop++) {
        if (bridge_snmp_convert_write(request.get(), prop) < 0) {
            BRIDGE_ERROR("failed to add property to PDU");
            return -1;
        }
    }
    const pdu_owned response(exchange(ctx, request.release(), BRIDGE_LOG_ERROR));
    return response ? 0 : -1;
}
