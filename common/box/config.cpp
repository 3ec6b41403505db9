/*
 * Configuration module: the way from the parameters' text to the configuration record, and the
 * handlers that read and change the record.
 */
#include "common/box/config.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include <strings.h>

#include "common/box/param.h"
#include "common/bus/log.h"
#include "common/bus/router.h"

CONFIG_INFO_S g_stConfigInfo;

namespace
{
constexpr std::size_t kSrcDeviceIdLength = 12;

struct RANGE_S {
    SInt32 s32Min;
    SInt32 s32Max;
    constexpr bool Has(long i_s64Value) const
    {
        return i_s64Value >= s32Min && i_s64Value <= s32Max;
    }
};
constexpr RANGE_S kGop = {1, 65535};
constexpr RANGE_S kBitrate = {100000, 10000000};
constexpr RANGE_S kPrevHeight = {270, 1080};
constexpr RANGE_S kPrevRefreshrate = {1, 10};

void TellLockWait(const char *i_pPath)
{
    LOG_WARN("HandleReadConfigMsg %s is locked by another process, waiting", i_pPath);
}

/* What a person who edited the file would otherwise look for in vain. */
void TellLoad(const char *i_pPath, const char *i_pLoadError, const PARAM_ROWS &i_objTooLong)
{
    if (i_pLoadError[0] != '\0') {
        LOG_WARN("HandleReadConfigMsg %s not loaded, defaults are used: %s", i_pPath, i_pLoadError);
    }
    for (std::size_t i = 0; i < PARAM_COUNT; i++) {
        if (i_objTooLong[i]) {
            LOG_WARN("HandleReadConfigMsg %s is longer than %u characters, using <%s>",
                     g_aParams[i].name, g_aParams[i].capacity - 1, g_aParams[i].default_value);
        }
    }
}

/* An empty text counts as on. */
UInt32 EnableFrom(const char *i_pText)
{
    return i_pText[0] != '\0' && strcasecmp(i_pText, "true") != 0 ? 0 : 1;
}

/* Leading digits count, as with atoi(3); a number beyond the type's range is out of every range
 * here too. */
SInt32 NumberFrom(const char *i_pName, const char *i_pText, RANGE_S i_stRange, SInt32 i_s32Default)
{
    long s64Value = strtol(i_pText, nullptr, 10);
    if (i_pText[0] != '\0' && i_stRange.Has(s64Value)) {
        return static_cast<SInt32>(s64Value);
    }
    LOG_WARN("HandleReadConfigMsg %s <%s> is not in %d..%d, using %d", i_pName, i_pText,
             i_stRange.s32Min, i_stRange.s32Max, i_s32Default);
    return i_s32Default;
}

const char *ModeFrom(const char *i_pText)
{
    if (strcasecmp(i_pText, "cbr") == 0) {
        return "cbr";
    }
    if (strcasecmp(i_pText, "vbr") != 0) {
        LOG_WARN("HandleReadConfigMsg h264_stream_mode <%s> is unknown, using vbr", i_pText);
    }
    return "vbr";
}

/* Writes the rate-control mode if the text, which need not be terminated, names one. */
void SetMode(const char *i_pText, char *o_pMode)
{
    constexpr std::size_t kModeSize = sizeof("vbr");
    for (const char *pMode : {"vbr", "cbr"}) {
        if (strncasecmp(i_pText, pMode, kModeSize) == 0) {
            memcpy(o_pMode, pMode, kModeSize); /* kept: the rest of the field stays as it is */
        }
    }
}

void SetEnable(UInt32 i_u32Value, UInt32 *o_pField)
{
    if (i_u32Value == 1 || i_u32Value == 0) {
        *o_pField = i_u32Value;
    }
}

/* The value is taken as signed, so that "no change", all ones, is out of every range. */
void SetNumber(UInt32 i_u32Value, RANGE_S i_stRange, SInt32 *o_pField)
{
    SInt32 s32Value = static_cast<SInt32>(i_u32Value);
    if (i_stRange.Has(s32Value)) {
        *o_pField = s32Value;
    }
}

/* A synchronous question is answered into its sender's buffer, any other by a message. */
template <PayloadRecord Record>
int Answer(const MSG_DESC_INFO_S *i_pRequest, void *o_pResult, const Record &i_stAnswer)
{
    if (i_pRequest->msgtype == MSG_TYPE_SYNC) {
        if (o_pResult == nullptr) {
            return 0;
        }
        memcpy(o_pResult, &i_stAnswer, sizeof(i_stAnswer));
        return 1;
    }
    MSG_DESC_INFO_S stMsg =
        MakeMsg(i_pRequest->msgtype, MODULE_CONFIG, i_pRequest->src, i_pRequest->msgno);
    PutPayload(&stMsg, i_stAnswer);
    SendSyncAndAsyncMsg(&stMsg, nullptr);
    return 1;
}
} // namespace

CConfig::CConfig(const char *i_pPath)
    : CModule(MODULE_CONFIG, "config", "config", MSG_READ_CONFIG), m_stConfigInfo{},
      m_pPath(i_pPath)
{
}

int CConfig::Dispatch(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult)
{
    switch (i_pMsg->msgno) {
    case MSG_REINIT:
    case MSG_READ_CONFIG:
        return HandleReadConfigMsg(i_pMsg, o_pResult);
    case MSG_GET_ADDR_LIST:
        return HandleGetAddrList(i_pMsg, o_pResult);
    case MSG_GET_ADDR_URL:
        return HandleGetAddrUrl(i_pMsg, o_pResult);
    case MSG_GET_STREAM_STATUS:
        return HandleGetStreamStatus(i_pMsg, o_pResult);
    case MSG_GET_SRC_DEVICE_ID:
        return HandleGetSrcDeviceId(i_pMsg, o_pResult);
    case MSG_SET_STREAM_STATUS:
        return HandleSetStreamStatus(i_pMsg, o_pResult);
    case MSG_SET_SRC_DEVICE_ID:
        return HandleSetSrcDeviceId(i_pMsg, o_pResult);
    default:
        return CModule::Dispatch(i_pMsg, o_pResult);
    }
}

int CConfig::HandleReadConfigMsg(const MSG_DESC_INFO_S *, void *o_pResult)
{
    {
        RQ_XMLParser objParser(m_pPath);
        UInt32 u32Err = objParser.Parse(TellLockWait);
        if (u32Err != 0) {
            LOG_ERROR("HandleReadConfigMsg %s err<%d>", m_pPath, static_cast<int>(u32Err));
            return 0;
        }
        PARAM_ROWS objTooLong = ReadTheXML(objParser, false);
        TellLoad(m_pPath, objParser.LoadError(), objTooLong);
    }
    UInt8 u8Changed = static_cast<UInt8>(GetConfigInfoFromFile());
    if (o_pResult != nullptr) {
        memcpy(o_pResult, &u8Changed, sizeof(u8Changed));
    }
    return 1;
}

int CConfig::GetConfigInfoFromFile()
{
    CONFIG_INFO_S &stInfo = g_stConfigInfo;
    memset(&stInfo, 0, sizeof(stInfo));
    rq_strncpy(stInfo.szAddrList, g_szAddrList, sizeof(stInfo.szAddrList));
    if (strlen(g_szAddrUrl) >= sizeof(stInfo.szAddrUrl)) {
        LOG_WARN("HandleReadConfigMsg addr_url is cut to %u characters",
                 static_cast<unsigned>(sizeof(stInfo.szAddrUrl) - 1));
    }
    rq_strncpy(stInfo.szAddrUrl, g_szAddrUrl, sizeof(stInfo.szAddrUrl));
    stInfo.u32H264Enable = EnableFrom(g_szH264Enable);
    stInfo.u32H264Gop = NumberFrom("h264_stream_gop", g_szH264Gop, kGop, 60);
    rq_strncpy(stInfo.szH264Mode, ModeFrom(g_szH264Mode), sizeof(stInfo.szH264Mode));
    stInfo.u32H264Bitrate = NumberFrom("h264_stream_bitrate", g_szH264Bitrate, kBitrate, 1000000);
    stInfo.u32PrevEnable = EnableFrom(g_szPrevEnable);
    stInfo.u32PrevHeight = NumberFrom("preview_stream_height", g_szPrevHeight, kPrevHeight, 720);
    stInfo.u32PrevRefreshrate =
        NumberFrom("preview_stream_refreshrate", g_szPrevRefreshrate, kPrevRefreshrate, 1);
    if (strlen(g_szSrcDeviceId) >= kSrcDeviceIdLength) {
        rq_strncpy(stInfo.szSrcDeviceId, g_szSrcDeviceId, sizeof(stInfo.szSrcDeviceId));
    } else if (g_szSrcDeviceId[0] != '\0') {
        LOG_WARN("HandleReadConfigMsg src_device_id <%s> is shorter than %u characters, ignored",
                 g_szSrcDeviceId, static_cast<unsigned>(kSrcDeviceIdLength));
    }
    if (memcmp(&stInfo, &m_stConfigInfo, sizeof(stInfo)) == 0) {
        return 0;
    }
    m_stConfigInfo = stInfo;
    return 1;
}

int CConfig::HandleGetAddrList(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult)
{
    return Answer(i_pMsg, o_pResult, m_stConfigInfo.szAddrList);
}

int CConfig::HandleGetAddrUrl(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult)
{
    return Answer(i_pMsg, o_pResult, m_stConfigInfo.szAddrUrl);
}

int CConfig::HandleGetStreamStatus(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult)
{
    const CONFIG_INFO_S &stInfo = m_stConfigInfo;
    STREAM_STATUS_S stStatus = {};
    stStatus.u32Type = STREAM_STATUS_BOTH;
    stStatus.u32H264Enable = stInfo.u32H264Enable;
    stStatus.u32H264Gop = static_cast<UInt32>(stInfo.u32H264Gop);
    memcpy(stStatus.szH264Mode, stInfo.szH264Mode, sizeof(stStatus.szH264Mode));
    stStatus.u32H264Bitrate = static_cast<UInt32>(stInfo.u32H264Bitrate);
    stStatus.u32PrevEnable = stInfo.u32PrevEnable;
    stStatus.u32PrevHeight = static_cast<UInt32>(stInfo.u32PrevHeight);
    stStatus.u32PrevRefreshrate = static_cast<UInt32>(stInfo.u32PrevRefreshrate);
    return Answer(i_pMsg, o_pResult, stStatus);
}

int CConfig::HandleGetSrcDeviceId(const MSG_DESC_INFO_S *i_pMsg, void *o_pResult)
{
    return Answer(i_pMsg, o_pResult, m_stConfigInfo.szSrcDeviceId);
}

int CConfig::HandleSetStreamStatus(const MSG_DESC_INFO_S *i_pMsg, void *)
{
    LOG_INFO("set stream status");
    const STREAM_STATUS_S stStatus = PayloadOf<STREAM_STATUS_S>(*i_pMsg);
    CONFIG_INFO_S &stInfo = m_stConfigInfo;
    if (stStatus.u32Type == STREAM_STATUS_H264 || stStatus.u32Type == STREAM_STATUS_BOTH) {
        SetEnable(stStatus.u32H264Enable, &stInfo.u32H264Enable);
        SetNumber(stStatus.u32H264Gop, kGop, &stInfo.u32H264Gop);
        SetMode(stStatus.szH264Mode, stInfo.szH264Mode);
        SetNumber(stStatus.u32H264Bitrate, kBitrate, &stInfo.u32H264Bitrate);
    }
    if (stStatus.u32Type == STREAM_STATUS_PREVIEW || stStatus.u32Type == STREAM_STATUS_BOTH) {
        SetEnable(stStatus.u32PrevEnable, &stInfo.u32PrevEnable);
        SetNumber(stStatus.u32PrevHeight, kPrevHeight, &stInfo.u32PrevHeight);
        SetNumber(stStatus.u32PrevRefreshrate, kPrevRefreshrate, &stInfo.u32PrevRefreshrate);
    }
    return 1;
}

int CConfig::HandleSetSrcDeviceId(const MSG_DESC_INFO_S *i_pMsg, void *)
{
    const std::string strId(TextOf(*i_pMsg).substr(0, sizeof(m_stConfigInfo.szSrcDeviceId)));
    LOG_INFO("set src device id:%s", strId.c_str());
    if (strId.size() != kSrcDeviceIdLength) {
        LOG_ERROR("src device id <%s> len :%d err", strId.c_str(), static_cast<int>(strId.size()));
        return 0;
    }
    rq_strncpy(m_stConfigInfo.szSrcDeviceId, strId.c_str(), sizeof(m_stConfigInfo.szSrcDeviceId));
    return 1;
}
