/* Tables that are read by their count, and the antenna's offset. */
#include "converter/control/bridge_snmp_helpers.h"

#include "common/captured_stderr.h"
#include "snmp_fixture.h"
#include "snmp_outcomes.h"

#include <cerrno>

using requests = std::vector<std::string>;

static constexpr bridge_snmp_column UPGRADES[] = {
    {"name", "upgradableListComponentName", false, PROP_TYPE_STRING},
    {"old", "upgradableListComponentOldVersion", false, PROP_TYPE_STRING},
    {"new", "upgradableListComponentNewVersion", false, PROP_TYPE_STRING},
    {"special", "upgradableListComponentSpecial", false, PROP_TYPE_INT},
    {},
};

/* A row of the table with the number in its cells. */
static std::string upgrade(size_t number, std::string_view name)
{
    return join({R"({"upgradableListComponentName":)", name, R"(,"upgradableListComponentOldVersion":"old )",
                 std::to_string(number), R"(","upgradableListComponentNewVersion":"new )",
                 std::to_string(number), R"(","upgradableListComponentSpecial":)", std::to_string(number),
                 "}"});
}

static std::string upgrade_as_json(size_t number)
{
    const std::string text = std::to_string(number);
    return join({R"({"name":"n","old":"old )", text, R"(","new":"new )", text, R"(","special":)", text, "}"});
}

class snmp_counted_table : public snmp_client
{
  protected:
    void put(size_t rows, long count)
    {
        std::string all;
        for (size_t i = 1; i <= rows; i++)
            all += join({i > 1 ? "," : "", upgrade(i, R"("n")")});
        lab_gateway_put_rows("upgradableListTable", "[" + all + "]");
        lab_gateway_put("upgradableListCount.0", std::to_string(count));
        lab_gateway_clear_log();
    }

    static std::string expected(size_t rows)
    {
        std::string all;
        for (size_t i = 1; i <= rows; i++)
            all += join({i > 1 ? "," : "", upgrade_as_json(i)});
        return "[" + all + "]";
    }

    std::string read(const bridge_snmp_column *mapping = UPGRADES,
                     const char *count = "upgradableListCount.0")
    {
        const log_view from = log.from_here();
        json_object *out = nullptr;
        const int result = bridge_snmp_get_table_as_json(&ctx, mapping, count, &out);
        const json_owned owned(out);
        EXPECT_TRUE(result >= 0 || out == nullptr);
        const char *text =
            out != nullptr ? json_object_to_json_string_ext(out, JSON_C_TO_STRING_PLAIN) : "nothing";
        return outcome(result, text, from);
    }
};

TEST_F(snmp_counted_table, CellsComeColumnByColumnInTheMappingsOrder)
{
    put(2, 2);
    EXPECT_EQ(read(), expected(2));
    EXPECT_EQ(lab_gateway_requests(), (requests{
                                          R"(get ["upgradableListCount.0"])",
                                          R"(getnext ["upgradableListCount.0"])",
                                          R"(getnext ["upgradableListComponentName.1"])",
                                          R"(getnext ["upgradableListComponentName.2"])",
                                          R"(getnext ["upgradableListComponentOldVersion.1"])",
                                          R"(getnext ["upgradableListComponentOldVersion.2"])",
                                          R"(getnext ["upgradableListComponentNewVersion.1"])",
                                          R"(getnext ["upgradableListComponentNewVersion.2"])",
                                          R"(getnext ["upgradableListComponentSpecial.1"])",
                                      }));
}

TEST_F(snmp_counted_table, AsManyRowsAsCounted)
{
    for (const size_t rows : {1, 3, 100}) {
        put(rows, static_cast<long>(rows));
        EXPECT_EQ(read(), expected(rows));
        EXPECT_EQ(lab_gateway_requests().size(), 1 + 4 * rows);
    }
    put(4, 3);
    lab_gateway_do(R"({"remove_rows":"upgradableListTable","index":3})");
    EXPECT_EQ(read(), join({"[", upgrade_as_json(1), ",", upgrade_as_json(2), ",", upgrade_as_json(4), "]"}))
        << "with a gap";
}

/* An agent may count any number of rows: memory is taken for those that come. */
TEST_F(snmp_counted_table, RowsAreMadeAsTheirFirstCellsCome)
{
    put(2, 50000);
    int made = 0;
    const observed_call call("json_object_new_object", [&] { made++; });
    EXPECT_EQ(read(),
              "-1; ERROR property of wrong type fetched. Should be OCTET STRING, was: 2; ERROR failed to "
              "get property");
    EXPECT_EQ(made, 6); /* by the texts of three columns */
}

TEST_F(snmp_counted_table, CountOfNoneReadsNoCell)
{
    put(2, 0);
    EXPECT_EQ(read(), "[]");
    EXPECT_EQ(lab_gateway_requests(), requests{R"(get ["upgradableListCount.0"])"});
}

TEST_F(snmp_counted_table, NegativeCountIsASuccessWithoutAnArray)
{
    put(2, -1);
    EXPECT_EQ(read(), "nothing; ERROR failed to get valid property");
    EXPECT_EQ(lab_gateway_requests().size(), 1U);
}

TEST_F(snmp_counted_table, CountThatCannotBeReadFails)
{
    put(1, 1);
    EXPECT_EQ(
        read(UPGRADES, "installableSwListCount.0"),
        "-1; ERROR No Such Object available on this agent at this OID; ERROR failed to get valid property");
    EXPECT_EQ(read(UPGRADES, "upgradableListCount.1"),
              "-1; DEBUG No Such Instance currently exists at this OID; ERROR failed to get valid property");
    EXPECT_EQ(read(UPGRADES, "nothingOfTheMib.0"),
              "-1; ERROR cannot parse OID: nothingOfTheMib.0; ERROR failed to get valid property");
    lab_gateway_put("upgradableListCount.0", R"({"type":"OCTET STRING","value":"1"})");
    EXPECT_EQ(read(), "-1; ERROR returned value is not integer; ERROR failed to get valid property");
}

TEST_F(snmp_counted_table, CellThatCannotBeReadFailsTheWholeCall)
{
    static constexpr char GET_FAILED[] = "; ERROR failed to get property";
    struct fault_row {
        const char *cell;
        const char *fault;
        const char *complaint;
    };
    const fault_row rows[] = {
        {"upgradableListComponentName.2", R"({"exception":"noSuchInstance"})",
         "DEBUG No Such Instance currently exists at this OID"},
        {"upgradableListComponentOldVersion.1", R"({"error":"genErr"})",
         "DEBUG error in packet: (genError) A general failure occured"},
        {"upgradableListComponentSpecial.3", R"({"exception":"endOfMibView"})",
         "ERROR No More Variables left in this MIB View (It is past the end of the MIB tree)"},
    };
    put(3, 3);
    for (const fault_row &row : rows) {
        lab_gateway_do(R"({"clear_faults":true})");
        lab_gateway_fault(row.cell, row.fault);
        EXPECT_EQ(read(), join({"-1; ", row.complaint, GET_FAILED})) << row.cell;
    }
}

TEST_F(snmp_counted_table, CellOfAnotherTypeFailsTheWholeCall)
{
    put(2, 2);
    lab_gateway_put("upgradableListComponentOldVersion.2", R"({"type":"INTEGER","value":5})");
    EXPECT_EQ(read(), "-1; ERROR property of wrong type fetched. Should be OCTET STRING, was: 2; "
                      "ERROR failed to get property");
    put(2, 2);
    lab_gateway_put("upgradableListComponentSpecial.1", R"({"type":"OCTET STRING","value":"5"})");
    EXPECT_EQ(read(), "-1; ERROR returned value is not integer; ERROR failed to get property");
    put(2, 3);
    EXPECT_EQ(read().substr(0, 2), "-1") << "more rows counted than there are";
}

TEST_F(snmp_counted_table, TextCellsHoldUpTo511Bytes)
{
    static constexpr bridge_snmp_column names[] = {
        {"name", "upgradableListComponentName", false, PROP_TYPE_STRING}, {}};
    put(1, 1);
    for (const int length : {0, 40, 511}) {
        lab_gateway_put("upgradableListComponentName.1",
                        join({R"({"fill":"x","length":)", std::to_string(length), "}"}));
        EXPECT_EQ(read(names),
                  join({R"([{"name":")", std::string(static_cast<size_t>(length), 'x'), R"("}])"}));
    }
    lab_gateway_put("upgradableListComponentName.1", R"({"fill":"x","length":512})");
    EXPECT_EQ(read(names), "-1; ERROR buffer with size [512] is too small for requested property; "
                           "ERROR failed to get property");
}

TEST_F(snmp_counted_table, FormsOtherThanNumberAndTextFailWithoutAWord)
{
    put(1, 1);
    for (const uint32_t hint : {0, 2, 3, 5, 6, 7}) {
        const bridge_snmp_column mapping[] = {
            {"name", "upgradableListComponentName", false, static_cast<bridge_prop_type>(hint)}, {}};
        EXPECT_EQ(read(mapping), "-1") << hint;
    }
}

TEST_F(snmp_counted_table, MappingWithoutColumnsGivesEmptyRows)
{
    static constexpr bridge_snmp_column none[] = {{}};
    put(2, 2);
    EXPECT_EQ(read(none), "[{},{}]");
    EXPECT_EQ(lab_gateway_requests().size(), 1U);
}

TEST_F(snmp_counted_table, WithoutMemoryItFails)
{
    put(2, 2);
    struct memory_row {
        const char *call;
        int successes;
        const char *expected;
    };
    const memory_row rows[] = {
        {"json_object_new_array", 0, "-1; ERROR failed to allocate object array"},
        {"json_object_new_object", 1, "-1; ERROR failed to create array object"},
        {"json_object_new_string", 3, "-1; ERROR failed to allocate data object"},
        {"json_object_new_int64", 0, "-1; ERROR failed to allocate data object"},
    };
    for (const memory_row &row : rows) {
        const failing_call call(row.call, row.successes);
        EXPECT_EQ(read(), row.expected) << row.call;
    }
    EXPECT_EQ(read(), expected(2));
}

TEST_F(snmp_counted_table, AgentThatFallsSilentFailsTheWholeCall)
{
    put(3, 3);
    ctx.ss->retries = 0; /* one timeout and not six */
    lab_gateway_fault("upgradableListComponentOldVersion.2", R"({"silent":true})");
    EXPECT_EQ(read(), "-1; ERROR no response from SNMP agent; ERROR failed to get property");
    EXPECT_EQ(lab_gateway_requests().back(), R"(getnext ["upgradableListComponentOldVersion.1"] silent)");
    lab_gateway_do(R"({"clear_faults":true})");
    EXPECT_EQ(read(), expected(3));
}

/* The position is the context's: no read of another thread may come between two cells. */
TEST_F(snmp_counted_table, ContextStaysLockedBetweenTheCells)
{
    put(2, 2);
    int looks = 0;
    int locked = 0;
    const observed_call call("json_object_new_string", [&] {
        std::thread other([&] {
            looks++;
            const int result = pthread_mutex_trylock(&ctx.mutex);
            locked += result == EBUSY;
            if (result == 0)
                pthread_mutex_unlock(&ctx.mutex);
        });
        other.join();
    });
    EXPECT_EQ(read(), expected(2));
    EXPECT_EQ(looks, 6); /* each text's field is made when its read is over */
    EXPECT_EQ(locked, looks);
    EXPECT_EQ(pthread_mutex_trylock(&ctx.mutex), 0);
    pthread_mutex_unlock(&ctx.mutex);
}

TEST_F(snmp_counted_table, MissingArgumentsAbort)
{
    json_object *out = nullptr;
    EXPECT_ASSERTION(bridge_snmp_get_table_as_json(nullptr, UPGRADES, "x", &out), "ctx");
    EXPECT_ASSERTION(bridge_snmp_get_table_as_json(&ctx, nullptr, "x", &out), "mapping");
    EXPECT_ASSERTION(bridge_snmp_get_table_as_json(&ctx, UPGRADES, "x", nullptr), "out");
}

/* ---- the antenna's offset ---- */

TEST_F(snmp_client, AntennaOffsetIsABigEndianSingle)
{
    struct offset_row {
        uint32_t antenna;
        const char *value; /* null: the object is not there */
        std::string expected;
    };
    static constexpr char FAILED[] = "ERROR failed to get DBFS offset";
    const std::string wrong_type = "-1; ERROR property of wrong type fetched. Should be OCTET STRING, was: ";
    const offset_row rows[] = {
        {0, R"({"hex":"c2bb0000"})", "-93.500000"},
        {1, R"({"float_be":-94.25})", "-94.250000"},
        {7, R"({"hex":"3dcccccd"})", "0.100000"},
        {0, R"({"hex":"00000000"})", "0.000000"},
        {0, R"({"hex":"c2bb00"})", join({"-1; ", FAILED})},
        {0, R"({"hex":"c2bb000000"})", join({"-1; ", FAILED})},
        {0, R"({"hex":""})", join({"-1; ", FAILED})},
        {0, R"({"hex":"c2bb0000000000"})", join({"-1; ", FAILED})},
        {0, R"({"hex":"c2bb000000000000"})",
         join({"-1; ERROR buffer with size [8] is too small for requested property; ", FAILED})},
        {0, R"({"type":"INTEGER","value":-93})", wrong_type + "2; " + FAILED},
        {3, nullptr, join({"-1; ERROR No Such Object available on this agent at this OID; ", FAILED})},
        {8, nullptr, join({"-1; ERROR cannot parse OID: radioRxDbfsToDbmAnt8.0; ", FAILED})},
        {UINT32_MAX, nullptr,
         join({"-1; ERROR cannot parse OID: radioRxDbfsToDbmAnt4294967295.0; ", FAILED})},
    };
    for (const offset_row &row : rows) {
        if (row.value != nullptr)
            lab_gateway_put(join({"radioRxDbfsToDbmAnt", std::to_string(row.antenna), ".0"}), row.value);
        const log_view from = log.from_here();
        double offset = 4711;
        const int result = bridge_snmp_get_dbm_offt(&ctx, row.antenna, &offset);
        EXPECT_EQ(outcome(result, std::to_string(offset), from), row.expected);
        EXPECT_EQ(result < 0, offset == 4711.0);
    }
    double exact = 0;
    lab_gateway_put("radioRxDbfsToDbmAnt0.0", R"({"hex":"3dcccccd"})");
    EXPECT_EQ(bridge_snmp_get_dbm_offt(&ctx, 0, &exact), 0);
    EXPECT_EQ(exact, static_cast<double>(0.1F));
}
