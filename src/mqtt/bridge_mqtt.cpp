/* Which client carries which endpoint and who is connected through it; publishing; incoming messages up to
 * the delivery queue. */
#include "mqtt/bridge_mqtt_ctx.h"

#include "common/bridge_config.h"
#include "common/bridge_log.h"
#include "common/bridge_wait.h"

#include <algorithm>
#include <cstring>
#include <utility>
#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

static constexpr uint32_t LARGE_PAYLOAD = 2048;
static constexpr int DISCONNECT_TIMEOUT_MS = 1000;
static constexpr int PUBLISH_QOS = 1;

/* The library lets this many publishes be unacknowledged and then sleeps in steps of 100 ms. */
static constexpr uint32_t MAX_INFLIGHT = 10;
static constexpr uint32_t FIRST_LOOK_US = 50;
static constexpr uint32_t RAREST_LOOK_US = 5000;

/* A publish that stays in the library for longer than this waits for the library's own thread. */
static constexpr uint32_t STUCK_CALL_MS = 50;
static constexpr uint32_t STUCK_CALL_STEP_MS = 1;

/* The library waits 10 s for the answer to a subscribe or an unsubscribe. It frees messages when that cannot
 * be sent, at once, or when none has come. */
static constexpr auto QUESTION_SENT = std::chrono::milliseconds(20);
static constexpr auto QUESTION_NEARLY_OVER = std::chrono::milliseconds(9500);

/* In which the library's thread is back from a callback and has gone on: where it must be waited for, and on
 * the busiest machine. */
static constexpr uint32_t CALLBACK_RETURN_MS = 50;
static constexpr auto CALLBACK_RETURNED = std::chrono::milliseconds(200);
static constexpr uint32_t DEINIT_LIMIT_MS = 5000;
static constexpr uint32_t DEINIT_STEP_MS = 10;

struct bridge_mqtt_ep_cfg {
    const char *(*uri)(const bridge_config_root *);
    const char *(*user)(const bridge_config_root *);
    const char *(*pass)(const bridge_config_root *);
    bool (*validate_server_cert)(const bridge_config_root *);
    const char *(*pkey_path)(const bridge_config_root *);
    const char *(*cert_path)(const bridge_config_root *);
    bool (*is_enabled)(const bridge_config_root *);
    bool enabled;
};

/* Rows in the order of bridge_mqtt_endpoint_t. */
/* clang-format off */
static bridge_mqtt_ep_cfg ep_cfgs[] = {
    {config_get_ns_url, config_get_gw_user, config_get_gw_pass,
     config_get_ns_cert_validation_enabled,
     config_get_private_key_path, config_get_cert_path, config_get_ns_enabled, false},
    {config_get_oam_scs_url, config_get_oam_scs_gw_user, config_get_oam_scs_gw_pass,
     config_get_oam_scs_cert_validation_enabled,
     config_get_private_key_path, config_get_cert_path, config_get_oam_scs_enabled, false},
    {config_get_geoloc_url, config_get_geoloc_gw_user, config_get_geoloc_gw_pass,
     config_get_geoloc_cert_validation_enabled,
     config_get_private_key_path, config_get_cert_path, config_get_geoloc_enabled, false},
};
/* clang-format on */
static_assert(std::size(ep_cfgs) == BRIDGE_MQTT_ENDPOINTS);

bridge_mqtt_context mqtt_ctx;

bool bridge_mqtt_is_usable()
{
    const bool initialized = mqtt_ctx.initialized; /* read first: the end clears it last */
    if (mqtt_ctx.torn_down)
        return false;
    BRIDGE_ASSERT_TEXT(initialized, "mqtt_ctx.initialized");
    return true;
}

static bridge_mqtt_ep_group *find_group(bridge_mqtt_endpoint_t endpoint, bool connected)
{
    for (bridge_mqtt_ep_group &group : mqtt_ctx.ep_handles) {
        const uint32_t mask = connected ? group.ep_bits & group.connected_bits : group.ep_bits;
        if ((mask & bridge_mqtt_ep_bit(endpoint)) != 0) {
            BRIDGE_TRACE("endpoint: [%d] is found in endpoint group [%#x]", endpoint, mask);
            return &group;
        }
    }
    return nullptr;
}

bridge_mqtt_ep_group *bridge_mqtt_find_connected_group(bridge_mqtt_endpoint_t endpoint)
{
    bridge_mqtt_ep_group *group = find_group(endpoint, true);
    if (group == nullptr)
        BRIDGE_ERROR("no connected handle exists for given endpoint: [%d]", endpoint);
    return group;
}

/* ---- messages ---- */

/* Waits until no publish of this client is inside the library. A publish that stays there waits for the
 * library's thread, which is the caller: for an acknowledgement, or, once its connection broke, for the end
 * of that thread. The caller then goes on without the lock. */
static std::unique_lock<std::mutex> lock_messages(bridge_mqtt_ep_group *group)
{
    std::unique_lock<std::mutex> guard(group->message_lock, std::try_to_lock);
    for (uint32_t waited = 0; !guard.owns_lock() && waited < STUCK_CALL_MS; waited += STUCK_CALL_STEP_MS) {
        bridge_wait_ms(STUCK_CALL_STEP_MS);
        guard.try_lock();
    }
    return guard;
}

/* Whether the library still owns what it has handed to a callback of `session`. A publish that breaks the
 * connection succeeds, so only the client tells. */
static bool is_message_valid(const bridge_mqtt_ep_group *group, uint32_t session)
{
    return !group->closing && !group->connecting && group->session == session &&
           MQTTClient_isConnected(group->handle);
}

static bool must_wait_for_delivery()
{
    const bool is_awaited = mqtt_ctx.acknowledgement_waits > 0;
    return bridge_mqtt_delivery_is_full(is_awaited ? DELIVERY_LIMIT_AWAITED : DELIVERY_LIMIT);
}

/* Holds the library's thread while the delivery queue is full, so that the server feels it. Not for long
 * while one of ours waits for this very thread, which alone brings acknowledgements: the handler that would
 * make room may be the one that waits, or need a lock of the one that does. An acknowledgement may stand
 * behind any number of messages, so the queue then has more room; beyond that a message now and then is let
 * through, which a server that answers gets by with. A publish in the library mostly comes back by itself;
 * one that stays waits for this thread to write, which one message let through is enough for. */
static void wait_for_delivery_room(const bridge_mqtt_ep_group *group, uint32_t session)
{
    uint32_t call = mqtt_ctx.publish_calls;
    uint32_t waited = 0;
    while (must_wait_for_delivery() && is_message_valid(group, session)) {
        bridge_wait_ms(STUCK_CALL_STEP_MS);
        const uint32_t now = mqtt_ctx.publish_calls;
        const bool is_stuck = now == call && now % 2 != 0;
        call = now;
        if (!is_stuck && mqtt_ctx.acknowledgement_waits == 0)
            waited = 0;
        else if (++waited >= STUCK_CALL_MS)
            return;
    }
}

/* Behind the callback in which it was taken: in another one of this session, or once the session has ended or
 * is about to. A session that the library's thread has ended, or the server, was ended behind the callback.
 * One of our own calls may have ended it before the thread was back: then nobody knows whose the message is,
 * and some bytes are left alone. */
static void free_taken(bridge_mqtt_ep_group *group)
{
    bridge_mqtt_taken taken = std::exchange(group->taken, {});
    if (taken.message == nullptr)
        return;
    const bridge_mqtt_moment broken_by = group->broken_by;
    if (broken_by != bridge_mqtt_moment() && broken_by - taken.at < CALLBACK_RETURNED) {
#ifdef __SANITIZE_ADDRESS__
        __lsan_ignore_object(taken.topic);
        __lsan_ignore_object(taken.message);
#endif
        return;
    }
    MQTTClient_freeMessage(&taken.message);
    MQTTClient_free(taken.topic);
}

enum question_risk {
    QUESTION_HARMLESS,
    QUESTION_BEGINS,
    QUESTION_ENDS,
};

static question_risk risk_of_question(const bridge_mqtt_ep_group *group)
{
    const bridge_mqtt_moment since = group->question_since;
    const auto age = std::chrono::steady_clock::now() - since;
    if (since == bridge_mqtt_moment() || (age >= QUESTION_SENT && age < QUESTION_NEARLY_OVER))
        return QUESTION_HARMLESS;
    return age < QUESTION_SENT ? QUESTION_BEGINS : QUESTION_ENDS;
}

/* As lock_messages, when no subscribe or unsubscribe can free a message. False when one is about to give up:
 * the message then stays with the library. */
static bool lock_messages_beside_questions(bridge_mqtt_ep_group *group, std::unique_lock<std::mutex> *guard)
{
    for (;;) {
        *guard = lock_messages(group);
        const question_risk risk = risk_of_question(group);
        if (risk != QUESTION_BEGINS)
            return risk == QUESTION_HARMLESS;
        *guard = std::unique_lock<std::mutex>();
        bridge_wait_ms(STUCK_CALL_STEP_MS);
    }
}

/* The message is the library's until its session ends or this has returned. Its payload, which may be large,
 * is freed here: the library finds none then. The rest waits for the next one. */
static int take_message(bridge_mqtt_ep_group *group, char *topic, MQTTClient_message *message)
{
    if (group->connecting)
        return 0;
    const uint32_t session = group->session;
    wait_for_delivery_room(group, session);
    std::unique_lock<std::mutex> guard;
    if (!lock_messages_beside_questions(group, &guard) || !is_message_valid(group, session))
        return 0;
    free_taken(group);
    BRIDGE_TRACE("received a publish on topic: %s", topic);
    bridge_mqtt_delivery_item *item =
        bridge_mqtt_delivery_item_new(topic, message->payload, static_cast<uint32_t>(message->payloadlen));
    if (item != nullptr) {
        item->group = group;
        bridge_mqtt_delivery_push(item);
    }
    MQTTClient_free(std::exchange(message->payload, nullptr));
    message->payloadlen = 0;
    group->taken = {topic, message, std::chrono::steady_clock::now()};
    return 1;
}

/* Library thread. Returns 1 when the message has been taken, 0 to leave it with the client. */
static int on_message_arrived(void *context, char *topic, int topic_length, MQTTClient_message *message)
{
    /* A length is given only for a topic that holds a NUL character. */
    if (topic == nullptr || message == nullptr || topic_length != 0)
        return 0;
    auto *handle = static_cast<bridge_mqtt_ep_group *>(context);
    BRIDGE_ASSERT_TEXT(handle != nullptr, "handle != NULL");

    handle->callbacks++;
    const int taken = take_message(handle, topic, message);
    handle->callbacks--;
    return taken;
}

/* A thread of the library's own; changes no bits, since the supervisor loop decides what a loss means. */
static void on_connection_lost(void *context, char *cause)
{
    if (cause != nullptr)
        BRIDGE_WARN("mqtt connection lost due to: %s", cause);
    else
        BRIDGE_WARN("mqtt connection lost");
    const bridge_mqtt_connection_cb_t callback = mqtt_ctx.connection_cb;
    if (callback != nullptr)
        callback(0, context);
}

/* ---- initialisation ---- */

static const char *shown(const char *text, const char *instead)
{
    if (*text == '\0')
        return "<empty>";
    return instead != nullptr ? instead : text;
}

static bool is_same_server(const bridge_mqtt_ep_group &a, const bridge_mqtt_ep_group &b)
{
    return strcmp(a.uri, b.uri) == 0 && strcmp(a.user, b.user) == 0 && strcmp(a.pass, b.pass) == 0 &&
           strcmp(a.pkey_path, b.pkey_path) == 0 && strcmp(a.cert_path, b.cert_path) == 0 &&
           a.validate_server_cert == b.validate_server_cert;
}

static void create_group(bridge_mqtt_ep_group *group, size_t index, const bridge_mqtt_ep_group &wanted,
                         uint32_t bit)
{
    BRIDGE_ASSERT_TEXT(group->handle == nullptr, "mqtt_ctx.ep_handles[j].handle == NULL");
    group->ep_bits |= bit;
    group->uri = wanted.uri;
    group->user = wanted.user;
    group->pass = wanted.pass;
    group->pkey_path = wanted.pkey_path;
    group->cert_path = wanted.cert_path;
    group->validate_server_cert = wanted.validate_server_cert;
    BRIDGE_TRACE("creating new endpoint group [%zu] with bit [%#x]", index, bit);
    BRIDGE_TRACE("uri: %s, user: %s, pass: %s, pkey_path: %s, cert_path: %s, validate_server_cert: %s",
                 shown(group->uri, nullptr), shown(group->user, "****"), shown(group->pass, "****"),
                 shown(group->pkey_path, nullptr), shown(group->cert_path, nullptr),
                 group->validate_server_cert ? "yes" : "no");
}

static void join_group(const bridge_mqtt_ep_group &wanted, uint32_t bit)
{
    for (size_t i = 0; i < mqtt_ctx.ep_handles.size(); i++) {
        bridge_mqtt_ep_group *group = &mqtt_ctx.ep_handles[i];
        if (group->ep_bits == 0) {
            create_group(group, i, wanted, bit);
            return;
        }
        if (is_same_server(*group, wanted)) {
            BRIDGE_ASSERT_TEXT(group->ep_bits != 0, "mqtt_ctx.ep_handles[j].ep_bits");
            group->ep_bits |= bit;
            BRIDGE_TRACE("merging [%#x] endpoint with existing group [%zu]. resulting bits: [%#x]", bit, i,
                         group->ep_bits);
            return;
        }
    }
}

static bool init_endpoint(bridge_mqtt_ep_cfg *cfg, uint32_t bit, const bridge_config_root *root)
{
    bridge_mqtt_ep_group wanted = {};
    wanted.uri = cfg->uri(root);
    wanted.user = cfg->user(root);
    wanted.pass = cfg->pass(root);
    wanted.pkey_path = cfg->pkey_path(root);
    wanted.cert_path = cfg->cert_path(root);
    wanted.validate_server_cert = cfg->validate_server_cert(root);
    BRIDGE_ASSERT_TEXT(wanted.uri, "uri");
    BRIDGE_ASSERT_TEXT(wanted.user, "user");
    BRIDGE_ASSERT_TEXT(wanted.pass, "pass");
    BRIDGE_ASSERT_TEXT(wanted.pkey_path, "pkey_path");
    BRIDGE_ASSERT_TEXT(wanted.cert_path, "cert_path");
    if (!cfg->is_enabled(root))
        return false;
    cfg->enabled = true;
    join_group(wanted, bit);
    return true;
}

int bridge_mqtt_init(bridge_mqtt_connection_cb_t connection_cb)
{
    BRIDGE_ASSERT(!mqtt_ctx.initialized);
    BRIDGE_DEBUG("initializing MQTT subsystem");

    const bridge_config_root *root = bridge_config_get_root_checked();
    bool any_enabled = false;
    for (size_t i = 0; i < std::size(ep_cfgs); i++) {
        if (ep_cfgs[i].uri == nullptr) {
            BRIDGE_DEBUG("endpoint [%zu] is disabled", i);
            continue;
        }
        any_enabled |= init_endpoint(&ep_cfgs[i], bridge_mqtt_ep_bit(static_cast<uint32_t>(i)), root);
    }
    if (!any_enabled) {
        BRIDGE_ERROR("no endpoints are enabled, check your configuration");
        return -1;
    }
    if (bridge_mqtt_delivery_start(bridge_mqtt_deliver) < 0)
        return -1;
    mqtt_ctx.connection_cb = connection_cb;
    mqtt_ctx.free_subs = BRIDGE_MQTT_MAX_SUBS;
    mqtt_ctx.initialized = true;
    mqtt_ctx.torn_down = false;
    return 0;
}

/* The library's thread touches the client once more after a callback has returned, so none may be under way
 * and the last one gets a moment to be back. */
static void wait_for_callbacks(const bridge_mqtt_ep_group *group)
{
    while (group->callbacks != 0)
        bridge_wait_ms(STUCK_CALL_STEP_MS);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(CALLBACK_RETURN_MS);
    do
        bridge_wait_ms(CALLBACK_RETURN_MS); /* a signal may end it */
    while (std::chrono::steady_clock::now() < end);
}

static void destroy_client(bridge_mqtt_ep_group *group)
{
    wait_for_callbacks(group);
    free_taken(group);
    MQTTClient_destroy(&group->handle);
    group->handle = nullptr;
}

/* Ending a client frees the messages it holds: no callback may be reading one then. */
static void close_messages(bridge_mqtt_ep_group *group)
{
    group->closing = true;
    const std::lock_guard<std::mutex> guard(group->message_lock);
}

static void clear_group(bridge_mqtt_ep_group *group)
{
    group->handle = nullptr;
    group->ep_bits = 0;
    group->connected_bits = 0;
    group->uri = group->user = group->pass = group->pkey_path = group->cert_path = nullptr;
    group->validate_server_cert = false;
    group->publish_room = 0;
}

static void destroy_all_clients()
{
    for (bridge_mqtt_ep_group &group : mqtt_ctx.ep_handles) {
        if (group.handle != nullptr) {
            close_messages(&group);
            destroy_client(&group);
        }
        clear_group(&group);
    }
}

/* A publish may sit in the library for as long as a silent server is believed alive. */
static bool lock_for_deinit()
{
    for (uint32_t waited = 0; waited < DEINIT_LIMIT_MS; waited += DEINIT_STEP_MS) {
        if (mqtt_ctx.ep_lock.try_lock())
            return true;
        bridge_wait_ms(DEINIT_STEP_MS);
    }
    return false;
}

int bridge_mqtt_deinit()
{
    BRIDGE_ASSERT(mqtt_ctx.initialized);
    BRIDGE_DEBUG("de-initializing MQTT subsystem");

    mqtt_ctx.torn_down = true;
    if (!lock_for_deinit()) {
        bridge_mqtt_delivery_stop();
        return -1;
    }
    destroy_all_clients();
    mqtt_ctx.ep_lock.unlock();
    bridge_mqtt_delivery_stop();

    const std::lock_guard<std::mutex> guard(mqtt_ctx.subs_lock);
    mqtt_ctx.subs = {};
    mqtt_ctx.free_subs = 0;
    mqtt_ctx.connection_cb = nullptr;
    mqtt_ctx.initialized = false;
    return 0;
}

bool bridge_mqtt_is_ep_enabled(bridge_mqtt_endpoint_t endpoint)
{
    (void)bridge_mqtt_is_usable(); /* the answer stays true to the end: an uplink must fail then, not pass as
                                      unwanted */
    BRIDGE_ASSERT_TEXT(endpoint < std::size(ep_cfgs), "ep < COUNT_OF(ep_cfgs)");
    return ep_cfgs[endpoint].enabled;
}

/* ---- connections ---- */

static int on_tls_error(const char *text, size_t, void *)
{
    BRIDGE_ERROR("%s", text);
    return 0;
}

static int create_client(bridge_mqtt_ep_group *group)
{
    const char *client_id = bridge_config_get_root_checked()->generic.client_id;
    int result =
        MQTTClient_create(&group->handle, group->uri, client_id, MQTTCLIENT_PERSISTENCE_NONE, nullptr);
    if (result != 0) {
        group->handle = nullptr;
        return result;
    }
    group->closing = false;
    result = MQTTClient_setCallbacks(group->handle, group, on_connection_lost, on_message_arrived, nullptr);
    if (result != 0)
        BRIDGE_ERROR("failed to set callbacks for endpoints [%#x]", group->ep_bits);
    return result;
}

static const char *path_or_none(const char *path)
{
    return *path != '\0' ? path : nullptr;
}

/* What was taken of the session before is settled, and a new one begins. The library drops the messages that
 * come before it has seen the server's answer, at any time: nobody reads them. */
static void settle_session(bridge_mqtt_ep_group *group)
{
    group->connecting = true;
    while (group->callbacks != 0)
        bridge_wait_ms(STUCK_CALL_STEP_MS);
    free_taken(group);
    group->broken_by = bridge_mqtt_moment();
    group->session++;
}

static int open_connection(bridge_mqtt_ep_group *group)
{
    MQTTClient_SSLOptions tls = MQTTClient_SSLOptions_initializer;
    tls.keyStore = path_or_none(group->cert_path);
    tls.privateKey = path_or_none(group->pkey_path);
    tls.enableServerCertAuth = group->validate_server_cert ? 1 : 0;
    tls.verify = group->validate_server_cert ? 1 : 0;
    tls.ssl_error_cb = on_tls_error;
    if (!group->validate_server_cert)
        BRIDGE_WARN("skipping server certificate validation");

    MQTTClient_connectOptions options = MQTTClient_connectOptions_initializer;
    options.keepAliveInterval =
        static_cast<int>(bridge_config_get_root_checked()->generic.mqtt_keepalive_interval);
    options.reliable = 0;
    options.username = group->user;
    options.password = group->pass;
    options.ssl = &tls;

    const acknowledgement_wait wait;
    settle_session(group);
    const int result = MQTTClient_connect(group->handle, &options);
    group->connecting = false;
    if (result != 0) {
        BRIDGE_ERROR("failed to connect with MQTT code: [%d]", result);
        return -1;
    }
    bridge_mqtt_set_up_sockets();
    group->publish_room = 0;
    return 0;
}

/* Returns 1 when the endpoint has joined a live connection, 0 when one must be opened, -1 on a failure. */
static int join_connection(bridge_mqtt_ep_group *group, bridge_mqtt_endpoint_t endpoint)
{
    if ((group->connected_bits & bridge_mqtt_ep_bit(endpoint)) != 0) {
        BRIDGE_ERROR("endpoint: [%d] is already connected", endpoint);
        return -1;
    }
    if (group->connected_bits == 0)
        return 0;
    BRIDGE_ASSERT_TEXT(group->handle != nullptr, "mqtt_ctx.ep_handles[i].handle != NULL");
    if (MQTTClient_isConnected(group->handle)) {
        group->connected_bits |= bridge_mqtt_ep_bit(endpoint);
        BRIDGE_DEBUG("adding endpoint to already connected group");
        return 1;
    }
    BRIDGE_WARN("endpoint group: [%zu] seems not participating in MQTT connection",
                static_cast<size_t>(group - mqtt_ctx.ep_handles.data()));
    bridge_mqtt_delivery_forget(group, group->connected_bits);
    group->connected_bits = 0;
    return 0;
}

static void destroy_failed_clients(uint32_t bit)
{
    for (bridge_mqtt_ep_group &group : mqtt_ctx.ep_handles) {
        if (group.handle == nullptr || (group.ep_bits & bit) == 0)
            continue;
        BRIDGE_DEBUG("destroying MQTT handle in connect call");
        close_messages(&group);
        destroy_client(&group);
    }
}

static bridge_mqtt_ep_group *group_of_bit(uint32_t bit)
{
    for (bridge_mqtt_ep_group &group : mqtt_ctx.ep_handles) {
        if ((group.ep_bits & bit) != 0)
            return &group;
    }
    return nullptr;
}

int bridge_mqtt_connect(bridge_mqtt_endpoint_t endpoint)
{
    if (!bridge_mqtt_is_usable())
        return -1;
    BRIDGE_DEBUG("connecting [%d] endpoint", endpoint);
    if (!bridge_mqtt_is_ep_enabled(endpoint)) {
        BRIDGE_ERROR("endpoint [%d] is disabled, connection failed", endpoint);
        return -1;
    }
    const std::lock_guard<std::mutex> guard(mqtt_ctx.ep_lock);
    const uint32_t bit = bridge_mqtt_ep_bit(endpoint);
    for (bridge_mqtt_ep_group &group : mqtt_ctx.ep_handles) {
        if ((group.ep_bits & bit) == 0 || group.handle != nullptr)
            continue;
        const int result = create_client(&group);
        if (group.handle == nullptr)
            return result;
        if (result != 0) {
            destroy_failed_clients(bit);
            return result;
        }
    }
    bridge_mqtt_ep_group *group = group_of_bit(bit);
    if (group == nullptr) {
        BRIDGE_ERROR("no handle exists for given endpoint: [%d]", endpoint);
        return -1;
    }
    const int joined = join_connection(group, endpoint);
    if (joined != 0)
        return joined < 0 ? joined : 0;
    if (open_connection(group) < 0) {
        destroy_failed_clients(bit);
        return -1;
    }
    group->connected_bits |= bit;
    return 0;
}

static int close_connection(bridge_mqtt_ep_group *group)
{
    BRIDGE_ASSERT_TEXT(group->handle, "ep_handle->handle");
    close_messages(group);
    wait_for_callbacks(group);
    free_taken(group);
    const acknowledgement_wait wait;
    const int result = MQTTClient_disconnect(group->handle, DISCONNECT_TIMEOUT_MS);
    if (result != 0)
        BRIDGE_DEBUG("failed to disconnect from MQTT with code: [%d]", result);
    return result;
}

int bridge_mqtt_disconnect(bridge_mqtt_endpoint_t endpoint)
{
    if (!bridge_mqtt_is_usable())
        return -1;
    BRIDGE_DEBUG("disconnecting [%d] endpoint", endpoint);
    const std::lock_guard<std::mutex> guard(mqtt_ctx.ep_lock);
    int result = 0;
    bridge_mqtt_ep_group *connected = find_group(endpoint, true);
    if (connected != nullptr) {
        connected->connected_bits &= ~bridge_mqtt_ep_bit(endpoint);
        bridge_mqtt_delivery_forget(connected, bridge_mqtt_ep_bit(endpoint));
        if (connected->connected_bits == 0)
            result = close_connection(connected);
    }
    bridge_mqtt_ep_group *group = find_group(endpoint, false);
    if (group == nullptr) {
        BRIDGE_ERROR("given endpoint: [%d] not found in any group", endpoint);
        result = -1;
    } else if (group->connected_bits == 0 && group->handle != nullptr) {
        BRIDGE_DEBUG("destroying MQTT handle in disconnect call");
        close_messages(group);
        destroy_client(group);
    }
    bridge_mqtt_release_subscriptions(endpoint);
    return result;
}

/* ---- publishing ---- */

static uint32_t count_pending(MQTTClient handle)
{
    MQTTClient_deliveryToken *tokens = nullptr;
    if (MQTTClient_getPendingDeliveryTokens(handle, &tokens) != MQTTCLIENT_SUCCESS || tokens == nullptr)
        return 0;
    uint32_t count = 0;
    while (tokens[count] != -1)
        count++;
    MQTTClient_free(tokens);
    return count;
}

static bool has_publish_room(bridge_mqtt_ep_group *group)
{
    if (group->publish_room == 0) {
        const uint32_t pending = count_pending(group->handle);
        group->publish_room = MAX_INFLIGHT - std::min(pending, MAX_INFLIGHT);
    }
    return group->publish_room > 0;
}

/* Left to itself the library waits for an acknowledgement in sleeps of 100 ms: looking often keeps the same
 * messages in flight and loses no time. Each look comes a quarter later than the one before, so that a server
 * that is far away or silent costs no work. It ends where the library's own wait would, with the connection.
 */
static void wait_for_publish_room(bridge_mqtt_ep_group *group)
{
    if (!has_publish_room(group)) {
        const acknowledgement_wait wait;
        uint32_t look_us = FIRST_LOOK_US;
        do {
            if (!MQTTClient_isConnected(group->handle))
                return;
            bridge_wait_us(look_us);
            look_us = std::min(look_us + look_us / 4, RAREST_LOOK_US);
        } while (!mqtt_ctx.torn_down && !has_publish_room(group));
    }
    if (group->publish_room > 0)
        group->publish_room--;
}

/* Marks the time of a publish in the library, under ep_lock. */
class publish_call
{
  public:
    publish_call()
    {
        mqtt_ctx.publish_calls++;
    }
    ~publish_call()
    {
        mqtt_ctx.publish_calls++;
    }
    publish_call(const publish_call &) = delete;
    publish_call &operator=(const publish_call &) = delete;
};

static int publish_through(bridge_mqtt_ep_group *group, const char *topic, const void *payload,
                           uint32_t payload_size, bool retained)
{
    MQTTClient_message message = MQTTClient_message_initializer;
    message.payload = const_cast<void *>(payload);
    message.payloadlen = static_cast<int>(payload_size);
    message.qos = PUBLISH_QOS;
    message.retained = retained ? 1 : 0;

    wait_for_publish_room(group);
    if (mqtt_ctx.torn_down)
        return -1;
    const publish_call call;
    const std::lock_guard<std::mutex> guard(group->message_lock);
    const breaking_call breaking(group);
    return MQTTClient_publishMessage(group->handle, topic, &message, nullptr);
}

int bridge_mqtt_publish(bridge_mqtt_endpoint_t endpoint, const char *topic, const void *payload,
                        uint32_t payload_size, bool retained)
{
    if (!bridge_mqtt_is_usable())
        return -1;
    BRIDGE_DEBUG("publish for [%d] endpoint, with size: %zu", endpoint, static_cast<size_t>(payload_size));
    if (payload_size > LARGE_PAYLOAD)
        BRIDGE_DEBUG("publish message size is too big (> 2 KB), and may not get written to the log");
    BRIDGE_ASSERT_TEXT(topic != nullptr, "topic != NULL");
    BRIDGE_ASSERT_TEXT(payload != nullptr, "payload != NULL");
    BRIDGE_ASSERT(payload_size > 0);

    const std::lock_guard<std::mutex> guard(mqtt_ctx.ep_lock);
    bridge_mqtt_ep_group *group = bridge_mqtt_find_connected_group(endpoint);
    if (group == nullptr)
        return -1;
    const int result = publish_through(group, topic, payload, payload_size, retained);
    if (result != 0)
        BRIDGE_ERROR("can't publish a message to the endpoint: [%d] with error: [%d]", endpoint, result);
    return result;
}
