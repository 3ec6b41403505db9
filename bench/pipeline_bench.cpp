/*
 * A pipeline inside the daemon beside the same description outside of it, in the bench box, rounds
 * interleaved.
 *
 * The time from the request to the first RTP packet, and the processor time and memory of a stream
 * with its preview, stand beside the least program that parses and plays descriptions (this one,
 * with --play); the latter beside two of gst-launch-1.0 as well, which plays one.
 */
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gst/gst.h>

#include "bench/rig.h"
#include "common/stream/pipeline_desc.h"
#include "framework/unique_fd.h"
#include "tests/support/loopback.h"

namespace
{
constexpr int kStarts = 8;
constexpr int kUsageRounds = 4;
constexpr int kSeconds = 6; /* that processor time is taken over */
constexpr INPUT_TIMING_S kTiming = {1280, 720, 30, 0};
constexpr char kEvent[] = "1280x720@30-0";
constexpr STREAM_STATUS_S kStatus = {2, 1, 60, "vbr", 1000000, 1, 720, 1};
/* The daemon's pauses between a first timing and the start of its pipeline. */
constexpr unsigned kFixedPausesUs = 1050000;

/* Plays the descriptions at SIGUSR1, with the fixed pauses between them, and stops them at
 * SIGUSR2. */
int Play(int i_s32Count, char **i_pCmds)
{
    sigset_t stOrders;
    sigemptyset(&stOrders);
    sigaddset(&stOrders, SIGUSR1);
    sigaddset(&stOrders, SIGUSR2);
    sigprocmask(SIG_BLOCK, &stOrders, nullptr);
    gst_init(nullptr, nullptr);
    std::vector<GstElement *> pPipelines;
    for (int s32Order = 0; sigwait(&stOrders, &s32Order) == 0;) {
        for (GstElement *pPipeline : pPipelines) {
            gst_element_set_state(pPipeline, GST_STATE_NULL);
            gst_object_unref(pPipeline);
        }
        pPipelines.clear();
        for (int i = 0; i < i_s32Count && s32Order == SIGUSR1; i++) {
            usleep(i == 0 ? 0 : kFixedPausesUs);
            pPipelines.push_back(gst_parse_launch(i_pCmds[i], nullptr));
            gst_element_set_state(pPipelines.back(), GST_STATE_PLAYING);
        }
    }
    return 1;
}

std::string StreamCmd()
{
    return BuildH264Cmd(kTiming, kStatus, "127.0.0.1:5004,127.0.0.1:12350");
}

/* Milliseconds from i_f64BeginUs to the next packet of the stream. */
double FirstPacketMs(const UniqueFd &i_objReceiver, double i_f64BeginUs)
{
    struct pollfd stPoll = {i_objReceiver.Get(), POLLIN, 0};
    if (poll(&stPoll, 1, 30000) != 1) {
        Fail("no packet came", "for 30 s");
    }
    return (NowUs() - i_f64BeginUs) / 1000;
}

void MeasureFirstPacket(const char *i_pSelf)
{
    const UniqueFd objReceiver(BindLoopback(5004));
    const pid_t s32Player = Spawn({i_pSelf, "--play", StreamCmd()});
    const pid_t s32Daemon = StartDaemon();
    std::vector<double> f64Ms[2];
    sleep(2);
    for (int i = 0; i <= 2 * kStarts + 1; i++) {
        char szPacket[2048];
        while (recv(objReceiver.Get(), szPacket, sizeof(szPacket), MSG_DONTWAIT) > 0) {
        }
        const double f64Begin = NowUs();
        if (i % 2 == 0) {
            SendTiming(kEvent);
            f64Ms[0].push_back(FirstPacketMs(objReceiver, f64Begin + kFixedPausesUs));
            SendTiming("0x0@0-0");
            WaitForLog("Going out [gst-h264]", i / 2 + 1);
        } else {
            kill(s32Player, SIGUSR1);
            f64Ms[1].push_back(FirstPacketMs(objReceiver, f64Begin));
            kill(s32Player, SIGUSR2);
        }
        sleep(1);
    }
    End(s32Daemon, SIGTERM);
    End(s32Player, SIGKILL);
    for (std::vector<double> &f64Side : f64Ms) {
        f64Side.erase(f64Side.begin()); /* the first start loads plug-ins */
    }
    Compare("request to first packet above the pauses", "least program", 1.1, f64Ms[0], f64Ms[1]);
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

struct USAGE_S {
    std::vector<double> f64Cpu; /* percent of a processor */
    std::vector<double> f64Mb;
};

void Measure(const std::vector<pid_t> &i_s32Pids, USAGE_S *io_pUsage)
{
    sleep(4);
    double f64Seconds = 0;
    double f64Mb = 0;
    for (const pid_t s32Pid : i_s32Pids) {
        f64Seconds -= CpuSeconds(s32Pid);
    }
    sleep(kSeconds);
    for (const pid_t s32Pid : i_s32Pids) {
        f64Seconds += CpuSeconds(s32Pid);
        f64Mb += PssMb(s32Pid);
    }
    io_pUsage->f64Cpu.push_back(f64Seconds * 100 / kSeconds);
    io_pUsage->f64Mb.push_back(f64Mb);
}

void MeasureUsage(const char *i_pSelf)
{
    const std::string strPreview = BuildJpegCmd(kTiming, kStatus);
    USAGE_S stUsages[3];
    for (int i = 0; i < kUsageRounds; i++) {
        const pid_t s32Daemon = StartDaemon();
        SendTiming(kEvent);
        WaitForLog("Let's run [gst-h264]", 1);
        Measure({s32Daemon}, &stUsages[0]);
        End(s32Daemon, SIGTERM);
        const pid_t s32Player = Spawn({i_pSelf, "--play", strPreview, StreamCmd()});
        sleep(1);
        kill(s32Player, SIGUSR1);
        usleep(kFixedPausesUs);
        Measure({s32Player}, &stUsages[1]);
        End(s32Player, SIGKILL);
        const std::vector<pid_t> s32Launched = {Launch(strPreview), Launch(StreamCmd())};
        Measure(s32Launched, &stUsages[2]);
        for (const pid_t s32Pid : s32Launched) {
            End(s32Pid, SIGTERM);
        }
    }
    const char *pBesides[] = {"", "least program", "two of gst-launch-1.0"};
    for (int i = 1; i < 3; i++) {
        Compare("stream with its preview, CPU", pBesides[i], 1.03, stUsages[0].f64Cpu,
                stUsages[i].f64Cpu);
        Compare("stream with its preview, memory", pBesides[i], 1.06, stUsages[0].f64Mb,
                stUsages[i].f64Mb);
    }
}
} // namespace

int main(int argc, char **argv)
{
    if (argc > 2 && strcmp(argv[1], "--play") == 0) {
        return Play(argc - 2, argv + 2);
    }
    PrepareBox();
    MeasureFirstPacket(argv[0]);
    MeasureUsage(argv[0]);
    return 0;
}
