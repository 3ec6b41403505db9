/*
 * The guard's loop and what happens in it.
 */
#include "guard/guard.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <time.h>

#include "guard/files.h"

namespace
{
constexpr SInt64 kTickMs = 250;
constexpr SInt64 kPublishMs = 1000;
constexpr SInt64 kQueryOftenMs = 2000;
constexpr SInt64 kQuerySeldomMs = 30000;
constexpr SInt64 kOftenForMs = 60000;
constexpr SInt64 kQuietMs = 2000;
constexpr std::size_t kLongestMemory = 256;
constexpr char kPreviewFile[] = "/tmp/image.jpeg";

SInt64 BootMs()
{
    timespec stNow;
    clock_gettime(CLOCK_BOOTTIME, &stNow);
    return stNow.tv_sec * 1000 + stNow.tv_nsec / 1000000;
}

double WallTime()
{
    timespec stNow;
    clock_gettime(CLOCK_REALTIME, &stNow);
    return static_cast<double>(stNow.tv_sec) + static_cast<double>(stNow.tv_nsec) / 1e9;
}

double Seconds(SInt64 i_s64Ms)
{
    return static_cast<double>(i_s64Ms) / 1000;
}

UniqueFd MakeTicker()
{
    UniqueFd objFd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    itimerspec stEvery = {};
    stEvery.it_interval.tv_nsec = stEvery.it_value.tv_nsec = kTickMs * 1000000;
    if (!objFd || timerfd_settime(objFd.Get(), 0, &stEvery, nullptr) != 0) {
        throw std::system_error(errno, std::generic_category(), "no timer");
    }
    return objFd;
}
} // namespace

CGuard::CGuard(GUARD_OPTIONS_S i_stOptions)
    : m_stOptions(std::move(i_stOptions)), m_objUevents(OpenUevents()),
      m_objRelay(m_stOptions.u16Also, m_stOptions.f64PreviewRate),
      m_objRestart(m_stOptions.stLimits), m_s64NowMs(BootMs()), m_s64BeginMs(m_s64NowMs)
{
    if (!m_objUevents) {
        throw std::system_error(errno, std::generic_category(), "the uevents cannot be heard");
    }
    m_stState.strVersion = MV3300_VERSION;
    OpenFolder();
    Recall();
    Query();
}

CGuard::~CGuard() = default;

void CGuard::OpenFolder()
{
    const std::string &strFolder = m_stOptions.strFolder;
    if (mkdir(strFolder.c_str(), 0755) == 0) {
        (void)chmod(strFolder.c_str(), 0755); /* for every reader, whatever the umask */
    } else if (errno != EEXIST) {
        throw std::system_error(errno, std::generic_category(), strFolder + " cannot be made");
    }
    const std::string strLock = strFolder + "/guard.lock";
    m_objLock.Reset(open(strLock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
    if (!m_objLock) {
        throw std::system_error(errno, std::generic_category(), strLock + " cannot be opened");
    }
    if (flock(m_objLock.Get(), LOCK_EX | LOCK_NB) != 0) {
        throw std::system_error(errno, std::generic_category(),
                                "another guard runs (it holds " + strLock + ")");
    }
}

double CGuard::Wall(SInt64 i_s64Ms) const
{
    return WallTime() - Seconds(m_s64NowMs - i_s64Ms);
}

void CGuard::Note(const char *i_pKind, const std::string &i_strText)
{
    fprintf(stderr, "%s: %s\n", i_pKind, i_strText.c_str());
    m_stState.objEvents.push_back({WallTime(), i_pKind, i_strText});
    while (m_stState.objEvents.size() > STATE_EVENTS) {
        m_stState.objEvents.pop_front();
    }
    m_bChanged = true;
}

void CGuard::Write(FILE_S &io_stFile, const std::string &i_strText)
{
    const int s32Error = ReplaceFile(m_stOptions.strFolder + "/" + io_stFile.pName, i_strText);
    if (s32Error != io_stFile.s32Error) {
        io_stFile.s32Error = s32Error; /* the state is written every second: said once */
        Note("file",
             std::string(io_stFile.pName) +
                 (s32Error == 0 ? " is written again"
                                : std::string(" cannot be written: ") + strerror(s32Error)));
    }
}

/* --- the input ---------------------------------------------------------------------------------
 */

void CGuard::Recall()
{
    const std::string strPath = m_stOptions.strFolder + "/timing";
    const auto strText = ReadFile(strPath, kLongestMemory);
    if (!strText && errno == ENOENT) {
        return;
    }
    const auto stHeard = strText ? ParseMemory(*strText) : std::nullopt;
    if (!stHeard) {
        Note("input", strPath + " is not what a guard wrote, and is passed over");
        return;
    }
    m_stFacts.stTiming = stHeard->stTiming;
    const double f64Age = std::clamp(WallTime() - stHeard->f64Time, 0.0, Seconds(m_s64NowMs));
    m_stFacts.s64TimingMs = m_s64NowMs - static_cast<SInt64>(f64Age * 1000);
    m_stState.pOrigin = "file";
    Note("input", "remembered: " + TimingText(stHeard->stTiming));
}

void CGuard::SetTiming(const TIMING_S &i_stTiming, const char *i_pOrigin, Link i_eLink)
{
    const Bool bNew = m_stFacts.stTiming != i_stTiming || m_stFacts.eLink != i_eLink;
    if (m_stFacts.stTiming != i_stTiming) {
        m_stFacts.s64TimingMs = m_s64NowMs;
    }
    m_stFacts.stTiming = i_stTiming;
    m_stFacts.eLink = i_eLink;
    m_stState.pOrigin = i_pOrigin;
    if (bNew) {
        Note("input", TimingText(i_stTiming) + " by " + i_pOrigin + ", link " + LinkText(i_eLink));
    }
    m_strMemory = MemoryText({i_stTiming, Wall(m_s64NowMs)});
    Write(m_stMemoryFile, m_strMemory);
}

void CGuard::HearUevents()
{
    while (const std::optional<TIMING_S> stTiming = NextTiming(m_objUevents.Get())) {
        Link eLink = stTiming->HasSignal() ? Link::Ok : Link::Unknown;
        if (!stTiming->HasSignal()) {
            /* The driver does not say why; the device may. */
            const QUERY_S stQuery = QueryCapture(m_stOptions.strDevice);
            eLink = stQuery.eLink == Link::Ok ? Link::Unknown : stQuery.eLink;
        }
        SetTiming(*stTiming, "uevent", eLink);
        if (m_bReady) {
            m_objAnnounce.Told(); /* the daemon heard it itself */
        }
    }
}

/* What a uevent said holds until the next one; the device is asked where none was heard. */
void CGuard::Query()
{
    if (strcmp(m_stState.pOrigin, "uevent") == 0 ||
        (m_stFacts.eLink == Link::Ok && m_stFacts.stTiming)) {
        return;
    }
    const SInt64 s64Pause = m_s64NowMs - std::max(m_s64BeginMs, m_stFacts.s64DaemonMs) < kOftenForMs
                                ? kQueryOftenMs
                                : kQuerySeldomMs;
    if (m_s64QueriedMs != INT64_MIN && m_s64NowMs - m_s64QueriedMs < s64Pause) {
        return;
    }
    m_s64QueriedMs = m_s64NowMs;
    const QUERY_S stQuery = QueryCapture(m_stOptions.strDevice);
    if (stQuery.eLink == Link::Unknown) {
        return;
    }
    const Bool bSame = m_stFacts.stTiming == stQuery.stTiming;
    if (!bSame) {
        m_objAnnounce.TellAgain();
    }
    SetTiming(stQuery.stTiming, bSame ? m_stState.pOrigin : "query", stQuery.eLink);
}

/* A stream that is down may be down because the input changed and the driver did not say so. */
void CGuard::BelieveDevice()
{
    const QUERY_S stQuery = QueryCapture(m_stOptions.strDevice);
    if (stQuery.eLink != Link::Unknown && m_stFacts.stTiming != stQuery.stTiming) {
        SetTiming(stQuery.stTiming, "query", stQuery.eLink);
        m_objAnnounce.TellAgain();
    }
}

/* --- the daemon --------------------------------------------------------------------------------
 */

void CGuard::LookForDaemon()
{
    const std::optional<DAEMON_S> stDaemon = LookAtDaemon();
    const std::optional<SInt32> s32Pid = stDaemon ? std::optional(stDaemon->s32Pid) : std::nullopt;
    if (m_stFacts.s32Pid != s32Pid) {
        Note("daemon", s32Pid ? "it runs as process " + std::to_string(*s32Pid)
                              : "process " + std::to_string(*m_stFacts.s32Pid) + " is gone");
        m_bReady = false;
        m_s32TellError = 0;
        m_stFacts.stSettings.reset();
        m_stFacts.s64RestartMs.reset();
        m_stState.stDaemon = {};
        m_s64FiguresMs = INT64_MIN;
    }
    m_stFacts.s32Pid = m_stState.stDaemon.s32Pid = s32Pid;
    if (!stDaemon) {
        return;
    }
    m_stFacts.s64DaemonMs = stDaemon->s64StartMs;
    m_bReady = m_bReady || IsDaemonReady(*s32Pid);
    m_stState.stDaemon.f64Uptime = Seconds(m_s64NowMs - stDaemon->s64StartMs);
    m_stState.stDaemon.u64Memory = stDaemon->u64Memory;
    const SInt64 s64Passed = m_s64FiguresMs == INT64_MIN ? 0 : m_s64NowMs - m_s64FiguresMs;
    if (s64Passed >= kPublishMs) {
        m_stState.stDaemon.f64CpuPercent =
            100 * Seconds(stDaemon->s64CpuMs - m_s64CpuMs) / Seconds(s64Passed);
    }
    if (m_s64FiguresMs == INT64_MIN || s64Passed >= kPublishMs) {
        m_s64FiguresMs = m_s64NowMs;
        m_s64CpuMs = stDaemon->s64CpuMs;
    }
}

Bool CGuard::Tell(const TIMING_S &i_stTiming, const char *i_pWhy)
{
    const int s32Error = TellDaemon(*m_stFacts.s32Pid, i_stTiming);
    if (s32Error == 0) {
        m_s32TellError = 0;
        return true;
    }
    if (s32Error != m_s32TellError) {
        Note(i_pWhy, "the daemon cannot be told " + TimingText(i_stTiming) + ": " +
                         strerror(s32Error) +
                         (s32Error == EPERM ? " (it takes CAP_NET_ADMIN)" : ""));
    }
    m_s32TellError = s32Error;
    return false;
}

void CGuard::AnnounceWhenDue()
{
    if (!m_objAnnounce.IsDue(Facts(), m_bReady) || !m_stOptions.bAnnounce ||
        !Tell(*m_stFacts.stTiming, "announce")) {
        return;
    }
    m_objAnnounce.Told();
    m_stState.stActs.u32Announcements++;
    Note("announce", "told process " + std::to_string(*m_stFacts.s32Pid) + " " +
                         TimingText(*m_stFacts.stTiming) + " (" + m_stState.pOrigin + ")");
}

void CGuard::AskWhenDue()
{
    const FACTS_S stFacts = Facts();
    const Bool bNewStream = m_objStreamAsk.IsDue(stFacts);
    if (!m_stOptions.bRestart || m_objAsk.UnderWay()) {
        return;
    }
    m_bAskToRestart = m_objRestart.Decide(stFacts) == CRestartPolicy::Step::AskSettings;
    if (m_bAskToRestart || bNewStream) {
        m_u32AskedSource = stFacts.u32Source;
        m_objAsk.Start(m_s64NowMs);
    }
}

void CGuard::GoOnAsking()
{
    const std::optional<CSettingsAsk::RESULT_S> stResult = m_objAsk.Go(m_s64NowMs);
    if (!stResult) {
        return;
    }
    m_objStreamAsk.Asked(m_s64NowMs, m_u32AskedSource, stResult->bAsked);
    if (stResult->bAsked) {
        m_stState.stDaemon.bAnswers = stResult->stSettings.has_value();
    }
    if (stResult->stSettings) {
        m_stFacts.stSettings = stResult->stSettings;
        m_stFacts.stSettings->f64Time = WallTime();
        m_stFacts.s64SettingsMs = m_s64NowMs;
        m_stFacts.u32SettingsSource = m_u32AskedSource;
    }
    if (!m_bAskToRestart) {
        return;
    }
    BelieveDevice();
    if (m_objRestart.Answered(Facts(), stResult->stSettings.has_value())) {
        Restart();
    } else {
        Note("restart", !stResult->bAsked       ? "put off: the answer port was never free"
                        : !stResult->stSettings ? "put off: the daemon does not answer"
                        : IsDisabled(Facts())
                            ? "none: the settings want no local stream"
                            : "none: the stream is back, or the input is another one");
    }
}

void CGuard::Restart()
{
    m_stFacts.s64RestartMs = m_s64NowMs;
    const TIMING_S stTiming = *m_stFacts.stTiming;
    if (Tell(TIMING_S{}, "restart") && Tell(stTiming, "restart")) {
        Note("restart", "no packets for " + std::to_string(m_stOptions.stLimits.s64StallMs / 1000) +
                            " s or more: announced no signal and " + TimingText(stTiming) +
                            "; the next one in " + std::to_string(m_objRestart.BackoffMs() / 1000) +
                            " s at the earliest");
    }
}

/* --- relay and preview -------------------------------------------------------------------------
 */

void CGuard::BindRelay()
{
    if (m_s32RelayError == 0) {
        return;
    }
    const int s32Error = m_objRelay.Bind();
    if (s32Error != m_s32RelayError) {
        Note("relay", s32Error == 0 ? "takes the stream on 127.0.0.1:12350"
                                    : std::string("127.0.0.1:12350 cannot be taken yet: ") +
                                          strerror(s32Error));
    }
    m_s32RelayError = s32Error;
    if (s32Error == 0) {
        m_stFacts.s64ListenMs = m_s64NowMs;
    }
}

void CGuard::NoteRelay()
{
    const RELAY_FIGURES_S stRelay = m_objRelay.Figures();
    if (stRelay.bThinning != m_bThinning) {
        m_bThinning = stRelay.bThinning;
        Note("relay", m_bThinning ? "thins the stream for the preview"
                                  : "passes the whole stream on to the preview");
    }
}

void CGuard::LookAtPreview()
{
    struct stat stStat = {};
    if (stat(kPreviewFile, &stStat) != 0 || !S_ISREG(stStat.st_mode)) {
        return;
    }
    const std::pair objTime(stStat.st_mtim.tv_sec, stStat.st_mtim.tv_nsec);
    if (objTime != m_objPictureTime) { /* anybody's file, of any year: it is only compared */
        m_objPictureTime = objTime;
        m_stFacts.s64PictureMs = m_s64NowMs;
        m_stState.u64PreviewBytes = static_cast<UInt64>(stStat.st_size);
    }
}

/* --- the whole ---------------------------------------------------------------------------------
 */

FACTS_S CGuard::Facts() const
{
    FACTS_S stFacts = m_stFacts;
    stFacts.s64NowMs = m_s64NowMs;
    stFacts.s64PacketMs = m_objRelay.Stream().s64LastPacketMs;
    stFacts.u32Source = m_objRelay.Stream().u32Source;
    stFacts.s64RefusedSinceMs = m_objRelay.RefusedSinceMs();
    return stFacts;
}

void CGuard::Conclude()
{
    const Condition eCondition = Judge(Facts());
    if (m_bJudged && eCondition == m_stState.eCondition) {
        return;
    }
    m_bJudged = true;
    m_stState.eCondition = eCondition;
    m_stState.f64Since = WallTime();
    Note("condition", std::string(ConditionWord(eCondition)) + ": " +
                          Describe(Facts(), m_objRelay.Stream().f64PicturesPerSecond));
}

void CGuard::Publish()
{
    const FACTS_S stFacts = Facts();
    m_stState.f64Time = WallTime();
    m_stState.stTiming = stFacts.stTiming;
    m_stState.eLink = stFacts.eLink;
    m_stState.f64TimingTime =
        stFacts.stTiming ? std::optional(Wall(stFacts.s64TimingMs)) : std::nullopt;
    m_stState.stStream = m_objRelay.Stream();
    m_stState.strText = Describe(stFacts, m_stState.stStream.f64PicturesPerSecond);
    const auto objAge = [&stFacts](const std::optional<SInt64> &i_s64Ms) {
        return i_s64Ms ? std::optional(Seconds(stFacts.s64NowMs - *i_s64Ms)) : std::nullopt;
    };
    m_stState.f64PacketAge = objAge(stFacts.s64PacketMs);
    m_stState.f64PreviewAge = objAge(stFacts.s64PictureMs);
    m_stState.stRelay = m_objRelay.Figures();
    m_stState.stRelay.bListening = m_s32RelayError == 0;
    m_stState.stRelay.bRefusing = IsRefused(stFacts);
    m_stState.stSettings = stFacts.stSettings;
    m_stState.stActs.u32Restarts = m_objRestart.Restarts();
    m_stState.stActs.u32FailedRestarts = m_objRestart.FailedRestarts();
    m_stState.stActs.f64Backoff = Seconds(m_objRestart.BackoffMs());
    m_stState.stActs.u32Budget = m_objRestart.Budget();
    m_stState.stActs.u32BudgetLeft = m_objRestart.BudgetLeft();
    m_s64PublishedMs = m_s64NowMs;
    m_bChanged = false;
    Write(m_stStateFile, StateText(m_stState));
    if (m_stMemoryFile.s32Error != 0) {
        Write(m_stMemoryFile, m_strMemory);
    }
}

void CGuard::Tick()
{
    BindRelay();
    LookForDaemon();
    LookAtPreview();
    Query();
    m_objRelay.Tick(m_s64NowMs, m_stFacts.stTiming ? m_stFacts.stTiming->fps : 0);
    NoteRelay();
    AnnounceWhenDue();
    if (m_stOptions.bSap) {
        const Bool bStreams = IsFlowing(Facts()) && !IsDisabled(Facts());
        const std::string strWhat = m_objSap.Tick(m_s64NowMs, m_objRelay.Stream(), bStreams);
        if (!strWhat.empty()) {
            Note("announce", strWhat);
        }
    }
    AskWhenDue();
    GoOnAsking();
}

void CGuard::Run(int i_s32StopFd)
{
    const UniqueFd objTicker = MakeTicker();
    Tick(); /* so that the first state does not say that nothing is there */
    for (;;) {
        pollfd stFds[] = {{m_objRelay.Fd(), POLLIN, 0},
                          {objTicker.Get(), POLLIN, 0},
                          {m_objUevents.Get(), POLLIN, 0},
                          {m_objAsk.Fd(), POLLIN, 0},
                          {i_s32StopFd, POLLIN, 0}};
        if (poll(stFds, std::size(stFds), -1) < 0) {
            continue; /* a signal */
        }
        m_s64NowMs = BootMs();
        if (stFds[0].revents != 0) {
            const std::optional<SInt64> s64BeforeMs = m_objRelay.Stream().s64LastPacketMs;
            m_objRelay.Serve(m_s64NowMs);
            if (m_objRelay.Stream().s64LastPacketMs == m_s64NowMs &&
                (!s64BeforeMs || m_s64NowMs - *s64BeforeMs >= kQuietMs)) {
                m_stFacts.s64FlowingMs = m_s64NowMs;
            }
        }
        if (stFds[4].revents != 0) {
            return;
        }
        if (stFds[2].revents != 0) {
            HearUevents();
        }
        if (stFds[3].revents != 0) {
            GoOnAsking();
        }
        UInt64 u64Ticks = 0;
        if (stFds[1].revents != 0 && read(objTicker.Get(), &u64Ticks, sizeof(u64Ticks)) > 0) {
            Tick();
            Conclude();
        }
        if (m_bChanged || m_s64NowMs - m_s64PublishedMs >= kPublishMs) {
            Conclude(); /* what came since the last tick may have changed it */
            Publish();
        }
    }
}
