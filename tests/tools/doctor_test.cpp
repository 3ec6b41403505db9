/*
 * What the doctor says of planted facts, where planting them takes no box; and what a report hides.
 */
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/temp_dir.h"
#include "tools/ctl_bundle.h"
#include "tools/doctor.h"

namespace
{
/* A process of a user without rights that has the file open. */
class CHolder
{
public:
    explicit CHolder(const std::string &i_strFile) : m_s32Pid(fork())
    {
        if (m_s32Pid == 0) {
            std::ifstream objFile(i_strFile);
            (void)!(geteuid() == 0 ? setresuid(65534, 65534, 65534) : 0);
            pause();
            _exit(0);
        }
    }
    ~CHolder()
    {
        kill(m_s32Pid, SIGKILL);
        waitpid(m_s32Pid, nullptr, 0);
    }
    const pid_t m_s32Pid;
};

std::string FirstNo(const std::vector<FINDING_S> &i_objFindings)
{
    for (const FINDING_S &stFinding : i_objFindings) {
        if (stFinding.eVerdict == Verdict::No) {
            EXPECT_FALSE(stFinding.strAdvice.empty()) << stFinding.pWhat;
            return std::string(stFinding.pWhat) + ": " + stFinding.strFact;
        }
    }
    return "";
}

TEST(DoctorTest, TheDeviceTheDriverAndTheClock)
{
    const CTempDir objDir;
    DOCTOR_PATHS_S stPaths;
    stPaths.strDevice = objDir.Path("video0");
    stPaths.strDriver = objDir.Path("driver");
    std::filesystem::create_directories(stPaths.strDriver + "/1-000f");
    PATIENT_S stPatient;
    const auto First = [&] { return FirstNo(DiagnoseInput(stPatient, stPaths)); };
    for (const auto &[eLink, pFact] :
         {std::pair(Link::NoLink, "Nothing is plugged"), std::pair(Link::NoLock, "has a cable"),
          std::pair(Link::OutOfRange, "out of its range")}) {
        stPatient.stQuery.eLink = eLink;
        EXPECT_NE(DiagnoseInput(stPatient, stPaths)[3].strFact.find(pFact), std::string::npos);
    }
    stPatient.stQuery.eLink = Link::Unknown;
    std::filesystem::rename(stPaths.strDriver, objDir.Path("away"));
    stPaths.strVideoClass = objDir.Path("class");
    EXPECT_EQ(First(), "") << "a bench";
    std::filesystem::rename(objDir.Path("away"), stPaths.strDriver);
    EXPECT_EQ(First(), "capture device: " + stPaths.strDevice + ": No such file or directory");
    std::ofstream(stPaths.strDevice) << "";
    chmod(stPaths.strDevice.c_str(), 0644);
    EXPECT_EQ(First(), "");
    {
        const CHolder objHolder(stPaths.strDevice);
        const std::string strHolder = "process " + std::to_string(objHolder.m_s32Pid) + " (";
        for (int i = 0; i < 100 && First().empty(); i++) {
            usleep(20000);
        }
        EXPECT_EQ(First().find("device is free: " + strHolder), 0U) << First();
        stPatient.stDaemon = DAEMON_S{};
        stPatient.stDaemon->s32Pid = objHolder.m_s32Pid;
        chmod(stPaths.strDevice.c_str(), 0400);
        EXPECT_NE(First().find("mode 0400, and the daemon runs as user"), std::string::npos);
        stPatient.bPackets = true;
        EXPECT_EQ(First(), "") << "it streams all the same";
    }
    std::filesystem::remove(stPaths.strDriver + "/1-000f");
    EXPECT_EQ(First(), "bridge driver: " + stPaths.strDriver + " is bound to no chip");
    EXPECT_EQ(FirstNo(DiagnoseMachine(1700000000)).find("clock: 2023-11-1"), 0U);
}

TEST(DoctorTest, ADaemonThatAnswersWithoutItsPidFileIsNotStartedAgain)
{
    const CTempDir objDir;
    PATIENT_S stPatient = {};
    stPatient.stEndpoint.strPidFile = objDir.Path("pid");
    EXPECT_EQ(FirstNo(DiagnoseDaemon(stPatient, {})).find("daemon: "), 0U);
    stPatient.stAnswer.eResult = AskResult::Answered;
    EXPECT_EQ(FirstNo(DiagnoseDaemon(stPatient, {})).find("pid file: "), 0U);
}

/* An error that the pipeline has been played after is over. */
TEST(DoctorTest, TheLastOfTheLogCounts)
{
    const struct {
        const char *pLog;
        Verdict eVerdict;
    } kRows[] = {
        {"1 Let's run [gst-h264]!\n2 Received error in [gst-h264]\n", Verdict::No},
        {"1 Received error in [gst-h264]\n2 Let's run [gst-h264]!\n", Verdict::NotKnown},
        {"1 Received error in [gst-jpeg]\n", Verdict::NotKnown},
        {"1 pipeline could not be constructed: x\n", Verdict::No},
    };
    PATIENT_S stPatient = {};
    stPatient.stDaemon = DAEMON_S{};
    stPatient.stTiming = TIMING_S{640, 360, 30, 0};
    stPatient.stFile.stStatus.u32H264Enable = 1;
    for (const auto &stRow : kRows) {
        stPatient.strLog = stRow.pLog;
        EXPECT_EQ(DiagnosePipelines(stPatient)[1].eVerdict, stRow.eVerdict) << stRow.pLog;
    }
}

TEST(DoctorTest, TheRelayByTheWordOfTheGuard)
{
    const struct {
        const char *pRelay;
        const char *pFirst;
    } kRows[] = {
        {R"({"listening": true, "refusing": false, "forwarded": 7})", ""},
        {R"({"listening": true, "refusing": true, "refused": 7})",
         "relay: the guard passed on null packets; refused 7, dropped null"},
        {R"({"listening": false})", "relay: another program has the port"},
        {"5", ""},
    };
    for (const auto &stRow : kRows) {
        PATIENT_S stPatient;
        stPatient.stFile.stStatus.u32PrevEnable = 1;
        stPatient.strPacketsFact = "another program has the port";
        stPatient.objState["relay"] = nlohmann::json::parse(stRow.pRelay);
        EXPECT_EQ(FirstNo(DiagnoseStream(stPatient)), stRow.pFirst);
    }
}

TEST(BundleTest, AddressesOfEveryKindAreMasked)
{
    const struct {
        const char *pText;
        const char *pMasked;
    } kRows[] = {
        {"inet6 fe80::81b:2cff:fe3d:4e5f/64 scope", "inet6 ipv6-1/64 scope"},
        {"2001:db8::/32 via 2001:db8:0:1:2:3:4:5.", "ipv6-1/32 via ipv6-2."},
        {"[2001:db8::7]:80 ::ffff:192.0.2.7", "[ipv6-1]:80 ipv6-2"},
        {"ether 0a:1b:2c:3d:4e:5f inet 192.0.2.1", "ether mac-1 inet ipv4-2"},
        {"0a-1b-2c-3d-4e-5f", "mac-1"},
        {"C0000201:1F90 0100007F 127.0.0.1 ::1 ::", "hex-1:1F90 0100007F 127.0.0.1 ::1 ::"},
        {"13:59:49.123 CGuard::Add a_b::c x=1:2", "13:59:49.123 CGuard::Add a_b::c x=1:2"},
    };
    for (const auto &stRow : kRows) {
        std::map<std::string, std::string> objNames;
        EXPECT_EQ(MaskAddresses(stRow.pText, objNames), std::string(stRow.pMasked) + "\n");
    }
    EXPECT_EQ(HideCredentials("a//u:p@/w@h/x \"//u@h\" //h/x y@z//"),
              "a//***@h/x \"//***@h\" //h/x y@z//");
}
} // namespace
