#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <malloc.h>

#include "common/stream/encoder.h"
#include "common/stream/pipeline_desc.h"
#include "tests/support/fake_router.h"
#include "tests/support/held_build.h"
#include "tests/support/log_capture.h"
#include "tests/support/moved_time.h"
#include "tests/support/temp_dir.h"

namespace
{
constexpr UInt32 kNo = 0xFFFFFFFF;

STREAM_STATUS_S Status(UInt32 i_u32H264, UInt32 i_u32Preview)
{
    return {2, i_u32H264, 60, "vbr", 1000000, i_u32Preview, 720, 1};
}

TEST(PipelineDescTest, ReceiversByFlagsAndList)
{
    const struct {
        UInt32 u32H264;
        UInt32 u32Preview;
        const char *pAddrList;
        const char *pClients;
    } stCases[] = {
        {1, 1, "", "234.29.78.95:59202,127.0.0.1:12350"},
        {1, 1, "10.0.0.1:5000,h:1", "10.0.0.1:5000,h:1,127.0.0.1:12350"},
        {0, 1, "10.0.0.1:5000", "127.0.0.1:12350"},
        {1, 0, "", "234.29.78.95:59202"},
        {1, 0, "10.0.0.1:5000", "10.0.0.1:5000"},
        {0, 0, "10.0.0.1:5000", ""},
    };
    for (const auto &stCase : stCases) {
        EXPECT_EQ(BuildClients(Status(stCase.u32H264, stCase.u32Preview), stCase.pAddrList,
                               "234.29.78.95"),
                  stCase.pClients);
    }
    EXPECT_EQ(BuildClients(Status(1, 1), std::string(800, 'a'), "").size(), 767U);
}

TEST(PipelineDescTest, PreviewWidthFollowsTheAspectAndSurvivesAnyTiming)
{
    const struct {
        INPUT_TIMING_S stTiming;
        UInt32 u32Height;
        SInt32 s32Width;
    } stCases[] = {{{1920, 1080, 60, 0}, 720, 1280},
                   {{1366, 768, 60, 0}, 270, 480},
                   {{720, 0, 50, 0}, 720, 0},
                   {{-1920, 1080, 60, 0}, 720, -1280},
                   {{INT32_MIN, -1, 1, 0}, 1, INT32_MIN}};
    for (const auto &stCase : stCases) {
        EXPECT_EQ(PreviewWidth(stCase.stTiming, stCase.u32Height), stCase.s32Width);
    }
}

TEST(PipelineDescTest, WholeTexts)
{
    const INPUT_TIMING_S stTiming = {1920, 1080, 60, 0};
    EXPECT_EQ(BuildH264Cmd(stTiming, Status(1, 1), "10.0.0.1:5000"),
              "v4l2src device=/dev/video0 ! video/x-raw, format=(string)UYVY, width=1920, "
              "height=1080, framerate=60/1 ! videoconvert ! vpuenc_h264 bitrate=1000 gop-size=60 "
              "! rtph264pay mtu=1024 ! queue ! multiudpsink clients=\"10.0.0.1:5000\" "
              "buffer-size=1000000");
    EXPECT_EQ(BuildJpegCmd(stTiming, Status(1, 1)),
              "udpsrc uri=udp://127.0.0.1:12345 caps=\"application/x-rtp\" ! rtph264depay ! "
              "capsfilter caps=\"video/x-h264\" ! h264parse ! avdec_h264 ! queue ! videoconvert ! "
              "videoscale ! video/x-raw,width=1280,height=720 ! jpegenc ! multifilesink "
              "max-files=5 location=/tmp/image/image-%d.jpeg");
    EXPECT_EQ(BuildPlainCmd("10.0.0.1:5000"),
              "v4l2src ! video/x-raw ! videoconvert ! vpuenc_h264 ! rtph264pay ! multiudpsink "
              "clients=\"10.0.0.1:5000\"");
}

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
    STREAM_STATUS_S m_stConfigured = Status(1, 1);
    bool m_bAnswers = true;
    int m_s32Unread = 0; /* questions for the settings before the parameter file has been read */
    std::unique_ptr<CEncoder> m_pEncoder = std::make_unique<CEncoder>();
};

TEST_F(EncoderTest, PlainStartNeedsAnAddressList)
{
    m_strAddrList.clear();
    EXPECT_EQ(Send(MSG_ENC_INIT, 0), 1);
    EXPECT_TRUE(m_objLog.Has("INFO ENC addr list is null --["));
    EXPECT_EQ(Send(MSG_ENC_DEINIT, 0), 0);
    EXPECT_TRUE(m_objLog.Has("INFO enc deinit msg --["));
    m_strAddrList = "127.0.0.1:9";
    EXPECT_EQ(Send(MSG_ENC_INIT, 0), 1);
    EXPECT_TRUE(m_objLog.WaitFor("INFO gst cmd [v4l2src ! video/x-raw ! "));
}

TEST_F(EncoderTest, ATimingBeforeTheFirstMessageMakesTheWorkersAndAwaitsTheSettings)
{
    m_s32Unread = 3;
    EXPECT_EQ(Timing(1920, 1080, 60), 1);
    EXPECT_TRUE(m_objLog.Has("width=1280,height=720"));
    EXPECT_TRUE(m_objLog.Has("INFO addr list: 127.0.0.1:9,127.0.0.1:12350 --["));
    EXPECT_EQ(m_objLog.Count("start gst enc thread --["), 1);
    EXPECT_TRUE(m_objLog.Has("INFO gstreamer start ok --["));
    EXPECT_EQ(Send(MSG_INIT, 0), 1);
    EXPECT_EQ(m_objLog.Count("start gst enc thread --["), 1);
}

TEST_F(EncoderTest, BothOffStillStartsAnIdlePreview)
{
    m_stConfigured = Status(0, 0);
    EXPECT_EQ(Timing(1920, 1080, 60), 1);
    EXPECT_TRUE(m_objLog.Has("INFO cmd jpeg [udpsrc uri=udp://127.0.0.1:12345"));
    EXPECT_TRUE(m_objLog.Has("INFO h264 and preview not enable --["));
    EXPECT_FALSE(m_objLog.Has("addr list:"));
}

TEST_F(EncoderTest, AConfigurationThatDoesNotAnswerKeepsTheLastSettings)
{
    EXPECT_EQ(Timing(1920, 1080, 60), 1);
    m_bAnswers = false;
    m_objLog.Clear();
    EXPECT_EQ(Timing(1280, 720, 60), 1);
    EXPECT_TRUE(m_objLog.Has("bitrate=1000 gop-size=60"));
    EXPECT_TRUE(m_objLog.Has("INFO addr list: 127.0.0.1:9,127.0.0.1:12350 --["));
}

TEST_F(EncoderTest, ASwitchRebuildsBothPipelinesFromWhatChanged)
{
    constexpr char kBoth[] = "127.0.0.1:9,127.0.0.1:12350";
    constexpr char kHd[] = "width=1280,height=720";
    const struct {
        STREAM_STATUS_S stRequest;
        int s32Switch;
        const char *pClients; /* null: no H.264 start */
        const char *pInH264;
        const char *pInJpeg; /* null: no preview start */
    } stCases[] = {
        {{0, kNo, kNo, "cbr", kNo, kNo, kNo, kNo}, 0, nullptr, "", nullptr},
        {{3, 0, 2, "", 200000, 0, 300, 2}, 0, nullptr, "", nullptr},
        {{0, kNo, 30, "", 2500000, 0, 300, kNo}, 1, kBoth, "bitrate=2500 gop-size=30", kHd},
        {{1, 0, 2, "", 200000, kNo, 540, kNo}, 1, kBoth, "=1000 gop-size=60", "=960,"},
        {{0, 0, kNo, "", kNo, kNo, kNo, kNo}, 1, "127.0.0.1:12350", "gop-size=60", kHd},
        {{1, kNo, kNo, "", kNo, 0, kNo, kNo}, 1, "127.0.0.1:9", "gop-size=60", nullptr},
        {{2, 0, kNo, "", kNo, 0, kNo, kNo}, 1, nullptr, "", nullptr},
    };
    for (const auto &stCase : stCases) {
        m_pEncoder = std::make_unique<CEncoder>();
        m_objLog.Clear();
        ASSERT_EQ(Timing(1920, 1080, 60), 1);
        ASSERT_TRUE(m_objLog.WaitFor("gst cmd [udpsrc"));
        m_objLog.Clear();
        EXPECT_EQ(Send(MSG_ENC_SET_STREAM_STATUS, stCase.stRequest), 1);

        const MSG_DESC_INFO_S stForwarded = fake_router::Sent(MSG_SET_STREAM_STATUS).back();
        EXPECT_EQ(stForwarded.dst, MODULE_CONFIG);
        EXPECT_EQ(memcmp(stForwarded.payload, &stCase.stRequest, 60), 0);
        SCOPED_TRACE(testing::PrintToString(m_objLog.Lines()));
        EXPECT_TRUE(
            m_objLog.Has("INFO switch status:" + std::to_string(stCase.s32Switch) + " --["));
        EXPECT_EQ(m_objLog.Count("INFO we need stop gstreamer 264 --["), stCase.s32Switch);
        EXPECT_EQ(m_objLog.Count("INFO we need stop gstreamer jpeg --["), stCase.s32Switch);
        EXPECT_EQ(m_objLog.Count("INFO gstreamer start 264 ok --["), stCase.pClients ? 1 : 0);
        if (stCase.pClients != nullptr) {
            EXPECT_TRUE(m_objLog.Has(std::string("INFO addr list: ") + stCase.pClients + " --["));
            EXPECT_TRUE(m_objLog.Has(stCase.pInH264));
        }
        EXPECT_EQ(m_objLog.Count("INFO cmd jpeg ["), stCase.pInJpeg ? 1 : 0);
        if (stCase.pInJpeg != nullptr) {
            EXPECT_TRUE(m_objLog.Has(stCase.pInJpeg));
        }
    }
    EXPECT_EQ(fake_router::Sent(MSG_SET_STREAM_STATUS).size(), std::size(stCases));
}

TEST_F(EncoderTest, AChangeWithoutTimingIsKeptForTheNextStart)
{
    EXPECT_EQ(Send(MSG_INIT, 0), 1);
    EXPECT_EQ(Send(MSG_ENC_SET_STREAM_STATUS, STREAM_STATUS_S{0, kNo, 30, "", kNo, kNo, kNo, kNo}),
              1);
    EXPECT_TRUE(m_objLog.Has("INFO newnew stream status, h264 enable:1 gop:30 bitrate:1000000, "
                             "preview enable:1 height:720 refreshrate:1 --["));
    EXPECT_TRUE(m_objLog.Has("INFO no input timing --["));
    EXPECT_FALSE(m_objLog.Has("we need stop"));
}

TEST_F(EncoderTest, AStalledPreviewIsRestartedAtEveryReport)
{
    constexpr char kRestart[] = "INFO cmd jpeg [udpsrc uri=udp://127.0.0.1:12345";
    ASSERT_EQ(Timing(1920, 1080, 60), 1);
    ASSERT_TRUE(m_objLog.WaitFor("gst cmd [udpsrc"));
    m_objLog.Clear();
    Report(1000, 0);
    Report(1009, 0);
    EXPECT_FALSE(m_objLog.Has("satus"));
    Report(1010, 0);
    EXPECT_TRUE(m_objLog.Has("INFO jpeg file last status <time:1000,count:0> current satus "
                             "<time:1010,count:0> --["));
    EXPECT_EQ(m_objLog.Count(kRestart), 1);
    EXPECT_TRUE(m_objLog.Has("] restart --["));
    ASSERT_TRUE(m_objLog.WaitFor("gst cmd [udpsrc", 1));
    Report(1011, 0);
    EXPECT_EQ(m_objLog.Count(kRestart), 2);
    ASSERT_TRUE(m_objLog.WaitFor("gst cmd [udpsrc", 2));
    /* Progress, forwards or backwards, starts the time anew. */
    Report(1030, 4);
    Report(1039, 4);
    Report(1039, 1);
    Report(1048, 1);
    EXPECT_EQ(m_objLog.Count(kRestart), 2);
    /* A wanted preview needs a started H.264 pipeline. */
    ASSERT_EQ(Timing(0, 0, 0), 1);
    Report(1100, 1);
    EXPECT_EQ(m_objLog.Count(kRestart), 2);
}

struct COST_S {
    std::size_t u64Bytes; /* of the heap, in use */
    std::ptrdiff_t s64Descriptors;
    std::ptrdiff_t s64Threads;
};

/* Where nothing carries the stream to the preview's port, every report restarts the preview: 1200
 * times an hour. MV3300_RESTARTS says how often here; without it a slow build does fewer. */
TEST_F(EncoderTest, RestartsOfAStalledPreviewCostNothing)
{
    const char *pRestarts = getenv("MV3300_RESTARTS");
    const int s32Restarts = pRestarts != nullptr ? std::atoi(pRestarts) : 100;
    const auto objEnd = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    ASSERT_EQ(Timing(1920, 1080, 60), 1);
    moved_time::DivideSleeps(100);
    Report(1000, 0);
    /* Least over ten restarts, since a run that is being built or torn down holds more. */
    auto RestartTenTimes = [&] {
        COST_S stLeast = {SIZE_MAX, PTRDIFF_MAX, PTRDIFF_MAX};
        for (int i = 0; i < 10; i++) {
            m_objLog.Clear();
            Report(1010, 0);
            EXPECT_TRUE(m_objLog.WaitFor("Let's run [gst-jpeg]!"));
            stLeast = {std::min(stLeast.u64Bytes, mallinfo2().uordblks),
                       std::min(stLeast.s64Descriptors, EntriesIn("/proc/self/fd")),
                       std::min(stLeast.s64Threads, EntriesIn("/proc/self/task"))};
        }
        return stLeast;
    };
    RestartTenTimes();
    const COST_S stFirst = RestartTenTimes();
    COST_S stLast = stFirst;
    for (int i = 0; i < s32Restarts && !HasFailure(); i += 10) {
        stLast = RestartTenTimes();
        if (pRestarts == nullptr && std::chrono::steady_clock::now() > objEnd) {
            break;
        }
    }
    /* Fewer than the restarts in between, each of which a busy machine shows at another point. */
    EXPECT_LT(stLast.s64Descriptors, stFirst.s64Descriptors + 10);
    EXPECT_LT(stLast.s64Threads, stFirst.s64Threads + 10);
    /* The heap scatters by some 100 kB and then stays. */
    EXPECT_LT(stLast.u64Bytes, stFirst.u64Bytes + 512 * 1024);
    RecordProperty("heap",
                   std::to_string(stFirst.u64Bytes) + " to " + std::to_string(stLast.u64Bytes));
}

/* A report or a timing that is waiting behind a restart must not start the preview once more. */
TEST_F(EncoderTest, ARestartedPreviewIsStartedOnce)
{
    moved_time::DivideSleeps(1); /* the real pauses: a real pipeline is raced here */
    ASSERT_EQ(Timing(1920, 1080, 60), 1);
    ASSERT_TRUE(m_objLog.WaitFor("gst cmd [udpsrc"));
    m_objLog.Clear();
    Report(1000, 0);
    Report(1020, 0);
    ASSERT_EQ(Timing(1280, 720, 60), 1);
    EXPECT_EQ(m_objLog.Count("INFO cmd jpeg [udpsrc"), 1);
}

TEST_F(EncoderTest, APreviewThatWasSwitchedOffIsNotRevived)
{
    ASSERT_EQ(Timing(1920, 1080, 60), 1);
    ASSERT_EQ(Send(MSG_ENC_SET_STREAM_STATUS, STREAM_STATUS_S{1, kNo, kNo, "", kNo, 0, kNo, kNo}),
              1);
    Report(1000, 0);
    Report(1020, 0);
    EXPECT_FALSE(m_objLog.Has("satus"));
    EXPECT_EQ(Send(MSG_INIT, 0), 1); /* the configuration wants it on */
    Report(1040, 0);
    EXPECT_TRUE(m_objLog.Has("ERROR jpeg enc not start --["));
    EXPECT_FALSE(m_objLog.Has("] restart --["));
}

TEST_F(EncoderTest, AStartThatIsNotTakenIsToldAndStillComes)
{
    held_build::Hold();
    ASSERT_EQ(Timing(1920, 1080, 60), 1);
    held_build::WaitUntilHeld();
    moved_time::DivideSleeps(200);
    EXPECT_EQ(Timing(1280, 720, 60), 1);
    EXPECT_TRUE(m_objLog.Has("WARN gstreamer start too long --["));
    EXPECT_EQ(Send(MSG_ENC_SET_STREAM_STATUS, STREAM_STATUS_S{0, kNo, 30, "", kNo, kNo, kNo, kNo}),
              1);
    EXPECT_TRUE(m_objLog.Has("WARN gstreamer start 264 too long --["));
    held_build::Release();
    EXPECT_TRUE(m_objLog.WaitFor("width=1280, height=720, framerate=60/1 ! videoconvert ! "
                                 "vpuenc_h264 bitrate=1000 gop-size=30 "));
}
} // namespace
