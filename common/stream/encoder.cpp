/*
 * Encoder module: the input timing, the stream settings and the preview's supervision.
 *
 * Everything here runs on the encoder thread but PushMsg. The fixed pauses (50 ms after a stop,
 * 1 s before an H.264 start) give the capture driver time to let go of the device.
 */
#include "common/stream/encoder.h"

#include "common/box/utils.h"
#include "common/bus/log.h"
#include "common/bus/router.h"
#include "common/stream/pipeline_desc.h"

namespace
{
constexpr unsigned int kPauseAfterStopMs = 50;
constexpr unsigned int kPauseBeforeStartMs = 1000;
constexpr int kSettingsPolls = 10;
constexpr unsigned int kSettingsPollMs = 100;
constexpr int kStartPolls = 99;
constexpr unsigned int kStartPollMs = 100;
/* The preview counts as stalled when its count stood still for longer than this. */
constexpr SInt64 kPreviewStallSecs = 9;

int StartStatus(const std::unique_ptr<CGstEnc> &i_pWorker)
{
    return i_pWorker ? i_pWorker->GetStartStatus() : 0;
}

/* As the lines show a setting: "unchanged" is -1. */
SInt32 Signed(UInt32 i_u32Setting)
{
    return static_cast<SInt32>(i_u32Setting);
}

void PushStart(CGstEnc &i_objWorker, const std::string &i_strCmd)
{
    MSG_DESC_INFO_S stMsg =
        MakeMsg(MSG_TYPE_ASYNC, MODULE_ENCODER, i_objWorker.GetModuleId(), MSG_START);
    PutText(&stMsg, i_strCmd);
    i_objWorker.PushMsg(&stMsg);
}

/* Waits until the worker has taken its start: before that it still counts as not started, and the
 * next message would start it a second time.
 * The status turns 1 when the worker begins the start, not when the pipeline plays. */
bool WaitForStart(CGstEnc &i_objWorker)
{
    for (int i = 0; i < kStartPolls; i++) {
        if (i_objWorker.GetStartStatus() == 1) {
            return true;
        }
        CThread::Sleep(kStartPollMs);
    }
    return false;
}

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

std::string QueryMulticastIp()
{
    std::string strIp;
    get_multicast_ip(strIp, "eth0");
    LOG_INFO("multicast ip : %s ", strIp.c_str());
    return strIp;
}
} // namespace

CEncoder::CEncoder()
    : CModule(MODULE_ENCODER, "encoder", "CEncoder", MSG_INIT), m_stLastTiming{},
      m_stStreamStatus{}, m_stJpegFileStatus{}
{
}

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

/* The configured receivers; empty when none are. A query that is not answered (the running mutex
 * stayed busy) gives the last answer. */
const std::string &CEncoder::QueryAddrList()
{
    MSG_DESC_INFO_S stMsg =
        MakeMsg(MSG_TYPE_SYNC, MODULE_ENCODER, MODULE_CONFIG, MSG_GET_ADDR_LIST);
    char szAddrList[512 + 1] = "";
    if (SendSyncAndAsyncMsg(&stMsg, szAddrList)) {
        m_strAddrList = szAddrList;
    }
    return m_strAddrList;
}

/* Here, too, what is not answered stays as it is. */
void CEncoder::QueryStreamStatus()
{
    MSG_DESC_INFO_S stMsg =
        MakeMsg(MSG_TYPE_SYNC, MODULE_ENCODER, MODULE_CONFIG, MSG_GET_STREAM_STATUS);
    STREAM_STATUS_S stStatus = {};
    if (SendSyncAndAsyncMsg(&stMsg, &stStatus)) {
        m_stStreamStatus = stStatus;
    }
}

int CEncoder::HandleInitMsg(const MSG_DESC_INFO_S *, void *)
{
    CreateWorkers();
    QueryStreamStatus();
    return 1;
}

int CEncoder::HandleEncInitMsg(const MSG_DESC_INFO_S *, void *)
{
    CreateWorkers();
    std::string strAddrList = QueryAddrList();
    if (strAddrList.empty()) {
        LOG_INFO("ENC addr list is null");
        return 1;
    }
    std::string strCmd = BuildPlainCmd(strAddrList);
    LOG_INFO("cmd [%s]", strCmd.c_str());
    PushStart(*m_pGstEncH264, strCmd);
    return 1;
}

int CEncoder::HandleEncDeinitMsg(const MSG_DESC_INFO_S *, void *)
{
    CreateWorkers();
    LOG_INFO("enc deinit msg");
    return m_pGstEncH264->HandleStopMsgEnc(nullptr, nullptr);
}

/* An announcement of the input can come before the module's own first message: the workers are
 * made here then, so that the timing is not lost. */
int CEncoder::HandleEncVideoChgMsg(const MSG_DESC_INFO_S *i_pMsg, void *)
{
    CreateWorkers();
    const INPUT_TIMING_S stTiming = PayloadOf<INPUT_TIMING_S>(*i_pMsg);
    const int s32H264Started = StartStatus(m_pGstEncH264);
    const int s32JpegStarted = StartStatus(m_pGstEncJpeg);
    LOG_INFO("input timing width:%d height:%d fps:%d interlaced:%d, gst start:%d", stTiming.width,
             stTiming.height, stTiming.fps, stTiming.interlaced, s32H264Started);
    LOG_INFO("last timing width:%d height:%d fps:%d interlaced:%d", m_stLastTiming.width,
             m_stLastTiming.height, m_stLastTiming.fps, m_stLastTiming.interlaced);

    if (stTiming.width == 0 || stTiming.height == 0 || stTiming.fps == 0) {
        LOG_INFO("stop gstreamer, status:%d", s32H264Started);
        if (s32H264Started) {
            m_pGstEncH264->HandleStopMsgEnc(nullptr, nullptr);
        }
        m_stLastTiming = stTiming;
        return 1;
    }
    const bool bRestart = StopForTiming(stTiming, s32H264Started);
    if (stTiming.interlaced != 0) {
        /* The timing is not stored: whatever comes next counts as a change. */
        LOG_WARN("interlaced not support");
        return 1;
    }
    if (bRestart) {
        StartForTiming(stTiming, s32JpegStarted);
    }
    m_stLastTiming = stTiming;
    return 1;
}

/* True when the pipelines are to be started anew. */
bool CEncoder::StopForTiming(const INPUT_TIMING_S &i_stTiming, int i_s32H264Started)
{
    LOG_INFO("start gstreamer status:%d", i_s32H264Started);
    if (i_s32H264Started && i_stTiming == m_stLastTiming) {
        return false;
    }
    LOG_INFO("we need stop gstreamer");
    m_pGstEncH264->HandleStopMsgEnc(nullptr, nullptr);
    Sleep(kPauseAfterStopMs);
    return true;
}

/* A timing can come before the parameter file has been read. Without settings nothing would be
 * enabled, and the preview would be started with no size and keep that until a setting changes. */
void CEncoder::AwaitStreamStatus()
{
    for (int i = 0; i < kSettingsPolls && m_stStreamStatus.u32PrevHeight == 0; i++) {
        if (i > 0) {
            CThread::Sleep(kSettingsPollMs);
        }
        if (IsStopRequested()) {
            return;
        }
        QueryStreamStatus();
    }
}

/* Kept: here the preview starts first, whenever its worker is idle; on a change of the settings
 * the H.264 pipeline starts first and the preview only when it is enabled. */
void CEncoder::StartForTiming(const INPUT_TIMING_S &i_stTiming, int i_s32JpegStarted)
{
    AwaitStreamStatus();
    const std::string strAddrList = QueryAddrList();
    const std::string strMulticastIp = QueryMulticastIp();
    QueryStreamStatus();
    if (!i_s32JpegStarted) {
        PushJpeg(i_stTiming);
    }
    const std::string strClients = BuildClients(m_stStreamStatus, strAddrList, strMulticastIp);
    if (strClients.empty()) {
        LOG_INFO("h264 and preview not enable");
        WaitForStart(*m_pGstEncJpeg); /* lest the next timing starts it a second time */
        return;
    }
    if (StartH264(i_stTiming, strClients)) {
        LOG_INFO("gstreamer start ok");
    } else {
        LOG_WARN("gstreamer start too long");
    }
}

void CEncoder::PushJpeg(const INPUT_TIMING_S &i_stTiming)
{
    m_strJpegCmd = BuildJpegCmd(i_stTiming, m_stStreamStatus);
    LOG_INFO("cmd jpeg [%s]", m_strJpegCmd.c_str());
    PushStart(*m_pGstEncJpeg, m_strJpegCmd);
}

/* False when the worker did not take the start in time. */
bool CEncoder::StartH264(const INPUT_TIMING_S &i_stTiming, const std::string &i_strClients)
{
    const std::string strCmd = BuildH264Cmd(i_stTiming, m_stStreamStatus, i_strClients);
    LOG_INFO("addr list: %s", i_strClients.c_str());
    LOG_DEBUG("cmd [%s]", strCmd.c_str());
    Sleep(kPauseBeforeStartMs);
    PushStart(*m_pGstEncH264, strCmd);
    return WaitForStart(*m_pGstEncH264);
}

int CEncoder::HandleSetStreamStatusMsg(const MSG_DESC_INFO_S *i_pMsg, void *)
{
    const STREAM_STATUS_S stNew = PayloadOf<STREAM_STATUS_S>(*i_pMsg);
    MSG_DESC_INFO_S stForward =
        MakeMsg(MSG_TYPE_ASYNC, MODULE_ENCODER, MODULE_CONFIG, MSG_SET_STREAM_STATUS);
    PutPayload(&stForward, stNew);
    SendSyncAndAsyncMsg(&stForward, nullptr);

    if (!MergeStreamStatus(stNew)) {
        return 1;
    }
    StopForSwitch();
    if (m_stLastTiming.width == 0 || m_stLastTiming.height == 0 || m_stLastTiming.fps == 0) {
        LOG_INFO("no input timing");
        return 1;
    }
    if (m_stStreamStatus.u32H264Enable == 0 && m_stStreamStatus.u32PrevEnable == 0) {
        LOG_INFO("h264 and preview not enable");
        return 1;
    }
    StartForSwitch();
    return 1;
}

/* Takes over what the request changes. True when a pipeline has to follow. The mode is reported by
 * the configuration module only; no pipeline uses it. */
bool CEncoder::MergeStreamStatus(const STREAM_STATUS_S &i_stNew)
{
    STREAM_STATUS_S stMerged = m_stStreamStatus;
    bool bSwitch = false;
    auto Merge = [&](UInt32 STREAM_STATUS_S::*i_pField) {
        if (i_stNew.*i_pField != STREAM_STATUS_UNCHANGED) {
            bSwitch = bSwitch || stMerged.*i_pField != i_stNew.*i_pField;
            stMerged.*i_pField = i_stNew.*i_pField;
        }
    };
    if (i_stNew.u32Type == STREAM_STATUS_H264 || i_stNew.u32Type == STREAM_STATUS_BOTH) {
        Merge(&STREAM_STATUS_S::u32H264Enable);
        Merge(&STREAM_STATUS_S::u32H264Gop);
        Merge(&STREAM_STATUS_S::u32H264Bitrate);
    }
    if (i_stNew.u32Type == STREAM_STATUS_PREVIEW || i_stNew.u32Type == STREAM_STATUS_BOTH) {
        Merge(&STREAM_STATUS_S::u32PrevEnable);
        Merge(&STREAM_STATUS_S::u32PrevHeight);
        Merge(&STREAM_STATUS_S::u32PrevRefreshrate);
    }
    LOG_INFO("new stream status, h264 enable:%d gop:%d bitrate:%d, preview enable:%d height:%d "
             "refreshrate:%d",
             Signed(i_stNew.u32H264Enable), Signed(i_stNew.u32H264Gop),
             Signed(i_stNew.u32H264Bitrate), Signed(i_stNew.u32PrevEnable),
             Signed(i_stNew.u32PrevHeight), Signed(i_stNew.u32PrevRefreshrate));
    LOG_INFO("last stream status, h264 enable:%d gop:%d bitrate:%d, preview enable:%d height:%d "
             "refreshrate:%d",
             Signed(m_stStreamStatus.u32H264Enable), Signed(m_stStreamStatus.u32H264Gop),
             Signed(m_stStreamStatus.u32H264Bitrate), Signed(m_stStreamStatus.u32PrevEnable),
             Signed(m_stStreamStatus.u32PrevHeight), Signed(m_stStreamStatus.u32PrevRefreshrate));
    LOG_INFO("switch status:%d", bSwitch ? 1 : 0);
    m_stStreamStatus = stMerged;
    LOG_INFO("newnew stream status, h264 enable:%d gop:%d bitrate:%d, preview enable:%d height:%d "
             "refreshrate:%d",
             Signed(stMerged.u32H264Enable), Signed(stMerged.u32H264Gop),
             Signed(stMerged.u32H264Bitrate), Signed(stMerged.u32PrevEnable),
             Signed(stMerged.u32PrevHeight), Signed(stMerged.u32PrevRefreshrate));
    return bSwitch;
}

void CEncoder::StopForSwitch()
{
    if (StartStatus(m_pGstEncH264) == 1) {
        LOG_INFO("we need stop gstreamer 264");
        m_pGstEncH264->HandleStopMsgEnc(nullptr, nullptr);
        Sleep(kPauseAfterStopMs);
    }
    if (StartStatus(m_pGstEncJpeg) == 1) {
        LOG_INFO("we need stop gstreamer jpeg");
        m_pGstEncJpeg->HandleStopMsgEnc(nullptr, nullptr);
        Sleep(kPauseAfterStopMs);
    }
}

void CEncoder::StartForSwitch()
{
    const std::string strAddrList = QueryAddrList();
    const std::string strMulticastIp = QueryMulticastIp();
    const std::string strClients = BuildClients(m_stStreamStatus, strAddrList, strMulticastIp);
    if (StartH264(m_stLastTiming, strClients)) {
        LOG_INFO("gstreamer start 264 ok");
    } else {
        LOG_WARN("gstreamer start 264 too long");
    }
    if (m_stStreamStatus.u32PrevEnable == 0) {
        return;
    }
    PushJpeg(m_stLastTiming);
    WaitForStart(*m_pGstEncJpeg);
}

int CEncoder::HandleJpegFileStatusMsg(const MSG_DESC_INFO_S *i_pMsg, void *)
{
    const JPEG_FILE_STATUS_S stCurrent = PayloadOf<JPEG_FILE_STATUS_S>(*i_pMsg);
    if (JpegStalled(stCurrent)) {
        RestartJpeg(stCurrent);
    }
    /* The record moves only when the count does, so its time is that of the last progress, and a
     * preview that stays stalled is restarted at every further report. */
    const bool bUnarmed = m_stJpegFileStatus.time == 0 && m_stJpegFileStatus.count == 0;
    if (bUnarmed || m_stJpegFileStatus.count != stCurrent.count) {
        m_stJpegFileStatus = stCurrent;
    }
    return 1;
}

bool CEncoder::JpegStalled(const JPEG_FILE_STATUS_S &i_stCurrent) const
{
    const JPEG_FILE_STATUS_S &stLast = m_stJpegFileStatus;
    if (stLast.time == 0 && stLast.count == 0) {
        return false;
    }
    return stLast.count >= i_stCurrent.count && m_stStreamStatus.u32PrevEnable == 1 &&
           i_stCurrent.time - stLast.time > kPreviewStallSecs && StartStatus(m_pGstEncH264) == 1;
}

void CEncoder::RestartJpeg(const JPEG_FILE_STATUS_S &i_stCurrent)
{
    LOG_INFO("jpeg file last status <time:%ld,count:%u> current satus <time:%ld,count:%u>",
             static_cast<long>(m_stJpegFileStatus.time), m_stJpegFileStatus.count,
             static_cast<long>(i_stCurrent.time), i_stCurrent.count);
    if (!m_pGstEncJpeg) {
        LOG_ERROR("m_pGstEncJpeg is null");
        return;
    }
    if (m_pGstEncJpeg->GetStartStatus() != 1) {
        LOG_ERROR("jpeg enc not start");
        return;
    }
    LOG_INFO("we need stop gstreamer jpeg");
    m_pGstEncJpeg->HandleStopMsgEnc(nullptr, nullptr);
    Sleep(kPauseAfterStopMs);
    if (m_strJpegCmd.empty()) {
        LOG_ERROR("jpeg enc cmd is empty");
        return;
    }
    LOG_INFO("cmd jpeg [%s] restart", m_strJpegCmd.c_str());
    PushStart(*m_pGstEncJpeg, m_strJpegCmd);
    WaitForStart(*m_pGstEncJpeg); /* lest a waiting report or timing starts it a second time */
}
