/*
 * When the guard acts: which daemon is told the timing, and when a stream that is down is started
 * again.
 *
 * No clock and no socket: the facts carry the time. One thread.
 */
#pragma once

#include <deque>

#include "guard/condition.h"

/* Tells each instance of the daemon the timing, once. */
class CAnnouncePolicy
{
public:
    /* True when the instance is to be told the timing now. bReady: it listens for uevents and for
     * control requests. An instance that was there before the guard is first given three seconds
     * to show that it streams already. */
    Bool IsDue(const FACTS_S &i_stFacts, Bool i_bReady);
    /* The instance knows the timing: it was told, or heard itself what the guard heard. */
    void Told() { m_bTold = true; }
    /* The timing turned out to be another one than was told. */
    void TellAgain() { m_bTold = false; }

private:
    std::optional<SInt32> m_s32Pid;
    SInt64 m_s64DaemonMs = 0;
    SInt64 m_s64FirstMs = 0; /* first look at any facts */
    Bool m_bLooked = false;
    Bool m_bTold = false;
};

/* Asks the settings once for each new stream: with H.264 off the preview still has its local copy,
 * so the packets do not tell. */
class CStreamAskPolicy
{
public:
    /* To be called often. True when the settings are to be asked now: two seconds after the new
     * stream's first packet, so that whoever began it by setting something has the answer port to
     * himself; and five after the last try, whatever anybody sends. */
    Bool IsDue(const FACTS_S &i_stFacts);
    /* An ask has ended. i_u32Source: the stream at its beginning; bAsked: the request was sent. */
    void Asked(SInt64 i_s64NowMs, const std::optional<UInt32> &i_u32Source, Bool i_bAsked);

private:
    std::optional<UInt32> m_u32Source;
    SInt64 m_s64SourceMs = 0; /* since when it is that one */
    std::optional<UInt32> m_u32Asked;
    SInt64 m_s64NextMs = INT64_MIN;
};

struct RESTART_LIMITS_S {
    SInt64 s64StallMs = 12000; /* without a packet before the first act */
    SInt64 s64LeastMs = 12000; /* pause after the first act; doubled after each further one */
    SInt64 s64MostMs = 300000;
    UInt32 u32Budget = 12; /* acts an hour */
};

/* Starts again what is down: first the settings are asked, then, if they want a stream, the loss of
 * the signal and the timing are announced. */
class CRestartPolicy
{
public:
    enum class Step { None, AskSettings };

    explicit CRestartPolicy(const RESTART_LIMITS_S &i_stLimits)
        : m_stLimits(i_stLimits), m_s64BackoffMs(i_stLimits.s64LeastMs)
    {
    }

    /* AskSettings: whoever carries it out answers with Answered(). */
    Step Decide(const FACTS_S &i_stFacts);
    /* The facts hold the settings if they were told. True: announce now. */
    Bool Answered(const FACTS_S &i_stFacts, Bool i_bTold);

    UInt32 Restarts() const { return m_u32Restarts; }
    UInt32 FailedRestarts() const { return m_u32Failed; }
    SInt64 BackoffMs() const { return m_s64BackoffMs; }
    UInt32 Budget() const { return m_stLimits.u32Budget; }
    UInt32 BudgetLeft() const;

private:
    void Settle(const FACTS_S &i_stFacts);
    Bool IsDown(const FACTS_S &i_stFacts) const;
    void Postpone(SInt64 i_s64NowMs);

    const RESTART_LIMITS_S m_stLimits;
    SInt64 m_s64BackoffMs;
    SInt64 m_s64NextMs = INT64_MIN;
    std::optional<SInt64> m_s64OpenMs; /* an act whose success is not known yet */
    Bool m_bAsked = false;
    std::deque<SInt64> m_objActs; /* of the last hour */
    UInt32 m_u32Restarts = 0;
    UInt32 m_u32Failed = 0;
};
