/* What becomes of a downlink, as the forwarder tells it: heard by ChirpStack v3 alone. */
#include "converter/data_plane.h"

using testing::ElementsAre;
using testing::IsEmpty;

class DataTxAck : public DataPlane
{
  protected:
    static std::string message(std::string_view status, std::string_view token = "4660")
    {
        return join({R"({ "gatewayID": "ABbAAf8Qq80=", "token": )", token, R"(, "items": [ { "status": ")",
                     status, R"(" } ] })"});
    }

    static std::string with_error(std::string_view error)
    {
        return tx_ack(join({R"({"txpk_ack":{"error":)", error, "}}"}));
    }
};

class DataTxAckDeath : public DataPlaneDeath
{
};

TEST_F(DataTxAck, TheStatusIsPublishedWithTheTokenOfTheDatagram)
{
    const std::vector<std::pair<std::string, std::string>> rows = {
        {tx_ack(""), message("OK")},
        {tx_ack("x"), message("OK")},
        {with_error("\"NONE\""), message("OK")},
        {with_error("\"TOO_LATE\""), message("TOO_LATE")},
        {with_error("\"none\""), message("none")},
        {with_error("\"\""), message("")},
        {with_error("\"OK\""), message("OK")},
        {with_error("7"), message("7")},
        {with_error("{\"a\":1}"), message("{ \"a\": 1 }")},
        {with_error("null"), message("(null)")},
        {tx_ack("{}"), message("(null)")},
        {tx_ack("[]"), message("(null)")},
        {tx_ack("17"), message("(null)")},
        {tx_ack(R"({"txpk_ack":{}})"), message("(null)")},
        {tx_ack(R"({"txpk_ack":null})"), message("(null)")},
        {tx_ack(R"({"txpk_ack":"TOO_LATE"})"), message("(null)")},
        {tx_ack(R"({"error":"TOO_LATE"})"), message("(null)")},
        {tx_ack("", std::string_view("\0\0", 2)), message("OK", "0")},
        {tx_ack("", "\xff\xff"), message("OK", "65535")},
        {tx_ack("", "\x01\x02", 1), message("OK", "513")},
    };
    start(NS_TYPE_CHIRPSTACK_V3);
    for (const auto &[datagram, expected] : rows) {
        const size_t before = mqtt.publishes().size();
        EXPECT_THAT(answers_to(datagram), IsEmpty()) << "a TX_ACK is not answered";
        const std::vector<published> all = mqtt.publishes();
        ASSERT_EQ(all.size(), before + 1) << expected;
        EXPECT_EQ(all.back().body, expected);
        EXPECT_EQ(all.back().endpoint, BRIDGE_MQTT_EP_NS);
        EXPECT_EQ(all.back().topic, "gateway/0016C001FF10ABCD/event/ack");
        EXPECT_FALSE(all.back().retained);
    }
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(DataTxAck, TheLogTellsWhatIsMissing)
{
    start(NS_TYPE_CHIRPSTACK_V3);
    answers_to(tx_ack("{}"));
    EXPECT_TRUE(log.has("TRACE TX_ACK received with size: 15"));
    EXPECT_TRUE(log.has("DEBUG TX_ACK message body: {}"));
    EXPECT_TRUE(log.has("TRACE no txpk_ack object in {}"));
    EXPECT_TRUE(log.has("TRACE mac encoded: ABbAAf8Qq80="));
    EXPECT_TRUE(log.has(
        join({"DEBUG Publish to: gateway/0016C001FF10ABCD/event/ack, message body: ", message("(null)")})));
    answers_to(tx_ack(R"({"txpk_ack":{}})"));
    EXPECT_TRUE(log.has(R"(TRACE no err string array in {"txpk_ack":{}})"));
    answers_to(tx_ack(""));
    EXPECT_EQ(log.count("DEBUG TX_ACK contains no JSON"), 1);
}

TEST_F(DataTxAck, ADatagramOf12BytesIsTheShortestTxAck)
{
    start(NS_TYPE_CHIRPSTACK_V3);
    ASSERT_EQ(tx_ack("").size(), 12U);
    for (size_t size = 4; size < 12; size++) {
        const log_view own = log.from_here();
        answers_to(tx_ack("").substr(0, size));
        EXPECT_TRUE(own.has(join({"DEBUG no data to handle: ", std::to_string(size - 3)})));
        EXPECT_THAT(own.complaints(), ElementsAre("ERROR failed to process uplink message"));
    }
    EXPECT_THAT(mqtt.publishes(), IsEmpty());
    answers_to(tx_ack(""));
    EXPECT_EQ(mqtt.publishes().size(), 1U);
}

TEST_F(DataTxAck, TextThatIsNoJsonIsNotForwarded)
{
    start(NS_TYPE_CHIRPSTACK_V3);
    for (const char *text : {"{\"", "null", "  ", "{\"txpk_ack\":"}) {
        const log_view own = log.from_here();
        answers_to(tx_ack(text));
        EXPECT_THAT(own.complaints(), ElementsAre("ERROR failed to allocate tokener",
                                                  "ERROR failed to process uplink message"));
    }
    EXPECT_THAT(mqtt.publishes(), IsEmpty());
    answers_to(with_error("\"TOO_LATE\""));
    EXPECT_THAT(published_bodies(), ElementsAre(message("TOO_LATE"))) << "nothing of it is left";
}

/* The whole message has 511 characters at most: what does not fit is refused, and the process lives on. */
TEST_F(DataTxAck, AStatusThatDoesNotFitTheMessageIsRefused)
{
    start(NS_TYPE_CHIRPSTACK_V3);
    const size_t longest = 511 - message("").size();
    for (const size_t length : {size_t{400}, longest}) {
        const std::string status(length, 's');
        answers_to(with_error(join({"\"", status, "\""})));
        ASSERT_FALSE(mqtt.publishes().empty()) << length;
        EXPECT_EQ(mqtt.publishes().back().body, message(status)) << length;
    }
    EXPECT_THAT(log.complaints(), IsEmpty());
    const size_t before = mqtt.publishes().size();
    for (const size_t length : {longest + 1, size_t{900}}) {
        const log_view own = log.from_here();
        answers_to(with_error(join({"\"", std::string(length, 's'), "\""})));
        EXPECT_THAT(own.complaints(),
                    ElementsAre(testing::StartsWith("ERROR "), "ERROR failed to process uplink message"));
    }
    EXPECT_EQ(mqtt.publishes().size(), before);
}

TEST_F(DataTxAck, AFailedPublishTellsTheMainLoop)
{
    start(NS_TYPE_CHIRPSTACK_V3);
    mqtt.results({-1});
    answers_to(tx_ack(""));
    EXPECT_THAT(failures(), ElementsAre(send_failure{0, &send_failed_context}));
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR failed to send message over MQTT",
                                              "ERROR failed to process uplink message"));
}

TEST_F(DataTxAck, TheOtherDialectsDoNotHearOfIt)
{
    for (const bridge_ns_type type : {NS_TYPE_SNVNS, NS_TYPE_CHIRPSTACK_V2}) {
        start(type);
        for (const std::string &datagram :
             {tx_ack(""), tx_ack("").substr(0, 5), with_error("\"TOO_LATE\""), tx_ack("{")})
            EXPECT_THAT(answers_to(datagram), IsEmpty());
        stop();
    }
    EXPECT_THAT(mqtt.publishes(), IsEmpty());
    EXPECT_THAT(log.complaints(), IsEmpty());
}

/* An acknowledgement alone tells neither where downlinks go nor that they may. */
TEST_F(DataTxAck, ItsSenderIsNotRemembered)
{
    start();
    const forwarder_socket other;
    EXPECT_TRUE(is_acknowledged("{}"));
    other.send(tx_ack(""));
    EXPECT_TRUE(is_acknowledged("{}"));
    down(downlink_of("AAAA"));
    EXPECT_EQ(forwarder.receive(), pull_resp(txpk_of("AAAA", 3)));
    EXPECT_TRUE(other.is_silent());
}

TEST_F(DataTxAckDeath, AnUnknownDialectIsAProgrammingFault)
{
    configuration.ns.ns_type = static_cast<bridge_ns_type>(3);
    const uint8_t data[9] = {};
    EXPECT_ASSERTION(bridge_handle_tx_ack(0, data, sizeof(data)), "0");
}
