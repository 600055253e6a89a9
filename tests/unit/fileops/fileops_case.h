/* What the tests of the tree share: calls on a tree of their own, with the log, and calls that fail. */
#ifndef FILEOPS_CASE_H
#define FILEOPS_CASE_H

#include "common/bridge_fileops.h"
#include "common/bridge_json_helpers.h"
#include "fileops/fileops_fixture.h"

#include <cstring>
#include <string>
#include <vector>

/* Lets the call fail from its `after`-th time on, counted from 0 and from now; "" lets none fail. Files whose
 * name begins with "stuck" are never deleted from a directory. */
void fileops_fail(const char *call, int after = 0);

class Fileops : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(bridge_log_init(BRIDGE_LOG_TRACE, true), 0);
    }
    void TearDown() override
    {
        fileops_fail("");
    }

    /* The call's result, with what it logged in `logged`, the messages of the levels in `levels`. */
    template <typename Call> int run(Call call, const char *levels = "ERROR WARN INFO")
    {
        captured_stderr log;
        const int rc = call();
        text = log.text();
        logged.clear();
        for (const std::string &message : messages(text)) {
            if (strstr(levels, message.substr(0, message.find(' ')).c_str()) != nullptr)
                logged.push_back(message);
        }
        return rc;
    }

    int list(const char *path)
    {
        const json_owned items(json_object_new_array());
        const int rc = run([&] { return bridge_fileops_scandir_to_existing_json(root, path, items.get()); });
        listed.clear();
        for (size_t i = 0; i < json_object_array_length(items.get()); i++)
            listed.emplace_back(json_object_to_json_string_ext(json_object_array_get_idx(items.get(), i),
                                                               JSON_C_TO_STRING_PLAIN));
        return rc;
    }

    int make_links(const char *json, const char *target = "logs_bkp")
    {
        const json_owned paths(json_tokener_parse(json));
        return run([&] { return bridge_fileops_create_hardlinks_from_json(root, paths.get(), target); });
    }

    /* The row that a path finds, as "name -> real path". */
    std::string found(const std::string &path)
    {
        const bridge_fileops_entry *entry = nullptr;
        run([&] {
            entry = bridge_fileops_find_entry(root, path.c_str());
            return 0;
        });
        if (entry == nullptr)
            return "none";
        if (entry->type == BRIDGE_FILEOPS_DIR)
            return entry->name;
        return std::string(entry->name) + " -> " + entry->real_path;
    }

    temporary_folder real;
    fileops_tree tree{real};
    const bridge_fileops_entry *root = &tree.root;
    std::vector<std::string> logged;
    std::string text;
    std::vector<std::string> listed;
};

#endif
