/*
 * IPv4 addresses: conversions between text and number, and a table of the host's own.
 *
 * Addresses are 32-bit numbers in host byte order unless a parameter's type says otherwise. The
 * table is built once, before other threads read it, and lives as long as the process.
 */
#pragma once

#include <memory>

#include <netinet/in.h>

#include "framework/plstring.h"
#include "framework/types.h"

class CMutex;

class CSocketUtils
{
public:
    /* True in 224.0.0.0/4 (RFC 5771). */
    static Bool IsMulticastIPAddr(UInt32 i_u32Addr);
    /* The address of a dotted text (inet_addr(3)); 0 for null, 0xFFFFFFFF for what is none. */
    static UInt32 ConvertStringToAddr(const char *i_pAddrStr);

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */
    /* Bytes of interface records asked of the system (SIOCGIFCONF, netdevice(7)); interfaces
     * beyond them are left out. */
    static constexpr UInt32 kMaxAddrBufferSize = 2048;

    /* Builds the table, a record for each IPv4 address of an interface that is up, loopback not
     * first if there is another. i_bLookupNames: also ask for host names, which may block on the
     * network. There is no table if the system refuses; with a table later calls do nothing. */
    static void Initialize(bool i_bLookupNames);

    static UInt32 GetNumIPAddrs() { return s_u32NumIPAddrs; }
    /* The address, its text, and its host name (its text where there is no name). Each asserts
     * that there is a table with such a record. The strings belong to the table. */
    static UInt32 GetIPAddr(UInt32 i_u32AddrIndex);
    static CPLString *GetIPAddrStr(UInt32 i_u32AddrIndex);
    static CPLString *GetDNSNameStr(UInt32 i_u32DNSIndex);

    /* True if the table has the address. */
    static Bool IsLocalIPAddr(UInt32 i_u32Addr);

    /* Writes the dotted text and a terminating zero into the string's buffer, which has room for
     * 16 characters, and sets its length. Any thread. */
    static void ConvertAddrToString(const struct in_addr &i_stAddr, CPLString *o_pString);

private:
    struct CIPAddrInfo {
        UInt32 u32IPAddr = 0;
        std::unique_ptr<char[]> pAddrText; /* what the strings view */
        std::unique_ptr<char[]> pNameText;
        CPLString objIPAddrStr;
        CPLString objDNSNameStr;
    };

    static void FillRecord(CIPAddrInfo *o_pInfo, struct in_addr i_stAddr, bool i_bLookupNames);

    static UInt32 s_u32NumIPAddrs;
    static CIPAddrInfo *s_pIPAddrInfoArray;
    static CMutex &s_objMutex;
};
