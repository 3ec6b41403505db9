/*
 * A group's key picture and the one behind it, kept so that they can be passed on once more while
 * the rest of the group is left out.
 *
 * Both, for two key pictures that follow each other directly must not be of the same idr_pic_id
 * (ITU-T H.264, 7.4.3). At most four megabytes are kept. No clock, no socket. One thread.
 */
#pragma once

#include <vector>

#include "guard/rtp.h"

class CKeyRepeat
{
public:
    /* A new group begins: nothing is kept or under way. */
    void Clear();
    /* A packet of the key picture (i_bSecond: of the one behind it), in the stream's order. */
    void Keep(const RTP_PACKET_S &i_stPacket, Bool i_bSecond);
    /* Both pictures are here, each packet of them. */
    Bool Whole() const { return m_bWhole; }

    /* Both are to go out with this timestamp, the second one a tick later. */
    void Begin(UInt32 i_u32Timestamp);
    /* There is a packet left to go out. */
    Bool UnderWay() const { return m_u64Next < m_objKept.size(); }
    /* The next one of them, with that sequence number; valid until the next call. */
    Bytes Next(UInt16 i_u16Sequence);

private:
    struct KEPT_S {
        std::size_t u64End; /* of its payload; it begins where the one before ends */
        Bool bMarker;
        Bool bSecond;
        UInt8 u8PayloadType;
        UInt32 u32Source;
    };

    std::vector<KEPT_S> m_objKept;
    std::vector<UInt8> m_objPayloads;
    std::vector<UInt8> m_objOut;
    std::size_t m_u64Next = SIZE_MAX; /* of m_objKept */
    UInt32 m_u32Timestamp = 0;
    UInt16 m_u16Sequence = 0; /* of the last packet kept */
    Bool m_bBroken = false;   /* one is missing, or there was no room */
    Bool m_bWhole = false;
};
