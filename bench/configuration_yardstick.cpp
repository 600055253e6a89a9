/* The floor under a document of filter rules: the same JSON library and the same files, and of the daemon's
 * work only what no program could leave out. Reads each document, stores its rules as numbers, in their order
 * and in one write, keeps the timestamp, reads the file back and makes the report. Prints what a document
 * takes; the last report is left in a file. Usage: bench_configuration_yardstick FOLDER COUNT DOCUMENT... */
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <json-c/json.h>
#include <memory>
#include <span>
#include <string>
#include <unistd.h>
#include <vector>

static constexpr size_t NUMBERS_MAX = 4;

struct json_release {
    void operator()(json_object *object) const
    {
        json_object_put(object);
    }
};
using json_owned = std::unique_ptr<json_object, json_release>;

struct filter_rule {
    uint64_t id;
    const char *action; /* the document's */
    std::array<uint64_t, NUMBERS_MAX> numbers;
};

struct filter_list {
    const char *key;
    std::span<const char *const> numbers;
    int digits;
};

static constexpr const char *DEVADDR_NUMBERS[] = {"start", "end"};
static constexpr const char *JOINREQ_NUMBERS[] = {"devEUI_Start", "devEUI_End", "joinEUI_Start",
                                                  "joinEUI_End"};
static constexpr filter_list LISTS[] = {
    {"devAddrList", DEVADDR_NUMBERS, 8},
    {"joinReqList", JOINREQ_NUMBERS, 16},
};

struct files {
    std::string filter;
    std::string timestamp;
    std::string report;
};

[[noreturn]] static void fail(const char *what)
{
    fprintf(stderr, "bench_configuration_yardstick: %s: %m\n", what);
    exit(1);
}

static json_object *member(json_object *object, const char *key)
{
    json_object *value = nullptr;
    if (!json_object_object_get_ex(object, key, &value) || value == nullptr)
        fail(key);
    return value;
}

static int64_t clock_ns(clockid_t clock)
{
    timespec now = {};
    clock_gettime(clock, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

/* ---- a document ---- */

static std::vector<filter_rule> read_rules(json_object *array, const filter_list &list)
{
    std::vector<filter_rule> rules(json_object_array_length(array));
    for (size_t i = 0; i < rules.size(); i++) {
        json_object *element = json_object_array_get_idx(array, i);
        rules[i].id = json_object_get_uint64(member(element, "ruleId"));
        rules[i].action = json_object_get_string(member(element, "action"));
        for (size_t k = 0; k < list.numbers.size(); k++)
            rules[i].numbers[k] =
                strtoull(json_object_get_string(member(element, list.numbers[k])), nullptr, 16);
    }
    std::sort(rules.begin(), rules.end(),
              [](const filter_rule &left, const filter_rule &right) { return left.id < right.id; });
    return rules;
}

static json_object *make_array(const std::vector<filter_rule> &rules, const filter_list &list)
{
    json_object *array = json_object_new_array_ext(static_cast<int>(rules.size()));
    for (const filter_rule &rule : rules) {
        json_object *element = json_object_new_object();
        json_object_object_add(element, "ruleId", json_object_new_uint64(rule.id));
        json_object_object_add(element, "action", json_object_new_string(rule.action));
        for (size_t k = 0; k < list.numbers.size(); k++)
            json_object_object_add(element, list.numbers[k], json_object_new_uint64(rule.numbers[k]));
        json_object_array_add(array, element);
    }
    return array;
}

static void store(const files &paths, json_object *section, int64_t timestamp)
{
    const json_owned content(json_object_new_object());
    for (const filter_list &list : LISTS)
        json_object_object_add(content.get(), list.key,
                               make_array(read_rules(member(section, list.key), list), list));
    if (json_object_to_file_ext(paths.filter.c_str(), content.get(), JSON_C_TO_STRING_PLAIN) < 0)
        fail("the filter file");

    const int fd = open(paths.timestamp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0660);
    if (fd < 0 || write(fd, &timestamp, sizeof(timestamp)) != sizeof(timestamp) || fsync(fd) < 0)
        fail("the timestamp");
    close(fd);
}

static void show_numbers(json_object *array, const filter_list &list)
{
    for (size_t i = 0; i < json_object_array_length(array); i++) {
        json_object *element = json_object_array_get_idx(array, i);
        for (const char *key : list.numbers) {
            char text[NUMBERS_MAX * 8];
            const unsigned long long number = json_object_get_uint64(member(element, key));
            snprintf(text, sizeof(text), "%0*llX", list.digits, number);
            json_object_object_add(element, key, json_object_new_string(text));
        }
    }
}

static json_owned report(const files &paths)
{
    json_object *value = json_object_from_file(paths.filter.c_str());
    for (const filter_list &list : LISTS)
        show_numbers(member(value, list.key), list);
    json_object *section = json_object_new_object();
    json_object_object_add(section, "value", value);
    json_object *content = json_object_new_object();
    json_object_object_add(content, "loraTrafficFilter", section);
    json_owned root(json_object_new_object());
    json_object_object_add(root.get(), "content", content);
    return root;
}

static std::string work_on(const files &paths, const std::string &payload)
{
    const json_owned document(json_tokener_parse(payload.c_str()));
    store(paths, member(member(document.get(), "content"), "loraTrafficFilter"),
          json_object_get_int64(member(document.get(), "timestamp")));
    const json_owned root = report(paths);
    return json_object_to_json_string_ext(root.get(), JSON_C_TO_STRING_PLAIN);
}

/* ---- the run ---- */

static std::string read_file(const char *path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        fail(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

int main(int argc, char **argv)
{
    if (argc < 4) {
        fprintf(stderr, "usage: %s FOLDER COUNT DOCUMENT...\n", argv[0]);
        return 1;
    }
    const std::string folder = argv[1];
    const files paths = {folder + "/filter", folder + "/timestamp", folder + "/report"};
    const size_t count = strtoul(argv[2], nullptr, 10);
    std::vector<std::string> payloads;
    for (int i = 3; i < argc; i++)
        payloads.push_back(read_file(argv[i]));

    std::string last;
    const int64_t cpu_begin = clock_ns(CLOCK_PROCESS_CPUTIME_ID);
    printf("{\"ms\":[");
    for (size_t i = 0; i < count; i++) {
        const int64_t begin = clock_ns(CLOCK_MONOTONIC);
        last = work_on(paths, payloads[i % payloads.size()]);
        printf("%s%.4f", i > 0 ? "," : "", static_cast<double>(clock_ns(CLOCK_MONOTONIC) - begin) / 1e6);
    }
    const int64_t cpu = clock_ns(CLOCK_PROCESS_CPUTIME_ID) - cpu_begin;
    printf("],\"cpu_ms\":%.4f}\n", static_cast<double>(cpu) / 1e6 / static_cast<double>(count));
    std::ofstream(paths.report, std::ios::binary) << last;
    return 0;
}
