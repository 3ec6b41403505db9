/*
 * RTP header and H.264 payload format.
 */
#include "guard/rtp.h"

namespace
{
constexpr std::size_t kHeader = 12;
constexpr UInt8 kTypeMask = 0x1F;
constexpr UInt8 kStapA = 24;
constexpr UInt8 kFuA = 28;
constexpr UInt8 kFuStart = 0x80;

UInt16 Read16(Bytes i_objBytes, std::size_t i_u64At)
{
    return static_cast<UInt16>(i_objBytes[i_u64At] << 8 | i_objBytes[i_u64At + 1]);
}

UInt32 Read32(Bytes i_objBytes, std::size_t i_u64At)
{
    return static_cast<UInt32>(Read16(i_objBytes, i_u64At)) << 16 | Read16(i_objBytes, i_u64At + 2);
}

/* Length of the header with its list of sources and its extension; none if it is cut. */
std::optional<std::size_t> HeaderLength(Bytes i_objPacket)
{
    std::size_t u64Length = kHeader + 4 * static_cast<std::size_t>(i_objPacket[0] & 0x0F);
    if ((i_objPacket[0] & 0x10) != 0) {
        if (i_objPacket.size() < u64Length + 4) {
            return std::nullopt;
        }
        u64Length += 4 + 4 * static_cast<std::size_t>(Read16(i_objPacket, u64Length + 2));
    }
    return i_objPacket.size() < u64Length ? std::nullopt : std::optional(u64Length);
}
} // namespace

std::optional<RTP_PACKET_S> ParseRtp(Bytes i_objPacket)
{
    if (i_objPacket.size() < kHeader || i_objPacket[0] >> 6 != 2 ||
        (i_objPacket[1] >= 192 && i_objPacket[1] <= 223)) {
        return std::nullopt;
    }
    const std::optional<std::size_t> u64Begin = HeaderLength(i_objPacket);
    if (!u64Begin) {
        return std::nullopt;
    }
    std::size_t u64End = i_objPacket.size();
    if ((i_objPacket[0] & 0x20) != 0) {
        const UInt8 u8Padding = i_objPacket.back();
        if (u8Padding == 0 || u8Padding > u64End - *u64Begin) {
            return std::nullopt;
        }
        u64End -= u8Padding;
    }
    return RTP_PACKET_S{
        (i_objPacket[1] & 0x80) != 0, static_cast<UInt8>(i_objPacket[1] & 0x7F),
        Read16(i_objPacket, 2),       Read32(i_objPacket, 4),
        Read32(i_objPacket, 8),       i_objPacket.subspan(*u64Begin, u64End - *u64Begin)};
}

void ForEachNal(Bytes i_objPayload, const std::function<void(UInt8, Bytes)> &i_objSee)
{
    if (i_objPayload.empty()) {
        return;
    }
    const UInt8 u8Type = i_objPayload[0] & kTypeMask;
    if (u8Type > 0 && u8Type < kStapA) {
        i_objSee(u8Type, i_objPayload);
    } else if (u8Type == kFuA) {
        if (i_objPayload.size() > 2 && (i_objPayload[1] & kFuStart) != 0) {
            i_objSee(i_objPayload[1] & kTypeMask, {});
        }
    } else if (u8Type == kStapA) {
        Bytes objLeft = i_objPayload.subspan(1);
        while (objLeft.size() > 2) {
            const std::size_t u64Length = Read16(objLeft, 0);
            if (u64Length == 0 || u64Length > objLeft.size() - 2) {
                return;
            }
            i_objSee(objLeft[2] & kTypeMask, objLeft.subspan(2, u64Length));
            objLeft = objLeft.subspan(2 + u64Length);
        }
    }
}

Bool BeginsKeyPicture(Bytes i_objPayload)
{
    Bool bKey = false;
    ForEachNal(i_objPayload, [&bKey](UInt8 i_u8Type, Bytes) {
        bKey = bKey || i_u8Type == NAL_IDR || i_u8Type == NAL_SPS;
    });
    return bKey;
}

void WriteSequence(std::span<UInt8> io_objPacket, UInt16 i_u16Sequence)
{
    io_objPacket[2] = static_cast<UInt8>(i_u16Sequence >> 8);
    io_objPacket[3] = static_cast<UInt8>(i_u16Sequence);
}
