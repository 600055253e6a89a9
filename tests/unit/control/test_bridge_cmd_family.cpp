/* The bodies that handlers share, called as handlers call them. */
#include "converter/control/bridge_cmd_family.h"

#include "common/bridge_json_helpers.h"
#include "common/captured_stderr.h"
#include "control/control_neighbours.h"

#include <fstream>
#include <unistd.h>

using testing::ElementsAre;
using testing::IsEmpty;

FAILING_CALL(pid_t, fork, (), (), -1)

class CmdFamily : public ControlTest
{
  protected:
    static std::string text_of(json_object *object)
    {
        const json_owned owned(object);
        return owned ? json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN) : "none";
    }
};

TEST_F(CmdFamily, ReadingMixesNumbersAndTextsInTheOrderOfTheRows)
{
    static constexpr cmd_read_row ROWS[] = {
        {"a.0", "text", PROP_TYPE_STRING, 4},
        {"b.0", "number", PROP_TYPE_INT, 0},
        {"c.0", "empty", PROP_TYPE_STRING, 1},
    };
    agent.text("a.0", "abc");
    agent.numbers("b.0", {-1});
    json_object *response = nullptr;
    cmd_read(ctx, ROWS, "failed", &response);
    EXPECT_EQ(text_of(response), R"({"text":"abc","number":-1,"empty":""})");
    EXPECT_THAT(agent.calls(), ElementsAre("get a.0 b.0 c.0"));

    agent.text("a.0", "abcd");
    response = nullptr;
    cmd_read(ctx, ROWS, "a text that does not fit", &response);
    EXPECT_EQ(response, nullptr);
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR a text that does not fit"));
}

TEST_F(CmdFamily, AMessageOfAFailedReadIsNoFormat)
{
    static constexpr cmd_read_row ROWS[] = {{"a.0", "a", PROP_TYPE_INT, 0}};
    agent.fail("get");
    json_object *response = nullptr;
    cmd_read(ctx, ROWS, "100%s", &response);
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR 100%s"));
}

TEST_F(CmdFamily, WritingIsOneSetInTheOrderOfTheRows)
{
    const int64_t number = -5;
    const bool flag = true;
    const json_owned params(json_tokener_parse(R"({"field":"f"})"));
    EXPECT_EQ(cmd_write(ctx, {cmd_text("a", "1"), cmd_text("b", ""), cmd_number("c", &number),
                              cmd_flag("d", &flag), cmd_field("e", "field", PROP_TYPE_STRING, params.get()),
                              cmd_field("f", "gone", PROP_TYPE_INT, params.get(), true),
                              cmd_text("g", CMD_TRIGGER)}),
              0);
    EXPECT_THAT(agent.calls(), ElementsAre("set a=1 b= c=int:-5 d=bool:1 e=field:4 f=gone:1? g=1000001"));
    const std::vector<bridge_snmp_write_prop> many(100, cmd_text("x", "y"));
    EXPECT_EQ(cmd_write(ctx, many), 0);
    EXPECT_EQ(agent.calls().back().size(), std::size("set") - 1 + 100 * std::size(" x=y") - 100);
    agent.fail("set");
    EXPECT_LT(cmd_write(ctx, {cmd_text("a", "1")}), 0);
}

TEST_F(CmdFamily, AStatusTextIsAnObjectOfOneKey)
{
    EXPECT_EQ(text_of(bridge_cmd_status_text("status", "a \"b\"")), R"({"status":"a \"b\""})");
    EXPECT_EQ(text_of(bridge_cmd_status_text("error", "")), R"({"error":""})");
    EXPECT_EQ(bridge_cmd_status_text("status", nullptr), nullptr);
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(CmdFamily, ErrorsAreLoggedAndAnswered)
{
    json_object *response = nullptr;
    cmd_answer_error("100%s", &response);
    EXPECT_EQ(text_of(response), R"({"error":"100%s"})");
    cmd_answer_not_supported("too old", &response);
    EXPECT_EQ(text_of(response), R"({"error":"not_supported"})");
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR 100%s", "ERROR too old"));
}

TEST_F(CmdFamily, AnErrnoIsPassedAsItStands)
{
    EXPECT_EQ(text_of(bridge_cmd_status_errno("status", 0)), R"({"status":"ok"})");
    EXPECT_EQ(text_of(bridge_cmd_status_errno("status", -5)), R"({"status":"Unknown error -5"})");
    EXPECT_EQ(text_of(bridge_cmd_status_errno("s", ENOENT)), R"({"s":"No such file or directory"})");
}

TEST_F(CmdFamily, TheVersionOfTheAgentIsPackedOnlyWithATopByte)
{
    static constexpr struct {
        long number;
        const char *version;
    } rows[] = {
        {0x05000203, "5.2.3"},
        {0x01ffff00, "1.65535.0"},
        {0x7f0100ff, "127.256.255"},
        {0x00ffffff, "0.16777215.0"},
        {12, "0.12.0"},
        {0, "0.0.0"},
        {static_cast<long>(0xff000001), "255.0.1"},
        {-16777215, "255.0.1"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.version);
        agent.numbers("agentVersion.0", {row.number});
        const log_view view = log.from_here();
        cmd_version version = {-1, -1, -1};
        EXPECT_EQ(bridge_cmd_agent_version(ctx, &version), 0);
        EXPECT_EQ(join({std::to_string(version.major), ".", std::to_string(version.minor), ".",
                        std::to_string(version.patch)}),
                  row.version);
        EXPECT_THAT(view.lines(), ElementsAre(join({"TRACE got SNMP agent version: ", row.version})));
    }
    agent.fail("int agentVersion.0");
    cmd_version untouched = {-1, -1, -1};
    EXPECT_LT(bridge_cmd_agent_version(ctx, &untouched), 0);
    EXPECT_EQ(untouched.major, -1);
}

/* ---- fields, numbers and tables ---- */

static constexpr cmd_field_row POSITION[] = {{"lat.0", "lat"}, {"long.0", "long"}};

TEST_F(CmdFamily, FieldsAreAnsweredWithTheirStatus)
{
    agent.numbers("lat.0", {47});
    agent.numbers("long.0", {-8});
    json_object *response = nullptr;
    cmd_answer_fields(ctx, POSITION, PROP_TYPE_INT, "failed", -EIO, &response);
    EXPECT_EQ(text_of(response), R"({"lat":47,"long":-8,"status":"ok"})");
    EXPECT_THAT(agent.calls(), ElementsAre("get lat.0 long.0"));
    EXPECT_THAT(log.complaints(), IsEmpty());

    agent.fail("get");
    response = nullptr;
    cmd_answer_fields(ctx, POSITION, PROP_TYPE_INT, "no position", -EIO, &response);
    EXPECT_EQ(text_of(response), R"({"status":"Input\/output error"})");
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR no position"));

    let_fail("json_object_new_object");
    response = nullptr;
    cmd_answer_fields(ctx, POSITION, PROP_TYPE_INT, "failed", -EIO, &response);
    EXPECT_EQ(response, nullptr);
    EXPECT_EQ(log.complaints().back(), "ERROR failed to allocate response object");
}

TEST_F(CmdFamily, ANumberIsAnsweredBare)
{
    json_object *response = nullptr;
    agent.numbers("a.0", {-7});
    cmd_read_number(ctx, "a.0", "not read", "not made", &response);
    EXPECT_EQ(text_of(response), "-7");
    response = nullptr;
    let_fail("json_object_new_int64");
    cmd_read_number(ctx, "a.0", "not read", "not made", &response);
    let_all_pass();
    agent.fail("int a.0");
    cmd_read_number(ctx, "a.0", "not read", "not made", &response);
    EXPECT_EQ(response, nullptr);
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR not made", "ERROR not read"));
}

TEST_F(CmdFamily, ATableIsAnsweredAsItIs)
{
    static constexpr bridge_snmp_column COLUMNS[] = {{"name", "swVerName", false, PROP_TYPE_STRING}, {}};
    agent.table("swVerName", R"([{"name":"a"}])");
    json_object *response = nullptr;
    cmd_read_table(ctx, COLUMNS, "swVerCount.0", &response);
    EXPECT_EQ(text_of(response), R"([{"name":"a"}])");
    EXPECT_THAT(agent.calls(), ElementsAre("table name=swVerName:4 by swVerCount.0"));
    agent.fail("table");
    response = nullptr;
    cmd_read_table(ctx, COLUMNS, "swVerCount.0", &response);
    EXPECT_EQ(response, nullptr);
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR failed to get SNMP table"));
}

TEST_F(CmdFamily, RowsAreNumberedFromWhereTheyAreToldTo)
{
    const json_owned table(json_tokener_parse("[{},{},{}]"));
    EXPECT_EQ(cmd_number_rows(table.get(), "n", -1), 0);
    EXPECT_STREQ(json_object_to_json_string_ext(table.get(), JSON_C_TO_STRING_PLAIN),
                 R"([{"n":-1},{"n":0},{"n":1}])");
    let_fail("json_object_new_int64", 0, 2);
    EXPECT_EQ(cmd_number_rows(table.get(), "n", 0), -1);
}

TEST_F(CmdFamily, OnlyAnIntegerIsTakenForOne)
{
    static constexpr struct {
        const char *params;
        int result;
        int64_t number;
    } rows[] = {
        {R"({"n":5})", 0, 5},     {R"({"n":-9223372036854775808})", 0, INT64_MIN},
        {R"({"n":null})", -1, 9}, {R"({"n":"5"})", -1, 9},
        {R"({"n":5.0})", -1, 9},  {R"({"n":true})", -1, 9},
        {R"({"m":5})", -1, 9},    {"[5]", -1, 9},
        {"null", -1, 9},          {R"({"n":99999999999999999999})", 0, INT64_MAX},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.params);
        const json_owned params(json_tokener_parse(row.params));
        int64_t number = 9;
        EXPECT_EQ(cmd_get_integer(params.get(), "n", &number), row.result);
        EXPECT_EQ(number, row.number);
    }
}

/* ---- the modem ---- */

static constexpr const char *AT_WORK = "Waiting for modem's response";

TEST_F(CmdFamily, TheModemIsWaitedForInSixHundredRounds)
{
    agent.text("status.0", AT_WORK);
    char text[64];
    EXPECT_EQ(cmd_wait_for_modem(ctx, "status.0", text, sizeof(text)), 0);
    EXPECT_STREQ(text, AT_WORK);
    EXPECT_EQ(waits.taken(), std::vector<std::string>(600, "200000 us"));
    EXPECT_EQ(agent.count("text status.0 64"), 600);
}

TEST_F(CmdFamily, TheModemIsWaitedForUntilItAnswers)
{
    agent.text("status.0", AT_WORK);
    int rounds = 0;
    waits.within = [&rounds] {
        if (++rounds == 3)
            agent.text("status.0", "done");
    };
    char text[64];
    const log_view view = log.from_here();
    EXPECT_EQ(cmd_wait_for_modem(ctx, "status.0", text, sizeof(text)), 0);
    EXPECT_STREQ(text, "done");
    EXPECT_EQ(rounds, 3);
    EXPECT_THAT(view.lines(), ElementsAre(join({"TRACE got status: ", AT_WORK}),
                                          join({"TRACE got status: ", AT_WORK}), "TRACE got status: done"));
    agent.fail("text status.0", 2);
    agent.text("status.0", AT_WORK);
    waits.taken();
    EXPECT_LT(cmd_wait_for_modem(ctx, "status.0", text, sizeof(text)), 0);
    EXPECT_EQ(waits.taken().size(), 3U);
}

/* ---- interfaces ---- */

static constexpr const char *ADDRESSES = "rows ip_addr=ipAdEntAddr:6 if_idx=ipAdEntIfIndex:1 by ipAdEntAddr";
static constexpr const char *INTERFACES = "rows if_name=ifDescr:4 if_idx=ifIndex:1 by ifIndex";

class CmdInterfaces : public CmdFamily
{
  protected:
    CmdInterfaces()
    {
        agent.table("ifDescr", R"([{"if_name":"lo","if_idx":1},{"if_name":"eth0","if_idx":2}])");
        agent.table("ipAdEntAddr",
                    R"([{"ip_addr":"192.0.2.1","if_idx":2},{"ip_addr":"127.0.0.1","if_idx":1}])");
    }

    /* The object, or the complaint. */
    std::string add()
    {
        const json_owned target(json_object_new_object());
        const log_view view = log.from_here();
        if (cmd_add_interfaces(ctx, target.get()) == 0)
            return json_object_to_json_string_ext(target.get(), JSON_C_TO_STRING_PLAIN);
        return view.complaints().back();
    }
};

TEST_F(CmdInterfaces, NamesAreMappedToAddresses)
{
    EXPECT_EQ(add(), R"({"eth0":"192.0.2.1","lo":"127.0.0.1"})");
    EXPECT_THAT(agent.calls(), ElementsAre(ADDRESSES, INTERFACES));
}

TEST_F(CmdInterfaces, TheLastAddressOfAnInterfaceStays)
{
    agent.table("ipAdEntAddr", R"([{"ip_addr":"a","if_idx":2},{"ip_addr":"b","if_idx":2},)"
                               R"({"ip_addr":"c","if_idx":3}])");
    EXPECT_EQ(add(), R"({"eth0":"b"})");
    agent.table("ifDescr", "[]");
    EXPECT_EQ(add(), "{}");
}

TEST_F(CmdInterfaces, ANumberLeftByTheAgentDoesNotCount)
{
    agent.leaves_errno = EINVAL;
    EXPECT_EQ(add(), R"({"eth0":"192.0.2.1","lo":"127.0.0.1"})");
}

TEST_F(CmdInterfaces, AFailureIsTold)
{
    agent.fail(ADDRESSES);
    EXPECT_EQ(add(), "ERROR failed to get IP address information");
    agent.fail(INTERFACES);
    EXPECT_EQ(add(), "ERROR failed to get interfaces information");
    agent.let_pass();
    let_fail("json_object_new_string", 0, 1);
    EXPECT_EQ(add(), "ERROR failed to allocate IP address object");
    let_all_pass();
    agent.table("ifDescr", R"([{"if_name":"lo"}])");
    EXPECT_EQ(add(), "ERROR failed to de-serialize interface list");
    agent.table("ipAdEntAddr", R"([{"if_idx":2}])");
    EXPECT_EQ(add(), "ERROR failed to de-serialize IP list");
}

/* ---- programs ---- */

static int run(std::vector<std::string> words)
{
    std::vector<char *> argv;
    for (std::string &each : words)
        argv.push_back(each.data());
    argv.push_back(nullptr);
    return system_safe(argv.data());
}

TEST_F(CmdFamily, AProgramSucceedsOnlyWithExitStatus0)
{
    EXPECT_EQ(run({"/bin/sh", "-c", "exit 0"}), 0);
    EXPECT_EQ(run({"/bin/sh", "-c", "exit 1"}), -1);
    EXPECT_EQ(run({"/bin/sh", "-c", "kill -TERM $$"}), -1);
    EXPECT_EQ(run({"/no/such/program"}), -1);
    EXPECT_EQ(run({"sh", "-c", "exit 0"}), -1) << "no search";
    let_fail("fork");
    EXPECT_EQ(run({"/bin/sh", "-c", "exit 0"}), -1);
}

TEST_F(CmdFamily, AProgramGetsItsArgumentsUnreadAndTheEnvironment)
{
    const temporary_root root;
    const std::string file = root.path / "seen";
    setenv("SEEN_BY_THE_PROGRAM", "yes", 1);
    EXPECT_EQ(run({"/bin/sh", "-c", "printf '%s|%s|%s' \"$1\" \"$2\" \"$SEEN_BY_THE_PROGRAM\" > \"$0\"", file,
                   "$(reboot); *", ""}),
              0);
    unsetenv("SEEN_BY_THE_PROGRAM");
    std::string seen;
    std::getline(std::ifstream(file), seen);
    EXPECT_EQ(seen, "$(reboot); *||yes");
}

TEST_F(CmdFamily, AProgramDiesOfABrokenPipe)
{
    struct sigaction before = {};
    struct sigaction ignored = {};
    ignored.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignored, &before);
    EXPECT_EQ(run({"/bin/sh", "-c", "kill -PIPE $$; exit 0"}), -1);
    sigaction(SIGPIPE, &before, nullptr);
}
