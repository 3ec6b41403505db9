#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "common/box/config.h"
#include "common/box/param_table.h"
#include "tests/support/fake_router.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace
{
using CParams = std::vector<std::pair<std::string, std::string>>;

class ConfigTest : public testing::Test
{
protected:
    ConfigTest() : m_strPath(m_objDir.Path("param.xml")), m_objConfig(m_strPath.c_str()) {}

    void WriteParams(const CParams &i_strParams)
    {
        std::string strText = "<CONFIGURATION><CHANNEL_1>";
        for (const auto &[strName, strValue] : i_strParams) {
            strText += "<PARAM NAME=\"" + strName + "\">" + strValue + "</PARAM>";
        }
        WriteFile(m_strPath, strText + "</CHANNEL_1></CONFIGURATION>");
    }

    /* Reads the file; the result byte. */
    int Read(UInt32 i_u32MsgNo = MSG_READ_CONFIG)
    {
        MSG_DESC_INFO_S stMsg = MakeMsg(MSG_TYPE_SYNC, MODULE_ENCODER, MODULE_CONFIG, i_u32MsgNo);
        UInt8 u8Changed = 0xEE;
        EXPECT_EQ(m_objConfig.HandleMsg(&stMsg, &u8Changed), 1);
        return u8Changed;
    }

    std::string GetText(UInt32 i_u32MsgNo)
    {
        MSG_DESC_INFO_S stMsg = MakeMsg(MSG_TYPE_SYNC, MODULE_ENCODER, MODULE_CONFIG, i_u32MsgNo);
        char szText[512] = {};
        EXPECT_EQ(m_objConfig.HandleMsg(&stMsg, szText), 1);
        return szText;
    }

    STREAM_STATUS_S GetStatus()
    {
        MSG_DESC_INFO_S stMsg =
            MakeMsg(MSG_TYPE_SYNC, MODULE_ENCODER, MODULE_CONFIG, MSG_GET_STREAM_STATUS);
        STREAM_STATUS_S stStatus = {};
        EXPECT_EQ(m_objConfig.HandleMsg(&stMsg, &stStatus), 1);
        return stStatus;
    }

    int Set(UInt32 i_u32MsgNo, const void *i_pData, std::size_t i_u64Size)
    {
        MSG_DESC_INFO_S stMsg = MakeMsg(MSG_TYPE_ASYNC, MODULE_ENCODER, MODULE_CONFIG, i_u32MsgNo);
        memcpy(stMsg.payload, i_pData, i_u64Size);
        return m_objConfig.HandleMsg(&stMsg, nullptr);
    }
    int SetStatus(const STREAM_STATUS_S &i_stStatus)
    {
        return Set(MSG_SET_STREAM_STATUS, &i_stStatus, 60);
    }
    int SetSrcDeviceId(const std::string &i_strId)
    {
        return Set(MSG_SET_SRC_DEVICE_ID, i_strId.data(), i_strId.size());
    }

    CLogCapture m_objLog;
    CTempDir m_objDir;
    std::string m_strPath;
    CConfig m_objConfig;
};

std::string Show(const STREAM_STATUS_S &i_stStatus)
{
    auto Signed = [](UInt32 u32Value) { return std::to_string(static_cast<SInt32>(u32Value)); };
    return Signed(i_stStatus.u32Type) + ": " + Signed(i_stStatus.u32H264Enable) + " " +
           Signed(i_stStatus.u32H264Gop) + " " + std::string(i_stStatus.szH264Mode) + " " +
           Signed(i_stStatus.u32H264Bitrate) + ", " + Signed(i_stStatus.u32PrevEnable) + " " +
           Signed(i_stStatus.u32PrevHeight) + " " + Signed(i_stStatus.u32PrevRefreshrate);
}

TEST_F(ConfigTest, ReadingTellsWhetherTheConfigurationChanged)
{
    EXPECT_EQ(Show(GetStatus()), "2: 0 0  0, 0 0 0") << "zeros until the file was read";
    EXPECT_EQ(Read(), 1);
    EXPECT_EQ(Show(GetStatus()), "2: 1 60 vbr 1000000, 1 720 1");
    EXPECT_EQ(Read(), 0);
    WriteParams({{"addr_list", "10.0.0.1:59202"}, {"addr_url", "rtp://x"}});
    EXPECT_EQ(Read(MSG_REINIT), 1);
    EXPECT_EQ(GetText(MSG_GET_ADDR_LIST), "10.0.0.1:59202");
    WriteParams({});
    EXPECT_EQ(Read(), 1) << "nothing of the longer text is left";
    EXPECT_EQ(GetText(MSG_GET_ADDR_LIST), "");
}

TEST_F(ConfigTest, EveryValueComesFromItsOwnRowAndWhatIsNotUsedIsNoWarning)
{
    WriteParams({{"h264_stream_enable", "no"},
                 {"h264_stream_gop", "61"},
                 {"h264_stream_mode", "CBR"},
                 {"h264_stream_bitrate", "1000062"},
                 {"preview_stream_enable", "true"},
                 {"preview_stream_height", "763"},
                 {"preview_stream_refreshrate", "4"},
                 {"addr_url", std::string(1023, 'u')},
                 {"addr_list", std::string(511, 'a')},
                 {"src_device_id", "1234567890123"}});
    EXPECT_EQ(Read(), 1);
    EXPECT_EQ(Show(GetStatus()), "2: 0 61 cbr 1000062, 1 763 4");
    EXPECT_EQ(GetText(MSG_GET_ADDR_LIST), std::string(511, 'a'));
    EXPECT_EQ(GetText(MSG_GET_ADDR_URL), std::string(511, 'u'));
    EXPECT_EQ(GetText(MSG_GET_SRC_DEVICE_ID), "1234567890123");

    WriteParams({{"h264_stream_gop", "65536"}, {"media_cast_port", "123456789"}});
    EXPECT_EQ(Read(), 1);
    EXPECT_EQ(Show(GetStatus()), "2: 1 60 vbr 1000000, 1 720 1");
    EXPECT_EQ(GetText(MSG_GET_SRC_DEVICE_ID), "") << "nothing of an earlier id is left";
    for (const char *pText : {"h264_stream_gop <65536> is not in its range, using <60>",
                              "media_cast_port <123456789> is too long, using <59202>"}) {
        EXPECT_EQ(m_objLog.Count("DEBUG HandleReadConfigMsg " + std::string(pText)), 1) << pText;
    }
    WriteFile(m_strPath, "<CONFIG");
    EXPECT_EQ(Read(), 0);
    EXPECT_EQ(m_objLog.Count("not loaded, defaults are used: "), 1);
    EXPECT_FALSE(m_objLog.Has("WARN HandleReadConfigMsg"));
}

TEST_F(ConfigTest, GettersAnswerInTheBufferOrByAMessage)
{
    WriteParams({{"addr_list", "10.0.0.1:1"},
                 {"addr_url", "rtp://x"},
                 {"src_device_id", "123456789012"},
                 {"h264_stream_mode", "cbr"}});
    Read();
    const struct {
        UInt32 u32MsgNo;
        std::size_t u64Size;
        std::string strStart;
    } stCases[] = {
        {0x101, 512, "10.0.0.1:1"},
        {0x102, 512, "rtp://x"},
        {0x103, 60, std::string("\2\0\0\0\1\0\0\0\x3c\0\0\0cbr\0\0\0\0\0", 20)},
        {0x104, 64, "123456789012"},
    };
    for (const auto &[u32MsgNo, u64Size, strStart] : stCases) {
        MSG_DESC_INFO_S stMsg = MakeMsg(MSG_TYPE_SYNC, MODULE_MONITOR, MODULE_CONFIG, u32MsgNo);
        EXPECT_EQ(m_objConfig.HandleMsg(&stMsg, nullptr), 0);
        std::string strResult(600, '\x5A');
        EXPECT_EQ(m_objConfig.HandleMsg(&stMsg, strResult.data()), 1);
        EXPECT_TRUE(strResult.starts_with(strStart));
        EXPECT_EQ(strResult.substr(u64Size), std::string(600 - u64Size, '\x5A'));

        stMsg.msgtype = MSG_TYPE_ASYNC;
        EXPECT_EQ(m_objConfig.HandleMsg(&stMsg, nullptr), 1);
        const std::vector<MSG_DESC_INFO_S> stSent = fake_router::Sent(u32MsgNo);
        ASSERT_EQ(stSent.size(), 1U);
        MSG_DESC_INFO_S stExpected = MakeMsg(MSG_TYPE_ASYNC, 0, 12, u32MsgNo);
        memcpy(stExpected.payload, strResult.data(), u64Size);
        EXPECT_EQ(memcmp(&stSent[0], &stExpected, sizeof(stExpected)), 0) << u32MsgNo;
    }
}

TEST_F(ConfigTest, StatusChangesAreTakenFieldByField)
{
    constexpr UInt32 kNone = 0xFFFFFFFF;
    const struct {
        const char *pRule;
        STREAM_STATUS_S stSet;
        const char *pStatus;
    } stCases[] = {
        {"both", {2, 0, 30, "CBR", 2000000, 0, 480, 5}, "2: 0 30 cbr 2000000, 0 480 5"},
        {"H.264 only", {0, 0, 30, "cbr", 2000000, 0, 480, 5}, "2: 0 30 cbr 2000000, 1 720 1"},
        {"preview only", {1, 0, 30, "cbr", 2000000, 0, 480, 5}, "2: 1 60 vbr 1000000, 0 480 5"},
        {"unknown type", {3, 0, 30, "cbr", 2000000, 0, 480, 5}, "2: 1 60 vbr 1000000, 1 720 1"},
        {"unchanged",
         {2, kNone, kNone, "", kNone, kNone, kNone, kNone},
         "2: 1 60 vbr 1000000, 1 720 1"},
        {"below their ranges", {2, 1, 0, "cb", 99999, 1, 269, 0}, "2: 1 60 vbr 1000000, 1 720 1"},
        {"above them",
         {2, 5, 65536, "cbrx", 10000001, 2, 1081, 11},
         "2: 1 60 vbr 1000000, 1 720 1"},
        {"one bad field in between",
         {2, 0, 0, "cbr", 2000000, 5, 480, 0},
         "2: 0 60 cbr 2000000, 1 480 1"},
    };
    for (const auto &stCase : stCases) {
        Read();
        EXPECT_EQ(SetStatus(stCase.stSet), 1);
        EXPECT_EQ(Show(GetStatus()), stCase.pStatus) << stCase.pRule;
    }
}

TEST_F(ConfigTest, ChangesStayInMemoryUntilTheNextRead)
{
    WriteParams({{"h264_stream_gop", "30"}});
    const std::string strFile = ReadFile(m_strPath);
    Read();
    STREAM_STATUS_S stSet = {0, 1, 40, "vbr", 2000000, 0, 0, 0};
    memset(stSet.szH264Mode, 'v', sizeof(stSet.szH264Mode)); /* no NUL in the field */
    EXPECT_EQ(SetStatus(stSet), 1);
    EXPECT_EQ(SetSrcDeviceId("123456789012"), 1);
    EXPECT_EQ(Show(GetStatus()), "2: 1 40 vbr 2000000, 1 720 1");
    EXPECT_EQ(g_stConfigInfo.u32H264Gop, 30);
    EXPECT_EQ(ReadFile(m_strPath), strFile);
    EXPECT_EQ(Read(), 1);
    EXPECT_EQ(Show(GetStatus()), "2: 1 30 vbr 1000000, 1 720 1");
    EXPECT_EQ(GetText(MSG_GET_SRC_DEVICE_ID), "");
}

TEST_F(ConfigTest, SourceDeviceIdHasExactlyTwelveCharacters)
{
    EXPECT_EQ(SetSrcDeviceId("123456789012"), 1);
    EXPECT_EQ(SetSrcDeviceId("12345678901"), 0);
    EXPECT_EQ(SetSrcDeviceId("1234567890123"), 0);
    EXPECT_TRUE(m_objLog.Has("ERROR src device id <1234567890123> len :13 err --["));
    EXPECT_EQ(SetSrcDeviceId(std::string(200, 'i')), 0) << "a body without a NUL";
    EXPECT_TRUE(m_objLog.Has("ERROR src device id <" + std::string(64, 'i') + "> len :64 err --["));
    EXPECT_EQ(GetText(MSG_GET_SRC_DEVICE_ID), "123456789012");
}

TEST_F(ConfigTest, ThreadReadsTheFileAndStopsWhileItIsLocked)
{
    fake_router::OnMessage(
        [this](const MSG_DESC_INFO_S &i_stMsg, void *) { return m_objConfig.PushMsg(&i_stMsg); });
    RQ_XMLParser objHolder(m_strPath.c_str());
    ASSERT_EQ(objHolder.Parse(), 0U);
    m_objConfig.Start();
    EXPECT_TRUE(m_objLog.WaitFor("INFO thread info [config:"));
    EXPECT_TRUE(m_objLog.WaitFor("DEBUG HandleReadConfigMsg " + m_strPath + " is locked"));
    /* Whoever asks the module meanwhile waits for it; the process that stops does not. */
    m_objConfig.AbandonLockWait();
    EXPECT_EQ(Show(GetStatus()), "2: 0 0  0, 0 0 0") << "the record is left unchanged";
    m_objConfig.StopAndWaitForThread();
    EXPECT_EQ(m_objLog.Count("ERROR HandleReadConfigMsg " + m_strPath + " err<4> --["), 1);
    EXPECT_EQ(m_objLog.Count("is locked"), 1);
    const std::vector<MSG_DESC_INFO_S> stSent = fake_router::Sent(MSG_READ_CONFIG);
    ASSERT_EQ(stSent.size(), 1U);
    MSG_DESC_INFO_S stExpected = MakeMsg(MSG_TYPE_ASYNC, 0, 0, 0x100);
    EXPECT_EQ(memcmp(&stSent[0], &stExpected, sizeof(stExpected)), 0);
}
} // namespace
