/* The two kinds of documents, in and out. */
#include "converter/control/bridge_configs_legacy.h"

#include "common/bridge_config.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "common/bridge_utils.h"
#include "converter/control/bridge_cmd_family.h"
#include "converter/control/bridge_configs_legacy_general.h"
#include "converter/control/bridge_configs_legacy_upgr_list.h"
#include "converter/control/bridge_ctrl_ctx.h"
#include "mqtt/bridge_mqtt.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <sys/time.h>

static constexpr int32_t CODE_RESTART = 1;
static constexpr const char *CONTENT = "content";

using text_owned = std::unique_ptr<char, bridge_release<free>>;

enum cfg_encoding {
    CFG_JSON = 0,
    CFG_BASE64 = 1,
};

struct cfg_type_legacy {
    const char *name;
    cfg_encoding encoding;
    int (*read_cfg)(converter_ctx *ctx, char **out);
    int (*write_cfg)(converter_ctx *ctx, const char *cfg, char **out);
};

/* clang-format off */
static constexpr cfg_type_legacy cfg_types_legacy[] = {
    {"GENERAL",         CFG_BASE64, bridge_configs_legacy_general_read,   bridge_configs_legacy_general_write},
    {"UPGRADE_SERVERS", CFG_BASE64, bridge_configs_legacy_upgr_list_read, bridge_configs_legacy_upgr_list_write},
};
/* clang-format on */

/* The terminator travels with the text. */
static int publish(const char *topic, const char *text)
{
    return bridge_mqtt_publish(BRIDGE_MQTT_EP_OAM, topic, text, static_cast<uint32_t>(strlen(text)) + 1,
                               false);
}

static void ask_for_restart(const converter_ctx *ctx)
{
    BRIDGE_ASSERT(ctx->user_handler);
    ctx->user_handler(CODE_RESTART, ctx->user_handler_arg);
}

/* A new value that holds `size` bytes of the document in the type's encoding,
 * or null after logging. */
static json_object *encode(cfg_encoding encoding, const char *document, size_t size, const char *not_parsed,
                           const char *no_buffer, const char *no_text)
{
    BRIDGE_ASSERT(encoding == CFG_JSON || encoding == CFG_BASE64);
    if (encoding == CFG_JSON) {
        json_object *value = bridge_json_parse(document);
        if (value == nullptr)
            BRIDGE_ERROR("%s", not_parsed);
        return value;
    }
    const auto buf64_sz = static_cast<size_t>(Base64encode_len(static_cast<int>(size)));
    const text_owned buffer(static_cast<char *>(malloc(buf64_sz)));
    if (!buffer) {
        BRIDGE_ERROR("%s", no_buffer);
        return nullptr;
    }
    const int b64_written = Base64encode(buffer.get(), document, static_cast<int>(size));
    BRIDGE_ASSERT_TEXT(b64_written > 0 && static_cast<size_t>(b64_written) <= buf64_sz,
                       "b64_written > 0 && (size_t)b64_written <= buf64_sz");
    json_object *text = json_object_new_string(buffer.get());
    if (text == nullptr)
        BRIDGE_ERROR("%s", no_text);
    return text;
}

/* ---- a document of the server's ---- */

struct pulled_document {
    int64_t updateTs;
    char requestId[128];
    char type[32];
    char contentType[32];
    char mac[64];
    const char *content; /* the request's */
};

/* Returns 0, 1 for a message that is to be ignored, or -1 after logging. */
static int read_document(json_object *request, pulled_document *document)
{
    json_object *content_type = nullptr;
    if (json_object_object_get_ex(request, "contentType", &content_type) && content_type == nullptr) {
        BRIDGE_DEBUG("received empty config; ignoring");
        return 1;
    }
    const bridge_json_field frame[] = {
        field_int("updateTs", &document->updateTs),
        field_optional(field_string("requestId", document->requestId)),
        field_string("type", document->type),
        field_string("contentType", document->contentType),
        field_string("mac", document->mac),
    };
    if (cmd_parse(request, frame) < 0) {
        BRIDGE_ERROR("failed to de-serialize configuration params");
        return -1;
    }
    json_object *content = nullptr;
    json_object_object_get_ex(request, CONTENT, &content);
    document->content = json_object_get_string(content);
    if (document->content == nullptr) {
        BRIDGE_ERROR("content is missing, no configuration should be applied");
        return -1;
    }
    return 0;
}

/* The document in plain, or null after logging. */
static char *decode(const char *content)
{
    const int capacity = Base64decode_len(content);
    text_owned plain(static_cast<char *>(calloc(static_cast<size_t>(capacity) + 1, 1)));
    if (!plain) {
        BRIDGE_ERROR("failed to de-serialize base64 string");
        return nullptr;
    }
    const int size = Base64decode(plain.get(), content);
    if (size < 1 || size > capacity) {
        BRIDGE_ERROR("failed to de-serialize base64 string");
        return nullptr;
    }
    plain.get()[size] = '\0';
    return plain.release();
}

/* Hands the document to its type; `answer` takes what that answers. Returns 0,
 * or negative for no response.
 */
static int write_document(converter_ctx *ctx, const cfg_type_legacy &row, const char *content, char **answer)
{
    BRIDGE_ASSERT_TEXT(row.write_cfg != nullptr, "cfg_types_legacy[i].write_cfg != NULL");
    BRIDGE_ASSERT(row.encoding == CFG_JSON || row.encoding == CFG_BASE64);
    if (row.encoding == CFG_JSON)
        return row.write_cfg(ctx, content, answer);
    const text_owned plain(decode(content));
    return plain ? row.write_cfg(ctx, plain.get(), answer) : -1;
}

static const cfg_type_legacy *find_type(const char *name)
{
    for (const cfg_type_legacy &row : cfg_types_legacy) {
        if (strcmp(row.name, name) == 0)
            return &row;
    }
    return nullptr;
}

/* In base64 the terminator is part of the document: servers know it so in
 * responses, and not in pushes. */
static int add_content(const cfg_type_legacy &row, const char *document, json_object *response)
{
    if (row.encoding == CFG_BASE64)
        BRIDGE_DEBUG("encoding base64 response");
    json_object *content =
        encode(row.encoding, document, strlen(document) + 1, "failed to parse response JSON",
               "cannot allocate memory for configuration base64 buffer",
               "cannot allocate memory for configuration base64 JSON");
    if (content == nullptr)
        return -1;
    if (json_object_object_add_ex(response, CONTENT, content, 0) == 0)
        return 0;
    BRIDGE_ERROR("failed to replace content with base64 JSON object: out of memory");
    json_object_put(content);
    return -1;
}

static void respond(const converter_ctx *ctx, const char *topic, pulled_document *document,
                    json_object *response)
{
    const bridge_json_field frame[] = {
        field_int("applyTs", &document->updateTs),
        field_text("type", document->type),
        field_text("contentType", document->contentType),
        field_text("mac", document->mac),
    };
    if (bridge_json_serialize(response, frame, std::size(frame)) < 0) {
        BRIDGE_ERROR("failed to serialize configuration response");
        return;
    }
    const char *text = json_object_to_json_string_ext(response, JSON_C_TO_STRING_PLAIN);
    BRIDGE_DEBUG("publishing configuration to topic: %s", topic);
    if (publish(topic, text) != 0) {
        BRIDGE_ERROR("failed to publish response");
        ask_for_restart(ctx);
    }
}

/* A type that no row has is dropped without a response. */
static void apply_document(converter_ctx *ctx, const char *topic, json_object *request, json_object *response)
{
    pulled_document document = {};
    if (read_document(request, &document) != 0)
        return;
    BRIDGE_DEBUG("received configuration: %s with content: %s", document.type, document.content);
    const cfg_type_legacy *row = find_type(document.type);
    if (row == nullptr)
        return;
    char *answer = nullptr;
    const int result = write_document(ctx, *row, document.content, &answer);
    const text_owned owned(answer);
    if (result < 0 || answer == nullptr || add_content(*row, answer, response) < 0)
        return;
    respond(ctx, topic, &document, response);
}

void bridge_config_pull_worker_legacy(converter_ctx *ctx, const char *topic, const char *payload)
{
    BRIDGE_ASSERT(ctx);
    BRIDGE_ASSERT(payload);
    BRIDGE_ASSERT(topic);
    BRIDGE_TRACE("received a config payload: %s", payload);
    const json_owned request(bridge_json_parse(payload));
    if (!request) {
        BRIDGE_ERROR("failed to parse incoming configuration");
        return;
    }
    const json_owned response(json_object_new_object());
    if (!response) {
        BRIDGE_ERROR("cannot allocate response object");
        return;
    }
    apply_document(ctx, topic, request.get(), response.get());
}

/* ---- the gateway's documents ---- */

struct legacy_push {
    converter_ctx *ctx;
    char *topic; /* owned */
};

static void free_push(legacy_push *data)
{
    free(data->topic);
    delete data;
}

using push_owned = std::unique_ptr<legacy_push, bridge_release<free_push>>;

static int add_head(const converter_ctx *ctx, const cfg_type_legacy &row, json_object *root)
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    int64_t apply_ts = int64_t{now.tv_sec} * 1000 + now.tv_usec / 1000;
    const bridge_json_field frame[] = {
        field_int("applyTs", &apply_ts),
        field_text("type", row.name),
        field_text("mac", ctx->gw_mac),
    };
    if (bridge_json_serialize(root, frame, std::size(frame)) == 0)
        return 0;
    BRIDGE_ERROR("failed to serialize configuration response");
    return -1;
}

/* The mutex is given up for the publish, which can wait for the server. */
static void push_document(converter_ctx *ctx, const char *topic, json_object *root)
{
    const char *text =
        json_object_to_json_string_ext(root, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
    BRIDGE_TRACE("publishing configuration to the topic: %s and data: %s", topic, text);
    pthread_mutex_unlock(&ctx->mutex);
    const int result = publish(topic, text);
    pthread_mutex_lock(&ctx->mutex);
    if (result != 0) {
        BRIDGE_ERROR("failed to publish configuration");
        ask_for_restart(ctx);
    } else {
        BRIDGE_INFO("successfully sent configuration to OA&M");
    }
}

/* Returns 0, or -1 when the push is to end. */
static int push_type(const legacy_push &data, const cfg_type_legacy &row)
{
    json_owned root(json_object_new_object());
    if (!root) {
        BRIDGE_ERROR("cannot allocate root json object");
        return -1;
    }
    if (add_head(data.ctx, row, root.get()) < 0)
        return -1;
    BRIDGE_ASSERT_TEXT(row.read_cfg != nullptr, "cfg_types_legacy[i].read_cfg != NULL");
    char *document = nullptr;
    const int result = row.read_cfg(data.ctx, &document);
    const text_owned owned(document);
    if (result < 0 || document == nullptr)
        return 0;
    json_object *content =
        encode(row.encoding, document, strlen(document), "failed to parse JSON object",
               "failed to allocate buffer for base64 data", "failed to allocate push content");
    if (content == nullptr)
        return 0;
    if (json_object_object_add(root.get(), CONTENT, content) < 0) {
        BRIDGE_ERROR("failed to add push content");
        json_object_put(content);
        return 0;
    }
    push_document(data.ctx, data.topic, root.get());
    return 0;
}

static void legacy_config_push(void *arg)
{
    BRIDGE_ASSERT_TEXT(arg != nullptr, "arg != NULL");
    const push_owned data(static_cast<legacy_push *>(arg));
    BRIDGE_ASSERT_TEXT(data->ctx != nullptr, "ctx != NULL");
    BRIDGE_ASSERT_TEXT(data->topic != nullptr, "topic != NULL");
    const ctx_guard guard(data->ctx);
    BRIDGE_DEBUG("config push worker thread starting");
    for (const cfg_type_legacy &row : cfg_types_legacy) {
        if (push_type(*data, row) < 0)
            return;
    }
}

int bridge_config_push_launcher_legacy(converter_ctx *ctx, const char *topic)
{
    BRIDGE_ASSERT(ctx);
    BRIDGE_ASSERT(topic);
    push_owned data(new (std::nothrow) legacy_push{.ctx = ctx, .topic = nullptr});
    if (!data) {
        BRIDGE_ERROR("failed to allocate memory for config data container");
        return 0;
    }
    data->topic = strdup(topic);
    if (data->topic == nullptr) {
        BRIDGE_ERROR("failed to copy topic for config data container");
        return 0;
    }
    legacy_config_push(data.release());
    return 0;
}

/* ---- asking for the server's ---- */

int bridge_config_get_latest_launcher_legacy(converter_ctx *ctx, const char *topic)
{
    static std::atomic<int> next_request = 0;
    BRIDGE_ASSERT_TEXT(ctx != nullptr, "ctx != NULL");
    BRIDGE_ASSERT_TEXT(topic != nullptr, "topic != NULL");
    BRIDGE_DEBUG("requesting latest configuration");
    for (const cfg_type_legacy &row : cfg_types_legacy) {
        const int request_id = next_request++;
        char payload[512];
        const int n =
            snprintf(payload, sizeof(payload), "{ \"mac\":\"%s\", \"requestId\": \"%d\", \"type\":\"%s\"}",
                     ctx->gw_mac, request_id, row.name);
        BRIDGE_ASSERT_TEXT(n > 0 && static_cast<size_t>(n) < sizeof(payload),
                           "n > 0 && n < (int)sizeof(payload)");
        const int result =
            bridge_mqtt_publish(BRIDGE_MQTT_EP_OAM, topic, payload, static_cast<uint32_t>(n), false);
        if (result < 0) {
            BRIDGE_ERROR("Failed to publish to topic %s request id %d", topic, request_id);
            ask_for_restart(ctx);
            return result;
        }
    }
    return 0;
}
