/*
 * Recursive mutex.
 *
 * The holder and its depth belong to whoever has the POSIX mutex; only the holder's id is read
 * without it, to recognise a second lock by the same thread.
 */
#include "framework/mutex.h"

#include <cstdlib>

#include "framework/assertion.h"

pthread_once_t g_stMutexAttrInit = PTHREAD_ONCE_INIT;
pthread_mutexattr_t *g_pMutexAttr = nullptr;

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
