/*
 * Thread base class: a POSIX thread whose body is the virtual Entry(), with a stop request that
 * the body polls.
 *
 * A CThread is constructed, started once, and stopped and joined by whoever owns it. A subclass
 * whose thread touches its members stops and joins in its own destructor: the base's destructor
 * does it too, but by then the members are gone.
 */
#pragma once

#include <atomic>

#include <pthread.h>

#include "framework/types.h"

class CThread
{
public:
    /* Once per process, before any Start(), which asserts it. i_u32StackSize: bytes, for every
     * thread started. */
    static void Initialize(unsigned int i_u32StackSize);

    CThread();
    /* Policy and priority as in pthread_setschedparam(3); a refusal by the system is ignored. */
    CThread(int i_s32Policy, int i_s32Priority);
    /* Requests the stop and joins, unless joined already. */
    virtual ~CThread();
    CThread(const CThread &) = delete;
    CThread &operator=(const CThread &) = delete;

    /* The thread's work; runs on the new thread and polls IsStopRequested(). */
    virtual void Entry() = 0;

    /* Starts the thread. Asserts that the system could create it. */
    void Start();
    /* Waits for the thread's end. Asserts that it was not joined before; does not wait if the
     * thread was never started. */
    void Join();
    void StopAndWaitForThread();

    /* The stop request: any thread may set or read it. It orders nothing else: what must be seen
     * together with it is guarded by a lock of its own. */
    void SendStopRequest() { m_bStopRequested.store(true, std::memory_order_relaxed); }
    Bool IsStopRequested() const { return m_bStopRequested.load(std::memory_order_relaxed); }

    /* The CThread whose Entry() runs on the calling thread; null on any other thread. */
    static CThread *GetCurrent();
    static void ThreadYield();
    /* Milliseconds, up to 4294967; returns early when a signal handler ran (usleep(3)). */
    static void Sleep(unsigned int i_u32Milliseconds);
    /* Takes on the group and user named in s_szGroup and s_szUser. False if either is unknown or
     * refused; both empty (the default) does nothing and returns true. */
    static Bool SwitchPersonality();

    /* Names the calling thread (15 characters are kept, prctl(2)); null is ignored. */
    static void SetName(const char *i_pName);

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */
    /* Clears the stop request; true. */
    Bool ResetStopRequest()
    {
        m_bStopRequested.store(false, std::memory_order_relaxed);
        return true;
    }
    /* Binds the calling thread to one processor and prints where it may run. i_pName may be
     * null. */
    static void SetAffinity(int i_s32Cpu, char *i_pName);

private:
    static void *_Entry(void *i_pThread);

    std::atomic<Bool> m_bStopRequested;
    Bool m_bJoined;
    std::atomic<pthread_t> m_stThreadID;
    [[maybe_unused]] UInt64 m_u64Reserved; /* part of the record's layout, always 0 */
    SInt32 m_s32Policy;
    SInt32 m_s32Priority;

    static pthread_attr_t s_tThreadAttr;
    static pthread_key_t s_tMainKey;
    static std::atomic<Bool> s_bInitialized;
    static char s_szUser[128];
    static char s_szGroup[128];
    static Bool s_bWrapSleep;
};
