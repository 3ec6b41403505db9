/*
 * From an event to the run of its task: signals in bursts, signals that merge into one that is
 * pending, and datagrams over the event thread. Beside it stands the least POSIX program that takes
 * the same steps (least_tasks.h, least_loop.h), and libevent where such a program would do nothing.
 */
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <semaphore.h>

#include "bench/least_loop.h"
#include "bench/subjects.h"
#include "framework/task.h"
#include "framework/udpsocket.h"
#include "framework/unique_fd.h"
#include "tests/support/loopback.h"
#include "tests/support/temp_dir.h"

namespace
{
constexpr SInt32 kReadable = EV_READ; /* libevent has a macro of that name */
} // namespace

#include <event2/event.h>
#include <event2/thread.h>

namespace
{
constexpr char kDescriptors[] = "/proc/self/fd";

/* Counts the runs down and wakes the main thread at the last. */
class CCountdown
{
public:
    CCountdown() { sem_init(&m_stDone, 0, 0); }
    void Start(SInt64 i_s64Runs) { m_s64Left.store(i_s64Runs); }
    void Run()
    {
        if (m_s64Left.fetch_sub(1) == 1) {
            sem_post(&m_stDone);
        }
    }
    void Wait()
    {
        while (sem_wait(&m_stDone) != 0) {
        }
    }

private:
    std::atomic<SInt64> m_s64Left{0};
    sem_t m_stDone;
};

/* The framework, with so many task threads during the life of the object. */
class COurPool
{
public:
    explicit COurPool(UInt32 i_u32Threads)
    {
        static const bool s_bStarted = [] {
            CThread::Initialize(0x80000);
            select_startevents();
            CSocket::Initialize();
            CSocket::StartThread();
            return true;
        }();
        benchmark::DoNotOptimize(s_bStarted);
        m_s64Descriptors = EntriesIn(kDescriptors);
        CTaskThreadPool::AddThreads(i_u32Threads);
    }
    /* The event thread closes the sockets; the next one needs their numbers. */
    ~COurPool()
    {
        for (CTask *pTask : m_pTasks) {
            pTask->Signal(CTask::kKillEvent);
        }
        CTaskThreadPool::RemoveThreads();
        while (EntriesIn(kDescriptors) > m_s64Descriptors) {
            CThread::Sleep(1);
        }
    }

protected:
    std::vector<CTask *> m_pTasks;

private:
    std::ptrdiff_t m_s64Descriptors;
};

/* --- Bursts. Tasks(COUNT, COUNTDOWN): so many tasks, of which Signal(INDEX) starts one. --------
 */

constexpr unsigned kThreads = 2; /* of a pool, as in the daemon */

template <typename Tasks> void Burst(benchmark::State &io_objState)
{
    const auto u64Count = static_cast<std::size_t>(io_objState.range(0));
    CCountdown objCountdown;
    Tasks objTasks(u64Count, &objCountdown);
    for (auto _ : io_objState) {
        objCountdown.Start(io_objState.range(0));
        for (std::size_t i = 0; i < u64Count; i++) {
            objTasks.Signal(i);
        }
        objCountdown.Wait();
    }
}

struct COurTask : CTask {
    COurTask(CCountdown *i_pCountdown, SInt64 i_s64NextMs)
        : pCountdown(i_pCountdown), s64NextMs(i_s64NextMs)
    {
    }
    SInt64 Run() override
    {
        if ((GetEvents() & kKillEvent) != 0) {
            return -1;
        }
        pCountdown->Run();
        return s64NextMs;
    }
    CCountdown *pCountdown;
    SInt64 s64NextMs;
};

struct COurTasks : COurPool {
    COurTasks(std::size_t i_u64Count, CCountdown *i_pCountdown) : COurPool(kThreads)
    {
        for (std::size_t i = 0; i < i_u64Count; i++) {
            m_pTasks.push_back(new COurTask(i_pCountdown, 0));
        }
    }
    void Signal(std::size_t i_u64Index) { m_pTasks[i_u64Index]->Signal(CTask::kReadEvent); }
};

struct CCountingTask : CLeastTask {
    explicit CCountingTask(CCountdown *i_pCountdown) : pCountdown(i_pCountdown) {}
    void Run() override { pCountdown->Run(); }
    CCountdown *pCountdown;
};

struct CLeastTasks {
    CLeastTasks(std::size_t i_u64Count, CCountdown *i_pCountdown)
        : objTasks(i_u64Count, CCountingTask(i_pCountdown))
    {
    }
    void Signal(std::size_t i_u64Index)
    {
        objPool.Signal(&objTasks[i_u64Index], CTask::kReadEvent);
    }
    std::vector<CCountingTask> objTasks;
    CLeastPool objPool{kThreads};
};

/* --- Signals that meet a pending one. ----------------------------------------------------------
 */

void MergeOurs(benchmark::State &io_objState)
{
    CCountdown objCountdown;
    objCountdown.Start(1);
    COurPool objPool(kThreads);
    auto pTask = std::make_unique<COurTask>(&objCountdown, 3600000);
    pTask->Signal(CTask::kStartEvent);
    objCountdown.Wait();
    for (auto _ : io_objState) {
        pTask->Signal(CTask::kReadEvent);
    }
    /* The pool lets go of the task before it is destroyed. */
    CTaskThreadPool::RemoveThreads();
}

/* Nobody runs this loop. */
void MergeLibevent(benchmark::State &io_objState)
{
    evthread_use_pthreads();
    event_base *pBase = event_base_new();
    auto Nothing = [](evutil_socket_t, short, void *) {};
    event *pEvent = event_new(pBase, -1, EV_READ, Nothing, nullptr);
    event_active(pEvent, EV_READ, 1);
    for (auto _ : io_objState) {
        event_active(pEvent, EV_READ, 1);
    }
    event_free(pEvent);
    event_base_free(pBase);
}

/* --- Datagrams. Server(COUNT, COUNTDOWN): so many sockets, watched once it is constructed;
 * Port(INDEX). One datagram is on its way at a time, to each socket in turn. --------------------
 */

template <typename Server> void Datagram(benchmark::State &io_objState)
{
    const auto u64Count = static_cast<std::size_t>(io_objState.range(0));
    const UniqueFd objSender(BindLoopback(0));
    CCountdown objCountdown;
    Server objServer(u64Count, &objCountdown);
    std::size_t u64Next = 0;
    auto SendOne = [&] {
        objCountdown.Start(1);
        SendLoopback(objSender.Get(), objServer.Port(u64Next), "datagram");
        objCountdown.Wait();
        u64Next = u64Next + 1 < u64Count ? u64Next + 1 : 0;
    };
    for (int i = 0; i < 100; i++) { /* what the sockets' first watches left to be done */
        SendOne();
    }
    for (auto _ : io_objState) {
        SendOne();
    }
}

class CReadTask : public CTask
{
public:
    explicit CReadTask(CCountdown *i_pCountdown)
        : m_objSocket(this, CSocket::kNonBlocking), m_pCountdown(i_pCountdown)
    {
        if (m_objSocket.Open() != 0 || m_objSocket.Bind(INADDR_LOOPBACK, 0) != 0) {
            Fail("no socket", "");
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
        m_objSocket.RequestEvent(kReadable);
        m_pCountdown->Run();
        return 0;
    }

private:
    CUDPSocket m_objSocket;
    CCountdown *m_pCountdown;
};

class COurServer : public COurPool
{
public:
    COurServer(std::size_t i_u64Count, CCountdown *i_pCountdown) : COurPool(1)
    {
        for (std::size_t i = 0; i < i_u64Count; i++) {
            auto *pTask = new CReadTask(i_pCountdown);
            m_pTasks.push_back(pTask);
            m_u16Ports.push_back(pTask->Port());
            i_pCountdown->Start(1);
            pTask->Signal(CTask::kStartEvent);
            i_pCountdown->Wait();
        }
    }
    UInt16 Port(std::size_t i_u64Index) const { return m_u16Ports[i_u64Index]; }

private:
    std::vector<UInt16> m_u16Ports;
};

/* A socket with the task that reads it on the loop's worker, and has it watched again. */
class CReceiver : public CLeastTask
{
public:
    CReceiver(CCountdown *i_pCountdown, CLeastLoop *i_pLoop)
        : m_objFd(BindLoopback(0, &m_u16Port)), m_pCountdown(i_pCountdown), m_pLoop(i_pLoop)
    {
        m_pLoop->Arm(m_objFd.Get(), this);
    }
    UInt16 Port() const { return m_u16Port; }
    void Run() override
    {
        char szBuffer[64];
        sockaddr_in stFrom;
        socklen_t u32Len = sizeof(stFrom);
        benchmark::DoNotOptimize(recvfrom(m_objFd.Get(), szBuffer, sizeof(szBuffer), MSG_DONTWAIT,
                                          reinterpret_cast<sockaddr *>(&stFrom), &u32Len));
        m_pLoop->Arm(m_objFd.Get(), this);
        m_pCountdown->Run();
    }

private:
    UInt16 m_u16Port = 0;
    UniqueFd m_objFd;
    CCountdown *m_pCountdown;
    CLeastLoop *m_pLoop;
};

struct CLeastServer {
    CLeastServer(std::size_t i_u64Count, CCountdown *i_pCountdown)
    {
        for (std::size_t i = 0; i < i_u64Count; i++) {
            pReceivers.push_back(std::make_unique<CReceiver>(i_pCountdown, &objLoop));
        }
    }
    UInt16 Port(std::size_t i_u64Index) const { return pReceivers[i_u64Index]->Port(); }

    std::vector<std::unique_ptr<CReceiver>> pReceivers;
    CLeastLoop objLoop; /* ends first */
};
} // namespace

int main(int argc, char **argv)
{
    for (const int s32Tasks : {1, 1000}) {
        AddSubject("signal to run, burst of " + std::to_string(s32Tasks), Burst<COurTasks>, "limit",
                   Burst<CLeastTasks>, 1.05, s32Tasks, REAL_TIME);
    }
    AddSubject("signal that merges into a pending one", MergeOurs, "libevent", MergeLibevent, 1.25);
    for (const int s32Sockets : {1, 1000}) { /* all servers get as many datagrams */
        AddSubject("datagram to run, " + std::to_string(s32Sockets) + " watched",
                   Datagram<COurServer>, "limit", Datagram<CLeastServer>, 1.08, s32Sockets, 3000);
    }
    return RunSubjects(argc, argv);
}
