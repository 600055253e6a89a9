/* A stand-in for the MQTT client library: it records the calls in order, answers them by a script, and lets
 * a test play the library's threads and the server. Like the library, it keeps a message in the client's
 * queue until message-arrived has returned, and frees the whole queue when the connection ends. */
#ifndef FAKE_MQTT_CLIENT_H
#define FAKE_MQTT_CLIENT_H

#include <MQTTClient.h>
#include <functional>
#include <optional>
#include <string>
#include <vector>

/* What MQTTClient_connect was given; texts are empty optionals when the pointer is null. */
struct fake_connect_options {
    MQTTClient_connectOptions plain;
    MQTTClient_SSLOptions tls;
    bool has_tls;
    std::optional<std::string> user;
    std::optional<std::string> password;
    std::optional<std::string> key_store;
    std::optional<std::string> private_key;
};

void fake_mqtt_reset();

/* The calls since the last call of this, as texts: "connect #1", "subscribe #1 gw/down qos 2". Clients are
 * numbered from 1 in order of creation. Looks at the state (isConnected, pending tokens) are only counted. */
std::vector<std::string> fake_mqtt_take_calls();
int fake_mqtt_connected_looks();
int fake_mqtt_token_looks();

/* What the library could not have survived: a message freed twice, a client destroyed under its callback, a
 * client used after its end. Empty in every healthy test. */
std::vector<std::string> fake_mqtt_faults();

/* Callbacks of fake_mqtt_arrive that have not yet returned to it. */
int fake_mqtt_running_callbacks();

/* Blocks handed out by the library and not freed; beside them the ones of a session that has ended, which
 * nobody need free. */
size_t fake_mqtt_live_blocks();
size_t fake_mqtt_abandoned_blocks();

/* Results of the next calls of `verb` ("create", "callbacks", "connect", "subscribe", "unsubscribe",
 * "publish", "disconnect"); later ones succeed. */
void fake_mqtt_script(const std::string &verb, std::vector<int> results);

/* Runs inside each call of `verb`, without a lock, before it takes effect; as "returned", when a callback has
 * returned and its message is still on the queue. Empty to remove. */
void fake_mqtt_on(const std::string &verb, std::function<void()> hook);

/* The next publish finds the connection broken: the client's session ends inside the call, which succeeds all
 * the same. When no other client is connected, the call first waits for the library's thread to end, and so
 * for a callback that runs. */
void fake_mqtt_break_on_publish();
bool fake_mqtt_is_connected(int client);

fake_connect_options fake_mqtt_last_options();
void *fake_mqtt_context(int client);

/* The library's thread brings a message; runs message-arrived on the calling thread and returns its result.
 */
int fake_mqtt_arrive(int client, const std::string &topic, const std::string &payload);

/* message-arrived with these very arguments, without a message of the library's. */
int fake_mqtt_arrive_raw(int client, char *topic, int topic_length, MQTTClient_message *message);

/* The connection breaks; connection-lost runs on the calling thread. */
void fake_mqtt_lose(int client, const char *cause);

/* For a loss that is still under way when the client is ended. */
MQTTClient_connectionLost *fake_mqtt_lost_function(int client);

/* From now on publishes stay unacknowledged, until they are acknowledged. */
void fake_mqtt_hold_acknowledgements();
void fake_mqtt_acknowledge(int count);

#endif
