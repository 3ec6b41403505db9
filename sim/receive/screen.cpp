/*
 * Lays out what sim-receive measured.
 */
#include "sim/receive/screen.h"

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <vector>

#include <unistd.h>

#include <nlohmann/json.hpp>

namespace
{
__attribute__((format(printf, 1, 2))) std::string Format(const char *i_pFormat, ...)
{
    char szText[512];
    va_list stArgs;
    va_start(stArgs, i_pFormat);
    vsnprintf(szText, sizeof(szText), i_pFormat, stArgs);
    va_end(stArgs);
    return szText;
}

double KbitPerS(const STREAM_STATS_S &i_stStats)
{
    const auto f64Us = static_cast<double>(i_stStats.s64LastPacketUs - i_stStats.s64FirstPacketUs);
    return f64Us <= 0 ? 0 : static_cast<double>(i_stStats.stRtp.u64Bytes) * 8 * 1000 / f64Us;
}

double PacketsPerS(const STREAM_STATS_S &i_stStats)
{
    const auto f64Us = static_cast<double>(i_stStats.s64LastPacketUs - i_stStats.s64FirstPacketUs);
    return f64Us <= 0 ? 0 : static_cast<double>(i_stStats.stRtp.u64Packets) * 1e6 / f64Us;
}

/* One character per interval, the newest ones, the highest as high as the line. */
std::string Curve(const std::deque<double> &i_objValues, const TERMINAL_S &i_stTerminal)
{
    static const char *const kBlocks[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    static const char *const kAscii[] = {"_", ".", "-", ":", "=", "+", "*", "#"};
    std::string strCurve;
    if (i_objValues.empty()) {
        return strCurve;
    }
    const double f64Highest =
        std::max(1.0, *std::max_element(i_objValues.begin(), i_objValues.end()));
    const size_t u64Room = std::max<size_t>(i_stTerminal.u64Columns, 17) - 16;
    const size_t u64Shown = std::min(u64Room, i_objValues.size());
    for (auto it = i_objValues.end() - static_cast<SInt64>(u64Shown); it != i_objValues.end();
         ++it) {
        strCurve += (i_stTerminal.bUtf8 ? kBlocks
                                        : kAscii)[static_cast<size_t>(*it / f64Highest * 7 + 0.5)];
    }
    return strCurve;
}

std::string PictureText(const SCREEN_S &i_stScreen)
{
    if (i_stScreen.stStats.objRuns.empty()) {
        return "none decoded yet";
    }
    const PICTURE_RUN_S &stRun = i_stScreen.stStats.objRuns.back();
    return Format("%dx%d, %.1f pictures/s decoded", stRun.s32Width, stRun.s32Height,
                  i_stScreen.stRates.f64PicturesPerS);
}

std::string GopText(UInt32 i_u32Gop)
{
    return i_u32Gop == 0 ? "not known yet" : Format("%u pictures", i_u32Gop);
}

std::string GapText(const RTP_COUNTS_S &i_stRtp)
{
    return Format("%" PRIu64 " of %" PRIu64 " packets missing, %" PRIu64 " late", i_stRtp.u64Lost,
                  i_stRtp.u64Packets + i_stRtp.u64Lost, i_stRtp.u64Late);
}

std::string DaemonText(const SCREEN_S &i_stScreen)
{
    if (!i_stScreen.stProcess.bRuns) {
        return Format("process %d has ended", i_stScreen.s32Pid);
    }
    return Format("%.0f %% CPU, %.1f MB, %" PRIu64 " threads, process %d",
                  i_stScreen.stRates.f64CpuPercent,
                  static_cast<double>(i_stScreen.stProcess.u64MemoryKb) / 1024,
                  i_stScreen.stProcess.u64Threads, i_stScreen.s32Pid);
}

std::string TimingText(const LOG_VIEW_S &i_stLog)
{
    return i_stLog.strTiming.empty() ? "none reported yet" : i_stLog.strTiming;
}

/* What is seen on the wire, and where nothing is, why. */
std::string StreamText(const SCREEN_S &i_stScreen)
{
    const LOG_VIEW_S &stLog = i_stScreen.stLog;
    if (i_stScreen.stRates.f64PacketsPerS > 0) {
        return "running";
    }
    if (i_stScreen.bHasDaemon && !i_stScreen.stProcess.bRuns) {
        return "gone with the daemon";
    }
    if (!stLog.bPictures) {
        return "waits for an input";
    }
    if (i_stScreen.strSettings.rfind("off", 0) == 0) {
        return "switched off";
    }
    return stLog.strFailure.empty() ? "no packets" : stLog.strFailure;
}

/* Rows by importance: those of rank 0 always stay. */
class CRows
{
public:
    void Add(int i_s32Rank, const std::string &i_strText)
    {
        m_objRows.push_back({i_s32Rank, Kind::Plain, i_strText});
    }
    void Title(int i_s32Rank, const std::string &i_strText)
    {
        m_objRows.push_back({i_s32Rank, Kind::Title, i_strText});
    }
    void Whole(const std::string &i_strText) { m_objRows.push_back({0, Kind::Whole, i_strText}); }

    std::string Fit(const TERMINAL_S &i_stTerminal)
    {
        Leave(i_stTerminal);
        std::string strText;
        for (const ROW_S &stRow : m_objRows) {
            strText += strText.empty() ? "" : "\r\n";
            strText += stRow.eKind == Kind::Title ? "\033[1m" : "";
            strText += stRow.eKind == Kind::Whole ? stRow.strText
                                                  : Cut(stRow.strText, i_stTerminal.u64Columns);
            strText += stRow.eKind == Kind::Title ? "\033[0m" : "";
            /* In the last column it would take the character there away. */
            strText += Width(stRow.strText) % i_stTerminal.u64Columns == 0 && !stRow.strText.empty()
                           ? ""
                           : "\033[K";
        }
        return strText;
    }

private:
    enum class Kind { Plain, Title, Whole };
    struct ROW_S {
        int s32Rank;
        Kind eKind;
        std::string strText;
    };

    static bool StartsCharacter(char i_cByte) { return (i_cByte & 0xC0) != 0x80; }
    static size_t Width(const std::string &i_strText)
    {
        return static_cast<size_t>(
            std::count_if(i_strText.begin(), i_strText.end(), StartsCharacter));
    }
    static std::string Cut(const std::string &i_strText, size_t i_u64Columns)
    {
        size_t u64Shown = 0;
        const auto itEnd = std::find_if(i_strText.begin(), i_strText.end(), [&](char i_cByte) {
            return StartsCharacter(i_cByte) && u64Shown++ == i_u64Columns;
        });
        return std::string(i_strText.begin(), itEnd);
    }
    size_t Height(size_t i_u64Columns) const
    {
        size_t u64Height = 0;
        for (const ROW_S &stRow : m_objRows) {
            u64Height += stRow.eKind == Kind::Whole
                             ? (Width(stRow.strText) + i_u64Columns - 1) / i_u64Columns
                             : 1;
        }
        return u64Height;
    }
    /* Of rows of one rank the first goes first: in the log that is the oldest. */
    void Leave(const TERMINAL_S &i_stTerminal)
    {
        while (Height(i_stTerminal.u64Columns) > i_stTerminal.u64Rows) {
            const auto itLeast = std::max_element(m_objRows.begin(), m_objRows.end(),
                                                  [](const ROW_S &i_stA, const ROW_S &i_stB) {
                                                      return i_stA.s32Rank < i_stB.s32Rank;
                                                  });
            if (itLeast == m_objRows.end() || itLeast->s32Rank == 0) {
                return;
            }
            m_objRows.erase(itLeast);
        }
    }

    std::vector<ROW_S> m_objRows;
};

void AddReceivers(const std::string &i_strList, CRows *o_pRows)
{
    const char *pLabel = "  Receivers     ";
    int s32Rank = 5;
    for (size_t u64Begin = 0; u64Begin < i_strList.size();) {
        const size_t u64End = std::min(i_strList.find(',', u64Begin), i_strList.size());
        const std::string strOne = i_strList.substr(u64Begin, u64End - u64Begin);
        o_pRows->Add(s32Rank,
                     pLabel + strOne +
                         (strOne == "127.0.0.1:12350" ? "  (the preview's own copy)" : ""));
        pLabel = "                ";
        s32Rank = 7;
        u64Begin = u64End + 1;
    }
    if (i_strList.empty()) {
        o_pRows->Add(s32Rank, std::string(pLabel) + "none yet");
    }
}

void AddDaemon(const SCREEN_S &i_stScreen, CRows *o_pRows)
{
    o_pRows->Title(6, "THE DAEMON");
    o_pRows->Add(3, "  Process       " + DaemonText(i_stScreen));
    if (i_stScreen.bHasLog) {
        o_pRows->Add(1, "  HDMI input    " + TimingText(i_stScreen.stLog));
        o_pRows->Add(1, "  H.264 stream  " + StreamText(i_stScreen));
        if (!i_stScreen.strSettings.empty()) {
            o_pRows->Add(4, "  Settings      " + i_stScreen.strSettings);
        }
        o_pRows->Add(2, "  Preview       " + i_stScreen.strPreview);
        AddReceivers(i_stScreen.stLog.strReceivers, o_pRows);
    }
    o_pRows->Add(9, "");
}
} // namespace

RATES_S RatesBetween(const STREAM_STATS_S &i_stOld, const STREAM_STATS_S &i_stNew,
                     const PROCESS_VIEW_S &i_stOldProcess, const PROCESS_VIEW_S &i_stNewProcess,
                     double i_f64Seconds)
{
    RATES_S stRates;
    if (i_f64Seconds <= 0) {
        return stRates;
    }
    stRates.f64PacketsPerS =
        static_cast<double>(i_stNew.stRtp.u64Packets - i_stOld.stRtp.u64Packets) / i_f64Seconds;
    stRates.f64KbitPerS = static_cast<double>(i_stNew.stRtp.u64Bytes - i_stOld.stRtp.u64Bytes) * 8 /
                          1000 / i_f64Seconds;
    stRates.f64PicturesPerS =
        static_cast<double>(i_stNew.u64Pictures - i_stOld.u64Pictures) / i_f64Seconds;
    if (i_stNewProcess.u64CpuTicks >= i_stOldProcess.u64CpuTicks) {
        stRates.f64CpuPercent =
            static_cast<double>(i_stNewProcess.u64CpuTicks - i_stOldProcess.u64CpuTicks) * 100 /
            static_cast<double>(sysconf(_SC_CLK_TCK)) / i_f64Seconds;
    }
    return stRates;
}

std::string ScreenText(const SCREEN_S &i_stScreen, const TERMINAL_S &i_stTerminal)
{
    CRows objRows;
    const STREAM_STATS_S &stStats = i_stScreen.stStats;
    objRows.Title(0, Format("mv3300d bench, %.0f s  (Ctrl-C ends)", i_stScreen.f64Seconds));
    objRows.Add(9, "");
    if (i_stScreen.bHasDaemon) {
        AddDaemon(i_stScreen, &objRows);
    }
    objRows.Title(4, "WHAT A RECEIVER SEES of " + i_stScreen.strSource);
    objRows.Add(3, Format("  Packets       %.0f /s", i_stScreen.stRates.f64PacketsPerS));
    objRows.Add(1, Format("  Bit rate      %.0f kbit/s", i_stScreen.stRates.f64KbitPerS));
    objRows.Add(6, "                " + Curve(i_stScreen.objKbitHistory, i_stTerminal));
    objRows.Add(0, "  Picture       " + PictureText(i_stScreen));
    objRows.Add(4, "  GOP           " + GopText(stStats.u32Gop));
    objRows.Add(2, "  Gaps          " + GapText(stStats.stRtp));
    objRows.Add(5,
                Format("  Restarts      %" PRIu64,
                       stStats.stRtp.u64Sessions - std::min<UInt64>(1, stStats.stRtp.u64Sessions)));
    if (!stStats.strError.empty()) {
        objRows.Add(0, "  Stopped:      " + stStats.strError);
    }
    if (i_stScreen.bHasLog) {
        objRows.Add(9, "");
        objRows.Title(8, "THE LOG");
        for (const std::string &strLine : i_stScreen.stLog.objLatest) {
            objRows.Add(8, "  " + strLine);
        }
    }
    if (!i_stScreen.strHint.empty()) {
        objRows.Add(9, "");
        objRows.Add(1, "From another terminal:");
        objRows.Whole(i_stScreen.strHint);
    }
    return "\033[H" + objRows.Fit(i_stTerminal) + "\033[J";
}

std::string PlainLine(const SCREEN_S &i_stScreen)
{
    const STREAM_STATS_S &stStats = i_stScreen.stStats;
    std::string strLine = Format("%5.1f s: ", i_stScreen.f64Seconds);
    if (i_stScreen.bHasLog) {
        strLine +=
            "input " + TimingText(i_stScreen.stLog) + "; stream " + StreamText(i_stScreen) + "; ";
    }
    strLine += Format("%.0f packets/s, %.0f kbit/s, ", i_stScreen.stRates.f64PacketsPerS,
                      i_stScreen.stRates.f64KbitPerS) +
               PictureText(i_stScreen) +
               Format(", %" PRIu64 " packets missing", stStats.stRtp.u64Lost);
    if (i_stScreen.bHasLog) {
        strLine += Format(", %" PRIu64 " previews", i_stScreen.u64Previews);
    }
    if (i_stScreen.bHasDaemon) {
        strLine += Format("; daemon %.0f %% CPU, %.1f MB", i_stScreen.stRates.f64CpuPercent,
                          static_cast<double>(i_stScreen.stProcess.u64MemoryKb) / 1024);
    }
    return strLine;
}

std::string Summary(const STREAM_STATS_S &i_stStats, double i_f64Seconds,
                    std::optional<UInt64> i_objPreviews)
{
    std::string strText =
        Format("In %.1f s: %" PRIu64 " packets", i_f64Seconds, i_stStats.stRtp.u64Packets);
    /* Of less than a second a rate says nothing: a stream begins with a burst. */
    if (i_stStats.s64LastPacketUs - i_stStats.s64FirstPacketUs >= 1000000) {
        strText += Format(" (%.0f /s, %.0f kbit/s)", PacketsPerS(i_stStats), KbitPerS(i_stStats));
    }
    strText += ", " + GapText(i_stStats.stRtp) + "\n";
    for (const PICTURE_RUN_S &stRun : i_stStats.objRuns) {
        strText += Format("%" PRIu64 " pictures of %dx%d decoded, %.1f pictures/s\n",
                          stRun.u64Pictures, stRun.s32Width, stRun.s32Height, stRun.Rate());
    }
    if (i_stStats.objRuns.empty()) {
        strText += "No picture was decoded\n";
    }
    if (i_objPreviews) {
        strText += Format("%" PRIu64 " preview pictures published\n", *i_objPreviews);
    }
    if (!i_stStats.strError.empty()) {
        strText += "The receiver stopped: " + i_stStats.strError + "\n";
    }
    return strText;
}

std::string SummaryJson(const STREAM_STATS_S &i_stStats, double i_f64Seconds)
{
    const PICTURE_RUN_S stLast =
        i_stStats.objRuns.empty() ? PICTURE_RUN_S() : i_stStats.objRuns.back();
    nlohmann::ordered_json objJson = {
        {"seconds", i_f64Seconds},
        {"packets", i_stStats.stRtp.u64Packets},
        {"bytes", i_stStats.stRtp.u64Bytes},
        {"packets_per_s", PacketsPerS(i_stStats)},
        {"kbit_per_s", KbitPerS(i_stStats)},
        {"lost", i_stStats.stRtp.u64Lost},
        {"late", i_stStats.stRtp.u64Late},
        {"malformed", i_stStats.stRtp.u64Malformed},
        {"sessions", i_stStats.stRtp.u64Sessions},
        {"pictures", i_stStats.u64Pictures},
        {"width", stLast.s32Width},
        {"height", stLast.s32Height},
        {"rate", stLast.Rate()},
        {"gop", i_stStats.u32Gop},
        {"runs", nlohmann::ordered_json::array()},
        {"error", i_stStats.strError},
    };
    for (const PICTURE_RUN_S &stRun : i_stStats.objRuns) {
        objJson["runs"].push_back({{"width", stRun.s32Width},
                                   {"height", stRun.s32Height},
                                   {"pictures", stRun.u64Pictures},
                                   {"rate", stRun.Rate()}});
    }
    return objJson.dump(2) + "\n";
}
