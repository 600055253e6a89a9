/* A data plane that runs: a packet forwarder's sockets on one side, the scripted MQTT manager on the other.
 */
#ifndef DATA_PLANE_H
#define DATA_PLANE_H

#include "common/captured_stderr.h"
#include "config/captured_log.h"
#include "converter/data/bridge_data_conv.h"
#include "converter/data/bridge_data_ctx.h"
#include "converter/faults.h"
#include "converter/neighbours.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string>
#include <string_view>
#include <vector>

inline constexpr std::string_view GATEWAY_MAC("\x00\x16\xc0\x01\xff\x10\xab\xcd", 8);
inline constexpr std::string_view TOKEN("\x34\x12", 2);

/* What the forwarder sends. */
std::string push_data(std::string_view json, char version = 2, std::string_view token = TOKEN);
std::string pull_data(char version = 2, std::string_view token = TOKEN);
std::string tx_ack(std::string_view json, std::string_view token = TOKEN, char version = 2);

/* What it receives. */
std::string push_ack(char version = 2, std::string_view token = TOKEN);
std::string pull_ack(char version = 2, std::string_view token = TOKEN);
std::string pull_resp(std::string_view json, uint16_t token = 0, char version = 2);

/* A PUSH_DATA's uplink with this data, and what the native server hears of it. */
std::string rxpk_of(std::string_view data);
std::string native_uplink_of(std::string_view data);

inline constexpr const char *STAT_JSON =
    R"({"time":"2026-01-02 03:04:05 GMT","rxnb":1,"rxok":1,"rxfw":1,"ackr":100.0,"dwnb":0,"txnb":0})";

/* A native downlink with this payload, and the datagram's text of it. */
std::string downlink_of(std::string_view payload);
std::string txpk_of(std::string_view payload, size_t size);

/* A socket of the packet forwarder. */
class forwarder_socket
{
  public:
    explicit forwarder_socket(const char *host = "127.0.0.1", uint16_t port = 0);

    void send(std::string_view datagram) const;

    /* The next datagram; "nothing" when none came before the deadline. */
    std::string receive() const;

    /* True when no datagram waits now. */
    bool is_silent() const;

    uint16_t port() const;

  private:
    bridge_fd fd_;
};

struct send_failure {
    int32_t code;
    void *context;
    bool operator==(const send_failure &) const = default;
};

class DataPlane : public testing::Test
{
  protected:
    DataPlane();
    ~DataPlane() override;

    /* Brings the plane up for this dialect, with both endpoints connected. */
    void start(bridge_ns_type type = NS_TYPE_SNVNS);

    /* Only what bridge_dataplane_init does. */
    void init();

    /* Takes the plane down, connections and all. */
    void stop();

    /* Sends the datagram and a PULL_DATA behind it, and returns what comes back before the PULL_ACK. */
    std::vector<std::string> answers_to(std::string_view datagram);

    /* True when the forwarder is answered with a PUSH_ACK and nothing else. */
    bool is_acknowledged(std::string_view json);

    std::vector<std::string> published_bodies();

    void down(std::string_view payload);

    int send_failed_context = 0;
    std::vector<send_failure> failures();

    captured_log log;
    forwarder_socket forwarder;
};

/* A death test starts its own process, whose standard error is the report. */
class DataPlaneDeath : public testing::Test
{
  protected:
    DataPlaneDeath();
};

#endif
