/*
 * Reads the daemon's log, its /proc entries and the published preview.
 */
#include "sim/receive/daemon_view.h"

#include <cstdio>
#include <ctime>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <unistd.h>

namespace
{
struct STATE_TEXT_S {
    const char *pBegin; /* before the pipeline's name in the line */
    const char *pEnd;   /* after it; empty for anything */
    const char *pState;
};
constexpr STATE_TEXT_S kStates[] = {
    {"gst cmd [", "", "being built"},
    {"Let's run [", "]!", "running"},
    {"gstreamer stop ", ",", "being stopped"},
    {"Received error in [", "]", "ended by an error"},
    {"The source in [", "] got dry", "the input ended"},
    {"pipeline could not be constructed: ", "", "could not be built"},
    {"Going out [", "]", "stopped"},
};

bool Has(const std::string &i_strLine, const std::string &i_strText)
{
    return i_strLine.find(i_strText) != std::string::npos;
}

/* An error's line comes before the one that says the pipeline is leaving: the reason stays. */
void SetState(const STATE_TEXT_S &i_stState, std::string *io_pState)
{
    const std::string strNew = i_stState.pState;
    if (strNew == "stopped" && *io_pState != "being stopped" && *io_pState != "running") {
        return;
    }
    *io_pState = strNew;
}

void ReadPipelineLine(const std::string &i_strLine, const std::string &i_strName,
                      std::string *io_pState)
{
    if (!Has(i_strLine, i_strName)) {
        return;
    }
    for (const STATE_TEXT_S &stState : kStates) {
        const bool bBuild = stState.pEnd[0] == '\0';
        if (bBuild ? Has(i_strLine, stState.pBegin) && Has(i_strLine, "in [" + i_strName + "]")
                   : Has(i_strLine, stState.pBegin + i_strName + stState.pEnd)) {
            SetState(stState, io_pState);
            return;
        }
    }
}

void ReadTiming(const std::string &i_strLine, LOG_VIEW_S *io_pView)
{
    int s32Width = 0, s32Height = 0, s32Fps = 0, s32Interlaced = 0;
    const size_t u64At = i_strLine.find("input timing width:");
    if (u64At == std::string::npos ||
        sscanf(i_strLine.c_str() + u64At, "input timing width:%d height:%d fps:%d interlaced:%d",
               &s32Width, &s32Height, &s32Fps, &s32Interlaced) != 4) {
        return;
    }
    if (s32Width == 0 || s32Height == 0 || s32Fps == 0) {
        io_pView->strTiming = "no signal";
        return;
    }
    std::ostringstream objText;
    objText << s32Width << "x" << s32Height << ", " << s32Fps << " frames/s, "
            << (s32Interlaced == 0 ? "progressive" : "interlaced (not supported)");
    io_pView->strTiming = objText.str();
}
} // namespace

void ReadLogLine(const std::string &i_strLine, LOG_VIEW_S *io_pView)
{
    io_pView->objLatest.push_back(i_strLine);
    if (io_pView->objLatest.size() > kLatestLines) {
        io_pView->objLatest.pop_front();
    }
    ReadTiming(i_strLine, io_pView);
    ReadPipelineLine(i_strLine, "gst-h264", &io_pView->strStream);
    ReadPipelineLine(i_strLine, "gst-jpeg", &io_pView->strPreview);
    const std::string strList = "addr list: ";
    const size_t u64At = i_strLine.find(strList);
    if (u64At != std::string::npos) {
        const size_t u64Begin = u64At + strList.size();
        io_pView->strReceivers =
            i_strLine.substr(u64Begin, i_strLine.find(" --[", u64Begin) - u64Begin);
    }
}

CLogTail::CLogTail(const std::string &i_strFile) : m_strFile(i_strFile), m_s32Fd(-1) {}

CLogTail::~CLogTail()
{
    if (m_s32Fd >= 0) {
        close(m_s32Fd);
    }
}

void CLogTail::ReadOpen(LOG_VIEW_S *io_pView)
{
    char szBuffer[4096];
    ssize_t s64Got = 0;
    while ((s64Got = read(m_s32Fd, szBuffer, sizeof(szBuffer))) > 0) {
        m_strPartial.append(szBuffer, static_cast<size_t>(s64Got));
    }
    size_t u64Begin = 0;
    size_t u64End = 0;
    while ((u64End = m_strPartial.find('\n', u64Begin)) != std::string::npos) {
        ReadLogLine(m_strPartial.substr(u64Begin, u64End - u64Begin), io_pView);
        u64Begin = u64End + 1;
    }
    m_strPartial.erase(0, u64Begin);
}

void CLogTail::Read(LOG_VIEW_S *io_pView)
{
    struct stat stNamed = {};
    struct stat stOpen = {};
    if (m_s32Fd >= 0) {
        ReadOpen(io_pView);
        if (stat(m_strFile.c_str(), &stNamed) != 0 || fstat(m_s32Fd, &stOpen) != 0 ||
            stNamed.st_ino == stOpen.st_ino) {
            return;
        }
        ReadOpen(io_pView); /* what came between the last read and the renaming */
        close(m_s32Fd);
        m_strPartial.clear();
    }
    m_s32Fd = open(m_strFile.c_str(), O_RDONLY | O_CLOEXEC);
    if (m_s32Fd >= 0) {
        ReadOpen(io_pView);
    }
}

PROCESS_VIEW_S ReadProcess(pid_t i_s32Pid)
{
    PROCESS_VIEW_S stView;
    std::ifstream objFile("/proc/" + std::to_string(i_s32Pid) + "/stat");
    std::string strStat;
    if (!std::getline(objFile, strStat)) {
        return stView;
    }
    /* proc(5): the name in brackets may hold anything; fields 14, 15, 20 and 24 come after it. */
    std::istringstream objFields(strStat.substr(strStat.rfind(')') + 1));
    std::string strField;
    for (int i = 3; i <= 24 && objFields >> strField; i++) {
        if (i == 3) {
            stView.bRuns = strField != "Z";
        } else if (i == 14 || i == 15) {
            stView.u64CpuTicks += std::stoull(strField);
        } else if (i == 20) {
            stView.u64Threads = std::stoull(strField);
        } else if (i == 24) {
            const auto u64PageKb = static_cast<UInt64>(sysconf(_SC_PAGESIZE)) / 1024;
            stView.u64MemoryKb = std::stoull(strField) * u64PageKb;
        }
    }
    return stView;
}

CPreviewWatch::CPreviewWatch(const char *i_pFile)
    : m_pFile(i_pFile), m_bThere(false), m_stLast{}, m_u64Count(0)
{
}

void CPreviewWatch::Look()
{
    struct stat stFile = {};
    m_bThere = stat(m_pFile, &stFile) == 0;
    if (!m_bThere) {
        return;
    }
    /* A new picture may be given the number of a file that is gone. */
    if (stFile.st_ino != m_stLast.st_ino || stFile.st_mtim.tv_sec != m_stLast.st_mtim.tv_sec ||
        stFile.st_mtim.tv_nsec != m_stLast.st_mtim.tv_nsec) {
        m_u64Count++;
    }
    m_stLast = stFile;
}

std::string CPreviewWatch::Text() const
{
    const std::string strCount = std::to_string(m_u64Count) + " published, ";
    if (!m_bThere) {
        return strCount + "no picture at the moment";
    }
    timespec stNow = {};
    clock_gettime(CLOCK_REALTIME, &stNow);
    const double f64Age = static_cast<double>(stNow.tv_sec - m_stLast.st_mtim.tv_sec) +
                          static_cast<double>(stNow.tv_nsec - m_stLast.st_mtim.tv_nsec) / 1e9;
    char szText[128];
    snprintf(szText, sizeof(szText), "%s, %lld bytes, %.1f s old", m_pFile,
             static_cast<long long>(m_stLast.st_size), f64Age);
    return strCount + szText;
}
