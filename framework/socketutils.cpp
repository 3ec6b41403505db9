/*
 * Table of the host's IPv4 addresses, and address conversions.
 */
#include "framework/socketutils.h"

#include <cstring>
#include <utility>

#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>
#include <sys/ioctl.h>

#include "framework/assertion.h"
#include "framework/mutex.h"
#include "framework/unique_fd.h"

UInt32 CSocketUtils::s_u32NumIPAddrs = 0;
CSocketUtils::CIPAddrInfo *CSocketUtils::s_pIPAddrInfoArray = nullptr;
CMutex &CSocketUtils::s_objMutex = *new CMutex;

namespace
{
std::unique_ptr<char[]> CopyText(const char *i_pText)
{
    std::size_t u64Size = strlen(i_pText) + 1;
    std::unique_ptr<char[]> pCopy(new char[u64Size]);
    memcpy(pCopy.get(), i_pText, u64Size);
    return pCopy;
}

/* Asks the system for its interface records. Returns how many bytes of them it gave; -1 if it
 * refused. */
int ReadInterfaceRecords(char *o_pBuffer, int i_s32Size)
{
    const UniqueFd objSocket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!objSocket) {
        return -1;
    }
    struct ifconf stConf = {};
    stConf.ifc_len = i_s32Size;
    stConf.ifc_buf = o_pBuffer;
    return ioctl(objSocket.Get(), SIOCGIFCONF, &stConf) < 0 ? -1 : stConf.ifc_len;
}

/* Calls i_objUse with the address of each whole record that holds an IPv4 address. */
template <typename Use> void WalkRecords(const char *i_pRecords, int i_s32Len, Use i_objUse)
{
    struct ifreq stRecord;
    for (std::size_t i = 0; i + sizeof(stRecord) <= static_cast<std::size_t>(i_s32Len);
         i += sizeof(stRecord)) {
        memcpy(&stRecord, i_pRecords + i, sizeof(stRecord));
        if (AF_INET == stRecord.ifr_addr.sa_family) {
            struct sockaddr_in stAddr;
            memcpy(&stAddr, &stRecord.ifr_addr, sizeof(stAddr));
            i_objUse(stAddr.sin_addr);
        }
    }
}
} // namespace

void CSocketUtils::FillRecord(CIPAddrInfo *o_pInfo, struct in_addr i_stAddr, bool i_bLookupNames)
{
    o_pInfo->u32IPAddr = ntohl(i_stAddr.s_addr);
    o_pInfo->pAddrText = CopyText(inet_ntoa(i_stAddr));
    o_pInfo->objIPAddrStr = CPLString(o_pInfo->pAddrText.get());

    const char *pName = o_pInfo->pAddrText.get();
    if (i_bLookupNames) {
        const struct hostent *pHost = gethostbyaddr(&i_stAddr, sizeof(i_stAddr), AF_INET);
        if (pHost != nullptr) {
            pName = pHost->h_name;
        }
    }
    o_pInfo->pNameText = CopyText(pName);
    o_pInfo->objDNSNameStr = CPLString(o_pInfo->pNameText.get());
}

void CSocketUtils::Initialize(bool i_bLookupNames)
{
    if (s_pIPAddrInfoArray != nullptr) {
        return;
    }
    alignas(struct ifreq) char szRecords[kMaxAddrBufferSize];
    int s32Len = ReadInterfaceRecords(szRecords, sizeof(szRecords));
    if (s32Len < 0) {
        return;
    }

    WalkRecords(szRecords, s32Len, [](struct in_addr) { s_u32NumIPAddrs++; });
    s_pIPAddrInfoArray = new CIPAddrInfo[s_u32NumIPAddrs]();
    UInt32 u32CurrentIndex = 0;
    WalkRecords(szRecords, s32Len, [&](struct in_addr i_stAddr) {
        FillRecord(&s_pIPAddrInfoArray[u32CurrentIndex], i_stAddr, i_bLookupNames);
        u32CurrentIndex++;
    });
    assert(u32CurrentIndex == s_u32NumIPAddrs);

    /* Loopback is never the primary address of a host that has another. */
    if (s_u32NumIPAddrs >= 2 && s_pIPAddrInfoArray[0].objIPAddrStr.Equal("127.0.0.1")) {
        std::swap(s_pIPAddrInfoArray[0], s_pIPAddrInfoArray[1]);
    }
}

UInt32 CSocketUtils::GetIPAddr(UInt32 i_u32AddrIndex)
{
    assert(s_pIPAddrInfoArray != NULL);
    assert(i_u32AddrIndex < s_u32NumIPAddrs);
    return s_pIPAddrInfoArray[i_u32AddrIndex].u32IPAddr;
}

CPLString *CSocketUtils::GetIPAddrStr(UInt32 i_u32AddrIndex)
{
    assert(s_pIPAddrInfoArray != NULL);
    assert(i_u32AddrIndex < s_u32NumIPAddrs);
    return &s_pIPAddrInfoArray[i_u32AddrIndex].objIPAddrStr;
}

CPLString *CSocketUtils::GetDNSNameStr(UInt32 i_u32DNSIndex)
{
    assert(s_pIPAddrInfoArray != NULL);
    assert(i_u32DNSIndex < s_u32NumIPAddrs);
    return &s_pIPAddrInfoArray[i_u32DNSIndex].objDNSNameStr;
}

Bool CSocketUtils::IsLocalIPAddr(UInt32 i_u32Addr)
{
    for (UInt32 i = 0; i < s_u32NumIPAddrs; i++) {
        if (s_pIPAddrInfoArray[i].u32IPAddr == i_u32Addr) {
            return true;
        }
    }
    return false;
}

void CSocketUtils::ConvertAddrToString(const struct in_addr &i_stAddr, CPLString *o_pString)
{
    CMutexLocker objLocker(&s_objMutex);
    const char *pText = inet_ntoa(i_stAddr);
    std::size_t u64Len = strlen(pText);
    memcpy(o_pString->m_pPtr, pText, u64Len + 1);
    o_pString->m_u32Len = static_cast<UInt32>(u64Len);
}

Bool CSocketUtils::IsMulticastIPAddr(UInt32 i_u32Addr)
{
    return (i_u32Addr >> 28) == 0xE;
}

UInt32 CSocketUtils::ConvertStringToAddr(const char *i_pAddrStr)
{
    return nullptr == i_pAddrStr ? 0 : ntohl(inet_addr(i_pAddrStr));
}
