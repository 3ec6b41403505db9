/*
 * Keeping and sending again.
 */
#include "guard/key_repeat.h"

#include "framework/assertion.h"

namespace
{
/* Three seconds of the highest bit rate. */
constexpr std::size_t kMostBytes = 4 * 1024 * 1024;
} // namespace

void CKeyRepeat::Clear()
{
    m_objKept.clear();
    m_objPayloads.clear();
    m_u64Next = SIZE_MAX;
    m_bBroken = m_bWhole = false;
}

void CKeyRepeat::Keep(const RTP_PACKET_S &i_stPacket, Bool i_bSecond)
{
    const Bool bFollows =
        m_objKept.empty() || i_stPacket.u16Sequence == static_cast<UInt16>(m_u16Sequence + 1);
    m_bBroken = m_bBroken || m_bWhole || !bFollows ||
                m_objPayloads.size() + i_stPacket.objPayload.size() > kMostBytes;
    if (m_bBroken) {
        m_bWhole = false;
        return;
    }
    m_u16Sequence = i_stPacket.u16Sequence;
    m_objPayloads.insert(m_objPayloads.end(), i_stPacket.objPayload.begin(),
                         i_stPacket.objPayload.end());
    m_objKept.push_back({m_objPayloads.size(), i_stPacket.bMarker, i_bSecond,
                         i_stPacket.u8PayloadType, i_stPacket.u32Source});
    m_bWhole = i_bSecond && i_stPacket.bMarker;
}

void CKeyRepeat::Begin(UInt32 i_u32Timestamp)
{
    m_u64Next = 0;
    m_u32Timestamp = i_u32Timestamp;
}

Bytes CKeyRepeat::Next(UInt16 i_u16Sequence)
{
    assert(UnderWay());
    const std::size_t u64Begin = m_u64Next == 0 ? 0 : m_objKept[m_u64Next - 1].u64End;
    const KEPT_S &stKept = m_objKept[m_u64Next++];
    m_objOut.assign({0x80, static_cast<UInt8>((stKept.bMarker ? 0x80 : 0) | stKept.u8PayloadType)});
    const auto objPut = [this](UInt32 i_u32Value, int i_s32Bits) {
        for (int i = i_s32Bits - 8; i >= 0; i -= 8) {
            m_objOut.push_back(static_cast<UInt8>(i_u32Value >> i));
        }
    };
    objPut(i_u16Sequence, 16);
    objPut(m_u32Timestamp + (stKept.bSecond ? 1 : 0), 32);
    objPut(stKept.u32Source, 32);
    const Bytes objPayload = Bytes(m_objPayloads).subspan(u64Begin, stKept.u64End - u64Begin);
    m_objOut.insert(m_objOut.end(), objPayload.begin(), objPayload.end());
    return m_objOut;
}
