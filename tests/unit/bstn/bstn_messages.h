/* Messages for the Basics Station translators, and one translation through the tables with what it logged. */
#ifndef BSTN_MESSAGES_H
#define BSTN_MESSAGES_H

#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"
#include "config/captured_log.h"
#include "converter/data/bridge_translator.h"
#include "converter/data/bridge_translator_bstn.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

static constexpr int64_t SESSION = int64_t{42} << 48;

struct translation {
    int result;
    std::string json; /* what was written, whether or not the translation succeeded */
    std::vector<std::string> log;
    uint16_t token;
};

/* The walks over the field tables log every field. */
inline bool is_walk(const std::string &line)
{
    return line.starts_with("TRACE reached field: ") || line == "TRACE unable to retrieve field" ||
           line.starts_with("TRACE Format: ") || line.starts_with("TRACE direction: ");
}

inline translation translate(bridge_direction direction, uint32_t semtech_version, std::string_view message,
                             uint16_t token = 0)
{
    const json_owned input(json_tokener_parse(std::string(message).c_str()));
    EXPECT_NE(input, nullptr) << message;
    const json_owned output(json_object_new_object());
    bridge_translate_msg semtech = {
        .mac = {1, 2, 3, 4, 5, 6, 7, 8}, .format = FORMAT_SEMTECH, .direction = direction};
    bridge_translate_msg bstn = {.format = FORMAT_BSTN, .direction = direction, .version = 1};
    semtech.version = semtech_version;
    const bool is_down = direction == DIRECTION_DOWNLINK;
    bridge_translate_msg &from = is_down ? bstn : semtech;
    bridge_translate_msg &to = is_down ? semtech : bstn;
    from.json = input.get();
    to.json = output.get();
    to.token = token;

    const captured_log log;
    errno = 0;
    translation done = {
        .result = bridge_translate_generic(&from, &to), .json = {}, .log = log.lines(), .token = to.token};
    done.json = json_object_to_json_string_ext(output.get(), JSON_C_TO_STRING_PLAIN);
    std::erase_if(done.log, is_walk);
    return done;
}

inline std::string base64(std::string_view hex)
{
    std::array<uint8_t, 1024> bytes = {};
    EXPECT_EQ(bridge_utils_hexstring_to_array(std::string(hex).c_str(), bytes.data(), bytes.size()), 0)
        << hex;
    const auto size = static_cast<int>(hex.size() / 2);
    std::string text(static_cast<size_t>(Base64encode_len(size)), '\0');
    Base64encode(text.data(), reinterpret_cast<const char *>(bytes.data()), size);
    text.pop_back(); /* the terminator */
    return text;
}

/* An uplink of either version; of keys that come twice the later one counts. */
inline std::string rxpk(uint32_t version, std::string_view data, std::string_view more = "")
{
    const std::string_view signal = version == 1 ? R"("rsig":[{"ant":1,"chan":5,"rssic":-57,"lsnr":9.25},)"
                                                   R"({"ant":2,"chan":6,"rssic":-99,"lsnr":-1.5}])"
                                                 : R"("chan":5,"rssi":-57,"lsnr":9.25)";
    return join({R"({"time":"2026-01-02T03:04:05.678901Z","tmst":3000000,"rfch":1,"freq":868.1,"stat":1,)",
                 R"("modu":"LORA","datr":"SF7BW125","codr":"4/5","size":18,)", signal, R"(,"data":")", data,
                 "\"", more, "}"});
}

/* The number under the key, as it is written; empty without the key. */
inline std::string number_of(const std::string &json, std::string_view key)
{
    const std::string start = join({"\"", key, "\":"});
    const size_t at = json.find(start);
    if (at == std::string::npos)
        return "";
    const size_t begin = at + start.size();
    return json.substr(begin, json.find_first_of(",}", begin) - begin);
}

#endif
