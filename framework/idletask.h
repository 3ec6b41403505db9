/*
 * Idle timers: a task asks to get kIdleEvent once, so many milliseconds from now.
 *
 * One thread, "idletaskthread", keeps the requests in a heap. It never ends: it and all that it
 * touches live until the process is gone.
 */
#pragma once

#include "framework/cond.h"
#include "framework/heap.h"
#include "framework/mutex.h"
#include "framework/task.h"
#include "framework/thread.h"
#include "framework/types.h"

class CIdleTaskThread;

class CIdleTask : public CTask
{
public:
    /* Starts the idle-task thread; further calls do nothing. Before any timer is set and before
     * any idle task is destroyed. */
    static void Initialize();

    CIdleTask();
    /* Cancels a pending timer. Asserts that Initialize() was called. */
    ~CIdleTask() override;

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */
    /* kIdleEvent after so many milliseconds; a timer that is pending already stays as it is.
     * Asserts that Initialize() was called. */
    void SetIdleTimer(SInt64 i_s64Milliseconds);
    void CancelTimeout();

private:
    friend class CIdleTaskThread;

    CHeapElem m_objIdleElem;

    static CIdleTaskThread *s_pIdleThread;
};

/* Every operation may be called from any thread. */
class CIdleTaskThread : public CThread
{
public:
    CIdleTaskThread();
    /* Asserts that no timer is pending. For a thread that was never started: Entry() does not
     * return. */
    ~CIdleTaskThread() override;

    void Entry() override;
    void CancelTimeout(CIdleTask *i_pIdleObj);

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */
    void SetIdleTimer(CIdleTask *i_pIdleObj, SInt64 i_s64Milliseconds);

private:
    friend class CIdleTask;

    void SignalDue(SInt64 i_s64Now);

    CHeap m_objIdleHeap;
    CMutex m_objMutex; /* guards the heap and the elements in it */
    CCond m_objCond;   /* signalled when a timer was added */
};
