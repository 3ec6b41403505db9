/*
 * The way to the daemon and back: one request datagram to its port, one reply datagram on the
 * client's, both on 127.0.0.1.
 *
 * Nothing is kept between requests: the reply port, of which there is one for all readers, is held
 * only while a request is on its way. One thread at a time.
 */
#pragma once

#include <chrono>
#include <istream>
#include <optional>
#include <string>

#include "tools/stream_command.h"

struct CONTROL_ENDPOINT_S {
    UInt16 u16RequestPort = 8366;
    UInt16 u16ReplyPort = 8365;
    std::string strPidFile = "/var/run/mv3300.pid";
};

enum class AskResult {
    Answered,
    NoAnswer,       /* the time is up */
    NotRunning,     /* nobody listens on the request port */
    ReplyPortTaken, /* nothing was sent */
    SystemError     /* s32Error says why */
};

struct ANSWER_S {
    AskResult eResult = AskResult::SystemError;
    CFieldValues objValues;
    int s32Error = 0;
    Bool bGarbled = false; /* something else than the awaited reply came meanwhile */
};

/* Sends the request and waits for the reply that holds just the asked fields. */
ANSWER_S AskDaemon(const CONTROL_ENDPOINT_S &i_stEndpoint, const CFieldAsks &i_objAsks,
                   const CFieldValues &i_objSets, std::chrono::milliseconds i_objTimeout);

/* The process that holds the flock(2) on the pid file, as every running daemon does; none if
 * nobody does or it cannot be told. Only looks (proc(5), /proc/locks): trying the lock could make
 * a daemon that starts just then believe that another one runs. */
std::optional<SInt32> FindDaemon(const std::string &i_strPidFile);
/* The same out of the text of /proc/locks, for a file by device and inode number. */
std::optional<SInt32> FindLockHolder(std::istream &io_objLocks, UInt32 i_u32Major,
                                     UInt32 i_u32Minor, UInt64 i_u64Inode);
