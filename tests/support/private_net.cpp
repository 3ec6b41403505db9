#include "tests/support/private_net.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <sched.h>
#include <unistd.h>

#include "tests/support/temp_dir.h"

std::string EnterPrivateNetwork()
{
    const std::string strUser = std::to_string(getuid());
    if (unshare(CLONE_NEWNET) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
            return std::string("no private network namespace: ") + strerror(errno);
        }
        WriteFile("/proc/self/uid_map", "0 " + strUser + " 1"); /* ip keeps the capabilities */
    }
    if (system("ip link set lo up multicast on && ip route add 224.0.0.0/4 dev lo") != 0) {
        return "no loopback in the private network";
    }
    return "";
}
