/*
 * Idle timers and timeout records, mostly by moved time: after a leap of the clock a thread that
 * waits tests its deadlines again when something else wakes it.
 */
#include <atomic>
#include <limits>

#include <gtest/gtest.h>

#include "framework/clock.h"
#include "framework/idletask.h"
#include "framework/timeouttask.h"
#include "tests/support/moved_time.h"
#include "tests/support/wait_until.h"

namespace
{
constexpr SInt64 kHourMs = 3600000;
constexpr SInt64 kNeverMs = std::numeric_limits<SInt64>::max();

class CCountingTask : public CIdleTask
{
public:
    SInt64 Run() override
    {
        m_u32Events |= GetEvents();
        m_s32Runs++;
        return 0;
    }
    void WaitForRuns(int i_s32Runs)
    {
        EXPECT_TRUE(WaitUntil([&] { return m_s32Runs >= i_s32Runs; }));
    }

    std::atomic<int> m_s32Runs{0};
    std::atomic<UInt32> m_u32Events{0};
};

/* Gives the scanning task away, so that a test can scan. */
struct CScanned : CTimeoutTask {
    static CTimeoutTaskThread *Scanner() { return s_pThread; }
};

class CTimersTest : public testing::Test
{
protected:
    CTimersTest()
    {
        CIdleTask::Initialize();
        CIdleTask::Initialize();
    }
    ~CTimersTest() override { CTaskThreadPool::RemoveThreads(); }

    /* Has the idle thread test its timers, and waits for what it signals to have run. */
    static void AdvanceAndPoke(SInt64 i_s64Milliseconds)
    {
        moved_time::Advance(i_s64Milliseconds);
        CCountingTask objPoke;
        objPoke.SetIdleTimer(-1);
        objPoke.WaitForRuns(1);
        CTaskThreadPool::RemoveThreads();
        CTaskThreadPool::AddThreads(1);
    }
};
} // namespace

TEST_F(CTimersTest, AnIdleTimerKeepsItsFirstDeadlineAndFiresOnce)
{
    CTaskThreadPool::AddThreads(1);
    CCountingTask objEarly, objLate, objCancelled, objNever;
    objEarly.SetIdleTimer(1000);
    objEarly.SetIdleTimer(kHourMs);
    objLate.SetIdleTimer(kHourMs);
    objLate.SetIdleTimer(1000);
    objCancelled.SetIdleTimer(1000);
    objCancelled.CancelTimeout();
    objNever.CancelTimeout();
    objNever.SetIdleTimer(kNeverMs);
    for (int s32Late : {0, 1}) {
        AdvanceAndPoke(s32Late == 0 ? 1001 : kHourMs);
        EXPECT_EQ(objEarly.m_s32Runs, 1);
        EXPECT_EQ(objLate.m_s32Runs, s32Late);
        EXPECT_EQ(objCancelled.m_s32Runs + objNever.m_s32Runs, 0);
    }
    EXPECT_EQ(objEarly.m_u32Events, CTask::kIdleEvent);
}

TEST_F(CTimersTest, AnEarlierTimerShortensTheIdleThreadsWait)
{
    CTaskThreadPool::AddThreads(1);
    CCountingTask objLate, objEarly;
    objLate.SetIdleTimer(kHourMs);
    CThread::Sleep(20);
    SInt64 s64Before = GetTimeInMs();
    objEarly.SetIdleTimer(30);
    objEarly.WaitForRuns(1);
    EXPECT_GE(GetTimeInMs() - s64Before, 30);
    CTaskThreadPool::RemoveThreads();
}

TEST_F(CTimersTest, IdleTasksMayGoWhileTheirTimersFire)
{
    CTaskThreadPool::AddThreads(2);
    /* Dies in its second run, its timer set once more. */
    struct CShortLived : CIdleTask {
        explicit CShortLived(std::atomic<int> &i_objGone) : m_objGone(i_objGone) {}
        ~CShortLived() override { m_objGone++; }
        SInt64 Run() override
        {
            UInt32 u32Events = GetEvents();
            SetIdleTimer(0);
            return (u32Events & kStartEvent) != 0 ? 0 : -1;
        }
        std::atomic<int> &m_objGone;
    };
    std::atomic<int> s32Gone{0};
    for (int i = 0; i < 300; i++) {
        (new CShortLived(s32Gone))->Signal(CTask::kStartEvent);
    }
    EXPECT_TRUE(WaitUntil([&] { return s32Gone == 300; }));
}

TEST_F(CTimersTest, ARecordWakesItsTaskThroughThePool)
{
    CTaskThreadPool::AddThreads(1);
    CTimeoutTask::Initialize(100);
    CCountingTask objTask, objPoke;
    CTimeoutTask objRecord(&objTask, 60000, CTask::kTimeoutEvent | CTask::kReadEvent);
    objPoke.Signal(CTask::kStartEvent);
    objPoke.WaitForRuns(1);
    EXPECT_EQ(objTask.m_s32Runs, 0);
    for (int i = 1; i <= 3; i++) {
        moved_time::Advance(61001);
        objPoke.Signal(CTask::kStartEvent);
        objTask.WaitForRuns(i);
    }
    EXPECT_EQ(objTask.m_u32Events, CTask::kTimeoutEvent | CTask::kReadEvent);
    CTaskThreadPool::RemoveThreads();
}

TEST_F(CTimersTest, AScanSignalsWhatIsDueEveryTimeAndAddsASecondToTheRest)
{
    CTaskThreadPool::AddThreadPools(1); /* without threads nobody scans but this test */
    CTimeoutTask::Initialize(100);
    CTimeoutTask::Initialize(500);
    CTimeoutTaskThread &objScanner = *CScanned::Scanner();
    EXPECT_EQ(objScanner.GetIntervalMilli(), 100);
    EXPECT_EQ(objScanner.Run(), 1000);

    CCountingTask objTask;
    CTimeoutTask objDue(&objTask, 2000, CTask::kTimeoutEvent);
    CTimeoutTask objOff(&objTask, 0, CTask::kReadEvent),
        objNobody(nullptr, 3000, CTask::kKillEvent);
    EXPECT_EQ(objScanner.Run(), 1000);
    moved_time::Advance(5000);
    EXPECT_LE(objDue.GetTimeRemaining(), -3000);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(objTask.GetEvents(), 0u);
        EXPECT_EQ(objScanner.Run(), 1000);
        EXPECT_EQ(objTask.GetEvents(), CTask::kTimeoutEvent);
    }
    objDue.SetTimeout(500);
    SInt64 s64Before = objDue.GetTimeRemaining();
    SInt64 s64Next = objScanner.Run();
    EXPECT_LE(s64Next, 1000 + s64Before);
    EXPECT_GE(s64Next, 1000 + objDue.GetTimeRemaining());
    EXPECT_GT(s64Next, 1000);
    EXPECT_EQ(objTask.GetEvents(), 0u);

    /* The younger record counts although the older is due sooner. */
    CTimeoutTask objYounger(&objTask, 1000, CTask::kTimeoutEvent);
    EXPECT_GT(objScanner.Run(), 1500);
    objDue.SetTimeout(0);
    objYounger.SetTimeout(kNeverMs);
    EXPECT_EQ(objScanner.Run(), 1000);
}

TEST(TimersDeathTest, NothingWorksBeforeTheServicesAre)
{
    EXPECT_DEATH({ CCountingTask objTask; }, "`s_pIdleThread != NULL'");
    EXPECT_DEATH(CTimeoutTask(nullptr, 0, 0), "`s_pThread != NULL'");
    CIdleTask::Initialize();
    CCountingTask objTask;
    EXPECT_DEATH(CIdleTaskThread().SetIdleTimer(&objTask, 1000),
                 "`m_objIdleHeap.CurrentHeapSize.. == 0'");
}
