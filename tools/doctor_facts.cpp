/*
 * What is looked at before anything is judged.
 */
#include "tools/doctor.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/bus/log_config.h"
#include "common/stream/pipeline_desc.h"
#include "framework/unique_fd.h"
#include "guard/files.h"
#include "guard/loopback.h"
#include "guard/rtp.h"
#include "guard/state.h"
#include "tools/file_end.h"
#include "tools/guard_state.h"
#include "tools/try_pipeline.h"

namespace
{
constexpr std::chrono::milliseconds kAnswerTime(4000);
constexpr UInt16 kLocalCopy = 12350;
constexpr int kListenMs = 2000;
constexpr double kFreshPacket = 2; /* s */
constexpr std::size_t kLogTail = 256 * 1024;
constexpr std::size_t kLongest = 4 * 1024 * 1024;

/* The end of the first file that the log configuration names. */
void ReadLog(const std::string &i_strConfig, PATIENT_S *io_pPatient)
{
    io_pPatient->strLogFact = FirstLogFile(i_strConfig.c_str());
    if (io_pPatient->strLogFact.empty()) {
        io_pPatient->strLogFact = i_strConfig + " names no file";
        return;
    }
    const auto strText = ReadEnd(io_pPatient->strLogFact, kLogTail);
    if (!strText) {
        io_pPatient->strLogFact += std::string(": ") + strerror(errno);
    }
    io_pPatient->strLog = strText.value_or("");
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

/* Who has the UDP port (proc(5), /proc/net/udp: the tenth word is the socket's inode). */
std::string PortHolder(UInt16 i_u16Port)
{
    char szPort[8];
    snprintf(szPort, sizeof(szPort), ":%04X", i_u16Port);
    std::istringstream objLines(ReadFile("/proc/net/udp", kLongest).value_or(""));
    for (std::string strLine; std::getline(objLines, strLine);) {
        std::istringstream objWords(strLine);
        std::string strWords[10];
        for (std::string &strWord : strWords) {
            objWords >> strWord;
        }
        if (strWords[1] == std::string("0100007F") + szPort ||
            strWords[1] == std::string("00000000") + szPort) {
            return HoldersOf("socket:[" + strWords[9] + "]", 0);
        }
    }
    return "";
}

void LookForPackets(PATIENT_S *io_pPatient)
{
    io_pPatient->strCopyHolder = PortHolder(kLocalCopy);
    if (StateValue(io_pPatient->objState, "relay", "listening") == false) {
        io_pPatient->strPacketsFact = "the guard cannot take 127.0.0.1 port 12350" +
                                      (io_pPatient->strCopyHolder.empty()
                                           ? std::string(", which another program has")
                                           : ": process " + io_pPatient->strCopyHolder + " has it");
    } else if (io_pPatient->objState.is_object()) {
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
} // namespace

std::string LastLine(const std::string &i_strLog, const std::string &i_strPart, std::size_t *o_pAt)
{
    const std::size_t u64At = i_strLog.rfind(i_strPart);
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

std::string HoldersOf(const std::string &i_strTarget, SInt32 i_s32But)
{
    std::string strHolders;
    DIR *pProcesses = opendir("/proc");
    while (const dirent *pProcess = pProcesses != nullptr ? readdir(pProcesses) : nullptr) {
        const std::string strFolder = std::string("/proc/") + pProcess->d_name;
        const int s32Pid = atoi(pProcess->d_name);
        DIR *pFds = s32Pid > 0 && s32Pid != i_s32But && s32Pid != getpid()
                        ? opendir((strFolder + "/fd").c_str())
                        : nullptr;
        Bool bHolds = false;
        while (const dirent *pFd = pFds != nullptr ? readdir(pFds) : nullptr) {
            char szTarget[64] = "";
            (void)!readlink((strFolder + "/fd/" + pFd->d_name).c_str(), szTarget,
                            sizeof(szTarget) - 1);
            bHolds = bHolds || i_strTarget == szTarget;
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
    stPatient.stQuery = QueryCapture(i_stPaths.strDevice);
    FindTiming(&stPatient);
    LookForPackets(&stPatient);
    return stPatient;
}
