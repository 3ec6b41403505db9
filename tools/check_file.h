/*
 * What the daemon makes of a parameter file: the value of every row with its source, and whatever
 * would not be as it is written.
 *
 * The file is read by the daemon's own parser and table; it is neither created nor locked. Any
 * thread may call, one at a time for a file.
 */
#pragma once

#include <string>
#include <vector>

#include "common/bus/msg_queue.h"

struct CHECKED_ROW_S {
    std::string strName;
    std::string strValue; /* that the daemon works with; "" for none */
    bool bUsed;           /* the others are kept, but nothing reads them */
    bool bInFile;         /* else the value is the default */
    std::string strNote;  /* what is not as written: "<1x> is not in its range" */
};

struct RECEIVER_S {
    std::string strText;    /* "host:port" as it stands in the list */
    std::string strAddress; /* IPv4 address that the host resolves to; "" for none */
    std::string strProblem; /* "" for a good one */
};

struct CHECKED_FILE_S {
    std::string strPath;
    std::vector<CHECKED_ROW_S> objRows; /* in the table's order */
    /* Sentences on what is not read at all: the file itself, unknown names, duplicates, sections.
     */
    std::vector<std::string> strProblems;
    STREAM_STATUS_S stStatus; /* as the encoder would have it */
    std::string strAddrList;
    /* The calling user may not read the file: there are no rows, and the status is the default. */
    bool bRefused = false;

    bool IsAsWritten() const;
};

CHECKED_FILE_S CheckParamFile(const std::string &i_strPath);

/* The receivers of an address list, "host:port" separated by commas, as the stream's sink takes it
 * apart. Resolving all of them takes at most 5 s. */
std::vector<RECEIVER_S> CheckReceivers(const std::string &i_strAddrList);
