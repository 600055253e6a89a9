#include "fuzz_transport.h"

#include "fuzz.h"
#include "fuzz_choices.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/eventfd.h>
#include <unistd.h>

static constexpr uint8_t TAG_INTEGER = 0x02;
static constexpr uint8_t TAG_TEXT = 0x04;
static constexpr uint8_t TAG_SEQUENCE = 0x30;
static constexpr uint8_t TAG_RESPONSE = 0xa2;
static constexpr uint8_t TAG_TRAP = 0xa7;
static constexpr uint8_t NO_TAG = 0xff;
static constexpr uint8_t VERSION_2C = 1;
static constexpr char GENERAL_ERROR = 5;
static constexpr size_t LONGEST = 2048;

static const oid DOMAIN[] = {1, 3, 6, 1, 6, 1, 1};

/* The number of the last request, as it was written. */
static std::string request_number("\0\0\0\1", 4);

/* ---- writing ---- */

static std::string field(uint8_t tag, const std::string &content)
{
    const size_t size = content.size();
    std::string written(1, static_cast<char>(tag));
    written += "\x82";
    written += {static_cast<char>(size >> 8), static_cast<char>(size)};
    return written + content;
}

static std::string message(uint8_t tag, const std::string &status, const std::string &index,
                           const std::string &variables)
{
    const std::string pdu = field(TAG_INTEGER, request_number) + field(TAG_INTEGER, status) +
                            field(TAG_INTEGER, index) + field(TAG_SEQUENCE, variables);
    return field(TAG_SEQUENCE, field(TAG_INTEGER, std::string(1, static_cast<char>(VERSION_2C))) +
                                   field(TAG_TEXT, "public") + field(tag, pdu));
}

static std::string no_number()
{
    return std::string(1, '\0');
}

/* The name of a variable, of few or of many numbers, and a value of any tag. */
static std::string chosen_variable()
{
    const std::string name = fuzz_choice_bytes(fuzz_choice() % 160);
    const uint8_t tag = fuzz_choice();
    const std::string value =
        tag == NO_TAG ? field(TAG_TEXT, fuzz_choice_filling()) : field(tag, fuzz_choice_bytes(fuzz_choice()));
    return field(TAG_SEQUENCE, field(0x06, name) + value);
}

static std::string chosen_variables()
{
    std::string variables;
    for (uint8_t count = fuzz_choice() % 8; count > 0; count--)
        variables += chosen_variable();
    return variables;
}

/* From well formed to anything. */
static std::string chosen_datagram(uint8_t usual_tag)
{
    const uint8_t form = fuzz_choice();
    switch (form % 8) {
    case 0:
    case 1:
        return message(usual_tag, no_number(), no_number(), chosen_variables());
    case 2:
        return message(usual_tag, no_number(), no_number(),
                       fuzz_choice_bytes(fuzz_choice_number(2) % LONGEST));
    case 3:
        return message(usual_tag, fuzz_choice_bytes(fuzz_choice() % 8), fuzz_choice_bytes(fuzz_choice() % 8),
                       chosen_variables());
    case 4:
        return message(fuzz_choice(), no_number(), no_number(), chosen_variables());
    case 5: {
        std::string damaged = message(usual_tag, no_number(), no_number(), chosen_variables());
        for (uint8_t count = fuzz_choice() % 8; count > 0; count--)
            damaged[fuzz_choice_number(2) % damaged.size()] = static_cast<char>(fuzz_choice());
        damaged.resize(damaged.size() - std::min<size_t>(fuzz_choice() % 16, damaged.size()));
        return damaged;
    }
    default:
        return fuzz_choice_bytes(fuzz_choice_number(2) % LONGEST);
    }
}

/* ---- the transport ---- */

static int receive(netsnmp_transport *transport, void *buffer, int capacity, void **opaque, int *opaque_size)
{
    *opaque = nullptr;
    *opaque_size = 0;
    const bool answers = transport->data != nullptr;
    std::string datagram;
    if (fuzz_choices_left())
        datagram = chosen_datagram(answers ? TAG_RESPONSE : TAG_TRAP);
    else if (answers)
        datagram = message(TAG_RESPONSE, std::string(1, GENERAL_ERROR), no_number(), "");
    if (datagram.empty())
        return -1;
    const size_t size = std::min(datagram.size(), static_cast<size_t>(capacity));
    memcpy(buffer, datagram.data(), size);
    return static_cast<int>(size);
}

/* Past version and community of the message stands the PDU, and its number first. */
static void find_number(const u_char *data, size_t size)
{
    const u_char community[] = {TAG_TEXT, 6, 'p', 'u', 'b', 'l', 'i', 'c'};
    const u_char *end = data + size;
    const u_char *found = std::search(data, end, std::begin(community), std::end(community));
    FUZZ_REQUIRE(found != end);
    const u_char *number = std::find(found + sizeof(community) + 1, end, TAG_INTEGER);
    FUZZ_REQUIRE(end - number > 2 && end - number >= 2 + number[1]);
    request_number.assign(number + 2, number + 2 + number[1]);
}

static int send_request(netsnmp_transport *, const void *data, int size, void **, int *)
{
    find_number(static_cast<const u_char *>(data), static_cast<size_t>(size));
    return size;
}

static int close_transport(netsnmp_transport *transport)
{
    close(transport->sock);
    transport->sock = -1;
    return 0;
}

static char *tell_address(netsnmp_transport *, const void *, int)
{
    return strdup("fuzz");
}

netsnmp_transport *fuzz_transport_new(bool answers)
{
    auto *transport = static_cast<netsnmp_transport *>(calloc(1, sizeof(netsnmp_transport)));
    FUZZ_REQUIRE(transport != nullptr);
    transport->domain = DOMAIN;
    transport->domain_length = static_cast<int>(std::size(DOMAIN));
    transport->sock = eventfd(1, EFD_CLOEXEC); /* there is always something to receive */
    transport->msgMaxSize = 65507;
    transport->f_recv = receive;
    transport->f_send = send_request;
    transport->f_close = close_transport;
    transport->f_fmtaddr = tell_address;
    if (answers) {
        transport->data = calloc(1, 1);
        transport->data_length = 1;
    }
    return transport;
}
