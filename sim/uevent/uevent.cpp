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

struct TIMING_S {
    int s32Width = 0, s32Height = 0, s32Fps = 0, s32Interlaced = 0;
};

/* "1920x1080@60-0" or "1920x1080@60" */
bool ReadInFull(const std::string &i_strText, TIMING_S *o_pTiming)
{
    TIMING_S stRead;
    int s32Used = 0;
    const int s32Fields =
        sscanf(i_strText.c_str(), "%5dx%5d@%3d%n-%1d%n", &stRead.s32Width, &stRead.s32Height,
               &stRead.s32Fps, &s32Used, &stRead.s32Interlaced, &s32Used);
    if (s32Fields < 3 || static_cast<size_t>(s32Used) != i_strText.size() || stRead.s32Width < 0 ||
        stRead.s32Height < 0 || stRead.s32Fps < 0) {
        return false;
    }
    *o_pTiming = stRead;
    return true;
}

/* "1080p60" or "1080i50" */
bool ReadByName(const std::string &i_strText, TIMING_S *o_pTiming)
{
    TIMING_S stRead;
    char szScan[2] = "";
    int s32Used = 0;
    if (sscanf(i_strText.c_str(), "%4d%1[pi]%3d%n", &stRead.s32Height, szScan, &stRead.s32Fps,
               &s32Used) != 3 ||
        static_cast<size_t>(s32Used) != i_strText.size() || stRead.s32Fps <= 0) {
        return false;
    }
    stRead.s32Interlaced = szScan[0] == 'i' ? 1 : 0;
    for (const NAMED_SIZE_S &stSize : kNamedSizes) {
        if (stSize.s32Height == stRead.s32Height) {
            stRead.s32Width = stSize.s32Width;
            *o_pTiming = stRead;
            return true;
        }
    }
    return false;
}

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
    TIMING_S stTiming;
    if (!ReadInFull(i_strTiming, &stTiming) && !ReadByName(i_strTiming, &stTiming)) {
        return false;
    }
    *o_pEvent = std::to_string(stTiming.s32Width) + "x" + std::to_string(stTiming.s32Height) + "@" +
                std::to_string(stTiming.s32Fps) + "-" + std::to_string(stTiming.s32Interlaced);
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
