/*
 * What the guard knows at one moment, and the one word that says how the box is.
 *
 * Pure functions, any thread. Times are milliseconds of a clock that never goes back.
 */
#pragma once

#include <optional>
#include <string>

#include "guard/timing.h"

/* What a capture device says of its input (VIDIOC_QUERY_DV_TIMINGS). */
enum class Link { Unknown, Ok, NoLink, NoLock, OutOfRange };
/* "ok", "no-link", "no-lock", "out-of-range", "unknown" */
const char *LinkText(Link i_eLink);
/* A sentence for people, of an input without a signal. */
std::string NoSignalText(Link i_eLink);

/* The daemon's settings, as its control channel told them. */
struct SETTINGS_S {
    double f64Time = 0; /* when it was asked, s since the epoch */
    Bool bH264 = false;
    SInt32 s32Gop = 0;     /* pictures */
    SInt32 s32Bitrate = 0; /* bit/s */
    Bool bPreview = false;
    SInt32 s32PreviewHeight = 0;      /* lines */
    SInt32 s32PreviewRefreshrate = 0; /* pictures a second */
};

struct FACTS_S {
    SInt64 s64NowMs = 0;
    std::optional<SInt32> s32Pid; /* of the daemon, while it runs */
    SInt64 s64DaemonMs = 0;       /* when it was started */
    std::optional<TIMING_S> stTiming;
    Link eLink = Link::Unknown;
    SInt64 s64TimingMs = 0;                  /* when the timing was heard or last changed */
    std::optional<SInt64> s64ListenMs;       /* since when the guard has the stream's port */
    std::optional<SInt64> s64PacketMs;       /* the last packet; none since the guard's own start */
    std::optional<SInt64> s64FlowingMs;      /* since when packets come, without a pause of 2 s */
    std::optional<SInt64> s64PictureMs;      /* the last new preview picture */
    std::optional<SInt64> s64RefusedSinceMs; /* the preview's port takes no packet */
    std::optional<UInt32> u32Source;         /* SSRC of the last packet */
    std::optional<SETTINGS_S> stSettings;
    SInt64 s64SettingsMs = 0;                /* when they were told */
    std::optional<UInt32> u32SettingsSource; /* whose packets came when they were asked */
    std::optional<SInt64> s64RestartMs;      /* the last restart by the guard */
};

enum class Condition {
    NoDaemon,
    InputUnknown,
    NoSignal,
    Interlaced,
    Disabled,
    Starting,
    Failed,
    Stalled,
    PreviewStalled,
    RelayRefused,
    Streaming
};
/* "no-daemon", "input-unknown", ... */
const char *ConditionWord(Condition i_eCondition);

/* The first condition that holds. */
Condition Judge(const FACTS_S &i_stFacts);
/* A sentence for people about it; i_f64Pictures: those a second of the stream. */
std::string Describe(const FACTS_S &i_stFacts, double i_f64Pictures);

/* Packets come: the last one is younger than two seconds. */
Bool IsFlowing(const FACTS_S &i_stFacts);
/* Packets come, and nobody has listened on the preview's port for five seconds of them. */
Bool IsRefused(const FACTS_S &i_stFacts);
/* The settings want no stream: they were told after the last packet, or of the stream whose packets
 * come, which the local copy alone gets. With every change of them the daemon begins another. */
Bool IsDisabled(const FACTS_S &i_stFacts);
/* The timing is one that the daemon encodes. */
Bool IsInputGood(const FACTS_S &i_stFacts);
