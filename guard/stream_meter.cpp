/*
 * Counts and rates.
 */
#include "guard/stream_meter.h"

#include <algorithm>

namespace
{
constexpr SInt64 kSecondMs = 1000;
constexpr double kClock = 90000; /* RTP timestamps of H.264 a second (RFC 6184) */
constexpr UInt32 kLeastDistances = 3;
/* Longer parameter sets than these are no camera's. */
constexpr std::size_t kLongestSet = 512;
/* Pictures further apart are not a rate: a pause. */
constexpr UInt32 kLongestDistance = 10 * 90000;
} // namespace

void CStreamMeter::BeginStream(const RTP_PACKET_S &i_stPacket)
{
    m_stFigures.u64Sources++;
    m_stFigures.u32Source = i_stPacket.u32Source;
    m_stFigures.u32KeyInterval.reset();
    m_stFigures.stSps.reset();
    m_stFigures.objSps.clear();
    m_stFigures.objPps.clear();
    m_u16Newest = static_cast<UInt16>(i_stPacket.u16Sequence - 1);
    m_u32Timestamp = i_stPacket.u32Timestamp;
    m_bKey = false;
    m_u32SinceKey.reset();
    m_u32DistanceCount = 0;
    m_stFigures.u64Pictures++;
}

void CStreamMeter::CountSequence(UInt16 i_u16Sequence)
{
    const auto s16Step = static_cast<SInt16>(i_u16Sequence - m_u16Newest);
    if (s16Step > 0) {
        m_stFigures.u64Lost += static_cast<UInt64>(s16Step) - 1;
        m_u16Newest = i_u16Sequence;
    } else if (s16Step < 0 && m_stFigures.u64Lost > 0) {
        m_stFigures.u64Lost--;
    }
}

void CStreamMeter::CountPicture(UInt32 i_u32Timestamp)
{
    const UInt32 u32Distance = i_u32Timestamp - m_u32Timestamp;
    if (u32Distance == 0 || u32Distance > UINT32_MAX / 2) {
        return; /* of the same picture, or late */
    }
    m_u32Timestamp = i_u32Timestamp;
    m_stFigures.u64Pictures++;
    m_bKey = false;
    if (m_u32SinceKey) {
        ++*m_u32SinceKey;
    }
    if (u32Distance <= kLongestDistance) {
        m_u32Distances[m_u32DistanceCount++ % DISTANCES] = u32Distance;
        m_u32SecondPictures++;
        m_u64SecondSpan += u32Distance;
    }
}

void CStreamMeter::Look(UInt8 i_u8Type, Bytes i_objUnit)
{
    if (i_u8Type == NAL_IDR && !m_bKey) {
        m_bKey = true;
        if (m_u32SinceKey) {
            m_stFigures.u32KeyInterval = *m_u32SinceKey;
        }
        m_u32SinceKey = 0;
    }
    if ((i_u8Type != NAL_SPS && i_u8Type != NAL_PPS) || i_objUnit.empty() ||
        i_objUnit.size() > kLongestSet) {
        return;
    }
    std::vector<UInt8> &objKept = i_u8Type == NAL_SPS ? m_stFigures.objSps : m_stFigures.objPps;
    if (!std::ranges::equal(objKept, i_objUnit)) {
        objKept.assign(i_objUnit.begin(), i_objUnit.end());
        if (i_u8Type == NAL_SPS) {
            m_stFigures.stSps = ParseSps(i_objUnit);
        }
    }
}

void CStreamMeter::Add(const RTP_PACKET_S &i_stPacket, std::size_t i_u64Size, SInt64 i_s64NowMs)
{
    Tick(i_s64NowMs);
    m_stFigures.u64Packets++;
    m_stFigures.u64Bytes += i_u64Size;
    m_u64SecondPackets++;
    m_u64SecondBytes += i_u64Size;
    m_stFigures.s64LastPacketMs = i_s64NowMs;
    m_stFigures.u8PayloadType = i_stPacket.u8PayloadType;
    if (m_stFigures.u32Source != i_stPacket.u32Source) {
        BeginStream(i_stPacket);
    }
    CountSequence(i_stPacket.u16Sequence);
    CountPicture(i_stPacket.u32Timestamp);
    ForEachNal(i_stPacket.objPayload,
               [this](UInt8 i_u8Type, Bytes i_objUnit) { Look(i_u8Type, i_objUnit); });
}

void CStreamMeter::Tick(SInt64 i_s64NowMs)
{
    const SInt64 s64Passed = i_s64NowMs - m_s64SecondMs;
    if (s64Passed < kSecondMs) {
        return;
    }
    const double f64Seconds = static_cast<double>(s64Passed) / kSecondMs;
    m_stFigures.f64PacketsPerSecond = static_cast<double>(m_u64SecondPackets) / f64Seconds;
    m_stFigures.f64KbitPerSecond = static_cast<double>(m_u64SecondBytes) * 8 / 1000 / f64Seconds;
    m_stFigures.f64PicturesPerSecond =
        m_u64SecondSpan == 0 ? 0 : m_u32SecondPictures * kClock / m_u64SecondSpan;
    m_s64SecondMs = i_s64NowMs;
    m_u64SecondPackets = 0;
    m_u64SecondBytes = 0;
    m_u32SecondPictures = 0;
    m_u64SecondSpan = 0;
}

double CStreamMeter::QuickRate() const
{
    const UInt32 u32Count = std::min<UInt32>(m_u32DistanceCount, DISTANCES);
    if (u32Count < kLeastDistances) {
        return 0;
    }
    UInt64 u64Span = 0;
    for (UInt32 i = 0; i < u32Count; i++) {
        u64Span += m_u32Distances[i];
    }
    return kClock * u32Count / static_cast<double>(u64Span);
}
