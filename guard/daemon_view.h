/*
 * The daemon as proc(5) shows it to any user: nothing here disturbs it or leaves a line in its log.
 */
#pragma once

#include <optional>
#include <string>

#include "framework/types.h"

inline constexpr char DAEMON_PID_FILE[] = "/var/run/mv3300.pid";

struct DAEMON_S {
    SInt32 s32Pid = 0;
    SInt64 s64StartMs = 0; /* CLOCK_BOOTTIME */
    SInt64 s64CpuMs = 0;   /* used so far */
    UInt64 u64Memory = 0;  /* resident, bytes */
};

/* The process that holds the lock on the pid file; none if nobody does. */
std::optional<DAEMON_S> LookAtDaemon(const std::string &i_strPidFile = DAEMON_PID_FILE);
/* True when it listens for uevents, so that it can be told a timing, and for control requests. */
Bool IsDaemonReady(SInt32 i_s32Pid);

/* The text of /proc/PID/stat; times in clock ticks of that many a second. */
std::optional<DAEMON_S> ParseProcStat(const std::string &i_strText, long i_s64Ticks,
                                      long i_s64PageSize);
/* Whether the text of /proc/net/netlink lists the uevent socket of that port. */
Bool HasUeventPort(const std::string &i_strText, SInt32 i_s32Port);
/* Whether the text of /proc/net/udp lists a socket on 127.0.0.1 (or any address) and that port. */
Bool HasUdpPort(const std::string &i_strText, UInt16 i_u16Port);
