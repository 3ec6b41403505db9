/*
 * Counts the RTP packets of a stream and the gaps in their sequence numbers (RFC 3550).
 *
 * A new synchronisation source is a new session, as after a restart of the sender's pipeline: its
 * first number is no gap. A number behind the newest is late (or a copy) and fills the gap that it
 * was counted in. Used by one thread.
 */
#pragma once

#include <cstddef>

#include "framework/types.h"

struct RTP_COUNTS_S {
    UInt64 u64Packets = 0;
    UInt64 u64Bytes = 0; /* of the RTP packets, their headers included */
    UInt64 u64Lost = 0;
    UInt64 u64Late = 0;
    UInt64 u64Sessions = 0;
    UInt64 u64Malformed = 0; /* not RTP version 2, or cut; not among the packets */
};

class CRtpCounter
{
public:
    void Add(const UInt8 *i_pData, size_t i_u64Size);
    const RTP_COUNTS_S &Counts() const { return m_stCounts; }

private:
    RTP_COUNTS_S m_stCounts;
    UInt32 m_u32Source = 0;
    UInt16 m_u16Newest = 0;
};
