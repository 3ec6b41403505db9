/*
 * Module base class: a thread with a queue of messages and one mutex that serialises its handlers.
 *
 * Asynchronous messages wait in the queue for the module's own thread; synchronous ones are handled
 * in their sender's thread. Either way under the module mutex, so that handlers of one module never
 * run at the same time.
 *
 * A subclass gives its number and its name, overrides Dispatch() when it knows messages beyond
 * those of the base, and stops and joins its thread in its own destructor.
 */
#pragma once

#include <string>

#include "common/bus/msg_queue.h"
#include "framework/mutex.h"
#include "framework/thread.h"

class CModule : public CThread
{
public:
    /* i_u32Module: the module's number, MODULE_...; i_strName: its thread's name, of which 15
     * characters are kept; i_pLogName: what its line of a failed push calls it, a literal;
     * i_u32FirstMsgNo: what the module sends itself as the first act of its thread. */
    CModule(UInt32 i_u32Module, const std::string &i_strName, const char *i_pLogName,
            UInt32 i_u32FirstMsgNo = NO_MSG);

    UInt32 GetModuleId() const { return m_u32Module; }

    /* The thread body: names the thread, sends the first message, handles what comes until a stop
     * is requested, and calls OnStopped(). */
    void Entry() override;

    /* Queues a copy; any thread. 1 queued; 0 for a null message or a full queue, with an ERROR line
     * that names the module. Virtual: a worker counts what is pushed, whoever pushes it. */
    virtual int PushMsg(const MSG_DESC_INFO_S *i_pMsg);
    /* As CMsgQueue::PopMsg: 1 taken, 0 none within i_s32Timeout milliseconds. */
    int PopMsg(int i_s32Timeout, MSG_DESC_INFO_S *o_pMsg);
    /* Handles the message in the calling thread, under the module mutex, and returns the handler's
     * result. o_pResult is the handler's; null where no answer is wanted. */
    int HandleMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);
    /* Calls the handler of the message's number; the module mutex is held. 0 for a null message, 1
     * for a number that the module does not know. */
    int HandleSyncAsyncMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);

    /* MSG_INIT; here it does nothing and returns 1. */
    virtual int HandleInitMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);

    /* As CThread's; the thread's waits for messages, the one that goes on and any later one, end at
     * once. Their deadlines are of the wall clock, so one that is set back would prolong them. */
    void SendStopRequest();
    void StopAndWaitForThread();

    /* --- Offered: nothing in the daemon sends the messages of what follows. ------------------ */

    /* MSG_DEINIT and MSG_REINIT; as HandleInitMsg(). */
    virtual int HandleDeinitMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);
    virtual int HandleReinitMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);

protected:
    /* The first message of a module that sends itself none. */
    static constexpr UInt32 NO_MSG = 0xFFFFFFFF;

    /* The switch over the message numbers, in their order; i_pMsg is never null. An override leaves
     * the numbers that it does not know to the base, which returns 1 for the rest. */
    virtual int Dispatch(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);
    /* In the module's thread, when it has handled its last message. */
    virtual void OnStopped() {}
    virtual void LogPushFail() const;

    /* Names the calling thread after the module and logs the name. */
    void BeginThread() const;

private:
    CMutex m_objMutex;
    CMsgQueue m_objMsgQueue;
    const UInt32 m_u32Module;
    const std::string m_strName;
    const char *const m_pLogName;
    const UInt32 m_u32FirstMsgNo;
};
