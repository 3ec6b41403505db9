/*
 * The picture the stand-in source shows: colour bars, a clock hand of a box that moves once per
 * frame, a patch of snow so that the encoder always has bits to spend (without it every bit
 * rate would look the same on the wire), and along the lower edge a strip of cells, white for 1 and
 * black for 0, that tells when the picture was drawn.
 *
 * The bars are painted once per format; a frame costs a copy, the box and the snow.
 */
#pragma once

#include <vector>

#include "framework/types.h"

class CTestPicture
{
public:
    /* UYVY with the given bytes per line. */
    void SetFormat(UInt32 u32Width, UInt32 u32Height, UInt32 u32Stride);
    /* Paints frame i_u64Number into o_pData, stride * height bytes. The strip holds the lowest
     * STAMP_BITS bits of i_u64Time, a number of milliseconds, the highest bit first. */
    void Paint(UInt64 i_u64Number, UInt64 i_u64Time, UInt8 *o_pData);
    static constexpr UInt32 STAMP_BITS = 24;

private:
    UInt32 m_u32Width = 0;
    UInt32 m_u32Height = 0;
    UInt32 m_u32Stride = 0;
    UInt32 m_u32Random = 1;
    std::vector<UInt8> m_u8Bars;
    std::vector<UInt8> m_u8Snow;
};
