/*
 * check.
 */
#include "tools/ctl_check.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "common/box/utils.h"
#include "common/bus/log_config.h"
#include "common/stream/encoder_rules.h"
#include "tools/check_file.h"
#include "tools/try_pipeline.h"

namespace
{
using CJson = nlohmann::ordered_json;

constexpr char kGroupInterface[] = "eth0";
constexpr std::chrono::seconds kDryRun(1);

struct OPTIONS_S {
    std::string strFile = "/config/mv3300/param.xml";
    std::string strLogFile = "/config/logconf/mvx3300.conf";
    std::string strTiming;
    bool bDryRun = false;
    bool bJson = false;
};

struct PIPELINE_S {
    std::string strName; /* "h264" or "preview" */
    std::string strText;
    std::string strProblem;
};

struct CHECKED_S {
    CHECKED_FILE_S stFile;
    std::vector<RECEIVER_S> objReceivers;
    std::string strGroup; /* where the list is empty */
    std::vector<std::string> strLogProblems;
    std::string strTimingProblem;
    std::vector<PIPELINE_S> objPipelines;

    bool IsGood() const
    {
        const auto Good = [](const auto &i_stItem) { return i_stItem.strProblem.empty(); };
        return stFile.IsAsWritten() && strLogProblems.empty() && strTimingProblem.empty() &&
               (!objReceivers.empty() || !strGroup.empty()) &&
               std::all_of(objReceivers.begin(), objReceivers.end(), Good) &&
               std::all_of(objPipelines.begin(), objPipelines.end(), Good);
    }
};

std::optional<INPUT_TIMING_S> ParseTiming(const std::string &i_strText)
{
    INPUT_TIMING_S stTiming = {};
    int s32End = 0;
    if (sscanf(i_strText.c_str(), "%5dx%5d@%5d-%1d%n", &stTiming.width, &stTiming.height,
               &stTiming.fps, &stTiming.interlaced, &s32End) != 4 ||
        static_cast<std::size_t>(s32End) != i_strText.size() || stTiming.width < 0 ||
        stTiming.height < 0 || stTiming.fps < 0) {
        return std::nullopt;
    }
    return stTiming;
}

/* The pipelines that the encoder's own rules start when the timing comes to a fresh daemon. */
void PlanPipelines(const INPUT_TIMING_S &i_stTiming, CHECKED_S *io_pChecked)
{
    CEncoderRules objRules;
    objRules.AnswerSettings(io_pChecked->stFile.stStatus);
    objRules.AnswerAddrList(io_pChecked->stFile.strAddrList);
    objRules.AnswerMulticastIp(io_pChecked->strGroup);
    for (ENC_PLAN objPlan = objRules.OnTiming(i_stTiming, 0); !objPlan.empty();
         objPlan = objRules.GoOn()) {
        for (const ENC_STEP_S &stStep : objPlan) {
            if (stStep.eAct == ENC_ACT::kStart) {
                io_pChecked->objPipelines.push_back(
                    {stStep.eWorker == ENC_WORKER::kH264 ? "h264" : "preview", stStep.strText, ""});
            }
        }
    }
    if (io_pChecked->objPipelines.empty()) {
        io_pChecked->strTimingProblem = i_stTiming.interlaced != 0
                                            ? "nothing is started: interlaced input is refused"
                                            : "nothing is started: the timing means no signal";
    }
}

void CheckStream(const OPTIONS_S &i_stOptions, const std::optional<INPUT_TIMING_S> &i_objTiming,
                 CHECKED_S *io_pChecked)
{
    (void)get_multicast_ip(io_pChecked->strGroup, kGroupInterface);
    if (i_objTiming) {
        PlanPipelines(*i_objTiming, io_pChecked);
    }
    for (PIPELINE_S &stPipeline : io_pChecked->objPipelines) {
        stPipeline.strProblem = TryPipeline(
            stPipeline.strText, i_stOptions.bDryRun ? kDryRun : std::chrono::milliseconds(0));
    }
    /* Behind the pipelines, which are tried by a fork: resolving leaves threads. */
    io_pChecked->objReceivers = CheckReceivers(io_pChecked->stFile.strAddrList);
}

CHECKED_S Check(const OPTIONS_S &i_stOptions, const std::optional<INPUT_TIMING_S> &i_objTiming)
{
    CHECKED_S stChecked;
    stChecked.stFile = CheckParamFile(i_stOptions.strFile);
    /* Of a file that may not be read the defaults would be told, which may not be what runs. */
    if (!stChecked.stFile.bRefused) {
        CheckStream(i_stOptions, i_objTiming, &stChecked);
    }
    stChecked.strLogProblems = CheckLogConfig(i_stOptions.strLogFile.c_str());
    return stChecked;
}

std::string RowLine(const CHECKED_ROW_S &i_stRow)
{
    std::string strLine = "  " + i_stRow.strName;
    strLine += std::string(strLine.size() < 30 ? 30 - strLine.size() : 1, ' ');
    strLine += i_stRow.strValue.empty() ? "\"\"" : i_stRow.strValue;
    strLine += i_stRow.bInFile ? "  (file)" : "  (default)";
    strLine += i_stRow.bUsed ? "" : "  nothing reads it";
    return strLine + (i_stRow.strNote.empty() ? "" : "  ! " + i_stRow.strNote) + "\n";
}

/* Where the stream goes, and the pipelines. */
void PrintStream(std::ostream &io_objOut, const CHECKED_S &i_stChecked,
                 const OPTIONS_S &i_stOptions)
{
    io_objOut << "receivers\n";
    for (const RECEIVER_S &stReceiver : i_stChecked.objReceivers) {
        io_objOut << (stReceiver.strProblem.empty() ? "  " : "  ! ") << stReceiver.strText << "  "
                  << stReceiver.strAddress << stReceiver.strProblem << "\n";
    }
    if (i_stChecked.objReceivers.empty() && i_stChecked.strGroup.empty()) {
        io_objOut << "  ! no list, and no group: " << kGroupInterface
                  << " has no hardware address\n";
    } else if (i_stChecked.objReceivers.empty()) {
        io_objOut << "  " << i_stChecked.strGroup << "  group of " << kGroupInterface
                  << ", since the list is empty\n";
    }
    if (!i_stOptions.strTiming.empty()) {
        io_objOut << "pipelines of " << i_stOptions.strTiming
                  << (i_stOptions.bDryRun ? ", played for a second\n" : ", parsed\n");
    }
    if (!i_stChecked.strTimingProblem.empty()) {
        io_objOut << "  ! " << i_stChecked.strTimingProblem << "\n";
    }
    for (const PIPELINE_S &stPipeline : i_stChecked.objPipelines) {
        io_objOut << "  " << stPipeline.strName << "  " << stPipeline.strText << "\n";
        if (!stPipeline.strProblem.empty()) {
            io_objOut << "  ! " << stPipeline.strProblem << "\n";
        }
    }
}

void Print(std::ostream &io_objOut, const CHECKED_S &i_stChecked, const OPTIONS_S &i_stOptions)
{
    io_objOut << i_stOptions.strFile << "\n";
    for (const std::string &strProblem : i_stChecked.stFile.strProblems) {
        io_objOut << "  ! " << strProblem << "\n";
    }
    for (const CHECKED_ROW_S &stRow : i_stChecked.stFile.objRows) {
        if (stRow.bUsed || stRow.bInFile || !stRow.strNote.empty()) {
            io_objOut << RowLine(stRow);
        }
    }
    if (!i_stChecked.stFile.bRefused) {
        PrintStream(io_objOut, i_stChecked, i_stOptions);
    }
    io_objOut << i_stOptions.strLogFile << "\n";
    for (const std::string &strProblem : i_stChecked.strLogProblems) {
        io_objOut << "  ! " << strProblem << "\n";
    }
    io_objOut << (i_stChecked.IsGood() ? "all is as written\n"
                                       : "not as written, see the lines with !\n");
}

CJson ToJson(const CHECKED_S &i_stChecked)
{
    CJson objRows = CJson::array();
    for (const CHECKED_ROW_S &stRow : i_stChecked.stFile.objRows) {
        objRows.push_back({{"name", stRow.strName},
                           {"value", stRow.strValue},
                           {"source", stRow.bInFile ? "file" : "default"},
                           {"used", stRow.bUsed},
                           {"problem", stRow.strNote}});
    }
    CJson objReceivers = CJson::array();
    for (const RECEIVER_S &stReceiver : i_stChecked.objReceivers) {
        objReceivers.push_back({{"receiver", stReceiver.strText},
                                {"address", stReceiver.strAddress},
                                {"problem", stReceiver.strProblem}});
    }
    CJson objPipelines = CJson::array();
    for (const PIPELINE_S &stPipeline : i_stChecked.objPipelines) {
        objPipelines.push_back({{"pipeline", stPipeline.strName},
                                {"text", stPipeline.strText},
                                {"problem", stPipeline.strProblem}});
    }
    return {{"ok", i_stChecked.IsGood()},
            {"file", i_stChecked.stFile.strPath},
            {"problems", i_stChecked.stFile.strProblems},
            {"parameters", objRows},
            {"receivers", objReceivers},
            {"group", i_stChecked.strGroup},
            {"timing_problem", i_stChecked.strTimingProblem},
            {"pipelines", objPipelines},
            {"log_problems", i_stChecked.strLogProblems}};
}

int Run(const CTL_CONTEXT_S &i_stContext, const OPTIONS_S &i_stOptions)
{
    std::optional<INPUT_TIMING_S> objTiming;
    if (!i_stOptions.strTiming.empty()) {
        objTiming = ParseTiming(i_stOptions.strTiming);
        if (!objTiming) {
            return i_stContext.Usage("give a timing such as 1920x1080@60-0");
        }
    }
    if (i_stOptions.bDryRun && !objTiming) {
        return i_stContext.Usage("--dry-run needs a --timing");
    }
    const auto objHolder = FindDaemon(i_stContext.stEndpoint.strPidFile);
    if (i_stOptions.bDryRun && objHolder) {
        return i_stContext.Fail(CTL_SYSTEM_ERROR,
                                "the daemon (process " + std::to_string(*objHolder) +
                                    ") has the capture device: stop it for a dry run");
    }
    const CHECKED_S stChecked = Check(i_stOptions, objTiming);
    if (i_stOptions.bJson) {
        i_stContext.objOut << ToJson(stChecked).dump(-1, ' ', false,
                                                     CJson::error_handler_t::replace)
                           << "\n";
    } else {
        Print(i_stContext.objOut, stChecked, i_stOptions);
    }
    return stChecked.IsGood() ? CTL_OK : CTL_NOT_TAKEN;
}
} // namespace

CRunCommand DescribeCheck(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext)
{
    const auto pOptions = std::make_shared<OPTIONS_S>();
    io_objApp.add_option("FILE", pOptions->strFile,
                         "Parameter file (default " + pOptions->strFile + ")");
    io_objApp
        .add_option("--log-config", pOptions->strLogFile,
                    "Log configuration (default " + pOptions->strLogFile + ")")
        ->type_name("FILE");
    io_objApp
        .add_option("--timing", pOptions->strTiming,
                    "Show and parse the pipelines that this input would start")
        ->type_name("WxH@F-I");
    io_objApp.add_flag("--dry-run", pOptions->bDryRun,
                       "Play them for a second each: stops nothing, but sends to the receivers");
    AddJsonOption(io_objApp, pOptions->bJson);
    return [&i_stContext, pOptions] { return Run(i_stContext, *pOptions); };
}
