/*
 * The running daemon's control channel beside control_echo, in the bench box: a get of all seven
 * fields, one at a time and with several outstanding.
 *
 * Usage: control_bench [COUNT]. COUNT requests more are sent at the end, to see whether the
 * daemon's memory and descriptors stay where they are. Everything is pinned to one processor, and
 * the two sides take turns. A request without a reply, memory or descriptors that grow fail it.
 */
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bench/box_run.h"
#include "framework/clock.h"
#include "tools/stream_command.h"

namespace
{
constexpr UInt16 kReplyPort = 8365;
constexpr int kRounds = 9;
constexpr int kPairs = 2000;     /* of a round: one request to each side */
constexpr int kRequests = 10000; /* of a round with several outstanding */
constexpr char kDaemonLog[] = "/run/bench.log";
constexpr char kEchoLog[] = "/run/echo.log";
constexpr char kEchoConf[] = "/run/echo.conf";
constexpr int kSides = 2;
constexpr std::array<UInt16, kSides> kPorts = {8366, 9366};
constexpr std::array<const char *, kSides> kSideNames = {"ours", "reference"};
/* What the daemon may hold more after the long run than before. */
constexpr long kMostDescriptorsMore = 1;
constexpr double kMostMbMore = 1;

/* The packaged configuration without its console. */
void WriteLogConf(const std::string &i_strFile, const std::string &i_strLog)
{
    std::ofstream(i_strFile)
        << "rootCategory=WARN, file\ncategory.CATEGORY=INFO, file\nadditivity.CATEGORY=false\n"
           "appender.file=RollingFileAppender\nappender.file.maxFileSize=1000000\n"
           "appender.file.maxBackupIndex=2\nappender.file.append=true\n"
           "appender.file.layout=PatternLayout\n"
           "appender.file.layout.ConversionPattern=%d{%Y-%m-%d %H:%M:%S.%l} %-6p %m%n\n"
           "appender.file.fileName="
        << i_strLog << "\n";
}

class CClient
{
public:
    CClient()
        : m_s32Fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)),
          m_strRequest(EncodeStreamCommand({true, true, true, true, true, true, true}, {}))
    {
        const sockaddr_in stAddress = Loopback(kReplyPort);
        if (bind(m_s32Fd, reinterpret_cast<const sockaddr *>(&stAddress), sizeof(stAddress)) != 0) {
            Fail("bind", strerror(errno));
        }
    }

    void Send(int i_s32Side) const
    {
        const sockaddr_in stAddress = Loopback(kPorts[static_cast<std::size_t>(i_s32Side)]);
        sendto(m_s32Fd, m_strRequest.data(), m_strRequest.size(), 0,
               reinterpret_cast<const sockaddr *>(&stAddress), sizeof(stAddress));
    }

    /* False when nothing comes for 2 s. */
    bool Receive() const
    {
        char szReply[4096];
        pollfd stPoll = {m_s32Fd, POLLIN, 0};
        return poll(&stPoll, 1, 2000) == 1 && recv(m_s32Fd, szReply, sizeof(szReply), 0) > 8;
    }

    /* A reply that comes late, up to 50 ms, must not count for the other side. */
    void Drain() const
    {
        char szReply[4096];
        pollfd stPoll = {m_s32Fd, POLLIN, 0};
        while (poll(&stPoll, 1, 50) == 1) {
            recv(m_s32Fd, szReply, sizeof(szReply), 0);
        }
    }

    /* Microseconds. */
    double RoundTrip(int i_s32Side) const
    {
        timespec stBegin;
        timespec stEnd;
        clock_gettime(CLOCK_MONOTONIC, &stBegin);
        Send(i_s32Side);
        if (!Receive()) {
            Fail("no reply", kSideNames[static_cast<std::size_t>(i_s32Side)]);
        }
        clock_gettime(CLOCK_MONOTONIC, &stEnd);
        return static_cast<double>(stEnd.tv_sec - stBegin.tv_sec) * 1e6 +
               static_cast<double>(stEnd.tv_nsec - stBegin.tv_nsec) / 1e3;
    }

    /* Sends the requests with as many outstanding and returns how many were not answered. */
    int Load(int i_s32Side, int i_s32Requests, int i_s32Outstanding) const
    {
        int s32Sent = 0;
        int s32Answered = 0;
        while (s32Sent < std::min(i_s32Requests, i_s32Outstanding)) {
            Send(i_s32Side);
            s32Sent++;
        }
        while (s32Answered < i_s32Requests && Receive()) {
            s32Answered++;
            if (s32Sent < i_s32Requests) {
                Send(i_s32Side);
                s32Sent++;
            }
        }
        return i_s32Requests - s32Answered;
    }

private:
    static sockaddr_in Loopback(UInt16 i_u16Port)
    {
        sockaddr_in stAddress = {};
        stAddress.sin_family = AF_INET;
        stAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        stAddress.sin_port = htons(i_u16Port);
        return stAddress;
    }

    int m_s32Fd;
    std::string m_strRequest;
};

void MeasureRoundTrips(const CClient &i_objClient)
{
    std::vector<double> f64Quantiles[2][kSides];
    for (int i = 0; i < kRounds; i++) {
        std::vector<double> f64Times[kSides];
        for (int j = 0; j < kSides * kPairs; j++) {
            f64Times[j % kSides].push_back(i_objClient.RoundTrip(j % kSides));
        }
        for (int s32Side = 0; s32Side < kSides; s32Side++) {
            f64Quantiles[0][s32Side].push_back(Quantile(f64Times[s32Side], 0.5));
            f64Quantiles[1][s32Side].push_back(Quantile(f64Times[s32Side], 0.99));
        }
    }
    Compare("get, p50, us", f64Quantiles[0][0], f64Quantiles[0][1]);
    Compare("get, p99, us", f64Quantiles[1][0], f64Quantiles[1][1]);
}

/* Requests per second and processor time per request; the daemon's time without requests, which
 * its other threads use, is taken off. Returns how many requests of either side were lost. */
int MeasureLoad(const CClient &i_objClient, const std::array<pid_t, kSides> &i_s32Pids,
                int i_s32Outstanding, const std::array<double, kSides> &i_f64IdlePerS)
{
    std::vector<double> f64Rate[kSides];
    std::vector<double> f64Cpu[kSides];
    std::array<int, kSides> s32Lost = {};
    for (int i = 0; i < kSides * kRounds; i++) {
        const auto u64Side = static_cast<std::size_t>(i % kSides);
        i_objClient.Drain();
        const double f64Before = CpuSeconds(i_s32Pids[u64Side]);
        const SInt64 s64Begin = GetTimeInMcros();
        s32Lost[u64Side] += i_objClient.Load(i % kSides, kRequests, i_s32Outstanding);
        const double f64Seconds = static_cast<double>(GetTimeInMcros() - s64Begin) / 1e6;
        const double f64Used =
            CpuSeconds(i_s32Pids[u64Side]) - f64Before - i_f64IdlePerS[u64Side] * f64Seconds;
        f64Rate[u64Side].push_back(kRequests / f64Seconds);
        f64Cpu[u64Side].push_back(f64Used * 1e6 / kRequests);
    }
    i_objClient.Drain();
    const std::string strWhat = ", " + std::to_string(i_s32Outstanding) + " outstanding";
    Compare(("gets per second" + strWhat).c_str(), f64Rate[0], f64Rate[1]);
    Compare(("CPU per get, us" + strWhat).c_str(), f64Cpu[0], f64Cpu[1]);
    printf("%-35s %s %d, %s %d\n", ("lost" + strWhat).c_str(), kSideNames[0], s32Lost[0],
           kSideNames[1], s32Lost[1]);
    return s32Lost[0] + s32Lost[1];
}

std::array<double, kSides> IdlePerSecond(const std::array<pid_t, kSides> &i_s32Pids)
{
    constexpr unsigned kSeconds = 5;
    std::array<double, kSides> f64Idle = {};
    for (std::size_t i = 0; i < kSides; i++) {
        f64Idle[i] -= CpuSeconds(i_s32Pids[i]);
    }
    sleep(kSeconds);
    for (std::size_t i = 0; i < kSides; i++) {
        f64Idle[i] = (f64Idle[i] + CpuSeconds(i_s32Pids[i])) / kSeconds;
    }
    return f64Idle;
}

struct HELD_S {
    long s64Descriptors;
    double f64Mb;
};

HELD_S PrintHeld(pid_t i_s32Pid, const char *i_pWhen)
{
    const std::string strProc = "/proc/" + std::to_string(i_s32Pid);
    const auto s64Descriptors =
        std::distance(std::filesystem::directory_iterator(strProc + "/fd"), {});
    const HELD_S stHeld = {static_cast<long>(s64Descriptors), RssMb(i_s32Pid)};
    printf("%-35s resident %.2f MB, %ld descriptors\n", i_pWhen, stHeld.f64Mb,
           stHeld.s64Descriptors);
    fflush(stdout);
    return stHeld;
}

/* Returns how many were lost. */
int LongRun(const CClient &i_objClient, pid_t i_s32Daemon, int i_s32Requests)
{
    const HELD_S stBefore = PrintHeld(i_s32Daemon, "before the long run");
    const int s32Lost = i_objClient.Load(0, i_s32Requests, 8);
    usleep(200000); /* the last reply's socket */
    const HELD_S stAfter =
        PrintHeld(i_s32Daemon, ("after " + std::to_string(i_s32Requests) + " gets more").c_str());
    printf("%-35s %d\n", "lost", s32Lost);
    if (stAfter.s64Descriptors > stBefore.s64Descriptors + kMostDescriptorsMore ||
        stAfter.f64Mb > stBefore.f64Mb + kMostMbMore) {
        Fail("the daemon grew", "in the long run");
    }
    return s32Lost;
}

/* Starts the daemon and its reference. */
std::array<pid_t, kSides> StartSides(const char *i_pSelf)
{
    WriteLogConf("/config/logconf/mvx3300.conf", kDaemonLog);
    WriteLogConf(kEchoConf, kEchoLog);
    const std::string strEcho =
        std::filesystem::path(i_pSelf).replace_filename("control_echo").string();
    const std::array<pid_t, kSides> s32Pids = {
        Spawn({"mv3300d"}), Spawn({strEcho, std::to_string(kPorts[1]), kEchoConf})};
    WaitForLog("start loop of monitor", 1);
    WaitForLog("start gst enc jpeg thread", 1);
    WaitForLine(kEchoLog, "echo is up", 1);
    sleep(2);
    return s32Pids;
}
} // namespace

int main(int argc, char **argv)
{
    const int s32Count = argc == 2 ? std::atoi(argv[1]) : 200000;
    if (s32Count < 1) {
        fprintf(stderr, "usage, in the bench box only: control_bench [COUNT]\n");
        return 2;
    }
    PrepareBox();
    PinToOneProcessor();
    const CClient objClient;
    const std::array<pid_t, kSides> s32Pids = StartSides(argv[0]);
    for (int i = 0; i < kSides * 1000; i++) {
        objClient.RoundTrip(i % kSides);
    }
    const std::array<double, kSides> f64Idle = IdlePerSecond(s32Pids);
    MeasureRoundTrips(objClient);
    int s32Lost = 0;
    for (int s32Outstanding : {1, 8, 32}) {
        s32Lost += MeasureLoad(objClient, s32Pids, s32Outstanding, f64Idle);
    }
    s32Lost += LongRun(objClient, s32Pids[0], s32Count);
    End(s32Pids[0], SIGTERM);
    End(s32Pids[1], SIGKILL);
    if (s32Lost != 0) {
        Fail("requests were lost", std::to_string(s32Lost));
    }
    return 0;
}
