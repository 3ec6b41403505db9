/*
 * The settings as people write and read them.
 */
#include "tools/stream_fields.h"

#include <cctype>
#include <climits>
#include <initializer_list>
#include <utility>

#include <strings.h>

const std::array<FIELD_TEXTS_S, STREAM_SETTING_COUNT> FIELD_TEXTS = {{
    {"", "the H.264 stream: on or off"},
    {"frames", "frames from one key frame to the next"},
    {"", "rate control: cbr or vbr (has no effect)"},
    {"bit/s", "bit rate, such as 2M or 1500k"},
    {"", "the preview pictures: on or off"},
    {"lines", "height of the preview pictures"},
    {"pictures/s", "preview pictures per second (kept, not applied)"},
}};

namespace
{
struct SUFFIX_S {
    const char *pText;
    SInt64 s64Factor;
};

bool Equal(const std::string &i_strLeft, const char *i_pRight)
{
    return strcasecmp(i_strLeft.c_str(), i_pRight) == 0;
}

/* A decimal number with one of the suffixes; none unless the product is whole. Twelve digits leave
 * room for every factor here. */
std::optional<SInt64> ParseScaled(const std::string &i_strText,
                                  std::initializer_list<SUFFIX_S> i_objSuffixes)
{
    SInt64 s64Digits = 0;
    SInt64 s64Divisor = 1;
    bool bPoint = false;
    std::size_t u64Count = 0;
    std::size_t u64Pos = 0;
    for (; u64Pos < i_strText.size(); u64Pos++) {
        const char s8Char = i_strText[u64Pos];
        if (s8Char == '.' && !bPoint) {
            bPoint = true;
        } else if (s8Char >= '0' && s8Char <= '9' && ++u64Count <= 12) {
            s64Digits = s64Digits * 10 + (s8Char - '0');
            s64Divisor *= bPoint ? 10 : 1;
        } else {
            break;
        }
    }
    for (const SUFFIX_S &stSuffix : i_objSuffixes) {
        if (u64Count > 0 && Equal(i_strText.substr(u64Pos), stSuffix.pText)) {
            const SInt64 s64Product = s64Digits * stSuffix.s64Factor;
            return s64Product % s64Divisor == 0 ? std::optional(s64Product / s64Divisor)
                                                : std::nullopt;
        }
    }
    return std::nullopt;
}

std::optional<CFieldValue> ParseFlag(const std::string &i_strText)
{
    for (const char *pOn : {"on", "true", "yes", "1"}) {
        if (Equal(i_strText, pOn)) {
            return true;
        }
    }
    for (const char *pOff : {"off", "false", "no", "0"}) {
        if (Equal(i_strText, pOff)) {
            return false;
        }
    }
    return std::nullopt;
}

std::optional<CFieldValue> ParseMode(const std::string &i_strText)
{
    for (const char *pMode : {"cbr", "vbr"}) {
        if (Equal(i_strText, pMode)) {
            return pMode;
        }
    }
    return std::nullopt;
}

std::optional<CFieldValue> ParseNumber(std::size_t i_u64Field, const std::string &i_strText)
{
    const std::optional<SInt64> objNumber =
        i_u64Field == SETTING_BITRATE
            ? ParseScaled(
                  i_strText,
                  {{"", 1}, {"k", 1000}, {"M", 1000000}, {"kbit/s", 1000}, {"Mbit/s", 1000000}})
            : ParseScaled(i_strText, {{"", 1}});
    /* Beyond that the wire has no room. */
    if (!objNumber || *objNumber > INT_MAX) {
        return std::nullopt;
    }
    return static_cast<SInt32>(*objNumber);
}

std::string FormatBitrate(SInt32 i_s32Value)
{
    if (i_s32Value >= 1000000 && i_s32Value % 100000 == 0) {
        const SInt32 s32Tenths = i_s32Value / 100000 % 10;
        std::string strText = std::to_string(i_s32Value / 1000000);
        if (s32Tenths != 0) {
            strText += '.';
            strText += std::to_string(s32Tenths);
        }
        return strText + "M";
    }
    if (i_s32Value > 0 && i_s32Value % 1000 == 0) {
        return std::to_string(i_s32Value / 1000) + "k";
    }
    return std::to_string(i_s32Value);
}
} // namespace

std::optional<CFieldValue> ParseField(std::size_t i_u64Field, const std::string &i_strText,
                                      std::string &o_strError)
{
    std::optional<CFieldValue> objValue;
    std::string strWanted;
    switch (STREAM_SETTINGS[i_u64Field].eKind) {
    case SettingKind::Flag:
        objValue = ParseFlag(i_strText);
        strWanted = "on or off";
        break;
    case SettingKind::Mode:
        objValue = ParseMode(i_strText);
        strWanted = "cbr or vbr";
        break;
    case SettingKind::Number:
        objValue = ParseNumber(i_u64Field, i_strText);
        strWanted = FormatRange(i_u64Field);
        break;
    }
    if (!objValue) {
        o_strError = "--" + std::string(STREAM_SETTINGS[i_u64Field].pName) + ": '" + i_strText +
                     "' is not a value; give " + strWanted;
    }
    return objValue;
}

std::optional<std::chrono::milliseconds> ParseDuration(const std::string &i_strText)
{
    const std::optional<SInt64> objNumber =
        ParseScaled(i_strText, {{"", 1000}, {"s", 1000}, {"ms", 1}, {"min", 60000}});
    if (!objNumber || *objNumber < 1 || *objNumber > 86400000) {
        return std::nullopt;
    }
    return std::chrono::milliseconds(*objNumber);
}

std::string FormatField(std::size_t i_u64Field, const CFieldValue &i_xValue)
{
    if (const auto *pFlag = std::get_if<Bool>(&i_xValue)) {
        return *pFlag ? "on" : "off";
    }
    if (const auto *pNumber = std::get_if<SInt32>(&i_xValue)) {
        return i_u64Field == SETTING_BITRATE ? FormatBitrate(*pNumber) : std::to_string(*pNumber);
    }
    std::string strText = std::get<std::string>(i_xValue);
    for (char &s8Char : strText) {
        s8Char = std::isprint(static_cast<unsigned char>(s8Char)) != 0 ? s8Char : '?';
    }
    return strText;
}

std::string FormatRange(std::size_t i_u64Field)
{
    const STREAM_SETTING_S &stSetting = STREAM_SETTINGS[i_u64Field];
    return FormatField(i_u64Field, stSetting.s32Least) + " to " +
           FormatField(i_u64Field, stSetting.s32Most) + " " + FIELD_TEXTS[i_u64Field].pUnit;
}

Bool IsInRange(std::size_t i_u64Field, const CFieldValue &i_xValue)
{
    const auto *pNumber = std::get_if<SInt32>(&i_xValue);
    return pNumber == nullptr || STREAM_SETTINGS[i_u64Field].Takes(*pNumber);
}
