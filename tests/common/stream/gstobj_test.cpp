#include <gtest/gtest.h>

#include <atomic>
#include <cstring>

#include "common/stream/gstobj.h"
#include "framework/thread.h"
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

/* Starts a description on a thread of its own, as a worker does. */
class CRun : public CThread
{
public:
    CRun(CGstObj *i_pRunner, const std::string &i_strText)
        : m_pRunner(i_pRunner), m_stMsg(StartMsg(i_strText))
    {
        Start();
    }
    ~CRun() override { StopAndWaitForThread(); }
    void Entry() override
    {
        m_s32Result = m_pRunner->HandleStartMsgEnc(&m_stMsg, nullptr);
        m_bEnded = true;
    }
    std::atomic<bool> m_bEnded{false};
    int m_s32Result = -1;

private:
    CGstObj *m_pRunner;
    MSG_DESC_INFO_S m_stMsg;
};

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

    /* A good start and its stop, from line to line. */
    void ExpectAGoodRun(const std::string &i_strText = kEndless)
    {
        m_objLog.Clear();
        CRun objRun(&m_objRunner, i_strText);
        ASSERT_TRUE(m_objLog.WaitFor("async-done in [gst-h264]"));
        EXPECT_FALSE(objRun.m_bEnded);
        EXPECT_EQ(m_objRunner.HandleStopMsgEnc(nullptr, nullptr), 1);
        objRun.Join();
        EXPECT_EQ(objRun.m_s32Result, 0);
        std::string strOrder;
        for (const std::string &strLine : m_objLog.Lines()) {
            for (const char *pText : {"INFO gst cmd [", "INFO Let's run [gst-h264]! --[gstobj.cpp:",
                                      "INFO stop gst main loop in [gst-h264] --[",
                                      "INFO Going out [gst-h264] --[", "ERROR ", "WARN "}) {
                if (strLine.starts_with(pText)) {
                    strOrder += pText[strlen(pText) > 6 ? 5 : 0];
                }
            }
        }
        EXPECT_EQ(strOrder, "gLsG");
    }

    CLogCapture m_objLog;
    CGstObj m_objRunner{"gst-h264"};
};

TEST_F(GstObjTest, WhatCannotBeBuiltIsReportedAndAGoodStartFollows)
{
    struct {
        const char *pText;
        const char *pReason;
    } const stCases[] = {
        {"fakesrc ! ! fakesink", "syntax error"},
        {kUnknown, "no element \"nosuchelement\""},
        {"fakesrc nosuchproperty=1 ! fakesink", "no property \"nosuchproperty\""},
        {"", "empty pipeline not allowed"},
    };
    for (const auto &stCase : stCases) {
        m_objLog.Clear();
        CRun objRun(&m_objRunner, stCase.pText);
        objRun.Join();
        EXPECT_EQ(objRun.m_s32Result, 0);
        EXPECT_EQ(m_objLog.Lines().size(), 2U);
        EXPECT_TRUE(m_objLog.Has("ERROR pipeline could not be constructed: "));
        EXPECT_TRUE(m_objLog.Has(stCase.pReason)) << m_objLog.Lines().back();
        EXPECT_TRUE(m_objLog.Has(" in [gst-h264] --["));
    }
    held_build::YieldNothing();
    CRun objRun(&m_objRunner, kEndless);
    objRun.Join();
    EXPECT_TRUE(m_objLog.Has("ERROR Bad source in gst-h264 --["));
    EXPECT_EQ(m_objRunner.HandleStartMsgEnc(nullptr, nullptr), 0);
    EXPECT_TRUE(m_objLog.Has("ERROR start msg null in [gst-h264] --["));
    ExpectAGoodRun();
}

TEST_F(GstObjTest, ATextThatFillsThePayloadEndsWithIt)
{
    std::string strText(1024, ' ');
    strText.replace(0, strlen(kEndless), kEndless);
    strText.back() = '\t';
    ExpectAGoodRun(strText);
    EXPECT_TRUE(m_objLog.Has("gst cmd [" + strText + "] in [gst-h264] --["));
}

TEST_F(GstObjTest, AStopWithoutARunIsOverAtOnceAndHarmsNoLaterStart)
{
    std::uint64_t u64Slept = moved_time::SleptMicroseconds();
    EXPECT_EQ(m_objRunner.HandleStopMsgEnc(nullptr, nullptr), 0);
    EXPECT_EQ(moved_time::SleptMicroseconds(), u64Slept);
    EXPECT_TRUE(m_objLog.Has("WARN m_stGstObj.pLoop is NULL in [gst-h264] --["));
    ExpectAGoodRun();
    const UInt64 u64Number = m_objRunner.PrepareStart();
    EXPECT_EQ(m_objRunner.HandleStopMsgEnc(nullptr, nullptr), 0);
    m_objRunner.CancelStart(u64Number);
    ExpectAGoodRun();
}

TEST_F(GstObjTest, AStopOfAnAnnouncedStartEndsItOnceItRuns)
{
    const UInt64 u64Number = m_objRunner.PrepareStart();
    EXPECT_EQ(m_objRunner.PrepareStart(), 0U); /* one at a time */
    m_objRunner.CancelStart(u64Number - 1);    /* somebody else's */
    EXPECT_EQ(m_objRunner.HandleStopMsgEnc(nullptr, nullptr), 0);
    CRun objRun(&m_objRunner, kEndless);
    objRun.Join();
    EXPECT_TRUE(m_objLog.Has("Going out [gst-h264]"));
    ExpectAGoodRun();
}

TEST_F(GstObjTest, ASecondStartIsRefusedAndDisturbsNothing)
{
    CRun objFirst(&m_objRunner, kEndless);
    ASSERT_TRUE(m_objLog.WaitFor("async-done in [gst-h264]"));
    CRun objSecond(&m_objRunner, "fakesrc ! fakesink");
    objSecond.Join();
    EXPECT_EQ(objSecond.m_s32Result, 0);
    EXPECT_TRUE(
        m_objLog.Has("ERROR m_stGstObj.pLoop OR m_stGstObj.pSource is not null in [gst-h264] --["));
    EXPECT_FALSE(objFirst.m_bEnded);
    EXPECT_EQ(m_objRunner.HandleStopMsgEnc(nullptr, nullptr), 1);
    objFirst.Join();
}

TEST_F(GstObjTest, AFailingElementEndsTheRun)
{
    for (const char *pText : {kFailing, "fakesrc ! fakesink state-error=ready-to-paused"}) {
        m_objLog.Clear();
        CRun objRun(&m_objRunner, pText);
        objRun.Join();
        EXPECT_TRUE(m_objLog.Has("ERROR Received error in [gst-h264] --["));
        EXPECT_TRUE(m_objLog.Has("INFO Going out [gst-h264] --["));
    }
    ExpectAGoodRun();
}

TEST_F(GstObjTest, AnEndOfStreamAloneDoesNotEndTheRun)
{
    /* The pipeline refuses to be treated as an application source. */
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK));
    CRun objRun(&m_objRunner, kDry);
    ASSERT_TRUE(m_objLog.WaitFor("ERROR The source in [gst-h264] got dry --["));
    usleep(20000000); /* a fifth of a second, divided */
    EXPECT_FALSE(objRun.m_bEnded);
    EXPECT_EQ(m_objRunner.HandleStopMsgEnc(nullptr, nullptr), 1);
    objRun.Join();
    ExpectAGoodRun();
}

TEST_F(GstObjTest, AStopOfAHangingBuildGivesUpWaitingAndIsNotLost)
{
    held_build::Hold();
    CRun objRun(&m_objRunner, kEndless);
    held_build::WaitUntilHeld();
    std::uint64_t u64Slept = moved_time::SleptMicroseconds();
    EXPECT_EQ(m_objRunner.HandleStopMsgEnc(nullptr, nullptr), 1);
    /* 41 x 500 ms, 10 x 1 s and the last 500 ms */
    EXPECT_EQ(moved_time::SleptMicroseconds() - u64Slept, 31000000U);
    EXPECT_EQ(m_objLog.Count("INFO wait pLoop to run in [gst-h264] --["), 41);
    EXPECT_TRUE(m_objLog.Has("WARN count:41, force quit in [gst-h264] --["));
    EXPECT_FALSE(objRun.m_bEnded);
    held_build::Release();
    objRun.Join();
    EXPECT_TRUE(m_objLog.Has("INFO Going out [gst-h264] --["));
    ExpectAGoodRun();
}

} // namespace
