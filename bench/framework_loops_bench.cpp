/*
 * Datagram to run: the loops of well-known libraries, each handing the readable socket over to the
 * limit's worker and watching it again once it was read.
 */
#include <mutex>
#include <utility>

#include <boost/asio.hpp>
#include <event2/event.h>
#include <event2/thread.h>
#include <uv.h>

#include "bench/datagram_bench.h"

namespace
{
class CLibeventServer
{
public:
    CLibeventServer(std::size_t i_u64Count, CRunSignal *i_pRuns)
    {
        evthread_use_pthreads();
        m_pBase = event_base_new();
        m_objWatched.resize(i_u64Count);
        for (CWatched &objWatched : m_objWatched) {
            objWatched.pServer = this;
            objWatched.pReceiver = std::make_unique<CReceiver>(
                i_pRuns, [&objWatched] { event_add(objWatched.pEvent, nullptr); });
            objWatched.pEvent = event_new(m_pBase, objWatched.pReceiver->Descriptor(), EV_READ,
                                          OnReadable, &objWatched);
            event_add(objWatched.pEvent, nullptr);
        }
        m_objThread = std::thread([this] { event_base_loop(m_pBase, EVLOOP_NO_EXIT_ON_EMPTY); });
    }
    ~CLibeventServer()
    {
        event_base_loopbreak(m_pBase);
        m_objThread.join();
        for (CWatched &objWatched : m_objWatched) {
            event_free(objWatched.pEvent);
        }
        event_base_free(m_pBase);
    }
    UInt16 Port(std::size_t i_u64Index) const { return m_objWatched[i_u64Index].pReceiver->Port(); }

private:
    struct CWatched {
        CLibeventServer *pServer = nullptr;
        std::unique_ptr<CReceiver> pReceiver;
        event *pEvent = nullptr;
    };
    static void OnReadable(evutil_socket_t, short, void *i_pWatched)
    {
        auto *pWatched = static_cast<CWatched *>(i_pWatched);
        pWatched->pServer->m_objPool.Signal(pWatched->pReceiver.get(), 16);
    }

    event_base *m_pBase;
    std::vector<CWatched> m_objWatched;
    CLeastPool m_objPool{1};
    std::thread m_objThread;
};
DATAGRAM_BENCHMARK(CLibeventServer, "libevent");

/* Only its loop's thread may touch a handle: sockets to watch again are listed for it. */
class CLibuvServer
{
public:
    CLibuvServer(std::size_t i_u64Count, CRunSignal *i_pRuns)
    {
        uv_loop_init(&m_stLoop);
        m_stLoop.data = this;
        uv_async_init(&m_stLoop, &m_stWakeUp, OnWakeUp);
        m_objWatched.resize(i_u64Count);
        for (CWatched &objWatched : m_objWatched) {
            objWatched.pReceiver =
                std::make_unique<CReceiver>(i_pRuns, [this, &objWatched] { Rearm(&objWatched); });
            uv_poll_init(&m_stLoop, &objWatched.stPoll, objWatched.pReceiver->Descriptor());
            objWatched.stPoll.data = &objWatched;
            uv_poll_start(&objWatched.stPoll, UV_READABLE, OnReadable);
        }
        m_objThread = std::thread([this] { uv_run(&m_stLoop, UV_RUN_DEFAULT); });
    }
    ~CLibuvServer()
    {
        m_bStop.store(true);
        uv_async_send(&m_stWakeUp);
        m_objThread.join();
        uv_loop_close(&m_stLoop);
    }
    UInt16 Port(std::size_t i_u64Index) const { return m_objWatched[i_u64Index].pReceiver->Port(); }

private:
    struct CWatched {
        std::unique_ptr<CReceiver> pReceiver;
        uv_poll_t stPoll;
    };
    void Rearm(CWatched *i_pWatched)
    {
        {
            std::lock_guard objLock(m_objMutex);
            m_pToWatch.push_back(i_pWatched);
        }
        uv_async_send(&m_stWakeUp);
    }
    static void OnReadable(uv_poll_t *i_pPoll, int, int)
    {
        uv_poll_stop(i_pPoll);
        auto *pServer = static_cast<CLibuvServer *>(i_pPoll->loop->data);
        pServer->m_objPool.Signal(static_cast<CWatched *>(i_pPoll->data)->pReceiver.get(), 16);
    }
    static void OnWakeUp(uv_async_t *i_pWakeUp)
    {
        auto *pServer = static_cast<CLibuvServer *>(i_pWakeUp->loop->data);
        if (pServer->m_bStop.load()) {
            uv_walk(
                i_pWakeUp->loop,
                [](uv_handle_t *i_pHandle, void *) { uv_close(i_pHandle, nullptr); }, nullptr);
            return;
        }
        std::lock_guard objLock(pServer->m_objMutex);
        for (CWatched *pWatched : pServer->m_pToWatch) {
            uv_poll_start(&pWatched->stPoll, UV_READABLE, OnReadable);
        }
        pServer->m_pToWatch.clear();
    }

    uv_loop_t m_stLoop;
    uv_async_t m_stWakeUp;
    std::atomic<bool> m_bStop{false};
    std::vector<CWatched> m_objWatched;
    std::mutex m_objMutex;
    std::vector<CWatched *> m_pToWatch;
    CLeastPool m_objPool{1};
    std::thread m_objThread;
};
DATAGRAM_BENCHMARK(CLibuvServer, "libuv");

class CAsioServer
{
public:
    CAsioServer(std::size_t i_u64Count, CRunSignal *i_pRuns)
    {
        for (std::size_t i = 0; i < i_u64Count; i++) {
            m_pReceivers.push_back(std::make_unique<CReceiver>(i_pRuns, [this, i] { Arm(i); }));
            m_objSockets.emplace_back(m_objContext);
            m_objSockets.back().assign(boost::asio::ip::udp::v4(),
                                       m_pReceivers.back()->Descriptor());
        }
        for (std::size_t i = 0; i < i_u64Count; i++) {
            Arm(i);
        }
        m_objThread = std::thread([this] { m_objContext.run(); });
    }
    ~CAsioServer()
    {
        m_objContext.stop();
        m_objThread.join();
        for (boost::asio::ip::udp::socket &objSocket : m_objSockets) {
            objSocket.release(); /* the receiver closes it */
        }
    }
    UInt16 Port(std::size_t i_u64Index) const { return m_pReceivers[i_u64Index]->Port(); }

private:
    void Arm(std::size_t i_u64Index)
    {
        m_objSockets[i_u64Index].async_wait(
            boost::asio::ip::udp::socket::wait_read,
            [this, i_u64Index](const boost::system::error_code &i_objError) {
                if (!i_objError) {
                    m_objPool.Signal(m_pReceivers[i_u64Index].get(), 16);
                }
            });
    }

    boost::asio::io_context m_objContext;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> m_objWork{
        m_objContext.get_executor()};
    std::vector<std::unique_ptr<CReceiver>> m_pReceivers;
    std::vector<boost::asio::ip::udp::socket> m_objSockets;
    CLeastPool m_objPool{1};
    std::thread m_objThread;
};
DATAGRAM_BENCHMARK(CAsioServer, "asio");
} // namespace
