#include "tests/support/moved_time.h"

#include <atomic>

#include <pthread.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

namespace
{
std::atomic<unsigned> g_u32Divisor{1};
std::atomic<std::int64_t> g_s64AheadMs{0};
std::atomic<std::uint64_t> g_u64Slept{0};
std::atomic<std::int64_t> g_s64Left{0};
} // namespace

extern "C" {
int __real_usleep(useconds_t);
int __real_clock_gettime(clockid_t, struct timespec *);
int __real_gettimeofday(struct timeval *, void *);
time_t __real_time(time_t *);
int __real_pthread_cond_timedwait(pthread_cond_t *, pthread_mutex_t *, const struct timespec *);

int __wrap_usleep(useconds_t i_u32Microseconds)
{
    g_u64Slept += i_u32Microseconds;
    return __real_usleep(i_u32Microseconds / g_u32Divisor);
}

int __wrap_clock_gettime(clockid_t i_s32Clock, struct timespec *o_pTime)
{
    int s32Err = __real_clock_gettime(i_s32Clock, o_pTime);
    std::int64_t s64Nanoseconds = o_pTime->tv_nsec + (g_s64AheadMs % 1000) * 1000000;
    o_pTime->tv_sec += g_s64AheadMs / 1000 + s64Nanoseconds / 1000000000;
    o_pTime->tv_nsec = s64Nanoseconds % 1000000000;
    return s32Err;
}

int __wrap_gettimeofday(struct timeval *o_pTime, void *i_pZone)
{
    int s32Err = __real_gettimeofday(o_pTime, i_pZone);
    std::int64_t s64Microseconds = o_pTime->tv_usec + (g_s64AheadMs % 1000) * 1000;
    o_pTime->tv_sec += g_s64AheadMs / 1000 + s64Microseconds / 1000000;
    o_pTime->tv_usec = s64Microseconds % 1000000;
    return s32Err;
}

time_t __wrap_time(time_t *o_pTime)
{
    time_t s64Now = __real_time(nullptr) + g_s64AheadMs / 1000;
    if (o_pTime != nullptr) {
        *o_pTime = s64Now;
    }
    return s64Now;
}

int __wrap_pthread_cond_timedwait(pthread_cond_t *i_pCond, pthread_mutex_t *i_pMutex,
                                  const struct timespec *i_pDeadline)
{
    const std::int64_t s64AheadMs = g_s64AheadMs;
    struct timespec stDeadline = *i_pDeadline;
    std::int64_t s64Nanoseconds = stDeadline.tv_nsec - (s64AheadMs % 1000) * 1000000;
    stDeadline.tv_sec -= s64AheadMs / 1000 + (s64Nanoseconds < 0 ? 1 : 0);
    stDeadline.tv_nsec = s64Nanoseconds + (s64Nanoseconds < 0 ? 1000000000 : 0);
    struct timeval stNow;
    __real_gettimeofday(&stNow, nullptr);
    g_s64Left =
        (stDeadline.tv_sec - stNow.tv_sec) * 1000000 + stDeadline.tv_nsec / 1000 - stNow.tv_usec;
    return __real_pthread_cond_timedwait(i_pCond, i_pMutex, &stDeadline);
}
}

void moved_time::DivideSleeps(unsigned i_u32Divisor)
{
    g_u32Divisor = i_u32Divisor;
}

void moved_time::Advance(std::int64_t i_s64Milliseconds)
{
    g_s64AheadMs += i_s64Milliseconds;
}

std::uint64_t moved_time::SleptMicroseconds()
{
    return g_u64Slept;
}

std::int64_t moved_time::LeftOfLastWait()
{
    return g_s64Left;
}

void moved_time::Reset()
{
    g_u32Divisor = 1;
    g_s64AheadMs = 0;
    g_u64Slept = 0;
}
