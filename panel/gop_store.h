/*
 * The stream's packets since the last key picture, by pictures: what a decoder needs to show the
 * present one. Kept at all times, so that a viewer who comes need not wait for the next key
 * picture.
 *
 * No socket and no clock. One thread.
 */
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "framework/types.h"
#include "guard/rtp.h"

struct PICTURE_S {
    std::vector<std::string> objPackets; /* as they came */
    Bool bKey = false;
    UInt64 u64Time = 0; /* RTP timestamp in 90 kHz, without its wrap */
};
using CPicture = std::shared_ptr<const PICTURE_S>;

class CGopStore
{
public:
    /* Takes a packet; what is no RTP is left out. Calls the function with each picture that is
     * complete with it, once a key picture has come. */
    void Add(Bytes i_objPacket, const std::function<void(const CPicture &)> &i_pTake);
    /* The last key picture and those after it; empty before the first, and after a group too large
     * to be kept until the next one. */
    const std::vector<CPicture> &Group() const { return m_objGroup; }
    /* Grows with every new stream: another source, another size, a leap of its time. Its first
     * picture is a key picture. */
    UInt64 Epoch() const { return m_u64Epoch; }
    /* "avc1.42c01f", of the last sequence parameter set (RFC 6381, 3.3); empty before one. */
    std::string Codec() const;
    /* Parameter sets as sprop-parameter-sets (RFC 6184, 8.1) has them; empty before both came. */
    std::string ParameterSets() const;
    UInt8 PayloadType() const { return m_u8PayloadType; }

private:
    void LookInto(const RTP_PACKET_S &i_stPacket);
    void BeginStream();
    void EndPicture(const std::function<void(const CPicture &)> &i_pTake);
    UInt64 Unwrapped(UInt32 i_u32Timestamp);

    std::vector<CPicture> m_objGroup;
    std::size_t m_u64GroupBytes = 0;
    std::shared_ptr<PICTURE_S> m_pPicture; /* under way */
    std::size_t m_u64PictureBytes = 0;
    std::string m_strSps, m_strPps;
    Bool m_bStarted = false;
    Bool m_bKeyCame = false; /* of this stream */
    UInt32 m_u32Source = 0;
    UInt8 m_u8PayloadType = 96;
    UInt32 m_u32Timestamp = 0;
    UInt64 m_u64Time = 0;
    UInt64 m_u64Epoch = 0;
};
