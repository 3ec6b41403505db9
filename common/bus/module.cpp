/*
 * Module base class: queue, mutex, thread body.
 */
#include "common/bus/module.h"

#include <unistd.h>

#include "common/bus/log.h"

namespace
{
constexpr int kPopTimeoutMs = 500;
} // namespace

int CModule::PushMsg(const MSG_DESC_INFO_S *i_pMsg)
{
    int s32Result = m_objMsgQueue.PushMsg(i_pMsg);
    if (s32Result == 0) {
        LogPushFail();
    }
    return s32Result;
}

int CModule::PopMsg(int i_s32Timeout, MSG_DESC_INFO_S *o_pMsg)
{
    return m_objMsgQueue.PopMsg(i_s32Timeout, o_pMsg);
}

int CModule::HandleMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult)
{
    CMutexLocker objLocker(&m_objMutex);
    return HandleSyncAsyncMsg(i_pMsg, o_pResult);
}

void CModule::BeginThread(const char *i_pName)
{
    SetName(i_pName);
    LOG_THREAD_INFO(i_pName);
}

void CModule::SendToSelf(UInt32 i_u32Module, UInt32 i_u32MsgNo)
{
    MSG_DESC_INFO_S stMsg = MakeMsg(MSG_TYPE_ASYNC, i_u32Module, i_u32Module, i_u32MsgNo);
    SendSyncAndAsyncMsg(&stMsg, nullptr);
}

void CModule::ServeUntilStop()
{
    while (!IsStopRequested()) {
        MSG_DESC_INFO_S stMsg = {};
        if (PopMsg(kPopTimeoutMs, &stMsg) != 0) {
            HandleMsg(&stMsg, nullptr);
        }
    }
}
