/*
 * Pipeline worker: a thread that runs the pipelines it is sent, one at a time, on a runner of its
 * own. The encoder owns two, "gst-h264" and "gst-jpeg".
 *
 * A start comes as a message and blocks the worker's thread for the life of the pipeline, with
 * the worker's mutex held; a stop is therefore a direct call by the owner and takes no mutex that
 * is held for long. The owner's thread calls what stands first below; all else belongs to the
 * worker's thread.
 *
 * Queued starts are numbered. The latest alone counts: one that another start or a stop has
 * superseded before the worker came to it is skipped, so that a worker that was held up does not
 * run what nobody wants any more.
 *
 * To end a worker: SendStopRequest(), HandleStopMsgEnc(), Join(), in this order, or destroy it. A
 * start that the worker takes meanwhile either sees the request or is seen by the stop.
 */
#pragma once

#include <atomic>
#include <string>

#include "common/bus/module.h"
#include "common/stream/gstobj.h"
#include "framework/mutex.h"
#include "framework/types.h"

enum class ENC_START : UInt8 {
    kTaken,   /* the worker has begun the start; its pipeline need not play yet */
    kLate,    /* not in time; it stays queued until it is taken or superseded */
    kGivenUp, /* the owner is asked to stop */
};

class CGstEnc : public CModule
{
public:
    /* i_strName: names the worker, its thread (15 characters are kept) and its runner. */
    explicit CGstEnc(const std::string &i_strName, UInt32 i_u32Module = MODULE_GST_H264);
    /* Stops the pipeline and joins the thread; started or not, joined or not. */
    ~CGstEnc() override;

    /* As CModule::PushMsg; a start supersedes those that are still queued. */
    int PushMsg(const MSG_DESC_INFO_S *i_pMsg) override;
    /* Queues the start of the description, of which 1023 characters are kept. Its number, counted
     * from 1; 0 if the queue is full. */
    UInt64 PushStart(const std::string &i_strCmd);
    /* Waits for the start of this number, 99 polls 100 ms apart, or until i_objOwner, the calling
     * thread's, is asked to stop. A start of number 0 is never taken. */
    ENC_START AwaitStart(UInt64 i_u64Number, const CThread &i_objOwner);
    /* 1 after a start was taken, also when its pipeline has ended by itself since; 0 after a
     * stop. */
    int GetStartStatus() { return m_iStartStatus.load(); }
    /* The same; where it is 0, what is queued is superseded, so that it stays 0 until the next
     * start is queued. */
    int SettleStartStatus();
    /* Ends the run, see CGstObj::HandleStopMsgEnc, and supersedes what is queued. 1, or 0 when
     * there was no loop. Both arguments may be null. */
    int HandleStopMsgEnc(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg);

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */
    CGstEnc(); /* named "gst-enc" */
    /* The handlers of MSG_INIT, MSG_DEINIT and MSG_REINIT. */
    int HandleInitMsgEnc(const MSG_DESC_INFO_S *, void *) { return 1; }
    int HandleDeinitMsgEnc(const MSG_DESC_INFO_S *, void *) { return 1; }
    int HandleReinitMsgEnc(const MSG_DESC_INFO_S *, void *) { return 1; }
    /* Runs the description in the payload in the calling thread, as the worker does with one that
     * was queued, and returns when the run is over: 0. */
    int HandleStartMsgEnc(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg);

private:
    /* 0 for MSG_STOP, which is ignored; 1 for an unknown number. */
    int Dispatch(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg) override;
    void OnStopped() override;
    void LogPushFail() const override;
    UInt64 PushNumbered(const MSG_DESC_INFO_S &i_stMsg);
    UInt64 NextNumber();
    int RunStart(const MSG_DESC_INFO_S *i_pMsg, void *i_pArg, UInt64 i_u64Number);
    bool TakeStart(UInt64 i_u64Number, UInt64 *o_pAnnounced);
    bool IsSuperseded(UInt64 i_u64Number);

    CGstObj m_objGstObj;
    std::atomic<SInt32> m_iStartStatus;
    std::string m_strName;
    /* Held for moments only, around the queue's and the runner's mutex. It guards the numbers and
     * makes them change together with the status. */
    CMutex m_objStartMutex;
    UInt64 m_u64Queued;     /* of the latest start that was queued */
    UInt64 m_u64Popped;     /* of the latest that came out of the queue */
    UInt64 m_u64Superseded; /* starts up to this one are not taken any more */
    UInt64 m_u64Taken;      /* of the latest that was taken */
};
