/*
 * Utilities that are offered: broadcast address, version, files, ids in text, delays, shell runner.
 * The multicast groups of ids are in utils_multicast.cpp.
 */
#include "common/box/utils_offered.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <net/if.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "common/bus/log.h"
#include "framework/clock.h"
#include "framework/unique_fd.h"

namespace
{
constexpr char kNoBroadcast[IP_TEXT_SIZE] = "255.255.255.255";
constexpr char kRecordDir[] = "/mnt/REC/";
constexpr SInt32 kBusyDelayLimitMs = 2147483;
constexpr SInt64 kSpinLimitUs = 10000;
constexpr long kTenMsInNs = 10000000;

bool HasFileType(const char *i_pPath, mode_t i_u32Type)
{
    struct stat stStat;
    return i_pPath != nullptr && stat(i_pPath, &stStat) == 0 &&
           (stStat.st_mode & S_IFMT) == i_u32Type;
}

SInt32 WrappedDifference(const void *i_pA, const void *i_pB)
{
    UInt32 u32A = 0;
    UInt32 u32B = 0;
    memcpy(&u32A, i_pA, sizeof(u32A));
    memcpy(&u32B, i_pB, sizeof(u32B));
    return static_cast<SInt32>(u32A - u32B);
}

/* The next id in the text, which must not start inside a run; null when there is none left. */
const char *NextMacId(const char *i_pText)
{
    while (*i_pText != '\0') {
        const char *pRun = i_pText;
        while (mac_char_check(i_pText)) {
            i_pText++;
        }
        if (i_pText - pRun == MAC_ID_LEN) {
            return pRun;
        }
        if (i_pText == pRun) {
            i_pText++;
        }
    }
    return nullptr;
}

SInt32 WaitForChild(pid_t i_s32Pid)
{
    int s32Status = 0;
    while (waitpid(i_s32Pid, &s32Status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return s32Status;
}
} // namespace

Bool GetLocalBcastIPStr(const char *i_pIfName, char *o_pOut)
{
    memcpy(o_pOut, kNoBroadcast, IP_TEXT_SIZE);
    const UniqueFd objSocket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!objSocket) {
        printf("Get Local Bcast IP open socket failed\n");
        return false;
    }
    struct ifreq stRequest;
    if (QueryInterface(objSocket.Get(), SIOCGIFBRDADDR, i_pIfName, &stRequest)) {
        memset(o_pOut, 0, IP_TEXT_SIZE);
        IpToText(&stRequest.ifr_broadaddr, o_pOut);
    } else {
        printf("Get Local Bcast IP failed\n");
    }
    return true;
}

Bool GetLocalBcastIP(const char *i_pIfName, UInt32 *o_pIp)
{
    char szIp[IP_TEXT_SIZE];
    Bool bAsked = GetLocalBcastIPStr(i_pIfName, szIp);
    *o_pIp = TextToIp(szIp);
    return bAsked;
}

UInt32 GetLocalBcastIP(const char *i_pIfName)
{
    UInt32 u32Ip = 0;
    GetLocalBcastIP(i_pIfName, &u32Ip);
    return u32Ip;
}

int GetLocalDevVersion(char *o_pBuf, int i_s32Len, const char *i_pPath)
{
    if (o_pBuf == nullptr || i_s32Len <= 0) {
        LOG_ERROR("input version addr is null or len is 0\n");
        return 0;
    }
    FILE *pFile = fopen(i_pPath, "re");
    if (pFile == nullptr) {
        return 1;
    }
    if (fgets(o_pBuf, i_s32Len, pFile) == nullptr) {
        o_pBuf[0] = '\0';
    }
    fclose(pFile);
    std::size_t u64Len = strlen(o_pBuf);
    if (u64Len > 0 && o_pBuf[u64Len - 1] == '\n') {
        o_pBuf[u64Len - 1] = '\0';
    }
    return 1;
}

int GetRecordDir(char *o_pBuf, int i_s32Len)
{
    if (o_pBuf == nullptr || i_s32Len < 2) {
        return 0;
    }
    std::size_t u64Len = static_cast<std::size_t>(i_s32Len);
    memset(o_pBuf, 0, u64Len);
    memcpy(o_pBuf, kRecordDir, std::min(u64Len, sizeof(kRecordDir)) - 1);
    return 1;
}

Bool IS_DIR(const char *i_pPath)
{
    return HasFileType(i_pPath, S_IFDIR);
}

Bool IS_FILE(const char *i_pPath)
{
    return HasFileType(i_pPath, S_IFREG);
}

int cmp_desc(const void *i_pA, const void *i_pB)
{
    return WrappedDifference(i_pB, i_pA);
}

int cmp_asc(const void *i_pA, const void *i_pB)
{
    return WrappedDifference(i_pA, i_pB);
}

Bool mac_char_check(const char *i_pChar)
{
    if (i_pChar == nullptr) {
        printf("mac_char_check para err");
        return false;
    }
    return isxdigit(static_cast<unsigned char>(*i_pChar)) != 0;
}

SInt32 get_num_mac(const char *i_pText)
{
    if (i_pText == nullptr) {
        LOG_ERROR("get_num_src para err");
        return -1;
    }
    SInt32 s32Count = 0;
    for (const char *pId = NextMacId(i_pText); pId != nullptr; pId = NextMacId(pId + MAC_ID_LEN)) {
        s32Count++;
    }
    return s32Count;
}

SInt32 get_mac_addr(const char *i_pText, SInt32 i_s32Max, char (*o_pRows)[32])
{
    if (i_pText == nullptr || i_s32Max < 0 || (i_s32Max > 0 && o_pRows == nullptr)) {
        LOG_ERROR("get_num_addr para <%d> err", i_s32Max);
        return -1;
    }
    if (i_s32Max == 0) {
        LOG_WARN("get_num_addr para <%d>", i_s32Max);
        return 0;
    }
    SInt32 s32Count = 0;
    for (const char *pId = NextMacId(i_pText); pId != nullptr && s32Count < i_s32Max;
         pId = NextMacId(pId + MAC_ID_LEN)) {
        memcpy(o_pRows[s32Count], pId, MAC_ID_LEN);
        s32Count++;
    }
    return s32Count;
}

void busy_delay(SInt32 i_s32Milliseconds)
{
    if (i_s32Milliseconds <= 0 || i_s32Milliseconds >= kBusyDelayLimitMs) {
        return;
    }
    SInt64 s64Begin = GetTimeInMcros();
    SInt64 s64Last = s64Begin;
    while (s64Last >= 0 && s64Last - s64Begin < i_s32Milliseconds * SInt64{1000}) {
        SInt64 s64Now = GetTimeInMcros();
        if (s64Now < s64Last) {
            return;
        }
        s64Last = s64Now;
    }
}

void delay_microsecond_busy(SInt32 i_s32Microseconds)
{
    if (i_s32Microseconds < 1) {
        return;
    }
    SInt64 s64Begin = GetTimeInMcros();
    if (s64Begin < 0) {
        printf("delay_microsecond_busy beg GetTimeInMcros=%ld fail \n",
               static_cast<long>(s64Begin));
        return;
    }
    SInt64 s64Last = s64Begin;
    while (s64Last - s64Begin < i_s32Microseconds) {
        SInt64 s64Now = GetTimeInMcros();
        if (s64Now < s64Last) {
            printf("delay_microsecond_busy end GetTimeInMcros=%ld fail \n",
                   static_cast<long>(s64Now));
            return;
        }
        s64Last = s64Now;
    }
}

void delay_millisecond_10()
{
    /* Kept: the time is absolute, 10 ms after the start of the clock, and has long passed. The
     * call gives way to the scheduler at best; callers measure the time themselves. */
    const struct timespec stTime = {0, kTenMsInNs};
    if (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &stTime, nullptr) != 0) {
        printf("delay_millisecond_10 fail");
    }
}

void delay_microsecond(SInt32 i_s32Microseconds)
{
    if (i_s32Microseconds <= 0) {
        return;
    }
    SInt64 s64Begin = GetTimeInMcros();
    SInt64 s64Now = s64Begin;
    SInt64 s64Remaining = i_s32Microseconds;
    while (s64Now >= 0) {
        if (s64Remaining <= kSpinLimitUs) {
            delay_microsecond_busy(static_cast<SInt32>(s64Remaining));
        } else {
            delay_millisecond_10();
        }
        s64Now = GetTimeInMcros();
        if (s64Now >= 0 && s64Now - s64Begin >= i_s32Microseconds) {
            return;
        }
        s64Remaining = i_s32Microseconds - (s64Now - s64Begin);
    }
    LOG_ERROR("delay_microsecond fail, use usleep instead");
    usleep(static_cast<useconds_t>(i_s32Microseconds));
}

SInt32 system_vfork(const char *i_pCmd)
{
    if (i_pCmd == nullptr) {
        return 1;
    }
    /* vfork() spares the copy of the daemon's page tables; the child runs in our memory, though
     * with signal actions of its own, and does nothing but become the shell. */
    /* NOLINTBEGIN(clang-analyzer-security.insecureAPI.vfork, clang-analyzer-unix.Vfork) */
    pid_t s32Pid = vfork();
    if (s32Pid == 0) {
        /* Ignored by the daemon's sockets; a command expects the default. */
        signal(SIGPIPE, SIG_DFL);
        execl("/bin/sh", "sh", "-c", i_pCmd, static_cast<char *>(nullptr));
        _exit(127);
    }
    /* NOLINTEND(clang-analyzer-security.insecureAPI.vfork, clang-analyzer-unix.Vfork) */
    SInt32 s32Status = -1;
    if (s32Pid < 0) {
        LOG_ERROR("my_system vfork err ");
    } else {
        s32Status = WaitForChild(s32Pid);
    }
    LOG_INFO("my_system cmd<%s> status = %d", i_pCmd, s32Status);
    return s32Status;
}
