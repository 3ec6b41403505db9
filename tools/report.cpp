/*
 * What the client tells.
 */
#include "tools/report.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace
{
using CJson = nlohmann::ordered_json;

const char *const kNotApplied = ", but only kept: the preview comes at the rate of the stream";

CJson ToJson(const CFieldValue &i_xValue)
{
    return std::visit([](const auto &i_xPlain) { return CJson(i_xPlain); }, i_xValue);
}

/* Bytes of a received text that are no UTF-8 are replaced rather than thrown about. */
std::string Line(const CJson &i_objJson)
{
    return i_objJson.dump(-1, ' ', false, CJson::error_handler_t::replace) + "\n";
}

std::string Padded(const std::string &i_strText, std::size_t i_u64Width)
{
    return i_strText + std::string(i_u64Width - std::min(i_u64Width, i_strText.size()), ' ');
}

std::string Name(std::size_t i_u64Field)
{
    return Padded(STREAM_SETTINGS[i_u64Field].pName, 13);
}

std::string Arrow(std::size_t i_u64Field, const CFieldValue &i_xFrom, const CFieldValue &i_xTo)
{
    return FormatField(i_u64Field, i_xFrom) + " -> " + FormatField(i_u64Field, i_xTo);
}
} // namespace

std::string FormatTable(const CFieldValues &i_objValues)
{
    std::string strTable;
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        if (!i_objValues[i]) {
            continue;
        }
        const std::string strUnit = FIELD_TEXTS[i].pUnit;
        const std::string strValue = FormatField(i, *i_objValues[i]);
        strTable += Name(i) + (strUnit.empty() ? strValue : Padded(strValue, 9) + strUnit) + "\n";
    }
    return strTable;
}

std::string FormatJson(const CFieldValues &i_objValues)
{
    CJson objJson = CJson::object();
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        if (i_objValues[i]) {
            objJson[STREAM_SETTINGS[i].pName] = ToJson(*i_objValues[i]);
        }
    }
    return Line(objJson);
}

std::string FormatSet(const std::vector<SET_RESULT_S> &i_objResults)
{
    std::string strText;
    for (const SET_RESULT_S &stResult : i_objResults) {
        const std::string strNow = FormatField(stResult.u64Field, stResult.xNow);
        strText += Name(stResult.u64Field);
        if (stResult.eOutcome == SetOutcome::Taken) {
            strText += Arrow(stResult.u64Field, stResult.xBefore, stResult.xNow) + "  taken" +
                       (stResult.u64Field == SETTING_REFRESHRATE ? kNotApplied : "") + "\n";
        } else if (stResult.eOutcome == SetOutcome::Already) {
            strText += strNow + "  already so\n";
        } else {
            strText += "stays " + strNow + "  " + OutcomeName(stResult.eOutcome) + ": " +
                       stResult.strReason + "\n";
        }
    }
    return strText;
}

std::string FormatSetJson(const std::vector<SET_RESULT_S> &i_objResults)
{
    CJson objFields = CJson::array();
    bool bOk = true;
    for (const SET_RESULT_S &stResult : i_objResults) {
        CJson objField = {{"field", STREAM_SETTINGS[stResult.u64Field].pName},
                          {"asked", ToJson(stResult.xAsked)},
                          {"before", ToJson(stResult.xBefore)},
                          {"now", ToJson(stResult.xNow)},
                          {"outcome", OutcomeName(stResult.eOutcome)}};
        if (!stResult.strReason.empty()) {
            objField["reason"] = stResult.strReason;
            bOk = false;
        }
        objFields.push_back(objField);
    }
    return Line({{"ok", bOk}, {"fields", objFields}});
}

std::string FormatChanges(const CFieldValues &i_objBefore, const CFieldValues &i_objNow)
{
    std::string strText;
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        if (i_objBefore[i] && i_objNow[i] && i_objBefore[i] != i_objNow[i]) {
            strText += Name(i) + Arrow(i, *i_objBefore[i], *i_objNow[i]) + "\n";
        }
    }
    return strText;
}

std::string FormatChangesJson(const std::string &i_strTime, const CFieldValues &i_objBefore,
                              const CFieldValues &i_objNow)
{
    CJson objChanges = CJson::object();
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        if (i_objNow[i] && i_objBefore[i] != i_objNow[i]) {
            objChanges[STREAM_SETTINGS[i].pName] = ToJson(*i_objNow[i]);
        }
    }
    return Line({{"time", i_strTime}, {"changes", objChanges}});
}

std::string FormatSavedJson(const std::string &i_strFile, bool i_bSaved,
                            const CFieldValues &i_objFile, const CFieldValues &i_objRunning)
{
    CJson objChanges = CJson::object();
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        if (i_objFile[i] && i_objRunning[i] && i_objFile[i] != i_objRunning[i]) {
            objChanges[STREAM_SETTINGS[i].pName] = {{"file", ToJson(*i_objFile[i])},
                                                    {"running", ToJson(*i_objRunning[i])}};
        }
    }
    return Line({{"file", i_strFile}, {"saved", i_bSaved}, {"changes", objChanges}});
}
