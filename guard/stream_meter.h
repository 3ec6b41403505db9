/*
 * What the guard knows of the stream from the packets of its local copy: counts, rates over the
 * last second, the interval of the key pictures, the parameter sets.
 *
 * No clock and no socket: every call says when it happens, in milliseconds of a clock that never
 * goes back. One thread.
 */
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "guard/rtp.h"
#include "guard/sps.h"

struct STREAM_FIGURES_S {
    UInt64 u64Packets = 0;
    UInt64 u64Bytes = 0; /* RTP packets with their headers */
    UInt64 u64Lost = 0;  /* missing sequence numbers; a late packet takes its one back */
    UInt64 u64Pictures = 0;
    double f64PacketsPerSecond = 0; /* over the last full second; 0 when nothing comes any more */
    double f64KbitPerSecond = 0;
    double f64PicturesPerSecond = 0; /* by the RTP timestamps */
    std::optional<UInt32>
        u32KeyInterval; /* pictures from the last but one key picture to the last */
    std::optional<SPS_S> stSps;
    std::vector<UInt8> objSps; /* NAL units; empty until seen */
    std::vector<UInt8> objPps;
    std::optional<UInt32> u32Source;
    std::optional<UInt8> u8PayloadType;
    std::optional<SInt64> s64LastPacketMs;
    UInt64 u64Sources = 0; /* how often a new stream began, the first included */
};

class CStreamMeter
{
public:
    /* One packet and its whole size. */
    void Add(const RTP_PACKET_S &i_stPacket, std::size_t i_u64Size, SInt64 i_s64NowMs);
    /* To be called now and then, at best once a second, so that rates fall when nothing comes. */
    void Tick(SInt64 i_s64NowMs);
    const STREAM_FIGURES_S &Figures() const { return m_stFigures; }
    /* Pictures per second of the stream by the last distances of its timestamps, without waiting
     * for a second to pass; 0 until four pictures were seen. */
    double QuickRate() const;

private:
    void BeginStream(const RTP_PACKET_S &i_stPacket);
    void CountSequence(UInt16 i_u16Sequence);
    void CountPicture(UInt32 i_u32Timestamp);
    void Look(UInt8 i_u8Type, Bytes i_objUnit);

    static constexpr std::size_t DISTANCES = 8;

    STREAM_FIGURES_S m_stFigures;
    UInt16 m_u16Newest = 0;
    UInt32 m_u32Timestamp = 0; /* of the picture under way */
    Bool m_bKey = false;       /* it is a key picture */
    std::optional<UInt32> m_u32SinceKey;
    std::array<UInt32, DISTANCES> m_u32Distances = {}; /* of timestamps, the last ones in a ring */
    UInt32 m_u32DistanceCount = 0;
    /* The second that is being counted. */
    SInt64 m_s64SecondMs = 0;
    UInt64 m_u64SecondPackets = 0;
    UInt64 m_u64SecondBytes = 0;
    UInt32 m_u32SecondPictures = 0;
    UInt64 m_u64SecondSpan = 0; /* of timestamps */
};
