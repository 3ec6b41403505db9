/*
 * Utilities that the daemon uses: the addresses of its interface.
 */
#include "common/box/utils.h"

#include <cstdio>
#include <cstring>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "common/bus/log.h"
#include "framework/unique_fd.h"

namespace
{
constexpr char kNoAddress[IP_TEXT_SIZE] = "0.0.0.0";
} // namespace

void IpToText(const struct sockaddr *i_pAddr, char *o_pOut)
{
    struct sockaddr_in stAddr;
    memcpy(&stAddr, i_pAddr, sizeof(stAddr));
    inet_ntop(AF_INET, &stAddr.sin_addr, o_pOut, IP_TEXT_SIZE);
}

UInt32 TextToIp(const char *i_pText)
{
    struct in_addr stAddr = {};
    inet_pton(AF_INET, i_pText, &stAddr);
    return ntohl(stAddr.s_addr);
}

bool QueryInterface(int i_s32Fd, unsigned long i_u64Request, const char *i_pIfName,
                    struct ifreq *o_pRequest)
{
    std::size_t u64NameLen = strlen(i_pIfName);
    if (u64NameLen >= sizeof(o_pRequest->ifr_name)) {
        return false;
    }
    *o_pRequest = {};
    memcpy(o_pRequest->ifr_name, i_pIfName, u64NameLen);
    return ioctl(i_s32Fd, i_u64Request, o_pRequest) == 0;
}

Bool GetLocalIPStr(const char *i_pIfName, char *o_pOut)
{
    memcpy(o_pOut, kNoAddress, IP_TEXT_SIZE);
    struct ifaddrs *pList = nullptr;
    if (getifaddrs(&pList) != 0) {
        perror("getifaddrs");
        return false;
    }
    /* Kept: the name is a prefix, so that eth0 finds its alias eth0:1 too; some boxes have their
     * address there. */
    std::size_t u64NameLen = strlen(i_pIfName);
    for (const struct ifaddrs *pEntry = pList; pEntry != nullptr; pEntry = pEntry->ifa_next) {
        if (pEntry->ifa_addr != nullptr && pEntry->ifa_addr->sa_family == AF_INET &&
            strncmp(pEntry->ifa_name, i_pIfName, u64NameLen) == 0) {
            IpToText(pEntry->ifa_addr, o_pOut);
            break;
        }
    }
    freeifaddrs(pList);
    return true;
}

Bool GetLocalIP(const char *i_pIfName, UInt32 *o_pIp)
{
    char szIp[IP_TEXT_SIZE];
    Bool bListed = GetLocalIPStr(i_pIfName, szIp);
    *o_pIp = TextToIp(szIp);
    return bListed;
}

UInt32 GetLocalIP(const char *i_pIfName)
{
    UInt32 u32Ip = 0;
    GetLocalIP(i_pIfName, &u32Ip);
    return u32Ip;
}

SInt32 getMac(UInt8 *o_pMac, const char *i_pIfName)
{
    if (o_pMac == nullptr || i_pIfName == nullptr) {
        return -1;
    }
    const UniqueFd objSocket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!objSocket) {
        LOG_ERROR("getMac socket ");
        return -1;
    }
    struct ifreq stRequest;
    if (!QueryInterface(objSocket.Get(), SIOCGIFHWADDR, i_pIfName, &stRequest)) {
        LOG_ERROR("getMac ioctl error");
        return -1;
    }
    memcpy(o_pMac, stRequest.ifr_hwaddr.sa_data, 6);
    return 0;
}

std::string OwnGroup(UInt8 i_u8Byte3, UInt8 i_u8Byte4, UInt8 i_u8Byte5)
{
    char szIp[64];
    snprintf(szIp, sizeof(szIp), "234.%d.%d.%d", 24 + (i_u8Byte3 & 7), i_u8Byte4, i_u8Byte5);
    return szIp;
}

SInt32 get_multicast_ip(std::string &o_strIp, const std::string &i_strIfName)
{
    UInt8 u8Mac[6];
    if (getMac(u8Mac, i_strIfName.c_str()) != 0) {
        LOG_ERROR("get_multicast_ip error");
        return -1;
    }
    o_strIp += OwnGroup(u8Mac[3], u8Mac[4], u8Mac[5]);
    return 0;
}
