/*
 * Lays out what sim-receive measured.
 */
#include "sim/receive/screen.h"

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>

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

/* One block per interval, the highest as high as the line. */
std::string Curve(const std::deque<double> &i_objValues)
{
    static const char *const kBlocks[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    std::string strCurve;
    if (i_objValues.empty()) {
        return strCurve;
    }
    const double f64Highest =
        std::max(1.0, *std::max_element(i_objValues.begin(), i_objValues.end()));
    for (const double f64Value : i_objValues) {
        strCurve += kBlocks[static_cast<size_t>(f64Value / f64Highest * 7 + 0.5)];
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
    return Format("process %d, CPU %.0f %% of one processor, memory %.1f MB, %" PRIu64 " threads",
                  i_stScreen.s32Pid, i_stScreen.stRates.f64CpuPercent,
                  static_cast<double>(i_stScreen.stProcess.u64MemoryKb) / 1024,
                  i_stScreen.stProcess.u64Threads);
}

/* Rows of a terminal: plain text is cut at the columns, so that no line wraps. */
class CRows
{
public:
    explicit CRows(size_t i_u64Columns) : m_u64Columns(i_u64Columns) {}

    void Add(const std::string &i_strText)
    {
        size_t u64Bytes = 0;
        size_t u64Shown = 0;
        while (u64Bytes < i_strText.size()) {
            const bool bStarts = (i_strText[u64Bytes] & 0xC0) != 0x80;
            if (bStarts && u64Shown++ == m_u64Columns) {
                break;
            }
            u64Bytes++;
        }
        m_strText += i_strText.substr(0, u64Bytes) + "\033[K\r\n";
    }
    void Title(const std::string &i_strText)
    {
        m_strText += "\033[1m";
        Add(i_strText);
        m_strText += "\033[0m";
    }
    void Lines(const std::string &i_strText)
    {
        for (size_t u64Begin = 0; u64Begin < i_strText.size();) {
            const size_t u64End = std::min(i_strText.find('\n', u64Begin), i_strText.size());
            Add(i_strText.substr(u64Begin, u64End - u64Begin));
            u64Begin = u64End + 1;
        }
    }
    const std::string &Text() const { return m_strText; }

private:
    size_t m_u64Columns;
    std::string m_strText;
};

void AddReceivers(const std::string &i_strList, CRows *o_pRows)
{
    const char *pLabel = "  Receivers     ";
    for (size_t u64Begin = 0; u64Begin < i_strList.size();) {
        const size_t u64End = std::min(i_strList.find(',', u64Begin), i_strList.size());
        const std::string strOne = i_strList.substr(u64Begin, u64End - u64Begin);
        o_pRows->Add(pLabel + strOne +
                     (strOne == "127.0.0.1:12350" ? "  (the preview's own copy)" : ""));
        pLabel = "                ";
        u64Begin = u64End + 1;
    }
    if (i_strList.empty()) {
        o_pRows->Add(std::string(pLabel) + "none yet");
    }
}

void AddDaemon(const SCREEN_S &i_stScreen, CRows *o_pRows)
{
    o_pRows->Title("THE DAEMON");
    o_pRows->Add("  " + DaemonText(i_stScreen));
    if (i_stScreen.bHasLog) {
        o_pRows->Add("  HDMI input    " + i_stScreen.stLog.strTiming);
        o_pRows->Add("  H.264 stream  " + i_stScreen.stLog.strStream);
        o_pRows->Add("  Preview       " + i_stScreen.stLog.strPreview + "; " +
                     i_stScreen.strPreview);
        AddReceivers(i_stScreen.stLog.strReceivers, o_pRows);
    }
    o_pRows->Add("");
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

std::string ScreenText(const SCREEN_S &i_stScreen, size_t i_u64Columns)
{
    CRows objRows(i_u64Columns);
    const STREAM_STATS_S &stStats = i_stScreen.stStats;
    objRows.Title(Format("mv3300d on the bench, %.0f s   (Ctrl-C ends)", i_stScreen.f64Seconds));
    objRows.Add("");
    if (i_stScreen.bHasDaemon) {
        AddDaemon(i_stScreen, &objRows);
    }
    objRows.Title("WHAT A RECEIVER SEES of " + i_stScreen.strSource);
    objRows.Add(Format("  Packets       %.0f /s", i_stScreen.stRates.f64PacketsPerS));
    objRows.Add(Format("  Bit rate      %.0f kbit/s", i_stScreen.stRates.f64KbitPerS));
    objRows.Add("                " + Curve(i_stScreen.objKbitHistory));
    objRows.Add("  Picture       " + PictureText(i_stScreen));
    objRows.Add("  GOP           " + GopText(stStats.u32Gop));
    objRows.Add("  Gaps          " + GapText(stStats.stRtp));
    objRows.Add(Format("  Restarts      %" PRIu64,
                       stStats.stRtp.u64Sessions - std::min<UInt64>(1, stStats.stRtp.u64Sessions)));
    if (!stStats.strError.empty()) {
        objRows.Add("  Stopped:      " + stStats.strError);
    }
    if (i_stScreen.bHasLog) {
        objRows.Add("");
        objRows.Title("THE LOG");
        for (const std::string &strLine : i_stScreen.stLog.objLatest) {
            objRows.Add("  " + strLine);
        }
    }
    if (!i_stScreen.strHint.empty()) {
        objRows.Add("");
        objRows.Lines(i_stScreen.strHint);
    }
    return "\033[H" + objRows.Text() + "\033[J";
}

std::string PlainLine(const SCREEN_S &i_stScreen)
{
    const STREAM_STATS_S &stStats = i_stScreen.stStats;
    std::string strLine = Format("%5.1f s: ", i_stScreen.f64Seconds);
    if (i_stScreen.bHasLog) {
        strLine +=
            "input " + i_stScreen.stLog.strTiming + "; stream " + i_stScreen.stLog.strStream + "; ";
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
        Format("In %.1f s: %" PRIu64 " packets (%.0f /s, %.0f kbit/s), ", i_f64Seconds,
               i_stStats.stRtp.u64Packets, PacketsPerS(i_stStats), KbitPerS(i_stStats)) +
        GapText(i_stStats.stRtp) + "\n";
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
