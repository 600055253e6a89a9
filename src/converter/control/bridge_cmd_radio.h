/* Commands on the radio's measurement tools. Handlers of the command table. */
#ifndef BRIDGE_CMD_RADIO_H
#define BRIDGE_CMD_RADIO_H

struct converter_ctx;
struct json_object;

void bridge_cmd_set_spectrum_analyzer(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_spectrum_analyzer(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_execute_spectral_scan(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_antennas_count(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_scan_progress(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_scan_params(converter_ctx *ctx, json_object *params, json_object **response);
void bridge_cmd_get_scan_results(converter_ctx *ctx, json_object *params, json_object **response);

#endif
