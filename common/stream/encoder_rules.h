/*
 * The encoder's rules: what is stopped, asked and started, in which order and after which pauses,
 * when the input timing, the settings or the preview's progress say something new.
 *
 * A core without threads, pipelines and clocks. An event goes in and a plan comes out, the steps in
 * the order in which they are carried out. A plan that depends on an answer ends in the steps that
 * ask; GoOn() gives what follows once the answers are in, until it gives an empty plan. Whoever
 * carries the plans out (common/stream/encoder.cpp) decides nothing; it may abandon a plan, and the
 * next event then begins afresh. For one thread.
 */
#pragma once

#include <string>
#include <vector>

#include "common/bus/msg_queue.h"

enum class ENC_WORKER : UInt8 { kH264, kJpeg };

enum class ENC_ACT : UInt8 {
    kLog,    /* write strText at s32Level */
    kStop,   /* stop the worker and wait until it has stopped */
    kPause,  /* let u32Ms milliseconds pass */
    kSettle, /* withdraw the starts that wait for an idle worker; answered by AnswerStarted */
    kAwaitSettings,  /* ask until the settings have been read, a second at most; AnswerSettings */
    kAskSettings,    /* AnswerSettings */
    kAskAddrList,    /* AnswerAddrList */
    kAskMulticastIp, /* derive and log the box's own group; AnswerMulticastIp */
    kStart,          /* start the pipeline strText, wait until the worker has taken it; log pTaken,
                        or pLate when it has not in time. Both null: nothing is logged, and the wait
                        comes after the last step. */
};

struct ENC_STEP_S {
    ENC_ACT eAct;
    ENC_WORKER eWorker;
    UInt32 u32Ms;
    SInt32 s32Level;  /* log4cpp's priority */
    unsigned u32Line; /* where in the rules the line is written */
    std::string strText;
    const char *pTaken; /* at INFO */
    const char *pLate;  /* at WARN */
};

using ENC_PLAN = std::vector<ENC_STEP_S>;

class CEncoderRules
{
public:
    /* The source file that u32Line counts in. */
    static const char *const s_pFile;

    CEncoderRules();

    /* s32H264Started: the worker's start status, settled. */
    ENC_PLAN OnTiming(const INPUT_TIMING_S &i_stTiming, SInt32 i_s32H264Started);
    /* STREAM_STATUS_UNCHANGED leaves a numeric field as it is. */
    ENC_PLAN OnSettings(const STREAM_STATUS_S &i_stNew);
    /* The workers' start statuses; i_bJpegWorker: there is a preview worker. */
    ENC_PLAN OnPreviewReport(const JPEG_FILE_STATUS_S &i_stCurrent, SInt32 i_s32H264Started,
                             bool i_bJpegWorker, SInt32 i_s32JpegStarted);
    /* What follows the plan that was last given; empty when nothing does. */
    ENC_PLAN GoOn();

    /* Answers; a question that is not answered leaves the last answer as it is. */
    void AnswerSettings(const STREAM_STATUS_S &i_stStatus) { m_stStatus = i_stStatus; }
    void AnswerAddrList(const std::string &i_strAddrList) { m_strAddrList = i_strAddrList; }
    void AnswerMulticastIp(const std::string &i_strIp) { m_strMulticastIp = i_strIp; }
    void AnswerStarted(ENC_WORKER i_eWorker, SInt32 i_s32Started);

    /* Settings have been read: a preview has a height. */
    bool HasSettings() const { return m_stStatus.u32PrevHeight != 0; }

    /* --- Offered: nothing in the daemon asks for what follows. ------------------------------- */

    /* A plain start without a timing is wanted. */
    ENC_PLAN OnPlainStart();

private:
    using NEXT = ENC_PLAN (CEncoderRules::*)();

    bool Merge(const STREAM_STATUS_S &i_stNew);
    ENC_PLAN PlainStart();
    ENC_PLAN StartForTiming();
    ENC_PLAN StopForSwitch();
    ENC_PLAN StartForSwitch();
    void PlanH264(ENC_PLAN *io_pPlan, const std::string &i_strClients, const char *i_pTaken,
                  const char *i_pLate) const;
    void PlanPreview(ENC_PLAN *io_pPlan);

    INPUT_TIMING_S m_stLastTiming;
    STREAM_STATUS_S m_stStatus;
    std::string m_strAddrList;
    std::string m_strMulticastIp;
    std::string m_strJpegCmd; /* last started */
    JPEG_FILE_STATUS_S m_stJpegFileStatus;
    SInt32 m_s32H264Started; /* as last answered */
    SInt32 m_s32JpegStarted;
    NEXT m_pNext;
};
