/* Handles are addresses of records that live until the reset, so that late use is seen and not fatal. */
#include "mqtt/fake_mqtt_client.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <utility>

struct queued_message {
    char *topic;
    MQTTClient_message *message;
};

struct fake_client {
    int number;
    void *context;
    MQTTClient_connectionLost *lost;
    MQTTClient_messageArrived *arrived;
    bool connected;
    bool destroyed;
    int callbacks;
    std::list<queued_message> queue;
    std::set<void *> handed_over; /* off the queue, and the callback's own */
};

static struct {
    std::mutex lock;
    std::vector<std::unique_ptr<fake_client>> clients;
    std::vector<std::string> calls;
    std::vector<std::string> faults;
    std::map<std::string, std::deque<int>> scripts;
    std::map<std::string, std::function<void()>> hooks;
    std::set<void *> blocks;
    std::set<void *> abandoned;
    fake_connect_options options;
    int connected_looks;
    int token_looks;
    bool breaks_on_publish;
    bool holds_acknowledgements;
    int unacknowledged;
} fake;

using locked = std::lock_guard<std::mutex>;

/* ---- under the lock ---- */

static void *new_block(size_t size)
{
    void *block = calloc(1, size);
    fake.blocks.insert(block);
    return block;
}

static void free_block(void *block, const char *what)
{
    if (block == nullptr)
        return; /* as the C library's function */
    fake.abandoned.erase(block);
    for (const auto &client : fake.clients)
        client->handed_over.erase(block);
    if (fake.blocks.erase(block) == 1)
        free(block);
    else
        fake.faults.push_back(std::string(what) + " is freed twice");
}

static void free_message(MQTTClient_message *message)
{
    if (!fake.blocks.contains(message)) {
        fake.faults.push_back("message is freed twice");
        return;
    }
    free_block(message->payload, "payload");
    free_block(message, "message");
}

static void end_session(fake_client *client)
{
    client->connected = false;
    for (const queued_message &entry : client->queue) {
        free_block(entry.topic, "topic");
        free_message(entry.message);
    }
    client->queue.clear();
    fake.abandoned.merge(client->handed_over);
    client->handed_over.clear();
}

static fake_client *checked_client(MQTTClient handle, const std::string &verb)
{
    auto *client = static_cast<fake_client *>(handle);
    if (client->destroyed)
        fake.faults.push_back(verb + " on a destroyed client");
    return client;
}

static int next_result(const std::string &verb, int otherwise)
{
    std::deque<int> &script = fake.scripts[verb];
    if (script.empty())
        return otherwise;
    const int result = script.front();
    script.pop_front();
    return result;
}

static std::optional<std::string> text_of(const char *text)
{
    return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

static fake_client *client_of(int number)
{
    return fake.clients.at(static_cast<size_t>(number) - 1).get();
}

/* ---- what every call begins with ---- */

static void run_hook(const std::string &verb)
{
    std::function<void()> hook;
    {
        const locked guard(fake.lock);
        hook = fake.hooks[verb];
    }
    if (hook)
        hook();
}

static void record(const std::string &verb, MQTTClient handle, const std::string &rest)
{
    {
        const locked guard(fake.lock);
        const fake_client *client = checked_client(handle, verb);
        fake.calls.push_back(verb + " #" + std::to_string(client->number) + rest);
    }
    run_hook(verb);
}

static bool is_thread_needed()
{
    const locked guard(fake.lock);
    for (const auto &client : fake.clients) {
        if (client->connected)
            return true;
    }
    return false;
}

/* Without a connected client the library ends its thread, and waits for it a while. */
static void wait_for_thread_end()
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (!is_thread_needed() && fake_mqtt_running_callbacks() > 0 && std::chrono::steady_clock::now() < end)
        std::this_thread::yield();
}

/* ---- the library's interface ---- */

extern "C" {

int MQTTClient_create(MQTTClient *handle, const char *uri, const char *client_id, int persistence,
                      void *persistence_context)
{
    const locked guard(fake.lock);
    fake.calls.push_back(std::string("create ") + uri + " as " + client_id +
                         (persistence == MQTTCLIENT_PERSISTENCE_NONE ? "" : " persistent") +
                         (persistence_context == nullptr ? "" : " in a context"));
    const int result = next_result("create", 0);
    if (result != 0)
        return result;
    fake.clients.push_back(std::make_unique<fake_client>());
    fake.clients.back()->number = static_cast<int>(fake.clients.size());
    *handle = fake.clients.back().get();
    return 0;
}

int MQTTClient_setCallbacks(MQTTClient handle, void *context, MQTTClient_connectionLost *lost,
                            MQTTClient_messageArrived *arrived, MQTTClient_deliveryComplete *complete)
{
    record("callbacks", handle, complete == nullptr ? "" : " with a delivery function");
    const locked guard(fake.lock);
    auto *client = static_cast<fake_client *>(handle);
    client->context = context;
    client->lost = lost;
    client->arrived = arrived;
    return next_result("callbacks", 0);
}

int MQTTClient_connect(MQTTClient handle, MQTTClient_connectOptions *options)
{
    record("connect", handle, "");
    std::unique_lock<std::mutex> guard(fake.lock);
    auto *client = static_cast<fake_client *>(handle);
    end_session(client); /* what came before the server's answer goes with a clean session */
    fake.options = {};
    fake.options.plain = *options;
    fake.options.has_tls = options->ssl != nullptr;
    fake.options.user = text_of(options->username);
    fake.options.password = text_of(options->password);
    if (options->ssl != nullptr) {
        fake.options.tls = *options->ssl;
        fake.options.key_store = text_of(options->ssl->keyStore);
        fake.options.private_key = text_of(options->ssl->privateKey);
    }
    const int result = next_result("connect", 0);
    client->connected = result == 0;
    guard.unlock();
    run_hook("connected");
    return result;
}

int MQTTClient_disconnect(MQTTClient handle, int timeout)
{
    record("disconnect", handle, " in " + std::to_string(timeout));
    const locked guard(fake.lock);
    auto *client = static_cast<fake_client *>(handle);
    const int result = next_result("disconnect", client->connected ? 0 : MQTTCLIENT_DISCONNECTED);
    end_session(client);
    return result;
}

int MQTTClient_isConnected(MQTTClient handle)
{
    const locked guard(fake.lock);
    fake.connected_looks++;
    return checked_client(handle, "isConnected")->connected ? 1 : 0;
}

int MQTTClient_subscribe(MQTTClient handle, const char *topic, int qos)
{
    record("subscribe", handle, std::string(" ") + topic + " qos " + std::to_string(qos));
    const locked guard(fake.lock);
    return next_result("subscribe", 0);
}

int MQTTClient_unsubscribe(MQTTClient handle, const char *topic)
{
    record("unsubscribe", handle, std::string(" ") + topic);
    const locked guard(fake.lock);
    return next_result("unsubscribe", 0);
}

int MQTTClient_publishMessage(MQTTClient handle, const char *topic, MQTTClient_message *message,
                              MQTTClient_deliveryToken *token)
{
    const std::string payload(static_cast<const char *>(message->payload),
                              static_cast<size_t>(message->payloadlen));
    record("publish", handle,
           std::string(" ") + topic + " qos " + std::to_string(message->qos) +
               (message->retained != 0 ? " retained " : " ") +
               (payload.size() <= 64 ? payload : std::to_string(payload.size()) + " bytes") +
               (token == nullptr ? "" : " with a token"));
    std::unique_lock<std::mutex> guard(fake.lock);
    auto *client = static_cast<fake_client *>(handle);
    if (fake.breaks_on_publish) {
        fake.breaks_on_publish = false;
        end_session(client);
        MQTTClient_connectionLost *lost = client->lost;
        void *context = client->context;
        guard.unlock();
        wait_for_thread_end();
        lost(context, nullptr);
        return MQTTCLIENT_SUCCESS;
    }
    const int result = next_result("publish", client->connected ? 0 : MQTTCLIENT_DISCONNECTED);
    if (result == 0 && fake.holds_acknowledgements)
        fake.unacknowledged++;
    return result;
}

int MQTTClient_getPendingDeliveryTokens(MQTTClient handle, MQTTClient_deliveryToken **tokens)
{
    const locked guard(fake.lock);
    checked_client(handle, "getPendingDeliveryTokens");
    fake.token_looks++;
    *tokens = nullptr;
    if (fake.unacknowledged == 0)
        return 0;
    const auto count = static_cast<size_t>(fake.unacknowledged);
    *tokens = static_cast<MQTTClient_deliveryToken *>(new_block((count + 1) * sizeof(**tokens)));
    for (size_t i = 0; i < count; i++)
        (*tokens)[i] = static_cast<MQTTClient_deliveryToken>(i + 1);
    (*tokens)[count] = -1;
    return 0;
}

void MQTTClient_freeMessage(MQTTClient_message **message)
{
    const locked guard(fake.lock);
    free_message(*message);
    *message = nullptr;
}

void MQTTClient_free(void *memory)
{
    const locked guard(fake.lock);
    free_block(memory, "topic");
}

void MQTTClient_destroy(MQTTClient *handle)
{
    record("destroy", *handle, "");
    const locked guard(fake.lock);
    auto *client = static_cast<fake_client *>(*handle);
    if (client->callbacks != 0)
        fake.faults.push_back("destroy under a running callback");
    end_session(client);
    client->destroyed = true;
    *handle = nullptr;
}
}

/* ---- the test's side ---- */

void fake_mqtt_reset()
{
    const locked guard(fake.lock);
    for (const auto &client : fake.clients)
        end_session(client.get());
    fake.clients.clear();
    fake.calls.clear();
    fake.faults.clear();
    fake.scripts.clear();
    fake.hooks.clear();
    for (void *block : std::exchange(fake.abandoned, {})) {
        fake.blocks.erase(block);
        free(block);
    }
    fake.options = {};
    fake.connected_looks = 0;
    fake.token_looks = 0;
    fake.breaks_on_publish = false;
    fake.holds_acknowledgements = false;
    fake.unacknowledged = 0;
}

std::vector<std::string> fake_mqtt_take_calls()
{
    const locked guard(fake.lock);
    return std::exchange(fake.calls, {});
}

int fake_mqtt_connected_looks()
{
    const locked guard(fake.lock);
    return fake.connected_looks;
}

int fake_mqtt_token_looks()
{
    const locked guard(fake.lock);
    return fake.token_looks;
}

std::vector<std::string> fake_mqtt_faults()
{
    const locked guard(fake.lock);
    return fake.faults;
}

int fake_mqtt_running_callbacks()
{
    const locked guard(fake.lock);
    int count = 0;
    for (const auto &client : fake.clients)
        count += client->callbacks;
    return count;
}

size_t fake_mqtt_live_blocks()
{
    const locked guard(fake.lock);
    return fake.blocks.size() - fake.abandoned.size();
}

size_t fake_mqtt_abandoned_blocks()
{
    const locked guard(fake.lock);
    return fake.abandoned.size();
}

void fake_mqtt_script(const std::string &verb, std::vector<int> results)
{
    const locked guard(fake.lock);
    fake.scripts[verb].assign(results.begin(), results.end());
}

void fake_mqtt_on(const std::string &verb, std::function<void()> hook)
{
    const locked guard(fake.lock);
    fake.hooks[verb] = std::move(hook);
}

void fake_mqtt_break_on_publish()
{
    const locked guard(fake.lock);
    fake.breaks_on_publish = true;
}

bool fake_mqtt_is_connected(int client)
{
    const locked guard(fake.lock);
    return client_of(client)->connected;
}

fake_connect_options fake_mqtt_last_options()
{
    const locked guard(fake.lock);
    return fake.options;
}

void *fake_mqtt_context(int client)
{
    const locked guard(fake.lock);
    return client_of(client)->context;
}

static queued_message new_message(const std::string &topic, const std::string &payload)
{
    queued_message entry = {};
    entry.topic = static_cast<char *>(new_block(topic.size() + 1));
    memcpy(entry.topic, topic.c_str(), topic.size() + 1);
    entry.message = static_cast<MQTTClient_message *>(new_block(sizeof(*entry.message)));
    entry.message->payload = new_block(payload.size() + 1);
    memcpy(entry.message->payload, payload.data(), payload.size());
    entry.message->payloadlen = static_cast<int>(payload.size());
    return entry;
}

int fake_mqtt_arrive(int client, const std::string &topic, const std::string &payload)
{
    fake_client *owner = nullptr;
    queued_message entry = {};
    {
        const locked guard(fake.lock);
        owner = client_of(client);
        entry = new_message(topic, payload);
        owner->queue.push_back(entry);
        owner->callbacks++;
    }
    const int result = owner->arrived(owner->context, entry.topic, 0, entry.message);
    run_hook("returned");
    const locked guard(fake.lock);
    owner->callbacks--;
    const auto is_it = [&entry](const queued_message &other) { return other.topic == entry.topic; };
    if (result != 0 && owner->queue.remove_if(is_it) > 0)
        owner->handed_over.merge(std::set<void *>{entry.topic, entry.message});
    return result;
}

int fake_mqtt_arrive_raw(int client, char *topic, int topic_length, MQTTClient_message *message)
{
    fake_client *owner = nullptr;
    {
        const locked guard(fake.lock);
        owner = client_of(client);
    }
    return owner->arrived(owner->context, topic, topic_length, message);
}

void fake_mqtt_lose(int client, const char *cause)
{
    fake_client *owner = nullptr;
    {
        const locked guard(fake.lock);
        owner = client_of(client);
        end_session(owner);
    }
    std::string text = cause != nullptr ? cause : "";
    owner->lost(owner->context, cause != nullptr ? text.data() : nullptr);
}

MQTTClient_connectionLost *fake_mqtt_lost_function(int client)
{
    const locked guard(fake.lock);
    return client_of(client)->lost;
}

void fake_mqtt_hold_acknowledgements()
{
    const locked guard(fake.lock);
    fake.holds_acknowledgements = true;
}

void fake_mqtt_acknowledge(int count)
{
    const locked guard(fake.lock);
    fake.unacknowledged -= count;
}
