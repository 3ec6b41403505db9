/*
 * Idle timers.
 */
#include "framework/idletask.h"

#include <algorithm>
#include <cstdio>
#include <limits>

#include <unistd.h>

#include "framework/assertion.h"
#include "framework/clock.h"

namespace
{
constexpr UInt32 kHeapSize = 1024;
} // namespace

CIdleTaskThread *CIdleTask::s_pIdleThread = nullptr;

void CIdleTask::Initialize()
{
    if (s_pIdleThread == nullptr) {
        /* Owned by the process. */
        s_pIdleThread = new CIdleTaskThread;
        s_pIdleThread->Start();
    }
}

CIdleTask::CIdleTask() : m_objIdleElem(this)
{
    SetTaskName("CIdleTask");
}

CIdleTask::~CIdleTask()
{
    assert(s_pIdleThread != NULL);
    s_pIdleThread->CancelTimeout(this);
}

void CIdleTask::SetIdleTimer(SInt64 i_s64Milliseconds)
{
    assert(s_pIdleThread != NULL);
    s_pIdleThread->SetIdleTimer(this, i_s64Milliseconds);
}

void CIdleTask::CancelTimeout()
{
    assert(s_pIdleThread != NULL);
    s_pIdleThread->CancelTimeout(this);
}

CIdleTaskThread::CIdleTaskThread() : m_objIdleHeap(kHeapSize) {}

CIdleTaskThread::~CIdleTaskThread()
{
    assert(m_objIdleHeap.CurrentHeapSize() == 0);
}

void CIdleTaskThread::SetIdleTimer(CIdleTask *i_pIdleObj, SInt64 i_s64Milliseconds)
{
    assert(i_pIdleObj != NULL);
    CMutexLocker objLocker(&m_objMutex);
    if (i_pIdleObj->m_objIdleElem.IsMemberOfAnyHeap()) {
        return;
    }
    i_pIdleObj->m_objIdleElem.SetValue(GetDeadlineInMs(i_s64Milliseconds));
    m_objIdleHeap.Insert(&i_pIdleObj->m_objIdleElem);
    m_objCond.Signal();
}

void CIdleTaskThread::CancelTimeout(CIdleTask *i_pIdleObj)
{
    assert(i_pIdleObj != NULL);
    CMutexLocker objLocker(&m_objMutex);
    m_objIdleHeap.Remove(&i_pIdleObj->m_objIdleElem);
}

void CIdleTaskThread::Entry()
{
    SetName("idletaskthread");
    printf("thread info [%s:%u]\n", "idletaskthread", static_cast<unsigned>(gettid()));

    CMutexLocker objLocker(&m_objMutex);
    for (;;) {
        if (m_objIdleHeap.CurrentHeapSize() == 0) {
            m_objCond.Wait(&m_objMutex, 0);
        }
        SInt64 s64Now = GetTimeInMs();
        SignalDue(s64Now);
        if (m_objIdleHeap.CurrentHeapSize() > 0) {
            SInt64 s64TimeoutTime = m_objIdleHeap.PeekMin()->GetValue() - s64Now;
            assert(s64TimeoutTime > 0);
            constexpr SInt64 kMaxWaitMs = std::numeric_limits<int>::max();
            m_objCond.Wait(&m_objMutex, static_cast<int>(std::min(s64TimeoutTime, kMaxWaitMs)));
        }
    }
}

/* A task is not destroyed meanwhile: its destructor cancels under the mutex. */
void CIdleTaskThread::SignalDue(SInt64 i_s64Now)
{
    while (m_objIdleHeap.CurrentHeapSize() > 0 && i_s64Now >= m_objIdleHeap.PeekMin()->GetValue()) {
        CIdleTask *pElem =
            static_cast<CIdleTask *>(m_objIdleHeap.ExtractMin()->GetEnclosingObject());
        assert(pElem != NULL);
        pElem->Signal(CTask::kIdleEvent);
    }
}
