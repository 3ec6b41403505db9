#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "framework/task.h"
#include "tests/framework/net_support.h"

namespace
{
/* The sockets' event thread. */
class CAccess : public CSocket
{
public:
    static CEventThread *EventThread()
    {
        StartEvents();
        return s_pEventThread;
    }
};

/* A context that counts its events and can hold the event thread in one. */
class CProbe : public CEventContext
{
public:
    explicit CProbe(int i_s32FileDesc) : CEventContext(i_s32FileDesc, CAccess::EventThread()) {}
    ~CProbe() override { CleanupIfWanted(); }

    void ProcessEvent(int i_s32EventBits) override
    {
        m_s32Bits = i_s32EventBits;
        m_s32Events++;
        while (m_bHold) {
            std::this_thread::yield();
        }
        CEventContext::ProcessEvent(i_s32EventBits);
    }
    bool WaitFor(int i_s32Events)
    {
        return WaitUntil([&] { return m_s32Events >= i_s32Events; });
    }

    using CEventContext::m_bAutoCleanup;
    using CEventContext::m_s32FileDesc;
    using CEventContext::m_u64UniqueID;
    using CEventContext::s_u32UniqueID;

    std::atomic<int> m_s32Events{0};
    std::atomic<int> m_s32Bits{0};
    std::atomic<bool> m_bHold{false};
};

/* Readable for good, or not at all. */
int Counter(bool i_bReadable)
{
    return eventfd(i_bReadable ? 1 : 0, 0);
}

/* Three rounds of the event thread; whatever was to be handed out is then handed out. */
void LetEventsPass()
{
    CProbe objMarker(Counter(true));
    for (int i = 1; i <= 3; i++) {
        objMarker.RequestEvent(1);
        ASSERT_TRUE(objMarker.WaitFor(i));
    }
}

TEST(EventContextTest, OneEventForOneRequest)
{
    CProbe objProbe(Counter(true));
    LetEventsPass();
    EXPECT_EQ(objProbe.m_s32Events, 0);
    UInt64 u64UniqueID = 0;
    for (int i = 1; i <= 3; i++) {
        objProbe.RequestEvent(i < 3 ? 1 : 2);
        ASSERT_TRUE(objProbe.WaitFor(i));
        EXPECT_EQ(objProbe.m_s32Bits, i < 3 ? 1 : 2);
        LetEventsPass();
        EXPECT_EQ(objProbe.m_s32Events, i);
        EXPECT_TRUE(u64UniqueID == 0 || objProbe.m_u64UniqueID == u64UniqueID);
        u64UniqueID = objProbe.m_u64UniqueID;
    }
}

TEST(EventContextTest, TheTaskIsSignalledReadWhateverTheBits)
{
    /* Without a pool it is marked and does not run. */
    struct CReader : CTask {
        SInt64 Run() override { return 0; }
    } objTask;
    CProbe objProbe(Counter(false));
    objProbe.SetTask(&objTask);
    objProbe.RequestEvent(2);
    LetEventsPass();
    objProbe.Cleanup();
    EXPECT_EQ(objTask.GetEvents(), 16U);
}

TEST(EventContextTest, CleanupWaitsForTheEventUnderWay)
{
    auto pProbe = std::make_unique<CProbe>(Counter(true));
    int s32FileDesc = pProbe->m_s32FileDesc;
    pProbe->m_bHold = true;
    pProbe->RequestEvent(1);
    ASSERT_TRUE(pProbe->WaitFor(1));
    std::atomic<bool> bGone{false};
    CProbe *pHeld = pProbe.get();
    std::thread objOwner([&] {
        pProbe.reset();
        bGone = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(bGone);
    EXPECT_TRUE(IsOpen(s32FileDesc));
    pHeld->m_bHold = false;
    objOwner.join();
    EXPECT_TRUE(WaitUntil([&] { return !IsOpen(s32FileDesc); }));
}

TEST(EventContextTest, ClosedWhileSelectWaitsAndUsedAgain)
{
    CProbe objProbe(Counter(false));
    int s32FileDesc = objProbe.m_s32FileDesc;
    objProbe.RequestEvent(1);
    LetEventsPass();
    objProbe.Cleanup();
    EXPECT_EQ(objProbe.m_s32FileDesc, -1);
    EXPECT_TRUE(WaitUntil([&] { return !IsOpen(s32FileDesc); }));
    objProbe.Cleanup();

    objProbe.InitNonBlocking(Counter(true));
    EXPECT_NE(fcntl(objProbe.m_s32FileDesc, F_GETFL) & O_NONBLOCK, 0);
    objProbe.RequestEvent(1);
    EXPECT_TRUE(objProbe.WaitFor(1));
}

TEST(EventContextTest, WhatWasNeverWatchedIsClosedAtOnceUnlessTheOwnerDoes)
{
    int s32Closed = Counter(false);
    int s32Kept = Counter(false);
    {
        CProbe objCloses(s32Closed);
        CProbe objKeeps(s32Kept);
        objKeeps.m_bAutoCleanup = false;
    }
    EXPECT_FALSE(IsOpen(s32Closed));
    EXPECT_TRUE(IsOpen(s32Kept));
    close(s32Kept);
}

TEST(EventContextTest, IdsWrapAndSkipThoseInUse)
{
    std::vector<std::unique_ptr<CProbe>> objProbes;
    auto objRegister = [&] {
        objProbes.push_back(std::make_unique<CProbe>(Counter(true)));
        objProbes.back()->RequestEvent(1);
        EXPECT_TRUE(objProbes.back()->WaitFor(1));
        return objProbes.back()->m_u64UniqueID;
    };
    EXPECT_EQ(objRegister(), 2U);
    CProbe::s_u32UniqueID = 9999999;
    EXPECT_EQ(objRegister(), 10000000U);
    EXPECT_EQ(objRegister(), 1U);
    EXPECT_EQ(objRegister(), 3U);
    EXPECT_EQ(objProbes.front()->m_s32Events, 1);
}

TEST(EventContextDeathTest, WhatTheOwnerMustNotDo)
{
    EXPECT_DEATH(
        {
            CProbe objProbe(-1);
            objProbe.RequestEvent(1);
        },
        "`false'");
    EXPECT_DEATH(
        {
            CProbe objProbe(-1);
            objProbe.InitNonBlocking(-1);
        },
        "s32Err == 0");
    EXPECT_DEATH({ CProbe objProbe(1999); }, "s32Err == 0");
}
} // namespace
