#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "common/bus/log.h"
#include "common/bus/module.h"
#include "common/bus/router.h"
#include "common/bus/timer.h"
#include "framework/mutex.h"
#include "tests/support/log_capture.h"
#include "tests/support/moved_time.h"
#include "tests/support/wait_until.h"

namespace
{
/* Knows MSG_START and writes down what reaches it, and on which thread. */
class CSeeing : public CModule
{
public:
    explicit CSeeing(UInt32 i_u32Module) : CModule(i_u32Module, "seeing", "CSeeing", MSG_INIT) {}
    ~CSeeing() override { StopAndWaitForThread(); }

    int HandleInitMsg(const MSG_DESC_INFO_S *, void *) override
    {
        LOG_INFO("init, %s", GetCurrent() == this ? "own thread" : "sender's thread");
        return 1;
    }

private:
    int Dispatch(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult) override
    {
        if (i_pMsg->msgno != MSG_START) {
            return CModule::Dispatch(i_pMsg, o_pResult);
        }
        LOG_INFO("start <%s>", std::string(TextOf(*i_pMsg)).c_str());
        *static_cast<UInt32 *>(o_pResult) = PayloadOf<UInt32>(*i_pMsg);
        return 7;
    }
};

class RouterTest : public testing::Test
{
protected:
    RouterTest() : m_objEncoder(MODULE_ENCODER)
    {
        SetUpRouter(&m_objRunningMutex, {&m_objEncoder});
    }

    int Send(UInt32 i_u32Type, UInt32 i_u32Dst, UInt32 i_u32MsgNo, void *o_pResult = nullptr)
    {
        MSG_DESC_INFO_S stMsg = MakeMsg(i_u32Type, MODULE_CAPTURE, i_u32Dst, i_u32MsgNo);
        PutText(&stMsg, std::string(2000, 'x'));
        return SendSyncAndAsyncMsg(&stMsg, o_pResult);
    }

    CLogCapture m_objLog;
    CMutex m_objRunningMutex;
    CSeeing m_objEncoder;
};

TEST_F(RouterTest, RefusesWhatItDoesNotKnow)
{
    const struct {
        UInt32 u32Type, u32Dst;
        const char *pFirst;
    } stRows[] = {
        {MSG_TYPE_SYNC, MODULE_GST_H264, "ERROR sync message, unknown module<3> --["},
        {MSG_TYPE_ASYNC, MODULE_GST_JPEG, "ERROR async message, unknown module<4> --["},
        {MSG_TYPE_ASYNC, 16, "ERROR async message, unknown module<16> --["},
        {2, MODULE_ENCODER, nullptr},
    };
    for (const auto &stRow : stRows) {
        m_objLog.Clear();
        EXPECT_EQ(Send(stRow.u32Type, stRow.u32Dst, MSG_ENC_VIDEO_CHG), 0);
        const std::string strUnhandled = "ERROR unhandle message, msgtype<" +
                                         std::to_string(stRow.u32Type) + ">,src<9>,dst<" +
                                         std::to_string(stRow.u32Dst) + ">,msg no<0x803> --[";
        EXPECT_TRUE(m_objLog.Has(strUnhandled));
        EXPECT_TRUE(stRow.pFirst == nullptr || m_objLog.Has(stRow.pFirst)) << stRow.pFirst;
        EXPECT_EQ(m_objLog.Lines().size(), stRow.pFirst == nullptr ? 1U : 2U);
    }
    EXPECT_EQ(SendSyncAndAsyncMsg(nullptr, nullptr), 0);
    /* Nothing is locked afterwards. */
    std::thread([&] {
        ASSERT_TRUE(m_objRunningMutex.TryLock());
        m_objRunningMutex.Unlock();
    }).join();
}

TEST_F(RouterTest, ASynchronousMessageIsHandledAtOnceAnUnknownNumberByOne)
{
    UInt32 u32Result = 0;
    EXPECT_EQ(Send(MSG_TYPE_SYNC, MODULE_ENCODER, MSG_START, &u32Result), 7);
    EXPECT_EQ(u32Result, 0x78787878U);
    EXPECT_TRUE(m_objLog.Has("INFO start <" + std::string(1023, 'x') + "> --["));
    for (UInt32 u32MsgNo : {MSG_DEINIT, MSG_REINIT, 0xFFFFU}) {
        EXPECT_EQ(Send(MSG_TYPE_SYNC, MODULE_ENCODER, u32MsgNo), 1);
    }
    EXPECT_EQ(m_objEncoder.HandleMsg(nullptr, nullptr), 0);
}

TEST_F(RouterTest, AThreadNamesItselfTakesItsFirstMessageAndStopsAtOnce)
{
    /* Its first wait is as long as that of a thread whose wall clock was set back. */
    CTimer objTimer(30000);
    m_objEncoder.Start();
    objTimer.Start();
    ASSERT_TRUE(m_objLog.WaitFor("INFO init, own thread --["));
    EXPECT_TRUE(m_objLog.Has("INFO thread info [seeing:"));
    ASSERT_TRUE(m_objLog.WaitFor("INFO thread info [timer:"));
    const auto objBegin = std::chrono::steady_clock::now();
    objTimer.StopAndWaitForThread();
    EXPECT_LT(std::chrono::steady_clock::now() - objBegin, std::chrono::seconds(15));

    m_objEncoder.StopAndWaitForThread();
    for (int i = 0; i < 50; i++) {
        EXPECT_EQ(Send(MSG_TYPE_ASYNC, MODULE_ENCODER, MSG_START), i < 49 ? 1 : 0);
    }
    EXPECT_EQ(m_objLog.Count("ERROR CSeeing pushmsg fail --["), 1);
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
