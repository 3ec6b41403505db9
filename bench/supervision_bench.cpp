/*
 * The daemon's own work around its pipelines, in the bench box: publication of a picture, and
 * return after a crash.
 *
 * Fixed pauses are taken off and printed apart. Each measurement has a least program in the same
 * run, rounds interleaved: a loop that waits for a file, pauses and renames it; and a crash and a
 * start without a watchdog. Run it by bench/run.
 */
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/box_run.h"
#include "framework/clock.h"
#include "tools/control_channel.h"

namespace
{
constexpr SInt64 kWriterPauseUs = 20000;
constexpr SInt64 kRestartPauseUs = 1000000;
constexpr CFieldAsks kAskAll = {true, true, true, true, true, true, true};

/* Waits for a file to be moved into a directory; other files are passed over. */
class CArrivals
{
public:
    explicit CArrivals(const char *i_pDirectory) : m_s32Fd(inotify_init1(IN_CLOEXEC))
    {
        if (inotify_add_watch(m_s32Fd, i_pDirectory, IN_MOVED_TO) < 0) {
            Fail(i_pDirectory, strerror(errno));
        }
    }
    ~CArrivals() { close(m_s32Fd); }
    CArrivals(const CArrivals &) = delete;
    CArrivals &operator=(const CArrivals &) = delete;

    /* False if none comes for five seconds. */
    bool Wait(const std::string &i_strName) const
    {
        struct pollfd stPoll = {m_s32Fd, POLLIN, 0};
        alignas(struct inotify_event) char szEvents[4096];
        while (poll(&stPoll, 1, 5000) == 1) {
            const ssize_t s64Length = read(m_s32Fd, szEvents, sizeof(szEvents));
            for (ssize_t s64At = 0; s64At < s64Length;) {
                /* The kernel pads each event for the next one's alignment (inotify(7)). */
                const auto *pEvent = static_cast<const struct inotify_event *>(
                    static_cast<const void *>(szEvents + s64At));
                if (i_strName == pEvent->name) {
                    return true;
                }
                s64At += static_cast<ssize_t>(sizeof(*pEvent) + pEvent->len);
            }
        }
        return false;
    }

private:
    const int m_s32Fd;
};

/* Moves a file in and waits until it is published; microseconds above the fixed pause. */
double Publish(const CArrivals &i_objPublished, const std::string &i_strInto,
               const std::string &i_strAs)
{
    std::ofstream("/tmp/new") << "picture";
    const SInt64 s64Begin = GetTimeInMcros();
    std::filesystem::rename("/tmp/new", i_strInto);
    if (!i_objPublished.Wait(i_strAs)) {
        Fail("is not published", i_strInto);
    }
    return static_cast<double>(GetTimeInMcros() - s64Begin - kWriterPauseUs);
}

void MeasurePublication(int i_s32Pictures)
{
    std::filesystem::create_directories("/tmp/least");
    const pid_t s32Daemon = StartDaemon();
    const CArrivals objMade("/tmp/least");
    std::thread objLeast([&] {
        while (objMade.Wait("p")) {
            usleep(kWriterPauseUs);
            std::filesystem::rename("/tmp/least/p", "/tmp/least.jpeg");
        }
    });
    const CArrivals objPublished("/tmp");
    std::vector<double> f64Us[2];
    for (int i = 0; i < i_s32Pictures; i++) {
        f64Us[0].push_back(Publish(objPublished, "/tmp/image/p", "image.jpeg"));
        f64Us[1].push_back(Publish(objPublished, "/tmp/least/p", "least.jpeg"));
    }
    objLeast.join();
    End(s32Daemon, SIGTERM);
    Compare("publication over 20 ms, us", f64Us[0], f64Us[1]);
    printf("%-28s ours %9.2f  reference %9.2f\n", "  99th percentile", Quantile(f64Us[0], 0.99),
           Quantile(f64Us[1], 0.99));
}

/* Milliseconds from i_s64Begin until the control channel answers. */
double AnswerAfter(SInt64 i_s64Begin)
{
    const SInt64 s64Limit = i_s64Begin + 60 * 1000000;
    while (AskDaemon({}, kAskAll, {}, std::chrono::milliseconds(5)).eResult !=
           AskResult::Answered) {
        if (GetTimeInMcros() > s64Limit) {
            Fail("the daemon does not answer", "for 60 s");
        }
        usleep(500);
    }
    return static_cast<double>(GetTimeInMcros() - i_s64Begin) / 1000;
}

pid_t Instance()
{
    const std::optional<SInt32> objPid = FindDaemon("/var/run/mv3300.pid");
    if (!objPid) {
        Fail("no daemon runs", "/var/run/mv3300.pid");
    }
    return *objPid;
}

/* A process that dies could still answer. */
void WaitUntilGone(pid_t i_s32Pid)
{
    for (int i = 0; kill(i_s32Pid, 0) == 0; i++) {
        if (i == 50000) {
            Fail("does not end within 10 s", std::to_string(i_s32Pid));
        }
        usleep(200);
    }
}

void MeasureRestart(int i_s32Rounds)
{
    /* What the watchdog's start-up leaves behind becomes this process's child. */
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const struct rlimit stNoCore = {0, 0};
    setrlimit(RLIMIT_CORE, &stNoCore);
    std::vector<double> f64Ms[2];
    for (int i = 0; i < i_s32Rounds; i++) {
        /* Without a watchdog: the start, and how long the system takes to clear a crash away. */
        SInt64 s64Begin = GetTimeInMcros();
        const pid_t s32Plain = Spawn({"mv3300d"});
        const double f64Start = AnswerAfter(s64Begin);
        s64Begin = GetTimeInMcros();
        End(s32Plain, SIGSEGV);
        f64Ms[1].push_back(f64Start + static_cast<double>(GetTimeInMcros() - s64Begin) / 1000);

        WaitForEnd(Spawn({"mv3300d", "-D"}));
        AnswerAfter(GetTimeInMcros());
        const pid_t s32Instance = Instance();
        s64Begin = GetTimeInMcros();
        kill(s32Instance, SIGSEGV);
        WaitUntilGone(s32Instance);
        f64Ms[0].push_back(AnswerAfter(s64Begin + kRestartPauseUs));
        kill(Instance(), SIGTERM);
        while (wait(nullptr) > 0) {
        }
    }
    Compare("crash to answer over 1 s, ms", f64Ms[0], f64Ms[1]);
}

} // namespace

int main(int argc, char **argv)
{
    const int s32Rounds = argc == 2 ? std::atoi(argv[1]) : 5;
    if (s32Rounds < 1) {
        fprintf(stderr, "usage, in the bench box only: supervision_bench [ROUNDS]\n");
        return 2;
    }
    PrepareBox();
    PinToOneProcessor();
    MeasurePublication(s32Rounds * 20);
    MeasureRestart(s32Rounds);
    return 0;
}
