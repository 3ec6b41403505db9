#include <gtest/gtest.h>

#include <atomic>
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
/* Ends as it is told, the first time; a second child, where there is one, ends with 0. */
[[noreturn]] void BeChild(int i_s32Signal, int i_s32Exit, int i_s32Number)
{
    if (i_s32Signal != 0 && i_s32Number == 1) {
        /* The sanitizers' own handlers would turn the signal into an exit. */
        signal(i_s32Signal, SIG_DFL);
        raise(i_s32Signal);
    }
    _exit(i_s32Number == 1 ? i_s32Exit : 0);
}

TEST(WatchdogTest, CrashesAndErrorExitsRestartAndOtherEndsEnd)
{
    const struct {
        int s32Signal; /* 0: exits */
        int s32Exit;
        int s32Children;
        int s32ParentExit;
        const char *pPrinted;
    } stCases[] = {
        {0, 0, 1, 0, "child exited cleanly so parent is exiting"},
        {0, 3, 2, 0, "s32Status=768 exit s32Status=3\nchild exited with s32Status=3\n"},
        {0, 255, 1, 1, "child exited with s32Status=-1\n"},
        {SIGABRT, 0, 2, 0, "child was signalled, 6.\n"},
        {SIGSEGV, 0, 2, 0, "child was signalled, 11.\n"},
        {SIGTERM, 0, 1, 1, "s32Status=15 exit s32Status=0\n"},
        {SIGKILL, 0, 1, 1, "s32Status=9 exit s32Status=0\n"},
    };
    void *pShared = mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                         MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pShared, MAP_FAILED);
    for (const auto &stCase : stCases) {
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
            BeChild(stCase.s32Signal, stCase.s32Exit, ++*pChildren);
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
    }
}
} // namespace
