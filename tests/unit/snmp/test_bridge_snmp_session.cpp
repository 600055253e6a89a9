/* The session's timeout, the session that is not open, and threads that share a context. */
#include "converter/control/bridge_snmp.h"

#include "snmp_fixture.h"
#include "snmp_outcomes.h"

#include <atomic>
#include <functional>

static constexpr char NAME[] = "moduleName.0";
static constexpr char COUNT[] = "utilPingCount.0";

struct operation_row {
    const char *name;
    std::function<int(converter_ctx *, uint32_t timeout_ms)> run;
    const char *when_closed; /* what a closed session tells */
};

static int read_of_many(converter_ctx *ctx, uint32_t timeout_ms,
                        int (*read)(converter_ctx *, const bridge_snmp_read_prop *, uint32_t))
{
    read_target target(PROP_TYPE_JSON);
    const bridge_snmp_read_prop props[] = {target.record("moduleName"), {}};
    return read(ctx, props, timeout_ms);
}

template <typename Byte, int (*Read)(converter_ctx *, const char *, Byte *, size_t *, uint32_t)>
static int read_bytes(converter_ctx *ctx, uint32_t timeout_ms)
{
    Byte buffer[64];
    size_t size = sizeof(buffer);
    return Read(ctx, "networkPingIp.0", buffer, &size, timeout_ms);
}

/* Every operation, each of which succeeds on the objects of the fixture, save where told. */
static const operation_row operations[] = {
    {"int",
     [](converter_ctx *ctx, uint32_t timeout_ms) {
         long value = 0;
         return bridge_snmp_get_property_int(ctx, COUNT, &value, timeout_ms);
     },
     "-1; ERROR synch request failed"},
    {"str",
     [](converter_ctx *ctx, uint32_t timeout_ms) {
         char text[64];
         size_t size = sizeof(text);
         return bridge_snmp_get_property_str(ctx, NAME, text, &size, timeout_ms);
     },
     "-1; ERROR synch request failed"},
    {"data", read_bytes<uint8_t, bridge_snmp_get_property_data>, "-1; ERROR synch request failed"},
    {"ipaddr", read_bytes<char, bridge_snmp_get_property_ipaddr>,
     "-1; ERROR synch request failed; ERROR failed to get binary form of IP address"},
    {"pretty", read_bytes<char, bridge_snmp_get_property_pretty>, "-1; ERROR synch request failed"},
    {"getnext",
     [](converter_ctx *ctx, uint32_t timeout_ms) {
         return read_of_many(ctx, timeout_ms, bridge_snmp_getnext_properties);
     },
     "-1"},
    {"set",
     [](converter_ctx *ctx, uint32_t timeout_ms) {
         return bridge_snmp_set_property(ctx, COUNT, "1", timeout_ms);
     },
     "-1"},
    {"set many",
     [](converter_ctx *ctx, uint32_t timeout_ms) {
         const int64_t value = 3;
         const bridge_snmp_write_prop props[] = {{.oid = COUNT, .value = &value, .type = PROP_TYPE_INT}, {}};
         return bridge_snmp_set_properties(ctx, props, timeout_ms);
     },
     "-1"},
};

class snmp_session_of_client : public snmp_client
{
  protected:
    snmp_session_of_client()
    {
        lab_gateway_put(NAME, R"("x")");
        lab_gateway_put(COUNT, "1");
        lab_gateway_put("networkPingIp.0", R"("192.0.2.1")");
    }
};

TEST_F(snmp_session_of_client, TimeoutIsAtLeastThreeSecondsAndSetByEveryRequest)
{
    struct timeout_row {
        uint32_t timeout_ms;
        long microseconds;
    };
    const timeout_row rows[] = {
        {5000, 5000000}, {0, 3000000},    {60000, 60000000}, {1, 3000000},
        {3001, 3001000}, {2999, 3000000}, {4000, 4000000},   {3000, 3000000},
    };
    for (const operation_row &operation : operations) {
        for (const timeout_row &row : rows) {
            EXPECT_EQ(operation.run(&ctx, row.timeout_ms), 0) << operation.name;
            EXPECT_EQ(ctx.ss->timeout, row.microseconds) << operation.name << " " << row.timeout_ms;
        }
    }
    for (const timeout_row &row : rows) {
        EXPECT_EQ(read_of_many(&ctx, row.timeout_ms, bridge_snmp_get_properties), -1); /* no instance */
        EXPECT_EQ(ctx.ss->timeout, row.microseconds);
        double value = 0;
        EXPECT_EQ(bridge_snmp_get_property_double(&ctx, COUNT, &value, row.timeout_ms), -1); /* no float */
        EXPECT_EQ(ctx.ss->timeout, row.microseconds);
    }
}

TEST_F(snmp_session_of_client, RetriesStayTheLibrarysOwn)
{
    EXPECT_EQ(ctx.ss->retries, 5);
    for (const operation_row &operation : operations)
        EXPECT_EQ(operation.run(&ctx, 0), 0) << operation.name;
    EXPECT_EQ(ctx.ss->retries, 5);
}

TEST_F(snmp_session_of_client, ClosedSessionFailsAndAnOpenedOneServesAgain)
{
    snmp_client_close(&ctx);
    for (const operation_row &operation : operations) {
        const log_view from = log.from_here();
        const int result = operation.run(&ctx, 0);
        EXPECT_EQ(outcome(result, "done", from), operation.when_closed) << operation.name;
    }
    EXPECT_EQ(lab_gateway_requests(), std::vector<std::string>{});
    pthread_mutex_destroy(&ctx.mutex);
    snmp_client_open(&ctx, lab_gateway_address());
    for (const operation_row &operation : operations)
        EXPECT_EQ(operation.run(&ctx, 0), 0) << operation.name;
}

/* Between two stages of the start or the stop the session is there and the flag is not. */
TEST_F(snmp_session_of_client, WithoutTheReadyFlagOnlySingleReadsGoOut)
{
    ctx.snmp_ready = false;
    const log_view from = log.from_here();
    const int64_t value = 3;
    const bridge_snmp_write_prop write[] = {{.oid = COUNT, .value = &value, .type = PROP_TYPE_INT}, {}};
    EXPECT_EQ(read_of_many(&ctx, 5000, bridge_snmp_get_properties), -1);
    EXPECT_EQ(read_of_many(&ctx, 5000, bridge_snmp_getnext_properties), -1);
    EXPECT_EQ(bridge_snmp_set_properties(&ctx, write, 5000), -1);
    EXPECT_EQ(from.lines(), std::vector<std::string>{});
    EXPECT_EQ(bridge_snmp_set_property(&ctx, COUNT, "1", 5000), -1);
    EXPECT_EQ(told(from), "");
    EXPECT_EQ(ctx.ss->timeout, 3000000);
    EXPECT_EQ(lab_gateway_requests(), std::vector<std::string>{});
    long count = 0;
    EXPECT_EQ(bridge_snmp_get_property_int(&ctx, COUNT, &count, 0), 0);
    EXPECT_EQ(count, 1);
}

/* ---- threads ---- */

static constexpr int ROUNDS = 300;

TEST_F(snmp_session_of_client, ThreadsGetTheirOwnAnswers)
{
    std::atomic<int> wrong = 0;
    const auto numbers = [&] {
        for (int i = 0; i < ROUNDS; i++) {
            long value = 0;
            wrong += bridge_snmp_get_property_int(&ctx, COUNT, &value, 0) != 0 || value != 1;
        }
    };
    const auto texts = [&] {
        for (int i = 0; i < ROUNDS; i++) {
            read_target target(PROP_TYPE_STRING);
            const bridge_snmp_read_prop props[] = {target.record(NAME), {}};
            wrong += bridge_snmp_get_properties(&ctx, props, 0) != 0 || target.text() != "[x] 1";
        }
    };
    const auto writes = [&] {
        for (int i = 0; i < ROUNDS; i++)
            wrong += bridge_snmp_set_property(&ctx, "networkPingIp.0", "192.0.2.1", 0) != 0;
    };
    std::thread first(numbers);
    std::thread second(texts);
    std::thread third(writes);
    first.join();
    second.join();
    third.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(lab_gateway_requests().size(), 3U * ROUNDS);
}

/* The mutex is recursive: a thread that holds it reads on from its own last variable. */
TEST_F(snmp_session_of_client, SequenceUnderTheLockIsNotDisturbed)
{
    lab_gateway_put("wmEcio.0", "-7");
    lab_gateway_put("wmIo.0", "-64");
    std::atomic<bool> reading = false;
    std::atomic<bool> done = false;
    std::thread other([&] {
        while (!done) {
            long value = 0;
            EXPECT_EQ(bridge_snmp_get_property_int(&ctx, COUNT, &value, 0), 0);
            reading = true;
        }
    });
    EXPECT_TRUE(wait_until([&] { return reading.load(); }));
    int right = 0;
    for (int i = 0; i < ROUNDS; i++) {
        const ctx_guard guard(&ctx);
        long first = 0;
        long second = 0;
        bridge_snmp_get_property_int(&ctx, "wmEcio.0", &first, 0);
        bridge_snmp_get_property_int(&ctx, nullptr, &second, 0);
        right += first == -7 && second == -64;
    }
    done = true;
    other.join();
    EXPECT_EQ(right, ROUNDS);
}
