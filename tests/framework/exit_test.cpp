/*
 * A stop of the process must be clean whatever the threads that never end are doing.
 */
#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>

#include <sys/eventfd.h>

#include "framework/clock.h"
#include "framework/idletask.h"
#include "framework/timeouttask.h"
#include "tests/framework/net_support.h"

namespace
{
/* Ready whenever it is asked. */
class CReadySocket : public CSocket
{
public:
    explicit CReadySocket(CTask *i_pTask) : CSocket(i_pTask, 0) { m_s32FileDesc = eventfd(1, 0); }
    ~CReadySocket() override { CleanupIfWanted(); }
};

/* Always busy: runs again soon, sets its idle timer, wakes its neighbour and itself. */
class CBusyTask : public CIdleTask
{
public:
    SInt64 Run() override
    {
        if ((GetEvents() & kKillEvent) != 0) {
            return -1;
        }
        m_objRecord.SetTimeout(1); /* not before: the task may be signalled from here on */
        KeepEveryThreadBusy();
        CTask::Signal(m_pNeighbour, kReadEvent);
        return GetTimeInMcros() % 2;
    }

    void KeepEveryThreadBusy()
    {
        m_objSocket.RequestEvent(EV_READ);
        SetIdleTimer(1);
    }

    CTask *m_pNeighbour = nullptr;

private:
    CReadySocket m_objSocket{this};
    CTimeoutTask m_objRecord{this, 0, kTimeoutEvent};
};

/* Made before every other static object, so destroyed after them: gives the threads time to meet
 * what should not have been destroyed. */
struct CSlowEnd {
    ~CSlowEnd() { CThread::Sleep(5); }
};
[[gnu::init_priority(101)]] CSlowEnd g_objSlowEnd;

constexpr int kTasks = 16;
CBusyTask *g_aTasks[kTasks];

/* Ends the process while they are busy, with the pools removed first, as the daemon does, or with
 * the pools running too. */
void ExitWhileBusy(bool i_bStop, int i_s32Milliseconds)
{
    /* Nobody reads what the threads say about themselves. */
    if (freopen("/dev/null", "w", stdout) == nullptr) {
        _exit(1);
    }
    CTaskThreadPool::AddThreads(2);
    CTimeoutTask::Initialize(100);
    StartEvents();
    CIdleTask::Initialize();
    for (int i = 0; i < kTasks; i++) {
        g_aTasks[i] = new CBusyTask;
        /* The first one dies, so nobody signals it. */
        g_aTasks[i]->m_pNeighbour = i > 1 ? g_aTasks[i - 1] : nullptr;
    }
    for (CBusyTask *pTask : g_aTasks) {
        pTask->Signal(CTask::kStartEvent);
    }
    CThread::Sleep(i_s32Milliseconds);
    if (i_bStop) {
        g_aTasks[0]->Signal(CTask::kKillEvent);
        CTaskThreadPool::RemoveThreads();
        /* The idle and event threads go on with these while the process leaves. */
        for (int i = 1; i < kTasks; i++) {
            g_aTasks[i]->KeepEveryThreadBusy();
        }
    }
    exit(0);
}
} // namespace

using CExitDeathTest = testing::TestWithParam<bool>;

TEST_P(CExitDeathTest, IsCleanWhileThreadsThatNeverEndAreBusy)
{
    for (int i = 0; i < 25; i++) {
        ASSERT_EXIT(ExitWhileBusy(GetParam(), i % 5), testing::ExitedWithCode(0), "") << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Stop, CExitDeathTest, testing::Bool());
