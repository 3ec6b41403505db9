/*
 * The guard's relay beside socat's, in the bench box: the delay of a packet, what the guard costs
 * beside a stream of 1920x1080 at 60 a second with 10 Mbit/s, and whether a packet is lost at 40.
 *
 * Sends RTP packets to the relay's port in bursts of a picture, 60 a second, and looks at when the
 * kernel delivers them at the preview's. Rounds of the two relays take turns. Each line ends in its
 * limit and whether it is kept; the exit status is 1 if one is not. Takes half a minute. Run by
 * bench/run, with the guard's path.
 */
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "framework/unique_fd.h"
#include "guard/daemon_view.h"
#include "guard/files.h"
#include "guard/loopback.h"

namespace
{
constexpr std::size_t kPacket = 1000;
constexpr int kRate = 60;
constexpr SInt64 kSecondNs = 1000000000;

SInt64 NowNs()
{
    timespec stNow;
    clock_gettime(CLOCK_REALTIME, &stNow); /* the one of the kernel's time stamps */
    return stNow.tv_sec * kSecondNs + stNow.tv_nsec;
}

[[noreturn]] void Fail(const char *i_pText)
{
    fprintf(stderr, "guard_bench: %s: %s\n", i_pText, strerror(errno));
    exit(1);
}

/* A process of our own, ended at the end of its object. */
class CRelayProcess
{
public:
    explicit CRelayProcess(std::vector<std::string> i_strArgs)
    {
        std::vector<char *> pArgs;
        for (std::string &strArg : i_strArgs) {
            pArgs.push_back(strArg.data());
        }
        pArgs.push_back(nullptr);
        if (posix_spawnp(&m_s32Pid, pArgs[0], nullptr, nullptr, pArgs.data(), environ) != 0) {
            Fail(pArgs[0]);
        }
        for (int i = 0; i < 200; i++) {
            usleep(10000);
            if (HasUdpPort(ReadFile("/proc/net/udp", 1 << 20).value_or(""), 12350)) {
                return;
            }
        }
        Fail("the relay does not take its port");
    }
    ~CRelayProcess()
    {
        kill(m_s32Pid, SIGTERM);
        waitpid(m_s32Pid, nullptr, 0);
    }
    CRelayProcess(const CRelayProcess &) = delete;
    CRelayProcess &operator=(const CRelayProcess &) = delete;

    DAEMON_S Look() const
    {
        const auto strStat = ReadFile("/proc/" + std::to_string(m_s32Pid) + "/stat", 4096);
        const auto stLook =
            ParseProcStat(strStat.value_or(""), sysconf(_SC_CLK_TCK), sysconf(_SC_PAGESIZE));
        if (!stLook) {
            Fail("the relay has ended");
        }
        return *stLook;
    }

private:
    pid_t m_s32Pid = -1;
};

/* Takes what arrives at the preview's port until it is told to stop. */
class CReceiver
{
public:
    CReceiver() : m_objFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        const int s32On = 1;
        const int s32Buffer = 8 << 20;
        const timeval stLimit = {0, 200000};
        const sockaddr_in stAddress = LoopbackAddress(12345);
        (void)setsockopt(m_objFd.Get(), SOL_SOCKET, SO_RCVBUFFORCE, &s32Buffer, sizeof(s32Buffer));
        setsockopt(m_objFd.Get(), SOL_SOCKET, SO_TIMESTAMPNS, &s32On, sizeof(s32On));
        setsockopt(m_objFd.Get(), SOL_SOCKET, SO_RCVTIMEO, &stLimit, sizeof(stLimit));
        if (bind(m_objFd.Get(), reinterpret_cast<const sockaddr *>(&stAddress),
                 sizeof(stAddress)) != 0) {
            Fail("the preview's port");
        }
        m_objThread = std::thread([this] { Receive(); });
    }
    /* The delays, ns. Everything that was sent and not lost has come. */
    std::vector<SInt64> Finish()
    {
        m_bStop = true;
        m_objThread.join();
        return std::move(m_s64Delays);
    }

private:
    void Receive()
    {
        for (;;) {
            UInt8 u8Packet[2048];
            alignas(cmsghdr) char szControl[256];
            iovec stVector = {u8Packet, sizeof(u8Packet)};
            msghdr stMessage = {};
            stMessage.msg_iov = &stVector;
            stMessage.msg_iovlen = 1;
            stMessage.msg_control = szControl;
            stMessage.msg_controllen = sizeof(szControl);
            if (recvmsg(m_objFd.Get(), &stMessage, 0) < 0) {
                if (m_bStop) {
                    return;
                }
                continue;
            }
            const cmsghdr *pHeader = CMSG_FIRSTHDR(&stMessage);
            timespec stArrived = {};
            if (pHeader != nullptr && pHeader->cmsg_type == SCM_TIMESTAMPNS) {
                memcpy(&stArrived, CMSG_DATA(pHeader), sizeof(stArrived));
            }
            SInt64 s64Sent = 0;
            memcpy(&s64Sent, u8Packet + 16, sizeof(s64Sent));
            m_s64Delays.push_back(stArrived.tv_sec * kSecondNs + stArrived.tv_nsec - s64Sent);
        }
    }

    UniqueFd m_objFd;
    std::atomic<bool> m_bStop = false;
    std::vector<SInt64> m_s64Delays;
    std::thread m_objThread;
};

/* Pictures without a key picture, of which nothing is ever left out. Returns how many packets. */
std::size_t SendStream(double i_f64MbitPerSecond, int i_s32Seconds)
{
    const UniqueFd objFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_in stTo = LoopbackAddress(12350);
    const double f64PerPicture = i_f64MbitPerSecond * 1e6 / 8 / kPacket / kRate;
    UInt8 u8Packet[kPacket] = {0x80, 96};
    std::size_t u64Sent = 0;
    SInt64 s64Next = NowNs();
    for (int i = 0; i < kRate * i_s32Seconds; i++) {
        const auto u32Timestamp = static_cast<UInt32>(i) * (90000 / kRate);
        for (const auto u64End = static_cast<std::size_t>((i + 1) * f64PerPicture);
             u64Sent < u64End; u64Sent++) {
            u8Packet[1] = u64Sent + 1 == u64End ? 0xE0 : 0x60;
            u8Packet[2] = static_cast<UInt8>(u64Sent >> 8);
            u8Packet[3] = static_cast<UInt8>(u64Sent);
            for (int j = 0; j < 4; j++) {
                u8Packet[4 + j] = static_cast<UInt8>(u32Timestamp >> (24 - 8 * j));
            }
            u8Packet[12] = 0x41;
            const SInt64 s64Now = NowNs();
            memcpy(u8Packet + 16, &s64Now, sizeof(s64Now));
            if (sendto(objFd.Get(), u8Packet, sizeof(u8Packet), 0,
                       reinterpret_cast<const sockaddr *>(&stTo), sizeof(stTo)) < 0) {
                Fail("send");
            }
        }
        s64Next += kSecondNs / kRate;
        const timespec stUntil = {s64Next / kSecondNs, s64Next % kSecondNs};
        clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &stUntil, nullptr);
    }
    return u64Sent;
}

double Percentile99(std::vector<SInt64> i_s64Values)
{
    if (i_s64Values.empty()) {
        Fail("nothing arrived");
    }
    std::sort(i_s64Values.begin(), i_s64Values.end());
    return static_cast<double>(i_s64Values[i_s64Values.size() * 99 / 100]) / 1000;
}

bool Line(const char *i_pWhat, double i_f64Value, const char *i_pUnit, double i_f64Limit)
{
    const bool bKept = i_f64Value <= i_f64Limit;
    printf("%-44s %8.2f %-4s limit %6.2f  %s\n", i_pWhat, i_f64Value, i_pUnit, i_f64Limit,
           bKept ? "kept" : "NOT KEPT");
    return bKept;
}
} // namespace

int main(int argc, char **argv)
{
    if (argc != 2 || access("/run/mv3300-sim/box.pid", F_OK) != 0) {
        fprintf(stderr, "usage, in the bench box: guard_bench PATH_OF_MV3300-GUARD\n");
        return 2;
    }
    const std::vector<std::string> strGuard = {argv[1], "--no-restart", "--no-announce"};
    const std::vector<std::string> strSocat = {"socat", "-u", "UDP4-RECV:12350,bind=127.0.0.1",
                                               "UDP4-SENDTO:127.0.0.1:12345"};
    std::vector<SInt64> s64Delays[2];
    DAEMON_S stUsed = {};
    double f64Seconds = 0;
    for (int i = 0; i < 6; i++) {
        const CRelayProcess objRelay(i % 2 == 0 ? strGuard : strSocat);
        CReceiver objReceiver;
        const DAEMON_S stBefore = objRelay.Look();
        SendStream(10, 4);
        const DAEMON_S stAfter = objRelay.Look();
        for (const SInt64 s64Delay : objReceiver.Finish()) {
            s64Delays[i % 2].push_back(s64Delay);
        }
        if (i % 2 == 0) {
            stUsed.s64CpuMs += stAfter.s64CpuMs - stBefore.s64CpuMs;
            stUsed.u64Memory = std::max(stUsed.u64Memory, stAfter.u64Memory);
            f64Seconds += 4;
        }
    }
    const CRelayProcess objRelay(strGuard);
    CReceiver objReceiver;
    const std::size_t u64Sent = SendStream(40, 4);
    const std::size_t u64Came = objReceiver.Finish().size();

    const double f64Ours = Percentile99(s64Delays[0]);
    const double f64Socat = Percentile99(s64Delays[1]);
    printf("guard/relay-delay-p99: ours %.1f us, socat %.1f us\n", f64Ours, f64Socat);
    bool bKept = Line("guard/relay-delay-p99/socat, ratio", f64Ours / f64Socat, "", 1.2);
    bKept &= Line("guard/processor at 10 Mbit/s",
                  static_cast<double>(stUsed.s64CpuMs) / 10 / f64Seconds, "%", 1);
    bKept &= Line("guard/memory", static_cast<double>(stUsed.u64Memory) / 1048576, "MB", 6);
    bKept &= Line("guard/lost at 40 Mbit/s", static_cast<double>(u64Sent - u64Came), "", 0);
    return bKept ? 0 : 1;
}
