/* Downlinks on their way from the topic through the pipe to the forwarder. */
#include "converter/data_plane.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

using testing::ElementsAre;
using testing::IsEmpty;

class DataDownlink : public DataPlane
{
  protected:
    /* Tells the plane where the forwarder listens. */
    void announce()
    {
        forwarder.send(pull_data());
        ASSERT_EQ(forwarder.receive(), pull_ack());
    }

    static bool pipe_is_full()
    {
        pollfd end = {.fd = converter_ctx.pipe_fds[1], .events = POLLOUT, .revents = 0};
        return poll(&end, 1, 0) == 0;
    }

    /* Returns the number of downlinks that the pipe took. */
    int fill_pipe()
    {
        int count = 0;
        for (; !pipe_is_full(); count++)
            down(downlink_of(numbered(count)));
        return count;
    }

    /* A payload of four characters. */
    static std::string numbered(int number)
    {
        std::string text = std::to_string(number);
        return std::string(4 - text.size(), 'A') + text;
    }
};

class DataDownlinkDeath : public DataPlaneDeath
{
};

static constexpr const char *V3_DOWN =
    R"({"phyPayload":"AAAA","token":4660,"txInfo":{"frequency":868100000,"power":14,"modulation":"LORA",)"
    R"("loRaModulationInfo":{"bandwidth":125,"spreadingFactor":9,"codeRate":"4/5",)"
    R"("polarizationInversion":true},)"
    R"("board":0,"antenna":0,"timing":"IMMEDIATELY"}})";
static constexpr const char *V2_DOWN =
    R"({"phyPayload":"AAAA","token":513,"txInfo":{"codeRate":"4/5","dataRate":{"bandwidth":125,)"
    R"("modulation":"LORA",)"
    R"("spreadFactor":9},"frequency":868100000,"immediately":true,"mac":"m","power":14,"timestamp":0}})";

TEST_F(DataDownlink, ADownlinkLeavesAsOneDatagramWithItsTerminator)
{
    const struct {
        bridge_ns_type type;
        std::string message;
        uint16_t token;
    } rows[] = {
        {NS_TYPE_SNVNS, downlink_of("AAAA"), 0},
        {NS_TYPE_CHIRPSTACK_V2, V2_DOWN, 513},
        {NS_TYPE_CHIRPSTACK_V3, V3_DOWN, 4660},
    };
    for (const auto &row : rows) {
        start(row.type);
        announce();
        down(row.message);
        EXPECT_EQ(forwarder.receive(), pull_resp(txpk_of("AAAA", 3), row.token));
        stop();
    }
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(DataDownlink, TheLogFollowsADownlink)
{
    start();
    announce();
    down(downlink_of("AAAA"));
    ASSERT_EQ(forwarder.receive(), pull_resp(txpk_of("AAAA", 3)));
    const std::string size = std::to_string(pull_resp(txpk_of("AAAA", 3)).size());
    EXPECT_TRUE(log.has(join({"TRACE bytes written to pipe: [", size, "]"})));
    EXPECT_TRUE(log.has(join({"TRACE pipe data received: ", size, " bytes"})));
    EXPECT_TRUE(log.has(join({"DEBUG sending to: 127.0.0.1:", std::to_string(forwarder.port())})));
}

TEST_F(DataDownlink, TheVersionIsThatOfTheLastDatagram)
{
    start();
    for (const char version : {'\1', '\2', '\1'}) {
        forwarder.send(pull_data(version));
        ASSERT_EQ(forwarder.receive(), pull_ack(version));
        down(downlink_of("AAAA"));
        EXPECT_EQ(forwarder.receive(), pull_resp(txpk_of("AAAA", 3), 0, version));
    }
    forwarder.send(push_data("{}", 2));
    ASSERT_EQ(forwarder.receive(), push_ack(2));
    down(downlink_of("AAAA"));
    EXPECT_EQ(forwarder.receive(), pull_resp(txpk_of("AAAA", 3), 0, 2)) << "whatever kind it was";
}

TEST_F(DataDownlink, ThePullPortMovesWithTheLastPullData)
{
    start();
    announce();
    const forwarder_socket other;
    other.send(pull_data());
    ASSERT_EQ(other.receive(), pull_ack());
    down(downlink_of("AAAA"));
    EXPECT_EQ(other.receive(), pull_resp(txpk_of("AAAA", 3)));
    EXPECT_TRUE(forwarder.is_silent());
}

TEST_F(DataDownlink, BeforeTheFirstPullDataItIsDroppedByTheWorker)
{
    start();
    forwarder.send(push_data("{}"));
    ASSERT_EQ(forwarder.receive(), push_ack());
    down(downlink_of("AAAA"));
    EXPECT_TRUE(log.wait_for("WARN RX is not yet allowed"));
    announce();
    down(downlink_of("BBBB"));
    EXPECT_EQ(forwarder.receive(), pull_resp(txpk_of("BBBB", 3))) << "the first one is gone";
    EXPECT_THAT(log.complaints(), ElementsAre("WARN RX is not yet allowed"));
}

TEST_F(DataDownlink, AMessageThatCannotBeUsedLeavesNothingButALine)
{
    const std::vector<std::pair<std::string, std::vector<std::string>>> rows = {
        {"", {"WARN empty payload received, skipping"}},
        {"{", {"WARN unable to parse downlink payload"}},
        {"null", {"WARN unable to parse downlink payload"}},
        {"nonsense", {"WARN unable to parse downlink payload"}},
        {downlink_of("AAAA").substr(0, 80), {"WARN unable to parse downlink payload"}},
        {"{}",
         {"WARN unable to retrieve field", "ERROR failed to deserialize downlink frame",
          "WARN failed to translate downlink packet body"}},
        {"[]",
         {"WARN unable to retrieve field", "ERROR failed to deserialize downlink frame",
          "WARN failed to translate downlink packet body"}},
        {R"({"phyPayload":"AAAA","txInfo":null})",
         {"WARN unable to retrieve field", "ERROR failed to deserialize downlink frame",
          "WARN failed to translate downlink packet body"}},
    };
    start();
    announce();
    for (const auto &[message, lines] : rows) {
        const log_view own = log.from_here();
        down(message);
        EXPECT_THAT(own.complaints(), testing::ElementsAreArray(lines)) << message;
    }
    down(downlink_of("AAAA"));
    EXPECT_EQ(forwarder.receive(), pull_resp(txpk_of("AAAA", 3))) << "the first to leave";
    EXPECT_TRUE(forwarder.is_silent());
}

TEST_F(DataDownlink, WantOfMemoryDropsTheMessage)
{
    const struct {
        fault &failing;
        int successes;
        const char *line;
    } rows[] = {
        {faults.new_tokener, 0, "ERROR failed to allocate tokener"},
        {faults.new_object, 0, "ERROR failed to create object"},
        {faults.new_object, 1, "ERROR failed to create object"},
        {faults.to_string, 0, "WARN failed to stringify downlink packet"},
    };
    start();
    announce();
    for (const auto &row : rows) {
        const log_view own = log.from_here();
        row.failing.arm(row.successes, 0, 0);
        down(downlink_of("AAAA"));
        EXPECT_THAT(own.complaints(), ElementsAre(row.line));
    }
    down(downlink_of("BBBB"));
    EXPECT_EQ(forwarder.receive(), pull_resp(txpk_of("BBBB", 3)));
}

/* A message may end before or after the JSON text does, and may come under any topic. */
TEST_F(DataDownlink, WhatFollowsTheObjectIsNotRead)
{
    start();
    announce();
    for (const std::string &message :
         {downlink_of("AAAA") + '\0', downlink_of("AAAA") + " {", join({" \n", downlink_of("AAAA")})}) {
        down(message);
        EXPECT_EQ(forwarder.receive(), pull_resp(txpk_of("AAAA", 3)));
    }
}

TEST_F(DataDownlink, ATextOf4091BytesIsTheLongest)
{
    start();
    announce();
    /* The library writes each "/" in two characters: a text grows beyond the longest payload. */
    const auto payload_for = [](size_t length) {
        const size_t rest = length - txpk_of("", 1000).size();
        const size_t slashes = rest - 2047;
        return join({std::string(slashes, '/'), std::string(2047 - slashes, 'A')});
    };
    const auto printed = [](std::string_view payload) {
        std::string text;
        for (const char c : payload)
            text += c == '/' ? "\\/" : std::string(1, c);
        return text;
    };
    const std::string longest = payload_for(4091);
    const std::string text = txpk_of(printed(longest), 1535);
    ASSERT_EQ(text.size(), 4091U);
    down(downlink_of(longest));
    const std::string datagram = forwarder.receive();
    EXPECT_EQ(datagram.size(), 4096U);
    EXPECT_EQ(datagram, pull_resp(text));
    EXPECT_THAT(log.complaints(), IsEmpty());

    down(downlink_of(payload_for(4092)));
    EXPECT_THAT(log.complaints(), ElementsAre("WARN packet body is too big: 4093 bytes"));
    down(downlink_of("AAAA"));
    EXPECT_EQ(forwarder.receive(), pull_resp(txpk_of("AAAA", 3)));
}

/* Numbers with a fraction are read without a look at errno, which then tells of another call's failure. */
TEST_F(DataDownlink, ABadNumberBeforeDoesNotSpoilTheNextMessage)
{
    start();
    announce();
    std::string message = downlink_of("AAAA");
    for (const char *number : {"125", "9", "868100000", "14"})
        message.insert(message.find(join({":", number})) + 1 + strlen(number), ".0");
    errno = EINVAL;
    down(message);
    EXPECT_THAT(log.complaints(), IsEmpty());
    EXPECT_EQ(forwarder.receive(), pull_resp(txpk_of("AAAA", 3)));
}

/* ---- the pipe ---- */

TEST_F(DataDownlink, DownlinksThatWaitTogetherLeaveAsDatagramsOfTheirOwn)
{
    start();
    announce();
    mqtt.hold();
    forwarder.send(push_data(join({R"({"rxpk":[)", rxpk_of("AAAA"), "]}"})));
    ASSERT_TRUE(mqtt.wait_for_held());
    for (const char *payload : {"AAAA", "BBBBBBBB", "CCCC"})
        down(downlink_of(payload));
    EXPECT_TRUE(forwarder.is_silent());
    mqtt.let_go();
    EXPECT_EQ(forwarder.receive(), push_ack());
    EXPECT_EQ(forwarder.receive(), pull_resp(txpk_of("AAAA", 3)));
    EXPECT_EQ(forwarder.receive(), pull_resp(txpk_of("BBBBBBBB", 6)));
    EXPECT_EQ(forwarder.receive(), pull_resp(txpk_of("CCCC", 3)));
}

TEST_F(DataDownlink, DownlinksGoBeforeDatagramsThatWaitWithThem)
{
    start();
    announce();
    mqtt.hold();
    forwarder.send(push_data(join({R"({"rxpk":[)", rxpk_of("AAAA"), "]}"})));
    ASSERT_TRUE(mqtt.wait_for_held());
    forwarder.send(push_data("{}", 2, "\x99\x99"));
    down(downlink_of("AAAA"));
    down(downlink_of("BBBB"));
    mqtt.let_go();
    EXPECT_EQ(forwarder.receive(), push_ack());
    EXPECT_EQ(forwarder.receive(), pull_resp(txpk_of("AAAA", 3)));
    EXPECT_EQ(forwarder.receive(), pull_resp(txpk_of("BBBB", 3)));
    EXPECT_EQ(forwarder.receive(), push_ack(2, "\x99\x99"));
}

/* A full pipe holds the delivery back; nothing is lost and nothing changes places. */
TEST_F(DataDownlink, AFullPipeHoldsTheCallbackUntilTheWorkerCatchesUp)
{
    start();
    announce();
    mqtt.hold();
    forwarder.send(push_data(join({R"({"rxpk":[)", rxpk_of("AAAA"), "]}"})));
    ASSERT_TRUE(mqtt.wait_for_held());
    const int filled = fill_pipe();
    const int all = filled + 20;
    std::thread delivery([&] {
        for (int i = filled; i < all; i++)
            down(downlink_of(numbered(i)));
    });
    EXPECT_TRUE(wait_until([] { return converter_ctx.pipe_writers == 1; }));
    mqtt.let_go();
    EXPECT_EQ(forwarder.receive(), push_ack());
    std::vector<std::string> left;
    std::vector<std::string> expected;
    for (int i = 0; i < all && (i == 0 || left.back() != "nothing"); i++) {
        expected.push_back(pull_resp(txpk_of(numbered(i), 3)));
        left.push_back(forwarder.receive());
    }
    delivery.join();
    EXPECT_EQ(left, expected);
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(DataDownlink, APipeThatFailsIsTold)
{
    start();
    announce();
    faults.pipe_write.arm(0, -1, EIO);
    down(downlink_of("AAAA"));
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR failed to write downlink packet into the pipe"));
    faults.pipe_write.arm(0, 7, 0);
    down(downlink_of("AAAA"));
    const std::string size = std::to_string(pull_resp(txpk_of("AAAA", 3)).size());
    EXPECT_EQ(log.complaints().back(),
              join({"WARN pipe consumed less data: [7] than expected: [", size, "]"}));
    faults.pipe_read.arm(0, -1, EIO);
    down(downlink_of("BBBB"));
    EXPECT_EQ(forwarder.receive(), pull_resp(txpk_of("BBBB", 3))) << "the worker reads again";
    EXPECT_TRUE(log.has("ERROR failed to read from pipe"));
}

TEST_F(DataDownlink, ASendThatFailsIsTold)
{
    start();
    announce();
    faults.sendto.arm(0, -1, ENETUNREACH);
    down(downlink_of("AAAA"));
    EXPECT_TRUE(log.wait_for("ERROR downlink send failed"));
    EXPECT_THAT(log.complaints(), ElementsAre("WARN failed to send packet: -1 Network is unreachable",
                                              "ERROR downlink send failed"));
}

/* ---- the end of the plane ---- */

static char state_of_thread(pid_t thread)
{
    std::ifstream file(join({"/proc/self/task/", std::to_string(thread), "/stat"}));
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    const size_t name = content.rfind(") ");
    return name != std::string::npos ? content[name + 2] : '?';
}

/* A thread that is held by the full pipe. */
class held_callback
{
  public:
    explicit held_callback(std::function<void()> callback)
        : thread_([this, callback] {
              id_ = static_cast<pid_t>(syscall(SYS_gettid));
              callback();
              ended_ = true;
          })
    {
        EXPECT_TRUE(wait_until(
            [this] { return converter_ctx.pipe_writers == 1 && id_ != 0 && state_of_thread(id_) == 'S'; }));
    }
    ~held_callback()
    {
        thread_.join();
    }
    bool has_ended() const
    {
        return ended_;
    }

  private:
    std::atomic<pid_t> id_ = 0;
    std::atomic<bool> ended_ = false;
    std::thread thread_;
};

TEST_F(DataDownlink, DeinitEndsWhileACallbackIsHeldByAFullPipe)
{
    init();
    fill_pipe();
    held_callback callback([this] { down(downlink_of("AAAA")); });
    EXPECT_FALSE(callback.has_ended());
    EXPECT_EQ(bridge_dataplane_deinit(), 0);
    EXPECT_EQ(converter_ctx.pipe_writers, 0) << "the pipe outlives the callback";
    EXPECT_TRUE(wait_until([&] { return callback.has_ended(); }));
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR failed to write downlink packet into the pipe"));
}

/* The worker may be in the midst of a publish when the pipe fills and the plane is stopped. */
TEST_F(DataDownlink, StoppingEndsWithAFullPipe)
{
    start();
    announce();
    mqtt.hold();
    forwarder.send(push_data(join({R"({"rxpk":[)", rxpk_of("AAAA"), "]}"})));
    ASSERT_TRUE(mqtt.wait_for_held());
    fill_pipe();
    std::atomic<bool> stopped = false;
    std::thread stopper([&] {
        bridge_dataplane_stop_server();
        stopped = true;
    });
    EXPECT_TRUE(wait_until([] { return converter_ctx.stop.load(); }));
    mqtt.let_go();
    EXPECT_TRUE(wait_until([&] { return stopped.load(); }));
    /* In any case the pipe is empty in the end, for the next stop. */
    uint8_t taken[BRIDGE_PIPE_SIZE];
    while (!stopped || read(converter_ctx.pipe_fds[0], taken, sizeof(taken)) > 0)
        (void)!read(converter_ctx.pipe_fds[0], taken, sizeof(taken));
    stopper.join();
}

TEST_F(DataDownlink, ACallbackAfterTheEndFindsThePlaneGone)
{
    start();
    announce();
    stop();
    const log_view own = log.from_here();
    down(downlink_of("AAAA"));
    EXPECT_THAT(own.lines(), IsEmpty());
}

TEST_F(DataDownlinkDeath, TheCallbackAndTheWorkerWantTheirData)
{
    const uint8_t byte = '{';
    EXPECT_ASSERTION(bridge_downlink_callback(nullptr, nullptr, &byte, 1), "topic");
    EXPECT_ASSERTION(bridge_downlink_callback("topic", nullptr, nullptr, 1), "payload");
    EXPECT_ASSERTION(bridge_send_downlink(nullptr, 1), "data");
    EXPECT_ASSERTION(bridge_send_downlink(&byte, 0), "data_size > 0");
}
