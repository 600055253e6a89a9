#include "control/control_neighbours.h"

#include "common/bridge_wait.h"
#include "converter/control/bridge_snmp.h"
#include "converter/control/bridge_snmp_helpers.h"

#include <cstring>
#include <json-c/json.h>

agent_script agent;
wait_record waits;
told_record supervisor;

/* ---- the agent ---- */

void agent_script::reset()
{
    const std::lock_guard guard(mutex_);
    numbers_.clear();
    texts_.clear();
    tables_.clear();
    calls_.clear();
    failing_.clear();
    leaves_errno = 0;
    loud = false;
}

void agent_script::numbers(const std::string &object, std::deque<long> values)
{
    const std::lock_guard guard(mutex_);
    numbers_[object] = std::move(values);
}

void agent_script::text(const std::string &object, const std::string &value)
{
    const std::lock_guard guard(mutex_);
    texts_[object] = value;
}

void agent_script::table(const std::string &column, const std::string &json)
{
    const std::lock_guard guard(mutex_);
    tables_[column] = json;
}

void agent_script::fail(const std::string &start, int after)
{
    const std::lock_guard guard(mutex_);
    failing_ = start;
    after_ = after;
}

void agent_script::let_pass()
{
    const std::lock_guard guard(mutex_);
    failing_.clear();
}

std::vector<std::string> agent_script::calls()
{
    const std::lock_guard guard(mutex_);
    return calls_;
}

long agent_script::count(const std::string &call)
{
    const std::vector<std::string> all = calls();
    return std::count(all.begin(), all.end(), call);
}

int agent_script::note(const std::string &call)
{
    const std::lock_guard guard(mutex_);
    calls_.push_back(call);
    if (loud)
        fprintf(stderr, "%s\n", call.c_str());
    if (leaves_errno != 0)
        errno = leaves_errno;
    return !failing_.empty() && call.starts_with(failing_) && after_-- <= 0 ? -1 : 0;
}

long agent_script::next_number(const std::string &object)
{
    const std::lock_guard guard(mutex_);
    std::deque<long> &values = numbers_[object];
    if (values.empty())
        return 0;
    const long value = values.front();
    if (values.size() > 1)
        values.pop_front();
    return value;
}

int agent_script::copy_text(const std::string &object, char *buffer, size_t size)
{
    const std::lock_guard guard(mutex_);
    const std::string &value = texts_[object];
    if (value.size() >= size)
        return -1;
    memcpy(buffer, value.c_str(), value.size() + 1);
    return 0;
}

std::string agent_script::rows_of(const std::string &column)
{
    const std::lock_guard guard(mutex_);
    const auto found = tables_.find(column);
    return found != tables_.end() ? found->second : "[]";
}

static std::string limit(uint32_t timeout_ms)
{
    return timeout_ms == 0 ? "" : " within " + std::to_string(timeout_ms);
}

static int fill(const bridge_snmp_read_prop &prop)
{
    if (prop.type == PROP_TYPE_STRING || prop.type == PROP_TYPE_IPADDR)
        return agent.copy_text(prop.oid, static_cast<char *>(prop.buf), prop.buf_sz);
    if (prop.type == PROP_TYPE_JSON)
        return json_object_object_add(static_cast<json_object *>(prop.buf), prop.field_name,
                                      json_object_new_int64(agent.next_number(prop.oid)));
    EXPECT_EQ(prop.type, PROP_TYPE_INT) << prop.oid;
    *static_cast<int64_t *>(prop.buf) = agent.next_number(prop.oid);
    return 0;
}

int bridge_snmp_get_properties(converter_ctx *, const bridge_snmp_read_prop *props, uint32_t timeout_ms)
{
    std::string call = "get";
    for (const bridge_snmp_read_prop *prop = props; prop->oid != nullptr; prop++)
        call += join({" ", prop->oid});
    if (agent.note(call + limit(timeout_ms)) < 0)
        return -1;
    for (const bridge_snmp_read_prop *prop = props; prop->oid != nullptr; prop++) {
        if (fill(*prop) < 0)
            return -1;
    }
    return 0;
}

int bridge_snmp_getnext_properties(converter_ctx *, const bridge_snmp_read_prop *, uint32_t)
{
    return agent.note("getnext");
}

int bridge_snmp_get_property_int(converter_ctx *, const char *oid_str, long *val, uint32_t timeout_ms)
{
    if (agent.note(join({"int ", oid_str, limit(timeout_ms)})) < 0)
        return -1;
    *val = agent.next_number(oid_str);
    return 0;
}

int bridge_snmp_get_property_double(converter_ctx *, const char *oid_str, double *, uint32_t)
{
    return agent.note(join({"double ", oid_str}));
}

int bridge_snmp_get_property_str(converter_ctx *, const char *oid_str, char *buf, size_t *buf_sz,
                                 uint32_t timeout_ms)
{
    if (agent.note(join({"text ", oid_str, " ", std::to_string(*buf_sz), limit(timeout_ms)})) < 0)
        return -1;
    return agent.copy_text(oid_str, buf, *buf_sz);
}

int bridge_snmp_get_property_data(converter_ctx *, const char *oid_str, uint8_t *, size_t *, uint32_t)
{
    return agent.note(join({"data ", oid_str}));
}

int bridge_snmp_get_property_ipaddr(converter_ctx *, const char *oid_str, char *, size_t *, uint32_t)
{
    return agent.note(join({"address ", oid_str}));
}

int bridge_snmp_get_property_pretty(converter_ctx *, const char *oid_str, char *, size_t *, uint32_t)
{
    return agent.note(join({"pretty ", oid_str}));
}

int bridge_snmp_set_property(converter_ctx *, const char *oid_str, const char *value, uint32_t timeout_ms)
{
    return agent.note(join({"set ", oid_str, "=", value, limit(timeout_ms)}));
}

/* A field as "key:hint", with "?" when it may be absent. */
static std::string value_of(const bridge_snmp_write_prop &prop)
{
    switch (prop.type) {
    case PROP_TYPE_STRING:
        return static_cast<const char *>(prop.value);
    case PROP_TYPE_INT:
        return "int:" + std::to_string(*static_cast<const int64_t *>(prop.value));
    case PROP_TYPE_BOOL:
        return "bool:" + std::to_string(*static_cast<const bool *>(prop.value) ? 1 : 0);
    case PROP_TYPE_JSON:
        return join({prop.field_name, ":", std::to_string(prop.hint), prop.optional ? "?" : ""});
    default:
        return "type " + std::to_string(prop.type);
    }
}

int bridge_snmp_set_properties(converter_ctx *, const bridge_snmp_write_prop *props, uint32_t timeout_ms)
{
    std::string call = "set";
    for (const bridge_snmp_write_prop *prop = props; prop->oid != nullptr; prop++) {
        call += join({" ", prop->oid, "=", value_of(*prop)});
    }
    return agent.note(call + limit(timeout_ms));
}

static int give_table(const char *kind, const bridge_snmp_column *mapping, const char *key, json_object **out)
{
    std::string call = kind;
    for (const bridge_snmp_column *column = mapping; column->field_name != nullptr; column++)
        call += join({" ", column->field_name, "=", column->oid, ":", std::to_string(column->hint)});
    if (key != nullptr)
        call += join({" by ", key});
    if (agent.note(call) < 0)
        return -1;
    *out = json_tokener_parse(agent.rows_of(mapping->oid).c_str());
    return 0;
}

int bridge_snmp_get_table_as_json(converter_ctx *, const bridge_snmp_column *mapping, const char *count_oid,
                                  json_object **out)
{
    return give_table("table", mapping, count_oid, out);
}

int bridge_snmp_get_exact_table_as_json(converter_ctx *, const bridge_snmp_column *mapping,
                                        const char *idx_key, json_object **out)
{
    return give_table("rows", mapping, idx_key, out);
}

int bridge_snmp_set_exact_table_from_json(converter_ctx *, const bridge_snmp_column *mapping, json_object *)
{
    return agent.note(join({"write rows ", mapping->oid}));
}

int bridge_snmp_get_dbm_offt(converter_ctx *, uint32_t, double *)
{
    return agent.note("offset");
}

/* ---- waits ---- */

void wait_record::reset()
{
    const std::lock_guard guard(mutex_);
    waits_.clear();
    within = nullptr;
}

std::vector<std::string> wait_record::taken()
{
    const std::lock_guard guard(mutex_);
    return std::exchange(waits_, {});
}

void wait_record::note(const std::string &wait)
{
    {
        const std::lock_guard guard(mutex_);
        waits_.push_back(wait);
    }
    if (within)
        within();
}

void bridge_wait_s(uint32_t seconds)
{
    waits.note(std::to_string(seconds) + " s");
}

void bridge_wait_ms(uint32_t milliseconds)
{
    waits.note(std::to_string(milliseconds) + " ms");
}

void bridge_wait_us(uint32_t microseconds)
{
    waits.note(std::to_string(microseconds) + " us");
}

/* ---- the supervisor ---- */

void told_record::reset()
{
    const std::lock_guard guard(mutex_);
    told_.clear();
}

std::vector<std::pair<int32_t, void *>> told_record::taken()
{
    const std::lock_guard guard(mutex_);
    return std::exchange(told_, {});
}

void told_record::handler(int32_t code, void *told_context)
{
    const std::lock_guard guard(supervisor.mutex_);
    supervisor.told_.emplace_back(code, told_context);
}

/* ---- fixture ---- */

temporary_root::temporary_root()
{
    std::string pattern = testing::TempDir() + "bridge_control_XXXXXX";
    EXPECT_NE(mkdtemp(pattern.data()), nullptr);
    path = pattern;
}

temporary_root::~temporary_root()
{
    std::filesystem::remove_all(path);
}

ControlTest::ControlTest()
{
    agent.reset();
    mqtt.reset();
    waits.reset();
    supervisor.reset();
    let_all_pass();
    configuration = {};
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&context.mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    context.user_handler = told_record::handler;
    context.user_handler_arg = &word;
    context.gw_mac = mac;
    context.ssh_pid = -1;
    context.stream_id = -1;
    context.fetch_id = -1;
    context.execute_id = -1;
    context.watch_pid = -1;
    context.fileops_async_pipe = -1;
    context.ctrl_running = true;
    context.ctx_inited = true;
    context.snmp_ready = true;
}

ControlTest::~ControlTest()
{
    let_all_pass();
    pthread_mutex_destroy(&context.mutex);
}

std::vector<std::string> ControlTest::published_on(const std::string &topic)
{
    std::vector<std::string> bodies;
    for (const published &each : mqtt.publishes()) {
        EXPECT_EQ(each.endpoint, BRIDGE_MQTT_EP_OAM);
        EXPECT_EQ(each.topic, topic);
        EXPECT_FALSE(each.retained);
        bodies.push_back(each.body);
    }
    return bodies;
}

std::string terminated(std::string text)
{
    return text.append(1, '\0');
}
