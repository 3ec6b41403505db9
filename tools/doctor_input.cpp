/*
 * The capture device, its link and the timing.
 */
#include "tools/doctor.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "framework/unique_fd.h"
#include "guard/files.h"
#include "tools/guard_state.h"

namespace
{
constexpr std::size_t kLongest = 64 * 1024;

/* The numbers of a line of /proc/PID/status, such as "Groups:"; none if it is not there. */
std::vector<UInt32> StatusNumbers(SInt32 i_s32Pid, const std::string &i_strName)
{
    const std::string strPath = "/proc/" + std::to_string(i_s32Pid) + "/status";
    std::istringstream objLines(ReadFile(strPath, kLongest).value_or(""));
    std::vector<UInt32> u32Numbers;
    for (std::string strLine; std::getline(objLines, strLine);) {
        if (strLine.rfind(i_strName, 0) == 0) {
            std::istringstream objWords(strLine.substr(i_strName.size()));
            for (UInt32 u32One = 0; objWords >> u32One;) {
                u32Numbers.push_back(u32One);
            }
        }
    }
    return u32Numbers;
}

/* Why the process may not read and write the file by its mode (inode(7)); "" if it may, or where
 * that cannot be told. Lists of access rights (acl(5)) show in the mode as the group's. */
std::string WhyDenied(SInt32 i_s32Pid, const std::string &i_strFile)
{
    constexpr std::size_t kEffective = 1; /* proc(5): real, effective, saved, of the file system */
    const std::vector<UInt32> u32Users = StatusNumbers(i_s32Pid, "Uid:");
    const std::vector<UInt32> u32Main = StatusNumbers(i_s32Pid, "Gid:");
    std::vector<UInt32> u32Groups = StatusNumbers(i_s32Pid, "Groups:");
    struct stat stStat = {};
    if (u32Users.size() <= kEffective || u32Main.size() <= kEffective ||
        u32Users[kEffective] == 0 || stat(i_strFile.c_str(), &stStat) != 0) {
        return "";
    }
    u32Groups.push_back(u32Main[kEffective]);
    const Bool bGroup = std::ranges::find(u32Groups, stStat.st_gid) != u32Groups.end();
    const unsigned u32Shift = u32Users[kEffective] == stStat.st_uid ? 6 : bGroup ? 3 : 0;
    if ((stStat.st_mode >> u32Shift & 6) == 6) {
        return "";
    }
    char szFact[160];
    snprintf(szFact, sizeof(szFact),
             "%s is of user %u and group %u with mode %04o, and the daemon runs as user %u",
             i_strFile.c_str(), stStat.st_uid, stStat.st_gid, stStat.st_mode & 07777,
             u32Users[kEffective]);
    return szFact;
}

FINDING_S DeviceFinding(const PATIENT_S &i_stPatient, const DOCTOR_PATHS_S &i_stPaths)
{
    const UniqueFd objFd(open(i_stPaths.strDevice.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    const int s32Error = objFd ? 0 : errno;
    const Bool bPackets = i_stPatient.bPackets.value_or(false);
    const std::string strDenied = i_stPatient.stDaemon && !bPackets
                                      ? WhyDenied(i_stPatient.stDaemon->s32Pid, i_stPaths.strDevice)
                                      : "";
    if (!strDenied.empty()) {
        return {"capture device", Verdict::No, strDenied,
                "Let the daemon's user into the device's group (usermod -aG video mv3300), and "
                "restart the daemon."};
    }
    const std::string strFact =
        i_stPaths.strDevice +
        (s32Error == 0 ? " can be opened" : std::string(": ") + strerror(s32Error));
    if (s32Error == 0 || s32Error == EBUSY) {
        return {"capture device", Verdict::Yes, strFact, ""};
    }
    /* A bench: a kernel without V4L2 (its class in sysfs comes with its core, which a box loads for
     * its codec alone) has no place for the device. On a box the device is what is missing. */
    const Bool bBench = access(i_stPaths.strDriver.c_str(), F_OK) != 0 &&
                        access(i_stPaths.strVideoClass.c_str(), F_OK) != 0;
    if (bPackets || bBench || s32Error == EACCES || s32Error == EPERM) {
        return {"capture device", Verdict::NotKnown, strFact, ""};
    }
    return {"capture device", Verdict::No, strFact,
            "Load the bridge's driver, and look for it in the kernel's log (dmesg)."};
}

FINDING_S BusyFinding(const PATIENT_S &i_stPatient, const DOCTOR_PATHS_S &i_stPaths)
{
    const std::string strHolders =
        HoldersOf(i_stPaths.strDevice, i_stPatient.stDaemon ? i_stPatient.stDaemon->s32Pid : 0);
    const Bool bBusy = i_stPatient.stQuery.strFact.find(strerror(EBUSY)) != std::string::npos;
    if (!i_stPatient.bPackets.value_or(false) && (bBusy || !strHolders.empty())) {
        return {"device is free", Verdict::No,
                strHolders.empty() ? i_stPatient.stQuery.strFact
                                   : "process " + strHolders + " has it",
                "End the other program that uses the capture device."};
    }
    const Bool bTold = geteuid() == 0 && access(i_stPaths.strDevice.c_str(), F_OK) == 0;
    return {"device is free", bTold ? Verdict::Yes : Verdict::NotKnown,
            bTold ? "no process but the daemon has it" : "it takes root and the device to tell",
            ""};
}

FINDING_S DriverFinding(const std::string &i_strDriver)
{
    DIR *pFolder = opendir(i_strDriver.c_str());
    if (pFolder == nullptr) {
        return {"bridge driver", Verdict::NotKnown, i_strDriver + ": " + strerror(errno), ""};
    }
    std::string strChip;
    while (const dirent *pEntry = readdir(pFolder)) {
        if (pEntry->d_name[0] >= '0' && pEntry->d_name[0] <= '9') {
            strChip = pEntry->d_name;
        }
    }
    closedir(pFolder);
    if (strChip.empty()) {
        return {"bridge driver", Verdict::No, i_strDriver + " is bound to no chip",
                "Look into the kernel's log (dmesg) for why the driver does not find its chip."};
    }
    return {"bridge driver", Verdict::Yes, "it is bound to " + strChip, ""};
}

const char *LinkAdvice(Link i_eLink)
{
    switch (i_eLink) {
    case Link::NoLink:
        return "Plug in the HDMI cable and switch the source on.";
    case Link::NoLock:
        return "Switch the source off and on, and try another or a shorter cable.";
    case Link::OutOfRange:
        return "Choose another picture format at the source: the bridge cannot take this one.";
    default:
        return "";
    }
}

FINDING_S LinkFinding(const PATIENT_S &i_stPatient)
{
    const QUERY_S &stQuery = i_stPatient.stQuery;
    if (stQuery.eLink == Link::Ok || stQuery.eLink == Link::Unknown) {
        return {"link", stQuery.eLink == Link::Ok ? Verdict::Yes : Verdict::NotKnown,
                stQuery.strFact, ""};
    }
    return {"link", Verdict::No, NoSignalText(stQuery.eLink) + " (" + stQuery.strFact + ")",
            LinkAdvice(stQuery.eLink)};
}

FINDING_S EventFinding(const PATIENT_S &i_stPatient)
{
    const std::string strLine = LastLine(i_stPatient.strLog, "event {'tc358743'");
    const nlohmann::json objTime = StateValue(i_stPatient.objState, "input", "time");
    const nlohmann::json objOrigin = StateValue(i_stPatient.objState, "input", "origin");
    if (objOrigin.is_string() && objOrigin.get<std::string>() == "uevent" && objTime.is_number()) {
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
} // namespace

std::vector<FINDING_S> DiagnoseInput(const PATIENT_S &i_stPatient, const DOCTOR_PATHS_S &i_stPaths)
{
    return {DeviceFinding(i_stPatient, i_stPaths),
            BusyFinding(i_stPatient, i_stPaths),
            DriverFinding(i_stPaths.strDriver),
            LinkFinding(i_stPatient),
            EventFinding(i_stPatient),
            TimingFinding(i_stPatient)};
}
