/*
 * announce.
 */
#include "tools/ctl_announce.h"

#include <cerrno>
#include <cstring>
#include <memory>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "guard/announce.h"
#include "guard/capture_query.h"
#include "guard/daemon_view.h"
#include "guard/files.h"
#include "guard/state.h"
#include "tools/guard_state.h"

namespace
{
constexpr std::size_t kLongestMemory = 4096;

struct OPTIONS_S {
    std::string strTiming;
    bool bNone = false;
    bool bQuery = false;
    bool bJson = false;
};

struct FOUND_S {
    std::optional<TIMING_S> stTiming;
    const char *pOrigin = "option";
    std::string strFact; /* where it comes from, or why there is none */
};

/* No link and no lock are an answer, too: there is no signal. */
FOUND_S AskDevice()
{
    const QUERY_S stQuery = QueryCapture();
    if (stQuery.eLink == Link::Unknown) {
        return {std::nullopt, "query", stQuery.strFact};
    }
    return {stQuery.stTiming, "query", stQuery.strFact};
}

/* What the guard would tell a new daemon: what was heard last, else what the device says. */
FOUND_S FindTiming()
{
    const auto strText = ReadFile(TIMING_FILE, kLongestMemory);
    const auto stHeard = strText ? ParseMemory(*strText) : std::nullopt;
    if (stHeard) {
        return {stHeard->stTiming, "file", std::string(TIMING_FILE) + " remembers it"};
    }
    FOUND_S stFound = AskDevice();
    if (!stFound.stTiming) {
        stFound.strFact = std::string(TIMING_FILE) + " remembers none, and " + stFound.strFact;
    }
    return stFound;
}

int Run(const CTL_CONTEXT_S &i_stContext, const OPTIONS_S &i_stOptions)
{
    FOUND_S stFound;
    if (!i_stOptions.strTiming.empty()) {
        stFound.stTiming = ParseTiming(i_stOptions.strTiming);
        if (!stFound.stTiming) {
            return i_stContext.Usage("give a timing such as 1920x1080@60-0");
        }
    } else if (i_stOptions.bNone) {
        stFound.stTiming = TIMING_S{};
    } else {
        stFound = i_stOptions.bQuery ? AskDevice() : FindTiming();
    }
    if (!stFound.stTiming) {
        return i_stContext.Fail(CTL_NOT_TAKEN, "nothing was announced: the timing of the input is "
                                               "not known; " +
                                                   stFound.strFact);
    }
    const auto objHolder = FindDaemon(i_stContext.stEndpoint.strPidFile);
    if (!objHolder) {
        return i_stContext.Fail(CTL_NO_ANSWER, "nothing was announced: the daemon is not running");
    }
    const int s32Error = TellDaemon(*objHolder, *stFound.stTiming);
    if (s32Error == ECONNREFUSED) {
        return i_stContext.Fail(CTL_NO_ANSWER, "nothing was announced: process " +
                                                   std::to_string(*objHolder) +
                                                   " does not listen for uevents");
    }
    if (s32Error != 0) {
        return i_stContext.Fail(CTL_SYSTEM_ERROR,
                                std::string("nothing was announced: ") + strerror(s32Error) +
                                    (s32Error == EPERM ? "; it takes root (CAP_NET_ADMIN)" : ""));
    }
    std::string strNoGuard;
    if (i_stOptions.bNone && !ReadGuardState(&strNoGuard).is_null()) {
        i_stContext.objErr
            << "mv3300ctl: the guard goes by the driver's word, and starts the stream "
               "again when it has been down for a while\n";
    }
    const std::string strTiming = TimingText(*stFound.stTiming);
    if (i_stOptions.bJson) {
        const nlohmann::ordered_json objResult = {{"timing", strTiming},
                                                  {"origin", stFound.pOrigin},
                                                  {"fact", stFound.strFact},
                                                  {"pid", *objHolder}};
        i_stContext.objOut << objResult.dump() << "\n";
    } else {
        i_stContext.objOut << "announced " << strTiming
                           << (stFound.stTiming->HasSignal() ? "" : " (no signal)")
                           << " to process " << *objHolder
                           << (stFound.strFact.empty() ? "" : ": " + stFound.strFact) << "\n";
    }
    return CTL_OK;
}
} // namespace

CRunCommand DescribeAnnounce(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext)
{
    const auto pOptions = std::make_shared<OPTIONS_S>();
    CLI::Option *pTiming =
        io_objApp.add_option("--timing", pOptions->strTiming, "This timing")->type_name("WxH@F-I");
    CLI::Option *pNone =
        io_objApp.add_flag("--none", pOptions->bNone, "The loss of the signal")->excludes(pTiming);
    io_objApp.add_flag("--query", pOptions->bQuery, "What the capture device says now")
        ->excludes(pTiming)
        ->excludes(pNone);
    AddJsonOption(io_objApp, pOptions->bJson);
    return [&i_stContext, pOptions] { return Run(i_stContext, *pOptions); };
}
