/*
 * From a datagram to the run of its task, over two threads: what every event loop is measured with.
 */
#pragma once

#include <cstdlib>
#include <functional>
#include <memory>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "bench/least_tasks.h"
#include "framework/types.h"

/* Posted by every run. */
class CRunSignal
{
public:
    CRunSignal() { sem_init(&m_stRuns, 0, 0); }
    void Post() { sem_post(&m_stRuns); }
    void Wait()
    {
        while (sem_wait(&m_stRuns) != 0) {
        }
    }

private:
    sem_t m_stRuns;
};

/* A bound socket on the loopback interface, non-blocking, with the task that reads it. */
class CReceiver : public CLeastTask
{
public:
    CReceiver(CRunSignal *i_pRuns, std::function<void()> i_objArm)
        : m_s32Socket(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0)), m_pRuns(i_pRuns),
          m_objArm(std::move(i_objArm))
    {
        m_stAddr.sin_family = AF_INET;
        m_stAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t u32Len = sizeof(m_stAddr);
        auto *pAddr = reinterpret_cast<struct sockaddr *>(&m_stAddr);
        if (bind(m_s32Socket, pAddr, u32Len) != 0 ||
            getsockname(m_s32Socket, pAddr, &u32Len) != 0) {
            abort();
        }
    }
    ~CReceiver() override { close(m_s32Socket); }

    int Descriptor() const { return m_s32Socket; }
    UInt16 Port() const { return ntohs(m_stAddr.sin_port); }
    void Run() override
    {
        char szBuffer[64];
        struct sockaddr_in stFrom;
        socklen_t u32Len = sizeof(stFrom);
        benchmark::DoNotOptimize(recvfrom(m_s32Socket, szBuffer, sizeof(szBuffer), 0,
                                          reinterpret_cast<struct sockaddr *>(&stFrom), &u32Len));
        m_objArm();
        m_pRuns->Post();
    }

private:
    int m_s32Socket;
    struct sockaddr_in m_stAddr = {};
    CRunSignal *m_pRuns;
    std::function<void()> m_objArm;
};

/* Server(COUNT, SIGNAL): so many sockets, watched once it is constructed; Port(INDEX). One datagram
 * is on its way at a time, to each socket in turn. */
template <typename Server> void Datagram(benchmark::State &io_objState)
{
    const std::size_t u64Count = static_cast<std::size_t>(io_objState.range(0));
    const int s32Sender = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in stAddr = {};
    stAddr.sin_family = AF_INET;
    stAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    CRunSignal objRuns;
    {
        Server objServer(u64Count, &objRuns);
        std::size_t u64Next = 0;
        auto SendOne = [&] {
            stAddr.sin_port = htons(objServer.Port(u64Next));
            if (sendto(s32Sender, "datagram", 8, 0, reinterpret_cast<struct sockaddr *>(&stAddr),
                       sizeof(stAddr)) != 8) {
                abort();
            }
            objRuns.Wait();
            u64Next = u64Next + 1 < u64Count ? u64Next + 1 : 0;
        };
        for (int i = 0; i < 100; i++) { /* what the sockets' first watches left to be done */
            SendOne();
        }
        for (auto _ : io_objState) {
            SendOne();
        }
    }
    close(s32Sender);
}

/* 1, 10, 100 and 1000 watched descriptors: with the last, nearly all that select can watch. All
 * servers get as many datagrams. */
#define DATAGRAM_BENCHMARK(server, name)                                                           \
    BENCHMARK(Datagram<server>)                                                                    \
        ->Name("datagram/" name)                                                                   \
        ->RangeMultiplier(10)                                                                      \
        ->Range(1, 1000)                                                                           \
        ->Iterations(3000)                                                                         \
        ->MeasureProcessCPUTime()                                                                  \
        ->UseRealTime()
