/* The checks of a rule, the two lists, and the section's write and read. */
#include "converter/control/bridge_configs_gw_lorafilter.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_lora_uplink_filter.h"
#include "common/bridge_utils.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_configs_gw.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <strings.h>
#include <vector>

static constexpr unsigned long long FILTER_LIST_MAX = 1024;
static constexpr unsigned long long DEVADDR_MAX = 0xFFFFFFFF;
static constexpr size_t TEXT_SIZE = 32;
static constexpr const char *ALLOW = "ALLOW";
static constexpr const char *DENY = "DENY";

static unsigned long long wide(uint64_t number)
{
    return number;
}

/* ---- values of a rule ---- */

/* What is said of a text that is no hexadecimal number of 64 bits. */
struct range_words {
    const char *not_hex;
    const char *not_converted;
};

/* An empty text is 0. Returns 0 or -22. */
static int parse_hex(const char *text, const range_words &words, uint64_t *value)
{
    if (!bridge_utils_check_hex(text, strlen(text))) {
        BRIDGE_ERROR("%s", words.not_hex);
        return -EINVAL;
    }
    errno = 0;
    const unsigned long long number = strtoull(text, nullptr, 16);
    if (number == ULLONG_MAX && errno == ERANGE) {
        BRIDGE_ERROR("%s", words.not_converted);
        return -EINVAL;
    }
    *value = number;
    return 0;
}

static bool is_action(const char *action)
{
    return strcasecmp(action, ALLOW) == 0 || strcasecmp(action, DENY) == 0;
}

/* ---- rules by address ---- */

static constexpr range_words DEVADDR_START = {"The DevAddr start range is not Hex",
                                              "Failed to convert DevAddr start range from string to integer"};
static constexpr range_words DEVADDR_END = {"The DevAddr end range is not Hex",
                                            "Failed to convert DevAddr end range from string to integer"};

static int read_devaddr_range(const char *start, const char *end, devaddr_filter_rule *rule)
{
    if (parse_hex(start, DEVADDR_START, &rule->start) < 0)
        return -EINVAL;
    rule->end = rule->start;
    if (*end != '\0' && parse_hex(end, DEVADDR_END, &rule->end) < 0)
        return -EINVAL;
    if (rule->start > DEVADDR_MAX || rule->end > DEVADDR_MAX) {
        BRIDGE_ERROR(
            "DevAddr value(start = %016llX, and/or end = %016llX) exceeds the maximum allowed %016llX",
            wide(rule->start), wide(rule->end), DEVADDR_MAX);
        return -EINVAL;
    }
    return 0;
}

/* Returns 0, or -22 after logging why the rule is refused. */
static int read_rule(json_object *element, devaddr_filter_rule *rule)
{
    char start[TEXT_SIZE] = "";
    char end[TEXT_SIZE] = "";
    const bridge_json_field frame[] = {
        field_uint("ruleId", &rule->ruleId),
        field_string("action", rule->action),
        field_string("start", start),
        field_optional(field_string("end", end)),
    };
    if (cmd_parse(element, frame) < 0) {
        BRIDGE_ERROR("unable to deserialize the DevAddr filter rule -- one or more fields likely missing in "
                     "a profile");
        return -EINVAL;
    }
    if (read_devaddr_range(start, end, rule) < 0)
        return -EINVAL;
    if (rule->ruleId == 0) {
        BRIDGE_ERROR("Invalid DevAddr filter ruleid %llu, must be 1 or greater", wide(rule->ruleId));
        return -EINVAL;
    }
    if (rule->end < rule->start) {
        BRIDGE_ERROR("Invalid DevAddr filter range: end %016llX less than start %016llX", wide(rule->end),
                     wide(rule->start));
        return -EINVAL;
    }
    if (!is_action(rule->action)) {
        BRIDGE_ERROR("Invalid DevAddr filter action: %s, must be %s or %s ", rule->action, ALLOW, DENY);
        return -EINVAL;
    }
    BRIDGE_DEBUG("DevAddr filter rule : id = %llu, action = %s, start = %llu (%08X), end = %llu (%08X)",
                 wide(rule->ruleId), rule->action, wide(rule->start), static_cast<unsigned>(rule->start),
                 wide(rule->end), static_cast<unsigned>(rule->end));
    return 0;
}

/* ---- rules by join request ---- */

struct joinreq_texts {
    char deveui_start[TEXT_SIZE];
    char deveui_end[TEXT_SIZE];
    char joineui_start[TEXT_SIZE];
    char joineui_end[TEXT_SIZE];
};

/* Either of the two starts is required. */
static int read_texts(json_object *element, bool by_deveui, joinreq_filter_rule *rule, joinreq_texts *texts)
{
    *texts = {};
    rule->action[0] = '\0';
    bridge_json_field deveui = field_string("devEUI_Start", texts->deveui_start);
    bridge_json_field joineui = field_string("joinEUI_Start", texts->joineui_start);
    deveui.optional = !by_deveui;
    joineui.optional = by_deveui;
    const bridge_json_field frame[] = {
        field_uint("ruleId", &rule->ruleId),
        field_string("action", rule->action),
        deveui,
        field_optional(field_string("devEUI_End", texts->deveui_end)),
        joineui,
        field_optional(field_string("joinEUI_End", texts->joineui_end)),
    };
    return cmd_parse(element, frame);
}

/* Without both ends the range holds everything; with a start alone, that one
 * value. */
static int read_eui_range(const char *start, const char *end, const range_words &start_words,
                          const range_words &end_words, uint64_t *first, uint64_t *last)
{
    if (parse_hex(start, start_words, first) < 0)
        return -EINVAL;
    if (*end != '\0')
        return parse_hex(end, end_words, last);
    *last = *start == '\0' ? UINT64_MAX : *first;
    return 0;
}

static constexpr range_words DEVEUI_START = {"The DevEUI start range is not Hex",
                                             "Failed to convert DevEUI start range from string to integer"};
/* The first text names the other range; servers' operators search their logs
 * for it so. */
static constexpr range_words DEVEUI_END = {"The JoinEUI end range is not Hex",
                                           "Failed to convert DevEUI end range from string to integer"};
static constexpr range_words JOINEUI_START = {"The JoinEUI start range is not Hex",
                                              "Failed to convert JoinEUI start range from string to integer"};
static constexpr range_words JOINEUI_END = {"The JoinEUI end range is not Hex",
                                            "Failed to convert JoinEUI end range from string to integer"};

static int check_joinreq(const joinreq_filter_rule &rule)
{
    if (rule.ruleId == 0) {
        BRIDGE_ERROR("Invalid JoinReq filter ruleid %llu, must be 1 or greater ", wide(rule.ruleId));
        return -EINVAL;
    }
    if (rule.devEUI_End < rule.devEUI_Start) {
        BRIDGE_ERROR("Invalid DevEUI filter range: end %016llX less than start %016llX",
                     wide(rule.devEUI_End), wide(rule.devEUI_Start));
        return -EINVAL;
    }
    if (rule.joinEUI_End < rule.joinEUI_Start) {
        BRIDGE_ERROR("Invalid JoinEUI filter range: end %016llX less than start %016llX",
                     wide(rule.joinEUI_End), wide(rule.joinEUI_Start));
        return -EINVAL;
    }
    if (!is_action(rule.action)) {
        BRIDGE_ERROR("Invalid JoinReq filter action: %s, must be %s or %s ", rule.action, ALLOW, DENY);
        return -EINVAL;
    }
    return 0;
}

static int read_rule(json_object *element, joinreq_filter_rule *rule)
{
    joinreq_texts texts;
    if (read_texts(element, true, rule, &texts) < 0) {
        BRIDGE_WARN("No proper DevEUI range -- checking for proper JoinEUI range");
        if (read_texts(element, false, rule, &texts) < 0) {
            BRIDGE_ERROR(
                "unable to deserialize the JoinReq filter rule -- one or more fields missing in a profile");
            return -EINVAL;
        }
    }
    if (read_eui_range(texts.deveui_start, texts.deveui_end, DEVEUI_START, DEVEUI_END, &rule->devEUI_Start,
                       &rule->devEUI_End) < 0 ||
        read_eui_range(texts.joineui_start, texts.joineui_end, JOINEUI_START, JOINEUI_END,
                       &rule->joinEUI_Start, &rule->joinEUI_End) < 0 ||
        check_joinreq(*rule) < 0)
        return -EINVAL;
    BRIDGE_DEBUG("JoinReq filter rule : id = %llu, action = %s, deveui_start = %llu (%llx), deveui_end = "
                 "%llu (%llx), joineui_start = %llu (%llx), joineui_end = %llu (%llx)",
                 wide(rule->ruleId), rule->action, wide(rule->devEUI_Start), wide(rule->devEUI_Start),
                 wide(rule->devEUI_End), wide(rule->devEUI_End), wide(rule->joinEUI_Start),
                 wide(rule->joinEUI_Start), wide(rule->joinEUI_End), wide(rule->joinEUI_End));
    return 0;
}

/* ---- lists ---- */

/* What tells the two lists of a request apart. */
template <typename Rule> struct list_row {
    const char *key;
    uint32_t too_long_level;
    const char *too_long;
    const char *found;
    const char *no_memory;
    const char *is_null;
    const char *not_updated;
    const char *updated;
    const char *not_found;
    void (*sort)(Rule *rules, size_t count);
    int (*update)(size_t count, const Rule *rules);
};

/* clang-format off */
static constexpr list_row<devaddr_filter_rule> DEVADDR_LIST = {
    "devAddrList", BRIDGE_LOG_WARN,
    "DevAddr list length %zu is not between 0 and %llu (both inclusive), "
    "any existing rule would be left untouched",
    "DevAddr filter array of length %zu found in the request",
    "failed to allocate buffer for the DevAddr filter list",
    "Found a NULL DevAddr list in the server request",
    "failed to update the DevAddr filter list, error = %d",
    "updated the DevAddr filter list",
    "No valid DevAddr filter list found in the server request, any existing rule would be left untouched",
    sort_devaddr_list, update_devaddr_filterlist,
};

static constexpr list_row<joinreq_filter_rule> JOINREQ_LIST = {
    "joinReqList", BRIDGE_LOG_DEBUG,
    "JoinReq array length %zu is not between 0 and %llu (both inclusive), "
    "any existing rule would be left untouched",
    "JoinReq array of length %zu found in the server request",
    "failed to allocate buffer for the JoinReq list",
    "Found a NULL JoinReq list in the server request",
    "failed to update the JoinReq filter list, error = %d",
    "updated the JoinReq filter list",
    "No valid JoinReq array found in the server message, any existing rule would be left untouched",
    sort_joinreq_list, update_joinreq_filterlist,
};
/* clang-format on */

template <typename Rule> static int update(const list_row<Rule> &row, size_t count, const Rule *rules)
{
    const int result = row.update(count, rules);
    if (result < 0) {
        BRIDGE_ERROR(row.not_updated, result);
        return -1;
    }
    BRIDGE_DEBUG("%s", row.updated);
    return 0;
}

/* A rule that is JSON null is refused like any other bad one: without it the list might let through what it
 * is to stop. */
template <typename Rule> static int read_rules(json_object *array, Rule *rules, size_t count)
{
    for (size_t i = 0; i < count; i++) {
        if (read_rule(json_object_array_get_idx(array, i), &rules[i]) < 0)
            return -EINVAL;
    }
    return 0;
}

template <typename Rule> static int write_array(const list_row<Rule> &row, json_object *array)
{
    const size_t count = json_object_array_length(array);
    if (count > FILTER_LIST_MAX) {
        bridge_log_print_message(row.too_long_level, __FILE__, __LINE__, row.too_long, count,
                                 FILTER_LIST_MAX);
        return 0;
    }
    BRIDGE_DEBUG(row.found, count);
    std::unique_ptr<Rule[]> rules;
    if (count > 0) {
        rules.reset(new (std::nothrow) Rule[count]());
        if (!rules) {
            BRIDGE_ERROR("%s", row.no_memory);
            return -ENOMEM;
        }
    }
    const int result = read_rules(array, rules.get(), count);
    if (result < 0)
        return result;
    row.sort(rules.get(), count);
    return update(row, count, static_cast<const Rule *>(rules.get()));
}

/* A list that is too long, or none, leaves the one in the file as it is.
 * Returns 0 or a negative number. */
template <typename Rule> static int write_list(const list_row<Rule> &row, json_object *cfg)
{
    json_object *list = nullptr;
    const bool is_there = json_object_object_get_ex(cfg, row.key, &list);
    if (is_there && json_object_is_type(list, json_type_array))
        return write_array(row, list);
    if (is_there && list == nullptr) {
        BRIDGE_DEBUG("%s", row.is_null);
        return update<Rule>(row, 0, nullptr);
    }
    BRIDGE_DEBUG("%s", row.not_found);
    return 0;
}

/* ---- write ---- */

/* Both lists, or the file as it was. `reply` takes what the file holds then. */
static int write_lists(converter_ctx *ctx, json_object *cfg, json_object *reply)
{
    int result = write_list(DEVADDR_LIST, cfg);
    if (result == 0)
        result = write_list(JOINREQ_LIST, cfg);
    if (result == 0) {
        remove_backup_filterlist();
        result = bridge_configs_gw_lorafilter_read(ctx, reply);
        if (result < 0)
            BRIDGE_ERROR("failed to read the current LoRa filter rule after a successful update");
    }
    rollback_filterlist(); /* finds nothing after a good update */
    remove_backup_filterlist();
    return result;
}

int bridge_configs_gw_lorafilter_write(converter_ctx *ctx, json_object *cfg, json_object *out)
{
    BRIDGE_ASSERT_TEXT(ctx != nullptr, "ctx != NULL");
    BRIDGE_ASSERT_TEXT(cfg != nullptr, "cfg != NULL");
    BRIDGE_ASSERT_TEXT(out != nullptr, "out != NULL");
    BRIDGE_DEBUG("writing LoRa filter rules configuration");
    json_owned reply(json_object_new_object());
    int result = backup_filterlist();
    if (result < 0) {
        BRIDGE_DEBUG("Unable to backup the current uplink filter rule, error = %d", result);
        result = -1;
    } else {
        result = reply ? write_lists(ctx, cfg, reply.get()) : -ENOMEM;
    }
    if (result == 0)
        return cfg_add(out, value_key, reply.release(),
                       "failed to add current filter configuration to the response");
    if (result == CFG_REPLY_FORMED) {
        BRIDGE_ERROR("Successfully added response (failure) to a LoRa filter rule write request");
        return 0;
    }
    json_object *text = json_object_new_string("LoRa filter rule write request failed");
    if (text == nullptr || json_object_object_add(out, status_key, text) < 0) {
        BRIDGE_ERROR("failed to add response to the config object [%s]", "loraTrafficFilter");
        json_object_put(text);
        return -EIO;
    }
    return result;
}

/* ---- read ---- */

/* A number of a rule, shown as text. */
struct shown_number {
    const char *key;
    const char *not_added;
};

static constexpr shown_number DEVADDR_NUMBERS[] = {
    {"start", "failed to add converted DevAddr start to the response"},
    {"end", "failed to add converted DevAddr end to the response"},
};

static constexpr shown_number JOINREQ_NUMBERS[] = {
    {"devEUI_Start", "failed to add converted DevEUI start to the response"},
    {"devEUI_End", "failed to add converted DevEUI end to the response"},
    {"joinEUI_Start", "failed to add converted JoinEUI start to the response"},
    {"joinEUI_End", "failed to add converted JoinEUI end to the response"},
};

/* Puts hexadecimal text of so many digits in place of the numbers. */
static int show_rule(json_object *rule, std::span<const shown_number> rows, int digits, const char *failure)
{
    uint64_t rule_id = 0;
    char action[TEXT_SIZE] = "";
    std::vector<uint64_t> numbers(rows.size());
    std::vector<bridge_json_field> frame = {field_uint("ruleId", &rule_id), field_string("action", action)};
    for (size_t i = 0; i < rows.size(); i++)
        frame.push_back(field_uint(rows[i].key, &numbers[i]));
    if (cmd_parse(rule, frame) < 0) {
        BRIDGE_ERROR("%s", failure);
        return -EINVAL;
    }
    for (size_t i = 0; i < rows.size(); i++) {
        char text[TEXT_SIZE];
        snprintf(text, sizeof(text), "%0*llX", digits, wide(numbers[i]));
        if (cfg_add(rule, rows[i].key, json_object_new_string(text), rows[i].not_added) < 0)
            return -ENOMEM;
    }
    return 0;
}

static int show_list(json_object *lists, const char *key, std::span<const shown_number> rows, int digits,
                     const char *failure)
{
    json_object *list = nullptr;
    if (!json_object_object_get_ex(lists, key, &list) || !json_object_is_type(list, json_type_array))
        return 0;
    for (size_t i = 0; i < json_object_array_length(list); i++) {
        const int result = show_rule(json_object_array_get_idx(list, i), rows, digits, failure);
        if (result < 0)
            return result;
    }
    return 0;
}

int bridge_configs_gw_lorafilter_read(converter_ctx *, json_object *out)
{
    json_object *content = nullptr;
    read_filterlist(&content);
    const json_owned lists(content);
    if (!lists) {
        BRIDGE_ERROR("failed to read the LoRa filter rule");
        json_object *text = json_object_new_string("Failed to read the current LoRa filter rules");
        if (text == nullptr || json_object_object_add(out, status_key, text) < 0) {
            json_object_put(text);
            return -EIO;
        }
        return CFG_REPLY_FORMED;
    }
    int result = show_list(content, "devAddrList", DEVADDR_NUMBERS, 8,
                           "unable to deserialize the DevAddr filter rule during reading");
    if (result == 0)
        result = show_list(content, "joinReqList", JOINREQ_NUMBERS, 16,
                           "unable to deserialize the JoinReq filter rule during reading");
    if (result < 0)
        return result;
    json_object_object_foreach(content, key, value)
    {
        if (json_object_object_add(out, key, json_object_get(value)) < 0) {
            BRIDGE_ERROR("failed to process LoRa filter rule read response");
            json_object_put(value);
            return -EIO;
        }
    }
    return 0;
}
