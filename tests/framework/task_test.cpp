/*
 * The rules by which tasks are queued, run, run again and deleted.
 */
#include <atomic>
#include <functional>
#include <memory>
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
/* Takes its events and runs what it was given. */
class CTestTask : public CTask
{
public:
    explicit CTestTask(std::function<SInt64(CTestTask &)> i_objRun) : m_objRun(std::move(i_objRun))
    {
    }
    SInt64 Run() override
    {
        m_u32Taken = GetEvents();
        SInt64 s64Result = m_objRun(*this);
        m_s32Runs++;
        return s64Result;
    }

    UInt32 m_u32Taken = 0; /* by the run under way */
    std::atomic<int> m_s32Runs{0};

private:
    std::function<SInt64(CTestTask &)> m_objRun;
};

/* Keeps the threads of pool 0 from running anything until it is released. Once it is there, the
 * threads are through with every task they ran before. */
class CBlockedPool
{
public:
    explicit CBlockedPool(int i_s32Threads)
    {
        for (int i = 0; i < i_s32Threads; i++) {
            (new CTestTask([pState = m_pState](CTestTask &) {
                pState->s32Inside++;
                EXPECT_TRUE(WaitUntil([&] { return pState->bReleased.load(); }));
                return -1;
            }))->Signal(CTask::kStartEvent);
        }
        EXPECT_TRUE(WaitUntil([&] { return m_pState->s32Inside == i_s32Threads; }));
    }
    ~CBlockedPool() { Release(); }
    void Release() { m_pState->bReleased = true; }

private:
    struct CState {
        std::atomic<bool> bReleased{false};
        std::atomic<int> s32Inside{0};
    };
    std::shared_ptr<CState> m_pState = std::make_shared<CState>();
};

class CTaskTest : public testing::Test
{
protected:
    ~CTaskTest() override { CTaskThreadPool::RemoveThreads(); }
};
} // namespace

TEST(TaskName, KeepsThePrefixOfTheLiving)
{
    CTestTask objTask([](CTestTask &) { return 0; });
    EXPECT_STREQ(objTask.GetTaskName(), "live_unknown");
    objTask.SetTaskName(nullptr);
    EXPECT_STREQ(objTask.GetTaskName(), "live_unknown");
    objTask.SetTaskName(std::string(60, 'x').c_str());
    EXPECT_EQ(objTask.GetTaskName(), "live_" + std::string(42, 'x'));
    EXPECT_TRUE(objTask.Valid());
}

TEST_F(CTaskTest, SignalsBeforeARunMergeIntoOne)
{
    CTaskThreadPool::AddThreads(1);
    CBlockedPool objBlocked(1);
    std::atomic<UInt32> u32Seen{0};
    CTestTask objTask([&](CTestTask &i_refTask) {
        u32Seen = i_refTask.m_u32Taken;
        EXPECT_EQ(i_refTask.GetEvents(), 0u);
        return 0;
    });
    objTask.Signal(CTask::kStartEvent);
    objTask.Signal(CTask::kReadEvent);
    objBlocked.Release();
    EXPECT_TRUE(WaitUntil([&] { return objTask.m_s32Runs > 0; }));
    CTaskThreadPool::RemoveThreads();
    EXPECT_EQ(objTask.m_s32Runs, 1);
    EXPECT_EQ(u32Seen, 20u);
}

TEST_F(CTaskTest, AnEventDuringARunCausesAnother)
{
    CTaskThreadPool::AddThreads(2);
    std::vector<UInt32> u32Seen;
    std::set<CThread *> pThreads;
    CTestTask objTask([&](CTestTask &i_refTask) {
        u32Seen.push_back(i_refTask.m_u32Taken);
        pThreads.insert(CThread::GetCurrent());
        if (u32Seen.size() == 1) {
            std::thread([&] { i_refTask.Signal(CTask::kReadEvent); }).join();
        }
        return 0;
    });
    objTask.Signal(CTask::kStartEvent);
    EXPECT_TRUE(WaitUntil([&] { return objTask.m_s32Runs == 2; }));
    CTaskThreadPool::RemoveThreads();
    EXPECT_EQ(u32Seen, (std::vector<UInt32>{4, 16}));
    EXPECT_EQ(pThreads.size(), 1u);
}

TEST_F(CTaskTest, ADelayedRunKeepsItsTimeAndItsThread)
{
    CTaskThreadPool::AddThreads(2);
    std::vector<UInt32> u32Seen;
    std::vector<SInt64> s64Times;
    std::set<CThread *> pThreads;
    CTestTask objTask([&](CTestTask &i_refTask) -> SInt64 {
        s64Times.push_back(GetTimeInMs());
        u32Seen.push_back(i_refTask.m_u32Taken);
        pThreads.insert(CThread::GetCurrent());
        return u32Seen.size() == 1 ? 250 : 0;
    });
    objTask.Signal(CTask::kStartEvent);
    EXPECT_TRUE(WaitUntil([&] { return objTask.m_s32Runs == 1; }));
    objTask.Signal(CTask::kReadEvent); /* adds its bit, and no run of its own */
    EXPECT_TRUE(WaitUntil([&] { return objTask.m_s32Runs == 2; }));
    CTaskThreadPool::RemoveThreads();
    EXPECT_EQ(u32Seen, (std::vector<UInt32>{4, 18}));
    EXPECT_GE(s64Times[1] - s64Times[0], 250);
    EXPECT_EQ(pThreads.size(), 1u);
}

TEST_F(CTaskTest, ANegativeResultDeletesTheTaskAfterMarkingItDead)
{
    static std::atomic<bool> s_bDeletedAsDead{false};
    struct CMortalTask : CTask {
        ~CMortalTask() override
        {
            s_bDeletedAsDead = GetTaskName()[0] == 'D' && !Valid();
            Signal(kReadEvent); /* dropped: the destructor of a queued task would abort */
        }
        SInt64 Run() override { return (GetEvents() & kKillEvent) != 0 ? -1 : 0; }
    };
    CTaskThreadPool::AddThreads(2);
    CTask *pTask = new CMortalTask;
    pTask->Signal(CTask::kStartEvent);
    pTask->Signal(CTask::kKillEvent);
    /* What is ready when the threads are to end is still run. */
    CTaskThreadPool::RemoveThreads();
    EXPECT_TRUE(s_bDeletedAsDead);
}

TEST_F(CTaskTest, FreshTasksGoRoundThePoolFromThreadOneOn)
{
    CTaskThreadPool::AddThreads(2);
    EXPECT_EQ(CTaskThreadPool::GetThread(0, 2), nullptr);
    EXPECT_EQ(CTaskThreadPool::GetThread(1, 0), nullptr);
    for (unsigned i = 0; i < 6; i++) {
        std::atomic<CThread *> pThread{nullptr};
        CTestTask objTask([&](CTestTask &) {
            pThread = CThread::GetCurrent();
            return 0;
        });
        objTask.Signal(CTask::kStartEvent);
        EXPECT_TRUE(WaitUntil([&] { return objTask.m_s32Runs == 1; }));
        EXPECT_EQ(pThread, CTaskThreadPool::GetThread(0, (i + 1) % 2));
        /* Until the task is idle again it must not be destroyed. */
        CBlockedPool objBothDone(2);
    }
}

TEST_F(CTaskTest, PoolsKeepTheirTasksAndBoundTasksTheirThread)
{
    CTaskThreadPool::AddThreadPools(2);
    EXPECT_TRUE(CTaskThreadPool::AddThreads(0, 1, 0, 0));
    EXPECT_TRUE(CTaskThreadPool::AddThreads(1, 3, 0, 0));
    EXPECT_FALSE(CTaskThreadPool::AddThreads(2, 1, 0, 0));
    std::set<CThread *> pThreads;
    CTestTask objTask([&](CTestTask &) {
        pThreads.insert(CThread::GetCurrent());
        return 0;
    });
    CTestTask objLost([](CTestTask &) { return 0; });
    objLost.SetThreadPool(7);
    objLost.Signal(CTask::kStartEvent);
    objTask.SetThreadPool(1);
    objTask.SetBoundThread(CTaskThreadPool::GetThread(1, 2));
    for (int i = 0; i < 20; i++) {
        objTask.Signal(CTask::kReadEvent);
        EXPECT_TRUE(WaitUntil([&] { return objTask.m_s32Runs > i; }));
    }
    EXPECT_EQ(pThreads, std::set<CThread *>{CTaskThreadPool::GetThread(1, 2)});
    CTaskThreadPool::RemoveThreads();
    EXPECT_EQ(objLost.m_s32Runs, 0);
}

TEST_F(CTaskTest, ARunUnderTheGlobalLockIsAloneUntilItGivesTheLockUp)
{
    CTaskThreadPool::AddThreads(3);
    std::atomic<bool> bOtherInside{false}, bOtherMayGo{false}, bMet{false};
    CTestTask objOther([&](CTestTask &) {
        bOtherInside = true;
        EXPECT_TRUE(WaitUntil([&] { return bOtherMayGo.load(); }));
        bOtherInside = false;
        return 0;
    });
    CTestTask objFirst([&](CTestTask &i_refTask) {
        objOther.Signal(CTask::kStartEvent);
        CThread::Sleep(20);
        EXPECT_FALSE(bOtherInside);
        i_refTask.GlobalUnlock();
        EXPECT_TRUE(WaitUntil([&] { return bOtherInside.load(); }));
        return 0;
    });
    CTestTask objSecond([&](CTestTask &) {
        bMet = bOtherInside.load();
        return 0;
    });
    objFirst.SetGlobalLock();
    objFirst.Signal(CTask::kStartEvent);
    EXPECT_TRUE(WaitUntil([&] { return objFirst.m_s32Runs == 1; }));
    CThread::Sleep(5);
    objSecond.SetGlobalLock();
    objSecond.Signal(CTask::kStartEvent);
    CThread::Sleep(20);
    bOtherMayGo = true;
    EXPECT_TRUE(WaitUntil([&] { return objSecond.m_s32Runs == 1; }));
    EXPECT_FALSE(bMet);

    /* The request was for one run. */
    bOtherMayGo = false;
    objOther.Signal(CTask::kStartEvent);
    EXPECT_TRUE(WaitUntil([&] { return bOtherInside.load(); }));
    objSecond.Signal(CTask::kStartEvent);
    EXPECT_TRUE(WaitUntil([&] { return objSecond.m_s32Runs == 2; }));
    EXPECT_TRUE(bMet);
    bOtherMayGo = true;
    CTaskThreadPool::RemoveThreads();
}

TEST_F(CTaskTest, NoSignalIsLostAndNoTaskRunsTwiceAtOnce)
{
    constexpr int kTasks = 12, kSenders = 3, kSignals = 3000;
    struct CState {
        std::atomic<int> s32Posted{0}, s32Seen{0}, s32Inside{0};
    };
    std::vector<CState> objStates(kTasks);
    std::vector<std::unique_ptr<CTestTask>> pTasks;
    for (int i = 0; i < kTasks; i++) {
        pTasks.push_back(std::make_unique<CTestTask>([&, i](CTestTask &) -> SInt64 {
            CState &objState = objStates[i];
            EXPECT_EQ(objState.s32Inside.fetch_add(1), 0);
            objState.s32Seen = objState.s32Posted.load();
            objState.s32Inside--;
            return objState.s32Seen % 7 == 0;
        }));
    }
    CTaskThreadPool::AddThreads(3);
    std::vector<std::thread> objSenders;
    for (int s32Sender = 0; s32Sender < kSenders; s32Sender++) {
        objSenders.emplace_back([&, s32Sender] {
            for (int i = 0; i < kSignals; i++) {
                int s32Task = (i * 5 + s32Sender) % kTasks;
                objStates[s32Task].s32Posted++;
                pTasks[s32Task]->Signal(CTask::kReadEvent);
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
    std::vector<std::unique_ptr<CTestTask>> pTasks;
    for (int i = 0; i < kRounds * kTasks; i++) {
        /* A few still wait for their next run when their thread ends. */
        pTasks.push_back(std::make_unique<CTestTask>(
            [i](CTestTask &) -> SInt64 { return i % 8 == 0 ? 3600000 : 0; }));
    }
    std::thread objSender([&] {
        for (unsigned i = 0; !bStop; i++) {
            int s32Ours = s32Ready;
            if (s32Ours > 0) {
                pTasks[s32Ours - 1 - i % kTasks]->Signal(CTask::kReadEvent);
                (void)CTaskThreadPool::GetThread(0, 0);
            }
        }
    });
    for (int i = 1; i <= kRounds; i++) {
        CTaskThreadPool::AddThreads(2);
        s32Ready = i * kTasks;
        EXPECT_TRUE(WaitUntil([&] { return pTasks[i * kTasks - 1]->m_s32Runs > 2; }));
        CTaskThreadPool::RemoveThreads();
    }
    bStop = true;
    objSender.join();
}

/* Two tasks whose runs take longer than their delays: one is always due. */
TEST_F(CTaskTest, ThreadsEndAlthoughDelayedRunsKeepComingDue)
{
    CTaskThreadPool::AddThreads(1);
    auto objRun = [](CTestTask &) -> SInt64 {
        CThread::Sleep(3);
        return 1;
    };
    CTestTask objOne(objRun), objOther(objRun);
    objOne.Signal(CTask::kStartEvent);
    objOther.Signal(CTask::kStartEvent);
    EXPECT_TRUE(WaitUntil([&] { return objOne.m_s32Runs > 2 && objOther.m_s32Runs > 2; }));
    CTaskThreadPool::RemoveThreads();
}

/* The thread has just found nothing, and is about to see that it is to stop. */
TEST_F(CTaskTest, WhatBecomesReadyJustBeforeTheStopIsRun)
{
    for (int i = 0; i < 60; i++) {
        std::atomic<int> s32Runs{0};
        CTaskThreadPool::AddThreads(2);
        g_bSlowUnlocks = true;
        CThread::Sleep(i % 7);
        for (int s32Task = 0; s32Task < 2; s32Task++) {
            (new CTestTask([&](CTestTask &) {
                s32Runs++;
                return -1;
            }))->Signal(CTask::kKillEvent);
        }
        CTaskThreadPool::RemoveThreads();
        g_bSlowUnlocks = false;
        ASSERT_EQ(s32Runs, 2) << i;
    }
}

/* One of the two goes to the thread that has ended meanwhile. */
TEST_F(CTaskTest, WhatTheLastTaskSignalsIsRunByWhoIsLeft)
{
    std::atomic<int> s32Runs{0};
    std::atomic<bool> bInside{false};
    CTaskThreadPool::AddThreads(2);
    CTestTask objLast([&](CTestTask &) {
        bInside = true;
        EXPECT_TRUE(WaitUntil([] { return CThread::GetCurrent()->IsStopRequested(); }));
        CThread::Sleep(30);
        for (int s32Task = 0; s32Task < 2; s32Task++) {
            (new CTestTask([&](CTestTask &) {
                s32Runs++;
                return -1;
            }))->Signal(CTask::kKillEvent);
        }
        return 0;
    });
    objLast.Signal(CTask::kStartEvent);
    EXPECT_TRUE(WaitUntil([&] { return bInside.load(); }));
    CTaskThreadPool::RemoveThreads();
    EXPECT_EQ(s32Runs, 2);
}

TEST_F(CTaskTest, WithoutThreadsASignalMarksTheTaskForGood)
{
    CTestTask objTask([](CTestTask &) { return 0; }), objOther([](CTestTask &) { return 0; });
    objTask.Signal(CTask::kStartEvent);
    CTaskThreadPool::AddThreads(1);
    objTask.Signal(CTask::kReadEvent);
    objOther.Signal(CTask::kStartEvent);
    EXPECT_TRUE(WaitUntil([&] { return objOther.m_s32Runs == 1; }));
    CTaskThreadPool::RemoveThreads();
    EXPECT_EQ(objTask.m_s32Runs, 0);
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
