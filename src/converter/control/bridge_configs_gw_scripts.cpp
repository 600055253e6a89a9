/* The family of scripts, one row each, and the sections made of them. */
#include "converter/control/bridge_configs_gw_scripts.h"

#include "common/bridge_json_helpers.h"
#include "common/bridge_log.h"
#include "common/bridge_release.h"
#include "converter/control/bridge_configs_gw.h"
#include "converter/control/bridge_configs_script.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

static constexpr const char *IN_FILE = "/tmp/snv_cfg_in.json";
static constexpr const char *OUT_FILE = "/tmp/snv_cfg_out.json";

using stream_owned = std::unique_ptr<FILE, bridge_release<fclose>>;

struct cfg_direction_words {
    const char *starting;
    const char *not_extracted;
    const char *not_processed;
};

struct cfg_script {
    const char *path;
    int rounds; /* of five seconds */
    const char *not_opened;
    cfg_direction_words write;
    cfg_direction_words read;
};

/* clang-format off */
static constexpr cfg_script NETWORK_SERVER = {
    "/usr/sbin/mqtt/process-cfg-ns.sh", 60,
    "failed to open file for a new configuration",
    {"writing NS configuration",
     "failed to extract NS configuration response",
     "failed to process NS configuration response"},
    {"reading NS configuration",
     "failed to extract NS configuration response",
     "failed to process NS configuration response"},
};

static constexpr cfg_script FEED_URL = {
    "/usr/sbin/mqtt/process-cfg-us.sh", 5,
    "failed to open file for a new configuration",
    {"writing feed configuration",
     "failed to extract US configuration response",
     "failed to process US configuration response"},
    {"reading feed configuration",
     "failed to extract feed configuration response",
     "failed to process feed configuration response"},
};

static constexpr cfg_script SNMP_AGENT = {
    "/usr/sbin/mqtt/process-cfg-snmp.sh", 30,
    "failed to open file %s for a new configuration",
    {"writing SNMP configuration",
     "failed to extract SNMP configuration write response",
     "failed to process SNMP configuration write response"},
    {"reading SNMP configuration",
     "failed to extract SNMP configuration read response",
     "failed to process SNMP configuration read response"},
};

static constexpr cfg_script CONNECTIVITY_CHECK = {
    "/usr/sbin/mqtt/process-cfg-network-check.sh", 5,
    "failed to open file for a new configuration",
    {"writing connectivity check configuration",
     "failed to extract connectivity check configuration response",
     "failed to process connectivity check configuration response"},
    {"reading connectivity check configuration",
     "failed to extract connectivity check  configuration response",
     "failed to process connectivity check configuration response"},
};
/* clang-format on */

/* ---- run and collect ---- */

static int negative_errno()
{
    return errno > 0 ? -errno : -EIO;
}

static int hand_over(const cfg_script &script, json_object *cfg)
{
    const char *text = json_object_get_string(cfg);
    stream_owned file(fopen(IN_FILE, "w+e"));
    if (!file) {
        const int code = negative_errno();
        BRIDGE_ERROR(script.not_opened, IN_FILE);
        return code;
    }
    const size_t size = strlen(text);
    const bool is_whole = fwrite(text, 1, size, file.get()) == size;
    if (fclose(file.release()) != 0 || !is_whole) {
        const int code = negative_errno();
        BRIDGE_ERROR("failed to write new configuration");
        return code;
    }
    return 0;
}

/* Adds the keys of the script's answer. `result` is the answer for one without
 * keys. A script that wrote none leaves that of an earlier run standing, which
 * is taken for it. */
static int collect(const cfg_direction_words &words, int result, json_object *out)
{
    const json_owned answer(bridge_json_from_file(OUT_FILE));
    if (!answer) {
        BRIDGE_ERROR("%s", words.not_extracted);
        return -EIO;
    }
    if (!json_object_is_type(answer.get(), json_type_object))
        return result;
    json_object_object_foreach(answer.get(), key, value)
    {
        result = json_object_object_add(out, key, json_object_get(value));
        if (result < 0) {
            json_object_put(value);
            BRIDGE_ERROR("%s", words.not_processed);
            break;
        }
    }
    return result;
}

/* A script that takes longer than its rounds goes on, and what its file holds
 * by then is taken. */
static int write_by_script(const cfg_script &script, json_object *cfg, json_object *out)
{
    BRIDGE_DEBUG("%s", script.write.starting);
    int result = hand_over(script, cfg);
    if (result < 0)
        return result;
    const char *arguments[] = {"write", IN_FILE, OUT_FILE};
    result = cfg_run_script(script.path, arguments, script.rounds, false);
    return result < 0 ? result : collect(script.write, result, out);
}

static int read_by_script(const cfg_script &script, json_object *out)
{
    BRIDGE_DEBUG("%s", script.read.starting);
    const char *arguments[] = {"read", IN_FILE, OUT_FILE};
    const int result = cfg_run_script(script.path, arguments, script.rounds, true);
    if (result < 0)
        return result;
    if (result == 0) {
        BRIDGE_ERROR("child process wasn't completed in time");
        return -EIO;
    }
    return collect(script.read, result, out);
}

/* ---- sections ---- */

int bridge_configs_gw_ns_read(converter_ctx *, json_object *out)
{
    return read_by_script(NETWORK_SERVER, out);
}

int bridge_configs_gw_ns_write(converter_ctx *, json_object *cfg, json_object *out)
{
    return write_by_script(NETWORK_SERVER, cfg, out);
}

int bridge_configs_gw_snmp_read(converter_ctx *, json_object *out)
{
    return read_by_script(SNMP_AGENT, out);
}

int bridge_configs_gw_snmp_write(converter_ctx *, json_object *cfg, json_object *out)
{
    return write_by_script(SNMP_AGENT, cfg, out);
}

int cfg_connectivity_check_read(json_object *out)
{
    return read_by_script(CONNECTIVITY_CHECK, out);
}

int cfg_connectivity_check_write(json_object *cfg, json_object *out)
{
    return write_by_script(CONNECTIVITY_CHECK, cfg, out);
}

/* ---- upgrade server ---- */

static constexpr const char *FEED_NAME = "ipkFeedURL";

int bridge_configs_gw_us_write(converter_ctx *, json_object *cfg, json_object *out)
{
    BRIDGE_DEBUG("going over the upgrade configuration from the server");
    BRIDGE_TRACE("looking for %s upgrade subconfig...", FEED_NAME);
    json_object *wanted = nullptr;
    if (!json_object_object_get_ex(cfg, FEED_NAME, &wanted) || wanted == nullptr)
        return -EINVAL;
    BRIDGE_TRACE("subconfig was found for [%s]", FEED_NAME);
    json_owned reply(json_object_new_object());
    if (!reply) {
        BRIDGE_ERROR("failed to allocate memory for JSON response array");
        return -ENOMEM;
    }
    int result = write_by_script(FEED_URL, wanted, reply.get());
    json_object *answer = nullptr;
    if (result < 0) {
        BRIDGE_ERROR("failed upgrade config write for [%s]", FEED_NAME);
        cfg_status_reply(FEED_NAME, &result, "unable to write feed url info", &answer);
        if (answer == nullptr)
            return result;
    } else {
        BRIDGE_INFO("successfully wrote the feed info");
        answer = reply.release();
    }
    if (cfg_add(out, FEED_NAME, answer, "failed to add subconfig object to the response") < 0)
        return -EIO;
    return result == CFG_REPLY_FORMED ? 0 : result;
}

int bridge_configs_gw_us_read(converter_ctx *, json_object *out)
{
    BRIDGE_DEBUG("reading current upgrade configuration");
    BRIDGE_TRACE("looking for %s subconfig...", FEED_NAME);
    json_owned reply(json_object_new_object());
    if (!reply) {
        BRIDGE_ERROR("failed to allocate memory for JSON response array");
        return -ENOMEM;
    }
    int result = read_by_script(FEED_URL, reply.get());
    json_object *answer = nullptr;
    if (result < 0) {
        BRIDGE_ERROR("failed upgrade config read for [%s]", FEED_NAME);
        cfg_status_reply(FEED_NAME, &result, "unable to feed url info", &answer);
        if (answer == nullptr)
            return result;
    } else {
        BRIDGE_INFO("successfully read the feed info");
        answer = reply.release();
    }
    if (json_object_object_add(out, FEED_NAME, answer) < 0) {
        BRIDGE_ERROR("failed to add response to the subconfig object [%s]", FEED_NAME);
        json_object_put(answer);
        return -EIO;
    }
    return result == CFG_REPLY_FORMED ? 0 : result;
}
