/* The guide from one form of the file to the other keeps its word: its table names the right keys, and its
 * two examples are the same configuration. */
#include "common/bridge_config.h"
#include "config/captured_log.h"
#include "config/config_folder.h"

#include <array>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

using testing::IsEmpty;
using testing::SizeIs;

static constexpr size_t LEGACY_KEYS = 29;

struct table_row {
    std::string old_key;
    std::string section;
    std::string new_key;
    std::string value;
};

static std::string guide()
{
    const std::ifstream file(MOVING_GUIDE);
    std::ostringstream content;
    content << file.rdbuf();
    EXPECT_FALSE(content.str().empty()) << MOVING_GUIDE;
    return content.str();
}

/* What stands between the marks of the cell, "`[ns]`" or "text, required", up to its first word's end. */
static std::string word_of(const std::string &cell)
{
    const size_t begin = cell.find_first_not_of(" `[");
    return begin != std::string::npos ? cell.substr(begin, cell.find_first_of(" `],;", begin) - begin) : "";
}

static std::vector<table_row> table_rows(const std::string &text)
{
    std::vector<table_row> rows;
    std::istringstream input(text);
    for (std::string line; std::getline(input, line);) {
        if (!line.starts_with("| `") || line.find("` | `[") == std::string::npos)
            continue;
        std::istringstream cells(line.substr(1));
        std::array<std::string, 4> cell;
        for (std::string &each : cell)
            std::getline(cells, each, '|');
        rows.push_back({word_of(cell[0]), word_of(cell[1]), word_of(cell[2]), word_of(cell[3])});
    }
    return rows;
}

/* The content of the guide's first block in this language. */
static std::string example(const std::string &text, std::string_view language)
{
    const std::string start = join({"```", language, "\n"});
    const size_t from = text.find(start);
    EXPECT_NE(from, std::string::npos);
    if (from == std::string::npos)
        return "";
    const size_t begin = from + start.size();
    return text.substr(begin, text.find("```", begin) - begin);
}

class MovingGuide : public testing::Test
{
  protected:
    /* The record that the file leads to; `complaints` tells what was wrong with it. */
    std::vector<std::string> load(std::string_view name, std::string_view content)
    {
        const captured_log log;
        const std::string path = folder.write(name, content);
        const bridge_args args = {.config_path = path.c_str()};
        const int result = bridge_config_load(&args);
        EXPECT_EQ(result, 0) << content;
        complaints = log.complaints();
        if (result < 0)
            return {};
        const std::vector<std::string> record = describe(*bridge_config_get_root_checked());
        bridge_config_unload();
        return record;
    }

    config_folder folder;
    std::vector<std::string> complaints;
};

TEST_F(MovingGuide, ExamplesAreTheSameConfiguration)
{
    const std::string text = guide();
    const std::vector<std::string> old_record = load("bridge.conf", example(text, "conf"));
    EXPECT_THAT(complaints, IsEmpty());
    EXPECT_EQ(load("bridge.toml", example(text, "toml")), old_record);
    EXPECT_THAT(complaints, IsEmpty());
}

TEST_F(MovingGuide, ExampleHasEveryKeyOfTheTable)
{
    const std::string text = guide();
    const std::vector<table_row> rows = table_rows(text);
    EXPECT_THAT(rows, SizeIs(LEGACY_KEYS));
    const std::string old_file = example(text, "conf");
    const std::string new_file = example(text, "toml");
    for (const table_row &row : rows) {
        EXPECT_NE(old_file.find(join({"\n", row.old_key, " "})), std::string::npos) << row.old_key;
        EXPECT_NE(new_file.find(join({"\n", row.new_key, " = "})), std::string::npos) << row.new_key;
    }
}

TEST_F(MovingGuide, TableNamesTheKeysOfOneValueInBothForms)
{
    /* Neither default nor empty, and a dialect where one is asked for. */
    const auto sample = [](const table_row &row, bool quoted) {
        if (row.value == "number")
            return std::string("7");
        if (row.value == "flag")
            return std::string(quoted ? "true" : "1");
        const std::string_view word = row.old_key == "ns_type" ? "chirpstack" : "sample";
        return quoted ? join({"\"", word, "\""}) : std::string(word);
    };
    const std::vector<std::string> defaults =
        load("bridge.toml", "[generic]\nclient_id = \"x\"\ngw_mac = \"x\"\n");
    for (const table_row &row : table_rows(guide())) {
        SCOPED_TRACE(row.old_key);
        std::string old_file = join({row.old_key, " ", sample(row, false), "\n"});
        std::string generic;
        for (const auto &[old_key, new_key] :
             {std::pair{"client_id", "client_id"}, {"gateway_mac", "gw_mac"}}) {
            if (row.old_key == old_key)
                continue;
            old_file += join({old_key, " x\n"});
            generic += join({new_key, " = \"x\"\n"});
        }
        if (row.old_key == "gw_geoloc_skip_secure_cert")
            old_file += "geoloc_topic gateway/geoloc\n";
        const std::string own = join({row.new_key, " = ", sample(row, true), "\n"});
        const std::string new_file = row.section == "generic"
                                         ? join({"[generic]\n", own, generic})
                                         : join({"[generic]\n", generic, "[", row.section, "]\n", own});

        const std::vector<std::string> old_record = load("bridge.conf", old_file);
        EXPECT_THAT(complaints, IsEmpty());
        EXPECT_EQ(load("bridge.toml", new_file), old_record);
        EXPECT_NE(old_record, defaults);
    }
}
