/*
 * Announcements and restarts.
 */
#include "guard/policy.h"

#include <algorithm>

namespace
{
constexpr SInt64 kFoundMs = 3000;
constexpr SInt64 kSettledMs = 2000;
constexpr SInt64 kAskPauseMs = 5000;
constexpr SInt64 kYoungMs = 12000;
constexpr SInt64 kHealthyMs = 60000;
constexpr SInt64 kHourMs = 3600000;
} // namespace

Bool CAnnouncePolicy::IsDue(const FACTS_S &i_stFacts, Bool i_bReady)
{
    if (!m_bLooked) {
        m_bLooked = true;
        m_s64FirstMs = i_stFacts.s64NowMs;
    }
    if (m_s32Pid != i_stFacts.s32Pid || m_s64DaemonMs != i_stFacts.s64DaemonMs) {
        m_s32Pid = i_stFacts.s32Pid;
        m_s64DaemonMs = i_stFacts.s64DaemonMs;
        m_bTold = false;
    }
    if (m_bTold || !i_bReady || !i_stFacts.s32Pid || !i_stFacts.stTiming ||
        !i_stFacts.stTiming->HasSignal()) {
        return false;
    }
    if (i_stFacts.s64DaemonMs < m_s64FirstMs - kFoundMs) {
        if (IsFlowing(i_stFacts)) {
            m_bTold = true;
            return false;
        }
        return i_stFacts.s64NowMs - m_s64FirstMs >= kFoundMs;
    }
    return true;
}

Bool CStreamAskPolicy::IsDue(const FACTS_S &i_stFacts)
{
    if (m_u32Source != i_stFacts.u32Source) {
        m_u32Source = i_stFacts.u32Source;
        m_s64SourceMs = i_stFacts.s64NowMs;
    }
    return i_stFacts.s32Pid && IsFlowing(i_stFacts) && m_u32Source != m_u32Asked &&
           i_stFacts.s64NowMs - m_s64SourceMs >= kSettledMs && i_stFacts.s64NowMs >= m_s64NextMs;
}

void CStreamAskPolicy::Asked(SInt64 i_s64NowMs, const std::optional<UInt32> &i_u32Source,
                             Bool i_bAsked)
{
    m_s64NextMs = i_s64NowMs + kAskPauseMs;
    if (i_bAsked) {
        m_u32Asked = i_u32Source;
    }
}

UInt32 CRestartPolicy::BudgetLeft() const
{
    return m_stLimits.u32Budget -
           std::min(m_stLimits.u32Budget, static_cast<UInt32>(m_objActs.size()));
}

void CRestartPolicy::Settle(const FACTS_S &i_stFacts)
{
    const SInt64 s64NowMs = i_stFacts.s64NowMs;
    while (!m_objActs.empty() && s64NowMs - m_objActs.front() >= kHourMs) {
        m_objActs.pop_front();
    }
    if (IsFlowing(i_stFacts) &&
        s64NowMs - i_stFacts.s64FlowingMs.value_or(s64NowMs) >= kHealthyMs) {
        m_s64BackoffMs = m_stLimits.s64LeastMs;
        m_s64NextMs = INT64_MIN;
        m_objActs.clear();
    }
    if (m_s64OpenMs && IsFlowing(i_stFacts) && i_stFacts.s64FlowingMs > m_s64OpenMs) {
        m_s64OpenMs.reset();
    } else if (m_s64OpenMs && s64NowMs - *m_s64OpenMs >= m_stLimits.s64StallMs) {
        m_u32Failed++;
        m_s64OpenMs.reset();
    }
}

Bool CRestartPolicy::IsDown(const FACTS_S &i_stFacts) const
{
    /* Whoever does not listen hears no packets: that says nothing about the stream. */
    if (!i_stFacts.s64ListenMs) {
        return false;
    }
    const SInt64 s64NowMs = i_stFacts.s64NowMs;
    const SInt64 s64QuietMs = std::max(
        {i_stFacts.s64PacketMs.value_or(INT64_MIN), i_stFacts.s64DaemonMs, *i_stFacts.s64ListenMs,
         i_stFacts.s64TimingMs, i_stFacts.s64RestartMs.value_or(INT64_MIN)});
    return i_stFacts.s32Pid && s64NowMs - i_stFacts.s64DaemonMs >= kYoungMs &&
           IsInputGood(i_stFacts) && s64NowMs - s64QuietMs >= m_stLimits.s64StallMs;
}

void CRestartPolicy::Postpone(SInt64 i_s64NowMs)
{
    m_s64NextMs = i_s64NowMs + m_s64BackoffMs;
    m_s64BackoffMs = std::min(2 * m_s64BackoffMs, m_stLimits.s64MostMs);
}

CRestartPolicy::Step CRestartPolicy::Decide(const FACTS_S &i_stFacts)
{
    Settle(i_stFacts);
    if (m_bAsked || BudgetLeft() == 0 || i_stFacts.s64NowMs < m_s64NextMs || !IsDown(i_stFacts)) {
        return Step::None;
    }
    m_bAsked = true;
    return Step::AskSettings;
}

Bool CRestartPolicy::Answered(const FACTS_S &i_stFacts, Bool i_bTold)
{
    m_bAsked = false;
    if (!IsDown(i_stFacts)) {
        return false; /* it came back meanwhile */
    }
    Postpone(i_stFacts.s64NowMs);
    if (!i_bTold || IsDisabled(i_stFacts)) {
        return false;
    }
    m_objActs.push_back(i_stFacts.s64NowMs);
    m_s64OpenMs = i_stFacts.s64NowMs;
    m_u32Restarts++;
    return true;
}
