#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <utility>
#include <vector>

#include <sys/prctl.h>

#include "framework/atomic.h"
#include "framework/clock.h"
#include "framework/mutex_rw.h"
#include "framework/thread.h"
#include "tests/support/moved_time.h"

namespace
{
/* Runs a function on a framework thread. */
class CRunner : public CThread
{
public:
    explicit CRunner(std::function<void()> i_objBody) : m_objBody(std::move(i_objBody)) {}
    ~CRunner() override { StopAndWaitForThread(); }
    void Entry() override { m_objBody(); }

private:
    std::function<void()> m_objBody;
};

TEST(MutexTest, RecursionHoldsUntilTheLastUnlock)
{
    CMutex objMutex;
    objMutex.Lock();
    objMutex.Lock();
    EXPECT_TRUE(objMutex.TryLock());
    for (bool bFree : {false, false, true}) {
        objMutex.Unlock();
        CRunner objOther([&] {
            const bool bTaken = objMutex.TryLock();
            EXPECT_EQ(bTaken, bFree);
            if (bTaken) {
                objMutex.Unlock();
            }
        });
        objOther.Start();
        objOther.Join();
    }
    CMutexLocker objNothing(nullptr);
}

TEST(MutexDeathTest, MisuseAborts)
{
    EXPECT_DEATH(CMutex().Unlock(), "pthread_self\\(\\) == m_stHolder");
    EXPECT_DEATH(CMutex().Lock(), "0 == m_u32HolderCount");
}

/* A busy machine makes the wait longer, and less of it left when the system is asked. */
TEST(CondTest, TimeoutsAreCoarsened)
{
    CMutex objMutex;
    CCond objCond;
    CMutexLocker objLocker(&objMutex);
    for (auto [s32Asked, s32WaitedMs] : std::vector<std::pair<int, int>>{
             {1000, 1005}, {999, 988}, {15, 8}, {11, 8}, {10, 5}, {5, 5}, {-7, 5}}) {
        SInt64 s64Begin = GetTimeInMcros();
        objCond.Wait(&objMutex, s32Asked);
        EXPECT_GE(GetTimeInMcros() - s64Begin, s32WaitedMs * 1000 - 1000) << s32Asked;
        EXPECT_LE(moved_time::LeftOfLastWait(), s32WaitedMs * 1000) << s32Asked;
    }
}

TEST(MutexRWTest, ReadersShareAndWaitingWritersGoFirst)
{
    CMutexRW objLock;
    objLock.LockRead();
    EXPECT_EQ(objLock.TryLockRead(), 0);
    EXPECT_EQ(objLock.TryLockWrite(), EBUSY);
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
    CRunner objReader([&] {
        CMutexReadLocker objLocker(&objLock);
        EXPECT_TRUE(bWritten);
    });
    objReader.Start();
    CThread::Sleep(20);
    EXPECT_FALSE(bWritten);
    objLock.Unlock();
    objLock.Unlock();
    objWriter.Join();
    objReader.Join();
    EXPECT_EQ(objLock.TryLockWrite(), 0);
    EXPECT_EQ(objLock.TryLockRead(), EBUSY);
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
