/* The table itself, and what of a request a row hands to its handler. Includes the source. */
#include "converter/control/bridge_cmd.cpp"

#include "control/control_neighbours.h"

using testing::ElementsAre;

class CmdTable : public ControlTest
{
};

struct named_row {
    const char *command;
    bool pass_root;
};

/* clang-format off */
static constexpr named_row EXPECTED[] = {
    {"ping", false}, {"reboot", false}, {"reverseSsh", false}, {"stopReverseSsh", false},
    {"getPublicKey", false}, {"getGatewayInfo", false}, {"getBackups", false}, {"createBackup", false},
    {"restoreBackup", false}, {"getRadioStatistics", false}, {"resetRadioStatisticsCounters", false},
    {"getGpsCoordinates", false}, {"getSoftwareVersions", false}, {"getUpgradableSoftware", false},
    {"getInstallableSoftware", false}, {"upgradeSoftware", false}, {"installSoftware", false},
    {"getInstallStatus", false}, {"getUpgradeStatus", false}, {"getLastInstallUpgradeStatus", false},
    {"getBspStatus", false},
    {"getWmDeviceInformation", false}, {"getWmHomeNetworkBranch", false}, {"getWmRfInformation", false},
    {"getWmActiveProfileParameters", false}, {"getWmCallStatistics", false}, {"getWmApns", false},
    {"addWmApn", false}, {"updateWmApn", false}, {"deleteWmApn", false}, {"getWmStatusApn", false},
    {"getWmPDP_Profiles", true}, {"addWmPDP_Profiles", true}, {"modifyWmPDP_Profiles", true},
    {"removeWmPDP_Profiles", true},
    {"setSpectrumAnalyzerParams", false}, {"getSpectrumAnalyzerOutput", false},
    {"getConnectivityTypes", false}, {"setPreferredFallbackConnectivityType", false},
    {"executeSpectralScan", false}, {"getAntennasCount", false}, {"getSpectralScanProgress", false},
    {"getSpectralScanParams", false}, {"getSpectralScanResults", false},
    {"getFirewallConfiguration", false}, {"setFirewallConfiguration", false},
    {"setPreferredPingIpAddress", false}, {"getPreferredPingIpAddress", false},
    {"fileUploadStart", false}, {"fileUploadChunk", false}, {"fileUploadStop", false},
    {"getWmNetworkInfo", false}, {"setWmPreferredNetwork", false},
    {"fopsScanDir", false}, {"fopsStreamStart", true}, {"fopsStreamStop", false},
    {"fopsFetchStart", true}, {"fopsFetchStop", false}, {"fopsExecuteStart", true},
    {"fopsExecuteStop", false}, {"logRetrieveStart", false}, {"logRetrieveStop", false},
    {"getSimStatus", false},
    {"upgradeBspLocal", true}, {"getAvailableBspUpgrade", false}, {"getBspStatusString", false},
    {"getCurrentBspVersion", false},
};
/* clang-format on */

TEST_F(CmdTable, HasItsCommandsInTheirOrder)
{
    ASSERT_EQ(std::size(commands_table), std::size(EXPECTED));
    for (size_t i = 0; i < std::size(EXPECTED); i++) {
        EXPECT_STREQ(commands_table[i].command, EXPECTED[i].command) << "row " << i;
        EXPECT_EQ(commands_table[i].pass_root, EXPECTED[i].pass_root) << EXPECTED[i].command;
    }
}

TEST_F(CmdTable, EveryCommandThatIsCarriedIsFoundByItsName)
{
    int carried = 0;
    for (const command_row &row : commands_table) {
        EXPECT_EQ(find_command(row.command), row.handler != nullptr ? &row : nullptr) << row.command;
        carried += row.handler != nullptr ? 1 : 0;
    }
    EXPECT_GE(carried, 4);
    EXPECT_EQ(find_command("isAnyoneThere"), nullptr);
    EXPECT_EQ(find_command(""), nullptr);
}

static json_object *handed_over;

static void take_input(converter_ctx *, json_object *input, json_object **)
{
    handed_over = input;
}

TEST_F(CmdTable, ARowSaysWhetherItsHandlerGetsTheWholeRequest)
{
    static constexpr command_row ROWS[] = {{"params", take_input, false}, {"root", take_input, true}};
    const json_owned root(json_tokener_parse(R"({"command":"c","requestId":1,"params":{"a":2},"mac":"M"})"));
    cmd_request request = {};
    ASSERT_EQ(read_request(root.get(), &request), 0);
    for (const command_row &row : ROWS) {
        const json_owned answer(json_object_new_object());
        run_command(ctx, "topic", row, request, answer.get());
        EXPECT_EQ(handed_over, row.pass_root ? root.get() : request.params) << row.command;
    }
    EXPECT_THAT(published_on("topic"), ElementsAre(terminated("{}"), terminated("{}")));
}
