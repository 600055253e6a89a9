/* Translators of the ChirpStack JSON dialects, versions 2 and 3. Each reads its source object and adds keys
 * to the other; 0 or negative. */
#ifndef BRIDGE_TRANSLATOR_CHIRPSTACK_H
#define BRIDGE_TRANSLATOR_CHIRPSTACK_H

#include <cstdint>

struct bridge_translate_msg;
struct json_object;

int bridge_translate_uplink_semtech_v1_to_chirpstack_v2json(const bridge_translate_msg *from,
                                                            json_object *semtech, json_object *chirpstack);
int bridge_translate_uplink_semtech_v2_to_chirpstack_v2json(const bridge_translate_msg *from,
                                                            json_object *semtech, json_object *chirpstack);
int bridge_translate_uplink_semtech_v1_to_chirpstack_v3json(const bridge_translate_msg *from,
                                                            json_object *semtech, json_object *chirpstack);
int bridge_translate_uplink_semtech_v2_to_chirpstack_v3json(const bridge_translate_msg *from,
                                                            json_object *semtech, json_object *chirpstack);

int bridge_translate_stat_semtech_v1_to_chirpstack_v2json(const bridge_translate_msg *from,
                                                          json_object *semtech, json_object *chirpstack);
int bridge_translate_stat_semtech_v2_to_chirpstack_v2json(const bridge_translate_msg *from,
                                                          json_object *semtech, json_object *chirpstack);
int bridge_translate_stat_semtech_v1_to_chirpstack_v3json(const bridge_translate_msg *from,
                                                          json_object *semtech, json_object *chirpstack);
int bridge_translate_stat_semtech_v2_to_chirpstack_v3json(const bridge_translate_msg *from,
                                                          json_object *semtech, json_object *chirpstack);

/* `token` takes the message's token, for the PULL_RESP. */
int bridge_translate_downlink_chirpstack_v2json_to_semtech_v1(json_object *chirpstack, json_object *semtech,
                                                              uint16_t *token);
int bridge_translate_downlink_chirpstack_v2json_to_semtech_v2(json_object *chirpstack, json_object *semtech,
                                                              uint16_t *token);
int bridge_translate_downlink_chirpstack_v3json_to_semtech_v1(json_object *chirpstack, json_object *semtech,
                                                              uint16_t *token);
int bridge_translate_downlink_chirpstack_v3json_to_semtech_v2(json_object *chirpstack, json_object *semtech,
                                                              uint16_t *token);

#endif
