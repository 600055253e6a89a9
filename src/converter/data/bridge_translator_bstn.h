/* Translators of the Basics Station messages. They stand in the tables like the others, although no
 * configured dialect selects them. Each reads its source object and adds keys to the other; 0 or negative. */
#ifndef BRIDGE_TRANSLATOR_BSTN_H
#define BRIDGE_TRANSLATOR_BSTN_H

#include <cstdint>

struct bridge_translate_msg;
struct json_object;

/* The clock of the dialect: bits 48 and up hold a session number, the low 48 bits follow the gateway's count
 * in microseconds; zero until initialised. Statistics move it. Worker only. */
extern int64_t bstn_xtime_base;

int bridge_translate_uplink_semtech_v1_to_bstn_v1(const bridge_translate_msg *from, json_object *semtech,
                                                  json_object *bstn);
int bridge_translate_uplink_semtech_v2_to_bstn_v1(const bridge_translate_msg *from, json_object *semtech,
                                                  json_object *bstn);
int bridge_translate_stat_semtech_v1_to_bstn_v1(const bridge_translate_msg *from, json_object *semtech,
                                                json_object *bstn);
int bridge_translate_stat_semtech_v2_to_bstn_v1(const bridge_translate_msg *from, json_object *semtech,
                                                json_object *bstn);

/* Only version 2 carries these downlinks: version 1 does nothing and returns -95. */
int bridge_translate_downlink_bstn_v1_to_semtech_v1(json_object *bstn, json_object *semtech, uint16_t *token);
int bridge_translate_downlink_bstn_v1_to_semtech_v2(json_object *bstn, json_object *semtech, uint16_t *token);

#endif
