#include "tests/support/loopback.h"

#include <stdexcept>

#include <poll.h>
#include <sys/socket.h>

sockaddr_in Loopback(UInt16 i_u16Port)
{
    sockaddr_in stAddress = {};
    stAddress.sin_family = AF_INET;
    stAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    stAddress.sin_port = htons(i_u16Port);
    return stAddress;
}

UniqueFd BindLoopback(UInt16 i_u16Port, UInt16 *o_pPort)
{
    UniqueFd objFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in stAddress = Loopback(i_u16Port);
    socklen_t u32Size = sizeof(stAddress);
    auto *pAddress = reinterpret_cast<sockaddr *>(&stAddress);
    if (bind(objFd.Get(), pAddress, u32Size) != 0 ||
        getsockname(objFd.Get(), pAddress, &u32Size) != 0) {
        throw std::runtime_error("no loopback port");
    }
    if (o_pPort != nullptr) {
        *o_pPort = ntohs(stAddress.sin_port);
    }
    return objFd;
}

void SendLoopback(int i_s32Fd, UInt16 i_u16Port, const std::string &i_strBytes)
{
    const sockaddr_in stAddress = Loopback(i_u16Port);
    sendto(i_s32Fd, i_strBytes.data(), i_strBytes.size(), 0,
           reinterpret_cast<const sockaddr *>(&stAddress), sizeof(stAddress));
}

std::string ReceiveLoopback(int i_s32Fd, int i_s32LimitMs)
{
    char szBytes[8192];
    pollfd stPoll = {i_s32Fd, POLLIN, 0};
    if (poll(&stPoll, 1, i_s32LimitMs) != 1) {
        return "none";
    }
    const ssize_t s64Length = recv(i_s32Fd, szBytes, sizeof(szBytes), 0);
    return s64Length < 0 ? "none" : std::string(szBytes, static_cast<std::size_t>(s64Length));
}
