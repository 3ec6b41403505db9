/*
 * Pipeline worker: a thread that runs the pipelines it is sent, one at a time, on a runner of its
 * own. The encoder owns two, "gst-h264" and "gst-jpeg".
 *
 * A start comes as a message and blocks the worker's thread for the life of the pipeline, with
 * the worker's mutex held; a stop is therefore a direct call by the owner and takes no mutex. The
 * owner's thread calls PushMsg, GetStartStatus and HandleStopMsgEnc; all else belongs to the
 * worker's thread.
 *
 * To end a worker: SendStopRequest(), HandleStopMsgEnc(), Join(), in this order, or destroy it. A
 * start that the worker takes meanwhile either sees the request or is seen by the stop.
 */
#pragma once

#include <atomic>
#include <string>

#include "common/bus/module.h"
#include "common/stream/gstobj.h"
#include "framework/types.h"

class CGstEnc : public CModule
{
public:
    CGstEnc();
    /* i_strName: names the worker, its thread (15 characters are kept) and its runner. */
    explicit CGstEnc(const std::string &i_strName, UInt32 i_u32Module = MODULE_GST_H264);
    /* Stops the pipeline and joins the thread; started or not, joined or not. */
    ~CGstEnc() override;

    /* 1 after a start was taken, also when its pipeline has ended by itself since; 0 after a
     * stop. */
    int GetStartStatus() { return m_iStartStatus.load(); }

    int HandleInitMsgEnc(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg);
    int HandleDeinitMsgEnc(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg);
    int HandleReinitMsgEnc(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg);
    /* Runs the description in the payload and returns when the run is over: 0. */
    int HandleStartMsgEnc(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg);
    /* Ends the run, see CGstObj::HandleStopMsgEnc. 1, or 0 when there was no loop. Both arguments
     * may be null. */
    int HandleStopMsgEnc(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg);

private:
    /* 0 for MSG_STOP, which is ignored; 1 for an unknown number. */
    int Dispatch(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg) override;
    void OnStopped() override;
    void LogPushFail() const override;

    CGstObj m_objGstObj;
    std::atomic<SInt32> m_iStartStatus;
    std::string m_strName;
};
