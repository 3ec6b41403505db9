/*
 * IGMP version 2 membership reports (RFC 2236) sent by hand through a raw socket, so that switches
 * forward a group to this host without the kernel being a member.
 *
 * Opening needs the privilege for raw sockets (CAP_NET_RAW, raw(7)); without it, or with an address
 * that is no group, the object stays closed and sends nothing. Used by one thread at a time.
 */
#pragma once

#include <cstddef>

#include "framework/types.h"
#include "framework/unique_fd.h"

class CIGMP
{
public:
    CIGMP();

    /* Prepares the report of i_group from the address i_local, both in host byte order. Closes what
     * was open. */
    void Open(UInt32 i_local, UInt32 i_group);
    /* Sends the report once, the same datagram every time. */
    void MemberShip();
    void Close();

    /* Internet checksum (RFC 1071) in memory order; up to 128 KiB of data at any alignment. */
    static UInt16 CheckSum(const void *i_pData, std::size_t i_u64Len);
    /* Writes the 28 bytes of a report, IP header included, to o_pPacket. Addresses and
     * identification in host byte order. */
    static void BuildReport(UInt32 i_local, UInt32 i_group, UInt16 i_u16ID, UInt8 *o_pPacket);

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */

    /* The same of dotted texts. */
    void Open(const char *i_local, const char *i_group);

private:
    UniqueFd fd;
    UInt8 packet[64];
};
