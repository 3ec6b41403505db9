#include "tests/support/fake_router.h"

#include <mutex>

#include "tests/support/wait_until.h"

namespace
{
std::mutex g_objMutex;
std::vector<MSG_DESC_INFO_S> g_stSent;
std::function<int(const MSG_DESC_INFO_S &, void *)> g_pHandler;
} // namespace

int SendSyncAndAsyncMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult)
{
    std::unique_lock objLock(g_objMutex);
    g_stSent.push_back(*i_pMsg);
    const auto pHandler = g_pHandler;
    objLock.unlock();
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
    std::vector<MSG_DESC_INFO_S> stFound = g_stSent;
    std::erase_if(stFound, [&](const MSG_DESC_INFO_S &stMsg) { return stMsg.msgno != i_u32MsgNo; });
    return stFound;
}

bool fake_router::WaitForSent(UInt32 i_u32MsgNo, std::size_t i_u64Count,
                              std::chrono::milliseconds i_objLimit)
{
    return WaitUntil([&] { return Sent(i_u32MsgNo).size() >= i_u64Count; }, i_objLimit);
}
