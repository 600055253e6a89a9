/* PUSH_DATA and PULL_DATA: what is published, in which order, and when the forwarder is answered. */
#include "converter/data_plane.h"

#include <cerrno>
#include <cstring>
#include <netdb.h>

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::MatchesRegex;

class DataUplink : public DataPlane
{
};

class DataUplinkDeath : public DataPlaneDeath
{
};

static std::string everything(std::initializer_list<std::string_view> uplinks)
{
    std::string rxpk;
    for (std::string_view data : uplinks)
        rxpk += join({rxpk.empty() ? "" : ",", rxpk_of(data)});
    /* In the reverse of the order in which they are published. */
    return join({R"({"stat":)", STAT_JSON, R"(,"locpk":[{"a":1}],"rxpk":[)", rxpk, "]}"});
}

static constexpr const char *NATIVE_STAT =
    R"({"altitude":-1,"latitude":-1.000000,"longitude":-1.000000,"mac":"0016c001ff10abcd",)"
    R"("rxPacketsReceived":1,)"
    R"("rxPacketsReceivedOK":1,"txPacketsReceived":0,"txPacketsEmitted":0,)"
    R"("time":"2026-01-02T03:04:05.000000Z"})";
static constexpr const char *LOCATION = R"([{"a":1}])";

/* ---- the road of a datagram ---- */

TEST_F(DataUplink, UplinksGeolocationAndStatisticsArePublishedInThisOrder)
{
    start();
    ASSERT_TRUE(is_acknowledged(everything({"AAAA", "BBBB"})));
    const std::vector<published> all = mqtt.publishes();
    ASSERT_EQ(all.size(), 4U);
    const published expected[] = {
        {BRIDGE_MQTT_EP_NS, "gateway/rx", native_uplink_of("AAAA"), false},
        {BRIDGE_MQTT_EP_NS, "gateway/rx", native_uplink_of("BBBB"), false},
        {BRIDGE_MQTT_EP_GEOLOC, "gateway/geoloc", LOCATION, false},
        {BRIDGE_MQTT_EP_NS, "gateway/stats", NATIVE_STAT, false},
    };
    for (size_t i = 0; i < all.size(); i++) {
        EXPECT_EQ(all[i].endpoint, expected[i].endpoint);
        EXPECT_EQ(all[i].topic, expected[i].topic);
        EXPECT_EQ(all[i].body, expected[i].body);
        EXPECT_FALSE(all[i].retained);
    }
    EXPECT_THAT(log.complaints(), IsEmpty());
    EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(DataUplink, TheLogFollowsADatagram)
{
    start();
    const std::string body = everything({"AAAA"});
    ASSERT_TRUE(is_acknowledged(body));
    std::vector<std::string> lines = log.lines();
    std::erase_if(lines, [](const std::string &line) { return line.starts_with("TRACE reached field"); });
    const auto first = std::find(lines.begin(), lines.end(), "TRACE PUSH_DATA received with version: 2");
    ASSERT_NE(first, lines.end());
    const std::string port = std::to_string(forwarder.port());
    EXPECT_EQ(*(first - 1), join({"TRACE received datagram from 127.0.0.1 , port ", port}));
    EXPECT_THAT(std::vector(first, first + 16),
                ElementsAre("TRACE PUSH_DATA received with version: 2",
                            join({"DEBUG PUSH_DATA message body: ", body}),
                            "TRACE Format: [0], from version: [0x2], to version: [0x1]",
                            "TRACE direction: [0]", "TRACE unable to retrieve field",
                            "TRACE unable to retrieve field", "TRACE mac: 0016c001ff10abcd, lsnr str: 5.1",
                            join({"DEBUG Publish to: gateway/rx, message body: ", native_uplink_of("AAAA")}),
                            join({"DEBUG Publish to: gateway/geoloc, message body: ", LOCATION}),
                            "TRACE Format: [0], from version: [0x2], to version: [0x1]",
                            "TRACE direction: [0x2]", "TRACE unable to retrieve field",
                            "TRACE unable to retrieve field", "TRACE unable to retrieve field",
                            "TRACE unable to retrieve field", "TRACE unable to retrieve field"));
    EXPECT_TRUE(log.has(join({"TRACE sending statistics: ", NATIVE_STAT})));
    EXPECT_TRUE(log.has(join({"DEBUG Publish to: gateway/stats, message body: ", NATIVE_STAT})));
    EXPECT_TRUE(log.has(join({"DEBUG sending to: 127.0.0.1:", port})));
}

TEST_F(DataUplink, TopicsFollowTheDialectAndTheConfiguredMac)
{
    const struct {
        bridge_ns_type type;
        const char *uplink;
        const char *downlink;
        const char *statistics;
    } rows[] = {
        {NS_TYPE_SNVNS, "gateway/rx", "gateway/tx", "gateway/stats"},
        {NS_TYPE_CHIRPSTACK_V2, "gateway/a-mac/rx", "gateway/a-mac/tx", "gateway/a-mac/stats"},
        {NS_TYPE_CHIRPSTACK_V3, "gateway/a-mac/event/up", "gateway/a-mac/command/down",
         "gateway/a-mac/event/stats"},
    };
    strcpy(configuration.generic.gw_mac, "a-mac");
    strcpy(configuration.geoloc.topic, "somewhere/else");
    for (const auto &row : rows) {
        SCOPED_TRACE(row.uplink);
        mqtt.reset();
        start(row.type);
        ASSERT_TRUE(is_acknowledged(everything({"AAAA"})));
        const std::vector<published> all = mqtt.publishes();
        ASSERT_EQ(all.size(), 3U);
        EXPECT_EQ(all[0].topic, row.uplink);
        EXPECT_EQ(all[1].topic, "somewhere/else");
        EXPECT_EQ(all[2].topic, row.statistics);
        EXPECT_THAT(mqtt.calls(),
                    ElementsAre("connect NS", join({"subscribe NS ", row.downlink}), "connect GEOLOC"));
        stop();
    }
}

TEST_F(DataUplink, TheVersionOfTheDatagramDecidesHowItIsRead)
{
    start();
    EXPECT_THAT(answers_to(push_data(join({R"({"rxpk":[)", rxpk_of("AAAA"), "]}"}), 1)),
                ElementsAre(push_ack(1)));
    std::string expected = native_uplink_of("AAAA");
    for (const auto &[from, to] :
         {std::pair("\"channel\":2", "\"channel\":0"), {"\"rssi\":-35", "\"rssi\":0"}, {"5.1", "0.0"}})
        expected.replace(expected.find(from), strlen(from), to);
    EXPECT_THAT(published_bodies(), ElementsAre(expected));
}

TEST_F(DataUplink, TheMacIsThatOfTheDatagram)
{
    start(NS_TYPE_CHIRPSTACK_V3);
    std::string datagram = push_data(join({R"({"stat":)", STAT_JSON, "}"}));
    datagram.replace(4, 8, std::string_view("\0\0\0\0\0\0\0\x01", 8));
    EXPECT_THAT(answers_to(datagram), ElementsAre(push_ack()));
    ASSERT_EQ(published_bodies().size(), 1U);
    EXPECT_THAT(published_bodies()[0], testing::StartsWith(R"({"gatewayID":"AAAAAAAAAAE=",)"));
}

/* ---- what needs no publish ---- */

TEST_F(DataUplink, ADatagramWithNothingToPublishIsAcknowledged)
{
    start();
    for (const char *json :
         {"{}", R"({"other":1})", R"({"rxpk":[],"locpk":[]})", R"({"rxpk":{},"locpk":{"a":1}})",
          R"({"rxpk":null,"locpk":null})", R"({"rxpk":"text","locpk":5})", "[]", "17", "true "}) {
        SCOPED_TRACE(json);
        EXPECT_TRUE(is_acknowledged(json));
    }
    EXPECT_THAT(mqtt.publishes(), IsEmpty());
    EXPECT_THAT(log.complaints(), IsEmpty());
}

/* All that is absent is told before anything is published. */
TEST_F(DataUplink, PartsThatAreAbsentAreTracedFirst)
{
    start();
    ASSERT_TRUE(is_acknowledged("{}"));
    for (const char *line :
         {"TRACE no rxpk array in {}", "TRACE no statistics object in {}", "TRACE no geoloc object in {}"})
        EXPECT_EQ(log.count(line), 1) << line;

    const std::string uplink = join({R"({"rxpk":[)", rxpk_of("AAAA"), "]}"});
    ASSERT_TRUE(is_acknowledged(uplink));
    const long published =
        log.position(join({"DEBUG Publish to: gateway/rx, message body: ", native_uplink_of("AAAA")}));
    const long statistics = log.position(join({"TRACE no statistics object in ", uplink}));
    const long location = log.position(join({"TRACE no geoloc object in ", uplink}));
    EXPECT_GT(statistics, 0);
    EXPECT_LT(statistics, location);
    EXPECT_LT(location, published);
}

TEST_F(DataUplink, ADisabledNetworkServerTakesNothingAndTheDatagramIsAcknowledged)
{
    mqtt.enabled = {BRIDGE_MQTT_EP_GEOLOC};
    start();
    EXPECT_TRUE(is_acknowledged(everything({"AAAA", "BBBB"})));
    EXPECT_THAT(published_bodies(), ElementsAre(LOCATION));
    EXPECT_EQ(log.count("DEBUG NS packet is dropped: endpoint is disabled"), 3);
}

TEST_F(DataUplink, ADisabledGeolocationServerTakesNothingAndTheDatagramIsAcknowledged)
{
    mqtt.enabled = {BRIDGE_MQTT_EP_NS};
    start();
    EXPECT_TRUE(is_acknowledged(everything({"AAAA"})));
    EXPECT_THAT(published_bodies(), ElementsAre(native_uplink_of("AAAA"), NATIVE_STAT));
    EXPECT_EQ(log.count("DEBUG geoloc packet is dropped: endpoint is disabled"), 1);
}

/* The words say that it is skipped; it is the failing publish that brings the connection back. */
TEST_F(DataUplink, AServerThatIsNotYetConnectedIsPublishedToAllTheSame)
{
    start();
    bridge_dataplane_ns_disconnect();
    bridge_dataplane_geo_disconnect();
    EXPECT_TRUE(is_acknowledged(everything({"AAAA"})));
    EXPECT_EQ(published_bodies().size(), 3U);
    EXPECT_EQ(log.count("DEBUG NS endpoint is enabled but not yet ready, skipping sending packet"), 2);
    EXPECT_EQ(log.count("DEBUG geoloc endpoint is enabled but not yet ready, skipping sending packet"), 1);
}

/* ---- failures within a datagram ---- */

TEST_F(DataUplink, AFailedPublishEndsTheDatagramAndTellsTheMainLoop)
{
    const struct {
        const char *name;
        std::initializer_list<int> results;
        size_t published; /* of AAAA, BBBB, the location and the statistics */
        int32_t code;
        std::vector<std::string> lines;
    } rows[] = {
        {"first uplink", {-1}, 1, 0, {"ERROR failed to send message over MQTT"}},
        {"second uplink", {0, -3}, 2, 0, {"ERROR failed to send message over MQTT"}},
        {"location", {0, 0, -1}, 3, 1, {}},
        {"statistics", {0, 0, 0, -1}, 4, 0, {"ERROR failed to send stats message over mqtt"}},
    };
    start();
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const log_view own = log.from_here();
        const size_t before = mqtt.publishes().size();
        mqtt.results(row.results);
        EXPECT_FALSE(is_acknowledged(everything({"AAAA", "BBBB"})));
        EXPECT_EQ(mqtt.publishes().size() - before, row.published);
        EXPECT_THAT(failures(), ElementsAre(send_failure{row.code, &send_failed_context}));
        std::vector<std::string> expected = row.lines;
        expected.push_back("ERROR failed to process uplink message");
        EXPECT_THAT(own.complaints(), ElementsAreArray(expected));
    }
    EXPECT_TRUE(is_acknowledged(everything({"AAAA"}))) << "the next datagram is none the worse";
}

/* A result above 0 is no failure, but it is not 0 either. */
TEST_F(DataUplink, APositiveResultOfTheLastPublishWithholdsTheAcknowledgement)
{
    start();
    const std::string uplinks = join({R"({"rxpk":[)", rxpk_of("AAAA"), ",", rxpk_of("BBBB"), "]}"});
    mqtt.results({5, 0});
    EXPECT_TRUE(is_acknowledged(uplinks)) << "the first result gives way to the second";
    mqtt.results({0, 5});
    EXPECT_FALSE(is_acknowledged(uplinks));
    mqtt.results({0, 0, 0, 5});
    EXPECT_FALSE(is_acknowledged(everything({"AAAA", "BBBB"})));
    EXPECT_EQ(mqtt.publishes().size(), 8U);
    EXPECT_THAT(failures(), IsEmpty());
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(DataUplink, AnUplinkThatCannotBeTranslatedEndsTheDatagram)
{
    start();
    for (const std::string bad : {"null", "5", "{}", R"({"tmst":"x"})"}) {
        SCOPED_TRACE(bad);
        const log_view own = log.from_here();
        const size_t before = mqtt.publishes().size();
        EXPECT_FALSE(is_acknowledged(join({R"({"rxpk":[)", rxpk_of("AAAA"), ",", bad, ",", rxpk_of("CCCC"),
                                           R"(],"locpk":[{"a":1}],"stat":)", STAT_JSON, "}"})));
        EXPECT_EQ(mqtt.publishes().size() - before, 1U);
        EXPECT_TRUE(own.has("TRACE failed to translate message"));
        EXPECT_THAT(own.complaints(),
                    testing::Contains(testing::StartsWith("ERROR failed to deserialize uplink packet: ")));
        EXPECT_EQ(own.complaints().back(), "ERROR failed to process uplink message");
    }
    EXPECT_THAT(failures(), IsEmpty()) << "the connection is not to blame";
}

TEST_F(DataUplink, StatisticsThatCannotBeTranslatedWithholdTheAcknowledgement)
{
    start();
    const std::vector<std::pair<const char *, bool>> rows = {
        {"null", false},     {"5", false}, {"[]", false},
        {"\"text\"", false}, {"{}", true}, {R"({"time":null})", true},
    };
    for (const auto &[stat, is_object] : rows) {
        SCOPED_TRACE(stat);
        const log_view own = log.from_here();
        const std::string json = join({R"({"stat":)", stat, R"(,"rxpk":[)", rxpk_of("AAAA"), "]}"});
        EXPECT_FALSE(is_acknowledged(json));
        EXPECT_EQ(own.has(join({"TRACE no statistics object in ", json})), !is_object);
        EXPECT_TRUE(own.has("TRACE failed to translate message"));
        EXPECT_THAT(own.complaints(),
                    testing::Contains(testing::StartsWith("ERROR failed to deserialize statistics: ")));
    }
    for (const std::string &body : published_bodies())
        EXPECT_EQ(body, native_uplink_of("AAAA"));
    EXPECT_EQ(published_bodies().size(), rows.size());
    EXPECT_THAT(failures(), IsEmpty());
}

/* errno tells the library's readers of a bad number, and it stays until somebody clears it. */
TEST_F(DataUplink, ABadNumberOrAFailedCallDoesNotSpoilTheNextMessage)
{
    start();
    const std::string good =
        join({R"({"rxpk":[)", rxpk_of("AAAA"), ",", rxpk_of("BBBB"), R"(],"stat":)", STAT_JSON, "}"});
    EXPECT_FALSE(is_acknowledged(
        R"({"stat":{"time":"t","rxnb":1,"rxok":1,"rxfw":1,"ackr":1,"dwnb":1,"txnb":1,"lati":"x"}})"));
    EXPECT_TRUE(is_acknowledged(good));
    mqtt.publish_errno = EINVAL;
    EXPECT_TRUE(is_acknowledged(good)) << "neither between the parts of a datagram";
    EXPECT_TRUE(is_acknowledged(good)) << "nor between datagrams";
    EXPECT_EQ(mqtt.publishes().size(), 9U);
}

TEST_F(DataUplink, WantOfMemoryEndsTheDatagramOrLosesTheStatisticsAlone)
{
    start();
    const std::string stat = join({R"({"stat":)", STAT_JSON, "}"});
    faults.new_tokener.arm(0, 0, 0);
    EXPECT_FALSE(is_acknowledged(stat));
    EXPECT_THAT(log.complaints(),
                ElementsAre("ERROR failed to allocate tokener", "ERROR failed to process uplink message"));
    faults.new_object.arm(0, 0, 0);
    EXPECT_FALSE(is_acknowledged(stat));
    EXPECT_EQ(log.count("ERROR failed to create object"), 1);
    EXPECT_EQ(log.complaints().size(), 4U);
    faults.new_object.arm(1, 0, 0);
    EXPECT_TRUE(is_acknowledged(stat));
    EXPECT_TRUE(log.has("DEBUG failed to create statistics object"));
    faults.to_string.arm(0, 0, 0);
    EXPECT_FALSE(is_acknowledged(R"({"locpk":[1]})"));
    EXPECT_TRUE(log.has("ERROR failed to allocate geoloc string"));
    EXPECT_THAT(mqtt.publishes(), IsEmpty());
    EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(DataUplink, TheAcknowledgementComesAfterThePublishes)
{
    start();
    mqtt.hold();
    forwarder.send(push_data(join({R"({"rxpk":[)", rxpk_of("AAAA"), "]}"})));
    ASSERT_TRUE(mqtt.wait_for_held());
    EXPECT_TRUE(forwarder.is_silent());
    mqtt.let_go();
    EXPECT_EQ(forwarder.receive(), push_ack());
}

/* ---- sizes ---- */

TEST_F(DataUplink, TextThatIsNoJsonIsNotAcknowledgedAndIsForgotten)
{
    start();
    for (const char *text : {"{ ", "no", "{\"rxpk\":[", "null", "  ", "]]"}) {
        SCOPED_TRACE(text);
        const log_view own = log.from_here();
        EXPECT_FALSE(is_acknowledged(text));
        EXPECT_TRUE(own.has(join({"DEBUG PUSH_DATA message body: ", text})));
        EXPECT_THAT(own.complaints(), ElementsAre("ERROR failed to allocate tokener",
                                                  "ERROR failed to process uplink message"));
        EXPECT_TRUE(is_acknowledged("{}")) << "nothing of it is left";
    }
}

TEST_F(DataUplink, ADatagramOf14BytesIsTheShortestPushData)
{
    start();
    const std::string shortest = push_data("{}");
    ASSERT_EQ(shortest.size(), 14U);
    EXPECT_THAT(answers_to(shortest), ElementsAre(push_ack()));
    for (size_t size = 4; size < 14; size++) {
        const log_view own = log.from_here();
        EXPECT_THAT(answers_to(shortest.substr(0, size)), IsEmpty()) << size;
        EXPECT_EQ(own.count("DEBUG no data to handle"), 1) << size;
        EXPECT_THAT(own.complaints(), ElementsAre("ERROR failed to process uplink message"));
    }
}

TEST_F(DataUplink, ADatagramOfMoreThan1023BytesIsCut)
{
    start();
    const std::string json = join({R"({"rxpk":[)", rxpk_of("AAAA"), "]"});
    const auto of_size = [&](size_t size) {
        std::string datagram = push_data(json);
        datagram.append(size - datagram.size() - 1, ' ');
        return datagram + "}";
    };
    EXPECT_THAT(answers_to(of_size(1023)), ElementsAre(push_ack()));
    EXPECT_THAT(log.complaints(), IsEmpty());
    EXPECT_THAT(answers_to(of_size(1024)), IsEmpty());
    EXPECT_THAT(answers_to(of_size(8000)), IsEmpty());
    EXPECT_THAT(log.complaints(),
                ElementsAre("ERROR failed to allocate tokener", "ERROR failed to process uplink message",
                            "ERROR failed to allocate tokener", "ERROR failed to process uplink message"));
    EXPECT_EQ(mqtt.publishes().size(), 1U);
}

/* The text ends at its first zero byte, as texts do. */
TEST_F(DataUplink, WhatFollowsAZeroByteIsNotRead)
{
    start();
    EXPECT_THAT(answers_to(push_data(std::string_view("{}\0{garbage", 11))), ElementsAre(push_ack()));
}

TEST_F(DataUplink, ADatagramWithoutAWholeHeaderIsRefused)
{
    start();
    for (const char *size : {"1", "2", "3"}) {
        const log_view own = log.from_here();
        EXPECT_THAT(answers_to(push_data("").substr(0, static_cast<size_t>(atoi(size) - 1))), IsEmpty());
        EXPECT_TRUE(own.has(join({"TRACE not enough data to continue: ", size})));
        EXPECT_THAT(own.complaints(), ElementsAre("ERROR failed to process uplink message"));
    }
    EXPECT_THAT(answers_to(push_data("", 3).substr(0, 3)), IsEmpty());
    EXPECT_TRUE(log.has("TRACE invalid version: 3"));
}

/* The terminator is counted, and stands where the identifier would: a PUSH_DATA without even a size. */
TEST_F(DataUplinkDeath, AHeaderOfThreeBytesIsAProgrammingFault)
{
    const uint8_t datagram[] = {2, 0x34, 0x12, 0};
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    EXPECT_ASSERTION(bridge_process_uplink(&address, datagram, sizeof(datagram)), "data_size > 0");
}

TEST_F(DataUplink, AnotherVersionOrIdentifierIsRefused)
{
    start();
    for (const int version : {0, 3, 255}) {
        const log_view own = log.from_here();
        EXPECT_THAT(answers_to(push_data("{}", static_cast<char>(version))), IsEmpty());
        EXPECT_TRUE(own.has(join({"TRACE invalid version: ", std::to_string(version)})));
        EXPECT_THAT(own.complaints(), ElementsAre("ERROR failed to process uplink message"));
    }
    for (const int identifier : {1, 3, 4, 6, 255}) {
        const log_view own = log.from_here();
        std::string datagram = push_data("{}");
        datagram[3] = static_cast<char>(identifier);
        EXPECT_THAT(answers_to(datagram), IsEmpty());
        EXPECT_TRUE(own.has(join({"TRACE invalid packet type: ", std::to_string(identifier)})));
        EXPECT_THAT(own.complaints(), ElementsAre("ERROR failed to process uplink message"));
    }
}

/* ---- answers and addresses ---- */

TEST_F(DataUplink, EachDatagramIsAnsweredInItsVersionWithItsToken)
{
    start();
    for (const char version : {'\1', '\2', '\1'}) {
        for (const std::string_view token :
             {std::string_view("\0\0", 2), std::string_view("\1\377"), TOKEN}) {
            forwarder.send(push_data("{}", version, token));
            EXPECT_EQ(forwarder.receive(), push_ack(version, token));
            forwarder.send(pull_data(version, token));
            EXPECT_EQ(forwarder.receive(), pull_ack(version, token));
        }
    }
    EXPECT_TRUE(log.has("TRACE PULL_DATA received"));
    EXPECT_TRUE(log.has("TRACE PUSH_DATA received with version: 1"));
}

TEST_F(DataUplink, TheHeaderOfAPullDataIsEnough)
{
    start();
    forwarder.send(pull_data().substr(0, 4));
    EXPECT_EQ(forwarder.receive(), pull_ack());
}

TEST_F(DataUplink, PushAndPullKeepEachItsOwnPort)
{
    start();
    const forwarder_socket pull;
    const forwarder_socket other_pull;
    forwarder.send(push_data("{}"));
    EXPECT_EQ(forwarder.receive(), push_ack());
    pull.send(pull_data());
    EXPECT_EQ(pull.receive(), pull_ack());
    forwarder.send(push_data("{}"));
    EXPECT_EQ(forwarder.receive(), push_ack());
    other_pull.send(pull_data());
    EXPECT_EQ(other_pull.receive(), pull_ack());
    forwarder.send(push_data("{}"));
    EXPECT_EQ(forwarder.receive(), push_ack());
    EXPECT_TRUE(pull.is_silent() && other_pull.is_silent());
}

TEST_F(DataUplink, TheSamePortOfAnotherHostIsAnotherSender)
{
    start();
    const forwarder_socket neighbour("127.0.0.2", forwarder.port());
    for (const auto *sender :
         std::initializer_list<const forwarder_socket *>{&forwarder, &neighbour, &forwarder}) {
        sender->send(push_data("{}"));
        EXPECT_EQ(sender->receive(), push_ack());
        sender->send(pull_data());
        EXPECT_EQ(sender->receive(), pull_ack());
    }
}

/* There is one host, that of the last sender, and a port for each kind. */
TEST_F(DataUplink, DownlinksGoToTheLastHostAtThePullPort)
{
    start();
    const forwarder_socket neighbour("127.0.0.2", forwarder.port());
    const forwarder_socket push("127.0.0.2");
    forwarder.send(pull_data());
    EXPECT_EQ(forwarder.receive(), pull_ack());
    push.send(push_data("{}"));
    EXPECT_EQ(push.receive(), push_ack());
    down(downlink_of("AAAA"));
    EXPECT_EQ(neighbour.receive(), pull_resp(txpk_of("AAAA", 3)));
    EXPECT_TRUE(forwarder.is_silent());
}

TEST_F(DataUplink, NamesAreAskedForOnlyWhenTheyChange)
{
    start();
    for (int i = 0; i < 3; i++)
        EXPECT_TRUE(is_acknowledged("{}"));
    EXPECT_EQ(faults.getnameinfo.calls, 2);
    EXPECT_EQ(faults.getaddrinfo.calls, 2);
    const forwarder_socket other;
    other.send(push_data("{}"));
    EXPECT_EQ(other.receive(), push_ack());
    EXPECT_EQ(faults.getnameinfo.calls, 3);
    EXPECT_EQ(faults.getaddrinfo.calls, 3);
}

TEST_F(DataUplink, ASenderWithoutANameIsNotServed)
{
    start();
    faults.getnameinfo.arm(0, EAI_FAIL, 0);
    EXPECT_FALSE(is_acknowledged("{}"));
    EXPECT_THAT(log.complaints(),
                ElementsAre(join({"ERROR error getting gateway info: ", gai_strerror(EAI_FAIL)}),
                            "ERROR failed to process uplink message"));
    EXPECT_TRUE(is_acknowledged("{}"));
}

TEST_F(DataUplink, AnAddressThatCannotBeResolvedIsAWarning)
{
    start();
    faults.getaddrinfo.arm(0, EAI_NONAME, 0);
    EXPECT_FALSE(is_acknowledged("{}"));
    EXPECT_THAT(log.complaints(),
                ElementsAre(join({"WARN unable to get service info: ", gai_strerror(EAI_NONAME)}),
                            "ERROR failed to process uplink message"));
    EXPECT_TRUE(is_acknowledged("{}"));
}

TEST_F(DataUplink, ASendThatFailsIsAWarning)
{
    start();
    faults.sendto.arm(0, -1, EPERM);
    EXPECT_FALSE(is_acknowledged("{}"));
    EXPECT_THAT(log.complaints(), ElementsAre("WARN failed to send packet: -1 Operation not permitted",
                                              "ERROR failed to process uplink message"));
    faults.sendto.arm(0, 0, EAGAIN);
    EXPECT_FALSE(is_acknowledged("{}"));
    EXPECT_EQ(log.complaints().back(), "WARN failed to send packet: 0 Resource temporarily unavailable");
}

/* ---- the worker ---- */

TEST_F(DataUplink, TheWorkerGoesOnAfterFailedCalls)
{
    start();
    faults.recvfrom.arm(0, -1, ENOMEM);
    EXPECT_THAT(answers_to(push_data("{}")), IsEmpty());
    EXPECT_EQ(log.complaints().back(), "ERROR error while receiving uplink message: Cannot allocate memory");
    faults.select.arm(0, -1, EINTR);
    EXPECT_TRUE(is_acknowledged("{}"));
    EXPECT_TRUE(log.wait_for("TRACE interrupted by a signal"));
    faults.select.arm(0, -1, ENOMEM);
    EXPECT_TRUE(is_acknowledged("{}"));
    EXPECT_TRUE(log.wait_for("ERROR select failed, starting again"));
    EXPECT_TRUE(is_acknowledged("{}"));
}

TEST_F(DataUplinkDeath, TheRoadsWantTheirData)
{
    const sockaddr_in address = {};
    const uint8_t byte = 0;
    EXPECT_ASSERTION(bridge_process_uplink(&address, nullptr, 5), "uplink");
    EXPECT_ASSERTION(bridge_process_uplink(&address, &byte, 0), "uplink_size > 0");
    EXPECT_ASSERTION(bridge_handle_push_data(2, nullptr, 5), "data");
    EXPECT_ASSERTION(bridge_handle_push_data(2, &byte, 0), "data_size > 0");
    EXPECT_ASSERTION(bridge_udp_send(nullptr, 5, true), "data");
    EXPECT_ASSERTION(bridge_udp_send(&byte, 0, true), "data_size > 0");
}

/* Set by bridge_dataplane_init, and asked for where the network server's publishes fail. */
TEST_F(DataUplinkDeath, AFailedPublishWantsSomebodyToTell)
{
    static const std::string road = join({GATEWAY_MAC, R"({"stat":)", STAT_JSON, "}"});
    mqtt.results({-1});
    EXPECT_ASSERTION(
        bridge_handle_push_data(2, reinterpret_cast<const uint8_t *>(road.c_str()), road.size() + 1),
        "converter_ctx.cb");
}
