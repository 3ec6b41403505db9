/*
 * What the client tells.
 */
#include "tools/report.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <nlohmann/json.hpp>

namespace
{
using CJson = nlohmann::ordered_json;

const char *const kNotCarried =
    "the daemon reads the mode but does not pass it on; it stays as it is in the parameter file";
const char *const kNotApplied = ", but only kept: the preview comes at the rate of the stream";
const char *const kDroppedAlong =
    "another value is out of its range, and the daemon then drops the whole request";
const char *const kNotReported =
    "the daemon does not report it yet; it may be busy restarting a stream, so look again with "
    "'mv3300ctl get'";

CJson ToJson(const CFieldValue &i_xValue)
{
    return std::visit([](const auto &i_xPlain) { return CJson(i_xPlain); }, i_xValue);
}

/* Bytes of a received text that are no UTF-8 are replaced rather than thrown about. */
std::string Line(const CJson &i_objJson)
{
    return i_objJson.dump(-1, ' ', false, CJson::error_handler_t::replace) + "\n";
}

std::string Padded(const std::string &i_strText, std::size_t i_u64Width)
{
    return i_strText + std::string(i_u64Width - std::min(i_u64Width, i_strText.size()), ' ');
}

std::string Name(std::size_t i_u64Field)
{
    return Padded(STREAM_SETTINGS[i_u64Field].pName, 13);
}

std::string Arrow(std::size_t i_u64Field, const CFieldValue &i_xFrom, const CFieldValue &i_xTo)
{
    return FormatField(i_u64Field, i_xFrom) + " -> " + FormatField(i_u64Field, i_xTo);
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

std::string Seconds(std::chrono::milliseconds i_objTime)
{
    char szText[32];
    snprintf(szText, sizeof(szText), "%g s", static_cast<double>(i_objTime.count()) / 1000);
    return szText;
}

std::string Address(UInt16 i_u16Port)
{
    return "127.0.0.1:" + std::to_string(i_u16Port);
}
} // namespace

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

Bool IsSetPending(const CFieldValues &i_objAsked, const CFieldValues &i_objNow)
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

std::string FormatTable(const CFieldValues &i_objValues)
{
    std::string strTable;
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        if (!i_objValues[i]) {
            continue;
        }
        const std::string strUnit = FIELD_TEXTS[i].pUnit;
        const std::string strValue = FormatField(i, *i_objValues[i]);
        strTable += Name(i) + (strUnit.empty() ? strValue : Padded(strValue, 9) + strUnit) + "\n";
    }
    return strTable;
}

std::string FormatJson(const CFieldValues &i_objValues)
{
    CJson objJson = CJson::object();
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        if (i_objValues[i]) {
            objJson[STREAM_SETTINGS[i].pName] = ToJson(*i_objValues[i]);
        }
    }
    return Line(objJson);
}

std::string FormatSet(const std::vector<SET_RESULT_S> &i_objResults)
{
    std::string strText;
    for (const SET_RESULT_S &stResult : i_objResults) {
        const std::string strNow = FormatField(stResult.u64Field, stResult.xNow);
        strText += Name(stResult.u64Field);
        if (stResult.eOutcome == SetOutcome::Taken) {
            strText += Arrow(stResult.u64Field, stResult.xBefore, stResult.xNow) + "  taken" +
                       (stResult.u64Field == SETTING_REFRESHRATE ? kNotApplied : "") + "\n";
        } else if (stResult.eOutcome == SetOutcome::Already) {
            strText += strNow + "  already so\n";
        } else {
            strText += "stays " + strNow + "  " + OutcomeName(stResult.eOutcome) + ": " +
                       stResult.strReason + "\n";
        }
    }
    return strText;
}

std::string FormatSetJson(const std::vector<SET_RESULT_S> &i_objResults)
{
    CJson objFields = CJson::array();
    bool bOk = true;
    for (const SET_RESULT_S &stResult : i_objResults) {
        CJson objField = {{"field", STREAM_SETTINGS[stResult.u64Field].pName},
                          {"asked", ToJson(stResult.xAsked)},
                          {"before", ToJson(stResult.xBefore)},
                          {"now", ToJson(stResult.xNow)},
                          {"outcome", OutcomeName(stResult.eOutcome)}};
        if (!stResult.strReason.empty()) {
            objField["reason"] = stResult.strReason;
            bOk = false;
        }
        objFields.push_back(objField);
    }
    return Line({{"ok", bOk}, {"fields", objFields}});
}

std::string FormatChanges(const CFieldValues &i_objBefore, const CFieldValues &i_objNow)
{
    std::string strText;
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        if (i_objBefore[i] && i_objNow[i] && i_objBefore[i] != i_objNow[i]) {
            strText += Name(i) + Arrow(i, *i_objBefore[i], *i_objNow[i]) + "\n";
        }
    }
    return strText;
}

std::string FormatChangesJson(const std::string &i_strTime, const CFieldValues &i_objBefore,
                              const CFieldValues &i_objNow)
{
    CJson objChanges = CJson::object();
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        if (i_objNow[i] && i_objBefore[i] != i_objNow[i]) {
            objChanges[STREAM_SETTINGS[i].pName] = ToJson(*i_objNow[i]);
        }
    }
    return Line({{"time", i_strTime}, {"changes", objChanges}});
}

std::string ExplainFailure(const ANSWER_S &i_stAnswer, const CONTROL_ENDPOINT_S &i_stEndpoint,
                           std::chrono::milliseconds i_objTimeout,
                           const std::optional<SInt32> &i_objHolder)
{
    const std::string strProcess = i_objHolder
                                       ? "process " + std::to_string(*i_objHolder) + " holds "
                                       : "no process is seen to hold ";
    const std::string strLock = strProcess + i_stEndpoint.strPidFile;
    switch (i_stAnswer.eResult) {
    case AskResult::NotRunning:
        if (i_objHolder) {
            return "nobody listens on " + Address(i_stEndpoint.u16RequestPort) + ", but " +
                   strLock + ": the daemon is starting or stopping, or cannot have its port";
        }
        return "the daemon is not running: nobody listens on " +
               Address(i_stEndpoint.u16RequestPort) + " and " + strLock;
    case AskResult::ReplyPortTaken:
        return "the daemon cannot be asked: the reply port " + Address(i_stEndpoint.u16ReplyPort) +
               " is taken, most likely by another reader of the daemon's replies (a management "
               "front end, or another mv3300ctl that waits for one); 'ss -lunp' names it";
    case AskResult::NoAnswer: {
        std::string strText = "no answer within " + Seconds(i_objTimeout);
        if (i_stAnswer.bGarbled) {
            strText += ", only something that is not the reply";
        }
        return strText + (i_objHolder ? ": the daemon runs (" + strLock +
                                            ") but is busy or stuck; try a longer --timeout"
                                      : ": " + strLock + ", so something else may have the port");
    }
    default:
        return std::string("the system refused: ") + strerror(i_stAnswer.s32Error);
    }
}
