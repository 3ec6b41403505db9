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

#include <nlohmann/json.hpp>

namespace
{
bool Has(const std::string &i_strLine, const char *i_pText)
{
    return i_strLine.find(i_pText) != std::string::npos;
}

/* Time of the day, level and text: without the date and the place in the source. */
std::string Shortened(const std::string &i_strLine)
{
    const size_t u64Date = i_strLine.find(' ');
    const size_t u64Fraction = i_strLine.find('.');
    const size_t u64Level = i_strLine.find(' ', u64Fraction);
    const size_t u64Place = i_strLine.rfind(" --[");
    if (u64Level == std::string::npos || u64Date > u64Fraction) {
        return i_strLine;
    }
    return i_strLine.substr(u64Date + 1, u64Fraction - u64Date - 1) +
           i_strLine.substr(u64Level,
                            u64Place == std::string::npos ? u64Place : u64Place - u64Level);
}

/* A stop of what does not run, and a request that only asks, are everyday. */
bool IsForPeople(const std::string &i_strLine, LOG_VIEW_S *io_pView)
{
    if (Has(i_strLine, "set h264 enable:")) {
        io_pView->bOnlyRead =
            Has(i_strLine, "enable:-1, gop:-1, mode:-1, bitrate:-1,  preview enable:-1, height:-1, "
                           "refreshrate:-1");
        return !io_pView->bOnlyRead;
    }
    return !(io_pView->bOnlyRead && Has(i_strLine, "cmd error")) &&
           !Has(i_strLine, "boxes parse success") && !Has(i_strLine, "m_stGstObj.pLoop is NULL");
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
        io_pView->bPictures = false;
        return;
    }
    std::ostringstream objText;
    objText << s32Width << "x" << s32Height << ", " << s32Fps << " frames/s, "
            << (s32Interlaced == 0 ? "progressive" : "interlaced (not supported)");
    io_pView->strTiming = objText.str();
    io_pView->bPictures = s32Interlaced == 0;
}
} // namespace

void ReadLogLine(const std::string &i_strLine, LOG_VIEW_S *io_pView)
{
    if (IsForPeople(i_strLine, io_pView)) {
        io_pView->objLatest.push_back(Shortened(i_strLine));
        if (io_pView->objLatest.size() > kLatestLines) {
            io_pView->objLatest.pop_front();
        }
    }
    ReadTiming(i_strLine, io_pView);
    if (Has(i_strLine, "in [gst-h264]")) {
        if (Has(i_strLine, "Received error in")) {
            io_pView->strFailure = "ended by an error";
        } else if (Has(i_strLine, "pipeline could not be constructed: ")) {
            io_pView->strFailure = "could not be built";
        } else if (Has(i_strLine, "gst cmd [")) {
            io_pView->strFailure.clear();
        }
    }
    const std::string strList = "addr list: ";
    const size_t u64At = i_strLine.find(strList);
    if (u64At != std::string::npos) {
        const size_t u64Begin = u64At + strList.size();
        io_pView->strReceivers =
            i_strLine.substr(u64Begin, i_strLine.find(" --[", u64Begin) - u64Begin);
    }
}

CLogTail::CLogTail(const std::string &i_strFile) : m_strFile(i_strFile) {}

void CLogTail::ReadOpen(LOG_VIEW_S *io_pView)
{
    char szBuffer[4096];
    ssize_t s64Got = 0;
    while ((s64Got = read(m_objFd.Get(), szBuffer, sizeof(szBuffer))) > 0) {
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
    if (m_objFd) {
        ReadOpen(io_pView);
        if (stat(m_strFile.c_str(), &stNamed) != 0 || fstat(m_objFd.Get(), &stOpen) != 0 ||
            stNamed.st_ino == stOpen.st_ino) {
            return;
        }
        ReadOpen(io_pView); /* what came between the last read and the renaming */
        m_strPartial.clear();
    }
    m_objFd.Reset(open(m_strFile.c_str(), O_RDONLY | O_CLOEXEC));
    if (m_objFd) {
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

std::string AskSettings()
{
    std::string strAnswer;
    FILE *pAnswer = popen("mv3300ctl get --json --timeout 500ms 2>/dev/null", "re");
    if (pAnswer == nullptr) {
        return "";
    }
    char szBuffer[512];
    while (fgets(szBuffer, sizeof(szBuffer), pAnswer) != nullptr) {
        strAnswer += szBuffer;
    }
    pclose(pAnswer);
    const auto objJson = nlohmann::json::parse(strAnswer, nullptr, false);
    if (!objJson.is_object()) {
        return "";
    }
    const auto Flag = [&objJson](const char *i_pName) {
        return objJson.value(i_pName, false) ? std::string() : std::string("off, ");
    };
    return Flag("h264") + std::to_string(objJson.value("bitrate", 0) / 1000) + " kbit/s, GOP " +
           std::to_string(objJson.value("gop", 0)) + "; preview " + Flag("preview") +
           std::to_string(objJson.value("height", 0)) + " lines";
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
        return strCount + "none at the moment";
    }
    timespec stNow = {};
    clock_gettime(CLOCK_REALTIME, &stNow);
    const double f64Age = static_cast<double>(stNow.tv_sec - m_stLast.st_mtim.tv_sec) +
                          static_cast<double>(stNow.tv_nsec - m_stLast.st_mtim.tv_nsec) / 1e9;
    char szText[128];
    snprintf(szText, sizeof(szText), "%lld bytes, %.1f s old",
             static_cast<long long>(m_stLast.st_size), f64Age);
    return strCount + szText;
}
