#include <gtest/gtest.h>

#include <vector>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/temp_dir.h"
#include "tools/check_file.h"
#include "tools/ctl_main.h"
#include "tools/ctl_save.h"
#include "tools/doctor.h"
#include "tools/session.h"
#include "tools/try_pipeline.h"

namespace
{
using CTexts = std::vector<std::string>;

class CheckTest : public testing::Test
{
protected:
    CHECKED_FILE_S Check(const std::string &i_strText) const
    {
        WriteFile(m_strPath, i_strText);
        return CheckParamFile(m_strPath);
    }
    static std::string Doc(const std::string &i_strParams)
    {
        return "<CONFIGURATION><CHANNEL_1>" + i_strParams + "</CHANNEL_1></CONFIGURATION>";
    }
    static std::string Param(const std::string &i_strName, const std::string &i_strText)
    {
        return "<PARAM NAME=\"" + i_strName + "\">" + i_strText + "</PARAM>";
    }

    const CTempDir m_objDir;
    const std::string m_strPath = m_objDir.Path("param.xml");
};

TEST_F(CheckTest, EachRowSaysWhatBecameOfIt)
{
    const struct {
        const char *pName;
        const char *pText;
        const char *pValue;
        bool bInFile;
        const char *pNote;
    } stCases[] = {
        {"h264_stream_gop", "50", "50", true, ""},
        {"h264_stream_gop", "50x", "50", true, "<50x> is used up to the end of its digits"},
        {"h264_stream_gop", "0", "60", false, "<0> is not in its range"},
        {"h264_stream_gop", "", "60", false, "has no text"},
        {"h264_stream_enable", "yes", "false", true, "<yes> counts as off"},
        {"h264_stream_mode", "abr", "vbr", false, "<abr> is an unknown word"},
        {"addr_list", "", "", false, ""},
        {"media_cast_port", "12345678", "59202", false, "<12345678> is too long"},
    };
    for (const auto &stCase : stCases) {
        SCOPED_TRACE(stCase.pText);
        const CHECKED_FILE_S stFile = Check(Doc(Param(stCase.pName, stCase.pText)));
        EXPECT_EQ(stFile.strProblems, CTexts());
        EXPECT_EQ(stFile.IsAsWritten(), stCase.pNote[0] == '\0');
        for (const CHECKED_ROW_S &stRow : stFile.objRows) {
            const bool bThis = stRow.strName == stCase.pName;
            EXPECT_EQ(stRow.bInFile, bThis && stCase.bInFile);
            EXPECT_EQ(stRow.strNote, bThis ? stCase.pNote : "");
            EXPECT_TRUE(!bThis || stRow.strValue == stCase.pValue) << stRow.strValue;
        }
    }
}

TEST_F(CheckTest, WhatIsNotReadIsNamed)
{
    EXPECT_EQ(Check(Doc("<PARAM/>" + Param("h264_stream_gob", "5") + "\n" + Param("addr_url", "a") +
                        "\n" + Param("addr_url", "b") + Param("qqq", "")))
                  .strProblems,
              (CTexts{"line 1: an element without a NAME is not read",
                      "line 1: there is no parameter 'h264_stream_gob'; did you mean "
                      "'h264_stream_gop'?",
                      "line 3: a second addr_url is not read; the first, in line 2, is",
                      "line 3: there is no parameter 'qqq'"}));
    EXPECT_EQ(Check("<CONFIGURATION><B/><CHANNEL_1/><CHANNEL_1/></CONFIGURATION>").strProblems,
              (CTexts{"line 1: section B is not read", "line 1: section CHANNEL_1 is not read"}));
    EXPECT_EQ(Check("<OTHER/>").strProblems.size(), 1U);
    EXPECT_EQ(Check("<CONFIGURATION>").strProblems.size(), 1U);
    EXPECT_TRUE(Check("").IsAsWritten()) << "as the daemon itself creates it";
    const std::string strPipe = m_objDir.Path("pipe");
    ASSERT_EQ(mkfifo(strPipe.c_str(), 0600), 0);
    for (const std::string &strNone :
         {std::string("/nonexistent/param.xml"), std::string("/dev/zero"), std::string("/dev/null"),
          std::string("/proc/self/mem"), strPipe, m_objDir.Path("")}) {
        EXPECT_FALSE(CheckParamFile(strNone).IsAsWritten()) << strNone;
    }
}

/* What the calling user may not read is neither damaged nor empty. */
TEST_F(CheckTest, AFileOfAnothersIsNotJudged)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    (void)Check(Doc(Param("h264_stream_gop", "50") + Param("addr_list", "127.0.0.1:5")));
    ASSERT_EQ(chmod(m_strPath.c_str(), 0700), 0);
    const std::string strDamaged = m_objDir.Path("damaged.xml");
    WriteFile(strDamaged, "<CONFIGURATION>");
    ASSERT_EQ(chmod(m_objDir.Path("").c_str(), 0755), 0);
    const pid_t s32Child = fork();
    if (s32Child == 0) {
        (void)!setresuid(65534, 65534, 65534);
        DOCTOR_PATHS_S stPaths;
        stPaths.strParamFile = m_strPath;
        PATIENT_S stPatient;
        stPatient.stFile = CheckParamFile(m_strPath);
        EXPECT_EQ(DiagnoseDaemon(stPatient, stPaths)[4].eVerdict, Verdict::NotKnown);
        EXPECT_EQ(DiagnoseDaemon(stPatient, stPaths)[5].eVerdict, Verdict::NotKnown);
        EXPECT_EQ(DiagnoseNetwork(stPatient)[1].eVerdict, Verdict::NotKnown);
        EXPECT_NE(FindTarget(m_strPath, "", nullptr).strProblem, "");
        EXPECT_EQ(FindTarget(m_strPath, "127.0.0.1:7", nullptr).u16Port, 7);
        const char *pCheck[] = {"mv3300ctl", "check", m_strPath.c_str()};
        std::ostringstream objOut;
        EXPECT_EQ(RunCtl(3, pCheck, {}, objOut, objOut), 1);
        EXPECT_NE(objOut.str().find("you may not read"), std::string::npos) << objOut.str();
        EXPECT_EQ(objOut.str().find("h264_stream_gop"), std::string::npos) << objOut.str();
        const CFieldValues objRunning = {true, 50, "vbr", 1000000, true, 360, 1};
        SAVE_OPTIONS_S stSave;
        stSave.strFile = m_strPath;
        stSave.bDryRun = true;
        EXPECT_EQ(SaveSettings({{}, objOut, objOut}, objRunning, stSave), 5);
        stSave.strFile = strDamaged;
        EXPECT_EQ(SaveSettings({{}, objOut, objOut}, objRunning, stSave), 1);
        _exit(HasFailure() ? 1 : 0);
    }
    int s32Status = 0;
    waitpid(s32Child, &s32Status, 0);
    EXPECT_EQ(s32Status, 0);
}

TEST_F(CheckTest, ATerminalGetsNoControlCharacters)
{
    (void)Check(Doc(Param("addr_url", "a\x1b[2J\xc2\x9b\xc2\xa9\tb")));
    const char *pWords[] = {"mv3300ctl", "check", m_strPath.c_str()};
    std::ostringstream objOut;
    (void)RunCtl(3, pWords, {}, objOut, objOut);
    EXPECT_NE(objOut.str().find(" a?[2J?\xc2\xa9\tb "), std::string::npos) << objOut.str();
}

TEST_F(CheckTest, ReceiversAreTakenApartAndResolved)
{
    const std::vector<RECEIVER_S> objReceivers =
        CheckReceivers("127.0.0.1:5000,localhost:1,:5,1.2.3.4,1.2.3.4:0,1.2.3.4:65536,1.2.3.4:5x, "
                       "1.2.3.4:5,no such:5");
    CTexts strSeen;
    for (const RECEIVER_S &stReceiver : objReceivers) {
        strSeen.push_back(stReceiver.strAddress + stReceiver.strProblem);
    }
    const std::string strPort = "has no port from 1 to 65535";
    const std::string strForm = "is no host:port";
    EXPECT_EQ(strSeen, (CTexts{"127.0.0.1", "127.0.0.1", strForm, strPort, strPort, strPort,
                               strPort, strForm, strForm}));
    EXPECT_TRUE(CheckReceivers("").empty());
}

TEST_F(CheckTest, APipelineIsTriedForReal)
{
    using std::chrono::milliseconds;
    EXPECT_EQ(TryPipeline("fakesrc ! fakesink", milliseconds(0)), "");
    EXPECT_EQ(TryPipeline("fakesrc ! fakesink", milliseconds(100)), "");
    EXPECT_EQ(TryPipeline("fakesrc ! nosuchelement", milliseconds(0)),
              "no element \"nosuchelement\"");
    EXPECT_EQ(TryPipeline("fakesrc num-buffers=1 ! fakesink", milliseconds(1000)),
              "it ends by itself");
    EXPECT_NE(TryPipeline("filesrc location=/nonexistent ! fakesink", milliseconds(1000)), "");
}

TEST_F(CheckTest, TheCommandPlansByTheEncodersRules)
{
    const struct {
        const char *pTiming;
        int s32Code; /* 1: there is no log configuration here */
        const char *pShown;
    } stCases[] = {
        {"1920x1080@60-0", 1, "width=1920, height=1080, framerate=60/1"},
        {"1920x1080@60-0", 1, "video/x-raw,width=640,height=360"},
        {"1920x1080@60-0", 1, "clients=\"127.0.0.1:5,127.0.0.1:12350\""},
        {"1920x1080@60-1", 1, "interlaced input is refused"},
        {"0x0@0-0", 1, "no signal"},
        {"1920x1080", 2, ""},
        {"1920x1080@60-0x", 2, ""},
    };
    (void)Check(Doc(Param("preview_stream_height", "360") + Param("addr_list", "127.0.0.1:5")));
    for (const auto &stCase : stCases) {
        SCOPED_TRACE(stCase.pTiming);
        const char *pWords[] = {"mv3300ctl", "check", m_strPath.c_str(), "--timing",
                                stCase.pTiming};
        std::ostringstream objOut;
        std::ostringstream objErr;
        EXPECT_EQ(RunCtl(5, pWords, {}, objOut, objErr), stCase.s32Code) << objErr.str();
        EXPECT_NE(objOut.str().find(stCase.pShown), std::string::npos) << objOut.str();
    }
}
} // namespace
