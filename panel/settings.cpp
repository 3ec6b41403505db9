/*
 * The settings of the stream for the page.
 */
#include "panel/settings.h"

#include <cstring>
#include <sstream>

#include "tools/apply_settings.h"
#include "tools/ctl_save.h"

using nlohmann::json;

namespace
{
constexpr std::chrono::seconds kFresh(5);
constexpr std::chrono::seconds kAskTime(5);
/* Covers two streams that are still starting. */
constexpr std::chrono::seconds kApplyTime(25);

json ValueJson(const CFieldValue &i_xValue)
{
    return std::visit([](const auto &i_xHeld) { return json(i_xHeld); }, i_xValue);
}

std::string WhyNoAnswer(const ANSWER_S &i_stAnswer)
{
    switch (i_stAnswer.eResult) {
    case AskResult::NotRunning:
        return "The daemon (mv3300d) is not running.";
    case AskResult::ReplyPortTaken:
        return "Another program is talking to the daemon just now; try again.";
    case AskResult::NoAnswer:
        return "The daemon does not answer; it may be busy starting the stream. Try again.";
    default:
        return "The control channel cannot be used: " + std::string(strerror(i_stAnswer.s32Error)) +
               ".";
    }
}

json Describe(const CFieldValues &i_objValues)
{
    json objSettings = json::array();
    for (std::size_t i = 0; i < STREAM_SETTING_COUNT; i++) {
        const STREAM_SETTING_S &stSetting = STREAM_SETTINGS[i];
        json objSetting = {{"name", stSetting.pName},
                           {"help", FIELD_TEXTS[i].pHelp},
                           {"unit", FIELD_TEXTS[i].pUnit},
                           {"value", i_objValues[i] ? ValueJson(*i_objValues[i]) : json()}};
        if (stSetting.eKind == SettingKind::Number) {
            objSetting["kind"] = "number";
            objSetting["least"] = stSetting.s32Least;
            objSetting["most"] = stSetting.s32Most;
        } else if (stSetting.eKind == SettingKind::Mode) {
            objSetting["kind"] = "mode";
            objSetting["choices"] = {"cbr", "vbr"};
        } else {
            objSetting["kind"] = "flag";
        }
        objSettings.push_back(objSetting);
    }
    return objSettings;
}

/* The value of one member of the body; an error text otherwise. */
std::optional<CFieldValue> ReadValue(std::size_t i_u64Field, const json &i_objValue,
                                     std::string &o_strError)
{
    const SettingKind eKind = STREAM_SETTINGS[i_u64Field].eKind;
    if (eKind == SettingKind::Flag && i_objValue.is_boolean()) {
        return i_objValue.get<bool>();
    }
    if (eKind == SettingKind::Number && i_objValue.is_number_integer()) {
        const auto s64Value = i_objValue.get<SInt64>();
        if (s64Value >= 0 && s64Value <= INT32_MAX) {
            return static_cast<SInt32>(s64Value);
        }
    } else if (i_objValue.is_string()) {
        return ParseField(i_u64Field, i_objValue.get<std::string>(), o_strError);
    }
    o_strError = std::string(STREAM_SETTINGS[i_u64Field].pName) + " has a value of the wrong kind";
    return std::nullopt;
}

/* Empty, or what is wrong with the body. */
std::string ReadBody(const std::string &i_strBody, CFieldValues &o_objAsked)
{
    const json objBody = json::parse(i_strBody, nullptr, false);
    if (!objBody.is_object() || objBody.empty()) {
        return "the body must be an object of settings, such as {\"gop\": 30}";
    }
    for (const auto &[strName, objValue] : objBody.items()) {
        std::size_t u64Field = 0;
        while (u64Field < STREAM_SETTING_COUNT && strName != STREAM_SETTINGS[u64Field].pName) {
            u64Field++;
        }
        if (u64Field == STREAM_SETTING_COUNT) {
            return "there is no such setting: " + strName;
        }
        std::string strError;
        o_objAsked[u64Field] = ReadValue(u64Field, objValue, strError);
        if (!o_objAsked[u64Field]) {
            return strError;
        }
    }
    return {};
}

json ResultJson(const SET_RESULT_S &i_stResult)
{
    return {{"name", STREAM_SETTINGS[i_stResult.u64Field].pName},
            {"asked", ValueJson(i_stResult.xAsked)},
            {"before", ValueJson(i_stResult.xBefore)},
            {"now", ValueJson(i_stResult.xNow)},
            {"outcome", OutcomeName(i_stResult.eOutcome)},
            {"reason", i_stResult.strReason}};
}
} // namespace

void CSettings::Save(const CFieldValues &i_objValues, json &io_objReply) const
{
    std::ostringstream objOut, objErr;
    SAVE_OPTIONS_S stOptions;
    stOptions.strFile = m_strParamFile;
    const bool bSaved = SaveSettings({{}, objOut, objErr}, i_objValues, stOptions) == CTL_OK;
    io_objReply["saved"] = bSaved;
    io_objReply["save_error"] = bSaved ? "" : objErr.str();
}

void CSettings::Remember(const CFieldValues &i_objValues)
{
    const std::chrono::duration<double> objNow =
        std::chrono::system_clock::now().time_since_epoch();
    json objKnown = {{"time", objNow.count()}};
    for (const auto &[pName, u64Field] :
         {std::pair("h264_enable", SETTING_H264), std::pair("h264_gop", SETTING_GOP),
          std::pair("h264_bitrate", SETTING_BITRATE), std::pair("preview_enable", SETTING_PREVIEW),
          std::pair("preview_height", SETTING_HEIGHT),
          std::pair("preview_refreshrate", SETTING_REFRESHRATE)}) {
        const std::optional<CFieldValue> &xValue = i_objValues[u64Field];
        objKnown[pName] = xValue ? ValueJson(*xValue) : json();
    }
    const std::lock_guard objLock(m_objKnownMutex);
    m_objKnown = std::move(objKnown);
}

json CSettings::Known() const
{
    const std::lock_guard objLock(m_objKnownMutex);
    return m_objKnown;
}

CSettings::REPLY_S CSettings::Get()
{
    const std::lock_guard objLock(m_objMutex);
    const auto objNow = std::chrono::steady_clock::now();
    if (!m_stLast.objJson.is_null() && objNow - m_objAsked < kFresh) {
        return m_stLast;
    }
    const ANSWER_S stAnswer = AskDaemon({}, ASK_ALL, {}, kAskTime);
    if (stAnswer.eResult == AskResult::Answered) {
        Remember(stAnswer.objValues);
    }
    m_stLast = stAnswer.eResult == AskResult::Answered
                   ? REPLY_S{200, {{"settings", Describe(stAnswer.objValues)}}}
                   : REPLY_S{503, {{"error", WhyNoAnswer(stAnswer)}}};
    m_objAsked = std::chrono::steady_clock::now();
    return m_stLast;
}

CSettings::REPLY_S CSettings::Put(const std::string &i_strBody, Bool i_bSave)
{
    CFieldValues objAsked;
    const std::string strWrong = ReadBody(i_strBody, objAsked);
    if (!strWrong.empty()) {
        return {400, {{"error", strWrong}}};
    }
    const std::lock_guard objLock(m_objMutex);
    const APPLIED_S stApplied = ApplySettings({}, objAsked, kApplyTime);
    m_stLast = {};
    if (stApplied.stAnswer.eResult != AskResult::Answered) {
        return {503,
                {{"error", WhyNoAnswer(stApplied.stAnswer)}, {"sent", stApplied.bSent == true}}};
    }
    Remember(stApplied.stAnswer.objValues);
    json objResults = json::array();
    for (const SET_RESULT_S &stResult : stApplied.objResults) {
        objResults.push_back(ResultJson(stResult));
    }
    json objReply = {{"done", stApplied.IsDone()},
                     {"results", objResults},
                     {"settings", Describe(stApplied.stAnswer.objValues)}};
    if (i_bSave) {
        Save(stApplied.stAnswer.objValues, objReply);
    }
    return {200, objReply};
}
