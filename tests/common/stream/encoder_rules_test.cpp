/*
 * The rules without threads: every event's plan, step by step, down to the texts of the pipelines.
 */
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>

#include "common/stream/encoder_rules.h"
#include "common/stream/pipeline_desc.h"

namespace
{
constexpr UInt32 kNo = 0xFFFFFFFF;
constexpr INPUT_TIMING_S kHd60 = {1920, 1080, 60, 0};
constexpr INPUT_TIMING_S kHd50 = {1920, 1080, 50, 0};

STREAM_STATUS_S Status(UInt32 i_u32H264, UInt32 i_u32Preview)
{
    return {2, i_u32H264, 60, "vbr", 1000000, i_u32Preview, 720, 1};
}

/* The lines of a start; i_strRate: kbit/s and GOP as the text has them. */
std::string H264(int i_s32Fps, const std::string &i_strRate, const std::string &i_strClients)
{
    return "I addr list: " + i_strClients +
           "\nD cmd [v4l2src device=/dev/video0 ! video/x-raw, format=(string)UYVY, width=1920, "
           "height=1080, framerate=" +
           std::to_string(i_s32Fps) + "/1 ! videoconvert ! vpuenc_h264 " + i_strRate +
           " ! rtph264pay mtu=1024 ! queue ! multiudpsink clients=\"" + i_strClients +
           "\" buffer-size=1000000]\n1000 ms\nstart h264: ";
}
std::string Jpeg(const std::string &i_strSize = "width=1280,height=720",
                 const std::string &i_strRestart = "")
{
    return "I cmd jpeg [udpsrc uri=udp://127.0.0.1:12345 caps=\"application/x-rtp\" ! "
           "rtph264depay ! capsfilter caps=\"video/x-h264\" ! h264parse ! avdec_h264 ! queue ! "
           "videoconvert ! videoscale ! video/x-raw," +
           i_strSize + " ! jpegenc ! multifilesink max-files=5 location=/tmp/image/image-%d.jpeg]" +
           i_strRestart + "\nstart jpeg\n";
}

TEST(PipelineDescTest, OddTimingsAndLongListsAreSurvived)
{
    EXPECT_EQ(PreviewWidth({1366, 768, 60, 0}, 270), 480);
    EXPECT_EQ(PreviewWidth({720, 0, 50, 0}, 720), 0);
    EXPECT_EQ(PreviewWidth({INT32_MIN, -1, 1, 0}, 1), INT32_MIN);
    EXPECT_EQ(BuildClients(Status(1, 0), "", "234.29.78.95"), "234.29.78.95:59202");
    EXPECT_EQ(BuildClients(Status(1, 1), std::string(800, 'a'), "").size(), 767U);
}

/* Carries plans out on paper: whether a worker is started is a number, and every step a line. */
class EncoderRulesTest : public testing::Test
{
protected:
    std::string CarryOut(ENC_PLAN i_objPlan)
    {
        std::string strSteps;
        for (; !i_objPlan.empty(); i_objPlan = m_objRules.GoOn()) {
            for (const ENC_STEP_S &stStep : i_objPlan) {
                strSteps += CarryOut(stStep) + "\n";
            }
        }
        return strSteps;
    }

    std::string CarryOut(const ENC_STEP_S &i_stStep)
    {
        const bool bH264 = i_stStep.eWorker == ENC_WORKER::kH264;
        SInt32 &s32Started = bH264 ? m_s32H264 : m_s32Jpeg;
        const std::string strWorker = bH264 ? " h264" : " jpeg";
        switch (i_stStep.eAct) {
        case ENC_ACT::kLog:
            m_strLogged = i_stStep.strText;
            return "EWNID"[i_stStep.s32Level / 100 - 3] + (" " + m_strLogged);
        case ENC_ACT::kPause:
            return std::to_string(i_stStep.u32Ms) + " ms";
        case ENC_ACT::kStop:
            s32Started = 0;
            return "stop" + strWorker;
        case ENC_ACT::kSettle:
            m_objRules.AnswerStarted(i_stStep.eWorker, s32Started);
            return "settle" + strWorker;
        case ENC_ACT::kAwaitSettings:
            return "await settings";
        case ENC_ACT::kAskSettings:
            m_objRules.AnswerSettings(m_stConfigured);
            return "ask settings";
        case ENC_ACT::kAskAddrList:
            m_objRules.AnswerAddrList(m_strAddrList);
            return "ask addr list";
        case ENC_ACT::kAskMulticastIp:
            m_objRules.AnswerMulticastIp("234.29.78.95");
            return "ask group";
        case ENC_ACT::kStart:
            s32Started = 1;
            EXPECT_NE(m_strLogged.find("[" + i_stStep.strText + "]"), std::string::npos);
            return "start" + strWorker + (i_stStep.pTaken ? ": " : "") +
                   (i_stStep.pTaken ? i_stStep.pTaken + ("/" + std::string(i_stStep.pLate)) : "");
        }
        return "?";
    }

    std::string Timing(const INPUT_TIMING_S &i_stTiming, const char *i_pFrom = "I input")
    {
        const std::string strSteps = CarryOut(m_objRules.OnTiming(i_stTiming, m_s32H264));
        return strSteps.substr(std::min(strSteps.size(), strSteps.find(i_pFrom)));
    }
    std::string Report(SInt64 i_s64Time, UInt32 i_u32Count, bool i_bJpegWorker = true)
    {
        return CarryOut(m_objRules.OnPreviewReport({i_s64Time, i_u32Count, 0}, m_s32H264,
                                                   i_bJpegWorker, m_s32Jpeg));
    }

    CEncoderRules m_objRules;
    STREAM_STATUS_S m_stConfigured = Status(1, 1);
    std::string m_strAddrList = "10.0.0.1:5000";
    SInt32 m_s32H264 = 0;
    SInt32 m_s32Jpeg = 0;
    std::string m_strLogged;
};

TEST_F(EncoderRulesTest, TimingsInTurn)
{
    const std::string strStop = "I we need stop gstreamer\nstop h264\n50 ms\n";
    const std::string strAsk = "ask addr list\nask group\nask settings\n";
    const std::string strWait = "gstreamer start ok/gstreamer start too long\n";
    const std::string strBoth = "10.0.0.1:5000,127.0.0.1:12350";
    EXPECT_EQ(Timing(kHd60),
              "I input timing width:1920 height:1080 fps:60 interlaced:0, gst start:0\n"
              "I last timing width:0 height:0 fps:0 interlaced:0\n"
              "I start gstreamer status:0\n" +
                  strStop + "settle jpeg\nawait settings\n" + strAsk + Jpeg() +
                  H264(60, "bitrate=1000 gop-size=60", strBoth) + strWait);
    EXPECT_EQ(Timing(kHd60),
              "I input timing width:1920 height:1080 fps:60 interlaced:0, gst start:1\n"
              "I last timing width:1920 height:1080 fps:60 interlaced:0\n"
              "I start gstreamer status:1\n");
    /* A change; the preview runs already. */
    EXPECT_EQ(Timing(kHd50, "I we"), strStop + "settle jpeg\n" + strAsk +
                                         H264(50, "bitrate=1000 gop-size=60", strBoth) + strWait);
    /* Refused and not stored; a worker that has been stopped is started by the same timing. */
    EXPECT_EQ(Timing({1920, 1080, 50, 1}, "I we"), strStop + "W interlaced not support\n");
    m_strAddrList.clear();
    EXPECT_EQ(Timing(kHd50, "I last"),
              "I last timing width:1920 height:1080 fps:50 interlaced:0\n"
              "I start gstreamer status:0\n" +
                  strStop + "settle jpeg\n" + strAsk +
                  H264(50, "bitrate=1000 gop-size=60", "234.29.78.95:59202,127.0.0.1:12350") +
                  strWait);
    /* No signal leaves the preview alone. */
    for (const INPUT_TIMING_S &stNone :
         {INPUT_TIMING_S{0, 1080, 60, 0}, {1920, 0, 60, 0}, {1920, 1080, 0, 1}}) {
        m_s32H264 = 1;
        EXPECT_EQ(Timing(stNone, "I stop"), "I stop gstreamer, status:1\nstop h264\n");
    }
    EXPECT_EQ(Timing({0, 0, 0, 0}, "I last"),
              "I last timing width:1920 height:1080 fps:0 interlaced:1\n"
              "I stop gstreamer, status:0\n");
    m_stConfigured = Status(0, 0);
    m_s32Jpeg = 0;
    EXPECT_EQ(Timing(kHd50, "I cmd"), Jpeg() + "I h264 and preview not enable\n");
    /* An abandoned plan leaves nothing to go on with. */
    m_objRules.OnTiming(kHd60, 0);
    EXPECT_EQ(Timing({0, 0, 0, 0}, "I stop"), "I stop gstreamer, status:0\n");
}

TEST_F(EncoderRulesTest, ASwitchRebuildsBothPipelinesFromWhatChanged)
{
    constexpr char kBoth[] = "10.0.0.1:5000,127.0.0.1:12350";
    constexpr char kHd[] = "width=1280,height=720";
    const struct {
        STREAM_STATUS_S stRequest;
        const char *pClients; /* null: no switch; empty: both are off */
        const char *pH264;
        const char *pJpeg; /* null: no preview start */
    } stCases[] = {
        {{0, kNo, kNo, "cbr", kNo, kNo, kNo, kNo}, nullptr, "", ""},
        {{2, 1, 60, "cbr", 1000000, 1, 720, 1}, nullptr, "", ""},
        {{3, 0, 2, "", 200000, 0, 300, 2}, nullptr, "", ""},
        {{0, 1, 30, "", kNo, 0, 300, 2}, kBoth, "bitrate=1000 gop-size=30", kHd},
        {{2, kNo, kNo, "", 2500999, kNo, kNo, kNo}, kBoth, "bitrate=2500 gop-size=60", kHd},
        {{1, 0, 2, "", 2, 1, 540, kNo}, kBoth, "bitrate=1000 gop-size=60", "width=960,height=540"},
        {{1, kNo, kNo, "", kNo, kNo, kNo, 5}, kBoth, "bitrate=1000 gop-size=60", kHd},
        {{0, 0, kNo, "", kNo, kNo, kNo, kNo}, "127.0.0.1:12350", "bitrate=1000 gop-size=60", kHd},
        {{1, 0, 2, "", 2, 0, kNo, kNo}, "10.0.0.1:5000", "bitrate=1000 gop-size=60", nullptr},
        {{2, 0, kNo, "", kNo, 0, kNo, kNo}, "", "", nullptr},
        /* All but 0 is on. */
        {{2, 2, kNo, "", kNo, 3, kNo, kNo}, kBoth, "bitrate=1000 gop-size=60", kHd},
    };
    for (const auto &stCase : stCases) {
        m_objRules = CEncoderRules();
        m_s32H264 = m_s32Jpeg = 0;
        Timing(kHd60);
        std::string strExpected = stCase.pClients ? "1\n" : "0\n";
        if (stCase.pClients) {
            strExpected += "settle h264\nsettle jpeg\n"
                           "I we need stop gstreamer 264\nstop h264\n50 ms\n"
                           "I we need stop gstreamer jpeg\nstop jpeg\n50 ms\n";
            strExpected += *stCase.pClients == '\0'
                               ? "I h264 and preview not enable\n"
                               : "ask addr list\nask group\n" +
                                     H264(60, stCase.pH264, stCase.pClients) +
                                     "gstreamer start 264 ok/gstreamer start 264 too long\n";
            strExpected += stCase.pJpeg ? Jpeg(stCase.pJpeg) : "";
        }
        std::string strSteps = CarryOut(m_objRules.OnSettings(stCase.stRequest));
        strSteps.erase(0, strSteps.find("switch status:") + 14);
        EXPECT_EQ(strSteps.erase(2, strSteps.find('\n', 2) - 1), strExpected);
    }
}

TEST_F(EncoderRulesTest, AChangeWithoutTimingIsKeptForTheNextStart)
{
    m_objRules.AnswerSettings(m_stConfigured);
    m_s32Jpeg = 1; /* the input has gone, the preview has stayed */
    EXPECT_EQ(CarryOut(m_objRules.OnSettings({0, kNo, 30, "", kNo, 0, kNo, 9})),
              "I new stream status, h264 enable:-1 gop:30 bitrate:-1, preview enable:0 height:-1 "
              "refreshrate:9\n"
              "I last stream status, h264 enable:1 gop:60 bitrate:1000000, preview enable:1 "
              "height:720 refreshrate:1\n"
              "I switch status:1\n"
              "I newnew stream status, h264 enable:1 gop:30 bitrate:1000000, preview enable:1 "
              "height:720 refreshrate:1\n"
              "settle h264\nsettle jpeg\n"
              "I we need stop gstreamer jpeg\nstop jpeg\n50 ms\nI no input timing\n");
}

TEST_F(EncoderRulesTest, AStalledPreviewIsRestartedAtEveryReport)
{
    const std::string strStop = "I we need stop gstreamer jpeg\nstop jpeg\n50 ms\n";
    Timing(kHd60);
    const struct {
        SInt64 s64Time;
        UInt32 u32Count;
        const char *pStalled; /* empty: no restart */
    } stReports[] = {
        {1000, 0, ""},
        {1009, 0, ""},
        {1010, 0, "<time:1000,count:0> current satus <time:1010,count:0>"},
        {1011, 0, "<time:1000,count:0> current satus <time:1011,count:0>"},
        /* Progress, forwards or backwards, starts the time anew. */
        {1030, 4, ""},
        {1039, 4, ""},
        {1050, 1, "<time:1030,count:4> current satus <time:1050,count:1>"},
        {1059, 1, ""},
        {1060, 1, "<time:1050,count:1> current satus <time:1060,count:1>"},
    };
    for (const auto &[s64Time, u32Count, pStalled] : stReports) {
        EXPECT_EQ(Report(s64Time, u32Count),
                  *pStalled == '\0' ? ""
                                    : "I jpeg file last status " + std::string(pStalled) + "\n" +
                                          strStop + Jpeg("width=1280,height=720", " restart"));
    }
    /* What keeps it down. */
    EXPECT_TRUE(Report(1100, 1, false).ends_with(">\nE m_pGstEncJpeg is null\n"));
    m_s32Jpeg = 0;
    EXPECT_TRUE(Report(1100, 1).ends_with(">\nE jpeg enc not start\n"));
    m_s32H264 = 0;
    EXPECT_EQ(Report(1100, 1), "");
    m_s32H264 = m_s32Jpeg = 1;
    for (UInt32 u32Enable : {0U, 2U}) {
        m_objRules.AnswerSettings(Status(1, u32Enable));
        EXPECT_EQ(Report(1100, 1), "");
    }
    m_objRules = CEncoderRules();
    m_objRules.AnswerSettings(Status(1, 1));
    Report(1000, 1);
    EXPECT_TRUE(Report(1100, 1).ends_with(">\n" + strStop + "E jpeg enc cmd is empty\n"));
}

TEST_F(EncoderRulesTest, APlainStartNeedsAnAddressList)
{
    EXPECT_EQ(CarryOut(m_objRules.OnPlainStart()),
              "ask addr list\nI cmd [v4l2src ! video/x-raw ! videoconvert ! vpuenc_h264 ! "
              "rtph264pay ! multiudpsink clients=\"10.0.0.1:5000\"]\nstart h264\n");
    m_strAddrList.clear();
    EXPECT_EQ(CarryOut(m_objRules.OnPlainStart()), "ask addr list\nI ENC addr list is null\n");
}
} // namespace
