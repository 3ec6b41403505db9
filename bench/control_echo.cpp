/*
 * The control channel's reference: a UDP echo program of the same shape, and nothing more.
 *
 * A thread waits in select(2) for the socket and a pipe; a worker takes the datagrams, writes the
 * daemon's log lines with log4cpp to the same kind of file, and sends each datagram back from a
 * fresh socket to the reply port. Usage: control_echo PORT LOG_CONFIGURATION
 */
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <log4cpp/PropertyConfigurator.hh>

#include "common/bus/log.h"
#include "framework/types.h"

namespace
{
constexpr UInt16 kReplyPort = 8365;

std::mutex g_objMutex;
std::condition_variable g_objCond;
bool g_bReadable = false;
bool g_bArmed = true;
int g_s32Socket = -1;
int g_s32Pipe[2];

sockaddr_in Loopback(UInt16 i_u16Port)
{
    sockaddr_in stAddress = {};
    stAddress.sin_family = AF_INET;
    stAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    stAddress.sin_port = htons(i_u16Port);
    return stAddress;
}

void Reply(const char *i_pBytes, std::size_t i_u64Length)
{
    const int s32Fd = socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in stAddress = Loopback(kReplyPort);
    sendto(s32Fd, i_pBytes, i_u64Length, 0, reinterpret_cast<const sockaddr *>(&stAddress),
           sizeof(stAddress));
    close(s32Fd);
}

/* Takes what waits; false when nothing did. */
bool TakeDatagram()
{
    char szReceived[4097] = {};
    sockaddr_in stFrom = {};
    socklen_t u32Size = sizeof(stFrom);
    const ssize_t s64Length =
        recvfrom(g_s32Socket, szReceived, 4096, 0, reinterpret_cast<sockaddr *>(&stFrom), &u32Size);
    if (s64Length < 0) {
        return false;
    }
    LOG_INFO("boxes parse success, %d bytes ", static_cast<int>(s64Length));
    LOG_DEBUG("get h264 enable:%d,gop:%d,mode:%d,bitrate:%d,  preview enable:%d, height:%d, "
              "refreshrate:%d",
              1, 1, 1, 1, 1, 1, 1);
    Reply(szReceived, static_cast<std::size_t>(s64Length));
    LOG_INFO("set h264 enable:%d, gop:%d, mode:%d, bitrate:%d,  preview enable:%d, height:%d, "
             "refreshrate:%d",
             -1, -1, -1, -1, -1, -1, -1);
    LOG_ERROR("cmd error");
    return true;
}

/* One datagram a turn, as the daemon's task takes them: whoever took one gives itself the next
 * turn, has the socket watched again, and yields. */
void Work()
{
    while (true) {
        {
            std::unique_lock objLock(g_objMutex);
            g_objCond.wait(objLock, [] { return g_bReadable; });
            g_bReadable = false;
        }
        const bool bTaken = TakeDatagram();
        {
            const std::lock_guard objLock(g_objMutex);
            g_bReadable = g_bReadable || bTaken;
            g_bArmed = true;
        }
        (void)!write(g_s32Pipe[1], "p", 1);
        sched_yield();
    }
}

void Watch()
{
    while (true) {
        fd_set stReadable;
        FD_ZERO(&stReadable);
        FD_SET(g_s32Pipe[0], &stReadable);
        {
            const std::lock_guard objLock(g_objMutex);
            if (g_bArmed) {
                FD_SET(g_s32Socket, &stReadable);
            }
        }
        if (select(std::max(g_s32Socket, g_s32Pipe[0]) + 1, &stReadable, nullptr, nullptr,
                   nullptr) < 0) {
            continue;
        }
        char szWakeUps[64];
        if (FD_ISSET(g_s32Pipe[0], &stReadable)) {
            (void)!read(g_s32Pipe[0], szWakeUps, sizeof(szWakeUps));
        }
        if (FD_ISSET(g_s32Socket, &stReadable)) {
            const std::lock_guard objLock(g_objMutex);
            g_bArmed = false;
            g_bReadable = true;
            g_objCond.notify_one();
        }
        sched_yield();
    }
}
} // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: control_echo PORT LOG_CONFIGURATION\n");
        return 2;
    }
    log4cpp::PropertyConfigurator::configure(argv[2]);
    g_s32Socket = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const sockaddr_in stAddress = Loopback(static_cast<UInt16>(std::atoi(argv[1])));
    if (pipe2(g_s32Pipe, O_NONBLOCK | O_CLOEXEC) != 0 ||
        bind(g_s32Socket, reinterpret_cast<const sockaddr *>(&stAddress), sizeof(stAddress)) != 0) {
        perror("control_echo");
        return 1;
    }
    LOG_INFO("echo is up");
    std::thread objWorker(Work);
    Watch();
}
