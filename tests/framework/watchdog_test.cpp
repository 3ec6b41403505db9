#include <gtest/gtest.h>

#include <atomic>
#include <ostream>
#include <string>

#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "framework/clock.h"
#include "framework/watchdog.h"

namespace
{
/* What the first child does; a second child, where there is one, ends with 0. */
struct WATCHDOG_CASE_S {
    const char *pName;
    int s32Signal; /* 0: exits */
    int s32Exit;
    int s32Children;
    int s32ParentExit;
    const char *pPrinted;
};

void PrintTo(const WATCHDOG_CASE_S &i_stCase, std::ostream *o_pStream)
{
    *o_pStream << i_stCase.pName;
}

class WatchdogTest : public testing::TestWithParam<WATCHDOG_CASE_S>
{
};

[[noreturn]] void BeChild(const WATCHDOG_CASE_S &i_stCase, int i_s32Number)
{
    if (i_s32Number > 1) {
        _exit(0);
    }
    if (i_stCase.s32Signal != 0) {
        /* The sanitizers' own handlers would turn the signal into an exit. */
        signal(i_stCase.s32Signal, SIG_DFL);
        raise(i_stCase.s32Signal);
    }
    _exit(i_stCase.s32Exit);
}

TEST_P(WatchdogTest, CrashesAndErrorExitsRestartAndOtherEndsEnd)
{
    const WATCHDOG_CASE_S &stCase = GetParam();
    void *pShared = mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                         MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pShared, MAP_FAILED);
    auto *pChildren = new (pShared) std::atomic<int>(0);
    const SInt64 s64Begin = GetTimeInMs();

    testing::internal::CaptureStdout();
    fflush(stdout);
    const pid_t s32Parent = fork();
    if (s32Parent == 0) {
        const struct rlimit stNoCore = {0, 0};
        setrlimit(RLIMIT_CORE, &stNoCore);
        alarm(60);
        CreateWatchdog("mv3300d");
        BeChild(stCase, ++*pChildren);
    }
    int s32Status = 0;
    ASSERT_EQ(waitpid(s32Parent, &s32Status, 0), s32Parent);
    const std::string strPrinted = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(WIFEXITED(s32Status)) << s32Status;
    EXPECT_EQ(WEXITSTATUS(s32Status), stCase.s32ParentExit);
    EXPECT_EQ(pChildren->load(), stCase.s32Children);
    EXPECT_NE(strPrinted.find(stCase.pPrinted), std::string::npos) << strPrinted;
    if (stCase.s32Children > 1) {
        EXPECT_GE(GetTimeInMs() - s64Begin, 990);
    }
    munmap(pShared, sizeof(std::atomic<int>));
}

INSTANTIATE_TEST_SUITE_P(
    Ends, WatchdogTest,
    testing::Values(
        WATCHDOG_CASE_S{"Clean", 0, 0, 1, 0, "child exited cleanly so parent is exiting"},
        WATCHDOG_CASE_S{"Code3", 0, 3, 2, 0,
                        "s32Status=768 exit s32Status=3\n"
                        "child exited with s32Status=3\n"},
        WATCHDOG_CASE_S{"Code255", 0, 255, 1, 1, "child exited with s32Status=-1\n"},
        WATCHDOG_CASE_S{"Abort", SIGABRT, 0, 2, 0, "child was signalled, 6.\n"},
        WATCHDOG_CASE_S{"Bus", SIGBUS, 0, 2, 0, "child was signalled, 7.\n"},
        WATCHDOG_CASE_S{"FloatingPoint", SIGFPE, 0, 2, 0, "child was signalled, 8.\n"},
        WATCHDOG_CASE_S{"Segmentation", SIGSEGV, 0, 2, 0, "child was signalled, 11.\n"},
        WATCHDOG_CASE_S{"Termination", SIGTERM, 0, 1, 1, "s32Status=15 exit s32Status=0\n"},
        WATCHDOG_CASE_S{"Kill", SIGKILL, 0, 1, 1, "s32Status=9 exit s32Status=0\n"}),
    [](const auto &i_stInfo) { return i_stInfo.param.pName; });
} // namespace
