#include "sim/uevent/send.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include "framework/types.h"

namespace
{
constexpr UInt16 kUeventMessage = 16;
} // namespace

int SendToKernel(const std::string &i_strPayload)
{
    const int s32Fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    if (s32Fd < 0) {
        return errno;
    }
    std::vector<char> objMessage(NLMSG_SPACE(i_strPayload.size()), 0);
    nlmsghdr stHeader = {};
    stHeader.nlmsg_len = static_cast<UInt32>(NLMSG_LENGTH(i_strPayload.size()));
    stHeader.nlmsg_type = kUeventMessage;
    stHeader.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    memcpy(objMessage.data(), &stHeader, sizeof(stHeader));
    memcpy(objMessage.data() + NLMSG_HDRLEN, i_strPayload.data(), i_strPayload.size());

    struct {
        nlmsghdr stHeader;
        nlmsgerr stVerdict;
        char szRest[4096];
    } stAnswer = {};
    int s32Error = 0;
    if (send(s32Fd, objMessage.data(), stHeader.nlmsg_len, 0) < 0 ||
        recv(s32Fd, &stAnswer, sizeof(stAnswer), 0) < 0) {
        s32Error = errno;
    } else {
        s32Error = -stAnswer.stVerdict.error;
    }
    close(s32Fd);
    return s32Error;
}
