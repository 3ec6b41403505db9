/*
 * bundle.
 */
#include "tools/ctl_bundle.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>

#include <CLI/CLI.hpp>
#include <arpa/inet.h>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "common/bus/log_config.h"
#include "framework/unique_fd.h"
#include "guard/state.h"
#include "tools/ctl_doctor.h"
#include "tools/ctl_main.h"
#include "tools/doctor.h"
#include "tools/file_end.h"

namespace
{
constexpr std::size_t kLongest = 512 * 1024; /* of each part; of a log, its end */

struct OPTIONS_S {
    std::string strFile;
    bool bMask = false;
    bool bJson = false;
};

using CParts = std::map<std::string, std::string>; /* texts by the name in the archive */

std::string EndOf(const std::string &i_strText)
{
    return i_strText.size() > kLongest ? i_strText.substr(i_strText.size() - kLongest) : i_strText;
}

/* One of the client's own commands, with its exit status. */
std::string Own(const CTL_CONTEXT_S &i_stContext, std::vector<const char *> i_pArgs)
{
    std::ostringstream objOut;
    i_pArgs.insert(i_pArgs.begin(), "mv3300ctl");
    const int s32Exit = RunCtl(static_cast<int>(i_pArgs.size()), i_pArgs.data(),
                               i_stContext.stEndpoint, objOut, objOut);
    return objOut.str() + "exit status " + std::to_string(s32Exit) + "\n";
}

/* What a program of the system says; the texts are constants, none comes from outside. */
std::string Shell(const std::string &i_strCommand)
{
    FILE *pPipe = popen(("timeout 10 " + i_strCommand + " 2>&1 </dev/null").c_str(), "re");
    std::string strText;
    std::array<char, 4096> szPart;
    while (pPipe != nullptr && strText.size() < 8 * kLongest) {
        const std::size_t u64Length = fread(szPart.data(), 1, szPart.size(), pPipe);
        if (u64Length == 0) {
            break;
        }
        strText.append(szPart.data(), u64Length);
    }
    if (pPipe != nullptr) {
        pclose(pPipe);
    }
    return EndOf(strText);
}

void AddFile(CParts *io_pParts, const std::string &i_strName, const std::string &i_strPath)
{
    (*io_pParts)[i_strName] =
        ReadEnd(i_strPath, kLongest).value_or(i_strPath + ": " + strerror(errno) + "\n");
}

void AddLogs(CParts *io_pParts, const std::string &i_strConfig)
{
    const std::string strLog = FirstLogFile(i_strConfig.c_str());
    std::string strEvents;
    for (const char *pSuffix : {".2", ".1", ""}) {
        const std::string strName = std::string("log/mv3300.log") + pSuffix;
        if (strLog.empty() ||
            (pSuffix[0] != '\0' && access((strLog + pSuffix).c_str(), F_OK) != 0)) {
            continue;
        }
        AddFile(io_pParts, strName, strLog + pSuffix);
        std::istringstream objLines((*io_pParts)[strName]);
        for (std::string strLine; std::getline(objLines, strLine);) {
            if (strLine.find("event {'") != std::string::npos ||
                strLine.find("input timing ") != std::string::npos) {
                strEvents += strLine + "\n";
            }
        }
    }
    if (strLog.empty()) {
        (*io_pParts)["log/mv3300.log"] = i_strConfig + " names no file\n";
    }
    (*io_pParts)["uevents.txt"] = strEvents;
    (*io_pParts)["log/journal.txt"] =
        Shell("journalctl --no-pager -n 2000 -u mv3300d -u mv3300-guard -u mv3300-panel");
}

CParts Collect(const CTL_CONTEXT_S &i_stContext, const OPTIONS_S &i_stOptions)
{
    const DOCTOR_PATHS_S stPaths;
    CParts objParts;
    const DOCTOR_ANSWERS_S stDoctor = AskDoctor(i_stContext.stEndpoint, stPaths);
    objParts["doctor.txt"] =
        stDoctor.strText + "exit status " + std::to_string(stDoctor.s32Exit) + "\n";
    objParts["doctor.json"] = stDoctor.strJson;
    objParts["check.txt"] = Own(i_stContext, {"check"});
    objParts["settings.txt"] = Own(i_stContext, {"get"});
    AddFile(&objParts, "state.json", STATE_FILE);
    AddFile(&objParts, "timing", TIMING_FILE);
    AddFile(&objParts, "config/param.xml", stPaths.strParamFile);
    AddFile(&objParts, "config/mvx3300.conf", stPaths.strLogConfig);
    AddLogs(&objParts, stPaths.strLogConfig);
    objParts["versions.txt"] =
        "mv3300ctl " MV3300_VERSION "\n" +
        Shell("sh -c 'uname -srvm; cat /etc/os-release; dpkg-query -W \"mv3300*\" "
              "\"*gstreamer1.0*\" liblog4cpp5v5 libtinyxml2-9'");
    objParts["ip.txt"] = Shell("sh -c 'ip -s address; ip route show table all; ip maddress; "
                               "ip neighbour'");
    for (const char *pName : {"meminfo", "loadavg", "uptime", "locks", "interrupts", "net/udp",
                              "net/snmp", "net/igmp", "net/netlink", "net/dev"}) {
        AddFile(&objParts, std::string("proc/") + pName, std::string("/proc/") + pName);
    }
    if (const auto objPid = FindDaemon(i_stContext.stEndpoint.strPidFile)) {
        for (const char *pName : {"status", "limits", "stat"}) {
            AddFile(&objParts, std::string("proc/daemon/") + pName,
                    "/proc/" + std::to_string(*objPid) + "/" + pName);
        }
    }
    for (auto &[strName, strText] : objParts) {
        strText = HideCredentials(strText);
    }
    if (i_stOptions.bMask) {
        std::map<std::string, std::string> objNames;
        for (auto &[strName, strText] : objParts) {
            strText = MaskAddresses(strText, objNames);
        }
    }
    return objParts;
}

/* A folder of the calling user's alone, gone with this object. */
class CFolder
{
public:
    CFolder() : m_bMade(mkdtemp(m_szPath) != nullptr) {}
    ~CFolder()
    {
        std::error_code objError;
        if (m_bMade) {
            std::filesystem::remove_all(m_szPath, objError);
        }
    }
    CFolder(const CFolder &) = delete;
    CFolder &operator=(const CFolder &) = delete;
    std::string Path() const { return m_bMade ? m_szPath : ""; }

private:
    char m_szPath[32] = "/tmp/mv3300-bundle.XXXXXX";
    const bool m_bMade;
};

/* "" or what went wrong. An archive that exists is not overwritten. */
std::string Pack(const CParts &i_objParts, const std::string &i_strFile)
{
    const CFolder objFolder;
    if (objFolder.Path().empty()) {
        return std::string("no folder under /tmp: ") + strerror(errno);
    }
    for (const auto &[strName, strText] : i_objParts) {
        const std::filesystem::path objPath = objFolder.Path() + "/mv3300-bundle/" + strName;
        std::error_code objError;
        std::filesystem::create_directories(objPath.parent_path(), objError);
        std::ofstream objFile(objPath, std::ios::binary);
        if (!(objFile << strText << std::flush)) {
            return objPath.string() + " cannot be written";
        }
    }
    const UniqueFd objOut(
        open(i_strFile.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!objOut) {
        return i_strFile + ": " + strerror(errno);
    }
    FILE *pTar = popen(("tar -C " + objFolder.Path() + " -cz mv3300-bundle").c_str(), "re");
    std::array<char, 16384> szPart;
    Bool bGood = pTar != nullptr;
    while (bGood) {
        const std::size_t u64Length = fread(szPart.data(), 1, szPart.size(), pTar);
        if (u64Length == 0) {
            break;
        }
        bGood = write(objOut.Get(), szPart.data(), u64Length) == static_cast<ssize_t>(u64Length);
    }
    const int s32Write = errno;
    if (pTar != nullptr && pclose(pTar) != 0 && bGood) {
        unlink(i_strFile.c_str());
        return "tar could not pack it";
    }
    if (!bGood) {
        unlink(i_strFile.c_str());
        return i_strFile + ": " + strerror(s32Write);
    }
    return "";
}

std::string DefaultName()
{
    const time_t s64Now = time(nullptr);
    tm stTime = {};
    char szName[64];
    strftime(szName, sizeof(szName), "mv3300-bundle-%Y%m%d-%H%M%S.tar.gz",
             localtime_r(&s64Now, &stTime));
    return szName;
}

std::string NameOf(const std::string &i_strAddress, const char *i_pKind,
                   std::map<std::string, std::string> &io_objNames)
{
    std::string &strName = io_objNames[i_strAddress];
    if (strName.empty()) {
        strName = i_pKind + std::to_string(io_objNames.size());
    }
    return strName;
}

/* How many characters from there on are an IPv6 address (inet_pton(3)); 0: none. */
std::size_t Ipv6Length(const std::string &i_strText, std::size_t i_u64At)
{
    std::size_t u64Length = i_strText.find_first_not_of("0123456789abcdefABCDEF:.", i_u64At);
    u64Length = std::min<std::size_t>(u64Length, i_strText.size()) - i_u64At;
    /* A sentence's end or a port's colon may stand behind it. */
    for (u64Length = std::min<std::size_t>(u64Length, INET6_ADDRSTRLEN); u64Length > 1;
         u64Length--) {
        in6_addr stAddress;
        const char cNext =
            i_u64At + u64Length < i_strText.size() ? i_strText[i_u64At + u64Length] : ' ';
        if (isalnum(static_cast<unsigned char>(cNext)) == 0 &&
            inet_pton(AF_INET6, i_strText.substr(i_u64At, u64Length).c_str(), &stAddress) == 1) {
            return u64Length;
        }
    }
    return 0;
}

std::string MaskIpv6(const std::string &i_strLine, std::map<std::string, std::string> &io_objNames)
{
    if (i_strLine.find(':') == std::string::npos) {
        return i_strLine;
    }
    std::string strMasked;
    char cBefore = ' ';
    for (std::size_t u64At = 0; u64At < i_strLine.size();) {
        const Bool bBegin = isalnum(static_cast<unsigned char>(cBefore)) == 0 && cBefore != '_' &&
                            cBefore != ':' && cBefore != '.';
        const std::size_t u64Length = bBegin ? Ipv6Length(i_strLine, u64At) : 0;
        const std::string strPart = i_strLine.substr(u64At, std::max<std::size_t>(u64Length, 1));
        const Bool bKept = u64Length == 0 || strPart == "::" || strPart == "::1";
        strMasked += bKept ? strPart : NameOf(strPart, "ipv6-", io_objNames);
        u64At += strPart.size();
        cBefore = strPart.back();
    }
    return strMasked;
}

int Run(const CTL_CONTEXT_S &i_stContext, const OPTIONS_S &i_stOptions)
{
    const std::string strFile = i_stOptions.strFile.empty() ? DefaultName() : i_stOptions.strFile;
    if (access(strFile.c_str(), F_OK) == 0) {
        return i_stContext.Fail(CTL_SYSTEM_ERROR, strFile + " exists, and is not overwritten");
    }
    const CParts objParts = Collect(i_stContext, i_stOptions);
    nlohmann::ordered_json objContent = nlohmann::ordered_json::object();
    for (const auto &[strName, strText] : objParts) {
        objContent[strName] = strText.size();
        if (!i_stOptions.bJson) {
            i_stContext.objOut << strName << "  " << strText.size() << " bytes\n";
        }
    }
    i_stContext.objOut << std::flush;
    const std::string strError = Pack(objParts, strFile);
    if (!strError.empty()) {
        return i_stContext.Fail(CTL_SYSTEM_ERROR, strError);
    }
    if (i_stOptions.bJson) {
        i_stContext.objOut << nlohmann::ordered_json{{"file", strFile},
                                                     {"masked", i_stOptions.bMask},
                                                     {"content", objContent}}
                                  .dump()
                           << "\n";
    } else {
        i_stContext.objOut << "in " << strFile
                           << (i_stOptions.bMask ? ", addresses masked\n"
                                                 : "; --mask would mask its addresses\n");
    }
    return CTL_OK;
}
} // namespace

std::string HideCredentials(const std::string &i_strText)
{
    std::string strHidden;
    std::size_t u64Done = 0;
    for (std::size_t u64At = 0; (u64At = i_strText.find("//", u64Done)) != std::string::npos;) {
        u64At += 2;
        const std::size_t u64End = i_strText.find_first_of(" \t\r\n\"'<>", u64At);
        const std::string strWord = i_strText.substr(u64At, u64End - u64At);
        const std::size_t u64Host = strWord.rfind('@');
        strHidden += i_strText.substr(u64Done, u64At - u64Done);
        /* Up to the last one, for a password may hold what it should not. */
        strHidden += u64Host == std::string::npos ? strWord : "***" + strWord.substr(u64Host);
        u64Done = std::min(u64End, i_strText.size());
    }
    return strHidden + i_strText.substr(u64Done);
}

std::string MaskAddresses(const std::string &i_strText,
                          std::map<std::string, std::string> &io_objNames)
{
    /* One alternative a kind; 0 to 2 are "mac-", "ipv4-", "hex-". */
    static const std::regex objAddress("\\b((?:[0-9a-fA-F]{2}[:-]){5}[0-9a-fA-F]{2})\\b"
                                       "|\\b((?:[0-9]{1,3}\\.){3}[0-9]{1,3})\\b"
                                       "|\\b([0-9A-F]{8})\\b");
    constexpr const char *kKinds[] = {"mac-", "ipv4-", "hex-"};
    std::istringstream objLines(i_strText);
    std::string strMasked;
    for (std::string strLine; std::getline(objLines, strLine);) {
        strLine = MaskIpv6(strLine, io_objNames);
        std::size_t u64Done = 0;
        for (std::sregex_iterator pMatch(strLine.begin(), strLine.end(), objAddress), pEnd;
             pMatch != pEnd; ++pMatch) {
            const std::string strAddress = pMatch->str();
            std::size_t u64Kind = 0;
            while (!(*pMatch)[u64Kind + 1].matched) {
                u64Kind++;
            }
            const auto u64At = static_cast<std::size_t>(pMatch->position());
            strMasked += strLine.substr(u64Done, u64At - u64Done);
            u64Done = u64At + strAddress.size();
            const Bool bKept = strAddress.rfind("127.", 0) == 0 || strAddress == "0.0.0.0" ||
                               strAddress == "00000000" || strAddress == "0100007F";
            strMasked += bKept ? strAddress : NameOf(strAddress, kKinds[u64Kind], io_objNames);
        }
        strMasked += strLine.substr(u64Done) + "\n";
    }
    return strMasked;
}

CRunCommand DescribeBundle(CLI::App &io_objApp, const CTL_CONTEXT_S &i_stContext)
{
    const auto pOptions = std::make_shared<OPTIONS_S>();
    io_objApp.add_option("FILE", pOptions->strFile,
                         "Archive to write (default mv3300-bundle-TIME.tar.gz)");
    io_objApp.add_flag("--mask", pOptions->bMask, "Mask network addresses");
    AddJsonOption(io_objApp, pOptions->bJson);
    return [&i_stContext, pOptions] { return Run(i_stContext, *pOptions); };
}
