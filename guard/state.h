/*
 * The state file /run/mv3300/state.json: what the guard writes into it, and how others read it. Its
 * schema is described in mv3300-state(5).
 *
 * Pure functions, any thread. Times are seconds since the epoch.
 */
#pragma once

#include <deque>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "guard/condition.h"
#include "guard/stream_meter.h"

inline constexpr char STATE_FILE[] = "/run/mv3300/state.json";
inline constexpr char TIMING_FILE[] = "/run/mv3300/timing";
inline constexpr std::size_t STATE_EVENTS = 50;

struct PORT_FIGURES_S {
    UInt16 u16Port = 0;
    UInt64 u64Forwarded = 0;
    UInt64 u64Refused = 0; /* nobody listened */
    UInt64 u64Dropped = 0; /* the system had no room */
};

struct RELAY_FIGURES_S {
    PORT_FIGURES_S stPreview;
    std::vector<PORT_FIGURES_S> objAlso;
    UInt64 u64Thinned = 0;
    UInt64 u64NotRtp = 0;
    UInt64 u64Missed = 0;    /* came, and the system had no room for them */
    Bool bListening = false; /* the guard has the local copy's port */
    Bool bRefusing = false;  /* nobody listens on the preview's port */
    Bool bThinning = false;
    std::optional<double> f64Rate; /* pictures a second passed on to the preview */
};

struct EVENT_S {
    double f64Time = 0;
    const char *pKind = ""; /* "input", "daemon", "condition", "announce", "restart", ... */
    std::string strText;
};

struct DAEMON_FIGURES_S {
    std::optional<SInt32> s32Pid;
    std::optional<double> f64Uptime; /* s */
    std::optional<double> f64CpuPercent;
    std::optional<UInt64> u64Memory; /* bytes */
    std::optional<Bool> bAnswers;    /* to the last ask of this instance */
};

struct ACTS_S {
    UInt32 u32Announcements = 0;
    UInt32 u32Restarts = 0;
    UInt32 u32FailedRestarts = 0;
    double f64Backoff = 0; /* s, the pause after the next act */
    UInt32 u32Budget = 0;  /* an hour */
    UInt32 u32BudgetLeft = 0;
};

struct STATE_S {
    std::string strVersion;
    double f64Time = 0;
    Condition eCondition = Condition::NoDaemon;
    std::string strText;
    double f64Since = 0;
    std::optional<TIMING_S> stTiming;
    const char *pOrigin = "none"; /* "uevent", "query", "file" */
    std::optional<double> f64TimingTime;
    Link eLink = Link::Unknown;
    STREAM_FIGURES_S stStream;
    std::optional<double> f64PacketAge;
    std::optional<double> f64PreviewAge;
    std::optional<UInt64> u64PreviewBytes;
    RELAY_FIGURES_S stRelay;
    DAEMON_FIGURES_S stDaemon;
    std::optional<SETTINGS_S> stSettings;
    ACTS_S stActs;
    std::deque<EVENT_S> objEvents;
};

/* The file's text. */
std::string StateText(const STATE_S &i_stState);
/* The file's JSON, discarded if it is none. So is what lies deeper than anything that the guard
 * writes: to copy or print it takes a stack as deep. */
nlohmann::json ParseStateJson(const std::string &i_strText);
/* The file as a reader may rely on it: an object of schema 1 with every section in it and a
 * condition among the known words. Null if it is not, and o_strError says what is wrong in one
 * sentence. */
nlohmann::json ParseState(const std::string &i_strText, std::string *o_strError);
