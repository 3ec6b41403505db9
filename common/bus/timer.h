/*
 * --- Offered: the module runs, but nothing in the daemon asks it for a timer. ---
 *
 * Timer module: keeps one-shot and periodic timers for the other modules and sends MSG_TIMEOUT
 * back to a timer's requester when it falls due.
 *
 * The thread uses its queue's wait as a clock: it scans the timers at least every 10 ms. All work
 * on them happens under the module mutex, also when a synchronous request runs in its sender's
 * thread. A timeout of a synchronous request is delivered in the scanning thread with that mutex
 * held; the requester's handler may set and cancel timers, its own included.
 */
#pragma once

#include <atomic>
#include <cstddef>
#include <map>

#include "common/bus/module.h"
#include "framework/types.h"

/* Timer request: head of the payload of MSG_SET_TIMER and MSG_CANCEL_TIMER. */
struct TIMER_REQUEST_S {
    UInt32 type;     /* 0 one-shot, else periodic */
    UInt32 id;       /* the requester's own number for the timer */
    UInt32 interval; /* until the timer is due, and its period, milliseconds */
};
static_assert(sizeof(TIMER_REQUEST_S) == 12);

/* One held timer; (src, type, id) identify it, though not uniquely. */
struct TIMER_INFO_S {
    UInt32 src; /* module id of the requester */
    UInt32 type;
    UInt32 id;
    UInt32 interval;
    SInt64 expiry; /* due time, milliseconds of GetTimeInMs(); 0 while its timeout is sent */
    MSG_DESC_INFO_S request;
};
static_assert(sizeof(TIMER_INFO_S) == 1080);
static_assert(offsetof(TIMER_INFO_S, expiry) == 16);

class CTimer : public CModule
{
public:
    CTimer();
    /* i_u32Wait: first wait for a message, milliseconds; at least 10. */
    explicit CTimer(unsigned int i_u32Wait);
    ~CTimer() override { StopAndWaitForThread(); }

    void Entry() override;

    /* Sends what is due and computes the next wait. */
    int HandleTimeout();
    int HandleSetTimer(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);
    int HandleCancelTimer(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);
    /* The router's result; 0 for a null record. */
    int SendTimeoutMsg(const TIMER_INFO_S *i_pTimer);

    /* The thread's next wait, milliseconds. */
    UInt32 GetWait() const { return m_u32Wait.load(std::memory_order_relaxed); }

private:
    int Dispatch(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult) override;

    std::atomic<UInt32> m_u32Wait;
    /* In order of insertion, by a running number. A walk finds its place by the number, because a
     * timeout that it sends can come back as a request that changes the list. */
    std::map<UInt64, TIMER_INFO_S> m_stTimers;
    UInt64 m_u64NextNumber;
};
