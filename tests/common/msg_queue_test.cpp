#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "common/msg_queue.h"
#include "framework/mutex.h"
#include "tests/support/log_capture.h"
#include "tests/support/moved_time.h"
#include "tests/support/wait_until.h"

namespace
{
TEST(MsgQueueTest, KeepsOrderOverTheRingsEndAndDropsTheFiftieth)
{
    CLogCapture objLog;
    CMsgQueue objQueue;
    MSG_DESC_INFO_S stOut = {};
    UInt32 u32Pushed = 0;
    UInt32 u32Popped = 0;
    MSG_DESC_INFO_S stMsg = MakeMsg(MSG_TYPE_ASYNC, 9, 2, 0x803);
    for (int s32Round = 0; s32Round < 5; s32Round++) {
        for (int i = 0; i < 49; i++) {
            memcpy(stMsg.payload, &u32Pushed, sizeof(u32Pushed));
            stMsg.payload[1023] = 0xA5;
            ASSERT_EQ(objQueue.PushMsg(&stMsg), 1);
            u32Pushed++;
        }
        EXPECT_EQ(objQueue.PushMsg(&stMsg), 0);
        for (int i = 0; i < 49 - (s32Round == 4 ? 0 : s32Round); i++) {
            ASSERT_EQ(objQueue.PopMsg(1, &stOut), 1);
            UInt32 u32Got = 0;
            memcpy(&u32Got, stOut.payload, sizeof(u32Got));
            ASSERT_EQ(u32Got, u32Popped++);
            ASSERT_EQ(stOut.payload[1023], 0xA5);
        }
        while (s32Round < 4 && objQueue.PopMsg(1, &stOut) == 1) {
            u32Popped++;
        }
    }
    EXPECT_EQ(u32Pushed, u32Popped);
    EXPECT_EQ(objLog.Count("ERROR buf<49> overflow, msg<src:9,dst:2,msgtype:0x803> discard --["),
              5);
}

TEST(MsgQueueTest, NothingToTakeLeavesTheBufferAlone)
{
    CMsgQueue objQueue;
    MSG_DESC_INFO_S stOut;
    memset(&stOut, 0x5A, sizeof(stOut));
    MSG_DESC_INFO_S stBefore = stOut;
    EXPECT_EQ(objQueue.PopMsg(5, &stOut), 0);
    EXPECT_EQ(memcmp(&stOut, &stBefore, sizeof(stOut)), 0);
    EXPECT_EQ(objQueue.PopMsg(5, nullptr), 0);
    EXPECT_EQ(objQueue.PushMsg(nullptr), 0);
}

TEST(RunningMutexTest, GivesUpAfterThirtyTries)
{
    CMutex objMutex;
    EXPECT_EQ(GetRunningMutex(nullptr), 0);
    EXPECT_EQ(PutRunningMutex(nullptr), 0);
    EXPECT_EQ(GetRunningMutex(&objMutex), 1);
    EXPECT_EQ(GetRunningMutex(&objMutex), 1);
    EXPECT_EQ(PutRunningMutex(&objMutex), 1);
    EXPECT_EQ(PutRunningMutex(&objMutex), 1);

    std::atomic<bool> bHeld{false}, bDone{false};
    std::thread objHolder([&] {
        const CMutexLocker objLocker(&objMutex);
        bHeld = true;
        EXPECT_TRUE(WaitUntil([&] { return bDone.load(); }));
    });
    EXPECT_TRUE(WaitUntil([&] { return bHeld.load(); }));
    moved_time::DivideSleeps(100);
    EXPECT_EQ(GetRunningMutex(&objMutex), 0);
    EXPECT_EQ(moved_time::SleptMicroseconds(), 2900000U);
    bDone = true;
    objHolder.join();
}
} // namespace
