/* Waits for the modem, with a clock that does not wait: how long it is asked, and what is answered when it
 * never gets done. The children's work runs in this process. */
#include "converter/control/bridge_cmd_modem.h"

#include "common/bridge_json_helpers.h"
#include "control/control_neighbours.h"
#include "converter/control/bridge_cmd_async.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_cmd_pdp.h"
#include "converter/control/bridge_cmd_pipe.h"

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

static constexpr const char *PDP_STATUS = "wmPdpLastOperationStatus.0";
static constexpr const char *NETWORK_STATUS = "wmMncMccOpStatus.0";
static constexpr const char *AT_WORK = "Waiting for modem's response";
static constexpr size_t ROUNDS = 600; /* two minutes */
static constexpr const char *ROUND = "200000 us";

/* ---- neighbours ---- */

/* The end of a child: what is behind it does not run. */
struct process_end {
};

static std::vector<std::string> answers;
static int jobs_begun;

void bridge_cmd_async_respond(json_object *response, int64_t req_id)
{
    const json_owned owned(response);
    answers.push_back(join(
        {std::to_string(req_id), " ", json_object_to_json_string_ext(response, JSON_C_TO_STRING_PLAIN)}));
    throw process_end();
}

void cmd_async_begin()
{
    jobs_begun++;
}

void cmd_async_run(converter_ctx *ctx, json_object *request, cmd_async_job job, json_object **response)
{
    *response = bridge_cmd_status_text("status", "ok");
    try {
        job(ctx, request);
    } catch (const process_end &) {
    }
}

/* ---- fixture ---- */

using handler = void (*)(converter_ctx *, json_object *, json_object **);

class CmdModem : public ControlTest
{
  protected:
    CmdModem()
    {
        answers.clear();
        jobs_begun = 0;
    }

    /* What the handler answers itself. */
    std::string run(handler function, const std::string &input)
    {
        const json_owned object(json_tokener_parse(input.c_str()));
        json_object *response = nullptr;
        function(ctx, object.get(), &response);
        const json_owned owned(response);
        return owned ? json_object_to_json_string_ext(response, JSON_C_TO_STRING_PLAIN) : "none";
    }

    /* The modem tells `before` up to its `round`-th wait, and `after` from there on. */
    static void changes(const char *object, const char *before, size_t round, const char *after)
    {
        agent.text(object, before);
        waits.within = [object, round, after, count = size_t{0}]() mutable {
            if (++count == round)
                agent.text(object, after);
        };
    }
};

static std::string status_read(const char *object)
{
    return join({"text ", object, " 128"});
}

/* ---- the limit ---- */

TEST_F(CmdModem, AModemThatStaysAtWorkIsGivenUpAfterTwoMinutes)
{
    agent.text(PDP_STATUS, AT_WORK);
    EXPECT_EQ(bridge_cmd_wait_pdp(ctx), -1);
    const std::vector<std::string> taken = waits.taken();
    EXPECT_THAT(taken, SizeIs(ROUNDS));
    EXPECT_THAT(taken, Each(ROUND));
    EXPECT_THAT(agent.calls(), SizeIs(ROUNDS));
    EXPECT_THAT(agent.calls(), Each(status_read(PDP_STATUS)));
    EXPECT_THAT(log.complaints(), ElementsAre(join({"ERROR operation failed with a status: ", AT_WORK})));
}

TEST_F(CmdModem, TheModemIsAskedAfterEachWaitUntilItIsDone)
{
    static constexpr struct {
        size_t round;
        int result;
        size_t waits;
    } rows[] = {{1, 0, 1}, {2, 0, 2}, {599, 0, 599}, {600, 0, 600}, {601, -1, 600}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.round);
        changes(PDP_STATUS, AT_WORK, row.round, "PDP profile added successfully");
        EXPECT_EQ(bridge_cmd_wait_pdp(ctx), row.result);
        EXPECT_THAT(waits.taken(), SizeIs(row.waits));
    }
}

TEST_F(CmdModem, AStatusThatCannotBeReadEndsTheWaitWithAnotherNumber)
{
    agent.text(PDP_STATUS, AT_WORK);
    agent.fail("text", 3);
    EXPECT_EQ(bridge_cmd_wait_pdp(ctx), -EIO);
    EXPECT_THAT(waits.taken(), SizeIs(4));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

/* ---- what comes of it ---- */

TEST_F(CmdModem, AProfileCommandTellsThatTheModemHasNotCome)
{
    static constexpr struct {
        handler function;
        const char *params;
        const char *answer;
    } rows[] = {
        {bridge_cmd_get_wm_pdp_profiles, "{}", R"(7 {"status":"Operation not permitted"})"},
        {bridge_cmd_add_wm_pdp_profiles,
         R"({"newPDPs":[{"profileName":"a","apnName":"b"},{"profileName":"c","apnName":"d"}]})",
         R"(7 {"status":"Operation not permitted","failed_apn":"b"})"},
        {bridge_cmd_modify_wm_pdp_profiles,
         R"({"existingPDPs":[{"idx":4,"cid":1,"profileName":"a","apnName":"b"},{}]})",
         R"(7 {"status":"Input\/output error","failed_apn":"5"})"},
        {bridge_cmd_remove_wm_pdp_profiles, R"({"PDP_cids":[31,2]})",
         R"(7 {"status":"Operation not permitted","failed_apn":"31"})"},
    };
    agent.text(PDP_STATUS, AT_WORK);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.params);
        answers.clear();
        jobs_begun = 0;
        EXPECT_EQ(run(row.function, join({R"({"requestId":7,"params":)", row.params, "}"})),
                  R"({"status":"ok"})");
        EXPECT_THAT(answers, ElementsAre(row.answer));
        EXPECT_EQ(jobs_begun, 1);
        EXPECT_THAT(waits.taken(), SizeIs(ROUNDS));
    }
}

TEST_F(CmdModem, AProfileCommandWithoutANumberDoesNothing)
{
    static constexpr handler HANDLERS[] = {bridge_cmd_get_wm_pdp_profiles, bridge_cmd_add_wm_pdp_profiles,
                                           bridge_cmd_modify_wm_pdp_profiles,
                                           bridge_cmd_remove_wm_pdp_profiles};
    for (const handler function : HANDLERS) {
        const log_view view = log.from_here();
        run(function, R"({"params":{"newPDPs":[],"existingPDPs":[],"PDP_cids":[]}})");
        EXPECT_THAT(view.complaints(),
                    ElementsAre("WARN unable to retrieve field", "ERROR failed to de-serialize params"));
    }
    EXPECT_THAT(answers, IsEmpty());
    EXPECT_THAT(agent.calls(), IsEmpty());
    EXPECT_EQ(jobs_begun, 0) << "the request is answered a second time";
}

TEST_F(CmdModem, AnOperatorIsWaitedForTwoMinutesAndTheLastWordsAreTheAnswer)
{
    agent.text(NETWORK_STATUS, AT_WORK);
    EXPECT_EQ(run(bridge_cmd_set_wm_preferred_network, R"({"mcc":228,"mnc":1})"),
              join({R"({"status":")", AT_WORK, R"("})"}));
    EXPECT_THAT(waits.taken(), SizeIs(ROUNDS));
    EXPECT_EQ(agent.count(status_read(NETWORK_STATUS)), static_cast<long>(ROUNDS));
    changes(NETWORK_STATUS, AT_WORK, ROUNDS, "At last");
    EXPECT_EQ(run(bridge_cmd_set_wm_preferred_network, R"({"mcc":228,"mnc":1})"), R"({"status":"At last"})");
    EXPECT_THAT(log.complaints(), IsEmpty());
}

/* ---- requests to the agent ---- */

TEST_F(CmdModem, NoRequestAsksForMoreTimeThanTheShortest)
{
    static constexpr struct {
        handler function;
        const char *input;
        size_t calls;
    } rows[] = {
        {bridge_cmd_wm_device_information, "{}", 4},
        {bridge_cmd_wm_home_network, "{}", 1},
        {bridge_cmd_wm_rf_information, "{}", 1},
        {bridge_cmd_wm_active_profile, "{}", 1},
        {bridge_cmd_wm_call_statistics, "{}", 1},
        {bridge_cmd_get_wm_apns, "{}", 2},
        {bridge_cmd_add_wm_apn, R"({"name":"a"})", 1},
        {bridge_cmd_update_wm_apn, R"({"name":"a","idx":1})", 1},
        {bridge_cmd_delete_wm_apn, "1", 1},
        {bridge_cmd_get_wm_apn_status, "{}", 1},
        {bridge_cmd_get_wm_network_info, "{}", 2},
        {bridge_cmd_set_wm_preferred_network, R"({"mcc":228,"mnc":1})", 3},
        {bridge_cmd_get_sim_status, "{}", 1},
        {bridge_cmd_get_wm_pdp_profiles, R"({"requestId":7})", 3},
        {bridge_cmd_add_wm_pdp_profiles,
         R"({"requestId":7,"params":{"newPDPs":[{"profileName":"a","apnName":"b"}]}})", 5},
        {bridge_cmd_modify_wm_pdp_profiles,
         R"({"requestId":7,"params":{"existingPDPs":[{"idx":0,"cid":1,"profileName":"a","apnName":"b"}]}})",
         4},
        {bridge_cmd_remove_wm_pdp_profiles, R"({"requestId":7,"params":{"PDP_cids":[1]}})", 2},
    };
    agent.text(PDP_STATUS, "done successfully");
    for (const auto &row : rows) {
        SCOPED_TRACE(row.input);
        const size_t before = agent.calls().size();
        run(row.function, row.input);
        EXPECT_EQ(agent.calls().size() - before, row.calls);
    }
    EXPECT_THAT(agent.calls(), Each(testing::Not(testing::HasSubstr(" within "))));
}
