/* Uplinks for a Basics Station server: whole LoRaWAN frames, opened and published field by field. The frames
 * are as devices send them, with encrypted payloads and valid MICs; every field can be read off the
 * hexadecimal text. */
#include "bstn/bstn_messages.h"

#include "common/captured_stderr.h"

#include <cstdlib>
#include <ctime>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

static bool gmtime_fails = false;

extern "C" tm *__real_gmtime_r(const time_t *when, tm *result);
extern "C" tm *__wrap_gmtime_r(const time_t *when, tm *result)
{
    return gmtime_fails ? nullptr : __real_gmtime_r(when, result);
}

class BstnUplink : public testing::Test
{
  protected:
    void SetUp() override
    {
        gmtime_fails = false;
        bstn_xtime_base = SESSION + 2'000'000;
    }

    static translation uplink(uint32_t version, std::string_view message)
    {
        return translate(DIRECTION_UPLINK, version, message);
    }

    static translation frame(uint32_t version, std::string_view hex, std::string_view more = "")
    {
        return uplink(version, rxpk(version, base64(hex), more));
    }
};

class BstnUplinkDeath : public BstnUplink
{
};

/* What precedes the frame's own fields; 42 * 2^48 + 3000000 is the server's clock. */
static constexpr std::string_view V2_JOIN_HEAD =
    R"({"DR":"SF7BW125","Freq":868100000,"upinfo":{"rctx":0,"xtime":11821949024847552,"rxtime":1767323045,)"
    R"("gpstime":0,"rssi":-57,"snr":9.2,"chan":5},"msgtype":"jreq",)";
static constexpr std::string_view V2_DATA_HEAD =
    R"({"DR":"SF7BW125","Freq":868100000,"upinfo":{"rctx":0,"rxtime":1767323045,"xtime":11821949024847552,)"
    R"("gpstime":0,"rssi":-57,"snr":9.2,"chan":5},"msgtype":"updf",)";
static constexpr std::string_view V1_DATA_HEAD =
    R"({"DR":"SF7BW125","Freq":868100000,"rxInfo":{"rctx":0,"xtime":11821949024847552,)"
    R"("gpstime":0,"rssi":-57,"snr":9.2,"chan":5},"msgtype":"updf",)";

/* ---- join requests ---- */

/* MHdr 00, JoinEUI 70-b3-d5-7e-d0-00-00-01, DevEUI 00-16-c0-01-ff-10-ab-cd, DevNonce 1a2b, MIC 9748efc5. */
static constexpr std::string_view JOIN = "00010000d07ed5b370cdab10ff01c016002b1ac5ef4897";

TEST_F(BstnUplink, JoinRequestIsPublishedFieldByField)
{
    const translation done = uplink(2, rxpk(2, "AAEAANB+1bNwzasQ/wHAFgArGsXvSJc="));
    EXPECT_EQ(done.result, 0);
    EXPECT_EQ(done.json, join({V2_JOIN_HEAD, R"("MHdr":0,"JoinEui":"70-b3-d5-7e-d0-00-00-01",)",
                               R"("DevEui":"00-16-c0-01-ff-10-ab-cd","DevNonce":6699,"MIC":2538139589})"}));
    EXPECT_THAT(
        done.log,
        ElementsAre("TRACE join request received: [23] bytes",
                    "TRACE extracted dev EUI: 00-16-c0-01-ff-10-ab-cd join EUI: 70-b3-d5-7e-d0-00-00-01",
                    "TRACE extracted MHdr: 0 Nonce: 0x1a2b MIC: 0x9748efc5, xtime: 11821949024847552"));
}

TEST_F(BstnUplink, JoinRequestOfAnotherSizeIsRefused)
{
    for (const size_t size : {6U, 7U, 17U, 22U, 24U, 255U}) {
        SCOPED_TRACE(size);
        const translation done = frame(2, std::string(2 * size, '0'));
        EXPECT_EQ(done.result, -1);
        EXPECT_EQ(done.json, "{}");
        const std::string count = std::to_string(size);
        EXPECT_THAT(done.log,
                    ElementsAre(join({"TRACE join request received: [", count, "] bytes"}),
                                join({"ERROR invalid size of join request payload, expected 23 bytes, got: [",
                                      count, "]"})));
    }
}

/* Version 1 counts the buffer, which is never of 23 bytes, and its message names a size of its own. */
TEST_F(BstnUplink, JoinRequestOfVersion1NeverPasses)
{
    static constexpr struct {
        size_t size;
        std::string_view counted;
    } CASES[] = {{19, "22"}, {20, "22"}, {21, "22"}, {22, "25"}, {23, "25"}, {24, "25"}, {17, "19"}};
    for (const auto &row : CASES) {
        SCOPED_TRACE(row.size);
        const std::string hex = row.size == 23 ? std::string(JOIN) : std::string(2 * row.size, '0');
        const translation done = frame(1, hex);
        EXPECT_EQ(done.result, -1);
        EXPECT_EQ(done.json, "{}");
        EXPECT_THAT(done.log,
                    ElementsAre("TRACE join request received",
                                join({"ERROR invalid size of join request payload, expected 17 bytes, got: [",
                                      row.counted, "]"})));
    }
}

/* ---- data frames ---- */

TEST_F(BstnUplink, DataFrameIsPublishedFieldByField)
{
    static constexpr struct {
        const char *name;
        std::string_view hex;
        std::string_view fields;
    } CASES[] = {
        {"port and payload", "40da1b012680020101bfbbfb8b23f8ca05f6",
         R"("MHdr":64,"DevAddr":637606874,"FCtrl":128,"FCnt":258,"FOpts":"","FPort":1,)"
         R"("FRMPayload":"bfbbfb8b23","MIC":4127574776})"},
        {"confirmed, options, port and payload, highest bit of DevAddr set",
         "80b3a201fe8307000307020a6c719d5d3aad",
         R"("MHdr":128,"DevAddr":-33447245,"FCtrl":131,"FCnt":7,"FOpts":"030702","FPort":10,)"
         R"("FRMPayload":"6c71","MIC":2906283421})"},
        {"neither options nor port", "40da1b0126800300fdce1515",
         R"("MHdr":64,"DevAddr":637606874,"FCtrl":128,"FCnt":3,"FOpts":"","FPort":-1,)"
         R"("FRMPayload":"","MIC":353750781})"},
        {"options alone", "40da1b01268204000307f62fb552",
         R"("MHdr":64,"DevAddr":637606874,"FCtrl":130,"FCnt":4,"FOpts":"0307","FPort":-1,)"
         R"("FRMPayload":"","MIC":1387606006})"},
        {"port without a payload", "40da1b01260005000296e355d2",
         R"("MHdr":64,"DevAddr":637606874,"FCtrl":0,"FCnt":5,"FOpts":"","FPort":2,)"
         R"("FRMPayload":"","MIC":3528844182})"},
        {"port 0", "40da1b0126000600004e146a2157d4",
         R"("MHdr":64,"DevAddr":637606874,"FCtrl":0,"FCnt":6,"FOpts":"","FPort":0,)"
         R"("FRMPayload":"4e14","MIC":3562479978})"},
        {"seven bytes of options", "40da1b0126070a0003020302030203092effb55b93",
         R"("MHdr":64,"DevAddr":637606874,"FCtrl":7,"FCnt":10,"FOpts":"03020302030203","FPort":9,)"
         R"("FRMPayload":"2e","MIC":2472261119})"},
        /* The length of the options has three bits here: the rest of them counts as port and payload. */
        {"fifteen bytes of options", "40da1b01260f0800030202030202030202030202030202032684483b652e",
         R"("MHdr":64,"DevAddr":637606874,"FCtrl":15,"FCnt":8,"FOpts":"03020203020203","FPort":2,)"
         R"("FRMPayload":"02030202030202032684","MIC":778386248})"},
        {"eight bytes of options", "40da1b012608090003020302030203027ac1577c",
         R"("MHdr":64,"DevAddr":637606874,"FCtrl":8,"FCnt":9,"FOpts":"","FPort":3,)"
         R"("FRMPayload":"02030203020302","MIC":2086125946})"},
    };
    for (const auto &row : CASES) {
        SCOPED_TRACE(row.name);
        const translation done = frame(2, row.hex);
        EXPECT_EQ(done.result, 0);
        EXPECT_EQ(done.json, join({V2_DATA_HEAD, row.fields}));
    }
}

TEST_F(BstnUplink, DataFrameIsTold)
{
    EXPECT_THAT(frame(2, "80b3a201fe8307000307020a6c719d5d3aad").log,
                ElementsAre("TRACE data uplink request received, type: [0x4]",
                            "TRACE extracted FRMPayload: 6c71", "TRACE extracted FCtrl: 0x83, FCnt: 0x7",
                            "TRACE extracted FOpts: 030702 MHdr: 0x80 DevAddr: 0xfe01a2b3, MIC: 0xad3a5d9d, "
                            "xtime: 11821949024847552"));
    EXPECT_THAT(frame(2, "40da1b0126800300fdce1515").log,
                ElementsAre("TRACE data uplink request received, type: [0x2]",
                            "TRACE extracted FCtrl: 0x80, FCnt: 0x3",
                            "TRACE extracted FOpts:  MHdr: 0x40 DevAddr: 0x26011bda, MIC: 0x1515cefd, "
                            "xtime: 11821949024847552"));
}

/* Version 1 takes the size of the buffer for that of the frame, so its MIC starts one to three bytes late,
 * and the bytes before it count as payload; the four bytes of the MIC are folded into one. */
TEST_F(BstnUplink, DataFrameOfVersion1IsReadToTheEndOfItsBuffer)
{
    static constexpr struct {
        const char *name;
        std::string_view hex;
        std::string_view fields;
    } CASES[] = {
        {"18 bytes count as 19: MIC ca|05|f6|00", "40da1b012680020101bfbbfb8b23f8ca05f6",
         R"("MHdr":64,"DevAddr":637606874,"FCtrl":128,"FCnt":258,"FOpts":"","FPort":1,)"
         R"("FRMPayload":"bfbbfb8b23f8","MIC":255})"},
        {"14 bytes count as 16: MIC b5|52|00|00", "40da1b01268204000307f62fb552",
         R"("MHdr":64,"DevAddr":637606874,"FCtrl":130,"FCnt":4,"FOpts":"0307","FPort":246,)"
         R"("FRMPayload":"2f","MIC":247})"},
        {"13 bytes count as 16: MIC d2|00|00|00", "40da1b01260005000296e355d2",
         R"("MHdr":64,"DevAddr":637606874,"FCtrl":0,"FCnt":5,"FOpts":"","FPort":2,)"
         R"("FRMPayload":"96e355","MIC":210})"},
        {"12 bytes count as 13: MIC ce|15|15|00", "40da1b0126800300fdce1515",
         R"("MHdr":64,"DevAddr":637606874,"FCtrl":128,"FCnt":3,"FOpts":"","FPort":253,)"
         R"("FRMPayload":"","MIC":223})"},
    };
    for (const auto &row : CASES) {
        SCOPED_TRACE(row.name);
        const translation done = frame(1, row.hex);
        EXPECT_EQ(done.result, 0);
        EXPECT_EQ(done.json, join({V1_DATA_HEAD, row.fields}));
    }
    EXPECT_THAT(frame(1, "40da1b01268204000307f62fb552").log,
                ElementsAre("TRACE data uplink request received, type: [0x2]",
                            "TRACE extracted FRMPayload: 2f", "TRACE extracted FCtrl: 0x82, FCnt: 0x4",
                            "TRACE extracted FOpts: 0307 MHdr: 0x40 DevAddr: 0x26011bda, MIC: 0xf7, "
                            "xtime: 11821949024847552"));
}

/* ---- types ---- */

/* Only two of the three bits of the message type count. */
TEST_F(BstnUplink, MessageTypesCountInPairs)
{
    static constexpr struct {
        std::string_view hex;
        std::string_view message; /* empty: refused */
    } CASES[] = {
        {"00010000d07ed5b370cdab10ff01c016002b1ac5ef4897", R"("msgtype":"jreq","MHdr":0,)"},
        {"20010000d07ed5b370cdab10ff01c016002b1a2ea2a5e2", R"("msgtype":"jreq","MHdr":32,)"},
        {"40da1b012600010001def47d1b30", R"("msgtype":"updf","MHdr":64,)"},
        {"60da1b012600010001debbf8fa16", R"("msgtype":"updf","MHdr":96,)"},
        {"80da1b012600010001ded2ee43dc", R"("msgtype":"updf","MHdr":128,)"},
        {"a0da1b012600010001de9848799c", R"("msgtype":"updf","MHdr":160,)"},
        {"c0da1b012600010001deeb6250c5", ""},
        {"e0da1b012600010001de576129d1", ""},
    };
    for (const auto &row : CASES) {
        for (const uint32_t version : {1U, 2U}) {
            if (version == 1 && row.message.find("jreq") != std::string_view::npos)
                continue;
            SCOPED_TRACE(row.hex);
            const translation done = frame(version, row.hex);
            if (row.message.empty()) {
                EXPECT_EQ(done.result, -1);
                EXPECT_EQ(done.json, "{}");
                EXPECT_THAT(done.log, ElementsAre("ERROR unknown uplink packet type: [0x6]"));
            } else {
                EXPECT_EQ(done.result, 0);
                EXPECT_THAT(done.json, HasSubstr(row.message));
            }
        }
    }
}

/* ---- sizes ---- */

TEST_F(BstnUplink, TextOfFourDigitsOrLessIsTooSmallToDecode)
{
    for (const uint32_t version : {1U, 2U}) {
        for (std::string_view data : {"Q", "QN", "QNo", "QNob", "QN==", "QN==QNobASaAAwD9zhUV"}) {
            SCOPED_TRACE(data);
            const translation done = uplink(version, rxpk(version, data));
            EXPECT_EQ(done.result, -1);
            EXPECT_THAT(done.log, ElementsAre("ERROR LoRa PHY of [4] bytes is too small"));
        }
        for (std::string_view data : {"", "=", "*"})
            EXPECT_THAT(uplink(version, rxpk(version, data)).log,
                        ElementsAre("ERROR LoRa PHY of [1] bytes is too small"));
    }
}

TEST_F(BstnUplink, DataFrameThatIsTooShortIsRefused)
{
    static constexpr std::string_view NO_DATA = "is too small for data uplink";
    static constexpr std::string_view TOO_SMALL = "is too small";
    static constexpr std::string_view NO_PAYLOAD =
        "is too small: exceeded packet boundary while seeking for FRMPayload";
    static constexpr struct {
        std::string_view hex;
        std::string_view what;
        std::string_view words; /* empty: accepted */
    } CASES[] = {
        {"40da1b01", "LoRa PHY of [4] bytes ", NO_DATA},
        {"40da1b012600", "LoRa PHY of [6] bytes ", NO_DATA},
        {"40da1b01260005", "LoRa data packet of [7] bytes ", NO_PAYLOAD},
        {"40da1b0126000500", "LoRa data packet of [8] bytes ", NO_PAYLOAD},
        {"40da1b012600050096e355", "LoRa data packet of [11] bytes ", NO_PAYLOAD},
        {"40da1b012600050096e355d2", "", ""},
        {"40da1b01260705", "LoRa data packet of [7] bytes ", TOO_SMALL},
        {"40da1b01260705000302030203", "LoRa data packet of [13] bytes ", TOO_SMALL},
        {"40da1b0126070500030203020302", "LoRa data packet of [14] bytes ", NO_PAYLOAD},
        {"40da1b012607050003020302030203e355d2", "LoRa data packet of [18] bytes ", NO_PAYLOAD},
        {"40da1b01260705000302030203020396e355d2", "", ""},
    };
    for (const auto &row : CASES) {
        SCOPED_TRACE(row.hex);
        const translation done = frame(2, row.hex);
        EXPECT_EQ(done.result, row.words.empty() ? 0 : -1);
        if (!row.words.empty()) {
            EXPECT_EQ(done.json, "{}");
            EXPECT_THAT(done.log, ElementsAre("TRACE data uplink request received, type: [0x2]",
                                              join({"ERROR ", row.what, row.words})));
        }
    }
}

/* Five digits are a buffer of seven bytes and a frame of three. */
TEST_F(BstnUplink, FrameWithoutRoomForItsMicIsRefused)
{
    EXPECT_THAT(uplink(2, rxpk(2, "QNobA")).log,
                ElementsAre("TRACE data uplink request received, type: [0x2]",
                            "ERROR LoRa PHY of [3] bytes is too small for data uplink"));
    EXPECT_THAT(uplink(2, rxpk(2, "AAEAA")).log,
                ElementsAre("TRACE join request received: [3] bytes",
                            "ERROR invalid size of join request payload, expected 23 bytes, got: [3]"));
    EXPECT_THAT(
        uplink(1, rxpk(1, "QNobA")).log,
        ElementsAre("TRACE data uplink request received, type: [0x2]",
                    "ERROR LoRa data packet of [7] bytes is too small: exceeded packet boundary while "
                    "seeking for FRMPayload"));
}

TEST_F(BstnUplink, FrameFillsItsBufferButForTheTerminator)
{
    const std::string largest = "40da1b012600050001" + std::string(2 * (255 - 9 - 4), 'a') + "96e355d2";
    const translation done = frame(2, largest);
    EXPECT_EQ(done.result, 0);
    EXPECT_THAT(done.json, HasSubstr(join({R"("FRMPayload":")", std::string(2 * (255 - 9 - 4), 'a'),
                                           R"(","MIC":3528844182})"})));
    EXPECT_THAT(
        frame(1, largest).json,
        HasSubstr(join({R"("FRMPayload":")", std::string(2 * (255 - 9 - 4), 'a'), R"(96","MIC":247})"})));
    for (const uint32_t version : {1U, 2U}) {
        const translation refused = frame(version, largest + "00");
        EXPECT_EQ(refused.result, -1);
        EXPECT_THAT(refused.log, ElementsAre("ERROR LoRa PHY of [259] bytes is too big"));
    }
}

TEST_F(BstnUplink, TextIsReadUpToItsFirstForeignCharacter)
{
    const std::string expected = frame(2, "40da1b0126800300fdce1515").json;
    EXPECT_EQ(uplink(2, rxpk(2, "QNobASaAAwD9zhUV")).json, expected);
    EXPECT_EQ(uplink(2, rxpk(2, "QNobASaAAwD9zhUV\\nQNob")).json, expected);
    EXPECT_EQ(uplink(2, rxpk(2, "QNobASaAAwD9zhUV-_")).json, expected);
    EXPECT_EQ(uplink(2, rxpk(2, "QNobASaAAwD9zhUV=AAAA")).json, expected);
}

/* ---- what is told beside the frame ---- */

static constexpr std::string_view PLAIN_FRAME = "40da1b0126800300fdce1515";

/* The members of the info object. */
static std::string info_of(const std::string &json)
{
    const size_t begin = json.find("\"rctx\"");
    return begin != std::string::npos ? json.substr(begin, json.find('}', begin) - begin) : json;
}

TEST_F(BstnUplink, GpsTimeIsMicrosecondsOrElseMilliseconds)
{
    static constexpr struct {
        std::string_view keys;
        std::string_view gpstime;
    } CASES[] = {
        {"", "0"},
        {R"(,"tmms":1451606400123)", "1451606400123000"},
        {R"(,"tmus":1451606400123456)", "1451606400123456"},
        {R"(,"tmms":1451606400123,"tmus":1451606400123456)", "1451606400123456"},
        {R"(,"tmms":7,"tmus":0)", "7000"},
        {R"(,"tmms":-7)", "-7000"},
        {R"(,"tmus":-7)", "-7"},
    };
    for (const auto &row : CASES) {
        SCOPED_TRACE(row.keys);
        EXPECT_THAT(frame(2, PLAIN_FRAME, row.keys).json,
                    HasSubstr(join({R"("gpstime":)", row.gpstime, ","})));
        EXPECT_THAT(frame(1, PLAIN_FRAME, row.keys).json, HasSubstr(R"("gpstime":0,)"));
    }
}

TEST_F(BstnUplink, ReceptionTimeIsThatOfThePacketInSeconds)
{
    EXPECT_THAT(frame(2, PLAIN_FRAME, R"(,"time":"1970-01-01T00:00:59.999999Z")").json,
                HasSubstr(R"("rxtime":59,)"));
    EXPECT_THAT(frame(2, PLAIN_FRAME, R"(,"time":"2100-03-01T00:00:00Z")").json,
                HasSubstr(R"("rxtime":4107542400,)"));
    EXPECT_THAT(frame(1, PLAIN_FRAME).json, Not(HasSubstr("rxtime")));
}

TEST_F(BstnUplink, ReceptionTimeOfAPacketWithoutOneIsNow)
{
    static constexpr std::string_view MESSAGE =
        R"({"tmst":3000000,"chan":5,"rfch":1,"freq":868.1,"stat":1,"modu":"LORA","datr":"SF7BW125",)"
        R"("codr":"4/5","rssi":-57,"lsnr":9.25,"size":12,"data":"QNobASaAAwD9zhUV"})";
    const time_t before = time(nullptr);
    const translation done = uplink(2, MESSAGE);
    const time_t after = time(nullptr);
    ASSERT_EQ(done.result, 0);
    const int64_t rxtime = std::atoll(number_of(done.json, "rxtime").c_str());
    EXPECT_GE(rxtime, before);
    EXPECT_LE(rxtime, after);
}

TEST_F(BstnUplink, ClockThatCannotBeToldDropsThePacket)
{
    gmtime_fails = true;
    for (const uint32_t version : {1U, 2U}) {
        const translation done = frame(version, PLAIN_FRAME);
        EXPECT_EQ(done.result, -1);
        EXPECT_EQ(done.json, "{}");
        EXPECT_THAT(done.log, ElementsAre("ERROR failed to prepare time string for bstn uplink"));
    }
}

TEST_F(BstnUplink, SignalIsThatOfTheElementOrOfItsFirstAntenna)
{
    EXPECT_EQ(info_of(frame(2, PLAIN_FRAME, R"(,"rssi":-120,"lsnr":-0.04,"chan":-1)").json),
              R"("rctx":0,"rxtime":1767323045,"xtime":11821949024847552,"gpstime":0,"rssi":-120,"snr":-0.0,)"
              R"("chan":-1)");
    EXPECT_EQ(info_of(frame(1, PLAIN_FRAME, R"(,"rssi":-120,"lsnr":-3.0,"chan":9)").json),
              R"("rctx":0,"xtime":11821949024847552,"gpstime":0,"rssi":-57,"snr":9.2,"chan":5)");
    EXPECT_EQ(info_of(frame(1, PLAIN_FRAME, R"(,"rsig":[])").json),
              R"("rctx":0,"xtime":11821949024847552,"gpstime":0,"rssi":0,"snr":0.0,"chan":0)");
}

TEST_F(BstnUplink, FrequencyIsTruncatedToHertz)
{
    static constexpr struct {
        std::string_view freq;
        std::string_view hertz;
    } CASES[] = {{"868.1", "868100000"}, {"916.8", "916800000"}, {"512.002", "512001999"},
                 {"868", "868000000"},   {"0.0", "0"},           {"1.9999999", "1999999"},
                 {"-0.0000019", "-1"}};
    for (const auto &row : CASES)
        EXPECT_THAT(frame(2, PLAIN_FRAME, join({R"(,"freq":)", row.freq})).json,
                    HasSubstr(join({R"("Freq":)", row.hertz, ","})));
}

/* ---- packets that cannot be read ---- */

TEST_F(BstnUplink, PacketWithoutARequiredKeyIsRefused)
{
    for (std::string_view key :
         {"tmst", "rfch", "freq", "stat", "modu", "datr", "codr", "size", "data", "chan", "rssi", "lsnr"}) {
        SCOPED_TRACE(key);
        const json_owned message(json_tokener_parse(rxpk(2, "QNobASaAAwD9zhUV").c_str()));
        json_object_object_del(message.get(), std::string(key).c_str());
        const translation done = uplink(2, json_object_to_json_string(message.get()));
        EXPECT_EQ(done.result, -1);
        EXPECT_EQ(done.json, "{}");
        EXPECT_THAT(done.log, ElementsAre("WARN unable to retrieve field",
                                          join({"ERROR failed to deserialize uplink packet: ",
                                                json_object_to_json_string_ext(message.get(), 0)})));
    }
}

TEST_F(BstnUplink, AntennasAreReadOnVersion1Alone)
{
    std::string many = R"(,"rsig":[{"ant":0,"chan":1,"rssic":2,"lsnr":3})";
    for (int i = 1; i < 33; ++i)
        many += R"(,{"ant":0,"chan":1,"rssic":2,"lsnr":3})";
    many += "]";
    EXPECT_THAT(frame(1, PLAIN_FRAME, many).log, ElementsAre("ERROR too many rsig values received"));
    EXPECT_EQ(frame(2, PLAIN_FRAME, many).result, 0);
    static constexpr std::string_view INCOMPLETE = R"(,"rsig":[{"ant":0,"chan":1,"rssic":2}])";
    EXPECT_EQ(frame(1, PLAIN_FRAME, INCOMPLETE).result, -1);
    EXPECT_THAT(frame(1, PLAIN_FRAME, INCOMPLETE).log, Contains("ERROR failed to deserialize rsig frame"));
    EXPECT_EQ(frame(2, PLAIN_FRAME, INCOMPLETE).result, 0);
}

/* ---- assertions ---- */

TEST_F(BstnUplinkDeath, ArgumentsAreAsserted)
{
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    bridge_translate_msg from = {};
    const json_owned obj(json_object_new_object());
    for (const auto translator :
         {bridge_translate_uplink_semtech_v1_to_bstn_v1, bridge_translate_uplink_semtech_v2_to_bstn_v1}) {
        EXPECT_ASSERTION(translator(nullptr, obj.get(), obj.get()), "mac");
        EXPECT_ASSERTION(translator(&from, nullptr, obj.get()), "semtech");
        EXPECT_ASSERTION(translator(&from, obj.get(), nullptr), "bstn");
    }
}
