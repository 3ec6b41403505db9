/*
 * Figures with their limits; processes in the bench box and what they use (proc(5)).
 */
#include "bench/rig.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <glib.h>

#include "sim/uevent/send.h"
#include "sim/uevent/uevent.h"
#include "tests/support/temp_dir.h"

namespace
{
constexpr char kLog[] = "/run/mv3300d/mv3300.log"; /* of the packaged configuration */
constexpr char kLogConf[] = "/config/logconf/mvx3300.conf";

/* What follows the text in every line of the file that holds it. */
std::vector<std::string> Behind(const std::string &i_strFile, const std::string &i_strText)
{
    std::ifstream objFile(i_strFile);
    std::vector<std::string> strFound;
    for (std::string strLine; std::getline(objFile, strLine);) {
        if (const std::size_t u64At = strLine.find(i_strText); u64At != std::string::npos) {
            strFound.push_back(strLine.substr(u64At + i_strText.size()));
        }
    }
    return strFound;
}

/* Half of the range in percent of the median. */
double Spread(const std::vector<double> &i_f64Values)
{
    const auto [pLeast, pMost] = std::minmax_element(i_f64Values.begin(), i_f64Values.end());
    return 50 * (*pMost - *pLeast) / Quantile(i_f64Values, 0.5);
}
} // namespace

void Fail(const char *i_pText, const std::string &i_strAbout)
{
    fflush(stdout);
    fprintf(stderr, "%s: %s\n", i_pText, i_strAbout.c_str());
    exit(1);
}

double NowUs()
{
    return std::chrono::duration<double, std::micro>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

double Quantile(std::vector<double> i_f64Values, double i_f64Part)
{
    if (i_f64Values.empty()) {
        Fail("nothing was measured", "");
    }
    std::sort(i_f64Values.begin(), i_f64Values.end());
    return i_f64Values[static_cast<std::size_t>(i_f64Part *
                                                static_cast<double>(i_f64Values.size() - 1))];
}

void Report(const std::string &i_strWhat, const std::string &i_strBeside, double i_f64Limit,
            double i_f64Figure, const std::string &i_strMore)
{
    char szLimit[16] = "";
    const char *pVerdict = "-";
    if (i_f64Limit >= 0) {
        snprintf(szLimit, sizeof(szLimit), "%.3g", i_f64Limit);
        pVerdict = i_f64Figure <= i_f64Limit ? "ok" : "MISS"; /* no number misses, too */
    }
    printf("| %-46s | %-34s | %5s | %7.2f %s | %s |\n", i_strWhat.c_str(), i_strBeside.c_str(),
           szLimit, i_f64Figure, i_strMore.c_str(), pVerdict);
    fflush(stdout);
}

void Compare(const std::string &i_strWhat, const std::string &i_strBeside, double i_f64Limit,
             const std::vector<double> &i_f64Ours, const std::vector<double> &i_f64Baseline)
{
    const double f64Ratio = Quantile(i_f64Ours, 0.5) / Quantile(i_f64Baseline, 0.5);
    if (!std::isfinite(f64Ratio)) {
        Fail("nothing was measured", i_strWhat);
    }
    char szMore[96];
    snprintf(szMore, sizeof(szMore), "(%.4g ±%.0f %% to %.4g ±%.0f %%)", Quantile(i_f64Ours, 0.5),
             Spread(i_f64Ours), Quantile(i_f64Baseline, 0.5), Spread(i_f64Baseline));
    Report(i_strWhat, i_strBeside, i_f64Limit, f64Ratio, szMore);
}

void PrepareBox()
{
    if (!std::filesystem::exists("/run/mv3300-sim/box.pid")) {
        Fail("runs in the bench box only", "see bench/run");
    }
    std::filesystem::create_directories("/tmp/image");
    WriteFile("/config/mv3300/param.xml",
              "<CONFIGURATION><CHANNEL_1><PARAM NAME=\"addr_list\" TYPE=\"string\">127.0.0.1:5004"
              "</PARAM></CHANNEL_1></CONFIGURATION>");
    const std::string strConsole = ", console";
    std::string strConf = ReadFile(kLogConf);
    strConf.replace(strConf.find(strConsole), strConsole.size(), "");
    WriteFile(kLogConf, strConf);
}

pid_t Spawn(std::vector<std::string> i_strArgs)
{
    std::vector<char *> pArgs;
    for (std::string &strArg : i_strArgs) {
        pArgs.push_back(strArg.data());
    }
    pArgs.push_back(nullptr);
    constexpr int kFlags = G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD |
                           G_SPAWN_STDOUT_TO_DEV_NULL | G_SPAWN_STDERR_TO_DEV_NULL;
    GPid s32Pid = 0;
    if (!g_spawn_async(nullptr, pArgs.data(), nullptr, static_cast<GSpawnFlags>(kFlags), nullptr,
                       nullptr, &s32Pid, nullptr)) {
        Fail("cannot be started", i_strArgs[0]);
    }
    return s32Pid;
}

void End(pid_t i_s32Pid, int i_s32Signal)
{
    if (waitpid(i_s32Pid, nullptr, WNOHANG) != 0 || kill(i_s32Pid, i_s32Signal) != 0 ||
        waitpid(i_s32Pid, nullptr, 0) != i_s32Pid) {
        Fail("a process ended early", std::to_string(i_s32Pid));
    }
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
    if (const int s32Error = SendToKernel(UeventPayload(BridgeEvent(i_pEvent))); s32Error != 0) {
        Fail("uevent", strerror(s32Error));
    }
}

void WaitForLog(const char *i_pText, int i_s32Count, const std::string &i_strFile)
{
    const auto u64Count = static_cast<std::size_t>(i_s32Count);
    for (int i = 0; Behind(i_strFile.empty() ? kLog : i_strFile, i_pText).size() < u64Count; i++) {
        if (i == 3000) {
            Fail("not in the log after 30 s", i_pText);
        }
        usleep(10000);
    }
}

double CpuSeconds(pid_t i_s32Pid)
{
    clockid_t s32Clock;
    timespec stUsed;
    if (clock_getcpuclockid(i_s32Pid, &s32Clock) != 0 || clock_gettime(s32Clock, &stUsed) != 0) {
        Fail("no processor time of", std::to_string(i_s32Pid));
    }
    return static_cast<double>(stUsed.tv_sec) + static_cast<double>(stUsed.tv_nsec) / 1e9;
}

double VoluntarySwitches(pid_t i_s32Pid)
{
    double f64Sum = 0;
    for (const auto &objThread :
         std::filesystem::directory_iterator("/proc/" + std::to_string(i_s32Pid) + "/task")) {
        const auto strFound = Behind(objThread.path() / "status", "voluntary_ctxt_switches:");
        f64Sum += strFound.empty() ? 0 : std::atof(strFound[0].c_str());
    }
    return f64Sum;
}

double PssMb(pid_t i_s32Pid)
{
    const auto strFound = Behind("/proc/" + std::to_string(i_s32Pid) + "/smaps_rollup", "Pss:");
    if (strFound.empty()) {
        Fail("no smaps_rollup of", std::to_string(i_s32Pid));
    }
    return std::atof(strFound[0].c_str()) / 1024;
}
