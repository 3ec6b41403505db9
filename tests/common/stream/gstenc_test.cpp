#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "common/stream/gstenc.h"
#include "tests/common/stream/gst_start.h"
#include "tests/support/held_build.h"
#include "tests/support/log_capture.h"
#include "tests/support/moved_time.h"

namespace
{
class GstEncTest : public testing::Test
{
protected:
    void SetUp() override { moved_time::DivideSleeps(100); }

    static void SendStart(CGstEnc *i_pWorker, const char *i_pText)
    {
        MSG_DESC_INFO_S stMsg = StartMsg(i_pText);
        EXPECT_EQ(i_pWorker->PushMsg(&stMsg), 1);
    }

    CLogCapture m_objLog;
};

TEST_F(GstEncTest, AStopMessageIsIgnoredAndTheNextStartFollowsTheStopCall)
{
    CGstEnc objWorker("gst-h264");
    objWorker.Start();
    SendStart(&objWorker, kFailing);
    ASSERT_TRUE(m_objLog.WaitFor("Going out [gst-h264]"));
    EXPECT_EQ(objWorker.GetStartStatus(), 1);
    EXPECT_TRUE(m_objLog.Has("INFO gstreamer start, old status:0 --["));
    EXPECT_FALSE(m_objLog.Has("gstreamer need stop"));
    m_objLog.Clear();
    MSG_DESC_INFO_S stStop = MakeMsg(1, 2, 3, 5);
    EXPECT_EQ(objWorker.PushMsg(&stStop), 1);

    /* Still marked as started, so the next start stops the runner before. */
    SendStart(&objWorker, kEndless);
    ASSERT_TRUE(m_objLog.WaitFor("async-done in [gst-h264]"));
    EXPECT_EQ(m_objLog.Count("WARN gstreamer need stop --["), 1);
    EXPECT_EQ(m_objLog.Count("WARN m_stGstObj.pLoop is NULL in [gst-h264] --["), 1);
    EXPECT_EQ(m_objLog.Count("INFO gstreamer start, old status:1 --["), 1);

    EXPECT_EQ(objWorker.HandleStopMsgEnc(nullptr, nullptr), 1);
    EXPECT_TRUE(m_objLog.Has("INFO gstreamer stop gst-h264, old status:1 --["));
    EXPECT_EQ(objWorker.GetStartStatus(), 0);
    SendStart(&objWorker, kEndless);
    ASSERT_TRUE(m_objLog.WaitFor("async-done in [gst-h264]", 2));
    EXPECT_EQ(m_objLog.Count("gstreamer need stop"), 1);
}

TEST_F(GstEncTest, AStartBesideARunEndsThatRunFirst)
{
    CGstEnc objWorker("gst-h264");
    objWorker.Start();
    SendStart(&objWorker, kEndless);
    ASSERT_TRUE(m_objLog.WaitFor("async-done in [gst-h264]"));
    MSG_DESC_INFO_S stMsg = StartMsg(kFailing);
    EXPECT_EQ(objWorker.HandleStartMsgEnc(&stMsg, nullptr), 0);
    EXPECT_TRUE(m_objLog.Has("WARN gstreamer need stop --["));
    EXPECT_EQ(m_objLog.Count("Let's run [gst-h264]!"), 2);
    EXPECT_EQ(m_objLog.Count("Going out [gst-h264]"), 2);
    EXPECT_FALSE(m_objLog.Has("is not null"));
}

TEST_F(GstEncTest, AFloodIsCutAndDestroyingEndsOnlyTheRun)
{
    {
        CGstEnc objWorker("gst-jpeg");
        objWorker.Start();
        SendStart(&objWorker, kEndless);
        ASSERT_TRUE(m_objLog.WaitFor("async-done in [gst-jpeg]"));
        for (int i = 0; i < 49; i++) {
            SendStart(&objWorker, kEndless);
        }
        MSG_DESC_INFO_S stMsg = StartMsg(kEndless);
        EXPECT_EQ(objWorker.PushMsg(&stMsg), 0);
        EXPECT_EQ(m_objLog.Count("ERROR CGstEnc pushmsg to gst-jpeg fail --["), 1);
    }
    EXPECT_EQ(m_objLog.Count("gst cmd ["), 1);
    EXPECT_EQ(m_objLog.Count("INFO stop gst main loop in [gst-jpeg] --["), 1);
    EXPECT_EQ(m_objLog.Count("INFO gst-jpeg stop running --["), 1);
    EXPECT_EQ(m_objLog.Count("INFO gstreamer stop gst-jpeg, old status:1 --["), 1);
}

TEST_F(GstEncTest, DestroyingWaitsForABuildAndStartsNothingMore)
{
    held_build::Hold();
    std::thread objReleaser;
    {
        CGstEnc objWorker("gst-h264");
        objWorker.Start();
        SendStart(&objWorker, kEndless);
        held_build::WaitUntilHeld();
        objReleaser = std::thread([this] {
            EXPECT_TRUE(m_objLog.WaitFor("count:41, force quit in [gst-h264]"));
            held_build::Release();
        });
    }
    objReleaser.join();
    EXPECT_TRUE(m_objLog.Has("Going out [gst-h264]"));

    /* A worker that is asked to end does not begin with a start it has just taken. */
    m_objLog.Clear();
    CGstEnc objWorker("gst-h264");
    objWorker.SendStopRequest();
    MSG_DESC_INFO_S stMsg = StartMsg(kEndless);
    EXPECT_EQ(objWorker.HandleStartMsgEnc(&stMsg, nullptr), 0);
    EXPECT_FALSE(m_objLog.Has("gst cmd ["));
}

TEST_F(GstEncTest, EachWorkerHearsItsOwnBusOnItsOwnThread)
{
    CGstEnc objH264("gst-h264");
    CGstEnc objJpeg("gst-jpeg");
    objH264.Start();
    objJpeg.Start();
    for (int i = 1; i <= 10; i++) {
        SendStart(&objH264, kEndless);
        SendStart(&objJpeg, kEndless);
        ASSERT_TRUE(m_objLog.WaitFor("async-done in [gst-h264]", i));
        ASSERT_TRUE(m_objLog.WaitFor("async-done in [gst-jpeg]", i));
        EXPECT_EQ(objH264.HandleStopMsgEnc(nullptr, nullptr), 1);
        EXPECT_EQ(objJpeg.HandleStopMsgEnc(nullptr, nullptr), 1);
    }
    for (const std::string &strLine : m_objLog.Lines()) {
        for (const std::string strName : {"gst-h264", "gst-jpeg"}) {
            if (strLine.find("receive message ") != strLine.npos &&
                strLine.find(" in [" + strName + "]") != strLine.npos) {
                EXPECT_TRUE(strLine.ends_with(" @" + strName)) << strLine;
            }
        }
    }
}
} // namespace
