/* The road of a request: its keys, what becomes of odd ones, and every answer that fails. */
#include "control/command_road.h"

#include "common/captured_stderr.h"

#include <json-c/json.h>

using testing::AllOf;
using testing::ElementsAre;
using testing::ExitedWithCode;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

FAILING_CALL(json_object *, json_object_new_object, (), (), nullptr)
FAILING_CALL(json_object *, json_object_new_string, (const char *text), (text), nullptr)
FAILING_CALL(json_object *, json_object_new_int64, (int64_t number), (number), nullptr)

class Cmd : public CommandRoad
{
  protected:
    static std::string unsupported(const std::string &mac, const std::string &request)
    {
        return terminated(
            join({R"({"mac":)", mac, R"(,"requestId":)", request, R"(,"error":"not_supported"})"}));
    }
};

class CmdDeath : public Cmd
{
};

/* ---- the keys ---- */

TEST_F(Cmd, ARequestWithoutOneOfItsKeysIsNotAnswered)
{
    static constexpr struct {
        const char *payload;
        const char *line;
    } rows[] = {
        {R"({})", "ERROR command string is missing"},
        {R"({"requestId":1,"params":{},"mac":"M"})", "ERROR command string is missing"},
        {R"({"Command":"ping","requestId":1,"params":{},"mac":"M"})", "ERROR command string is missing"},
        {R"({"command":"ping","params":{},"mac":"M"})", "ERROR request ID is missing"},
        {R"({"command":"ping","params":{}})", "ERROR request ID is missing"},
        {R"({"command":"ping","requestId":1,"mac":"M"})", "ERROR parameters body is missing"},
        {R"({"command":"reboot","requestId":1})", "ERROR parameters body is missing"},
        {R"({"command":"ping","requestId":1,"params":{}})", "ERROR mac address is missing"},
        {"1", "ERROR command string is missing"},
        {"[]", "ERROR command string is missing"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.payload);
        EXPECT_THAT(send(row.payload), IsEmpty());
        EXPECT_THAT(logged, ElementsAre(join({"TRACE processing command payload: ", row.payload}), row.line));
    }
    EXPECT_FALSE(ctx->reboot_pending);
}

TEST_F(Cmd, WhatIsNoJsonIsTold)
{
    const std::string deep = std::string(40, '[') + std::string(40, ']');
    const std::string rows[] = {"", "{", "x", "null", R"({"command":"ping")", R"({"command":"\ud8)", deep};
    for (const std::string &payload : rows) {
        SCOPED_TRACE(payload);
        EXPECT_THAT(send(payload), IsEmpty());
        EXPECT_THAT(logged, ElementsAre("ERROR Failed to parse incoming payload"));
    }
}

TEST_F(Cmd, AnUnknownCommandIsAnsweredWithAnErrorAndWithoutAResponse)
{
    EXPECT_THAT(command(NO_COMMAND), ElementsAre(unsupported("\"M\"", "7")));
    EXPECT_THAT(logged,
                ElementsAre(HasSubstr("TRACE processing command payload: {"), "INFO command: [isAnyoneThere]",
                            "WARN no handler defined for command: isAnyoneThere",
                            "DEBUG publishing to topic: api/v1/gateway/commands response: "
                            R"({"mac":"M","requestId":7,"error":"not_supported"})"));
}

TEST_F(Cmd, TheCommandIsComparedByItsText)
{
    static constexpr struct {
        const char *command;
        const char *name;
    } rows[] = {
        {"null", "null"},
        {"17", "17"},
        {"-0", "0"},
        {"1.50", "1.50"},
        {"1e2", "1e2"},
        {"true", "true"},
        {"[]", "[ ]"},
        {"{}", "{ }"},
        {R"(["ping"])", R"([ "ping" ])"},
        {R"({"ping":null})", R"({ "ping": null })"},
        {R"("Ping")", "Ping"},
        {R"("ping ")", "ping "},
        {R"("")", ""},
        {R"("%s%n%m")", "%s%n%m"},
        {R"("none\u0000ping")", "none"},
        {"\"\xff\xc0\"", "\xff\xc0"},
        {"9223372036854775808", "9223372036854775808"},
        {"99999999999999999999999", "18446744073709551615"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.command);
        EXPECT_THAT(send(join({R"({"command":)", row.command, R"(,"requestId":7,"params":0,"mac":"M"})"})),
                    ElementsAre(unsupported("\"M\"", "7")));
        EXPECT_TRUE(was_logged(join({"INFO command: [", row.name, "]"})));
        EXPECT_THAT(complaints, ElementsAre(join({"WARN no handler defined for command: ", row.name})));
    }
}

TEST_F(Cmd, RequestAndMacComeBackAsTheyStand)
{
    static constexpr struct {
        const char *value;
        const char *back;
    } rows[] = {
        {"null", "null"},
        {"0", "0"},
        {"-9223372036854775808", "-9223372036854775808"},
        {"-99999999999999999999", "-9223372036854775808"},
        {"18446744073709551615", "18446744073709551615"},
        {"99999999999999999999999", "18446744073709551615"},
        {"0.10", "0.10"},
        {"1e400", "1e400"},
        {"false", "false"},
        {R"("a\u0000b")", R"("a\u0000b")"},
        {R"("\u00e9\"\/")", "\"\xc3\xa9\\\"\\/\""},
        {"\"\xff\xc0\"", "\"\xff\xc0\""},
        {R"([1,{"a":[null]}])", R"([1,{"a":[null]}])"},
        {"[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]",
         "[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.value);
        EXPECT_THAT(
            send(join({R"({"command":"none","requestId":)", row.value, R"(,"params":{},"mac":"M"})"})),
            ElementsAre(unsupported("\"M\"", row.back)));
        EXPECT_THAT(send(join({R"({"command":"none","requestId":7,"params":{},"mac":)", row.value, "}"})),
                    ElementsAre(unsupported(row.back, "7")));
    }
}

TEST_F(Cmd, ParamsOfAnyKindPassWhereNoneAreRead)
{
    const std::string deep = std::string(30, '[') + std::string(30, ']');
    const std::string rows[] = {"null", "0", "false", "[]", R"("text")", "{}", deep};
    for (const std::string &params : rows) {
        SCOPED_TRACE(params);
        EXPECT_THAT(command("getBackups", params), ElementsAre(answer(R"({"status":"","backups":[]})")));
    }
}

TEST_F(Cmd, TheLastOfARepeatedKeyCounts)
{
    EXPECT_THAT(send(R"({"mac":"A","command":"reboot","requestId":[1],"params":0,"command":"none",)"
                     R"("requestId":2,"requestId":3,"mac":"B"})"),
                ElementsAre(unsupported("\"B\"", "3")));
    EXPECT_FALSE(ctx->reboot_pending);
    EXPECT_THAT(
        send(R"({"command":"getBackups","requestId":1,"params":{},"mac":"M","mac":null})"),
        ElementsAre(terminated(R"({"mac":null,"requestId":1,"response":{"status":"","backups":[]}})")));
}

TEST_F(Cmd, WhatFollowsTheRequestIsNotRead)
{
    EXPECT_THAT(send(R"({"command":"none","requestId":7,"params":{},"mac":"M"}} {"command":)"),
                ElementsAre(unsupported("\"M\"", "7")));
}

TEST_F(Cmd, TheAnswerOfAHandlerStandsLast)
{
    agent.text("swBakResStatus.0", "idle");
    EXPECT_THAT(
        command("getBackups"),
        ElementsAre(terminated(R"({"mac":"M","requestId":7,"response":{"status":"idle","backups":[]}})")));
    EXPECT_THAT(logged,
                ElementsAre(HasSubstr("TRACE processing"), "INFO command: [getBackups]",
                            "TRACE reached field: status",
                            "DEBUG publishing to topic: api/v1/gateway/commands response: "
                            R"({"mac":"M","requestId":7,"response":{"status":"idle","backups":[]}})"));
}

TEST_F(Cmd, AHandlerWithoutAnAnswerLeavesTheResponseOut)
{
    agent.fail("text swBakResStatus.0");
    EXPECT_THAT(command("getBackups"), ElementsAre(answer("")));
}

/* ---- what fails ---- */

TEST_F(Cmd, AFailedPublishAsksForARestart)
{
    for (const int result : {-1, 3, -101}) {
        SCOPED_TRACE(result);
        mqtt.results({result});
        command("getBackups");
        EXPECT_THAT(complaints, ElementsAre("ERROR failed to publish response"));
        EXPECT_THAT(supervisor.taken(), ElementsAre(Pair(1, &word)));
    }
    command("getBackups");
    EXPECT_THAT(supervisor.taken(), IsEmpty());
}

TEST_F(Cmd, AFailedPublishOfAnErrorIsOnlyTold)
{
    mqtt.results({-1});
    command(NO_COMMAND);
    EXPECT_THAT(complaints, ElementsAre("WARN no handler defined for command: isAnyoneThere",
                                        "ERROR failed to publish status response"));
    EXPECT_THAT(supervisor.taken(), IsEmpty());
}

TEST_F(CmdDeath, AFailedPublishWithoutAHandlerIsAsserted)
{
    ctx->user_handler = nullptr;
    mqtt.results({-1});
    EXPECT_ASSERTION(command("getBackups"), "ctx->user_handler");
}

TEST_F(Cmd, AnAnswerThatCannotBeMadeIsTold)
{
    let_fail("json_object_new_object");
    EXPECT_THAT(command(NO_COMMAND), IsEmpty());
    EXPECT_THAT(complaints, ElementsAre("ERROR cannot allocate response object"));
    let_fail("json_object_new_string");
    EXPECT_THAT(command(NO_COMMAND), IsEmpty());
    EXPECT_THAT(complaints, ElementsAre("WARN no handler defined for command: isAnyoneThere",
                                        "ERROR failed to allocate response status"));
}

/* ---- reboot ---- */

static constexpr const char *RESET = "set lumoReset.0=1000001";

TEST_F(Cmd, ARefusedRebootIsTriedAgainAfterEachLaterCommand)
{
    agent.fail(RESET);
    size_t published_before = 0;
    waits.within = [&] { EXPECT_EQ(mqtt.publishes().size(), published_before + 1) << "the answer is out"; };
    for (const char *name : {"reboot", "getBackups", "getRadioStatistics"}) {
        SCOPED_TRACE(name);
        published_before = mqtt.publishes().size();
        const long tried = agent.count(RESET);
        EXPECT_EQ(command(name).size(), 1U);
        EXPECT_EQ(agent.count(RESET), tried + 1);
        EXPECT_THAT(waits.taken(), ElementsAre("5 s"));
        EXPECT_TRUE(was_logged("INFO waiting 5 seconds before executing reboot"));
        EXPECT_THAT(complaints, ElementsAre("ERROR cannot set reset flag"));
        EXPECT_TRUE(ctx->reboot_pending);
    }
}

TEST_F(Cmd, APendingRebootIsNotTriedAfterAnUnknownOrABrokenCommand)
{
    ctx->reboot_pending = true;
    command(NO_COMMAND);
    send("{}");
    send("{");
    EXPECT_THAT(agent.calls(), IsEmpty());
    EXPECT_THAT(waits.taken(), IsEmpty());
    EXPECT_TRUE(ctx->reboot_pending);
}

TEST_F(Cmd, ARebootIsTriedAlthoughItsAnswerIsLost)
{
    agent.fail(RESET);
    mqtt.results({-1});
    command("reboot");
    EXPECT_EQ(agent.count(RESET), 1);
    EXPECT_THAT(complaints, ElementsAre("ERROR failed to publish response", "ERROR cannot set reset flag"));
    EXPECT_THAT(supervisor.taken(), ElementsAre(Pair(1, &word)));
}

TEST_F(Cmd, NoOtherCommandReboots)
{
    command("getBackups");
    command("ping", R"({"destination":"h","packetsCount":1})");
    EXPECT_EQ(agent.count(RESET), 0);
    EXPECT_FALSE(ctx->reboot_pending);
}

TEST_F(CmdDeath, AnAcceptedRebootEndsTheProcessAfterItsAnswer)
{
    agent.loud = true;
    EXPECT_EXIT(command("reboot"), ExitedWithCode(1),
                testing::MatchesRegex(
                    "(.|\n)*command: \\[reboot\\](.|\n)*rebooting the device(.|\n)*publishing to topic: "
                    "api/v1/gateway/commands response: \\{\"mac\":\"M\",\"requestId\":7\\}(.|\n)*"
                    "waiting 5 seconds before executing reboot\nset lumoReset.0=1000001\n"));
}

TEST_F(CmdDeath, ALaterAcceptedRebootEndsTheProcess)
{
    agent.fail(RESET);
    command("reboot");
    agent.let_pass();
    agent.loud = true;
    EXPECT_EXIT(command("getBackups"), ExitedWithCode(1),
                AllOf(HasSubstr("command: [getBackups]"), HasSubstr(RESET)));
}
