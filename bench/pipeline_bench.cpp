/*
 * A pipeline inside the daemon beside the same description outside of it, in the bench box.
 *
 * Two comparisons, rounds interleaved: the processor time of a running stream and its preview
 * beside gst-launch-1.0 with the same descriptions, and the time from the request to the first RTP
 * packet beside the least program that parses and plays a description (this one, called with
 * --play). Run it by bench/run; the figures of interest are the ratios of the medians.
 */
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gst/gst.h>

#include "common/pipeline_desc.h"
#include "framework/clock.h"
#include "sim/uevent/uevent.h"

namespace
{
constexpr UInt16 kPort = 5004;
constexpr char kLog[] = "/run/bench.log";
constexpr INPUT_TIMING_S kTiming = {1280, 720, 30, 0};
constexpr char kEvent[] = "1280x720@30-0";
constexpr STREAM_STATUS_S kStatus = {2, 1, 60, "vbr", 1000000, 1, 720, 1};
/* The daemon's pauses between a first timing and the start of its pipeline. */
constexpr SInt64 kFixedPausesUs = 1050000;

std::string H264Cmd()
{
    return BuildH264Cmd(kTiming, kStatus, "127.0.0.1:5004,127.0.0.1:12350");
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

/* 0 for no process. */
double CpuSeconds(pid_t i_s32Pid)
{
    if (i_s32Pid < 0) {
        return 0;
    }
    std::ifstream objFile("/proc/" + std::to_string(i_s32Pid) + "/stat");
    std::string strText((std::istreambuf_iterator<char>(objFile)), {});
    std::istringstream objFields(strText.substr(strText.rfind(')') + 2));
    std::string strSkip;
    for (int i = 0; i < 11; i++) {
        objFields >> strSkip;
    }
    double f64User = 0;
    double f64System = 0;
    objFields >> f64User >> f64System;
    return (f64User + f64System) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double Median(std::vector<double> i_f64Values)
{
    std::sort(i_f64Values.begin(), i_f64Values.end());
    return i_f64Values.empty() ? 0 : i_f64Values[i_f64Values.size() / 2];
}

void Compare(const char *i_pWhat, const std::vector<double> &i_f64Ours,
             const std::vector<double> &i_f64Reference)
{
    const auto [pLeast, pMost] = std::minmax_element(i_f64Ours.begin(), i_f64Ours.end());
    printf("%-28s ours %9.2f (%.2f to %.2f)  reference %9.2f  ratio %.3f\n", i_pWhat,
           Median(i_f64Ours), *pLeast, *pMost, Median(i_f64Reference),
           Median(i_f64Ours) / Median(i_f64Reference));
    fflush(stdout);
}

/* The receiver of the stream. */
class CPackets
{
public:
    CPackets() : m_s32Fd(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
    {
        struct sockaddr_in stAddr = {};
        stAddr.sin_family = AF_INET;
        stAddr.sin_port = htons(kPort);
        stAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(m_s32Fd, reinterpret_cast<struct sockaddr *>(&stAddr), sizeof(stAddr)) != 0) {
            perror("bind");
            exit(1);
        }
    }
    void Drain() const
    {
        char szPacket[2048];
        while (recv(m_s32Fd, szPacket, sizeof(szPacket), 0) > 0) {
        }
    }
    /* Microseconds from i_s64Begin to the next packet; ends the program if none comes. */
    double WaitFrom(SInt64 i_s64Begin) const
    {
        struct pollfd stPoll = {m_s32Fd, POLLIN, 0};
        if (poll(&stPoll, 1, 30000) != 1) {
            fprintf(stderr, "no packet came\n");
            exit(1);
        }
        return static_cast<double>(GetTimeInMcros() - i_s64Begin);
    }

private:
    int m_s32Fd;
};

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

int CountInLog(const char *i_pText)
{
    std::ifstream objFile(kLog);
    int s32Count = 0;
    for (std::string strLine; std::getline(objFile, strLine);) {
        s32Count += strLine.find(i_pText) != std::string::npos;
    }
    return s32Count;
}

void WaitForLog(const char *i_pText, int i_s32Count)
{
    for (int i = 0; i < 3000 && CountInLog(i_pText) < i_s32Count; i++) {
        usleep(10000);
    }
}

pid_t StartDaemon()
{
    std::filesystem::remove(kLog);
    const pid_t s32Pid = Spawn({"mv3300d"}, -1);
    WaitForLog("uevent device_fd", 1);
    WaitForLog("start gst enc jpeg thread", 1);
    usleep(300000);
    return s32Pid;
}

/* Plays the description at every line of standard input, and stops what it played before. */
int Play(const char *i_pCmd)
{
    gst_init(nullptr, nullptr);
    GstElement *pPipeline = nullptr;
    for (char c8; read(STDIN_FILENO, &c8, 1) == 1;) {
        if (pPipeline != nullptr) {
            gst_element_set_state(pPipeline, GST_STATE_NULL);
            gst_object_unref(pPipeline);
            pPipeline = nullptr;
        }
        if (c8 == 'p') {
            pPipeline = gst_parse_launch(i_pCmd, nullptr);
            gst_element_set_state(pPipeline, GST_STATE_PLAYING);
        }
    }
    return 0;
}

/* gst-launch-1.0 with one description. Both in one pipeline would wait for one another: the second
 * gets its first buffer from the first. */
pid_t Launch(const std::string &i_strCmd)
{
    std::vector<std::string> strArgs = {"gst-launch-1.0", "-q"};
    std::istringstream objWords(i_strCmd);
    for (std::string strWord; objWords >> strWord;) {
        strArgs.push_back(strWord);
    }
    return Spawn(strArgs, -1);
}

void MeasureUsage(int i_s32Rounds, int i_s32Seconds)
{
    std::vector<double> f64Cpu[2];
    for (int i = 0; i < 2 * i_s32Rounds; i++) {
        const int s32Who = i % 2;
        pid_t s32Pid;
        pid_t s32Second = -1;
        if (s32Who == 0) {
            s32Pid = StartDaemon();
            SendTiming(kEvent);
            WaitForLog("Let's run [gst-h264]", 1);
        } else {
            s32Pid = Launch(H264Cmd());
            s32Second = Launch(BuildJpegCmd(kTiming, kStatus));
        }
        sleep(4);
        const double f64Begin = CpuSeconds(s32Pid) + CpuSeconds(s32Second);
        sleep(static_cast<unsigned>(i_s32Seconds));
        f64Cpu[s32Who].push_back((CpuSeconds(s32Pid) + CpuSeconds(s32Second) - f64Begin) * 100 /
                                 i_s32Seconds);
        End(s32Pid, SIGTERM);
        if (s32Second > 0) {
            End(s32Second, SIGTERM);
        }
    }
    Compare("CPU, % of a processor", f64Cpu[0], f64Cpu[1]);
}

void MeasureFirstPacket(const char *i_pSelf, int i_s32Rounds)
{
    CPackets objPackets;
    std::vector<double> f64Ms[2];
    int s32Pipe[2];
    if (pipe2(s32Pipe, O_CLOEXEC) != 0) {
        exit(1);
    }
    const pid_t s32Player = Spawn({i_pSelf, "--play", H264Cmd()}, s32Pipe[0]);
    const pid_t s32Daemon = StartDaemon();
    auto Player = [&](char i_s8Order) { (void)!write(s32Pipe[1], &i_s8Order, 1); };
    sleep(2);
    for (int i = 1; i <= i_s32Rounds + 1; i++) {
        objPackets.Drain();
        SInt64 s64Begin = GetTimeInMcros();
        SendTiming(kEvent);
        const double f64Daemon = objPackets.WaitFrom(s64Begin) - kFixedPausesUs;
        SendTiming("0x0@0-0");
        WaitForLog("Going out [gst-h264]", i);
        sleep(2);

        objPackets.Drain();
        s64Begin = GetTimeInMcros();
        Player('p');
        const double f64Player = objPackets.WaitFrom(s64Begin);
        Player('s');
        sleep(1);
        if (i > 1) { /* the first round of each loads plug-ins */
            f64Ms[0].push_back(f64Daemon / 1000);
            f64Ms[1].push_back(f64Player / 1000);
        }
    }
    close(s32Pipe[1]);
    waitpid(s32Player, nullptr, 0);
    End(s32Daemon, SIGTERM);
    Compare("request to first packet, ms", f64Ms[0], f64Ms[1]);
}
} // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && strcmp(argv[1], "--play") == 0) {
        return Play(argv[2]);
    }
    const int s32Rounds = argc == 2 ? std::atoi(argv[1]) : 5;
    if (s32Rounds < 1 || !std::filesystem::exists("/run/mv3300-sim/box.pid")) {
        fprintf(stderr, "usage, in the bench box only: pipeline_bench [ROUNDS]\n");
        return 2;
    }
    std::filesystem::create_directories("/config/mv3300");
    std::filesystem::create_directories("/tmp/image");
    std::ofstream("/config/mv3300/param.xml")
        << "<CONFIGURATION><CHANNEL_1><PARAM NAME=\"addr_list\" TYPE=\"string\">127.0.0.1:5004"
           "</PARAM></CHANNEL_1></CONFIGURATION>";
    std::ofstream("/config/logconf/mvx3300.conf")
        << "rootCategory=INFO, file\nappender.file=FileAppender\nappender.file.fileName=" << kLog
        << "\nappender.file.layout=BasicLayout\n";
    MeasureFirstPacket(argv[0], s32Rounds * 2);
    MeasureUsage(s32Rounds, 6);
    return 0;
}
