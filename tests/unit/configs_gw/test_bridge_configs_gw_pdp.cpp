/* PDP profiles: the lists that are refused, what each fault leaves undone, and how long the modem is waited
 * for. */
#include "configs_gw/gateway_sections.h"

using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;

static constexpr const char *START = R"({"networkConfiguration":{"cellular":{"pdpProfile":)";
static constexpr const char *END = "}}}";
static constexpr const char *REFUSED = R"({"status":"unable to write any pdp info"})";
static constexpr const char *WRITE_FAILED = "ERROR failed cellular config write for [pdpProfile]";
static constexpr const char *PDP_STATUS = "wmPdpLastOperationStatus.0";
static constexpr const char *AT_WORK = "Waiting for modem's response";

class Pdp : public GatewaySections
{
  protected:
    Pdp()
    {
        modem.profiles = {{"home", "iot.example", 0, "", "", 0, 1}, {"old", "x", 2, "u", "p", 2, 2}};
        modem.working = 1;
    }

    static section_outcome write(const std::string &list)
    {
        return write_sections(join({START, list, END}));
    }

    static std::string answer(const std::string &reply)
    {
        return join({START, reply, END});
    }
};

static std::string profile(const std::string &name, const std::string &active = "False",
                           const std::string &apn = "iot.example")
{
    return join({R"({"pdpProfileName":")", name, R"(","apnName":")", apn,
                 R"(","connectionType":"IP","userName":"","password":"","authType":"None","setActive":")",
                 active, "\"}"});
}

static std::string list_of(std::initializer_list<std::string> profiles)
{
    std::string text = "[";
    for (const std::string &each : profiles)
        text.append(text.size() > 1 ? "," : "").append(each);
    return text + "]";
}

/* ---- lists that are refused ---- */

#define REQUEST "unable to process the cellular pdp request -- "
static constexpr const char *NO_ACTIVE = "ERROR " REQUEST "no active profile mentioned in the server list";
static constexpr const char *TWO_ACTIVE =
    "ERROR " REQUEST "more than one profile with setActive field set to True";
static constexpr const char *TWICE_IN_LIST =
    "ERROR " REQUEST "more than one profile exists in the server list with the same profile name";
static constexpr const char *TWICE_ON_GATEWAY =
    "ERROR " REQUEST "more than one profile exists on the gateway with the same profile name";
static constexpr const char *FIELDS_MISSING =
    "ERROR unable to deserialize the cellular pdp request -- one or more fields missing in a profile";
static constexpr const char *NO_NAME = "ERROR failed to de-serialize profile name (from server list)";

TEST_F(Pdp, ABadListIsRefusedBeforeAnythingChanges)
{
    const std::string all = profile("home", "True");
    const struct {
        std::string list;
        const char *told;
    } rows[] = {
        {"[]", NO_ACTIVE},
        {"{}", NO_ACTIVE},
        {"5", NO_ACTIVE},
        {"\"home\"", NO_ACTIVE},
        {list_of({profile("home")}), NO_ACTIVE},
        {list_of({profile("home", "yes"), profile("b", "True ")}), NO_ACTIVE},
        {list_of({profile("home", "TRUE"), profile("b", "true")}), TWO_ACTIVE},
        {list_of({profile("home", "True"), profile("home", "True")}), TWICE_IN_LIST},
        {list_of({profile("HOME"), profile("home", "True")}), TWICE_IN_LIST},
        {list_of({profile("twice", "True")}), TWICE_ON_GATEWAY},
        {list_of({profile("a"), profile("A"), all}), TWICE_IN_LIST},
        {list_of({all, profile("twice")}), TWICE_ON_GATEWAY},
        {list_of({all, "{}"}), NO_NAME},
        {list_of({"{}", all}), FIELDS_MISSING},
        {list_of({profile("b"), "{\"pdpProfileName\":\"c\"}", all}), FIELDS_MISSING},
        {list_of({all, "null"}), NO_NAME},
        {list_of({all, "[]"}), NO_NAME},
        {list_of({all, "7"}), NO_NAME},
        {list_of({profile("home", "True", std::string(32, 'x'))}), FIELDS_MISSING},
    };
    modem.profiles.push_back({"Twice", "x", 0, "", "", 0, 3});
    modem.profiles.push_back({"tWICE", "x", 0, "", "", 0, 4});
    for (const auto &row : rows) {
        SCOPED_TRACE(row.list);
        modem.calls.clear();
        const log_view told = log.from_here();
        const section_outcome written = write(row.list);
        EXPECT_EQ(written.result, 0);
        EXPECT_EQ(written.reply, answer(REFUSED));
        EXPECT_THAT(told.lines_of({"ERROR"}), ElementsAre(row.told, WRITE_FAILED));
        EXPECT_THAT(modem.calls, ElementsAre("get wmReadPdpProfile.0", "table"));
    }
}

TEST_F(Pdp, EachOfTheSevenFieldsIsRequiredAndAText)
{
    for (const char *key :
         {"pdpProfileName", "apnName", "connectionType", "userName", "password", "authType", "setActive"}) {
        for (const char *value : {"absent", "null", "long"}) {
            SCOPED_TRACE(join({key, " ", value}));
            std::string text = profile("home", "True");
            const size_t start = text.find(join({"\"", key, "\":"}));
            const size_t end = text.find_first_of(",}", start);
            const std::string with = value == std::string("absent") ? "\"other\":1"
                                     : value == std::string("null")
                                         ? join({"\"", key, "\":null"})
                                         : join({"\"", key, "\":\"", std::string(32, 'x'), "\""});
            text.replace(start, end - start, with);
            const log_view told = log.from_here();
            EXPECT_EQ(write(list_of({text})).reply, answer(REFUSED));
            EXPECT_THAT(told.lines_of({"ERROR"}), ElementsAre(FIELDS_MISSING, WRITE_FAILED));
        }
    }
}

TEST_F(Pdp, ValuesOfThirtyOneCharactersFit)
{
    const std::string longest(31, 'x');
    write(list_of({profile("home", "True", longest)}));
    EXPECT_EQ(modem.profiles.at(0).apn, longest);
}

TEST_F(Pdp, NullCountsAsAbsent)
{
    const section_outcome written = write("null");
    EXPECT_EQ(written.result, -22);
    EXPECT_EQ(written.reply, R"({"networkConfiguration":{"cellular":{}}})");
    EXPECT_THAT(modem.calls, IsEmpty());
}

/* ---- faults ---- */

TEST_F(Pdp, AFaultOutsideAnActionEndsTheWrite)
{
    static constexpr const char *NOT_STARTED = "ERROR failed to start reading profiles";
    static constexpr const char *NO_STATUS = "ERROR failed pdp operation status command";
    static constexpr const char *NOT_FETCHED = "ERROR status fetch operation failed with error code: -5";
    static constexpr const char *FIRST = "ERROR failed to get the current PDP profile  list";
    static constexpr const char *SECOND = "ERROR failed to get the updated PDP profile list";
    static constexpr const char *THIRD = "ERROR failed to get the final updated PDP profile list";
    const struct {
        const char *call;
        int after;
        std::vector<std::string> told;
    } rows[] = {
        {"get wmReadPdpProfile.0", 0, {NOT_STARTED, FIRST}},
        {"get wmReadPdpProfile.0", 1, {NOT_STARTED, SECOND}},
        {"get wmReadPdpProfile.0", 2, {NOT_STARTED, THIRD}},
        {"get wmPdpLastOperationStatus.0", 0, {NOT_FETCHED, NO_STATUS, FIRST}},
        {"get wmPdpLastOperationStatus.0", 1, {NOT_FETCHED, NO_STATUS, SECOND}},
        {"get wmPdpLastOperationStatus.0", 2, {NOT_FETCHED, NO_STATUS, THIRD}},
        {"table", 0, {"ERROR failed to get SNMP table", FIRST}},
        {"table", 1, {"ERROR failed to get SNMP table", SECOND}},
        {"table", 2, {"ERROR failed to get SNMP table", THIRD}},
        {"get wmPdpWorkingProfile.0",
         0,
         {"ERROR unable to activate cellular pdp info -- can't find the current active profile"}},
    };
    modem.profiles.pop_back();
    for (auto row : rows) {
        SCOPED_TRACE(join({row.call, " ", std::to_string(row.after)}));
        const log_view told = log.from_here();
        modem.fail(row.call, row.after);
        const section_outcome written = write(list_of({profile("home", "True")}));
        EXPECT_EQ(written.result, 0);
        EXPECT_EQ(written.reply, answer(REFUSED));
        row.told.emplace_back(WRITE_FAILED);
        EXPECT_THAT(told.lines_of({"ERROR"}), ElementsAreArray(row.told));
    }
}

TEST_F(Pdp, AGatewayListThatIsNotUnderstoodIsToldByItsType)
{
    static constexpr const char *FIRST = "ERROR failed to get the current PDP profile  list";
    modem.profiles[1].connection = 3;
    EXPECT_EQ(write(list_of({profile("home", "True")})).reply, answer(REFUSED));
    modem.profiles[1].connection = 0;
    modem.profiles[1].authentication = -1;
    EXPECT_EQ(write(list_of({profile("home", "True")})).reply, answer(REFUSED));
    EXPECT_THAT(log.lines_of({"ERROR"}),
                ElementsAre("ERROR failed to convert connection type", FIRST, WRITE_FAILED,
                            "ERROR failed to convert auth type", FIRST, WRITE_FAILED));
}

TEST_F(Pdp, AGatewayValueThatDoesNotFitEndsTheWrite)
{
    static constexpr const char *NOT_READ = "ERROR failed to de-serialize current pdp parameters";
    const std::string too_long(32, 'x');
    const std::vector<modem_profile> before = modem.profiles;
    const std::string list = list_of({profile("home", "True"), profile("old")});

    modem.profiles[1].name = too_long;
    EXPECT_EQ(write(list).reply, answer(REFUSED));
    EXPECT_THAT(modem.calls, ElementsAre("get wmReadPdpProfile.0", "table")) << "it is found at once";

    modem.profiles = before;
    modem.profiles[1].apn = too_long;
    EXPECT_EQ(write(list).reply, answer(REFUSED));
    EXPECT_THAT(log.lines_of({"ERROR"}), ElementsAre(NOT_READ, WRITE_FAILED, NOT_READ, WRITE_FAILED));

    /* A name that is found only after the changes. */
    const log_view told = log.from_here();
    modem.profiles = before;
    modem.refuses = [&](size_t) {
        modem.profiles[0].name = too_long;
        return false;
    };
    EXPECT_EQ(write(list).reply, answer(REFUSED));
    EXPECT_THAT(told.lines_of({"ERROR"}),
                ElementsAre("ERROR " REQUEST
                            "failed to deserialize the profile name from the updated gateway list",
                            WRITE_FAILED));
}

TEST_F(Pdp, AnActionThatFailsIsToldInItsElementAndTheRestGoesOn)
{
    static constexpr const char *DELETE_FAILED = "delete profile action failed";
    static constexpr const char *MODIFY_FAILED = "modify profile action failed";
    static constexpr const char *ADD_FAILED = "add profile action failed";
    static constexpr const char *ACTIVATE_FAILED = "activate profile action failed";
    static constexpr const char *NOT_SET = "failed to set new PDP profile properties";
    static constexpr const char *NOT_CHANGED = "failed to modify the PDP profile -- unable to set properties";
    static constexpr const char *NOT_FETCHED = "status fetch operation failed with error code: -5";
    /* Reads of the status: one for the first list, then one for each operation. */
    const struct {
        const char *call;
        int after;
        std::vector<const char *> told;
        std::vector<const char *> also; /* a profile that was not added cannot be activated */
    } rows[] = {
        {"wmRemovePdpProfile.0=2", 0, {"failed to trigger delete PDP profile", DELETE_FAILED}, {}},
        {"get wmPdpLastOperationStatus.0",
         1,
         {NOT_FETCHED, "failed to delete PDP profile - status cannot be read or operation failed",
          DELETE_FAILED},
         {}},
        {"wmPdpProfileName.1=", 0, {NOT_CHANGED, MODIFY_FAILED}, {}},
        {"wmPdpAuthType.1=", 0, {NOT_CHANGED, MODIFY_FAILED}, {}},
        {"wmModifyPdpProfile.0=1", 0, {"failed to trigger PDP profile modification", MODIFY_FAILED}, {}},
        {"get wmPdpProfileCount.0", 0, {"failed to get PDP count", ADD_FAILED}, {ACTIVATE_FAILED}},
        {"wmPdpProfileName.2=", 0, {NOT_SET, ADD_FAILED}, {ACTIVATE_FAILED}},
        {"wmPdpApnName.2=", 0, {NOT_SET, ADD_FAILED}, {ACTIVATE_FAILED}},
        {"wmPdpConnectionType.2=", 0, {NOT_SET, ADD_FAILED}, {ACTIVATE_FAILED}},
        {"wmPdpUserName.2=", 0, {NOT_SET, ADD_FAILED}, {ACTIVATE_FAILED}},
        {"wmPdpPassword.2=", 0, {NOT_SET, ADD_FAILED}, {ACTIVATE_FAILED}},
        {"wmPdpAuthType.2=", 0, {NOT_SET, ADD_FAILED}, {ACTIVATE_FAILED}},
        {"wmAddPdpProfile.0=1",
         0,
         {"failed to trigger new PDP profile creation", ADD_FAILED},
         {ACTIVATE_FAILED}},
        {"wmPdpWorkingProfile.0=", 0, {"failed to trigger activate PDP profile", ACTIVATE_FAILED}, {}},
    };
    const std::vector<modem_profile> before = modem.profiles;
    for (const auto &row : rows) {
        SCOPED_TRACE(join({row.call, " ", std::to_string(row.after)}));
        modem = {};
        modem.profiles = before;
        modem.working = 1;
        if (std::string_view(row.call).starts_with("get wmPdpLast"))
            modem.fail_once(row.call, row.after);
        else
            modem.fail(row.call, row.after);
        const log_view told = log.from_here();
        const section_outcome written =
            write(list_of({profile("home", "False", "new.example"), profile("work", "True")}));
        std::vector<std::string> expected;
        for (const char *line : row.told)
            expected.push_back(join({"ERROR ", line}));
        for (const char *line : row.also)
            expected.push_back(join({"ERROR ", line}));
        EXPECT_THAT(told.lines_of({"ERROR"}), ElementsAreArray(expected));
        EXPECT_EQ(written.result, 0);
        EXPECT_THAT(written.reply,
                    testing::HasSubstr(join({R"({"status":")", row.told.back(), R"(","value":{)"})));
        EXPECT_THAT(written.reply, testing::HasSubstr(R"({"status":"pdp full list","value":[)"));
    }
}

TEST_F(Pdp, AProfileWithoutAContextCannotBeDeletedAndTheRestGoesOn)
{
    modem.profiles[1].context = NO_CONTEXT;
    const std::string home = profile("home", "True");
    const section_outcome written = write(list_of({home}));
    EXPECT_EQ(written.result, 0);
    EXPECT_THAT(log.lines_of({"ERROR"}),
                ElementsAre("ERROR unable to delete cellular pdp info -- contextId deserialization failed",
                            "ERROR delete profile action failed"));
    EXPECT_TRUE(written.reply.starts_with(
        join({START, R"([{"status":"delete profile action failed","value":{"pdpProfileName":"old",)"})));
    EXPECT_THAT(written.reply, testing::HasSubstr(R"({"status":"the profile is already the active one",)"));
    EXPECT_THAT(modem.calls, testing::Not(testing::Contains(testing::StartsWith("wmRemovePdpProfile"))));
}

TEST_F(Pdp, AProfileWithoutAContextEndsTheWriteThatLooksForIt)
{
    modem.profiles[0].context = NO_CONTEXT;
    EXPECT_EQ(write(list_of({profile("home", "True"), profile("old")})).reply, answer(REFUSED));
    EXPECT_THAT(log.lines_of({"ERROR"}),
                ElementsAre("ERROR failed to de-serialize current pdp parameters", WRITE_FAILED));

    /* One that has lost its context by the time of its activation. */
    const log_view told = log.from_here();
    modem.profiles[0].context = 1;
    modem.refuses = [](size_t) {
        modem.profiles[0].context = NO_CONTEXT;
        return true;
    };
    EXPECT_EQ(write(list_of({profile("home", "True")})).reply, answer(REFUSED));
    EXPECT_EQ(told.lines_of({"ERROR"}).back(), WRITE_FAILED);
    EXPECT_TRUE(told.has("ERROR failed to add context id to the server profile"));
}

TEST_F(Pdp, AnOperationIsToldBeforeItBegins)
{
    write(list_of({profile("home", "False", "new.example"), profile("work", "True")}));
    const char *const lines[] = {
        "DEBUG writing general gateway configuration",
        "DEBUG going over the network configuration from the server",
        "TRACE looking for cellular network subconfig...",
        "DEBUG going over the cellular configurations from the server",
        "TRACE looking for pdpProfile cellular subconfig...",
        "DEBUG pdp profile write function running",
        "INFO getting current PDP info",
        "DEBUG deleting an existing PDP profile",
        "INFO delete profile action succeeded",
        "DEBUG modifying an existing PDP profile",
        "INFO modify profile action succeeded",
        "DEBUG adding a new PDP profile",
        "INFO add profile action succeeded",
        "DEBUG setting a PDP profile as active",
        "INFO activate profile action succeeded",
        "INFO getting the final PDP list",
        "TRACE looking for simPin cellular subconfig...",
    };
    long before = -1;
    for (const char *line : lines) {
        EXPECT_GT(log.position(line), before) << line;
        before = log.position(line);
    }
}

/* The second delete goes by a number that is another's by then. */
TEST_F(Pdp, ContextsAreThoseOfTheFirstListAlsoOnAModemThatRenumbers)
{
    modem.renumbers = true;
    modem.working = 3;
    modem.profiles = {
        {"a", "x", 0, "", "", 0, 1}, {"b", "x", 0, "", "", 0, 2}, {"home", "iot.example", 0, "", "", 0, 3}};
    const section_outcome written = write(list_of({profile("home", "True")}));
    std::vector<std::string> sets = modem.calls;
    std::erase_if(sets, [](const std::string &call) { return call.find('=') == std::string::npos; });
    EXPECT_THAT(sets, ElementsAre("wmRemovePdpProfile.0=1", "wmRemovePdpProfile.0=2"));
    ASSERT_EQ(modem.profiles.size(), 1U);
    EXPECT_EQ(modem.profiles[0].name, "b");
    EXPECT_THAT(written.reply, testing::HasSubstr(R"({"status":"activate profile action failed",)"))
        << "the server sees that its profile is gone, also in the list that follows";
}

TEST_F(Pdp, AModemThatRefusesIsToldWithItsWord)
{
    static constexpr const char *STATUS = "ERROR operation failed with a status: Failed";
    modem.refuses = [](size_t) { return true; };
    write(list_of({profile("home", "False", "new.example"), profile("work"), profile("old", "True")}));
    EXPECT_THAT(
        log.lines_of({"ERROR"}),
        ElementsAre(STATUS, "ERROR failed to modify PDP profile - status cannot be read or operation failed",
                    "ERROR modify profile action failed", STATUS,
                    "ERROR failed to add PDP profile - status cannot be read or operation failed",
                    "ERROR add profile action failed", STATUS,
                    "ERROR failed to modify PDP profile - status cannot be read or operation failed",
                    "ERROR modify profile action failed", STATUS,
                    "ERROR failed to activate PDP profile - status cannot be read or operation failed",
                    "ERROR activate profile action failed"));
    const log_view told = log.from_here();
    modem.profiles[1].name = "gone";
    write(list_of({profile("home", "True")}));
    EXPECT_THAT(told.lines_of({"ERROR"}),
                ElementsAre(STATUS,
                            "ERROR failed to delete PDP profile - status cannot be read or operation failed",
                            "ERROR delete profile action failed"));
}

TEST_F(Pdp, AnUnknownTypeFailsItsActionWithTheWordsOfTheConnectionType)
{
    for (const char *bad : {R"("connectionType":"IPV4")", R"("authType":"MD5")"}) {
        SCOPED_TRACE(bad);
        std::string text = profile("work");
        const std::string key = std::string(bad).substr(0, std::string(bad).find(':'));
        const size_t start = text.find(key);
        text.replace(start, text.find(',', start) - start, bad);
        modem.calls.clear();
        const log_view told = log.from_here();
        const section_outcome written = write(list_of({text, profile("home", "True"), profile("old")}));
        EXPECT_THAT(told.lines_of({"ERROR"}),
                    ElementsAre("ERROR invalid connection type", "ERROR failed to create modified request",
                                "ERROR add profile action failed"));
        EXPECT_THAT(modem.calls, testing::Not(testing::Contains("get wmPdpProfileCount.0")));
    }
}

/* ---- waits ---- */

TEST_F(Pdp, TheModemIsAskedFiveTimesASecondForTwoMinutes)
{
    const struct {
        size_t round;
        bool is_read;
    } rows[] = {{1, true}, {2, true}, {600, true}, {601, false}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.round);
        modem.done = AT_WORK;
        waits = {};
        waits.within = [&row] {
            if (waits.taken.size() == row.round)
                modem.texts[PDP_STATUS] = "PDP profiles read successfully";
        };
        const log_view told = log.from_here();
        const section_outcome read = read_sections();
        EXPECT_EQ(read.reply.find("unable to read cellular pdp info") == std::string::npos, row.is_read);
        const size_t rounds = std::min<size_t>(row.round, 600);
        EXPECT_THAT(waits.taken, SizeIs(rounds));
        EXPECT_THAT(waits.taken, Each("200000 us"));
        EXPECT_EQ(told.count(join({"TRACE got status: ", AT_WORK})),
                  static_cast<long>(row.is_read ? rounds - 1 : rounds));
        EXPECT_EQ(told.has(join({"ERROR operation failed with a status: ", AT_WORK})), !row.is_read);
    }
}

TEST_F(Pdp, AStatusIsGoodWhenItTellsOfSuccess)
{
    static constexpr struct {
        const char *status;
        bool is_good;
    } rows[] = {
        {"successfully", true},
        {"it was done successfully, at last", true},
        {"Successfully", false},
        {"", false},
        {"waiting for modem's response", false},
        {"Waiting for modem's response.", false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.status);
        modem.done = row.status;
        waits = {};
        EXPECT_EQ(read_sections().reply.find("unable to read cellular pdp info") == std::string::npos,
                  row.is_good);
        EXPECT_THAT(waits.taken, SizeIs(1));
    }
}

TEST_F(Pdp, AStatusHas127Characters)
{
    for (const size_t length : {127, 128}) {
        modem.done = std::string(length - 12, 'x') + "successfully";
        const log_view told = log.from_here();
        EXPECT_EQ(read_sections().reply.find("unable to read cellular pdp info") == std::string::npos,
                  length == 127);
        EXPECT_EQ(told.has("ERROR status fetch operation failed with error code: -1"), length == 128);
    }
}
