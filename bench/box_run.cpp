/*
 * Processes in the bench box and what they use (proc(5)).
 */
#include "bench/box_run.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <linux/netlink.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "sim/uevent/uevent.h"

namespace
{
constexpr char kLog[] = "/run/bench.log";

std::string ReadAll(const std::string &i_strPath)
{
    std::ifstream objFile(i_strPath);
    return {std::istreambuf_iterator<char>(objFile), {}};
}

/* User and system time out of a stat file. */
double StatSeconds(const std::string &i_strPath)
{
    const std::string strText = ReadAll(i_strPath);
    const std::size_t u64NameEnd = strText.rfind(')');
    if (u64NameEnd == std::string::npos) {
        return 0; /* ended meanwhile */
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

/* The number behind a name in a status file. */
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

void PrepareBox()
{
    if (!std::filesystem::exists("/run/mv3300-sim/box.pid")) {
        fprintf(stderr, "runs in the bench box only, see bench/run\n");
        exit(2);
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
    const pid_t s32Pid = fork();
    if (s32Pid == 0) {
        const int s32Null = open("/dev/null", O_RDWR);
        dup2(i_s32Stdin >= 0 ? i_s32Stdin : s32Null, STDIN_FILENO);
        dup2(s32Null, STDOUT_FILENO);
        dup2(s32Null, STDERR_FILENO);
        execvp(pArgs[0], pArgs.data());
        _exit(127);
    }
    return s32Pid;
}

void End(pid_t i_s32Pid, int i_s32Signal)
{
    kill(i_s32Pid, i_s32Signal);
    waitpid(i_s32Pid, nullptr, 0);
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
    auto *pHeader = reinterpret_cast<struct nlmsghdr *>(objMessage.data());
    pHeader->nlmsg_len = static_cast<UInt32>(NLMSG_LENGTH(strPayload.size()));
    pHeader->nlmsg_type = NLMSG_MIN_TYPE;
    pHeader->nlmsg_flags = NLM_F_REQUEST;
    memcpy(NLMSG_DATA(pHeader), strPayload.data(), strPayload.size());
    const int s32Fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    struct sockaddr_nl stKernel = {};
    stKernel.nl_family = AF_NETLINK;
    if (sendto(s32Fd, objMessage.data(), objMessage.size(), 0,
               reinterpret_cast<struct sockaddr *>(&stKernel), sizeof(stKernel)) < 0) {
        perror("uevent");
        exit(1);
    }
    close(s32Fd);
}

void WaitForLine(const char *i_pFile, const char *i_pText, int i_s32Count)
{
    for (int i = 0; i < 3000 && CountLines(i_pFile, i_pText) < i_s32Count; i++) {
        usleep(10000);
    }
}

void WaitForLog(const char *i_pText, int i_s32Count)
{
    WaitForLine(kLog, i_pText, i_s32Count);
}

std::map<std::string, USED_S> UsedByThread(pid_t i_s32Pid)
{
    std::map<std::string, USED_S> objUsed;
    const std::string strTasks = "/proc/" + std::to_string(i_s32Pid) + "/task";
    for (const auto &objTask : std::filesystem::directory_iterator(strTasks)) {
        const std::string strPath = objTask.path();
        std::string strName = ReadAll(strPath + "/comm");
        strName.erase(strName.find_last_not_of('\n') + 1);
        USED_S &stUsed = objUsed[strName];
        /* Nanoseconds on a processor come first in schedstat. */
        stUsed.f64CpuSeconds += std::atof(ReadAll(strPath + "/schedstat").c_str()) / 1e9;
        stUsed.f64Wakeups += StatusNumber(strPath + "/status", "\nvoluntary_ctxt_switches:");
        stUsed.s32Threads++;
    }
    return objUsed;
}

double CpuSeconds(pid_t i_s32Pid)
{
    return StatSeconds("/proc/" + std::to_string(i_s32Pid) + "/stat");
}

double RssMb(pid_t i_s32Pid)
{
    return StatusNumber("/proc/" + std::to_string(i_s32Pid) + "/status", "VmRSS:") / 1024;
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
    const auto [pLeast, pMost] = std::minmax_element(i_f64Ours.begin(), i_f64Ours.end());
    printf("%-28s ours %9.2f (%.2f to %.2f)  reference %9.2f  ratio %.3f\n", i_pWhat,
           Quantile(i_f64Ours, 0.5), *pLeast, *pMost, Quantile(i_f64Reference, 0.5),
           Quantile(i_f64Ours, 0.5) / Quantile(i_f64Reference, 0.5));
    fflush(stdout);
}
