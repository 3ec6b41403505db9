/*
 * Message queue, mutex and atomics, each beside its reference from the standard library.
 *
 * Pairs run interleaved in one process (see bench/run); the figure of interest is the ratio.
 */
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include <benchmark/benchmark.h>

#include "common/bus/msg_queue.h"
#include "framework/atomic.h"
#include "framework/mutex.h"

namespace
{
/* The least queue of the same record that a programmer would write today. */
class CStdQueue
{
public:
    int PushMsg(const MSG_DESC_INFO_S *i_pMsg)
    {
        {
            std::lock_guard objLock(m_objMutex);
            if (m_stMsgs.size() > 48) {
                return 0;
            }
            m_stMsgs.push_back(*i_pMsg);
        }
        m_objCond.notify_one();
        return 1;
    }
    int PopMsg(int i_s32Timeout, MSG_DESC_INFO_S *o_pMsg)
    {
        std::unique_lock objLock(m_objMutex);
        if (m_stMsgs.empty()) {
            m_objCond.wait_for(objLock, std::chrono::milliseconds(i_s32Timeout));
        }
        if (m_stMsgs.empty()) {
            return 0;
        }
        *o_pMsg = m_stMsgs.front();
        m_stMsgs.pop_front();
        return 1;
    }

private:
    std::mutex m_objMutex;
    std::condition_variable m_objCond;
    std::deque<MSG_DESC_INFO_S> m_stMsgs;
};

template <typename Queue> void PushPop(benchmark::State &io_objState)
{
    Queue objQueue;
    MSG_DESC_INFO_S stMsg = MakeMsg(MSG_TYPE_ASYNC, 9, 2, 0x803);
    const int s32Depth = static_cast<int>(io_objState.range(0));
    for (auto _ : io_objState) {
        for (int i = 0; i < s32Depth; i++) {
            benchmark::DoNotOptimize(objQueue.PushMsg(&stMsg));
        }
        for (int i = 0; i < s32Depth; i++) {
            benchmark::DoNotOptimize(objQueue.PopMsg(500, &stMsg));
        }
    }
    io_objState.SetItemsProcessed(io_objState.iterations() * s32Depth);
}
BENCHMARK(PushPop<CMsgQueue>)->Name("queue/push_pop/ours")->Arg(1)->Arg(48);
BENCHMARK(PushPop<CStdQueue>)->Name("queue/push_pop/std")->Arg(1)->Arg(48);

/* One message to another thread and one back. */
template <typename Queue> void PingPong(benchmark::State &io_objState)
{
    Queue objThere;
    Queue objBack;
    std::thread objEcho([&] {
        MSG_DESC_INFO_S stMsg;
        for (;;) {
            if (objThere.PopMsg(500, &stMsg)) {
                if (stMsg.msgno == MSG_STOP) {
                    return;
                }
                objBack.PushMsg(&stMsg);
            }
        }
    });
    MSG_DESC_INFO_S stMsg = MakeMsg(MSG_TYPE_ASYNC, 9, 2, 0x803);
    for (auto _ : io_objState) {
        objThere.PushMsg(&stMsg);
        while (!objBack.PopMsg(500, &stMsg)) {
        }
    }
    stMsg.msgno = MSG_STOP;
    objThere.PushMsg(&stMsg);
    objEcho.join();
}
BENCHMARK(PingPong<CMsgQueue>)->Name("queue/ping_pong/ours")->UseRealTime();
BENCHMARK(PingPong<CStdQueue>)->Name("queue/ping_pong/std")->UseRealTime();

struct OurMutex {
    CMutex m_objMutex;
    void lock() { m_objMutex.Lock(); }
    void unlock() { m_objMutex.Unlock(); }
};

template <typename Mutex> void LockUnlock(benchmark::State &io_objState)
{
    Mutex objMutex;
    for (auto _ : io_objState) {
        objMutex.lock();
        benchmark::ClobberMemory();
        objMutex.unlock();
    }
}
BENCHMARK(LockUnlock<OurMutex>)->Name("mutex/single/ours");
BENCHMARK(LockUnlock<std::recursive_mutex>)->Name("mutex/single/std");

/* A second and third lock by the thread that holds the mutex already. */
template <typename Mutex> void Nested(benchmark::State &io_objState)
{
    Mutex objMutex;
    objMutex.lock();
    for (auto _ : io_objState) {
        objMutex.lock();
        benchmark::ClobberMemory();
        objMutex.lock();
        benchmark::ClobberMemory();
        objMutex.unlock();
        objMutex.unlock();
    }
    objMutex.unlock();
}
BENCHMARK(Nested<OurMutex>)->Name("mutex/nested/ours");
BENCHMARK(Nested<std::recursive_mutex>)->Name("mutex/nested/std");

void AtomicAdd(benchmark::State &io_objState)
{
    UInt32 u32Word = 0;
    for (auto _ : io_objState) {
        benchmark::DoNotOptimize(atomic_add(&u32Word, 1));
    }
}
BENCHMARK(AtomicAdd)->Name("atomic_add/ours");

/* A call of a function as atomic_add is one. */
[[gnu::noinline]] UInt32 AddUnderMutex(UInt32 *i_pArea, SInt32 i_s32Amount)
{
    static std::mutex s_objMutex;
    std::lock_guard objLock(s_objMutex);
    return *i_pArea += static_cast<UInt32>(i_s32Amount);
}

void PlainMutexAdd(benchmark::State &io_objState)
{
    UInt32 u32Word = 0;
    for (auto _ : io_objState) {
        benchmark::DoNotOptimize(AddUnderMutex(&u32Word, 1));
    }
}
BENCHMARK(PlainMutexAdd)->Name("atomic_add/std");
} // namespace

BENCHMARK_MAIN();
