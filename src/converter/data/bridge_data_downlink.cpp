/* Downlinks from the network server, translated on the delivery thread and handed to the worker as finished
 * datagrams: the worker alone uses the socket. */
#include "converter/data/bridge_data_ctx.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "converter/data/bridge_translator.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <poll.h>
#include <unistd.h>

using tokener_owned = std::unique_ptr<json_tokener, bridge_release<json_tokener_free>>;

/* The pipe is closed only when no callback is inside; one that comes later finds the plane gone. */
class pipe_writer
{
  public:
    pipe_writer()
    {
        converter_ctx.pipe_writers++;
    }
    ~pipe_writer()
    {
        converter_ctx.pipe_writers--;
    }
    pipe_writer(const pipe_writer &) = delete;
    pipe_writer &operator=(const pipe_writer &) = delete;
};

static json_object *parse_downlink(const uint8_t *payload, uint32_t payload_size)
{
    const tokener_owned tokener(json_tokener_new());
    if (!tokener) {
        BRIDGE_ERROR("failed to allocate tokener");
        return nullptr;
    }
    json_object *parsed = bridge_json_parse_ex(tokener.get(), reinterpret_cast<const char *>(payload),
                                               static_cast<int>(payload_size));
    if (parsed == nullptr)
        BRIDGE_WARN("unable to parse downlink payload");
    return parsed;
}

/* Returns the txpk wrapped for the packet forwarder, or null after logging why. */
static json_object *translate_downlink(json_object *parsed, uint32_t semtech_version, uint16_t *token)
{
    json_owned txpk(json_object_new_object());
    if (!txpk) {
        BRIDGE_ERROR("failed to create object");
        return nullptr;
    }
    uint32_t ns_version = 0;
    uint32_t ns_format = 0;
    if (get_version_and_ns_format(&ns_version, &ns_format) < 0) {
        BRIDGE_ERROR("failed to extract the NS version and data format");
        return nullptr;
    }
    bridge_translate_msg from = {
        .format = ns_format, .direction = DIRECTION_DOWNLINK, .version = ns_version, .json = parsed};
    bridge_translate_msg to = {.format = FORMAT_SEMTECH,
                               .direction = DIRECTION_DOWNLINK,
                               .version = semtech_version,
                               .json = txpk.get()};
    if (bridge_translate_generic(&from, &to) < 0) {
        BRIDGE_WARN("failed to translate downlink packet body");
        return nullptr;
    }
    *token = to.token;
    json_object *wrapper = json_object_new_object();
    if (wrapper == nullptr) {
        BRIDGE_ERROR("failed to create object");
        return nullptr;
    }
    json_object_object_add(wrapper, "txpk", txpk.release());
    return wrapper;
}

/* A full pipe holds the delivery of further messages until the worker catches up, or until the plane ends and
 * its read end is closed. */
static ssize_t write_when_possible(int fd, const uint8_t *datagram, size_t size)
{
    for (;;) {
        const ssize_t written = write(fd, datagram, size);
        if (written >= 0 || errno != EAGAIN)
            return written;
        pollfd writable = {.fd = fd, .events = POLLOUT, .revents = 0};
        (void)poll(&writable, 1, -1);
    }
}

static void write_to_worker(const uint8_t *datagram, size_t size)
{
    const ssize_t written = write_when_possible(converter_ctx.pipe_fds[1], datagram, size);
    if (written < 0)
        BRIDGE_ERROR("failed to write downlink packet into the pipe");
    else if (static_cast<size_t>(written) < size)
        BRIDGE_WARN("pipe consumed less data: [%d] than expected: [%zu]", static_cast<int>(written), size);
    else
        BRIDGE_TRACE("bytes written to pipe: [%d]", static_cast<int>(written));
}

/* The terminator travels with the datagram. */
static void hand_to_worker(json_object *wrapper, uint32_t semtech_version, uint16_t token)
{
    size_t length = 0;
    const char *text = json_object_to_json_string_length(wrapper, JSON_C_TO_STRING_PLAIN, &length);
    if (text == nullptr) {
        BRIDGE_WARN("failed to stringify downlink packet");
        return;
    }
    const size_t size = SEMTECH_HEADER_SIZE + length + 1;
    uint8_t datagram[BRIDGE_PIPE_SIZE] = {};
    if (size > sizeof(datagram)) {
        BRIDGE_WARN("packet body is too big: %zd bytes", static_cast<ssize_t>(length + 1));
        return;
    }
    datagram[0] = static_cast<uint8_t>(semtech_version);
    memcpy(datagram + 1, &token, sizeof(token));
    datagram[3] = SEMTECH_PULL_RESP;
    memcpy(datagram + SEMTECH_HEADER_SIZE, text, length);
    write_to_worker(datagram, size);
}

void bridge_downlink_callback(const char *topic, void *, const uint8_t *payload, uint32_t payload_size)
{
    BRIDGE_ASSERT(topic);
    BRIDGE_ASSERT(payload);
    const pipe_writer writer;
    if (!converter_ctx.inited)
        return;
    errno = 0; /* a bad number of the message before must not count against this one */
    if (payload_size == 0) {
        BRIDGE_WARN("empty payload received, skipping");
        return;
    }
    const json_owned parsed(parse_downlink(payload, payload_size));
    if (!parsed)
        return;
    const uint32_t semtech_version = converter_ctx.semtech_version;
    uint16_t token = 0;
    const json_owned wrapper(translate_downlink(parsed.get(), semtech_version, &token));
    if (wrapper)
        hand_to_worker(wrapper.get(), semtech_version, token);
}

int bridge_send_downlink(const uint8_t *data, size_t data_size)
{
    BRIDGE_ASSERT(data);
    BRIDGE_ASSERT(data_size > 0);
    if (!converter_ctx.rx_allowed) {
        BRIDGE_WARN("RX is not yet allowed");
        return 0;
    }
    return bridge_udp_send(data, data_size, true);
}
