#include "tests/support/moved_time.h"

#include <atomic>

#include <pthread.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

namespace
{
constexpr std::int64_t kSecond = 1000000000; /* in nanoseconds */

std::atomic<unsigned> g_u32Divisor{1};
std::atomic<std::int64_t> g_s64Ahead{0}; /* in nanoseconds */
std::atomic<std::uint64_t> g_u64Slept{0};
std::atomic<std::int64_t> g_s64Left{0};

void Move(struct timespec *io_pTime, std::int64_t i_s64Nanoseconds)
{
    const std::int64_t s64Time = io_pTime->tv_sec * kSecond + io_pTime->tv_nsec + i_s64Nanoseconds;
    *io_pTime = {s64Time / kSecond, s64Time % kSecond};
}
} // namespace

extern "C" {
int __real_usleep(useconds_t);
int __real_clock_gettime(clockid_t, struct timespec *);
int __real_pthread_cond_timedwait(pthread_cond_t *, pthread_mutex_t *, const struct timespec *);

int __wrap_usleep(useconds_t i_u32Microseconds)
{
    g_u64Slept += i_u32Microseconds;
    return __real_usleep(i_u32Microseconds / g_u32Divisor);
}

int __wrap_clock_gettime(clockid_t i_s32Clock, struct timespec *o_pTime)
{
    const int s32Err = __real_clock_gettime(i_s32Clock, o_pTime);
    Move(o_pTime, g_s64Ahead);
    return s32Err;
}

int __wrap_gettimeofday(struct timeval *o_pTime, void *)
{
    struct timespec stNow;
    const int s32Err = __wrap_clock_gettime(CLOCK_REALTIME, &stNow);
    *o_pTime = {stNow.tv_sec, stNow.tv_nsec / 1000};
    return s32Err;
}

time_t __wrap_time(time_t *)
{
    struct timespec stNow;
    __wrap_clock_gettime(CLOCK_REALTIME, &stNow);
    return stNow.tv_sec;
}

int __wrap_pthread_cond_timedwait(pthread_cond_t *i_pCond, pthread_mutex_t *i_pMutex,
                                  const struct timespec *i_pDeadline)
{
    struct timespec stDeadline = *i_pDeadline;
    Move(&stDeadline, -g_s64Ahead);
    struct timespec stNow;
    __real_clock_gettime(CLOCK_REALTIME, &stNow);
    g_s64Left =
        (stDeadline.tv_sec - stNow.tv_sec) * 1000000 + (stDeadline.tv_nsec - stNow.tv_nsec) / 1000;
    return __real_pthread_cond_timedwait(i_pCond, i_pMutex, &stDeadline);
}
}

void moved_time::DivideSleeps(unsigned i_u32Divisor)
{
    g_u32Divisor = i_u32Divisor;
}

void moved_time::Advance(std::int64_t i_s64Milliseconds)
{
    g_s64Ahead += i_s64Milliseconds * 1000000;
}

std::uint64_t moved_time::SleptMicroseconds()
{
    return g_u64Slept;
}

std::int64_t moved_time::LeftOfLastWait()
{
    return g_s64Left;
}
