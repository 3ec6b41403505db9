/*
 * Encoder module: carries out the plans of its rules on the two workers.
 *
 * Everything here runs on the encoder thread but PushMsg.
 */
#include "common/stream/encoder.h"

#include <cassert>

#include "common/box/utils.h"
#include "common/bus/log.h"
#include "common/bus/router.h"

namespace
{
constexpr int kSettingsPolls = 10;
constexpr unsigned int kSettingsPollMs = 100;

/* Ends a worker for good: the stop request comes first, so that a start that it is just taking
 * from its queue is not begun. */
void EndWorker(std::unique_ptr<CGstEnc> &io_pWorker)
{
    if (io_pWorker) {
        io_pWorker->SendStopRequest();
        io_pWorker->HandleStopMsgEnc(nullptr, nullptr);
        io_pWorker->Join();
        io_pWorker.reset();
    }
}

/* A line of the rules, under their file and line. */
void WriteLine(SInt32 i_s32Level, const char *i_pText, unsigned i_u32Line)
{
    if (LogEnabled(i_s32Level)) {
        LogWrite(i_s32Level, "%s --[%s:%u]", i_pText, CEncoderRules::s_pFile, i_u32Line);
    }
}
} // namespace

CEncoder::CEncoder() : CModule(MODULE_ENCODER, "encoder", "CEncoder", MSG_INIT) {}

CEncoder::~CEncoder()
{
    StopAndWaitForThread();
}

void CEncoder::OnStopped()
{
    LOG_INFO("encoder stop running");
    EndWorker(m_pGstEncH264);
    EndWorker(m_pGstEncJpeg);
}

int CEncoder::Dispatch(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult)
{
    switch (i_pMsg->msgno) {
    case MSG_ENC_INIT:
        return HandleEncInitMsg(i_pMsg, o_pResult);
    case MSG_ENC_DEINIT:
        return HandleEncDeinitMsg(i_pMsg, o_pResult);
    case MSG_ENC_VIDEO_CHG:
        return HandleEncVideoChgMsg(i_pMsg, o_pResult);
    case MSG_ENC_SET_STREAM_STATUS:
        return HandleSetStreamStatusMsg(i_pMsg, o_pResult);
    case MSG_ENC_JPEG_FILE_STATUS:
        return HandleJpegFileStatusMsg(i_pMsg, o_pResult);
    default:
        return CModule::Dispatch(i_pMsg, o_pResult);
    }
}

int CEncoder::HandleInitMsg(const MSG_DESC_INFO_S *, void *)
{
    CreateWorkers();
    QueryStreamStatus();
    return 1;
}

/* An announcement of the input can come before the module's own first message: the workers are
 * made here then, so that the timing is not lost. */
int CEncoder::HandleEncVideoChgMsg(const MSG_DESC_INFO_S *i_pMsg, void *)
{
    CreateWorkers();
    return CarryOut(m_objRules.OnTiming(PayloadOf<INPUT_TIMING_S>(*i_pMsg),
                                        SettleStartStatus(ENC_WORKER::kH264)));
}

int CEncoder::HandleSetStreamStatusMsg(const MSG_DESC_INFO_S *i_pMsg, void *)
{
    const STREAM_STATUS_S stNew = PayloadOf<STREAM_STATUS_S>(*i_pMsg);
    MSG_DESC_INFO_S stForward =
        MakeMsg(MSG_TYPE_ASYNC, MODULE_ENCODER, MODULE_CONFIG, MSG_SET_STREAM_STATUS);
    PutPayload(&stForward, stNew);
    SendSyncAndAsyncMsg(&stForward, nullptr);
    return CarryOut(m_objRules.OnSettings(stNew));
}

int CEncoder::HandleJpegFileStatusMsg(const MSG_DESC_INFO_S *i_pMsg, void *)
{
    return CarryOut(m_objRules.OnPreviewReport(
        PayloadOf<JPEG_FILE_STATUS_S>(*i_pMsg), StartStatus(ENC_WORKER::kH264),
        m_pGstEncJpeg != nullptr, StartStatus(ENC_WORKER::kJpeg)));
}

int CEncoder::HandleEncInitMsg(const MSG_DESC_INFO_S *, void *)
{
    CreateWorkers();
    return CarryOut(m_objRules.OnPlainStart());
}

int CEncoder::HandleEncDeinitMsg(const MSG_DESC_INFO_S *, void *)
{
    CreateWorkers();
    LOG_INFO("enc deinit msg");
    return m_pGstEncH264->HandleStopMsgEnc(nullptr, nullptr);
}

void CEncoder::CreateWorkers()
{
    if (!m_pGstEncH264) {
        m_pGstEncH264 = std::make_unique<CGstEnc>("gst-h264", MODULE_GST_H264);
        m_pGstEncH264->Start();
        LOG_INFO("start gst enc thread");
    }
    if (!m_pGstEncJpeg) {
        m_pGstEncJpeg = std::make_unique<CGstEnc>("gst-jpeg", MODULE_GST_JPEG);
        m_pGstEncJpeg->Start();
        LOG_INFO("start gst enc jpeg thread");
    }
}

CGstEnc *CEncoder::Worker(ENC_WORKER i_eWorker) const
{
    return i_eWorker == ENC_WORKER::kH264 ? m_pGstEncH264.get() : m_pGstEncJpeg.get();
}

SInt32 CEncoder::StartStatus(ENC_WORKER i_eWorker) const
{
    CGstEnc *pWorker = Worker(i_eWorker);
    return pWorker != nullptr ? pWorker->GetStartStatus() : 0;
}

SInt32 CEncoder::SettleStartStatus(ENC_WORKER i_eWorker) const
{
    CGstEnc *pWorker = Worker(i_eWorker);
    return pWorker != nullptr ? pWorker->SettleStartStatus() : 0;
}

/* A query that is not answered (the running mutex stayed busy) leaves the last answer as it is. */
void CEncoder::QueryAddrList()
{
    MSG_DESC_INFO_S stMsg =
        MakeMsg(MSG_TYPE_SYNC, MODULE_ENCODER, MODULE_CONFIG, MSG_GET_ADDR_LIST);
    char szAddrList[512 + 1] = "";
    if (SendSyncAndAsyncMsg(&stMsg, szAddrList)) {
        m_objRules.AnswerAddrList(szAddrList);
    }
}

void CEncoder::QueryMulticastIp()
{
    std::string strIp;
    get_multicast_ip(strIp, "eth0");
    LOG_INFO("multicast ip : %s ", strIp.c_str());
    m_objRules.AnswerMulticastIp(strIp);
}

void CEncoder::QueryStreamStatus()
{
    MSG_DESC_INFO_S stMsg =
        MakeMsg(MSG_TYPE_SYNC, MODULE_ENCODER, MODULE_CONFIG, MSG_GET_STREAM_STATUS);
    STREAM_STATUS_S stStatus = {};
    if (SendSyncAndAsyncMsg(&stMsg, &stStatus)) {
        m_objRules.AnswerSettings(stStatus);
    }
}

void CEncoder::AwaitStreamStatus()
{
    for (int i = 0; i < kSettingsPolls && !m_objRules.HasSettings() && !IsStopRequested(); i++) {
        if (i > 0) {
            Sleep(kSettingsPollMs);
        }
        QueryStreamStatus();
    }
}

/* Always 1. A stop request leaves the rest of the plan undone: the workers are stopped next. */
int CEncoder::CarryOut(ENC_PLAN i_objPlan)
{
    m_objUnawaited.clear();
    for (; !i_objPlan.empty(); i_objPlan = m_objRules.GoOn()) {
        for (const ENC_STEP_S &stStep : i_objPlan) {
            if (IsStopRequested()) {
                return 1;
            }
            CarryOut(stStep);
        }
    }
    /* Until it is taken a worker counts as not started, and the next message would start it once
     * more. */
    for (const UNAWAITED_S &stStart : m_objUnawaited) {
        stStart.pWorker->AwaitStart(stStart.u64Number, *this);
    }
    return 1;
}

void CEncoder::CarryOut(const ENC_STEP_S &i_stStep)
{
    switch (i_stStep.eAct) {
    case ENC_ACT::kLog:
        return WriteLine(i_stStep.s32Level, i_stStep.strText.c_str(), i_stStep.u32Line);
    case ENC_ACT::kStop:
        Worker(i_stStep.eWorker)->HandleStopMsgEnc(nullptr, nullptr);
        return;
    case ENC_ACT::kPause:
        return Sleep(i_stStep.u32Ms);
    case ENC_ACT::kSettle:
        return m_objRules.AnswerStarted(i_stStep.eWorker, SettleStartStatus(i_stStep.eWorker));
    case ENC_ACT::kAwaitSettings:
        return AwaitStreamStatus();
    case ENC_ACT::kAskSettings:
        return QueryStreamStatus();
    case ENC_ACT::kAskAddrList:
        return QueryAddrList();
    case ENC_ACT::kAskMulticastIp:
        return QueryMulticastIp();
    case ENC_ACT::kStart:
        return StartPipeline(i_stStep);
    }
}

/* The one way in which a pipeline is started. A start behind a run is not waited for: the worker
 * comes to it when the run is over. */
void CEncoder::StartPipeline(const ENC_STEP_S &i_stStep)
{
    CGstEnc *pWorker = Worker(i_stStep.eWorker);
    assert(pWorker != nullptr);
    const bool bBehindRun = pWorker->GetStartStatus() != 0;
    const UInt64 u64Number = pWorker->PushStart(i_stStep.strText);
    if (i_stStep.pTaken == nullptr) {
        if (!bBehindRun) {
            m_objUnawaited.push_back({pWorker, u64Number});
        }
        return;
    }
    switch (pWorker->AwaitStart(u64Number, *this)) {
    case ENC_START::kTaken:
        return WriteLine(log4cpp::Priority::INFO, i_stStep.pTaken, i_stStep.u32Line);
    case ENC_START::kLate:
        return WriteLine(log4cpp::Priority::WARN, i_stStep.pLate, i_stStep.u32Line);
    case ENC_START::kGivenUp:
        return;
    }
}
