/* Handlers among a scripted agent: what they ask, what they answer, and what they say when a step fails. */
#include "control/command_road.h"

#include <fstream>

using testing::ElementsAre;
using testing::IsEmpty;

FAILING_CALL(void *, calloc, (size_t count, size_t size), (count, size), nullptr)

class CmdGateway : public CommandRoad
{
  protected:
    std::vector<std::string> ping(const std::string &count)
    {
        return command("ping", join({R"({"destination":"192.0.2.1","packetsCount":)", count, "}"}));
    }

    static std::string ping_error(const std::string &text)
    {
        return answer(join({R"({"error":")", text, R"("})"}));
    }
};

static constexpr const char *EXECUTE = "int utilPingExecute.0";
static constexpr const char *RECEIVED = "int utilPingReceivedCount.0";

/* ---- ping ---- */

TEST_F(CmdGateway, APingIsOneSetThenRoundsThenTheCount)
{
    agent.numbers("utilPingExecute.0", {1, 1, 0});
    agent.numbers("utilPingReceivedCount.0", {2});
    EXPECT_THAT(ping("3"), ElementsAre(answer(R"({"packets_sent":3,"packets_recv":2})")));
    EXPECT_THAT(agent.calls(),
                ElementsAre("set utilPingCount.0=3 utilPingDestination.0=192.0.2.1 utilPingExecute.0=1000001",
                            EXECUTE, EXECUTE, EXECUTE, RECEIVED));
    EXPECT_THAT(waits.taken(), ElementsAre("1 s", "1 s", "1 s"));
    EXPECT_TRUE(was_logged("INFO destination: [192.0.2.1] packets count: [3]"));
    EXPECT_THAT(complaints, IsEmpty());
}

TEST_F(CmdGateway, APingWaitsItsCountAndTenRounds)
{
    static constexpr struct {
        const char *count;
        long reads;
        const char *sent;
    } rows[] = {
        {"0", 10, "0"},    {"3", 13, "3"},    {"1", 11, "1"},      {R"("4")", 14, "4"}, {"1.9", 11, "1"},
        {"true", 11, "1"}, {"-0.5", 10, "0"}, {R"("x")", 10, "0"}, {"[]", 10, "0"},     {"{}", 10, "0"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.count);
        const long before = agent.count(EXECUTE);
        agent.numbers("utilPingExecute.0", {1000001});
        EXPECT_THAT(ping(row.count),
                    ElementsAre(answer(join({R"({"packets_sent":)", row.sent, R"(,"packets_recv":0})"}))));
        EXPECT_EQ(agent.count(EXECUTE) - before, row.reads);
        EXPECT_EQ(waits.taken(), std::vector<std::string>(static_cast<size_t>(row.reads) + 1, "1 s"));
        EXPECT_THAT(complaints, IsEmpty()) << "running out of rounds is no error";
    }
}

TEST_F(CmdGateway, TheLargestPingCountStillWaitsForTheAgent)
{
    for (const char *count : {"9223372036854775807", "9223372036854775800", "99999999999999999999999"}) {
        SCOPED_TRACE(count);
        const long before = agent.count(EXECUTE);
        agent.numbers("utilPingExecute.0", {1, 1, 0});
        ping(count);
        EXPECT_EQ(agent.count(EXECUTE) - before, 3);
    }
}

TEST_F(CmdGateway, TheTextsOfThePingGoToTheAgentAsTheyStand)
{
    static constexpr struct {
        const char *params;
        const char *set;
    } rows[] = {
        {R"({"destination":5,"packetsCount":1})", "utilPingCount.0=1 utilPingDestination.0=5"},
        {R"({"packetsCount":"07","destination":""})", "utilPingCount.0=07 utilPingDestination.0="},
        {R"({"destination":"a\u0000b","packetsCount":"1\u00002"})",
         "utilPingCount.0=1 utilPingDestination.0=a"},
        {R"({"destination":["a"],"packetsCount":1.50})",
         "utilPingCount.0=1.50 utilPingDestination.0=[ \"a\" ]"},
        {"{\"destination\":\"\xff\xc0\",\"packetsCount\":1}",
         "utilPingCount.0=1 utilPingDestination.0=\xff\xc0"},
        {R"({"destination":"a","destination":"b","packetsCount":1,"packetsCount":2})",
         "utilPingCount.0=2 utilPingDestination.0=b"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.params);
        const size_t before = agent.calls().size();
        EXPECT_EQ(command("ping", row.params).size(), 1U);
        EXPECT_EQ(agent.calls().at(before), join({"set ", row.set, " utilPingExecute.0=1000001"}));
        EXPECT_THAT(complaints, IsEmpty());
    }
}

TEST_F(CmdGateway, APingWithoutItsParamsHasNoResponse)
{
    static constexpr struct {
        const char *params;
        const char *line;
    } rows[] = {
        {"null", "ERROR destination string is missing!"},
        {"[]", "ERROR destination string is missing!"},
        {R"("192.0.2.1")", "ERROR destination string is missing!"},
        {"{}", "ERROR destination string is missing!"},
        {R"({"packetsCount":1})", "ERROR destination string is missing!"},
        {R"({"destination":null,"packetsCount":1})", "ERROR destination string is missing!"},
        {R"({"destination":"h"})", "ERROR packets count is not specified!!"},
        {R"({"destination":"h","packetscount":1})", "ERROR packets count is not specified!!"},
        {R"({"destination":"h","packetsCount":null})", "ERROR packets count is not specified!!"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.params);
        EXPECT_THAT(command("ping", row.params), ElementsAre(answer("")));
        EXPECT_THAT(complaints, ElementsAre(row.line));
    }
    EXPECT_THAT(agent.calls(), IsEmpty());
}

TEST_F(CmdGateway, ANegativePingCountIsRefused)
{
    for (const char *count : {"-1", R"("-1")", "-1.5", "-9223372036854775808", "-99999999999999999999"}) {
        SCOPED_TRACE(count);
        EXPECT_THAT(ping(count), ElementsAre(ping_error("invalid ping packets count")));
        EXPECT_THAT(complaints, ElementsAre("ERROR invalid ping packets count"));
    }
    EXPECT_THAT(agent.calls(), IsEmpty());
}

TEST_F(CmdGateway, APingTellsWhichStepFailed)
{
    static constexpr struct {
        const char *call;
        int after;
        const char *error;
        size_t waited;
    } rows[] = {
        {"set utilPingCount.0", 0, "failed to process ping command parameters", 0},
        {EXECUTE, 0, "failed to query ping status flag", 1},
        {EXECUTE, 12, "failed to query ping status flag", 13},
        {RECEIVED, 0, "failed to get packets count", 14},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.error);
        agent.numbers("utilPingExecute.0", {1});
        agent.fail(row.call, row.after);
        EXPECT_THAT(ping("3"), ElementsAre(ping_error(row.error)));
        EXPECT_THAT(complaints, ElementsAre(join({"ERROR ", row.error})));
        EXPECT_EQ(waits.taken().size(), row.waited);
    }
}

TEST_F(CmdGateway, APingAnswerThatCannotBeMadeIsTold)
{
    static constexpr struct {
        const char *call;
        int after;
        const char *error;
    } rows[] = {
        {"json_object_new_int64", 0, "cannot create packet sent json object"},
        {"json_object_new_int64", 1, "cannot create recv json object"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.error);
        let_fail(row.call, 0, row.after);
        EXPECT_THAT(ping("1"), ElementsAre(ping_error(row.error)));
        EXPECT_THAT(complaints, ElementsAre(join({"ERROR ", row.error})));
    }
    let_fail("json_object_new_object", 0, 1);
    EXPECT_THAT(ping("1"), ElementsAre(answer("")));
    EXPECT_THAT(complaints, ElementsAre("ERROR failed to allocate response object"));
    let_fail("json_object_new_string");
    EXPECT_THAT(ping("-1"), ElementsAre(answer("")));
    EXPECT_THAT(complaints, ElementsAre("ERROR invalid ping packets count", "ERROR failed to serialize field",
                                        "ERROR failed to serialize status string"));
    let_fail("json_object_new_object", 0, 1);
    EXPECT_THAT(ping("-1"), ElementsAre(answer("")));
    EXPECT_THAT(complaints,
                ElementsAre("ERROR invalid ping packets count", "ERROR failed to allocate status object"));
}

/* ---- backups ---- */

static constexpr const char *BACKUP_ROWS =
    "rows description=swRestorePointDescription:4 date=swRestorePointDate:4";

TEST_F(CmdGateway, BackupsAreReadAfterTheirStatusAndNumberedFrom0)
{
    agent.text("swBakResStatus.0", "a \"status\"");
    agent.table("swRestorePointDescription",
                R"([{"description":"factory","date":"1"},{"description":"","date":"2"}])");
    EXPECT_THAT(command("getBackups"), ElementsAre(answer(R"({"status":"a \"status\"","backups":[)"
                                                          R"({"description":"factory","date":"1","index":0},)"
                                                          R"({"description":"","date":"2","index":1}]})")));
    EXPECT_THAT(agent.calls(), ElementsAre("text swBakResStatus.0 64", BACKUP_ROWS));
}

TEST_F(CmdGateway, BackupsThatCannotBeReadLeaveTheResponseOut)
{
    static constexpr struct {
        const char *call;
        const char *line;
    } rows[] = {
        {"text swBakResStatus.0", "ERROR failed to get backup status"},
        {BACKUP_ROWS, "ERROR failed to get backup information"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.call);
        agent.fail(row.call);
        EXPECT_THAT(command("getBackups"), ElementsAre(answer("")));
        EXPECT_THAT(complaints, ElementsAre(row.line));
    }
    agent.let_pass();
    agent.text("swBakResStatus.0", std::string(64, 's'));
    EXPECT_THAT(command("getBackups"), ElementsAre(answer("")));
    EXPECT_THAT(complaints, ElementsAre("ERROR failed to get backup status")) << "63 characters fit";
}

TEST_F(CmdGateway, BackupsThatCannotBeWrittenOutLeaveTheResponseOut)
{
    agent.table("swRestorePointDescription", R"([{"description":"","date":""},{}])");
    let_fail("json_object_new_int64", 0, 1);
    EXPECT_THAT(command("getBackups"), ElementsAre(answer("")));
    EXPECT_THAT(complaints, ElementsAre("ERROR failed to allocate backup index"));
    let_fail("json_object_new_object", 0, 1);
    EXPECT_THAT(command("getBackups"), ElementsAre(answer("")));
    EXPECT_THAT(complaints, ElementsAre("ERROR failed to allocate status object",
                                        "ERROR failed to allocate backup status string"));
}

/* ---- making and restoring one ---- */

TEST_F(CmdGateway, ActionsAreOneSetAndHaveNoResponse)
{
    static constexpr struct {
        const char *command;
        const char *params;
        const char *set;
    } rows[] = {
        {"createBackup", R"({"description":"before 5.2"})",
         "set swBackupDescription.0=before 5.2 swBackupExecute.0=1000001"},
        {"createBackup", R"({"description":7})", "set swBackupDescription.0=7 swBackupExecute.0=1000001"},
        {"createBackup", R"({"description":""})", "set swBackupDescription.0= swBackupExecute.0=1000001"},
        {"restoreBackup", R"({"index":2})",
         "set swRestorePointSelected.0=int:2 swRestorePointExecute.0=1000001"},
        {"restoreBackup", R"({"index":-99999999999999999999})",
         "set swRestorePointSelected.0=int:-9223372036854775808 swRestorePointExecute.0=1000001"},
        {"resetRadioStatisticsCounters", "null", "set radioStatisticsResetCounters.0=1000001"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.set);
        const size_t before = agent.calls().size();
        EXPECT_THAT(command(row.command, row.params), ElementsAre(answer("")));
        EXPECT_EQ(agent.calls().size(), before + 1);
        EXPECT_EQ(agent.calls().back(), row.set);
        EXPECT_THAT(complaints, IsEmpty());
    }
}

TEST_F(CmdGateway, ActionsThatTheAgentRefusesAreTold)
{
    static constexpr struct {
        const char *command;
        const char *params;
        const char *line;
    } rows[] = {
        {"createBackup", R"({"description":"d"})", "ERROR failed to set backup properties"},
        {"restoreBackup", R"({"index":2})", "ERROR failed to set restore backup properties"},
        {"resetRadioStatisticsCounters", "{}", "ERROR failed to reset radio counters"},
    };
    agent.fail("set");
    for (const auto &row : rows) {
        EXPECT_THAT(command(row.command, row.params), ElementsAre(answer("")));
        EXPECT_THAT(complaints, ElementsAre(row.line));
    }
}

TEST_F(CmdGateway, ActionsWithoutTheirParamsAreTold)
{
    static constexpr const char *NO_DESCRIPTION = "ERROR description string is missing!";
    static constexpr const char *NO_INDEX = "ERROR can't get backup index from the request parameters";
    static constexpr struct {
        const char *command;
        const char *params;
        const char *line;
    } rows[] = {
        {"createBackup", "null", NO_DESCRIPTION},
        {"createBackup", "{}", NO_DESCRIPTION},
        {"createBackup", "[]", NO_DESCRIPTION},
        {"createBackup", R"({"description":null})", NO_DESCRIPTION},
        {"restoreBackup", "null", NO_INDEX},
        {"restoreBackup", "{}", NO_INDEX},
        {"restoreBackup", R"({"index":null})", NO_INDEX},
        {"restoreBackup", R"({"index":"2"})", NO_INDEX},
        {"restoreBackup", R"({"index":2.0})", NO_INDEX},
        {"restoreBackup", R"({"index":true})", NO_INDEX},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(join({row.command, " ", row.params}));
        EXPECT_THAT(command(row.command, row.params), ElementsAre(answer("")));
        EXPECT_THAT(complaints, ElementsAre(row.line));
    }
    EXPECT_THAT(agent.calls(), IsEmpty());
}

/* ---- position ---- */

TEST_F(CmdGateway, APositionIsAnsweredWithItsStatus)
{
    agent.numbers("gpsLatitude.0", {46});
    agent.numbers("gpsLongitude.0", {-7});
    agent.numbers("gpsAltitude.0", {400});
    EXPECT_THAT(command("getGpsCoordinates", "null"),
                ElementsAre(answer(R"({"lat":46,"long":-7,"alti":400,"status":"ok"})")));
    EXPECT_THAT(agent.calls(), ElementsAre("get gpsLatitude.0 gpsLongitude.0 gpsAltitude.0"));
    agent.fail("get");
    EXPECT_THAT(command("getGpsCoordinates"), ElementsAre(answer(R"({"status":"Input\/output error"})")));
    EXPECT_THAT(complaints, ElementsAre("ERROR failed to get SNMP table"));
}

/* ---- identity ---- */

static constexpr const char *IDENTITY =
    "get moduleName.0 moduleProductCode.0 moduleRevision.0 moduleSerialNumber.0 custGatewayId.0";

class CmdIdentity : public CmdGateway
{
  protected:
    CmdIdentity()
    {
        agent.text("moduleName.0", "name");
        agent.text("moduleProductCode.0", "code");
        agent.text("moduleRevision.0", "1.2.3");
        agent.text("moduleSerialNumber.0", "serial");
        agent.table("ipAdEntAddr", R"([{"ip_addr":"192.0.2.1","if_idx":2}])");
        agent.table("ifDescr", R"([{"if_name":"eth0","if_idx":2}])");
    }
};

TEST_F(CmdIdentity, TheInterfacesStandFirst)
{
    EXPECT_THAT(command("getGatewayInfo", "null"),
                ElementsAre(answer(
                    R"({"interfaces":{"eth0":"192.0.2.1"},"moduleName":"name","moduleProductCode":"code",)"
                    R"("moduleRevision":"1.2.3","moduleSerialNumber":"serial","custGatewayId":""})")));
    EXPECT_EQ(agent.calls().size(), 3U);
    EXPECT_EQ(agent.calls().front(), IDENTITY);
}

TEST_F(CmdIdentity, TextsThatFillTheirBuffersFailTheRead)
{
    const struct {
        const char *object;
        size_t capacity;
    } rows[] = {{"moduleName.0", 64},
                {"moduleProductCode.0", 64},
                {"moduleRevision.0", 8},
                {"moduleSerialNumber.0", 32},
                {"custGatewayId.0", 32}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.object);
        agent.text(row.object, std::string(row.capacity, 'x'));
        EXPECT_THAT(command("getGatewayInfo"), ElementsAre(answer("")));
        agent.text(row.object, std::string(row.capacity - 1, 'x'));
        EXPECT_NE(command("getGatewayInfo").at(0), answer(""));
    }
}

TEST_F(CmdIdentity, AFailureLeavesTheResponseOut)
{
    static constexpr struct {
        const char *call;
        const char *line;
    } rows[] = {
        {IDENTITY, "ERROR failed to get properties for gateway information"},
        {"rows ip_addr", "ERROR failed to get IP address information"},
        {"rows if_name", "ERROR failed to get interfaces information"},
    };
    for (const auto &row : rows) {
        agent.fail(row.call);
        EXPECT_THAT(command("getGatewayInfo"), ElementsAre(answer("")));
        EXPECT_THAT(complaints, ElementsAre(row.line));
    }
    agent.let_pass();
    for (const int after : {1, 2}) {
        let_fail("json_object_new_object", 0, after);
        EXPECT_THAT(command("getGatewayInfo"), ElementsAre(answer("")));
        EXPECT_THAT(complaints, ElementsAre("ERROR failed to create JSON interface object"));
    }
}

/* A home of its own for the key. */
class CmdPublicKey : public CmdGateway
{
  protected:
    CmdPublicKey()
    {
        if (const char *home = getenv("HOME"); home != nullptr)
            home_ = home;
        setenv("HOME", root.path.c_str(), 1);
        std::filesystem::create_directory(root.path / ".ssh");
    }
    ~CmdPublicKey() override
    {
        if (home_.empty())
            unsetenv("HOME");
        else
            setenv("HOME", home_.c_str(), 1);
    }

    void put_key(const std::string &text) const
    {
        std::ofstream(root.path / ".ssh/id_rsa.pub", std::ios::binary) << text;
    }

    temporary_root root;

  private:
    std::string home_;
};

TEST_F(CmdPublicKey, TheKeyIsAnsweredAsABareText)
{
    put_key("ssh-rsa AAAA gateway\n");
    EXPECT_THAT(command("getPublicKey", "null"), ElementsAre(answer(R"("ssh-rsa AAAA gateway\n")")));
    put_key("");
    EXPECT_THAT(command("getPublicKey"), ElementsAre(answer(R"("")")));
    put_key(std::string(20000, 'k'));
    EXPECT_THAT(command("getPublicKey"), ElementsAre(answer("\"" + std::string(20000, 'k') + "\"")));
    EXPECT_THAT(agent.calls(), IsEmpty());
}

TEST_F(CmdPublicKey, AKeyThatCannotBeReadIsTold)
{
    EXPECT_THAT(command("getPublicKey"), ElementsAre(answer("")));
    EXPECT_THAT(complaints, ElementsAre("ERROR failed to get pubkey file information"));
    put_key("key");
    let_fail("calloc");
    EXPECT_THAT(command("getPublicKey"), ElementsAre(answer("")));
    EXPECT_THAT(complaints, ElementsAre("ERROR failed to allocate memory for public key"));
    let_fail("json_object_new_string");
    EXPECT_THAT(command("getPublicKey"), ElementsAre(answer("")));
    EXPECT_THAT(complaints, ElementsAre("ERROR failed to allocate JSON object for a key"));
    let_all_pass();
    setenv("HOME", std::string(4096 - std::size("/.ssh/id_rsa.pub") + 1, 'h').c_str(), 1);
    EXPECT_THAT(command("getPublicKey"), ElementsAre(answer("")));
    EXPECT_THAT(complaints, ElementsAre("ERROR SSH key path is too long"));
    setenv("HOME", std::string(4096 - std::size("/.ssh/id_rsa.pub"), 'h').c_str(), 1);
    EXPECT_THAT(command("getPublicKey"), ElementsAre(answer("")));
    EXPECT_THAT(complaints, ElementsAre("ERROR failed to get pubkey file information")) << "4095 fit";
}

#ifndef __LP64__
TEST_F(CmdPublicKey, AKeyFileLongerThanAnyMemoryIsTold)
{
    put_key("");
    std::filesystem::resize_file(root.path / ".ssh/id_rsa.pub", UINT32_MAX); /* and a terminator */
    EXPECT_THAT(command("getPublicKey"), ElementsAre(answer("")));
    EXPECT_THAT(complaints, ElementsAre("ERROR failed to allocate memory for public key"));
}
#endif

/* ---- radio statistics ---- */

static constexpr const char *STATISTICS =
    "get radioStatisticsNumTxPackets.0 radioStatisticsNumRxPackets.0 radioStatisticsRxFineTimestamp.0 "
    "radioStatisticsRxNoFineTimestamp.0 radioStatisticsRxCrcOkPackets.0 radioStatisticsRxCrcErrPackets.0 "
    "radioStatisticsNoMatch.0";

TEST_F(CmdGateway, RadioStatisticsAreOneGetAndAnswerInItsOrder)
{
    agent.numbers("radioStatisticsNumTxPackets.0", {1});
    agent.numbers("radioStatisticsNumRxPackets.0", {-2});
    agent.numbers("radioStatisticsRxFineTimestamp.0", {2147483647});
    agent.numbers("radioStatisticsRxNoFineTimestamp.0", {4});
    agent.numbers("radioStatisticsRxCrcOkPackets.0", {5});
    agent.numbers("radioStatisticsRxCrcErrPackets.0", {6});
    EXPECT_THAT(
        command("getRadioStatistics"),
        ElementsAre(answer(R"({"numTxPackets":1,"numRxPackets":-2,"rxFineTimestamp":2147483647,)"
                           R"("rxNoFineTimestamp":4,"rxCrcOkPackets":5,"rxCrcErrPackets":6,"noMatch":0})")));
    EXPECT_THAT(agent.calls(), ElementsAre(STATISTICS));
}

TEST_F(CmdGateway, RadioStatisticsThatFailLeaveTheResponseOut)
{
    agent.fail(STATISTICS);
    EXPECT_THAT(command("getRadioStatistics"), ElementsAre(answer("")));
    EXPECT_THAT(complaints, ElementsAre("ERROR failed to get properties for radio stats"));
    agent.let_pass();
    let_fail("json_object_new_int64", 0, 3);
    EXPECT_THAT(command("getRadioStatistics"), ElementsAre(answer("")));
    EXPECT_THAT(complaints,
                ElementsAre("ERROR failed to serialize field", "ERROR failed to serialize response frame"));
    let_fail("json_object_new_object", 0, 1);
    EXPECT_THAT(command("getRadioStatistics"), ElementsAre(answer("")));
    EXPECT_THAT(complaints, ElementsAre("ERROR failed to serialize response frame"));
}

/* ---- reboot ---- */

TEST_F(CmdGateway, ARebootIsAnsweredWithoutAResponseAndNotedBefore)
{
    agent.fail("set lumoReset.0");
    waits.within = [this] { EXPECT_THAT(log.count("INFO rebooting the device"), 1); };
    EXPECT_THAT(command("reboot", "null"), ElementsAre(answer("")));
    EXPECT_THAT(waits.taken(), ElementsAre("5 s"));
}
