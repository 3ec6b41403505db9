/*
 * Sequence number arithmetic of the receiver.
 */
#include "sim/receive/rtp_counter.h"

namespace
{
constexpr size_t kHeaderSize = 12;
} // namespace

void CRtpCounter::Add(const UInt8 *i_pData, size_t i_u64Size)
{
    if (i_u64Size < kHeaderSize || i_pData[0] >> 6 != 2) {
        m_stCounts.u64Malformed++;
        return;
    }
    const auto u16Number = static_cast<UInt16>(i_pData[2] << 8 | i_pData[3]);
    const UInt32 u32Source = static_cast<UInt32>(i_pData[8]) << 24 |
                             static_cast<UInt32>(i_pData[9]) << 16 |
                             static_cast<UInt32>(i_pData[10]) << 8 | i_pData[11];
    m_stCounts.u64Packets++;
    m_stCounts.u64Bytes += i_u64Size;
    if (m_stCounts.u64Sessions == 0 || u32Source != m_u32Source) {
        m_stCounts.u64Sessions++;
        m_u32Source = u32Source;
        m_u16Newest = u16Number;
        return;
    }
    const auto s16Step = static_cast<SInt16>(u16Number - m_u16Newest);
    if (s16Step > 0) {
        m_stCounts.u64Lost += static_cast<UInt64>(s16Step) - 1;
        m_u16Newest = u16Number;
        return;
    }
    m_stCounts.u64Late++;
    if (s16Step < 0 && m_stCounts.u64Lost > 0) {
        m_stCounts.u64Lost--;
    }
}
