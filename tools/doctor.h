/*
 * What a person would look at when there is no picture, in that order, each with the answer and the
 * fact it was read from.
 *
 * Looks at the daemon's files, proc(5), the network and the capture device, asks the daemon for its
 * settings once, and reads the guard's state where that is fresh. Changes nothing. One thread.
 */
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "guard/capture_query.h"
#include "guard/daemon_view.h"
#include "tools/check_file.h"
#include "tools/control_channel.h"

enum class Verdict { Yes, No, NotKnown }; /* NotKnown: the machine does not offer the fact */

struct FINDING_S {
    const char *pWhat; /* "daemon", "link", ... */
    Verdict eVerdict = Verdict::NotKnown;
    std::string strFact;
    std::string strAdvice; /* what to do, in a sentence; of a No */
};

/* The facts that several answers rest on. */
struct PATIENT_S {
    CONTROL_ENDPOINT_S stEndpoint;
    nlohmann::json objState; /* the guard's; null without one, and why: */
    std::string strNoState;
    std::optional<DAEMON_S> stDaemon;
    CHECKED_FILE_S stFile;
    std::string strLog;     /* the end of it; "" if it cannot be read, and why: */
    std::string strLogFact; /* its name, or the reason */
    std::string strTryH264; /* what GStreamer says against the pipelines, "" for nothing */
    std::string strTryJpeg;
    ANSWER_S stAnswer;
    QUERY_S stQuery;
    std::optional<TIMING_S> stTiming;
    std::string strTimingFact;
    std::optional<Bool> bPackets; /* the local copy comes */
    std::string strPacketsFact;
    std::string strCopyHolder; /* who has the local copy's port, as far as the caller may see */

    /* The guard's word, "" without it. */
    std::string Condition() const;
    /* As the daemon has it, or the parameter file where it does not tell. */
    Bool WantsH264() const;
    Bool WantsPreview() const;
    /* A daemon runs, with an input that it encodes. */
    Bool ShouldStream() const;
};

struct DOCTOR_PATHS_S {
    std::string strParamFile = "/config/mv3300/param.xml";
    std::string strLogConfig = "/config/logconf/mvx3300.conf";
    std::string strDevice = "/dev/video0";
    std::string strDriver = "/sys/bus/i2c/drivers/tc358743";
    std::string strVideoClass = "/sys/class/video4linux";
};

/* Takes a few seconds, at most half a minute. */
PATIENT_S Examine(const CONTROL_ENDPOINT_S &i_stEndpoint, const DOCTOR_PATHS_S &i_stPaths);
std::vector<FINDING_S> Diagnose(const PATIENT_S &i_stPatient, const DOCTOR_PATHS_S &i_stPaths);

/* --- The parts of Diagnose(): the daemon and what it needs; the box around it ----------------- */
std::vector<FINDING_S> DiagnoseDaemon(const PATIENT_S &i_stPatient,
                                      const DOCTOR_PATHS_S &i_stPaths);
std::vector<FINDING_S> DiagnoseInput(const PATIENT_S &i_stPatient, const DOCTOR_PATHS_S &i_stPaths);
std::vector<FINDING_S> DiagnosePipelines(const PATIENT_S &i_stPatient);
std::vector<FINDING_S> DiagnoseStream(const PATIENT_S &i_stPatient);
std::vector<FINDING_S> DiagnoseNetwork(const PATIENT_S &i_stPatient);
std::vector<FINDING_S> DiagnoseMachine(time_t i_s64Now);

/* --- What several of them use ----------------------------------------------------------------- */
/* The last line of the text with that part; "" if there is none. o_pAt: where the part stands. */
std::string LastLine(const std::string &i_strLog, const std::string &i_strPart,
                     std::size_t *o_pAt = nullptr);
/* The processes but that one and the caller that have the file open, a path or "socket:[inode]", as
 * "12 (name), 34 (other)"; those of other users only for root. */
std::string HoldersOf(const std::string &i_strTarget, SInt32 i_s32But);
