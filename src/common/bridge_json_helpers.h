/* Table-driven reading and writing of JSON objects: a message is an array of field descriptors, a frame,
 * whose targets are the caller's own variables. Stateless; any thread. */
#ifndef BRIDGE_JSON_HELPERS_H
#define BRIDGE_JSON_HELPERS_H

#include "common/bridge_release.h"

#include <cstddef>
#include <cstdint>
#include <json-c/json.h>
#include <memory>

enum bridge_json_type : uint32_t {
    JSON_FIELD_NULL = 0,
    JSON_FIELD_BOOL = 1,
    JSON_FIELD_DOUBLE = 2,
    JSON_FIELD_INTEGER = 3,
    JSON_FIELD_OBJECT = 4,
    JSON_FIELD_STRING = 6,
};

struct bridge_json_field {
    const char *name;
    bridge_json_type type;
    uint32_t size; /* JSON_FIELD_STRING: bytes of the buffer; JSON_FIELD_OBJECT: fields of the sub-frame */
    void *target;  /* JSON_FIELD_OBJECT: the sub-frame */
    bool optional; /* reading: an absent key is no failure */
    bool read_unsigned;        /* reading an integer */
    bool is_unsigned;          /* writing an integer */
    const char *double_format; /* writing a double: its finished text, or null for the library's own form */
};

using json_owned = std::unique_ptr<json_object, bridge_release<json_object_put>>;

/* The library's functions of these names, to be called in their place: by itself it makes a locale for each
 * parse, under a lock of the C library that a fork does not take. A child that was forked meanwhile would
 * find that lock taken for ever, and need it to load a library or to put an error number into words. */
json_object *bridge_json_parse(const char *text);
json_object *bridge_json_parse_ex(json_tokener *tokener, const char *text, int length);
json_object *bridge_json_from_file(const char *path);
json_object *bridge_json_from_fd(int fd);

/* Fills the targets from `obj` in frame order and stops at the first failure; what was filled stays filled.
 * Returns 0, or a negative number. A stale EINVAL in errno counts as a failed number, so errno is cleared
 * where the handling of a message begins. */
int bridge_json_deserialize(json_object *obj, const bridge_json_field *frame, size_t count);

/* Adds the fields to `obj`, which the caller owns; an existing key takes the new value. Returns 0 or -1. */
int bridge_json_serialize(json_object *obj, const bridge_json_field *frame, size_t count);

/* Adds to `existing` under `key` the text "ok" for 0, or the system's text for the negative errno value
 * `errnum`. Returns 0 or -1. */
int errnum_to_existing_json(const char *key, int errnum, json_object *existing);

/* Builders of descriptors. Only full widths fit: a narrower target would be overrun. */
inline bridge_json_field field_bool(const char *name, bool *target)
{
    return {.name = name, .type = JSON_FIELD_BOOL, .target = target};
}

inline bridge_json_field field_int(const char *name, int64_t *target)
{
    return {.name = name, .type = JSON_FIELD_INTEGER, .target = target};
}

inline bridge_json_field field_uint(const char *name, uint64_t *target)
{
    return {.name = name,
            .type = JSON_FIELD_INTEGER,
            .target = target,
            .read_unsigned = true,
            .is_unsigned = true};
}

/* `text`, when given, is written as it stands instead of the number's own form. */
inline bridge_json_field field_double(const char *name, double *target, const char *text = nullptr)
{
    return {.name = name, .type = JSON_FIELD_DOUBLE, .target = target, .double_format = text};
}

template <size_t Size> bridge_json_field field_string(const char *name, char (&buffer)[Size])
{
    return {.name = name, .type = JSON_FIELD_STRING, .size = Size, .target = buffer};
}

/* For writing only: the text is never written through. */
inline bridge_json_field field_text(const char *name, const char *text)
{
    return {.name = name, .type = JSON_FIELD_STRING, .target = const_cast<char *>(text)};
}

template <size_t Count> bridge_json_field field_object(const char *name, bridge_json_field (&frame)[Count])
{
    return {.name = name, .type = JSON_FIELD_OBJECT, .size = Count, .target = frame};
}

inline bridge_json_field field_object(const char *name, bridge_json_field *frame, size_t count)
{
    return {.name = name, .type = JSON_FIELD_OBJECT, .size = static_cast<uint32_t>(count), .target = frame};
}

inline bridge_json_field field_optional(bridge_json_field field)
{
    field.optional = true;
    return field;
}

#endif
