/* The daemon under its watchdog, and stops at awkward moments. */
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>

#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include "tests/system/box.h"

namespace
{
/* The process named in the pid file once that is another one than before; 0 if none comes. */
pid_t WaitForInstance(pid_t i_s32Before)
{
    pid_t s32Pid = 0;
    auto IsThere = [&] {
        s32Pid = std::atoi(ReadFile(kPidFile).c_str());
        return s32Pid != 0 && s32Pid != i_s32Before && kill(s32Pid, 0) == 0;
    };
    return WaitUntil(IsThere, Seconds(30)) ? s32Pid : 0;
}

/* The daemon as the box starts it. What outlives its start-up becomes the test's own child, so
 * that the watchdog's end can be waited for. */
class WatchdogTest : public testing::Test
{
protected:
    void SetUp() override
    {
        const struct rlimit stNoCore = {0, 0};
        ASSERT_EQ(setrlimit(RLIMIT_CORE, &stNoCore), 0);
        ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    }

    /* Starts it; whoever starts it has SIGCHLD ignored, which is handed down. */
    void Start()
    {
        RunToEnd({"/usr/bin/env", "--ignore-signal=CHLD", MV3300_DAEMON, "-D"});
        ASSERT_NO_FATAL_FAILURE(ExpectInstance(0));
    }

    /* An instance other than the one before runs and answers. */
    void ExpectInstance(pid_t i_s32Before)
    {
        m_s32Child = WaitForInstance(i_s32Before);
        ASSERT_NE(m_s32Child, 0);
        std::ifstream objStat("/proc/" + std::to_string(m_s32Child) + "/stat");
        std::string strSkip;
        objStat >> strSkip >> strSkip >> strSkip >> m_s32Watchdog;
        ASSERT_TRUE(WaitUntil([] { return CProgram({MV3300_CTL, "get"}).Wait() == 0; }));
    }

    /* The watchdog's exit code. */
    int End(int i_s32Signal)
    {
        kill(m_s32Child, i_s32Signal);
        int s32Status = -1;
        EXPECT_TRUE(
            WaitUntil([&] { return waitpid(m_s32Watchdog, &s32Status, WNOHANG) == m_s32Watchdog; },
                      Seconds(60)));
        EXPECT_TRUE(WIFEXITED(s32Status)) << s32Status;
        return WEXITSTATUS(s32Status);
    }

    pid_t m_s32Child = 0;
    pid_t m_s32Watchdog = 0;
};

TEST_F(WatchdogTest, ACrashedDaemonAnswersAgainAfterASecond)
{
    Start();
    for (int s32Signal : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE}) {
        const auto objBegin = std::chrono::steady_clock::now();
        kill(m_s32Child, s32Signal);
        ASSERT_NO_FATAL_FAILURE(ExpectInstance(m_s32Child)) << s32Signal;
        EXPECT_GE(std::chrono::steady_clock::now() - objBegin, std::chrono::milliseconds(990));
    }
    EXPECT_EQ(End(SIGTERM), 0); /* a clean stop, which exits with 0 */
}

/* Exit code 1: the instance that runs already has the pid file's lock. */
TEST_F(WatchdogTest, ARefusedStartIsTriedAgainUntilTheOtherInstanceEnds)
{
    CDaemon objOther;
    ASSERT_TRUE(objOther.WaitUntilUp());
    ASSERT_EQ(ReadFile(kPidFile), std::to_string(objOther.Pid()));
    RunToEnd({MV3300_DAEMON, "-D"});
    for (int i = 0; i < 3; i++) { /* each try empties the file */
        WriteFile(kPidFile, "another's");
        EXPECT_TRUE(WaitUntil([] { return ReadFile(kPidFile).empty(); }));
    }
    objOther.Signal(SIGTERM);
    EXPECT_EQ(objOther.Wait(Seconds(20)), 0);
    ASSERT_NO_FATAL_FAILURE(ExpectInstance(objOther.Pid()));
    EXPECT_EQ(End(SIGTERM), 0);
}

/* A moment of a start or a switch, and the line of the log that tells it. */
struct MOMENT_S {
    const char *pName;
    int s32Timings;    /* announced before */
    const char *pLine; /* null: when the signal handler is just installed */
    const char *pSource = "run";
};

void PrintTo(const MOMENT_S &i_stMoment, std::ostream *o_pStream)
{
    *o_pStream << i_stMoment.pName;
}

class StopTest : public testing::TestWithParam<MOMENT_S>
{
};

TEST_P(StopTest, IsClean)
{
    constexpr char kPreviewDir[] = "/tmp/image"; /* made right after the handler is installed */
    constexpr char kUp[] = "thread info [main:";
    const MOMENT_S &stMoment = GetParam();
    SetSource(stMoment.pSource);
    std::filesystem::remove_all(kPreviewDir);
    CDaemon objDaemon;
    while (!std::filesystem::exists(kPreviewDir)) {
        ASSERT_TRUE(objDaemon.Running());
    }
    if (stMoment.s32Timings > 0) {
        ASSERT_TRUE(objDaemon.WaitUntilUp());
        SendTiming("320x240@30-0");
    }
    if (stMoment.s32Timings > 1) {
        ASSERT_TRUE(objDaemon.WaitFor("gstreamer start ok --["));
        SendTiming("640x360@30-0");
    }
    if (stMoment.pLine != nullptr) {
        ASSERT_TRUE(objDaemon.WaitFor(stMoment.pLine, std::max(stMoment.s32Timings, 1)));
    }
    objDaemon.Signal(SIGTERM);
    EXPECT_EQ(objDaemon.Wait(), 0);
    EXPECT_EQ(objDaemon.Count("g_objConfig stop run --["), 1);
    /* Its number stays in the file, without the lock: the next one starts. */
    EXPECT_EQ(ReadFile(kPidFile), std::to_string(objDaemon.Pid()));
    CDaemon objNext;
    EXPECT_TRUE(objNext.WaitFor(kUp, 2));
}

INSTANTIATE_TEST_SUITE_P(Moments, StopTest,
                         testing::Values(MOMENT_S{"HandlerInstalled", 0, nullptr},
                                         MOMENT_S{"FirstModule", 0, "thread info [config:"},
                                         MOMENT_S{"FirstWorker", 0, "start gst enc thread --["},
                                         MOMENT_S{"PauseBeforeStart", 1, "addr list: "},
                                         MOMENT_S{"Build", 1, "gst cmd [v4l2src"},
                                         MOMENT_S{"SlowDevice", 1, "gst cmd [v4l2src", "slow 4000"},
                                         MOMENT_S{"FailedDevice", 1,
                                                  "Received error in [gst-h264] --[", "absent"},
                                         MOMENT_S{"Playing", 1, "Let's run [gst-h264]! --["},
                                         MOMENT_S{"Switch", 2, "we need stop gstreamer --["},
                                         MOMENT_S{"StartAfterSwitch", 2, "addr list: "},
                                         MOMENT_S{"PreviewRestart", 1, "] restart --[", "stall"}),
                         [](const auto &i_stInfo) { return i_stInfo.param.pName; });
} // namespace
