/*
 * Netlink sockets.
 */
#include "guard/announce.h"

#include <cerrno>

#include <linux/netlink.h>
#include <sys/socket.h>

namespace
{
constexpr UInt32 kKernelGroup = 1; /* udev's own messages go to another */
constexpr int kReceiveBuffer = 262144;
constexpr int kMostDatagrams = 256;
} // namespace

UniqueFd OpenUevents()
{
    UniqueFd objFd(
        socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT));
    sockaddr_nl stAddress = {};
    stAddress.nl_family = AF_NETLINK;
    stAddress.nl_groups = kKernelGroup;
    if (!objFd ||
        bind(objFd.Get(), reinterpret_cast<sockaddr *>(&stAddress), sizeof(stAddress)) != 0) {
        return UniqueFd();
    }
    (void)setsockopt(objFd.Get(), SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof(kReceiveBuffer));
    return objFd;
}

std::optional<TIMING_S> NextTiming(int i_s32Fd)
{
    char szDatagram[8192];
    for (int i = 0; i < kMostDatagrams; i++) {
        sockaddr_nl stFrom = {};
        socklen_t u32Size = sizeof(stFrom);
        const ssize_t s64Length = recvfrom(i_s32Fd, szDatagram, sizeof(szDatagram), MSG_DONTWAIT,
                                           reinterpret_cast<sockaddr *>(&stFrom), &u32Size);
        if (s64Length < 0) {
            if (errno == ENOBUFS || errno == EINTR) {
                continue; /* some were lost: what is left is still worth reading */
            }
            return std::nullopt;
        }
        if ((stFrom.nl_groups & kKernelGroup) == 0) {
            continue;
        }
        const std::optional<TIMING_S> stTiming =
            TimingOfUevent({szDatagram, static_cast<std::size_t>(s64Length)});
        if (stTiming) {
            return stTiming;
        }
    }
    return std::nullopt; /* the socket is still readable: the rest comes with the next call */
}

int TellDaemon(SInt32 i_s32Pid, const TIMING_S &i_stTiming)
{
    const UniqueFd objFd(
        socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT));
    if (!objFd) {
        return errno;
    }
    sockaddr_nl stTo = {};
    stTo.nl_family = AF_NETLINK;
    stTo.nl_pid = static_cast<UInt32>(i_s32Pid);
    const std::string strDatagram = UeventOfTiming(i_stTiming);
    return sendto(objFd.Get(), strDatagram.data(), strDatagram.size(), 0,
                  reinterpret_cast<sockaddr *>(&stTo), sizeof(stTo)) < 0
               ? errno
               : 0;
}
