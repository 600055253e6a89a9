/* The walks over a frame, reading and writing. */
#include "common/bridge_json_helpers.h"

#include "common/bridge_log.h"

#include <cerrno>
#include <clocale>
#include <cstring>

/* ---- parsing ---- */

/* The calling thread is in the locale "C" while one lives. That is a constant of the C library: the copies
 * that are made of it are itself, and take no lock. */
class plain_locale
{
  public:
    plain_locale() : before(uselocale(newlocale(LC_ALL_MASK, "C", nullptr)))
    {
    }
    ~plain_locale()
    {
        uselocale(before);
    }
    plain_locale(const plain_locale &) = delete;
    plain_locale &operator=(const plain_locale &) = delete;

  private:
    locale_t before;
};

json_object *bridge_json_parse(const char *text)
{
    const plain_locale plain;
    return json_tokener_parse(text);
}

json_object *bridge_json_parse_ex(json_tokener *tokener, const char *text, int length)
{
    const plain_locale plain;
    return json_tokener_parse_ex(tokener, text, length);
}

json_object *bridge_json_from_file(const char *path)
{
    const plain_locale plain;
    return json_object_from_file(path);
}

json_object *bridge_json_from_fd(int fd)
{
    const plain_locale plain;
    return json_object_from_fd(fd);
}

/* ---- reading ---- */

static int read_failed(const bridge_json_field *field, const char *text)
{
    bridge_log_print_message(field->optional ? BRIDGE_LOG_TRACE : BRIDGE_LOG_WARN, __FILE__, __LINE__, "%s",
                             text);
    return -1;
}

/* The library tells a bad number by errno alone, and never clears it. */
static int check_number(const bridge_json_field *field, const char *text)
{
    return errno == EINVAL ? read_failed(field, text) : 0;
}

static int read_string(json_object *value, const bridge_json_field *field)
{
    const char *text = json_object_get_string(value);
    if (text == nullptr)
        return read_failed(field, "unable to fetch string");

    const size_t length = strlen(text);
    if (length >= field->size) {
        BRIDGE_WARN("not enough space for incoming string");
        return -1;
    }
    memcpy(field->target, text, length + 1);
    return 0;
}

static int read_frame(json_object *obj, const bridge_json_field *frame, size_t count);

static int read_value(json_object *value, const bridge_json_field *field)
{
    switch (field->type) {
    case JSON_FIELD_BOOL:
        *static_cast<bool *>(field->target) = json_object_get_boolean(value) != 0;
        return check_number(field, "unable to fetch integer");
    case JSON_FIELD_DOUBLE:
        *static_cast<double *>(field->target) = json_object_get_double(value);
        return check_number(field, "unable to fetch double");
    case JSON_FIELD_INTEGER:
        if (field->read_unsigned)
            *static_cast<uint64_t *>(field->target) = json_object_get_uint64(value);
        else
            *static_cast<int64_t *>(field->target) = json_object_get_int64(value);
        return check_number(field, "unable to fetch integer");
    case JSON_FIELD_OBJECT:
        return read_frame(value, static_cast<const bridge_json_field *>(field->target), field->size);
    case JSON_FIELD_STRING:
        return read_string(value, field);
    default:
        BRIDGE_ERROR("unknown json field type");
        return -1;
    }
}

/* `obj` may be null here: that is what the library makes of a JSON null, and then no key is found in it. */
static int read_frame(json_object *obj, const bridge_json_field *frame, size_t count)
{
    BRIDGE_ASSERT(frame);
    BRIDGE_ASSERT(count);
    for (size_t i = 0; i < count; i++) {
        const bridge_json_field *fld = &frame[i];
        BRIDGE_ASSERT(fld->name);
        BRIDGE_TRACE("reached field: %s", fld->name);

        json_object *value = nullptr;
        if (!json_object_object_get_ex(obj, fld->name, &value)) {
            const int absent = read_failed(fld, "unable to retrieve field");
            if (fld->optional)
                continue;
            return absent;
        }
        const int result = read_value(value, fld);
        if (result < 0)
            return result;
    }
    return 0;
}

int bridge_json_deserialize(json_object *obj, const bridge_json_field *frame, size_t count)
{
    BRIDGE_ASSERT(obj);
    return read_frame(obj, frame, count);
}

static json_object *new_double(const bridge_json_field *field)
{
    const double number = *static_cast<const double *>(field->target);
    if (field->double_format != nullptr)
        return json_object_new_double_s(number, field->double_format);
    return json_object_new_double(number);
}

static json_object *new_integer(const bridge_json_field *field)
{
    if (field->is_unsigned)
        return json_object_new_uint64(*static_cast<const uint64_t *>(field->target));
    return json_object_new_int64(*static_cast<const int64_t *>(field->target));
}

/* A sub-frame that fails leaves JSON null under its key, and the rest of the message goes on. */
static json_object *new_sub_object(json_object *sub, const bridge_json_field *field)
{
    json_owned owned(sub);
    if (bridge_json_serialize(sub, static_cast<const bridge_json_field *>(field->target), field->size) < 0)
        return nullptr;
    return owned.release();
}

/* Returns 0 with the new value, null for a JSON null; or -1. */
static int write_value(const bridge_json_field *field, json_object **value)
{
    switch (field->type) {
    case JSON_FIELD_NULL:
        *value = nullptr;
        return 0;
    case JSON_FIELD_BOOL:
        *value = json_object_new_boolean(*static_cast<const bool *>(field->target));
        break;
    case JSON_FIELD_DOUBLE:
        *value = new_double(field);
        break;
    case JSON_FIELD_INTEGER:
        *value = new_integer(field);
        break;
    case JSON_FIELD_OBJECT: {
        json_object *sub = json_object_new_object();
        if (sub == nullptr) {
            BRIDGE_ERROR("failed to create sub-object");
            return -1;
        }
        *value = new_sub_object(sub, field);
        return 0;
    }
    case JSON_FIELD_STRING:
        *value = json_object_new_string(static_cast<const char *>(field->target));
        break;
    default:
        BRIDGE_ERROR("unknown json field type");
        return -1;
    }
    if (*value == nullptr) {
        BRIDGE_ERROR("failed to serialize field");
        return -1;
    }
    return 0;
}

int bridge_json_serialize(json_object *obj, const bridge_json_field *frame, size_t count)
{
    BRIDGE_ASSERT(obj);
    BRIDGE_ASSERT(frame);
    BRIDGE_ASSERT(count);
    for (size_t i = 0; i < count; i++) {
        const bridge_json_field *fld = &frame[i];
        BRIDGE_ASSERT(fld->name);
        BRIDGE_TRACE("reached field: %s", fld->name);

        json_object *value = nullptr;
        if (write_value(fld, &value) < 0)
            return -1;
        json_object_object_add(obj, fld->name, value);
    }
    return 0;
}

int errnum_to_existing_json(const char *key, int errnum, json_object *existing)
{
    BRIDGE_ASSERT(key);
    BRIDGE_ASSERT(existing);

    char buffer[64];
    const char *text = errnum == 0 ? "ok" : bridge_errno_text(-errnum, buffer, sizeof(buffer));
    json_object *status = json_object_new_string(text);
    if (status == nullptr) {
        BRIDGE_ERROR("failed to allocate JSON string for status string");
        return -1;
    }
    json_object_object_add(existing, key, status);
    return 0;
}
