/* Tables that are read by an index column or by the numbers of their rows, and tables that are written. */
#include "converter/control/bridge_snmp_helpers.h"

#include "common/captured_stderr.h"
#include "snmp_fixture.h"
#include "snmp_outcomes.h"

#include <array>

using requests = std::vector<std::string>;

static constexpr bridge_snmp_column ADDRESSES[] = {
    {"address", "ipAdEntAddr", false, PROP_TYPE_IPADDR},
    {"interface", "ipAdEntIfIndex", false, PROP_TYPE_INT},
    {"mask", "ipAdEntNetMask", false, PROP_TYPE_IPADDR},
    {},
};

static constexpr bridge_snmp_column INTERFACES[] = {
    {"name", "ifDescr", false, PROP_TYPE_STRING},
    {},
};

static constexpr bridge_snmp_column APNS[] = {
    {"apn", "wmApn", false, PROP_TYPE_STRING},
    {"type", "wmApnConnectionType", false, PROP_TYPE_INT},
    {},
};

class snmp_exact_table : public snmp_client
{
  protected:
    std::string read(const bridge_snmp_column *mapping, const char *idx_key)
    {
        const log_view from = log.from_here();
        json_object *out = nullptr;
        const int result = bridge_snmp_get_exact_table_as_json(&ctx, mapping, idx_key, &out);
        const json_owned owned(out);
        EXPECT_EQ(result < 0, out == nullptr);
        if (result < 0)
            return outcome(result, "", from);
        EXPECT_EQ(result, 0);
        EXPECT_EQ(from.count("TRACE end of table is reached"), 1);
        EXPECT_TRUE(
            from.has(join({"TRACE got ", std::to_string(json_object_array_length(out)), " table values"})));
        return json_object_to_json_string_ext(out, JSON_C_TO_STRING_PLAIN);
    }

    /* Rows of ifTable at these indices, each with its own number as the index column's value. */
    static void put_interfaces(std::initializer_list<int> indices)
    {
        std::string rows;
        for (const int index : indices) {
            const std::string text = std::to_string(index);
            rows += join({rows.empty() ? "" : ",", R"({"index":)", text, R"(,"ifIndex":)", text,
                          R"(,"ifDescr":"if)", text, R"("})"});
        }
        lab_gateway_put_rows("ifTable", "[" + rows + "]");
        lab_gateway_clear_log();
    }

    static void put_apns(std::initializer_list<int> indices)
    {
        std::string rows;
        for (const int index : indices) {
            const std::string text = std::to_string(index);
            rows += join({rows.empty() ? "" : ",", R"({"index":)", text, R"(,"wmApn":"apn)", text,
                          R"(","wmApnConnectionType":)", text, "}"});
        }
        lab_gateway_put_rows("wmApnTable", "[" + rows + "]");
        lab_gateway_clear_log();
    }

    /* What the readers of APNs give. */
    static std::string apns(int count)
    {
        std::string rows;
        for (int i = 1; i <= count; i++) {
            const std::string text = std::to_string(i);
            rows += join({rows.empty() ? "" : ",", R"({"apn":"apn)", text, R"(","type":)", text, "}"});
        }
        return "[" + rows + "]";
    }
};

/* ---- by an index column ---- */

TEST_F(snmp_exact_table, AddressesAreTheIndexOfTheirRows)
{
    lab_gateway_put_rows(
        "ipAddrTable",
        R"([{"index":"192.0.2.1","ipAdEntAddr":"192.0.2.1","ipAdEntIfIndex":2,"ipAdEntNetMask":"255.255.255.0"},)"
        R"({"index":"10.0.0.255","ipAdEntAddr":"10.0.0.255","ipAdEntIfIndex":1,"ipAdEntNetMask":"255.0.0.0"},)"
        R"({"index":"255.255.255.255","ipAdEntAddr":"255.255.255.255","ipAdEntIfIndex":4,)"
        R"("ipAdEntNetMask":"0.0.0.0"}])");
    lab_gateway_clear_log();
    EXPECT_EQ(read(ADDRESSES, "ipAdEntAddr"),
              R"([{"address":"10.0.0.255","interface":1,"mask":"255.0.0.0"},)"
              R"({"address":"192.0.2.1","interface":2,"mask":"255.255.255.0"},)"
              R"({"address":"255.255.255.255","interface":4,"mask":"0.0.0.0"}])");
    const auto asked = [](const std::string &index) {
        return R"(getnext ["ipAdEntAddr)" + index + R"(","ipAdEntAddr)" + index + R"(","ipAdEntIfIndex)" +
               index + R"(","ipAdEntNetMask)" + index + R"("])";
    };
    EXPECT_EQ(lab_gateway_requests(),
              (requests{asked(""), asked(".10.0.0.255"), asked(".192.0.2.1"), asked(".255.255.255.255")}));
}

TEST_F(snmp_exact_table, IndexColumnMayHaveGaps)
{
    put_interfaces({1, 2, 4, 4000000});
    EXPECT_EQ(read(INTERFACES, "ifIndex"),
              R"([{"name":"if1"},{"name":"if2"},{"name":"if4"},{"name":"if4000000"}])");
}

TEST_F(snmp_exact_table, OneRowByItsIndexTakesTwoRequests)
{
    put_interfaces({7});
    EXPECT_EQ(read(INTERFACES, "ifIndex"), R"([{"name":"if7"}])");
    EXPECT_EQ(lab_gateway_requests(),
              (requests{R"(getnext ["ifIndex","ifDescr"])", R"(getnext ["ifIndex.7","ifDescr.7"])"}));
}

TEST_F(snmp_exact_table, EmptyTableIsAnEmptyArray)
{
    EXPECT_EQ(read(INTERFACES, "ifIndex"), "[]") << "nothing behind it";
    lab_gateway_put("moduleName.0", R"("x")");
    EXPECT_EQ(read(INTERFACES, "ifIndex"), "[]");
    EXPECT_EQ(read(APNS, nullptr), "[]");
    put_apns({2, 3});
    EXPECT_EQ(read(APNS, nullptr), "[]") << "without a first row";
}

TEST_F(snmp_exact_table, ManyRowsByTheirIndex)
{
    std::string rows, expected;
    for (int i = 1; i <= 200; i++) {
        const std::string text = std::to_string(i);
        rows += join({i > 1 ? "," : "", R"({"ifIndex":)", text, R"(,"ifDescr":"if)", text, R"("})"});
        expected += join({i > 1 ? "," : "", R"({"name":"if)", text, R"("})"});
    }
    lab_gateway_put_rows("ifTable", "[" + rows + "]");
    lab_gateway_clear_log();
    EXPECT_EQ(read(INTERFACES, "ifIndex"), "[" + expected + "]");
    EXPECT_EQ(lab_gateway_requests().size(), 201U);
}

TEST_F(snmp_exact_table, TableAtTheEndOfTheTreeEnds)
{
    static constexpr bridge_snmp_column faults[] = {
        {"severity", "hmFaultCurrentStateSeverity", false, PROP_TYPE_INT},
        {"state", "hmFaultCurrentStateState", false, PROP_TYPE_BOOL},
        {},
    };
    lab_gateway_put_rows("hmFaultCurrentStateTable",
                         R"([{"hmFaultCurrentStateId":1,"hmFaultCurrentStateSeverity":3,)"
                         R"("hmFaultCurrentStateState":1},{"hmFaultCurrentStateId":2,)"
                         R"("hmFaultCurrentStateSeverity":0,"hmFaultCurrentStateState":0}])");
    EXPECT_EQ(read(faults, "hmFaultCurrentStateId"),
              R"([{"severity":3,"state":true},{"severity":0,"state":false}])");
}

/* Only the index column has a root: a cell that is missing takes the value behind it. */
TEST_F(snmp_exact_table, ColumnsOwnPlaceIsNotChecked)
{
    put_interfaces({1, 2, 3});
    lab_gateway_remove("ifDescr.2");
    lab_gateway_put("moduleName.0", R"("behind")");
    EXPECT_EQ(read(INTERFACES, "ifIndex"), R"([{"name":"if1"},{"name":"if3"},{"name":"if3"}])");
    lab_gateway_remove("ifDescr.3");
    EXPECT_EQ(read(INTERFACES, "ifIndex"), R"([{"name":"if1"},{"name":"behind"},{"name":"behind"}])");
}

/* The value is the position of the next step: the same again would be asked for ever. */
TEST_F(snmp_exact_table, IndexThatDoesNotMoveOnEndsTheTable)
{
    put_interfaces({7, 9, 11});
    lab_gateway_put("ifIndex.9", "7");
    EXPECT_EQ(read(INTERFACES, "ifIndex"), R"([{"name":"if7"}])");
    /* Of this length it reads as empty, which is where the walk begins. */
    lab_gateway_put("ifIndex.7", R"({"type":"OCTET STRING","value":{"fill":"x","length":40}})");
    EXPECT_EQ(read(INTERFACES, "ifIndex"), "[]");
}

/* ---- by the rows' numbers ---- */

TEST_F(snmp_exact_table, NumberedRowsEndAtTheFirstGap)
{
    put_apns({1, 2, 4});
    EXPECT_EQ(read(APNS, nullptr), apns(2));
    EXPECT_EQ(lab_gateway_requests(), (requests{R"(get ["wmApn.1","wmApnConnectionType.1"])",
                                                R"(get ["wmApn.2","wmApnConnectionType.2"])",
                                                R"(get ["wmApn.3","wmApnConnectionType.3"])"}));
    put_apns({1});
    EXPECT_EQ(read(APNS, nullptr), apns(1));
    EXPECT_EQ(lab_gateway_requests().size(), 2U);
    put_apns({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
    EXPECT_EQ(read(APNS, nullptr), apns(11));
}

TEST_F(snmp_exact_table, MissingCellEndsNumberedRows)
{
    put_apns({1, 2, 3});
    lab_gateway_remove("wmApnConnectionType.2");
    EXPECT_EQ(read(APNS, nullptr), apns(1));
}

/* ---- failures in the middle ---- */

TEST_F(snmp_exact_table, FailureInTheMiddleIsTakenForTheEnd)
{
    static constexpr const char *FAULTS[] = {
        R"({"error":"genErr"})",
        R"({"exception":"noSuchInstance"})",
        R"({"exception":"endOfMibView"})",
    };
    for (const char *fault : FAULTS) {
        put_interfaces({1, 2, 3, 4});
        put_apns({1, 2, 3, 4});
        lab_gateway_fault("ifIndex.3", fault);
        lab_gateway_fault("wmApn.3", fault);
        EXPECT_EQ(read(INTERFACES, "ifIndex"), R"([{"name":"if1"},{"name":"if2"}])") << fault;
        EXPECT_EQ(read(APNS, nullptr), apns(2)) << fault;
    }
    lab_gateway_do(R"({"clear_faults":true})");
    lab_gateway_put("wmApn.3", R"({"type":"Counter64","value":1})");
    EXPECT_EQ(read(APNS, nullptr), apns(2)) << "a type that has no conversion";
}

TEST_F(snmp_exact_table, SilenceInTheMiddleIsTakenForTheEnd)
{
    put_interfaces({1, 2, 3, 4});
    put_apns({1, 2, 3, 4});
    ctx.ss->retries = 0; /* one timeout and not six */
    lab_gateway_fault("ifIndex.3", R"({"silent":true})");
    lab_gateway_fault("wmApn.3", R"({"silent":true})");
    const log_view from = log.from_here();
    EXPECT_EQ(read(INTERFACES, "ifIndex"), R"([{"name":"if1"},{"name":"if2"}])");
    EXPECT_EQ(read(APNS, nullptr), apns(2));
    EXPECT_EQ(from.count("ERROR no response from SNMP agent"), 2);
}

TEST_F(snmp_exact_table, ClosedSessionReadsAsAnEmptyTable)
{
    put_apns({1});
    snmp_client_close(&ctx);
    EXPECT_EQ(read(APNS, nullptr), "[]");
    EXPECT_EQ(read(INTERFACES, "ifIndex"), "[]");
}

TEST_F(snmp_exact_table, NamesThatDoNotFitFail)
{
    static constexpr char TOO_LONG[] = "-1; ERROR failed to prepare OID string";
    const auto mapping_of = [](const std::string &name) {
        return std::array<bridge_snmp_column, 2>{{{"name", name.c_str(), false, PROP_TYPE_STRING}, {}}};
    };
    /* The index column, a blank for its dot and the end of the text. */
    const std::string fits(254, 'x');
    const std::string too_long(255, 'x');
    EXPECT_EQ(read(INTERFACES, fits.c_str()), "[]");
    EXPECT_EQ(read(INTERFACES, too_long.c_str()), TOO_LONG);
    EXPECT_EQ(read(mapping_of(fits).data(), "ifIndex"), "[]");
    EXPECT_EQ(read(mapping_of(too_long).data(), "ifIndex"), TOO_LONG);
    /* And ".1". */
    const std::string fits_numbered(253, 'x');
    EXPECT_EQ(read(mapping_of(fits_numbered).data(), nullptr), "[]");
    EXPECT_EQ(read(mapping_of(fits).data(), nullptr), TOO_LONG);
}

TEST_F(snmp_exact_table, WithoutMemoryItFails)
{
    put_apns({1, 2});
    {
        const failing_call call("json_object_new_array");
        EXPECT_EQ(read(APNS, nullptr), "-1; ERROR failed to allocate object array");
    }
    for (const int rows : {0, 1}) {
        const failing_call call("json_object_new_object", rows);
        EXPECT_EQ(read(APNS, nullptr), "-1; ERROR failed to create array object");
    }
    EXPECT_EQ(read(APNS, nullptr), apns(2));
}

TEST_F(snmp_exact_table, MissingArgumentsAbort)
{
    json_object *out = nullptr;
    EXPECT_ASSERTION(bridge_snmp_get_exact_table_as_json(nullptr, APNS, nullptr, &out), "ctx");
    EXPECT_ASSERTION(bridge_snmp_get_exact_table_as_json(&ctx, nullptr, nullptr, &out), "mapping");
    EXPECT_ASSERTION(bridge_snmp_get_exact_table_as_json(&ctx, APNS, nullptr, nullptr), "out");
    const std::string too_long(256, 'x');
    EXPECT_ASSERTION(bridge_snmp_get_exact_table_as_json(&ctx, APNS, too_long.c_str(), &out),
                     "strlen(idx_key) < sizeof(row[0].oid_str)");
    const json_owned rows(json_object_new_array());
    EXPECT_ASSERTION(bridge_snmp_set_exact_table_from_json(nullptr, APNS, rows.get()), "ctx");
    EXPECT_ASSERTION(bridge_snmp_set_exact_table_from_json(&ctx, nullptr, rows.get()), "mapping");
    EXPECT_ASSERTION(bridge_snmp_set_exact_table_from_json(&ctx, APNS, nullptr), "arr");
}

/* ---- writing ---- */

static constexpr bridge_snmp_column WRITTEN[] = {
    {"apn", "wmApn", false, PROP_TYPE_STRING},
    {"type", "wmApnConnectionType", true, PROP_TYPE_INT},
    {},
};

class snmp_written_table : public snmp_exact_table
{
  protected:
    snmp_written_table()
    {
        put_apns({1, 2, 3});
    }

    std::string write(const bridge_snmp_column *mapping, const char *rows)
    {
        lab_gateway_clear_log();
        const log_view from = log.from_here();
        const json_owned array(json_tokener_parse(rows));
        const int result = bridge_snmp_set_exact_table_from_json(&ctx, mapping, array.get());
        return outcome(result, "done", from);
    }
};

TEST_F(snmp_written_table, EachRowIsOneRequestAtItsPosition)
{
    EXPECT_EQ(write(WRITTEN, R"([{"apn":"a","type":4},{"type":"5","apn":"b","more":1},{"apn":"c"}])"),
              "done");
    EXPECT_EQ(lab_gateway_requests(), (requests{R"(set [["wmApn.1","a"],["wmApnConnectionType.1",4]] done)",
                                                R"(set [["wmApn.2","b"],["wmApnConnectionType.2",5]] done)",
                                                R"(set [["wmApn.3","c"]] done)"}));
    EXPECT_EQ(read(APNS, nullptr), R"([{"apn":"a","type":4},{"apn":"b","type":5},{"apn":"c","type":3}])");
}

TEST_F(snmp_written_table, NullsAreEmptyTextsWhereRequiredAndSkippedWhereOptional)
{
    EXPECT_EQ(write(WRITTEN, R"([{"apn":null,"type":null}])"), "done");
    EXPECT_EQ(lab_gateway_requests(), requests{R"(set [["wmApn.1",""]] done)"});
}

TEST_F(snmp_written_table, NoRowsWriteNothing)
{
    EXPECT_EQ(write(WRITTEN, "[]"), "done");
    EXPECT_EQ(lab_gateway_requests(), requests{});
}

TEST_F(snmp_written_table, RowsBeforeAFailedOneStayWrittenAndThoseBehindAreNotTried)
{
    static constexpr char FAILED[] = "; ERROR failed to set table properties";
    static constexpr char NOT_ADDED[] = "; ERROR failed to add property to PDU; ERROR failed to set table "
                                        "properties";
    struct failed_row {
        const char *second;
        std::string expected;
        size_t requests;
    };
    const failed_row rows[] = {
        {R"({"type":5})", join({"-1; ERROR no such field: apn", NOT_ADDED}), 1},
        {R"({"apn":{}})", join({"-1; ERROR incorrect field type: 0x4", NOT_ADDED}), 1},
        {"null", join({"-1; ERROR no such field: apn", NOT_ADDED}), 1},
        {"7", join({"-1; ERROR no such field: apn", NOT_ADDED}), 1},
        {R"({"apn":"refused"})",
         join({"-1; ERROR error in packet: wrongValue (The set value is illegal or unsupported in some way)",
               FAILED}),
         2},
    };
    for (const failed_row &row : rows) {
        put_apns({1, 2, 3});
        lab_gateway_fault("wmApn.2", R"({"on":"set","error":"wrongValue"})");
        EXPECT_EQ(write(WRITTEN, join({R"([{"apn":"first"},)", row.second, R"(,{"apn":"third"}])"}).c_str()),
                  row.expected);
        EXPECT_EQ(lab_gateway_requests().size(), row.requests) << row.second;
        EXPECT_EQ(read(APNS, nullptr),
                  R"([{"apn":"first","type":1},{"apn":"apn2","type":2},{"apn":"apn3","type":3}])");
    }
}

TEST_F(snmp_written_table, RowThatTheAgentDoesNotHaveIsRefused)
{
    EXPECT_EQ(
        write(WRITTEN, R"([{"apn":"a"},{"apn":"b"},{"apn":"c"},{"apn":"d"}])"),
        "-1; ERROR error in packet: noCreation (That table does not support row creation or that object "
        "can not ever be created); ERROR failed to set table properties");
    EXPECT_EQ(lab_gateway_requests().size(), 4U);
}

TEST_F(snmp_written_table, NamesThatDoNotFitFail)
{
    const std::string fits(253, 'x');
    const std::string too_long(254, 'x');
    const bridge_snmp_column long_name[] = {{"apn", fits.c_str(), false, PROP_TYPE_STRING}, {}};
    const bridge_snmp_column longer_name[] = {{"apn", too_long.c_str(), false, PROP_TYPE_STRING}, {}};
    EXPECT_EQ(write(long_name, R"([{"apn":"a"}])"),
              "-1; ERROR cannot parse OID; ERROR failed to add property to PDU; ERROR failed to set table "
              "properties");
    EXPECT_EQ(write(longer_name, R"([{"apn":"a"}])"), "-1; ERROR failed to prepare OID string");
}

TEST_F(snmp_written_table, ClosedSessionWritesNothing)
{
    snmp_client_close(&ctx);
    EXPECT_EQ(write(WRITTEN, R"([{"apn":"a"}])"), "-1; ERROR failed to set table properties");
    EXPECT_EQ(write(WRITTEN, "[]"), "done");
}
