/*
 * Bit reader and sequence parameter set.
 */
#include "guard/sps.h"

#include <algorithm>
#include <vector>

namespace
{
/* Larger than any picture of the standard (level 6.2: 139264 macroblocks, 16 times as long as
 * high at the most), small enough for every product below. */
constexpr UInt32 kMostMacroblocks = 2048;
constexpr std::size_t kLongest = 1024;

/* Reads bits, the highest first; behind the end there are zeros, and Ok() says so. */
class CBits
{
public:
    explicit CBits(std::vector<UInt8> i_objBytes) : m_objBytes(std::move(i_objBytes)) {}

    UInt32 Bits(unsigned i_u32Count)
    {
        UInt32 u32Value = 0;
        for (; i_u32Count > 0; i_u32Count--, m_u64At++) {
            const std::size_t u64Byte = m_u64At / 8;
            const UInt32 u32Bit = u64Byte < m_objBytes.size()
                                      ? m_objBytes[u64Byte] >> (7 - m_u64At % 8) & 1
                                      : (m_bOk = false, 0);
            u32Value = u32Value << 1 | u32Bit;
        }
        return u32Value;
    }
    Bool Flag() { return Bits(1) != 0; }
    /* ue(v): Exp-Golomb code. */
    UInt32 Golomb()
    {
        unsigned u32Zeros = 0;
        while (m_bOk && !Flag()) {
            u32Zeros++;
        }
        if (u32Zeros > 31) {
            m_bOk = false;
            return 0;
        }
        return (1U << u32Zeros) - 1 + Bits(u32Zeros);
    }
    SInt32 SignedGolomb()
    {
        const UInt32 u32Code = Golomb();
        const auto s32Half = static_cast<SInt32>(u32Code / 2);
        return u32Code % 2 != 0 ? s32Half + 1 : -s32Half;
    }
    Bool Ok() const { return m_bOk; }

private:
    std::vector<UInt8> m_objBytes;
    std::size_t m_u64At = 0; /* bits */
    Bool m_bOk = true;
};

/* The unit's content without the bytes that only keep start codes apart (7.4.1). */
std::vector<UInt8> Unescape(Bytes i_objUnit)
{
    std::vector<UInt8> objBytes;
    unsigned u32Zeros = 0;
    for (const UInt8 u8Byte : i_objUnit.first(std::min(i_objUnit.size(), kLongest))) {
        if (u32Zeros >= 2 && u8Byte == 3) {
            u32Zeros = 0;
            continue;
        }
        u32Zeros = u8Byte == 0 ? u32Zeros + 1 : 0;
        objBytes.push_back(u8Byte);
    }
    return objBytes;
}

std::string ProfileName(UInt32 i_u32Profile, UInt32 i_u32Constraints)
{
    switch (i_u32Profile) {
    case 66:
        return (i_u32Constraints & 0x40) != 0 ? "constrained-baseline" : "baseline";
    case 77:
        return "main";
    case 88:
        return "extended";
    case 100:
        return "high";
    case 110:
        return "high-10";
    case 122:
        return "high-4:2:2";
    case 244:
        return "high-4:4:4";
    default:
        return std::to_string(i_u32Profile);
    }
}

std::string LevelName(UInt32 i_u32Profile, UInt32 i_u32Constraints, UInt32 i_u32Level)
{
    const Bool bOld = i_u32Profile == 66 || i_u32Profile == 77 || i_u32Profile == 88;
    if (i_u32Level == 9 || (i_u32Level == 11 && bOld && (i_u32Constraints & 0x10) != 0)) {
        return "1b";
    }
    const std::string strMajor = std::to_string(i_u32Level / 10);
    return i_u32Level % 10 == 0 ? strMajor : strMajor + "." + std::to_string(i_u32Level % 10);
}

void SkipScalingList(CBits &io_objBits, int i_s32Size)
{
    SInt32 s32Last = 8;
    SInt32 s32Next = 8;
    for (int i = 0; i < i_s32Size && io_objBits.Ok(); i++) {
        if (s32Next != 0) {
            const SInt64 s64Sum = static_cast<SInt64>(s32Last) + io_objBits.SignedGolomb() + 256;
            s32Next = static_cast<SInt32>(((s64Sum % 256) + 256) % 256);
        }
        s32Last = s32Next == 0 ? s32Last : s32Next;
    }
}

/* What the high profiles add; returns chroma_format_idc. */
UInt32 ReadChroma(CBits &io_objBits)
{
    const UInt32 u32Chroma = io_objBits.Golomb();
    if (u32Chroma == 3) {
        io_objBits.Flag(); /* separate_colour_plane_flag */
    }
    io_objBits.Golomb(); /* bit depths */
    io_objBits.Golomb();
    io_objBits.Flag();
    if (io_objBits.Flag()) {
        const int s32Lists = u32Chroma == 3 ? 12 : 8;
        for (int i = 0; i < s32Lists && io_objBits.Ok(); i++) {
            if (io_objBits.Flag()) {
                SkipScalingList(io_objBits, i < 6 ? 16 : 64);
            }
        }
    }
    return u32Chroma;
}

void SkipPictureOrder(CBits &io_objBits)
{
    const UInt32 u32Type = io_objBits.Golomb();
    if (u32Type == 0) {
        io_objBits.Golomb();
    } else if (u32Type == 1) {
        io_objBits.Flag();
        io_objBits.SignedGolomb();
        io_objBits.SignedGolomb();
        for (UInt32 u32Left = io_objBits.Golomb(); u32Left > 0 && io_objBits.Ok(); u32Left--) {
            io_objBits.SignedGolomb();
        }
    }
}

Bool HasChroma(UInt32 i_u32Profile)
{
    constexpr UInt32 kProfiles[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
    return std::find(std::begin(kProfiles), std::end(kProfiles), i_u32Profile) !=
           std::end(kProfiles);
}
} // namespace

std::optional<SPS_S> ParseSps(Bytes i_objUnit)
{
    if (i_objUnit.size() < 5 || (i_objUnit[0] & 0x1F) != NAL_SPS) {
        return std::nullopt;
    }
    CBits objBits(Unescape(i_objUnit.subspan(1)));
    const UInt32 u32Profile = objBits.Bits(8);
    const UInt32 u32Constraints = objBits.Bits(8);
    const UInt32 u32Level = objBits.Bits(8);
    objBits.Golomb(); /* seq_parameter_set_id */
    const UInt32 u32Chroma = HasChroma(u32Profile) ? ReadChroma(objBits) : 1;
    objBits.Golomb(); /* log2_max_frame_num_minus4 */
    SkipPictureOrder(objBits);
    objBits.Golomb(); /* max_num_ref_frames */
    objBits.Flag();
    const UInt32 u32Wide = objBits.Golomb();
    const UInt32 u32High = objBits.Golomb();
    if (!objBits.Ok() || u32Wide >= kMostMacroblocks || u32High >= kMostMacroblocks) {
        return std::nullopt;
    }
    const UInt32 u32Fields = objBits.Flag() ? 1 : 2;
    if (u32Fields == 2) {
        objBits.Flag(); /* mb_adaptive_frame_field_flag */
    }
    objBits.Flag(); /* direct_8x8_inference_flag */
    UInt64 u64Width = (u32Wide + 1) * 16;
    UInt64 u64Height = (u32High + 1) * 16 * u32Fields;
    if (objBits.Flag()) {
        const UInt64 u64UnitX = u32Chroma == 1 || u32Chroma == 2 ? 2 : 1;
        const UInt64 u64UnitY = (u32Chroma == 1 ? 2 : 1) * u32Fields;
        const UInt64 u64Left = objBits.Golomb();
        const UInt64 u64CutX = (u64Left + objBits.Golomb()) * u64UnitX;
        const UInt64 u64Top = objBits.Golomb();
        const UInt64 u64CutY = (u64Top + objBits.Golomb()) * u64UnitY;
        if (u64CutX >= u64Width || u64CutY >= u64Height) {
            return std::nullopt;
        }
        u64Width -= u64CutX;
        u64Height -= u64CutY;
    }
    if (!objBits.Ok()) {
        return std::nullopt;
    }
    return SPS_S{static_cast<UInt32>(u64Width), static_cast<UInt32>(u64Height),
                 ProfileName(u32Profile, u32Constraints),
                 LevelName(u32Profile, u32Constraints, u32Level)};
}
