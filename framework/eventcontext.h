/*
 * The watched descriptor of a task, and the event thread that wakes the task when it is ready.
 *
 * A context owns its descriptor. It is known to the event thread by a unique id under which it is
 * registered, from its first request until its clean-up; an event for an id that is gone is
 * dropped. Events are one-shot: the task asks again after each.
 *
 * A context is used by one thread at a time, its task's. The event thread only finds it by its id
 * and calls ProcessEvent; clean-up waits until that call is over, so it must not be run from
 * ProcessEvent itself.
 */
#pragma once

#include <typeinfo>

#include "framework/ev.h"
#include "framework/plstring.h"
#include "framework/ref.h"
#include "framework/thread.h"
#include "framework/types.h"

class CEventThread;
class CTask;

class CEventContext
{
public:
    static constexpr SInt32 kInvalidFileDesc = -1;

    /* i_pThread: where the context registers; may be null as long as nothing is requested. */
    CEventContext(int i_s32FileDesc, CEventThread *i_pThread);
    /* Cleans up, unless the flag says that the owner does. A derived class does so at the start of
     * its own destructor, by CleanupIfWanted(): the event thread may be in its ProcessEvent until
     * then. One that was watched and forgot is caught by an assertion, whatever the event thread is
     * doing. */
    virtual ~CEventContext();
    CEventContext(const CEventContext &) = delete;
    CEventContext &operator=(const CEventContext &) = delete;

    /* Takes the descriptor and makes it non-blocking. Asserts that the system lets it. */
    void InitNonBlocking(int i_s32FileDesc);
    /* Asks for the next event in i_s32Mask (EV_READ, EV_WRITE or both). Asserts that there is a
     * descriptor and that it is below 1024. */
    void RequestEvent(int i_s32Mask);
    /* The task that ProcessEvent signals; null for none. Before the first request. */
    void SetTask(CTask *i_pTask) { m_pTask = i_pTask; }
    /* The event thread's call: signals kReadEvent to the task, whatever the bits. */
    virtual void ProcessEvent(int i_s32EventBits);

    /* Closes the descriptor, through the event thread if it was ever watched, and forgets the
     * registration. The context can then be used again. Asserts that a watched context is still
     * what it was when it was registered: not on its way through its base's destructor. */
    void Cleanup();

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */
    /* Takes the descriptor and the registration of another, watched context, which is empty
     * afterwards; what this context held before is cleaned up. Asserts that there is
     * an event thread and that the other is registered. */
    void SnarfEventContext(CEventContext &io_objFrom);

protected:
    void CleanupIfWanted()
    {
        if (m_bAutoCleanup) {
            Cleanup();
        }
    }

    SInt32 m_s32FileDesc;
    eventreq m_stEventReq;
    CRef m_objRef;
    UInt64 m_u64UniqueID;       /* 0 when not registered */
    CPLString m_objUniqueIDStr; /* the bytes of the id: the key in the event thread's table */
    CEventThread *m_pEventThread;
    Bool m_bWatching;
    Bool m_bAutoCleanup;
    CTask *m_pTask;
    const std::type_info *m_pRegisteredType; /* the whole object's class when it was registered */

    static UInt32 s_u32UniqueID; /* the id given last */

private:
    static UInt64 NextUniqueID();
};

/* The thread that waits for all events. It runs until the process ends and is never destroyed. */
class CEventThread : public CThread
{
public:
    CEventThread();
    void Entry() override;

private:
    friend class CEventContext;

    CRefTable m_objRefTable;
};
