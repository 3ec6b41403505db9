#include "tests/support/private_net.h"

#include <cerrno>
#include <cstring>

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

std::string EnterPrivateNetwork()
{
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
        return std::string("no private network namespace: ") + strerror(errno);
    }
    int s32Socket = socket(AF_INET, SOCK_DGRAM, 0);
    struct ifreq stRequest = {};
    strcpy(stRequest.ifr_name, "lo");
    int s32Err = ioctl(s32Socket, SIOCGIFFLAGS, &stRequest);
    stRequest.ifr_flags |= IFF_UP | IFF_MULTICAST;
    if (s32Err == 0) {
        s32Err = ioctl(s32Socket, SIOCSIFFLAGS, &stRequest);
    }
    std::string strReason =
        s32Err == 0 ? "" : std::string("no loopback in the private network: ") + strerror(errno);
    close(s32Socket);
    return strReason;
}
