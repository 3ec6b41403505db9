/*
 * Recursive mutex and its scoped locker.
 *
 * CMutex keeps its owner and its depth itself, on top of a plain POSIX mutex; CCond gives the
 * mutex up for the time of a wait.
 *
 * Every operation may be called from any thread. None of them allocates, except the very first
 * CMutex of the process (the shared attribute object).
 */
#pragma once

#include <atomic>

#include <pthread.h>

#include "framework/assertion.h"
#include "framework/types.h"

/* Attribute object shared by every CMutex; made once, never freed. */
extern pthread_once_t g_stMutexAttrInit;
extern pthread_mutexattr_t *g_pMutexAttr;
void InitMutexAttr();

class CCond;

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
