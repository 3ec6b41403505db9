/*
 * From signals to the runs of as many tasks: what the pools and loops are measured with.
 */
#pragma once

#include <atomic>

#include <semaphore.h>

#include <benchmark/benchmark.h>

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
