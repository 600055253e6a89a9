/* The one file that knows the TOML library. */
#include "common/bridge_toml.h"

#define TOML_EXCEPTIONS        0
#define TOML_ENABLE_FORMATTERS 0
/* The parser asserts on some bad input and then reports it as it should: a debug build does only that, too.
 */
#define TOML_ASSERT(expr) static_assert(true)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wshadow"
#include <toml++/toml.h>
#pragma GCC diagnostic pop

#include <cstring>
#include <string>

struct bridge_toml_file {
    toml::table root;
};

static const toml::node *node_of(const bridge_toml_raw *raw)
{
    return reinterpret_cast<const toml::node *>(raw);
}

static const toml::table *table_of(const bridge_toml_table *table)
{
    return reinterpret_cast<const toml::table *>(table);
}

static const toml::array *array_of(const bridge_toml_array *array)
{
    return reinterpret_cast<const toml::array *>(array);
}

static const bridge_toml_raw *raw_of(const toml::node *node)
{
    return node != nullptr && node->is_value() ? reinterpret_cast<const bridge_toml_raw *>(node) : nullptr;
}

static bool read_all(FILE *file, std::string *text)
{
    char buffer[4096];
    size_t count = 0;
    while ((count = fread(buffer, 1, sizeof(buffer), file)) > 0)
        text->append(buffer, count);
    return ferror(file) == 0;
}

static bridge_toml_file *parse_text(std::string_view text, char *error, size_t error_size)
{
    toml::parse_result result = toml::parse(text);
    if (!result) {
        const std::string_view description = result.error().description();
        snprintf(error, error_size, "line %u: %.*s",
                 static_cast<unsigned>(result.error().source().begin.line),
                 static_cast<int>(description.size()), description.data());
        return nullptr;
    }
    return new bridge_toml_file{std::move(result).table()};
}

bridge_toml_file *bridge_toml_parse_file(FILE *file, char *error, size_t error_size)
{
    try {
        std::string text;
        if (!read_all(file, &text)) {
            snprintf(error, error_size, "cannot read the file: %m");
            return nullptr;
        }
        return parse_text(text, error, error_size);
    } catch (...) {
        snprintf(error, error_size, "out of memory");
        return nullptr;
    }
}

void bridge_toml_free(bridge_toml_file *file)
{
    delete file;
}

const bridge_toml_table *bridge_toml_table_in(const bridge_toml_file *file, const char *key)
{
    const toml::node *node = file->root.get(key);
    return node != nullptr ? reinterpret_cast<const bridge_toml_table *>(node->as_table()) : nullptr;
}

const bridge_toml_array *bridge_toml_array_in(const bridge_toml_table *table, const char *key)
{
    const toml::node *node = table_of(table)->get(key);
    return node != nullptr ? reinterpret_cast<const bridge_toml_array *>(node->as_array()) : nullptr;
}

const bridge_toml_raw *bridge_toml_raw_in(const bridge_toml_table *table, const char *key)
{
    return raw_of(table_of(table)->get(key));
}

size_t bridge_toml_array_size(const bridge_toml_array *array)
{
    return array_of(array)->size();
}

const bridge_toml_raw *bridge_toml_raw_at(const bridge_toml_array *array, size_t index)
{
    return reinterpret_cast<const bridge_toml_raw *>(array_of(array)->get(index));
}

void bridge_toml_describe(const bridge_toml_raw *raw, char *buffer, size_t size)
{
    const toml::node *node = node_of(raw);
    if (const auto *text = node->as_string())
        snprintf(buffer, size, "%s", text->get().c_str());
    else if (const auto *integer = node->as_integer())
        snprintf(buffer, size, "%lld", static_cast<long long>(integer->get()));
    else if (const auto *number = node->as_floating_point())
        snprintf(buffer, size, "%g", number->get());
    else if (const auto *boolean = node->as_boolean())
        snprintf(buffer, size, "%s", boolean->get() ? "true" : "false");
    else
        snprintf(buffer, size, "%s",
                 node->is_array()   ? "[...]"
                 : node->is_table() ? "{...}"
                                    : "date or time");
}

int bridge_toml_to_string(const bridge_toml_raw *raw, char **value)
{
    const auto *text = node_of(raw)->as_string();
    *value = text != nullptr ? strdup(text->get().c_str()) : nullptr;
    return *value != nullptr ? 0 : -1;
}

int bridge_toml_to_bool(const bridge_toml_raw *raw, int *value)
{
    const auto *boolean = node_of(raw)->as_boolean();
    if (boolean == nullptr)
        return -1;
    *value = boolean->get() ? 1 : 0;
    return 0;
}

int bridge_toml_to_int(const bridge_toml_raw *raw, int64_t *value)
{
    const auto *integer = node_of(raw)->as_integer();
    if (integer == nullptr)
        return -1;
    *value = integer->get();
    return 0;
}

int bridge_toml_to_double(const bridge_toml_raw *raw, double *value)
{
    const auto number = node_of(raw)->value<double>();
    if (!number.has_value())
        return -1;
    *value = *number;
    return 0;
}
