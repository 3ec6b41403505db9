#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "common/stream/encoder.h"
#include "common/stream/pipeline_desc.h"
#include "tests/support/fake_router.h"
#include "tests/support/held_build.h"
#include "tests/support/log_capture.h"
#include "tests/support/moved_time.h"
#include "tests/support/wait_until.h"

namespace
{
constexpr UInt32 kNo = 0xFFFFFFFF;
constexpr STREAM_STATUS_S kGop30 = {0, kNo, 30, "", kNo, kNo, kNo, kNo};
constexpr STREAM_STATUS_S kGop40 = {0, kNo, 40, "", kNo, kNo, kNo, kNo};
constexpr STREAM_STATUS_S kPreviewOff = {1, kNo, kNo, "", kNo, 0, kNo, kNo};
constexpr INPUT_TIMING_S kHd = {1920, 1080, 60, 0};
constexpr INPUT_TIMING_S kHalf = {1280, 720, 60, 0};

/* The module's handlers with real workers and a configuration of the test's own. The test's thread
 * stands for the encoder's; pauses and waits are a fifth of the real ones. */
class EncoderTest : public testing::Test
{
protected:
    void SetUp() override
    {
        /* Loads the plug-ins, which may take longer than the shortened waits. */
        GST_ELEMENT_PTR pPreview(
            gst_parse_launch(BuildJpegCmd(kHd, m_stConfigured).c_str(), nullptr));
        ASSERT_NE(pPreview, nullptr);
        moved_time::DivideSleeps(5);
        fake_router::OnMessage([this](const MSG_DESC_INFO_S &i_stMsg, void *o_pResult) {
            if (m_bAnswers && i_stMsg.msgno == MSG_GET_ADDR_LIST) {
                strcpy(static_cast<char *>(o_pResult), "127.0.0.1:9");
            } else if (m_bAnswers && i_stMsg.msgno == MSG_GET_STREAM_STATUS && m_s32Unread-- <= 0) {
                memcpy(o_pResult, &m_stConfigured, sizeof(m_stConfigured));
            }
            return m_bAnswers ? 1 : 0;
        });
    }

    template <typename Record> void Send(UInt32 i_u32MsgNo, const Record &i_stRecord)
    {
        MSG_DESC_INFO_S stMsg = MakeMsg(MSG_TYPE_ASYNC, MODULE_CONFIG, MODULE_ENCODER, i_u32MsgNo);
        PutPayload(&stMsg, i_stRecord);
        EXPECT_EQ(m_pEncoder->HandleMsg(&stMsg, nullptr), i_u32MsgNo == MSG_ENC_DEINIT ? 0 : 1);
    }
    void Timing(const INPUT_TIMING_S &i_stTiming) { Send(MSG_ENC_VIDEO_CHG, i_stTiming); }
    void Switch(const STREAM_STATUS_S &i_stNew) { Send(MSG_ENC_SET_STREAM_STATUS, i_stNew); }
    void ReportStall()
    {
        Send(MSG_ENC_JPEG_FILE_STATUS, JPEG_FILE_STATUS_S{1000, 0, 0});
        Send(MSG_ENC_JPEG_FILE_STATUS, JPEG_FILE_STATUS_S{1020, 0, 0});
    }
    /* A timing whose pipeline is held up while it is built; waits for it are short from then on. */
    void TimingThatHangs(const char *i_pBegin)
    {
        held_build::Hold(i_pBegin);
        Timing(kHd);
        held_build::WaitUntilHeld();
        moved_time::DivideSleeps(100);
    }

    CLogCapture m_objLog;
    STREAM_STATUS_S m_stConfigured = {2, 1, 60, "vbr", 1000000, 1, 720, 1};
    bool m_bAnswers = true;
    int m_s32Unread = 0; /* questions for the settings before the parameter file has been read */
    std::unique_ptr<CEncoder> m_pEncoder = std::make_unique<CEncoder>();
};

TEST_F(EncoderTest, APlainStartIsNotWaitedForBehindARun)
{
    Send(MSG_ENC_DEINIT, 0);
    EXPECT_TRUE(m_objLog.Has("INFO enc deinit msg --["));
    Send(MSG_ENC_INIT, 0);
    EXPECT_TRUE(m_objLog.WaitFor("INFO gst cmd [v4l2src ! video/x-raw ! "));
    const std::uint64_t u64Slept = moved_time::SleptMicroseconds();
    Send(MSG_ENC_INIT, 0);
    EXPECT_EQ(moved_time::SleptMicroseconds(), u64Slept);
}

TEST_F(EncoderTest, ATimingBeforeTheFirstMessageMakesTheWorkersAndAwaitsTheSettings)
{
    m_s32Unread = 3;
    Timing(kHd);
    /* 50 ms after a stop, 3 x 100 ms, 1 s, and a look or two at the start */
    EXPECT_LT(moved_time::SleptMicroseconds(), 1750000U);
    EXPECT_TRUE(m_objLog.Has("width=1280,height=720"));
    EXPECT_TRUE(m_objLog.Has("INFO addr list: 127.0.0.1:9,127.0.0.1:12350 --[encoder_rules.cpp:"));
    EXPECT_TRUE(m_objLog.Has("INFO gstreamer start ok --[encoder_rules.cpp:"));
    Send(MSG_INIT, 0);
    EXPECT_EQ(m_objLog.Count("start gst enc thread --["), 1);
    /* Not answered: what is known holds. */
    m_bAnswers = false;
    m_objLog.Clear();
    Timing(kHalf);
    EXPECT_TRUE(m_objLog.Has("bitrate=1000 gop-size=60"));
    EXPECT_TRUE(m_objLog.Has("INFO addr list: 127.0.0.1:9,127.0.0.1:12350 --["));
}

TEST_F(EncoderTest, AReportOrATimingBehindARestartFindsItTaken)
{
    Timing(kHd);
    m_objLog.Clear();
    ReportStall();
    ReportStall();
    EXPECT_EQ(m_objLog.Count("] restart --["), 2);
    EXPECT_FALSE(m_objLog.Has("jpeg enc not start"));
    Timing(kHalf);
    EXPECT_EQ(m_objLog.Count("INFO cmd jpeg [udpsrc"), 2);
}

TEST_F(EncoderTest, OfTheStartsThatAWorkerIsLateForOnlyTheLatestComes)
{
    TimingThatHangs("v4l2src");
    Timing(kHalf);
    EXPECT_TRUE(m_objLog.Has("WARN gstreamer start too long --["));
    Switch(kGop30);
    EXPECT_TRUE(m_objLog.Has("WARN gstreamer start 264 too long --["));
    held_build::Release();
    ASSERT_TRUE(m_objLog.WaitFor("INFO gst cmd [v4l2src device", 2));
    /* The next change meets a worker that lags behind nothing. */
    Switch(kGop40);
    EXPECT_TRUE(m_objLog.Has("INFO gstreamer start 264 ok --["));
    ASSERT_TRUE(m_objLog.WaitFor("INFO gst cmd [v4l2src device", 3));
    std::string strTaken;
    for (const std::string &strLine : m_objLog.Lines()) {
        if (strLine.starts_with("INFO gst cmd [v4l2src device")) {
            strTaken += strLine.substr(strLine.find("gop-size"), 12);
        }
    }
    EXPECT_EQ(strTaken, "gop-size=60 gop-size=30 gop-size=40 ");
    const std::vector<MSG_DESC_INFO_S> objForwarded = fake_router::Sent(MSG_SET_STREAM_STATUS);
    EXPECT_EQ(objForwarded.at(1).dst, MODULE_CONFIG);
    EXPECT_EQ(memcmp(objForwarded.at(1).payload, &kGop40, 60), 0);
}

TEST_F(EncoderTest, APreviewThatIsSwitchedOffBeforeItIsTakenStaysOff)
{
    TimingThatHangs("udpsrc");
    Switch(kGop30);
    EXPECT_EQ(m_objLog.Count("INFO cmd jpeg ["), 2);
    Switch(kPreviewOff);
    held_build::Release();
    EXPECT_TRUE(m_objLog.WaitFor("DEBUG superseded start skipped in [gst-jpeg] --["));
    EXPECT_EQ(m_objLog.Count("INFO gst cmd [udpsrc"), 1);
}

TEST_F(EncoderTest, AStopRequestEndsTheWaitForAStart)
{
    TimingThatHangs("udpsrc");
    moved_time::DivideSleeps(20);
    std::thread objStopper([this] {
        EXPECT_TRUE(WaitUntil([this] { return m_objLog.Has("] restart --["); },
                              std::chrono::seconds(20), std::chrono::microseconds(100)));
        m_pEncoder->SendStopRequest();
    });
    const std::uint64_t u64Slept = moved_time::SleptMicroseconds();
    ReportStall();
    /* The stop takes 41 x 500 ms, 10 x 1 s, 500 ms and 50 ms; of the 9.9 s of the wait only the
     * first looks are added. */
    EXPECT_LT(moved_time::SleptMicroseconds() - u64Slept, 31050000U + 7000000U);
    objStopper.join();
    /* What follows is not begun. */
    m_objLog.Clear();
    Timing(kHalf);
    EXPECT_FALSE(m_objLog.Has("gstreamer stop"));
    held_build::Release();
}
} // namespace
