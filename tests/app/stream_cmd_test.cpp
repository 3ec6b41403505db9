#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "app/stream_cmd.h"
#include "tests/support/fake_router.h"
#include "tests/support/log_capture.h"
#include "tests/support/loopback.h"
#include "tests/support/private_net.h"

namespace
{
constexpr UInt32 kNone = 0xFFFFFFFF;

std::string Word(UInt32 i_u32Value)
{
    return {reinterpret_cast<const char *>(&i_u32Value), 4};
}

std::string Record(UInt32 i_u32Type, const std::string &i_strValue)
{
    return Word(i_u32Type) + Word(static_cast<UInt32>(i_strValue.size())) + i_strValue;
}

std::string Number(UInt32 i_u32Type, int i_s32Value)
{
    return Record(i_u32Type, Word(static_cast<UInt32>(i_s32Value)));
}

/* Hands the datagram over and returns what the callback did. */
int Handle(std::string i_strDatagram)
{
    char szReply[8] = "asitwas";
    int s32ReplyLength = 77;
    const int s32Result =
        EventCallBack(i_strDatagram.data(), static_cast<int>(i_strDatagram.size()), szReply,
                      sizeof(szReply), s32ReplyLength);
    EXPECT_STREQ(szReply, "asitwas");
    EXPECT_EQ(s32ReplyLength, 77);
    return s32Result;
}

/* Type, then the six numbers in the order of the record. */
using CChange = std::array<UInt32, 7>;

std::vector<CChange> Changes()
{
    std::vector<CChange> objChanges;
    for (const MSG_DESC_INFO_S &stMsg : fake_router::Sent(0x809)) {
        STREAM_STATUS_S stStatus;
        memcpy(&stStatus, stMsg.payload, sizeof(stStatus));
        EXPECT_EQ(std::string(stStatus.szH264Mode, 32), std::string(32, '\0'));
        EXPECT_EQ(stMsg.msgtype, MSG_TYPE_ASYNC);
        EXPECT_EQ(stMsg.src, 2U);
        EXPECT_EQ(stMsg.dst, 2U);
        objChanges.push_back({stStatus.u32Type, stStatus.u32H264Enable, stStatus.u32H264Gop,
                              stStatus.u32H264Bitrate, stStatus.u32PrevEnable,
                              stStatus.u32PrevHeight, stStatus.u32PrevRefreshrate});
    }
    return objChanges;
}

TEST(StreamCmdTest, OneBadValueDropsTheWholeRequestAndTheModeIsNoChange)
{
    const struct {
        std::string strSets;
        const char *pRead;    /* of the line that says what was read */
        const char *pRefusal; /* null: taken */
    } stCases[] = {
        {Number(0x20002, 1), "", "invalid h264 gop :1, valid [2,120] --["},
        {Number(0x20002, 121), "", "invalid h264 gop :121, valid [2,120] --["},
        {Number(0x40002, 99999), "", "invalid h264 bitrate :99999 --["},
        {Number(0x40002, 10000001), "", "invalid h264 bitrate :10000001 --["},
        {Number(0x60002, 269), "", "invalid preview height :269 --["},
        {Number(0x60002, 1081), "", "invalid preview height :1081 --["},
        {Number(0x70002, 0), "", "invalid preview refreshrate :0 --["},
        {Number(0x70002, 11), "", "invalid preview refreshrate :11 --["},
        {Number(0x20002, -1), "", "cmd error --["},
        {Number(0x70002, 0) + Number(0x60002, 0) + Number(0x40002, 0) + Number(0x20002, 0),
         "enable:-1, gop:0, mode:-1, bitrate:0,  preview enable:-1, height:0, refreshrate:0 --[",
         "invalid h264 gop :0"},
        {Number(0x20002, 50) + Number(0x70002, 99), "gop:50, mode:-1, bitrate:-1,  preview",
         "invalid preview refreshrate :99"},
        {Record(0x30002, "VBR"), "mode:1,", "cmd error"},
        {Record(0x30002, std::string("cBr\0junk", 8)), "mode:0,", "cmd error"},
        {Record(0x30002, std::string("vbr ", 4)), "mode:-1,", "cmd error"},
        {Record(0x30002, std::string(128, 'c')), "mode:-1,", "cmd error"},
        {Record(0x30002, "cbr" + std::string(126, '\0')), "mode:-1,", "cmd error"},
        {"", "enable:-1, gop:-1,", "cmd error"},
        {Number(0x20002, 2) + Number(0x40002, 100000) + Number(0x60002, 270) + Number(0x70002, 1),
         "", nullptr},
        {Number(0x20002, 120) + Number(0x40002, 10000000) + Number(0x60002, 1080) +
             Number(0x70002, 10),
         "", nullptr},
        {Number(0x10002, 0), "", nullptr},
        {Number(0x50002, 70000), "", nullptr}, /* the flags have no range */
        {Record(0x30002, "cbr") + Number(0x20002, 50) + Number(0x50002, 0),
         "set h264 enable:-1, gop:50, mode:0, bitrate:-1,  preview enable:0, height:-1, ", nullptr},
        /* Short of four bytes it is no value; what is longer is read up to there. */
        {Record(0x10002, std::string(3, '\0')) + Record(0x50002, ""), "enable:-1, gop:-1,",
         "cmd error"},
        {Number(0x20002, 50) + Number(0x20002, 60) + Record(0x60002, {"\x20\x03\0\0\x07", 5}),
         "gop:50, mode:-1, bitrate:-1,  preview enable:-1, height:800,", nullptr},
    };
    for (const auto &stCase : stCases) {
        CLogCapture objLog;
        EXPECT_EQ(Handle(Record(4, stCase.strSets)), 0);
        SCOPED_TRACE(testing::PrintToString(objLog.Lines()));
        EXPECT_TRUE(objLog.Has(stCase.pRead));
        EXPECT_EQ(objLog.Count("ERROR"), stCase.pRefusal != nullptr ? 1 : 0);
        EXPECT_TRUE(stCase.pRefusal == nullptr || objLog.Has(stCase.pRefusal));
    }
    EXPECT_EQ(Changes(), (std::vector<CChange>{{2, kNone, 2, 100000, kNone, 270, 1},
                                               {2, kNone, 120, 10000000, kNone, 1080, 10},
                                               {0, 0, kNone, kNone, kNone, kNone, kNone},
                                               {1, kNone, kNone, kNone, 70000, kNone, kNone},
                                               {2, kNone, 50, kNone, 0, kNone, kNone},
                                               {2, kNone, 50, kNone, kNone, 800, kNone}}));
}

TEST(StreamCmdTest, ADatagramWithoutACommandIsMalformed)
{
    const std::string strDatagrams[] = {"", "\x04", Record(5, Number(0x20002, 50)),
                                        Record(4, Number(0x20002, 50)).substr(0, 19)};
    for (const std::string &strDatagram : strDatagrams) {
        CLogCapture objLog;
        EXPECT_EQ(Handle(strDatagram), -1);
        EXPECT_TRUE(objLog.Has("INFO boxes parse success, " + std::to_string(strDatagram.size()) +
                               " bytes  --[stream_cmd.cpp:"));
        EXPECT_TRUE(objLog.Has("ERROR tlv_box_get_object h264 tag1 failed --[stream_cmd.cpp:"));
    }
    EXPECT_TRUE(Changes().empty());
    EXPECT_TRUE(fake_router::Sent(0x103).empty());
}

/* The client's end of the channel: the reply port, in a network of the test's own. */
class StreamReplyTest : public CPrivateNetTest
{
protected:
    void SetUp() override
    {
        CPrivateNetTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        m_objReplies = BindLoopback(8365);
        fake_router::OnMessage([this](const MSG_DESC_INFO_S &i_stMsg, void *o_pResult) {
            if (i_stMsg.msgno == 0x103 && i_stMsg.dst == 0 && i_stMsg.msgtype == MSG_TYPE_SYNC) {
                m_s32ChangesAtFetch = static_cast<int>(fake_router::Sent(0x809).size());
                memcpy(o_pResult, &m_stStored, m_bFetchFails ? 0 : sizeof(m_stStored));
            }
            return m_bFetchFails ? 0 : 1;
        });
    }
    /* What came in answer; "none" if nothing did. A reply is there when the callback returns. */
    std::string Ask(const std::string &i_strNested)
    {
        EXPECT_EQ(Handle(Record(4, i_strNested)), 0);
        return ReceiveLoopback(m_objReplies.Get(), 0);
    }

    UniqueFd m_objReplies;
    STREAM_STATUS_S m_stStored = {0, 1, 60, "vbr", 1000000, 2, 720, 1};
    bool m_bFetchFails = false;
    int m_s32ChangesAtFetch = -1;
};

TEST_F(StreamReplyTest, HoldWhatWasAskedForIfAFlagIsAmongIt)
{
    std::string strAll;
    for (UInt32 u32Type = 0x70001; u32Type >= 0x10001; u32Type -= 0x10000) {
        strAll += Record(u32Type, "");
    }
    const std::string strTrue("true\0", 5);
    const std::string strFalse("false\0", 6);
    const std::string strVbr("vbr\0", 4);
    EXPECT_EQ(Ask(strAll),
              Record(4, Record(0x10001, strTrue) + Number(0x20001, 60) + Record(0x30001, strVbr) +
                            Number(0x40001, 1000000) + Record(0x50001, strFalse) +
                            Number(0x60001, 720) + Number(0x70001, 1)));
    EXPECT_EQ(Ask(Number(0x20001, 1) + Record(0x10001, "value ignored")),
              Record(4, Record(0x10001, strTrue) + Number(0x20001, 60)));
    EXPECT_EQ(Ask(Record(0x50001, "")), Record(4, Record(0x50001, strFalse)));
    for (UInt32 u32Type : {0x20001U, 0x30001U, 0x40001U, 0x60001U, 0x70001U}) {
        EXPECT_EQ(Ask(Record(u32Type, "")), "none") << u32Type;
    }

    /* A stored mode that fills its room has no end of its own. */
    memset(m_stStored.szH264Mode, 'm', 32);
    EXPECT_EQ(Ask(Record(0x50001, "") + Record(0x30001, "")),
              Record(4, Record(0x30001, std::string(32, 'm') + '\0') + Record(0x50001, strFalse)));
    m_bFetchFails = true;
    EXPECT_EQ(Ask(Record(0x10001, "") + Record(0x30001, "") + Record(0x40001, "")),
              Record(4, Record(0x10001, strFalse) + Record(0x30001, std::string(1, '\0')) +
                            Number(0x40001, 0)));
}

TEST_F(StreamReplyTest, AreFetchedBeforeTheSetOfTheSameDatagram)
{
    EXPECT_EQ(Ask(Number(0x20002, 30) + Record(0x10001, "") + Record(0x20001, "")),
              Record(4, Record(0x10001, std::string("true\0", 5)) + Number(0x20001, 60)));
    EXPECT_EQ(m_s32ChangesAtFetch, 0);
    EXPECT_EQ(Changes(), (std::vector<CChange>{{0, kNone, 30, kNone, kNone, kNone, kNone}}));
}
} // namespace
