#include <gtest/gtest.h>

#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <log4cpp/Appender.hh>

#include "common/bus/log.h"
#include "common/bus/log_config.h"
#include "tests/support/temp_dir.h"

namespace
{
/* Lines of the configurations below: FILE and BAD are appenders with a file that can be opened
 * and one that cannot. */
const std::string kFile = "appender.FILE=FileAppender\nappender.FILE.fileName=%/file\n"
                          "appender.FILE.layout=BasicLayout\n";
const std::string kBad = "appender.BAD=FileAppender\nappender.BAD.fileName=%/no/where\n"
                         "appender.BAD.layout=BasicLayout\n";
const std::string kAlone = "additivity.CATEGORY=false\n";

class LogConfigTest : public testing::Test
{
protected:
    /* Configures, logs a line of each level, and undoes it. */
    void Configure(std::string i_strText)
    {
        for (std::size_t u64At = 0; (u64At = i_strText.find('%')) != i_strText.npos;) {
            i_strText.replace(u64At, 2, m_objDir.Path(""));
        }
        const std::string strPath = m_objDir.Path("conf");
        std::filesystem::remove(m_objDir.Path("file"));
        std::filesystem::remove(m_objDir.Path("fallback"));
        WriteFile(strPath, i_strText);
        LogUntilConfigured();
        ConfigureLog(i_strText.empty() ? "/no/such/conf" : strPath.c_str(),
                     m_objDir.Path("fallback").c_str());
        LOG_WARN("one warning");
        LOG_INFO("one info");
        LogUntilConfigured();
        for (const char *pName : {"FILE", "BAD", "C"}) { /* the library keeps them */
            delete log4cpp::Appender::getAppender(pName);
        }
    }

    static int Count(const std::string &i_strText, const std::string &i_strPart)
    {
        int s32Count = 0;
        for (std::size_t u64At = i_strText.find(i_strPart); u64At != i_strText.npos;
             u64At = i_strText.find(i_strPart, u64At + 1)) {
            s32Count++;
        }
        return s32Count;
    }

    CTempDir m_objDir;
};

TEST_F(LogConfigTest, WhatWorksOfTheConfigurationIsKept)
{
    const struct {
        std::string strText;
        int s32InFile; /* of the two lines, one a warning */
        int s32OnStandardError;
        const char *pProblem; /* null: none */
    } stCases[] = {
        {"rootCategory=INFO, FILE\n" + kFile, 2, 0, nullptr},
        {"rootCategory=WARN, FILE\n" + kFile, 1, 0, nullptr},
        {"rootCategory=WARN, BAD, FILE\n" + kBad + kFile, 1, 0,
         "the file of appender <BAD> cannot be opened"},
        {"rootCategory=WARN, BAD\n" + kBad, 0, 1, "the file of appender <BAD> cannot be"},
        {"log4cpp.rootCategory=WARN, BAD\nlog4cpp.appender.BAD=FileAppender\n"
         "log4j.appender.BAD.fileName=%/no/where\nlog4j.appender.BAD.layout=BasicLayout\n",
         0, 1, "the file of appender <BAD> cannot be"},
        {"rootCategory=INFO, FILE\ncategory.CATEGORY=WARN, FIL\n" + kAlone + kFile, 0, 1,
         "appender <FIL> of category.CATEGORY is not defined"},
        {"rootCategory=WARN, GONE\n", 0, 1, "appender <GONE> of rootCategory is not defined"},
        {"rootCategory=LOUD, FILE\n" + kFile, 2, 0, "level <LOUD> of rootCategory is unknown"},
        {"rootCategory=WARN, FILE\ncategory.CATEGORY=LOUD\n" + kFile, 1, 0, "level <LOUD> of cat"},
        {"rootCategory=WARN, FILE\nappender.ODD=Unknown\n" + kFile, 1, 0, "unknown type 'Unknown'"},
        {"category.CATEGORY=INFO, FILE\n" + kFile, 2, 0, "there is no rootCategory"},
        {"", 0, 2, "log configuration /no/such/conf: "},
    };
    for (const auto &stCase : stCases) {
        testing::internal::CaptureStderr();
        Configure(stCase.strText);
        const std::string strError = testing::internal::GetCapturedStderr();
        const std::string strFile = ReadFile(m_objDir.Path("file"));
        EXPECT_EQ(Count(strFile, "one "), stCase.s32InFile) << stCase.strText << strFile;
        EXPECT_EQ(Count(strError, "one "), stCase.s32OnStandardError) << stCase.strText << strError;
        const int s32Problems = stCase.pProblem == nullptr ? 0 : 1;
        EXPECT_EQ(
            Count(strFile + strError, stCase.pProblem ? stCase.pProblem : "log configuration"),
            s32Problems)
            << stCase.strText << strFile << strError;
    }
}

TEST_F(LogConfigTest, WithoutStandardStreamsTheLinesGoToAFile)
{
    const int s32Null = open("/dev/null", O_RDWR);
    const int s32Out = dup(STDOUT_FILENO), s32Error = dup(STDERR_FILENO);
    dup2(s32Null, STDOUT_FILENO);
    dup2(s32Null, STDERR_FILENO);
    const std::string strConsole = "appender.C=ConsoleAppender\nappender.C.layout=BasicLayout\n";
    std::string strLogs;
    for (const std::string &strText :
         {std::string(), "rootCategory=INFO, BAD, C\n" + kBad + strConsole}) {
        Configure(strText);
        strLogs += ReadFile(m_objDir.Path("fallback"));
    }
    Configure("rootCategory=INFO, FILE, BAD\n" + kFile + kBad);
    EXPECT_EQ(Count(ReadFile(m_objDir.Path("file")), "one "), 2);
    EXPECT_FALSE(std::filesystem::exists(m_objDir.Path("fallback")));
    dup2(s32Out, STDOUT_FILENO);
    dup2(s32Error, STDERR_FILENO);
    EXPECT_EQ(Count(strLogs, "one "), 4) << strLogs;
    EXPECT_EQ(Count(strLogs, "ERROR log configuration"), 2) << strLogs;
}
/* By a client, which must not hang at what somebody left there. */
TEST_F(LogConfigTest, WhoOnlyAsksWaitsForNoFile)
{
    const std::string strPipe = m_objDir.Path("pipe");
    ASSERT_EQ(mkfifo(strPipe.c_str(), 0600), 0);
    const std::string strConf = m_objDir.Path("asked");
    const struct {
        std::string strPath;
        std::string strText;
        std::string strLogFile;
        const char *pProblem;
    } kRows[] = {
        {strPipe, "", "", "it is no regular file"},
        {"/dev/zero", "", "", "it is no regular file"},
        {"/proc/self/pagemap", "", "", "it is empty"},
        {strConf, std::string(2000000, '\n'), "", "it is longer than a megabyte"},
        {strConf, "#a.fileName=/x\n a.fileName = " + strPipe + " # ours\n", strPipe, "is a pipe"},
    };
    for (const auto &stRow : kRows) {
        SCOPED_TRACE(stRow.pProblem);
        if (!stRow.strText.empty()) {
            WriteFile(stRow.strPath, stRow.strText);
        }
        const std::vector<std::string> strProblems = CheckLogConfig(stRow.strPath.c_str());
        ASSERT_EQ(strProblems.size(), 1U);
        EXPECT_NE(strProblems[0].find(stRow.pProblem), std::string::npos) << strProblems[0];
        EXPECT_EQ(FirstLogFile(stRow.strPath.c_str()), stRow.strLogFile);
    }
}
} // namespace
