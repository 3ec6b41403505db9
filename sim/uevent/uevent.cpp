/*
 * Text and bytes of the bridge driver's uevent.
 */
#include "sim/uevent/uevent.h"

#include <cstdio>

namespace
{
struct NAMED_SIZE_S {
    int s32Width, s32Height;
};
constexpr NAMED_SIZE_S kNamedSizes[] = {
    {720, 480}, {720, 576}, {1280, 720}, {1920, 1080}, {3840, 2160}};

const std::string *FindVar(const UeventVars &i_objVars, const std::string &i_strName)
{
    for (const auto &stVar : i_objVars) {
        if (stVar.first == i_strName) {
            return &stVar.second;
        }
    }
    return nullptr;
}
} // namespace

Bool TimingToEvent(const std::string &i_strTiming, std::string *o_pEvent)
{
    int s32Width = 0, s32Height = 0, s32Fps = 0, s32Interlaced = 0, s32Used = 0;
    char cScan = 0;
    const char *pText = i_strTiming.c_str();
    const int s32Length = static_cast<int>(i_strTiming.size());
    if (sscanf(pText, "%5dx%5d@%3d%n-%1d%n", &s32Width, &s32Height, &s32Fps, &s32Used,
               &s32Interlaced, &s32Used) >= 3) {
        if (s32Used != s32Length || s32Width < 0 || s32Height < 0 || s32Fps < 0 ||
            s32Interlaced < 0) {
            return false;
        }
    } else if (sscanf(pText, "%4d%1[pi]%3d%n", &s32Height, &cScan, &s32Fps, &s32Used) == 3 &&
               s32Used == s32Length) {
        for (const NAMED_SIZE_S &stSize : kNamedSizes) {
            s32Width = stSize.s32Height == s32Height ? stSize.s32Width : s32Width;
        }
        s32Interlaced = cScan == 'i' ? 1 : 0;
        if (s32Width == 0 || s32Fps <= 0) {
            return false;
        }
    } else {
        return false;
    }
    *o_pEvent = std::to_string(s32Width) + "x" + std::to_string(s32Height) + "@" +
                std::to_string(s32Fps) + "-" + std::to_string(s32Interlaced);
    return true;
}

UeventVars BridgeEvent(const std::string &i_strEvent)
{
    return {{"ACTION", "change"},
            {"DEVPATH", "/devices/platform/soc/30a30000.i2c/i2c-1/1-000f"},
            {"SUBSYSTEM", "i2c"},
            {"DRIVER", "tc358743"},
            {"EVENT", i_strEvent}};
}

void SetVar(UeventVars *io_pVars, const std::string &i_strName, const std::string &i_strValue)
{
    for (auto &stVar : *io_pVars) {
        if (stVar.first == i_strName) {
            stVar.second = i_strValue;
            return;
        }
    }
    io_pVars->emplace_back(i_strName, i_strValue);
}

std::string UeventPayload(const UeventVars &i_objVars)
{
    const std::string *pAction = FindVar(i_objVars, "ACTION");
    const std::string *pPath = FindVar(i_objVars, "DEVPATH");
    std::string strPayload =
        (pAction == nullptr ? "" : *pAction) + "@" + (pPath == nullptr ? "" : *pPath);
    strPayload.push_back('\0');
    for (const auto &stVar : i_objVars) {
        strPayload += stVar.first + "=" + stVar.second;
        strPayload.push_back('\0');
    }
    return strPayload;
}
