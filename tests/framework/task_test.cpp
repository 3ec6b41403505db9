/*
 * The rules by which tasks are queued, run, run again and deleted.
 */
#include <atomic>
#include <deque>
#include <functional>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "framework/clock.h"
#include "framework/task.h"
#include "tests/support/wait_until.h"

namespace
{
std::atomic<bool> g_bSlowUnlocks{false};
} // namespace

/* Widens what lies between an unlock on a pool thread and its next step. */
extern "C" int __real_pthread_mutex_unlock(pthread_mutex_t *);
extern "C" int __wrap_pthread_mutex_unlock(pthread_mutex_t *io_pMutex)
{
    int s32Err = __real_pthread_mutex_unlock(io_pMutex);
    if (g_bSlowUnlocks.load() && CThread::GetCurrent() != nullptr) {
        CThread::Sleep(1);
    }
    return s32Err;
}

namespace
{
/* Takes its events, keeps a record of the run and does what it was given. */
class CTestTask : public CTask
{
public:
    using Body = std::function<SInt64(CTestTask &)>;

    explicit CTestTask(Body i_objBody) : m_objBody(std::move(i_objBody)) {}
    SInt64 Run() override
    {
        m_u32Seen.push_back(GetEvents());
        m_pThreads.insert(CThread::GetCurrent());
        m_s64Times.push_back(GetTimeInMs());
        SInt64 s64Result = m_objBody(*this);
        m_s32Runs++;
        return s64Result;
    }
    void WaitForRuns(int i_s32Runs)
    {
        EXPECT_TRUE(WaitUntil([&] { return m_s32Runs >= i_s32Runs; }));
    }

    std::vector<UInt32> m_u32Seen; /* a record for each run: once the pool is gone, or in a run */
    std::set<CThread *> m_pThreads;
    std::vector<SInt64> m_s64Times;
    std::atomic<int> m_s32Runs{0};

private:
    Body m_objBody;
};

SInt64 DoNothing(CTestTask &)
{
    return 0;
}

/* Tells its end, and whether it was marked as dead by then. */
struct CMortalTask : CTask {
    ~CMortalTask() override
    {
        s_s32Deleted += GetTaskName()[0] == 'D' && !Valid();
        Signal(kReadEvent); /* dropped: the destructor of a queued task would abort */
    }
    SInt64 Run() override { return (GetEvents() & kKillEvent) != 0 ? -1 : 0; }

    static inline std::atomic<int> s_s32Deleted{0};
};

void SignalTwoToDie()
{
    for (int i = 0; i < 2; i++) {
        (new CMortalTask)->Signal(CTask::kKillEvent);
    }
}

class CTaskTest : public testing::Test
{
protected:
    ~CTaskTest() override { CTaskThreadPool::RemoveThreads(); }
};
} // namespace

TEST(TaskName, KeepsThePrefixOfTheLiving)
{
    CTestTask objTask(DoNothing);
    EXPECT_STREQ(objTask.GetTaskName(), "live_unknown");
    objTask.SetTaskName(nullptr);
    EXPECT_STREQ(objTask.GetTaskName(), "live_unknown");
    objTask.SetTaskName(std::string(60, 'x').c_str());
    EXPECT_EQ(objTask.GetTaskName(), "live_" + std::string(42, 'x'));
    EXPECT_TRUE(CTask::Valid(&objTask));
    EXPECT_FALSE(CTask::Valid(nullptr));
    CTask::Signal(nullptr, CTask::kStartEvent);
}

TEST_F(CTaskTest, EventsMergeAndADelayedRunKeepsItsTimeAndItsThread)
{
    CTaskThreadPool::AddThreads(2);
    CTestTask objTask([](CTestTask &i_refTask) {
        EXPECT_EQ(i_refTask.GetEvents(), 0u);
        if (i_refTask.m_s32Runs == 0) {
            std::thread([&] {
                i_refTask.Signal(CTask::kReadEvent);
                i_refTask.Signal(CTask::kTimeoutEvent);
            }).join();
        }
        return i_refTask.m_s32Runs == 1 ? 250 : 0;
    });
    objTask.Signal(CTask::kStartEvent);
    objTask.WaitForRuns(2);
    objTask.Signal(CTask::kReadEvent); /* adds its bit, and no run of its own */
    objTask.WaitForRuns(3);
    CTaskThreadPool::RemoveThreads();
    EXPECT_EQ(objTask.m_u32Seen,
              (std::vector<UInt32>{CTask::kStartEvent, CTask::kTimeoutEvent | CTask::kReadEvent,
                                   CTask::kIdleEvent | CTask::kReadEvent}));
    EXPECT_GE(objTask.m_s64Times[2] - objTask.m_s64Times[1], 250);
    EXPECT_EQ(objTask.m_pThreads.size(), 1u);
}

TEST_F(CTaskTest, FreshTasksGoRoundThePoolFromThreadOneOn)
{
    CTaskThreadPool::AddThreads(2);
    EXPECT_EQ(CTaskThreadPool::GetThread(0, 2), nullptr);
    EXPECT_EQ(CTaskThreadPool::GetThread(1, 0), nullptr);
    CThread *const pThreads[] = {CTaskThreadPool::GetThread(0, 0),
                                 CTaskThreadPool::GetThread(0, 1)};
    std::deque<CTestTask> objTasks;
    for (int i = 0; i < 6; i++) {
        objTasks.emplace_back(DoNothing).Signal(CTask::kStartEvent);
    }
    CTaskThreadPool::RemoveThreads();
    for (int i = 0; i < 6; i++) {
        EXPECT_EQ(objTasks[i].m_pThreads, std::set<CThread *>{pThreads[(i + 1) % 2]}) << i;
    }
}

TEST_F(CTaskTest, PoolsKeepTheirTasksAndBoundTasksTheirThread)
{
    CTestTask objTask(DoNothing), objEarly(DoNothing), objLost(DoNothing);
    objEarly.Signal(CTask::kStartEvent); /* without a thread, which marks it for good */
    CTaskThreadPool::AddThreadPools(2);
    EXPECT_TRUE(CTaskThreadPool::AddThreads(0, 1, 0, 0));
    EXPECT_TRUE(CTaskThreadPool::AddThreads(1, 3, 0, 0));
    EXPECT_FALSE(CTaskThreadPool::AddThreads(2, 1, 0, 0));
    objEarly.Signal(CTask::kReadEvent);
    objLost.SetThreadPool(7);
    objLost.Signal(CTask::kStartEvent);
    objTask.SetThreadPool(1);
    CTaskThread *pBound = CTaskThreadPool::GetThread(1, 2);
    objTask.SetBoundThread(pBound);
    for (int i = 1; i <= 20; i++) {
        objTask.Signal(CTask::kReadEvent);
        objTask.WaitForRuns(i);
    }
    CTaskThreadPool::RemoveThreads();
    EXPECT_EQ(objTask.m_pThreads, std::set<CThread *>{pBound});
    EXPECT_EQ(objEarly.m_s32Runs + objLost.m_s32Runs, 0);
}

TEST_F(CTaskTest, OneRunUnderTheGlobalLockIsAloneUntilItGivesTheLockUp)
{
    CTaskThreadPool::AddThreads(3);
    std::atomic<bool> bInside{false}, bMayGo{false};
    CTestTask objOther([&](CTestTask &) {
        bInside = true;
        EXPECT_TRUE(WaitUntil([&] { return bMayGo.load(); }));
        return 0;
    });
    CTestTask objAlone([&](CTestTask &i_refTask) {
        if (i_refTask.m_s32Runs == 0) {
            objOther.Signal(CTask::kStartEvent);
            CThread::Sleep(20);
            EXPECT_FALSE(bInside);
            i_refTask.GlobalUnlock();
            EXPECT_TRUE(WaitUntil([&] { return bInside.load(); }));
        }
        return 0;
    });
    CTestTask objOnce(DoNothing);
    for (CTestTask *pTask : {&objOnce, &objAlone}) {
        pTask->SetGlobalLock();
        pTask->Signal(CTask::kStartEvent);
        pTask->WaitForRuns(1);
    }
    objOnce.Signal(CTask::kStartEvent); /* beside the other, which is still inside */
    objOnce.WaitForRuns(2);
    bMayGo = true;
    CTaskThreadPool::RemoveThreads();
}

TEST_F(CTaskTest, NoSignalIsLostAndNoTaskRunsTwiceAtOnce)
{
    constexpr int kTasks = 12, kSenders = 3, kSignals = 3000;
    struct CState {
        std::atomic<int> s32Posted{0}, s32Seen{0}, s32Inside{0};
    } objStates[kTasks];
    std::deque<CTestTask> objTasks;
    for (CState &objState : objStates) {
        objTasks.emplace_back([&objState](CTestTask &) -> SInt64 {
            EXPECT_EQ(objState.s32Inside.fetch_add(1), 0);
            objState.s32Seen = objState.s32Posted.load();
            objState.s32Inside--;
            return objState.s32Seen % 7 == 0;
        });
    }
    CTaskThreadPool::AddThreads(3);
    std::vector<std::thread> objSenders;
    for (int s32Sender = 0; s32Sender < kSenders; s32Sender++) {
        objSenders.emplace_back([&, s32Sender] {
            for (int i = 0; i < kSignals; i++) {
                int s32Task = (i * 5 + s32Sender) % kTasks;
                objStates[s32Task].s32Posted++;
                objTasks[s32Task].Signal(CTask::kReadEvent);
            }
        });
    }
    for (std::thread &objSender : objSenders) {
        objSender.join();
    }
    for (CState &objState : objStates) {
        EXPECT_TRUE(WaitUntil([&] { return objState.s32Seen == objState.s32Posted; }));
    }
    CTaskThreadPool::RemoveThreads();
}

TEST_F(CTaskTest, PoolsMayBeRemovedWhileOthersSignal)
{
    constexpr int kRounds = 10, kTasks = 24;
    std::atomic<bool> bStop{false};
    std::atomic<int> s32Ready{0};
    std::deque<CTestTask> objTasks;
    for (int i = 0; i < kRounds * kTasks; i++) {
        /* A few still wait for their next run when their thread ends. */
        objTasks.emplace_back([i](CTestTask &) { return i % 8 == 0 ? 3600000 : 0; });
    }
    std::thread objSender([&] {
        for (unsigned i = 0; !bStop; i++) {
            int s32Ours = s32Ready;
            if (s32Ours > 0) {
                objTasks[s32Ours - 1 - i % kTasks].Signal(CTask::kReadEvent);
                (void)CTaskThreadPool::GetThread(0, 0);
            }
        }
    });
    for (int i = 1; i <= kRounds; i++) {
        CTaskThreadPool::AddThreads(2);
        s32Ready = i * kTasks;
        objTasks[i * kTasks - 1].WaitForRuns(3);
        CTaskThreadPool::RemoveThreads();
    }
    bStop = true;
    objSender.join();
}

/* Two tasks whose runs take longer than their delays: one is always due. */
TEST_F(CTaskTest, ThreadsEndAlthoughDelayedRunsKeepComingDue)
{
    auto objRun = [](CTestTask &) {
        CThread::Sleep(3);
        return 1;
    };
    CTestTask objOne(objRun), objOther(objRun);
    CTaskThreadPool::AddThreads(1);
    objOne.Signal(CTask::kStartEvent);
    objOther.Signal(CTask::kStartEvent);
    objOne.WaitForRuns(3);
    objOther.WaitForRuns(3);
    CTaskThreadPool::RemoveThreads();
}

/* The thread has just found nothing, and is about to see that it is to stop. */
TEST_F(CTaskTest, WhatBecomesReadyJustBeforeTheStopIsRun)
{
    for (int i = 0; i < 60; i++) {
        CTaskThreadPool::AddThreads(2);
        g_bSlowUnlocks = true;
        CThread::Sleep(i % 7);
        SignalTwoToDie();
        CTaskThreadPool::RemoveThreads();
        g_bSlowUnlocks = false;
        ASSERT_EQ(CMortalTask::s_s32Deleted.exchange(0), 2) << i;
    }
}

TEST_F(CTaskTest, WhatTheLastTaskSignalsIsRunTooUnlessItIsBoundElsewhere)
{
    CTaskThreadPool::AddThreads(2);
    std::atomic<bool> bInside{false};
    CTestTask objBound(DoNothing);
    objBound.SetBoundThread(CTaskThreadPool::GetThread(0, 0));
    /* Runs on the other thread: the first fresh task is thread 1's. */
    CTestTask objLast([&](CTestTask &) {
        bInside = true;
        EXPECT_TRUE(WaitUntil([] { return CThread::GetCurrent()->IsStopRequested(); }));
        CThread::Sleep(30);
        SignalTwoToDie();
        objBound.Signal(CTask::kStartEvent);
        return 0;
    });
    objLast.Signal(CTask::kStartEvent);
    EXPECT_TRUE(WaitUntil([&] { return bInside.load(); }));
    CTaskThreadPool::RemoveThreads();
    EXPECT_EQ(CMortalTask::s_s32Deleted.exchange(0), 2);
    EXPECT_EQ(objBound.m_s32Runs, 0);
}

TEST(TaskThreadPoolDeathTest, PoolsAreMadeOnce)
{
    EXPECT_DEATH(CTaskThreadPool::GetThread(0, 0), "`s_pNumTaskThreads != NULL'");
    EXPECT_DEATH(CTaskThreadPool::AddThreads(0, 1, 0, 0), "`s_pTaskThreadArray != NULL'");
    CTaskThreadPool::AddThreadPools(1);
    EXPECT_DEATH(CTaskThreadPool::AddThreadPools(1), "`s_pTaskThreadArray == NULL'");
    CTaskThreadPool::AddThreads(1);
    EXPECT_DEATH(CTaskThreadPool::AddThreads(1), "`s_pTaskThreadArray.i_u32PoolID. == NULL'");
    CTaskThreadPool::RemoveThreads();
    EXPECT_EQ(CTaskThreadPool::GetThread(0, 0), nullptr);
}
