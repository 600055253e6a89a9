/* Writes of one object and of many, as the agent receives them. */
#include "converter/control/bridge_snmp.h"

#include "common/captured_stderr.h"
#include "snmp_fixture.h"
#include "snmp_outcomes.h"

using requests = std::vector<std::string>;

class snmp_writes : public snmp_client
{
  protected:
    snmp_writes()
    {
        lab_gateway_put("utilPingCount.0", "1");
        lab_gateway_put("utilPingDestination.0", R"("before")");
        lab_gateway_put("networkPingIp.0", R"("192.0.2.1")");
        lab_gateway_put("moduleName.0", R"("x")");
    }

    std::string set(const char *name, const char *value)
    {
        const log_view from = log.from_here();
        const int result = bridge_snmp_set_property(&ctx, name, value, 0);
        EXPECT_TRUE(
            from.has(join({"TRACE attempt to set property: [", name, "] with value: [", value, "]"})));
        return outcome(result, "done", from);
    }

    std::string set_many(const bridge_snmp_write_prop *props)
    {
        const log_view from = log.from_here();
        const int result = bridge_snmp_set_properties(&ctx, props, 0);
        return outcome(result, "done", from);
    }
};

/* ---- one ---- */

TEST_F(snmp_writes, ValueTakesTheTypeThatTheMibTells)
{
    struct value_row {
        const char *name;
        std::string value;
        std::string received;
    };
    const value_row rows[] = {
        {"utilPingCount.0", "12", R"(set [["utilPingCount.0",12]] done)"},
        {"utilPingCount.0", "-12", R"(set [["utilPingCount.0",-12]] done)"},
        {"utilPingCount.0", "2147483647", R"(set [["utilPingCount.0",2147483647]] done)"},
        {"utilPingDestination.0", "host.example", R"(set [["utilPingDestination.0","host.example"]] done)"},
        {"utilPingDestination.0", "12", R"(set [["utilPingDestination.0","12"]] done)"},
        {"utilPingDestination.0", "", R"(set [["utilPingDestination.0",""]] done)"},
        {"utilPingDestination.0", std::string(3000, 'x'),
         join({R"(set [["utilPingDestination.0",")", std::string(3000, 'x'), R"("]] done)"})},
        {"networkPingIp.0", "198.51.100.7", R"(set [["networkPingIp.0","198.51.100.7"]] done)"},
    };
    for (const value_row &row : rows) {
        lab_gateway_clear_log();
        EXPECT_EQ(set(row.name, row.value.c_str()), "done");
        EXPECT_EQ(lab_gateway_requests(), requests{row.received});
    }
}

TEST_F(snmp_writes, ValueThatCannotBeSentIsTold)
{
    EXPECT_EQ(set("utilPingCount.0", "many"),
              "-1; ERROR cannot add var to PDU: many error: Value out of range (many)");
    EXPECT_EQ(set("nothingOfTheMib.0", "1"), "-1; ERROR cannot parse OID");
    EXPECT_EQ(set("utilPingDestination.0", std::string(70000, 'x').c_str()),
              "-1; ERROR synch request failed");
    {
        const failing_call call("snmp_pdu_create");
        EXPECT_EQ(set("utilPingCount.0", "1"), "-1; ERROR cannot created PDU");
    }
    EXPECT_EQ(lab_gateway_requests(), requests{});
}

TEST_F(snmp_writes, RefusalOfTheAgentIsTold)
{
    struct refusal_row {
        const char *name;
        const char *value;
        const char *status;
    };
    const refusal_row rows[] = {
        {"moduleName.0", "y", "notWritable (That object does not support modification)"},
        {"moduleSerialNumber.0", "y",
         "noCreation (That table does not support row creation or that object can not ever be created)"},
        {"utilPingCount.1", "y",
         "noCreation (That table does not support row creation or that object can not "
         "ever be created)"},
    };
    for (const refusal_row &row : rows) {
        const bool is_number = strcmp(row.name, "utilPingCount.1") == 0;
        EXPECT_EQ(set(row.name, is_number ? "5" : row.value),
                  std::string("-1; ERROR error in packet: ") + row.status);
    }
    lab_gateway_put("utilPingDestination.0", R"({"type":"INTEGER","value":1})");
    EXPECT_EQ(set("utilPingDestination.0", "y"),
              "-1; ERROR error in packet: wrongType (The set datatype does not match the data type the agent "
              "expects)");
}

TEST_F(snmp_writes, EveryErrorStatusIsTold)
{
    static constexpr const char *names[] = {
        "tooBig",
        "noSuchName",
        "badValue",
        "readOnly",
        "genErr",
        "noAccess",
        "wrongType",
        "wrongLength",
        "wrongEncoding",
        "wrongValue",
        "noCreation",
        "inconsistentValue",
        "resourceUnavailable",
        "commitFailed",
        "undoFailed",
        "authorizationError",
        "notWritable",
        "inconsistentName",
    };
    for (int i = 0; i < static_cast<int>(std::size(names)); i++) {
        lab_gateway_fault("utilPingCount.0", join({R"({"on":"set","error":")", names[i], "\"}"}));
        EXPECT_EQ(set("utilPingCount.0", "5"),
                  std::string("-1; ERROR error in packet: ") + snmp_errstring(i + 1));
    }
}

TEST_F(snmp_writes, StatusesOfTheLibraryAreTold)
{
    const int64_t five = 5;
    const bridge_snmp_write_prop props[] = {{.oid = "utilPingCount.0", .value = &five, .type = PROP_TYPE_INT},
                                            {}};
    for (const int status : {STAT_TIMEOUT, STAT_ERROR}) {
        const made_answer answer(status);
        const char *expected = status == STAT_TIMEOUT ? "-1; ERROR no response from SNMP agent"
                                                      : "-1; ERROR synch request failed";
        EXPECT_EQ(set("utilPingCount.0", "5"), expected);
        EXPECT_EQ(set_many(props), expected);
    }
}

TEST_F(snmp_writes, MissingArgumentsAbort)
{
    EXPECT_ASSERTION(bridge_snmp_set_property(&ctx, nullptr, "1", 0), "oid_str");
    EXPECT_ASSERTION(bridge_snmp_set_property(&ctx, "utilPingCount.0", nullptr, 0), "value");
    EXPECT_ASSERTION(bridge_snmp_set_property(nullptr, "utilPingCount.0", "1", 0), "ctx && ctx->ss");
    netsnmp_session *session = ctx.ss;
    ctx.ss = nullptr;
    EXPECT_ASSERTION(bridge_snmp_set_property(&ctx, "utilPingCount.0", "1", 0), "ctx && ctx->ss");
    ctx.ss = session;
}

/* ---- many ---- */

TEST_F(snmp_writes, AllRecordsGoOutInOneRequest)
{
    const int64_t number = -7;
    const bool yes = true;
    const json_owned json(json_tokener_parse(R"({"address":"198.51.100.7","f":null})"));
    lab_gateway_put("utilPingExecute.0", "0");
    lab_gateway_put("packageToInstall.0", R"("x")");
    lab_gateway_put("packageToUpgrade.0", R"("x")");
    const bridge_snmp_write_prop props[] = {
        {.oid = "utilPingCount.0", .value = &number, .type = PROP_TYPE_INT},
        {.oid = "utilPingExecute.0", .value = &yes, .type = PROP_TYPE_BOOL},
        {.oid = "utilPingDestination.0", .value = "text", .type = PROP_TYPE_STRING},
        {.oid = "packageToInstall.0", .value = "data", .type = PROP_TYPE_DATA},
        {.oid = "networkPingIp.0",
         .field_name = "address",
         .value = json.get(),
         .type = PROP_TYPE_JSON,
         .hint = PROP_TYPE_STRING},
        {.oid = "lumoReset.0",
         .field_name = "absent",
         .optional = true,
         .value = json.get(),
         .type = PROP_TYPE_JSON,
         .hint = PROP_TYPE_INT},
        {.oid = "lumoReset.0",
         .field_name = "f",
         .optional = true,
         .value = json.get(),
         .type = PROP_TYPE_JSON,
         .hint = PROP_TYPE_INT},
        {.oid = "packageToUpgrade.0",
         .field_name = "f",
         .value = json.get(),
         .type = PROP_TYPE_JSON,
         .hint = PROP_TYPE_STRING},
        {},
    };
    EXPECT_EQ(set_many(props), "done");
    EXPECT_EQ(lab_gateway_requests(),
              requests{R"(set [["utilPingCount.0",-7],["utilPingExecute.0",1],)"
                       R"(["utilPingDestination.0","text"],["packageToInstall.0","data"],)"
                       R"(["networkPingIp.0","198.51.100.7"],["packageToUpgrade.0",""]] done)"});
}

TEST_F(snmp_writes, RecordThatCannotBeAddedSendsNothing)
{
    const int64_t number = 5;
    const json_owned json(json_tokener_parse(R"({"list":[]})"));
    struct bad_row {
        bridge_snmp_write_prop prop;
        const char *complaint;
    };
    const bad_row rows[] = {
        {{.oid = "nothingOfTheMib.0", .value = &number, .type = PROP_TYPE_INT}, "cannot parse OID"},
        {{.oid = "utilPingCount.0", .value = &number, .type = static_cast<bridge_prop_type>(8)},
         "unsupported conversion: 8"},
        {{.oid = "utilPingCount.0",
          .field_name = "f",
          .value = json.get(),
          .type = PROP_TYPE_JSON,
          .hint = PROP_TYPE_INT},
         "no such field: f"},
        {{.oid = "utilPingCount.0",
          .field_name = "list",
          .value = json.get(),
          .type = PROP_TYPE_JSON,
          .hint = PROP_TYPE_INT},
         "incorrect field type: 0x5"},
    };
    for (const bad_row &row : rows) {
        const bridge_snmp_write_prop props[] = {
            {.oid = "utilPingDestination.0", .value = "after", .type = PROP_TYPE_STRING}, row.prop, {}};
        EXPECT_EQ(set_many(props),
                  join({"-1; ERROR ", row.complaint, "; ERROR failed to add property to PDU"}));
    }
    EXPECT_EQ(lab_gateway_requests(), requests{});
}

TEST_F(snmp_writes, ManyThatTheAgentRefusesChangeNothing)
{
    const bridge_snmp_write_prop props[] = {
        {.oid = "utilPingDestination.0", .value = "after", .type = PROP_TYPE_STRING},
        {.oid = "moduleName.0", .value = "y", .type = PROP_TYPE_STRING},
        {},
    };
    EXPECT_EQ(set_many(props),
              "-1; ERROR error in packet: notWritable (That object does not support modification)");
    EXPECT_EQ(lab_gateway_requests(),
              requests{R"(set [["utilPingDestination.0","after"],["moduleName.0","y"]] refused)"});
    char text[16];
    size_t size = sizeof(text);
    EXPECT_EQ(bridge_snmp_get_property_str(&ctx, "utilPingDestination.0", text, &size, 0), 0);
    EXPECT_STREQ(text, "before");
}

TEST_F(snmp_writes, ManyThatCannotBeSentAreTold)
{
    const std::string long_text(70000, 'x');
    const bridge_snmp_write_prop too_long[] = {
        {.oid = "utilPingDestination.0", .value = long_text.c_str(), .type = PROP_TYPE_STRING}, {}};
    EXPECT_EQ(set_many(too_long), "-1; ERROR synch request failed");
    const failing_call call("snmp_pdu_create");
    EXPECT_EQ(set_many(too_long), "-1; ERROR cannot created PDU");
}

/* The agent gets a request that holds none of them. */
TEST_F(snmp_writes, SkippedFieldsAreNoFailure)
{
    const json_owned json(json_tokener_parse("{}"));
    const bridge_snmp_write_prop props[] = {{.oid = "utilPingCount.0",
                                             .field_name = "f",
                                             .optional = true,
                                             .value = json.get(),
                                             .type = PROP_TYPE_JSON,
                                             .hint = PROP_TYPE_INT},
                                            {}};
    EXPECT_EQ(set_many(props), "done");
    for (const std::string &request : lab_gateway_requests())
        EXPECT_TRUE(request.starts_with("set []")) << request;
}
