/* Downlinks of a Basics Station server, by the device's class. */
#include "bstn/bstn_messages.h"

#include "common/captured_stderr.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/* MHdr 60, DevAddr 26011bda, FCtrl 20, FCnt 5, port 1, payload aabb, MIC 04030201: 15 bytes. */
static constexpr std::string_view PDU = "60da1b012620050001aabb01020304";

/* A downlink; of keys that come twice the later one counts. */
static std::string downlink(std::string_view more)
{
    return join({R"({"msgtype":"dnmsg","DevEui":"00-16-c0-01-ff-10-ab-cd","dC":0,"diid":77,"pdu":")", PDU,
                 R"(","DR":"SF12BW125","Freq":869525000,"source":"ns-1")", more, "}"});
}

static translation down(std::string_view more)
{
    return translate(DIRECTION_DOWNLINK, 2, downlink(more));
}

static std::string txpk(std::string_view imme, std::string_view timing, std::string_view rctx = "0")
{
    return join({R"({"imme":)", imme,
                 R"(,"freq":869.525000,"rfch":0,"powe":27,"modu":"LORA","datr":"SF12BW125",)",
                 R"("codr":"4\/5","ipol":true,"size":15,"data":"YNobASYgBQABqrsBAgME","source":"ns-1",)",
                 R"("diid":77,"deveui":"00-16-c0-01-ff-10-ab-cd","rctx":)", rctx, ",", timing, "}"});
}

TEST(BstnDownlink, EachClassHasItsTiming)
{
    static constexpr struct {
        const char *name;
        std::string_view keys;
        std::string_view imme;
        std::string_view timing;
    } CASES[] = {
        {"class A", R"(,"xtime":5000000)", "false", R"("tmst":6000000)"},
        {"class A, delay", R"(,"xtime":5000000,"RxDelay":5)", "false", R"("tmst":10000000)"},
        {"class A, no delay", R"(,"xtime":5000000,"RxDelay":0)", "false", R"("tmst":5000000)"},
        {"class A, second window", R"(,"xtime":5000000,"RxDelay":5,"RX2DR":0,"RX2Freq":869525000)", "false",
         R"("tmst":11000000)"},
        {"class A, data rate of the second window alone", R"(,"xtime":5000000,"RX2DR":0)", "false",
         R"("tmst":6000000)"},
        {"class A, frequency of the second window alone", R"(,"xtime":5000000,"RX2Freq":869525000)", "false",
         R"("tmst":6000000)"},
        {"class A, second window of all bits set", R"(,"xtime":5000000,"RX2DR":-1,"RX2Freq":869525000)",
         "false", R"("tmst":6000000)"},
        {"class A, session in the clock", R"(,"xtime":11821949026847552)", "false", R"("tmst":6000000)"},
        {"class A, wrap", R"(,"xtime":4294967295)", "false", R"("tmst":999999)"},
        {"class A, wrap by the second window", R"(,"xtime":4293000000,"RX2DR":0,"RX2Freq":1)", "false",
         R"("tmst":32704)"},
        {"class B", R"(,"dC":1,"gpstime":1451606400123999)", "false", R"("tmms":1451606400123)"},
        {"class B, before the epoch", R"(,"dC":1,"gpstime":-1999)", "false", R"("tmms":-1)"},
        {"class B, second window", R"(,"dC":1,"gpstime":5000,"RxDelay":5,"RX2DR":0,"RX2Freq":1)", "false",
         R"("tmms":5)"},
        {"class C", R"(,"dC":2)", "true", R"("tmst":1000000)"},
        {"class C, time and delay", R"(,"dC":2,"xtime":11821949026847552,"RxDelay":2)", "true",
         R"("tmst":7000000)"},
        {"class C, second window", R"(,"dC":2,"xtime":5000000,"RX2DR":0,"RX2Freq":869525000)", "true",
         R"("tmst":6000000)"},
    };
    for (const auto &row : CASES) {
        SCOPED_TRACE(row.name);
        const translation done = down(row.keys);
        EXPECT_EQ(done.result, 0);
        EXPECT_EQ(done.json, txpk(row.imme, row.timing));
        EXPECT_THAT(done.log, IsEmpty());
        EXPECT_EQ(done.token, 0);
    }
}

TEST(BstnDownlink, ContextIsCarriedAndPriorityIsNot)
{
    EXPECT_EQ(down(R"(,"xtime":0,"rctx":-3,"priority":9)").json, txpk("false", R"("tmst":1000000)", "-3"));
}

TEST(BstnDownlink, TokenIsNotTouched)
{
    EXPECT_EQ(translate(DIRECTION_DOWNLINK, 2, downlink(R"(,"dC":2)"), 0xBEEF).token, 0xBEEF);
}

TEST(BstnDownlink, FrequencyIsMegahertzWithSixDigits)
{
    EXPECT_THAT(down(R"(,"dC":2,"Freq":868100000)").json, HasSubstr(R"("freq":868.100000,)"));
    EXPECT_THAT(down(R"(,"dC":2,"Freq":868100001)").json, HasSubstr(R"("freq":868.100001,)"));
    EXPECT_THAT(down(R"(,"dC":2,"Freq":0)").json, HasSubstr(R"("freq":0.000000,)"));
}

TEST(BstnDownlink, PduBecomesBase64)
{
    static const std::string LARGEST(510, 'f');
    static const struct {
        std::string_view pdu;
        std::string_view size;
        std::string data;
    } CASES[] = {
        {"", "0", ""},
        {"00", "1", "AA=="},
        {"FFfe", "2", R"(\/\/4=)"},
        {LARGEST, "255",
         [] {
             std::string text;
             for (int i = 0; i < 340; ++i)
                 text += "\\/";
             return text;
         }()},
    };
    for (const auto &row : CASES) {
        SCOPED_TRACE(row.pdu);
        const translation done = down(join({R"(,"dC":2,"pdu":")", row.pdu, "\""}));
        EXPECT_EQ(done.result, 0);
        EXPECT_THAT(done.json, HasSubstr(join({R"("size":)", row.size, R"(,"data":")", row.data, "\","})));
    }
}

TEST(BstnDownlink, PduThatIsNoPairsOfDigitsIsRefused)
{
    static const struct {
        std::string pdu;
        std::string_view complaint;
    } CASES[] = {
        {std::string(PDU) + "0", "ERROR input string length must be divisible by 2"},
        {std::string(511, 'f'), "ERROR input string length must be divisible by 2"},
        {"60zz", "ERROR failed to convert a byte to a hexstring at offset [2]"},
    };
    for (const auto &row : CASES) {
        const translation done = down(join({R"(,"dC":2,"pdu":")", row.pdu, "\""}));
        EXPECT_EQ(done.result, -1);
        EXPECT_EQ(done.json, "{}");
        EXPECT_THAT(done.log, ElementsAre(row.complaint));
    }
}

TEST(BstnDownlink, ClassThatDoesNotExistIsRefusedBeforeAnyConversion)
{
    static constexpr struct {
        std::string_view written;
        std::string_view logged;
    } CASES[] = {{"3", "3"}, {"-1", "4294967295"}, {"4294967296", "0"}, {"255", "255"}};
    for (const auto &row : CASES) {
        const translation done = down(join({R"(,"pdu":"odd","xtime":1,"dC":)", row.written}));
        EXPECT_EQ(done.result, -1);
        EXPECT_EQ(done.json, "{}");
        EXPECT_THAT(done.log, ElementsAre(join({"WARN invalid DC value received from BSTN: ", row.logged})));
    }
}

static translation down_without(std::string_view key, std::string_view more)
{
    const json_owned message(json_tokener_parse(downlink(more).c_str()));
    json_object_object_del(message.get(), std::string(key).c_str());
    return translate(DIRECTION_DOWNLINK, 2, json_object_to_json_string_ext(message.get(), 0));
}

TEST(BstnDownlink, MessageWithoutARequiredKeyIsRefused)
{
    for (std::string_view key : {"msgtype", "DevEui", "dC", "diid", "pdu", "DR", "Freq", "source"}) {
        SCOPED_TRACE(key);
        const translation done = down_without(key, R"(,"xtime":1)");
        EXPECT_EQ(done.result, -1);
        EXPECT_EQ(done.json, "{}");
        const json_owned message(json_tokener_parse(downlink(R"(,"xtime":1)").c_str()));
        json_object_object_del(message.get(), std::string(key).c_str());
        EXPECT_THAT(done.log,
                    ElementsAre("WARN unable to retrieve field",
                                join({"WARN failed to deserialize common part of the downlink packet: ",
                                      json_object_to_json_string_ext(message.get(), 0)})));
    }
}

TEST(BstnDownlink, ClassWithoutItsTimeIsRefused)
{
    for (std::string_view keys : {"", R"(,"dC":1)", R"(,"gpstime":1)", R"(,"dC":1,"xtime":1)"}) {
        SCOPED_TRACE(keys);
        const translation done = down(keys);
        EXPECT_EQ(done.result, -1);
        EXPECT_EQ(done.json, "{}");
        const json_owned message(json_tokener_parse(downlink(keys).c_str()));
        EXPECT_THAT(
            done.log,
            ElementsAre("WARN unable to retrieve field",
                        join({"WARN failed to deserialize class-specific part of the downlink packet: ",
                              json_object_to_json_string_ext(message.get(), 0)})));
    }
}

TEST(BstnDownlink, TextsHaveTheirLimits)
{
    static constexpr struct {
        std::string_view key;
        size_t limit;
    } CASES[] = {{"msgtype", 32}, {"DevEui", 64}, {"DR", 16}, {"source", 32}, {"pdu", 512}};
    for (const auto &row : CASES) {
        SCOPED_TRACE(row.key);
        const auto with = [&](size_t length) {
            return down(join({R"(,"dC":2,")", row.key, R"(":")", std::string(length, 'a'), "\""}));
        };
        /* The longest pdu is odd, which is another matter. */
        EXPECT_EQ(with(row.limit - 2).result, 0);
        EXPECT_THAT(with(row.limit - 1).log, testing::Not(Contains(HasSubstr("not enough space"))));
        EXPECT_EQ(with(row.limit).result, -1);
        EXPECT_EQ(with(row.limit).log.front(), "WARN not enough space for incoming string");
    }
}

TEST(BstnDownlink, Version1CarriesNone)
{
    for (std::string_view keys : {R"(,"xtime":1)", R"(,"dC":3)"}) {
        const translation done = translate(DIRECTION_DOWNLINK, 1, downlink(keys));
        EXPECT_EQ(done.result, -95);
        EXPECT_EQ(done.json, "{}");
        EXPECT_THAT(done.log, IsEmpty());
    }
    EXPECT_EQ(bridge_translate_downlink_bstn_v1_to_semtech_v1(nullptr, nullptr, nullptr), -95);
}

TEST(BstnDownlinkDeath, ArgumentsAreAsserted)
{
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    const json_owned obj(json_object_new_object());
    EXPECT_ASSERTION(bridge_translate_downlink_bstn_v1_to_semtech_v2(nullptr, obj.get(), nullptr),
                     "bstn != NULL");
    EXPECT_ASSERTION(bridge_translate_downlink_bstn_v1_to_semtech_v2(obj.get(), nullptr, nullptr),
                     "semtech != NULL");
}
