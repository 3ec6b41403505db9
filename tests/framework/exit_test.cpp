/*
 * A stop of the process must be clean whatever the threads that never end are doing.
 */
#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>

#include "framework/clock.h"
#include "framework/ev.h"
#include "framework/idletask.h"
#include "framework/task.h"
#include "framework/timeouttask.h"
#include "framework/udpsocket.h"

namespace
{
/* Always busy: runs again soon, sets its idle timer, wakes its neighbour, talks to itself. */
class CBusyTask : public CIdleTask
{
public:
    CBusyTask() : m_objSocket(this, CSocket::kNonBlocking), m_objRecord(this, 0, kTimeoutEvent)
    {
        if (m_objSocket.Open() != 0 || m_objSocket.Bind(INADDR_LOOPBACK, 0) != 0) {
            exit(1);
        }
    }

    SInt64 Run() override
    {
        if ((GetEvents() & kKillEvent) != 0) {
            return -1;
        }
        m_objRecord.SetTimeout(1); /* not before: the task may be signalled from here on */
        KeepEveryThreadBusy();
        if (m_pNeighbour != nullptr) {
            m_pNeighbour->Signal(kReadEvent);
        }
        return GetTimeInMcros() % 2;
    }

    void KeepEveryThreadBusy()
    {
        unsigned u32Addr, u32Len;
        unsigned short u16Port;
        char aBytes[8];
        while (m_objSocket.RecvFrom(&u32Addr, &u16Port, aBytes, sizeof(aBytes), &u32Len) == 0) {
        }
        m_objSocket.RequestEvent(1);
        u16Port = static_cast<unsigned short>(atoi(m_objSocket.GetLocalPortStr()->m_pPtr));
        m_objSocket.SendTo(INADDR_LOOPBACK, u16Port, "again", 5);
        SetIdleTimer(1);
    }

    CTask *m_pNeighbour = nullptr;

private:
    CUDPSocket m_objSocket;
    CTimeoutTask m_objRecord;
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
    select_startevents();
    CSocket::Initialize();
    CSocket::StartThread();
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

class CExitDeathTest : public testing::TestWithParam<bool>
{
};

TEST_P(CExitDeathTest, IsCleanWhileThreadsThatNeverEndAreBusy)
{
    for (int i = 0; i < 25; i++) {
        ASSERT_EXIT(ExitWhileBusy(GetParam(), i % 5), testing::ExitedWithCode(0), "") << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Stop, CExitDeathTest, testing::Bool());
