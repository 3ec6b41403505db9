/*
 * The rules without threads: every event's plan, step by step, and the texts of the pipelines.
 */
#include <gtest/gtest.h>

#include <cstdint>
#include <regex>
#include <string>

#include "common/stream/encoder_rules.h"
#include "common/stream/pipeline_desc.h"

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

/* Carries plans out on paper: a started or stopped worker is a flag, and every step a line. */
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
        const std::string strWorker = bH264 ? "h264" : "jpeg";
        SInt32 &s32Started = bH264 ? m_s32H264 : m_s32Jpeg;
        switch (i_stStep.eAct) {
        case ENC_ACT::kLog:
            m_strLogged = i_stStep.strText;
            return std::string(1, "EWNID"[i_stStep.s32Level / 100 - 3]) + " " +
                   Brief(i_stStep.strText);
        case ENC_ACT::kStop:
            s32Started = 0;
            return "stop " + strWorker;
        case ENC_ACT::kPause:
            return std::to_string(i_stStep.u32Ms) + " ms";
        case ENC_ACT::kSettle:
            m_objRules.AnswerStarted(i_stStep.eWorker, s32Started);
            return "settle " + strWorker;
        case ENC_ACT::kAwaitSettings:
        case ENC_ACT::kAskSettings:
            if (m_bAnswers) {
                m_objRules.AnswerSettings(m_stConfigured);
            }
            return i_stStep.eAct == ENC_ACT::kAskSettings ? "ask settings" : "await settings";
        case ENC_ACT::kAskAddrList:
            if (m_bAnswers) {
                m_objRules.AnswerAddrList(m_strAddrList);
            }
            return "ask addr list";
        case ENC_ACT::kAskMulticastIp:
            m_objRules.AnswerMulticastIp("234.29.78.95");
            return "ask group";
        case ENC_ACT::kStart:
            s32Started = 1;
            EXPECT_NE(m_strLogged.find("[" + i_stStep.strText + "]"), std::string::npos);
            return "start " + strWorker +
                   (i_stStep.pTaken ? std::string(": ") + i_stStep.pTaken + "/" + i_stStep.pLate
                                    : "");
        }
        return "?";
    }

    /* A pipeline's text becomes what distinguishes it. */
    static std::string Brief(std::string i_strLine)
    {
        i_strLine = std::regex_replace(
            i_strLine, std::regex("udpsrc.*raw,width=(-?\\d+),height=(\\d+).*jpeg\\]"), "$1x$2]");
        return std::regex_replace(i_strLine,
                                  std::regex("v4l2src.*width=(\\d+), height=(\\d+), framerate="
                                             "(\\d+).*bitrate=(\\d+) gop-size=(\\d+).*\\]"),
                                  "$1x$2@$3 $4k $5]");
    }

    std::string Timing(SInt32 i_s32Width, SInt32 i_s32Height, SInt32 i_s32Fps,
                       SInt32 i_s32Interlaced = 0)
    {
        return CarryOut(
            m_objRules.OnTiming({i_s32Width, i_s32Height, i_s32Fps, i_s32Interlaced}, m_s32H264));
    }
    std::string Report(SInt64 i_s64Time, UInt32 i_u32Count, bool i_bJpegWorker = true)
    {
        return CarryOut(m_objRules.OnPreviewReport({i_s64Time, i_u32Count, 0}, m_s32H264,
                                                   i_bJpegWorker, m_s32Jpeg));
    }

    CEncoderRules m_objRules;
    STREAM_STATUS_S m_stConfigured = Status(1, 1);
    std::string m_strAddrList = "10.0.0.1:5000";
    bool m_bAnswers = true;
    SInt32 m_s32H264 = 0;
    SInt32 m_s32Jpeg = 0;
    std::string m_strLogged;
};

constexpr char kStopFirst[] = "I we need stop gstreamer\nstop h264\n50 ms\n";
constexpr char kAsk[] = "ask addr list\nask group\nask settings\n";
constexpr char kStartH264[] = "1000 ms\n"
                              "start h264: gstreamer start ok/gstreamer start too long\n";

TEST_F(EncoderRulesTest, TimingsInTurn)
{
    EXPECT_EQ(Timing(1920, 1080, 60),
              std::string("I input timing width:1920 height:1080 fps:60 interlaced:0, gst start:0\n"
                          "I last timing width:0 height:0 fps:0 interlaced:0\n"
                          "I start gstreamer status:0\n") +
                  kStopFirst + "settle jpeg\nawait settings\n" + kAsk +
                  "I cmd jpeg [1280x720]\nstart jpeg\n"
                  "I addr list: 10.0.0.1:5000,127.0.0.1:12350\nD cmd [1920x1080@60 1000k 60]\n" +
                  kStartH264);
    EXPECT_EQ(Timing(1920, 1080, 60),
              "I input timing width:1920 height:1080 fps:60 interlaced:0, gst start:1\n"
              "I last timing width:1920 height:1080 fps:60 interlaced:0\n"
              "I start gstreamer status:1\n");
    /* The configuration does not answer: the last answers hold. The preview runs already. */
    m_bAnswers = false;
    m_strAddrList.clear();
    EXPECT_EQ(Timing(1920, 1080, 50),
              std::string("I input timing width:1920 height:1080 fps:50 interlaced:0, gst start:1\n"
                          "I last timing width:1920 height:1080 fps:60 interlaced:0\n"
                          "I start gstreamer status:1\n") +
                  kStopFirst + "settle jpeg\n" + kAsk +
                  "I addr list: 10.0.0.1:5000,127.0.0.1:12350\nD cmd [1920x1080@50 1000k 60]\n" +
                  kStartH264);
    /* Refused and not stored. */
    EXPECT_EQ(Timing(1920, 1080, 50, 1),
              std::string("I input timing width:1920 height:1080 fps:50 interlaced:1, gst start:1\n"
                          "I last timing width:1920 height:1080 fps:50 interlaced:0\n"
                          "I start gstreamer status:1\n") +
                  kStopFirst + "W interlaced not support\n");
    /* A worker that has been stopped is started again by the same timing; nobody receives. */
    m_bAnswers = true;
    EXPECT_EQ(Timing(1920, 1080, 50),
              std::string("I input timing width:1920 height:1080 fps:50 interlaced:0, gst start:0\n"
                          "I last timing width:1920 height:1080 fps:50 interlaced:0\n"
                          "I start gstreamer status:0\n") +
                  kStopFirst + "settle jpeg\n" + kAsk +
                  "I addr list: 234.29.78.95:59202,127.0.0.1:12350\n"
                  "D cmd [1920x1080@50 1000k 60]\n" +
                  kStartH264);
    for (const INPUT_TIMING_S &stNone :
         {INPUT_TIMING_S{0, 1080, 60, 0}, {1920, 0, 60, 0}, {1920, 1080, 0, 1}}) {
        const SInt32 s32Started = m_s32H264;
        const std::string strSteps =
            Timing(stNone.width, stNone.height, stNone.fps, stNone.interlaced);
        const std::string strEnd = "I stop gstreamer, status:" + std::to_string(s32Started) + "\n" +
                                   (s32Started ? "stop h264\n" : "");
        EXPECT_TRUE(strSteps.ends_with("\n" + strEnd)) << strSteps;
        EXPECT_EQ(m_s32Jpeg, 1);
    }
    EXPECT_NE(Timing(1280, 720, 60).find("I last timing width:1920 height:1080 fps:0 "),
              std::string::npos);
}

TEST_F(EncoderRulesTest, BothOffStillStartsAnIdlePreview)
{
    m_stConfigured = Status(0, 0);
    EXPECT_TRUE(Timing(1920, 1080, 60)
                    .ends_with("ask settings\nI cmd jpeg [1280x720]\nstart jpeg\nI h264 and "
                               "preview not enable\n"));
}

TEST_F(EncoderRulesTest, ASwitchRebuildsBothPipelinesFromWhatChanged)
{
    const std::string strStop = "settle h264\nsettle jpeg\n"
                                "I we need stop gstreamer 264\nstop h264\n50 ms\n"
                                "I we need stop gstreamer jpeg\nstop jpeg\n50 ms\n";
    const std::string strBoth =
        strStop + "ask addr list\nask group\nI addr list: 10.0.0.1:5000,127.0.0.1:12350\n";
    const std::string strStart =
        "1000 ms\nstart h264: gstreamer start 264 ok/gstreamer start 264 too long\n";
    const std::string strHd = "I cmd jpeg [1280x720]\nstart jpeg\n";
    const struct {
        STREAM_STATUS_S stRequest;
        std::string strSteps;
    } stCases[] = {
        {{0, kNo, kNo, "cbr", kNo, kNo, kNo, kNo}, ""},
        {{2, 1, 60, "cbr", 1000000, 1, 720, 1}, ""},
        {{3, 0, 2, "", 200000, 0, 300, 2}, ""},
        {{0, 1, 30, "", kNo, 0, 300, 2},
         strBoth + "D cmd [1920x1080@60 1000k 30]\n" + strStart + strHd},
        {{2, kNo, kNo, "", 2500999, kNo, kNo, kNo},
         strBoth + "D cmd [1920x1080@60 2500k 60]\n" + strStart + strHd},
        {{1, 0, 2, "", 200000, 1, 540, kNo},
         strBoth + "D cmd [1920x1080@60 1000k 60]\n" + strStart +
             "I cmd jpeg [960x540]\nstart jpeg\n"},
        {{1, kNo, kNo, "", kNo, kNo, kNo, 5},
         strBoth + "D cmd [1920x1080@60 1000k 60]\n" + strStart + strHd},
        {{0, 0, kNo, "", kNo, kNo, kNo, kNo},
         strStop +
             "ask addr list\nask group\nI addr list: 127.0.0.1:12350\nD cmd [1920x1080@60 1000k "
             "60]\n" +
             strStart + strHd},
        {{1, kNo, kNo, "", kNo, 0, kNo, kNo},
         strStop +
             "ask addr list\nask group\nI addr list: 10.0.0.1:5000\nD cmd [1920x1080@60 1000k "
             "60]\n" +
             strStart},
        {{2, 0, kNo, "", kNo, 0, kNo, kNo}, strStop + "I h264 and preview not enable\n"},
    };
    for (const auto &stCase : stCases) {
        m_objRules = CEncoderRules();
        m_s32H264 = m_s32Jpeg = 0;
        Timing(1920, 1080, 60);
        const std::string strSteps = CarryOut(m_objRules.OnSettings(stCase.stRequest));
        EXPECT_NE(strSteps.find(std::string("I switch status:") +
                                (stCase.strSteps.empty() ? "0" : "1") + "\nI newnew "),
                  std::string::npos);
        EXPECT_EQ(strSteps.substr(strSteps.find('\n', strSteps.find("newnew")) + 1),
                  stCase.strSteps);
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
    Timing(1920, 1080, 60);
    const std::string strRestart = "I we need stop gstreamer jpeg\nstop jpeg\n50 ms\n"
                                   "I cmd jpeg [1280x720] restart\nstart jpeg\n";
    const struct {
        SInt64 s64Time;
        UInt32 u32Count;
        const char *pStalled; /* null: no restart */
    } stReports[] = {
        {1000, 0, nullptr},
        {1009, 0, nullptr},
        {1010, 0, "<time:1000,count:0> current satus <time:1010,count:0>"},
        {1011, 0, "<time:1000,count:0> current satus <time:1011,count:0>"},
        /* Progress, forwards or backwards, starts the time anew. */
        {1030, 4, nullptr},
        {1039, 4, nullptr},
        {1050, 1, "<time:1030,count:4> current satus <time:1050,count:1>"},
        {1059, 1, nullptr},
        {1060, 1, "<time:1050,count:1> current satus <time:1060,count:1>"},
    };
    for (const auto &stReport : stReports) {
        EXPECT_EQ(Report(stReport.s64Time, stReport.u32Count),
                  stReport.pStalled ? "I jpeg file last status " + std::string(stReport.pStalled) +
                                          "\n" + strRestart
                                    : "");
    }
}

TEST_F(EncoderRulesTest, WhatKeepsAStalledPreviewDown)
{
    Timing(1920, 1080, 60);
    Report(1000, 1);
    auto Then = [this](bool i_bWorker = true) {
        const std::string strSteps = Report(1020, 1, i_bWorker);
        return strSteps.substr(std::min(strSteps.size(), strSteps.find('\n') + 1));
    };
    EXPECT_EQ(Then(false), "E m_pGstEncJpeg is null\n");
    m_s32H264 = 0;
    EXPECT_EQ(Then(), "");
    m_s32H264 = 1;
    m_s32Jpeg = 0;
    EXPECT_EQ(Then(), "E jpeg enc not start\n");
    for (UInt32 u32Enable : {0U, 2U}) {
        m_objRules.AnswerSettings(Status(1, u32Enable));
        EXPECT_EQ(Then(), "");
    }
    m_objRules = CEncoderRules();
    m_objRules.AnswerSettings(Status(1, 1));
    Report(1000, 1);
    m_s32Jpeg = 1;
    EXPECT_EQ(Then(), "I we need stop gstreamer jpeg\nstop jpeg\n50 ms\nE jpeg enc cmd is empty\n");
}

TEST_F(EncoderRulesTest, APlainStartNeedsAnAddressList)
{
    EXPECT_EQ(CarryOut(m_objRules.OnPlainStart()),
              "ask addr list\nI cmd [v4l2src ! video/x-raw ! videoconvert ! vpuenc_h264 ! "
              "rtph264pay ! multiudpsink clients=\"10.0.0.1:5000\"]\nstart h264\n");
    m_strAddrList.clear();
    EXPECT_EQ(CarryOut(m_objRules.OnPlainStart()), "ask addr list\nI ENC addr list is null\n");
}

/* An abandoned plan leaves nothing to go on with. */
TEST_F(EncoderRulesTest, TheNextEventBeginsAfresh)
{
    m_objRules.OnTiming({1920, 1080, 60, 0}, 0);
    EXPECT_TRUE(Timing(0, 0, 0).ends_with("status:0\n"));
    m_objRules.OnTiming({1920, 1080, 60, 0}, 0);
    EXPECT_TRUE(CarryOut(m_objRules.OnSettings({3, 0, 0, "", 0, 0, 0, 0})).ends_with(":0\n"));
}
} // namespace
