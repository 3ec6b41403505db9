/*
 * Signal to run: what well-known libraries offer for it, for information. The loops of libevent and
 * libuv have one thread by design; that of asio has as many as the pools.
 */
#include <thread>
#include <utility>
#include <vector>

#include <boost/asio.hpp>
#include <event2/event.h>
#include <event2/thread.h>
#include <uv.h>

#include "bench/burst_bench.h"

namespace
{
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

class CLibuvTasks
{
public:
    CLibuvTasks(int i_s32Count, CCountdown *i_pCountdown)
        : m_stTasks(static_cast<std::size_t>(i_s32Count))
    {
        uv_loop_init(&m_stLoop);
        uv_async_init(&m_stLoop, &m_stStop, [](uv_async_t *i_pStop) {
            uv_walk(
                i_pStop->loop, [](uv_handle_t *i_pHandle, void *) { uv_close(i_pHandle, nullptr); },
                nullptr);
        });
        for (uv_async_t &stTask : m_stTasks) {
            uv_async_init(&m_stLoop, &stTask, [](uv_async_t *i_pTask) {
                static_cast<CCountdown *>(i_pTask->data)->Run();
            });
            stTask.data = i_pCountdown;
        }
        m_objThread = std::thread([this] { uv_run(&m_stLoop, UV_RUN_DEFAULT); });
    }
    ~CLibuvTasks()
    {
        uv_async_send(&m_stStop);
        m_objThread.join();
        uv_loop_close(&m_stLoop);
    }
    void Signal(std::size_t i_u64Index) { uv_async_send(&m_stTasks[i_u64Index]); }

private:
    uv_loop_t m_stLoop;
    uv_async_t m_stStop;
    std::vector<uv_async_t> m_stTasks;
    std::thread m_objThread;
};
BURST_BENCHMARK(CLibuvTasks, "libuv");

class CAsioTasks
{
public:
    CAsioTasks(int, CCountdown *i_pCountdown) : m_pCountdown(i_pCountdown)
    {
        for (unsigned i = 0; i < kThreads; i++) {
            m_objThreads.emplace_back([this] { m_objContext.run(); });
        }
    }
    ~CAsioTasks()
    {
        m_objContext.stop();
        for (std::thread &objThread : m_objThreads) {
            objThread.join();
        }
    }
    void Signal(std::size_t)
    {
        boost::asio::post(m_objContext, [this] { m_pCountdown->Run(); });
    }

private:
    CCountdown *m_pCountdown;
    boost::asio::io_context m_objContext;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> m_objWork{
        m_objContext.get_executor()};
    std::vector<std::thread> m_objThreads;
};
BURST_BENCHMARK(CAsioTasks, "asio");
} // namespace
