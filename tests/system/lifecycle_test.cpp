/* Start-up, options, signals and shutdown of the real process. */
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include "framework/unique_fd.h"
#include "tests/system/box.h"

namespace
{
const char *const kStopLines[] = {"encoder stop run --[",      "g_objMonitor stop run --[",
                                  "g_objCapture stop run --[", "g_objTimer stop run --[",
                                  "g_objEncoder stop run --[", "g_objConfig stop run --["};

class LifecycleTest : public testing::TestWithParam<int>
{
};

TEST_P(LifecycleTest, RunsAsOneInstanceAndStopsInOrder)
{
    CDaemon objDaemon;
    ASSERT_TRUE(objDaemon.WaitUntilUp()) << objDaemon.Output();
    EXPECT_EQ(ReadFile(kPidFile), std::to_string(objDaemon.Pid()));
    for (const char *pName :
         {"config", "timer", "capture", "encoder", "monitor", "main", "gst-h264", "gst-jpeg"}) {
        EXPECT_TRUE(objDaemon.WaitFor(std::string("INFO thread info [") + pName + ":")) << pName;
    }
    /* The framework's own lines reach a file or a pipe at once, not at the end. */
    EXPECT_NE(objDaemon.Output().find("thread info [event:"), std::string::npos);
    EXPECT_TRUE(std::filesystem::is_directory("/tmp/image"));

    objDaemon.Signal(GetParam());
    EXPECT_EQ(objDaemon.Wait(Seconds(20)), 0);
    EXPECT_NE(objDaemon.Output().find("\033[0;31mprogram will exit now!\033[0;39m"),
              std::string::npos);
    const std::string strLog = ReadFile("/run/mv3300d.log");
    std::size_t u64At = 0;
    for (const char *pLine : kStopLines) {
        u64At = strLog.find(pLine, u64At);
        ASSERT_NE(u64At, std::string::npos) << pLine;
    }
    /* The workers end with the encoder, before its own line. */
    EXPECT_LT(strLog.find("gst-jpeg stop running --["), strLog.find("g_objEncoder stop run --["));
}
INSTANTIATE_TEST_SUITE_P(Signals, LifecycleTest, testing::Values(SIGTERM, SIGINT));

TEST(InstanceTest, ASecondOneEndsAndEmptiesThePidFile)
{
    CDaemon objDaemon;
    ASSERT_TRUE(objDaemon.WaitUntilUp());
    CDaemon objSecond;
    EXPECT_EQ(WEXITSTATUS(objSecond.Wait(Seconds(10))), 1);
    EXPECT_NE(objSecond.Output().find("process allready started"), std::string::npos);
    EXPECT_EQ(ReadFile(kPidFile), "");
    EXPECT_TRUE(objDaemon.Running());
}

TEST(InstanceTest, APidFileThatCannotBeOpenedIsSaidAndEndsTheStart)
{
    std::filesystem::create_directory(kPidFile);
    CDaemon objDaemon;
    EXPECT_EQ(WEXITSTATUS(objDaemon.Wait(Seconds(10))), 1);
    EXPECT_NE(objDaemon.Output().find("open pid file failed: Is a directory --[main.cpp:"),
              std::string::npos)
        << objDaemon.Output();
}

TEST(InstanceTest, APidFileThatCannotBeWrittenIsSaidAndTheStartGoesOn)
{
    std::filesystem::create_symlink("/dev/full", kPidFile);
    CDaemon objDaemon;
    EXPECT_TRUE(objDaemon.WaitUntilUp());
    EXPECT_TRUE(objDaemon.WaitFor("ERROR write pid file failed: No space left on device --["));
}

TEST(OptionTest, HelpForceAndUnknownOptionsAllStart)
{
    const struct {
        std::vector<std::string> strArgs;
        bool bHelp;
    } stCases[] = {
        {{"-f"}, false}, {{"--force"}, false}, {{"-h", "-f"}, true}, {{"--nonsense", "-h"}, true}};
    int s32Starts = 0;
    for (const auto &stCase : stCases) {
        CDaemon objDaemon(stCase.strArgs);
        EXPECT_TRUE(objDaemon.WaitFor("thread info [main:", ++s32Starts)) << stCase.strArgs[0];
        const std::string strOutput = objDaemon.Output();
        const std::size_t u64Help =
            strOutput.find(" [options]\n    -h --help           show this help\n"
                           "    -D --daemonize      Daemonize after startup\n");
        EXPECT_EQ(u64Help != std::string::npos, stCase.bHelp) << strOutput;
        EXPECT_EQ(strOutput.rfind(" [options]"), u64Help) << strOutput;
    }
}

TEST(LogTest, WithoutAConfigurationEveryLineGoesToStandardErrorOnce)
{
    std::filesystem::remove(kLogConf);
    CDaemon objDaemon;
    const char *const pUp = "thread info [main:";
    EXPECT_TRUE(WaitUntil([&] { return objDaemon.Output().find(pUp) != std::string::npos; }));
    objDaemon.Signal(SIGTERM);
    EXPECT_EQ(objDaemon.Wait(Seconds(20)), 0);
    const std::string strOutput = objDaemon.Output();
    EXPECT_NE(strOutput.find("mvx3300.conf: "), std::string::npos) << strOutput;
    EXPECT_EQ(strOutput.find(pUp), strOutput.rfind(pUp)) << strOutput;
}

TEST(ParamFileTest, AFileLockedElsewhereHoldsUpTheStartButNotTheStop)
{
    WriteParams({});
    UniqueFd objFile(open(kParamFile, O_RDWR | O_CLOEXEC));
    ASSERT_EQ(flock(objFile.Get(), LOCK_EX), 0);
    {
        CDaemon objDaemon;
        ASSERT_TRUE(objDaemon.WaitFor("start gst enc jpeg thread"));
        ASSERT_TRUE(objDaemon.WaitFor("thread info [main:"));
        objDaemon.Signal(SIGTERM);
        EXPECT_EQ(objDaemon.Wait(Seconds(30)), 0);
    }
    CDaemon objDaemon;
    ASSERT_TRUE(objDaemon.WaitFor("uevent device_fd = ", 2));
    SendTiming("320x240@30-0");
    EXPECT_FALSE(objDaemon.WaitFor("Let's run [gst-h264]!", 1, Seconds(2)));
    objFile.Reset();
    EXPECT_TRUE(objDaemon.WaitFor("Let's run [gst-h264]!"));
}
} // namespace
