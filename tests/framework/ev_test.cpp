/*
 * The event interface by itself: the test is the event thread, so every step is in its hands.
 */
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <thread>
#include <utility>
#include <vector>

#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "framework/eventcontext.h"
#include "tests/framework/net_support.h"

namespace
{
/* errno of the next selects; 0 lets one through to the system. */
std::vector<int> g_s32SelectErrors;
int g_s32SelectNum = 0; /* how many descriptors the last select looked at */
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
        g_s32SelectErrors.erase(g_s32SelectErrors.begin());
        if (s32Err != 0) {
            errno = s32Err;
            return -1;
        }
    }
    return __real_select(i_s32Num, io_pRead, io_pWrite, io_pExcept, io_pTimeout);
}

namespace
{
class CEvTest : public testing::Test
{
protected:
    CEvTest()
    {
        AllowManyDescriptors();
        EXPECT_EQ(select_startevents(), 0);
    }

    /* A socket at the given number that is writable, and readable if asked. */
    static int SocketAt(int i_s32Number, bool i_bReadable)
    {
        int aPair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, aPair), 0);
        EXPECT_EQ(dup2(aPair[0], i_s32Number), i_s32Number);
        close(aPair[0]);
        if (i_bReadable) {
            EXPECT_EQ(write(aPair[1], "x", 1), 1);
        }
        return aPair[1];
    }

    static int Watch(int i_s32FileDesc, int i_s32Mask)
    {
        eventreq stReq = {};
        stReq.er_type = 1;
        stReq.er_handle = i_s32FileDesc;
        stReq.er_data = CookieOf(i_s32FileDesc);
        return select_watchevent(&stReq, i_s32Mask);
    }

    static void *CookieOf(int i_s32FileDesc)
    {
        return reinterpret_cast<void *>(0x700000000L + i_s32FileDesc);
    }

    /* Descriptor and bits of the next event. */
    static std::pair<int, int> Next()
    {
        eventreq stReq = {};
        int s32Err = 4;
        while (4 == s32Err) {
            s32Err = select_waitevent(&stReq, nullptr);
        }
        EXPECT_EQ(s32Err, 0);
        EXPECT_EQ(stReq.er_data, CookieOf(stReq.er_handle));
        return {stReq.er_handle, stReq.er_eventbits};
    }

    /* Arms a descriptor that is ready, to show that nothing else is: its event comes next. */
    static void ExpectNothingBut(int i_s32Marker)
    {
        EXPECT_EQ(Watch(i_s32Marker, 2), 0);
        EXPECT_EQ(Next(), std::make_pair(i_s32Marker, 2));
    }
};
using CEvDeathTest = CEvTest;

TEST_F(CEvTest, ReadableBeforeWritableAndAscendingAndOnce)
{
    /* 1023 is the last descriptor of the sets, 63 and 64 lie on a word's border. */
    SocketAt(1023, true);
    SocketAt(64, false);
    SocketAt(63, true);
    SocketAt(200, true);
    SocketAt(100, false);
    for (int s32FileDesc : {1023, 64, 63, 200}) {
        EXPECT_EQ(Watch(s32FileDesc, 3), 0);
    }
    for (int s32FileDesc : {63, 200, 1023}) {
        EXPECT_EQ(Next(), std::make_pair(s32FileDesc, 1));
    }
    for (int s32FileDesc : {63, 64, 200, 1023}) {
        EXPECT_EQ(Next(), std::make_pair(s32FileDesc, 2));
    }
    ExpectNothingBut(100);

    /* Asking again for less replaces what was asked for. */
    EXPECT_EQ(Watch(1023, 3), 0);
    EXPECT_EQ(Watch(1023, 1), 0);
    EXPECT_EQ(Watch(64, 1), 0);
    EXPECT_EQ(Watch(200, 0), 0);
    EXPECT_EQ(Next(), std::make_pair(1023, 1));
    ExpectNothingBut(100);
}

TEST_F(CEvTest, ARemovedDescriptorIsClosedByTheWaitAndItsResultsAreDropped)
{
    int s32FarEnd = SocketAt(300, true);
    SocketAt(150, true);
    SocketAt(100, false);
    SocketAt(500, false);
    EXPECT_EQ(Watch(150, 1), 0);
    EXPECT_EQ(Watch(300, 3), 0);
    EXPECT_EQ(Watch(500, 1), 0);
    EXPECT_EQ(Next(), std::make_pair(150, 1));
    EXPECT_EQ(select_removeevent(300), 0);
    EXPECT_TRUE(IsOpen(300));
    ExpectNothingBut(100);
    EXPECT_EQ(g_s32SelectNum, 501);
    EXPECT_FALSE(IsOpen(300));
    EXPECT_EQ(send(s32FarEnd, "x", 1, MSG_NOSIGNAL), -1);

    /* The highest descriptor goes; lower ones are still found, and so is a new highest. */
    EXPECT_EQ(select_removeevent(500), 0);
    ExpectNothingBut(100);
    EXPECT_EQ(g_s32SelectNum, 101);
    SocketAt(301, true);
    EXPECT_EQ(Watch(150, 1), 0);
    EXPECT_EQ(Next(), std::make_pair(150, 1));
    EXPECT_EQ(Watch(301, 1), 0);
    EXPECT_EQ(Next(), std::make_pair(301, 1));
}

TEST_F(CEvTest, AWaitingSelectSeesWhatOthersArmAndRemove)
{
    SocketAt(100, false);
    SocketAt(400, false);
    EXPECT_EQ(Watch(400, 1), 0);
    std::thread objOther([] {
        usleep(50000);
        EXPECT_EQ(select_removeevent(400), 0);
        while (IsOpen(400)) {
            usleep(1000);
        }
        EXPECT_EQ(Watch(100, 2), 0);
    });
    EXPECT_EQ(Next(), std::make_pair(100, 2));
    objOther.join();
}

/* More wake-ups than the pipe holds: who arms waits for the event thread, without its lock. */
TEST_F(CEvTest, AFullPipeHoldsUpTheCallerOnly)
{
    SocketAt(100, false);
    std::atomic<int> s32Armed{0};
    std::thread objOther([&] {
        for (; s32Armed < 70000; s32Armed++) {
            EXPECT_EQ(Watch(100, 0), 0);
        }
        EXPECT_EQ(Watch(100, 2), 0);
    });
    for (int s32Before = -1; s32Before != s32Armed;) {
        s32Before = s32Armed;
        usleep(50000);
    }
    EXPECT_LT(s32Armed, 70000);
    EXPECT_EQ(Next(), std::make_pair(100, 2));
    objOther.join();
}

TEST_F(CEvTest, SelectErrors)
{
    SocketAt(100, false);
    g_s32SelectErrors = {EINTR, EBADF, EINTR, 0};
    ExpectNothingBut(100);
    EXPECT_TRUE(g_s32SelectErrors.empty());

    g_s32SelectErrors = {ENOMEM};
    eventreq stReq = {};
    EXPECT_LT(select_waitevent(&stReq, nullptr), 0);
    EXPECT_EQ(errno, ENOMEM);
}

TEST_F(CEvDeathTest, DescriptorsOutsideTheSets)
{
    EXPECT_EQ(Watch(-1, 1), EBADF);
    EXPECT_EQ(Watch(INT32_MIN, 3), EBADF);
    EXPECT_EQ(select_removeevent(-1), EBADF);
    const char *pText = "i_pReq->er_handle < \\(SInt32\\)\\(sizeof\\(fd_set\\) \\* 8\\)";
    EXPECT_DEATH(Watch(1024, 3), pText);
    EXPECT_DEATH(Watch(INT32_MAX, 3), pText);

    /* It was never armed, but it is closed all the same. */
    SocketAt(1500, false);
    SocketAt(100, false);
    EXPECT_EQ(select_removeevent(1500), 0);
    ExpectNothingBut(100);
    EXPECT_FALSE(IsOpen(1500));
}

TEST_F(CEvDeathTest, ThousandAndTwentyFourWaitToBeClosed)
{
    for (int i = 0; i < 1024; i++) {
        ASSERT_EQ(select_removeevent(1900), 0);
    }
    EXPECT_DEATH(select_removeevent(1900), "g_pFDsToCloseArray\\[u32Index\\] == -1");
    SocketAt(100, false);
    ExpectNothingBut(100);
    EXPECT_EQ(select_removeevent(1900), 0);
}

void RunIntoSelectErrors()
{
    select_startevents();
    g_s32SelectErrors = {EINTR, EBADF, ENOMEM};
    (new CEventThread)->Start();
    sleep(20);
    exit(0);
}

TEST(CEvStartDeathTest, OtherSelectErrorsEndTheEventThread)
{
    EXPECT_DEATH(RunIntoSelectErrors(), "CEventThread::Entry.*s32Err == 0");
}
} // namespace
