/*
 * Paints the stand-in source's picture in UYVY: four bytes U Y V Y for two pixels.
 */
#include "sim/gst/test_picture.h"

#include <algorithm>
#include <cstring>

namespace
{
struct COLOUR_S {
    UInt8 u8Y, u8U, u8V;
};
/* White, yellow, cyan, green, magenta, red, blue, black at 75 % (ITU-R BT.601). */
constexpr COLOUR_S kBars[] = {{180, 128, 128}, {162, 44, 142}, {131, 156, 44}, {112, 72, 58},
                              {84, 184, 198},  {65, 100, 212}, {35, 212, 114}, {16, 128, 128}};
constexpr COLOUR_S kBox = {235, 128, 128};
constexpr UInt32 kSnowShifts = 64; /* pairs of pixels, as many as six random bits choose from */

void PaintRun(UInt8 *o_pLine, UInt32 i_u32Pairs, const COLOUR_S &i_stColour)
{
    const UInt8 u8Pair[4] = {i_stColour.u8U, i_stColour.u8Y, i_stColour.u8V, i_stColour.u8Y};
    for (UInt32 i = 0; i < i_u32Pairs; i++) {
        memcpy(o_pLine + 4 * i, u8Pair, sizeof(u8Pair));
    }
}
} // namespace

void CTestPicture::SetFormat(UInt32 u32Width, UInt32 u32Height, UInt32 u32Stride)
{
    m_u32Width = u32Width;
    m_u32Height = u32Height;
    m_u32Stride = u32Stride;
    m_u8Bars.assign(static_cast<size_t>(u32Stride) * u32Height, 0);
    const UInt32 u32Pairs = u32Stride / 4;
    for (UInt32 i = 0; i < 8; i++) {
        const UInt32 u32Begin = u32Pairs * i / 8;
        PaintRun(&m_u8Bars[4 * u32Begin], u32Pairs * (i + 1) / 8 - u32Begin, kBars[i]);
    }
    for (UInt32 y = 1; y < u32Height; y++) {
        memcpy(&m_u8Bars[static_cast<size_t>(y) * u32Stride], m_u8Bars.data(), u32Stride);
    }
    m_u8Snow.assign(static_cast<size_t>(u32Stride) / 4 / 4 * 4 + kSnowShifts * 4, 0);
    for (size_t i = 0; i < m_u8Snow.size(); i++) {
        m_u32Random = m_u32Random * 1664525U + 1013904223U;
        m_u8Snow[i] = i % 2 == 1 ? static_cast<UInt8>(16 + (m_u32Random >> 24) * 7 / 8) : 128;
    }
}

void CTestPicture::Paint(UInt64 i_u64Number, UInt64 i_u64Time, UInt8 *o_pData)
{
    memcpy(o_pData, m_u8Bars.data(), m_u8Bars.size());

    /* A sixteenth of the picture: every line starts somewhere else in one line of noise. */
    const UInt32 u32SnowBytes = m_u32Stride / 4 / 4 * 4;
    const UInt32 u32SnowBegin = m_u32Stride / 8 / 4 * 4;
    for (UInt32 y = m_u32Height / 2; y < m_u32Height * 3 / 4; y++) {
        m_u32Random = m_u32Random * 1664525U + 1013904223U;
        memcpy(o_pData + static_cast<size_t>(y) * m_u32Stride + u32SnowBegin,
               &m_u8Snow[4 * (m_u32Random >> 26)], u32SnowBytes);
    }

    const UInt32 u32Side = std::max(2U, m_u32Height / 8);
    const UInt32 u32Pairs = m_u32Stride / 4;
    const UInt32 u32Wide = std::min(u32Side / 2, u32Pairs);
    const UInt32 u32Left = static_cast<UInt32>(i_u64Number * 2 % (u32Pairs - u32Wide + 1));
    for (UInt32 y = m_u32Height / 8; y < std::min(m_u32Height, m_u32Height / 8 + u32Side); y++) {
        PaintRun(o_pData + static_cast<size_t>(y) * m_u32Stride + 4 * u32Left, u32Wide, kBox);
    }

    /* One line of cells, then copies of it. */
    const UInt32 u32Top = m_u32Height - std::max(1U, m_u32Height / 16);
    UInt8 *pStrip = o_pData + static_cast<size_t>(u32Top) * m_u32Stride;
    for (UInt32 i = 0; i < STAMP_BITS; i++) {
        const UInt32 u32Begin = u32Pairs * i / STAMP_BITS;
        const bool bSet = (i_u64Time >> (STAMP_BITS - 1 - i) & 1) != 0;
        PaintRun(pStrip + 4 * u32Begin, u32Pairs * (i + 1) / STAMP_BITS - u32Begin,
                 bSet ? kBox : kBars[7]);
    }
    for (UInt32 y = u32Top + 1; y < m_u32Height; y++) {
        memcpy(o_pData + static_cast<size_t>(y) * m_u32Stride, pStrip, m_u32Stride);
    }
}
