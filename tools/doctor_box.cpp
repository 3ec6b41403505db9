/*
 * The network and the machine around the daemon.
 */
#include "tools/doctor.h"

#include <cerrno>
#include <cstring>
#include <sstream>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/rtnetlink.h>
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

/* Interface that the system sends to the address by (rtnetlink(7)); "" with errno when it has no
 * way. The source address would not tell: it may be another interface's. */
std::string InterfaceTo(const std::string &i_strAddress)
{
    struct {
        nlmsghdr stHeader;
        rtmsg stRoute;
        rtattr stAttribute;
        in_addr stTo;
    } stAsk = {};
    stAsk.stHeader = {sizeof(stAsk), RTM_GETROUTE, NLM_F_REQUEST, 1, 0};
    stAsk.stRoute.rtm_family = AF_INET;
    stAsk.stRoute.rtm_dst_len = 32;
    stAsk.stAttribute = {sizeof(rtattr) + sizeof(in_addr), RTA_DST};
    inet_pton(AF_INET, i_strAddress.c_str(), &stAsk.stTo);
    alignas(nlmsghdr) char szAnswer[4096];
    const UniqueFd objFd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    ssize_t s64Length = -1;
    if (!objFd || send(objFd.Get(), &stAsk, sizeof(stAsk), 0) < 0 ||
        (s64Length = recv(objFd.Get(), szAnswer, sizeof(szAnswer), 0)) < 0) {
        return "";
    }
    const auto *pHeader = static_cast<const nlmsghdr *>(static_cast<const void *>(szAnswer));
    errno = ENETUNREACH;
    if (!NLMSG_OK(pHeader, s64Length)) {
        return "";
    }
    if (pHeader->nlmsg_type != RTM_NEWROUTE) {
        errno = pHeader->nlmsg_type == NLMSG_ERROR
                    ? -static_cast<const nlmsgerr *>(NLMSG_DATA(pHeader))->error
                    : errno;
        return "";
    }
    auto s64Left = static_cast<int>(RTM_PAYLOAD(pHeader));
    for (const rtattr *pOne = RTM_RTA(static_cast<const rtmsg *>(NLMSG_DATA(pHeader)));
         RTA_OK(pOne, s64Left); pOne = RTA_NEXT(pOne, s64Left)) {
        UInt32 u32Index = 0;
        char szName[IF_NAMESIZE] = "";
        if (pOne->rta_type == RTA_OIF && RTA_PAYLOAD(pOne) == sizeof(u32Index)) {
            memcpy(&u32Index, RTA_DATA(pOne), sizeof(u32Index));
            return if_indextoname(u32Index, szName) != nullptr ? szName : "?";
        }
    }
    return "";
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

FINDING_S ClockFinding(time_t i_s64Now)
{
    char szNow[32] = "";
    tm stTime = {};
    strftime(szNow, sizeof(szNow), "%Y-%m-%d %H:%M:%S", localtime_r(&i_s64Now, &stTime));
    if (i_s64Now < kNotBefore) {
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
    if (i_stPatient.stFile.bRefused) {
        const std::string strFact = "they stand in a file that you may not read";
        return {{"receivers", Verdict::NotKnown, strFact, ""},
                {"multicast route", Verdict::NotKnown, strFact, ""}};
    }
    const std::vector<RECEIVER_S> objReceivers = CheckReceivers(i_stPatient.stFile.strAddrList);
    return {ReceiversFinding(objReceivers),
            objReceivers.empty() ? GroupFinding()
                                 : FINDING_S{"multicast route", Verdict::NotKnown,
                                             "not used: the receivers are listed", ""}};
}

std::vector<FINDING_S> DiagnoseMachine(time_t i_s64Now)
{
    return {DiskFinding(), MemoryFinding(), ClockFinding(i_s64Now)};
}
