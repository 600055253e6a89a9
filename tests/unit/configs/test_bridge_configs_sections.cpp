/* Sections that programs read and write: how long each may take, and what becomes of one that takes longer.
 */
#include "common/bridge_json_helpers.h"
#include "common/captured_stderr.h"
#include "control/control_neighbours.h"
#include "converter/control/bridge_configs_gw.h"
#include "converter/control/bridge_configs_gw_lorafilter.h"
#include "converter/control/bridge_configs_gw_nw.h"
#include "converter/control/bridge_configs_gw_scripts.h"
#include "converter/control/bridge_configs_script.h"

#include <fcntl.h>
#include <json-c/json.h>

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

FAILING_CALL(json_object *, json_object_new_object, (), (), nullptr)
FAILING_CALL(json_object *, json_object_new_string, (const char *text), (text), nullptr)
FAILING_CALL(int, json_object_object_add, (json_object * object, const char *key, json_object *value),
             (object, key, value), -1)

static constexpr pid_t ENDED = 4711;
static constexpr const char *UNFINISHED = "ERROR child process wasn't completed in time";

/* ---- neighbours ---- */

static pid_t run_result;
static std::vector<std::string> runs;

pid_t cfg_run_script(const char *path, std::span<const char *const> arguments, int rounds, bool tells_rounds)
{
    std::string run = path;
    for (const char *argument : arguments)
        run.append(" ").append(argument);
    runs.push_back(run + " rounds " + std::to_string(rounds) + (tells_rounds ? " told" : ""));
    return run_result;
}

/* The files that programs and daemon share. */
static std::string answer;
static size_t handed_over;
static bool disk_is_full;

extern "C" {
FILE *__real_fopen64(const char *path, const char *mode);
FILE *__wrap_fopen64(const char *path, const char *mode)
{
    if (strcmp(path, "/tmp/snv_cfg_in.json") != 0)
        return __real_fopen64(path, mode); /* the test framework's */
    handed_over++;
    if (disk_is_full)
        return fdopen(open("/dev/full", O_WRONLY | O_CLOEXEC), "w");
    return fdopen(memfd_create("in", MFD_CLOEXEC), "w");
}

json_object *__wrap_json_object_from_file(const char *path)
{
    EXPECT_STREQ(path, "/tmp/snv_cfg_out.json");
    return json_tokener_parse(answer.c_str());
}
}

/* The other sections. */
static int network_result;

int bridge_configs_gw_nw_read(converter_ctx *, json_object *)
{
    return network_result;
}

int bridge_configs_gw_nw_write(converter_ctx *, json_object *, json_object *)
{
    return network_result;
}

int bridge_configs_gw_lorafilter_read(converter_ctx *, json_object *)
{
    return 0;
}

int bridge_configs_gw_lorafilter_write(converter_ctx *, json_object *, json_object *)
{
    return 3;
}

/* ---- fixture ---- */

class ConfigurationSections : public ControlTest
{
  protected:
    ConfigurationSections()
    {
        run_result = ENDED;
        runs.clear();
        answer = R"({"a":1})";
        handed_over = 0;
        disk_is_full = false;
        network_result = 0;
    }

    int write(const char *document)
    {
        const json_owned cfg(json_tokener_parse(document));
        out.reset(json_object_new_object());
        return bridge_configs_gw_write(ctx, cfg.get(), out.get());
    }

    int read()
    {
        out.reset(json_object_new_object());
        return bridge_configs_gw_read(ctx, out.get());
    }

    std::string text() const
    {
        return json_object_to_json_string_ext(out.get(), JSON_C_TO_STRING_PLAIN);
    }

    json_owned out;
    log_view view = log.from_here();
};

static const char *const FILES = " /tmp/snv_cfg_in.json /tmp/snv_cfg_out.json rounds ";

static std::string run_of(const char *program, const char *direction, const char *rounds)
{
    return join({"/usr/sbin/mqtt/process-cfg-", program, ".sh ", direction, FILES, rounds});
}

TEST_F(ConfigurationSections, EachProgramHasRoundsOfItsOwn)
{
    EXPECT_EQ(write(R"({"networkServer":{},"upgradeServer":{"ipkFeedURL":{}},"snmpAgent":{}})"), 0);
    EXPECT_THAT(runs, ElementsAre(run_of("ns", "write", "60"), run_of("us", "write", "5"),
                                  run_of("snmp", "write", "30")));
    runs.clear();
    EXPECT_EQ(read(), 0);
    EXPECT_THAT(runs, ElementsAre(run_of("ns", "read", "60 told"), run_of("us", "read", "5 told"),
                                  run_of("snmp", "read", "30 told")));
    runs.clear();
    EXPECT_EQ(cfg_connectivity_check_read(out.get()), 0);
    EXPECT_EQ(cfg_connectivity_check_write(out.get(), out.get()), 0);
    EXPECT_THAT(
        runs, ElementsAre(run_of("network-check", "read", "5 told"), run_of("network-check", "write", "5")));
    EXPECT_EQ(handed_over, 4U) << "reads hand nothing over";
}

TEST_F(ConfigurationSections, AWriteThatTakesLongerTakesWhatTheFileHolds)
{
    run_result = 0;
    EXPECT_EQ(write(R"({"networkServer":{},"snmpAgent":{}})"), 0);
    EXPECT_EQ(text(), R"({"networkServer":{"a":1},"snmpAgent":{"a":1}})");
    EXPECT_THAT(view.complaints(), IsEmpty());
}

TEST_F(ConfigurationSections, AReadThatTakesLongerIsAFailureAndTheFileIsLeftAlone)
{
    run_result = 0;
    EXPECT_EQ(read(), -EIO);
    EXPECT_EQ(text(), R"({"networkServer":{}})");
    EXPECT_THAT(view.complaints(), ElementsAre(UNFINISHED));
}

TEST_F(ConfigurationSections, AFeedThatTakesLongerIsToldAndTheWalkGoesOn)
{
    run_result = 0;
    out.reset(json_object_new_object());
    EXPECT_EQ(bridge_configs_gw_us_read(ctx, out.get()), 0);
    EXPECT_EQ(text(), R"({"ipkFeedURL":{"status":"unable to feed url info"}})");
    EXPECT_THAT(view.complaints(),
                ElementsAre(UNFINISHED, "ERROR failed upgrade config read for [ipkFeedURL]"));
}

TEST_F(ConfigurationSections, AProgramThatCannotBeStartedEndsTheWalkWithItsError)
{
    run_result = -EAGAIN;
    EXPECT_EQ(write(R"({"networkServer":{},"snmpAgent":{}})"), -EAGAIN);
    EXPECT_EQ(text(), R"({"networkServer":{}})");
    EXPECT_EQ(read(), -EAGAIN);
    EXPECT_EQ(text(), R"({"networkServer":{}})");
}

TEST_F(ConfigurationSections, AFullDiskIsAFailureAndNoProgramRuns)
{
    disk_is_full = true;
    EXPECT_EQ(write(R"({"networkServer":{}})"), -ENOSPC);
    EXPECT_THAT(view.complaints(), ElementsAre("ERROR failed to write new configuration"));
    EXPECT_THAT(runs, IsEmpty());
}

TEST_F(ConfigurationSections, AReplyIsAValueOrAStatus)
{
    json_object *reply = nullptr;
    int result = 5;
    add_status_key("item", &result, json_object_new_string("text"), &reply);
    out.reset(reply);
    EXPECT_EQ(result, -999);
    EXPECT_EQ(text(), R"({"status":"text"})");
    add_value_key("item", &result, json_object_new_array(), &reply);
    out.reset(reply);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(text(), R"({"value":[]})");
    EXPECT_THAT(view.lines(), IsEmpty());
}

TEST_F(ConfigurationSections, AnAnswerWithoutKeysIsASuccess)
{
    for (const char *empty : {"{}", "[]", "5", "\"text\""}) {
        answer = empty;
        EXPECT_EQ(write(R"({"snmpAgent":{}})"), ENDED) << empty;
        EXPECT_EQ(text(), R"({"snmpAgent":{}})");
    }
}

TEST_F(ConfigurationSections, AFailureOfAnySectionEndsTheWalk)
{
    network_result = -EINVAL;
    static constexpr const char *ALL = R"({"networkServer":{},"geoLocation":{},"networkConfiguration":{},)"
                                       R"("snmpAgent":{},"loraTrafficFilter":{}})";
    EXPECT_EQ(write(ALL), -EINVAL);
    EXPECT_EQ(text(), R"({"networkServer":{"a":1},"geoLocation":{},"networkConfiguration":{}})");
    EXPECT_EQ(read(), -EINVAL);
    EXPECT_EQ(text(), R"({"networkServer":{"a":1},"geoLocation":{},"networkConfiguration":{}})");
    network_result = 0;
    EXPECT_EQ(write(ALL), 3) << "the last section's result";
}

/* ---- without memory ---- */

static constexpr const char *NEW_OBJECT = "json_object_new_object";
static constexpr const char *NEW_STRING = "json_object_new_string";
static constexpr const char *ADD = "json_object_object_add";

struct memory_row {
    const char *document; /* null to read */
    const char *call;
    int after;
    int result;
    pid_t run;
    std::vector<std::string> told;
};

TEST_F(ConfigurationSections, WithoutMemoryTheWalkEndsWithItsLine)
{
    static constexpr const char *NS = R"({"networkServer":{},"geoLocation":{}})";
    static constexpr const char *SNMP = R"({"snmpAgent":{}})";
    static constexpr const char *FEED = R"({"upgradeServer":{"ipkFeedURL":{}}})";
    static constexpr const char *NOT_ADDED = "ERROR failed to add subconfig object to response";
    static constexpr const char *NO_REPLY = "ERROR failed to allocate memory for JSON response array";
    static constexpr const char *NO_OBJECT = "ERROR failed to allocate response object for [ipkFeedURL]";
    static constexpr const char *NO_STATUS = "ERROR failed to allocate response status for [ipkFeedURL]";
    static constexpr const char *NOT_EMBEDDED = "ERROR failed to embed status message for [ipkFeedURL]";
    static constexpr const char *NOT_WRITTEN = "ERROR failed upgrade config write for [ipkFeedURL]";
    static constexpr const char *NOT_READ = "ERROR failed upgrade config read for [ipkFeedURL]";
    const memory_row rows[] = {
        {NS, NEW_OBJECT, 0, -12, ENDED, {"ERROR failed to allocate [networkServer] subconfig response"}},
        {NS, NEW_OBJECT, 1, -12, ENDED, {"ERROR failed to allocate [geoLocation] subconfig response"}},
        {NS, ADD, 0, -5, ENDED, {NOT_ADDED}},
        {NS, ADD, 1, -1, ENDED, {"ERROR failed to process NS configuration response"}},
        {SNMP, ADD, 1, -1, ENDED, {"ERROR failed to process SNMP configuration write response"}},
        {FEED, NEW_OBJECT, 1, -12, ENDED, {NO_REPLY}},
        {FEED, NEW_OBJECT, 2, -12, -5, {NOT_WRITTEN, NO_OBJECT}},
        {FEED, NEW_STRING, 0, -12, -5, {NOT_WRITTEN, NO_STATUS}},
        {FEED, ADD, 1, -5, -5, {NOT_WRITTEN, NOT_EMBEDDED}},
        {FEED, ADD, 2, -5, -5, {NOT_WRITTEN, "ERROR failed to add subconfig object to the response"}},
        {FEED, ADD, 2, -5, ENDED, {"ERROR failed to add subconfig object to the response"}},
        {FEED,
         ADD,
         1,
         -5,
         ENDED,
         {"ERROR failed to process US configuration response", NOT_WRITTEN, NOT_EMBEDDED}},
        {nullptr, NEW_OBJECT, 0, -12, ENDED, {"ERROR failed to allocate [networkServer] subconfig response"}},
        {nullptr, ADD, 0, -5, ENDED, {NOT_ADDED}},
        {nullptr, ADD, 1, -1, ENDED, {"ERROR failed to process NS configuration response"}},
        {nullptr, NEW_OBJECT, 4, -12, ENDED, {NO_REPLY}},
        {nullptr,
         ADD,
         5,
         -5,
         ENDED,
         {"ERROR failed to process feed configuration response", NOT_READ, NOT_EMBEDDED}},
        {nullptr, ADD, 6, -5, ENDED, {"ERROR failed to add response to the subconfig object [ipkFeedURL]"}},
        {nullptr, ADD, 8, -1, ENDED, {"ERROR failed to process SNMP configuration read response"}},
    };
    for (const memory_row &row : rows) {
        SCOPED_TRACE(join({row.document != nullptr ? row.document : "read", " ", row.call, " ",
                           std::to_string(row.after)}));
        run_result = row.run;
        const log_view told = log.from_here();
        const json_owned cfg(row.document != nullptr ? json_tokener_parse(row.document) : nullptr);
        out.reset(json_object_new_object());
        let_fail(row.call, 0, row.after);
        const int result =
            cfg ? bridge_configs_gw_write(ctx, cfg.get(), out.get()) : bridge_configs_gw_read(ctx, out.get());
        let_all_pass();
        EXPECT_EQ(result, row.result);
        EXPECT_THAT(told.complaints(), ElementsAreArray(row.told));
    }
}

TEST_F(ConfigurationSections, ACheckOfTheNetworkWithoutMemoryIsTold)
{
    out.reset(json_object_new_object());
    for (int (*const direction)(json_object *) : {cfg_connectivity_check_read, +[](json_object *reply) {
                                                      return cfg_connectivity_check_write(reply, reply);
                                                  }}) {
        const log_view told = log.from_here();
        let_fail(ADD);
        EXPECT_EQ(direction(out.get()), -1);
        let_all_pass();
        EXPECT_THAT(told.complaints(),
                    ElementsAre("ERROR failed to process connectivity check configuration response"));
    }
}

TEST_F(ConfigurationSections, AReplyThatCannotBeFormedIsToldByItsItem)
{
    const struct {
        void (*form)(const char *, int *, json_object *, json_object **);
        const char *call;
        int result;
        const char *told;
    } rows[] = {
        {add_status_key, NEW_OBJECT, -12, "ERROR failed to allocate response object for [item]"},
        {add_status_key, ADD, -5, "ERROR failed to embed status message for [item]"},
        {add_value_key, NEW_OBJECT, -12, "ERROR failed to allocate response object for [item]"},
        {add_value_key, ADD, -5, "ERROR failed to embed write response for [item]"},
    };
    for (const auto &row : rows) {
        const log_view told = log.from_here();
        json_object *const payload = json_object_new_string("text");
        json_object *reply = nullptr;
        int result = 5;
        let_fail(row.call);
        row.form("item", &result, payload, &reply);
        let_all_pass();
        EXPECT_EQ(result, row.result);
        EXPECT_EQ(reply, nullptr);
        EXPECT_THAT(told.complaints(), ElementsAre(row.told));
    }
}

/* ---- assertions ---- */

using ConfigurationSectionsDeath = ConfigurationSections;

TEST_F(ConfigurationSectionsDeath, WhatIsMissingIsAsserted)
{
    out.reset(json_object_new_object());
    json_object *reply = nullptr;
    int result = 0;
    EXPECT_ASSERTION(bridge_configs_gw_write(nullptr, out.get(), out.get()), "ctx != NULL");
    EXPECT_ASSERTION(bridge_configs_gw_write(ctx, nullptr, out.get()), "cfg != NULL");
    EXPECT_ASSERTION(bridge_configs_gw_write(ctx, out.get(), nullptr), "out != NULL");
    EXPECT_ASSERTION(bridge_configs_gw_read(nullptr, out.get()), "ctx != NULL");
    EXPECT_ASSERTION(bridge_configs_gw_read(ctx, nullptr), "out != NULL");
    EXPECT_ASSERTION(add_status_key("item", &result, nullptr, &reply), "*err_resp != NULL");
    EXPECT_ASSERTION(add_value_key("item", &result, nullptr, &reply), "*success_resp != NULL");
}
