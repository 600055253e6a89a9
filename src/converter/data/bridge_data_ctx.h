/* What the files of the data plane share: its one context, and the calls between them. Unless said otherwise
 * the worker alone calls them. */
#ifndef BRIDGE_DATA_CTX_H
#define BRIDGE_DATA_CTX_H

#include "converter/data/bridge_data_conv.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <netinet/in.h>
#include <sys/socket.h>

struct json_tokener;
struct thpool;

static constexpr size_t SEMTECH_HEADER_SIZE = 4;
static constexpr size_t SEMTECH_MAC_SIZE = 8;
static constexpr size_t ENDPOINT_TEXT_SIZE = 128;
/* One downlink on its way to the worker: what a pipe takes in one piece. */
static constexpr size_t BRIDGE_PIPE_SIZE = 4096;

enum semtech_packet : uint8_t {
    SEMTECH_PUSH_DATA = 0,
    SEMTECH_PUSH_ACK = 1,
    SEMTECH_PULL_DATA = 2,
    SEMTECH_PULL_RESP = 3,
    SEMTECH_PULL_ACK = 4,
    SEMTECH_TX_ACK = 5,
};

/* Numeric host and port of a sender; asked for again only when its address changes. */
struct sender_name {
    sockaddr_in address;
    char host[ENDPOINT_TEXT_SIZE];
    char port[ENDPOINT_TEXT_SIZE];
};

/* The socket address of a host and port text; resolved again only when the text changes. */
struct resolved_name {
    char host[ENDPOINT_TEXT_SIZE];
    char port[ENDPOINT_TEXT_SIZE];
    sockaddr_storage address;
    socklen_t address_size; /* 0 when nothing is resolved */
};

struct bridge_data_ctx {
    char gw_host[ENDPOINT_TEXT_SIZE];
    char pull_port[ENDPOINT_TEXT_SIZE];
    char push_port[ENDPOINT_TEXT_SIZE];
    thpool *pool;
    std::atomic<bool> rx_allowed; /* a PULL_DATA has told where downlinks go */
    bridge_dataplane_cb_t cb;
    void *cb_context;
    int pipe_fds[2];
    std::atomic<uint32_t> semtech_version; /* of the last valid datagram */
    int sock;
    std::atomic<bool> inited;
    std::atomic<bool> geo_connected;
    std::atomic<bool> ns_connected;
    std::atomic<bool> stop;
    std::atomic<int> pipe_writers; /* downlink callbacks under way: the pipe outlives them */

    char uplink_topic[BRIDGE_TOPIC_SIZE];
    char downlink_topic[BRIDGE_TOPIC_SIZE];
    char ack_topic[BRIDGE_TOPIC_SIZE];
    char stats_topic[BRIDGE_TOPIC_SIZE];

    json_tokener *tokener; /* of the worker's datagrams; made by the first, kept until deinit */

    sender_name push_sender;
    sender_name pull_sender;
    resolved_name push_target;
    resolved_name pull_target;
};

extern bridge_data_ctx converter_ctx;

/* Sends to the last sender, at its pull or its push port. Returns 0, or a non-zero number after logging why.
 */
int bridge_udp_send(const uint8_t *data, size_t data_size, bool use_pull_port);

/* Both sizes count the MAC, the JSON text and its terminator, not the header. A non-zero result means that
 * the datagram is not acknowledged. */
int bridge_handle_push_data(uint32_t version, const uint8_t *data, size_t data_size);
int bridge_handle_tx_ack(uint16_t token, const uint8_t *data, size_t data_size);

#endif
