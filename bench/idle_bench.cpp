/*
 * What the framework costs while nothing happens, beside a program that only makes its wake-ups.
 *
 * Both run in turn for a few seconds, each in a process of its own (this program, with --ours or
 * --limit): the framework as the daemon sets it up, and four threads that make its wake-ups: one in
 * select with 15 s, one that waits for good, one that waits 5 ms at a time and one a second.
 */
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include "bench/least_loop.h"
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

/* A second's pause and what its end comes to: the scan of the timeouts and the end of its run. */
void Scan()
{
    for (;;) {
        usleep(1005000);
        sched_yield();
        sched_yield();
    }
}

/* The least loop waits in select with 15 s, and its worker 5 ms at a time. */
void StartLimit()
{
    static CLeastLoop s_objLoop;
    std::thread([] { pause(); }).detach();
    std::thread(Scan).detach();
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
