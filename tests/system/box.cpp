#include "tests/system/box.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace
{
constexpr std::chrono::milliseconds kPause(20);
constexpr char kLogFile[] = "/run/mv3300d.log";
constexpr std::size_t kLogLines = 150;
constexpr std::size_t kLogWidth = 200;
constexpr char kBoxPid[] = "/run/mv3300-sim/box.pid";
constexpr char kSourceControl[] = "/run/mv3300-sim/video0";

std::vector<char *> Pointers(const std::vector<std::string> &i_strArgs)
{
    std::vector<char *> pArgs;
    for (const std::string &strArg : i_strArgs) {
        pArgs.push_back(const_cast<char *>(strArg.c_str()));
    }
    pArgs.push_back(nullptr);
    return pArgs;
}

} // namespace

CProgram::CProgram(const std::vector<std::string> &i_strArgs,
                   const std::vector<std::string> &i_strEnv)
    : m_s32Pid(-1), m_s32Status(-1), m_bEnded(false)
{
    static int s_s32Programs = 0;
    m_strOutputPath = "/run/program-" + std::to_string(++s_s32Programs) + ".out";
    std::vector<char *> pArgs = Pointers(i_strArgs);
    m_s32Pid = fork();
    if (m_s32Pid == 0) {
        int s32Fd = open(m_strOutputPath.c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600);
        dup2(s32Fd, STDOUT_FILENO);
        dup2(s32Fd, STDERR_FILENO);
        for (const std::string &strVariable : i_strEnv) {
            putenv(const_cast<char *>(strVariable.c_str()));
        }
        execv(pArgs[0], pArgs.data());
        _exit(127);
    }
}

CProgram::~CProgram()
{
    if (Running()) {
        Signal(SIGTERM);
        if (Wait(Seconds(45)) == -1) {
            ADD_FAILURE() << "process " << m_s32Pid << " does not end";
            Signal(SIGKILL);
            Wait();
        }
    }
}

/* Where sim/confined is in the daemon's place, it says whose place that is. */
pid_t CProgram::Pid() const
{
    const int s32Confined =
        std::atoi(ReadFile("/run/suite/" + std::to_string(m_s32Pid) + ".pid").c_str());
    return s32Confined > 0 ? s32Confined : m_s32Pid;
}

void CProgram::Signal(int i_s32Signal) const
{
    kill(m_s32Pid, i_s32Signal);
}

int CProgram::Wait(std::chrono::milliseconds i_objLimit)
{
    auto HasEnded = [&] {
        m_bEnded = m_bEnded || waitpid(m_s32Pid, &m_s32Status, WNOHANG) == m_s32Pid;
        return m_bEnded;
    };
    return WaitUntil(HasEnded, i_objLimit, kPause) ? m_s32Status : -1;
}

bool CProgram::Running()
{
    return Wait(std::chrono::milliseconds(0)) == -1 && !m_bEnded;
}

std::string CProgram::Output() const
{
    return ReadFile(m_strOutputPath);
}

std::string RunToEnd(const std::vector<std::string> &i_strArgs)
{
    CProgram objProgram(i_strArgs);
    EXPECT_EQ(objProgram.Wait(), 0) << i_strArgs[0] << ": " << objProgram.Output();
    return objProgram.Output();
}

namespace
{
std::vector<std::string> DaemonCommand(const std::vector<std::string> &i_strArgs)
{
    std::vector<std::string> strCommand = {MV3300_DAEMON};
    strCommand.insert(strCommand.end(), i_strArgs.begin(), i_strArgs.end());
    return strCommand;
}
} // namespace

CDaemon::CDaemon(const std::vector<std::string> &i_strArgs,
                 const std::vector<std::string> &i_strEnv)
    : CProgram(DaemonCommand(i_strArgs), i_strEnv)
{
}

int CDaemon::Count(const std::string &i_strText) const
{
    std::ifstream objFile(kLogFile);
    int s32Count = 0;
    for (std::string strLine; std::getline(objFile, strLine);) {
        s32Count += strLine.find(i_strText) != std::string::npos;
    }
    return s32Count;
}

bool CDaemon::WaitFor(const std::string &i_strText, int i_s32Count,
                      std::chrono::milliseconds i_objLimit) const
{
    return WaitUntil([&] { return Count(i_strText) >= i_s32Count; }, i_objLimit, kPause);
}

bool CDaemon::WaitUntilUp() const
{
    return WaitFor("uevent device_fd = ") && WaitFor("start gst enc jpeg thread") &&
           WaitFor("start loop of monitor");
}

std::size_t CDaemon::Descriptors() const
{
    return static_cast<std::size_t>(EntriesIn("/proc/" + std::to_string(Pid()) + "/fd"));
}

void SendTiming(const std::string &i_strTiming)
{
    RunToEnd({MV3300_SIM_UEVENT, i_strTiming});
}

RECEIVED_S Receive(const std::string &i_strAddress, int i_s32Port, int i_s32Seconds)
{
    CProgram objReceiver({MV3300_SIM_RECEIVE, "--group", i_strAddress, "--port",
                          std::to_string(i_s32Port), "--seconds", std::to_string(i_s32Seconds),
                          "--json"});
    objReceiver.Wait();
    RECEIVED_S stReceived;
    const std::string strOutput = objReceiver.Output();
    const std::size_t u64Begin = strOutput.find('{');
    const auto objJson = nlohmann::json::parse(
        u64Begin == std::string::npos ? "" : strOutput.substr(u64Begin), nullptr, false);
    if (objJson.is_discarded()) {
        ADD_FAILURE() << "the receiver printed: " << strOutput;
        return stReceived;
    }
    stReceived.s32Pictures = objJson.value("pictures", 0);
    stReceived.s32Width = objJson.value("width", 0);
    stReceived.s32Height = objJson.value("height", 0);
    stReceived.f64Rate = objJson.value("rate", 0.0);
    stReceived.s64Packets = objJson.value("packets", 0L);
    stReceived.s64Gaps = objJson.value("lost", 0L);
    return stReceived;
}

void ExpectGroupStream(int i_s32Width, int i_s32Height, double i_f64Rate)
{
    RECEIVED_S stReceived;
    auto Flows = [&] {
        stReceived = Receive(kGroup, kGroupPort);
        return stReceived.f64Rate > i_f64Rate * 0.3;
    };
    EXPECT_TRUE(WaitUntil(Flows, Seconds(20))) << stReceived.f64Rate << " pictures a second";
    EXPECT_EQ(stReceived.s32Width, i_s32Width);
    EXPECT_EQ(stReceived.s32Height, i_s32Height);
    EXPECT_LT(stReceived.f64Rate, i_f64Rate * 1.4);
    EXPECT_EQ(stReceived.s64Gaps, 0);
}

void WriteParams(const std::vector<std::pair<std::string, std::string>> &i_strParams)
{
    std::string strText = "<CONFIGURATION><CHANNEL_1>";
    for (const auto &[strName, strValue] : i_strParams) {
        strText += "<PARAM NAME=\"" + strName + "\" TYPE=\"string\">" + strValue + "</PARAM>";
    }
    WriteFile(kParamFile, strText + "</CHANNEL_1></CONFIGURATION>");
}

void SetSource(const std::string &i_strWord)
{
    WriteFile(kSourceControl, i_strWord + "\n");
}

namespace
{
/* Every case starts as on a fresh box, also when several run in the same one, and one that failed
 * shows what the daemon logged. */
class CFreshBox : public testing::EmptyTestEventListener
{
    void OnTestEnd(const testing::TestInfo &i_objInfo) override
    {
        if (i_objInfo.result()->Failed()) {
            std::vector<std::string> strLines;
            std::ifstream objFile(kLogFile);
            for (std::string strLine; std::getline(objFile, strLine);) {
                if (strLine.find(" DEBUG ") == std::string::npos) {
                    strLines.push_back(strLine.substr(0, kLogWidth));
                }
            }
            std::cout << "the end of the daemon's log, without DEBUG:\n";
            for (std::size_t i = strLines.size() - std::min(strLines.size(), kLogLines);
                 i < strLines.size(); i++) {
                std::cout << strLines[i] << "\n";
            }
        }
    }

    void OnTestStart(const testing::TestInfo &) override
    {
        std::filesystem::remove_all(kPidFile);
        std::filesystem::remove(kLogFile);
        std::filesystem::remove(kParamFile);
        SetSource("run");
        WriteFile(kLogConf, std::string("log4cpp.rootCategory=DEBUG, file\n"
                                        "log4cpp.appender.file=FileAppender\n"
                                        "log4cpp.appender.file.fileName=") +
                                kLogFile +
                                "\nlog4cpp.appender.file.layout=PatternLayout\n"
                                "log4cpp.appender.file.layout.ConversionPattern=%d %p %m%n\n");
    }
};
} // namespace

/* Outside the box the program runs itself again inside one; the list of cases needs none. */
int main(int argc, char **argv)
{
    const bool bList = std::any_of(argv + 1, argv + argc, [](const char *pArg) {
        return std::string(pArg).find("--gtest_list_tests") == 0;
    });
    if (!bList && !std::filesystem::exists(kBoxPid)) {
        std::vector<std::string> strArgs = {MV3300_BOX_SCRIPT, "--build", MV3300_BUILD_DIR};
        strArgs.insert(strArgs.end(), argv, argv + argc);
        strArgs[3] = std::filesystem::absolute(argv[0]);
        execv(MV3300_BOX_SCRIPT, Pointers(strArgs).data());
        std::cerr << "cannot run " << MV3300_BOX_SCRIPT << "\n";
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    if (!bList) {
        testing::UnitTest::GetInstance()->listeners().Append(new CFreshBox);
    }
    return RUN_ALL_TESTS();
}
