#include "tests/support/fake_router.h"

#include <algorithm>
#include <condition_variable>
#include <iterator>
#include <mutex>

namespace
{
std::mutex g_objMutex;
std::condition_variable g_objCond;
std::vector<MSG_DESC_INFO_S> g_stSent;
std::function<int(const MSG_DESC_INFO_S &, void *)> g_pHandler;

std::vector<MSG_DESC_INFO_S> SentLocked(UInt32 i_u32MsgNo)
{
    std::vector<MSG_DESC_INFO_S> stFound;
    std::copy_if(g_stSent.begin(), g_stSent.end(), std::back_inserter(stFound),
                 [&](const MSG_DESC_INFO_S &stMsg) { return stMsg.msgno == i_u32MsgNo; });
    return stFound;
}
} // namespace

int SendSyncAndAsyncMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult)
{
    std::function<int(const MSG_DESC_INFO_S &, void *)> pHandler;
    {
        std::lock_guard objLock(g_objMutex);
        g_stSent.push_back(*i_pMsg);
        pHandler = g_pHandler;
    }
    g_objCond.notify_all();
    return pHandler ? pHandler(*i_pMsg, o_pResult) : 1;
}

void fake_router::OnMessage(std::function<int(const MSG_DESC_INFO_S &, void *)> i_pHandler)
{
    std::lock_guard objLock(g_objMutex);
    g_pHandler = std::move(i_pHandler);
}

std::vector<MSG_DESC_INFO_S> fake_router::Sent(UInt32 i_u32MsgNo)
{
    std::lock_guard objLock(g_objMutex);
    return SentLocked(i_u32MsgNo);
}

bool fake_router::WaitForSent(UInt32 i_u32MsgNo, std::size_t i_u64Count,
                              std::chrono::milliseconds i_objLimit)
{
    std::unique_lock objLock(g_objMutex);
    return g_objCond.wait_for(objLock, i_objLimit,
                              [&] { return SentLocked(i_u32MsgNo).size() >= i_u64Count; });
}
