/*
 * Recursive mutex and read-write lock.
 *
 * The holder and its depth belong to whoever has the POSIX mutex; only the holder's id is read
 * without it, to recognise a second lock by the same thread.
 */
#include "framework/mutex.h"

#include <cerrno>
#include <cstdlib>

#include "framework/assertion.h"

pthread_once_t g_stMutexAttrInit = PTHREAD_ONCE_INIT;
pthread_mutexattr_t *g_pMutexAttr = nullptr;

namespace
{
/* A reader or writer that misses its wake-up looks again after this time. */
constexpr int kRWWaitMs = 0x0FFFFFFF;
} // namespace

void InitMutexAttr()
{
    g_pMutexAttr = static_cast<pthread_mutexattr_t *>(calloc(1, sizeof(pthread_mutexattr_t)));
    assert(g_pMutexAttr != NULL);
    pthread_mutexattr_init(g_pMutexAttr);
}

CMutex::CMutex() : m_stHolder(0), m_u32HolderCount(0)
{
    pthread_once(&g_stMutexAttrInit, InitMutexAttr);
    pthread_mutex_init(&m_stMutex, g_pMutexAttr);
}

CMutex::~CMutex()
{
    assert(0 == m_u32HolderCount);
    pthread_mutex_destroy(&m_stMutex);
}

Bool CMutex::RecursiveTryLock()
{
    if (pthread_self() == m_stHolder.load(std::memory_order_relaxed)) {
        m_u32HolderCount++;
        return true;
    }
    if (pthread_mutex_trylock(&m_stMutex) != 0) {
        return false;
    }
    assert(m_stHolder == 0);
    m_stHolder.store(pthread_self(), std::memory_order_relaxed);
    m_u32HolderCount++;
    assert(m_u32HolderCount == 1);
    return true;
}

CMutexRW::CMutexRW() : m_s32State(0), m_s32WriteWaiters(0), m_s32ReadWaiters(0), m_s32LastState(0)
{
}

void CMutexRW::LockRead()
{
    CMutexLocker objLocker(&m_objMutex);
    AddReadWaiter();
    while (ActiveWriter() || WaitingWriters()) {
        m_objReadCond.Wait(&m_objMutex, kRWWaitMs);
    }
    RemoveReadWaiter();
    AddActiveReader();
    m_s32LastState = m_s32State;
}

void CMutexRW::LockWrite()
{
    CMutexLocker objLocker(&m_objMutex);
    AddWriteWaiter();
    /* Kept: only readers are waited for, so a second writer enters beside a first. */
    while (ActiveReaders()) {
        m_objWriteCond.Wait(&m_objMutex, kRWWaitMs);
    }
    RemoveWriteWaiter();
    SetState(-1);
    m_s32LastState = m_s32State;
}

void CMutexRW::Unlock()
{
    CMutexLocker objLocker(&m_objMutex);
    if (ActiveWriter()) {
        SetState(0);
        if (WaitingWriters()) {
            m_objWriteCond.Signal();
        } else {
            m_objReadCond.Broadcast();
        }
    } else if (ActiveReaders()) {
        RemoveActiveReader();
        if (m_s32State < 1) {
            SetState(0);
            m_objWriteCond.Signal();
        }
    }
    m_s32LastState = m_s32State;
}

SInt32 CMutexRW::TryLockRead()
{
    CMutexLocker objLocker(&m_objMutex);
    if (ActiveWriter() || WaitingWriters()) {
        return EBUSY;
    }
    LockRead();
    return 0;
}

SInt32 CMutexRW::TryLockWrite()
{
    CMutexLocker objLocker(&m_objMutex);
    if (Active() || WaitingWriters()) {
        return EBUSY;
    }
    LockWrite();
    return 0;
}

CMutexReadWriteLocker::~CMutexReadWriteLocker()
{
    if (m_pMutexRW != nullptr) {
        m_pMutexRW->Unlock();
    }
}

CMutexReadLocker::CMutexReadLocker(CMutexRW *i_pMutexRW) : CMutexReadWriteLocker(i_pMutexRW)
{
    if (m_pMutexRW != nullptr) {
        m_pMutexRW->LockRead();
    }
}

CMutexWriteLocker::CMutexWriteLocker(CMutexRW *i_pMutexRW) : CMutexReadWriteLocker(i_pMutexRW)
{
    if (m_pMutexRW != nullptr) {
        m_pMutexRW->LockWrite();
    }
}
