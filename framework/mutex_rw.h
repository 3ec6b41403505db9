/*
 * Read-write lock: any number of readers or a writer, waiting writers before new readers.
 *
 * Every operation may be called from any thread. Not recursive: a reader that locks again waits
 * for a writer that waits for it.
 */
#pragma once

#include "framework/cond.h"
#include "framework/mutex.h"
#include "framework/types.h"

class CMutexRW
{
public:
    CMutexRW();

    /* Waits while a writer holds the lock or waits for it. */
    void LockRead();
    /* Waits while readers hold the lock. A second writer is admitted beside a first. */
    void LockWrite();
    /* Gives up one reader or the writer and wakes who may go next. */
    void Unlock();

    /* The predicates and adjusters are for use under the internal mutex only. */
    Bool ActiveReaders() const { return m_s32State > 0; }
    Bool ActiveWriter() const { return m_s32State < 0; }
    Bool WaitingWriters() const { return m_s32WriteWaiters > 0; }
    void AddReadWaiter() { AdjustReadWaiters(1); }
    void RemoveReadWaiter() { AdjustReadWaiters(-1); }
    void AddWriteWaiter() { AdjustWriteWaiters(1); }
    void RemoveWriteWaiter() { AdjustWriteWaiters(-1); }
    void AddActiveReader() { AdjustState(1); }
    void RemoveActiveReader() { AdjustState(-1); }
    void SetState(int i_s32State) { m_s32State = i_s32State; }
    void AdjustState(int i_s32By) { m_s32State += i_s32By; }
    void AdjustReadWaiters(int i_s32By) { m_s32ReadWaiters += i_s32By; }
    void AdjustWriteWaiters(int i_s32By) { m_s32WriteWaiters += i_s32By; }

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */
    /* 0 acquired, 16 (EBUSY) not. */
    SInt32 TryLockRead();
    SInt32 TryLockWrite();
    Bool Active() const { return m_s32State != 0; }

private:
    CMutex m_objMutex;
    CCond m_objReadCond;
    CCond m_objWriteCond;
    SInt32 m_s32State;
    SInt32 m_s32WriteWaiters;
    SInt32 m_s32ReadWaiters;
    SInt32 m_s32LastState; /* kept for inspection in a debugger only */
};

/* --- Offered: the daemon uses nothing of what follows. --------------------------------------- */

/* Unlocks a CMutexRW at the end of its own life. A null lock is allowed and does nothing. */
class CMutexReadWriteLocker
{
public:
    explicit CMutexReadWriteLocker(CMutexRW *i_pMutexRW) : m_pMutexRW(i_pMutexRW) {}
    ~CMutexReadWriteLocker();
    CMutexReadWriteLocker(const CMutexReadWriteLocker &) = delete;
    CMutexReadWriteLocker &operator=(const CMutexReadWriteLocker &) = delete;

protected:
    CMutexRW *m_pMutexRW;
};

class CMutexReadLocker : public CMutexReadWriteLocker
{
public:
    explicit CMutexReadLocker(CMutexRW *i_pMutexRW);
};

class CMutexWriteLocker : public CMutexReadWriteLocker
{
public:
    explicit CMutexWriteLocker(CMutexRW *i_pMutexRW);
};
