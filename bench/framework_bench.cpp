/*
 * Tasks: from a signal to the run, and signals that merge into one that is pending.
 */
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <event2/thread.h>

#include "bench/burst_bench.h"
#include "bench/least_tasks.h"
#include "framework/task.h"

namespace
{
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

/* Without the yield it is no limit: it shows what the yield after each run costs. */
template <bool bYield> class CLeastTasks
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
    CLeastPool m_objPool{kThreads, bYield};
};

BURST_BENCHMARK(COurTasks, "ours");
BURST_BENCHMARK(CLeastTasks<true>, "limit");
BURST_BENCHMARK(CLeastTasks<false>, "no-yield");

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
