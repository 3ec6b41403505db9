/*
 * The encoder module decides which pipelines run.
 *
 * It owns two workers: "gst-h264" captures the input and sends H.264, "gst-jpeg" decodes a local
 * copy of that stream into preview pictures. It starts, stops and restarts them when the input
 * timing, the stream settings or the preview's progress say so. All handlers run on the encoder
 * thread, under the module mutex; a stop of a worker is a direct, blocking call, a start a message
 * in the worker's queue.
 */
#pragma once

#include <memory>
#include <string>

#include "common/bus/module.h"
#include "common/stream/gstenc.h"

class CEncoder : public CModule
{
public:
    CEncoder();
    ~CEncoder() override;

    /* Makes and starts the workers that do not exist yet, then fetches the stream status. */
    int HandleInitMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult) override;
    /* Starts the stream to the address list without a timing. */
    int HandleEncInitMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);
    /* Stops the H.264 pipeline; the result is the worker's. */
    int HandleEncDeinitMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);
    /* Payload: INPUT_TIMING_S. */
    int HandleEncVideoChgMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);
    /* Payload: STREAM_STATUS_S; STREAM_STATUS_UNCHANGED leaves a numeric field as it is. */
    int HandleSetStreamStatusMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);
    /* Payload: JPEG_FILE_STATUS_S. */
    int HandleJpegFileStatusMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);

private:
    int Dispatch(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult) override;
    void OnStopped() override;
    void CreateWorkers();
    const std::string &QueryAddrList();
    void QueryStreamStatus();
    void AwaitStreamStatus();
    bool StopForTiming(const INPUT_TIMING_S &i_stTiming, int i_s32H264Started);
    void StartForTiming(const INPUT_TIMING_S &i_stTiming, int i_s32JpegStarted);
    bool MergeStreamStatus(const STREAM_STATUS_S &i_stNew);
    void StopForSwitch();
    void StartForSwitch();
    void PushJpeg(const INPUT_TIMING_S &i_stTiming);
    bool StartH264(const INPUT_TIMING_S &i_stTiming, const std::string &i_strClients);
    bool JpegStalled(const JPEG_FILE_STATUS_S &i_stCurrent) const;
    void RestartJpeg(const JPEG_FILE_STATUS_S &i_stCurrent);

    std::unique_ptr<CGstEnc> m_pGstEncH264;
    std::unique_ptr<CGstEnc> m_pGstEncJpeg;
    INPUT_TIMING_S m_stLastTiming;
    STREAM_STATUS_S m_stStreamStatus;
    std::string m_strAddrList; /* as last answered */
    std::string m_strJpegCmd;
    JPEG_FILE_STATUS_S m_stJpegFileStatus;
};
