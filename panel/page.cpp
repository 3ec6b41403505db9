/*
 * The page as it leaves the box.
 */
#include "panel/page.h"

#include <cmath>

namespace
{
std::string Escaped(const std::string &i_strText)
{
    std::string strResult;
    for (const char s8Char : i_strText) {
        switch (s8Char) {
        case '&':
            strResult += "&amp;";
            break;
        case '<':
            strResult += "&lt;";
            break;
        case '>':
            strResult += "&gt;";
            break;
        case '"':
            strResult += "&quot;";
            break;
        default:
            strResult += s8Char;
        }
    }
    return strResult;
}

std::string Whole(const SEEN_STATE_S &i_stState, const char *i_pPlace)
{
    const std::optional<double> objValue = i_stState.Number(i_pPlace);
    return objValue && std::isfinite(*objValue) ? std::to_string(std::llround(*objValue)) : "?";
}

std::string Input(const SEEN_STATE_S &i_stState)
{
    if (i_stState.Number("/input/width").value_or(0) <= 0) {
        return "none known";
    }
    return Whole(i_stState, "/input/width") + " x " + Whole(i_stState, "/input/height") + " at " +
           Whole(i_stState, "/input/fps") + " pictures/s";
}

std::string Stream(const SEEN_STATE_S &i_stState)
{
    if (!i_stState.Number("/stream/packets")) {
        return "none known";
    }
    return Whole(i_stState, "/stream/kbit_per_second") + " kbit/s, " +
           Whole(i_stState, "/stream/pictures_per_second") + " pictures/s, " +
           Whole(i_stState, "/stream/lost") + " packets lost";
}
} // namespace

std::string FillPage(std::string i_strPage, const SEEN_STATE_S &i_stState,
                     const std::string &i_strOrigin)
{
    const std::pair<const char *, std::string> objTexts[] = {
        {"{{condition}}", i_stState.Condition()},
        {"{{text}}", i_stState.Sentence()},
        {"{{input}}", Input(i_stState)},
        {"{{stream}}", Stream(i_stState)},
        {"{{origin}}", i_strOrigin},
    };
    for (const auto &[pName, strText] : objTexts) {
        const std::string strName(pName);
        const std::string strEscaped = Escaped(strText);
        for (std::size_t u64Pos = i_strPage.find(strName); u64Pos != std::string::npos;
             u64Pos = i_strPage.find(strName, u64Pos + strEscaped.size())) {
            i_strPage.replace(u64Pos, strName.size(), strEscaped);
        }
    }
    return i_strPage;
}
