/* The endpoint manager among stand-ins: configuration, waits and library are the test's. */
#ifndef MQTT_FIXTURE_H
#define MQTT_FIXTURE_H

#include "mqtt/background.h"
#include "mqtt/bridge_mqtt.h"
#include "mqtt/bridge_mqtt_ctx.h"
#include "mqtt/fake_mqtt_client.h"
#include "mqtt/logged_lines.h"

#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

/* What the configuration says of one endpoint. */
struct endpoint_settings {
    const char *uri;
    const char *user;
    const char *pass;
    const char *pkey_path;
    const char *cert_path;
    bool validates;
    bool enabled;

    /* All fields but `enabled` agree by default. */
    static endpoint_settings common();
};

/* In the order of the endpoints. */
extern endpoint_settings test_settings[BRIDGE_MQTT_ENDPOINTS];

void test_config_set_keepalive(uint32_t seconds);

/* Waits of the code under test, which last a tenth of what they ask for. */
uint32_t test_wait_rounds();

/* Rounds after which a thread that waits would have given up, had it a limit. */
inline constexpr uint32_t MANY_ROUNDS = 300;

/* Whether the thread lasts that many rounds. */
bool waits_on(const background &thread);

/* The spans of all waits in microseconds since the last time that they were forgotten. */
std::vector<uint32_t> test_waits_us();
void test_forget_waits_us();

/* As if the subscribe or unsubscribe that is inside the library had begun so long ago. */
void test_question_began(std::chrono::milliseconds ago);

/* Runs inside each wait in milliseconds, on its thread. Empty to remove. */
void test_on_wait(std::function<void()> action);

/* What the handlers got: "topic=payload" each, with "@mark" behind it when the context names one. */
std::vector<std::string> delivered();
bool wait_for_deliveries(size_t count);
void record_delivery(const char *topic, void *context, const uint8_t *payload, uint32_t payload_size);

/* Records, too, and then waits for `handler_gate`. */
extern gate *handler_gate;
extern std::atomic<int> gates_left; /* calls that have waited */
void record_and_wait(const char *topic, void *context, const uint8_t *payload, uint32_t payload_size);

/* Subscribes one topic. */
int subscribe(bridge_mqtt_endpoint_t endpoint, const char *topic,
              bridge_mqtt_handler_t handler = record_delivery, const char *mark = nullptr);
int unsubscribe(bridge_mqtt_endpoint_t endpoint, const char *topic);
int publish(bridge_mqtt_endpoint_t endpoint, const char *topic = "up", const std::string &payload = "x");

bool is_delivery_thread_alive();

/* Checks at the end of each test that the library was used well and nothing of it is left. */
class BridgeMqtt : public testing::Test
{
  protected:
    void SetUp() override;
    void TearDown() override;

    /* Subscribes the topic "hold" with a handler that waits, and keeps it there with the message "0". */
    void hold_handler(bridge_mqtt_endpoint_t endpoint);

    /* Puts as many messages behind it as the queue takes. Returns the number of all. */
    size_t fill_queue();

    log_capture log;
    gate handler; /* outlives the delivery thread, which ends in TearDown */
};

/* Initialised, with all three endpoints in one group. */
class BridgeMqttShared : public BridgeMqtt
{
  protected:
    void SetUp() override;
};

/* Each endpoint on a server of its own. */
class BridgeMqttSeparate : public BridgeMqtt
{
  protected:
    void SetUp() override;
};

/* The statement runs in a process of its own, in which only this test runs. */
class BridgeMqttDeath : public testing::Test
{
  protected:
    void SetUp() override;
};

void on_test_connection_lost(int32_t code, void *context);

/* The calls of on_test_connection_lost: code and context. */
std::vector<std::pair<int32_t, void *>> reported_losses();

#endif
