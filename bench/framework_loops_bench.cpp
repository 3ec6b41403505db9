/*
 * Datagram to run: the loop of libevent, which hands the readable socket over to the limit's worker
 * and watches it again once it was read.
 */
#include <thread>
#include <utility>

#include <event2/event.h>
#include <event2/thread.h>

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
} // namespace
