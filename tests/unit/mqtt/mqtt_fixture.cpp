#include "mqtt/mqtt_fixture.h"

#include "common/bridge_config.h"
#include "common/bridge_log.h"
#include "common/bridge_wait.h"

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>

/* ---- configuration ---- */

endpoint_settings test_settings[BRIDGE_MQTT_ENDPOINTS];

static bridge_config_root root;

/* The paths are the same for all endpoints: each endpoint reads its own only by its turn. */
static size_t key_reads;
static size_t cert_reads;

endpoint_settings endpoint_settings::common()
{
    return {"tcp://server:1883", "gw", "secret", "", "", true, true};
}

void test_config_set_keepalive(uint32_t seconds)
{
    root.generic.mqtt_keepalive_interval = seconds;
}

const bridge_config_root *bridge_config_get_root_checked()
{
    return &root;
}

const char *config_get_ns_url(const bridge_config_root *)
{
    return test_settings[BRIDGE_MQTT_EP_NS].uri;
}
const char *config_get_oam_scs_url(const bridge_config_root *)
{
    return test_settings[BRIDGE_MQTT_EP_OAM].uri;
}
const char *config_get_geoloc_url(const bridge_config_root *)
{
    return test_settings[BRIDGE_MQTT_EP_GEOLOC].uri;
}
const char *config_get_gw_user(const bridge_config_root *)
{
    return test_settings[BRIDGE_MQTT_EP_NS].user;
}
const char *config_get_oam_scs_gw_user(const bridge_config_root *)
{
    return test_settings[BRIDGE_MQTT_EP_OAM].user;
}
const char *config_get_geoloc_gw_user(const bridge_config_root *)
{
    return test_settings[BRIDGE_MQTT_EP_GEOLOC].user;
}
const char *config_get_gw_pass(const bridge_config_root *)
{
    return test_settings[BRIDGE_MQTT_EP_NS].pass;
}
const char *config_get_oam_scs_gw_pass(const bridge_config_root *)
{
    return test_settings[BRIDGE_MQTT_EP_OAM].pass;
}
const char *config_get_geoloc_gw_pass(const bridge_config_root *)
{
    return test_settings[BRIDGE_MQTT_EP_GEOLOC].pass;
}
bool config_get_ns_cert_validation_enabled(const bridge_config_root *)
{
    return test_settings[BRIDGE_MQTT_EP_NS].validates;
}
bool config_get_oam_scs_cert_validation_enabled(const bridge_config_root *)
{
    return test_settings[BRIDGE_MQTT_EP_OAM].validates;
}
bool config_get_geoloc_cert_validation_enabled(const bridge_config_root *)
{
    return test_settings[BRIDGE_MQTT_EP_GEOLOC].validates;
}
bool config_get_ns_enabled(const bridge_config_root *)
{
    return test_settings[BRIDGE_MQTT_EP_NS].enabled;
}
bool config_get_oam_scs_enabled(const bridge_config_root *)
{
    return test_settings[BRIDGE_MQTT_EP_OAM].enabled;
}
bool config_get_geoloc_enabled(const bridge_config_root *)
{
    return test_settings[BRIDGE_MQTT_EP_GEOLOC].enabled;
}
const char *config_get_private_key_path(const bridge_config_root *)
{
    return test_settings[key_reads++ % BRIDGE_MQTT_ENDPOINTS].pkey_path;
}
const char *config_get_cert_path(const bridge_config_root *)
{
    return test_settings[cert_reads++ % BRIDGE_MQTT_ENDPOINTS].cert_path;
}

/* ---- waits ---- */

static std::atomic<uint32_t> wait_rounds;
static std::mutex wait_action_lock;
static std::function<void()> wait_action;

void test_on_wait(std::function<void()> action)
{
    const std::lock_guard<std::mutex> guard(wait_action_lock);
    wait_action = std::move(action);
}

static void run_wait_action()
{
    std::function<void()> action;
    {
        const std::lock_guard<std::mutex> guard(wait_action_lock);
        action = wait_action;
    }
    if (action)
        action();
}

void test_question_began(std::chrono::milliseconds ago)
{
    mqtt_ctx.ep_handles[0].question_since = std::chrono::steady_clock::now() - ago;
}

uint32_t test_wait_rounds()
{
    return wait_rounds;
}

bool waits_on(const background &thread)
{
    const uint32_t before = test_wait_rounds();
    EXPECT_TRUE(wait_until(
        [before, &thread] { return thread.has_ended() || test_wait_rounds() > before + MANY_ROUNDS; }));
    return !thread.has_ended();
}

static void wait_a_tenth(std::chrono::microseconds span)
{
    wait_rounds++;
    std::this_thread::sleep_for(span / 10);
}

void bridge_wait_s(uint32_t seconds)
{
    wait_a_tenth(std::chrono::seconds(seconds));
}

static int callbacks_in_manager()
{
    int count = 0;
    for (const bridge_mqtt_ep_group &group : mqtt_ctx.ep_handles)
        count += group.callbacks;
    return count;
}

/* Long enough for a callback that has left the manager to be back in the library. */
void bridge_wait_ms(uint32_t milliseconds)
{
    run_wait_action();
    wait_a_tenth(std::chrono::milliseconds(milliseconds));
    wait_until([] { return fake_mqtt_running_callbacks() <= callbacks_in_manager(); });
}

static std::mutex waits_us_lock;
static std::vector<uint32_t> waits_us;

std::vector<uint32_t> test_waits_us()
{
    const std::lock_guard<std::mutex> guard(waits_us_lock);
    return waits_us;
}

void test_forget_waits_us()
{
    const std::lock_guard<std::mutex> guard(waits_us_lock);
    waits_us.clear();
}

void bridge_wait_us(uint32_t microseconds)
{
    {
        const std::lock_guard<std::mutex> guard(waits_us_lock);
        waits_us.push_back(microseconds);
    }
    wait_a_tenth(std::chrono::microseconds(microseconds));
}

bool is_delivery_thread_alive()
{
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(task.path() / "comm");
        std::string name;
        if (std::getline(file, name) && name == "mqtt-delivery")
            return true;
    }
    return false;
}

/* ---- handlers ---- */

static std::mutex records_lock;
static std::vector<std::string> deliveries;
static std::vector<std::pair<int32_t, void *>> losses;

gate *handler_gate;
std::atomic<int> gates_left;

std::vector<std::string> delivered()
{
    const std::lock_guard<std::mutex> guard(records_lock);
    return deliveries;
}

bool wait_for_deliveries(size_t count)
{
    return wait_until([count] { return delivered().size() >= count; });
}

void record_delivery(const char *topic, void *context, const uint8_t *payload, uint32_t payload_size)
{
    std::string text = std::string(topic) + "=" + std::string(payload, payload + payload_size);
    if (context != nullptr)
        text += std::string("@") + static_cast<const char *>(context);
    const std::lock_guard<std::mutex> guard(records_lock);
    deliveries.push_back(text);
}

void record_and_wait(const char *topic, void *context, const uint8_t *payload, uint32_t payload_size)
{
    record_delivery(topic, context, payload, payload_size);
    EXPECT_TRUE(handler_gate->wait());
    gates_left++;
}

void on_test_connection_lost(int32_t code, void *context)
{
    const std::lock_guard<std::mutex> guard(records_lock);
    losses.emplace_back(code, context);
}

std::vector<std::pair<int32_t, void *>> reported_losses()
{
    const std::lock_guard<std::mutex> guard(records_lock);
    return losses;
}

/* ---- calls ---- */

int subscribe(bridge_mqtt_endpoint_t endpoint, const char *topic, bridge_mqtt_handler_t handler,
              const char *mark)
{
    return bridge_mqtt_subscribe(endpoint, &topic, 1, handler, const_cast<char *>(mark));
}

int unsubscribe(bridge_mqtt_endpoint_t endpoint, const char *topic)
{
    uint32_t count = 1;
    return bridge_mqtt_unsubscribe(endpoint, &topic, &count);
}

int publish(bridge_mqtt_endpoint_t endpoint, const char *topic, const std::string &payload)
{
    return bridge_mqtt_publish(endpoint, topic, payload.data(), static_cast<uint32_t>(payload.size()), false);
}

/* ---- fixtures ---- */

static void reset_stand_ins()
{
    for (endpoint_settings &settings : test_settings)
        settings = endpoint_settings::common();
    key_reads = 0;
    cert_reads = 0;
    root = {};
    strcpy(root.generic.client_id, "gw-1");
    root.generic.mqtt_keepalive_interval = 60;
    fake_mqtt_reset();
    gates_left = 0;
    {
        const std::lock_guard<std::mutex> guard(records_lock);
        deliveries.clear();
        losses.clear();
    }
    bridge_log_init(BRIDGE_LOG_TRACE, true);
}

void BridgeMqtt::SetUp()
{
    reset_stand_ins();
    log.start();
}

void BridgeMqtt::TearDown()
{
    if (mqtt_ctx.initialized) {
        EXPECT_EQ(bridge_mqtt_deinit(), 0);
    }
    EXPECT_TRUE(wait_until([] { return !is_delivery_thread_alive(); }));
    EXPECT_FALSE(bridge_mqtt_delivery_is_full(
        DELIVERY_LIMIT)); /* its lock comes after all that a thread left behind did */
    EXPECT_THAT(fake_mqtt_faults(), testing::IsEmpty());
    EXPECT_EQ(fake_mqtt_live_blocks(), 0U);
    if (HasFailure()) {
        for (const std::string &line : log.lines())
            printf("%s\n", line.c_str());
    }
    fake_mqtt_reset();
}

void BridgeMqtt::hold_handler(bridge_mqtt_endpoint_t endpoint)
{
    handler_gate = &handler;
    EXPECT_EQ(subscribe(endpoint, "hold", record_and_wait), 0);
    EXPECT_EQ(fake_mqtt_arrive(1, "hold", "0"), 1);
    EXPECT_TRUE(wait_until([this] { return handler.is_waited_for(); }));
}

size_t BridgeMqtt::fill_queue()
{
    hold_handler(BRIDGE_MQTT_EP_NS);
    for (size_t i = 1; i <= BRIDGE_DELIVERY_ROOM[DELIVERY_LIMIT].items; i++)
        EXPECT_EQ(fake_mqtt_arrive(1, "hold", std::to_string(i)), 1);
    return BRIDGE_DELIVERY_ROOM[DELIVERY_LIMIT].items + 1;
}

void BridgeMqttShared::SetUp()
{
    BridgeMqtt::SetUp();
    ASSERT_EQ(bridge_mqtt_init(on_test_connection_lost), 0);
    log.lines();
}

void BridgeMqttSeparate::SetUp()
{
    BridgeMqtt::SetUp();
    test_settings[BRIDGE_MQTT_EP_NS].uri = "tcp://ns:1883";
    test_settings[BRIDGE_MQTT_EP_OAM].uri = "tcp://oam:1883";
    test_settings[BRIDGE_MQTT_EP_GEOLOC].uri = "tcp://geoloc:1883";
    ASSERT_EQ(bridge_mqtt_init(on_test_connection_lost), 0);
    log.lines();
}

void BridgeMqttDeath::SetUp()
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    reset_stand_ins();
}
