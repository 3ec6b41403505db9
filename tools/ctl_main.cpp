/*
 * The control client's commands.
 */
#include "tools/ctl_main.h"

#include <algorithm>
#include <ctime>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>

#include "tools/report.h"

namespace
{
using CClock = std::chrono::steady_clock;
using CMilliseconds = std::chrono::milliseconds;

struct OPTIONS_S {
    bool bJson = false;
    std::string strTimeout;
    std::vector<std::string> strFields;
    std::array<std::string, STREAM_SETTING_COUNT> strValues;
    std::string strInterval = "1s";
    std::string strFor;
};

class CCtl
{
public:
    CCtl(const CONTROL_ENDPOINT_S &i_stEndpoint, CMilliseconds i_objTimeout,
         std::ostream &io_objOut, std::ostream &io_objErr)
        : m_stEndpoint(i_stEndpoint), m_objOut(io_objOut), m_objErr(io_objErr),
          m_objTimeout(i_objTimeout)
    {
    }

    int Get(const OPTIONS_S &i_stOptions)
    {
        const ANSWER_S stAnswer = Ask();
        if (stAnswer.eResult != AskResult::Answered) {
            return Fail(stAnswer);
        }
        const CFieldValues objShown = Selected(stAnswer.objValues, i_stOptions.strFields);
        m_objOut << (i_stOptions.bJson ? FormatJson(objShown) : FormatTable(objShown));
        return CTL_OK;
    }

    int Set(const OPTIONS_S &i_stOptions)
    {
        CFieldValues objAsked;
        std::string strError = "give at least one value to set, such as --bitrate 2M";
        bool bAny = false;
        for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
            if (i_stOptions.strValues[i].empty()) {
                continue;
            }
            objAsked[i] = ParseField(i, i_stOptions.strValues[i], strError);
            if (!objAsked[i]) {
                return Usage(strError);
            }
            bAny = true;
        }
        if (!bAny) {
            return Usage(strError);
        }
        return SendSet(objAsked, i_stOptions.bJson);
    }

    int Watch(const OPTIONS_S &i_stOptions)
    {
        const CMilliseconds objInterval = ParseDuration(i_stOptions.strInterval).value();
        const auto objFor = ParseDuration(i_stOptions.strFor);
        const auto objEnd = objFor ? CClock::now() + *objFor : CClock::time_point::max();
        CFieldValues objLast;
        AskResult eLast = AskResult::Answered;
        int s32Result = CTL_OK;
        while (true) {
            const ANSWER_S stAnswer = Ask();
            const bool bAnswered = stAnswer.eResult == AskResult::Answered;
            if (!bAnswered && !objLast[SETTING_H264]) {
                return Fail(stAnswer);
            }
            if (bAnswered) {
                if (eLast != AskResult::Answered) {
                    m_objErr << "mv3300ctl: the daemon answers again\n" << std::flush;
                }
                ShowChanges(objLast, stAnswer.objValues, i_stOptions.bJson);
                objLast = stAnswer.objValues;
                s32Result = CTL_OK;
            } else if (stAnswer.eResult != eLast) {
                s32Result = Fail(stAnswer);
            }
            eLast = stAnswer.eResult;
            const auto objNow = CClock::now();
            if (!m_objOut || objNow >= objEnd) {
                return s32Result;
            }
            std::this_thread::sleep_until(std::min(objNow + objInterval, objEnd));
        }
    }

private:
    int Usage(const std::string &i_strError)
    {
        m_objErr << "mv3300ctl: " << i_strError << "\nTry 'mv3300ctl --help'.\n";
        return CTL_USAGE;
    }

    ANSWER_S Ask() const { return AskDaemon(m_stEndpoint, ASK_ALL, {}, m_objTimeout); }

    int Fail(const ANSWER_S &i_stAnswer)
    {
        const std::optional<SInt32> objHolder = FindDaemon(m_stEndpoint.strPidFile);
        m_objErr << "mv3300ctl: "
                 << ExplainFailure(i_stAnswer, m_stEndpoint, m_objTimeout, objHolder) << ".\n"
                 << std::flush;
        switch (i_stAnswer.eResult) {
        case AskResult::ReplyPortTaken:
            return CTL_REPLY_PORT;
        case AskResult::SystemError:
            return CTL_SYSTEM_ERROR;
        default:
            return CTL_NO_ANSWER;
        }
    }

    /* The exit code of a taken reply port promises that nothing was sent. */
    int FailSent(const ANSWER_S &i_stAnswer)
    {
        m_objErr << "mv3300ctl: the values were sent, but what became of them is unknown\n";
        const int s32Result = Fail(i_stAnswer);
        return s32Result == CTL_REPLY_PORT ? CTL_NO_ANSWER : s32Result;
    }

    static CFieldValues Selected(const CFieldValues &i_objValues,
                                 const std::vector<std::string> &i_strFields)
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

    int SendSet(const CFieldValues &i_objAsked, bool i_bJson)
    {
        const APPLIED_S stApplied = ApplySettings(m_stEndpoint, i_objAsked, m_objTimeout);
        if (stApplied.stAnswer.eResult != AskResult::Answered) {
            return stApplied.bSent ? FailSent(stApplied.stAnswer) : Fail(stApplied.stAnswer);
        }
        m_objOut << (i_bJson ? FormatSetJson(stApplied.objResults)
                             : FormatSet(stApplied.objResults));
        return stApplied.IsDone() ? CTL_OK : CTL_NOT_TAKEN;
    }

    void ShowChanges(const CFieldValues &i_objLast, const CFieldValues &i_objNow, bool i_bJson)
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
            m_objOut << FormatChangesJson(szTime, i_objLast, i_objNow) << std::flush;
            return;
        }
        std::strftime(szTime, sizeof(szTime), "%H:%M:%S", &stLocal);
        std::istringstream objLines(i_objLast[SETTING_H264] ? FormatChanges(i_objLast, i_objNow)
                                                            : FormatTable(i_objNow));
        for (std::string strLine; std::getline(objLines, strLine);) {
            m_objOut << szTime << "  " << strLine << "\n";
        }
        m_objOut << std::flush;
    }

    CONTROL_ENDPOINT_S m_stEndpoint;
    std::ostream &m_objOut;
    std::ostream &m_objErr;
    CMilliseconds m_objTimeout;
};

/* The daemon itself may wait 2.9 s before it answers, and a set may have to wait for two streams
 * that are still starting. */
constexpr CMilliseconds kAnswerTime(5000);
constexpr CMilliseconds kSetTime(25000);

const char *const kFooter =
    "Exit codes: 0 done, 1 a value was refused or not taken, 2 usage, 3 no answer or the daemon is "
    "not running,\n4 the reply port is taken, 5 the system refused. See mv3300ctl(1).";

std::string CheckTime(const std::string &i_strText)
{
    return ParseDuration(i_strText) ? "" : "give a time such as 500ms, 2s or 5min";
}

void Describe(CLI::App &io_objApp, OPTIONS_S &o_stOptions)
{
    io_objApp.require_subcommand(1);
    io_objApp.set_version_flag("--version", "mv3300ctl " MV3300_VERSION);
    io_objApp.footer(kFooter);

    CLI::App *pGet = io_objApp.add_subcommand("get", "Show the settings");
    std::vector<std::string> strNames;
    strNames.reserve(STREAM_SETTING_COUNT);
    for (const STREAM_SETTING_S &stField : STREAM_SETTINGS) {
        strNames.emplace_back(stField.pName);
    }
    pGet->add_option("FIELD", o_stOptions.strFields, "Only these settings")
        ->check(CLI::IsMember(strNames));

    CLI::App *pSet = io_objApp.add_subcommand("set", "Change settings and tell what took effect");
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        const STREAM_SETTING_S &stField = STREAM_SETTINGS[i];
        std::string strHelp = FIELD_TEXTS[i].pHelp;
        if (stField.eKind == SettingKind::Number) {
            strHelp += ", " + FormatRange(i);
        }
        pSet->add_option("--" + std::string(stField.pName), o_stOptions.strValues[i], strHelp)
            ->type_name("VALUE")
            ->check([](const std::string &i_strText) {
                return i_strText.empty() ? std::string("a value is missing") : std::string();
            });
    }

    CLI::App *pWatch = io_objApp.add_subcommand("watch", "Show the settings and every change");
    pWatch->add_option("--interval", o_stOptions.strInterval, "Between two looks (default 1s)")
        ->type_name("TIME")
        ->check(CheckTime);
    pWatch->add_option("--for", o_stOptions.strFor, "End after this time (default: never)")
        ->type_name("TIME")
        ->check(CheckTime);

    for (CLI::App *pCommand : {pGet, pSet, pWatch}) {
        pCommand->add_flag("--json", o_stOptions.bJson, "JSON instead of text, one line each");
        pCommand
            ->add_option("--timeout", o_stOptions.strTimeout,
                         "How long to wait, such as 500ms or 3s (default " +
                             std::string(pCommand == pSet ? "25s)" : "5s)"))
            ->type_name("TIME")
            ->check(CheckTime);
    }
}
} // namespace

int RunCtl(int i_s32Argc, const char *const *i_pArgv, const CONTROL_ENDPOINT_S &i_stEndpoint,
           std::ostream &io_objOut, std::ostream &io_objErr)
{
    CLI::App objApp("Shows and changes the settings of the running mv3300d.", "mv3300ctl");
    OPTIONS_S stOptions;
    Describe(objApp, stOptions);
    int s32Result = CTL_OK;
    try {
        objApp.parse(i_s32Argc, i_pArgv);
        const bool bSet = objApp.got_subcommand("set");
        const auto objTimeout = ParseDuration(stOptions.strTimeout);
        CCtl objCtl(i_stEndpoint, objTimeout.value_or(bSet ? kSetTime : kAnswerTime), io_objOut,
                    io_objErr);
        s32Result = bSet                             ? objCtl.Set(stOptions)
                    : objApp.got_subcommand("watch") ? objCtl.Watch(stOptions)
                                                     : objCtl.Get(stOptions);
    } catch (const CLI::ParseError &objError) {
        s32Result = objApp.exit(objError, io_objOut, io_objErr) == 0 ? CTL_OK : CTL_USAGE;
    }
    io_objOut.flush();
    if (!io_objOut) {
        io_objErr << "mv3300ctl: the output cannot be written\n";
        return CTL_SYSTEM_ERROR;
    }
    return s32Result;
}
