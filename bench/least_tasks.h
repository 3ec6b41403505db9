/*
 * The limit of the task pool: the least POSIX program that takes the same steps.
 *
 * The event words and the round robin are under one mutex; each worker has a list with a mutex and
 * a condition and looks at it at least every 5 ms; runs share a lock; a worker yields after a run.
 * There are no delayed runs, priorities, names or checks.
 */
#pragma once

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sched.h>
#include <sys/time.h>
#include <time.h>

#include "framework/types.h"

class CLeastTask
{
public:
    virtual ~CLeastTask() = default;
    virtual void Run() = 0;

private:
    friend class CLeastPool;

    UInt32 m_u32Events = 0;
    CLeastTask *m_pNext = nullptr;
};

class CLeastPool
{
public:
    explicit CLeastPool(unsigned i_u32Threads)
    {
        for (unsigned i = 0; i < i_u32Threads; i++) {
            m_pWorkers.push_back(std::make_unique<CWorker>());
            CWorker *pWorker = m_pWorkers.back().get();
            pWorker->objThread = std::thread([this, pWorker] { Work(pWorker); });
        }
    }
    ~CLeastPool()
    {
        m_bStop.store(true, std::memory_order_relaxed);
        for (auto &pWorker : m_pWorkers) {
            pWorker->objThread.join();
        }
    }
    CLeastPool(const CLeastPool &) = delete;
    CLeastPool &operator=(const CLeastPool &) = delete;

    void Signal(CLeastTask *i_pTask, UInt32 i_u32Events)
    {
        pthread_mutex_lock(&m_stAtomicMutex);
        const UInt32 u32Old = i_pTask->m_u32Events;
        i_pTask->m_u32Events |= i_u32Events | kAlive;
        pthread_mutex_unlock(&m_stAtomicMutex);
        if ((u32Old & kAlive) != 0) {
            return;
        }
        pthread_mutex_lock(&m_stAtomicMutex);
        const UInt32 u32Picked = ++m_u32Picker;
        pthread_mutex_unlock(&m_stAtomicMutex);
        CWorker &objWorker = *m_pWorkers[u32Picked % m_pWorkers.size()];
        pthread_mutex_lock(&objWorker.stMutex);
        i_pTask->m_pNext = nullptr;
        *objWorker.ppTail = i_pTask;
        objWorker.ppTail = &i_pTask->m_pNext;
        pthread_mutex_unlock(&objWorker.stMutex);
        pthread_cond_signal(&objWorker.stCond);
    }

private:
    static constexpr UInt32 kAlive = 0x80000000;

    struct CWorker {
        pthread_mutex_t stMutex = PTHREAD_MUTEX_INITIALIZER;
        pthread_cond_t stCond = PTHREAD_COND_INITIALIZER;
        CLeastTask *pHead = nullptr;
        CLeastTask **ppTail = &pHead;
        std::thread objThread;
    };

    static void WaitFiveMs(CWorker *i_pWorker)
    {
        struct timeval stNow;
        gettimeofday(&stNow, nullptr);
        struct timespec stEnd = {stNow.tv_sec, (stNow.tv_usec + 5000) * 1000};
        if (stEnd.tv_nsec > 999999999) {
            stEnd.tv_sec++;
            stEnd.tv_nsec -= 1000000000;
        }
        pthread_cond_timedwait(&i_pWorker->stCond, &i_pWorker->stMutex, &stEnd);
    }

    static CLeastTask *Take(CWorker *i_pWorker)
    {
        /* Kept in the limit: delayed runs are looked for at every turn. */
        struct timespec stNow;
        clock_gettime(CLOCK_MONOTONIC, &stNow);
        pthread_mutex_lock(&i_pWorker->stMutex);
        if (i_pWorker->pHead == nullptr) {
            WaitFiveMs(i_pWorker);
        }
        CLeastTask *pTask = i_pWorker->pHead;
        if (pTask != nullptr) {
            i_pWorker->pHead = pTask->m_pNext;
            if (i_pWorker->pHead == nullptr) {
                i_pWorker->ppTail = &i_pWorker->pHead;
            }
        }
        pthread_mutex_unlock(&i_pWorker->stMutex);
        return pTask;
    }

    void Work(CWorker *i_pWorker)
    {
        for (;;) {
            CLeastTask *pTask = Take(i_pWorker);
            if (pTask != nullptr) {
                RunUntilDone(pTask);
            } else if (m_bStop.load(std::memory_order_relaxed)) {
                return;
            }
        }
    }

    void RunUntilDone(CLeastTask *i_pTask)
    {
        for (bool bDone = false; !bDone;) {
            pthread_rwlock_rdlock(&m_stRunLock);
            /* The run takes its events in two steps: what is there, and then no more than that. */
            pthread_mutex_lock(&m_stAtomicMutex);
            const UInt32 u32Events = i_pTask->m_u32Events & ~kAlive;
            pthread_mutex_unlock(&m_stAtomicMutex);
            pthread_mutex_lock(&m_stAtomicMutex);
            i_pTask->m_u32Events -= u32Events;
            pthread_mutex_unlock(&m_stAtomicMutex);
            i_pTask->Run();
            pthread_rwlock_unlock(&m_stRunLock);

            pthread_mutex_lock(&m_stAtomicMutex);
            bDone = i_pTask->m_u32Events == kAlive;
            if (bDone) {
                i_pTask->m_u32Events = 0;
            }
            pthread_mutex_unlock(&m_stAtomicMutex);
            sched_yield();
        }
    }

    pthread_mutex_t m_stAtomicMutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_rwlock_t m_stRunLock = PTHREAD_RWLOCK_INITIALIZER;
    UInt32 m_u32Picker = 0;
    std::atomic<bool> m_bStop{false};
    std::vector<std::unique_ptr<CWorker>> m_pWorkers;
};
