/* Software among a scripted agent: lists, the start of an operation, and what is told of the last one. */
#include "control/command_road.h"
#include "converter/control/bridge_cmd_state.h"

#include <fstream>

using testing::ElementsAre;
using testing::IsEmpty;

class CmdSoftware : public CommandRoad
{
  protected:
    CmdSoftware()
    {
        snprintf(configuration.generic.state_dir, sizeof(configuration.generic.state_dir), "%s",
                 root.path.c_str());
        EXPECT_EQ(bridge_cmd_state_create(), 0);
    }

    std::string state() const
    {
        std::ifstream file(root.path / "last_sw_status");
        return {std::istreambuf_iterator<char>(file), {}};
    }

    temporary_root root;
};

/* ---- lists ---- */

TEST_F(CmdSoftware, PackagesAreListedWhenTheirCountIsThere)
{
    static constexpr struct {
        const char *command;
        const char *count;
        const char *column;
        const char *failure;
    } rows[] = {
        {"getUpgradableSoftware", "upgradableListCount.0", "upgradableListComponentName",
         "ERROR failed to get upgrade packages count"},
        {"getInstallableSoftware", "installableSwListCount.0", "installableSwListComponentName",
         "ERROR failed to get installable packages count"},
    };
    static constexpr const char *PACKAGES = R"([{"name":"a","ver":"1"},{"name":"b","ver":"2"}])";
    for (const auto &row : rows) {
        SCOPED_TRACE(row.command);
        agent.table(row.column, PACKAGES);
        EXPECT_THAT(command(row.command), ElementsAre(answer(PACKAGES)));
        EXPECT_THAT(complaints, IsEmpty());

        agent.fail(join({"int ", row.count}));
        const size_t before = agent.calls().size();
        EXPECT_THAT(command(row.command), ElementsAre(answer("")));
        EXPECT_EQ(agent.calls().size(), before + 1) << "no table is asked for without a count";
        EXPECT_THAT(complaints, ElementsAre(row.failure));

        agent.fail("table");
        EXPECT_THAT(command(row.command), ElementsAre(answer("")));
        EXPECT_THAT(complaints, ElementsAre("ERROR failed to get SNMP table"));
        agent.let_pass();
    }
}

TEST_F(CmdSoftware, VersionsAreThoseOfTheKindThatIsSetFirst)
{
    agent.table("swVerName", R"([{"name":"kernel","ver":"6.1"}])");
    EXPECT_THAT(command("getSoftwareVersions", R"({"verType":2})"),
                ElementsAre(answer(R"([{"name":"kernel","ver":"6.1"}])")));
    EXPECT_THAT(agent.calls(), ElementsAre("set swVerType.0=2",
                                           "table name=swVerName:4 ver=swVerVersion:4 by swVerCount.0"));

    agent.fail("set");
    EXPECT_THAT(command("getSoftwareVersions", R"({"verType":2})"), ElementsAre(answer("")));
    EXPECT_THAT(complaints, ElementsAre("ERROR failed to set property"));
}

TEST_F(CmdSoftware, TheKindOfVersionsIsAnIntegerAndNothingElse)
{
    for (const char *params :
         {"{}", R"({"verType":"2"})", R"({"verType":2.0})", R"({"verType":null})", "null"}) {
        EXPECT_THAT(command("getSoftwareVersions", params), ElementsAre(answer(""))) << params;
        EXPECT_THAT(complaints, ElementsAre("ERROR invalid parameters supplied"));
    }
    EXPECT_THAT(agent.calls(), IsEmpty());
}

/* ---- operations ---- */

TEST_F(CmdSoftware, AnOperationThatTheAgentTakesIsTheLastOne)
{
    static constexpr struct {
        const char *command;
        const char *params;
        const char *set;
        const char *state;
        const char *name;
        const char *failure;
    } rows[] = {
        {"installSoftware", R"({"packageToInstall":"a"})",
         "set packageToInstall.0=packageToInstall:4 installStart.0=1000001", "1:install\n0:req\n", "install",
         "ERROR failed to send package install command"},
        {"upgradeSoftware", R"({"packageToUpgrade":"a"})",
         "set packageToUpgrade.0=packageToUpgrade:4 upgradeStart.0=1000001", "2:upgrade\n0:req\n", "upgrade",
         "ERROR failed to send package upgrade command"},
    };
    std::string before;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.command);
        agent.fail("set");
        EXPECT_THAT(command(row.command, row.params), ElementsAre(answer("")));
        EXPECT_THAT(complaints, ElementsAre(row.failure));
        EXPECT_EQ(state(), before) << "what did not begin is not the last one";
        agent.let_pass();

        EXPECT_THAT(command(row.command, row.params), ElementsAre(answer("")));
        EXPECT_EQ(agent.calls().back(), row.set);
        EXPECT_EQ(state(), row.state);
        agent.numbers(join({row.name, "Start.0"}), {17});
        EXPECT_THAT(command("getLastInstallUpgradeStatus"),
                    ElementsAre(answer(join({R"({"lastOperation":")", row.name, R"(","lastStatus":17})"}))));
        before = row.state;
    }
}

TEST_F(CmdSoftware, AnUpgradeOfTheGatewaysOwnFilesHasTheStatusOfAnUpgrade)
{
    context.last_sw_cmd = SW_CMD_LOCAL_UPGRADE;
    agent.numbers("upgradeStart.0", {3});
    EXPECT_THAT(command("getLastInstallUpgradeStatus"),
                ElementsAre(answer(R"({"lastOperation":"localupgrade","lastStatus":3})")));
}

TEST_F(CmdSoftware, WithoutAnOperationOrItsStatusThereIsNoResponse)
{
    EXPECT_THAT(command("getLastInstallUpgradeStatus"), ElementsAre(answer("")));
    EXPECT_THAT(complaints, ElementsAre("ERROR no software operation was performed"));
    context.last_sw_cmd = SW_CMD_INSTALL;
    agent.fail("int installStart.0");
    EXPECT_THAT(command("getLastInstallUpgradeStatus"), ElementsAre(answer("")));
    EXPECT_THAT(complaints, ElementsAre("ERROR cannot get install status",
                                        "ERROR failed to retrieve upgrade/install status"));
}

TEST_F(CmdSoftware, ProgressIsTheAgentsNumber)
{
    agent.numbers("installStart.0", {5});
    agent.numbers("upgradeStart.0", {6});
    EXPECT_THAT(command("getInstallStatus"), ElementsAre(answer("5")));
    EXPECT_THAT(command("getUpgradeStatus"), ElementsAre(answer("6")));
    agent.fail("int");
    EXPECT_THAT(command("getInstallStatus"), ElementsAre(answer("")));
    EXPECT_THAT(complaints, ElementsAre("ERROR cannot get install status"));
    EXPECT_THAT(command("getUpgradeStatus"), ElementsAre(answer("")));
    EXPECT_THAT(complaints, ElementsAre("ERROR cannot get upgrade status"));
}
