/*
 * The encoder module decides which pipelines run.
 *
 * It owns two workers: "gst-h264" captures the input and sends H.264, "gst-jpeg" decodes a local
 * copy of that stream into preview pictures. What happens to them when the input timing, the
 * settings or the preview's progress say something new is decided in common/stream/encoder_rules.h;
 * here the plans are carried out. All handlers run on the encoder thread, under the module mutex; a
 * stop of a worker is a direct, blocking call, a start a message in the worker's queue.
 *
 * A stop request ends a plan before its next step and any wait for a start at its next poll. The
 * thread then ends after at most ENC_STOP_LONGEST_MS.
 */
#pragma once

#include <memory>
#include <vector>

#include "common/bus/module.h"
#include "common/stream/encoder_rules.h"
#include "common/stream/gstenc.h"

/* From a stop request to the end of the encoder thread, milliseconds, at worst: the stop of a
 * worker has just begun, and then both workers are stopped. Each of the three takes as long only
 * where a build or an element hangs; a good pipeline stops within 1.5 s. A worker whose element
 * never comes back is not ended by this at all, and is left to the service manager. */
constexpr unsigned ENC_STOP_LONGEST_MS = 3 * GST_STOP_LONGEST_MS;

class CEncoder : public CModule
{
public:
    CEncoder();
    ~CEncoder() override;

    /* Makes and starts the workers that do not exist yet, then fetches the stream status. */
    int HandleInitMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult) override;
    /* Payload: INPUT_TIMING_S. */
    int HandleEncVideoChgMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);
    /* Payload: STREAM_STATUS_S; STREAM_STATUS_UNCHANGED leaves a numeric field as it is. */
    int HandleSetStreamStatusMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);
    /* Payload: JPEG_FILE_STATUS_S. */
    int HandleJpegFileStatusMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */
    /* Starts the stream to the address list without a timing. */
    int HandleEncInitMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);
    /* Stops the H.264 pipeline; the result is the worker's. */
    int HandleEncDeinitMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);

private:
    int Dispatch(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult) override;
    void OnStopped() override;
    void CreateWorkers();
    CGstEnc *Worker(ENC_WORKER i_eWorker) const;
    SInt32 StartStatus(ENC_WORKER i_eWorker) const;
    SInt32 SettleStartStatus(ENC_WORKER i_eWorker) const;
    void QueryAddrList();
    void QueryMulticastIp();
    void QueryStreamStatus();
    void AwaitStreamStatus();
    int CarryOut(ENC_PLAN i_objPlan);
    void CarryOut(const ENC_STEP_S &i_stStep);
    void StartPipeline(const ENC_STEP_S &i_stStep);

    /* A start of the present plan that is still to be waited for. */
    struct UNAWAITED_S {
        CGstEnc *pWorker;
        UInt64 u64Number;
    };

    std::unique_ptr<CGstEnc> m_pGstEncH264;
    std::unique_ptr<CGstEnc> m_pGstEncJpeg;
    CEncoderRules m_objRules;
    std::vector<UNAWAITED_S> m_objUnawaited;
};
