/*
 * The limit of the task pool and of the event thread: the least POSIX program that takes the same
 * steps.
 *
 * The pool: the event words and the round robin are under one mutex; each worker has a list with a
 * mutex and a condition and looks at it at least every 5 ms; runs share a lock; a worker yields
 * after a run. There are no delayed runs, priorities, names or checks.
 */
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include <pthread.h>
#include <sched.h>
#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#include "bench/rig.h"
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
        m_bStop = true;
        for (auto &pWorker : m_pWorkers) {
            pWorker->objThread.join();
        }
    }
    CLeastPool(const CLeastPool &) = delete;
    CLeastPool &operator=(const CLeastPool &) = delete;

    void Signal(CLeastTask *i_pTask, UInt32 i_u32Events)
    {
        UInt32 &u32Events = i_pTask->m_u32Events;
        const UInt32 u32Old =
            Locked([&] { return std::exchange(u32Events, u32Events | i_u32Events | kAlive); });
        if ((u32Old & kAlive) != 0) {
            return;
        }
        const UInt32 u32Picked = Locked([&] { return ++m_u32Picker; });
        CWorker &objWorker = *m_pWorkers[u32Picked % m_pWorkers.size()];
        {
            const std::lock_guard objLock(objWorker.objMutex);
            i_pTask->m_pNext = nullptr;
            *objWorker.ppTail = i_pTask;
            objWorker.ppTail = &i_pTask->m_pNext;
        }
        objWorker.objCond.notify_one();
    }

private:
    static constexpr UInt32 kAlive = 0x80000000;

    struct CWorker {
        std::mutex objMutex;
        std::condition_variable objCond;
        CLeastTask *pHead = nullptr;
        CLeastTask **ppTail = &pHead;
        std::thread objThread;
    };

    static CLeastTask *Take(CWorker *i_pWorker)
    {
        /* Kept in the limit: delayed runs are looked for at every turn. */
        (void)NowUs();
        std::unique_lock objLock(i_pWorker->objMutex);
        if (i_pWorker->pHead == nullptr) {
            i_pWorker->objCond.wait_until(objLock, std::chrono::system_clock::now() +
                                                       std::chrono::milliseconds(5));
        }
        CLeastTask *pTask = i_pWorker->pHead;
        if (pTask != nullptr) {
            i_pWorker->pHead = pTask->m_pNext;
            if (i_pWorker->pHead == nullptr) {
                i_pWorker->ppTail = &i_pWorker->pHead;
            }
        }
        return pTask;
    }

    void Work(CWorker *i_pWorker)
    {
        CLeastTask *pTask = nullptr;
        while ((pTask = Take(i_pWorker)) != nullptr || !m_bStop) {
            if (pTask != nullptr) {
                RunUntilDone(pTask);
            }
        }
    }

    void RunUntilDone(CLeastTask *i_pTask)
    {
        UInt32 &u32Events = i_pTask->m_u32Events;
        for (bool bDone = false; !bDone;) {
            pthread_rwlock_rdlock(&m_stRunLock);
            /* The run takes its events in two steps: what is there, and then no more than that. */
            const UInt32 u32Taken = Locked([&] { return u32Events & ~kAlive; });
            Locked([&] { return u32Events -= u32Taken; });
            i_pTask->Run();
            pthread_rwlock_unlock(&m_stRunLock);
            bDone =
                1 == Locked([&] {
                    return std::exchange(u32Events, u32Events == kAlive ? 0 : u32Events) == kAlive;
                });
            sched_yield();
        }
    }

    template <typename Step> UInt32 Locked(Step i_objStep)
    {
        const std::lock_guard objLock(m_objAtomicMutex);
        return i_objStep();
    }

    std::mutex m_objAtomicMutex;
    pthread_rwlock_t m_stRunLock = PTHREAD_RWLOCK_INITIALIZER;
    UInt32 m_u32Picker = 0;
    std::atomic<bool> m_bStop{false};
    std::vector<std::unique_ptr<CWorker>> m_pWorkers;
};

/* One-shot readiness over select(2), with a pipe that ends the wait when the set has changed. A
 * task that is signalled is held by a count, so that its owner could wait for its release. */
class CLeastLoop
{
public:
    CLeastLoop()
    {
        if (pipe(m_s32Pipe) != 0) {
            Fail("pipe", "");
        }
        FD_ZERO(&m_stReadSet);
        FD_ZERO(&m_stWriteSet);
        FD_SET(m_s32Pipe[0], &m_stReadSet);
        m_s32Max = m_s32Pipe[0];
        m_objThread = std::thread([this] { Loop(); });
    }
    ~CLeastLoop()
    {
        m_bStop.store(true);
        Wake();
        m_objThread.join();
        close(m_s32Pipe[0]);
        close(m_s32Pipe[1]);
    }
    CLeastLoop(const CLeastLoop &) = delete;
    CLeastLoop &operator=(const CLeastLoop &) = delete;

    void Arm(int i_s32Socket, CLeastTask *i_pTask)
    {
        {
            std::lock_guard objLock(m_objMutex);
            FD_SET(i_s32Socket, &m_stReadSet);
            m_stWatched[i_s32Socket].pTask = i_pTask;
            m_s32Max = std::max(m_s32Max, i_s32Socket);
        }
        Wake();
    }

    /* As a run that is readable. */
    void Signal(CLeastTask *i_pTask) { m_objPool.Signal(i_pTask, 16); }

private:
    void Wake()
    {
        if (write(m_s32Pipe[1], "p", 1) != 1) {
            Fail("write", "");
        }
    }

    void HandOut(int i_s32Socket)
    {
        {
            std::lock_guard objLock(m_objMutex);
            FD_CLR(i_s32Socket, &m_stReadSet);
            m_stWatched[i_s32Socket].u32Count++;
        }
        Signal(m_stWatched[i_s32Socket].pTask);
        {
            std::lock_guard objLock(m_objMutex);
            m_stWatched[i_s32Socket].u32Count--;
        }
        sched_yield();
    }

    void Loop()
    {
        while (!m_bStop.load()) {
            fd_set stReadSet;
            fd_set stWriteSet;
            int s32Max = 0;
            {
                std::lock_guard objLock(m_objMutex);
                stReadSet = m_stReadSet;
                stWriteSet = m_stWriteSet;
                s32Max = m_s32Max;
            }
            sched_yield();
            struct timeval stTimeout = {15, 0};
            int s32Ready = select(s32Max + 1, &stReadSet, &stWriteSet, nullptr, &stTimeout);
            if (s32Ready > 0 && FD_ISSET(m_s32Pipe[0], &stReadSet)) {
                char szWakeUps[4096];
                (void)!read(m_s32Pipe[0], szWakeUps, sizeof(szWakeUps));
                FD_CLR(m_s32Pipe[0], &stReadSet);
                s32Ready--;
            }
            for (int i = 0; s32Ready > 0; i++) {
                if (FD_ISSET(i, &stReadSet)) {
                    HandOut(i);
                    s32Ready--;
                }
            }
        }
    }

    std::mutex m_objMutex;
    fd_set m_stReadSet;
    fd_set m_stWriteSet;
    int m_s32Max = 0;
    struct {
        CLeastTask *pTask = nullptr;
        UInt32 u32Count = 0;
    } m_stWatched[FD_SETSIZE];
    int m_s32Pipe[2];
    std::atomic<bool> m_bStop{false};
    CLeastPool m_objPool{1};
    std::thread m_objThread;
};
