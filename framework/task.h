/*
 * Tasks and the pools of threads that run them.
 *
 * A task is an object whose Run() is called on a pool thread after somebody signalled it an
 * event, and which may ask to be called again later. Signals to a task that is queued or running
 * only add their bits, so a task is queued once and never runs on two threads.
 *
 * Each CTaskThread owns a queue of tasks to run and a heap of tasks that wait for their time.
 * CTaskThreadPool owns the threads. Tasks are heap objects: the thread that ran one deletes it
 * when Run() says so.
 */
#pragma once

#include <atomic>

#include "framework/heap.h"
#include "framework/mutex_rw.h"
#include "framework/queue.h"
#include "framework/thread.h"
#include "framework/types.h"

#define LIVE_TASK_STATE_STR "live_"

class CTaskThread;

class CTask
{
public:
    using EventFlags = UInt32;

    static constexpr EventFlags kKillEvent = 1;    /* Run() is to return a negative value */
    static constexpr EventFlags kIdleEvent = 2;    /* the delay that Run() asked for is over */
    static constexpr EventFlags kStartEvent = 4;   /* first signal after the construction */
    static constexpr EventFlags kTimeoutEvent = 8; /* a CTimeoutTask's deadline has passed */
    static constexpr EventFlags kReadEvent = 16;   /* a watched descriptor is ready */
    static constexpr EventFlags kAliveEvent = 0x80000000; /* queued, running or delayed */

    CTask();
    /* The task must be in no ready queue. */
    virtual ~CTask() {}
    CTask(const CTask &) = delete;
    CTask &operator=(const CTask &) = delete;

    /* The task's work, called on a pool thread. Negative: delete the task; positive: call again
     * after that many milliseconds, with kIdleEvent; 0: done until the next signal. */
    virtual SInt64 Run() = 0;

    /* i_pName: 42 characters are kept, null leaves the name as it is. The owner's call, before
     * the task is first signalled or from Run(). */
    void SetTaskName(const char *i_pName);
    /* False once the task is about to be deleted, and for a null pointer. */
    Bool Valid() const;
    static Bool Valid(const CTask *i_pTask) { return i_pTask != nullptr && i_pTask->Valid(); }

    /* Makes the events pending and has the task run, on its bound thread or else on the next one
     * of its pool. Any thread. Does nothing to a task that is not Valid(), nor (but for the
     * pending events) while the pool has no threads. A null pointer is ignored. */
    void Signal(EventFlags i_u32Events);
    static void Signal(CTask *i_pTask, EventFlags i_u32Events)
    {
        if (i_pTask != nullptr) {
            i_pTask->Signal(i_u32Events);
        }
    }
    /* For Run() only: takes the pending events; what is signalled later stays pending. */
    EventFlags GetEvents();

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */
    /* With the prefix that marks a living task. */
    const char *GetTaskName() const { return m_szTaskName; }
    /* The next run holds the pools' lock for writing: no other task runs beside it, unless that
     * one asked for the same. The end of such a run takes back what was asked during it. */
    void SetGlobalLock() { m_bGlobalLock.store(true); }
    /* For Run() only: gives that lock up early. */
    void GlobalUnlock();

    /* Before the first signal. */
    void SetThreadPool(UInt32 i_u32PoolID) { m_u32PoolID = i_u32PoolID; }
    /* Before the first signal: every run is on this thread, one of the task's own pool, instead
     * of on the pool's threads in turn. Null: in turn. */
    void SetBoundThread(CTaskThread *i_pThread) { m_pBoundThread = i_pThread; }

private:
    friend class CTaskThread;
    friend class CTaskThreadPool;

    char m_szTaskName[48];
    UInt32 m_u32Events; /* through framework/atomic.h only */
    CTaskThread *m_pCurrentThread;
    CTaskThread *m_pBoundThread;
    std::atomic<Bool> m_bGlobalLock;
    Bool m_bLockHeld; /* the run under way holds the pools' lock */
    CHeapElem m_objTimerElem;
    CQueueElem m_objQueueElem;
    UInt32 m_u32PoolID;
};

class CTaskThread : public CThread
{
public:
    CTaskThread(int i_s32Policy, int i_s32Priority);
    /* Tasks that wait for a delayed run do not get one. */
    ~CTaskThread() override;

    void Entry() override;

private:
    friend class CTaskThreadPool;

    CTask *WaitForTask();
    void RunUntilDone(CTask *i_pTask);
    static SInt64 RunOnce(CTask *i_pTask);

    CQueueElem m_objElem;
    CHeap m_objHeap;
    CQueue_Blocking m_objTaskQueue;
    UInt32 m_u32PoolID;
};

class CTaskThreadPool
{
public:
    /* i_u32Num: number of pools, numbered from 0. Asserts that there are none yet. */
    static Bool AddThreadPools(UInt32 i_u32Num);
    /* Starts threads with default scheduling in pool 0, which is made if there is no pool. */
    static Bool AddThreads(UInt32 i_u32NumToAdd);
    /* Starts the threads of a pool, once per pool. Policy and priority as of CThread. False if
     * there is no such pool. */
    static Bool AddThreads(UInt32 i_u32PoolID, UInt32 i_u32NumToAdd, int i_s32Policy,
                           int i_s32Priority);
    /* Ends and deletes every thread. Tasks that are ready are run before, and so are those that
     * these signal, but not for a delay that they ask for then. Not to be called on a task thread.
     * Other threads may go on signalling: it no longer has an effect. */
    static void RemoveThreads();

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */
    /* Null if there is no such thread. The pointer is good until RemoveThreads(). */
    static CTaskThread *GetThread(UInt32 i_u32PoolID, UInt32 i_u32Index);

private:
    friend class CTask;
    friend class CTaskThread;

    /* Keeps the threads from being deleted for the time of its own life. */
    class CVisit
    {
    public:
        CVisit() { s_u32Visitors++; }
        ~CVisit() { s_u32Visitors--; }
    };

    /* Chooses the thread and queues the task there, if the task's pool has a thread to run it. */
    static void Queue(CTask *i_pTask);
    static UInt32 CountThreads(UInt32 i_u32PoolID);
    static void WaitForVisitors();

    static CTaskThread ***s_pTaskThreadArray;
    static std::atomic<std::atomic<UInt32> *> s_pNumTaskThreads;
    static UInt32 *s_pTaskThreadPicker;
    static std::atomic<UInt32> s_u32NumTaskThreadPools;
    static std::atomic<UInt32> s_u32Visitors;
    static CMutexRW &s_objMutexRW;
};
