#include "fuzz.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

using tokener_owned = std::unique_ptr<json_tokener, bridge_release<json_tokener_free>>;

void fuzz_require(bool holds, const char *file, int line, const char *text)
{
    if (holds)
        return;
    dprintf(STDERR_FILENO, "%s:%d: does not hold: %s\n", file, line, text);
    abort();
}

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes the names
extern "C" {
void __wrap_openlog(const char *, int, int)
{
}

void __wrap_vsyslog(int, const char *format, va_list arguments)
{
    static const bool is_shown = getenv("FUZZ_LOG") != nullptr;
    if (is_shown)
        vdprintf(STDERR_FILENO, format, arguments);
    else
        (void)vsnprintf(nullptr, 0, format, arguments);
}

/* An assertion of the daemon. */
void __wrap_syslog(int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vdprintf(STDERR_FILENO, format, arguments);
    va_end(arguments);
}
}
// NOLINTEND(bugprone-reserved-identifier)

void fuzz_init_log()
{
    bridge_log_init(BRIDGE_LOG_TRACE, false);
}

std::unique_ptr<uint8_t[]> fuzz_exact_copy(const void *data, size_t size)
{
    std::unique_ptr<uint8_t[]> copy(new uint8_t[size]);
    if (size > 0)
        memcpy(copy.get(), data, size);
    return copy;
}

std::unique_ptr<char[]> fuzz_exact_text(const uint8_t *data, size_t size)
{
    const size_t length = static_cast<size_t>(std::find(data, data + size, 0) - data);
    std::unique_ptr<char[]> text(new char[length + 1]);
    if (length > 0)
        memcpy(text.get(), data, length);
    text[length] = '\0';
    return text;
}

static bool is_number_character(char c)
{
    return isalnum(static_cast<unsigned char>(c)) != 0 || c == '+' || c == '-' || c == '.';
}

static bool is_not_finite(std::string token)
{
    std::transform(token.begin(), token.end(), token.begin(), [](unsigned char c) { return tolower(c); });
    const size_t sign = token.starts_with('-') ? 1 : 0;
    const std::string name = token.substr(sign);
    return name == "nan" || name == "inf" || name == "infinity";
}

static std::string with_finite_numbers(const std::string &text)
{
    std::string result;
    bool quoted = false;
    for (size_t i = 0; i < text.size();) {
        const size_t start = i;
        if (quoted && text[i] == '\\') {
            i = std::min(i + 2, text.size());
        } else if (!quoted && is_number_character(text[i])) {
            while (i < text.size() && is_number_character(text[i]))
                i++;
        } else {
            if (text[i] == '"')
                quoted = !quoted;
            i++;
        }
        const std::string token = text.substr(start, i - start);
        result += !quoted && is_not_finite(token) ? "0" : token;
    }
    return result;
}

bool fuzz_is_json_object(const std::string &text)
{
    const std::string finite = with_finite_numbers(text);
    const tokener_owned tokener(json_tokener_new());
    json_tokener_set_flags(tokener.get(), JSON_TOKENER_STRICT);
    const json_owned parsed(
        json_tokener_parse_ex(tokener.get(), finite.c_str(), static_cast<int>(finite.size())));
    return json_object_is_type(parsed.get(), json_type_object) &&
           json_tokener_get_parse_end(tokener.get()) == finite.size();
}

int fuzz_free_descriptor()
{
    const int descriptor = dup(STDIN_FILENO);
    FUZZ_REQUIRE(descriptor >= 0);
    close(descriptor);
    return descriptor;
}
