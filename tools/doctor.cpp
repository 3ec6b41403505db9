/*
 * The daemon and its files, and the order of all answers.
 */
#include "tools/doctor.h"

#include <cerrno>
#include <cstring>

#include <time.h>
#include <unistd.h>

#include "common/bus/log_config.h"
#include "guard/files.h"

namespace
{
constexpr std::chrono::milliseconds kAnswerTime(4000);
constexpr std::size_t kLongest = 64 * 1024;

std::optional<Bool> Flag(const ANSWER_S &i_stAnswer, std::size_t i_u64Field)
{
    const auto &xValue = i_stAnswer.objValues[i_u64Field];
    const Bool *pFlag = xValue ? std::get_if<Bool>(&*xValue) : nullptr;
    return i_stAnswer.eResult == AskResult::Answered && pFlag != nullptr ? std::optional(*pFlag)
                                                                         : std::nullopt;
}

FINDING_S DaemonFinding(const PATIENT_S &i_stPatient)
{
    if (i_stPatient.stDaemon) {
        timespec stNow = {};
        clock_gettime(CLOCK_BOOTTIME, &stNow);
        return {"daemon", Verdict::Yes,
                "process " + std::to_string(i_stPatient.stDaemon->s32Pid) + ", for " +
                    std::to_string(stNow.tv_sec - i_stPatient.stDaemon->s64StartMs / 1000) +
                    " s (it holds the lock on the pid file)",
                ""};
    }
    if (access("/proc/locks", R_OK) != 0) {
        return {"daemon", Verdict::NotKnown, "/proc/locks cannot be read", ""};
    }
    if (i_stPatient.stAnswer.eResult == AskResult::Answered) {
        return {"daemon", Verdict::NotKnown,
                "one answers, and nobody holds the lock on " + i_stPatient.stEndpoint.strPidFile,
                ""};
    }
    return {
        "daemon", Verdict::No, "nobody holds the lock on " + i_stPatient.stEndpoint.strPidFile,
        "Start the daemon (systemctl start mv3300d), and read its journal if it does not stay."};
}

FINDING_S PidFinding(const PATIENT_S &i_stPatient)
{
    const auto strText = ReadFile(i_stPatient.stEndpoint.strPidFile, kLongest);
    /* A second one could start beside it, and lock a new file. */
    if (!i_stPatient.stDaemon && i_stPatient.stAnswer.eResult == AskResult::Answered &&
        access("/proc/locks", R_OK) == 0) {
        return {"pid file", Verdict::No,
                i_stPatient.stEndpoint.strPidFile + (strText
                                                         ? " is not the one that the daemon made"
                                                         : std::string(": ") + strerror(errno)),
                "Restart the daemon (systemctl restart mv3300d): its pid file was removed."};
    }
    if (!i_stPatient.stDaemon || !strText) {
        return {"pid file", Verdict::NotKnown,
                strText ? "it says " + strText->substr(0, strText->find('\n')) + ", and nobody runs"
                        : i_stPatient.stEndpoint.strPidFile + ": " + strerror(errno),
                ""};
    }
    const int s32Pid = atoi(strText->c_str());
    const Bool bSame = s32Pid == i_stPatient.stDaemon->s32Pid;
    return {"pid file", bSame ? Verdict::Yes : Verdict::No,
            i_stPatient.stEndpoint.strPidFile + " says " + std::to_string(s32Pid),
            bSame ? "" : "Restart the daemon: something else wrote its pid file."};
}

FINDING_S ControlFinding(const PATIENT_S &i_stPatient)
{
    const ANSWER_S &stAnswer = i_stPatient.stAnswer;
    if (stAnswer.eResult == AskResult::Answered) {
        return {"control channel", Verdict::Yes, "127.0.0.1 port 8366 answered", ""};
    }
    const std::string strFact = ExplainFailure(
        stAnswer, i_stPatient.stEndpoint, kAnswerTime,
        i_stPatient.stDaemon ? std::optional(i_stPatient.stDaemon->s32Pid) : std::nullopt);
    const Bool bSilent = i_stPatient.stDaemon && (stAnswer.eResult == AskResult::NoAnswer ||
                                                  stAnswer.eResult == AskResult::NotRunning);
    return {"control channel", bSilent ? Verdict::No : Verdict::NotKnown, strFact,
            bSilent ? "Restart the daemon (systemctl restart mv3300d): it runs and does not answer."
                    : ""};
}

FINDING_S LogFinding(const PATIENT_S &i_stPatient, const std::string &i_strConfig)
{
    const std::vector<std::string> strProblems = CheckLogConfig(i_strConfig.c_str());
    if (strProblems.empty()) {
        return {"log", i_stPatient.strLog.empty() ? Verdict::NotKnown : Verdict::Yes,
                i_stPatient.strLogFact, ""};
    }
    /* Another user than the daemon's own may well be refused its files. */
    const Bool bRefused = geteuid() != 0;
    return {"log", bRefused ? Verdict::NotKnown : Verdict::No, strProblems[0],
            bRefused ? "" : "Correct " + i_strConfig + "; mv3300ctl check tells each line."};
}

FINDING_S ParamFinding(const PATIENT_S &i_stPatient)
{
    const CHECKED_FILE_S &stFile = i_stPatient.stFile;
    if (stFile.IsAsWritten()) {
        return {"parameter file", Verdict::Yes, stFile.strPath + " is used as written", ""};
    }
    std::string strFact = stFile.strProblems.empty() ? "" : stFile.strProblems[0];
    for (const CHECKED_ROW_S &stRow : stFile.objRows) {
        if (strFact.empty() && !stRow.strNote.empty()) {
            strFact = stRow.strName + " " + stRow.strNote;
        }
    }
    if (stFile.bRefused) {
        return {"parameter file", Verdict::NotKnown, stFile.strPath + ": " + strFact, ""};
    }
    return {"parameter file", Verdict::No, stFile.strPath + ": " + strFact,
            "Correct " + stFile.strPath +
                " and restart the daemon; mv3300ctl check tells each row."};
}
} // namespace

std::string PATIENT_S::Condition() const
{
    return objState.is_object() ? objState.value("condition", "") : "";
}

Bool PATIENT_S::WantsH264() const
{
    return Flag(stAnswer, SETTING_H264).value_or(stFile.stStatus.u32H264Enable != 0);
}

Bool PATIENT_S::WantsPreview() const
{
    return Flag(stAnswer, SETTING_PREVIEW).value_or(stFile.stStatus.u32PrevEnable != 0);
}

Bool PATIENT_S::ShouldStream() const
{
    return stDaemon && stTiming && stTiming->HasSignal() && stTiming->interlaced == 0 &&
           (WantsH264() || WantsPreview());
}

std::vector<FINDING_S> DiagnoseDaemon(const PATIENT_S &i_stPatient, const DOCTOR_PATHS_S &i_stPaths)
{
    const Bool bOn = i_stPatient.WantsH264();
    const Bool bAnswered = i_stPatient.stAnswer.eResult == AskResult::Answered;
    const Bool bTold = bAnswered || !i_stPatient.stFile.bRefused;
    return {DaemonFinding(i_stPatient),
            PidFinding(i_stPatient),
            ControlFinding(i_stPatient),
            LogFinding(i_stPatient, i_stPaths.strLogConfig),
            ParamFinding(i_stPatient),
            {"H.264 is on",
             !bTold ? Verdict::NotKnown
             : bOn  ? Verdict::Yes
                    : Verdict::No,
             bAnswered ? "the daemon" : "the parameter file",
             bOn || !bTold ? "" : "Switch it on: mv3300ctl set --h264 on --save"}};
}

std::vector<FINDING_S> Diagnose(const PATIENT_S &i_stPatient, const DOCTOR_PATHS_S &i_stPaths)
{
    std::vector<FINDING_S> objAll = DiagnoseDaemon(i_stPatient, i_stPaths);
    for (const auto &objMore : {DiagnoseInput(i_stPatient, i_stPaths),
                                DiagnosePipelines(i_stPatient), DiagnoseNetwork(i_stPatient),
                                DiagnoseStream(i_stPatient), DiagnoseMachine(time(nullptr))}) {
        objAll.insert(objAll.end(), objMore.begin(), objMore.end());
    }
    return objAll;
}
