/*
 * The texts that sim-receive shows: the live screen, the line for a log, the summary.
 *
 * Pure functions of what was measured.
 */
#pragma once

#include <deque>
#include <optional>
#include <string>

#include "framework/types.h"
#include "sim/receive/daemon_view.h"
#include "sim/receive/stream.h"

/* What changed in the last measuring interval. */
struct RATES_S {
    double f64PacketsPerS = 0;
    double f64KbitPerS = 0;
    double f64PicturesPerS = 0;
    double f64CpuPercent = 0; /* of one processor */
};

struct SCREEN_S {
    double f64Seconds = 0; /* since the start */
    std::string strSource; /* group and port that are listened to */
    STREAM_STATS_S stStats;
    RATES_S stRates;
    std::deque<double> objKbitHistory;
    bool bHasDaemon = false;
    bool bHasLog = false;
    SInt32 s32Pid = 0;
    LOG_VIEW_S stLog;
    PROCESS_VIEW_S stProcess;
    std::string strSettings; /* as the control channel tells them; empty: it was not asked */
    UInt64 u64Previews = 0;  /* pictures seen published since the start */
    std::string strPreview;  /* the same in words, with size and age of the newest */
    std::string strHint;     /* a command, shown whole at the bottom */
};

RATES_S RatesBetween(const STREAM_STATS_S &i_stOld, const STREAM_STATS_S &i_stNew,
                     const PROCESS_VIEW_S &i_stOldProcess, const PROCESS_VIEW_S &i_stNewProcess,
                     double i_f64Seconds);

struct TERMINAL_S {
    size_t u64Columns = 80;
    size_t u64Rows = 24;
    bool bUtf8 = false; /* else the curve is drawn in ASCII */
};
/* What fits the terminal: what matters least is left out first, and long rows are cut but for the
 * hint, which goes on in the next row. Each row ends by clearing the rest of it. */
std::string ScreenText(const SCREEN_S &i_stScreen, const TERMINAL_S &i_stTerminal);
/* One line, for an output that is no terminal. */
std::string PlainLine(const SCREEN_S &i_stScreen);
/* For people, at the end; the previews are told of where they were looked at. */
std::string Summary(const STREAM_STATS_S &i_stStats, double i_f64Seconds,
                    std::optional<UInt64> i_objPreviews);
/* For programs, at the end: one JSON object. */
std::string SummaryJson(const STREAM_STATS_S &i_stStats, double i_f64Seconds);
