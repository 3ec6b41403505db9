/*
 * Module base class: queue, mutex, thread body.
 */
#include "common/bus/module.h"

#include <unistd.h>

#include "common/bus/log.h"
#include "common/bus/router.h"

namespace
{
constexpr int kPopTimeoutMs = 500;
} // namespace

CModule::CModule(UInt32 i_u32Module, const std::string &i_strName, const char *i_pLogName,
                 UInt32 i_u32FirstMsgNo)
    : m_u32Module(i_u32Module), m_strName(i_strName), m_pLogName(i_pLogName),
      m_u32FirstMsgNo(i_u32FirstMsgNo)
{
}

void CModule::Entry()
{
    BeginThread();
    if (m_u32FirstMsgNo != NO_MSG) {
        MSG_DESC_INFO_S stFirst =
            MakeMsg(MSG_TYPE_ASYNC, m_u32Module, m_u32Module, m_u32FirstMsgNo);
        SendSyncAndAsyncMsg(&stFirst, nullptr);
    }
    while (!IsStopRequested()) {
        MSG_DESC_INFO_S stMsg = {};
        if (PopMsg(kPopTimeoutMs, &stMsg) != 0) {
            HandleMsg(&stMsg, nullptr);
        }
    }
    OnStopped();
}

void CModule::BeginThread() const
{
    SetName(m_strName.c_str());
    LOG_THREAD_INFO(m_strName.c_str());
}

int CModule::PushMsg(const MSG_DESC_INFO_S *i_pMsg)
{
    int s32Result = m_objMsgQueue.PushMsg(i_pMsg);
    if (s32Result == 0) {
        LogPushFail();
    }
    return s32Result;
}

void CModule::LogPushFail() const
{
    LOG_ERROR("%s pushmsg fail", m_pLogName);
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

int CModule::HandleSyncAsyncMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult)
{
    return i_pMsg != nullptr ? Dispatch(i_pMsg, o_pResult) : 0;
}

int CModule::Dispatch(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult)
{
    switch (i_pMsg->msgno) {
    case MSG_INIT:
        return HandleInitMsg(i_pMsg, o_pResult);
    case MSG_DEINIT:
        return HandleDeinitMsg(i_pMsg, o_pResult);
    case MSG_REINIT:
        return HandleReinitMsg(i_pMsg, o_pResult);
    default:
        return 1;
    }
}

int CModule::HandleInitMsg(const MSG_DESC_INFO_S *, void *)
{
    return 1;
}

int CModule::HandleDeinitMsg(const MSG_DESC_INFO_S *, void *)
{
    return 1;
}

int CModule::HandleReinitMsg(const MSG_DESC_INFO_S *, void *)
{
    return 1;
}

void CModule::SendStopRequest()
{
    CThread::SendStopRequest();
    m_objMsgQueue.StopWaiting();
}

void CModule::StopAndWaitForThread()
{
    SendStopRequest();
    CThread::StopAndWaitForThread();
}
