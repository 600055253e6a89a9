/* One message through the translators: JSON text in, JSON text out, and what the log says of it. */
#ifndef TRANSLATION_H
#define TRANSLATION_H

#include "common/captured_stderr.h"
#include "config/captured_log.h"
#include "converter/data/bridge_translator.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

struct dialect {
    const char *name;
    uint32_t format;
    uint32_t version;
};

inline constexpr dialect NATIVE = {"native", FORMAT_SNVNS, 1};
inline constexpr dialect CHIRPSTACK_V2 = {"ChirpStack v2", FORMAT_CHIRPSTACK, 2};
inline constexpr dialect CHIRPSTACK_V3 = {"ChirpStack v3", FORMAT_CHIRPSTACK, 3};
inline constexpr dialect DIALECTS_IN_USE[] = {NATIVE, CHIRPSTACK_V2, CHIRPSTACK_V3};
inline constexpr uint32_t SEMTECH_VERSIONS[] = {1, 2};

/* Of every uplink and statistics message here: 00:16:c0:01:ff:10:ab:cd. */
inline constexpr const char *MAC_HEX = "0016c001ff10abcd";
inline constexpr const char *MAC_BASE64 = "ABbAAf8Qq80=";

struct translated {
    int result;
    std::string json;
    uint16_t token;
    std::vector<std::string> log;

    /* The log without its TRACE lines. */
    std::vector<std::string> spoken() const;
};

translated translate_uplink(const dialect &to, uint32_t semtech_version, std::string_view rxpk);
translated translate_statistics(const dialect &to, uint32_t semtech_version, std::string_view stat);
translated translate_downlink(const dialect &from, uint32_t semtech_version, std::string_view message);

/* The JSON text with the value at the path of keys, "a.b.c", set, or taken away. */
std::string with(std::string_view json, std::string_view path, std::string_view value);
std::string without(std::string_view json, std::string_view path);

/* The text of the value at the path; "absent" without it. */
std::string member(std::string_view json, std::string_view path);

std::string json_text(std::string_view text);

/* A JSON string of `length` characters that begins with `start`. */
std::string text_of_length(size_t length, std::string_view start = "");

/* What the line of a failed read shows: the message as the library prints it. */
std::string printed(std::string_view json);

/* What rand() gives next. */
extern int next_rand;

class Translation : public testing::Test
{
  protected:
    Translation()
    {
        bridge_log_init(BRIDGE_LOG_TRACE, true);
    }
};

#endif
