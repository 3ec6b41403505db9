/*
 * Timeout records and the task that scans them.
 */
#include "framework/timeouttask.h"

#include <limits>

#include "framework/assertion.h"
#include "framework/clock.h"

namespace
{
constexpr SInt64 kDefaultIntervalMs = 100;
/* The delay to the next scan when no deadline is closer. */
constexpr SInt64 kLongestDelayMs = 1000;
} // namespace

CTimeoutTaskThread *CTimeoutTask::s_pThread = nullptr;

void CTimeoutTask::Initialize(SInt64 i_s64Interval)
{
    if (s_pThread == nullptr) {
        /* Owned by the process. */
        s_pThread = new CTimeoutTaskThread;
        s_pThread->Signal(CTask::kStartEvent);
        s_pThread->SetIntervalMilli(i_s64Interval);
    }
}

CTimeoutTask::CTimeoutTask(CTask *i_pTask, SInt64 i_s64Timeout, CTask::EventFlags i_u32Flags)
    : m_pTask(i_pTask), m_s64Deadline(0), m_s64Timeout(0), m_objQueueElem(this),
      m_u32Flags(i_u32Flags)
{
    SetTimeout(i_s64Timeout);
    assert(s_pThread != NULL);
    CMutexLocker objLocker(&s_pThread->m_objMutex);
    s_pThread->m_objQueue.EnQueue(&m_objQueueElem);
}

CTimeoutTask::~CTimeoutTask()
{
    CMutexLocker objLocker(&s_pThread->m_objMutex);
    s_pThread->m_objQueue.Remove(&m_objQueueElem);
}

void CTimeoutTask::SetTimeout(SInt64 i_s64Timeout)
{
    m_s64Timeout.store(i_s64Timeout);
    m_s64Deadline.store(i_s64Timeout == 0 ? 0 : GetDeadlineInMs(i_s64Timeout));
}

SInt64 CTimeoutTask::GetTimeRemaining() const
{
    SInt64 s64Remaining = 0;
    /* A timeout may be any number, and so far in the past that the difference does not fit. */
    return __builtin_sub_overflow(m_s64Deadline.load(), GetTimeInMs(), &s64Remaining)
               ? std::numeric_limits<SInt64>::min()
               : s64Remaining;
}

CTimeoutTaskThread::CTimeoutTaskThread() : m_s64Interval(kDefaultIntervalMs)
{
    SetTaskName("CTimeoutTask");
}

SInt64 CTimeoutTaskThread::Run()
{
    CMutexLocker objLocker(&m_objMutex);
    SInt64 s64Now = GetTimeInMs();
    SInt64 s64Next = kLongestDelayMs;
    for (CQueueIter objIter(&m_objQueue); !objIter.IsDone(); objIter.Next()) {
        CTimeoutTask *pRecord =
            static_cast<CTimeoutTask *>(objIter.GetCurrent()->GetEnclosingObject());
        SInt64 s64Deadline = pRecord->m_s64Deadline.load();
        if (s64Deadline <= 0) {
            continue;
        }
        SInt64 s64Remaining = s64Deadline - s64Now;
        if (s64Remaining <= 0) {
            CTask::Signal(pRecord->m_pTask, pRecord->m_u32Flags);
        } else if (pRecord->m_s64Timeout.load() > 0 && s64Next > s64Remaining) {
            /* Kept: with the full second on top the scans are one to two seconds apart, however
             * close a deadline is, so that the records together cost a run a second at most. */
            s64Next = s64Remaining + 1000;
        }
    }
    GetEvents();
    CThread::ThreadYield();
    return s64Next;
}
