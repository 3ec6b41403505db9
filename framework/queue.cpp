/*
 * Queues as a ring through a sentinel: the sentinel's next is the newest element, its previous
 * the oldest.
 */
#include "framework/queue.h"

#include "framework/assertion.h"

CQueueElem::~CQueueElem()
{
    assert(m_pQueue == NULL);
}

CQueue::CQueue() : m_u32Length(0)
{
    m_objSentinel.m_pNext = &m_objSentinel;
    m_objSentinel.m_pPrev = &m_objSentinel;
}

CQueue::~CQueue()
{
    /* Elements that outlive the queue (tasks left when their thread ends) must not point at it. */
    while (DeQueue() != nullptr) {
    }
}

void CQueue::EnQueue(CQueueElem *i_pElem)
{
    assert(i_pElem != NULL);
    if (i_pElem->m_pQueue == this) {
        return;
    }
    assert(i_pElem->m_pQueue == NULL);
    i_pElem->m_pNext = m_objSentinel.m_pNext;
    i_pElem->m_pPrev = &m_objSentinel;
    m_objSentinel.m_pNext->m_pPrev = i_pElem;
    m_objSentinel.m_pNext = i_pElem;
    i_pElem->m_pQueue = this;
    m_u32Length++;
}

CQueueElem *CQueue::DeQueue()
{
    if (m_u32Length == 0) {
        return nullptr;
    }
    assert(m_objSentinel.m_pPrev != &m_objSentinel);
    CQueueElem *pElem = m_objSentinel.m_pPrev;
    Unlink(pElem);
    return pElem;
}

void CQueue::Remove(CQueueElem *i_pElem)
{
    assert(i_pElem != NULL);
    assert(i_pElem != &m_objSentinel);
    if (i_pElem->m_pQueue == this) {
        Unlink(i_pElem);
    }
}

/* The element's own links are left as they were. */
void CQueue::Unlink(CQueueElem *i_pElem)
{
    i_pElem->m_pNext->m_pPrev = i_pElem->m_pPrev;
    i_pElem->m_pPrev->m_pNext = i_pElem->m_pNext;
    i_pElem->m_pQueue = nullptr;
    m_u32Length--;
}

void CQueueIter::Next()
{
    if (m_pCurrent == m_pQueue->GetTail()) {
        m_pCurrent = nullptr;
    } else {
        m_pCurrent = m_pCurrent->Prev();
    }
}

void CQueue_Blocking::EnQueue(CQueueElem *i_pElem)
{
    {
        CMutexLocker objLocker(&m_objMutex);
        m_objQueue.EnQueue(i_pElem);
    }
    m_objCond.Signal();
}

CQueueElem *CQueue_Blocking::DeQueue()
{
    CMutexLocker objLocker(&m_objMutex);
    return m_objQueue.DeQueue();
}

CQueueElem *CQueue_Blocking::DeQueueBlocking(CThread *, int i_s32TimeoutInMilSecs)
{
    CMutexLocker objLocker(&m_objMutex);
    if (m_objQueue.GetLength() == 0 && !m_bStopped) {
        m_objCond.Wait(&m_objMutex, i_s32TimeoutInMilSecs);
    }
    return m_objQueue.DeQueue();
}

void CQueue_Blocking::Stop()
{
    {
        CMutexLocker objLocker(&m_objMutex);
        m_bStopped = true;
    }
    m_objCond.Broadcast();
}
