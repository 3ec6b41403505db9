/*
 * The running daemon's control channel beside a UDP echo of the same shape, in the bench
 * box: a get of all seven settings, one at a time and with several outstanding, and a long
 * run after which memory and descriptors are where they were.
 *
 * bench/run pins everything to one processor, and the two sides take turns. The echo is this
 * program, started with --echo.
 */
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <log4cpp/PropertyConfigurator.hh>

#include "bench/least_loop.h"
#include "bench/rig.h"
#include "common/bus/log.h"
#include "framework/unique_fd.h"
#include "tests/support/loopback.h"
#include "tests/support/temp_dir.h"
#include "tools/control_channel.h"

namespace
{
constexpr int kRounds = 9;
constexpr int kPairs = 2000; /* of a round: one request to each side */
constexpr int kOutstanding = 32;
constexpr int kRequests = 10000; /* of a round with several outstanding */
constexpr int kLongRun = 200000;
constexpr char kEchoLog[] = "/run/mv3300d/echo.log";
constexpr char kEchoConf[] = "/run/echo.conf";

/* A thread waits in select(2); a worker takes one datagram a turn, writes the daemon's log lines to
 * the same kind of file, sends the datagram back from a fresh socket to the reply port, gives
 * itself the next turn, and has the socket watched again. */
class CEcho : public CLeastTask
{
public:
    explicit CEcho(UInt16 i_u16Port) : m_objFd(BindLoopback(i_u16Port))
    {
        m_objLoop.Arm(m_objFd.Get(), this);
    }
    void Run() override
    {
        char szReceived[4097] = {};
        sockaddr_in stFrom = {};
        socklen_t u32Size = sizeof(stFrom);
        const ssize_t s64Length = recvfrom(m_objFd.Get(), szReceived, 4096, MSG_DONTWAIT,
                                           reinterpret_cast<sockaddr *>(&stFrom), &u32Size);
        if (s64Length >= 0) {
            LOG_INFO("boxes parse success, %d bytes ", static_cast<int>(s64Length));
            LOG_DEBUG("get h264 enable:%d,gop:%d,mode:%d,bitrate:%d,  preview enable:%d, "
                      "height:%d, refreshrate:%d",
                      1, 1, 1, 1, 1, 1, 1);
            const UniqueFd objReply(socket(AF_INET, SOCK_DGRAM, 0));
            SendLoopback(objReply.Get(), 8365, {szReceived, static_cast<std::size_t>(s64Length)});
            LOG_INFO("set h264 enable:%d, gop:%d, mode:%d, bitrate:%d,  preview enable:%d, "
                     "height:%d, refreshrate:%d",
                     -1, -1, -1, -1, -1, -1, -1);
            LOG_ERROR("cmd error");
            m_objLoop.Signal(this);
        }
        m_objLoop.Arm(m_objFd.Get(), this);
    }

private:
    UniqueFd m_objFd;
    CLeastLoop m_objLoop;
};

struct SIDE_S {
    UInt16 u16Port;
    pid_t s32Pid;
};
std::vector<SIDE_S> g_stSides;
int g_s32Lost = 0; /* requests, of either side */

class CClient
{
public:
    void Send(const SIDE_S &i_stSide) const
    {
        SendLoopback(m_objFd.Get(), i_stSide.u16Port, m_strRequest);
    }
    /* False when nothing comes in time. */
    bool Receive(int i_s32LimitMs = 2000) const
    {
        return ReceiveLoopback(m_objFd.Get(), i_s32LimitMs).size() > 8;
    }
    double RoundTripUs(const SIDE_S &i_stSide) const
    {
        const double f64Begin = NowUs();
        Send(i_stSide);
        if (!Receive()) {
            Fail("no reply from port", std::to_string(i_stSide.u16Port));
        }
        return NowUs() - f64Begin;
    }
    void Load(const SIDE_S &i_stSide, int i_s32Requests) const
    {
        while (Receive(50)) {
            /* A reply that comes late must not count for the other side. */
        }
        int s32Sent = 0;
        int s32Answered = 0;
        for (; s32Sent < kOutstanding; s32Sent++) {
            Send(i_stSide);
        }
        for (; s32Answered < i_s32Requests && Receive(); s32Answered++) {
            if (s32Sent < i_s32Requests) {
                Send(i_stSide);
                s32Sent++;
            }
        }
        g_s32Lost += i_s32Requests - s32Answered;
    }

private:
    UniqueFd m_objFd{BindLoopback(8365)};
    std::string m_strRequest = EncodeStreamCommand(ASK_ALL, {});
};

void MeasureRoundTrips(const CClient &i_objClient)
{
    std::vector<double> f64Medians[2];
    std::vector<double> f64P99s[2];
    for (int i = 0; i < kRounds; i++) {
        std::vector<double> f64Times[2];
        for (int j = 0; j < 2 * kPairs; j++) {
            f64Times[j % 2].push_back(i_objClient.RoundTripUs(g_stSides[j % 2]));
        }
        for (int j = 0; j < 2; j++) {
            f64Medians[j].push_back(Quantile(f64Times[j], 0.5));
            f64P99s[j].push_back(Quantile(f64Times[j], 0.99));
        }
    }
    Compare("get of seven settings, p50", "UDP echo of the same shape", 1.1, f64Medians[0],
            f64Medians[1]);
    Compare("get of seven settings, p99", "UDP echo of the same shape", 1.15, f64P99s[0],
            f64P99s[1]);
}

/* Time and processor time a request. */
void MeasureLoad(const CClient &i_objClient)
{
    std::vector<double> f64Us[2];
    std::vector<double> f64CpuUs[2];
    for (int i = 0; i < 2 * kRounds; i++) {
        const SIDE_S &stSide = g_stSides[i % 2];
        const double f64Before = CpuSeconds(stSide.s32Pid);
        const double f64Begin = NowUs();
        i_objClient.Load(stSide, kRequests);
        f64Us[i % 2].push_back((NowUs() - f64Begin) / kRequests);
        f64CpuUs[i % 2].push_back((CpuSeconds(stSide.s32Pid) - f64Before) * 1e6 / kRequests);
    }
    Compare("time per get, 32 outstanding", "UDP echo of the same shape", 1.05, f64Us[0], f64Us[1]);
    Compare("CPU per get, 32 outstanding", "UDP echo of the same shape", 1.1, f64CpuUs[0],
            f64CpuUs[1]);
}

void LongRun(const CClient &i_objClient)
{
    const pid_t s32Daemon = g_stSides[0].s32Pid;
    const std::string strDescriptors = "/proc/" + std::to_string(s32Daemon) + "/fd";
    const double f64Mb = PssMb(s32Daemon);
    const auto s64Descriptors = EntriesIn(strDescriptors);
    i_objClient.Load(g_stSides[0], kLongRun);
    usleep(200000); /* the last reply's socket */
    Report("200,000 gets: memory more, MB", "", 1, PssMb(s32Daemon) - f64Mb);
    Report("200,000 gets: descriptors more", "", 1,
           static_cast<double>(EntriesIn(strDescriptors) - s64Descriptors));
}

/* Starts the daemon and the echo, which logs as the daemon does into a file of its own. */
void StartSides(const char *i_pSelf)
{
    const pid_t s32Daemon = StartDaemon();
    std::string strConf = ReadFile("/config/logconf/mvx3300.conf");
    const std::string strKey = "fileName=";
    const std::size_t u64File = strConf.find(strKey) + strKey.size();
    strConf.replace(u64File, strConf.find('\n', u64File) - u64File, kEchoLog);
    WriteFile(kEchoConf, strConf);
    g_stSides = {{8366, s32Daemon}, {9366, Spawn({i_pSelf, "--echo", "9366", kEchoConf})}};
    WaitForLog("echo is up", 1, kEchoLog);
    sleep(2);
}
} // namespace

int main(int argc, char **argv)
{
    if (argc == 4 && strcmp(argv[1], "--echo") == 0) {
        log4cpp::PropertyConfigurator::configure(argv[3]);
        const CEcho objEcho(static_cast<UInt16>(std::atoi(argv[2])));
        LOG_INFO("echo is up");
        return pause();
    }
    PrepareBox();
    const CClient objClient;
    StartSides(argv[0]);
    for (int i = 0; i < 2000; i++) {
        objClient.RoundTripUs(g_stSides[i % 2]);
    }
    MeasureRoundTrips(objClient);
    MeasureLoad(objClient);
    LongRun(objClient);
    Report("requests lost", "", 0, g_s32Lost);
    End(g_stSides[0].s32Pid, SIGTERM);
    End(g_stSides[1].s32Pid, SIGKILL);
    return 0;
}
