/*
 * Clocks: conversions of the system's readings, nothing kept.
 */
#include "framework/clock.h"

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
