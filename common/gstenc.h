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

#include "common/gstobj.h"
#include "common/msg_queue.h"
#include "framework/mutex.h"
#include "framework/thread.h"
#include "framework/types.h"

class CGstEnc : public CThread
{
public:
    CGstEnc();
    /* i_strName: names the worker, its thread (15 characters are kept) and its runner. */
    explicit CGstEnc(const std::string &i_strName);
    /* Stops the pipeline and joins the thread; started or not, joined or not. */
    ~CGstEnc() override;

    void Entry() override;

    /* 1 after a start was taken, also when its pipeline has ended by itself since; 0 after a
     * stop. */
    int GetStartStatus() { return m_iStartStatus.load(); }

    /* Queues a copy. 1 queued; 0 for a null message or a full queue (the message is dropped and
     * logged). */
    int PushMsg(const MSG_DESC_INFO_S *i_pMsg);
    /* As CMsgQueue::PopMsg: 1 taken, 0 none within i_s32Timeout milliseconds. */
    int PopMsg(int i_s32Timeout, MSG_DESC_INFO_S *o_pMsg);

    /* Handles one message under the worker's mutex and returns the handler's result. */
    int HandleMsg(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg);
    /* 0 for a null message and for MSG_STOP, which is ignored; 1 for an unknown number. */
    int HandleSyncAsyncMsg(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg);
    int HandleInitMsgEnc(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg);
    int HandleDeinitMsgEnc(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg);
    int HandleReinitMsgEnc(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg);
    /* Runs the description in the payload and returns when the run is over: 0. */
    int HandleStartMsgEnc(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg);
    /* Ends the run, see CGstObj::HandleStopMsgEnc. 1, or 0 when there was no loop. Both arguments
     * may be null. */
    int HandleStopMsgEnc(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg);

private:
    CMutex m_objMutex;
    CMsgQueue m_objMsgQueue;
    CGstObj m_objGstObj;
    std::atomic<SInt32> m_iStartStatus;
    std::string m_strName;
};
