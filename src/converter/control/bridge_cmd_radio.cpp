/* Handlers in the order of the command table. */
#include "converter/control/bridge_cmd_radio.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "converter/control/bridge_cmd_family.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <memory>

static constexpr size_t ANALYZER_BLOB_SIZE = 2048;
static constexpr size_t SAMPLES_PER_CHANNEL = 101;
static constexpr size_t CHANNEL_SIZE = SAMPLES_PER_CHANNEL * sizeof(int32_t);

/* ---- parameters ---- */

/* A number of the request and the object that takes it. */
struct radio_number {
    const char *key;
    const char *object;
};

/* clang-format off */
static constexpr std::array ANALYZER_NUMBERS = {
    radio_number{"samplePeriod",      "utilSpectrumAnalyzerSamplePeriod.0"},
    radio_number{"sampleCount",       "utilSpectrumAnalyzerSampleCount.0"},
    radio_number{"startFrequencykHz", "utilSpectrumAnalyzerStartFrequencykHz.0"},
    radio_number{"stopFrequencykHz",  "utilSpectrumAnalyzerStopFrequencykHz.0"},
    radio_number{"binSpacingkHz",     "utilSpectrumAnalyzerBinSpacingkHz.0"},
};

static constexpr std::array SCAN_NUMBERS = {
    radio_number{"samplePeriod",  "utilSpectralScanSamplePeriod.0"},
    radio_number{"num125kChan",   "utilSpectralScanNum125kChan.0"},
    radio_number{"startFreq125k", "utilSpectralScanStartFreq125k.0"},
    radio_number{"stepFreq125k",  "utilSpectralScanStepFreq125k.0"},
    radio_number{"num500kChan",   "utilSpectralScanNum500kChan.0"},
    radio_number{"startFreq500k", "utilSpectralScanStartFreq500k.0"},
    radio_number{"stepFreq500k",  "utilSpectralScanStepFreq500k.0"},
    radio_number{"antenna",       "utilSpectralScanAntenna.0"},
};
/* clang-format on */

/* All numbers are required. They go in one request, and then, if there is one, the object that starts it all.
 */
template <size_t Count>
static void write_numbers(converter_ctx *ctx, const std::array<radio_number, Count> &rows,
                          const char *trigger, json_object *params, const char *failure,
                          json_object **response)
{
    std::array<int64_t, Count> numbers = {};
    std::array<bridge_json_field, Count> frame;
    std::array<bridge_snmp_write_prop, Count + 1> props;
    for (size_t i = 0; i < Count; i++) {
        frame.at(i) = field_int(rows.at(i).key, &numbers.at(i));
        props.at(i) = cmd_number(rows.at(i).object, &numbers.at(i));
    }
    props.back() = cmd_text(trigger, CMD_TRIGGER);
    if (cmd_parse(params, frame) < 0) {
        BRIDGE_ERROR("failed to de-serialize parameters");
        return;
    }
    if (cmd_write(ctx, std::span(props).first(trigger != nullptr ? Count + 1 : Count)) < 0)
        cmd_answer_not_supported(failure, response);
}

void bridge_cmd_set_spectrum_analyzer(converter_ctx *ctx, json_object *params, json_object **response)
{
    write_numbers(ctx, ANALYZER_NUMBERS, nullptr, params, "failed to set spectrum analyzer properties",
                  response);
}

/* ---- samples ---- */

/* Signed 32-bit numbers, least significant byte first; what is left over at the end is no sample. */
static int add_samples(const uint8_t *blob, size_t size, const char *failure, json_object *samples)
{
    for (size_t at = 0; at + sizeof(int32_t) <= size; at += sizeof(int32_t)) {
        const uint32_t bits = uint32_t{blob[at]} | uint32_t{blob[at + 1]} << 8 |
                              uint32_t{blob[at + 2]} << 16 | uint32_t{blob[at + 3]} << 24;
        json_object *sample = json_object_new_int64(static_cast<int32_t>(bits));
        if (sample == nullptr || json_object_array_add(samples, sample) < 0) {
            BRIDGE_ERROR("%s", failure);
            json_object_put(sample);
            return -1;
        }
    }
    return 0;
}

static void answer_analyzer(double offset, const uint8_t *blob, size_t size, json_object **response)
{
    json_owned answer(json_object_new_object());
    if (!answer) {
        BRIDGE_ERROR("failed to allocate response object");
        return;
    }
    json_object *dbm = json_object_new_double(offset);
    if (dbm == nullptr) {
        BRIDGE_ERROR("failed to create DBM object");
        return;
    }
    json_object_object_add(answer.get(), "dbm2dbfsOffset", dbm);
    json_object *samples = json_object_new_array();
    if (samples == nullptr) {
        BRIDGE_ERROR("failed to allocate array JSON");
        return;
    }
    json_object_object_add(answer.get(), "data", samples);
    if (add_samples(blob, size, "unable to allocate value object", samples) == 0)
        *response = answer.release();
}

void bridge_cmd_get_spectrum_analyzer(converter_ctx *ctx, json_object *params, json_object **response)
{
    json_object *antenna = nullptr;
    if (!json_object_object_get_ex(params, "antenna", &antenna) ||
        !json_object_is_type(antenna, json_type_int)) {
        BRIDGE_ERROR("invalid JSON passed");
        return;
    }
    if (bridge_snmp_set_property(ctx, "utilSpectrumAnalyzerAntenna.0", json_object_get_string(antenna), 0) <
        0) {
        BRIDGE_ERROR("failed to set properties for antenna");
        return;
    }
    double offset = 0;
    if (bridge_snmp_get_dbm_offt(ctx, static_cast<uint32_t>(json_object_get_int64(antenna)), &offset) < 0) {
        BRIDGE_ERROR("failed to get dbm offset");
        return;
    }
    char blob[ANALYZER_BLOB_SIZE];
    size_t size = sizeof(blob);
    if (bridge_snmp_get_property_str(ctx, "utilSpectrumAnalyzerOutputBlob.0", blob, &size, 0) < 0) {
        cmd_answer_not_supported("failed to get analyzer blob", response);
        return;
    }
    answer_analyzer(offset, reinterpret_cast<const uint8_t *>(blob), size, response);
}

/* ---- spectral scan ---- */

void bridge_cmd_execute_spectral_scan(converter_ctx *ctx, json_object *params, json_object **response)
{
    write_numbers(ctx, SCAN_NUMBERS, "utilSpectralScanExecute.0", params,
                  "failed to set spectral scan properties", response);
}

static constexpr cmd_field_row ANTENNAS[] = {
    {"numofAntennas.0", "antennasCount"},
};

void bridge_cmd_get_antennas_count(converter_ctx *ctx, json_object *, json_object **response)
{
    cmd_answer_fields(ctx, ANTENNAS, PROP_TYPE_INT, "failed to get antenna properties", -EOPNOTSUPP,
                      response);
}

void bridge_cmd_get_scan_progress(converter_ctx *ctx, json_object *, json_object **response)
{
    long progress = 0;
    if (bridge_snmp_get_property_int(ctx, "utilSpectralScanProgress.0", &progress, 0) < 0) {
        BRIDGE_ERROR("failed to get spectral scan progress");
        return;
    }
    json_owned answer(json_object_new_object());
    if (!answer || cmd_add_number(answer.get(), "progress", progress) < 0) {
        cmd_answer_not_supported("failed to serialize progress counter", response);
        return;
    }
    *response = answer.release();
}

/* clang-format off */
static constexpr cmd_field_row SCAN_PARAMS[] = {
    {"utilSpectralScanAntenna.0",       "antenna"},
    {"utilSpectralScanSamplePeriod.0",  "samplePeriod"},
    {"utilSpectralScanNum125kChan.0",   "num125kChan"},
    {"utilSpectralScanStartFreq125k.0", "startFreq125k"},
    {"utilSpectralScanStepFreq125k.0",  "stepFreq125k"},
    {"utilSpectralScanNum500kChan.0",   "num500kChan"},
    {"utilSpectralScanStartFreq500k.0", "startFreq500k"},
    {"utilSpectralScanStepFreq500k.0",  "stepFreq500k"},
    {"radioPropertiesRxMin.0",          "minRx"},
    {"radioPropertiesRxMax.0",          "maxRx"},
};
/* clang-format on */

void bridge_cmd_get_scan_params(converter_ctx *ctx, json_object *, json_object **response)
{
    json_owned answer(json_object_new_object());
    if (!answer || cmd_read_fields(ctx, SCAN_PARAMS, PROP_TYPE_INT, answer.get()) < 0) {
        cmd_answer_not_supported("failed to get spectral scan properties", response);
        return;
    }
    *response = answer.release();
}

/* ---- results of a scan ---- */

struct scan_results {
    int64_t channels_125k;
    int64_t channels_500k;
    int64_t antenna;
};

static int read_scan(converter_ctx *ctx, scan_results *scan)
{
    const bridge_snmp_read_prop props[] = {
        {.oid = "utilSpectralScanNum125kChan.0", .buf = &scan->channels_125k, .type = PROP_TYPE_INT},
        {.oid = "utilSpectralScanNum500kChan.0", .buf = &scan->channels_500k, .type = PROP_TYPE_INT},
        {.oid = "utilSpectralScanAntenna.0", .buf = &scan->antenna, .type = PROP_TYPE_INT},
        {},
    };
    if (bridge_snmp_get_properties(ctx, props, 0) < 0)
        return -1;
    return scan->channels_125k < 0 || scan->channels_500k < 0 ? -1 : 0;
}

/* The blob must have exactly `size` bytes, and a longer one does not fit. */
static int read_scan_blob(converter_ctx *ctx, uint8_t *blob, size_t size)
{
    size_t actual = size;
    if (bridge_snmp_get_property_data(ctx, "utilSpectralScanResultsDataBlob.0", blob, &actual, 0) < 0) {
        BRIDGE_ERROR("failed to get blob");
        return -1;
    }
    if (actual != size) {
        BRIDGE_ERROR("invalid blob size, expected: [%zu], actual: [%zu]", size, actual);
        return -1;
    }
    if (actual % sizeof(int32_t) != 0) {
        BRIDGE_ERROR("blob size obtained: [%zu] is not divisible by 4", actual);
        return -1;
    }
    return 0;
}

static void answer_scan(double offset, const uint8_t *blob, size_t size, json_object **response)
{
    json_owned samples(json_object_new_array());
    if (!samples) {
        BRIDGE_ERROR("failed to create data array");
        return;
    }
    if (add_samples(blob, size, "failed to allocate sample object", samples.get()) < 0)
        return;
    json_owned answer(json_object_new_object());
    json_object *dbm = json_object_new_double(offset);
    if (!answer || dbm == nullptr) {
        BRIDGE_ERROR("failed to allocate response object");
        json_object_put(dbm);
        return;
    }
    json_object_object_add(answer.get(), "channelPowerBins", samples.release());
    json_object_object_add(answer.get(), "dbm2dbfsOffset", dbm);
    *response = answer.release();
}

void bridge_cmd_get_scan_results(converter_ctx *ctx, json_object *, json_object **response)
{
    scan_results scan = {};
    if (read_scan(ctx, &scan) < 0) {
        cmd_answer_not_supported("failed to get valid properties for of spectral scan", response);
        return;
    }
    double offset = 0;
    if (bridge_snmp_get_dbm_offt(ctx, static_cast<uint32_t>(scan.antenna), &offset) < 0) {
        BRIDGE_ERROR("failed to get dbm offset");
        return;
    }
    if (scan.channels_125k == 0 && scan.channels_500k == 0) {
        BRIDGE_WARN("channels count cannot be 0, aborting spectral scan");
        return;
    }
    const size_t channels = static_cast<size_t>(scan.channels_125k) + static_cast<size_t>(scan.channels_500k);
    const size_t size = channels * CHANNEL_SIZE;
    /* Zeroed: a value of a kind that is no text counts as read, and leaves the buffer as it is. A product
     * that no size holds fails here, too. */
    const std::unique_ptr<uint8_t, bridge_release<free>> blob(
        static_cast<uint8_t *>(calloc(channels, CHANNEL_SIZE)));
    if (!blob) {
        BRIDGE_ERROR("failed to allocate blob with size: [%zu]", size);
        return;
    }
    if (read_scan_blob(ctx, blob.get(), size) == 0)
        answer_scan(offset, blob.get(), size, response);
}
