/* Single entries of the flat form: the dump of the types that no key has today, and the assertions. */
#include "common/bridge_config_processor_legacy.cpp"

#include "common/captured_stderr.h"
#include "config/captured_log.h"

#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

static std::vector<std::string> dump(bridge_cfg_type type, void *value, bool *set_flag = nullptr,
                                     bool found = true)
{
    const captured_log log;
    const bridge_cfg_entry entry = {"key", found, type, value, 0, set_flag};
    dump_entry(&entry);
    return log.lines();
}

TEST(LegacyEntry, DumpFollowsTheType)
{
    char text_value[] = "words";
    bool flag_value = true;
    uint32_t large = 4'000'000'000;
    int32_t negative = -1;
    double fraction = 0.5;
    EXPECT_THAT(dump(CFG_TYPE_STRING, text_value),
                ElementsAre("TRACE cfg entry: [key                      ] -> words"));
    EXPECT_THAT(dump(CFG_TYPE_SECRET, text_value),
                ElementsAre("TRACE cfg entry: [key                      ] -> *****"));
    EXPECT_THAT(dump(CFG_TYPE_BOOL, &flag_value),
                ElementsAre("TRACE cfg entry: [key                      ] -> 1"));
    EXPECT_THAT(dump(CFG_TYPE_UINT, &large),
                ElementsAre("TRACE cfg entry: [key                      ] -> 4000000000"));
    EXPECT_THAT(dump(CFG_TYPE_INT, &negative),
                ElementsAre("TRACE cfg entry: [key                      ] -> 4294967295"));
    EXPECT_THAT(dump(CFG_TYPE_DOUBLE, &fraction),
                ElementsAre("TRACE cfg entry: [key                      ] -> 0.500000"));
}

TEST(LegacyEntry, DumpMarksOnlyWhatIsNeitherFoundNorKnownNorRequired)
{
    char text_value[] = "words";
    bool known = true;
    bool unknown = false;
    const std::string shown = "TRACE cfg entry: [key                      ] -> words";
    EXPECT_THAT(dump(CFG_TYPE_STRING, text_value, &unknown, false),
                ElementsAre("TRACE cfg entry: [key                      ] -> <empty>"));
    EXPECT_THAT(dump(CFG_TYPE_STRING, text_value, &unknown, true), ElementsAre(shown));
    EXPECT_THAT(dump(CFG_TYPE_STRING, text_value, &known, false), ElementsAre(shown));
    EXPECT_THAT(dump(CFG_TYPE_STRING, text_value, nullptr, false), ElementsAre(shown));
}

TEST(LegacyEntryDeath, EveryParserAssertsItsArguments)
{
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    char value[8];
    bridge_cfg_legacy_entry entry = {
        {"key", false, CFG_TYPE_STRING, value, sizeof(value), nullptr}, nullptr, {}};
    for (const auto parser : {parse_text, parse_integer, parse_unsigned, parse_port}) {
        EXPECT_ASSERTION(parser(nullptr, "1"), "entry");
        EXPECT_ASSERTION(parser(&entry, nullptr), "value_string");
    }
}

TEST(LegacyEntryDeath, EntryWithoutAParserIsAsserted)
{
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    char value[8];
    bridge_cfg_legacy_entry entries[] = {
        {{"key", false, CFG_TYPE_STRING, value, sizeof(value), nullptr}, nullptr, {}}};
    bridge_cfg_legacy_section sections[] = {{"section", entries}};
    EXPECT_ASSERTION(apply_pair(sections, "key", "1", 1), "e->parser");
    EXPECT_FALSE(apply_pair(sections, "other", "1", 1));
}

TEST(LegacyEntryDeath, DumpAssertsItsEntry)
{
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    EXPECT_ASSERTION(dump_entry(nullptr), "entry != NULL");
}
