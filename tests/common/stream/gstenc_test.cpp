#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <random>
#include <thread>

#include <malloc.h>

#include "common/stream/gstenc.h"
#include "tests/common/stream/gst_start.h"
#include "tests/support/log_capture.h"
#include "tests/support/moved_time.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait_until.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define MV3300_SANITIZED 1
#else
#define MV3300_SANITIZED 0
#endif

namespace
{
constexpr int kRounds = MV3300_SANITIZED ? 1000 : 10000;

class GstEncTest : public testing::Test
{
protected:
    void SetUp() override { moved_time::DivideSleeps(100); }

    static void SendStart(CModule *i_pWorker, const char *i_pText)
    {
        MSG_DESC_INFO_S stMsg = StartMsg(i_pText);
        EXPECT_EQ(i_pWorker->PushMsg(&stMsg), 1);
    }

    CLogCapture m_objLog;
};

TEST_F(GstEncTest, AStartStopsWhatIsStillMarkedAsStarted)
{
    CGstEnc objWorker("gst-h264");
    SendStart(&objWorker, kUnknown); /* superseded before the worker comes to it */
    SendStart(&objWorker, kFailing);
    objWorker.Start();
    ASSERT_TRUE(m_objLog.WaitFor("Going out [gst-h264]"));
    EXPECT_FALSE(m_objLog.Has(kUnknown));
    EXPECT_EQ(objWorker.GetStartStatus(), 1);
    EXPECT_TRUE(m_objLog.Has("INFO gstreamer start, old status:0 --["));
    EXPECT_FALSE(m_objLog.Has("gstreamer need stop"));
    m_objLog.Clear();
    MSG_DESC_INFO_S stStop = MakeMsg(MSG_TYPE_ASYNC, MODULE_ENCODER, MODULE_GST_H264, MSG_STOP);
    EXPECT_EQ(objWorker.PushMsg(&stStop), 1); /* is ignored */

    SendStart(&objWorker, kEndless);
    ASSERT_TRUE(m_objLog.WaitFor("async-done in [gst-h264]"));
    EXPECT_EQ(m_objLog.Count("WARN gstreamer need stop --["), 1);
    EXPECT_EQ(m_objLog.Count("WARN m_stGstObj.pLoop is NULL in [gst-h264] --["), 1);
    EXPECT_EQ(m_objLog.Count("INFO gstreamer start, old status:1 --["), 1);

    /* Also a run that goes on beside it. */
    MSG_DESC_INFO_S stMsg = StartMsg(kFailing);
    EXPECT_EQ(objWorker.HandleStartMsgEnc(&stMsg, nullptr), 0);
    EXPECT_EQ(m_objLog.Count("Let's run [gst-h264]!"), 2);
    EXPECT_EQ(m_objLog.Count("Going out [gst-h264]"), 2);
    EXPECT_FALSE(m_objLog.Has("is not null"));

    EXPECT_EQ(objWorker.HandleStopMsgEnc(nullptr, nullptr), 0);
    EXPECT_TRUE(m_objLog.Has("INFO gstreamer stop gst-h264, old status:1 --["));
    EXPECT_EQ(objWorker.GetStartStatus(), 0);
    m_objLog.Clear();
    SendStart(&objWorker, kEndless);
    ASSERT_TRUE(m_objLog.WaitFor("async-done in [gst-h264]"));
    EXPECT_FALSE(m_objLog.Has("gstreamer need stop"));
}

TEST_F(GstEncTest, AStopEndsTheRunAndAllThatIsQueuedBehindIt)
{
    {
        CGstEnc objWorker("gst-jpeg");
        objWorker.Start();
        SendStart(&objWorker, kEndless);
        ASSERT_TRUE(m_objLog.WaitFor("async-done in [gst-jpeg]"));
        for (int i = 0; i < 49; i++) {
            SendStart(&objWorker, kEndless);
        }
        EXPECT_EQ(objWorker.PushStart(kEndless), 0U);
        EXPECT_EQ(m_objLog.Count("ERROR CGstEnc pushmsg to gst-jpeg fail --["), 1);
        EXPECT_EQ(objWorker.HandleStopMsgEnc(nullptr, nullptr), 1);
        EXPECT_TRUE(m_objLog.WaitFor("DEBUG superseded start skipped in [gst-jpeg] --[", 49));
        EXPECT_EQ(m_objLog.Count("gst cmd ["), 1);
        SendStart(&objWorker, kEndless);
        ASSERT_TRUE(m_objLog.WaitFor("async-done in [gst-jpeg]", 2));
        SendStart(&objWorker, kEndless);
    }
    /* So does its destruction. */
    EXPECT_EQ(m_objLog.Count("gst cmd ["), 2);
    EXPECT_EQ(m_objLog.Count("INFO stop gst main loop in [gst-jpeg] --["), 2);
    EXPECT_EQ(m_objLog.Count("INFO gst-jpeg stop running --["), 1);

    /* A worker that is asked to end does not begin with a start it has just taken. */
    CGstEnc objWorker("gst-h264");
    objWorker.SendStopRequest();
    MSG_DESC_INFO_S stMsg = StartMsg(kEndless);
    EXPECT_EQ(objWorker.HandleStartMsgEnc(&stMsg, nullptr), 0);
    EXPECT_EQ(m_objLog.Count("gst cmd ["), 2);
}

TEST_F(GstEncTest, EachWorkerHearsItsOwnBusOnItsOwnThread)
{
    CGstEnc objWorkers[] = {CGstEnc("gst-h264"), CGstEnc("gst-jpeg")};
    for (CGstEnc &objWorker : objWorkers) {
        objWorker.Start();
    }
    for (int i = 1; i <= 10; i++) {
        for (CGstEnc &objWorker : objWorkers) {
            SendStart(&objWorker, kEndless);
        }
        ASSERT_TRUE(m_objLog.WaitFor("async-done in [gst-", 2 * i));
        for (CGstEnc &objWorker : objWorkers) {
            EXPECT_EQ(objWorker.HandleStopMsgEnc(nullptr, nullptr), 1);
        }
    }
    for (const std::string &strLine : m_objLog.Lines()) {
        const std::string strName =
            strLine.find(" in [gst-h264]") != strLine.npos ? "gst-h264" : "gst-jpeg";
        if (strLine.find("receive message ") != strLine.npos) {
            EXPECT_TRUE(strLine.ends_with(" @" + strName)) << strLine;
        }
    }
}

struct FOOTPRINT_S {
    long s64Descriptors;
    long s64Threads;
    long s64Heap;
    long s64Pages; /* resident */
};

/* Whenever a stop or the worker's end comes: it ends the start, and a round leaves nothing. */
class GstEncRoundsTest : public testing::Test
{
protected:
    void NewWorker()
    {
        m_pWorker.reset();
        m_pWorker = std::make_unique<CGstEnc>("gst-h264");
        m_pWorker->Start();
    }

    void Round(std::mt19937 &io_objRandom)
    {
        const char *const pTexts[] = {kEndless, kEndless, kEndless, kFailing, kDry, kUnknown};
        ASSERT_NE(m_pWorker->PushStart(pTexts[io_objRandom() % std::size(pTexts)]), 0U);
        /* Most of the steps of a start lie in its first moments. */
        const std::chrono::microseconds objMoment(io_objRandom() % 2 * (io_objRandom() % 2001));
        if (io_objRandom() % 100 == 0) {
            /* Also before the start is taken. */
            std::this_thread::sleep_for(objMoment);
            return NewWorker();
        }
        /* A stop supersedes a start that is not taken yet, hence the wait; the next round's wait
         * then proves that this round's run has ended. */
        ASSERT_TRUE(WaitUntil([this] { return m_pWorker->GetStartStatus() == 1; },
                              std::chrono::seconds(30), std::chrono::microseconds(1)));
        const auto objUntil = std::chrono::steady_clock::now() + objMoment;
        while (std::chrono::steady_clock::now() < objUntil) {
        }
        m_pWorker->HandleStopMsgEnc(nullptr, nullptr);
    }

    /* With the threads of past pipelines gone. */
    FOOTPRINT_S Footprint()
    {
        NewWorker();
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        malloc_trim(0);
        FOOTPRINT_S stNow = {EntriesIn("/proc/self/fd"), EntriesIn("/proc/self/task"),
                             static_cast<long>(mallinfo2().uordblks), 0};
        std::string strTotal;
        std::ifstream("/proc/self/statm") >> strTotal >> stNow.s64Pages;
        printf("%ld descriptors, %ld threads, heap %ld, %ld pages\n", stNow.s64Descriptors,
               stNow.s64Threads, stNow.s64Heap, stNow.s64Pages);
        return stNow;
    }

    std::unique_ptr<CGstEnc> m_pWorker;
};

TEST_F(GstEncRoundsTest, AStopAtAnyMomentEndsTheStartAndLeavesNothingBehind)
{
    const char *pSeed = getenv("MV3300_SEED");
    const unsigned u32Seed =
        pSeed ? static_cast<unsigned>(strtoul(pSeed, nullptr, 0)) : std::random_device{}();
    printf("seed %u (MV3300_SEED repeats it)\n", u32Seed);
    std::mt19937 objRandom(u32Seed);
    /* Delays whoever logs at random, so that the two sides meet at other points every time. */
    CLogCapture objLog([objJitter = std::mt19937(u32Seed)]() mutable {
        for (unsigned u32Turns = objJitter() % 64; u32Turns > 0; u32Turns--) {
            std::this_thread::yield();
        }
    });
    moved_time::DivideSleeps(1000);
    /* The cast of an end of stream is refused by GLib, which would print it every time. */
    g_log_set_default_handler([](const gchar *, GLogLevelFlags, const gchar *, gpointer) {},
                              nullptr);
    NewWorker();
    FOOTPRINT_S stBefore = {};
    const auto objEnd = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    int i = -kRounds / 10;
    for (; i < kRounds && !HasFatalFailure() && std::chrono::steady_clock::now() < objEnd; i++) {
        if (i == 0) {
            stBefore = Footprint();
        }
        objLog.Clear();
        Round(objRandom);
    }
    objLog.Clear();
    const FOOTPRINT_S stAfter = Footprint();
    printf("%d of %d rounds\n", i, kRounds); /* a busy machine does fewer */
    EXPECT_LE(stAfter.s64Descriptors, stBefore.s64Descriptors);
    /* GLib's pools keep a few idle threads of changing number. */
    EXPECT_LE(stAfter.s64Threads, stBefore.s64Threads + 4);
    if (!MV3300_SANITIZED) {
        /* Less than 30 bytes a round. */
        EXPECT_LT(stAfter.s64Heap, stBefore.s64Heap + 300000);
        EXPECT_LT(stAfter.s64Pages, stBefore.s64Pages + 1000);
    }
}
} // namespace
