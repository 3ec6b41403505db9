#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "common/bus/msg_queue.h"
#include "tests/support/log_capture.h"

namespace
{
TEST(MsgQueueTest, KeepsOrderOverTheRingsEndAndDropsTheFiftieth)
{
    CLogCapture objLog;
    CMsgQueue objQueue;
    MSG_DESC_INFO_S stOut = {};
    MSG_DESC_INFO_S stMsg =
        MakeMsg(MSG_TYPE_ASYNC, MODULE_CAPTURE, MODULE_ENCODER, MSG_ENC_VIDEO_CHG);
    stMsg.payload[1023] = 0xA5;
    for (int s32Round = 0; s32Round < 5; s32Round++) {
        /* The ring begins one further on. */
        ASSERT_EQ(objQueue.PushMsg(&stMsg), 1);
        ASSERT_EQ(objQueue.PopMsg(1, &stOut), 1);
        for (UInt8 i = 0; i < 50; i++) {
            stMsg.payload[0] = i;
            EXPECT_EQ(objQueue.PushMsg(&stMsg), i < 49 ? 1 : 0);
        }
        for (UInt8 i = 0; i < 50; i++) {
            ASSERT_EQ(objQueue.PopMsg(1, &stOut), i < 49 ? 1 : 0);
            ASSERT_EQ(stOut.payload[0], std::min<UInt8>(i, 48));
            ASSERT_EQ(stOut.payload[1023], 0xA5);
        }
    }
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

} // namespace
