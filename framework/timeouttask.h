/*
 * Timeout records: each signals a task a chosen event when its deadline has passed.
 *
 * A record is not a task; it is owned by whoever wants to be woken, usually as a member. All
 * records are scanned about once a second by one task of the pool, which lives until the process
 * ends. A record whose deadline has passed signals at every scan until it is set anew.
 */
#pragma once

#include <atomic>

#include "framework/idletask.h"
#include "framework/mutex.h"
#include "framework/queue.h"
#include "framework/task.h"
#include "framework/types.h"

class CTimeoutTaskThread;

class CTimeoutTask
{
public:
    /* Starts the scanning task; further calls do nothing. Before the first record.
     * i_s64Interval: milliseconds, as of CTimeoutTaskThread::SetIntervalMilli(). */
    static void Initialize(SInt64 i_s64Interval);

    /* i_pTask: who is signalled; must outlive the record. A null task is never signalled.
     * i_s64Timeout: milliseconds, as of SetTimeout(). Asserts that Initialize() was called. */
    CTimeoutTask(CTask *i_pTask, SInt64 i_s64Timeout, CTask::EventFlags i_u32Flags);
    ~CTimeoutTask();
    CTimeoutTask(const CTimeoutTask &) = delete;
    CTimeoutTask &operator=(const CTimeoutTask &) = delete;

    /* Sets the deadline so many milliseconds from now; 0 disarms. Any thread. */
    void SetTimeout(SInt64 i_s64Timeout);

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */
    /* Milliseconds, negative once the deadline has passed; meaningless while disarmed. */
    SInt64 GetTimeRemaining() const;

private:
    friend class CTimeoutTaskThread;

    CTask *m_pTask;
    /* Set by the owner while the scanning task reads them. */
    std::atomic<SInt64> m_s64Deadline; /* monotonic ms; 0: disarmed */
    std::atomic<SInt64> m_s64Timeout;
    CQueueElem m_objQueueElem;
    CTask::EventFlags m_u32Flags;

protected:
    static CTimeoutTaskThread *s_pThread;
};

class CTimeoutTaskThread : public CIdleTask
{
public:
    CTimeoutTaskThread();

    SInt64 Run() override;

    /* Kept: set and told, but without effect, since the scans follow the deadlines. */
    void SetIntervalMilli(SInt64 i_s64Interval) { m_s64Interval.store(i_s64Interval); }

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */
    SInt64 GetIntervalMilli() const { return m_s64Interval.load(); }

private:
    friend class CTimeoutTask;

    CMutex m_objMutex; /* guards the queue; held for a whole scan */
    CQueue m_objQueue;
    std::atomic<SInt64> m_s64Interval;
};
