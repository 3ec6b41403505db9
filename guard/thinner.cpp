/*
 * Which pictures of a group are passed on.
 */
#include "guard/thinner.h"

#include <algorithm>
#include <cmath>

namespace
{
/* The preview keeps up with somewhat more than 48 pictures a second. Between the two nothing
 * changes, so that a rate that wavers does not switch to and fro. */
constexpr double kTooFast = 48.5;
constexpr double kSlowEnough = 46;
/* What is passed on of a stream that is too fast, and what the preview publishes for certain: of a
 * burst it may lag by three pictures before it finds them deleted. */
constexpr double kUsualTarget = 25;
constexpr double kPublished = 45;
constexpr double kMostLag = 3;
constexpr UInt32 kLongGroup = 6 * 90000;
constexpr SInt32 kPause = 2 * 90000;
/* A key picture is many packets, and the preview's socket has no room for all of them at once: so
 * many go out for each that is left out. */
constexpr int kRepeatedAtOnce = 8;
constexpr UInt32 kAll = UINT32_MAX;
} // namespace

void CThinner::BeginStream(const RTP_PACKET_S &i_stPacket)
{
    m_u32Source = i_stPacket.u32Source;
    m_u32Timestamp = i_stPacket.u32Timestamp;
    m_bKey = false;
    m_u32Picture.reset();
    m_u32Group = 0;
    m_bLong = false;
    m_bThinning = false;
    m_bFast = false;
    m_u32Allowance = kAll;
    m_f64Credit = 0;
    m_bPaused = false;
    m_objRepeat.Clear();
    m_u16Offset = 0;
    m_u16Resumed = i_stPacket.u16Sequence;
    m_u64Pictures++;
}

UInt32 CThinner::Allowance(double i_f64Rate, double i_f64Target)
{
    /* A group of unknown length is taken for one of a second. */
    m_f64Credit += (m_u32Group > 0 ? m_u32Group : i_f64Rate) * i_f64Target / i_f64Rate;
    double f64Allowed = std::floor(m_f64Credit);
    if (i_f64Rate > kPublished) {
        f64Allowed = std::min(f64Allowed, std::floor(kMostLag / (1 - kPublished / i_f64Rate)));
    }
    m_f64Credit = std::min(m_f64Credit - f64Allowed, 1.0);
    return static_cast<UInt32>(f64Allowed);
}

/* How much of the group is passed on. */
void CThinner::Decide(double i_f64Rate)
{
    m_bFast = i_f64Rate > (m_bFast ? kSlowEnough : kTooFast);
    const double f64Target = m_f64Wanted > 0 ? m_f64Wanted : kUsualTarget;
    m_bThinning = (m_f64Wanted > 0 || m_bFast) && f64Target < i_f64Rate && !m_bLong;
    m_u32Allowance = m_bThinning ? Allowance(i_f64Rate, f64Target) : kAll;
}

void CThinner::BeginGroup(const RTP_PACKET_S &i_stPacket, double i_f64Rate)
{
    if (m_u32Picture) {
        m_u32Group = *m_u32Picture;
        m_bLong = i_stPacket.u32Timestamp - m_u32GroupStart > kLongGroup && !m_objRepeat.Whole();
    }
    m_u32Picture = 0;
    m_u32GroupStart = i_stPacket.u32Timestamp;
    m_objRepeat.Clear();
    Decide(i_f64Rate);
}

void CThinner::BeginPicture(const RTP_PACKET_S &i_stPacket, double i_f64Rate)
{
    m_u32Timestamp = i_stPacket.u32Timestamp;
    m_bKey = false;
    if (m_u32Picture) {
        ++*m_u32Picture;
        if (m_u32Group == 0 && !m_bThinning) {
            Decide(i_f64Rate); /* of a stream's first group the rate shows under way */
        }
        m_bPaused = m_bPaused || *m_u32Picture >= m_u32Allowance;
    }
    m_u64Pictures += m_bPaused ? 0 : 1;
}

void CThinner::RepeatKey(const RTP_PACKET_S &i_stPacket,
                         const std::function<void(Bytes)> &i_objSend)
{
    if (m_u32Source != i_stPacket.u32Source) {
        return;
    }
    /* With the timestamp of a picture that was left out: it is before all that are still to come.
     */
    if (!m_objRepeat.UnderWay() && m_bPaused && m_objRepeat.Whole() &&
        i_stPacket.u32Timestamp != m_u32Timestamp &&
        static_cast<SInt32>(m_u32Timestamp - m_u32Passed) >= kPause) {
        m_objRepeat.Begin(m_u32Timestamp);
        m_u32Passed = m_u32Timestamp;
        m_u64Pictures += 2;
    }
    const Bool bAll = m_objRepeat.UnderWay() && BeginsKeyPicture(i_stPacket.objPayload);
    for (int i = 0; m_objRepeat.UnderWay() && (bAll || i < kRepeatedAtOnce); i++) {
        i_objSend(m_objRepeat.Next(++m_u16Last));
    }
}

std::optional<UInt16> CThinner::Take(const RTP_PACKET_S &i_stPacket, double i_f64Rate)
{
    if (m_u32Source != i_stPacket.u32Source) {
        BeginStream(i_stPacket);
    }
    if (static_cast<SInt16>(i_stPacket.u16Sequence - m_u16Resumed) < 0 && m_u16Offset != 0) {
        return std::nullopt; /* late, from before a pause: its number is in use */
    }
    if (i_stPacket.u32Timestamp != m_u32Timestamp) {
        BeginPicture(i_stPacket, i_f64Rate);
    }
    if (!m_bKey && BeginsKeyPicture(i_stPacket.objPayload)) {
        m_bKey = true;
        BeginGroup(i_stPacket, i_f64Rate);
        const Bool bWasPaused = m_bPaused;
        m_bPaused = m_u32Allowance == 0;
        if (bWasPaused && !m_bPaused) {
            m_u16Offset = static_cast<UInt16>(i_stPacket.u16Sequence - m_u16Last - 1);
            m_u16Resumed = i_stPacket.u16Sequence;
            m_u64Pictures++;
        }
    }
    if (m_u32Picture && *m_u32Picture < 2) {
        m_objRepeat.Keep(i_stPacket, *m_u32Picture == 1);
    }
    if (m_bPaused) {
        return std::nullopt;
    }
    const auto u16Number = static_cast<UInt16>(i_stPacket.u16Sequence - m_u16Offset);
    m_u16Last = u16Number;
    m_u32Passed = i_stPacket.u32Timestamp;
    return u16Number;
}
