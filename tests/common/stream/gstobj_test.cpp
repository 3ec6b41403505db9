#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "common/stream/gstobj.h"
#include "tests/common/stream/gst_start.h"
#include "tests/support/held_build.h"
#include "tests/support/log_capture.h"
#include "tests/support/moved_time.h"

namespace
{
class CGStreamer : public testing::Environment
{
public:
    void SetUp() override { CGstObj::Initialize(); }
    void TearDown() override { CGstObj::Deinitialize(); }
};
[[maybe_unused]] testing::Environment *g_pGStreamer =
    testing::AddGlobalTestEnvironment(new CGStreamer);

class GstObjTest : public testing::Test
{
protected:
    void SetUp() override
    {
        moved_time::DivideSleeps(100);
        /* GLib only complains when it is misused. */
        g_log_set_always_fatal(
            static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL));
    }

    /* Starts a description on a thread of its own, as a worker does. */
    std::thread Run(const std::string &i_strText)
    {
        return std::thread([this, stMsg = StartMsg(i_strText)] {
            EXPECT_EQ(m_objRunner.HandleStartMsgEnc(&stMsg, nullptr), 0);
            m_s32Ended++;
        });
    }
    void RunToItsEnd(const std::string &i_strText)
    {
        m_objLog.Clear();
        Run(i_strText).join();
    }

    /* A good start and its stop, from line to line. */
    void ExpectAGoodRun(const std::string &i_strText = kEndless)
    {
        m_objLog.Clear();
        m_s32Ended = 0;
        std::thread objRun = Run(i_strText);
        EXPECT_TRUE(m_objLog.WaitFor("async-done in [gst-h264]"));
        EXPECT_EQ(m_s32Ended, 0);
        EXPECT_EQ(m_objRunner.HandleStopMsgEnc(nullptr, nullptr), 1);
        objRun.join();
        std::string strOrder;
        for (const std::string &strLine : m_objLog.Lines()) {
            strOrder += strLine.starts_with("DEBUG") ? "" : strLine.substr(0, strLine.find('['));
        }
        EXPECT_EQ(strOrder,
                  "INFO gst cmd INFO Let's run INFO stop gst main loop in INFO Going out ");
        EXPECT_TRUE(m_objLog.Has("INFO Let's run [gst-h264]! --[gstobj.cpp:"));
    }

    CLogCapture m_objLog;
    CGstObj m_objRunner{"gst-h264"};
    std::atomic<int> m_s32Ended{0};
};

TEST_F(GstObjTest, WhatCannotBeBuiltIsReportedAndAGoodStartFollows)
{
    for (const auto &[pText, pReason] :
         {std::pair{"fakesrc ! ! fakesink", "syntax error"},
          {kUnknown, "no element \"nosuchelement\""},
          {"fakesrc nosuchproperty=1 ! fakesink", "no property \"nosuchproperty\""},
          {"", "empty pipeline not allowed"}}) {
        RunToItsEnd(pText);
        EXPECT_EQ(m_objLog.Lines().size(), 2U);
        EXPECT_TRUE(m_objLog.Has("ERROR pipeline could not be constructed: "));
        EXPECT_TRUE(m_objLog.Has(pReason)) << m_objLog.Lines().back();
        EXPECT_TRUE(m_objLog.Has(" in [gst-h264] --["));
    }
    held_build::YieldNothing();
    RunToItsEnd(kEndless);
    EXPECT_TRUE(m_objLog.Has("ERROR Bad source in gst-h264 --["));
    EXPECT_EQ(m_objRunner.HandleStartMsgEnc(nullptr, nullptr), 0);
    EXPECT_TRUE(m_objLog.Has("ERROR start msg null in [gst-h264] --["));
    /* A text that fills the payload ends with it. */
    std::string strText(1024, ' ');
    strText.replace(0, strlen(kEndless), kEndless);
    strText.back() = '\t';
    ExpectAGoodRun(strText);
    EXPECT_TRUE(m_objLog.Has("gst cmd [" + strText + "] in [gst-h264] --["));
}

TEST_F(GstObjTest, AStopEndsAnAnnouncedStartAndNoLaterOne)
{
    const std::uint64_t u64Slept = moved_time::SleptMicroseconds();
    EXPECT_EQ(m_objRunner.HandleStopMsgEnc(nullptr, nullptr), 0);
    EXPECT_EQ(moved_time::SleptMicroseconds(), u64Slept);
    EXPECT_TRUE(m_objLog.Has("WARN m_stGstObj.pLoop is NULL in [gst-h264] --["));
    ExpectAGoodRun();

    UInt64 u64Number = m_objRunner.PrepareStart();
    EXPECT_EQ(m_objRunner.PrepareStart(), 0U); /* one at a time */
    m_objRunner.CancelStart(u64Number - 1);    /* somebody else's */
    EXPECT_EQ(m_objRunner.HandleStopMsgEnc(nullptr, nullptr), 0);
    RunToItsEnd(kEndless);
    EXPECT_TRUE(m_objLog.Has("Going out [gst-h264]"));

    u64Number = m_objRunner.PrepareStart();
    EXPECT_EQ(m_objRunner.HandleStopMsgEnc(nullptr, nullptr), 0);
    m_objRunner.CancelStart(u64Number);
    ExpectAGoodRun();
}

TEST_F(GstObjTest, ASecondStartIsRefusedAndDisturbsNothing)
{
    std::thread objFirst = Run(kEndless);
    EXPECT_TRUE(m_objLog.WaitFor("async-done in [gst-h264]"));
    Run("fakesrc ! fakesink").join();
    EXPECT_TRUE(
        m_objLog.Has("ERROR m_stGstObj.pLoop OR m_stGstObj.pSource is not null in [gst-h264] --["));
    EXPECT_EQ(m_s32Ended, 1);
    EXPECT_EQ(m_objRunner.HandleStopMsgEnc(nullptr, nullptr), 1);
    objFirst.join();
}

TEST_F(GstObjTest, AFailingElementEndsTheRunAndAnEndOfStreamDoesNot)
{
    for (const char *pText : {kFailing, "fakesrc ! fakesink state-error=ready-to-paused"}) {
        RunToItsEnd(pText);
        EXPECT_TRUE(m_objLog.Has("ERROR Received error in [gst-h264] --["));
        EXPECT_TRUE(m_objLog.Has("INFO Going out [gst-h264] --["));
    }
    /* The pipeline refuses to be treated as an application source. */
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK));
    m_s32Ended = 0;
    std::thread objRun = Run(kDry);
    EXPECT_TRUE(m_objLog.WaitFor("ERROR The source in [gst-h264] got dry --["));
    usleep(20000000); /* a fifth of a second, divided */
    EXPECT_EQ(m_s32Ended, 0);
    EXPECT_EQ(m_objRunner.HandleStopMsgEnc(nullptr, nullptr), 1);
    objRun.join();
    ExpectAGoodRun();
}

TEST_F(GstObjTest, AStopOfAHangingBuildGivesUpWaitingAndIsNotLost)
{
    held_build::Hold();
    std::thread objRun = Run(kEndless);
    held_build::WaitUntilHeld();
    const std::uint64_t u64Slept = moved_time::SleptMicroseconds();
    EXPECT_EQ(m_objRunner.HandleStopMsgEnc(nullptr, nullptr), 1);
    /* 41 x 500 ms, 10 x 1 s and the last 500 ms */
    EXPECT_EQ(moved_time::SleptMicroseconds() - u64Slept, 31000000U);
    EXPECT_EQ(m_objLog.Count("INFO wait pLoop to run in [gst-h264] --["), 41);
    EXPECT_TRUE(m_objLog.Has("WARN count:41, force quit in [gst-h264] --["));
    EXPECT_EQ(m_s32Ended, 0);
    held_build::Release();
    objRun.join();
    EXPECT_TRUE(m_objLog.Has("INFO Going out [gst-h264] --["));
    ExpectAGoodRun();
}
} // namespace
