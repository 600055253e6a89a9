/* Translators of the native format. Each reads its source object and adds keys to the other; 0 or negative.
 */
#ifndef BRIDGE_TRANSLATOR_SNVNS_H
#define BRIDGE_TRANSLATOR_SNVNS_H

#include <cstdint>

struct bridge_translate_msg;
struct json_object;

int bridge_translate_uplink_semtech_v1_to_snvns_v1(const bridge_translate_msg *from, json_object *semtech,
                                                   json_object *snvns);
int bridge_translate_uplink_semtech_v2_to_snvns_v1(const bridge_translate_msg *from, json_object *semtech,
                                                   json_object *snvns);
int bridge_translate_stat_semtech_v1_to_snvns_v1(const bridge_translate_msg *from, json_object *semtech,
                                                 json_object *snvns);
int bridge_translate_stat_semtech_v2_to_snvns_v1(const bridge_translate_msg *from, json_object *semtech,
                                                 json_object *snvns);

/* The token stays untouched: the native format has none. */
int bridge_translate_downlink_snvns_v1_to_semtech_v1(json_object *snvns, json_object *semtech,
                                                     uint16_t *token);
int bridge_translate_downlink_snvns_v1_to_semtech_v2(json_object *snvns, json_object *semtech,
                                                     uint16_t *token);

#endif
