/*
 * An HDMI input timing as the guard knows it, the uevent text that announces one, and the file that
 * remembers it.
 *
 * The text is read as mv3300d reads it, the odd cases included, so that both believe the same of
 * every event. Pure functions, any thread; the bytes may be anything.
 */
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "framework/types.h"

struct TIMING_S {
    SInt32 width = 0; /* pixels */
    SInt32 height = 0;
    SInt32 fps = 0; /* pictures per second */
    SInt32 interlaced = 0;
    bool operator==(const TIMING_S &) const = default;

    /* As the daemon sees it: any of the three being 0 is an input without a signal. */
    Bool HasSignal() const { return width != 0 && height != 0 && fps != 0; }
};

/* "1920x1080@60-0" */
std::string TimingText(const TIMING_S &i_stTiming);
/* "%dx%d@%d-%d" as scanf(3) reads it; fields from the first that cannot be read on stay 0. */
TIMING_S ReadTiming(std::string_view i_strText);
/* The same from a person or a file: none unless it is one in full, within what a picture can be
 * (0 to 16384 pixels, 0 to 1000 pictures a second); the "-I" may be missing. */
std::optional<TIMING_S> ParseTiming(std::string_view i_strText);

/* The timing that a uevent datagram (lines that each end in a NUL) announces; none unless the
 * bridge's driver sent it. */
std::optional<TIMING_S> TimingOfUevent(std::string_view i_strDatagram);
/* The datagram that announces the timing. */
std::string UeventOfTiming(const TIMING_S &i_stTiming);

/* What /run/mv3300/timing holds: the timing, and when it was heard. */
struct HEARD_TIMING_S {
    TIMING_S stTiming;
    double f64Time = 0; /* s since the epoch */
};
std::string MemoryText(const HEARD_TIMING_S &i_stHeard);
/* None if the text is not what MemoryText() writes. */
std::optional<HEARD_TIMING_S> ParseMemory(std::string_view i_strText);
