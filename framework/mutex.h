/*
 * Recursive mutex, its scoped locker, and a read-write lock built from it.
 *
 * CMutex keeps its owner and its depth itself, on top of a plain POSIX mutex; CCond gives the
 * mutex up for the time of a wait. CMutexRW serves any number of readers or a writer and lets
 * waiting writers pass before new readers.
 *
 * Every operation may be called from any thread. None of them allocates, except the very first
 * CMutex of the process (the shared attribute object).
 */
#pragma once

#include <atomic>

#include <pthread.h>

#include "framework/assertion.h"
#include "framework/cond.h"
#include "framework/types.h"

/* Attribute object shared by every CMutex; made once, never freed. */
extern pthread_once_t g_stMutexAttrInit;
extern pthread_mutexattr_t *g_pMutexAttr;
void InitMutexAttr();

class CMutex
{
public:
    CMutex();
    /* Asserts that nobody holds the mutex. */
    ~CMutex();
    CMutex(const CMutex &) = delete;
    CMutex &operator=(const CMutex &) = delete;

    /* Blocks until the caller holds the mutex. The holder may lock again, to any depth. */
    void Lock() { RecursiveLock(); }
    /* Gives up one level. Asserts that the caller is the holder. */
    void Unlock() { RecursiveUnlock(); }
    /* Returns true when the caller holds the mutex (one level deeper), false when another does. */
    Bool TryLock() { return RecursiveTryLock(); }

private:
    friend class CCond;

    void RecursiveLock();
    void RecursiveUnlock();
    Bool RecursiveTryLock();

    pthread_mutex_t m_stMutex;
    /* Compared by threads that do not hold the mutex, hence atomic: a thread can only ever read
     * its own id here if it stored it itself, so no ordering is needed. */
    std::atomic<pthread_t> m_stHolder;
    UInt32 m_u32HolderCount;
};

/* In the header: a lock is taken so often that the calls would cost more than the locks, and the
 * compiler reads the thread's id once for a lock and its unlock. */
inline void CMutex::RecursiveLock()
{
    if (pthread_self() == m_stHolder.load(std::memory_order_relaxed)) {
        m_u32HolderCount++;
        return;
    }
    pthread_mutex_lock(&m_stMutex);
    assert(0 == m_stHolder);
    m_stHolder.store(pthread_self(), std::memory_order_relaxed);
    m_u32HolderCount++;
    assert(1 == m_u32HolderCount);
}

inline void CMutex::RecursiveUnlock()
{
    assert(pthread_self() == m_stHolder);
    assert(m_u32HolderCount > 0);
    if (--m_u32HolderCount == 0) {
        m_stHolder.store(0, std::memory_order_relaxed);
        pthread_mutex_unlock(&m_stMutex);
    }
}

/* Holds a CMutex for the time of its own life. A null mutex is allowed and does nothing. */
class CMutexLocker
{
public:
    explicit CMutexLocker(CMutex *i_pMutex) : m_pMutex(i_pMutex)
    {
        if (m_pMutex != nullptr) {
            m_pMutex->Lock();
        }
    }
    ~CMutexLocker()
    {
        if (m_pMutex != nullptr) {
            m_pMutex->Unlock();
            m_pMutex = nullptr;
        }
    }
    CMutexLocker(const CMutexLocker &) = delete;
    CMutexLocker &operator=(const CMutexLocker &) = delete;

private:
    CMutex *m_pMutex;
};

class CMutexRW
{
public:
    CMutexRW();

    /* Waits while a writer holds the lock or waits for it. */
    void LockRead();
    /* Waits while readers hold the lock. A second writer is admitted beside a first. */
    void LockWrite();
    /* Gives up one reader or the writer and wakes who may go next. */
    void Unlock();
    /* 0 acquired, 16 (EBUSY) not. */
    SInt32 TryLockRead();
    SInt32 TryLockWrite();

    /* The predicates and adjusters below are for use under the internal mutex only. */
    Bool Active() const { return m_s32State != 0; }
    Bool ActiveReaders() const { return m_s32State > 0; }
    Bool ActiveWriter() const { return m_s32State < 0; }
    Bool WaitingWriters() const { return m_s32WriteWaiters > 0; }
    void AddReadWaiter() { AdjustReadWaiters(1); }
    void RemoveReadWaiter() { AdjustReadWaiters(-1); }
    void AddWriteWaiter() { AdjustWriteWaiters(1); }
    void RemoveWriteWaiter() { AdjustWriteWaiters(-1); }
    void AddActiveReader() { AdjustState(1); }
    void RemoveActiveReader() { AdjustState(-1); }
    void SetState(int i_s32State) { m_s32State = i_s32State; }
    void AdjustState(int i_s32By) { m_s32State += i_s32By; }
    void AdjustReadWaiters(int i_s32By) { m_s32ReadWaiters += i_s32By; }
    void AdjustWriteWaiters(int i_s32By) { m_s32WriteWaiters += i_s32By; }

private:
    CMutex m_objMutex;
    CCond m_objReadCond;
    CCond m_objWriteCond;
    SInt32 m_s32State;
    SInt32 m_s32WriteWaiters;
    SInt32 m_s32ReadWaiters;
    SInt32 m_s32LastState; /* kept for inspection in a debugger only */
};

/* Unlocks a CMutexRW at the end of its own life. A null lock is allowed and does nothing. */
class CMutexReadWriteLocker
{
public:
    explicit CMutexReadWriteLocker(CMutexRW *i_pMutexRW) : m_pMutexRW(i_pMutexRW) {}
    ~CMutexReadWriteLocker();
    CMutexReadWriteLocker(const CMutexReadWriteLocker &) = delete;
    CMutexReadWriteLocker &operator=(const CMutexReadWriteLocker &) = delete;

protected:
    CMutexRW *m_pMutexRW;
};

class CMutexReadLocker : public CMutexReadWriteLocker
{
public:
    explicit CMutexReadLocker(CMutexRW *i_pMutexRW);
};

class CMutexWriteLocker : public CMutexReadWriteLocker
{
public:
    explicit CMutexWriteLocker(CMutexRW *i_pMutexRW);
};
