/*
 * Processes in the bench box and what they use (proc(5)).
 */
#include "bench/box_run.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include <fcntl.h>
#include <linux/netlink.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "sim/uevent/uevent.h"

namespace
{
constexpr char kLog[] = "/run/bench.log";

std::set<pid_t> g_s32Spawned; /* and not waited for yet */

std::string ReadAll(const std::string &i_strPath)
{
    std::ifstream objFile(i_strPath);
    return {std::istreambuf_iterator<char>(objFile), {}};
}

/* Of a dead process there are no figures, and nothing that it would still do. */
void CheckSpawned()
{
    for (const pid_t s32Pid : g_s32Spawned) {
        siginfo_t stEnded = {};
        if (waitid(P_PID, static_cast<id_t>(s32Pid), &stEnded, WEXITED | WNOHANG | WNOWAIT) != 0 ||
            stEnded.si_pid != 0) {
            Fail("a process ended early", std::to_string(s32Pid));
        }
    }
}

/* User and system time out of a stat file. */
double StatSeconds(const std::string &i_strPath)
{
    const std::string strText = ReadAll(i_strPath);
    const std::size_t u64NameEnd = strText.rfind(')');
    if (u64NameEnd == std::string::npos) {
        Fail("cannot be read", i_strPath);
    }
    std::istringstream objFields(strText.substr(u64NameEnd + 2));
    std::string strSkip;
    for (int i = 0; i < 11; i++) {
        objFields >> strSkip;
    }
    double f64User = 0;
    double f64System = 0;
    objFields >> f64User >> f64System;
    return (f64User + f64System) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

/* The number behind a name in a status file; 0 where a thread ended meanwhile. */
double StatusNumber(const std::string &i_strPath, const char *i_pName)
{
    const std::string strText = ReadAll(i_strPath);
    const std::size_t u64At = strText.find(i_pName);
    return u64At == std::string::npos ? 0 : std::atof(strText.c_str() + u64At + strlen(i_pName));
}

int CountLines(const char *i_pFile, const char *i_pText)
{
    std::ifstream objFile(i_pFile);
    int s32Count = 0;
    for (std::string strLine; std::getline(objFile, strLine);) {
        s32Count += strLine.find(i_pText) != std::string::npos;
    }
    return s32Count;
}
} // namespace

void Fail(const char *i_pText, const std::string &i_strAbout)
{
    fflush(stdout);
    fprintf(stderr, "%s: %s\n", i_pText, i_strAbout.c_str());
    exit(1);
}

void PinToOneProcessor()
{
    cpu_set_t stOne;
    CPU_ZERO(&stOne);
    CPU_SET(0, &stOne);
    if (sched_setaffinity(0, sizeof(stOne), &stOne) != 0) {
        Fail("sched_setaffinity", strerror(errno));
    }
}

void PrepareBox()
{
    if (!std::filesystem::exists("/run/mv3300-sim/box.pid")) {
        Fail("runs in the bench box only", "see bench/run");
    }
    std::filesystem::create_directories("/config/mv3300");
    std::filesystem::create_directories("/tmp/image");
    std::ofstream("/config/mv3300/param.xml")
        << "<CONFIGURATION><CHANNEL_1><PARAM NAME=\"addr_list\" TYPE=\"string\">127.0.0.1:5004"
           "</PARAM></CHANNEL_1></CONFIGURATION>";
    std::ofstream("/config/logconf/mvx3300.conf")
        << "rootCategory=INFO, file\nappender.file=FileAppender\nappender.file.fileName=" << kLog
        << "\nappender.file.layout=BasicLayout\n";
}

pid_t Spawn(const std::vector<std::string> &i_strArgs, int i_s32Stdin)
{
    std::vector<char *> pArgs;
    for (const std::string &strArg : i_strArgs) {
        pArgs.push_back(const_cast<char *>(strArg.c_str()));
    }
    pArgs.push_back(nullptr);
    posix_spawn_file_actions_t stFiles;
    posix_spawn_file_actions_init(&stFiles);
    if (i_s32Stdin >= 0) {
        posix_spawn_file_actions_adddup2(&stFiles, i_s32Stdin, STDIN_FILENO);
    } else {
        posix_spawn_file_actions_addopen(&stFiles, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
    posix_spawn_file_actions_addopen(&stFiles, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&stFiles, STDOUT_FILENO, STDERR_FILENO);
    pid_t s32Pid = -1;
    const int s32Error = posix_spawnp(&s32Pid, pArgs[0], &stFiles, nullptr, pArgs.data(), environ);
    posix_spawn_file_actions_destroy(&stFiles);
    if (s32Error != 0) {
        Fail(pArgs[0], strerror(s32Error));
    }
    g_s32Spawned.insert(s32Pid);
    return s32Pid;
}

void WaitForEnd(pid_t i_s32Pid)
{
    g_s32Spawned.erase(i_s32Pid);
    if (waitpid(i_s32Pid, nullptr, 0) != i_s32Pid) {
        Fail("waitpid", strerror(errno));
    }
}

void End(pid_t i_s32Pid, int i_s32Signal)
{
    CheckSpawned();
    kill(i_s32Pid, i_s32Signal);
    WaitForEnd(i_s32Pid);
}

pid_t StartDaemon()
{
    std::filesystem::remove(kLog);
    const pid_t s32Pid = Spawn({"mv3300d"});
    WaitForLog("uevent device_fd", 1);
    WaitForLog("start gst enc jpeg thread", 1);
    usleep(300000);
    return s32Pid;
}

void SendTiming(const char *i_pEvent)
{
    const std::string strPayload = UeventPayload(BridgeEvent(i_pEvent));
    std::vector<char> objMessage(NLMSG_SPACE(strPayload.size()));
    /* Memory from the heap is aligned for any type. */
    auto *pHeader = static_cast<struct nlmsghdr *>(static_cast<void *>(objMessage.data()));
    pHeader->nlmsg_len = static_cast<UInt32>(NLMSG_LENGTH(strPayload.size()));
    pHeader->nlmsg_type = NLMSG_MIN_TYPE;
    pHeader->nlmsg_flags = NLM_F_REQUEST;
    memcpy(NLMSG_DATA(pHeader), strPayload.data(), strPayload.size());
    const int s32Fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    struct sockaddr_nl stKernel = {};
    stKernel.nl_family = AF_NETLINK;
    if (sendto(s32Fd, objMessage.data(), objMessage.size(), 0,
               reinterpret_cast<struct sockaddr *>(&stKernel), sizeof(stKernel)) < 0) {
        Fail("uevent", strerror(errno));
    }
    close(s32Fd);
}

void WaitForLine(const char *i_pFile, const char *i_pText, int i_s32Count)
{
    for (int i = 0; CountLines(i_pFile, i_pText) < i_s32Count; i++) {
        if (i == 3000) {
            Fail("not in the log after 30 s", i_pText);
        }
        CheckSpawned();
        usleep(10000);
    }
}

void WaitForLog(const char *i_pText, int i_s32Count)
{
    WaitForLine(kLog, i_pText, i_s32Count);
}

double CpuSeconds(pid_t i_s32Pid)
{
    CheckSpawned();
    return StatSeconds("/proc/" + std::to_string(i_s32Pid) + "/stat");
}

double RssMb(pid_t i_s32Pid)
{
    return StatusNumber("/proc/" + std::to_string(i_s32Pid) + "/status", "VmRSS:") / 1024;
}

double PssMb(pid_t i_s32Pid)
{
    CheckSpawned();
    return StatusNumber("/proc/" + std::to_string(i_s32Pid) + "/smaps_rollup", "\nPss:") / 1024;
}

double Quantile(std::vector<double> i_f64Values, double i_f64Part)
{
    std::sort(i_f64Values.begin(), i_f64Values.end());
    const double f64At = i_f64Part * static_cast<double>(i_f64Values.size() - 1);
    return i_f64Values.empty() ? 0 : i_f64Values[static_cast<std::size_t>(f64At)];
}

void Compare(const char *i_pWhat, const std::vector<double> &i_f64Ours,
             const std::vector<double> &i_f64Reference)
{
    auto Print = [](const char *i_pSide, const std::vector<double> &i_f64Values) {
        const auto [pLeast, pMost] = std::minmax_element(i_f64Values.begin(), i_f64Values.end());
        printf("  %s %9.2f (%.2f to %.2f)", i_pSide, Quantile(i_f64Values, 0.5), *pLeast, *pMost);
    };
    const double f64Ratio = Quantile(i_f64Ours, 0.5) / Quantile(i_f64Reference, 0.5);
    if (!std::isfinite(f64Ratio)) {
        Fail("nothing was measured", i_pWhat);
    }
    printf("%-35s ratio %.3f ", i_pWhat, f64Ratio);
    Print("ours", i_f64Ours);
    Print("reference", i_f64Reference);
    printf("\n");
    fflush(stdout);
}
