#include "snmp_fixture.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <net-snmp/agent/net-snmp-agent-includes.h>

/* ---- once a process ---- */

/* Nothing of the host's set-up is read, and nothing is written outside a folder of the process's own. */
class gateway_of_the_process : public testing::Environment
{
    void SetUp() override
    {
        std::string pattern = testing::TempDir() + "bridge_snmp_XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder_ = pattern;
        for (const char *name : {"SNMPCONFPATH", "SNMP_PERSISTENT_DIR", "MIBDIRS"})
            setenv(name, folder_.c_str(), 1);
        setenv("MIBS", "", 1);
        ASSERT_TRUE(lab_gateway_start(folder_));
        init_snmp("snmpapp");
        ASSERT_GE(add_mibdir(LAB_MIBS), 0);
        read_all_mibs();
        init_agent("snvsnmptrap");
    }
    void TearDown() override
    {
        lab_gateway_stop();
        if (!folder_.empty())
            std::filesystem::remove_all(folder_);
    }

    std::string folder_;
};

[[maybe_unused]] static testing::Environment *const environment =
    testing::AddGlobalTestEnvironment(new gateway_of_the_process);

/* ---- sessions ---- */

void snmp_client_open(converter_ctx *ctx, const std::string &address)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    ASSERT_EQ(pthread_mutex_init(&ctx->mutex, &attributes), 0);
    pthread_mutexattr_destroy(&attributes);

    std::string community = "public";
    std::string peer = address;
    netsnmp_session session;
    snmp_sess_init(&session);
    session.version = SNMP_VERSION_2c;
    session.timeout = 3000000;
    session.peername = peer.data();
    session.community = reinterpret_cast<u_char *>(community.data());
    session.community_len = community.size();
    ctx->sess_handle = snmp_sess_open(&session);
    ASSERT_NE(ctx->sess_handle, nullptr);
    ctx->ss = snmp_sess_session(ctx->sess_handle);
    ASSERT_NE(ctx->ss, nullptr);
    ctx->snmp_ready = true;
}

void snmp_client_close(converter_ctx *ctx)
{
    const ctx_guard guard(ctx);
    if (ctx->sess_handle != nullptr)
        snmp_sess_close(ctx->sess_handle);
    ctx->sess_handle = nullptr;
    ctx->ss = nullptr;
    ctx->snmp_ready = false;
}

snmp_client::snmp_client()
{
    lab_gateway_forget();
    snmp_client_open(&ctx, lab_gateway_address());
}

snmp_client::~snmp_client()
{
    snmp_client_close(&ctx);
    pthread_mutex_destroy(&ctx.mutex);
}

std::string told(const log_view &log)
{
    std::string all;
    for (const std::string &line : log.lines_of({"ERROR", "WARN", "INFO", "DEBUG"}))
        all += join({all.empty() ? "" : "; ", line});
    return all;
}

std::string last_name(const converter_ctx &ctx)
{
    std::string name;
    for (size_t i = 0; i < ctx.last_oid_len; i++)
        name += join({i == 0 ? "" : ".", std::to_string(ctx.last_oid[i])});
    return name;
}

/* ---- answers ---- */

static const made_answer *answer_of_the_test;

made_answer::made_answer(uint8_t variable_type, std::string_view variable_bytes)
    : status(STAT_SUCCESS), type(variable_type), bytes(variable_bytes)
{
    answer_of_the_test = this;
}

made_answer::made_answer(int library_status) : status(library_status)
{
    answer_of_the_test = this;
}

made_answer::~made_answer()
{
    answer_of_the_test = nullptr;
}

static netsnmp_pdu *build_answer(const made_answer &made)
{
    auto *pdu = static_cast<netsnmp_pdu *>(calloc(1, sizeof(netsnmp_pdu)));
    oid name[MAX_OID_LEN] = {};
    size_t length = MAX_OID_LEN;
    snmp_parse_oid("moduleName.0", name, &length);
    netsnmp_variable_list *variable = snmp_pdu_add_variable(pdu, name, length, ASN_NULL, nullptr, 0);
    if (made.name_length != 0)
        variable->name_length = made.name_length;
    variable->type = made.type;
    variable->val.string = static_cast<u_char *>(malloc(made.bytes.size() + 1));
    memcpy(variable->val.string, made.bytes.data(), made.bytes.size());
    variable->val_len = made.bytes.size();
    return pdu;
}

/* The library owns the request from the call on. */
extern "C" int __real_snmp_sess_synch_response(void *handle, netsnmp_pdu *request, netsnmp_pdu **response);
extern "C" int __wrap_snmp_sess_synch_response(void *handle, netsnmp_pdu *request, netsnmp_pdu **response)
{
    if (answer_of_the_test == nullptr)
        return __real_snmp_sess_synch_response(handle, request, response);
    snmp_free_pdu(request);
    if (answer_of_the_test->status == STAT_SUCCESS)
        *response = build_answer(*answer_of_the_test);
    return answer_of_the_test->status;
}

/* ---- failing calls ---- */

static const char *failing_name = "";
static int calls_before_failure = 0;

failing_call::failing_call(const char *name, int successes_before)
{
    failing_name = name;
    calls_before_failure = successes_before;
}

failing_call::~failing_call()
{
    failing_name = "";
}

static const char *observed_name = "";
static std::function<void()> before_observed;

observed_call::observed_call(const char *name, std::function<void()> before)
{
    observed_name = name;
    before_observed = std::move(before);
}

observed_call::~observed_call()
{
    observed_name = "";
    before_observed = nullptr;
}

static bool strikes(const char *name)
{
    if (strcmp(observed_name, name) == 0)
        before_observed();
    return strcmp(failing_name, name) == 0 && calls_before_failure-- == 0;
}

#define FAILING_CALL(type, name, parameters, arguments)                                                      \
    extern "C" type *__real_##name parameters;                                                               \
    extern "C" type *__wrap_##name parameters                                                                \
    {                                                                                                        \
        return strikes(#name) ? nullptr : __real_##name arguments;                                           \
    }

FAILING_CALL(netsnmp_pdu, snmp_pdu_create, (int command), (command))
FAILING_CALL(json_object, json_object_new_array, (), ())
FAILING_CALL(json_object, json_object_new_object, (), ())
FAILING_CALL(json_object, json_object_new_int64, (int64_t value), (value))
FAILING_CALL(json_object, json_object_new_string, (const char *text), (text))
