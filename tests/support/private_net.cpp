#include "tests/support/private_net.h"

#include <cerrno>
#include <cstring>

#include <net/if.h>
#include <net/route.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "framework/types.h"

namespace
{
void SetAddr(struct sockaddr *o_pAddr, UInt32 i_u32Addr)
{
    struct sockaddr_in stAddr = {};
    stAddr.sin_family = AF_INET;
    stAddr.sin_addr.s_addr = htonl(i_u32Addr);
    memcpy(o_pAddr, &stAddr, sizeof(stAddr));
}

bool BringUp(int i_s32Socket)
{
    char szLoopback[] = "lo";
    struct ifreq stRequest = {};
    strcpy(stRequest.ifr_name, szLoopback);
    if (ioctl(i_s32Socket, SIOCGIFFLAGS, &stRequest) != 0) {
        return false;
    }
    stRequest.ifr_flags |= IFF_UP | IFF_MULTICAST;
    if (ioctl(i_s32Socket, SIOCSIFFLAGS, &stRequest) != 0) {
        return false;
    }
    struct rtentry stRoute = {};
    SetAddr(&stRoute.rt_dst, 0xE0000000);
    SetAddr(&stRoute.rt_genmask, 0xF0000000);
    stRoute.rt_flags = RTF_UP;
    stRoute.rt_dev = szLoopback;
    return ioctl(i_s32Socket, SIOCADDRT, &stRoute) == 0;
}
} // namespace

std::string EnterPrivateNetwork()
{
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
        return std::string("no private network namespace: ") + strerror(errno);
    }
    int s32Socket = socket(AF_INET, SOCK_DGRAM, 0);
    std::string strReason;
    if (!BringUp(s32Socket)) {
        strReason = std::string("no loopback in the private network: ") + strerror(errno);
    }
    close(s32Socket);
    return strReason;
}
