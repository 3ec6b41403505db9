/*
 * Condition variable over a CMutex, with timeouts in milliseconds.
 *
 * A wait returns nothing: after it the caller holds the mutex again and must test its predicate,
 * since a time-out, a signal and a spurious wake-up look the same (pthread_cond_wait(3p)).
 */
#pragma once

#include <pthread.h>

class CMutex;

class CCond
{
public:
    CCond();
    ~CCond();
    CCond(const CCond &) = delete;
    CCond &operator=(const CCond &) = delete;

    /* Gives up i_pMutex (which the caller holds) and waits for a signal or the time-out.
     * i_s32TimeoutInMilSecs: milliseconds; 0 waits without limit. */
    void Wait(CMutex *i_pMutex, int i_s32TimeoutInMilSecs)
    {
        TimedWait(i_pMutex, i_s32TimeoutInMilSecs);
    }

    /* As Wait. The part of the time-out below a second is coarsened: above 10 ms it is cut to a
     * multiple of ten, less two; otherwise it is 5 ms. So 1000 waits 1005 ms and 15 waits 8 ms.
     * A mutex that was locked more than once is given up all the same, while its count stays
     * above zero: lock it once before waiting. */
    void TimedWait(CMutex *i_pMutex, int i_s32TimeoutInMilSecs);

    void Signal() { pthread_cond_signal(&m_stCond); }
    void Broadcast() { pthread_cond_broadcast(&m_stCond); }

private:
    pthread_cond_t m_stCond;
};
