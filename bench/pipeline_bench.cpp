/*
 * A pipeline inside the daemon beside the same description outside of it, in the bench box.
 *
 * Rounds are interleaved. The time from the request to the first RTP packet stands beside the least
 * program that parses and plays a description (this one, called with --play). The processor time
 * and the memory of a running stream and its preview stand beside the least program that plays
 * both (--both), and beside two of gst-launch-1.0, which plays one. Run it by bench/run; the
 * figures of interest are the ratios of the medians.
 */
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gst/gst.h>

#include "bench/box_run.h"
#include "common/stream/pipeline_desc.h"
#include "framework/clock.h"

namespace
{
constexpr UInt16 kPort = 5004;
constexpr INPUT_TIMING_S kTiming = {1280, 720, 30, 0};
constexpr char kEvent[] = "1280x720@30-0";
constexpr STREAM_STATUS_S kStatus = {2, 1, 60, "vbr", 1000000, 1, 720, 1};
/* The daemon's pauses between a first timing and the start of its pipeline. */
constexpr SInt64 kFixedPausesUs = 1050000;

std::string H264Cmd()
{
    return BuildH264Cmd(kTiming, kStatus, "127.0.0.1:5004,127.0.0.1:12350");
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
            Fail("bind", strerror(errno));
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
            Fail("no packet came", "for 30 s");
        }
        return static_cast<double>(GetTimeInMcros() - i_s64Begin);
    }

private:
    int m_s32Fd;
};

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

/* Plays both descriptions until it is killed, each in a thread with a loop of its own. */
int PlayBoth(const char *i_pPreview, const char *i_pStream)
{
    auto PlayOne = [](const char *i_pCmd) {
        GMainContext *pContext = g_main_context_new();
        g_main_context_push_thread_default(pContext);
        gst_element_set_state(gst_parse_launch(i_pCmd, nullptr), GST_STATE_PLAYING);
        g_main_loop_run(g_main_loop_new(pContext, FALSE));
    };
    gst_init(nullptr, nullptr);
    std::thread objPreview(PlayOne, i_pPreview);
    usleep(kFixedPausesUs);
    PlayOne(i_pStream);
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
    return Spawn(strArgs);
}

void MeasureUsage(const char *i_pSelf, int i_s32Rounds, int i_s32Seconds)
{
    const std::string strStream = H264Cmd();
    const std::string strPreview = BuildJpegCmd(kTiming, kStatus);
    std::vector<double> f64Cpu[3];
    std::vector<double> f64Pss[3];
    for (int i = 0; i < 3 * i_s32Rounds; i++) {
        const int s32Who = i % 3;
        std::vector<pid_t> s32Pids;
        if (s32Who == 0) {
            s32Pids = {StartDaemon()};
            SendTiming(kEvent);
            WaitForLog("Let's run [gst-h264]", 1);
        } else if (s32Who == 1) {
            s32Pids = {Spawn({i_pSelf, "--both", strPreview, strStream})};
        } else {
            s32Pids = {Launch(strPreview), Launch(strStream)};
        }
        sleep(4);
        double f64Seconds = 0;
        double f64Mb = 0;
        for (const pid_t s32Pid : s32Pids) {
            f64Seconds -= CpuSeconds(s32Pid);
        }
        sleep(static_cast<unsigned>(i_s32Seconds));
        for (const pid_t s32Pid : s32Pids) {
            f64Seconds += CpuSeconds(s32Pid);
            f64Mb += PssMb(s32Pid);
        }
        for (const pid_t s32Pid : s32Pids) {
            End(s32Pid, SIGTERM);
        }
        f64Cpu[s32Who].push_back(f64Seconds * 100 / i_s32Seconds);
        f64Pss[s32Who].push_back(f64Mb);
    }
    Compare("CPU, %, least program", f64Cpu[0], f64Cpu[1]);
    Compare("CPU, %, gst-launch-1.0", f64Cpu[0], f64Cpu[2]);
    Compare("memory, MB, least program", f64Pss[0], f64Pss[1]);
    Compare("memory, MB, gst-launch-1.0", f64Pss[0], f64Pss[2]);
}

void MeasureFirstPacket(const char *i_pSelf, int i_s32Rounds)
{
    CPackets objPackets;
    std::vector<double> f64Ms[2];
    int s32Pipe[2];
    if (pipe2(s32Pipe, O_CLOEXEC) != 0) {
        Fail("pipe2", strerror(errno));
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
    WaitForEnd(s32Player);
    End(s32Daemon, SIGTERM);
    Compare("request to first packet, ms", f64Ms[0], f64Ms[1]);
}
} // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && strcmp(argv[1], "--play") == 0) {
        return Play(argv[2]);
    }
    if (argc == 4 && strcmp(argv[1], "--both") == 0) {
        return PlayBoth(argv[2], argv[3]);
    }
    const int s32Rounds = argc == 2 ? std::atoi(argv[1]) : 5;
    if (s32Rounds < 1) {
        fprintf(stderr, "usage, in the bench box only: pipeline_bench [ROUNDS]\n");
        return 2;
    }
    PrepareBox();
    PinToOneProcessor();
    MeasureFirstPacket(argv[0], s32Rounds * 2);
    MeasureUsage(argv[0], s32Rounds, 6);
    return 0;
}
