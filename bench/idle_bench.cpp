/*
 * What the framework costs while nothing happens, beside a program that only makes its wake-ups.
 *
 * Both run in turn for a few seconds, each in a process of its own (this program, with --ours or
 * --limit): the framework as the daemon sets it up, and four bare threads: one in select with 15 s,
 * one that waits for good, one that waits 5 ms at a time and one a second.
 */
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "bench/rig.h"
#include "framework/ev.h"
#include "framework/idletask.h"
#include "framework/socket.h"
#include "framework/task.h"
#include "framework/timeouttask.h"

namespace
{
constexpr int kRounds = 3;
constexpr unsigned kSeconds = 5;

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

void Select()
{
    for (;;) {
        struct timeval stTimeout = {15, 0};
        select(0, nullptr, nullptr, nullptr, &stTimeout);
    }
}

/* A task thread: looks at its delayed runs and its list, and waits the milliseconds given. Each has
 * a mutex and a condition that nobody else takes. */
void WaitAgainAndAgain(long i_s64Ms)
{
    pthread_mutex_t stMutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t stCond = PTHREAD_COND_INITIALIZER;
    for (;;) {
        struct timespec stMonotonic;
        clock_gettime(CLOCK_MONOTONIC, &stMonotonic);
        pthread_mutex_lock(&stMutex);
        struct timeval stNow;
        gettimeofday(&stNow, nullptr);
        const long s64End = stNow.tv_usec + i_s64Ms * 1000;
        const struct timespec stEnd = {stNow.tv_sec + s64End / 1000000, s64End % 1000000 * 1000};
        pthread_cond_timedwait(&stCond, &stMutex, &stEnd);
        pthread_mutex_unlock(&stMutex);
        if (i_s64Ms > 5) {
            sched_yield(); /* the look at the timeouts and the end of its run */
            sched_yield();
        }
    }
}

void StartLimit()
{
    std::thread(Select).detach();
    std::thread([] { pause(); }).detach();
    std::thread(WaitAgainAndAgain, 5).detach();
    std::thread(WaitAgainAndAgain, 1005).detach();
}
} // namespace

int main(int argc, char **argv)
{
    if (argc == 2) {
        strcmp(argv[1], "--ours") == 0 ? StartFramework() : StartLimit();
        for (;;) {
            pause();
        }
    }
    PinToOneProcessor();
    std::vector<double> f64Switches[2];
    std::vector<double> f64CpuMs[2];
    for (int i = 0; i < 2 * kRounds; i++) {
        const pid_t s32Pid = Spawn({argv[0], i % 2 == 0 ? "--ours" : "--limit"});
        sleep(1);
        const double f64Before[] = {VoluntarySwitches(s32Pid), CpuSeconds(s32Pid)};
        sleep(kSeconds);
        f64Switches[i % 2].push_back((VoluntarySwitches(s32Pid) - f64Before[0]) / kSeconds);
        f64CpuMs[i % 2].push_back((CpuSeconds(s32Pid) - f64Before[1]) * 1000 / kSeconds);
        End(s32Pid, SIGKILL);
    }
    Compare("idle, voluntary context switches", "limit", 1.01, f64Switches[0], f64Switches[1]);
    Compare("idle, processor time", "limit", 1.1, f64CpuMs[0], f64CpuMs[1]);
    return 0;
}
