/*
 * A set with read-back.
 */
#include "tools/apply_settings.h"

#include <algorithm>
#include <thread>

namespace
{
using CClock = std::chrono::steady_clock;
using CMilliseconds = std::chrono::milliseconds;

constexpr CMilliseconds kReadBackPause(200);

const char *const kNotCarried =
    "the daemon reads the mode but does not pass it on; it stays as it is in the parameter file";
const char *const kDroppedAlong =
    "another value is out of its range, and the daemon then drops the whole request";
const char *const kNotReported =
    "the daemon does not report it yet; it may be busy restarting a stream, so look again with "
    "'mv3300ctl get'";

bool AreAllInRange(const CFieldValues &i_objAsked)
{
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        if (i_objAsked[i] && !IsInRange(i, *i_objAsked[i])) {
            return false;
        }
    }
    return true;
}

void Explain(SET_RESULT_S &io_stResult, bool i_bAllInRange)
{
    io_stResult.eOutcome = SetOutcome::Refused;
    if (io_stResult.u64Field == SETTING_MODE) {
        io_stResult.strReason = kNotCarried;
    } else if (!IsInRange(io_stResult.u64Field, io_stResult.xAsked)) {
        io_stResult.strReason = "the control channel takes " + FormatRange(io_stResult.u64Field);
    } else if (!i_bAllInRange) {
        io_stResult.strReason = kDroppedAlong;
    } else {
        io_stResult.eOutcome = SetOutcome::Missing;
        io_stResult.strReason = kNotReported;
    }
}

/* Of complete replies from before and after the request. */
std::vector<SET_RESULT_S> JudgeSet(const CFieldValues &i_objAsked, const CFieldValues &i_objBefore,
                                   const CFieldValues &i_objNow)
{
    const bool bAllInRange = AreAllInRange(i_objAsked);
    std::vector<SET_RESULT_S> objResults;
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        if (!i_objAsked[i]) {
            continue;
        }
        SET_RESULT_S stResult = {
            i, *i_objAsked[i], i_objBefore[i].value(), i_objNow[i].value(), SetOutcome::Taken, ""};
        /* The parameter file may have put in effect what is out of range here. */
        if (stResult.xNow != stResult.xAsked || !IsInRange(i, stResult.xAsked)) {
            Explain(stResult, bAllInRange);
        } else if (stResult.xBefore == stResult.xAsked) {
            stResult.eOutcome = SetOutcome::Already;
        }
        objResults.push_back(stResult);
    }
    return objResults;
}

/* Whether waiting longer can still change the outcome: every value is acceptable, and not all of
 * them are reported yet. */
bool IsSetPending(const CFieldValues &i_objAsked, const CFieldValues &i_objNow)
{
    if (!AreAllInRange(i_objAsked)) {
        return false;
    }
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        if (i_objAsked[i] && i != SETTING_MODE && i_objAsked[i] != i_objNow[i]) {
            return true;
        }
    }
    return false;
}
} // namespace

Bool APPLIED_S::IsDone() const
{
    return stAnswer.eResult == AskResult::Answered &&
           std::all_of(objResults.begin(), objResults.end(),
                       [](const SET_RESULT_S &i_stResult) { return i_stResult.strReason.empty(); });
}

APPLIED_S ApplySettings(const CONTROL_ENDPOINT_S &i_stEndpoint, const CFieldValues &i_objAsked,
                        CMilliseconds i_objTimeout)
{
    const auto objUntil = CClock::now() + i_objTimeout;
    APPLIED_S stApplied;
    ANSWER_S &stNow = stApplied.stAnswer;
    stNow = AskDaemon(i_stEndpoint, ASK_ALL, i_objAsked, i_objTimeout);
    stApplied.bSent = stNow.eResult == AskResult::Answered || stNow.eResult == AskResult::NoAnswer;
    const CFieldValues objBefore = stNow.objValues;
    if (stNow.eResult != AskResult::Answered) {
        return stApplied;
    }
    do {
        std::this_thread::sleep_for(kReadBackPause);
        const auto objLeft = std::chrono::duration_cast<CMilliseconds>(objUntil - CClock::now());
        stNow = AskDaemon(i_stEndpoint, ASK_ALL, {}, std::max(objLeft, kReadBackPause));
        if (stNow.eResult != AskResult::Answered) {
            return stApplied;
        }
    } while (IsSetPending(i_objAsked, stNow.objValues) && CClock::now() < objUntil);
    stApplied.objResults = JudgeSet(i_objAsked, objBefore, stNow.objValues);
    return stApplied;
}

const char *OutcomeName(SetOutcome i_eOutcome)
{
    switch (i_eOutcome) {
    case SetOutcome::Taken:
        return "taken";
    case SetOutcome::Already:
        return "already so";
    case SetOutcome::Refused:
        return "refused";
    default:
        return "not taken";
    }
}
