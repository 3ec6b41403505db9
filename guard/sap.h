/*
 * Announces the stream of the box's own multicast group by SAP (RFC 2974), so that players list it
 * by the box's name: an SDP (RFC 8866) to 224.2.127.254 port 9875 when the stream begins or changes
 * and every five minutes or so, and its deletion at the end.
 *
 * One thread. Nothing waits; the time is told, in milliseconds of a clock that never goes back.
 */
#pragma once

#include <array>
#include <optional>
#include <string>

#include "framework/unique_fd.h"
#include "guard/stream_meter.h"

using Ipv4 = std::array<UInt8, 4>; /* in the order in which they are written */
using Mac = std::array<UInt8, 6>;

struct SESSION_S {
    std::string strName; /* of the box; what would break a line is left out */
    Ipv4 u8Origin = {};  /* address of eth0 */
    Ipv4 u8Group = {};   /* where it is sent to; a single receiver's address, too */
    UInt16 u16Port = 59202;
    UInt64 u64Id = 0; /* of the session, and of its version */
    UInt64 u64Version = 0;
    UInt8 u8PayloadType = 96;
    std::vector<UInt8> objSps; /* NAL units; left out unless of four bytes or more */
    std::vector<UInt8> objPps;
};

/* The group that the daemon derives from eth0's hardware address. */
Ipv4 GroupOf(const Mac &i_u8Mac);
std::string SdpText(const SESSION_S &i_stSession);
/* The datagram that announces the session, or deletes it. */
std::string SapDatagram(const SESSION_S &i_stSession, Bool i_bDelete);

class CSap
{
public:
    /* The deletion, if anything is announced. */
    ~CSap() { Withdraw(); }
    /* Once a second or so. Empty, or what happened, for the log. */
    std::string Tick(SInt64 i_s64NowMs, const STREAM_FIGURES_S &i_stStream, Bool i_bFlowing);

private:
    Bool LookAtInterface(SESSION_S *io_pSession);
    Bool Send(const SESSION_S &i_stSession, Bool i_bDelete);
    void Withdraw();

    UniqueFd m_objFd;
    std::optional<SESSION_S> m_stAnnounced;
    SInt64 m_s64SentMs = 0;
    SInt64 m_s64NextMs = 0;
    SInt64 m_s64FlowedMs = 0;
};
