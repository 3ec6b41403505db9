/*
 * The network and the machine around the daemon.
 */
#include "tools/doctor.h"

#include <cerrno>
#include <cstring>
#include <sstream>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <sys/timex.h>
#include <time.h>

#include "common/box/utils.h"
#include "common/stream/pipeline_desc.h"
#include "framework/unique_fd.h"
#include "guard/files.h"

namespace
{
constexpr char kInterface[] = "eth0";
constexpr std::size_t kLongest = 1024 * 1024;
constexpr time_t kNotBefore = 1767225600; /* 2026-01-01: a clock that is earlier was never set */

/* Interface that the system sends to the address by; "" with errno when it has no way. Nothing is
 * sent. */
std::string InterfaceTo(const std::string &i_strAddress)
{
    const UniqueFd objFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in stTo = {};
    stTo.sin_family = AF_INET;
    stTo.sin_port = htons(kStreamPort);
    inet_pton(AF_INET, i_strAddress.c_str(), &stTo.sin_addr);
    sockaddr_in stFrom = {};
    socklen_t u32Size = sizeof(stFrom);
    ifaddrs *pAll = nullptr;
    if (connect(objFd.Get(), reinterpret_cast<sockaddr *>(&stTo), sizeof(stTo)) != 0 ||
        getsockname(objFd.Get(), reinterpret_cast<sockaddr *>(&stFrom), &u32Size) != 0 ||
        getifaddrs(&pAll) != 0) {
        return "";
    }
    std::string strName = "?";
    for (const ifaddrs *pOne = pAll; pOne != nullptr; pOne = pOne->ifa_next) {
        if (pOne->ifa_addr != nullptr && pOne->ifa_addr->sa_family == AF_INET) {
            sockaddr_in stOne;
            memcpy(&stOne, pOne->ifa_addr, sizeof(stOne));
            if (stOne.sin_addr.s_addr == stFrom.sin_addr.s_addr) {
                strName = pOne->ifa_name;
            }
        }
    }
    freeifaddrs(pAll);
    return strName;
}

Bool HasCarrier(const char *i_pInterface)
{
    ifaddrs *pAll = nullptr;
    if (getifaddrs(&pAll) != 0) {
        return true;
    }
    Bool bRunning = false;
    for (const ifaddrs *pOne = pAll; pOne != nullptr; pOne = pOne->ifa_next) {
        bRunning = bRunning || (strcmp(pOne->ifa_name, i_pInterface) == 0 &&
                                (pOne->ifa_flags & IFF_RUNNING) != 0);
    }
    freeifaddrs(pAll);
    return bRunning;
}

/* Asked for by ARP, without an answer (proc(5): flags of an entry that is not complete). */
Bool IsSilent(const std::string &i_strAddress)
{
    std::istringstream objLines(ReadFile("/proc/net/arp", kLongest).value_or(""));
    for (std::string strLine; std::getline(objLines, strLine);) {
        std::istringstream objWords(strLine);
        std::string strAddress;
        std::string strType;
        std::string strFlags;
        objWords >> strAddress >> strType >> strFlags;
        if (strAddress == i_strAddress && strFlags == "0x0") {
            return true;
        }
    }
    return false;
}

FINDING_S ReceiversFinding(const std::vector<RECEIVER_S> &i_objReceivers)
{
    std::string strWays;
    for (const RECEIVER_S &stReceiver : i_objReceivers) {
        std::string strProblem = stReceiver.strProblem;
        const std::string strInterface =
            strProblem.empty() ? InterfaceTo(stReceiver.strAddress) : "";
        if (strProblem.empty() && strInterface.empty()) {
            strProblem = strerror(errno);
        } else if (strProblem.empty() && IsSilent(stReceiver.strAddress)) {
            strProblem = "it does not answer ARP";
        }
        if (!strProblem.empty()) {
            return {"receivers", Verdict::No, stReceiver.strText + ": " + strProblem,
                    "Switch the receiver on, or correct the parameter addr_list."};
        }
        strWays += (strWays.empty() ? "" : ", ") + stReceiver.strText + " by " + strInterface;
    }
    return strWays.empty() ? FINDING_S{"receivers", Verdict::NotKnown,
                                       "the list is empty: the stream goes to the group", ""}
                           : FINDING_S{"receivers", Verdict::Yes, strWays, ""};
}

FINDING_S GroupFinding()
{
    std::string strGroup;
    if (get_multicast_ip(strGroup, kInterface) != 0) {
        return {"multicast route", Verdict::No, "eth0 has no hardware address",
                "Bring eth0 up: the box's group is derived from it."};
    }
    const std::string strInterface = InterfaceTo(strGroup);
    if (strInterface != kInterface) {
        return {"multicast route", Verdict::No,
                strGroup + (strInterface.empty() ? std::string(": ") + strerror(errno)
                                                 : " goes by " + strInterface),
                "Give eth0 an address and the route: ip route add 224.0.0.0/4 dev eth0"};
    }
    if (!HasCarrier(kInterface)) {
        return {"multicast route", Verdict::No, "eth0 has no carrier",
                "Plug in the network cable of eth0."};
    }
    return {"multicast route", Verdict::Yes, strGroup + " goes by eth0", ""};
}

FINDING_S DiskFinding()
{
    std::string strFact;
    for (const char *pFolder : {"/config", "/run", "/tmp"}) {
        struct statvfs stStat = {};
        if (statvfs(pFolder, &stStat) != 0 || stStat.f_blocks == 0) {
            continue;
        }
        const UInt64 u64Free = static_cast<UInt64>(stStat.f_bavail) * stStat.f_frsize;
        const std::string strOne =
            std::string(pFolder) + " has " + std::to_string(u64Free >> 20) + " MiB left";
        if (u64Free < 1U << 20) {
            return {"disk", Verdict::No, strOne, std::string("Make room in ") + pFolder + "."};
        }
        strFact += (strFact.empty() ? "" : ", ") + strOne;
    }
    return {"disk", strFact.empty() ? Verdict::NotKnown : Verdict::Yes, strFact, ""};
}

FINDING_S MemoryFinding()
{
    std::istringstream objLines(ReadFile("/proc/meminfo", kLongest).value_or(""));
    UInt64 u64Total = 0;
    UInt64 u64Free = 0;
    for (std::string strLine; std::getline(objLines, strLine);) {
        (void)sscanf(strLine.c_str(), "MemTotal: %lu", &u64Total);
        (void)sscanf(strLine.c_str(), "MemAvailable: %lu", &u64Free);
    }
    if (u64Total == 0) {
        return {"memory", Verdict::NotKnown, "/proc/meminfo tells nothing", ""};
    }
    const Bool bGood = u64Free * 20 >= u64Total;
    return {"memory", bGood ? Verdict::Yes : Verdict::No,
            std::to_string(u64Free >> 10) + " of " + std::to_string(u64Total >> 10) +
                " MiB are available",
            bGood ? "" : "End what takes the memory: less than a twentieth is left."};
}

FINDING_S ClockFinding()
{
    const time_t s64Now = time(nullptr);
    char szNow[32] = "";
    tm stTime = {};
    strftime(szNow, sizeof(szNow), "%Y-%m-%d %H:%M:%S", localtime_r(&s64Now, &stTime));
    if (s64Now < kNotBefore) {
        return {"clock", Verdict::No, szNow, "Set the clock: the times in the log are wrong."};
    }
    timex stClock = {};
    const int s32Clock = adjtimex(&stClock);
    return {"clock", s32Clock < 0 || s32Clock == TIME_ERROR ? Verdict::NotKnown : Verdict::Yes,
            std::string(szNow) +
                (s32Clock == TIME_ERROR ? ", which nothing keeps in step" : ", kept in step"),
            ""};
}
} // namespace

std::vector<FINDING_S> DiagnoseNetwork(const PATIENT_S &i_stPatient)
{
    const std::vector<RECEIVER_S> objReceivers = CheckReceivers(i_stPatient.stFile.strAddrList);
    return {ReceiversFinding(objReceivers),
            objReceivers.empty() ? GroupFinding()
                                 : FINDING_S{"multicast route", Verdict::NotKnown,
                                             "not used: the receivers are listed", ""}};
}

std::vector<FINDING_S> DiagnoseMachine()
{
    return {DiskFinding(), MemoryFinding(), ClockFinding()};
}
