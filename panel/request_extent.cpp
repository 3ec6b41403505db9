/*
 * Where a request ends, and whether it keeps to the limits. Only the few headers that say how long
 * the body is are looked at; everything else is the HTTP library's to parse.
 */
#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>

#include <strings.h>

#include "panel/http_server.h"

namespace
{
std::string_view Trimmed(std::string_view i_strText)
{
    while (!i_strText.empty() && (i_strText.front() == ' ' || i_strText.front() == '\t')) {
        i_strText.remove_prefix(1);
    }
    while (!i_strText.empty() && (i_strText.back() == ' ' || i_strText.back() == '\t')) {
        i_strText.remove_suffix(1);
    }
    return i_strText;
}

bool IsName(std::string_view i_strLine, std::string_view i_strName)
{
    return i_strLine.size() > i_strName.size() && i_strLine[i_strName.size()] == ':' &&
           strncasecmp(i_strLine.data(), i_strName.data(), i_strName.size()) == 0;
}

REQUEST_EXTENT_S Refused(int i_s32Status)
{
    return {RequestState::Refused, i_s32Status, 0};
}

struct BODY_S {
    int s32Status = 0; /* why there must be none */
    std::optional<std::size_t> objLength;
};

void ReadLine(std::string_view i_strLine, BODY_S &io_stBody)
{
    if (IsName(i_strLine, "transfer-encoding")) {
        io_stBody.s32Status = 411;
    } else if (IsName(i_strLine, "content-encoding")) {
        /* The library would unpack it without a limit on what comes out. */
        io_stBody.s32Status = 415;
    } else if (IsName(i_strLine, "content-length")) {
        const std::string_view strValue = Trimmed(i_strLine.substr(sizeof("content-length")));
        std::size_t u64Length = 0;
        const auto [pEnd, eError] =
            std::from_chars(strValue.data(), strValue.data() + strValue.size(), u64Length);
        if (eError == std::errc::result_out_of_range) {
            io_stBody.s32Status = 413;
        } else if (eError != std::errc() || pEnd != strValue.data() + strValue.size() ||
                   io_stBody.objLength) {
            io_stBody.s32Status = 400;
        }
        io_stBody.objLength = u64Length;
    }
}
} // namespace

REQUEST_EXTENT_S MeasureRequest(const std::string &i_strBytes, const HTTP_LIMITS_S &i_stLimits)
{
    const std::size_t u64End = i_strBytes.find("\r\n\r\n");
    if (std::min(u64End, i_strBytes.size()) > i_stLimits.u64HeadBytes) {
        return Refused(431);
    }
    if (u64End == std::string::npos) {
        return {};
    }
    BODY_S stBody;
    const std::string_view strHead(i_strBytes.data(), u64End + 2);
    for (std::size_t u64Pos = 0; u64Pos < strHead.size();) {
        const std::size_t u64Line = strHead.find("\r\n", u64Pos);
        ReadLine(strHead.substr(u64Pos, u64Line - u64Pos), stBody);
        u64Pos = u64Line + 2;
    }
    if (stBody.s32Status != 0) {
        return Refused(stBody.s32Status);
    }
    const std::size_t u64Body = stBody.objLength.value_or(0);
    if (u64Body > i_stLimits.u64BodyBytes) {
        return Refused(413);
    }
    const std::size_t u64Size = u64End + 4 + u64Body;
    if (i_strBytes.size() < u64Size) {
        return {};
    }
    return {RequestState::Complete, 0, u64Size};
}
