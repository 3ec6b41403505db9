/*
 * What can be told of the daemon from outside: its log, /proc and the published preview.
 */
#pragma once

#include <deque>
#include <string>

#include <sys/stat.h>
#include <sys/types.h>

#include "framework/types.h"
#include "framework/unique_fd.h"

/* What cannot be measured from outside and is read from the log, out of lines that the README
 * documents. */
struct LOG_VIEW_S {
    std::string strTiming;             /* in words for people; empty until one was reported */
    bool bPictures = false;            /* the timing is one that a stream should come of */
    std::string strReceivers;          /* as in addr_list */
    std::string strFailure;            /* of the present H.264 pipeline; empty without one */
    std::deque<std::string> objLatest; /* the newest lines for a person, at most kLatestLines */
    bool bOnlyRead = false;            /* the last request of the control channel set nothing */
};
constexpr size_t kLatestLines = 6;

/* Takes one line of the log into account. Of the lines that a plain read of the settings or a first
 * start leaves, and that look like faults, none is among the latest. */
void ReadLogLine(const std::string &i_strLine, LOG_VIEW_S *io_pView);

/* Follows a log file that may not exist yet and may be rolled over. */
class CLogTail
{
public:
    explicit CLogTail(const std::string &i_strFile);

    /* Reads what was added since the last call. */
    void Read(LOG_VIEW_S *io_pView);

private:
    void ReadOpen(LOG_VIEW_S *io_pView);

    std::string m_strFile;
    std::string m_strPartial;
    UniqueFd m_objFd;
};

struct PROCESS_VIEW_S {
    bool bRuns = false;
    UInt64 u64CpuTicks = 0; /* user and system time in clock ticks */
    UInt64 u64MemoryKb = 0; /* resident */
    UInt64 u64Threads = 0;
};
PROCESS_VIEW_S ReadProcess(pid_t i_s32Pid);

/* The daemon's settings in a line, as mv3300ctl reports them; empty when it cannot be asked. Takes
 * half a second at most. */
std::string AskSettings();

/* Counts the pictures that are published under one name, each in place of the one before. */
class CPreviewWatch
{
public:
    explicit CPreviewWatch(const char *i_pFile);

    /* Takes a look; of the pictures published between two looks only the last one counts. */
    void Look();
    /* Those seen so far. */
    UInt64 Count() const { return m_u64Count; }
    /* Their number, and the size and age of the picture there was at the last look. */
    std::string Text() const;

private:
    const char *m_pFile;
    bool m_bThere;
    struct stat m_stLast; /* of the newest picture */
    UInt64 m_u64Count;
};
