/*
 * sim-receive: receives, decodes and measures the stream, for people and for tests.
 *
 * Ends after --seconds, after --pictures, or with SIGINT or SIGTERM; the exit status is 0 only if
 * pictures were decoded.
 */
#include <atomic>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <gst/gst.h>

#include <CLI/CLI.hpp>

#include "sim/receive/daemon_view.h"
#include "sim/receive/screen.h"
#include "sim/receive/stream.h"

namespace
{
using Clock = std::chrono::steady_clock;

constexpr auto kTick = std::chrono::milliseconds(20);
constexpr double kScreenPause = 0.5;
constexpr double kPlainPause = 2.0;
constexpr size_t kHistory = 60;

std::atomic<bool> s_bStop{false};
void HandleStop(int)
{
    s_bStop = true;
}

struct OPTIONS_S {
    std::string strGroup = "234.29.78.95";
    int s32Port = 59202;
    std::string strInterface = "eth0";
    double f64Seconds = 0;
    UInt64 u64Pictures = 0;
    bool bJson = false;
    bool bShow = false;
    bool bCheck = false;
    std::string strPicture;
    int s32Pid = 0;
    std::string strLog;
    std::string strHint;
};

void AddOptions(CLI::App *io_pApp, OPTIONS_S *o_pOptions)
{
    io_pApp->add_option("--group", o_pOptions->strGroup, "multicast group, or a local address")
        ->capture_default_str()
        ->check(CLI::ValidIPV4);
    io_pApp->add_option("--port", o_pOptions->s32Port, "UDP port")
        ->capture_default_str()
        ->check(CLI::Range(1, 65535));
    io_pApp->add_option("--interface", o_pOptions->strInterface, "where the group is joined")
        ->capture_default_str();
    io_pApp->add_option("--seconds", o_pOptions->f64Seconds, "ends after this time")
        ->check(CLI::PositiveNumber);
    io_pApp->add_option("--pictures", o_pOptions->u64Pictures,
                        "ends as soon as this many pictures are decoded");
    auto *pJson =
        io_pApp->add_flag("--json", o_pOptions->bJson, "prints one JSON object at the end");
    io_pApp
        ->add_flag("--show", o_pOptions->bShow,
                   "a live screen (a line every 2 s when the "
                   "output is no terminal)")
        ->excludes(pJson);
    io_pApp->add_option("--picture", o_pOptions->strPicture,
                        "saves the newest decoded picture to this PNG file at the end");
    io_pApp->add_option("--pid", o_pOptions->s32Pid, "the daemon's process, for --show");
    io_pApp->add_option("--log", o_pOptions->strLog, "the daemon's log file, for --show");
    io_pApp->add_option("--hint", o_pOptions->strHint,
                        "a command, shown at the bottom of the screen");
    io_pApp->add_flag("--check", o_pOptions->bCheck,
                      "only checks that the elements of sender and receiver can be loaded");
}

/* Loading them also makes GStreamer write its list of plug-ins. */
int CheckElements()
{
    static const struct {
        const char *pElement;
        const char *pPackage;
    } kNeeded[] = {
        {"vpuenc_h264", "the stand-ins of the bench box"},
        {"x264enc", "gstreamer1.0-plugins-ugly"},
        {"videoconvert", "gstreamer1.0-plugins-base"},
        {"rtph264pay", "gstreamer1.0-plugins-good"},
        {"multiudpsink", "gstreamer1.0-plugins-good"},
        {"multifilesink", "gstreamer1.0-plugins-good"},
        {"pngenc", "gstreamer1.0-plugins-good"},
        {"h264parse", "gstreamer1.0-plugins-bad"},
        {"avdec_h264", "gstreamer1.0-libav"},
    };
    int s32Result = 0;
    for (const auto &stNeeded : kNeeded) {
        GstElement *pElement = gst_element_factory_make(stNeeded.pElement, nullptr);
        if (pElement == nullptr) {
            fprintf(stderr, "sim-receive: the element %s cannot be loaded (it comes with %s)\n",
                    stNeeded.pElement, stNeeded.pPackage);
            s32Result = 1;
            continue;
        }
        gst_object_unref(gst_object_ref_sink(pElement));
    }
    return s32Result;
}

/* Not into a file, and not where the user asks for plain text. */
bool TakesEscapes()
{
    const auto Value = [](const char *i_pName) {
        const char *pValue = getenv(i_pName);
        return std::string(pValue == nullptr ? "" : pValue);
    };
    return isatty(STDOUT_FILENO) == 1 && !Value("TERM").empty() && Value("TERM") != "dumb" &&
           Value("NO_COLOR").empty() && Value("LC_ALL") != "C" && Value("LC_ALL") != "POSIX";
}

/* Asked for at every drawing: the window may have been resized. */
TERMINAL_S Terminal()
{
    TERMINAL_S stTerminal;
    winsize stSize = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &stSize) == 0 && stSize.ws_col > 0 && stSize.ws_row > 0) {
        stTerminal.u64Columns = stSize.ws_col;
        stTerminal.u64Rows = stSize.ws_row;
    }
    stTerminal.bUtf8 = strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    return stTerminal;
}

class CShow
{
public:
    CShow(const OPTIONS_S &i_stOptions, Clock::time_point i_objStart)
        : m_objStart(i_objStart), m_objDrawn(i_objStart), m_objTail(i_stOptions.strLog),
          m_bTerminal(TakesEscapes())
    {
        m_stScreen.strSource = i_stOptions.strGroup + ":" + std::to_string(i_stOptions.s32Port);
        m_stScreen.s32Pid = i_stOptions.s32Pid;
        m_stScreen.bHasDaemon = i_stOptions.s32Pid > 0;
        m_stScreen.bHasLog = !i_stOptions.strLog.empty();
        m_stScreen.strHint = i_stOptions.strHint;
        if (m_bTerminal) {
            printf("\033[?1049h\033[?25l\033[2J"); /* a screen of its own, without a cursor */
        } else if (!i_stOptions.strHint.empty()) {
            printf("From another terminal: %s\n", i_stOptions.strHint.c_str());
        }
    }
    ~CShow()
    {
        if (m_bTerminal) {
            printf("\033[?25h\033[?1049l");
        }
        fflush(stdout);
    }
    CShow(const CShow &) = delete;
    CShow &operator=(const CShow &) = delete;

    void Tick(CStreamReceiver *i_pReceiver)
    {
        m_objPreview.Look();
        const Clock::time_point objNow = Clock::now();
        const double f64Pause = std::chrono::duration<double>(objNow - m_objDrawn).count();
        if (f64Pause < (m_bTerminal ? kScreenPause : kPlainPause)) {
            return;
        }
        m_objDrawn = objNow;
        m_stScreen.f64Seconds = std::chrono::duration<double>(objNow - m_objStart).count();
        Measure(i_pReceiver->Stats(), f64Pause);
        if (m_bTerminal) {
            fputs(ScreenText(m_stScreen, Terminal()).c_str(), stdout);
        } else {
            printf("%s\n", PlainLine(m_stScreen).c_str());
        }
        fflush(stdout);
    }

    UInt64 Previews() const { return m_objPreview.Count(); }

private:
    void Measure(const STREAM_STATS_S &i_stNow, double i_f64Seconds)
    {
        const PROCESS_VIEW_S stProcess =
            m_stScreen.bHasDaemon ? ReadProcess(m_stScreen.s32Pid) : PROCESS_VIEW_S();
        const bool bRan = m_stScreen.stRates.f64PacketsPerS > 0;
        const UInt64 u64Sessions = m_stScreen.stStats.stRtp.u64Sessions;
        m_stScreen.stRates = RatesBetween(m_stScreen.stStats, i_stNow, m_stScreen.stProcess,
                                          stProcess, i_f64Seconds);
        m_stScreen.stStats = i_stNow;
        /* A setting that changes begins or ends a stream; to ask leaves lines in the daemon's log.
         */
        if (m_stScreen.bHasDaemon && (u64Sessions != i_stNow.stRtp.u64Sessions ||
                                      bRan != (m_stScreen.stRates.f64PacketsPerS > 0))) {
            m_stScreen.strSettings = AskSettings();
        }
        m_stScreen.stProcess = stProcess;
        m_stScreen.objKbitHistory.push_back(m_stScreen.stRates.f64KbitPerS);
        if (m_stScreen.objKbitHistory.size() > kHistory) {
            m_stScreen.objKbitHistory.pop_front();
        }
        if (m_stScreen.bHasLog) {
            m_objTail.Read(&m_stScreen.stLog);
        }
        m_stScreen.u64Previews = m_objPreview.Count();
        m_stScreen.strPreview = m_objPreview.Text();
    }

    Clock::time_point m_objStart;
    Clock::time_point m_objDrawn;
    CLogTail m_objTail;
    CPreviewWatch m_objPreview{"/tmp/image.jpeg"};
    bool m_bTerminal;
    SCREEN_S m_stScreen;
};

/* Until the time is over, the pictures are there, the receiver failed or the user has enough. The
 * number of previews that were published, where the daemon is watched. */
std::optional<UInt64> Watch(const OPTIONS_S &i_stOptions, Clock::time_point i_objStart,
                            CStreamReceiver *i_pReceiver)
{
    std::unique_ptr<CShow> pShow;
    if (i_stOptions.bShow) {
        pShow = std::make_unique<CShow>(i_stOptions, i_objStart);
    }
    while (!s_bStop) {
        std::this_thread::sleep_for(kTick);
        if (pShow != nullptr) {
            pShow->Tick(i_pReceiver);
        }
        const STREAM_STATS_S stStats = i_pReceiver->Stats();
        const std::chrono::duration<double> objPassed = Clock::now() - i_objStart;
        if (!stStats.strError.empty() ||
            (i_stOptions.u64Pictures > 0 && stStats.u64Pictures >= i_stOptions.u64Pictures) ||
            (i_stOptions.f64Seconds > 0 && objPassed.count() >= i_stOptions.f64Seconds)) {
            break;
        }
    }
    return pShow != nullptr && !i_stOptions.strLog.empty() ? std::optional(pShow->Previews())
                                                           : std::nullopt;
}

int Receive(const OPTIONS_S &i_stOptions)
{
    std::string strError;
    CStreamReceiver objReceiver(i_stOptions.strGroup, i_stOptions.s32Port,
                                i_stOptions.strInterface);
    if (!objReceiver.Start(&strError)) {
        fprintf(stderr, "sim-receive: cannot receive: %s\n", strError.c_str());
        return 1;
    }
    const Clock::time_point objStart = Clock::now();
    const std::optional<UInt64> objPreviews = Watch(i_stOptions, objStart, &objReceiver);

    const double f64Seconds = std::chrono::duration<double>(Clock::now() - objStart).count();
    const STREAM_STATS_S stStats = objReceiver.Stats();
    fputs((i_stOptions.bJson ? SummaryJson(stStats, f64Seconds)
                             : Summary(stStats, f64Seconds, objPreviews))
              .c_str(),
          stdout);
    fflush(stdout); /* in front of what goes to the standard error */
    bool bGood = stStats.u64Pictures > 0 && stStats.strError.empty();
    if (!i_stOptions.strPicture.empty()) {
        if (objReceiver.SavePicture(i_stOptions.strPicture, &strError)) {
            fprintf(stderr, "The last picture is in %s\n", i_stOptions.strPicture.c_str());
        } else {
            fprintf(stderr, "sim-receive: %s was not saved: %s\n", i_stOptions.strPicture.c_str(),
                    strError.c_str());
            bGood = false;
        }
    }
    objReceiver.Stop();
    return bGood ? 0 : 1;
}
} // namespace

int main(int argc, char **argv)
{
    OPTIONS_S stOptions;
    CLI::App objApp("Receives, decodes and measures the encoder's stream.", "sim-receive");
    AddOptions(&objApp, &stOptions);
    try {
        objApp.parse(argc, argv);
    } catch (const CLI::ParseError &objError) {
        return objApp.exit(objError) == 0 ? 0 : 2;
    }
    setlocale(LC_CTYPE, "");
    signal(SIGINT, HandleStop);
    signal(SIGTERM, HandleStop);
    gst_init(nullptr, nullptr);
    return stOptions.bCheck ? CheckElements() : Receive(stOptions);
}
