/* The older exchange of configuration: what is asked of the agent, and of the supervisor when a document does
 * not go out. */
#include "converter/control/bridge_configs_legacy.h"

#include "control/control_neighbours.h"

#include <sys/stat.h>
#include <thread>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

static constexpr const char *TOPIC = "api/v1/gateway/configuration";
static constexpr const char *SELECT = "set utilConfigurationFileSelect.0=/etc/default/config.json";
static constexpr const char *QUERY = "set upgradeServerListStatus.0=100";
static constexpr const char *TABLE = "rows name=upgradeServerListName:4 type=upgradeServerListType:4 "
                                     "address=upgradeServerListAddress:4";

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
