/*
 * Module base class: a thread with a queue of messages and one mutex that serialises its handlers.
 *
 * Asynchronous messages wait in the queue for the module's own thread; synchronous ones are handled
 * in their sender's thread. Either way under the module mutex, so that handlers of one module never
 * run at the same time. A subclass stops and joins its thread in its own destructor.
 */
#pragma once

#include "common/bus/msg_queue.h"
#include "framework/mutex.h"
#include "framework/thread.h"

class CModule : public CThread
{
public:
    /* Queues a copy; any thread. 1 queued; 0 for a null message or a full queue, with an ERROR line
     * that names the module. */
    int PushMsg(const MSG_DESC_INFO_S *i_pMsg);
    /* As CMsgQueue::PopMsg: 1 taken, 0 none within i_s32Timeout milliseconds. */
    int PopMsg(int i_s32Timeout, MSG_DESC_INFO_S *o_pMsg);
    /* Handles the message in the calling thread, under the module mutex, and returns the handler's
     * result. o_pResult is the handler's; null where no answer is wanted. */
    int HandleMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult);

    /* Calls the handler of the message's number; the module mutex is held. 0 for a null message, 1
     * for a number that the module does not know. */
    virtual int HandleSyncAsyncMsg(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult) = 0;

protected:
    /* The thread body, in this order: names the calling thread and logs the name; */
    static void BeginThread(const char *i_pName);
    /* sends the module i_u32Module, which is this one, an asynchronous message; */
    static void SendToSelf(UInt32 i_u32Module, UInt32 i_u32MsgNo);
    /* handles what comes until a stop is requested, which is seen within 500 ms. */
    void ServeUntilStop();
    virtual void LogPushFail() const = 0;

private:
    CMutex m_objMutex;
    CMsgQueue m_objMsgQueue;
};
