#include "sim/uevent/send.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include <linux/netlink.h>
#include <sys/socket.h>

#include "framework/types.h"
#include "framework/unique_fd.h"

namespace
{
constexpr UInt16 kUeventMessage = 16;
} // namespace

int SendToKernel(const std::string &i_strPayload)
{
    const UniqueFd objFd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT));
    if (!objFd) {
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
    if (send(objFd.Get(), objMessage.data(), stHeader.nlmsg_len, 0) < 0 ||
        recv(objFd.Get(), &stAnswer, sizeof(stAnswer), 0) < 0) {
        return errno;
    }
    return -stAnswer.stVerdict.error;
}
