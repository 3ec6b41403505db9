#include <gtest/gtest.h>

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

namespace
{
constexpr UInt32 kNo = 0xFFFFFFFF;
constexpr STREAM_STATUS_S kGop30 = {0, kNo, 30, "", kNo, kNo, kNo, kNo};

/* The module's handlers with real workers and a configuration of the test's own. The test's thread
 * stands for the encoder's; pauses and waits are a fifth of the real ones. */
class EncoderTest : public testing::Test
{
protected:
    void SetUp() override
    {
        /* Loads the plug-ins, which may take longer than the shortened waits. */
        GstElement *pPreview =
            gst_parse_launch(BuildJpegCmd({1920, 1080, 60, 0}, m_stConfigured).c_str(), nullptr);
        ASSERT_NE(pPreview, nullptr);
        gst_object_unref(pPreview);
        moved_time::DivideSleeps(5);
        fake_router::OnMessage([this](const MSG_DESC_INFO_S &i_stMsg, void *o_pResult) {
            if (!m_bAnswers) {
                return 0;
            }
            if (i_stMsg.msgno == MSG_GET_ADDR_LIST && m_s32Unread <= 0) {
                memcpy(o_pResult, m_strAddrList.c_str(), m_strAddrList.size() + 1);
            } else if (i_stMsg.msgno == MSG_GET_STREAM_STATUS && m_s32Unread-- <= 0) {
                memcpy(o_pResult, &m_stConfigured, sizeof(m_stConfigured));
            }
            return 1;
        });
    }

    template <typename Record> int Send(UInt32 i_u32MsgNo, const Record &i_stRecord)
    {
        MSG_DESC_INFO_S stMsg = MakeMsg(MSG_TYPE_ASYNC, 0, MODULE_ENCODER, i_u32MsgNo);
        memcpy(stMsg.payload, &i_stRecord, sizeof(i_stRecord));
        return m_pEncoder->HandleMsg(&stMsg, nullptr);
    }
    int Timing(SInt32 i_s32Width, SInt32 i_s32Height, SInt32 i_s32Fps, SInt32 i_s32Interlaced = 0)
    {
        return Send(MSG_ENC_VIDEO_CHG,
                    INPUT_TIMING_S{i_s32Width, i_s32Height, i_s32Fps, i_s32Interlaced});
    }
    void Report(SInt64 i_s64Time, UInt32 i_u32Count)
    {
        EXPECT_EQ(Send(MSG_ENC_JPEG_FILE_STATUS, JPEG_FILE_STATUS_S{i_s64Time, i_u32Count, 0}), 1);
    }

    CLogCapture m_objLog;
    std::string m_strAddrList = "127.0.0.1:9";
    STREAM_STATUS_S m_stConfigured = {2, 1, 60, "vbr", 1000000, 1, 720, 1};
    bool m_bAnswers = true;
    int m_s32Unread = 0; /* questions for the settings before the parameter file has been read */
    std::unique_ptr<CEncoder> m_pEncoder = std::make_unique<CEncoder>();
};

TEST_F(EncoderTest, APlainStartIsNotWaitedForBehindARun)
{
    EXPECT_EQ(Send(MSG_ENC_DEINIT, 0), 0);
    EXPECT_TRUE(m_objLog.Has("INFO enc deinit msg --["));
    EXPECT_EQ(Send(MSG_ENC_INIT, 0), 1);
    EXPECT_TRUE(m_objLog.WaitFor("INFO gst cmd [v4l2src ! video/x-raw ! "));
    const std::uint64_t u64Slept = moved_time::SleptMicroseconds();
    EXPECT_EQ(Send(MSG_ENC_INIT, 0), 1);
    EXPECT_EQ(moved_time::SleptMicroseconds(), u64Slept);
}

TEST_F(EncoderTest, ATimingBeforeTheFirstMessageMakesTheWorkersAndAwaitsTheSettings)
{
    m_s32Unread = 3;
    EXPECT_EQ(Timing(1920, 1080, 60), 1);
    EXPECT_TRUE(m_objLog.Has("width=1280,height=720"));
    EXPECT_TRUE(m_objLog.Has("INFO addr list: 127.0.0.1:9,127.0.0.1:12350 --[encoder_rules.cpp:"));
    EXPECT_EQ(m_objLog.Count("start gst enc thread --["), 1);
    EXPECT_TRUE(m_objLog.Has("INFO gstreamer start ok --["));
    EXPECT_EQ(Send(MSG_INIT, 0), 1);
    EXPECT_EQ(m_objLog.Count("start gst enc thread --["), 1);
    /* Not answered: what is known holds. */
    m_bAnswers = false;
    m_objLog.Clear();
    EXPECT_EQ(Timing(1280, 720, 60), 1);
    EXPECT_TRUE(m_objLog.Has("bitrate=1000 gop-size=60"));
    EXPECT_TRUE(m_objLog.Has("INFO addr list: 127.0.0.1:9,127.0.0.1:12350 --["));
}

TEST_F(EncoderTest, ASwitchIsForwardedAndRestartsBothPipelines)
{
    ASSERT_EQ(Timing(1920, 1080, 60), 1);
    m_objLog.Clear();
    EXPECT_EQ(Send(MSG_ENC_SET_STREAM_STATUS, kGop30), 1);
    const MSG_DESC_INFO_S stForwarded = fake_router::Sent(MSG_SET_STREAM_STATUS).at(0);
    EXPECT_EQ(stForwarded.dst, MODULE_CONFIG);
    EXPECT_EQ(memcmp(stForwarded.payload, &kGop30, 60), 0);
    std::string strOrder;
    for (const std::string &strLine : m_objLog.Lines()) {
        for (const char *pText : {"gstreamer stop gst-h264", "gstreamer stop gst-jpeg",
                                  "gstreamer start 264 ok", "gst cmd [udpsrc"}) {
            strOrder += strLine.find(pText) != strLine.npos ? pText : "";
        }
    }
    EXPECT_EQ(strOrder, "gstreamer stop gst-h264gstreamer stop gst-jpeg"
                        "gstreamer start 264 okgst cmd [udpsrc");
    EXPECT_TRUE(m_objLog.WaitFor("INFO gst cmd [v4l2src device=/dev/video0 ! "));
    EXPECT_TRUE(m_objLog.Has("gop-size=30"));
}

/* A report or a timing that is waiting behind a restart must not start the preview once more. */
TEST_F(EncoderTest, ARestartedPreviewIsStartedOnce)
{
    moved_time::DivideSleeps(1); /* the real pauses: a real pipeline is raced here */
    ASSERT_EQ(Timing(1920, 1080, 60), 1);
    m_objLog.Clear();
    Report(1000, 0);
    Report(1020, 0);
    EXPECT_EQ(m_objLog.Count("] restart --["), 1);
    ASSERT_EQ(Timing(1280, 720, 60), 1);
    EXPECT_EQ(m_objLog.Count("INFO cmd jpeg [udpsrc"), 1);
}

/* The worker is held up in a build while two more starts are queued for it. */
TEST_F(EncoderTest, OfTheStartsThatAWorkerIsLateForOnlyTheLatestComes)
{
    held_build::Hold("v4l2src");
    ASSERT_EQ(Timing(1920, 1080, 60), 1);
    held_build::WaitUntilHeld();
    moved_time::DivideSleeps(200);
    EXPECT_EQ(Timing(1280, 720, 60), 1);
    EXPECT_TRUE(m_objLog.Has("WARN gstreamer start too long --["));
    EXPECT_EQ(Send(MSG_ENC_SET_STREAM_STATUS, kGop30), 1);
    EXPECT_TRUE(m_objLog.Has("WARN gstreamer start 264 too long --["));
    held_build::Release();
    ASSERT_TRUE(m_objLog.WaitFor("INFO gst cmd [v4l2src device", 2));
    /* The next change meets a worker that lags behind nothing. */
    EXPECT_EQ(Send(MSG_ENC_SET_STREAM_STATUS, STREAM_STATUS_S{0, kNo, 40, "", kNo, kNo, kNo, kNo}),
              1);
    ASSERT_TRUE(m_objLog.WaitFor("INFO gst cmd [v4l2src device", 3));
    const char *const pTaken[] = {"width=1920, ", "gop-size=30 ", "gop-size=40 "};
    std::size_t u64Next = 0;
    for (const std::string &strLine : m_objLog.Lines()) {
        if (strLine.starts_with("INFO gst cmd [v4l2src device")) {
            EXPECT_NE(strLine.find(pTaken[u64Next++]), strLine.npos) << strLine;
        }
    }
}

TEST_F(EncoderTest, APreviewThatIsSwitchedOffBeforeItIsTakenStaysOff)
{
    held_build::Hold("udpsrc");
    ASSERT_EQ(Timing(1920, 1080, 60), 1);
    held_build::WaitUntilHeld();
    moved_time::DivideSleeps(200);
    EXPECT_EQ(Send(MSG_ENC_SET_STREAM_STATUS, kGop30), 1);
    EXPECT_EQ(m_objLog.Count("INFO cmd jpeg ["), 2);
    EXPECT_EQ(Send(MSG_ENC_SET_STREAM_STATUS, STREAM_STATUS_S{1, kNo, kNo, "", kNo, 0, kNo, kNo}),
              1);
    held_build::Release();
    EXPECT_TRUE(m_objLog.WaitFor("DEBUG superseded start skipped in [gst-jpeg] --["));
    EXPECT_EQ(m_objLog.Count("INFO gst cmd [udpsrc"), 1);
}

/* The stop of a preview that hangs takes its time; the wait for its restart does not add to it. */
TEST_F(EncoderTest, AStopRequestEndsTheWaitForAStart)
{
    held_build::Hold("udpsrc");
    ASSERT_EQ(Timing(1920, 1080, 60), 1);
    held_build::WaitUntilHeld();
    moved_time::DivideSleeps(50);
    Report(1000, 0);
    std::thread objStopper([this] {
        EXPECT_TRUE(m_objLog.WaitFor("] restart --["));
        m_pEncoder->SendStopRequest();
    });
    const std::uint64_t u64Slept = moved_time::SleptMicroseconds();
    Report(1020, 0);
    /* 41 x 500 ms, 10 x 1 s, 500 ms and 50 ms; of the 9.9 s of the wait only the first looks. */
    EXPECT_LT(moved_time::SleptMicroseconds() - u64Slept, 31050000U + 5000000U);
    objStopper.join();
    /* And what follows is not begun. */
    m_objLog.Clear();
    EXPECT_EQ(Timing(1280, 720, 60), 1);
    EXPECT_FALSE(m_objLog.Has("gstreamer stop"));
    held_build::Release();
}
} // namespace
