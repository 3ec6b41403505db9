/*
 * Who may come in.
 */
#include "panel/doors.h"

#include <algorithm>
#include <cstring>

#include <arpa/inet.h>
#include <crypt.h>
#include <strings.h>
#include <sys/random.h>
#include <unistd.h>

#include "panel/state.h"

namespace
{
constexpr UInt32 kFreeTries = 5;
constexpr UInt32 kMostWait = 60;
constexpr std::size_t kMostTries = 256;
constexpr std::size_t kMostSessions = 32;
constexpr std::size_t kMostHash = 512;
constexpr std::chrono::hours kSessionTime(12);

bool IsPort(const std::string &i_strText)
{
    return !i_strText.empty() && i_strText.size() <= 5 &&
           std::all_of(i_strText.begin(), i_strText.end(),
                       [](char s8Char) { return s8Char >= '0' && s8Char <= '9'; });
}

/* The name or address of "name:port"; empty if it is neither. */
std::string WithoutPort(const std::string &i_strHost)
{
    const std::size_t u64Bracket = i_strHost.rfind(']');
    const std::size_t u64Colon = i_strHost.rfind(':');
    if (u64Colon == std::string::npos ||
        (u64Bracket != std::string::npos && u64Colon < u64Bracket)) {
        return i_strHost;
    }
    return IsPort(i_strHost.substr(u64Colon + 1)) ? i_strHost.substr(0, u64Colon) : std::string();
}

bool IsAddress(std::string i_strHost)
{
    in6_addr stAddress = {};
    if (inet_pton(AF_INET, i_strHost.c_str(), &stAddress) == 1) {
        return true;
    }
    if (i_strHost.size() < 4 || i_strHost.front() != '[' || i_strHost.back() != ']') {
        return false;
    }
    i_strHost = i_strHost.substr(1, i_strHost.size() - 2);
    return inet_pton(AF_INET6, i_strHost.c_str(), &stAddress) == 1;
}

bool EqualFolded(const std::string &i_strLeft, const std::string &i_strRight)
{
    return strcasecmp(i_strLeft.c_str(), i_strRight.c_str()) == 0;
}

/* The hash in the file; empty if there is none. */
std::string ReadHash(const std::string &i_strFile)
{
    std::string strHash = ReadWhole(i_strFile, kMostHash).value_or("");
    strHash.resize(strHash.find_last_not_of(" \t\r\n") + 1);
    return strHash;
}

/* In the same time wherever the two differ. */
bool EqualSlowly(const std::string &i_strLeft, const std::string &i_strRight)
{
    UInt8 u8Different = i_strLeft.size() == i_strRight.size() ? 0 : 1;
    for (std::size_t i = 0; i < std::min(i_strLeft.size(), i_strRight.size()); i++) {
        u8Different |= static_cast<UInt8>(i_strLeft[i] ^ i_strRight[i]);
    }
    return u8Different == 0;
}

bool IsPassword(const std::string &i_strPassword, const std::string &i_strHash)
{
    auto pData = std::make_unique<crypt_data>();
    const char *pResult = crypt_r(i_strPassword.c_str(), i_strHash.c_str(), pData.get());
    /* A failure answers a text that begins with '*'. */
    const bool bEqual = pResult != nullptr && pResult[0] != '*' && EqualSlowly(pResult, i_strHash);
    explicit_bzero(pData.get(), sizeof(*pData));
    return bEqual;
}

/* 256 random bits; empty if the system has none. */
std::string MakeToken()
{
    UInt8 u8Random[32];
    if (getrandom(u8Random, sizeof(u8Random), 0) != sizeof(u8Random)) {
        return {};
    }
    std::string strToken;
    for (const UInt8 u8Byte : u8Random) {
        strToken += "0123456789abcdef"[u8Byte >> 4];
        strToken += "0123456789abcdef"[u8Byte & 15];
    }
    return strToken;
}

/* Who tries: of an IPv6 address the network, of which a caller has all addresses. */
std::string Tryer(const std::string &i_strAddress)
{
    in6_addr stAddress = {};
    if (inet_pton(AF_INET6, i_strAddress.c_str(), &stAddress) != 1 ||
        IN6_IS_ADDR_V4MAPPED(&stAddress)) {
        return i_strAddress;
    }
    return std::string(reinterpret_cast<const char *>(stAddress.s6_addr), 8);
}
} // namespace

Bool IsOwnHost(const std::string &i_strHost, const std::vector<std::string> &i_objNames)
{
    const std::string strHost = WithoutPort(i_strHost);
    return EqualFolded(strHost, "localhost") || IsAddress(strHost) ||
           std::any_of(i_objNames.begin(), i_objNames.end(), [&](const std::string &strName) {
               return !strName.empty() && EqualFolded(strHost, strName);
           });
}

Bool IsOwnOrigin(const std::string &i_strOrigin, const std::string &i_strHost)
{
    /* Either scheme: a proxy in front of the panel may be the one that speaks TLS. */
    for (const auto &[strScheme, strPort] :
         {std::pair<std::string, std::string>("http://", ":80"), {"https://", ":443"}}) {
        if (i_strOrigin.compare(0, strScheme.size(), strScheme) == 0) {
            const std::string strOrigin = i_strOrigin.substr(strScheme.size());
            return EqualFolded(strOrigin, i_strHost) || EqualFolded(strOrigin + strPort, i_strHost);
        }
    }
    return false;
}

std::vector<std::string> OwnNames()
{
    char szName[256] = "";
    gethostname(szName, sizeof(szName) - 1);
    const std::string strName(szName);
    const std::string strShort = strName.substr(0, strName.find('.'));
    return {strName, strShort, strShort.empty() ? strShort : strShort + ".local"};
}

std::string FindCookie(const std::string &i_strHeader, const std::string &i_strName)
{
    std::size_t u64Pos = 0;
    while (u64Pos < i_strHeader.size()) {
        const std::size_t u64End = std::min(i_strHeader.find(';', u64Pos), i_strHeader.size());
        const std::size_t u64Begin = std::min(i_strHeader.find_first_not_of(' ', u64Pos), u64End);
        const std::string strPair = i_strHeader.substr(u64Begin, u64End - u64Begin);
        if (strPair.compare(0, i_strName.size() + 1, i_strName + "=") == 0) {
            return strPair.substr(i_strName.size() + 1);
        }
        u64Pos = u64End + 1;
    }
    return {};
}

Bool CDoors::HasPassword() const
{
    return !ReadHash(m_strFile).empty();
}

LoginResult CDoors::Login(const std::string &i_strAddress, const std::string &i_strPassword,
                          CTime i_objNow, std::string &o_strToken, UInt32 &o_u32Wait)
{
    const std::lock_guard objLock(m_objMutex);
    const std::string strHash = ReadHash(m_strFile);
    if (strHash.empty()) {
        return LoginResult::NoPassword;
    }
    const std::string strTryer = Tryer(i_strAddress);
    const auto itTries = m_objTries.find(strTryer);
    if (itTries != m_objTries.end() && itTries->second.objNext > i_objNow) {
        o_u32Wait = static_cast<UInt32>(
            std::chrono::ceil<std::chrono::seconds>(itTries->second.objNext - i_objNow).count());
        return LoginResult::TooMany;
    }
    o_strToken = IsPassword(i_strPassword, strHash) ? MakeToken() : std::string();
    if (o_strToken.empty()) {
        CountWrong(strTryer, i_objNow);
        return LoginResult::Wrong;
    }
    m_objTries.erase(strTryer);
    if (m_objSessions.size() >= kMostSessions) {
        m_objSessions.erase(std::min_element(
            m_objSessions.begin(), m_objSessions.end(),
            [](const auto &l, const auto &r) { return l.second.objUsed < r.second.objUsed; }));
    }
    m_objSessions[o_strToken] = {strHash, i_objNow};
    return LoginResult::Welcome;
}

void CDoors::CountWrong(const std::string &i_strTryer, CTime i_objNow)
{
    if (m_objTries.size() >= kMostTries && m_objTries.count(i_strTryer) == 0) {
        m_objTries.erase(std::min_element(
            m_objTries.begin(), m_objTries.end(),
            [](const auto &l, const auto &r) { return l.second.objNext < r.second.objNext; }));
    }
    TRIES_S &stTries = m_objTries[i_strTryer];
    stTries.u32Wrong++;
    stTries.objNext = i_objNow;
    if (stTries.u32Wrong >= kFreeTries) {
        const UInt32 u32Doublings = std::min(stTries.u32Wrong - kFreeTries, 6U);
        stTries.objNext += std::chrono::seconds(std::min(1U << u32Doublings, kMostWait));
    }
}

void CDoors::Logout(const std::string &i_strToken)
{
    const std::lock_guard objLock(m_objMutex);
    m_objSessions.erase(i_strToken);
}

Bool CDoors::IsSession(const std::string &i_strToken, CTime i_objNow)
{
    const std::lock_guard objLock(m_objMutex);
    const auto itSession = m_objSessions.find(i_strToken);
    if (itSession == m_objSessions.end()) {
        return false;
    }
    if (i_objNow - itSession->second.objUsed > kSessionTime ||
        itSession->second.strHash != ReadHash(m_strFile)) {
        m_objSessions.erase(itSession);
        return false;
    }
    itSession->second.objUsed = i_objNow;
    return true;
}
