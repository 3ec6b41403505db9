/*
 * The picture the stand-in source shows: colour bars, a clock hand of a box that moves once per
 * frame, and a patch of snow so that the encoder always has bits to spend (without it every bit
 * rate would look the same on the wire).
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
    /* Paints frame i_u64Number into o_pData, stride * height bytes. */
    void Paint(UInt64 i_u64Number, UInt8 *o_pData);

private:
    UInt32 m_u32Width = 0;
    UInt32 m_u32Height = 0;
    UInt32 m_u32Stride = 0;
    UInt32 m_u32Random = 1;
    std::vector<UInt8> m_u8Bars;
    std::vector<UInt8> m_u8Snow;
};
