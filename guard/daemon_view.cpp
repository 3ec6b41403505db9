/*
 * Reading proc(5).
 */
#include "guard/daemon_view.h"

#include <cinttypes>
#include <cstdio>
#include <sstream>

#include <linux/netlink.h>
#include <unistd.h>

#include "guard/files.h"
#include "tools/control_channel.h"

namespace
{
constexpr UInt16 kControlPort = 8366;
constexpr std::size_t kLongestTable = 4 * 1024 * 1024;
constexpr UInt32 kLoopback = 0x0100007F; /* as the table shows it on a little-endian machine */

SInt64 Milliseconds(UInt64 i_u64Ticks, long i_s64TicksPerSecond)
{
    return static_cast<SInt64>(i_u64Ticks) * 1000 / i_s64TicksPerSecond;
}
} // namespace

std::optional<DAEMON_S> ParseProcStat(const std::string &i_strText, long i_s64Ticks,
                                      long i_s64PageSize)
{
    /* The name, in brackets, may hold anything. */
    const std::size_t u64Name = i_strText.rfind(')');
    DAEMON_S stDaemon;
    UInt64 u64User = 0;
    UInt64 u64System = 0;
    UInt64 u64Start = 0;
    UInt64 u64Pages = 0;
    if (u64Name == std::string::npos || sscanf(i_strText.c_str(), "%d", &stDaemon.s32Pid) != 1 ||
        sscanf(i_strText.c_str() + u64Name + 1,
               " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %" SCNu64 " %" SCNu64
               " %*d %*d %*d %*d %*d %*d %" SCNu64 " %*u %" SCNu64,
               &u64User, &u64System, &u64Start, &u64Pages) != 4) {
        return std::nullopt;
    }
    stDaemon.s64StartMs = Milliseconds(u64Start, i_s64Ticks);
    stDaemon.s64CpuMs = Milliseconds(u64User + u64System, i_s64Ticks);
    stDaemon.u64Memory = u64Pages * static_cast<UInt64>(i_s64PageSize);
    return stDaemon;
}

std::optional<DAEMON_S> LookAtDaemon(const std::string &i_strPidFile)
{
    const std::optional<SInt32> s32Pid = FindDaemon(i_strPidFile);
    if (!s32Pid) {
        return std::nullopt;
    }
    const auto strStat = ReadFile("/proc/" + std::to_string(*s32Pid) + "/stat", kLongestTable);
    return strStat ? ParseProcStat(*strStat, sysconf(_SC_CLK_TCK), sysconf(_SC_PAGESIZE))
                   : std::nullopt;
}

Bool HasUeventPort(const std::string &i_strText, SInt32 i_s32Port)
{
    std::istringstream objLines(i_strText);
    for (std::string strLine; std::getline(objLines, strLine);) {
        int s32Protocol = 0;
        UInt32 u32Port = 0;
        if (sscanf(strLine.c_str(), "%*s %d %" SCNu32, &s32Protocol, &u32Port) == 2 &&
            s32Protocol == NETLINK_KOBJECT_UEVENT && u32Port == static_cast<UInt32>(i_s32Port)) {
            return true;
        }
    }
    return false;
}

Bool HasUdpPort(const std::string &i_strText, UInt16 i_u16Port)
{
    std::istringstream objLines(i_strText);
    for (std::string strLine; std::getline(objLines, strLine);) {
        UInt32 u32Address = 0;
        UInt32 u32Port = 0;
        if (sscanf(strLine.c_str(), " %*d: %" SCNx32 ":%" SCNx32, &u32Address, &u32Port) == 2 &&
            u32Port == i_u16Port && (u32Address == kLoopback || u32Address == 0)) {
            return true;
        }
    }
    return false;
}

Bool IsDaemonReady(SInt32 i_s32Pid)
{
    const auto strNetlink = ReadFile("/proc/net/netlink", kLongestTable);
    const auto strUdp = ReadFile("/proc/net/udp", kLongestTable);
    return strNetlink && strUdp && HasUeventPort(*strNetlink, i_s32Pid) &&
           HasUdpPort(*strUdp, kControlPort);
}
