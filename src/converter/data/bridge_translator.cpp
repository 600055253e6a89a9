/* The tables of translators and their one look-up, and the clock of the Basics Station dialect. */
#include "converter/data/bridge_translator.h"

#include "common/bridge_log.h"
#include "converter/data/bridge_translator_bstn.h"
#include "converter/data/bridge_translator_chirpstack.h"
#include "converter/data/bridge_translator_snvns.h"

#include <cstdlib>
#include <ctime>

static constexpr uint32_t FORMATS = DATA_TYPE_MAX + 1;
static constexpr uint32_t VERSIONS = VERSION_MAX + 1;
static constexpr uint32_t SESSION_SHIFT = 48;
static constexpr uint32_t SESSION_MASK = 0xff;
static constexpr int32_t MAX_CLOCK_LAG_US = 100000;

using up_translator = int (*)(const bridge_translate_msg *from, json_object *semtech, json_object *ns);
using down_translator = int (*)(json_object *ns, json_object *semtech, uint16_t *token);

/* Indexed by the network server's format, the Semtech version and the network server's version, in that
 * order. */
template <typename Translator> struct translator_table {
    Translator slot[FORMATS][VERSIONS][VERSIONS];
};

int64_t bstn_xtime_base = 0;

/* clang-format off */
static constexpr translator_table<up_translator> UPLINK = [] {
    translator_table<up_translator> t = {};
    t.slot[FORMAT_SNVNS]     [1][1] = bridge_translate_uplink_semtech_v1_to_snvns_v1;
    t.slot[FORMAT_SNVNS]     [2][1] = bridge_translate_uplink_semtech_v2_to_snvns_v1;
    t.slot[FORMAT_CHIRPSTACK][1][2] = bridge_translate_uplink_semtech_v1_to_chirpstack_v2json;
    t.slot[FORMAT_CHIRPSTACK][1][3] = bridge_translate_uplink_semtech_v1_to_chirpstack_v3json;
    t.slot[FORMAT_CHIRPSTACK][2][2] = bridge_translate_uplink_semtech_v2_to_chirpstack_v2json;
    t.slot[FORMAT_CHIRPSTACK][2][3] = bridge_translate_uplink_semtech_v2_to_chirpstack_v3json;
    t.slot[FORMAT_BSTN]      [1][1] = bridge_translate_uplink_semtech_v1_to_bstn_v1;
    t.slot[FORMAT_BSTN]      [2][1] = bridge_translate_uplink_semtech_v2_to_bstn_v1;
    return t;
}();

static constexpr translator_table<up_translator> STATISTICS = [] {
    translator_table<up_translator> t = {};
    t.slot[FORMAT_SNVNS]     [1][1] = bridge_translate_stat_semtech_v1_to_snvns_v1;
    t.slot[FORMAT_SNVNS]     [2][1] = bridge_translate_stat_semtech_v2_to_snvns_v1;
    t.slot[FORMAT_CHIRPSTACK][1][2] = bridge_translate_stat_semtech_v1_to_chirpstack_v2json;
    t.slot[FORMAT_CHIRPSTACK][1][3] = bridge_translate_stat_semtech_v1_to_chirpstack_v3json;
    t.slot[FORMAT_CHIRPSTACK][2][2] = bridge_translate_stat_semtech_v2_to_chirpstack_v2json;
    t.slot[FORMAT_CHIRPSTACK][2][3] = bridge_translate_stat_semtech_v2_to_chirpstack_v3json;
    t.slot[FORMAT_BSTN]      [1][1] = bridge_translate_stat_semtech_v1_to_bstn_v1;
    t.slot[FORMAT_BSTN]      [2][1] = bridge_translate_stat_semtech_v2_to_bstn_v1;
    return t;
}();

static constexpr translator_table<down_translator> DOWNLINK = [] {
    translator_table<down_translator> t = {};
    t.slot[FORMAT_SNVNS]     [1][1] = bridge_translate_downlink_snvns_v1_to_semtech_v1;
    t.slot[FORMAT_SNVNS]     [2][1] = bridge_translate_downlink_snvns_v1_to_semtech_v2;
    t.slot[FORMAT_CHIRPSTACK][1][2] = bridge_translate_downlink_chirpstack_v2json_to_semtech_v1;
    t.slot[FORMAT_CHIRPSTACK][1][3] = bridge_translate_downlink_chirpstack_v3json_to_semtech_v1;
    t.slot[FORMAT_CHIRPSTACK][2][2] = bridge_translate_downlink_chirpstack_v2json_to_semtech_v2;
    t.slot[FORMAT_CHIRPSTACK][2][3] = bridge_translate_downlink_chirpstack_v3json_to_semtech_v2;
    t.slot[FORMAT_BSTN]      [1][1] = bridge_translate_downlink_bstn_v1_to_semtech_v1;
    t.slot[FORMAT_BSTN]      [2][1] = bridge_translate_downlink_bstn_v1_to_semtech_v2;
    return t;
}();
/* clang-format on */

static int translate_uplink(const bridge_translate_msg *from, const bridge_translate_msg *to)
{
    const up_translator translator = UPLINK.slot[to->format][from->version][to->version];
    if (translator == nullptr) {
        BRIDGE_ERROR("no uplink conveter is defined from semtech version [%d] to NS type [%d:%d]",
                     from->version, to->format, to->version);
        return -1;
    }
    return translator(from, from->json, to->json);
}

static int translate_statistics(const bridge_translate_msg *from, const bridge_translate_msg *to)
{
    const up_translator translator = STATISTICS.slot[to->format][from->version][to->version];
    if (translator == nullptr) {
        BRIDGE_ERROR("no statistics conveter is defined from semtech version [%d] to NS type [%d:%d]",
                     from->version, to->format, to->version);
        return -1;
    }
    return translator(from, from->json, to->json);
}

static int translate_downlink(const bridge_translate_msg *from, bridge_translate_msg *to)
{
    const down_translator translator = DOWNLINK.slot[from->format][to->version][from->version];
    if (translator == nullptr) {
        BRIDGE_ERROR("no downlink conveter is defined from NS type [%d:%d] to semtech version [%d]",
                     from->format, from->version, to->version);
        return -1;
    }
    return translator(from->json, to->json, &to->token);
}

int bridge_translate_generic(bridge_translate_msg *from, bridge_translate_msg *to)
{
    BRIDGE_ASSERT(from);
    BRIDGE_ASSERT(to);
    BRIDGE_ASSERT(from->version <= VERSION_MAX);
    BRIDGE_ASSERT(to->version <= VERSION_MAX);
    BRIDGE_ASSERT(from->format <= DATA_TYPE_MAX);
    BRIDGE_ASSERT(to->format <= DATA_TYPE_MAX);
    BRIDGE_ASSERT(to->direction == from->direction);
    BRIDGE_TRACE("Format: [%#x], from version: [%#x], to version: [%#x]", to->format, from->version,
                 to->version);
    BRIDGE_TRACE("direction: [%#x]", from->direction);

    switch (from->direction) {
    case DIRECTION_UPLINK:
        return translate_uplink(from, to);
    case DIRECTION_STATISTICS:
        return translate_statistics(from, to);
    case DIRECTION_DOWNLINK:
        return translate_downlink(from, to);
    default:
        BRIDGE_ASSERT_TEXT(false, "0");
        return -1;
    }
}

int bridge_bstn_xtime_init()
{
    srand(static_cast<unsigned>(time(nullptr)));
    int64_t session = static_cast<int64_t>(static_cast<uint32_t>(rand()) & SESSION_MASK);
    if (session == 0)
        session = 1; /* the base must never read as unset */
    bstn_xtime_base = session << SESSION_SHIFT;
    BRIDGE_INFO("bstn xtime init to: %lld", static_cast<long long>(bstn_xtime_base));
    return 0;
}

void translate_semtech_clock_to_server_clock(int64_t tmst, int64_t *xtime)
{
    /* The signed difference of the low words carries the count across a wrap. */
    const auto difference =
        static_cast<int32_t>(static_cast<uint32_t>(tmst) - static_cast<uint32_t>(bstn_xtime_base));
    if (difference < -MAX_CLOCK_LAG_US) {
        BRIDGE_ERROR("Something seems to be wrong, UL timestamp: %lli, base: %lli",
                     static_cast<long long>(tmst), static_cast<long long>(bstn_xtime_base));
        *xtime = 0;
        return;
    }
    *xtime = static_cast<int64_t>(static_cast<uint64_t>(bstn_xtime_base) + static_cast<uint64_t>(difference));
}
