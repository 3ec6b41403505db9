/*
 * The daemon, its input and its stream.
 */
#include "tools/doctor.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "common/bus/log_config.h"
#include "common/stream/pipeline_desc.h"
#include "framework/unique_fd.h"
#include "guard/files.h"
#include "guard/loopback.h"
#include "guard/rtp.h"
#include "guard/state.h"
#include "tools/guard_state.h"
#include "tools/try_pipeline.h"

namespace
{
constexpr std::chrono::milliseconds kAnswerTime(4000);
constexpr char kDevice[] = "/dev/video0";
constexpr char kDriver[] = "/sys/bus/i2c/drivers/tc358743";
constexpr char kPicture[] = "/tmp/image.jpeg";
constexpr UInt16 kLocalCopy = 12350;
constexpr int kListenMs = 2000;
constexpr double kFreshPacket = 2; /* s */
constexpr double kFreshPicture = 10;
constexpr std::streamoff kLogTail = 256 * 1024;
constexpr std::size_t kLongest = 4 * 1024 * 1024;

/* The end of the first file that the log configuration names. */
void ReadLog(const std::string &i_strConfig, PATIENT_S *io_pPatient)
{
    std::ifstream objConfig(i_strConfig);
    for (std::string strLine; std::getline(objConfig, strLine);) {
        const std::size_t u64At = strLine.find(".fileName=");
        if (u64At == std::string::npos || strLine[0] == '#') {
            continue;
        }
        io_pPatient->strLogFact = strLine.substr(u64At + 10);
        const UniqueFd objFd(
            open(io_pPatient->strLogFact.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
        struct stat stStat = {};
        if (!objFd || fstat(objFd.Get(), &stStat) != 0 || !S_ISREG(stStat.st_mode)) {
            io_pPatient->strLogFact += std::string(": ") + strerror(objFd ? EINVAL : errno);
            return;
        }
        std::string strText(kLogTail, '\0');
        const ssize_t s64Length = pread(objFd.Get(), strText.data(), strText.size(),
                                        stStat.st_size > kLogTail ? stStat.st_size - kLogTail : 0);
        strText.resize(s64Length > 0 ? static_cast<std::size_t>(s64Length) : 0);
        io_pPatient->strLog = strText;
        return;
    }
    io_pPatient->strLogFact = i_strConfig + " names no file";
}

/* The last line with the text; "" if there is none. o_pAt: where it stands. */
std::string LastLine(const std::string &i_strLog, const std::string &i_strText,
                     std::size_t *o_pAt = nullptr)
{
    const std::size_t u64At = i_strLog.rfind(i_strText);
    if (u64At == std::string::npos) {
        return "";
    }
    if (o_pAt != nullptr) {
        *o_pAt = u64At;
    }
    const std::size_t u64Before = i_strLog.rfind('\n', u64At);
    const std::size_t u64Begin = u64Before == std::string::npos ? 0 : u64Before + 1;
    return i_strLog.substr(u64Begin, i_strLog.find('\n', u64At) - u64Begin);
}

void FindTiming(PATIENT_S *io_pPatient)
{
    if (StateValue(io_pPatient->objState, "input", "known") == true) {
        const auto Number = [&](const char *i_pName) {
            const nlohmann::json objNumber = StateValue(io_pPatient->objState, "input", i_pName);
            return objNumber.is_number_integer() ? objNumber.get<SInt32>() : 0;
        };
        io_pPatient->stTiming =
            TIMING_S{Number("width"), Number("height"), Number("fps"),
                     StateValue(io_pPatient->objState, "input", "interlaced") == true ? 1 : 0};
        const nlohmann::json objOrigin = StateValue(io_pPatient->objState, "input", "origin");
        io_pPatient->strTimingFact =
            "the guard, by " + (objOrigin.is_string() ? objOrigin.get<std::string>() : "itself");
        return;
    }
    const auto strMemory = ReadFile(TIMING_FILE, kLongest);
    if (const auto stHeard = strMemory ? ParseMemory(*strMemory) : std::nullopt) {
        io_pPatient->stTiming = stHeard->stTiming;
        io_pPatient->strTimingFact = TIMING_FILE;
        return;
    }
    const std::string strLine = LastLine(io_pPatient->strLog, "input timing width:");
    TIMING_S stTiming;
    if (!strLine.empty() && sscanf(strLine.c_str() + strLine.find("width:"),
                                   "width:%9d height:%9d fps:%9d interlaced:%9d", &stTiming.width,
                                   &stTiming.height, &stTiming.fps, &stTiming.interlaced) == 4) {
        io_pPatient->stTiming = stTiming;
        io_pPatient->strTimingFact = "the log: " + strLine;
    } else {
        io_pPatient->strTimingFact = "no uevent was heard by the guard or stands in the log";
    }
}

/* Takes the port of the local copy for a moment: there is no guard that needs it. */
void ListenToLocalCopy(PATIENT_S *io_pPatient)
{
    const UniqueFd objFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_in stAddress = LoopbackAddress(kLocalCopy);
    if (bind(objFd.Get(), reinterpret_cast<const sockaddr *>(&stAddress), sizeof(stAddress)) != 0) {
        io_pPatient->strPacketsFact =
            std::string("127.0.0.1 port 12350 cannot be listened to: ") + strerror(errno);
        return;
    }
    const auto objEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(kListenMs);
    int s32Packets = 0;
    while (std::chrono::steady_clock::now() < objEnd) {
        pollfd stPoll = {objFd.Get(), POLLIN, 0};
        UInt8 u8Packet[2048];
        if (poll(&stPoll, 1, 100) > 0) {
            const ssize_t s64Length = recv(objFd.Get(), u8Packet, sizeof(u8Packet), 0);
            s32Packets +=
                s64Length > 0 && ParseRtp({u8Packet, static_cast<std::size_t>(s64Length)}) ? 1 : 0;
        }
    }
    io_pPatient->bPackets = s32Packets > 0;
    io_pPatient->strPacketsFact =
        std::to_string(s32Packets) + " RTP packets came to 127.0.0.1 port 12350 in 2 s";
}

void LookForPackets(PATIENT_S *io_pPatient)
{
    if (io_pPatient->objState.is_object()) {
        const nlohmann::json objAge =
            StateValue(io_pPatient->objState, "stream", "last_packet_age");
        const nlohmann::json objRate =
            StateValue(io_pPatient->objState, "stream", "packets_per_second");
        io_pPatient->bPackets = objAge.is_number() && objAge.get<double>() < kFreshPacket;
        io_pPatient->strPacketsFact =
            "the guard: " + (objAge.is_number() ? "the last one came " + objAge.dump() +
                                                      " s ago, " + objRate.dump() + " a second"
                                                : std::string("none came yet"));
    } else if (io_pPatient->stDaemon) {
        ListenToLocalCopy(io_pPatient);
    } else {
        io_pPatient->strPacketsFact = "no daemon runs";
    }
    if (!io_pPatient->bPackets.value_or(true) && !io_pPatient->WantsPreview()) {
        io_pPatient->bPackets.reset();
        io_pPatient->strPacketsFact = "the preview is off: no local copy is made";
    }
}

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
    return {
        "daemon", Verdict::No, "nobody holds the lock on " + i_stPatient.stEndpoint.strPidFile,
        "Start the daemon (systemctl start mv3300d), and read its journal if it does not stay."};
}

FINDING_S PidFinding(const PATIENT_S &i_stPatient)
{
    const auto strText = ReadFile(i_stPatient.stEndpoint.strPidFile, kLongest);
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
    return {"parameter file", Verdict::No, stFile.strPath + ": " + strFact,
            "Correct " + stFile.strPath +
                " and restart the daemon; mv3300ctl check tells each row."};
}

FINDING_S DeviceFinding(const PATIENT_S &i_stPatient)
{
    const UniqueFd objFd(open(kDevice, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    const int s32Error = objFd ? 0 : errno;
    const std::string strFact =
        std::string(kDevice) +
        (s32Error == 0 ? " can be opened" : std::string(": ") + strerror(s32Error));
    if (s32Error == 0 || s32Error == EBUSY) {
        return {"capture device", Verdict::Yes, strFact, ""};
    }
    /* A bench: the driver's uevents come, and sysfs has no such driver. */
    const Bool bBench = i_stPatient.stTiming && access(kDriver, F_OK) != 0;
    if (i_stPatient.bPackets.value_or(false) || bBench || s32Error == EACCES || s32Error == EPERM) {
        return {"capture device", Verdict::NotKnown, strFact, ""};
    }
    return {"capture device", Verdict::No, strFact,
            "Load the bridge's driver, and look for it in the kernel's log (dmesg)."};
}

/* The processes other than the daemon that have the device open; each of them as "12 (name)". */
std::string OtherHolders(SInt32 i_s32Daemon)
{
    std::string strHolders;
    DIR *pProcesses = opendir("/proc");
    while (const dirent *pProcess = pProcesses != nullptr ? readdir(pProcesses) : nullptr) {
        const std::string strFolder = std::string("/proc/") + pProcess->d_name;
        const int s32Pid = atoi(pProcess->d_name);
        DIR *pFds = s32Pid > 0 && s32Pid != i_s32Daemon && s32Pid != getpid()
                        ? opendir((strFolder + "/fd").c_str())
                        : nullptr;
        Bool bHolds = false;
        while (const dirent *pFd = pFds != nullptr ? readdir(pFds) : nullptr) {
            char szTarget[64] = "";
            (void)!readlink((strFolder + "/fd/" + pFd->d_name).c_str(), szTarget,
                            sizeof(szTarget) - 1);
            bHolds = bHolds || strcmp(szTarget, kDevice) == 0;
        }
        if (pFds != nullptr) {
            closedir(pFds);
        }
        if (bHolds) {
            const std::string strName = ReadFile(strFolder + "/comm", 64).value_or("");
            strHolders += (strHolders.empty() ? "" : ", ") + std::to_string(s32Pid) + " (" +
                          strName.substr(0, strName.find('\n')) + ")";
        }
    }
    if (pProcesses != nullptr) {
        closedir(pProcesses);
    }
    return strHolders;
}

FINDING_S BusyFinding(const PATIENT_S &i_stPatient)
{
    const std::string strHolders =
        OtherHolders(i_stPatient.stDaemon ? i_stPatient.stDaemon->s32Pid : 0);
    const Bool bBusy = i_stPatient.stQuery.strFact.find(strerror(EBUSY)) != std::string::npos;
    if (!i_stPatient.bPackets.value_or(false) && (bBusy || !strHolders.empty())) {
        return {"device is free", Verdict::No,
                strHolders.empty() ? i_stPatient.stQuery.strFact
                                   : "process " + strHolders + " has it",
                "End the other program that uses the capture device."};
    }
    const Bool bTold = geteuid() == 0 && access(kDevice, F_OK) == 0;
    return {"device is free", bTold ? Verdict::Yes : Verdict::NotKnown,
            bTold ? "no process but the daemon has it" : "it takes root and the device to tell",
            ""};
}

FINDING_S DriverFinding()
{
    DIR *pFolder = opendir(kDriver);
    if (pFolder == nullptr) {
        return {"bridge driver", Verdict::NotKnown, std::string(kDriver) + ": " + strerror(errno),
                ""};
    }
    std::string strChip;
    while (const dirent *pEntry = readdir(pFolder)) {
        if (pEntry->d_name[0] >= '0' && pEntry->d_name[0] <= '9') {
            strChip = pEntry->d_name;
        }
    }
    closedir(pFolder);
    if (strChip.empty()) {
        return {"bridge driver", Verdict::No, std::string(kDriver) + " is bound to no chip",
                "Look into the kernel's log (dmesg) for why the driver does not find its chip."};
    }
    return {"bridge driver", Verdict::Yes, "it is bound to " + strChip, ""};
}

FINDING_S LinkFinding(const PATIENT_S &i_stPatient)
{
    const Link eLink = i_stPatient.stQuery.eLink;
    return {"link",
            eLink == Link::Ok        ? Verdict::Yes
            : eLink == Link::Unknown ? Verdict::NotKnown
                                     : Verdict::No,
            i_stPatient.stQuery.strFact,
            eLink == Link::Ok || eLink == Link::Unknown ? ""
            : eLink == Link::OutOfRange
                ? "Choose another picture format at the source: the bridge cannot take this one."
                : "Plug in the HDMI cable and switch the source on."};
}

FINDING_S EventFinding(const PATIENT_S &i_stPatient)
{
    const std::string strLine = LastLine(i_stPatient.strLog, "event {'tc358743'");
    const nlohmann::json objTime = StateValue(i_stPatient.objState, "input", "time");
    if (StateValue(i_stPatient.objState, "input", "origin") == "uevent" && objTime.is_number()) {
        const auto s64Age = time(nullptr) - static_cast<time_t>(objTime.get<double>());
        return {"uevent", Verdict::Yes,
                "the guard heard the last one " + std::to_string(s64Age) + " s ago", ""};
    }
    return {"uevent", strLine.empty() ? Verdict::NotKnown : Verdict::Yes,
            strLine.empty() ? "none was heard by the guard or stands in the log" : strLine, ""};
}

FINDING_S TimingFinding(const PATIENT_S &i_stPatient)
{
    if (!i_stPatient.stTiming) {
        return {"timing", Verdict::NotKnown, i_stPatient.strTimingFact, ""};
    }
    const std::string strFact =
        TimingText(*i_stPatient.stTiming) + " (" + i_stPatient.strTimingFact + ")";
    if (!i_stPatient.stTiming->HasSignal()) {
        return {"timing", Verdict::No, strFact,
                "Plug in the HDMI cable and switch the source on: the input has no signal."};
    }
    if (i_stPatient.stTiming->interlaced != 0) {
        return {"timing", Verdict::No, strFact,
                "Switch the source to a progressive format: interlaced input is refused."};
    }
    return {"timing", Verdict::Yes, strFact, ""};
}

FINDING_S ElementsFinding(const PATIENT_S &i_stPatient)
{
    const std::string &strProblem =
        i_stPatient.strTryH264.empty() ? i_stPatient.strTryJpeg : i_stPatient.strTryH264;
    return {"elements", strProblem.empty() ? Verdict::Yes : Verdict::No,
            strProblem.empty() ? "GStreamer takes both pipelines' descriptions" : strProblem,
            strProblem.empty()
                ? ""
                : "Install the GStreamer plug-in that is missing, then restart the daemon."};
}

FINDING_S PipelineFinding(const PATIENT_S &i_stPatient)
{
    if (i_stPatient.bPackets.value_or(false)) {
        return {"pipelines", Verdict::Yes, "packets come", ""};
    }
    if (!i_stPatient.ShouldStream()) {
        return {"pipelines", Verdict::NotKnown, "none has to run", ""};
    }
    std::size_t u64Run = 0;
    const std::string strRun = LastLine(i_stPatient.strLog, "Let's run [gst-h264]!", &u64Run);
    for (const char *pError :
         {"Received error in [gst-h264]", "pipeline could not be constructed"}) {
        std::size_t u64Error = 0;
        const std::string strLine = LastLine(i_stPatient.strLog, pError, &u64Error);
        if (!strLine.empty() && u64Error > u64Run) {
            return {"pipelines", Verdict::No, "the log: " + strLine,
                    "Play the text of the log's last 'gst cmd' line with gst-launch-1.0: it says "
                    "which element fails."};
        }
    }
    const std::string strCondition = i_stPatient.Condition();
    if (strCondition == "failed" || strCondition == "stalled") {
        return {"pipelines", Verdict::No,
                "the guard: " + i_stPatient.objState.value("text", strCondition),
                "Read the end of the log (" + i_stPatient.strLogFact +
                    "), and restart the daemon (systemctl restart mv3300d)."};
    }
    return {"pipelines", Verdict::NotKnown, strRun.empty() ? "the log has no start" : strRun, ""};
}

FINDING_S CopyFinding(const PATIENT_S &i_stPatient)
{
    const Bool bMissed = i_stPatient.ShouldStream() && i_stPatient.Condition() != "starting";
    return {
        "packets",
        !i_stPatient.bPackets   ? Verdict::NotKnown
        : *i_stPatient.bPackets ? Verdict::Yes
        : bMissed               ? Verdict::No
                                : Verdict::NotKnown,
        i_stPatient.strPacketsFact,
        i_stPatient.bPackets == std::optional(false) && bMissed
            ? "Announce the timing again (mv3300ctl announce), and read the log if nothing comes."
            : ""};
}

FINDING_S RelayFinding(const PATIENT_S &i_stPatient)
{
    if (!i_stPatient.WantsPreview()) {
        return {"relay", Verdict::NotKnown, "the preview is off: nothing has to be passed on", ""};
    }
    if (i_stPatient.objState.is_object()) {
        const Bool bRefused = i_stPatient.Condition() == "relay-refused";
        return {
            "relay", bRefused ? Verdict::No : Verdict::Yes,
            "the guard passed on " + StateValue(i_stPatient.objState, "relay", "forwarded").dump() +
                " packets; refused " + StateValue(i_stPatient.objState, "relay", "refused").dump() +
                ", dropped " + StateValue(i_stPatient.objState, "relay", "dropped").dump(),
            bRefused ? "Restart the daemon: its preview does not listen on 127.0.0.1 port 12345."
                     : ""};
    }
    const auto strUdp = ReadFile("/proc/net/udp", kLongest);
    const Bool bThere = strUdp && HasUdpPort(*strUdp, kLocalCopy);
    return {"relay",
            !strUdp  ? Verdict::NotKnown
            : bThere ? Verdict::Yes
                     : Verdict::No,
            std::string(bThere ? "somebody" : "nobody") + " listens on 127.0.0.1 port 12350",
            strUdp && !bThere ? "Start the guard (systemctl start mv3300-guard): without it no "
                                "preview picture appears."
                              : ""};
}

FINDING_S PreviewFinding(const PATIENT_S &i_stPatient)
{
    if (!i_stPatient.WantsPreview() || !i_stPatient.bPackets.value_or(false)) {
        return {"preview", Verdict::NotKnown,
                i_stPatient.WantsPreview() ? "no packets, no pictures" : "the preview is off", ""};
    }
    /* The picture is taken away every 3 s, until the next one comes. */
    struct stat stStat = {};
    for (int i = 0; i < 40 && stat(kPicture, &stStat) != 0; i++) {
        usleep(100000);
    }
    const auto f64Age = static_cast<double>(time(nullptr) - stStat.st_mtime);
    if (stStat.st_mtime != 0 && f64Age < kFreshPicture) {
        return {"preview", Verdict::Yes,
                std::string(kPicture) + " is " + std::to_string(static_cast<int>(f64Age)) +
                    " s old",
                ""};
    }
    const std::string strFact = std::string(kPicture) + " did not come within 4 s";
    if (i_stPatient.objState.is_object() && i_stPatient.Condition() != "preview-stalled") {
        return {"preview", Verdict::NotKnown, strFact + "; the guard does not call it stalled", ""};
    }
    return {"preview", Verdict::No, strFact,
            "See that the relay runs, then switch the preview off and on (mv3300ctl set --preview "
            "off, on)."};
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

PATIENT_S Examine(const CONTROL_ENDPOINT_S &i_stEndpoint, const DOCTOR_PATHS_S &i_stPaths)
{
    PATIENT_S stPatient;
    stPatient.stEndpoint = i_stEndpoint;
    stPatient.stFile = CheckParamFile(i_stPaths.strParamFile);
    /* In a process of their own, which is made while this one has a single thread. */
    const INPUT_TIMING_S stAny = {1920, 1080, 60, 0};
    stPatient.strTryH264 =
        TryPipeline(BuildH264Cmd(stAny, stPatient.stFile.stStatus, "127.0.0.1:12350"), {});
    stPatient.strTryJpeg = TryPipeline(BuildJpegCmd(stAny, stPatient.stFile.stStatus), {});
    stPatient.stDaemon = LookAtDaemon(i_stEndpoint.strPidFile);
    stPatient.stAnswer = AskDaemon(i_stEndpoint, ASK_ALL, {}, kAnswerTime);
    stPatient.objState = ReadGuardState(&stPatient.strNoState);
    ReadLog(i_stPaths.strLogConfig, &stPatient);
    stPatient.stQuery = QueryCapture(kDevice);
    FindTiming(&stPatient);
    LookForPackets(&stPatient);
    return stPatient;
}

std::vector<FINDING_S> DiagnoseDaemon(const PATIENT_S &i_stPatient, const DOCTOR_PATHS_S &i_stPaths)
{
    const Bool bOn = i_stPatient.WantsH264();
    return {
        DaemonFinding(i_stPatient),
        PidFinding(i_stPatient),
        ControlFinding(i_stPatient),
        LogFinding(i_stPatient, i_stPaths.strLogConfig),
        ParamFinding(i_stPatient),
        {"H.264 is on", bOn ? Verdict::Yes : Verdict::No,
         i_stPatient.stAnswer.eResult == AskResult::Answered ? "the daemon" : "the parameter file",
         bOn ? "" : "Switch it on: mv3300ctl set --h264 on --save"}};
}

std::vector<FINDING_S> DiagnoseInput(const PATIENT_S &i_stPatient)
{
    return {DeviceFinding(i_stPatient), BusyFinding(i_stPatient),  DriverFinding(),
            LinkFinding(i_stPatient),   EventFinding(i_stPatient), TimingFinding(i_stPatient)};
}

std::vector<FINDING_S> DiagnoseStream(const PATIENT_S &i_stPatient)
{
    return {CopyFinding(i_stPatient), RelayFinding(i_stPatient), PreviewFinding(i_stPatient)};
}

std::vector<FINDING_S> Diagnose(const PATIENT_S &i_stPatient, const DOCTOR_PATHS_S &i_stPaths)
{
    std::vector<FINDING_S> objAll = DiagnoseDaemon(i_stPatient, i_stPaths);
    for (const auto &objMore :
         {DiagnoseInput(i_stPatient),
          std::vector<FINDING_S>{ElementsFinding(i_stPatient), PipelineFinding(i_stPatient)},
          DiagnoseNetwork(i_stPatient), DiagnoseStream(i_stPatient), DiagnoseMachine()}) {
        objAll.insert(objAll.end(), objMore.begin(), objMore.end());
    }
    return objAll;
}
