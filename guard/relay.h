/*
 * The relay: takes the daemon's local copy of the stream on 127.0.0.1 port 12350 and passes it on
 * to the preview's port 12345 and to further ports of 127.0.0.1.
 *
 * Never waits: what a socket has no room for is counted and gone. Never reorders. What is no RTP is
 * counted and not passed on. One thread.
 */
#pragma once

#include <memory>
#include <vector>

#include <sys/socket.h>

#include "framework/unique_fd.h"
#include "guard/state.h"
#include "guard/thinner.h"

inline constexpr UInt16 COPY_PORT = 12350;    /* where the daemon sends its local copy */
inline constexpr UInt16 PREVIEW_PORT = 12345; /* where its preview listens */

class CRelay
{
public:
    /* i_f64PreviewRate: as CThinner. Throws std::system_error if the system gives no sockets. */
    CRelay(const std::vector<UInt16> &i_u16Also, double i_f64PreviewRate);
    ~CRelay();
    CRelay(const CRelay &) = delete;
    CRelay &operator=(const CRelay &) = delete;

    /* Takes the port of the local copy. 0 or errno: EADDRINUSE while another relay has it. */
    int Bind();
    /* To be polled for input once bound. */
    int Fd() const { return m_objIn.Get(); }
    /* Passes on what has come, at most a few hundred packets: call again while there is more. */
    void Serve(SInt64 i_s64NowMs);
    /* Once a second or more often. i_f64InputRate: pictures a second of the input, 0 if unknown;
     * told until the stream itself says more. */
    void Tick(SInt64 i_s64NowMs, double i_f64InputRate);

    const STREAM_FIGURES_S &Stream() const { return m_objMeter.Figures(); }
    RELAY_FIGURES_S Figures() const;
    /* Since when the preview's port refuses every packet; none once it took one. */
    std::optional<SInt64> RefusedSinceMs() const { return m_s64RefusedSinceMs; }

private:
    struct OUT_S {
        UniqueFd objFd;
        PORT_FIGURES_S stFigures;
    };
    struct BATCH_S;

    static OUT_S MakeOut(UInt16 i_u16Port);
    /* True if the port refused a packet. */
    static Bool Send(OUT_S &io_stOut, Bytes i_objPacket);
    void SendToPreview(Bytes i_objPacket, SInt64 i_s64NowMs);
    void Pass(std::span<UInt8> io_objPacket, SInt64 i_s64NowMs);

    UniqueFd m_objIn;
    OUT_S m_stPreview;
    std::vector<OUT_S> m_objAlso;
    std::unique_ptr<BATCH_S> m_pBatch;
    CStreamMeter m_objMeter;
    CThinner m_objThinner;
    double m_f64InputRate = 0;
    UInt64 m_u64Thinned = 0;
    UInt64 m_u64NotRtp = 0;
    std::optional<SInt64> m_s64RefusedSinceMs;
    std::optional<double> m_f64Rate;
    SInt64 m_s64RateMs = 0;
    UInt64 m_u64RatePictures = 0;
};
