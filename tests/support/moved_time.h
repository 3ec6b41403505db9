/*
 * Moves time for the code under test instead of sleeping through it.
 *
 * The test programs are linked so that the daemon's own calls of usleep(3), clock_gettime(2),
 * gettimeofday(2) and time(2) pass through here; calls inside shared libraries do not. The
 * deadlines that it computes for pthread_cond_timedwait(3p) are moved back. Until a test asks for
 * something else every call goes straight to the system.
 */
#pragma once

#include <cstdint>

namespace moved_time
{
/* Sleeps of usleep() last 1/i_u32Divisor of what was asked for (1: as asked). */
void DivideSleeps(unsigned i_u32Divisor);
/* The clocks, monotonic and real, run this much ahead of the system's from now on. */
void Advance(std::int64_t i_s64Milliseconds);
/* What was asked of usleep() so far, in microseconds, over all threads. */
std::uint64_t SleptMicroseconds();
/* What the latest pthread_cond_timedwait() had before it when it was called, in microseconds. */
std::int64_t LeftOfLastWait();
} // namespace moved_time
