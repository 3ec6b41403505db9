/*
 * The way to the daemon and back: one request datagram to its port, one reply datagram on the
 * client's, both on 127.0.0.1. For every program of the box that asks or sets (mv3300_channel).
 *
 * There is one reply port for all readers. Whoever needs it holds it for one request and then gives
 * way; nothing is kept between requests. Any thread may call: two that ask at once take turns, as
 * two processes do.
 *
 *     const ANSWER_S stAnswer = AskDaemon({}, ASK_ALL, {}, std::chrono::seconds(5));
 *     if (stAnswer.eResult == AskResult::Answered) {
 *         ... stAnswer.objValues[SETTING_GOP] ...
 *     }
 *
 * To set values and learn what became of them there is tools/apply_settings.h.
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

/* Every field. The daemon answers only if one of the two flags is among the asked ones. Each ask
 * leaves lines in its log, "cmd error" at ERROR among them: nothing to do by the second. */
inline constexpr CFieldAsks ASK_ALL = {true, true, true, true, true, true, true};

/* Takes the reply port, waiting up to 3.5 s or i_objTimeout, whichever is less, for another reader
 * to give it up; sends the request, waits up to i_objTimeout for the reply that holds just the
 * asked fields, and gives the port up. The daemon itself may wait 2.9 s before it answers. The
 * reply tells the state before the sets of its request. */
ANSWER_S AskDaemon(const CONTROL_ENDPOINT_S &i_stEndpoint, const CFieldAsks &i_objAsks,
                   const CFieldValues &i_objSets, std::chrono::milliseconds i_objTimeout);

/* The process that holds the flock(2) on the pid file, as every running daemon does; none if
 * nobody does or it cannot be told. Reads /proc/locks (proc(5)): trying the lock could make
 * a daemon that starts just then believe that another one runs. */
std::optional<SInt32> FindDaemon(const std::string &i_strPidFile);
/* The same out of the text of /proc/locks, for a file by device and inode number. */
std::optional<SInt32> FindLockHolder(std::istream &io_objLocks, UInt32 i_u32Major,
                                     UInt32 i_u32Minor, UInt64 i_u64Inode);

/* Why there is no answer, for a person, and what to do about it. i_objHolder: the process that
 * holds the daemon's pid file. */
std::string ExplainFailure(const ANSWER_S &i_stAnswer, const CONTROL_ENDPOINT_S &i_stEndpoint,
                           std::chrono::milliseconds i_objTimeout,
                           const std::optional<SInt32> &i_objHolder);
