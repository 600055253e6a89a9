#include "fuzz_control.h"

#include "common/bridge_async_pipe.h"
#include "common/bridge_child.h"
#include "common/bridge_config.h"
#include "common/bridge_wait.h"
#include "converter/control/bridge_cmd_async.h"
#include "converter/control/bridge_ctrl_conv.h"
#include "converter/control/bridge_ctrl_ctx.h"
#include "fuzz.h"
#include "fuzz_agent.h"
#include "fuzz_choices.h"
#include "fuzz_confine.h"
#include "fuzz_world.h"
#include "mqtt/bridge_mqtt.h"
#include "thread_pool/thpool.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <strings.h>
#include <unistd.h>

static constexpr const char *MAC = "0016C001FF1A2B3C";

/* Waits of one run, after which a child is ended and the plane's end is begun. */
static constexpr int MOST_WAITS = 200;
static constexpr size_t MOST_LINES = 8;

struct subscription {
    std::string topic;
    bridge_mqtt_handler_t handler;
    void *context;
};

struct job {
    void (*function)(void *);
    void *arg;
};

fuzz_server_side fuzz_oam;
bool fuzz_text_needs_escapes;

static bridge_config_root config;
static converter_ctx *the_ctx;
static int waits;

/* Never destroyed: jobs of the start own what they were given. */
static auto &subscriptions = *new std::vector<subscription>;
static auto &jobs = *new std::deque<job>;
static auto &jobs_of_the_start = *new std::deque<job>;

/* ---- what stands in for the daemon's own ---- */

const bridge_config_root *bridge_config_get_root_checked()
{
    return &config;
}

int bridge_mqtt_connect(bridge_mqtt_endpoint_t)
{
    return 0;
}

int bridge_mqtt_disconnect(bridge_mqtt_endpoint_t)
{
    return 0;
}

int bridge_mqtt_publish(bridge_mqtt_endpoint_t endpoint, const char *topic, const void *payload,
                        uint32_t payload_size, bool retained)
{
    FUZZ_REQUIRE(endpoint == BRIDGE_MQTT_EP_OAM);
    fuzz_oam.reports.push_back({topic, {static_cast<const char *>(payload), payload_size}, retained});
    return fuzz_oam.publish_result;
}

int bridge_mqtt_subscribe(bridge_mqtt_endpoint_t, const char *const *topics, size_t count,
                          bridge_mqtt_handler_t handler, void *context)
{
    for (size_t i = 0; i < count; i++)
        subscriptions.push_back({topics[i], handler, context});
    return 0;
}

int bridge_mqtt_unsubscribe(bridge_mqtt_endpoint_t, const char *const *topics, uint32_t *count)
{
    std::erase_if(subscriptions, [&](const subscription &each) {
        return std::any_of(topics, topics + *count, [&](const char *topic) { return each.topic == topic; });
    });
    return 0;
}

/* The control plane only hands the pool on. */
thpool *thpool_init(int)
{
    static int place;
    return reinterpret_cast<thpool *>(&place);
}

int thpool_add_work(thpool *, void (*function)(void *), void *arg)
{
    jobs.push_back({function, arg});
    return 0;
}

void thpool_wait(thpool *)
{
}

void thpool_destroy(thpool *)
{
}

static void note_wait()
{
    if (++waits < MOST_WAITS)
        return;
    if (fuzz_world_is_child())
        throw fuzz_process_end{.tripped = false};
    the_ctx->ctrl_running = false;
}

void bridge_wait_s(uint32_t)
{
    note_wait();
}

void bridge_wait_ms(uint32_t)
{
    note_wait();
}

void bridge_wait_us(uint32_t)
{
    note_wait();
}

int bridge_async_pipe_send(const char *text)
{
    fuzz_oam.late_answers.emplace_back(text);
    return 0;
}

/* The fuzzer's own descriptors stay. */
int bridge_child_drop_descriptors(int kept)
{
    return kept >= 0 ? dup(kept) : -1;
}

/* ---- the plane ---- */

static void note_told(int32_t code, void *)
{
    fuzz_oam.told.push_back(code);
}

static void fill_config(uint32_t events_interval_s)
{
    strcpy(config.generic.gw_mac, MAC);
    strcpy(config.generic.state_dir, "/var/lib/sarnivel-mqtt-bridge");
    strcpy(config.snmp.agent_addr, "udp:127.0.0.1:161");
    strcpy(config.snmp.community, "public");
    strcpy(config.snmp.trap_transport, "udp:127.0.0.1:162");
    config.generic.gw_events_interval = events_interval_s;
    config.rev_ssh.local_port = 22;
    config.performance.battery_reporting_period_mins = 1;
    config.performance.battery_reporting_period_mins_set = true;
}

static void start_plane()
{
    FUZZ_REQUIRE(bridge_ctrlplane_init(MAC, note_told, nullptr) == 0);
    FUZZ_REQUIRE(bridge_ctrlplane_connect_agent(config.snmp.agent_addr, config.snmp.community, nullptr,
                                                config.snmp.trap_transport,
                                                config.generic.gw_events_interval) == 0);
    FUZZ_REQUIRE(bridge_snmp_connect_oam() == 0);
}

void fuzz_control_start(int argc, char **argv, uint32_t events_interval_s)
{
    fuzz_init_log();
    fuzz_confine(argc, argv, LAB_MIBS);
    fuzz_agent_init();
    setenv("HOME", "/root", 1);
    fuzz_world_make_folders();
    fill_config(events_interval_s);
    FUZZ_REQUIRE(fuzz_control_run(start_plane) == FUZZ_RETURNED);
    for (const subscription &each : subscriptions) {
        if (each.context != nullptr)
            the_ctx = static_cast<converter_ctx *>(each.context);
    }
    FUZZ_REQUIRE(the_ctx != nullptr);
    jobs_of_the_start.swap(jobs);
}

static void reset_ctx(converter_ctx *ctx)
{
    free(ctx->upload_chunk);
    ctx->upload_chunk = nullptr;
    ctx->upload_chunk_len = 0;
    memset(ctx->upload_name, 0, sizeof(ctx->upload_name));
    ctx->upload_is_modem_fw = false;
    ctx->wm_install_running = false;
    ctx->last_oid_len = 0;
    ctx->last_sw_cmd = 0;
    ctx->last_sw_req_id = 0;
    ctx->bsp_poll_running = false;
    for (std::atomic<int32_t> *id :
         {&ctx->ssh_pid, &ctx->stream_id, &ctx->fetch_id, &ctx->execute_id, &ctx->watch_pid})
        *id = -1;
    ctx->mqtt_ready = true;
    ctx->snmp_ready = true;
    ctx->ctrl_running = true;
    ctx->log_retrieval_running = false;
    ctx->reboot_pending = false;
    ctx->event_pending = false;
}

void fuzz_control_reset(const uint8_t *choices, size_t size)
{
    cmd_async_collect();
    reset_ctx(the_ctx);
    jobs.clear();
    fuzz_world_refill();
    fuzz_oam = {};
    fuzz_text_needs_escapes = false;
    waits = 0;
    fuzz_choices_set(choices, size);
}

converter_ctx *fuzz_control_ctx()
{
    return the_ctx;
}

void fuzz_note_text(const std::string &text)
{
    const auto needs_escape = [](char c) {
        return c == '"' || c == '\\' || static_cast<unsigned char>(c) < ' ';
    };
    fuzz_text_needs_escapes = fuzz_text_needs_escapes || std::any_of(text.begin(), text.end(), needs_escape);
}

/* What a child leaves to its end: its progress, and a session of its own, which has taken the daemon's place.
 */
static void clean_up_after_child()
{
    cmd_async_begin();
    bridge_ctrl_close_session(the_ctx);
    fuzz_world_close_left_open();
    the_ctx->snmp_ready = true;
    bridge_ctrl_reopen_session(the_ctx);
}

fuzz_end fuzz_control_run(const std::function<void()> &work)
{
    fuzz_world_enter();
    fuzz_end end = FUZZ_RETURNED;
    try {
        work();
    } catch (const fuzz_process_end &process) {
        end = process.tripped ? FUZZ_TRIPPED : FUZZ_EXITED;
    }
    if (fuzz_world_is_child())
        clean_up_after_child();
    fuzz_world_leave();
    return end;
}

static std::vector<subscription>::iterator find_subscription(const std::string &topic)
{
    return std::find_if(subscriptions.begin(), subscriptions.end(), [&](const subscription &each) {
        return strcasecmp(each.topic.c_str(), topic.c_str()) == 0;
    });
}

void fuzz_control_deliver(const std::string &topic, const std::string &text)
{
    const auto found = find_subscription(topic);
    if (found == subscriptions.end())
        return;
    const auto exact = fuzz_exact_copy(text.data(), text.size());
    found->handler(topic.c_str(), found->context, exact.get(), static_cast<uint32_t>(text.size()));
}

void fuzz_control_run_jobs()
{
    while (!jobs.empty()) {
        const job next = jobs.front();
        jobs.pop_front();
        next.function(next.arg);
    }
}

bool fuzz_control_is_subscribed(const std::string &topic)
{
    return find_subscription(topic) != subscriptions.end();
}

fuzz_parts fuzz_split(const uint8_t *data, size_t size)
{
    const uint8_t *end = std::find(data, data + size, 0);
    fuzz_parts parts = {};
    for (const uint8_t *start = data; start < end && parts.lines.size() < MOST_LINES;) {
        const uint8_t *line_end = std::find(start, end, '\n');
        parts.lines.emplace_back(start, line_end);
        start = line_end + 1;
    }
    parts.choices = end == data + size ? end : end + 1;
    parts.choices_size = static_cast<size_t>(data + size - parts.choices);
    return parts;
}

int fuzz_control_input(const uint8_t *data, size_t size, const std::function<void(const fuzz_parts &)> &work)
{
    const int descriptor = fuzz_free_descriptor();
    const fuzz_parts parts = fuzz_split(data, size);
    fuzz_control_reset(parts.choices, parts.choices_size);
    work(parts);
    FUZZ_REQUIRE(fuzz_free_descriptor() == descriptor);
    return 0;
}

int fuzz_control_service(const uint8_t *data, size_t size,
                         const std::function<void(const fuzz_parts &)> &work,
                         const std::function<void(const fuzz_report &)> &check,
                         const std::function<void()> &stop)
{
    return fuzz_control_input(data, size, [&](const fuzz_parts &parts) {
        work(parts);
        for (const fuzz_report &report : fuzz_oam.reports)
            check(report);
        FUZZ_REQUIRE(fuzz_oam.late_answers.empty());
        FUZZ_REQUIRE(fuzz_control_run(stop) == FUZZ_RETURNED);
    });
}

bool fuzz_is_terminated_json(const std::string &body)
{
    return !body.empty() && body.find('\0') == body.size() - 1 &&
           fuzz_is_json_object(body.substr(0, body.size() - 1));
}
