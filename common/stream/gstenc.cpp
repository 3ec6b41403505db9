/*
 * Pipeline worker: the module thread pattern around one pipeline runner.
 */
#include "common/stream/gstenc.h"

#include "common/bus/log.h"

CGstEnc::CGstEnc() : CGstEnc("gst-enc") {}

CGstEnc::CGstEnc(const std::string &i_strName, UInt32 i_u32Module)
    : CModule(i_u32Module, i_strName.empty() ? "gst-enc" : i_strName, "CGstEnc"),
      m_objGstObj(i_strName), m_iStartStatus(0), m_strName(i_strName)
{
}

CGstEnc::~CGstEnc()
{
    /* The request comes first, lest the thread takes a queued start when its run has ended. */
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
        return HandleStartMsgEnc(i_pMsg, i_pArg);
    case MSG_STOP:
        /* Could only be read when the run it is meant for is over. */
        return 0;
    default:
        return 1;
    }
}

int CGstEnc::HandleInitMsgEnc(const MSG_DESC_INFO_S *, void *)
{
    return 1;
}

int CGstEnc::HandleDeinitMsgEnc(const MSG_DESC_INFO_S *, void *)
{
    return 1;
}

int CGstEnc::HandleReinitMsgEnc(const MSG_DESC_INFO_S *, void *)
{
    return 1;
}

int CGstEnc::HandleStartMsgEnc(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg)
{
    if (m_iStartStatus.load() != 0) {
        LOG_WARN("gstreamer need stop");
        m_objGstObj.HandleStopMsgEnc(nullptr, nullptr);
    }
    LOG_INFO("gstreamer start, old status:%d", m_iStartStatus.load());
    /* Announced before the status says so: whoever reads 1 and stops at once stops this start. */
    m_objGstObj.PrepareStart();
    m_iStartStatus.store(1);
    int s32Result = 0;
    if (!IsStopRequested()) {
        s32Result = m_objGstObj.HandleStartMsgEnc(i_pMsg, i_pArg);
    }
    m_objGstObj.CancelStart();
    return s32Result;
}

int CGstEnc::HandleStopMsgEnc(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg)
{
    LOG_INFO("gstreamer stop %s, old status:%d", m_strName.c_str(), m_iStartStatus.load());
    m_iStartStatus.store(0);
    return m_objGstObj.HandleStopMsgEnc(i_pMsg, i_pArg);
}
