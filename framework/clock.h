/*
 * Clocks. The monotonic ones are for intervals and deadlines, the wall-clock ones for time stamps.
 *
 * May be called from any thread.
 */
#pragma once

#include "framework/types.h"

/* CLOCK_MONOTONIC (clock_gettime(2)) in milliseconds; -1 if the clock fails. */
SInt64 GetTimeInMs();
/* The monotonic time that is so many milliseconds ahead; the end of time where the sum would not
 * fit. */
SInt64 GetDeadlineInMs(SInt64 i_s64Milliseconds);

/* --- Offered: the daemon uses nothing of what follows. --------------------------------------- */
/* CLOCK_MONOTONIC in microseconds; -1 if the clock fails. */
SInt64 GetTimeInMcros();
/* Wall clock (gettimeofday(2)) since 1970-01-01 UTC in milliseconds and microseconds. */
SInt64 GetMsTimeSince1970();
SInt64 GetMcrosecTimeSince1970();
