/* The network section: the interfaces, the SIM PINs, and the walks around the items. */
#include "configs_gw/gateway_sections.h"

#include "common/bridge_json_helpers.h"
#include "converter/control/bridge_configs_gw_nw.h"

using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;

static constexpr const char *PIN_STATUS = "wmSimPinOpStatus.0";
static constexpr const char *PIN_AT_WORK = "Waiting for CM's response";
static constexpr const char *STATE_TEXT =
    R"([{"simSlot":0,"simState":"SIM ready"},{"simSlot":1,"simState":"SIM not inserted"}])";

class Network : public GatewaySections
{
  protected:
    Network()
    {
        scene(1, 3, 1, 0, 1);
        modem.texts = {{"wmSimStatus.0", "SIM ready"},
                       {"wmSimSlot1Status.0", "SIM not inserted"},
                       {PIN_STATUS, "PIN changed"}};
    }

    static void scene(int64_t preferred, int64_t fallback, int64_t ethernet, int64_t optical,
                      int64_t cellular)
    {
        modem.numbers = {{"networkPreferred.0", preferred},
                         {"networkFallback.0", fallback},
                         {"networkEthernetAvailable.0", ethernet},
                         {"networkOpticalAvailable.0", optical},
                         {"networkCellularAvailable.0", cellular}};
    }

    static section_outcome write(const std::string &items)
    {
        return write_sections(join({R"({"networkConfiguration":)", items, "}"}));
    }

    /* The part of the answer under the key. */
    static std::string part(const std::string &reply, std::initializer_list<const char *> keys)
    {
        const json_owned object(json_tokener_parse(reply.c_str()));
        json_object *value = object.get();
        for (const char *key : keys) {
            if (!json_object_object_get_ex(value, key, &value))
                return "absent";
        }
        return json_object_to_json_string_ext(value, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
    }

    static std::string preference(const section_outcome &outcome)
    {
        return part(outcome.reply, {"networkConfiguration", "interfacePreference"});
    }

    static std::string pins(const section_outcome &outcome)
    {
        return part(outcome.reply, {"networkConfiguration", "cellular", "simPin"});
    }

    static section_outcome write_preference(const std::string &names)
    {
        return write(join({R"({"interfacePreference":)", names, "}"}));
    }

    static section_outcome write_pins(const std::string &requests)
    {
        return write(join({R"({"cellular":{"simPin":)", requests, "}}"}));
    }

    static std::vector<std::string> sets()
    {
        std::vector<std::string> calls = modem.calls;
        std::erase_if(calls, [](const std::string &call) { return call.find('=') == std::string::npos; });
        return calls;
    }
};

/* ---- interfaces: reading ---- */

TEST_F(Network, ThePreferredInterfaceComesFirstThenTheFallbackThenTheOtherAvailable)
{
    static constexpr struct {
        int64_t preferred, fallback, ethernet, optical, cellular;
        const char *told;
    } rows[] = {
        {1, 3, 1, 0, 1, R"({"value":["Ethernet","Cellular"]})"},
        {3, 1, 1, 1, 1, R"({"value":["Cellular","Ethernet","Optical"]})"},
        {2, 3, 1, 1, 1, R"({"value":["Optical","Cellular","Ethernet"]})"},
        {2, 1, 0, 0, 0, R"({"value":["Optical","Ethernet"]})"},
        {3, 3, 1, 1, 1, R"({"value":["Cellular","Cellular","Ethernet","Optical"]})"},
        {0, 3, 1, 0, 1, R"({"status":"interface not set -- auto config applied"})"},
        {1, 0, 1, 0, 1, R"({"status":"interface not set -- auto config applied"})"},
        {0, 0, 0, 0, 0, R"({"status":"interface not set -- auto config applied"})"},
        {1, 4, 1, 0, 1, R"({"status":"unable to read interface info"})"},
        {9, 1, 1, 0, 1, R"({"status":"unable to read interface info"})"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.told);
        scene(row.preferred, row.fallback, row.ethernet, row.optical, row.cellular);
        const bool is_auto = row.preferred == 0 || row.fallback == 0;
        const log_view told = log.from_here();
        EXPECT_EQ(preference(read_sections()), row.told);
        EXPECT_EQ(nw_if_pref_is_auto, is_auto);
        EXPECT_EQ(told.count("INFO AUTO set for interface preference"), is_auto ? 1 : 0);
        EXPECT_EQ(told.count("INFO AUTO set for [interfacePreference] subconfig"), is_auto ? 1 : 0);
    }
    EXPECT_TRUE(log.has("ERROR failed to serialize preferred interface info"));
    EXPECT_TRUE(log.has("ERROR failed to serialize fallback interface info"));
}

TEST_F(Network, AnInterfaceListThatCannotBeReadIsToldAndTheNextItemsFollow)
{
    static constexpr struct {
        const char *call;
        const char *told;
    } rows[] = {
        {"get networkPreferred.0 networkFallback.0",
         "ERROR failed to get connectivity properties from the SNMP client"},
        {"get networkEthernetAvailable.0",
         "ERROR failed to get connectivity availability flag from the SNMP client"},
        {"get networkCellularAvailable.0",
         "ERROR failed to get connectivity availability flag from the SNMP client"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.call);
        modem.fail(row.call);
        log_view told = log.from_here();
        const section_outcome read = read_sections();
        EXPECT_EQ(preference(read), R"({"status":"unable to read interface info"})");
        EXPECT_EQ(pins(read), STATE_TEXT);
        EXPECT_EQ(part(read.reply, {"networkConfiguration", "connectivityCheck"}), R"({"check":"read"})");
        EXPECT_TRUE(told.has(row.told));
        EXPECT_TRUE(told.has("ERROR failed network config read for [interfacePreference]"));
        told = log.from_here();
        EXPECT_EQ(preference(write_preference(R"(["Cellular","Ethernet"])")),
                  R"({"status":"unable to write interface info"})");
        EXPECT_THAT(told.lines_of({"ERROR"}),
                    ElementsAre(row.told,
                                "ERROR failed network interface config read for [interfacePreference]",
                                "ERROR failed network config write for [interfacePreference]"));
        EXPECT_THAT(sets(), IsEmpty());
    }
}

/* ---- interfaces: the server's choice ---- */

static constexpr const char *WRITE_FAILED = "ERROR failed network config write for [interfacePreference]";
static constexpr const char *UNKNOWN = "ERROR unknown proposed interface type";
static constexpr const char *NO_MATCH = "ERROR no match found";
static constexpr const char *PARTIAL = "ERROR partial match found";

TEST_F(Network, TheFirstTwoGoodNamesAreTaken)
{
    static constexpr const char *NOT_WRITTEN = R"({"status":"unable to write interface info"})";
    const struct {
        const char *names;
        const char *told;
        const char *set; /* preferred and fallback */
        std::vector<const char *> errors;
    } rows[] = {
        {R"(["Cellular","Ethernet"])", R"({"value":["Cellular","Ethernet"]})", "31", {}},
        {R"(["CELLULAR","ethernet"])", R"({"value":["Cellular","Ethernet"]})", "31", {}},
        {R"(["Ethernet","Cellular"])", R"({"value":["Ethernet","Cellular"]})", "", {}},
        {R"(["Cellular","Cellular"])", R"({"value":["Cellular","Cellular"]})", "33", {}},
        {R"(["Optical","Cellular","Ethernet"])", R"({"value":["Cellular","Ethernet"]})", "31", {}},
        {R"(["Cellular","Optical","WiFi","Ethernet","x"])",
         R"({"value":["Cellular","Ethernet"]})",
         "31",
         {UNKNOWN}},
        {R"([null,5,"Cellular",{},"Ethernet"])",
         R"({"value":["Cellular","Ethernet"]})",
         "31",
         {UNKNOWN, UNKNOWN, UNKNOWN}},
        {R"(["Cellular"])", NOT_WRITTEN, "", {PARTIAL, WRITE_FAILED}},
        {R"(["Cellular","Optical"])", NOT_WRITTEN, "", {PARTIAL, WRITE_FAILED}},
        {R"(["Optical"])", NOT_WRITTEN, "", {NO_MATCH, WRITE_FAILED}},
        {R"(["Cellular "])", NOT_WRITTEN, "", {UNKNOWN, NO_MATCH, WRITE_FAILED}},
        {R"([])", NOT_WRITTEN, "", {NO_MATCH, WRITE_FAILED}},
        {R"({"0":"Cellular"})", NOT_WRITTEN, "", {NO_MATCH, WRITE_FAILED}},
        {R"("Cellular")", NOT_WRITTEN, "", {NO_MATCH, WRITE_FAILED}},
        {R"(7)", NOT_WRITTEN, "", {NO_MATCH, WRITE_FAILED}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.names);
        scene(1, 3, 1, 0, 1);
        modem.calls.clear();
        const log_view told = log.from_here();
        const section_outcome written = write_preference(row.names);
        EXPECT_EQ(written.result, 0);
        EXPECT_EQ(written.reply,
                  join({R"({"networkConfiguration":{"interfacePreference":)", row.told, "}}"}));
        EXPECT_THAT(told.lines_of({"ERROR"}), ElementsAreArray(row.errors));
        std::vector<std::string> expected;
        if (*row.set != '\0')
            expected.push_back(join({"networkPreferred.0=",
                                     {row.set, 1},
                                     " networkFallback.0=",
                                     {row.set + 1, 1},
                                     " networkPreferencesExecute.0=1000001"}));
        EXPECT_EQ(sets(), expected);
        EXPECT_EQ(told.count("INFO setting connectivity preference"), static_cast<long>(expected.size()));
    }
}

TEST_F(Network, AGatewayThatChoosesByItselfTakesAnyPair)
{
    /* Half a pair is none: all that are available are listed, and the pair counts as new. */
    for (const auto &[preferred, fallback] : {std::pair(0, 0), std::pair(1, 0), std::pair(0, 3)}) {
        scene(preferred, fallback, 1, 0, 1);
        modem.calls.clear();
        EXPECT_EQ(preference(write_preference(R"(["Ethernet","Cellular"])")),
                  R"({"value":["Ethernet","Cellular"]})");
        EXPECT_THAT(sets(), ElementsAre("networkPreferred.0=1 networkFallback.0=3 "
                                        "networkPreferencesExecute.0=1000001"));
    }
    scene(2, 0, 1, 0, 1);
    EXPECT_EQ(preference(write_preference(R"(["Optical","Ethernet"])")),
              R"({"status":"unable to write interface info"})")
        << "one that is not available cannot be chosen, preferred or not";
}

TEST_F(Network, APreferenceThatIsNotTakenIsTold)
{
    modem.fail("networkPreferred.0=");
    EXPECT_EQ(preference(write_preference(R"(["Cellular","Ethernet"])")),
              R"({"status":"unable to write interface info"})");
    EXPECT_THAT(log.lines_of({"ERROR"}),
                ElementsAre("ERROR failed to set connectivity properties", WRITE_FAILED));
}

/* ---- SIM PINs ---- */

TEST_F(Network, APinIsAddedOrChangedAndSentBackAsItCame)
{
    modem.texts[PIN_STATUS] = "Incorrect PIN, 2 attempts left";
    const section_outcome written =
        write_pins(R"([{"simSlot":1,"newSimPin":"1234","note":null},{"newSimPin":"5678","simSlot":0,)"
                   R"("currentSimPin":"1111"}])");
    EXPECT_EQ(written.result, 0);
    EXPECT_EQ(pins(written), join({R"([{"status":"Incorrect PIN, 2 attempts left","value":{"simSlot":1,)"
                                   R"("newSimPin":"1234","note":null}},)",
                                   R"({"status":"Incorrect PIN, 2 attempts left","value":)",
                                   R"({"newSimPin":"5678","simSlot":0,"currentSimPin":"1111"}},)",
                                   R"({"status":"simpin current status","value":)", STATE_TEXT, "}]"}));
    EXPECT_THAT(modem.calls,
                ElementsAre("wmSimPinNewPin.0=1234", "wmSimPinSet.0=1", "wmSimPinCurrentPin.0=1111",
                            "wmSimPinNewPin.0=5678", "wmSimPinModify.0=0", "get wmSimStatus.0",
                            "get wmSimSlot1Status.0"));
    EXPECT_THAT(log.lines_of({"INFO", "ERROR", "WARN"}),
                ElementsAre("INFO missing currentSimPin in the request, assuming this is a new pin",
                            "INFO add simpin action resulted in a modem response",
                            "INFO modify simpin action resulted in a modem response",
                            "INFO getting the current simpin state", "INFO getting current SIM slot info",
                            "INFO getting slot info for: 0", "INFO getting slot info for: 1"));
}

static constexpr const char *ADD_FAILED = "add simpin action failed with no response from the modem";
static constexpr const char *MODIFY_FAILED = "modify simpin action failed with no modem response";
static constexpr const char *ADD = R"({"simSlot":1,"newSimPin":"1234"})";
static constexpr const char *MODIFY = R"({"simSlot":1,"newSimPin":"1234","currentSimPin":"1111"})";

TEST_F(Network, AChangeThatFailsIsToldInItsElement)
{
    static constexpr const char *NOT_MODIFIED =
        "unable to modify  simpin -- simslot and pin deserialization failed";
    static constexpr const char *NOT_ADDED = "unable to add simpin -- simslot and pin deserialization failed";
    static constexpr const char *NO_MODIFY = "failed to get modem response for the SIM PIN modify";
    static constexpr const char *NO_ADD = "failed to get modem response for the SIM PIN add";
    static constexpr const char *NOT_FETCHED = "status fetch operation failed with error code: -5";
    const struct {
        const char *request;
        const char *failing;
        std::vector<const char *> told;
    } rows[] = {
        {MODIFY, "wmSimPinCurrentPin.0=", {"failed to pass the current pin", MODIFY_FAILED}},
        {MODIFY, "wmSimPinNewPin.0=", {"failed to pass the new pin", MODIFY_FAILED}},
        {MODIFY, "wmSimPinModify.0=", {"failed to trigger the pin modify op", MODIFY_FAILED}},
        {MODIFY, "get wmSimPinOpStatus.0", {NOT_FETCHED, NO_MODIFY, MODIFY_FAILED}},
        {ADD, "wmSimPinNewPin.0=", {"failed to pass the new pin", ADD_FAILED}},
        {ADD, "wmSimPinSet.0=", {"failed to trigger the pin add op", ADD_FAILED}},
        {ADD, "get wmSimPinOpStatus.0", {NOT_FETCHED, NO_ADD, ADD_FAILED}},
        {R"({"simSlot":1,"newSimPin":null})", "", {NOT_ADDED, ADD_FAILED}},
        {R"({"simSlot":1,"newSimPin":"12345678901234567890123456789012"})", "", {NOT_ADDED, ADD_FAILED}},
        {R"({"simSlot":1,"newSimPin":"1","currentSimPin":null})", "", {NOT_MODIFIED, MODIFY_FAILED}},
        {R"({"simSlot":1,"newSimPin":null,"currentSimPin":"1"})", "", {NOT_MODIFIED, MODIFY_FAILED}},
        {R"({"simSlot":1,"newSimPin":"1","currentSimPin":"12345678901234567890123456789012"})",
         "",
         {NOT_MODIFIED, MODIFY_FAILED}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(join({row.request, " ", row.failing}));
        modem.fail(row.failing, *row.failing == '\0' ? 1000 : 0);
        const log_view told = log.from_here();
        const section_outcome written = write_pins(join({"[", row.request, "]"}));
        EXPECT_EQ(pins(written), join({R"([{"status":")", row.told.back(), R"(","value":)", row.request,
                                       R"(},{"status":"simpin current status","value":)", STATE_TEXT, "}]"}));
        std::vector<std::string> expected;
        for (const char *line : row.told)
            expected.push_back(join({"ERROR ", line}));
        EXPECT_EQ(told.lines_of({"ERROR"}), expected);
    }
}

TEST_F(Network, TheModemsAnswerIsPassedOnUnlessItsFileCannotBeRead)
{
    static constexpr struct {
        const char *status;
        bool is_answer;
    } rows[] = {
        {"SIM PIN set", true},
        {"", true},
        {"Failed: wrong PIN", true},
        {"waiting for CM's response", true},
        {"unable to open status file", false},
        {"modem: unable to open status file /x", false},
        {"Error reading status file", false},
        {"error reading status file", true},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.status);
        modem.texts[PIN_STATUS] = row.status;
        for (const char *request : {ADD, MODIFY}) {
            const char *failed = request == ADD ? ADD_FAILED : MODIFY_FAILED;
            const log_view told = log.from_here();
            const section_outcome written = write_pins(join({"[", request, "]"}));
            EXPECT_TRUE(pins(written).starts_with(
                join({R"([{"status":")", row.is_answer ? row.status : failed, R"(","value":)", request})));
            EXPECT_EQ(told.has(join(
                          {"ERROR operation failed with no response from the modem, status: ", row.status})),
                      !row.is_answer);
        }
    }
}

TEST_F(Network, TextsThatJustFit)
{
    const std::string pin(31, '1');
    write_pins(join({R"([{"simSlot":1,"newSimPin":")", pin, R"(","currentSimPin":")", pin, R"("}])"}));
    EXPECT_THAT(sets(), ElementsAre(join({"wmSimPinCurrentPin.0=", pin}), join({"wmSimPinNewPin.0=", pin}),
                                    "wmSimPinModify.0=1"));
    for (const size_t length : {127, 128}) {
        const std::string text(length, 'x');
        modem.texts[PIN_STATUS] = text;
        modem.texts["wmSimStatus.0"] = text;
        const log_view told = log.from_here();
        const std::string reply = pins(write_pins(join({"[", ADD, "]"})));
        const bool fits = length == 127;
        const std::string status = fits ? text : ADD_FAILED;
        const std::string state = fits ? text : "Error getting SIM status for slot: 0";
        EXPECT_TRUE(reply.starts_with(join({R"([{"status":")", status, R"(","value")"}))) << reply;
        EXPECT_THAT(reply, testing::HasSubstr(join({R"({"simSlot":0,"simState":")", state, R"("})"})));
        EXPECT_EQ(told.has("ERROR status fetch operation failed with error code: -1"), !fits);
    }
}

TEST_F(Network, ARequestWithoutSlotOrPinEndsTheWrite)
{
    static constexpr const char *COPY = "ERROR failed to create a local copy of the server profile";
    static constexpr const char *NO_SLOT = "ERROR missing simSlot in the request";
    static constexpr const char *NO_PIN = "ERROR missing newSimPin in the request";
    static constexpr struct {
        const char *requests;
        const char *told;
    } rows[] = {
        {R"([{}])", NO_SLOT},
        {R"([{"newSimPin":"1"}])", NO_SLOT},
        {R"([{"simSlot":0}])", NO_PIN},
        {R"([{"simSlot":0,"currentSimPin":"1"}])", NO_PIN},
        {R"([{"simSlot":null,"newSimPin":"1"}])", NO_SLOT},
        {R"([{"simSlot":null,"newSimPin":"1","currentSimPin":"2"}])", NO_SLOT},
        {R"([5])", NO_SLOT},
        {R"([[]])", NO_SLOT},
        {R"([null])", COPY},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.requests);
        const log_view told = log.from_here();
        const section_outcome written = write_pins(row.requests);
        EXPECT_EQ(written.result, 0);
        EXPECT_EQ(pins(written), R"({"status":"unable to write simpin changes"})");
        EXPECT_THAT(told.lines_of({"ERROR"}),
                    ElementsAre(row.told, "ERROR failed cellular config write for [simPin]"));
        EXPECT_THAT(sets(), IsEmpty());
    }
}

TEST_F(Network, WithoutRequestsTheStateIsTold)
{
    for (const char *requests : {"[]", "{}", "5"})
        EXPECT_EQ(pins(write_pins(requests)),
                  join({R"([{"status":"simpin current status","value":)", STATE_TEXT, "}]"}));
    EXPECT_THAT(sets(), IsEmpty());
}

TEST_F(Network, ASlotThatCannotBeReadIsToldInPlaceOfItsState)
{
    modem.fail("get wmSimStatus.0");
    EXPECT_EQ(pins(read_sections()),
              R"([{"simSlot":0,"simState":"Error getting SIM status for slot: 0"},{"simSlot":1,)"
              R"("simState":"SIM not inserted"}])");
    modem.fail("get wmSimSlot1Status.0");
    EXPECT_EQ(pins(read_sections()), R"([{"simSlot":0,"simState":"SIM ready"},{"simSlot":1,)"
                                     R"("simState":"Error getting SIM status for slot: 1"}])");
    EXPECT_THAT(log.lines_of({"WARN"}), ElementsAre("WARN Error getting SIM status for slot: 0",
                                                    "WARN Error getting SIM status for slot: 1"));
}

TEST_F(Network, TheAnswerToAPinIsWaitedForTwoMinutes)
{
    for (const size_t round : {1, 3, 600, 601}) {
        SCOPED_TRACE(round);
        modem.texts[PIN_STATUS] = PIN_AT_WORK;
        waits = {};
        waits.within = [round] {
            if (waits.taken.size() == round)
                modem.texts[PIN_STATUS] = "PIN set";
        };
        const section_outcome written = write_pins(join({"[", ADD, "]"}));
        EXPECT_TRUE(pins(written).starts_with(
            join({R"([{"status":")", round > 600 ? PIN_AT_WORK : "PIN set", "\""})));
        EXPECT_THAT(waits.taken, SizeIs(std::min<size_t>(round, 600)));
        EXPECT_THAT(waits.taken, Each("200000 us"));
    }
}

/* ---- walks ---- */

TEST_F(Network, ASectionWithoutAKnownItemEndsTheWalk)
{
    static constexpr struct {
        const char *items;
        const char *reply;
    } rows[] = {
        {"{}", "{}"},
        {"[]", "{}"},
        {R"("cellular")", "{}"},
        {R"({"other":1})", "{}"},
        {R"({"interfacePreference":null,"cellular":null,"connectivityCheck":null})", "{}"},
        {R"({"cellular":{}})", R"({"cellular":{}})"},
        {R"({"cellular":[]})", R"({"cellular":{}})"},
        {R"({"cellular":5,"connectivityCheck":1})", R"({"cellular":{}})"},
        {R"({"cellular":{"simpin":[]}})", R"({"cellular":{}})"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.items);
        const section_outcome written =
            write_sections(join({R"({"networkConfiguration":)", row.items, R"(,"snmpAgent":{}})"}));
        EXPECT_EQ(written.result, -22);
        EXPECT_EQ(written.reply, join({R"({"networkConfiguration":)", row.reply, "}"}));
    }
    EXPECT_THAT(modem.calls, IsEmpty());
}

TEST_F(Network, ItemsAreAppliedInTheOrderOfTheTable)
{
    const section_outcome written =
        write(R"({"connectivityCheck":[1],"cellular":{"simPin":[],"pdpProfile":[]},)"
              R"("interfacePreference":["Cellular"]})");
    EXPECT_EQ(written.result, 0);
    EXPECT_EQ(
        written.reply,
        join(
            {R"({"networkConfiguration":{"interfacePreference":{"status":"unable to write interface info"},)",
             R"("cellular":{"pdpProfile":{"status":"unable to write any pdp info"},"simPin":)",
             R"([{"status":"simpin current status","value":)", STATE_TEXT,
             R"(}]},"connectivityCheck":{"check":[1]}}})"}));
}

TEST_F(Network, AScriptThatFailsIsToldInItsItemAndIsNoFailure)
{
    scripts_result = -5;
    const section_outcome written = write(R"({"connectivityCheck":{}})");
    EXPECT_EQ(written.result, 0);
    EXPECT_EQ(written.reply, R"({"networkConfiguration":{"connectivityCheck":)"
                             R"({"status":"unable to write connectivity check info"}}})");
    EXPECT_THAT(log.lines_of({"ERROR"}),
                ElementsAre("ERROR failed network config write for [connectivityCheck]"));
    const log_view told = log.from_here();
    EXPECT_EQ(part(read_sections().reply, {"networkConfiguration", "connectivityCheck"}),
              R"({"status":"unable to read connectivity check info"})");
    EXPECT_TRUE(told.has("ERROR failed network config read for [connectivityCheck]"));
    scripts_result = 4711; /* as a script that answers nothing leaves it */
    EXPECT_EQ(write(R"({"connectivityCheck":{}})").result, 4711);
}

TEST_F(Network, ACellularItemThatCannotBeReadIsToldAndTheNextFollows)
{
    modem.fail("get wmReadPdpProfile.0");
    const section_outcome read = read_sections();
    EXPECT_EQ(
        part(read.reply, {"networkConfiguration", "cellular"}),
        join({R"({"pdpProfile":{"status":"unable to read cellular pdp info"},"simPin":)", STATE_TEXT, "}"}));
    EXPECT_TRUE(log.has("ERROR failed cellular config read for [pdpProfile]"));
}
