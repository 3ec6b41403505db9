/*
 * Texts of a timing.
 */
#include "guard/timing.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "guard/wall_time.h"

namespace
{
constexpr SInt32 kMostPixels = 16384;
constexpr SInt32 kMostFps = 1000;
constexpr std::size_t kMostDatagram = 4096; /* the daemon reads no more of one */

/* One number of a timing, after white space; what exceeds an int is cut to its range. */
bool TakeNumber(std::string_view &io_strText, SInt32 *o_pNumber)
{
    const std::string strText(io_strText); /* with an end, which a view lacks */
    char *pEnd = nullptr;
    const long s64Number = strtol(strText.c_str(), &pEnd, 10);
    if (pEnd == strText.c_str()) {
        return false;
    }
    *o_pNumber = static_cast<SInt32>(std::clamp<long>(s64Number, INT_MIN, INT_MAX));
    io_strText.remove_prefix(static_cast<std::size_t>(pEnd - strText.c_str()));
    return true;
}

/* Reads fields up to the first that is not there; returns how many, and what follows them. */
int TakeTiming(std::string_view &io_strText, TIMING_S *o_pTiming)
{
    SInt32 *const pFields[] = {&o_pTiming->width, &o_pTiming->height, &o_pTiming->fps,
                               &o_pTiming->interlaced};
    constexpr char kSeparators[] = {'x', '@', '-'};
    for (int i = 0; i < 4; i++) {
        if (i > 0) {
            if (io_strText.empty() || io_strText[0] != kSeparators[i - 1]) {
                return i;
            }
            io_strText.remove_prefix(1);
        }
        if (!TakeNumber(io_strText, pFields[i])) {
            return i;
        }
    }
    return 4;
}

bool Within(SInt32 i_s32Number, SInt32 i_s32Most)
{
    return i_s32Number >= 0 && i_s32Number <= i_s32Most;
}
} // namespace

std::string TimingText(const TIMING_S &i_stTiming)
{
    return std::to_string(i_stTiming.width) + "x" + std::to_string(i_stTiming.height) + "@" +
           std::to_string(i_stTiming.fps) + "-" + std::to_string(i_stTiming.interlaced);
}

TIMING_S ReadTiming(std::string_view i_strText)
{
    TIMING_S stTiming;
    TakeTiming(i_strText, &stTiming);
    return stTiming;
}

std::optional<TIMING_S> ParseTiming(std::string_view i_strText)
{
    TIMING_S stTiming;
    if (TakeTiming(i_strText, &stTiming) < 3 || !i_strText.empty() ||
        !Within(stTiming.width, kMostPixels) || !Within(stTiming.height, kMostPixels) ||
        !Within(stTiming.fps, kMostFps) || !Within(stTiming.interlaced, 1)) {
        return std::nullopt;
    }
    return stTiming;
}

std::optional<TIMING_S> TimingOfUevent(std::string_view i_strDatagram)
{
    std::string_view strDriver;
    std::string_view strSubsystem;
    std::string_view strEvent;
    std::string_view strLeft = i_strDatagram.substr(0, kMostDatagram);
    while (!strLeft.empty() && strLeft[0] != '\0') {
        const std::string_view strLine = strLeft.substr(0, strLeft.find('\0'));
        strLeft.remove_prefix(std::min(strLeft.size(), strLine.size() + 1));
        for (const auto &[strKey, pValue] :
             {std::pair<std::string_view, std::string_view *>{"DRIVER=", &strDriver},
              {"SUBSYSTEM=", &strSubsystem},
              {"EVENT=", &strEvent}}) {
            if (strLine.starts_with(strKey)) {
                *pValue = strLine.substr(strKey.size());
            }
        }
    }
    if (!strDriver.starts_with("tc358743") || !strSubsystem.starts_with("i2c")) {
        return std::nullopt;
    }
    return ReadTiming(strEvent);
}

std::string UeventOfTiming(const TIMING_S &i_stTiming)
{
    std::string strDatagram;
    for (const std::string &strLine :
         {std::string("change@/devices/virtual/mv3300-guard"), std::string("ACTION=change"),
          std::string("DEVPATH=/devices/virtual/mv3300-guard"), std::string("SUBSYSTEM=i2c"),
          std::string("DRIVER=tc358743"), "EVENT=" + TimingText(i_stTiming)}) {
        strDatagram += strLine + '\0';
    }
    return strDatagram;
}

std::string MemoryText(const HEARD_TIMING_S &i_stHeard)
{
    char szTime[32];
    snprintf(szTime, sizeof(szTime), " %.3f\n", i_stHeard.f64Time);
    return TimingText(i_stHeard.stTiming) + szTime;
}

std::optional<HEARD_TIMING_S> ParseMemory(std::string_view i_strText)
{
    const std::size_t u64Blank = i_strText.find(' ');
    if (u64Blank == std::string_view::npos || !i_strText.ends_with('\n')) {
        return std::nullopt;
    }
    HEARD_TIMING_S stHeard;
    std::string_view strTiming = i_strText.substr(0, u64Blank);
    const std::string_view strTime =
        i_strText.substr(u64Blank + 1, i_strText.size() - u64Blank - 2);
    const auto stRead = std::from_chars(strTime.begin(), strTime.end(), stHeard.f64Time);
    if (TakeTiming(strTiming, &stHeard.stTiming) != 4 || !strTiming.empty() ||
        stRead.ec != std::errc() || stRead.ptr != strTime.end() || !IsWallTime(stHeard.f64Time)) {
        return std::nullopt;
    }
    return stHeard;
}
