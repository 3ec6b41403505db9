/*
 * What the daemon makes of a parameter file.
 */
#include "tools/check_file.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <future>
#include <map>
#include <sstream>
#include <thread>

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/box/param_table.h"
#include "tools/nearest.h"

using tinyxml2::XMLElement;

namespace
{
constexpr char kSection[] = "CHANNEL_1";
constexpr std::chrono::seconds kResolveTime(5);

class CReadFile : public RQ_XMLParser
{
public:
    using RQ_XMLParser::RQ_XMLParser;
    const tinyxml2::XMLDocument &Document() const { return doc; }
};

std::string At(const XMLElement *i_pElement)
{
    return "line " + std::to_string(i_pElement->GetLineNum()) + ": ";
}

std::vector<std::string> KnownNames()
{
    std::vector<std::string> strNames;
    for (const PARAM_S &stRow : g_aParams) {
        strNames.emplace_back(stRow.name);
    }
    return strNames;
}

/* Unknown names and duplicates among the section's parameters. */
void CheckNames(const XMLElement *i_pFirst, std::vector<std::string> *o_pProblems)
{
    const std::vector<std::string> strKnown = KnownNames();
    std::map<std::string, int> s32Lines;
    for (const XMLElement *pParam = i_pFirst; pParam != nullptr;
         pParam = pParam->NextSiblingElement()) {
        const char *pName = pParam->Attribute("NAME");
        if (pName == nullptr) {
            o_pProblems->push_back(At(pParam) + "an element without a NAME is not read");
            continue;
        }
        const auto [pSeen, bNew] = s32Lines.emplace(pName, pParam->GetLineNum());
        if (std::find(strKnown.begin(), strKnown.end(), pName) == strKnown.end()) {
            const std::string strNearest = NearestWord(pName, strKnown);
            o_pProblems->push_back(
                At(pParam) + "there is no parameter '" + pName + "'" +
                (strNearest.empty() ? "" : "; did you mean '" + strNearest + "'?"));
        } else if (!bNew) {
            o_pProblems->push_back(At(pParam) + "a second " + pName +
                                   " is not read; the first, in line " +
                                   std::to_string(pSeen->second) + ", is");
        }
    }
}

/* Sections that the daemon does not look into. */
void CheckSections(const tinyxml2::XMLDocument &i_objDocument,
                   std::vector<std::string> *o_pProblems)
{
    const XMLElement *pRoot = i_objDocument.FirstChildElement("CONFIGURATION");
    if (pRoot == nullptr) {
        o_pProblems->push_back("there is no element CONFIGURATION: the daemon uses the defaults");
        return;
    }
    const XMLElement *pOwn = pRoot->FirstChildElement(kSection);
    for (const XMLElement *pSection = pRoot->FirstChildElement(); pSection != nullptr;
         pSection = pSection->NextSiblingElement()) {
        if (pSection != pOwn) {
            o_pProblems->push_back(At(pSection) + "section " + pSection->Name() + " is not read");
        }
    }
}

CHECKED_ROW_S CheckRow(std::size_t i_u64Row, const XMLElement *i_pElement)
{
    const PARAM_S &stRow = g_aParams[i_u64Row];
    const char *pText = i_pElement != nullptr ? i_pElement->GetText() : nullptr;
    const PARAM_VALUE_S stValue = EvaluateParam(stRow, pText);
    CHECKED_ROW_S stChecked = {stRow.name, stValue.strText, i_u64Row < PARAM_CONFIG_ROWS,
                               pText != nullptr && !stValue.IsDefault(), ""};
    const bool bEmptyAnyway = pText == nullptr && stRow.default_value[0] == '\0';
    if (i_pElement != nullptr && stValue.eNote != PARAM_NOTE::AS_GIVEN && !bEmptyAnyway) {
        const std::string strText = pText != nullptr ? std::string(pText).substr(0, 80) : "";
        stChecked.strNote =
            pText != nullptr ? "<" + strText + "> " + ParamNoteText(stValue.eNote) : "has no text";
    }
    return stChecked;
}

STREAM_STATUS_S StatusOf(const PARAM_ELEMENTS &i_pElements)
{
    const auto Value = [&](PARAM_ROW i_eRow) {
        const XMLElement *pElement = i_pElements[i_eRow];
        return EvaluateParam(g_aParams[i_eRow],
                             pElement != nullptr ? pElement->GetText() : nullptr);
    };
    const auto Number = [&](PARAM_ROW i_eRow) {
        return static_cast<UInt32>(Value(i_eRow).s32Number);
    };
    STREAM_STATUS_S stStatus = {};
    stStatus.u32Type = STREAM_STATUS_BOTH;
    stStatus.u32H264Enable = Number(PARAM_H264_ENABLE);
    stStatus.u32H264Gop = Number(PARAM_H264_GOP);
    rq_strncpy(stStatus.szH264Mode, Value(PARAM_H264_MODE).strText.c_str(),
               sizeof(stStatus.szH264Mode));
    stStatus.u32H264Bitrate = Number(PARAM_H264_BITRATE);
    stStatus.u32PrevEnable = Number(PARAM_PREV_ENABLE);
    stStatus.u32PrevHeight = Number(PARAM_PREV_HEIGHT);
    stStatus.u32PrevRefreshrate = Number(PARAM_PREV_REFRESHRATE);
    return stStatus;
}

/* Splits "host:port"; the problem, or "". */
std::string SplitReceiver(const std::string &i_strText, std::string *o_pHost)
{
    const std::size_t u64Colon = i_strText.find(':');
    *o_pHost = i_strText.substr(0, u64Colon);
    const std::string strPort = u64Colon == std::string::npos ? "" : i_strText.substr(u64Colon + 1);
    unsigned u32Port = 0;
    const char *pEnd = strPort.data() + strPort.size();
    const auto stParsed = std::from_chars(strPort.data(), pEnd, u32Port);
    if (o_pHost->empty() || i_strText.find_first_of(" \t\r\n\"") != std::string::npos) {
        return "is no host:port";
    }
    return stParsed.ec != std::errc() || stParsed.ptr != pEnd || u32Port < 1 || u32Port > 65535
               ? "has no port from 1 to 65535"
               : "";
}

struct LOOKUP_S {
    std::string strAddress;
    std::string strProblem;
};

LOOKUP_S LookUp(const std::string &i_strHost)
{
    addrinfo stHints = {};
    stHints.ai_family = AF_INET;
    stHints.ai_socktype = SOCK_DGRAM;
    addrinfo *pFound = nullptr;
    const int s32Error = getaddrinfo(i_strHost.c_str(), nullptr, &stHints, &pFound);
    if (s32Error != 0) {
        return {"", std::string("does not resolve: ") + gai_strerror(s32Error)};
    }
    sockaddr_in stAddress;
    memcpy(&stAddress, pFound->ai_addr, sizeof(stAddress));
    freeaddrinfo(pFound);
    char szAddress[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &stAddress.sin_addr, szAddress, sizeof(szAddress));
    return {szAddress, ""};
}

/* Looks the host up; the receiver gets the result if it comes until the time is up. */
void Resolve(const std::string &i_strHost, std::chrono::steady_clock::time_point i_objUntil,
             RECEIVER_S *o_pReceiver)
{
    std::packaged_task<LOOKUP_S()> objTask([i_strHost] { return LookUp(i_strHost); });
    std::future<LOOKUP_S> objAnswer = objTask.get_future();
    /* It cannot be called off: beyond the time the thread is left to itself. */
    std::thread(std::move(objTask)).detach();
    if (objAnswer.wait_until(i_objUntil) != std::future_status::ready) {
        o_pReceiver->strProblem = "does not resolve in time";
        return;
    }
    const LOOKUP_S stLookup = objAnswer.get();
    o_pReceiver->strAddress = stLookup.strAddress;
    o_pReceiver->strProblem = stLookup.strProblem;
}
} // namespace

bool CHECKED_FILE_S::IsAsWritten() const
{
    return strProblems.empty() &&
           std::all_of(objRows.begin(), objRows.end(),
                       [](const CHECKED_ROW_S &i_stRow) { return i_stRow.strNote.empty(); });
}

CHECKED_FILE_S CheckParamFile(const std::string &i_strPath)
{
    CHECKED_FILE_S stChecked = {i_strPath, {}, {}, {}, "", false};
    CReadFile objFile(i_strPath.c_str());
    (void)objFile.Load();
    struct stat stStat = {};
    const int s32Error =
        stat(i_strPath.c_str(), &stStat) != 0 || access(i_strPath.c_str(), R_OK) != 0 ? errno : 0;
    /* As the daemon makes it where there is none. */
    const bool bEmpty = S_ISREG(stStat.st_mode) && stStat.st_size == 0 &&
                        strstr(objFile.LoadError(), "EMPTY_DOCUMENT") != nullptr;
    stChecked.bRefused = s32Error == EACCES || s32Error == EPERM;
    if (stChecked.bRefused) {
        stChecked.strProblems.push_back(
            "you may not read the file: what the daemon makes of it is not known");
        stChecked.stStatus = StatusOf({});
        return stChecked;
    }
    if (s32Error != 0) {
        stChecked.strProblems.push_back("the file cannot be read, the daemon uses the defaults: " +
                                        std::string(strerror(s32Error)));
    } else if (!bEmpty && objFile.LoadError()[0] != '\0') {
        stChecked.strProblems.push_back("the file is damaged or cannot be read, the daemon uses "
                                        "the defaults: " +
                                        std::string(objFile.LoadError()));
    } else if (!bEmpty) {
        CheckSections(objFile.Document(), &stChecked.strProblems);
        CheckNames(objFile.FirstParam(kSection), &stChecked.strProblems);
    }
    const PARAM_ELEMENTS pElements = FindParams(objFile);
    for (std::size_t i = 0; i < PARAM_COUNT; i++) {
        stChecked.objRows.push_back(CheckRow(i, pElements[i]));
    }
    stChecked.stStatus = StatusOf(pElements);
    stChecked.strAddrList = stChecked.objRows[PARAM_ADDR_LIST].strValue;
    return stChecked;
}

std::vector<RECEIVER_S> CheckReceivers(const std::string &i_strAddrList)
{
    const auto objUntil = std::chrono::steady_clock::now() + kResolveTime;
    std::vector<RECEIVER_S> objReceivers;
    std::istringstream objEntries(i_strAddrList);
    for (std::string strEntry; std::getline(objEntries, strEntry, ',');) {
        RECEIVER_S stReceiver = {strEntry, "", ""};
        std::string strHost;
        stReceiver.strProblem = SplitReceiver(strEntry, &strHost);
        if (stReceiver.strProblem.empty()) {
            Resolve(strHost, objUntil, &stReceiver);
        }
        objReceivers.push_back(stReceiver);
    }
    return objReceivers;
}
