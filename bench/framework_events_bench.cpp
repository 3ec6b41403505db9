/*
 * Datagram to run: the framework, and the limit of a loop over select.
 */
#include <algorithm>
#include <filesystem>
#include <mutex>

#include <sys/select.h>

#include "bench/datagram_bench.h"
#include "framework/task.h"
#include "framework/udpsocket.h"

namespace
{
std::ptrdiff_t OpenDescriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

class CReadTask : public CTask
{
public:
    explicit CReadTask(CRunSignal *i_pRuns)
        : m_objSocket(this, CSocket::kNonBlocking), m_pRuns(i_pRuns)
    {
        if (m_objSocket.Open() != 0 || m_objSocket.Bind(INADDR_LOOPBACK, 0) != 0) {
            abort();
        }
    }
    UInt16 Port() { return static_cast<UInt16>(atoi(m_objSocket.GetLocalPortStr()->m_pPtr)); }
    SInt64 Run() override
    {
        const UInt32 u32Events = GetEvents();
        if ((u32Events & kKillEvent) != 0) {
            return -1;
        }
        if ((u32Events & kReadEvent) != 0) {
            unsigned int u32Addr = 0;
            unsigned short u16Port = 0;
            unsigned int u32Len = 0;
            char szBuffer[64];
            m_objSocket.RecvFrom(&u32Addr, &u16Port, szBuffer, sizeof(szBuffer), &u32Len);
        }
        m_objSocket.RequestEvent(EV_READ);
        m_pRuns->Post();
        return 0;
    }

private:
    CUDPSocket m_objSocket;
    CRunSignal *m_pRuns;
};

class COurServer
{
public:
    COurServer(std::size_t i_u64Count, CRunSignal *i_pRuns)
    {
        static const bool s_bStarted = [] {
            CThread::Initialize(0x80000);
            select_startevents();
            CSocket::Initialize();
            CSocket::StartThread();
            return true;
        }();
        benchmark::DoNotOptimize(s_bStarted);
        m_s64Descriptors = OpenDescriptors();
        CTaskThreadPool::AddThreads(1);
        for (std::size_t i = 0; i < i_u64Count; i++) {
            m_pTasks.push_back(new CReadTask(i_pRuns));
            m_u16Ports.push_back(m_pTasks.back()->Port());
            m_pTasks.back()->Signal(CTask::kStartEvent);
            i_pRuns->Wait();
        }
    }
    /* The event thread closes the sockets; the next server needs their numbers. */
    ~COurServer()
    {
        for (CTask *pTask : m_pTasks) {
            pTask->Signal(CTask::kKillEvent);
        }
        CTaskThreadPool::RemoveThreads();
        while (OpenDescriptors() > m_s64Descriptors) {
            CThread::Sleep(1);
        }
    }
    UInt16 Port(std::size_t i_u64Index) const { return m_u16Ports[i_u64Index]; }

private:
    std::ptrdiff_t m_s64Descriptors;
    std::vector<CReadTask *> m_pTasks;
    std::vector<UInt16> m_u16Ports;
};
DATAGRAM_BENCHMARK(COurServer, "ours");

/* One-shot readiness over select(2), with a pipe that ends the wait when the set has changed. A
 * task that is signalled is held by a count, so that its owner could wait for its release. */
class CSelectServer
{
public:
    CSelectServer(std::size_t i_u64Count, CRunSignal *i_pRuns)
    {
        if (pipe(m_aPipe) != 0) {
            abort();
        }
        FD_ZERO(&m_stReadSet);
        FD_ZERO(&m_stWriteSet);
        FD_SET(m_aPipe[0], &m_stReadSet);
        m_s32Max = m_aPipe[0];
        m_objThread = std::thread([this] { Loop(); });
        for (std::size_t i = 0; i < i_u64Count; i++) {
            m_pReceivers.push_back(
                std::make_unique<CReceiver>(i_pRuns, [this, i] { Arm(m_pReceivers[i].get()); }));
            Arm(m_pReceivers.back().get());
        }
    }
    ~CSelectServer()
    {
        m_bStop.store(true);
        Wake();
        m_objThread.join();
        close(m_aPipe[0]);
        close(m_aPipe[1]);
    }
    UInt16 Port(std::size_t i_u64Index) const { return m_pReceivers[i_u64Index]->Port(); }

private:
    struct CWatched {
        CReceiver *pReceiver = nullptr;
        UInt32 u32Count = 0;
    };

    void Wake()
    {
        if (write(m_aPipe[1], "p", 1) != 1) {
            abort();
        }
    }

    void Arm(CReceiver *i_pReceiver)
    {
        const int s32Socket = i_pReceiver->Descriptor();
        {
            std::lock_guard objLock(m_objMutex);
            FD_SET(s32Socket, &m_stReadSet);
            m_aWatched[s32Socket].pReceiver = i_pReceiver;
            m_s32Max = std::max(m_s32Max, s32Socket);
        }
        Wake();
    }

    void HandOut(int i_s32Socket)
    {
        CWatched &objWatched = m_aWatched[i_s32Socket];
        {
            std::lock_guard objLock(m_objMutex);
            FD_CLR(i_s32Socket, &m_stReadSet);
            objWatched.u32Count++;
        }
        m_objPool.Signal(objWatched.pReceiver, 16);
        {
            std::lock_guard objLock(m_objMutex);
            objWatched.u32Count--;
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
            if (s32Ready > 0 && FD_ISSET(m_aPipe[0], &stReadSet)) {
                char szBuffer[4096];
                benchmark::DoNotOptimize(read(m_aPipe[0], szBuffer, sizeof(szBuffer)));
                FD_CLR(m_aPipe[0], &stReadSet);
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
    CWatched m_aWatched[FD_SETSIZE];
    int m_aPipe[2];
    std::atomic<bool> m_bStop{false};
    std::vector<std::unique_ptr<CReceiver>> m_pReceivers;
    CLeastPool m_objPool{1};
    std::thread m_objThread;
};
DATAGRAM_BENCHMARK(CSelectServer, "limit");
} // namespace
