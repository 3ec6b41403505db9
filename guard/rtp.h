/*
 * What the guard reads out of an RTP packet (RFC 3550) that carries H.264 (RFC 6184).
 *
 * The packets come from a local port that anybody on the box can write to: every length is checked.
 * Nothing is copied; the results point into the packet. Pure functions, any thread.
 */
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <span>

#include "framework/types.h"

using Bytes = std::span<const UInt8>;

struct RTP_PACKET_S {
    Bool bMarker = false; /* last packet of its access unit */
    UInt8 u8PayloadType = 0;
    UInt16 u16Sequence = 0;
    UInt32 u32Timestamp = 0; /* 90 kHz */
    UInt32 u32Source = 0;    /* SSRC */
    Bytes objPayload;        /* without header, extension and padding */
};

/* Types of a NAL unit (ITU-T H.264, table 7-1) that matter here. */
enum : UInt8 { NAL_SLICE = 1, NAL_IDR = 5, NAL_SPS = 7, NAL_PPS = 8 };

/* None if it is no RTP of version 2: too short for what its header says it holds, or one of the
 * packet types that RTCP has in the same place (RFC 5761). */
std::optional<RTP_PACKET_S> ParseRtp(Bytes i_objPacket);

/* Calls the function for each NAL unit that begins in the payload, with its type and, if the unit
 * lies in it as a whole, with its bytes (else with none): single units, those of an aggregation
 * packet (STAP-A), and the first fragment of a fragmented one (FU-A). */
void ForEachNal(Bytes i_objPayload, const std::function<void(UInt8, Bytes)> &i_objSee);

/* True if a decoder can begin here: an IDR picture or a sequence parameter set begins in it. */
Bool BeginsKeyPicture(Bytes i_objPayload);

/* Writes the sequence number into the packet, which has passed ParseRtp(). */
void WriteSequence(std::span<UInt8> io_objPacket, UInt16 i_u16Sequence);
