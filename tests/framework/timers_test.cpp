/*
 * Idle timers and timeout records, mostly by moved time: after a leap of the clock a thread that
 * waits looks again when something else wakes it.
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

class CCountingTask : public CIdleTask
{
public:
    SInt64 Run() override
    {
        UInt32 u32Events = GetEvents();
        m_u32Events |= u32Events;
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

/* Gives the looking task away, so that a test can look itself. */
class CLookedAt : public CTimeoutTask
{
public:
    using CTimeoutTask::CTimeoutTask;
    static CTimeoutTaskThread *Looker() { return s_pThread; }
};

class CTimersTest : public testing::Test
{
protected:
    CTimersTest() { CIdleTask::Initialize(); }
    ~CTimersTest() override { CTaskThreadPool::RemoveThreads(); }

    /* Has the idle thread look at its timers, and waits for what it signals to have run. */
    static void PokeIdleThread()
    {
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
    CIdleTask::Initialize();
    CCountingTask objEarly, objLate, objCancelled, objNever;
    objEarly.SetIdleTimer(1000);
    objEarly.SetIdleTimer(kHourMs);
    objLate.SetIdleTimer(kHourMs);
    objLate.SetIdleTimer(1000);
    objCancelled.SetIdleTimer(1000);
    objCancelled.CancelTimeout();
    objNever.CancelTimeout();
    objNever.SetIdleTimer(std::numeric_limits<SInt64>::max());

    moved_time::Advance(1001);
    PokeIdleThread();
    EXPECT_EQ(objEarly.m_s32Runs, 1);
    EXPECT_EQ(objEarly.m_u32Events, 2u);
    EXPECT_EQ(objLate.m_s32Runs, 0);

    moved_time::Advance(kHourMs);
    PokeIdleThread();
    EXPECT_EQ(objLate.m_s32Runs, 1);
    EXPECT_EQ(objEarly.m_s32Runs, 1);
    EXPECT_EQ(objCancelled.m_s32Runs, 0);
    EXPECT_EQ(objNever.m_s32Runs, 0);
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
    CTimeoutTask objRecord(&objTask, 60000, CTask::kTimeoutEvent | 0x40);
    objPoke.Signal(CTask::kStartEvent);
    objPoke.WaitForRuns(1);
    EXPECT_EQ(objTask.m_s32Runs, 0);
    for (int i = 1; i <= 3; i++) {
        moved_time::Advance(61001);
        objPoke.Signal(CTask::kStartEvent);
        objTask.WaitForRuns(i);
    }
    EXPECT_EQ(objTask.m_u32Events, 0x48u);
    CTaskThreadPool::RemoveThreads();
}

TEST_F(CTimersTest, ALookSignalsWhatIsDueEveryTimeAndAddsASecondToTheRest)
{
    CTaskThreadPool::AddThreadPools(1); /* without threads nobody looks but this test */
    CTimeoutTask::Initialize(100);
    CTimeoutTask::Initialize(500);
    CTimeoutTaskThread &objLooker = *CLookedAt::Looker();
    EXPECT_STREQ(objLooker.GetTaskName(), "live_CTimeoutTask");
    EXPECT_EQ(objLooker.GetIntervalMilli(), 100);
    EXPECT_EQ(objLooker.Run(), 1000);

    CCountingTask objTask;
    CTimeoutTask objDue(&objTask, 2000, CTask::kTimeoutEvent), objOff(&objTask, 0, 0x100);
    CTimeoutTask objNobody(nullptr, 3000, 0x200);
    EXPECT_EQ(objLooker.Run(), 1000);
    moved_time::Advance(5000);
    EXPECT_LE(objDue.GetTimeRemaining(), -3000);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(objTask.GetEvents(), 0u);
        EXPECT_EQ(objLooker.Run(), 1000);
        EXPECT_EQ(objTask.GetEvents(), 8u);
    }
    objDue.SetTimeout(500);
    SInt64 s64Before = objDue.GetTimeRemaining();
    SInt64 s64Next = objLooker.Run();
    EXPECT_LE(s64Next, 1000 + s64Before);
    EXPECT_GE(s64Next, 1000 + objDue.GetTimeRemaining());
    EXPECT_GT(s64Next, 1000);
    EXPECT_EQ(objTask.GetEvents(), 0u);

    /* The younger record counts although the older is due sooner. */
    CTimeoutTask objYounger(&objTask, 1000, CTask::kTimeoutEvent);
    EXPECT_GT(objLooker.Run(), 1500);
    objDue.SetTimeout(0);
    objYounger.SetTimeout(std::numeric_limits<SInt64>::max());
    EXPECT_EQ(objLooker.Run(), 1000);
}

TEST(TimersDeathTest, NothingWorksBeforeTheServicesAre)
{
    EXPECT_DEATH({ CCountingTask objTask; }, "`s_pIdleThread != NULL'");
    EXPECT_DEATH(CTimeoutTask(nullptr, 0, 0), "`s_pThread != NULL'");
    EXPECT_DEATH(
        {
            CIdleTask::Initialize();
            CCountingTask objTask;
            CIdleTaskThread objOther;
            objOther.SetIdleTimer(&objTask, 1000);
        },
        "`m_objIdleHeap.CurrentHeapSize.. == 0'");
}
