/*
 * The event interface by itself: the test is the event thread, so every step is in its hands.
 */
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <deque>
#include <thread>
#include <utility>
#include <vector>

#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "framework/eventcontext.h"
#include "framework/unique_fd.h"
#include "tests/framework/net_support.h"

namespace
{
/* errno of the next selects; 0 lets one through to the system. */
std::deque<int> g_s32SelectErrors;
int g_s32SelectNum = 0; /* the first argument of the last select */
int g_s32Removed = -1;  /* removed when the next select has its result */
} // namespace

extern "C" int __real_select(int, fd_set *, fd_set *, fd_set *, struct timeval *);
extern "C" int __wrap_select(int i_s32Num, fd_set *io_pRead, fd_set *io_pWrite, fd_set *io_pExcept,
                             struct timeval *io_pTimeout)
{
    EXPECT_EQ(io_pTimeout->tv_sec, 15);
    EXPECT_EQ(io_pExcept, nullptr);
    g_s32SelectNum = i_s32Num;
    if (!g_s32SelectErrors.empty()) {
        int s32Err = g_s32SelectErrors.front();
        g_s32SelectErrors.pop_front();
        if (s32Err != 0) {
            errno = s32Err;
            return -1;
        }
    }
    const int s32Result = __real_select(i_s32Num, io_pRead, io_pWrite, io_pExcept, io_pTimeout);
    (void)select_removeevent(std::exchange(g_s32Removed, -1));
    return s32Result;
}

namespace
{
using Event = std::pair<int, int>; /* descriptor and bits */

class CEvTest : public testing::Test
{
protected:
    CEvTest()
    {
        AllowManyDescriptors();
        EXPECT_EQ(select_startevents(), 0);
        SocketAt(kMarker, false);
    }

    /* A socket at the given number that is writable, and readable if asked; returns its peer. */
    static int SocketAt(int i_s32Number, bool i_bReadable)
    {
        int aPair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, aPair), 0);
        UniqueFd objOriginal(aPair[0]);
        EXPECT_EQ(dup2(objOriginal.Get(), i_s32Number), i_s32Number);
        if (i_bReadable) {
            EXPECT_EQ(write(aPair[1], "x", 1), 1);
        }
        return aPair[1];
    }

    static int Watch(int i_s32FileDesc, int i_s32Mask)
    {
        eventreq stReq = {};
        stReq.er_type = EV_TYPE_FD;
        stReq.er_handle = i_s32FileDesc;
        stReq.er_data = CookieOf(i_s32FileDesc);
        return select_watchevent(&stReq, i_s32Mask);
    }

    static void *CookieOf(int i_s32FileDesc)
    {
        return reinterpret_cast<void *>(0x700000000L + i_s32FileDesc);
    }

    static void ExpectEvents(const std::vector<Event> &i_objExpected)
    {
        for (const Event &objExpected : i_objExpected) {
            eventreq stReq = {};
            int s32Err = EINTR;
            while (EINTR == s32Err) {
                s32Err = select_waitevent(&stReq, nullptr);
            }
            ASSERT_EQ(s32Err, 0);
            ASSERT_EQ(Event(stReq.er_handle, stReq.er_eventbits), objExpected);
            EXPECT_EQ(stReq.er_data, CookieOf(stReq.er_handle));
        }
    }

    /* Arms a descriptor that is ready, to show that nothing else is: its event comes next. */
    static void ExpectNothing()
    {
        EXPECT_EQ(Watch(kMarker, EV_WRITE), 0);
        ExpectEvents({{kMarker, EV_WRITE}});
    }

    static constexpr int kMarker = 100;
};
using CEvDeathTest = CEvTest;

TEST_F(CEvTest, ReadableBeforeWritableAndAscendingAndOnce)
{
    /* 1023 is the last descriptor of the sets, 63 and 64 lie on a word's border. */
    for (int s32FileDesc : {1023, 64, 63, 200}) {
        SocketAt(s32FileDesc, s32FileDesc != 64);
        EXPECT_EQ(Watch(s32FileDesc, EV_READ | EV_WRITE), 0);
    }
    ExpectEvents({{63, EV_READ}, {200, EV_READ}, {1023, EV_READ}});
    ExpectEvents({{63, EV_WRITE}, {64, EV_WRITE}, {200, EV_WRITE}, {1023, EV_WRITE}});
    ExpectNothing();

    /* Asking again for less replaces what was asked for. */
    EXPECT_EQ(Watch(1023, EV_READ | EV_WRITE), 0);
    EXPECT_EQ(Watch(1023, EV_READ), 0);
    EXPECT_EQ(Watch(64, EV_READ), 0);
    EXPECT_EQ(Watch(200, 0), 0);
    ExpectEvents({{1023, EV_READ}});
    ExpectNothing();
}

TEST_F(CEvTest, ARemovedDescriptorIsClosedByTheWaitAndItsResultsAreDropped)
{
    int s32FarEnd = SocketAt(300, true);
    SocketAt(150, true);
    SocketAt(500, false);
    EXPECT_EQ(Watch(150, EV_READ), 0);
    EXPECT_EQ(Watch(300, EV_READ | EV_WRITE), 0);
    EXPECT_EQ(Watch(500, EV_READ), 0);
    ExpectEvents({{150, EV_READ}});
    EXPECT_EQ(select_removeevent(300), 0);
    EXPECT_TRUE(IsOpen(300));
    ExpectNothing();
    EXPECT_EQ(g_s32SelectNum, 501);
    EXPECT_FALSE(IsOpen(300));
    EXPECT_EQ(send(s32FarEnd, "x", 1, MSG_NOSIGNAL), -1);

    SocketAt(300, true);
    g_s32Removed = 300;
    EXPECT_EQ(Watch(300, EV_READ | EV_WRITE), 0);
    ExpectNothing();
    ExpectNothing();
    EXPECT_FALSE(IsOpen(300));

    /* The highest descriptor goes; lower ones are still found, and so is a new highest. */
    EXPECT_EQ(Watch(kMarker, EV_WRITE), 0);
    EXPECT_EQ(select_removeevent(500), 0);
    ExpectEvents({{kMarker, EV_WRITE}});
    EXPECT_EQ(g_s32SelectNum, kMarker + 1);
    SocketAt(301, true);
    for (int s32FileDesc : {150, 301}) {
        EXPECT_EQ(Watch(s32FileDesc, EV_READ), 0);
        ExpectEvents({{s32FileDesc, EV_READ}});
    }
}

TEST_F(CEvTest, AWaitingSelectSeesWhatOthersArmAndRemove)
{
    SocketAt(400, false);
    EXPECT_EQ(Watch(400, EV_READ), 0);
    std::thread objOther([] {
        usleep(50000);
        EXPECT_EQ(select_removeevent(400), 0);
        EXPECT_TRUE(WaitUntil([] { return !IsOpen(400); }));
        EXPECT_EQ(Watch(kMarker, EV_WRITE), 0);
    });
    ExpectEvents({{kMarker, EV_WRITE}});
    objOther.join();
}

/* More wake-ups than the pipe holds: who arms waits for the event thread, without its lock. */
TEST_F(CEvTest, AFullPipeHoldsUpTheCallerOnly)
{
    std::atomic<int> s32Armed{0};
    std::thread objOther([&] {
        for (; s32Armed < 70000; s32Armed++) {
            EXPECT_EQ(Watch(kMarker, 0), 0);
        }
        EXPECT_EQ(Watch(kMarker, EV_WRITE), 0);
    });
    for (int s32Before = -1; s32Before != s32Armed;) {
        s32Before = s32Armed;
        usleep(50000);
    }
    EXPECT_LT(s32Armed, 70000);
    ExpectEvents({{kMarker, EV_WRITE}});
    objOther.join();
}

TEST_F(CEvDeathTest, SelectErrors)
{
    g_s32SelectErrors = {EINTR, EBADF, EINTR, 0};
    ExpectNothing();
    EXPECT_TRUE(g_s32SelectErrors.empty());

    g_s32SelectErrors = {ENOMEM};
    eventreq stReq = {};
    EXPECT_LT(select_waitevent(&stReq, nullptr), 0);
    EXPECT_EQ(errno, ENOMEM);
    g_s32SelectErrors = {EINTR, EBADF, ENOMEM};
    EXPECT_DEATH(CEventThread().Entry(), "CEventThread::Entry.*s32Err == 0");
}

TEST_F(CEvDeathTest, DescriptorsOutsideTheSets)
{
    EXPECT_EQ(Watch(-1, EV_READ), EBADF);
    EXPECT_EQ(Watch(INT32_MIN, EV_READ | EV_WRITE), EBADF);
    EXPECT_EQ(select_removeevent(-1), EBADF);
    for (int s32FileDesc : {1024, INT32_MAX}) {
        EXPECT_DEATH(Watch(s32FileDesc, EV_READ | EV_WRITE),
                     "i_pReq->er_handle < \\(SInt32\\)\\(sizeof\\(fd_set\\) \\* 8\\)");
    }

    /* It was never armed, but it is closed all the same. */
    SocketAt(1500, false);
    EXPECT_EQ(select_removeevent(1500), 0);
    ExpectNothing();
    EXPECT_FALSE(IsOpen(1500));
}

TEST_F(CEvDeathTest, ThousandAndTwentyFourWaitToBeClosed)
{
    for (int i = 0; i < 1024; i++) {
        ASSERT_EQ(select_removeevent(1900), 0);
    }
    EXPECT_DEATH(select_removeevent(1900), "g_pFDsToCloseArray\\[u32Index\\] == -1");
    ExpectNothing();
    EXPECT_EQ(select_removeevent(1900), 0);
}
} // namespace
