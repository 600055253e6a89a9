/* How long a request waits, by what reaches the agent. */
#include "converter/control/bridge_snmp.h"

#include "snmp_fixture.h"
#include "snmp_outcomes.h"

#include <netinet/in.h>
#include <sys/socket.h>

static constexpr char NAME[] = "moduleName.0";

/* A port that takes datagrams and answers none. */
class silent_port
{
  public:
    silent_port() : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        sockaddr_in address = {.sin_family = AF_INET, .sin_addr = {htonl(INADDR_LOOPBACK)}};
        socklen_t length = sizeof(address);
        EXPECT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr *>(&address), length), 0);
        EXPECT_EQ(getsockname(socket_.get(), reinterpret_cast<sockaddr *>(&address), &length), 0);
        name = join({"udp:127.0.0.1:", std::to_string(ntohs(address.sin_port))});
    }

    /* What has arrived. */
    std::vector<std::string> datagrams()
    {
        std::vector<std::string> all;
        char buffer[4096];
        for (ssize_t got = 0; (got = recv(socket_.get(), buffer, sizeof(buffer), 0)) >= 0;)
            all.emplace_back(buffer, static_cast<size_t>(got));
        return all;
    }

    std::string name;

  private:
    bridge_fd socket_;
};

/* When the agent received a request, by the agent's clock. */
static int64_t arrival_ms(size_t index)
{
    const json_owned answer = lab_gateway_do(R"({"log":"all"})");
    json_object *log = nullptr;
    json_object *at = nullptr;
    json_object_object_get_ex(answer.get(), "log", &log);
    json_object_object_get_ex(json_object_array_get_idx(log, index), "at_ms", &at);
    return json_object_get_int64(at);
}

TEST_F(snmp_client, SilentAgentCostsSixDatagramsOfThreeSecondsEach)
{
    silent_port port;
    snmp_client_close(&ctx);
    pthread_mutex_destroy(&ctx.mutex);
    snmp_client_open(&ctx, port.name);
    const auto begun = std::chrono::steady_clock::now();
    const log_view from = log.from_here();
    long value = 4711;
    const int result = bridge_snmp_get_property_int(&ctx, NAME, &value, 0);
    const auto passed = std::chrono::steady_clock::now() - begun;
    EXPECT_EQ(outcome(result, "done", from), "-1; ERROR no response from SNMP agent");
    EXPECT_EQ(value, 4711);
    const std::vector<std::string> datagrams = port.datagrams();
    EXPECT_EQ(datagrams, std::vector<std::string>(6, datagrams.at(0)));
    EXPECT_GE(passed, std::chrono::milliseconds(17900));
    EXPECT_LT(passed, std::chrono::seconds(30));
}

/* The answer comes before a timeout of 3 s, and the request has gone out once. */
TEST_F(snmp_client, AnswerWithinTheLeastTimeoutIsTakenAtTheFirstAttempt)
{
    lab_gateway_put(NAME, R"({"type":"INTEGER","value":5})");
    lab_gateway_fault(NAME, R"({"late_ms":2000})");
    long value = 0;
    EXPECT_EQ(bridge_snmp_get_property_int(&ctx, NAME, &value, 1), 0);
    EXPECT_EQ(value, 5);
    EXPECT_EQ(lab_gateway_requests().size(), 1U);
}

/* The answer to the first attempt comes after the second has gone out, and is taken. */
TEST_F(snmp_client, AnswerBehindTheTimeoutIsTakenFromAnAttemptBefore)
{
    lab_gateway_put(NAME, R"({"type":"INTEGER","value":5})");
    lab_gateway_fault(NAME, R"({"late_ms":4000,"times":1})");
    lab_gateway_fault("moduleName", R"({"silent":true})");
    long value = 0;
    EXPECT_EQ(bridge_snmp_get_property_int(&ctx, NAME, &value, 2999), 0);
    EXPECT_EQ(value, 5);
    EXPECT_EQ(lab_gateway_requests().size(), 2U);
}

TEST_F(snmp_client, LongerTimeoutWaitsLongerForTheFirstAttempt)
{
    lab_gateway_put(NAME, R"({"type":"INTEGER","value":5})");
    lab_gateway_fault(NAME, R"({"late_ms":3600})");
    long value = 0;
    EXPECT_EQ(bridge_snmp_get_property_int(&ctx, NAME, &value, 5000), 0);
    EXPECT_EQ(value, 5);
    EXPECT_EQ(lab_gateway_requests().size(), 1U);
}

/* Requests of other threads wait behind a slow one and are then answered. */
TEST_F(snmp_client, SlowAnswerDelaysTheOtherThreads)
{
    lab_gateway_put(NAME, R"({"type":"INTEGER","value":5})");
    lab_gateway_put("wmEcio.0", "-7");
    lab_gateway_fault(NAME, R"({"late_ms":1000})");
    std::thread slow([&] {
        long value = 0;
        EXPECT_EQ(bridge_snmp_get_property_int(&ctx, NAME, &value, 0), 0);
        EXPECT_EQ(value, 5);
    });
    EXPECT_TRUE(wait_until([] { return !lab_gateway_requests().empty(); }));
    long value = 0;
    EXPECT_EQ(bridge_snmp_get_property_int(&ctx, "wmEcio.0", &value, 0), 0);
    EXPECT_EQ(value, -7);
    slow.join();
    EXPECT_EQ(lab_gateway_requests(),
              (std::vector<std::string>{R"(get ["moduleName.0"] late)", R"(get ["wmEcio.0"])"}));
    EXPECT_GE(arrival_ms(1) - arrival_ms(0), 1000);
}
