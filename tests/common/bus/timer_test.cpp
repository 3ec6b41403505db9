#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/bus/timer.h"
#include "framework/clock.h"
#include "tests/support/fake_router.h"
#include "tests/support/log_capture.h"
#include "tests/support/moved_time.h"

namespace
{
constexpr UInt32 kOneShot = 0;
constexpr UInt32 kPeriodic = 1;

MSG_DESC_INFO_S Request(UInt32 i_u32MsgNo, UInt32 i_u32Type, UInt32 i_u32Id, UInt32 i_u32Interval,
                        UInt32 i_u32MsgType = MSG_TYPE_ASYNC)
{
    MSG_DESC_INFO_S stMsg = MakeMsg(i_u32MsgType, MODULE_ENCODER, MODULE_TIMER, i_u32MsgNo);
    PutPayload(&stMsg, TIMER_REQUEST_S{i_u32Type, i_u32Id, i_u32Interval});
    return stMsg;
}

class TimerTest : public testing::Test
{
public:
    void Set(UInt32 i_u32Type, UInt32 i_u32Id, UInt32 i_u32Interval,
             UInt32 i_u32MsgType = MSG_TYPE_ASYNC)
    {
        MSG_DESC_INFO_S stMsg =
            Request(MSG_SET_TIMER, i_u32Type, i_u32Id, i_u32Interval, i_u32MsgType);
        EXPECT_EQ(m_objTimer.HandleMsg(&stMsg, nullptr), 1);
    }

    void Cancel(UInt32 i_u32Type, UInt32 i_u32Id)
    {
        MSG_DESC_INFO_S stMsg = Request(MSG_CANCEL_TIMER, i_u32Type, i_u32Id, 0);
        EXPECT_EQ(m_objTimer.HandleMsg(&stMsg, nullptr), 1);
    }

    /* Moves the time and lets the timer scan once. */
    void Pass(SInt64 i_s64Milliseconds)
    {
        moved_time::Advance(i_s64Milliseconds);
        MSG_DESC_INFO_S stMsg = MakeMsg(MSG_TYPE_SYNC, MODULE_TIMER, MODULE_TIMER, MSG_TIMEOUT);
        EXPECT_EQ(m_objTimer.HandleMsg(&stMsg, nullptr), 1);
    }

    /* The ids of the timeouts sent so far, in order. */
    static std::string Fired()
    {
        std::string strIds;
        for (const MSG_DESC_INFO_S &stMsg : fake_router::Sent(MSG_TIMEOUT)) {
            strIds += std::to_string(PayloadOf<TIMER_REQUEST_S>(stMsg).id) + " ";
        }
        return strIds;
    }

    CTimer m_objTimer;
};

/* Intervals are long against the time that the test itself takes. */
TEST_F(TimerTest, OneShotFiresOncePeriodicFromItsFiring)
{
    Set(kOneShot, 1, 1000000);
    Set(kPeriodic, 2, 400000);
    Set(7, 3, 0xFFFFFFFF);
    Pass(390000);
    EXPECT_EQ(Fired(), "");
    Pass(600000); /* 990 s: the periodic one is late and fires once, not twice */
    EXPECT_EQ(Fired(), "2 ");
    Pass(10000); /* 1000 s */
    EXPECT_EQ(Fired(), "2 1 ");
    Pass(380000); /* 1380 s: its period runs from 990 s, not from 800 s */
    EXPECT_EQ(Fired(), "2 1 ");
    Pass(10000);
    EXPECT_EQ(Fired(), "2 1 2 ");
    Cancel(kPeriodic, 2);
    Pass(4294967295 - 1390000);
    EXPECT_EQ(Fired(), "2 1 2 3 ");
}

TEST_F(TimerTest, TimeoutReturnsTheRequestsPayloadAndType)
{
    CLogCapture objLog;
    for (UInt32 u32Type : {MSG_TYPE_SYNC, MSG_TYPE_ASYNC}) {
        MSG_DESC_INFO_S stMsg = Request(MSG_SET_TIMER, kOneShot, 9, 0, u32Type);
        memset(stMsg.payload + 12, 0xA5, 1012);
        stMsg.src = 77;
        EXPECT_EQ(m_objTimer.HandleMsg(&stMsg, nullptr), 1);
        /* Fired within the request and gone. */
        Pass(100000);
        std::vector<MSG_DESC_INFO_S> stSent = fake_router::Sent(MSG_TIMEOUT);
        ASSERT_EQ(stSent.size(), u32Type + 1);
        MSG_DESC_INFO_S stExpected = {u32Type, 5, 77, 0, 3, {}, {}};
        memcpy(stExpected.payload, stMsg.payload, 1024);
        EXPECT_EQ(memcmp(&stSent.back(), &stExpected, sizeof(stExpected)), 0);
    }
    EXPECT_EQ(objLog.Count("INFO add timer src:77, type:0, id:9 --["), 2);
}

TEST_F(TimerTest, CancelTakesEveryTimerOfTheTriple)
{
    CLogCapture objLog;
    Set(kOneShot, 1, 1000000);
    Set(kPeriodic, 1, 1000000);
    Set(kOneShot, 1, 2000000);
    Set(kOneShot, 2, 1000000);
    Cancel(kOneShot, 1);
    EXPECT_EQ(objLog.Count("INFO cancel timer src:2, type:0, id:1 --["), 2);
    Cancel(kOneShot, 1);
    EXPECT_EQ(objLog.Count("cancel timer"), 2);
    Pass(3000000);
    EXPECT_EQ(Fired(), "1 2 ");
}

TEST(TimerWaitTest, TheLastPendingTimerDecides)
{
    struct {
        std::vector<UInt32> u32Intervals;
        UInt32 u32Wait;
    } stRows[] = {
        {{}, 10}, {{11}, 10}, {{10}, 10}, {{9}, 9}, {{3, 500}, 10}, {{500, 3}, 3}, {{4, 0}, 4},
    };
    for (const auto &stRow : stRows) {
        /* Again, if the clock ticked meanwhile. */
        for (int s32Tries = 0;; s32Tries++) {
            ASSERT_LT(s32Tries, 1000) << testing::PrintToString(stRow.u32Intervals);
            CTimer objTimer;
            SInt64 s64Begin = GetTimeInMs();
            for (UInt32 u32Interval : stRow.u32Intervals) {
                MSG_DESC_INFO_S stMsg = Request(MSG_SET_TIMER, kOneShot, 1, u32Interval);
                objTimer.HandleMsg(&stMsg, nullptr);
            }
            UInt32 u32Wait = objTimer.GetWait();
            if (GetTimeInMs() == s64Begin) {
                EXPECT_EQ(u32Wait, stRow.u32Wait) << testing::PrintToString(stRow.u32Intervals);
                break;
            }
        }
    }
    EXPECT_EQ(CTimer(3).GetWait(), 10U);
    EXPECT_EQ(CTimer(25).GetWait(), 25U);
}

/* Requesters that answer a synchronous timeout with requests of their own. */
TEST_F(TimerTest, HandlersMayChangeTheTimers)
{
    using Handler = void (*)(TimerTest *);
    struct {
        Handler pHandler;   /* of timer 2 */
        const char *pFired; /* at the first scan, with all three due */
        const char *pLater; /* after the next one */
    } stRows[] = {
        {[](TimerTest *p) { p->Cancel(kPeriodic, 2); }, "1 2 3 ", "1 2 3 1 3 "},
        {[](TimerTest *p) { p->Cancel(kPeriodic, 3); }, "1 2 ", "1 2 1 2 "},
        /* Setting one scans at once: 3 is due there, 2 is on its way already. */
        {[](TimerTest *p) { p->Set(kOneShot, 4, 900000); }, "1 2 3 ", "1 2 3 1 2 3 "},
        {[](TimerTest *p) { p->Set(kOneShot, 4, 0); }, "1 2 3 4 ", "1 2 3 4 1 2 3 4 "},
    };
    for (const auto &stRow : stRows) {
        fake_router::OnMessage(nullptr);
        for (UInt32 u32Id = 1; u32Id <= 4; u32Id++) {
            Cancel(kPeriodic, u32Id);
            Cancel(kOneShot, u32Id);
        }
        const std::size_t u64Before = Fired().size();
        fake_router::OnMessage([&](const MSG_DESC_INFO_S &i_stMsg, void *) {
            if (PayloadOf<TIMER_REQUEST_S>(i_stMsg).id == 2) {
                stRow.pHandler(this);
            }
            return 1;
        });
        for (UInt32 u32Id = 1; u32Id <= 3; u32Id++) {
            Set(kPeriodic, u32Id, 100000, MSG_TYPE_SYNC);
        }
        Pass(150000);
        EXPECT_EQ(Fired().substr(u64Before), stRow.pFired);
        Pass(150000);
        EXPECT_EQ(Fired().substr(u64Before), stRow.pLater);
    }
    fake_router::OnMessage(nullptr);
}

TEST_F(TimerTest, TheThreadServesItsQueueAndItsClock)
{
    CLogCapture objLog;
    m_objTimer.Start();
    MSG_DESC_INFO_S stMsg = Request(MSG_SET_TIMER, kPeriodic, 1, 600000);
    EXPECT_EQ(m_objTimer.PushMsg(&stMsg), 1);
    ASSERT_TRUE(objLog.WaitFor("INFO add timer src:2, type:1, id:1 --["));
    EXPECT_TRUE(objLog.Has("INFO thread info [timer:"));
    for (std::size_t u64Fired = 1; u64Fired <= 3; u64Fired++) {
        Cancel(kOneShot, 999); /* waits for the module's mutex: the timer is armed again by then */
        moved_time::Advance(600000);
        ASSERT_TRUE(fake_router::WaitForSent(MSG_TIMEOUT, u64Fired));
    }
    EXPECT_EQ(Fired(), "1 1 1 ");
}
} // namespace
