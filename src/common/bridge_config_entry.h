/* One configuration value as the file processors see it: a key, a type and the field that it fills. */
#ifndef BRIDGE_CONFIG_ENTRY_H
#define BRIDGE_CONFIG_ENTRY_H

#include <cstdint>

enum bridge_cfg_type : uint32_t {
    CFG_TYPE_STRING = 0,
    CFG_TYPE_SECRET = 1, /* text, masked in the dump */
    CFG_TYPE_BOOL = 2,
    CFG_TYPE_UINT = 3, /* unsigned 32-bit */
    CFG_TYPE_INT = 4,  /* signed 32-bit */
    CFG_TYPE_DOUBLE = 5,
};

struct bridge_cfg_entry {
    const char *key;
    bool found; /* a file has given the value */
    bridge_cfg_type type;
    void *value;
    uint32_t value_size; /* of a text field, terminator included; 0 for other types */
    bool *set_flag;      /* null for a required entry */
};

#endif
