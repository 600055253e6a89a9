/* The older exchange of configuration: what is asked of the agent, and of the supervisor when a document does
 * not go out. */
#include "converter/control/bridge_configs_legacy.h"

#include "common/captured_stderr.h"
#include "control/control_neighbours.h"
#include "converter/control/bridge_configs_legacy_general.h"

#include <json-c/json.h>
#include <new>
#include <sys/stat.h>
#include <thread>

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Pair;

static constexpr const char *TOPIC = "api/v1/gateway/configuration";
static constexpr const char *SELECT = "set utilConfigurationFileSelect.0=/etc/default/config.json";
static constexpr const char *QUERY = "set upgradeServerListStatus.0=100";
static constexpr const char *TABLE = "rows name=upgradeServerListName:4 type=upgradeServerListType:4 "
                                     "address=upgradeServerListAddress:4";

FAILING_CALL(void *, malloc, (size_t size), (size), nullptr)
FAILING_CALL(void *, calloc, (size_t count, size_t size), (count, size), nullptr)
FAILING_CALL(char *, strdup, (const char *text), (text), nullptr)
FAILING_NEW
FAILING_CALL(json_object *, json_object_new_object, (), (), nullptr)
FAILING_CALL(json_object *, json_object_new_string, (const char *text), (text), nullptr)
FAILING_CALL(json_object *, json_object_new_int64, (int64_t number), (number), nullptr)
FAILING_CALL(int, json_object_object_add, (json_object * object, const char *key, json_object *value),
             (object, key, value), -1)
FAILING_CALL(int, json_object_object_add_ex,
             (json_object * object, const char *key, json_object *value, unsigned options),
             (object, key, value, options), -1)
FAILING_CALL(int, json_object_array_add, (json_object * array, json_object *value), (array, value), -1)

/* ---- the gateway's file ---- */

static off_t file_size; /* negative: the file is elsewhere */

extern "C" int __wrap_stat64(const char *path, struct stat *status)
{
    EXPECT_STREQ(path, "/etc/default/config.json");
    *status = {};
    status->st_size = file_size;
    return file_size < 0 ? -1 : 0;
}

/* ---- fixture ---- */

class LegacyConfigs : public ControlTest
{
  protected:
    LegacyConfigs()
    {
        file_size = -1;
        agent.text("utilConfigurationFileContents.0", "text");
    }

    void pull(const char *type, const char *content)
    {
        const std::string payload = join({R"({"updateTs":1,"type":")", type,
                                          R"(","contentType":"c","mac":"m","content":")", content, R"("})"});
        bridge_config_pull_worker_legacy(ctx, TOPIC, payload.c_str());
    }

    log_view view = log.from_here();
};

TEST_F(LegacyConfigs, APushReadsTheFileWithinTenSecondsAndTheTable)
{
    EXPECT_EQ(bridge_config_push_launcher_legacy(ctx, TOPIC), 0);
    EXPECT_THAT(agent.calls(),
                ElementsAre(join({SELECT, " within 10000"}),
                            "text utilConfigurationFileContents.0 65000 within 10000", QUERY, TABLE));
    EXPECT_EQ(published_on(TOPIC).size(), 2U);
}

TEST_F(LegacyConfigs, AFileOfTheGatewaysOwnTellsHowMuchIsRead)
{
    file_size = 4;
    bridge_config_push_launcher_legacy(ctx, TOPIC);
    EXPECT_THAT(agent.calls(), Contains("text utilConfigurationFileContents.0 5 within 10000"));
    EXPECT_EQ(published_on(TOPIC).size(), 2U);
    agent.text("utilConfigurationFileContents.0", "texts");
    bridge_config_push_launcher_legacy(ctx, TOPIC);
    EXPECT_EQ(published_on(TOPIC).size(), 3U)
        << "a longer text is not read, and the servers follow all the same";
    EXPECT_THAT(view.complaints(), ElementsAre("ERROR failed to get configuration file contents"));
}

TEST_F(LegacyConfigs, APushThatDoesNotGoOutAsksForARestartAndTheNextIsTried)
{
    mqtt.results({-1, 0});
    EXPECT_EQ(bridge_config_push_launcher_legacy(ctx, TOPIC), 0);
    EXPECT_EQ(mqtt.publishes().size(), 2U);
    EXPECT_THAT(view.complaints(), ElementsAre("ERROR failed to publish configuration"));
    EXPECT_THAT(supervisor.taken(), ElementsAre(Pair(1, &word)));
}

TEST_F(LegacyConfigs, AListThatTheAgentDoesNotGiveIsLeftOut)
{
    agent.fail("rows ");
    bridge_config_push_launcher_legacy(ctx, TOPIC);
    EXPECT_EQ(published_on(TOPIC).size(), 1U);
    EXPECT_THAT(view.complaints(), ElementsAre("ERROR failed to get upgrade servers information"));
}

TEST_F(LegacyConfigs, TheAgentIsFreeWhileAPushWaitsForTheServer)
{
    mqtt.hold();
    std::thread pusher([this] { bridge_config_push_launcher_legacy(ctx, TOPIC); });
    ASSERT_TRUE(mqtt.wait_for_held());
    EXPECT_EQ(pthread_mutex_trylock(&context.mutex), 0);
    pthread_mutex_unlock(&context.mutex);
    mqtt.let_go();
    pusher.join();
    EXPECT_EQ(pthread_mutex_trylock(&context.mutex), 0) << "nothing is held behind it";
    pthread_mutex_unlock(&context.mutex);
}

TEST_F(LegacyConfigs, ARequestThatDoesNotGoOutAsksForARestartAndIsTheLast)
{
    mqtt.results({-1});
    EXPECT_EQ(bridge_config_get_latest_launcher_legacy(ctx, TOPIC), -1);
    EXPECT_EQ(mqtt.publishes().size(), 1U);
    const std::vector<std::string> complaints = view.complaints();
    ASSERT_EQ(complaints.size(), 1U);
    EXPECT_TRUE(
        complaints[0].starts_with(join({"ERROR Failed to publish to topic ", TOPIC, " request id "})));
    EXPECT_THAT(supervisor.taken(), ElementsAre(Pair(1, &word)));
    EXPECT_EQ(bridge_config_get_latest_launcher_legacy(ctx, TOPIC), 0);
}

TEST_F(LegacyConfigs, AResponseThatDoesNotGoOutAsksForARestart)
{
    mqtt.results({-1});
    pull("GENERAL", "eA==");
    EXPECT_THAT(agent.calls(), ElementsAre(join({SELECT, " utilConfigurationFileContents.0=x"})));
    EXPECT_THAT(view.complaints(), ElementsAre("ERROR failed to publish response"));
    EXPECT_THAT(supervisor.taken(), ElementsAre(Pair(1, &word)));
}

TEST_F(LegacyConfigs, AListIsWrittenNamesFirst)
{
    pull("UPGRADE_SERVERS", "W10="); /* [] */
    EXPECT_THAT(agent.calls(),
                ElementsAre("rows name=upgradeServerListName:4", "write rows upgradeServerListName",
                            "write rows upgradeServerListName", "set upgradeServerListStatus.0=101"));
    EXPECT_THAT(
        published_on(TOPIC),
        ElementsAre(terminated(
            R"({"content":"W10A","applyTs":1,"type":"UPGRADE_SERVERS","contentType":"c","mac":"m"})")));
    EXPECT_THAT(supervisor.taken(), IsEmpty());
}

/* ---- without memory ---- */

static constexpr const char *NO_FIELD = "ERROR failed to serialize field";
static constexpr const char *NOT_SERIALIZED = "ERROR failed to serialize configuration response";

TEST_F(LegacyConfigs, APushWithoutMemoryTellsWhatFailed)
{
    static constexpr const char *NO_BUFFER = "ERROR failed to allocate buffer for base64 data";
    const struct {
        const char *call;
        int after;
        size_t sent;
        std::vector<std::string> told;
    } rows[] = {
        {NEW, 0, 0, {"ERROR failed to allocate memory for config data container"}},
        {"strdup", 0, 0, {"ERROR failed to copy topic for config data container"}},
        {"json_object_new_object", 0, 0, {"ERROR cannot allocate root json object"}},
        {"json_object_new_object", 1, 1, {"ERROR cannot allocate root json object"}},
        {"json_object_new_int64", 0, 0, {NO_FIELD, NOT_SERIALIZED}},
        {"calloc", 0, 1, {"ERROR cannot allocate memory for configuration buffer"}},
        {"malloc", 0, 0, {NO_BUFFER, NO_BUFFER}},
        {"json_object_new_string", 2, 0, {"ERROR failed to allocate push content", NO_FIELD, NOT_SERIALIZED}},
        {"json_object_object_add", 7, 1, {"ERROR failed to add push content"}},
        {"strdup", 1, 1, {"ERROR failed to allocate response string"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(join({row.call, " ", std::to_string(row.after)}));
        const size_t before = mqtt.publishes().size();
        const log_view told = log.from_here();
        let_fail(row.call, 0, row.after);
        EXPECT_EQ(bridge_config_push_launcher_legacy(ctx, TOPIC), 0);
        let_all_pass();
        EXPECT_THAT(told.complaints(), ElementsAreArray(row.told));
        EXPECT_EQ(mqtt.publishes().size() - before, row.sent);
        EXPECT_EQ(pthread_mutex_trylock(&context.mutex), 0);
        pthread_mutex_unlock(&context.mutex);
    }
    EXPECT_THAT(supervisor.taken(), IsEmpty());
}

TEST_F(LegacyConfigs, ADocumentWithoutMemoryHasNoResponseAndTellsWhatFailed)
{
    static constexpr const char *GENERAL = "eA==";
    static constexpr const char *SERVERS = "W10=";
    const struct {
        const char *content;
        const char *call;
        int after;
        std::vector<std::string> told;
    } rows[] = {
        {GENERAL, "json_object_new_object", 0, {"ERROR cannot allocate response object"}},
        {GENERAL, "calloc", 0, {"ERROR failed to de-serialize base64 string"}},
        {GENERAL, "strdup", 0, {"ERROR failed to allocate response string"}},
        {GENERAL, "malloc", 0, {"ERROR cannot allocate memory for configuration base64 buffer"}},
        {GENERAL,
         "json_object_new_string",
         0,
         {"ERROR cannot allocate memory for configuration base64 JSON"}},
        {GENERAL,
         "json_object_object_add_ex",
         0,
         {"ERROR failed to replace content with base64 JSON object: out of memory"}},
        {GENERAL, "json_object_new_int64", 0, {NO_FIELD, NOT_SERIALIZED}},
        {SERVERS, "json_object_new_object", 1, {"ERROR failed to allocate new JSON object"}},
        {SERVERS, "json_object_new_string", 0, {NO_FIELD, "ERROR failed to allocate new JSON object"}},
        {SERVERS, "json_object_array_add", 0, {"ERROR failed to place JSON item in the list"}},
        {SERVERS, "strdup", 0, {"ERROR failed to allocate response string"}},
    };
    agent.table("upgradeServerListName", R"([{"name":"one"}])");
    for (const auto &row : rows) {
        SCOPED_TRACE(join({row.content, " ", row.call, " ", std::to_string(row.after)}));
        const log_view told = log.from_here();
        let_fail(row.call, 0, row.after);
        pull(row.content == GENERAL ? "GENERAL" : "UPGRADE_SERVERS", row.content);
        let_all_pass();
        EXPECT_THAT(told.complaints(), ElementsAreArray(row.told));
    }
    EXPECT_THAT(mqtt.publishes(), IsEmpty());
    EXPECT_THAT(supervisor.taken(), IsEmpty());
}

/* ---- assertions ---- */

using LegacyConfigsDeath = LegacyConfigs;

TEST_F(LegacyConfigsDeath, WhatIsMissingIsAsserted)
{
    char *out = nullptr;
    EXPECT_ASSERTION(bridge_config_pull_worker_legacy(nullptr, TOPIC, "{}"), "ctx");
    EXPECT_ASSERTION(bridge_config_pull_worker_legacy(ctx, nullptr, "{}"), "topic");
    EXPECT_ASSERTION(bridge_config_pull_worker_legacy(ctx, TOPIC, nullptr), "payload");
    EXPECT_ASSERTION(bridge_config_push_launcher_legacy(nullptr, TOPIC), "ctx");
    EXPECT_ASSERTION(bridge_config_push_launcher_legacy(ctx, nullptr), "topic");
    EXPECT_ASSERTION(bridge_config_get_latest_launcher_legacy(nullptr, TOPIC), "ctx != NULL");
    EXPECT_ASSERTION(bridge_config_get_latest_launcher_legacy(ctx, nullptr), "topic != NULL");
    EXPECT_ASSERTION(bridge_configs_legacy_general_write(nullptr, "x", &out), "ctx != NULL");
    EXPECT_ASSERTION(bridge_configs_legacy_general_write(ctx, nullptr, &out), "cfg != NULL");
    EXPECT_ASSERTION(bridge_configs_legacy_general_write(ctx, "x", nullptr), "out != NULL");
}

TEST_F(LegacyConfigsDeath, AFailedPublishWithoutAHandlerIsAsserted)
{
    ctx->user_handler = nullptr;
    mqtt.results({-1, -1});
    EXPECT_ASSERTION(bridge_config_push_launcher_legacy(ctx, TOPIC), "ctx->user_handler");
    EXPECT_ASSERTION(bridge_config_get_latest_launcher_legacy(ctx, TOPIC), "ctx->user_handler");
    EXPECT_ASSERTION(pull("GENERAL", "eA=="), "ctx->user_handler");
}

TEST_F(LegacyConfigsDeath, ARequestThatDoesNotFitIsAsserted)
{
    std::string long_mac(512, 'm');
    ctx->gw_mac = long_mac.data();
    EXPECT_ASSERTION(bridge_config_get_latest_launcher_legacy(ctx, TOPIC),
                     "n > 0 && n < (int)sizeof(payload)");
}
