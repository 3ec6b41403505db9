/*
 * Condition variable: the mutex's bookkeeping around the POSIX wait, and the deadline arithmetic.
 *
 * Deadlines are in real time, as the default attribute of pthread_cond_init(3p) has it.
 */
#include "framework/cond.h"

#include <sys/time.h>

#include "framework/assertion.h"
#include "framework/mutex.h"

CCond::CCond()
{
    [[maybe_unused]] int ret = pthread_cond_init(&m_stCond, nullptr);
    assert(ret == 0);
}

CCond::~CCond()
{
    pthread_cond_destroy(&m_stCond);
}

void CCond::TimedWait(CMutex *i_pMutex, int i_s32TimeoutInMilSecs)
{
    i_pMutex->m_u32HolderCount--;
    i_pMutex->m_stHolder.store(0, std::memory_order_relaxed);

    if (0 == i_s32TimeoutInMilSecs) {
        pthread_cond_wait(&m_stCond, &i_pMutex->m_stMutex);
    } else {
        struct timeval stTimeValue;
        gettimeofday(&stTimeValue, nullptr);
        int s32Secs = i_s32TimeoutInMilSecs / 1000;
        i_s32TimeoutInMilSecs -= s32Secs * 1000;
        /* Kept: the coarse steps let waits that are due close together end together. */
        if (i_s32TimeoutInMilSecs > 10) {
            i_s32TimeoutInMilSecs = i_s32TimeoutInMilSecs - (i_s32TimeoutInMilSecs % 10) - 2;
        } else {
            i_s32TimeoutInMilSecs = 5;
        }
        assert(i_s32TimeoutInMilSecs < 1000);
        assert(stTimeValue.tv_usec < 1000000);

        struct timespec stTimeSpec;
        stTimeSpec.tv_sec = stTimeValue.tv_sec + s32Secs;
        stTimeSpec.tv_nsec = (stTimeValue.tv_usec + i_s32TimeoutInMilSecs * 1000L) * 1000L;
        assert(stTimeSpec.tv_nsec < 2000000000);
        if (stTimeSpec.tv_nsec > 999999999) {
            stTimeSpec.tv_sec++;
            stTimeSpec.tv_nsec -= 1000000000;
        }
        pthread_cond_timedwait(&m_stCond, &i_pMutex->m_stMutex, &stTimeSpec);
    }

    i_pMutex->m_u32HolderCount++;
    i_pMutex->m_stHolder.store(pthread_self(), std::memory_order_relaxed);
}
