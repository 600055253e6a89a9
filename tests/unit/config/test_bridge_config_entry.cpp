/* Conversion and dump of one value of each type, those that no key has today included. */
#include "common/bridge_config_processor_toml.cpp"

#include "common/captured_stderr.h"
#include "config/captured_log.h"

#include <gtest/gtest.h>

using testing::ElementsAre;

/* A value of a parsed file of its own. */
class toml_value
{
  public:
    explicit toml_value(std::string_view literal)
    {
        std::string content = join({"value = ", literal, "\n"});
        const file_owned file(fmemopen(content.data(), content.size(), "r"));
        char error[PARSE_ERROR_SIZE] = "";
        content_.reset(bridge_toml_parse_file(file.get(), error, sizeof(error)));
        EXPECT_NE(content_, nullptr) << error;
    }
    const bridge_toml_raw *raw() const
    {
        /* The root of a file is a table like any other. */
        return bridge_toml_raw_in(reinterpret_cast<const bridge_toml_table *>(content_.get()), "value");
    }

  private:
    toml_owned content_;
};

class ConfigEntry : public testing::Test
{
  protected:
    /* Converts the literal for a key of this type and dumps it; returns the whole log. */
    std::vector<std::string> convert(bridge_cfg_type type, std::string_view literal)
    {
        const captured_log log;
        const toml_value value(literal);
        flag = false;
        bridge_cfg_entry entry = {"key", false, type, target(type), sizeof(text), &flag};
        result = parse_cfg_entry(value.raw(), &entry);
        if (result < 0)
            return log.lines();
        entry.found = true;
        const bridge_cfg_section section = {"section", &entry, 1};
        EXPECT_EQ(finish_entries({&section, 1}), 0);
        EXPECT_TRUE(flag);
        return log.lines();
    }

    void *target(bridge_cfg_type type)
    {
        switch (type) {
        case CFG_TYPE_BOOL:
            return &boolean;
        case CFG_TYPE_UINT:
            return &natural;
        case CFG_TYPE_INT:
            return &integer;
        case CFG_TYPE_DOUBLE:
            return &number;
        default:
            return text;
        }
    }

    int result = 0;
    bool flag = false;
    char text[8] = "";
    bool boolean = false;
    uint32_t natural = 0;
    int32_t integer = 0;
    double number = 0;
};

class ConfigEntryDeath : public ConfigEntry
{
};

#define DUMPED "TRACE cfg section: [section ], entry: [key                    ] -> "

TEST_F(ConfigEntry, EachTypeIsStoredAndDumpedInItsForm)
{
    EXPECT_THAT(convert(CFG_TYPE_STRING, "'plain'"), ElementsAre(DUMPED "plain"));
    EXPECT_THAT(convert(CFG_TYPE_SECRET, "'hidden'"), ElementsAre(DUMPED "*****"));
    EXPECT_STREQ(text, "hidden");
    EXPECT_THAT(convert(CFG_TYPE_BOOL, "true"), ElementsAre(DUMPED "1"));
    EXPECT_TRUE(boolean);
    EXPECT_THAT(convert(CFG_TYPE_UINT, "4294967297"), ElementsAre(DUMPED "1"));
    EXPECT_EQ(natural, 1U);
    EXPECT_THAT(convert(CFG_TYPE_DOUBLE, "1.5"), ElementsAre(DUMPED "1.500000"));
    EXPECT_EQ(number, 1.5);
    EXPECT_THAT(convert(CFG_TYPE_DOUBLE, "-2"), ElementsAre(DUMPED "-2.000000"));
    EXPECT_EQ(number, -2);
}

/* Signed numbers are dumped like the unsigned ones. */
TEST_F(ConfigEntry, ASignedNumberMayBeNegative)
{
    EXPECT_THAT(convert(CFG_TYPE_INT, "-1"), ElementsAre(DUMPED "4294967295"));
    EXPECT_EQ(integer, -1);
    EXPECT_THAT(convert(CFG_TYPE_INT, "4294967297"), ElementsAre(DUMPED "1"));
    EXPECT_EQ(integer, 1);
}

TEST_F(ConfigEntry, ASecretIsCutToItsField)
{
    EXPECT_THAT(convert(CFG_TYPE_SECRET, "'123456789'"), ElementsAre(DUMPED "*****"));
    EXPECT_STREQ(text, "1234567");
}

TEST_F(ConfigEntry, AValueOfAnotherTypeIsRefused)
{
    const struct {
        bridge_cfg_type type;
        const char *literal;
        const char *line;
    } rows[] = {
        {CFG_TYPE_STRING, "1", "ERROR failed to allocate TOML string for parameter: key"},
        {CFG_TYPE_SECRET, "true", "ERROR failed to allocate TOML string for parameter: key"},
        {CFG_TYPE_BOOL, "0", "ERROR failed to convert key config parameter into boolean"},
        {CFG_TYPE_UINT, "'1'", "ERROR failed to convert key config parameter into integer"},
        {CFG_TYPE_UINT, "-1", "ERROR expected unsigned type for key configuration entry"},
        {CFG_TYPE_INT, "1.5", "ERROR failed to convert key config parameter into integer"},
        {CFG_TYPE_DOUBLE, "'1.5'", "ERROR failed to convert key config parameter into double"},
        {CFG_TYPE_DOUBLE, "true", "ERROR failed to convert key config parameter into double"},
    };
    for (const auto &row : rows) {
        EXPECT_THAT(convert(row.type, row.literal), ElementsAre(row.line));
        EXPECT_EQ(result, -1) << row.line;
    }
}

TEST_F(ConfigEntry, AnUnknownValueIsDumpedAsEmpty)
{
    bridge_cfg_entry entry = {"key", false, CFG_TYPE_UINT, &natural, 0, &flag};
    const bridge_cfg_section section = {"section", &entry, 1};
    const captured_log log;
    EXPECT_EQ(finish_entries({&section, 1}), 0);
    EXPECT_FALSE(flag);
    flag = true;
    EXPECT_EQ(finish_entries({&section, 1}), 0);
    EXPECT_THAT(log.lines(), ElementsAre(DUMPED "<empty>", DUMPED "0"));
}

TEST_F(ConfigEntryDeath, FaultsOfTheProgramEndIt)
{
    const toml_value value("1");
    bridge_cfg_entry entry = {"key", false, CFG_TYPE_UINT, &natural, 0, &flag};
    bridge_cfg_entry unknown = {"key", false, static_cast<bridge_cfg_type>(6), &natural, 0, &flag};
    bridge_cfg_entry nameless = {nullptr, false, CFG_TYPE_UINT, &natural, 0, &flag};
    const bridge_cfg_section unnamed = {nullptr, &entry, 1};
    const bridge_cfg_section section = {"section", &nameless, 1};
    bridge_log_init(BRIDGE_LOG_INFO, true);
    EXPECT_ASSERTION(parse_cfg_entry(nullptr, &entry), "raw_toml");
    EXPECT_ASSERTION(parse_cfg_entry(value.raw(), nullptr), "entry");
    EXPECT_ASSERTION(parse_cfg_entry(value.raw(), &unknown), "0");
    EXPECT_ASSERTION(finish_entries({&unnamed, 1}), "s->name");
    EXPECT_ASSERTION(finish_entries({&section, 1}), "e->key");
    EXPECT_ASSERTION(bridge_config_process_toml_file(nullptr, nullptr, nullptr, 0, nullptr, 0), "path");
}
