/*
 * Timer module: thread body, requests, scan.
 */
#include "common/bus/timer.h"

#include <algorithm>
#include <climits>

#include "common/bus/log.h"
#include "common/bus/router.h"
#include "framework/clock.h"

namespace
{
constexpr UInt32 kWaitMs = 10;
} // namespace

CTimer::CTimer() : CTimer(kWaitMs) {}

CTimer::CTimer(unsigned int i_u32Wait)
    : CModule(MODULE_TIMER, "timer", "CTimer"), m_u32Wait(std::max(i_u32Wait, kWaitMs)),
      m_u64NextNumber(0)
{
}

void CTimer::Entry()
{
    BeginThread();
    while (!IsStopRequested()) {
        /* A wait that ends without a message leaves this one: scan the timers. */
        MSG_DESC_INFO_S stMsg = {};
        stMsg.msgno = MSG_TIMEOUT;
        PopMsg(static_cast<int>(std::min<UInt32>(GetWait(), INT_MAX)), &stMsg);
        HandleMsg(&stMsg, nullptr);
    }
}

int CTimer::Dispatch(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult)
{
    switch (i_pMsg->msgno) {
    case MSG_TIMEOUT:
        return HandleTimeout();
    case MSG_SET_TIMER:
        return HandleSetTimer(i_pMsg, o_pResult);
    case MSG_CANCEL_TIMER:
        return HandleCancelTimer(i_pMsg, o_pResult);
    default:
        return CModule::Dispatch(i_pMsg, o_pResult);
    }
}

int CTimer::HandleTimeout()
{
    const SInt64 s64Now = GetTimeInMs();
    SInt64 s64Next = 0;
    for (auto itTimer = m_stTimers.begin(); itTimer != m_stTimers.end();) {
        const UInt64 u64Number = itTimer->first;
        TIMER_INFO_S &stTimer = itTimer->second;
        const SInt64 s64Remaining = stTimer.expiry - s64Now;
        if (s64Remaining > 0) {
            /* Kept: the last pending timer of the list decides, not the nearest, so that a wait can
             * be 10 ms where a nearer one is due; no caller may count on less than the 10 ms. */
            s64Next = s64Remaining;
        } else if (stTimer.expiry > 0) {
            /* Not due again while it is being sent: the requester's handler may come back with a
             * request that scans the timers. */
            stTimer.expiry = 0;
            const TIMER_INFO_S stSent = stTimer;
            SendTimeoutMsg(&stSent);
            /* The handler may have cancelled it. */
            auto itSent = m_stTimers.find(u64Number);
            if (itSent != m_stTimers.end()) {
                itSent->second.expiry = GetTimeInMs() + itSent->second.interval;
                if (itSent->second.type == 0) {
                    m_stTimers.erase(itSent);
                }
            }
        }
        itTimer = m_stTimers.upper_bound(u64Number);
    }
    m_u32Wait.store(s64Next >= 1 && s64Next <= kWaitMs ? static_cast<UInt32>(s64Next) : kWaitMs,
                    std::memory_order_relaxed);
    return 1;
}

int CTimer::HandleSetTimer(const MSG_DESC_INFO_S *i_pMsg, void *)
{
    if (i_pMsg == nullptr) {
        return 0;
    }
    const TIMER_REQUEST_S stRequest = PayloadOf<TIMER_REQUEST_S>(*i_pMsg);
    const SInt64 s64Expiry = GetTimeInMs() + stRequest.interval;
    LOG_INFO("add timer src:%d, type:%d, id:%d", static_cast<int>(i_pMsg->src),
             static_cast<int>(stRequest.type), static_cast<int>(stRequest.id));
    m_stTimers.emplace(m_u64NextNumber, TIMER_INFO_S{i_pMsg->src, stRequest.type, stRequest.id,
                                                     stRequest.interval, s64Expiry, *i_pMsg});
    m_u64NextNumber++;
    HandleTimeout();
    return 1;
}

int CTimer::HandleCancelTimer(const MSG_DESC_INFO_S *i_pMsg, void *)
{
    if (i_pMsg == nullptr) {
        return 0;
    }
    const TIMER_REQUEST_S stRequest = PayloadOf<TIMER_REQUEST_S>(*i_pMsg);
    std::erase_if(m_stTimers, [&](const auto &objEntry) {
        const TIMER_INFO_S &stTimer = objEntry.second;
        if (stTimer.src != i_pMsg->src || stTimer.type != stRequest.type ||
            stTimer.id != stRequest.id) {
            return false;
        }
        LOG_INFO("cancel timer src:%d, type:%d, id:%d", static_cast<int>(stTimer.src),
                 static_cast<int>(stTimer.type), static_cast<int>(stTimer.id));
        return true;
    });
    return 1;
}

int CTimer::SendTimeoutMsg(const TIMER_INFO_S *i_pTimer)
{
    if (i_pTimer == nullptr) {
        return 0;
    }
    MSG_DESC_INFO_S stMsg =
        MakeMsg(i_pTimer->request.msgtype, MODULE_TIMER, i_pTimer->request.src, MSG_TIMEOUT);
    PutPayload(&stMsg, i_pTimer->request.payload);
    return SendSyncAndAsyncMsg(&stMsg, nullptr);
}
