/*
 * mv3300-guard: what it knows, put together, and what it does about it.
 *
 * Owns the relay, the socket of the uevents, the ask for the settings, the policies and the two
 * files. One thread, which calls Run(); nothing in there waits but the poll.
 */
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "guard/announce.h"
#include "guard/capture_query.h"
#include "guard/daemon_view.h"
#include "guard/policy.h"
#include "guard/relay.h"
#include "guard/sap.h"
#include "guard/settings_ask.h"

struct GUARD_OPTIONS_S {
    std::string strFolder = "/run/mv3300";
    std::string strDevice = "/dev/video0";
    std::vector<UInt16> u16Also; /* further ports of 127.0.0.1 that get the stream */
    double f64PreviewRate = 0;   /* pictures a second; 0: thinned only where it must be */
    RESTART_LIMITS_S stLimits;
    Bool bRestart = true;
    Bool bAnnounce = true;
    Bool bSap = false;
};

class CGuard
{
public:
    /* Throws std::system_error if the folder or a socket cannot be had. */
    explicit CGuard(GUARD_OPTIONS_S i_stOptions);
    ~CGuard();
    CGuard(const CGuard &) = delete;
    CGuard &operator=(const CGuard &) = delete;

    /* Returns when i_s32StopFd becomes readable. */
    void Run(int i_s32StopFd);

private:
    struct FILE_S {
        const char *pName; /* in the folder */
        int s32Error = 0;  /* of the last try to write it */
    };

    void OpenFolder();
    /* Why it cannot be, and that it can be again, is an event each. */
    void Write(FILE_S &io_stFile, const std::string &i_strText);
    void Recall();
    void Tick();
    void LookForDaemon();
    void LookAtPreview();
    void BindRelay();
    void HearUevents();
    void Query();
    void BelieveDevice();
    void SetTiming(const TIMING_S &i_stTiming, const char *i_pOrigin, Link i_eLink);
    void AnnounceWhenDue();
    /* True if it was told; else an event says why, once. */
    Bool Tell(const TIMING_S &i_stTiming, const char *i_pWhy);
    void AskWhenDue();
    void GoOnAsking();
    void Restart();
    FACTS_S Facts() const;
    void Conclude();
    void NoteRelay();
    void Note(const char *i_pKind, const std::string &i_strText);
    void Publish();
    double Wall(SInt64 i_s64Ms) const;

    const GUARD_OPTIONS_S m_stOptions;
    UniqueFd m_objLock;
    UniqueFd m_objUevents;
    CRelay m_objRelay;
    CSettingsAsk m_objAsk;
    CAnnouncePolicy m_objAnnounce;
    CStreamAskPolicy m_objStreamAsk;
    CRestartPolicy m_objRestart;
    CSap m_objSap;

    FILE_S m_stStateFile = {"state.json"};
    FILE_S m_stMemoryFile = {"timing"};
    std::string m_strMemory;                /* what the latter is to hold */
    std::optional<UInt32> m_u32AskedSource; /* of the ask that is under way */
    Bool m_bAskToRestart = false;           /* it is to be followed by a restart */
    SInt64 m_s64NowMs = 0;
    SInt64 m_s64BeginMs = 0;
    SInt64 m_s64PublishedMs = INT64_MIN;
    SInt64 m_s64QueriedMs = INT64_MIN;
    SInt64 m_s64FiguresMs = INT64_MIN;
    SInt64 m_s64CpuMs = 0;
    std::pair<time_t, long> m_objPictureTime; /* the preview's own, s and ns */
    int m_s32RelayError = -1;                 /* of the last try to take its port */
    int m_s32TellError = 0;
    Bool m_bThinning = false;
    Bool m_bReady = false; /* the daemon's ports are open */
    Bool m_bJudged = false;
    Bool m_bChanged = true; /* there is something new for the state file */
    FACTS_S m_stFacts;      /* as far as it is not the relay's */
    STATE_S m_stState;
};
