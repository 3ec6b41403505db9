#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "tests/support/loopback.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait_until.h"
#include "tests/tools/fake_daemon.h"
#include "tools/ctl_main.h"

namespace
{
class CtlTest : public testing::Test
{
protected:
    int Run(const std::string &i_strLine) { return Run(i_strLine, m_objDaemon.Endpoint()); }
    int Run(const std::string &i_strLine, const CONTROL_ENDPOINT_S &i_stEndpoint)
    {
        std::vector<std::string> strWords = {"mv3300ctl"};
        std::istringstream objLine(i_strLine);
        for (std::string strWord; objLine >> strWord;) {
            strWords.push_back(strWord == "''" ? "" : strWord);
        }
        std::vector<const char *> pWords;
        for (const std::string &strWord : strWords) {
            pWords.push_back(strWord.c_str());
        }
        std::ostringstream objOut;
        std::ostringstream objErr;
        const auto objStart = std::chrono::steady_clock::now();
        const int s32Result =
            RunCtl(static_cast<int>(pWords.size()), pWords.data(), i_stEndpoint, objOut, objErr);
        EXPECT_LT(std::chrono::steady_clock::now() - objStart, std::chrono::seconds(30));
        m_strOut = objOut.str();
        m_strErr = objErr.str();
        return s32Result;
    }
    bool Told(const std::string &i_strText) const
    {
        return m_strErr.find(i_strText) != std::string::npos;
    }

    const CTempDir m_objDir;
    CFakeDaemon m_objDaemon;
    std::string m_strOut;
    std::string m_strErr;
};

TEST_F(CtlTest, GetShowsTheSettings)
{
    EXPECT_EQ(Run("get"), 0);
    EXPECT_EQ(m_strOut, "h264         on\n"
                        "gop          60       frames\n"
                        "mode         vbr\n"
                        "bitrate      1M       bit/s\n"
                        "preview      on\n"
                        "height       720      lines\n"
                        "refreshrate  1        pictures/s\n");
    EXPECT_EQ(Run("get --json"), 0);
    EXPECT_EQ(m_strOut, "{\"h264\":true,\"gop\":60,\"mode\":\"vbr\",\"bitrate\":1000000,"
                        "\"preview\":true,\"height\":720,\"refreshrate\":1}\n");
    /* One field alone is answered too, though the daemon wants a flag in every ask. */
    EXPECT_EQ(Run("get gop"), 0);
    EXPECT_EQ(m_strOut, "gop          60       frames\n");
}

TEST_F(CtlTest, SetTellsWhatTookEffectOnceItDid)
{
    m_objDaemon.m_s32Lag = 3;
    EXPECT_EQ(Run("set --bitrate 2M --gop 60 --preview off --refreshrate 5"), 0);
    EXPECT_EQ(m_strOut, "gop          60  already so\n"
                        "bitrate      1M -> 2M  taken\n"
                        "preview      on -> off  taken\n"
                        "refreshrate  1 -> 5  taken, but only kept: the preview comes at the rate "
                        "of the stream\n");
    EXPECT_EQ(m_objDaemon.Value(3), 2000000);
    EXPECT_EQ(m_objDaemon.Value(4), 0);
}

TEST_F(CtlTest, SetTellsWhatWasRefusedAndWhy)
{
    EXPECT_EQ(Run("set --gop 121 --bitrate 2M --mode cbr"), 1);
    EXPECT_EQ(m_strOut,
              "gop          stays 60  refused: the control channel takes 2 to 120 frames\n"
              "mode         stays vbr  refused: the daemon reads the mode but does not pass it on; "
              "it stays as it is in the parameter file\n"
              "bitrate      stays 1M  refused: another value is out of its range, and the daemon "
              "then drops the whole request\n");
    EXPECT_EQ(m_objDaemon.Value(3), 1000000);

    /* The mode does not keep the rest from being taken, nor the client waiting. */
    EXPECT_EQ(Run("set --mode cbr --gop 30 --json --timeout 60s"), 1);
    const auto objJson = nlohmann::json::parse(m_strOut);
    EXPECT_EQ(objJson["ok"], false);
    EXPECT_EQ(objJson["fields"][0]["outcome"], "taken");
    EXPECT_EQ(objJson["fields"][0]["before"], 60);
    EXPECT_EQ(objJson["fields"][0]["now"], 30);
    EXPECT_EQ(objJson["fields"][1]["outcome"], "refused");
    EXPECT_EQ(Run("set --mode vbr"), 0);

    /* As from a parameter file, whose range is wider. */
    m_objDaemon.SetValue(1, 1);
    EXPECT_EQ(Run("set --gop 1"), 1);
    EXPECT_EQ(m_strOut,
              "gop          stays 1  refused: the control channel takes 2 to 120 frames\n");
}

TEST_F(CtlTest, SaveWritesWhatTheFileDoesNotSay)
{
    const std::string strFile = m_objDir.Path("param.xml");
    WriteFile(strFile, "<CONFIGURATION><CHANNEL_1><PARAM NAME=\"h264_stream_gop\"> 9 </PARAM>"
                       "</CHANNEL_1></CONFIGURATION>");
    const std::string strSave = "save --file " + strFile;
    EXPECT_EQ(Run(strSave + " --dry-run"), 0);
    EXPECT_EQ(m_strOut, "gop          9 -> 60\nnot saved, would be in " + strFile + "\n");
    m_objDaemon.SetValue(4, 0);
    EXPECT_EQ(Run(strSave + " --json"), 0) << m_strErr;
    const auto objJson = nlohmann::json::parse(m_strOut);
    EXPECT_EQ(objJson["saved"], true);
    EXPECT_EQ(objJson["changes"].dump(), "{\"gop\":{\"file\":9,\"running\":60},"
                                         "\"preview\":{\"file\":true,\"running\":false}}");
    EXPECT_EQ(Run(strSave), 0);
    EXPECT_EQ(m_strOut, "nothing to save: the same is in " + strFile + "\n");
    EXPECT_EQ(ReadFile(strFile),
              "<CONFIGURATION><CHANNEL_1><PARAM NAME=\"h264_stream_gop\">60</PARAM>\n        "
              "<PARAM NAME=\"preview_stream_enable\" TYPE=\"string\">false</PARAM>"
              "</CHANNEL_1></CONFIGURATION>");
    EXPECT_EQ(Run("save --file /nonexistent/param.xml"), 5);
    EXPECT_TRUE(Told("No such file")) << m_strErr;
}

TEST_F(CtlTest, SetThatDoesNotShowInTimeIsNotTaken)
{
    m_objDaemon.m_s32Lag = 1000;
    EXPECT_EQ(Run("set --gop 30 --timeout 2s"), 1);
    EXPECT_EQ(
        m_strOut.rfind("gop          stays 60  not taken: the daemon does not report it yet", 0),
        0U);
}

TEST_F(CtlTest, UsageErrorsSendNothing)
{
    for (const char *pLine :
         {"", "frob", "get nothing", "get --json=x=y", "set", "set --gop", "set --gop ten",
          "set --gop -1", "set --gop 5 --gop 6", "set --bitrate 2G", "set --mode abr",
          "set --h264 maybe", "set 30", "get --timeout 0", "get --timeout ''",
          "watch --interval never", "watch --for ''"}) {
        EXPECT_EQ(Run(pLine), 2) << pLine;
        EXPECT_NE(m_strErr, "") << pLine;
        EXPECT_EQ(m_strOut, "") << pLine;
    }
    EXPECT_EQ(m_objDaemon.m_s32Requests, 0);
    Run("wach --for 1s");
    EXPECT_TRUE(Told("there is no command 'wach'; did you mean 'watch'?")) << m_strErr;
    Run("frob");
    EXPECT_TRUE(Told("there is no command 'frob'; there are get, set")) << m_strErr;
    EXPECT_EQ(Run("--help"), 0);
    EXPECT_NE(m_strOut.find("Exit codes"), std::string::npos);

    const char *pHelp[] = {"mv3300ctl", "--help"};
    std::ofstream objFull("/dev/full");
    std::ostringstream objErr;
    EXPECT_EQ(RunCtl(2, pHelp, m_objDaemon.Endpoint(), objFull, objErr), 5);
}

TEST_F(CtlTest, GroupTellsWhichBoxesShareOne)
{
    EXPECT_EQ(Run("group 0a:1b:2c:3d:4e:5f 0A-1B-2C-3D-4E-60"), 0) << m_strErr;
    EXPECT_EQ(m_strOut, "0a:1b:2c:3d:4e:5f  234.29.78.95\n0A-1B-2C-3D-4E-60  234.29.78.96\n");
    /* Bits above the nineteenth make another box, not another group; case makes neither. */
    const std::string strFile = m_objDir.Path("group");
    WriteFile(strFile, "# hall\n\n0a1b2c454e5f hall-2 # by the door\n0A1B2C3D4E5F\n");
    EXPECT_EQ(Run("group --json 0a:1b:2c:3d:4e:5f --file " + strFile), 1);
    EXPECT_EQ(nlohmann::json::parse(m_strOut)["ok"], false);
    const auto objJson = nlohmann::json::parse(m_strOut);
    EXPECT_EQ(objJson["collisions"].dump(),
              R"([{"group":"234.29.78.95","macs":["0a:1b:2c:3d:4e:5f","0a1b2c454e5f"]}])");
    EXPECT_EQ(objJson["twice"].dump(), R"(["0A1B2C3D4E5F"])");
    EXPECT_EQ(Run("group 0a:1b:2c:3d:4e:5f 0a1b2c3d4e5f"), 1) << "twice alone";
    for (const char *pNone : {"", "0a:1b:2c:3d:4e", "0a:1b:2c:3d:4e:5g", "0a:1b:2c:3d:4e-5f",
                              "0a1b2c3d4e5f0", "0ax1bx2cx3dx4ex5f", "0a:1b:2c:3d:4:e5f"}) {
        EXPECT_EQ(Run("group " + std::string(pNone)), 2) << pNone;
    }
    EXPECT_EQ(Run("group --file /nonexistent"), 5);
}

TEST_F(CtlTest, WatchShowsTheSettingsAndThenChanges)
{
    std::thread objChange([this] {
        EXPECT_TRUE(WaitUntil([this] { return m_objDaemon.m_s32Requests >= 2; }));
        m_objDaemon.SetValue(1, 30);
    });
    EXPECT_EQ(Run("watch --json --interval 20ms --for 2s"), 0);
    objChange.join();
    std::istringstream objLines(m_strOut);
    std::vector<nlohmann::json> objChanges;
    for (std::string strLine; std::getline(objLines, strLine);) {
        objChanges.push_back(nlohmann::json::parse(strLine)["changes"]);
    }
    ASSERT_EQ(objChanges.size(), 2U);
    EXPECT_EQ(objChanges[0]["bitrate"], 1000000);
    EXPECT_EQ(objChanges[1].dump(), "{\"gop\":30}");
}

TEST_F(CtlTest, WatchEndsInTimeWithALastPollThatCounts)
{
    m_objDaemon.m_s32Answers = 1;
    EXPECT_EQ(Run("watch --interval 60s --for 2s --timeout 2s"), 3);
    EXPECT_EQ(m_objDaemon.m_s32Requests, 2);
}

TEST_F(CtlTest, ADaemonThatIsNotRunningIsNoticedAtOnce)
{
    CONTROL_ENDPOINT_S stEndpoint = m_objDaemon.Endpoint();
    (void)BindLoopback(0, &stEndpoint.u16RequestPort);
    EXPECT_EQ(Run("get --timeout 60s", stEndpoint), 3);
    EXPECT_TRUE(Told("the daemon is not running")) << m_strErr;
    EXPECT_EQ(Run("watch", stEndpoint), 3);
}

TEST_F(CtlTest, ASilentDaemonAndItsLockAreNamed)
{
    CONTROL_ENDPOINT_S stEndpoint = m_objDaemon.Endpoint();
    stEndpoint.strPidFile = m_objDir.Path("pid");
    UniqueFd objFile(open(stEndpoint.strPidFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(flock(objFile.Get(), LOCK_EX | LOCK_NB), 0);
    m_objDaemon.m_s32Answers = 0;
    EXPECT_EQ(Run("get --timeout 100ms", stEndpoint), 3);
    EXPECT_TRUE(Told("no answer within 0.1 s")) << m_strErr;
    EXPECT_TRUE(Told("process " + std::to_string(getpid()) + " holds ")) << m_strErr;
    objFile.Reset();
    EXPECT_EQ(Run("get --timeout 100ms", stEndpoint), 3);
    EXPECT_TRUE(Told("no process is seen to hold ")) << m_strErr;
    EXPECT_EQ(Run("set --gop 30 --timeout 100ms", stEndpoint), 3);
    EXPECT_TRUE(Told("what became of them is unknown")) << m_strErr;
}

TEST_F(CtlTest, AStrangeDatagramIsPassedOver)
{
    /* No box; and another reader's reply, with fewer fields than were asked for. */
    for (const std::string &strStrange :
         {std::string("garbage"),
          std::string("\x04\0\0\0\x0D\0\0\0\x01\0\x01\0\x05\0\0\0true\0", 21)}) {
        m_objDaemon.SendBeforeReply(strStrange);
        EXPECT_EQ(Run("get gop"), 0);
        EXPECT_EQ(m_strOut, "gop          60       frames\n");
    }
}

TEST_F(CtlTest, ATakenReplyPortSendsNothingAndABrieflyTakenOneIsWaitedFor)
{
    UniqueFd objTaken = BindLoopback(m_objDaemon.Endpoint().u16ReplyPort);
    EXPECT_EQ(Run("set --gop 30 --timeout 100ms"), 4);
    EXPECT_TRUE(Told("another reader of the daemon's replies")) << m_strErr;
    EXPECT_EQ(m_objDaemon.m_s32Requests, 0);

    std::thread objRelease([&objTaken] {
        usleep(50000);
        objTaken.Reset();
    });
    EXPECT_EQ(Run("get"), 0) << m_strErr;
    objRelease.join();
}

TEST_F(CtlTest, AReplyPortTakenAfterTheSetLeavesItsOutcomeUnknown)
{
    m_objDaemon.m_s32Lag = 1000;
    const UniqueFd objFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    std::thread objTake([this, &objFd] {
        const sockaddr_in stReply = Loopback(m_objDaemon.Endpoint().u16ReplyPort);
        while (m_objDaemon.m_s32Requests == 0 ||
               bind(objFd.Get(), reinterpret_cast<const sockaddr *>(&stReply), sizeof(stReply)) !=
                   0) {
            usleep(1000);
        }
    });
    EXPECT_EQ(Run("set --gop 30 --timeout 1s"), 3) << m_strOut;
    objTake.join();
    EXPECT_TRUE(Told("the values were sent, but what became of them is unknown")) << m_strErr;
    EXPECT_TRUE(Told("another reader of the daemon's replies")) << m_strErr;
}
} // namespace
