#include <gtest/gtest.h>

#include <csignal>
#include <vector>

#include <grp.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "framework/types.h"
#include "tests/support/temp_dir.h"
#include "tools/param_edit.h"
#include "tools/param_save.h"

namespace
{
const PARAM_CHANGE_S kGop = {"CHANNEL_1", "h264_stream_gop", "30"};

std::string Doc(const std::string &i_strParams)
{
    return "<CONFIGURATION>\n  <CHANNEL_1>" + i_strParams + "</CHANNEL_1>\n</CONFIGURATION>\n";
}

std::string Gop(const std::string &i_strContent)
{
    return "<PARAM NAME=\"h264_stream_gop\" TYPE=\"string\">" + i_strContent + "</PARAM>";
}

TEST(ParamEditTest, OnlyTheValueChanges)
{
    const std::string strOther = "\n    <!-- <PARAM NAME=\"h264_stream_gop\">1</PARAM> -->\n    "
                                 "<PARAM NAME='odd' x=\"/>\" >1 &amp; 2</PARAM>\t<extra/>\n    ";
    const struct {
        std::string strBefore;
        std::string strAfter;
    } stCases[] = {
        {Doc(strOther + Gop("60") + Gop("61")), Doc(strOther + Gop("30") + Gop("61"))},
        {Doc(Gop("<!-- 60 -->\n 60 ")), Doc(Gop("<!-- 60 -->30"))},
        {Doc(Gop("<![CDATA[6<0]]>")), Doc(Gop("30"))},
        {Doc(Gop(" \n ")), Doc(Gop("30"))},
        {Doc("<PARAM NAME = 'h264_stream_gop' />"),
         Doc("<PARAM NAME = 'h264_stream_gop' >30</PARAM>")},
        /* What stands in front of the first PARAM is no parameter. */
        {Doc("<X NAME=\"h264_stream_gop\">60</X><PARAM/><Y NAME=\"h264_stream_gop\">60</Y>"),
         Doc("<X NAME=\"h264_stream_gop\">60</X><PARAM/><Y NAME=\"h264_stream_gop\">30</Y>")},
        {Doc(strOther), Doc("\n    <!-- <PARAM NAME=\"h264_stream_gop\">1</PARAM> -->\n    "
                            "<PARAM NAME='odd' x=\"/>\" >1 &amp; 2</PARAM>\t<extra/>\n        " +
                            Gop("30") + "\n    ")},
        {Doc("\r\n\t<PARAM NAME=\"a\">1</PARAM>\r\n"),
         Doc("\r\n\t<PARAM NAME=\"a\">1</PARAM>\r\n\t" + Gop("30") + "\r\n")},
        {"<?xml version='1.0'?><CONFIGURATION/>",
         "<?xml version='1.0'?><CONFIGURATION>\n    <CHANNEL_1>\n        " + Gop("30") +
             "\n    </CHANNEL_1>\n</CONFIGURATION>"},
        {"\n", "<CONFIGURATION>\n    <CHANNEL_1>\n        " + Gop("30") +
                   "\n    </CHANNEL_1>\n</CONFIGURATION>\n"},
        {Doc(Gop("<b>60</b>")), ""},
        {"<OTHER/>", ""},
        {"<CONFIGURATION><CHANNEL_1>", ""},
        {"<CONFIGURATION></CHANNEL_1></CONFIGURATION>", ""},
        {"<CONFIGURATION><CHANNEL_1><PARAM NAME=\"</CHANNEL_1></CONFIGURATION>", ""},
    };
    for (const auto &stCase : stCases) {
        std::string strError;
        EXPECT_EQ(EditParams(stCase.strBefore, {kGop}, strError).value_or(""), stCase.strAfter);
        EXPECT_EQ(strError.empty(), !stCase.strAfter.empty()) << strError;
    }
}

class ParamSaveTest : public testing::Test
{
protected:
    void SetUp() override { WriteFile(m_strPath, m_strOld); }
    SaveResult Save() { return SaveParams(m_strPath, {kGop}, m_strError); }

    /* Saves in a process of its own, which is killed at its n-th stop at a system call, entering
     * or leaving one. Returns the calls that were entered; o_bEnded: it came to its end. */
    std::vector<UInt64> SaveAndKillAt(int i_s32Stop, bool &o_bEnded)
    {
        const pid_t s32Child = fork();
        if (s32Child == 0) {
            ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            raise(SIGSTOP);
            _exit(Save() == SaveResult::Saved ? 0 : 1);
        }
        std::vector<UInt64> objCalls;
        int s32Status = 0;
        waitpid(s32Child, &s32Status, 0);
        ptrace(PTRACE_SETOPTIONS, s32Child, nullptr, PTRACE_O_TRACESYSGOOD);
        for (int i = 0; i < i_s32Stop && WIFSTOPPED(s32Status); i++) {
            __ptrace_syscall_info stInfo = {};
            ptrace(PTRACE_SYSCALL, s32Child, nullptr, nullptr);
            waitpid(s32Child, &s32Status, 0);
            if (WIFSTOPPED(s32Status) &&
                ptrace(PTRACE_GET_SYSCALL_INFO, s32Child, sizeof(stInfo), &stInfo) > 0 &&
                stInfo.op == PTRACE_SYSCALL_INFO_ENTRY) {
                objCalls.push_back(stInfo.entry.nr);
            }
        }
        o_bEnded = WIFEXITED(s32Status);
        if (o_bEnded) {
            EXPECT_EQ(WEXITSTATUS(s32Status), 0);
        } else {
            kill(s32Child, SIGKILL);
            waitpid(s32Child, &s32Status, 0);
        }
        return objCalls;
    }

    const CTempDir m_objDir;
    const std::string m_strPath = m_objDir.Path("param.xml");
    const std::string m_strOld = Doc("\n    " + Gop("60") + "\n  ");
    const std::string m_strNew = Doc("\n    " + Gop("30") + "\n  ");
    std::string m_strError;
};

TEST_F(ParamSaveTest, KilledAtAnySystemCallTheFileIsTheOldOrTheNew)
{
    bool bEnded = false;
    int s32Old = 0;
    int s32New = 0;
    std::vector<UInt64> objCalls;
    for (int i = 1; !bEnded && i < 2000; i++) {
        WriteFile(m_strPath, m_strOld);
        objCalls = SaveAndKillAt(i, bEnded);
        const std::string strNow = ReadFile(m_strPath);
        ASSERT_TRUE(strNow == m_strOld || strNow == m_strNew) << "at stop " << i << ": " << strNow;
        (strNow == m_strOld ? s32Old : s32New)++;
    }
    EXPECT_TRUE(bEnded);
    EXPECT_GT(s32Old, 20);
    EXPECT_GT(s32New, 2);
    /* The disk has the text before the name, and the name before the end. */
    std::string strOrder;
    for (const UInt64 u64Call : objCalls) {
        strOrder += u64Call == SYS_fsync ? "s" : u64Call == SYS_write ? "w" : "";
#ifdef SYS_rename
        strOrder += u64Call == SYS_rename ? "r" : "";
#endif
        strOrder += u64Call == SYS_renameat || u64Call == SYS_renameat2 ? "r" : "";
    }
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    /* The sanitizers try whether memory can be read by writing it to pipes of their own. */
    EXPECT_EQ(strOrder.front(), 'w');
    std::erase(strOrder, 'w');
    EXPECT_EQ(strOrder, "srs");
#else
    EXPECT_EQ(strOrder, "wsrs");
#endif
    /* What the killed ones left does not stand in the way of the next. */
    WriteFile(m_strPath, m_strOld);
    EXPECT_EQ(Save(), SaveResult::Saved) << m_strError;
    EXPECT_EQ(ReadFile(m_strPath), m_strNew);
}

TEST_F(ParamSaveTest, ModeAndLinkStay)
{
    ASSERT_EQ(chmod(m_strPath.c_str(), 0751), 0);
    const std::string strLink = m_objDir.Path("link");
    ASSERT_EQ(symlink("param.xml", strLink.c_str()), 0);
    EXPECT_EQ(SaveParams(strLink, {kGop}, m_strError), SaveResult::Saved) << m_strError;
    EXPECT_EQ(ReadFile(m_strPath), m_strNew);
    struct stat stStat = {};
    EXPECT_EQ(lstat(strLink.c_str(), &stStat), 0);
    EXPECT_TRUE(S_ISLNK(stStat.st_mode));
    EXPECT_EQ(stat(m_strPath.c_str(), &stStat), 0);
    EXPECT_EQ(stStat.st_mode & 07777U, 0751U);
}

/* As the panel's service, whose user is not the file's. */
TEST_F(ParamSaveTest, WhoMayNotGiveFilesAwayKeepsTheGroup)
{
    constexpr gid_t kGroup = 65534;
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can make a file of another user";
    }
    for (const std::string &strPath : {m_objDir.Path(""), m_strPath}) {
        ASSERT_EQ(chown(strPath.c_str(), 0, kGroup), 0);
        ASSERT_EQ(chmod(strPath.c_str(), 0775), 0);
    }
    const pid_t s32Child = fork();
    if (s32Child == 0) {
        const bool bOther = setgroups(0, nullptr) == 0 && setresgid(kGroup, kGroup, kGroup) == 0 &&
                            setresuid(kGroup, kGroup, kGroup) == 0;
        _exit(bOther && Save() == SaveResult::Saved ? 0 : 1);
    }
    int s32Status = 0;
    waitpid(s32Child, &s32Status, 0);
    EXPECT_EQ(s32Status, 0);
    EXPECT_EQ(ReadFile(m_strPath), m_strNew);
    struct stat stStat = {};
    ASSERT_EQ(stat(m_strPath.c_str(), &stStat), 0);
    EXPECT_EQ(stStat.st_gid, kGroup);
    EXPECT_EQ(stStat.st_mode & 07777U, 0775U);
}

TEST_F(ParamSaveTest, WhatCannotBeEditedStaysAsItIs)
{
    /* Damaged; and a second name that only an entity tells from the first. */
    for (const std::string &strText :
         {std::string("<CONFIGURATION><CHANNEL_1>"),
          Doc("<PARAM NAME=\"h264_stream_&#103;op\">60</PARAM>" + Gop("61"))}) {
        WriteFile(m_strPath, strText);
        EXPECT_EQ(Save(), SaveResult::Damaged);
        EXPECT_NE(m_strError.find("stays as it is"), std::string::npos) << m_strError;
        EXPECT_EQ(ReadFile(m_strPath), strText);
    }
    EXPECT_NE(access(m_objDir.Path(".param.xml.new").c_str(), F_OK), 0);
    const std::string strLink = m_objDir.Path("link");
    ASSERT_EQ(symlink("nowhere.xml", strLink.c_str()), 0);
    EXPECT_EQ(SaveParams(strLink, {kGop}, m_strError), SaveResult::SystemError);
    EXPECT_TRUE(std::filesystem::is_symlink(strLink));
    EXPECT_NE(access(m_objDir.Path("nowhere.xml").c_str(), F_OK), 0);
    EXPECT_EQ(SaveParams("/dev/null", {kGop}, m_strError), SaveResult::SystemError);
    EXPECT_EQ(SaveParams(m_objDir.Path("no/param.xml"), {kGop}, m_strError),
              SaveResult::SystemError);
    EXPECT_NE(m_strError.find("No such file"), std::string::npos) << m_strError;
}
} // namespace
