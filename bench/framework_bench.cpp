/*
 * Tasks: from a signal to the run, and signals that merge into one that is pending. The loop of
 * libevent has one thread by design.
 */
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <semaphore.h>

#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <event2/thread.h>

#include "bench/least_tasks.h"
#include "framework/task.h"

namespace
{
constexpr unsigned kThreads = 2; /* of a pool, as in the daemon */

/* Counts the runs of a burst down and wakes the main thread at the last. */
class CCountdown
{
public:
    CCountdown() { sem_init(&m_stDone, 0, 0); }
    void Start(int i_s32Runs) { m_s32Left.store(i_s32Runs); }
    void Run()
    {
        if (m_s32Left.fetch_sub(1) == 1) {
            sem_post(&m_stDone);
        }
    }
    void Wait()
    {
        while (sem_wait(&m_stDone) != 0) {
        }
    }

private:
    std::atomic<int> m_s32Left{0};
    sem_t m_stDone;
};

/* Tasks(COUNT, COUNTDOWN): so many tasks, of which Signal(INDEX) starts one. */
template <typename Tasks> void Burst(benchmark::State &io_objState)
{
    const int s32Count = static_cast<int>(io_objState.range(0));
    CCountdown objCountdown;
    Tasks objTasks(s32Count, &objCountdown);
    for (auto _ : io_objState) {
        objCountdown.Start(s32Count);
        for (int i = 0; i < s32Count; i++) {
            objTasks.Signal(static_cast<std::size_t>(i));
        }
        objCountdown.Wait();
    }
    io_objState.SetItemsProcessed(io_objState.iterations() * s32Count);
}

#define BURST_BENCHMARK(tasks, name)                                                               \
    BENCHMARK(Burst<tasks>)                                                                        \
        ->Name("task/burst/" name)                                                                 \
        ->RangeMultiplier(10)                                                                      \
        ->Range(1, 1000)                                                                           \
        ->MeasureProcessCPUTime()                                                                  \
        ->UseRealTime()

class COurTask : public CTask
{
public:
    explicit COurTask(CCountdown *i_pCountdown) : m_pCountdown(i_pCountdown) {}
    SInt64 Run() override
    {
        if ((GetEvents() & kKillEvent) != 0) {
            return -1;
        }
        m_pCountdown->Run();
        return 0;
    }

private:
    CCountdown *m_pCountdown;
};

class COurTasks
{
public:
    COurTasks(int i_s32Count, CCountdown *i_pCountdown)
    {
        static const bool s_bStarted = [] {
            CThread::Initialize(0x80000);
            return true;
        }();
        benchmark::DoNotOptimize(s_bStarted);
        CTaskThreadPool::AddThreads(kThreads);
        for (int i = 0; i < i_s32Count; i++) {
            m_pTasks.push_back(new COurTask(i_pCountdown));
        }
    }
    ~COurTasks()
    {
        for (CTask *pTask : m_pTasks) {
            pTask->Signal(CTask::kKillEvent);
        }
        CTaskThreadPool::RemoveThreads();
    }
    void Signal(std::size_t i_u64Index) { m_pTasks[i_u64Index]->Signal(CTask::kReadEvent); }

private:
    std::vector<CTask *> m_pTasks;
};

class CLeastTasks
{
public:
    CLeastTasks(int i_s32Count, CCountdown *i_pCountdown)
    {
        for (int i = 0; i < i_s32Count; i++) {
            m_pTasks.push_back(std::make_unique<CCountingTask>(i_pCountdown));
        }
    }
    void Signal(std::size_t i_u64Index)
    {
        m_objPool.Signal(m_pTasks[i_u64Index].get(), CTask::kReadEvent);
    }

private:
    struct CCountingTask : CLeastTask {
        explicit CCountingTask(CCountdown *i_pCountdown) : pCountdown(i_pCountdown) {}
        void Run() override { pCountdown->Run(); }
        CCountdown *pCountdown;
    };
    std::vector<std::unique_ptr<CLeastTask>> m_pTasks;
    CLeastPool m_objPool{kThreads};
};

BURST_BENCHMARK(COurTasks, "ours");
BURST_BENCHMARK(CLeastTasks, "limit");

class CLibeventTasks
{
public:
    CLibeventTasks(int i_s32Count, CCountdown *i_pCountdown)
    {
        evthread_use_pthreads();
        m_pBase = event_base_new();
        for (int i = 0; i < i_s32Count; i++) {
            m_pEvents.push_back(event_new(m_pBase, -1, EV_READ, OnActive, i_pCountdown));
        }
        m_objThread = std::thread([this] { event_base_loop(m_pBase, EVLOOP_NO_EXIT_ON_EMPTY); });
    }
    ~CLibeventTasks()
    {
        event_base_loopbreak(m_pBase);
        m_objThread.join();
        for (event *pEvent : m_pEvents) {
            event_free(pEvent);
        }
        event_base_free(m_pBase);
    }
    void Signal(std::size_t i_u64Index) { event_active(m_pEvents[i_u64Index], EV_READ, 1); }

private:
    static void OnActive(evutil_socket_t, short, void *i_pCountdown)
    {
        static_cast<CCountdown *>(i_pCountdown)->Run();
    }

    event_base *m_pBase;
    std::vector<event *> m_pEvents;
    std::thread m_objThread;
};
BURST_BENCHMARK(CLibeventTasks, "libevent");

/* Waits for a delayed run for good, so that every signal meets one that is pending. */
class CPendingTask : public CTask
{
public:
    explicit CPendingTask(CCountdown *i_pCountdown) : m_pCountdown(i_pCountdown) {}
    SInt64 Run() override
    {
        m_pCountdown->Run();
        return 3600000;
    }

private:
    CCountdown *m_pCountdown;
};

void MergeOurs(benchmark::State &io_objState)
{
    CCountdown objCountdown;
    objCountdown.Start(1);
    COurTasks objPool(0, nullptr);
    auto pTask = std::make_unique<CPendingTask>(&objCountdown);
    pTask->Signal(CTask::kStartEvent);
    objCountdown.Wait();
    for (auto _ : io_objState) {
        pTask->Signal(CTask::kReadEvent);
    }
    /* The pool lets go of the task before it is destroyed. */
    CTaskThreadPool::RemoveThreads();
}

void MergeLibevent(benchmark::State &io_objState)
{
    evthread_use_pthreads();
    event_base *pBase = event_base_new();
    event *pEvent = event_new(
        pBase, -1, EV_READ, [](evutil_socket_t, short, void *) {}, nullptr);
    event_active(pEvent, EV_READ, 1);
    for (auto _ : io_objState) {
        event_active(pEvent, EV_READ, 1);
    }
    event_free(pEvent);
    event_base_free(pBase);
}
BENCHMARK(MergeOurs)->Name("task/merge/ours");
BENCHMARK(MergeLibevent)->Name("task/merge/libevent");
} // namespace

BENCHMARK_MAIN();
