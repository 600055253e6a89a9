#include "converter/data/bridge_translator_bstn.h"
int bridge_translate_uplink_semtech_v1_to_bstn_v1(const bridge_translate_msg *, json_object *, json_object *)
{
    return -1;
}
int bridge_translate_uplink_semtech_v2_to_bstn_v1(const bridge_translate_msg *, json_object *, json_object *)
{
    return -1;
}
int bridge_translate_stat_semtech_v1_to_bstn_v1(const bridge_translate_msg *, json_object *, json_object *)
{
    return -1;
}
int bridge_translate_stat_semtech_v2_to_bstn_v1(const bridge_translate_msg *, json_object *, json_object *)
{
    return -1;
}
int bridge_translate_downlink_bstn_v1_to_semtech_v1(json_object *, json_object *, uint16_t *)
{
    return -95;
}
int bridge_translate_downlink_bstn_v1_to_semtech_v2(json_object *, json_object *, uint16_t *)
{
    return -1;
}
