#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <utility>

#include <sys/prctl.h>
#include <unistd.h>

#include "framework/atomic.h"
#include "framework/clock.h"
#include "framework/mutex_rw.h"
#include "framework/thread.h"
#include "tests/support/moved_time.h"

namespace
{
/* Runs a function on a framework thread and joins it. */
class CRunner : public CThread
{
public:
    explicit CRunner(std::function<void()> i_objBody) : m_objBody(std::move(i_objBody)) {}
    ~CRunner() override { StopAndWaitForThread(); }
    void Entry() override { m_objBody(); }

private:
    std::function<void()> m_objBody;
};

void RunOnThread(std::function<void()> i_objBody)
{
    CRunner objRunner(std::move(i_objBody));
    objRunner.Start();
    objRunner.Join();
}

TEST(MutexTest, RecursionHoldsUntilTheLastUnlock)
{
    CMutex objMutex;
    objMutex.Lock();
    objMutex.Lock();
    EXPECT_TRUE(objMutex.TryLock());
    objMutex.Unlock();
    objMutex.Unlock();
    RunOnThread([&] { EXPECT_FALSE(objMutex.TryLock()); });
    objMutex.Unlock();
    RunOnThread([&] {
        EXPECT_TRUE(objMutex.TryLock());
        objMutex.Unlock();
    });
    CMutexLocker objNothing(nullptr);
}

TEST(MutexDeathTest, MisuseAborts)
{
    CMutex objMutex;
    EXPECT_DEATH(objMutex.Unlock(), "pthread_self\\(\\) == m_stHolder");
    EXPECT_DEATH(
        {
            CMutex objHeld;
            objHeld.Lock();
        },
        "0 == m_u32HolderCount");
}

/* A busy machine makes the wait longer, and less of it left when the system is asked. */
TEST(CondTest, TimeoutsAreCoarsened)
{
    struct {
        int s32Asked;
        SInt64 s64WaitedMs;
    } const stCases[] = {{1000, 1005}, {999, 988}, {15, 8}, {11, 8}, {10, 5}, {5, 5}, {-7, 5}};
    CMutex objMutex;
    CCond objCond;
    for (const auto &stCase : stCases) {
        CMutexLocker objLocker(&objMutex);
        SInt64 s64Begin = GetTimeInMcros();
        objCond.Wait(&objMutex, stCase.s32Asked);
        SInt64 s64Waited = GetTimeInMcros() - s64Begin;
        EXPECT_GE(s64Waited, stCase.s64WaitedMs * 1000 - 1000) << stCase.s32Asked;
        EXPECT_LE(moved_time::LeftOfLastWait(), stCase.s64WaitedMs * 1000) << stCase.s32Asked;
    }
}

TEST(MutexRWTest, ReadersShareAndWaitingWritersGoFirst)
{
    CMutexRW objLock;
    objLock.LockRead();
    EXPECT_EQ(objLock.TryLockRead(), 0);
    EXPECT_EQ(objLock.TryLockWrite(), 16);
    std::atomic<bool> bWritten{false};
    CRunner objWriter([&] {
        CMutexWriteLocker objLocker(&objLock);
        bWritten = true;
    });
    objWriter.Start();
    while (objLock.TryLockRead() == 0) {
        objLock.Unlock();
        CThread::ThreadYield();
    }
    EXPECT_FALSE(bWritten);
    objLock.Unlock();
    objLock.Unlock();
    objWriter.Join();
    EXPECT_TRUE(bWritten);
    EXPECT_EQ(objLock.TryLockWrite(), 0);
    EXPECT_EQ(objLock.TryLockRead(), 16);
    /* A second writer enters beside the first; both leave with one unlock. */
    objLock.LockWrite();
    objLock.Unlock();
    EXPECT_FALSE(objLock.Active());
}

TEST(ThreadTest, StopRequestNameAndCurrent)
{
    EXPECT_EQ(CThread::GetCurrent(), nullptr);
    CThread *pSeen = nullptr;
    char szName[16] = "";
    CRunner objRunner([&] {
        pSeen = CThread::GetCurrent();
        CThread::SetName(nullptr);
        CThread::SetName("encoder");
        prctl(PR_GET_NAME, szName);
        while (!pSeen->IsStopRequested()) {
            CThread::Sleep(1);
        }
    });
    objRunner.Start();
    objRunner.StopAndWaitForThread();
    EXPECT_EQ(pSeen, &objRunner);
    EXPECT_STREQ(szName, "encoder");
    EXPECT_TRUE(objRunner.ResetStopRequest());
    EXPECT_FALSE(objRunner.IsStopRequested());
    objRunner.StopAndWaitForThread();
    CRunner objNeverStarted([] {});
}

TEST(AtomicTest, ResultsAndTotals)
{
    UInt32 u32Word = 5;
    EXPECT_EQ(atomic_add(&u32Word, -7), 4294967294U);
    EXPECT_EQ(atomic_sub(&u32Word, -8), 6U);
    EXPECT_EQ(atomic_sub(&u32Word, INT32_MIN), 2147483654U);
    u32Word = 6;
    EXPECT_EQ(atomic_or(&u32Word, 0x80000001U), 6U);
    EXPECT_EQ(u32Word, 0x80000007U);
    EXPECT_FALSE(compare_and_store(6, 1, &u32Word));
    EXPECT_TRUE(compare_and_store(0x80000007U, 0, &u32Word));
}

} // namespace
