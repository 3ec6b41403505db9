/*
 * What the framework costs while nothing happens, beside a program that only makes its wake-ups.
 *
 * Both are started in turn, each for a few seconds in a process of its own: the framework as the
 * daemon sets it up, and four bare threads: one in select with 15 s, one that waits for good, one
 * that waits 5 ms at a time and one a second. Compared are the voluntary context switches and the
 * processor time. Run it by bench/run; its argument is the number of rounds.
 */
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "bench/box_run.h"
#include "framework/ev.h"
#include "framework/idletask.h"
#include "framework/socket.h"
#include "framework/task.h"
#include "framework/timeouttask.h"

namespace
{
constexpr int kSeconds = 5;

struct RESULT_S {
    double f64Switches; /* a second */
    double f64CpuMs;    /* a second */
};

void StartFramework()
{
    CThread::Initialize(0x80000);
    CTaskThreadPool::AddThreads(2);
    CTimeoutTask::Initialize(100);
    select_startevents();
    CSocket::Initialize();
    CSocket::StartThread();
    CIdleTask::Initialize();
}

/* Each thread has a mutex and a condition that nobody else takes. */
struct WAITER_S {
    pthread_mutex_t stMutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t stCond = PTHREAD_COND_INITIALIZER;
};

void *WaitForGood(void *)
{
    WAITER_S stWaiter;
    pthread_mutex_lock(&stWaiter.stMutex);
    for (;;) {
        pthread_cond_wait(&stWaiter.stCond, &stWaiter.stMutex);
    }
}

void *Select(void *)
{
    int aPipe[2];
    if (pipe(aPipe) != 0) {
        abort();
    }
    for (;;) {
        fd_set stSet;
        FD_ZERO(&stSet);
        FD_SET(aPipe[0], &stSet);
        struct timeval stTimeout = {15, 0};
        select(aPipe[0] + 1, &stSet, nullptr, nullptr, &stTimeout);
    }
}

/* A task thread: looks at its delayed runs and its list, and waits the milliseconds given. */
void *WaitAgainAndAgain(void *i_pMilliseconds)
{
    WAITER_S stWaiter;
    const long s64Ms = reinterpret_cast<long>(i_pMilliseconds);
    for (;;) {
        struct timespec stMonotonic;
        clock_gettime(CLOCK_MONOTONIC, &stMonotonic);
        pthread_mutex_lock(&stWaiter.stMutex);
        struct timeval stNow;
        gettimeofday(&stNow, nullptr);
        const long s64End = stNow.tv_usec + s64Ms * 1000;
        const struct timespec stEnd = {stNow.tv_sec + s64End / 1000000, s64End % 1000000 * 1000};
        pthread_cond_timedwait(&stWaiter.stCond, &stWaiter.stMutex, &stEnd);
        pthread_mutex_unlock(&stWaiter.stMutex);
        if (s64Ms > 5) {
            sched_yield(); /* the look at the timeouts and the end of its run */
            sched_yield();
        }
    }
}

void StartLimit()
{
    const struct {
        void *(*pEntry)(void *);
        long s64Ms;
    } stThreads[] = {
        {Select, 0}, {WaitForGood, 0}, {WaitAgainAndAgain, 5}, {WaitAgainAndAgain, 1005}};
    for (const auto &stThread : stThreads) {
        pthread_t stHandle;
        if (pthread_create(&stHandle, nullptr, stThread.pEntry,
                           reinterpret_cast<void *>(stThread.s64Ms)) != 0) {
            abort();
        }
    }
}

void Read(double *o_pCpuMs, double *o_pSwitches)
{
    struct timespec stCpu;
    struct rusage stUsage;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &stCpu);
    getrusage(RUSAGE_SELF, &stUsage);
    *o_pCpuMs = static_cast<double>(stCpu.tv_sec) * 1e3 + static_cast<double>(stCpu.tv_nsec) / 1e6;
    *o_pSwitches = static_cast<double>(stUsage.ru_nvcsw);
}

/* One run in a process of its own. */
RESULT_S Measure(void (*i_pStart)(), RESULT_S *io_pShared)
{
    const pid_t s32Child = fork();
    if (s32Child < 0) {
        perror("fork");
        exit(1);
    }
    if (s32Child == 0) {
        i_pStart();
        sleep(1);
        RESULT_S stBefore;
        RESULT_S stAfter;
        Read(&stBefore.f64CpuMs, &stBefore.f64Switches);
        sleep(kSeconds);
        Read(&stAfter.f64CpuMs, &stAfter.f64Switches);
        io_pShared->f64CpuMs = (stAfter.f64CpuMs - stBefore.f64CpuMs) / kSeconds;
        io_pShared->f64Switches = (stAfter.f64Switches - stBefore.f64Switches) / kSeconds;
        _exit(0);
    }
    int s32Status = -1;
    if (waitpid(s32Child, &s32Status, 0) != s32Child || s32Status != 0) {
        fprintf(stderr, "idle_bench: a run ended with %d\n", s32Status);
        exit(1);
    }
    return *io_pShared;
}

} // namespace

int main(int argc, char **argv)
{
    const int s32Rounds = argc > 1 ? atoi(argv[1]) : 3;
    auto *pShared = static_cast<RESULT_S *>(
        mmap(nullptr, sizeof(RESULT_S), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    if (pShared == MAP_FAILED) {
        return 1;
    }
    std::vector<double> f64Switches[2];
    std::vector<double> f64CpuMs[2];
    for (int i = 0; i < 2 * s32Rounds; i++) {
        const RESULT_S stResult = Measure(i % 2 == 0 ? StartFramework : StartLimit, pShared);
        f64Switches[i % 2].push_back(stResult.f64Switches);
        f64CpuMs[i % 2].push_back(stResult.f64CpuMs);
    }
    Compare("idle, switches a second", f64Switches[0], f64Switches[1]);
    Compare("idle, CPU, ms a second", f64CpuMs[0], f64CpuMs[1]);
    return 0;
}
