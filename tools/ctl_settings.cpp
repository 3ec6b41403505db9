/*
 * get, set and watch.
 */
#include "tools/ctl_settings.h"

#include <algorithm>
#include <ctime>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>

#include "tools/apply_settings.h"
#include "tools/ctl_save.h"
#include "tools/report.h"

namespace
{
using CClock = std::chrono::steady_clock;
using CMilliseconds = std::chrono::milliseconds;

/* The daemon itself may wait 2.9 s before it answers, and a set may have to wait for two streams
 * that are still starting. */
constexpr CMilliseconds kAnswerTime(5000);
constexpr CMilliseconds kSetTime(25000);

struct OPTIONS_S {
    bool bJson = false;
    std::string strTimeout;
    std::vector<std::string> strFields;
    std::array<std::string, STREAM_SETTING_COUNT> strValues;
    bool bSave = false;
    std::string strInterval = "1s";
    std::string strFor;
};

CFieldValues Selected(const CFieldValues &i_objValues, const std::vector<std::string> &i_strFields)
{
    CFieldValues objSelected;
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        if (i_strFields.empty() ||
            std::count(i_strFields.begin(), i_strFields.end(), STREAM_SETTINGS[i].pName) > 0) {
            objSelected[i] = i_objValues[i];
        }
    }
    return objSelected;
}

int Get(const CTL_CONTEXT_S &i_stContext, const OPTIONS_S &i_stOptions)
{
    int s32Code = CTL_OK;
    const auto objValues = AskOrFail(
        i_stContext, ParseDuration(i_stOptions.strTimeout).value_or(kAnswerTime), s32Code);
    if (objValues) {
        const CFieldValues objShown = Selected(*objValues, i_stOptions.strFields);
        i_stContext.objOut << (i_stOptions.bJson ? FormatJson(objShown) : FormatTable(objShown));
    }
    return s32Code;
}

int Set(const CTL_CONTEXT_S &i_stContext, const OPTIONS_S &i_stOptions)
{
    const CMilliseconds objTimeout = ParseDuration(i_stOptions.strTimeout).value_or(kSetTime);
    CFieldValues objAsked;
    std::string strError = "give at least one value to set, such as --bitrate 2M";
    bool bAny = false;
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        if (i_stOptions.strValues[i].empty()) {
            continue;
        }
        objAsked[i] = ParseField(i, i_stOptions.strValues[i], strError);
        if (!objAsked[i]) {
            return i_stContext.Usage(strError);
        }
        bAny = true;
    }
    if (!bAny) {
        return i_stContext.Usage(strError);
    }
    const APPLIED_S stApplied = ApplySettings(i_stContext.stEndpoint, objAsked, objTimeout);
    if (stApplied.stAnswer.eResult != AskResult::Answered) {
        if (!stApplied.bSent) {
            return FailAnswer(i_stContext, stApplied.stAnswer, objTimeout);
        }
        i_stContext.Fail(CTL_NO_ANSWER, "the values were sent, but what became of them is unknown");
        /* The exit code of a taken reply port promises that nothing was sent. */
        const int s32Code = FailAnswer(i_stContext, stApplied.stAnswer, objTimeout);
        return s32Code == CTL_REPLY_PORT ? CTL_NO_ANSWER : s32Code;
    }
    i_stContext.objOut << (i_stOptions.bJson ? FormatSetJson(stApplied.objResults)
                                             : FormatSet(stApplied.objResults));
    if (!stApplied.IsDone()) {
        return i_stOptions.bSave ? i_stContext.Fail(CTL_NOT_TAKEN, "nothing was saved, since not "
                                                                   "every value is in effect")
                                 : CTL_NOT_TAKEN;
    }
    return i_stOptions.bSave ? SaveSettings(i_stContext, stApplied.stAnswer.objValues,
                                            SAVE_OPTIONS_S{.bJson = i_stOptions.bJson})
                             : CTL_OK;
}

void ShowChanges(std::ostream &io_objOut, const CFieldValues &i_objLast,
                 const CFieldValues &i_objNow, bool i_bJson)
{
    if (i_objLast == i_objNow) {
        return;
    }
    char szTime[32];
    const std::time_t s64Now = std::time(nullptr);
    std::tm stLocal = {};
    localtime_r(&s64Now, &stLocal);
    if (i_bJson) {
        std::strftime(szTime, sizeof(szTime), "%Y-%m-%dT%H:%M:%S%z", &stLocal);
        io_objOut << FormatChangesJson(szTime, i_objLast, i_objNow) << std::flush;
        return;
    }
    std::strftime(szTime, sizeof(szTime), "%H:%M:%S", &stLocal);
    std::istringstream objLines(i_objLast[SETTING_H264] ? FormatChanges(i_objLast, i_objNow)
                                                        : FormatTable(i_objNow));
    for (std::string strLine; std::getline(objLines, strLine);) {
        io_objOut << szTime << "  " << strLine << "\n";
    }
    io_objOut << std::flush;
}

int Watch(const CTL_CONTEXT_S &i_stContext, const OPTIONS_S &i_stOptions)
{
    const CMilliseconds objTimeout = ParseDuration(i_stOptions.strTimeout).value_or(kAnswerTime);
    const CMilliseconds objInterval = ParseDuration(i_stOptions.strInterval).value();
    const auto objFor = ParseDuration(i_stOptions.strFor);
    const auto objEnd = objFor ? CClock::now() + *objFor : CClock::time_point::max();
    CFieldValues objLast;
    AskResult eLast = AskResult::Answered;
    int s32Result = CTL_OK;
    while (true) {
        const ANSWER_S stAnswer = AskDaemon(i_stContext.stEndpoint, ASK_ALL, {}, objTimeout);
        const bool bAnswered = stAnswer.eResult == AskResult::Answered;
        if (!bAnswered && !objLast[SETTING_H264]) {
            return FailAnswer(i_stContext, stAnswer, objTimeout);
        }
        if (bAnswered) {
            if (eLast != AskResult::Answered) {
                i_stContext.objErr << "mv3300ctl: the daemon answers again\n" << std::flush;
            }
            ShowChanges(i_stContext.objOut, objLast, stAnswer.objValues, i_stOptions.bJson);
            objLast = stAnswer.objValues;
            s32Result = CTL_OK;
        } else if (stAnswer.eResult != eLast) {
            s32Result = FailAnswer(i_stContext, stAnswer, objTimeout);
        }
        eLast = stAnswer.eResult;
        const auto objNow = CClock::now();
        if (!i_stContext.objOut || objNow >= objEnd) {
            return s32Result;
        }
        std::this_thread::sleep_until(std::min(objNow + objInterval, objEnd));
    }
}

/* The command's options with what all three have, bound to the function that runs it. */
CRunCommand Bind(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext,
                 const std::shared_ptr<OPTIONS_S> &i_pOptions, const char *i_pDefaultTime,
                 int (*i_pRun)(const CTL_CONTEXT_S &, const OPTIONS_S &))
{
    AddJsonOption(io_objApp, i_pOptions->bJson);
    AddTimeOption(io_objApp, "--timeout", i_pOptions->strTimeout,
                  "How long to wait, such as 500ms or 3s (default " + std::string(i_pDefaultTime) +
                      ")");
    return [&i_stContext, i_pOptions, i_pRun] { return i_pRun(i_stContext, *i_pOptions); };
}
} // namespace

CRunCommand DescribeGet(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext)
{
    const auto pOptions = std::make_shared<OPTIONS_S>();
    std::vector<std::string> strNames;
    strNames.reserve(STREAM_SETTING_COUNT);
    for (const STREAM_SETTING_S &stSetting : STREAM_SETTINGS) {
        strNames.emplace_back(stSetting.pName);
    }
    io_objApp.add_option("FIELD", pOptions->strFields, "Only these settings")
        ->check(CLI::IsMember(strNames));
    return Bind(io_objApp, i_stContext, pOptions, "5s", Get);
}

CRunCommand DescribeSet(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext)
{
    const auto pOptions = std::make_shared<OPTIONS_S>();
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        const STREAM_SETTING_S &stSetting = STREAM_SETTINGS[i];
        std::string strHelp = FIELD_TEXTS[i].pHelp;
        if (stSetting.eKind == SettingKind::Number) {
            strHelp += ", " + FormatRange(i);
        }
        io_objApp.add_option("--" + std::string(stSetting.pName), pOptions->strValues[i], strHelp)
            ->type_name("VALUE")
            ->check([](const std::string &i_strText) {
                return i_strText.empty() ? std::string("a value is missing") : std::string();
            });
    }
    io_objApp.add_flag("--save", pOptions->bSave,
                       "Write the settings into the parameter file when all of them are in effect");
    return Bind(io_objApp, i_stContext, pOptions, "25s", Set);
}

CRunCommand DescribeWatch(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext)
{
    const auto pOptions = std::make_shared<OPTIONS_S>();
    AddTimeOption(io_objApp, "--interval", pOptions->strInterval, "Polling interval (default 1s)");
    AddTimeOption(io_objApp, "--for", pOptions->strFor, "End after this time (default: never)");
    return Bind(io_objApp, i_stContext, pOptions, "5s", Watch);
}
