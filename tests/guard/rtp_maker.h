/*
 * RTP packets of an H.264 stream, made by hand.
 */
#pragma once

#include <vector>

#include "guard/rtp.h"

using Packet = std::vector<UInt8>;

inline Packet MakeRtp(UInt16 i_u16Sequence, UInt32 i_u32Timestamp, const Packet &i_objPayload,
                      bool i_bMarker = false, UInt32 i_u32Source = 0x11223344)
{
    Packet objPacket = {0x80, static_cast<UInt8>(i_bMarker ? 0xE0 : 0x60)};
    const auto objPut = [&objPacket](UInt32 i_u32Value, int i_s32Bytes) {
        for (int i = i_s32Bytes - 1; i >= 0; i--) {
            objPacket.push_back(static_cast<UInt8>(i_u32Value >> (8 * i)));
        }
    };
    objPut(i_u16Sequence, 2);
    objPut(i_u32Timestamp, 4);
    objPut(i_u32Source, 4);
    objPacket.insert(objPacket.end(), i_objPayload.begin(), i_objPayload.end());
    return objPacket;
}

/* 1920x1080, high profile, level 4.1, cropped; and a small picture set. */
inline const Packet SPS_1080 = {0x67, 0x64, 0x00, 0x29, 0xAC, 0xD9, 0x40, 0x78, 0x02,
                                0x27, 0xE5, 0xC0, 0x44, 0x00, 0x00, 0x03, 0x00, 0x04,
                                0x00, 0x00, 0x03, 0x00, 0xF0, 0x3C, 0x60, 0xC6, 0x58};
inline const Packet PPS = {0x68, 0xEB, 0xE3, 0xCB, 0x22, 0xC0};
