/*
 * The rule of the conditions.
 */
#include "guard/condition.h"

#include <algorithm>
#include <cmath>

namespace
{
constexpr SInt64 kQuietMs = 2000;
/* The longest stated start of a healthy pipeline is shorter. */
constexpr SInt64 kStartMs = 12000;
/* The old pipeline's last packets come after the new timing. */
constexpr SInt64 kTrailingMs = 1000;
/* The daemon itself restarts a preview that brings nothing for 10 s. */
constexpr SInt64 kPreviewMs = 10000;
/* A preview is started after the stream, and again with every change of the input or the settings;
 * until it listens its port refuses what comes. */
constexpr SInt64 kPreviewStartMs = 5000;

/* Why H.264 or the local copy is off; null if both are on. */
const char *WhyDisabled(const SETTINGS_S &i_stSettings)
{
    if (!i_stSettings.bH264) {
        return "H.264 is switched off.";
    }
    if (!i_stSettings.bPreview) {
        return "The preview is switched off, and with it the local copy of the stream: whether the "
               "stream runs cannot be seen from here.";
    }
    return nullptr;
}

Bool IsStarting(const FACTS_S &i_stFacts)
{
    const SInt64 s64Since = std::max(
        {i_stFacts.s64DaemonMs, i_stFacts.s64TimingMs, i_stFacts.s64RestartMs.value_or(INT64_MIN)});
    const Bool bNone =
        !i_stFacts.s64PacketMs ||
        *i_stFacts.s64PacketMs <= s64Since + (IsFlowing(i_stFacts) ? 0 : kTrailingMs);
    return bNone && i_stFacts.s64NowMs - s64Since < kStartMs;
}

Bool IsFailed(const FACTS_S &i_stFacts)
{
    return i_stFacts.s64RestartMs && !IsFlowing(i_stFacts) &&
           (!i_stFacts.s64PacketMs ||
            *i_stFacts.s64PacketMs <= *i_stFacts.s64RestartMs + kTrailingMs);
}

Bool IsPreviewStalled(const FACTS_S &i_stFacts)
{
    const SInt64 s64Since = std::max(i_stFacts.s64FlowingMs.value_or(i_stFacts.s64NowMs),
                                     i_stFacts.s64PictureMs.value_or(INT64_MIN));
    return i_stFacts.s64NowMs - s64Since >= kPreviewMs;
}

std::string SizeText(const TIMING_S &i_stTiming)
{
    return std::to_string(i_stTiming.width) + "x" + std::to_string(i_stTiming.height) + " at " +
           std::to_string(i_stTiming.fps) + " pictures a second";
}
} // namespace

const char *LinkText(Link i_eLink)
{
    constexpr const char *kTexts[] = {"unknown", "ok", "no-link", "no-lock", "out-of-range"};
    return kTexts[static_cast<int>(i_eLink)];
}

std::string NoSignalText(Link i_eLink)
{
    switch (i_eLink) {
    case Link::NoLink:
        return "Nothing is plugged into the HDMI input.";
    case Link::NoLock:
        return "The HDMI input has a cable, but no signal that it can lock to.";
    case Link::OutOfRange:
        return "The HDMI input has a signal that is out of its range.";
    default:
        return "The HDMI input has no signal.";
    }
}

const char *ConditionWord(Condition i_eCondition)
{
    constexpr const char *kWords[] = {"no-daemon",       "input-unknown", "no-signal", "interlaced",
                                      "disabled",        "starting",      "failed",    "stalled",
                                      "preview-stalled", "relay-refused", "streaming"};
    return kWords[static_cast<int>(i_eCondition)];
}

Bool IsFlowing(const FACTS_S &i_stFacts)
{
    return i_stFacts.s64PacketMs && i_stFacts.s64NowMs - *i_stFacts.s64PacketMs < kQuietMs;
}

Bool IsRefused(const FACTS_S &i_stFacts)
{
    if (!i_stFacts.s64RefusedSinceMs || !IsFlowing(i_stFacts)) {
        return false;
    }
    const SInt64 s64Since =
        std::max(*i_stFacts.s64RefusedSinceMs, i_stFacts.s64FlowingMs.value_or(INT64_MIN));
    return i_stFacts.s64NowMs - s64Since >= kPreviewStartMs;
}

Bool IsDisabled(const FACTS_S &i_stFacts)
{
    if (!i_stFacts.stSettings || WhyDisabled(*i_stFacts.stSettings) == nullptr) {
        return false;
    }
    return !i_stFacts.s64PacketMs || *i_stFacts.s64PacketMs < i_stFacts.s64SettingsMs ||
           (!i_stFacts.stSettings->bH264 && i_stFacts.u32SettingsSource == i_stFacts.u32Source);
}

Bool IsInputGood(const FACTS_S &i_stFacts)
{
    return i_stFacts.stTiming && i_stFacts.stTiming->HasSignal() &&
           i_stFacts.stTiming->interlaced == 0;
}

Condition Judge(const FACTS_S &i_stFacts)
{
    if (!i_stFacts.s32Pid) {
        return Condition::NoDaemon;
    }
    if (!i_stFacts.stTiming) {
        return Condition::InputUnknown;
    }
    if (!i_stFacts.stTiming->HasSignal()) {
        return Condition::NoSignal;
    }
    if (i_stFacts.stTiming->interlaced != 0) {
        return Condition::Interlaced;
    }
    if (IsDisabled(i_stFacts)) {
        return Condition::Disabled;
    }
    if (IsStarting(i_stFacts)) {
        return Condition::Starting;
    }
    if (IsFailed(i_stFacts)) {
        return Condition::Failed;
    }
    if (!IsFlowing(i_stFacts)) {
        return Condition::Stalled;
    }
    if (IsPreviewStalled(i_stFacts)) {
        return Condition::PreviewStalled;
    }
    return IsRefused(i_stFacts) ? Condition::RelayRefused : Condition::Streaming;
}

std::string Describe(const FACTS_S &i_stFacts, double i_f64Pictures)
{
    const TIMING_S stTiming = i_stFacts.stTiming.value_or(TIMING_S{});
    const Condition eCondition = Judge(i_stFacts);
    if (!i_stFacts.s64ListenMs && eCondition >= Condition::Starting) {
        return "The input is " + SizeText(stTiming) +
               ", but whether the stream runs cannot be seen: another program has taken 127.0.0.1 "
               "port 12350, and the preview gets nothing from here.";
    }
    switch (eCondition) {
    case Condition::NoDaemon:
        return "The encoder's daemon does not run.";
    case Condition::InputUnknown:
        return "No input timing was announced yet, and the capture device tells none.";
    case Condition::NoSignal:
        return NoSignalText(i_stFacts.eLink);
    case Condition::Interlaced:
        return "The input is interlaced (" + SizeText(stTiming) +
               "), which the encoder does not take: set the source to progressive.";
    case Condition::Disabled:
        return WhyDisabled(*i_stFacts.stSettings);
    case Condition::Starting:
        return "The stream of " + SizeText(stTiming) + " is being started.";
    case Condition::Failed:
        return "The stream of " + SizeText(stTiming) +
               " does not run, and starting it again did not help.";
    case Condition::Stalled:
        return "The input is " + SizeText(stTiming) + ", but the stream brings no packets.";
    case Condition::PreviewStalled:
        return std::string("The stream runs, but no preview picture has come for ten seconds") +
               (IsRefused(i_stFacts) ? ": nobody listens on the preview's port." : ".");
    case Condition::RelayRefused:
        return "The stream runs, but nobody listens on the preview's port.";
    case Condition::Streaming:
        break;
    }
    const std::string strRuns = "The stream of " + SizeText(stTiming) + " runs";
    return i_f64Pictures < 1 ? strRuns + "."
                             : strRuns + ", with " + std::to_string(std::lround(i_f64Pictures)) +
                                   " pictures a second.";
}
