/* The SNMP client: reads and writes objects of the local agent by name, SNMPv2c. Every call takes the context
 * mutex for its whole exchange, so one request is outstanding at a time. Any control plane thread.
 *
 * Results are 0 or more on success, negative on failure. `timeout_ms` below 3000, 0 included, means 3000; the
 * library sends the request again on each timeout, so a silent agent costs several of them. */
#ifndef BRIDGE_SNMP_H
#define BRIDGE_SNMP_H

#include <cstddef>
#include <cstdint>

struct converter_ctx;

enum bridge_prop_type : uint32_t {
    PROP_TYPE_INT = 1,    /* int64_t */
    PROP_TYPE_BOOL = 2,   /* bool */
    PROP_TYPE_DOUBLE = 3, /* double; reads only */
    PROP_TYPE_STRING = 4, /* terminated text */
    PROP_TYPE_DATA = 5,   /* raw bytes; a write takes text */
    PROP_TYPE_IPADDR = 6, /* an address as text; reads only */
    PROP_TYPE_JSON = 7,   /* a field of a JSON object */
};

/* One object to read. An array of these ends with a record whose `oid` is null. */
struct bridge_snmp_read_prop {
    const char *oid;
    const char *root_oid;   /* when given, the variable must be a strict child of it */
    const char *field_name; /* PROP_TYPE_JSON: the key */
    size_t buf_sz;
    size_t *buf_out_sz; /* takes the length written; required for PROP_TYPE_DATA */
    void *buf;          /* the target; PROP_TYPE_JSON: the object that gets the field */
    bridge_prop_type type;
    bridge_prop_type hint; /* PROP_TYPE_JSON: PROP_TYPE_BOOL for a boolean, PROP_TYPE_IPADDR for an address */
};

/* One object to write. An array of these ends with a record whose `oid` is null. */
struct bridge_snmp_write_prop {
    const char *oid;
    const char *field_name; /* PROP_TYPE_JSON: the key */
    bool optional;          /* PROP_TYPE_JSON: an absent key is skipped */
    const void *value;      /* PROP_TYPE_JSON: the object that holds the field */
    bridge_prop_type type;  /* never PROP_TYPE_DOUBLE or PROP_TYPE_IPADDR */
    bridge_prop_type hint;  /* PROP_TYPE_JSON: the form of the field */
};

/* One request for all records. Records beyond a failed one stay unfilled. */
int bridge_snmp_get_properties(converter_ctx *ctx, const bridge_snmp_read_prop *props, uint32_t timeout_ms);
int bridge_snmp_getnext_properties(converter_ctx *ctx, const bridge_snmp_read_prop *props,
                                   uint32_t timeout_ms);

/* Single reads. A null `oid_str` reads what follows the last variable read: hold the context mutex over such
 * a sequence. `buf_sz` gives the capacity and takes the length. */
int bridge_snmp_get_property_int(converter_ctx *ctx, const char *oid_str, long *val, uint32_t timeout_ms);
int bridge_snmp_get_property_double(converter_ctx *ctx, const char *oid_str, double *val,
                                    uint32_t timeout_ms);
int bridge_snmp_get_property_str(converter_ctx *ctx, const char *oid_str, char *buf, size_t *buf_sz,
                                 uint32_t timeout_ms);

/* A value of another kind leaves the buffer alone and is no failure: callers rely on it. */
int bridge_snmp_get_property_data(converter_ctx *ctx, const char *oid_str, uint8_t *buf, size_t *buf_sz,
                                  uint32_t timeout_ms);

/* The capacity must be at least INET6_ADDRSTRLEN. */
int bridge_snmp_get_property_ipaddr(converter_ctx *ctx, const char *oid_str, char *buf, size_t *buf_sz,
                                    uint32_t timeout_ms);

/* The value as the library prints it. */
int bridge_snmp_get_property_pretty(converter_ctx *ctx, const char *oid_str, char *buf, size_t *buf_sz,
                                    uint32_t timeout_ms);

/* Writes go as text: the MIB gives the type. A set of many is one request, all or nothing on this side. */
int bridge_snmp_set_property(converter_ctx *ctx, const char *oid_str, const char *value, uint32_t timeout_ms);
int bridge_snmp_set_properties(converter_ctx *ctx, const bridge_snmp_write_prop *props, uint32_t timeout_ms);

#endif
