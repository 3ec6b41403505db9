/*
 * A pipeline inside the daemon beside the same description outside of it, in the bench box, rounds
 * interleaved.
 *
 * The time from the request to the first RTP packet, and the processor time and memory of a stream
 * with its preview, stand beside the least program that parses and plays descriptions: this one,
 * with
 * --play.
 */
#include <cstring>
#include <string>
#include <vector>

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gst/gst.h>

#include "bench/rig.h"
#include "common/stream/pipeline_desc.h"
#include "framework/signals.h"
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
    const sigset_t stOrders = BlockSignals({SIGUSR1, SIGUSR2});
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

struct USAGE_S {
    std::vector<double> f64Cpu; /* percent of a processor */
    std::vector<double> f64Mb;
};

void Measure(pid_t i_s32Pid, USAGE_S *io_pUsage)
{
    sleep(4);
    const double f64Before = CpuSeconds(i_s32Pid);
    sleep(kSeconds);
    io_pUsage->f64Cpu.push_back((CpuSeconds(i_s32Pid) - f64Before) * 100 / kSeconds);
    io_pUsage->f64Mb.push_back(PssMb(i_s32Pid));
}

void MeasureUsage(const char *i_pSelf)
{
    USAGE_S stOurs;
    USAGE_S stLeast;
    for (int i = 0; i < kUsageRounds; i++) {
        const pid_t s32Daemon = StartDaemon();
        SendTiming(kEvent);
        WaitForLog("Let's run [gst-h264]", 1);
        Measure(s32Daemon, &stOurs);
        End(s32Daemon, SIGTERM);
        const pid_t s32Player =
            Spawn({i_pSelf, "--play", BuildJpegCmd(kTiming, kStatus), StreamCmd()});
        sleep(1);
        kill(s32Player, SIGUSR1);
        usleep(kFixedPausesUs);
        Measure(s32Player, &stLeast);
        End(s32Player, SIGKILL);
    }
    Compare("stream with its preview, CPU", "least program", 1.03, stOurs.f64Cpu, stLeast.f64Cpu);
    Compare("stream with its preview, memory", "least program", 1.06, stOurs.f64Mb, stLeast.f64Mb);
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
