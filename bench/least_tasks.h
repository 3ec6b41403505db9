/*
 * The limit of the task pool: the least POSIX program that takes the same steps.
 *
 * The event words and the round robin are under one mutex; each worker has a list with a
 * mutex and a condition and looks at it at least every 5 ms; runs share a lock; a worker yields
 * after a run. There are no delayed runs, priorities, names or checks.
 */
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <utility>
#include <vector>

#include <sched.h>

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
};

class CLeastPool
{
public:
    explicit CLeastPool(unsigned i_u32Threads)
    {
        for (unsigned i = 0; i < i_u32Threads; i++) {
            CWorker *pWorker = m_pWorkers.emplace_back(std::make_unique<CWorker>()).get();
            pWorker->objThread = std::jthread([this, pWorker] { Work(pWorker); });
        }
    }
    ~CLeastPool() { m_bStop = true; }

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
            objWorker.pReady.push_back(i_pTask);
        }
        objWorker.objCond.notify_one();
    }

private:
    static constexpr UInt32 kAlive = 0x80000000;

    struct CWorker {
        std::mutex objMutex;
        std::condition_variable objCond;
        std::deque<CLeastTask *> pReady;
        std::jthread objThread; /* joined first */
    };

    static CLeastTask *Take(CWorker *i_pWorker)
    {
        /* Kept in the limit: delayed runs are looked for at every turn. */
        (void)NowUs();
        std::unique_lock objLock(i_pWorker->objMutex);
        if (i_pWorker->pReady.empty()) {
            i_pWorker->objCond.wait_until(objLock, std::chrono::system_clock::now() +
                                                       std::chrono::milliseconds(5));
        }
        if (i_pWorker->pReady.empty()) {
            return nullptr;
        }
        CLeastTask *pTask = i_pWorker->pReady.front();
        i_pWorker->pReady.pop_front();
        return pTask;
    }

    void Work(CWorker *i_pWorker)
    {
        CLeastTask *pTask = nullptr;
        while ((pTask = Take(i_pWorker)) != nullptr || !m_bStop) {
            while (pTask != nullptr && !RunOnce(pTask)) {
            }
        }
    }

    /* True if no event came meanwhile. */
    bool RunOnce(CLeastTask *i_pTask)
    {
        UInt32 &u32Events = i_pTask->m_u32Events;
        {
            const std::shared_lock objLock(m_objRunMutex);
            /* The run takes its events in two steps: what is there, and then no more than that. */
            const UInt32 u32Taken = Locked([&] { return u32Events & ~kAlive; });
            Locked([&] { return u32Events -= u32Taken; });
            i_pTask->Run();
        }
        const UInt32 u32Old =
            Locked([&] { return std::exchange(u32Events, u32Events == kAlive ? 0 : u32Events); });
        sched_yield();
        return u32Old == kAlive;
    }

    template <typename Step> UInt32 Locked(Step i_objStep)
    {
        const std::lock_guard objLock(m_objAtomicMutex);
        return i_objStep();
    }

    std::mutex m_objAtomicMutex;
    std::shared_mutex m_objRunMutex;
    UInt32 m_u32Picker = 0;
    std::atomic<bool> m_bStop{false};
    std::vector<std::unique_ptr<CWorker>> m_pWorkers;
};
