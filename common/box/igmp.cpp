/*
 * Membership reports: the datagram's layout and the raw socket that carries it.
 */
#include "common/box/igmp.h"

#include <cstdlib>
#include <cstring>

#include <netinet/in.h>
#include <sys/socket.h>

#include "framework/socketutils.h"

namespace
{
/* The whole datagram; multi-byte fields in network order unless said otherwise. */
struct IGMP_PACKET_S {
    UInt8 u8VersionAndLen; /* version 4, header of 5 words */
    UInt8 u8Tos;
    UInt16 u16TotalLen; /* in the machine's order: the kernel rewrites it on a raw send */
    UInt16 u16ID;
    UInt16 u16Fragment;
    UInt8 u8Ttl; /* 1: reports stay on the link */
    UInt8 u8Protocol;
    UInt16 u16HeaderCheckSum; /* of the first 20 bytes */
    UInt32 u32Source;
    UInt32 u32Destination;
    UInt8 u8Type;
    UInt8 u8MaxResponseTime;
    UInt16 u16CheckSum; /* of the last 8 bytes */
    UInt32 u32Group;
};
static_assert(sizeof(IGMP_PACKET_S) == 28);
static_assert(offsetof(IGMP_PACKET_S, u32Source) == 12);
static_assert(offsetof(IGMP_PACKET_S, u8Type) == 20);

constexpr std::size_t kIPHeaderLen = offsetof(IGMP_PACKET_S, u8Type);
constexpr UInt8 kMembershipReportV2 = 0x16;
constexpr int kRawProtocol = 255;
constexpr int kHeaderIncludedLevel = 2;
constexpr int kHeaderIncludedOption = 3;
} // namespace

CIGMP::CIGMP() : packet{} {}

void CIGMP::Open(const char *i_local, const char *i_group)
{
    Open(CSocketUtils::ConvertStringToAddr(i_local), CSocketUtils::ConvertStringToAddr(i_group));
}

void CIGMP::Open(UInt32 i_local, UInt32 i_group)
{
    Close();
    if (!CSocketUtils::IsMulticastIPAddr(i_group)) {
        return;
    }
    fd.Reset(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, kRawProtocol));
    /* Kept: the level is not that of the IP options, so the request does nothing; protocol 255
     * implies the header anyway (raw(7)). */
    int s32On = 1;
    (void)setsockopt(fd.Get(), kHeaderIncludedLevel, kHeaderIncludedOption, &s32On, sizeof(s32On));
    memset(packet, 0, sizeof(packet));
    BuildReport(i_local, i_group, static_cast<UInt16>(random()), packet);
}

void CIGMP::BuildReport(UInt32 i_local, UInt32 i_group, UInt16 i_u16ID, UInt8 *o_pPacket)
{
    IGMP_PACKET_S stPacket = {};
    stPacket.u8VersionAndLen = 0x45;
    stPacket.u16TotalLen = sizeof(stPacket);
    stPacket.u16ID = htons(i_u16ID);
    stPacket.u8Ttl = 1;
    stPacket.u8Protocol = IPPROTO_IGMP;
    stPacket.u32Source = htonl(i_local);
    stPacket.u32Destination = htonl(i_group);
    stPacket.u8Type = kMembershipReportV2;
    stPacket.u32Group = htonl(i_group);
    const UInt8 *pIGMP = reinterpret_cast<const UInt8 *>(&stPacket) + kIPHeaderLen;
    stPacket.u16CheckSum = CheckSum(pIGMP, sizeof(stPacket) - kIPHeaderLen);
    stPacket.u16HeaderCheckSum = CheckSum(&stPacket, kIPHeaderLen);
    memcpy(o_pPacket, &stPacket, sizeof(stPacket));
}

void CIGMP::MemberShip()
{
    if (!fd) {
        return;
    }
    IGMP_PACKET_S stPacket;
    memcpy(&stPacket, packet, sizeof(stPacket));
    struct sockaddr_in stDestination = {};
    stDestination.sin_family = AF_INET;
    stDestination.sin_addr.s_addr = stPacket.u32Destination;
    (void)sendto(fd.Get(), packet, stPacket.u16TotalLen, 0,
                 reinterpret_cast<struct sockaddr *>(&stDestination), sizeof(stDestination));
}

void CIGMP::Close()
{
    fd.Reset();
}

UInt16 CIGMP::CheckSum(const void *i_pData, std::size_t i_u64Len)
{
    const UInt8 *pData = static_cast<const UInt8 *>(i_pData);
    UInt32 u32Sum = 0;
    UInt16 u16Word = 0;
    for (; i_u64Len >= sizeof(u16Word); i_u64Len -= sizeof(u16Word)) {
        memcpy(&u16Word, pData, sizeof(u16Word));
        u32Sum += u16Word;
        pData += sizeof(u16Word);
    }
    if (i_u64Len > 0) {
        u16Word = 0;
        memcpy(&u16Word, pData, 1);
        u32Sum += u16Word;
    }
    u32Sum = (u32Sum >> 16) + (u32Sum & 0xFFFF);
    u32Sum += u32Sum >> 16;
    return static_cast<UInt16>(~u32Sum);
}
