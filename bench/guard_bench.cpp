/*
 * The guard's relay beside socat's, in the bench box: the delay of a packet, what the guard costs
 * beside a stream of 1920x1080 at 60 a second with 10 Mbit/s, and whether a packet is lost at 40.
 *
 * Sends RTP packets to the relay's port in bursts of a picture, 60 a second, and looks at when the
 * kernel delivers them at the preview's. Rounds of the two relays take turns. Both may use every
 * processor.
 */
#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "bench/rig.h"
#include "framework/unique_fd.h"
#include "tests/support/loopback.h"

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

/* A relay that has its port. */
pid_t StartRelay(const std::vector<std::string> &i_strArgs)
{
    const pid_t s32Pid = Spawn(i_strArgs);
    WaitForLog(":303E ", 1, "/proc/net/udp"); /* port 12350 */
    return s32Pid;
}

/* Takes what arrives at the preview's port until it is told to stop. */
class CReceiver
{
public:
    CReceiver() : m_objFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        const int s32On = 1;
        const int s32Buffer = 8 << 20;
        const timeval stLimit = {0, 200000};
        const sockaddr_in stAddress = Loopback(12345);
        (void)setsockopt(m_objFd.Get(), SOL_SOCKET, SO_RCVBUFFORCE, &s32Buffer, sizeof(s32Buffer));
        setsockopt(m_objFd.Get(), SOL_SOCKET, SO_TIMESTAMPNS, &s32On, sizeof(s32On));
        setsockopt(m_objFd.Get(), SOL_SOCKET, SO_RCVTIMEO, &stLimit, sizeof(stLimit));
        if (bind(m_objFd.Get(), reinterpret_cast<const sockaddr *>(&stAddress),
                 sizeof(stAddress)) != 0) {
            Fail("the preview's port", strerror(errno));
        }
        m_objThread = std::thread([this] { Receive(); });
    }
    /* The delays, us. Everything that was sent and not lost has come. */
    std::vector<double> Finish()
    {
        m_bStop = true;
        m_objThread.join();
        return std::move(m_f64Delays);
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
            m_f64Delays.push_back(
                static_cast<double>(stArrived.tv_sec * kSecondNs + stArrived.tv_nsec - s64Sent) /
                1000);
        }
    }

    UniqueFd m_objFd;
    std::atomic<bool> m_bStop = false;
    std::vector<double> m_f64Delays;
    std::thread m_objThread;
};

/* Pictures without a key picture, of which nothing is ever left out. Returns how many packets. */
std::size_t SendStream(double i_f64MbitPerSecond, int i_s32Seconds)
{
    const UniqueFd objFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_in stTo = Loopback(12350);
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
                Fail("send", strerror(errno));
            }
        }
        s64Next += kSecondNs / kRate;
        const timespec stUntil = {s64Next / kSecondNs, s64Next % kSecondNs};
        clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &stUntil, nullptr);
    }
    return u64Sent;
}
} // namespace

int main()
{
    constexpr int kRounds = 6;
    constexpr int kSeconds = 4;
    const std::vector<std::string> strRelays[] = {
        {"mv3300-guard", "--no-restart", "--no-announce"},
        {"socat", "-u", "UDP4-RECV:12350,bind=127.0.0.1", "UDP4-SENDTO:127.0.0.1:12345"}};
    std::vector<double> f64P99s[2];
    std::vector<double> f64Cpu;
    std::vector<double> f64Mb;
    for (int i = 0; i < kRounds; i++) {
        const pid_t s32Relay = StartRelay(strRelays[i % 2]);
        CReceiver objReceiver;
        const double f64Before = CpuSeconds(s32Relay);
        SendStream(10, kSeconds);
        if (i % 2 == 0) {
            f64Cpu.push_back((CpuSeconds(s32Relay) - f64Before) * 100 / kSeconds);
            f64Mb.push_back(PssMb(s32Relay));
        }
        f64P99s[i % 2].push_back(Quantile(objReceiver.Finish(), 0.99));
        End(s32Relay, SIGTERM);
    }
    const pid_t s32Guard = StartRelay(strRelays[0]);
    CReceiver objReceiver;
    const std::size_t u64Sent = SendStream(40, kSeconds);
    const std::size_t u64Came = objReceiver.Finish().size();
    End(s32Guard, SIGTERM);

    Compare("guard: delay of the relay, p99", "socat", 1.2, f64P99s[0], f64P99s[1]);
    Report("guard: CPU at 10 Mbit/s, %", "", 1, Quantile(f64Cpu, 1));
    Report("guard: memory, MB", "", 6, Quantile(f64Mb, 1));
    Report("guard: packets lost at 40 Mbit/s", "", 0, static_cast<double>(u64Sent - u64Came));
    return 0;
}
