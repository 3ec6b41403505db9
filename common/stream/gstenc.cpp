/*
 * Pipeline worker: the numbers of its starts, and one pipeline runner.
 */
#include "common/stream/gstenc.h"

#include "common/bus/log.h"

namespace
{
constexpr int kStartPolls = 99;
constexpr unsigned int kStartPollMs = 100;
} // namespace

CGstEnc::CGstEnc() : CGstEnc("gst-enc") {}

CGstEnc::CGstEnc(const std::string &i_strName, UInt32 i_u32Module)
    : CModule(i_u32Module, i_strName.empty() ? "gst-enc" : i_strName, "CGstEnc"),
      m_objGstObj(i_strName), m_iStartStatus(0), m_strName(i_strName), m_u64Queued(0),
      m_u64Popped(0), m_u64Superseded(0), m_u64Taken(0)
{
}

CGstEnc::~CGstEnc()
{
    /* The request comes first, so that the thread takes no further start when its run has ended. */
    SendStopRequest();
    m_objGstObj.HandleStopMsgEnc(nullptr, nullptr);
    StopAndWaitForThread();
}

void CGstEnc::OnStopped()
{
    LOG_INFO("%s stop running", m_strName.c_str());
    HandleStopMsgEnc(nullptr, nullptr);
}

void CGstEnc::LogPushFail() const
{
    LOG_ERROR("CGstEnc pushmsg to %s fail", m_strName.c_str());
}

int CGstEnc::Dispatch(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg)
{
    switch (i_pMsg->msgno) {
    case MSG_INIT:
        return HandleInitMsgEnc(i_pMsg, i_pArg);
    case MSG_DEINIT:
        return HandleDeinitMsgEnc(i_pMsg, i_pArg);
    case MSG_REINIT:
        return HandleReinitMsgEnc(i_pMsg, i_pArg);
    case MSG_START:
        return RunStart(i_pMsg, i_pArg, NextNumber());
    case MSG_STOP:
        /* Could only be read when the run it is meant for is over. */
        return 0;
    default:
        return 1;
    }
}

int CGstEnc::PushMsg(const MSG_DESC_INFO_S *i_pMsg)
{
    if (i_pMsg != nullptr && i_pMsg->msgno == MSG_START) {
        return PushNumbered(*i_pMsg) != 0 ? 1 : 0;
    }
    return CModule::PushMsg(i_pMsg);
}

UInt64 CGstEnc::PushStart(const std::string &i_strCmd)
{
    MSG_DESC_INFO_S stMsg = MakeMsg(MSG_TYPE_ASYNC, MODULE_ENCODER, GetModuleId(), MSG_START);
    PutText(&stMsg, i_strCmd);
    return PushNumbered(stMsg);
}

UInt64 CGstEnc::PushNumbered(const MSG_DESC_INFO_S &i_stMsg)
{
    CMutexLocker objLocker(&m_objStartMutex);
    return CModule::PushMsg(&i_stMsg) != 0 ? ++m_u64Queued : 0;
}

/* The number of the start that has just come out of the queue: they come out as they went in. */
UInt64 CGstEnc::NextNumber()
{
    CMutexLocker objLocker(&m_objStartMutex);
    return m_u64Popped < m_u64Queued ? ++m_u64Popped : 0;
}

ENC_START CGstEnc::AwaitStart(UInt64 i_u64Number, const CThread &i_objOwner)
{
    for (int i = 0; i < kStartPolls; i++) {
        if (i_objOwner.IsStopRequested()) {
            return ENC_START::kGivenUp;
        }
        {
            CMutexLocker objLocker(&m_objStartMutex);
            if (i_u64Number != 0 && m_u64Taken == i_u64Number) {
                return ENC_START::kTaken;
            }
        }
        CThread::Sleep(kStartPollMs);
    }
    return ENC_START::kLate;
}

int CGstEnc::SettleStartStatus()
{
    CMutexLocker objLocker(&m_objStartMutex);
    if (m_iStartStatus.load() == 0) {
        m_u64Superseded = m_u64Queued;
    }
    return m_iStartStatus.load();
}

bool CGstEnc::IsSuperseded(UInt64 i_u64Number)
{
    CMutexLocker objLocker(&m_objStartMutex);
    return i_u64Number != 0 && (i_u64Number <= m_u64Superseded || i_u64Number < m_u64Queued);
}

int CGstEnc::HandleStartMsgEnc(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg)
{
    return RunStart(i_pMsg, i_pArg, 0);
}

/* A start of number 0 was not queued and is never superseded. */
int CGstEnc::RunStart(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg, UInt64 i_u64Number)
{
    if (IsSuperseded(i_u64Number)) {
        LOG_DEBUG("superseded start skipped in [%s]", m_strName.c_str());
        return 0;
    }
    if (m_iStartStatus.load() != 0) {
        LOG_WARN("gstreamer need stop");
        m_objGstObj.HandleStopMsgEnc(nullptr, nullptr);
    }
    LOG_INFO("gstreamer start, old status:%d", m_iStartStatus.load());
    UInt64 u64Announced = 0;
    int s32Result = 0;
    if (TakeStart(i_u64Number, &u64Announced) && !IsStopRequested()) {
        s32Result = m_objGstObj.HandleStartMsgEnc(i_pMsg, i_pArg);
    }
    m_objGstObj.CancelStart(u64Announced);
    return s32Result;
}

/* False if the start has been superseded after all. One that is taken is announced before the
 * status says so: whoever reads 1 and stops at once stops this start. */
bool CGstEnc::TakeStart(UInt64 i_u64Number, UInt64 *o_pAnnounced)
{
    CMutexLocker objLocker(&m_objStartMutex);
    if (IsSuperseded(i_u64Number)) {
        return false;
    }
    *o_pAnnounced = m_objGstObj.PrepareStart();
    if (i_u64Number != 0) {
        m_u64Taken = i_u64Number;
    }
    m_iStartStatus.store(1);
    return true;
}

int CGstEnc::HandleStopMsgEnc(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg)
{
    LOG_INFO("gstreamer stop %s, old status:%d", m_strName.c_str(), m_iStartStatus.load());
    {
        CMutexLocker objLocker(&m_objStartMutex);
        m_iStartStatus.store(0);
        m_u64Superseded = m_u64Queued;
    }
    return m_objGstObj.HandleStopMsgEnc(i_pMsg, i_pArg);
}
