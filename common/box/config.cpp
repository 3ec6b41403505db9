/*
 * Configuration module: the way from the parameters' text to the configuration record, and the
 * handlers that read and change the record.
 */
#include "common/box/config.h"

#include <cstring>
#include <string>

#include <strings.h>

#include "common/box/param_table.h"
#include "common/bus/log.h"
#include "common/bus/router.h"

CONFIG_INFO_S g_stConfigInfo;

namespace
{
constexpr unsigned kLockPollMs = 20;

/* Logs why values of the file are not the ones in use. */
void LogWhatIsNotUsed(const char *i_pPath, const RQ_XMLParser &i_objParser)
{
    if (i_objParser.LoadError()[0] != '\0') {
        LOG_DEBUG("HandleReadConfigMsg %s not loaded, defaults are used: %s", i_pPath,
                  i_objParser.LoadError());
    }
    const PARAM_ELEMENTS pFound = FindParams(i_objParser);
    for (std::size_t i = 0; i < PARAM_COUNT; i++) {
        const char *pText = pFound[i] != nullptr ? pFound[i]->GetText() : nullptr;
        const PARAM_VALUE_S stValue = EvaluateParam(g_aParams[i], pText);
        if (pText != nullptr && stValue.eNote != PARAM_NOTE::AS_GIVEN) {
            LOG_DEBUG("HandleReadConfigMsg %s <%.80s> %s, using <%.80s>", g_aParams[i].name, pText,
                      ParamNoteText(stValue.eNote), stValue.strText.c_str());
        }
    }
}

PARAM_VALUE_S Value(PARAM_ROW i_eRow)
{
    return EvaluateParam(g_aParams[i_eRow], g_aParams[i_eRow].buffer);
}

template <std::size_t Size> void CopyText(PARAM_ROW i_eRow, char (&o_szText)[Size])
{
    rq_strncpy(o_szText, Value(i_eRow).strText.c_str(), Size);
}

/* Writes the rate-control mode if the text, which need not be terminated, names one. */
void SetMode(const char *i_pText, char *o_pMode)
{
    constexpr std::size_t kModeSize = sizeof("vbr");
    for (const char *pMode : {"vbr", "cbr"}) {
        if (strncasecmp(i_pText, pMode, kModeSize) == 0) {
            /* Kept: the rest of the field stays as it is, since the record is compared and sent as
             * bytes. */
            memcpy(o_pMode, pMode, kModeSize);
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
void SetNumber(UInt32 i_u32Value, PARAM_ROW i_eRow, SInt32 *o_pField)
{
    SInt32 s32Value = static_cast<SInt32>(i_u32Value);
    if (g_aParams[i_eRow].Has(s32Value)) {
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
      m_pPath(i_pPath), m_bLockWaitAbandoned(false)
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

/* Polls, because nothing but a signal aimed at this very thread ends a blocking flock(2), and the
 * daemon has to be able to stop while another process sits on the lock. */
std::function<Bool()> CConfig::LockWait()
{
    return [this, bLogged = false]() mutable {
        if (IsStopRequested() || m_bLockWaitAbandoned.load()) {
            return false;
        }
        if (!bLogged) {
            LOG_DEBUG("HandleReadConfigMsg %s is locked by another process, waiting", m_pPath);
            bLogged = true;
        }
        Sleep(kLockPollMs);
        return true;
    };
}

int CConfig::HandleReadConfigMsg(const MSG_DESC_INFO_S *, void *o_pResult)
{
    {
        RQ_XMLParser objParser(m_pPath);
        UInt32 u32Err = objParser.Parse(LockWait());
        if (u32Err != 0) {
            LOG_ERROR("HandleReadConfigMsg %s err<%d>", m_pPath, static_cast<int>(u32Err));
            return 0;
        }
        ReadTheXML(objParser, false);
        if (LogEnabled(log4cpp::Priority::DEBUG)) {
            LogWhatIsNotUsed(m_pPath, objParser);
        }
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
    CopyText(PARAM_ADDR_LIST, stInfo.szAddrList);
    CopyText(PARAM_ADDR_URL, stInfo.szAddrUrl);
    stInfo.u32H264Enable = static_cast<UInt32>(Value(PARAM_H264_ENABLE).s32Number);
    stInfo.u32H264Gop = Value(PARAM_H264_GOP).s32Number;
    CopyText(PARAM_H264_MODE, stInfo.szH264Mode);
    stInfo.u32H264Bitrate = Value(PARAM_H264_BITRATE).s32Number;
    stInfo.u32PrevEnable = static_cast<UInt32>(Value(PARAM_PREV_ENABLE).s32Number);
    stInfo.u32PrevHeight = Value(PARAM_PREV_HEIGHT).s32Number;
    stInfo.u32PrevRefreshrate = Value(PARAM_PREV_REFRESHRATE).s32Number;
    CopyText(PARAM_SRC_DEVICE_ID, stInfo.szSrcDeviceId);
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
        SetNumber(stStatus.u32H264Gop, PARAM_H264_GOP, &stInfo.u32H264Gop);
        SetMode(stStatus.szH264Mode, stInfo.szH264Mode);
        SetNumber(stStatus.u32H264Bitrate, PARAM_H264_BITRATE, &stInfo.u32H264Bitrate);
    }
    if (stStatus.u32Type == STREAM_STATUS_PREVIEW || stStatus.u32Type == STREAM_STATUS_BOTH) {
        SetEnable(stStatus.u32PrevEnable, &stInfo.u32PrevEnable);
        SetNumber(stStatus.u32PrevHeight, PARAM_PREV_HEIGHT, &stInfo.u32PrevHeight);
        SetNumber(stStatus.u32PrevRefreshrate, PARAM_PREV_REFRESHRATE, &stInfo.u32PrevRefreshrate);
    }
    return 1;
}

int CConfig::HandleSetSrcDeviceId(const MSG_DESC_INFO_S *i_pMsg, void *)
{
    const std::string strId(TextOf(*i_pMsg).substr(0, sizeof(m_stConfigInfo.szSrcDeviceId)));
    LOG_INFO("set src device id:%s", strId.c_str());
    /* Kept: exactly as many characters here, as many or more in the file; ids of either length are
     * in use. */
    if (strId.size() != static_cast<std::size_t>(g_aParams[PARAM_SRC_DEVICE_ID].min)) {
        LOG_ERROR("src device id <%s> len :%d err", strId.c_str(), static_cast<int>(strId.size()));
        return 0;
    }
    rq_strncpy(m_stConfigInfo.szSrcDeviceId, strId.c_str(), sizeof(m_stConfigInfo.szSrcDeviceId));
    return 1;
}
