/*
 * Tasks, their threads and pools.
 *
 * The arrays of the pools are read by every thread that signals a task, never-ending ones
 * included, while the main thread builds and removes pools. A reader counts itself in for the time
 * of its visit.
 *
 * The end of a pool: RemoveThreads() makes the pool's number of threads 0 and waits until nobody is
 * inside, so from then on nothing is queued from outside. Then it stops the ready queues, under
 * their mutexes, so that no wait begins any more. Each thread runs what is ready, and what that
 * signals, and ends; all are joined before the first is deleted.
 */
#include "framework/task.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>

#include <unistd.h>

#include "framework/assertion.h"
#include "framework/atomic.h"
#include "framework/clock.h"

namespace
{
constexpr size_t kLiveLen = sizeof(LIVE_TASK_STATE_STR) - 1;
constexpr UInt32 kHeapSize = 1024;
/* The shortest wait for a task, and the one of a thread that has nothing to wait for. */
constexpr SInt64 kMinWaitMs = 5;
} // namespace

CTask::CTask()
    : m_szTaskName{LIVE_TASK_STATE_STR}, m_u32Events(0), m_pCurrentThread(nullptr),
      m_pBoundThread(nullptr), m_bGlobalLock(false), m_bLockHeld(false), m_objTimerElem(this),
      m_objQueueElem(this), m_u32PoolID(0)
{
    SetTaskName("unknown");
}

void CTask::SetTaskName(const char *i_pName)
{
    if (i_pName == nullptr) {
        return;
    }
    char szName[sizeof(m_szTaskName)];
    snprintf(szName, sizeof(szName), "%s%s", LIVE_TASK_STATE_STR, i_pName);
    szName[sizeof(szName) - 1] = '\0';
    /* The prefix stands already, and other threads may be reading it. */
    memcpy(m_szTaskName + kLiveLen, szName + kLiveLen, sizeof(szName) - kLiveLen);
}

Bool CTask::Valid() const
{
    std::atomic_ref<char> objState(const_cast<char &>(m_szTaskName[0]));
    return objState.load() == LIVE_TASK_STATE_STR[0] &&
           memcmp(m_szTaskName + 1, &LIVE_TASK_STATE_STR[1], kLiveLen - 1) == 0;
}

void CTask::Signal(EventFlags i_u32Events)
{
    if (!Valid()) {
        return;
    }
    if ((atomic_or(&m_u32Events, i_u32Events | kAliveEvent) & kAliveEvent) != 0) {
        return;
    }
    CTaskThreadPool::Queue(this);
}

CTask::EventFlags CTask::GetEvents()
{
    EventFlags u32Events = atomic_or(&m_u32Events, 0) & ~kAliveEvent;
    atomic_sub(&m_u32Events, static_cast<SInt32>(u32Events));
    return u32Events;
}

void CTask::GlobalUnlock()
{
    if (!m_bGlobalLock.exchange(false)) {
        return;
    }
    if (m_bLockHeld) {
        m_bLockHeld = false;
        CTaskThreadPool::s_objMutexRW.Unlock();
    }
}

CTaskThread::CTaskThread(int i_s32Policy, int i_s32Priority)
    : CThread(i_s32Policy, i_s32Priority), m_objElem(this), m_objHeap(kHeapSize), m_u32PoolID(0)
{
}

CTaskThread::~CTaskThread()
{
    SendStopRequest();
    m_objTaskQueue.Stop();
    StopAndWaitForThread();
}

void CTaskThread::Entry()
{
    char szName[16];
    snprintf(szName, sizeof(szName), "%u-thread", m_u32PoolID);
    SetName(szName);
    printf("thread info [%s:%u]\n", szName, static_cast<unsigned>(gettid()));

    for (;;) {
        CTask *pTask = WaitForTask();
        if (!CTask::Valid(pTask)) {
            break;
        }
        RunUntilDone(pTask);
    }
}

CTask *CTaskThread::WaitForTask()
{
    for (;;) {
        SInt64 s64Now = GetTimeInMs();
        CHeapElem *pMin = m_objHeap.PeekMin();
        if (pMin != nullptr && s64Now >= pMin->GetValue()) {
            return static_cast<CTask *>(m_objHeap.ExtractMin()->GetEnclosingObject());
        }
        SInt64 s64Timeout = pMin != nullptr ? pMin->GetValue() - s64Now : 0;
        assert(s64Timeout >= 0);
        s64Timeout = std::clamp<SInt64>(s64Timeout, kMinWaitMs, std::numeric_limits<int>::max());
        CQueueElem *pElem = m_objTaskQueue.DeQueueBlocking(this, static_cast<int>(s64Timeout));
        if (pElem != nullptr) {
            return static_cast<CTask *>(pElem->GetEnclosingObject());
        }
        if (IsStopRequested()) {
            /* A last look: what was queued since the one before was queued before the stop. */
            pElem = m_objTaskQueue.DeQueue();
            return pElem != nullptr ? static_cast<CTask *>(pElem->GetEnclosingObject()) : nullptr;
        }
    }
}

void CTaskThread::RunUntilDone(CTask *i_pTask)
{
    for (Bool bDone = false; !bDone;) {
        i_pTask->m_pCurrentThread = nullptr;
        SInt64 s64Result = RunOnce(i_pTask);
        if (s64Result < 0) {
            std::atomic_ref<char>(i_pTask->m_szTaskName[0]).store('D');
            delete i_pTask;
            bDone = true;
        } else if (s64Result > 0) {
            i_pTask->m_objTimerElem.SetValue(GetDeadlineInMs(s64Result));
            /* What a stop finds in the heap is run if it comes due, but nothing is added: tasks
             * that run for longer than their delays would keep the thread from ending. Such a task
             * is as one that is left in the heap: never run again, nor deleted. */
            if (!IsStopRequested()) {
                m_objHeap.Insert(&i_pTask->m_objTimerElem);
            }
            atomic_or(&i_pTask->m_u32Events, CTask::kIdleEvent);
            bDone = true;
        } else {
            /* Fails if events came in meanwhile; their senders leave the run to us. */
            bDone = compare_and_store(CTask::kAliveEvent, 0, &i_pTask->m_u32Events);
        }
        ThreadYield();
    }
}

SInt64 CTaskThread::RunOnce(CTask *i_pTask)
{
    CMutexRW &objMutexRW = CTaskThreadPool::s_objMutexRW;
    Bool bAlone = i_pTask->m_bGlobalLock.load();
    if (bAlone) {
        objMutexRW.LockWrite();
    } else {
        objMutexRW.LockRead();
    }
    i_pTask->m_bLockHeld = true;
    SInt64 s64Result = i_pTask->Run();
    if (i_pTask->m_bLockHeld) {
        i_pTask->m_bLockHeld = false;
        objMutexRW.Unlock();
    }
    if (bAlone) {
        i_pTask->m_bGlobalLock.store(false);
    }
    return s64Result;
}

CTaskThread ***CTaskThreadPool::s_pTaskThreadArray = nullptr;
std::atomic<std::atomic<UInt32> *> CTaskThreadPool::s_pNumTaskThreads{nullptr};
UInt32 *CTaskThreadPool::s_pTaskThreadPicker = nullptr;
std::atomic<UInt32> CTaskThreadPool::s_u32NumTaskThreadPools{0};
std::atomic<UInt32> CTaskThreadPool::s_u32Visitors{0};
/* Never destroyed: a process may exit while its task threads run. */
CMutexRW &CTaskThreadPool::s_objMutexRW = *new CMutexRW;

Bool CTaskThreadPool::AddThreadPools(UInt32 i_u32Num)
{
    assert(s_pTaskThreadArray == NULL);
    /* RemoveThreads() left these two; nobody reads them while there are no pools. */
    delete[] s_pNumTaskThreads.exchange(new std::atomic<UInt32>[i_u32Num]());
    delete[] s_pTaskThreadPicker;
    s_pTaskThreadArray = new CTaskThread **[i_u32Num]();
    s_pTaskThreadPicker = new UInt32[i_u32Num]();
    /* Last: whoever sees the pools may use the arrays. */
    s_u32NumTaskThreadPools.store(i_u32Num);
    return true;
}

Bool CTaskThreadPool::AddThreads(UInt32 i_u32NumToAdd)
{
    if (s_u32NumTaskThreadPools.load() == 0) {
        AddThreadPools(1);
    }
    return AddThreads(0, i_u32NumToAdd, 0, 0);
}

Bool CTaskThreadPool::AddThreads(UInt32 i_u32PoolID, UInt32 i_u32NumToAdd, int i_s32Policy,
                                 int i_s32Priority)
{
    assert(s_pTaskThreadArray != NULL);
    if (i_u32PoolID >= s_u32NumTaskThreadPools.load()) {
        return false;
    }
    assert(s_pTaskThreadArray[i_u32PoolID] == NULL);
    s_pTaskThreadArray[i_u32PoolID] = new CTaskThread *[i_u32NumToAdd];
    for (UInt32 i = 0; i < i_u32NumToAdd; i++) {
        CTaskThread *pThread = new CTaskThread(i_s32Policy, i_s32Priority);
        pThread->m_u32PoolID = i_u32PoolID;
        s_pTaskThreadArray[i_u32PoolID][i] = pThread;
        pThread->Start();
    }
    s_pNumTaskThreads.load()[i_u32PoolID].store(i_u32NumToAdd);
    return true;
}

CTaskThread *CTaskThreadPool::GetThread(UInt32 i_u32PoolID, UInt32 i_u32Index)
{
    assert(s_pNumTaskThreads != NULL);
    CVisit objVisit;
    return i_u32Index < CountThreads(i_u32PoolID) ? s_pTaskThreadArray[i_u32PoolID][i_u32Index]
                                                  : nullptr;
}

UInt32 CTaskThreadPool::CountThreads(UInt32 i_u32PoolID)
{
    return i_u32PoolID < s_u32NumTaskThreadPools.load()
               ? s_pNumTaskThreads.load()[i_u32PoolID].load()
               : 0;
}

void CTaskThreadPool::Queue(CTask *i_pTask)
{
    CVisit objVisit;
    const UInt32 u32Pool = i_pTask->m_u32PoolID;
    const UInt32 u32Count = CountThreads(u32Pool);
    if (u32Count == 0) {
        /* Kept: without threads the task stays marked as queued and never runs, since a signal that
         * comes before the start or after the end must not wait for either. A pool that is being
         * removed still has those that run its last tasks. */
        CTaskThread *pOwn = dynamic_cast<CTaskThread *>(CThread::GetCurrent());
        if (pOwn != nullptr && pOwn->m_u32PoolID == u32Pool &&
            (i_pTask->m_pBoundThread == nullptr || i_pTask->m_pBoundThread == pOwn)) {
            pOwn->m_objTaskQueue.EnQueue(&i_pTask->m_objQueueElem);
        }
        return;
    }
    if (i_pTask->m_pBoundThread != nullptr && i_pTask->m_pCurrentThread == nullptr) {
        i_pTask->m_pCurrentThread = i_pTask->m_pBoundThread;
    }
    CTaskThread *pTarget = i_pTask->m_pCurrentThread;
    if (pTarget == nullptr) {
        const UInt32 u32Picked = atomic_add(&s_pTaskThreadPicker[u32Pool], 1);
        pTarget = s_pTaskThreadArray[u32Pool][u32Picked % u32Count];
    }
    pTarget->m_objTaskQueue.EnQueue(&i_pTask->m_objQueueElem);
}

void CTaskThreadPool::WaitForVisitors()
{
    while (s_u32Visitors.load() != 0) {
        CThread::ThreadYield();
    }
}

void CTaskThreadPool::RemoveThreads()
{
    for (UInt32 u32Pool = 0; u32Pool < s_u32NumTaskThreadPools.load(); u32Pool++) {
        CTaskThread **pThreads = s_pTaskThreadArray[u32Pool];
        UInt32 u32Count = s_pNumTaskThreads.load()[u32Pool].load();
        s_pNumTaskThreads.load()[u32Pool].store(0);
        WaitForVisitors();
        std::for_each_n(pThreads, u32Count,
                        [](CTaskThread *pThread) { pThread->SendStopRequest(); });
        std::for_each_n(pThreads, u32Count,
                        [](CTaskThread *pThread) { pThread->m_objTaskQueue.Stop(); });
        std::for_each_n(pThreads, u32Count, [](CTaskThread *pThread) { pThread->Join(); });
        std::for_each_n(pThreads, u32Count, [](CTaskThread *pThread) { delete pThread; });
        s_pTaskThreadArray[u32Pool] = nullptr;
        delete[] pThreads;
    }
    s_u32NumTaskThreadPools.store(0);
    WaitForVisitors();
    delete[] s_pTaskThreadArray;
    s_pTaskThreadArray = nullptr;
}
