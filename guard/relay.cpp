/*
 * Sockets of the relay.
 */
#include "guard/relay.h"

#include <cerrno>
#include <system_error>

#include <linux/sock_diag.h>

#include "framework/assertion.h"
#include "guard/loopback.h"

namespace
{
constexpr std::size_t kBatch = 32;
constexpr int kMostBatches = 8;
constexpr std::size_t kLongestDatagram = 65536;
/* A tenth of a second of 40 Mbit/s, as the system counts small packets. */
constexpr int kReceiveBuffer = 2 * 1024 * 1024;
constexpr SInt64 kSecondMs = 1000;

UniqueFd MakeSocket()
{
    UniqueFd objFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!objFd) {
        throw std::system_error(errno, std::generic_category(), "no socket for the relay");
    }
    return objFd;
}
} // namespace

/* The system only gives memory for the pages that packets really fill. */
struct CRelay::BATCH_S {
    std::unique_ptr<UInt8[]> pBytes =
        std::make_unique_for_overwrite<UInt8[]>(kBatch * kLongestDatagram);
    iovec stVectors[kBatch] = {};
    mmsghdr stMessages[kBatch] = {};

    BATCH_S()
    {
        for (std::size_t i = 0; i < kBatch; i++) {
            stVectors[i] = {pBytes.get() + i * kLongestDatagram, kLongestDatagram};
            stMessages[i].msg_hdr.msg_iov = &stVectors[i];
            stMessages[i].msg_hdr.msg_iovlen = 1;
        }
    }
};

CRelay::CRelay(const std::vector<UInt16> &i_u16Also, double i_f64PreviewRate)
    : m_objIn(MakeSocket()), m_stPreview(MakeOut(PREVIEW_PORT)),
      m_pBatch(std::make_unique<BATCH_S>()), m_objThinner(i_f64PreviewRate)
{
    for (const UInt16 u16Port : i_u16Also) {
        m_objAlso.push_back(MakeOut(u16Port));
    }
    /* Beyond the system's limit with the capability, up to it without. */
    if (setsockopt(m_objIn.Get(), SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer,
                   sizeof(kReceiveBuffer)) != 0) {
        (void)setsockopt(m_objIn.Get(), SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer,
                         sizeof(kReceiveBuffer));
    }
}

CRelay::~CRelay() = default;

CRelay::OUT_S CRelay::MakeOut(UInt16 i_u16Port)
{
    OUT_S stOut;
    stOut.objFd = MakeSocket();
    stOut.stFigures.u16Port = i_u16Port;
    /* Connected, so that the system tells when nobody listens. */
    const sockaddr_in stAddress = LoopbackAddress(i_u16Port);
    if (connect(stOut.objFd.Get(), reinterpret_cast<const sockaddr *>(&stAddress),
                sizeof(stAddress)) != 0) {
        throw std::system_error(errno, std::generic_category(), "the relay has no way out");
    }
    return stOut;
}

int CRelay::Bind()
{
    const sockaddr_in stAddress = LoopbackAddress(COPY_PORT);
    return bind(m_objIn.Get(), reinterpret_cast<const sockaddr *>(&stAddress), sizeof(stAddress)) ==
                   0
               ? 0
               : errno;
}

Bool CRelay::Send(OUT_S &io_stOut, Bytes i_objPacket)
{
    PORT_FIGURES_S &stFigures = io_stOut.stFigures;
    Bool bRefused = false;
    /* An earlier packet's refusal is told instead of sending this one: it is tried again. */
    for (int i = 0; i < 2; i++) {
        if (send(io_stOut.objFd.Get(), i_objPacket.data(), i_objPacket.size(), 0) >= 0) {
            stFigures.u64Forwarded++;
            return bRefused;
        }
        if (errno != ECONNREFUSED) {
            break;
        }
        bRefused = true;
        stFigures.u64Refused++;
        stFigures.u64Forwarded -= stFigures.u64Forwarded > 0 ? 1 : 0;
    }
    stFigures.u64Dropped++;
    return bRefused;
}

void CRelay::SendToPreview(Bytes i_objPacket, SInt64 i_s64NowMs)
{
    if (Send(m_stPreview, i_objPacket)) {
        m_s64RefusedSinceMs = m_s64RefusedSinceMs.value_or(i_s64NowMs);
    } else {
        m_s64RefusedSinceMs.reset();
    }
}

void CRelay::Pass(std::span<UInt8> io_objPacket, SInt64 i_s64NowMs)
{
    const std::optional<RTP_PACKET_S> stPacket = ParseRtp(io_objPacket);
    if (!stPacket) {
        m_u64NotRtp++;
        return;
    }
    /* The others get the stream as it is, so they come before the sequence number changes. */
    for (OUT_S &stOut : m_objAlso) {
        Send(stOut, io_objPacket);
    }
    m_objMeter.Add(*stPacket, io_objPacket.size(), i_s64NowMs);
    m_objThinner.RepeatKey(*stPacket, [this, i_s64NowMs](Bytes i_objPacket) {
        SendToPreview(i_objPacket, i_s64NowMs);
    });
    const double f64Rate = m_objMeter.QuickRate();
    const std::optional<UInt16> u16Number =
        m_objThinner.Take(*stPacket, f64Rate > 0 ? f64Rate : m_f64InputRate);
    if (!u16Number) {
        m_u64Thinned++;
        return;
    }
    WriteSequence(io_objPacket, *u16Number);
    SendToPreview(io_objPacket, i_s64NowMs);
}

void CRelay::Serve(SInt64 i_s64NowMs)
{
    for (int i = 0; i < kMostBatches; i++) {
        const int s32Count =
            recvmmsg(m_objIn.Get(), m_pBatch->stMessages, kBatch, MSG_DONTWAIT, nullptr);
        for (int j = 0; j < s32Count; j++) {
            const mmsghdr &stMessage = m_pBatch->stMessages[j];
            assert(stMessage.msg_len <= kLongestDatagram);
            Pass({static_cast<UInt8 *>(m_pBatch->stVectors[j].iov_base), stMessage.msg_len},
                 i_s64NowMs);
        }
        if (s32Count < static_cast<int>(kBatch)) {
            return;
        }
    }
}

void CRelay::Tick(SInt64 i_s64NowMs, double i_f64InputRate)
{
    m_f64InputRate = i_f64InputRate;
    m_objMeter.Tick(i_s64NowMs);
    const SInt64 s64Passed = i_s64NowMs - m_s64RateMs;
    if (s64Passed >= 2 * kSecondMs) { /* longer than the usual group */
        const UInt64 u64Pictures = m_objThinner.Pictures() - m_u64RatePictures;
        m_f64Rate = static_cast<double>(u64Pictures) * 1000 / static_cast<double>(s64Passed);
        m_u64RatePictures = m_objThinner.Pictures();
        m_s64RateMs = i_s64NowMs;
    }
}

RELAY_FIGURES_S CRelay::Figures() const
{
    RELAY_FIGURES_S stFigures;
    stFigures.stPreview = m_stPreview.stFigures;
    for (const OUT_S &stOut : m_objAlso) {
        stFigures.objAlso.push_back(stOut.stFigures);
    }
    stFigures.u64Thinned = m_u64Thinned;
    stFigures.u64NotRtp = m_u64NotRtp;
    stFigures.bThinning = m_objThinner.Thinning();
    stFigures.f64Rate = m_f64Rate;
    /* What the system dropped before it could be read (sock_diag(7)). */
    UInt32 u32Info[SK_MEMINFO_VARS] = {};
    socklen_t u32Size = sizeof(u32Info);
    if (getsockopt(m_objIn.Get(), SOL_SOCKET, SO_MEMINFO, u32Info, &u32Size) == 0) {
        stFigures.u64Missed = u32Info[SK_MEMINFO_DROPS];
    }
    return stFigures;
}
