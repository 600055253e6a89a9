#include "configs_gw/gateway_sections.h"

#include "common/bridge_json_helpers.h"
#include "converter/control/bridge_configs_gw.h"
#include "converter/control/bridge_configs_gw_scripts.h"

int scripts_result;
static converter_ctx context;

GatewaySections::GatewaySections()
{
    modem = {};
    waits = {};
    scripts_result = 0;
}

static section_outcome outcome(int result, json_object *reply)
{
    return {result,
            json_object_to_json_string_ext(reply, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE)};
}

section_outcome write_sections(const std::string &content)
{
    const json_owned wanted(json_tokener_parse(content.c_str()));
    EXPECT_NE(wanted, nullptr) << content;
    const json_owned reply(json_object_new_object());
    const int result = bridge_configs_gw_write(&context, wanted.get(), reply.get());
    return outcome(result, reply.get());
}

section_outcome read_sections()
{
    const json_owned reply(json_object_new_object());
    const int result = bridge_configs_gw_read(&context, reply.get());
    return outcome(result, reply.get());
}

/* ---- scripts ---- */

int bridge_configs_gw_ns_read(converter_ctx *, json_object *)
{
    return 0;
}

int bridge_configs_gw_ns_write(converter_ctx *, json_object *, json_object *)
{
    return 0;
}

int bridge_configs_gw_us_read(converter_ctx *, json_object *)
{
    return 0;
}

int bridge_configs_gw_us_write(converter_ctx *, json_object *, json_object *)
{
    return 0;
}

int bridge_configs_gw_snmp_read(converter_ctx *, json_object *)
{
    return 0;
}

int bridge_configs_gw_snmp_write(converter_ctx *, json_object *, json_object *)
{
    return 0;
}

static void put_check(json_object *out, json_object *value)
{
    modem.stands_apart(true);
    json_object_object_add(out, "check",
                           value != nullptr ? json_object_get(value) : json_object_new_string("read"));
    modem.stands_apart(false);
}

int cfg_connectivity_check_read(json_object *out)
{
    put_check(out, nullptr);
    return scripts_result;
}

int cfg_connectivity_check_write(json_object *cfg, json_object *out)
{
    put_check(out, cfg);
    return scripts_result;
}
