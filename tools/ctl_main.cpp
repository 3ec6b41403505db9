/*
 * The control client's command line: the table of commands, and what they have in common.
 */
#include "tools/ctl_main.h"

#include <algorithm>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "tools/ctl_announce.h"
#include "tools/ctl_bundle.h"
#include "tools/ctl_check.h"
#include "tools/ctl_doctor.h"
#include "tools/ctl_group.h"
#include "tools/ctl_receive_kit.h"
#include "tools/ctl_save.h"
#include "tools/ctl_settings.h"
#include "tools/nearest.h"
#include "tools/plain_stream.h"

namespace
{
constexpr CTL_COMMAND_S kCommands[] = {
    {"get", "Show the settings", DescribeGet},
    {"set", "Change settings and tell what took effect", DescribeSet},
    {"watch", "Show the settings and every change", DescribeWatch},
    {"save", "Write the running settings into the parameter file", DescribeSave},
    {"check", "Tell what the daemon makes of a parameter file", DescribeCheck},
    {"doctor", "Tell what is wrong when there is no picture", DescribeDoctor},
    {"bundle", "Pack what a report should hold", DescribeBundle},
    {"announce", "Tell the daemon the timing of its input", DescribeAnnounce},
    {"receive-kit", "Show what receivers of the stream need", DescribeReceiveKit},
    {"group", "Show the multicast groups of a fleet and which boxes share one", DescribeGroup},
};

const char *const kFooter =
    "Exit codes: 0 done, 1 a value was refused, not taken, or is not as written, 2 usage, 3 no "
    "answer or the daemon is\nnot running, 4 the reply port is taken, 5 the system refused, 6 "
    "doctor "
    "cannot tell. See mv3300ctl(1).";

/* The word in a command's place that is none, with the nearest one that is. */
std::string UnknownCommand(int i_s32Argc, const char *const *i_pArgv)
{
    std::vector<std::string> strNames;
    for (const CTL_COMMAND_S &stCommand : kCommands) {
        strNames.emplace_back(stCommand.pName);
    }
    const std::string strWord = i_s32Argc > 1 ? i_pArgv[1] : "";
    if (strWord.empty() || strWord[0] == '-' ||
        std::find(strNames.begin(), strNames.end(), strWord) != strNames.end()) {
        return "";
    }
    std::string strError = "there is no command '" + strWord + "'";
    const std::string strNearest = NearestWord(strWord, strNames);
    if (!strNearest.empty()) {
        return strError + "; did you mean '" + strNearest + "'?";
    }
    const char *pBefore = "; there are ";
    for (const std::string &strName : strNames) {
        strError += pBefore + strName;
        pBefore = ", ";
    }
    return strError;
}

int Run(int i_s32Argc, const char *const *i_pArgv, const CTL_CONTEXT_S &i_stContext)
{
    const std::string strUnknown = UnknownCommand(i_s32Argc, i_pArgv);
    if (!strUnknown.empty()) {
        return i_stContext.Usage(strUnknown);
    }
    CLI::App objApp("Shows, changes, saves and checks the settings of mv3300d.", "mv3300ctl");
    objApp.require_subcommand(1);
    objApp.set_version_flag("--version", "mv3300ctl " MV3300_VERSION);
    objApp.footer(kFooter);
    CRunCommand pRun;
    for (const CTL_COMMAND_S &stCommand : kCommands) {
        CLI::App *pApp = objApp.add_subcommand(stCommand.pName, stCommand.pHelp);
        pApp->final_callback(
            [&pRun, pThis = stCommand.pDescribe(*pApp, i_stContext)] { pRun = pThis; });
    }
    try {
        objApp.parse(i_s32Argc, i_pArgv);
    } catch (const CLI::ParseError &objError) {
        return objApp.exit(objError, i_stContext.objOut, i_stContext.objErr) == 0 ? CTL_OK
                                                                                  : CTL_USAGE;
    }
    return pRun();
}
} // namespace

int CTL_CONTEXT_S::Usage(const std::string &i_strError) const
{
    objErr << "mv3300ctl: " << i_strError << "\nTry 'mv3300ctl --help'.\n";
    return CTL_USAGE;
}

int CTL_CONTEXT_S::Fail(int i_s32Code, const std::string &i_strError) const
{
    objErr << "mv3300ctl: " << i_strError << "\n" << std::flush;
    return i_s32Code;
}

void AddJsonOption(CLI::App &io_objApp, bool &o_bJson)
{
    io_objApp.add_flag("--json", o_bJson, "JSON instead of text, one line each");
}

void AddTimeOption(CLI::App &io_objApp, const char *i_pName, std::string &o_strTime,
                   const std::string &i_strHelp)
{
    io_objApp.add_option(i_pName, o_strTime, i_strHelp)
        ->type_name("TIME")
        ->check([](const std::string &i_strText) {
            return std::string(ParseDuration(i_strText) ? "" : "give a time such as 500ms or 2s");
        });
}

int FailAnswer(const CTL_CONTEXT_S &i_stContext, const ANSWER_S &i_stAnswer,
               std::chrono::milliseconds i_objTimeout)
{
    const int s32Code = i_stAnswer.eResult == AskResult::ReplyPortTaken ? CTL_REPLY_PORT
                        : i_stAnswer.eResult == AskResult::SystemError  ? CTL_SYSTEM_ERROR
                                                                        : CTL_NO_ANSWER;
    return i_stContext.Fail(s32Code,
                            ExplainFailure(i_stAnswer, i_stContext.stEndpoint, i_objTimeout,
                                           FindDaemon(i_stContext.stEndpoint.strPidFile)) +
                                ".");
}

std::optional<CFieldValues> AskOrFail(const CTL_CONTEXT_S &i_stContext,
                                      std::chrono::milliseconds i_objTimeout, int &o_s32Code)
{
    const ANSWER_S stAnswer = AskDaemon(i_stContext.stEndpoint, ASK_ALL, {}, i_objTimeout);
    if (stAnswer.eResult == AskResult::Answered) {
        return stAnswer.objValues;
    }
    o_s32Code = FailAnswer(i_stContext, stAnswer, i_objTimeout);
    return std::nullopt;
}

int RunCtl(int i_s32Argc, const char *const *i_pArgv, const CONTROL_ENDPOINT_S &i_stEndpoint,
           std::ostream &io_objOut, std::ostream &io_objErr)
{
    CPlainBuf objPlainOut(io_objOut);
    CPlainBuf objPlainErr(io_objErr);
    std::ostream objOut(&objPlainOut);
    std::ostream objErr(&objPlainErr);
    const CTL_CONTEXT_S stContext = {i_stEndpoint, objOut, objErr};
    const int s32Result = Run(i_s32Argc, i_pArgv, stContext);
    objOut.flush();
    return objOut ? s32Result : stContext.Fail(CTL_SYSTEM_ERROR, "the output cannot be written");
}
