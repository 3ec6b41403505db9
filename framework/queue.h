/*
 * Intrusive first-in first-out queue, its iterator, and a blocking variant.
 *
 * An object carries a CQueueElem inside itself and names itself as the enclosing object, so
 * queueing never allocates. An element is in one queue at a time and must be taken out before it
 * is destroyed; a queue that is destroyed first lets go of what it still holds.
 *
 * CQueue and CQueueIter are unsynchronised: their owner locks. CQueue_Blocking locks itself and
 * may be used from any thread.
 */
#pragma once

#include "framework/cond.h"
#include "framework/mutex.h"
#include "framework/types.h"

class CQueue;
class CThread;

class CQueueElem
{
public:
    /* i_pEnclosingObject: the object that embeds this element; may be null. */
    explicit CQueueElem(void *i_pEnclosingObject = nullptr)
        : m_pNext(nullptr), m_pPrev(nullptr), m_pQueue(nullptr),
          m_pEnclosingObject(i_pEnclosingObject)
    {
    }
    /* Asserts that no queue holds the element. */
    virtual ~CQueueElem();
    CQueueElem(const CQueueElem &) = delete;
    CQueueElem &operator=(const CQueueElem &) = delete;

    void *GetEnclosingObject() const { return m_pEnclosingObject; }
    /* The element queued next after this one; the newest element's is the queue's sentinel. */
    CQueueElem *Prev() const { return m_pPrev; }

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */
    void SetEnclosingObject(void *i_pEnclosingObject) { m_pEnclosingObject = i_pEnclosingObject; }

private:
    friend class CQueue;

    CQueueElem *m_pNext; /* towards older elements */
    CQueueElem *m_pPrev; /* towards newer elements */
    CQueue *m_pQueue;
    void *m_pEnclosingObject;
};

class CQueue
{
public:
    CQueue();
    ~CQueue();
    CQueue(const CQueue &) = delete;
    CQueue &operator=(const CQueue &) = delete;

    /* Does nothing if the element is in this queue; asserts that it is in no other. */
    void EnQueue(CQueueElem *i_pElem);
    /* Takes out the oldest element; null when empty. */
    CQueueElem *DeQueue();
    /* Does nothing if the element is not in this queue. */
    void Remove(CQueueElem *i_pElem);

    /* The oldest and the newest element; null when empty. */
    CQueueElem *GetHead() const { return m_u32Length > 0 ? m_objSentinel.m_pPrev : nullptr; }
    CQueueElem *GetTail() const { return m_u32Length > 0 ? m_objSentinel.m_pNext : nullptr; }
    UInt32 GetLength() const { return m_u32Length; }

private:
    void Unlink(CQueueElem *i_pElem);

    CQueueElem m_objSentinel;
    UInt32 m_u32Length;
};

/* Walks a queue from the oldest element to the newest. The current element must stay in the queue
 * until Next() has left it. */
class CQueueIter
{
public:
    explicit CQueueIter(CQueue *i_pQueue) : m_pQueue(i_pQueue), m_pCurrent(i_pQueue->GetHead()) {}

    /* Null once done. */
    CQueueElem *GetCurrent() const { return m_pCurrent; }
    Bool IsDone() const { return m_pCurrent == nullptr; }
    void Next();

private:
    CQueue *m_pQueue;
    CQueueElem *m_pCurrent;
};

class CQueue_Blocking
{
public:
    /* As CQueue::EnQueue; wakes one waiter. */
    void EnQueue(CQueueElem *i_pElem);
    /* Never waits; null when empty. */
    CQueueElem *DeQueue();
    /* Waits once if the queue is empty: null after the time-out, and also when the wait ended
     * early. i_s32TimeoutInMilSecs: milliseconds as of CCond::Wait, 0 waits without limit.
     * The thread is not used and may be null. */
    CQueueElem *DeQueueBlocking(CThread *i_pThread, int i_s32TimeoutInMilSecs);

    /* Ends every wait; from then on none begins. The elements stay, and more may come. */
    void Stop();

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */
    /* Signalled once per element; signal it to end somebody's wait early. */
    CCond *GetCond() { return &m_objCond; }

private:
    CCond m_objCond;
    CMutex m_objMutex;
    CQueue m_objQueue;
    Bool m_bStopped = false;
};
