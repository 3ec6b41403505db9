#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <sys/eventfd.h>

#include "framework/task.h"
#include "framework/udpsocket.h"
#include "framework/unique_fd.h"
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
        objMarker.RequestEvent(EV_READ);
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
        const int s32Bits = i < 3 ? EV_READ : EV_WRITE;
        objProbe.RequestEvent(s32Bits);
        ASSERT_TRUE(objProbe.WaitFor(i));
        EXPECT_EQ(objProbe.m_s32Bits, s32Bits);
        LetEventsPass();
        EXPECT_EQ(objProbe.m_s32Events, i);
        EXPECT_TRUE(i == 1 || objProbe.m_u64UniqueID == u64UniqueID);
        u64UniqueID = objProbe.m_u64UniqueID;
    }
}

TEST(EventContextTest, TheTaskIsSignalledReadWhateverTheBits)
{
    struct CReader : CTask {
        SInt64 Run() override { return 0; }
    } objTask; /* without a pool it is marked and does not run */
    CProbe objProbe(Counter(false));
    objProbe.SetTask(&objTask);
    objProbe.RequestEvent(EV_WRITE);
    LetEventsPass();
    objProbe.Cleanup();
    EXPECT_EQ(objTask.GetEvents(), CTask::kReadEvent);
}

TEST(EventContextTest, CleanupWaitsForTheEventUnderWay)
{
    auto pProbe = std::make_unique<CProbe>(Counter(true));
    CProbe *pHeld = pProbe.get();
    const int s32FileDesc = pHeld->m_s32FileDesc;
    pHeld->m_bHold = true;
    pHeld->RequestEvent(EV_READ);
    ASSERT_TRUE(pHeld->WaitFor(1));
    std::atomic<bool> bGone{false};
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

/* Watched: by the event thread, while select waits. Never watched: at once, unless the owner does
 * it himself. */
TEST(EventContextTest, CleanupClosesAndTheContextCanBeUsedAgain)
{
    CProbe objProbe(Counter(false));
    const int s32Watched = objProbe.m_s32FileDesc;
    objProbe.RequestEvent(EV_READ);
    LetEventsPass();
    objProbe.Cleanup();
    EXPECT_EQ(objProbe.m_s32FileDesc, -1);
    EXPECT_TRUE(WaitUntil([&] { return !IsOpen(s32Watched); }));
    objProbe.Cleanup();

    const int s32Again = Counter(true);
    objProbe.InitNonBlocking(s32Again);
    EXPECT_NE(fcntl(s32Again, F_GETFL) & O_NONBLOCK, 0);
    objProbe.Cleanup();
    EXPECT_FALSE(IsOpen(s32Again));
    objProbe.InitNonBlocking(Counter(true));
    objProbe.RequestEvent(EV_READ);
    EXPECT_TRUE(objProbe.WaitFor(1));

    const UniqueFd objKept(Counter(false));
    {
        CProbe objKeeps(objKept.Get());
        objKeeps.m_bAutoCleanup = false;
    }
    EXPECT_TRUE(IsOpen(objKept.Get()));
}

TEST(EventContextTest, AWatchIsTakenOver)
{
    CProbe objFrom(Counter(false)), objTo(Counter(false));
    const int s32FileDesc = objFrom.m_s32FileDesc, s32Before = objTo.m_s32FileDesc;
    objFrom.RequestEvent(EV_READ);
    objTo.SnarfEventContext(objFrom);
    EXPECT_EQ(objFrom.m_s32FileDesc, -1);
    EXPECT_FALSE(IsOpen(s32Before));
    EXPECT_EQ(eventfd_write(s32FileDesc, 1), 0);
    EXPECT_TRUE(objTo.WaitFor(1));
    EXPECT_EQ(objFrom.m_s32Events, 0);
}

TEST(EventContextTest, IdsWrapAndSkipThoseInUse)
{
    std::vector<std::unique_ptr<CProbe>> objProbes;
    auto objRegister = [&] {
        objProbes.push_back(std::make_unique<CProbe>(Counter(true)));
        objProbes.back()->RequestEvent(EV_READ);
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

/* These were watched, and leave the cleaning up to their base. */
struct CForgetfulContext : CEventContext {
    CForgetfulContext() : CEventContext(Counter(false), CAccess::EventThread()) {}
};
struct CForgetfulSocket : CUDPSocket {
    CForgetfulSocket() : CUDPSocket(nullptr, 0) { (void)Open(); }
};
template <typename Context> void WatchAndForget()
{
    StartEvents();
    Context().RequestEvent(EV_READ);
}

TEST(EventContextDeathTest, WhatTheOwnerMustNotDo)
{
    EXPECT_DEATH(CProbe(-1).RequestEvent(EV_READ), "`false'");
    EXPECT_DEATH(CProbe(-1).InitNonBlocking(-1), "s32Err == 0");
    EXPECT_DEATH(CProbe(1999), "s32Err == 0");
    EXPECT_DEATH(WatchAndForget<CForgetfulContext>(), "m_pRegisteredType");
    EXPECT_DEATH(WatchAndForget<CForgetfulSocket>(), "m_pRegisteredType");
}
} // namespace
