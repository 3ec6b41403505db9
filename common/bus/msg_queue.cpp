/*
 * Bounded message queue. The ring is filled under the queue's own mutex; nothing is allocated for a
 * message.
 */
#include "common/bus/msg_queue.h"

#include "common/bus/log.h"

CMsgQueue::CMsgQueue() : m_u64Head(0), m_u64Count(0), m_bWaits(true) {}

int CMsgQueue::PushMsg(const MSG_DESC_INFO_S *i_pMsg)
{
    if (i_pMsg == nullptr) {
        return 0;
    }
    {
        CMutexLocker objLocker(&m_objMutex);
        if (m_u64Count > kCapacity - 1) {
            LOG_ERROR("buf<%d> overflow, msg<src:%d,dst:%d,msgtype:0x%x> discard",
                      static_cast<int>(m_u64Count), static_cast<int>(i_pMsg->src),
                      static_cast<int>(i_pMsg->dst), i_pMsg->msgno);
            return 0;
        }
        m_stRing[(m_u64Head + m_u64Count) % kCapacity] = *i_pMsg;
        m_u64Count++;
    }
    m_objCond.Signal();
    return 1;
}

int CMsgQueue::PopMsg(int i_s32Timeout, MSG_DESC_INFO_S *o_pMsg)
{
    if (o_pMsg == nullptr) {
        return 0;
    }
    CMutexLocker objLocker(&m_objMutex);
    if (m_u64Count == 0 && m_bWaits) {
        m_objCond.Wait(&m_objMutex, i_s32Timeout);
    }
    if (m_u64Count == 0) {
        return 0;
    }
    *o_pMsg = m_stRing[m_u64Head];
    m_u64Head = (m_u64Head + 1) % kCapacity;
    m_u64Count--;
    return 1;
}

void CMsgQueue::StopWaiting()
{
    {
        CMutexLocker objLocker(&m_objMutex);
        m_bWaits = false;
    }
    m_objCond.Broadcast();
}
