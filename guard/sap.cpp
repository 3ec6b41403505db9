/*
 * SDP, SAP and the socket.
 */
#include "guard/sap.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>

#include "guard/base64.h"

namespace
{
constexpr char kInterface[] = "eth0";
constexpr char kSapGroup[] = "224.2.127.254"; /* of sessions in the global scope */
constexpr UInt16 kSapPort = 9875;
constexpr int kSapTtl = 255;
constexpr SInt64 kEveryMs = 300000; /* RFC 2974, 3.1; give or take a third */
/* Whoever sends to the local copy's port changes the session at will: not faster than this. */
constexpr SInt64 kChangeMs = 5000;
constexpr SInt64 kGoneMs = 60000; /* a restart of the stream is no end of the session */
constexpr UInt8 kAnnounce = 0x20; /* version 1, IPv4, neither encrypted nor compressed */
constexpr UInt8 kDelete = 0x24;

std::string Dotted(const Ipv4 &i_u8Address)
{
    char szText[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, i_u8Address.data(), szText, sizeof(szText));
    return szText;
}

std::string OriginLine(const SESSION_S &i_stSession)
{
    return "o=- " + std::to_string(i_stSession.u64Id) + " " +
           std::to_string(i_stSession.u64Version) + " IN IP4 " + Dotted(i_stSession.u8Origin) +
           "\r\n";
}

/* The receivers tell announcements apart by it: not 0, and another one for another text. */
UInt16 Hash(const std::string &i_strText)
{
    UInt32 u32Hash = 2166136261U; /* FNV-1a */
    for (const char cByte : i_strText) {
        u32Hash = (u32Hash ^ static_cast<UInt8>(cByte)) * 16777619U;
    }
    const auto u16Hash = static_cast<UInt16>(u32Hash ^ u32Hash >> 16);
    return u16Hash == 0 ? 1 : u16Hash;
}
} // namespace

Ipv4 GroupOf(const Mac &i_u8Mac)
{
    return {234, static_cast<UInt8>(24 + (i_u8Mac[3] & 7)), i_u8Mac[4], i_u8Mac[5]};
}

std::string SdpText(const SESSION_S &i_stSession)
{
    std::string strName = i_stSession.strName;
    std::erase_if(strName, [](char i_cByte) { return static_cast<UInt8>(i_cByte) < ' '; });
    std::string strSets;
    if (i_stSession.objSps.size() >= 4 && !i_stSession.objPps.empty()) {
        char szProfile[8];
        snprintf(szProfile, sizeof(szProfile), "%02x%02x%02x", i_stSession.objSps[1],
                 i_stSession.objSps[2], i_stSession.objSps[3]);
        strSets = std::string(";profile-level-id=") + szProfile +
                  ";sprop-parameter-sets=" + Base64(i_stSession.objSps) + "," +
                  Base64(i_stSession.objPps);
    }
    const bool bGroup = (i_stSession.u8Group[0] & 0xF0) == 0xE0;
    const std::string strType = std::to_string(i_stSession.u8PayloadType);
    return "v=0\r\n" + OriginLine(i_stSession) + "s=" + (strName.empty() ? "-" : strName) +
           "\r\nc=IN IP4 " + Dotted(i_stSession.u8Group) + (bGroup ? "/1" : "") +
           "\r\nt=0 0\r\na=type:broadcast\r\nm=video " + std::to_string(i_stSession.u16Port) +
           " RTP/AVP " + strType + "\r\na=rtpmap:" + strType + " H264/90000\r\na=fmtp:" + strType +
           " packetization-mode=1" + strSets + "\r\n";
}

std::string SapDatagram(const SESSION_S &i_stSession, Bool i_bDelete)
{
    const std::string strSdp = SdpText(i_stSession);
    const UInt16 u16Hash = Hash(strSdp);
    std::string strDatagram = {static_cast<char>(i_bDelete ? kDelete : kAnnounce), 0,
                               static_cast<char>(u16Hash >> 8), static_cast<char>(u16Hash)};
    strDatagram.append(i_stSession.u8Origin.begin(), i_stSession.u8Origin.end());
    strDatagram += "application/sdp";
    strDatagram += '\0';
    return strDatagram + (i_bDelete ? OriginLine(i_stSession) : strSdp);
}

Bool CSap::LookAtInterface(SESSION_S *io_pSession)
{
    if (!m_objFd) {
        m_objFd.Reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        (void)setsockopt(m_objFd.Get(), IPPROTO_IP, IP_MULTICAST_TTL, &kSapTtl, sizeof(kSapTtl));
    }
    ifreq stAddress = {};
    ifreq stMac = {};
    memcpy(stAddress.ifr_name, kInterface, sizeof(kInterface));
    memcpy(stMac.ifr_name, kInterface, sizeof(kInterface));
    if (ioctl(m_objFd.Get(), SIOCGIFADDR, &stAddress) != 0 ||
        ioctl(m_objFd.Get(), SIOCGIFHWADDR, &stMac) != 0) {
        return false;
    }
    sockaddr_in stIn;
    memcpy(&stIn, &stAddress.ifr_addr, sizeof(stIn));
    memcpy(io_pSession->u8Origin.data(), &stIn.sin_addr, io_pSession->u8Origin.size());
    Mac u8Mac;
    memcpy(u8Mac.data(), stMac.ifr_hwaddr.sa_data, u8Mac.size());
    io_pSession->u8Group = GroupOf(u8Mac);
    return setsockopt(m_objFd.Get(), IPPROTO_IP, IP_MULTICAST_IF, &stIn.sin_addr,
                      sizeof(stIn.sin_addr)) == 0;
}

Bool CSap::Send(const SESSION_S &i_stSession, Bool i_bDelete)
{
    sockaddr_in stTo = {};
    stTo.sin_family = AF_INET;
    stTo.sin_port = htons(kSapPort);
    inet_pton(AF_INET, kSapGroup, &stTo.sin_addr);
    const std::string strDatagram = SapDatagram(i_stSession, i_bDelete);
    return sendto(m_objFd.Get(), strDatagram.data(), strDatagram.size(), 0,
                  reinterpret_cast<const sockaddr *>(&stTo), sizeof(stTo)) >= 0;
}

void CSap::Withdraw()
{
    if (m_stAnnounced) {
        (void)Send(*m_stAnnounced, true);
        m_stAnnounced.reset();
    }
}

std::string CSap::Tick(SInt64 i_s64NowMs, const STREAM_FIGURES_S &i_stStream, Bool i_bFlowing)
{
    if (!i_bFlowing) {
        if (m_stAnnounced && i_s64NowMs - m_s64FlowedMs >= kGoneMs) {
            Withdraw();
            return "the session is deleted: the stream has ended";
        }
        return "";
    }
    m_s64FlowedMs = i_s64NowMs;
    SESSION_S stSession;
    if (i_stStream.objSps.size() < 4 || i_stStream.objPps.empty() || !LookAtInterface(&stSession)) {
        return "";
    }
    char szName[256] = "";
    (void)gethostname(szName, sizeof(szName) - 1);
    stSession.strName = szName;
    stSession.u8PayloadType = i_stStream.u8PayloadType.value_or(96);
    stSession.objSps = i_stStream.objSps;
    stSession.objPps = i_stStream.objPps;
    std::string strWhat;
    if (m_stAnnounced) {
        stSession.u64Id = m_stAnnounced->u64Id;
        stSession.u64Version = m_stAnnounced->u64Version;
        if (SdpText(stSession) == SdpText(*m_stAnnounced)) {
            if (i_s64NowMs < m_s64NextMs) {
                return "";
            }
        } else if (i_s64NowMs - m_s64SentMs < kChangeMs) {
            return "";
        } else {
            Withdraw();
        }
    }
    if (!m_stAnnounced) {
        stSession.u64Id = stSession.u64Version = static_cast<UInt64>(time(nullptr));
        strWhat = "the session is announced as " + stSession.strName;
    }
    if (!Send(stSession, false)) {
        m_stAnnounced.reset();
        return "";
    }
    m_stAnnounced = stSession;
    m_s64SentMs = i_s64NowMs;
    /* Boxes that were switched on together drift apart. */
    m_s64NextMs = i_s64NowMs + kEveryMs - kEveryMs / 3 + random() % (2 * kEveryMs / 3);
    return strWhat;
}
