/*
 * Clocks: conversions of the system's readings, nothing kept.
 */
#include "framework/clock.h"

#include <limits>

#include <sys/time.h>
#include <time.h>

SInt64 GetTimeInMs()
{
    struct timespec stNow;
    if (clock_gettime(CLOCK_MONOTONIC, &stNow) != 0) {
        return -1;
    }
    return static_cast<SInt64>(stNow.tv_sec) * 1000 + stNow.tv_nsec / 1000000;
}

SInt64 GetDeadlineInMs(SInt64 i_s64Milliseconds)
{
    SInt64 s64Now = GetTimeInMs();
    constexpr SInt64 kMax = std::numeric_limits<SInt64>::max();
    return i_s64Milliseconds > 0 && s64Now > kMax - i_s64Milliseconds ? kMax
                                                                      : s64Now + i_s64Milliseconds;
}

SInt64 GetTimeInMcros()
{
    struct timespec stNow;
    if (clock_gettime(CLOCK_MONOTONIC, &stNow) != 0) {
        return -1;
    }
    return static_cast<SInt64>(stNow.tv_sec) * 1000000 + stNow.tv_nsec / 1000;
}

SInt64 GetMsTimeSince1970()
{
    struct timeval stNow;
    gettimeofday(&stNow, nullptr);
    return static_cast<SInt64>(stNow.tv_sec) * 1000 + stNow.tv_usec / 1000;
}

SInt64 GetMcrosecTimeSince1970()
{
    struct timeval stNow;
    gettimeofday(&stNow, nullptr);
    return static_cast<SInt64>(stNow.tv_sec) * 1000000 + stNow.tv_usec;
}
