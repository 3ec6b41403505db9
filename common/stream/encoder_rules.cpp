/*
 * The encoder's rules.
 *
 * The pauses (50 ms after a stop, 1 s before an H.264 start) give the capture driver time to let go
 * of the device.
 */
#include "common/stream/encoder_rules.h"

#include <cstdarg>
#include <cstdio>

#include <log4cpp/Priority.hh>

#include "common/stream/pipeline_desc.h"

namespace
{
constexpr UInt32 kPauseAfterStopMs = 50;
constexpr UInt32 kPauseBeforeStartMs = 1000;
/* The preview counts as stalled when its count stood still for longer than this. */
constexpr SInt64 kPreviewStallSecs = 9;

ENC_STEP_S Step(ENC_ACT i_eAct, ENC_WORKER i_eWorker = ENC_WORKER::kH264)
{
    return {i_eAct, i_eWorker, 0, 0, 0, "", nullptr, nullptr};
}

ENC_STEP_S Pause(UInt32 i_u32Ms)
{
    ENC_STEP_S stStep = Step(ENC_ACT::kPause);
    stStep.u32Ms = i_u32Ms;
    return stStep;
}

ENC_STEP_S Start(ENC_WORKER i_eWorker, const std::string &i_strCmd)
{
    ENC_STEP_S stStep = Step(ENC_ACT::kStart, i_eWorker);
    stStep.strText = i_strCmd;
    return stStep;
}

__attribute__((format(printf, 3, 4))) ENC_STEP_S Log(SInt32 i_s32Level, unsigned i_u32Line,
                                                     const char *i_pFormat, ...)
{
    ENC_STEP_S stStep = Step(ENC_ACT::kLog);
    stStep.s32Level = i_s32Level;
    stStep.u32Line = i_u32Line;
    va_list stArgs;
    va_start(stArgs, i_pFormat);
    va_list stAgain;
    va_copy(stAgain, stArgs);
    stStep.strText.resize(static_cast<std::size_t>(vsnprintf(nullptr, 0, i_pFormat, stArgs)));
    vsnprintf(stStep.strText.data(), stStep.strText.size() + 1, i_pFormat, stAgain);
    va_end(stAgain);
    va_end(stArgs);
    return stStep;
}

#define PLAN_LOG(plan, level, ...)                                                                 \
    (plan).push_back(Log(log4cpp::Priority::level, __LINE__, __VA_ARGS__))

void PlanStop(ENC_PLAN *io_pPlan, ENC_WORKER i_eWorker)
{
    io_pPlan->push_back(Step(ENC_ACT::kStop, i_eWorker));
    io_pPlan->push_back(Pause(kPauseAfterStopMs));
}

bool NoSignal(const INPUT_TIMING_S &i_stTiming)
{
    return i_stTiming.width == 0 || i_stTiming.height == 0 || i_stTiming.fps == 0;
}

/* As the lines show the settings: "unchanged" is -1. */
std::string SettingsText(const STREAM_STATUS_S &i_stStatus)
{
    auto Signed = [](UInt32 i_u32Setting) { return static_cast<SInt32>(i_u32Setting); };
    return Log(0, 0, "h264 enable:%d gop:%d bitrate:%d, preview enable:%d height:%d refreshrate:%d",
               Signed(i_stStatus.u32H264Enable), Signed(i_stStatus.u32H264Gop),
               Signed(i_stStatus.u32H264Bitrate), Signed(i_stStatus.u32PrevEnable),
               Signed(i_stStatus.u32PrevHeight), Signed(i_stStatus.u32PrevRefreshrate))
        .strText;
}
} // namespace

const char *const CEncoderRules::s_pFile = __FILE_NAME__;

CEncoderRules::CEncoderRules()
    : m_stLastTiming{}, m_stStatus{}, m_stJpegFileStatus{}, m_s32H264Started(0),
      m_s32JpegStarted(0), m_pNext(nullptr)
{
}

ENC_PLAN CEncoderRules::GoOn()
{
    NEXT pNext = m_pNext;
    m_pNext = nullptr;
    return pNext != nullptr ? (this->*pNext)() : ENC_PLAN();
}

void CEncoderRules::AnswerStarted(ENC_WORKER i_eWorker, SInt32 i_s32Started)
{
    (i_eWorker == ENC_WORKER::kH264 ? m_s32H264Started : m_s32JpegStarted) = i_s32Started;
}

ENC_PLAN CEncoderRules::OnPlainStart()
{
    m_pNext = &CEncoderRules::PlainStart;
    return {Step(ENC_ACT::kAskAddrList)};
}

ENC_PLAN CEncoderRules::PlainStart()
{
    ENC_PLAN objPlan;
    if (m_strAddrList.empty()) {
        PLAN_LOG(objPlan, INFO, "ENC addr list is null");
        return objPlan;
    }
    const std::string strCmd = BuildPlainCmd(m_strAddrList);
    PLAN_LOG(objPlan, INFO, "cmd [%s]", strCmd.c_str());
    objPlan.push_back(Start(ENC_WORKER::kH264, strCmd));
    return objPlan;
}

ENC_PLAN CEncoderRules::OnTiming(const INPUT_TIMING_S &i_stTiming, SInt32 i_s32H264Started)
{
    const INPUT_TIMING_S stLast = m_stLastTiming;
    m_pNext = nullptr;
    ENC_PLAN objPlan;
    PLAN_LOG(objPlan, INFO, "input timing width:%d height:%d fps:%d interlaced:%d, gst start:%d",
             i_stTiming.width, i_stTiming.height, i_stTiming.fps, i_stTiming.interlaced,
             i_s32H264Started);
    PLAN_LOG(objPlan, INFO, "last timing width:%d height:%d fps:%d interlaced:%d", stLast.width,
             stLast.height, stLast.fps, stLast.interlaced);
    if (NoSignal(i_stTiming)) {
        PLAN_LOG(objPlan, INFO, "stop gstreamer, status:%d", i_s32H264Started);
        if (i_s32H264Started != 0) {
            objPlan.push_back(Step(ENC_ACT::kStop, ENC_WORKER::kH264));
        }
        m_stLastTiming = i_stTiming;
        return objPlan;
    }
    PLAN_LOG(objPlan, INFO, "start gstreamer status:%d", i_s32H264Started);
    const bool bRestart = i_s32H264Started == 0 || i_stTiming != stLast;
    if (bRestart) {
        PLAN_LOG(objPlan, INFO, "we need stop gstreamer");
        PlanStop(&objPlan, ENC_WORKER::kH264);
    }
    if (i_stTiming.interlaced != 0) {
        /* The timing is not stored: whatever comes next counts as a change. */
        PLAN_LOG(objPlan, WARN, "interlaced not support");
        return objPlan;
    }
    m_stLastTiming = i_stTiming;
    if (bRestart) {
        objPlan.push_back(Step(ENC_ACT::kSettle, ENC_WORKER::kJpeg));
        /* A timing can come before the parameter file has been read. Without settings nothing would
         * be enabled, and the preview would start with no size and keep that until a setting
         * changes. */
        if (!HasSettings()) {
            objPlan.push_back(Step(ENC_ACT::kAwaitSettings));
        }
        objPlan.push_back(Step(ENC_ACT::kAskAddrList));
        objPlan.push_back(Step(ENC_ACT::kAskMulticastIp));
        objPlan.push_back(Step(ENC_ACT::kAskSettings));
        m_pNext = &CEncoderRules::StartForTiming;
    }
    return objPlan;
}

/* Kept: here the preview starts first, and whenever its worker is idle; on a change of the settings
 * the H.264 pipeline starts first and the preview only when it is enabled. The effect: after a
 * timing a preview that is switched off has its pipeline, too. A new input must find the preview
 * listening before the stream's first key frame; on a change the stream itself is what has to be
 * back soonest. */
ENC_PLAN CEncoderRules::StartForTiming()
{
    ENC_PLAN objPlan;
    if (m_s32JpegStarted == 0) {
        PlanPreview(&objPlan);
    }
    const std::string strClients = BuildClients(m_stStatus, m_strAddrList, m_strMulticastIp);
    if (strClients.empty()) {
        PLAN_LOG(objPlan, INFO, "h264 and preview not enable");
        return objPlan;
    }
    PlanH264(&objPlan, strClients, "gstreamer start ok", "gstreamer start too long");
    return objPlan;
}

void CEncoderRules::PlanPreview(ENC_PLAN *io_pPlan)
{
    m_strJpegCmd = BuildJpegCmd(m_stLastTiming, m_stStatus);
    PLAN_LOG(*io_pPlan, INFO, "cmd jpeg [%s]", m_strJpegCmd.c_str());
    io_pPlan->push_back(Start(ENC_WORKER::kJpeg, m_strJpegCmd));
}

void CEncoderRules::PlanH264(ENC_PLAN *io_pPlan, const std::string &i_strClients,
                             const char *i_pTaken, const char *i_pLate) const
{
    const std::string strCmd = BuildH264Cmd(m_stLastTiming, m_stStatus, i_strClients);
    PLAN_LOG(*io_pPlan, INFO, "addr list: %s", i_strClients.c_str());
    PLAN_LOG(*io_pPlan, DEBUG, "cmd [%s]", strCmd.c_str());
    io_pPlan->push_back(Pause(kPauseBeforeStartMs));
    ENC_STEP_S stStart = Start(ENC_WORKER::kH264, strCmd);
    stStart.u32Line = __LINE__;
    stStart.pTaken = i_pTaken;
    stStart.pLate = i_pLate;
    io_pPlan->push_back(stStart);
}

ENC_PLAN CEncoderRules::OnSettings(const STREAM_STATUS_S &i_stNew)
{
    const STREAM_STATUS_S stLast = m_stStatus;
    const bool bSwitch = Merge(i_stNew);
    m_pNext = nullptr;
    ENC_PLAN objPlan;
    PLAN_LOG(objPlan, INFO, "new stream status, %s", SettingsText(i_stNew).c_str());
    PLAN_LOG(objPlan, INFO, "last stream status, %s", SettingsText(stLast).c_str());
    PLAN_LOG(objPlan, INFO, "switch status:%d", bSwitch ? 1 : 0);
    PLAN_LOG(objPlan, INFO, "newnew stream status, %s", SettingsText(m_stStatus).c_str());
    if (bSwitch) {
        objPlan.push_back(Step(ENC_ACT::kSettle, ENC_WORKER::kH264));
        objPlan.push_back(Step(ENC_ACT::kSettle, ENC_WORKER::kJpeg));
        m_pNext = &CEncoderRules::StopForSwitch;
    }
    return objPlan;
}

/* Takes over what the request changes. True when a pipeline has to follow. The mode is reported by
 * the configuration module only; no pipeline uses it. */
bool CEncoderRules::Merge(const STREAM_STATUS_S &i_stNew)
{
    bool bSwitch = false;
    auto MergeField = [&](UInt32 STREAM_STATUS_S::*i_pField) {
        if (i_stNew.*i_pField != STREAM_STATUS_UNCHANGED) {
            bSwitch = bSwitch || m_stStatus.*i_pField != i_stNew.*i_pField;
            m_stStatus.*i_pField = i_stNew.*i_pField;
        }
    };
    if (i_stNew.u32Type == STREAM_STATUS_H264 || i_stNew.u32Type == STREAM_STATUS_BOTH) {
        MergeField(&STREAM_STATUS_S::u32H264Enable);
        MergeField(&STREAM_STATUS_S::u32H264Gop);
        MergeField(&STREAM_STATUS_S::u32H264Bitrate);
    }
    if (i_stNew.u32Type == STREAM_STATUS_PREVIEW || i_stNew.u32Type == STREAM_STATUS_BOTH) {
        MergeField(&STREAM_STATUS_S::u32PrevEnable);
        MergeField(&STREAM_STATUS_S::u32PrevHeight);
        MergeField(&STREAM_STATUS_S::u32PrevRefreshrate);
    }
    return bSwitch;
}

ENC_PLAN CEncoderRules::StopForSwitch()
{
    ENC_PLAN objPlan;
    if (m_s32H264Started == 1) {
        PLAN_LOG(objPlan, INFO, "we need stop gstreamer 264");
        PlanStop(&objPlan, ENC_WORKER::kH264);
    }
    if (m_s32JpegStarted == 1) {
        PLAN_LOG(objPlan, INFO, "we need stop gstreamer jpeg");
        PlanStop(&objPlan, ENC_WORKER::kJpeg);
    }
    if (NoSignal(m_stLastTiming)) {
        PLAN_LOG(objPlan, INFO, "no input timing");
    } else if (m_stStatus.u32H264Enable == 0 && m_stStatus.u32PrevEnable == 0) {
        PLAN_LOG(objPlan, INFO, "h264 and preview not enable");
    } else {
        objPlan.push_back(Step(ENC_ACT::kAskAddrList));
        objPlan.push_back(Step(ENC_ACT::kAskMulticastIp));
        m_pNext = &CEncoderRules::StartForSwitch;
    }
    return objPlan;
}

ENC_PLAN CEncoderRules::StartForSwitch()
{
    ENC_PLAN objPlan;
    const std::string strClients = BuildClients(m_stStatus, m_strAddrList, m_strMulticastIp);
    PlanH264(&objPlan, strClients, "gstreamer start 264 ok", "gstreamer start 264 too long");
    if (m_stStatus.u32PrevEnable != 0) {
        PlanPreview(&objPlan);
    }
    return objPlan;
}

ENC_PLAN CEncoderRules::OnPreviewReport(const JPEG_FILE_STATUS_S &i_stCurrent,
                                        SInt32 i_s32H264Started, bool i_bJpegWorker,
                                        SInt32 i_s32JpegStarted)
{
    const JPEG_FILE_STATUS_S stLast = m_stJpegFileStatus;
    const bool bUnarmed = stLast.time == 0 && stLast.count == 0;
    m_pNext = nullptr;
    /* The record moves only when the count does, so its time is that of the last progress.
     * Kept: a preview that stays stalled is restarted at every further report, since nothing else
     * would bring it back. */
    if (bUnarmed || stLast.count != i_stCurrent.count) {
        m_stJpegFileStatus = i_stCurrent;
    }
    ENC_PLAN objPlan;
    /* Kept: a preview that a number other than 1 has switched on comes but is not restarted; front
     * ends that want it watched send 1. */
    if (bUnarmed || stLast.count < i_stCurrent.count || m_stStatus.u32PrevEnable != 1 ||
        i_stCurrent.time - stLast.time <= kPreviewStallSecs || i_s32H264Started != 1) {
        return objPlan;
    }
    PLAN_LOG(objPlan, INFO,
             "jpeg file last status <time:%ld,count:%u> current satus <time:%ld,count:%u>",
             static_cast<long>(stLast.time), stLast.count, static_cast<long>(i_stCurrent.time),
             i_stCurrent.count);
    if (!i_bJpegWorker) {
        PLAN_LOG(objPlan, ERROR, "m_pGstEncJpeg is null");
        return objPlan;
    }
    if (i_s32JpegStarted != 1) {
        PLAN_LOG(objPlan, ERROR, "jpeg enc not start");
        return objPlan;
    }
    PLAN_LOG(objPlan, INFO, "we need stop gstreamer jpeg");
    PlanStop(&objPlan, ENC_WORKER::kJpeg);
    if (m_strJpegCmd.empty()) {
        PLAN_LOG(objPlan, ERROR, "jpeg enc cmd is empty");
        return objPlan;
    }
    PLAN_LOG(objPlan, INFO, "cmd jpeg [%s] restart", m_strJpegCmd.c_str());
    objPlan.push_back(Start(ENC_WORKER::kJpeg, m_strJpegCmd));
    return objPlan;
}
