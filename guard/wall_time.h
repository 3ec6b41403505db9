/*
 * Times of day in the files that the guard writes, in seconds since 1970. Any thread.
 */
#pragma once

#include "framework/types.h"

/* Whether the number of a file, which may be anything, is one: not so far off that the arithmetic
 * of whoever reads it would not fit. */
constexpr Bool IsWallTime(double i_f64Seconds)
{
    return i_f64Seconds >= 0 && i_f64Seconds < 1e12;
}
